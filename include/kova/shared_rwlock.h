/// Read-write lock that processes share by name.
///
/// It is a shared semaphore of two positions, the number of readers inside and the gate; a semaphore of the
/// same name is the same set. Readers hold the gate while they enter; a writer takes it and waits until the
/// readers have left. What a process that dies holds is taken back by the kernel. The lock goes with the last
/// user unless it was made persistent.
///
/// Errors: after each operation the record holds the semaphore's last code, 0 after a success. `BeginRead`
/// may fail with code 0, because a later step cleared that of the one which failed. `SetPersistent` and
/// `GetRefCounter` leave the record alone. Creating, destroying and making persistent end the process
/// (`pabend`) when a system call fails. Threads: any may use the object, but its record tells of its last
/// call only.
#ifndef KOVA_SHARED_RWLOCK_H
#define KOVA_SHARED_RWLOCK_H

#include <kova/base_object.h>
#include <kova/export.h>
#include <kova/shared_semaphore.h>

#include <atomic>

class KOVA_API KovaSharedReadWriteLock : public virtual KovaBaseObject {
  public:
    KovaSharedReadWriteLock(const char* name);
    KovaSharedReadWriteLock(const KovaSharedReadWriteLock&) = delete;
    KovaSharedReadWriteLock& operator=(const KovaSharedReadWriteLock&) = delete;
    ~KovaSharedReadWriteLock() override;

    /// Waits for the gate and counts the caller in.
    bool BeginRead();
    bool EndRead();
    /// Waits for the gate, and until the readers inside have left.
    bool BeginWrite();
    /// As BeginWrite, but false with EAGAIN if the gate is taken. Waits for the readers all the same.
    bool TryWrite();
    bool EndWrite();
    bool SetPersistent();
    /// How often the lock is open in all processes, or -1.
    int GetRefCounter();
    /// Switches the trace records, which are on at first.
    void SetTrace(bool on) { m_Trace.store(on, std::memory_order_relaxed); }

    /// No reader inside, the gate open.
    static const int m_InitVals[2];

  private:
    bool Traces() const { return m_Trace.load(std::memory_order_relaxed); }

    KovaSharedSemaphore m_Semaphore;
    std::atomic<bool> m_Trace;
};

#endif
