/// Pairs of sockets over the loopback interface, made by hand for the library's side and for its floor alike,
/// so that both have the same options: IPv6 sockets that speak to 127.0.0.1 through its mapped address,
/// blocking, send and receive time-out 3 s, TCP without delay. Anything that fails ends the program.
#ifndef KOVA_BENCH_LOOPBACK_H
#define KOVA_BENCH_LOOPBACK_H

#include <netinet/in.h>
#include <sys/socket.h>

namespace kova_bench {

constexpr int kTimeoutMs = 3000;

/// Two descriptors that belong to the caller, and the address of the second one.
struct Pair {
    int client;
    int server;
    sockaddr_in6 server_address;
};

/// A connected pair.
Pair TcpPair();
/// Two bound sockets that are not connected.
Pair UdpPair();

inline sockaddr* AsSockaddr(sockaddr_in6& address) { return reinterpret_cast<sockaddr*>(&address); }

}  // namespace kova_bench

#endif
