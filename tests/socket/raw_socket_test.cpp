#include "socket/frames/frames.h"
#include "support/fake_libc.h"
#include "support/icmp_peer.h"
#include "support/leak_check.h"
#include "support/recorded.h"
#include "support/second_host.h"
#include "support/signal_storm.h"
#include "support/trace_recorder.h"

#include <kova/process.h>
#include <kova/raw_socket.h>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <net/if.h>
#include <netinet/in.h>
#include <netpacket/packet.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <functional>
#include <set>
#include <string>
#include <type_traits>
#include <vector>

namespace {

using icmp::Ip;
using Texts = std::vector<std::string>;

constexpr char kOpen[] = "virtual bool KovaRawSocket::Open()";
constexpr char kSetSocket[] = "bool KovaRawSocket::SetSocket(KovaSocketT)";
constexpr char kWaitForData[] = "bool KovaRawSocket::WaitForData(KovaWaitModeT)";
constexpr char kPeekFrom[] = "bool KovaRawSocket::PeekFrom(void*, size_t)";
constexpr char kRecvFrom[] = "bool KovaRawSocket::RecvFrom(void*, size_t)";
constexpr char kCheckPacket[] = "bool KovaRawSocket::CheckPacket(void*, size_t)";
constexpr char kSendTo[] = "bool KovaRawSocket::SendTo(const void*, size_t, const KovaInetAddr&)";
constexpr char kRecvPingPacket[] =
    "bool KovaRawSocket::RecvPingPacket(in_addr_t, short unsigned int&, int, unsigned int, unsigned int)";
constexpr char kPing[] = "int32_t KovaRawSocket::Ping(in_addr_t, int32_t)";
constexpr char kPingText[] = "int32_t KovaRawSocket::Ping(char*, int)";
constexpr char kMultiPing[] = "int32_t KovaRawSocket::MultiPing(unsigned int*, unsigned int, int)";

constexpr int kShortTimeout = 20;
constexpr int kLongTimeout = 60000;

constexpr int kBadHeader = KovaBaseObject::KOVA_ERR_BAD_HEADER;
constexpr int kWrongProtocol = KovaBaseObject::KOVA_ERR_WRONG_PROTOCOL;
constexpr int kBadVersion = KovaBaseObject::KOVA_ERR_BAD_VERSION;
constexpr int kForeignReply = KovaBaseObject::KOVA_ERR_FOREIGN_REPLY;

// Addresses of hosts, the first within the control network.
const in_addr_t kVoxaHere = Ip("10.253.24.1");
const in_addr_t kVoxaThere = Ip("10.253.24.2");
const in_addr_t kOtherHere = Ip("10.9.0.1");
const in_addr_t kOtherThere = Ip("10.9.0.2");
const in_addr_t kLoopback = Ip("127.0.0.1");

/// A socket whose error record a test can fill.
class Raw : public KovaRawSocket {
  public:
    void Plant(int code) { _SetError_("planted", 1, code); }
    int Timeout() const { return m_Timeout; }
};

template <typename Value>
std::string Bytes(const Value& value) {
    static_assert(!std::is_pointer_v<Value>);
    return {reinterpret_cast<const char*>(&value), sizeof value};
}

bool Check(KovaRawSocket& socket, std::string frame) {
    return socket.CheckPacket(frame.data(), frame.size());
}

std::string Mac(const KovaMacAddr& address) { return address.Ascii(); }

/// An echo reply within IPv4, and on Ethernet.
icmp::Packet Reply(const icmp::Echo& echo, uint16_t sequence = 1) {
    icmp::Packet reply;
    reply.from = kVoxaThere;
    reply.to = kVoxaHere;
    reply.identifier = reply.sequence = sequence;
    reply.data = icmp::EchoData(echo);
    return reply;
}

std::string OnEthernet(const icmp::Packet& packet) { return frames::OnEthernet(packet.Bytes()); }

/// A raw socket that hears what the test feeds it, and nothing else.
class FedSocket : public Raw {
  public:
    FedSocket() {
        auto [own, peer] = SocketPair(SOCK_SEQPACKET);
        EXPECT_TRUE(SetSocket(own.Release()));
        SetMode(KOVA_SOCKET_RAW);
        SetTimeout(kShortTimeout);
        m_Peer = std::move(peer);
    }

    void Feed(const std::string& frame) const {
        EXPECT_EQ(static_cast<ssize_t>(frame.size()),
                  fake::send.Real(m_Peer, frame.data(), frame.size(), MSG_NOSIGNAL));
    }
    /// What the reply to a request of this thread on this socket says.
    icmp::Echo Echo() const {
        return {kVoxaThere,
                GetSocket(),
                static_cast<uint32_t>(KovaGetPid()),
                static_cast<uint32_t>(KovaGetTid()),
                0,
                0};
    }

  private:
    Fd m_Peer;
};

/// Takes what is sent to the network, and lets a function answer.
class FakeNetwork {
  public:
    struct Request {
        std::string data;
        in_addr_t to;

        unsigned Sequence() const { return static_cast<unsigned char>(data.at(7)); }
    };

    explicit FakeNetwork(std::function<void(const Request&)> answer = [](const Request&) {})
        : m_Answer(std::move(answer)),
          m_Hook(fake::sendto,
                 [this](int, const void* data, size_t size, int, const sockaddr* to, socklen_t) {
                     sockaddr_in address;
                     std::memcpy(&address, to, sizeof address);
                     requests.push_back({{static_cast<const char*>(data), size}, address.sin_addr.s_addr});
                     m_Answer(requests.back());
                     return static_cast<ssize_t>(size);
                 }) {}

    /// The frame with the reply to a request, as it arrives at `here`.
    static std::string ReplyTo(const Request& request, in_addr_t here) {
        icmp::Packet reply;
        reply.from = request.to;
        reply.to = here;
        reply.identifier = reply.sequence = static_cast<uint16_t>(request.Sequence());
        reply.data = request.data.substr(icmp::kHeader);
        return OnEthernet(reply);
    }

    std::vector<unsigned> Sequences() const {
        std::vector<unsigned> all;
        for (const Request& request : requests) all.push_back(request.Sequence());
        return all;
    }

    std::vector<Request> requests;

  private:
    const std::function<void(const Request&)> m_Answer;
    const fake::Always<ssize_t(int, const void*, size_t, int, const sockaddr*, socklen_t)> m_Hook;
};

/// The monotonic clock of this thread: stands still, or goes on by some milliseconds whenever it is read.
class FakeClock {
  public:
    explicit FakeClock(int64_t ms, int64_t step = 0)
        : m_Now(ms),
          m_Hook(
              fake::clock_gettime,
              [this, step](clockid_t, timespec* time) {
                  if (at_reading) at_reading();
                  time->tv_sec = static_cast<time_t>(m_Now / 1000);
                  time->tv_nsec = static_cast<long>(m_Now % 1000 * 1000000);
                  m_Now += step;
                  return 0;
              },
              fake::kThisThread) {}

    std::function<void()> at_reading;

  private:
    int64_t m_Now;
    const fake::Always<int(clockid_t, timespec*)> m_Hook;
};

/// Takes away what a process needs to open raw sockets.
void DropPrivileges() {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct none[2] = {};
    EXPECT_EQ(0, ::syscall(SYS_capset, &header, none));
}

class RawSocket : public KovaTest {
  protected:
    const TraceRecorder recorder;
};

// Construction

TEST_F(RawSocket, StartsClosedWithoutPeersAndFrame) {
    Raw socket;
    EXPECT_EQ(-1, socket.GetSocket());
    EXPECT_EQ(KOVA_SOCKET_CLOSED, socket.GetMode());
    EXPECT_EQ(1000, socket.Timeout());
    EXPECT_EQ(0u, socket.Received());
    for (KovaInetAddr* const address : {socket.GetLastPeer(), socket.GetLastLocal()}) {
        EXPECT_EQ(0u, address->GetIp());
        EXPECT_EQ(0, address->GetPort());
    }
    EXPECT_FALSE(socket.GetLastPeerMAC()->IsValid());
    EXPECT_FALSE(socket.GetLastLocalMAC()->IsValid());
    EXPECT_EQ(-1, socket.GetLastVLANId());
    EXPECT_EQ(-1, socket.GetLastVLANPrio());
    EXPECT_FALSE(socket.GetLastWasVLAN());
    EXPECT_EQ(0, socket.GetLastProtocol());
    for (const unsigned offset : {socket.GetFrameOffset(), socket.GetEthernetOffset(), socket.GetIPOffset(),
                                  socket.GetProtocolOffset(), socket.GetDataOffset(), socket.GetDataLen()})
        EXPECT_EQ(0u, offset);
    EXPECT_EQ(0, socket.GetRoundtripTime()->seconds);
    EXPECT_EQ(0, socket.GetRoundtripTime()->milliseconds);
    EXPECT_EQ(KovaBaseObject::KOVA_ERR_NONE, socket.GetError());
    EXPECT_EQ(nullptr, socket.GetErrorFunction());
}

TEST_F(RawSocket, CannotBeCopied) {
    static_assert(!std::is_copy_constructible_v<KovaRawSocket>);
    static_assert(!std::is_copy_assignable_v<KovaRawSocket>);
    static_assert(std::is_base_of_v<KovaSocketWrapper, KovaRawSocket>);
}

TEST_F(RawSocket, DestructorClosesBothDescriptors) {
    std::set<int> open;
    const fake::Journal journal{&fake::socket, &fake::close};
    {
        Raw socket;
        socket.SendTo("", 0, KovaInetAddr(kLoopback, 0));
        for (const fake::Entry& entry : journal.Entries(fake::socket)) open.insert(entry.fd);
        EXPECT_EQ(2u, open.size());
        EXPECT_EQ(1u, open.count(socket.GetSocket()));
    }
    for (const fake::Entry& entry : journal.Entries(fake::close)) EXPECT_EQ(1u, open.erase(entry.fd));
    EXPECT_TRUE(open.empty());
}

// Open

TEST_F(RawSocket, OpenMakesAPacketSocketAndReplaysTheOptionsInThisOrder) {
    Raw socket;
    const fake::Journal journal;
    ASSERT_TRUE(socket.Open());
    EXPECT_EQ(
        (Texts{"socket AF_PACKET SOCK_RAW " + std::to_string(htons(3)), "fcntl F_SETFD 1", "ioctl FIONBIO 1",
               "setsockopt SOL_SOCKET SO_DONTROUTE 0", "setsockopt SOL_SOCKET SO_BROADCAST 0",
               "setsockopt SOL_SOCKET SO_SNDTIMEO {1, 0}", "setsockopt SOL_SOCKET SO_RCVTIMEO {1, 0}"}),
        journal.Texts());
    EXPECT_EQ(6u, static_cast<unsigned>(socket.GetMode()));
    EXPECT_EQ(FD_CLOEXEC, ::fcntl(socket.GetSocket(), F_GETFD));
    EXPECT_EQ(0, socket.GetError());
    EXPECT_TRUE(recorder.All().empty());
}

TEST_F(RawSocket, OpenAppliesWhatWasAskedForBefore) {
    Raw socket;
    socket.SetTimeout(2500);
    socket.SetBlocking(true);
    socket.SetRouting(false);
    socket.SetBroadcast(true);
    socket.BindToDevice("lo");
    const fake::Journal journal{&fake::ioctl, &fake::setsockopt};
    ASSERT_TRUE(socket.Open());
    EXPECT_EQ((Texts{"ioctl FIONBIO 0", "setsockopt SOL_SOCKET SO_DONTROUTE 1",
                     "setsockopt SOL_SOCKET SO_BROADCAST 1", "setsockopt SOL_SOCKET SO_BINDTODEVICE \"lo\" 3",
                     "setsockopt SOL_SOCKET SO_SNDTIMEO {2, 500000}",
                     "setsockopt SOL_SOCKET SO_RCVTIMEO {2, 500000}"}),
              journal.Texts());
}

TEST_F(RawSocket, OpenOfAnOpenSocketIsTrueAndChangesNothing) {
    Raw socket;
    ASSERT_TRUE(socket.Open());
    const fake::Journal journal;
    EXPECT_TRUE(socket.Open());
    EXPECT_EQ(Texts{}, journal.Texts());
}

TEST_F(RawSocket, OpenOfATakenOverSocketIsFalseAndChangesNothing) {
    Raw socket;
    auto [own, peer] = SocketPair();
    ASSERT_TRUE(socket.SetSocket(own.Release()));
    const fake::Journal journal;
    EXPECT_FALSE(socket.Open());
    EXPECT_EQ(Texts{}, journal.Texts());
    EXPECT_EQ(KOVA_SOCKET_CONNECTED, socket.GetMode());
}

TEST_F(RawSocket, OpenFailsWithTheErrnoOfSocket) {
    Raw socket;
    const fake::Script sockets(fake::socket, {fake::Fail(EMFILE)});
    EXPECT_FALSE(socket.Open());
    EXPECT_TRUE(Recorded(socket, EMFILE, kOpen));
    EXPECT_TRUE(recorder.Has("open raw errno=%d", {EMFILE}));
    EXPECT_TRUE(recorder.Has("socket errno=%d", {EMFILE}));
    EXPECT_EQ(KOVA_SOCKET_CLOSED, socket.GetMode());
    EXPECT_EQ(-1, socket.GetSocket());
}

TEST_F(RawSocket, OpenEndsWithTheFirstOptionThatIsRefused) {
    const struct {
        int option;  ///< 0: FIONBIO
        const char* function;
        Texts before;
    } cases[] = {
        {0, "bool KovaSocketWrapper::Ioctl(long unsigned int, const void*)", {}},
        {SO_DONTROUTE, "virtual bool KovaSocketWrapper::SetRouting(bool)", {}},
        {SO_BROADCAST,
         "virtual bool KovaSocketWrapper::SetBroadcast(bool)",
         {"setsockopt SOL_SOCKET SO_DONTROUTE 0"}},
        {SO_BINDTODEVICE,
         "bool KovaSocketWrapper::BindToDevice(const char*)",
         {"setsockopt SOL_SOCKET SO_DONTROUTE 0", "setsockopt SOL_SOCKET SO_BROADCAST 0"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.function);
        Raw socket;
        socket.BindToDevice("lo");
        const fake::Journal journal{&fake::setsockopt};
        fake::Always ioctls(fake::ioctl, fake::Fail(ENODEV));
        ioctls.When([&](int, unsigned long, void*) { return c.option == 0; });
        fake::Always options(fake::setsockopt, fake::Fail(ENODEV));
        options.When([&](int, int, int option, const void*, socklen_t) { return option == c.option; });
        EXPECT_FALSE(socket.Open());
        EXPECT_TRUE(Recorded(socket, ENODEV, c.function));
        EXPECT_EQ(KOVA_SOCKET_RAW, socket.GetMode());
        Texts seen = journal.Texts();
        if (c.option != 0) seen.pop_back();
        EXPECT_EQ(c.before, seen);
    }
}

TEST_F(RawSocket, OpenIsTrueWithoutTimeouts) {
    for (const int refused : {SO_SNDTIMEO, SO_RCVTIMEO}) {
        Raw socket;
        fake::Always options(fake::setsockopt, fake::Fail(EDOM));
        options.When([&](int, int, int option, const void*, socklen_t) { return option == refused; });
        EXPECT_TRUE(socket.Open());
        EXPECT_EQ(1u, options.Calls());
        EXPECT_EQ(EDOM, socket.GetError());
        EXPECT_EQ(KOVA_SOCKET_RAW, socket.GetMode());
    }
}

TEST_F(RawSocket, IsRefusedToTheUnprivileged) {
    const ChildResult child = RunInChild([] {
        DropPrivileges();
        const TraceRecorder traces;
        Raw socket;
        char byte;
        unsigned short sequence = 0;
        unsigned address = kLoopback;

        EXPECT_FALSE(socket.Open());
        EXPECT_TRUE(Recorded(socket, EPERM, kOpen));
        EXPECT_TRUE(traces.Has("open raw errno=%d", {EPERM}));

        EXPECT_FALSE(socket.RecvFrom(&byte, 1));
        EXPECT_TRUE(Recorded(socket, EPERM, kOpen));
        EXPECT_TRUE(traces.Has("raw receive without socket code=%d", {EPERM}));

        EXPECT_TRUE(socket.SendTo("x", 1, KovaInetAddr(kLoopback, 0))) << "nothing was sent, and yet";
        EXPECT_TRUE(Recorded(socket, EPERM, kOpen));
        EXPECT_TRUE(traces.Has("raw send without socket to=%x", {0x7F000001}));
        EXPECT_EQ(0u, socket.GetLastPeer()->GetIp());

        EXPECT_TRUE(socket.SendPingPacket(kLoopback, 1)) << "nothing was sent, and yet";
        *socket.GetRoundtripTime() = {7, 8};
        EXPECT_FALSE(socket.RecvPingPacket(kLoopback, sequence, -1, 0, 0));
        EXPECT_TRUE(Recorded(socket, EPERM, kOpen));
        EXPECT_EQ(0, socket.GetRoundtripTime()->seconds);
        EXPECT_EQ(0, socket.GetRoundtripTime()->milliseconds);

        socket.Plant(EDOM);
        EXPECT_EQ(-1, socket.Ping(kLoopback, 1));
        EXPECT_TRUE(Recorded(socket, EPERM, kOpen));
        EXPECT_EQ(-1, socket.MultiPing(&address, 1, 1));
        EXPECT_TRUE(Recorded(socket, ENOTSOCK, kMultiPing));
        EXPECT_EQ(KOVA_SOCKET_CLOSED, socket.GetMode());
    });
    EXPECT_EQ(0, child.exit_code) << child.output;
}

// Close

TEST_F(RawSocket, CloseDropsWhatIsUnsentAndShutsDown) {
    Raw socket;
    ASSERT_TRUE(socket.Open());
    const int fd = socket.GetSocket();
    socket.Plant(EDOM);
    const fake::Journal journal;
    socket.Close();
    EXPECT_EQ((Texts{"setsockopt SOL_SOCKET SO_LINGER {1, 0}", "shutdown SHUT_RDWR", "close"}),
              journal.Texts(fd));
    EXPECT_EQ(3u, journal.Texts().size());
    EXPECT_EQ(0, socket.GetError());
    EXPECT_EQ(KOVA_SOCKET_CLOSED, socket.GetMode());
    EXPECT_EQ(-1, socket.GetSocket());
    EXPECT_FALSE(IsOpenFd(fd));
}

TEST_F(RawSocket, CloseForgetsTheVlanAndKeepsThePeers) {
    Raw socket;
    ASSERT_TRUE(Check(socket, frames::Tagged(frames::Named("CapturedUdp"), 0x6123)));
    socket.Close();
    EXPECT_EQ(-1, socket.GetLastVLANId());
    EXPECT_EQ(-1, socket.GetLastVLANPrio());
    EXPECT_FALSE(socket.GetLastWasVLAN());
    EXPECT_EQ(kVoxaHere, socket.GetLastPeer()->GetIp());
    EXPECT_TRUE(socket.GetLastPeerMAC()->IsValid());
    EXPECT_EQ(18u, socket.GetIPOffset());
}

TEST_F(RawSocket, CloseOfAClosedSocketOnlyClearsTheError) {
    Raw socket;
    socket.Plant(EDOM);
    const fake::Journal journal;
    socket.Close();
    EXPECT_EQ(Texts{}, journal.Texts());
    EXPECT_EQ(0, socket.GetError());
}

TEST_F(RawSocket, RefusedLingerIsTracedOnly) {
    Raw socket;
    ASSERT_TRUE(socket.Open());
    const int fd = socket.GetSocket();
    const fake::Script options(fake::setsockopt, {fake::Fail(EINVAL)});
    socket.Close();
    EXPECT_TRUE(recorder.Has("linger fd=%d errno=%d", {fd, EINVAL}));
    EXPECT_EQ(0, socket.GetError());
    EXPECT_FALSE(IsOpenFd(fd));
}

TEST_F(RawSocket, CanBeOpenedAndClosedAgainAndAgain) {
    Raw socket;
    for (int i = 0; i < 50; ++i) {
        EXPECT_TRUE(socket.Open());
        EXPECT_TRUE(socket.SendPingPacket(kLoopback, 1));
        socket.Close();
    }
}

// SetSocket

TEST_F(RawSocket, TakesOverADescriptorAndClosesIt) {
    auto [own, peer] = SocketPair();
    const int fd = own.Release();
    {
        Raw socket;
        socket.Plant(EDOM);
        EXPECT_TRUE(socket.SetSocket(fd));
        EXPECT_EQ(0, socket.GetError());
        EXPECT_EQ(fd, socket.GetSocket());
        EXPECT_EQ(KOVA_SOCKET_CONNECTED, socket.GetMode());
        EXPECT_TRUE(IsOpenFd(fd));
    }
    EXPECT_FALSE(IsOpenFd(fd));
}

TEST_F(RawSocket, TakesOverNoSecondDescriptor) {
    for (const bool taken_over : {false, true}) {
        Raw socket;
        auto [own, peer] = SocketPair();
        if (taken_over) {
            socket.SetSocket(own.Release());
        } else {
            socket.Open();
        }
        const int fd = socket.GetSocket();
        EXPECT_FALSE(socket.SetSocket(peer));
        EXPECT_TRUE(Recorded(socket, KovaBaseObject::KOVA_ERR_ALREADY_OPEN, kSetSocket));
        EXPECT_TRUE(recorder.Has("open already fd=%d", {fd}));
        EXPECT_EQ(fd, socket.GetSocket());
    }
}

TEST_F(RawSocket, TakenOverDescriptorNeitherReceivesNorPings) {
    Raw socket;
    auto [own, peer] = SocketPair(SOCK_SEQPACKET);
    ASSERT_TRUE(socket.SetSocket(own.Release()));
    const int fd = socket.GetSocket();
    char byte;
    unsigned address = kLoopback;
    unsigned short sequence = 77;
    const fake::Journal journal;

    EXPECT_FALSE(socket.RecvFrom(&byte, 1));
    EXPECT_TRUE(Recorded(socket, ENOTSOCK, kRecvFrom));
    EXPECT_TRUE(recorder.Has("no raw socket fd=%d", {fd}));
    EXPECT_TRUE(recorder.Has("raw receive without socket code=%d", {ENOTSOCK}));

    EXPECT_TRUE(socket.SendTo("x", 1, KovaInetAddr(kLoopback, 0))) << "nothing was sent, and yet";
    EXPECT_TRUE(Recorded(socket, ENOTSOCK, kSendTo));
    EXPECT_TRUE(recorder.Has("raw send without socket to=%x", {0x7F000001}));
    EXPECT_EQ(0u, socket.GetLastPeer()->GetIp());

    EXPECT_TRUE(socket.SendPingPacket(kLoopback, 1));
    EXPECT_EQ(ENOTSOCK, socket.GetError());

    EXPECT_FALSE(socket.RecvPingPacket(kLoopback, sequence, 0, 0, 0));
    EXPECT_TRUE(Recorded(socket, ENOTSOCK, kRecvPingPacket));
    EXPECT_EQ(77, sequence);

    EXPECT_EQ(-1, socket.Ping(kLoopback, 1));
    EXPECT_TRUE(Recorded(socket, ENOTSOCK, kPing));
    EXPECT_EQ(-1, socket.MultiPing(&address, 1, 1));
    EXPECT_TRUE(Recorded(socket, ENOTSOCK, kMultiPing));
    EXPECT_TRUE(recorder.Has("raw multi ping without socket, mode=%u", {3}));

    EXPECT_EQ(Texts{}, journal.Texts());
    EXPECT_EQ(fd, socket.GetSocket()) << "it stays open";
}

// WaitForData

TEST_F(RawSocket, WaitsForWhatTheModeNames) {
    FedSocket socket;
    EXPECT_FALSE(socket.WaitForData(KOVA_WAIT_READ));
    EXPECT_TRUE(Recorded(socket, ETIMEDOUT, kWaitForData));
    EXPECT_TRUE(socket.WaitForData(KOVA_WAIT_WRITE));
    EXPECT_TRUE(socket.WaitForData(KOVA_WAIT_READ | KOVA_WAIT_WRITE));
    socket.Feed("frame");
    EXPECT_TRUE(socket.WaitForData(KOVA_WAIT_READ));
    EXPECT_FALSE(socket.WaitForData(static_cast<KovaWaitModeT>(0))) << "exceptional conditions only";
    EXPECT_EQ(ETIMEDOUT, socket.GetError());
    EXPECT_TRUE(recorder.All().empty()) << "a time-out is not traced";
}

TEST_F(RawSocket, WaitsOnItsDescriptorForTheTimeout) {
    FedSocket socket;
    socket.SetTimeout(2500);
    const int fd = socket.GetSocket();
    for (const unsigned mode : {0u, 1u, 2u, 3u}) {
        const fake::Script selects(
            fake::select, {[&](int n, fd_set* read, fd_set* write, fd_set* except, timeval* timeout) {
                EXPECT_EQ(fd + 1, n);
                EXPECT_EQ((mode & 1) != 0, FD_ISSET(fd, read) != 0);
                EXPECT_EQ((mode & 2) != 0, FD_ISSET(fd, write) != 0);
                EXPECT_TRUE(FD_ISSET(fd, except));
                EXPECT_EQ(2, timeout->tv_sec);
                EXPECT_EQ(500000, timeout->tv_usec);
                return 0;
            }});
        EXPECT_FALSE(socket.WaitForData(static_cast<KovaWaitModeT>(mode)));
    }
}

TEST_F(RawSocket, WaitsAgainAfterTenMillisecondsWhenTheKernelIsBusy) {
    FedSocket socket;
    socket.Feed("frame");
    const fake::Script selects(fake::select, {fake::Fail(EINPROGRESS), fake::Fail(EAGAIN), fake::Real()});
    const fake::Always sleeps(fake::nanosleep, [](const timespec* request, timespec*) {
        EXPECT_EQ(0, request->tv_sec);
        EXPECT_EQ(10000000, request->tv_nsec);
        return 0;
    });
    EXPECT_TRUE(socket.WaitForData(KOVA_WAIT_READ));
    EXPECT_EQ(2u, sleeps.Calls());
    EXPECT_EQ(2u, recorder.Count("select n=%d code=%d"));
}

TEST_F(RawSocket, WaitThatFailsIsRecorded) {
    FedSocket socket;
    for (const int error : {EINTR, EBADF, ENOMEM}) {
        const fake::Script selects(fake::select, {fake::Fail(error)});
        EXPECT_FALSE(socket.WaitForData(KOVA_WAIT_READ));
        EXPECT_TRUE(Recorded(socket, error, kWaitForData));
        EXPECT_TRUE(recorder.Has("wait fd=%d errno=%d", {socket.GetSocket(), error}));
    }
}

TEST_F(RawSocket, ExceptionalConditionIsTraced) {
    FedSocket socket;
    const int fd = socket.GetSocket();
    const fake::Script selects(fake::select, {[](int, fd_set* read, fd_set*, fd_set*, timeval*) {
                                   FD_ZERO(read);
                                   return 1;
                               }});
    EXPECT_FALSE(socket.WaitForData(KOVA_WAIT_READ)) << "neither readable nor writable";
    EXPECT_TRUE(recorder.Has("exceptional condition fd=%d", {fd}));
    EXPECT_EQ(0, socket.GetError());
}

// PeekFrom, RecvFrom

TEST_F(RawSocket, PeekLeavesTheFrameAndReceiveTakesIt) {
    FedSocket socket;
    const std::string& udp = frames::Named("CapturedUdp");
    socket.Feed(udp);
    char buffer[128];
    const fake::Journal journal{&fake::recvfrom};
    for (const bool peek : {true, true, false}) {
        std::memset(buffer, 0, sizeof buffer);
        socket.Plant(EDOM);
        EXPECT_TRUE(peek ? socket.PeekFrom(buffer, sizeof buffer) : socket.RecvFrom(buffer, sizeof buffer));
        EXPECT_EQ(udp, std::string(buffer, socket.Received()));
        EXPECT_EQ(0, socket.GetError());
        EXPECT_EQ(htons(20003), socket.GetLastLocal()->GetPort());
        EXPECT_EQ("nobody listens here", std::string(buffer + socket.GetDataOffset(), socket.GetDataLen()));
    }
    EXPECT_EQ((Texts{"recvfrom 128 MSG_PEEK", "recvfrom 128 MSG_PEEK", "recvfrom 128 0"}), journal.Texts());
    EXPECT_FALSE(socket.RecvFrom(buffer, sizeof buffer));
}

TEST_F(RawSocket, BaseCountsTheSameBytes) {
    FedSocket socket;
    const KovaSocketWrapper& base = socket;
    const std::string& udp = frames::Named("CapturedUdp");
    socket.Feed(udp);
    char buffer[128];
    EXPECT_TRUE(socket.RecvFrom(buffer, sizeof buffer));
    EXPECT_EQ(udp.size(), base.Received());
    EXPECT_FALSE(socket.PeekFrom(buffer, sizeof buffer));
    EXPECT_EQ(0u, base.Received());
}

TEST_F(RawSocket, PeekThatTimesOutIsTracedAndReceiveIsNot) {
    FedSocket socket;
    socket.Feed(frames::Named("CapturedUdp"));
    char buffer[128];
    ASSERT_TRUE(socket.RecvFrom(buffer, sizeof buffer));

    EXPECT_FALSE(socket.RecvFrom(buffer, sizeof buffer));
    EXPECT_TRUE(Recorded(socket, ETIMEDOUT, kRecvFrom));
    EXPECT_EQ(0u, socket.Received());
    EXPECT_TRUE(recorder.All().empty());

    socket.Feed(frames::Named("CapturedUdp"));
    ASSERT_TRUE(socket.RecvFrom(buffer, sizeof buffer));
    EXPECT_FALSE(socket.PeekFrom(buffer, sizeof buffer));
    EXPECT_EQ(0u, socket.Received());
    EXPECT_TRUE(Recorded(socket, ETIMEDOUT, kPeekFrom));
    EXPECT_TRUE(recorder.Has("raw peek fd=%d ms=%d", {socket.GetSocket(), kShortTimeout}));
}

TEST_F(RawSocket, PeekDoesNotOpenAndReceiveDoes) {
    Raw socket;
    socket.SetTimeout(0);
    char buffer[128];
    const fake::Counter sockets(fake::socket);
    EXPECT_FALSE(socket.PeekFrom(buffer, sizeof buffer));
    EXPECT_TRUE(Recorded(socket, ETIMEDOUT, kPeekFrom));
    EXPECT_EQ(0u, sockets.Calls());
    EXPECT_FALSE(socket.RecvFrom(buffer, sizeof buffer));
    EXPECT_EQ(1u, sockets.Calls());
    EXPECT_EQ(KOVA_SOCKET_RAW, socket.GetMode());
}

TEST_F(RawSocket, PeeksAtATakenOverDescriptor) {
    Raw socket;
    auto [own, peer] = SocketPair(SOCK_SEQPACKET);
    ASSERT_TRUE(socket.SetSocket(own.Release()));
    const std::string& udp = frames::Named("CapturedUdp");
    ASSERT_EQ(static_cast<ssize_t>(udp.size()), ::send(peer, udp.data(), udp.size(), 0));
    char buffer[128];
    EXPECT_TRUE(socket.PeekFrom(buffer, sizeof buffer));
    EXPECT_EQ(udp.size(), socket.Received());
}

TEST_F(RawSocket, FailedReadIsRecordedAndReceivesNothing) {
    FedSocket socket;
    const std::string& udp = frames::Named("CapturedUdp");
    char buffer[128];
    for (const bool peek : {true, false}) {
        socket.Feed(udp);
        ASSERT_TRUE(socket.RecvFrom(buffer, sizeof buffer));
        socket.Feed(udp);
        const fake::Script reads(fake::recvfrom, {fake::Fail(ENETDOWN)});
        EXPECT_FALSE(peek ? socket.PeekFrom(buffer, 128) : socket.RecvFrom(buffer, 128));
        EXPECT_TRUE(Recorded(socket, ENETDOWN, peek ? kPeekFrom : kRecvFrom));
        EXPECT_TRUE(recorder.Has("raw read fd=%d errno=%d", {socket.GetSocket(), ENETDOWN}));
        EXPECT_EQ(0u, socket.Received());
        EXPECT_EQ(kVoxaHere, socket.GetLastPeer()->GetIp()) << "of the frame before";
        EXPECT_TRUE(socket.RecvFrom(buffer, sizeof buffer));
    }
}

TEST_F(RawSocket, FrameThatCannotBeDecodedIsTakenNevertheless) {
    FedSocket socket;
    char buffer[128];
    for (const std::string name : {"CapturedArpRequest", "MadeUdpOf13Bytes", "MadeUdpOf0Bytes"}) {
        const std::string& frame = frames::Named(name);
        socket.Feed(frame);
        EXPECT_FALSE(socket.PeekFrom(buffer, sizeof buffer));
        EXPECT_FALSE(socket.RecvFrom(buffer, sizeof buffer));
        EXPECT_TRUE(Recorded(socket, kWrongProtocol, kCheckPacket));
        EXPECT_EQ(frame.size(), socket.Received());
        EXPECT_FALSE(socket.RecvFrom(buffer, sizeof buffer));
        EXPECT_EQ(ETIMEDOUT, socket.GetError());
    }
}

TEST_F(RawSocket, ReceivesAsMuchAsTheBufferHolds) {
    FedSocket socket;
    socket.Feed(frames::Named("CapturedUdp"));
    std::string buffer(50, '\x55');
    EXPECT_TRUE(socket.RecvFrom(buffer.data(), 45));
    EXPECT_EQ(45u, socket.Received());
    EXPECT_EQ(3u, socket.GetDataLen());
    EXPECT_EQ(std::string(5, '\x55'), buffer.substr(45));
}

TEST_F(RawSocket, SignalEndsAWait) {
    FedSocket socket;
    char byte;
    const fake::Script selects(fake::select, {fake::Fail(EINTR), fake::Fail(EINTR)});
    EXPECT_FALSE(socket.RecvFrom(&byte, 1));
    EXPECT_TRUE(Recorded(socket, ETIMEDOUT, kRecvFrom));
    EXPECT_TRUE(recorder.Has("wait fd=%d errno=%d", {socket.GetSocket(), EINTR}));
    EXPECT_FALSE(socket.PeekFrom(&byte, 1));
    EXPECT_TRUE(Recorded(socket, ETIMEDOUT, kPeekFrom));
}

// CheckPacket

TEST_F(RawSocket, DecodesAUdpFrame) {
    Raw socket;
    ASSERT_TRUE(Check(socket, frames::Named("CapturedUdp")));
    EXPECT_EQ(kVoxaHere, socket.GetLastPeer()->GetIp());
    EXPECT_EQ(kVoxaThere, socket.GetLastLocal()->GetIp());
    EXPECT_EQ(htons(40001), socket.GetLastPeer()->GetPort());
    EXPECT_EQ(htons(20003), socket.GetLastLocal()->GetPort());
    EXPECT_EQ("02:00:00:00:00:01", Mac(*socket.GetLastPeerMAC()));
    EXPECT_EQ("02:00:00:00:00:02", Mac(*socket.GetLastLocalMAC()));
    EXPECT_EQ(-1, socket.GetLastVLANId());
    EXPECT_FALSE(socket.GetLastWasVLAN());
    EXPECT_EQ(17, socket.GetLastProtocol());
    EXPECT_EQ(0u, socket.GetFrameOffset());
    EXPECT_EQ(0u, socket.GetEthernetOffset());
    EXPECT_EQ(14u, socket.GetIPOffset());
    EXPECT_EQ(34u, socket.GetProtocolOffset());
    EXPECT_EQ(42u, socket.GetDataOffset());
    EXPECT_EQ(19u, socket.GetDataLen());
    EXPECT_EQ(0, socket.GetError());
    EXPECT_EQ(0u, socket.Received()) << "of a read only";
    EXPECT_TRUE(recorder.All().empty());
}

TEST_F(RawSocket, DecodesATcpFrameWithTwentyBytesOfHeader) {
    Raw socket;
    ASSERT_TRUE(Check(socket, frames::Named("CapturedTcpData")));
    EXPECT_EQ(htons(59730), socket.GetLastPeer()->GetPort());
    EXPECT_EQ(htons(20005), socket.GetLastLocal()->GetPort());
    EXPECT_EQ(6, socket.GetLastProtocol());
    EXPECT_EQ(54u, socket.GetDataOffset());
    EXPECT_EQ(17u, socket.GetDataLen()) << "twelve bytes of options, and \"frame\"";
}

TEST_F(RawSocket, TypeOfAnIcmpPacketStandsInForBothPorts) {
    Raw socket;
    ASSERT_TRUE(Check(socket, frames::Named("CapturedPingRequest")));
    EXPECT_EQ(8, socket.GetLastPeer()->GetPort());
    EXPECT_EQ(8, socket.GetLastLocal()->GetPort());
    EXPECT_EQ(42u, socket.GetDataOffset());
    EXPECT_EQ(44u, socket.GetDataLen());
    ASSERT_TRUE(Check(socket, frames::Named("CapturedPortUnreachable")));
    EXPECT_EQ(3, socket.GetLastPeer()->GetPort());
    EXPECT_EQ(3, socket.GetLastLocal()->GetPort());
}

TEST_F(RawSocket, OtherProtocolsHaveNoPortsAndAreDataAltogether) {
    Raw socket;
    ASSERT_TRUE(Check(socket, frames::Named("CapturedUdp")));
    ASSERT_TRUE(Check(socket, frames::Named("CapturedIgmpReport")));
    EXPECT_EQ(0, socket.GetLastPeer()->GetPort());
    EXPECT_EQ(0, socket.GetLastLocal()->GetPort());
    EXPECT_EQ(2, socket.GetLastProtocol());
    EXPECT_EQ(38u, socket.GetProtocolOffset());
    EXPECT_EQ(0u, socket.GetDataOffset());
    EXPECT_EQ(54u, socket.GetDataLen());
}

TEST_F(RawSocket, ShortTransportHeaderLeavesThePorts) {
    for (const std::string name : {"MadeUdpOf41Bytes", "MadeTcpOf53Bytes", "MadePingOf61Bytes"}) {
        Raw socket;
        ASSERT_TRUE(Check(socket, frames::Named("CapturedUdp")));
        EXPECT_TRUE(Check(socket, frames::Named(name))) << name;
        EXPECT_EQ(htons(40001), socket.GetLastPeer()->GetPort());
        EXPECT_EQ(htons(20003), socket.GetLastLocal()->GetPort());
        EXPECT_EQ(34u, socket.GetProtocolOffset());
        EXPECT_EQ(0u, socket.GetDataOffset());
        EXPECT_EQ(0u, socket.GetDataLen());
    }
}

TEST_F(RawSocket, TransportHeaderThatJustFitsIsRead) {
    const struct {
        const char* name;
        unsigned data, size;
    } cases[] = {
        {"MadeTcpOf54Bytes", 54, 0}, {"MadePingOf62Bytes", 42, 20}, {"CapturedUdpWithOptions", 46, 0}};
    for (const auto& c : cases) {
        Raw socket;
        EXPECT_TRUE(Check(socket, frames::Named(c.name)));
        EXPECT_EQ(c.data, socket.GetDataOffset()) << c.name;
        EXPECT_EQ(c.size, socket.GetDataLen()) << c.name;
    }
}

TEST_F(RawSocket, TagGivesFourBitsOfTheVlanAndThePriority) {
    const struct {
        uint16_t control_word;
        int vlan, priority;
    } cases[] = {{0x6123, 3, 3}, {0, 0, 0}, {0xFFFF, 15, 7}, {0x0FF0, 0, 0}, {0x1008, 8, 0}, {0x2001, 1, 1}};
    for (const auto& c : cases) {
        Raw socket;
        EXPECT_TRUE(Check(socket, frames::Tagged(frames::Named("CapturedUdp"), c.control_word)));
        EXPECT_EQ(c.vlan, socket.GetLastVLANId());
        EXPECT_EQ(c.priority, socket.GetLastVLANPrio());
        EXPECT_TRUE(socket.GetLastWasVLAN());
        EXPECT_EQ(18u, socket.GetIPOffset());
        EXPECT_EQ(kVoxaHere, socket.GetLastPeer()->GetIp());
        EXPECT_EQ("02:00:00:00:00:01", Mac(*socket.GetLastPeerMAC()));
    }
}

TEST_F(RawSocket, TypeBehindATagIsNotLookedAt) {
    Raw socket;
    EXPECT_TRUE(Check(socket, frames::Named("TaggedNeighborSolicitation")));
    EXPECT_TRUE(socket.GetLastWasVLAN());
    EXPECT_EQ(18u, socket.GetIPOffset());
}

TEST_F(RawSocket, VlanIsKeptWhileFramesAreNeitherTaggedNorIpv4) {
    Raw socket;
    ASSERT_TRUE(Check(socket, frames::Tagged(frames::Named("CapturedUdp"), 0x6123)));
    EXPECT_FALSE(Check(socket, frames::Named("CapturedArpRequest")));
    EXPECT_EQ(3, socket.GetLastVLANId());
    EXPECT_EQ(3, socket.GetLastVLANPrio());
    EXPECT_FALSE(socket.GetLastWasVLAN());
    EXPECT_FALSE(Check(socket, frames::Named("MadeUdpOf14Bytes"))) << "the type of IPv4, and nothing else";
    EXPECT_EQ(-1, socket.GetLastVLANId());
    EXPECT_EQ(-1, socket.GetLastVLANPrio());
}

void ExpectNoEnds(KovaRawSocket& socket) {
    for (KovaInetAddr* const address : {socket.GetLastPeer(), socket.GetLastLocal()}) {
        EXPECT_EQ(0u, address->GetIp());
        EXPECT_EQ(0, address->GetPort());
    }
    EXPECT_FALSE(socket.GetLastPeerMAC()->IsValid());
    EXPECT_FALSE(socket.GetLastLocalMAC()->IsValid());
}

TEST_F(RawSocket, FrameWithoutIpv4IsAWrongProtocol) {
    const struct {
        const char* name;
        unsigned ip;
    } cases[] = {{"MadeUdpOf0Bytes", 0},
                 {"MadeUdpOf13Bytes", 0},
                 {"MadeUdpOf14Bytes", 14},
                 {"MadeTaggedPingOf17Bytes", 0},
                 {"MadeTaggedPingOf18Bytes", 18},
                 {"CapturedArpRequest", 0},
                 {"CapturedNeighborSolicitation", 0},
                 {"TaggedByAProvider", 0}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Raw socket;
        const TraceRecorder traces;
        const std::string& frame = frames::Named(c.name);
        ASSERT_TRUE(Check(socket, frames::Named("CapturedUdp")));
        EXPECT_FALSE(Check(socket, frame));
        EXPECT_TRUE(Recorded(socket, kWrongProtocol, kCheckPacket));
        EXPECT_TRUE(traces.Has("frame not decoded size=%u code=%d",
                               {static_cast<int64_t>(frame.size()), kWrongProtocol}));
        ExpectNoEnds(socket);
        EXPECT_EQ(c.ip, socket.GetIPOffset());
        EXPECT_EQ(0u, socket.GetProtocolOffset());
        EXPECT_EQ(0u, socket.GetDataOffset());
        EXPECT_EQ(0u, socket.GetDataLen());
        EXPECT_EQ(17, socket.GetLastProtocol()) << "of the frame before";
    }
}

TEST_F(RawSocket, NoBufferIsAWrongProtocol) {
    Raw socket;
    EXPECT_FALSE(socket.CheckPacket(nullptr, 100));
    EXPECT_TRUE(Recorded(socket, kWrongProtocol, kCheckPacket));
    EXPECT_TRUE(recorder.Has("frame not decoded size=%u code=%d", {100, kWrongProtocol}));
    ExpectNoEnds(socket);
}

TEST_F(RawSocket, HeaderBeyondTheEndIsABadHeader) {
    for (const std::string name :
         {"MadeFifteenWordsInFortyBytes", "MadeUdpOf15Bytes", "MadeUdpOf33Bytes", "MadeTaggedPingOf19Bytes",
          "MadeTaggedPingOf37Bytes", "MadeHeaderOf15Words"}) {
        SCOPED_TRACE(name);
        Raw socket;
        const TraceRecorder traces;
        const std::string& frame = frames::Named(name);
        ASSERT_TRUE(Check(socket, frames::Named("CapturedUdp")));
        EXPECT_FALSE(Check(socket, frame));
        EXPECT_TRUE(Recorded(socket, kBadHeader, kCheckPacket));
        EXPECT_TRUE(traces.Has("frame not decoded size=%u code=%d",
                               {static_cast<int64_t>(frame.size()), kBadHeader}));
        ExpectNoEnds(socket);
        EXPECT_EQ(0u, socket.GetProtocolOffset());
    }
}

TEST_F(RawSocket, HeaderOfFewerThanTwentyBytesIsTakenWhereTwentyAre) {
    for (const unsigned words : {0u, 4u}) {
        Raw socket;
        EXPECT_TRUE(Check(socket, frames::Named("MadeHeaderOf" + std::to_string(words) + "Words")));
        EXPECT_EQ(14 + 4 * words, socket.GetProtocolOffset());
        EXPECT_EQ(EIO, socket.GetError()) << "the length is in the checksum";
    }
}

TEST_F(RawSocket, WrongHeaderChecksumIsRecordedAndTheFrameTaken) {
    Raw socket;
    EXPECT_TRUE(Check(socket, frames::Named("MadeWrongChecksum")));
    EXPECT_TRUE(Recorded(socket, EIO, kCheckPacket));
    EXPECT_TRUE(recorder.Has("IP header checksum from=%x", {0x0AFD1801}));
    EXPECT_EQ(htons(20003), socket.GetLastLocal()->GetPort());
    EXPECT_EQ(19u, socket.GetDataLen());
}

TEST_F(RawSocket, ChecksumIsThatOfTheHeaderWithoutItsOptions) {
    Raw socket;
    EXPECT_TRUE(Check(socket, frames::Named("CapturedUdpWithOptions")));
    EXPECT_EQ(EIO, socket.GetError()) << "its checksum is right, but covers options";
    EXPECT_EQ(38u, socket.GetProtocolOffset());

    icmp::Packet packet;
    packet.options = std::string(4, '\0');
    EXPECT_TRUE(Check(socket, OnEthernet(packet)));
    Raw other;
    EXPECT_TRUE(Check(other, OnEthernet(packet)));
    EXPECT_EQ(0, other.GetError()) << "options of zeros do not change the sum";
}

TEST_F(RawSocket, DecodingAFrameLeavesTheErrorThatWasThere) {
    Raw socket;
    socket.Plant(EDOM);
    EXPECT_TRUE(Check(socket, frames::Named("CapturedUdp")));
    EXPECT_EQ(EDOM, socket.GetError());
}

// SendTo

TEST_F(RawSocket, FirstSendOpensBothSocketsAndTheNextOnlySends) {
    Raw socket;
    socket.SetTimeout(2500);
    fake::Journal journal;
    EXPECT_TRUE(socket.SendTo("abc", 3, KovaInetAddr(kLoopback, htons(99))));
    ASSERT_EQ(2u, journal.Count(fake::socket));
    const int packet = socket.GetSocket();
    const int sender = journal.Entries(fake::socket).at(1).fd;
    EXPECT_EQ(packet, journal.Entries(fake::socket).at(0).fd);
    EXPECT_EQ((Texts{"socket AF_INET SOCK_RAW 1", "fcntl F_SETFD 1", "setsockopt SOL_RAW ICMP_FILTER 0",
                     "ioctl FIONBIO 1", "setsockopt SOL_SOCKET SO_DONTROUTE 0",
                     "setsockopt SOL_SOCKET SO_BROADCAST 0", "setsockopt SOL_SOCKET SO_SNDTIMEO {2, 500000}",
                     "setsockopt SOL_SOCKET SO_RCVTIMEO {2, 500000}", "setsockopt SOL_RAW ICMP_FILTER -1",
                     "sendto 3 MSG_NOSIGNAL 127.0.0.1:0"}),
              journal.Texts(sender));
    EXPECT_EQ("abc", journal.Entries(fake::sendto).at(0).data);
    EXPECT_EQ(kLoopback, socket.GetLastPeer()->GetIp());
    EXPECT_EQ(htons(99), socket.GetLastPeer()->GetPort()) << "as given, though it is not sent";

    journal.Clear();
    EXPECT_TRUE(socket.SendTo("abcd", 4, KovaInetAddr(kLoopback, 0)));
    EXPECT_EQ((Texts{"sendto 4 MSG_NOSIGNAL 127.0.0.1:0"}), journal.Texts());
}

TEST_F(RawSocket, SendsWithTheOptionsInForceAtTheFirstSend) {
    Raw socket;
    ASSERT_TRUE(socket.Open());
    socket.SetTimeout(1500);
    socket.SetBlocking(true);
    socket.SetRouting(false);
    socket.SetBroadcast(true);
    socket.BindToDevice("lo");
    fake::Journal journal{&fake::ioctl, &fake::setsockopt, &fake::sendto};
    EXPECT_TRUE(socket.SendTo("abc", 3, KovaInetAddr(kLoopback, 0)));
    EXPECT_EQ(
        (Texts{"setsockopt SOL_RAW ICMP_FILTER 0", "ioctl FIONBIO 0", "setsockopt SOL_SOCKET SO_DONTROUTE 1",
               "setsockopt SOL_SOCKET SO_BROADCAST 1", "setsockopt SOL_SOCKET SO_BINDTODEVICE \"lo\" 3",
               "setsockopt SOL_SOCKET SO_SNDTIMEO {1, 500000}",
               "setsockopt SOL_SOCKET SO_RCVTIMEO {1, 500000}", "setsockopt SOL_RAW ICMP_FILTER -1",
               "sendto 3 MSG_NOSIGNAL 127.0.0.1:0"}),
        journal.Texts());

    journal.Clear();
    socket.SetRouting(true);
    EXPECT_TRUE(socket.SendTo("abc", 3, KovaInetAddr(kLoopback, 0)));
    EXPECT_EQ((Texts{"setsockopt SOL_SOCKET SO_DONTROUTE 0", "sendto 3 MSG_NOSIGNAL 127.0.0.1:0"}),
              journal.Texts());
    EXPECT_EQ(socket.GetSocket(), journal.Entries(fake::setsockopt).at(0).fd) << "not the sending one";
}

TEST_F(RawSocket, CloseClosesTheSendingSocketToo) {
    Raw socket;
    fake::Journal journal{&fake::socket, &fake::close};
    EXPECT_TRUE(socket.SendTo("abc", 3, KovaInetAddr(kLoopback, 0)));
    const int sender = journal.Entries(fake::socket).at(1).fd;
    EXPECT_TRUE(IsOpenFd(sender));
    socket.Close();
    EXPECT_FALSE(IsOpenFd(sender));
    EXPECT_EQ(2u, journal.Count(fake::close));
    journal.Clear();
    EXPECT_TRUE(socket.SendTo("abc", 3, KovaInetAddr(kLoopback, 0)));
    EXPECT_EQ(2u, journal.Count(fake::socket)) << "opened anew";
}

TEST_F(RawSocket, OpenClosesTheSendingSocketOfADescriptorThatWasRemoved) {
    Raw socket;
    fake::Journal journal{&fake::socket, &fake::close, &fake::setsockopt};
    EXPECT_TRUE(socket.SendTo("abc", 3, KovaInetAddr(kLoopback, 0)));
    const int sender = journal.Entries(fake::socket).at(1).fd;
    const Fd removed(socket.RemoveSocket());
    EXPECT_EQ(0u, journal.Count(fake::close));
    socket.SetRouting(false);
    journal.Clear();
    EXPECT_TRUE(socket.SendTo("abc", 3, KovaInetAddr(kLoopback, 0)));
    ASSERT_EQ(1u, journal.Count(fake::close));
    EXPECT_EQ(sender, journal.Entries(fake::close).at(0).fd);
    const Texts options = journal.Texts(fake::setsockopt);
    EXPECT_EQ(2, std::count(options.begin(), options.end(), "setsockopt SOL_SOCKET SO_DONTROUTE 1"));
}

TEST_F(RawSocket, RefusedFilterOfTheSendingSocketIsTracedOnly) {
    Raw socket;
    ASSERT_TRUE(socket.Open());
    int sender = -1;
    fake::Script filters(fake::setsockopt, {fake::Real(), [&](int fd, int, int, const void*, socklen_t) {
                                                sender = fd;
                                                errno = ENOPROTOOPT;
                                                return -1;
                                            }});
    filters.When([](int, int level, int, const void*, socklen_t) { return level == SOL_RAW; });
    EXPECT_TRUE(socket.SendTo("abc", 3, KovaInetAddr(kLoopback, 0)));
    EXPECT_TRUE(recorder.Has("raw sender filter fd=%d errno=%d", {sender, ENOPROTOOPT}));
    EXPECT_EQ(0, socket.GetError());
}

TEST_F(RawSocket, SendingSocketQueuesNothing) {
    Raw socket;
    const fake::Journal journal{&fake::socket};
    EXPECT_TRUE(socket.SendPingPacket(kLoopback, 1));
    const int sender = journal.Entries(fake::socket).at(1).fd;
    unsigned short sequence = 0;
    const icmp::Watcher watcher;
    EXPECT_TRUE(socket.SendPingPacket(kLoopback, 2));
    watcher.Next(icmp::kEchoReply);
    EXPECT_TRUE(socket.RecvPingPacket(kLoopback, sequence, 0, 0, 0));
    char byte;
    EXPECT_EQ(-1, ::recv(sender, &byte, 1, MSG_DONTWAIT));
    EXPECT_EQ(EAGAIN, errno);
}

TEST_F(RawSocket, NothingIsSentWithoutASendingSocket) {
    Raw socket;
    ASSERT_TRUE(socket.Open());
    const fake::Counter sends(fake::sendto);
    {
        const fake::Script sockets(fake::socket, {fake::Fail(ENFILE)});
        EXPECT_FALSE(socket.SendTo("abc", 3, KovaInetAddr(kLoopback, 0)));
    }
    EXPECT_TRUE(Recorded(socket, ENFILE, kSendTo));
    EXPECT_TRUE(recorder.Has("raw send fd=%d to=%x", {socket.GetSocket(), 0x7F000001}));
    EXPECT_EQ(kLoopback, socket.GetLastPeer()->GetIp());
    EXPECT_EQ(0u, sends.Calls());
    EXPECT_EQ(KOVA_SOCKET_RAW, socket.GetMode());
    EXPECT_TRUE(socket.SendTo("abc", 3, KovaInetAddr(kLoopback, 0))) << "tried anew";
}

TEST_F(RawSocket, NothingIsSentWithoutAnOptionThatWasAskedFor) {
    Raw socket;
    ASSERT_TRUE(socket.Open());
    const int fd = socket.GetSocket();
    const fake::Journal journal{&fake::socket, &fake::sendto, &fake::close};
    fake::Always refused(fake::setsockopt, fake::Fail(EACCES));
    refused.When([](int, int, int option, const void*, socklen_t) { return option == SO_BROADCAST; });
    for (int i = 0; i < 2; ++i) {
        EXPECT_FALSE(socket.SendTo("abc", 3, KovaInetAddr(kLoopback, 0)));
        EXPECT_TRUE(Recorded(socket, EACCES, kSendTo));
        EXPECT_TRUE(recorder.Has("raw send fd=%d to=%x", {fd, 0x7F000001}));
    }
    EXPECT_EQ((Texts{"socket AF_INET SOCK_RAW 1", "close", "socket AF_INET SOCK_RAW 1", "close"}),
              journal.Texts());
}

TEST_F(RawSocket, FailedSendHasItsErrno) {
    Raw socket;
    ASSERT_TRUE(socket.Open());
    const fake::Script sends(fake::sendto, {fake::Fail(ENETUNREACH)});
    EXPECT_FALSE(socket.SendTo("abc", 3, KovaInetAddr(kLoopback, 0)));
    EXPECT_TRUE(Recorded(socket, ENETUNREACH, kSendTo));
    EXPECT_TRUE(recorder.Has("raw send fd=%d to=%x", {socket.GetSocket(), 0x7F000001}));
}

TEST_F(RawSocket, PacketThatWentOutInPartIsNotSent) {
    Raw socket;
    const fake::Script sends(fake::sendto, {fake::Return(2)});
    EXPECT_FALSE(socket.SendTo("abc", 3, KovaInetAddr(kLoopback, 0)));
    EXPECT_TRUE(Recorded(socket, EMSGSIZE, kSendTo));
}

TEST_F(RawSocket, SuccessfulSendClearsTheError) {
    Raw socket;
    socket.Plant(EDOM);
    EXPECT_TRUE(socket.SendTo("abc", 3, KovaInetAddr(kLoopback, 0)));
    EXPECT_EQ(0, socket.GetError());
}

TEST_F(RawSocket, RefusedOptionOfThePacketSocketDoesNotKeepItFromSending) {
    Raw socket;
    const fake::Script routing(fake::setsockopt, {fake::Fail(EACCES)});
    EXPECT_TRUE(socket.SendTo("abc", 3, KovaInetAddr(kLoopback, 0)));
    EXPECT_EQ(KOVA_SOCKET_RAW, socket.GetMode());
}

TEST_F(RawSocket, RefusedOptionOfThePacketSocketDoesNotKeepItFromPinging) {
    Raw socket;
    const fake::Script routing(fake::setsockopt, {fake::Fail(EACCES)});
    EXPECT_EQ(1, socket.Ping(kLoopback, 1));
}

// SendPingPacket

/// Milliseconds on the clock that the library reads.
int64_t SteadyMs() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

/// The time in a request.
int64_t Milliseconds(const std::string& bytes) {
    const auto number = [&](size_t at) {
        uint32_t value = 0;
        for (size_t i = 0; i < 4; ++i) value = value << 8 | static_cast<unsigned char>(bytes.at(at + i));
        return static_cast<int64_t>(value);
    };
    return number(24) * 1000 + number(28);
}

TEST_F(RawSocket, RequestTellsWhoSentItAndWhen) {
    Raw socket;
    const icmp::Watcher watcher;
    const int64_t before = SteadyMs();
    EXPECT_TRUE(socket.SendPingPacket(kLoopback, 0x1234));
    const std::string request = watcher.Next(icmp::kEchoRequest).substr(icmp::kIpHeader);
    const int64_t after = SteadyMs();

    ASSERT_EQ(52u, request.size());
    EXPECT_EQ(std::string("\x08\0", 2), request.substr(0, 2));
    EXPECT_EQ(0, icmp::Checksum(request));
    EXPECT_EQ("\x12\x34\x12\x34", request.substr(4, 4)) << "identifier and sequence number";
    EXPECT_EQ(icmp::AddressBytes(kLoopback), request.substr(8, 4));
    EXPECT_EQ(icmp::BigEndian(static_cast<uint32_t>(socket.GetSocket()), 4), request.substr(12, 4));
    EXPECT_EQ(icmp::BigEndian(static_cast<uint32_t>(::getpid()), 4), request.substr(16, 4));
    EXPECT_EQ(icmp::BigEndian(static_cast<uint32_t>(::gettid()), 4), request.substr(20, 4));
    EXPECT_LE(before, Milliseconds(request));
    EXPECT_GE(after, Milliseconds(request));
    EXPECT_EQ(std::string(20, '\0'), request.substr(32));
    EXPECT_EQ(KOVA_SOCKET_RAW, socket.GetMode()) << "opened";
    EXPECT_EQ(kLoopback, socket.GetLastPeer()->GetIp());
    EXPECT_EQ(0, socket.GetLastPeer()->GetPort());
}

// RecvPingPacket

class RawPing : public RawSocket {
  protected:
    /// Whether the socket takes what it is fed as a reply, and the codes of what it skipped before that.
    bool Receive(in_addr_t to = 0, int fd = 0, unsigned pid = 0, unsigned tid = 0) {
        FakeClock clock(100250);
        clock.at_reading = [&] {
            if (socket.GetError() != 0) skipped.push_back(socket.GetError());
        };
        skipped.clear();
        socket.ClearError();
        return socket.RecvPingPacket(to, sequence, fd, pid, tid);
    }

    FedSocket socket;
    unsigned short sequence = 0;
    std::vector<int> skipped;
};

using Codes = std::vector<int>;

TEST_F(RawPing, ReplyGivesItsSequenceNumberAndTheTimeThatPassed) {
    icmp::Echo echo = socket.Echo();
    echo.seconds = 98;
    echo.milliseconds = 750;
    socket.Feed(OnEthernet(Reply(echo, 0x1234)));
    EXPECT_TRUE(Receive(kVoxaThere));
    EXPECT_EQ(0x1234, sequence);
    EXPECT_EQ(1, socket.GetRoundtripTime()->seconds);
    EXPECT_EQ(500, socket.GetRoundtripTime()->milliseconds);
    EXPECT_EQ(0, socket.GetError());
    EXPECT_EQ(kVoxaThere, socket.GetLastPeer()->GetIp());
    EXPECT_EQ(kVoxaHere, socket.GetLastLocal()->GetIp());
    EXPECT_EQ(86u, socket.Received());
}

TEST_F(RawPing, WithoutReplyTheTimeIsZeroAndTheNumberKept) {
    socket.Feed(OnEthernet(Reply(socket.Echo())));
    ASSERT_TRUE(Receive());
    ASSERT_EQ(100, socket.GetRoundtripTime()->seconds);
    sequence = 77;
    EXPECT_FALSE(Receive());
    EXPECT_TRUE(Recorded(socket, ETIMEDOUT, kRecvFrom)) << "the wait for a frame";
    EXPECT_EQ(0, socket.GetRoundtripTime()->seconds);
    EXPECT_EQ(0, socket.GetRoundtripTime()->milliseconds);
    EXPECT_EQ(77, sequence);
}

TEST_F(RawPing, FrameThatIsNoReplyIsSkippedWithItsCode) {
    icmp::Packet request = Reply(socket.Echo());
    request.type = icmp::kEchoRequest;
    icmp::Packet unreachable = Reply(socket.Echo());
    unreachable.type = icmp::kUnreachable;
    icmp::Packet shortened = Reply(socket.Echo());
    shortened.data.resize(23);
    const struct {
        std::string frame;
        Codes codes;
    } cases[] = {
        {frames::Named("CapturedUdp"), {kWrongProtocol}},
        {frames::Named("CapturedIgmpReport"), {kWrongProtocol}},
        {frames::Named("CapturedArpRequest"), {kWrongProtocol}},
        {frames::Named("MadeFifteenWordsInFortyBytes"), {kBadHeader}},
        {OnEthernet(request), {kBadVersion}},
        {OnEthernet(unreachable), {kBadVersion}},
        {OnEthernet(shortened), {kBadHeader}},
        {frames::Named("CapturedPingReply"), {kForeignReply}},
    };
    for (const auto& c : cases) {
        socket.Feed(c.frame);
        socket.Feed(OnEthernet(Reply(socket.Echo(), 5)));
        EXPECT_TRUE(Receive());
        EXPECT_EQ(5, sequence);
        EXPECT_EQ(c.codes, skipped);
    }
    EXPECT_EQ(0u, recorder.Count("no ping reply fd=%d from=%x"));
}

TEST_F(RawPing, SkippedReplyIsNotTraced) {
    icmp::Echo foreign = socket.Echo();
    foreign.pid ^= 1;
    socket.Feed(OnEthernet(Reply(foreign)));
    EXPECT_FALSE(Receive());
    EXPECT_EQ((Codes{kForeignReply}), skipped);
    EXPECT_TRUE(recorder.All().empty());
}

TEST_F(RawPing, ShortIcmpPacketBehindAReplyIsNoReply) {
    icmp::Packet shortened = Reply(socket.Echo());
    shortened.data.resize(19);
    socket.Feed(OnEthernet(Reply(socket.Echo())));
    ASSERT_TRUE(Receive());
    socket.Feed(OnEthernet(shortened));
    EXPECT_FALSE(Receive()) << "the ports are still those of the reply before";
    EXPECT_EQ((Codes{kBadHeader}), skipped);
}

TEST_F(RawPing, ReplyIsMatchedByAddressDescriptorProcessAndThread) {
    const icmp::Echo own = socket.Echo();
    constexpr int kOtherFd = 900;
    constexpr unsigned kOtherPid = 4000, kOtherTid = 5000;
    const struct {
        const char* what;
        icmp::Echo echo;
        in_addr_t to;
        int fd;
        unsigned pid, tid;
        bool taken;
    } cases[] = {
        {"own", own, kVoxaThere, 0, 0, 0, true},
        {"any address", own, 0, 0, 0, 0, true},
        {"other address", own, kOtherThere, 0, 0, 0, false},
        {"own descriptor, given", own, kVoxaThere, own.fd, 0, 0, true},
        {"other descriptor, given", own, kVoxaThere, kOtherFd, 0, 0, false},
        {"any descriptor", {own.to, kOtherFd, own.pid, own.tid, 0, 0}, 0, -1, 0, 0, true},
        {"foreign descriptor", {own.to, kOtherFd, own.pid, own.tid, 0, 0}, 0, 0, 0, 0, false},
        {"wanted descriptor", {own.to, kOtherFd, own.pid, own.tid, 0, 0}, 0, kOtherFd, 0, 0, true},
        {"foreign process", {own.to, own.fd, kOtherPid, own.tid, 0, 0}, 0, -1, 0, 0, false},
        {"wanted process", {own.to, own.fd, kOtherPid, own.tid, 0, 0}, 0, -1, kOtherPid, 0, true},
        {"own process, not the wanted one", own, 0, -1, kOtherPid, 0, false},
        {"foreign thread", {own.to, own.fd, own.pid, kOtherTid, 0, 0}, 0, -1, 0, 0, false},
        {"wanted thread", {own.to, own.fd, own.pid, kOtherTid, 0, 0}, 0, -1, 0, kOtherTid, true},
        {"own thread, not the wanted one", own, 0, -1, 0, kOtherTid, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        socket.Feed(OnEthernet(Reply(c.echo)));
        EXPECT_EQ(c.taken, Receive(c.to, c.fd, c.pid, c.tid));
        EXPECT_EQ(c.taken ? Codes{} : Codes{kForeignReply}, skipped);
    }
}

TEST_F(RawPing, ReplyBehindATagOrOptionsFitsTheBuffer) {
    const fake::Journal journal{&fake::recvfrom};
    icmp::Packet with_options = Reply(socket.Echo(), 6);
    with_options.options = std::string(4, '\0');
    socket.Feed(frames::Tagged(OnEthernet(Reply(socket.Echo(), 5)), 0x6123));
    socket.Feed(OnEthernet(with_options));
    EXPECT_TRUE(Receive());
    EXPECT_EQ(5, sequence);
    EXPECT_EQ(3, socket.GetLastVLANId());
    EXPECT_EQ(90u, socket.Received());
    EXPECT_TRUE(Receive());
    EXPECT_EQ(6, sequence);
    EXPECT_EQ((Texts{"recvfrom 90 0", "recvfrom 90 0"}), journal.Texts());
}

TEST_F(RawPing, ReplyBehindTooManyOptionsIsABadHeader) {
    icmp::Packet reply = Reply(socket.Echo());
    for (const size_t size : {20, 24, 28, 40}) {
        reply.options = std::string(size, '\0');
        socket.Feed(OnEthernet(reply));
        EXPECT_EQ(size == 20 || size == 24, Receive()) << size;
        EXPECT_EQ(size <= 24 ? Codes{} : Codes{kBadHeader}, skipped) << size;
    }
}

TEST_F(RawPing, LongerReplyIsTaken) {
    icmp::Packet reply = Reply(socket.Echo(), 5);
    reply.data += std::string(1000, 'x');
    socket.Feed(OnEthernet(reply));
    EXPECT_TRUE(Receive());
    EXPECT_EQ(5, sequence);
}

TEST_F(RawPing, ReplyWithAWrongHeaderChecksumIsTakenWithItsError) {
    socket.Feed(frames::Changed(OnEthernet(Reply(socket.Echo(), 5)), 24, "\x12\x34"));
    EXPECT_TRUE(Receive());
    EXPECT_EQ(5, sequence);
    EXPECT_EQ(EIO, socket.GetError());
}

TEST_F(RawPing, FailedReadIsTriedAgain) {
    socket.Feed(OnEthernet(Reply(socket.Echo(), 5)));
    const fake::Script reads(fake::recvfrom, {fake::Fail(ENETDOWN), fake::Fail(EINTR), fake::Real()});
    EXPECT_TRUE(Receive());
    EXPECT_EQ(5, sequence);
    EXPECT_EQ((Codes{ENETDOWN, EINTR}), skipped);
}

TEST_F(RawPing, SignalEndsTheWaitForAReply) {
    socket.SetTimeout(kLongTimeout);
    const fake::Script selects(fake::select, {fake::Fail(EINTR)});
    EXPECT_FALSE(Receive());
    EXPECT_TRUE(Recorded(socket, ETIMEDOUT, kRecvFrom));
}

TEST_F(RawPing, EndsAtTheDeadlineThoughFramesKeepComing) {
    socket.SetTimeout(300);
    const FakeClock clock(1900, 100);
    const std::string& arp = frames::Named("CapturedArpRequest");
    for (int i = 0; i < 5; ++i) socket.Feed(arp);
    const fake::Counter reads(fake::recvfrom);
    EXPECT_FALSE(socket.RecvPingPacket(kVoxaThere, sequence, 0, 0, 0));
    EXPECT_EQ(2u, reads.Calls()) << "at 2000 and 2100, not at 2200";
    EXPECT_TRUE(Recorded(socket, ETIMEDOUT, kRecvPingPacket));
    EXPECT_TRUE(recorder.Has("no ping reply fd=%d from=%x", {socket.GetSocket(), 0x0AFD1802}));
}

TEST_F(RawPing, DeadlineThatHasPassedReadsNothing) {
    socket.SetTimeout(0);
    socket.Feed(OnEthernet(Reply(socket.Echo())));
    EXPECT_FALSE(Receive());
    EXPECT_TRUE(Recorded(socket, ETIMEDOUT, kRecvPingPacket));
}

TEST_F(RawPing, OpensAClosedSocket) {
    Raw closed;
    closed.SetTimeout(0);
    EXPECT_FALSE(closed.RecvPingPacket(kVoxaThere, sequence, 0, 0, 0));
    EXPECT_EQ(KOVA_SOCKET_RAW, closed.GetMode());
    EXPECT_EQ(ETIMEDOUT, closed.GetError());
}

// Ping

TEST_F(RawPing, PingOfAControlNetworkIsOneWithAReply) {
    const int fd = socket.GetSocket();
    FakeNetwork network([&](const auto& request) { socket.Feed(FakeNetwork::ReplyTo(request, kVoxaHere)); });
    socket.Plant(EDOM);
    EXPECT_EQ(1, socket.Ping(kVoxaThere, 3));
    EXPECT_EQ((std::vector<unsigned>{1}), network.Sequences());
    EXPECT_EQ(kVoxaThere, network.requests.at(0).to);
    EXPECT_EQ(0, socket.GetError());
    EXPECT_TRUE(recorder.Has("raw ping fd=%d to=%x result=%d", {fd, 0x0AFD1802, 1}));
    EXPECT_EQ(KOVA_SOCKET_CLOSED, socket.GetMode());
    EXPECT_FALSE(IsOpenFd(fd));
    EXPECT_EQ(kVoxaHere, socket.GetLastLocal()->GetIp());
}

TEST_F(RawPing, ReplyThatArrivesElsewhereIsNoAnswer) {
    const int fd = socket.GetSocket();
    socket.SetTimeout(kLongTimeout);
    FakeNetwork network([&](const auto& request) { socket.Feed(FakeNetwork::ReplyTo(request, kOtherHere)); });
    EXPECT_EQ(0, socket.Ping(kVoxaThere, 3));
    EXPECT_EQ(1u, network.requests.size()) << "the first reply ends it";
    EXPECT_TRUE(Recorded(socket, ETIMEDOUT, kPing)) << "which survives the close";
    EXPECT_TRUE(recorder.Has("raw ping fd=%d to=%x result=%d", {fd, 0x0AFD1802, 0}));
    EXPECT_EQ(KOVA_SOCKET_CLOSED, socket.GetMode());
}

TEST_F(RawPing, PingTriesUntilAReplyComes) {
    FakeNetwork network([&](const auto& request) {
        if (request.Sequence() == 3) socket.Feed(FakeNetwork::ReplyTo(request, kVoxaHere));
    });
    EXPECT_EQ(1, socket.Ping(kVoxaThere, 5));
    EXPECT_EQ((std::vector<unsigned>{1, 2, 3}), network.Sequences());
    EXPECT_EQ(0, socket.GetError());
}

TEST_F(RawPing, PingWithoutReplyIsZeroAfterItsTries) {
    const int fd = socket.GetSocket();
    const FakeNetwork network;
    const int64_t start = NowMs();
    EXPECT_EQ(0, socket.Ping(kVoxaThere, 3));
    EXPECT_LE(3 * kShortTimeout, NowMs() - start);
    EXPECT_EQ((std::vector<unsigned>{1, 2, 3}), network.Sequences());
    EXPECT_TRUE(Recorded(socket, ETIMEDOUT, kRecvFrom)) << "which survives the close";
    EXPECT_TRUE(recorder.Has("raw ping fd=%d to=%x result=%d", {fd, 0x0AFD1802, 0}));
    EXPECT_EQ(KOVA_SOCKET_CLOSED, socket.GetMode());
}

TEST_F(RawPing, PingTakesRepliesToAnyDescriptor) {
    FakeNetwork network([&](const FakeNetwork::Request& request) {
        FakeNetwork::Request other = request;
        other.data.replace(12, 4, icmp::BigEndian(900, 4));
        socket.Feed(FakeNetwork::ReplyTo(other, kVoxaHere));
    });
    EXPECT_EQ(1, socket.Ping(kVoxaThere, 1));
}

TEST_F(RawPing, PingEndsWithASendThatFails) {
    const fake::Script sends(fake::sendto, {fake::Fail(EHOSTUNREACH)});
    EXPECT_EQ(0, socket.Ping(kVoxaThere, 3));
    EXPECT_TRUE(Recorded(socket, EHOSTUNREACH, kSendTo)) << "which survives the close";
    EXPECT_EQ(KOVA_SOCKET_CLOSED, socket.GetMode());
}

TEST_F(RawPing, PingWithoutTriesSendsNothing) {
    const FakeNetwork network;
    for (const int tries : {0, -1}) {
        FedSocket other;
        EXPECT_EQ(0, other.Ping(kVoxaThere, tries));
        EXPECT_EQ(KOVA_SOCKET_CLOSED, other.GetMode());
        EXPECT_EQ(0, other.GetError());
    }
    EXPECT_TRUE(network.requests.empty());
}

TEST_F(RawPing, PingOfATextReadsItsAddress) {
    const FakeNetwork network;
    char text[] = "10.253.24.2";
    EXPECT_EQ(0, socket.Ping(text, 1));
    ASSERT_EQ(1u, network.requests.size());
    EXPECT_EQ(kVoxaThere, network.requests.at(0).to);
}

TEST_F(RawPing, PingOfNoAddressIsInvalid) {
    char text[] = "10.253.24.2.1", empty[] = "", name[] = "localhost";
    const FakeNetwork network;
    for (char* const no_address : {text, empty, name, static_cast<char*>(nullptr)}) {
        socket.Plant(EDOM);
        EXPECT_EQ(-1, socket.Ping(no_address, 1));
        EXPECT_TRUE(Recorded(socket, EINVAL, kPingText));
    }
    EXPECT_EQ(4u, recorder.Count("raw ping of no address"));
    EXPECT_TRUE(network.requests.empty());
    EXPECT_EQ(KOVA_SOCKET_RAW, socket.GetMode()) << "neither opened nor closed";
}

// MultiPing

TEST_F(RawPing, MultiPingOnAClosedSocketIsMinusOne) {
    Raw closed;
    unsigned addresses[] = {kVoxaThere};
    const fake::Counter sockets(fake::socket);
    EXPECT_EQ(-1, closed.MultiPing(addresses, 1, 1));
    EXPECT_TRUE(Recorded(closed, ENOTSOCK, kMultiPing));
    EXPECT_TRUE(recorder.Has("raw multi ping without socket, mode=%u", {0}));
    EXPECT_EQ(0u, sockets.Calls());
}

TEST_F(RawPing, MultiPingReturnsTheBestRound) {
    // Replies per round: 2, 3, 0.
    FakeNetwork network([&](const FakeNetwork::Request& request) {
        if (request.Sequence() == 3) return;
        if (request.Sequence() == 1 && request.to == kOtherThere) return;
        socket.Feed(FakeNetwork::ReplyTo(request, kOtherHere));
    });
    unsigned addresses[] = {kVoxaThere, kOtherThere, kLoopback};
    const int fd = socket.GetSocket();
    EXPECT_EQ(3, socket.MultiPing(addresses, 3, 3));
    EXPECT_EQ((std::vector<unsigned>{1, 1, 1, 2, 2, 2, 3, 3, 3}), network.Sequences());
    EXPECT_EQ(kOtherThere, network.requests.at(4).to);
    EXPECT_TRUE(
        recorder.Has("raw multi ping fd=%d to=%x %x %x %x", {fd, 0x0AFD1802, 0x0A090002, 0x7F000001, 0}));
    EXPECT_EQ(KOVA_SOCKET_RAW, socket.GetMode()) << "stays open";
}

TEST_F(RawPing, MultiPingTracesTheFirstFourAddresses) {
    const FakeNetwork network;
    unsigned addresses[] = {htonl(1), htonl(2), htonl(3), htonl(4), htonl(5)};
    EXPECT_EQ(0, socket.MultiPing(addresses, 5, 1));
    EXPECT_EQ(5u, network.requests.size());
    EXPECT_TRUE(recorder.Has("raw multi ping fd=%d to=%x %x %x %x", {socket.GetSocket(), 1, 2, 3, 4}));
}

TEST_F(RawPing, MultiPingCountsDuplicatesAndWhoeverReplies) {
    FakeNetwork network([&](const FakeNetwork::Request& request) {
        FakeNetwork::Request other = request;
        other.data.replace(8, 4, icmp::AddressBytes(kOtherThere));
        socket.Feed(FakeNetwork::ReplyTo(request, kVoxaHere));
        socket.Feed(FakeNetwork::ReplyTo(request, kVoxaHere));
        socket.Feed(FakeNetwork::ReplyTo(other, kVoxaHere));
    });
    unsigned addresses[] = {kVoxaThere};
    EXPECT_EQ(3, socket.MultiPing(addresses, 1, 1));
}

TEST_F(RawPing, MultiPingGoesOnWhereASendFailsAndEndsWhereAllDo) {
    unsigned addresses[] = {kVoxaThere, kOtherThere};
    const auto answer = [&](int, const void* data, size_t size, int, const sockaddr*, socklen_t) {
        const std::string request(static_cast<const char*>(data), size);
        socket.Feed(FakeNetwork::ReplyTo({request, kOtherThere}, kVoxaHere));
        return static_cast<ssize_t>(size);
    };
    const fake::Script sends(
        fake::sendto, {fake::Fail(EHOSTUNREACH), answer, fake::Fail(EHOSTUNREACH), fake::Fail(EHOSTUNREACH)});
    EXPECT_EQ(1, socket.MultiPing(addresses, 2, 5));
    EXPECT_TRUE(Recorded(socket, EHOSTUNREACH, kSendTo));
}

TEST_F(RawPing, MultiPingOfNobodyWaitsForNobody) {
    unsigned addresses[] = {kVoxaThere};
    const fake::Journal journal;
    socket.Plant(EDOM);
    EXPECT_EQ(0, socket.MultiPing(addresses, 0, 3));
    EXPECT_EQ(0, socket.MultiPing(nullptr, 3, 3));
    EXPECT_EQ(0, socket.MultiPing(addresses, 1, 0));
    EXPECT_EQ(0, socket.MultiPing(addresses, 1, -1));
    EXPECT_EQ(Texts{}, journal.Texts());
    EXPECT_EQ(0, socket.GetError());
    EXPECT_EQ(4u, recorder.Count("raw multi ping fd=%d to=%x %x %x %x"));
    EXPECT_TRUE(recorder.Has("raw multi ping fd=%d to=%x %x %x %x", {socket.GetSocket(), 0, 0, 0, 0}));
}

// Addresses and checksums

TEST_F(RawSocket, ControlNetworkIsTwoNetsAndALoopbackNet) {
    Raw socket;
    for (const char* const inside : {"10.253.24.0", "10.253.24.17", "10.253.24.255", "10.253.25.0",
                                     "10.253.25.255", "127.0.0.0", "127.0.0.1", "127.0.0.255"})
        EXPECT_TRUE(socket.IsVOXAAddr(Ip(inside))) << inside;
    for (const char* const outside : {"10.253.23.255", "10.253.26.1", "10.254.24.1", "11.253.24.1",
                                      "127.0.1.1", "127.1.0.1", "0.0.0.0", "255.255.255.255", "24.253.10.1"})
        EXPECT_FALSE(socket.IsVOXAAddr(Ip(outside))) << outside;
}

TEST_F(RawSocket, ChecksumIsTheInternetChecksum) {
    Raw socket;
    const auto sum = [&](std::string bytes) {
        alignas(2) char buffer[128];
        bytes.copy(buffer, bytes.size());
        return socket.CalculateChecksum(reinterpret_cast<unsigned short*>(buffer),
                                        static_cast<int>(bytes.size()));
    };
    EXPECT_EQ(htons(0xFFFF), sum(""));
    EXPECT_EQ(htons(static_cast<uint16_t>(~(0x0102 + 0x0300))), sum("\x01\x02\x03"));
    for (const std::string bytes : {"a", "ab", "abc", "\xFF\xFF\xFF\xFF\xFF", "The quick brown fox"})
        EXPECT_EQ(htons(icmp::Checksum(bytes)), sum(bytes)) << bytes;
    EXPECT_EQ(0, sum(frames::Named("CapturedUdp").substr(14, 20)));
    EXPECT_EQ(0, sum(frames::Named("CapturedPingReply").substr(34)));
    unsigned short word = 0;
    EXPECT_EQ(htons(0xFFFF), socket.CalculateChecksum(&word, -1));
}

// Real networks

/// Hears frames until one has `marker` in it, and sends anew until then; false after the limit.
bool HearsMarked(Raw& socket, const std::string& marker, const std::function<void()>& send) {
    char buffer[256];
    const int64_t end = NowMs() + std::chrono::milliseconds(kLimit).count();
    socket.SetTimeout(100);
    while (NowMs() < end) {
        send();
        do {
            const bool decoded = socket.RecvFrom(buffer, sizeof buffer);
            if (std::string(buffer, socket.Received()).find(marker) != std::string::npos) return decoded;
        } while (socket.Received() != 0);
    }
    return false;
}

/// Sends a frame as it is out of an interface of the calling thread's network.
void SendFrame(const std::string& interface, const std::string& frame) {
    const Fd fd(::socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0));
    sockaddr_ll to{};
    to.sll_family = AF_PACKET;
    to.sll_ifindex = static_cast<int>(::if_nametoindex(interface.c_str()));
    EXPECT_EQ(static_cast<ssize_t>(frame.size()),
              ::sendto(fd, frame.data(), frame.size(), 0, reinterpret_cast<const sockaddr*>(&to), sizeof to))
        << std::strerror(errno);
}

TEST_F(RawSocket, HearsAFrameFromAnotherHost) {
    SecondHost other;
    Raw socket;
    ASSERT_TRUE(socket.Open());
    const std::string& frame = frames::Named("CapturedUdp");
    EXPECT_TRUE(
        HearsMarked(socket, "nobody listens here", [&] { other.Do([&] { SendFrame("kl1", frame); }); }));
    EXPECT_EQ(frame.size(), socket.Received());
    EXPECT_EQ(0, socket.GetError());
    EXPECT_EQ(kVoxaHere, socket.GetLastPeer()->GetIp());
    EXPECT_EQ(htons(20003), socket.GetLastLocal()->GetPort());
    EXPECT_EQ("02:00:00:00:00:01", Mac(*socket.GetLastPeerMAC()));
    EXPECT_FALSE(socket.GetLastWasVLAN());
}

TEST_F(RawSocket, HearsTheTagOfAFrameThatLeaves) {
    const SecondHost other;
    Raw socket;
    ASSERT_TRUE(socket.Open());
    const std::string frame = frames::Tagged(frames::Named("CapturedUdp"), 0x6123);
    EXPECT_TRUE(HearsMarked(socket, "nobody listens here", [&] { SendFrame("kl0", frame); }));
    EXPECT_TRUE(socket.GetLastWasVLAN());
    EXPECT_EQ(3, socket.GetLastVLANId());
    EXPECT_EQ(3, socket.GetLastVLANPrio());
    EXPECT_EQ(46u, socket.GetDataOffset());
}

TEST_F(RawSocket, KernelTakesTheFirstTagOffAFrameThatArrives) {
    SecondHost other;
    Raw socket;
    ASSERT_TRUE(socket.Open());
    const std::string tagged = frames::Tagged(frames::Named("CapturedUdp"), 0x6123);
    const auto send = [&](const std::string& frame) {
        return [&other, frame] { other.Do([&] { SendFrame("kl1", frame); }); };
    };
    EXPECT_TRUE(HearsMarked(socket, "nobody listens here", send(tagged)));
    EXPECT_FALSE(socket.GetLastWasVLAN());
    EXPECT_EQ(42u, socket.GetDataOffset());

    std::string twice = frames::Tagged(tagged, 0x4004);
    twice.replace(twice.size() - 4, 4, "THEN");
    EXPECT_TRUE(HearsMarked(socket, "THEN", send(twice)));
    EXPECT_TRUE(socket.GetLastWasVLAN());
    EXPECT_EQ(3, socket.GetLastVLANId());
    EXPECT_EQ(3, socket.GetLastVLANPrio());
    EXPECT_EQ(46u, socket.GetDataOffset());
}

TEST_F(RawSocket, PingsTheLoopbackInterface) {
    Raw socket;
    socket.SetTimeout(kLongTimeout);
    EXPECT_EQ(1, socket.Ping(kLoopback, 1));
    EXPECT_EQ(0, socket.GetError());
    EXPECT_EQ(kLoopback, socket.GetLastPeer()->GetIp());
    EXPECT_GE(socket.GetRoundtripTime()->seconds, 0);
    EXPECT_EQ(KOVA_SOCKET_CLOSED, socket.GetMode());
    char text[] = "127.0.0.2";
    EXPECT_EQ(1, socket.Ping(text, 1)) << "opens again";
}

TEST_F(RawSocket, PingOfLoopbackBeyondItsFirst256AddressesIsNoAnswer) {
    Raw socket;
    socket.SetTimeout(kLongTimeout);
    const fake::Always reply_address(fake::sendto, [](int fd, const void* data, size_t size, int flags,
                                                      const sockaddr* to, socklen_t length) {
        // From 127.0.1.1, so that the reply goes there.
        sockaddr_in from{};
        from.sin_family = AF_INET;
        from.sin_addr.s_addr = Ip("127.0.1.1");
        EXPECT_EQ(0, ::bind(fd, reinterpret_cast<const sockaddr*>(&from), sizeof from));
        return fake::sendto.Real(fd, data, size, flags, to, length);
    });
    EXPECT_EQ(0, socket.Ping(kLoopback, 1));
    EXPECT_TRUE(Recorded(socket, ETIMEDOUT, kPing));
    EXPECT_EQ(Ip("127.0.1.1"), socket.GetLastLocal()->GetIp());
}

TEST_F(RawSocket, PingsAnotherHostOfTheControlNetworkAndNoOther) {
    SecondHost other;
    Shell("ip addr add 10.253.24.1/24 dev kl0 && ip addr add 10.9.0.1/24 dev kl0");
    other.Do([] { Shell("ip addr add 10.253.24.2/24 dev kl1 && ip addr add 10.9.0.2/24 dev kl1"); });
    Raw socket;
    EXPECT_EQ(1, socket.Ping(kVoxaThere, 60));
    EXPECT_EQ(kVoxaThere, socket.GetLastPeer()->GetIp());
    EXPECT_EQ(kVoxaHere, socket.GetLastLocal()->GetIp());
    EXPECT_TRUE(socket.GetLastPeerMAC()->IsValid());

    EXPECT_EQ(0, socket.Ping(kOtherThere, 60));
    EXPECT_TRUE(Recorded(socket, ETIMEDOUT, kPing));
    EXPECT_EQ(kOtherHere, socket.GetLastLocal()->GetIp()) << "an answer came";

    ASSERT_TRUE(socket.Open());
    socket.SetTimeout(1500);
    unsigned addresses[] = {kVoxaThere, kOtherThere};
    EXPECT_EQ(2, socket.MultiPing(addresses, 2, 1)) << "each is heard once";
}

TEST_F(RawSocket, MultiPingOnLoopbackHearsEveryReplyTwice) {
    Raw socket;
    ASSERT_TRUE(socket.Open());
    socket.SetTimeout(1500);
    unsigned addresses[] = {kLoopback, Ip("127.0.0.2"), Ip("127.0.5.5")};
    EXPECT_EQ(6, socket.MultiPing(addresses, 3, 2));
}

TEST_F(RawSocket, PingOfASilentHostTakesItsTimeouts) {
    const icmp::Silence silence;
    Raw socket;
    socket.SetTimeout(kShortTimeout);
    const int64_t start = NowMs();
    EXPECT_EQ(0, socket.Ping(kLoopback, 3));
    EXPECT_LE(3 * kShortTimeout, NowMs() - start);
    EXPECT_EQ(ETIMEDOUT, socket.GetError());
    EXPECT_EQ(0, socket.GetRoundtripTime()->seconds);
    EXPECT_EQ(0, socket.GetRoundtripTime()->milliseconds);
}

TEST_F(RawSocket, PingWithoutRouteFailsAtOnce) {
    Raw socket;
    socket.SetTimeout(kLongTimeout);
    EXPECT_EQ(0, socket.Ping(Ip("10.99.0.1"), 3));
    EXPECT_TRUE(Recorded(socket, ENETUNREACH, kSendTo));
}

TEST_F(RawSocket, BroadcastIsRefusedUnlessAskedFor) {
    Raw socket;
    const KovaInetAddr everybody(Ip("127.255.255.255"), 0);
    EXPECT_FALSE(socket.SendTo("abc", 3, everybody));
    EXPECT_TRUE(Recorded(socket, EACCES, kSendTo));
    socket.Close();
    socket.SetBroadcast(true);
    EXPECT_TRUE(socket.SendTo("abc", 3, everybody));
}

TEST_F(RawSocket, ThreadsThatPingAtTheSameTimeGetTheirOwnReplies) {
    constexpr int kPings = 20;
    const auto run = [](in_addr_t to) {
        return [to] {
            Raw socket;
            socket.SetTimeout(kLongTimeout);
            for (unsigned short i = 1; i <= kPings; ++i) {
                unsigned short sequence = 0;
                EXPECT_TRUE(socket.SendPingPacket(to, i));
                // Every reply is heard twice; the second one of the ping before may come first.
                do {
                    ASSERT_TRUE(socket.RecvPingPacket(to, sequence, 0, 0, 0));
                    ASSERT_EQ(to, socket.GetLastPeer()->GetIp());
                } while (sequence != i);
            }
        };
    };
    DeadlineThread first(run(kLoopback)), second(run(Ip("127.0.0.2"))), third(run(Ip("127.0.0.3")));
}

TEST_F(RawSocket, SignalsEndARealWaitAndLoseNothing) {
    FedSocket socket;
    socket.SetTimeout(kLongTimeout);
    const SignalStorm storm({::pthread_self()});
    char buffer[128];
    for (int i = 0; i < 5; ++i) {
        EXPECT_FALSE(socket.RecvFrom(buffer, sizeof buffer));
        EXPECT_EQ(ETIMEDOUT, socket.GetError());
    }
    socket.Feed(frames::Named("CapturedUdp"));
    EXPECT_TRUE(WaitUntil([&] { return socket.RecvFrom(buffer, sizeof buffer); }));
    EXPECT_EQ(htons(20003), socket.GetLastLocal()->GetPort());
}

}  // namespace
