/// Counting semaphore for the threads of one process, as functions on a record of the caller and as a class.
///
/// An empty semaphore and a time-out are told to the caller; a failure below ends the process (`pabend`)
/// after one trace record. Time limits run on the monotonic clock: setting the wall clock does not move them.
#ifndef KOVA_LOCAL_SEMAPHORE_H
#define KOVA_LOCAL_SEMAPHORE_H

#include <kova/base_object.h>
#include <kova/export.h>

#include <pthread.h>

#include <atomic>
#include <cstdint>

struct sKovaLocalSemaphore {
    pthread_mutex_t mutex;       ///< guards changes of `count`
    pthread_cond_t condition;    ///< signalled by every post
    std::atomic<int32_t> count;  ///< 0 to 2,147,483,647
};

extern "C" {

/// Initialises a record with count 0 / releases one, which nobody may wait on. 1, or 0 where the abnormal end
/// returns.
KOVA_API int KovaCreateLocalSemaphore(sKovaLocalSemaphore* semaphore);
KOVA_API int KovaDeleteLocalSemaphore(sKovaLocalSemaphore* semaphore);

/// Counts up and wakes one waiter. At the highest count it stays there. 1.
KOVA_API int KovaPostLocalSemaphore(sKovaLocalSemaphore* semaphore);
/// Waits until the count is above 0 and counts down. 1.
KOVA_API int KovaWaitLocalSemaphore(sKovaLocalSemaphore* semaphore);
/// Counts down if the count is above 0. 1, or 0 with `errno` EAGAIN.
KOVA_API int KovaTryWaitLocalSemaphore(sKovaLocalSemaphore* semaphore);
/// As Wait, for at most `milliseconds`; 0 and negative ones do not wait. 1, or 0 with `errno` ETIMEDOUT.
KOVA_API int KovaTimeWaitLocalSemaphore(sKovaLocalSemaphore* semaphore, int milliseconds);
/// Stores the count of this moment in `count`; takes no lock. Always 1.
KOVA_API int KovaQueryLocalSemaphore(sKovaLocalSemaphore* semaphore, int* count);
/// Sets the count to 0. Always 1.
KOVA_API int KovaResetLocalSemaphore(sKovaLocalSemaphore* semaphore);
}

/// Owns a semaphore with count 0. Failures are recorded with their errno, successes clear the record. Any
/// thread may use the object; nobody may wait on it when it is destroyed.
class KOVA_API KovaLocalSemaphore : public virtual KovaBaseObject {
  public:
    KovaLocalSemaphore();
    KovaLocalSemaphore(const KovaLocalSemaphore&) = delete;
    KovaLocalSemaphore& operator=(const KovaLocalSemaphore&) = delete;
    ~KovaLocalSemaphore() override;

    bool Post();
    bool Wait();
    /// False with EAGAIN if the count is 0.
    bool TryWait();
    /// False with ETIMEDOUT if the count stayed 0 for `ms` milliseconds.
    bool TimeWait(int ms);
    bool Query(int& value);
    bool Reset();

    /// The record, for the plain functions; stays the object's.
    sKovaLocalSemaphore* GetHandle() { return &m_Semaphore; }
    /// Switches the trace records of post and the waits, which are on at first.
    void SetTrace(bool on) { m_Trace.store(on, std::memory_order_relaxed); }
    /// Always 1: the semaphore is nobody else's.
    int GetRefCounter() { return 1; }

  private:
    bool Traces() const { return m_Trace.load(std::memory_order_relaxed); }

    sKovaLocalSemaphore m_Semaphore;
    std::atomic<bool> m_Trace;
};

#endif
