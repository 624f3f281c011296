#include "support/fake_libc.h"
#include "support/leak_check.h"
#include "support/trace_recorder.h"

#include <kova/socket_wrapper.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <functional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

using Texts = std::vector<std::string>;

/// A wrapper that makes itself a datagram socket when it is asked to open, and shows what it remembers.
class DatagramSocket : public KovaSocketWrapper {
  public:
    ~DatagramSocket() override { CloseDescriptor(0); }

    bool Open() override {
        ++opened;
        Adopt(Socket(AF_INET6, SOCK_DGRAM, 0));
        return true;
    }
    void Adopt(int fd) {
        m_Socket = fd;
        m_Mode = KOVA_SOCKET_OPENED;
    }
    void Fail(int code) { _SetError_("", 1, code); }

    using KovaSocketWrapper::m_Blocking;
    using KovaSocketWrapper::m_Broadcast;
    using KovaSocketWrapper::m_Received;
    using KovaSocketWrapper::m_Routing;
    using KovaSocketWrapper::m_Stop;
    using KovaSocketWrapper::m_Timeout;

    std::string Device() const { return std::string(m_Device, ::strnlen(m_Device, sizeof m_Device)); }

    int opened = 0;
};

class SocketWrapper : public KovaTest {
  protected:
    void ExpectFailure(int code, const char* function) const {
        EXPECT_EQ(socket.GetError(), code);
        EXPECT_STREQ(socket.GetErrorFunction(), function);
        EXPECT_NE(socket.GetErrorLine(), 0);
    }

    /// The object becomes one end of a connection, the test keeps the other.
    Fd Pair() {
        auto [own, peer] = SocketPair();
        socket.Adopt(own.Release());
        return std::move(peer);
    }

    DatagramSocket socket;
    TraceRecorder trace;
};

// Construction, destruction, accessors

TEST_F(SocketWrapper, StartsClosedWithItsDefaultOptions) {
    EXPECT_EQ(socket.GetSocket(), -1);
    EXPECT_EQ(socket.GetMode(), 0u);
    EXPECT_EQ(socket.Received(), 0u);
    EXPECT_EQ(socket.m_Timeout, 3000);
    EXPECT_EQ(socket.m_Stop, 0);
    EXPECT_TRUE(socket.m_Routing);
    EXPECT_FALSE(socket.m_Broadcast);
    EXPECT_FALSE(socket.m_Blocking);
    EXPECT_EQ(socket.Device(), "");
    EXPECT_EQ(socket.GetError(), 0);
    EXPECT_EQ(socket.GetErrorFunction(), nullptr);
}

TEST_F(SocketWrapper, BaseDoesNotOpen) {
    KovaSocketWrapper base;
    const fake::Journal calls;
    EXPECT_FALSE(base.Open());
    EXPECT_EQ(base.GetMode(), 0u);
    EXPECT_EQ(calls.Texts(), Texts{});
}

TEST_F(SocketWrapper, DestructorOfTheBaseLeavesTheDescriptorOpen) {
    struct Adopting : KovaSocketWrapper {
        explicit Adopting(int fd) { m_Socket = fd; }
    };
    const int fd = ::dup(STDOUT_FILENO);
    { const Adopting base(fd); }
    EXPECT_EQ(::close(fd), 0);
}

TEST_F(SocketWrapper, CannotBeCopied) {
    static_assert(!std::is_copy_constructible_v<KovaSocketWrapper>);
    static_assert(!std::is_copy_assignable_v<KovaSocketWrapper>);
}

TEST_F(SocketWrapper, ModesHaveTheirNumbers) {
    static_assert(KOVA_SOCKET_CLOSED == 0 && KOVA_SOCKET_OPENED == 1 && KOVA_SOCKET_CONNECTED == 3 &&
                  KOVA_SOCKET_SERVING == 4 && KOVA_SOCKET_ICMP == 5 && KOVA_SOCKET_RAW == 6);
    KovaSocketWrapper base;
    for (const auto mode : {KOVA_SOCKET_SERVING, KOVA_SOCKET_CONNECTED, KOVA_SOCKET_OPENED}) {
        base.SetMode(mode);
        EXPECT_EQ(base.GetMode(), mode);
    }
}

TEST_F(SocketWrapper, SocketErrorIsTheThreadsErrnoAndNotTheRecord) {
    socket.Fail(EPIPE);
    errno = EDOM;
    EXPECT_EQ(socket.GetSocketError(), EDOM);
}

TEST_F(SocketWrapper, AllBasesShareOneRecord) {
    socket.Fail(EPIPE);
    const KovaBaseObject& base = socket;
    const KovaSocketWrapper& wrapper = socket;
    EXPECT_EQ(base.GetError(), EPIPE);
    EXPECT_EQ(wrapper.GetError(), EPIPE);
}

// Socket, Accept, Close, RemoveSocket

TEST_F(SocketWrapper, SocketIsClosedOnExec) {
    const fake::Journal calls;
    const int fd = socket.Socket(AF_INET6, SOCK_STREAM, IPPROTO_TCP);
    EXPECT_EQ(calls.Texts(), (Texts{"socket AF_INET6 SOCK_STREAM 6", "fcntl F_SETFD 1"}));
    EXPECT_EQ(::fcntl(fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    EXPECT_EQ(socket.GetSocket(), -1) << "the descriptor stays the caller's";
    EXPECT_EQ(socket.GetError(), 0);
    EXPECT_EQ(::close(fd), 0);
}

TEST_F(SocketWrapper, FailedSocketIsMarkedCloseOnExecAllTheSame) {
    const fake::Journal calls;
    const fake::Script fails(fake::socket, {fake::Fail(EMFILE)});
    errno = 0;
    EXPECT_EQ(socket.Socket(AF_INET6, SOCK_DGRAM, 0), -1);
    EXPECT_EQ(errno, EMFILE) << "not the EBADF of fcntl";

    ExpectFailure(EMFILE, "KovaSocketT KovaSocketWrapper::Socket(int, int, int)");
    EXPECT_TRUE(trace.Has("socket errno=%d", {EMFILE}));
    EXPECT_EQ(calls.Texts(), (Texts{"socket AF_INET6 SOCK_DGRAM 0", "fcntl F_SETFD 1"}));
    EXPECT_EQ(calls.Entries(fake::fcntl).at(0).fd, -1);
}

TEST_F(SocketWrapper, AcceptReturnsTheConnectionAndItsPeer) {
    const Fd listener(::socket(AF_INET6, SOCK_STREAM, 0));
    sockaddr_in6 local{};
    local.sin6_family = AF_INET6;
    local.sin6_addr = in6addr_loopback;
    SocklenT length = sizeof local;
    auto* const address = reinterpret_cast<sockaddr*>(&local);
    ASSERT_EQ(::bind(listener, address, length), 0);
    ASSERT_EQ(::listen(listener, 1), 0);
    ASSERT_EQ(::getsockname(listener, address, &length), 0);
    const Fd client(::socket(AF_INET6, SOCK_STREAM, 0));
    ASSERT_EQ(::connect(client, address, length), 0);

    sockaddr_in6 peer{};
    length = sizeof peer;
    const Fd accepted(socket.Accept(listener, reinterpret_cast<sockaddr*>(&peer), &length));
    EXPECT_GE(accepted, 0);
    EXPECT_EQ(length, sizeof peer);
    EXPECT_TRUE(IN6_IS_ADDR_LOOPBACK(&peer.sin6_addr));
    EXPECT_EQ(socket.GetError(), 0);
}

TEST_F(SocketWrapper, FailedAcceptIsRecorded) {
    EXPECT_EQ(socket.Accept(-1, nullptr, nullptr), -1);
    ExpectFailure(EBADF, "KovaSocketT KovaSocketWrapper::Accept(int, sockaddr*, SocklenT*)");
    EXPECT_TRUE(trace.Has("accept errno=%d", {EBADF}));
}

TEST_F(SocketWrapper, CloseClosesAndDoesNothingElse) {
    const fake::Journal calls;
    const int fd = ::dup(STDOUT_FILENO);
    EXPECT_EQ(socket.Close(fd), 0);
    errno = 0;
    EXPECT_EQ(socket.Close(fd), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(calls.Texts(), (Texts{"close", "close"}));
    EXPECT_EQ(socket.GetError(), 0);
    EXPECT_TRUE(trace.All().empty());
}

TEST_F(SocketWrapper, RemoveSocketHandsOverTheDescriptor) {
    socket.Open();
    const int fd = socket.GetSocket();
    socket.m_Received = 7;
    socket.Fail(EPIPE);

    EXPECT_EQ(socket.RemoveSocket(), fd);
    EXPECT_EQ(socket.GetSocket(), -1);
    EXPECT_EQ(socket.GetMode(), 0u);
    EXPECT_EQ(socket.Received(), 0u);
    EXPECT_EQ(socket.GetError(), 0);
    EXPECT_TRUE(trace.Has("socket removed fd=%d", {fd}));
    EXPECT_EQ(::close(fd), 0);
}

TEST_F(SocketWrapper, RemoveSocketOfAClosedObjectIsMinusOne) {
    EXPECT_EQ(socket.RemoveSocket(), -1);
    EXPECT_TRUE(trace.Has("socket removed fd=%d", {-1}));
}

// Descriptor sets

/// A set between two words that nobody may touch.
struct GuardedSet {
    uint32_t before = 0xC0FFEE01;
    FdSetT set{};
    uint32_t after = 0xC0FFEE02;

    bool IsIntact() const { return before == 0xC0FFEE01 && after == 0xC0FFEE02; }
    bool IsEmpty() const {
        return std::all_of(std::begin(set.words), std::end(set.words),
                           [](uint32_t word) { return word == 0; });
    }
};

TEST_F(SocketWrapper, DescriptorIsABitOfTheSet) {
    struct Row {
        int fd;
        size_t word;
        uint32_t bits;
    };
    for (const Row& row : {Row{0, 0, 1}, Row{31, 0, 0x80000000}, Row{32, 1, 1}, Row{37, 1, 0x20},
                           Row{1000, 31, 0x100}, Row{1023, 31, 0x80000000}}) {
        SCOPED_TRACE(row.fd);
        GuardedSet guarded;
        socket.FdSet(row.fd, &guarded.set);
        EXPECT_EQ(guarded.set.words[row.word], row.bits);
        EXPECT_TRUE(socket.FdIsSet(row.fd, &guarded.set));
        guarded.set.words[row.word] = 0;
        EXPECT_TRUE(guarded.IsEmpty()) << "no other bit was set";
        EXPECT_FALSE(socket.FdIsSet(row.fd, &guarded.set));
        EXPECT_TRUE(guarded.IsIntact());
    }
}

TEST_F(SocketWrapper, SetKeepsWhatItHolds) {
    FdSetT set{};
    socket.FdSet(3, &set);
    socket.FdSet(5, &set);
    socket.FdSet(5, &set);
    EXPECT_EQ(set.words[0], 0x28u);
    EXPECT_FALSE(socket.FdIsSet(4, &set));
}

TEST_F(SocketWrapper, DescriptorThatASetCannotHoldIsIgnored) {
    for (const int fd : {-1, -32, -33, INT_MIN, 1024, 1055, 1056, 4096, INT_MAX}) {
        SCOPED_TRACE(fd);
        GuardedSet guarded;
        socket.FdSet(fd, &guarded.set);
        EXPECT_TRUE(guarded.IsEmpty());
        EXPECT_TRUE(guarded.IsIntact());
        std::memset(&guarded.set, 0xFF, sizeof guarded.set);
        EXPECT_FALSE(socket.FdIsSet(fd, &guarded.set));
    }
}

TEST_F(SocketWrapper, FdZeroClearsAllWords) {
    GuardedSet guarded;
    std::memset(&guarded.set, 0xFF, sizeof guarded.set);
    socket.FdZero(&guarded.set);
    EXPECT_TRUE(guarded.IsEmpty());
    EXPECT_TRUE(guarded.IsIntact());
}

// Select

constexpr const char* kSelect = "int32_t KovaSocketWrapper::Select(int, FdSetT*, FdSetT*, FdSetT*, int32_t)";

TEST_F(SocketWrapper, SelectThatPollsAnIdleDescriptorTimesOut) {
    const Fd peer = Pair();
    FdSetT read{};
    socket.FdSet(socket.GetSocket(), &read);
    EXPECT_EQ(socket.Select(socket.GetSocket() + 1, &read, nullptr, nullptr, 0), 0);
    ExpectFailure(ETIMEDOUT, kSelect);
    EXPECT_TRUE(trace.All().empty()) << "a time-out is not traced";
    EXPECT_FALSE(socket.FdIsSet(socket.GetSocket(), &read));
}

TEST_F(SocketWrapper, SelectTellsWhichSetsAreReady) {
    const Fd peer = Pair();
    ASSERT_EQ(::write(peer, "x", 1), 1);
    FdSetT read{}, write{}, except{};
    const int fd = socket.GetSocket();
    for (FdSetT* set : {&read, &write, &except}) socket.FdSet(fd, set);
    EXPECT_EQ(socket.Select(fd + 1, &read, &write, &except, 1000), 2);
    EXPECT_TRUE(socket.FdIsSet(fd, &read));
    EXPECT_TRUE(socket.FdIsSet(fd, &write));
    EXPECT_FALSE(socket.FdIsSet(fd, &except));
    EXPECT_EQ(socket.GetError(), 0);
}

TEST_F(SocketWrapper, SelectAlwaysPassesATimeLimit) {
    struct Row {
        int32_t ms;
        const char* limit;
    };
    for (const Row& row :
         {Row{0, "{0, 0}"}, Row{1, "{0, 1000}"}, Row{999, "{0, 999000}"}, Row{1000, "{1, 0}"},
          Row{2500, "{2, 500000}"}, Row{INT32_MAX, "{2147483, 647000}"}}) {
        const fake::Journal calls({&fake::select});
        const fake::Script ready(fake::select, {fake::Return(1)});
        EXPECT_EQ(socket.Select(0, nullptr, nullptr, nullptr, row.ms), 1);
        EXPECT_EQ(calls.Texts(), Texts{std::string("select 0 null null null ") + row.limit});
    }
}

TEST_F(SocketWrapper, SelectWithANegativeTimeIsRefusedByTheKernel) {
    EXPECT_EQ(socket.Select(0, nullptr, nullptr, nullptr, -1), -1);
    ExpectFailure(EINVAL, kSelect);
    EXPECT_TRUE(trace.Has("select n=%d code=%d", {0, EINVAL}));
}

TEST_F(SocketWrapper, FailedSelectIsRecordedAndTracedWithItsRange) {
    for (const int error : {EINTR, EBADF, ENOMEM}) {
        trace.Clear();
        const fake::Script fails(fake::select, {fake::Fail(error)});
        EXPECT_EQ(socket.Select(9, nullptr, nullptr, nullptr, 10), -1);
        ExpectFailure(error, kSelect);
        EXPECT_TRUE(trace.Has("select n=%d code=%d", {9, error}));
        EXPECT_EQ(trace.All().size(), 1u);
    }
}

TEST_F(SocketWrapper, SelectBeyondTheSetIsRefusedWithoutACall) {
    for (const int n : {1025, 4096, INT_MAX}) {
        const fake::Journal calls;
        FdSetT read{};
        EXPECT_EQ(socket.Select(n, &read, nullptr, nullptr, 0), -1);
        ExpectFailure(EINVAL, kSelect);
        EXPECT_TRUE(trace.Has("select n=%d code=%d", {n, EINVAL}));
        EXPECT_EQ(calls.Texts(), Texts{});
    }
}

TEST_F(SocketWrapper, SelectTakesTheWholeSet) {
    FdSetT read{};
    EXPECT_EQ(socket.Select(1024, &read, nullptr, nullptr, 0), 0);
    ExpectFailure(ETIMEDOUT, kSelect);
}

// Ioctl

constexpr const char* kIoctl = "bool KovaSocketWrapper::Ioctl(long unsigned int, const void*)";

TEST_F(SocketWrapper, IoctlOpensAClosedObjectFirst) {
    const int on = 1;
    EXPECT_TRUE(socket.Ioctl(FIONBIO, &on));
    EXPECT_TRUE(socket.Ioctl(FIONBIO, &on));
    EXPECT_EQ(socket.opened, 1);
    EXPECT_EQ(::fcntl(socket.GetSocket(), F_GETFL) & O_NONBLOCK, O_NONBLOCK);
}

TEST_F(SocketWrapper, IoctlWithoutSocketIsENOTSOCK) {
    struct NeverOpen : KovaSocketWrapper {
    } base;
    const fake::Journal calls;
    const int on = 1;
    EXPECT_FALSE(base.Ioctl(FIONBIO, &on));
    EXPECT_EQ(base.GetError(), ENOTSOCK);
    EXPECT_STREQ(base.GetErrorFunction(), kIoctl);
    EXPECT_TRUE(trace.Has("ioctl without socket, request=%x", {int64_t{FIONBIO}}));
    EXPECT_EQ(calls.Texts(), Texts{});
}

TEST_F(SocketWrapper, FailedIoctlIsRecorded) {
    socket.Open();
    const fake::Script fails(fake::ioctl, {fake::Fail(ENODEV)});
    EXPECT_FALSE(socket.Ioctl(FIONREAD, nullptr));
    ExpectFailure(ENODEV, kIoctl);
    EXPECT_TRUE(trace.Has("ioctl request=%x errno=%d", {int64_t{FIONREAD}, ENODEV}));
}

TEST_F(SocketWrapper, IoctlWithAPositiveResultSucceeds) {
    socket.Open();
    const fake::Script answers(fake::ioctl, {fake::Return(5)});
    EXPECT_TRUE(socket.Ioctl(FIONREAD, nullptr));
    EXPECT_EQ(socket.GetError(), 0);
}

// Options

TEST_F(SocketWrapper, OptionsOfAClosedObjectAreOnlyStored) {
    const fake::Journal calls;
    EXPECT_FALSE(socket.SetTimeout(2500)) << "not applied yet";
    EXPECT_TRUE(socket.SetBlocking(true));
    EXPECT_TRUE(socket.SetRouting(false));
    EXPECT_TRUE(socket.SetBroadcast(true));
    EXPECT_TRUE(socket.BindToDevice("lo"));
    EXPECT_EQ(calls.Texts(), Texts{});
    EXPECT_EQ(socket.GetError(), 0);
    EXPECT_EQ(socket.opened, 0);

    EXPECT_EQ(socket.m_Timeout, 2500);
    EXPECT_TRUE(socket.m_Blocking);
    EXPECT_FALSE(socket.m_Routing);
    EXPECT_TRUE(socket.m_Broadcast);
    EXPECT_EQ(socket.Device(), "lo");
}

/// One option call on an open object, and all that is known of it.
struct Option {
    const char* name;
    std::function<bool(KovaSocketWrapper&)> set;
    const char* call;  ///< as the kernel gets it
    const char* function;
    const char* trace;
    std::vector<uint32_t> values;  ///< traced when the call fails, EDOM as error
};

void PrintTo(const Option& option, std::ostream* stream) { *stream << option.name; }

/// On an open object every option is given to the kernel; failures are those of the option's own function.
class SocketWrapperOption : public SocketWrapper, public testing::WithParamInterface<Option> {};

TEST_P(SocketWrapperOption, IsGivenToTheKernel) {
    socket.Open();
    const fake::Journal calls;
    EXPECT_TRUE(GetParam().set(socket));
    EXPECT_EQ(calls.Texts(), Texts{GetParam().call});
    EXPECT_EQ(socket.GetError(), 0);
}

TEST_P(SocketWrapperOption, FailureIsRecorded) {
    socket.Open();
    const fake::Always sockets(fake::setsockopt, fake::Fail(EDOM));
    const fake::Always controls(fake::ioctl, fake::Fail(EDOM));
    EXPECT_FALSE(GetParam().set(socket));
    ExpectFailure(EDOM, GetParam().function);
    EXPECT_TRUE(trace.Has(GetParam().trace, GetParam().values));
    EXPECT_EQ(trace.All().size(), 1u);
}

constexpr const char* kRouting = "virtual bool KovaSocketWrapper::SetRouting(bool)";
constexpr const char* kBroadcast = "virtual bool KovaSocketWrapper::SetBroadcast(bool)";
constexpr const char* kRecvTimeout = "bool KovaSocketWrapper::SetRecvTimeout(int)";
constexpr const char* kSendTimeout = "bool KovaSocketWrapper::SetSendTimeout(int)";
constexpr const char* kRecvBuffer = "bool KovaSocketWrapper::SetRecvbufferSize(size_t)";
constexpr const char* kSendBuffer = "bool KovaSocketWrapper::SetSendbufferSize(size_t)";
constexpr const char* kBind = "bool KovaSocketWrapper::BindToDevice(const char*)";

INSTANTIATE_TEST_SUITE_P(All, SocketWrapperOption,
                         testing::Values(Option{"Routing",
                                                [](auto& s) { return s.SetRouting(true); },
                                                "setsockopt SOL_SOCKET SO_DONTROUTE 0",
                                                kRouting,
                                                "routing=%d errno=%d",
                                                {1, EDOM}},
                                         Option{"NoRouting",
                                                [](auto& s) { return s.SetRouting(false); },
                                                "setsockopt SOL_SOCKET SO_DONTROUTE 1",
                                                kRouting,
                                                "routing=%d errno=%d",
                                                {0, EDOM}},
                                         Option{"Broadcast",
                                                [](auto& s) { return s.SetBroadcast(true); },
                                                "setsockopt SOL_SOCKET SO_BROADCAST 1",
                                                kBroadcast,
                                                "broadcast=%d errno=%d",
                                                {1, EDOM}},
                                         Option{"NoBroadcast",
                                                [](auto& s) { return s.SetBroadcast(false); },
                                                "setsockopt SOL_SOCKET SO_BROADCAST 0",
                                                kBroadcast,
                                                "broadcast=%d errno=%d",
                                                {0, EDOM}},
                                         Option{"Blocking",
                                                [](auto& s) { return s.SetBlocking(true); },
                                                "ioctl FIONBIO 0",
                                                kIoctl,
                                                "ioctl request=%x errno=%d",
                                                {FIONBIO, EDOM}},
                                         Option{"NonBlocking",
                                                [](auto& s) { return s.SetBlocking(false); },
                                                "ioctl FIONBIO 1",
                                                kIoctl,
                                                "ioctl request=%x errno=%d",
                                                {FIONBIO, EDOM}},
                                         Option{"RecvTimeout",
                                                [](auto& s) { return s.SetRecvTimeout(2500); },
                                                "setsockopt SOL_SOCKET SO_RCVTIMEO {2, 500000}",
                                                kRecvTimeout,
                                                "receive time-out ms=%d errno=%d",
                                                {2500, EDOM}},
                                         Option{"SendTimeout",
                                                [](auto& s) { return s.SetSendTimeout(1); },
                                                "setsockopt SOL_SOCKET SO_SNDTIMEO {0, 1000}",
                                                kSendTimeout,
                                                "send time-out ms=%d errno=%d",
                                                {1, EDOM}},
                                         Option{"RecvBuffer",
                                                [](auto& s) { return s.SetRecvbufferSize(4096); },
                                                "setsockopt SOL_SOCKET SO_RCVBUF 4096",
                                                kRecvBuffer,
                                                "receive buffer bytes=%d errno=%d",
                                                {4096, EDOM}},
                                         Option{"SendBuffer",
                                                [](auto& s) { return s.SetSendbufferSize(8192); },
                                                "setsockopt SOL_SOCKET SO_SNDBUF 8192",
                                                kSendBuffer,
                                                "send buffer bytes=%d errno=%d",
                                                {8192, EDOM}},
                                         Option{"HugeRecvBuffer",
                                                [](auto& s) { return s.SetRecvbufferSize(SIZE_MAX); },
                                                "setsockopt SOL_SOCKET SO_RCVBUF 2147483647",
                                                kRecvBuffer,
                                                "receive buffer bytes=%d errno=%d",
                                                {INT_MAX, EDOM}},
                                         Option{"HugeSendBuffer",
                                                [](auto& s) { return s.SetSendbufferSize(SIZE_MAX); },
                                                "setsockopt SOL_SOCKET SO_SNDBUF 2147483647",
                                                kSendBuffer,
                                                "send buffer bytes=%d errno=%d",
                                                {INT_MAX, EDOM}}),
                         [](const auto& option) { return std::string(option.param.name); });

TEST_F(SocketWrapper, TimeoutIsAppliedToSendingThenToReceiving) {
    socket.Open();
    const fake::Journal calls;
    EXPECT_TRUE(socket.SetTimeout(2500));
    EXPECT_EQ(calls.Texts(), (Texts{"setsockopt SOL_SOCKET SO_SNDTIMEO {2, 500000}",
                                    "setsockopt SOL_SOCKET SO_RCVTIMEO {2, 500000}"}));
    EXPECT_EQ(socket.m_Timeout, 2500);
}

TEST_F(SocketWrapper, TimeoutCountsAsSetWhenOnlySendingRefusesIt) {
    socket.Open();
    const fake::Script sends(fake::setsockopt, {fake::Fail(EDOM), fake::Real()});
    EXPECT_TRUE(socket.SetTimeout(100));
    ExpectFailure(EDOM, kSendTimeout);
}

TEST_F(SocketWrapper, TimeoutThatReceivingRefusesFails) {
    socket.Open();
    const fake::Script receives(fake::setsockopt, {fake::Real(), fake::Fail(EDOM)});
    EXPECT_FALSE(socket.SetTimeout(100));
    ExpectFailure(EDOM, kRecvTimeout);
    EXPECT_EQ(socket.m_Timeout, 100) << "stored first, for the next open";
}

TEST_F(SocketWrapper, SingleTimeoutsAndBufferSizesDoNotAskForTheMode) {
    EXPECT_FALSE(socket.SetRecvTimeout(5));
    ExpectFailure(EBADF, kRecvTimeout);
    EXPECT_FALSE(socket.SetSendTimeout(5));
    ExpectFailure(EBADF, kSendTimeout);
    EXPECT_FALSE(socket.SetRecvbufferSize(5));
    ExpectFailure(EBADF, kRecvBuffer);
    EXPECT_FALSE(socket.SetSendbufferSize(5));
    ExpectFailure(EBADF, kSendBuffer);
    EXPECT_EQ(socket.m_Timeout, 3000) << "not remembered";
}

TEST_F(SocketWrapper, NegativeTimeoutIsPassedOnWithTheSignOfBothParts) {
    socket.Open();
    const fake::Journal calls({&fake::setsockopt});
    const fake::Script answers(fake::setsockopt, {fake::Return(0)});
    EXPECT_TRUE(socket.SetRecvTimeout(-2500));
    EXPECT_EQ(calls.Texts(), Texts{"setsockopt SOL_SOCKET SO_RCVTIMEO {-2, -500000}"});
}

// BindToDevice

TEST_F(SocketWrapper, BindingToNoDeviceDoesNothing) {
    const fake::Journal calls;
    EXPECT_TRUE(socket.BindToDevice(nullptr));
    EXPECT_EQ(socket.Device(), "");
    EXPECT_EQ(socket.GetError(), 0);
    EXPECT_EQ(calls.Texts(), Texts{});

    socket.Open();
    EXPECT_TRUE(socket.BindToDevice(nullptr));
    EXPECT_TRUE(socket.BindToDevice(""));
    EXPECT_EQ(calls.Count(fake::setsockopt), 0u);
}

TEST_F(SocketWrapper, DeviceIsBoundWithItsTerminator) {
    socket.Open();
    const fake::Journal calls;
    EXPECT_TRUE(socket.BindToDevice("lo"));
    EXPECT_EQ(calls.Texts(), Texts{"setsockopt SOL_SOCKET SO_BINDTODEVICE \"lo\" 3"});
}

TEST_F(SocketWrapper, NullNameBindsToTheDeviceStoredBefore) {
    socket.BindToDevice("a_longer_name");
    socket.BindToDevice("lo");
    socket.Open();
    const fake::Journal calls;
    EXPECT_TRUE(socket.BindToDevice(nullptr));
    EXPECT_EQ(calls.Texts(), Texts{"setsockopt SOL_SOCKET SO_BINDTODEVICE \"lo\" 3"});
}

TEST_F(SocketWrapper, DeviceThatDoesNotExistIsRecorded) {
    socket.Open();
    const fake::Journal calls;
    EXPECT_FALSE(socket.BindToDevice("fifteen_letters"));
    EXPECT_EQ(calls.Texts(), Texts{"setsockopt SOL_SOCKET SO_BINDTODEVICE \"fifteen_letters\" 16"});
    ExpectFailure(ENODEV, kBind);
    EXPECT_TRUE(trace.Has("bind to device fd=%d errno=%d", {socket.GetSocket(), ENODEV}));
}

TEST_F(SocketWrapper, DeviceNameIsKeptAsItsFirst16CharactersAndThenRefused) {
    socket.Open();
    for (const char* name : {"sixteen_letters_", "sixteen_letters_and_many_more_to_the_end"}) {
        SCOPED_TRACE(name);
        trace.Clear();
        const fake::Journal calls;
        EXPECT_FALSE(socket.BindToDevice(name));
        EXPECT_EQ(socket.Device(), "sixteen_letters_");
        EXPECT_EQ(socket.opened, 1) << "what follows the name is not overwritten";
        ExpectFailure(EINVAL, kBind);
        EXPECT_TRUE(trace.Has("device name too long fd=%d", {socket.GetSocket()}));
        EXPECT_EQ(calls.Texts(), Texts{}) << "the kernel would bind to the interface of the first 15";
    }
}

// Send and SendTo

constexpr const char* kSend = "int KovaSocketWrapper::Send(const void*, size_t)";
constexpr const char* kSendTo = "int KovaSocketWrapper::SendTo(const void*, size_t, sockaddr*, int)";

/// What one code makes Send and SendTo do.
struct Retry {
    int error;
    size_t attempts;
    const char* pause;  ///< null: none
};

const Texts Pauses(const Retry& retry) {
    return retry.pause == nullptr ? Texts{}
                                  : Texts(retry.attempts - 1, std::string("nanosleep ") + retry.pause);
}

constexpr const char* k50Milliseconds = "{0, 50000000}";
constexpr const char* k500000Nanoseconds = "{0, 500000}";

TEST_F(SocketWrapper, SendIsTriedFourTimesWithThePauseOfItsError) {
    const fake::Always no_sleep(fake::nanosleep, fake::Return(0));
    for (const Retry& retry :
         {Retry{EINTR, 4, nullptr}, Retry{EAGAIN, 4, k50Milliseconds}, Retry{ENOBUFS, 4, k50Milliseconds},
          Retry{EPERM, 4, k500000Nanoseconds}, Retry{ENOMEM, 1, nullptr}, Retry{EPIPE, 1, nullptr},
          Retry{ECONNRESET, 1, nullptr}, Retry{EMSGSIZE, 1, nullptr}}) {
        SCOPED_TRACE(std::strerror(retry.error));
        trace.Clear();
        const fake::Journal calls;
        const fake::Always fails(fake::send, fake::Fail(retry.error));
        EXPECT_EQ(socket.Send("abc", 3), -1);
        EXPECT_EQ(calls.Count(fake::send), retry.attempts);
        EXPECT_EQ(calls.Texts(fake::nanosleep), Pauses(retry));
        ExpectFailure(retry.error, kSend);
        EXPECT_TRUE(trace.Has("send fd=%d size=%u errno=%d", {-1, 3, retry.error}));
        EXPECT_EQ(trace.Count("send fd=%d size=%u errno=%d"), retry.attempts) << "each attempt is traced";
    }
}

TEST_F(SocketWrapper, SendToIsTriedFourTimesForLackOfMemoryToo) {
    const fake::Always no_sleep(fake::nanosleep, fake::Return(0));
    sockaddr_in6 to{};
    for (const Retry& retry :
         {Retry{EINTR, 4, nullptr}, Retry{EAGAIN, 4, k50Milliseconds}, Retry{ENOBUFS, 4, k50Milliseconds},
          Retry{EPERM, 4, k500000Nanoseconds}, Retry{ENOMEM, 4, k50Milliseconds}, Retry{EPIPE, 1, nullptr},
          Retry{ENETUNREACH, 1, nullptr}, Retry{EMSGSIZE, 1, nullptr}}) {
        SCOPED_TRACE(std::strerror(retry.error));
        trace.Clear();
        const fake::Journal calls;
        const fake::Always fails(fake::sendto, fake::Fail(retry.error));
        EXPECT_EQ(socket.SendTo("abc", 3, reinterpret_cast<sockaddr*>(&to), sizeof to), -1);
        EXPECT_EQ(calls.Count(fake::sendto), retry.attempts);
        EXPECT_EQ(calls.Texts(fake::nanosleep), Pauses(retry));
        ExpectFailure(retry.error, kSendTo);
        EXPECT_EQ(trace.Count("sendto fd=%d size=%u errno=%d"), retry.attempts);
        EXPECT_TRUE(trace.Has("sendto fd=%d size=%u errno=%d", {-1, 3, retry.error}));
    }
}

TEST_F(SocketWrapper, EveryFailedAttemptChoosesItsOwnPause) {
    const fake::Always no_sleep(fake::nanosleep, fake::Return(0));
    const fake::Journal calls({&fake::send, &fake::nanosleep});
    const fake::Script answers(fake::send,
                               {fake::Fail(EPERM), fake::Fail(EINTR), fake::Fail(ENOBUFS), fake::Return(2)});
    EXPECT_EQ(socket.Send("abc", 3), 2) << "a part is a success and not continued";
    EXPECT_EQ(calls.Texts(),
              (Texts{"send 3 MSG_NOSIGNAL", "nanosleep {0, 500000}", "send 3 MSG_NOSIGNAL",
                     "send 3 MSG_NOSIGNAL", "nanosleep {0, 50000000}", "send 3 MSG_NOSIGNAL"}));
    EXPECT_EQ(socket.GetError(), 0) << "success clears the record";
    EXPECT_STREQ(socket.GetErrorFunction(), kSend) << "the place of the last failure stays";
}

TEST_F(SocketWrapper, RetryEndsAtTheFirstErrorThatIsFinal) {
    const fake::Script answers(fake::send, {fake::Fail(EINTR), fake::Fail(ENOMEM)});
    EXPECT_EQ(socket.Send("abc", 3), -1);
    ExpectFailure(ENOMEM, kSend);
}

TEST_F(SocketWrapper, SendThatSendsNothingSucceeds) {
    socket.Fail(EAGAIN);
    const fake::Script answers(fake::send, {fake::Return(0)});
    EXPECT_EQ(socket.Send("abc", 3), 0);
    EXPECT_EQ(socket.GetError(), 0);
}

TEST_F(SocketWrapper, SendDelivers) {
    const Fd peer = Pair();
    EXPECT_EQ(socket.Send("hello", 5), 5);
    std::array<char, 8> got{};
    EXPECT_EQ(::read(peer, got.data(), got.size()), 5);
    EXPECT_STREQ(got.data(), "hello");
}

TEST_F(SocketWrapper, SendToAClosedPeerIsEPIPEWithoutASignal) {
    Pair().Close();
    EXPECT_EQ(socket.Send("hello", 5), -1);
    ExpectFailure(EPIPE, kSend);
}

TEST_F(SocketWrapper, SendToReachesTheAddress) {
    DatagramSocket receiver;
    receiver.Open();
    sockaddr_in6 to{};
    to.sin6_family = AF_INET6;
    to.sin6_addr = in6addr_loopback;
    socklen_t length = sizeof to;
    auto* const address = reinterpret_cast<sockaddr*>(&to);
    ASSERT_EQ(::bind(receiver.GetSocket(), address, length), 0);
    ASSERT_EQ(::getsockname(receiver.GetSocket(), address, &length), 0);

    socket.Open();
    socket.Fail(EPIPE);
    const fake::Journal calls({&fake::sendto});
    EXPECT_EQ(socket.SendTo("hello", 5, address, sizeof to), 5);
    EXPECT_EQ(calls.Texts(), Texts{"sendto 5 MSG_NOSIGNAL [::1]:" + std::to_string(ntohs(to.sin6_port))});
    EXPECT_EQ(socket.GetError(), 0);
    std::array<char, 8> got{};
    EXPECT_EQ(::recv(receiver.GetSocket(), got.data(), got.size(), 0), 5);
    EXPECT_STREQ(got.data(), "hello");
}

}  // namespace
