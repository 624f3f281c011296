#include "frame/abend.h"
#include "frame/fail.h"
#include "frame/retry.h"
#include "frame/trace.h"
#include "ipc/key_file.h"
#include "ipc/semaphore_set.h"
#include "time/duration.h"

#include <kova/clock.h>
#include <kova/shared_semaphore.h>

#include <time.h>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <memory>
#include <new>
#include <optional>

namespace {

constexpr const char* kExtension = "kovasem";

enum Position : unsigned short { kReferences, kPersistent, kFirst };

/// Deliberate: unlike those of the mutex, opening and closing are both undone when the process ends.
constexpr short kOpeningFlags = IPC_NOWAIT | SEM_UNDO;
constexpr kova::Bookkeeping kBooks{kReferences, kPersistent, IPC_NOWAIT | SEM_UNDO, true};

constexpr unsigned kLargestPosition = std::numeric_limits<unsigned short>::max() - kFirst;
using Units = std::numeric_limits<short>;
constexpr int32_t kPollMs = 2;

/// Whether a set can have that many positions of the caller.
bool IsPossible(int count) { return count >= 0 && static_cast<unsigned>(count) <= kLargestPosition + 1; }

/// Gives a set its values, which nobody has open; a set that cannot be given them is removed.
bool SetInitialValues(int set, const int* inits, int count) {
    bool is_set = kova::SetValue(set, kReferences, 0) >= 0 && kova::SetValue(set, kPersistent, 0) >= 0;
    KOVA_TRACE("new set=%d count=%d", set, count);
    for (int p = 0; is_set && p < count; ++p) is_set = kova::SetValue(set, p + kFirst, inits[p]) >= 0;
    KOVA_TRACE("initial values of set=%d", set);
    if (!is_set) kova::DropSet(set);
    return is_set;
}

/// Makes the set with its initial values, or finds the one that exists, whose values stay; -1 with errno.
int OpenSet(key_t key, const int* inits, int count) {
    if (!IsPossible(count) || (count > 0 && inits == nullptr)) {
        errno = EINVAL;
        return -1;
    }
    const int size = count + kFirst;
    int set = ::semget(key, size, kova::kNewSetFlags);
    if (set != -1) return SetInitialValues(set, inits, count) ? set : -1;
    set = ::semget(key, size, kova::kExistingSetFlags);
    KOVA_TRACE("existing set=%d count=%d", set, count);
    if (set == -1) return -1;
    return !kova::IsHalfMade(set) || SetInitialValues(set, inits, count) ? set : -1;
}

/// The set position of the caller's position `pos`; -1 with EINVAL for one that no set has.
int SetPosition(unsigned pos) {
    if (pos <= kLargestPosition) return static_cast<int>(pos + kFirst);
    errno = EINVAL;
    return -1;
}

/// An operation on the caller's position `pos`; nothing, with errno, for what no semaphore can do.
std::optional<sembuf> Operation(unsigned pos, int64_t units, int flags) {
    const int position = SetPosition(pos);
    if (position < 0) return std::nullopt;
    if (units > Units::max() || units < Units::min()) {
        errno = ERANGE;
        return std::nullopt;
    }
    return sembuf{static_cast<unsigned short>(position), static_cast<short>(units),
                  static_cast<short>(flags)};
}

int Operate(int set, unsigned pos, int units, int flags) {
    std::optional<sembuf> operation = Operation(pos, units, flags);
    return operation ? kova::OperateSet(set, &*operation, 1) : -1;
}

/// As kova::OperateSet for at most `limit`; -1 with ETIMEDOUT after it.
int OperateWithin(int set, sembuf* operations, size_t count, const timespec& limit) {
    // Deliberate: an interrupted wait starts over.
    const int result = kova::RetryInterrupted([&] { return ::semtimedop(set, operations, count, &limit); });
    if (result < 0 && errno == EAGAIN) errno = ETIMEDOUT;
    return result;
}

int32_t Saturated(int64_t value) {
    using Limits = std::numeric_limits<int32_t>;
    return static_cast<int32_t>(std::clamp<int64_t>(value, Limits::min(), Limits::max()));
}

/// The wall clock's time of then. What the clock cannot show is its last moment, or its first.
KovaTimeSpec DeadlineAfter(const timespec& limit) {
    KovaTimeSpec now;
    KovaGetRealClock(&now);
    // Beyond the clock's ends from wherever it stands.
    constexpr int64_t kFar = int64_t{1} << 34;
    int64_t seconds = now.seconds + std::clamp<int64_t>(limit.tv_sec, -kFar, kFar);
    int64_t milliseconds = now.milliseconds + int64_t{limit.tv_nsec / 1000000};
    if (milliseconds > 999) {
        milliseconds -= 1000;
        ++seconds;
    }
    KovaTimeSpec deadline;
    deadline.seconds = Saturated(seconds);
    deadline.milliseconds = Saturated(milliseconds);
    return deadline;
}

bool IsPast(const KovaTimeSpec& deadline) {
    KovaTimeSpec now;
    return *KovaGetRealClock(&now) >= deadline;
}

}  // namespace

// Callers hold their handles by pointer, whatever is done with them.
// NOLINTBEGIN(readability-non-const-parameter)

int KovaSharedSemaphoreNCreate(int* handle, const char* name, const int* inits, int count) {
    *handle = -1;
    kova::KeyFile file(name, kExtension);
    if (!file.Make()) return -1;
    const std::optional<key_t> key = file.Key();
    if (!key) {
        kova::AbendOfLock();
        return -1;
    }
    kova::KeyFileLock lock(file);
    if (!lock) return -1;
    const int set = OpenSet(*key, inits, count);
    if (set == -1) {
        lock.Release();
        KOVA_TRACE("no set key=%x count=%d errno=%d", *key, count, errno);
        kova::AbendOfLock();
        return -1;
    }
    kova::OperateSet(set, kReferences, 1, kOpeningFlags);
    return *handle = set;
}

int KovaSharedSemaphoreCreate(int* handle, const char* name, int init) {
    KovaSharedSemaphoreNCreate(handle, name, &init, 1);
    return *handle;
}

int KovaSharedSemaphoreDestroy(int* handle, const char* name) {
    kova::KeyFile file(name, kExtension);
    if (!file.Make()) return -1;
    const kova::KeyFileLock lock(file);
    if (!lock) return -1;
    return kova::CloseSet(*handle, kBooks);
}

int KovaSharedSemaphoreWait(int* handle, int op, unsigned int pos) {
    return Operate(*handle, pos, op, SEM_UNDO);
}

int KovaSharedSemaphoreTryWait(int* handle, int op, unsigned int pos) {
    return Operate(*handle, pos, op, IPC_NOWAIT | SEM_UNDO);
}

int KovaSharedSemaphoreTimedWait(int* handle, int op, int timeout, unsigned int pos) {
    std::optional<sembuf> operation = Operation(pos, op, SEM_UNDO);
    return operation ? OperateWithin(*handle, &*operation, 1, kova::ToTimespec(timeout)) : -1;
}

int KovaSharedSemaphorePost(int* handle, unsigned int pos) { return Operate(*handle, pos, 1, SEM_UNDO); }

int KovaSharedSemaphorePostMultiEvent(int* handle) {
    const int waiters = ::semctl(*handle, kFirst, GETNCNT);
    if (waiters < 0) return -1;
    return kova::SetValue(*handle, kFirst, waiters);
}

int KovaSharedSemaphoreTriggerOnPos(int* handle, unsigned int pos, unsigned int n, unsigned int timeout) {
    const std::optional<sembuf> take = Operation(pos, -int64_t{n}, SEM_UNDO);
    const std::optional<sembuf> give = Operation(pos, n, SEM_UNDO);
    if (!take || !give) return -1;
    sembuf operations[] = {*take, *give};
    if (timeout == 0) return kova::OperateSet(*handle, operations, std::size(operations));
    return OperateWithin(*handle, operations, std::size(operations), kova::ToTimespec(timeout));
}

int KovaSharedSemaphoreTrigger(int* handle, unsigned int n, unsigned int timeout) {
    return KovaSharedSemaphoreTriggerOnPos(handle, 0, n, timeout);
}

int KovaSharedSemaphoreGetValOnPos(int* handle, unsigned int pos) {
    const int position = SetPosition(pos);
    return position >= 0 ? kova::ReadValue(*handle, position) : -1;
}

int KovaSharedSemaphoreGetVal(int* handle) { return KovaSharedSemaphoreGetValOnPos(handle, 0); }

int KovaSharedSemaphoreSetValOnPos(int* handle, unsigned int pos, int value) {
    const int position = SetPosition(pos);
    return position >= 0 ? kova::SetValue(*handle, position, value) : -1;
}

int KovaSharedSemaphoreSetVal(int* handle, int value) {
    return KovaSharedSemaphoreSetValOnPos(handle, 0, value);
}

// Deliberate: at the reference counter, not where the users wait.
int KovaSharedSemaphoreGetNoOfWaiters(int* handle) { return ::semctl(*handle, kReferences, GETNCNT); }

int KovaSharedSemaphoreGetRefCounter(int* handle) { return kova::ReadValue(*handle, kReferences); }

int KovaSharedSemaphoreSetPersistent(int* handle) {
    if (kova::SetValue(*handle, kPersistent, 1) < 0) {
        KOVA_TRACE("persistent set=%d errno=%d", *handle, errno);
        kova::AbendOfLock();
    }
    return 0;
}

int KovaSharedSemaphoreCDLock(const char* path) { return kova::LockKeyFile(path); }

int KovaSharedSemaphoreCDUnlock(int fd) { return kova::UnlockKeyFile(fd); }

int KovaSemTimedOp(int set, struct sembuf* operations, unsigned int count, const struct timespec* timeout) {
    std::optional<KovaTimeSpec> deadline;
    if (timeout != nullptr) deadline = DeadlineAfter(*timeout);
    for (unsigned i = 0; i < count; ++i) operations[i].sem_flg |= IPC_NOWAIT;
    for (;;) {
        const int result = kova::OperateSet(set, operations, count);
        if (result >= 0 || errno != EAGAIN) return result;
        if (deadline && IsPast(*deadline)) {
            errno = EAGAIN;
            return -1;
        }
        KovaMilliSleep(kPollMs);
        KOVA_TRACE("semop set=%d tried again", set);
    }
}

// NOLINTEND(readability-non-const-parameter)

KovaSharedSemaphore::KovaSharedSemaphore(const char* name, int init, int count) : m_Trace(true) {
    kova::StoreObjectName(name, m_Name);
    const size_t size = IsPossible(count) ? static_cast<size_t>(count) : 0;
    const std::unique_ptr<int[]> inits(new (std::nothrow) int[size]);
    if (inits) std::fill_n(inits.get(), size, init);
    KOVA_RESULT(KovaSharedSemaphoreNCreate(&m_Handle, m_Name, inits.get(), count) >= 0);
}

KovaSharedSemaphore::KovaSharedSemaphore(const char* name, const int* inits, int count) : m_Trace(true) {
    kova::StoreObjectName(name, m_Name);
    KOVA_RESULT(KovaSharedSemaphoreNCreate(&m_Handle, m_Name, inits, count) >= 0);
}

KovaSharedSemaphore::~KovaSharedSemaphore() {
    KOVA_RESULT(KovaSharedSemaphoreDestroy(&m_Handle, m_Name) >= 0);
}

bool KovaSharedSemaphore::Wait(int op, unsigned int pos) {
    const bool taken = KovaSharedSemaphoreWait(&m_Handle, op, pos) == 0;
    if (!taken && Traces()) KOVA_TRACE("wait set=%d pos=%u errno=%d", m_Handle, pos, errno);
    return KOVA_RESULT(taken);
}

bool KovaSharedSemaphore::TryWait(int op, unsigned int pos) {
    const bool taken = KovaSharedSemaphoreTryWait(&m_Handle, op, pos) == 0;
    if (!taken && Traces()) {
        if (errno == EAGAIN) {
            KOVA_TRACE("try wait set=%d pos=%u would wait", m_Handle, pos);
        } else {
            KOVA_TRACE("try wait set=%d pos=%u errno=%d", m_Handle, pos, errno);
        }
    }
    return KOVA_RESULT(taken);
}

bool KovaSharedSemaphore::TimedWait(int timeout, int op, unsigned int pos) {
    const bool taken = KovaSharedSemaphoreTimedWait(&m_Handle, op, timeout, pos) == 0;
    if (!taken && Traces()) {
        if (errno == ETIMEDOUT) {
            KOVA_TRACE("timed wait set=%d pos=%u ms=%d over", m_Handle, pos, timeout);
        } else {
            KOVA_TRACE("timed wait set=%d pos=%u ms=%d errno=%d", m_Handle, pos, timeout, errno);
        }
    }
    return KOVA_RESULT(taken);
}

bool KovaSharedSemaphore::Trigger(unsigned int n, unsigned int pos, int timeout) {
    const unsigned limit = static_cast<unsigned>(timeout);
    const bool reached = KovaSharedSemaphoreTriggerOnPos(&m_Handle, pos, n, limit) == 0;
    if (!reached && Traces()) {
        if (timeout != 0 && errno == ETIMEDOUT) {
            KOVA_TRACE("trigger set=%d pos=%u level=%u time over", m_Handle, pos, n);
        } else {
            KOVA_TRACE("trigger set=%d pos=%u level=%u errno=%d", m_Handle, pos, n, errno);
        }
    }
    return KOVA_RESULT(reached);
}

bool KovaSharedSemaphore::Post(unsigned int pos) {
    const bool posted = KovaSharedSemaphorePost(&m_Handle, pos) == 0;
    if (!posted && Traces()) KOVA_TRACE("post set=%d pos=%u errno=%d", m_Handle, pos, errno);
    return KOVA_RESULT(posted);
}

bool KovaSharedSemaphore::SetVal(int value, unsigned int pos) {
    const bool set = KovaSharedSemaphoreSetValOnPos(&m_Handle, pos, value) == 0;
    if (!set && Traces()) KOVA_TRACE("set value set=%d pos=%u errno=%d", m_Handle, pos, errno);
    return KOVA_RESULT(set);
}

int KovaSharedSemaphore::GetVal(unsigned int pos) {
    const int value = KovaSharedSemaphoreGetValOnPos(&m_Handle, pos);
    if (value < 0 && Traces()) KOVA_TRACE("get value set=%d pos=%u errno=%d", m_Handle, pos, errno);
    KOVA_RESULT(value >= 0);
    return value;
}

int KovaSharedSemaphore::GetRefCounter() {
    const int references = KovaSharedSemaphoreGetRefCounter(&m_Handle);
    KOVA_RESULT(references >= 0);
    return references;
}

int KovaSharedSemaphore::GetNoOfWaiters() { return KovaSharedSemaphoreGetNoOfWaiters(&m_Handle); }

bool KovaSharedSemaphore::SetPersistent() {
    return KOVA_RESULT(KovaSharedSemaphoreSetPersistent(&m_Handle) == 0);
}
