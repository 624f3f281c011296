#include "support/fake_libc.h"
#include "support/leak_check.h"
#include "support/trace_recorder.h"

#include <kova/clock.h>
#include <kova/time_value.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <concepts>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iterator>
#include <limits>
#include <memory>
#include <new>
#include <sstream>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

constinit fake::Hook<char*(const time_t*, char*)> g_CtimeR{"ctime_r"};

}  // namespace

extern "C" FAKE_UNINSTRUMENTED char* ctime_r(const time_t* time, char* text) noexcept {
    return g_CtimeR.IsArmed() ? g_CtimeR.Answer(time, text) : g_CtimeR.Real(time, text);
}

namespace {

constexpr int32_t kMax = std::numeric_limits<int32_t>::max();
constexpr int32_t kMin = std::numeric_limits<int32_t>::min();
/// What the clocks read: Tue Nov 14 22:13:20 2023 UTC, 5000 seconds after the start.
constexpr int32_t kReal = 1700000000;
constexpr int32_t kRelative = 5000;

constexpr const char* kUnsetText = "time not set (invalid)";

const std::vector<int32_t> kEdges{kMin, kMin + 1, -1000, -2, -1, 0, 1, 7, kRelative, kReal, kMax - 1, kMax};

using Texts = std::vector<std::string>;

long Wrap(int64_t seconds) { return static_cast<int32_t>(static_cast<uint32_t>(seconds)); }

/// What the conversions give while the clocks read kReal and kRelative.
long RealOf(int64_t relative) { return Wrap(kReal - (kRelative - relative)); }
long RelativeOf(int64_t real) { return Wrap((kReal - real) + kRelative); }

KovaRelativeTime Relative(long seconds) { return KovaRelativeTime(seconds, true); }

/// Looks into a time past its conversions.
struct Inside : KovaTime {
    static long Value(const KovaTime& time) { return time.*&Inside::m_Value; }
    static std::string Text(const KovaTime& time) { return time.*&Inside::m_Text; }
    static size_t TextSize(const KovaTime& time) { return sizeof(time.*&Inside::m_Text); }
};

long Value(const KovaTime& time) { return Inside::Value(time); }

/// The wall-clock second that a relative time keeps.
long Cache(const KovaRelativeTime& time) {
    const KovaRelativeTime probe(0, true);
    const long* const cache = probe;
    const auto offset = reinterpret_cast<const char*>(cache) - reinterpret_cast<const char*>(&probe);
    long value;
    std::memcpy(&value, reinterpret_cast<const char*>(&time) + offset, sizeof value);
    return value;
}

/// The clocks stand at kReal and kRelative, in UTC. A trace record fails the test.
class TimeValue : public KovaTest {
  protected:
    TimeValue() { UseZone("UTC0"); }
    ~TimeValue() override {
        if (m_HadZone) {
            UseZone(m_OldZone.c_str());
        } else {
            ::unsetenv("TZ");
            ::tzset();
        }
        EXPECT_EQ(0u, m_Recorder.All().size());
    }

    static void UseZone(const char* zone) {
        ::setenv("TZ", zone, 1);
        ::tzset();
    }

    const bool m_HadZone = std::getenv("TZ") != nullptr;
    const std::string m_OldZone = m_HadZone ? std::getenv("TZ") : "";
    TraceRecorder m_Recorder;
    fake::Journal m_Journal{{&fake::time, &fake::clock_gettime}, fake::kThisThread};
    fake::Always<time_t(time_t*)> m_Time{fake::time, fake::Return(kReal)};
    fake::Always<int(clockid_t, timespec*)> m_Clock{fake::clock_gettime, [](clockid_t, timespec* now) {
                                                        *now = {kRelative, 999999999};
                                                        return 0;
                                                    }};
};

class RealTime : public TimeValue {};
class RelativeTime : public TimeValue {};

const Texts kReadsRealClock{"time"};
const Texts kReadsRelativeClock{"clock_gettime CLOCK_MONOTONIC"};
const Texts kReadsBothClocks{"time", "clock_gettime CLOCK_MONOTONIC"};

// --- What compiles, and its type ---

template <typename A, typename B>
using Sum = decltype(std::declval<A>() + std::declval<B>());
template <typename A, typename B>
using Difference = decltype(std::declval<A>() - std::declval<B>());
template <typename A, typename B>
using AddedTo = decltype(std::declval<A&>() += std::declval<B>());
template <typename A, typename B>
using SubtractedFrom = decltype(std::declval<A&>() -= std::declval<B>());

template <typename Time, typename Operand>
constexpr bool kCounts =
    std::is_same_v<Time, Sum<const Time&, Operand>>&& std::is_same_v<Time, Difference<const Time&, Operand>>&&
        std::is_same_v<Time&, AddedTo<Time, Operand>>&& std::is_same_v<Time&, SubtractedFrom<Time, Operand>>;

template <typename Time>
constexpr bool kCountsWithEveryInteger =
    kCounts<Time, int>&& kCounts<Time, const int&>&& kCounts<Time, unsigned int>&& kCounts<Time, long>&&
        kCounts<Time, long&>&& kCounts<Time, unsigned long>&& kCounts<Time, long long>&&
            kCounts<Time, unsigned long long>&& kCounts<Time, short>&& kCounts<Time, unsigned short>&&
                kCounts<Time, char>&& kCounts<Time, int32_t>&& kCounts<Time, uint32_t>&&
                    kCounts<Time, int64_t>&& kCounts<Time, size_t>&& kCounts<Time, time_t>;

static_assert(kCountsWithEveryInteger<KovaRealTime> && kCountsWithEveryInteger<KovaRelativeTime>);
static_assert(kCounts<KovaRealTime, KovaRealTime> && kCounts<KovaRealTime, KovaRealTime&> &&
              kCounts<KovaRealTime, const KovaRealTime&>);
static_assert(kCounts<KovaRelativeTime, KovaRelativeTime> && kCounts<KovaRelativeTime, KovaRelativeTime&> &&
              kCounts<KovaRelativeTime, const KovaRelativeTime&>);

template <typename A, typename B>
concept Compares = requires(const A& a, B b) {
    { a < b } -> std::same_as<bool>;
    { a > b } -> std::same_as<bool>;
    { a == b } -> std::same_as<bool>;
    { a != b } -> std::same_as<bool>;
};
template <typename A, typename B>
concept ComparesSomehow = requires(const A& a, B b) {
    a < b;
}
|| requires(const A& a, B b) { a > b; }
|| requires(const A& a, B b) { a == b; }
|| requires(const A& a, B b) { a != b; };

static_assert(Compares<KovaRealTime, KovaRealTime> && Compares<KovaRealTime, const KovaRealTime&>);
static_assert(Compares<KovaRelativeTime, KovaRelativeTime> &&
              Compares<KovaRelativeTime, const KovaRelativeTime&>);
static_assert(!ComparesSomehow<KovaRealTime, int> && !ComparesSomehow<KovaRealTime, long>);
static_assert(!ComparesSomehow<KovaRelativeTime, int> && !ComparesSomehow<KovaRelativeTime, long>);

/// Direct and copy initialisation, assignment.
template <typename To, typename From>
constexpr bool kBecomes =
    std::is_constructible_v<To, From>&& std::is_convertible_v<From, To>&& std::is_assignable_v<To&, From>;

static_assert(kBecomes<KovaRealTime, KovaRelativeTime> && kBecomes<KovaRealTime, KovaRelativeTime&> &&
              kBecomes<KovaRealTime, const KovaRelativeTime&>);
static_assert(kBecomes<KovaRelativeTime, KovaRealTime> && kBecomes<KovaRelativeTime, KovaRealTime&> &&
              kBecomes<KovaRelativeTime, const KovaRealTime&>);
static_assert(kBecomes<KovaRealTime, const KovaRealTime&> && kBecomes<KovaRealTime, int> &&
              kBecomes<KovaRealTime, long> && kBecomes<KovaRealTime, time_t>);
static_assert(kBecomes<KovaRelativeTime, const KovaRelativeTime&> && kBecomes<KovaRelativeTime, int> &&
              kBecomes<KovaRelativeTime, long> && kBecomes<KovaRelativeTime, time_t>);
static_assert(std::is_constructible_v<KovaRelativeTime, int, bool>);

static_assert(std::is_abstract_v<KovaTime> && std::has_virtual_destructor_v<KovaTime>);
static_assert(std::is_base_of_v<KovaTime, KovaRealTime> && std::is_base_of_v<KovaTime, KovaRelativeTime>);
static_assert(std::is_convertible_v<const KovaTime&, const char*> &&
              std::is_convertible_v<const KovaTime&, long> &&
              std::is_convertible_v<const KovaTime&, const long*>);
static_assert(std::is_same_v<int, decltype(std::declval<const KovaRealTime&>().DiffTime(
                                      std::declval<const KovaRelativeTime&>()))>);
static_assert(std::is_same_v<int, decltype(std::declval<const KovaRelativeTime&>().DiffTime(
                                      std::declval<const KovaRealTime&>()))>);

KovaRealTime ReturnedReal(const KovaRelativeTime& relative) { return relative; }
KovaRelativeTime ReturnedRelative(const KovaRealTime& real) { return real; }
long RealArgument(const KovaRealTime& real) { return Value(real); }
long RelativeArgument(KovaRelativeTime relative) { return Value(relative); }

TEST_F(TimeValue, ConvertsToTheOtherClockInEveryForm) {
    const KovaRelativeTime relative = Relative(kRelative - 100);
    const KovaRealTime real_built(relative);
    const KovaRealTime real_braced{relative};
    const KovaRealTime real_copied = relative;
    KovaRealTime real_assigned(0);
    real_assigned = relative;
    for (const KovaRealTime& real :
         {real_built, real_braced, real_copied, real_assigned, ReturnedReal(relative),
          static_cast<KovaRealTime>(relative), relative.operator KovaRealTime()}) {
        EXPECT_EQ(kReal - 100, Value(real));
    }
    EXPECT_EQ(kReal - 100, RealArgument(relative));

    const KovaRealTime real(kReal - 300);
    const KovaRelativeTime relative_built(real);
    const KovaRelativeTime relative_braced{real};
    const KovaRelativeTime relative_copied = real;
    KovaRelativeTime relative_assigned(0, true);
    relative_assigned = real;
    for (const KovaRelativeTime& converted :
         {relative_built, relative_braced, relative_copied, relative_assigned, ReturnedRelative(real),
          static_cast<KovaRelativeTime>(real), real.operator KovaRelativeTime()}) {
        EXPECT_EQ(kRelative + 300, Value(converted));
    }
    EXPECT_EQ(kRelative + 300, RelativeArgument(real));
}

// --- The base ---

/// The least that makes the base a class of its own.
struct PlainTime : KovaTime {
    using KovaTime::KovaTime;
    const char* CTime() const override { return "printed by PlainTime"; }
    operator long() const override { return m_Value; }
    operator const long*() const override { return &m_Value; }
};

TEST_F(TimeValue, OfTheBaseIsThePresentSecond) {
    EXPECT_EQ(kReal, Value(PlainTime()));
    EXPECT_EQ(kReadsRealClock, m_Journal.Texts());
}

TEST_F(TimeValue, OfTheBaseIsUnsetWhenTheClockFailsOnce) {
    fake::Script time(fake::time, {fake::Fail(EAGAIN)});
    EXPECT_FALSE(PlainTime().IsValid());
}

TEST_F(TimeValue, OfTheBaseHoldsAnySecond) {
    for (const int32_t seconds : kEdges) EXPECT_EQ(seconds, Value(PlainTime(seconds)));
}

TEST_F(TimeValue, OfTheBaseIsCopiedAndAssignedBySeconds) {
    const PlainTime original(12);
    const PlainTime copy(original);
    PlainTime assigned(13);
    assigned = copy;
    EXPECT_EQ(12, Value(copy));
    EXPECT_EQ(12, Value(assigned));
}

TEST_F(TimeValue, IsPrintedByItsOwnClass) {
    const PlainTime time(1);
    const KovaTime& base = time;
    EXPECT_STREQ("printed by PlainTime", base);
    std::ostringstream stream;
    stream << "<" << base << ">" << time << 7;
    EXPECT_EQ("<printed by PlainTime>printed by PlainTime7", stream.str());
}

TEST_F(TimeValue, IsDestroyedThroughItsBase) {
    static int destroyed;
    destroyed = 0;
    struct Counting : KovaRelativeTime {
        ~Counting() override { ++destroyed; }
    };
    std::unique_ptr<KovaTime>(new Counting).reset();
    EXPECT_EQ(1, destroyed);
}

template <typename Time>
void ExpectNothingPrintedYet(const Time& time) {
    EXPECT_EQ("", Inside::Text(time));
    EXPECT_EQ(64u, Inside::TextSize(time));
}

/// Constructs it in memory that is not zero.
template <typename Time, typename... Args>
class Dirty {
  public:
    explicit Dirty(Args... args) {
        std::fill(std::begin(m_Memory), std::end(m_Memory), static_cast<unsigned char>(0xAA));
        m_Time = new (m_Memory) Time(args...);
    }
    ~Dirty() { m_Time->~Time(); }
    const Time& operator*() const { return *m_Time; }

  private:
    alignas(Time) unsigned char m_Memory[sizeof(Time)];
    Time* m_Time;
};

TEST_F(TimeValue, StartsWithoutText) {
    const KovaRealTime real(5);
    const KovaRelativeTime relative(5, true);
    real.CTime();
    relative.CTime();
    ExpectNothingPrintedYet(*Dirty<KovaRealTime>());
    ExpectNothingPrintedYet(*Dirty<KovaRealTime, long>(5));
    ExpectNothingPrintedYet(*Dirty<KovaRealTime, const KovaRealTime&>(real));
    ExpectNothingPrintedYet(*Dirty<KovaRealTime, const KovaRelativeTime&>(relative));
    ExpectNothingPrintedYet(*Dirty<KovaRelativeTime>());
    ExpectNothingPrintedYet(*Dirty<KovaRelativeTime, long>(5));
    ExpectNothingPrintedYet(*Dirty<KovaRelativeTime, long, bool>(5, true));
    ExpectNothingPrintedYet(*Dirty<KovaRelativeTime, const KovaRelativeTime&>(relative));
    ExpectNothingPrintedYet(*Dirty<KovaRelativeTime, const KovaRealTime&>(real));
}

TEST_F(TimeValue, InvalidatedIsUnsetAndWithoutText) {
    KovaRealTime real(5);
    KovaRelativeTime relative(5, true);
    for (KovaTime* const time : {static_cast<KovaTime*>(&real), static_cast<KovaTime*>(&relative)}) {
        EXPECT_TRUE(time->IsValid());
        time->CTime();
        time->Invalidate();
        EXPECT_FALSE(time->IsValid());
        EXPECT_EQ(-1, Value(*time));
        EXPECT_EQ("", Inside::Text(*time));
        EXPECT_STREQ(kUnsetText, time->CTime());
    }
}

TEST_F(TimeValue, OnlyMinusOneIsUnset) {
    for (const int32_t seconds : kEdges) {
        EXPECT_EQ(seconds != -1, KovaRealTime(seconds).IsValid()) << seconds;
        EXPECT_EQ(seconds != -1, Relative(seconds).IsValid()) << seconds;
    }
}

// --- Real time ---

TEST_F(RealTime, IsNow) {
    EXPECT_EQ(kReal, Value(KovaRealTime()));
    EXPECT_EQ(kReadsRealClock, m_Journal.Texts());
}

TEST_F(RealTime, OfTheRunningClockIsItsPresentSecond) {
    fake::Always real_time(fake::time, fake::Real());
    const int32_t before = KovaGetRealTime();
    const KovaRealTime time;
    const int32_t after = KovaGetRealTime();
    EXPECT_LE(before, time.RealTime());
    EXPECT_GE(after, time.RealTime());
}

TEST_F(RealTime, ReadsAFailingClockAgain) {
    fake::Script time(fake::time, {fake::Fail(EAGAIN), fake::Fail(EAGAIN), fake::Return(42)});
    EXPECT_EQ(42, Value(KovaRealTime()));
    EXPECT_EQ(2u, m_Recorder.Count("clock errno=%d")) << "the clock's own records";
    m_Recorder.Clear();
}

TEST_F(RealTime, IsRenewedByNowAndRefresh) {
    KovaRealTime time(5);
    EXPECT_EQ(kReal, time.Now());
    EXPECT_EQ(kReal, Value(time));
    fake::Always later(fake::time, fake::Return(kReal + 9));
    EXPECT_EQ(kReal + 9, time.Refresh());
    EXPECT_EQ(kReal + 9, Value(time));
    EXPECT_EQ((Texts{"time", "time"}), m_Journal.Texts());
}

TEST_F(RealTime, ShowsItsSecond) {
    for (const int32_t seconds : kEdges) {
        const KovaRealTime time(seconds);
        const long number = time;
        const long* const place = time;
        EXPECT_EQ(seconds, time.RealTime());
        EXPECT_EQ(seconds, number);
        EXPECT_EQ(seconds, *place);
    }
    EXPECT_EQ(Texts{}, m_Journal.Texts());
}

TEST_F(RealTime, PlaceOfItsSecondFollowsItsChanges) {
    KovaRealTime time(5);
    const long* const place = time;
    EXPECT_LE(reinterpret_cast<const char*>(&time), reinterpret_cast<const char*>(place));
    EXPECT_GT(reinterpret_cast<const char*>(&time + 1), reinterpret_cast<const char*>(place));
    time += 2;
    EXPECT_EQ(7, *place);
    time.Invalidate();
    EXPECT_EQ(-1, *place);
}

TEST_F(RealTime, CopyHasItsSecondOnly) {
    const KovaRealTime original(0);
    EXPECT_STREQ("Thu Jan  1 00:00:00 1970", original);
    const KovaRealTime copy(original);
    EXPECT_EQ(0, Value(copy));
    EXPECT_EQ("", Inside::Text(copy));
    EXPECT_STREQ("Thu Jan  1 00:00:00 1970", copy);
}

TEST_F(RealTime, AssignmentReplacesTheSecondOnly) {
    KovaRealTime time(0);
    const char* const text = time;
    const KovaRealTime other(86400);
    other.CTime();
    EXPECT_EQ(&time, &(time = other));
    EXPECT_EQ(86400, Value(time));
    EXPECT_STREQ("Thu Jan  1 00:00:00 1970", text) << "until it is printed again";
    EXPECT_STREQ("Fri Jan  2 00:00:00 1970", time);
    const KovaRealTime& same = time;
    time = same;
    EXPECT_EQ(86400, Value(time));
}

TEST_F(RealTime, FromRelativeTimeIsItsWallClockSecond) {
    for (const int32_t relative : kEdges) {
        EXPECT_EQ(RealOf(relative), Value(KovaRealTime(Relative(relative)))) << relative;
    }
}

TEST_F(RealTime, ConvertsToRelativeByItsAge) {
    for (const int32_t real : kEdges) {
        const KovaRelativeTime relative = KovaRealTime(real);
        EXPECT_EQ(RelativeOf(real), Value(relative)) << real;
    }
}

TEST_F(RealTime, ComesBackFromRelativeOnlyIfItIsNow) {
    EXPECT_EQ(kReal, Value(KovaRealTime(KovaRelativeTime(KovaRealTime(kReal)))));
    EXPECT_EQ(kReal + 10, Value(KovaRealTime(KovaRelativeTime(KovaRealTime(kReal - 10)))));
}

TEST_F(RealTime, OrderIsUnsigned) {
    EXPECT_TRUE(KovaRealTime(-1) > KovaRealTime(5)) << "an unset time is later than every set one";
    const std::vector<int32_t> ascending{0, 1, 5, kReal, kMax, kMin, kMin + 1, -2, -1};
    for (size_t i = 0; i < ascending.size(); ++i) {
        for (size_t j = 0; j < ascending.size(); ++j) {
            const KovaRealTime a(ascending[i]);
            const KovaRealTime b(ascending[j]);
            EXPECT_EQ(i < j, a < b) << ascending[i] << " " << ascending[j];
            EXPECT_EQ(i > j, a > b) << ascending[i] << " " << ascending[j];
            EXPECT_EQ(i == j, a == b) << ascending[i] << " " << ascending[j];
            EXPECT_EQ(i != j, a != b) << ascending[i] << " " << ascending[j];
        }
    }
}

TEST_F(RealTime, AddsAndSubtractsAndWraps) {
    for (const int32_t a : kEdges) {
        for (const int32_t b : kEdges) {
            SCOPED_TRACE(std::to_string(a) + " " + std::to_string(b));
            const KovaRealTime time(a);
            EXPECT_EQ(Wrap(int64_t{a} + b), Value(time + long{b}));
            EXPECT_EQ(Wrap(int64_t{a} + b), Value(time + b));
            EXPECT_EQ(Wrap(int64_t{a} + b), Value(time + KovaRealTime(b)));
            EXPECT_EQ(Wrap(int64_t{a} - b), Value(time - long{b}));
            EXPECT_EQ(Wrap(int64_t{a} - b), Value(time - b));
            EXPECT_EQ(Wrap(int64_t{a} - b), Value(time - KovaRealTime(b)));
            EXPECT_EQ(a, Value(time));

            KovaRealTime changed(a);
            EXPECT_EQ(&changed, &(changed += b));
            EXPECT_EQ(Wrap(int64_t{a} + b), Value(changed));
            EXPECT_EQ(&changed, &(changed -= b));
            EXPECT_EQ(a, Value(changed));
            EXPECT_EQ(&changed, &(changed -= KovaRealTime(b)));
            EXPECT_EQ(Wrap(int64_t{a} - b), Value(changed));
            EXPECT_EQ(&changed, &(changed += KovaRealTime(b)));
            EXPECT_EQ(a, Value(changed));
        }
    }
    EXPECT_EQ(Texts{}, m_Journal.Texts());
}

TEST_F(RealTime, TakesIntegersOfEveryWidth) {
    const KovaRealTime time(10);
    EXPECT_EQ(9, Value(time + int64_t{0x1FFFFFFFF}));
    EXPECT_EQ(11, Value(time - int64_t{0x1FFFFFFFF}));
    EXPECT_EQ(9, Value(time + 0xFFFFFFFFu));
    EXPECT_EQ(13, Value(time + short{3}));
    EXPECT_EQ(7, Value(time - '\3'));
}

TEST_F(RealTime, CountsWithItself) {
    KovaRealTime time(21);
    time += time;
    EXPECT_EQ(42, Value(time));
    time -= time;
    EXPECT_EQ(0, Value(time));
}

/// The difference, limited to what an int holds.
int Limited(int64_t difference) { return static_cast<int>(std::clamp<int64_t>(difference, kMin, kMax)); }

TEST_F(RealTime, DifferenceIsInSecondsAndLimited) {
    for (const int32_t a : kEdges) {
        for (const int32_t b : kEdges) {
            SCOPED_TRACE(std::to_string(a) + " " + std::to_string(b));
            EXPECT_EQ(Limited(int64_t{a} - b), KovaRealTime(a).DiffTime(KovaRealTime(b)));
            EXPECT_EQ(Limited(a - int64_t{RealOf(b)}), KovaRealTime(a).DiffTime(Relative(b)));
        }
    }
}

TEST_F(RealTime, TextIsTheLocalTimeWithoutNewline) {
    EXPECT_STREQ("Thu Jan  1 00:00:00 1970", KovaRealTime(0).CTime());
    EXPECT_STREQ("Tue Nov 14 22:13:20 2023", KovaRealTime(kReal).CTime());
    EXPECT_STREQ("Tue Jan 19 03:14:07 2038", KovaRealTime(kMax).CTime());
    EXPECT_STREQ("Wed Dec 31 23:59:58 1969", KovaRealTime(-2).CTime());
    EXPECT_STREQ("Fri Dec 13 20:45:52 1901", KovaRealTime(kMin).CTime());
    UseZone("EST5");
    EXPECT_STREQ("Tue Nov 14 17:13:20 2023", KovaRealTime(kReal).CTime());
}

TEST_F(RealTime, TextLiesInTheObjectAndIsRenewed) {
    KovaRealTime time(0);
    const char* const text = time.CTime();
    EXPECT_EQ(text, static_cast<const char*>(time));
    EXPECT_LE(reinterpret_cast<const char*>(&time), text);
    EXPECT_GE(reinterpret_cast<const char*>(&time + 1), text + 64);
    time += 1;
    EXPECT_STREQ("Thu Jan  1 00:00:00 1970", text);
    time.CTime();
    EXPECT_STREQ("Thu Jan  1 00:00:01 1970", text);
    time = KovaRealTime(-1);
    EXPECT_STREQ(kUnsetText, time);
    EXPECT_STREQ(kUnsetText, text);
}

TEST_F(RealTime, UnsetIsPrintedWithoutAskingTheSystem) {
    fake::Counter calls(g_CtimeR);
    EXPECT_STREQ(kUnsetText, KovaRealTime(-1).CTime());
    EXPECT_EQ(0u, calls.Calls());
}

TEST_F(RealTime, GoesIntoAStreamAsText) {
    std::ostringstream stream;
    stream << KovaRealTime(0) << ", " << KovaRealTime(-1);
    EXPECT_EQ("Thu Jan  1 00:00:00 1970, time not set (invalid)", stream.str());
}

/// ctime_r that writes `result` and succeeds.
auto Prints(const char* result) {
    return [result](const time_t*, char* text) { return std::strcpy(text, result); };
}

/// ctime_r that fails and leaves no end of a text.
char* FailsHalfWay(const time_t*, char* text) {
    std::memset(text, 'x', 64);
    return nullptr;
}

TEST_F(RealTime, TextKeepsALastCharacterThatIsNoNewline) {
    fake::Script script(g_CtimeR, {Prints("noon"), Prints("noon\n\n"), Prints("\n")});
    EXPECT_STREQ("noon", KovaRealTime(5).CTime());
    EXPECT_STREQ("noon\n", KovaRealTime(5).CTime());
    EXPECT_STREQ("", KovaRealTime(5).CTime());
}

TEST_F(RealTime, NothingIsOverwrittenInFrontOfAnEmptyText) {
    fake::Script script(g_CtimeR, {Prints("")});
    const KovaRealTime time(0x0A00000A);  // a newline at either end
    EXPECT_STREQ("", time.CTime());
    EXPECT_EQ(0x0A00000A, Value(time));
}

TEST_F(RealTime, TextIsEmptyWhenTheSystemHasNone) {
    fake::Script script(g_CtimeR, {FailsHalfWay});
    EXPECT_STREQ("", KovaRealTime(5).CTime());
}

// --- Relative time ---

TEST_F(RelativeTime, IsNowOnTheMonotonicClock) {
    EXPECT_EQ(kRelative, Value(KovaRelativeTime()));
    EXPECT_EQ(kReadsRelativeClock, m_Journal.Texts());
}

TEST_F(RelativeTime, FromANumberIsAConvertedWallClockSecond) {
    for (const int32_t real : kEdges) {
        m_Journal.Clear();
        EXPECT_EQ(RelativeOf(real), Value(KovaRelativeTime(real))) << real;
        EXPECT_EQ(kReadsBothClocks, m_Journal.Texts());
    }
    EXPECT_TRUE(KovaRelativeTime(7) == Relative(KovaGetRelativeFromRealTime(7)));
}

TEST_F(RelativeTime, FromANumberWithAFlagIsThatMonotonicSecond) {
    for (const int32_t seconds : kEdges) {
        EXPECT_EQ(seconds, Value(KovaRelativeTime(seconds, true)));
        EXPECT_EQ(seconds, Value(KovaRelativeTime(seconds, false))) << "the flag is not looked at";
    }
    EXPECT_EQ(Texts{}, m_Journal.Texts());
}

TEST_F(RelativeTime, FromRealTimeIsConvertedByItsAge) {
    for (const int32_t real : kEdges) {
        EXPECT_EQ(RelativeOf(real), Value(KovaRelativeTime(KovaRealTime(real)))) << real;
    }
}

TEST_F(RelativeTime, IsRenewedByRefresh) {
    KovaRelativeTime time(5, true);
    const long* const cache = time;
    EXPECT_NE(0, *cache);
    m_Journal.Clear();
    EXPECT_EQ(kRelative, time.Refresh());
    EXPECT_EQ(kRelative, Value(time));
    EXPECT_EQ(0, *cache);
    EXPECT_EQ(kReadsRelativeClock, m_Journal.Texts());
}

TEST_F(RelativeTime, ShowsItsWallClockSecond) {
    for (const int32_t relative : kEdges) {
        const KovaRelativeTime time = Relative(relative);
        EXPECT_EQ(RealOf(relative), time.RealTime()) << relative;
        const long number = time;
        EXPECT_EQ(RealOf(relative), number) << relative;
        const long* const place = time;
        EXPECT_EQ(RealOf(relative), *place) << relative;
        EXPECT_EQ(relative, Value(time));
    }
}

TEST_F(RelativeTime, FollowsAWallClockThatIsSet) {
    const KovaRelativeTime time = Relative(kRelative);
    EXPECT_EQ(kReal, time.RealTime());
    fake::Always set(fake::time, fake::Return(kReal + 86400));
    EXPECT_EQ(kReal + 86400, time.RealTime());
    EXPECT_EQ(kReal + 86400, static_cast<long>(time));
    EXPECT_STREQ("Wed Nov 15 22:13:20 20230", time);
}

TEST_F(RelativeTime, PlaceIsThatOfTheSecondLastGivenOut) {
    KovaRelativeTime time = Relative(kRelative);
    const long* const place = time;
    EXPECT_EQ(kReal, *place);
    time += 5;
    EXPECT_EQ(kReal, *place) << "neither the value nor brought up to date by itself";
    EXPECT_EQ(kReal + 5, static_cast<long>(time));
    EXPECT_EQ(kReal + 5, *place) << "the number is kept, too";
    time += 5;
    EXPECT_EQ(place, static_cast<const long*>(time));
    EXPECT_EQ(kReal + 10, *place);
}

TEST_F(RelativeTime, OnlyTheTwoConversionsKeepTheirSecond) {
    const KovaRelativeTime time = Relative(kRelative);
    time.RealTime();
    time.CTime();
    static_cast<void>(static_cast<KovaRealTime>(time));
    EXPECT_EQ(0, Cache(time));
    EXPECT_EQ(kReal, static_cast<long>(time));
    EXPECT_EQ(kReal, Cache(time));
}

TEST_F(RelativeTime, StartsWithoutASecondGivenOut) {
    const KovaRelativeTime used = Relative(kRelative);
    static_cast<void>(static_cast<long>(used));
    EXPECT_EQ(kReal, Cache(used));
    const KovaRealTime real(5);
    EXPECT_EQ(0, Cache(*Dirty<KovaRelativeTime>()));
    EXPECT_EQ(0, Cache(*Dirty<KovaRelativeTime, long>(5)));
    EXPECT_EQ(0, Cache(*Dirty<KovaRelativeTime, long, bool>(5, true)));
    EXPECT_EQ(0, Cache(*Dirty<KovaRelativeTime, const KovaRelativeTime&>(used)));
    EXPECT_EQ(0, Cache(*Dirty<KovaRelativeTime, const KovaRealTime&>(real)));
}

TEST_F(RelativeTime, CopyHasItsSecondOnly) {
    const KovaRelativeTime original = Relative(kRelative);
    original.CTime();
    m_Journal.Clear();
    const KovaRelativeTime copy(original);
    EXPECT_EQ(kRelative, Value(copy));
    EXPECT_EQ("", Inside::Text(copy));
    EXPECT_EQ(Texts{}, m_Journal.Texts()) << "nothing is converted";
}

TEST_F(RelativeTime, AssignmentReplacesTheSecondOnly) {
    KovaRelativeTime time = Relative(kRelative);
    const char* const text = time;
    static_cast<void>(static_cast<long>(time));
    const KovaRelativeTime other = Relative(3);
    EXPECT_EQ(&time, &(time = other));
    EXPECT_EQ(3, Value(time));
    EXPECT_STREQ("Tue Nov 14 22:13:20 20230", text);
    EXPECT_EQ(kReal, Cache(time));
    const KovaRelativeTime& same = time;
    time = same;
    EXPECT_EQ(3, Value(time));
}

TEST_F(RelativeTime, OrderIsSigned) {
    EXPECT_FALSE(Relative(-1) > Relative(5));
    EXPECT_TRUE(std::is_sorted(kEdges.begin(), kEdges.end()));
    for (const int32_t i : kEdges) {
        for (const int32_t j : kEdges) {
            const KovaRelativeTime a = Relative(i);
            const KovaRelativeTime b = Relative(j);
            EXPECT_EQ(i < j, a < b) << i << " " << j;
            EXPECT_EQ(i > j, a > b) << i << " " << j;
            EXPECT_EQ(i == j, a == b) << i << " " << j;
            EXPECT_EQ(i != j, a != b) << i << " " << j;
        }
    }
    EXPECT_EQ(Texts{}, m_Journal.Texts()) << "no clock is needed to compare";
}

TEST_F(RelativeTime, AddsAndSubtractsAndWraps) {
    for (const int32_t a : kEdges) {
        for (const int32_t b : kEdges) {
            SCOPED_TRACE(std::to_string(a) + " " + std::to_string(b));
            const KovaRelativeTime time = Relative(a);
            EXPECT_EQ(Wrap(int64_t{a} + b), Value(time + long{b}));
            EXPECT_EQ(Wrap(int64_t{a} + b), Value(time + b));
            EXPECT_EQ(Wrap(int64_t{a} + b), Value(time + Relative(b)));
            EXPECT_EQ(Wrap(int64_t{a} - b), Value(time - long{b}));
            EXPECT_EQ(Wrap(int64_t{a} - b), Value(time - b));
            EXPECT_EQ(Wrap(int64_t{a} - b), Value(time - Relative(b)));
            EXPECT_EQ(a, Value(time));

            KovaRelativeTime changed = Relative(a);
            EXPECT_EQ(&changed, &(changed += b));
            EXPECT_EQ(Wrap(int64_t{a} + b), Value(changed));
            EXPECT_EQ(&changed, &(changed -= b));
            EXPECT_EQ(a, Value(changed));
            EXPECT_EQ(&changed, &(changed -= Relative(b)));
            EXPECT_EQ(Wrap(int64_t{a} - b), Value(changed));
            EXPECT_EQ(&changed, &(changed += Relative(b)));
            EXPECT_EQ(a, Value(changed));
        }
    }
    EXPECT_EQ(Texts{}, m_Journal.Texts()) << "nothing is converted";
}

TEST_F(RelativeTime, PlusANumberOfSecondsIsNotConverted) {
    EXPECT_TRUE(KovaRelativeTime(7, true) + 3 == KovaRelativeTime(10, true));
    EXPECT_TRUE(KovaRelativeTime(7, true) - 3 == KovaRelativeTime(4, true));
}

TEST_F(RelativeTime, TakesIntegersOfEveryWidth) {
    const KovaRelativeTime time = Relative(10);
    EXPECT_EQ(9, Value(time + int64_t{0x1FFFFFFFF}));
    EXPECT_EQ(11, Value(time - int64_t{0x1FFFFFFFF}));
    EXPECT_EQ(9, Value(time + 0xFFFFFFFFu));
    EXPECT_EQ(13, Value(time + short{3}));
    EXPECT_EQ(7, Value(time - '\3'));
}

TEST_F(RelativeTime, CountsWithItself) {
    KovaRelativeTime time = Relative(21);
    time += time;
    EXPECT_EQ(42, Value(time));
    time -= time;
    EXPECT_EQ(0, Value(time));
}

TEST_F(RelativeTime, DifferenceIsInSecondsAndLimited) {
    for (const int32_t a : kEdges) {
        for (const int32_t b : kEdges) {
            SCOPED_TRACE(std::to_string(a) + " " + std::to_string(b));
            EXPECT_EQ(Limited(int64_t{a} - b), Relative(a).DiffTime(Relative(b)));
            EXPECT_EQ(Limited(a - int64_t{RelativeOf(b)}), Relative(a).DiffTime(KovaRealTime(b)));
        }
    }
}

TEST_F(RelativeTime, TextIsThatOfTheWallClockSecondFollowedByZero) {
    EXPECT_STREQ("Tue Nov 14 22:13:20 20230", Relative(kRelative).CTime());
    EXPECT_STREQ("Tue Nov 14 20:50:00 20230", Relative(0).CTime());
    EXPECT_STREQ("Tue Nov 14 20:49:58 20230", Relative(-2).CTime());
    UseZone("EST5");
    EXPECT_STREQ("Tue Nov 14 17:13:20 20230", Relative(kRelative).CTime());
    std::ostringstream stream;
    stream << Relative(kRelative);
    EXPECT_EQ("Tue Nov 14 17:13:20 20230", stream.str());
}

TEST_F(RelativeTime, TextOfAWallClockSecondMinusOneIsADate) {
    EXPECT_STREQ("Wed Dec 31 23:59:59 19690", Relative(kRelative - kReal - 1).CTime());
}

TEST_F(RelativeTime, UnsetIsPrintedWithoutAskingTheSystem) {
    fake::Counter calls(g_CtimeR);
    EXPECT_STREQ(kUnsetText, Relative(-1).CTime());
    EXPECT_EQ(0u, calls.Calls());
    EXPECT_EQ(Texts{}, m_Journal.Texts());
}

TEST_F(RelativeTime, LastCharacterBecomesZeroWhateverItIs) {
    fake::Script script(g_CtimeR, {Prints("noon"), Prints("noon\n\n"), Prints("\n")});
    EXPECT_STREQ("noo0", Relative(5).CTime());
    EXPECT_STREQ("noon\n0", Relative(5).CTime());
    EXPECT_STREQ("0", Relative(5).CTime());
}

TEST_F(RelativeTime, NothingIsOverwrittenInFrontOfAnEmptyText) {
    fake::Script script(g_CtimeR, {Prints("")});
    const KovaRelativeTime time = Relative(5);
    EXPECT_STREQ("", time.CTime());
    EXPECT_EQ(5, Value(time));
}

TEST_F(RelativeTime, TextIsEmptyWhenTheSystemHasNone) {
    fake::Script script(g_CtimeR, {FailsHalfWay});
    EXPECT_STREQ("", Relative(5).CTime());
}

TEST_F(RelativeTime, ConversionCarriesNoUnset) {
    EXPECT_TRUE(KovaRealTime(Relative(-1)).IsValid());
    EXPECT_TRUE(KovaRelativeTime(KovaRealTime(-1)).IsValid());
    EXPECT_TRUE(KovaRelativeTime(-1).IsValid()) << "a wall-clock second before 1970";
}

// --- 32 bits on every host ---

#if __SIZEOF_LONG__ > 4
constexpr long kBeyond = 0x1'8000'0001;   ///< kMin + 1 in 32 bits
constexpr long kAllOnes = 0x0'FFFF'FFFF;  ///< -1 in 32 bits

TEST_F(TimeValue, IsCutTo32BitsByEveryConstructor) {
    EXPECT_EQ(kMin + 1, Value(PlainTime(kBeyond)));
    EXPECT_EQ(kMin + 1, Value(KovaRealTime(kBeyond)));
    EXPECT_EQ(kMin + 1, Value(Relative(kBeyond)));
    EXPECT_EQ(RelativeOf(kMin + 1), Value(KovaRelativeTime(kBeyond)));
    EXPECT_EQ(5, Value(KovaRealTime(5 - 0x7'0000'0000)));

    fake::Always time(fake::time, fake::Return(kBeyond));
    EXPECT_EQ(kMin + 1, Value(PlainTime()));
    EXPECT_EQ(kMin + 1, Value(KovaRealTime()));
}

TEST_F(TimeValue, WhoseLow32BitsAreAllOnesIsUnset) {
    EXPECT_FALSE(PlainTime(kAllOnes).IsValid());
    EXPECT_FALSE(KovaRealTime(kAllOnes).IsValid());
    EXPECT_FALSE(Relative(kAllOnes).IsValid());
    EXPECT_TRUE(KovaRealTime(kAllOnes) == KovaRealTime(-1));
    EXPECT_STREQ(kUnsetText, KovaRealTime(kAllOnes));
    EXPECT_STREQ(kUnsetText, Relative(kAllOnes));
}

TEST_F(TimeValue, IsCutTo32BitsWhenNumbersBeyondAreAdded) {
    for (const long beyond :
         {kBeyond, kAllOnes, -kBeyond, std::numeric_limits<long>::max(), std::numeric_limits<long>::min()}) {
        for (const int32_t a : kEdges) {
            SCOPED_TRACE(std::to_string(a) + " " + std::to_string(beyond));
            const uint64_t sum = static_cast<uint64_t>(a) + static_cast<uint64_t>(beyond);
            const uint64_t difference = static_cast<uint64_t>(a) - static_cast<uint64_t>(beyond);
            EXPECT_EQ(static_cast<int32_t>(sum), Value(KovaRealTime(a) + beyond));
            EXPECT_EQ(static_cast<int32_t>(difference), Value(KovaRealTime(a) - beyond));
            EXPECT_EQ(static_cast<int32_t>(sum), Value(Relative(a) + beyond));
            EXPECT_EQ(static_cast<int32_t>(difference), Value(Relative(a) - beyond));
            KovaRealTime real(a);
            KovaRelativeTime relative(a, true);
            EXPECT_EQ(static_cast<int32_t>(sum), Value(real += beyond));
            EXPECT_EQ(static_cast<int32_t>(sum), Value(relative += beyond));
            real = KovaRealTime(a);
            relative = Relative(a);
            EXPECT_EQ(static_cast<int32_t>(difference), Value(real -= beyond));
            EXPECT_EQ(static_cast<int32_t>(difference), Value(relative -= beyond));
        }
    }
}
#endif

}  // namespace
