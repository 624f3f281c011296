/// Internet address: an IPv6 address with port and scope that serves IPv4 in its mapped form.
///
/// A value type that reports no errors: text that is no address leaves 0.0.0.0. Words and ports are in
/// network byte order unless a name says otherwise. The printed texts are cached inside the object: a
/// returned pointer stays valid until the next change or print of the same object, and even a `const` object
/// must not be printed by two threads at once.
#ifndef KOVA_INET_ADDR_H
#define KOVA_INET_ADDR_H

#include <kova/export.h>

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <string>
#include <type_traits>

namespace kova {
struct AddressAccess;
}

class KOVA_API KovaInetAddr {
  public:
    /// Scope of an address without scope.
    static constexpr int kNoScope = -1;

    /// IPv4 address `ip`, held as ::ffff:a.b.c.d. Both in network order.
    KovaInetAddr(unsigned int ip, unsigned short port);
    /// Plain integers (literals above all) name an IPv4 address, too.
    template <typename Ip, typename Port,
              typename = std::enable_if_t<std::is_integral<Ip>::value && std::is_integral<Port>::value>>
    KovaInetAddr(Ip ip, Port port)
        : KovaInetAddr(static_cast<unsigned int>(ip), static_cast<unsigned short>(port)) {}
    /// The 16 bytes as they are; port in network order.
    KovaInetAddr(const in6_addr& ip, unsigned short port);
    /// Parses `text` as `operator=` does. IPv4 text loses the port, IPv6 text keeps it. A null pointer gives
    /// the all-zero address ::, and so does an empty string object.
    KovaInetAddr(const char* text, unsigned short port);
    KovaInetAddr(const std::string& text, unsigned short port);
    /// Copies address and port, not the scope.
    KovaInetAddr(const KovaInetAddr& other);
    virtual ~KovaInetAddr();

    /// Copies address, port and scope.
    KovaInetAddr& operator=(const KovaInetAddr& other);
    /// Replaces the 16 address bytes only.
    KovaInetAddr& operator=(const in6_addr& ip);
    /// Parses a numeric address; no host names, no ports. IPv4 text also sets port 0 and no scope, IPv6 text
    /// replaces the 16 bytes only, anything else (a null pointer included) leaves 0.0.0.0.
    KovaInetAddr& operator=(const char* text);
    KovaInetAddr& operator=(const std::string& text);

    void SetIp(unsigned int ip);
    void SetIp(const in6_addr& ip);
    void SetPort(unsigned short port);
    /// Interface index of a link-local address.
    void SetScope(int scope) { m_Scope = scope; }
    /// By interface name; 0 for an interface that does not exist.
    void SetScope(const char* ifname);
    void SetScope(const std::string& ifname);

    /// The last four address bytes: the IPv4 address of an IPv4 value.
    unsigned int GetIp() const;
    const in6_addr* GetIp6() const { return &m_Ip; }
    unsigned short GetPort() const { return m_Port; }
    int GetScope() const { return m_Scope; }
    /// The address as text, without port.
    const char* GetAsciiIp() const;
    /// The port in decimal, renewed by `SetPort` only.
    const char* GetAsciiPort() const;

    operator unsigned int() const { return GetIp(); }
    operator unsigned short() const { return m_Port; }
    operator short() const { return static_cast<short>(m_Port); }
    /// The address as text, followed by ":port" when there is a port: 10.1.2.3:8080, fe80::1:8080.
    operator const char*() const;
    operator std::string() const;

    /// Equality looks at the last four address bytes and the port, order at the last four bytes only; neither
    /// at the rest of an IPv6 address or the scope.
    bool operator==(const KovaInetAddr& other) const;
    bool operator!=(const KovaInetAddr& other) const;
    bool operator<(const KovaInetAddr& other) const;
    bool operator<=(const KovaInetAddr& other) const;
    bool operator>(const KovaInetAddr& other) const;
    bool operator>=(const KovaInetAddr& other) const;

    /// With an IPv4 address in network order.
    bool operator==(unsigned int ip) const;
    bool operator!=(unsigned int ip) const;
    bool operator<(unsigned int ip) const;
    bool operator<=(unsigned int ip) const;
    bool operator>(unsigned int ip) const;
    bool operator>=(unsigned int ip) const;
    /// Literals are `int`.
    bool operator==(int ip) const { return *this == static_cast<unsigned int>(ip); }
    bool operator!=(int ip) const { return *this != static_cast<unsigned int>(ip); }
    bool operator<(int ip) const { return *this < static_cast<unsigned int>(ip); }
    bool operator<=(int ip) const { return *this <= static_cast<unsigned int>(ip); }
    bool operator>(int ip) const { return *this > static_cast<unsigned int>(ip); }
    bool operator>=(int ip) const { return *this >= static_cast<unsigned int>(ip); }

  private:
    friend struct kova::AddressAccess;
    enum { kTextSize = INET6_ADDRSTRLEN, kPortTextSize = 8 };

    size_t PrintIp() const;
    const char* Print() const;

    in6_addr m_Ip;
    unsigned short m_Port;
    mutable char m_Text[kTextSize];
    mutable char m_PortText[kPortTextSize];
    int32_t m_Scope;
};

KOVA_API bool operator==(unsigned int ip, const KovaInetAddr& address);
KOVA_API bool operator!=(unsigned int ip, const KovaInetAddr& address);
KOVA_API bool operator<(unsigned int ip, const KovaInetAddr& address);
KOVA_API bool operator<=(unsigned int ip, const KovaInetAddr& address);
KOVA_API bool operator>(unsigned int ip, const KovaInetAddr& address);
KOVA_API bool operator>=(unsigned int ip, const KovaInetAddr& address);
inline bool operator==(int ip, const KovaInetAddr& address) {
    return static_cast<unsigned int>(ip) == address;
}
inline bool operator!=(int ip, const KovaInetAddr& address) {
    return static_cast<unsigned int>(ip) != address;
}
inline bool operator<(int ip, const KovaInetAddr& address) { return static_cast<unsigned int>(ip) < address; }
inline bool operator<=(int ip, const KovaInetAddr& address) {
    return static_cast<unsigned int>(ip) <= address;
}
inline bool operator>(int ip, const KovaInetAddr& address) { return static_cast<unsigned int>(ip) > address; }
inline bool operator>=(int ip, const KovaInetAddr& address) {
    return static_cast<unsigned int>(ip) >= address;
}

/// Inserts the text with port. Also writes a diagnostic line to standard output.
KOVA_API std::ostream& operator<<(std::ostream& stream, const KovaInetAddr& address);

#endif
