#include "frame/trace.h"

#include <kova/process.h>

#include <execinfo.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <memory>

namespace {

/// Read early, so that the other static initialisers and kova_init find it.
struct ProcessId {
    ProcessId() noexcept : value(::getpid()) {}
    int32_t value;
};
// Deliberate: never refreshed; a forked child reports its parent.
ProcessId g_ProcessId __attribute__((init_priority(101)));

/// The thread-id key has no destructor: a slot holds the id itself.
pthread_once_t g_ThreadIdOnce = PTHREAD_ONCE_INIT;
pthread_key_t g_ThreadIdKey;
bool g_HasThreadIdKey = false;

void CreateThreadIdKey() { g_HasThreadIdKey = ::pthread_key_create(&g_ThreadIdKey, nullptr) == 0; }

constexpr int kMaxFrames = 20;

struct Free {
    void operator()(char** texts) const { std::free(texts); }
};

int LimitResource(__rlimit_resource_t resource, unsigned long limit) {
    const bool unlimited = limit == ULONG_MAX;
    rlimit wanted{unlimited ? RLIM_INFINITY : limit, RLIM_INFINITY};
    if (::setrlimit(resource, &wanted) == 0) return 0;
    KOVA_TRACE("limit=%u errno=%d", static_cast<uint32_t>(limit), errno);

    // Deliberate: a finite limit is best effort.
    if (!unlimited) return 0;
    wanted.rlim_cur = wanted.rlim_max = RLIM_INFINITY;
    if (::setrlimit(resource, &wanted) == 0) return 0;
    KOVA_TRACE("no limit, current=%u errno=%d", static_cast<uint32_t>(wanted.rlim_cur), errno);
    return -1;
}

}  // namespace

int KovaGetPid() { return g_ProcessId.value; }

int KovaGetTid() {
    ::pthread_once(&g_ThreadIdOnce, CreateThreadIdKey);
    if (!g_HasThreadIdKey) return static_cast<int>(::syscall(SYS_gettid));
    if (void* cached = ::pthread_getspecific(g_ThreadIdKey)) {
        return static_cast<int>(reinterpret_cast<intptr_t>(cached));
    }
    const int tid = static_cast<int>(::syscall(SYS_gettid));
    ::pthread_setspecific(g_ThreadIdKey, reinterpret_cast<void*>(static_cast<intptr_t>(tid)));
    return tid;
}

KovaPTid* KovaGetPTid(KovaPTid* id) {
    id->pid = KovaGetPid();
    id->tid = KovaGetTid();
    return id;
}

KovaPTid* KovaGetPTid(KovaPTid& id) { return KovaGetPTid(&id); }

int KovaGetBacktrace(char* buffer, size_t size) {
    if (buffer == nullptr || size == 0) return 0;
    *buffer = '\0';
    void* frames[kMaxFrames];
    const int count = ::backtrace(frames, kMaxFrames);
    const std::unique_ptr<char*, Free> texts(::backtrace_symbols(frames, count));
    if (!texts) return 0;

    size_t used = 0;
    for (int i = 0; i < count; ++i) {
        const size_t room = size - used;
        const int length = std::snprintf(buffer + used, room, "%s\n", texts.get()[i]);
        used += std::min(static_cast<size_t>(length), room);
    }
    return static_cast<int>(used);
}

int KovaEnableCoredump() {
    const rlimit unlimited{RLIM_INFINITY, RLIM_INFINITY};
    if (::setrlimit(RLIMIT_CORE, &unlimited) == 0) return 0;
    KOVA_TRACE("core limit errno=%d", errno);
    return -1;
}

int KovaLimitStack(unsigned long limit) { return LimitResource(RLIMIT_STACK, limit); }

int KovaLimitMemory(unsigned long limit) { return LimitResource(RLIMIT_DATA, limit); }

int NetworkStartup() { return 0; }
