// The shared semaphore between real processes, and what the kernel takes back when one of them ends.

#include "ipc/ipc_sets.h"
#include "support/fake_libc.h"
#include "support/process.h"

#include <kova/shared_semaphore.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace {

using Values = std::vector<int>;

constexpr const char* kName = "s";
constexpr const char* kPath = "/tmp/kova/s.kovasem";

/// How many processes wait until some record lock is free.
int LockWaiters() {
    std::ifstream locks("/proc/locks");
    int waiters = 0;
    for (std::string line; std::getline(locks, line);) waiters += line.find("->") != std::string::npos;
    return waiters;
}

int ZeroWaiters(int set, int position) { return fake::semctl.Real(set, position, GETZCNT, 0); }

// --- Parts ---

/// Does what it is told and tells what came of it: the result, and errno with it if that is -1.
KOVA_PART(user) {
    int set = -1;
    int fd = -1;
    std::istringstream words;
    const auto text = [&] {
        std::string word;
        words >> word;
        return word;
    };
    const auto number = [&] {
        int value = 0;
        words >> value;
        return value;
    };
    const auto unsigned_number = [&] { return static_cast<unsigned>(number()); };
    const std::map<std::string, std::function<int()>> commands{
        {"create",
         [&] {
             const std::string name = text();
             Values inits;
             for (int value = 0; words >> value;) inits.push_back(value);
             return KovaSharedSemaphoreNCreate(&set, name.c_str(), inits.data(),
                                               static_cast<int>(inits.size()));
         }},
        {"destroy", [&] { return KovaSharedSemaphoreDestroy(&set, text().c_str()); }},
        {"wait",
         [&] {
             const int op = number();
             return KovaSharedSemaphoreWait(&set, op, unsigned_number());
         }},
        {"try",
         [&] {
             const int op = number();
             return KovaSharedSemaphoreTryWait(&set, op, unsigned_number());
         }},
        {"timed",
         [&] {
             const int op = number();
             const int ms = number();
             return KovaSharedSemaphoreTimedWait(&set, op, ms, unsigned_number());
         }},
        {"post", [&] { return KovaSharedSemaphorePost(&set, unsigned_number()); }},
        {"multi", [&] { return KovaSharedSemaphorePostMultiEvent(&set); }},
        {"trigger",
         [&] {
             const unsigned pos = unsigned_number();
             const unsigned n = unsigned_number();
             return KovaSharedSemaphoreTriggerOnPos(&set, pos, n, unsigned_number());
         }},
        {"set",
         [&] {
             const unsigned pos = unsigned_number();
             return KovaSharedSemaphoreSetValOnPos(&set, pos, number());
         }},
        {"persist", [&] { return KovaSharedSemaphoreSetPersistent(&set); }},
        {"cdlock", [&] { return (fd = KovaSharedSemaphoreCDLock(text().c_str())) > 0 ? 0 : -1; }},
        {"cdunlock", [&] { return KovaSharedSemaphoreCDUnlock(fd); }},
    };
    for (;;) {
        words.clear();
        words.str(process::Listen());
        const std::string command = text();
        if (command == "end") return 0;
        const int result = commands.at(command)();
        const int error = errno;
        process::Tell(std::to_string(result) + (result == -1 ? " " + std::to_string(error) : ""));
    }
}

/// A process that plays it.
class User {
  public:
    User() : m_Process("user") {}
    /// Has the set open from the beginning.
    explicit User(int set) : User() { EXPECT_EQ(std::to_string(set), Does("create s")); }

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

/// With two positions, which this process has open.
class SemaphoreProcesses : public ipc::Test {
  protected:
    SemaphoreProcesses() {
        const int inits[] = {3, 0};
        EXPECT_LE(0, KovaSharedSemaphoreNCreate(&m_Set, kName, inits, 2));
    }
    ~SemaphoreProcesses() override {
        if (m_Set < 0) return;
        EXPECT_EQ(0, KovaSharedSemaphoreDestroy(&m_Set, kName));
    }

    int Value(int position) const { return ipc::Value(m_Set, position + 2); }
    Values All() const { return ipc::Values(m_Set); }
    /// So many wait until the position grows.
    testing::AssertionResult Wait(int waiters, int position) const {
        if (WaitUntil([=, this] { return ipc::Waiters(m_Set, position + 2) == waiters; })) {
            return testing::AssertionSuccess();
        }
        return testing::AssertionFailure() << ipc::Waiters(m_Set, position + 2) << " wait";
    }

    int m_Set = -1;
};

// --- Who opens, who removes ---

class SemaphoreReferences : public ipc::Test {};

TEST_F(SemaphoreReferences, FirstMakesTheSetAndTheLastRemovesIt) {
    User first;
    User second;
    const std::string id = first.Does("create s 3 0");
    const int set = ipc::FindSet(kPath);
    EXPECT_EQ(std::to_string(set), id);
    EXPECT_EQ((Values{1, 0, 3, 0}), ipc::Values(set));
    EXPECT_EQ("0", first.Does("wait -1 0"));
    EXPECT_EQ(id, second.Does("create s 8 9"));
    EXPECT_EQ((Values{2, 0, 2, 0}), ipc::Values(set)) << "not made anew";
    EXPECT_EQ("0", first.Does("post 0"));
    EXPECT_EQ("0", first.Does("destroy s"));
    EXPECT_EQ((Values{1, 0, 3, 0}), ipc::Values(set));
    EXPECT_EQ("0", second.Does("destroy s"));
    EXPECT_TRUE(ipc::Sets().empty());
    EXPECT_TRUE(std::filesystem::exists(kPath)) << "key files stay";
}

TEST_F(SemaphoreReferences, OfAProcessThatEndsAreGivenBack) {
    User stays;
    stays.Does("create s 0");
    const int set = ipc::FindSet(kPath);
    User killed(set);
    User ended(set);
    EXPECT_EQ(std::to_string(set), killed.Does("create s"));
    EXPECT_EQ(4, ipc::Value(set, 0));
    EXPECT_EQ(-SIGKILL, killed.Kill());
    EXPECT_EQ(2, ipc::Value(set, 0));
    EXPECT_EQ(0, ended.End());
    EXPECT_EQ(1, ipc::Value(set, 0));
    EXPECT_EQ("0", stays.Does("destroy s"));
}

// Deliberate: unlike the mutex, whose user is taken off twice.
TEST_F(SemaphoreReferences, OfAProcessThatDestroysAndThenEndsAreTakenOffOnce) {
    User stays;
    stays.Does("create s 0");
    const int set = ipc::FindSet(kPath);
    User passing(set);
    EXPECT_EQ("0", passing.Does("destroy s"));
    EXPECT_EQ(1, ipc::Value(set, 0));
    EXPECT_EQ(0, passing.End());
    EXPECT_EQ(1, ipc::Value(set, 0));
    EXPECT_EQ("0", stays.Does("destroy s"));
    EXPECT_EQ(0, stays.End());
}

TEST_F(SemaphoreReferences, OfTheLastProcessThatDiesLeaveTheSetToTheNext) {
    User last;
    last.Does("create s 5");
    const int set = ipc::FindSet(kPath);
    EXPECT_EQ(-SIGKILL, last.Kill());
    EXPECT_EQ((Values{0, 0, 5}), ipc::Values(set));
    User next;
    EXPECT_EQ(std::to_string(set), next.Does("create s 7"));
    EXPECT_EQ((Values{1, 0, 5}), ipc::Values(set));
    EXPECT_EQ("0", next.Does("destroy s"));
}

TEST_F(SemaphoreReferences, OfAPersistentSetMayAllGo) {
    User first;
    first.Does("create s 3 0");
    const int set = ipc::FindSet(kPath);
    EXPECT_EQ("0", first.Does("persist"));
    EXPECT_EQ("0", first.Does("post 1"));
    EXPECT_EQ("0", first.Does("destroy s"));
    EXPECT_EQ((Values{0, 1, 3, 1}), ipc::Values(set));
    EXPECT_EQ(0, first.End());
    EXPECT_EQ((Values{0, 1, 3, 0}), ipc::Values(set)) << "the flag stays, what was given does not";
    User second(set);
    EXPECT_EQ((Values{1, 1, 3, 0}), ipc::Values(set));
    EXPECT_EQ("0", second.Does("destroy s"));
    EXPECT_EQ((Values{0, 1, 3, 0}), ipc::Values(set));
    ipc::Remove(set);
}

TEST_F(SemaphoreReferences, OfARemovedSetAreTold) {
    User user;
    user.Does("create s 0");
    User waiter(ipc::FindSet(kPath));
    waiter.Say("wait -1 0");
    const int set = ipc::FindSet(kPath);
    EXPECT_TRUE(WaitUntil([&] { return ipc::Waiters(set, 2) == 1; }));
    ipc::Remove(set);
    EXPECT_EQ("-1 " + std::to_string(EIDRM), waiter.Hear());
    EXPECT_EQ("-1 " + std::to_string(EINVAL), user.Does("post 0"));
    EXPECT_EQ("-1 " + std::to_string(EINVAL), user.Does("destroy s"));
}

// --- What the kernel takes back ---

TEST_F(SemaphoreProcesses, WhatAProcessTookReturnsWhenItEnds) {
    User killed(m_Set);
    User ended(m_Set);
    EXPECT_EQ("0", killed.Does("wait -1 0"));
    EXPECT_EQ("0", killed.Does("try -1 0"));
    EXPECT_EQ("0", ended.Does("timed -1 60000 0"));
    EXPECT_EQ(0, Value(0));
    EXPECT_EQ("-1 11", ended.Does("try -1 0"));
    EXPECT_EQ("-1 110", ended.Does("timed -1 10 0"));
    EXPECT_EQ(-SIGKILL, killed.Kill());
    EXPECT_EQ(2, Value(0));
    EXPECT_EQ(0, ended.End());
    EXPECT_EQ((Values{1, 0, 3, 0}), All());
}

TEST_F(SemaphoreProcesses, WhatAProcessGaveIsTakenWhenItEnds) {
    User killed(m_Set);
    User ended(m_Set);
    EXPECT_EQ("0", killed.Does("post 1"));
    EXPECT_EQ("0", killed.Does("post 0"));
    EXPECT_EQ("0", ended.Does("wait 4 1"));
    EXPECT_EQ("0", ended.Does("timed 2 1000 1"));
    EXPECT_EQ((Values{3, 0, 4, 7}), All());
    EXPECT_EQ(-SIGKILL, killed.Kill());
    EXPECT_EQ((Values{2, 0, 3, 6}), All());
    EXPECT_EQ(0, ended.End());
    EXPECT_EQ((Values{1, 0, 3, 0}), All());
}

TEST_F(SemaphoreProcesses, WhatAProcessTookAndGaveAddsUp) {
    User user(m_Set);
    EXPECT_EQ("0", user.Does("wait -3 0"));
    EXPECT_EQ("0", user.Does("post 0"));
    EXPECT_EQ("0", user.Does("post 1"));
    EXPECT_EQ("0", user.Does("wait -1 1"));
    EXPECT_EQ((Values{2, 0, 1, 0}), All());
    EXPECT_EQ(-SIGKILL, user.Kill());
    EXPECT_EQ((Values{1, 0, 3, 0}), All());
}

TEST_F(SemaphoreProcesses, WhatIsTakenBackEndsAtZero) {
    User giver(m_Set);
    User taker(m_Set);
    EXPECT_EQ("0", giver.Does("post 1"));
    EXPECT_EQ("0", taker.Does("wait -1 1"));
    EXPECT_EQ(0, giver.End());
    EXPECT_EQ(0, Value(1)) << "another one has it";
    EXPECT_EQ(0, taker.End());
    EXPECT_EQ(1, Value(1)) << "and returns it";
}

TEST_F(SemaphoreProcesses, WhatReturnsReleasesAWaiter) {
    User holder(m_Set);
    User waiter(m_Set);
    EXPECT_EQ("0", holder.Does("wait -3 0"));
    waiter.Say("wait -2 0");
    EXPECT_TRUE(Wait(1, 0));
    EXPECT_EQ(-SIGKILL, holder.Kill());
    EXPECT_EQ("0", waiter.Hear());
    EXPECT_EQ(1, Value(0));
    EXPECT_EQ(0, waiter.End());
}

TEST_F(SemaphoreProcesses, TriggerLeavesNothingToReturn) {
    User user(m_Set);
    EXPECT_EQ("0", user.Does("trigger 0 3 0"));
    EXPECT_EQ("0", user.Does("trigger 0 2 1000"));
    EXPECT_EQ(-SIGKILL, user.Kill());
    EXPECT_EQ((Values{1, 0, 3, 0}), All());
}

TEST_F(SemaphoreProcesses, KilledWaiterLeavesNothing) {
    User waiter(m_Set);
    waiter.Say("wait -5 0");
    EXPECT_TRUE(Wait(1, 0));
    EXPECT_EQ(-SIGKILL, waiter.Kill());
    EXPECT_EQ(0, ipc::Waiters(m_Set, 2));
    EXPECT_EQ((Values{1, 0, 3, 0}), All());
}

TEST_F(SemaphoreProcesses, SettingAValueErasesWhatAllWouldReturnThere) {
    User one(m_Set);
    User other(m_Set);
    EXPECT_EQ("0", one.Does("wait -1 0"));
    EXPECT_EQ("0", one.Does("post 1"));
    EXPECT_EQ("0", other.Does("wait -1 0"));
    EXPECT_EQ("0", other.Does("post 1"));
    EXPECT_EQ("0", other.Does("set 0 1"));
    EXPECT_EQ((Values{3, 0, 1, 2}), All()) << "set to what it was";
    EXPECT_EQ(-SIGKILL, one.Kill());
    EXPECT_EQ((Values{2, 0, 1, 1}), All()) << "the other position, and the reference, are as ever";
    EXPECT_EQ(-SIGKILL, other.Kill());
    EXPECT_EQ((Values{1, 0, 1, 0}), All());
}

TEST_F(SemaphoreProcesses, WhatIsTakenAfterAValueWasSetReturns) {
    User user(m_Set);
    EXPECT_EQ("0", user.Does("wait -2 0"));
    EXPECT_EQ(0, KovaSharedSemaphoreSetVal(&m_Set, 6));
    EXPECT_EQ("0", user.Does("wait -1 0"));
    EXPECT_EQ(5, Value(0));
    EXPECT_EQ(0, user.End());
    EXPECT_EQ(6, Value(0));
}

// The kernel counts for each process what it would have to take back, up to 32768 units.
TEST_F(SemaphoreProcesses, ProcessThatOnlyGivesReachesTheKernelsLimit) {
    User giver(m_Set);
    EXPECT_EQ("0", giver.Does("wait 32767 1"));
    EXPECT_EQ(0, KovaSharedSemaphoreTryWait(&m_Set, -32767, 1));
    EXPECT_EQ("0", giver.Does("post 1"));
    EXPECT_EQ("-1 " + std::to_string(ERANGE), giver.Does("post 1"));
    EXPECT_EQ(1, Value(1));
    EXPECT_EQ(0, KovaSharedSemaphoreSetValOnPos(&m_Set, 1, 0));
    EXPECT_EQ("0", giver.Does("post 1")) << "nothing is left to take back";
    EXPECT_EQ(0, giver.End());
    EXPECT_EQ((Values{1, 0, 3, 0}), All());
}

// --- Triggers and events ---

TEST_F(SemaphoreProcesses, TriggerIsSeenByAllWhoWaitForIt) {
    User low[2] = {User(m_Set), User(m_Set)};
    User high(m_Set);
    for (User& user : low) user.Say("trigger 1 2 0");
    high.Say("trigger 1 3 3600000");
    EXPECT_TRUE(Wait(3, 1));
    EXPECT_EQ(0, KovaSharedSemaphorePost(&m_Set, 1));
    EXPECT_EQ(3, ipc::Waiters(m_Set, 3));
    EXPECT_EQ(0, KovaSharedSemaphorePost(&m_Set, 1));
    for (User& user : low) EXPECT_EQ("0", user.Hear());
    EXPECT_EQ(2, Value(1)) << "nobody has taken any";
    EXPECT_TRUE(Wait(1, 1));
    EXPECT_EQ(0, KovaSharedSemaphorePost(&m_Set, 1));
    EXPECT_EQ("0", high.Hear());
    EXPECT_EQ("0", low[0].Does("trigger 1 3 0")) << "as long as the level lasts";
    EXPECT_EQ((Values{4, 0, 3, 3}), All());
    EXPECT_EQ("0", high.Does("set 1 0"));
    EXPECT_EQ("-1 110", high.Does("trigger 1 1 10"));
}

TEST_F(SemaphoreProcesses, MultiEventReleasesExactlyThoseWhoWait) {
    constexpr int kWaiters = 4;
    EXPECT_EQ(0, KovaSharedSemaphoreSetVal(&m_Set, 0));
    std::vector<std::unique_ptr<User>> waiters;
    for (int i = 0; i < kWaiters; ++i) {
        waiters.push_back(std::make_unique<User>(m_Set));
        waiters.back()->Say(i % 2 == 0 ? "wait -1 0" : "timed -1 3600000 0");
    }
    User late(m_Set);
    EXPECT_TRUE(Wait(kWaiters, 0));
    EXPECT_EQ(0, KovaSharedSemaphorePostMultiEvent(&m_Set));
    for (const auto& waiter : waiters) EXPECT_EQ("0", waiter->Hear());
    EXPECT_EQ(0, Value(0));
    EXPECT_EQ("-1 11", late.Does("try -1 0")) << "nothing is left over";

    // They have taken one each, which returns with the end of each.
    late.Say("wait -1 0");
    EXPECT_TRUE(Wait(1, 0));
    EXPECT_EQ(0, waiters[0]->End());
    EXPECT_EQ("0", late.Hear());
    for (int i = 1; i < kWaiters; ++i) {
        EXPECT_EQ(i - 1, Value(0));
        EXPECT_EQ(0, waiters[static_cast<size_t>(i)]->End());
    }
    EXPECT_EQ(kWaiters - 1, Value(0));
    EXPECT_EQ(0, late.End());
    EXPECT_EQ(kWaiters, Value(0));
}

TEST_F(SemaphoreProcesses, MultiEventCanBeRepeated) {
    EXPECT_EQ(0, KovaSharedSemaphoreSetVal(&m_Set, 0));
    User one(m_Set);
    User other(m_Set);
    for (int round = 0; round < 10; ++round) {
        one.Say("wait -1 0");
        other.Say("wait -1 0");
        EXPECT_TRUE(Wait(2, 0));
        EXPECT_EQ(0, KovaSharedSemaphorePostMultiEvent(&m_Set));
        EXPECT_EQ("0", one.Hear());
        EXPECT_EQ("0", other.Hear());
        EXPECT_EQ(0, Value(0));
    }
    EXPECT_EQ(0, KovaSharedSemaphoreSetVal(&m_Set, 0)) << "so that nothing returns";
    EXPECT_EQ(0, one.End());
    EXPECT_EQ(0, Value(0));
}

TEST_F(SemaphoreProcesses, WaitForZeroEndsWhenAllIsTaken) {
    User waiter(m_Set);
    waiter.Say("wait 0 0");
    EXPECT_TRUE(WaitUntil([&] { return ZeroWaiters(m_Set, 2) == 1; }));
    EXPECT_EQ(0, KovaSharedSemaphoreTryWait(&m_Set, -2, 0));
    EXPECT_EQ(1, ZeroWaiters(m_Set, 2));
    EXPECT_EQ(0, KovaSharedSemaphoreTryWait(&m_Set, -1, 0));
    EXPECT_EQ("0", waiter.Hear());
}

TEST_F(SemaphoreProcesses, UnitsOfManyAddUp) {
    constexpr int kRounds = 300;
    std::vector<std::unique_ptr<process::Process>> parts;
    for (const char* const part : {"giver", "giver", "giver", "taker", "taker"}) {
        parts.push_back(
            std::make_unique<process::Process>(part, std::vector<std::string>{std::to_string(kRounds)}));
    }
    for (const auto& part : parts) EXPECT_EQ("done", part->Hear());
    EXPECT_EQ((Values{6, 0, 3, kRounds}), All());
    EXPECT_EQ(0, KovaSharedSemaphoreSetValOnPos(&m_Set, 1, 0));
    for (const auto& part : parts) {
        part->Say("end");
        EXPECT_EQ(0, part->Wait());
    }
    EXPECT_EQ((Values{1, 0, 3, 0}), All());
}

/// Does a thing as often as it is told, and stays until it may go.
void DoOften(const std::vector<std::string>& args, int (*act)(KovaSharedSemaphore& semaphore)) {
    KovaSharedSemaphore semaphore(kName, 0, 2);
    for (int round = std::stoi(args.at(0)); round > 0; --round) EXPECT_TRUE(act(semaphore));
    process::Tell("done");
    process::Listen();
}

KOVA_PART(giver) {
    DoOften(args, [](KovaSharedSemaphore& semaphore) -> int { return semaphore.Post(1); });
    return 0;
}

KOVA_PART(taker) {
    DoOften(args, [](KovaSharedSemaphore& semaphore) -> int { return semaphore.Wait(-1, 1); });
    return 0;
}

// --- The lock for creating and destroying ---

TEST_F(SemaphoreReferences, AreCountedUnderTheLockOfTheKeyFile) {
    User guard;
    User user;
    user.Does("create s 0");
    EXPECT_EQ("0", user.Does("destroy s"));
    for (const char* const command : {"create s 0", "create s 0", "destroy s", "destroy s"}) {
        SCOPED_TRACE(command);
        const std::vector<ipc::Set> before = ipc::Sets();
        const int count = before.empty() ? -1 : ipc::Value(before[0].id, 0);
        EXPECT_EQ("0", guard.Does(std::string("cdlock ") + kPath));
        user.Say(command);
        EXPECT_TRUE(WaitUntil([] { return LockWaiters() == 1; }));
        ASSERT_EQ(before.size(), ipc::Sets().size()) << "nothing is done before it is held";
        if (!before.empty()) {
            EXPECT_EQ(count, ipc::Value(before[0].id, 0));
        }
        EXPECT_EQ("0", guard.Does("cdunlock"));
        EXPECT_NE('-', user.Hear().at(0));
    }
    EXPECT_TRUE(ipc::Sets().empty());
}

/// Opens, uses and closes as often as it is told.
KOVA_PART(passer) {
    for (int round = std::stoi(args.at(0)); round > 0; --round) {
        int set = -1;
        EXPECT_LE(0, KovaSharedSemaphoreCreate(&set, kName, 1));
        EXPECT_EQ(0, KovaSharedSemaphoreWait(&set, -1, 0));
        EXPECT_EQ(0, KovaSharedSemaphorePost(&set, 0));
        EXPECT_EQ(0, KovaSharedSemaphoreDestroy(&set, kName));
    }
    return 0;
}

TEST_F(SemaphoreReferences, OfManyWhoComeAndGoAddUp) {
    constexpr int kProcesses = 8;
    std::vector<std::unique_ptr<process::Process>> parts;
    for (int i = 0; i < kProcesses; ++i) {
        parts.push_back(std::make_unique<process::Process>("passer", std::vector<std::string>{"100"}));
    }
    for (const auto& part : parts) EXPECT_EQ(0, part->Wait());
    EXPECT_TRUE(ipc::Sets().empty()) << "the last one has removed it";
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
    KovaSharedSemaphoreCreate(&set, kName, 3);
    KovaSharedSemaphoreWait(&set, -1, 0);
    KovaSharedSemaphorePost(&set, 0);
    KovaSharedSemaphoreWait(&set, 2, 0);
    KovaSharedSemaphoreDestroy(&set, kName);
    return 0;
}

TEST_F(SemaphoreProcesses, KeepsItsValuesWhereverOneOfItsUsersIsKilled) {
    int call = 1;
    for (int end = -SIGKILL; end == -SIGKILL && !HasFailure(); ++call) {
        SCOPED_TRACE("before call " + std::to_string(call));
        end = process::Process("killed_at_a_call", {std::to_string(call)}).Wait();
        EXPECT_TRUE(end == 0 || end == -SIGKILL) << end;
        EXPECT_EQ((Values{1, 0, 3, 0}), All());
        EXPECT_EQ(0, LockWaiters());
    }
    EXPECT_GT(call, 15);
}

TEST_F(SemaphoreReferences, CanBeCountedAgainWhereverTheOnlyUserIsKilled) {
    int call = 1;
    for (int end = -SIGKILL; end == -SIGKILL && !HasFailure(); ++call) {
        SCOPED_TRACE("before call " + std::to_string(call));
        end = process::Process("killed_at_a_call", {std::to_string(call)}).Wait();
        EXPECT_TRUE(end == 0 || end == -SIGKILL) << end;
        User next;
        const std::string id = next.Does("create s 3");
        EXPECT_EQ(std::to_string(ipc::FindSet(kPath)), id);
        EXPECT_EQ((Values{1, 0, 3}), ipc::Values(ipc::FindSet(kPath)));
        EXPECT_EQ("0", next.Does("destroy s"));
        EXPECT_TRUE(ipc::Sets().empty());
    }
    EXPECT_GT(call, 15);
}

}  // namespace
