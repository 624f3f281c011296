/// kova-bench-calls SUBJECT COUNT: does one thing COUNT times on one thread, so that everything received is
/// there already, and prints how often it called what. The calls of the library come here, because a
/// program's own definitions win over those of the C library.
///
/// Under strace, the difference between two counts shows what one repetition costs in system calls.

#include "support/loopback.h"

#include <kova/clock.h>
#include <kova/flat_msg.h>
#include <kova/tcp_socket.h>
#include <kova/udp_socket.h>

#include <dlfcn.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <trace_ovra.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace {

/// Calls since the start.
struct Calls {
    long send;
    long select;
    long recv;
    long allocate;
};
Calls g_calls;

Calls operator-(const Calls& a, const Calls& b) {
    return {a.send - b.send, a.select - b.select, a.recv - b.recv, a.allocate - b.allocate};
}

template <typename Function>
Function* Next(Function*, const char* name) {
    return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" {

ssize_t send(int fd, const void* bytes, size_t size, int flags) {
    static auto* const next = Next(&::send, "send");
    ++g_calls.send;
    return next(fd, bytes, size, flags);
}

ssize_t sendto(int fd, const void* bytes, size_t size, int flags, const sockaddr* to, socklen_t length) {
    static auto* const next = Next(&::sendto, "sendto");
    ++g_calls.send;
    return next(fd, bytes, size, flags, to, length);
}

ssize_t recv(int fd, void* bytes, size_t size, int flags) {
    static auto* const next = Next(&::recv, "recv");
    ++g_calls.recv;
    return next(fd, bytes, size, flags);
}

ssize_t recvfrom(int fd, void* bytes, size_t size, int flags, sockaddr* from, socklen_t* length) {
    static auto* const next = Next(&::recvfrom, "recvfrom");
    ++g_calls.recv;
    return next(fd, bytes, size, flags, from, length);
}

int select(int n, fd_set* read, fd_set* write, fd_set* except, timeval* limit) {
    static auto* const next = Next(&::select, "select");
    ++g_calls.select;
    return next(n, read, write, except, limit);
}

// `new` allocates through malloc. These are the C library's own names for what stands behind.
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* old, size_t size);

void* malloc(size_t size) {
    ++g_calls.allocate;
    return __libc_malloc(size);
}

void* calloc(size_t count, size_t size) {
    ++g_calls.allocate;
    return __libc_calloc(count, size);
}

void* realloc(void* old, size_t size) {
    ++g_calls.allocate;
    return __libc_realloc(old, size);
}
}

namespace {

constexpr int kMessageType = 7;
char g_body[8192];

[[noreturn]] void Die(const char* why) {
    std::fprintf(stderr, "kova-bench-calls: %s\n", why);
    std::exit(2);
}

/// `count` messages of new objects from one end to the other, after a first one, whose calls do not count:
/// with it the sockets learn their addresses and the thread its id. Returns the calls of the rest.
template <typename Socket>
Calls Transfer(Socket& from, Socket& to, const KovaInetAddr& address, int body, long count) {
    Calls first{};
    for (long i = 0; i <= count; ++i) {
        KovaFlatMsg sent(kMessageType, g_body, body);
        sent.GetAddr() = address;
        sent >> from;
        KovaFlatMsg received;
        received << to;
        if (received.GetType() != kMessageType || received.GetSize() != static_cast<unsigned>(body)) {
            Die("a message was lost");
        }
        if (i == 0) first = g_calls;
    }
    return g_calls - first;
}

Calls Tcp(int body, long count) {
    const kova_bench::Pair pair = kova_bench::TcpPair();
    KovaTCPSocket client(pair.client);
    KovaTCPSocket server(pair.server);
    return Transfer(client, server, KovaInetAddr(in6addr_any, 0), body, count);
}

Calls Udp(int body, long count) {
    const kova_bench::Pair pair = kova_bench::UdpPair();
    KovaUDPSocket client(pair.client);
    KovaUDPSocket server(pair.server);
    const KovaInetAddr address(pair.server_address.sin6_addr, pair.server_address.sin6_port);
    return Transfer(client, server, address, body, count);
}

Calls Trace(long count) {
    uint32_t handle = 0;
    if (trace_ovra_init_buffer(&handle, "BENCH", 32768) != 0) Die("no trace buffer");
    const Calls before = g_calls;
    for (long i = 0; i < count; ++i) trace_ovra_write_ints5(handle, 5u << 16 | 1, 1, 1, 2, 3, 4, 5);
    return g_calls - before;
}

Calls Clock(long count) {
    const Calls before = g_calls;
    for (long i = 0; i < count; ++i) {
        KovaGetRelativeTime();
        KovaGetRealTime();
    }
    return g_calls - before;
}

Calls Run(std::string_view subject, long count) {
    if (subject == "tcp-64") return Tcp(64, count);
    if (subject == "tcp-488") return Tcp(488, count);
    if (subject == "tcp-8192") return Tcp(8192, count);
    if (subject == "udp-64") return Udp(64, count);
    if (subject == "trace") return Trace(count);
    if (subject == "clock") return Clock(count);
    Die("no such subject");
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) Die("usage: kova-bench-calls SUBJECT COUNT");
    const Calls calls = Run(argv[1], std::atol(argv[2]));
    std::printf("{\"send\": %ld, \"select\": %ld, \"recv\": %ld, \"allocate\": %ld}\n", calls.send,
                calls.select, calls.recv, calls.allocate);
    return 0;
}
