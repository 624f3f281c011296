/// Load and unload hooks of the library, its trace handle, and the abnormal end of a process.
///
/// The dynamic loader runs `kova_init` after all static initialisers of the library and `kova_unload` when
/// the library is unloaded; services call neither. Everything the library reports goes as compact integer
/// records into the trace buffer "KOVA" that `kova_init` opens.
#ifndef KOVA_LIFECYCLE_H
#define KOVA_LIFECYCLE_H

#include <kova/export.h>

#include <cstdint>

extern "C" {

/// Handle of the library's trace buffer: 0 until `kova_init` has run, then what the trace facility gave.
KOVA_API extern uint32_t kova_trace_d;

/// Opens the trace buffer "KOVA" of 32768 bytes and writes one record without values.
/// Runs by itself when the library is loaded. A facility that fails leaves later records lost, nothing else.
KOVA_API void kova_init();

/// Writes one last record without values. Runs by itself when the library is unloaded.
KOVA_API void kova_unload();

/// Ends the process abnormally: writes one trace record (thread id of the thread that aborted last, own
/// thread id) and calls `abort()`. A thread whose own abort is already in progress only leaves its record and
/// returns. The three words are for the caller's records and not interpreted. Callable from any thread and
/// from a signal handler that runs during the abort.
KOVA_API void pabend(uint32_t, uint32_t, uint32_t);
}

#endif
