/// Messages as bytes, and the two ends between which they travel.
#ifndef KOVA_TESTS_MSG_WIRE_H
#define KOVA_TESTS_MSG_WIRE_H

#include "support/leak_check.h"
#include "support/recorded.h"

#include <kova/flat_msg.h>
#include <kova/tcp_socket.h>
#include <kova/udp_socket.h>

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <cstdint>
#include <string>
#include <utility>

constexpr size_t kHeaderSize = 24;
constexpr uint32_t kVersion = 0x00020000;

inline std::string BigEndian(uint32_t value) {
    std::string bytes;
    for (int shift = 24; shift >= 0; shift -= 8) bytes.push_back(static_cast<char>(value >> shift & 0xFF));
    return bytes;
}

/// A header as it lies on the wire.
struct Header {
    uint32_t size = 0;
    std::string magic = "KOVA";
    uint32_t version = kVersion;
    int32_t type = 0;
    int32_t tid = 0;
    int32_t time = 0;

    std::string Bytes() const {
        return BigEndian(size) + magic + BigEndian(version) + BigEndian(static_cast<uint32_t>(type)) +
               BigEndian(static_cast<uint32_t>(tid)) + BigEndian(static_cast<uint32_t>(time));
    }
    /// As the library's record, in network order.
    sKovaMsgHeader Record() const {
        sKovaMsgHeader record;
        Bytes().copy(reinterpret_cast<char*>(&record), sizeof record);
        return record;
    }
};

inline std::string Message(int32_t type, const std::string& body) {
    Header header;
    header.size = static_cast<uint32_t>(body.size());
    header.type = type;
    return header.Bytes() + body;
}

/// A body in which a byte that is missing or moved shows.
inline std::string Body(size_t size) {
    std::string body(size, '\0');
    for (size_t i = 0; i < size; ++i) body[i] = static_cast<char>(i * 7 + i / 251 + 1);
    return body;
}

inline std::string HeaderBytes(const KovaFlatMsg& message) {
    return {reinterpret_cast<const char*>(message.GetHeader()), kHeaderSize};
}

inline std::string BodyBytes(KovaFlatMsg& message) {
    if (message.GetBuffer() == nullptr) return {};
    return {static_cast<const char*>(message.GetBuffer()), message.GetSize()};
}

/// Makes `message` one of `type` with this body.
inline bool Set(KovaFlatMsg& message, int type, std::string body) {
    return message.SetMessage(static_cast<unsigned>(type), body.data(), static_cast<int>(body.size()));
}

/// Whether the buffer lies inside the object.
inline bool IsInline(const KovaFlatMsg& message) {
    const char* const header = reinterpret_cast<const char*>(message.GetHeader());
    const char* const object = reinterpret_cast<const char*>(&message);
    return header >= object && header < object + sizeof message;
}

/// Gives receives of a plain socket an end, so that what never comes fails a test.
inline void LimitReceives(int fd) {
    const timeval limit{10, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
}

inline uint16_t PortOf(int fd) {
    sockaddr_in6 name{};
    socklen_t length = sizeof name;
    EXPECT_EQ(0, ::getsockname(fd, reinterpret_cast<sockaddr*>(&name), &length));
    return ntohs(name.sin6_port);
}

/// A socket whose error record a test can fill.
template <typename Base>
class Fallible : public Base {
  public:
    using Base::Base;
    void Plant(int code) { this->_SetError_("planted", 1, code); }
};

/// A connected TCP socket of the library, and the plain descriptor at the other end.
class TcpEnds {
  public:
    explicit TcpEnds(std::pair<Fd, Fd> ends = TcpPair())
        : socket(ends.first.Release()), m_Far(std::move(ends.second)) {
        LimitReceives(m_Far);
    }

    void Write(const std::string& bytes) const {
        EXPECT_EQ(static_cast<ssize_t>(bytes.size()),
                  ::send(m_Far, bytes.data(), bytes.size(), MSG_NOSIGNAL));
    }
    /// The next `size` bytes, fewer if the near end closes.
    std::string Read(size_t size) const {
        std::string bytes(size, '\0');
        const ssize_t count = ::recv(m_Far, bytes.data(), size, MSG_WAITALL);
        bytes.resize(count < 0 ? 0 : static_cast<size_t>(count));
        return bytes;
    }
    bool HasNothingToRead() const {
        char byte;
        return ::recv(m_Far, &byte, sizeof byte, MSG_DONTWAIT) < 0;
    }
    void EndWriting() const { EXPECT_EQ(0, ::shutdown(m_Far, SHUT_WR)); }
    void CloseFar() { m_Far.Close(); }
    int Far() const { return m_Far; }
    int Near() const { return socket.GetSocket(); }

    Fallible<KovaTCPSocket> socket;

  private:
    Fd m_Far;
};

/// A bound UDP socket of the library with a short time-out, and a plain one that is the other end.
class UdpEnds {
  public:
    static constexpr int kTimeout = 20;

    explicit UdpEnds(int timeout = kTimeout)
        : socket(FreePort()), m_Far(::socket(AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        socket.SetTimeout(timeout);
        EXPECT_TRUE(socket.Open());
        EXPECT_TRUE(socket.Bind());
        const sockaddr_in6 local = Loopback(0);
        EXPECT_EQ(0, ::bind(m_Far, reinterpret_cast<const sockaddr*>(&local), sizeof local));
        LimitReceives(m_Far);
    }

    uint16_t FarPort() const { return PortOf(m_Far); }
    KovaInetAddr FarAddress() const { return KovaInetAddr(in6addr_loopback, htons(FarPort())); }

    void Write(const std::string& datagram) const {
        const sockaddr_in6 to = Loopback(PortOf(socket.GetSocket()));
        EXPECT_EQ(static_cast<ssize_t>(datagram.size()),
                  ::sendto(m_Far, datagram.data(), datagram.size(), 0, reinterpret_cast<const sockaddr*>(&to),
                           sizeof to));
    }
    std::string Read() const {
        std::string datagram(16384, '\0');
        const ssize_t count = ::recv(m_Far, datagram.data(), datagram.size(), 0);
        if (count < 0) return "no datagram";
        datagram.resize(static_cast<size_t>(count));
        return datagram;
    }
    bool HasNothingToRead() const {
        char byte;
        return ::recv(m_Far, &byte, sizeof byte, MSG_DONTWAIT) < 0;
    }
    /// Whether no datagram is left at the library's end.
    bool IsEmpty() const {
        char byte;
        return ::recv(socket.GetSocket(), &byte, sizeof byte, MSG_DONTWAIT | MSG_PEEK) < 0;
    }

    Fallible<KovaUDPSocket> socket;

  private:
    static sockaddr_in6 Loopback(uint16_t port) {
        sockaddr_in6 address{};
        address.sin6_family = AF_INET6;
        address.sin6_port = htons(port);
        address.sin6_addr = in6addr_loopback;
        return address;
    }

    Fd m_Far;
};

#endif
