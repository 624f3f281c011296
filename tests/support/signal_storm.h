/// Signals that interrupt whatever a thread waits in.
#ifndef KOVA_TESTS_SUPPORT_SIGNAL_STORM_H
#define KOVA_TESTS_SUPPORT_SIGNAL_STORM_H

#include "support/leak_check.h"

#include <poll.h>
#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <memory>
#include <utility>
#include <vector>

/// Interrupts threads about a thousand times a second while it lives.
class SignalStorm {
  public:
    explicit SignalStorm(std::vector<pthread_t> targets) : m_Targets(std::move(targets)) {
        struct sigaction counting {};
        counting.sa_handler = [](int) { ++Caught(); };
        ::sigaction(SIGUSR1, &counting, &m_Before);
        Caught() = 0;
        m_Thread = std::make_unique<DeadlineThread>([this] { Blow(); });
    }
    ~SignalStorm() {
        m_End = true;
        m_Thread->Join();
        // Drops what was sent to a thread that has not run since.
        ::signal(SIGUSR1, SIG_IGN);
        ::sigaction(SIGUSR1, &m_Before, nullptr);
    }

    static std::atomic<int>& Caught() {
        static std::atomic<int> caught;
        return caught;
    }

  private:
    void Blow() const {
        while (!m_End) {
            for (const pthread_t target : m_Targets) ::pthread_kill(target, SIGUSR1);
            ::poll(nullptr, 0, 1);
        }
    }

    const std::vector<pthread_t> m_Targets;
    struct sigaction m_Before {};
    std::atomic<bool> m_End = false;
    std::unique_ptr<DeadlineThread> m_Thread;
};

#endif
