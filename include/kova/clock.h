/// Wall clock and monotonic clock, conversions between them, the 64-bit time of day, and sleeping.
///
/// "Real" is the wall clock (since 1970-01-01 UTC), "relative" the monotonic clock, which is never set back.
/// No function here keeps state; all may be called from any thread. A clock that cannot be read is tried
/// again until it can, with a trace record per failed attempt.
#ifndef KOVA_CLOCK_H
#define KOVA_CLOCK_H

#include <kova/export.h>

#include <cstdint>

/// A point in time or a span, in whole seconds and milliseconds (0 to 999 when the library fills it).
struct KovaTimeSpec {
    int32_t seconds;
    int32_t milliseconds;
};

/// Anchor for counting the wraps of the 32-bit tick counter of the process-times clock.
struct KOVA_API KovaTimeWrapCounterSingleton {
    /// Zeroes the counters and stores the clock ticks per second, -1 if the system does not tell.
    KovaTimeWrapCounterSingleton();
    ~KovaTimeWrapCounterSingleton();

    int64_t m_Counter;
    int64_t m_Wraps;
    int64_t m_TicksPerSecond;
};

extern "C" {

/// Wall-clock seconds.
KOVA_API int32_t KovaGetRealTime();
/// Monotonic seconds.
KOVA_API int32_t KovaGetRelativeTime();
/// Reads the wall clock into `spec`, truncated to milliseconds; returns `spec`.
KOVA_API KovaTimeSpec* KovaGetRealClock(KovaTimeSpec* spec);
/// Reads the monotonic clock into `spec`, truncated to milliseconds; returns `spec`.
KOVA_API KovaTimeSpec* KovaGetRelativeClock(KovaTimeSpec* spec);

/// Stores the time from `start` to `now` in `diff` and returns it. `now` may be null for the present
/// monotonic time. When the milliseconds borrow from the seconds, 1000 is added to the caller's
/// `now->milliseconds`.
KOVA_API KovaTimeSpec* KovaGetClockDiff(KovaTimeSpec* diff, KovaTimeSpec* start, KovaTimeSpec* now);

/// Absolute difference of two second counts.
KOVA_API uint32_t KovaRelativeDiffTime(int32_t a, int32_t b);

/// The wall-clock second at which the monotonic clock read `relative`.
KOVA_API int32_t KovaGetRealFromRelativeTime(int32_t relative);
/// The present monotonic second plus the age of `real`. Not the inverse of the function above: a past time
/// gives a future result.
KOVA_API int32_t KovaGetRelativeFromRealTime(int32_t real);

/// Time of day now: 4096 units a microsecond since 1900-01-01 UTC, in steps of a millisecond.
KOVA_API uint64_t KovaGetTod();
/// Time of day of a wall-clock `spec`; all ones for a null pointer.
KOVA_API uint64_t KovaGetTodFromTimeSpec(const KovaTimeSpec* spec);
/// Converts back, truncated to milliseconds; returns `spec`, which must not be null.
KOVA_API KovaTimeSpec* KovaGetTimeSpecFromTod(uint64_t tod, KovaTimeSpec* spec);

/// Sleeps for at least the given time, signals notwithstanding. 0, also at once for zero and negative times;
/// -1 with `errno` set if the kernel refuses. One trace record per attempt.
KOVA_API int KovaMilliSleep(int32_t milliseconds);
/// As above in nanoseconds, for less than one second: more than one second fails with EINVAL, and exactly one
/// sleeps for almost two.
KOVA_API int KovaNanoSleep(int32_t nanoseconds);
}

/// Reference forms of the clock readers.
KOVA_API KovaTimeSpec* KovaGetRealClock(KovaTimeSpec& spec);
KOVA_API KovaTimeSpec* KovaGetRelativeClock(KovaTimeSpec& spec);

/// Order by seconds, then by milliseconds.
KOVA_API bool operator==(const KovaTimeSpec& a, const KovaTimeSpec& b);
KOVA_API bool operator<(const KovaTimeSpec& a, const KovaTimeSpec& b);
KOVA_API bool operator<=(const KovaTimeSpec& a, const KovaTimeSpec& b);
KOVA_API bool operator>(const KovaTimeSpec& a, const KovaTimeSpec& b);
KOVA_API bool operator>=(const KovaTimeSpec& a, const KovaTimeSpec& b);
/// True only when seconds and milliseconds both differ: not the negation of `==`.
KOVA_API bool operator!=(const KovaTimeSpec& a, const KovaTimeSpec& b);

#endif
