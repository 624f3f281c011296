#include "frame/trace.h"

#include "frame/errno_guard.h"

#include <trace_ovra.h>

namespace kova::trace {

void WriteNarrow(uint32_t control, uint32_t hash, const std::array<uint32_t, kNarrowValues>& values) {
    const ErrnoGuard keep;
    trace_ovra_write_ints5(kova_trace_d, control, hash, values[0], values[1], values[2], values[3],
                           values[4]);
}

void WriteWide(uint32_t control, uint32_t hash, const std::array<uint32_t, kWideValues>& values) {
    const ErrnoGuard keep;
    trace_ovra_write_ints9(kova_trace_d, control, hash, values[0], values[1], values[2], values[3], values[4],
                           values[5], values[6], values[7], values[8]);
}

}  // namespace kova::trace
