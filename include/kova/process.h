/// Ids of the process and its threads, call stack as text, core dumps and resource limits.
#ifndef KOVA_PROCESS_H
#define KOVA_PROCESS_H

#include <kova/export.h>

#include <cstddef>
#include <cstdint>

/// A thread, named by its process and its kernel thread id.
struct KovaPTid {
    int32_t pid;
    int32_t tid;
};

inline bool operator==(const KovaPTid& a, const KovaPTid& b) { return a.pid == b.pid && a.tid == b.tid; }
inline bool operator!=(const KovaPTid& a, const KovaPTid& b) { return !(a == b); }

extern "C" {

/// The process id, read once when the library is loaded. A child made by `fork` keeps reporting its parent's.
KOVA_API int KovaGetPid();

/// The calling thread's kernel thread id; after the first call of a thread without a system call. A child
/// made by `fork` keeps reporting what the thread that forked had asked for.
KOVA_API int KovaGetTid();

/// Fills process id and thread id of the calling thread; returns `id`.
KOVA_API KovaPTid* KovaGetPTid(KovaPTid* id);

/// Writes the caller's call stack, at most 20 frames with a line each, into `buffer` of `size` bytes.
/// Returns the number of characters written; `size` when the text did not fit, which is then cut and
/// zero-terminated. Size 0 or a null buffer writes nothing and returns 0. Allocates memory.
KOVA_API int KovaGetBacktrace(char* buffer, size_t size);

/// Removes the size limit of core files. 0, or -1 with `errno` set.
KOVA_API int KovaEnableCoredump();

/// Limits the stack (`KovaLimitStack`) or the data segment (`KovaLimitMemory`) to `limit` bytes; all ones
/// means no limit. A finite limit that cannot be set is traced and still returns 0; no limit returns -1 on
/// failure.
KOVA_API int KovaLimitStack(unsigned long limit);
KOVA_API int KovaLimitMemory(unsigned long limit);

/// Always 0: the network needs no start-up work here.
KOVA_API int NetworkStartup();
}

/// Reference form of the function above.
KOVA_API KovaPTid* KovaGetPTid(KovaPTid& id);

#endif
