/// Framed messages through the library and by hand: round trips between two threads, and messages from one
/// end to the other on one thread, where nothing is ever waited for.
///
/// The floors make the library's system calls with the library's arguments on sockets of the same kind, and
/// nothing else: no error record, no trace, no clock, no check of the header.

#include "support/loopback.h"

#include <kova/flat_msg.h>
#include <kova/tcp_socket.h>
#include <kova/udp_socket.h>

#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <thread>
#include <vector>

namespace {

using kova_bench::AsSockaddr;
using kova_bench::Pair;

constexpr int kMessageType = 7;
constexpr size_t kHeaderSize = sizeof(sKovaMsgHeader);

// Floors

/// A buffer of header and body, ready to be sent.
std::vector<char> Framed(size_t body) {
    std::vector<char> bytes(kHeaderSize + body, 'b');
    const sKovaMsgHeader header{htonl(static_cast<uint32_t>(body)), {'K', 'O', 'V', 'A'}, 0, 0, 0, 0};
    std::memcpy(bytes.data(), &header, sizeof header);
    return bytes;
}

uint32_t BodySize(const std::vector<char>& framed) {
    uint32_t size;
    std::memcpy(&size, framed.data(), sizeof size);
    return ntohl(size);
}

/// The library's wait: an empty write set is passed along, and out-of-band data are looked for.
bool AwaitReadable(int fd) {
    fd_set read, write, except;
    FD_ZERO(&read);
    FD_ZERO(&write);
    FD_ZERO(&except);
    FD_SET(fd, &read);
    FD_SET(fd, &except);
    timeval limit{kova_bench::kTimeoutMs / 1000, 0};
    return ::select(fd + 1, &read, &write, &except, &limit) > 0 && FD_ISSET(fd, &read);
}

enum class Wait { kNone, kSelect };

template <Wait wait>
class FloorTcp {
  public:
    static Pair MakePair() { return kova_bench::TcpPair(); }

    FloorTcp(int fd, const Pair&, size_t body) : m_Fd(fd), m_Bytes(Framed(body)) {}
    ~FloorTcp() { ::close(m_Fd); }

    bool Send() {
        return ::send(m_Fd, m_Bytes.data(), m_Bytes.size(), MSG_NOSIGNAL) ==
               static_cast<ssize_t>(m_Bytes.size());
    }
    bool Receive() {
        return Take(m_Bytes.data(), kHeaderSize) && Take(m_Bytes.data() + kHeaderSize, BodySize(m_Bytes));
    }
    void StopPeer() { ::shutdown(m_Fd, SHUT_RDWR); }

  private:
    bool Take(char* to, size_t size) const {
        for (size_t count = 0; count < size;) {
            if (wait == Wait::kSelect && !AwaitReadable(m_Fd)) return false;
            const ssize_t result = ::recv(m_Fd, to + count, size - count, 0);
            if (result <= 0) return false;
            count += static_cast<size_t>(result);
        }
        return true;
    }

    int m_Fd;
    std::vector<char> m_Bytes;
};

template <Wait wait>
class FloorUdp {
  public:
    static Pair MakePair() { return kova_bench::UdpPair(); }

    FloorUdp(int fd, const Pair& pair, size_t body)
        : m_Fd(fd), m_Peer(pair.server_address), m_Bytes(Framed(body)) {}
    ~FloorUdp() { ::close(m_Fd); }

    bool Send() {
        return ::sendto(m_Fd, m_Bytes.data(), m_Bytes.size(), MSG_NOSIGNAL, AsSockaddr(m_Peer),
                        sizeof m_Peer) == static_cast<ssize_t>(m_Bytes.size());
    }
    bool Receive() { return Take(kHeaderSize, MSG_PEEK) && Take(kHeaderSize + BodySize(m_Bytes), 0); }
    /// An empty datagram is no message for either kind of end.
    void StopPeer() { ::sendto(m_Fd, nullptr, 0, MSG_NOSIGNAL, AsSockaddr(m_Peer), sizeof m_Peer); }

  private:
    bool Take(size_t size, int flags) {
        if (wait == Wait::kSelect && !AwaitReadable(m_Fd)) return false;
        socklen_t length = sizeof m_Peer;
        return ::recvfrom(m_Fd, m_Bytes.data(), size, flags, AsSockaddr(m_Peer), &length) ==
               static_cast<ssize_t>(size);
    }

    int m_Fd;
    sockaddr_in6 m_Peer;
    std::vector<char> m_Bytes;
};

// The library

void Fill(KovaFlatMsg& message, size_t body) {
    std::vector<char> bytes(body, 'b');
    message.SetMessage(kMessageType, bytes.data(), static_cast<int>(body));
}

template <KovaSocketTypeT type>
class LibraryTcp {
  public:
    static Pair MakePair() { return kova_bench::TcpPair(); }

    LibraryTcp(int fd, const Pair&, size_t body) : m_Socket(fd) {
        m_Socket.SetType(type);
        Fill(m_Message, body);
    }

    bool Send() {
        m_Message >> m_Socket;
        return m_Message.GetError() == KovaBaseObject::KOVA_ERR_NONE;
    }
    bool Receive() {
        m_Message << m_Socket;
        return m_Message.IsComplete();
    }
    void StopPeer() { ::shutdown(m_Socket.GetSocket(), SHUT_RDWR); }

  private:
    KovaTCPSocket m_Socket;
    KovaFlatMsg m_Message;
};

class LibraryUdp {
  public:
    static Pair MakePair() { return kova_bench::UdpPair(); }

    LibraryUdp(int fd, const Pair& pair, size_t body) : m_Socket(fd) {
        Fill(m_Message, body);
        m_Message.GetAddr() = KovaInetAddr(pair.server_address.sin6_addr, pair.server_address.sin6_port);
    }

    bool Send() {
        m_Message >> m_Socket;
        return m_Message.GetError() == KovaBaseObject::KOVA_ERR_NONE;
    }
    bool Receive() {
        m_Message << m_Socket;
        return m_Message.GetError() == KovaBaseObject::KOVA_ERR_NONE;
    }
    void StopPeer() {
        char nothing = 0;
        m_Socket.SendTo(&nothing, 0, 0, 0);
    }

  private:
    KovaUDPSocket m_Socket;
    KovaFlatMsg m_Message;
};

// The measurement

/// One message there and back; the other thread returns what it gets.
template <typename End>
void RoundTrip(benchmark::State& state) {
    const size_t body = static_cast<size_t>(state.range(0));
    const Pair pair = End::MakePair();
    End client(pair.client, pair, body);
    End server(pair.server, pair, body);
    std::thread echo([&] {
        while (server.Receive() && server.Send()) {
        }
    });
    for (auto _ : state) {
        if (client.Send() && client.Receive()) continue;
        state.SkipWithError("a message was lost");
        break;
    }
    client.StopPeer();
    echo.join();
}

/// One message from end to end; it is there already when it is received.
template <typename End>
void OneWay(benchmark::State& state) {
    const size_t body = static_cast<size_t>(state.range(0));
    const Pair pair = End::MakePair();
    End client(pair.client, pair, body);
    End server(pair.server, pair, body);
    for (auto _ : state) {
        if (client.Send() && server.Receive()) continue;
        state.SkipWithError("a message was lost");
        break;
    }
}

constexpr int64_t kSmallBody = 64;
constexpr int64_t kLargeBody = 8192;

void Register(const char* name, void (*function)(benchmark::State&), std::initializer_list<int64_t> bodies) {
    auto* const benchmark = benchmark::RegisterBenchmark(name, function);
    for (const int64_t body : bodies) benchmark->Arg(body);
    benchmark->MeasureProcessCPUTime()->UseRealTime();
}

[[maybe_unused]] const bool g_registered = [] {
    using HandshakeTcp = LibraryTcp<KOVA_SOCKET_HANDSHAKE>;
    using PlainTcp = LibraryTcp<KOVA_SOCKET_PLAIN>;
    Register("tcp/library", RoundTrip<HandshakeTcp>, {kSmallBody, kLargeBody});
    Register("tcp/library-plain", RoundTrip<PlainTcp>, {kSmallBody, kLargeBody});
    Register("tcp/select", RoundTrip<FloorTcp<Wait::kSelect>>, {kSmallBody, kLargeBody});
    Register("tcp/bare", RoundTrip<FloorTcp<Wait::kNone>>, {kSmallBody, kLargeBody});
    Register("udp/library", RoundTrip<LibraryUdp>, {kSmallBody});
    Register("udp/select", RoundTrip<FloorUdp<Wait::kSelect>>, {kSmallBody});
    Register("udp/bare", RoundTrip<FloorUdp<Wait::kNone>>, {kSmallBody});
    Register("tcp-one-way/library", OneWay<HandshakeTcp>, {kSmallBody, kLargeBody});
    Register("tcp-one-way/select", OneWay<FloorTcp<Wait::kSelect>>, {kSmallBody, kLargeBody});
    Register("udp-one-way/library", OneWay<LibraryUdp>, {kSmallBody});
    Register("udp-one-way/select", OneWay<FloorUdp<Wait::kSelect>>, {kSmallBody});
    return true;
}();

}  // namespace
