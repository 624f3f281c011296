/// Read-write locks: pairs of begin and end by one reader, by one beside a second reader that stays inside,
/// by two threads at once, and by a writer that meets nobody.

#include "support/by_hand.h"

#include <kova/local_rwlock.h>

#include <benchmark/benchmark.h>
#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <shared_mutex>
#include <string>
#include <thread>

namespace {

using kova_bench::HandSemaphore;
using kova_bench::PthreadMutex;

/// The library's way on bare pthread calls: a mutex that a writer holds and a reader passes through, a
/// semaphore that counts readers, and one that readers post when they leave.
class HandLock {
  public:
    bool BeginRead() { return m_Writer.Lock() && m_Readers.Post() && m_Writer.Unlock(); }
    bool EndRead() {
        const bool ended = m_Readers.Wait();
        if (m_Drained.Count() == 0) m_Drained.Post();
        return ended;
    }
    bool BeginWrite() {
        if (!m_Writer.Lock()) return false;
        while (m_Readers.Count() > 0) m_Drained.Wait();
        return true;
    }
    bool EndWrite() { return m_Writer.Unlock(); }

  private:
    HandSemaphore m_Readers;
    HandSemaphore m_Drained;
    PthreadMutex m_Writer;
};

class PthreadLock {
  public:
    PthreadLock() { ::pthread_rwlock_init(&m_Lock, nullptr); }
    PthreadLock(const PthreadLock&) = delete;
    PthreadLock& operator=(const PthreadLock&) = delete;
    ~PthreadLock() { ::pthread_rwlock_destroy(&m_Lock); }

    bool BeginRead() { return ::pthread_rwlock_rdlock(&m_Lock) == 0; }
    bool EndRead() { return ::pthread_rwlock_unlock(&m_Lock) == 0; }
    bool BeginWrite() { return ::pthread_rwlock_wrlock(&m_Lock) == 0; }
    bool EndWrite() { return ::pthread_rwlock_unlock(&m_Lock) == 0; }

  private:
    pthread_rwlock_t m_Lock;
};

class StdLock {
  public:
    bool BeginRead() {
        m_Lock.lock_shared();
        return true;
    }
    bool EndRead() {
        m_Lock.unlock_shared();
        return true;
    }
    bool BeginWrite() {
        m_Lock.lock();
        return true;
    }
    bool EndWrite() {
        m_Lock.unlock();
        return true;
    }

  private:
    std::shared_mutex m_Lock;
};

template <typename Lock>
void ReadPairs(benchmark::State& state, Lock& lock) {
    for (auto _ : state) {
        if (lock.BeginRead() && lock.EndRead()) continue;
        state.SkipWithError("a lock failed");
        break;
    }
}

template <typename Lock>
void Read(benchmark::State& state) {
    kova_bench::BecomeMultiThreaded();
    Lock lock;
    ReadPairs(state, lock);
}

/// A second thread reads all the time.
template <typename Lock>
void ReadBeside(benchmark::State& state) {
    Lock lock;
    HandSemaphore inside;
    HandSemaphore leave;
    std::thread reader([&] {
        lock.BeginRead();
        inside.Post();
        leave.Wait();
        lock.EndRead();
    });
    inside.Wait();
    ReadPairs(state, lock);
    leave.Post();
    reader.join();
}

/// Two threads share the pairs, many at a time, so that it does not count that they begin and end together.
template <typename Lock>
void ReadTogether(benchmark::State& state) {
    constexpr int64_t kPairs = 100000;
    Lock lock;
    HandSemaphore begin;
    HandSemaphore end;
    std::atomic<bool> stop = false;
    const auto read_half = [&] {
        for (int64_t i = 0; i < kPairs / 2; ++i) {
            if (!lock.BeginRead() || !lock.EndRead()) std::abort();
        }
    };
    std::thread reader([&] {
        while (begin.Wait() && !stop) {
            read_half();
            end.Post();
        }
    });
    while (state.KeepRunningBatch(kPairs)) {
        begin.Post();
        read_half();
        end.Wait();
    }
    stop = true;
    begin.Post();
    reader.join();
}

template <typename Lock>
void Write(benchmark::State& state) {
    kova_bench::BecomeMultiThreaded();
    Lock lock;
    for (auto _ : state) {
        if (lock.BeginWrite() && lock.EndWrite()) continue;
        state.SkipWithError("a lock failed");
        break;
    }
}

template <typename Lock>
void Register(const std::string& name) {
    const auto add = [&](const char* what, void (*function)(benchmark::State&)) {
        benchmark::RegisterBenchmark((what + name).c_str(), function)->MeasureProcessCPUTime()->UseRealTime();
    };
    add("rwlock-read/", Read<Lock>);
    add("rwlock-read-beside/", ReadBeside<Lock>);
    add("rwlock-read-together/", ReadTogether<Lock>);
    add("rwlock-write/", Write<Lock>);
}

[[maybe_unused]] const bool g_registered = [] {
    Register<HandLock>("by-hand");
    Register<PthreadLock>("pthread");
    Register<StdLock>("std");
    Register<KovaLocalReadWriteLock>("library");
    return true;
}();

}  // namespace
