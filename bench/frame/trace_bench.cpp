/// What a trace record costs, beside the two operations that no record can do without.

#include "ticks.h"

#include <kova/clock.h>
#include <kova/flat_msg.h>

#include <benchmark/benchmark.h>
#include <trace_ovra.h>

#include <atomic>
#include <cstdint>

namespace {

/// As large as the library's own buffer.
constexpr uint32_t kBufferSize = 32768;
constexpr uint32_t kControl = 5u << 16 | 1;
constexpr uint32_t kHash = 0x12345678;

/// Alone in its cache line, as the facility's counter is.
alignas(64) std::atomic<uint32_t> g_counter{0};

void Floor(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(g_counter.fetch_add(1, std::memory_order_relaxed));
        benchmark::DoNotOptimize(trace_ovra::Ticks());
    }
}

void FiveValues(benchmark::State& state) {
    uint32_t handle = 0;
    if (trace_ovra_init_buffer(&handle, "BENCH", kBufferSize) != 0) {
        state.SkipWithError("no trace buffer");
        return;
    }
    uint32_t value = 0;
    for (auto _ : state) {
        trace_ovra_write_ints5(handle, kControl, kHash, value, value, value, value, value);
        ++value;
    }
}

/// The whole way: a method of the library that does nothing but write a trace point of two values.
void LibraryPoint(benchmark::State& state) {
    KovaFlatMsg message;
    for (auto _ : state) benchmark::DoNotOptimize(message.GetMessage());
}

/// Not a trace record: what the library pays where a wait notes its beginning.
void Clock(benchmark::State& state) {
    for (auto _ : state) benchmark::DoNotOptimize(KovaGetRelativeTime());
}

BENCHMARK(Floor)->Name("trace/floor")->MeasureProcessCPUTime()->UseRealTime();
BENCHMARK(FiveValues)->Name("trace/record")->MeasureProcessCPUTime()->UseRealTime();
BENCHMARK(LibraryPoint)->Name("trace/point")->MeasureProcessCPUTime()->UseRealTime();
BENCHMARK(Clock)->Name("clock")->MeasureProcessCPUTime()->UseRealTime();

}  // namespace
