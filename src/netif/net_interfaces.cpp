#include "frame/trace.h"
#include "netif/interface_request.h"

#include <kova/net_interfaces.h>

#include <arpa/inet.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

typedef KovaNetInterfaces::KovaNetInterface Interface;

constexpr size_t kListSize = 512;
/// Deliberate: what the kernel lists behind these is left out, though the list has room for more.
constexpr int kMostInterfaces = 7;

void CopyName(char* to, size_t room, const char* name, size_t length) {
    std::memset(to, 0, room);
    std::memcpy(to, name, length);
}

/// What `atoi` reads on the target: a number beyond 32 bits is the nearest one.
int ReadNumber(const char* text) {
    return static_cast<int>(std::clamp<long>(std::strtol(text, nullptr, 10), INT32_MIN, INT32_MAX));
}

bool SetInKernel(kova::InterfaceSocket& socket, unsigned long request, const char* name, in_addr_t address) {
    ifreq wanted = kova::RequestFor(name, address);
    return socket.Ask(request, &wanted);
}

/// Composes what the kernel says an interface has. Deliberate: nothing prints it; it is there to be looked at
/// in a debugger.
class Description {
  public:
    Description(kova::InterfaceSocket& socket, const char* when, const char* name) {
        m_Length = Written(
            std::snprintf(m_Text, sizeof m_Text, "%s the reconfigure: interface %s has ", when, name));
        constexpr struct {
            unsigned long request;
            const char* label;
        } kParts[] = {{SIOCGIFADDR, "IPAddr"}, {SIOCGIFNETMASK, "Netmask"}, {SIOCGIFBRDADDR, "Broadcast"}};
        for (const auto& part : kParts) {
            ifreq request = kova::RequestFor(name, 0);
            if (!socket.Ask(part.request, &request)) continue;
            m_Length += Written(std::snprintf(m_Text + m_Length, sizeof m_Text - m_Length, "%s %8.8x  ",
                                              part.label, ntohl(kova::AddressOf(request))));
        }
    }

  private:
    /// The room is enough for the longest text.
    static size_t Written(int length) { return static_cast<size_t>(length); }

    char m_Text[160] = {};
    size_t m_Length = 0;
};

/// Fills a record from an entry of the kernel's list. Deliberate: where the kernel's status is not the
/// record's, the interface is changed in the kernel, with the netmask that the record had before.
void Fill(kova::InterfaceSocket& socket, ifreq entry, Interface& interface) {
    entry.ifr_name[sizeof entry.ifr_name - 1] = '\0';
    const char* const name = entry.ifr_name;
    interface.SetAddress(KovaInetAddr(kova::AddressOf(entry), 0));
    interface.SetName(name);

    ifreq flags = kova::RequestFor(name);
    if (socket.Ask(SIOCGIFFLAGS, &flags)) {
        const bool up = (flags.ifr_flags & IFF_UP) != 0;
        interface.SetStatus(up ? KovaNetInterfaces::IF_STATUS_UP : KovaNetInterfaces::IF_STATUS_DOWN);
        if (flags.ifr_flags & IFF_LOOPBACK) interface.SetType(KovaNetInterfaces::IF_TYPE_LOOPBACK);
    } else {
        KOVA_TRACE("interface flags errno=%d", errno);
        interface.SetStatus(KovaNetInterfaces::IF_STATUS_DOWN);
        interface.SetType(KovaNetInterfaces::IF_TYPE_NONE);
    }

    ifreq netmask = kova::RequestFor(name, 0);
    if (socket.Ask(SIOCGIFNETMASK, &netmask)) {
        interface.SetNetMask(KovaInetAddr(kova::AddressOf(netmask), 0));
    } else {
        KOVA_TRACE("interface netmask errno=%d", errno);
        interface.SetNetMask(KovaInetAddr(0, 0));
    }

    // Deliberate: also where the flags could not be read.
    if (interface.GetType() != KovaNetInterfaces::IF_TYPE_LOOPBACK)
        interface.SetType(KovaNetInterfaces::IF_TYPE_ETHERNET);
    interface.GetMacAddress();
}

}  // namespace

// Record

KovaNetInterfaces::KovaNetInterface::KovaNetInterface()
    : m_Owner(nullptr),
      m_Address(0, 0),
      m_NetMask(0, 0),
      m_SubNet(0, 0),
      m_Broadcast(0, 0),
      m_Type(IF_TYPE_NONE),
      m_Status(IF_STATUS_UP),
      m_Alias(0),
      m_Name{},
      m_BaseName{} {}

/// Fails in the table's name for the record that stands for no interface.
bool KovaNetInterfaces::KovaNetInterface::IsValid() {
    if (m_Id.GetId() >= 0) return true;
    KOVA_TRACE("invalid interface id=%d", m_Id.GetId());
    m_Owner->m_Error = KovaBaseObject::KOVA_ERR_INVALID_INTERFACE;
    return false;
}

KovaIfId KovaNetInterfaces::KovaNetInterface::GetInterfaceId() {
    IsValid();
    return m_Id;
}

bool KovaNetInterfaces::KovaNetInterface::SetInterfaceId(const KovaIfId& id) {
    if (!IsValid()) return false;
    m_Id = id;
    return true;
}

const char* KovaNetInterfaces::KovaNetInterface::GetName() {
    IsValid();
    return m_Name;
}

const char* KovaNetInterfaces::KovaNetInterface::GetBaseName() {
    IsValid();
    return m_BaseName;
}

const KovaInetAddr& KovaNetInterfaces::KovaNetInterface::GetAddress() {
    IsValid();
    return m_Address;
}

const KovaInetAddr& KovaNetInterfaces::KovaNetInterface::GetNetMask() {
    IsValid();
    return m_NetMask;
}

const KovaInetAddr& KovaNetInterfaces::KovaNetInterface::GetSubNet() {
    IsValid();
    return m_SubNet;
}

const KovaInetAddr& KovaNetInterfaces::KovaNetInterface::GetBCastAddr() {
    IsValid();
    return m_Broadcast;
}

KovaNetInterfaces::IfStatusT KovaNetInterfaces::KovaNetInterface::GetStatus() {
    return IsValid() ? m_Status : IfStatusT{};
}

KovaNetInterfaces::IfTypeT KovaNetInterfaces::KovaNetInterface::GetType() {
    return IsValid() ? m_Type : IF_TYPE_NONE;
}

KovaIfId KovaNetInterfaces::KovaNetInterface::GetAlias() {
    IsValid();
    return m_Alias;
}

KovaIfId KovaNetInterfaces::KovaNetInterface::Alias() { return GetAlias(); }

const KovaMacAddr& KovaNetInterfaces::KovaNetInterface::GetMacAddress() {
    // Deliberate: once fetched it stays, also when gathering puts another interface into the record.
    if (IsValid() && !m_Mac.IsValid()) m_Mac.FetchFromDevice(m_Name);
    return m_Mac;
}

bool KovaNetInterfaces::KovaNetInterface::SetType(IfTypeT type) {
    if (!IsValid()) return false;
    m_Type = type;
    return true;
}

bool KovaNetInterfaces::KovaNetInterface::SetName(const char* name) {
    if (!IsValid()) return false;
    if (name == nullptr) name = "";
    const size_t length = ::strnlen(name, kNameSize);
    if (length == kNameSize) {
        SetErrorCode(static_cast<ErrorT>(EINVAL));
        return false;
    }
    char copy[kNameSize];
    CopyName(copy, sizeof copy, name, length);
    const char* const colon = std::strchr(copy, ':');
    m_Alias = colon == nullptr ? 0 : ReadNumber(colon + 1);
    std::memcpy(m_Name, copy, sizeof m_Name);
    std::replace_if(
        copy, copy + length, [](char c) { return c == '.' || c == ':'; }, '\0');
    std::memcpy(m_BaseName, copy, sizeof m_BaseName);
    return true;
}

bool KovaNetInterfaces::KovaNetInterface::SetAddress(const KovaInetAddr& address) {
    if (!IsValid()) return false;
    m_Address = KovaInetAddr(address.GetIp(), 0);
    Recompute();
    return true;
}

bool KovaNetInterfaces::KovaNetInterface::SetNetMask(const KovaInetAddr& netmask) {
    if (!IsValid()) return false;
    m_NetMask = KovaInetAddr(netmask.GetIp(), 0);
    Recompute();
    return true;
}

/// Whether the address lies in the interface's network.
bool KovaNetInterfaces::KovaNetInterface::Reaches(const KovaInetAddr& address) const {
    return m_SubNet.GetIp() == (address.GetIp() & m_NetMask.GetIp());
}

void KovaNetInterfaces::KovaNetInterface::Recompute() {
    m_Broadcast.SetIp(m_Address.GetIp() | ~m_NetMask.GetIp());
    m_SubNet.SetIp(m_Address.GetIp() & m_NetMask.GetIp());
}

bool KovaNetInterfaces::KovaNetInterface::SetStatus(IfStatusT status) {
    if (!IsValid() || status == m_Status) return false;
    const bool up = status == IF_STATUS_UP;
    const bool configured = up ? Reconfigure() : Deconfigure();
    const bool flagged = SetFlag(IFF_UP, up);
    // Deliberate: whatever came of it.
    m_Status = status;
    return configured && flagged;
}

bool KovaNetInterfaces::KovaNetInterface::SetFlag(int flag, bool on) {
    if (!IsValid()) return false;
    kova::InterfaceSocket socket;
    ifreq request = kova::RequestFor(m_Name);
    if (socket.Ask(SIOCGIFFLAGS, &request)) {
        request.ifr_flags = static_cast<short>(on ? request.ifr_flags | flag : request.ifr_flags & ~flag);
        if (socket.Ask(SIOCSIFFLAGS, &request)) return true;
    }
    SetErrorCode(static_cast<ErrorT>(errno));
    return false;
}

bool KovaNetInterfaces::KovaNetInterface::Reconfigure() {
    if (!IsValid()) return false;
    ClearError();
    kova::InterfaceSocket socket;
    [[maybe_unused]] const Description before(socket, "before", m_Name);
    const in_addr_t address = m_Address.GetIp();
    if (!SetInKernel(socket, SIOCSIFADDR, m_Name, address)) {
        KOVA_TRACE("interface address=%x errno=%d", ntohl(address), errno);
        return false;
    }
    const in_addr_t netmask = m_NetMask.GetIp();
    if (!SetInKernel(socket, SIOCSIFNETMASK, m_Name, netmask)) {
        KOVA_TRACE("interface netmask=%x errno=%d", ntohl(netmask), errno);
        return false;
    }
    const in_addr_t broadcast = m_SubNet.GetIp() | ~netmask;
    const bool done = SetInKernel(socket, SIOCSIFBRDADDR, m_Name, broadcast);
    if (!done) KOVA_TRACE("interface broadcast=%x errno=%d", ntohl(broadcast), errno);
    [[maybe_unused]] const Description after(socket, "after", m_Name);
    return done;
}

bool KovaNetInterfaces::KovaNetInterface::Deconfigure() {
    if (!IsValid()) return false;
    kova::InterfaceSocket socket;
    for (const unsigned long request : {SIOCSIFADDR, SIOCSIFNETMASK, SIOCSIFBRDADDR}) {
        if (SetInKernel(socket, request, m_Name, 0)) continue;
        KOVA_TRACE("deconfigure request=%x errno=%d", static_cast<uint32_t>(request), errno);
        return false;
    }
    return true;
}

bool KovaNetInterfaces::KovaNetInterface::SetMacAddress(const KovaMacAddr& address) {
    if (!IsValid() || m_Type != IF_TYPE_ETHERNET) return false;
    kova::InterfaceSocket socket;
    ifreq request = kova::RequestFor(m_Name);
    request.ifr_hwaddr.sa_family = ARPHRD_ETHER;
    std::memcpy(request.ifr_hwaddr.sa_data, address.GetUnsigned(), KovaMacAddr::kSize);
    const bool done = socket.Ask(SIOCSIFHWADDR, &request);
    m_Mac.Invalidate();
    GetMacAddress();
    return done;
}

bool KovaNetInterfaces::KovaNetInterface::ResetInterface() {
    if (!IsValid()) return false;
    ClearError();
    if (m_Status != IF_STATUS_UP) return false;
    SetFlag(IFF_UP, false);
    const bool configured = Reconfigure();
    const bool flagged = SetFlag(IFF_UP, true);
    if (configured) return flagged;
    KOVA_TRACE("interface not reset id=%d", m_Id.GetId());
    return false;
}

KovaNetInterfaces::ErrorT KovaNetInterfaces::KovaNetInterface::GetError() { return m_Owner->GetError(); }

void KovaNetInterfaces::KovaNetInterface::ClearError() { m_Owner->ClearError(); }

void KovaNetInterfaces::KovaNetInterface::SetErrorCode(ErrorT code) { m_Owner->SetErrorCode(code); }

// Table

KovaNetInterfaces::KovaNetInterfaces() : m_Count(0), m_Error(KovaBaseObject::KOVA_ERR_NONE) {
    for (int i = 0; i < kSlots; ++i) m_Interfaces[i].m_Id = i;
    for (KovaNetInterface& interface : m_Interfaces) interface.m_Owner = this;
    m_Interfaces[kSlots].m_Id = -1;
}

KovaNetInterfaces::~KovaNetInterfaces() = default;

bool KovaNetInterfaces::Init() {
    GatherInterfaces();
    TraceInterfaces();
    return true;
}

bool KovaNetInterfaces::GatherInterfaces() {
    KOVA_TRACE("gather interfaces");
    kova::InterfaceSocket socket;
    alignas(ifreq) char entries[kListSize] = {};
    ifconf list{};
    list.ifc_len = sizeof entries;
    list.ifc_buf = entries;
    if (!socket.Ask(SIOCGIFCONF, &list)) {
        KOVA_TRACE("interface list errno=%d", errno);
        return false;
    }
    const int listed = std::clamp(list.ifc_len / static_cast<int>(sizeof(ifreq)), 0, kMostInterfaces);
    m_Count = listed;
    for (int i = 0; i < listed; ++i) m_Interfaces[i].m_Type = IF_TYPE_NONE;

    int filled = 0;
    for (int i = 0; i < listed; ++i) {
        ifreq entry;
        std::memcpy(&entry, entries + static_cast<size_t>(i) * sizeof entry, sizeof entry);
        if (entry.ifr_addr.sa_family != AF_INET) continue;
        // First of all, so that an id that a caller made invalid does not stay so.
        m_Interfaces[filled].m_Id = filled;
        Fill(socket, entry, m_Interfaces[filled]);
        ++filled;
    }
    m_Count = filled;
    return true;
}

void KovaNetInterfaces::TraceInterfaces() {
    for (int i = 0; i < m_Count; ++i) {
        const KovaNetInterface& interface = m_Interfaces[i];
        KOVA_TRACE("interface id=%d type=%d status=%d address=%x netmask=%x subnet=%x broadcast=%x alias=%d",
                   interface.m_Id.GetId(), interface.m_Type, interface.m_Status,
                   ntohl(interface.m_Address.GetIp()), ntohl(interface.m_NetMask.GetIp()),
                   ntohl(interface.m_SubNet.GetIp()), ntohl(interface.m_Broadcast.GetIp()),
                   interface.m_Alias.GetId());
    }
}

KovaIfId KovaNetInterfaces::Count() { return m_Count; }

template <typename Matches>
KovaNetInterfaces::KovaNetInterface* KovaNetInterfaces::Find(Matches matches) {
    KovaNetInterface* const end = m_Interfaces + m_Count;
    KovaNetInterface* const found = std::find_if(m_Interfaces, end, matches);
    return found == end ? nullptr : found;
}

KovaNetInterfaces::KovaNetInterface& KovaNetInterfaces::NotFound() {
    m_Error = KovaBaseObject::KOVA_ERR_INVALID_INTERFACE;
    return m_Interfaces[kSlots];
}

KovaNetInterfaces::KovaNetInterface& KovaNetInterfaces::operator[](const KovaIfId& id) {
    if (auto* const found = Find([&](KovaNetInterface& one) { return one.m_Id == id; })) return *found;
    KOVA_TRACE("no interface id=%d", id.GetId());
    return NotFound();
}

KovaNetInterfaces::KovaNetInterface& KovaNetInterfaces::operator[](const char* name) {
    const auto matches = [&](KovaNetInterface& one) {
        return name != nullptr && std::strcmp(one.m_Name, name) == 0;
    };
    if (auto* const found = Find(matches)) return *found;
    KOVA_TRACE("no interface name=%s", name);
    return NotFound();
}

KovaNetInterfaces::KovaNetInterface& KovaNetInterfaces::operator[](const KovaInetAddr& address) {
    const auto matches = [&](KovaNetInterface& one) {
        return one.m_Address == address.GetIp() || one.m_SubNet == address.GetIp();
    };
    if (auto* const found = Find(matches)) return *found;
    KOVA_TRACE("no interface address=%x", ntohl(address.GetIp()));
    return NotFound();
}

KovaNetInterfaces::KovaNetInterface& KovaNetInterfaces::operator[](const KovaMacAddr& address) {
    const auto matches = [&](KovaNetInterface& one) {
        // An invalid address has the bytes of the loopback's.
        return address.IsValid() && one.GetMacAddress() == address;
    };
    if (auto* const found = Find(matches)) return *found;
    KOVA_TRACE("no interface of this mac");
    return NotFound();
}

bool KovaNetInterfaces::IsLocalAddress(const KovaInetAddr& address) {
    return Find([&](KovaNetInterface& one) {
               return one.m_Address == address && one.m_Type == IF_TYPE_NONE;
           }) != nullptr;
}

bool KovaNetInterfaces::IsLoopbackAddress(const KovaInetAddr& address) {
    return Find([&](KovaNetInterface& one) {
               return one.m_Address == address && one.m_Type == IF_TYPE_LOOPBACK;
           }) != nullptr;
}

bool KovaNetInterfaces::IsExternAddress(const KovaInetAddr& address) {
    return Find([&](KovaNetInterface& one) {
               return one.Reaches(address) && (one.m_Type == IF_TYPE_EXTERN || one.m_Type == IF_TYPE_NONE);
           }) != nullptr;
}

bool KovaNetInterfaces::IsDirectReachable(const KovaInetAddr& address) {
    return Find([&](KovaNetInterface& one) {
               return one.Reaches(address) && one.m_Status == IF_STATUS_UP;
           }) != nullptr;
}

void KovaNetInterfaces::Print() {
    // Deliberate: the columns of the heading are not those of the rows.
    std::printf(
        "Ethernet Interfaces:\n"
        "Id Typ Address          Netmask          SubNet       Status Name        MAC                "
        "Alias\n");
    for (int i = 0; i < m_Count; ++i) {
        KovaNetInterface& one = m_Interfaces[i];
        std::printf("%02d %03d %-16.16s %-16.16s %-16.16s  %1.1d %-12.12s%s %d\n", one.m_Id.GetId(),
                    one.m_Type, one.m_Address.GetAsciiIp(), one.m_NetMask.GetAsciiIp(),
                    one.m_SubNet.GetAsciiIp(), one.m_Status, one.m_Name, one.GetMacAddress().Ascii(),
                    one.m_Alias.GetId());
    }
}

KovaNetInterfaces::ErrorT KovaNetInterfaces::GetError() { return m_Error; }

void KovaNetInterfaces::ClearError() { m_Error = KovaBaseObject::KOVA_ERR_NONE; }

void KovaNetInterfaces::SetErrorCode(ErrorT code) {
    KOVA_TRACE("interfaces code=%d", code);
    m_Error = code;
}
