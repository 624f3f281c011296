/// Locking and unlocking a mutex that nobody else wants: one thread, in a process that has had others.

#include "support/by_hand.h"

#include <kova/local_mutex.h>

#include <benchmark/benchmark.h>

#include <mutex>

namespace {

using kova_bench::PthreadMutex;

/// The call that the library's `Lock` begins with.
class PthreadTrylock : public PthreadMutex {
  public:
    bool Lock() { return Trylock(); }
};

class StdMutex {
  public:
    bool Lock() {
        m_Mutex.lock();
        return true;
    }
    bool Unlock() {
        m_Mutex.unlock();
        return true;
    }

  private:
    std::mutex m_Mutex;
};

template <bool traced>
class LibraryMutex : public KovaLocalMutex {
  public:
    LibraryMutex() { SetTrace(traced); }
};

class LibraryFunctions {
  public:
    LibraryFunctions() { KovaCreateMutex(&m_Mutex); }
    LibraryFunctions(const LibraryFunctions&) = delete;
    LibraryFunctions& operator=(const LibraryFunctions&) = delete;
    ~LibraryFunctions() { KovaDeleteMutex(&m_Mutex); }

    bool Lock() { return KovaLockMutex(&m_Mutex) != 0; }
    bool Unlock() { return KovaUnlockMutex(&m_Mutex) != 0; }

  private:
    KovaMutexT m_Mutex;
};

template <typename Mutex>
void LockUnlock(benchmark::State& state) {
    kova_bench::BecomeMultiThreaded();
    Mutex mutex;
    for (auto _ : state) {
        if (mutex.Lock() && mutex.Unlock()) continue;
        state.SkipWithError("a mutex failed");
        break;
    }
}

[[maybe_unused]] const bool g_registered = [] {
    const auto add = [](const char* name, void (*function)(benchmark::State&)) {
        benchmark::RegisterBenchmark(name, function)->MeasureProcessCPUTime()->UseRealTime();
    };
    add("mutex/pthread", LockUnlock<PthreadMutex>);
    add("mutex/pthread-trylock", LockUnlock<PthreadTrylock>);
    add("mutex/std", LockUnlock<StdMutex>);
    add("mutex/functions", LockUnlock<LibraryFunctions>);
    add("mutex/quiet", LockUnlock<LibraryMutex<false>>);
    add("mutex/traced", LockUnlock<LibraryMutex<true>>);
    return true;
}();

}  // namespace
