#include "socket/endpoint.h"

#include <cstring>

namespace kova {

sockaddr_in6 ToSockaddr(const KovaInetAddr& address) {
    sockaddr_in6 to{};
    to.sin6_family = AF_INET6;
    to.sin6_port = address.GetPort();
    to.sin6_addr = *address.GetIp6();
    return to;
}

sockaddr_in6 ToScopedSockaddr(const KovaInetAddr& address) {
    sockaddr_in6 to = ToSockaddr(address);
    if (address.GetScope() != KovaInetAddr::kNoScope)
        to.sin6_scope_id = static_cast<uint32_t>(address.GetScope());
    return to;
}

void StoreEndpoint(const sockaddr_in6& from, KovaInetAddr& address) {
    if (from.sin6_family == AF_INET6) {
        address.SetIp(from.sin6_addr);
        address.SetPort(from.sin6_port);
    } else if (from.sin6_family == AF_INET) {
        sockaddr_in ip4;
        std::memcpy(&ip4, &from, sizeof ip4);
        address.SetIp(ip4.sin_addr.s_addr);
        address.SetPort(ip4.sin_port);
    }
}

bool AskName(NameCall call, int fd, sockaddr_in6& name) {
    name = {};
    socklen_t length = sizeof name;
    return call(fd, AsSockaddr(name), &length) == 0;
}

}  // namespace kova
