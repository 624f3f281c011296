#include "msg/wire.h"
#include "support/leak_check.h"
#include "support/trace_recorder.h"

#include <kova/msg_pattern.h>

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

using Texts = std::vector<std::string>;

/// Notes its end.
class Noted : public KovaBaseObject {
  public:
    Noted(Texts& ends, std::string name) : m_Ends(ends), m_Name(std::move(name)) {}
    ~Noted() override { m_Ends.push_back(m_Name); }

  private:
    Texts& m_Ends;
    const std::string m_Name;
};

constexpr int kReadingType = 7;
constexpr char kUnpack[] = "virtual bool {anonymous}::Reading::Unpack(KovaFlatMsg&)";

/// A message class as a service writes it: two fields in network order.
class Reading : public KovaMsgPattern {
  public:
    Reading() = default;
    using KovaMsgPattern::KovaMsgPattern;
    Reading(uint32_t from, int32_t read) : KovaMsgPattern(kReadingType), sensor(from), value(read) {}

    bool Pack(KovaFlatMsg& msg) override {
        uint32_t body[] = {htonl(sensor), htonl(static_cast<uint32_t>(value))};
        return msg.SetMessage(static_cast<unsigned>(GetType()), body, sizeof body);
    }
    bool Unpack(KovaFlatMsg& msg) override {
        uint32_t body[2];
        if (msg.GetType() != kReadingType || msg.GetSize() != sizeof body) {
            _SetError_(__PRETTY_FUNCTION__, __LINE__, KOVA_ERR_SIZE_MISMATCH);
            return false;
        }
        std::memcpy(body, msg.GetBuffer(), sizeof body);
        SetHeader(*msg.GetHeader());
        GetAddr() = msg.GetAddr();
        sensor = ntohl(body[0]);
        value = static_cast<int32_t>(ntohl(body[1]));
        return true;
    }

    KovaBaseObject* Owned() const { return m_Owned; }
    void Own(KovaBaseObject* object) { m_Owned = object; }
    void Fail(int code) { _SetError_("earlier", 1, code); }

    uint32_t sensor = 0;
    int32_t value = 0;
};

/// Has a member, and owns an object.
class Owner : public Reading {
  public:
    explicit Owner(Texts& ends) : m_Member(ends, "member") { Own(new Noted(ends, "owned")); }

  private:
    const Noted m_Member;
};

std::string HeaderBytes(const KovaMsgPattern& pattern) {
    return {reinterpret_cast<const char*>(pattern.GetHeader()), kHeaderSize};
}

class MsgPattern : public KovaTest {};

// Construction

TEST_F(MsgPattern, StartsEmpty) {
    TraceRecorder trace;
    Reading reading;
    EXPECT_EQ(nullptr, reading.Owned());
    EXPECT_EQ(std::string(kHeaderSize, '\0'), HeaderBytes(reading));
    EXPECT_EQ(0, reading.GetType());
    EXPECT_EQ(0u, reading.GetSendTid());
    EXPECT_EQ(0u, reading.GetSendTime());
    EXPECT_EQ(0u, reading.GetAddr().GetIp());
    EXPECT_EQ(0, reading.GetAddr().GetPort());
    EXPECT_STREQ("0.0.0.0", reading.GetAddr());
    EXPECT_EQ(KovaInetAddr::kNoScope, reading.GetAddr().GetScope());
    EXPECT_EQ(KovaBaseObject::KOVA_ERR_NONE, reading.GetError());
    EXPECT_EQ(nullptr, reading.GetErrorFunction());
    EXPECT_TRUE(trace.All().empty());
}

TEST_F(MsgPattern, StartsEmptyInMemoryThatHeldSomethingElse) {
    alignas(Reading) unsigned char memory[sizeof(Reading)];
    std::memset(memory, 0xA5, sizeof memory);
    Reading* const reading = new (memory) Reading(5);
    EXPECT_EQ(nullptr, reading->Owned());
    Header expected;
    expected.magic.assign(4, '\0');
    expected.version = 0;
    expected.type = 5;
    EXPECT_EQ(expected.Bytes(), HeaderBytes(*reading));
    EXPECT_EQ(0u, reading->GetAddr().GetIp());
    EXPECT_EQ(0, reading->GetAddr().GetPort());
    reading->~Reading();
}

// Header

TEST_F(MsgPattern, TypesAreSignedAndInNetworkOrder) {
    struct {
        int type;
        const char* bytes;
    } const cases[] = {{0, "\0\0\0\0"},          {1, "\0\0\0\1"},         {-1, "\xFF\xFF\xFF\xFF"},
                       {-2, "\xFF\xFF\xFF\xFE"}, {INT_MIN, "\x80\0\0\0"}, {INT_MAX, "\x7F\xFF\xFF\xFF"},
                       {0x01020304, "\1\2\3\4"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.type);
        const Reading constructed(c.type);
        Reading set(99);
        set.SetType(c.type);
        for (const Reading* reading : {&constructed, const_cast<const Reading*>(&set)}) {
            EXPECT_EQ(c.type, reading->GetType());
            EXPECT_EQ(std::string(12, '\0') + std::string(c.bytes, 4) + std::string(8, '\0'),
                      HeaderBytes(*reading));
        }
    }
}

TEST_F(MsgPattern, ChangingTheTypeLeavesTheOtherFieldsAlone) {
    Header header{0x11223344, "ABCD", 0x55667788, 1, 0x0A0B0C0D, 0x01020304};
    Reading reading;
    reading.SetHeader(header.Record());
    reading.SetType(-3);
    header.type = -3;
    EXPECT_EQ(header.Bytes(), HeaderBytes(reading));
}

TEST_F(MsgPattern, HeaderIsCopiedAsItIs) {
    Reading reading;
    sKovaMsgHeader header;
    const std::string bytes = Body(kHeaderSize);
    std::memcpy(&header, bytes.data(), sizeof header);
    reading.SetHeader(header);
    EXPECT_EQ(bytes, HeaderBytes(reading));
    std::memset(&header, 0, sizeof header);
    EXPECT_EQ(bytes, HeaderBytes(reading)) << "a copy";
    reading.SetHeader(*reading.GetHeader());
    EXPECT_EQ(bytes, HeaderBytes(reading));
}

TEST_F(MsgPattern, HeaderFieldsAreTurnedToHostOrder) {
    const Header header{8, "KOVA", kVersion, 0x01020304, 0x0A0B0C0D, 0x11223344};
    Reading reading;
    reading.SetHeader(header.Record());
    EXPECT_EQ(0x01020304, reading.GetType());
    EXPECT_EQ(0x0A0B0C0Du, reading.GetSendTid());
    EXPECT_EQ(0x11223344u, reading.GetSendTime());
}

TEST_F(MsgPattern, ThreadIdAndTimeAreUnsigned) {
    const Header header{0, "KOVA", kVersion, INT_MIN, -2, INT_MIN};
    Reading reading;
    reading.SetHeader(header.Record());
    EXPECT_EQ(INT_MIN, reading.GetType());
    EXPECT_EQ(0xFFFFFFFEu, reading.GetSendTid());
    EXPECT_EQ(0x80000000u, reading.GetSendTime());
    static_assert(std::is_same_v<int, decltype(reading.GetType())>);
    static_assert(std::is_same_v<unsigned int, decltype(reading.GetSendTid())>);
    static_assert(std::is_same_v<unsigned int, decltype(reading.GetSendTime())>);
}

TEST_F(MsgPattern, ConstPatternHandsOutItsHeaderForWriting) {
    Reading reading;
    const KovaMsgPattern& as_const = reading;
    sKovaMsgHeader* const header = as_const.GetHeader();
    EXPECT_EQ(header, reading.GetHeader());
    header->type = static_cast<int32_t>(htonl(42));
    EXPECT_EQ(42, as_const.GetType());
}

// Address

TEST_F(MsgPattern, AddressIsAPlaceForThePeer) {
    Reading reading;
    KovaInetAddr& address = reading.GetAddr();
    address = KovaInetAddr(htonl(0x0A000001), htons(7));
    EXPECT_EQ(&address, &reading.GetAddr());
    EXPECT_STREQ("10.0.0.1:7", reading.GetAddr());
}

// Lifetime

TEST_F(MsgPattern, DeletesWhatItOwnsAfterTheDerivedPart) {
    Texts ends;
    { const Owner owner(ends); }
    EXPECT_EQ((Texts{"member", "owned"}), ends);
}

TEST_F(MsgPattern, IsDeletedWholeThroughEachOfItsBases) {
    Texts ends;
    std::unique_ptr<KovaMsgPattern>(std::make_unique<Owner>(ends)).reset();
    EXPECT_EQ((Texts{"member", "owned"}), ends);
    ends.clear();
    std::unique_ptr<KovaBaseObject>(std::make_unique<Owner>(ends)).reset();
    EXPECT_EQ((Texts{"member", "owned"}), ends);
}

TEST_F(MsgPattern, NothingIsDeletedWhenNothingIsOwned) {
    Texts ends;
    {
        Noted stays(ends, "stays");
        {
            Reading reading;
            reading.Own(&stays);
            reading.Own(nullptr);
        }
        EXPECT_EQ(Texts{}, ends);
    }
    EXPECT_EQ(Texts{"stays"}, ends);
}

TEST_F(MsgPattern, CannotBeCopied) {
    static_assert(!std::is_copy_constructible_v<Reading> && !std::is_copy_assignable_v<Reading>);
    static_assert(!std::is_move_constructible_v<Reading> && !std::is_move_assignable_v<Reading>);
    static_assert(std::is_abstract_v<KovaMsgPattern>);
}

// Error record

TEST_F(MsgPattern, HasOneRecordWhateverThePathToIt) {
    class Station : public Reading, public KovaTCPSocket {};
    Station station;
    EXPECT_FALSE(station.HasRecvData());
    EXPECT_EQ(EBADF, static_cast<Reading&>(station).GetError());
    EXPECT_EQ(EBADF, static_cast<KovaBaseObject&>(station).GetError());
    static_cast<Reading&>(station).Fail(EIO);
    EXPECT_EQ(EIO, static_cast<KovaTCPSocket&>(station).GetError());
}

TEST_F(MsgPattern, OperationsLeaveTheRecordAlone) {
    TraceRecorder trace;
    Reading reading(1);
    reading.Fail(EIO);
    reading.SetType(2);
    reading.SetHeader(*reading.GetHeader());
    reading.GetAddr() = KovaInetAddr(0, 0);
    EXPECT_EQ(2, reading.GetType());
    EXPECT_TRUE(Recorded(reading, EIO, "earlier"));
    EXPECT_TRUE(trace.All().empty());
}

// Pack, Unpack

TEST_F(MsgPattern, TravelsAsAFlatMessage) {
    TcpEnds ends;
    Reading sent(0x01020304, -2);
    KovaFlatMsg out;
    ASSERT_TRUE(static_cast<KovaMsgPattern&>(sent).Pack(out));
    out >> ends.socket;
    ASSERT_EQ(KovaBaseObject::KOVA_ERR_NONE, out.GetError());
    const std::string wire = ends.Read(kHeaderSize + 8);
    EXPECT_EQ(std::string("\0\0\0\10KOVA\0\2\0\0\0\0\0\7", 16), wire.substr(0, 16));
    EXPECT_EQ("\1\2\3\4\xFF\xFF\xFF\xFE", wire.substr(kHeaderSize));
    EXPECT_EQ(0u, sent.GetSendTid()) << "what a send stamps, it stamps into the flat message";

    ends.Write(wire);
    KovaFlatMsg in;
    in << ends.socket;
    Reading received;
    ASSERT_TRUE(static_cast<KovaMsgPattern&>(received).Unpack(in));
    EXPECT_EQ(0x01020304u, received.sensor);
    EXPECT_EQ(-2, received.value);
    EXPECT_EQ(wire.substr(0, kHeaderSize), HeaderBytes(received));
    EXPECT_EQ(static_cast<unsigned>(out.GetSendTid()), received.GetSendTid());
    EXPECT_EQ(static_cast<unsigned>(out.GetSendTime()), received.GetSendTime());
    EXPECT_EQ(ends.socket.GetPeer(), received.GetAddr());
    EXPECT_NE(0u, received.GetAddr().GetIp());
}

TEST_F(MsgPattern, ClassCanRecordWhyItRefusesAMessage) {
    Reading reading(3, 4);
    KovaMsgPattern& pattern = reading;
    KovaFlatMsg other;
    ASSERT_TRUE(Set(other, kReadingType, "short"));
    EXPECT_FALSE(pattern.Unpack(other));
    EXPECT_TRUE(Recorded(pattern, KovaBaseObject::KOVA_ERR_SIZE_MISMATCH, kUnpack));
    EXPECT_EQ(3u, reading.sensor);
    EXPECT_EQ(4, reading.value);
}

}  // namespace
