/// Counting semaphores that processes share by name: an array of them under each name.
///
/// They are one System V semaphore set, found through the key file `/tmp/kova/NAME.kovasem`; set position 0
/// counts how often it is open, 1 tells whether it is persistent, and 2 + p is position p of the caller.
/// Everything that a process took and gave is taken back by the kernel when it ends, and so is its reference.
/// The set goes with the last destroy unless it was made persistent; key files stay.
///
/// Creating, destroying and making persistent end the process (`pabend`) after one trace record when a system
/// call fails; results below are those where the abnormal end returns. Everything else tells its failure as
/// -1 with errno: EAGAIN (try), ETIMEDOUT, EFBIG or EINVAL (no such position), EIDRM (removed while waiting),
/// EINVAL (removed before), ERANGE (more than 32767). `op` is how many units to take if negative, to give if
/// positive; 0 waits until there are none.
///
/// Threads: everything may be called from any thread, but the record of an object tells of its last call
/// only.
#ifndef KOVA_SHARED_SEMAPHORE_H
#define KOVA_SHARED_SEMAPHORE_H

#include <kova/base_object.h>
#include <kova/export.h>

#include <atomic>

struct sembuf;
struct timespec;

extern "C" {

/// Opens the semaphores `name` (its first 64 characters), making `count` of them with the values `inits` if
/// need be; the values of those that exist stay. The set's id, also in `*handle`, or -1. Waits for others
/// that create or destroy the same name.
KOVA_API int KovaSharedSemaphoreNCreate(int* handle, const char* name, const int* inits, int count);
/// As above with one position.
KOVA_API int KovaSharedSemaphoreCreate(int* handle, const char* name, int init);
/// Closes it, and removes it if nobody else has it open and it is not persistent. 0, or -1 with errno.
KOVA_API int KovaSharedSemaphoreDestroy(int* handle, const char* name);

/// `op` on position `pos`, waiting for as long as it takes.
KOVA_API int KovaSharedSemaphoreWait(int* handle, int op, unsigned int pos);
/// As Wait without waiting: -1 with EAGAIN.
KOVA_API int KovaSharedSemaphoreTryWait(int* handle, int op, unsigned int pos);
/// As Wait for at most `timeout` milliseconds: -1 with ETIMEDOUT, or with EINVAL at once for a negative one.
/// A wait that a signal interrupts starts over.
KOVA_API int KovaSharedSemaphoreTimedWait(int* handle, int op, int timeout, unsigned int pos);
/// Gives one unit.
KOVA_API int KovaSharedSemaphorePost(int* handle, unsigned int pos);
/// Releases all that wait at position 0 at this moment: gives it as many units as wait there. 0, or -1.
KOVA_API int KovaSharedSemaphorePostMultiEvent(int* handle);
/// Waits until position `pos` has `n` units, and takes none. `timeout` in milliseconds, 0 for no limit.
KOVA_API int KovaSharedSemaphoreTriggerOnPos(int* handle, unsigned int pos, unsigned int n,
                                             unsigned int timeout);
KOVA_API int KovaSharedSemaphoreTrigger(int* handle, unsigned int n, unsigned int timeout);

/// Reads and sets the value of a position (the first without `pos`).
KOVA_API int KovaSharedSemaphoreGetValOnPos(int* handle, unsigned int pos);
KOVA_API int KovaSharedSemaphoreGetVal(int* handle);
KOVA_API int KovaSharedSemaphoreSetValOnPos(int* handle, unsigned int pos, int value);
KOVA_API int KovaSharedSemaphoreSetVal(int* handle, int value);

/// How many wait at the reference counter, where nobody ever does: 0, or -1.
KOVA_API int KovaSharedSemaphoreGetNoOfWaiters(int* handle);
/// How often the semaphores are open, or -1.
KOVA_API int KovaSharedSemaphoreGetRefCounter(int* handle);
/// Keeps the set after the last destroy, for good. 0.
KOVA_API int KovaSharedSemaphoreSetPersistent(int* handle);

/// As KovaSharedMutexCDLock and KovaSharedMutexCDUnlock.
KOVA_API int KovaSharedSemaphoreCDLock(const char* path);
KOVA_API int KovaSharedSemaphoreCDUnlock(int fd);

/// `count` operations on any set, tried every 2 ms for at most `timeout` on the wall clock (null: without
/// limit). Adds IPC_NOWAIT to the flags of the operations. 0, or -1 with errno, EAGAIN after the limit. A
/// limit beyond the clock's 32 bits ends with them, in 2038.
KOVA_API int KovaSemTimedOp(int set, struct sembuf* operations, unsigned int count,
                            const struct timespec* timeout);
}

/// Has shared semaphores open. Failures are recorded with their errno, successes clear the record.
class KOVA_API KovaSharedSemaphore : public virtual KovaBaseObject {
  public:
    /// `count` positions with the value `init` each.
    KovaSharedSemaphore(const char* name, int init, int count);
    KovaSharedSemaphore(const char* name, const int* inits, int count);
    KovaSharedSemaphore(const KovaSharedSemaphore&) = delete;
    KovaSharedSemaphore& operator=(const KovaSharedSemaphore&) = delete;
    ~KovaSharedSemaphore() override;

    bool Wait(int op, unsigned int pos);
    bool TryWait(int op, unsigned int pos);
    /// The time-out stands first here, unlike in the plain function; a negative one fails with EINVAL.
    bool TimedWait(int timeout, int op, unsigned int pos);
    /// Waits until position `pos` has `n` units, and takes none. The level stands first here, unlike in the
    /// plain function; time-out 0 is no limit, and a negative one is nearly 2^32 ms, about 49.7 days.
    bool Trigger(unsigned int n, unsigned int pos, int timeout);
    bool Post(unsigned int pos);
    bool SetVal(int value, unsigned int pos);
    /// The value, or -1.
    int GetVal(unsigned int pos);
    /// How often the semaphores are open in all processes, or -1.
    int GetRefCounter();
    /// Always 0 on an open object.
    int GetNoOfWaiters();
    bool SetPersistent();

    /// The set's id, -1 if it could not be opened.
    int GetHandle() const { return m_Handle; }
    /// The name's first 64 characters, without a terminating zero if there are that many.
    const char* GetName() const { return m_Name; }
    /// Switches the trace records of the waits and values, which are on at first.
    void SetTrace(bool on) { m_Trace.store(on, std::memory_order_relaxed); }

  private:
    enum { kNameSize = 64 };

    bool Traces() const { return m_Trace.load(std::memory_order_relaxed); }

    int m_Handle;
    char m_Name[kNameSize];
    std::atomic<bool> m_Trace;
};

#endif
