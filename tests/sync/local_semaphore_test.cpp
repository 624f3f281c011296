#include "support/own_machine.h"
#include "support/signal_storm.h"
#include "sync/locks.h"

#include <kova/local_semaphore.h>

#include <dlfcn.h>
#include <pthread.h>
#include <sched.h>
#include <time.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

constexpr const char* kCreateFailed = "create semaphore=%p errno=%d";
constexpr const char* kDelete = "delete semaphore=%p";
constexpr const char* kDeleteFailed = "delete semaphore=%p result=%d errno=%d";
constexpr const char* kDeleted = "deleted semaphore=%p";
constexpr const char* kPostFailed = "post semaphore=%p result=%d errno=%d";
constexpr const char* kWaitFailed = "wait semaphore=%p error=%d errno=%d";
constexpr const char* kTimeWaitFailed = "time wait semaphore=%p error=%d errno=%d";
constexpr const char* kCreated = "create semaphore=%p";
constexpr const char* kPost = "post semaphore=%p";
constexpr const char* kWait = "wait semaphore=%p";
constexpr const char* kWaited = "waited semaphore=%p";
constexpr const char* kTryWait = "try wait semaphore=%p result=%d";
constexpr const char* kTimeWait = "time wait semaphore=%p ms=%d";
constexpr const char* kTimeWaited = "time waited semaphore=%p result=%d";

constexpr int kMax = std::numeric_limits<int32_t>::max();
constexpr int kMin = std::numeric_limits<int32_t>::min();
/// An errno that no call here leaves.
constexpr int kStale = ENOTTY;

using Texts = std::vector<std::string>;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

static_assert(std::is_same_v<pthread_mutex_t, decltype(sKovaLocalSemaphore::mutex)>);
static_assert(std::is_same_v<pthread_cond_t, decltype(sKovaLocalSemaphore::condition)>);
static_assert(std::is_same_v<int32_t, decltype(sKovaLocalSemaphore::count)::value_type>);
static_assert(sizeof(sKovaLocalSemaphore::count) == 4);
static_assert(CLOCK_MONOTONIC == 1);
static_assert(std::is_base_of_v<KovaBaseObject, KovaLocalSemaphore>);
static_assert(!std::is_copy_constructible_v<KovaLocalSemaphore>);
static_assert(!std::is_copy_assignable_v<KovaLocalSemaphore>);
static_assert(std::has_virtual_destructor_v<KovaLocalSemaphore>);

// --- The functions ---

class SemaphoreFunctions : public KovaTest {
  protected:
    SemaphoreFunctions() {
        EXPECT_EQ(1, KovaCreateLocalSemaphore(&m_Semaphore));
        m_Recorder.Clear();
    }
    ~SemaphoreFunctions() override { EXPECT_EQ(1, KovaDeleteLocalSemaphore(&m_Semaphore)); }

    int Count() {
        int count = -1;
        EXPECT_EQ(1, KovaQueryLocalSemaphore(&m_Semaphore, &count));
        return count;
    }

    sKovaLocalSemaphore m_Semaphore;
    TraceRecorder m_Recorder;
};

TEST_F(SemaphoreFunctions, AreExportedUnderPlainNames) {
    for (const char* name :
         {"KovaCreateLocalSemaphore", "KovaDeleteLocalSemaphore", "KovaPostLocalSemaphore",
          "KovaWaitLocalSemaphore", "KovaTryWaitLocalSemaphore", "KovaTimeWaitLocalSemaphore",
          "KovaQueryLocalSemaphore", "KovaResetLocalSemaphore"}) {
        EXPECT_NE(nullptr, ::dlsym(RTLD_DEFAULT, name)) << name;
    }
}

TEST_F(SemaphoreFunctions, WorkOnARecordOfMutexConditionAndCount) {
    const auto* const begin = reinterpret_cast<const char*>(&m_Semaphore);
    const auto* const mutex = reinterpret_cast<const char*>(&m_Semaphore.mutex);
    const auto* const condition = reinterpret_cast<const char*>(&m_Semaphore.condition);
    const auto* const count = reinterpret_cast<const char*>(&m_Semaphore.count);
    EXPECT_EQ(begin, mutex);
    EXPECT_LT(mutex, condition);
    EXPECT_LT(condition, count);
}

TEST_F(SemaphoreFunctions, CreateMakesAnErrorCheckingMutexAndAMonotonicCondition) {
    sKovaLocalSemaphore semaphore;
    semaphore.count = 7;
    {
        const fake::Journal journal({&fake::pthread_mutexattr_settype, &fake::pthread_mutex_init,
                                     &fake::pthread_condattr_setclock, &fake::pthread_cond_init},
                                    fake::kThisThread);
        EXPECT_EQ(1, KovaCreateLocalSemaphore(&semaphore));
        EXPECT_EQ((Texts{"pthread_mutexattr_settype PTHREAD_MUTEX_ERRORCHECK", "pthread_mutex_init",
                         "pthread_condattr_setclock CLOCK_MONOTONIC", "pthread_cond_init"}),
                  journal.Texts());
    }
    EXPECT_EQ(0, semaphore.count);
    ExpectRecords(m_Recorder, {});
    EXPECT_EQ(0, ::pthread_mutex_lock(&semaphore.mutex));
    EXPECT_EQ(EBUSY, ::pthread_mutex_trylock(&semaphore.mutex));
    EXPECT_EQ(0, ::pthread_mutex_unlock(&semaphore.mutex));
    EXPECT_EQ(1, KovaDeleteLocalSemaphore(&semaphore));
}

TEST_F(SemaphoreFunctions, CreateAndDeleteReleaseWhatTheyInitialise) {
    sKovaLocalSemaphore semaphore;
    const fake::Journal journal(
        {&fake::pthread_mutexattr_init, &fake::pthread_mutexattr_destroy, &fake::pthread_condattr_init,
         &fake::pthread_condattr_destroy, &fake::pthread_mutex_destroy, &fake::pthread_cond_destroy},
        fake::kThisThread);
    EXPECT_EQ(1, KovaCreateLocalSemaphore(&semaphore));
    for (const fake::AnyHook* const hook : std::initializer_list<const fake::AnyHook*>{
             &fake::pthread_mutexattr_init, &fake::pthread_mutexattr_destroy, &fake::pthread_condattr_init,
             &fake::pthread_condattr_destroy}) {
        EXPECT_EQ(1u, journal.Count(*hook)) << hook->Name();
    }
    EXPECT_EQ(0u, journal.Count(fake::pthread_mutex_destroy) + journal.Count(fake::pthread_cond_destroy));
    EXPECT_EQ(1, KovaDeleteLocalSemaphore(&semaphore));
    EXPECT_EQ(1u, journal.Count(fake::pthread_mutex_destroy));
    EXPECT_EQ(1u, journal.Count(fake::pthread_cond_destroy));
    EXPECT_LT(journal.Texts().size(), 7u);
}

TEST_F(SemaphoreFunctions, DeleteLeavesTwoRecords) {
    sKovaLocalSemaphore semaphore;
    ASSERT_EQ(1, KovaCreateLocalSemaphore(&semaphore));
    EXPECT_EQ(1, KovaDeleteLocalSemaphore(&semaphore));
    ExpectRecords(m_Recorder, {{kDelete, {&semaphore}}, {kDeleted, {&semaphore}}});
}

TEST_F(SemaphoreFunctions, CountUpAndDown) {
    EXPECT_EQ(0, Count());
    EXPECT_EQ(1, KovaPostLocalSemaphore(&m_Semaphore));
    EXPECT_EQ(1, KovaPostLocalSemaphore(&m_Semaphore));
    EXPECT_EQ(1, KovaPostLocalSemaphore(&m_Semaphore));
    EXPECT_EQ(3, Count());
    EXPECT_EQ(1, KovaWaitLocalSemaphore(&m_Semaphore));
    EXPECT_EQ(2, Count());
    EXPECT_EQ(1, KovaTryWaitLocalSemaphore(&m_Semaphore));
    EXPECT_EQ(1, Count());
    EXPECT_EQ(1, KovaTimeWaitLocalSemaphore(&m_Semaphore, 1000));
    EXPECT_EQ(0, Count());
    ExpectRecords(m_Recorder, {});
}

TEST_F(SemaphoreFunctions, ResetTakesTheCountToZero) {
    KovaPostLocalSemaphore(&m_Semaphore);
    KovaPostLocalSemaphore(&m_Semaphore);
    const fake::Journal journal({&fake::pthread_mutex_lock, &fake::pthread_mutex_unlock}, fake::kThisThread);
    EXPECT_EQ(1, KovaResetLocalSemaphore(&m_Semaphore));
    EXPECT_EQ((Texts{"pthread_mutex_lock", "pthread_mutex_unlock"}), journal.Texts());
    EXPECT_EQ(0, Count());
    EXPECT_EQ(1, KovaResetLocalSemaphore(&m_Semaphore));
    EXPECT_EQ(0, Count());
}

TEST_F(SemaphoreFunctions, QueryTakesNoLock) {
    m_Semaphore.count = 5;
    ASSERT_EQ(0, ::pthread_mutex_lock(&m_Semaphore.mutex));
    DeadlineThread([&] { EXPECT_EQ(5, Count()); }).Join();
    EXPECT_EQ(0, ::pthread_mutex_unlock(&m_Semaphore.mutex));
    const fake::Journal journal({&fake::pthread_mutex_lock, &fake::pthread_mutex_trylock}, fake::kThisThread);
    EXPECT_EQ(5, Count());
    EXPECT_EQ(Texts{}, journal.Texts());
}

TEST_F(SemaphoreFunctions, PostSaturatesAtTheHighestCount) {
    m_Semaphore.count = kMax - 1;
    EXPECT_EQ(1, KovaPostLocalSemaphore(&m_Semaphore));
    EXPECT_EQ(kMax, Count());
    fake::Counter signals(fake::pthread_cond_signal);
    Only(signals, &m_Semaphore.condition);
    EXPECT_EQ(1, KovaPostLocalSemaphore(&m_Semaphore));
    EXPECT_EQ(kMax, Count());
    EXPECT_EQ(1u, signals.Calls());
    EXPECT_EQ(1, KovaWaitLocalSemaphore(&m_Semaphore));
    EXPECT_EQ(kMax - 1, Count());
}

TEST_F(SemaphoreFunctions, PostSignalsOnceUnderTheMutex) {
    const fake::Journal journal(
        {&fake::pthread_mutex_lock, &fake::pthread_cond_signal, &fake::pthread_mutex_unlock},
        fake::kThisThread);
    EXPECT_EQ(1, KovaPostLocalSemaphore(&m_Semaphore));
    EXPECT_EQ((Texts{"pthread_mutex_lock", "pthread_cond_signal", "pthread_mutex_unlock"}), journal.Texts());
}

TEST_F(SemaphoreFunctions, PostCountsBeforeItSignals) {
    int count = -1;
    fake::Script signals(fake::pthread_cond_signal, {[&](pthread_cond_t*) {
                             count = m_Semaphore.count;
                             return 0;
                         }});
    Only(signals, &m_Semaphore.condition);
    EXPECT_EQ(1, KovaPostLocalSemaphore(&m_Semaphore));
    EXPECT_EQ(1, count);
}

TEST_F(SemaphoreFunctions, WaitsTakeAUnitThatIsThereWithoutWaiting) {
    m_Semaphore.count = 2;
    const fake::Journal journal({&fake::pthread_mutex_lock, &fake::pthread_mutex_unlock,
                                 &fake::pthread_cond_wait, &fake::pthread_cond_timedwait},
                                fake::kThisThread);
    EXPECT_EQ(1, KovaWaitLocalSemaphore(&m_Semaphore));
    EXPECT_EQ(1, KovaTimeWaitLocalSemaphore(&m_Semaphore, 0));
    EXPECT_EQ(0, Count());
    EXPECT_EQ(
        (Texts{"pthread_mutex_lock", "pthread_mutex_unlock", "pthread_mutex_lock", "pthread_mutex_unlock"}),
        journal.Texts());
}

TEST_F(SemaphoreFunctions, TryWaitOfAnEmptySemaphoreLeavesEagain) {
    errno = 0;
    EXPECT_EQ(0, KovaTryWaitLocalSemaphore(&m_Semaphore));
    EXPECT_EQ(EAGAIN, errno);
    EXPECT_EQ(0, Count());
    ExpectRecords(m_Recorder, {});
}

TEST_F(SemaphoreFunctions, TryWaitTakesNothingFromACountBelowZero) {
    m_Semaphore.count = -1;
    EXPECT_EQ(0, KovaTryWaitLocalSemaphore(&m_Semaphore));
    EXPECT_EQ(EAGAIN, errno);
    EXPECT_EQ(-1, Count());
}

TEST_F(SemaphoreFunctions, TryWaitCountsUnderTheMutex) {
    const fake::Journal journal({&fake::pthread_mutex_lock, &fake::pthread_mutex_unlock}, fake::kThisThread);
    KovaTryWaitLocalSemaphore(&m_Semaphore);
    EXPECT_EQ((Texts{"pthread_mutex_lock", "pthread_mutex_unlock"}), journal.Texts());
}

TEST_F(SemaphoreFunctions, WaitGoesOnWaitingAfterSpuriousWakeUps) {
    fake::Script waits(fake::pthread_cond_wait,
                       {fake::Return(0), fake::Return(0), [&](pthread_cond_t*, pthread_mutex_t* mutex) {
                            EXPECT_EQ(&m_Semaphore.mutex, mutex);
                            m_Semaphore.count = 1;
                            return 0;
                        }});
    Only(waits, &m_Semaphore.condition);
    EXPECT_EQ(1, KovaWaitLocalSemaphore(&m_Semaphore));
    EXPECT_EQ(3u, waits.Calls());
    EXPECT_EQ(0, Count());
}

TEST_F(SemaphoreFunctions, WaitEndsWithAPost) {
    std::atomic<bool> taken = false;
    fake::Counter waits(fake::pthread_cond_wait);
    Only(waits, &m_Semaphore.condition);
    DeadlineThread waiter([&] {
        EXPECT_EQ(1, KovaWaitLocalSemaphore(&m_Semaphore));
        taken = true;
    });
    EXPECT_TRUE(WaitUntil([&] { return waits.Calls() != 0; }));
    EXPECT_FALSE(taken);
    EXPECT_EQ(1, KovaPostLocalSemaphore(&m_Semaphore));
    waiter.Join();
    EXPECT_EQ(0, Count());
}

TEST_F(SemaphoreFunctions, EachPostLetsOneWaiterGo) {
    constexpr int kWaiters = 5;
    std::atomic<int> gone = 0;
    fake::Counter waits(fake::pthread_cond_wait);
    Only(waits, &m_Semaphore.condition);
    std::vector<std::unique_ptr<DeadlineThread>> waiters;
    for (int i = 0; i < kWaiters; ++i) {
        waiters.push_back(std::make_unique<DeadlineThread>([&] {
            EXPECT_EQ(1, KovaWaitLocalSemaphore(&m_Semaphore));
            ++gone;
        }));
    }
    EXPECT_TRUE(WaitUntil([&] { return waits.Calls() >= kWaiters; }));
    for (int posts = 1; posts <= kWaiters; ++posts) {
        EXPECT_EQ(posts - 1, gone);
        EXPECT_EQ(1, KovaPostLocalSemaphore(&m_Semaphore));
        EXPECT_TRUE(WaitUntil([&] { return gone == posts; }));
        EXPECT_EQ(0, Count());
    }
}

TEST_F(SemaphoreFunctions, UnitsOfManyThreadsAddUp) {
    constexpr int kRounds = 600;
    std::atomic<int> taken = 0;
    {
        std::vector<std::unique_ptr<DeadlineThread>> threads;
        for (int i = 0; i < 3; ++i) {
            threads.push_back(std::make_unique<DeadlineThread>([&] {
                for (int round = 0; round < kRounds; ++round) KovaPostLocalSemaphore(&m_Semaphore);
            }));
        }
        threads.push_back(std::make_unique<DeadlineThread>([&] {
            for (int round = 0; round < kRounds; ++round) taken += KovaWaitLocalSemaphore(&m_Semaphore);
        }));
        threads.push_back(std::make_unique<DeadlineThread>([&] {
            for (int got = 0; got < kRounds;) {
                const int result = KovaTimeWaitLocalSemaphore(&m_Semaphore, 1);
                got += result;
                taken += result;
            }
        }));
        threads.push_back(std::make_unique<DeadlineThread>([&] {
            for (int got = 0; got < kRounds / 2;) {
                const int result = KovaTryWaitLocalSemaphore(&m_Semaphore);
                if (result == 0) ::sched_yield();
                got += result;
                taken += result;
            }
        }));
    }
    EXPECT_EQ(2 * kRounds + kRounds / 2, taken);
    EXPECT_EQ(kRounds / 2, Count());
}

TEST_F(SemaphoreFunctions, PostPublishesWhatWasWrittenBeforeIt) {
    int plain = 0;
    DeadlineThread reader([&] {
        EXPECT_EQ(1, KovaWaitLocalSemaphore(&m_Semaphore));
        EXPECT_EQ(42, plain);
    });
    plain = 42;
    EXPECT_EQ(1, KovaPostLocalSemaphore(&m_Semaphore));
}

TEST_F(SemaphoreFunctions, SignalsDoNotEndAWait) {
    std::atomic<bool> taken = false;
    DeadlineThread waiter([&] {
        EXPECT_EQ(1, KovaWaitLocalSemaphore(&m_Semaphore));
        taken = true;
    });
    {
        const SignalStorm storm({waiter.Handle()});
        EXPECT_TRUE(WaitUntil([] { return SignalStorm::Caught() > 20; }));
        EXPECT_FALSE(taken);
    }
    EXPECT_EQ(1, KovaPostLocalSemaphore(&m_Semaphore));
}

// --- The time limit ---

class SemaphoreTimeLimit : public SemaphoreFunctions {
  protected:
    static constexpr int64_t kSecond = 1000000000;

    /// The deadline that a wait of `ms` milliseconds has when the clock reads {seconds, nanoseconds}.
    timespec DeadlineOf(int ms, time_t seconds, long nanoseconds) {
        timespec deadline{-1, -1};
        const fake::Replace clock(
            fake::clock_gettime,
            [&](clockid_t id, timespec* now) {
                EXPECT_EQ(CLOCK_MONOTONIC, id);
                *now = {seconds, nanoseconds};
                return 0;
            },
            fake::kThisThread);
        fake::Script waits(fake::pthread_cond_timedwait,
                           {[&](pthread_cond_t*, pthread_mutex_t* mutex, const timespec* given) {
                               EXPECT_EQ(&m_Semaphore.mutex, mutex);
                               deadline = *given;
                               return ETIMEDOUT;
                           }});
        Only(waits, &m_Semaphore.condition);
        EXPECT_EQ(0, KovaTimeWaitLocalSemaphore(&m_Semaphore, ms));
        EXPECT_EQ(ETIMEDOUT, errno);
        return deadline;
    }
};

TEST_F(SemaphoreTimeLimit, HasFullNanosecondsOnTheMonotonicClock) {
    const std::vector<std::pair<time_t, long>> clocks{{0, 0}, {5, 999999999},      {5, 999000000},
                                                      {5, 1}, {123456, 123456789}, {4000000, 500000000}};
    for (const auto& [seconds, nanoseconds] : clocks) {
        for (const int ms : {0, 1, 2, 499, 500, 501, 999, 1000, 1001, 1500, 60000, kMax - 1, kMax}) {
            SCOPED_TRACE(testing::Message() << seconds << "." << nanoseconds << " + " << ms);
            const int64_t wanted = seconds * kSecond + nanoseconds + ms * int64_t{1000000};
            const timespec deadline = DeadlineOf(ms, seconds, nanoseconds);
            EXPECT_EQ(wanted / kSecond, deadline.tv_sec);
            EXPECT_EQ(wanted % kSecond, deadline.tv_nsec);
        }
    }
    ExpectRecords(m_Recorder, {});
}

TEST_F(SemaphoreTimeLimit, CarriesOnlyAboveTheLastNanosecond) {
    timespec deadline = DeadlineOf(1, 5, 998999999);
    EXPECT_EQ(5, deadline.tv_sec);
    EXPECT_EQ(999999999, deadline.tv_nsec);
    deadline = DeadlineOf(1, 5, 999000000);
    EXPECT_EQ(6, deadline.tv_sec);
    EXPECT_EQ(0, deadline.tv_nsec);
}

TEST_F(SemaphoreTimeLimit, BelowZeroIsAMomentInThePast) {
    for (const int ms : {-1, -999, -1000, -1001, -1500, kMin + 1, kMin}) {
        for (const long nanoseconds : {0L, 1L, 500000000L, 999999999L}) {
            SCOPED_TRACE(testing::Message() << nanoseconds << " " << ms);
            constexpr time_t kSeconds = 3000000;
            const int64_t wanted = int64_t{kSeconds} * kSecond + nanoseconds + ms * int64_t{1000000};
            const timespec deadline = DeadlineOf(ms, kSeconds, nanoseconds);
            EXPECT_EQ(wanted / kSecond, deadline.tv_sec);
            EXPECT_EQ(wanted % kSecond, deadline.tv_nsec);
        }
    }
}

TEST_F(SemaphoreTimeLimit, OfZeroAndBelowDoesNotWait) {
    for (const int ms : {0, -1, -1000, kMin}) {
        errno = 0;
        EXPECT_EQ(0, KovaTimeWaitLocalSemaphore(&m_Semaphore, ms));
        EXPECT_EQ(ETIMEDOUT, errno);
        m_Semaphore.count = 1;
        EXPECT_EQ(1, KovaTimeWaitLocalSemaphore(&m_Semaphore, ms));
        EXPECT_EQ(0, Count());
    }
    ExpectRecords(m_Recorder, {});
}

TEST_F(SemaphoreTimeLimit, IsReadBeforeTheMutexIsTaken) {
    const fake::Journal journal({&fake::clock_gettime, &fake::pthread_mutex_lock}, fake::kThisThread);
    EXPECT_EQ(0, KovaTimeWaitLocalSemaphore(&m_Semaphore, 0));
    const Texts texts = journal.Texts();
    ASSERT_LE(2u, texts.size());
    EXPECT_EQ("clock_gettime CLOCK_MONOTONIC", texts[0]);
    EXPECT_EQ("pthread_mutex_lock", texts[1]);
}

TEST_F(SemaphoreTimeLimit, StaysTheSameAfterSpuriousWakeUps) {
    std::vector<std::pair<time_t, long>> deadlines;
    const auto spurious = [&](pthread_cond_t*, pthread_mutex_t*, const timespec* deadline) {
        deadlines.emplace_back(deadline->tv_sec, deadline->tv_nsec);
        if (deadlines.size() == 3) m_Semaphore.count = 1;
        return 0;
    };
    fake::Script waits(fake::pthread_cond_timedwait, {spurious, spurious, spurious});
    Only(waits, &m_Semaphore.condition);
    EXPECT_EQ(1, KovaTimeWaitLocalSemaphore(&m_Semaphore, 60000));
    EXPECT_EQ(0, Count());
    ASSERT_EQ(3u, deadlines.size());
    EXPECT_EQ(deadlines[0], deadlines[1]);
    EXPECT_EQ(deadlines[0], deadlines[2]);
}

TEST_F(SemaphoreTimeLimit, ReachedWhileAPostArrivesLeavesTheUnit) {
    fake::Script waits(fake::pthread_cond_timedwait,
                       {[&](pthread_cond_t*, pthread_mutex_t*, const timespec*) {
                           m_Semaphore.count = 1;
                           return ETIMEDOUT;
                       }});
    Only(waits, &m_Semaphore.condition);
    EXPECT_EQ(0, KovaTimeWaitLocalSemaphore(&m_Semaphore, 60000));
    EXPECT_EQ(ETIMEDOUT, errno);
    EXPECT_EQ(1, Count());
}

TEST_F(SemaphoreTimeLimit, IsWaitedFor) {
    const auto begin = steady_clock::now();
    EXPECT_EQ(0, KovaTimeWaitLocalSemaphore(&m_Semaphore, 1500));
    EXPECT_EQ(ETIMEDOUT, errno);
    EXPECT_GE(steady_clock::now() - begin, milliseconds(1500));
    EXPECT_EQ(0, Count());
    ExpectRecords(m_Recorder, {});
}

TEST_F(SemaphoreTimeLimit, IsWaitedForUnderSignals) {
    const auto begin = steady_clock::now();
    DeadlineThread waiter([&] { EXPECT_EQ(0, KovaTimeWaitLocalSemaphore(&m_Semaphore, 100)); });
    const SignalStorm storm({waiter.Handle()});
    EXPECT_TRUE(WaitUntil([&] { return waiter.HasEnded(); }));
    EXPECT_GE(steady_clock::now() - begin, milliseconds(100));
}

TEST_F(SemaphoreTimeLimit, EndsWithAPost) {
    fake::Counter waits(fake::pthread_cond_timedwait);
    Only(waits, &m_Semaphore.condition);
    DeadlineThread waiter([&] { EXPECT_EQ(1, KovaTimeWaitLocalSemaphore(&m_Semaphore, kMax)); });
    EXPECT_TRUE(WaitUntil([&] { return waits.Calls() != 0; }));
    EXPECT_FALSE(waiter.HasEnded());
    EXPECT_EQ(1, KovaPostLocalSemaphore(&m_Semaphore));
    waiter.Join();
    EXPECT_EQ(0, Count());
}

TEST_F(SemaphoreTimeLimit, IsNotMovedByTheWallClock) {
    KOVA_NEEDS_OWN_MACHINE("sets the wall clock");
    constexpr int kWaitMs = 200;
    constexpr time_t kDay = 86400;
    for (const time_t jump : {kDay, -kDay}) {
        SCOPED_TRACE(jump);
        WallClockShift shift;
        fake::Counter waits(fake::pthread_cond_timedwait);
        Only(waits, &m_Semaphore.condition);
        const auto begin = steady_clock::now();
        DeadlineThread waiter([&] { EXPECT_EQ(0, KovaTimeWaitLocalSemaphore(&m_Semaphore, kWaitMs)); });
        EXPECT_TRUE(WaitUntil([&] { return waits.Calls() != 0; }));
        shift.By(jump);
        waiter.Join();
        EXPECT_GE(steady_clock::now() - begin, milliseconds(kWaitMs));
    }
}

// --- Failures ---

class SemaphoreFailure : public SemaphoreFunctions {};

TEST_F(SemaphoreFailure, OfEachStepOfTheCreationEndsTheProcess) {
    sKovaLocalSemaphore semaphore;
    const Records wanted{{kCreateFailed, {&semaphore, EIO}}};
    const auto create = [&] { KovaCreateLocalSemaphore(&semaphore); };
    ExpectAbend(
        [&] {
            const fake::Always fails(fake::pthread_mutexattr_init,
                                     ReallyBut(fake::pthread_mutexattr_init, -1, EIO), fake::kThisThread);
            create();
        },
        wanted);
    ExpectAbend(
        [&] {
            const fake::Always fails(fake::pthread_mutexattr_settype, fake::Fail(EIO), fake::kThisThread);
            create();
        },
        wanted);
    ExpectAbend(
        [&] {
            const fake::Always fails(fake::pthread_mutex_init, ReallyBut(fake::pthread_mutex_init, -1, EIO),
                                     fake::kThisThread);
            create();
        },
        wanted);
    ExpectAbend(
        [&] {
            const fake::Always fails(fake::pthread_condattr_init,
                                     ReallyBut(fake::pthread_condattr_init, -1, EIO), fake::kThisThread);
            create();
        },
        wanted);
    ExpectAbend(
        [&] {
            const fake::Always fails(fake::pthread_condattr_setclock, fake::Fail(EIO), fake::kThisThread);
            create();
        },
        wanted);
    ExpectAbend(
        [&] {
            const fake::Always fails(fake::pthread_cond_init, ReallyBut(fake::pthread_cond_init, -1, EIO),
                                     fake::kThisThread);
            create();
        },
        wanted);
}

TEST_F(SemaphoreFailure, OfTheCreationIsOnlyAResultOfMinusOne) {
    const fake::Always a(fake::pthread_mutexattr_init, ReallyBut(fake::pthread_mutexattr_init, ENOMEM),
                         fake::kThisThread);
    const fake::Always b(fake::pthread_mutexattr_settype, ReallyBut(fake::pthread_mutexattr_settype, EINVAL),
                         fake::kThisThread);
    const fake::Always c(fake::pthread_mutex_init, ReallyBut(fake::pthread_mutex_init, EAGAIN),
                         fake::kThisThread);
    const fake::Always d(fake::pthread_condattr_init, ReallyBut(fake::pthread_condattr_init, ENOMEM),
                         fake::kThisThread);
    const fake::Always e(fake::pthread_condattr_setclock, ReallyBut(fake::pthread_condattr_setclock, EINVAL),
                         fake::kThisThread);
    const fake::Always f(fake::pthread_cond_init, ReallyBut(fake::pthread_cond_init, EAGAIN),
                         fake::kThisThread);
    sKovaLocalSemaphore semaphore;
    EXPECT_EQ(1, KovaCreateLocalSemaphore(&semaphore));
    EXPECT_EQ(6u, a.Calls() + b.Calls() + c.Calls() + d.Calls() + e.Calls() + f.Calls());
    ExpectRecords(m_Recorder, {});
    EXPECT_EQ(1, KovaDeleteLocalSemaphore(&semaphore));
}

TEST_F(SemaphoreFailure, OfTheDeletionEndsTheProcess) {
    ExpectAbend(
        [&] {
            fake::Always fails(fake::pthread_cond_destroy, fake::Fail(EIO));
            Only(fails, &m_Semaphore.condition);
            KovaDeleteLocalSemaphore(&m_Semaphore);
        },
        {{kDelete, {&m_Semaphore}}, {kDeleteFailed, {&m_Semaphore, -1, EIO}}});
}

TEST_F(SemaphoreFailure, OfTheDeletionIsOnlyAResultOfMinusOneOfTheCondition) {
    sKovaLocalSemaphore semaphore;
    ASSERT_EQ(1, KovaCreateLocalSemaphore(&semaphore));
    fake::Script mutex(fake::pthread_mutex_destroy, {ReallyBut(fake::pthread_mutex_destroy, -1, EIO)});
    fake::Script condition(fake::pthread_cond_destroy, {ReallyBut(fake::pthread_cond_destroy, EBUSY)});
    Only(mutex, &semaphore.mutex);
    Only(condition, &semaphore.condition);
    EXPECT_EQ(1, KovaDeleteLocalSemaphore(&semaphore));
    ExpectRecords(m_Recorder, {{kDelete, {&semaphore}}, {kDeleted, {&semaphore}}});
}

TEST_F(SemaphoreFailure, OfAPostEndsTheProcess) {
    ExpectAbend(
        [&] {
            fake::Always fails(fake::pthread_cond_signal, fake::Fail(EIO));
            Only(fails, &m_Semaphore.condition);
            KovaPostLocalSemaphore(&m_Semaphore);
        },
        {{kPostFailed, {&m_Semaphore, -1, EIO}}});
}

TEST_F(SemaphoreFailure, OfAPostIsOnlyAResultOfMinusOne) {
    fake::Script signals(fake::pthread_cond_signal, {fake::Return(EINVAL)});
    Only(signals, &m_Semaphore.condition);
    EXPECT_EQ(1, KovaPostLocalSemaphore(&m_Semaphore));
    EXPECT_EQ(1, Count());
    ExpectRecords(m_Recorder, {});
}

TEST_F(SemaphoreFailure, OfAWaitEndsTheProcess) {
    for (const int error : {EPERM, EINTR, ETIMEDOUT, -1}) {
        SCOPED_TRACE(error);
        ExpectAbend(
            [&] {
                fake::Always fails(fake::pthread_cond_wait, fake::Return(error));
                Only(fails, &m_Semaphore.condition);
                errno = kStale;
                KovaWaitLocalSemaphore(&m_Semaphore);
            },
            {{kWaitFailed, {&m_Semaphore, error, kStale}}});
    }
}

TEST_F(SemaphoreFailure, OfATimedWaitEndsTheProcess) {
    for (const int error : {EPERM, EINTR, EINVAL, -1}) {
        SCOPED_TRACE(error);
        ExpectAbend(
            [&] {
                fake::Always fails(fake::pthread_cond_timedwait, fake::Return(error));
                Only(fails, &m_Semaphore.condition);
                errno = kStale;
                KovaTimeWaitLocalSemaphore(&m_Semaphore, 1000);
            },
            {{kTimeWaitFailed, {&m_Semaphore, error, error}}});
    }
}

TEST_F(SemaphoreFailure, IsReturnedByAThreadThatIsAborting) {
    WhileAborting([&] {
        sKovaLocalSemaphore* const semaphore = &m_Semaphore;
        TraceRecorder recorder;
        {
            sKovaLocalSemaphore other;
            fake::Script fails(fake::pthread_cond_init, {fake::Fail(EIO)});
            Only(fails, &other.condition);
            EXPECT_EQ(0, KovaCreateLocalSemaphore(&other));
            EXPECT_EQ(EIO, errno);
            ExpectRecords(recorder, {{kCreateFailed, {&other, EIO}}, AbendAgain()});
        }
        recorder.Clear();
        {
            fake::Script fails(fake::pthread_cond_signal, {fake::Fail(EIO)});
            Only(fails, &semaphore->condition);
            EXPECT_EQ(0, KovaPostLocalSemaphore(semaphore));
            EXPECT_EQ(EIO, errno);
            EXPECT_EQ(1, Count()) << "counted before the signal failed";
            ExpectRecords(recorder, {{kPostFailed, {semaphore, -1, EIO}}, AbendAgain()});
        }
        KovaResetLocalSemaphore(semaphore);
        recorder.Clear();
        {
            fake::Script fails(fake::pthread_cond_wait, {fake::Return(EPERM)});
            Only(fails, &semaphore->condition);
            errno = kStale;
            EXPECT_EQ(0, KovaWaitLocalSemaphore(semaphore));
            EXPECT_EQ(kStale, errno) << "the error is not made the errno";
            ExpectRecords(recorder, {{kWaitFailed, {semaphore, EPERM, kStale}}, AbendAgain()});
        }
        recorder.Clear();
        {
            fake::Script fails(fake::pthread_cond_timedwait, {fake::Return(EPERM)});
            Only(fails, &semaphore->condition);
            EXPECT_EQ(0, KovaTimeWaitLocalSemaphore(semaphore, 1000));
            EXPECT_EQ(EPERM, errno);
            ExpectRecords(recorder, {{kTimeWaitFailed, {semaphore, EPERM, EPERM}}, AbendAgain()});
        }
        EXPECT_EQ(0, Count());
        recorder.Clear();
        {
            fake::Script fails(fake::pthread_cond_destroy, {fake::Fail(EIO)});
            Only(fails, &semaphore->condition);
            EXPECT_EQ(0, KovaDeleteLocalSemaphore(semaphore));
            EXPECT_EQ(EIO, errno);
            ExpectRecords(recorder,
                          {{kDelete, {semaphore}}, {kDeleteFailed, {semaphore, -1, EIO}}, AbendAgain()});
        }
    });
}

TEST_F(SemaphoreFailure, LeavesTheMutexFree) {
    WhileAborting([&] {
        fake::Script signals(fake::pthread_cond_signal, {fake::Fail(EIO)});
        fake::Script waits(fake::pthread_cond_wait, {fake::Return(EPERM)});
        fake::Script timed_waits(fake::pthread_cond_timedwait, {fake::Return(EPERM)});
        Only(signals, &m_Semaphore.condition);
        Only(waits, &m_Semaphore.condition);
        Only(timed_waits, &m_Semaphore.condition);
        const auto expect_free = [&] {
            EXPECT_EQ(0, ::pthread_mutex_trylock(&m_Semaphore.mutex));
            EXPECT_EQ(0, ::pthread_mutex_unlock(&m_Semaphore.mutex));
        };
        EXPECT_EQ(0, KovaPostLocalSemaphore(&m_Semaphore));
        expect_free();
        KovaResetLocalSemaphore(&m_Semaphore);
        EXPECT_EQ(0, KovaWaitLocalSemaphore(&m_Semaphore));
        expect_free();
        EXPECT_EQ(0, KovaTimeWaitLocalSemaphore(&m_Semaphore, 1000));
        expect_free();
    });
}

/// Whether the record of the failure was written before the mutex was freed.
bool TracedUnderTheMutex(sKovaLocalSemaphore& semaphore, const char* text,
                         const std::function<void()>& operation) {
    const TraceRecorder recorder;
    bool traced = false;
    fake::Script unlocks(fake::pthread_mutex_unlock, {[&](pthread_mutex_t* mutex) {
                             traced = recorder.Count(text) != 0;
                             return fake::pthread_mutex_unlock.Real(mutex);
                         }});
    Only(unlocks, &semaphore.mutex);
    operation();
    return traced;
}

TEST_F(SemaphoreFailure, IsTracedAfterTheMutexIsFreeExceptForATimedWait) {
    WhileAborting([&] {
        fake::Script signals(fake::pthread_cond_signal, {fake::Fail(EIO)});
        fake::Script waits(fake::pthread_cond_wait, {fake::Return(EPERM)});
        fake::Script timed_waits(fake::pthread_cond_timedwait, {fake::Return(EPERM)});
        Only(signals, &m_Semaphore.condition);
        Only(waits, &m_Semaphore.condition);
        Only(timed_waits, &m_Semaphore.condition);
        EXPECT_FALSE(TracedUnderTheMutex(m_Semaphore, kWaitFailed,
                                         [&] { EXPECT_EQ(0, KovaWaitLocalSemaphore(&m_Semaphore)); }));
        EXPECT_TRUE(TracedUnderTheMutex(m_Semaphore, kTimeWaitFailed, [&] {
            EXPECT_EQ(0, KovaTimeWaitLocalSemaphore(&m_Semaphore, 1000));
        }));
        EXPECT_FALSE(TracedUnderTheMutex(m_Semaphore, kPostFailed,
                                         [&] { EXPECT_EQ(0, KovaPostLocalSemaphore(&m_Semaphore)); }));
    });
}

// --- The class ---

class LocalSemaphore : public KovaTest {
  protected:
    LocalSemaphore()
        : m_Object(std::make_unique<KovaLocalSemaphore>()),
          m_Record(m_Object->GetHandle()),
          m_Condition(&m_Record->condition) {
        m_Recorder.Clear();
    }

    int Count() {
        int count = -1;
        EXPECT_TRUE(m_Object->Query(count));
        return count;
    }

    testing::AssertionResult HasError(int code, const char* function) const {
        if (m_Object->GetError() == code && m_Object->GetErrorLine() != 0 &&
            std::string(function) == m_Object->GetErrorFunction()) {
            return testing::AssertionSuccess();
        }
        return testing::AssertionFailure() << m_Object->GetError() << " in " << m_Object->GetErrorFunction()
                                           << ", line " << m_Object->GetErrorLine();
    }

    /// Leaves EAGAIN in the error record.
    void LeaveError() {
        ASSERT_EQ(0, Count());
        EXPECT_FALSE(m_Object->TryWait());
        EXPECT_EQ(EAGAIN, m_Object->GetError());
        m_Recorder.Clear();
    }

    TraceRecorder m_Recorder;
    std::unique_ptr<KovaLocalSemaphore> m_Object;
    sKovaLocalSemaphore* m_Record;
    pthread_cond_t* m_Condition;
};

TEST_F(LocalSemaphore, IsCreatedAndDeletedWithItsObject) {
    const TraceRecorder recorder;
    const void* record = nullptr;
    {
        KovaLocalSemaphore semaphore;
        record = semaphore.GetHandle();
        EXPECT_EQ(0, semaphore.GetError());
        EXPECT_EQ(nullptr, semaphore.GetErrorFunction());
        ExpectRecords(recorder, {{kCreated, {record}}});
        int count = -1;
        EXPECT_TRUE(semaphore.Query(count));
        EXPECT_EQ(0, count);
        EXPECT_EQ(1, semaphore.GetRefCounter());
    }
    ExpectRecords(recorder, {{kCreated, {record}}, {kDelete, {record}}, {kDeleted, {record}}});
}

TEST_F(LocalSemaphore, LeavesItsRecordsInOrder) {
    EXPECT_TRUE(m_Object->Post());
    ExpectRecords(m_Recorder, {{kPost, {m_Record}}});
    m_Recorder.Clear();
    EXPECT_TRUE(m_Object->Wait());
    ExpectRecords(m_Recorder, {{kWait, {m_Record}}, {kWaited, {m_Record}}});
    m_Recorder.Clear();
    EXPECT_FALSE(m_Object->TryWait());
    ExpectRecords(m_Recorder, {{kTryWait, {m_Record, 0}}});
    EXPECT_TRUE(m_Object->Post());
    m_Recorder.Clear();
    EXPECT_TRUE(m_Object->TryWait());
    ExpectRecords(m_Recorder, {{kTryWait, {m_Record, 1}}});
    m_Recorder.Clear();
    EXPECT_FALSE(m_Object->TimeWait(0));
    ExpectRecords(m_Recorder, {{kTimeWait, {m_Record, 0}}, {kTimeWaited, {m_Record, 0}}});
    EXPECT_TRUE(m_Object->Post());
    m_Recorder.Clear();
    EXPECT_TRUE(m_Object->TimeWait(-7));
    ExpectRecords(m_Recorder, {{kTimeWait, {m_Record, -7}}, {kTimeWaited, {m_Record, 1}}});
    m_Recorder.Clear();
    EXPECT_EQ(0, Count());
    EXPECT_TRUE(m_Object->Reset());
    ExpectRecords(m_Recorder, {});
    EXPECT_EQ(1, m_Object->GetRefCounter());
}

TEST_F(LocalSemaphore, LeavesNoRecordsWhenTracingIsOff) {
    m_Object->SetTrace(false);
    EXPECT_TRUE(m_Object->Post());
    EXPECT_TRUE(m_Object->Wait());
    EXPECT_FALSE(m_Object->TryWait());
    EXPECT_TRUE(HasError(EAGAIN, "bool KovaLocalSemaphore::TryWait()"));
    EXPECT_FALSE(m_Object->TimeWait(0));
    EXPECT_TRUE(HasError(ETIMEDOUT, "bool KovaLocalSemaphore::TimeWait(int)"));
    EXPECT_TRUE(m_Object->Reset());
    ExpectRecords(m_Recorder, {});
    m_Object->SetTrace(true);
    EXPECT_TRUE(m_Object->Post());
    ExpectRecords(m_Recorder, {{kPost, {m_Record}}});
}

TEST_F(LocalSemaphore, WaitIsTracedOnlyWhenItReturns) {
    fake::Counter waits(fake::pthread_cond_wait);
    Only(waits, m_Condition);
    DeadlineThread waiter([&] { EXPECT_TRUE(m_Object->Wait()); });
    EXPECT_TRUE(WaitUntil([&] { return waits.Calls() != 0; }));
    ExpectRecords(m_Recorder, {});
    EXPECT_EQ(1, KovaPostLocalSemaphore(m_Record));
    waiter.Join();
    ExpectRecords(m_Recorder, {{kWait, {m_Record}}, {kWaited, {m_Record}}});
}

TEST_F(LocalSemaphore, TimeWaitIsTracedBeforeItWaits) {
    fake::Counter waits(fake::pthread_cond_timedwait);
    Only(waits, m_Condition);
    DeadlineThread waiter([&] { EXPECT_TRUE(m_Object->TimeWait(kMax)); });
    EXPECT_TRUE(WaitUntil([&] { return waits.Calls() != 0; }));
    ExpectRecords(m_Recorder, {{kTimeWait, {m_Record, kMax}}});
    EXPECT_EQ(1, KovaPostLocalSemaphore(m_Record));
}

TEST_F(LocalSemaphore, EmptyOneFailsTryWaitWithEagain) {
    EXPECT_FALSE(m_Object->TryWait());
    EXPECT_EQ(EAGAIN, errno);
    EXPECT_TRUE(HasError(EAGAIN, "bool KovaLocalSemaphore::TryWait()"));
    EXPECT_EQ(0, Count());
}

TEST_F(LocalSemaphore, EmptyOneFailsTimeWaitAtOnceWithZero) {
    EXPECT_FALSE(m_Object->TimeWait(0));
    EXPECT_EQ(ETIMEDOUT, errno);
    EXPECT_TRUE(HasError(ETIMEDOUT, "bool KovaLocalSemaphore::TimeWait(int)"));
    EXPECT_EQ(0, Count());
}

TEST_F(LocalSemaphore, UnitIsTakenAtOnceWithZero) {
    EXPECT_TRUE(m_Object->Post());
    EXPECT_TRUE(m_Object->TimeWait(0));
    EXPECT_EQ(0, Count());
}

TEST_F(LocalSemaphore, TimeWaitLastsItsMilliseconds) {
    const auto begin = steady_clock::now();
    EXPECT_FALSE(m_Object->TimeWait(1500));
    EXPECT_GE(steady_clock::now() - begin, milliseconds(1500));
}

TEST_F(LocalSemaphore, PostAtTheHighestCountLeavesIt) {
    m_Record->count = kMax;
    EXPECT_TRUE(m_Object->Post());
    EXPECT_EQ(kMax, Count());
    EXPECT_EQ(0, m_Object->GetError());
}

TEST_F(LocalSemaphore, ResetEmptiesIt) {
    EXPECT_TRUE(m_Object->Post());
    EXPECT_TRUE(m_Object->Post());
    EXPECT_EQ(2, Count());
    EXPECT_TRUE(m_Object->Reset());
    EXPECT_EQ(0, Count());
}

TEST_F(LocalSemaphore, EachSuccessClearsTheCode) {
    const std::vector<std::function<bool()>> operations{
        [&] { return m_Object->Post(); },
        [&] { return KovaPostLocalSemaphore(m_Record) == 1 && m_Object->Wait(); },
        [&] { return KovaPostLocalSemaphore(m_Record) == 1 && m_Object->TryWait(); },
        [&] { return KovaPostLocalSemaphore(m_Record) == 1 && m_Object->TimeWait(0); },
        [&] { return m_Object->Reset(); },
        [&] {
            int count = -1;
            return m_Object->Query(count);
        }};
    for (size_t i = 0; i < operations.size(); ++i) {
        SCOPED_TRACE(i);
        LeaveError();
        EXPECT_TRUE(operations[i]());
        EXPECT_TRUE(HasError(0, "bool KovaLocalSemaphore::TryWait()")) << "the place stays";
        KovaResetLocalSemaphore(m_Record);
    }
}

TEST_F(LocalSemaphore, HandleIsForThePlainFunctions) {
    EXPECT_EQ(1, KovaPostLocalSemaphore(m_Object->GetHandle()));
    EXPECT_EQ(1, Count());
    EXPECT_TRUE(m_Object->Wait());
    EXPECT_EQ(0, KovaTryWaitLocalSemaphore(m_Object->GetHandle()));
}

TEST_F(LocalSemaphore, AllocatesNothing) {
    const NoAllocation none;
    int count = -1;
    EXPECT_TRUE(m_Object->Post());
    EXPECT_TRUE(m_Object->Wait());
    EXPECT_FALSE(m_Object->TryWait());
    EXPECT_FALSE(m_Object->TimeWait(0));
    EXPECT_TRUE(m_Object->Query(count));
    EXPECT_TRUE(m_Object->Reset());
    KovaLocalSemaphore semaphore;
}

class LocalSemaphoreFailure : public LocalSemaphore {};

TEST_F(LocalSemaphoreFailure, OfAPostEndsTheProcess) {
    ExpectAbend(
        [&] {
            fake::Always fails(fake::pthread_cond_signal, fake::Fail(EIO));
            Only(fails, m_Condition);
            m_Object->Post();
        },
        {{kPostFailed, {m_Record, -1, EIO}}});
}

TEST_F(LocalSemaphoreFailure, OfAWaitEndsTheProcess) {
    ExpectAbend(
        [&] {
            fake::Always fails(fake::pthread_cond_wait, fake::Return(EPERM));
            Only(fails, m_Condition);
            errno = 0;
            m_Object->Wait();
        },
        {{kWaitFailed, {m_Record, EPERM, 0}}});
}

TEST_F(LocalSemaphoreFailure, OfATimedWaitEndsTheProcess) {
    ExpectAbend(
        [&] {
            fake::Always fails(fake::pthread_cond_timedwait, fake::Return(EPERM));
            Only(fails, m_Condition);
            m_Object->TimeWait(5);
        },
        {{kTimeWait, {m_Record, 5}}, {kTimeWaitFailed, {m_Record, EPERM, EPERM}}});
}

TEST_F(LocalSemaphoreFailure, OfAPostIsRecordedOnAThreadThatIsAborting) {
    WhileAborting([&] {
        TraceRecorder recorder;
        fake::Script fails(fake::pthread_cond_signal, {fake::Fail(EIO), fake::Fail(ENXIO)});
        Only(fails, m_Condition);
        EXPECT_FALSE(m_Object->Post());
        EXPECT_TRUE(HasError(EIO, "bool KovaLocalSemaphore::Post()"));
        ExpectRecords(recorder, {{kPostFailed, {m_Record, -1, EIO}}, AbendAgain(), {kPost, {m_Record}}});
        recorder.Clear();
        m_Object->SetTrace(false);
        EXPECT_FALSE(m_Object->Post());
        EXPECT_TRUE(HasError(ENXIO, "bool KovaLocalSemaphore::Post()"));
        ExpectRecords(recorder, {{kPostFailed, {m_Record, -1, ENXIO}}, AbendAgain()});
    });
}

TEST_F(LocalSemaphoreFailure, OfAWaitIsRecordedOnAThreadThatIsAborting) {
    WhileAborting([&] {
        TraceRecorder recorder;
        fake::Script fails(fake::pthread_cond_wait, {fake::Return(EPERM), fake::Return(EPERM)});
        Only(fails, m_Condition);
        errno = kStale;
        EXPECT_FALSE(m_Object->Wait());
        EXPECT_TRUE(HasError(kStale, "bool KovaLocalSemaphore::Wait()")) << "errno, not the number";
        ExpectRecords(recorder, {{kWaitFailed, {m_Record, EPERM, kStale}},
                                 AbendAgain(),
                                 {kWait, {m_Record}},
                                 {kWaited, {m_Record}}});
        recorder.Clear();
        m_Object->SetTrace(false);
        errno = EIO;
        EXPECT_FALSE(m_Object->Wait());
        EXPECT_TRUE(HasError(EIO, "bool KovaLocalSemaphore::Wait()"));
        ExpectRecords(recorder, {{kWaitFailed, {m_Record, EPERM, EIO}}, AbendAgain()});
    });
}

TEST_F(LocalSemaphoreFailure, OfATimedWaitIsRecordedOnAThreadThatIsAborting) {
    WhileAborting([&] {
        TraceRecorder recorder;
        fake::Script fails(fake::pthread_cond_timedwait, {fake::Return(EPERM), fake::Return(EINVAL)});
        Only(fails, m_Condition);
        EXPECT_FALSE(m_Object->TimeWait(5));
        EXPECT_TRUE(HasError(EPERM, "bool KovaLocalSemaphore::TimeWait(int)"));
        ExpectRecords(recorder, {{kTimeWait, {m_Record, 5}},
                                 {kTimeWaitFailed, {m_Record, EPERM, EPERM}},
                                 AbendAgain(),
                                 {kTimeWaited, {m_Record, 0}}});
        recorder.Clear();
        m_Object->SetTrace(false);
        EXPECT_FALSE(m_Object->TimeWait(5));
        EXPECT_TRUE(HasError(EINVAL, "bool KovaLocalSemaphore::TimeWait(int)"));
        ExpectRecords(recorder, {{kTimeWaitFailed, {m_Record, EINVAL, EINVAL}}, AbendAgain()});
    });
}

TEST_F(LocalSemaphoreFailure, OfTheConstructorIsRecordedOnAThreadThatIsAborting) {
    WhileAborting([] {
        const TraceRecorder recorder;
        fake::Script fails(fake::pthread_cond_init, {ReallyBut(fake::pthread_cond_init, -1, EIO)},
                           fake::kThisThread);
        KovaLocalSemaphore semaphore;
        EXPECT_EQ(EIO, semaphore.GetError());
        EXPECT_STREQ("KovaLocalSemaphore::KovaLocalSemaphore()", semaphore.GetErrorFunction());
        EXPECT_NE(0, semaphore.GetErrorLine());
        ExpectRecords(recorder, {{kCreateFailed, {semaphore.GetHandle(), EIO}},
                                 AbendAgain(),
                                 {kCreated, {semaphore.GetHandle()}}});
    });
}

TEST_F(LocalSemaphoreFailure, OfTheDestructorIsRecordedInTheDyingObject) {
    WhileAborting([] {
        KeptError kept;
        { const Dying<KovaLocalSemaphore> dies(kept); }
        EXPECT_EQ(0, kept.code);
        fake::Script fails(fake::pthread_cond_destroy, {ReallyBut(fake::pthread_cond_destroy, -1, EIO)},
                           fake::kThisThread);
        { const Dying<KovaLocalSemaphore> dies(kept); }
        EXPECT_EQ(EIO, kept.code);
        EXPECT_EQ("virtual KovaLocalSemaphore::~KovaLocalSemaphore()", kept.function);
        EXPECT_NE(0, kept.line);
    });
}

}  // namespace
