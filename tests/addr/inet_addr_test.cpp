#include "support/leak_check.h"

#include <kova/inet_addr.h>

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <net/if.h>

#include <cstring>
#include <random>
#include <sstream>
#include <string>
#include <type_traits>
#include <vector>

namespace {

/// Network-order word of a dotted address.
unsigned int Ip(const char* dotted) {
    in_addr address{};
    EXPECT_EQ(1, ::inet_pton(AF_INET, dotted, &address)) << dotted;
    return address.s_addr;
}

in6_addr Ip6(const char* text) {
    in6_addr address{};
    EXPECT_EQ(1, ::inet_pton(AF_INET6, text, &address)) << text;
    return address;
}

/// Network-order port.
unsigned short Port(unsigned short port) { return htons(port); }

std::string Text(const KovaInetAddr& address) { return static_cast<const char*>(address); }

bool HasBytes(const KovaInetAddr& address, const char* text) {
    const in6_addr wanted = Ip6(text);
    return std::memcmp(address.GetIp6(), &wanted, sizeof wanted) == 0;
}

class InetAddr : public KovaTest {};

// --- Which constructor and which conversion ---

TEST_F(InetAddr, IntegersOfEveryKindNameAnIpv4Address) {
    static_assert(std::is_constructible_v<KovaInetAddr, int, int>);
    static_assert(std::is_constructible_v<KovaInetAddr, unsigned int, int>);
    static_assert(std::is_constructible_v<KovaInetAddr, int, unsigned short>);
    static_assert(std::is_constructible_v<KovaInetAddr, unsigned long, short>);
    static_assert(std::is_constructible_v<KovaInetAddr, std::nullptr_t, unsigned short>);
    static_assert(std::is_constructible_v<KovaInetAddr, char*, int>);
    EXPECT_TRUE(HasBytes(KovaInetAddr(0, 0), "::ffff:0.0.0.0"));
    EXPECT_TRUE(HasBytes(KovaInetAddr(Ip("10.1.2.3"), 0), "::ffff:10.1.2.3"));
    EXPECT_TRUE(HasBytes(KovaInetAddr(static_cast<long>(Ip("10.1.2.3")), 0L), "::ffff:10.1.2.3"));
}

TEST_F(InetAddr, ConvertsToEachOfItsParts) {
    static_assert(std::is_convertible_v<const KovaInetAddr&, unsigned int>);
    static_assert(std::is_convertible_v<const KovaInetAddr&, unsigned short>);
    static_assert(std::is_convertible_v<const KovaInetAddr&, short>);
    static_assert(std::is_convertible_v<const KovaInetAddr&, const char*>);
    static_assert(std::is_convertible_v<const KovaInetAddr&, std::string>);
    const KovaInetAddr address(Ip("10.1.2.3"), Port(0xABCD));
    const unsigned int ip = address;
    const unsigned short port = address;
    const short signed_port = address;
    const char* const text = address;
    const std::string string = address;
    EXPECT_EQ(Ip("10.1.2.3"), ip);
    EXPECT_EQ(Port(0xABCD), port);
    EXPECT_EQ(static_cast<short>(Port(0xABCD)), signed_port);
    EXPECT_STREQ("10.1.2.3:43981", text);
    EXPECT_EQ("10.1.2.3:43981", string);
}

TEST_F(InetAddr, OnlyTheDestructorIsVirtual) {
    static_assert(std::has_virtual_destructor_v<KovaInetAddr>);
    static_assert(!std::is_default_constructible_v<KovaInetAddr>);
}

// --- Construction ---

TEST_F(InetAddr, FromIpv4WordIsMapped) {
    const KovaInetAddr address(Ip("10.0.0.1"), Port(7));
    EXPECT_TRUE(HasBytes(address, "::ffff:10.0.0.1"));
    EXPECT_EQ(Ip("10.0.0.1"), address.GetIp());
    EXPECT_EQ(Port(7), address.GetPort());
    EXPECT_EQ(-1, address.GetScope());
    EXPECT_EQ("10.0.0.1:7", Text(address));
    EXPECT_STREQ("10.0.0.1", address.GetAsciiIp());
    EXPECT_STREQ("7", address.GetAsciiPort());
}

TEST_F(InetAddr, FromIpv6BytesKeepsThem) {
    const KovaInetAddr address(Ip6("fe80::1:2"), Port(80));
    EXPECT_TRUE(HasBytes(address, "fe80::1:2"));
    EXPECT_EQ(-1, address.GetScope());
    EXPECT_EQ("fe80::1:2:80", Text(address));
}

TEST_F(InetAddr, FromIpv4TextEndsWithPort0) {
    for (const KovaInetAddr& address :
         {KovaInetAddr("192.168.1.5", Port(80)), KovaInetAddr(std::string("192.168.1.5"), Port(80))}) {
        EXPECT_TRUE(HasBytes(address, "::ffff:192.168.1.5"));
        EXPECT_EQ(0, address.GetPort());
        EXPECT_EQ("192.168.1.5", Text(address));
    }
}

TEST_F(InetAddr, FromIpv6TextKeepsItsPort) {
    for (const KovaInetAddr& address :
         {KovaInetAddr("fe80::1", Port(80)), KovaInetAddr(std::string("fe80::1"), Port(80))}) {
        EXPECT_EQ(Port(80), address.GetPort());
        EXPECT_EQ(-1, address.GetScope());
        EXPECT_EQ("fe80::1:80", Text(address));
    }
}

TEST_F(InetAddr, FromNullOrEmptyStringIsAllZero) {
    EXPECT_EQ("::", Text(KovaInetAddr(static_cast<const char*>(nullptr), 0)));
    EXPECT_EQ("::", Text(KovaInetAddr(std::string(), 0)));
    EXPECT_EQ(":::80", Text(KovaInetAddr(std::string(), Port(80)))) << "the port is stored";
}

TEST_F(InetAddr, FromTextThatIsNoAddressIsMappedZeroWithThePort) {
    for (const char* text :
         {"", "localhost", "10.0.0.1:80", "[::1]", "fe80::1%lo", "10.0.0", " 10.0.0.1", "256.0.0.1",
          "1:2:3:4:5:6:7:8:9", "1111:2222:3333:4444:5555:6666:7777:8888:9999:aaaa:bbbb"}) {
        EXPECT_TRUE(HasBytes(KovaInetAddr(text, Port(5)), "::ffff:0.0.0.0")) << text;
        EXPECT_EQ("0.0.0.0:5", Text(KovaInetAddr(text, Port(5)))) << text;
    }
}

TEST_F(InetAddr, StringIsReadUpToItsFirstZero) {
    EXPECT_EQ("10.0.0.1", Text(KovaInetAddr(std::string("10.0.0.1\0.5", 11), 0)));
    KovaInetAddr address(0, 0);
    address = std::string("::5\0:6", 6);
    EXPECT_TRUE(HasBytes(address, "::5"));
}

TEST_F(InetAddr, CopyHasNoScope) {
    KovaInetAddr original(Ip6("fe80::1"), Port(9));
    original.SetScope(3);
    const KovaInetAddr copy(original);
    EXPECT_TRUE(HasBytes(copy, "fe80::1"));
    EXPECT_EQ(Port(9), copy.GetPort());
    EXPECT_EQ(-1, copy.GetScope());
}

// --- Assignment ---

class InetAddrAssignment : public KovaTest {
  protected:
    InetAddrAssignment() { m_Address.SetScope(3); }

    KovaInetAddr m_Address{Ip6("fe80::1"), Port(80)};
};

TEST_F(InetAddrAssignment, OfAnAddressTakesEverything) {
    KovaInetAddr other(Ip("10.0.0.1"), Port(7));
    other.SetScope(5);
    EXPECT_EQ(&m_Address, &(m_Address = other));
    EXPECT_EQ("10.0.0.1:7", Text(m_Address));
    EXPECT_STREQ("7", m_Address.GetAsciiPort());
    EXPECT_EQ(5, m_Address.GetScope());
}

TEST_F(InetAddrAssignment, OfBytesKeepsPortAndScope) {
    EXPECT_EQ(&m_Address, &(m_Address = Ip6("fe80::2")));
    EXPECT_EQ("fe80::2:80", Text(m_Address));
    EXPECT_EQ(3, m_Address.GetScope());
}

TEST_F(InetAddrAssignment, OfIpv4TextClearsPortAndScope) {
    EXPECT_EQ(&m_Address, &(m_Address = "10.0.0.1"));
    EXPECT_EQ("10.0.0.1", Text(m_Address));
    EXPECT_EQ(0, m_Address.GetPort());
    EXPECT_EQ(-1, m_Address.GetScope());
}

TEST_F(InetAddrAssignment, OfIpv6TextKeepsPortAndScope) {
    m_Address = std::string("::ffff:10.0.0.1");
    EXPECT_TRUE(HasBytes(m_Address, "::ffff:10.0.0.1"));
    EXPECT_EQ(Port(80), m_Address.GetPort());
    EXPECT_EQ(3, m_Address.GetScope());
}

TEST_F(InetAddrAssignment, OfOtherTextLeavesMappedZeroAndKeepsPortAndScope) {
    for (const char* text : {static_cast<const char*>(nullptr), "", "no address"}) {
        m_Address = Ip6("fe80::1");
        m_Address = text;
        EXPECT_EQ("0.0.0.0:80", Text(m_Address));
        EXPECT_EQ(3, m_Address.GetScope());
    }
    m_Address = std::string();
    EXPECT_EQ("0.0.0.0:80", Text(m_Address)) << "an empty string is all zero in the constructor only";
}

TEST_F(InetAddrAssignment, ToItselfChangesNothing) {
    const KovaInetAddr& same = m_Address;
    m_Address = same;
    EXPECT_EQ("fe80::1:80", Text(m_Address));
    EXPECT_EQ(3, m_Address.GetScope());
}

TEST_F(InetAddrAssignment, OfIpv4TextIsWhatInetPtonMakesOfIt) {
    constexpr char kAlphabet[] = "0123456789.0125. :xa-+";
    std::minstd_rand random(11);
    const auto below = [&](size_t limit) { return static_cast<size_t>(random() % limit); };
    for (int i = 0; i < 20000; ++i) {
        std::string text = "10.253.0.255";
        if (i % 2 == 0) {
            text.clear();
            for (int part = 0; part < 4; ++part)
                text += (part == 0 ? "" : ".") + std::to_string(below(i % 3 == 0 ? 1100 : 270));
        }
        for (size_t changes = below(3); changes > 0; --changes) {
            const char letter = kAlphabet[below(sizeof kAlphabet)];
            const size_t at = below(text.size() + 1);
            if (below(2) == 0 || at == text.size()) {
                text.insert(at, 1, letter);
            } else {
                text[at] = letter;
            }
        }
        in_addr expected{};
        in6_addr other;
        if (::inet_pton(AF_INET6, text.c_str(), &other) == 1) continue;
        if (::inet_pton(AF_INET, text.c_str(), &expected) != 1) expected.s_addr = 0;
        KovaInetAddr address(1, 0);
        address = text.c_str();
        EXPECT_EQ(expected.s_addr, address.GetIp()) << text;
    }
}

TEST_F(InetAddrAssignment, OfItsOwnTextIsParsedBeforeItChanges) {
    m_Address = m_Address.GetAsciiIp();
    EXPECT_EQ("fe80::1:80", Text(m_Address));

    KovaInetAddr ip4(Ip("10.0.0.1"), 0);
    ip4 = static_cast<const char*>(ip4);
    EXPECT_EQ("10.0.0.1", Text(ip4));

    // With its port, the text of an IPv6 address is another valid address, that of an IPv4 address none.
    m_Address = static_cast<const char*>(m_Address);
    EXPECT_TRUE(HasBytes(m_Address, "fe80::1:80"));
    ip4.SetPort(Port(7));
    ip4 = static_cast<const char*>(ip4);
    EXPECT_TRUE(HasBytes(ip4, "::ffff:0.0.0.0"));
}

// --- Setters ---

TEST_F(InetAddrAssignment, SetIpKeepsPortAndScope) {
    m_Address.SetIp(Ip("10.0.0.2"));
    EXPECT_EQ("10.0.0.2:80", Text(m_Address));
    m_Address.SetIp(Ip6("fe80::2"));
    EXPECT_EQ("fe80::2:80", Text(m_Address));
    EXPECT_EQ(3, m_Address.GetScope());
}

TEST_F(InetAddrAssignment, ScopeByNameIsTheInterfaceIndex) {
    m_Address.SetScope("lo");
    EXPECT_EQ(static_cast<int>(::if_nametoindex("lo")), m_Address.GetScope());
    m_Address.SetScope(std::string("nosuch"));
    EXPECT_EQ(0, m_Address.GetScope());
    m_Address.SetScope(std::string("lo"));
    EXPECT_EQ(static_cast<int>(::if_nametoindex("lo")), m_Address.GetScope());
    for (const char* none :
         {"", "an-interface-name-that-is-far-too-long", static_cast<const char*>(nullptr)}) {
        m_Address.SetScope(7);
        m_Address.SetScope(none);
        EXPECT_EQ(0, m_Address.GetScope());
    }
}

// --- Printing ---

TEST_F(InetAddr, PrintsMappedAndCompatibleAddressesDotted) {
    const struct {
        const char* address;
        const char* text;
    } cases[] = {
        {"::", "::"},
        {"::1", "::1"},
        {"::2", "0.0.0.2"},
        {"::100", "0.0.1.0"},
        {"::10.1.2.3", "10.1.2.3"},
        {"::255.255.255.255", "255.255.255.255"},
        {"::ffff:0.0.0.0", "0.0.0.0"},
        {"::ffff:0.0.0.1", "0.0.0.1"},
        {"::ffff:10.1.2.3", "10.1.2.3"},
        {"::ffff:255.255.255.255", "255.255.255.255"},
        {"::fffe:a01:203", "::fffe:a01:203"},
        {"::1:ffff:a01:203", "::1:ffff:a01:203"},
        {"1::ffff:a01:203", "1::ffff:a01:203"},
        {"::1:0:0", "::1:0:0"},
        {"fe80::1", "fe80::1"},
        {"64:ff9b::a01:203", "64:ff9b::a01:203"},
        {"2001:db8:0:0:1:0:0:1", "2001:db8::1:0:0:1"},
        {"ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff", "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff"},
    };
    for (const auto& [bytes, text] : cases) {
        EXPECT_EQ(text, Text(KovaInetAddr(Ip6(bytes), 0))) << bytes;
        EXPECT_STREQ(text, KovaInetAddr(Ip6(bytes), Port(80)).GetAsciiIp()) << bytes;
        EXPECT_EQ(text + std::string(":65535"), Text(KovaInetAddr(Ip6(bytes), 0xFFFF))) << bytes;
        EXPECT_EQ(text + std::string(":80"),
                  std::string(KovaInetAddr(Ip6(bytes), Port(80)).operator std::string()));
    }
}

TEST_F(InetAddr, PrintsEveryByteOfADottedAddress) {
    for (unsigned byte = 0; byte < 256; ++byte) {
        const std::string number = std::to_string(byte);
        const std::string dotted = number + "." + number + "." + number + "." + number;
        EXPECT_EQ(dotted, Text(KovaInetAddr(Ip(dotted.c_str()), 0)));
    }
}

TEST_F(InetAddr, LongestTextFitsItsBuffer) {
    const KovaInetAddr address("fedc:ba98:7654:3210:fedc:ba98:7654:3210", Port(65535));
    EXPECT_STREQ("65535", address.GetAsciiPort());
    EXPECT_EQ("fedc:ba98:7654:3210:fedc:ba98:7654:3210:65535", Text(address));
    EXPECT_EQ(45u, Text(address).size()) << "46 bytes with the terminating zero";
    EXPECT_STREQ("65535", address.GetAsciiPort()) << "the port's text lies behind it";
}

TEST_F(InetAddr, TextsLieInTheObject) {
    const KovaInetAddr address(Ip("10.0.0.1"), Port(7));
    const auto lies_inside = [&](const char* text) {
        const auto* const begin = reinterpret_cast<const char*>(&address);
        return text > begin && text < begin + sizeof address;
    };
    EXPECT_TRUE(lies_inside(address));
    EXPECT_TRUE(lies_inside(address.GetAsciiIp()));
    EXPECT_TRUE(lies_inside(address.GetAsciiPort()));
}

TEST_F(InetAddr, TextsFollowEveryChange) {
    KovaInetAddr address(Ip("10.0.0.1"), Port(7));
    EXPECT_EQ("10.0.0.1:7", Text(address));
    EXPECT_STREQ("7", address.GetAsciiPort());
    address.SetPort(Port(8));
    EXPECT_EQ("10.0.0.1:8", Text(address));
    EXPECT_STREQ("8", address.GetAsciiPort());
    address.SetIp(Ip("10.0.0.2"));
    EXPECT_STREQ("10.0.0.2", address.GetAsciiIp());
    address = "10.0.0.3";
    EXPECT_EQ("10.0.0.3", Text(address));
    EXPECT_STREQ("0", address.GetAsciiPort());
    address = Ip6("::1");
    EXPECT_STREQ("::1", address.GetAsciiIp());
}

TEST_F(InetAddr, ChangeOfTheAddressEmptiesItsText) {
    KovaInetAddr address(Ip("10.0.0.1"), Port(7));
    const char* const text = address;
    address.SetIp(Ip("10.0.0.2"));
    EXPECT_STREQ("", text);
    const char* const port = address.GetAsciiPort();
    address.SetIp(Ip("10.0.0.3"));
    EXPECT_STREQ("7", port) << "the port's text is the port's";
    address.SetPort(Port(8));
    EXPECT_STREQ("", port);
}

TEST_F(InetAddr, StreamingAlsoWritesADiagnosticLineEachTime) {
    const KovaInetAddr address(Ip("10.0.0.1"), Port(7));
    std::ostringstream stream;
    testing::internal::CaptureStdout();
    stream << address << " and " << address;
    EXPECT_EQ(
        "std::ostream& operator << (std::ostream& stream, const KovaInetAddr& Addr)\n"
        "std::ostream& operator << (std::ostream& stream, const KovaInetAddr& Addr)\n",
        testing::internal::GetCapturedStdout());
    EXPECT_EQ("10.0.0.1:7 and 10.0.0.1:7", stream.str());
}

// --- Comparing ---

/// Addresses whose last four bytes would order differently if they were read as little-endian words.
const std::vector<KovaInetAddr>& Addresses() {
    static const std::vector<KovaInetAddr> addresses{
        {Ip("0.0.0.0"), 0},       {Ip("0.0.0.1"), 0},         {Ip("1.0.0.0"), Port(1)},
        {Ip("1.0.0.0"), Port(2)}, {Ip6("fe80::100:0"), 0},    {Ip("1.0.0.2"), 0},
        {Ip("2.0.0.1"), 0},       {Ip("127.255.255.255"), 0}, {Ip("128.0.0.0"), Port(1)},
        {Ip6("fe80::8000:0"), 0}, {Ip("255.255.255.255"), 0}};
    return addresses;
}

/// The last four bytes, first one most significant.
uint32_t Low(const KovaInetAddr& address) {
    const uint8_t* const bytes = address.GetIp6()->s6_addr;
    return uint32_t{bytes[12]} << 24 | uint32_t{bytes[13]} << 16 | uint32_t{bytes[14]} << 8 | bytes[15];
}

TEST_F(InetAddr, EqualityLooksAtTheLastFourBytesAndThePort) {
    for (const KovaInetAddr& a : Addresses()) {
        for (const KovaInetAddr& b : Addresses()) {
            const bool equal = Low(a) == Low(b) && a.GetPort() == b.GetPort();
            EXPECT_EQ(equal, a == b) << Text(a) << " " << Text(b);
            EXPECT_EQ(!equal, a != b) << Text(a) << " " << Text(b);
        }
    }
}

TEST_F(InetAddr, EqualityIgnoresTheRestOfAnIpv6AddressAndTheScope) {
    KovaInetAddr a(Ip6("fe80::1:2"), Port(5));
    const KovaInetAddr b(Ip6("2001:db8::1:2"), Port(5));
    a.SetScope(4);
    EXPECT_TRUE(a == b);
    EXPECT_FALSE(a != b);
}

TEST_F(InetAddr, OrderLooksAtTheLastFourBytesOnly) {
    for (const KovaInetAddr& a : Addresses()) {
        for (const KovaInetAddr& b : Addresses()) {
            EXPECT_EQ(Low(a) < Low(b), a < b) << Text(a) << " " << Text(b);
            EXPECT_EQ(Low(a) <= Low(b), a <= b) << Text(a) << " " << Text(b);
            EXPECT_EQ(Low(a) > Low(b), a > b) << Text(a) << " " << Text(b);
            EXPECT_EQ(Low(a) >= Low(b), a >= b) << Text(a) << " " << Text(b);
        }
    }
}

TEST_F(InetAddr, ComparesWithAnIpv4WordOnEitherSide) {
    for (const KovaInetAddr& a : Addresses()) {
        for (const KovaInetAddr& other : Addresses()) {
            const unsigned int ip = other.GetIp();
            const uint32_t low = Low(other);
            EXPECT_EQ(Low(a) == low, a == ip) << Text(a) << " " << Text(other);
            EXPECT_EQ(Low(a) != low, a != ip) << Text(a) << " " << Text(other);
            EXPECT_EQ(Low(a) < low, a < ip) << Text(a) << " " << Text(other);
            EXPECT_EQ(Low(a) <= low, a <= ip) << Text(a) << " " << Text(other);
            EXPECT_EQ(Low(a) > low, a > ip) << Text(a) << " " << Text(other);
            EXPECT_EQ(Low(a) >= low, a >= ip) << Text(a) << " " << Text(other);
            EXPECT_EQ(low == Low(a), ip == a) << Text(other) << " " << Text(a);
            EXPECT_EQ(low != Low(a), ip != a) << Text(other) << " " << Text(a);
            EXPECT_EQ(low < Low(a), ip < a) << Text(other) << " " << Text(a);
            EXPECT_EQ(low <= Low(a), ip <= a) << Text(other) << " " << Text(a);
            EXPECT_EQ(low > Low(a), ip > a) << Text(other) << " " << Text(a);
            EXPECT_EQ(low >= Low(a), ip >= a) << Text(other) << " " << Text(a);
        }
    }
}

}  // namespace
