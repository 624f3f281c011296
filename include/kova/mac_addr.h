/// MAC address: the six bytes of an Ethernet address, or none.
///
/// A value type that reports no errors: input that is no address leaves the value invalid, with all bytes
/// zero. The printed text lies inside the object: a returned pointer stays valid until the next assignment or
/// print of the same object, and even a `const` object must not be printed by two threads at once.
#ifndef KOVA_MAC_ADDR_H
#define KOVA_MAC_ADDR_H

#include <kova/export.h>

#include <cstddef>
#include <iosfwd>
#include <string>

namespace kova {
struct AddressAccess;
}

class KOVA_API KovaMacAddr {
  public:
    enum : size_t { kSize = 6 };

    /// 00:00:00:00:00:00 and FF:FF:FF:FF:FF:FF.
    static const unsigned char ZERO[kSize];
    static const unsigned char BCAST[kSize];

    /// Invalid.
    KovaMacAddr();
    /// Copies six bytes; a null pointer gives the invalid value.
    KovaMacAddr(const unsigned char* bytes);
    KovaMacAddr(const KovaMacAddr& other);
    /// Parses `text`, see the assignment.
    KovaMacAddr(const char* text);
    KovaMacAddr(const std::string& text);

    KovaMacAddr& operator=(const unsigned char* bytes);
    KovaMacAddr& operator=(const KovaMacAddr& other);
    /// Parses six hexadecimal numbers between colons (0:1b:2C:03:4:5e), or twelve digits in a row. The first
    /// is taken where the second or third character is a colon, and needs five colons; a number that consists
    /// of the text's last character alone is not read, and its byte stays as it was. Of the second neither
    /// the digits nor what follows them is checked. Any other text, a null pointer included, is invalid.
    KovaMacAddr& operator=(const char* text);
    KovaMacAddr& operator=(const std::string& text);

    /// Valid addresses of these bytes.
    void Zero();
    void Broadcast();
    void Invalidate();

    bool IsValid() const { return m_Valid != 0; }
    /// True for the invalid value, too.
    bool IsZero() const;
    /// True for a valid address of zero bytes, and for no other: not for FF:FF:FF:FF:FF:FF.
    bool IsBroadcast() const;

    /// The six bytes, owned by the object.
    const unsigned char* GetUnsigned() const { return m_Bytes; }
    const char* GetSigned() const { return reinterpret_cast<const char*>(m_Bytes); }
    operator const unsigned char*() const { return m_Bytes; }
    /// Copies the six bytes to `out`, nothing when invalid; returns whether the value is valid.
    bool Get(unsigned char* out) const;
    bool Get(char* out) const;

    /// An invalid address on the left is neither equal nor unequal to anything. Validity on the right is not
    /// looked at.
    bool operator==(const KovaMacAddr& other) const;
    bool operator!=(const KovaMacAddr& other) const;
    /// With bytes or text, which stand on the left: their validity decides.
    bool operator==(const unsigned char* bytes) const;
    bool operator!=(const unsigned char* bytes) const;
    bool operator==(const char* text) const;
    bool operator!=(const char* text) const;

    /// 001b2c03045e, or "MAC Addr invalid".
    const char* Hex() const;
    /// 00:1b:2c:03:04:5e, or "MAC Addr invalid".
    const char* Ascii() const;
    operator const char*() const;
    operator std::string() const;

    /// Asks the kernel for the hardware address of an interface; invalid if it has none to tell. Opens a
    /// socket for the time of the call.
    KovaMacAddr& FetchFromDevice(const char* ifname);

  private:
    friend struct kova::AddressAccess;
    enum : size_t { kTextSize = 18 };

    const char* Print(char separator) const;

    unsigned char m_Bytes[kSize];
    unsigned char m_Valid;
    mutable char m_Text[kTextSize];
};

/// Inserts the form with colons.
KOVA_API std::ostream& operator<<(std::ostream& stream, const KovaMacAddr& address);

#endif
