/// Objects that processes share, used by one process: nobody else wants the lock, a unit and a message are
/// there.

#include "ipc/ipc_by_hand.h"

#include <kova/message_queue.h>
#include <kova/shared_mutex.h>
#include <kova/shared_semaphore.h>

#include <benchmark/benchmark.h>
#include <boost/interprocess/sync/named_mutex.hpp>
#include <boost/interprocess/sync/named_semaphore.hpp>
#include <fcntl.h>
#include <semaphore.h>

namespace {

namespace interprocess = boost::interprocess;
using kova_bench::HandMutex;
using kova_bench::HandQueue;
using kova_bench::HandSemaphore;

class LibraryMutex : public KovaSharedMutex {
  public:
    LibraryMutex() : KovaSharedMutex("bench") {}
};

class LibraryMutexFunctions {
  public:
    LibraryMutexFunctions() { KovaSharedMutexCreate(&m_Handle, "bench-functions"); }
    LibraryMutexFunctions(const LibraryMutexFunctions&) = delete;
    LibraryMutexFunctions& operator=(const LibraryMutexFunctions&) = delete;
    ~LibraryMutexFunctions() { KovaSharedMutexDestroy(&m_Handle, "bench-functions"); }

    bool Lock() { return KovaSharedMutexLock(&m_Handle) == 0; }
    bool Unlock() { return KovaSharedMutexUnlock(&m_Handle) == 0; }

  private:
    int m_Handle = -1;
};

class LibrarySemaphore {
  public:
    bool Post() { return m_Semaphore.Post(0); }
    bool Wait() { return m_Semaphore.Wait(-1, 0); }

  private:
    KovaSharedSemaphore m_Semaphore{"bench", 0, 1};
};

/// Locks and unlocks as a mutex does, posts and waits as a semaphore does.
class PosixNamed {
  public:
    PosixNamed() : m_Semaphore(::sem_open("/kova-bench", O_CREAT, 0666, 1)) {}
    PosixNamed(const PosixNamed&) = delete;
    PosixNamed& operator=(const PosixNamed&) = delete;
    ~PosixNamed() {
        ::sem_close(m_Semaphore);
        ::sem_unlink("/kova-bench");
    }

    bool Lock() { return Wait(); }
    bool Unlock() { return Post(); }
    bool Post() { return ::sem_post(m_Semaphore) == 0; }
    bool Wait() { return ::sem_wait(m_Semaphore) == 0; }

  private:
    sem_t* const m_Semaphore;
};

class BoostMutex {
  public:
    BoostMutex() : m_Mutex(interprocess::open_or_create, "kova-bench-mutex") {}
    BoostMutex(const BoostMutex&) = delete;
    BoostMutex& operator=(const BoostMutex&) = delete;
    ~BoostMutex() { interprocess::named_mutex::remove("kova-bench-mutex"); }

    bool Lock() {
        m_Mutex.lock();
        return true;
    }
    bool Unlock() {
        m_Mutex.unlock();
        return true;
    }

  private:
    interprocess::named_mutex m_Mutex;
};

class BoostSemaphore {
  public:
    BoostSemaphore() : m_Semaphore(interprocess::open_or_create, "kova-bench-semaphore", 0) {}
    BoostSemaphore(const BoostSemaphore&) = delete;
    BoostSemaphore& operator=(const BoostSemaphore&) = delete;
    ~BoostSemaphore() { interprocess::named_semaphore::remove("kova-bench-semaphore"); }

    bool Post() {
        m_Semaphore.post();
        return true;
    }
    bool Wait() {
        m_Semaphore.wait();
        return true;
    }

  private:
    interprocess::named_semaphore m_Semaphore;
};

template <int size>
class LibraryQueue {
  public:
    bool Write() { return m_Queue.Write(m_Bytes, size) == 0; }
    bool Read() { return m_Queue.Read(m_Bytes, size) == size; }

  private:
    char m_Name[6] = "bench";
    KovaMessageQueue m_Queue{m_Name};
    char m_Bytes[size]{};
};

template <typename Mutex>
void LockUnlock(benchmark::State& state) {
    Mutex mutex;
    for (auto _ : state) {
        if (mutex.Lock() && mutex.Unlock()) continue;
        state.SkipWithError("a mutex failed");
        break;
    }
}

template <typename Semaphore>
void PostWait(benchmark::State& state) {
    Semaphore semaphore;
    for (auto _ : state) {
        if (semaphore.Post() && semaphore.Wait()) continue;
        state.SkipWithError("a semaphore failed");
        break;
    }
}

template <typename Queue>
void WriteRead(benchmark::State& state) {
    Queue queue;
    for (auto _ : state) {
        if (queue.Write() && queue.Read()) continue;
        state.SkipWithError("a queue failed");
        break;
    }
}

[[maybe_unused]] const bool g_registered = [] {
    const auto add = [](const char* name, void (*function)(benchmark::State&)) {
        benchmark::RegisterBenchmark(name, function)->MeasureProcessCPUTime()->UseRealTime();
    };
    add("shared-mutex/by-hand", LockUnlock<HandMutex>);
    add("shared-mutex/library", LockUnlock<LibraryMutex>);
    add("shared-mutex/functions", LockUnlock<LibraryMutexFunctions>);
    add("shared-mutex/posix", LockUnlock<PosixNamed>);
    add("shared-mutex/boost", LockUnlock<BoostMutex>);
    add("shared-semaphore/by-hand", PostWait<HandSemaphore>);
    add("shared-semaphore/library", PostWait<LibrarySemaphore>);
    add("shared-semaphore/posix", PostWait<PosixNamed>);
    add("shared-semaphore/boost", PostWait<BoostSemaphore>);
    add("queue-64/by-hand", WriteRead<HandQueue<64>>);
    add("queue-64/library", WriteRead<LibraryQueue<64>>);
    add("queue-4096/by-hand", WriteRead<HandQueue<4096>>);
    add("queue-4096/library", WriteRead<LibraryQueue<4096>>);
    return true;
}();

}  // namespace
