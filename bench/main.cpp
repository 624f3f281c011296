/// kova-bench [--cpu=N] [GOOGLE-BENCHMARK-ARGUMENT...]: pins itself, threads to come included, to one
/// processor (the last one by default) and runs the benchmarks.

#include <benchmark/benchmark.h>
#include <sched.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

int LastCpu() {
    cpu_set_t allowed;
    if (::sched_getaffinity(0, sizeof allowed, &allowed) != 0) return 0;
    int last = 0;
    for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
        if (CPU_ISSET(static_cast<size_t>(cpu), &allowed)) last = cpu;
    }
    return last;
}

bool PinTo(int cpu) {
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(static_cast<size_t>(cpu), &one);
    return ::sched_setaffinity(0, sizeof one, &one) == 0;
}

}  // namespace

int main(int argc, char** argv) {
    constexpr char kCpuOption[] = "--cpu=";
    int cpu = LastCpu();
    if (argc > 1 && std::strncmp(argv[1], kCpuOption, sizeof kCpuOption - 1) == 0) {
        cpu = std::atoi(argv[1] + sizeof kCpuOption - 1);
        argv[1] = argv[0];
        ++argv;
        --argc;
    }
    if (cpu < 0 || cpu >= CPU_SETSIZE || !PinTo(cpu)) {
        std::perror("pinning to one processor");
        return 2;
    }
    benchmark::AddCustomContext("pinned_to_cpu", std::to_string(cpu));
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
