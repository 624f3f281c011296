/// Mutex that processes share by name.
///
/// It is a System V set of five semaphores, found through the key file `/tmp/kova/NAME.kovamtx`:
///
/// | position | meaning                                             |
/// |----------|-----------------------------------------------------|
/// | 0        | 1 free, 0 held                                      |
/// | 1        | how often it is open                                |
/// | 2, 3     | process id and thread id of the holder, 0 when free |
/// | 4        | 1: stays after the last destroy                     |
///
/// The mutex is held by a thread, which cannot lock it again. A holder that dies leaves it free; its ids stay
/// until the next lock. The set goes with the last destroy unless it was made persistent; key files stay.
///
/// Only a busy mutex is told to the caller. Nearly every other failure, locking twice and unlocking what
/// another thread holds included, ends the process (`pabend`) after one trace record; results below are those
/// where the abnormal end returns. Process and thread ids are kept as semaphore values, which end at 32767:
/// where `kernel.pid_max` is above 32768 a holder with a larger id ends the process.
///
/// Threads: everything may be called from any thread, but the record of an object tells of its last call
/// only. A child made by `fork` still counts as its parent: it uses shared objects after `exec` only.
#ifndef KOVA_SHARED_MUTEX_H
#define KOVA_SHARED_MUTEX_H

#include <kova/base_object.h>
#include <kova/export.h>
#include <kova/process.h>

#include <atomic>

extern "C" {

/// Opens the mutex `name` (its first 64 characters), making it if need be. The set's id, also in `*handle`,
/// or -1. Waits for others that create or destroy the same name.
KOVA_API int KovaSharedMutexCreate(int* handle, const char* name);
/// Closes it, and removes it if nobody else has it open and it is not persistent. 0, or -1 with errno.
KOVA_API int KovaSharedMutexDestroy(int* handle, const char* name);

/// Locks, waiting for as long as it takes. 0.
KOVA_API int KovaSharedMutexLock(int* handle);
/// Locks if the mutex is free. 0, or 1 with errno EAGAIN if another thread holds it.
KOVA_API int KovaSharedMutexTrylock(int* handle);
/// Unlocks. 0, or -1 with errno, EPERM if another thread holds it or nobody does.
KOVA_API int KovaSharedMutexUnlock(int* handle);

/// Keeps the set after the last destroy, for good. 0.
KOVA_API int KovaSharedMutexSetPersistent(int* handle);
/// How often the mutex is open, or -1 with errno.
KOVA_API int KovaSharedMutexGetRefCounter(int* handle);

/// Notes the calling thread as holder, notes that there is none. 0, or -1 with errno.
KOVA_API int KovaSharedMutexSetOwner(int* handle);
KOVA_API int KovaSharedMutexClearOwner(int* handle);

/// Takes the lock under which named objects are created and destroyed: an exclusive record lock on the whole
/// key file, held by the process. Waits. The open descriptor, or -1.
KOVA_API int KovaSharedMutexCDLock(const char* path);
/// Releases it and closes the descriptor. 0, or -1.
KOVA_API int KovaSharedMutexCDUnlock(int fd);
}

/// Fills `owner` with the holder's ids; returns `owner`.
KOVA_API KovaPTid& KovaSharedMutexGetOwner(int* handle, KovaPTid& owner);

/// Has a shared mutex open. Failures are recorded with their errno, successes clear the record.
class KOVA_API KovaSharedMutex : public virtual KovaBaseObject {
  public:
    KovaSharedMutex(const char* name);
    KovaSharedMutex(const KovaSharedMutex&) = delete;
    KovaSharedMutex& operator=(const KovaSharedMutex&) = delete;
    ~KovaSharedMutex() override;

    /// Locks, waiting for as long as it takes.
    bool Lock();
    /// Locks if the mutex is free; false with EAGAIN if not.
    bool Trylock();
    bool Unlock();
    bool SetPersistent();
    /// How often the mutex is open in all processes, or -1.
    int GetRefCounter();

    /// The set's id, -1 if it could not be opened.
    int GetHandle() const { return m_Handle; }
    /// The name's first 64 characters, without a terminating zero if there are that many.
    const char* GetName() const { return m_Name; }
    /// Kept for callers; switches nothing.
    void SetTrace(bool on) { m_Trace.store(on, std::memory_order_relaxed); }

  private:
    enum { kNameSize = 64 };

    int m_Handle;
    char m_Name[kNameSize];
    std::atomic<bool> m_Trace;
};

#endif
