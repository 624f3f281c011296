#include "msg/wire.h"
#include "support/fake_libc.h"
#include "support/leak_check.h"
#include "support/trace_recorder.h"

#include <kova/flat_msg.h>
#include <kova/process.h>

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

/// The two socket types that a service may define itself.
class KovaUDPMultiSocket : public KovaUDPSocket {
  public:
    using KovaUDPSocket::KovaUDPSocket;
};
class KovaUDPMulticastSocket : public KovaUDPSocket {
  public:
    using KovaUDPSocket::KovaUDPSocket;
};

namespace {

using Texts = std::vector<std::string>;
using Base = KovaBaseObject;

constexpr char kCheckHeader[] = "bool KovaFlatMsg::CheckHeader(sKovaMsgHeaderT*)";
constexpr char kCreateBuffer[] = "void* KovaFlatMsg::CreateBuffer(size_t)";
constexpr char kFromRaw[] = "KovaFlatMsg::KovaFlatMsg(const void*, int32_t)";
constexpr char kCopy[] = "KovaFlatMsg::KovaFlatMsg(const KovaFlatMsg&)";
constexpr char kCopyOfPointer[] = "KovaFlatMsg::KovaFlatMsg(const KovaFlatMsg*)";
constexpr char kAssign[] = "KovaFlatMsg& KovaFlatMsg::operator=(KovaFlatMsg*)";
constexpr char kTcpSend[] = "KovaTCPSocket& KovaFlatMsg::Send(KovaTCPSocket&)";
constexpr char kTcpRecv[] = "KovaTCPSocket& KovaFlatMsg::Recv(KovaTCPSocket&)";
constexpr char kUdpSend[] = "KovaUDPSocket& KovaFlatMsg::Send(KovaUDPSocket&)";
constexpr char kUdpRecv[] = "KovaUDPSocket& KovaFlatMsg::Recv(KovaUDPSocket&)";

constexpr char kNoBufferTrace[] = "no buffer need=%u errno=%d";
constexpr int kTime = 0x01020304;

/// What the library stamps into a header while `fake::time` is answered with kTime.
Header Stamped(uint32_t size, int32_t type, const std::string& magic = "KOVA") {
    return {size, magic, kVersion, type, KovaGetTid(), kTime};
}

class FlatMsg : public KovaTest {
  protected:
    /// A message that came whole over TCP.
    static void ReceiveWhole(KovaFlatMsg& message, const std::string& body) {
        TcpEnds ends;
        ends.Write(Message(7, body));
        message.Recv(ends.socket);
        ASSERT_TRUE(message.IsComplete());
    }
};

// Construction

TEST_F(FlatMsg, StartsEmpty) {
    KovaFlatMsg message;
    EXPECT_EQ(0u, message.GetSize());
    EXPECT_EQ(0, message.GetType());
    EXPECT_EQ(0, message.GetSendTid());
    EXPECT_EQ(0, message.GetSendTime());
    EXPECT_EQ(nullptr, message.GetBuffer());
    EXPECT_FALSE(message.IsComplete());
    EXPECT_EQ(0u, message.GetAddr().GetIp());
    EXPECT_EQ(0, message.GetAddr().GetPort());
    EXPECT_EQ(Base::KOVA_ERR_NONE, message.GetError());
    EXPECT_EQ(std::string(kHeaderSize, '\0'), HeaderBytes(message));
    EXPECT_TRUE(IsInline(message));
}

TEST_F(FlatMsg, TypesAreSignedAndInNetworkOrder) {
    struct {
        int type;
        const char* bytes;
    } const cases[] = {{0, "\0\0\0\0"},          {1, "\0\0\0\1"},         {-1, "\xFF\xFF\xFF\xFF"},
                       {-2, "\xFF\xFF\xFF\xFE"}, {INT_MIN, "\x80\0\0\0"}, {INT_MAX, "\x7F\xFF\xFF\xFF"},
                       {0x01020304, "\1\2\3\4"}};
    for (const auto& c : cases) {
        const KovaFlatMsg from_int(c.type);
        const KovaFlatMsg from_unsigned(static_cast<unsigned>(c.type));
        KovaFlatMsg set;
        set.SetType(c.type);
        for (const KovaFlatMsg* message : {&from_int, &from_unsigned, const_cast<const KovaFlatMsg*>(&set)}) {
            EXPECT_EQ(c.type, message->GetType());
            EXPECT_EQ(std::string(c.bytes, 4), HeaderBytes(*message).substr(12, 4));
            EXPECT_EQ(0u, message->GetSize());
        }
    }
}

TEST_F(FlatMsg, ConstructedWithDataHoldsACopy) {
    std::string body = Body(100);
    KovaFlatMsg message(9u, body.data(), 100);
    const std::string before = body;
    body.assign(100, 'x');
    EXPECT_EQ(9, message.GetType());
    EXPECT_EQ(before, BodyBytes(message));
    EXPECT_EQ(Base::KOVA_ERR_NONE, message.GetError());
    EXPECT_FALSE(message.IsComplete());
}

TEST_F(FlatMsg, ConstructedFromRawBytesTakesHeaderAndBodyOver) {
    for (const size_t size : {size_t{0}, size_t{1}, size_t{488}, size_t{489}, size_t{3000}}) {
        SCOPED_TRACE(size);
        Header header{static_cast<uint32_t>(size), "KOVA", 0x0002ABCD, -7, 0x11223344, 0x55667788};
        const std::string raw = header.Bytes() + Body(size);
        KovaFlatMsg message(raw.data(), static_cast<int32_t>(raw.size()));
        EXPECT_EQ(Base::KOVA_ERR_NONE, message.GetError());
        EXPECT_EQ(header.Bytes(), HeaderBytes(message));
        EXPECT_EQ(Body(size), BodyBytes(message));
        EXPECT_EQ(size, message.GetSize());
        EXPECT_EQ(-7, message.GetType());
        EXPECT_EQ(0x11223344, message.GetSendTid());
        EXPECT_EQ(0x55667788, message.GetSendTime());
        EXPECT_FALSE(message.IsComplete());
    }
}

TEST_F(FlatMsg, RawBytesBehindTheBodyAreIgnored) {
    const std::string raw = Message(7, "body") + "and more";
    KovaFlatMsg message(raw.data(), static_cast<int32_t>(raw.size()));
    EXPECT_EQ("body", BodyBytes(message));
}

TEST_F(FlatMsg, RawBytesMayLieAnywhere) {
    const std::string raw = "x" + Message(7, Body(33));
    KovaFlatMsg message(raw.data() + 1, static_cast<int32_t>(raw.size() - 1));
    EXPECT_EQ(Body(33), BodyBytes(message));
}

TEST_F(FlatMsg, RawBytesThatAreNoMessageAreRefused) {
    Header of_ten{10, "KOVA", kVersion, 7, 0, 0};
    Header foreign = of_ten, next_version = of_ten, old_version = of_ten;
    foreign.magic = "AVOK";
    next_version.version = 0x00030000;
    old_version.version = 0x00000002;
    struct {
        const char* what;
        std::string raw;
        int32_t length;
        int code;
        const char* function;
        const char* trace;
        std::initializer_list<int64_t> values;
    } const cases[] = {
        {"23 bytes",
         of_ten.Bytes(),
         23,
         Base::KOVA_ERR_INVALID_PARAMETER,
         kFromRaw,
         "raw message too short len=%d",
         {23}},
        {"no bytes",
         of_ten.Bytes(),
         0,
         Base::KOVA_ERR_INVALID_PARAMETER,
         kFromRaw,
         "raw message too short len=%d",
         {0}},
        {"less than none",
         of_ten.Bytes(),
         -1,
         Base::KOVA_ERR_INVALID_PARAMETER,
         kFromRaw,
         "raw message too short len=%d",
         {-1}},
        {"far less than none",
         of_ten.Bytes(),
         INT32_MIN,
         Base::KOVA_ERR_INVALID_PARAMETER,
         kFromRaw,
         "raw message too short len=%d",
         {INT32_MIN}},
        {"24 bytes, 10 announced",
         of_ten.Bytes(),
         24,
         Base::KOVA_ERR_OVERRUN,
         kFromRaw,
         "raw message cut len=%d size=%u",
         {24, 10}},
        {"30 bytes, 10 announced",
         of_ten.Bytes() + Body(6),
         30,
         Base::KOVA_ERR_OVERRUN,
         kFromRaw,
         "raw message cut len=%d size=%u",
         {30, 10}},
        {"33 bytes, 10 announced",
         of_ten.Bytes() + Body(9),
         33,
         Base::KOVA_ERR_OVERRUN,
         kFromRaw,
         "raw message cut len=%d size=%u",
         {33, 10}},
        {"magic",
         foreign.Bytes() + Body(10),
         34,
         Base::KOVA_ERR_BAD_HEADER,
         kCheckHeader,
         "bad magic=%x",
         {0x41564F4B}},
        {"version 3",
         next_version.Bytes() + Body(10),
         34,
         Base::KOVA_ERR_BAD_VERSION,
         kCheckHeader,
         "bad version=%x",
         {0x00030000}},
        {"version 0.2",
         old_version.Bytes() + Body(10),
         34,
         Base::KOVA_ERR_BAD_VERSION,
         kCheckHeader,
         "bad version=%x",
         {2}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        const TraceRecorder recorder;
        KovaFlatMsg message(c.raw.data(), c.length);
        EXPECT_TRUE(Recorded(message, c.code, c.function));
        EXPECT_TRUE(recorder.Has(c.trace, c.values));
        EXPECT_EQ(1u, recorder.All().size());
        EXPECT_EQ(0, message.GetType());
        EXPECT_EQ(0u, message.GetSize());
        EXPECT_EQ(nullptr, message.GetBuffer());
    }
}

TEST_F(FlatMsg, NoRawBytesAreRefused) {
    const TraceRecorder recorder;
    const KovaFlatMsg message(static_cast<const void*>(nullptr), 24);
    EXPECT_TRUE(Recorded(message, Base::KOVA_ERR_INVALID_PARAMETER, kFromRaw));
    EXPECT_TRUE(recorder.Has("raw message too short len=%d", {24}));
}

TEST_F(FlatMsg, EveryLowerHalfOfTheVersionIsAccepted) {
    for (const uint32_t version : {0x00020000u, 0x00020001u, 0x0002FFFFu}) {
        Header header;
        header.version = version;
        EXPECT_EQ(Base::KOVA_ERR_NONE, KovaFlatMsg(header.Bytes().data(), 24).GetError());
    }
    for (const uint32_t version :
         {0x00030000u, 0x0001FFFFu, 0x00000000u, 0x02000000u, 0xFFFFFFFFu, 0x80020000u}) {
        Header header;
        header.version = version;
        EXPECT_EQ(Base::KOVA_ERR_BAD_VERSION, KovaFlatMsg(header.Bytes().data(), 24).GetError()) << version;
    }
}

TEST_F(FlatMsg, MagicIsComparedByteByByte) {
    for (const char* const magic : {"AVOK", "kova", "KOVB", "JOVA", "KPVA", "KOWA"}) {
        Header header;
        header.magic = magic;
        header.version = 0x00030000;
        EXPECT_EQ(Base::KOVA_ERR_BAD_HEADER, KovaFlatMsg(header.Bytes().data(), 24).GetError())
            << magic << ": the magic is looked at before the version";
    }
}

// Accessors

TEST_F(FlatMsg, BufferIsNullWithoutBody) {
    KovaFlatMsg message;
    EXPECT_EQ(nullptr, message.GetBuffer());
    ASSERT_TRUE(message.SetSize(1));
    EXPECT_EQ(reinterpret_cast<char*>(message.GetHeader()) + kHeaderSize, message.GetBuffer());
}

TEST_F(FlatMsg, GetMessageIsTheBufferAndTraced) {
    KovaFlatMsg message;
    Set(message, -3, "body");
    const TraceRecorder recorder;
    EXPECT_EQ(message.GetBuffer(), message.GetMessage());
    EXPECT_TRUE(recorder.Has("message type=%d size=%u", {-3, 4}));
    EXPECT_EQ(1u, recorder.All().size());
    message.SetSize(0);
    EXPECT_EQ(nullptr, message.GetMessage());
    EXPECT_TRUE(recorder.Has("message type=%d size=%u", {-3, 0}));
}

TEST_F(FlatMsg, SetHeaderCopiesTheBytesAsTheyAre) {
    const Header header{5, "abcd", 0x12345678, -1, 2, 3};
    KovaFlatMsg message;
    message.SetHeader(header.Record());
    EXPECT_EQ(header.Bytes(), HeaderBytes(message));
    EXPECT_EQ(5u, message.GetSize());
    EXPECT_EQ(-1, message.GetType());
    EXPECT_EQ(2, message.GetSendTid());
    EXPECT_EQ(3, message.GetSendTime());
}

// Capacity

TEST_F(FlatMsg, FreshMessageKeepsBodiesOfUpTo488BytesInline) {
    for (const size_t size : {size_t{0}, size_t{1}, size_t{487}, size_t{488}}) {
        KovaFlatMsg message;
        const fake::Counter allocations(fake::new_array_nothrow);
        EXPECT_EQ(reinterpret_cast<char*>(message.GetHeader()) + kHeaderSize, message.CreateBuffer(size));
        EXPECT_TRUE(IsInline(message)) << size;
        EXPECT_EQ(size, message.GetSize());
        EXPECT_EQ(0u, allocations.Calls());
    }
}

TEST_F(FlatMsg, FreshMessageTakesLargerBodiesToTheHeap) {
    for (const size_t size : {size_t{489}, size_t{500}, size_t{512}, size_t{513}, size_t{100000}}) {
        KovaFlatMsg message(5);
        std::vector<size_t> sizes;
        const fake::Replace allocate(fake::new_array_nothrow, [&](size_t bytes, const std::nothrow_t& tag) {
            sizes.push_back(bytes);
            return fake::new_array_nothrow.Real(bytes, tag);
        });
        EXPECT_NE(nullptr, message.CreateBuffer(size));
        EXPECT_FALSE(IsInline(message)) << size;
        EXPECT_EQ(size, message.GetSize());
        EXPECT_EQ(5, message.GetType()) << "the header moves along";
        EXPECT_EQ(std::vector<size_t>{size + kHeaderSize}, sizes);
    }
}

TEST_F(FlatMsg, MessageThatWasReturnedToInlineKeeps512BytesThere) {
    KovaFlatMsg message;
    message.CreateBuffer(1000);
    message.DeleteBuffer();
    EXPECT_NE(nullptr, message.CreateBuffer(512));
    EXPECT_TRUE(IsInline(message));
    EXPECT_NE(nullptr, message.CreateBuffer(513));
    EXPECT_FALSE(IsInline(message));
}

TEST_F(FlatMsg, HeapBufferIsUsedForSmallerBodiesToo) {
    KovaFlatMsg message;
    message.CreateBuffer(1000);
    const void* const header = message.GetHeader();
    const fake::Counter allocations(fake::new_array_nothrow);
    EXPECT_NE(nullptr, message.CreateBuffer(1000));
    EXPECT_NE(nullptr, message.CreateBuffer(3));
    EXPECT_EQ(header, message.GetHeader());
    EXPECT_EQ(3u, message.GetSize());
    EXPECT_EQ(0u, allocations.Calls());
    EXPECT_NE(nullptr, message.CreateBuffer(1001));
    EXPECT_EQ(1u, allocations.Calls());
}

TEST_F(FlatMsg, DeleteBufferKeepsTheHeaderAndForgetsTheSizeOfAHeapBuffer) {
    const Header header{600, "KOVA", 0x00021234, 77, 88, 99};
    const std::string raw = header.Bytes() + Body(600);
    KovaFlatMsg message(raw.data(), static_cast<int32_t>(raw.size()));
    ASSERT_FALSE(IsInline(message));
    message.DeleteBuffer();
    EXPECT_TRUE(IsInline(message));
    Header without_size = header;
    without_size.size = 0;
    EXPECT_EQ(without_size.Bytes(), HeaderBytes(message));
}

TEST_F(FlatMsg, DeleteBufferLeavesTheInlineStorageAsItIs) {
    KovaFlatMsg message;
    Set(message, 7, "body");
    message.DeleteBuffer();
    EXPECT_EQ(4u, message.GetSize());
    EXPECT_EQ("body", BodyBytes(message));
    message.CreateBuffer(489);
    EXPECT_FALSE(IsInline(message)) << "the capacity is still that of a fresh message";
}

TEST_F(FlatMsg, DeleteBufferClearsTheCompleteFlag) {
    for (const size_t size : {size_t{4}, size_t{600}}) {
        KovaFlatMsg message;
        ReceiveWhole(message, Body(size));
        message.DeleteBuffer();
        EXPECT_FALSE(message.IsComplete());
    }
}

TEST_F(FlatMsg, SetSizeIsBoundByCapacityAndBodySpace) {
    enum State { kFresh, kReturned, kHeap1000 };
    struct {
        State state;
        unsigned size;
        bool accepted;
    } const cases[] = {
        {kFresh, 0, true},         {kFresh, 488, true},      {kFresh, 489, true},
        {kFresh, 512, true},       {kFresh, 513, false},     {kFresh, 600, false},
        {kFresh, UINT_MAX, false}, {kReturned, 512, true},   {kReturned, 513, false},
        {kReturned, 536, false},   {kReturned, 537, false},  {kHeap1000, 600, true},
        {kHeap1000, 1000, true},   {kHeap1000, 1001, false}, {kHeap1000, 1024, false},
        {kHeap1000, 1025, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "state " << c.state << " size " << c.size);
        KovaFlatMsg message;
        if (c.state != kFresh) message.CreateBuffer(1000);
        if (c.state == kReturned) message.DeleteBuffer();
        const unsigned before = message.GetSize();
        EXPECT_EQ(c.accepted, message.SetSize(c.size));
        EXPECT_EQ(c.accepted ? c.size : before, message.GetSize());
        EXPECT_EQ(Base::KOVA_ERR_NONE, message.GetError());
    }
}

// SetMessage

TEST_F(FlatMsg, SetMessageStoresTypeSizeAndBody) {
    for (const size_t size : {size_t{1}, size_t{488}, size_t{489}, size_t{512}, size_t{9000}}) {
        KovaFlatMsg message;
        EXPECT_TRUE(Set(message, -9, Body(size)));
        EXPECT_EQ(-9, message.GetType());
        EXPECT_EQ(Body(size), BodyBytes(message));
    }
}

TEST_F(FlatMsg, SetMessageZeroesTheTimeAndLeavesTheOtherFields) {
    const Header header{0, "KOVA", 0x00021234, 7, 88, 99};
    KovaFlatMsg message;
    message.SetHeader(header.Record());
    EXPECT_TRUE(Set(message, 8, "body"));
    EXPECT_EQ((Header{4, "KOVA", 0x00021234, 8, 88, 0}).Bytes(), HeaderBytes(message));
}

TEST_F(FlatMsg, SetMessageClearsErrorAndCompleteFlag) {
    KovaFlatMsg message;
    ReceiveWhole(message, "body");
    message.CreateBuffer(SIZE_MAX);
    ASSERT_EQ(Base::KOVA_ERR_NO_BUFFER, message.GetError());
    EXPECT_TRUE(Set(message, 8, "x"));
    EXPECT_EQ(Base::KOVA_ERR_NONE, message.GetError());
    ReceiveWhole(message, "body");
    EXPECT_TRUE(Set(message, 8, "x"));
    EXPECT_FALSE(message.IsComplete());
}

TEST_F(FlatMsg, SetMessageWithoutDataIsAnEmptyMessage) {
    char data[] = "data";
    for (void* const pointer : {static_cast<void*>(nullptr), static_cast<void*>(data)}) {
        KovaFlatMsg message;
        EXPECT_TRUE(message.SetMessage(8, pointer, 0));
        EXPECT_EQ(8, message.GetType());
        EXPECT_EQ(0u, message.GetSize());
        EXPECT_EQ(nullptr, message.GetBuffer());
    }
}

TEST_F(FlatMsg, SetMessageOfNegativeLengthHasNoBuffer) {
    char data[] = "data";
    for (const int length : {-1, -23, -24, -25, INT_MIN}) {
        KovaFlatMsg message;
        const TraceRecorder recorder;
        const fake::Counter allocations(fake::new_array_nothrow);
        EXPECT_FALSE(message.SetMessage(8, data, length));
        EXPECT_TRUE(Recorded(message, Base::KOVA_ERR_NO_BUFFER, kCreateBuffer));
        EXPECT_TRUE(recorder.Has(kNoBufferTrace, {INT32_MAX, ENOMEM}));
        EXPECT_EQ(0u, allocations.Calls());
        EXPECT_EQ(nullptr, message.GetHeader());
    }
}

TEST_F(FlatMsg, SetMessageWithoutDataForItsLengthIsAnInvalidParameter) {
    KovaFlatMsg message;
    ReceiveWhole(message, "body");
    const std::string header = HeaderBytes(message);
    const TraceRecorder recorder;
    EXPECT_FALSE(message.SetMessage(8, nullptr, 5));
    EXPECT_TRUE(Recorded(message, Base::KOVA_ERR_INVALID_PARAMETER,
                         "bool KovaFlatMsg::SetMessage(unsigned int, void*, int)"));
    EXPECT_TRUE(recorder.Has("no data for len=%d", {5}));
    EXPECT_EQ(header, HeaderBytes(message)) << "what it held is still there";
    EXPECT_EQ("body", BodyBytes(message));
    EXPECT_FALSE(message.IsComplete());
}

TEST_F(FlatMsg, SetMessageTakesDataFromItsOwnBody) {
    for (const size_t size : {size_t{100}, size_t{500}, size_t{3000}}) {
        KovaFlatMsg message;
        Set(message, 7, Body(size));
        char* const inside = static_cast<char*>(message.GetBuffer()) + 10;
        EXPECT_TRUE(message.SetMessage(8, inside, static_cast<int>(size - 10)));
        EXPECT_EQ(Body(size).substr(10), BodyBytes(message));
    }
}

// Copies

TEST_F(FlatMsg, CopiesHoldHeaderBodyErrorAndCompleteFlagButNotTheAddress) {
    for (const size_t size : {size_t{0}, size_t{4}, size_t{488}, size_t{489}, size_t{5000}}) {
        SCOPED_TRACE(size);
        KovaFlatMsg original;
        ReceiveWhole(original, Body(size));
        ASSERT_NE(0, original.GetAddr().GetPort());
        KovaFlatMsg copy(original);
        KovaFlatMsg copy_of_pointer(&original);
        KovaFlatMsg assigned, assigned_pointer;
        EXPECT_EQ(&assigned, &(assigned = original));
        EXPECT_EQ(&assigned_pointer, &(assigned_pointer = &original));
        for (KovaFlatMsg* message : {&copy, &copy_of_pointer, &assigned, &assigned_pointer}) {
            EXPECT_EQ(HeaderBytes(original), HeaderBytes(*message));
            EXPECT_EQ(Body(size), BodyBytes(*message));
            EXPECT_TRUE(message->IsComplete());
            EXPECT_EQ(0u, message->GetAddr().GetIp());
            EXPECT_EQ(0, message->GetAddr().GetPort());
            EXPECT_EQ(Base::KOVA_ERR_NONE, message->GetError());
            EXPECT_NE(original.GetHeader(), message->GetHeader());
        }
    }
}

TEST_F(FlatMsg, CopiesTakeTheErrorCodeInTheirOwnNameWithoutTrace) {
    KovaFlatMsg original;
    Set(original, 7, "body");
    original.CreateBuffer(SIZE_MAX);
    original.DeleteBuffer();
    ASSERT_EQ(Base::KOVA_ERR_NO_BUFFER, original.GetError());

    const TraceRecorder recorder;
    EXPECT_TRUE(Recorded(KovaFlatMsg(original), Base::KOVA_ERR_NO_BUFFER, kCopy));
    EXPECT_TRUE(Recorded(KovaFlatMsg(&original), Base::KOVA_ERR_NO_BUFFER, kCopyOfPointer));
    KovaFlatMsg assigned, assigned_pointer;
    assigned = original;
    assigned_pointer = &original;
    EXPECT_TRUE(Recorded(assigned, Base::KOVA_ERR_NO_BUFFER, kAssign));
    EXPECT_TRUE(Recorded(assigned_pointer, Base::KOVA_ERR_NO_BUFFER, kAssign));
    EXPECT_TRUE(recorder.All().empty());
}

TEST_F(FlatMsg, AssignmentTakesOverAGoodRecord) {
    KovaFlatMsg failed(static_cast<const void*>(nullptr), 0);
    ASSERT_NE(Base::KOVA_ERR_NONE, failed.GetError());
    KovaFlatMsg good;
    failed = good;
    EXPECT_EQ(Base::KOVA_ERR_NONE, failed.GetError());
}

TEST_F(FlatMsg, CopiesAreIndependent) {
    KovaFlatMsg original;
    Set(original, 7, Body(2000));
    KovaFlatMsg copy(original);
    Set(original, 8, std::string(2000, 'x'));
    EXPECT_EQ(7, copy.GetType());
    EXPECT_EQ(Body(2000), BodyBytes(copy));
}

TEST_F(FlatMsg, AssignmentReplacesLargerAndSmallerMessages) {
    for (const size_t before : {size_t{0}, size_t{100}, size_t{5000}}) {
        for (const size_t after : {size_t{0}, size_t{100}, size_t{600}, size_t{9000}}) {
            KovaFlatMsg target, source;
            Set(target, 1, std::string(before, 'x'));
            Set(source, 2, Body(after));
            target = source;
            EXPECT_EQ(2, target.GetType());
            EXPECT_EQ(Body(after), BodyBytes(target));
        }
    }
}

TEST_F(FlatMsg, AssignmentOfItselfAndOfNothingChangesNothing) {
    for (const size_t size : {size_t{4}, size_t{2000}}) {
        KovaFlatMsg message;
        ReceiveWhole(message, Body(size));
        const std::string header = HeaderBytes(message);
        KovaFlatMsg& same = message;
        message = same;
        message = &same;
        message = static_cast<KovaFlatMsg*>(nullptr);
        EXPECT_EQ(header, HeaderBytes(message));
        EXPECT_EQ(Body(size), BodyBytes(message));
        EXPECT_TRUE(message.IsComplete());
    }
}

TEST_F(FlatMsg, CopyOfNothingIsEmpty) {
    const KovaFlatMsg copy(static_cast<const KovaFlatMsg*>(nullptr));
    EXPECT_EQ(0u, copy.GetSize());
    EXPECT_EQ(Base::KOVA_ERR_NONE, copy.GetError());
}

// Sending over TCP

TEST_F(FlatMsg, SentMessageByteForByte) {
    const fake::Always clock(fake::time, fake::Return(kTime));
    TcpEnds ends;
    KovaFlatMsg message;
    Set(message, -2, "hello");
    message.Send(ends.socket);
    const auto tid = static_cast<uint32_t>(KovaGetTid());
    EXPECT_EQ(std::string("\0\0\0\5KOVA\0\2\0\0\xFF\xFF\xFF\xFE", 16) + BigEndian(tid) + "\1\2\3\4" + "hello",
              ends.Read(29));
    EXPECT_TRUE(ends.HasNothingToRead());
    EXPECT_EQ(KovaGetTid(), message.GetSendTid());
    EXPECT_EQ(kTime, message.GetSendTime());
    EXPECT_EQ(Base::KOVA_ERR_NONE, message.GetError());
}

TEST_F(FlatMsg, MessageIsSentWithExactlyOneSend) {
    for (const size_t size : {size_t{0}, size_t{5}, size_t{488}, size_t{489}, size_t{20000}}) {
        TcpEnds ends;
        KovaFlatMsg message;
        Set(message, 7, Body(size));
        const fake::Journal journal{&fake::send};
        message.Send(ends.socket);
        const std::vector<fake::Entry> sends = journal.Entries();
        ASSERT_EQ(1u, sends.size());
        EXPECT_EQ(HeaderBytes(message) + Body(size), sends[0].data);
        EXPECT_EQ(HeaderBytes(message) + Body(size), ends.Read(kHeaderSize + size));
    }
}

TEST_F(FlatMsg, SendGoesThroughTheSocketsVirtualSend) {
    class Counting : public KovaTCPSocket {
      public:
        bool Send(const void*, size_t size) override {
            sizes.push_back(size);
            return true;
        }
        std::vector<size_t> sizes;
    };
    Counting socket;
    KovaFlatMsg message;
    Set(message, 7, "hello");
    message.Send(socket);
    EXPECT_EQ(std::vector<size_t>{29}, socket.sizes);
}

TEST_F(FlatMsg, PartialWritesOfTheSocketAreContinued) {
    TcpEnds ends;
    KovaFlatMsg message;
    Set(message, 7, Body(100));
    const fake::Replace send(fake::send, [](int fd, const void* data, size_t size, int flags) {
        return fake::send.Real(fd, data, std::min(size, size_t{10}), flags);
    });
    message.Send(ends.socket);
    EXPECT_EQ(HeaderBytes(message) + Body(100), ends.Read(124));
    EXPECT_EQ(Base::KOVA_ERR_NONE, message.GetError());
}

TEST_F(FlatMsg, SendStoresThePeerAndClearsTheCompleteFlag) {
    KovaFlatMsg message;
    ReceiveWhole(message, "body");
    TcpEnds ends;
    EXPECT_EQ(&ends.socket, &message.Send(ends.socket));
    EXPECT_FALSE(message.IsComplete());
    EXPECT_EQ(htons(PortOf(ends.Far())), message.GetAddr().GetPort());
    EXPECT_STREQ("::1", message.GetAddr().GetAsciiIp());
}

TEST_F(FlatMsg, NothingIsSentOnASocketWithAnError) {
    TcpEnds ends;
    ends.socket.Plant(EHOSTUNREACH);
    KovaFlatMsg message;
    ReceiveWhole(message, "hello");
    const TraceRecorder recorder;
    const fake::Counter sends(fake::send);
    message.Send(ends.socket);
    EXPECT_TRUE(Recorded(message, EHOSTUNREACH, kTcpSend));
    EXPECT_TRUE(recorder.All().empty()) << "copied without trace";
    EXPECT_FALSE(message.IsComplete());
    EXPECT_EQ(0u, sends.Calls());
    EXPECT_TRUE(ends.HasNothingToRead());
    EXPECT_TRUE(Recorded(ends.socket, EHOSTUNREACH, "planted"));
    EXPECT_EQ(htons(PortOf(ends.Far())), message.GetAddr().GetPort()) << "the address is set in every case";
}

TEST_F(FlatMsg, FailedSendCopiesTheSocketsErrorAndTraces) {
    TcpEnds ends;
    KovaFlatMsg message;
    Set(message, 7, "hello");
    const TraceRecorder recorder;
    const fake::Script sends(fake::send, {fake::Fail(EPIPE)});
    message.Send(ends.socket);
    EXPECT_TRUE(Recorded(message, EPIPE, kTcpSend));
    EXPECT_TRUE(recorder.Has("message not sent size=%u code=%d", {5, EPIPE}));
    EXPECT_EQ(htons(PortOf(ends.Far())), message.GetAddr().GetPort());
}

TEST_F(FlatMsg, SocketsErrorSurvivesTheQuestionForThePeer) {
    KovaTCPSocket closed;
    KovaFlatMsg message;
    message.Send(closed);
    EXPECT_TRUE(Recorded(message, ENOTSOCK, kTcpSend));
    EXPECT_TRUE(Recorded(closed, ENOTSOCK, "virtual bool KovaTCPSocket::Send(const void*, size_t)"));

    TcpEnds ends;
    const fake::Script sends(fake::send, {fake::Fail(EPIPE)});
    const fake::Script names(fake::getpeername, {fake::Fail(ENOTCONN)});
    message.Send(ends.socket);
    EXPECT_EQ(EPIPE, message.GetError());
    EXPECT_EQ(EPIPE, ends.socket.GetError());
}

// Receiving over TCP

TEST_F(FlatMsg, ReceivesHeaderAndBodyAndIsComplete) {
    for (const size_t size : {size_t{1}, size_t{488}, size_t{489}, size_t{512}, size_t{30000}}) {
        TcpEnds ends;
        const Header header{static_cast<uint32_t>(size), "KOVA", 0x0002FFFF, -7, 0x11223344, 0x55667788};
        ends.Write(header.Bytes() + Body(size));
        KovaFlatMsg message;
        const TraceRecorder recorder;
        EXPECT_EQ(&ends.socket, &message.Recv(ends.socket));
        EXPECT_EQ(Base::KOVA_ERR_NONE, message.GetError());
        EXPECT_TRUE(message.IsComplete());
        EXPECT_EQ(header.Bytes(), HeaderBytes(message));
        EXPECT_EQ(Body(size), BodyBytes(message));
        EXPECT_EQ(htons(PortOf(ends.Far())), message.GetAddr().GetPort());
        EXPECT_STREQ("::1", message.GetAddr().GetAsciiIp());
        EXPECT_TRUE(recorder.Has("message size=%u", {static_cast<uint32_t>(size)}));
    }
}

TEST_F(FlatMsg, WaitingMessageTakesOneSelectAndOneRecvForHeaderAndForBody) {
    TcpEnds ends;
    ends.Write(Message(7, "hello"));
    KovaFlatMsg message;
    const fake::Journal journal{&fake::select, &fake::recv};
    message.Recv(ends.socket);
    Texts calls;
    for (const fake::Entry& entry : journal.Entries()) {
        calls.push_back(entry.function == "select" ? entry.function : entry.text);
    }
    EXPECT_EQ((Texts{"select", "recv 24 0", "select", "recv 5 0"}), calls);
}

TEST_F(FlatMsg, MessageWithoutBodyTakesOneSelectAndOneRecv) {
    TcpEnds ends;
    KovaFlatMsg sent(7);
    KovaTCPSocket sender(::dup(ends.Far()));
    sent.Send(sender);
    KovaFlatMsg message;
    const fake::Journal journal{&fake::select, &fake::recv};
    message.Recv(ends.socket);
    EXPECT_EQ(2u, journal.Entries().size());
    EXPECT_TRUE(message.IsComplete());
    EXPECT_EQ(nullptr, message.GetBuffer());
    EXPECT_EQ(7, message.GetType());
    EXPECT_EQ(Base::KOVA_ERR_NONE, message.GetError());
}

TEST_F(FlatMsg, MessagesInARowAreReceivedOneByOne) {
    TcpEnds ends;
    ends.Write(Message(1, Body(600)) + Message(2, "") + Message(3, "three"));
    KovaFlatMsg message;
    for (const auto& body : {Body(600), std::string(), std::string("three")}) {
        message << ends.socket;
        EXPECT_TRUE(message.IsComplete());
        EXPECT_EQ(body, BodyBytes(message));
    }
    EXPECT_EQ(3, message.GetType());
}

TEST_F(FlatMsg, HeaderThatDoesNotComeLeavesTheSocketsErrorAndTypeZero) {
    for (const size_t held : {size_t{4}, size_t{600}}) {
        KovaFlatMsg message;
        ReceiveWhole(message, Body(held));
        TcpEnds ends;
        ends.Write(Message(7, "").substr(0, 23));
        ends.EndWriting();
        const TraceRecorder recorder;
        message.Recv(ends.socket);
        EXPECT_TRUE(Recorded(message, ECONNRESET, kTcpRecv));
        EXPECT_TRUE(recorder.Has("no header code=%d", {ECONNRESET}));
        EXPECT_EQ(0, message.GetType());
        EXPECT_FALSE(message.IsComplete());
        EXPECT_TRUE(IsInline(message));
        EXPECT_EQ(htons(PortOf(ends.Far())), message.GetAddr().GetPort());
        EXPECT_EQ(ECONNRESET, ends.socket.GetError());
    }
}

TEST_F(FlatMsg, ReceiveWithoutSocketIsNotASocket) {
    KovaTCPSocket closed;
    KovaFlatMsg message(7);
    message.Recv(closed);
    EXPECT_TRUE(Recorded(message, ENOTSOCK, kTcpRecv));
    EXPECT_EQ(0, message.GetType());
    EXPECT_TRUE(Recorded(closed, ENOTSOCK, "virtual bool KovaTCPSocket::Recv(void*, size_t)"));
}

TEST_F(FlatMsg, BodyThatDoesNotComeLeavesTheSocketsErrorAndTypeZero) {
    for (const size_t size : {size_t{100}, size_t{600}}) {
        TcpEnds ends;
        ends.Write(Message(7, Body(size)).substr(0, kHeaderSize + size / 2));
        ends.EndWriting();
        KovaFlatMsg message;
        const TraceRecorder recorder;
        message.Recv(ends.socket);
        EXPECT_TRUE(Recorded(message, ECONNRESET, kTcpRecv));
        EXPECT_TRUE(recorder.Has("no body size=%u code=%d", {static_cast<uint32_t>(size), ECONNRESET}));
        EXPECT_EQ(0, message.GetType());
        EXPECT_FALSE(message.IsComplete());
        EXPECT_TRUE(IsInline(message));
        EXPECT_EQ(htons(PortOf(ends.Far())), message.GetAddr().GetPort());
    }
}

TEST_F(FlatMsg, ReceiveClearsAnOlderErrorAndTheCompleteFlag) {
    KovaFlatMsg message;
    ReceiveWhole(message, "body");
    KovaTCPSocket closed;
    message.Recv(closed);
    EXPECT_FALSE(message.IsComplete());
    ASSERT_EQ(ENOTSOCK, message.GetError());
    ReceiveWhole(message, "body");
    EXPECT_EQ(Base::KOVA_ERR_NONE, message.GetError());
}

// Rejection over TCP

TEST_F(FlatMsg, ForeignHeaderIsAnsweredWithARejection) {
    Header foreign{5, "HTTP", kVersion, 7, 8, 9};
    Header next_version{5, "KOVA", 0x00030000, 7, 8, 9};
    struct {
        Header header;
        int code;
        const char* trace;
        int64_t value;
    } const cases[] = {
        {foreign, Base::KOVA_ERR_BAD_HEADER, "bad magic=%x", 0x48545450},
        {next_version, Base::KOVA_ERR_BAD_VERSION, "bad version=%x", 0x00030000},
    };
    const fake::Always clock(fake::time, fake::Return(kTime));
    for (const auto& c : cases) {
        TcpEnds ends;
        ends.Write(c.header.Bytes());
        KovaFlatMsg message;
        const TraceRecorder recorder;
        message.Recv(ends.socket);
        EXPECT_TRUE(Recorded(message, c.code, kCheckHeader));
        EXPECT_TRUE(recorder.Has(c.trace, {c.value}));
        EXPECT_EQ(0, message.GetType());
        EXPECT_FALSE(message.IsComplete());
        EXPECT_EQ(htons(PortOf(ends.Far())), message.GetAddr().GetPort());
        EXPECT_EQ(Stamped(0, 0, std::string(4, '\0')).Bytes(), ends.Read(kHeaderSize))
            << "a fresh message has neither size nor magic";
        EXPECT_TRUE(ends.HasNothingToRead());
    }
}

TEST_F(FlatMsg, RejectionKeepsSizeAndMagicOfWhatTheMessageHeld) {
    const fake::Always clock(fake::time, fake::Return(kTime));
    struct {
        const char* what;
        size_t held;
        const char* magic;
        uint32_t size;
    } const cases[] = {{"inline", 6, "KOVA", 6},
                       {"inline, foreign magic", 6, "abcd", 6},
                       {"heap, whose size goes with it", 600, "KOVA", 0}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        KovaFlatMsg message;
        Set(message, 9, Body(c.held));
        message.SetHeader((Header{static_cast<uint32_t>(c.held), c.magic, 0x00021111, 9, 1, 2}).Record());
        TcpEnds ends;
        ends.Write((Header{5, "KOVA", 0x00030000, 7, 8, 9}).Bytes());
        message.Recv(ends.socket);
        EXPECT_EQ(Base::KOVA_ERR_BAD_VERSION, message.GetError());
        EXPECT_EQ(Stamped(c.size, 0, c.magic).Bytes(), ends.Read(kHeaderSize));
    }
}

TEST_F(FlatMsg, RejectionThatCannotBeSentLeavesTheErrorOfTheHeader) {
    TcpEnds ends;
    ends.Write((Header{5, "KOVA", 0x00030000, 7, 8, 9}).Bytes());
    const fake::Script sends(fake::send, {fake::Fail(EPIPE)});
    KovaFlatMsg message;
    message.Recv(ends.socket);
    EXPECT_TRUE(Recorded(message, Base::KOVA_ERR_BAD_VERSION, kCheckHeader));
    EXPECT_EQ(EPIPE, ends.socket.GetError());
}

// Sending over UDP

TEST_F(FlatMsg, DatagramByteForByteToTheMessagesAddress) {
    const fake::Always clock(fake::time, fake::Return(kTime));
    const UdpEnds ends;
    for (const size_t size : {size_t{0}, size_t{5}, size_t{489}, size_t{8168}}) {
        KovaUDPSocket socket;
        KovaFlatMsg message;
        Set(message, -2, Body(size));
        message.GetAddr() = ends.FarAddress();
        const fake::Journal journal{&fake::sendto};
        EXPECT_EQ(&socket, &message.Send(socket));
        EXPECT_EQ(Base::KOVA_ERR_NONE, message.GetError());
        EXPECT_EQ(Stamped(static_cast<uint32_t>(size), -2).Bytes() + Body(size), ends.Read());
        EXPECT_EQ(1u, journal.Entries().size());
        EXPECT_EQ(htons(ends.FarPort()), message.GetAddr().GetPort());
    }
}

TEST_F(FlatMsg, DatagramGoesThroughTheSocketsVirtualSendTo) {
    class Counting : public KovaUDPSocket {
      public:
        using KovaUDPSocket::SendTo;
        bool SendTo(const void*, size_t size, KovaInetAddr& to) override {
            sizes.push_back(size);
            destination = &to;
            return true;
        }
        std::vector<size_t> sizes;
        const KovaInetAddr* destination = nullptr;
    };
    Counting socket;
    KovaFlatMsg message;
    Set(message, 7, "hello");
    message.Send(socket);
    EXPECT_EQ(std::vector<size_t>{29}, socket.sizes);
    EXPECT_EQ(&message.GetAddr(), socket.destination);
}

TEST_F(FlatMsg, MessageWithoutAddressAnswersTheLastPeer) {
    UdpEnds ends;
    ends.Write(Message(7, "question"));
    KovaFlatMsg question;
    question.Recv(ends.socket);
    KovaFlatMsg answer;
    Set(answer, 8, "answer");
    answer.Send(ends.socket);
    EXPECT_EQ("answer", ends.Read().substr(kHeaderSize));
}

TEST_F(FlatMsg, ReceivedMessageIsSentBackToItsSource) {
    UdpEnds ends;
    ends.Write(Message(7, "echo"));
    KovaFlatMsg message;
    message << ends.socket;
    message >> ends.socket;
    EXPECT_EQ("echo", ends.Read().substr(kHeaderSize));
}

TEST_F(FlatMsg, FailedDatagramCopiesTheSocketsErrorAndTracesTheDestination) {
    KovaUDPSocket socket;
    KovaFlatMsg message;
    Set(message, 7, "hello");
    const unsigned ip = ::inet_addr("10.1.2.3");
    message.GetAddr() = KovaInetAddr(ip, htons(20001));
    const TraceRecorder recorder;
    const fake::Script sends(fake::sendto, {fake::Fail(ENETUNREACH)});
    message.Send(socket);
    EXPECT_TRUE(Recorded(message, ENETUNREACH, kUdpSend));
    EXPECT_TRUE(recorder.Has("datagram not sent code=%d to=%x port=%u", {ENETUNREACH, ip, 20001}));
}

TEST_F(FlatMsg, DatagramAboveTheLimitIsNotSent) {
    UdpEnds ends;
    KovaFlatMsg message;
    Set(message, 7, Body(8169));
    message.GetAddr() = ends.FarAddress();
    message.Send(ends.socket);
    EXPECT_TRUE(Recorded(message, EMSGSIZE, kUdpSend));
    EXPECT_TRUE(ends.HasNothingToRead());
}

TEST_F(FlatMsg, DatagramIsSentThoughTheSocketHasAnError) {
    UdpEnds ends;
    ends.socket.Plant(EHOSTUNREACH);
    KovaFlatMsg message;
    Set(message, 7, "hello");
    message.GetAddr() = ends.FarAddress();
    message.Send(ends.socket);
    EXPECT_EQ(Base::KOVA_ERR_NONE, message.GetError());
    EXPECT_EQ("hello", ends.Read().substr(kHeaderSize));
}

TEST_F(FlatMsg, DatagramClearsTheCompleteFlagAndAnOlderError) {
    UdpEnds ends;
    KovaFlatMsg message;
    ReceiveWhole(message, "body");
    KovaTCPSocket closed;
    message.Send(closed);
    ASSERT_EQ(ENOTSOCK, message.GetError());
    message.GetAddr() = ends.FarAddress();
    message.Send(ends.socket);
    EXPECT_FALSE(message.IsComplete());
    EXPECT_EQ(Base::KOVA_ERR_NONE, message.GetError());
}

// Receiving over UDP

TEST_F(FlatMsg, ReceivesADatagramAsAMessage) {
    for (const size_t size : {size_t{0}, size_t{1}, size_t{488}, size_t{489}, size_t{8168}}) {
        UdpEnds ends;
        const Header header{static_cast<uint32_t>(size), "KOVA", 0x0002FFFF, -7, 0x11223344, 0x55667788};
        ends.Write(header.Bytes() + Body(size));
        KovaFlatMsg message;
        EXPECT_EQ(&ends.socket, &message.Recv(ends.socket));
        EXPECT_EQ(Base::KOVA_ERR_NONE, message.GetError());
        EXPECT_EQ(header.Bytes(), HeaderBytes(message));
        EXPECT_EQ(Body(size), BodyBytes(message));
        EXPECT_EQ(htons(ends.FarPort()), message.GetAddr().GetPort());
        EXPECT_STREQ("::1", message.GetAddr().GetAsciiIp());
        EXPECT_FALSE(message.IsComplete()) << "says something about TCP only";
        EXPECT_TRUE(ends.IsEmpty());
    }
}

TEST_F(FlatMsg, DatagramIsPeekedAndThenRead) {
    UdpEnds ends;
    ends.Write(Message(7, "hello"));
    KovaFlatMsg message;
    const fake::Journal journal{&fake::select, &fake::recvfrom};
    message.Recv(ends.socket);
    EXPECT_EQ((Texts{"recvfrom 24 MSG_PEEK", "recvfrom 29 0"}), journal.Texts(fake::recvfrom));
    EXPECT_EQ(2u, journal.Count(fake::select));
}

TEST_F(FlatMsg, ReceivedDatagramLeavesTheCompleteFlag) {
    KovaFlatMsg message;
    ReceiveWhole(message, "body");
    UdpEnds ends;
    ends.Write(Message(8, "datagram"));
    message.Recv(ends.socket);
    EXPECT_EQ("datagram", BodyBytes(message));
    EXPECT_TRUE(message.IsComplete());
}

TEST_F(FlatMsg, NoDatagramIsTheSocketsTimeout) {
    for (const size_t held : {size_t{4}, size_t{600}}) {
        UdpEnds ends;
        KovaFlatMsg message;
        Set(message, 7, Body(held));
        const TraceRecorder recorder;
        const fake::Counter receives(fake::recvfrom);
        message.Recv(ends.socket);
        EXPECT_TRUE(Recorded(message, ETIMEDOUT, kUdpRecv));
        EXPECT_TRUE(recorder.Has("no datagram code=%d", {ETIMEDOUT}));
        EXPECT_EQ(0, message.GetType());
        EXPECT_TRUE(IsInline(message));
        EXPECT_EQ(0u, receives.Calls());
    }
}

TEST_F(FlatMsg, ShortDatagramIsRemoved) {
    UdpEnds ends;
    for (const size_t size : {size_t{1}, size_t{10}, size_t{23}}) {
        ends.Write(Message(7, "").substr(0, size));
        ends.Write(Message(8, "next"));
        KovaFlatMsg message(5);
        const TraceRecorder recorder;
        message.Recv(ends.socket);
        EXPECT_TRUE(Recorded(message, Base::KOVA_ERR_SIZE_MISMATCH, kUdpRecv));
        EXPECT_TRUE(recorder.Has("no datagram code=%d", {Base::KOVA_ERR_SIZE_MISMATCH}));
        EXPECT_EQ(0, message.GetType());
        message.Recv(ends.socket);
        EXPECT_EQ("next", BodyBytes(message));
        EXPECT_TRUE(ends.IsEmpty());
    }
}

TEST_F(FlatMsg, EmptyDatagramIsRemoved) {
    UdpEnds ends;
    ends.Write("");
    ends.Write(Message(8, "next"));
    KovaFlatMsg message(5);
    message.Recv(ends.socket);
    EXPECT_TRUE(Recorded(message, Base::KOVA_ERR_SIZE_MISMATCH, kUdpRecv));
    EXPECT_EQ(0, message.GetType());
    message.Recv(ends.socket);
    EXPECT_EQ("next", BodyBytes(message));
}

TEST_F(FlatMsg, ForeignDatagramIsRemovedWithoutAnAnswer) {
    UdpEnds ends;
    struct {
        Header header;
        int code;
    } const cases[] = {{{5, "HTTP", kVersion, 7, 8, 9}, Base::KOVA_ERR_BAD_HEADER},
                       {{5, "KOVA", 0x00030000, 7, 8, 9}, Base::KOVA_ERR_BAD_VERSION}};
    for (const auto& c : cases) {
        ends.Write(c.header.Bytes() + "hello");
        ends.Write(Message(8, "next"));
        KovaFlatMsg message(5);
        const fake::Journal journal{&fake::recvfrom};
        message.Recv(ends.socket);
        EXPECT_TRUE(Recorded(message, c.code, kCheckHeader));
        EXPECT_EQ((Texts{"recvfrom 24 MSG_PEEK", "recvfrom 24 0"}), journal.Texts());
        EXPECT_EQ(0, message.GetType());
        EXPECT_EQ(htons(ends.FarPort()), message.GetAddr().GetPort());
        EXPECT_TRUE(ends.HasNothingToRead());
        message.Recv(ends.socket);
        EXPECT_EQ("next", BodyBytes(message));
    }
}

TEST_F(FlatMsg, LargestDatagramCarries8168BytesOfBody) {
    UdpEnds ends;
    ends.Write(Message(7, Body(8168)));
    KovaFlatMsg message;
    message.Recv(ends.socket);
    EXPECT_EQ(Base::KOVA_ERR_NONE, message.GetError());
    EXPECT_EQ(Body(8168), BodyBytes(message));
}

TEST_F(FlatMsg, DatagramThatAnnouncesMoreIsRejectedToItsSenderAndRemoved) {
    for (const uint32_t size : {8169u, 0x7FFFFFFFu, 0xFFFFFFE8u, 0xFFFFFFFFu}) {
        UdpEnds ends;
        const Header header{size, "KOVA", kVersion, 7, 8, 9};
        ends.Write(header.Bytes() + Body(size == 8169 ? size : 10));
        KovaFlatMsg message(5);
        const TraceRecorder recorder;
        message.Recv(ends.socket);
        EXPECT_TRUE(Recorded(message, Base::KOVA_ERR_BAD_HEADER, kUdpRecv));
        EXPECT_TRUE(recorder.Has("datagram announces size=%u limit=%u", {size, 8192}));
        EXPECT_EQ(0, message.GetType());
        EXPECT_EQ(htons(ends.FarPort()), message.GetAddr().GetPort());
        EXPECT_EQ(std::string(kHeaderSize, '\0'), ends.Read()) << "a fresh message's own header";
        EXPECT_TRUE(ends.HasNothingToRead());
        EXPECT_TRUE(ends.IsEmpty());
    }
}

TEST_F(FlatMsg, RejectionOverUdpIsTheMessagesOwnHeaderWithTypeZero) {
    for (const size_t held : {size_t{6}, size_t{600}}) {
        UdpEnds ends;
        const Header own{static_cast<uint32_t>(held), "abcd", 0x00021111, 9, 1, 2};
        KovaFlatMsg message;
        Set(message, 9, Body(held));
        message.SetHeader(own.Record());
        ends.Write((Header{8169, "KOVA", kVersion, 7, 8, 9}).Bytes());
        message.Recv(ends.socket);
        Header rejection = own;
        rejection.type = 0;
        EXPECT_EQ(rejection.Bytes(), ends.Read()) << "neither stamped nor shortened";
    }
}

TEST_F(FlatMsg, RejectionOverUdpIsFollowedByASecondReadThatEatsTheNextDatagram) {
    UdpEnds ends;
    ends.Write((Header{8169, "KOVA", kVersion, 7, 8, 9}).Bytes());
    ends.Write(Message(8, "eaten"));
    ends.Write(Message(9, "next"));
    KovaFlatMsg message;
    const fake::Journal journal{&fake::recvfrom, &fake::sendto};
    message.Recv(ends.socket);
    Texts functions;
    for (const fake::Entry& entry : journal.Entries()) functions.push_back(entry.function);
    EXPECT_EQ((Texts{"recvfrom", "recvfrom", "sendto", "recvfrom"}), functions);
    EXPECT_EQ((Texts{"recvfrom 24 MSG_PEEK", "recvfrom 24 0", "recvfrom 24 0"}),
              journal.Texts(fake::recvfrom));
    EXPECT_EQ(Base::KOVA_ERR_BAD_HEADER, message.GetError());
    message.Recv(ends.socket);
    EXPECT_EQ("next", BodyBytes(message));
}

TEST_F(FlatMsg, DatagramShorterThanAnnouncedIsASizeMismatchAndRemoved) {
    for (const size_t size : {size_t{10}, size_t{600}}) {
        UdpEnds ends;
        const std::string datagram = Message(7, Body(size));
        ends.Write(datagram.substr(0, datagram.size() - 1));
        KovaFlatMsg message;
        const TraceRecorder recorder;
        message.Recv(ends.socket);
        EXPECT_TRUE(Recorded(message, Base::KOVA_ERR_SIZE_MISMATCH, kUdpRecv));
        EXPECT_TRUE(recorder.Has("datagram not received size=%u code=%d",
                                 {static_cast<uint32_t>(size), Base::KOVA_ERR_SIZE_MISMATCH}));
        EXPECT_EQ(0, message.GetType());
        EXPECT_TRUE(IsInline(message));
        EXPECT_TRUE(ends.IsEmpty());
    }
}

TEST_F(FlatMsg, DatagramLongerThanAnnouncedIsCut) {
    UdpEnds ends;
    ends.Write(Message(7, "hello") + "and more");
    KovaFlatMsg message;
    message.Recv(ends.socket);
    EXPECT_EQ(Base::KOVA_ERR_NONE, message.GetError());
    EXPECT_EQ("hello", BodyBytes(message));
    EXPECT_TRUE(ends.IsEmpty());
}

TEST_F(FlatMsg, ReceiveOverUdpClearsAnOlderError) {
    UdpEnds ends;
    KovaFlatMsg message(static_cast<const void*>(nullptr), 0);
    ASSERT_NE(Base::KOVA_ERR_NONE, message.GetError());
    ends.Write(Message(7, "hello"));
    message.Recv(ends.socket);
    EXPECT_EQ(Base::KOVA_ERR_NONE, message.GetError());
}

// Operators

TEST_F(FlatMsg, StreamOperatorsSendAndReceiveOverTcp) {
    TcpEnds ends;
    KovaTCPSocket far(::dup(ends.Far()));
    KovaFlatMsg sent, received;
    Set(sent, 7, "hello");
    EXPECT_EQ(&far, &(sent >> far));
    EXPECT_EQ(&ends.socket, &(received << ends.socket));
    EXPECT_EQ("hello", BodyBytes(received));
}

template <typename Socket>
class FlatMsgOverUdp : public KovaTest {};
using DatagramSockets = testing::Types<KovaUDPSocket, KovaUDPMultiSocket, KovaUDPMulticastSocket>;
TYPED_TEST_SUITE(FlatMsgOverUdp, DatagramSockets);

TYPED_TEST(FlatMsgOverUdp, StreamOperatorsSendAndReceive) {
    const unsigned short port = FreePort();
    TypeParam receiver(port), sender;
    ASSERT_TRUE(receiver.Open());
    ASSERT_TRUE(receiver.Bind());
    KovaFlatMsg sent, received;
    Set(sent, 7, "hello");
    sent.GetAddr() = KovaInetAddr(in6addr_loopback, htons(port));
    EXPECT_EQ(&sender, &(sent >> sender));
    EXPECT_EQ(&receiver, &(received << receiver));
    EXPECT_EQ("hello", BodyBytes(received));
    EXPECT_EQ(7, received.GetType());
}

// Function texts

TEST_F(FlatMsg, RecordsTheTextsOfItsFunctions) {
    const std::string foreign = (Header{0, "HTTP", kVersion, 7, 8, 9}).Bytes();
    KovaTCPSocket tcp;
    KovaUDPSocket udp;
    KovaFlatMsg failed(static_cast<const void*>(nullptr), 0);
    struct {
        const char* text;
        std::function<KovaFlatMsg()> make;
    } const cases[] = {
        {kCheckHeader, [&] { return KovaFlatMsg(foreign.data(), 24); }},
        {kFromRaw, [&] { return KovaFlatMsg(foreign.data(), 23); }},
        {kCopy, [&] { return KovaFlatMsg(failed); }},
        {kCopyOfPointer, [&] { return KovaFlatMsg(&failed); }},
    };
    for (const auto& c : cases) EXPECT_STREQ(c.text, c.make().GetErrorFunction());

    struct {
        const char* text;
        std::function<void(KovaFlatMsg&)> fail;
    } const operations[] = {
        {kCreateBuffer, [](KovaFlatMsg& m) { m.CreateBuffer(SIZE_MAX); }},
        {kAssign, [&](KovaFlatMsg& m) { m = failed; }},
        {kAssign, [&](KovaFlatMsg& m) { m = &failed; }},
        {kTcpSend, [&](KovaFlatMsg& m) { m.Send(tcp); }},
        {kTcpRecv, [&](KovaFlatMsg& m) { m.Recv(tcp); }},
        {kUdpSend,
         [&](KovaFlatMsg& m) {
             m.CreateBuffer(9000);
             m.SetMessage(7, std::string(9000, 'x').data(), 9000);
             m.Send(udp);
         }},
        {kUdpRecv,
         [&](KovaFlatMsg& m) {
             udp.Close();
             m.Recv(udp);
         }},
    };
    for (const auto& c : operations) {
        KovaFlatMsg message;
        c.fail(message);
        EXPECT_STREQ(c.text, message.GetErrorFunction());
    }
}

}  // namespace
