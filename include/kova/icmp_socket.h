/// ICMP socket: pings over an IPv4 raw socket.
///
/// Each request tells the socket, process and thread that sent it, so that any number of programs and threads
/// can ping at the same time: a reply to somebody else is skipped. (A child made by `fork` keeps its parent's
/// process id, and shares with it.) A packet of another size than such a reply ends the attempt, one of the
/// common `ping` command included. Needs the privilege to open raw sockets (CAP_NET_RAW); without it opening
/// fails with EPERM.
///
/// | operation         | closed (0) | open (5)              | taken over (3)        |
/// |-------------------|------------|-----------------------|-----------------------|
/// | Open              | opens      | true                  | false                 |
/// | SetSocket         | takes over | KOVA_ERR_ALREADY_OPEN | KOVA_ERR_ALREADY_OPEN |
/// | Ping, MultiPing   | open, ping | ping                  | -1, ENOTSOCK          |
/// | SendPingPacket, RecvPingPacket | open first | ping       | ping                  |
/// | SendTo            | EBADF      | sends                 | sends                 |
/// | RecvFrom, PeekFrom | ETIMEDOUT | receive               | receive               |
///
/// Addresses are IPv4 addresses in network order. Errors: ETIMEDOUT, EMSGSIZE (a datagram of another size),
/// EINVAL (text that is no address), ENOTSOCK, KOVA_ERR_ALREADY_OPEN, and errno of the failing call. Signals
/// end a wait, and with it the attempt. Threads: one thread uses an object.
#ifndef KOVA_ICMP_SOCKET_H
#define KOVA_ICMP_SOCKET_H

#include <kova/clock.h>
#include <kova/export.h>
#include <kova/inet_addr.h>
#include <kova/socket_wrapper.h>

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>

class KOVA_API KovaIcmpSocket : public KovaSocketWrapper {
  public:
    /// Time-out 1000 ms.
    KovaIcmpSocket();
    /// Closes the descriptor.
    ~KovaIcmpSocket() override;

    /// Makes the descriptor and applies blocking, routing, broadcast, device and both time-outs. False, with
    /// the socket open but the rest not applied, if one of the first four is refused.
    bool Open() override;
    /// Closes at once; an error recorded before is cleared. False if the kernel reports an error.
    bool Close();
    /// Takes over a descriptor; the object closes it. Such a socket does not ping.
    bool SetSocket(KovaSocketT fd);

    /// Waits up to the time-out.
    bool WaitForData(KovaWaitModeT mode);
    /// Receives one datagram of exactly `size` bytes, IP header included, waiting up to the time-out. One of
    /// another size is taken and dropped, or stays queued if peeked at; then, and when reading fails, last
    /// peer and last local become 0.0.0.0.
    bool PeekFrom(void* buffer, size_t size);
    bool RecvFrom(void* buffer, size_t size);
    /// Sends an ICMP packet, without IP header. Does not open the socket.
    bool SendTo(const void* buffer, size_t size, in_addr_t to);

    /// Sends an echo request. `sequence` in host order.
    bool SendPingPacket(in_addr_t to, unsigned short sequence);
    /// As above, out of the interface with the index `ifindex`, whatever the routes say; 0 leaves it to them.
    bool SendPingPacketAtIf(in_addr_t to, int ifindex, unsigned short sequence);
    /// Waits up to the time-out for the reply to a request of the calling thread on this socket to `to`, or
    /// to any address if `to` is 0, and stores its sequence number. Packets of others are skipped, and each
    /// starts the wait anew: the whole may last almost twice the time-out. A packet that is not of a reply's
    /// size, or tells that a destination is unreachable, ends it.
    bool RecvPingPacket(in_addr_t to, unsigned short& sequence);

    /// Sends up to `tries` requests, each after the time-out of the one before. 1 for a reply that arrived at
    /// a control-network address (see `IsVOXAAddr`) of this host, 0 for none and for a reply that arrived at
    /// another address (ETIMEDOUT), -1 if the socket cannot be opened. The socket stays open.
    int32_t Ping(in_addr_t to, int32_t tries);
    /// `text` is a numeric address; -1 with EINVAL if it is none.
    int32_t Ping(char* text, int tries);
    /// In each of up to `rounds` rounds sends a request to each of the `count` addresses and counts the
    /// replies until none comes for the time-out. Returns the count of the best round, whoever replied, or -1
    /// if the socket cannot be opened.
    int32_t MultiPing(unsigned int* addresses, unsigned int count, int rounds);

    /// Whether an address belongs to the control network, third byte 24 or 25, or to 127.0.0.0/24.
    bool IsVOXAAddr(unsigned int address);
    /// Internet checksum of `length` bytes, to be stored as it is: 0 over data that hold theirs.
    unsigned short CalculateChecksum(unsigned short* data, int length);

    /// Destination of the last send, then source of the last datagram. Owned by the object.
    KovaInetAddr* GetLastPeer() { return &m_LastPeer; }
    /// Address of this host at which the last reply arrived.
    KovaInetAddr* GetLastLocal() { return &m_LastLocal; }
    /// Of the last reply; 0 when none came.
    KovaTimeSpec* GetRoundtripTime() { return &m_RoundTrip; }

  private:
    void SetReceived(uint32_t bytes);
    bool OpenOnDemand();
    bool IsReady(const char* function);
    bool TakeDatagram(void* buffer, size_t size, int flags, const char* function);
    bool FindReply(in_addr_t to, unsigned short& sequence, const char* function);

    uint32_t m_Received;
    KovaTimeSpec m_RoundTrip;
    KovaInetAddr m_LastPeer;
    KovaInetAddr m_LastLocal;
};

#endif
