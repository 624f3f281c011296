#include "support/leak_check.h"

#include <kova/id.h>

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <iomanip>
#include <limits>
#include <sstream>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

constexpr int32_t kMax = std::numeric_limits<int32_t>::max();
constexpr int32_t kMin = std::numeric_limits<int32_t>::min();

uint32_t Bits(const KovaId& id) { return static_cast<uint32_t>(id.GetId()); }

class Id : public KovaTest {};

// --- A plain value ---

template <typename Kind>
class IdKind : public KovaTest {};
using Kinds = testing::Types<KovaCageId, KovaNodeId, KovaCCId, KovaIfId, KovaNetId, KovaSegId, KovaPortId,
                             KovaJackId, KovaPowerPortId, KovaPihId, KovaRoleId>;
TYPED_TEST_SUITE(IdKind, Kinds, );

TEST_F(Id, IsOne32BitField) {
    static_assert(sizeof(KovaId) == 4 && std::is_standard_layout_v<KovaId>);
    static_assert(!std::is_polymorphic_v<KovaId>);
    static_assert(std::is_same_v<int32_t, decltype(KovaId().GetId())>);
    EXPECT_EQ(-1, KovaId().GetId());
}

TYPED_TEST(IdKind, AddsNothingToIt) {
    static_assert(sizeof(TypeParam) == 4 && std::is_standard_layout_v<TypeParam>);
    static_assert(!std::is_polymorphic_v<TypeParam>);
    static_assert(std::is_convertible_v<TypeParam*, KovaId*>);
    EXPECT_EQ(-1, TypeParam().GetId());
}

// --- Names that services link to ---

bool IsExported(const std::string& symbol) { return ::dlsym(RTLD_DEFAULT, symbol.c_str()) != nullptr; }

const char* const kArithmetic[] = {"pl", "mi", "ml", "dv", "rm"};
const char* const kComparison[] = {"eq", "ne", "lt", "gt", "le", "ge"};
/// int, unsigned int, long, unsigned long
const char* const kNumbers[] = {"i", "j", "l", "m"};
const std::string kString = "NSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE";

TEST_F(Id, ExportsItsConstructorsAssignmentsAndConversions) {
    for (const std::string& parameter :
         std::vector<std::string>{"v", "RKi", "RKj", "RKl", "RKm", "RKS_", "RK" + kString}) {
        EXPECT_TRUE(IsExported("_ZN6KovaIdC1E" + parameter)) << parameter;
        EXPECT_TRUE(IsExported("_ZN6KovaIdC2E" + parameter)) << parameter;
    }
    for (const char* parameter : {"i", "j", "l", "m", "RKS_"}) {
        EXPECT_TRUE(IsExported(std::string("_ZN6KovaIdaSE") + parameter)) << parameter;
    }
    for (const std::string& type : std::vector<std::string>{"l", "i", "m", "j", "c", "h", "b", kString}) {
        EXPECT_TRUE(IsExported("_ZNK6KovaIdcv" + type + "Ev")) << type;
    }
    for (const char* symbol : {"_ZNK6KovaId5GetIdEv", "_ZN6KovaIdppEv", "_ZN6KovaIdmmEv", "_ZN6KovaIdppEi",
                               "_ZN6KovaIdmmEi", "_ZNK9KovaPihIdcvtEv", "_ZN8KovaIfIdaSERKS_"}) {
        EXPECT_TRUE(IsExported(symbol)) << symbol;
    }
    for (const char* name : {"10KovaPortId", "10KovaJackId", "15KovaPowerPortId"}) {
        EXPECT_TRUE(IsExported("_ZNK" + std::string(name) + "cv" + kString + "Ev")) << name;
    }
}

TEST_F(Id, ExportsEveryOperatorForEveryOperandType) {
    for (const std::string op : kArithmetic) {
        EXPECT_TRUE(IsExported("_ZNK6KovaId" + op + "ERKS_")) << op;
        for (const std::string number : kNumbers) {
            EXPECT_TRUE(IsExported("_ZNK6KovaId" + op + "E" + number)) << op << " " << number;
            EXPECT_TRUE(IsExported("_Z" + op + number + "RK6KovaId")) << op << " " << number;
        }
    }
    for (const std::string op : kComparison) {
        EXPECT_TRUE(IsExported("_ZNK6KovaId" + op + "ERKS_")) << op;
        for (const std::string number : kNumbers) {
            const bool is_signed = number == "i" || number == "l";
            EXPECT_EQ(is_signed, IsExported("_ZNK6KovaId" + op + "E" + number)) << op << " " << number;
            EXPECT_TRUE(IsExported("_Z" + op + number + "RK6KovaId")) << op << " " << number;
        }
    }
}

TEST_F(Id, ExportsTheKindsAndTheirPrintedForms) {
    for (const std::string name :
         {"10KovaCageId", "10KovaNodeId", "8KovaCCId", "8KovaIfId", "9KovaNetId", "9KovaSegId",
          "10KovaPortId", "10KovaJackId", "15KovaPowerPortId", "9KovaPihId", "10KovaRoleId"}) {
        for (const std::string member :
             {"C1Ev", "C1ERKi", "C1ERKj", "C1ERKl", "C1ERKm", "C1ERK6KovaId", "D1Ev", "C2Ev", "C2ERKi",
              "C2ERKj", "C2ERKl", "C2ERKm", "C2ERK6KovaId", "D2Ev"}) {
            EXPECT_TRUE(IsExported("_ZN" + name + member)) << name << " " << member;
        }
    }
    for (const std::string name : {"6KovaId", "10KovaRoleId", "8KovaCCId", "10KovaNodeId", "10KovaCageId",
                                   "15KovaPowerPortId", "10KovaJackId", "10KovaPortId", "9KovaPihId"}) {
        EXPECT_TRUE(IsExported("_ZlsRSoRK" + name)) << name;
    }
    for (const std::string name : {"8KovaIfId", "9KovaNetId", "9KovaSegId"}) {
        EXPECT_FALSE(IsExported("_ZlsRSoRK" + name)) << name << " prints as KovaId";
    }
}

// --- Which calls compile ---

template <typename Result, typename Left, typename Right>
constexpr bool kArithmeticGives =
    std::is_same_v<Result, decltype(std::declval<Left>() + std::declval<Right>())>&&
        std::is_same_v<Result, decltype(std::declval<Left>() - std::declval<Right>())>&&
            std::is_same_v<Result, decltype(std::declval<Left>() * std::declval<Right>())>&&
                std::is_same_v<Result, decltype(std::declval<Left>() / std::declval<Right>())>&&
                    std::is_same_v<Result, decltype(std::declval<Left>() % std::declval<Right>())>;

template <typename Left, typename Right>
constexpr bool kComparisonGivesBool =
    std::is_same_v<bool, decltype(std::declval<Left>() == std::declval<Right>())>&&
        std::is_same_v<bool, decltype(std::declval<Left>() != std::declval<Right>())>&&
            std::is_same_v<bool, decltype(std::declval<Left>() < std::declval<Right>())>&&
                std::is_same_v<bool, decltype(std::declval<Left>() > std::declval<Right>())>&&
                    std::is_same_v<bool, decltype(std::declval<Left>() <= std::declval<Right>())>&&
                        std::is_same_v<bool, decltype(std::declval<Left>() >= std::declval<Right>())>;

/// An identifier of type `Type`, which may be a reference and `const`, serves in every expression.
template <typename Type>
constexpr bool ServesInExpressions() {
    static_assert(kArithmeticGives<KovaId, Type, int> && kArithmeticGives<int, int, Type>);
    static_assert(kArithmeticGives<KovaId, Type, unsigned int>);
    static_assert(kArithmeticGives<unsigned int, unsigned int, Type>);
    static_assert(kArithmeticGives<KovaId, Type, long> && kArithmeticGives<long, long, Type>);
    static_assert(kArithmeticGives<KovaId, Type, unsigned long>);
    static_assert(kArithmeticGives<unsigned long, unsigned long, Type>);
    static_assert(kArithmeticGives<KovaId, Type, Type>);
    static_assert(kArithmeticGives<KovaId, Type, KovaId> && kArithmeticGives<KovaId, KovaId, Type>);
    static_assert(kArithmeticGives<KovaId, Type, const KovaPihId&>);
    // What the language promotes to int.
    static_assert(kArithmeticGives<KovaId, Type, short> && kArithmeticGives<int, char, Type>);

    static_assert(kComparisonGivesBool<Type, int> && kComparisonGivesBool<int, Type>);
    static_assert(kComparisonGivesBool<Type, long> && kComparisonGivesBool<long, Type>);
    static_assert(kComparisonGivesBool<unsigned int, Type> && kComparisonGivesBool<unsigned long, Type>);
    static_assert(kComparisonGivesBool<Type, Type>);
    static_assert(kComparisonGivesBool<Type, KovaId> && kComparisonGivesBool<KovaId, Type>);
    static_assert(kComparisonGivesBool<Type, const KovaPihId&>);
    static_assert(kComparisonGivesBool<Type, unsigned char> && kComparisonGivesBool<short, Type>);
    return true;
}

TEST_F(Id, ServesInExpressions) {
    static_assert(ServesInExpressions<KovaId>());
    static_assert(ServesInExpressions<KovaId&>());
    static_assert(ServesInExpressions<const KovaId&>());
}

TYPED_TEST(IdKind, ServesInExpressions) {
    static_assert(ServesInExpressions<TypeParam>());
    static_assert(ServesInExpressions<TypeParam&>());
    static_assert(ServesInExpressions<const TypeParam&>());
}

template <typename Left, typename Right, typename = void>
struct HasOrder : std::false_type {};
template <typename Left, typename Right>
struct HasOrder<Left, Right, std::void_t<decltype(std::declval<Left>() < std::declval<Right>())>>
    : std::true_type {};

template <typename Left, typename Right, typename = void>
struct HasSum : std::false_type {};
template <typename Left, typename Right>
struct HasSum<Left, Right, std::void_t<decltype(std::declval<Left>() + std::declval<Right>())>>
    : std::true_type {};

TEST_F(Id, IsNotOrderedAgainstAnUnsignedNumberOnTheRight) {
    static_assert(HasOrder<KovaId, int>::value);
    static_assert(!HasOrder<KovaId, unsigned int>::value);
    static_assert(!HasOrder<KovaId, unsigned long>::value);
}

TEST_F(Id, TakesNoPartInArithmeticWithWiderNumbers) {
    static_assert(!HasSum<KovaId, double>::value && !HasSum<double, KovaId>::value);
    static_assert(!HasSum<KovaId, long long>::value && !HasSum<long long, KovaId>::value);
}

TEST_F(Id, ConvertsFromAndToNumbersAndStringsWithoutACast) {
    static_assert(std::is_convertible_v<int, KovaId> && std::is_convertible_v<const KovaId&, int>);
    static_assert(std::is_convertible_v<unsigned int, KovaId>);
    static_assert(std::is_convertible_v<const KovaId&, unsigned int>);
    static_assert(std::is_convertible_v<long, KovaId> && std::is_convertible_v<const KovaId&, long>);
    static_assert(std::is_convertible_v<unsigned long, KovaId>);
    static_assert(std::is_convertible_v<const KovaId&, unsigned long>);
    static_assert(std::is_convertible_v<char, KovaId> && std::is_convertible_v<const KovaId&, char>);
    static_assert(std::is_convertible_v<const KovaId&, unsigned char>);
    static_assert(std::is_convertible_v<const KovaId&, bool>);
    static_assert(std::is_convertible_v<std::string, KovaId>);
    static_assert(std::is_convertible_v<const KovaId&, std::string>);
    static_assert(std::is_constructible_v<KovaId, const char*>);
}

TEST_F(Id, OnlyAPihConvertsTo16Bits) {
    static_assert(std::is_convertible_v<const KovaPihId&, unsigned short>);
    static_assert(!std::is_convertible_v<const KovaId&, unsigned short>);
    static_assert(!std::is_convertible_v<const KovaCCId&, unsigned short>);
}

// --- Numbers that an identifier is made of and computes with ---

/// 32-bit patterns around everything that matters.
const uint32_t kEdges[] = {0,          1,          2,          3,          4,          5,
                           7,          26,         0x7F,       0x80,       0xFF,       0x100,
                           0x7FFF,     0x8000,     0xFFFF,     0x10000,    0x12345678, 0x7FFFFFFE,
                           0x7FFFFFFF, 0x80000000, 0x80000001, 0xDEADBEEF, 0xFFFFFF00, 0xFFFFFFF9,
                           0xFFFFFFFC, 0xFFFFFFFD, 0xFFFFFFFE, 0xFFFFFFFF};

/// Every number of a type that has these low 32 bits, as far as it matters.
template <typename Number>
std::vector<Number> NumbersOf(uint32_t bits) {
    std::vector<Number> numbers{static_cast<Number>(static_cast<int32_t>(bits))};
    if constexpr (sizeof(Number) > 4) {
        numbers.push_back(static_cast<Number>(bits));
        numbers.push_back(static_cast<Number>(0x1234567800000000u | bits));
        numbers.push_back(static_cast<Number>(0x8000000000000000u | bits));
    }
    return numbers;
}

template <typename Number>
class IdWith : public KovaTest {};
using Numbers = testing::Types<int, unsigned int, long, unsigned long>;
TYPED_TEST_SUITE(IdWith, Numbers, );

TYPED_TEST(IdWith, HoldsTheLow32Bits) {
    for (const uint32_t bits : kEdges) {
        for (const TypeParam number : NumbersOf<TypeParam>(bits)) {
            EXPECT_EQ(bits, Bits(KovaId(number))) << number;
        }
    }
}

TYPED_TEST(IdWith, IsAssignedTheLow32Bits) {
    for (const uint32_t bits : kEdges) {
        for (const TypeParam number : NumbersOf<TypeParam>(bits)) {
            KovaId id(5);
            EXPECT_EQ(&id, &(id = number));
            EXPECT_EQ(bits, Bits(id)) << number;
        }
    }
}

TYPED_TEST(IdWith, ConvertsWithTheTargetsValue) {
    for (const uint32_t bits : kEdges) {
        const KovaId id(bits);
        const TypeParam number = id;
        if (std::is_signed_v<TypeParam>) {
            EXPECT_EQ(static_cast<TypeParam>(static_cast<int32_t>(bits)), number);
        } else {
            EXPECT_EQ(static_cast<TypeParam>(bits), number) << "no ones above the 32 bits";
        }
    }
}

/// 32-bit arithmetic on bit patterns: signed through sign and magnitude, or unsigned.
class Reference {
  public:
    Reference(bool is_signed, uint32_t a, uint32_t b)
        : m_IsSigned(is_signed), m_A(a), m_B(b), m_MinusA(IsNegative(a)), m_MinusB(IsNegative(b)) {}

    uint32_t Sum() const { return m_A + m_B; }
    uint32_t Difference() const { return m_A - m_B; }
    uint32_t Product() const { return m_A * m_B; }
    uint32_t Quotient() const {
        return Signed(m_MinusA != m_MinusB, Magnitude(m_MinusA, m_A) / Magnitude(m_MinusB, m_B));
    }
    uint32_t Remainder() const {
        return Signed(m_MinusA, Magnitude(m_MinusA, m_A) % Magnitude(m_MinusB, m_B));
    }
    bool HasZeroDivisor() const { return m_B == 0; }
    bool IsEqual() const { return m_A == m_B; }
    bool IsLess() const { return m_MinusA != m_MinusB ? m_MinusA : m_A < m_B; }

  private:
    bool IsNegative(uint32_t bits) const { return m_IsSigned && bits >> 31 == 1; }
    static uint32_t Magnitude(bool minus, uint32_t bits) { return minus ? 0 - bits : bits; }
    static uint32_t Signed(bool minus, uint32_t magnitude) { return minus ? 0 - magnitude : magnitude; }

    bool m_IsSigned;
    uint32_t m_A;
    uint32_t m_B;
    bool m_MinusA;
    bool m_MinusB;
};

template <typename Left, typename Right>
void ExpectComparison(const Reference& reference, Left left, Right right) {
    EXPECT_EQ(reference.IsEqual(), left == right) << left << " == " << right;
    EXPECT_EQ(!reference.IsEqual(), left != right) << left << " != " << right;
    EXPECT_EQ(reference.IsLess(), left < right) << left << " < " << right;
    EXPECT_EQ(reference.IsLess() || reference.IsEqual(), left <= right) << left << " <= " << right;
    EXPECT_EQ(!reference.IsLess() && !reference.IsEqual(), left > right) << left << " > " << right;
    EXPECT_EQ(!reference.IsLess(), left >= right) << left << " >= " << right;
}

template <typename Number>
Number FromBits(uint32_t bits) {
    if constexpr (std::is_signed_v<Number>) {
        return static_cast<int32_t>(bits);
    } else {
        return bits;
    }
}

int32_t Plain(const KovaId& id) { return id.GetId(); }
template <typename Number, typename = std::enable_if_t<std::is_arithmetic_v<Number>>>
Number Plain(Number number) {
    return number;
}

template <typename Left, typename Right>
void ExpectArithmetic(const Reference& reference, Left left, Right right) {
    using Number = decltype(Plain(left + right));
    EXPECT_EQ(FromBits<Number>(reference.Sum()), Plain(left + right)) << left << " + " << right;
    EXPECT_EQ(FromBits<Number>(reference.Difference()), Plain(left - right)) << left << " - " << right;
    EXPECT_EQ(FromBits<Number>(reference.Product()), Plain(left * right)) << left << " * " << right;
    if (reference.HasZeroDivisor()) return;
    EXPECT_EQ(FromBits<Number>(reference.Quotient()), Plain(left / right)) << left << " / " << right;
    EXPECT_EQ(FromBits<Number>(reference.Remainder()), Plain(left % right)) << left << " % " << right;
}

/// Every pair of edges as an identifier and a number of type `Number`, with the reference for them in the
/// order that `is_left` gives: the identifier on the left or on the right.
template <typename Number, typename Check>
void ForEachPair(bool is_left, Check check) {
    for (const uint32_t a : kEdges) {
        for (const uint32_t b : kEdges) {
            const KovaId id(is_left ? a : b);
            for (const Number number : NumbersOf<Number>(is_left ? b : a)) {
                check(Reference(std::is_signed_v<Number>, a, b), id, number);
                EXPECT_EQ(is_left ? a : b, Bits(id));
            }
        }
    }
}

TYPED_TEST(IdWith, ComputesOnTheLeft) {
    ForEachPair<TypeParam>(true, [](const Reference& reference, const KovaId& id, TypeParam number) {
        ExpectArithmetic<const KovaId&>(reference, id, number);
    });
}

TYPED_TEST(IdWith, ComputesOnTheRightInTheNumbersType) {
    ForEachPair<TypeParam>(false, [](const Reference& reference, const KovaId& id, TypeParam number) {
        ExpectArithmetic<TypeParam, const KovaId&>(reference, number, id);
    });
}

TYPED_TEST(IdWith, ComparesOnTheRightInTheNumbersType) {
    ForEachPair<TypeParam>(false, [](const Reference& reference, const KovaId& id, TypeParam number) {
        ExpectComparison<TypeParam, const KovaId&>(reference, number, id);
    });
}

template <typename Number>
class IdWithSigned : public KovaTest {};
using SignedNumbers = testing::Types<int, long>;
TYPED_TEST_SUITE(IdWithSigned, SignedNumbers, );

TYPED_TEST(IdWithSigned, ComparesOnTheLeft) {
    ForEachPair<TypeParam>(true, [](const Reference& reference, const KovaId& id, TypeParam number) {
        ExpectComparison<const KovaId&>(reference, id, number);
    });
}

TEST_F(Id, ComputesAndComparesWithAnotherAsSigned) {
    ForEachPair<int>(true, [](const Reference& reference, const KovaId& id, int number) {
        const KovaId other(number);
        ExpectArithmetic<const KovaId&, const KovaId&>(reference, id, other);
        ExpectComparison<const KovaId&, const KovaId&>(reference, id, other);
        EXPECT_EQ(number, other.GetId());
    });
}

TEST_F(Id, ComputesAndComparesKindsWithEachOther) {
    const KovaNodeId node(-7);
    const KovaSegId segment(2);
    EXPECT_EQ(-5, (node + segment).GetId());
    EXPECT_EQ(-3, (node / segment).GetId());
    EXPECT_EQ(-3, -7 / segment);
    EXPECT_TRUE(node < segment);
    EXPECT_FALSE(node == segment);
    EXPECT_TRUE(KovaNodeId(4) == KovaSegId(4));
}

TEST_F(Id, DividesSignedOrUnsignedByTheNumbersType) {
    EXPECT_EQ(0u, 7u / KovaId(-1));
    EXPECT_EQ(-7, 7 / KovaId(-1));
    EXPECT_EQ(0ul, 7ul / KovaId(-1));
    EXPECT_EQ(-7l, 7l / KovaId(-1));
    EXPECT_EQ(0x7FFFFFFF, (KovaId(-2) / 2u).GetId());
    EXPECT_EQ(-1, (KovaId(-2) / 2).GetId());
    EXPECT_EQ(0x7FFFFFFF, (KovaId(-2) / 2ul).GetId());
}

TEST_F(Id, DividingTheSmallestByMinusOneWraps) {
    const KovaId smallest(kMin);
    EXPECT_EQ(kMin, (smallest / -1).GetId());
    EXPECT_EQ(0, (smallest % -1).GetId());
    EXPECT_EQ(kMin, (smallest / KovaId(-1)).GetId());
    EXPECT_EQ(0, (smallest % KovaId(-1)).GetId());
    EXPECT_EQ(kMin, (smallest / -1l).GetId());
    EXPECT_EQ(kMin, kMin / KovaId(-1));
    EXPECT_EQ(0, kMin % KovaId(-1));
    EXPECT_EQ(long{kMin}, long{kMin} / KovaId(-1));
}

TEST_F(Id, NotSetIsTheLargestToUnsignedNumbers) {
    EXPECT_TRUE(0u < KovaId());
    EXPECT_TRUE(0ul < KovaId());
    EXPECT_TRUE(0xFFFFFFFFu == KovaId());
    EXPECT_TRUE(0xFFFFFFFFul == KovaId());
    EXPECT_TRUE(0 > KovaId());
    EXPECT_TRUE(0l > KovaId());
}

TEST_F(Id, ArithmeticAppliesNoRange) {
    const KovaCCId cc(1);
    EXPECT_EQ(8, (cc + 7).GetId());
    EXPECT_EQ(2, (cc + cc).GetId());
    EXPECT_EQ(-1, KovaCCId(cc + 7).GetId()) << "the constructor does";
}

// --- Conversions ---

TEST_F(Id, ConvertsToCharactersWithTheLow8Bits) {
    for (const uint32_t bits : kEdges) {
        const KovaId id(bits);
        const char character = id;
        const unsigned char byte = id;
        EXPECT_EQ(bits & 0xFF, byte);
        EXPECT_EQ(byte, static_cast<unsigned char>(character));
    }
}

TEST_F(Id, IsTrueWhenItIsSet) {
    EXPECT_FALSE(bool(KovaId()));
    EXPECT_TRUE(bool(KovaId(0)));
    for (const uint32_t bits : kEdges) EXPECT_EQ(bits != 0xFFFFFFFF, KovaId(bits) ? true : false);
    EXPECT_TRUE(!KovaCCId(2));
}

TEST_F(Id, PihConvertsToItsLow16Bits) {
    for (const uint32_t bits : kEdges) {
        const unsigned short low = KovaPihId(bits);
        EXPECT_EQ(bits & 0xFFFF, low);
    }
    const int whole = KovaPihId(0x12345);
    EXPECT_EQ(0x12345, whole) << "an int takes all of it";
}

TEST_F(Id, StringIsTheNumberInDecimal) {
    for (const auto& [id, text] : std::vector<std::pair<int32_t, std::string>>{
             {0, "0"}, {-1, "-1"}, {7, "7"}, {26, "26"}, {kMax, "2147483647"}, {kMin, "-2147483648"}}) {
        EXPECT_EQ(text, std::string(KovaId(id)));
        EXPECT_EQ(text, std::string(KovaCageId(id)));
        EXPECT_EQ(text, std::string(KovaNodeId(id)));
        EXPECT_EQ(text, std::string(KovaIfId(id)));
        EXPECT_EQ(text, std::string(KovaNetId(id)));
        EXPECT_EQ(text, std::string(KovaSegId(id)));
        EXPECT_EQ(text, std::string(KovaPihId(id)));
    }
    EXPECT_EQ("1", std::string(KovaCCId(1)));
    EXPECT_EQ("-1", std::string(KovaCCId(2)));
    EXPECT_EQ("3", std::string(KovaRoleId(3)));
    EXPECT_EQ("-1", std::string(KovaRoleId(4)));
    const std::string converted = KovaId(5);
    EXPECT_EQ("5", converted);
}

TEST_F(Id, StringOfPortsHasTwoDigits) {
    for (const auto& [id, text] : std::vector<std::pair<int32_t, std::string>>{{5, "05"},
                                                                               {0, "00"},
                                                                               {12, "12"},
                                                                               {123, "123"},
                                                                               {-1, "-01"},
                                                                               {-12, "-12"},
                                                                               {kMax, "2147483647"},
                                                                               {kMin, "-2147483648"}}) {
        EXPECT_EQ(text, std::string(KovaPortId(id)));
        EXPECT_EQ("J" + text, std::string(KovaJackId(id)));
        EXPECT_EQ("J" + text, std::string(KovaPowerPortId(id))) << "with the jack's letter";
    }
    const std::string converted = KovaPowerPortId(5);
    EXPECT_EQ("J05", converted);
}

TEST_F(Id, StringIsThatOfTheTypeAtTheCall) {
    const KovaJackId jack(5);
    const KovaId& id = jack;
    EXPECT_EQ("5", std::string(id));
}

// --- From text ---

TEST_F(Id, ReadsTextAsStrtolDoes) {
    for (const auto& [text, id] : std::vector<std::pair<std::string, int32_t>>{{"0x10", 16},
                                                                               {"0x1f", 31},
                                                                               {"0X1F", 31},
                                                                               {"010", 8},
                                                                               {"10", 10},
                                                                               {"0", 0},
                                                                               {" \t\n 12", 12},
                                                                               {"+5", 5},
                                                                               {"-5", -5},
                                                                               {" -0x10", -16},
                                                                               {"12 13", 12},
                                                                               {"7up", 7},
                                                                               {"08", 0},
                                                                               {"0xg", 0},
                                                                               {"", 0},
                                                                               {" ", 0},
                                                                               {"-", 0},
                                                                               {"abc", 0},
                                                                               {"- 5", 0}}) {
        EXPECT_EQ(id, KovaId(text).GetId()) << '"' << text << '"';
        EXPECT_EQ(id, KovaId(text.c_str()).GetId()) << '"' << text << '"';
    }
    EXPECT_TRUE(bool(KovaId("abc"))) << "set, to 0";
}

TEST_F(Id, ReadsTextUpToItsFirstZero) { EXPECT_EQ(1, KovaId(std::string("1\0002", 3)).GetId()); }

TEST_F(Id, ReadsTooLargeNumbersAsTheNearest) {
    for (const char* text : {"2147483647", "2147483648", "4294967295", "4294967296", "99999999999",
                             "0x80000000", "99999999999999999999999"}) {
        EXPECT_EQ(kMax, KovaId(text).GetId()) << text;
    }
    for (const char* text : {"-2147483648", "-2147483649", "-4294967297", "-99999999999", "-0x80000001",
                             "-99999999999999999999999"}) {
        EXPECT_EQ(kMin, KovaId(text).GetId()) << text;
    }
    EXPECT_EQ(kMax - 1, KovaId("2147483646").GetId());
    EXPECT_EQ(kMin + 1, KovaId("-2147483647").GetId());
}

TEST_F(Id, ReadingTextKeepsErrno) {
    errno = EBADF;
    EXPECT_EQ(kMax, KovaId("99999999999999999999999").GetId());
    EXPECT_EQ(EBADF, errno);
}

TEST_F(Id, KindsReadTextThroughIt) {
    EXPECT_EQ(26, KovaCageId(std::string("0x1a")).GetId());
    EXPECT_EQ(1, KovaCCId(std::string("1")).GetId());
    EXPECT_EQ(-1, KovaCCId(std::string("2")).GetId());
    KovaCCId cc;
    cc = std::string("2");
    EXPECT_EQ(2, cc.GetId());
}

// --- Increment and decrement ---

TEST_F(Id, StepsByOneAndReturnsItself) {
    KovaId id(1);
    EXPECT_EQ(&id, &++id);
    EXPECT_EQ(2, id.GetId());
    EXPECT_EQ(&id, &--id);
    EXPECT_EQ(1, id.GetId());
}

TEST_F(Id, PostfixReturnsTheChangedObject) {
    static_assert(std::is_same_v<KovaId&, decltype(std::declval<KovaId&>()++)>);
    static_assert(std::is_same_v<KovaId&, decltype(std::declval<KovaId&>()--)>);
    KovaId id(1);
    EXPECT_EQ(&id, &id++);
    const KovaId second = id--;
    EXPECT_EQ(1, second.GetId());
    const KovaId third = id++;
    EXPECT_EQ(2, third.GetId());
    EXPECT_EQ(2, id.GetId());
}

TEST_F(Id, StepsWrap) {
    KovaId id(kMax);
    EXPECT_EQ(kMin, (++id).GetId());
    EXPECT_EQ(kMax, (--id).GetId());
    EXPECT_EQ(kMin, (id++).GetId());
    EXPECT_EQ(kMax, (id--).GetId());
}

TEST_F(Id, StepsApplyNoRange) {
    KovaCCId cc(1);
    ++cc;
    EXPECT_EQ(2, cc.GetId());
    cc++;
    EXPECT_EQ(3, cc.GetId());
}

// --- Kinds: constructors, ranges, copies, assignment ---

template <typename Kind>
int32_t Ranged(uint32_t bits) {
    const auto id = static_cast<int32_t>(bits);
    if (std::is_same_v<Kind, KovaCCId>) return id == 0 || id == 1 ? id : -1;
    if (std::is_same_v<Kind, KovaRoleId>) return id == 0 || id == 1 || id == 2 || id == 3 ? id : -1;
    return id;
}

template <typename Kind, typename Number>
void ExpectRangeOfConstructor() {
    static_assert(std::is_convertible_v<Number, Kind>);
    for (const uint32_t bits : kEdges) {
        for (const Number number : NumbersOf<Number>(bits)) {
            EXPECT_EQ(Ranged<Kind>(bits), Kind(number).GetId()) << number;
        }
    }
}

TYPED_TEST(IdKind, AppliesItsRangeToNumbers) {
    ExpectRangeOfConstructor<TypeParam, int>();
    ExpectRangeOfConstructor<TypeParam, unsigned int>();
    ExpectRangeOfConstructor<TypeParam, long>();
    ExpectRangeOfConstructor<TypeParam, unsigned long>();
}

TYPED_TEST(IdKind, AppliesItsRangeToOtherKinds) {
    for (const uint32_t bits : kEdges) {
        EXPECT_EQ(Ranged<TypeParam>(bits), TypeParam(KovaId(bits)).GetId());
        if (!std::is_same_v<TypeParam, KovaNodeId>) {
            EXPECT_EQ(Ranged<TypeParam>(bits), TypeParam(KovaNodeId(bits)).GetId());
        }
        const TypeParam converted = KovaId(bits);
        EXPECT_EQ(Ranged<TypeParam>(bits), converted.GetId());
    }
}

TYPED_TEST(IdKind, IsAssignedAnyNumber) {
    for (const uint32_t bits : kEdges) {
        TypeParam id;
        KovaId& assigned = id = static_cast<int>(bits);
        EXPECT_EQ(&id, &assigned);
        EXPECT_EQ(bits, Bits(id));
        for (const long number : NumbersOf<long>(bits)) EXPECT_EQ(bits, Bits(TypeParam() = number));
        EXPECT_EQ(bits, Bits(TypeParam() = bits));
        EXPECT_EQ(bits, Bits(TypeParam() = static_cast<unsigned long>(bits)));
        EXPECT_EQ(bits, Bits(TypeParam() = KovaId(bits)));
    }
}

TYPED_TEST(IdKind, IsCopiedAndAssignedToItsKindAsItIs) {
    TypeParam seven;
    seven = 7;
    const TypeParam copy(seven);
    EXPECT_EQ(7, copy.GetId());
    TypeParam assigned(1);
    TypeParam& result = assigned = seven;
    EXPECT_EQ(&assigned, &result);
    EXPECT_EQ(7, assigned.GetId());
    const TypeParam& same = assigned;
    assigned = same;
    EXPECT_EQ(7, assigned.GetId());
}

TEST_F(Id, CcKeepsZeroAndOne) {
    EXPECT_EQ(-1, KovaCCId(2).GetId());
    EXPECT_EQ(1, KovaCCId(1).GetId());
    EXPECT_EQ(0, KovaCCId(0).GetId());
    EXPECT_EQ(-1, KovaCCId(-5).GetId());
}

TEST_F(Id, RoleKeepsZeroToThree) {
    EXPECT_EQ(-1, KovaRoleId(-2).GetId());
    EXPECT_EQ(0, KovaRoleId(0).GetId());
    EXPECT_EQ(3, KovaRoleId(3).GetId());
    EXPECT_EQ(-1, KovaRoleId(4).GetId());
}

TEST_F(Id, AKindOutOfRangeByAssignmentIsStoppedByAnotherKindsConstructor) {
    KovaCCId cc;
    cc = 2;
    EXPECT_EQ(2, KovaNodeId(cc).GetId());
    EXPECT_EQ(2, KovaRoleId(cc).GetId());
    cc = KovaNodeId(9);
    EXPECT_EQ(9, cc.GetId());
    EXPECT_EQ(-1, KovaRoleId(cc).GetId());
    EXPECT_EQ(-1, KovaCCId(static_cast<const KovaId&>(cc)).GetId());
}

// --- Printed forms ---

template <typename Kind>
std::string Printed(const Kind& id) {
    std::ostringstream stream;
    EXPECT_EQ(&stream, &(stream << id));
    return stream.str();
}

template <typename Kind>
void ExpectDecimal() {
    EXPECT_EQ("-1", Printed(Kind()));
    EXPECT_EQ("0", Printed(Kind(0)));
    EXPECT_EQ("26", Printed(Kind(26)));
    EXPECT_EQ("2147483647", Printed(Kind(kMax)));
    EXPECT_EQ("-2147483648", Printed(Kind(kMin)));
}

TEST_F(Id, PrintsInDecimal) {
    ExpectDecimal<KovaId>();
    ExpectDecimal<KovaIfId>();
    ExpectDecimal<KovaNetId>();
    ExpectDecimal<KovaSegId>();
}

TEST_F(Id, CagePrintsThreeLettersOrHexadecimal) {
    EXPECT_EQ("A", Printed(KovaCageId(-3)));
    EXPECT_EQ("U", Printed(KovaCageId(-2)));
    EXPECT_EQ("F", Printed(KovaCageId()));
    EXPECT_EQ("1a", Printed(KovaCageId(26)));
    EXPECT_EQ("0", Printed(KovaCageId(0)));
    EXPECT_EQ("fffffffc", Printed(KovaCageId(-4)));
    EXPECT_EQ("80000000", Printed(KovaCageId(kMin)));
}

TEST_F(Id, NodePrintsFOrHexadecimal) {
    EXPECT_EQ("F", Printed(KovaNodeId()));
    EXPECT_EQ("F", Printed(KovaNodeId(-2)));
    EXPECT_EQ("F", Printed(KovaNodeId(kMin)));
    EXPECT_EQ("0", Printed(KovaNodeId(0)));
    EXPECT_EQ("1a", Printed(KovaNodeId(26)));
    EXPECT_EQ("7fffffff", Printed(KovaNodeId(kMax)));
}

TEST_F(Id, CcPrintsFOrHexadecimal) {
    EXPECT_EQ("F", Printed(KovaCCId()));
    EXPECT_EQ("F", Printed(KovaCCId(-5)));
    EXPECT_EQ("0", Printed(KovaCCId(0)));
    EXPECT_EQ("1", Printed(KovaCCId(1)));
    KovaCCId cc;
    cc = 26;
    EXPECT_EQ("1a", Printed(cc));
    cc = -5;
    EXPECT_EQ("F", Printed(cc));
}

TEST_F(Id, PortsPrintTwoDigitsAndTheJackALetter) {
    for (const auto& [id, text] : std::vector<std::pair<int32_t, std::string>>{{7, "07"},
                                                                               {0, "00"},
                                                                               {12, "12"},
                                                                               {123, "123"},
                                                                               {-1, "-1"},
                                                                               {-12, "-12"},
                                                                               {kMin, "-2147483648"}}) {
        EXPECT_EQ(text, Printed(KovaPortId(id)));
        EXPECT_EQ(text, Printed(KovaPowerPortId(id))) << "without the letter of its string";
        EXPECT_EQ("J" + text, Printed(KovaJackId(id)));
    }
    EXPECT_EQ("-1", Printed(KovaPortId()));
    EXPECT_EQ("J-1", Printed(KovaJackId()));
}

TEST_F(Id, PihPrintsFourHexadecimalDigits) {
    EXPECT_EQ("0x00ab", Printed(KovaPihId(171)));
    EXPECT_EQ("0x0000", Printed(KovaPihId(0)));
    EXPECT_EQ("0xffff", Printed(KovaPihId(0xFFFF)));
    EXPECT_EQ("0x12345", Printed(KovaPihId(0x12345)));
    EXPECT_EQ("0xffffffff", Printed(KovaPihId()));
    EXPECT_EQ("0xffffff55", Printed(KovaPihId(-171)));
}

TEST_F(Id, RolePrintsItsText) {
    EXPECT_EQ("become slave", Printed(KovaRoleId(0)));
    EXPECT_EQ("slave", Printed(KovaRoleId(1)));
    EXPECT_EQ("become master", Printed(KovaRoleId(2)));
    EXPECT_EQ("master", Printed(KovaRoleId(3)));
    EXPECT_EQ("undefined role", Printed(KovaRoleId(4)));
    EXPECT_EQ("undefined role", Printed(KovaRoleId(-1)));
    KovaRoleId role;
    for (const int id : {4, -2, kMin, kMax}) {
        role = id;
        EXPECT_EQ("undefined role", Printed(role));
    }
}

TEST_F(Id, PrintsAsTheTypeAtTheCall) {
    const KovaJackId jack(5);
    const KovaId& id = jack;
    EXPECT_EQ("5", Printed(id));
}

/// What a stream printed, and how it was left.
struct After {
    std::string text;
    char fill;
    std::streamsize precision;
};

/// Prints on a stream that was set up by `settings`; the flags must be left as they were, the width used up.
template <typename Kind, typename Settings>
After PrintOn(const Kind& id, Settings settings) {
    std::ostringstream stream;
    settings(stream);
    const std::ios_base::fmtflags flags = stream.flags();
    stream << id;
    EXPECT_EQ(flags, stream.flags());
    EXPECT_EQ(0, stream.width());
    return {stream.str(), stream.fill(), stream.precision()};
}

void ExpectAfter(const std::string& text, char fill, std::streamsize precision, const After& after) {
    EXPECT_EQ(text, after.text);
    EXPECT_EQ(fill, after.fill) << text;
    EXPECT_EQ(precision, after.precision) << text;
}

/// A caller who wants everything otherwise.
void SetUpOddly(std::ostream& stream) {
    stream << std::hex << std::showbase << std::uppercase << std::showpos << std::left << std::setfill('*')
           << std::setprecision(9) << std::setw(6);
}

/// The same in decimal and to the right.
void SetUpWide(std::ostream& stream) { stream << std::showpos << std::setfill('*') << std::setw(6); }

TEST_F(Id, PrintsWithTheStreamsSettings) {
    ExpectAfter("0X1A**", '*', 9, PrintOn(KovaId(26), SetUpOddly));
    ExpectAfter("0X1A**", '*', 9, PrintOn(KovaSegId(26), SetUpOddly));
    ExpectAfter("***+26", '*', 6, PrintOn(KovaId(26), SetUpWide));
}

TEST_F(Id, HexadecimalFormsLeaveThePrecision) {
    ExpectAfter("1a", '*', 1, PrintOn(KovaCageId(26), SetUpOddly));
    ExpectAfter("1a", '*', 1, PrintOn(KovaNodeId(26), SetUpOddly));
    ExpectAfter("1", '*', 1, PrintOn(KovaCCId(1), SetUpOddly));
    ExpectAfter("1a", '*', 1, PrintOn(KovaCageId(26), SetUpWide));
}

TEST_F(Id, LettersAndRolesPrintLikeAnyText) {
    ExpectAfter("A*****", '*', 9, PrintOn(KovaCageId(-3), SetUpOddly));
    ExpectAfter("*****U", '*', 6, PrintOn(KovaCageId(-2), SetUpWide));
    ExpectAfter("F*****", '*', 9, PrintOn(KovaCageId(-1), SetUpOddly));
    ExpectAfter("F*****", '*', 9, PrintOn(KovaNodeId(-2), SetUpOddly));
    ExpectAfter("*****F", '*', 6, PrintOn(KovaCCId(-1), SetUpWide));
    ExpectAfter("slave*", '*', 9, PrintOn(KovaRoleId(1), SetUpOddly));
    ExpectAfter("*slave", '*', 6, PrintOn(KovaRoleId(1), SetUpWide));
}

TEST_F(Id, ZeroFilledFormsLeaveFillAndPrecision) {
    ExpectAfter("07", '0', 2, PrintOn(KovaPortId(7), SetUpOddly));
    ExpectAfter("26", '0', 2, PrintOn(KovaPortId(26), SetUpOddly));
    ExpectAfter("07", '0', 2, PrintOn(KovaPowerPortId(7), SetUpOddly));
    ExpectAfter("07", '0', 2, PrintOn(KovaPortId(7), SetUpWide));
    ExpectAfter("J*****07", '0', 2, PrintOn(KovaJackId(7), SetUpOddly));
    ExpectAfter("*****J07", '0', 2, PrintOn(KovaJackId(7), SetUpWide));
    ExpectAfter("0x****00ab", '0', 4, PrintOn(KovaPihId(171), SetUpOddly));
    ExpectAfter("****0x00ab", '0', 4, PrintOn(KovaPihId(171), SetUpWide));
    ExpectAfter("-1", '0', 2, PrintOn(KovaPortId(), SetUpOddly));
}

TEST_F(Id, FillStaysForWhatIsPrintedNext) {
    std::ostringstream stream;
    stream << KovaPortId(7) << ' ' << std::setw(3) << 5;
    EXPECT_EQ("07 005", stream.str());
}

/// Counts the flushes; full when told so.
class Sink : public std::stringbuf {
  public:
    int m_Flushes = 0;
    bool m_IsFull = false;

  protected:
    int sync() override {
        ++m_Flushes;
        return 0;
    }
    std::streamsize xsputn(const char* text, std::streamsize count) override {
        return m_IsFull ? 0 : std::stringbuf::xsputn(text, count);
    }
    int overflow(int character) override { return m_IsFull ? EOF : std::stringbuf::overflow(character); }
};

TEST_F(Id, PrintingFlushesAStreamThatFlushesAlways) {
    Sink sink;
    std::ostream stream(&sink);
    stream << KovaCageId(26) << KovaPortId(7);
    EXPECT_EQ(0, sink.m_Flushes);
    stream << std::unitbuf;
    stream << KovaCageId(26);
    EXPECT_EQ(1, sink.m_Flushes);
    stream << KovaPortId(7);
    EXPECT_EQ(2, sink.m_Flushes);
    EXPECT_EQ("1a071a07", sink.str());
}

TEST_F(Id, FlagsAreRestoredWhenTheStreamThrows) {
    Sink sink;
    sink.m_IsFull = true;
    std::ostream stream(&sink);
    stream.exceptions(std::ios_base::badbit);
    stream << std::uppercase;
    const std::ios_base::fmtflags flags = stream.flags();
    EXPECT_THROW(stream << KovaCageId(26), std::ios_base::failure);
    EXPECT_EQ(flags, stream.flags());
}

}  // namespace
