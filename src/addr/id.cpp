#include "addr/operators.h"
#include "frame/errno_guard.h"
#include "frame/wrap.h"

#include <kova/id.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <ostream>

namespace {

int32_t Parse(const std::string& text) {
    // That a number is too large is nothing to report.
    const kova::ErrnoGuard keep_errno;
    using Limits = std::numeric_limits<int32_t>;
    return static_cast<int32_t>(
        std::clamp<long>(std::strtol(text.c_str(), nullptr, 0), Limits::min(), Limits::max()));
}

// --- Ranges ---

KovaId Any(const KovaId& id) { return id; }
KovaId ZeroOrOne(const KovaId& id) { return id >= 0 && id <= 1 ? id : KovaId(); }
KovaId Role(const KovaId& id) { return id >= 0 && id <= 3 ? id : KovaId(); }

// --- Printed forms ---

/// Restores the flags also when the stream throws.
class FlagsGuard {
  public:
    explicit FlagsGuard(std::ios_base& stream) : m_Stream(stream), m_Saved(stream.flags()) {}
    FlagsGuard(const FlagsGuard&) = delete;
    FlagsGuard& operator=(const FlagsGuard&) = delete;
    ~FlagsGuard() { m_Stream.flags(m_Saved); }

  private:
    std::ios_base& m_Stream;
    const std::ios_base::fmtflags m_Saved;
};

std::ostream& Print(std::ostream& stream, std::ios_base::fmtflags base, int digits, const KovaId& id) {
    const FlagsGuard keep_flags(stream);
    // Prefix, sign, letter case and adjustment are not the caller's. When to flush is.
    stream.flags(base | (stream.flags() & std::ios_base::unitbuf));
    stream.width(digits);
    // Deliberate: the precision stays.
    stream.precision(digits);
    return stream << id.GetId();
}

std::ostream& PrintHex(std::ostream& stream, const KovaId& id) {
    return Print(stream, std::ios_base::hex, 1, id);
}

std::ostream& PrintZeroFilled(std::ostream& stream, std::ios_base::fmtflags base, int digits,
                              const KovaId& id) {
    // Deliberate: the fill character stays.
    stream.fill('0');
    return Print(stream, base, digits, id);
}

/// Any number fits, with a letter and the terminating zero.
constexpr size_t kTextSize = 16;

std::string JackText(int32_t id) {
    char text[kTextSize];
    std::snprintf(text, sizeof text, "J%2.2d", id);
    return text;
}

}  // namespace

// --- Any kind ---

KovaId::KovaId() : m_Id(-1) {}
KovaId::KovaId(const int& id) : m_Id(id) {}
KovaId::KovaId(const unsigned int& id) : m_Id(static_cast<int32_t>(id)) {}
KovaId::KovaId(const long& id) : m_Id(static_cast<int32_t>(id)) {}
KovaId::KovaId(const unsigned long& id) : m_Id(static_cast<int32_t>(id)) {}
KovaId::KovaId(const KovaId& other) = default;
KovaId::KovaId(const std::string& text) : m_Id(Parse(text)) {}

KovaId& KovaId::operator=(int id) {
    m_Id = id;
    return *this;
}

KovaId& KovaId::operator=(unsigned int id) { return *this = static_cast<int>(id); }
KovaId& KovaId::operator=(long id) { return *this = static_cast<int>(id); }
KovaId& KovaId::operator=(unsigned long id) { return *this = static_cast<int>(id); }
KovaId& KovaId::operator=(const KovaId& other) = default;

int32_t KovaId::GetId() const { return m_Id; }
KovaId::operator long() const { return m_Id; }
KovaId::operator int() const { return m_Id; }
KovaId::operator unsigned long() const { return static_cast<uint32_t>(m_Id); }
KovaId::operator unsigned int() const { return static_cast<uint32_t>(m_Id); }
KovaId::operator char() const { return static_cast<char>(m_Id); }
KovaId::operator unsigned char() const { return static_cast<unsigned char>(m_Id); }
KovaId::operator bool() const { return m_Id != -1; }

KovaId::operator std::string() const {
    char text[kTextSize];
    std::snprintf(text, sizeof text, "%ld", static_cast<long>(m_Id));
    return text;
}

KovaId& KovaId::operator++() { return *this = kova::WrapAdd(m_Id, 1); }
KovaId& KovaId::operator--() { return *this = kova::WrapSubtract(m_Id, 1); }
// Deliberate: the changed object, not a copy of the old value.
KovaId& KovaId::operator++(int) { return ++*this; }
KovaId& KovaId::operator--(int) { return --*this; }

// --- Operators ---

#define KOVA_ID_COMPUTE(op, Class, Right)                                           \
    Class Class::operator op(Right right) const {                                   \
        return kova::Cut<int>(kova::Wide<Right>(m_Id) op kova::Wide<Right>(right)); \
    }
#define KOVA_ID_COMPARE(op, Class, Right) \
    bool Class::operator op(Right right) const { return kova::Wide<Right>(m_Id) op kova::Wide<Right>(right); }

KOVA_FOR_ARITHMETIC(KOVA_ID_COMPUTE, KovaId, const KovaId&)
KOVA_FOR_ARITHMETIC(KOVA_ID_COMPUTE, KovaId, int)
KOVA_FOR_ARITHMETIC(KOVA_ID_COMPUTE, KovaId, unsigned int)
KOVA_FOR_ARITHMETIC(KOVA_ID_COMPUTE, KovaId, long)
KOVA_FOR_ARITHMETIC(KOVA_ID_COMPUTE, KovaId, unsigned long)
KOVA_FOR_COMPARISON(KOVA_ID_COMPARE, KovaId, const KovaId&)
KOVA_FOR_COMPARISON(KOVA_ID_COMPARE, KovaId, int)
KOVA_FOR_COMPARISON(KOVA_ID_COMPARE, KovaId, long)

KOVA_DEFINE_LEFT(KovaId, int)
KOVA_DEFINE_LEFT(KovaId, unsigned int)
KOVA_DEFINE_LEFT(KovaId, long)
KOVA_DEFINE_LEFT(KovaId, unsigned long)

// --- The kinds, each with its range ---

#define KOVA_ID_KIND(Kind, Range)                              \
    Kind::Kind() = default;                                    \
    Kind::Kind(const int& id) : KovaId(Range(id)) {}           \
    Kind::Kind(const unsigned int& id) : KovaId(Range(id)) {}  \
    Kind::Kind(const long& id) : KovaId(Range(id)) {}          \
    Kind::Kind(const unsigned long& id) : KovaId(Range(id)) {} \
    Kind::Kind(const KovaId& id) : KovaId(Range(id)) {}        \
    Kind::~Kind() = default;
KOVA_ID_KIND(KovaCageId, Any)
KOVA_ID_KIND(KovaNodeId, Any)
KOVA_ID_KIND(KovaCCId, ZeroOrOne)
KOVA_ID_KIND(KovaIfId, Any)
KOVA_ID_KIND(KovaNetId, Any)
KOVA_ID_KIND(KovaSegId, Any)
KOVA_ID_KIND(KovaPortId, Any)
KOVA_ID_KIND(KovaJackId, Any)
KOVA_ID_KIND(KovaPowerPortId, Any)
KOVA_ID_KIND(KovaPihId, Any)
KOVA_ID_KIND(KovaRoleId, Role)

KovaIfId& KovaIfId::operator=(const KovaIfId& other) = default;

KovaPihId::operator unsigned short() const { return static_cast<unsigned short>(GetId()); }

KovaPortId::operator std::string() const {
    char text[kTextSize];
    std::snprintf(text, sizeof text, "%2.2d", GetId());
    return text;
}

KovaJackId::operator std::string() const { return JackText(GetId()); }
// Deliberate: with the jack's letter, which the stream form does not have.
KovaPowerPortId::operator std::string() const { return JackText(GetId()); }

std::ostream& operator<<(std::ostream& stream, const KovaId& id) { return stream << id.GetId(); }

std::ostream& operator<<(std::ostream& stream, const KovaRoleId& id) {
    switch (id.GetId()) {
        case 0:
            return stream << "become slave";
        case 1:
            return stream << "slave";
        case 2:
            return stream << "become master";
        case 3:
            return stream << "master";
        default:
            return stream << "undefined role";
    }
}

std::ostream& operator<<(std::ostream& stream, const KovaCCId& id) {
    return id < 0 ? stream << "F" : PrintHex(stream, id);
}

std::ostream& operator<<(std::ostream& stream, const KovaNodeId& id) {
    return id < 0 ? stream << "F" : PrintHex(stream, id);
}

std::ostream& operator<<(std::ostream& stream, const KovaCageId& id) {
    switch (id.GetId()) {
        case -3:
            return stream << "A";
        case -2:
            return stream << "U";
        case -1:
            return stream << "F";
        default:
            return PrintHex(stream, id);
    }
}

std::ostream& operator<<(std::ostream& stream, const KovaPowerPortId& id) {
    return PrintZeroFilled(stream, std::ios_base::dec, 2, id);
}

std::ostream& operator<<(std::ostream& stream, const KovaJackId& id) {
    stream << "J";
    return PrintZeroFilled(stream, std::ios_base::dec, 2, id);
}

std::ostream& operator<<(std::ostream& stream, const KovaPortId& id) {
    return PrintZeroFilled(stream, std::ios_base::dec, 2, id);
}

std::ostream& operator<<(std::ostream& stream, const KovaPihId& id) {
    stream << "0x";
    return PrintZeroFilled(stream, std::ios_base::hex, 4, id);
}
