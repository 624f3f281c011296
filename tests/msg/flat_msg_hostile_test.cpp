// What a message makes of hostile peers, careless callers and no memory: a clear error, never a stray byte,
// and an object that works on.
#include "msg/wire.h"
#include "support/fake_libc.h"
#include "support/leak_check.h"
#include "support/trace_recorder.h"

#include <kova/flat_msg.h>
#include <kova/process.h>

#include <gtest/gtest.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <vector>

namespace {

using Base = KovaBaseObject;

constexpr char kCreateBuffer[] = "void* KovaFlatMsg::CreateBuffer(size_t)";
constexpr char kTcpSend[] = "KovaTCPSocket& KovaFlatMsg::Send(KovaTCPSocket&)";
constexpr char kTcpRecv[] = "KovaTCPSocket& KovaFlatMsg::Recv(KovaTCPSocket&)";
constexpr char kUdpSend[] = "KovaUDPSocket& KovaFlatMsg::Send(KovaUDPSocket&)";
constexpr char kUdpRecv[] = "KovaUDPSocket& KovaFlatMsg::Recv(KovaUDPSocket&)";

constexpr char kNoBufferTrace[] = "no buffer need=%u errno=%d";
constexpr uint32_t kLargestBody = INT32_MAX - kHeaderSize;
constexpr size_t kInlineBody = 512;
constexpr int kTime = 0x01020304;

/// Receives, sends and stores in every way with a message that has been through something.
void ExpectUsable(KovaFlatMsg& message) {
    TcpEnds tcp;
    tcp.Write(Message(1, Body(700)));
    message.Recv(tcp.socket);
    EXPECT_EQ(Base::KOVA_ERR_NONE, message.GetError());
    EXPECT_TRUE(message.IsComplete());
    EXPECT_EQ(Body(700), BodyBytes(message));
    message.Send(tcp.socket);
    EXPECT_EQ(HeaderBytes(message) + Body(700), tcp.Read(kHeaderSize + 700));

    UdpEnds udp;
    udp.Write(Message(2, "datagram"));
    message.Recv(udp.socket);
    EXPECT_EQ(Base::KOVA_ERR_NONE, message.GetError());
    EXPECT_EQ("datagram", BodyBytes(message));
    message.Send(udp.socket);
    EXPECT_EQ(HeaderBytes(message) + "datagram", udp.Read());

    EXPECT_TRUE(Set(message, 3, Body(513)));
    EXPECT_EQ(Body(513), BodyBytes(message));
}

class HostileFlatMsg : public KovaTest {
  protected:
    /// A message without a buffer: its body could not be allocated.
    static void TakeBuffer(KovaFlatMsg& message) {
        const fake::Script allocations(fake::new_array_nothrow, {fake::Fail(ENOMEM)});
        EXPECT_EQ(nullptr, message.CreateBuffer(100000));
    }
};

// No memory

TEST_F(HostileFlatMsg, BodyThatCannotBeAllocatedIsNoBuffer) {
    for (const size_t held : {size_t{4}, size_t{700}}) {
        KovaFlatMsg message;
        Set(message, 7, Body(held));
        const TraceRecorder recorder;
        const fake::Script allocations(fake::new_array_nothrow, {fake::Fail(EAGAIN)});
        EXPECT_EQ(nullptr, message.CreateBuffer(1000));
        EXPECT_TRUE(Recorded(message, Base::KOVA_ERR_NO_BUFFER, kCreateBuffer));
        EXPECT_TRUE(recorder.Has(kNoBufferTrace, {1024, EAGAIN}));
        EXPECT_EQ(1u, recorder.All().size());
    }
}

TEST_F(HostileFlatMsg, AccessorsOfAMessageWithoutBufferAreZeroOrNull) {
    KovaFlatMsg message(7);
    TakeBuffer(message);
    EXPECT_EQ(nullptr, message.GetHeader());
    EXPECT_EQ(0u, message.GetSize());
    EXPECT_EQ(0, message.GetType());
    EXPECT_EQ(0, message.GetSendTid());
    EXPECT_EQ(0, message.GetSendTime());
    EXPECT_EQ(nullptr, message.GetBuffer());
    EXPECT_EQ(nullptr, message.GetMessage());
    EXPECT_FALSE(message.IsComplete());
    EXPECT_FALSE(message.SetSize(0));
    EXPECT_FALSE(message.SetSize(1));
    message.SetType(5);
    message.SetHeader(Header{}.Record());
    EXPECT_EQ(nullptr, message.GetHeader());
}

TEST_F(HostileFlatMsg, MessageWithoutBufferWorksOnInEveryWay) {
    struct {
        const char* what;
        std::function<void(KovaFlatMsg&)> use;
    } const cases[] = {
        {"nothing before", [](KovaFlatMsg&) {}},
        {"DeleteBuffer", [](KovaFlatMsg& m) { m.DeleteBuffer(); }},
        {"small body",
         [](KovaFlatMsg& m) {
             EXPECT_NE(nullptr, m.CreateBuffer(488));
             EXPECT_TRUE(IsInline(m));
         }},
        {"large body",
         [](KovaFlatMsg& m) {
             EXPECT_NE(nullptr, m.CreateBuffer(489));
             EXPECT_FALSE(IsInline(m)) << "the capacity is 0, not that of the inline storage";
         }},
        {"SetMessage",
         [](KovaFlatMsg& m) {
             EXPECT_TRUE(Set(m, 3, "body"));
             EXPECT_EQ("body", BodyBytes(m));
             EXPECT_EQ(Base::KOVA_ERR_NONE, m.GetError());
         }},
        {"assignment",
         [](KovaFlatMsg& m) {
             KovaFlatMsg source;
             Set(source, 3, Body(600));
             m = source;
             EXPECT_EQ(Body(600), BodyBytes(m));
             EXPECT_EQ(Base::KOVA_ERR_NONE, m.GetError());
         }},
        {"receive over UDP",
         [](KovaFlatMsg& m) {
             UdpEnds ends;
             ends.Write(Message(3, "body"));
             m.Recv(ends.socket);
             EXPECT_EQ("body", BodyBytes(m));
             EXPECT_EQ(Base::KOVA_ERR_NONE, m.GetError());
         }},
        {"receive of nothing",
         [](KovaFlatMsg& m) {
             UdpEnds ends;
             m.Recv(ends.socket);
             EXPECT_EQ(ETIMEDOUT, m.GetError());
             EXPECT_NE(nullptr, m.GetHeader());
         }},
        {"rejection over TCP",
         [](KovaFlatMsg& m) {
             TcpEnds ends;
             ends.Write((Header{0, "HTTP", kVersion, 0, 0, 0}).Bytes());
             m.Recv(ends.socket);
             EXPECT_EQ(kHeaderSize, ends.Read(kHeaderSize).size());
         }},
        {"rejection over UDP",
         [](KovaFlatMsg& m) {
             UdpEnds ends;
             ends.Write((Header{8169, "KOVA", kVersion, 0, 0, 0}).Bytes());
             m.Recv(ends.socket);
             EXPECT_EQ(kHeaderSize, ends.Read().size());
         }},
        {"failing again", TakeBuffer},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        KovaFlatMsg message(7);
        TakeBuffer(message);
        c.use(message);
        ExpectUsable(message);
    }
}

TEST_F(HostileFlatMsg, HeaderOutlivesABufferThatCouldNotBeAllocated) {
    for (const size_t held : {size_t{4}, size_t{700}}) {
        KovaFlatMsg message;
        Set(message, 7, Body(held));
        TakeBuffer(message);
        message.CreateBuffer(3);
        EXPECT_EQ(7, message.GetType());
        EXPECT_EQ(3u, message.GetSize());
    }
}

TEST_F(HostileFlatMsg, MessageWithoutBufferIsNotSent) {
    TcpEnds tcp;
    UdpEnds udp;
    KovaFlatMsg message(7);
    TakeBuffer(message);
    message.GetAddr() = udp.FarAddress();
    {
        const TraceRecorder recorder;
        message.Send(udp.socket);
        EXPECT_TRUE(Recorded(message, Base::KOVA_ERR_NO_BUFFER, kUdpSend));
        EXPECT_TRUE(recorder.Has("datagram not sendable size=%u code=%d", {0, Base::KOVA_ERR_NO_BUFFER}));
    }
    const TraceRecorder recorder;
    message.Send(tcp.socket);
    EXPECT_TRUE(Recorded(message, Base::KOVA_ERR_NO_BUFFER, kTcpSend));
    EXPECT_TRUE(recorder.Has("message not sendable size=%u code=%d", {0, Base::KOVA_ERR_NO_BUFFER}));
    EXPECT_TRUE(tcp.HasNothingToRead());
    EXPECT_TRUE(udp.HasNothingToRead());
    ExpectUsable(message);
}

TEST_F(HostileFlatMsg, EveryWayToFillAMessageReportsThatThereIsNoMemory) {
    KovaFlatMsg source;
    Set(source, 7, Body(600));
    const std::string raw = Message(7, Body(600));
    std::string body = Body(600);
    struct {
        const char* what;
        std::function<void(KovaFlatMsg&)> fill;
    } const cases[] = {
        {"SetMessage", [&](KovaFlatMsg& m) { EXPECT_FALSE(Set(m, 7, body)); }},
        {"assignment", [&](KovaFlatMsg& m) { m = source; }},
        {"assignment of a pointer", [&](KovaFlatMsg& m) { m = &source; }},
        {"receive over TCP",
         [&](KovaFlatMsg& m) {
             TcpEnds ends;
             ends.Write(raw);
             m.Recv(ends.socket);
             EXPECT_EQ(htons(PortOf(ends.Far())), m.GetAddr().GetPort());
         }},
        {"receive over UDP",
         [&](KovaFlatMsg& m) {
             UdpEnds ends;
             ends.Write(raw);
             m.Recv(ends.socket);
             EXPECT_TRUE(ends.IsEmpty()) << "the datagram is removed all the same";
         }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        KovaFlatMsg message(5);
        const TraceRecorder recorder;
        {
            const fake::Script allocations(fake::new_array_nothrow, {fake::Fail(ENOMEM)});
            c.fill(message);
        }
        EXPECT_TRUE(Recorded(message, Base::KOVA_ERR_NO_BUFFER, kCreateBuffer));
        EXPECT_TRUE(recorder.Has(kNoBufferTrace, {624, ENOMEM}));
        EXPECT_EQ(nullptr, message.GetHeader());
        ExpectUsable(message);
    }

    struct {
        const char* what;
        std::function<KovaFlatMsg()> make;
    } const constructors[] = {
        {"data", [&] { return KovaFlatMsg(7u, body.data(), 600); }},
        {"raw bytes", [&] { return KovaFlatMsg(raw.data(), static_cast<int32_t>(raw.size())); }},
        {"copy", [&] { return KovaFlatMsg(source); }},
        {"copy of a pointer", [&] { return KovaFlatMsg(&source); }},
    };
    for (const auto& c : constructors) {
        SCOPED_TRACE(c.what);
        const fake::Script allocations(fake::new_array_nothrow, {fake::Fail(ENOMEM)});
        KovaFlatMsg message = c.make();
        EXPECT_TRUE(Recorded(message, Base::KOVA_ERR_NO_BUFFER, kCreateBuffer));
        ExpectUsable(message);
    }
}

TEST_F(HostileFlatMsg, CopyOfAMessageWithoutBufferIsEmptyAndHasItsError) {
    KovaFlatMsg source(7);
    TakeBuffer(source);
    KovaFlatMsg copy(source), copy_of_pointer(&source), assigned;
    Set(assigned, 9, Body(600));
    assigned = source;
    for (KovaFlatMsg* message : {&copy, &copy_of_pointer, &assigned}) {
        EXPECT_EQ(Base::KOVA_ERR_NO_BUFFER, message->GetError());
        EXPECT_EQ(std::string(kHeaderSize, '\0'), HeaderBytes(*message));
        EXPECT_EQ(nullptr, message->GetBuffer());
        ExpectUsable(*message);
    }
}

TEST_F(HostileFlatMsg, SizesThatNoBufferHasAreRefusedWithoutAllocation) {
    std::vector<size_t> sizes = {size_t{kLargestBody} + 1, SIZE_MAX - 24, SIZE_MAX - 23, SIZE_MAX};
    for (uint32_t size = 0xFFFFFFE0; size != 0; ++size) sizes.push_back(size);
    for (const size_t size : sizes) {
        KovaFlatMsg message;
        const TraceRecorder recorder;
        const fake::Counter allocations(fake::new_array_nothrow);
        EXPECT_EQ(nullptr, message.CreateBuffer(size));
        EXPECT_TRUE(Recorded(message, Base::KOVA_ERR_NO_BUFFER, kCreateBuffer));
        EXPECT_TRUE(recorder.Has(kNoBufferTrace, {INT32_MAX, ENOMEM}));
        EXPECT_EQ(0u, allocations.Calls());
    }
}

TEST_F(HostileFlatMsg, LargestSizeIsAskedOfTheAllocator) {
    KovaFlatMsg message;
    size_t asked = 0;
    const fake::Replace allocate(fake::new_array_nothrow, [&](size_t bytes, const std::nothrow_t&) {
        asked = bytes;
        errno = ENOMEM;
        return static_cast<void*>(nullptr);
    });
    EXPECT_EQ(nullptr, message.CreateBuffer(kLargestBody));
    EXPECT_EQ(size_t{INT32_MAX}, asked);
}

// Peers over TCP

TEST_F(HostileFlatMsg, AnnouncedSizesThatNoBufferHasAreNoBuffer) {
    std::vector<uint32_t> sizes = {kLargestBody + 1, 0x7FFFFFFF, 0x80000000, 0xFFFFFFD0};
    for (uint32_t size = 0xFFFFFFE8; size != 0; ++size) sizes.push_back(size);
    for (const uint32_t size : sizes) {
        SCOPED_TRACE(size);
        TcpEnds ends;
        ends.Write((Header{size, "KOVA", kVersion, 7, 8, 9}).Bytes() + "and some bytes");
        KovaFlatMsg message(5);
        const TraceRecorder recorder;
        {
            const fake::Counter allocations(fake::new_array_nothrow);
            message.Recv(ends.socket);
            EXPECT_EQ(0u, allocations.Calls());
        }
        EXPECT_TRUE(Recorded(message, Base::KOVA_ERR_NO_BUFFER, kCreateBuffer));
        EXPECT_TRUE(recorder.Has("message size=%u", {size}));
        EXPECT_TRUE(recorder.Has(kNoBufferTrace, {INT32_MAX, ENOMEM}));
        EXPECT_FALSE(message.IsComplete());
        EXPECT_EQ(nullptr, message.GetBuffer());
    }
    KovaFlatMsg message;
    TcpEnds ends;
    ends.Write((Header{0xFFFFFFE8, "KOVA", kVersion, 7, 8, 9}).Bytes());
    message.Recv(ends.socket);
    ExpectUsable(message);
}

TEST_F(HostileFlatMsg, SizesAtTheLimitAreAskedOfTheAllocatorOnly) {
    for (const uint32_t size : {0x7FFFFFE6u, 0x7FFFFFE7u}) {
        TcpEnds ends;
        ends.Write((Header{size, "KOVA", kVersion, 7, 8, 9}).Bytes());
        KovaFlatMsg message;
        {
            const TraceRecorder recorder;
            const fake::Script allocations(fake::new_array_nothrow, {fake::Fail(ENOMEM)});
            message.Recv(ends.socket);
            EXPECT_TRUE(recorder.Has(kNoBufferTrace, {size + int64_t{kHeaderSize}, ENOMEM}));
        }
        EXPECT_EQ(Base::KOVA_ERR_NO_BUFFER, message.GetError());
        ExpectUsable(message);
    }
}

TEST_F(HostileFlatMsg, PeersThatFallSilentAreTheSocketsTimeout) {
    constexpr int kShortTimeout = 20;
    const std::string whole = Message(7, Body(1000));
    struct {
        const char* what;
        std::string bytes;
        const char* trace;
    } const cases[] = {
        {"nothing", "", "no header code=%d"},
        {"23 bytes", whole.substr(0, 23), "no header code=%d"},
        {"a size with nothing behind it", whole.substr(0, kHeaderSize), "no body size=%u code=%d"},
        {"half a body", whole.substr(0, 500), "no body size=%u code=%d"},
        {"all but the last byte", whole.substr(0, whole.size() - 1), "no body size=%u code=%d"},
        {"a small size with nothing behind it", Message(7, "body").substr(0, kHeaderSize),
         "no body size=%u code=%d"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        TcpEnds ends;
        ends.socket.SetTimeout(kShortTimeout);
        ends.Write(c.bytes);
        KovaFlatMsg message(5);
        const TraceRecorder recorder;
        message.Recv(ends.socket);
        EXPECT_TRUE(Recorded(message, ETIMEDOUT, kTcpRecv));
        EXPECT_TRUE(recorder.Has(c.trace));
        EXPECT_EQ(0, message.GetType());
        EXPECT_FALSE(message.IsComplete());
        EXPECT_TRUE(IsInline(message));
        ExpectUsable(message);
    }
}

TEST_F(HostileFlatMsg, BytesThatComeOneByOneMakeAMessage) {
    TcpEnds ends;
    const std::string bytes = Message(7, "hello");
    const fake::Journal journal{&fake::recv};
    const auto is_taken = [&] {
        int waiting = -1;
        return ::ioctl(ends.Near(), FIONREAD, &waiting) == 0 && waiting == 0;
    };
    DeadlineThread sender([&] {
        for (const char byte : bytes) {
            ends.Write(std::string(1, byte));
            EXPECT_TRUE(WaitUntil(is_taken));
        }
    });
    KovaFlatMsg message;
    message.Recv(ends.socket);
    sender.Join();
    EXPECT_TRUE(message.IsComplete());
    EXPECT_EQ("hello", BodyBytes(message));
    EXPECT_EQ(bytes.size(), journal.Entries().size());
}

TEST_F(HostileFlatMsg, DataBehindARejectedHeaderIsReadAsTheNextHeader) {
    TcpEnds ends;
    ends.Write((Header{48, "KOVA", 0x00030000, 7, 8, 9}).Bytes() + Body(48) + Message(4, "good again"));
    KovaFlatMsg message;
    message.Recv(ends.socket);
    EXPECT_EQ(Base::KOVA_ERR_BAD_VERSION, message.GetError());
    for (int part = 0; part < 2; ++part) {
        message.Recv(ends.socket);
        EXPECT_EQ(Base::KOVA_ERR_BAD_HEADER, message.GetError());
    }
    message.Recv(ends.socket);
    EXPECT_EQ("good again", BodyBytes(message));
    EXPECT_EQ(3 * kHeaderSize, ends.Read(3 * kHeaderSize).size()) << "three rejections";
}

// Peers over UDP

TEST_F(HostileFlatMsg, SizeThatWasPeekedHoldsWhenAnotherDatagramIsRead) {
    for (const ssize_t missing : {0, 1}) {
        UdpEnds ends;
        ends.Write(Message(7, "hello"));
        const auto another = [&](int fd, void* data, size_t size, int flags, sockaddr* from,
                                 socklen_t* length) {
            const ssize_t count = fake::recvfrom.Real(fd, data, size, flags, from, length);
            const std::string hostile = BigEndian(0xFFFFFFF0);
            std::memcpy(data, hostile.data(), hostile.size());
            return count - missing;
        };
        KovaFlatMsg message;
        const fake::Script receives(fake::recvfrom, {fake::Real(), another});
        message.Recv(ends.socket);
        EXPECT_EQ(missing == 0 ? Base::KOVA_ERR_NONE : Base::KOVA_ERR_SIZE_MISMATCH, message.GetError());
        EXPECT_EQ(5u, message.GetSize());
        EXPECT_EQ(missing == 0 ? 7 : 0, message.GetType());
    }
}

TEST_F(HostileFlatMsg, DatagramThatVanishesAfterThePeekIsTheSocketsError) {
    UdpEnds ends;
    ends.Write(Message(7, "hello"));
    KovaFlatMsg message;
    {
        const fake::Script receives(fake::recvfrom, {fake::Real(), fake::Fail(ECONNREFUSED)});
        message.Recv(ends.socket);
    }
    EXPECT_TRUE(Recorded(message, ECONNREFUSED, kUdpRecv));
    EXPECT_EQ(0, message.GetType());
    ExpectUsable(message);
}

TEST_F(HostileFlatMsg, EveryBadDatagramLeavesTheMessageUsable) {
    const std::string good = Message(7, Body(600));
    const std::string datagrams[] = {
        "",
        "K",
        good.substr(0, 23),
        good.substr(0, 24),
        good.substr(0, 300),
        (Header{0xFFFFFFFF, "KOVA", kVersion, 7, 8, 9}).Bytes(),
        (Header{0xFFFFFFE8, "KOVA", kVersion, 7, 8, 9}).Bytes() + Body(8000),
        (Header{8169, "KOVA", kVersion, 7, 8, 9}).Bytes() + Body(8169),
        (Header{0, "HTTP", kVersion, 7, 8, 9}).Bytes(),
        (Header{600, "KOVA", 0x00030000, 7, 8, 9}).Bytes() + Body(600),
    };
    for (const std::string& datagram : datagrams) {
        UdpEnds ends;
        ends.Write(datagram);
        KovaFlatMsg message;
        message.Recv(ends.socket);
        EXPECT_NE(Base::KOVA_ERR_NONE, message.GetError());
        EXPECT_EQ(0, message.GetType());
        EXPECT_TRUE(ends.IsEmpty());
        ExpectUsable(message);
    }
}

// Callers

/// A message whose header announces `size` bytes, in a buffer for `space` bytes of body.
void Announce(KovaFlatMsg& message, size_t space, uint32_t size) {
    if (space != kInlineBody) message.CreateBuffer(space);
    message.SetHeader((Header{size, "KOVA", kVersion, 7, 8, 9}).Record());
}

TEST_F(HostileFlatMsg, HeaderThatAnnouncesMoreThanTheBufferHoldsIsNotSent) {
    for (const size_t space : {kInlineBody, size_t{1000}}) {
        for (const uint32_t size : {static_cast<uint32_t>(space) + 1, 8000u, kLargestBody, 0x7FFFFFFFu,
                                    0xFFFFFFE7u, 0xFFFFFFE8u, 0xFFFFFFFFu}) {
            SCOPED_TRACE(testing::Message() << "space " << space << " size " << size);
            TcpEnds tcp;
            UdpEnds udp;
            KovaFlatMsg message;
            Announce(message, space, size);
            const std::string header = HeaderBytes(message);
            message.GetAddr() = udp.FarAddress();
            const TraceRecorder recorder;
            message.Send(udp.socket);
            EXPECT_TRUE(Recorded(message, Base::KOVA_ERR_OVERRUN, kUdpSend));
            EXPECT_TRUE(
                recorder.Has("datagram not sendable size=%u code=%d", {size, Base::KOVA_ERR_OVERRUN}));
            message.Send(tcp.socket);
            EXPECT_TRUE(Recorded(message, Base::KOVA_ERR_OVERRUN, kTcpSend));
            EXPECT_TRUE(recorder.Has("message not sendable size=%u code=%d", {size, Base::KOVA_ERR_OVERRUN}));
            EXPECT_TRUE(tcp.HasNothingToRead());
            EXPECT_TRUE(udp.HasNothingToRead());
            EXPECT_EQ(header, HeaderBytes(message));
        }
    }
}

TEST_F(HostileFlatMsg, HeaderThatAnnouncesAllTheBufferHoldsIsSent) {
    for (const size_t space : {kInlineBody, size_t{1000}}) {
        TcpEnds ends;
        KovaFlatMsg message;
        Announce(message, space, static_cast<uint32_t>(space));
        std::memset(message.GetBuffer(), 'x', space);
        message.Send(ends.socket);
        EXPECT_EQ(HeaderBytes(message) + std::string(space, 'x'), ends.Read(kHeaderSize + space));
    }
}

TEST_F(HostileFlatMsg, InlineBodyThatNobodyWroteIsZero) {
    TcpEnds ends;
    KovaFlatMsg message(7);
    ASSERT_TRUE(message.SetSize(kInlineBody));
    message.Send(ends.socket);
    EXPECT_EQ(std::string(kInlineBody, '\0'), ends.Read(kHeaderSize + kInlineBody).substr(kHeaderSize));
}

TEST_F(HostileFlatMsg, CopyOfAHeaderThatAnnouncesTooMuchHoldsWhatIsThere) {
    for (const size_t space : {kInlineBody, size_t{1000}}) {
        for (const uint32_t size :
             {static_cast<uint32_t>(space) + 1, 0x7FFFFFFFu, 0xFFFFFFE8u, 0xFFFFFFFFu}) {
            KovaFlatMsg source;
            Announce(source, space, static_cast<uint32_t>(space));
            std::memset(source.GetBuffer(), 'x', space);
            source.SetHeader((Header{size, "KOVA", kVersion, 7, 8, 9}).Record());
            KovaFlatMsg copy(source), copy_of_pointer(&source), assigned;
            assigned = source;
            for (KovaFlatMsg* message : {&copy, &copy_of_pointer, &assigned}) {
                EXPECT_EQ(std::string(space, 'x'), BodyBytes(*message));
                EXPECT_EQ(7, message->GetType());
                EXPECT_EQ(Base::KOVA_ERR_NONE, message->GetError());
            }
        }
    }
}

// Against a model

/// What a message should be, written down from its rules.
class Model {
  public:
    bool has_buffer = true;
    bool heap = false;
    bool complete = false;
    int error = 0;
    size_t capacity = 512;
    Header header{0, std::string(4, '\0'), 0, 0, 0, 0};
    std::string
        body;  ///< as long as the size, or as the buffer if that holds less; valid if the size is not 0

    size_t Space() const {
        if (!has_buffer) return 0;
        return heap ? capacity - kHeaderSize : kInlineBody;
    }
    size_t CopiedSize() const { return has_buffer ? std::min<size_t>(header.size, Space()) : 0; }

    void Delete() {
        complete = false;
        if (has_buffer && !heap) return;
        has_buffer = true;
        heap = false;
        capacity = 536;
        header.size = 0;
    }
    bool Create(size_t size, bool memory) {
        const size_t need = size > kLargestBody ? SIZE_MAX : size + kHeaderSize;
        if (capacity < need) {
            Delete();
            if (need > 512) {
                if (!memory || need == SIZE_MAX) {
                    error = Base::KOVA_ERR_NO_BUFFER;
                    capacity = 0;
                    has_buffer = false;
                    return false;
                }
                heap = true;
                capacity = need;
            }
        }
        header.size = static_cast<uint32_t>(size);
        return true;
    }
    void Set(int type, const std::string& data, bool memory) {
        complete = false;
        error = 0;
        if (!Create(data.size(), memory)) return;
        header.type = type;
        header.time = 0;
        body = data;
    }
    bool SetSize(uint32_t size) {
        if (!has_buffer || capacity < size || Space() < size) return false;
        header.size = size;
        return true;
    }
    void Assign(const Model& other, bool memory) {
        if (&other == this) return;
        error = other.error;
        if (!Create(other.CopiedSize(), memory)) return;
        header = other.has_buffer ? other.header : Header{0, std::string(4, '\0'), 0, 0, 0, 0};
        header.size = static_cast<uint32_t>(other.CopiedSize());
        body = other.body.substr(0, header.size);
        complete = other.complete;
    }
    bool Send() {
        complete = false;
        error = 0;
        if (!has_buffer) error = Base::KOVA_ERR_NO_BUFFER;
        if (has_buffer && header.size > Space()) error = Base::KOVA_ERR_OVERRUN;
        if (error != 0) return false;
        header.magic = "KOVA";
        header.version = kVersion;
        header.tid = KovaGetTid();
        header.time = kTime;
        return true;
    }
    void Receive(const Header& received, const std::string& data) {
        complete = false;
        error = 0;
        if (!has_buffer) Delete();
        Create(data.size(), true);
        header = received;
        body = data;
        complete = true;
    }
};

/// Two messages and their models, to which the same things are done.
class Differential {
  public:
    explicit Differential(unsigned seed)
        : m_Random(seed),
          m_Clock(fake::time, fake::Return(kTime)),
          m_Allocate(fake::new_array_nothrow, [this](size_t bytes, const std::nothrow_t& tag) {
              if (m_Memory) return fake::new_array_nothrow.Real(bytes, tag);
              errno = ENOMEM;
              return static_cast<void*>(nullptr);
          }) {
        auto [sender, receiver] = SocketPair();
        m_Sender.SetSocket(sender.Release());
        m_Receiver.SetSocket(receiver.Release());
    }

    void Step() {
        const size_t i = Pick(2);
        m_Memory = Pick(4) != 0;
        Do(m_Messages[i], m_Models[i], m_Messages[1 - i], m_Models[1 - i]);
        m_Memory = true;
        for (size_t k = 0; k < 2; ++k) {
            SCOPED_TRACE(testing::Message() << "message " << k << (k == i ? ", the changed one" : ""));
            Compare(m_Messages[k], m_Models[k]);
        }
    }

  private:
    size_t Pick(size_t count) { return std::uniform_int_distribution<size_t>(0, count - 1)(m_Random); }
    uint32_t Word() { return static_cast<uint32_t>(m_Random()); }
    size_t Size() {
        constexpr size_t kEdges[] = {0, 1, 24, 487, 488, 489, 511, 512, 513, 535, 536, 537, 600, 1000, 1024};
        return Pick(2) == 0 ? kEdges[Pick(std::size(kEdges))] : Pick(1500);
    }
    std::string RandomBody(size_t size) {
        std::string body(size, '\0');
        for (char& byte : body) byte = static_cast<char>(m_Random());
        return body;
    }

    void Do(KovaFlatMsg& message, Model& model, KovaFlatMsg& other, Model& other_model) {
        const size_t operation = Pick(10);
        SCOPED_TRACE(testing::Message() << "operation " << operation << (m_Memory ? "" : " without memory"));
        switch (operation) {
            case 0: {
                std::string body = RandomBody(Size());
                const int type = static_cast<int>(Word());
                model.Set(type, body, m_Memory);
                EXPECT_EQ(model.error == 0, Set(message, type, body));
                break;
            }
            case 1: {
                const int type = static_cast<int>(Word());
                if (model.has_buffer) model.header.type = type;
                message.SetType(type);
                break;
            }
            case 2: {
                const uint32_t size = Pick(10) == 0 ? Word() : static_cast<uint32_t>(Size());
                EXPECT_EQ(model.SetSize(size), message.SetSize(size));
                Fill(message, model);
                break;
            }
            case 3: {
                const size_t size = Pick(10) == 0 ? 0xFFFFFFE0 + Pick(32) : Size();
                EXPECT_EQ(model.Create(size, m_Memory), message.CreateBuffer(size) != nullptr);
                Fill(message, model);
                break;
            }
            case 4:
                model.Delete();
                message.DeleteBuffer();
                break;
            case 5: {
                const uint32_t size = Pick(4) == 0 ? Word() : static_cast<uint32_t>(Size());
                const Header header{size, "abcd", Word(), 1, 2, 3};
                if (model.has_buffer) model.header = header;
                message.SetHeader(header.Record());
                Fill(message, model);
                break;
            }
            case 6:
                model.Assign(other_model, m_Memory);
                message = other;
                break;
            case 7:
                model.Assign(model, m_Memory);
                message = &message;
                break;
            case 8: {
                Model copied;
                copied.Assign(other_model, m_Memory);
                KovaFlatMsg copy(other);
                Compare(copy, copied);
                break;
            }
            default:
                m_Memory = true;
                message.Send(m_Sender);
                if (!model.Send()) break;
                other.Recv(m_Receiver);
                other_model.Receive(model.header, model.body.substr(0, model.header.size));
                break;
        }
    }

    /// Gives known bytes to the body of a message whose size was changed, to all that its buffer holds if it
    /// announces more.
    void Fill(KovaFlatMsg& message, Model& model) {
        if (message.GetBuffer() == nullptr) return;
        model.body = RandomBody(model.CopiedSize());
        model.body.copy(static_cast<char*>(message.GetBuffer()), model.body.size());
    }

    static void Compare(KovaFlatMsg& message, const Model& model) {
        EXPECT_EQ(model.error, message.GetError());
        EXPECT_EQ(model.complete, message.IsComplete());
        ASSERT_EQ(model.has_buffer, message.GetHeader() != nullptr);
        if (!model.has_buffer) {
            EXPECT_EQ(0u, message.GetSize());
            EXPECT_EQ(0, message.GetType());
            EXPECT_EQ(nullptr, message.GetBuffer());
            return;
        }
        EXPECT_EQ(model.heap, !IsInline(message));
        EXPECT_EQ(model.header.Bytes(), HeaderBytes(message));
        ASSERT_EQ(model.header.size, message.GetSize());
        EXPECT_EQ(model.header.type, message.GetType());
        EXPECT_EQ(model.header.tid, message.GetSendTid());
        EXPECT_EQ(model.header.time, message.GetSendTime());
        EXPECT_EQ(model.header.size == 0, message.GetBuffer() == nullptr);
        if (message.GetBuffer() == nullptr) return;
        EXPECT_TRUE(
            std::equal(model.body.begin(), model.body.end(), static_cast<char*>(message.GetBuffer())));
        EXPECT_EQ(model.CopiedSize(), model.body.size());
    }

    std::mt19937 m_Random;
    bool m_Memory = true;
    fake::Always<time_t(time_t*)> m_Clock;
    fake::Always<void*(size_t, const std::nothrow_t&)> m_Allocate;
    KovaTCPSocket m_Sender, m_Receiver;
    KovaFlatMsg m_Messages[2];
    Model m_Models[2];
};

TEST_F(HostileFlatMsg, AnySequenceOfOperationsAgreesWithTheModel) {
    constexpr unsigned kSeeds = 20;
    constexpr int kSteps = 200;
    for (unsigned seed = 1; seed <= kSeeds; ++seed) {
        Differential differential(seed);
        for (int step = 0; step < kSteps; ++step) {
            SCOPED_TRACE(testing::Message() << "seed " << seed << " step " << step);
            differential.Step();
            if (HasFailure()) return;
        }
    }
}

// Random bytes

/// Makes messages of which some bytes, or all, are wrong.
class Fuzzer {
  public:
    explicit Fuzzer(unsigned seed) : m_Random(seed) {}

    std::string Next() {
        if (Pick(10) == 0) return Noise(Pick(100));
        const size_t size = Pick(700);
        std::string bytes =
            (Header{static_cast<uint32_t>(size), "KOVA", kVersion, 7, 8, 9}).Bytes() + Noise(size);
        for (size_t count = Pick(4); count != 0; --count) Mutate(bytes);
        return bytes;
    }

  private:
    size_t Pick(size_t count) { return std::uniform_int_distribution<size_t>(0, count - 1)(m_Random); }
    std::string Noise(size_t size) {
        std::string bytes(size, '\0');
        for (char& byte : bytes) byte = static_cast<char>(m_Random());
        return bytes;
    }
    void Mutate(std::string& bytes) {
        constexpr uint32_t kSizes[] = {0,          1,          8167,       8168,       8169,
                                       0x7FFFFFE7, 0x7FFFFFE8, 0x80000000, 0xFFFFFFE8, 0xFFFFFFFF};
        switch (Pick(5)) {
            case 0:
                bytes.resize(Pick(bytes.size() + 1));
                break;
            case 1:
                bytes += Noise(Pick(100));
                break;
            case 2:
                if (bytes.size() >= 4) bytes.replace(0, 4, BigEndian(kSizes[Pick(std::size(kSizes))]));
                break;
            case 3:
                if (!bytes.empty()) bytes[Pick(std::min(bytes.size(), kHeaderSize))] = Noise(1)[0];
                break;
            default:
                if (!bytes.empty()) bytes[Pick(bytes.size())] = Noise(1)[0];
                break;
        }
    }

    std::mt19937 m_Random;
};

uint32_t WordAt(const std::string& bytes, size_t offset) {
    uint32_t value = 0;
    for (size_t i = 0; i < 4; ++i) value = value << 8 | static_cast<unsigned char>(bytes[offset + i]);
    return value;
}

/// The code for a header that is there in full.
int JudgeHeader(const std::string& bytes) {
    if (bytes.compare(4, 4, "KOVA") != 0) return Base::KOVA_ERR_BAD_HEADER;
    if (WordAt(bytes, 8) >> 16 != 2) return Base::KOVA_ERR_BAD_VERSION;
    return Base::KOVA_ERR_NONE;
}

bool HoldsWhole(const std::string& bytes) { return WordAt(bytes, 0) <= bytes.size() - kHeaderSize; }

void ExpectHolds(KovaFlatMsg& message, const std::string& bytes) {
    EXPECT_EQ(bytes.substr(0, kHeaderSize), HeaderBytes(message));
    EXPECT_EQ(bytes.substr(kHeaderSize, WordAt(bytes, 0)), BodyBytes(message));
}

TEST_F(HostileFlatMsg, RandomRawBytesAreJudgedRight) {
    constexpr int kRounds = 3000;
    constexpr unsigned kSeed = 11;
    Fuzzer fuzzer(kSeed);
    for (int round = 0; round < kRounds && !HasFailure(); ++round) {
        SCOPED_TRACE(testing::Message() << "seed " << kSeed << " round " << round);
        const std::string bytes = fuzzer.Next();
        // An allocation of exactly this size, so that a sanitizer sees a byte read beyond it.
        const std::vector<char> raw(bytes.begin(), bytes.end());
        KovaFlatMsg message(raw.data(), static_cast<int32_t>(raw.size()));
        int expected = Base::KOVA_ERR_INVALID_PARAMETER;
        if (bytes.size() >= kHeaderSize) expected = JudgeHeader(bytes);
        if (expected == Base::KOVA_ERR_NONE && !HoldsWhole(bytes)) expected = Base::KOVA_ERR_OVERRUN;
        EXPECT_EQ(expected, message.GetError());
        if (expected == Base::KOVA_ERR_NONE) {
            ExpectHolds(message, bytes);
        } else {
            EXPECT_EQ(0u, message.GetSize());
            EXPECT_EQ(0, message.GetType());
        }
    }
}

TEST_F(HostileFlatMsg, RandomBytesOverTcpAreJudgedRight) {
    constexpr int kRounds = 400;
    constexpr unsigned kSeed = 12;
    constexpr size_t kMemory = 1 << 20;
    const fake::Replace allocate(fake::new_array_nothrow, [](size_t bytes, const std::nothrow_t& tag) {
        if (bytes <= kMemory) return fake::new_array_nothrow.Real(bytes, tag);
        errno = ENOMEM;
        return static_cast<void*>(nullptr);
    });
    Fuzzer fuzzer(kSeed);
    KovaFlatMsg message;
    for (int round = 0; round < kRounds && !HasFailure(); ++round) {
        SCOPED_TRACE(testing::Message() << "seed " << kSeed << " round " << round);
        const std::string bytes = fuzzer.Next();
        TcpEnds ends(SocketPair());
        ends.Write(bytes);
        ends.EndWriting();
        message.Recv(ends.socket);
        int expected = ECONNRESET;
        if (bytes.size() >= kHeaderSize) {
            expected = JudgeHeader(bytes);
            if (expected == Base::KOVA_ERR_NONE && !HoldsWhole(bytes)) {
                expected = WordAt(bytes, 0) > kMemory ? int{Base::KOVA_ERR_NO_BUFFER} : ECONNRESET;
            }
        }
        EXPECT_EQ(expected, message.GetError());
        EXPECT_EQ(expected == Base::KOVA_ERR_NONE, message.IsComplete());
        if (expected == Base::KOVA_ERR_NONE) {
            ExpectHolds(message, bytes);
        } else {
            EXPECT_EQ(0, message.GetType());
        }
        const bool is_rejected =
            expected == Base::KOVA_ERR_BAD_HEADER || expected == Base::KOVA_ERR_BAD_VERSION;
        EXPECT_NE(is_rejected, ends.HasNothingToRead());
    }
    ExpectUsable(message);
}

TEST_F(HostileFlatMsg, RandomDatagramsAreJudgedRight) {
    constexpr int kRounds = 400;
    constexpr unsigned kSeed = 13;
    constexpr uint32_t kLargestDatagramBody = 8168;
    Fuzzer fuzzer(kSeed);
    UdpEnds ends(1);
    KovaFlatMsg message;
    for (int round = 0; round < kRounds && !HasFailure(); ++round) {
        SCOPED_TRACE(testing::Message() << "seed " << kSeed << " round " << round);
        const std::string bytes = fuzzer.Next();
        ends.Write(bytes);
        message.Recv(ends.socket);
        int expected = Base::KOVA_ERR_SIZE_MISMATCH;
        bool is_rejected = false;
        if (bytes.size() >= kHeaderSize) {
            expected = JudgeHeader(bytes);
            is_rejected = expected == Base::KOVA_ERR_NONE && WordAt(bytes, 0) > kLargestDatagramBody;
            if (is_rejected) {
                expected = Base::KOVA_ERR_BAD_HEADER;
            } else if (expected == Base::KOVA_ERR_NONE && !HoldsWhole(bytes)) {
                expected = Base::KOVA_ERR_SIZE_MISMATCH;
            }
        }
        EXPECT_EQ(expected, message.GetError());
        if (expected == Base::KOVA_ERR_NONE) {
            ExpectHolds(message, bytes);
        } else {
            EXPECT_EQ(0, message.GetType());
        }
        EXPECT_TRUE(ends.IsEmpty()) << "no datagram blocks the socket";
        EXPECT_NE(is_rejected, ends.HasNothingToRead());
    }
    ExpectUsable(message);
}

}  // namespace
