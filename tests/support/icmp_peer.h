/// The other end of a ping: ICMP packets watched and forged through plain raw sockets of the kernel.
///
///     icmp::Watcher watcher;
///     socket.SendPingPacket(Ip("127.0.0.1"), 7);
///     const std::string request = watcher.Next(icmp::kEchoRequest);
///
///     icmp::Packet reply;
///     reply.from = reply.to = Ip("127.0.0.1");
///     reply.data = icmp::EchoData({reply.from, socket.GetSocket(), pid, tid, seconds, milliseconds});
///     icmp::Forger().Send(reply.Bytes());
///
/// Addresses are in network order, numbers in host order; texts hold bytes as they are on the wire.
#ifndef KOVA_TESTS_SUPPORT_ICMP_PEER_H
#define KOVA_TESTS_SUPPORT_ICMP_PEER_H

#include "support/leak_check.h"

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace icmp {

inline constexpr uint8_t kEchoReply = 0;
inline constexpr uint8_t kUnreachable = 3;
inline constexpr uint8_t kEchoRequest = 8;

inline constexpr size_t kIpHeader = 20;
inline constexpr size_t kHeader = 8;
/// A whole request or reply, without and with IP header.
inline constexpr size_t kRequest = 52;
inline constexpr size_t kDatagram = kIpHeader + kRequest;

/// IPv4 address of a dotted text.
in_addr_t Ip(const char* dotted);

/// A number of `size` bytes, most significant byte first.
std::string BigEndian(uint32_t number, size_t size);
/// The bytes of an address.
std::string AddressBytes(in_addr_t address);

/// Checksum of big-endian words, by its definition. To be written big-endian.
uint16_t Checksum(const std::string& bytes);

/// Who sent a request, to whom, and when.
struct Echo {
    in_addr_t to;
    int fd;
    uint32_t pid;
    uint32_t tid;
    int32_t seconds;
    int32_t milliseconds;
};

/// The 44 bytes behind the header of a request or reply.
std::string EchoData(const Echo& echo);

/// An ICMP packet in an IPv4 datagram.
struct Packet {
    in_addr_t from = 0;
    in_addr_t to = 0;
    std::string options;  ///< IP options: whole words
    uint8_t type = kEchoReply;
    uint8_t code = 0;
    uint16_t identifier = 0;
    uint16_t sequence = 0;
    std::string data;

    /// From the ICMP header on.
    std::string IcmpBytes() const;
    /// From the IP header on.
    std::string Bytes() const;
};

/// Sees every ICMP packet that arrives here, in the network of the thread that makes it.
class Watcher {
  public:
    Watcher();

    /// The next datagram with its IP header whose ICMP type is `type`; fails the test if none comes.
    std::string Next(uint8_t type) const;
    /// Whether nothing has arrived that was not asked for yet.
    bool HasNothing() const;

  private:
    Fd m_Socket;
};

/// Sends datagrams whose IP header is the test's own. The kernel writes their total length and checksum.
class Forger {
  public:
    Forger();

    void Send(const std::string& datagram) const;

  private:
    Fd m_Socket;
};

/// While it lives, this host does not answer pings.
class Silence {
  public:
    Silence() { Set('1'); }
    Silence(const Silence&) = delete;
    Silence& operator=(const Silence&) = delete;
    ~Silence() { Set('0'); }

  private:
    static void Set(char value);
};

}  // namespace icmp

#endif
