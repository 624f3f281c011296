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
#include <sys/ioctl.h>
#include <unistd.h>

#include <csetjmp>
#include <new>
#include <string>
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

TEST_F(FakeLibc, VariadicFunctionsKeepTheirArguments) {
    auto [a, b] = SocketPair();
    EXPECT_EQ(0, ::fcntl(a, F_SETFD, 0));
    EXPECT_EQ(0, ::fcntl(a, F_GETFD));
    int count = -1;
    EXPECT_EQ(1, ::send(b, "x", 1, 0));
    EXPECT_EQ(0, ::ioctl(a, FIONREAD, &count));
    EXPECT_EQ(1, count);
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
