/// What one trace point of one value costs, so that it can be taken off what a traced lock costs.

#include "frame/trace.h"

#include <benchmark/benchmark.h>
#include <trace_ovra.h>

#include <cstdint>

namespace {

/// The facility's part: the record itself, in the library's own buffer.
void Record(benchmark::State& state) {
    constexpr uint32_t kControl = 1u << 16 | 1;
    constexpr uint32_t kHash = 0x12345678;
    uint32_t value = 0;
    for (auto _ : state) trace_ovra_write_ints5(kova_trace_d, kControl, kHash, ++value, 0, 0, 0, 0);
}

/// The whole way: what stands in the library's code.
void Point(benchmark::State& state) {
    const void* value = &state;
    for (auto _ : state) {
        benchmark::DoNotOptimize(value);
        KOVA_TRACE("bench value=%p", value);
    }
}

BENCHMARK(Record)->Name("point/record")->MeasureProcessCPUTime()->UseRealTime();
BENCHMARK(Point)->Name("point/library")->MeasureProcessCPUTime()->UseRealTime();

}  // namespace
