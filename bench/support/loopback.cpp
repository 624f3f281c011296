#include "support/loopback.h"

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace kova_bench {
namespace {

int Require(int result, const char* what) {
    if (result >= 0) return result;
    std::perror(what);
    std::exit(2);
}

void SetOption(int fd, int level, int option, const void* value, socklen_t size) {
    Require(::setsockopt(fd, level, option, value, size), "setsockopt");
}

void SetOptions(int fd, int type) {
    const timeval limit{kTimeoutMs / 1000, 0};
    SetOption(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    SetOption(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    const int on = 1;
    if (type == SOCK_STREAM) SetOption(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

/// A socket bound to 127.0.0.1 and a free port.
int BoundSocket(int type, sockaddr_in6& address) {
    const int fd = Require(::socket(AF_INET6, type | SOCK_CLOEXEC, 0), "socket");
    SetOptions(fd, type);
    address = {};
    address.sin6_family = AF_INET6;
    ::inet_pton(AF_INET6, "::ffff:127.0.0.1", &address.sin6_addr);
    socklen_t length = sizeof address;
    Require(::bind(fd, AsSockaddr(address), length), "bind");
    Require(::getsockname(fd, AsSockaddr(address), &length), "getsockname");
    return fd;
}

}  // namespace

Pair TcpPair() {
    Pair pair{};
    const int listener = BoundSocket(SOCK_STREAM, pair.server_address);
    Require(::listen(listener, 1), "listen");
    sockaddr_in6 own;
    pair.client = BoundSocket(SOCK_STREAM, own);
    Require(::connect(pair.client, AsSockaddr(pair.server_address), sizeof pair.server_address), "connect");
    pair.server = Require(::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC), "accept");
    SetOptions(pair.server, SOCK_STREAM);
    ::close(listener);
    return pair;
}

Pair UdpPair() {
    Pair pair{};
    sockaddr_in6 own;
    pair.client = BoundSocket(SOCK_DGRAM, own);
    pair.server = BoundSocket(SOCK_DGRAM, pair.server_address);
    return pair;
}

}  // namespace kova_bench
