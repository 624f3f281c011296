/// Threads that run detached and delete themselves, and the context through which an owner follows one.
///
///     class Worker : public KovaThread {
///       public:
///         using KovaThread::KovaThread;
///         int Run() override { ...; return 0; }
///     };
///
///     KovaThreadContext context(0);
///     (new Worker(&context, 0))->StartThread();
///     context.WaitForSyncPoint(KovaThreadContext::SYNC_FINISHED, 0);
///     const int result = context.GetRetCode();
///
/// A started thread owns its object and deletes it when `Run` has returned: the owner must have allocated it
/// with `new`, and keeps the context only, which must outlive the thread.
#ifndef KOVA_THREAD_H
#define KOVA_THREAD_H

#include <kova/base_object.h>
#include <kova/export.h>
#include <kova/local_semaphore.h>

#include <pthread.h>

#include <atomic>
#include <cstdint>

class KovaThreadContext;

/// Base of worker threads. A thread that cannot be started ends the process (`pabend`).
class KOVA_API KovaThread : public virtual KovaBaseObject {
  public:
    /// From `THREAD_STARTING` on the thread is alive.
    enum KovaThreadStateT : int32_t {
        THREAD_IDLE = 0,
        THREAD_FINISHED = 1,
        THREAD_START_FAILED = 2,
        THREAD_STARTING = 3,
        THREAD_RUNNING = 4
    };
    enum PriorityClassT : int32_t {
        PRIO_REGULAR = 0,       ///< SCHED_OTHER, no priority
        PRIO_TIME_CRITICAL = 1  ///< SCHED_FIFO, as root; regular otherwise
    };
    enum StackTypeT : int32_t {
        STACK_SYSTEM = 0,  ///< the system's default size
        STACK_SIZED = 1    ///< the size of `SetStackSize`
    };

    /// Regular, priority 50, stack of 262144 bytes. The number is not used.
    KovaThread(int);
    /// As above, with a context, which stays the caller's.
    KovaThread(KovaThreadContext* context, int);
    KovaThread(const KovaThread&) = delete;
    KovaThread& operator=(const KovaThread&) = delete;
    ~KovaThread() override;

    /// The work, on the new thread. The result goes to the context.
    virtual int Run() = 0;

    // These count at the start.
    void SetPrioClass(PriorityClassT prio_class) { m_PrioClass = prio_class; }
    /// 1 to 100; becomes 1 to 99 of SCHED_FIFO.
    void SetPriority(int priority) { m_Priority = priority; }
    /// Bytes. A size below the system's minimum leaves its default; one that cannot be had, such as a
    /// negative one, fails the start.
    void SetStackSize(int bytes) { m_StackSize = bytes; }
    void SetStacktype(StackTypeT type) { m_StackType = type; }

    /// Starts the thread, once: true at once when it was started before. From a success on the object is the
    /// thread's, and may be gone already. A failure deletes it and ends the process.
    bool StartThread();
    /// Sets the state here and in the context.
    void SetStatus(KovaThreadStateT state);

    KovaThreadStateT GetStatus() const { return m_Status; }
    /// Kernel thread id, 0 before the thread runs.
    int GetTid() const { return m_Tid; }
    pthread_t GetPthreadId() const { return m_PthreadId; }
    KovaThreadContext* GetThreadContext() const { return m_Context; }

    /// Entry of the new thread; `argument` is a KovaThread.
    static void* KovaThreadWrapper(void* argument);

  private:
    void Prepare(pthread_attr_t* attributes);
    void EnterThread();
    void AssertScheduling();
    void Finish(int result);

    KovaThreadContext* m_Context;
    std::atomic<KovaThreadStateT> m_Status;
    int32_t m_StackSize;
    std::atomic<int32_t> m_Tid;
    std::atomic<pthread_t> m_PthreadId;
    int32_t m_Priority;
    PriorityClassT m_PrioClass;
    const char* const m_PrioClassName;
    StackTypeT m_StackType;
    int32_t m_EffectivePriority;
    int32_t m_Policy;
};

/// What an owner sees of its thread: state, ids, result, and how far it has come, as a growing sync point.
/// Owner and thread use it at the same time.
class KOVA_API KovaThreadContext : public virtual KovaBaseObject {
  public:
    /// The sync points of the library: `Run` is about to begin; it has returned, and the result is there.
    static constexpr unsigned int SYNC_RUNNING = 0x100;
    static constexpr unsigned int SYNC_FINISHED = 0xF00;

    /// Flags and main context are the service's own business.
    KovaThreadContext(unsigned long arg_flags);
    KovaThreadContext(void* main_context, unsigned long arg_flags);
    KovaThreadContext(const KovaThreadContext&) = delete;
    KovaThreadContext& operator=(const KovaThreadContext&) = delete;
    /// Waits while the thread is alive, but for about 30 seconds at most. Does not stop it.
    ~KovaThreadContext() override;

    /// Stores a sync point and wakes the owner if it waits.
    void SetSyncPoint(unsigned int point);
    unsigned int GetSyncPoint() const { return m_SyncPoint; }
    /// Waits until the sync point has reached `target` or the thread is not alive; true if it has reached it.
    /// A limit, in milliseconds, counts from the last sync point on; 0 is no limit.
    bool WaitForSyncPoint(unsigned int target, unsigned long timeout_ms);

    KovaThread::KovaThreadStateT GetThreadState() const { return m_ThreadState; }
    /// Kernel thread id, 0 before the thread runs.
    int GetTid() const { return m_Tid; }
    pthread_t GetPthreadId() const { return m_PthreadId; }

    /// What `Run` returned, or what was set.
    int GetRetCode() const { return m_RetCode; }
    void SetRetCode(int code) { m_RetCode = code; }

    /// Asks the thread to end, which looks at the flag when it likes. Never cleared.
    void SetShutdown() { m_Shutdown = true; }
    bool IsShutdown() const { return m_Shutdown; }

    void* GetMainContext() const { return m_MainContext; }
    unsigned long GetArgFlags() const { return m_ArgFlags; }
    void SetArgFlags(unsigned long flags) { m_ArgFlags = flags; }

    /// Stores the monotonic second of now, or of `seconds` from now; returns it.
    int SetTimeStamp();
    int SetTimeStamp(int seconds);
    int GetTimeStamp() const { return m_TimeStamp; }

  private:
    friend class KovaThread;

    bool IsAlive() const { return m_ThreadState > KovaThread::THREAD_START_FAILED; }

    std::atomic<KovaThread*> m_Thread;
    std::atomic<int32_t> m_Tid;
    std::atomic<pthread_t> m_PthreadId;
    std::atomic<KovaThread::KovaThreadStateT> m_ThreadState;
    std::atomic<int32_t> m_RetCode;
    KovaLocalSemaphore m_Semaphore;
    std::atomic<uint32_t> m_SyncPoint;
    std::atomic<unsigned long> m_ArgFlags;
    void* const m_MainContext;
    std::atomic<int32_t> m_TimeStamp;
    std::atomic<bool> m_Shutdown;
};

#endif
