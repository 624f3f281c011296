#include "frame/retry.h"
#include "frame/trace.h"
#include "frame/wrap.h"
#include "time/duration.h"

#include <kova/clock.h>

#include <sched.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>

namespace {

constexpr uint64_t kUnixEpochTod = 0x7D91048BCA000000;
constexpr uint64_t kNoTod = 0xFFFFFFFFFFFFFFFF;
constexpr int kMicrosecondBit = 12;
constexpr int32_t kNanosecondsPerSecond = 1000000000;
constexpr int32_t kNanosecondsPerMillisecond = 1000000;

/// Calls `read` until it succeeds. Leaves `errno` 0.
template <typename Read>
auto ReadClock(Read read) {
    for (;;) {
        errno = 0;
        const auto result = read();
        if (result != -1) return result;
        KOVA_TRACE("clock errno=%d", errno);
    }
}

timespec ReadClock(clockid_t clock) {
    timespec now{};
    ReadClock([&] { return ::clock_gettime(clock, &now); });
    return now;
}

KovaTimeSpec* ReadSpec(clockid_t clock, KovaTimeSpec* spec) {
    const timespec now = ReadClock(clock);
    spec->seconds = static_cast<int32_t>(now.tv_sec);
    spec->milliseconds = static_cast<int32_t>(now.tv_nsec / kNanosecondsPerMillisecond);
    return spec;
}

bool IsPositive(const timespec& time) { return time.tv_sec > 0 || (time.tv_sec == 0 && time.tv_nsec > 0); }

/// `argument` is what the caller asked for, for the trace.
int Sleep(timespec request, int32_t argument) {
    timespec remaining{};
    const auto attempt = [&] {
        KOVA_TRACE("sleep seconds=%d nanoseconds=%d argument=%d", static_cast<int32_t>(request.tv_sec),
                   static_cast<int32_t>(request.tv_nsec), argument);
        return IsPositive(request) ? ::nanosleep(&request, &remaining) : 0;
    };
    const auto resume = [&] {
        ::sched_yield();
        request = remaining;
        return true;
    };
    if (kova::RetryInterrupted(attempt, resume) == 0) return 0;
    KOVA_TRACE("sleep failed seconds=%d nanoseconds=%d errno=%d", static_cast<int32_t>(request.tv_sec),
               static_cast<int32_t>(request.tv_nsec), errno);
    return -1;
}

}  // namespace

KovaTimeWrapCounterSingleton::KovaTimeWrapCounterSingleton()
    : m_Counter(0), m_Wraps(0), m_TicksPerSecond(::sysconf(_SC_CLK_TCK)) {}

KovaTimeWrapCounterSingleton::~KovaTimeWrapCounterSingleton() = default;

int32_t KovaGetRealTime() {
    return static_cast<int32_t>(ReadClock([] { return ::time(nullptr); }));
}

int32_t KovaGetRelativeTime() { return static_cast<int32_t>(ReadClock(CLOCK_MONOTONIC).tv_sec); }

KovaTimeSpec* KovaGetRealClock(KovaTimeSpec* spec) { return ReadSpec(CLOCK_REALTIME, spec); }

KovaTimeSpec* KovaGetRealClock(KovaTimeSpec& spec) { return KovaGetRealClock(&spec); }

KovaTimeSpec* KovaGetRelativeClock(KovaTimeSpec* spec) { return ReadSpec(CLOCK_MONOTONIC, spec); }

KovaTimeSpec* KovaGetRelativeClock(KovaTimeSpec& spec) { return KovaGetRelativeClock(&spec); }

KovaTimeSpec* KovaGetClockDiff(KovaTimeSpec* diff, KovaTimeSpec* start, KovaTimeSpec* now) {
    KovaTimeSpec present;
    if (now == nullptr) now = KovaGetRelativeClock(&present);
    diff->seconds = kova::WrapSubtract(now->seconds, start->seconds);
    if (now->milliseconds < start->milliseconds) {
        // Deliberate: the caller's record is changed.
        now->milliseconds = kova::WrapAdd(now->milliseconds, 1000);
        diff->seconds = kova::WrapSubtract(diff->seconds, 1);
    }
    diff->milliseconds = kova::WrapSubtract(now->milliseconds, start->milliseconds);
    return diff;
}

uint32_t KovaRelativeDiffTime(int32_t a, int32_t b) {
    return static_cast<uint32_t>(a > b ? kova::WrapSubtract(a, b) : kova::WrapSubtract(b, a));
}

int32_t KovaGetRealFromRelativeTime(int32_t relative) {
    const int32_t real_now = KovaGetRealTime();
    return kova::WrapSubtract(real_now, kova::WrapSubtract(KovaGetRelativeTime(), relative));
}

int32_t KovaGetRelativeFromRealTime(int32_t real) {
    // Deliberate: the age is added, not subtracted.
    const int32_t age = kova::WrapSubtract(KovaGetRealTime(), real);
    return kova::WrapAdd(age, KovaGetRelativeTime());
}

uint64_t KovaGetTod() {
    KovaTimeSpec now;
    return KovaGetTodFromTimeSpec(KovaGetRealClock(&now));
}

uint64_t KovaGetTodFromTimeSpec(const KovaTimeSpec* spec) {
    if (spec == nullptr) return kNoTod;
    const int64_t micro = int64_t{spec->seconds} * 1000000 + int64_t{spec->milliseconds} * 1000;
    return (static_cast<uint64_t>(micro) << kMicrosecondBit) + kUnixEpochTod;
}

KovaTimeSpec* KovaGetTimeSpecFromTod(uint64_t tod, KovaTimeSpec* spec) {
    const uint64_t micro = (tod - kUnixEpochTod) >> kMicrosecondBit;
    spec->seconds = static_cast<int32_t>(micro / 1000000);
    spec->milliseconds = static_cast<int32_t>(micro % 1000000 / 1000);
    return spec;
}

int KovaMilliSleep(int32_t milliseconds) { return Sleep(kova::ToTimespec(milliseconds), milliseconds); }

int KovaNanoSleep(int32_t nanoseconds) {
    const int32_t seconds = nanoseconds / kNanosecondsPerSecond;
    // Deliberate: the count of seconds is subtracted, not their nanoseconds, so that the kernel refuses more
    // than one second.
    return Sleep({seconds, nanoseconds - seconds}, nanoseconds);
}

bool operator==(const KovaTimeSpec& a, const KovaTimeSpec& b) {
    return a.seconds == b.seconds && a.milliseconds == b.milliseconds;
}

// Deliberate: not the negation of ==; specs that differ in one field only are not unequal.
bool operator!=(const KovaTimeSpec& a, const KovaTimeSpec& b) {
    return a.seconds != b.seconds && a.milliseconds != b.milliseconds;
}

bool operator<(const KovaTimeSpec& a, const KovaTimeSpec& b) {
    return a.seconds == b.seconds ? a.milliseconds < b.milliseconds : a.seconds < b.seconds;
}

bool operator<=(const KovaTimeSpec& a, const KovaTimeSpec& b) {
    return a.seconds == b.seconds ? a.milliseconds <= b.milliseconds : a.seconds < b.seconds;
}

bool operator>(const KovaTimeSpec& a, const KovaTimeSpec& b) { return b < a; }

bool operator>=(const KovaTimeSpec& a, const KovaTimeSpec& b) { return b <= a; }
