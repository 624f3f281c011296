// The shared mutex between real processes.

#include "ipc/ipc_sets.h"
#include "support/fake_libc.h"
#include "support/process.h"
#include "support/signal_storm.h"

#include <kova/shared_mutex.h>

#include <fcntl.h>
#include <sched.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace {

using Values = std::vector<int>;

constexpr const char* kName = "m";
constexpr const char* kPath = "/tmp/kova/m.kovamtx";

/// Positions of the set.
enum { kLock, kCounter, kOwnerPid, kOwnerTid, kPersistent };

/// A page that processes share.
class SharedPage {
  public:
    explicit SharedPage(const std::string& path) {
        const Fd file(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666));
        EXPECT_EQ(0, ::ftruncate(file, kSize));
        m_Words =
            static_cast<volatile int*>(::mmap(nullptr, kSize, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0));
        EXPECT_NE(MAP_FAILED, static_cast<void*>(const_cast<int*>(m_Words)));
    }
    SharedPage(const SharedPage&) = delete;
    SharedPage& operator=(const SharedPage&) = delete;
    ~SharedPage() { ::munmap(const_cast<int*>(m_Words), kSize); }

    volatile int& operator[](size_t index) { return m_Words[index]; }

  private:
    static constexpr size_t kSize = 4096;

    volatile int* m_Words = nullptr;
};

constexpr const char* kPage = "/tmp/page";

// --- Parts ---

/// Does what it is told and tells what came of it.
KOVA_PART(user) {
    int set = -1;
    int fd = -1;
    std::string name;
    const std::map<std::string, std::function<int()>> commands{
        {"create", [&] { return KovaSharedMutexCreate(&set, name.c_str()); }},
        {"destroy", [&] { return KovaSharedMutexDestroy(&set, name.c_str()); }},
        {"lock", [&] { return KovaSharedMutexLock(&set); }},
        {"trylock", [&] { return KovaSharedMutexTrylock(&set); }},
        {"unlock", [&] { return KovaSharedMutexUnlock(&set); }},
        {"persist", [&] { return KovaSharedMutexSetPersistent(&set); }},
        {"cdlock", [&] { return (fd = KovaSharedMutexCDLock(name.c_str())) > 0 ? 0 : -1; }},
        {"cdunlock", [&] { return KovaSharedMutexCDUnlock(fd); }},
    };
    for (;;) {
        std::istringstream line(process::Listen());
        std::string command;
        line >> command >> name;
        if (command == "end") return 0;
        process::Tell(std::to_string(commands.at(command)()));
    }
}

/// A process that plays it.
class User {
  public:
    User() : m_Process("user") {}

    pid_t Pid() const { return m_Process.Pid(); }
    void Say(const std::string& command) { m_Process.Say(command); }
    int Hear() { return std::atoi(m_Process.Hear().c_str()); }
    int Does(const std::string& command) {
        Say(command);
        return Hear();
    }
    int Kill() {
        m_Process.Kill();
        return m_Process.Wait();
    }
    int End() {
        Say("end");
        return Wait();
    }
    int Wait() { return m_Process.Wait(); }

  private:
    process::Process m_Process;
};

/// A mutex that this process has open.
class Own {
  public:
    explicit Own(const char* name = kName) : m_Name(name) {
        EXPECT_GE(KovaSharedMutexCreate(&m_Set, name), 0);
    }
    Own(const Own&) = delete;
    Own& operator=(const Own&) = delete;
    ~Own() { EXPECT_EQ(0, KovaSharedMutexDestroy(&m_Set, m_Name)); }

    int Set() const { return m_Set; }
    int* Handle() { return &m_Set; }

  private:
    const char* const m_Name;
    int m_Set = -1;
};

class SharedMutexProcesses : public ipc::Test {
  protected:
    ~SharedMutexProcesses() override { std::filesystem::remove(kPage); }

    /// The first position's only waiter has come.
    static bool WaitsFor(int set) {
        return WaitUntil([=] { return ipc::Waiters(set, kLock) == 1; });
    }
};

// --- Who opens, who removes ---

TEST_F(SharedMutexProcesses, FirstMakesTheSetAndTheSecondOpensIt) {
    User first;
    User second;
    const int set = first.Does("create m");
    EXPECT_EQ(set, ipc::FindSet(kPath));
    EXPECT_EQ((Values{1, 1, 0, 0, 0}), ipc::Values(set));
    EXPECT_EQ(0, first.Does("lock"));
    EXPECT_EQ(set, second.Does("create m"));
    EXPECT_EQ((Values{0, 2, first.Pid(), first.Pid(), 0}), ipc::Values(set)) << "not made anew";
    EXPECT_EQ(0, first.Does("unlock"));

    EXPECT_EQ(0, first.Does("destroy m"));
    EXPECT_EQ((Values{1, 1, 0, 0, 0}), ipc::Values(set));
    EXPECT_EQ(0, second.Does("destroy m"));
    EXPECT_EQ(-1, ipc::FindSet(kPath));
    EXPECT_TRUE(std::filesystem::exists(kPath)) << "key files stay";
}

TEST_F(SharedMutexProcesses, ProcessThatEndsWithoutDestroyingGivesItsReferenceBack) {
    Own own;
    User killed;
    User ended;
    ASSERT_EQ(own.Set(), killed.Does("create m"));
    ASSERT_EQ(own.Set(), killed.Does("create m"));
    ASSERT_EQ(own.Set(), ended.Does("create m"));
    EXPECT_EQ(4, KovaSharedMutexGetRefCounter(own.Handle()));
    EXPECT_EQ(-SIGKILL, killed.Kill());
    EXPECT_EQ(2, KovaSharedMutexGetRefCounter(own.Handle()));
    EXPECT_EQ(0, ended.End());
    EXPECT_EQ(1, KovaSharedMutexGetRefCounter(own.Handle()));
}

// Deliberate: the increment is taken back when the process ends, also when it has destroyed the mutex.
TEST_F(SharedMutexProcesses, ProcessThatDestroysAndThenEndsIsTakenOffTwice) {
    User user;
    User passing;
    const int set = user.Does("create m");
    ASSERT_EQ(set, passing.Does("create m"));
    EXPECT_EQ(0, passing.Does("destroy m"));
    EXPECT_EQ(1, ipc::Value(set, kCounter));
    EXPECT_EQ(0, passing.End());
    EXPECT_EQ(0, ipc::Value(set, kCounter)) << "although one process has it open";

    // So whoever comes next is the only one that counts, and removes the set of the other.
    EXPECT_EQ((Values{1, 0, 0, 0, 0}), ipc::Values(set));
    { Own own; }
    EXPECT_EQ(-1, ipc::FindSet(kPath));
    user.Say("lock");
    EXPECT_EQ(-SIGABRT, user.Wait());
}

TEST_F(SharedMutexProcesses, CounterOfADyingProcessEndsAtZero) {
    User user;
    const int set = user.Does("create m");
    EXPECT_EQ(set, user.Does("create m"));
    EXPECT_EQ(0, user.Does("destroy m"));
    EXPECT_EQ(1, ipc::Value(set, kCounter));
    EXPECT_EQ(0, user.End());
    EXPECT_EQ((Values{1, 0, 0, 0, 0}), ipc::Values(set)) << "a set without users stays until a destroy";
    { Own own; }
    EXPECT_TRUE(ipc::Sets().empty());
}

TEST_F(SharedMutexProcesses, PersistentSetOutlivesItsUsers) {
    User first;
    const int set = first.Does("create m");
    EXPECT_EQ(0, first.Does("persist"));
    EXPECT_EQ(0, first.Does("destroy m"));
    EXPECT_EQ((Values{1, 0, 0, 0, 1}), ipc::Values(set));
    EXPECT_EQ(0, first.End());
    EXPECT_EQ((Values{1, 0, 0, 0, 1}), ipc::Values(set));

    User second;
    EXPECT_EQ(set, second.Does("create m"));
    EXPECT_EQ((Values{1, 1, 0, 0, 1}), ipc::Values(set));
    EXPECT_EQ(0, second.Does("lock"));
    EXPECT_EQ(0, second.Does("unlock"));
    EXPECT_EQ(0, second.Does("destroy m"));
    EXPECT_EQ((Values{1, 0, 0, 0, 1}), ipc::Values(set));
    ipc::Remove(set);
}

TEST_F(SharedMutexProcesses, PersistentSetIsFoundWithItsLockState) {
    User holder;
    User finder;
    const int set = holder.Does("create m");
    EXPECT_EQ(0, holder.Does("persist"));
    EXPECT_EQ(0, holder.Does("lock"));
    EXPECT_EQ(0, holder.Does("destroy m"));
    EXPECT_EQ(set, finder.Does("create m"));
    EXPECT_EQ((Values{0, 1, holder.Pid(), holder.Pid(), 1}), ipc::Values(set));
    EXPECT_EQ(1, finder.Does("trylock"));
    EXPECT_EQ(0, holder.Does("unlock"));
    EXPECT_EQ(0, finder.Does("trylock"));
    EXPECT_EQ(-SIGKILL, finder.Kill());
    ipc::Remove(set);
}

TEST_F(SharedMutexProcesses, SetRemovedByAnotherEndsWaiterAndUsers) {
    User holder;
    User waiter;
    const int set = holder.Does("create m");
    EXPECT_EQ(set, waiter.Does("create m"));
    EXPECT_EQ(0, holder.Does("lock"));
    waiter.Say("lock");
    EXPECT_TRUE(WaitsFor(set));
    ipc::Remove(set);
    EXPECT_EQ(-SIGABRT, waiter.Wait());
    EXPECT_EQ(-1, holder.Does("destroy m"));
    holder.Say("unlock");
    EXPECT_EQ(-SIGABRT, holder.Wait());
}

TEST_F(SharedMutexProcesses, KeyFileRemovedUnderAHolderMeansAnotherMutexForTheNext) {
    User old;
    User fresh;
    const int set = old.Does("create m");
    EXPECT_EQ(0, old.Does("lock"));
    EXPECT_TRUE(std::filesystem::remove(kPath));
    const int other = fresh.Does("create m");
    EXPECT_NE(set, other);
    EXPECT_EQ(0, fresh.Does("lock"));
    EXPECT_EQ((Values{0, 1, fresh.Pid(), fresh.Pid(), 0}), ipc::Values(other));
    EXPECT_EQ(0, old.Does("unlock"));
    EXPECT_EQ(0, old.Does("destroy m"));
    EXPECT_EQ((Values{}), ipc::Values(set)) << "each removes its own";
    EXPECT_EQ(other, ipc::FindSet(kPath));
    EXPECT_EQ(0, fresh.Does("unlock"));
    EXPECT_EQ(0, fresh.Does("destroy m"));
}

// --- Who holds ---

TEST_F(SharedMutexProcesses, HolderKeepsOthersOutUntilItUnlocks) {
    User holder;
    User waiter;
    const int set = holder.Does("create m");
    EXPECT_EQ(set, waiter.Does("create m"));
    EXPECT_EQ(0, holder.Does("lock"));
    EXPECT_EQ(1, waiter.Does("trylock"));
    EXPECT_EQ((Values{0, 2, holder.Pid(), holder.Pid(), 0}), ipc::Values(set));
    waiter.Say("lock");
    EXPECT_TRUE(WaitsFor(set));
    EXPECT_EQ(0, holder.Does("unlock"));
    EXPECT_EQ(0, waiter.Hear());
    EXPECT_EQ((Values{0, 2, waiter.Pid(), waiter.Pid(), 0}), ipc::Values(set));
    EXPECT_EQ(1, holder.Does("trylock"));
    EXPECT_EQ(0, waiter.Does("unlock"));
    EXPECT_EQ((Values{1, 2, 0, 0, 0}), ipc::Values(set));
    EXPECT_EQ(0, waiter.Does("destroy m"));
    EXPECT_EQ(0, holder.Does("destroy m"));
}

TEST_F(SharedMutexProcesses, KilledHolderLeavesTheLockFreeAndItsIdsUntilTheNextLock) {
    Own own;
    User holder;
    ASSERT_EQ(own.Set(), holder.Does("create m"));
    EXPECT_EQ(0, holder.Does("lock"));
    EXPECT_EQ(-SIGKILL, holder.Kill());
    EXPECT_EQ((Values{1, 1, holder.Pid(), holder.Pid(), 0}), ipc::Values(own.Set()));
    KovaPTid owner{};
    EXPECT_EQ(holder.Pid(), KovaSharedMutexGetOwner(own.Handle(), owner).pid);

    EXPECT_EQ(0, KovaSharedMutexLock(own.Handle()));
    EXPECT_EQ((Values{0, 1, KovaGetPid(), KovaGetTid(), 0}), ipc::Values(own.Set()));
    EXPECT_EQ(0, KovaSharedMutexUnlock(own.Handle()));
    EXPECT_EQ((Values{1, 1, 0, 0, 0}), ipc::Values(own.Set()));
}

TEST_F(SharedMutexProcesses, HolderThatEndsLeavesTheLockFree) {
    Own own;
    User holder;
    ASSERT_EQ(own.Set(), holder.Does("create m"));
    EXPECT_EQ(0, holder.Does("trylock"));
    EXPECT_EQ(0, holder.End());
    EXPECT_EQ((Values{1, 1, holder.Pid(), holder.Pid(), 0}), ipc::Values(own.Set()));
    EXPECT_EQ(0, KovaSharedMutexTrylock(own.Handle()));
    EXPECT_EQ(0, KovaSharedMutexUnlock(own.Handle()));
}

TEST_F(SharedMutexProcesses, WaiterGetsTheLockWhenTheHolderDies) {
    Own own;
    User holder;
    User waiter;
    ASSERT_EQ(own.Set(), holder.Does("create m"));
    ASSERT_EQ(own.Set(), waiter.Does("create m"));
    EXPECT_EQ(0, holder.Does("lock"));
    waiter.Say("lock");
    EXPECT_TRUE(WaitsFor(own.Set()));
    EXPECT_EQ(-SIGKILL, holder.Kill());
    EXPECT_EQ(0, waiter.Hear());
    EXPECT_EQ((Values{0, 2, waiter.Pid(), waiter.Pid(), 0}), ipc::Values(own.Set()));
    EXPECT_EQ(0, waiter.Does("unlock"));
    EXPECT_EQ(0, waiter.Does("destroy m"));
}

TEST_F(SharedMutexProcesses, KilledWaiterTakesNothing) {
    Own own;
    User waiter;
    ASSERT_EQ(own.Set(), waiter.Does("create m"));
    EXPECT_EQ(0, KovaSharedMutexLock(own.Handle()));
    waiter.Say("lock");
    EXPECT_TRUE(WaitsFor(own.Set()));
    EXPECT_EQ(-SIGKILL, waiter.Kill());
    EXPECT_EQ((Values{0, 1, KovaGetPid(), KovaGetTid(), 0}), ipc::Values(own.Set()));
    EXPECT_EQ(0, ipc::Waiters(own.Set(), kLock));
    EXPECT_EQ(0, KovaSharedMutexUnlock(own.Handle()));
}

// The undo of the lock must be gone, or the value would grow beyond 1.
TEST_F(SharedMutexProcesses, HolderThatUnlockedChangesNothingWhenItEnds) {
    Own own;
    User before;
    User holder;
    ASSERT_EQ(own.Set(), before.Does("create m"));
    ASSERT_EQ(own.Set(), holder.Does("create m"));
    for (const char* const lock : {"lock", "trylock"}) {
        EXPECT_EQ(0, holder.Does(lock));
        EXPECT_EQ(0, holder.Does("unlock"));
    }
    EXPECT_EQ(0, holder.End());
    EXPECT_EQ((Values{1, 2, 0, 0, 0}), ipc::Values(own.Set()));
    EXPECT_EQ(0, before.Does("lock"));
    EXPECT_EQ(0, before.Does("unlock"));
    EXPECT_EQ(0, KovaSharedMutexLock(own.Handle()));
    EXPECT_EQ(0, before.End());
    EXPECT_EQ((Values{0, 1, KovaGetPid(), KovaGetTid(), 0}), ipc::Values(own.Set()));
    EXPECT_EQ(0, KovaSharedMutexUnlock(own.Handle()));
}

/// Locks on one thread, then on a second one, then does on the first what it is told.
KOVA_PART(two_threads) {
    int set = -1;
    KovaSharedMutexCreate(&set, kName);
    KovaSharedMutexLock(&set);
    DeadlineThread second([&] {
        EXPECT_EQ(0, KovaSharedMutexLock(&set));
        EXPECT_EQ((Values{0, 2, KovaGetPid(), KovaGetTid(), 0}), ipc::Values(set));
        EXPECT_NE(KovaGetPid(), KovaGetTid());
        EXPECT_EQ(0, KovaSharedMutexUnlock(&set));
        KovaSharedMutexDestroy(&set, kName);
    });
    if (process::Listen() == "lock") KovaSharedMutexLock(&set);
    KovaSharedMutexUnlock(&set);
    return 0;
}

TEST_F(SharedMutexProcesses, SecondThreadOfTheHoldersProcessBlocksUntilTheUnlock) {
    Own own;
    process::Process part("two_threads");
    EXPECT_TRUE(WaitsFor(own.Set()));
    EXPECT_EQ((Values{0, 2, part.Pid(), part.Pid(), 0}), ipc::Values(own.Set()));
    part.Say("unlock");
    EXPECT_EQ(0, part.Wait());
    EXPECT_EQ(1, ipc::Value(own.Set(), kLock));
}

TEST_F(SharedMutexProcesses, SecondLockOfTheHolderAbortsWhileItsOtherThreadBlocks) {
    Own own;
    process::Process part("two_threads");
    EXPECT_TRUE(WaitsFor(own.Set()));
    part.Say("lock");
    EXPECT_EQ(-SIGABRT, part.Wait());
    EXPECT_EQ((Values{1, 1, part.Pid(), part.Pid(), 0}), ipc::Values(own.Set()));
}

TEST_F(SharedMutexProcesses, SecondTrylockOfTheHolderAborts) {
    Own own;
    User holder;
    ASSERT_EQ(own.Set(), holder.Does("create m"));
    EXPECT_EQ(0, holder.Does("trylock"));
    holder.Say("trylock");
    EXPECT_EQ(-SIGABRT, holder.Wait());
    EXPECT_EQ(1, ipc::Value(own.Set(), kLock));
}

TEST_F(SharedMutexProcesses, UnlockByAnotherProcessAborts) {
    User holder;
    User stranger;
    const int set = holder.Does("create m");
    ASSERT_EQ(set, stranger.Does("create m"));
    EXPECT_EQ(0, holder.Does("lock"));
    stranger.Say("unlock");
    EXPECT_EQ(-SIGABRT, stranger.Wait());
    EXPECT_EQ((Values{0, 1, holder.Pid(), holder.Pid(), 0}), ipc::Values(set)) << "still held";
    EXPECT_EQ(0, holder.Does("unlock"));
    EXPECT_EQ(0, holder.Does("destroy m"));
}

KOVA_PART(unlock_on_another_thread) {
    int set = -1;
    KovaSharedMutexCreate(&set, kName);
    KovaSharedMutexLock(&set);
    DeadlineThread([&] { KovaSharedMutexUnlock(&set); }).Join();
    return 0;
}

TEST_F(SharedMutexProcesses, UnlockByAnotherThreadOfTheHoldersProcessAborts) {
    Own own;
    EXPECT_EQ(-SIGABRT, process::Process("unlock_on_another_thread").Wait());
    EXPECT_EQ(1, ipc::Value(own.Set(), kLock));
}

TEST_F(SharedMutexProcesses, UnlockOfAFreeMutexAborts) {
    Own own;
    User user;
    ASSERT_EQ(own.Set(), user.Does("create m"));
    user.Say("unlock");
    EXPECT_EQ(-SIGABRT, user.Wait());
    EXPECT_EQ((Values{1, 1, 0, 0, 0}), ipc::Values(own.Set()));
}

// --- The lock under which sets are created and destroyed ---

/// How many wait for record locks.
size_t LockWaiters() {
    std::ifstream locks("/proc/locks");
    size_t count = 0;
    for (std::string line; std::getline(locks, line);) count += line.find("->") != std::string::npos ? 1 : 0;
    return count;
}

/// Who holds a record lock on the first byte of a file, and on what.
struct flock Holder(const std::string& path) {
    const Fd file(::open(path.c_str(), O_RDWR | O_CLOEXEC));
    EXPECT_GE(file, 0) << path;
    struct flock lock {};
    lock.l_type = F_RDLCK;
    lock.l_whence = SEEK_SET;
    EXPECT_EQ(0, ::fcntl(file, F_GETLK, &lock));
    return lock;
}

class SharedMutexCDLock : public SharedMutexProcesses {
  protected:
    SharedMutexCDLock() { std::ofstream("/tmp/file") << "contents"; }
    ~SharedMutexCDLock() override { std::filesystem::remove("/tmp/file"); }
};

TEST_F(SharedMutexCDLock, CoversTheWholeFileExclusively) {
    User user;
    EXPECT_EQ(0, user.Does("cdlock /tmp/file"));
    const struct flock held = Holder("/tmp/file");
    EXPECT_EQ(F_WRLCK, held.l_type);
    EXPECT_EQ(SEEK_SET, held.l_whence);
    EXPECT_EQ(0, held.l_start);
    EXPECT_EQ(0, held.l_len) << "to the end, however the file grows";
    EXPECT_EQ(user.Pid(), held.l_pid);
    EXPECT_EQ(0, user.Does("cdunlock"));
    EXPECT_EQ(F_UNLCK, Holder("/tmp/file").l_type);
    EXPECT_EQ(0, user.End());
    std::ifstream file("/tmp/file");
    std::string contents;
    EXPECT_TRUE(std::getline(file, contents));
    EXPECT_EQ("contents", contents);
}

TEST_F(SharedMutexCDLock, KeepsOtherProcessesWaiting) {
    User first;
    User second;
    EXPECT_EQ(0, first.Does("cdlock /tmp/file"));
    second.Say("cdlock /tmp/file");
    EXPECT_TRUE(WaitUntil([] { return LockWaiters() == 1; }));
    EXPECT_EQ(first.Pid(), Holder("/tmp/file").l_pid);
    EXPECT_EQ(0, first.Does("cdunlock"));
    EXPECT_EQ(0, second.Hear());
    EXPECT_EQ(second.Pid(), Holder("/tmp/file").l_pid);
}

TEST_F(SharedMutexCDLock, IsFreeWhenItsHolderDies) {
    User first;
    User second;
    EXPECT_EQ(0, first.Does("cdlock /tmp/file"));
    second.Say("cdlock /tmp/file");
    EXPECT_TRUE(WaitUntil([] { return LockWaiters() == 1; }));
    EXPECT_EQ(-SIGKILL, first.Kill());
    EXPECT_EQ(0, second.Hear());
    EXPECT_EQ(0, second.Does("cdunlock"));
}

// Record locks belong to the process: closing any descriptor of the file gives up the lock, too.
TEST_F(SharedMutexCDLock, DoesNotKeepThreadsOfOneProcessApart) {
    const Fd first(KovaSharedMutexCDLock("/tmp/file"));
    Fd second;
    DeadlineThread([&] { second = Fd(KovaSharedMutexCDLock("/tmp/file")); }).Join();
    EXPECT_GT(first, 0);
    EXPECT_GT(second, 0);
    EXPECT_NE(first.Get(), second.Get());
    User other;
    other.Say("cdlock /tmp/file");
    EXPECT_TRUE(WaitUntil([] { return LockWaiters() == 1; }));
    EXPECT_EQ(0, KovaSharedMutexCDUnlock(second.Release()));
    EXPECT_EQ(0, other.Hear());
}

TEST_F(SharedMutexCDLock, IsTakenOverAnInterruption) {
    User holder;
    EXPECT_EQ(0, holder.Does("cdlock /tmp/file"));
    int fd = -1;
    const fake::Counter tries(fake::fcntl);
    DeadlineThread waiter([&] { fd = KovaSharedMutexCDLock("/tmp/file"); });
    EXPECT_TRUE(WaitUntil([] { return LockWaiters() == 1; }));
    {
        const SignalStorm storm({waiter.Handle()});
        EXPECT_TRUE(WaitUntil([&] { return tries.Calls() > 20; }));
    }
    EXPECT_FALSE(waiter.HasEnded());
    EXPECT_EQ(0, holder.Does("cdunlock"));
    waiter.Join();
    EXPECT_GT(fd, 0);
    EXPECT_EQ(0, KovaSharedMutexCDUnlock(fd));
}

TEST_F(SharedMutexCDLock, IsWaitedForByCreateAndDestroy) {
    User guard;
    User user;
    EXPECT_GE(user.Does("create m"), 0);
    EXPECT_EQ(0, user.Does("destroy m"));
    for (const char* const command : {"create m", "destroy m"}) {
        SCOPED_TRACE(command);
        const std::vector<ipc::Set> before = ipc::Sets();
        const int count = before.empty() ? -1 : ipc::Value(before[0].id, kCounter);
        EXPECT_EQ(0, guard.Does(std::string("cdlock ") + kPath));
        user.Say(command);
        EXPECT_TRUE(WaitUntil([] { return LockWaiters() == 1; }));
        ASSERT_EQ(before.size(), ipc::Sets().size()) << "nothing is done before it is held";
        EXPECT_TRUE(before.empty() || ipc::Value(before[0].id, kCounter) == count);
        EXPECT_EQ(0, guard.Does("cdunlock"));
        EXPECT_GE(user.Hear(), 0);
    }
    EXPECT_TRUE(ipc::Sets().empty());
}

TEST_F(SharedMutexCDLock, IsFreeAfterCreateAndDestroy) {
    User user;
    EXPECT_GE(user.Does("create m"), 0);
    EXPECT_EQ(F_UNLCK, Holder(kPath).l_type);
    EXPECT_EQ(0, user.Does("destroy m"));
    EXPECT_EQ(F_UNLCK, Holder(kPath).l_type);
}

// --- Many at once ---

/// Counts rounds. Where they take long, as on an emulated board, there are fewer, which it tells.
class Rounds {
  public:
    Rounds(int most, int least) : m_Most(most), m_Least(least) {}

    bool Next() {
        if (m_Count == m_Most) return false;
        if (m_Count >= m_Least && NowMs() - m_Begin > kEnough) {
            std::printf("%d of %d rounds\n", m_Count, m_Most);
            return false;
        }
        ++m_Count;
        return true;
    }

  private:
    static constexpr int64_t kEnough = 20000;

    const int m_Most;
    const int m_Least;
    const int64_t m_Begin = NowMs();
    int m_Count = 0;
};

#if defined(__SANITIZE_ADDRESS__) && defined(__powerpc__)
// The board's memory does not hold 32 of these.
constexpr size_t kRacers = 8;
#else
constexpr size_t kRacers = 32;
#endif
/// Words of the shared page.
enum { kEntered, kInside, kViolations };

/// Waits until a position of the gate is 0.
void Pass(int gate, unsigned short position) {
    sembuf wait{position, 0, 0};
    EXPECT_EQ(0, ::semop(gate, &wait, 1));
}

/// In each round: creates when the first position of the gate opens, counts itself under the lock, and
/// destroys when the second one opens. Not to be ended before the others have destroyed it, too: the end
/// takes a reference off once more.
KOVA_PART(racer) {
    const int gate = std::stoi(args.at(0));
    SharedPage page(kPage);
    for (;;) {
        Pass(gate, 0);
        int set = -1;
        KovaSharedMutexCreate(&set, kName);
        KovaSharedMutexLock(&set);
        page[kEntered] = page[kEntered] + 1;
        KovaSharedMutexUnlock(&set);
        process::Tell(std::to_string(set));
        Pass(gate, 1);
        process::Tell(std::to_string(KovaSharedMutexDestroy(&set, kName)));
    }
}

/// A semaphore set at which the racers wait for zero.
class Gate {
  public:
    Gate() : m_Set(fake::semget.Real(IPC_PRIVATE, 2, 0600)) {
        Close(0);
        Close(1);
    }
    ~Gate() { ipc::Remove(m_Set); }

    int Set() const { return m_Set; }
    void Close(int position) const { ipc::SetValue(m_Set, position, 1); }
    /// Opens to all of them at once.
    void Open(int position) const {
        const auto all_wait = [=, this] {
            return fake::semctl.Real(m_Set, position, GETZCNT, 0) == static_cast<int>(kRacers);
        };
        EXPECT_TRUE(WaitUntil(all_wait));
        ipc::SetValue(m_Set, position, 0);
    }

  private:
    const int m_Set;
};

TEST_F(SharedMutexProcesses, ManyThatCreateAndDestroyAtOnceCountEachOther) {
    const Gate gate;
    SharedPage page(kPage);
    std::vector<std::unique_ptr<process::Process>> racers;
    while (racers.size() < kRacers) {
        racers.push_back(std::make_unique<process::Process>(
            "racer", std::vector<std::string>{std::to_string(gate.Set())}));
    }
    for (Rounds rounds(100, 20); !HasFailure() && rounds.Next();) {
        page[kEntered] = 0;
        gate.Open(0);
        std::set<std::string> sets;
        for (const auto& racer : racers) sets.insert(racer->Hear());
        gate.Close(0);
        EXPECT_EQ(1u, sets.size()) << testing::PrintToString(sets);
        EXPECT_EQ(*sets.begin(), std::to_string(ipc::FindSet(kPath)));
        EXPECT_EQ((Values{1, int{kRacers}, 0, 0, 0}), ipc::Values(ipc::FindSet(kPath)));
        EXPECT_EQ(int{kRacers}, page[kEntered]);
        EXPECT_EQ(2u, ipc::Sets().size()) << "this one and the gate";
        gate.Open(1);
        for (const auto& racer : racers) EXPECT_EQ("0", racer->Hear());
        gate.Close(1);
        EXPECT_EQ(-1, ipc::FindSet(kPath));
        EXPECT_EQ(1u, ipc::Sets().size()) << "the gate";
    }
}

/// Locks and unlocks, and looks whether somebody else is inside.
void EnterOnce(int* set, SharedPage& page) {
    if (KovaSharedMutexLock(set) != 0) return;
    const pid_t self = ::getpid();
    page[kInside] = self;
    ::sched_yield();
    if (page[kInside] != self) page[kViolations] = page[kViolations] + 1;
    page[kEntered] = page[kEntered] + 1;
    KovaSharedMutexUnlock(set);
}

KOVA_PART(enterer) {
    SharedPage page(kPage);
    int set = -1;
    KovaSharedMutexCreate(&set, kName);
    for (int count = std::stoi(args.at(0)); count > 0; --count) EnterOnce(&set, page);
    return 0;
}

TEST_F(SharedMutexProcesses, OneAtATimeIsInside) {
    constexpr int kProcesses = 4;
    constexpr int kTimes = 500;
    SharedPage page(kPage);
    page[kEntered] = 0;
    page[kViolations] = 0;
    {
        Own own;
        std::vector<std::unique_ptr<process::Process>> parts;
        for (int i = 0; i < kProcesses; ++i) {
            parts.push_back(std::make_unique<process::Process>(
                "enterer", std::vector<std::string>{std::to_string(kTimes)}));
        }
        for (const auto& part : parts) EXPECT_EQ(0, part->Wait());
        EXPECT_EQ((Values{1, 1, 0, 0, 0}), ipc::Values(own.Set()));
    }
    EXPECT_EQ(kProcesses * kTimes, page[kEntered]);
    EXPECT_EQ(0, page[kViolations]);
}

// --- Killed anywhere ---

/// Does everything again and again.
KOVA_PART(restless) {
    SharedPage page(kPage);
    process::Tell("begins");
    // The kernel counts what it would have to undo, and refuses more than 32768.
    for (int turn = 0; turn < 20000; ++turn) {
        int set = -1;
        KovaSharedMutexCreate(&set, kName);
        EnterOnce(&set, page);
        KovaSharedMutexDestroy(&set, kName);
    }
    process::Listen();
    return 0;
}

/// Has eight of them at work, and kills one after the other at random moments.
class Reaper {
  public:
    /// How the killed ones ended.
    std::set<int> Run() {
        std::set<int> ends;
        for (auto& worker : m_Workers) Replace(worker);
        std::minstd_rand random(1);
        for (Rounds kills(100, 10); kills.Next();) {
            auto& worker = m_Workers[random() % m_Workers.size()];
            worker->Kill();
            ends.insert(worker->Wait());
            Replace(worker);
        }
        for (auto& worker : m_Workers) {
            worker->Kill();
            ends.insert(worker->Wait());
        }
        return ends;
    }

  private:
    static void Replace(std::unique_ptr<process::Process>& worker) {
        worker = std::make_unique<process::Process>("restless");
        EXPECT_EQ("begins", worker->Hear());
    }

    std::vector<std::unique_ptr<process::Process>> m_Workers{8};
};

class SharedMutexUnderFire : public SharedMutexProcesses {
  protected:
    SharedMutexUnderFire() {
        m_Page[kEntered] = 0;
        m_Page[kViolations] = 0;
    }

    /// It can be opened, locked and removed by a process that comes later.
    static void ExpectUsable() {
        User user;
        const int set = user.Does("create m");
        ASSERT_EQ(set, ipc::FindSet(kPath));
        EXPECT_EQ(0, user.Does("trylock"));
        EXPECT_EQ((Values{0, 1, user.Pid(), user.Pid(), 0}), ipc::Values(set));
        EXPECT_EQ(0, user.Does("unlock"));
        EXPECT_EQ((Values{1, 1, 0, 0, 0}), ipc::Values(set));
        EXPECT_EQ(0, user.Does("destroy m"));
        EXPECT_TRUE(ipc::Sets().empty());
    }

    SharedPage m_Page{kPage};
};

TEST_F(SharedMutexUnderFire, StaysUsableWhenItsUsersAreKilled) {
    Reaper reaper;
    // Whoever destroyed it before being killed is taken off twice, so that the set may be removed under the
    // others, which ends them.
    for (const int end : reaper.Run()) EXPECT_TRUE(end == -SIGKILL || end == -SIGABRT) << end;
    EXPECT_GT(m_Page[kEntered], 0);
    ExpectUsable();
}

TEST_F(SharedMutexUnderFire, PersistentOneServesTheOthersThroughout) {
    Own own;
    EXPECT_EQ(0, KovaSharedMutexSetPersistent(own.Handle()));
    Reaper reaper;
    EXPECT_EQ((std::set<int>{-SIGKILL}), reaper.Run()) << "nobody fails because others are killed";
    EXPECT_EQ(0, m_Page[kViolations]);
    EXPECT_GT(m_Page[kEntered], 0);
    EXPECT_EQ(1, ipc::Value(own.Set(), kLock));
    EXPECT_EQ(0, KovaSharedMutexTrylock(own.Handle()));
    EXPECT_EQ(0, KovaSharedMutexUnlock(own.Handle()));
    ipc::SetValue(own.Set(), kCounter, 1);
    ipc::SetValue(own.Set(), kPersistent, 0);
}

/// Does everything once and kills itself before the call whose number it is given.
KOVA_PART(killed_at_a_call) {
    int calls_left = std::stoi(args.at(0));
    const auto count = [&](auto& hook) {
        return [&](auto... arguments) {
            if (--calls_left == 0) ::raise(SIGKILL);
            return hook.Real(arguments...);
        };
    };
    const fake::Replace ftoks(fake::ftok, count(fake::ftok));
    const fake::Replace opens(fake::open, count(fake::open));
    const fake::Replace locks(fake::fcntl, count(fake::fcntl));
    const fake::Replace closes(fake::close, count(fake::close));
    const fake::Replace gets(fake::semget, count(fake::semget));
    const fake::Replace controls(fake::semctl, count(fake::semctl));
    const fake::Replace operations(fake::semop, count(fake::semop));
    int set = -1;
    KovaSharedMutexCreate(&set, kName);
    KovaSharedMutexLock(&set);
    KovaSharedMutexUnlock(&set);
    KovaSharedMutexTrylock(&set);
    KovaSharedMutexUnlock(&set);
    KovaSharedMutexDestroy(&set, kName);
    return 0;
}

/// Runs `check` after a death before each call; how many there were.
int DieBeforeEachCall(const std::function<void()>& check) {
    for (int call = 1;; ++call) {
        SCOPED_TRACE("before call " + std::to_string(call));
        const int end = process::Process("killed_at_a_call", {std::to_string(call)}).Wait();
        check();
        if (end != -SIGKILL || testing::Test::HasFailure()) return end == 0 ? call - 1 : -1;
    }
}

TEST_F(SharedMutexUnderFire, StaysUsableWhereverItsOnlyUserIsKilled) {
    EXPECT_GE(DieBeforeEachCall(ExpectUsable), 30);
}

TEST_F(SharedMutexUnderFire, StaysUsableWhereverOneOfItsUsersIsKilled) {
    Own own;
    const int calls = DieBeforeEachCall([&] {
        EXPECT_EQ(own.Set(), ipc::FindSet(kPath));
        EXPECT_LE(ipc::Value(own.Set(), kCounter), 1) << "0 if it had destroyed the mutex already";
        ipc::SetValue(own.Set(), kCounter, 1);
        EXPECT_EQ(0, KovaSharedMutexTrylock(own.Handle()));
        EXPECT_EQ(0, KovaSharedMutexUnlock(own.Handle()));
        EXPECT_EQ((Values{1, 1, 0, 0, 0}), ipc::Values(own.Set()));
    });
    EXPECT_GE(calls, 25);
}

}  // namespace
