/// Semaphores: a post and the wait that takes it on one thread, where nothing is ever waited for; and a round
/// trip between two threads, each of which waits for the other's post.

#include "support/by_hand.h"

#include <kova/local_semaphore.h>

#include <benchmark/benchmark.h>
#include <semaphore.h>

#include <atomic>
#include <semaphore>
#include <string>
#include <thread>

namespace {

using kova_bench::HandSemaphore;

class PosixSemaphore {
  public:
    PosixSemaphore() { ::sem_init(&m_Semaphore, 0, 0); }
    PosixSemaphore(const PosixSemaphore&) = delete;
    PosixSemaphore& operator=(const PosixSemaphore&) = delete;
    ~PosixSemaphore() { ::sem_destroy(&m_Semaphore); }

    bool Post() { return ::sem_post(&m_Semaphore) == 0; }
    bool Wait() { return ::sem_wait(&m_Semaphore) == 0; }

  private:
    sem_t m_Semaphore;
};

class StdSemaphore {
  public:
    bool Post() {
        m_Semaphore.release();
        return true;
    }
    bool Wait() {
        m_Semaphore.acquire();
        return true;
    }

  private:
    std::counting_semaphore<> m_Semaphore{0};
};

template <bool traced>
class LibrarySemaphore : public KovaLocalSemaphore {
  public:
    LibrarySemaphore() { SetTrace(traced); }
};

template <typename Semaphore>
void PostWait(benchmark::State& state) {
    kova_bench::BecomeMultiThreaded();
    Semaphore semaphore;
    for (auto _ : state) {
        if (semaphore.Post() && semaphore.Wait()) continue;
        state.SkipWithError("a semaphore failed");
        break;
    }
}

/// One post there and one back.
template <typename Semaphore>
void RoundTrip(benchmark::State& state) {
    Semaphore there;
    Semaphore back;
    std::atomic<bool> stop = false;
    std::thread echo([&] {
        while (there.Wait() && !stop) back.Post();
    });
    for (auto _ : state) {
        if (there.Post() && back.Wait()) continue;
        state.SkipWithError("a semaphore failed");
        break;
    }
    stop = true;
    there.Post();
    echo.join();
}

template <typename Semaphore>
void Register(const std::string& name) {
    const auto add = [&](const char* what, void (*function)(benchmark::State&)) {
        benchmark::RegisterBenchmark((what + name).c_str(), function)->MeasureProcessCPUTime()->UseRealTime();
    };
    add("semaphore/", PostWait<Semaphore>);
    add("semaphore-round-trip/", RoundTrip<Semaphore>);
}

[[maybe_unused]] const bool g_registered = [] {
    Register<HandSemaphore>("by-hand");
    Register<PosixSemaphore>("posix");
    Register<StdSemaphore>("std");
    Register<LibrarySemaphore<false>>("quiet");
    Register<LibrarySemaphore<true>>("traced");
    return true;
}();

}  // namespace
