/// kova-bench-lock-calls SUBJECT COUNT: does one thing with a lock or a thread COUNT times and prints how
/// often what it called was called. Calls of the library come here, because a program's own definitions win
/// over those of the C and C++ libraries.
///
/// Under strace, the system calls of the repetitions stand between two calls of getppid.

#include "support/by_hand.h"

#include <kova/local_mutex.h>
#include <kova/local_rwlock.h>
#include <kova/local_semaphore.h>
#include <kova/thread.h>

#include <dlfcn.h>
#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <new>
#include <string_view>
#include <thread>

namespace {

enum Call { kTrylock, kLock, kUnlock, kSignal, kWait, kNew, kAllocate, kCalls };
constexpr const char* kNames[kCalls] = {"trylock", "lock", "unlock", "signal", "wait", "new", "allocate"};

/// Calls since the start, by all threads.
constinit std::atomic<long> g_calls[kCalls] = {};

using Calls = std::array<long, kCalls>;

Calls Snapshot() {
    Calls calls;
    for (size_t i = 0; i < kCalls; ++i) calls[i] = g_calls[i];
    return calls;
}

Calls Since(const Calls& before) {
    Calls calls = Snapshot();
    for (size_t i = 0; i < kCalls; ++i) calls[i] -= before[i];
    return calls;
}

template <typename Function>
Function* Next(Function*, const char* name) {
    return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" {

int pthread_mutex_trylock(pthread_mutex_t* mutex) noexcept {
    static auto* const next = Next(&::pthread_mutex_trylock, "pthread_mutex_trylock");
    ++g_calls[kTrylock];
    return next(mutex);
}

int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept {
    static auto* const next = Next(&::pthread_mutex_lock, "pthread_mutex_lock");
    ++g_calls[kLock];
    return next(mutex);
}

int pthread_mutex_unlock(pthread_mutex_t* mutex) noexcept {
    static auto* const next = Next(&::pthread_mutex_unlock, "pthread_mutex_unlock");
    ++g_calls[kUnlock];
    return next(mutex);
}

int pthread_cond_signal(pthread_cond_t* condition) noexcept {
    static auto* const next = Next(&::pthread_cond_signal, "pthread_cond_signal");
    ++g_calls[kSignal];
    return next(condition);
}

int pthread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex) {
    static auto* const next = Next(&::pthread_cond_wait, "pthread_cond_wait");
    ++g_calls[kWait];
    return next(condition, mutex);
}

int pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex, const timespec* deadline) {
    static auto* const next = Next(&::pthread_cond_timedwait, "pthread_cond_timedwait");
    ++g_calls[kWait];
    return next(condition, mutex, deadline);
}

// The C library's own names for what stands behind.
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* old, size_t size);
void* __libc_memalign(size_t alignment, size_t size);

void* malloc(size_t size) {
    ++g_calls[kAllocate];
    return __libc_malloc(size);
}

void* calloc(size_t count, size_t size) {
    ++g_calls[kAllocate];
    return __libc_calloc(count, size);
}

void* realloc(void* old, size_t size) {
    ++g_calls[kAllocate];
    return __libc_realloc(old, size);
}

void* memalign(size_t alignment, size_t size) {
    ++g_calls[kAllocate];
    return __libc_memalign(alignment, size);
}

void* aligned_alloc(size_t alignment, size_t size) {
    ++g_calls[kAllocate];
    return __libc_memalign(alignment, size);
}

int posix_memalign(void** memory, size_t alignment, size_t size) {
    ++g_calls[kAllocate];
    *memory = __libc_memalign(alignment, size);
    return *memory != nullptr ? 0 : ENOMEM;
}
}

// All other forms of `new` lead here.
void* operator new(size_t size) {
    ++g_calls[kNew];
    void* const memory = std::malloc(size);
    if (memory == nullptr) std::abort();
    return memory;
}

void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, size_t) noexcept { std::free(memory); }

namespace {

[[noreturn]] void Die(const char* why) {
    std::fprintf(stderr, "kova-bench-lock-calls: %s\n", why);
    std::exit(2);
}

void Require(bool success) {
    if (!success) Die("an operation failed");
}

/// The calls of `count` repetitions of `once`, after a first one that does not count: with it the facility
/// learns the thread's id.
template <typename Function>
Calls Repeat(long count, Function once) {
    once();
    ::getppid();
    const Calls before = Snapshot();
    for (long i = 0; i < count; ++i) once();
    const Calls calls = Since(before);
    ::getppid();
    return calls;
}

Calls MutexPair(long count, bool traced) {
    KovaLocalMutex mutex;
    mutex.SetTrace(traced);
    return Repeat(count, [&] { Require(mutex.Lock() && mutex.Unlock()); });
}

Calls MutexTrylock(long count) {
    KovaLocalMutex mutex;
    return Repeat(count, [&] { Require(mutex.Trylock() && !mutex.Trylock() && mutex.Unlock()); });
}

Calls MutexFunctions(long count) {
    KovaMutexT mutex;
    KovaCreateMutex(&mutex);
    const Calls calls =
        Repeat(count, [&] { Require(KovaLockMutex(&mutex) != 0 && KovaUnlockMutex(&mutex) != 0); });
    KovaDeleteMutex(&mutex);
    return calls;
}

Calls SemaphorePair(long count, bool traced) {
    KovaLocalSemaphore semaphore;
    semaphore.SetTrace(traced);
    return Repeat(count, [&] { Require(semaphore.Post() && semaphore.Wait()); });
}

/// What posts and waits do not reach.
Calls SemaphoreOthers(long count) {
    KovaLocalSemaphore semaphore;
    return Repeat(count, [&] {
        int value = 0;
        Require(semaphore.Post() && semaphore.TryWait() && !semaphore.TryWait());
        Require(semaphore.Query(value) && value == 0 && semaphore.Reset());
    });
}

Calls SemaphoreTimed(long count) {
    constexpr int kMilliseconds = 10000;
    KovaLocalSemaphore semaphore;
    return Repeat(count, [&] {
        Require(semaphore.Post() && semaphore.TimeWait(kMilliseconds) && !semaphore.TimeWait(0));
    });
}

Calls ReadPair(long count) {
    KovaLocalReadWriteLock lock;
    return Repeat(count, [&] { Require(lock.BeginRead() && lock.EndRead()); });
}

Calls WritePair(long count) {
    KovaLocalReadWriteLock lock;
    return Repeat(count, [&] { Require(lock.BeginWrite() && lock.EndWrite()); });
}

Calls TryWrite(long count) {
    KovaLocalReadWriteLock lock;
    return Repeat(count, [&] { Require(lock.BeginRead() && lock.TryWrite() && lock.EndWrite()); });
}

/// A lock that has to wait: it is given back only when the other thread is in its wait. The threads tell each
/// other by flags, which count for nothing.
Calls MutexWait(long count) {
    KovaLocalMutex mutex;
    std::atomic<long> asked = 0;
    std::atomic<long> done = 0;
    std::thread waiter([&] {
        for (long i = 0; i <= count; ++i) {
            while (asked <= i) ::sched_yield();
            Require(mutex.Lock() && mutex.Unlock());
            ++done;
        }
    });
    const Calls calls = Repeat(count, [&] {
        Require(mutex.Lock());
        const long waits = g_calls[kLock];
        const long next = ++asked;
        while (g_calls[kLock] == waits) ::sched_yield();
        Require(mutex.Unlock());
        while (done < next) ::sched_yield();
    });
    waiter.join();
    return calls;
}

/// A wait on an empty semaphore.
Calls SemaphoreWait(long count) {
    KovaLocalSemaphore semaphore;
    std::atomic<long> asked = 0;
    std::atomic<long> done = 0;
    std::thread waiter([&] {
        for (long i = 0; i <= count; ++i) {
            while (asked <= i) ::sched_yield();
            Require(semaphore.Wait());
            ++done;
        }
    });
    const Calls calls = Repeat(count, [&] {
        const long waits = g_calls[kWait];
        const long next = ++asked;
        while (g_calls[kWait] == waits) ::sched_yield();
        Require(semaphore.Post());
        while (done < next) ::sched_yield();
    });
    waiter.join();
    return calls;
}

Calls Made(long count) {
    return Repeat(count, [] {
        const KovaLocalMutex mutex;
        const KovaLocalSemaphore semaphore;
        const KovaLocalReadWriteLock lock;
    });
}

/// Shows that allocations are counted.
Calls OnHeap(long count) {
    return Repeat(count, [] { std::make_unique<KovaLocalMutex>(); });
}

class Worker : public KovaThread {
  public:
    using KovaThread::KovaThread;
    int Run() override { return 0; }
};

Calls Thread(long count) {
    return Repeat(count, [] {
        KovaThreadContext context(0);
        (new Worker(&context, 0))->StartThread();
        Require(context.WaitForSyncPoint(KovaThreadContext::SYNC_FINISHED, 0));
    });
}

Calls Run(std::string_view subject, long count) {
    if (subject == "mutex-quiet") return MutexPair(count, false);
    if (subject == "mutex-traced") return MutexPair(count, true);
    if (subject == "mutex-trylock") return MutexTrylock(count);
    if (subject == "mutex-functions") return MutexFunctions(count);
    if (subject == "mutex-wait") return MutexWait(count);
    if (subject == "semaphore-quiet") return SemaphorePair(count, false);
    if (subject == "semaphore-traced") return SemaphorePair(count, true);
    if (subject == "semaphore-others") return SemaphoreOthers(count);
    if (subject == "semaphore-timed") return SemaphoreTimed(count);
    if (subject == "semaphore-wait") return SemaphoreWait(count);
    if (subject == "rwlock-read") return ReadPair(count);
    if (subject == "rwlock-write") return WritePair(count);
    if (subject == "rwlock-trywrite") return TryWrite(count);
    if (subject == "made") return Made(count);
    if (subject == "heap") return OnHeap(count);
    if (subject == "thread") return Thread(count);
    Die("no such subject");
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) Die("usage: kova-bench-lock-calls SUBJECT COUNT");
    kova_bench::BecomeMultiThreaded();
    const Calls calls = Run(argv[1], std::atol(argv[2]));
    std::printf("{");
    for (size_t i = 0; i < kCalls; ++i) std::printf("%s\"%s\": %ld", i == 0 ? "" : ", ", kNames[i], calls[i]);
    std::printf("}\n");
    return 0;
}
