#include "frame/abend.h"
#include "frame/fail.h"
#include "frame/trace.h"

#include <kova/clock.h>
#include <kova/local_mutex.h>

#include <cerrno>

namespace {

constexpr int32_t kPauseMs = 2;

/// Where this thread's `errno` is: asking costs as much as a fifth of a lock.
[[gnu::tls_model("initial-exec")]] constinit thread_local int* t_Errno = nullptr;

[[gnu::noinline]] int* FindErrno() { return t_Errno = &errno; }

void ClearErrno() {
    int* const number = t_Errno;
    *(number != nullptr ? number : FindErrno()) = 0;
}

/// The pthread calls return their error numbers; interposed ones may set `errno` as well, which then counts.
void KeepNumber(int number) {
    if (errno == 0) errno = number;
}

bool IsBusy(int number) { return number == EDEADLK || number == EBUSY || number == EAGAIN; }

// The usual ways stand alone and the others out of line, so that nobody pays for what only the others need.

/// Goes on after `result` of `lock` (a lock or an unlock), until it succeeds or the process ends.
template <typename Lock>
[[gnu::noinline, gnu::cold]] int RepeatOrAbend(KovaMutexT* mutex, Lock lock, int result) {
    do {
        KeepNumber(result);
        if (errno != EINTR) {
            KOVA_TRACE("mutex=%p result=%d errno=%d", kova::AddressOf(mutex), result, errno);
            kova::AbendOfLock();
            return 0;
        }
        KovaMilliSleep(kPauseMs);
        result = lock(mutex);
    } while (result != 0);
    return 1;
}

/// Goes on after `result` of a trylock.
[[gnu::noinline]] int RepeatTrylock(KovaMutexT* mutex, int result) {
    do {
        KeepNumber(result);
        if (result != EINTR && IsBusy(errno)) return 0;
        if (result == EINTR) {
            KovaMilliSleep(kPauseMs);
        } else {
            KOVA_TRACE("trylock mutex=%p result=%d errno=%d", kova::AddressOf(mutex), result, errno);
            kova::AbendOfLock();
        }
        result = ::pthread_mutex_trylock(mutex);
    } while (result != 0);
    return 1;
}

int TrylockAtOnce(KovaMutexT* mutex) {
    ClearErrno();
    const int result = ::pthread_mutex_trylock(mutex);
    return result == 0 ? 1 : RepeatTrylock(mutex, result);
}

int UnlockAtOnce(KovaMutexT* mutex) {
    // Deliberate: an errno from before the call takes part in the test for an interruption.
    const int result = ::pthread_mutex_unlock(mutex);
    return result == 0 ? 1 : RepeatOrAbend(mutex, ::pthread_mutex_unlock, result);
}

/// These return true, so that they are the last call of what they trace.
[[gnu::noinline]] bool TraceLocked(KovaMutexT* mutex) {
    KOVA_TRACE("locked mutex=%p", kova::AddressOf(mutex));
    return true;
}

[[gnu::noinline]] bool TraceUnlocked(KovaMutexT* mutex) {
    KOVA_TRACE("unlock mutex=%p", kova::AddressOf(mutex));
    return true;
}

int Initialise(KovaMutexT* mutex, pthread_mutexattr_t* attributes) {
    int result = ::pthread_mutexattr_init(attributes);
    if (result == 0) result = ::pthread_mutexattr_settype(attributes, PTHREAD_MUTEX_ERRORCHECK);
    if (result == 0) result = ::pthread_mutex_init(mutex, attributes);
    return result;
}

}  // namespace

int KovaCreateMutex(KovaMutexT* mutex) {
    errno = 0;
    pthread_mutexattr_t attributes;
    const int result = Initialise(mutex, &attributes);
    if (result != 0) {
        KeepNumber(result);
        KOVA_TRACE("create mutex result=%d errno=%d", result, errno);
        kova::AbendOfLock();
    }
    ::pthread_mutexattr_destroy(&attributes);
    KOVA_TRACE("create mutex=%p", kova::AddressOf(mutex));
    return result == 0 ? 1 : 0;
}

int KovaDeleteMutex(KovaMutexT* mutex) {
    errno = 0;
    const int result = ::pthread_mutex_destroy(mutex);
    if (result != 0) {
        KeepNumber(result);
        KOVA_TRACE("delete mutex=%p result=%d errno=%d", kova::AddressOf(mutex), result, errno);
        kova::AbendOfLock();
        return 0;
    }
    KOVA_TRACE("delete mutex=%p", kova::AddressOf(mutex));
    return 1;
}

int KovaLockMutex(KovaMutexT* mutex) {
    ClearErrno();
    const int result = ::pthread_mutex_lock(mutex);
    return result == 0 ? 1 : RepeatOrAbend(mutex, ::pthread_mutex_lock, result);
}

int KovaTrylockMutex(KovaMutexT* mutex) { return TrylockAtOnce(mutex); }

int KovaUnlockMutex(KovaMutexT* mutex) { return UnlockAtOnce(mutex); }

KovaLocalMutex::KovaLocalMutex() : m_Trace(true) {
    if (KovaCreateMutex(&m_Mutex) == 0) KOVA_RECORD(errno);
}

KovaLocalMutex::~KovaLocalMutex() {
    if (KovaDeleteMutex(&m_Mutex) == 0) KOVA_RECORD(errno);
}

bool KovaLocalMutex::Lock() {
    if (TrylockAtOnce(&m_Mutex) == 0) [[unlikely]]
        return LockSlowly(__PRETTY_FUNCTION__);
    // Deliberate: the error record stays as it was.
    return Traces() ? TraceLocked(&m_Mutex) : true;
}

bool KovaLocalMutex::LockSlowly(const char* function) {
    if (Traces()) KOVA_TRACE("must wait for mutex=%p", kova::AddressOf(&m_Mutex));
    const bool locked = KovaLockMutex(&m_Mutex) != 0;
    if (locked) {
        ClearError();
    } else {
        _SetError_Trace_(function, __LINE__, errno);
    }
    if (Traces()) KOVA_TRACE("waited for mutex=%p", kova::AddressOf(&m_Mutex));
    return locked;
}

bool KovaLocalMutex::Trylock() {
    const bool locked = KOVA_RESULT(KovaTrylockMutex(&m_Mutex) != 0);
    if (Traces()) KOVA_TRACE("trylock mutex=%p", kova::AddressOf(&m_Mutex));
    return locked;
}

bool KovaLocalMutex::Unlock() {
    const bool unlocked = KOVA_RESULT(UnlockAtOnce(&m_Mutex) != 0);
    if (Traces()) TraceUnlocked(&m_Mutex);
    return unlocked;
}
