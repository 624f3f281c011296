#include "frame/retry.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <type_traits>

namespace {

/// Fails with EINTR `interruptions` times, then gives `result` with `error`.
auto Interrupted(int& calls, int interruptions, int result, int error) {
    return [&calls, interruptions, result, error] {
        const bool interrupted = calls++ < interruptions;
        errno = interrupted ? EINTR : error;
        return interrupted ? -1 : result;
    };
}

TEST(Retry, RepeatsInterruptedCalls) {
    int calls = 0;
    EXPECT_EQ(5, kova::RetryInterrupted(Interrupted(calls, 3, 5, 0)));
    EXPECT_EQ(4, calls);
}

TEST(Retry, EndsWithAnyOtherFailure) {
    int calls = 0;
    EXPECT_EQ(-1, kova::RetryInterrupted(Interrupted(calls, 2, -1, EAGAIN)));
    EXPECT_EQ(EAGAIN, errno);
    EXPECT_EQ(3, calls);
}

TEST(Retry, SuccessWithAnOldErrnoOfEintrIsSuccess) {
    int calls = 0;
    EXPECT_EQ(0, kova::RetryInterrupted(Interrupted(calls, 0, 0, EINTR)));
    EXPECT_EQ(1, calls);
}

TEST(Retry, PausesBeforeEachRepetition) {
    int calls = 0;
    int pauses = 0;
    const auto pause = [&] {
        EXPECT_EQ(++pauses, calls);
        return true;
    };
    EXPECT_EQ(5, kova::RetryInterrupted(Interrupted(calls, 3, 5, 0), pause));
    EXPECT_EQ(3, pauses);
}

TEST(Retry, PauseMayEndIt) {
    int calls = 0;
    EXPECT_EQ(-1, kova::RetryInterrupted(Interrupted(calls, 3, 5, 0), [&] { return calls < 2; }));
    EXPECT_EQ(2, calls);
}

TEST(Retry, KeepsTheTypeOfTheCall) {
    static_assert(std::is_same_v<long, decltype(kova::RetryInterrupted([] { return 1L; }))>);
    EXPECT_EQ(1L << 30, kova::RetryInterrupted([] { return 1L << 30; }));
}

}  // namespace
