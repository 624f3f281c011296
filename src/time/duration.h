/// Milliseconds as the system's own time structures.
#ifndef KOVA_TIME_DURATION_H
#define KOVA_TIME_DURATION_H

#include <sys/time.h>
#include <time.h>

#include <cstdint>

namespace kova {

inline timeval ToTimeval(int32_t ms) { return {ms / 1000, suseconds_t{ms % 1000} * 1000}; }

inline timespec ToTimespec(int64_t ms) {
    return {static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000) * 1000000};
}

}  // namespace kova

#endif
