#include "support/fake_libc.h"
#include "support/leak_check.h"
#include "support/trace_recorder.h"

#include <kova/local_semaphore.h>
#include <kova/process.h>
#include <kova/thread.h>

#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csetjmp>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <filesystem>
#include <functional>
#include <iterator>
#include <limits>
#include <memory>
#include <ostream>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

constexpr const char* kState = "thread state=%d";
constexpr const char* kNotRoot = "no real-time scheduling without root";
constexpr const char* kStarted = "thread started";
constexpr const char* kNotStarted = "thread not started result=%d errno=%d";
constexpr const char* kDiffers = "scheduling differs policy=%d priority=%d";
constexpr const char* kSet = "set scheduling thread=%lx policy=%d priority=%d result=%d errno=%d";
constexpr const char* kNotSet = "scheduling not set errno=%d";
constexpr const char* kStillDiffers = "scheduling still differs policy=%d priority=%d";
constexpr const char* kEnded = "thread ended";
constexpr const char* kAwaitsEnd = "waiting for the end of thread=%d";
constexpr const char* kSyncPoint = "sync point set semaphore=%p point=%x";
constexpr const char* kWaitFailed = "no sync point semaphore=%p errno=%d target=%x point=%x state=%d";
constexpr const char* kTimedOut = "no sync point in time semaphore=%p target=%x point=%x state=%d";
constexpr const char* kWoken = "sync point semaphore=%p target=%x point=%x state=%d";
constexpr const char* kWaited = "waited for sync point semaphore=%p target=%x point=%x state=%d";
constexpr const char* kSleep = "sleep seconds=%d nanoseconds=%d argument=%d";
constexpr const char* kSemaphoreFailed = "wait semaphore=%p error=%d errno=%d";
constexpr const char* kDeletes = "delete semaphore=%p";
constexpr const char* kDeleted = "deleted semaphore=%p";
constexpr const char* kAbend = "nTid=%x KovaGetTid()=%x";

constexpr unsigned kRunning = 0x100;
constexpr unsigned kFinished = 0xF00;
constexpr unsigned long kLongMs = 60000;  // only matters when a test fails
constexpr int32_t kMax = std::numeric_limits<int32_t>::max();
constexpr int32_t kMin = std::numeric_limits<int32_t>::min();

using Texts = std::vector<std::string>;

template <typename Pointer>
uint32_t Word(Pointer value) {
    if constexpr (std::is_pointer_v<Pointer>) {
        return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(value));
    } else {
        return static_cast<uint32_t>(value);
    }
}

/// A trace record that is expected.
struct Line {
    const char* text;
    std::vector<int64_t> values = {};
};

bool operator==(const TraceRecord& record, const Line& line) {
    if (!record.Is(line.text) || record.values.size() != line.values.size()) return false;
    for (size_t i = 0; i < line.values.size(); ++i) {
        if (static_cast<uint32_t>(line.values[i]) != record.values[i]) return false;
    }
    return true;
}

testing::AssertionResult Are(const std::vector<TraceRecord>& records, const std::vector<Line>& lines) {
    bool equal = records.size() == lines.size();
    for (size_t i = 0; equal && i < lines.size(); ++i) equal = records[i] == lines[i];
    if (equal) return testing::AssertionSuccess();
    auto result = testing::AssertionFailure() << "expected:";
    for (const Line& line : lines) {
        result << "\n    " << std::hex << TraceHash(line.text) << std::dec << " \"" << line.text << "\" "
               << testing::PrintToString(line.values);
    }
    result << "\nrecorded:";
    for (const TraceRecord& record : records) result << "\n    " << testing::PrintToString(record);
    return result;
}

std::vector<TraceRecord> OfThread(pid_t tid, std::vector<TraceRecord> records) {
    std::erase_if(records, [tid](const TraceRecord& record) { return record.tid != tid; });
    return records;
}

/// Keeps threads waiting until it is opened.
class Gate {
  public:
    void Open() { m_Open = true; }
    void Pass() {
        EXPECT_TRUE(WaitUntil([this] { return m_Open.load(); }));
    }

  private:
    std::atomic<bool> m_Open = false;
};

/// A first base, so that the object and its KovaThread lie at different addresses. Destroyed after that, it
/// counts the objects that there are.
class Counted {
  public:
    Counted() { ++s_Objects; }
    Counted(const Counted&) = delete;
    Counted& operator=(const Counted&) = delete;
    virtual ~Counted() { --s_Objects; }

    static int Objects() { return s_Objects; }

  private:
    static std::atomic<int> s_Objects;
};

std::atomic<int> Counted::s_Objects = 0;

/// A worker whose work is given.
class Worker : public Counted, public KovaThread {
  public:
    using Work = std::function<int(KovaThread&)>;

    explicit Worker(Work work = {}) : KovaThread(4711), m_Work(std::move(work)) {}
    explicit Worker(KovaThreadContext* context, Work work = {})
        : KovaThread(context, -4711), m_Work(std::move(work)) {}
    ~Worker() override {
        if (at_end) at_end();
    }

    int Run() override { return m_Work ? m_Work(*this) : 0; }

    std::function<void()> at_end;

  private:
    const Work m_Work;
};

std::ptrdiff_t CountTasks() {
    const std::filesystem::directory_iterator tasks("/proc/self/task");
    return std::distance(begin(tasks), end(tasks));
}

class Thread : public KovaTest {
  protected:
    Thread() { EXPECT_EQ(0, Worker::Objects()); }
    /// Nobody joins the threads, but they use what the tests own.
    ~Thread() override { AwaitEnd(); }

    void AwaitEnd() {
        EXPECT_TRUE(WaitUntil([] { return Worker::Objects() == 0; })) << "objects are left";
        EXPECT_TRUE(WaitUntil([this] { return CountTasks() <= m_Tasks; })) << "threads are left";
    }

    /// Starts a worker and returns what its thread has recorded.
    std::vector<TraceRecord> RecordsOf(Worker* worker) {
        std::atomic<pid_t> tid = 0;
        worker->at_end = [&] { tid = ::gettid(); };
        EXPECT_TRUE(worker->StartThread());
        AwaitEnd();
        return OfThread(tid, m_Recorder.All());
    }
    /// What the test's own thread has recorded.
    std::vector<TraceRecord> OwnRecords() const { return OfThread(::gettid(), m_Recorder.All()); }

    TraceRecorder m_Recorder;

  private:
    static std::ptrdiff_t CountTasksAtStart() {
        // Beside the first thread the thread sanitizer makes one of its own, which stays.
        DeadlineThread([] {}).Join();
        return CountTasks();
    }

    const std::ptrdiff_t m_Tasks = CountTasksAtStart();
};

/// The semaphore of a context, as its records name it.
uint32_t HandleOf(const KovaThreadContext& context, const TraceRecorder& recorder) {
    for (const char* text : {kSyncPoint, kWaited}) {
        for (const TraceRecord& record : recorder.Find(text)) {
            const uint32_t handle = record.values[0];
            if (handle - Word(&context) < sizeof context) return handle;
        }
    }
    ADD_FAILURE() << "no record names a semaphore inside the context";
    return 0;
}

// --- Objects ---

TEST_F(Thread, NewObjectIsIdle) {
    const auto thread = std::make_unique<Worker>();
    EXPECT_EQ(KovaThread::THREAD_IDLE, thread->GetStatus());
    EXPECT_EQ(0, thread->GetTid());
    EXPECT_EQ(pthread_t{0}, thread->GetPthreadId());
    EXPECT_EQ(nullptr, thread->GetThreadContext());
    EXPECT_EQ(0, thread->GetError());
    EXPECT_TRUE(Are(m_Recorder.All(), {}));
}

TEST_F(Thread, NewObjectWithContextHasNoPthreadIdYet) {
    KovaThreadContext context(0);
    const auto thread = std::make_unique<Worker>(&context);
    EXPECT_EQ(KovaThread::THREAD_IDLE, thread->GetStatus());
    EXPECT_EQ(0, thread->GetTid());
    EXPECT_EQ(static_cast<pthread_t>(-1), thread->GetPthreadId());
    EXPECT_EQ(&context, thread->GetThreadContext());
    EXPECT_EQ(pthread_t{0}, context.GetPthreadId());
}

TEST_F(Thread, ContextMayBeMissing) {
    const auto thread = std::make_unique<Worker>(static_cast<KovaThreadContext*>(nullptr));
    EXPECT_EQ(nullptr, thread->GetThreadContext());
    thread->SetStatus(KovaThread::THREAD_FINISHED);
    EXPECT_EQ(KovaThread::THREAD_FINISHED, thread->GetStatus());
}

TEST_F(Thread, NumbersOfTheInterface) {
    EXPECT_EQ(0, KovaThread::THREAD_IDLE);
    EXPECT_EQ(1, KovaThread::THREAD_FINISHED);
    EXPECT_EQ(2, KovaThread::THREAD_START_FAILED);
    EXPECT_EQ(3, KovaThread::THREAD_STARTING);
    EXPECT_EQ(4, KovaThread::THREAD_RUNNING);
    EXPECT_EQ(0, KovaThread::PRIO_REGULAR);
    EXPECT_EQ(1, KovaThread::PRIO_TIME_CRITICAL);
    EXPECT_EQ(0, KovaThread::STACK_SYSTEM);
    EXPECT_EQ(1, KovaThread::STACK_SIZED);
    EXPECT_EQ(256u, KovaThreadContext::SYNC_RUNNING);
    EXPECT_EQ(3840u, KovaThreadContext::SYNC_FINISHED);
}

TEST_F(Thread, StatusIsTracedAndMirroredInTheContext) {
    KovaThreadContext context(0);
    const auto thread = std::make_unique<Worker>(&context);
    m_Recorder.Clear();
    std::vector<Line> lines;
    for (const auto state :
         {KovaThread::THREAD_RUNNING, KovaThread::THREAD_STARTING, KovaThread::THREAD_START_FAILED,
          KovaThread::THREAD_FINISHED, KovaThread::THREAD_IDLE}) {
        thread->SetStatus(state);
        EXPECT_EQ(state, thread->GetStatus());
        EXPECT_EQ(state, context.GetThreadState());
        lines.push_back({kState, {state}});
    }
    EXPECT_TRUE(Are(m_Recorder.All(), lines));
}

TEST_F(Thread, DestructorLeavesTheContextAlone) {
    KovaThreadContext context(0);
    auto thread = std::make_unique<Worker>(&context);
    thread->SetStatus(KovaThread::THREAD_RUNNING);
    context.SetSyncPoint(0x200);
    m_Recorder.Clear();
    thread.reset();
    EXPECT_EQ(KovaThread::THREAD_RUNNING, context.GetThreadState());
    EXPECT_EQ(0x200u, context.GetSyncPoint());
    EXPECT_TRUE(Are(m_Recorder.All(), {}));
    std::make_unique<Worker>(&context)->SetStatus(KovaThread::THREAD_FINISHED);
}

// --- Start ---

/// What a thread is created with.
struct Creation {
    void* (*entry)(void*) = nullptr;
    void* argument = nullptr;
    size_t stack = 0;
    int detached = -1;
    int policy = -1;
    int priority = -1;
    int error = -1;  ///< errno at the call
};

class ThreadStart : public Thread {
  protected:
    /// Starts without a thread being created: the object stays the test's.
    Creation CreationOf(Worker& worker) {
        Creation creation;
        fake::Replace creates(
            fake::pthread_create,
            [&](pthread_t*, const pthread_attr_t* attributes, void* (*entry)(void*), void* argument) {
                creation.error = errno;
                creation.entry = entry;
                creation.argument = argument;
                sched_param scheduling{};
                ::pthread_attr_getstacksize(attributes, &creation.stack);
                ::pthread_attr_getdetachstate(attributes, &creation.detached);
                ::pthread_attr_getschedpolicy(attributes, &creation.policy);
                ::pthread_attr_getschedparam(attributes, &scheduling);
                creation.priority = scheduling.sched_priority;
                return 0;
            },
            fake::kThisThread);
        EXPECT_TRUE(worker.StartThread());
        EXPECT_EQ(1u, creates.Calls());
        return creation;
    }

    fake::Always<uid_t()> m_Root{fake::geteuid, fake::Return(0), fake::kThisThread};
};

const std::initializer_list<const fake::AnyHook*> kStartCalls{
    &fake::pthread_attr_init,           &fake::pthread_attr_setstacksize,
    &fake::pthread_attr_setdetachstate, &fake::geteuid,
    &fake::pthread_attr_setschedpolicy, &fake::pthread_attr_getschedparam,
    &fake::pthread_attr_setschedparam,  &fake::pthread_create,
    &fake::pthread_attr_destroy,        &fake::pthread_testcancel};

/// The calls of a regular start, where each pthread call takes so many attempts.
Texts Calls(int attempts) {
    Texts texts;
    for (const char* call : {"pthread_attr_init", "pthread_attr_setstacksize 262144",
                             "pthread_attr_setdetachstate PTHREAD_CREATE_DETACHED", "geteuid",
                             "pthread_attr_setschedpolicy SCHED_OTHER", "pthread_attr_getschedparam",
                             "pthread_attr_setschedparam 0", "pthread_create", "pthread_attr_destroy"}) {
        if (call == std::string("geteuid")) {
            texts.emplace_back(call);
            continue;
        }
        for (int i = 0; i < attempts; ++i) {
            texts.emplace_back(call);
            texts.emplace_back("pthread_testcancel");
        }
    }
    return texts;
}

TEST_F(ThreadStart, MakesItsCallsInOrder) {
    auto* const worker = new Worker;
    fake::Journal journal(kStartCalls, fake::kThisThread);
    EXPECT_TRUE(worker->StartThread());
    EXPECT_EQ(Calls(1), journal.Texts());
    EXPECT_TRUE(Are(OwnRecords(), {{kState, {KovaThread::THREAD_STARTING}}, {kStarted}}));
}

TEST_F(ThreadStart, CreatesADetachedThreadWithTheObjectAsArgument) {
    const auto worker = std::make_unique<Worker>();
    errno = ENOENT;
    const Creation creation = CreationOf(*worker);
    EXPECT_EQ(&KovaThread::KovaThreadWrapper, creation.entry);
    EXPECT_EQ(static_cast<KovaThread*>(worker.get()), creation.argument);
    EXPECT_EQ(PTHREAD_CREATE_DETACHED, creation.detached);
    EXPECT_EQ(262144u, creation.stack);
    EXPECT_EQ(SCHED_OTHER, creation.policy);
    EXPECT_EQ(0, creation.priority);
    EXPECT_EQ(0, creation.error) << "errno is cleared before";
}

TEST_F(ThreadStart, ObjectIsStartingWhenTheThreadIsCreated) {
    KovaThreadContext context(0);
    const auto worker = std::make_unique<Worker>(&context);
    fake::Replace creates(
        fake::pthread_create,
        [&](pthread_t*, const pthread_attr_t*, void* (*)(void*), void*) {
            EXPECT_EQ(KovaThread::THREAD_STARTING, worker->GetStatus());
            EXPECT_EQ(KovaThread::THREAD_STARTING, context.GetThreadState());
            EXPECT_TRUE(m_Recorder.Has(kState, {KovaThread::THREAD_STARTING}));
            EXPECT_EQ(0u, m_Recorder.Count(kStarted));
            return 0;
        },
        fake::kThisThread);
    EXPECT_TRUE(worker->StartThread());
    EXPECT_EQ(1u, creates.Calls());
    worker->SetStatus(KovaThread::THREAD_FINISHED);
}

TEST_F(ThreadStart, SettingsBeforeTheStartCount) {
    const auto worker = std::make_unique<Worker>();
    worker->SetPrioClass(KovaThread::PRIO_TIME_CRITICAL);
    worker->SetPriority(20);
    worker->SetStackSize(1048576);
    const Creation creation = CreationOf(*worker);
    EXPECT_EQ(1048576u, creation.stack);
    EXPECT_EQ(SCHED_FIFO, creation.policy);
    EXPECT_EQ(20, creation.priority);
}

TEST_F(ThreadStart, OnlyStackTypeOneSetsTheSize) {
    for (const int type : {0, 2, -1, kMin}) {
        const auto worker = std::make_unique<Worker>();
        worker->SetStacktype(static_cast<KovaThread::StackTypeT>(type));
        fake::Counter sets(fake::pthread_attr_setstacksize, fake::kThisThread);
        CreationOf(*worker);
        EXPECT_EQ(0u, sets.Calls()) << type;
    }
    const auto worker = std::make_unique<Worker>();
    worker->SetStacktype(KovaThread::STACK_SYSTEM);
    worker->SetStacktype(KovaThread::STACK_SIZED);
    EXPECT_EQ(262144u, CreationOf(*worker).stack);
}

TEST_F(ThreadStart, PriorityIsScaledTo99) {
    // The last two wrap at 32 bits.
    for (const auto& [priority, effective] :
         {std::pair(1, 1), std::pair(2, 2), std::pair(25, 25), std::pair(50, 50), std::pair(51, 50),
          std::pair(75, 74), std::pair(99, 98), std::pair(100, 99), std::pair(0, 1), std::pair(-50, -48),
          std::pair(200, 197), std::pair(kMax, 1), std::pair(kMin, 1)}) {
        const auto worker = std::make_unique<Worker>();
        worker->SetPrioClass(KovaThread::PRIO_TIME_CRITICAL);
        worker->SetPriority(priority);
        fake::Journal journal({&fake::pthread_attr_setschedpolicy, &fake::pthread_attr_setschedparam},
                              fake::kThisThread);
        CreationOf(*worker);
        EXPECT_EQ((Texts{"pthread_attr_setschedpolicy SCHED_FIFO",
                         "pthread_attr_setschedparam " + std::to_string(effective)}),
                  journal.Texts())
            << priority;
    }
}

TEST_F(ThreadStart, PriorityIs50AtFirst) {
    const auto worker = std::make_unique<Worker>();
    worker->SetPrioClass(KovaThread::PRIO_TIME_CRITICAL);
    EXPECT_EQ(50, CreationOf(*worker).priority);
}

TEST_F(ThreadStart, EveryOtherClassIsRegular) {
    for (const int prio_class : {0, 2, -1}) {
        const auto worker = std::make_unique<Worker>();
        worker->SetPrioClass(static_cast<KovaThread::PriorityClassT>(prio_class));
        worker->SetPriority(100);
        const Creation creation = CreationOf(*worker);
        EXPECT_EQ(SCHED_OTHER, creation.policy) << prio_class;
        EXPECT_EQ(0, creation.priority) << prio_class;
    }
}

TEST_F(ThreadStart, WithoutRootATimeCriticalThreadIsRegular) {
    const fake::Always user(fake::geteuid, fake::Return(1000), fake::kThisThread);
    const auto worker = std::make_unique<Worker>();
    worker->SetPrioClass(KovaThread::PRIO_TIME_CRITICAL);
    worker->SetPriority(100);
    const Creation creation = CreationOf(*worker);
    EXPECT_EQ(SCHED_OTHER, creation.policy);
    EXPECT_EQ(0, creation.priority);
    EXPECT_TRUE(Are(m_Recorder.All(), {{kNotRoot}, {kState, {KovaThread::THREAD_STARTING}}, {kStarted}}));
}

TEST_F(ThreadStart, OnlyADowngradeIsTraced) {
    const auto root = std::make_unique<Worker>();
    root->SetPrioClass(KovaThread::PRIO_TIME_CRITICAL);
    CreationOf(*root);
    const fake::Always user(fake::geteuid, fake::Return(1000), fake::kThisThread);
    const auto regular = std::make_unique<Worker>();
    CreationOf(*regular);
    EXPECT_EQ(0u, m_Recorder.Count(kNotRoot));
}

TEST_F(ThreadStart, SchedulingOfTheAttributesIsSetOnlyWhenItCouldBeRead) {
    const auto worker = std::make_unique<Worker>();
    fake::Script reads(fake::pthread_attr_getschedparam, {fake::Return(EINVAL)}, fake::kThisThread);
    fake::Counter sets(fake::pthread_attr_setschedparam, fake::kThisThread);
    CreationOf(*worker);
    EXPECT_EQ(0u, sets.Calls());
}

TEST_F(ThreadStart, InterruptedCallsAreRepeated) {
    const auto interrupted = [](auto& hook) {
        return fake::Script(hook, {fake::Fail(EINTR), fake::Fail(EINTR), fake::Real()}, fake::kThisThread);
    };
    const auto init = interrupted(fake::pthread_attr_init);
    const auto stack = interrupted(fake::pthread_attr_setstacksize);
    const auto detach = interrupted(fake::pthread_attr_setdetachstate);
    const auto policy = interrupted(fake::pthread_attr_setschedpolicy);
    const auto read = interrupted(fake::pthread_attr_getschedparam);
    const auto set = interrupted(fake::pthread_attr_setschedparam);
    const auto create = interrupted(fake::pthread_create);
    const auto destroy = interrupted(fake::pthread_attr_destroy);
    auto* const worker = new Worker;
    fake::Journal journal(kStartCalls, fake::kThisThread);
    EXPECT_TRUE(worker->StartThread());
    EXPECT_EQ(Calls(3), journal.Texts());
}

TEST_F(ThreadStart, NoOtherResultRepeatsACall) {
    for (const auto& [result, error] :
         {std::pair(-1, EAGAIN), std::pair(EINTR, EINTR), std::pair(EINVAL, 0)}) {
        // They do their work, whatever they tell.
        const auto tells = [result = result, error = error](auto& hook) {
            return fake::Always(
                hook,
                [&hook, result, error](auto... arguments) {
                    hook.Real(arguments...);
                    errno = error;
                    return result;
                },
                fake::kThisThread);
        };
        const auto init = tells(fake::pthread_attr_init);
        const auto stack = tells(fake::pthread_attr_setstacksize);
        const auto detach = tells(fake::pthread_attr_setdetachstate);
        const auto policy = tells(fake::pthread_attr_setschedpolicy);
        const auto set = tells(fake::pthread_attr_setschedparam);
        const auto destroy = tells(fake::pthread_attr_destroy);
        const auto worker = std::make_unique<Worker>();
        fake::Journal journal(
            {&fake::pthread_attr_init, &fake::pthread_attr_setstacksize, &fake::pthread_attr_setdetachstate,
             &fake::pthread_attr_setschedpolicy, &fake::pthread_attr_setschedparam, &fake::pthread_create,
             &fake::pthread_attr_destroy},
            fake::kThisThread);
        CreationOf(*worker);
        EXPECT_EQ((Texts{"pthread_attr_init", "pthread_attr_setstacksize 262144",
                         "pthread_attr_setdetachstate PTHREAD_CREATE_DETACHED",
                         "pthread_attr_setschedpolicy SCHED_OTHER", "pthread_attr_setschedparam 0",
                         "pthread_create", "pthread_attr_destroy"}),
                  journal.Texts())
            << result;
    }
}

TEST_F(ThreadStart, SecondStartCreatesNothing) {
    Gate gate;
    KovaThreadContext context(0);
    auto* const worker = new Worker(&context, [&](KovaThread& self) {
        EXPECT_TRUE(self.StartThread());
        gate.Pass();
        return 0;
    });
    fake::Counter creates(fake::pthread_create);
    EXPECT_TRUE(worker->StartThread());
    EXPECT_TRUE(worker->StartThread());
    EXPECT_TRUE(context.WaitForSyncPoint(kRunning, kLongMs));
    EXPECT_TRUE(worker->StartThread());
    EXPECT_EQ(KovaThread::THREAD_RUNNING, context.GetThreadState());
    gate.Open();
    EXPECT_TRUE(context.WaitForSyncPoint(kFinished, kLongMs));
    EXPECT_EQ(1u, creates.Calls());
    EXPECT_EQ(1u, m_Recorder.Count(kStarted));
}

TEST_F(ThreadStart, OnlyAnIdleObjectStarts) {
    fake::Journal journal(kStartCalls, fake::kThisThread);
    const auto worker = std::make_unique<Worker>();
    for (const auto state : {KovaThread::THREAD_FINISHED, KovaThread::THREAD_START_FAILED,
                             KovaThread::THREAD_STARTING, KovaThread::THREAD_RUNNING}) {
        worker->SetStatus(state);
        m_Recorder.Clear();
        EXPECT_TRUE(worker->StartThread()) << state;
        EXPECT_EQ(state, worker->GetStatus());
        EXPECT_TRUE(Are(m_Recorder.All(), {})) << state;
    }
    EXPECT_EQ(Texts{}, journal.Texts());
}

// --- A start that fails ---

sigjmp_buf g_Place;

/// Takes the calling thread through an abort that it leaves: from then on `pabend` returns on it.
void SurviveAbort(const std::function<void()>& aborting) {
    fake::Replace abort(fake::abort, [] { siglongjmp(g_Place, 1); });
    if (sigsetjmp(g_Place, 1) != 0) return;
    aborting();
    ADD_FAILURE() << "no abort";
}

/// Each case has a child process: a failure ends it.
class ThreadStartFailure : public Thread {};

fake::Action<int(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*)> CannotCreate(int result,
                                                                                           int error) {
    return [=](pthread_t*, const pthread_attr_t*, void* (*)(void*), void*) {
        errno = error;
        return result;
    };
}

TEST_F(ThreadStartFailure, EndsTheProcess) {
    KovaThreadContext context(0);
    m_Recorder.Clear();
    const ChildResult child = RunInChild([&] {
        std::printf("%d", ::gettid());
        std::fflush(stdout);
        fake::Always creates(fake::pthread_create, CannotCreate(EAGAIN, 0), fake::kThisThread);
        (new Worker(&context))->StartThread();
    });
    EXPECT_EQ(SIGABRT, child.signal);
    const pid_t child_tid = std::stoi(child.output);
    const uint32_t handle = HandleOf(context, m_Recorder);
    EXPECT_TRUE(Are(OfThread(child_tid, m_Recorder.All()), {{kState, {KovaThread::THREAD_STARTING}},
                                                            {kNotStarted, {EAGAIN, 0}},
                                                            {kState, {KovaThread::THREAD_START_FAILED}},
                                                            {kSyncPoint, {handle, kFinished}},
                                                            {kAbend, {0, child_tid}}}));
}

TEST_F(ThreadStartFailure, EndsTheProcessWithoutContext) {
    const ChildResult child = RunInChild([&] {
        fake::Always creates(fake::pthread_create, CannotCreate(ENOMEM, EAGAIN), fake::kThisThread);
        (new Worker)->StartThread();
    });
    EXPECT_EQ(SIGABRT, child.signal);
    std::vector<TraceRecord> records = m_Recorder.All();
    ASSERT_FALSE(records.empty());
    EXPECT_TRUE(records.back().Is(kAbend));
    records.pop_back();
    EXPECT_TRUE(Are(records, {{kState, {KovaThread::THREAD_STARTING}},
                              {kNotStarted, {ENOMEM, EAGAIN}},
                              {kState, {KovaThread::THREAD_START_FAILED}}}));
}

TEST_F(ThreadStartFailure, DeletesTheObjectBeforeTheEnd) {
    const ChildResult child = RunInChild([&] {
        KovaThreadContext context(0);
        auto* const worker = new Worker(&context);
        worker->at_end = [&] {
            EXPECT_EQ(KovaThread::THREAD_START_FAILED, context.GetThreadState());
            EXPECT_EQ(kFinished, context.GetSyncPoint());
            EXPECT_EQ(0u, m_Recorder.Count(kAbend));
        };
        fake::Always creates(fake::pthread_create, CannotCreate(EAGAIN, 0), fake::kThisThread);
        SurviveAbort([&] { worker->StartThread(); });
        EXPECT_EQ(0, Worker::Objects());
        EXPECT_EQ(1u, m_Recorder.Count(kAbend));
    });
    EXPECT_EQ(0, child.exit_code) << child.output << child.error;
}

TEST_F(ThreadStartFailure, IsToldToAThreadThatIsAbortingAlready) {
    const ChildResult child = RunInChild([&] {
        fake::Always creates(fake::pthread_create, CannotCreate(EAGAIN, 0), fake::kThisThread);
        SurviveAbort([] { (new Worker)->StartThread(); });
        KovaThreadContext context(0);
        EXPECT_FALSE((new Worker(&context))->StartThread());
        EXPECT_EQ(0, Worker::Objects());
        EXPECT_EQ(KovaThread::THREAD_START_FAILED, context.GetThreadState());
        EXPECT_EQ(kFinished, context.GetSyncPoint());
        EXPECT_EQ(0, context.GetRetCode());
        EXPECT_EQ(0, context.GetTid());
        EXPECT_TRUE(context.WaitForSyncPoint(kFinished, 0)) << "who waits is told at once";
    });
    EXPECT_EQ(0, child.exit_code) << child.output << child.error;
}

TEST_F(ThreadStartFailure, DestroysTheAttributesBeforeTheStateChanges) {
    const ChildResult child = RunInChild([&] {
        auto* const worker = new Worker;
        fake::Always creates(fake::pthread_create, CannotCreate(EAGAIN, 0), fake::kThisThread);
        fake::Replace destroys(
            fake::pthread_attr_destroy,
            [&](pthread_attr_t* attributes) {
                EXPECT_EQ(KovaThread::THREAD_STARTING, worker->GetStatus());
                EXPECT_TRUE(m_Recorder.Has(kNotStarted, {EAGAIN, 0}));
                return fake::pthread_attr_destroy.Real(attributes);
            },
            fake::kThisThread);
        SurviveAbort([&] { worker->StartThread(); });
        EXPECT_EQ(1u, destroys.Calls());
    });
    EXPECT_EQ(0, child.exit_code) << child.output << child.error;
}

TEST_F(ThreadStartFailure, InterruptedCreationIsRepeatedBefore) {
    const ChildResult child = RunInChild([&] {
        fake::Script creates(fake::pthread_create, {fake::Fail(EINTR), fake::Fail(EINTR), fake::Fail(EAGAIN)},
                             fake::kThisThread);
        SurviveAbort([] { (new Worker)->StartThread(); });
    });
    EXPECT_EQ(0, child.exit_code) << child.output << child.error;
    EXPECT_TRUE(m_Recorder.Has(kNotStarted, {-1, EAGAIN}));
    EXPECT_EQ(1u, m_Recorder.Count(kNotStarted));
}

// --- Scheduling ---

struct Scheduling {
    int policy = -1;
    int priority = -1;
    bool operator==(const Scheduling&) const = default;

    /// As the kernel sees a thread.
    static Scheduling Of(pid_t tid) {
        sched_param parameters{};
        const int policy = ::sched_getscheduler(tid);
        EXPECT_EQ(0, ::sched_getparam(tid, &parameters));
        return {policy, parameters.sched_priority};
    }
};

void PrintTo(const Scheduling& scheduling, std::ostream* stream) {
    *stream << "policy " << scheduling.policy << " priority " << scheduling.priority;
}

int SetOwnScheduling(int policy, int priority) {
    sched_param parameters{};
    parameters.sched_priority = priority;
    return ::pthread_setschedparam(::pthread_self(), policy, &parameters);
}

class ThreadScheduling : public Thread {
  protected:
    /// Runs a worker on a thread created by one with another scheduling, and returns what the kernel knows of
    /// it.
    Scheduling Found(const std::function<void(KovaThread&)>& prepare, Scheduling creator = {SCHED_OTHER, 0}) {
        Scheduling found;
        KovaThreadContext context(0);
        DeadlineThread([&] {
            if (creator.policy != SCHED_OTHER) {
                EXPECT_EQ(0, SetOwnScheduling(creator.policy, creator.priority));
            }
            auto* const worker = new Worker(&context, [&](KovaThread& self) {
                found = Scheduling::Of(self.GetTid());
                return 0;
            });
            prepare(*worker);
            EXPECT_TRUE(worker->StartThread());
        }).Join();
        EXPECT_TRUE(context.WaitForSyncPoint(kFinished, kLongMs));
        m_Tid = context.GetTid();
        m_Id = context.GetPthreadId();
        return found;
    }

    /// What the thread of the worker has recorded about its scheduling.
    std::vector<TraceRecord> Records() const {
        std::vector<TraceRecord> records = OfThread(m_Tid, m_Recorder.All());
        std::erase_if(records, [](const TraceRecord& record) {
            return !record.Is(kDiffers) && !record.Is(kSet) && !record.Is(kNotSet) &&
                   !record.Is(kStillDiffers);
        });
        return records;
    }

    pid_t m_Tid = 0;
    pthread_t m_Id = 0;
};

void BeTimeCritical(KovaThread& thread) { thread.SetPrioClass(KovaThread::PRIO_TIME_CRITICAL); }
void BeRegular(KovaThread& thread) { thread.SetPrioClass(KovaThread::PRIO_REGULAR); }

TEST_F(ThreadScheduling, RegularThreadOfARegularOneIsLeftAsItIs) {
    fake::Counter sets(fake::pthread_setschedparam);
    EXPECT_EQ((Scheduling{SCHED_OTHER, 0}), Found(BeRegular));
    EXPECT_TRUE(Are(Records(), {}));
    EXPECT_EQ(0u, sets.Calls());
}

/// The kernel's answer to a time-critical thread is faked: no permission is needed.
class ThreadSchedulingFaked : public ThreadScheduling {
  protected:
    fake::Always<uid_t()> m_Root{fake::geteuid, fake::Return(0)};
};

TEST_F(ThreadSchedulingFaked, ThreadSetsItsOwnSchedulingWhereItDiffers) {
    fake::Replace sets(fake::pthread_setschedparam,
                       [](pthread_t id, int policy, const sched_param* parameters) {
                           EXPECT_TRUE(::pthread_equal(::pthread_self(), id));
                           EXPECT_EQ(SCHED_FIFO, policy);
                           EXPECT_EQ(99, parameters->sched_priority);
                           return 0;
                       });
    Found([](KovaThread& thread) {
        thread.SetPrioClass(KovaThread::PRIO_TIME_CRITICAL);
        thread.SetPriority(100);
    });
    EXPECT_EQ(1u, sets.Calls());
    // The call that did nothing is noticed.
    EXPECT_TRUE(Are(Records(), {{kDiffers, {SCHED_OTHER, 0}},
                                {kSet, {Word(m_Id), SCHED_FIFO, 99, 0, 0}},
                                {kStillDiffers, {SCHED_OTHER, 0}}}));
}

TEST_F(ThreadSchedulingFaked, PriorityAloneMayDiffer) {
    fake::Replace reads(fake::pthread_getschedparam, [](pthread_t, int* policy, sched_param* parameters) {
        *policy = SCHED_FIFO;
        parameters->sched_priority = 49;
        return 0;
    });
    fake::Script sets(fake::pthread_setschedparam, {fake::Return(0)});
    Found(BeTimeCritical);
    EXPECT_TRUE(Are(Records(), {{kDiffers, {SCHED_FIFO, 49}},
                                {kSet, {Word(m_Id), SCHED_FIFO, 50, 0, 0}},
                                {kStillDiffers, {SCHED_FIFO, 49}}}));
    EXPECT_EQ(2u, reads.Calls());
}

TEST_F(ThreadSchedulingFaked, PolicyAloneMayDiffer) {
    fake::Replace reads(fake::pthread_getschedparam, [](pthread_t, int* policy, sched_param* parameters) {
        *policy = SCHED_RR;
        parameters->sched_priority = 50;
        return 0;
    });
    fake::Script sets(fake::pthread_setschedparam, {fake::Return(0)});
    Found(BeTimeCritical);
    EXPECT_TRUE(Are(Records(), {{kDiffers, {SCHED_RR, 50}},
                                {kSet, {Word(m_Id), SCHED_FIFO, 50, 0, 0}},
                                {kStillDiffers, {SCHED_RR, 50}}}));
}

TEST_F(ThreadSchedulingFaked, WhatIsAsWantedAfterwardsIsNotTraced) {
    std::atomic<int> calls = 0;
    fake::Replace reads(fake::pthread_getschedparam, [&](pthread_t, int* policy, sched_param* parameters) {
        *policy = ++calls == 1 ? SCHED_OTHER : SCHED_FIFO;
        parameters->sched_priority = calls == 1 ? 0 : 50;
        return 0;
    });
    fake::Script sets(fake::pthread_setschedparam, {fake::Return(0)});
    Found(BeTimeCritical);
    EXPECT_TRUE(Are(Records(), {{kDiffers, {SCHED_OTHER, 0}}, {kSet, {Word(m_Id), SCHED_FIFO, 50, 0, 0}}}));
}

TEST_F(ThreadSchedulingFaked, RefusalIsTracedAndTheThreadRunsAsItIs) {
    fake::Script sets(fake::pthread_setschedparam, {[](pthread_t, int, const sched_param*) {
                          errno = ENOSPC;
                          return EPERM;
                      }});
    EXPECT_EQ((Scheduling{SCHED_OTHER, 0}), Found(BeTimeCritical));
    EXPECT_TRUE(Are(Records(), {{kDiffers, {SCHED_OTHER, 0}},
                                {kSet, {Word(m_Id), SCHED_FIFO, 50, EPERM, ENOSPC}},
                                {kNotSet, {ENOSPC}},
                                {kStillDiffers, {SCHED_OTHER, 0}}}));
}

TEST_F(ThreadSchedulingFaked, InterruptedSettingIsRepeated) {
    fake::Script sets(fake::pthread_setschedparam,
                      {fake::Fail(EINTR), fake::Fail(EINTR), fake::Fail(EAGAIN)});
    Found(BeTimeCritical);
    EXPECT_TRUE(Are(Records(), {{kDiffers, {SCHED_OTHER, 0}},
                                {kSet, {Word(m_Id), SCHED_FIFO, 50, -1, EAGAIN}},
                                {kNotSet, {EAGAIN}},
                                {kStillDiffers, {SCHED_OTHER, 0}}}));
}

TEST_F(ThreadScheduling, ProcessOfAnOrdinaryUserHasRegularThreadsOnly) {
    constexpr uid_t kNobody = 65534;
    const ChildResult child = RunInChild([&] {
        if (::setresuid(kNobody, kNobody, kNobody) != 0) {
            std::printf("cannot change the user");
            std::fflush(stdout);
            return;
        }
        EXPECT_EQ((Scheduling{SCHED_OTHER, 0}), Found(BeTimeCritical));
        EXPECT_TRUE(Are(Records(), {}));
        AwaitEnd();
    });
    if (::geteuid() != 0 || child.output == "cannot change the user") {
        GTEST_SKIP() << "needs to change the user id";
    }
    EXPECT_EQ(0, child.exit_code) << child.output << child.error;
    EXPECT_EQ(1u, m_Recorder.Count(kNotRoot));
}

/// Real-time threads of the real kernel. They end at once and disturb nobody.
class ThreadRealTime : public ThreadScheduling {
  protected:
    void SetUp() override {
        int result = 0;
        DeadlineThread([&] { result = SetOwnScheduling(SCHED_FIFO, 1); }).Join();
        if (result == EPERM || ::geteuid() != 0) GTEST_SKIP() << "needs the right to real-time scheduling";
        ASSERT_EQ(0, result);
    }
};

TEST_F(ThreadRealTime, KernelHasThePriorityThatWasAskedFor) {
    for (const auto& [priority, effective] : {std::pair(1, 1), std::pair(50, 50), std::pair(100, 99)}) {
        m_Recorder.Clear();
        const Scheduling found = Found([priority = priority](KovaThread& thread) {
            thread.SetPrioClass(KovaThread::PRIO_TIME_CRITICAL);
            thread.SetPriority(priority);
        });
        EXPECT_EQ((Scheduling{SCHED_FIFO, effective}), found);
        EXPECT_TRUE(Are(Records(),
                        {{kDiffers, {SCHED_OTHER, 0}}, {kSet, {Word(m_Id), SCHED_FIFO, effective, 0, 0}}}));
    }
}

TEST_F(ThreadRealTime, RegularThreadOfARealTimeOneIsRegular) {
    EXPECT_EQ((Scheduling{SCHED_OTHER, 0}), Found(BeRegular, {SCHED_FIFO, 7}));
    EXPECT_TRUE(Are(Records(), {{kDiffers, {SCHED_FIFO, 7}}, {kSet, {Word(m_Id), SCHED_OTHER, 0, 0, 0}}}));
}

TEST_F(ThreadRealTime, InheritedSchedulingThatFitsIsLeft) {
    EXPECT_EQ((Scheduling{SCHED_FIFO, 50}), Found(BeTimeCritical, {SCHED_FIFO, 50}));
    EXPECT_TRUE(Are(Records(), {}));
}

TEST_F(ThreadRealTime, InheritedPriorityIsCorrected) {
    EXPECT_EQ((Scheduling{SCHED_FIFO, 50}), Found(BeTimeCritical, {SCHED_FIFO, 7}));
    EXPECT_TRUE(Are(Records(), {{kDiffers, {SCHED_FIFO, 7}}, {kSet, {Word(m_Id), SCHED_FIFO, 50, 0, 0}}}));
}

TEST_F(ThreadRealTime, ImpossiblePriorityIsRefusedByTheSystem) {
    const Scheduling found = Found([](KovaThread& thread) {
        thread.SetPrioClass(KovaThread::PRIO_TIME_CRITICAL);
        thread.SetPriority(200);
    });
    EXPECT_EQ((Scheduling{SCHED_OTHER, 0}), found);
    EXPECT_TRUE(Are(Records(), {{kDiffers, {SCHED_OTHER, 0}},
                                {kSet, {Word(m_Id), SCHED_FIFO, 197, EINVAL, EINVAL}},
                                {kNotSet, {EINVAL}},
                                {kStillDiffers, {SCHED_OTHER, 0}}}));
}

// --- Stack ---

class ThreadStack : public Thread {
  protected:
    struct Stack {
        size_t size = 0;
        int detached = -1;
    };

    Stack Found(const std::function<void(KovaThread&)>& prepare) {
        Stack found;
        KovaThreadContext context(0);
        auto* const worker = new Worker(&context, [&](KovaThread&) {
            pthread_attr_t attributes;
            EXPECT_EQ(0, ::pthread_getattr_np(::pthread_self(), &attributes));
            EXPECT_EQ(0, ::pthread_attr_getstacksize(&attributes, &found.size));
            EXPECT_EQ(0, ::pthread_attr_getdetachstate(&attributes, &found.detached));
            EXPECT_EQ(0, ::pthread_attr_destroy(&attributes));
            return 0;
        });
        prepare(*worker);
        EXPECT_TRUE(worker->StartThread());
        EXPECT_TRUE(context.WaitForSyncPoint(kFinished, kLongMs));
        return found;
    }

    void SetUp() override {
        EXPECT_EQ(0, ::pthread_getattr_default_np(&m_Before));
        SetDefault(kDefault);
    }
    void TearDown() override {
        size_t size = 0;
        EXPECT_EQ(0, ::pthread_attr_getstacksize(&m_Before, &size));
        SetDefault(size);
        EXPECT_EQ(0, ::pthread_attr_destroy(&m_Before));
    }

    /// The system keeps stacks for later threads, and may give one that is a few times larger than asked for.
    /// This is far larger than those of the tests.
    static constexpr size_t kDefault = 32 << 20;

  private:
    static void SetDefault(size_t size) {
        pthread_attr_t attributes;
        EXPECT_EQ(0, ::pthread_getattr_default_np(&attributes));
        EXPECT_EQ(0, ::pthread_attr_setstacksize(&attributes, size));
        EXPECT_EQ(0, ::pthread_setattr_default_np(&attributes));
        EXPECT_EQ(0, ::pthread_attr_destroy(&attributes));
    }

    pthread_attr_t m_Before{};
};

TEST_F(ThreadStack, HasTheSizeThatWasAskedFor) {
    const size_t first = Found([](KovaThread&) {}).size;
    EXPECT_LE(262144u, first);
    EXPECT_GT(kDefault, first);
    const size_t larger = Found([](KovaThread& thread) { thread.SetStackSize(1048576); }).size;
    EXPECT_LE(1048576u, larger);
    EXPECT_GT(kDefault, larger);
}

TEST_F(ThreadStack, OfTypeSystemHasTheDefaultSize) {
    EXPECT_LE(kDefault,
              Found([](KovaThread& thread) { thread.SetStacktype(KovaThread::STACK_SYSTEM); }).size);
}

TEST_F(ThreadStack, RefusedSizeLeavesTheDefault) {
    for (const int size : {1000, 0}) {
        EXPECT_LE(kDefault, Found([size](KovaThread& thread) { thread.SetStackSize(size); }).size) << size;
    }
}

TEST_F(ThreadStack, SizeThatCannotBeHadEndsTheProcess) {
    const ChildResult child = RunInChild([] {
        auto* const worker = new Worker;
        worker->SetStackSize(-1);
        worker->StartThread();
    });
    EXPECT_EQ(SIGABRT, child.signal);
    EXPECT_EQ(1u, m_Recorder.Count(kNotStarted));
}

TEST_F(ThreadStack, BelongsToADetachedThread) {
    EXPECT_EQ(PTHREAD_CREATE_DETACHED, Found([](KovaThread&) {}).detached);
}

// --- The life of a thread ---

TEST_F(Thread, GoesThroughItsStatesInOrder) {
    KovaThreadContext context(0);
    m_Recorder.Clear();
    auto* const worker = new Worker(&context);
    const std::vector<TraceRecord> records = RecordsOf(worker);
    const uint32_t handle = HandleOf(context, m_Recorder);
    EXPECT_TRUE(Are(records, {{kState, {KovaThread::THREAD_RUNNING}},
                              {kSyncPoint, {handle, kRunning}},
                              {kEnded},
                              {kSyncPoint, {handle, kFinished}},
                              {kState, {KovaThread::THREAD_FINISHED}}}));
    EXPECT_TRUE(Are(OwnRecords(), {{kState, {KovaThread::THREAD_STARTING}}, {kStarted}}));
}

TEST_F(Thread, WithoutContextGoesThroughThemToo) {
    EXPECT_TRUE(
        Are(RecordsOf(new Worker),
            {{kState, {KovaThread::THREAD_RUNNING}}, {kEnded}, {kState, {KovaThread::THREAD_FINISHED}}}));
}

TEST_F(Thread, KnowsItsIdsInsideRun) {
    KovaThreadContext context(0);
    std::atomic<pid_t> tid = 0;
    std::atomic<pthread_t> id{};
    auto* const worker = new Worker(&context, [&](KovaThread& self) {
        tid = ::gettid();
        id = ::pthread_self();
        EXPECT_EQ(::gettid(), self.GetTid());
        EXPECT_EQ(::gettid(), KovaGetTid());
        EXPECT_TRUE(::pthread_equal(::pthread_self(), self.GetPthreadId()));
        EXPECT_EQ(KovaThread::THREAD_RUNNING, self.GetStatus());
        EXPECT_EQ(&context, self.GetThreadContext());
        EXPECT_EQ(KovaThread::THREAD_RUNNING, context.GetThreadState());
        EXPECT_EQ(kRunning, context.GetSyncPoint());
        EXPECT_EQ(0u, m_Recorder.Count(kEnded));
        return 0;
    });
    EXPECT_TRUE(worker->StartThread());
    EXPECT_TRUE(context.WaitForSyncPoint(kFinished, kLongMs));
    EXPECT_NE(::gettid(), tid);
    EXPECT_EQ(tid, context.GetTid());
    EXPECT_TRUE(::pthread_equal(id, context.GetPthreadId()));
}

TEST_F(Thread, IdsAreInTheContextBeforeAnythingElseHappens) {
    KovaThreadContext context(0);
    auto* const worker = new Worker(&context);
    std::atomic<int> looks = 0;
    fake::Replace reads(fake::pthread_getschedparam,
                        [&](pthread_t thread, int* policy, sched_param* parameters) {
                            EXPECT_EQ(::gettid(), worker->GetTid());
                            EXPECT_TRUE(::pthread_equal(::pthread_self(), worker->GetPthreadId()));
                            EXPECT_EQ(::gettid(), context.GetTid());
                            EXPECT_TRUE(::pthread_equal(::pthread_self(), context.GetPthreadId()));
                            EXPECT_EQ(KovaThread::THREAD_STARTING, context.GetThreadState());
                            EXPECT_EQ(0u, context.GetSyncPoint());
                            ++looks;
                            return fake::pthread_getschedparam.Real(thread, policy, parameters);
                        });
    EXPECT_TRUE(worker->StartThread());
    EXPECT_TRUE(context.WaitForSyncPoint(kFinished, kLongMs));
    EXPECT_EQ(1, looks);
}

TEST_F(Thread, ResultIsInTheContextBeforeTheLastSyncPoint) {
    KovaThreadContext context(0);
    context.SetRetCode(5);
    std::vector<std::array<int64_t, 3>> posts;
    fake::Replace signals(fake::pthread_cond_signal, [&](pthread_cond_t* condition) {
        posts.push_back({context.GetSyncPoint(), context.GetRetCode(), context.GetThreadState()});
        return fake::pthread_cond_signal.Real(condition);
    });
    signals.When([&](pthread_cond_t*) { return context.GetTid() == ::gettid(); });
    EXPECT_TRUE((new Worker(&context, [](KovaThread&) { return -77; }))->StartThread());
    AwaitEnd();
    EXPECT_EQ((std::vector<std::array<int64_t, 3>>{{kRunning, 5, KovaThread::THREAD_RUNNING},
                                                   {kFinished, -77, KovaThread::THREAD_RUNNING}}),
              posts);
}

TEST_F(Thread, DeletesItsOwnObjectAtTheVeryEnd) {
    KovaThreadContext context(0);
    auto* const worker = new Worker(&context, [](KovaThread&) { return 3; });
    std::atomic<pid_t> deleted_by = 0;
    worker->at_end = [&] {
        deleted_by = ::gettid();
        EXPECT_EQ(KovaThread::THREAD_FINISHED, context.GetThreadState());
        EXPECT_EQ(kFinished, context.GetSyncPoint());
        EXPECT_EQ(3, context.GetRetCode());
        EXPECT_TRUE(m_Recorder.Has(kState, {KovaThread::THREAD_FINISHED}));
    };
    EXPECT_EQ(1, Worker::Objects());
    EXPECT_TRUE(worker->StartThread());
    AwaitEnd();
    EXPECT_EQ(0, Worker::Objects());
    EXPECT_EQ(context.GetTid(), deleted_by);
}

TEST_F(Thread, ContextOutlivesIt) {
    KovaThreadContext context(0);
    EXPECT_TRUE((new Worker(&context, [](KovaThread&) { return kMin; }))->StartThread());
    AwaitEnd();
    EXPECT_EQ(KovaThread::THREAD_FINISHED, context.GetThreadState());
    EXPECT_EQ(kFinished, context.GetSyncPoint());
    EXPECT_EQ(kMin, context.GetRetCode());
    EXPECT_NE(0, context.GetTid());
    EXPECT_NE(pthread_t{0}, context.GetPthreadId());
    EXPECT_TRUE(context.WaitForSyncPoint(kFinished, 0));
    EXPECT_FALSE(context.WaitForSyncPoint(kFinished + 1, 0));
}

TEST_F(Thread, EntryEndsItsThreadWithoutResult) {
    KovaThreadContext context(0);
    auto* const worker = new Worker(&context, [](KovaThread&) { return 1; });
    pthread_t thread;
    void* result = &context;
    ASSERT_EQ(0, ::pthread_create(&thread, nullptr, KovaThread::KovaThreadWrapper,
                                  static_cast<KovaThread*>(worker)));
    EXPECT_EQ(0, ::pthread_join(thread, &result));
    EXPECT_EQ(nullptr, result);
    EXPECT_EQ(KovaThread::THREAD_FINISHED, context.GetThreadState());
}

TEST_F(Thread, StateThatRunLeavesNotAliveStays) {
    for (const auto state :
         {KovaThread::THREAD_IDLE, KovaThread::THREAD_FINISHED, KovaThread::THREAD_START_FAILED}) {
        KovaThreadContext context(0);
        m_Recorder.Clear();
        const std::vector<TraceRecord> records = RecordsOf(new Worker(&context, [state](KovaThread& self) {
            self.SetStatus(state);
            return 8;
        }));
        const uint32_t handle = HandleOf(context, m_Recorder);
        EXPECT_TRUE(Are(records, {{kState, {KovaThread::THREAD_RUNNING}},
                                  {kSyncPoint, {handle, kRunning}},
                                  {kState, {state}},
                                  {kEnded},
                                  {kSyncPoint, {handle, kFinished}}}));
        EXPECT_EQ(state, context.GetThreadState());
        EXPECT_EQ(8, context.GetRetCode());
    }
}

TEST_F(Thread, StateAboveRunningIsFinishedToo) {
    KovaThreadContext context(0);
    EXPECT_TRUE((new Worker(&context, [](KovaThread& self) {
                    self.SetStatus(static_cast<KovaThread::KovaThreadStateT>(9));
                    return 0;
                }))->StartThread());
    AwaitEnd();
    EXPECT_EQ(KovaThread::THREAD_FINISHED, context.GetThreadState());
}

TEST_F(Thread, ExceptionThatLeavesRunEndsTheProcess) {
    const ChildResult child = RunInChild([] {
        KovaThreadContext context(0);
        EXPECT_TRUE((new Worker(&context, [](KovaThread&) -> int { throw 1; }))->StartThread());
        EXPECT_FALSE(context.WaitForSyncPoint(kFinished, kLongMs));
    });
    EXPECT_EQ(SIGABRT, child.signal);
}

TEST_F(Thread, ManyAtOnce) {
    constexpr int kThreads = 200;
    KovaLocalSemaphore go;
    std::deque<KovaThreadContext> contexts;
    for (int i = 0; i < kThreads; ++i) {
        KovaThreadContext& context = contexts.emplace_back(static_cast<unsigned long>(i));
        auto* const worker = new Worker(&context, [&go](KovaThread& self) {
            KovaThreadContext& own = *self.GetThreadContext();
            own.SetSyncPoint(0x200);
            EXPECT_TRUE(go.TimeWait(kLongMs));
            return static_cast<int>(own.GetArgFlags()) * 3;
        });
        EXPECT_TRUE(worker->StartThread());
    }
    for (KovaThreadContext& context : contexts) EXPECT_TRUE(context.WaitForSyncPoint(0x200, kLongMs));
    for (int i = 0; i < kThreads; ++i) go.Post();
    for (int i = 0; i < kThreads; ++i) {
        KovaThreadContext& context = contexts[static_cast<size_t>(i)];
        EXPECT_TRUE(context.WaitForSyncPoint(kFinished, kLongMs));
        EXPECT_EQ(i * 3, context.GetRetCode());
    }
}

// --- Context ---

/// Plays the thread of a context.
class Puppet {
  public:
    explicit Puppet(KovaThreadContext& context) : m_Thread(std::make_unique<Worker>(&context)) {
        Become(KovaThread::THREAD_RUNNING);
    }
    ~Puppet() { Become(KovaThread::THREAD_FINISHED); }
    void Become(KovaThread::KovaThreadStateT state) {
        if (m_Thread != nullptr) m_Thread->SetStatus(state);
    }
    /// Leaves the context as if the thread ran for ever.
    void Abandon() { m_Thread.reset(); }

  private:
    std::unique_ptr<Worker> m_Thread;
};

class ThreadContext : public Thread {};

TEST_F(ThreadContext, NewContextIsEmpty) {
    int main_context = 0;
    KovaThreadContext plain(0xFFFFFFFF);
    EXPECT_EQ(nullptr, plain.GetMainContext());
    EXPECT_EQ(0xFFFFFFFF, plain.GetArgFlags());
    KovaThreadContext context(&main_context, 7);
    EXPECT_EQ(&main_context, context.GetMainContext());
    EXPECT_EQ(7u, context.GetArgFlags());
    EXPECT_EQ(KovaThread::THREAD_IDLE, context.GetThreadState());
    EXPECT_EQ(0u, context.GetSyncPoint());
    EXPECT_EQ(0, context.GetRetCode());
    EXPECT_EQ(0, context.GetTid());
    EXPECT_EQ(pthread_t{0}, context.GetPthreadId());
    EXPECT_EQ(0, context.GetTimeStamp());
    EXPECT_FALSE(context.IsShutdown());
    EXPECT_EQ(0, context.GetError());
}

TEST_F(ThreadContext, KeepsWhatIsStored) {
    KovaThreadContext context(0);
    context.SetArgFlags(0x80000001);
    EXPECT_EQ(0x80000001, context.GetArgFlags());
    context.SetRetCode(kMin);
    EXPECT_EQ(kMin, context.GetRetCode());
    context.SetShutdown();
    EXPECT_TRUE(context.IsShutdown());
    context.SetShutdown();
    EXPECT_TRUE(context.IsShutdown());
}

TEST_F(ThreadContext, ShutdownFlagIsSeenByTheThread) {
    KovaThreadContext context(0);
    auto* const worker = new Worker(&context, [](KovaThread& self) {
        EXPECT_TRUE(WaitUntil([&] { return self.GetThreadContext()->IsShutdown(); }));
        return 0;
    });
    EXPECT_TRUE(worker->StartThread());
    EXPECT_TRUE(context.WaitForSyncPoint(kRunning, kLongMs));
    context.SetShutdown();
    EXPECT_TRUE(context.WaitForSyncPoint(kFinished, kLongMs));
    EXPECT_TRUE(context.IsShutdown()) << "never cleared";
}

TEST_F(ThreadContext, TimeStampsAreMonotonicSeconds) {
    KovaThreadContext context(0);
    time_t now = 4711;
    fake::Replace clock(
        fake::clock_gettime,
        [&](clockid_t id, timespec* time) {
            EXPECT_EQ(CLOCK_MONOTONIC, id);
            *time = {now, 999999999};
            return 0;
        },
        fake::kThisThread);
    for (const auto& [seconds, offset, stamp] : {std::array<int32_t, 3>{4711, 0, 4711},
                                                 {4711, 60, 4771},
                                                 {4711, -4712, -1},
                                                 {kMax, 1, kMin},
                                                 {kMax, kMax, -2},
                                                 {kMin, -1, kMax}}) {
        now = seconds;
        EXPECT_EQ(stamp, context.SetTimeStamp(offset));
        EXPECT_EQ(stamp, context.GetTimeStamp());
    }
    now = 4712;
    EXPECT_EQ(4712, context.SetTimeStamp());
    EXPECT_EQ(4712, context.GetTimeStamp());
    now = 4800;
    EXPECT_EQ(4712, context.GetTimeStamp()) << "stored, not read anew";
}

TEST_F(ThreadContext, SyncPointIsStoredPostedOnceAndTraced) {
    KovaThreadContext context(0);
    m_Recorder.Clear();
    fake::Replace signals(
        fake::pthread_cond_signal,
        [&](pthread_cond_t* condition) {
            EXPECT_EQ(0x1234u, context.GetSyncPoint()) << "stored before the post";
            EXPECT_EQ(0u, m_Recorder.Count(kSyncPoint)) << "traced after it";
            return fake::pthread_cond_signal.Real(condition);
        },
        fake::kThisThread);
    context.SetSyncPoint(0x1234);
    EXPECT_EQ(1u, signals.Calls());
    EXPECT_TRUE(Are(m_Recorder.All(), {{kSyncPoint, {HandleOf(context, m_Recorder), 0x1234}}}));
}

TEST_F(ThreadContext, SyncPointMayBeSetBack) {
    KovaThreadContext context(0);
    for (const unsigned point : {0xFFFFFFFF, 0x300u, 0u}) {
        context.SetSyncPoint(point);
        EXPECT_EQ(point, context.GetSyncPoint());
    }
}

// --- Waiting ---

/// The thread of the context is played: it is alive unless a test says otherwise.
class ThreadWait : public Thread {
  protected:
    void SetUp() override { m_Recorder.Clear(); }
    uint32_t Handle() const { return HandleOf(m_Context, m_Recorder); }

    KovaThreadContext m_Context{0};
    Puppet m_Thread{m_Context};
};

/// Stands for a wait on a condition: lets `during` run while the mutex is free, and returns its result.
template <typename During>
auto Waiting(During during) {
    return [during](pthread_cond_t*, pthread_mutex_t* mutex, auto...) mutable {
        fake::pthread_mutex_unlock.Real(mutex);
        const int result = during();
        fake::pthread_mutex_lock.Real(mutex);
        return result;
    };
}

TEST_F(ThreadWait, PointThatHasBeenReachedIsToldAtOnce) {
    fake::Counter waits(fake::pthread_cond_wait, fake::kThisThread);
    fake::Counter time_waits(fake::pthread_cond_timedwait, fake::kThisThread);
    m_Context.SetSyncPoint(0x200);
    m_Recorder.Clear();
    for (const unsigned target : {0u, 1u, 0x1FFu, 0x200u}) {
        EXPECT_TRUE(m_Context.WaitForSyncPoint(target, 0));
        EXPECT_TRUE(m_Context.WaitForSyncPoint(target, kLongMs));
        const Line told{kWaited, {Handle(), target, 0x200, KovaThread::THREAD_RUNNING}};
        EXPECT_TRUE(Are(m_Recorder.All(), {told, told}));
        m_Recorder.Clear();
    }
    EXPECT_EQ(0u, waits.Calls() + time_waits.Calls());
}

TEST_F(ThreadWait, NobodyWaitsForAThreadThatIsNotAlive) {
    fake::Counter waits(fake::pthread_cond_wait, fake::kThisThread);
    fake::Counter time_waits(fake::pthread_cond_timedwait, fake::kThisThread);
    m_Context.SetSyncPoint(0x200);
    for (const auto state :
         {KovaThread::THREAD_IDLE, KovaThread::THREAD_FINISHED, KovaThread::THREAD_START_FAILED}) {
        m_Thread.Become(state);
        m_Recorder.Clear();
        EXPECT_FALSE(m_Context.WaitForSyncPoint(0x201, 0));
        EXPECT_FALSE(m_Context.WaitForSyncPoint(0x201, kLongMs));
        EXPECT_TRUE(m_Context.WaitForSyncPoint(0x200, 0));
        const uint32_t handle = Handle();
        EXPECT_TRUE(Are(m_Recorder.All(), {{kWaited, {handle, 0x201, 0x200, state}},
                                           {kWaited, {handle, 0x201, 0x200, state}},
                                           {kWaited, {handle, 0x200, 0x200, state}}}));
    }
    EXPECT_EQ(0u, waits.Calls() + time_waits.Calls());
}

TEST_F(ThreadWait, StartingThreadIsAlive) {
    m_Thread.Become(KovaThread::THREAD_STARTING);
    fake::Script waits(fake::pthread_cond_wait, {Waiting([this] {
                           m_Context.SetSyncPoint(kRunning);
                           return 0;
                       })},
                       fake::kThisThread);
    EXPECT_TRUE(m_Context.WaitForSyncPoint(kRunning, 0));
}

TEST_F(ThreadWait, WithoutLimitItGoesOnUntilThePointIsReached) {
    fake::Script waits(fake::pthread_cond_wait,
                       {Waiting([this] {
                            m_Context.SetSyncPoint(0x200);
                            return 0;
                        }),
                        Waiting([this] {
                            m_Context.SetSyncPoint(0x2FF);
                            return 0;
                        }),
                        Waiting([this] {
                            m_Context.SetSyncPoint(0x301);
                            return 0;
                        })},
                       fake::kThisThread);
    EXPECT_TRUE(m_Context.WaitForSyncPoint(0x300, 0));
    const uint32_t handle = Handle();
    EXPECT_TRUE(Are(m_Recorder.All(), {{kSyncPoint, {handle, 0x200}},
                                       {kSyncPoint, {handle, 0x2FF}},
                                       {kSyncPoint, {handle, 0x301}},
                                       {kWaited, {handle, 0x300, 0x301, KovaThread::THREAD_RUNNING}}}));
}

TEST_F(ThreadWait, WithoutLimitItEndsWhenTheThreadIsNoLongerAlive) {
    fake::Script waits(fake::pthread_cond_wait, {Waiting([this] {
                           m_Context.SetSyncPoint(0x200);
                           m_Thread.Become(KovaThread::THREAD_FINISHED);
                           return 0;
                       })},
                       fake::kThisThread);
    EXPECT_FALSE(m_Context.WaitForSyncPoint(0x300, 0));
}

TEST_F(ThreadWait, PostsFromBeforeAreUsedUpFirst) {
    m_Context.SetSyncPoint(0x101);
    m_Context.SetSyncPoint(0x102);
    m_Recorder.Clear();
    fake::Script time_waits(fake::pthread_cond_timedwait, {Waiting([this] {
                                m_Context.SetSyncPoint(0x300);
                                return 0;
                            })},
                            fake::kThisThread);
    EXPECT_TRUE(m_Context.WaitForSyncPoint(0x300, kLongMs));
    const uint32_t handle = Handle();
    EXPECT_TRUE(Are(m_Recorder.All(), {{kWoken, {handle, 0x300, 0x102, KovaThread::THREAD_RUNNING}},
                                       {kWoken, {handle, 0x300, 0x102, KovaThread::THREAD_RUNNING}},
                                       {kSyncPoint, {handle, 0x300}},
                                       {kWoken, {handle, 0x300, 0x300, KovaThread::THREAD_RUNNING}},
                                       {kWaited, {handle, 0x300, 0x300, KovaThread::THREAD_RUNNING}}}));
}

/// The waits with a limit: the clock stands still unless a test moves it, and deadlines are noted.
class ThreadTimeWait : public ThreadWait {
  protected:
    struct Deadline {
        int64_t seconds;
        int64_t nanoseconds;
        bool operator==(const Deadline&) const = default;
    };

    /// Answers each wait by the next of `waits`.
    bool Wait(unsigned target, unsigned long limit_ms, std::vector<std::function<int()>> waits) {
        size_t next = 0;
        fake::Replace clock(
            fake::clock_gettime,
            [this](clockid_t id, timespec* now) {
                EXPECT_EQ(CLOCK_MONOTONIC, id);
                *now = {m_Now, 0};
                return 0;
            },
            fake::kThisThread);
        fake::Replace time_waits(
            fake::pthread_cond_timedwait,
            [&](pthread_cond_t*, pthread_mutex_t* mutex, const timespec* deadline) {
                m_Deadlines.push_back({deadline->tv_sec, deadline->tv_nsec});
                if (next == waits.size()) return ETIMEDOUT;
                fake::pthread_mutex_unlock.Real(mutex);
                const int result = waits[next++]();
                fake::pthread_mutex_lock.Real(mutex);
                return result;
            },
            fake::kThisThread);
        return m_Context.WaitForSyncPoint(target, limit_ms);
    }

    time_t m_Now = 1000;
    std::vector<Deadline> m_Deadlines;
};

TEST_F(ThreadTimeWait, EachWaitHasTheFullLimit) {
    const auto later = [this](unsigned point) {
        return [this, point] {
            m_Now += 2;
            m_Context.SetSyncPoint(point);
            return 0;
        };
    };
    EXPECT_TRUE(Wait(0x300, 2500, {later(0x101), later(0x102), later(0x300)}));
    EXPECT_EQ((std::vector<Deadline>{{1002, 500000000}, {1004, 500000000}, {1006, 500000000}}), m_Deadlines);
    const uint32_t handle = Handle();
    EXPECT_TRUE(Are(m_Recorder.All(), {{kSyncPoint, {handle, 0x101}},
                                       {kWoken, {handle, 0x300, 0x101, KovaThread::THREAD_RUNNING}},
                                       {kSyncPoint, {handle, 0x102}},
                                       {kWoken, {handle, 0x300, 0x102, KovaThread::THREAD_RUNNING}},
                                       {kSyncPoint, {handle, 0x300}},
                                       {kWoken, {handle, 0x300, 0x300, KovaThread::THREAD_RUNNING}},
                                       {kWaited, {handle, 0x300, 0x300, KovaThread::THREAD_RUNNING}}}));
}

TEST_F(ThreadTimeWait, TimeOutEndsIt) {
    m_Context.SetSyncPoint(0x200);
    m_Recorder.Clear();
    EXPECT_FALSE(Wait(0x300, 1, {}));
    EXPECT_EQ((std::vector<Deadline>{{1000, 1000000}}), m_Deadlines) << "once the old post is used up";
    const uint32_t handle = Handle();
    EXPECT_TRUE(Are(m_Recorder.All(), {{kWoken, {handle, 0x300, 0x200, KovaThread::THREAD_RUNNING}},
                                       {kTimedOut, {handle, 0x300, 0x200, KovaThread::THREAD_RUNNING}},
                                       {kWaited, {handle, 0x300, 0x200, KovaThread::THREAD_RUNNING}}}));
}

TEST_F(ThreadTimeWait, PointThatIsReachedJustWhenTheTimeIsOutCounts) {
    EXPECT_TRUE(Wait(0x300, 100, {[this] {
                         m_Context.SetSyncPoint(0x300);
                         return ETIMEDOUT;
                     }}));
    const uint32_t handle = Handle();
    EXPECT_TRUE(Are(m_Recorder.All(), {{kSyncPoint, {handle, 0x300}},
                                       {kTimedOut, {handle, 0x300, 0x300, KovaThread::THREAD_RUNNING}},
                                       {kWaited, {handle, 0x300, 0x300, KovaThread::THREAD_RUNNING}}}));
}

TEST_F(ThreadTimeWait, EndOfTheThreadEndsIt) {
    EXPECT_FALSE(Wait(0x300, 100, {[this] {
                          m_Context.SetSyncPoint(0x200);
                          m_Thread.Become(KovaThread::THREAD_FINISHED);
                          return 0;
                      }}));
    EXPECT_EQ(1u, m_Deadlines.size());
    EXPECT_EQ(0u, m_Recorder.Count(kTimedOut));
}

TEST_F(ThreadTimeWait, LimitsBeyondTheLargestIntAreCutToIt) {
    for (const unsigned long limit : {0x7FFFFFFFul, 0x80000000ul, 0xFFFFFFFFul, ULONG_MAX}) {
        m_Deadlines.clear();
        EXPECT_FALSE(Wait(0x300, limit, {}));
        EXPECT_EQ((std::vector<Deadline>{{1000 + 2147483, 647000000}}), m_Deadlines) << limit;
    }
}

TEST_F(ThreadTimeWait, PointsCompareUnsigned) {
    m_Context.SetSyncPoint(0x80000000);
    EXPECT_TRUE(Wait(0x7FFFFFFF, 100, {}));
    EXPECT_TRUE(Wait(0x80000000, 100, {}));
    EXPECT_TRUE(m_Deadlines.empty());
    EXPECT_FALSE(Wait(0xFFFFFFFF, 100, {}));
    EXPECT_EQ(1u, m_Deadlines.size());
}

TEST_F(ThreadWait, TimeOutComesNoSoonerThanAsked) {
    constexpr auto kTime = std::chrono::milliseconds(40);
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_FALSE(m_Context.WaitForSyncPoint(0x300, static_cast<unsigned long>(kTime.count())));
    EXPECT_GE(std::chrono::steady_clock::now() - begin, kTime);
}

TEST_F(ThreadWait, SemaphoreThatFailsEndsTheProcess) {
    const ChildResult child = RunInChild([this] {
        fake::Always waits(fake::pthread_cond_wait, fake::Return(EINVAL), fake::kThisThread);
        m_Context.WaitForSyncPoint(0x300, 0);
    });
    EXPECT_EQ(SIGABRT, child.signal);
    EXPECT_EQ(1u, m_Recorder.Count(kSemaphoreFailed));
}

TEST_F(ThreadWait, FailedWaitEndsItOnAThreadThatIsAbortingAlready) {
    const ChildResult child = RunInChild([this] {
        fake::Always waits(fake::pthread_cond_wait, [](pthread_cond_t*, pthread_mutex_t*) {
            errno = ENOTRECOVERABLE;
            return EINVAL;
        });
        SurviveAbort([this] { m_Context.WaitForSyncPoint(0x300, 0); });
        m_Recorder.Clear();
        m_Context.SetSyncPoint(0x123);
        EXPECT_TRUE(m_Context.WaitForSyncPoint(0x123, 0));
        EXPECT_FALSE(m_Context.WaitForSyncPoint(0x300, 0));
        // The first post is used up before the wait that fails.
        EXPECT_EQ(2u, waits.Calls());
        const uint32_t handle = Handle();
        EXPECT_TRUE(
            m_Recorder.Has(kWaitFailed, {handle, ENOTRECOVERABLE, 0x300, 0x123, KovaThread::THREAD_RUNNING}));
        EXPECT_TRUE(m_Recorder.All().back() ==
                    (Line{kWaited, {handle, 0x300, 0x123, KovaThread::THREAD_RUNNING}}));
    });
    EXPECT_EQ(0, child.exit_code) << child.output << child.error;
}

TEST_F(ThreadContext, OwnSyncPointsLieBetweenThoseOfTheLibrary) {
    KovaThreadContext context(0);
    Gate begun;
    Gate half;
    auto* const worker = new Worker(&context, [&](KovaThread&) {
        EXPECT_EQ(kRunning, context.GetSyncPoint());
        begun.Pass();
        context.SetSyncPoint(0x200);
        half.Pass();
        context.SetSyncPoint(0x300);
        return 12;
    });
    EXPECT_TRUE(worker->StartThread());
    EXPECT_TRUE(context.WaitForSyncPoint(kRunning, 0));
    EXPECT_FALSE(context.WaitForSyncPoint(0x200, 1));
    begun.Open();
    EXPECT_TRUE(context.WaitForSyncPoint(0x200, 0));
    EXPECT_EQ(0x200u, context.GetSyncPoint());
    EXPECT_EQ(KovaThread::THREAD_RUNNING, context.GetThreadState());
    EXPECT_FALSE(context.WaitForSyncPoint(0x201, 1));
    half.Open();
    EXPECT_TRUE(context.WaitForSyncPoint(0x300, kLongMs));
    EXPECT_TRUE(context.WaitForSyncPoint(kFinished, kLongMs));
    EXPECT_EQ(12, context.GetRetCode());
}

TEST_F(ThreadContext, OwnerIsWokenByEachOfManySyncPoints) {
    constexpr unsigned kEnd = kRunning + 200;
    KovaLocalSemaphore go;
    KovaThreadContext context(0);
    auto* const worker = new Worker(&context, [&](KovaThread&) {
        // Every other point is set in one go with the one before.
        for (unsigned point = kRunning + 1; point < kEnd; ++point) {
            if (point % 2 == 0) go.TimeWait(kLongMs);
            context.SetSyncPoint(point);
        }
        return 0;
    });
    EXPECT_TRUE(worker->StartThread());
    for (unsigned point = kRunning; point < kEnd; ++point) {
        EXPECT_TRUE(context.WaitForSyncPoint(point, point % 3 == 0 ? 0 : kLongMs)) << point;
        if (point % 2 != 0) go.Post();
    }
    EXPECT_TRUE(context.WaitForSyncPoint(kFinished, 0));
}

// --- The end of a context ---

class ThreadContextEnd : public Thread {
  protected:
    static std::vector<TraceRecord> Rounds(std::vector<TraceRecord> records) {
        std::erase_if(records, [](const TraceRecord& record) {
            return !record.Is(kAwaitsEnd) && !record.Is(kSleep) && !record.Is(kDeletes) &&
                   !record.Is(kDeleted);
        });
        return records;
    }

    /// How many of the records are of this text, which has one conversion.
    static ptrdiff_t Count(const std::vector<TraceRecord>& records, std::string_view text) {
        return std::count_if(records.begin(), records.end(),
                             [hash = TraceHash(text)](const TraceRecord& record) {
                                 return record.hash == hash && record.count == 1;
                             });
    }
};

TEST_F(ThreadContextEnd, NobodyIsAwaitedWhoIsNotAlive) {
    fake::Counter sleeps(fake::nanosleep);
    for (const auto state :
         {KovaThread::THREAD_IDLE, KovaThread::THREAD_FINISHED, KovaThread::THREAD_START_FAILED}) {
        auto context = std::make_unique<KovaThreadContext>(0);
        const auto thread = std::make_unique<Worker>(context.get());
        thread->SetStatus(state);
        context.reset();
    }
    EXPECT_EQ(0u, sleeps.Calls());
    EXPECT_EQ(0u, m_Recorder.Count(kAwaitsEnd));
}

TEST_F(ThreadContextEnd, LooksEveryThreeMillisecondsUntilTheThreadHasEnded) {
    auto context = std::make_unique<KovaThreadContext>(0);
    Puppet thread(*context);
    int rounds = 0;
    fake::Replace sleeps(
        fake::nanosleep,
        [&](const timespec* request, timespec*) {
            EXPECT_EQ(0, request->tv_sec);
            EXPECT_EQ(3000000, request->tv_nsec);
            if (++rounds == 3) thread.Become(KovaThread::THREAD_FINISHED);
            return 0;
        },
        fake::kThisThread);
    context->SetSyncPoint(1);
    const uint32_t handle = HandleOf(*context, m_Recorder);
    context.reset();
    thread.Abandon();
    EXPECT_EQ(3, rounds);
    const Line awaits{kAwaitsEnd, {0}};
    const Line sleep{kSleep, {0, 3000000, 3}};
    EXPECT_TRUE(
        Are(Rounds(m_Recorder.All()),
            {awaits, sleep, awaits, sleep, awaits, sleep, {kDeletes, {handle}}, {kDeleted, {handle}}}));
}

TEST_F(ThreadContextEnd, GivesUpAfterTenThousandRounds) {
    auto context = std::make_unique<KovaThreadContext>(0);
    Puppet thread(*context);
    thread.Become(KovaThread::THREAD_STARTING);
    fake::Always sleeps(fake::nanosleep, fake::Return(0), fake::kThisThread);
    context.reset();
    thread.Abandon();
    EXPECT_EQ(10000u, sleeps.Calls());
    // One copy of all these records: the address sanitizer takes a minute for each on the board.
    const std::vector<TraceRecord> records = m_Recorder.All();
    EXPECT_EQ(10000, Count(records, kAwaitsEnd));
    EXPECT_EQ(1, Count(records, kDeleted)) << "the semaphore is released in any case";
}

TEST_F(ThreadContextEnd, WaitsForARunningThread) {
    auto context = std::make_unique<KovaThreadContext>(0);
    Gate gate;
    std::atomic<bool> done = false;
    auto* const worker = new Worker(context.get(), [&](KovaThread&) {
        gate.Pass();
        done = true;
        return 0;
    });
    EXPECT_TRUE(worker->StartThread());
    EXPECT_TRUE(context->WaitForSyncPoint(kRunning, kLongMs));
    const pid_t tid = context->GetTid();
    DeadlineThread destroyer([&] {
        context.reset();
        EXPECT_TRUE(done);
    });
    EXPECT_TRUE(WaitUntil([&] { return m_Recorder.Count(kAwaitsEnd) != 0; }));
    EXPECT_FALSE(destroyer.HasEnded());
    EXPECT_FALSE(done);
    gate.Open();
    destroyer.Join();
    for (const TraceRecord& record : m_Recorder.Find(kAwaitsEnd)) {
        EXPECT_EQ(std::vector<uint32_t>{Word(tid)}, record.values);
    }
}

TEST_F(ThreadContextEnd, MayFollowTheLastSyncPointAtOnce) {
    for (int i = 0; i < 100; ++i) {
        KovaThreadContext context(0);
        EXPECT_TRUE((new Worker(&context, [i](KovaThread&) { return i; }))->StartThread());
        EXPECT_TRUE(context.WaitForSyncPoint(kFinished, kLongMs));
        EXPECT_EQ(i, context.GetRetCode());
    }
}

}  // namespace
