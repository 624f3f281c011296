#include "support/fake_libc.h"
#include "support/icmp_peer.h"
#include "support/leak_check.h"
#include "support/process.h"
#include "support/recorded.h"
#include "support/second_host.h"
#include "support/signal_storm.h"
#include "support/trace_recorder.h"

#include <kova/config.h>
#include <kova/icmp_socket.h>

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstring>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

using icmp::Ip;
using Texts = std::vector<std::string>;

constexpr char kOpen[] = "virtual bool KovaIcmpSocket::Open()";
constexpr char kSetSocket[] = "bool KovaIcmpSocket::SetSocket(KovaSocketT)";
constexpr char kWaitForData[] = "bool KovaIcmpSocket::WaitForData(KovaWaitModeT)";
constexpr char kPeekFrom[] = "bool KovaIcmpSocket::PeekFrom(void*, size_t)";
constexpr char kRecvFrom[] = "bool KovaIcmpSocket::RecvFrom(void*, size_t)";
constexpr char kSendTo[] = "bool KovaIcmpSocket::SendTo(const void*, size_t, in_addr_t)";
constexpr char kSendAtIf[] = "bool KovaIcmpSocket::SendPingPacketAtIf(in_addr_t, int, short unsigned int)";
constexpr char kRecvPing[] = "bool KovaIcmpSocket::RecvPingPacket(in_addr_t, short unsigned int&)";
constexpr char kPing[] = "int32_t KovaIcmpSocket::Ping(in_addr_t, int32_t)";
constexpr char kPingText[] = "int32_t KovaIcmpSocket::Ping(char*, int)";
constexpr char kMultiPing[] = "int32_t KovaIcmpSocket::MultiPing(unsigned int*, unsigned int, int)";
constexpr char kSetRouting[] = "virtual bool KovaSocketWrapper::SetRouting(bool)";
constexpr char kSetBroadcast[] = "virtual bool KovaSocketWrapper::SetBroadcast(bool)";
constexpr char kIoctl[] = "bool KovaSocketWrapper::Ioctl(long unsigned int, const void*)";
constexpr char kBindToDevice[] = "bool KovaSocketWrapper::BindToDevice(const char*)";

constexpr char kNoAddress[] = "0.0.0.0";
constexpr char kLoopback[] = "127.0.0.1";
/// In the first of the networks in which pings count.
constexpr char kControlled[] = "10.253.24.17";
static_assert(KOVA_VOXA_PREFIX == 0x0AFD, "the addresses here are those of the default prefix");
constexpr char kElsewhere[] = "10.5.5.1";

constexpr int kShortTimeout = 20;
constexpr int kLongTimeout = 60000;

/// A socket whose error record a test can fill.
class Icmp : public KovaIcmpSocket {
  public:
    void Plant(int code) { _SetError_("planted", 1, code); }
    int Timeout() const { return m_Timeout; }
};

testing::AssertionResult HasNoError(const KovaBaseObject& object) {
    if (object.GetError() == 0) return testing::AssertionSuccess();
    return testing::AssertionFailure()
           << "recorded " << object.GetError() << " by " << object.GetErrorFunction();
}

std::string Text(const KovaInetAddr& address) { return address.GetAsciiIp(); }

testing::AssertionResult TookTime(const KovaTimeSpec& time, int32_t seconds, int32_t milliseconds) {
    if (time.seconds == seconds && time.milliseconds == milliseconds) return testing::AssertionSuccess();
    return testing::AssertionFailure() << time.seconds << " s " << time.milliseconds << " ms";
}

/// Counts milliseconds, rounded down. Not to be used while a clock is faked.
class Stopwatch {
  public:
    int64_t Ms() const {
        using std::chrono::steady_clock;
        return std::chrono::duration_cast<std::chrono::milliseconds>(steady_clock::now() - m_Begin).count();
    }

  private:
    const std::chrono::steady_clock::time_point m_Begin = std::chrono::steady_clock::now();
};

/// A clock that stands still unless it is told otherwise.
class Clock {
  public:
    Clock(int32_t seconds, int32_t milliseconds)
        : m_Seconds(seconds),
          m_Milliseconds(milliseconds),
          m_Hook(
              fake::clock_gettime,
              [this](clockid_t, timespec* now) {
                  // As 32 bits: one past the greatest number is the least.
                  now->tv_sec = static_cast<int32_t>(static_cast<uint32_t>(m_Seconds));
                  now->tv_nsec = m_Milliseconds * 1000000;
                  return 0;
              },
              fake::kThisThread) {
        m_Hook.When([](clockid_t clock, timespec*) { return clock == CLOCK_MONOTONIC; });
    }

    void Advance(int milliseconds) {
        m_Seconds += (m_Milliseconds + milliseconds) / 1000;
        m_Milliseconds = (m_Milliseconds + milliseconds) % 1000;
    }

  private:
    int64_t m_Seconds;
    int m_Milliseconds;
    fake::Always<int(clockid_t, timespec*)> m_Hook;
};

/// What arrives at a socket: these datagrams, one by one, and nothing else.
class Inbox {
  public:
    Inbox()
        : m_Select(fake::select, [this](int, fd_set* read, fd_set* write, fd_set* except,
                                        timeval*) { return Select(read, write, except); }),
          m_Receive(fake::recvfrom, [this](int, void* to, size_t size, int flags, sockaddr* from,
                                           socklen_t*) { return Receive(to, size, flags, from); }) {}

    void Put(const std::string& datagram) { m_Datagrams.emplace_back(datagram); }
    /// Lets the wait for the next datagram end without one.
    void PutPause() { m_Datagrams.emplace_back(std::nullopt); }
    /// What happens whenever a datagram is read.
    void OnRead(std::function<void()> happens) { m_OnRead = std::move(happens); }
    size_t Left() const { return m_Datagrams.size(); }

  private:
    int Select(fd_set* read, fd_set* write, fd_set* except) {
        FD_ZERO(write);
        FD_ZERO(except);
        if (!m_Datagrams.empty() && m_Datagrams.front()) return 1;
        if (!m_Datagrams.empty()) m_Datagrams.pop_front();
        FD_ZERO(read);
        return 0;
    }

    ssize_t Receive(void* to, size_t size, int flags, sockaddr* from) {
        const std::string datagram = *m_Datagrams.front();
        if ((flags & MSG_PEEK) == 0) m_Datagrams.pop_front();
        const size_t copied = std::min(size, datagram.size());
        std::memcpy(to, datagram.data(), copied);
        auto* const source = reinterpret_cast<sockaddr_in*>(from);
        source->sin_family = AF_INET;
        std::memcpy(&source->sin_addr, &datagram.at(12), sizeof source->sin_addr);
        if (m_OnRead) m_OnRead();
        return static_cast<ssize_t>((flags & MSG_TRUNC) != 0 ? datagram.size() : copied);
    }

    std::deque<std::optional<std::string>> m_Datagrams;
    std::function<void()> m_OnRead;
    fake::Always<int(int, fd_set*, fd_set*, fd_set*, timeval*)> m_Select;
    fake::Always<ssize_t(int, void*, size_t, int, sockaddr*, socklen_t*)> m_Receive;
};

/// Notes what would be sent, and claims that it went.
class Outbox {
  public:
    Outbox()
        : m_Hook(
              fake::sendto, [this](int, const void* data, size_t size, int, const sockaddr* to, socklen_t) {
                  sockaddr_in address;
                  std::memcpy(&address, to, sizeof address);
                  const std::string bytes(static_cast<const char*>(data), size);
                  const auto sequence =
                      static_cast<unsigned char>(bytes.at(6)) * 256 + static_cast<unsigned char>(bytes.at(7));
                  char text[INET_ADDRSTRLEN] = "";
                  ::inet_ntop(AF_INET, &address.sin_addr, text, sizeof text);
                  requests.push_back(std::to_string(sequence) + " to " + text);
                  return static_cast<ssize_t>(size);
              }) {}

    Texts requests;

  private:
    fake::Always<ssize_t(int, const void*, size_t, int, const sockaddr*, socklen_t)> m_Hook;
};

class IcmpSocket : public KovaTest {
  protected:
    void Open(int timeout = kShortTimeout) {
        socket.SetTimeout(timeout);
        ASSERT_TRUE(socket.Open());
        trace.Clear();
    }

    /// The data of a request of this thread on the socket.
    icmp::Echo OwnEcho(in_addr_t to) const {
        KovaTimeSpec now;
        KovaGetRelativeClock(&now);
        return {to,
                socket.GetSocket(),
                static_cast<uint32_t>(::getpid()),
                static_cast<uint32_t>(::gettid()),
                now.seconds,
                now.milliseconds};
    }

    /// The reply of the host at `from` to `echo`, as it arrives at the loopback address.
    static icmp::Packet Reply(const icmp::Echo& echo, uint16_t sequence, const char* from = kLoopback) {
        icmp::Packet reply;
        reply.from = Ip(from);
        reply.to = Ip(kLoopback);
        reply.identifier = reply.sequence = sequence;
        reply.data = icmp::EchoData(echo);
        return reply;
    }
    icmp::Packet OwnReply(uint16_t sequence) const { return Reply(OwnEcho(Ip(kLoopback)), sequence); }

    void ExpectNoPeers() {
        EXPECT_EQ(kNoAddress, Text(*socket.GetLastPeer()));
        EXPECT_EQ(kNoAddress, Text(*socket.GetLastLocal()));
    }

    /// Lets the socket know both addresses and a round-trip time.
    void LearnPeers() {
        const Clock clock(100, 500);
        Inbox inbox;
        icmp::Echo echo = OwnEcho(Ip("10.1.2.3"));
        echo.milliseconds -= 7;
        inbox.Put(Reply(echo, 1, "10.1.2.3").Bytes());
        unsigned short sequence = 0;
        ASSERT_TRUE(socket.RecvPingPacket(0, sequence));
        ASSERT_EQ("10.1.2.3", Text(*socket.GetLastPeer()));
        ASSERT_EQ(kLoopback, Text(*socket.GetLastLocal()));
        ASSERT_TRUE(TookTime(*socket.GetRoundtripTime(), 0, 7));
        trace.Clear();
    }

    std::string SelectText(const char* read, const char* write, const std::string& timeout) const {
        const std::string fd = "{" + std::to_string(socket.GetSocket()) + "}";
        const auto set = [&](const char* text) { return *text != '\0' ? fd : std::string("{}"); };
        return "select " + std::to_string(socket.GetSocket() + 1) + " " + set(read) + " " + set(write) + " " +
               fd + " " + timeout;
    }

    Icmp socket;
    TraceRecorder trace;
};

uint32_t FdValue(const KovaIcmpSocket& socket) { return static_cast<uint32_t>(socket.GetSocket()); }

constexpr uint32_t kLoopbackNumber = 0x7F000001;

// --- Construction ---

TEST_F(IcmpSocket, StartsClosedWithATimeoutOfOneSecond) {
    EXPECT_EQ(-1, socket.GetSocket());
    EXPECT_EQ(KOVA_SOCKET_CLOSED, socket.GetMode());
    EXPECT_EQ(1000, socket.Timeout());
    EXPECT_EQ(0u, socket.Received());
    EXPECT_TRUE(TookTime(*socket.GetRoundtripTime(), 0, 0));
    ExpectNoPeers();
    EXPECT_EQ(0, socket.GetLastPeer()->GetPort());
    EXPECT_EQ(0, socket.GetLastLocal()->GetPort());
    EXPECT_TRUE(HasNoError(socket));
    EXPECT_EQ(0u, trace.All().size());
}

TEST_F(IcmpSocket, CannotBeCopied) {
    static_assert(!std::is_copy_constructible_v<KovaIcmpSocket>);
    static_assert(!std::is_copy_assignable_v<KovaIcmpSocket>);
}

TEST_F(IcmpSocket, ConstructorMakesNoCall) {
    const fake::Journal journal;
    const KovaIcmpSocket other;
    EXPECT_EQ(Texts{}, journal.Texts());
}

// --- Open ---

TEST_F(IcmpSocket, OpenMakesARawSocketAndAppliesItsDefaultsInThisOrder) {
    const fake::Journal journal;
    ASSERT_TRUE(socket.Open());
    EXPECT_EQ((Texts{"socket AF_INET SOCK_RAW 1", "fcntl F_SETFD 1", "setsockopt SOL_RAW ICMP_FILTER 0",
                     "ioctl FIONBIO 1", "setsockopt SOL_SOCKET SO_DONTROUTE 0",
                     "setsockopt SOL_SOCKET SO_BROADCAST 0", "setsockopt SOL_SOCKET SO_SNDTIMEO {1, 0}",
                     "setsockopt SOL_SOCKET SO_RCVTIMEO {1, 0}"}),
              journal.Texts(socket.GetSocket()));
    EXPECT_EQ(8u, journal.Entries().size());
    EXPECT_EQ(KOVA_SOCKET_ICMP, socket.GetMode());
    EXPECT_EQ(5u, static_cast<unsigned>(socket.GetMode()));
    EXPECT_TRUE(HasNoError(socket));
    EXPECT_EQ(0u, trace.All().size());
}

TEST_F(IcmpSocket, OpenReplaysWhatWasAskedFor) {
    EXPECT_TRUE(socket.SetBlocking(true));
    EXPECT_TRUE(socket.SetRouting(false));
    EXPECT_TRUE(socket.SetBroadcast(true));
    EXPECT_TRUE(socket.BindToDevice("lo"));
    EXPECT_FALSE(socket.SetTimeout(2500));
    const fake::Journal journal;
    ASSERT_TRUE(socket.Open());
    EXPECT_EQ((Texts{"socket AF_INET SOCK_RAW 1", "fcntl F_SETFD 1", "setsockopt SOL_RAW ICMP_FILTER 0",
                     "ioctl FIONBIO 0", "setsockopt SOL_SOCKET SO_DONTROUTE 1",
                     "setsockopt SOL_SOCKET SO_BROADCAST 1", "setsockopt SOL_SOCKET SO_BINDTODEVICE \"lo\" 3",
                     "setsockopt SOL_SOCKET SO_SNDTIMEO {2, 500000}",
                     "setsockopt SOL_SOCKET SO_RCVTIMEO {2, 500000}"}),
              journal.Texts());
}

TEST_F(IcmpSocket, OpenOfAnOpenSocketIsTrueAndChangesNothing) {
    Open();
    const fake::Journal journal;
    EXPECT_TRUE(socket.Open());
    EXPECT_EQ(Texts{}, journal.Texts());
}

TEST_F(IcmpSocket, OpenOfATakenOverSocketIsFalseAndChangesNothing) {
    ASSERT_TRUE(socket.SetSocket(SocketPair().first.Release()));
    const fake::Journal journal;
    EXPECT_FALSE(socket.Open());
    EXPECT_EQ(Texts{}, journal.Texts());
    EXPECT_EQ(KOVA_SOCKET_CONNECTED, socket.GetMode());
}

TEST_F(IcmpSocket, OpenFailsWithTheErrnoOfSocket) {
    const fake::Script sockets(fake::socket, {fake::Fail(EMFILE)});
    EXPECT_FALSE(socket.Open());
    EXPECT_TRUE(Recorded(socket, EMFILE, kOpen));
    EXPECT_TRUE(trace.Has("socket errno=%d", {EMFILE}));
    EXPECT_TRUE(trace.Has("open icmp errno=%d", {EMFILE}));
    EXPECT_EQ(KOVA_SOCKET_CLOSED, socket.GetMode());
    EXPECT_EQ(-1, socket.GetSocket());
}

/// Takes the right to open raw sockets from the calling thread.
void DropPrivilege() {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[_LINUX_CAPABILITY_U32S_3] = {};
    ASSERT_EQ(0, ::syscall(SYS_capget, &header, data));
    data[0].effective &= ~(1u << CAP_NET_RAW);
    ASSERT_EQ(0, ::syscall(SYS_capset, &header, data));
}

TEST_F(IcmpSocket, OpenWithoutPrivilegeIsRefused) {
    DeadlineThread([&] {
        DropPrivilege();
        EXPECT_FALSE(socket.Open());
        EXPECT_TRUE(Recorded(socket, EPERM, kOpen));
        EXPECT_TRUE(trace.Has("open icmp errno=%d", {EPERM}));
        EXPECT_EQ(-1, socket.Ping(Ip(kLoopback), 1));
        EXPECT_TRUE(Recorded(socket, EPERM, kOpen));
    }).Join();
}

TEST_F(IcmpSocket, OpenGoesOnWithoutTheFilterAndKeepsItsError) {
    fake::Script filter(fake::setsockopt, {fake::Fail(EPERM)});
    filter.When([](int, int level, int, const void*, socklen_t) { return level == SOL_RAW; });
    EXPECT_TRUE(socket.Open());
    EXPECT_TRUE(Recorded(socket, EPERM, kOpen));
    EXPECT_TRUE(trace.Has("icmp filter fd=%d errno=%d", {socket.GetSocket(), EPERM}));
    EXPECT_EQ(KOVA_SOCKET_ICMP, socket.GetMode());
    EXPECT_EQ(1, socket.Ping(Ip(kLoopback), 1));
}

TEST_F(IcmpSocket, OpenAppliesTheTimeoutsEvenIfTheyAreRefused) {
    fake::Script options(fake::setsockopt, {fake::Fail(EDOM), fake::Fail(ERANGE)});
    options.When([](int, int, int name, const void*, socklen_t) {
        return name == SO_SNDTIMEO || name == SO_RCVTIMEO;
    });
    EXPECT_TRUE(socket.Open());
    EXPECT_TRUE(Recorded(socket, ERANGE, "bool KovaSocketWrapper::SetRecvTimeout(int)"));
    EXPECT_TRUE(trace.Has("send time-out ms=%d errno=%d", {1000, EDOM}));
    EXPECT_TRUE(trace.Has("receive time-out ms=%d errno=%d", {1000, ERANGE}));
}

/// Opens a socket of which one option is refused: Open fails, nothing after the option is applied, and the
/// socket pings nevertheless.
void ExpectRefused(Icmp& socket, const std::string& function, const std::string& last_call) {
    {
        const fake::Journal journal;
        EXPECT_FALSE(socket.Open());
        EXPECT_EQ(last_call, journal.Texts().back());
    }
    EXPECT_TRUE(Recorded(socket, EIO, function));
    EXPECT_EQ(KOVA_SOCKET_ICMP, socket.GetMode());
    EXPECT_TRUE(socket.Open()) << "it is open";
    EXPECT_EQ(1, socket.Ping(Ip(kLoopback), 1));
    EXPECT_TRUE(socket.Close());
}

TEST_F(IcmpSocket, OpenFailsWithARefusedOptionAndLeavesTheSocketOpen) {
    socket.BindToDevice("lo");
    {
        const fake::Script ioctls(fake::ioctl, {fake::Fail(EIO)});
        ExpectRefused(socket, kIoctl, "ioctl FIONBIO 1");
    }
    const std::vector<std::pair<int, std::pair<std::string, std::string>>> options{
        {SO_DONTROUTE, {kSetRouting, "setsockopt SOL_SOCKET SO_DONTROUTE 0"}},
        {SO_BROADCAST, {kSetBroadcast, "setsockopt SOL_SOCKET SO_BROADCAST 0"}},
        {SO_BINDTODEVICE, {kBindToDevice, "setsockopt SOL_SOCKET SO_BINDTODEVICE \"lo\" 3"}}};
    for (const auto& [option, wanted] : options) {
        fake::Script refused(fake::setsockopt, {fake::Fail(EIO)});
        refused.When([option = option](int, int level, int name, const void*, socklen_t) {
            return level == SOL_SOCKET && name == option;
        });
        ExpectRefused(socket, wanted.first, wanted.second);
    }
}

// --- Close ---

TEST_F(IcmpSocket, CloseDropsWhatIsUnsentAndClosesInThisOrder) {
    Open();
    socket.Plant(EIO);
    const int fd = socket.GetSocket();
    const fake::Journal journal;
    EXPECT_TRUE(socket.Close());
    EXPECT_EQ((Texts{"setsockopt SOL_SOCKET SO_LINGER {1, 0}", "shutdown SHUT_RDWR", "close"}),
              journal.Texts(fd));
    EXPECT_EQ(3u, journal.Entries().size());
    EXPECT_EQ(KOVA_SOCKET_CLOSED, socket.GetMode());
    EXPECT_EQ(-1, socket.GetSocket());
    EXPECT_TRUE(HasNoError(socket));
}

TEST_F(IcmpSocket, CloseOfAClosedSocketIsTrueAndClearsTheError) {
    socket.Plant(EIO);
    const fake::Journal journal;
    EXPECT_TRUE(socket.Close());
    EXPECT_TRUE(HasNoError(socket));
    EXPECT_EQ(Texts{}, journal.Texts());
}

TEST_F(IcmpSocket, CloseIsFalseWhenTheKernelReportsAnErrorAndTheSocketIsClosed) {
    Open();
    const fake::Script closes(fake::close, {[](int fd) {
                                  fake::close.Real(fd);
                                  errno = EIO;
                                  return -1;
                              }});
    EXPECT_FALSE(socket.Close());
    EXPECT_EQ(KOVA_SOCKET_CLOSED, socket.GetMode());
    EXPECT_EQ(-1, socket.GetSocket());
    EXPECT_TRUE(socket.Close());
}

TEST_F(IcmpSocket, CloseGoesOnWithoutLinger) {
    Open();
    const int fd = socket.GetSocket();
    const fake::Script options(fake::setsockopt, {fake::Fail(ENOBUFS)});
    EXPECT_TRUE(socket.Close());
    EXPECT_TRUE(trace.Has("linger fd=%d errno=%d", {fd, ENOBUFS}));
    EXPECT_FALSE(IsOpenFd(fd));
}

TEST_F(IcmpSocket, CloseAndOpenForgetTheCountOfBytes) {
    Open();
    Inbox inbox;
    char buffer[3];
    const auto receive = [&] {
        inbox.Put(std::string(20, 'x'));
        char datagram[20];
        EXPECT_TRUE(socket.RecvFrom(datagram, sizeof datagram));
        EXPECT_EQ(20u, socket.Received());
        const KovaSocketWrapper& wrapper = socket;
        EXPECT_EQ(20u, wrapper.Received());
    };
    receive();
    EXPECT_TRUE(socket.Close());
    EXPECT_EQ(0u, socket.Received());
    ASSERT_TRUE(socket.Open());
    receive();
    const Fd fd(socket.RemoveSocket());
    EXPECT_EQ(0u, socket.Received());
    ASSERT_TRUE(socket.Open());
    EXPECT_EQ(0u, socket.Received());
    receive();
    EXPECT_FALSE(socket.RecvFrom(buffer, sizeof buffer));
    EXPECT_EQ(0u, socket.Received());
}

TEST_F(IcmpSocket, DestructorClosesTheDescriptor) {
    int fd;
    {
        KovaIcmpSocket other;
        ASSERT_TRUE(other.Open());
        fd = other.GetSocket();
        EXPECT_TRUE(IsOpenFd(fd));
    }
    EXPECT_FALSE(IsOpenFd(fd));
}

// --- SetSocket ---

TEST_F(IcmpSocket, TakesOverADescriptorInMode3) {
    socket.Plant(EIO);
    const int fd = ::socket(AF_INET, SOCK_RAW, IPPROTO_ICMP);
    EXPECT_TRUE(socket.SetSocket(fd));
    EXPECT_EQ(fd, socket.GetSocket());
    EXPECT_EQ(3u, static_cast<unsigned>(socket.GetMode()));
    EXPECT_TRUE(HasNoError(socket));
    EXPECT_TRUE(socket.Close());
    EXPECT_FALSE(IsOpenFd(fd));
}

TEST_F(IcmpSocket, SetSocketOfAnOpenSocketIsOpenAlready) {
    Open();
    const int fd = socket.GetSocket();
    EXPECT_FALSE(socket.SetSocket(fd + 1));
    EXPECT_TRUE(Recorded(socket, KovaBaseObject::KOVA_ERR_ALREADY_OPEN, kSetSocket));
    EXPECT_EQ(30001, socket.GetError());
    EXPECT_TRUE(trace.Has("open already fd=%d", {fd}));
    EXPECT_EQ(fd, socket.GetSocket());
    EXPECT_EQ(KOVA_SOCKET_ICMP, socket.GetMode());

    ASSERT_TRUE(socket.Close());
    ASSERT_TRUE(socket.SetSocket(SocketPair().first.Release()));
    EXPECT_FALSE(socket.SetSocket(fd + 1));
    EXPECT_EQ(30001, socket.GetError());
}

TEST_F(IcmpSocket, TakenOverSocketDoesNotPing) {
    ASSERT_TRUE(socket.SetSocket(::socket(AF_INET, SOCK_RAW, IPPROTO_ICMP)));
    const int fd = socket.GetSocket();
    const fake::Journal journal;
    EXPECT_EQ(-1, socket.Ping(Ip(kLoopback), 3));
    EXPECT_TRUE(Recorded(socket, ENOTSOCK, kPing));
    EXPECT_TRUE(trace.Has("no icmp socket fd=%d mode=%u", {fd, 3}));
    socket.ClearError();
    char text[] = "127.0.0.1";
    EXPECT_EQ(-1, socket.Ping(text, 3));
    EXPECT_TRUE(Recorded(socket, ENOTSOCK, kPing));
    socket.ClearError();
    unsigned address = Ip(kLoopback);
    EXPECT_EQ(-1, socket.MultiPing(&address, 1, 3));
    EXPECT_TRUE(Recorded(socket, ENOTSOCK, kMultiPing));
    EXPECT_EQ(3u, trace.Count("no icmp socket fd=%d mode=%u"));
    EXPECT_EQ(Texts{}, journal.Texts());
}

TEST_F(IcmpSocket, SocketOfAnyOtherModeDoesNotPing) {
    Open();
    for (const auto mode :
         {KOVA_SOCKET_OPENED, KOVA_SOCKET_CONNECTED, KOVA_SOCKET_SERVING, KOVA_SOCKET_RAW}) {
        socket.SetMode(mode);
        EXPECT_EQ(-1, socket.Ping(Ip(kLoopback), 1));
        EXPECT_FALSE(socket.Open());
    }
    socket.SetMode(KOVA_SOCKET_ICMP);
    EXPECT_EQ(1, socket.Ping(Ip(kLoopback), 1));
}

TEST_F(IcmpSocket, TakenOverSocketSendsAndReceivesSinglePings) {
    ASSERT_TRUE(socket.SetSocket(::socket(AF_INET, SOCK_RAW, IPPROTO_ICMP)));
    ASSERT_TRUE(socket.SendPingPacket(Ip(kLoopback), 77));
    unsigned short sequence = 0;
    EXPECT_TRUE(socket.RecvPingPacket(Ip(kLoopback), sequence));
    EXPECT_EQ(77, sequence);
    EXPECT_EQ(KOVA_SOCKET_CONNECTED, socket.GetMode());
}

// --- WaitForData ---

TEST_F(IcmpSocket, WaitsInTheSetsOfTheModeAndAlwaysForExceptions) {
    Open(2500);
    const fake::Always selects(fake::select, fake::Return(0));
    const auto wait = [&](unsigned mode) {
        const fake::Journal journal;
        EXPECT_FALSE(socket.WaitForData(static_cast<KovaWaitModeT>(mode)));
        return journal.Texts();
    };
    EXPECT_EQ((Texts{SelectText("fd", "", "{2, 500000}")}), wait(1));
    EXPECT_EQ((Texts{SelectText("", "fd", "{2, 500000}")}), wait(2));
    EXPECT_EQ((Texts{SelectText("fd", "fd", "{2, 500000}")}), wait(3));
    EXPECT_EQ((Texts{SelectText("", "", "{2, 500000}")}), wait(0));
}

TEST_F(IcmpSocket, WaitIsTrueWhenReadableOrWritable) {
    Open();
    EXPECT_TRUE(socket.WaitForData(KOVA_WAIT_WRITE));
    EXPECT_FALSE(socket.WaitForData(KOVA_WAIT_READ));
    icmp::Forger().Send(OwnReply(1).Bytes());
    EXPECT_TRUE(socket.WaitForData(KOVA_WAIT_READ));
    EXPECT_TRUE(socket.WaitForData(static_cast<KovaWaitModeT>(KOVA_WAIT_READ | KOVA_WAIT_WRITE)));
}

TEST_F(IcmpSocket, WaitThatEndsWithoutDataIsTimedOut) {
    Open();
    const Stopwatch watch;
    EXPECT_FALSE(socket.WaitForData(KOVA_WAIT_READ));
    EXPECT_GE(watch.Ms(), kShortTimeout);
    EXPECT_TRUE(Recorded(socket, ETIMEDOUT, kWaitForData));
    EXPECT_EQ(0u, trace.All().size());
}

TEST_F(IcmpSocket, WaitIsRepeatedAfterAPauseWhenNothingCouldBeLearned) {
    Open();
    const fake::Script selects(fake::select, {fake::Fail(EINPROGRESS), fake::Fail(EAGAIN), fake::Return(1)});
    const fake::Journal journal{&fake::select, &fake::nanosleep};
    EXPECT_TRUE(socket.WaitForData(KOVA_WAIT_READ));
    const std::string select = SelectText("fd", "", "{0, 20000}");
    EXPECT_EQ((Texts{select, "nanosleep {0, 10000000}", select, "nanosleep {0, 10000000}", select}),
              journal.Texts());
}

TEST_F(IcmpSocket, WaitEndsWithAnyOtherError) {
    Open();
    for (const int error : {EINTR, EBADF, ENOMEM}) {
        const fake::Script selects(fake::select, {fake::Fail(error)});
        trace.Clear();
        EXPECT_FALSE(socket.WaitForData(KOVA_WAIT_READ));
        EXPECT_TRUE(Recorded(socket, error, kWaitForData));
        EXPECT_TRUE(trace.Has("wait fd=%d errno=%d", {socket.GetSocket(), error}));
    }
}

TEST_F(IcmpSocket, ExceptionalConditionAloneIsTracedAndNoData) {
    Open();
    const auto exceptional = [](int, fd_set* read, fd_set* write, fd_set*, timeval*) {
        FD_ZERO(read);
        FD_ZERO(write);
        return 1;
    };
    const fake::Script selects(fake::select, {exceptional, fake::Return(2)});
    EXPECT_FALSE(socket.WaitForData(KOVA_WAIT_READ));
    EXPECT_TRUE(HasNoError(socket));
    EXPECT_TRUE(trace.Has("exceptional condition fd=%d", {socket.GetSocket()}));
    EXPECT_TRUE(socket.WaitForData(KOVA_WAIT_READ)) << "readable as well";
    EXPECT_EQ(2u, trace.Count("exceptional condition fd=%d"));
}

TEST_F(IcmpSocket, WaitOnADescriptorBeyondTheSetsFailsAtOnce) {
    ASSERT_TRUE(socket.SetSocket(1024));
    EXPECT_FALSE(socket.WaitForData(KOVA_WAIT_READ));
    EXPECT_TRUE(Recorded(socket, EINVAL, kWaitForData));
    EXPECT_TRUE(trace.Has("wait fd=%d errno=%d", {1024, EINVAL}));
    socket.RemoveSocket();
}

TEST_F(IcmpSocket, WaitOnAClosedSocketTimesOut) {
    socket.SetTimeout(kShortTimeout);
    EXPECT_FALSE(socket.WaitForData(KOVA_WAIT_READ));
    EXPECT_TRUE(Recorded(socket, ETIMEDOUT, kWaitForData));
}

// --- PeekFrom, RecvFrom ---

TEST_F(IcmpSocket, ReceivesADatagramOfExactlyThisSize) {
    Open();
    const std::string datagram = OwnReply(5).Bytes();
    icmp::Forger().Send(datagram);
    char peeked[icmp::kDatagram];
    char received[icmp::kDatagram];
    socket.Plant(EIO);
    EXPECT_TRUE(socket.PeekFrom(peeked, sizeof peeked));
    EXPECT_EQ(72u, socket.Received());
    EXPECT_EQ(kLoopback, Text(*socket.GetLastPeer()));
    EXPECT_EQ(kNoAddress, Text(*socket.GetLastLocal()));
    EXPECT_TRUE(HasNoError(socket));
    EXPECT_TRUE(socket.RecvFrom(received, sizeof received));
    EXPECT_EQ(72u, socket.Received());
    EXPECT_EQ(0, socket.GetLastPeer()->GetPort());
    EXPECT_EQ(0, std::memcmp(peeked, received, sizeof received));
    EXPECT_EQ(datagram.substr(icmp::kIpHeader),
              std::string(received, sizeof received).substr(icmp::kIpHeader));
    EXPECT_FALSE(socket.RecvFrom(received, sizeof received)) << "it was taken";
}

TEST_F(IcmpSocket, ReceivingCallsTheKernelInThisOrder) {
    Open();
    icmp::Forger().Send(OwnReply(5).Bytes());
    char buffer[icmp::kDatagram];
    const fake::Journal journal;
    EXPECT_TRUE(socket.PeekFrom(buffer, sizeof buffer));
    EXPECT_TRUE(socket.RecvFrom(buffer, sizeof buffer));
    const std::string select = SelectText("fd", "", "{0, 20000}");
    EXPECT_EQ((Texts{select, "recvfrom 72 MSG_PEEK|MSG_TRUNC", select, "recvfrom 72 MSG_TRUNC"}),
              journal.Texts());
}

TEST_F(IcmpSocket, ReceivingNothingIsTimedOutAndKeepsThePeers) {
    Open();
    LearnPeers();
    const fake::Counter receives(fake::recvfrom);
    char buffer[icmp::kDatagram];
    EXPECT_FALSE(socket.PeekFrom(buffer, sizeof buffer));
    EXPECT_TRUE(Recorded(socket, ETIMEDOUT, kPeekFrom));
    EXPECT_TRUE(trace.Has("icmp receive fd=%d ms=%d", {socket.GetSocket(), kShortTimeout}));
    EXPECT_EQ(0u, socket.Received());
    trace.Clear();
    EXPECT_FALSE(socket.RecvFrom(buffer, sizeof buffer));
    EXPECT_TRUE(Recorded(socket, ETIMEDOUT, kRecvFrom));
    EXPECT_TRUE(trace.Has("icmp receive fd=%d ms=%d", {socket.GetSocket(), kShortTimeout}));
    EXPECT_EQ(0u, receives.Calls());
    EXPECT_EQ("10.1.2.3", Text(*socket.GetLastPeer()));
    EXPECT_EQ(kLoopback, Text(*socket.GetLastLocal()));
}

TEST_F(IcmpSocket, ReceivingOnAClosedSocketIsTimedOut) {
    socket.SetTimeout(kShortTimeout);
    char buffer[icmp::kDatagram];
    EXPECT_FALSE(socket.PeekFrom(buffer, sizeof buffer));
    EXPECT_TRUE(Recorded(socket, ETIMEDOUT, kPeekFrom));
    EXPECT_FALSE(socket.RecvFrom(buffer, sizeof buffer));
    EXPECT_TRUE(Recorded(socket, ETIMEDOUT, kRecvFrom));
    EXPECT_EQ(KOVA_SOCKET_CLOSED, socket.GetMode());
}

TEST_F(IcmpSocket, WaitThatFailsIsTimedOutForItsCaller) {
    Open();
    const fake::Script selects(fake::select, {fake::Fail(ENOMEM)});
    char buffer[icmp::kDatagram];
    EXPECT_FALSE(socket.RecvFrom(buffer, sizeof buffer));
    EXPECT_TRUE(Recorded(socket, ETIMEDOUT, kRecvFrom));
    EXPECT_TRUE(trace.Has("wait fd=%d errno=%d", {socket.GetSocket(), ENOMEM}));
}

TEST_F(IcmpSocket, DatagramOfAnotherSizeFailsAndClearsThePeers) {
    Open();
    for (const size_t size : {71, 73}) {
        icmp::Packet packet = OwnReply(1);
        packet.data.resize(packet.data.size() + size - icmp::kDatagram);
        icmp::Forger().Send(packet.Bytes());
        const std::vector<int64_t> values{socket.GetSocket(), static_cast<int64_t>(size), 72, EMSGSIZE};
        char buffer[icmp::kDatagram];
        for (const bool peek : {true, false}) {
            LearnPeers();
            EXPECT_FALSE(peek ? socket.PeekFrom(buffer, sizeof buffer)
                              : socket.RecvFrom(buffer, sizeof buffer));
            EXPECT_TRUE(Recorded(socket, EMSGSIZE, peek ? kPeekFrom : kRecvFrom));
            EXPECT_TRUE(trace.Has("icmp datagram fd=%d received=%d wanted=%u errno=%d",
                                  {values[0], values[1], values[2], values[3]}));
            EXPECT_EQ(0u, socket.Received());
            ExpectNoPeers();
        }
        EXPECT_FALSE(socket.RecvFrom(buffer, sizeof buffer));
        EXPECT_EQ(ETIMEDOUT, socket.GetError()) << "it was dropped";
    }
}

TEST_F(IcmpSocket, ReceivesNoMoreThanTheBufferHolds) {
    Open();
    icmp::Forger().Send(OwnReply(1).Bytes());
    char buffer[32];
    std::memset(buffer, '#', sizeof buffer);
    EXPECT_FALSE(socket.RecvFrom(buffer, 24));
    EXPECT_EQ(EMSGSIZE, socket.GetError());
    EXPECT_EQ(std::string(8, '#'), std::string(buffer + 24, 8));
}

TEST_F(IcmpSocket, FailingReadIsItsErrnoAndClearsThePeers) {
    Open();
    for (const bool peek : {true, false}) {
        LearnPeers();
        const fake::Script selects(fake::select, {fake::Return(1)});
        const fake::Script receives(fake::recvfrom, {fake::Fail(ENOBUFS)});
        char buffer[icmp::kDatagram];
        EXPECT_FALSE(peek ? socket.PeekFrom(buffer, sizeof buffer) : socket.RecvFrom(buffer, sizeof buffer));
        EXPECT_TRUE(Recorded(socket, ENOBUFS, peek ? kPeekFrom : kRecvFrom));
        EXPECT_TRUE(trace.Has("icmp datagram fd=%d received=%d wanted=%u errno=%d",
                              {socket.GetSocket(), -1, 72, ENOBUFS}));
        ExpectNoPeers();
    }
}

// --- SendTo ---

TEST_F(IcmpSocket, SendsAPacketAndRemembersWhereTo) {
    Open();
    const icmp::Watcher watcher;
    icmp::Packet packet;
    packet.type = 13;
    packet.data = "anything";
    const std::string bytes = packet.IcmpBytes();
    socket.Plant(EIO);
    const fake::Journal journal;
    EXPECT_TRUE(socket.SendTo(bytes.data(), bytes.size(), Ip(kLoopback)));
    EXPECT_EQ((Texts{"sendto 16 MSG_NOSIGNAL 127.0.0.1:0"}), journal.Texts());
    EXPECT_TRUE(HasNoError(socket));
    EXPECT_EQ(kLoopback, Text(*socket.GetLastPeer()));
    EXPECT_EQ(0, socket.GetLastPeer()->GetPort());
    EXPECT_EQ(bytes, watcher.Next(13).substr(icmp::kIpHeader));
}

TEST_F(IcmpSocket, SendsToA16ByteSocketAddressWithoutPort) {
    Open();
    std::string address;
    const fake::Script sends(fake::sendto,
                             {[&](int, const void*, size_t size, int, const sockaddr* to, socklen_t length) {
                                 address.assign(reinterpret_cast<const char*>(to), length);
                                 return static_cast<ssize_t>(size);
                             }});
    EXPECT_TRUE(socket.SendTo("12345678", 8, Ip("1.2.3.4")));
    const sa_family_t family = AF_INET;
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(&family), 2) +
                  std::string("\0\0\1\2\3\4\0\0\0\0\0\0\0\0", 14),
              address);
}

TEST_F(IcmpSocket, SendToDoesNotOpenTheSocket) {
    EXPECT_FALSE(socket.SendTo("12345678", 8, Ip("1.2.3.4")));
    EXPECT_TRUE(Recorded(socket, EBADF, kSendTo));
    EXPECT_TRUE(trace.Has("icmp send fd=%d to=%x", {-1, 0x01020304}));
    EXPECT_EQ("1.2.3.4", Text(*socket.GetLastPeer()));
    EXPECT_EQ(KOVA_SOCKET_CLOSED, socket.GetMode());
}

TEST_F(IcmpSocket, SendToFailsWithItsErrnoAfterOneAttempt) {
    Open();
    for (const int error : {EINTR, EAGAIN, ENOBUFS, EPERM, EHOSTUNREACH}) {
        const fake::Script sends(fake::sendto, {fake::Fail(error)});
        const fake::Counter attempts(fake::sendto);
        trace.Clear();
        EXPECT_FALSE(socket.SendTo("12345678", 8, Ip("1.2.3.4")));
        EXPECT_TRUE(Recorded(socket, error, kSendTo));
        EXPECT_TRUE(trace.Has("icmp send fd=%d to=%x", {socket.GetSocket(), 0x01020304}));
        EXPECT_EQ(1u, attempts.Calls());
    }
}

TEST_F(IcmpSocket, PacketThatIsNotSentWholeIsAFailure) {
    Open();
    const fake::Script sends(fake::sendto, {fake::Return(7), fake::Return(0)});
    EXPECT_FALSE(socket.SendTo("12345678", 8, Ip("1.2.3.4")));
    EXPECT_TRUE(Recorded(socket, EMSGSIZE, kSendTo));
    EXPECT_TRUE(trace.Has("icmp send fd=%d to=%x", {socket.GetSocket(), 0x01020304}));
    EXPECT_FALSE(socket.SendTo("12345678", 8, Ip("1.2.3.4")));
}

// --- SendPingPacket ---

TEST_F(IcmpSocket, RequestHasThese52Bytes) {
    Open();
    const icmp::Watcher watcher;
    const Clock clock(0x01020304, 987);
    ASSERT_TRUE(socket.SendPingPacket(Ip(kLoopback), 0xABCD));
    const std::string datagram = watcher.Next(icmp::kEchoRequest);
    ASSERT_EQ(72u, datagram.size());
    EXPECT_EQ(icmp::AddressBytes(Ip(kLoopback)), datagram.substr(16, 4));
    EXPECT_EQ(IPPROTO_ICMP, datagram[9]);
    const std::string request = datagram.substr(icmp::kIpHeader);

    const std::string start("\x08\x00", 2);
    const std::string rest = std::string("\xAB\xCD\xAB\xCD\x7F\x00\x00\x01", 8) +
                             icmp::BigEndian(FdValue(socket), 4) +
                             icmp::BigEndian(static_cast<uint32_t>(::getpid()), 4) +
                             icmp::BigEndian(static_cast<uint32_t>(::gettid()), 4) +
                             std::string("\x01\x02\x03\x04\x00\x00\x03\xDB", 8) + std::string(20, '\0');
    const uint16_t checksum = icmp::Checksum(start + std::string(2, '\0') + rest);
    EXPECT_EQ(start + icmp::BigEndian(checksum, 2) + rest, request);

    unsigned short words[26];
    std::memcpy(words, request.data(), sizeof words);
    EXPECT_EQ(0, socket.CalculateChecksum(words, sizeof words));
}

TEST_F(IcmpSocket, RequestCarriesTheAddressGiven) {
    Open();
    std::string request;
    const fake::Script sends(fake::sendto,
                             {[&](int, const void* data, size_t size, int, const sockaddr*, socklen_t) {
                                 request.assign(static_cast<const char*>(data), size);
                                 return static_cast<ssize_t>(size);
                             }});
    EXPECT_TRUE(socket.SendPingPacket(Ip("1.2.3.4"), 0));
    EXPECT_EQ("\1\2\3\4", request.substr(8, 4));
    EXPECT_EQ(std::string(4, '\0'), request.substr(4, 4));
    EXPECT_EQ("1.2.3.4", Text(*socket.GetLastPeer()));
}

TEST_F(IcmpSocket, RequestCarriesTheSendingThread) {
    Open();
    const icmp::Watcher watcher;
    uint32_t tid = 0;
    DeadlineThread([&] {
        tid = static_cast<uint32_t>(::gettid());
        EXPECT_TRUE(socket.SendPingPacket(Ip(kLoopback), 1));
    }).Join();
    const std::string request = watcher.Next(icmp::kEchoRequest).substr(icmp::kIpHeader);
    EXPECT_EQ(icmp::BigEndian(static_cast<uint32_t>(::getpid()), 4), request.substr(16, 4));
    EXPECT_EQ(icmp::BigEndian(tid, 4), request.substr(20, 4));
    unsigned short sequence = 0;
    EXPECT_FALSE(socket.RecvPingPacket(0, sequence)) << "the reply is the other thread's";
}

TEST_F(IcmpSocket, SendPingPacketOpensTheSocket) {
    EXPECT_TRUE(socket.SendPingPacket(Ip(kLoopback), 1));
    EXPECT_EQ(KOVA_SOCKET_ICMP, socket.GetMode());
    EXPECT_TRUE(socket.Close());
    EXPECT_TRUE(socket.SendPingPacketAtIf(Ip(kLoopback), 0, 1));
    EXPECT_EQ(KOVA_SOCKET_ICMP, socket.GetMode());
}

TEST_F(IcmpSocket, SinglePingsFailAtOnceWhenNothingCanBeOpened) {
    const fake::Always sockets(fake::socket, fake::Fail(ENFILE));
    const fake::Counter sends(fake::sendto);
    const fake::Counter messages(fake::sendmsg);
    const fake::Counter waits(fake::select);
    unsigned short sequence = 9;
    EXPECT_FALSE(socket.SendPingPacket(Ip(kLoopback), 1));
    EXPECT_TRUE(Recorded(socket, ENFILE, kOpen));
    socket.ClearError();
    EXPECT_FALSE(socket.SendPingPacketAtIf(Ip(kLoopback), 1, 1));
    EXPECT_TRUE(Recorded(socket, ENFILE, kOpen));
    socket.ClearError();
    *socket.GetRoundtripTime() = {7, 8};
    EXPECT_FALSE(socket.RecvPingPacket(Ip(kLoopback), sequence));
    EXPECT_TRUE(TookTime(*socket.GetRoundtripTime(), 0, 0));
    EXPECT_TRUE(Recorded(socket, ENFILE, kOpen));
    EXPECT_EQ(9, sequence);
    EXPECT_EQ(0u, sends.Calls() + messages.Calls() + waits.Calls());
    EXPECT_EQ(3u, trace.Count("open icmp errno=%d"));
}

// --- SendPingPacketAtIf ---

TEST_F(IcmpSocket, SendPingPacketAtIfNamesTheInterfaceBesideTheMessage) {
    Open();
    const Clock clock(5, 6);
    std::string same;
    {
        const fake::Journal journal;
        ASSERT_TRUE(socket.SendPingPacket(Ip(kLoopback), 7));
        same = journal.Entries().back().data;
    }
    socket.Plant(EIO);
    const fake::Journal journal;
    const int lo = static_cast<int>(::if_nametoindex("lo"));
    EXPECT_TRUE(socket.SendPingPacketAtIf(Ip(kLoopback), lo, 7));
    EXPECT_EQ((Texts{"sendmsg 52 MSG_NOSIGNAL 127.0.0.1:0 interface " + std::to_string(lo)}),
              journal.Texts(fake::sendmsg));
    EXPECT_EQ(same, journal.Entries(fake::sendmsg).at(0).data);
    EXPECT_TRUE(HasNoError(socket));
    EXPECT_EQ(kLoopback, Text(*socket.GetLastPeer()));
    unsigned short sequence = 0;
    EXPECT_TRUE(socket.RecvPingPacket(Ip(kLoopback), sequence));
}

TEST_F(IcmpSocket, SendPingPacketAtIfFailsWithItsErrno) {
    Open();
    EXPECT_FALSE(socket.SendPingPacketAtIf(Ip("10.9.8.7"), 12345, 1));
    EXPECT_TRUE(Recorded(socket, ENODEV, kSendAtIf));
    EXPECT_TRUE(trace.Has("icmp send fd=%d to=%x interface=%d", {socket.GetSocket(), 0x0A090807, 12345}));
    EXPECT_EQ("10.9.8.7", Text(*socket.GetLastPeer()));
}

TEST_F(IcmpSocket, SendPingPacketAtIfThatIsNotSentWholeIsFalseWithoutError) {
    Open();
    const fake::Script sends(fake::sendmsg, {fake::Return(51)});
    EXPECT_FALSE(socket.SendPingPacketAtIf(Ip(kLoopback), 1, 1));
    EXPECT_TRUE(HasNoError(socket));
    EXPECT_EQ(0u, trace.All().size());
}

/// Two hosts with the same address, each on a link of its own.
TEST_F(IcmpSocket, SendPingPacketAtIfLeavesThroughTheChosenInterface) {
    SecondHost left("kl");
    SecondHost right("km");
    Shell("ip addr add 10.1.0.1/24 dev kl0");
    Shell("ip addr add 10.1.0.1/24 dev km0");
    std::optional<icmp::Watcher> at_left;
    std::optional<icmp::Watcher> at_right;
    left.Do([&] {
        Shell("ip addr add 10.1.0.2/24 dev kl1");
        at_left.emplace();
    });
    right.Do([&] {
        Shell("ip addr add 10.1.0.2/24 dev km1");
        at_right.emplace();
    });
    Open();
    const in_addr_t to = Ip("10.1.0.2");
    const auto sequence_at = [](const icmp::Watcher& watcher) {
        return watcher.Next(icmp::kEchoRequest).substr(icmp::kIpHeader + 6, 2);
    };
    ASSERT_TRUE(socket.SendPingPacketAtIf(to, static_cast<int>(::if_nametoindex("km0")), 1));
    EXPECT_EQ(icmp::BigEndian(1, 2), sequence_at(*at_right));
    ASSERT_TRUE(socket.SendPingPacketAtIf(to, static_cast<int>(::if_nametoindex("kl0")), 2));
    EXPECT_EQ(icmp::BigEndian(2, 2), sequence_at(*at_left)) << "the first one went here, too";
    ASSERT_TRUE(socket.SendPingPacketAtIf(to, static_cast<int>(::if_nametoindex("km0")), 3));
    EXPECT_EQ(icmp::BigEndian(3, 2), sequence_at(*at_right)) << "the second one went here, too";
    EXPECT_TRUE(at_left->HasNothing());
}

// --- RecvPingPacket ---

TEST_F(IcmpSocket, ReplyTellsSequencePeerLocalAndRoundTrip) {
    Open(kLongTimeout);
    socket.Plant(EIO);
    ASSERT_TRUE(socket.SendPingPacket(Ip(kLoopback), 0xFEDC));
    unsigned short sequence = 0;
    EXPECT_TRUE(socket.RecvPingPacket(Ip(kLoopback), sequence));
    EXPECT_EQ(0xFEDC, sequence);
    EXPECT_EQ(kLoopback, Text(*socket.GetLastPeer()));
    EXPECT_EQ(kLoopback, Text(*socket.GetLastLocal()));
    EXPECT_EQ(0, socket.GetLastPeer()->GetPort());
    EXPECT_EQ(0, socket.GetLastLocal()->GetPort());
    EXPECT_EQ(0, socket.GetRoundtripTime()->seconds);
    EXPECT_TRUE(HasNoError(socket));
    EXPECT_EQ(72u, socket.Received());
}

TEST_F(IcmpSocket, RecvPingPacketOpensTheSocket) {
    socket.SetTimeout(kShortTimeout);
    unsigned short sequence = 0;
    EXPECT_FALSE(socket.RecvPingPacket(0, sequence));
    EXPECT_EQ(KOVA_SOCKET_ICMP, socket.GetMode());
    EXPECT_TRUE(Recorded(socket, ETIMEDOUT, kRecvFrom));
}

TEST_F(IcmpSocket, PeerAndLocalAreTheAddressesOfTheReplyAndNotOfTheEcho) {
    Open();
    Inbox inbox;
    icmp::Packet reply = Reply(OwnEcho(Ip("10.1.2.3")), 3, "10.7.7.7");
    reply.to = Ip("10.8.8.8");
    inbox.Put(reply.Bytes());
    unsigned short sequence = 0;
    EXPECT_TRUE(socket.RecvPingPacket(Ip("10.1.2.3"), sequence));
    EXPECT_EQ("10.7.7.7", Text(*socket.GetLastPeer()));
    EXPECT_EQ("10.8.8.8", Text(*socket.GetLastLocal()));
}

TEST_F(IcmpSocket, SequenceIsThatOfTheReplyAndItsIdentifierIsNotLookedAt) {
    Open();
    Inbox inbox;
    icmp::Packet reply = OwnReply(0x1234);
    reply.identifier = 0x5678;
    inbox.Put(reply.Bytes());
    unsigned short sequence = 1;
    EXPECT_TRUE(socket.RecvPingPacket(0, sequence));
    EXPECT_EQ(0x1234, sequence);
}

class ForeignReply : public IcmpSocket {
  protected:
    /// `foreign` is skipped without an error, and the reply behind it is found.
    void ExpectSkipped(const std::string& foreign, in_addr_t to = Ip(kLoopback)) {
        const icmp::Forger forger;
        forger.Send(foreign);
        forger.Send(OwnReply(42).Bytes());
        unsigned short sequence = 0;
        trace.Clear();
        EXPECT_TRUE(socket.RecvPingPacket(to, sequence));
        EXPECT_EQ(42, sequence);
        EXPECT_TRUE(HasNoError(socket));
        EXPECT_EQ(0u, trace.All().size());
    }

    /// `foreign` ends the wait, and the reply behind it stays.
    void ExpectEnd(const std::string& foreign) {
        const icmp::Forger forger;
        forger.Send(foreign);
        forger.Send(OwnReply(42).Bytes());
        unsigned short sequence = 1;
        EXPECT_FALSE(socket.RecvPingPacket(Ip(kLoopback), sequence));
        EXPECT_EQ(1, sequence);
        EXPECT_TRUE(TookTime(*socket.GetRoundtripTime(), 0, 0));
    }
    void ExpectReplyLeft() {
        unsigned short sequence = 0;
        EXPECT_TRUE(socket.RecvPingPacket(Ip(kLoopback), sequence));
        EXPECT_EQ(42, sequence);
    }
};

TEST_F(ForeignReply, OfAnotherProcessThreadDescriptorOrAddressIsSkipped) {
    Open();
    const icmp::Echo own = OwnEcho(Ip(kLoopback));
    icmp::Echo process = own, thread = own, descriptor = own, address = own;
    ++process.pid;
    ++thread.tid;
    ++descriptor.fd;
    address.to = Ip("127.0.0.2");
    for (const icmp::Echo& echo : {process, thread, descriptor, address})
        ExpectSkipped(Reply(echo, 1).Bytes());
    // Not even the descriptor that means any elsewhere, and the ids that mean the caller's.
    descriptor.fd = -1;
    process.pid = thread.tid = 0;
    for (const icmp::Echo& echo : {process, thread, descriptor}) ExpectSkipped(Reply(echo, 1).Bytes(), 0);
}

TEST_F(ForeignReply, OfAnotherAddressIsWelcomeWhenAnyIs) {
    Open();
    icmp::Forger().Send(Reply(OwnEcho(Ip("10.1.2.3")), 8).Bytes());
    unsigned short sequence = 0;
    EXPECT_TRUE(socket.RecvPingPacket(0, sequence));
    EXPECT_EQ(8, sequence);
    EXPECT_EQ(kLoopback, Text(*socket.GetLastPeer()));
}

TEST_F(ForeignReply, PacketOfEveryOtherTypeIsSkipped) {
    Open();
    for (const int type : {1, 2, 4, 5, 8, 11, 12, 13, 16, 19, 40, 128, 131, 255}) {
        SCOPED_TRACE(type);
        icmp::Packet packet = OwnReply(1);
        packet.type = static_cast<uint8_t>(type);
        // The kernel answers requests of its own accord; not these, whose checksum is wrong.
        std::string datagram = packet.Bytes();
        datagram[icmp::kIpHeader + 2] ^= 1;
        ExpectSkipped(datagram);
    }
}

TEST_F(ForeignReply, SkippedOnesDoNotKeepTheWaitFromItsDeadline) {
    constexpr int kTimeout = 200;
    Open(kTimeout);
    LearnPeers();
    icmp::Echo echo = OwnEcho(Ip(kLoopback));
    ++echo.pid;
    const Stopwatch watch;
    icmp::Forger().Send(Reply(echo, 1).Bytes());
    unsigned short sequence = 1;
    EXPECT_FALSE(socket.RecvPingPacket(Ip(kLoopback), sequence));
    EXPECT_GE(watch.Ms(), kTimeout - 1) << "a deadline begins with a millisecond that has begun before";
    EXPECT_EQ(ETIMEDOUT, socket.GetError());
    EXPECT_EQ(1, sequence);
    EXPECT_TRUE(TookTime(*socket.GetRoundtripTime(), 0, 0));
    EXPECT_EQ(kLoopback, Text(*socket.GetLastPeer())) << "the source of the last datagram";
    EXPECT_EQ(kLoopback, Text(*socket.GetLastLocal())) << "that of the last reply";
}

TEST_F(ForeignReply, OfAnotherSizeEndsTheWait) {
    Open(kLongTimeout);
    for (const size_t size : {71, 73}) {
        LearnPeers();
        icmp::Packet packet = OwnReply(1);
        packet.data.resize(packet.data.size() + size - icmp::kDatagram);
        ExpectEnd(packet.Bytes());
        EXPECT_TRUE(Recorded(socket, EMSGSIZE, kRecvFrom));
        EXPECT_TRUE(trace.Has("icmp datagram fd=%d received=%d wanted=%u errno=%d",
                              {socket.GetSocket(), static_cast<int64_t>(size), 72, EMSGSIZE}));
        ExpectNoPeers();
        ExpectReplyLeft();
    }
}

TEST_F(ForeignReply, UnreachableEndsTheWaitWithoutError) {
    Open(kLongTimeout);
    icmp::Packet packet = OwnReply(1);
    packet.type = icmp::kUnreachable;
    packet.code = 1;
    ExpectEnd(packet.Bytes());
    EXPECT_TRUE(HasNoError(socket));
    EXPECT_EQ(1u, trace.All().size());
    EXPECT_TRUE(trace.Has("ping destination unreachable fd=%d code=%u", {socket.GetSocket(), 1}));
    ExpectReplyLeft();
}

TEST_F(ForeignReply, KernelsUnreachableOfAReplysSizeEndsTheWait) {
    constexpr int kPortUnreachable = 3;
    Open(kLongTimeout);
    const Fd udp(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_in nobody{};
    nobody.sin_family = AF_INET;
    nobody.sin_port = htons(FreePort());
    nobody.sin_addr.s_addr = Ip(kLoopback);
    // Quoted behind the headers of IP and ICMP with its own headers of IP and UDP.
    const std::string data(icmp::kDatagram - 20 - 8 - 20 - 8, 'u');
    EXPECT_EQ(
        static_cast<ssize_t>(data.size()),
        ::sendto(udp, data.data(), data.size(), 0, reinterpret_cast<sockaddr*>(&nobody), sizeof nobody));
    const Stopwatch watch;
    unsigned short sequence = 1;
    EXPECT_FALSE(socket.RecvPingPacket(Ip(kLoopback), sequence));
    EXPECT_LT(watch.Ms(), kLongTimeout);
    EXPECT_TRUE(HasNoError(socket));
    EXPECT_TRUE(
        trace.Has("ping destination unreachable fd=%d code=%u", {socket.GetSocket(), kPortUnreachable}));
    EXPECT_EQ(kLoopback, Text(*socket.GetLastPeer()));
}

TEST_F(ForeignReply, EchoDataBehindIpOptionsAreFound) {
    Open();
    for (size_t options = 4; options <= 20; options += 4) {
        SCOPED_TRACE(options);
        icmp::Packet reply = OwnReply(static_cast<uint16_t>(options));
        reply.options = std::string(options, '\1');
        reply.data.resize(reply.data.size() - options);
        ASSERT_EQ(icmp::kDatagram, reply.Bytes().size());
        icmp::Forger().Send(reply.Bytes());
        unsigned short sequence = 0;
        EXPECT_TRUE(socket.RecvPingPacket(Ip(kLoopback), sequence));
        EXPECT_EQ(options, sequence);
        EXPECT_EQ(kLoopback, Text(*socket.GetLastPeer()));
    }
    // Of another address in the same place.
    icmp::Echo echo = OwnEcho(Ip("127.0.0.2"));
    icmp::Packet foreign = Reply(echo, 1);
    foreign.options = std::string(4, '\1');
    foreign.data.resize(foreign.data.size() - 4);
    ExpectSkipped(foreign.Bytes());
}

TEST_F(ForeignReply, IpHeaderThatLeavesNoRoomForTheEchoIsSkipped) {
    Open();
    for (size_t header = 44; header <= 60; header += 4) {
        SCOPED_TRACE(header);
        icmp::Packet reply = OwnReply(1);
        reply.options = std::string(header - icmp::kIpHeader, '\0');
        reply.data.resize(icmp::kDatagram - header - icmp::kHeader);
        ASSERT_EQ(icmp::kDatagram, reply.Bytes().size());
        ExpectSkipped(reply.Bytes());

        reply.type = icmp::kUnreachable;
        ExpectEnd(reply.Bytes());
        ExpectReplyLeft();
    }
}

TEST_F(ForeignReply, EveryLengthThatAnIpHeaderClaimsIsRead) {
    Open();
    // As the first bytes of the IP header, or of its addresses, are no reply.
    for (int words = 0; words < 16; ++words) {
        SCOPED_TRACE(words);
        Inbox inbox;
        std::string datagram = OwnReply(1).Bytes();
        datagram[0] = static_cast<char>(0x40 | words);
        std::fill(datagram.begin() + 1, datagram.begin() + 20, '\x11');
        inbox.Put(datagram);
        inbox.Put(OwnReply(2).Bytes());
        unsigned short sequence = 0;
        EXPECT_TRUE(socket.RecvPingPacket(0, sequence));
        EXPECT_EQ(words == 5 ? 1 : 2, sequence);
    }
}

// --- Deadline and round-trip time ---

/// Where a wait stands after datagrams of others were read, each of which took `step`.
struct Wait {
    size_t reads;
    std::string function;
};

TEST_F(IcmpSocket, DeadlineIsTheTimeoutFromNowOn) {
    Open();
    const auto wait = [&](int32_t seconds, int32_t milliseconds, int timeout, int step) {
        socket.SetTimeout(timeout);
        Clock clock(seconds, milliseconds);
        Inbox inbox;
        inbox.OnRead([&] { clock.Advance(step); });
        icmp::Echo echo = OwnEcho(Ip(kLoopback));
        ++echo.tid;
        for (int i = 0; i < 10; ++i) inbox.Put(Reply(echo, 1).Bytes());
        unsigned short sequence = 0;
        EXPECT_FALSE(socket.RecvPingPacket(0, sequence));
        EXPECT_EQ(ETIMEDOUT, socket.GetError());
        return Wait{10 - inbox.Left(), socket.GetErrorFunction()};
    };
    const auto expect = [](size_t reads, const char* function, const Wait& found) {
        EXPECT_EQ(reads, found.reads);
        EXPECT_EQ(function, found.function);
    };
    // Reached exactly, and missed by a millisecond.
    expect(3, kRecvPing, wait(100, 600, 1500, 500));
    expect(4, kRecvPing, wait(100, 600, 1501, 500));
    expect(3, kRecvPing, wait(100, 600, 1499, 500));
    expect(1, kRecvPing, wait(100, 999, 1, 1));
    expect(2, kRecvPing, wait(100, 0, 2000, 1000));
    expect(4, kRecvPing, wait(100, 600, 400, 100));
    expect(0, kRecvPing, wait(100, 600, 0, 100));
    expect(0, kRecvPing, wait(100, 600, -5, 100));
    // 32-bit seconds: a deadline beyond the last second has passed long ago, and one that the clock leaves
    // behind by wrapping never passes.
    expect(0, kRecvPing, wait(INT32_MAX, 600, 1500, 100));
    expect(0, kRecvPing, wait(INT32_MAX, 600, 400, 100));
    expect(3, kRecvPing, wait(INT32_MAX, 600, 300, 100));
    expect(10, kRecvFrom, wait(INT32_MAX, 600, 300, 500));
    expect(4, kRecvPing, wait(INT32_MAX - 1, 600, 400, 100));
}

TEST_F(IcmpSocket, PassedDeadlineIsRecordedAndTraced) {
    Open();
    LearnPeers();
    EXPECT_TRUE(socket.SetTimeout(0));
    unsigned short sequence = 3;
    const fake::Journal journal;
    EXPECT_FALSE(socket.RecvPingPacket(Ip("10.1.2.3"), sequence));
    EXPECT_TRUE(Recorded(socket, ETIMEDOUT, kRecvPing));
    EXPECT_TRUE(trace.Has("no ping reply fd=%d from=%x", {socket.GetSocket(), 0x0A010203}));
    EXPECT_EQ(Texts{}, journal.Texts());
    EXPECT_TRUE(TookTime(*socket.GetRoundtripTime(), 0, 0));
    EXPECT_EQ(3, sequence);
    EXPECT_EQ("10.1.2.3", Text(*socket.GetLastPeer()));
}

TEST_F(IcmpSocket, RoundTripIsTheTimeSinceTheRequestWasSent) {
    Open();
    const auto round_trip = [&](KovaTimeSpec sent, int32_t seconds, int32_t milliseconds) {
        Inbox inbox;
        const Clock clock(seconds, milliseconds);
        icmp::Echo echo = OwnEcho(Ip(kLoopback));
        echo.seconds = sent.seconds;
        echo.milliseconds = sent.milliseconds;
        inbox.Put(Reply(echo, 1).Bytes());
        unsigned short sequence = 0;
        EXPECT_TRUE(socket.RecvPingPacket(0, sequence));
        return *socket.GetRoundtripTime();
    };
    EXPECT_TRUE(TookTime(round_trip({10, 100}, 10, 100), 0, 0));
    EXPECT_TRUE(TookTime(round_trip({10, 100}, 12, 350), 2, 250));
    EXPECT_TRUE(TookTime(round_trip({10, 900}, 12, 100), 1, 200));
    EXPECT_TRUE(TookTime(round_trip({10, 999}, 11, 0), 0, 1));
    EXPECT_TRUE(TookTime(round_trip({INT32_MAX, 500}, INT32_MIN, 600), 1, 100));
    EXPECT_TRUE(TookTime(round_trip({20, 0}, 10, 500), -10, 500));
}

// --- Ping ---

TEST_F(IcmpSocket, PingOpensSendsAndReceivesInThisOrder) {
    socket.Plant(EIO);
    fake::Journal journal;
    EXPECT_EQ(1, socket.Ping(Ip(kLoopback), 3));
    Texts texts = journal.Texts();
    ASSERT_EQ(8u + 5u, texts.size());
    EXPECT_EQ("socket AF_INET SOCK_RAW 1", texts.front());
    texts.erase(texts.begin(), texts.begin() + 8);
    const std::string select = SelectText("fd", "", "{1, 0}");
    // The kernel gives a copy of the request, which is skipped.
    EXPECT_EQ((Texts{"sendto 52 MSG_NOSIGNAL 127.0.0.1:0", select, "recvfrom 72 MSG_TRUNC", select,
                     "recvfrom 72 MSG_TRUNC"}),
              texts);
    EXPECT_TRUE(HasNoError(socket));
    EXPECT_TRUE(trace.Has("ping fd=%d to=%x result=%d", {socket.GetSocket(), kLoopbackNumber, 1}));
    EXPECT_EQ(1u, trace.All().size());
    EXPECT_EQ(KOVA_SOCKET_ICMP, socket.GetMode()) << "it stays open";

    journal.Clear();
    EXPECT_EQ(1, socket.Ping(Ip(kLoopback), 1));
    EXPECT_EQ(5u, journal.Entries().size());
}

TEST_F(IcmpSocket, PingWithoutAnswerTriesAgainAfterEachTimeout) {
    const icmp::Silence silence;
    constexpr int kTimeout = 50;
    Open(kTimeout);
    LearnPeers();
    const fake::Journal journal{&fake::sendto};
    const Stopwatch watch;
    EXPECT_EQ(0, socket.Ping(Ip(kLoopback), 3));
    // A deadline begins with a millisecond that has begun before.
    EXPECT_GE(watch.Ms(), 3 * (kTimeout - 1));
    Texts sequences;
    for (const fake::Entry& entry : journal.Entries()) sequences.push_back(entry.data.substr(4, 4));
    EXPECT_EQ((Texts{std::string("\0\1\0\1", 4), std::string("\0\2\0\2", 4), std::string("\0\3\0\3", 4)}),
              sequences);
    EXPECT_TRUE(Recorded(socket, ETIMEDOUT, kRecvFrom));
    EXPECT_TRUE(trace.Has("ping fd=%d to=%x result=%d", {socket.GetSocket(), kLoopbackNumber, 0}));
    EXPECT_TRUE(TookTime(*socket.GetRoundtripTime(), 0, 0));
}

TEST_F(IcmpSocket, PingEndsWithTheFirstAnswer) {
    Open();
    Outbox outbox;
    Inbox inbox;
    inbox.PutPause();
    inbox.Put(OwnReply(2).Bytes());
    EXPECT_EQ(1, socket.Ping(Ip(kLoopback), 5));
    EXPECT_EQ((Texts{"1 to 127.0.0.1", "2 to 127.0.0.1"}), outbox.requests);
    EXPECT_TRUE(HasNoError(socket));
}

TEST_F(IcmpSocket, PingTakesTheReplyToAnEarlierAttempt) {
    Open();
    Outbox outbox;
    Inbox inbox;
    inbox.PutPause();
    inbox.Put(OwnReply(1).Bytes());
    EXPECT_EQ(1, socket.Ping(Ip(kLoopback), 5));
    EXPECT_EQ(2u, outbox.requests.size());
}

TEST_F(IcmpSocket, PingAcceptsRepliesOfItsAddressOnly) {
    Open();
    Outbox outbox;
    Inbox inbox;
    inbox.Put(Reply(OwnEcho(Ip("127.0.0.2")), 1).Bytes());
    EXPECT_EQ(0, socket.Ping(Ip(kLoopback), 1));
    EXPECT_EQ(ETIMEDOUT, socket.GetError());
}

TEST_F(IcmpSocket, PingWithoutTriesSendsNothing) {
    Open();
    const fake::Journal journal;
    for (const int tries : {0, -1, INT_MIN}) {
        socket.Plant(EIO);
        EXPECT_EQ(0, socket.Ping(Ip(kLoopback), tries));
        EXPECT_TRUE(HasNoError(socket));
    }
    EXPECT_EQ(Texts{}, journal.Texts());
    EXPECT_EQ(3u, trace.Count("ping fd=%d to=%x result=%d"));
}

TEST_F(IcmpSocket, PingEndsWithTheFirstFailingSend) {
    Open();
    const fake::Script sends(fake::sendto, {fake::Fail(ENOBUFS)});
    const fake::Counter attempts(fake::sendto);
    const fake::Counter waits(fake::select);
    EXPECT_EQ(0, socket.Ping(Ip("10.1.2.3"), 3));
    EXPECT_EQ(1u, attempts.Calls());
    EXPECT_EQ(0u, waits.Calls());
    EXPECT_TRUE(Recorded(socket, ENOBUFS, kSendTo));
    EXPECT_TRUE(trace.Has("icmp send fd=%d to=%x", {socket.GetSocket(), 0x0A010203}));
    EXPECT_TRUE(trace.Has("ping fd=%d to=%x result=%d", {socket.GetSocket(), 0x0A010203, 0}));
}

TEST_F(IcmpSocket, PingWithoutRouteIsNoAnswer) {
    EXPECT_EQ(0, socket.Ping(Ip("203.0.113.1"), 3));
    EXPECT_TRUE(Recorded(socket, ENETUNREACH, kSendTo));
    EXPECT_EQ("203.0.113.1", Text(*socket.GetLastPeer()));
}

TEST_F(IcmpSocket, PingThatCannotOpenIsMinusOne) {
    const fake::Always sockets(fake::socket, fake::Fail(EMFILE));
    EXPECT_EQ(-1, socket.Ping(Ip(kLoopback), 1));
    EXPECT_TRUE(Recorded(socket, EMFILE, kOpen));
    unsigned address = Ip(kLoopback);
    socket.ClearError();
    EXPECT_EQ(-1, socket.MultiPing(&address, 1, 1));
    EXPECT_TRUE(Recorded(socket, EMFILE, kOpen));
    char text[] = "127.0.0.1";
    EXPECT_EQ(-1, socket.Ping(text, 1));
    EXPECT_EQ(0u, trace.Count("ping fd=%d to=%x result=%d"));
}

/// The loopback link has these addresses, too.
void GiveLoopback(const std::vector<std::string>& addresses) {
    for (const std::string& address : addresses) Shell("ip addr add " + address + "/32 dev lo");
}

void TakeFromLoopback(const std::vector<std::string>& addresses) {
    for (const std::string& address : addresses) Shell("ip addr del " + address + "/32 dev lo");
}

TEST_F(IcmpSocket, ReplyCountsOnlyWhereItArrivesAtAControlNetworkAddress) {
    const std::vector<std::string> counting{kControlled, "10.253.25.255", "127.0.0.200"};
    const std::vector<std::string> others{kElsewhere, "10.253.26.1", "127.0.1.1"};
    GiveLoopback(counting);
    GiveLoopback(others);
    Open(kLongTimeout);
    for (const std::string& address : counting) {
        EXPECT_EQ(1, socket.Ping(Ip(address.c_str()), 1)) << address;
        EXPECT_TRUE(HasNoError(socket));
        EXPECT_EQ(address, Text(*socket.GetLastLocal()));
    }
    for (const std::string& address : others) {
        trace.Clear();
        const fake::Counter sends(fake::sendto);
        EXPECT_EQ(0, socket.Ping(Ip(address.c_str()), 3)) << address;
        EXPECT_TRUE(Recorded(socket, ETIMEDOUT, kPing));
        EXPECT_EQ(1u, sends.Calls()) << "it was a reply all the same";
        EXPECT_EQ(address, Text(*socket.GetLastLocal()));
        EXPECT_EQ(address, Text(*socket.GetLastPeer()));
        EXPECT_EQ(1u, trace.All().size()) << "the outcome alone is traced";
        EXPECT_TRUE(
            trace.Has("ping fd=%d to=%x result=%d", {socket.GetSocket(), ntohl(Ip(address.c_str())), 0}));
    }
    TakeFromLoopback(counting);
    TakeFromLoopback(others);
}

TEST_F(IcmpSocket, AddressOfThisHostDecidesAndNotThatOfTheOther) {
    Open();
    Outbox outbox;
    for (const auto& [from, to, wanted] :
         {std::tuple{kElsewhere, kControlled, 1}, {kControlled, kElsewhere, 0}}) {
        Inbox inbox;
        icmp::Packet reply = Reply(OwnEcho(Ip(from)), 1, from);
        reply.to = Ip(to);
        inbox.Put(reply.Bytes());
        EXPECT_EQ(wanted, socket.Ping(Ip(from), 1));
    }
}

TEST_F(IcmpSocket, PingsByText) {
    char numeric[] = "127.0.0.1";
    EXPECT_EQ(1, socket.Ping(numeric, 1));
    char short_form[] = "127.1";
    EXPECT_EQ(1, socket.Ping(short_form, 1));
    EXPECT_EQ(2u, trace.Find("ping fd=%d to=%x result=%d").size());
    EXPECT_TRUE(trace.Has("ping fd=%d to=%x result=%d", {socket.GetSocket(), kLoopbackNumber, 1}));
}

TEST_F(IcmpSocket, TextThatIsNoAddressIsInvalid) {
    char name[] = "localhost";
    char empty[] = "";
    char five[] = "1.2.3.4.5";
    char ip6[] = "::1";
    const fake::Journal journal;
    for (char* const text : {name, empty, five, ip6, static_cast<char*>(nullptr)}) {
        socket.Plant(EIO);
        trace.Clear();
        EXPECT_EQ(-1, socket.Ping(text, 1));
        EXPECT_TRUE(Recorded(socket, EINVAL, kPingText));
        EXPECT_TRUE(trace.Has("ping of no address"));
    }
    EXPECT_EQ(Texts{}, journal.Texts());
    EXPECT_EQ(KOVA_SOCKET_CLOSED, socket.GetMode());
}

TEST_F(IcmpSocket, SignalEndsTheAttempt) {
    const icmp::Silence silence;
    Open(kLongTimeout);
    const SignalStorm storm({::pthread_self()});
    const Stopwatch watch;
    EXPECT_EQ(0, socket.Ping(Ip(kLoopback), 3));
    EXPECT_LT(watch.Ms(), kLongTimeout);
    EXPECT_TRUE(Recorded(socket, ETIMEDOUT, kRecvFrom));
    EXPECT_EQ(3u, trace.Count("wait fd=%d errno=%d"));
    EXPECT_TRUE(trace.Has("wait fd=%d errno=%d", {socket.GetSocket(), EINTR}));
}

// --- MultiPing ---

TEST_F(IcmpSocket, MultiPingCountsTheRepliesOfARound) {
    const std::vector<std::string> elsewhere{kElsewhere};
    GiveLoopback(elsewhere);
    socket.SetTimeout(kShortTimeout);
    socket.Plant(EIO);
    unsigned addresses[] = {Ip(kLoopback), Ip("127.0.0.2"), Ip(kElsewhere), Ip(kLoopback)};
    EXPECT_EQ(4, socket.MultiPing(addresses, 4, 1)) << "duplicates count, and so does any network";
    EXPECT_EQ(ETIMEDOUT, socket.GetError());
    EXPECT_EQ(KOVA_SOCKET_ICMP, socket.GetMode());
    EXPECT_TRUE(trace.Has("multi ping fd=%d to=%x %x %x %x",
                          {socket.GetSocket(), kLoopbackNumber, 0x7F000002, 0x0A050501, kLoopbackNumber}));
    EXPECT_TRUE(TookTime(*socket.GetRoundtripTime(), 0, 0));
    TakeFromLoopback(elsewhere);
}

TEST_F(IcmpSocket, MultiPingGivesTheBestRound) {
    Open();
    Outbox outbox;
    Inbox inbox;
    for (const int replies : {1, 3, 2}) {
        // Of any address, one that was not asked included.
        for (int i = 0; i < replies; ++i) inbox.Put(Reply(OwnEcho(Ip("10.9.9.9")), 1).Bytes());
        inbox.PutPause();
    }
    unsigned addresses[] = {Ip("10.1.1.1"), Ip("10.1.1.2")};
    EXPECT_EQ(3, socket.MultiPing(addresses, 2, 3));
    EXPECT_EQ((Texts{"1 to 10.1.1.1", "1 to 10.1.1.2", "2 to 10.1.1.1", "2 to 10.1.1.2", "3 to 10.1.1.1",
                     "3 to 10.1.1.2"}),
              outbox.requests);
    EXPECT_EQ(0u, inbox.Left());
    EXPECT_TRUE(
        trace.Has("multi ping fd=%d to=%x %x %x %x", {socket.GetSocket(), 0x0A010101, 0x0A010102, 0, 0}));
}

TEST_F(IcmpSocket, MultiPingTracesTheFirstFourAddresses) {
    Open();
    const Outbox outbox;
    const Inbox inbox;
    unsigned addresses[5];
    for (unsigned i = 0; i < 5; ++i) addresses[i] = htonl(0x0A000001 + i);
    EXPECT_EQ(0, socket.MultiPing(addresses, 5, 1));
    EXPECT_EQ(5u, outbox.requests.size());
    EXPECT_TRUE(trace.Has("multi ping fd=%d to=%x %x %x %x",
                          {socket.GetSocket(), 0x0A000001, 0x0A000002, 0x0A000003, 0x0A000004}));
}

TEST_F(IcmpSocket, MultiPingGoesOnWhileAnyRequestIsSent) {
    Open();
    Inbox inbox;
    inbox.Put(OwnReply(1).Bytes());
    inbox.PutPause();
    inbox.Put(OwnReply(2).Bytes());
    inbox.Put(OwnReply(2).Bytes());
    inbox.PutPause();
    const fake::Script sends(
        fake::sendto, {fake::Fail(ENETUNREACH), fake::Return(52), fake::Return(52), fake::Fail(ENETUNREACH),
                       fake::Fail(ENETUNREACH), fake::Fail(EHOSTUNREACH)});
    const fake::Counter attempts(fake::sendto);
    unsigned addresses[] = {Ip("10.1.1.1"), Ip("10.1.1.2")};
    EXPECT_EQ(2, socket.MultiPing(addresses, 2, 9));
    EXPECT_EQ(6u, attempts.Calls()) << "the third round sent nothing";
    EXPECT_TRUE(Recorded(socket, EHOSTUNREACH, kSendTo));
}

TEST_F(IcmpSocket, MultiPingOfNobodyIsZero) {
    Open();
    const fake::Journal journal;
    unsigned addresses[] = {Ip(kLoopback)};
    EXPECT_EQ(0, socket.MultiPing(addresses, 0, 3));
    EXPECT_EQ(0, socket.MultiPing(nullptr, 3, 3));
    EXPECT_TRUE(trace.Has("multi ping fd=%d to=%x %x %x %x", {socket.GetSocket(), 0, 0, 0, 0}));
    EXPECT_EQ(0, socket.MultiPing(addresses, 1, 0));
    EXPECT_EQ(0, socket.MultiPing(addresses, 1, -1));
    EXPECT_EQ(Texts{}, journal.Texts());
}

// --- Checksum and address rule ---

/// The checksum of bytes that are laid into words.
unsigned short ChecksumOf(KovaIcmpSocket& socket, const std::string& bytes) {
    std::vector<unsigned short> words(bytes.size() / 2 + 1);
    std::memcpy(words.data(), bytes.data(), bytes.size());
    return socket.CalculateChecksum(words.data(), static_cast<int>(bytes.size()));
}

TEST_F(IcmpSocket, ChecksumIsThatOfTheInternet) {
    // The example of RFC 1071: the sum is DDF2.
    EXPECT_EQ(htons(0x220D), ChecksumOf(socket, std::string("\x00\x01\xF2\x03\xF4\xF5\xF6\xF7", 8)));
    EXPECT_EQ(htons(static_cast<uint16_t>(~(0x0102 + 0x0300))), ChecksumOf(socket, "\x01\x02\x03"));
    EXPECT_EQ(0xFFFF, ChecksumOf(socket, ""));
    EXPECT_EQ(0x0000, ChecksumOf(socket, "\xFF\xFF"));
    EXPECT_EQ(htons(0x00FF), ChecksumOf(socket, "\xFF"));
    unsigned short words[] = {1, 2};
    EXPECT_EQ(0xFFFF, socket.CalculateChecksum(words, -1));
}

TEST_F(IcmpSocket, ChecksumFoldsEveryCarry) {
    std::string bytes;
    uint32_t random = 1;
    for (int length = 0; length < 3000; ++length) {
        ASSERT_EQ(htons(icmp::Checksum(bytes)), ChecksumOf(socket, bytes)) << length;
        random = random * 1103515245 + 12345;
        bytes += length % 3 == 0 ? '\xFF' : static_cast<char>(random >> 24);
    }
    const std::string ones(65534, '\xFF');
    EXPECT_EQ(0, ChecksumOf(socket, ones));
    EXPECT_EQ(htons(icmp::Checksum(ones + '\1')), ChecksumOf(socket, ones + '\1'));
}

TEST_F(IcmpSocket, ControlNetworkIsTheseThreeNetworks) {
    for (const char* const inside : {"10.253.24.0", "10.253.24.17", "10.253.24.255", "10.253.25.0",
                                     "10.253.25.255", "127.0.0.0", "127.0.0.1", "127.0.0.255"}) {
        EXPECT_TRUE(socket.IsVOXAAddr(Ip(inside))) << inside;
    }
    for (const char* const outside :
         {"10.253.23.255", "10.253.26.1", "10.253.0.24", "10.252.24.1", "10.254.24.1", "11.253.24.1",
          "127.0.1.1", "127.1.0.1", "126.0.0.1", "128.0.0.1", "0.0.0.0", "255.255.255.255", "17.24.253.10",
          "1.0.0.127"}) {
        EXPECT_FALSE(socket.IsVOXAAddr(Ip(outside))) << outside;
    }
}

// --- Another host ---

class IcmpSocketAndHost : public IcmpSocket {
  protected:
    IcmpSocketAndHost() {
        Shell("ip addr add 10.253.25.1/24 dev kl0");
        Shell("ip addr add 10.5.5.1/24 dev kl0");
        other.Do([] {
            Shell("ip addr add 10.253.25.2/24 dev kl1");
            Shell("ip addr add 10.5.5.2/24 dev kl1");
        });
    }

    SecondHost other;
};

TEST_F(IcmpSocketAndHost, AnswersAndTheReplyCountsWhereItArrives) {
    Open(kLongTimeout);
    EXPECT_EQ(1, socket.Ping(Ip("10.253.25.2"), 1));
    EXPECT_EQ("10.253.25.2", Text(*socket.GetLastPeer()));
    EXPECT_EQ("10.253.25.1", Text(*socket.GetLastLocal()));
    EXPECT_EQ(0, socket.Ping(Ip("10.5.5.2"), 1));
    EXPECT_TRUE(Recorded(socket, ETIMEDOUT, kPing));
    EXPECT_EQ("10.5.5.2", Text(*socket.GetLastPeer()));
    EXPECT_EQ("10.5.5.1", Text(*socket.GetLastLocal()));
}

TEST_F(IcmpSocketAndHost, ReceivesThe52BytesThatWereSent) {
    std::optional<icmp::Watcher> watcher;
    other.Do([&] { watcher.emplace(); });
    Open(kLongTimeout);
    const Clock clock(7, 8);
    ASSERT_TRUE(socket.SendPingPacket(Ip("10.253.25.2"), 0x0102));
    icmp::Packet wanted;
    wanted.type = icmp::kEchoRequest;
    wanted.identifier = wanted.sequence = 0x0102;
    wanted.data = icmp::EchoData(OwnEcho(Ip("10.253.25.2")));
    const std::string datagram = watcher->Next(icmp::kEchoRequest);
    EXPECT_EQ(wanted.IcmpBytes(), datagram.substr(icmp::kIpHeader));
    EXPECT_EQ(icmp::AddressBytes(Ip("10.253.25.1")), datagram.substr(12, 4));
}

TEST_F(IcmpSocketAndHost, MultiPingCountsTheHostsThatAnswer) {
    Open(1500);
    // Nobody has the address of the second; nothing comes back for it within the time-out.
    unsigned addresses[] = {Ip("10.253.25.2"), Ip("10.253.25.9"), Ip("10.5.5.2")};
    EXPECT_EQ(2, socket.MultiPing(addresses, 3, 1));
}

TEST_F(IcmpSocketAndHost, KernelsUnreachableEndsTheWaitLongBeforeTheTimeout) {
    other.Do([] { Shell("echo 1 >/proc/sys/net/ipv4/ip_forward"); });
    Shell("ip route add 10.99.0.0/16 via 10.253.25.2");
    Open(kLongTimeout);
    const Stopwatch watch;
    EXPECT_EQ(0, socket.Ping(Ip("10.99.1.1"), 1));
    EXPECT_LT(watch.Ms(), kLongTimeout);
    // It quotes the whole request: more than a reply's size.
    EXPECT_TRUE(Recorded(socket, EMSGSIZE, kRecvFrom));
    EXPECT_TRUE(trace.Has("icmp datagram fd=%d received=%d wanted=%u errno=%d",
                          {socket.GetSocket(), 100, 72, EMSGSIZE}));
    EXPECT_TRUE(TookTime(*socket.GetRoundtripTime(), 0, 0));
}

// --- Many at once ---

constexpr int kProcesses = 4;
constexpr int kThreads = 4;
constexpr int kPings = 40;

struct Tally {
    int answered = 0;
    int wrong = 0;
};

/// Pings an address that nobody else pings, and takes a reply from any.
Tally PingAlone(in_addr_t to) {
    constexpr int kTimeout = 2000;
    Tally tally;
    KovaIcmpSocket socket;
    socket.SetTimeout(kTimeout);
    for (int i = 0; i < kPings; ++i) {
        const auto sent = static_cast<unsigned short>(i * 100 + ntohl(to) % 100);
        unsigned short received = 0;
        // A socket's buffer overflows when its thread does not run for long.
        if (!socket.SendPingPacket(to, sent) || !socket.RecvPingPacket(0, received)) continue;
        ++tally.answered;
        if (received != sent || socket.GetLastPeer()->GetIp() != to) ++tally.wrong;
    }
    return tally;
}

KOVA_PART(pinger) {
    std::vector<Tally> tallies(kThreads);
    process::Tell("ready");
    process::Listen();
    {
        std::vector<std::unique_ptr<DeadlineThread>> threads;
        for (size_t i = 0; i < kThreads; ++i) {
            const std::string to = "10.253.25." + std::to_string(std::stoi(args.at(0)) + static_cast<int>(i));
            threads.push_back(std::make_unique<DeadlineThread>(
                [&tally = tallies[i], ip = Ip(to.c_str())] { tally = PingAlone(ip); }));
        }
    }
    Tally all{kPings, 0};
    for (const Tally& tally : tallies) {
        all.answered = std::min(all.answered, tally.answered);
        all.wrong += tally.wrong;
    }
    process::Tell(std::to_string(all.answered) + " " + std::to_string(all.wrong));
    return 0;
}

TEST_F(IcmpSocketAndHost, ProcessesAndThreadsThatPingAtOnceGetTheirOwnReplies) {
    constexpr int kFirst = 100;
    other.Do([] {
        for (int i = 0; i < kProcesses * kThreads; ++i)
            Shell("ip addr add 10.253.25." + std::to_string(kFirst + i) + "/24 dev kl1");
    });
    std::vector<std::unique_ptr<process::Process>> pingers;
    for (int i = 0; i < kProcesses; ++i) {
        pingers.push_back(std::make_unique<process::Process>(
            "pinger", std::vector<std::string>{std::to_string(kFirst + i * kThreads)}));
    }
    for (const auto& pinger : pingers) EXPECT_EQ("ready", pinger->Hear());
    for (const auto& pinger : pingers) pinger->Say("go");
    for (const auto& pinger : pingers) {
        std::istringstream line(pinger->Hear());
        int answered = 0;
        int wrong = -1;
        line >> answered >> wrong;
        EXPECT_EQ(0, wrong) << "replies of others were taken";
        EXPECT_LT(kPings / 2, answered) << "of the thread that was answered least";
        EXPECT_EQ(0, pinger->Wait());
    }
}

}  // namespace
