/// Definitions of the families of operators that kova/detail/operators.h declares, and the arithmetic that
/// they are made of: that of the target, whose `long` has 32 bits, wrapping and without undefined results.
#ifndef KOVA_ADDR_OPERATORS_H
#define KOVA_ADDR_OPERATORS_H

#include <cstdint>
#include <type_traits>

namespace kova {

/// What a number of type `Operand` is on the target. A value type counts as signed.
template <typename Operand>
using Word = std::conditional_t<std::is_arithmetic_v<Operand> && sizeof(Operand) <= sizeof(int32_t), Operand,
                                std::conditional_t<std::is_unsigned_v<Operand>, uint32_t, int32_t>>;

/// A number or a value type as a `Word<Operand>`, in a type in which no operation on two of them overflows.
template <typename Operand, typename Value>
constexpr auto Wide(const Value& value) {
    using Wider = std::conditional_t<std::is_unsigned_v<Operand>, uint64_t, int64_t>;
    return static_cast<Wider>(static_cast<Word<Operand>>(value));
}

/// A result as a `Number` of the target: its low bits.
template <typename Number, typename Wider>
constexpr Number Cut(Wider result) {
    return static_cast<Number>(static_cast<Word<Number>>(result));
}

}  // namespace kova

/// DEFINE(op, Class, Operand) for each operator of a family.
#define KOVA_FOR_ARITHMETIC(DEFINE, Class, Operand) \
    DEFINE(+, Class, Operand)                       \
    DEFINE(-, Class, Operand)                       \
    DEFINE(*, Class, Operand)                       \
    DEFINE(/, Class, Operand)                       \
    DEFINE(%, Class, Operand)
#define KOVA_FOR_COMPARISON(DEFINE, Class, Operand) \
    DEFINE(==, Class, Operand)                      \
    DEFINE(!=, Class, Operand)                      \
    DEFINE(<, Class, Operand)                       \
    DEFINE(<=, Class, Operand)                      \
    DEFINE(>, Class, Operand)                       \
    DEFINE(>=, Class, Operand)

/// With a number on the left everything is done in its type.
#define KOVA_DEFINE_LEFT(Class, Left)                       \
    KOVA_FOR_ARITHMETIC(KOVA_COMPUTE_IN_LEFT_, Class, Left) \
    KOVA_FOR_COMPARISON(KOVA_COMPARE_IN_LEFT_, Class, Left)
#define KOVA_COMPUTE_IN_LEFT_(op, Class, Left)                                     \
    Left operator op(Left left, const Class& right) {                              \
        return kova::Cut<Left>(kova::Wide<Left>(left) op kova::Wide<Left>(right)); \
    }
#define KOVA_COMPARE_IN_LEFT_(op, Class, Left)                    \
    bool operator op(Left left, const Class& right) {             \
        return kova::Wide<Left>(left) op kova::Wide<Left>(right); \
    }

#endif
