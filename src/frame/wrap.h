/// Signed 32-bit arithmetic that wraps, as the target's does, instead of overflowing.
#ifndef KOVA_FRAME_WRAP_H
#define KOVA_FRAME_WRAP_H

#include <cstdint>

namespace kova {

constexpr int32_t WrapAdd(int32_t a, int32_t b) {
    return static_cast<int32_t>(static_cast<uint32_t>(a) + static_cast<uint32_t>(b));
}

constexpr int32_t WrapSubtract(int32_t a, int32_t b) {
    return static_cast<int32_t>(static_cast<uint32_t>(a) - static_cast<uint32_t>(b));
}

constexpr int32_t WrapMultiply(int32_t a, int32_t b) {
    return static_cast<int32_t>(static_cast<uint32_t>(a) * static_cast<uint32_t>(b));
}

}  // namespace kova

#endif
