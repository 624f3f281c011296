/// What the locks and threads of the library are held against: the same on bare pthread calls, without error
/// record, trace and checks of the caller's use. Failures to make one are not looked for.
#ifndef KOVA_BENCH_BY_HAND_H
#define KOVA_BENCH_BY_HAND_H

#include <pthread.h>
#include <time.h>

#include <cstdint>
#include <thread>

namespace kova_bench {

/// Until its first thread starts, a process locks without atomic operations. Services have threads; so every
/// benchmark of a lock begins with this, whichever comes first. The thread allocates nothing, since the
/// memory that it would get costs a number of system calls that differs from run to run.
inline void BecomeMultiThreaded() {
    static const bool done = [] {
        std::thread([] {}).join();
        return true;
    }();
    static_cast<void>(done);
}

/// Error-checking, as the library's mutex is.
class PthreadMutex {
  public:
    PthreadMutex() {
        pthread_mutexattr_t attributes;
        ::pthread_mutexattr_init(&attributes);
        ::pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ERRORCHECK);
        ::pthread_mutex_init(&m_Mutex, &attributes);
        ::pthread_mutexattr_destroy(&attributes);
    }
    PthreadMutex(const PthreadMutex&) = delete;
    PthreadMutex& operator=(const PthreadMutex&) = delete;
    ~PthreadMutex() { ::pthread_mutex_destroy(&m_Mutex); }

    bool Lock() { return ::pthread_mutex_lock(&m_Mutex) == 0; }
    bool Trylock() { return ::pthread_mutex_trylock(&m_Mutex) == 0; }
    bool Unlock() { return ::pthread_mutex_unlock(&m_Mutex) == 0; }

    pthread_mutex_t* Handle() { return &m_Mutex; }

  private:
    pthread_mutex_t m_Mutex;
};

/// Mutex, condition on the monotonic clock and counter: every change under the mutex, one signal per post.
class HandSemaphore {
  public:
    HandSemaphore() {
        pthread_condattr_t attributes;
        ::pthread_condattr_init(&attributes);
        ::pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
        ::pthread_cond_init(&m_Condition, &attributes);
        ::pthread_condattr_destroy(&attributes);
    }
    HandSemaphore(const HandSemaphore&) = delete;
    HandSemaphore& operator=(const HandSemaphore&) = delete;
    ~HandSemaphore() { ::pthread_cond_destroy(&m_Condition); }

    bool Post() {
        m_Mutex.Lock();
        ++m_Count;
        const bool signalled = ::pthread_cond_signal(&m_Condition) == 0;
        return m_Mutex.Unlock() && signalled;
    }
    bool Wait() {
        m_Mutex.Lock();
        int error = 0;
        while (m_Count == 0 && error == 0) error = ::pthread_cond_wait(&m_Condition, m_Mutex.Handle());
        if (error == 0) --m_Count;
        return m_Mutex.Unlock() && error == 0;
    }
    /// The count, read without the mutex.
    int32_t Count() const { return *static_cast<const volatile int32_t*>(&m_Count); }

  private:
    PthreadMutex m_Mutex;
    pthread_cond_t m_Condition;
    int32_t m_Count = 0;
};

}  // namespace kova_bench

#endif
