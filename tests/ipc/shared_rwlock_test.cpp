#include "ipc/ipc_sets.h"
#include "support/fake_libc.h"
#include "support/process.h"
#include "support/trace_recorder.h"
#include "sync/locks.h"

#include <kova/shared_rwlock.h>
#include <kova/shared_semaphore.h>

#include <fcntl.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/sem.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

using Texts = std::vector<std::string>;
using Values = std::vector<int>;

constexpr const char* kBeginRead = "begin read set=%d";
constexpr const char* kBeganRead = "began read set=%d";
constexpr const char* kEndRead = "end read set=%d";
constexpr const char* kEndedRead = "ended read set=%d";
constexpr const char* kBeginWrite = "begin write set=%d";
constexpr const char* kBeganWrite = "began write set=%d";
constexpr const char* kTryWrite = "try write set=%d";
constexpr const char* kTriedWrite = "tried write set=%d";
constexpr const char* kEndWrite = "end write set=%d";
constexpr const char* kEndedWrite = "ended write set=%d";
constexpr const char* kInterrupted = "semop set=%d interrupted";
constexpr const char* kPersistentFailed = "persistent set=%d errno=%d";
constexpr const char* kNoSet = "no set key=%x count=%d errno=%d";

constexpr const char* kConstructor = "KovaSharedReadWriteLock::KovaSharedReadWriteLock(const char*)";
constexpr const char* kBeginReadFunction = "bool KovaSharedReadWriteLock::BeginRead()";
constexpr const char* kEndReadFunction = "bool KovaSharedReadWriteLock::EndRead()";
constexpr const char* kBeginWriteFunction = "bool KovaSharedReadWriteLock::BeginWrite()";
constexpr const char* kTryWriteFunction = "bool KovaSharedReadWriteLock::TryWrite()";
constexpr const char* kEndWriteFunction = "bool KovaSharedReadWriteLock::EndWrite()";

constexpr const char* kName = "x";
constexpr const char* kPath = "/tmp/kova/x.kovasem";

/// Positions of the set.
enum { kReferences, kPersistent, kReaders, kGate };

static_assert(std::is_base_of_v<KovaBaseObject, KovaSharedReadWriteLock>);
static_assert(std::has_virtual_destructor_v<KovaSharedReadWriteLock>);
static_assert(!std::is_copy_constructible_v<KovaSharedReadWriteLock>);
static_assert(!std::is_copy_assignable_v<KovaSharedReadWriteLock>);
static_assert(std::is_same_v<decltype(KovaSharedReadWriteLock::m_InitVals), const int[2]>);
static_assert(
    std::is_same_v<decltype(&KovaSharedReadWriteLock::BeginRead), bool (KovaSharedReadWriteLock::*)()>);
static_assert(
    std::is_same_v<decltype(&KovaSharedReadWriteLock::SetPersistent), bool (KovaSharedReadWriteLock::*)()>);
static_assert(
    std::is_same_v<decltype(&KovaSharedReadWriteLock::GetRefCounter), int (KovaSharedReadWriteLock::*)()>);

/// How many wait until a position is 0.
int ZeroWaiters(int set, int position) { return fake::semctl.Real(set, position, GETZCNT, 0); }

// --- The calls, the records and the traces ---

class SharedReadWriteLock : public ipc::Test {
  protected:
    SharedReadWriteLock()
        : m_Lock(std::make_unique<KovaSharedReadWriteLock>(kName)), m_Set(ipc::FindSet(kPath)) {
        EXPECT_LE(0, m_Set);
        m_Recorder.Clear();
    }

    Values All() const { return ipc::Values(m_Set); }

    testing::AssertionResult HasError(int code, const char* function) const {
        if (m_Lock->GetError() == code && m_Lock->GetErrorFunction() != nullptr &&
            m_Lock->GetErrorFunction() == std::string(function) && m_Lock->GetErrorLine() > 0) {
            return testing::AssertionSuccess();
        }
        return testing::AssertionFailure()
               << m_Lock->GetError() << " at line " << m_Lock->GetErrorLine() << " of "
               << (m_Lock->GetErrorFunction() != nullptr ? m_Lock->GetErrorFunction() : "nothing");
    }

    /// The texts of these calls for the set: {"semop", "[3 -1 SEM_UNDO]"} for example.
    Texts Calls(const std::vector<std::pair<const char*, const char*>>& calls) const {
        Texts texts;
        for (const auto& [function, rest] : calls) {
            texts.push_back(std::string(function) + " " + std::to_string(m_Set) + " " + rest);
        }
        return texts;
    }

    /// The operation gives `result` by these calls, records `code` under its own text whatever came of it,
    /// and traces its begin and its end while the traces are on.
    void Expect(bool (KovaSharedReadWriteLock::*operation)(), bool result, int code, const char* function,
                const std::vector<std::pair<const char*, const char*>>& calls, const Records& traces) {
        SCOPED_TRACE(function);
        m_Recorder.Clear();
        {
            const fake::Journal journal({&fake::semop, &fake::semtimedop, &fake::semctl}, fake::kThisThread);
            EXPECT_EQ(result, (m_Lock.get()->*operation)());
            EXPECT_EQ(Calls(calls), journal.Texts());
        }
        EXPECT_TRUE(HasError(code, function));
        ExpectRecords(m_Recorder, traces);
    }

    std::unique_ptr<KovaSharedReadWriteLock> m_Lock;
    const int m_Set;
    TraceRecorder m_Recorder;
};

TEST_F(SharedReadWriteLock, IsASetOfTwoPositions) {
    EXPECT_EQ(0, KovaSharedReadWriteLock::m_InitVals[0]);
    EXPECT_EQ(1, KovaSharedReadWriteLock::m_InitVals[1]);
    EXPECT_EQ((Values{1, 0, 0, 1}), All());
    EXPECT_EQ(1, m_Lock->GetRefCounter());
    EXPECT_TRUE(HasError(0, kConstructor)) << "recorded whatever came of it";
    ASSERT_EQ(1u, ipc::Sets().size());
    m_Lock.reset();
    EXPECT_TRUE(ipc::Sets().empty());
}

TEST_F(SharedReadWriteLock, ReaderHoldsTheGateWhileItIsCounted) {
    Expect(&KovaSharedReadWriteLock::BeginRead, true, 0, kBeginReadFunction,
           {{"semop", "[3 -1 SEM_UNDO]"}, {"semop", "[2 +1 SEM_UNDO]"}, {"semctl", "3 SETVAL 1"}},
           {{kBeginRead, {m_Set}}, {kBeganRead, {m_Set}}});
    EXPECT_EQ((Values{1, 0, 1, 1}), All());
    Expect(&KovaSharedReadWriteLock::EndRead, true, 0, kEndReadFunction, {{"semop", "[2 -1 SEM_UNDO]"}},
           {{kEndRead, {m_Set}}, {kEndedRead, {m_Set}}});
    EXPECT_EQ((Values{1, 0, 0, 1}), All());
}

TEST_F(SharedReadWriteLock, WriterTakesTheGateAndWaitsForTheReaders) {
    Expect(&KovaSharedReadWriteLock::BeginWrite, true, 0, kBeginWriteFunction,
           {{"semop", "[3 -1 SEM_UNDO]"}, {"semop", "[2 0 SEM_UNDO]"}},
           {{kBeginWrite, {m_Set}}, {kBeganWrite, {m_Set}}});
    EXPECT_EQ((Values{1, 0, 0, 0}), All());
    Expect(&KovaSharedReadWriteLock::EndWrite, true, 0, kEndWriteFunction, {{"semctl", "3 SETVAL 1"}},
           {{kEndWrite, {m_Set}}, {kEndedWrite, {m_Set}}});
    EXPECT_EQ((Values{1, 0, 0, 1}), All());
}

TEST_F(SharedReadWriteLock, TryWriteTriesTheGateOnly) {
    Expect(&KovaSharedReadWriteLock::TryWrite, true, 0, kTryWriteFunction,
           {{"semop", "[3 -1 IPC_NOWAIT|SEM_UNDO]"}, {"semop", "[2 0 SEM_UNDO]"}},
           {{kTryWrite, {m_Set}}, {kTriedWrite, {m_Set}}});
    EXPECT_EQ((Values{1, 0, 0, 0}), All());
    Expect(&KovaSharedReadWriteLock::TryWrite, false, 11, kTryWriteFunction,
           {{"semop", "[3 -1 IPC_NOWAIT|SEM_UNDO]"}}, {{kTryWrite, {m_Set}}, {kTriedWrite, {m_Set}}});
    EXPECT_EQ((Values{1, 0, 0, 0}), All());
    EXPECT_TRUE(m_Lock->EndWrite());
}

TEST_F(SharedReadWriteLock, RecordsSuccessUnderTheTextOfTheOperation) {
    EXPECT_TRUE(m_Lock->BeginWrite());
    EXPECT_FALSE(m_Lock->TryWrite());
    EXPECT_TRUE(HasError(EAGAIN, kTryWriteFunction));
    EXPECT_TRUE(m_Lock->EndWrite());
    EXPECT_TRUE(HasError(0, kEndWriteFunction));
}

TEST_F(SharedReadWriteLock, EndWriteWithoutBeginWriteKeepsTheGateAtOne) {
    for (int i = 0; i < 3; ++i) EXPECT_TRUE(m_Lock->EndWrite());
    EXPECT_EQ((Values{1, 0, 0, 1}), All());
}

TEST_F(SharedReadWriteLock, ReadersDoNotExcludeEachOther) {
    for (int readers = 1; readers <= 3; ++readers) {
        EXPECT_TRUE(m_Lock->BeginRead());
        EXPECT_EQ((Values{1, 0, readers, 1}), All());
    }
    for (int readers = 2; readers >= 0; --readers) {
        EXPECT_TRUE(m_Lock->EndRead());
        EXPECT_EQ((Values{1, 0, readers, 1}), All());
    }
}

TEST_F(SharedReadWriteLock, TracesCanBeSwitchedOff) {
    m_Lock->SetTrace(false);
    EXPECT_TRUE(m_Lock->BeginRead());
    EXPECT_TRUE(m_Lock->EndRead());
    EXPECT_TRUE(m_Lock->BeginWrite());
    EXPECT_FALSE(m_Lock->TryWrite());
    EXPECT_TRUE(m_Lock->EndWrite());
    EXPECT_TRUE(m_Lock->TryWrite());
    EXPECT_TRUE(m_Lock->EndWrite());
    ExpectRecords(m_Recorder, {});
    const fake::Always operations(fake::semop, fake::Fail(EIDRM), fake::kThisThread);
    EXPECT_FALSE(m_Lock->BeginRead());
    EXPECT_FALSE(m_Lock->EndRead());
    EXPECT_FALSE(m_Lock->BeginWrite());
    EXPECT_FALSE(m_Lock->TryWrite());
    ExpectRecords(m_Recorder, {});
    m_Lock->SetTrace(true);
    EXPECT_FALSE(m_Lock->EndRead());
    ExpectRecords(m_Recorder, {{kEndRead, {m_Set}}, {kEndedRead, {m_Set}}});
}

TEST_F(SharedReadWriteLock, OneTracesApartFromAnother) {
    KovaSharedReadWriteLock other(kName);
    m_Recorder.Clear();
    m_Lock->SetTrace(false);
    EXPECT_TRUE(other.BeginRead());
    EXPECT_TRUE(m_Lock->EndRead());
    ExpectRecords(m_Recorder, {{kBeginRead, {m_Set}}, {kBeganRead, {m_Set}}});
}

TEST_F(SharedReadWriteLock, InterruptionsAreRepeatedAndTracedInAnyCase) {
    m_Lock->SetTrace(false);
    const fake::Script operations(
        fake::semop, {fake::Fail(EINTR), fake::Real(), fake::Fail(EINTR), fake::Real(), fake::Real()},
        fake::kThisThread);
    EXPECT_TRUE(m_Lock->BeginRead());
    EXPECT_TRUE(m_Lock->EndRead());
    ExpectRecords(m_Recorder, {{kInterrupted, {m_Set}}, {kInterrupted, {m_Set}}});
}

TEST_F(SharedReadWriteLock, PersistentOneStays) {
    EXPECT_TRUE(m_Lock->SetPersistent());
    EXPECT_EQ((Values{1, 1, 0, 1}), All());
    EXPECT_TRUE(m_Lock->BeginRead());
    m_Lock.reset();
    EXPECT_EQ((Values{0, 1, 1, 1}), All());
    m_Lock = std::make_unique<KovaSharedReadWriteLock>(kName);
    EXPECT_EQ((Values{1, 1, 1, 1}), All()) << "as it was left";
    EXPECT_EQ(1, m_Lock->GetRefCounter());
    m_Lock.reset();
    ipc::Remove(m_Set);
}

TEST_F(SharedReadWriteLock, CountsItsUsers) {
    {
        KovaSharedReadWriteLock other(kName);
        EXPECT_EQ(2, other.GetRefCounter());
        EXPECT_EQ(2, m_Lock->GetRefCounter());
        EXPECT_EQ(1u, ipc::Sets().size());
    }
    EXPECT_EQ(1, m_Lock->GetRefCounter());
}

TEST_F(SharedReadWriteLock, SetPersistentAndRefCounterLeaveRecordAndTracesAlone) {
    EXPECT_TRUE(m_Lock->BeginWrite());
    EXPECT_FALSE(m_Lock->TryWrite());
    const int line = m_Lock->GetErrorLine();
    m_Recorder.Clear();
    EXPECT_TRUE(m_Lock->SetPersistent());
    EXPECT_EQ(1, m_Lock->GetRefCounter());
    {
        const fake::Script reads(fake::semctl, {fake::Fail(EACCES)}, fake::kThisThread);
        EXPECT_EQ(-1, m_Lock->GetRefCounter());
    }
    EXPECT_TRUE(HasError(EAGAIN, kTryWriteFunction));
    EXPECT_EQ(line, m_Lock->GetErrorLine());
    ExpectRecords(m_Recorder, {});
    EXPECT_TRUE(m_Lock->EndWrite());
    ipc::SetValue(m_Set, kPersistent, 0);
}

TEST_F(SharedReadWriteLock, SharesItsSetWithTheSemaphoreOfItsName) {
    KovaSharedSemaphore semaphore(kName, 7, 2);
    EXPECT_EQ(m_Set, semaphore.GetHandle());
    EXPECT_EQ((Values{2, 0, 0, 1}), All());
    EXPECT_TRUE(m_Lock->BeginRead());
    EXPECT_EQ(1, semaphore.GetVal(0));
    EXPECT_TRUE(semaphore.TryWait(-1, 0)) << "ends the read";
    EXPECT_TRUE(semaphore.TryWait(-1, 1)) << "takes the gate";
    EXPECT_FALSE(m_Lock->TryWrite());
    EXPECT_TRUE(m_Lock->EndWrite());
    EXPECT_EQ((Values{2, 0, 0, 1}), All());
}

TEST_F(SharedReadWriteLock, NameIsThatOfItsSemaphore) {
    const std::string longest(64, 'n');
    const KovaSharedReadWriteLock shorter(longest.substr(1).c_str());
    EXPECT_LE(0, ipc::FindSet("/tmp/kova/" + longest.substr(1) + ".kovasem"));
    const KovaSharedReadWriteLock exact(longest.c_str());
    KovaSharedReadWriteLock longer((longest + "m").c_str());
    EXPECT_LE(0, ipc::FindSet("/tmp/kova/" + longest + ".kovasem"));
    EXPECT_EQ(2, longer.GetRefCounter());
    {
        ::setenv("KOVA_TEST_NAME", kName, 1);
        const KovaSharedReadWriteLock expanded("$KOVA_TEST_NAME");
        EXPECT_EQ(2, m_Lock->GetRefCounter());
    }
    ::unsetenv("KOVA_TEST_NAME");
    EXPECT_EQ(3u, ipc::Sets().size());
}

// --- Failures ---

class SharedReadWriteLockFailure : public SharedReadWriteLock {
  protected:
    static constexpr std::pair<const char*, const char*> kTakeGate{"semop", "[3 -1 SEM_UNDO]"};
    static constexpr std::pair<const char*, const char*> kTryGate{"semop", "[3 -1 IPC_NOWAIT|SEM_UNDO]"};
    static constexpr std::pair<const char*, const char*> kCount{"semop", "[2 +1 SEM_UNDO]"};
    static constexpr std::pair<const char*, const char*> kAwaitReaders{"semop", "[2 0 SEM_UNDO]"};
    static constexpr std::pair<const char*, const char*> kOpenGate{"semctl", "3 SETVAL 1"};

    const Records m_BeginReadTraces{{kBeginRead, {m_Set}}, {kBeganRead, {m_Set}}};
    const Records m_BeginWriteTraces{{kBeginWrite, {m_Set}}, {kBeganWrite, {m_Set}}};
    const Records m_TryWriteTraces{{kTryWrite, {m_Set}}, {kTriedWrite, {m_Set}}};
};

TEST_F(SharedReadWriteLockFailure, OfAnyStepOfBeginReadIsFalseAndAllStepsAreDone) {
    const std::vector<std::pair<const char*, const char*>> all{kTakeGate, kCount, kOpenGate};
    {
        const fake::Script operations(fake::semop, {fake::Fail(EACCES), fake::Real()}, fake::kThisThread);
        Expect(&KovaSharedReadWriteLock::BeginRead, false, 0, kBeginReadFunction, all, m_BeginReadTraces);
        EXPECT_EQ((Values{1, 0, 1, 1}), All()) << "counted without the gate";
    }
    {
        const fake::Script operations(fake::semop, {fake::Real(), fake::Fail(ERANGE)}, fake::kThisThread);
        Expect(&KovaSharedReadWriteLock::BeginRead, false, 0, kBeginReadFunction, all, m_BeginReadTraces);
        EXPECT_EQ((Values{1, 0, 1, 1}), All());
    }
    {
        const fake::Script controls(fake::semctl, {fake::Fail(EACCES)}, fake::kThisThread);
        Expect(&KovaSharedReadWriteLock::BeginRead, false, EACCES, kBeginReadFunction, all,
               m_BeginReadTraces);
        EXPECT_EQ((Values{1, 0, 2, 0}), All()) << "the gate stays closed";
    }
    {
        const fake::Script operations(fake::semop, {fake::Fail(EACCES), fake::Fail(ERANGE)},
                                      fake::kThisThread);
        const fake::Script controls(fake::semctl, {fake::Fail(EIDRM)}, fake::kThisThread);
        Expect(&KovaSharedReadWriteLock::BeginRead, false, EIDRM, kBeginReadFunction, all, m_BeginReadTraces);
    }
}

TEST_F(SharedReadWriteLockFailure, OfTheGateLeavesTheReadersAlone) {
    const fake::Script operations(fake::semop, {fake::Fail(EACCES), fake::Fail(EIDRM)}, fake::kThisThread);
    Expect(&KovaSharedReadWriteLock::BeginWrite, false, EACCES, kBeginWriteFunction, {kTakeGate},
           m_BeginWriteTraces);
    Expect(&KovaSharedReadWriteLock::TryWrite, false, EIDRM, kTryWriteFunction, {kTryGate}, m_TryWriteTraces);
    EXPECT_EQ((Values{1, 0, 0, 1}), All());
}

TEST_F(SharedReadWriteLockFailure, OfTheWaitForReadersLeavesTheGateClosed) {
    const fake::Script operations(
        fake::semop, {fake::Real(), fake::Fail(EACCES), fake::Real(), fake::Fail(EIDRM)}, fake::kThisThread);
    Expect(&KovaSharedReadWriteLock::BeginWrite, false, EACCES, kBeginWriteFunction,
           {kTakeGate, kAwaitReaders}, m_BeginWriteTraces);
    EXPECT_EQ((Values{1, 0, 0, 0}), All());
    EXPECT_TRUE(m_Lock->EndWrite());
    Expect(&KovaSharedReadWriteLock::TryWrite, false, EIDRM, kTryWriteFunction, {kTryGate, kAwaitReaders},
           m_TryWriteTraces);
    EXPECT_EQ((Values{1, 0, 0, 0}), All());
}

TEST_F(SharedReadWriteLockFailure, OfTheEndsIsTold) {
    const fake::Script operations(fake::semop, {fake::Fail(EIDRM)}, fake::kThisThread);
    Expect(&KovaSharedReadWriteLock::EndRead, false, EIDRM, kEndReadFunction, {{"semop", "[2 -1 SEM_UNDO]"}},
           {{kEndRead, {m_Set}}, {kEndedRead, {m_Set}}});
    const fake::Script controls(fake::semctl, {fake::Fail(EACCES)}, fake::kThisThread);
    Expect(&KovaSharedReadWriteLock::EndWrite, false, EACCES, kEndWriteFunction, {kOpenGate},
           {{kEndWrite, {m_Set}}, {kEndedWrite, {m_Set}}});
}

TEST_F(SharedReadWriteLockFailure, OfARemovedSetIsTold) {
    ipc::Remove(m_Set);
    EXPECT_FALSE(m_Lock->BeginRead());
    EXPECT_TRUE(HasError(EINVAL, kBeginReadFunction));
    EXPECT_FALSE(m_Lock->EndRead());
    EXPECT_TRUE(HasError(EINVAL, kEndReadFunction));
    EXPECT_FALSE(m_Lock->BeginWrite());
    EXPECT_TRUE(HasError(EINVAL, kBeginWriteFunction));
    EXPECT_FALSE(m_Lock->TryWrite());
    EXPECT_TRUE(HasError(EINVAL, kTryWriteFunction));
    EXPECT_FALSE(m_Lock->EndWrite());
    EXPECT_TRUE(HasError(EINVAL, kEndWriteFunction));
    EXPECT_EQ(-1, m_Lock->GetRefCounter());
    m_Lock.reset();
}

TEST_F(SharedReadWriteLockFailure, OfTheConstructorEndsTheProcess) {
    const TraceRecorder recorder;
    const ChildResult child = RunInChild([] {
        const fake::Always sets(fake::semget, fake::Fail(ENOSPC), fake::kThisThread);
        const KovaSharedReadWriteLock lock(kName);
    });
    EXPECT_EQ(SIGABRT, child.signal);
    EXPECT_TRUE(recorder.Has(kNoSet, {int64_t{ipc::KeyOf(kPath)}, 2, ENOSPC}));
    WhileAborting([] {
        const fake::Always sets(fake::semget, fake::Fail(ENOSPC), fake::kThisThread);
        const KovaSharedReadWriteLock lock(kName);
        EXPECT_EQ(ENOSPC, lock.GetError());
        EXPECT_STREQ(kConstructor, lock.GetErrorFunction());
        EXPECT_LT(0, lock.GetErrorLine());
    });
}

TEST_F(SharedReadWriteLockFailure, OfSetPersistentEndsTheProcess) {
    ExpectAbend(
        [&] {
            const fake::Always controls(fake::semctl, fake::Fail(EACCES), fake::kThisThread);
            m_Lock->SetPersistent();
        },
        {{kPersistentFailed, {m_Set, EACCES}}});
}

// --- Between processes ---

/// Does what it is told and tells what came of it: the result, and the code in the record.
KOVA_PART(lock_user) {
    KovaSharedReadWriteLock lock(kName);
    const std::map<std::string, bool (KovaSharedReadWriteLock::*)()> operations{
        {"begin read", &KovaSharedReadWriteLock::BeginRead},
        {"end read", &KovaSharedReadWriteLock::EndRead},
        {"begin write", &KovaSharedReadWriteLock::BeginWrite},
        {"try write", &KovaSharedReadWriteLock::TryWrite},
        {"end write", &KovaSharedReadWriteLock::EndWrite},
        {"persist", &KovaSharedReadWriteLock::SetPersistent}};
    process::Tell("ready");
    for (std::string line = process::Listen(); line != "end"; line = process::Listen()) {
        const bool result = (lock.*operations.at(line))();
        process::Tell(std::string(result ? "true " : "false ") + std::to_string(lock.GetError()));
    }
    return 0;
}

/// A process that plays it.
class LockUser {
  public:
    LockUser() : m_Process("lock_user") { EXPECT_EQ("ready", m_Process.Hear()); }

    void Say(const std::string& command) { m_Process.Say(command); }
    std::string Hear() { return m_Process.Hear(); }
    std::string Does(const std::string& command) {
        Say(command);
        return Hear();
    }
    int Kill() {
        m_Process.Kill();
        return m_Process.Wait();
    }
    int End() {
        Say("end");
        return m_Process.Wait();
    }

  private:
    process::Process m_Process;
};

constexpr const char* kTrue = "true 0";

/// A lock that is open in this process, too.
class ReadWriteLockProcesses : public ipc::Test {
  protected:
    ReadWriteLockProcesses() : m_Set(ipc::FindSet(kPath)) {}

    int Readers() const { return ipc::Value(m_Set, kReaders); }
    int Gate() const { return ipc::Value(m_Set, kGate); }
    testing::AssertionResult WaitsForGate(int waiters = 1) const {
        return WaitUntil([=, this] { return ipc::Waiters(m_Set, kGate) == waiters; })
                   ? testing::AssertionSuccess()
                   : testing::AssertionFailure();
    }
    testing::AssertionResult WaitsForReaders() const {
        return WaitUntil([this] { return ZeroWaiters(m_Set, kReaders) == 1; }) ? testing::AssertionSuccess()
                                                                               : testing::AssertionFailure();
    }

    KovaSharedReadWriteLock m_Lock{kName};
    const int m_Set;
};

TEST_F(ReadWriteLockProcesses, WriterWaitsUntilBothReadersHaveLeft) {
    LockUser first;
    LockUser second;
    LockUser writer;
    EXPECT_EQ(kTrue, first.Does("begin read"));
    EXPECT_EQ(kTrue, second.Does("begin read"));
    EXPECT_EQ((Values{4, 0, 2, 1}), ipc::Values(m_Set));
    writer.Say("begin write");
    EXPECT_TRUE(WaitsForReaders());
    EXPECT_EQ(kTrue, first.Does("end read"));
    EXPECT_TRUE(WaitsForReaders());
    EXPECT_EQ(1, Readers());
    EXPECT_EQ(0, Gate());
    EXPECT_EQ(kTrue, second.Does("end read"));
    EXPECT_EQ(kTrue, writer.Hear());
    EXPECT_EQ((Values{4, 0, 0, 0}), ipc::Values(m_Set));
    EXPECT_EQ(kTrue, writer.Does("end write"));
    EXPECT_EQ((Values{4, 0, 0, 1}), ipc::Values(m_Set));
}

TEST_F(ReadWriteLockProcesses, WriterKeepsReadersAndWritersOut) {
    LockUser writer;
    LockUser reader;
    LockUser other;
    EXPECT_EQ(kTrue, writer.Does("begin write"));
    reader.Say("begin read");
    EXPECT_TRUE(WaitsForGate());
    EXPECT_EQ("false 11", other.Does("try write"));
    EXPECT_EQ(0, Readers());
    EXPECT_EQ(kTrue, writer.Does("end write"));
    EXPECT_EQ(kTrue, reader.Hear());
    EXPECT_EQ(kTrue, reader.Does("end read"));

    EXPECT_EQ(kTrue, writer.Does("begin write"));
    other.Say("begin write");
    EXPECT_TRUE(WaitsForGate());
    EXPECT_EQ(kTrue, writer.Does("end write"));
    EXPECT_EQ(kTrue, other.Hear());
    EXPECT_EQ(0, Gate());
    EXPECT_EQ(kTrue, other.Does("end write"));
}

TEST_F(ReadWriteLockProcesses, WaitingWriterKeepsNewReadersOut) {
    LockUser reader;
    LockUser writer;
    LockUser late;
    EXPECT_EQ(kTrue, reader.Does("begin read"));
    writer.Say("begin write");
    EXPECT_TRUE(WaitsForReaders());
    late.Say("begin read");
    EXPECT_TRUE(WaitsForGate());
    EXPECT_EQ(1, Readers());
    EXPECT_EQ(kTrue, reader.Does("end read"));
    EXPECT_EQ(kTrue, writer.Hear());
    EXPECT_EQ(kTrue, writer.Does("end write"));
    EXPECT_EQ(kTrue, late.Hear());
    EXPECT_EQ(kTrue, late.Does("end read"));
}

TEST_F(ReadWriteLockProcesses, TryWriteWaitsForReadersAllTheSame) {
    LockUser reader;
    LockUser writer;
    EXPECT_EQ(kTrue, reader.Does("begin read"));
    writer.Say("try write");
    EXPECT_TRUE(WaitsForReaders());
    EXPECT_EQ(kTrue, reader.Does("end read"));
    EXPECT_EQ(kTrue, writer.Hear());
    EXPECT_EQ(kTrue, writer.Does("end write"));
}

TEST_F(ReadWriteLockProcesses, ReaderThatDiesIsTakenOffTheCount) {
    LockUser dies;
    LockUser ends;
    LockUser writer;
    EXPECT_EQ(kTrue, dies.Does("begin read"));
    EXPECT_EQ(kTrue, dies.Does("begin read"));
    EXPECT_EQ(kTrue, ends.Does("begin read"));
    writer.Say("begin write");
    EXPECT_TRUE(WaitsForReaders());
    EXPECT_EQ(-SIGKILL, dies.Kill());
    EXPECT_TRUE(WaitsForReaders());
    EXPECT_EQ(1, Readers());
    EXPECT_EQ(0, ends.End());
    EXPECT_EQ(kTrue, writer.Hear());
    EXPECT_EQ((Values{2, 0, 0, 0}), ipc::Values(m_Set));
    EXPECT_EQ(kTrue, writer.Does("end write"));
}

TEST_F(ReadWriteLockProcesses, WriterThatDiesOpensTheGate) {
    LockUser writer;
    LockUser reader;
    EXPECT_EQ(kTrue, writer.Does("begin write"));
    reader.Say("begin read");
    EXPECT_TRUE(WaitsForGate());
    EXPECT_EQ(-SIGKILL, writer.Kill());
    EXPECT_EQ(kTrue, reader.Hear());
    EXPECT_EQ((Values{2, 0, 1, 1}), ipc::Values(m_Set));
    EXPECT_EQ(kTrue, reader.Does("end read"));
}

TEST_F(ReadWriteLockProcesses, WriterThatDiesWhileItWaitsForReadersOpensTheGate) {
    LockUser reader;
    LockUser writer;
    EXPECT_EQ(kTrue, reader.Does("begin read"));
    writer.Say("try write");
    EXPECT_TRUE(WaitsForReaders());
    EXPECT_EQ(-SIGKILL, writer.Kill());
    EXPECT_EQ((Values{2, 0, 1, 1}), ipc::Values(m_Set));
    EXPECT_EQ(kTrue, reader.Does("end read"));
}

TEST_F(ReadWriteLockProcesses, WhoEndedItsSectionLeavesNothingToReturn) {
    LockUser user;
    EXPECT_EQ(kTrue, user.Does("begin write"));
    EXPECT_EQ(kTrue, user.Does("end write"));
    EXPECT_EQ(kTrue, user.Does("begin read"));
    EXPECT_EQ(kTrue, user.Does("end read"));
    EXPECT_EQ(-SIGKILL, user.Kill());
    EXPECT_EQ((Values{1, 0, 0, 1}), ipc::Values(m_Set)) << "the gate never counts above 1";
}

// Setting the gate erases what the kernel would return there for all processes.
TEST_F(ReadWriteLockProcesses, EndWriteOfAnotherFreesTheGateForGood) {
    LockUser writer;
    LockUser other;
    EXPECT_EQ(kTrue, writer.Does("begin write"));
    EXPECT_EQ(kTrue, other.Does("end write"));
    EXPECT_EQ(1, Gate());
    EXPECT_EQ(kTrue, other.Does("begin write"));
    EXPECT_EQ(-SIGKILL, writer.Kill());
    EXPECT_EQ(0, Gate()) << "the other one's";
    EXPECT_EQ(kTrue, other.Does("end write"));
    EXPECT_EQ(1, Gate());
}

TEST_F(ReadWriteLockProcesses, PersistentLockIsFoundAgain) {
    LockUser user;
    EXPECT_EQ(kTrue, user.Does("persist"));
    EXPECT_EQ(0, user.End());
    EXPECT_EQ((Values{1, 1, 0, 1}), ipc::Values(m_Set));
    EXPECT_EQ(kTrue, LockUser().Does("begin read"));
    EXPECT_EQ((Values{1, 1, 0, 1}), ipc::Values(m_Set));
    ipc::SetValue(m_Set, kPersistent, 0);
}

TEST_F(ReadWriteLockProcesses, ReferencesOfThoseWhoDieReturn) {
    LockUser dies;
    {
        LockUser ends;
        EXPECT_EQ(3, m_Lock.GetRefCounter());
        EXPECT_EQ(0, ends.End());
    }
    EXPECT_EQ(2, m_Lock.GetRefCounter());
    EXPECT_EQ(-SIGKILL, dies.Kill());
    EXPECT_EQ(1, m_Lock.GetRefCounter());
}

// --- Many at once ---

/// Two words that processes share; only writers see them differ.
class SharedWords {
  public:
    SharedWords() {
        const Fd file(::open("/tmp/kova/words", O_RDWR | O_CREAT | O_CLOEXEC, 0666));
        EXPECT_EQ(0, ::ftruncate(file, kSize));
        void* const page = ::mmap(nullptr, kSize, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
        EXPECT_NE(MAP_FAILED, page);
        m_Words = static_cast<volatile int*>(page);
    }
    SharedWords(const SharedWords&) = delete;
    SharedWords& operator=(const SharedWords&) = delete;
    ~SharedWords() { ::munmap(const_cast<int*>(m_Words), kSize); }

    void Increment() {
        m_Words[0] = m_Words[0] + 1;
        ::sched_yield();
        m_Words[1] = m_Words[1] + 1;
    }
    bool AreEqual() const {
        const int first = m_Words[0];
        ::sched_yield();
        return first == m_Words[1] && first == m_Words[0];
    }
    int First() const { return m_Words[0]; }

  private:
    static constexpr size_t kSize = 4096;

    volatile int* m_Words = nullptr;
};

KOVA_PART(writer) {
    KovaSharedReadWriteLock lock(kName);
    SharedWords words;
    for (int round = std::stoi(args.at(0)); round > 0; --round) {
        if (round % 2 == 0) {
            EXPECT_TRUE(lock.BeginWrite());
        } else {
            while (!lock.TryWrite()) ::sched_yield();
        }
        words.Increment();
        EXPECT_TRUE(lock.EndWrite());
    }
    return 0;
}

KOVA_PART(reader) {
    KovaSharedReadWriteLock lock(kName);
    const SharedWords words;
    for (int round = std::stoi(args.at(0)); round > 0; --round) {
        EXPECT_TRUE(lock.BeginRead());
        EXPECT_TRUE(words.AreEqual());
        EXPECT_TRUE(lock.EndRead());
    }
    return 0;
}

TEST_F(ReadWriteLockProcesses, WritersAreAloneAmongMany) {
    constexpr int kRounds = 300;
    constexpr int kWriters = 3;
    std::vector<std::unique_ptr<process::Process>> parts;
    for (const char* const part : {"writer", "reader", "writer", "reader", "writer"}) {
        parts.push_back(
            std::make_unique<process::Process>(part, std::vector<std::string>{std::to_string(kRounds)}));
    }
    for (const auto& part : parts) EXPECT_EQ(0, part->Wait());
    EXPECT_EQ(kWriters * kRounds, SharedWords().First());
    EXPECT_EQ((Values{1, 0, 0, 1}), ipc::Values(m_Set));
}

}  // namespace
