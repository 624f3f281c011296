#include "unreachable.h"

#include <kova/process.h>

#include <arpa/inet.h>
#include <netinet/ip_icmp.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/types.h>

#include <cstddef>
#include <string_view>

namespace {

constexpr size_t kIpHeader = 20;
constexpr size_t kIpProtocolAt = 9;
constexpr size_t kIpSourceAt = 12;
constexpr size_t kIpDestinationAt = 16;

constexpr size_t kIcmpHeader = 8;
constexpr size_t kCodeAt = 1;
constexpr size_t kSequenceAt = 6;
/// In a request of the library: the sender's process.
constexpr size_t kPidAt = 16;

template <typename Number>
Number Get(std::string_view packet, size_t at) {
    Number number;
    memcpy(&number, packet.data() + at, sizeof number);
    return number;
}

uint8_t Byte(std::string_view packet, size_t at = 0) { return static_cast<uint8_t>(packet[at]); }

/// What an IP packet holds; empty if it is no whole ICMP packet.
std::string_view IcmpOf(std::string_view packet) {
    if (packet.size() < kIpHeader || Byte(packet, kIpProtocolAt) != IPPROTO_ICMP) return {};
    const size_t header = size_t{4} * (Byte(packet) & 0xFU);
    return packet.size() < header + kIcmpHeader ? std::string_view() : packet.substr(header);
}

/// Whether a quoted packet, which need not be whole, is a request of this process.
bool IsOwnRequest(std::string_view icmp) {
    if (icmp.empty() || Byte(icmp) != ICMP_ECHO) return false;
    if (icmp.size() < kPidAt + sizeof(uint32_t)) return true;
    return ntohl(Get<uint32_t>(icmp, kPidAt)) == static_cast<uint32_t>(KovaGetPid());
}

}  // namespace

std::optional<Unreachable> TakeUnreachable(int fd) {
    char datagram[256];
    const ssize_t size = ::recv(fd, datagram, sizeof datagram, MSG_PEEK | MSG_DONTWAIT);
    if (size <= 0) return std::nullopt;
    const std::string_view packet(datagram, static_cast<size_t>(size));
    const std::string_view icmp = IcmpOf(packet);
    if (icmp.empty() || Byte(icmp) != ICMP_DEST_UNREACH) return std::nullopt;
    const std::string_view quoted = icmp.substr(kIcmpHeader);
    const std::string_view request = IcmpOf(quoted);
    if (!IsOwnRequest(request)) return std::nullopt;
    ::recv(fd, datagram, sizeof datagram, MSG_DONTWAIT);
    return Unreachable{Get<in_addr_t>(quoted, kIpDestinationAt), Get<in_addr_t>(packet, kIpSourceAt),
                       ntohs(Get<uint16_t>(request, kSequenceAt)), Byte(icmp, kCodeAt)};
}

std::string ReasonText(const Unreachable& answer) {
    switch (answer.code) {
        case ICMP_NET_UNREACH:
            return "network unreachable";
        case ICMP_HOST_UNREACH:
            return "host unreachable";
        case ICMP_NET_ANO:
        case ICMP_HOST_ANO:
        case ICMP_PKT_FILTERED:
            return "forbidden";
        default:
            return "unreachable, code " + std::to_string(answer.code);
    }
}
