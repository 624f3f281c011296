/// Table of the host's IPv4 interfaces: looks them up, classifies addresses, changes their configuration.
///
/// `Init` or `GatherInterfaces` fills it from the kernel; until then it is empty. Gathering brings an
/// interface whose state differs from its record's into line: since a record starts as "up", an interface
/// that is found down for the first time loses its address and stays down.
///
/// Records belong to the table and stay where they are; gathering again overwrites them from the first on. A
/// record keeps the MAC address that it fetched once. Lookups that find nothing return a record whose id is
/// -1: its operations fail and read as empty values; only those on errors work as on any other.
///
/// Errors: the table keeps one code, for itself and its records: KOVA_ERR_INVALID_INTERFACE for the record
/// with id -1, EINVAL for a name of 16 characters or more, and errno where `SetFlag` fails. Changing the
/// kernel's configuration needs the privilege to (CAP_NET_ADMIN). Nothing blocks but for the kernel's own
/// work. Threads: a table belongs to one thread at a time.
#ifndef KOVA_NET_INTERFACES_H
#define KOVA_NET_INTERFACES_H

#include <kova/base_object.h>
#include <kova/export.h>
#include <kova/id.h>
#include <kova/inet_addr.h>
#include <kova/mac_addr.h>

#include <cstddef>
#include <type_traits>

class KOVA_API KovaNetInterfaces {
  public:
    typedef KovaBaseObject::ErrorT ErrorT;

    enum IfTypeT : int {
        IF_TYPE_NONE = 0,  ///< not set, or unusable
        IF_TYPE_LOOPBACK = 1,
        IF_TYPE_ETHERNET = 2,  ///< any other interface
        IF_TYPE_EXTERN = 3,    ///< given by callers only
    };

    enum IfStatusT : int {
        IF_STATUS_UP = 1,
        IF_STATUS_DOWN = 2,
    };

    /// One interface. Addresses are IPv4 addresses with port 0.
    class KOVA_API KovaNetInterface {
      public:
        KovaNetInterface(const KovaNetInterface&) = delete;
        KovaNetInterface& operator=(const KovaNetInterface&) = delete;

        KovaIfId GetInterfaceId();
        bool SetInterfaceId(const KovaIfId& id);
        /// The kernel's name (eth0:1), and the part of it before the first "." or ":". Owned by the record.
        const char* GetName();
        const char* GetBaseName();
        const KovaInetAddr& GetAddress();
        const KovaInetAddr& GetNetMask();
        /// Address AND netmask, and address OR NOT netmask.
        const KovaInetAddr& GetSubNet();
        const KovaInetAddr& GetBCastAddr();
        IfStatusT GetStatus();
        IfTypeT GetType();
        /// The number behind the first ":" of the name, 0 without one.
        KovaIfId GetAlias();
        KovaIfId Alias();
        /// Asks the kernel for it for as long as the stored one is not valid.
        const KovaMacAddr& GetMacAddress();

        bool SetType(IfTypeT type);
        /// Stores a name of at most 15 characters.
        bool SetName(const char* name);
        /// Store the field; the kernel is not touched.
        bool SetAddress(const KovaInetAddr& address);
        bool SetNetMask(const KovaInetAddr& netmask);

        /// Reconfigures or deconfigures the interface in the kernel, then sets its flag IFF_UP accordingly.
        /// The record takes the status over whatever comes of it. False, and nothing is done, if it has it
        /// already.
        bool SetStatus(IfStatusT status);
        /// Sets or clears flags (IFF_...) in the kernel.
        bool SetFlag(int flag, bool on);
        /// Gives the interface in the kernel the record's address, netmask and broadcast address. Clears the
        /// table's error; a failure is traced only.
        bool Reconfigure();
        /// Takes address, netmask and broadcast address from the interface in the kernel.
        bool Deconfigure();
        /// Gives an interface of type Ethernet another hardware address, and reads it back.
        bool SetMacAddress(const KovaMacAddr& address);
        /// Takes an interface whose record is "up" down, reconfigures it and takes it up again.
        bool ResetInterface();

        /// The table's error.
        ErrorT GetError();
        void ClearError();
        void SetErrorCode(ErrorT code);

      private:
        friend class KovaNetInterfaces;
        enum : size_t { kNameSize = 16 };

        KovaNetInterface();
        bool IsValid();
        bool Reaches(const KovaInetAddr& address) const;
        void Recompute();

        KovaNetInterfaces* m_Owner;
        KovaIfId m_Id;
        KovaInetAddr m_Address;
        KovaInetAddr m_NetMask;
        KovaInetAddr m_SubNet;
        KovaInetAddr m_Broadcast;
        IfTypeT m_Type;
        IfStatusT m_Status;
        KovaIfId m_Alias;
        KovaMacAddr m_Mac;
        char m_Name[kNameSize];
        char m_BaseName[kNameSize];
    };

    KovaNetInterfaces();
    KovaNetInterfaces(const KovaNetInterfaces&) = delete;
    KovaNetInterfaces& operator=(const KovaNetInterfaces&) = delete;
    virtual ~KovaNetInterfaces();

    /// Gathers and traces. Always true.
    bool Init();
    /// Reads the first seven interfaces of the kernel's list; those that are not IPv4 are left out. False,
    /// and the table stays as it is, if there is no list. Where a status is changed in the kernel, the
    /// table's error is that of doing so.
    bool GatherInterfaces();
    void TraceInterfaces();
    KovaIfId Count();

    /// The first record of this id, name, address or network, or MAC address; else the one with id -1. A
    /// `std::string` is taken for a MAC address: names are `const char*`.
    KovaNetInterface& operator[](const KovaIfId& id);
    KovaNetInterface& operator[](const char* name);
    KovaNetInterface& operator[](const KovaInetAddr& address);
    KovaNetInterface& operator[](const KovaMacAddr& address);
    /// Plain integers are ids; a literal 0 would else be a name.
    template <typename Id, typename = std::enable_if_t<std::is_integral<Id>::value>>
    KovaNetInterface& operator[](Id id) {
        return (*this)[KovaIfId(static_cast<int>(id))];
    }

    /// Whether the address is that of a record of type IF_TYPE_NONE, or of the loopback.
    bool IsLocalAddress(const KovaInetAddr& address);
    bool IsLoopbackAddress(const KovaInetAddr& address);
    /// Whether the address lies in the network of a record of type IF_TYPE_EXTERN or IF_TYPE_NONE, or of one
    /// that is up.
    bool IsExternAddress(const KovaInetAddr& address);
    bool IsDirectReachable(const KovaInetAddr& address);

    /// Writes the table to standard output.
    void Print();

    ErrorT GetError();
    void ClearError();
    void SetErrorCode(ErrorT code);

  private:
    enum { kSlots = 16 };

    template <typename Matches>
    KovaNetInterface* Find(Matches matches);
    KovaNetInterface& NotFound();

    KovaNetInterface m_Interfaces[kSlots + 1];
    int m_Count;
    ErrorT m_Error;
};

#endif
