#include "time/duration.h"

#include <gtest/gtest.h>

#include <limits>

namespace {

TEST(Duration, MillisecondsBecomeTimeval) {
    const timeval time = kova::ToTimeval(2500);
    EXPECT_EQ(2, time.tv_sec);
    EXPECT_EQ(500000, time.tv_usec);
}

TEST(Duration, MillisecondsBecomeTimespec) {
    const timespec time = kova::ToTimespec(2500);
    EXPECT_EQ(2, time.tv_sec);
    EXPECT_EQ(500000000, time.tv_nsec);
}

TEST(Duration, BothPartsOfANegativeTimeAreNegative) {
    EXPECT_EQ(-2, kova::ToTimeval(-2500).tv_sec);
    EXPECT_EQ(-500000, kova::ToTimeval(-2500).tv_usec);
    EXPECT_EQ(-2, kova::ToTimespec(-2500).tv_sec);
    EXPECT_EQ(-500000000, kova::ToTimespec(-2500).tv_nsec);
}

TEST(Duration, ExtremesDoNotOverflow) {
    EXPECT_EQ(647000000, kova::ToTimespec(std::numeric_limits<int32_t>::max()).tv_nsec);
    EXPECT_EQ(-648000, kova::ToTimeval(std::numeric_limits<int32_t>::min()).tv_usec);
}

}  // namespace
