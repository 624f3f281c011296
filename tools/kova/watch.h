/// `kova watch`: tells changes in directories.
#ifndef KOVA_TOOLS_WATCH_H
#define KOVA_TOOLS_WATCH_H

#include <cstdint>
#include <string>
#include <vector>

struct WatchOptions {
    std::vector<std::string> directories;
    uint64_t count = 0;  ///< end after so many changes; 0: go on
};

/// Watches until SIGINT, SIGTERM or the last change asked for. Returns the exit code.
int Watch(const WatchOptions& options);

#endif
