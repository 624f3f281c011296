/// Answers to pings: replies, and what the network says of hosts that cannot be reached.
#ifndef KOVA_TOOLS_PING_ANSWER_H
#define KOVA_TOOLS_PING_ANSWER_H

#include <netinet/in.h>

#include <cstdint>
#include <optional>
#include <string>

/// A packet that waits at a socket. Addresses in network order.
struct Answer {
    enum Kind {
        kForeign,  ///< nothing about a ping of this thread on that socket
        kReply,    ///< to be taken by the library's `RecvPingPacket`
        kRefusal,  ///< the host cannot be reached
    };

    Kind kind = kForeign;
    in_addr_t host = 0;     ///< to which the request was
    in_addr_t told_by = 0;  ///< from which the answer comes
    uint16_t sequence = 0;  ///< of the request
    unsigned code = 0;      ///< of a refusal: why
};

/// What a socket hears.
enum class Hears { kPackets, kFrames };

/// The packet at the head, which stays there; nothing if none waits.
std::optional<Answer> PeekAnswer(int fd, Hears what);

/// Takes the packet at the head away.
void DropAnswer(int fd);

/// "host unreachable" and so on.
std::string ReasonText(const Answer& refusal);

#endif
