/// The trace-point hash, usable at compile time: equal to `trace_ovra_hash` for every text and count.
#ifndef TRACE_OVRA_HASH_H
#define TRACE_OVRA_HASH_H

#include <cstdint>

/// 32-bit FNV-1a over the bytes of `text` and one last byte, the number of values.
constexpr uint32_t TraceOvraHash(const char* text, uint32_t count) {
    constexpr uint32_t kPrime = 16777619;
    uint32_t hash = 2166136261u;
    for (; *text != '\0'; ++text) hash = (hash ^ static_cast<unsigned char>(*text)) * kPrime;
    return (hash ^ (count & 0xFF)) * kPrime;
}

#endif
