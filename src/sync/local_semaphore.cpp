#include "frame/abend.h"
#include "frame/fail.h"
#include "frame/trace.h"
#include "time/duration.h"

#include <kova/local_semaphore.h>

#include <time.h>

#include <cerrno>
#include <limits>

namespace {

constexpr int32_t kHighestCount = std::numeric_limits<int32_t>::max();
constexpr long kNanosecondsPerSecond = 1000000000;

/// Deliberate: a pthread call counts as failed only when it returns -1; error numbers pass.
bool Failed(int result) { return result == -1; }

/// Holds the mutex of a record. Its failures are nobody's to handle.
class CountGuard {
  public:
    explicit CountGuard(sKovaLocalSemaphore* semaphore) : m_Mutex(&semaphore->mutex) {
        ::pthread_mutex_lock(m_Mutex);
    }
    CountGuard(const CountGuard&) = delete;
    CountGuard& operator=(const CountGuard&) = delete;
    ~CountGuard() { ::pthread_mutex_unlock(m_Mutex); }

  private:
    pthread_mutex_t* const m_Mutex;
};

// Whoever learns from `Query`, without the mutex, that a count has changed sees also what was done before.

int32_t CountOf(const sKovaLocalSemaphore* semaphore) {
    return semaphore->count.load(std::memory_order_acquire);
}

void SetCount(sKovaLocalSemaphore* semaphore, int32_t count) {
    semaphore->count.store(count, std::memory_order_release);
}

/// Waits by `wait` for a count above 0 and takes one. 0, or the error number of `wait`.
template <typename WaitOnCondition>
int Take(sKovaLocalSemaphore* semaphore, WaitOnCondition wait) {
    int error = 0;
    while (CountOf(semaphore) == 0 && error == 0) error = wait();
    if (error == 0) SetCount(semaphore, CountOf(semaphore) - 1);
    return error;
}

bool InitialiseMutex(pthread_mutex_t* mutex) {
    pthread_mutexattr_t attributes;
    if (Failed(::pthread_mutexattr_init(&attributes)) ||
        Failed(::pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ERRORCHECK)) ||
        Failed(::pthread_mutex_init(mutex, &attributes))) {
        return false;
    }
    ::pthread_mutexattr_destroy(&attributes);
    return true;
}

bool InitialiseCondition(pthread_cond_t* condition) {
    pthread_condattr_t attributes;
    if (Failed(::pthread_condattr_init(&attributes)) ||
        Failed(::pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC)) ||
        Failed(::pthread_cond_init(condition, &attributes))) {
        return false;
    }
    ::pthread_condattr_destroy(&attributes);
    return true;
}

/// The moment `ms` milliseconds from now, or before now, on the monotonic clock.
timespec DeadlineAfter(int ms) {
    const timespec span = kova::ToTimespec(ms);
    timespec deadline{};
    ::clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline.tv_sec += span.tv_sec;
    deadline.tv_nsec += span.tv_nsec;
    if (deadline.tv_nsec >= kNanosecondsPerSecond) {
        deadline.tv_nsec -= kNanosecondsPerSecond;
        ++deadline.tv_sec;
    } else if (deadline.tv_nsec < 0) {
        deadline.tv_nsec += kNanosecondsPerSecond;
        --deadline.tv_sec;
    }
    return deadline;
}

}  // namespace

int KovaCreateLocalSemaphore(sKovaLocalSemaphore* semaphore) {
    const bool has_mutex = InitialiseMutex(&semaphore->mutex);
    SetCount(semaphore, 0);
    if (!has_mutex || !InitialiseCondition(&semaphore->condition)) {
        KOVA_TRACE("create semaphore=%p errno=%d", kova::AddressOf(semaphore), errno);
        kova::AbendOfLock();
        return 0;
    }
    return 1;
}

int KovaDeleteLocalSemaphore(sKovaLocalSemaphore* semaphore) {
    KOVA_TRACE("delete semaphore=%p", kova::AddressOf(semaphore));
    ::pthread_mutex_destroy(&semaphore->mutex);
    const int result = ::pthread_cond_destroy(&semaphore->condition);
    if (Failed(result)) {
        KOVA_TRACE("delete semaphore=%p result=%d errno=%d", kova::AddressOf(semaphore), result, errno);
        kova::AbendOfLock();
        return 0;
    }
    KOVA_TRACE("deleted semaphore=%p", kova::AddressOf(semaphore));
    return 1;
}

int KovaPostLocalSemaphore(sKovaLocalSemaphore* semaphore) {
    int result = 0;
    {
        const CountGuard guard(semaphore);
        const int32_t count = CountOf(semaphore);
        // Deliberate: the highest count stays.
        if (count != kHighestCount) SetCount(semaphore, count + 1);
        result = ::pthread_cond_signal(&semaphore->condition);
    }
    if (Failed(result)) {
        KOVA_TRACE("post semaphore=%p result=%d errno=%d", kova::AddressOf(semaphore), result, errno);
        kova::AbendOfLock();
        return 0;
    }
    return 1;
}

int KovaWaitLocalSemaphore(sKovaLocalSemaphore* semaphore) {
    int error = 0;
    {
        const CountGuard guard(semaphore);
        error =
            Take(semaphore, [&] { return ::pthread_cond_wait(&semaphore->condition, &semaphore->mutex); });
    }
    if (error != 0) {
        KOVA_TRACE("wait semaphore=%p error=%d errno=%d", kova::AddressOf(semaphore), error, errno);
        kova::AbendOfLock();
        return 0;
    }
    return 1;
}

int KovaTryWaitLocalSemaphore(sKovaLocalSemaphore* semaphore) {
    const CountGuard guard(semaphore);
    const int32_t count = CountOf(semaphore);
    if (count < 1) {
        errno = EAGAIN;
        return 0;
    }
    SetCount(semaphore, count - 1);
    return 1;
}

int KovaTimeWaitLocalSemaphore(sKovaLocalSemaphore* semaphore, int milliseconds) {
    const timespec deadline = DeadlineAfter(milliseconds);
    const CountGuard guard(semaphore);
    const int error = Take(semaphore, [&] {
        return ::pthread_cond_timedwait(&semaphore->condition, &semaphore->mutex, &deadline);
    });
    if (error == 0) return 1;
    errno = error;
    if (error != ETIMEDOUT) {
        KOVA_TRACE("time wait semaphore=%p error=%d errno=%d", kova::AddressOf(semaphore), error, errno);
        kova::AbendOfLock();
    }
    return 0;
}

int KovaQueryLocalSemaphore(sKovaLocalSemaphore* semaphore, int* count) {
    *count = CountOf(semaphore);
    return 1;
}

int KovaResetLocalSemaphore(sKovaLocalSemaphore* semaphore) {
    const CountGuard guard(semaphore);
    SetCount(semaphore, 0);
    return 1;
}

KovaLocalSemaphore::KovaLocalSemaphore() : m_Trace(true) {
    if (KovaCreateLocalSemaphore(&m_Semaphore) == 0) KOVA_RECORD(errno);
    KOVA_TRACE("create semaphore=%p", kova::AddressOf(&m_Semaphore));
}

KovaLocalSemaphore::~KovaLocalSemaphore() {
    if (KovaDeleteLocalSemaphore(&m_Semaphore) == 0) KOVA_RECORD(errno);
}

bool KovaLocalSemaphore::Post() {
    const bool posted = KovaPostLocalSemaphore(&m_Semaphore) != 0;
    if (Traces()) KOVA_TRACE("post semaphore=%p", kova::AddressOf(&m_Semaphore));
    return KOVA_RESULT(posted);
}

bool KovaLocalSemaphore::Wait() {
    const bool taken = KovaWaitLocalSemaphore(&m_Semaphore) != 0;
    if (Traces()) KOVA_TRACE("wait semaphore=%p", kova::AddressOf(&m_Semaphore));
    KOVA_RESULT(taken);
    if (Traces()) KOVA_TRACE("waited semaphore=%p", kova::AddressOf(&m_Semaphore));
    return taken;
}

bool KovaLocalSemaphore::TryWait() {
    const bool taken = KovaTryWaitLocalSemaphore(&m_Semaphore) != 0;
    if (Traces()) KOVA_TRACE("try wait semaphore=%p result=%d", kova::AddressOf(&m_Semaphore), taken);
    return KOVA_RESULT(taken);
}

bool KovaLocalSemaphore::TimeWait(int ms) {
    if (Traces()) KOVA_TRACE("time wait semaphore=%p ms=%d", kova::AddressOf(&m_Semaphore), ms);
    const bool taken = KovaTimeWaitLocalSemaphore(&m_Semaphore, ms) != 0;
    KOVA_RESULT(taken);
    if (Traces()) KOVA_TRACE("time waited semaphore=%p result=%d", kova::AddressOf(&m_Semaphore), taken);
    return taken;
}

bool KovaLocalSemaphore::Query(int& value) {
    KovaQueryLocalSemaphore(&m_Semaphore, &value);
    ClearError();
    return true;
}

bool KovaLocalSemaphore::Reset() {
    KovaResetLocalSemaphore(&m_Semaphore);
    ClearError();
    return true;
}
