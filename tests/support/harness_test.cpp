// The harness itself: a fake that does nothing, or a leak check that finds nothing, would let every other
// test pass.
#include "support/fake_libc.h"
#include "support/leak_check.h"
#include "support/trace_recorder.h"

#include <kova/clock.h>
#include <kova/process.h>

#include <fcntl.h>
#include <gtest/gtest-spi.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csetjmp>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

namespace {

using Texts = std::vector<std::string>;

class FakeLibc : public KovaTest {};

TEST_F(FakeLibc, ScriptAnswersCallsInOrderAndThenLetsThemThrough) {
    fake::Script yields(fake::sched_yield, {fake::Fail(EPERM), fake::Return(7), fake::Real()});
    EXPECT_EQ(-1, ::sched_yield());
    EXPECT_EQ(EPERM, errno);
    EXPECT_EQ(7, ::sched_yield());
    EXPECT_EQ(0, ::sched_yield());
    EXPECT_EQ(0, ::sched_yield());
    EXPECT_EQ(3u, yields.Calls());
}

TEST_F(FakeLibc, UnusedScriptFailsTheTest) {
    EXPECT_NONFATAL_FAILURE({ fake::Script script(fake::listen, {fake::Fail(EPERM)}); }, "script of listen");
}

TEST_F(FakeLibc, ScriptTakesTheLibrarysCalls) {
    fake::Script sleeps(fake::nanosleep, {fake::Fail(ENOSYS)});
    EXPECT_EQ(-1, KovaMilliSleep(1));
    EXPECT_EQ(ENOSYS, errno);
}

TEST_F(FakeLibc, InnerScopeGoesFirstAndFallsBackToTheOuter) {
    fake::Always outer(fake::sched_yield, fake::Return(1));
    {
        fake::Script inner(fake::sched_yield, {fake::Return(2)});
        EXPECT_EQ(2, ::sched_yield());
        EXPECT_EQ(1, ::sched_yield());
    }
    EXPECT_EQ(1, ::sched_yield());
}

TEST_F(FakeLibc, CounterLeavesTheCallToTheScopesAroundIt) {
    fake::Script outer(fake::sched_yield, {fake::Return(1)});
    fake::Counter inner(fake::sched_yield);
    EXPECT_EQ(1, ::sched_yield());
    EXPECT_EQ(0, ::sched_yield());
    EXPECT_EQ(2u, inner.Calls());
}

TEST_F(FakeLibc, OuterScopeMayEndBeforeTheInner) {
    auto outer = std::make_unique<fake::Always<int()>>(fake::sched_yield, fake::Return(1));
    fake::Always inner(fake::sched_yield, fake::Return(2));
    outer.reset();
    EXPECT_EQ(2, ::sched_yield());
}

TEST_F(FakeLibc, ScopeMayCoverOneThreadOnly) {
    fake::Always yields(fake::sched_yield, fake::Return(1), fake::kThisThread);
    int other = -1;
    DeadlineThread([&] { other = ::sched_yield(); }).Join();
    EXPECT_EQ(0, other);
    EXPECT_EQ(1, ::sched_yield());
}

TEST_F(FakeLibc, ScopeMayCoverOneDescriptorOnly) {
    auto [a, b] = SocketPair();
    fake::Always sends(fake::send, fake::Fail(EPIPE));
    sends.When([fd = a.Get()](int sender, const void*, size_t, int) { return sender == fd; });
    EXPECT_EQ(-1, ::send(a, "x", 1, 0));
    EXPECT_EQ(1, ::send(b, "x", 1, 0));
}

TEST_F(FakeLibc, ReplacementSeesArgumentsAndCanCallTheRealFunction) {
    auto [a, b] = SocketPair();
    fake::Replace half(fake::send, [](int fd, const void* data, size_t size, int flags) {
        return fake::send.Real(fd, data, size / 2, flags);
    });
    EXPECT_EQ(3, ::send(a, "abcdef", 6, 0));
    char text[8];
    EXPECT_EQ(3, ::recv(b, text, sizeof text, MSG_DONTWAIT));
}

TEST_F(FakeLibc, CallsInsideAReplacementAreReal) {
    fake::Always yields(fake::sched_yield, fake::Return(5));
    fake::Replace process(fake::getpid, [] { return ::sched_yield(); });
    EXPECT_EQ(0, ::getpid());
}

TEST_F(FakeLibc, EndOfAScopeWaitsForTheCallInsideIt) {
    std::atomic<bool> inside = false;
    std::atomic<bool> leave = false;
    std::atomic<bool> left = false;
    std::unique_ptr<DeadlineThread> caller;
    std::unique_ptr<DeadlineThread> releaser;
    {
        fake::Replace process(fake::getpid, [&] {
            inside = true;
            WaitUntil([&] { return leave.load(); });
            left = true;
            return 1;
        });
        caller = std::make_unique<DeadlineThread>([] { ::getpid(); });
        ASSERT_TRUE(WaitUntil([&] { return inside.load(); }));
        releaser = std::make_unique<DeadlineThread>([&] { leave = true; });
    }
    EXPECT_TRUE(left);
}

TEST_F(FakeLibc, AbortMayBeLeftByALongJump) {
    static sigjmp_buf place;
    fake::Replace abort(fake::abort, [] { siglongjmp(place, 1); });
    if (sigsetjmp(place, 1) == 0) std::abort();
    EXPECT_EQ(1u, abort.Calls());
}

TEST_F(FakeLibc, AllocationsCanFail) {
    fake::Script arrays(fake::new_array_nothrow, {fake::Fail(ENOMEM), fake::Real()});
    fake::Script objects(fake::new_nothrow, {fake::Fail(ENOMEM)});
    EXPECT_EQ(nullptr, std::unique_ptr<char[]>(new (std::nothrow) char[10]));
    EXPECT_NE(nullptr, std::unique_ptr<char[]>(new (std::nothrow) char[10]));
    EXPECT_EQ(nullptr, std::unique_ptr<int>(new (std::nothrow) int));
}

TEST_F(FakeLibc, AllocationsAreCounted) {
    fake::Counter allocations(fake::new_throwing, fake::kThisThread);
    const std::vector<int> numbers(100);
    EXPECT_EQ(1u, allocations.Calls());
    EXPECT_EQ(100u, numbers.size());
}

TEST_F(FakeLibc, VariadicFunctionsKeepTheirArguments) {
    auto [a, b] = SocketPair();
    EXPECT_EQ(0, ::fcntl(a, F_SETFD, 0));
    EXPECT_EQ(0, ::fcntl(a, F_GETFD));
    int count = -1;
    EXPECT_EQ(1, ::send(b, "x", 1, 0));
    EXPECT_EQ(0, ::ioctl(a, FIONREAD, &count));
    EXPECT_EQ(1, count);
}

/// Faked locks: the harness, GoogleTest and the C++ library use them, too.
class FakeLocks : public KovaTest {
  protected:
    static void* SetFlag(void* flag) {
        *static_cast<std::atomic<bool>*>(flag) = true;
        return nullptr;
    }

    pthread_mutex_t m_Mutex = PTHREAD_MUTEX_INITIALIZER;
};

TEST_F(FakeLocks, ScopeCoversTheMutexesOfTheCxxLibrary) {
    fake::Always locks(fake::pthread_mutex_lock, fake::Return(EAGAIN), fake::kThisThread);
    std::mutex mutex;
    EXPECT_THROW(mutex.lock(), std::system_error);
}

TEST_F(FakeLocks, ScopeMayCoverOneRecordOnly) {
    fake::Always locks(fake::pthread_mutex_lock, fake::Return(EOWNERDEAD));
    locks.When([this](pthread_mutex_t* mutex) { return mutex == &m_Mutex; });
    std::mutex other;
    const std::lock_guard lock(other);
    EXPECT_EQ(EOWNERDEAD, ::pthread_mutex_lock(&m_Mutex));
    EXPECT_EQ(1u, locks.Calls());
}

TEST_F(FakeLocks, ConditionOfAScopeMayLock) {
    std::mutex other;
    fake::Counter locks(fake::pthread_mutex_lock);
    locks.When([&](pthread_mutex_t* mutex) {
        const std::lock_guard lock(other);
        return mutex == &m_Mutex;
    });
    EXPECT_EQ(0, ::pthread_mutex_lock(&m_Mutex));
    EXPECT_EQ(0, ::pthread_mutex_unlock(&m_Mutex));
    EXPECT_EQ(1u, locks.Calls());
}

TEST_F(FakeLocks, ThreadsAndTheHarnessWorkWhileEveryFunctionIsArmed) {
    fake::Counter locks(fake::pthread_mutex_lock);
    fake::Counter unlocks(fake::pthread_mutex_unlock);
    fake::Counter signals(fake::pthread_cond_signal);
    fake::Counter waits(fake::pthread_cond_wait);
    fake::Counter creates(fake::pthread_create);
    fake::Journal journal({&fake::pthread_mutex_lock, &fake::pthread_create});
    std::mutex mutex;
    std::condition_variable condition;
    bool ready = false;
    DeadlineThread waiter([&] {
        std::unique_lock lock(mutex);
        condition.wait(lock, [&] { return ready; });
    });
    {
        const std::lock_guard lock(mutex);
        ready = true;
    }
    condition.notify_one();
    waiter.Join();
    EXPECT_EQ(1u, journal.Count(fake::pthread_create));
    EXPECT_LE(2u, journal.Count(fake::pthread_mutex_lock));
    EXPECT_LE(2u, locks.Calls());
    EXPECT_LE(2u, unlocks.Calls());
    EXPECT_EQ(1u, creates.Calls());
    // The C++ library may reach its own condition otherwise.
    pthread_cond_t own = PTHREAD_COND_INITIALIZER;
    EXPECT_EQ(0, ::pthread_cond_signal(&own));
    EXPECT_LE(1u, signals.Calls());
}

TEST_F(FakeLocks, EndOfAScopeOfLocksWaitsForTheCallInsideIt) {
    std::atomic<bool> inside = false;
    std::atomic<bool> leave = false;
    std::atomic<bool> left = false;
    std::unique_ptr<DeadlineThread> caller;
    std::unique_ptr<DeadlineThread> releaser;
    {
        fake::Replace unlock(fake::pthread_mutex_unlock, [&](pthread_mutex_t* mutex) {
            inside = true;
            WaitUntil([&] { return leave.load(); });
            left = true;
            return fake::pthread_mutex_unlock.Real(mutex);
        });
        unlock.When([this](pthread_mutex_t* mutex) { return mutex == &m_Mutex; });
        caller = std::make_unique<DeadlineThread>([this] {
            ::pthread_mutex_lock(&m_Mutex);
            ::pthread_mutex_unlock(&m_Mutex);
        });
        ASSERT_TRUE(WaitUntil([&] { return inside.load(); }));
        releaser = std::make_unique<DeadlineThread>([&] { leave = true; });
    }
    EXPECT_TRUE(left);
}

// There are older conditions in libc, which know the wall clock only.
TEST_F(FakeLocks, RealConditionsKeepTheirClock) {
    constexpr auto kTime = std::chrono::milliseconds(30);
    pthread_condattr_t attributes;
    pthread_cond_t condition;
    ASSERT_EQ(0, ::pthread_condattr_init(&attributes));
    ASSERT_EQ(0, ::pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC));
    ASSERT_EQ(0, ::pthread_cond_init(&condition, &attributes));
    const auto end = std::chrono::steady_clock::now() + kTime;
    const auto since_start = std::chrono::nanoseconds(end.time_since_epoch()).count();
    const timespec deadline{static_cast<time_t>(since_start / 1000000000),
                            static_cast<long>(since_start % 1000000000)};
    ASSERT_EQ(0, ::pthread_mutex_lock(&m_Mutex));
    EXPECT_EQ(ETIMEDOUT, ::pthread_cond_timedwait(&condition, &m_Mutex, &deadline));
    EXPECT_GE(std::chrono::steady_clock::now(), end);
    EXPECT_EQ(0, ::pthread_mutex_unlock(&m_Mutex));
    EXPECT_EQ(0, ::pthread_cond_destroy(&condition));
    EXPECT_EQ(0, ::pthread_condattr_destroy(&attributes));
}

TEST_F(FakeLocks, ThreadsAreStartedAndAttributesSetByTheRealFunctions) {
    fake::Journal journal({&fake::pthread_attr_init, &fake::pthread_attr_setdetachstate,
                           &fake::pthread_attr_setschedpolicy, &fake::pthread_attr_setstacksize,
                           &fake::pthread_attr_setschedparam, &fake::pthread_attr_getschedparam,
                           &fake::pthread_attr_destroy, &fake::pthread_create, &fake::geteuid},
                          fake::kThisThread);
    constexpr size_t kStack = 262144;
    std::atomic<bool> ran = false;
    pthread_attr_t attributes;
    sched_param scheduling{};
    size_t stack = 0;
    pthread_t thread;
    ASSERT_EQ(0, ::pthread_attr_init(&attributes));
    EXPECT_EQ(0, ::pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_JOINABLE));
    EXPECT_EQ(0, ::pthread_attr_setschedpolicy(&attributes, SCHED_OTHER));
    EXPECT_EQ(0, ::pthread_attr_setstacksize(&attributes, kStack));
    EXPECT_EQ(0, ::pthread_attr_getstacksize(&attributes, &stack));
    EXPECT_EQ(kStack, stack);
    EXPECT_EQ(0, ::pthread_attr_getschedparam(&attributes, &scheduling));
    EXPECT_EQ(0, ::pthread_attr_setschedparam(&attributes, &scheduling));
    ASSERT_EQ(0, ::pthread_create(&thread, &attributes, SetFlag, &ran));
    EXPECT_EQ(0, ::pthread_join(thread, nullptr));
    EXPECT_TRUE(ran);
    EXPECT_EQ(0, ::pthread_attr_destroy(&attributes));
    EXPECT_EQ(::getuid(), ::geteuid());
    EXPECT_EQ((Texts{"pthread_attr_init", "pthread_attr_setdetachstate PTHREAD_CREATE_JOINABLE",
                     "pthread_attr_setschedpolicy SCHED_OTHER", "pthread_attr_setstacksize 262144",
                     "pthread_attr_getschedparam", "pthread_attr_setschedparam 0", "pthread_create",
                     "pthread_attr_destroy", "geteuid"}),
              journal.Texts());
}

TEST_F(FakeLocks, NewThreadsMayMeetArmedAttributes) {
    fake::Counter inits(fake::pthread_attr_init);
    fake::Counter destroys(fake::pthread_attr_destroy);
    std::atomic<bool> ran = false;
    DeadlineThread([&] { ran = true; }).Join();
    EXPECT_TRUE(ran);
    EXPECT_EQ(0u, inits.Calls() + destroys.Calls()) << "nobody here has attributes";
}

TEST_F(FakeLocks, CancelledWaitLeavesTheHarnessUsable) {
    fake::Counter waits(fake::pthread_cond_wait);
    pthread_cond_t condition = PTHREAD_COND_INITIALIZER;
    std::pair waited{&m_Mutex, &condition};
    const auto wait_for_ever = [](void* argument) -> void* {
        auto* const records = static_cast<std::pair<pthread_mutex_t*, pthread_cond_t*>*>(argument);
        ::pthread_mutex_lock(records->first);
        for (;;) ::pthread_cond_wait(records->second, records->first);
    };
    pthread_t thread;
    void* result = nullptr;
    ASSERT_EQ(0, ::pthread_create(&thread, nullptr, wait_for_ever, &waited));
    EXPECT_TRUE(WaitUntil([&] { return waits.Calls() != 0; }));
    EXPECT_EQ(0, ::pthread_cancel(thread));
    EXPECT_EQ(0, ::pthread_join(thread, &result));
    EXPECT_EQ(PTHREAD_CANCELED, result);
}

class Journal : public KovaTest {};

TEST_F(Journal, NotesCallsOfAllFunctionsInOrder) {
    fake::Journal journal;
    const Fd fd(::socket(AF_INET6, SOCK_DGRAM, 0));
    const timeval time{2, 500000};
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &time, sizeof time);
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    address.sin6_port = htons(20003);
    ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
    ::send(fd, "alive", 6, MSG_NOSIGNAL | MSG_DONTWAIT);
    ::fcntl(fd, F_SETFD, FD_CLOEXEC);
    EXPECT_EQ((Texts{"socket AF_INET6 SOCK_DGRAM 0", "setsockopt SOL_SOCKET SO_RCVTIMEO {2, 500000}",
                     "bind [::]:20003", "send 6 MSG_NOSIGNAL|MSG_DONTWAIT", "fcntl F_SETFD 1"}),
              journal.Texts());
    EXPECT_EQ(5u, journal.Texts(fd).size());
    EXPECT_EQ(std::string("alive", 6), journal.Entries(fake::send).at(0).data);
    EXPECT_EQ(-1, journal.Entries(fake::send).at(0).result);
    EXPECT_EQ(EDESTADDRREQ, journal.Entries(fake::send).at(0).error);
}

TEST_F(Journal, NotesOnlyTheFunctionsAskedFor) {
    fake::Journal journal({&fake::getpid});
    ::getpid();
    ::sched_yield();
    EXPECT_EQ((Texts{"getpid"}), journal.Texts());
}

TEST_F(Journal, KeepsErrno) {
    fake::Journal journal({&fake::getpid, &fake::close});
    errno = 77;
    ::getpid();
    EXPECT_EQ(77, errno);
    ::close(-1);
    EXPECT_EQ(EBADF, errno);
}

class Recorder : public KovaTest {};

TEST_F(Recorder, SeesTheLibrarysRecordsByText) {
    TraceRecorder recorder;
    EXPECT_FALSE(recorder.Has("sleep seconds=%d nanoseconds=%d argument=%d"));
    KovaMilliSleep(-1005);
    EXPECT_TRUE(recorder.Has("sleep seconds=%d nanoseconds=%d argument=%d", {-1, -5000000, -1005}));
    EXPECT_FALSE(recorder.Has("sleep seconds=%d nanoseconds=%d argument=%d", {-1, -5000000, -1006}));
    EXPECT_EQ(1u, recorder.All().size());
    EXPECT_EQ(KovaGetTid(), recorder.All()[0].tid);
    recorder.Clear();
    EXPECT_EQ(0u, recorder.All().size());
}

TEST_F(Recorder, SeesTheRecordsOfChildren) {
    TraceRecorder recorder;
    EXPECT_EQ(0, RunInChild([] { KovaMilliSleep(0); }).exit_code);
    EXPECT_EQ(1u, recorder.All().size());
}

class LeakCheck : public KovaTest {};

/// A fixture that is made and destroyed by hand.
class Probe : public KovaTest {
    void TestBody() override {}
};

TEST_F(LeakCheck, FindsADescriptorLeftOpen) {
    Fd leaked;
    EXPECT_NONFATAL_FAILURE(
        {
            Probe probe;
            leaked = Fd(::dup(0));
        },
        "left open");
}

TEST_F(LeakCheck, FindsADescriptorThatIsNotTheTests) {
    static Fd* const own = new Fd;
    *own = Fd(::dup(0));
    EXPECT_NONFATAL_FAILURE(
        {
            Probe probe;
            own->Close();
        },
        "closed by the test");
    delete own;
}

TEST_F(LeakCheck, ChildReportsHowItEndedAndWhatItWrote) {
    const ChildResult exited = RunInChild([] {
        std::puts("out");
        std::fputs("err", stderr);
        std::exit(3);
    });
    EXPECT_EQ(3, exited.exit_code);
    EXPECT_EQ("out\n", exited.output);
    EXPECT_EQ("err", exited.error);
    EXPECT_EQ(SIGKILL, RunInChild([] { ::raise(SIGKILL); }).signal);
    EXPECT_EQ(1, RunInChild([] { ADD_FAILURE(); }).exit_code);
}

TEST_F(LeakCheck, TcpPairIsConnected) {
    auto [client, server] = TcpPair();
    char byte = 0;
    EXPECT_EQ(1, ::send(client, "x", 1, 0));
    EXPECT_EQ(1, ::recv(server, &byte, 1, 0));
    EXPECT_EQ('x', byte);
}

TEST_F(LeakCheck, WaitEndsAtItsLimit) {
    const int64_t begin = NowMs();
    EXPECT_FALSE(WaitUntil([] { return false; }, std::chrono::milliseconds(30)));
    EXPECT_GE(NowMs() - begin, 20);
}

}  // namespace
