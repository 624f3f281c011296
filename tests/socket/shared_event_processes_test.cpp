// Shared events between real processes.

#include "support/leak_check.h"
#include "support/process.h"

#include <kova/shared_event.h>

#include <gtest/gtest.h>
#include <linux/sock_diag.h>
#include <sys/socket.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

namespace {

using Lines = std::vector<std::string>;

constexpr bool kExact = false;

/// What the waits of a part tell.
constexpr const char* kFired = "fired";
constexpr const char* kNotFired = "not fired, error 0";
constexpr const char* kTimedOut = "not fired, error 110";
constexpr const char* kWrongSize = "not fired, error 30004";
static_assert(ETIMEDOUT == 110);

std::string Outcome(KovaSharedEvent& event, bool fired) {
    return fired ? kFired : "not fired, error " + std::to_string(event.GetError());
}

/// An event of a process of its own, which does what it is told: "wait", "wait MS", "post", "close", "name
/// N".
KOVA_PART(user) {
    KovaSharedEvent event(args.at(0).c_str());
    const bool pattern = args.at(1) == "pattern";
    event.TimedWait(0, pattern);
    process::Tell("bound");
    for (;;) {
        std::istringstream line(process::Listen());
        std::string command;
        std::string argument;
        line >> command >> argument;
        if (command == "end") return 0;
        if (command == "wait") {
            const int ms = std::atoi(argument.c_str());
            process::Tell(
                Outcome(event, argument.empty() ? event.Wait(pattern) : event.TimedWait(ms, pattern)));
        } else if (command == "post") {
            process::Tell(event.Post() ? "posted" : "not posted");
        } else if (command == "close") {
            event.Close();
            process::Tell("closed");
        } else {
            ADD_FAILURE() << command;
        }
    }
}

/// A process that plays it.
class User {
  public:
    explicit User(const std::string& name, const std::string& how = "exact")
        : m_Process("user", {name, how}) {
        EXPECT_EQ("bound", m_Process.Hear());
    }
    ~User() {
        m_Process.Say("end");
        EXPECT_EQ(0, m_Process.Wait());
    }

    void Say(const std::string& command) { m_Process.Say(command); }
    std::string Hear() { return m_Process.Hear(); }
    std::string Does(const std::string& command) {
        Say(command);
        return Hear();
    }

  private:
    process::Process m_Process;
};

class SharedEventProcesses : public KovaTest {};

TEST_F(SharedEventProcesses, PostWakesTheWaiterOfItsNameInAnotherProcess) {
    User a("a");
    User b("b");
    User poster("b");
    a.Say("wait 60000");
    b.Say("wait 60000");
    EXPECT_EQ("posted", poster.Does("post"));
    EXPECT_EQ(kFired, b.Hear());
    EXPECT_EQ(kNotFired, a.Hear());
    EXPECT_EQ(kTimedOut, a.Does("wait 0")) << "the datagram is consumed";
    EXPECT_EQ(kTimedOut, b.Does("wait 0"));
    EXPECT_EQ(kTimedOut, poster.Does("wait 0")) << "the poster does not see its own";
}

TEST_F(SharedEventProcesses, PatternMatchesTheNameOfAnotherProcess) {
    User jobs("job*", "pattern");
    User job7("job7");
    jobs.Say("wait");
    EXPECT_EQ("posted", job7.Does("post"));
    EXPECT_EQ(kFired, jobs.Hear());
}

TEST_F(SharedEventProcesses, AllProcessesThatWaitAreWoken) {
    std::vector<std::unique_ptr<User>> users;
    for (int i = 0; i < 5; ++i) users.push_back(std::make_unique<User>("all"));
    for (const auto& user : users) user->Say("wait");
    KovaSharedEvent poster("all");
    EXPECT_TRUE(poster.Post());
    for (const auto& user : users) EXPECT_EQ(kFired, user->Hear());
}

TEST_F(SharedEventProcesses, TurnsOfTwoProcessesDoNotGetLost) {
    constexpr int kTurns = 200;
    User other("turn");
    KovaSharedEvent event("turn");
    EXPECT_FALSE(event.TimedWait(0, kExact));
    for (int i = 0; i < kTurns; ++i) {
        EXPECT_EQ("posted", other.Does("post"));
        ASSERT_TRUE(event.TimedWait(60000, kExact)) << i;
        ASSERT_TRUE(event.Post());
        ASSERT_EQ(kFired, other.Does("wait 60000")) << i;
    }
}

TEST_F(SharedEventProcesses, CloseInOneEndsTheWaitsOfAll) {
    User closing("x");
    User waiting("y");
    waiting.Say("wait");
    EXPECT_EQ("closed", closing.Does("close"));
    EXPECT_EQ(kWrongSize, waiting.Hear());
    EXPECT_EQ(kTimedOut, waiting.Does("wait 0")) << "its socket stays open";
}

TEST_F(SharedEventProcesses, KilledProcessLeavesThePortToTheOthers) {
    process::Process killed("user", {"k", "exact"});
    EXPECT_EQ("bound", killed.Hear());
    User waiting("k");
    killed.Kill();
    EXPECT_EQ(-SIGKILL, killed.Wait());
    waiting.Say("wait");
    KovaSharedEvent poster("k");
    EXPECT_TRUE(poster.Post());
    EXPECT_EQ(kFired, waiting.Hear());
}

// Load

#ifdef __powerpc__
// The board is emulated.
constexpr int kPosts = 2000;
#else
constexpr int kPosts = 10000;
#endif
constexpr int kProcesses = 4;
constexpr int kWaitersEach = 2;

/// What the kernel dropped at the door of a socket because its queue was full.
uint32_t DropsOf(const KovaSocketWrapper& socket) {
    uint32_t counts[SK_MEMINFO_VARS] = {};
    socklen_t length = sizeof counts;
    EXPECT_EQ(0, ::getsockopt(socket.GetSocket(), SOL_SOCKET, SO_MEMINFO, counts, &length));
    EXPECT_GT(length, SK_MEMINFO_DROPS * sizeof counts[0]);
    return counts[SK_MEMINFO_DROPS];
}

TEST_F(SharedEventProcesses, FullQueueLosesWhatTheKernelCounts) {
    constexpr uint32_t kMany = 1000;
    KovaSharedEvent idle("many");
    EXPECT_FALSE(idle.TimedWait(0, kExact));
    EXPECT_TRUE(idle.SetRecvbufferSize(16384));
    KovaSharedEvent poster("many");
    for (uint32_t i = 0; i < kMany; ++i) ASSERT_TRUE(poster.Post()) << "nobody waits for the slow";

    uint32_t received = 0;
    while (idle.TimedWait(0, kExact)) ++received;
    EXPECT_EQ(ETIMEDOUT, idle.GetError());
    EXPECT_GT(received, 0u);
    EXPECT_LT(received, kMany);
    EXPECT_EQ(kMany, received + DropsOf(idle));
}

/// One waiter under load. Told that all is posted, it takes what still waits.
class Counting {
  public:
    explicit Counting(const std::string& name) : m_Event(name.c_str()) {
        EXPECT_FALSE(m_Event.TimedWait(0, kExact));
    }

    void Start() {
        m_Thread = std::make_unique<DeadlineThread>([this] { Run(); }, std::chrono::minutes(5));
    }
    void EndOfPosts() { m_AllPosted = true; }
    std::string Result() {
        m_Thread->Join();
        return std::to_string(m_Received) + " " + std::to_string(m_Others) + " " +
               std::to_string(DropsOf(m_Event));
    }

  private:
    void Run() {
        constexpr int kSliceMs = 50;
        for (;;) {
            const bool last = m_AllPosted;
            if (m_Event.TimedWait(last ? 0 : kSliceMs, kExact)) {
                ++m_Received;
            } else if (m_Event.GetError() != ETIMEDOUT) {
                ++m_Others;
            } else if (last) {
                return;
            }
        }
    }

    KovaSharedEvent m_Event;
    std::unique_ptr<DeadlineThread> m_Thread;
    std::atomic<bool> m_AllPosted{false};
    uint32_t m_Received = 0;
    uint32_t m_Others = 0;
};

KOVA_PART(counting) {
    std::vector<std::unique_ptr<Counting>> waiters;
    for (int i = 0; i < kWaitersEach; ++i) waiters.push_back(std::make_unique<Counting>(args.at(0)));
    for (const auto& waiter : waiters) waiter->Start();
    process::Tell("waiting");
    process::Listen();
    for (const auto& waiter : waiters) waiter->EndOfPosts();
    for (const auto& waiter : waiters) process::Tell(waiter->Result());
    return 0;
}

TEST_F(SharedEventProcesses, UnderLoadTheKernelAloneDropsAndCountsIt) {
    std::vector<std::unique_ptr<process::Process>> processes;
    for (int i = 0; i < kProcesses; ++i) {
        processes.push_back(std::make_unique<process::Process>("counting", Lines{"load"}));
    }
    for (const auto& one : processes) ASSERT_EQ("waiting", one->Hear());

    KovaSharedEvent poster("load");
    uint32_t posted = 0;
    for (int i = 0; i < kPosts; ++i) posted += poster.Post();
    EXPECT_EQ(uint32_t{kPosts}, posted);
    std::cout << "posted " << posted << "\n";

    for (const auto& one : processes) one->Say("all posted");
    for (const auto& one : processes) {
        for (int i = 0; i < kWaitersEach; ++i) {
            uint32_t received = 0;
            uint32_t others = 0;
            uint32_t dropped = 0;
            std::istringstream(one->Hear()) >> received >> others >> dropped;
            std::cout << "received " << received << ", dropped by the kernel " << dropped << "\n";
            EXPECT_EQ(posted, received + dropped);
            EXPECT_EQ(0u, others);
            EXPECT_GT(received, 0u);
        }
        EXPECT_EQ(0, one->Wait());
    }
}

}  // namespace
