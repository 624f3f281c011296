#include "support/fake_libc.h"
#include "support/leak_check.h"
#include "support/second_host.h"
#include "support/trace_recorder.h"

#include <kova/mac_addr.h>

#include <gtest/gtest.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <limits>
#include <random>
#include <sstream>
#include <string>
#include <type_traits>
#include <vector>

namespace {

using Texts = std::vector<std::string>;
using Bytes = std::array<unsigned char, KovaMacAddr::kSize>;

constexpr Bytes kZero{};
constexpr Bytes kOnes{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
constexpr Bytes kSome{0x00, 0x1B, 0xA2, 0x03, 0xF4, 0x5E};
constexpr char kSomeText[] = "00:1b:a2:03:f4:5e";
constexpr char kInvalid[] = "MAC Addr invalid";

Bytes BytesOf(const KovaMacAddr& address) {
    Bytes bytes;
    std::memcpy(bytes.data(), address.GetUnsigned(), bytes.size());
    return bytes;
}

KovaMacAddr Some() { return KovaMacAddr(kSome.data()); }

testing::AssertionResult IsInvalid(const KovaMacAddr& address) {
    if (!address.IsValid() && BytesOf(address) == kZero) return testing::AssertionSuccess();
    return testing::AssertionFailure()
           << "valid " << address.IsValid() << ", bytes " << testing::PrintToString(BytesOf(address));
}

testing::AssertionResult Holds(const KovaMacAddr& address, const Bytes& bytes) {
    if (address.IsValid() && BytesOf(address) == bytes) return testing::AssertionSuccess();
    return testing::AssertionFailure()
           << "valid " << address.IsValid() << ", bytes " << testing::PrintToString(BytesOf(address));
}

class MacAddr : public KovaTest {};

// --- Values ---

TEST_F(MacAddr, ConstantsAreZeroAndBroadcast) {
    static_assert(sizeof KovaMacAddr::ZERO == 6 && sizeof KovaMacAddr::BCAST == 6);
    EXPECT_EQ(0, std::memcmp(kZero.data(), KovaMacAddr::ZERO, sizeof KovaMacAddr::ZERO));
    EXPECT_EQ(0, std::memcmp(kOnes.data(), KovaMacAddr::BCAST, sizeof KovaMacAddr::BCAST));
}

TEST_F(MacAddr, HasNoVirtualOperationAndNoErrorRecord) {
    static_assert(!std::is_polymorphic_v<KovaMacAddr>);
    static_assert(sizeof(KovaMacAddr) == 6 + 1 + 18 && alignof(KovaMacAddr) == 1);
}

TEST_F(MacAddr, StartsInvalid) {
    const KovaMacAddr address;
    EXPECT_TRUE(IsInvalid(address));
    EXPECT_TRUE(address.IsZero());
    EXPECT_FALSE(address.IsBroadcast());
    EXPECT_STREQ(kInvalid, address.Hex());
    EXPECT_STREQ(kInvalid, address.Ascii());
}

TEST_F(MacAddr, TakesSixBytes) {
    const KovaMacAddr constructed(kSome.data());
    EXPECT_TRUE(Holds(constructed, kSome));
    KovaMacAddr assigned;
    EXPECT_EQ(&assigned, &(assigned = kSome.data()));
    EXPECT_TRUE(Holds(assigned, kSome));
}

TEST_F(MacAddr, NullBytesAndNullTextsAreInvalid) {
    const unsigned char* const no_bytes = nullptr;
    const char* const no_text = nullptr;
    EXPECT_TRUE(IsInvalid(KovaMacAddr(no_bytes)));
    EXPECT_TRUE(IsInvalid(KovaMacAddr(no_text)));
    KovaMacAddr address = Some();
    address = no_bytes;
    EXPECT_TRUE(IsInvalid(address));
    address = kSome.data();
    address = no_text;
    EXPECT_TRUE(IsInvalid(address));
}

TEST_F(MacAddr, CopiesBytesAndValidity) {
    const KovaMacAddr some = Some();
    const KovaMacAddr copy(some);
    EXPECT_TRUE(Holds(copy, kSome));
    const KovaMacAddr invalid;
    EXPECT_TRUE(IsInvalid(KovaMacAddr(invalid)));
    KovaMacAddr assigned = Some();
    assigned = invalid;
    EXPECT_TRUE(IsInvalid(assigned));
    EXPECT_EQ(&assigned, &(assigned = some));
    EXPECT_TRUE(Holds(assigned, kSome));
}

TEST_F(MacAddr, ZeroBroadcastAndInvalidateSetTheValue) {
    KovaMacAddr address = Some();
    address.Zero();
    EXPECT_TRUE(Holds(address, kZero));
    address.Broadcast();
    EXPECT_TRUE(Holds(address, kOnes));
    address.Invalidate();
    EXPECT_TRUE(IsInvalid(address));
}

TEST_F(MacAddr, IsZeroWhenInvalidOrZero) {
    KovaMacAddr address = Some();
    EXPECT_FALSE(address.IsZero());
    address.Zero();
    EXPECT_TRUE(address.IsZero());
    address.Broadcast();
    EXPECT_FALSE(address.IsZero());
    address.Invalidate();
    EXPECT_TRUE(address.IsZero());
}

TEST_F(MacAddr, IsBroadcastMeansValidZeroBytes) {
    KovaMacAddr address = Some();
    EXPECT_FALSE(address.IsBroadcast());
    address.Zero();
    EXPECT_TRUE(address.IsBroadcast());
    address.Broadcast();
    EXPECT_FALSE(address.IsBroadcast());
    address.Invalidate();
    EXPECT_FALSE(address.IsBroadcast());
    for (size_t i = 0; i < kZero.size(); ++i) {
        Bytes one_bit = kZero;
        one_bit[i] = 0x80;
        EXPECT_FALSE(KovaMacAddr(one_bit.data()).IsBroadcast()) << i;
        EXPECT_FALSE(KovaMacAddr(one_bit.data()).IsZero()) << i;
    }
}

TEST_F(MacAddr, BytesAreReachedInPlace) {
    const KovaMacAddr address = Some();
    const unsigned char* const converted = address;
    EXPECT_EQ(address.GetUnsigned(), converted);
    EXPECT_EQ(static_cast<const void*>(address.GetUnsigned()), address.GetSigned());
    EXPECT_EQ(static_cast<const void*>(&address), converted);
    static_assert(std::is_same_v<const char*, decltype(address.GetSigned())>);
    EXPECT_EQ(0, std::memcmp(kSome.data(), address.GetSigned(), kSome.size()));
}

TEST_F(MacAddr, GetCopiesSixBytesOfAValidAddress) {
    const KovaMacAddr address = Some();
    unsigned char bytes[7] = {9, 9, 9, 9, 9, 9, 9};
    EXPECT_TRUE(address.Get(bytes));
    EXPECT_EQ(0, std::memcmp(kSome.data(), bytes, kSome.size()));
    EXPECT_EQ(9, bytes[6]);
    char characters[7] = {9, 9, 9, 9, 9, 9, 9};
    EXPECT_TRUE(address.Get(characters));
    EXPECT_EQ(0, std::memcmp(kSome.data(), characters, kSome.size()));
    EXPECT_EQ(9, characters[6]);
}

TEST_F(MacAddr, GetOfAnInvalidAddressTouchesNothing) {
    const KovaMacAddr address;
    unsigned char bytes[6] = {1, 2, 3, 4, 5, 6};
    EXPECT_FALSE(address.Get(bytes));
    EXPECT_EQ(0, std::memcmp("\1\2\3\4\5\6", bytes, sizeof bytes));
    char characters[6] = {1, 2, 3, 4, 5, 6};
    EXPECT_FALSE(address.Get(characters));
    EXPECT_EQ(0, std::memcmp("\1\2\3\4\5\6", characters, sizeof characters));
}

// --- Comparison ---

TEST_F(MacAddr, ComparesAllSixBytes) {
    const KovaMacAddr some = Some();
    EXPECT_TRUE(some == KovaMacAddr(some));
    EXPECT_FALSE(some != KovaMacAddr(some));
    for (size_t i = 0; i < kSome.size(); ++i) {
        Bytes other = kSome;
        other[i] ^= 1;
        EXPECT_FALSE(some == KovaMacAddr(other.data())) << i;
        EXPECT_TRUE(some != KovaMacAddr(other.data())) << i;
    }
}

TEST_F(MacAddr, InvalidIsNeitherEqualNorUnequalToAnything) {
    const KovaMacAddr invalid;
    KovaMacAddr zero;
    zero.Zero();
    for (const KovaMacAddr& other : {KovaMacAddr(), zero, Some()}) {
        EXPECT_FALSE(invalid == other);
        EXPECT_FALSE(invalid != other);
    }
}

TEST_F(MacAddr, ValidityOnTheRightIsNotLookedAt) {
    const KovaMacAddr invalid;
    KovaMacAddr zero;
    zero.Zero();
    EXPECT_TRUE(zero == invalid);
    EXPECT_FALSE(zero != invalid);
    EXPECT_FALSE(Some() == invalid);
    EXPECT_TRUE(Some() != invalid);
}

TEST_F(MacAddr, BytesAndTextsStandOnTheLeft) {
    const KovaMacAddr some = Some();
    EXPECT_TRUE(some == kSome.data());
    EXPECT_FALSE(some != kSome.data());
    EXPECT_FALSE(some == kOnes.data());
    EXPECT_TRUE(some != kOnes.data());
    EXPECT_TRUE(some == kSomeText);
    EXPECT_FALSE(some != kSomeText);
    EXPECT_TRUE(some == "001BA203F45E");
    EXPECT_FALSE(some == "ff:ff:ff:ff:ff:ff");
    EXPECT_TRUE(some != "ff:ff:ff:ff:ff:ff");

    // An invalid object is compared by its zero bytes then, an invalid text never.
    const KovaMacAddr invalid;
    EXPECT_TRUE(invalid == kZero.data());
    EXPECT_FALSE(invalid != kZero.data());
    EXPECT_TRUE(invalid != kSomeText);
    EXPECT_TRUE(invalid == "00:00:00:00:00:00");
    EXPECT_FALSE(some == "nonsense");
    EXPECT_FALSE(some != "nonsense");
    const unsigned char* const no_bytes = nullptr;
    EXPECT_FALSE(some == no_bytes);
    EXPECT_FALSE(some != no_bytes);
    const char* const no_text = nullptr;
    EXPECT_FALSE(some == no_text);
    EXPECT_FALSE(some != no_text);
}

// --- Printing ---

TEST_F(MacAddr, PrintsLowerCaseDigitsInBothForms) {
    const KovaMacAddr address = Some();
    EXPECT_STREQ("001ba203f45e", address.Hex());
    EXPECT_STREQ(kSomeText, address.Ascii());
    const char* const text = address;
    EXPECT_STREQ(kSomeText, text);
    const std::string string = address;
    EXPECT_EQ(kSomeText, string);
    std::ostringstream stream;
    stream << address << "|";
    EXPECT_EQ(std::string(kSomeText) + "|", stream.str());
    EXPECT_STREQ("ff:ff:ff:ff:ff:ff", KovaMacAddr(kOnes.data()).Ascii());
}

TEST_F(MacAddr, PrintsThatItIsInvalidInEveryForm) {
    const KovaMacAddr address;
    EXPECT_STREQ(kInvalid, address.Hex());
    EXPECT_STREQ(kInvalid, address.Ascii());
    EXPECT_STREQ(kInvalid, static_cast<const char*>(address));
    EXPECT_EQ(kInvalid, static_cast<std::string>(address));
    std::ostringstream stream;
    stream << address;
    EXPECT_EQ(kInvalid, stream.str());
}

TEST_F(MacAddr, PrintsIntoABufferOfItsOwn) {
    const KovaMacAddr some = Some();
    const KovaMacAddr ones(kOnes.data());
    const char* const text = some.Ascii();
    EXPECT_STREQ("ff:ff:ff:ff:ff:ff", ones.Ascii());
    EXPECT_STREQ(kSomeText, text);
    EXPECT_EQ(text, some.Hex());
    EXPECT_GE(text, reinterpret_cast<const char*>(&some));
    EXPECT_LE(text + 18, reinterpret_cast<const char*>(&some + 1));
}

/// What an assignment does to the text of the last print.
template <typename Assign>
bool Empties(Assign assign) {
    KovaMacAddr address = Some();
    const char* const text = address.Ascii();
    assign(address);
    return text[0] == '\0';
}

TEST_F(MacAddr, EveryAssignmentEmptiesTheText) {
    EXPECT_TRUE(Empties([](KovaMacAddr& a) { a = kOnes.data(); }));
    EXPECT_TRUE(Empties([](KovaMacAddr& a) { a = "01:02:03:04:05:06"; }));
    EXPECT_TRUE(Empties([](KovaMacAddr& a) { a = std::string("010203040506"); }));
    EXPECT_TRUE(Empties([](KovaMacAddr& a) { a = "no"; }));
    EXPECT_TRUE(Empties([](KovaMacAddr& a) { a = KovaMacAddr(); }));
    EXPECT_TRUE(Empties([](KovaMacAddr& a) { a.Zero(); }));
    EXPECT_TRUE(Empties([](KovaMacAddr& a) { a.Broadcast(); }));
    EXPECT_TRUE(Empties([](KovaMacAddr& a) { a.Invalidate(); }));
    EXPECT_FALSE(Empties([](KovaMacAddr& a) { a.IsZero(); }));
}

TEST_F(MacAddr, CopyDoesNotTakeTheTextAlong) {
    const KovaMacAddr some = Some();
    const size_t place = static_cast<size_t>(some.Ascii() - reinterpret_cast<const char*>(&some));
    const KovaMacAddr copy(some);
    EXPECT_EQ('\0', reinterpret_cast<const char*>(&copy)[place]);
    EXPECT_STREQ(kSomeText, reinterpret_cast<const char*>(&some) + place);
}

TEST_F(MacAddr, TakesItsOwnValueBytesAndTexts) {
    KovaMacAddr address = Some();
    const KovaMacAddr& same = address;
    address = same;
    EXPECT_TRUE(Holds(address, kSome));
    address = address.GetUnsigned();
    EXPECT_TRUE(Holds(address, kSome));
    address = address.Ascii();
    EXPECT_TRUE(Holds(address, kSome));
    address = address.Hex();
    EXPECT_TRUE(Holds(address, kSome));
}

// --- Parsing ---

TEST_F(MacAddr, ParsesBothFormsAndPrintsThemBack) {
    for (const char* const text : {"00:11:22:33:44:55", "001122334455"}) {
        for (const KovaMacAddr& address : {KovaMacAddr(text), KovaMacAddr(std::string(text))}) {
            EXPECT_TRUE(Holds(address, {0x00, 0x11, 0x22, 0x33, 0x44, 0x55})) << text;
            EXPECT_STREQ("00:11:22:33:44:55", address.Ascii());
            EXPECT_STREQ("001122334455", address.Hex());
        }
    }
}

TEST_F(MacAddr, ParsesDigitsOfBothCasesAndShortNumbers) {
    EXPECT_TRUE(Holds(KovaMacAddr("00:0a:0B:10:ff:7a"), {0, 0x0A, 0x0B, 0x10, 0xFF, 0x7A}));
    EXPECT_TRUE(Holds(KovaMacAddr("1:2:3:4:5:06"), {1, 2, 3, 4, 5, 6}));
    EXPECT_TRUE(Holds(KovaMacAddr("aBcDeF012345"), {0xAB, 0xCD, 0xEF, 0x01, 0x23, 0x45}));
}

TEST_F(MacAddr, NumberOfOneDigitAtTheEndIsNotRead) {
    EXPECT_TRUE(Holds(KovaMacAddr("0:1:2:3:4:5"), {0, 1, 2, 3, 4, 0}));
    EXPECT_TRUE(Holds(KovaMacAddr("00:0a:0B:10:ff:7"), {0, 0x0A, 0x0B, 0x10, 0xFF, 0}));
    KovaMacAddr address(kOnes.data());
    address = "0:1:2:3:4:5";
    EXPECT_TRUE(Holds(address, {0, 1, 2, 3, 4, 0xFF}));
}

TEST_F(MacAddr, FiveColonsMakeAnAddressWhateverIsBetween) {
    EXPECT_TRUE(Holds(KovaMacAddr("::::: "), kZero));
    EXPECT_TRUE(Holds(KovaMacAddr("0::::: "), kZero));
    EXPECT_TRUE(Holds(KovaMacAddr("1:2:3:4:5:"), {1, 2, 3, 4, 5, 0}));
    // The last colon is the text's last character: it is counted, though no number in front of it is read.
    EXPECT_TRUE(Holds(KovaMacAddr(":::::"), kZero));
    EXPECT_TRUE(IsInvalid(KovaMacAddr("::::")));
}

TEST_F(MacAddr, FewerThanFiveColonsAreInvalid) {
    for (const char* const text :
         {"0:1:2:3:4", "00:11:22:33:44", "0:", "00:", "00:11:22:33:44-55", "00:11:22:33:44 55"}) {
        KovaMacAddr address = Some();
        address = text;
        EXPECT_TRUE(IsInvalid(address)) << text;
        EXPECT_STREQ(kInvalid, address.Ascii());
    }
}

TEST_F(MacAddr, PlainFormHasAtLeastTwelveCharacters) {
    EXPECT_TRUE(IsInvalid(KovaMacAddr("00112233445")));
    EXPECT_STREQ(kInvalid, KovaMacAddr("00112233445").Hex());
    EXPECT_TRUE(Holds(KovaMacAddr("001122334455"), {0, 0x11, 0x22, 0x33, 0x44, 0x55}));
    EXPECT_TRUE(Holds(KovaMacAddr("001122334455667788"), {0, 0x11, 0x22, 0x33, 0x44, 0x55}));
    for (size_t length = 0; length < 12; ++length) {
        KovaMacAddr address = Some();
        address = std::string(length, '1');
        EXPECT_TRUE(IsInvalid(address)) << length;
    }
}

TEST_F(MacAddr, PlainFormTakesWhateverItFinds) {
    // "00" "-1" "1-" "22" "-3" "3-" as numbers of base 16.
    EXPECT_TRUE(Holds(KovaMacAddr("00-11-22-33-44-55"), {0x00, 0xFF, 0x01, 0x22, 0xFD, 0x03}));
    EXPECT_TRUE(Holds(KovaMacAddr("nonsense....."), {0, 0, 0x0E, 0, 0, 0}));
    EXPECT_TRUE(Holds(KovaMacAddr("0x 7+a-11g\t8"), {0, 7, 0x0A, 0xFF, 1, 8}));
}

TEST_F(MacAddr, NumbersBeyond32BitsAreTheNearestOne) {
    EXPECT_TRUE(Holds(KovaMacAddr("1:7fffffff:80000000:123456789:-80000000:-80000001"),
                      {1, 0xFF, 0xFF, 0xFF, 0x00, 0x00}));
    EXPECT_TRUE(Holds(KovaMacAddr("1:2ab:-1:0x1f: 2:+30"), {1, 0xAB, 0xFF, 0x1F, 2, 0x30}));
    EXPECT_TRUE(Holds(KovaMacAddr("1:10000000000000000000000000000000001:3:4:5:06"), {1, 0xFF, 3, 4, 5, 6}));
}

TEST_F(MacAddr, TextIsNotReadBeyondItsEnd) {
    // The colons behind the end would complete the address.
    const char text[] = "0:1:2\0:3:4:55";
    EXPECT_TRUE(IsInvalid(KovaMacAddr(text)));
    EXPECT_TRUE(IsInvalid(KovaMacAddr(std::string(text, sizeof text - 1)))) << "a zero inside is an end";
    EXPECT_TRUE(IsInvalid(KovaMacAddr(std::string("0011\0002233445566", 16))));
    for (const std::string whole : {"0:1:2:3:4:5", "00:11:22:33:44:55", "001122334455", "0:::::"}) {
        for (size_t length = 0; length <= whole.size(); ++length) {
            // Exactly as much memory as the text needs: more is the address sanitizer's to see.
            const std::vector<char> exact(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(length));
            const std::string part(exact.begin(), exact.end());
            std::vector<char> terminated = exact;
            terminated.push_back('\0');
            terminated.shrink_to_fit();
            const KovaMacAddr from_text(terminated.data());
            const KovaMacAddr from_string(part);
            EXPECT_EQ(from_string.IsValid(), from_text.IsValid()) << part;
            EXPECT_EQ(BytesOf(from_string), BytesOf(from_text)) << part;
        }
    }
}

/// What `strtol` gives where `long` has 32 bits.
int32_t Strtol32(const char* text, char** end) {
    const long long number = std::strtoll(text, end, 16);
    return static_cast<int32_t>(std::clamp<long long>(number, std::numeric_limits<int32_t>::min(),
                                                      std::numeric_limits<int32_t>::max()));
}

struct Parsed {
    bool valid;
    Bytes bytes;
};

/// The rules as they stand, over a text with zeros behind it.
Parsed Reference(const std::string& text, Bytes bytes) {
    std::string room = text + std::string(16, '\0');
    char* const begin = room.data();
    char* const last = begin + text.size() - 1;
    if (room[1] == ':' || room[2] == ':') {
        char* cursor = begin;
        int separators = 0;
        for (unsigned char& byte : bytes) {
            if (cursor < last) byte = static_cast<unsigned char>(Strtol32(cursor, &cursor));
            if (*cursor == ':') ++separators;
            ++cursor;
        }
        if (separators >= 5) return {true, bytes};
    } else if (text.size() > 11) {
        for (size_t i = 0; i < bytes.size(); ++i) {
            const std::string pair = text.substr(2 * i, 2);
            bytes[i] = static_cast<unsigned char>(Strtol32(pair.c_str(), nullptr));
        }
        return {true, bytes};
    }
    return {false, kZero};
}

void ExpectReference(const std::string& text) {
    KovaMacAddr address(kOnes.data());
    address = text;
    const Parsed wanted = Reference(text, kOnes);
    ASSERT_EQ(wanted.valid, address.IsValid()) << testing::PrintToString(text);
    ASSERT_EQ(wanted.bytes, BytesOf(address)) << testing::PrintToString(text);
    address = kOnes.data();
    address = text.c_str();
    ASSERT_EQ(wanted.valid, address.IsValid()) << testing::PrintToString(text);
    ASSERT_EQ(wanted.bytes, BytesOf(address)) << testing::PrintToString(text);
}

TEST_F(MacAddr, ParsesGeneratedTextsAsStrtolDoes) {
    std::minstd_rand random(20260101);
    const auto below = [&](size_t limit) { return static_cast<size_t>(random()) % limit; };
    constexpr char kAlphabet[] = "0123456789abcdefABCDEF00ff::::::xX+- \t\v\r\n\fgG.-";
    for (int round = 0; round < 20000; ++round) {
        std::string text;
        for (size_t length = below(24); length > 0; --length) text += kAlphabet[below(sizeof kAlphabet - 1)];
        ASSERT_NO_FATAL_FAILURE(ExpectReference(text));
    }
    // Texts that are nearly right: six numbers, most of them of one or two digits.
    for (int round = 0; round < 20000; ++round) {
        std::string text;
        for (size_t number = 4 + below(4); number > 0; --number) {
            for (size_t digits = below(16) == 0 ? below(20) : below(4); digits > 0; --digits)
                text += kAlphabet[below(below(8) == 0 ? sizeof kAlphabet - 1 : 22)];
            if (number > 1) text += ':';
        }
        ASSERT_NO_FATAL_FAILURE(ExpectReference(text));
    }
}

// --- The address of an interface ---

/// What the kernel tells elsewhere.
std::string AddressFile(const std::string& interface) {
    std::ifstream file("/sys/class/net/" + interface + "/address");
    std::string text;
    std::getline(file, text);
    return text;
}

TEST_F(MacAddr, FetchesTheAddressOfAnInterface) {
    KovaMacAddr address;
    EXPECT_EQ(&address, &address.FetchFromDevice("lo"));
    EXPECT_TRUE(Holds(address, kZero));
    if (!HasInterface("kv0")) GTEST_SKIP() << "no link kv0";
    const TraceRecorder recorder;
    EXPECT_EQ(AddressFile("kv0"), address.FetchFromDevice("kv0").Ascii());
    EXPECT_EQ(AddressFile("kv1"), address.FetchFromDevice("kv1").Ascii());
    EXPECT_NE(AddressFile("kv0"), AddressFile("kv1"));
    EXPECT_EQ(0u, recorder.All().size());
}

TEST_F(MacAddr, AliasHasTheAddressOfItsInterface) {
    if (!HasInterface("kv0")) GTEST_SKIP() << "no link kv0";
    KovaMacAddr address;
    EXPECT_EQ(AddressFile("kv0"), address.FetchFromDevice("kv0:1").Ascii());
}

TEST_F(MacAddr, FetchAsksASocketOfItsOwnOnce) {
    KovaMacAddr address;
    const fake::Journal journal{&fake::socket, &fake::ioctl, &fake::close};
    address.FetchFromDevice("lo");
    const auto entries = journal.Entries();
    ASSERT_LE(3u, entries.size());
    EXPECT_EQ("socket AF_INET6 SOCK_STREAM 0", entries.front().text);
    const Texts ioctls = journal.Texts(fake::ioctl);
    EXPECT_EQ(1, std::count(ioctls.begin(), ioctls.end(), "ioctl SIOCGIFHWADDR lo"));
    EXPECT_EQ("close", entries.back().text);
    for (const fake::Entry& entry : entries) EXPECT_EQ(entries.front().fd, entry.fd) << entry.text;
    EXPECT_EQ(1u, journal.Count(fake::socket));
    EXPECT_EQ(1u, journal.Count(fake::close));
}

TEST_F(MacAddr, MissingInterfaceIsInvalid) {
    KovaMacAddr address = Some();
    const TraceRecorder recorder;
    EXPECT_TRUE(IsInvalid(address.FetchFromDevice("nowhere0")));
    EXPECT_TRUE(recorder.Has("ioctl request=%x errno=%d", {SIOCGIFHWADDR, ENODEV}));
}

TEST_F(MacAddr, FailingSocketIsInvalid) {
    KovaMacAddr address = Some();
    const TraceRecorder recorder;
    const fake::Always sockets(fake::socket, fake::Fail(EMFILE));
    EXPECT_TRUE(IsInvalid(address.FetchFromDevice("lo")));
    EXPECT_TRUE(recorder.Has("socket errno=%d", {EMFILE}));
    EXPECT_TRUE(recorder.Has("ioctl without socket, request=%x", {SIOCGIFHWADDR}));
}

TEST_F(MacAddr, FailingQueryIsInvalidAndLeavesNoSocket) {
    KovaMacAddr address = Some();
    fake::Script ioctls(fake::ioctl, {fake::Fail(EIO)});
    ioctls.When([](int, unsigned long request, void*) { return request == SIOCGIFHWADDR; });
    EXPECT_TRUE(IsInvalid(address.FetchFromDevice("lo")));
}

TEST_F(MacAddr, FetchTakesNamesOfUpTo15Characters) {
    constexpr char kName[] = "kova-interface0";
    static_assert(sizeof kName == 15 + 1);
    // Its peer gets the first free name.
    Shell("ip link add " + std::string(kName) + " type veth");
    KovaMacAddr address;
    EXPECT_EQ(AddressFile(kName), address.FetchFromDevice(kName).Ascii());
    EXPECT_TRUE(address.IsValid());

    // The kernel would take the first 15 characters.
    const fake::Journal journal;
    const TraceRecorder recorder;
    for (const std::string& name : {std::string(kName) + "x", std::string(kName) + std::string(25, 'x')}) {
        address = kSome.data();
        EXPECT_TRUE(IsInvalid(address.FetchFromDevice(name.c_str()))) << name;
    }
    EXPECT_EQ(Texts{}, journal.Texts());
    EXPECT_EQ(0u, recorder.All().size());
    Shell("ip link del " + std::string(kName));
}

TEST_F(MacAddr, NoNameIsInvalidWithoutAskingTheKernel) {
    const fake::Journal journal;
    for (const char* const name : {static_cast<const char*>(nullptr), ""}) {
        KovaMacAddr address = Some();
        EXPECT_TRUE(IsInvalid(address.FetchFromDevice(name)));
    }
    EXPECT_EQ(Texts{}, journal.Texts());
}

}  // namespace
