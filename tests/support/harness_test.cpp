// The harness itself: a fake that does nothing, or a leak check that finds nothing, would let every other
// test pass.
#include "support/fake_libc.h"
#include "support/leak_check.h"
#include "support/process.h"
#include "support/trace_recorder.h"

#include <kova/clock.h>
#include <kova/process.h>

#include <fcntl.h>
#include <gtest/gtest-spi.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csetjmp>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
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

/// What an operation on semaphores takes by value.
union SemaphoreArgument {
    int value;
    void* address;
};

/// The library's status call: sources for 64-bit sizes and times have another one on 32-bit systems.
#if __SIZEOF_LONG__ == 4
extern "C" int FileStatus(const char* path, void* status) __asm__("__stat64_time64");
#else
extern "C" int FileStatus(const char* path, void* status) __asm__("stat");
#endif

/// Works in an empty directory.
class FakeFiles : public KovaTest {
  protected:
    FakeFiles() {
        EXPECT_NE(nullptr, ::mkdtemp(m_Directory));
        m_Path = std::string(m_Directory) + "/file";
    }
    ~FakeFiles() override {
        ::unlink(m_Path.c_str());
        EXPECT_EQ(0, ::rmdir(m_Directory));
    }

    char m_Directory[32] = "/tmp/harness-XXXXXX";
    std::string m_Path;
};

TEST_F(FakeFiles, CallsReachTheRealFunctions) {
    const char* const path = m_Path.c_str();
    const std::string directory = m_Path + ".d";
    const mode_t mask = ::umask(027);
    EXPECT_EQ(027u, ::umask(0));
    const Fd created(::open(path, O_RDWR | O_CREAT | O_EXCL, 0640));
    ASSERT_GE(created, 0);
    struct stat status;
    EXPECT_EQ(0, ::fstat(created, &status));
    EXPECT_EQ(0640u, status.st_mode & 0777);
    errno = 77;
    const Fd opened(::open(path, O_RDONLY));
    ASSERT_GE(opened, 0);
    EXPECT_EQ(77, errno);
    EXPECT_EQ(-1, ::open(path, O_RDWR | O_CREAT | O_EXCL, 0640));
    EXPECT_EQ(EEXIST, errno);
    FILE* const file = ::fopen(path, "w");
    ASSERT_NE(nullptr, file);
    EXPECT_LE(0, std::fputs("text", file));
    EXPECT_EQ(0, ::fclose(file));
    alignas(8) char record[256]{};
    alignas(8) char same[256]{};
    EXPECT_EQ(0, FileStatus(path, record));
    EXPECT_EQ(0, fake::file_status.Real(path, same));
    EXPECT_EQ(0, std::memcmp(record, same, sizeof record));
    EXPECT_NE(std::string(sizeof record, 0), std::string(record, sizeof record));
    EXPECT_EQ(0, ::access(path, R_OK));
    EXPECT_NE(-1, ::ftok(path, 1));
    EXPECT_EQ(0, ::mkdir(directory.c_str(), 0750));
    EXPECT_EQ(0, ::rmdir(directory.c_str()));
    EXPECT_EQ(0, ::unlink(path));
    EXPECT_EQ(-1, ::access(path, F_OK));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_EQ(-1, FileStatus(path, record));
    EXPECT_EQ(-1, ::ftok(path, 1));
    EXPECT_EQ(nullptr, ::fopen(path, "r"));
    char place[4096];
    EXPECT_EQ(place, ::getcwd(place, sizeof place));
    EXPECT_EQ('/', place[0]);
    ::umask(mask);
}

TEST_F(FakeFiles, ModeIsReadOnlyWhenItIsThere) {
    std::vector<mode_t> modes;
    fake::Replace open(fake::open, [&](const char*, int, mode_t mode) {
        modes.push_back(mode);
        return -1;
    });
    ::open("a", O_RDONLY);
    ::open("a", O_RDWR | O_CREAT, 0640);
    ::open("a", O_RDWR | O_TMPFILE, 0600);
    ::open("a", O_RDONLY | O_DIRECTORY);
    EXPECT_EQ((std::vector<mode_t>{0, 0640, 0600, 0}), modes);
}

TEST_F(FakeFiles, CallsCanFailAndAreNoted) {
    fake::Script fopens(fake::fopen, {fake::Fail(EMFILE)});
    fake::Script fcloses(fake::fclose, {fake::Fail(ENOSPC)});
    fake::Script opens(fake::open,
                       {fake::Fail(EACCES), fake::Fail(ENOTDIR), fake::Return(1000), fake::Return(1001)});
    fake::Script accesses(fake::access, {fake::Fail(EROFS), fake::Return(0)});
    fake::Script mkdirs(fake::mkdir, {fake::Fail(ENOSPC)});
    fake::Script umasks(fake::umask, {fake::Return(022)});
    fake::Script unlinks(fake::unlink, {fake::Fail(EBUSY)});
    fake::Script statuses(fake::file_status, {fake::Fail(EOVERFLOW)});
    fake::Script places(fake::getcwd, {fake::Fail(ERANGE)});
    fake::Script keys(fake::ftok, {fake::Return(0x50000001)});
    fake::Journal journal;
    char place[8];
    EXPECT_EQ(nullptr, ::fopen("/a", "r"));
    EXPECT_EQ(EMFILE, errno);
    EXPECT_EQ(-1, ::fclose(stdin));
    EXPECT_EQ(-1, ::open("/a", O_RDONLY));
    EXPECT_EQ(-1, ::open("/a", O_RDONLY | O_DIRECTORY));
    EXPECT_EQ(1000, ::open("/a", O_RDWR | O_CREAT | O_EXCL, 0666));
    EXPECT_EQ(1001, ::open("/a", O_WRONLY | O_TMPFILE, 0));
    EXPECT_EQ(-1, ::access("/a", R_OK | W_OK));
    EXPECT_EQ(0, ::access("/a", F_OK));
    EXPECT_EQ(-1, ::mkdir("/d", 0777));
    EXPECT_EQ(022u, ::umask(0));
    EXPECT_EQ(-1, ::unlink("/a"));
    EXPECT_EQ(-1, FileStatus("/a", place));
    EXPECT_EQ(EOVERFLOW, errno);
    EXPECT_EQ(nullptr, ::getcwd(place, sizeof place));
    EXPECT_EQ(ERANGE, errno);
    EXPECT_EQ(0x50000001, ::ftok("/a", 7));
    EXPECT_EQ((Texts{"fopen /a r", "fclose", "open /a O_RDONLY", "open /a O_RDONLY|O_DIRECTORY",
                     "open /a O_RDWR|O_CREAT|O_EXCL 0666", "open /a O_WRONLY|O_TMPFILE 0",
                     "access /a R_OK|W_OK", "access /a F_OK", "mkdir /d 0777", "umask 0", "unlink /a",
                     "stat /a", "getcwd 8", "ftok /a 7"}),
              journal.Texts());
    EXPECT_EQ((Texts{"open /a O_RDWR|O_CREAT|O_EXCL 0666"}), journal.Texts(1000));
    EXPECT_EQ((Texts{"fclose"}), journal.Texts(0));
}

TEST_F(FakeFiles, LocksAndNoticesAreNotedByTheirNames) {
    const Fd fd(::open(m_Path.c_str(), O_RDWR | O_CREAT, 0600));
    const Fd directory(::open(m_Directory, O_RDONLY));
    fake::Journal journal({&fake::fcntl});
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    EXPECT_EQ(0, ::fcntl(fd, F_SETLKW, &lock));
    lock.l_type = F_UNLCK;
    lock.l_whence = SEEK_END;
    lock.l_start = 10;
    lock.l_len = 5;
    EXPECT_EQ(0, ::fcntl(fd, F_SETLK, &lock));
    EXPECT_EQ(0, ::fcntl(directory, F_SETSIG, SIGRTMIN + 1));
    EXPECT_EQ(0, ::fcntl(directory, F_SETSIG, 0));
    EXPECT_EQ(0, ::fcntl(directory, F_NOTIFY, DN_MULTISHOT | DN_CREATE | DN_DELETE));
    const Fd copy(::fcntl(fd, F_DUPFD, 0));
    EXPECT_LE(0, copy);
    EXPECT_EQ((Texts{"fcntl F_SETLKW F_WRLCK SEEK_SET {0, 0}", "fcntl F_SETLK F_UNLCK SEEK_END {10, 5}",
                     "fcntl F_SETSIG SIGRTMIN+1", "fcntl F_SETSIG 0",
                     "fcntl F_NOTIFY DN_MULTISHOT|DN_CREATE|DN_DELETE", "fcntl F_DUPFD 0"}),
              journal.Texts());
}

KOVA_PART(hold_a_file_lock) {
    const Fd fd(::open(args.at(0).c_str(), O_RDWR));
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_start = 100;
    process::Tell(std::to_string(::fcntl(fd, F_SETLK, &lock)));
    process::Listen();
    return 0;
}

TEST_F(FakeFiles, LocksOfOtherProcessesAreReal) {
    const Fd fd(::open(m_Path.c_str(), O_RDWR | O_CREAT, 0600));
    process::Process holder("hold_a_file_lock", {m_Path});
    EXPECT_EQ("0", holder.Hear());
    struct flock lock {};
    lock.l_type = F_RDLCK;
    lock.l_start = 100;
    EXPECT_EQ(-1, ::fcntl(fd, F_SETLK, &lock));
    EXPECT_EQ(0, ::fcntl(fd, F_GETLK, &lock));
    EXPECT_EQ(F_WRLCK, lock.l_type);
    EXPECT_EQ(holder.Pid(), lock.l_pid);
    lock.l_type = F_RDLCK;
    lock.l_start = 0;
    lock.l_len = 100;
    EXPECT_EQ(0, ::fcntl(fd, F_SETLK, &lock));
}

TEST_F(FakeLibc, MessagesAreNotedWithTheirDataAndDestination) {
    auto [one, other] = SocketPair(SOCK_DGRAM);
    char first[] = "da";
    char second[] = "ta";
    iovec parts[] = {{first, 2}, {second, 2}};
    msghdr message{};
    message.msg_iov = parts;
    message.msg_iovlen = 2;
    fake::Journal journal;
    EXPECT_EQ(4, ::sendmsg(one, &message, MSG_NOSIGNAL));
    char received[8];
    EXPECT_EQ(4, fake::recv.Real(other, received, sizeof received, 0));
    EXPECT_EQ("data", std::string(received, 4));

    fake::Script sends(fake::sendmsg, {fake::Fail(ENOBUFS)});
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(9);
    to.sin_addr.s_addr = htonl(0x0A000001);
    alignas(cmsghdr) unsigned char control[CMSG_SPACE(sizeof(in_pktinfo))] = {};
    message.msg_name = &to;
    message.msg_namelen = sizeof to;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    cmsghdr* const header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = IPPROTO_IP;
    header->cmsg_type = IP_PKTINFO;
    header->cmsg_len = CMSG_LEN(sizeof(in_pktinfo));
    in_pktinfo info{};
    info.ipi_ifindex = 77;
    std::memcpy(CMSG_DATA(header), &info, sizeof info);
    EXPECT_EQ(-1, ::sendmsg(one, &message, 0));
    EXPECT_EQ(ENOBUFS, errno);
    EXPECT_EQ((Texts{"sendmsg 4 MSG_NOSIGNAL null", "sendmsg 4 0 10.0.0.1:9 interface 77"}),
              journal.Texts(one));
    EXPECT_EQ("data", journal.Entries().at(1).data);
}

class FakeSharing : public KovaTest {};

TEST_F(FakeSharing, SemaphoresAreRealAndNotedByTheirNames) {
    fake::Journal journal;
    const int set = ::semget(0x5000abcd, 2, IPC_CREAT | IPC_EXCL | 0666);
    ASSERT_LE(0, set);
    EXPECT_EQ(-1, ::semget(0x5000abcd, 0, IPC_CREAT | IPC_EXCL));
    EXPECT_EQ(EEXIST, errno);
    EXPECT_EQ(set, ::semget(0x5000abcd, 0, 0));
    SemaphoreArgument argument{5};
    EXPECT_EQ(0, ::semctl(set, 1, SETVAL, argument));
    EXPECT_EQ(5, ::semctl(set, 1, GETVAL));
    EXPECT_EQ(::getpid(), ::semctl(set, 1, GETPID));
    EXPECT_EQ(0, ::semctl(set, 1, GETNCNT));
    EXPECT_EQ(0, ::semctl(set, 1, GETZCNT));
    sembuf take{1, -2, 0};
    EXPECT_EQ(0, ::semop(set, &take, 1));
    EXPECT_EQ(3, ::semctl(set, 1, GETVAL));
    sembuf several[] = {{0, 0, IPC_NOWAIT}, {1, 1, SEM_UNDO}};
    EXPECT_EQ(0, ::semop(set, several, 2));
    unsigned short values[2];
    argument.address = values;
    EXPECT_EQ(0, ::semctl(set, 0, GETALL, argument));
    EXPECT_EQ(4, values[1]);
    take.sem_op = -5;
    const timespec time{0, 1000};
    EXPECT_EQ(-1, ::semtimedop(set, &take, 1, &time));
    EXPECT_EQ(EAGAIN, errno);
    take.sem_op = -1;
    EXPECT_EQ(0, ::semtimedop(set, &take, 1, nullptr));
    EXPECT_EQ(0, ::semctl(set, 0, IPC_RMID));
    EXPECT_EQ(-1, ::semctl(set, 0, IPC_RMID));
    const std::string id = std::to_string(set);
    EXPECT_EQ((Texts{"semget 0x5000abcd 2 IPC_CREAT|IPC_EXCL|0666", "semget 0x5000abcd 0 IPC_CREAT|IPC_EXCL",
                     "semget 0x5000abcd 0 0", "semctl " + id + " 1 SETVAL 5", "semctl " + id + " 1 GETVAL",
                     "semctl " + id + " 1 GETPID", "semctl " + id + " 1 GETNCNT",
                     "semctl " + id + " 1 GETZCNT", "semop " + id + " [1 -2]", "semctl " + id + " 1 GETVAL",
                     "semop " + id + " [0 0 IPC_NOWAIT, 1 +1 SEM_UNDO]", "semctl " + id + " 0 GETALL",
                     "semtimedop " + id + " [1 -5] {0, 1000}", "semtimedop " + id + " [1 -1] null",
                     "semctl " + id + " 0 IPC_RMID", "semctl " + id + " 0 IPC_RMID"}),
              journal.Texts());
}

TEST_F(FakeSharing, SemaphoreCallsCanFail) {
    fake::Script gets(fake::semget, {fake::Fail(ENOSPC)});
    fake::Script operations(fake::semop, {fake::Fail(EINTR)});
    fake::Script timed(fake::semtimedop, {fake::Fail(ENOSYS)});
    std::vector<long> arguments;
    fake::Replace controls(fake::semctl, [&](int, int, int, long argument) {
        arguments.push_back(argument);
        return 9;
    });
    sembuf take{0, -1, 0};
    EXPECT_EQ(-1, ::semget(IPC_PRIVATE, 1, 0600));
    EXPECT_EQ(ENOSPC, errno);
    EXPECT_EQ(-1, ::semop(0, &take, 1));
    EXPECT_EQ(EINTR, errno);
    EXPECT_EQ(-1, ::semtimedop(0, &take, 1, nullptr));
    EXPECT_EQ(ENOSYS, errno);
    SemaphoreArgument argument;
    argument.address = &take;
    EXPECT_EQ(9, ::semctl(0, 0, IPC_STAT, argument));
    argument.value = -3;
    EXPECT_EQ(9, ::semctl(0, 0, SETVAL, argument));
    EXPECT_EQ(9, ::semctl(0, 0, GETNCNT));
    EXPECT_EQ((std::vector<long>{reinterpret_cast<long>(&take), -3, 0}), arguments);
}

TEST_F(FakeSharing, QueuesAreRealAndNotedByTheirNames) {
    struct Message {
        long type;
        char text[8];
    };
    fake::Journal journal;
    const int queue = ::msgget(IPC_PRIVATE, IPC_CREAT | 0600);
    ASSERT_LE(0, queue);
    const Message sent{7, "hello"};
    Message received{};
    msqid_ds state;
    EXPECT_EQ(0, ::msgsnd(queue, &sent, 6, IPC_NOWAIT));
    EXPECT_EQ(0, ::msgctl(queue, IPC_STAT, &state));
    EXPECT_EQ(1u, state.msg_qnum);
    EXPECT_EQ(3, ::msgrcv(queue, &received, 3, 0, IPC_NOWAIT | MSG_NOERROR));
    EXPECT_EQ(7, received.type);
    EXPECT_STREQ("hel", received.text);
    EXPECT_EQ(-1, ::msgrcv(queue, &received, 3, -8, IPC_NOWAIT));
    EXPECT_EQ(ENOMSG, errno);
    EXPECT_EQ(0, ::msgctl(queue, IPC_RMID, nullptr));
    const std::string id = std::to_string(queue);
    EXPECT_EQ((Texts{"msgget IPC_PRIVATE IPC_CREAT|0600", "msgsnd " + id + " [type 7] 6 IPC_NOWAIT",
                     "msgctl " + id + " IPC_STAT", "msgrcv " + id + " 3 0 IPC_NOWAIT|MSG_NOERROR",
                     "msgrcv " + id + " 3 -8 IPC_NOWAIT", "msgctl " + id + " IPC_RMID"}),
              journal.Texts());
    EXPECT_EQ(std::string("hello", 6), journal.Entries(fake::msgsnd).at(0).data);
}

TEST_F(FakeSharing, QueueCallsCanFail) {
    fake::Script gets(fake::msgget, {fake::Fail(ENOSPC)});
    fake::Script sends(fake::msgsnd, {fake::Fail(EINTR)});
    fake::Script receives(fake::msgrcv, {fake::Fail(EIDRM)});
    fake::Script controls(fake::msgctl, {fake::Fail(EPERM)});
    const long message[2] = {1, 2};
    long received[2];
    EXPECT_EQ(-1, ::msgget(IPC_PRIVATE, 0600));
    EXPECT_EQ(-1, ::msgsnd(0, message, sizeof(long), 0));
    EXPECT_EQ(EINTR, errno);
    EXPECT_EQ(-1, ::msgrcv(0, received, sizeof(long), 0, 0));
    EXPECT_EQ(EIDRM, errno);
    EXPECT_EQ(-1, ::msgctl(0, IPC_RMID, nullptr));
    EXPECT_EQ(EPERM, errno);
}

std::atomic<int> g_Signal = 0;

TEST_F(FakeSharing, SignalsAreRealAndNotedByTheirNames) {
    fake::Journal journal;
    struct sigaction action {};
    struct sigaction before;
    sigset_t mask;
    sigset_t mask_before;
    sigset_t all;
    action.sa_handler = [](int signal) { g_Signal = signal; };
    action.sa_flags = SA_RESTART;
    ::sigemptyset(&action.sa_mask);
    ::sigaddset(&action.sa_mask, SIGIO);
    ::sigaddset(&action.sa_mask, SIGRTMIN);
    ::sigemptyset(&mask);
    ::sigaddset(&mask, SIGRTMIN);
    ::sigfillset(&all);
    g_Signal = 0;
    EXPECT_EQ(0, ::sigprocmask(SIG_BLOCK, nullptr, &mask_before));
    EXPECT_EQ(0, ::sigaction(SIGRTMIN, &action, nullptr));
    EXPECT_EQ(0, ::sigprocmask(SIG_BLOCK, &all, nullptr));
    ::raise(SIGRTMIN);
    EXPECT_EQ(0, g_Signal);
    EXPECT_EQ(0, ::sigprocmask(SIG_UNBLOCK, &mask, nullptr));
    EXPECT_EQ(SIGRTMIN, g_Signal);
    EXPECT_EQ(0, ::sigprocmask(SIG_SETMASK, &mask_before, nullptr));
    EXPECT_EQ(0, ::sigaction(SIGRTMIN, nullptr, &before));
    EXPECT_EQ(action.sa_handler, before.sa_handler);
    action = {};
    action.sa_handler = SIG_DFL;
    EXPECT_EQ(0, ::sigaction(SIGRTMIN, &action, nullptr));
    EXPECT_EQ(
        (Texts{"sigprocmask null", "sigaction SIGRTMIN handler SA_RESTART [SIGIO SIGRTMIN]",
               "sigprocmask SIG_BLOCK [all]", "sigprocmask SIG_UNBLOCK [SIGRTMIN]",
               "sigprocmask SIG_SETMASK []", "sigaction SIGRTMIN null", "sigaction SIGRTMIN SIG_DFL 0"}),
        journal.Texts());
}

TEST_F(FakeSharing, SignalCallsCanFail) {
    fake::Script actions(fake::sigaction, {fake::Fail(EINVAL)});
    fake::Script masks(fake::sigprocmask, {fake::Fail(EFAULT)});
    EXPECT_EQ(-1, ::sigaction(SIGIO, nullptr, nullptr));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ(-1, ::sigprocmask(SIG_BLOCK, nullptr, nullptr));
    EXPECT_EQ(EFAULT, errno);
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

// --- Processes ---

KOVA_PART(echo) {
    for (std::string line = process::Listen(); line != "end"; line = process::Listen())
        process::Tell(line + "!");
    return 42;
}

KOVA_PART(count_arguments) {
    for (const std::string& argument : args) process::Tell(argument);
    return static_cast<int>(args.size());
}

KOVA_PART(abort) { std::abort(); }

KOVA_PART(fail_an_assertion) {
    EXPECT_TRUE(false) << "wanted";
    return 0;
}

KOVA_PART(tell_its_state) {
    process::Tell(std::to_string(::getpid()) + " " + std::to_string(::gettid()));
    size_t descriptors = 0;
    for (int fd = 0; fd < 1000; ++fd) descriptors += IsOpenFd(fd);
    process::Tell(std::to_string(descriptors));
    sigset_t blocked;
    ::sigprocmask(SIG_SETMASK, nullptr, &blocked);
    process::Tell(::sigisemptyset(&blocked) ? "none blocked" : "some blocked");
    rlimit core;
    ::getrlimit(RLIMIT_CORE, &core);
    process::Tell("core " + std::to_string(core.rlim_cur));
    process::Tell(std::signal(SIGPIPE, SIG_DFL) == SIG_DFL ? "none ignored" : "SIGPIPE ignored");
    process::Listen();
    return 0;
}

KOVA_PART(tell_two_lines_at_once) {
    process::Tell("first\nsecond");
    return 0;
}

KOVA_PART(sleep_for_ever) {
    for (;;) ::pause();
}

class Processes : public KovaTest {};

TEST_F(Processes, LinesGoBothWays) {
    process::Process echo("echo");
    echo.Say("one");
    echo.Say("");
    EXPECT_EQ("one!", echo.Hear());
    EXPECT_EQ("!", echo.Hear());
    const std::string wide(100000, 'w');
    echo.Say(wide);
    EXPECT_EQ(wide + "!", echo.Hear());
    echo.Say("end");
    EXPECT_EQ(42, echo.Wait());
    EXPECT_EQ(42, echo.Wait());
}

TEST_F(Processes, SeveralPlayAtOnce) {
    process::Process first("echo");
    process::Process second("echo");
    EXPECT_NE(first.Pid(), second.Pid());
    second.Say("b");
    first.Say("a");
    EXPECT_EQ("a!", first.Hear());
    EXPECT_EQ("b!", second.Hear());
}

TEST_F(Processes, PartGetsItsArguments) {
    process::Process part("count_arguments", {"a b", "", "--gtest_list_tests"});
    EXPECT_EQ("a b", part.Hear());
    EXPECT_EQ("", part.Hear());
    EXPECT_EQ("--gtest_list_tests", part.Hear());
    EXPECT_EQ(3, part.Wait());
}

TEST_F(Processes, LinesMayArriveTogether) {
    process::Process part("tell_two_lines_at_once");
    EXPECT_EQ(0, part.Wait());
    EXPECT_EQ("first", part.Hear());
    EXPECT_EQ("second", part.Hear());
}

TEST_F(Processes, PartStartsFresh) {
    const Fd inherited(::dup(0));
    ASSERT_EQ(0, ::fcntl(inherited, F_SETFD, 0));
    sigset_t all;
    sigset_t before;
    ::sigfillset(&all);
    ::sigprocmask(SIG_SETMASK, &all, &before);
    const auto handler = std::signal(SIGPIPE, SIG_IGN);
    rlimit core;
    ::getrlimit(RLIMIT_CORE, &core);
    const rlimit most{core.rlim_max, core.rlim_max};
    ::setrlimit(RLIMIT_CORE, &most);
    process::Process part("tell_its_state");
    ::setrlimit(RLIMIT_CORE, &core);
    ::sigprocmask(SIG_SETMASK, &before, nullptr);
    std::signal(SIGPIPE, handler);
    EXPECT_EQ(std::to_string(part.Pid()) + " " + std::to_string(part.Pid()), part.Hear());
    EXPECT_EQ("4", part.Hear()) << "the standard streams and the channel";
    EXPECT_EQ("none blocked", part.Hear());
    EXPECT_EQ("core 0", part.Hear());
    EXPECT_EQ("none ignored", part.Hear());
}

/// How many descriptors a program gets that the test starts in the usual way.
std::string InheritedDescriptors() {
    const std::unique_ptr<FILE, int (*)(FILE*)> list(::popen("ls /proc/self/fd | wc -l", "r"), ::pclose);
    char text[16] = "";
    return std::fgets(text, sizeof text, list.get());
}

TEST_F(Processes, ChannelIsNotInherited) {
    const std::string before = InheritedDescriptors();
    process::Process part("echo");
    EXPECT_EQ(before, InheritedDescriptors());
}

TEST_F(Processes, EndWithoutALineFailsTheTest) {
    process::Process part("echo");
    part.Say("end");
    EXPECT_NONFATAL_FAILURE(EXPECT_EQ("", part.Hear()), "ended without the line");
    EXPECT_EQ(42, part.Wait());
}

TEST_F(Processes, HangingPartFailsTheTestAndIsKilled) {
    constexpr std::chrono::milliseconds kShort{30};
    process::Process silent("sleep_for_ever");
    EXPECT_NONFATAL_FAILURE(EXPECT_EQ("", silent.Hear(kShort)), "sleep_for_ever");
    EXPECT_EQ(-SIGKILL, silent.Wait());
    process::Process endless("sleep_for_ever");
    EXPECT_NONFATAL_FAILURE(EXPECT_EQ(-SIGKILL, endless.Wait(kShort)), "no end of it within 30 ms");
}

TEST_F(Processes, AbortIsTold) {
    process::Process part("abort");
    EXPECT_EQ(-SIGABRT, part.Wait());
}

TEST_F(Processes, FailedAssertionChangesTheExitStatus) {
    process::Process part("fail_an_assertion");
    EXPECT_EQ(1, part.Wait());
}

TEST_F(Processes, CanBeKilled) {
    process::Process part("sleep_for_ever");
    part.Kill();
    EXPECT_EQ(-SIGKILL, part.Wait());
    part.Say("lost");
    part.Kill();
    process::Process other("sleep_for_ever");
    other.Kill(SIGTERM);
    EXPECT_EQ(-SIGTERM, other.Wait());
}

TEST_F(Processes, EndOfTheObjectKillsAndReaps) {
    pid_t pid = 0;
    {
        process::Process part("sleep_for_ever");
        pid = part.Pid();
        EXPECT_EQ(0, ::kill(pid, 0));
    }
    EXPECT_EQ(-1, ::kill(pid, 0));
    EXPECT_EQ(ESRCH, errno);
}

TEST_F(Processes, UnknownPartFailsTheTest) {
    EXPECT_NONFATAL_FAILURE(process::Process("nobody"), "no part nobody");
}

TEST_F(Processes, AreNotNoted) {
    fake::Journal journal;
    {
        process::Process part("count_arguments", {"a"});
        EXPECT_EQ("a", part.Hear());
        part.Say("b");
        EXPECT_EQ(1, part.Wait());
    }
    EXPECT_EQ(Texts{}, journal.Texts());
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
    static Fd own;
    own = Fd(::dup(0));
    EXPECT_NONFATAL_FAILURE(
        {
            Probe probe;
            own.Close();
        },
        "closed by the test");
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
