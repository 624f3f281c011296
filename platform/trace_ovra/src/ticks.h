/// The cheapest monotonic time source of the processor, and the clocks it is compared with.
#ifndef TRACE_OVRA_TICKS_H
#define TRACE_OVRA_TICKS_H

#include "layout.h"

#include <time.h>

#include <cstdint>

namespace trace_ovra {

/// A clock in nanoseconds. The C library answers without a system call where the kernel offers that.
inline uint64_t ClockNs(clockid_t id) {
    timespec now{};
    clock_gettime(id, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000u + static_cast<uint64_t>(now.tv_nsec);
}

#if defined(__x86_64__) || defined(__i386__)
constexpr TickSource kTickSource = kTicksTsc;
inline uint64_t Ticks() { return __builtin_ia32_rdtsc(); }
#elif defined(__powerpc__)
constexpr TickSource kTickSource = kTicksTimeBase;
inline uint64_t Ticks() { return __builtin_ppc_get_timebase(); }
#else
constexpr TickSource kTickSource = kTicksMonotonic;
inline uint64_t Ticks() { return ClockNs(CLOCK_MONOTONIC); }
#endif

}  // namespace trace_ovra

#endif
