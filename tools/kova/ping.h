/// `kova ping`: asks hosts for echoes, all of them in each round.
#ifndef KOVA_TOOLS_PING_H
#define KOVA_TOOLS_PING_H

#include <cstdint>
#include <string>
#include <vector>

struct PingOptions {
    std::vector<std::string> hosts;  ///< names or IPv4 addresses
    uint64_t count = 4;              ///< requests to each host; 0: go on
    int timeout_ms = 1000;           ///< of the wait for the replies of a round
    int interval_ms = 1000;          ///< from the begin of a round to that of the next
    std::string interface;           ///< through which requests leave; empty: as the routes say
    bool raw = false;                ///< hear the replies as frames
    bool verbose = false;            ///< tell at which address a reply arrived
};

/// Returns the exit code: success if every host answered at least once. Throws UsageError for hosts and
/// interfaces that there are not.
int Ping(const PingOptions& options);

#endif
