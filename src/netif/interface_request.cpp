#include "netif/interface_request.h"

#include "frame/trace.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstring>

namespace kova {

InterfaceSocket::InterfaceSocket() : m_OpenError(0) {
    const KovaSocketT fd = m_Socket.Socket(AF_INET, SOCK_DGRAM, 0);
    if (fd < 0) {
        m_OpenError = errno;
    } else {
        m_Socket.SetSocket(fd);
    }
}

bool InterfaceSocket::Ask(unsigned long request, void* argument) {
    if (m_OpenError == 0) return m_Socket.Ioctl(request, argument);
    KOVA_TRACE("interface request=%x without socket errno=%d", static_cast<uint32_t>(request), m_OpenError);
    errno = m_OpenError;
    return false;
}

ifreq RequestFor(const char* name) {
    ifreq request{};
    std::memcpy(request.ifr_name, name, ::strnlen(name, sizeof request.ifr_name - 1));
    return request;
}

ifreq RequestFor(const char* name, in_addr_t address) {
    ifreq request = RequestFor(name);
    sockaddr_in value{};
    value.sin_family = AF_INET;
    value.sin_addr.s_addr = address;
    std::memcpy(&request.ifr_addr, &value, sizeof value);
    return request;
}

in_addr_t AddressOf(const ifreq& request) {
    sockaddr_in value;
    std::memcpy(&value, &request.ifr_addr, sizeof value);
    return value.sin_addr.s_addr;
}

}  // namespace kova
