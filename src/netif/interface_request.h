/// Requests about a network interface to the kernel.
#ifndef KOVA_NETIF_INTERFACE_REQUEST_H
#define KOVA_NETIF_INTERFACE_REQUEST_H

#include <kova/udp_socket.h>

#include <net/if.h>
#include <netinet/in.h>

namespace kova {

/// An IPv4 datagram socket for the time of a few requests.
class InterfaceSocket {
  public:
    InterfaceSocket();

    /// The ioctl; false, traced and with `errno` set, when it fails.
    bool Ask(unsigned long request, void* argument);

  private:
    KovaUDPSocket m_Socket;
    int m_OpenError;
};

/// A request about the interface `name`, of which 15 characters count.
ifreq RequestFor(const char* name);
/// As above with an IPv4 address, in network order.
ifreq RequestFor(const char* name, in_addr_t address);

/// The IPv4 address in a request or its answer.
in_addr_t AddressOf(const ifreq& request);

}  // namespace kova

#endif
