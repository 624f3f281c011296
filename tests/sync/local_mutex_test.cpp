#include "sync/locks.h"

#include <kova/local_mutex.h>

#include <dlfcn.h>
#include <sched.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

constexpr const char* kCreated = "create mutex=%p";
constexpr const char* kCreateFailed = "create mutex result=%d errno=%d";
constexpr const char* kDeleted = "delete mutex=%p";
constexpr const char* kDeleteFailed = "delete mutex=%p result=%d errno=%d";
constexpr const char* kFailed = "mutex=%p result=%d errno=%d";
constexpr const char* kTrylockFailed = "trylock mutex=%p result=%d errno=%d";
constexpr const char* kLocked = "locked mutex=%p";
constexpr const char* kMustWait = "must wait for mutex=%p";
constexpr const char* kWaited = "waited for mutex=%p";
constexpr const char* kTrylock = "trylock mutex=%p";
constexpr const char* kUnlock = "unlock mutex=%p";

/// An errno that no pthread call returns.
constexpr int kStale = ENOTTY;

/// What the library's calls of pabend passed.
std::vector<std::array<uint32_t, 3>> g_AbendWords;

}  // namespace

void pabend(uint32_t a, uint32_t b, uint32_t c) {
    g_AbendWords.push_back({a, b, c});
    reinterpret_cast<void (*)(uint32_t, uint32_t, uint32_t)>(::dlsym(RTLD_NEXT, "pabend"))(a, b, c);
}

namespace {

/// Fails with errors of both kinds: what is returned, and what is left in errno.
auto FailsWith(int number, int error) {
    return [=](pthread_mutex_t*) {
        errno = error;
        return number;
    };
}

static_assert(std::is_same_v<KovaMutexT, pthread_mutex_t>);
static_assert(PTHREAD_MUTEX_ERRORCHECK == 2);
static_assert(std::is_base_of_v<KovaBaseObject, KovaLocalMutex>);
static_assert(!std::is_copy_constructible_v<KovaLocalMutex> && !std::is_copy_assignable_v<KovaLocalMutex>);
static_assert(std::has_virtual_destructor_v<KovaLocalMutex>);
static_assert(std::is_same_v<bool, decltype(std::declval<KovaLocalMutex&>().Lock())>);
static_assert(std::is_same_v<bool, decltype(std::declval<KovaLocalMutex&>().Trylock())>);
static_assert(std::is_same_v<bool, decltype(std::declval<KovaLocalMutex&>().Unlock())>);
static_assert(std::is_same_v<int, decltype(std::declval<KovaLocalMutex&>().GetRefCounter())>);

// --- The functions ---

class MutexFunctions : public KovaTest {
  protected:
    MutexFunctions() {
        EXPECT_EQ(1, KovaCreateMutex(&m_Mutex));
        m_Recorder.Clear();
    }
    ~MutexFunctions() override { EXPECT_EQ(1, KovaDeleteMutex(&m_Mutex)); }

    /// The pauses between repetitions, which take no time.
    size_t Pauses() const { return m_Sleeps.Calls(); }

    KovaMutexT m_Mutex;
    TraceRecorder m_Recorder;
    const fake::Always<int(const timespec*, timespec*)> m_Sleeps{fake::nanosleep, fake::Return(0),
                                                                 fake::kThisThread};
};

TEST_F(MutexFunctions, AreExportedUnderPlainNames) {
    for (const char* name :
         {"KovaCreateMutex", "KovaDeleteMutex", "KovaLockMutex", "KovaTrylockMutex", "KovaUnlockMutex"}) {
        EXPECT_NE(nullptr, ::dlsym(RTLD_DEFAULT, name)) << name;
    }
    static_assert(std::is_same_v<int (*)(KovaMutexT*), decltype(&KovaCreateMutex)>);
    static_assert(std::is_same_v<int (*)(KovaMutexT*), decltype(&KovaDeleteMutex)>);
    static_assert(std::is_same_v<int (*)(KovaMutexT*), decltype(&KovaLockMutex)>);
    static_assert(std::is_same_v<int (*)(KovaMutexT*), decltype(&KovaTrylockMutex)>);
    static_assert(std::is_same_v<int (*)(KovaMutexT*), decltype(&KovaUnlockMutex)>);
}

TEST_F(MutexFunctions, CreateMakesAnErrorCheckingMutex) {
    KovaMutexT mutex;
    errno = kStale;
    {
        const fake::Journal journal({&fake::pthread_mutexattr_init, &fake::pthread_mutexattr_settype,
                                     &fake::pthread_mutex_init, &fake::pthread_mutexattr_destroy},
                                    fake::kThisThread);
        EXPECT_EQ(1, KovaCreateMutex(&mutex));
        EXPECT_EQ((std::vector<std::string>{"pthread_mutexattr_init",
                                            "pthread_mutexattr_settype PTHREAD_MUTEX_ERRORCHECK",
                                            "pthread_mutex_init", "pthread_mutexattr_destroy"}),
                  journal.Texts());
    }
    EXPECT_EQ(0, errno) << "cleared at first";
    ExpectRecords(m_Recorder, {{kCreated, {&mutex}}});
    EXPECT_EQ(1, KovaDeleteMutex(&mutex));
}

TEST_F(MutexFunctions, DeleteDestroysTheMutex) {
    KovaMutexT mutex;
    ASSERT_EQ(1, KovaCreateMutex(&mutex));
    m_Recorder.Clear();
    errno = kStale;
    {
        fake::Counter destroys(fake::pthread_mutex_destroy);
        Only(destroys, &mutex);
        EXPECT_EQ(1, KovaDeleteMutex(&mutex));
        EXPECT_EQ(1u, destroys.Calls());
    }
    EXPECT_EQ(0, errno);
    ExpectRecords(m_Recorder, {{kDeleted, {&mutex}}});
}

TEST_F(MutexFunctions, LockAndTrylockClearErrnoAndLeaveNoRecord) {
    errno = kStale;
    EXPECT_EQ(1, KovaLockMutex(&m_Mutex));
    EXPECT_EQ(0, errno);
    EXPECT_EQ(1, KovaUnlockMutex(&m_Mutex));
    errno = kStale;
    EXPECT_EQ(1, KovaTrylockMutex(&m_Mutex));
    EXPECT_EQ(0, errno);
    EXPECT_EQ(1, KovaUnlockMutex(&m_Mutex));
    ExpectRecords(m_Recorder, {});
    EXPECT_EQ(0u, Pauses());
}

TEST_F(MutexFunctions, UnlockKeepsErrno) {
    ASSERT_EQ(1, KovaLockMutex(&m_Mutex));
    errno = kStale;
    EXPECT_EQ(1, KovaUnlockMutex(&m_Mutex));
    EXPECT_EQ(kStale, errno);
    ExpectRecords(m_Recorder, {});
}

TEST_F(MutexFunctions, LockAndUnlockTakeOneCallEach) {
    fake::Counter locks(fake::pthread_mutex_lock);
    fake::Counter trylocks(fake::pthread_mutex_trylock);
    fake::Counter unlocks(fake::pthread_mutex_unlock);
    Only(locks, &m_Mutex);
    Only(trylocks, &m_Mutex);
    Only(unlocks, &m_Mutex);
    EXPECT_EQ(1, KovaLockMutex(&m_Mutex));
    EXPECT_EQ(1, KovaUnlockMutex(&m_Mutex));
    EXPECT_EQ(1u, locks.Calls());
    EXPECT_EQ(0u, trylocks.Calls());
    EXPECT_EQ(1u, unlocks.Calls());
}

TEST_F(MutexFunctions, TrylockFindsTheMutexOfAnotherThreadBusy) {
    ASSERT_EQ(1, KovaLockMutex(&m_Mutex));
    DeadlineThread([&] {
        errno = kStale;
        EXPECT_EQ(0, KovaTrylockMutex(&m_Mutex));
        EXPECT_EQ(EBUSY, errno);
    }).Join();
    EXPECT_EQ(1, KovaUnlockMutex(&m_Mutex));
    ExpectRecords(m_Recorder, {});
}

TEST_F(MutexFunctions, TrylockFindsTheOwnMutexBusy) {
    ASSERT_EQ(1, KovaLockMutex(&m_Mutex));
    EXPECT_EQ(0, KovaTrylockMutex(&m_Mutex));
    EXPECT_EQ(EBUSY, errno);
    EXPECT_EQ(1, KovaUnlockMutex(&m_Mutex));
    ExpectRecords(m_Recorder, {});
}

TEST_F(MutexFunctions, TrylockKnowsThreeNumbersOfABusyMutex) {
    for (const int number : {EDEADLK, EBUSY, EAGAIN}) {
        fake::Script trylocks(fake::pthread_mutex_trylock, {fake::Return(number)});
        Only(trylocks, &m_Mutex);
        EXPECT_EQ(0, KovaTrylockMutex(&m_Mutex));
        EXPECT_EQ(number, errno);
    }
    ExpectRecords(m_Recorder, {});
    EXPECT_EQ(0u, Pauses());
}

TEST_F(MutexFunctions, InterruptedLockIsTakenAfterAPause) {
    fake::Script locks(fake::pthread_mutex_lock, {fake::Return(EINTR), fake::Return(EINTR), fake::Real()});
    Only(locks, &m_Mutex);
    EXPECT_EQ(1, KovaLockMutex(&m_Mutex));
    ExpectRecords(m_Recorder, {Pause(), Pause()});
    EXPECT_EQ(2u, Pauses());
    EXPECT_EQ(1, KovaUnlockMutex(&m_Mutex));
}

TEST_F(MutexFunctions, InterruptedTrylockIsTakenAfterAPause) {
    fake::Script trylocks(fake::pthread_mutex_trylock,
                          {fake::Return(EINTR), fake::Return(EINTR), fake::Real()});
    Only(trylocks, &m_Mutex);
    EXPECT_EQ(1, KovaTrylockMutex(&m_Mutex));
    ExpectRecords(m_Recorder, {Pause(), Pause()});
    EXPECT_EQ(2u, Pauses());
    EXPECT_EQ(1, KovaUnlockMutex(&m_Mutex));
}

TEST_F(MutexFunctions, InterruptedUnlockIsDoneAfterAPause) {
    fake::Script unlocks(fake::pthread_mutex_unlock,
                         {fake::Return(EINTR), fake::Return(EINTR), fake::Real()});
    Only(unlocks, &m_Mutex);
    ASSERT_EQ(1, KovaLockMutex(&m_Mutex));
    EXPECT_EQ(1, KovaUnlockMutex(&m_Mutex));
    ExpectRecords(m_Recorder, {Pause(), Pause()});
    EXPECT_EQ(2u, Pauses());
}

TEST_F(MutexFunctions, PauseLastsTwoMilliseconds) {
    const fake::Journal journal({&fake::nanosleep}, fake::kThisThread);
    fake::Script locks(fake::pthread_mutex_lock, {fake::Return(EINTR), fake::Real()});
    Only(locks, &m_Mutex);
    EXPECT_EQ(1, KovaLockMutex(&m_Mutex));
    EXPECT_EQ((std::vector<std::string>{"nanosleep {0, 2000000}"}), journal.Texts());
    EXPECT_EQ(1, KovaUnlockMutex(&m_Mutex));
}

TEST_F(MutexFunctions, ErrnoDecidesWhetherALockWasInterrupted) {
    fake::Script locks(fake::pthread_mutex_lock, {FailsWith(EINVAL, EINTR), fake::Real()});
    Only(locks, &m_Mutex);
    EXPECT_EQ(1, KovaLockMutex(&m_Mutex));
    ExpectRecords(m_Recorder, {Pause()});
    EXPECT_EQ(1, KovaUnlockMutex(&m_Mutex));
}

TEST_F(MutexFunctions, InterruptionHoldsForTheFailuresAfterIt) {
    fake::Script locks(fake::pthread_mutex_lock,
                       {fake::Return(EINTR), fake::Return(EINVAL), fake::Return(EINVAL), fake::Real()});
    Only(locks, &m_Mutex);
    EXPECT_EQ(1, KovaLockMutex(&m_Mutex));
    ExpectRecords(m_Recorder, {Pause(), Pause(), Pause()});
    EXPECT_EQ(1, KovaUnlockMutex(&m_Mutex));
}

TEST_F(MutexFunctions, StaleInterruptionHasAFailingUnlockRepeated) {
    fake::Script unlocks(fake::pthread_mutex_unlock,
                         {fake::Return(EPERM), fake::Return(EPERM), fake::Real()});
    Only(unlocks, &m_Mutex);
    ASSERT_EQ(1, KovaLockMutex(&m_Mutex));
    errno = EINTR;
    EXPECT_EQ(1, KovaUnlockMutex(&m_Mutex));
    EXPECT_EQ(EINTR, errno);
    ExpectRecords(m_Recorder, {Pause(), Pause()});
}

TEST_F(MutexFunctions, StaleInterruptionHoldsUntilAPauseLeavesAnotherErrno) {
    ExpectAbend(
        [&] {
            fake::Script sleeps(fake::nanosleep, {fake::Return(0), fake::Fail(EINVAL)});
            fake::Always unlocks(fake::pthread_mutex_unlock, fake::Return(EPERM));
            Only(unlocks, &m_Mutex);
            errno = EINTR;
            KovaUnlockMutex(&m_Mutex);
        },
        {Pause(),
         Pause(),
         {"sleep failed seconds=%d nanoseconds=%d errno=%d", {0, 2000000, EINVAL}},
         {kFailed, {&m_Mutex, EPERM, EINVAL}}});
}

TEST_F(MutexFunctions, ReturnedNumberDecidesWhetherATrylockWasInterrupted) {
    fake::Script trylocks(fake::pthread_mutex_trylock, {FailsWith(EINTR, EBUSY), fake::Real()});
    Only(trylocks, &m_Mutex);
    EXPECT_EQ(1, KovaTrylockMutex(&m_Mutex));
    ExpectRecords(m_Recorder, {Pause()});
    EXPECT_EQ(1, KovaUnlockMutex(&m_Mutex));
}

TEST_F(MutexFunctions, ErrnoDecidesWhetherAMutexIsBusy) {
    fake::Script trylocks(fake::pthread_mutex_trylock, {FailsWith(EINVAL, EAGAIN)});
    Only(trylocks, &m_Mutex);
    EXPECT_EQ(0, KovaTrylockMutex(&m_Mutex));
    EXPECT_EQ(EAGAIN, errno);
    ExpectRecords(m_Recorder, {});
}

class MutexFailure : public MutexFunctions {};

TEST_F(MutexFailure, OfALockEndsTheProcess) {
    ExpectAbend(
        [&] {
            fake::Always locks(fake::pthread_mutex_lock, fake::Return(EINVAL));
            Only(locks, &m_Mutex);
            errno = EINTR;
            KovaLockMutex(&m_Mutex);
        },
        {{kFailed, {&m_Mutex, EINVAL, EINVAL}}});
}

TEST_F(MutexFailure, OfALockTellsErrnoBesideTheNumber) {
    ExpectAbend(
        [&] {
            fake::Always locks(fake::pthread_mutex_lock, FailsWith(EINTR, EINVAL));
            Only(locks, &m_Mutex);
            KovaLockMutex(&m_Mutex);
        },
        {{kFailed, {&m_Mutex, EINTR, EINVAL}}});
}

TEST_F(MutexFailure, OfASecondLockByTheOwnerEndsTheProcess) {
    ExpectAbend(
        [&] {
            EXPECT_EQ(1, KovaLockMutex(&m_Mutex));
            KovaLockMutex(&m_Mutex);
        },
        {{kFailed, {&m_Mutex, EDEADLK, EDEADLK}}});
}

TEST_F(MutexFailure, OfATrylockEndsTheProcess) {
    ExpectAbend(
        [&] {
            fake::Always trylocks(fake::pthread_mutex_trylock, fake::Return(EINVAL));
            Only(trylocks, &m_Mutex);
            KovaTrylockMutex(&m_Mutex);
        },
        {{kTrylockFailed, {&m_Mutex, EINVAL, EINVAL}}});
}

TEST_F(MutexFailure, OfATrylockGoesByErrnoBeforeTheNumber) {
    ExpectAbend(
        [&] {
            fake::Always trylocks(fake::pthread_mutex_trylock, FailsWith(EBUSY, kStale));
            Only(trylocks, &m_Mutex);
            KovaTrylockMutex(&m_Mutex);
        },
        {{kTrylockFailed, {&m_Mutex, EBUSY, kStale}}});
}

// The errno of the interruption is still there.
TEST_F(MutexFailure, OfATrylockThatIsBusyAfterAnInterruptionEndsTheProcess) {
    ExpectAbend(
        [&] {
            fake::Script trylocks(fake::pthread_mutex_trylock, {fake::Return(EINTR), fake::Return(EBUSY)});
            Only(trylocks, &m_Mutex);
            KovaTrylockMutex(&m_Mutex);
        },
        {Pause(), {kTrylockFailed, {&m_Mutex, EBUSY, EINTR}}});
}

TEST_F(MutexFailure, OfAnUnlockEndsTheProcess) {
    KOVA_SKIP_UNDER_TSAN("it ends the process itself when a mutex is unlocked that is not locked");
    ExpectAbend(
        [&] {
            errno = 0;
            KovaUnlockMutex(&m_Mutex);
        },
        {{kFailed, {&m_Mutex, EPERM, EPERM}}});
}

TEST_F(MutexFailure, OfAnUnlockTellsAStaleErrno) {
    KOVA_SKIP_UNDER_TSAN("it ends the process itself when a mutex is unlocked that is not locked");
    ExpectAbend(
        [&] {
            errno = kStale;
            KovaUnlockMutex(&m_Mutex);
        },
        {{kFailed, {&m_Mutex, EPERM, kStale}}});
}

TEST_F(MutexFailure, OfAnUnlockByAnotherThreadEndsTheProcess) {
    KOVA_SKIP_UNDER_TSAN("it ends the process itself when a mutex is unlocked that is not locked");
    const ChildResult child = RunInChild([&] {
        EXPECT_EQ(1, KovaLockMutex(&m_Mutex));
        DeadlineThread([&] {
            errno = 0;
            KovaUnlockMutex(&m_Mutex);
        }).Join();
    });
    EXPECT_EQ(SIGABRT, child.signal) << testing::PrintToString(child);
    EXPECT_TRUE(m_Recorder.Has(kFailed, {Word(&m_Mutex).value, EPERM, EPERM}));
    EXPECT_EQ(2u, m_Recorder.All().size());
}

TEST_F(MutexFailure, OfTheCreationEndsTheProcess) {
    ExpectAbend(
        [&] {
            KovaMutexT mutex;
            const fake::Always inits(fake::pthread_mutex_init, fake::Return(ENOMEM), fake::kThisThread);
            KovaCreateMutex(&mutex);
        },
        {{kCreateFailed, {ENOMEM, ENOMEM}}});
}

TEST_F(MutexFailure, OfTheCreationTellsErrnoBesideTheNumber) {
    ExpectAbend(
        [&] {
            KovaMutexT mutex;
            const auto fail = [](pthread_mutex_t*, const pthread_mutexattr_t*) {
                errno = EAGAIN;
                return ENOMEM;
            };
            const fake::Always inits(fake::pthread_mutex_init, fail, fake::kThisThread);
            KovaCreateMutex(&mutex);
        },
        {{kCreateFailed, {ENOMEM, EAGAIN}}});
}

TEST_F(MutexFailure, OfTheAttributesEndsTheProcess) {
    KovaMutexT mutex;
    ExpectAbend(
        [&] {
            const fake::Always inits(fake::pthread_mutexattr_init,
                                     ReallyBut(fake::pthread_mutexattr_init, ENOMEM), fake::kThisThread);
            KovaCreateMutex(&mutex);
        },
        {{kCreateFailed, {ENOMEM, ENOMEM}}});
    ExpectAbend(
        [&] {
            const fake::Always types(fake::pthread_mutexattr_settype, fake::Return(EINVAL),
                                     fake::kThisThread);
            KovaCreateMutex(&mutex);
        },
        {{kCreateFailed, {EINVAL, EINVAL}}});
}

TEST_F(MutexFailure, OfTheDeletionEndsTheProcess) {
    ExpectAbend(
        [&] {
            fake::Always destroys(fake::pthread_mutex_destroy, fake::Return(EBUSY));
            Only(destroys, &m_Mutex);
            errno = kStale;
            KovaDeleteMutex(&m_Mutex);
        },
        {{kDeleteFailed, {&m_Mutex, EBUSY, EBUSY}}});
}

TEST_F(MutexFailure, OfTheDeletionOfALockedMutexEndsTheProcess) {
    KOVA_SKIP_UNDER_TSAN("it ends the process itself when a locked mutex is destroyed");
    ExpectAbend(
        [&] {
            EXPECT_EQ(1, KovaLockMutex(&m_Mutex));
            KovaDeleteMutex(&m_Mutex);
        },
        {{kDeleteFailed, {&m_Mutex, EBUSY, EBUSY}}});
}

TEST_F(MutexFailure, OfALockOfADeletedMutexEndsTheProcess) {
    KOVA_SKIP_UNDER_TSAN("it ends the process itself when a destroyed mutex is used");
    ExpectAbend(
        [&] {
            EXPECT_EQ(1, KovaDeleteMutex(&m_Mutex));
            KovaLockMutex(&m_Mutex);
        },
        {{kDeleted, {&m_Mutex}}, {kFailed, {&m_Mutex, EINVAL, EINVAL}}});
}

TEST_F(MutexFailure, OfTheDeletionTellsErrnoBesideTheNumber) {
    ExpectAbend(
        [&] {
            fake::Always destroys(fake::pthread_mutex_destroy, FailsWith(EBUSY, EINVAL));
            Only(destroys, &m_Mutex);
            KovaDeleteMutex(&m_Mutex);
        },
        {{kDeleteFailed, {&m_Mutex, EBUSY, EINVAL}}});
}

TEST_F(MutexFailure, IsReturnedByAThreadThatIsAborting) {
    WhileAborting([&] {
        TraceRecorder recorder;
        g_AbendWords.clear();
        {
            fake::Script locks(fake::pthread_mutex_lock, {fake::Return(EINVAL)});
            Only(locks, &m_Mutex);
            EXPECT_EQ(0, KovaLockMutex(&m_Mutex));
            EXPECT_EQ(EINVAL, errno);
        }
        ExpectRecords(recorder, {{kFailed, {&m_Mutex, EINVAL, EINVAL}}, AbendAgain()});

        recorder.Clear();
        errno = 0;
        {
            fake::Script unlocks(fake::pthread_mutex_unlock, {fake::Return(EPERM)});
            Only(unlocks, &m_Mutex);
            EXPECT_EQ(0, KovaUnlockMutex(&m_Mutex));
            EXPECT_EQ(EPERM, errno);
        }
        ExpectRecords(recorder, {{kFailed, {&m_Mutex, EPERM, EPERM}}, AbendAgain()});

        recorder.Clear();
        {
            fake::Script destroys(fake::pthread_mutex_destroy, {fake::Return(EBUSY)});
            Only(destroys, &m_Mutex);
            EXPECT_EQ(0, KovaDeleteMutex(&m_Mutex));
            EXPECT_EQ(EBUSY, errno);
        }
        ExpectRecords(recorder, {{kDeleteFailed, {&m_Mutex, EBUSY, EBUSY}}, AbendAgain()});

        recorder.Clear();
        KovaMutexT mutex;
        {
            fake::Script inits(fake::pthread_mutex_init, {fake::Return(ENOMEM)});
            Only(inits, &mutex);
            const fake::Counter destroys(fake::pthread_mutexattr_destroy, fake::kThisThread);
            EXPECT_EQ(0, KovaCreateMutex(&mutex));
            EXPECT_EQ(ENOMEM, errno);
            EXPECT_EQ(1u, destroys.Calls());
        }
        ExpectRecords(recorder, {{kCreateFailed, {ENOMEM, ENOMEM}}, AbendAgain(), {kCreated, {&mutex}}});

        EXPECT_EQ((std::vector<std::array<uint32_t, 3>>(4, {0x26C24100, 0x71000000, 0})), g_AbendWords);
    });
}

TEST_F(MutexFailure, OfATrylockIsFollowedByAnotherOneOnAThreadThatIsAborting) {
    WhileAborting([&] {
        TraceRecorder recorder;
        g_AbendWords.clear();
        fake::Script trylocks(fake::pthread_mutex_trylock,
                              {fake::Return(EINVAL), fake::Return(EPERM), fake::Real()});
        Only(trylocks, &m_Mutex);
        EXPECT_EQ(1, KovaTrylockMutex(&m_Mutex));
        ExpectRecords(recorder, {{kTrylockFailed, {&m_Mutex, EINVAL, EINVAL}},
                                 AbendAgain(),
                                 {kTrylockFailed, {&m_Mutex, EPERM, EINVAL}},
                                 AbendAgain()});
        EXPECT_EQ(0u, Pauses());
        EXPECT_EQ((std::vector<std::array<uint32_t, 3>>(2, {0x26C24100, 0x71000000, 0})), g_AbendWords);
        EXPECT_EQ(1, KovaUnlockMutex(&m_Mutex));
    });
}

// --- The class ---

class LocalMutex : public KovaTest {
  protected:
    LocalMutex() : m_Object(std::make_unique<KovaLocalMutex>()) {
        EXPECT_EQ(1u, m_Inits.Size());
        m_Record = m_Inits.At(0);
        m_Recorder.Clear();
    }

    testing::AssertionResult HasError(int code, const char* function) const {
        if (m_Object->GetError() == code && m_Object->GetErrorLine() != 0 &&
            std::string(function) == m_Object->GetErrorFunction()) {
            return testing::AssertionSuccess();
        }
        return testing::AssertionFailure() << m_Object->GetError() << " in " << m_Object->GetErrorFunction()
                                           << ", line " << m_Object->GetErrorLine();
    }

    /// Leaves EBUSY in the object's error record; the mutex is free again.
    void LeaveError() {
        fake::Script trylocks(fake::pthread_mutex_trylock, {fake::Return(EBUSY)});
        Only(trylocks, m_Record);
        EXPECT_FALSE(m_Object->Trylock());
        EXPECT_EQ(EBUSY, m_Object->GetError());
        m_Recorder.Clear();
    }

    InitialisedMutexes m_Inits;
    TraceRecorder m_Recorder;
    std::unique_ptr<KovaLocalMutex> m_Object;
    KovaMutexT* m_Record = nullptr;
};

TEST_F(LocalMutex, IsCreatedAndDeletedWithItsObject) {
    TraceRecorder recorder;
    const void* record = nullptr;
    {
        InitialisedMutexes inits;
        KovaLocalMutex mutex;
        record = inits.At(0);
        EXPECT_EQ(0, mutex.GetError());
        EXPECT_EQ(nullptr, mutex.GetErrorFunction());
        ExpectRecords(recorder, {{kCreated, {record}}});
        EXPECT_EQ(1, mutex.GetRefCounter());
    }
    ExpectRecords(recorder, {{kCreated, {record}}, {kDeleted, {record}}});
}

TEST_F(LocalMutex, LocksAndUnlocksWithOneRecordEach) {
    EXPECT_TRUE(m_Object->Lock());
    EXPECT_TRUE(m_Object->Unlock());
    EXPECT_TRUE(m_Object->Trylock());
    EXPECT_TRUE(m_Object->Unlock());
    ExpectRecords(
        m_Recorder,
        {{kLocked, {m_Record}}, {kUnlock, {m_Record}}, {kTrylock, {m_Record}}, {kUnlock, {m_Record}}});
    EXPECT_EQ(0, m_Object->GetError());
    EXPECT_EQ(1, m_Object->GetRefCounter());
}

TEST_F(LocalMutex, LeavesNoRecordsWhenTracingIsOff) {
    m_Object->SetTrace(false);
    EXPECT_TRUE(m_Object->Lock());
    EXPECT_FALSE(m_Object->Trylock());
    EXPECT_TRUE(HasError(EBUSY, "bool KovaLocalMutex::Trylock()"));
    EXPECT_TRUE(m_Object->Unlock());
    EXPECT_TRUE(m_Object->Trylock());
    EXPECT_TRUE(m_Object->Unlock());
    fake::Script trylocks(fake::pthread_mutex_trylock, {fake::Return(EBUSY)});
    Only(trylocks, m_Record);
    EXPECT_TRUE(m_Object->Lock());
    EXPECT_TRUE(m_Object->Unlock());
    ExpectRecords(m_Recorder, {});
    m_Object->SetTrace(true);
    EXPECT_TRUE(m_Object->Lock());
    EXPECT_TRUE(m_Object->Unlock());
    ExpectRecords(m_Recorder, {{kLocked, {m_Record}}, {kUnlock, {m_Record}}});
}

TEST_F(LocalMutex, TrylockOfTheOwnerFails) {
    EXPECT_TRUE(m_Object->Lock());
    m_Recorder.Clear();
    EXPECT_FALSE(m_Object->Trylock());
    EXPECT_EQ(EBUSY, errno);
    EXPECT_TRUE(HasError(EBUSY, "bool KovaLocalMutex::Trylock()"));
    ExpectRecords(m_Recorder, {{kTrylock, {m_Record}}});
    EXPECT_TRUE(m_Object->Unlock());
    EXPECT_EQ(0, m_Object->GetError());
}

TEST_F(LocalMutex, TrylockOfAnotherThreadFails) {
    EXPECT_TRUE(m_Object->Trylock());
    DeadlineThread([&] { EXPECT_FALSE(m_Object->Trylock()); }).Join();
    EXPECT_TRUE(HasError(EBUSY, "bool KovaLocalMutex::Trylock()"));
    EXPECT_TRUE(m_Object->Unlock());
}

TEST_F(LocalMutex, LockOfAFreeMutexLeavesTheErrorRecordAsItWas) {
    LeaveError();
    EXPECT_TRUE(m_Object->Lock());
    EXPECT_TRUE(HasError(EBUSY, "bool KovaLocalMutex::Trylock()"));
    ExpectRecords(m_Recorder, {{kLocked, {m_Record}}});
    EXPECT_TRUE(m_Object->Unlock());
}

TEST_F(LocalMutex, LockThatHadToWaitClearsTheCode) {
    LeaveError();
    fake::Script trylocks(fake::pthread_mutex_trylock, {fake::Return(EBUSY)});
    Only(trylocks, m_Record);
    EXPECT_TRUE(m_Object->Lock());
    EXPECT_TRUE(HasError(0, "bool KovaLocalMutex::Trylock()")) << "the place stays";
    ExpectRecords(m_Recorder, {{kMustWait, {m_Record}}, {kWaited, {m_Record}}});
    EXPECT_TRUE(m_Object->Unlock());
}

TEST_F(LocalMutex, TrylockAndUnlockClearTheCode) {
    LeaveError();
    EXPECT_TRUE(m_Object->Trylock());
    EXPECT_EQ(0, m_Object->GetError());
    EXPECT_FALSE(m_Object->Trylock());
    EXPECT_EQ(EBUSY, m_Object->GetError());
    EXPECT_TRUE(m_Object->Unlock());
    EXPECT_EQ(0, m_Object->GetError());
}

TEST_F(LocalMutex, LockWaitsForTheOwner) {
    EXPECT_TRUE(m_Object->Lock());
    std::atomic<bool> locked = false;
    DeadlineThread waiter([&] {
        EXPECT_TRUE(m_Object->Lock());
        locked = true;
        EXPECT_TRUE(m_Object->Unlock());
    });
    EXPECT_TRUE(WaitUntil([&] { return m_Recorder.Count(kMustWait) != 0; }));
    EXPECT_FALSE(locked);
    EXPECT_EQ(0u, m_Recorder.Count(kWaited));
    EXPECT_TRUE(m_Object->Unlock());
    waiter.Join();
    EXPECT_TRUE(locked);
    EXPECT_TRUE(m_Recorder.Has(kMustWait, {Word(m_Record).value}));
    EXPECT_TRUE(m_Recorder.Has(kWaited, {Word(m_Record).value}));
}

TEST_F(LocalMutex, ExcludesThreads) {
    constexpr int kThreads = 4;
    constexpr int kRounds = 500;
    int plain = 0;
    m_Object->SetTrace(false);
    {
        std::vector<std::unique_ptr<DeadlineThread>> threads;
        for (int i = 0; i < kThreads; ++i) {
            threads.push_back(std::make_unique<DeadlineThread>([&, with_trylock = i == 0] {
                for (int round = 0; round < kRounds; ++round) {
                    if (with_trylock) {
                        while (!m_Object->Trylock()) ::sched_yield();
                    } else {
                        EXPECT_TRUE(m_Object->Lock());
                    }
                    const int before = plain;
                    if (round % 10 == 0) ::sched_yield();
                    plain = before + 1;
                    EXPECT_TRUE(m_Object->Unlock());
                }
            }));
        }
    }
    EXPECT_EQ(kThreads * kRounds, plain);
}

TEST_F(LocalMutex, AllocatesNothing) {
    const NoAllocation none;
    EXPECT_TRUE(m_Object->Lock());
    EXPECT_FALSE(m_Object->Trylock());
    EXPECT_TRUE(m_Object->Unlock());
    KovaLocalMutex mutex;
}

class LocalMutexFailure : public LocalMutex {};

TEST_F(LocalMutexFailure, OfASecondLockByTheOwnerEndsTheProcess) {
    ExpectAbend(
        [&] {
            EXPECT_TRUE(m_Object->Lock());
            m_Object->Lock();
        },
        {{kLocked, {m_Record}}, {kMustWait, {m_Record}}, {kFailed, {m_Record, EDEADLK, EDEADLK}}});
}

TEST_F(LocalMutexFailure, OfAnUnlockEndsTheProcess) {
    KOVA_SKIP_UNDER_TSAN("it ends the process itself when a mutex is unlocked that is not locked");
    ExpectAbend(
        [&] {
            errno = 0;
            m_Object->Unlock();
        },
        {{kFailed, {m_Record, EPERM, EPERM}}});
}

TEST_F(LocalMutexFailure, OfTheConstructorEndsTheProcess) {
    ExpectAbend(
        [] {
            const fake::Always inits(fake::pthread_mutex_init, fake::Return(EAGAIN), fake::kThisThread);
            KovaLocalMutex mutex;
        },
        {{kCreateFailed, {EAGAIN, EAGAIN}}});
}

TEST_F(LocalMutexFailure, OfTheDestructorEndsTheProcess) {
    ExpectAbend(
        [&] {
            fake::Always destroys(fake::pthread_mutex_destroy, fake::Return(EBUSY));
            Only(destroys, m_Record);
            m_Object.reset();
        },
        {{kDeleteFailed, {m_Record, EBUSY, EBUSY}}});
}

TEST_F(LocalMutexFailure, OfALockIsRecordedOnAThreadThatIsAborting) {
    WhileAborting([&] {
        fake::Script trylocks(fake::pthread_mutex_trylock, {fake::Return(EBUSY), fake::Return(EBUSY)});
        fake::Script locks(fake::pthread_mutex_lock, {fake::Return(EINVAL), fake::Return(EINVAL)});
        Only(trylocks, m_Record);
        Only(locks, m_Record);
        TraceRecorder recorder;
        EXPECT_FALSE(m_Object->Lock());
        EXPECT_TRUE(HasError(EINVAL, "bool KovaLocalMutex::Lock()"));
        ExpectRecords(recorder, {{kMustWait, {m_Record}},
                                 {kFailed, {m_Record, EINVAL, EINVAL}},
                                 AbendAgain(),
                                 {kWaited, {m_Record}}});
        recorder.Clear();
        m_Object->SetTrace(false);
        m_Object->ClearError();
        EXPECT_FALSE(m_Object->Lock());
        EXPECT_TRUE(HasError(EINVAL, "bool KovaLocalMutex::Lock()"));
        ExpectRecords(recorder, {{kFailed, {m_Record, EINVAL, EINVAL}}, AbendAgain()});
    });
}

TEST_F(LocalMutexFailure, OfAnUnlockIsRecordedOnAThreadThatIsAborting) {
    WhileAborting([&] {
        fake::Script unlocks(fake::pthread_mutex_unlock, {fake::Return(EPERM)});
        Only(unlocks, m_Record);
        const TraceRecorder recorder;
        errno = kStale;
        EXPECT_FALSE(m_Object->Unlock());
        EXPECT_TRUE(HasError(kStale, "bool KovaLocalMutex::Unlock()")) << "errno, not the number";
        ExpectRecords(recorder, {{kFailed, {m_Record, EPERM, kStale}}, AbendAgain(), {kUnlock, {m_Record}}});
    });
}

TEST_F(LocalMutexFailure, OfTheConstructorIsRecordedOnAThreadThatIsAborting) {
    WhileAborting([] {
        fake::Script inits(fake::pthread_mutex_init, {ReallyBut(fake::pthread_mutex_init, ENOMEM)},
                           fake::kThisThread);
        const KovaLocalMutex mutex;
        EXPECT_EQ(ENOMEM, mutex.GetError());
        EXPECT_STREQ("KovaLocalMutex::KovaLocalMutex()", mutex.GetErrorFunction());
        EXPECT_NE(0, mutex.GetErrorLine());
    });
}

TEST_F(LocalMutexFailure, OfTheDestructorIsRecordedInTheDyingObject) {
    WhileAborting([] {
        KeptError kept;
        { const Dying<KovaLocalMutex> dies(kept); }
        EXPECT_EQ(0, kept.code);
        fake::Script destroys(fake::pthread_mutex_destroy, {ReallyBut(fake::pthread_mutex_destroy, EBUSY)},
                              fake::kThisThread);
        { const Dying<KovaLocalMutex> dies(kept); }
        EXPECT_EQ(EBUSY, kept.code);
        EXPECT_EQ("virtual KovaLocalMutex::~KovaLocalMutex()", kept.function);
        EXPECT_NE(0, kept.line);
    });
}

}  // namespace
