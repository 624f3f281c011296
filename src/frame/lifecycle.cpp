#include "frame/errno_guard.h"
#include "frame/trace.h"

#include <kova/lifecycle.h>
#include <kova/process.h>

#include <trace_ovra.h>

#include <atomic>
#include <cstdlib>

namespace {

constexpr const char* kBufferName = "KOVA";
constexpr uint32_t kBufferSize = 32768;

// The one format text that the library keeps: its hash is formed at run time.
#define KOVA_PABEND_TEXT "nTid=%x KovaGetTid()=%x"

/// Kernel thread id of the thread that last went through pabend into abort.
std::atomic<int32_t> g_AbendOwner{0};

void TraceAbend(int32_t owner, int32_t self) {
    const kova::ErrnoGuard keep;
    KOVA_TRACE_CATALOGUE_(KOVA_PABEND_TEXT, 2);
    trace_ovra_write_ints5(kova_trace_d, kova::trace::ControlWord(2, __LINE__),
                           trace_ovra_hash(KOVA_PABEND_TEXT, 2), kova::trace::ToWord(owner),
                           kova::trace::ToWord(self), 0, 0, 0);
}

}  // namespace

extern "C" {

uint32_t kova_trace_d = 0;

// Constructors without priority run after those with one, and nothing else in the library needs any.
[[gnu::constructor]] void kova_init() {
    trace_ovra_init_buffer(&kova_trace_d, kBufferName, kBufferSize);
    KOVA_TRACE("library initialised");
}

[[gnu::destructor]] void kova_unload() { KOVA_TRACE("library unloaded"); }

void pabend(uint32_t, uint32_t, uint32_t) {
    const int32_t self = KovaGetTid();
    const int32_t owner = g_AbendOwner.load(std::memory_order_relaxed);
    TraceAbend(owner, self);
    // Deliberate: a thread that comes here again while it aborts only leaves its record.
    if (self == owner) return;
    g_AbendOwner.store(self, std::memory_order_relaxed);
    std::abort();
}
}
