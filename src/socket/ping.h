/// Pings: what both sockets that send them share.
///
/// A request tells in its echo data who sent it, so that programs and threads that ping at the same time do
/// not take each other's replies.
#ifndef KOVA_SOCKET_PING_H
#define KOVA_SOCKET_PING_H

#include <kova/clock.h>

#include <netinet/in.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <span>

namespace kova::ping {

constexpr uint8_t kEchoReply = 0;
constexpr uint8_t kUnreachable = 3;

constexpr size_t kRequestSize = 52;
/// ICMP header, and the echo data that are looked at.
constexpr size_t kHeaderSize = 8;
constexpr size_t kEchoSize = 24;

typedef std::array<unsigned char, kRequestSize> Request;

/// Who waits for a reply.
struct Sender {
    int32_t fd;
    uint32_t pid;
    uint32_t tid;
};

/// The calling thread on the socket `fd`.
Sender SenderOn(int32_t fd);

/// An echo request, sent now. The address is in network order, the number in host order.
Request MakeRequest(in_addr_t to, uint16_t sequence, const Sender& sender);

/// The echo data of a request or its reply.
struct Echo {
    in_addr_t to;
    Sender sender;
    KovaTimeSpec sent;
};

/// Reads the `kEchoSize` bytes at `data`.
Echo ReadEcho(const unsigned char* data);
/// Sequence number of the ICMP packet at `packet`, in host order.
uint16_t ReadSequence(const unsigned char* packet);

/// Any descriptor.
constexpr int32_t kAnyFd = -1;
/// Whether a reply belongs to the request of `sender` to `to`, where address 0 means any.
bool Matches(const Echo& echo, in_addr_t to, const Sender& sender);

/// Time that passed since a request was sent.
KovaTimeSpec RoundTrip(const Echo& echo);

/// Internet checksum of `length` bytes: the ones' complement of the sum of their 16-bit words as they lie in
/// memory, an odd last byte being the first of a word. 0 over data that hold their own checksum.
inline uint16_t Checksum(const void* data, size_t length) {
    const auto word_at = [](const unsigned char* at) {
        uint16_t word;
        std::memcpy(&word, at, sizeof word);
        return word;
    };
    const unsigned char* bytes = static_cast<const unsigned char*>(data);
    uint32_t sum = 0;
    for (; length >= sizeof(uint16_t); bytes += sizeof(uint16_t), length -= sizeof(uint16_t))
        sum += word_at(bytes);
    if (length != 0) {
        const unsigned char last[] = {*bytes, 0};
        sum += word_at(last);
    }
    for (int i = 0; i < 2; ++i) sum = (sum & 0xFFFF) + (sum >> 16);
    return static_cast<uint16_t>(~sum);
}

/// Whether an address, in network order, belongs to the control network or is one of the first 256 loopback
/// addresses.
bool IsVoxaAddress(in_addr_t address);

/// Reads the text of an IPv4 address.
std::optional<in_addr_t> ParseAddress(const char* text);

/// Destinations, in network order.
typedef std::span<const in_addr_t> Addresses;
/// The list of a caller; a null pointer is an empty one.
inline Addresses ListOf(const in_addr_t* addresses, uint32_t count) {
    return {addresses, addresses == nullptr ? 0 : count};
}
/// The address at a place in a list in host order, 0 beyond its end.
uint32_t HostAddress(Addresses addresses, size_t place);

/// The point in time `ms` from now on the monotonic clock.
class Deadline {
  public:
    explicit Deadline(int32_t ms);
    bool HasPassed() const;

  private:
    KovaTimeSpec m_At;
};

/// Up to `tries` times: `send` a request, `receive` the reply, both by sequence number from 1 on. Ends with
/// the first reply, true, or the first request that cannot be sent.
template <typename Send, typename Receive>
bool AwaitReply(int32_t tries, Send send, Receive receive) {
    for (uint16_t sequence = 1; tries > 0; ++sequence, --tries) {
        if (!send(sequence)) return false;
        if (receive(sequence)) return true;
    }
    return false;
}

/// Up to `rounds` times: `send` a request to each of the addresses, then `receive` until there is nothing
/// more. Ends with the first round in which no request can be sent. Returns the replies of the best round.
template <typename Send, typename Receive>
int32_t CountReplies(Addresses addresses, int32_t rounds, Send send, Receive receive) {
    int32_t best = 0;
    for (uint16_t sequence = 1; rounds > 0; ++sequence, --rounds) {
        bool any_sent = false;
        for (const in_addr_t to : addresses) any_sent |= send(to, sequence);
        if (!any_sent) break;
        int32_t replies = 0;
        while (receive(sequence)) ++replies;
        if (replies > best) best = replies;
    }
    return best;
}

}  // namespace kova::ping

#endif
