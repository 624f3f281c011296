#include "frame/wrap.h"

#include <kova/net32.h>

#include <arpa/inet.h>

#include <cstdint>
#include <type_traits>

static_assert(sizeof(KovaNet32) == 4);

namespace {

/// Signed 32-bit number whose arithmetic wraps.
struct Wrapping {
    int32_t value;

    operator int32_t() const { return value; }
};

Wrapping operator+(Wrapping a, Wrapping b) { return {kova::WrapAdd(a.value, b.value)}; }

Wrapping operator-(Wrapping a, Wrapping b) { return {kova::WrapSubtract(a.value, b.value)}; }

Wrapping operator*(Wrapping a, Wrapping b) { return {kova::WrapMultiply(a.value, b.value)}; }

// The least number divided by -1 is the least number; the processor might trap.
Wrapping operator/(Wrapping a, Wrapping b) {
    return {b.value == -1 ? kova::WrapSubtract(0, a.value) : a.value / b.value};
}

Wrapping operator%(Wrapping a, Wrapping b) { return {b.value == -1 ? 0 : a.value % b.value}; }

/// What a number on the left is computed in. Not in `int` for unsigned short, whose products overflow it.
template <typename Number>
using Arithmetic = std::conditional_t<std::is_signed_v<Number>, Wrapping, uint32_t>;

}  // namespace

KovaNet32::KovaNet32() : m_Word(0) {}
KovaNet32::KovaNet32(const unsigned long& value) : m_Word(htonl(static_cast<uint32_t>(value))) {}
KovaNet32::KovaNet32(const long& value) : m_Word(htonl(static_cast<uint32_t>(value))) {}
KovaNet32::KovaNet32(const unsigned int& value) : m_Word(htonl(value)) {}
KovaNet32::KovaNet32(const int& value) : m_Word(htonl(static_cast<uint32_t>(value))) {}
KovaNet32::KovaNet32(const unsigned short& value) : m_Word(htonl(value)) {}
KovaNet32::KovaNet32(const short& value) : m_Word(htonl(static_cast<uint32_t>(value))) {}

// Not written in the class: the binary interface has them.
KovaNet32::KovaNet32(const KovaNet32& other) = default;
KovaNet32::~KovaNet32() = default;
KovaNet32& KovaNet32::operator=(const KovaNet32& other) = default;

KovaNet32& KovaNet32::operator=(unsigned int value) { return *this = KovaNet32(value); }
KovaNet32& KovaNet32::operator=(int value) { return *this = KovaNet32(value); }
KovaNet32& KovaNet32::operator=(unsigned short value) { return *this = KovaNet32(value); }
KovaNet32& KovaNet32::operator=(short value) { return *this = KovaNet32(value); }

// A wider `long` is extended from 32 bits, as what it is: signed or not.
KovaNet32::operator unsigned long() const { return ntohl(m_Word); }
KovaNet32::operator long() const { return static_cast<int32_t>(ntohl(m_Word)); }
KovaNet32::operator unsigned int() const { return ntohl(m_Word); }
KovaNet32::operator int() const { return static_cast<int>(ntohl(m_Word)); }
KovaNet32::operator unsigned short() const { return static_cast<unsigned short>(ntohl(m_Word)); }
KovaNet32::operator short() const { return static_cast<short>(ntohl(m_Word)); }
KovaNet32::operator unsigned char() const { return static_cast<unsigned char>(ntohl(m_Word)); }
KovaNet32::operator signed char() const { return static_cast<signed char>(ntohl(m_Word)); }
KovaNet32::operator bool() const { return ntohl(m_Word) != 0; }

// --- Operators ---

#define KOVA_NET32_ARITHMETIC(DEFINE, Operand) \
    DEFINE(+, Operand)                         \
    DEFINE(-, Operand)                         \
    DEFINE(*, Operand)                         \
    DEFINE(/, Operand)                         \
    DEFINE(%, Operand)
#define KOVA_NET32_COMPARISON(DEFINE, Operand) \
    DEFINE(==, Operand)                        \
    DEFINE(!=, Operand)                        \
    DEFINE(<, Operand)                         \
    DEFINE(<=, Operand)                        \
    DEFINE(>, Operand)                         \
    DEFINE(>=, Operand)

// Deliberate: unsigned also with a signed operand, quotient and remainder included.
#define KOVA_NET32_COMPUTE(op, Right) \
    KovaNet32 KovaNet32::operator op(Right right) const { return uint32_t(*this) op uint32_t(right); }

KOVA_NET32_ARITHMETIC(KOVA_NET32_COMPUTE, const KovaNet32&)
KOVA_NET32_ARITHMETIC(KOVA_NET32_COMPUTE, unsigned int)
KOVA_NET32_ARITHMETIC(KOVA_NET32_COMPUTE, int)
KOVA_NET32_ARITHMETIC(KOVA_NET32_COMPUTE, unsigned short)
KOVA_NET32_ARITHMETIC(KOVA_NET32_COMPUTE, short)

bool KovaNet32::operator==(const KovaNet32& right) const { return m_Word == right.m_Word; }
bool KovaNet32::operator!=(const KovaNet32& right) const { return m_Word != right.m_Word; }
bool KovaNet32::operator<(const KovaNet32& right) const { return *this < static_cast<unsigned int>(right); }
bool KovaNet32::operator<=(const KovaNet32& right) const { return *this <= static_cast<unsigned int>(right); }
bool KovaNet32::operator>(const KovaNet32& right) const { return *this > static_cast<unsigned int>(right); }
bool KovaNet32::operator>=(const KovaNet32& right) const { return *this >= static_cast<unsigned int>(right); }

// Deliberate: only the bits that fit the operand's type take part.
#define KOVA_NET32_COMPARE(op, Right) \
    bool KovaNet32::operator op(Right right) const { return static_cast<Right>(*this) op right; }

KOVA_NET32_COMPARISON(KOVA_NET32_COMPARE, unsigned int)
KOVA_NET32_COMPARISON(KOVA_NET32_COMPARE, int)
KOVA_NET32_COMPARISON(KOVA_NET32_COMPARE, unsigned short)
KOVA_NET32_COMPARISON(KOVA_NET32_COMPARE, short)
KOVA_NET32_COMPARISON(KOVA_NET32_COMPARE, unsigned char)
KOVA_NET32_COMPARISON(KOVA_NET32_COMPARE, signed char)

#define KOVA_NET32_COMPUTE_LEFT(op, Left)                                           \
    Left operator op(Left left, const KovaNet32& right) {                           \
        using Number = Arithmetic<Left>;                                            \
        return static_cast<Left>(Number{left} op Number{static_cast<Left>(right)}); \
    }
#define KOVA_NET32_COMPARE_LEFT(op, Left) \
    bool operator op(Left left, const KovaNet32& right) { return left op static_cast<Left>(right); }

KOVA_NET32_ARITHMETIC(KOVA_NET32_COMPUTE_LEFT, unsigned int)
KOVA_NET32_ARITHMETIC(KOVA_NET32_COMPUTE_LEFT, int)
KOVA_NET32_ARITHMETIC(KOVA_NET32_COMPUTE_LEFT, unsigned short)
KOVA_NET32_ARITHMETIC(KOVA_NET32_COMPUTE_LEFT, short)
KOVA_NET32_COMPARISON(KOVA_NET32_COMPARE_LEFT, unsigned int)
KOVA_NET32_COMPARISON(KOVA_NET32_COMPARE_LEFT, int)
KOVA_NET32_COMPARISON(KOVA_NET32_COMPARE_LEFT, unsigned short)
KOVA_NET32_COMPARISON(KOVA_NET32_COMPARE_LEFT, short)
