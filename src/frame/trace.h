/// Trace points.
///
///     KOVA_TRACE("select n=%d code=%d", n, code);
///
/// The text stands at the call for the reader and for the catalogue; the binary holds its hash only. Up to
/// nine 32-bit values; a text value is recorded as its pointer. Texts are plain literals without quotes and
/// backslashes. Tracing never fails and keeps `errno`.
#ifndef KOVA_FRAME_TRACE_H
#define KOVA_FRAME_TRACE_H

#include <kova/lifecycle.h>

#include <trace_ovra_hash.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <type_traits>

namespace kova::trace {

/// Values that the narrow and the wide form of a record carry.
inline constexpr size_t kNarrowValues = 5;
inline constexpr size_t kWideValues = 9;

/// Never defined: called in unevaluated operands, so that the compiler holds values against the text.
[[gnu::format(printf, 1, 2)]] int CheckFormat(const char* text, ...);

consteval uint32_t CountConversions(const char* text) {
    uint32_t count = 0;
    for (; *text != '\0'; ++text) {
        if (*text != '%') continue;
        if (text[1] == '%') {
            ++text;
        } else {
            ++count;
        }
    }
    return count;
}

consteval uint32_t Hash(const char* text, uint32_t count) { return TraceOvraHash(text, count); }

constexpr uint32_t ControlWord(uint32_t count, uint32_t line) { return count << 16 | (line & 0xFFFF); }

template <typename Value>
uint32_t ToWord(Value value) {
    if constexpr (std::is_pointer_v<Value>) {
        return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(value));
    } else {
        return static_cast<uint32_t>(value);
    }
}

void WriteNarrow(uint32_t control, uint32_t hash, const std::array<uint32_t, kNarrowValues>& values);
void WriteWide(uint32_t control, uint32_t hash, const std::array<uint32_t, kWideValues>& values);

template <typename... Values>
void Write(uint32_t line, uint32_t hash, Values... values) {
    const uint32_t control = ControlWord(sizeof...(Values), line);
    if constexpr (sizeof...(Values) <= kNarrowValues) {
        WriteNarrow(control, hash, {ToWord(values)...});
    } else {
        WriteWide(control, hash, {ToWord(values)...});
    }
}

}  // namespace kova::trace

namespace kova {

/// An object as a traced value: "%p" wants a plain pointer.
inline const void* AddressOf(const void* object) { return object; }

}  // namespace kova

#define KOVA_TRACE_STRING_(x) KOVA_TRACE_STRING_2_(x)
#define KOVA_TRACE_STRING_2_(x) #x
#define KOVA_TRACE_COUNT_(...) KOVA_TRACE_PICK_(__VA_ARGS__ __VA_OPT__(, ) 9, 8, 7, 6, 5, 4, 3, 2, 1, 0)
#define KOVA_TRACE_PICK_(a, b, c, d, e, f, g, h, i, count, ...) count

/// Puts COUNT:FILE:LINE:TEXT into a section that is never loaded; the build collects the catalogue from
/// there.
#define KOVA_TRACE_CATALOGUE_(text, count)                                                 \
    __asm__(".pushsection .kova.trace,\"MS\",%progbits,1\n\t.asciz \"" KOVA_TRACE_STRING_( \
        count) ":" __FILE__ ":" KOVA_TRACE_STRING_(__LINE__) ":" text "\"\n\t.popsection")

#define KOVA_TRACE(text, ...)                                                                                \
    do {                                                                                                     \
        KOVA_TRACE_CATALOGUE_(text, KOVA_TRACE_COUNT_(__VA_ARGS__));                                         \
        static_assert(::kova::trace::CountConversions(text) == KOVA_TRACE_COUNT_(__VA_ARGS__),               \
                      "one conversion per value");                                                           \
        static_cast<void>(sizeof(::kova::trace::CheckFormat(text __VA_OPT__(, ) __VA_ARGS__)));              \
        ::kova::trace::Write(                                                                                \
            __LINE__, ::kova::trace::Hash(text, KOVA_TRACE_COUNT_(__VA_ARGS__)) __VA_OPT__(, ) __VA_ARGS__); \
    } while (false)

#endif
