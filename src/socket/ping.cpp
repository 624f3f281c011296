#include "socket/ping.h"

#include "frame/wrap.h"

#include <kova/config.h>
#include <kova/process.h>

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>
#include <iterator>

namespace kova::ping {

namespace {

constexpr uint8_t kEchoRequest = 8;

// Places in a request.
constexpr size_t kTypeAt = 0;
constexpr size_t kChecksumAt = 2;
constexpr size_t kIdentifierAt = 4;
constexpr size_t kSequenceAt = 6;
constexpr size_t kEchoAt = kHeaderSize;

// Places in the echo data.
constexpr size_t kToAt = 0;
constexpr size_t kFdAt = 4;
constexpr size_t kPidAt = 8;
constexpr size_t kTidAt = 12;
constexpr size_t kSecondsAt = 16;
constexpr size_t kMillisecondsAt = 20;

constexpr uint32_t kNetMask = 0xFFFFFF00;
constexpr uint32_t kVoxaNets[] = {
    uint32_t{KOVA_VOXA_PREFIX} << 16 | 24 << 8,
    uint32_t{KOVA_VOXA_PREFIX} << 16 | 25 << 8,
    uint32_t{127} << 24,
};

constexpr int32_t kMsPerSecond = 1000;

template <typename Word>
void Put(unsigned char* to, Word word) {
    std::memcpy(to, &word, sizeof word);
}

void PutNumber(unsigned char* to, uint32_t number) { Put(to, htonl(number)); }

template <typename Word>
Word Get(const unsigned char* from) {
    Word word;
    std::memcpy(&word, from, sizeof word);
    return word;
}

uint32_t GetNumber(const unsigned char* from) { return ntohl(Get<uint32_t>(from)); }

int32_t GetSigned(const unsigned char* from) { return static_cast<int32_t>(GetNumber(from)); }

}  // namespace

Sender SenderOn(int32_t fd) {
    return {fd, static_cast<uint32_t>(KovaGetPid()), static_cast<uint32_t>(KovaGetTid())};
}

Request MakeRequest(in_addr_t to, uint16_t sequence, const Sender& sender) {
    KovaTimeSpec now;
    KovaGetRelativeClock(&now);

    Request request{};
    request[kTypeAt] = kEchoRequest;
    Put(&request[kIdentifierAt], htons(sequence));
    Put(&request[kSequenceAt], htons(sequence));
    unsigned char* const echo = &request[kEchoAt];
    Put(echo + kToAt, to);
    PutNumber(echo + kFdAt, static_cast<uint32_t>(sender.fd));
    PutNumber(echo + kPidAt, sender.pid);
    PutNumber(echo + kTidAt, sender.tid);
    PutNumber(echo + kSecondsAt, static_cast<uint32_t>(now.seconds));
    PutNumber(echo + kMillisecondsAt, static_cast<uint32_t>(now.milliseconds));
    Put(&request[kChecksumAt], Checksum(request.data(), request.size()));
    return request;
}

Echo ReadEcho(const unsigned char* data) {
    return {Get<in_addr_t>(data + kToAt),
            {GetSigned(data + kFdAt), GetNumber(data + kPidAt), GetNumber(data + kTidAt)},
            {GetSigned(data + kSecondsAt), GetSigned(data + kMillisecondsAt)}};
}

uint16_t ReadSequence(const unsigned char* packet) { return ntohs(Get<uint16_t>(packet + kSequenceAt)); }

bool Matches(const Echo& echo, in_addr_t to, const Sender& sender) {
    return (to == 0 || echo.to == to) && (sender.fd == kAnyFd || echo.sender.fd == sender.fd) &&
           echo.sender.pid == sender.pid && echo.sender.tid == sender.tid;
}

KovaTimeSpec RoundTrip(const Echo& echo) {
    KovaTimeSpec diff, sent = echo.sent, now;
    KovaGetRelativeClock(&now);
    KovaGetClockDiff(&diff, &sent, &now);
    return diff;
}

bool IsVoxaAddress(in_addr_t address) {
    const uint32_t net = ntohl(address) & kNetMask;
    return std::find(std::begin(kVoxaNets), std::end(kVoxaNets), net) != std::end(kVoxaNets);
}

std::optional<in_addr_t> ParseAddress(const char* text) {
    in_addr address;
    if (text == nullptr || ::inet_aton(text, &address) == 0) return std::nullopt;
    return address.s_addr;
}

uint32_t HostAddress(Addresses addresses, size_t place) {
    return place < addresses.size() ? ntohl(addresses[place]) : 0;
}

Deadline::Deadline(int32_t ms) {
    KovaGetRelativeClock(&m_At);
    m_At.seconds = WrapAdd(m_At.seconds, ms / kMsPerSecond);
    m_At.milliseconds += ms % kMsPerSecond;
    if (m_At.milliseconds >= kMsPerSecond) {
        m_At.seconds = WrapAdd(m_At.seconds, 1);
        m_At.milliseconds -= kMsPerSecond;
    }
}

bool Deadline::HasPassed() const {
    KovaTimeSpec now;
    KovaGetRelativeClock(&now);
    return now >= m_At;
}

}  // namespace kova::ping
