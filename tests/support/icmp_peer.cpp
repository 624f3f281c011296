#include "support/icmp_peer.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <fstream>

namespace icmp {

namespace {

constexpr size_t kFragmentAt = 6;
constexpr size_t kDestinationAt = 16;

constexpr unsigned char kVersion = 0x40;
constexpr size_t kWord = 4;
constexpr unsigned char kTimeToLive = 64;

size_t HeaderSize(const std::string& datagram) {
    return kWord * (static_cast<unsigned char>(datagram.at(0)) & 0xF);
}

}  // namespace

in_addr_t Ip(const char* dotted) {
    in_addr address{};
    EXPECT_EQ(1, ::inet_pton(AF_INET, dotted, &address)) << dotted;
    return address.s_addr;
}

std::string BigEndian(uint32_t number, size_t size) {
    std::string bytes(size, '\0');
    for (size_t i = size; i-- > 0; number >>= 8) bytes[i] = static_cast<char>(number & 0xFF);
    return bytes;
}

std::string AddressBytes(in_addr_t address) {
    return {reinterpret_cast<const char*>(&address), sizeof address};
}

uint16_t Checksum(const std::string& bytes) {
    uint64_t sum = 0;
    for (size_t i = 0; i < bytes.size(); ++i) {
        const auto byte = static_cast<unsigned char>(bytes[i]);
        sum += i % 2 == 0 ? byte * 256u : byte;
    }
    while (sum > 0xFFFF) sum = sum % 0x10000 + sum / 0x10000;
    return static_cast<uint16_t>(0xFFFF - sum);
}

std::string EchoData(const Echo& echo) {
    std::string data = AddressBytes(echo.to) + BigEndian(static_cast<uint32_t>(echo.fd), 4) +
                       BigEndian(echo.pid, 4) + BigEndian(echo.tid, 4) +
                       BigEndian(static_cast<uint32_t>(echo.seconds), 4) +
                       BigEndian(static_cast<uint32_t>(echo.milliseconds), 4);
    data.resize(kRequest - kHeader, '\0');
    return data;
}

std::string Packet::IcmpBytes() const {
    const std::string start = BigEndian(type, 1) + BigEndian(code, 1);
    const std::string rest = BigEndian(identifier, 2) + BigEndian(sequence, 2) + data;
    return start + BigEndian(Checksum(start + BigEndian(0, 2) + rest), 2) + rest;
}

std::string Packet::Bytes() const {
    const std::string icmp = IcmpBytes();
    const size_t header = kIpHeader + options.size();
    std::string start = BigEndian(static_cast<uint32_t>(kVersion | header / kWord), 1) + BigEndian(0, 1) +
                        BigEndian(static_cast<uint32_t>(header + icmp.size()), 2);
    start.resize(kFragmentAt + 2, '\0');
    start += BigEndian(kTimeToLive, 1) + BigEndian(IPPROTO_ICMP, 1);
    const std::string rest = AddressBytes(from) + AddressBytes(to) + options;
    return start + BigEndian(Checksum(start + BigEndian(0, 2) + rest), 2) + rest + icmp;
}

Watcher::Watcher() : m_Socket(::socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_ICMP)) {
    EXPECT_LE(0, m_Socket) << std::strerror(errno);
    const timeval limit{kLimit.count(), 0};
    ::setsockopt(m_Socket, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
}

std::string Watcher::Next(uint8_t type) const {
    for (;;) {
        char buffer[2048];
        const ssize_t size = ::recv(m_Socket, buffer, sizeof buffer, 0);
        if (size < 0) {
            ADD_FAILURE() << "no packet of type " << int{type} << ": " << std::strerror(errno);
            return {};
        }
        const std::string datagram(buffer, static_cast<size_t>(size));
        if (static_cast<uint8_t>(datagram.at(HeaderSize(datagram))) == type) return datagram;
    }
}

bool Watcher::HasNothing() const {
    char byte;
    return ::recv(m_Socket, &byte, sizeof byte, MSG_DONTWAIT | MSG_PEEK) < 0;
}

Forger::Forger() : m_Socket(::socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_RAW)) {
    EXPECT_LE(0, m_Socket) << std::strerror(errno);
}

void Forger::Send(const std::string& datagram) const {
    sockaddr_in to{};
    to.sin_family = AF_INET;
    std::memcpy(&to.sin_addr, &datagram.at(kDestinationAt), sizeof to.sin_addr);
    EXPECT_EQ(static_cast<ssize_t>(datagram.size()),
              ::sendto(m_Socket, datagram.data(), datagram.size(), 0, reinterpret_cast<const sockaddr*>(&to),
                       sizeof to))
        << std::strerror(errno);
}

void Silence::Set(char value) {
    std::ofstream file("/proc/sys/net/ipv4/icmp_echo_ignore_all");
    file << value << std::flush;
    EXPECT_TRUE(file.good());
}

}  // namespace icmp
