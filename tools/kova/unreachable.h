/// Answers of the network instead of a host: that it cannot be reached.
#ifndef KOVA_TOOLS_UNREACHABLE_H
#define KOVA_TOOLS_UNREACHABLE_H

#include <netinet/in.h>

#include <cstdint>
#include <optional>
#include <string>

struct Unreachable {
    in_addr_t host;     ///< to which the request was, network order
    in_addr_t told_by;  ///< network order
    uint16_t sequence;  ///< of the request
    unsigned code;      ///< why
};

/// Takes the next datagram from an ICMP socket if it is such an answer to a ping of this process; others
/// stay.
std::optional<Unreachable> TakeUnreachable(int fd);

/// "host unreachable" and so on.
std::string ReasonText(const Unreachable& answer);

#endif
