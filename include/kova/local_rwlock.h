/// Read-write lock for the threads of one process: many readers together, or one writer alone.
///
/// New readers queue behind a writer, so that a stream of them does not keep it waiting. A read may be ended
/// by another thread than the one that began it; a write ends where it began, or the process does.
#ifndef KOVA_LOCAL_RWLOCK_H
#define KOVA_LOCAL_RWLOCK_H

#include <kova/base_object.h>
#include <kova/export.h>
#include <kova/local_mutex.h>
#include <kova/local_semaphore.h>

#include <atomic>

/// Every operation stores a code and its own place in the lock's record, also when it succeeded (code 0). Any
/// thread may use the object; it must be free when it is destroyed.
class KOVA_API KovaLocalReadWriteLock : public virtual KovaBaseObject {
  public:
    KovaLocalReadWriteLock();
    KovaLocalReadWriteLock(const KovaLocalReadWriteLock&) = delete;
    KovaLocalReadWriteLock& operator=(const KovaLocalReadWriteLock&) = delete;
    ~KovaLocalReadWriteLock() override;

    /// Waits until no writer holds the lock, and joins its readers.
    bool BeginRead();
    bool EndRead();
    /// Waits until no writer and no reader holds the lock, and takes it.
    bool BeginWrite();
    /// False with EBUSY if a writer holds the lock. Otherwise takes it together with one unit of a reader,
    /// and waits for such a reader if there is none: other readers may be active still when it returns true.
    bool TryWrite();
    bool EndWrite();

    /// Kept, but of no effect.
    void SetTrace(bool on) { m_Trace = on; }
    /// Always 1: the lock is nobody else's.
    int GetRefCounter() { return 1; }

  private:
    KovaLocalSemaphore m_Readers;  ///< its count is the number of active readers
    KovaLocalSemaphore m_Drained;  ///< posted when the last reader may have left
    KovaLocalMutex m_Writer;       ///< held through a write, and by each reader while it enters
    std::atomic<bool> m_Trace;
};

#endif
