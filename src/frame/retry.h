/// System calls that signals interrupt.
#ifndef KOVA_FRAME_RETRY_H
#define KOVA_FRAME_RETRY_H

#include <cerrno>

namespace kova {

/// Repeats `call` for as long as it returns -1 with EINTR. Before each repetition `interrupted` pauses as the
/// caller wants it, and ends the loop by returning false. Returns the last result of `call`.
template <typename Call, typename Interrupted>
auto RetryInterrupted(Call call, Interrupted interrupted) {
    for (;;) {
        const auto result = call();
        if (result != -1 || errno != EINTR || !interrupted()) return result;
    }
}

/// As above, at once.
template <typename Call>
auto RetryInterrupted(Call call) {
    return RetryInterrupted(call, [] { return true; });
}

}  // namespace kova

#endif
