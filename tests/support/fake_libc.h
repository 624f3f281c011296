/// Faked libc: the test executable defines `send`, `select`, `abort` ... itself, so that the calls of the
/// library (and of everything else in the process) come here first. Unarmed, a call goes straight to the real
/// function.
///
/// A scope arms one function:
///
///     fake::Script sends(fake::send, {fake::Fail(EINTR), fake::Return(3), fake::Real()});
///     fake::Always refuses(fake::setrlimit, fake::Fail(EPERM));
///     fake::Replace pause(fake::nanosleep, [&](const timespec* request, timespec*) { ...; return 0; });
///
/// A script is used up call by call; entries that are left at the end of its scope fail the test, calls
/// beyond its end are real. A later scope goes before an earlier one. Scopes apply to all threads, or to the
/// thread that makes them (`fake::kThisThread`), and to the calls that `When` selects. End every thread that
/// may be inside a scope's functions before the scope ends: its destructor waits for them.
///
/// A journal notes the calls of all functions in the order in which they began:
///
///     fake::Journal journal;
///     socket.Open();
///     EXPECT_EQ(journal.Texts(), (std::vector<std::string>{"socket AF_INET6 SOCK_DGRAM 0", "fcntl F_SETFD
///     1", ...}));
///
/// Inside a scope's function, and its condition, all calls of its thread are real and not noted, and
/// `fake::send.Real(...)` always is.
///
/// Mutexes, conditions and threads are used by everybody, by GoogleTest and the C++ library too. Arm these
/// for one thread, or with a `When` that knows the record.
#ifndef KOVA_TESTS_SUPPORT_FAKE_LIBC_H
#define KOVA_TESTS_SUPPORT_FAKE_LIBC_H

#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/msg.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/sem.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <time.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <functional>
#include <initializer_list>
#include <new>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#define FAKE_UNINSTRUMENTED [[gnu::no_sanitize("address", "thread", "undefined")]]

namespace fake {

enum Threads { kAllThreads, kThisThread };

/// --- What a call does instead ---

struct Fail {
    explicit Fail(int number) : error(number) {}
    int error;
};
template <typename Value>
struct Return {
    explicit Return(Value v) : value(v) {}
    Value value;
};
struct Real {};

template <typename Signature>
class Hook;

template <typename Signature>
class Action;

/// One entry of a script: Fail (-1 or null, with errno), Return, Real, or a function of the call's arguments.
template <typename Result, typename... Args>
class Action<Result(Args...)> {
  public:
    Action(Fail fail)
        : m_Function([error = fail.error](Args...) -> Result {
              errno = error;
              if constexpr (std::is_pointer_v<Result>) {
                  return nullptr;
              } else if constexpr (!std::is_void_v<Result>) {
                  return static_cast<Result>(-1);
              }
          }) {}
    template <typename Value>
    Action(Return<Value> wanted)
        : m_Function([value = wanted.value](Args...) { return static_cast<Result>(value); }) {}
    Action(Real) {}
    template <typename Function,
              typename = std::enable_if_t<std::is_invocable_r_v<Result, Function&, Args...>>>
    Action(Function function) : m_Function(std::move(function)) {}

    bool IsReal() const { return !m_Function; }
    Result Run(Args... args) const { return m_Function(args...); }

  private:
    std::function<Result(Args...)> m_Function;
};

/// --- The machinery between hooks and scopes ---

namespace detail {

/// Whether this thread is inside a scope's function, and marks it as such.
bool IsInside();
class Inside {
  public:
    Inside();
    ~Inside();
};

/// Guards the scopes of all hooks. Its owner's calls are real: they may be of faked locks.
void Lock();
void Unlock();
class Guard {
  public:
    Guard() { Lock(); }
    ~Guard() { Unlock(); }

  private:
    const Inside m_Inside;
};
void WaitForEndOfCall();  ///< under the lock
void SignalEndOfCall();   ///< under the lock

void* FindReal(const char* name);
pid_t ThisThread();

/// One armed scope.
template <typename Result, typename... Args>
class Armed;

template <typename Signature>
struct ArmedFor;
template <typename Result, typename... Args>
struct ArmedFor<Result(Args...)> {
    using Type = Armed<Result, Args...>;
};

}  // namespace detail

/// What the journal needs to know of a hook.
class AnyHook {
  public:
    const char* Name() const { return m_Name; }
    /// Whether the open journal notes this function.
    FAKE_UNINSTRUMENTED bool IsNoted() const { return __atomic_load_n(&m_IsNoted, __ATOMIC_RELAXED); }
    void SetNoted(bool noted) const { __atomic_store_n(&m_IsNoted, noted, __ATOMIC_RELAXED); }

  protected:
    constexpr explicit AnyHook(const char* name) : m_Name(name) {}

    const char* m_Name;

  private:
    mutable bool m_IsNoted = false;
};

/// Whether a function returns to its caller. One that does not may be left by siglongjmp.
enum Ending { kReturns, kNeverReturns };

/// One interposed function. Constant-initialised and not instrumented: calls come here before any
/// constructor, that of a sanitizer included, has run.
template <typename Result, typename... Args>
class Hook<Result(Args...)> : public AnyHook {
  public:
    using Armed = detail::Armed<Result, Args...>;

    using Function = Result (*)(Args...);

    constexpr explicit Hook(const char* name, Ending ending = kReturns)
        : AnyHook(name), m_Symbol(name), m_Ending(ending) {}
    /// A function with another name for the linker.
    constexpr Hook(const char* name, const char* symbol)
        : AnyHook(name), m_Symbol(symbol), m_Ending(kReturns) {}
    /// A function that is called by way of `real`.
    constexpr Hook(const char* name, Function real)
        : AnyHook(name), m_Symbol(name), m_Real(real), m_Ending(kReturns) {}

    /// Calls the real function.
    FAKE_UNINSTRUMENTED Result Real(Args... args) {
        Function real = __atomic_load_n(&m_Real, __ATOMIC_RELAXED);
        if (real == nullptr) {
            real = reinterpret_cast<Function>(detail::FindReal(m_Symbol));
            __atomic_store_n(&m_Real, real, __ATOMIC_RELAXED);
        }
        return real(args...);
    }

    FAKE_UNINSTRUMENTED bool IsArmed() const { return __atomic_load_n(&m_Top, __ATOMIC_RELAXED) != nullptr; }

    /// Lets the innermost scope that covers the call answer it.
    Result Answer(Args... args) {
        Armed* scope = nullptr;
        const Action<Result(Args...)>* action = nullptr;
        {
            const detail::Guard guard;
            for (scope = m_Top; scope != nullptr; scope = scope->m_Below) {
                action = scope->Choose(args...);
                if (action != nullptr) break;
            }
            if (action != nullptr && !action->IsReal() && m_Ending == kReturns) ++scope->m_Running;
        }
        if (action == nullptr || action->IsReal()) return Real(args...);
        if (m_Ending == kNeverReturns) return action->Run(args...);
        const Leave leave{*scope};
        const detail::Inside inside;
        return action->Run(args...);
    }

    void Arm(Armed& scope) {
        const detail::Guard guard;
        scope.m_Below = m_Top;
        __atomic_store_n(&m_Top, &scope, __ATOMIC_RELAXED);
    }

    void Disarm(Armed& scope) {
        const detail::Guard guard;
        if (m_Top == &scope) {
            __atomic_store_n(&m_Top, scope.m_Below, __ATOMIC_RELAXED);
        } else {
            Armed* above = m_Top;
            while (above->m_Below != &scope) above = above->m_Below;
            above->m_Below = scope.m_Below;
        }
        while (scope.m_Running != 0) detail::WaitForEndOfCall();
    }

  private:
    struct Leave {
        Armed& scope;
        ~Leave() {
            const detail::Guard guard;
            --scope.m_Running;
            detail::SignalEndOfCall();
        }
    };

    const char* const m_Symbol;
    Function m_Real = nullptr;
    Armed* m_Top = nullptr;
    const Ending m_Ending;
};

namespace detail {

template <typename Result, typename... Args>
class Armed {
  public:
    Armed(const Armed&) = delete;
    Armed& operator=(const Armed&) = delete;

    /// Only calls for whose arguments `condition` holds.
    void When(std::function<bool(Args...)> condition) {
        const Guard guard;
        m_Condition = std::move(condition);
    }
    /// How many calls this scope has answered, or counted.
    size_t Calls() const {
        const Guard guard;
        return m_Answered;
    }

  protected:
    friend class Hook<Result(Args...)>;

    Armed(Hook<Result(Args...)>& hook, Threads threads)
        : m_Hook(hook), m_Thread(threads == kThisThread ? ThisThread() : 0) {}
    virtual ~Armed() = default;

    /// The next action; null when there is none left.
    virtual const Action<Result(Args...)>* Next() = 0;

    Hook<Result(Args...)>& m_Hook;
    size_t m_Answered = 0;

  private:
    const Action<Result(Args...)>* Choose(Args... args) {
        if (m_Thread != 0 && m_Thread != ThisThread()) return nullptr;
        if (m_Condition && !m_Condition(args...)) return nullptr;
        const Action<Result(Args...)>* const action = Next();
        if (action != nullptr) ++m_Answered;
        return action;
    }

    const pid_t m_Thread;  ///< 0: all
    std::function<bool(Args...)> m_Condition;
    int m_Running = 0;  ///< calls that are inside its function
    Armed* m_Below = nullptr;
};

}  // namespace detail

/// --- The functions ---

extern Hook<int(int, int, int)> socket;
extern Hook<int(int, sockaddr*, socklen_t*)> accept;
extern Hook<int(int, const sockaddr*, socklen_t)> bind;
extern Hook<int(int, int)> listen;
extern Hook<int(int, const sockaddr*, socklen_t)> connect;
extern Hook<ssize_t(int, const void*, size_t, int)> send;
extern Hook<ssize_t(int, const void*, size_t, int, const sockaddr*, socklen_t)> sendto;
extern Hook<ssize_t(int, const msghdr*, int)> sendmsg;
extern Hook<ssize_t(int, void*, size_t, int)> recv;
extern Hook<ssize_t(int, void*, size_t, int, sockaddr*, socklen_t*)> recvfrom;
extern Hook<int(int, fd_set*, fd_set*, fd_set*, timeval*)> select;
extern Hook<int(int, unsigned long, void*)> ioctl;
extern Hook<int(int, int, long)> fcntl;
extern Hook<int(int, int, int, const void*, socklen_t)> setsockopt;
extern Hook<int(int, int, int, void*, socklen_t*)> getsockopt;
extern Hook<int(int, sockaddr*, socklen_t*)> getsockname;
extern Hook<int(int, sockaddr*, socklen_t*)> getpeername;
extern Hook<int(int, int)> shutdown;
extern Hook<int(int)> close;
extern Hook<FILE*(const char*, const char*)> fopen;
extern Hook<int(FILE*)> fclose;
/// The mode is 0 where the flags need none.
extern Hook<int(const char*, int, mode_t)> open;
extern Hook<int(const char*, int)> access;
extern Hook<int(const char*, mode_t)> mkdir;
extern Hook<mode_t(mode_t)> umask;
extern Hook<int(const char*)> unlink;
/// `stat`, by the name under which the library calls it; its record is that of 64-bit sizes and times.
extern Hook<int(const char*, void*)> file_status;
extern Hook<char*(char*, size_t)> getcwd;
extern Hook<key_t(const char*, int)> ftok;
extern Hook<int(key_t, int, int)> semget;
extern Hook<int(int, sembuf*, size_t)> semop;
extern Hook<int(int, sembuf*, size_t, const timespec*)> semtimedop;
/// The last argument is the value or the address, 0 where the command needs none.
extern Hook<int(int, int, int, long)> semctl;
extern Hook<int(key_t, int)> msgget;
extern Hook<int(int, const void*, size_t, int)> msgsnd;
extern Hook<ssize_t(int, void*, size_t, long, int)> msgrcv;
extern Hook<int(int, int, msqid_ds*)> msgctl;
extern Hook<int(int, const struct ::sigaction*, struct ::sigaction*)> sigaction;
extern Hook<int(int, const sigset_t*, sigset_t*)> sigprocmask;
extern Hook<time_t(time_t*)> time;
extern Hook<int(clockid_t, timespec*)> clock_gettime;
extern Hook<int(const timespec*, timespec*)> nanosleep;
extern Hook<int()> sched_yield;
extern Hook<int(int, const rlimit*)> setrlimit;
extern Hook<int(void**, int)> backtrace;
extern Hook<char**(void* const*, int)> backtrace_symbols;
/// A function that replaces it must not return: it may leave with siglongjmp.
extern Hook<void()> abort;
extern Hook<pid_t()> getpid;
extern Hook<uid_t()> geteuid;
extern Hook<long(long, long, long, long, long, long, long)> syscall;
extern Hook<long(int)> sysconf;
extern Hook<int(pthread_key_t*, void (*)(void*))> pthread_key_create;
extern Hook<int(pthread_mutexattr_t*)> pthread_mutexattr_init;
extern Hook<int(pthread_mutexattr_t*, int)> pthread_mutexattr_settype;
extern Hook<int(pthread_mutexattr_t*)> pthread_mutexattr_destroy;
extern Hook<int(pthread_mutex_t*, const pthread_mutexattr_t*)> pthread_mutex_init;
extern Hook<int(pthread_mutex_t*)> pthread_mutex_destroy;
extern Hook<int(pthread_mutex_t*)> pthread_mutex_lock;
extern Hook<int(pthread_mutex_t*)> pthread_mutex_trylock;
extern Hook<int(pthread_mutex_t*)> pthread_mutex_unlock;
extern Hook<int(pthread_condattr_t*)> pthread_condattr_init;
extern Hook<int(pthread_condattr_t*, clockid_t)> pthread_condattr_setclock;
extern Hook<int(pthread_condattr_t*)> pthread_condattr_destroy;
extern Hook<int(pthread_cond_t*, const pthread_condattr_t*)> pthread_cond_init;
extern Hook<int(pthread_cond_t*)> pthread_cond_destroy;
extern Hook<int(pthread_cond_t*)> pthread_cond_signal;
extern Hook<int(pthread_cond_t*, pthread_mutex_t*)> pthread_cond_wait;
extern Hook<int(pthread_cond_t*, pthread_mutex_t*, const timespec*)> pthread_cond_timedwait;
extern Hook<int(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*)> pthread_create;
extern Hook<int(pthread_attr_t*)> pthread_attr_init;
extern Hook<int(pthread_attr_t*)> pthread_attr_destroy;
extern Hook<int(pthread_attr_t*, size_t)> pthread_attr_setstacksize;
extern Hook<int(pthread_attr_t*, int)> pthread_attr_setdetachstate;
extern Hook<int(pthread_attr_t*, int)> pthread_attr_setschedpolicy;
extern Hook<int(const pthread_attr_t*, sched_param*)> pthread_attr_getschedparam;
extern Hook<int(pthread_attr_t*, const sched_param*)> pthread_attr_setschedparam;
extern Hook<int(pthread_t, int*, sched_param*)> pthread_getschedparam;
extern Hook<int(pthread_t, int, const sched_param*)> pthread_setschedparam;
extern Hook<void()> pthread_testcancel;
/// `new` of one object; must not give null.
extern Hook<void*(size_t)> new_throwing;
/// `new (std::nothrow)` of one object and of an array; Fail gives null.
extern Hook<void*(size_t, const std::nothrow_t&)> new_nothrow;
extern Hook<void*(size_t, const std::nothrow_t&)> new_array_nothrow;

/// --- The scopes ---

/// Answers the next calls by its entries, in order. Entries left at its end fail the test.
template <typename Signature>
class Script : public detail::ArmedFor<Signature>::Type {
  public:
    Script(Hook<Signature>& hook, std::initializer_list<std::type_identity_t<Action<Signature>>> actions,
           Threads threads = kAllThreads)
        : detail::ArmedFor<Signature>::Type(hook, threads), m_Actions(actions) {
        hook.Arm(*this);
    }
    ~Script() override {
        this->m_Hook.Disarm(*this);
        EXPECT_EQ(m_Next, m_Actions.size())
            << "calls that the script of " << this->m_Hook.Name() << " expects and that never came";
    }

  private:
    const Action<Signature>* Next() override {
        return m_Next < m_Actions.size() ? &m_Actions[m_Next++] : nullptr;
    }

    const std::vector<Action<Signature>> m_Actions;
    size_t m_Next = 0;
};

/// Answers every call in the same way. `Calls()` tells how many there were.
template <typename Signature>
class Always : public detail::ArmedFor<Signature>::Type {
  public:
    Always(Hook<Signature>& hook, std::type_identity_t<Action<Signature>> action,
           Threads threads = kAllThreads)
        : detail::ArmedFor<Signature>::Type(hook, threads), m_Action(std::move(action)) {
        hook.Arm(*this);
    }
    ~Always() override { this->m_Hook.Disarm(*this); }

  private:
    const Action<Signature>* Next() override { return &m_Action; }

    const Action<Signature> m_Action;
};

/// Puts a function in place of the real one.
template <typename Signature>
using Replace = Always<Signature>;

/// Counts calls and leaves them to the scopes around it, or to the real function.
template <typename Signature>
class Counter : public detail::ArmedFor<Signature>::Type {
  public:
    explicit Counter(Hook<Signature>& hook, Threads threads = kAllThreads)
        : detail::ArmedFor<Signature>::Type(hook, threads) {
        hook.Arm(*this);
    }
    ~Counter() override { this->m_Hook.Disarm(*this); }

  private:
    const Action<Signature>* Next() override {
        ++this->m_Answered;
        return nullptr;
    }
};

/// --- The journal ---

/// One call. `text` is "function arguments" without the descriptor, with constants by their names:
/// "setsockopt SOL_SOCKET SO_RCVTIMEO {2, 500000}", "bind [::]:20003", "send 24 MSG_NOSIGNAL", "close",
/// "sendmsg 52 MSG_NOSIGNAL 10.0.0.1:0 interface 3", "ioctl SIOCGIFHWADDR eth0",
/// "ioctl SIOCSIFADDR eth0 10.0.0.1:0", "ioctl SIOCSIFFLAGS eth0 IFF_UP|IFF_BROADCAST",
/// "open /tmp/a O_RDWR|O_CREAT 0666", "fcntl F_SETLKW F_WRLCK SEEK_SET {0, 0}", "semop 5 [0 0, 1 +1
/// SEM_UNDO]", "semctl 5 0 SETVAL 1", "msgsnd 5 [type 1] 24 IPC_NOWAIT", "sigaction SIGIO handler
/// SA_RESTART".
struct Entry {
    std::string function;
    std::string text;
    int fd;            ///< descriptor the call was for (the new one for `socket` and `open`); -1 if none
    std::string data;  ///< bytes sent, or of a message
    long result;       ///< meaningful once the call has returned
    int error;         ///< errno if the result is -1, otherwise 0
    pid_t tid;
};

void PrintTo(const Entry& entry, std::ostream* stream);

/// The calls made while it lives. One at a time.
class Journal {
  public:
    /// Notes sockets, descriptors, files, signals, what processes share, and sleeps: everything but clocks,
    /// ids, `sysconf`, `syscall`, memory, the back-trace, locks and threads.
    explicit Journal(Threads threads = kAllThreads);
    /// Notes these functions only.
    explicit Journal(std::initializer_list<const AnyHook*> hooks, Threads threads = kAllThreads);
    Journal(const Journal&) = delete;
    Journal& operator=(const Journal&) = delete;
    ~Journal();

    std::vector<Entry> Entries() const;
    /// Calls of one function.
    std::vector<Entry> Entries(const AnyHook& hook) const;
    /// The texts of all calls, of those for one descriptor, or of those of one function.
    std::vector<std::string> Texts() const;
    std::vector<std::string> Texts(int fd) const;
    std::vector<std::string> Texts(const AnyHook& hook) const;
    size_t Count(const AnyHook& hook) const { return Entries(hook).size(); }
    void Clear();
};

}  // namespace fake

#endif
