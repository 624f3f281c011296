/// Network-order integer: a 32-bit number that is held in network byte order, so that it can be copied into a
/// wire record as it stands, and that is written and read as an ordinary number in host order.
///
/// A value type: it reports no errors and never blocks; between threads it is like an `int`. It mixes with
/// plain numbers, but the operand's type decides how it computes and compares, not always as with a plain
/// number (docs/addr.md). Dividing by zero is the caller's, as with an `int`.
#ifndef KOVA_NET32_H
#define KOVA_NET32_H

#include <kova/detail/operators.h>
#include <kova/export.h>

#include <cstdint>

class KOVA_API KovaNet32 {
  public:
    /// 0.
    KovaNet32();
    /// The low 32 bits of a number in host order; `short` is sign-extended. Characters come in as `int`.
    KovaNet32(const unsigned long& value);
    KovaNet32(const long& value);
    KovaNet32(const unsigned int& value);
    KovaNet32(const int& value);
    KovaNet32(const unsigned short& value);
    KovaNet32(const short& value);
    /// Copies the word as it stands.
    KovaNet32(const KovaNet32& other);
    ~KovaNet32();

    KovaNet32& operator=(const KovaNet32& other);
    KovaNet32& operator=(unsigned int value);
    KovaNet32& operator=(int value);
    KovaNet32& operator=(unsigned short value);
    KovaNet32& operator=(short value);

    /// Whether the number is not 0.
    operator bool() const;
    /// The number in host order, cut to its low 8 or 16 bits for the narrow types. `long` has the value of
    /// `int`, `unsigned long` that of `unsigned int`, however wide they are.
    operator signed char() const;
    operator unsigned char() const;
    operator short() const;
    operator unsigned short() const;
    operator int() const;
    operator unsigned int() const;
    operator long() const;
    operator unsigned long() const;

    /// Always unsigned, wrapping at 32 bits. A signed operand is sign-extended and then taken as unsigned, so
    /// that 7 / -1 is 0 and 7 % -1 is 7.
    KOVA_DETAIL_ARITHMETIC(KovaNet32, const KovaNet32&);
    KOVA_DETAIL_ARITHMETIC(KovaNet32, unsigned int);
    KOVA_DETAIL_ARITHMETIC(KovaNet32, int);
    KOVA_DETAIL_ARITHMETIC(KovaNet32, unsigned short);
    KOVA_DETAIL_ARITHMETIC(KovaNet32, short);

    /// In the operand's type, to which this number is cut first: 0x12345678 equals the `unsigned short`
    /// 0x5678, and 0x18000 is less than the `short` 0. Two network-order integers compare unsigned.
    KOVA_DETAIL_COMPARISON(const KovaNet32&);
    KOVA_DETAIL_COMPARISON(unsigned int);
    KOVA_DETAIL_COMPARISON(int);
    KOVA_DETAIL_COMPARISON(unsigned short);
    KOVA_DETAIL_COMPARISON(short);
    KOVA_DETAIL_COMPARISON(unsigned char);
    KOVA_DETAIL_COMPARISON(signed char);

  private:
    uint32_t m_Word;
};

/// With a plain number on the left everything is done in the type of that number, and the result has it: the
/// network-order integer is cut to it first, signed numbers divide signed, and the result wraps.
KOVA_DETAIL_LEFT(KovaNet32, unsigned int);
KOVA_DETAIL_LEFT(KovaNet32, int);
KOVA_DETAIL_LEFT(KovaNet32, unsigned short);
KOVA_DETAIL_LEFT(KovaNet32, short);

#if __cplusplus > 201703L
// A character on the left is an `int`. C++20 would swap the operands instead and compare 8 bits.
inline bool operator==(unsigned char left, const KovaNet32& right) { return int{left} == right; }
inline bool operator==(signed char left, const KovaNet32& right) { return int{left} == right; }
inline bool operator!=(unsigned char left, const KovaNet32& right) { return int{left} != right; }
inline bool operator!=(signed char left, const KovaNet32& right) { return int{left} != right; }
#endif

#endif
