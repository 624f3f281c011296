/// `kova event`: posts named events and waits for them.
#ifndef KOVA_TOOLS_EVENT_H
#define KOVA_TOOLS_EVENT_H

#include <cstdint>
#include <string>

struct EventWaitOptions {
    std::string name;
    bool pattern = false;  ///< the name is a wildcard pattern
    int timeout_ms = 0;    ///< limit of the wait for each event; 0: none
    uint64_t count = 1;    ///< events to wait for; 0: go on
};

/// Both return the exit code. The name is not empty.
int EventPost(const std::string& name);
int EventWait(const EventWaitOptions& options);

#endif
