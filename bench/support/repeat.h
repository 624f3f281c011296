/// Programs that do one thing over and over, for strace to count what it costs.
#ifndef KOVA_BENCH_REPEAT_H
#define KOVA_BENCH_REPEAT_H

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace kova_bench {

/// Repeats between two calls of getppid; false if any repetition failed.
template <typename Repetition>
bool Repeat(long count, Repetition repetition) {
    bool succeeded = repetition();  // learns the ids of process and thread
    ::getppid();
    for (long i = 0; i < count; ++i) succeeded &= repetition();
    ::getppid();
    return succeeded;
}

/// The body of `main` for PROGRAM SUBJECT COUNT.
inline int RunCounted(int argc, char** argv, bool (*run)(std::string_view subject, long count)) {
    if (argc == 3 && run(argv[1], std::atol(argv[2]))) return 0;
    std::fprintf(stderr, "%s: wrong arguments, or an operation failed\n", argv[0]);
    return 2;
}

}  // namespace kova_bench

#endif
