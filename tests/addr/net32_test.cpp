#include "support/leak_check.h"

#include <kova/net32.h>

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <ostream>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

// --- The reference: everything in 64 bits, cut to size afterwards ---

/// What `Number` makes of the low bits of `value`. A `long` counts as 32 bits.
template <typename Number>
constexpr int64_t Cut(uint64_t value) {
    constexpr int64_t modulus = int64_t{1} << (sizeof(Number) < 4 ? 8 * sizeof(Number) : 32);
    const int64_t low = static_cast<int64_t>(value % modulus);
    return std::is_signed_v<Number> && low >= modulus / 2 ? low - modulus : low;
}

static_assert(Cut<short>(0x18000) == -0x8000 && Cut<unsigned short>(0x18000) == 0x8000);
static_assert(Cut<long>(0xFFFFFFFF) == -1 && Cut<unsigned long>(~uint64_t{0}) == 0xFFFFFFFF);

/// The 32 bits of a number, a negative one in two's complement.
constexpr uint64_t Bits(int64_t number) {
    return static_cast<uint64_t>(number < 0 ? number + 0x100000000 : number);
}

/// Around the borders of all types.
constexpr uint32_t kValues[] = {0,          1,          2,          7,          0x7F,       0x80,
                                0xFF,       0x100,      0x7FFF,     0x8000,     0xFFF9,     0xFFFF,
                                0x10000,    0x18000,    0x12345678, 0x7FFFFFFF, 0x80000000, 0xFFFF8000,
                                0xFFFFFF80, 0xFFFFFFF9, 0xFFFFFFFE, 0xFFFFFFFF};

/// The operand of type `Number` with the low bits of `value`.
template <typename Number>
Number Operand(uint32_t value) {
    return static_cast<Number>(Cut<Number>(value));
}

template <>
KovaNet32 Operand<KovaNet32>(uint32_t value) {
    return KovaNet32(value);
}

uint32_t Value(const KovaNet32& number) { return number.operator unsigned int(); }

/// Calls `check(symbol, operator)` for each arithmetic operator.
template <typename Check>
void ForEachArithmetic(Check check) {
    check("+", std::plus<>());
    check("-", std::minus<>());
    check("*", std::multiplies<>());
    check("/", std::divides<>());
    check("%", std::modulus<>());
}

template <typename Check>
void ForEachComparison(Check check) {
    check("==", std::equal_to<>());
    check("!=", std::not_equal_to<>());
    check("<", std::less<>());
    check("<=", std::less_equal<>());
    check(">", std::greater<>());
    check(">=", std::greater_equal<>());
}

template <typename Check>
void ForEachPair(Check check) {
    for (const uint32_t a : kValues) {
        for (const uint32_t b : kValues) check(a, b);
    }
}

/// Whether exactly one operator fits the operands best, and the type of its result.
template <typename Op, typename Left, typename Right>
constexpr bool kFits = std::is_invocable_v<Op, const Left&, const Right&>;
template <typename Op, typename Left, typename Right>
using Result = std::invoke_result_t<Op, const Left&, const Right&>;

using Bytes = std::array<uint8_t, 4>;

Bytes Memory(const KovaNet32& number) {
    Bytes bytes;
    std::memcpy(bytes.data(), &number, sizeof number);
    return bytes;
}

/// Most significant byte first.
Bytes Wire(uint64_t value) {
    return {static_cast<uint8_t>(value / 0x1000000 % 0x100), static_cast<uint8_t>(value / 0x10000 % 0x100),
            static_cast<uint8_t>(value / 0x100 % 0x100), static_cast<uint8_t>(value % 0x100)};
}

class Net32 : public KovaTest {};

// --- The object ---

TEST_F(Net32, IsFourBytesThatCanBeCopiedAsTheyStand) {
    static_assert(sizeof(KovaNet32) == 4 && alignof(KovaNet32) == 4);
    static_assert(std::is_standard_layout_v<KovaNet32>);
    static_assert(!std::is_polymorphic_v<KovaNet32>);
    const Bytes received{0x01, 0x02, 0x03, 0x04};
    struct {
        uint16_t type;
        KovaNet32 value;
    } record{};
    std::memcpy(static_cast<void*>(&record.value), received.data(), sizeof record.value);
    EXPECT_EQ(0x01020304u, Value(record.value));
    record.value = record.value + 1;
    EXPECT_EQ((Bytes{0x01, 0x02, 0x03, 0x05}), Memory(record.value));
}

TEST_F(Net32, LiesInMemoryMostSignificantByteFirst) {
    EXPECT_EQ((Bytes{0x01, 0x02, 0x03, 0x04}), Memory(KovaNet32(0x01020304u)));
    for (const uint32_t value : kValues) EXPECT_EQ(Wire(value), Memory(KovaNet32(value))) << value;
}

TEST_F(Net32, DefaultIsZeroAndFalse) {
    const KovaNet32 zero;
    EXPECT_EQ(0, static_cast<int>(zero));
    EXPECT_FALSE(zero);
    EXPECT_EQ((Bytes{0, 0, 0, 0}), Memory(zero));
}

TEST_F(Net32, CopiesTheWordAsItStands) {
    const KovaNet32 original(0x12345678);
    const KovaNet32 copy(original);
    KovaNet32 assigned;
    EXPECT_EQ(&assigned, &(assigned = original));
    EXPECT_EQ(Wire(0x12345678), Memory(copy));
    EXPECT_EQ(Wire(0x12345678), Memory(assigned));
    const KovaNet32& same = assigned;
    assigned = same;
    EXPECT_EQ(Wire(0x12345678), Memory(assigned));
}

// --- From and to plain numbers ---

template <typename Number>
class Net32Construction : public KovaTest {};
using Constructing = testing::Types<unsigned long, long, unsigned int, int, unsigned short, short>;
TYPED_TEST_SUITE(Net32Construction, Constructing);

TYPED_TEST(Net32Construction, ExtendsTheNumberTo32BitsInNetworkOrder) {
    static_assert(std::is_convertible_v<TypeParam, KovaNet32>);
    for (const uint32_t value : kValues) {
        const TypeParam number = Operand<TypeParam>(value);
        EXPECT_EQ(Wire(Bits(Cut<TypeParam>(value))), Memory(KovaNet32(number))) << value;
    }
}

TEST_F(Net32, TakesTheLow32BitsOfAWiderLong) {
    constexpr uint64_t wide = 0x7654321012345678;
    EXPECT_EQ(Wire(0x12345678), Memory(KovaNet32(static_cast<unsigned long>(wide))));
    EXPECT_EQ(Wire(0x12345678), Memory(KovaNet32(static_cast<long>(wide))));
    EXPECT_EQ(Wire(0xFFFFFFFF), Memory(KovaNet32(static_cast<long>(-1))));
    EXPECT_EQ(Wire(0xFFFFFFFF), Memory(KovaNet32(~0ul)));
}

template <typename Number>
class Net32Assignment : public KovaTest {};
using Assigning = testing::Types<unsigned int, int, unsigned short, short>;
TYPED_TEST_SUITE(Net32Assignment, Assigning);

TYPED_TEST(Net32Assignment, ExtendsTheNumberTo32BitsInNetworkOrder) {
    static_assert(std::is_same_v<KovaNet32&, decltype(std::declval<KovaNet32&>() = TypeParam())>);
    for (const uint32_t value : kValues) {
        KovaNet32 number(0x55AA55AA);
        EXPECT_EQ(&number, &(number = Operand<TypeParam>(value)));
        EXPECT_EQ(Wire(Bits(Cut<TypeParam>(value))), Memory(number)) << value;
    }
}

TEST_F(Net32, CharactersAndBoolComeInAsInt) {
    EXPECT_EQ(0x41u, Value(KovaNet32('A')));
    EXPECT_EQ(0xFFu, Value(KovaNet32(static_cast<unsigned char>(0xFF))));
    EXPECT_EQ(0xFFFFFFFFu, Value(KovaNet32(static_cast<signed char>(-1))));
    EXPECT_EQ(1u, Value(KovaNet32(true)));
    KovaNet32 assigned;
    EXPECT_EQ(0xFFFFFFFFu, Value(assigned = static_cast<signed char>(-1)));
    EXPECT_EQ(0xFFu, Value(assigned = static_cast<unsigned char>(0xFF)));
}

TEST_F(Net32, OtherNumbersNeedACast) {
    static_assert(!std::is_constructible_v<KovaNet32, long long>);
    static_assert(!std::is_constructible_v<KovaNet32, unsigned long long>);
    static_assert(!std::is_constructible_v<KovaNet32, float> && !std::is_constructible_v<KovaNet32, double>);
    static_assert(!std::is_constructible_v<KovaNet32, const char*>);
    static_assert(!std::is_constructible_v<KovaNet32, std::nullptr_t>);
    // Construction takes `long`, assignment does not.
    static_assert(!std::is_assignable_v<KovaNet32&, long> &&
                  !std::is_assignable_v<KovaNet32&, unsigned long>);
    static_assert(!std::is_assignable_v<KovaNet32&, long long> && !std::is_assignable_v<KovaNet32&, double>);
    static_assert(!std::is_assignable_v<KovaNet32&, const char*>);
    // None of the conversions fits these better than another.
    static_assert(!std::is_convertible_v<KovaNet32, char>);
    static_assert(!std::is_convertible_v<KovaNet32, long long>);
    static_assert(!std::is_convertible_v<KovaNet32, unsigned long long>);
    static_assert(!std::is_convertible_v<KovaNet32, float> && !std::is_convertible_v<KovaNet32, double>);
    static_assert(!std::is_convertible_v<KovaNet32, const char*>);
}

template <typename Number>
class Net32Conversion : public KovaTest {};
using Converting =
    testing::Types<signed char, unsigned char, short, unsigned short, int, unsigned int, long, unsigned long>;
TYPED_TEST_SUITE(Net32Conversion, Converting);

TYPED_TEST(Net32Conversion, CutsTheNumberToTheType) {
    static_assert(std::is_convertible_v<const KovaNet32&, TypeParam>);
    for (const uint32_t value : kValues) {
        const KovaNet32 net(value);
        const TypeParam implicit = net;
        EXPECT_EQ(static_cast<TypeParam>(Cut<TypeParam>(value)), implicit) << value;
        EXPECT_EQ(implicit, static_cast<TypeParam>(net)) << value;
    }
}

TEST_F(Net32, ConvertsToBoolAsAWhole) {
    static_assert(std::is_convertible_v<const KovaNet32&, bool>);
    for (const uint32_t value : kValues) EXPECT_EQ(value != 0, static_cast<bool>(KovaNet32(value))) << value;
    for (int bit = 0; bit < 32; ++bit) EXPECT_TRUE(KovaNet32(1u << bit)) << bit;
    EXPECT_TRUE(!KovaNet32());
    EXPECT_TRUE(KovaNet32(0x100) && KovaNet32(0x80000000u));
}

TEST_F(Net32, MinusOneIsMinusOneInEverySignedType) {
    const KovaNet32 minus_one(-1);
    EXPECT_EQ(0xFFFF, static_cast<unsigned short>(minus_one));
    EXPECT_EQ(-1, static_cast<short>(minus_one));
    EXPECT_EQ(0xFFFFFFFFu, static_cast<unsigned int>(minus_one));
    EXPECT_EQ(-1, static_cast<int>(minus_one));
    EXPECT_EQ(-1L, static_cast<long>(minus_one));
    EXPECT_EQ(0xFFFFFFFFul, static_cast<unsigned long>(minus_one));
    EXPECT_EQ(0xFF, static_cast<unsigned char>(minus_one));
    EXPECT_EQ(-1, static_cast<signed char>(minus_one));
}

// --- Arithmetic with the network-order integer on the left ---

template <typename Right>
class Net32Arithmetic : public KovaTest {};
using RightOperands = testing::Types<KovaNet32, unsigned int, int, unsigned short, short>;
TYPED_TEST_SUITE(Net32Arithmetic, RightOperands);

/// The operand's 32 bits as unsigned number.
template <typename Right>
uint64_t Extended(uint32_t value) {
    return Bits(Cut<Right>(value));
}

template <>
uint64_t Extended<KovaNet32>(uint32_t value) {
    return value;
}

TYPED_TEST(Net32Arithmetic, IsUnsignedAndWraps) {
    ForEachArithmetic([](const std::string& symbol, auto op) {
        static_assert(std::is_same_v<KovaNet32, Result<decltype(op), KovaNet32, TypeParam>>);
        ForEachPair([&](uint32_t a, uint32_t b) {
            const uint64_t right = Extended<TypeParam>(b);
            if (right == 0 && (symbol == "/" || symbol == "%")) return;
            const KovaNet32 left(a);
            const KovaNet32 result = op(left, Operand<TypeParam>(b));
            EXPECT_EQ(op(uint64_t{a}, right) % 0x100000000, Value(result)) << a << symbol << b;
            EXPECT_EQ(a, Value(left));
        });
    });
}

TEST_F(Net32, DividesByANegativeNumberAsByALargeOne) {
    EXPECT_EQ(0u, Value(KovaNet32(7) / -1));
    EXPECT_EQ(7u, Value(KovaNet32(7) % -1));
    EXPECT_EQ(0u, Value(KovaNet32(7) / static_cast<short>(-1)));
    EXPECT_EQ(7u, Value(KovaNet32(7) % static_cast<short>(-1)));
    EXPECT_EQ(1u, Value(KovaNet32(-1) / -2));
    EXPECT_EQ(0x7FFFFFFCu, Value(KovaNet32(static_cast<unsigned>(-7)) / static_cast<short>(2)));
}

TEST_F(Net32, ArithmeticWrapsAt32Bits) {
    EXPECT_EQ(0u, Value(KovaNet32(0xFFFFFFFFu) + 1));
    EXPECT_EQ(0xFFFFFFFFu, Value(KovaNet32() - static_cast<unsigned short>(1)));
    EXPECT_EQ(1u, Value(KovaNet32(0xFFFFFFFFu) * KovaNet32(0xFFFFFFFFu)));
    EXPECT_EQ(0xFFFE0001u, Value(KovaNet32(0xFFFF) * static_cast<unsigned short>(0xFFFF)));
}

TEST_F(Net32, CharactersAndBoolOnTheRightComputeAsInt) {
    EXPECT_EQ(0x42u, Value(KovaNet32(1) + 'A'));
    EXPECT_EQ(0u, Value(KovaNet32(1) + static_cast<signed char>(-1)));
    EXPECT_EQ(0x100u, Value(KovaNet32(1) + static_cast<unsigned char>(0xFF)));
    EXPECT_EQ(2u, Value(KovaNet32(1) + true));
}

// --- Comparisons with the network-order integer on the left ---

template <typename Right>
class Net32Comparison : public KovaTest {};
using ComparedOperands = testing::Types<unsigned int, int, unsigned short, short, unsigned char, signed char>;
TYPED_TEST_SUITE(Net32Comparison, ComparedOperands);

TYPED_TEST(Net32Comparison, IsMadeInTheTypeOfTheOperand) {
    ForEachComparison([](const char* symbol, auto op) {
        static_assert(std::is_same_v<bool, Result<decltype(op), KovaNet32, TypeParam>>);
        ForEachPair([&](uint32_t a, uint32_t b) {
            EXPECT_EQ(op(Cut<TypeParam>(a), Cut<TypeParam>(b)), op(KovaNet32(a), Operand<TypeParam>(b)))
                << a << symbol << b;
        });
    });
}

TEST_F(Net32, TwoCompareAsUnsignedNumbers) {
    ForEachComparison([](const char* symbol, auto op) {
        static_assert(std::is_same_v<bool, Result<decltype(op), KovaNet32, KovaNet32>>);
        ForEachPair([&](uint32_t a, uint32_t b) {
            EXPECT_EQ(op(uint64_t{a}, uint64_t{b}), op(KovaNet32(a), KovaNet32(b))) << a << symbol << b;
        });
    });
}

TEST_F(Net32, OnlyTheLow16BitsCompareWithShort) {
    EXPECT_TRUE(KovaNet32(0x12345678u) == static_cast<unsigned short>(0x5678));
    EXPECT_FALSE(KovaNet32(0x12345678u) == 0x5678u);
    EXPECT_TRUE(KovaNet32(0x18000) < static_cast<short>(0));
    EXPECT_FALSE(KovaNet32(0x18000) < 0);
}

TEST_F(Net32, OnlyTheLow8BitsCompareWithCharacters) {
    const KovaNet32 net(0x100);
    for (int byte = 0; byte < 0x100; ++byte) {
        EXPECT_EQ(byte == 0, net == static_cast<unsigned char>(byte)) << byte;
        EXPECT_EQ(byte != 0, net != static_cast<unsigned char>(byte)) << byte;
        EXPECT_EQ(byte == 0, net == static_cast<signed char>(byte)) << byte;
    }
    EXPECT_TRUE(KovaNet32(0x7FFFFF80) < static_cast<signed char>(0));
    EXPECT_TRUE(KovaNet32(0x80) > static_cast<unsigned char>(0x7F));
}

TEST_F(Net32, PlainCharComparesAsInt) {
    EXPECT_TRUE(KovaNet32(0x41) == 'A');
    EXPECT_FALSE(KovaNet32(0x141) == 'A');
    EXPECT_TRUE(KovaNet32(0x141) == static_cast<unsigned char>('A'));
    EXPECT_TRUE(KovaNet32(0x141) > 'A');
    EXPECT_FALSE(KovaNet32(2) == true);
}

// --- A plain number on the left ---

template <typename Left>
class Net32Left : public KovaTest {};
using LeftOperands = testing::Types<unsigned int, int, unsigned short, short>;
TYPED_TEST_SUITE(Net32Left, LeftOperands);

TYPED_TEST(Net32Left, ComputesInItsTypeAndHasTheResult) {
    // In 64 bits, products of unsigned numbers need the sign bit.
    using Wide = std::conditional_t<std::is_signed_v<TypeParam>, int64_t, uint64_t>;
    ForEachArithmetic([](const std::string& symbol, auto op) {
        static_assert(std::is_same_v<TypeParam, Result<decltype(op), TypeParam, KovaNet32>>);
        ForEachPair([&](uint32_t a, uint32_t b) {
            const auto left = static_cast<Wide>(Cut<TypeParam>(a));
            const auto right = static_cast<Wide>(Cut<TypeParam>(b));
            if (right == 0 && (symbol == "/" || symbol == "%")) return;
            const int64_t result = op(Operand<TypeParam>(a), KovaNet32(b));
            EXPECT_EQ(Cut<TypeParam>(static_cast<uint64_t>(op(left, right))), result) << a << symbol << b;
        });
    });
}

TYPED_TEST(Net32Left, ComparesInItsType) {
    ForEachComparison([](const char* symbol, auto op) {
        static_assert(std::is_same_v<bool, Result<decltype(op), TypeParam, KovaNet32>>);
        ForEachPair([&](uint32_t a, uint32_t b) {
            EXPECT_EQ(op(Cut<TypeParam>(a), Cut<TypeParam>(b)), op(Operand<TypeParam>(a), KovaNet32(b)))
                << a << symbol << b;
        });
    });
}

TEST_F(Net32, SignedNumberOnTheLeftDividesSigned) {
    EXPECT_EQ(-3, static_cast<short>(-7) / KovaNet32(2));
    EXPECT_EQ(-1, static_cast<short>(-7) % KovaNet32(2));
    EXPECT_EQ(-7, 7 / KovaNet32(-1));
    EXPECT_EQ(0, 7 % KovaNet32(-1));
    EXPECT_EQ(0u, 7u / KovaNet32(-1));
    EXPECT_EQ(7, static_cast<unsigned short>(7) % KovaNet32(-1));
}

TEST_F(Net32, ResultWrapsInTheTypeOfTheLeftNumber) {
    const auto all_ones = static_cast<unsigned short>(0xFFFF);
    const auto least = static_cast<short>(-0x8000);
    EXPECT_EQ(0, all_ones + KovaNet32(1));
    EXPECT_EQ(1, all_ones * KovaNet32(0xFFFF)) << "the product needs 32 bits";
    EXPECT_EQ(0xFFFF, static_cast<unsigned short>(0) - KovaNet32(1));
    EXPECT_EQ(-0x8000, static_cast<short>(0x7FFF) + KovaNet32(1));
    EXPECT_EQ(-0x8000, least / KovaNet32(-1));
    EXPECT_EQ(0, least % KovaNet32(-1));
    EXPECT_EQ(INT32_MIN, INT32_MAX + KovaNet32(1));
    EXPECT_EQ(INT32_MAX, INT32_MIN - KovaNet32(1));
    EXPECT_EQ(1, INT32_MAX * KovaNet32(INT32_MAX));
    EXPECT_EQ(0u, 0xFFFFFFFFu + KovaNet32(1));
}

TEST_F(Net32, LeastIntDividedByMinusOneIsItself) {
    EXPECT_EQ(INT32_MIN, INT32_MIN / KovaNet32(-1));
    EXPECT_EQ(0, INT32_MIN % KovaNet32(-1));
}

TEST_F(Net32, NumberOnTheLeftSeesOnlyItsOwnBits) {
    EXPECT_TRUE(static_cast<unsigned short>(0x5678) == KovaNet32(0x12345678));
    EXPECT_TRUE(static_cast<short>(0) > KovaNet32(0x18000));
    EXPECT_TRUE(0 > KovaNet32(0x80000000u));
    EXPECT_TRUE(0u < KovaNet32(0x80000000u));
    EXPECT_EQ(0x5679, static_cast<unsigned short>(1) + KovaNet32(0x12345678));
}

template <typename Left>
class Net32LeftCharacter : public KovaTest {};
using Characters = testing::Types<char, unsigned char, signed char, bool>;
TYPED_TEST_SUITE(Net32LeftCharacter, Characters);

// Also where the language would swap the operands of == by itself.
TYPED_TEST(Net32LeftCharacter, IsAnInt) {
    ForEachComparison([](const char* symbol, auto op) {
        ForEachPair([&](uint32_t a, uint32_t b) {
            const auto left = static_cast<TypeParam>(a);
            EXPECT_EQ(op(int64_t{left}, Cut<int>(b)), op(left, KovaNet32(b))) << a << symbol << b;
        });
    });
    static_assert(std::is_same_v<int, Result<std::plus<>, TypeParam, KovaNet32>>);
    EXPECT_EQ(0x101, static_cast<TypeParam>(1) + KovaNet32(0x100));
    EXPECT_FALSE(static_cast<TypeParam>(0) == KovaNet32(0x100));
    EXPECT_TRUE(static_cast<TypeParam>(0) != KovaNet32(0x100));
}

// --- What there is not ---

template <typename Number>
class Net32Ambiguity : public KovaTest {};
using AmbiguousOperands =
    testing::Types<long, unsigned long, long long, unsigned long long, float, double, long double>;
TYPED_TEST_SUITE(Net32Ambiguity, AmbiguousOperands);

TYPED_TEST(Net32Ambiguity, NumberNeedsACastOnEitherSide) {
    const auto ambiguous = [](const char*, auto op) {
        static_assert(!kFits<decltype(op), KovaNet32, TypeParam>);
        static_assert(!kFits<decltype(op), TypeParam, KovaNet32>);
    };
    ForEachArithmetic(ambiguous);
    ForEachComparison(ambiguous);
}

template <typename Object, typename = void>
constexpr bool kIncrements = false;
template <typename Object>
constexpr bool kIncrements<Object, std::void_t<decltype(++std::declval<Object&>())>> = true;

template <typename Object, typename = void>
constexpr bool kAddsInPlace = false;
template <typename Object>
constexpr bool kAddsInPlace<Object, std::void_t<decltype(std::declval<Object&>() += 1)>> = true;

template <typename Object, typename = void>
constexpr bool kPrints = false;
template <typename Object>
constexpr bool
    kPrints<Object, std::void_t<decltype(std::declval<std::ostream&>() << std::declval<Object>())>> = true;

TEST_F(Net32, HasNoOtherOperators) {
    static_assert(kIncrements<int> && !kIncrements<KovaNet32>);
    static_assert(kAddsInPlace<int> && !kAddsInPlace<KovaNet32>);
    static_assert(kPrints<int> && !kPrints<KovaNet32>);
    static_assert(!std::is_invocable_v<std::negate<>, KovaNet32>);
    static_assert(!std::is_invocable_v<std::bit_not<>, KovaNet32>);
    static_assert(!kFits<std::bit_and<>, KovaNet32, unsigned int>);
    static_assert(!kFits<std::bit_or<>, KovaNet32, KovaNet32>);
    static_assert(!kFits<std::plus<>, KovaNet32, std::string>);
    static_assert(!kFits<std::multiplies<>, KovaNet32, const char*>);
    static_assert(!kFits<std::equal_to<>, KovaNet32, const char*>);
    static_assert(!kFits<std::equal_to<>, KovaNet32, std::nullptr_t>);
}

// --- The binary interface ---

void ExpectExported(const std::string& symbol) {
    void* const address = ::dlsym(RTLD_DEFAULT, symbol.c_str());
    Dl_info info{};
    ASSERT_TRUE(address != nullptr && ::dladdr(address, &info) != 0) << symbol;
    EXPECT_NE(std::string::npos, std::string(info.dli_fname).find("libkova")) << symbol;
}

/// The letters of types and operators in the names that the linker sees.
const std::vector<std::string> kArithmeticNames{"pl", "mi", "ml", "dv", "rm"};
const std::vector<std::string> kComparisonNames{"eq", "ne", "lt", "le", "gt", "ge"};
const std::vector<std::string> kNumberNames{"j", "i", "t", "s"};

TEST_F(Net32, OperatorsAreOrdinaryFunctionsOfTheLibrary) {
    for (const std::string& op : kArithmeticNames) {
        for (const char* right : {"RKS_", "j", "i", "t", "s"})
            ExpectExported("_ZNK9KovaNet32" + op + "E" + right);
        for (const std::string& left : kNumberNames) ExpectExported("_Z" + op + left + "RK9KovaNet32");
    }
    for (const std::string& op : kComparisonNames) {
        for (const char* right : {"RKS_", "j", "i", "t", "s", "h", "a"}) {
            ExpectExported("_ZNK9KovaNet32" + op + "E" + right);
        }
        for (const std::string& left : kNumberNames) ExpectExported("_Z" + op + left + "RK9KovaNet32");
    }
}

TEST_F(Net32, ConstructorsAndConversionsAreOrdinaryFunctionsOfTheLibrary) {
    for (const char* argument : {"v", "RKS_", "RKm", "RKl", "RKj", "RKi", "RKt", "RKs"}) {
        ExpectExported(std::string("_ZN9KovaNet32C1E") + argument);
        ExpectExported(std::string("_ZN9KovaNet32C2E") + argument);
    }
    for (const char* argument : {"RKS_", "j", "i", "t", "s"}) {
        ExpectExported(std::string("_ZN9KovaNet32aSE") + argument);
    }
    for (const char* result : {"b", "a", "h", "s", "t", "i", "j", "l", "m"}) {
        ExpectExported(std::string("_ZNK9KovaNet32cv") + result + "Ev");
    }
    ExpectExported("_ZN9KovaNet32D1Ev");
    ExpectExported("_ZN9KovaNet32D2Ev");
}

}  // namespace
