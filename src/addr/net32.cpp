#include "addr/operators.h"

#include <kova/net32.h>

#include <arpa/inet.h>

#include <cstdint>

static_assert(sizeof(KovaNet32) == 4);

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

// Deliberate: unsigned also with a signed operand, quotient and remainder included.
#define KOVA_NET32_COMPUTE(op, Class, Right) \
    Class Class::operator op(Right right) const { return uint32_t(*this) op uint32_t(right); }

KOVA_FOR_ARITHMETIC(KOVA_NET32_COMPUTE, KovaNet32, const KovaNet32&)
KOVA_FOR_ARITHMETIC(KOVA_NET32_COMPUTE, KovaNet32, unsigned int)
KOVA_FOR_ARITHMETIC(KOVA_NET32_COMPUTE, KovaNet32, int)
KOVA_FOR_ARITHMETIC(KOVA_NET32_COMPUTE, KovaNet32, unsigned short)
KOVA_FOR_ARITHMETIC(KOVA_NET32_COMPUTE, KovaNet32, short)

bool KovaNet32::operator==(const KovaNet32& right) const { return m_Word == right.m_Word; }
bool KovaNet32::operator!=(const KovaNet32& right) const { return m_Word != right.m_Word; }
bool KovaNet32::operator<(const KovaNet32& right) const { return *this < static_cast<unsigned int>(right); }
bool KovaNet32::operator<=(const KovaNet32& right) const { return *this <= static_cast<unsigned int>(right); }
bool KovaNet32::operator>(const KovaNet32& right) const { return *this > static_cast<unsigned int>(right); }
bool KovaNet32::operator>=(const KovaNet32& right) const { return *this >= static_cast<unsigned int>(right); }

// Deliberate: only the bits that fit the operand's type take part.
#define KOVA_NET32_COMPARE(op, Class, Right) \
    bool Class::operator op(Right right) const { return static_cast<Right>(*this) op right; }

KOVA_FOR_COMPARISON(KOVA_NET32_COMPARE, KovaNet32, unsigned int)
KOVA_FOR_COMPARISON(KOVA_NET32_COMPARE, KovaNet32, int)
KOVA_FOR_COMPARISON(KOVA_NET32_COMPARE, KovaNet32, unsigned short)
KOVA_FOR_COMPARISON(KOVA_NET32_COMPARE, KovaNet32, short)
KOVA_FOR_COMPARISON(KOVA_NET32_COMPARE, KovaNet32, unsigned char)
KOVA_FOR_COMPARISON(KOVA_NET32_COMPARE, KovaNet32, signed char)

KOVA_DEFINE_LEFT(KovaNet32, unsigned int)
KOVA_DEFINE_LEFT(KovaNet32, int)
KOVA_DEFINE_LEFT(KovaNet32, unsigned short)
KOVA_DEFINE_LEFT(KovaNet32, short)
