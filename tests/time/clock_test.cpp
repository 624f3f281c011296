#include "support/fake_libc.h"
#include "support/leak_check.h"
#include "support/own_machine.h"
#include "support/trace_recorder.h"

#include <kova/clock.h>

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <iterator>
#include <limits>
#include <new>
#include <string>
#include <utility>
#include <vector>

namespace {

constexpr const char* kClockFailed = "clock errno=%d";
constexpr const char* kSleep = "sleep seconds=%d nanoseconds=%d argument=%d";
constexpr const char* kSleepFailed = "sleep failed seconds=%d nanoseconds=%d errno=%d";

constexpr uint64_t kEpoch = 0x7D91048BCA000000;
constexpr int32_t kMax = std::numeric_limits<int32_t>::max();
constexpr int32_t kMin = std::numeric_limits<int32_t>::min();

using Texts = std::vector<std::string>;

testing::AssertionResult Is(const KovaTimeSpec& spec, int32_t seconds, int32_t milliseconds) {
    if (spec.seconds == seconds && spec.milliseconds == milliseconds) return testing::AssertionSuccess();
    return testing::AssertionFailure() << "{" << spec.seconds << ", " << spec.milliseconds << "}";
}

/// Makes clock_gettime read {seconds, nanoseconds}.
auto ClockReads(time_t seconds, long nanoseconds) {
    return [=](clockid_t, timespec* now) {
        *now = {seconds, nanoseconds};
        return 0;
    };
}

class Clock : public KovaTest {
  protected:
    TraceRecorder m_Recorder;
};

TEST_F(Clock, FunctionsAreExportedUnderPlainNames) {
    for (const char* name :
         {"KovaGetRealTime", "KovaGetRelativeTime", "KovaGetRealClock", "KovaGetRelativeClock",
          "KovaGetClockDiff", "KovaRelativeDiffTime", "KovaGetRealFromRelativeTime",
          "KovaGetRelativeFromRealTime", "KovaGetTod", "KovaGetTodFromTimeSpec", "KovaGetTimeSpecFromTod",
          "KovaNanoSleep", "KovaMilliSleep"}) {
        EXPECT_NE(nullptr, ::dlsym(RTLD_DEFAULT, name)) << name;
    }
}

// --- Reading ---

TEST_F(Clock, EachReaderAsksItsOwnClock) {
    fake::Journal journal({&fake::time, &fake::clock_gettime}, fake::kThisThread);
    KovaTimeSpec spec;
    KovaGetRealTime();
    KovaGetRelativeTime();
    KovaGetRealClock(&spec);
    KovaGetRelativeClock(&spec);
    EXPECT_EQ((Texts{"time", "clock_gettime CLOCK_MONOTONIC", "clock_gettime CLOCK_REALTIME",
                     "clock_gettime CLOCK_MONOTONIC"}),
              journal.Texts());
    EXPECT_EQ(0u, m_Recorder.All().size());
}

TEST_F(Clock, SecondsAreReturnedAsRead) {
    fake::Always time(fake::time, fake::Return(1700000000));
    fake::Always clock(fake::clock_gettime, ClockReads(4711, 999999999));
    EXPECT_EQ(1700000000, KovaGetRealTime());
    EXPECT_EQ(4711, KovaGetRelativeTime());
}

TEST_F(Clock, NanosecondsAreTruncatedToMilliseconds) {
    KovaTimeSpec spec{-1, -1};
    for (const auto& [nanoseconds, milliseconds] :
         {std::pair(0L, 0), std::pair(999999L, 0), std::pair(1000000L, 1), std::pair(999999999L, 999)}) {
        fake::Always clock(fake::clock_gettime, ClockReads(5, nanoseconds));
        EXPECT_TRUE(Is(*KovaGetRealClock(&spec), 5, milliseconds)) << nanoseconds;
        EXPECT_TRUE(Is(*KovaGetRelativeClock(&spec), 5, milliseconds)) << nanoseconds;
    }
}

TEST_F(Clock, ReadersReturnTheGivenPointer) {
    KovaTimeSpec spec;
    EXPECT_EQ(&spec, KovaGetRealClock(&spec));
    EXPECT_EQ(&spec, KovaGetRealClock(spec));
    EXPECT_EQ(&spec, KovaGetRelativeClock(&spec));
    EXPECT_EQ(&spec, KovaGetRelativeClock(spec));
}

TEST_F(Clock, ReferenceFormsReadTheirClocks) {
    fake::Journal journal({&fake::clock_gettime}, fake::kThisThread);
    KovaTimeSpec spec;
    KovaGetRealClock(spec);
    KovaGetRelativeClock(spec);
    EXPECT_EQ((Texts{"clock_gettime CLOCK_REALTIME", "clock_gettime CLOCK_MONOTONIC"}), journal.Texts());
}

/// A clock function that fails 20 times with different errors and notes the errno that it is called with.
class FailingClock : public Clock {
  protected:
    static constexpr int kFailures = 20;

    /// The failing call of the clock, or 0 when it works at last.
    int Attempt() {
        m_ErrnoAtCall.push_back(errno);
        const auto attempt = static_cast<int>(m_ErrnoAtCall.size());
        if (attempt > kFailures) return 0;
        errno = 1000 + attempt;
        return -1;
    }

    void ExpectRetriedAndTraced() {
        EXPECT_EQ(std::vector<int>(kFailures + 1, 0), m_ErrnoAtCall)
            << "errno is cleared before each attempt";
        const std::vector<TraceRecord> records = m_Recorder.Find(kClockFailed);
        ASSERT_EQ(size_t{kFailures}, records.size());
        EXPECT_EQ(size_t{kFailures}, m_Recorder.All().size());
        for (int i = 0; i < kFailures; ++i) {
            EXPECT_EQ(std::vector<uint32_t>{1001u + static_cast<uint32_t>(i)},
                      records[static_cast<size_t>(i)].values);
        }
    }

    int ReadClock(timespec* now) {
        const int result = Attempt();
        if (result == 0) *now = {77, 5000000};
        return result;
    }

    std::vector<int> m_ErrnoAtCall;
};

TEST_F(FailingClock, RealTimeIsReadAgainUntilItSucceeds) {
    fake::Replace time(fake::time, [this](time_t*) { return Attempt() == 0 ? time_t{77} : time_t{-1}; });
    errno = EAGAIN;
    EXPECT_EQ(77, KovaGetRealTime());
    ExpectRetriedAndTraced();
}

TEST_F(FailingClock, RelativeTimeIsReadAgainUntilItSucceeds) {
    fake::Replace clock(fake::clock_gettime, [this](clockid_t, timespec* now) { return ReadClock(now); });
    errno = EAGAIN;
    EXPECT_EQ(77, KovaGetRelativeTime());
    ExpectRetriedAndTraced();
}

TEST_F(FailingClock, RealClockIsReadAgainUntilItSucceeds) {
    fake::Replace clock(fake::clock_gettime, [this](clockid_t, timespec* now) { return ReadClock(now); });
    KovaTimeSpec spec;
    errno = EAGAIN;
    EXPECT_TRUE(Is(*KovaGetRealClock(&spec), 77, 5));
    ExpectRetriedAndTraced();
}

TEST_F(FailingClock, RelativeClockIsReadAgainUntilItSucceeds) {
    fake::Replace clock(fake::clock_gettime, [this](clockid_t, timespec* now) { return ReadClock(now); });
    KovaTimeSpec spec;
    errno = EAGAIN;
    EXPECT_TRUE(Is(*KovaGetRelativeClock(&spec), 77, 5));
    ExpectRetriedAndTraced();
}

// Machines whose seconds have 32 bits anyway cannot give such times.
#if __SIZEOF_LONG__ > 4
TEST_F(Clock, SecondsWrapAt32BitsOnEveryHost) {
    constexpr auto kBeyond = static_cast<time_t>(0x180000001);
    fake::Always time(fake::time, fake::Return(kBeyond));
    fake::Always clock(fake::clock_gettime, ClockReads(kBeyond, 0));
    KovaTimeSpec spec;
    EXPECT_EQ(kMin + 1, KovaGetRealTime());
    EXPECT_EQ(kMin + 1, KovaGetRelativeTime());
    EXPECT_TRUE(Is(*KovaGetRealClock(&spec), kMin + 1, 0));
    EXPECT_TRUE(Is(*KovaGetRelativeClock(&spec), kMin + 1, 0));
}

TEST_F(Clock, TimeWhoseLow32BitsAreAllOnesIsNoFailure) {
    fake::Script time(fake::time, {fake::Return(static_cast<time_t>(0xFFFFFFFF))});
    EXPECT_EQ(-1, KovaGetRealTime());
    EXPECT_EQ(0u, m_Recorder.All().size());
}
#endif

// --- A wall clock that is set ---

constexpr int32_t kDay = 86400;

class SetWallClock : public Clock {
  protected:
    void SetUp() override { KOVA_NEEDS_OWN_MACHINE("sets the wall clock"); }
    static bool Near(int32_t a, int32_t b) { return KovaRelativeDiffTime(a, b) <= 2; }
};

TEST_F(SetWallClock, IsFollowedByTheRealClockOnly) {
    const int32_t real = KovaGetRealTime();
    const int32_t relative = KovaGetRelativeTime();
    const uint64_t tod = KovaGetTod();
    WallClockShift shift;
    for (const int32_t days : {1, -2}) {
        SCOPED_TRACE(days);
        shift.By(days * kDay);
        const int32_t total = days == 1 ? kDay : -kDay;
        KovaTimeSpec spec;
        EXPECT_PRED2(Near, real + total, KovaGetRealTime());
        EXPECT_PRED2(Near, real + total, KovaGetRealClock(&spec)->seconds);
        EXPECT_PRED2(Near, relative, KovaGetRelativeTime());
        EXPECT_PRED2(Near, relative, KovaGetRelativeClock(&spec)->seconds);
        EXPECT_EQ(total > 0, KovaGetTod() > tod);
    }
}

TEST_F(SetWallClock, MovesThePastOfTheMonotonicClock) {
    const int32_t relative = KovaGetRelativeTime();
    const int32_t real = KovaGetRealFromRelativeTime(relative);
    WallClockShift shift;
    shift.By(kDay);
    EXPECT_PRED2(Near, real + kDay, KovaGetRealFromRelativeTime(relative));
}

TEST_F(SetWallClock, NeitherShortensNorProlongsASleep) {
    constexpr int32_t kSleepMs = 200;
    for (const int32_t jump : {kDay, -kDay}) {
        SCOPED_TRACE(jump);
        WallClockShift shift;
        std::atomic<bool> slept = false;
        const int64_t start = NowMs();
        DeadlineThread sleeper([&] {
            EXPECT_EQ(0, KovaMilliSleep(kSleepMs));
            slept = true;
        });
        while (NowMs() < start + kSleepMs / 4) ::sched_yield();
        shift.By(jump);
        EXPECT_FALSE(slept);
        sleeper.Join();
        EXPECT_GE(NowMs() - start, kSleepMs);
    }
}

// --- Comparing ---

TEST_F(Clock, OrderIsBySecondsThenMilliseconds) {
    const std::vector<KovaTimeSpec> ascending{{kMin, kMax}, {-1, 999}, {0, -1},  {0, 0},   {5, 100},
                                              {5, 200},     {6, 100},  {6, 999}, {kMax, 0}};
    for (size_t i = 0; i < ascending.size(); ++i) {
        for (size_t j = 0; j < ascending.size(); ++j) {
            const KovaTimeSpec& a = ascending[i];
            const KovaTimeSpec& b = ascending[j];
            EXPECT_EQ(i < j, a < b) << i << " " << j;
            EXPECT_EQ(i <= j, a <= b) << i << " " << j;
            EXPECT_EQ(i > j, a > b) << i << " " << j;
            EXPECT_EQ(i >= j, a >= b) << i << " " << j;
            EXPECT_EQ(i == j, a == b) << i << " " << j;
        }
    }
}

TEST_F(Clock, UnequalNeedsBothFieldsToDiffer) {
    const KovaTimeSpec spec{5, 100};
    EXPECT_FALSE(spec != (KovaTimeSpec{5, 100}));
    EXPECT_FALSE(spec != (KovaTimeSpec{6, 100}));
    EXPECT_FALSE(spec != (KovaTimeSpec{5, 200}));
    EXPECT_TRUE(spec != (KovaTimeSpec{6, 200}));
    EXPECT_FALSE(spec == (KovaTimeSpec{6, 100})) << "neither equal nor unequal";
}

// --- Differences and conversions ---

TEST_F(Clock, DifferenceWithoutBorrowLeavesNowAlone) {
    KovaTimeSpec diff, start{10, 100}, now{12, 100};
    EXPECT_EQ(&diff, KovaGetClockDiff(&diff, &start, &now));
    EXPECT_TRUE(Is(diff, 2, 0));
    EXPECT_TRUE(Is(now, 12, 100));
    EXPECT_TRUE(Is(start, 10, 100));
}

TEST_F(Clock, DifferenceWithBorrowChangesTheCallersNow) {
    KovaTimeSpec diff, start{10, 900}, now{12, 100};
    KovaGetClockDiff(&diff, &start, &now);
    EXPECT_TRUE(Is(diff, 1, 200));
    EXPECT_TRUE(Is(now, 12, 1100));
    EXPECT_TRUE(Is(start, 10, 900));
}

TEST_F(Clock, DifferenceToAnEarlierTimeIsNegative) {
    KovaTimeSpec diff, start{10, 0}, now{7, 250};
    KovaGetClockDiff(&diff, &start, &now);
    EXPECT_TRUE(Is(diff, -3, 250));
}

TEST_F(Clock, DifferenceWithoutNowIsToTheRelativeClock) {
    fake::Journal journal({&fake::clock_gettime}, fake::kThisThread);
    fake::Always clock(fake::clock_gettime, ClockReads(100, 50000000));
    KovaTimeSpec diff, start{98, 60};
    EXPECT_EQ(&diff, KovaGetClockDiff(&diff, &start, nullptr));
    EXPECT_TRUE(Is(diff, 1, 990));
    EXPECT_EQ((Texts{"clock_gettime CLOCK_MONOTONIC"}), journal.Texts());
}

TEST_F(Clock, DifferenceWrapsAt32Bits) {
    KovaTimeSpec diff, start{kMax, 1}, now{kMin, 0};
    KovaGetClockDiff(&diff, &start, &now);
    EXPECT_TRUE(Is(diff, 0, 999));
    start = {kMin, 0};
    now = {kMax, 0};
    KovaGetClockDiff(&diff, &start, &now);
    EXPECT_TRUE(Is(diff, -1, 0));
}

TEST_F(Clock, DifferenceOfSecondsIsAbsolute) {
    EXPECT_EQ(7u, KovaRelativeDiffTime(3, 10));
    EXPECT_EQ(7u, KovaRelativeDiffTime(10, 3));
    EXPECT_EQ(0u, KovaRelativeDiffTime(-4, -4));
    EXPECT_EQ(5u, KovaRelativeDiffTime(-2, 3));
    EXPECT_EQ(0xFFFFFFFFu, KovaRelativeDiffTime(kMin, kMax));
    EXPECT_EQ(0xFFFFFFFFu, KovaRelativeDiffTime(kMax, kMin));
}

class ClockConversion : public Clock {
  protected:
    static constexpr int32_t kReal = 1700000000;
    static constexpr int32_t kRelative = 5000;

    fake::Journal m_Journal{{&fake::time, &fake::clock_gettime}, fake::kThisThread};
    fake::Always<time_t(time_t*)> m_Time{fake::time, fake::Return(kReal)};
    fake::Always<int(clockid_t, timespec*)> m_Clock{fake::clock_gettime, ClockReads(kRelative, 0)};
};

TEST_F(ClockConversion, RealFromRelativeIsTheMomentOfThatReading) {
    EXPECT_EQ(kReal, KovaGetRealFromRelativeTime(kRelative));
    EXPECT_EQ(kReal - 100, KovaGetRealFromRelativeTime(kRelative - 100));
    EXPECT_EQ(kReal + 100, KovaGetRealFromRelativeTime(kRelative + 100));
}

TEST_F(ClockConversion, RelativeFromRealAddsTheAge) {
    EXPECT_EQ(kRelative, KovaGetRelativeFromRealTime(kReal));
    EXPECT_EQ(kRelative + 100, KovaGetRelativeFromRealTime(kReal - 100)) << "a past time gives a future one";
    EXPECT_EQ(kRelative - 100, KovaGetRelativeFromRealTime(kReal + 100));
}

TEST_F(ClockConversion, BothReadTheRealClockFirst) {
    KovaGetRealFromRelativeTime(0);
    KovaGetRelativeFromRealTime(0);
    EXPECT_EQ((Texts{"time", "clock_gettime CLOCK_MONOTONIC", "time", "clock_gettime CLOCK_MONOTONIC"}),
              m_Journal.Texts());
}

TEST_F(ClockConversion, BothWrapAt32Bits) {
    const auto wrap = [](int64_t value) { return static_cast<int32_t>(static_cast<uint32_t>(value)); };
    for (const int32_t t : {kMin, -1, 0, 1, kMax}) {
        EXPECT_EQ(wrap(int64_t{kReal} - (int64_t{kRelative} - t)), KovaGetRealFromRelativeTime(t)) << t;
        EXPECT_EQ(wrap(int64_t{kReal} - t + kRelative), KovaGetRelativeFromRealTime(t)) << t;
    }
}

// --- Time of day ---

struct TodCase {
    KovaTimeSpec spec;
    uint64_t tod;
};

class TimeOfDay : public Clock {};

TEST_F(TimeOfDay, CountsFrom1900InUnitsOf4096PerMicrosecond) {
    const KovaTimeSpec epoch{0, 0};
    EXPECT_EQ(kEpoch, KovaGetTodFromTimeSpec(&epoch));
    EXPECT_EQ(kEpoch, uint64_t{2208988800} * 1000000 * 4096);
    for (const auto& [spec, tod] : {TodCase{{1, 1}, kEpoch + (uint64_t{1001000} << 12)},
                                    TodCase{{0, 999}, kEpoch + (uint64_t{999000} << 12)},
                                    TodCase{{-1, 0}, kEpoch - (uint64_t{1000000} << 12)},
                                    TodCase{{kMax, 999}, kEpoch + (uint64_t{2147483647999000} << 12)},
                                    TodCase{{kMin, 0}, kEpoch - (uint64_t{2147483648000000} << 12)},
                                    TodCase{{0, kMax}, kEpoch + (uint64_t{2147483647000} << 12)}}) {
        EXPECT_EQ(tod, KovaGetTodFromTimeSpec(&spec)) << spec.seconds << " " << spec.milliseconds;
    }
}

TEST_F(TimeOfDay, OfNoTimeIsAllOnes) { EXPECT_EQ(0xFFFFFFFFFFFFFFFF, KovaGetTodFromTimeSpec(nullptr)); }

TEST_F(TimeOfDay, OfNowHasTheRealClocksMilliseconds) {
    fake::Journal journal({&fake::clock_gettime}, fake::kThisThread);
    fake::Always clock(fake::clock_gettime, ClockReads(1, 1999999));
    EXPECT_EQ(kEpoch + (uint64_t{1001000} << 12), KovaGetTod());
    EXPECT_EQ((Texts{"clock_gettime CLOCK_REALTIME"}), journal.Texts());
}

TEST_F(TimeOfDay, ConvertsBack) {
    KovaTimeSpec spec{-1, -1};
    EXPECT_EQ(&spec, KovaGetTimeSpecFromTod(kEpoch, &spec));
    EXPECT_TRUE(Is(spec, 0, 0));
    for (const KovaTimeSpec& original : {KovaTimeSpec{0, 1}, {1, 1}, {1700000000, 999}, {kMax, 0}}) {
        KovaGetTimeSpecFromTod(KovaGetTodFromTimeSpec(&original), &spec);
        EXPECT_TRUE(Is(spec, original.seconds, original.milliseconds));
    }
}

TEST_F(TimeOfDay, LosesWhatIsBelowAMillisecondOnTheWayBack) {
    KovaTimeSpec spec;
    KovaGetTimeSpecFromTod(kEpoch + (uint64_t{1001999} << 12) + 4095, &spec);
    EXPECT_TRUE(Is(spec, 1, 1));
    EXPECT_EQ(kEpoch + (uint64_t{1001000} << 12), KovaGetTodFromTimeSpec(&spec));
}

TEST_F(TimeOfDay, BeforeTheEpochConvertsBackModulo64Bits) {
    KovaTimeSpec spec;
    for (const uint64_t tod : {uint64_t{0}, kEpoch - 4096, kEpoch - 1, ~uint64_t{0}}) {
        const uint64_t micro = (tod - kEpoch) >> 12;
        KovaGetTimeSpecFromTod(tod, &spec);
        EXPECT_TRUE(Is(spec, static_cast<int32_t>(static_cast<uint32_t>(micro / 1000000)),
                       static_cast<int32_t>(micro % 1000000 / 1000)))
            << tod;
    }
}

// --- Sleeping ---

class Sleep : public Clock {
  protected:
    /// The requests of all nanosleep calls, and the yields between them.
    fake::Journal m_Journal{{&fake::nanosleep, &fake::sched_yield}, fake::kThisThread};
};

TEST_F(Sleep, MillisecondsBecomeSecondsAndNanoseconds) {
    fake::Always sleeps(fake::nanosleep, fake::Return(0));
    for (const int32_t ms : {1, 999, 1000, 1500, kMax}) EXPECT_EQ(0, KovaMilliSleep(ms));
    EXPECT_EQ((Texts{"nanosleep {0, 1000000}", "nanosleep {0, 999000000}", "nanosleep {1, 0}",
                     "nanosleep {1, 500000000}", "nanosleep {2147483, 647000000}"}),
              m_Journal.Texts());
}

TEST_F(Sleep, NanosecondsBelowASecondAreAskedForAsTheyAre) {
    fake::Always sleeps(fake::nanosleep, fake::Return(0));
    for (const int32_t ns : {1, 500000, 999999999}) EXPECT_EQ(0, KovaNanoSleep(ns));
    EXPECT_EQ((Texts{"nanosleep {0, 1}", "nanosleep {0, 500000}", "nanosleep {0, 999999999}"}),
              m_Journal.Texts());
}

TEST_F(Sleep, NanosecondsFromASecondOnSubtractTheCountOfSeconds) {
    fake::Always sleeps(fake::nanosleep, fake::Return(0));
    for (const int32_t ns : {1000000000, 1500000000, 2000000000, kMax}) KovaNanoSleep(ns);
    EXPECT_EQ((Texts{"nanosleep {1, 999999999}", "nanosleep {1, 1499999999}", "nanosleep {2, 1999999998}",
                     "nanosleep {2, 2147483645}"}),
              m_Journal.Texts());
}

TEST_F(Sleep, NanosecondsAboveASecondAreRefusedByTheKernel) {
    EXPECT_EQ(-1, KovaNanoSleep(1500000000));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_TRUE(m_Recorder.Has(kSleep, {1, 1499999999, 1500000000}));
    EXPECT_TRUE(m_Recorder.Has(kSleepFailed, {1, 1499999999, EINVAL}));
    EXPECT_EQ(2u, m_Recorder.All().size());
}

TEST_F(Sleep, ExactlyOneSecondOfNanosecondsSleepsNearlyTwo) {
    const int64_t begin = NowMs();
    EXPECT_EQ(0, KovaNanoSleep(1000000000));
    EXPECT_GE(NowMs() - begin, 1980);
}

TEST_F(Sleep, NothingToSleepReturnsAtOnceAndLeavesARecord) {
    EXPECT_EQ(0, KovaMilliSleep(0));
    EXPECT_EQ(0, KovaMilliSleep(-5));
    EXPECT_EQ(0, KovaMilliSleep(-1500));
    EXPECT_EQ(0, KovaMilliSleep(kMin));
    EXPECT_EQ(0, KovaNanoSleep(0));
    EXPECT_EQ(0, KovaNanoSleep(-1));
    EXPECT_EQ(0, KovaNanoSleep(kMin));
    EXPECT_EQ(Texts{}, m_Journal.Texts());
    EXPECT_TRUE(m_Recorder.Has(kSleep, {0, 0, 0}));
    EXPECT_TRUE(m_Recorder.Has(kSleep, {0, -5000000, -5}));
    EXPECT_TRUE(m_Recorder.Has(kSleep, {-1, -500000000, -1500}));
    EXPECT_TRUE(m_Recorder.Has(kSleep, {-2147483, -648000000, kMin}));
    EXPECT_TRUE(m_Recorder.Has(kSleep, {0, -1, -1}));
    EXPECT_TRUE(m_Recorder.Has(kSleep, {-2, kMin + 2, kMin}));
    EXPECT_EQ(7u, m_Recorder.All().size());
}

TEST_F(Sleep, SuccessLeavesOneRecord) {
    EXPECT_EQ(0, KovaMilliSleep(1));
    EXPECT_TRUE(m_Recorder.Has(kSleep, {0, 1000000, 1}));
    EXPECT_EQ(1u, m_Recorder.All().size());
}

/// Interrupts a sleep with `seconds` and `nanoseconds` left.
auto InterruptedWith(time_t seconds, long nanoseconds) {
    return [=](const timespec*, timespec* remaining) {
        *remaining = {seconds, nanoseconds};
        errno = EINTR;
        return -1;
    };
}

TEST_F(Sleep, InterruptedSleepYieldsAndSleepsTheRest) {
    fake::Script sleeps(fake::nanosleep, {InterruptedWith(1, 7), InterruptedWith(0, 300), fake::Return(0)});
    EXPECT_EQ(0, KovaMilliSleep(2500));
    EXPECT_EQ((Texts{"nanosleep {2, 500000000}", "sched_yield", "nanosleep {1, 7}", "sched_yield",
                     "nanosleep {0, 300}"}),
              m_Journal.Texts());
    EXPECT_TRUE(m_Recorder.Has(kSleep, {2, 500000000, 2500}));
    EXPECT_TRUE(m_Recorder.Has(kSleep, {1, 7, 2500}));
    EXPECT_TRUE(m_Recorder.Has(kSleep, {0, 300, 2500}));
    EXPECT_EQ(3u, m_Recorder.All().size());
}

TEST_F(Sleep, InterruptedNanoSleepYieldsAndSleepsTheRest) {
    fake::Script sleeps(fake::nanosleep, {InterruptedWith(0, 300), fake::Return(0)});
    EXPECT_EQ(0, KovaNanoSleep(900));
    EXPECT_EQ((Texts{"nanosleep {0, 900}", "sched_yield", "nanosleep {0, 300}"}), m_Journal.Texts());
    EXPECT_TRUE(m_Recorder.Has(kSleep, {0, 300, 900}));
}

TEST_F(Sleep, InterruptedAtItsEndNeedsNoFurtherSystemCall) {
    fake::Script sleeps(fake::nanosleep, {InterruptedWith(0, 0)});
    EXPECT_EQ(0, KovaMilliSleep(1));
    EXPECT_EQ((Texts{"nanosleep {0, 1000000}", "sched_yield"}), m_Journal.Texts());
    EXPECT_TRUE(m_Recorder.Has(kSleep, {0, 0, 1}));
}

TEST_F(Sleep, OtherFailuresEndItAndKeepErrno) {
    fake::Script sleeps(fake::nanosleep, {InterruptedWith(0, 5), fake::Fail(EFAULT)});
    EXPECT_EQ(-1, KovaMilliSleep(3));
    EXPECT_EQ(EFAULT, errno);
    EXPECT_TRUE(m_Recorder.Has(kSleepFailed, {0, 5, EFAULT}));
    EXPECT_EQ(3u, m_Recorder.All().size());
}

TEST_F(Sleep, LastsAtLeastAsLongAsAsked) {
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(0, KovaMilliSleep(30));
    const auto between = std::chrono::steady_clock::now();
    EXPECT_EQ(0, KovaNanoSleep(500000000));
    const auto end = std::chrono::steady_clock::now();
    EXPECT_GE(between - begin, std::chrono::milliseconds(30));
    EXPECT_GE(end - between, std::chrono::milliseconds(500));
}

TEST_F(Sleep, LastsAsLongAsAskedUnderSignals) {
    struct sigaction act {};
    act.sa_handler = [](int) {};
    ASSERT_EQ(0, ::sigaction(SIGALRM, &act, nullptr));
    const itimerval every_5_ms{{0, 5000}, {0, 5000}};
    ASSERT_EQ(0, ::setitimer(ITIMER_REAL, &every_5_ms, nullptr));

    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(0, KovaMilliSleep(100));
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(100));

    const itimerval off{};
    ::setitimer(ITIMER_REAL, &off, nullptr);
    EXPECT_GT(m_Recorder.Count(kSleep), 1u) << "no signal came";
    EXPECT_EQ(m_Recorder.Count(kSleep), m_Journal.Count(fake::sched_yield) + 1);
}

// --- The wrap counter ---

struct WrapCounter : KovaTimeWrapCounterSingleton {
    using KovaTimeWrapCounterSingleton::m_Counter;
    using KovaTimeWrapCounterSingleton::m_TicksPerSecond;
    using KovaTimeWrapCounterSingleton::m_Wraps;
};

TEST_F(Clock, WrapCounterStartsAtZeroWithTheTickRate) {
    static_assert(sizeof(KovaTimeWrapCounterSingleton) == 24, "three 64-bit fields and no virtual operation");
    alignas(WrapCounter) unsigned char memory[sizeof(WrapCounter)];
    std::fill(std::begin(memory), std::end(memory), static_cast<unsigned char>(0xAA));
    const auto* const counter = new (memory) WrapCounter;
    EXPECT_EQ(0, counter->m_Counter);
    EXPECT_EQ(0, counter->m_Wraps);
    EXPECT_EQ(fake::sysconf.Real(_SC_CLK_TCK), counter->m_TicksPerSecond);
    counter->~WrapCounter();
}

TEST_F(Clock, WrapCounterWithoutTickRateHoldsMinusOne) {
    fake::Script sysconf(fake::sysconf, {[](int name) {
                             EXPECT_EQ(_SC_CLK_TCK, name);
                             return -1L;
                         }});
    EXPECT_EQ(int64_t{-1}, WrapCounter().m_TicksPerSecond);
}

}  // namespace
