#include "ping_answer.h"

#include <kova/process.h>

#include <arpa/inet.h>
#include <net/ethernet.h>
#include <netinet/ip_icmp.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/types.h>

#include <cstddef>
#include <string_view>

namespace {

constexpr size_t kEtherTypeAt = 12;
constexpr size_t kEthernetHeader = 14;
constexpr size_t kTaggedHeader = 18;

constexpr size_t kIpHeader = 20;
constexpr size_t kIpProtocolAt = 9;
constexpr size_t kIpSourceAt = 12;
constexpr size_t kIpDestinationAt = 16;

constexpr size_t kIcmpHeader = 8;
constexpr size_t kCodeAt = 1;
constexpr size_t kSequenceAt = 6;

// In a request of the library and in its reply.
constexpr size_t kToAt = 8;
constexpr size_t kFdAt = 12;
constexpr size_t kPidAt = 16;
constexpr size_t kTidAt = 20;
constexpr size_t kEchoEnd = 32;

template <typename Number>
Number Get(std::string_view packet, size_t at) {
    Number number;
    memcpy(&number, packet.data() + at, sizeof number);
    return number;
}

uint32_t GetNumber(std::string_view packet, size_t at) { return ntohl(Get<uint32_t>(packet, at)); }

uint8_t Byte(std::string_view packet, size_t at = 0) { return static_cast<uint8_t>(packet[at]); }

/// The IP packet in a frame, empty if there can be none. Behind a tag the library looks at no type.
std::string_view PacketOf(std::string_view frame) {
    if (frame.size() < kTaggedHeader) return {};
    switch (ntohs(Get<uint16_t>(frame, kEtherTypeAt))) {
        case ETHERTYPE_IP:
            return frame.substr(kEthernetHeader);
        case ETHERTYPE_VLAN:
            return frame.substr(kTaggedHeader);
        default:
            return {};
    }
}

/// What an IP packet holds; empty if it is no whole ICMP packet.
std::string_view IcmpOf(std::string_view packet) {
    if (packet.size() < kIpHeader || Byte(packet, kIpProtocolAt) != IPPROTO_ICMP) return {};
    const size_t header = size_t{4} * (Byte(packet) & 0xFU);
    return packet.size() < header + kIcmpHeader ? std::string_view() : packet.substr(header);
}

bool IsOwnPid(std::string_view icmp) {
    return GetNumber(icmp, kPidAt) == static_cast<uint32_t>(KovaGetPid());
}

/// Whether a quoted packet, which need not be whole, is a request of this process.
bool IsOwnRequest(std::string_view icmp) {
    if (icmp.empty() || Byte(icmp) != ICMP_ECHO) return false;
    return icmp.size() < kPidAt + sizeof(uint32_t) || IsOwnPid(icmp);
}

/// Whether it replies to a request of this thread on the socket.
bool IsOwnReply(std::string_view icmp, int fd) {
    return icmp.size() >= kEchoEnd && Byte(icmp) == ICMP_ECHOREPLY && IsOwnPid(icmp) &&
           GetNumber(icmp, kFdAt) == static_cast<uint32_t>(fd) &&
           GetNumber(icmp, kTidAt) == static_cast<uint32_t>(KovaGetTid());
}

Answer AnswerIn(std::string_view packet, int fd) {
    const std::string_view icmp = IcmpOf(packet);
    if (icmp.empty()) return {};
    const auto source = Get<in_addr_t>(packet, kIpSourceAt);
    if (IsOwnReply(icmp, fd)) {
        return {Answer::kReply, Get<in_addr_t>(icmp, kToAt), source, ntohs(Get<uint16_t>(icmp, kSequenceAt)),
                0};
    }
    if (Byte(icmp) != ICMP_DEST_UNREACH) return {};
    const std::string_view quoted = icmp.substr(kIcmpHeader);
    const std::string_view request = IcmpOf(quoted);
    if (!IsOwnRequest(request)) return {};
    return {Answer::kRefusal, Get<in_addr_t>(quoted, kIpDestinationAt), source,
            ntohs(Get<uint16_t>(request, kSequenceAt)), Byte(icmp, kCodeAt)};
}

}  // namespace

std::optional<Answer> PeekAnswer(int fd, Hears what) {
    char data[256];
    const ssize_t size = ::recv(fd, data, sizeof data, MSG_PEEK | MSG_DONTWAIT);
    if (size < 0) return std::nullopt;
    const std::string_view seen(data, static_cast<size_t>(size));
    return AnswerIn(what == Hears::kFrames ? PacketOf(seen) : seen, fd);
}

void DropAnswer(int fd) {
    char byte;
    ::recv(fd, &byte, sizeof byte, MSG_DONTWAIT);
}

std::string ReasonText(const Answer& refusal) {
    switch (refusal.code) {
        case ICMP_NET_UNREACH:
            return "network unreachable";
        case ICMP_HOST_UNREACH:
            return "host unreachable";
        case ICMP_NET_ANO:
        case ICMP_HOST_ANO:
        case ICMP_PKT_FILTERED:
            return "forbidden";
        default:
            return "unreachable, code " + std::to_string(refusal.code);
    }
}
