#include "support/fake_libc.h"

#include <arpa/inet.h>
#include <dlfcn.h>
#include <execinfo.h>
#include <fcntl.h>
#include <net/if.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sched.h>
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#include <sanitizer/common_interface_defs.h>
#endif
#include <sys/ioctl.h>
#include <sys/ipc.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <ostream>
#include <sstream>

// The status call of sources that want 64-bit sizes and times.
#if __SIZEOF_LONG__ == 4
#define FAKE_STATUS_SYMBOL "__stat64_time64"
#else
#define FAKE_STATUS_SYMBOL "stat"
#endif

namespace fake {

namespace {

/// What semctl takes by value: with some calling conventions another thing than the word in it.
union SemaphoreArgument {
    int value;
    void* address;
};

FAKE_UNINSTRUMENTED int CallSemctl(int set, int position, int command, long argument);

}  // namespace

constinit Hook<int(int, int, int)> socket{"socket"};
constinit Hook<int(int, sockaddr*, socklen_t*)> accept{"accept"};
constinit Hook<int(int, const sockaddr*, socklen_t)> bind{"bind"};
constinit Hook<int(int, int)> listen{"listen"};
constinit Hook<int(int, const sockaddr*, socklen_t)> connect{"connect"};
constinit Hook<ssize_t(int, const void*, size_t, int)> send{"send"};
constinit Hook<ssize_t(int, const void*, size_t, int, const sockaddr*, socklen_t)> sendto{"sendto"};
constinit Hook<ssize_t(int, const msghdr*, int)> sendmsg{"sendmsg"};
constinit Hook<ssize_t(int, void*, size_t, int)> recv{"recv"};
constinit Hook<ssize_t(int, void*, size_t, int, sockaddr*, socklen_t*)> recvfrom{"recvfrom"};
constinit Hook<int(int, fd_set*, fd_set*, fd_set*, timeval*)> select{"select"};
constinit Hook<int(int, unsigned long, void*)> ioctl{"ioctl"};
constinit Hook<int(int, int, long)> fcntl{"fcntl"};
constinit Hook<int(int, int, int, const void*, socklen_t)> setsockopt{"setsockopt"};
constinit Hook<int(int, int, int, void*, socklen_t*)> getsockopt{"getsockopt"};
constinit Hook<int(int, sockaddr*, socklen_t*)> getsockname{"getsockname"};
constinit Hook<int(int, sockaddr*, socklen_t*)> getpeername{"getpeername"};
constinit Hook<int(int, int)> shutdown{"shutdown"};
constinit Hook<int(int)> close{"close"};
constinit Hook<FILE*(const char*, const char*)> fopen{"fopen"};
constinit Hook<int(FILE*)> fclose{"fclose"};
constinit Hook<int(const char*, int, mode_t)> open{"open"};
constinit Hook<int(const char*, int)> access{"access"};
constinit Hook<int(const char*, mode_t)> mkdir{"mkdir"};
constinit Hook<mode_t(mode_t)> umask{"umask"};
constinit Hook<int(const char*)> unlink{"unlink"};
constinit Hook<int(const char*, void*)> file_status{"stat", FAKE_STATUS_SYMBOL};
constinit Hook<char*(char*, size_t)> getcwd{"getcwd"};
constinit Hook<key_t(const char*, int)> ftok{"ftok"};
constinit Hook<int(key_t, int, int)> semget{"semget"};
constinit Hook<int(int, sembuf*, size_t)> semop{"semop"};
constinit Hook<int(int, sembuf*, size_t, const timespec*)> semtimedop{"semtimedop"};
constinit Hook<int(int, int, int, long)> semctl{"semctl", CallSemctl};
constinit Hook<int(key_t, int)> msgget{"msgget"};
constinit Hook<int(int, const void*, size_t, int)> msgsnd{"msgsnd"};
constinit Hook<ssize_t(int, void*, size_t, long, int)> msgrcv{"msgrcv"};
constinit Hook<int(int, int, msqid_ds*)> msgctl{"msgctl"};
constinit Hook<int(int, const struct ::sigaction*, struct ::sigaction*)> sigaction{"sigaction"};
constinit Hook<int(int, const sigset_t*, sigset_t*)> sigprocmask{"sigprocmask"};
constinit Hook<time_t(time_t*)> time{"time"};
constinit Hook<int(clockid_t, timespec*)> clock_gettime{"clock_gettime"};
constinit Hook<int(const timespec*, timespec*)> nanosleep{"nanosleep"};
constinit Hook<int()> sched_yield{"sched_yield"};
constinit Hook<int(int, const rlimit*)> setrlimit{"setrlimit"};
constinit Hook<int(void**, int)> backtrace{"backtrace"};
constinit Hook<char**(void* const*, int)> backtrace_symbols{"backtrace_symbols"};
constinit Hook<void()> abort{"abort", kNeverReturns};
constinit Hook<pid_t()> getpid{"getpid"};
constinit Hook<uid_t()> geteuid{"geteuid"};
constinit Hook<long(long, long, long, long, long, long, long)> syscall{"syscall"};
constinit Hook<long(int)> sysconf{"sysconf"};
constinit Hook<int(pthread_key_t*, void (*)(void*))> pthread_key_create{"pthread_key_create"};
constinit Hook<int(pthread_mutexattr_t*)> pthread_mutexattr_init{"pthread_mutexattr_init"};
constinit Hook<int(pthread_mutexattr_t*, int)> pthread_mutexattr_settype{"pthread_mutexattr_settype"};
constinit Hook<int(pthread_mutexattr_t*)> pthread_mutexattr_destroy{"pthread_mutexattr_destroy"};
constinit Hook<int(pthread_mutex_t*, const pthread_mutexattr_t*)> pthread_mutex_init{"pthread_mutex_init"};
constinit Hook<int(pthread_mutex_t*)> pthread_mutex_destroy{"pthread_mutex_destroy"};
constinit Hook<int(pthread_mutex_t*)> pthread_mutex_lock{"pthread_mutex_lock"};
constinit Hook<int(pthread_mutex_t*)> pthread_mutex_trylock{"pthread_mutex_trylock"};
constinit Hook<int(pthread_mutex_t*)> pthread_mutex_unlock{"pthread_mutex_unlock"};
constinit Hook<int(pthread_condattr_t*)> pthread_condattr_init{"pthread_condattr_init"};
constinit Hook<int(pthread_condattr_t*, clockid_t)> pthread_condattr_setclock{"pthread_condattr_setclock"};
constinit Hook<int(pthread_condattr_t*)> pthread_condattr_destroy{"pthread_condattr_destroy"};
constinit Hook<int(pthread_cond_t*, const pthread_condattr_t*)> pthread_cond_init{"pthread_cond_init"};
constinit Hook<int(pthread_cond_t*)> pthread_cond_destroy{"pthread_cond_destroy"};
constinit Hook<int(pthread_cond_t*)> pthread_cond_signal{"pthread_cond_signal"};
constinit Hook<int(pthread_cond_t*, pthread_mutex_t*)> pthread_cond_wait{"pthread_cond_wait"};
constinit Hook<int(pthread_cond_t*, pthread_mutex_t*, const timespec*)> pthread_cond_timedwait{
    "pthread_cond_timedwait"};
constinit Hook<int(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*)> pthread_create{
    "pthread_create"};
constinit Hook<int(pthread_attr_t*)> pthread_attr_init{"pthread_attr_init"};
constinit Hook<int(pthread_attr_t*)> pthread_attr_destroy{"pthread_attr_destroy"};
constinit Hook<int(pthread_attr_t*, size_t)> pthread_attr_setstacksize{"pthread_attr_setstacksize"};
constinit Hook<int(pthread_attr_t*, int)> pthread_attr_setdetachstate{"pthread_attr_setdetachstate"};
constinit Hook<int(pthread_attr_t*, int)> pthread_attr_setschedpolicy{"pthread_attr_setschedpolicy"};
constinit Hook<int(const pthread_attr_t*, sched_param*)> pthread_attr_getschedparam{
    "pthread_attr_getschedparam"};
constinit Hook<int(pthread_attr_t*, const sched_param*)> pthread_attr_setschedparam{
    "pthread_attr_setschedparam"};
constinit Hook<int(pthread_t, int*, sched_param*)> pthread_getschedparam{"pthread_getschedparam"};
constinit Hook<int(pthread_t, int, const sched_param*)> pthread_setschedparam{"pthread_setschedparam"};
constinit Hook<void()> pthread_testcancel{"pthread_testcancel"};
constinit Hook<void*(size_t)> new_throwing{sizeof(size_t) == 4 ? "_Znwj" : "_Znwm"};
constinit Hook<void*(size_t, const std::nothrow_t&)> new_nothrow{sizeof(size_t) == 4 ? "_ZnwjRKSt9nothrow_t"
                                                                                     : "_ZnwmRKSt9nothrow_t"};
constinit Hook<void*(size_t, const std::nothrow_t&)> new_array_nothrow{
    sizeof(size_t) == 4 ? "_ZnajRKSt9nothrow_t" : "_ZnamRKSt9nothrow_t"};

namespace {

// Never destroyed: threads may still be on their way while the process ends. Used by their real functions
// only, because those of the C++ library come here.
pthread_mutex_t g_Mutex = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t g_CallEnded = PTHREAD_COND_INITIALIZER;
thread_local int t_Inside = 0;

/// Not for CallSemctl's callers: semctl itself, with its argument by value.
constinit Hook<int(int, int, int, SemaphoreArgument)> g_Semctl{"semctl"};

int CallSemctl(int set, int position, int command, long argument) {
    SemaphoreArgument by_value;
    if (command == SETVAL) {
        by_value.value = static_cast<int>(argument);
    } else {
        by_value.address = reinterpret_cast<void*>(argument);
    }
    return g_Semctl.Real(set, position, command, by_value);
}

}  // namespace

namespace detail {

// Calls under the lock are real: the runtime of a sanitizer may make some at any moment.
void Lock() {
    ++t_Inside;
    pthread_mutex_lock.Real(&g_Mutex);
}
void Unlock() {
    pthread_mutex_unlock.Real(&g_Mutex);
    --t_Inside;
}
void WaitForEndOfCall() { pthread_cond_wait.Real(&g_CallEnded, &g_Mutex); }
void SignalEndOfCall() { ::pthread_cond_broadcast(&g_CallEnded); }

bool IsInside() { return t_Inside != 0; }
Inside::Inside() { ++t_Inside; }
Inside::~Inside() { --t_Inside; }

/// The version that a program would be linked with: since glibc 2.36 also for the conditions, which have two.
FAKE_UNINSTRUMENTED void* FindReal(const char* name) { return ::dlsym(RTLD_NEXT, name); }

pid_t ThisThread() { return ::gettid(); }

}  // namespace detail

// --- Texts of calls ---

namespace {

struct Name {
    int value;
    const char* text;
};

template <size_t N>
std::string NameOf(int value, const Name (&names)[N]) {
    for (const Name& name : names) {
        if (name.value == value) return name.text;
    }
    return std::to_string(value);
}

template <size_t N>
std::string Flags(int value, const Name (&names)[N]) {
    std::string text;
    for (const Name& name : names) {
        if (name.value == 0 || (value & name.value) != name.value) continue;
        text += (text.empty() ? "" : "|") + std::string(name.text);
        value &= ~name.value;
    }
    if (value != 0 || text.empty()) text += (text.empty() ? "" : "|") + std::to_string(value);
    return text;
}

constexpr Name kFamilies[] = {{AF_INET6, "AF_INET6"}, {AF_INET, "AF_INET"}, {AF_PACKET, "AF_PACKET"}};
constexpr Name kTypes[] = {{SOCK_STREAM, "SOCK_STREAM"}, {SOCK_DGRAM, "SOCK_DGRAM"}, {SOCK_RAW, "SOCK_RAW"}};
constexpr Name kSocketOptions[] = {
    {SO_REUSEADDR, "SO_REUSEADDR"}, {SO_ERROR, "SO_ERROR"},         {SO_DONTROUTE, "SO_DONTROUTE"},
    {SO_BROADCAST, "SO_BROADCAST"}, {SO_SNDBUF, "SO_SNDBUF"},       {SO_RCVBUF, "SO_RCVBUF"},
    {SO_KEEPALIVE, "SO_KEEPALIVE"}, {SO_OOBINLINE, "SO_OOBINLINE"}, {SO_LINGER, "SO_LINGER"},
    {SO_RCVTIMEO, "SO_RCVTIMEO"},   {SO_SNDTIMEO, "SO_SNDTIMEO"},   {SO_BINDTODEVICE, "SO_BINDTODEVICE"},
};
constexpr Name kTcpOptions[] = {{TCP_NODELAY, "TCP_NODELAY"}, {TCP_INFO, "TCP_INFO"}};
// Of <linux/icmp.h>, which does not go together with <net/if.h>.
constexpr Name kRawOptions[] = {{1, "ICMP_FILTER"}};
constexpr Name kInterfaceRequests[] = {
    {SIOCGIFCONF, "SIOCGIFCONF"},       {SIOCGIFFLAGS, "SIOCGIFFLAGS"},
    {SIOCSIFFLAGS, "SIOCSIFFLAGS"},     {SIOCGIFADDR, "SIOCGIFADDR"},
    {SIOCSIFADDR, "SIOCSIFADDR"},       {SIOCGIFNETMASK, "SIOCGIFNETMASK"},
    {SIOCSIFNETMASK, "SIOCSIFNETMASK"}, {SIOCGIFBRDADDR, "SIOCGIFBRDADDR"},
    {SIOCSIFBRDADDR, "SIOCSIFBRDADDR"}, {SIOCGIFHWADDR, "SIOCGIFHWADDR"},
    {SIOCSIFHWADDR, "SIOCSIFHWADDR"},
};
constexpr Name kInterfaceFlags[] = {
    {IFF_UP, "IFF_UP"},           {IFF_BROADCAST, "IFF_BROADCAST"}, {IFF_LOOPBACK, "IFF_LOOPBACK"},
    {IFF_RUNNING, "IFF_RUNNING"}, {IFF_PROMISC, "IFF_PROMISC"},     {IFF_MULTICAST, "IFF_MULTICAST"}};
constexpr Name kMessageFlags[] = {{MSG_NOSIGNAL, "MSG_NOSIGNAL"}, {MSG_PEEK, "MSG_PEEK"},
                                  {MSG_OOB, "MSG_OOB"},           {MSG_DONTWAIT, "MSG_DONTWAIT"},
                                  {MSG_WAITALL, "MSG_WAITALL"},   {MSG_TRUNC, "MSG_TRUNC"}};
constexpr Name kHows[] = {{SHUT_RD, "SHUT_RD"}, {SHUT_WR, "SHUT_WR"}, {SHUT_RDWR, "SHUT_RDWR"}};
constexpr Name kCommands[] = {{F_GETFD, "F_GETFD"},
                              {F_SETFD, "F_SETFD"},
                              {F_GETFL, "F_GETFL"},
                              {F_SETFL, "F_SETFL"},
                              {F_GETLK, "F_GETLK"},
                              {F_SETLK, "F_SETLK"},
                              {F_SETLKW, "F_SETLKW"},
                              {F_NOTIFY, "F_NOTIFY"},
                              {F_SETSIG, "F_SETSIG"},
                              {F_DUPFD, "F_DUPFD"},
                              {F_DUPFD_CLOEXEC, "F_DUPFD_CLOEXEC"}};
constexpr Name kLocks[] = {{F_RDLCK, "F_RDLCK"}, {F_WRLCK, "F_WRLCK"}, {F_UNLCK, "F_UNLCK"}};
constexpr Name kWhences[] = {{SEEK_SET, "SEEK_SET"}, {SEEK_CUR, "SEEK_CUR"}, {SEEK_END, "SEEK_END"}};
constexpr Name kNotices[] = {{static_cast<int>(DN_MULTISHOT), "DN_MULTISHOT"},
                             {DN_ACCESS, "DN_ACCESS"},
                             {DN_MODIFY, "DN_MODIFY"},
                             {DN_CREATE, "DN_CREATE"},
                             {DN_DELETE, "DN_DELETE"},
                             {DN_RENAME, "DN_RENAME"},
                             {DN_ATTRIB, "DN_ATTRIB"}};
constexpr Name kAccesses[] = {{O_RDONLY, "O_RDONLY"}, {O_WRONLY, "O_WRONLY"}, {O_RDWR, "O_RDWR"}};
constexpr Name kOpenFlags[] = {{O_CREAT, "O_CREAT"},       {O_EXCL, "O_EXCL"},
                               {O_TRUNC, "O_TRUNC"},       {O_APPEND, "O_APPEND"},
                               {O_NONBLOCK, "O_NONBLOCK"}, {O_CLOEXEC, "O_CLOEXEC"},
                               {O_TMPFILE, "O_TMPFILE"},   {O_DIRECTORY, "O_DIRECTORY"},
                               {O_NOFOLLOW, "O_NOFOLLOW"}, {O_NOCTTY, "O_NOCTTY"}};
constexpr Name kAccessModes[] = {{R_OK, "R_OK"}, {W_OK, "W_OK"}, {X_OK, "X_OK"}};
constexpr Name kIpcFlags[] = {{IPC_CREAT, "IPC_CREAT"}, {IPC_EXCL, "IPC_EXCL"}};
constexpr Name kOperationFlags[] = {{IPC_NOWAIT, "IPC_NOWAIT"}, {SEM_UNDO, "SEM_UNDO"}};
constexpr Name kQueueFlags[] = {
    {IPC_NOWAIT, "IPC_NOWAIT"}, {MSG_NOERROR, "MSG_NOERROR"}, {MSG_EXCEPT, "MSG_EXCEPT"}};
constexpr Name kControls[] = {{IPC_RMID, "IPC_RMID"}, {IPC_STAT, "IPC_STAT"}, {IPC_SET, "IPC_SET"},
                              {GETVAL, "GETVAL"},     {SETVAL, "SETVAL"},     {GETALL, "GETALL"},
                              {SETALL, "SETALL"},     {GETPID, "GETPID"},     {GETNCNT, "GETNCNT"},
                              {GETZCNT, "GETZCNT"}};
constexpr Name kSignals[] = {{SIGHUP, "SIGHUP"},   {SIGINT, "SIGINT"},   {SIGQUIT, "SIGQUIT"},
                             {SIGILL, "SIGILL"},   {SIGTRAP, "SIGTRAP"}, {SIGABRT, "SIGABRT"},
                             {SIGBUS, "SIGBUS"},   {SIGFPE, "SIGFPE"},   {SIGKILL, "SIGKILL"},
                             {SIGUSR1, "SIGUSR1"}, {SIGSEGV, "SIGSEGV"}, {SIGUSR2, "SIGUSR2"},
                             {SIGPIPE, "SIGPIPE"}, {SIGALRM, "SIGALRM"}, {SIGTERM, "SIGTERM"},
                             {SIGCHLD, "SIGCHLD"}, {SIGCONT, "SIGCONT"}, {SIGSTOP, "SIGSTOP"},
                             {SIGURG, "SIGURG"},   {SIGPROF, "SIGPROF"}, {SIGIO, "SIGIO"}};
constexpr Name kSignalFlags[] = {{SA_SIGINFO, "SA_SIGINFO"},
                                 {SA_RESTART, "SA_RESTART"},
                                 {SA_NODEFER, "SA_NODEFER"},
                                 {SA_ONSTACK, "SA_ONSTACK"},
                                 {SA_NOCLDSTOP, "SA_NOCLDSTOP"},
                                 {SA_NOCLDWAIT, "SA_NOCLDWAIT"},
                                 {static_cast<int>(SA_RESETHAND), "SA_RESETHAND"}};
constexpr Name kMaskings[] = {
    {SIG_BLOCK, "SIG_BLOCK"}, {SIG_UNBLOCK, "SIG_UNBLOCK"}, {SIG_SETMASK, "SIG_SETMASK"}};
constexpr Name kResources[] = {
    {RLIMIT_CORE, "RLIMIT_CORE"}, {RLIMIT_STACK, "RLIMIT_STACK"}, {RLIMIT_DATA, "RLIMIT_DATA"}};
constexpr Name kClocks[] = {{CLOCK_REALTIME, "CLOCK_REALTIME"}, {CLOCK_MONOTONIC, "CLOCK_MONOTONIC"}};
constexpr Name kMutexTypes[] = {{PTHREAD_MUTEX_NORMAL, "PTHREAD_MUTEX_NORMAL"},
                                {PTHREAD_MUTEX_RECURSIVE, "PTHREAD_MUTEX_RECURSIVE"},
                                {PTHREAD_MUTEX_ERRORCHECK, "PTHREAD_MUTEX_ERRORCHECK"}};
constexpr Name kDetachStates[] = {{PTHREAD_CREATE_JOINABLE, "PTHREAD_CREATE_JOINABLE"},
                                  {PTHREAD_CREATE_DETACHED, "PTHREAD_CREATE_DETACHED"}};
constexpr Name kPolicies[] = {
    {SCHED_OTHER, "SCHED_OTHER"}, {SCHED_FIFO, "SCHED_FIFO"}, {SCHED_RR, "SCHED_RR"}};

template <typename... Parts>
std::string Words(const Parts&... parts) {
    std::ostringstream text;
    const char* separator = "";
    ((text << separator << parts, separator = " "), ...);
    return text.str();
}

template <typename A, typename B>
std::string Braces(A a, B b) {
    return "{" + std::to_string(a) + ", " + std::to_string(b) + "}";
}

template <typename Time>
std::string Duration(const Time* time) {
    if (time == nullptr) return "null";
    if constexpr (std::is_same_v<Time, timeval>) {
        return Braces(time->tv_sec, time->tv_usec);
    } else {
        return Braces(time->tv_sec, time->tv_nsec);
    }
}

std::string Hex(const void* bytes, size_t size) {
    std::string text = "0x";
    for (size_t i = 0; i < size; ++i) {
        constexpr char kDigits[] = "0123456789abcdef";
        const auto byte = static_cast<const unsigned char*>(bytes)[i];
        text += kDigits[byte >> 4];
        text += kDigits[byte & 15];
    }
    return text;
}

std::string Address(const sockaddr* address, socklen_t length) {
    if (address == nullptr) return "null";
    char text[INET6_ADDRSTRLEN] = "";
    if (length == sizeof(sockaddr_in6) && address->sa_family == AF_INET6) {
        sockaddr_in6 ip6;
        std::memcpy(&ip6, address, sizeof ip6);
        ::inet_ntop(AF_INET6, &ip6.sin6_addr, text, sizeof text);
        std::string full = "[" + std::string(text) + "]:" + std::to_string(ntohs(ip6.sin6_port));
        if (ip6.sin6_scope_id != 0) full += " scope " + std::to_string(static_cast<int>(ip6.sin6_scope_id));
        if (ip6.sin6_flowinfo != 0) full += " flow " + std::to_string(ip6.sin6_flowinfo);
        return full;
    }
    if (length == sizeof(sockaddr_in) && address->sa_family == AF_INET) {
        sockaddr_in ip4;
        std::memcpy(&ip4, address, sizeof ip4);
        ::inet_ntop(AF_INET, &ip4.sin_addr, text, sizeof text);
        return std::string(text) + ":" + std::to_string(ntohs(ip4.sin_port));
    }
    return Words("family", address->sa_family, Hex(address, length));
}

std::string Set(const fd_set* set, int n) {
    if (set == nullptr) return "null";
    std::string text;
    for (int fd = 0; fd < std::min(n, int{FD_SETSIZE}); ++fd) {
        if (FD_ISSET(fd, set)) text += (text.empty() ? "" : ",") + std::to_string(fd);
    }
    return "{" + text + "}";
}

std::string LevelAndOption(int level, int option) {
    if (level == SOL_SOCKET) return Words("SOL_SOCKET", NameOf(option, kSocketOptions));
    if (level == IPPROTO_TCP) return Words("IPPROTO_TCP", NameOf(option, kTcpOptions));
    if (level == SOL_RAW) return Words("SOL_RAW", NameOf(option, kRawOptions));
    return Words(level, option);
}

std::string OptionValue(int level, int option, const void* value, socklen_t size) {
    const bool of_socket = level == SOL_SOCKET;
    if (of_socket && (option == SO_RCVTIMEO || option == SO_SNDTIMEO) && size == sizeof(timeval)) {
        timeval time;
        std::memcpy(&time, value, sizeof time);
        return Duration(&time);
    }
    if (of_socket && option == SO_LINGER && size == sizeof(linger)) {
        linger wanted;
        std::memcpy(&wanted, value, sizeof wanted);
        return Braces(wanted.l_onoff, wanted.l_linger);
    }
    if (of_socket && option == SO_BINDTODEVICE) {
        const auto* const name = static_cast<const char*>(value);
        return Words("\"" + std::string(name, ::strnlen(name, size)) + "\"", size);
    }
    if (size == sizeof(int)) {
        int number;
        std::memcpy(&number, value, sizeof number);
        return std::to_string(number);
    }
    return Hex(value, size);
}

/// Of a request about interfaces: the room for a list, or the interface's name and what is set; where an
/// address is asked for or set, that address.
std::string InterfaceText(int request, const void* argument) {
    if (request == SIOCGIFCONF) {
        ifconf list;
        std::memcpy(&list, argument, sizeof list);
        return std::to_string(list.ifc_len);
    }
    ifreq asked;
    std::memcpy(&asked, argument, sizeof asked);
    const std::string name(asked.ifr_name, ::strnlen(asked.ifr_name, IFNAMSIZ));
    switch (request) {
        case SIOCGIFFLAGS:
        case SIOCGIFHWADDR:
            return name;
        case SIOCSIFFLAGS:
            return Words(name, Flags(static_cast<unsigned short>(asked.ifr_flags), kInterfaceFlags));
        case SIOCSIFHWADDR:
            return Words(name, asked.ifr_hwaddr.sa_family, Hex(asked.ifr_hwaddr.sa_data, 6));
        default:
            return Words(name, Address(&asked.ifr_addr, sizeof(sockaddr_in)));
    }
}

std::string IoctlText(unsigned long request, const void* argument) {
    if (request == FIONBIO && argument != nullptr) {
        int value;
        std::memcpy(&value, argument, sizeof value);
        return Words("FIONBIO", value);
    }
    for (const Name& name : kInterfaceRequests) {
        if (argument == nullptr || static_cast<int>(request) != name.value) continue;
        return Words(name.text, InterfaceText(name.value, argument));
    }
    return Hex(&request, sizeof request);
}

/// Where a message goes: its address, and the interface asked for beside it.
std::string Destination(const msghdr& message) {
    const std::string address = Address(static_cast<const sockaddr*>(message.msg_name), message.msg_namelen);
    const cmsghdr* const control = CMSG_FIRSTHDR(&message);
    if (control == nullptr || control->cmsg_level != IPPROTO_IP || control->cmsg_type != IP_PKTINFO)
        return address;
    in_pktinfo wanted;
    std::memcpy(&wanted, CMSG_DATA(control), sizeof wanted);
    return Words(address, "interface", wanted.ipi_ifindex);
}

std::string DataOf(const msghdr& message) {
    std::string data;
    for (size_t i = 0; i < message.msg_iovlen; ++i)
        data.append(static_cast<const char*>(message.msg_iov[i].iov_base), message.msg_iov[i].iov_len);
    return data;
}

std::string LimitText(const rlimit* limit) {
    const auto one = [](rlim_t value) {
        return value == RLIM_INFINITY ? std::string("infinity") : std::to_string(value);
    };
    return "{" + one(limit->rlim_cur) + ", " + one(limit->rlim_max) + "}";
}

std::string Octal(unsigned value) {
    std::ostringstream text;
    text << std::showbase << std::oct << value;
    return text.str();
}

std::string Path(const char* path) { return path != nullptr ? path : "null"; }

/// Named flags, and the rest as permissions: "IPC_CREAT|0666".
template <size_t N>
std::string FlagsAndMode(int value, const Name (&names)[N]) {
    int all = 0;
    for (const Name& name : names) all |= name.value;
    const int mode = value & ~all;
    if ((value & all) == 0) return Octal(static_cast<unsigned>(mode));
    return Flags(value & all, names) + (mode != 0 ? "|" + Octal(static_cast<unsigned>(mode)) : "");
}

FAKE_UNINSTRUMENTED bool NeedsMode(int flags) {
    return (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE;
}

std::string OpenText(const char* path, int flags, mode_t mode) {
    std::string text = Words(Path(path), NameOf(flags & O_ACCMODE, kAccesses));
    const int rest = flags & ~O_ACCMODE;
    if (rest != 0) text += "|" + Flags(rest, kOpenFlags);
    return NeedsMode(flags) ? Words(text, Octal(mode)) : text;
}

std::string SignalName(int signal) {
    if (signal == SIGRTMIN) return "SIGRTMIN";
    if (signal > SIGRTMIN && signal <= SIGRTMAX) return "SIGRTMIN+" + std::to_string(signal - SIGRTMIN);
    return NameOf(signal, kSignals);
}

std::string Signals(const sigset_t& signals) {
    std::string text;
    bool all = true;
    for (int signal = 1; signal <= SIGRTMAX; ++signal) {
        const bool is_never_blocked =
            signal == SIGKILL || signal == SIGSTOP || (signal > SIGSYS && signal < SIGRTMIN);
        if (::sigismember(&signals, signal) != 1) {
            all = all && is_never_blocked;
        } else {
            text += (text.empty() ? "" : " ") + SignalName(signal);
        }
    }
    return all ? "[all]" : "[" + text + "]";
}

std::string ActionText(int signal, const struct ::sigaction* action) {
    if (action == nullptr) return Words(SignalName(signal), "null");
    const char* const handler = action->sa_handler == SIG_DFL   ? "SIG_DFL"
                                : action->sa_handler == SIG_IGN ? "SIG_IGN"
                                                                : "handler";
    // What libc adds for itself is seen in actions that were read back.
    constexpr int kRestorer = 0x04000000;
    const int flags = action->sa_flags & ~kRestorer;
    const std::string text = Words(SignalName(signal), handler, Flags(flags, kSignalFlags));
    return ::sigisemptyset(&action->sa_mask) ? text : Words(text, Signals(action->sa_mask));
}

std::string LockText(const struct flock& lock) {
    return Words(NameOf(lock.l_type, kLocks), NameOf(lock.l_whence, kWhences),
                 Braces(lock.l_start, lock.l_len));
}

std::string FcntlText(int command, long argument) {
    const std::string name = NameOf(command, kCommands);
    const int number = static_cast<int>(argument);
    switch (command) {
        case F_SETFD:
        case F_SETFL:
        case F_DUPFD:
        case F_DUPFD_CLOEXEC:
            return Words(name, number);
        case F_SETSIG:
            return Words(name, number == 0 ? "0" : SignalName(number));
        case F_NOTIFY:
            return Words(name, Flags(number, kNotices));
        case F_GETLK:
        case F_SETLK:
        case F_SETLKW:
            return Words(name, LockText(*reinterpret_cast<const struct flock*>(argument)));
        default:
            // Commands without argument, or with a pointer, would print noise.
            return name;
    }
}

std::string KeyText(key_t key) {
    if (key == IPC_PRIVATE) return "IPC_PRIVATE";
    std::ostringstream text;
    text << "0x" << std::hex << static_cast<unsigned>(key);
    return text.str();
}

std::string Operations(const sembuf* operations, size_t count) {
    std::string text;
    for (size_t i = 0; operations != nullptr && i < count; ++i) {
        const auto& [position, step, flags] = operations[i];
        text += (i == 0 ? "" : ", ") + Words(position, (step > 0 ? "+" : "") + std::to_string(step));
        if (flags != 0) text += " " + Flags(flags, kOperationFlags);
    }
    return "[" + text + "]";
}

/// As libc decides it; what is not there must not be read.
FAKE_UNINSTRUMENTED bool TakesArgument(int command) {
    switch (command) {
        case SETVAL:
        case GETALL:
        case SETALL:
        case IPC_STAT:
        case IPC_SET:
        case IPC_INFO:
        case SEM_STAT:
        case SEM_INFO:
        case SEM_STAT_ANY:
            return true;
        default:
            return false;
    }
}

std::string QueueFlags(int flags) { return Flags(flags, kQueueFlags); }

// --- The journal ---

/// What the open journal has noted. Never destroyed.
struct Notes {
    bool open = false;
    unsigned generation = 0;  ///< so that a call that outlives its journal finds out
    pid_t thread = 0;
    std::vector<const AnyHook*> hooks;
    std::vector<Entry> entries;
};

Notes& TheNotes() {
    static auto* const notes = new Notes;
    return *notes;
}

const std::vector<const AnyHook*>& DefaultHooks() {
    static const std::vector<const AnyHook*> hooks{
        &socket,     &accept,     &bind,        &listen,      &connect,  &send,      &sendto,
        &sendmsg,    &recv,       &recvfrom,    &select,      &ioctl,    &fcntl,     &close,
        &setsockopt, &getsockopt, &getsockname, &getpeername, &shutdown, &nanosleep, &sched_yield,
        &setrlimit,  &abort,      &fopen,       &fclose,      &open,     &access,    &mkdir,
        &umask,      &unlink,     &file_status, &getcwd,      &ftok,     &semget,    &semop,
        &semtimedop, &semctl,     &msgget,      &msgsnd,      &msgrcv,   &msgctl,    &sigaction,
        &sigprocmask};
    return hooks;
}

template <typename Result>
long AsNumber(Result result) {
    if constexpr (std::is_pointer_v<Result>) {
        return reinterpret_cast<intptr_t>(result);
    } else {
        return static_cast<long>(result);
    }
}

/// The place of one call in the journal, if it is noted there.
class Note {
  public:
    template <typename Describe>
    Note(const AnyHook& hook, Describe describe) {
        if (!hook.IsNoted()) return;
        const int saved = errno;
        {
            const detail::Guard guard;
            Notes& notes = TheNotes();
            if (Wants(notes, hook)) {
                m_Generation = notes.generation;
                m_Index = notes.entries.size();
                m_Noted = true;
                notes.entries.push_back(describe());
                Entry& entry = notes.entries.back();
                entry.function = hook.Name();
                entry.text = entry.text.empty() ? hook.Name() : Words(hook.Name(), entry.text);
                entry.tid = detail::ThisThread();
            }
        }
        errno = saved;
    }

    template <typename Result>
    void SetResult(Result result) {
        if (!m_Noted) return;
        const int error = errno;
        {
            const detail::Guard guard;
            Notes& notes = TheNotes();
            if (notes.open && notes.generation == m_Generation) {
                Entry& entry = notes.entries[m_Index];
                entry.result = AsNumber(result);
                entry.error = entry.result == -1 ? error : 0;
                if (entry.function == "socket" || entry.function == "open") {
                    entry.fd = static_cast<int>(entry.result);
                }
            }
        }
        errno = error;
    }

  private:
    static bool Wants(const Notes& notes, const AnyHook& hook) {
        return notes.open && (notes.thread == 0 || notes.thread == detail::ThisThread()) &&
               std::find(notes.hooks.begin(), notes.hooks.end(), &hook) != notes.hooks.end();
    }

    bool m_Noted = false;
    unsigned m_Generation = 0;
    size_t m_Index = 0;
};

/// What every interposed function does.
template <typename Result, typename... Args, typename Describe>
FAKE_UNINSTRUMENTED Result Call(Hook<Result(Args...)>& hook, Describe describe,
                                std::type_identity_t<Args>... args) {
    if (!hook.IsArmed() && !hook.IsNoted()) return hook.Real(args...);
    if (detail::IsInside()) return hook.Real(args...);
    Note note(hook, describe);
    if constexpr (std::is_void_v<Result>) {
        hook.Answer(args...);
    } else {
        const Result result = hook.Answer(args...);
        note.SetResult(result);
        return result;
    }
}

/// Whether a call comes from the run-time library of a sanitizer, which makes some on threads that are not
/// yet fit for instrumented code.
FAKE_UNINSTRUMENTED bool IsSanitizers([[maybe_unused]] const void* caller) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    Dl_info library{};
    Dl_info its{};
    return ::dladdr(reinterpret_cast<const void*>(&__sanitizer_print_stack_trace), &library) != 0 &&
           ::dladdr(caller, &its) != 0 && its.dli_fbase == library.dli_fbase;
#else
    return false;
#endif
}

Entry Plain(std::string text = {}) { return {{}, std::move(text), -1, {}, 0, 0, 0}; }

Entry For(int fd, std::string text = {}) { return {{}, std::move(text), fd, {}, 0, 0, 0}; }

Entry Sending(int fd, const void* data, size_t size, std::string text) {
    return {{}, std::move(text), fd, std::string(static_cast<const char*>(data), size), 0, 0, 0};
}

Entry SendingMessage(int queue, const void* message, size_t size, int flags) {
    // The kernel refuses more by default: whether that much is there is not certain.
    constexpr size_t kMost = 8192;
    long type;
    std::memcpy(&type, message, sizeof type);
    Entry entry = Plain(Words(queue, "[type " + std::to_string(type) + "]", size, QueueFlags(flags)));
    if (size <= kMost) entry.data.assign(static_cast<const char*>(message) + sizeof type, size);
    return entry;
}

void Open(std::vector<const AnyHook*> hooks, Threads threads) {
    const detail::Guard guard;
    Notes& notes = TheNotes();
    if (notes.open) ADD_FAILURE() << "two journals at once";
    notes.open = true;
    ++notes.generation;
    notes.thread = threads == kThisThread ? detail::ThisThread() : 0;
    notes.hooks = std::move(hooks);
    notes.entries.clear();
    for (const AnyHook* const hook : notes.hooks) hook->SetNoted(true);
}

template <typename Wanted>
std::vector<std::string> TextsOf(const std::vector<Entry>& entries, Wanted wanted) {
    std::vector<std::string> texts;
    for (const Entry& entry : entries) {
        if (wanted(entry)) texts.push_back(entry.text);
    }
    return texts;
}

}  // namespace

Journal::Journal(Threads threads) { Open(DefaultHooks(), threads); }

Journal::Journal(std::initializer_list<const AnyHook*> hooks, Threads threads) { Open(hooks, threads); }

Journal::~Journal() {
    const detail::Guard guard;
    for (const AnyHook* const hook : TheNotes().hooks) hook->SetNoted(false);
    TheNotes().open = false;
    TheNotes().entries = {};
    TheNotes().hooks = {};
}

std::vector<Entry> Journal::Entries() const {
    const detail::Guard guard;
    return TheNotes().entries;
}

std::vector<Entry> Journal::Entries(const AnyHook& hook) const {
    std::vector<Entry> entries = Entries();
    std::erase_if(entries, [&](const Entry& entry) { return entry.function != hook.Name(); });
    return entries;
}

std::vector<std::string> Journal::Texts() const {
    return TextsOf(Entries(), [](const Entry&) { return true; });
}

std::vector<std::string> Journal::Texts(int fd) const {
    return TextsOf(Entries(), [fd](const Entry& entry) { return entry.fd == fd; });
}

std::vector<std::string> Journal::Texts(const AnyHook& hook) const {
    return TextsOf(Entries(hook), [](const Entry&) { return true; });
}

void Journal::Clear() {
    const detail::Guard guard;
    ++TheNotes().generation;
    TheNotes().entries.clear();
}

void PrintTo(const Entry& entry, std::ostream* stream) {
    *stream << entry.text << " [fd " << entry.fd << ", tid " << entry.tid << "] = " << entry.result;
    if (entry.error != 0) *stream << " " << std::strerror(entry.error);
}

}  // namespace fake

// --- The interposed functions ---

using namespace fake;

extern "C" {

FAKE_UNINSTRUMENTED int socket(int domain, int type, int protocol) noexcept {
    const auto text = [&] { return Plain(Words(NameOf(domain, kFamilies), NameOf(type, kTypes), protocol)); };
    return Call(fake::socket, text, domain, type, protocol);
}

FAKE_UNINSTRUMENTED int accept(int fd, sockaddr* address, socklen_t* length) {
    return Call(
        fake::accept, [&] { return For(fd); }, fd, address, length);
}

FAKE_UNINSTRUMENTED int bind(int fd, const sockaddr* address, socklen_t length) noexcept {
    return Call(
        fake::bind, [&] { return For(fd, Address(address, length)); }, fd, address, length);
}

FAKE_UNINSTRUMENTED int listen(int fd, int backlog) noexcept {
    return Call(
        fake::listen, [&] { return For(fd, Words(backlog)); }, fd, backlog);
}

FAKE_UNINSTRUMENTED int connect(int fd, const sockaddr* address, socklen_t length) {
    return Call(
        fake::connect, [&] { return For(fd, Address(address, length)); }, fd, address, length);
}

FAKE_UNINSTRUMENTED ssize_t send(int fd, const void* data, size_t size, int flags) {
    const auto text = [&] { return Sending(fd, data, size, Words(size, Flags(flags, kMessageFlags))); };
    return Call(fake::send, text, fd, data, size, flags);
}

FAKE_UNINSTRUMENTED ssize_t sendto(int fd, const void* data, size_t size, int flags, const sockaddr* address,
                                   socklen_t length) {
    const auto text = [&] {
        return Sending(fd, data, size, Words(size, Flags(flags, kMessageFlags), Address(address, length)));
    };
    return Call(fake::sendto, text, fd, data, size, flags, address, length);
}

FAKE_UNINSTRUMENTED ssize_t sendmsg(int fd, const msghdr* message, int flags) {
    const auto text = [&] {
        const std::string data = DataOf(*message);
        return Sending(fd, data.data(), data.size(),
                       Words(data.size(), Flags(flags, kMessageFlags), Destination(*message)));
    };
    return Call(fake::sendmsg, text, fd, message, flags);
}

FAKE_UNINSTRUMENTED ssize_t recv(int fd, void* data, size_t size, int flags) {
    const auto text = [&] { return For(fd, Words(size, Flags(flags, kMessageFlags))); };
    return Call(fake::recv, text, fd, data, size, flags);
}

FAKE_UNINSTRUMENTED ssize_t recvfrom(int fd, void* data, size_t size, int flags, sockaddr* address,
                                     socklen_t* length) {
    const auto text = [&] { return For(fd, Words(size, Flags(flags, kMessageFlags))); };
    return Call(fake::recvfrom, text, fd, data, size, flags, address, length);
}

FAKE_UNINSTRUMENTED int select(int n, fd_set* read, fd_set* write, fd_set* except, timeval* timeout) {
    const auto text = [&] {
        return Plain(Words(n, Set(read, n), Set(write, n), Set(except, n), Duration(timeout)));
    };
    return Call(fake::select, text, n, read, write, except, timeout);
}

FAKE_UNINSTRUMENTED int ioctl(int fd, unsigned long request, ...) noexcept {
    va_list arguments;
    va_start(arguments, request);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    return Call(
        fake::ioctl, [&] { return For(fd, IoctlText(request, argument)); }, fd, request, argument);
}

FAKE_UNINSTRUMENTED int fcntl(int fd, int command, ...) {
    va_list arguments;
    va_start(arguments, command);
    const long argument = va_arg(arguments, long);
    va_end(arguments);
    return Call(
        fake::fcntl, [&] { return For(fd, FcntlText(command, argument)); }, fd, command, argument);
}

FAKE_UNINSTRUMENTED int setsockopt(int fd, int level, int option, const void* value,
                                   socklen_t size) noexcept {
    const auto text = [&] {
        return For(fd, Words(LevelAndOption(level, option), OptionValue(level, option, value, size)));
    };
    return Call(fake::setsockopt, text, fd, level, option, value, size);
}

FAKE_UNINSTRUMENTED int getsockopt(int fd, int level, int option, void* value, socklen_t* size) noexcept {
    return Call(
        fake::getsockopt, [&] { return For(fd, LevelAndOption(level, option)); }, fd, level, option, value,
        size);
}

FAKE_UNINSTRUMENTED int getsockname(int fd, sockaddr* address, socklen_t* length) noexcept {
    return Call(
        fake::getsockname, [&] { return For(fd); }, fd, address, length);
}

FAKE_UNINSTRUMENTED int getpeername(int fd, sockaddr* address, socklen_t* length) noexcept {
    return Call(
        fake::getpeername, [&] { return For(fd); }, fd, address, length);
}

FAKE_UNINSTRUMENTED int shutdown(int fd, int how) noexcept {
    return Call(
        fake::shutdown, [&] { return For(fd, NameOf(how, kHows)); }, fd, how);
}

FAKE_UNINSTRUMENTED int close(int fd) {
    return Call(
        fake::close, [&] { return For(fd); }, fd);
}

FAKE_UNINSTRUMENTED FILE* fopen(const char* path, const char* mode) {
    return Call(
        fake::fopen, [&] { return Plain(Words(Path(path), mode)); }, path, mode);
}

FAKE_UNINSTRUMENTED int fclose(FILE* file) {
    return Call(
        fake::fclose, [&] { return For(::fileno(file)); }, file);
}

FAKE_UNINSTRUMENTED int open(const char* path, int flags, ...) {
    mode_t mode = 0;
    if (NeedsMode(flags)) {
        va_list arguments;
        va_start(arguments, flags);
        mode = va_arg(arguments, mode_t);
        va_end(arguments);
    }
    return Call(
        fake::open, [&] { return Plain(OpenText(path, flags, mode)); }, path, flags, mode);
}

FAKE_UNINSTRUMENTED int access(const char* path, int mode) noexcept {
    const auto text = [&] {
        return Plain(Words(Path(path), mode == F_OK ? "F_OK" : Flags(mode, kAccessModes)));
    };
    return Call(fake::access, text, path, mode);
}

FAKE_UNINSTRUMENTED int mkdir(const char* path, mode_t mode) noexcept {
    return Call(
        fake::mkdir, [&] { return Plain(Words(Path(path), Octal(mode))); }, path, mode);
}

FAKE_UNINSTRUMENTED mode_t umask(mode_t mask) noexcept {
    return Call(
        fake::umask, [&] { return Plain(Octal(mask)); }, mask);
}

FAKE_UNINSTRUMENTED int unlink(const char* path) noexcept {
    return Call(
        fake::unlink, [&] { return Plain(Path(path)); }, path);
}

FAKE_UNINSTRUMENTED int FileStatus(const char* path, void* status) noexcept __asm__(FAKE_STATUS_SYMBOL);
FAKE_UNINSTRUMENTED int FileStatus(const char* path, void* status) noexcept {
    return Call(
        fake::file_status, [&] { return Plain(Path(path)); }, path, status);
}

FAKE_UNINSTRUMENTED char* getcwd(char* path, size_t size) noexcept {
    return Call(
        fake::getcwd, [&] { return Plain(Words(size)); }, path, size);
}

FAKE_UNINSTRUMENTED key_t ftok(const char* path, int id) noexcept {
    return Call(
        fake::ftok, [&] { return Plain(Words(Path(path), id)); }, path, id);
}

FAKE_UNINSTRUMENTED int semget(key_t key, int count, int flags) noexcept {
    const auto text = [&] { return Plain(Words(KeyText(key), count, FlagsAndMode(flags, kIpcFlags))); };
    return Call(fake::semget, text, key, count, flags);
}

FAKE_UNINSTRUMENTED int semop(int set, sembuf* operations, size_t count) noexcept {
    const auto text = [&] { return Plain(Words(set, Operations(operations, count))); };
    return Call(fake::semop, text, set, operations, count);
}

FAKE_UNINSTRUMENTED int semtimedop(int set, sembuf* operations, size_t count,
                                   const timespec* timeout) noexcept {
    const auto text = [&] { return Plain(Words(set, Operations(operations, count), Duration(timeout))); };
    return Call(fake::semtimedop, text, set, operations, count, timeout);
}

FAKE_UNINSTRUMENTED int semctl(int set, int position, int command, ...) noexcept {
    long argument = 0;
    if (TakesArgument(command)) {
        va_list arguments;
        va_start(arguments, command);
        const SemaphoreArgument by_value = va_arg(arguments, SemaphoreArgument);
        va_end(arguments);
        argument = command == SETVAL ? by_value.value : reinterpret_cast<long>(by_value.address);
    }
    const auto text = [&] {
        const std::string words = Words(set, position, NameOf(command, kControls));
        // An address would print noise.
        return Plain(command == SETVAL ? Words(words, argument) : words);
    };
    return Call(fake::semctl, text, set, position, command, argument);
}

FAKE_UNINSTRUMENTED int msgget(key_t key, int flags) noexcept {
    const auto text = [&] { return Plain(Words(KeyText(key), FlagsAndMode(flags, kIpcFlags))); };
    return Call(fake::msgget, text, key, flags);
}

FAKE_UNINSTRUMENTED int msgsnd(int queue, const void* message, size_t size, int flags) {
    return Call(
        fake::msgsnd, [&] { return SendingMessage(queue, message, size, flags); }, queue, message, size,
        flags);
}

FAKE_UNINSTRUMENTED ssize_t msgrcv(int queue, void* message, size_t size, long type, int flags) {
    const auto text = [&] { return Plain(Words(queue, size, type, QueueFlags(flags))); };
    return Call(fake::msgrcv, text, queue, message, size, type, flags);
}

FAKE_UNINSTRUMENTED int msgctl(int queue, int command, msqid_ds* state) noexcept {
    const auto text = [&] { return Plain(Words(queue, NameOf(command, kControls))); };
    return Call(fake::msgctl, text, queue, command, state);
}

FAKE_UNINSTRUMENTED int sigaction(int signal, const struct ::sigaction* action,
                                  struct ::sigaction* old) noexcept {
    return Call(
        fake::sigaction, [&] { return Plain(ActionText(signal, action)); }, signal, action, old);
}

FAKE_UNINSTRUMENTED int sigprocmask(int how, const sigset_t* signals, sigset_t* old) noexcept {
    const auto text = [&] {
        return Plain(signals == nullptr ? "null" : Words(NameOf(how, kMaskings), Signals(*signals)));
    };
    return Call(fake::sigprocmask, text, how, signals, old);
}

FAKE_UNINSTRUMENTED time_t time(time_t* now) noexcept {
    return Call(
        fake::time, [] { return Plain(); }, now);
}

FAKE_UNINSTRUMENTED int clock_gettime(clockid_t clock, timespec* now) noexcept {
    return Call(
        fake::clock_gettime, [&] { return Plain(NameOf(clock, kClocks)); }, clock, now);
}

FAKE_UNINSTRUMENTED int nanosleep(const timespec* request, timespec* remaining) {
    return Call(
        fake::nanosleep, [&] { return Plain(Duration(request)); }, request, remaining);
}

FAKE_UNINSTRUMENTED int sched_yield() noexcept {
    return Call(fake::sched_yield, [] { return Plain(); });
}

FAKE_UNINSTRUMENTED int setrlimit(__rlimit_resource_t resource, const rlimit* limit) noexcept {
    const int number = static_cast<int>(resource);
    const auto text = [&] { return Plain(Words(NameOf(number, kResources), LimitText(limit))); };
    return Call(fake::setrlimit, text, number, limit);
}

FAKE_UNINSTRUMENTED int backtrace(void** frames, int size) {
    return Call(
        fake::backtrace, [&] { return Plain(Words(size)); }, frames, size);
}

FAKE_UNINSTRUMENTED char** backtrace_symbols(void* const* frames, int size) noexcept {
    return Call(
        fake::backtrace_symbols, [&] { return Plain(Words(size)); }, frames, size);
}

FAKE_UNINSTRUMENTED void abort() noexcept {
    Call(fake::abort, [] { return Plain(); });
    __builtin_trap();
}

FAKE_UNINSTRUMENTED pid_t getpid() noexcept {
    return Call(fake::getpid, [] { return Plain(); });
}

FAKE_UNINSTRUMENTED uid_t geteuid() noexcept {
    return Call(fake::geteuid, [] { return Plain(); });
}

FAKE_UNINSTRUMENTED long syscall(long number, ...) noexcept {
    va_list arguments;
    va_start(arguments, number);
    long a[6];
    for (long& argument : a) argument = va_arg(arguments, long);
    va_end(arguments);
    return Call(
        fake::syscall, [&] { return Plain(Words(number)); }, number, a[0], a[1], a[2], a[3], a[4], a[5]);
}

FAKE_UNINSTRUMENTED long sysconf(int name) noexcept {
    return Call(
        fake::sysconf, [&] { return Plain(Words(name)); }, name);
}

FAKE_UNINSTRUMENTED int pthread_key_create(pthread_key_t* key, void (*destructor)(void*)) noexcept {
    return Call(
        fake::pthread_key_create, [] { return Plain(); }, key, destructor);
}

FAKE_UNINSTRUMENTED int pthread_mutexattr_init(pthread_mutexattr_t* attributes) noexcept {
    return Call(
        fake::pthread_mutexattr_init, [] { return Plain(); }, attributes);
}

FAKE_UNINSTRUMENTED int pthread_mutexattr_settype(pthread_mutexattr_t* attributes, int type) noexcept {
    return Call(
        fake::pthread_mutexattr_settype, [&] { return Plain(NameOf(type, kMutexTypes)); }, attributes, type);
}

FAKE_UNINSTRUMENTED int pthread_mutexattr_destroy(pthread_mutexattr_t* attributes) noexcept {
    return Call(
        fake::pthread_mutexattr_destroy, [] { return Plain(); }, attributes);
}

FAKE_UNINSTRUMENTED int pthread_mutex_init(pthread_mutex_t* mutex,
                                           const pthread_mutexattr_t* attributes) noexcept {
    return Call(
        fake::pthread_mutex_init, [] { return Plain(); }, mutex, attributes);
}

FAKE_UNINSTRUMENTED int pthread_mutex_destroy(pthread_mutex_t* mutex) noexcept {
    return Call(
        fake::pthread_mutex_destroy, [] { return Plain(); }, mutex);
}

FAKE_UNINSTRUMENTED int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept {
    return Call(
        fake::pthread_mutex_lock, [] { return Plain(); }, mutex);
}

FAKE_UNINSTRUMENTED int pthread_mutex_trylock(pthread_mutex_t* mutex) noexcept {
    return Call(
        fake::pthread_mutex_trylock, [] { return Plain(); }, mutex);
}

FAKE_UNINSTRUMENTED int pthread_mutex_unlock(pthread_mutex_t* mutex) noexcept {
    return Call(
        fake::pthread_mutex_unlock, [] { return Plain(); }, mutex);
}

FAKE_UNINSTRUMENTED int pthread_condattr_init(pthread_condattr_t* attributes) noexcept {
    return Call(
        fake::pthread_condattr_init, [] { return Plain(); }, attributes);
}

FAKE_UNINSTRUMENTED int pthread_condattr_setclock(pthread_condattr_t* attributes, clockid_t clock) noexcept {
    return Call(
        fake::pthread_condattr_setclock, [&] { return Plain(NameOf(clock, kClocks)); }, attributes, clock);
}

FAKE_UNINSTRUMENTED int pthread_condattr_destroy(pthread_condattr_t* attributes) noexcept {
    return Call(
        fake::pthread_condattr_destroy, [] { return Plain(); }, attributes);
}

FAKE_UNINSTRUMENTED int pthread_cond_init(pthread_cond_t* condition,
                                          const pthread_condattr_t* attributes) noexcept {
    return Call(
        fake::pthread_cond_init, [] { return Plain(); }, condition, attributes);
}

FAKE_UNINSTRUMENTED int pthread_cond_destroy(pthread_cond_t* condition) noexcept {
    return Call(
        fake::pthread_cond_destroy, [] { return Plain(); }, condition);
}

FAKE_UNINSTRUMENTED int pthread_cond_signal(pthread_cond_t* condition) noexcept {
    return Call(
        fake::pthread_cond_signal, [] { return Plain(); }, condition);
}

FAKE_UNINSTRUMENTED int pthread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex) {
    return Call(
        fake::pthread_cond_wait, [] { return Plain(); }, condition, mutex);
}

FAKE_UNINSTRUMENTED int pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex,
                                               const timespec* deadline) {
    return Call(
        fake::pthread_cond_timedwait, [&] { return Plain(Duration(deadline)); }, condition, mutex, deadline);
}

FAKE_UNINSTRUMENTED int pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                                       void* (*run)(void*), void* argument) noexcept {
    return Call(
        fake::pthread_create, [] { return Plain(); }, thread, attributes, run, argument);
}

FAKE_UNINSTRUMENTED int pthread_attr_init(pthread_attr_t* attributes) noexcept {
    if (IsSanitizers(__builtin_return_address(0))) return fake::pthread_attr_init.Real(attributes);
    return Call(
        fake::pthread_attr_init, [] { return Plain(); }, attributes);
}

FAKE_UNINSTRUMENTED int pthread_attr_destroy(pthread_attr_t* attributes) noexcept {
    if (IsSanitizers(__builtin_return_address(0))) return fake::pthread_attr_destroy.Real(attributes);
    return Call(
        fake::pthread_attr_destroy, [] { return Plain(); }, attributes);
}

FAKE_UNINSTRUMENTED int pthread_attr_setstacksize(pthread_attr_t* attributes, size_t size) noexcept {
    if (IsSanitizers(__builtin_return_address(0)))
        return fake::pthread_attr_setstacksize.Real(attributes, size);
    return Call(
        fake::pthread_attr_setstacksize, [&] { return Plain(Words(size)); }, attributes, size);
}

FAKE_UNINSTRUMENTED int pthread_attr_setdetachstate(pthread_attr_t* attributes, int state) noexcept {
    return Call(
        fake::pthread_attr_setdetachstate, [&] { return Plain(NameOf(state, kDetachStates)); }, attributes,
        state);
}

FAKE_UNINSTRUMENTED int pthread_attr_setschedpolicy(pthread_attr_t* attributes, int policy) noexcept {
    return Call(
        fake::pthread_attr_setschedpolicy, [&] { return Plain(NameOf(policy, kPolicies)); }, attributes,
        policy);
}

FAKE_UNINSTRUMENTED int pthread_attr_getschedparam(const pthread_attr_t* attributes,
                                                   sched_param* scheduling) noexcept {
    return Call(
        fake::pthread_attr_getschedparam, [] { return Plain(); }, attributes, scheduling);
}

FAKE_UNINSTRUMENTED int pthread_attr_setschedparam(pthread_attr_t* attributes,
                                                   const sched_param* scheduling) noexcept {
    return Call(
        fake::pthread_attr_setschedparam, [&] { return Plain(Words(scheduling->sched_priority)); },
        attributes, scheduling);
}

FAKE_UNINSTRUMENTED int pthread_getschedparam(pthread_t thread, int* policy,
                                              sched_param* scheduling) noexcept {
    return Call(
        fake::pthread_getschedparam, [] { return Plain(); }, thread, policy, scheduling);
}

FAKE_UNINSTRUMENTED int pthread_setschedparam(pthread_t thread, int policy,
                                              const sched_param* scheduling) noexcept {
    return Call(
        fake::pthread_setschedparam,
        [&] { return Plain(Words(NameOf(policy, kPolicies), scheduling->sched_priority)); }, thread, policy,
        scheduling);
}

FAKE_UNINSTRUMENTED void pthread_testcancel() {
    Call(fake::pthread_testcancel, [] { return Plain(); });
}
}

FAKE_UNINSTRUMENTED void* operator new(size_t size) {
    return Call(
        fake::new_throwing, [&] { return Plain(Words(size)); }, size);
}

FAKE_UNINSTRUMENTED void* operator new(size_t size, const std::nothrow_t& tag) noexcept {
    return Call(
        fake::new_nothrow, [&] { return Plain(Words(size)); }, size, tag);
}

FAKE_UNINSTRUMENTED void* operator new[](size_t size, const std::nothrow_t& tag) noexcept {
    return Call(
        fake::new_array_nothrow, [&] { return Plain(Words(size)); }, size, tag);
}
