#include "support/second_host.h"

#include "support/leak_check.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdlib>
#include <mutex>

void Shell(const std::string& command) { EXPECT_EQ(0, std::system(command.c_str())) << command; }

struct SecondHost::Worker {
    Worker() : thread([this] { Run(); }) {}

    void Run() {
        EXPECT_EQ(0, ::unshare(CLONE_NEWNET));
        std::unique_lock lock(mutex);
        tid = ::gettid();
        for (changed.notify_all(); !end; changed.notify_all()) {
            changed.wait(lock, [this] { return end || work != nullptr; });
            if (work != nullptr) (*std::exchange(work, nullptr))();
        }
    }

    void Do(const std::function<void()>* next) {
        std::unique_lock lock(mutex);
        work = next;
        changed.notify_all();
        changed.wait(lock, [this] { return work == nullptr; });
    }

    std::mutex mutex;
    std::condition_variable changed;
    const std::function<void()>* work = nullptr;
    pid_t tid = 0;
    bool end = false;
    DeadlineThread thread;
};

SecondHost::SecondHost(const std::string& cable) : m_Here(cable + "0"), m_Worker(std::make_unique<Worker>()) {
    Do([] {});
    const std::string there = cable + "1";
    // The board's `ip` cannot name the peer; the kernel takes the first free name.
    Shell("ip link add " + m_Here + " type veth && ip link set veth0 name " + there);
    Shell("ip link set " + there + " netns " + std::to_string(m_Worker->tid));
    Shell("ip link set " + m_Here + " up");
    Do([&] { Shell("ip link set lo up && ip link set " + there + " up"); });
}

SecondHost::~SecondHost() {
    // The links go with the second network, but only some time after it has ended.
    Shell("ip link del " + m_Here);
    {
        const std::lock_guard lock(m_Worker->mutex);
        m_Worker->end = true;
    }
    m_Worker->changed.notify_all();
}

void SecondHost::Do(const std::function<void()>& work) { m_Worker->Do(&work); }
