// Opens a trace buffer and writes one record.
#include <trace_ovra.h>

#include <cstdio>

int main() {
    uint32_t handle = 0;
    if (trace_ovra_init_buffer(&handle, "outside", 4096) != 0) return 1;
    constexpr uint32_t kOneValue = 1u << 16 | __LINE__;
    if (trace_ovra_write_ints5(handle, kOneValue, trace_ovra_hash("hello %d", 1), 42, 0, 0, 0, 0) != 0)
        return 1;
    std::puts("traced");
    return 0;
}
