#include "frame/wrap.h"

#include <gtest/gtest.h>

#include <limits>

namespace {

constexpr int32_t kMax = std::numeric_limits<int32_t>::max();
constexpr int32_t kMin = std::numeric_limits<int32_t>::min();

TEST(Wrap, SumsAndDifferencesWrapAt32Bits) {
    static_assert(kova::WrapAdd(kMax, 1) == kMin);
    static_assert(kova::WrapAdd(kMin, -1) == kMax);
    static_assert(kova::WrapAdd(-3, 5) == 2);
    static_assert(kova::WrapSubtract(kMin, 1) == kMax);
    static_assert(kova::WrapSubtract(0, kMin) == kMin);
    static_assert(kova::WrapSubtract(3, 5) == -2);
}

}  // namespace
