/// `kova capture`: prints a line for each frame that the host hears or sends.
#ifndef KOVA_TOOLS_CAPTURE_H
#define KOVA_TOOLS_CAPTURE_H

#include <cstdint>
#include <string>

struct CaptureOptions {
    std::string interface;  ///< empty: all
    uint64_t count = 0;     ///< end after that many frames; 0: go on
    int timeout_ms = 0;     ///< of the wait for each frame; 0: none
    bool json = false;
};

/// Returns the exit code. Throws UsageError for an interface that there is not.
int Capture(const CaptureOptions& options);

#endif
