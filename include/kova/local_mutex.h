/// Mutex for the threads of one process, as functions on a record of the caller and as a class.
///
/// The mutex checks for errors: its owner cannot lock it again. A busy mutex is told to the caller; any other
/// failure leaves the lock in doubt and ends the process (`pabend`) after one trace record.
#ifndef KOVA_LOCAL_MUTEX_H
#define KOVA_LOCAL_MUTEX_H

#include <kova/base_object.h>
#include <kova/export.h>

#include <pthread.h>

#include <atomic>

typedef pthread_mutex_t KovaMutexT;

extern "C" {

/// Initialises a record / releases one. 1, or 0 where the abnormal end returns.
KOVA_API int KovaCreateMutex(KovaMutexT* mutex);
KOVA_API int KovaDeleteMutex(KovaMutexT* mutex);

/// Locks, waiting for as long as it takes. 1; a second lock by the owner ends the process.
KOVA_API int KovaLockMutex(KovaMutexT* mutex);
/// Locks if the mutex is free. 1, or 0 with `errno` EBUSY (also for the owner), EDEADLK or EAGAIN.
KOVA_API int KovaTrylockMutex(KovaMutexT* mutex);
/// Unlocks. 1; unlocking what the caller has not locked ends the process. An `errno` of EINTR from before the
/// call has a failure taken for an interruption: the call is repeated 2 ms later.
KOVA_API int KovaUnlockMutex(KovaMutexT* mutex);
}

/// Owns a mutex. Failures are recorded with their errno. Any thread may use the object; it must be unlocked
/// and no longer in use when it is destroyed.
class KOVA_API KovaLocalMutex : public virtual KovaBaseObject {
  public:
    KovaLocalMutex();
    KovaLocalMutex(const KovaLocalMutex&) = delete;
    KovaLocalMutex& operator=(const KovaLocalMutex&) = delete;
    ~KovaLocalMutex() override;

    /// Locks, waiting for as long as it takes. Clears the error record only when it had to wait.
    bool Lock();
    /// Locks if the mutex is free; false with EBUSY recorded if not.
    bool Trylock();
    bool Unlock();

    /// Switches the trace records of lock, trylock and unlock, which are on at first.
    void SetTrace(bool on) { m_Trace.store(on, std::memory_order_relaxed); }
    /// Always 1: the mutex is nobody else's.
    int GetRefCounter() { return 1; }

  private:
    bool Traces() const { return m_Trace.load(std::memory_order_relaxed); }
    bool LockSlowly(const char* function);

    KovaMutexT m_Mutex;
    std::atomic<bool> m_Trace;
};

#endif
