/// Raw socket: hears every Ethernet frame of the host and tells where its headers lie; pings on that footing.
///
/// Receives through a packet socket, which hears what the host sends, too, on all interfaces whatever
/// `BindToDevice` says; the device chosen there is the one that sent packets leave through. These go out
/// through a socket of its own that the object opens with the options in force when it first sends. Needs the
/// privilege to open raw sockets (CAP_NET_RAW); without it opening fails with EPERM.
///
/// | operation        | closed (0)     | open (6)              | taken over (3)        |
/// |------------------|----------------|-----------------------|-----------------------|
/// | Open             | opens          | true                  | false                 |
/// | SetSocket        | takes over     | KOVA_ERR_ALREADY_OPEN | KOVA_ERR_ALREADY_OPEN |
/// | RecvFrom         | opens first    | receives              | ENOTSOCK              |
/// | PeekFrom         | ETIMEDOUT      | peeks                 | peeks                 |
/// | SendTo           | opens first    | sends                 | true, nothing is sent |
/// | Ping             | opens, closes  | pings, closes         | -1, ENOTSOCK          |
/// | MultiPing        | -1, ENOTSOCK   | pings                 | -1, ENOTSOCK          |
/// | SendPingPacket   | opens first    | sends                 | true, nothing is sent |
/// | RecvPingPacket   | opens first    | receives              | ENOTSOCK              |
///
/// Addresses are IPv4 addresses in network order. Errors: ETIMEDOUT, KOVA_ERR_WRONG_PROTOCOL (no IPv4 frame,
/// no ICMP), KOVA_ERR_BAD_HEADER (cut short), EIO (checksum of an IP header, of a frame that is taken
/// nevertheless), EINVAL (text that is no address), ENOTSOCK, KOVA_ERR_ALREADY_OPEN, and errno of the failing
/// call. Signals end a wait. Threads: one thread uses an object.
#ifndef KOVA_RAW_SOCKET_H
#define KOVA_RAW_SOCKET_H

#include <kova/clock.h>
#include <kova/export.h>
#include <kova/icmp_socket.h>
#include <kova/inet_addr.h>
#include <kova/mac_addr.h>
#include <kova/socket_wrapper.h>

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>

class KOVA_API KovaRawSocket : public KovaSocketWrapper {
  public:
    /// Time-out 1000 ms.
    KovaRawSocket();
    /// Closes both descriptors.
    ~KovaRawSocket() override;

    /// Makes the descriptor and applies blocking, routing, broadcast, device and both time-outs. False, with
    /// the socket open but the rest not applied, if one of the first four is refused.
    bool Open() override;
    /// Closes at once; an error recorded before is cleared.
    void Close();
    /// Takes over a descriptor; the object closes it.
    bool SetSocket(KovaSocketT fd);

    /// Waits up to the time-out.
    bool WaitForData(KovaWaitModeT mode);
    /// Receives one frame, as much of it as `size` bytes hold, waiting up to the time-out, and decodes it.
    /// False, with `Received` not 0, for a frame that cannot be decoded: `RecvFrom` has taken it
    /// nevertheless, `PeekFrom` leaves it queued. The kernel takes the first VLAN tag off a frame that
    /// arrives.
    bool PeekFrom(void* buffer, size_t size);
    bool RecvFrom(void* buffer, size_t size);
    /// Decodes a frame: Ethernet, at most one VLAN tag, IPv4 and the header of UDP, TCP or ICMP. Nothing is
    /// read beyond `size`.
    bool CheckPacket(void* buffer, size_t size);

    /// Sends an ICMP packet, without IP header. True, too, if the socket cannot be opened.
    bool SendTo(const void* buffer, size_t size, const KovaInetAddr& to);
    /// Sends an echo request. `sequence` in host order.
    bool SendPingPacket(in_addr_t to, unsigned short sequence);
    /// Waits up to the time-out for the reply to a request to `to` (0: to any address) that was sent by the
    /// thread `tid` of the process `pid` (0: the calling one) on the descriptor `fd` (0: this socket's, -1:
    /// any), and stores its sequence number. Other frames are skipped, and each starts the wait anew: the
    /// whole may last almost twice the time-out.
    bool RecvPingPacket(in_addr_t to, unsigned short& sequence, int fd, unsigned int pid, unsigned int tid);

    /// Sends up to `tries` requests, each after the time-out of the one before. 1 for a reply that arrived at
    /// a control-network address (see `IsVOXAAddr`) of this host, 0 for none and for a reply that arrived at
    /// another address (ETIMEDOUT), -1 if the socket cannot be opened. Closes the socket.
    int32_t Ping(in_addr_t to, int32_t tries);
    /// `text` is a numeric address; -1 with EINVAL if it is none.
    int32_t Ping(char* text, int tries);
    /// In each of up to `rounds` rounds sends a request to each of the `count` addresses and counts the
    /// replies until none comes for the time-out. Returns the count of the best round, whoever replied; a
    /// reply that is heard twice, as on the loopback interface, counts twice. -1 if the socket is not open.
    int32_t MultiPing(unsigned int* addresses, unsigned int count, int rounds);

    /// Whether an address belongs to the control network, third byte 24 or 25, or to 127.0.0.0/24.
    bool IsVOXAAddr(unsigned int address);
    /// Internet checksum of `length` bytes, to be stored as it is: 0 over data that hold theirs.
    unsigned short CalculateChecksum(unsigned short* data, int length);

    /// Source and destination of the last frame; ports in network order, both the ICMP type for ICMP. The
    /// peer is the destination after a send. Owned by the object.
    KovaInetAddr* GetLastPeer() { return &m_LastPeer; }
    KovaInetAddr* GetLastLocal() { return &m_LastLocal; }
    KovaMacAddr* GetLastPeerMAC() { return &m_LastPeerMac; }
    KovaMacAddr* GetLastLocalMAC() { return &m_LastLocalMac; }
    /// Of the last frame with a VLAN tag or IPv4 in it: the low four bits of the VLAN's identifier, and the
    /// priority; -1 without tag.
    int16_t GetLastVLANId() const { return m_LastVlanId; }
    int16_t GetLastVLANPrio() const { return m_LastVlanPriority; }
    bool GetLastWasVLAN() const { return m_LastWasVlan != 0; }
    /// IPv4 protocol number of the last frame.
    uint8_t GetLastProtocol() const { return m_LastProtocol; }
    /// Where the headers of the last frame lie in the caller's buffer; 0 where it has none.
    unsigned GetFrameOffset() const { return m_FrameOffset; }
    unsigned GetEthernetOffset() const { return m_EthernetOffset; }
    unsigned GetIPOffset() const { return m_IpOffset; }
    unsigned GetProtocolOffset() const { return m_ProtocolOffset; }
    unsigned GetDataOffset() const { return m_DataOffset; }
    unsigned GetDataLen() const { return m_DataLength; }
    /// Of the last reply; 0 when none came.
    KovaTimeSpec* GetRoundtripTime() { return &m_RoundTrip; }

  private:
    bool OpenOnDemand(const char* function);
    bool OpenSender();
    void SetReceived(uint32_t bytes);
    bool TakeFrame(void* buffer, size_t size, int flags, const char* function);
    bool Refuse(int code, size_t size, const char* function);
    void NoteBadChecksum(const char* function);
    bool ReadEthernet(const unsigned char* frame, size_t size);
    void ReadTransport(const unsigned char* frame, size_t size);
    void ReadPorts(const unsigned char* frame, size_t size, size_t header_size);
    void StoreData(size_t size, size_t header_size);

    uint32_t m_Received;
    KovaInetAddr m_LastPeer;
    KovaInetAddr m_LastLocal;
    KovaMacAddr m_LastPeerMac;
    KovaMacAddr m_LastLocalMac;
    int16_t m_LastVlanId;
    int16_t m_LastVlanPriority;
    uint8_t m_LastWasVlan;
    uint8_t m_LastProtocol;
    uint32_t m_FrameOffset;
    uint32_t m_EthernetOffset;
    uint32_t m_IpOffset;
    uint32_t m_ProtocolOffset;
    uint32_t m_DataOffset;
    uint32_t m_DataLength;
    KovaTimeSpec m_RoundTrip;
    KovaIcmpSocket m_Sender;
};

#endif
