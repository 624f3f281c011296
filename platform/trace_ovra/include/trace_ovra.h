/// The platform's trace facility: named ring buffers of compact integer records.
///
/// A write takes no lock, makes no system call (but one for the thread id in the first record of each thread)
/// and never waits, so any thread may write at any time, a signal handler included. Readers look at the
/// buffer from another process while writers run, or after their process has crashed (see docs/trace.md).
/// With TRACE_OVRA_DIR set the buffers of a process are files `NAME.PID.trace` in that directory and outlive
/// it; without it, or where the file cannot be made, they live in shared memory without a name that a reader
/// reaches through the living process. A forked child goes on in its parent's buffers. Nothing here is ever
/// fatal, and buffers are never freed.
#ifndef TRACE_OVRA_H
#define TRACE_OVRA_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define TRACE_OVRA_API __attribute__((visibility("default")))

/// Opens the buffer `name` (31 characters count) with room for `size` bytes of records (64 bytes each) and
/// stores its handle, never 0. A name that is open already gives the same buffer again. Returns 0, or -1
/// with the handle unchanged when the table of 16 buffers is full, `size` holds no record, no memory is left,
/// or the name is null or empty. Keeps `errno`. Thread-safe, but takes a lock: not for signal handlers.
TRACE_OVRA_API int trace_ovra_init_buffer(uint32_t* handle, const char* name, uint32_t size);

/// Writes one record. `control` is the number of values (upper 16 bits) and the source line (lower 16 bits),
/// `hash` names the trace point. Returns 0, or -1 for a handle that names no buffer. Keeps `errno`.
TRACE_OVRA_API int trace_ovra_write_ints5(uint32_t handle, uint32_t control, uint32_t hash, uint32_t v0,
                                          uint32_t v1, uint32_t v2, uint32_t v3, uint32_t v4);
TRACE_OVRA_API int trace_ovra_write_ints9(uint32_t handle, uint32_t control, uint32_t hash, uint32_t v0,
                                          uint32_t v1, uint32_t v2, uint32_t v3, uint32_t v4, uint32_t v5,
                                          uint32_t v6, uint32_t v7, uint32_t v8);

/// The trace-point hash of a format text with `count` values (see trace_ovra_hash.h).
TRACE_OVRA_API uint32_t trace_ovra_hash(const char* text, uint32_t count);

#ifdef __cplusplus
}
#endif

#endif
