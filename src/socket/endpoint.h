/// Internet addresses as the kernel takes and gives them.
#ifndef KOVA_SOCKET_ENDPOINT_H
#define KOVA_SOCKET_ENDPOINT_H

#include <kova/inet_addr.h>

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>

namespace kova {

/// IPv6 socket address of `address`, flow information and scope 0.
sockaddr_in6 ToSockaddr(const KovaInetAddr& address);

/// As above with the scope, where there is one.
sockaddr_in6 ToScopedSockaddr(const KovaInetAddr& address);

/// Stores ip and port of a socket address in `address`; the IPv4 address of an IPv4 socket as a mapped one.
/// Other families leave it as it is.
void StoreEndpoint(const sockaddr_in6& from, KovaInetAddr& address);

/// The signature of getsockname and getpeername.
typedef int (*NameCall)(int fd, sockaddr* name, socklen_t* length) noexcept;

/// Asks the kernel for an end of the socket's connection. False, with `errno` set and `name` zero, on
/// failure.
bool AskName(NameCall call, int fd, sockaddr_in6& name);

inline sockaddr* AsSockaddr(sockaddr_in6& address) { return reinterpret_cast<sockaddr*>(&address); }

}  // namespace kova

#endif
