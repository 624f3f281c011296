#include "frame/wrap.h"

#include <kova/clock.h>
#include <kova/time_value.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <limits>
#include <ostream>

namespace {

constexpr long kUnset = -1;
constexpr char kUnsetText[] = "time not set (invalid)";

long Wrap(long seconds) { return static_cast<int32_t>(seconds); }

long Add(long a, long b) { return kova::WrapAdd(static_cast<int32_t>(a), static_cast<int32_t>(b)); }

long Subtract(long a, long b) { return kova::WrapSubtract(static_cast<int32_t>(a), static_cast<int32_t>(b)); }

int Difference(long value, long other) {
    using Limits = std::numeric_limits<int>;
    // The target's conversion saturates; the language leaves it undefined.
    return static_cast<int>(std::clamp<double>(std::difftime(value, other), Limits::min(), Limits::max()));
}

/// Writes what `ctime_r` makes of `seconds`, nothing if it fails. Returns the last character, the newline;
/// null if there is none.
char* PrintLocal(long seconds, char* text) {
    const time_t time = seconds;
    if (::ctime_r(&time, text) == nullptr) text[0] = '\0';
    const size_t length = std::strlen(text);
    return length == 0 ? nullptr : text + length - 1;
}

const char* PrintUnset(char* text) {
    std::memcpy(text, kUnsetText, sizeof kUnsetText);
    return text;
}

}  // namespace

// --- KovaTime ---

KovaTime::KovaTime() : KovaTime(::time(nullptr)) {}

KovaTime::KovaTime(long seconds) : m_Value(Wrap(seconds)), m_Text{} {}

KovaTime::KovaTime(const KovaTime& other) : KovaTime(other.m_Value) {}

KovaTime::~KovaTime() = default;

KovaTime::operator const char*() const { return CTime(); }

void KovaTime::Invalidate() {
    m_Value = kUnset;
    m_Text[0] = '\0';
}

bool KovaTime::IsValid() const { return m_Value != kUnset; }

std::ostream& operator<<(std::ostream& stream, const KovaTime& time) {
    return stream << static_cast<const char*>(time);
}

// --- KovaRealTime ---

KovaRealTime::KovaRealTime() : KovaRealTime(KovaGetRealTime()) {}

KovaRealTime::KovaRealTime(long seconds) : KovaTime(seconds) {}

KovaRealTime::KovaRealTime(const KovaRealTime& other) = default;

KovaRealTime::KovaRealTime(const KovaRelativeTime& relative) : KovaRealTime(relative.RealTime()) {}

KovaRealTime::~KovaRealTime() = default;

KovaRealTime& KovaRealTime::operator=(const KovaRealTime& other) = default;

long KovaRealTime::Now() { return m_Value = KovaGetRealTime(); }

long KovaRealTime::Refresh() { return Now(); }

long KovaRealTime::RealTime() const { return m_Value; }

const char* KovaRealTime::CTime() const {
    if (!IsValid()) return PrintUnset(m_Text);
    char* const last = PrintLocal(m_Value, m_Text);
    if (last != nullptr && *last == '\n') *last = '\0';
    return m_Text;
}

KovaRealTime::operator long() const { return m_Value; }

KovaRealTime::operator const long*() const { return &m_Value; }

KovaRealTime::operator KovaRelativeTime() const { return KovaRelativeTime(m_Value); }

// Deliberate: unsigned, so that an unset time is later than every set one.
bool KovaRealTime::operator<(const KovaRealTime& other) const {
    return static_cast<uint32_t>(m_Value) < static_cast<uint32_t>(other.m_Value);
}

bool KovaRealTime::operator>(const KovaRealTime& other) const { return other < *this; }

bool KovaRealTime::operator==(const KovaRealTime& other) const { return m_Value == other.m_Value; }

bool KovaRealTime::operator!=(const KovaRealTime& other) const { return !(*this == other); }

KovaRealTime& KovaRealTime::operator+=(long seconds) {
    m_Value = Add(m_Value, seconds);
    return *this;
}

KovaRealTime& KovaRealTime::operator+=(const KovaRealTime& other) { return *this += other.m_Value; }

KovaRealTime& KovaRealTime::operator-=(long seconds) {
    m_Value = Subtract(m_Value, seconds);
    return *this;
}

KovaRealTime& KovaRealTime::operator-=(const KovaRealTime& other) { return *this -= other.m_Value; }

KovaRealTime KovaRealTime::operator+(long seconds) const { return KovaRealTime(Add(m_Value, seconds)); }

KovaRealTime KovaRealTime::operator+(const KovaRealTime& other) const { return *this + other.m_Value; }

KovaRealTime KovaRealTime::operator-(long seconds) const { return KovaRealTime(Subtract(m_Value, seconds)); }

KovaRealTime KovaRealTime::operator-(const KovaRealTime& other) const { return *this - other.m_Value; }

int KovaRealTime::DiffTime(const KovaRealTime& other) const { return Difference(m_Value, other.m_Value); }

int KovaRealTime::DiffTime(const KovaRelativeTime& other) const { return DiffTime(KovaRealTime(other)); }

// --- KovaRelativeTime ---

KovaRelativeTime::KovaRelativeTime() : KovaRelativeTime(KovaGetRelativeTime(), true) {}

KovaRelativeTime::KovaRelativeTime(long real)
    : KovaRelativeTime(KovaGetRelativeFromRealTime(static_cast<int32_t>(real)), true) {}

KovaRelativeTime::KovaRelativeTime(long relative, bool) : KovaTime(relative), m_RealTime(0) {}

KovaRelativeTime::KovaRelativeTime(const KovaRelativeTime& other) : KovaTime(other), m_RealTime(0) {}

KovaRelativeTime::KovaRelativeTime(const KovaRealTime& real) : KovaRelativeTime(real.RealTime()) {}

KovaRelativeTime::~KovaRelativeTime() = default;

KovaRelativeTime& KovaRelativeTime::operator=(const KovaRelativeTime& other) {
    KovaTime::operator=(other);
    return *this;
}

long KovaRelativeTime::Refresh() {
    m_RealTime = 0;
    return m_Value = KovaGetRelativeTime();
}

long KovaRelativeTime::RealTime() const { return KovaGetRealFromRelativeTime(static_cast<int32_t>(m_Value)); }

const char* KovaRelativeTime::CTime() const {
    if (!IsValid()) return PrintUnset(m_Text);
    char* const last = PrintLocal(RealTime(), m_Text);
    // Deliberate: the newline becomes a digit behind the year.
    if (last != nullptr) *last = '0';
    return m_Text;
}

// Deliberate: as a number a relative time is its wall-clock second.
KovaRelativeTime::operator long() const { return m_RealTime = RealTime(); }

KovaRelativeTime::operator const long*() const {
    m_RealTime = RealTime();
    return &m_RealTime;
}

KovaRelativeTime::operator KovaRealTime() const { return KovaRealTime(RealTime()); }

bool KovaRelativeTime::operator<(const KovaRelativeTime& other) const { return m_Value < other.m_Value; }

bool KovaRelativeTime::operator>(const KovaRelativeTime& other) const { return other < *this; }

bool KovaRelativeTime::operator==(const KovaRelativeTime& other) const { return m_Value == other.m_Value; }

bool KovaRelativeTime::operator!=(const KovaRelativeTime& other) const { return !(*this == other); }

KovaRelativeTime& KovaRelativeTime::operator+=(long seconds) {
    m_Value = Add(m_Value, seconds);
    return *this;
}

KovaRelativeTime& KovaRelativeTime::operator+=(const KovaRelativeTime& other) {
    return *this += other.m_Value;
}

KovaRelativeTime& KovaRelativeTime::operator-=(long seconds) {
    m_Value = Subtract(m_Value, seconds);
    return *this;
}

KovaRelativeTime& KovaRelativeTime::operator-=(const KovaRelativeTime& other) {
    return *this -= other.m_Value;
}

KovaRelativeTime KovaRelativeTime::operator+(long seconds) const {
    return KovaRelativeTime(Add(m_Value, seconds), true);
}

KovaRelativeTime KovaRelativeTime::operator+(const KovaRelativeTime& other) const {
    return *this + other.m_Value;
}

KovaRelativeTime KovaRelativeTime::operator-(long seconds) const {
    return KovaRelativeTime(Subtract(m_Value, seconds), true);
}

KovaRelativeTime KovaRelativeTime::operator-(const KovaRelativeTime& other) const {
    return *this - other.m_Value;
}

int KovaRelativeTime::DiffTime(const KovaRelativeTime& other) const {
    return Difference(m_Value, other.m_Value);
}

int KovaRelativeTime::DiffTime(const KovaRealTime& other) const { return DiffTime(KovaRelativeTime(other)); }
