#include "sync/locks.h"

#include <kova/local_rwlock.h>

#include <pthread.h>
#include <sched.h>

#include <atomic>
#include <cerrno>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

namespace {

constexpr const char* kBeginRead = "begin read lock=%p";
constexpr const char* kEndRead = "end read lock=%p";
constexpr const char* kBeginWrite = "begin write lock=%p";
constexpr const char* kTryWrite = "try write lock=%p";
constexpr const char* kEndWrite = "end write lock=%p";
constexpr const char* kSemaphoreCreated = "create semaphore=%p";
constexpr const char* kSemaphoreDelete = "delete semaphore=%p";
constexpr const char* kSemaphoreDeleted = "deleted semaphore=%p";
constexpr const char* kPostFailed = "post semaphore=%p result=%d errno=%d";
constexpr const char* kWaitFailed = "wait semaphore=%p error=%d errno=%d";
constexpr const char* kMutexCreated = "create mutex=%p";
constexpr const char* kMutexDeleted = "delete mutex=%p";
constexpr const char* kMutexFailed = "mutex=%p result=%d errno=%d";

static_assert(std::is_base_of_v<KovaBaseObject, KovaLocalReadWriteLock>);
static_assert(!std::is_copy_constructible_v<KovaLocalReadWriteLock>);
static_assert(!std::is_copy_assignable_v<KovaLocalReadWriteLock>);
static_assert(std::has_virtual_destructor_v<KovaLocalReadWriteLock>);

/// The parts of a lock, known by the mutexes that it initialises: that of a semaphore is its first field.
class ReadWriteLock : public KovaTest {
  protected:
    ReadWriteLock() {
        EXPECT_EQ(3u, m_Inits.Size());
        m_Readers = reinterpret_cast<sKovaLocalSemaphore*>(m_Inits.At(0));
        m_Drained = reinterpret_cast<sKovaLocalSemaphore*>(m_Inits.At(1));
        m_Writer = m_Inits.At(2);
        m_Recorder.Clear();
    }

    int Readers() const { return m_Readers->count; }
    int Drained() const { return m_Drained->count; }

    /// The operation left this code and its own place.
    testing::AssertionResult Left(int code, const char* function) const {
        const char* const left = m_Lock.GetErrorFunction();
        if (m_Lock.GetError() == code && m_Lock.GetErrorLine() != 0 && left != nullptr &&
            std::string(function) == left) {
            return testing::AssertionSuccess();
        }
        return testing::AssertionFailure() << m_Lock.GetError() << " in " << (left == nullptr ? "" : left)
                                           << ", line " << m_Lock.GetErrorLine();
    }

    /// Runs `operation` on another thread to its end.
    template <typename Operation>
    static void Elsewhere(Operation operation) {
        DeadlineThread(operation).Join();
    }

    InitialisedMutexes m_Inits;
    TraceRecorder m_Recorder;
    KovaLocalReadWriteLock m_Lock;
    sKovaLocalSemaphore* m_Readers = nullptr;
    sKovaLocalSemaphore* m_Drained = nullptr;
    pthread_mutex_t* m_Writer = nullptr;
};

TEST_F(ReadWriteLock, IsBuiltFromReadersDrainedAndWriterAndDestroyedInReverse) {
    InitialisedMutexes inits;
    const TraceRecorder recorder;
    auto lock = std::make_unique<KovaLocalReadWriteLock>();
    ASSERT_EQ(3u, inits.Size());
    EXPECT_LT(inits.At(0), inits.At(1));
    EXPECT_LT(inits.At(1), inits.At(2));
    EXPECT_EQ(0, lock->GetError());
    EXPECT_EQ(nullptr, lock->GetErrorFunction());
    EXPECT_EQ(1, lock->GetRefCounter());
    lock.reset();
    ExpectRecords(recorder, {{kSemaphoreCreated, {inits.At(0)}},
                             {kSemaphoreCreated, {inits.At(1)}},
                             {kMutexCreated, {inits.At(2)}},
                             {kMutexDeleted, {inits.At(2)}},
                             {kSemaphoreDelete, {inits.At(1)}},
                             {kSemaphoreDeleted, {inits.At(1)}},
                             {kSemaphoreDelete, {inits.At(0)}},
                             {kSemaphoreDeleted, {inits.At(0)}}});
}

TEST_F(ReadWriteLock, SuccessLeavesNoCodeAndThePlaceOfTheCall) {
    EXPECT_TRUE(m_Lock.BeginRead());
    EXPECT_TRUE(Left(0, "bool KovaLocalReadWriteLock::BeginRead()"));
    EXPECT_TRUE(m_Lock.EndRead());
    EXPECT_TRUE(Left(0, "bool KovaLocalReadWriteLock::EndRead()"));
    EXPECT_TRUE(m_Lock.BeginWrite());
    EXPECT_TRUE(Left(0, "bool KovaLocalReadWriteLock::BeginWrite()"));
    EXPECT_TRUE(m_Lock.EndWrite());
    EXPECT_TRUE(Left(0, "bool KovaLocalReadWriteLock::EndWrite()"));
    EXPECT_TRUE(m_Lock.BeginRead());
    EXPECT_TRUE(m_Lock.TryWrite());
    EXPECT_TRUE(Left(0, "bool KovaLocalReadWriteLock::TryWrite()"));
    EXPECT_TRUE(m_Lock.EndWrite());
    EXPECT_EQ(1, m_Lock.GetRefCounter());
}

TEST_F(ReadWriteLock, SuccessLeavesNoTraceRecord) {
    EXPECT_TRUE(m_Lock.BeginRead());
    EXPECT_TRUE(m_Lock.EndRead());
    EXPECT_TRUE(m_Lock.BeginWrite());
    EXPECT_TRUE(m_Lock.EndWrite());
    EXPECT_TRUE(m_Lock.BeginRead());
    EXPECT_TRUE(m_Lock.TryWrite());
    EXPECT_TRUE(m_Lock.EndWrite());
    ExpectRecords(m_Recorder, {});
}

TEST_F(ReadWriteLock, TracingThatIsSwitchedChangesNothing) {
    EXPECT_TRUE(m_Lock.BeginWrite());
    for (const bool on : {false, true}) {
        m_Recorder.Clear();
        m_Lock.SetTrace(on);
        EXPECT_FALSE(m_Lock.TryWrite());
        ExpectRecords(m_Recorder, {{kTryWrite, {&m_Lock}}});
    }
    EXPECT_TRUE(m_Lock.EndWrite());
}

TEST_F(ReadWriteLock, AllocatesNothing) {
    const NoAllocation none;
    EXPECT_TRUE(m_Lock.BeginRead());
    EXPECT_TRUE(m_Lock.EndRead());
    EXPECT_TRUE(m_Lock.BeginWrite());
    EXPECT_FALSE(m_Lock.TryWrite());
    EXPECT_TRUE(m_Lock.EndWrite());
}

// --- Readers ---

TEST_F(ReadWriteLock, ReadersAreCounted) {
    EXPECT_TRUE(m_Lock.BeginRead());
    EXPECT_EQ(1, Readers());
    EXPECT_TRUE(m_Lock.BeginRead());
    EXPECT_EQ(2, Readers());
    EXPECT_TRUE(m_Lock.EndRead());
    EXPECT_EQ(1, Readers());
    EXPECT_TRUE(m_Lock.EndRead());
    EXPECT_EQ(0, Readers());
}

TEST_F(ReadWriteLock, ReadersHoldItTogether) {
    EXPECT_TRUE(m_Lock.BeginRead());
    Elsewhere([&] {
        EXPECT_TRUE(m_Lock.BeginRead());
        EXPECT_EQ(2, Readers());
        EXPECT_TRUE(m_Lock.EndRead());
    });
    EXPECT_TRUE(m_Lock.EndRead());
}

TEST_F(ReadWriteLock, ReaderHoldsTheWritersMutexOnlyWhileItEnters) {
    const fake::Journal journal({&fake::pthread_mutex_trylock, &fake::pthread_cond_signal,
                                 &fake::pthread_mutex_lock, &fake::pthread_mutex_unlock},
                                fake::kThisThread);
    EXPECT_TRUE(m_Lock.BeginRead());
    EXPECT_EQ((std::vector<std::string>{"pthread_mutex_trylock", "pthread_mutex_lock", "pthread_cond_signal",
                                        "pthread_mutex_unlock", "pthread_mutex_unlock"}),
              journal.Texts());
    EXPECT_EQ(0, ::pthread_mutex_trylock(m_Writer));
    EXPECT_EQ(0, ::pthread_mutex_unlock(m_Writer));
    EXPECT_TRUE(m_Lock.EndRead());
}

TEST_F(ReadWriteLock, LeavingReadersPostDrainedOnlyWhenItIsZero) {
    EXPECT_TRUE(m_Lock.BeginRead());
    EXPECT_TRUE(m_Lock.BeginRead());
    EXPECT_EQ(0, Drained());
    EXPECT_TRUE(m_Lock.EndRead());
    EXPECT_EQ(1, Drained()) << "also by a reader that is not the last";
    EXPECT_TRUE(m_Lock.EndRead());
    EXPECT_EQ(1, Drained());
}

TEST_F(ReadWriteLock, ReadMayEndOnAnotherThread) {
    EXPECT_TRUE(m_Lock.BeginRead());
    Elsewhere([&] { EXPECT_TRUE(m_Lock.EndRead()); });
    EXPECT_TRUE(m_Lock.BeginWrite());
    EXPECT_TRUE(m_Lock.EndWrite());
}

TEST_F(ReadWriteLock, EndOfAReadThatNobodyBeganWaitsForAReader) {
    fake::Counter waits(fake::pthread_cond_wait);
    Only(waits, &m_Readers->condition);
    DeadlineThread ender([&] { EXPECT_TRUE(m_Lock.EndRead()); });
    EXPECT_TRUE(WaitUntil([&] { return waits.Calls() != 0; }));
    EXPECT_FALSE(ender.HasEnded());
    EXPECT_TRUE(m_Lock.BeginRead());
    ender.Join();
    EXPECT_EQ(0, Readers());
}

// --- Writers ---

TEST_F(ReadWriteLock, WriterHoldsItsMutexUntilTheEndOfTheWrite) {
    EXPECT_TRUE(m_Lock.BeginWrite());
    EXPECT_EQ(EBUSY, ::pthread_mutex_trylock(m_Writer));
    EXPECT_TRUE(m_Lock.EndWrite());
    EXPECT_EQ(0, ::pthread_mutex_trylock(m_Writer));
    EXPECT_EQ(0, ::pthread_mutex_unlock(m_Writer));
}

TEST_F(ReadWriteLock, WriterWaitsUntilAllReadersHaveLeft) {
    EXPECT_TRUE(m_Lock.BeginRead());
    EXPECT_TRUE(m_Lock.BeginRead());
    std::atomic<bool> writing = false;
    fake::Counter waits(fake::pthread_cond_wait);
    Only(waits, &m_Drained->condition);
    DeadlineThread writer([&] {
        EXPECT_TRUE(m_Lock.BeginWrite());
        writing = true;
        EXPECT_TRUE(m_Lock.EndWrite());
    });
    EXPECT_TRUE(WaitUntil([&] { return waits.Calls() == 1; }));
    EXPECT_FALSE(writing);
    EXPECT_TRUE(m_Lock.EndRead());
    EXPECT_TRUE(WaitUntil([&] { return waits.Calls() >= 2; })) << "one reader is there still";
    EXPECT_FALSE(writing);
    EXPECT_TRUE(m_Lock.EndRead());
    writer.Join();
    EXPECT_TRUE(writing);
}

TEST_F(ReadWriteLock, WriterIsNotTakenInByAnOldPost) {
    EXPECT_TRUE(m_Lock.BeginRead());
    EXPECT_TRUE(m_Lock.EndRead());
    EXPECT_EQ(1, Drained());
    EXPECT_TRUE(m_Lock.BeginRead());
    fake::Counter waits(fake::pthread_cond_wait);
    Only(waits, &m_Drained->condition);
    DeadlineThread writer([&] {
        EXPECT_TRUE(m_Lock.BeginWrite());
        EXPECT_TRUE(m_Lock.EndWrite());
    });
    EXPECT_TRUE(WaitUntil([&] { return waits.Calls() != 0; }));
    EXPECT_EQ(0, Drained()) << "the old post is used up";
    EXPECT_FALSE(writer.HasEnded());
    EXPECT_TRUE(m_Lock.EndRead());
}

TEST_F(ReadWriteLock, WriterOfAnIdleLockLeavesOldPosts) {
    EXPECT_TRUE(m_Lock.BeginRead());
    EXPECT_TRUE(m_Lock.EndRead());
    EXPECT_TRUE(m_Lock.BeginWrite());
    EXPECT_EQ(1, Drained());
    EXPECT_TRUE(m_Lock.EndWrite());
}

TEST_F(ReadWriteLock, ReaderWaitsForTheEndOfAWrite) {
    EXPECT_TRUE(m_Lock.BeginWrite());
    std::atomic<bool> reading = false;
    fake::Counter locks(fake::pthread_mutex_lock);
    Only(locks, m_Writer);
    DeadlineThread reader([&] {
        EXPECT_TRUE(m_Lock.BeginRead());
        reading = true;
        EXPECT_TRUE(m_Lock.EndRead());
    });
    EXPECT_TRUE(WaitUntil([&] { return locks.Calls() != 0; }));
    EXPECT_FALSE(reading);
    EXPECT_EQ(0, Readers());
    EXPECT_TRUE(m_Lock.EndWrite());
    reader.Join();
    EXPECT_TRUE(reading);
}

TEST_F(ReadWriteLock, NewReaderQueuesBehindAWaitingWriter) {
    EXPECT_TRUE(m_Lock.BeginRead());
    std::atomic<int> order = 0;
    int writer_place = 0;
    int reader_place = 0;
    fake::Counter waits(fake::pthread_cond_wait);
    Only(waits, &m_Drained->condition);
    DeadlineThread writer([&] {
        EXPECT_TRUE(m_Lock.BeginWrite());
        writer_place = ++order;
        EXPECT_TRUE(m_Lock.EndWrite());
    });
    EXPECT_TRUE(WaitUntil([&] { return waits.Calls() != 0; }));
    fake::Counter locks(fake::pthread_mutex_lock);
    Only(locks, m_Writer);
    DeadlineThread reader([&] {
        EXPECT_TRUE(m_Lock.BeginRead());
        reader_place = ++order;
        EXPECT_TRUE(m_Lock.EndRead());
    });
    EXPECT_TRUE(WaitUntil([&] { return locks.Calls() != 0; }));
    EXPECT_EQ(0, order);
    EXPECT_EQ(1, Readers());
    EXPECT_TRUE(m_Lock.EndRead());
    writer.Join();
    reader.Join();
    EXPECT_EQ(1, writer_place);
    EXPECT_EQ(2, reader_place);
}

TEST_F(ReadWriteLock, WritersExcludeEachOther) {
    EXPECT_TRUE(m_Lock.BeginWrite());
    std::atomic<bool> writing = false;
    fake::Counter locks(fake::pthread_mutex_lock);
    Only(locks, m_Writer);
    DeadlineThread other([&] {
        EXPECT_TRUE(m_Lock.BeginWrite());
        writing = true;
        EXPECT_TRUE(m_Lock.EndWrite());
    });
    EXPECT_TRUE(WaitUntil([&] { return locks.Calls() != 0; }));
    EXPECT_FALSE(writing);
    EXPECT_TRUE(m_Lock.EndWrite());
    other.Join();
    EXPECT_TRUE(writing);
}

TEST_F(ReadWriteLock, KeepsReadersAndWritersApart) {
    constexpr int kRounds = 300;
    constexpr int kWriters = 2;
    constexpr int kReaders = 3;
    // Plain on purpose: the two are equal whenever nobody writes.
    int a = 0;
    int b = 0;
    {
        std::vector<std::unique_ptr<DeadlineThread>> threads;
        for (int i = 0; i < kWriters; ++i) {
            threads.push_back(std::make_unique<DeadlineThread>([&] {
                for (int round = 0; round < kRounds; ++round) {
                    EXPECT_TRUE(m_Lock.BeginWrite());
                    ++a;
                    if (round % 8 == 0) ::sched_yield();
                    ++b;
                    EXPECT_TRUE(m_Lock.EndWrite());
                }
            }));
        }
        for (int i = 0; i < kReaders; ++i) {
            threads.push_back(std::make_unique<DeadlineThread>([&] {
                for (int round = 0; round < kRounds; ++round) {
                    EXPECT_TRUE(m_Lock.BeginRead());
                    const int first = a;
                    if (round % 8 == 0) ::sched_yield();
                    EXPECT_EQ(first, b);
                    EXPECT_TRUE(m_Lock.EndRead());
                }
            }));
        }
    }
    EXPECT_EQ(kWriters * kRounds, a);
    EXPECT_EQ(a, b);
    EXPECT_EQ(0, Readers());
}

TEST_F(ReadWriteLock, WriterThatWaitsIsNotToldTheRefusalOfAnother) {
    EXPECT_TRUE(m_Lock.BeginRead());
    fake::Counter waits(fake::pthread_cond_wait);
    Only(waits, &m_Drained->condition);
    DeadlineThread writer([&] {
        EXPECT_TRUE(m_Lock.BeginWrite());
        EXPECT_TRUE(Left(0, "bool KovaLocalReadWriteLock::BeginWrite()"));
        EXPECT_TRUE(m_Lock.EndWrite());
    });
    EXPECT_TRUE(WaitUntil([&] { return waits.Calls() != 0; }));
    EXPECT_FALSE(m_Lock.TryWrite());
    // What EndRead does, without its place in the record.
    EXPECT_EQ(1, KovaWaitLocalSemaphore(m_Readers));
    EXPECT_EQ(1, KovaPostLocalSemaphore(m_Drained));
    writer.Join();
}

// --- Trying to write ---

TEST_F(ReadWriteLock, TryWriteTakesOneUnitOfTheReadersAndDoesNotAwaitTheOthers) {
    EXPECT_TRUE(m_Lock.BeginRead());
    EXPECT_TRUE(m_Lock.BeginRead());
    EXPECT_TRUE(m_Lock.TryWrite());
    EXPECT_EQ(1, Readers());
    EXPECT_EQ(0, Drained());
    EXPECT_EQ(EBUSY, ::pthread_mutex_trylock(m_Writer)) << "it is held from now on";
    EXPECT_TRUE(m_Lock.EndWrite());
    EXPECT_TRUE(m_Lock.EndRead());
    EXPECT_EQ(0, Readers());
}

TEST_F(ReadWriteLock, TryWriteFailsAtOnceWhileAWriterHoldsTheLock) {
    EXPECT_TRUE(m_Lock.BeginWrite());
    Elsewhere([&] { EXPECT_FALSE(m_Lock.TryWrite()); });
    EXPECT_TRUE(Left(EBUSY, "bool KovaLocalReadWriteLock::TryWrite()"));
    ExpectRecords(m_Recorder, {{kTryWrite, {&m_Lock}}});
    EXPECT_FALSE(m_Lock.TryWrite()) << "also for the writer itself";
    EXPECT_TRUE(Left(EBUSY, "bool KovaLocalReadWriteLock::TryWrite()"));
    EXPECT_TRUE(m_Lock.EndWrite());
    EXPECT_TRUE(Left(0, "bool KovaLocalReadWriteLock::EndWrite()"));
}

TEST_F(ReadWriteLock, TryWriteOfAnIdleLockDoesNotReturn) {
    fake::Counter waits(fake::pthread_cond_wait);
    Only(waits, &m_Readers->condition);
    DeadlineThread writer([&] {
        EXPECT_TRUE(m_Lock.TryWrite());
        EXPECT_TRUE(m_Lock.EndWrite());
    });
    EXPECT_TRUE(WaitUntil([&] { return waits.Calls() != 0; }));
    fake::Counter locks(fake::pthread_mutex_lock);
    Only(locks, m_Writer);
    DeadlineThread reader([&] {
        EXPECT_TRUE(m_Lock.BeginRead());
        EXPECT_TRUE(m_Lock.EndRead());
    });
    EXPECT_TRUE(WaitUntil([&] { return locks.Calls() != 0; })) << "a new reader queues behind it";
    EXPECT_FALSE(writer.HasEnded());
    EXPECT_FALSE(reader.HasEnded());
    EXPECT_EQ(0, Readers());
    // Nothing but the semaphore's own record can free it.
    EXPECT_EQ(1, KovaPostLocalSemaphore(m_Readers));
    writer.Join();
    reader.Join();
    EXPECT_EQ(0, Readers());
}

// --- Failures ---

class ReadWriteLockFailure : public ReadWriteLock {
  protected:
    /// Makes the next wait for the writer's mutex fail with EINVAL.
    class FailingLock {
      public:
        explicit FailingLock(pthread_mutex_t* writer) {
            Only(m_Trylock, writer);
            Only(m_Lock, writer);
        }

      private:
        fake::Script<int(pthread_mutex_t*)> m_Trylock{fake::pthread_mutex_trylock, {fake::Return(EBUSY)}};
        fake::Script<int(pthread_mutex_t*)> m_Lock{fake::pthread_mutex_lock, {fake::Return(EINVAL)}};
    };
};

TEST_F(ReadWriteLockFailure, OfAReaderThatWritesEndsTheProcess) {
    ExpectAbend(
        [&] {
            EXPECT_TRUE(m_Lock.BeginWrite());
            m_Lock.BeginRead();
        },
        {{kMutexFailed, {m_Writer, EDEADLK, EDEADLK}}});
}

TEST_F(ReadWriteLockFailure, OfAWriterThatWritesAlreadyEndsTheProcess) {
    ExpectAbend(
        [&] {
            EXPECT_TRUE(m_Lock.BeginWrite());
            m_Lock.BeginWrite();
        },
        {{kMutexFailed, {m_Writer, EDEADLK, EDEADLK}}});
}

TEST_F(ReadWriteLockFailure, OfTheEndOfAWriteOnAnotherThreadEndsTheProcess) {
    KOVA_SKIP_UNDER_TSAN("it ends the process itself when a mutex is unlocked that is not locked");
    const ChildResult child = RunInChild([&] {
        EXPECT_TRUE(m_Lock.BeginWrite());
        Elsewhere([&] {
            errno = 0;
            m_Lock.EndWrite();
        });
    });
    EXPECT_EQ(SIGABRT, child.signal) << testing::PrintToString(child);
    EXPECT_TRUE(m_Recorder.Has(kMutexFailed, {Word(m_Writer).value, EPERM, EPERM}));
    EXPECT_EQ(2u, m_Recorder.All().size());
}

TEST_F(ReadWriteLockFailure, OfTheEndOfAWriteThatNobodyBeganEndsTheProcess) {
    KOVA_SKIP_UNDER_TSAN("it ends the process itself when a mutex is unlocked that is not locked");
    ExpectAbend(
        [&] {
            errno = 0;
            m_Lock.EndWrite();
        },
        {{kMutexFailed, {m_Writer, EPERM, EPERM}}});
}

// What follows is seen on a thread only that is aborting already: elsewhere the part has ended the process.

TEST_F(ReadWriteLockFailure, OfTheLockEndsBeginReadWithTheCodeOfTheReaders) {
    WhileAborting([&] {
        const TraceRecorder recorder;
        const FailingLock fails(m_Writer);
        EXPECT_FALSE(m_Lock.BeginRead());
        EXPECT_TRUE(Left(0, "bool KovaLocalReadWriteLock::BeginRead()")) << "the readers did not fail";
        EXPECT_EQ(0, Readers());
        ExpectRecords(recorder,
                      {{kMutexFailed, {m_Writer, EINVAL, EINVAL}}, AbendAgain(), {kBeginRead, {&m_Lock}}});
    });
}

TEST_F(ReadWriteLockFailure, OfThePostEndsBeginReadWithoutUnlocking) {
    WhileAborting([&] {
        const TraceRecorder recorder;
        fake::Script signals(fake::pthread_cond_signal, {fake::Fail(EIO)});
        Only(signals, &m_Readers->condition);
        EXPECT_FALSE(m_Lock.BeginRead());
        EXPECT_TRUE(Left(EIO, "bool KovaLocalReadWriteLock::BeginRead()"));
        EXPECT_EQ(EBUSY, ::pthread_mutex_trylock(m_Writer));
        ExpectRecords(recorder, {{kPostFailed, {m_Readers, -1, EIO}}, AbendAgain(), {kBeginRead, {&m_Lock}}});
    });
}

TEST_F(ReadWriteLockFailure, OfTheUnlockEndsBeginReadWithTheCodeOfTheReaders) {
    WhileAborting([&] {
        const TraceRecorder recorder;
        fake::Script unlocks(fake::pthread_mutex_unlock, {fake::Return(EPERM)});
        Only(unlocks, m_Writer);
        EXPECT_FALSE(m_Lock.BeginRead());
        EXPECT_TRUE(Left(0, "bool KovaLocalReadWriteLock::BeginRead()"));
        EXPECT_EQ(1, Readers());
        ExpectRecords(recorder,
                      {{kMutexFailed, {m_Writer, EPERM, EPERM}}, AbendAgain(), {kBeginRead, {&m_Lock}}});
    });
}

TEST_F(ReadWriteLockFailure, OfTheWaitEndsEndReadAfterItsPost) {
    WhileAborting([&] {
        const TraceRecorder recorder;
        fake::Script waits(fake::pthread_cond_wait, {fake::Return(EINVAL)});
        Only(waits, &m_Readers->condition);
        errno = EIO;
        EXPECT_FALSE(m_Lock.EndRead());
        EXPECT_TRUE(Left(EIO, "bool KovaLocalReadWriteLock::EndRead()"));
        EXPECT_EQ(1, Drained());
        ExpectRecords(recorder,
                      {{kWaitFailed, {m_Readers, EINVAL, EIO}}, AbendAgain(), {kEndRead, {&m_Lock}}});
    });
}

TEST_F(ReadWriteLockFailure, OfTheLockEndsBeginWriteWithoutWaitingForReaders) {
    WhileAborting([&] {
        EXPECT_TRUE(m_Lock.BeginRead());
        const TraceRecorder recorder;
        const FailingLock fails(m_Writer);
        EXPECT_FALSE(m_Lock.BeginWrite());
        EXPECT_TRUE(Left(EINVAL, "bool KovaLocalReadWriteLock::BeginWrite()"));
        EXPECT_EQ(1, Readers());
        ExpectRecords(recorder,
                      {{kMutexFailed, {m_Writer, EINVAL, EINVAL}}, AbendAgain(), {kBeginWrite, {&m_Lock}}});
    });
}

TEST_F(ReadWriteLockFailure, OfTheWaitIsNoneOfTryWrite) {
    WhileAborting([&] {
        const TraceRecorder recorder;
        fake::Script waits(fake::pthread_cond_wait, {fake::Return(EINVAL)});
        Only(waits, &m_Readers->condition);
        errno = EIO;
        EXPECT_TRUE(m_Lock.TryWrite());
        EXPECT_TRUE(Left(0, "bool KovaLocalReadWriteLock::TryWrite()"));
        EXPECT_EQ(EBUSY, ::pthread_mutex_trylock(m_Writer));
        EXPECT_EQ(2u, recorder.All().size());
    });
}

TEST_F(ReadWriteLockFailure, OfTheUnlockEndsEndWrite) {
    WhileAborting([&] {
        const TraceRecorder recorder;
        EXPECT_TRUE(m_Lock.BeginWrite());
        fake::Script unlocks(fake::pthread_mutex_unlock, {fake::Return(EPERM)});
        Only(unlocks, m_Writer);
        errno = 0;
        EXPECT_FALSE(m_Lock.EndWrite());
        EXPECT_TRUE(Left(EPERM, "bool KovaLocalReadWriteLock::EndWrite()"));
        ExpectRecords(recorder,
                      {{kMutexFailed, {m_Writer, EPERM, EPERM}}, AbendAgain(), {kEndWrite, {&m_Lock}}});
    });
}

}  // namespace
