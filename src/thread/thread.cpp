#include "frame/abend.h"
#include "frame/trace.h"
#include "frame/wrap.h"

#include <kova/clock.h>
#include <kova/process.h>
#include <kova/thread.h>

#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <limits>

namespace {

constexpr int32_t kStackSize = 0x40000;
constexpr int32_t kPriority = 50;
constexpr char kClassNames[2][20] = {"Regular", "Time-Critical"};

constexpr int kRoundsOfDestructor = 10000;
constexpr int32_t kRoundMs = 3;

/// Repeats a pthread call that is interrupted. Each attempt is a cancellation point.
template <typename Call>
int Attempt(Call call) {
    for (;;) {
        const int result = call();
        ::pthread_testcancel();
        if (result != -1 || errno != EINTR) return result;
    }
}

struct Scheduling {
    int policy = 0;
    int priority = 0;

    static Scheduling OfThisThread() {
        Scheduling found;
        sched_param parameters{};
        ::pthread_getschedparam(::pthread_self(), &found.policy, &parameters);
        found.priority = parameters.sched_priority;
        return found;
    }
    bool operator==(const Scheduling&) const = default;
};

}  // namespace

// --- Thread ---

KovaThread::KovaThread(int)
    : m_Context(nullptr),
      m_Status(THREAD_IDLE),
      m_StackSize(kStackSize),
      m_Tid(0),
      m_PthreadId(0),
      m_Priority(kPriority),
      m_PrioClass(PRIO_REGULAR),
      m_PrioClassName(kClassNames[PRIO_REGULAR]),
      m_StackType(STACK_SIZED),
      m_EffectivePriority(0),
      m_Policy(SCHED_OTHER) {}

KovaThread::KovaThread(KovaThreadContext* context, int number) : KovaThread(number) {
    m_Context = context;
    m_PthreadId = static_cast<pthread_t>(-1);
    m_EffectivePriority = kPriority;
}

KovaThread::~KovaThread() = default;

void KovaThread::SetStatus(KovaThreadStateT state) {
    KOVA_TRACE("thread state=%d", state);
    m_Status = state;
    if (m_Context != nullptr) m_Context->m_ThreadState = state;
}

/// Chooses policy and priority, and puts them and the stack size into `attributes`.
void KovaThread::Prepare(pthread_attr_t* attributes) {
    Attempt([&] { return ::pthread_attr_init(attributes); });
    if (m_StackType == STACK_SIZED) {
        Attempt([&] { return ::pthread_attr_setstacksize(attributes, static_cast<size_t>(m_StackSize)); });
    }
    Attempt([&] { return ::pthread_attr_setdetachstate(attributes, PTHREAD_CREATE_DETACHED); });

    if (::geteuid() != 0 && m_PrioClass == PRIO_TIME_CRITICAL) {
        KOVA_TRACE("no real-time scheduling without root");
        m_PrioClass = PRIO_REGULAR;
    }
    if (m_PrioClass == PRIO_TIME_CRITICAL) {
        m_EffectivePriority = kova::WrapMultiply(m_Priority, 98) / 100 + 1;
        m_Policy = SCHED_FIFO;
    } else {
        m_EffectivePriority = 0;
        m_Policy = SCHED_OTHER;
    }
    // The new thread asserts both by itself: attributes that are refused do not matter.
    Attempt([&] { return ::pthread_attr_setschedpolicy(attributes, m_Policy); });
    sched_param parameters{};
    if (Attempt([&] { return ::pthread_attr_getschedparam(attributes, &parameters); }) == 0) {
        parameters.sched_priority = m_EffectivePriority;
        Attempt([&] { return ::pthread_attr_setschedparam(attributes, &parameters); });
    }
}

bool KovaThread::StartThread() {
    if (m_Status != THREAD_IDLE) return true;
    pthread_attr_t attributes;
    Prepare(&attributes);
    SetStatus(THREAD_STARTING);
    errno = 0;
    pthread_t id{};
    const int result = Attempt([&] { return ::pthread_create(&id, &attributes, KovaThreadWrapper, this); });
    if (result == 0) {
        // From here on the object may be gone.
        KOVA_TRACE("thread started");
        Attempt([&] { return ::pthread_attr_destroy(&attributes); });
        return true;
    }
    KOVA_TRACE("thread not started result=%d errno=%d", result, errno);
    Attempt([&] { return ::pthread_attr_destroy(&attributes); });
    SetStatus(THREAD_START_FAILED);
    if (m_Context != nullptr) m_Context->SetSyncPoint(KovaThreadContext::SYNC_FINISHED);
    delete this;
    kova::AbendOfThread();
    return false;
}

void KovaThread::EnterThread() {
    m_Tid = KovaGetTid();
    m_PthreadId = ::pthread_self();
    if (m_Context == nullptr) return;
    m_Context->m_Thread = this;
    m_Context->m_Tid = m_Tid.load();
    m_Context->m_PthreadId = m_PthreadId.load();
}

/// Threads inherit the scheduling of the one that makes them: sets what is wanted where it differs.
void KovaThread::AssertScheduling() {
    const Scheduling wanted{m_Policy, m_EffectivePriority};
    const Scheduling found = Scheduling::OfThisThread();
    if (found == wanted) return;
    KOVA_TRACE("scheduling differs policy=%d priority=%d", found.policy, found.priority);
    sched_param parameters{};
    parameters.sched_priority = wanted.priority;
    const int result =
        Attempt([&] { return ::pthread_setschedparam(::pthread_self(), wanted.policy, &parameters); });
    KOVA_TRACE("set scheduling thread=%lx policy=%d priority=%d result=%d errno=%d", m_PthreadId.load(),
               wanted.policy, wanted.priority, result, errno);
    if (result != 0) KOVA_TRACE("scheduling not set errno=%d", errno);
    const Scheduling now = Scheduling::OfThisThread();
    if (now != wanted) KOVA_TRACE("scheduling still differs policy=%d priority=%d", now.policy, now.priority);
}

/// The result is there before the last sync point; after `THREAD_FINISHED` the context may be gone.
void KovaThread::Finish(int result) {
    if (m_Context != nullptr) {
        m_Context->SetRetCode(result);
        m_Context->SetSyncPoint(KovaThreadContext::SYNC_FINISHED);
    }
    if (m_Status > THREAD_START_FAILED) SetStatus(THREAD_FINISHED);
}

void* KovaThread::KovaThreadWrapper(void* argument) {
    auto* const thread = static_cast<KovaThread*>(argument);
    thread->EnterThread();
    thread->AssertScheduling();
    thread->SetStatus(THREAD_RUNNING);
    if (thread->m_Context != nullptr) thread->m_Context->SetSyncPoint(KovaThreadContext::SYNC_RUNNING);
    const int result = thread->Run();
    KOVA_TRACE("thread ended");
    thread->Finish(result);
    // Deliberate: a thread that has been started owns its object.
    delete thread;
    ::pthread_exit(nullptr);
}

// --- Context ---

KovaThreadContext::KovaThreadContext(unsigned long arg_flags) : KovaThreadContext(nullptr, arg_flags) {}

KovaThreadContext::KovaThreadContext(void* main_context, unsigned long arg_flags)
    : m_Thread(nullptr),
      m_Tid(0),
      m_PthreadId(0),
      m_ThreadState(KovaThread::THREAD_IDLE),
      m_RetCode(0),
      m_SyncPoint(0),
      m_ArgFlags(arg_flags),
      m_MainContext(main_context),
      m_TimeStamp(0),
      m_Shutdown(false) {
    m_Semaphore.SetTrace(false);
}

KovaThreadContext::~KovaThreadContext() {
    for (int round = 0; round < kRoundsOfDestructor && IsAlive(); ++round) {
        KOVA_TRACE("waiting for the end of thread=%d", m_Tid.load());
        KovaMilliSleep(kRoundMs);
    }
}

void KovaThreadContext::SetSyncPoint(unsigned int point) {
    // Once the owner has been woken, it may end this object as soon as the thread is not alive.
    const void* const handle = m_Semaphore.GetHandle();
    m_SyncPoint = point;
    m_Semaphore.Post();
    KOVA_TRACE("sync point set semaphore=%p point=%x", handle, point);
}

bool KovaThreadContext::WaitForSyncPoint(unsigned int target, unsigned long timeout_ms) {
    constexpr unsigned long kLongest = std::numeric_limits<int>::max();
    const int limit = static_cast<int>(std::min(timeout_ms, kLongest));
    const void* const handle = m_Semaphore.GetHandle();
    while (IsAlive() && m_SyncPoint < target) {
        if (limit == 0) {
            if (m_Semaphore.Wait()) continue;
            KOVA_TRACE("no sync point semaphore=%p errno=%d target=%x point=%x state=%d", handle, errno,
                       target, m_SyncPoint.load(), m_ThreadState.load());
            break;
        }
        if (!m_Semaphore.TimeWait(limit)) {
            KOVA_TRACE("no sync point in time semaphore=%p target=%x point=%x state=%d", handle, target,
                       m_SyncPoint.load(), m_ThreadState.load());
            break;
        }
        KOVA_TRACE("sync point semaphore=%p target=%x point=%x state=%d", handle, target, m_SyncPoint.load(),
                   m_ThreadState.load());
    }
    KOVA_TRACE("waited for sync point semaphore=%p target=%x point=%x state=%d", handle, target,
               m_SyncPoint.load(), m_ThreadState.load());
    return m_SyncPoint >= target;
}

int KovaThreadContext::SetTimeStamp() { return SetTimeStamp(0); }

int KovaThreadContext::SetTimeStamp(int seconds) {
    const int32_t stamp = kova::WrapAdd(KovaGetRelativeTime(), seconds);
    m_TimeStamp = stamp;
    return stamp;
}
