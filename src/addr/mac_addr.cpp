#include "addr/address_access.h"

#include <kova/mac_addr.h>
#include <kova/tcp_socket.h>

#include <net/if.h>
#include <sys/ioctl.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <ostream>

namespace {

constexpr char kInvalid[] = "MAC Addr invalid";

/// Shortest text of plain digits, and the colons of the other form.
constexpr size_t kPlainDigits = 12;
constexpr int kColons = 5;

/// Values of the characters that are hexadecimal digits, -1 for all others.
constexpr std::array<int8_t, 256> kDigitValues = [] {
    std::array<int8_t, 256> values{};
    values.fill(-1);
    for (int i = 0; i < 16; ++i) {
        values[static_cast<unsigned char>("0123456789abcdef"[i])] = static_cast<int8_t>(i);
        values[static_cast<unsigned char>("0123456789ABCDEF"[i])] = static_cast<int8_t>(i);
    }
    return values;
}();

int DigitOf(char c) { return kDigitValues[static_cast<unsigned char>(c)]; }

bool IsBlank(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

/// The low byte of what `strtol` with base 16 reads: blanks, a sign and 0x may stand in front, and a number
/// beyond 32 bits is the nearest one. Leaves the cursor behind the number, or where it was if there is none.
unsigned char ReadHex(const char*& cursor) {
    const char* at = cursor;
    while (IsBlank(*at)) ++at;
    const bool negative = *at == '-';
    if (*at == '-' || *at == '+') ++at;
    if (at[0] == '0' && (at[1] == 'x' || at[1] == 'X') && DigitOf(at[2]) >= 0) at += 2;

    const uint64_t limit = uint64_t{INT32_MAX} + (negative ? 1 : 0);
    uint64_t number = 0;
    const char* const digits = at;
    for (; *at != '\0' && DigitOf(*at) >= 0; ++at) {
        number = number * 16 + static_cast<unsigned>(DigitOf(*at));
        if (number > limit) number = limit;
    }
    if (at != digits) cursor = at;
    return static_cast<unsigned char>(negative ? 0 - number : number);
}

bool IsColonForm(const char* text) {
    return text[0] != '\0' && (text[1] == ':' || (text[1] != '\0' && text[2] == ':'));
}

/// Six numbers between colons. Bytes whose number is not read stay as they are.
bool ReadColonForm(const char* text, unsigned char* bytes) {
    int colons = 0;
    for (size_t i = 0; i < KovaMacAddr::kSize && *text != '\0'; ++i) {
        // Deliberate: a number that is the last character of the text is not read.
        if (text[1] != '\0') bytes[i] = ReadHex(text);
        if (*text == '\0') break;
        if (*text == ':') ++colons;
        ++text;
    }
    return colons >= kColons;
}

/// Six pairs of digits. Deliberate: what is no digit gives meaningless bytes, what follows is ignored.
void ReadPlainForm(const char* text, unsigned char* bytes) {
    for (size_t i = 0; i < KovaMacAddr::kSize; ++i, text += 2) {
        const char pair[] = {text[0], text[1], '\0'};
        const char* cursor = pair;
        bytes[i] = ReadHex(cursor);
    }
}

/// The usual text, 00:1b:2c:03:04:5e and nothing else, in short.
bool ReadUsualForm(const char* text, unsigned char* bytes) {
    for (size_t i = 0;; text += 3) {
        const int high = DigitOf(text[0]);
        const int low = high < 0 ? -1 : DigitOf(text[1]);
        if (low < 0) return false;
        bytes[i] = static_cast<unsigned char>(high * 16 + low);
        if (++i == KovaMacAddr::kSize) return text[2] == '\0';
        if (text[2] != ':') return false;
    }
}

bool ReadText(const char* text, unsigned char* bytes) {
    if (IsColonForm(text)) return ReadColonForm(text, bytes);
    if (::strnlen(text, kPlainDigits) < kPlainDigits) return false;
    ReadPlainForm(text, bytes);
    return true;
}

}  // namespace

const unsigned char KovaMacAddr::ZERO[kSize] = {0, 0, 0, 0, 0, 0};
const unsigned char KovaMacAddr::BCAST[kSize] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};

KovaMacAddr::KovaMacAddr() : m_Bytes{}, m_Valid(0), m_Text{} {}

KovaMacAddr::KovaMacAddr(const unsigned char* bytes) : KovaMacAddr() { *this = bytes; }

KovaMacAddr::KovaMacAddr(const KovaMacAddr& other) : KovaMacAddr() { *this = other; }

KovaMacAddr::KovaMacAddr(const char* text) : KovaMacAddr() { *this = text; }

KovaMacAddr::KovaMacAddr(const std::string& text) : KovaMacAddr() { *this = text; }

KovaMacAddr& KovaMacAddr::operator=(const unsigned char* bytes) {
    if (bytes == nullptr) {
        Invalidate();
        return *this;
    }
    kova::AddressAccess::StoreBytes(*this, bytes);
    return *this;
}

KovaMacAddr& KovaMacAddr::operator=(const KovaMacAddr& other) {
    const unsigned char valid = other.m_Valid;
    *this = other.m_Bytes;
    m_Valid = valid;
    return *this;
}

KovaMacAddr& KovaMacAddr::operator=(const char* text) {
    // Read before anything changes: the text may be this object's own.
    unsigned char bytes[kSize];
    if (text != nullptr && ReadUsualForm(text, bytes)) {
        kova::AddressAccess::StoreBytes(*this, bytes);
        return *this;
    }
    std::memcpy(bytes, m_Bytes, kSize);
    if (text != nullptr && ReadText(text, bytes)) return *this = static_cast<const unsigned char*>(bytes);
    Invalidate();
    return *this;
}

KovaMacAddr& KovaMacAddr::operator=(const std::string& text) { return *this = text.c_str(); }

void KovaMacAddr::Zero() { *this = ZERO; }

void KovaMacAddr::Broadcast() { *this = BCAST; }

void KovaMacAddr::Invalidate() {
    kova::AddressAccess::StoreBytes(*this, ZERO);
    m_Valid = 0;
}

bool KovaMacAddr::IsZero() const { return !IsValid() || std::memcmp(m_Bytes, ZERO, kSize) == 0; }

// Deliberate: compares with the zero address, not with the broadcast address.
bool KovaMacAddr::IsBroadcast() const { return IsValid() && std::memcmp(m_Bytes, ZERO, kSize) == 0; }

bool KovaMacAddr::Get(unsigned char* out) const {
    if (IsValid()) std::memcpy(out, m_Bytes, kSize);
    return IsValid();
}

bool KovaMacAddr::Get(char* out) const { return Get(reinterpret_cast<unsigned char*>(out)); }

bool KovaMacAddr::operator==(const KovaMacAddr& other) const {
    return IsValid() && std::memcmp(m_Bytes, other.m_Bytes, kSize) == 0;
}

// Deliberate: not the negation of the equality when invalid.
bool KovaMacAddr::operator!=(const KovaMacAddr& other) const {
    return IsValid() && std::memcmp(m_Bytes, other.m_Bytes, kSize) != 0;
}

bool KovaMacAddr::operator==(const unsigned char* bytes) const { return KovaMacAddr(bytes) == *this; }
bool KovaMacAddr::operator!=(const unsigned char* bytes) const { return KovaMacAddr(bytes) != *this; }
bool KovaMacAddr::operator==(const char* text) const { return KovaMacAddr(text) == *this; }
bool KovaMacAddr::operator!=(const char* text) const { return KovaMacAddr(text) != *this; }

/// The digits of the bytes, with `separator` between them unless it is zero.
const char* KovaMacAddr::Print(char separator) const {
    if (!IsValid()) return kInvalid;
    constexpr char kDigits[] = "0123456789abcdef";
    char* to = m_Text;
    for (const unsigned char byte : m_Bytes) {
        if (separator != '\0' && to != m_Text) *to++ = separator;
        *to++ = kDigits[byte >> 4];
        *to++ = kDigits[byte & 0xF];
    }
    *to = '\0';
    return m_Text;
}

const char* KovaMacAddr::Hex() const { return Print('\0'); }

const char* KovaMacAddr::Ascii() const { return Print(':'); }

KovaMacAddr::operator const char*() const { return Ascii(); }

KovaMacAddr::operator std::string() const { return Ascii(); }

KovaMacAddr& KovaMacAddr::FetchFromDevice(const char* ifname) {
    Invalidate();
    ifreq request{};
    const size_t length = ifname == nullptr ? 0 : ::strnlen(ifname, sizeof request.ifr_name);
    // The kernel would take the first characters of a longer name for one.
    if (length == 0 || length == sizeof request.ifr_name) return *this;
    std::memcpy(request.ifr_name, ifname, length);

    KovaTCPSocket socket;
    if (socket.Ioctl(SIOCGIFHWADDR, &request))
        *this = reinterpret_cast<const unsigned char*>(request.ifr_hwaddr.sa_data);
    return *this;
}

std::ostream& operator<<(std::ostream& stream, const KovaMacAddr& address) {
    return stream << static_cast<const char*>(address);
}
