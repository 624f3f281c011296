#include "addr/address_access.h"

#include <kova/inet_addr.h>

#include <arpa/inet.h>
#include <net/if.h>

#include <cstdio>
#include <cstring>
#include <ostream>

namespace {

constexpr size_t kIpv4Offset = 12;

in6_addr MapIpv4(unsigned int ip) {
    in6_addr mapped{};
    mapped.s6_addr[10] = mapped.s6_addr[11] = 0xFF;
    std::memcpy(mapped.s6_addr + kIpv4Offset, &ip, sizeof ip);
    return mapped;
}

bool IsZero(const uint8_t* bytes, size_t count) {
    for (size_t i = 0; i < count; ++i) {
        if (bytes[i] != 0) return false;
    }
    return true;
}

/// Whether the text form is dotted: IPv4-mapped, or all zero but the last four bytes, unless these are 0
/// or 1.
bool PrintsAsIpv4(const in6_addr& ip, uint32_t low) {
    if (!IsZero(ip.s6_addr, 10)) return false;
    if (ip.s6_addr[10] == 0 && ip.s6_addr[11] == 0) return low > 1;
    return ip.s6_addr[10] == 0xFF && ip.s6_addr[11] == 0xFF;
}

/// Reads a number up to 255 without leading zeroes; -1 if there is none.
int ReadByte(const char*& text) {
    const auto is_digit = [&] { return *text >= '0' && *text <= '9'; };
    if (!is_digit()) return -1;
    int value = *text++ - '0';
    for (; is_digit(); ++text) {
        if (value == 0) return -1;
        value = value * 10 + (*text - '0');
        if (value > 255) return -1;
    }
    return value;
}

/// As inet_pton for IPv4, which takes twice the time.
bool ParseDotted(const char* text, in_addr& ip) {
    uint8_t bytes[sizeof ip];
    for (size_t i = 0; i < sizeof bytes; ++i) {
        if (i != 0 && *text++ != '.') return false;
        const int value = ReadByte(text);
        if (value < 0) return false;
        bytes[i] = static_cast<uint8_t>(value);
    }
    std::memcpy(&ip, bytes, sizeof ip);
    return *text == '\0';
}

/// Writes `value` in decimal, unterminated; returns the end.
char* PrintDecimal(char* to, unsigned value) {
    char digits[10];
    size_t count = 0;
    do {
        digits[count++] = static_cast<char>('0' + value % 10);
        value /= 10;
    } while (value != 0);
    while (count != 0) *to++ = digits[--count];
    return to;
}

/// As inet_ntop, which is too slow for a trace record with every datagram. Needs 16 bytes; returns the
/// length.
size_t PrintDotted(char* text, const uint8_t* bytes) {
    char* end = text;
    for (size_t i = 0; i < 4; ++i) {
        if (i != 0) *end++ = '.';
        end = PrintDecimal(end, bytes[i]);
    }
    *end = '\0';
    return static_cast<size_t>(end - text);
}

}  // namespace

KovaInetAddr::KovaInetAddr(unsigned int ip, unsigned short port) : KovaInetAddr(MapIpv4(ip), port) {}

KovaInetAddr::KovaInetAddr(const in6_addr& ip, unsigned short port)
    : m_Ip(ip), m_Port(port), m_Text{}, m_PortText{}, m_Scope(kNoScope) {}

KovaInetAddr::KovaInetAddr(const char* text, unsigned short port) : KovaInetAddr(in6addr_any, port) {
    if (text != nullptr) *this = text;
}

KovaInetAddr::KovaInetAddr(const std::string& text, unsigned short port)
    : KovaInetAddr(text.empty() ? nullptr : text.c_str(), port) {}

// Deliberate: a copy has no scope; an assigned address keeps the other's.
KovaInetAddr::KovaInetAddr(const KovaInetAddr& other) : KovaInetAddr(other.m_Ip, other.m_Port) {}

KovaInetAddr::~KovaInetAddr() = default;

KovaInetAddr& KovaInetAddr::operator=(const KovaInetAddr& other) {
    SetIp(other.m_Ip);
    SetPort(other.m_Port);
    SetScope(other.m_Scope);
    return *this;
}

KovaInetAddr& KovaInetAddr::operator=(const in6_addr& ip) {
    SetIp(ip);
    return *this;
}

KovaInetAddr& KovaInetAddr::operator=(const char* text) {
    // Parsed before anything changes: the text may be this object's own.
    in_addr ip4{};
    in6_addr ip6{};
    if (text != nullptr && ParseDotted(text, ip4)) {
        SetIp(ip4.s_addr);
        // Deliberate: the text of an IPv4 address ends what was known of port and scope.
        SetPort(0);
        SetScope(kNoScope);
    } else if (text != nullptr && ::inet_pton(AF_INET6, text, &ip6) == 1) {
        SetIp(ip6);
    } else {
        SetIp(0U);
    }
    return *this;
}

KovaInetAddr& KovaInetAddr::operator=(const std::string& text) { return *this = text.c_str(); }

void KovaInetAddr::SetIp(unsigned int ip) { kova::AddressAccess::StoreIp(*this, ip); }

void KovaInetAddr::SetIp(const in6_addr& ip) {
    m_Ip = ip;
    m_Text[0] = '\0';
}

void KovaInetAddr::SetPort(unsigned short port) { kova::AddressAccess::StorePort(*this, port); }

void KovaInetAddr::SetScope(const char* ifname) {
    m_Scope = ifname == nullptr ? 0 : static_cast<int32_t>(::if_nametoindex(ifname));
}

void KovaInetAddr::SetScope(const std::string& ifname) { SetScope(ifname.c_str()); }

unsigned int KovaInetAddr::GetIp() const {
    unsigned int ip;
    std::memcpy(&ip, m_Ip.s6_addr + kIpv4Offset, sizeof ip);
    return ip;
}

size_t KovaInetAddr::PrintIp() const {
    if (PrintsAsIpv4(m_Ip, ntohl(GetIp()))) return PrintDotted(m_Text, m_Ip.s6_addr + kIpv4Offset);
    ::inet_ntop(AF_INET6, &m_Ip, m_Text, sizeof m_Text);
    return std::strlen(m_Text);
}

const char* KovaInetAddr::Print() const {
    const size_t length = PrintIp();
    if (m_Port != 0) std::snprintf(m_Text + length, sizeof m_Text - length, ":%d", ntohs(m_Port));
    return m_Text;
}

const char* KovaInetAddr::GetAsciiIp() const {
    PrintIp();
    return m_Text;
}

const char* KovaInetAddr::GetAsciiPort() const {
    if (m_PortText[0] == '\0') std::snprintf(m_PortText, sizeof m_PortText, "%d", ntohs(m_Port));
    return m_PortText;
}

KovaInetAddr::operator const char*() const { return Print(); }

KovaInetAddr::operator std::string() const { return Print(); }

// Deliberate: equality looks at the last four bytes and the port only, order at the last four bytes only.
bool KovaInetAddr::operator==(const KovaInetAddr& other) const {
    return GetIp() == other.GetIp() && m_Port == other.m_Port;
}

bool KovaInetAddr::operator!=(const KovaInetAddr& other) const { return !(*this == other); }
bool KovaInetAddr::operator<(const KovaInetAddr& other) const { return *this < other.GetIp(); }
bool KovaInetAddr::operator<=(const KovaInetAddr& other) const { return *this <= other.GetIp(); }
bool KovaInetAddr::operator>(const KovaInetAddr& other) const { return *this > other.GetIp(); }
bool KovaInetAddr::operator>=(const KovaInetAddr& other) const { return *this >= other.GetIp(); }

bool KovaInetAddr::operator==(unsigned int ip) const { return GetIp() == ip; }
bool KovaInetAddr::operator!=(unsigned int ip) const { return GetIp() != ip; }
bool KovaInetAddr::operator<(unsigned int ip) const { return ntohl(GetIp()) < ntohl(ip); }
bool KovaInetAddr::operator<=(unsigned int ip) const { return ntohl(GetIp()) <= ntohl(ip); }
bool KovaInetAddr::operator>(unsigned int ip) const { return ntohl(GetIp()) > ntohl(ip); }
bool KovaInetAddr::operator>=(unsigned int ip) const { return ntohl(GetIp()) >= ntohl(ip); }

bool operator==(unsigned int ip, const KovaInetAddr& address) { return address.operator==(ip); }
bool operator!=(unsigned int ip, const KovaInetAddr& address) { return address.operator!=(ip); }
bool operator<(unsigned int ip, const KovaInetAddr& address) { return address.operator>(ip); }
bool operator<=(unsigned int ip, const KovaInetAddr& address) { return address.operator>=(ip); }
bool operator>(unsigned int ip, const KovaInetAddr& address) { return address.operator<(ip); }
bool operator>=(unsigned int ip, const KovaInetAddr& address) { return address.operator<=(ip); }

std::ostream& operator<<(std::ostream& stream, const KovaInetAddr& address) {
    // Deliberate: a diagnostic line that is kept.
    std::puts("std::ostream& operator << (std::ostream& stream, const KovaInetAddr& Addr)");
    return stream << static_cast<const char*>(address);
}
