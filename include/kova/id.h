/// Identifiers of the controller's hardware topology: cages, nodes, CCs, network interfaces, networks,
/// segments, ports, jacks, power ports, PIHs and redundancy roles.
///
/// Each is a signed 32-bit number, -1 for "not set", that serves as a number in expressions. The kinds differ
/// in the values that their constructors keep and in how they are printed: table in docs/addr.md. Nothing
/// fails and nothing blocks: a value out of range becomes -1. Objects are as safe between threads as an
/// `int`. Dividing by zero is as wrong as with an `int`.
#ifndef KOVA_ID_H
#define KOVA_ID_H

#include <kova/detail/operators.h>
#include <kova/export.h>

#include <cstdint>
#include <iosfwd>
#include <string>

// NOLINTBEGIN(bugprone-macro-parentheses): types cannot stand in any.

// What every kind of identifier has. The constructors apply the kind's range; a copy of the same kind is
// taken as it is.
#define KOVA_ID_CONSTRUCTORS(Kind)  \
    Kind();                         \
    Kind(const int& id);            \
    Kind(const unsigned int& id);   \
    Kind(const long& id);           \
    Kind(const unsigned long& id);  \
    Kind(const KovaId& id);         \
    Kind(const Kind& id) = default; \
    ~Kind();                        \
    using KovaId::operator=
#define KOVA_ID_KIND(Kind)      \
    KOVA_ID_CONSTRUCTORS(Kind); \
    Kind& operator=(const Kind& id) = default

// NOLINTEND(bugprone-macro-parentheses)

/// An identifier of any kind. All numbers are taken with their low 32 bits.
class KOVA_API KovaId {
  public:
    /// Not set.
    KovaId();
    KovaId(const int& id);
    KovaId(const unsigned int& id);
    KovaId(const long& id);
    KovaId(const unsigned long& id);
    KovaId(const KovaId& other);
    /// The number that `text` begins with, as `strtol` reads it with base 0: leading blanks, a sign, 0x for
    /// hexadecimal and 0 for octal. 0 if there is none, the nearest 32-bit number if it is too large.
    KovaId(const std::string& text);

    /// Assignment stores any number, also to a kind that has a range.
    KovaId& operator=(int id);
    KovaId& operator=(unsigned int id);
    KovaId& operator=(long id);
    KovaId& operator=(unsigned long id);
    KovaId& operator=(const KovaId& other);

    int32_t GetId() const;
    operator long() const;
    operator int() const;
    operator unsigned long() const;
    operator unsigned int() const;
    /// The low 8 bits.
    operator char() const;
    operator unsigned char() const;
    /// Whether the identifier is set: true for 0.
    operator bool() const;
    /// The number in decimal.
    operator std::string() const;

    KovaId& operator++();
    KovaId& operator--();
    /// Unlike those of numbers, these return the changed object itself, as the prefix forms do.
    KovaId& operator++(int);
    KovaId& operator--(int);

    /// Signed, unsigned with an unsigned operand; wraps at 32 bits.
    KOVA_DETAIL_ARITHMETIC(KovaId, const KovaId&);
    KOVA_DETAIL_ARITHMETIC(KovaId, int);
    KOVA_DETAIL_ARITHMETIC(KovaId, unsigned int);
    KOVA_DETAIL_ARITHMETIC(KovaId, long);
    KOVA_DETAIL_ARITHMETIC(KovaId, unsigned long);

    /// Signed. There is no comparison with an unsigned number on the right.
    KOVA_DETAIL_COMPARISON(const KovaId&);
    KOVA_DETAIL_COMPARISON(int);
    KOVA_DETAIL_COMPARISON(long);

  private:
    int32_t m_Id;
};

/// With a number on the left everything is done in its type, 32 bits wide, and the result has that type: with
/// an unsigned number the identifier is unsigned, so that `0u < KovaId()`.
KOVA_DETAIL_LEFT(KovaId, int);
KOVA_DETAIL_LEFT(KovaId, unsigned int);
KOVA_DETAIL_LEFT(KovaId, long);
KOVA_DETAIL_LEFT(KovaId, unsigned long);

/// Prints -3, -2 and -1 as the letters A, U and F, others in hexadecimal.
class KOVA_API KovaCageId : public KovaId {
  public:
    KOVA_ID_KIND(KovaCageId);
};

/// Prints negative numbers as F, others in hexadecimal.
class KOVA_API KovaNodeId : public KovaId {
  public:
    KOVA_ID_KIND(KovaNodeId);
};

/// 0 or 1. Prints negative numbers as F, others in hexadecimal.
class KOVA_API KovaCCId : public KovaId {
  public:
    KOVA_ID_KIND(KovaCCId);
};

/// A network interface. Prints as `KovaId`.
class KOVA_API KovaIfId : public KovaId {
  public:
    KOVA_ID_CONSTRUCTORS(KovaIfId);
    KovaIfId& operator=(const KovaIfId& other);
};

/// Prints as `KovaId`.
class KOVA_API KovaNetId : public KovaId {
  public:
    KOVA_ID_KIND(KovaNetId);
};

/// Prints as `KovaId`.
class KOVA_API KovaSegId : public KovaId {
  public:
    KOVA_ID_KIND(KovaSegId);
};

/// Prints two digits: 07.
class KOVA_API KovaPortId : public KovaId {
  public:
    KOVA_ID_KIND(KovaPortId);

    /// At least two digits: 07, -01.
    operator std::string() const;
};

/// Prints a J and two digits: J07.
class KOVA_API KovaJackId : public KovaId {
  public:
    KOVA_ID_KIND(KovaJackId);

    /// A J and at least two digits: J07, J-01.
    operator std::string() const;
};

/// Prints two digits, 07, but converts to a string with the jack's letter.
class KOVA_API KovaPowerPortId : public KovaId {
  public:
    KOVA_ID_KIND(KovaPowerPortId);

    /// A J and at least two digits: J07, J-01.
    operator std::string() const;
};

/// Prints four hexadecimal digits: 0x00ab.
class KOVA_API KovaPihId : public KovaId {
  public:
    KOVA_ID_KIND(KovaPihId);

    /// The low 16 bits.
    operator unsigned short() const;
};

/// A redundancy role: 0 "become slave", 1 "slave", 2 "become master", 3 "master", which is how it prints; any
/// other value is not set and prints "undefined role".
class KOVA_API KovaRoleId : public KovaId {
  public:
    KOVA_ID_KIND(KovaRoleId);
};

#undef KOVA_ID_CONSTRUCTORS
#undef KOVA_ID_KIND

/// The number with the stream's settings.
KOVA_API std::ostream& operator<<(std::ostream& stream, const KovaId& id);
/// The printed forms above. Digits come out the same whatever the stream's flags and width are; the flags are
/// left as they were. The precision stays changed, and with leading zeroes the fill character, too.
KOVA_API std::ostream& operator<<(std::ostream& stream, const KovaRoleId& id);
KOVA_API std::ostream& operator<<(std::ostream& stream, const KovaCCId& id);
KOVA_API std::ostream& operator<<(std::ostream& stream, const KovaNodeId& id);
KOVA_API std::ostream& operator<<(std::ostream& stream, const KovaCageId& id);
KOVA_API std::ostream& operator<<(std::ostream& stream, const KovaPowerPortId& id);
KOVA_API std::ostream& operator<<(std::ostream& stream, const KovaJackId& id);
KOVA_API std::ostream& operator<<(std::ostream& stream, const KovaPortId& id);
KOVA_API std::ostream& operator<<(std::ostream& stream, const KovaPihId& id);

#endif
