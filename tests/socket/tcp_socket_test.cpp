#include "socket/tcp_peers.h"
#include "support/fake_libc.h"
#include "support/leak_check.h"
#include "support/signal_storm.h"
#include "support/trace_recorder.h"

#include <kova/tcp_socket.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

using Texts = std::vector<std::string>;

constexpr const char* kSocketFunction = "KovaSocketT KovaSocketWrapper::Socket(int, int, int)";
constexpr const char* kSelectFunction =
    "int32_t KovaSocketWrapper::Select(int, FdSetT*, FdSetT*, FdSetT*, int32_t)";
constexpr const char* kWrapperSendFunction = "int KovaSocketWrapper::Send(const void*, size_t)";
constexpr const char* kConnectFunction = "virtual bool KovaTCPSocket::ConnectIntern()";
constexpr const char* kSendFunction = "virtual bool KovaTCPSocket::Send(const void*, size_t)";
constexpr const char* kRecvFunction = "virtual bool KovaTCPSocket::Recv(void*, size_t)";
constexpr const char* kWaitFunction = "bool KovaTCPSocket::WaitForData(KovaWaitModeT, int32_t)";
constexpr const char* kHasDataFunction = "bool KovaTCPSocket::HasRecvData()";
constexpr const char* kKeepAliveFunction = "bool KovaTCPSocket::KeepAlive()";
constexpr const char* kSetSocketFunction = "bool KovaTCPSocket::SetSocket(KovaSocketT)";
constexpr const char* kGetPeerFunction = "KovaInetAddr& KovaTCPSocket::GetPeer()";
constexpr const char* kGetLocalFunction = "KovaInetAddr& KovaTCPSocket::GetLocal()";

constexpr KovaWaitModeT kReadOrWrite{KOVA_WAIT_READ | KOVA_WAIT_WRITE};

/// A TCP socket that shows what it remembers.
class Socket : public KovaTCPSocket {
  public:
    using KovaTCPSocket::KovaTCPSocket;
    using KovaTCPSocket::m_Received;
    using KovaTCPSocket::m_Stop;

    void Fail(int code) { _SetError_("earlier", 1, code); }
};

class TcpSocket : public KovaTest {
  protected:
    /// The object takes over one end of a connection; the other stays the test's.
    Fd Pair() {
        auto [own, peer] = TcpPair();
        socket.SetSocket(own.Release());
        trace.Clear();
        return std::move(peer);
    }

    Socket socket;
    TraceRecorder trace;
};

// Construction

TEST_F(TcpSocket, StartsClosedOfTheHandshakeKindWithoutAddresses) {
    EXPECT_EQ(socket.GetMode(), KOVA_SOCKET_CLOSED);
    EXPECT_EQ(socket.GetSocket(), -1);
    EXPECT_EQ(socket.GetType(), 1u);
    EXPECT_EQ(socket.GetPeer().GetIp(), 0u);
    EXPECT_EQ(socket.GetPeer().GetPort(), 0);
    EXPECT_EQ(socket.GetLocal().GetIp(), 0u);
    EXPECT_EQ(socket.GetLocal().GetPort(), 0);
    EXPECT_EQ(socket.m_Stop, 0);
}

TEST_F(TcpSocket, AddressGivenAtConstructionIsBothEnds) {
    KovaInetAddr address("10.1.2.3", 0);
    address.SetPort(htons(700));
    Socket both(address);
    EXPECT_TRUE(both.GetPeer() == address);
    EXPECT_TRUE(both.GetLocal() == address);
    EXPECT_EQ(both.GetMode(), KOVA_SOCKET_CLOSED);
    EXPECT_EQ(both.GetType(), KOVA_SOCKET_HANDSHAKE);
}

TEST_F(TcpSocket, DescriptorGivenAtConstructionIsConnectedAndOwned) {
    auto [own, peer] = TcpPair();
    const int fd = own.Get();
    {
        const Socket adopted(own.Release());
        EXPECT_EQ(adopted.GetMode(), KOVA_SOCKET_CONNECTED);
        EXPECT_EQ(adopted.GetSocket(), fd);
        EXPECT_EQ(adopted.GetType(), KOVA_SOCKET_HANDSHAKE);
    }
    EXPECT_FALSE(IsOpenFd(fd));
}

TEST_F(TcpSocket, CannotBeCopied) {
    static_assert(!std::is_copy_constructible_v<KovaTCPSocket>);
    static_assert(!std::is_copy_assignable_v<KovaTCPSocket>);
}

TEST_F(TcpSocket, HooksOfTheServerLoopOnlyClearTheError) {
    for (const std::function<void()>& hook : {std::function<void()>([&] { socket.CallBack(nullptr); }),
                                              std::function<void()>([&] { socket.InitComplete(); }),
                                              std::function<void()>([&] { socket.DoIdle(); })}) {
        socket.Fail(EIO);
        hook();
        EXPECT_EQ(socket.GetError(), 0);
    }
}

// Open

TEST_F(TcpSocket, OpenMakesANonBlockingSocketWithTheDefaultOptions) {
    const fake::Journal calls;
    EXPECT_TRUE(socket.Open());
    EXPECT_EQ(
        calls.Texts(),
        (Texts{"socket AF_INET6 SOCK_STREAM 0", "fcntl F_SETFD 1", "setsockopt IPPROTO_TCP TCP_NODELAY 1",
               "setsockopt SOL_SOCKET SO_DONTROUTE 0", "ioctl FIONBIO 1",
               "setsockopt SOL_SOCKET SO_SNDTIMEO {3, 0}", "setsockopt SOL_SOCKET SO_RCVTIMEO {3, 0}"}));
    EXPECT_EQ(socket.GetMode(), KOVA_SOCKET_OPENED);
    EXPECT_TRUE(IsNonBlocking(socket.GetSocket()));
    EXPECT_EQ(socket.GetError(), 0);
}

TEST_F(TcpSocket, OpenAppliesTheOptionsStoredWhileClosed) {
    EXPECT_FALSE(socket.SetTimeout(2500));
    EXPECT_TRUE(socket.SetRouting(false));
    EXPECT_TRUE(socket.SetBlocking(true));
    // Stored, but not applied by a TCP socket.
    EXPECT_TRUE(socket.SetBroadcast(true));
    EXPECT_TRUE(socket.BindToDevice("lo"));

    const fake::Journal calls({&fake::setsockopt, &fake::ioctl});
    EXPECT_TRUE(socket.Open());
    EXPECT_EQ(calls.Texts(),
              (Texts{"setsockopt IPPROTO_TCP TCP_NODELAY 1", "setsockopt SOL_SOCKET SO_DONTROUTE 1",
                     "ioctl FIONBIO 0", "setsockopt SOL_SOCKET SO_SNDTIMEO {2, 500000}",
                     "setsockopt SOL_SOCKET SO_RCVTIMEO {2, 500000}"}));
    EXPECT_FALSE(IsNonBlocking(socket.GetSocket()));
}

TEST_F(TcpSocket, OpenOfAnOpenSocketOnlyClearsErrorAndCount) {
    socket.Open();
    const int fd = socket.GetSocket();
    socket.Fail(EIO);
    socket.m_Received = 5;
    const fake::Journal calls;
    EXPECT_TRUE(socket.Open());
    EXPECT_EQ(calls.Texts(), Texts{});
    EXPECT_EQ(socket.GetSocket(), fd);
    EXPECT_EQ(socket.GetError(), 0);
    EXPECT_EQ(socket.Received(), 0u);
}

TEST_F(TcpSocket, OpenFailsWithTheErrorOfSocket) {
    const fake::Script sockets(fake::socket, {fake::Fail(EMFILE)});
    EXPECT_FALSE(socket.Open());
    EXPECT_TRUE(HasRecorded(socket, EMFILE, kSocketFunction));
    EXPECT_TRUE(trace.Has("socket errno=%d", {EMFILE}));
    EXPECT_TRUE(trace.Has("tcp open code=%d", {EMFILE}));
    EXPECT_EQ(socket.GetMode(), KOVA_SOCKET_CLOSED);
}

TEST_F(TcpSocket, OpenSucceedsThoughNoOptionCanBeSet) {
    const fake::Always options(fake::setsockopt, fake::Fail(EDOM));
    const fake::Always controls(fake::ioctl, fake::Fail(EDOM));
    EXPECT_TRUE(socket.Open());
    EXPECT_EQ(socket.GetMode(), KOVA_SOCKET_OPENED);
    EXPECT_TRUE(HasRecorded(socket, EDOM, "bool KovaSocketWrapper::SetRecvTimeout(int)"));
}

// Connect: the address

/// Catches what connect is called with and refuses it.
class CaughtConnect {
  public:
    CaughtConnect()
        : m_Connect(fake::connect, [this](int, const sockaddr* address, socklen_t length) {
              m_Address.assign(reinterpret_cast<const char*>(address), length);
              errno = ECONNREFUSED;
              return -1;
          }) {}

    /// The 28 bytes of the socket address.
    const std::string& Address() const { return m_Address; }

  private:
    std::string m_Address;
    fake::Replace<int(int, const sockaddr*, socklen_t)> m_Connect;
};

/// The IPv6 socket address of `text` as the kernel wants it: family in the order of the host, port and
/// address in that of the network, neither flow information nor scope.
std::string SocketAddress(const char* text, uint16_t port) {
    const sa_family_t family = AF_INET6;
    std::string bytes(reinterpret_cast<const char*>(&family), sizeof family);
    bytes += static_cast<char>(port >> 8);
    bytes += static_cast<char>(port & 0xFF);
    bytes += std::string(4, '\0');
    in6_addr ip;
    EXPECT_EQ(::inet_pton(AF_INET6, text, &ip), 1);
    bytes.append(reinterpret_cast<const char*>(&ip), sizeof ip);
    bytes += std::string(4, '\0');
    return bytes;
}

TEST_F(TcpSocket, EveryFormOfConnectNamesThePeer) {
    struct Form {
        const char* name;
        std::function<bool(Socket&)> connect;
        const char* ip;
        uint16_t port;
    };
    KovaInetAddr scoped("fe80::1", htons(1203));
    scoped.SetScope(7);
    const Form forms[] = {
        {"IPv4 word", [](Socket& s) { return s.Connect(htonl(0x0A010203), 1200); }, "::ffff:10.1.2.3", 1200},
        {"IPv4 text keeps the port", [](Socket& s) { return s.Connect("10.1.2.4", 1201); }, "::ffff:10.1.2.4",
         1201},
        {"IPv6 text", [](Socket& s) { return s.Connect("2001:db8::5", 1202); }, "2001:db8::5", 1202},
        {"address, its scope left out", [&](Socket& s) { return s.Connect(scoped); }, "fe80::1", 1203},
        {"text that is no address", [](Socket& s) { return s.Connect("nobody", 1204); }, "::ffff:0.0.0.0",
         1204},
        {"no text", [](Socket& s) { return s.Connect(nullptr, 1205); }, "::", 1205},
        {"highest port", [](Socket& s) { return s.Connect("10.1.2.4", 0xFFFE); }, "::ffff:10.1.2.4", 0xFFFE},
    };
    for (const Form& form : forms) {
        SCOPED_TRACE(form.name);
        const CaughtConnect caught;
        EXPECT_FALSE(form.connect(socket));
        EXPECT_EQ(caught.Address().size(), 28u);
        EXPECT_EQ(caught.Address(), SocketAddress(form.ip, form.port));
    }
}

TEST_F(TcpSocket, ConnectWithoutArgumentsUsesTheStoredPeer) {
    Socket stored(KovaInetAddr(htonl(0x0A010203), htons(1200)));
    const CaughtConnect caught;
    EXPECT_FALSE(stored.Connect());
    EXPECT_EQ(caught.Address(), SocketAddress("::ffff:10.1.2.3", 1200));
    EXPECT_FALSE(stored.Connect("10.9.9.9", 9));
    EXPECT_FALSE(stored.Connect());
    EXPECT_EQ(caught.Address(), SocketAddress("::ffff:10.9.9.9", 9));
}

// Connect: the way to a connection

TEST_F(TcpSocket, ConnectWaitsForTheGreetingAndLearnsBothEnds) {
    Greeter server;
    EXPECT_TRUE(socket.Connect(server.Address()));
    EXPECT_EQ(socket.GetMode(), KOVA_SOCKET_CONNECTED);
    EXPECT_EQ(socket.GetError(), 0);

    const KovaInetAddr local = PeerOf(server.Connection());
    const KovaInetAddr peer = server.Address();
    EXPECT_TRUE(socket.GetPeer() == peer);
    EXPECT_TRUE(socket.GetLocal() == local);
    EXPECT_TRUE(trace.Has("connected local=%x port=%u peer=%x port=%u",
                          {local.GetIp(), HostPort(local), peer.GetIp(), HostPort(peer)}));
}

TEST_F(TcpSocket, ConnectReachesAnIPv4ServerThroughItsMappedAddress) {
    Listener server(AF_INET);
    socket.SetType(KOVA_SOCKET_PLAIN);
    socket.SetBlocking(true);
    EXPECT_TRUE(socket.Connect("127.0.0.1", server.Port()));
    EXPECT_STREQ(socket.GetPeer().GetAsciiIp(), "127.0.0.1");
    EXPECT_EQ(HostPort(socket.GetPeer()), server.Port());
    EXPECT_GE(server.Accept(), 0);
}

TEST_F(TcpSocket, HandshakeConnectMakesTheseCallsInThisOrder) {
    Greeter server;
    const KovaInetAddr address = server.Address();
    socket.SetTimeout(2500);
    const fake::Journal calls(fake::kThisThread);
    EXPECT_TRUE(socket.Connect(address));
    const Texts texts = calls.Texts();

    const std::string fd = std::to_string(socket.GetSocket());
    const std::string n = std::to_string(socket.GetSocket() + 1);
    EXPECT_EQ(texts, (Texts{"socket AF_INET6 SOCK_STREAM 0", "fcntl F_SETFD 1",
                            "setsockopt IPPROTO_TCP TCP_NODELAY 1", "setsockopt SOL_SOCKET SO_DONTROUTE 0",
                            "ioctl FIONBIO 1", "setsockopt SOL_SOCKET SO_SNDTIMEO {2, 500000}",
                            "setsockopt SOL_SOCKET SO_RCVTIMEO {2, 500000}",
                            "ioctl FIONBIO 1",  // so that connect does not block
                            "connect [::1]:" + std::to_string(HostPort(address)),
                            "ioctl FIONBIO 1",  // as it was wanted
                            "select " + n + " {" + fd + "} {} {" + fd + "} {2, 500000}", "recv 8 0",
                            "getsockname", "getpeername"}));
}

TEST_F(TcpSocket, PlainConnectTouchesNeitherTheBlockingFlagNorTheData) {
    Listener server;
    socket.SetType(KOVA_SOCKET_PLAIN);
    const fake::Journal calls(fake::kThisThread);
    EXPECT_TRUE(socket.Connect(server.Address()));
    EXPECT_EQ(calls.Texts(fake::ioctl), Texts{"ioctl FIONBIO 1"}) << "the one of Open";
    EXPECT_EQ(calls.Count(fake::select), 0u);
    EXPECT_EQ(calls.Count(fake::recv), 0u);
    EXPECT_EQ(socket.GetMode(), KOVA_SOCKET_CONNECTED);
    EXPECT_EQ(socket.GetError(), 0);
}

TEST_F(TcpSocket, GreetingIsDataToAPlainSocket) {
    Greeter server;
    socket.SetType(KOVA_SOCKET_PLAIN);
    ASSERT_TRUE(socket.Connect(server.Address()));
    std::string got(8, '?');
    EXPECT_TRUE(socket.Recv(got.data(), got.size()));
    EXPECT_EQ(got, kConnectText);
}

TEST_F(TcpSocket, ConnectGoesThroughTheModes) {
    Greeter server;
    Texts modes;
    const auto note = [&](const char* where) { modes.push_back(where + std::to_string(socket.GetMode())); };
    const fake::Replace socket_call(fake::socket, [&](int domain, int type, int protocol) {
        note("socket ");
        return fake::socket.Real(domain, type, protocol);
    });
    const fake::Replace connect_call(fake::connect, [&](int fd, const sockaddr* address, socklen_t length) {
        note("connect ");
        return fake::connect.Real(fd, address, length);
    });
    const fake::Replace recv_call(fake::recv, [&](int fd, void* data, size_t size, int flags) {
        note("greeting ");
        return fake::recv.Real(fd, data, size, flags);
    });
    const fake::Replace name_call(fake::getpeername, [&](int fd, sockaddr* address, socklen_t* length) {
        note("connected ");
        return fake::getpeername.Real(fd, address, length);
    });
    EXPECT_TRUE(socket.Connect(server.Address()));
    EXPECT_EQ(modes, (Texts{"socket 0", "connect 1", "greeting 1", "connected 3"}));
}

TEST_F(TcpSocket, ConnectWantsAClosedOrConnectedSocket) {
    socket.Open();
    const int fd = socket.GetSocket();
    for (const auto mode : {KOVA_SOCKET_OPENED, KOVA_SOCKET_SERVING}) {
        SCOPED_TRACE(mode);
        trace.Clear();
        socket.SetMode(mode);
        const fake::Journal calls;
        EXPECT_FALSE(socket.Connect());
        EXPECT_TRUE(HasRecorded(socket, EALREADY, kConnectFunction));
        EXPECT_TRUE(trace.Has("connect fd=%d mode=%u", {fd, mode}));
        EXPECT_EQ(calls.Texts(), Texts{});
        EXPECT_EQ(socket.GetMode(), mode);
        EXPECT_EQ(socket.GetSocket(), fd);
    }
}

TEST_F(TcpSocket, ConnectingAgainReplacesTheConnection) {
    Greeter first;
    Greeter second;
    ASSERT_TRUE(socket.Connect(first.Address()));
    const int fd = socket.GetSocket();
    const fake::Journal calls({&fake::setsockopt, &fake::shutdown, &fake::close}, fake::kThisThread);
    EXPECT_TRUE(socket.Connect(second.Address()));

    const Texts closing = calls.Texts(fd);
    EXPECT_EQ(Texts(closing.begin(), closing.begin() + 3),
              (Texts{"setsockopt SOL_SOCKET SO_LINGER {1, 1}", "shutdown SHUT_RDWR", "close"}));
    EXPECT_TRUE(IsEnded(first.Connection()));
    EXPECT_EQ(HostPort(socket.GetPeer()), second.Port());
    EXPECT_TRUE(socket.GetLocal() == PeerOf(second.Connection()));
    EXPECT_EQ(socket.m_Stop, 1) << "as after every Close";
}

TEST_F(TcpSocket, ConnectRestoresTheBlockingFlagThatWasWanted) {
    for (const auto type : {KOVA_SOCKET_PLAIN, KOVA_SOCKET_HANDSHAKE}) {
        for (const bool blocking : {false, true}) {
            SCOPED_TRACE(std::to_string(type) + (blocking ? " blocking" : " not blocking"));
            Greeter first;
            Greeter second;
            Socket client;
            client.SetType(type);
            client.SetBlocking(blocking);
            ASSERT_TRUE(client.Connect(first.Address()));
            EXPECT_EQ(IsNonBlocking(client.GetSocket()), !blocking);
            ASSERT_TRUE(client.Connect(second.Address())) << "closing the first must not change it";
            EXPECT_EQ(IsNonBlocking(client.GetSocket()), !blocking);
        }
    }
}

TEST_F(TcpSocket, FailedConnectRestoresTheBlockingFlagThatWasWanted) {
    socket.SetBlocking(true);
    const auto opens_blocking = [&] {
        socket.Open();
        const bool blocking = !IsNonBlocking(socket.GetSocket());
        ::close(socket.RemoveSocket());
        return blocking;
    };
    {
        const fake::Script refused(fake::connect, {fake::Fail(ECONNREFUSED)});
        EXPECT_FALSE(socket.Connect("::1", 9));
        EXPECT_TRUE(opens_blocking());
    }
    {
        Greeter stranger("Foreign");
        EXPECT_FALSE(socket.Connect(stranger.Address()));
        EXPECT_TRUE(opens_blocking());
    }
    {
        const fake::Script no_socket(fake::socket, {fake::Fail(EMFILE)});
        EXPECT_FALSE(socket.Connect("::1", 9));
        EXPECT_TRUE(opens_blocking());
    }
    {
        // Another thread closed the socket while connect was interrupted, and none can be made again.
        const fake::Script interrupted(fake::connect, {fake::Fail(EINTR)});
        const fake::Script closed(fake::sched_yield, {[&] {
                                      ::close(socket.RemoveSocket());
                                      return 0;
                                  }});
        const fake::Script no_socket(fake::socket, {fake::Real(), fake::Fail(EMFILE)});
        EXPECT_FALSE(socket.Connect("::1", 9));
        EXPECT_TRUE(opens_blocking());
    }
}

TEST_F(TcpSocket, InterruptedConnectYieldsAndTriesAgain) {
    Greeter server;
    const fake::Journal calls({&fake::connect, &fake::sched_yield, &fake::socket}, fake::kThisThread);
    const fake::Script connects(fake::connect, {fake::Fail(EINTR), fake::Fail(EINTR), fake::Real()});
    EXPECT_TRUE(socket.Connect(server.Address()));
    const std::string connect = "connect [::1]:" + std::to_string(server.Port());
    EXPECT_EQ(calls.Texts(), (Texts{"socket AF_INET6 SOCK_STREAM 0", connect, "sched_yield", connect,
                                    "sched_yield", connect}));
    EXPECT_EQ(trace.Count("connect interrupted fd=%d"), 2u);
    EXPECT_TRUE(trace.Has("connect interrupted fd=%d", {socket.GetSocket()}));
    EXPECT_EQ(socket.GetError(), 0);
}

TEST_F(TcpSocket, ConnectThatGoesOnInTheBackgroundIsASuccess) {
    for (const int error : {EINPROGRESS, EAGAIN}) {
        SCOPED_TRACE(error);
        Greeter server;
        const fake::Script connects(fake::connect, {[&](int fd, const sockaddr* address, socklen_t length) {
                                        fake::connect.Real(fd, address, length);
                                        errno = error;
                                        return -1;
                                    }});
        EXPECT_TRUE(socket.Connect(server.Address()));
        EXPECT_EQ(socket.GetError(), 0);
    }
}

TEST_F(TcpSocket, ConnectWithoutASocketIsENOTSOCK) {
    const fake::Script sockets(fake::socket, {fake::Fail(EMFILE)});
    EXPECT_FALSE(socket.Connect());
    EXPECT_TRUE(HasRecorded(socket, ENOTSOCK, kConnectFunction));
    EXPECT_TRUE(trace.Has("connect without socket, mode=%u", {0}));
}

/// After a failed connect the object is closed abortively and still knows why.
class TcpConnectFailure : public TcpSocket {
  protected:
    void ExpectClosedWith(int code, const fake::Journal& calls) {
        EXPECT_TRUE(HasRecorded(socket, code, kConnectFunction));
        EXPECT_EQ(socket.GetMode(), KOVA_SOCKET_CLOSED);
        EXPECT_EQ(socket.GetSocket(), -1);
        const std::vector<fake::Entry> closes = calls.Entries(fake::close);
        ASSERT_EQ(closes.size(), 1u);
        const Texts of_fd = calls.Texts(closes[0].fd);
        EXPECT_EQ(Texts(of_fd.end() - 4, of_fd.end()),
                  (Texts{"ioctl FIONBIO 1", "setsockopt SOL_SOCKET SO_LINGER {1, 0}", "shutdown SHUT_RDWR",
                         "close"}));
        EXPECT_TRUE(trace.Has("connect fd=%d code=%d", {closes[0].fd, code}));
    }
};

TEST_F(TcpConnectFailure, ErrorOfConnectIsFinal) {
    for (const int error : {ECONNREFUSED, ENETUNREACH, ETIMEDOUT, EALREADY}) {
        SCOPED_TRACE(error);
        const fake::Journal calls(fake::kThisThread);
        const fake::Script connects(fake::connect, {fake::Fail(error)});
        EXPECT_FALSE(socket.Connect("::1", 9));
        ExpectClosedWith(error, calls);
    }
}

TEST_F(TcpConnectFailure, NobodyListens) {
    const uint16_t port = FreePort();
    const fake::Journal calls(fake::kThisThread);
    EXPECT_FALSE(socket.Connect("::1", port));
    ExpectClosedWith(ECONNREFUSED, calls);
}

TEST_F(TcpConnectFailure, NobodyListensForABlockingPlainSocket) {
    const uint16_t port = FreePort();
    socket.SetType(KOVA_SOCKET_PLAIN);
    socket.SetBlocking(true);
    const fake::Journal calls(fake::kThisThread);
    EXPECT_FALSE(socket.Connect("127.0.0.1", port));
    ExpectClosedWith(ECONNREFUSED, calls);
}

TEST_F(TcpConnectFailure, ServerIsSilent) {
    Listener server;
    socket.SetTimeout(40);
    const int64_t begin = NowMs();
    const fake::Journal calls(fake::kThisThread);
    EXPECT_FALSE(socket.Connect(server.Address()));
    EXPECT_GE(NowMs() - begin, 30) << "the clock counts tens of milliseconds";
    ExpectClosedWith(ETIMEDOUT, calls);
}

TEST_F(TcpConnectFailure, WaitThatFailsOtherwiseIsATimeoutToo) {
    Greeter server;
    const fake::Journal calls(fake::kThisThread);
    const fake::Script selects(fake::select, {fake::Fail(EBADF)});
    EXPECT_FALSE(socket.Connect(server.Address()));
    ExpectClosedWith(ETIMEDOUT, calls);
}

TEST_F(TcpConnectFailure, GreetingCannotBeRead) {
    Greeter server;
    const fake::Journal calls(fake::kThisThread);
    const fake::Script reads(fake::recv, {fake::Fail(EIO)});
    EXPECT_FALSE(socket.Connect(server.Address()));
    ExpectClosedWith(EIO, calls);
}

TEST_F(TcpConnectFailure, GreetingIsNotConnect) {
    struct Row {
        const char* name;
        std::string greeting;
        Greeter::After after;
        int code;
    };
    const Row rows[] = {
        {"table full", kOverrunText, Greeter::kStays, KovaBaseObject::KOVA_ERR_OVERRUN},
        {"another service", std::string("Foreign", 8), Greeter::kStays,
         KovaBaseObject::KOVA_ERR_BAD_HANDSHAKE},
        {"lower case", std::string("connect", 8), Greeter::kStays, KovaBaseObject::KOVA_ERR_BAD_HANDSHAKE},
        {"not terminated", "Connect!", Greeter::kStays, KovaBaseObject::KOVA_ERR_BAD_HANDSHAKE},
        {"overrun not terminated", "Overrun!", Greeter::kStays, KovaBaseObject::KOVA_ERR_BAD_HANDSHAKE},
        {"eight zeros", std::string(8, '\0'), Greeter::kStays, KovaBaseObject::KOVA_ERR_BAD_HANDSHAKE},
        {"one byte short", "Connect", Greeter::kStays, ECONNRESET},
        {"one byte short and closed", "Connect", Greeter::kCloses, ECONNRESET},
        {"closed without a word", "", Greeter::kCloses, ECONNRESET},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        trace.Clear();
        Greeter server(row.greeting, row.after);
        const fake::Journal calls(fake::kThisThread);
        EXPECT_FALSE(socket.Connect(server.Address()));
        ExpectClosedWith(row.code, calls);

        uint32_t first_word = 0;
        for (const char byte : row.greeting.substr(0, 4)) {
            first_word = first_word << 8 | static_cast<unsigned char>(byte);
        }
        const bool is_bad = row.code == KovaBaseObject::KOVA_ERR_BAD_HANDSHAKE;
        EXPECT_EQ(bool(trace.Has("bad greeting word=%x", {first_word})), is_bad);
    }
}

TEST_F(TcpSocket, BytesBehindTheGreetingAreData) {
    Greeter server(kConnectText + "first");
    ASSERT_TRUE(socket.Connect(server.Address()));
    std::string got(5, '?');
    EXPECT_TRUE(socket.Recv(got.data(), got.size()));
    EXPECT_EQ(got, "first");
}

// SetSocket, Close, destruction

TEST_F(TcpSocket, SetSocketTakesOverAConnection) {
    auto [own, peer] = TcpPair();
    const int fd = own.Get();
    EXPECT_TRUE(socket.SetSocket(own.Release()));
    EXPECT_EQ(socket.GetSocket(), fd);
    EXPECT_EQ(socket.GetMode(), KOVA_SOCKET_CONNECTED);
}

TEST_F(TcpSocket, SetSocketClosesTheOneBefore) {
    const Fd old_peer = Pair();
    const int old_fd = socket.GetSocket();
    auto [own, peer] = TcpPair();
    const fake::Journal calls;
    EXPECT_TRUE(socket.SetSocket(own.Release()));
    EXPECT_EQ(calls.Texts(old_fd), (Texts{"ioctl FIONBIO 1", "setsockopt SOL_SOCKET SO_LINGER {1, 1}",
                                          "shutdown SHUT_RDWR", "close"}));
    EXPECT_EQ(socket.GetMode(), KOVA_SOCKET_CONNECTED);
    EXPECT_TRUE(IsEnded(old_peer));
}

TEST_F(TcpSocket, SetSocketIsRefusedWhileServing) {
    socket.Open();
    socket.SetMode(KOVA_SOCKET_SERVING);
    const int fd = socket.GetSocket();
    EXPECT_FALSE(socket.SetSocket(0));
    EXPECT_TRUE(HasRecorded(socket, KovaBaseObject::KOVA_ERR_ALREADY_OPEN, kSetSocketFunction));
    EXPECT_TRUE(trace.Has("serving fd=%d", {fd}));
    EXPECT_EQ(socket.GetSocket(), fd);
    EXPECT_EQ(socket.GetMode(), KOVA_SOCKET_SERVING);
}

TEST_F(TcpSocket, CloseLingersOneSecondUnlessItIsAbortive) {
    struct Row {
        KovaSocketModeT mode;
        bool abortive;
        const char* linger;
    };
    for (const Row& row : {Row{KOVA_SOCKET_CONNECTED, true, "setsockopt SOL_SOCKET SO_LINGER {1, 0}"},
                           Row{KOVA_SOCKET_CONNECTED, false, "setsockopt SOL_SOCKET SO_LINGER {1, 1}"},
                           Row{KOVA_SOCKET_OPENED, false, "setsockopt SOL_SOCKET SO_LINGER {1, 1}"},
                           // A server is always closed abortively.
                           Row{KOVA_SOCKET_SERVING, false, "setsockopt SOL_SOCKET SO_LINGER {1, 0}"},
                           Row{KOVA_SOCKET_SERVING, true, "setsockopt SOL_SOCKET SO_LINGER {1, 0}"}}) {
        SCOPED_TRACE(std::string(row.linger) + " in mode " + std::to_string(row.mode));
        Socket closing;
        closing.Open();
        closing.SetMode(row.mode);
        closing.m_Received = 5;
        const int fd = closing.GetSocket();
        const fake::Journal calls;
        closing.Close(row.abortive);
        EXPECT_EQ(calls.Texts(fd), (Texts{"ioctl FIONBIO 1", row.linger, "shutdown SHUT_RDWR", "close"}));
        EXPECT_EQ(calls.Texts().size(), 4u);
        EXPECT_EQ(closing.GetSocket(), -1);
        EXPECT_EQ(closing.GetMode(), KOVA_SOCKET_CLOSED);
        EXPECT_EQ(closing.Received(), 0u);
        EXPECT_EQ(closing.m_Stop, 1);
    }
}

TEST_F(TcpSocket, ClosingAClosedSocketStillSetsTheStopFlag) {
    socket.m_Received = 5;
    const fake::Journal calls;
    socket.Close(false);
    EXPECT_EQ(calls.Texts(), Texts{});
    EXPECT_EQ(socket.m_Stop, 1);
    EXPECT_EQ(socket.Received(), 0u);
}

TEST_F(TcpSocket, ShutdownStopsAndClosesAbortively) {
    const Fd peer = Pair();
    const int fd = socket.GetSocket();
    const fake::Journal calls;
    socket.Shutdown();
    EXPECT_EQ(calls.Texts(fd), (Texts{"ioctl FIONBIO 1", "setsockopt SOL_SOCKET SO_LINGER {1, 0}",
                                      "shutdown SHUT_RDWR", "close"}));
    EXPECT_EQ(socket.m_Stop, 1);
}

TEST_F(TcpSocket, ClosedSocketOpensNonBlockingAgain) {
    socket.SetBlocking(true);
    socket.Open();
    socket.Close(true);
    socket.Open();
    EXPECT_TRUE(IsNonBlocking(socket.GetSocket())) << "closing wants it non-blocking";
}

TEST_F(TcpSocket, LingerThatCannotBeSetIsOnlyTraced) {
    const Fd peer = Pair();
    const int fd = socket.GetSocket();
    const fake::Script options(fake::setsockopt, {fake::Fail(EDOM)});
    socket.Close(true);
    EXPECT_EQ(socket.GetError(), 0);
    EXPECT_TRUE(trace.Has("linger fd=%d errno=%d", {fd, EDOM}));
    EXPECT_FALSE(IsOpenFd(fd));
}

TEST_F(TcpSocket, ErrorRecordedBeforeSurvivesClose) {
    const Fd peer = Pair();
    socket.Fail(EPIPE);
    const fake::Always controls(fake::ioctl, fake::Fail(EIO));
    socket.Close(true);
    EXPECT_TRUE(HasRecorded(socket, EPIPE, "earlier"));
}

TEST_F(TcpSocket, AbortiveCloseResetsTheConnection) {
    const Fd peer = Pair();
    socket.Close(true);
    EXPECT_TRUE(WaitUntil([&] { return HasPeerReset(peer); }));
}

TEST_F(TcpSocket, GracefulCloseDeliversWhatWasSentAndEndsTheConnection) {
    const Fd peer = Pair();
    const std::string text = Pattern(60000);
    ASSERT_TRUE(socket.Send(text.data(), text.size()));
    socket.Close(false);
    EXPECT_EQ(ReadUpTo(peer, text.size()), text);
    EXPECT_TRUE(IsEnded(peer));
    EXPECT_TRUE(HasPeerEnded(peer));
    EXPECT_FALSE(HasPeerReset(peer));
}

TEST_F(TcpSocket, DestructorClosesGracefully) {
    auto [own, peer] = TcpPair();
    const int fd = own.Release();
    auto owner = std::make_unique<Socket>(fd);
    const fake::Journal calls;
    owner.reset();
    EXPECT_EQ(calls.Texts(fd), (Texts{"ioctl FIONBIO 1", "setsockopt SOL_SOCKET SO_LINGER {1, 1}",
                                      "shutdown SHUT_RDWR", "close"}));
}

// Send

TEST_F(TcpSocket, SendWithoutSocketIsENOTSOCK) {
    EXPECT_FALSE(socket.Send("abc", 3));
    EXPECT_TRUE(HasRecorded(socket, ENOTSOCK, kSendFunction));
    EXPECT_TRUE(trace.Has("send without socket, size=%u", {3}));
}

TEST_F(TcpSocket, SendDeliversAndClearsTheError) {
    const Fd peer = Pair();
    socket.Fail(EIO);
    EXPECT_TRUE(socket.Send("hello", 5));
    EXPECT_EQ(socket.GetError(), 0);
    EXPECT_EQ(ReadUpTo(peer, 5), "hello");
}

TEST_F(TcpSocket, SendOfNothingSucceeds) {
    const Fd peer = Pair();
    socket.Fail(EIO);
    const fake::Journal calls;
    EXPECT_TRUE(socket.Send(nullptr, 0));
    EXPECT_EQ(calls.Texts(), Texts{});
    EXPECT_EQ(socket.GetError(), 0);
}

TEST_F(TcpSocket, SendGoesOnUntilAllPartsAreSent) {
    const Fd peer = Pair();
    const fake::Replace in_threes(fake::send, [](int fd, const void* data, size_t size, int flags) {
        return fake::send.Real(fd, data, std::min<size_t>(size, 3), flags);
    });
    const fake::Journal calls({&fake::send});
    EXPECT_TRUE(socket.Send("0123456789", 10));
    EXPECT_EQ(calls.Texts(), (Texts{"send 10 MSG_NOSIGNAL", "send 7 MSG_NOSIGNAL", "send 4 MSG_NOSIGNAL",
                                    "send 1 MSG_NOSIGNAL"}));
    EXPECT_EQ(ReadUpTo(peer, 10), "0123456789");
}

TEST_F(TcpSocket, SendStopsAtTheFirstFailureAndTracesHowFarItCame) {
    const Fd peer = Pair();
    const int fd = socket.GetSocket();
    const fake::Script sends(fake::send, {fake::Return(4), fake::Fail(ECONNRESET)});
    EXPECT_FALSE(socket.Send("0123456789", 10));
    EXPECT_TRUE(HasRecorded(socket, ECONNRESET, kWrapperSendFunction));
    EXPECT_TRUE(trace.Has("send fd=%d size=%u errno=%d", {fd, 6, ECONNRESET}));
    EXPECT_TRUE(trace.Has("send stopped fd=%d sent=%u code=%d", {fd, 4, ECONNRESET}));
    EXPECT_TRUE(trace.Has("not all sent fd=%d peer=%x", {fd, htonl(1)})) << "the peer is ::1";
}

TEST_F(TcpSocket, SendThatSendsNothingStops) {
    const Fd peer = Pair();
    const fake::Script sends(fake::send, {fake::Return(0)});
    EXPECT_FALSE(socket.Send("abc", 3));
    EXPECT_TRUE(trace.Has("send stopped fd=%d sent=%u code=%d", {socket.GetSocket(), 0, 0}));
}

TEST_F(TcpSocket, SendToALostPeerIsEPIPEThoughItsAddressIsUnknown) {
    const Fd peer = Pair();
    const fake::Script sends(fake::send, {fake::Fail(EPIPE)});
    const fake::Script names(fake::getpeername, {fake::Fail(ENOTCONN)});
    EXPECT_FALSE(socket.Send("abc", 3));
    EXPECT_EQ(socket.GetSocketError(), EPIPE);
    EXPECT_TRUE(HasRecorded(socket, EPIPE, kWrapperSendFunction));
    EXPECT_TRUE(trace.Has("not all sent fd=%d peer=%x", {socket.GetSocket(), 0}));
}

TEST_F(TcpSocket, TwoThreadsThatCloseItCloseItOnce) {
    const Fd peer = Pair();
    const fake::Script shutdowns(fake::shutdown, {[&](int fd, int how) {
                                     const int result = fake::shutdown.Real(fd, how);
                                     DeadlineThread([&] { socket.Close(true); }).Join();
                                     return result;
                                 }});
    const fake::Counter closes(fake::close);
    socket.Close(true);
    EXPECT_EQ(closes.Calls(), 1u);
    EXPECT_EQ(socket.GetMode(), KOVA_SOCKET_CLOSED);
}

TEST_F(TcpSocket, CloseGoesByTheDescriptorWhateverTheMode) {
    const Fd peer = Pair();
    socket.SetMode(KOVA_SOCKET_CLOSED);
    socket.Close(true);
    EXPECT_EQ(socket.GetSocket(), -1);
    EXPECT_TRUE(IsEnded(peer));
}

TEST_F(TcpSocket, BrokenConnectionIsNotWrittenToAgain) {
    const Fd peer = Pair();
    socket.Fail(EPIPE);
    const fake::Journal calls;
    EXPECT_FALSE(socket.Send("abc", 3));
    EXPECT_FALSE(socket.Send(nullptr, 0));
    EXPECT_EQ(calls.Texts(), Texts{});
    EXPECT_TRUE(HasRecorded(socket, EPIPE, "earlier"));
    EXPECT_TRUE(trace.All().empty());
}

TEST_F(TcpSocket, PeerThatResetsEndsInEPIPE) {
    Fd peer = Pair();
    Reset(peer);
    char byte;
    EXPECT_FALSE(socket.Recv(&byte, 1));
    EXPECT_TRUE(HasRecorded(socket, ECONNRESET, kRecvFunction));
    EXPECT_TRUE(trace.Has("recv fd=%d errno=%d", {socket.GetSocket(), ECONNRESET}));
    EXPECT_FALSE(socket.Send("abc", 3));
    EXPECT_TRUE(HasRecorded(socket, EPIPE, kWrapperSendFunction));
    const fake::Journal calls;
    EXPECT_FALSE(socket.Send("abc", 3));
    EXPECT_EQ(calls.Texts(), Texts{});
}

/// Lets the sleeps of this thread wait for room in the socket instead of for the clock.
class SleepUntilWritable {
  public:
    explicit SleepUntilWritable(int fd)
        : m_Sleep(
              fake::nanosleep,
              [fd](const timespec*, timespec*) {
                  WaitWritable(fd);
                  return 0;
              },
              fake::kThisThread) {}

  private:
    fake::Replace<int(const timespec*, timespec*)> m_Sleep;
};

/// What is left of a block that a peer never reads: the last four attempts failed.
class TcpSendToADeafPeer : public TcpSocket {
  protected:
    TcpSendToADeafPeer() : peer(Pair()), block(Pattern(256 << 10)) {
        // Small buffers that do not grow.
        const int size = 4096;
        ::setsockopt(peer, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
        EXPECT_TRUE(socket.SetSendbufferSize(size));
    }

    const Fd peer;
    const std::string block;
};

TEST_F(TcpSendToADeafPeer, GivesItThreePausesOf50Milliseconds) {
    socket.SetBlocking(false);
    const fake::Journal calls({&fake::send, &fake::nanosleep});
    const int64_t begin = NowMs();
    EXPECT_FALSE(socket.Send(block.data(), block.size()));
    EXPECT_GE(NowMs() - begin, 140) << "the clock counts tens of milliseconds";
    EXPECT_TRUE(HasRecorded(socket, EAGAIN, kWrapperSendFunction));

    const Texts texts = calls.Texts();
    const std::string last = texts.back();
    const std::string pause = "nanosleep {0, 50000000}";
    ASSERT_GE(texts.size(), 7u);
    EXPECT_EQ(Texts(texts.end() - 7, texts.end()), (Texts{last, pause, last, pause, last, pause, last}));
}

TEST_F(TcpSendToADeafPeer, GivesItFourTimeoutsWhenBlocking) {
    socket.SetBlocking(true);
    socket.SetTimeout(30);
    const fake::Always no_sleep(fake::nanosleep, fake::Return(0));
    const fake::Journal calls({&fake::send});
    const int64_t begin = NowMs();
    EXPECT_FALSE(socket.Send(block.data(), block.size()));
    EXPECT_GE(NowMs() - begin, 110) << "the clock counts tens of milliseconds";
    EXPECT_TRUE(HasRecorded(socket, EAGAIN, kWrapperSendFunction));

    const std::vector<fake::Entry> sends = calls.Entries();
    ASSERT_GE(sends.size(), 4u);
    for (auto send = sends.end() - 4; send != sends.end(); ++send) EXPECT_EQ(send->error, EAGAIN);
}

// Recv

TEST_F(TcpSocket, RecvWithoutSocketIsENOTSOCK) {
    socket.m_Received = 5;
    char byte;
    EXPECT_FALSE(socket.Recv(&byte, 1));
    EXPECT_TRUE(HasRecorded(socket, ENOTSOCK, kRecvFunction));
    EXPECT_TRUE(trace.Has("receive without socket, size=%u", {1}));
    EXPECT_EQ(socket.Received(), 0u);
}

TEST_F(TcpSocket, RecvTakesExactlyTheBytesAskedFor) {
    const Fd peer = Pair();
    WriteAll(peer, "0123456789");
    std::string got(5, '?');
    socket.Fail(EIO);
    EXPECT_TRUE(socket.Recv(got.data(), 4));
    EXPECT_EQ(got, "0123?");
    EXPECT_EQ(socket.Received(), 4u);
    EXPECT_EQ(socket.GetError(), 0);
    EXPECT_EQ(Waiting(socket.GetSocket()), 6);
}

TEST_F(TcpSocket, RecvOfNothingSucceeds) {
    const Fd peer = Pair();
    socket.Fail(EIO);
    socket.m_Received = 5;
    EXPECT_TRUE(socket.Recv(nullptr, 0));
    EXPECT_EQ(socket.GetError(), 0);
    EXPECT_EQ(socket.Received(), 0u);
}

TEST_F(TcpSocket, RecvAfterThePeerClosedIsECONNRESET) {
    Fd peer = Pair();
    WriteAll(peer, "abc");
    peer.Close();
    std::string got(5, '?');
    EXPECT_FALSE(socket.Recv(got.data(), got.size()));
    EXPECT_TRUE(HasRecorded(socket, ECONNRESET, kRecvFunction));
    EXPECT_TRUE(trace.Has("peer closed fd=%d", {socket.GetSocket()}));
    EXPECT_EQ(socket.Received(), 3u) << "what came before counts";
    EXPECT_EQ(got, "abc??");
    EXPECT_EQ(socket.GetMode(), KOVA_SOCKET_CONNECTED) << "closing is the caller's";
}

TEST_F(TcpSocket, RecvOfTooLittleTimesOut) {
    const Fd peer = Pair();
    WriteAll(peer, "abc");
    socket.SetTimeout(30);
    std::string got(5, '?');
    EXPECT_FALSE(socket.Recv(got.data(), got.size()));
    EXPECT_TRUE(HasRecorded(socket, ETIMEDOUT, kRecvFunction));
    EXPECT_TRUE(trace.Has("wait fd=%d ms=%d", {socket.GetSocket(), 30}));
    EXPECT_TRUE(trace.Has("receive fd=%d received=%u", {socket.GetSocket(), 3}));
    EXPECT_EQ(socket.Received(), 3u);
}

TEST_F(TcpSocket, RecvThatCannotWaitIsATimeoutToo) {
    const Fd peer = Pair();
    const fake::Script selects(fake::select, {fake::Fail(EBADF)});
    char byte;
    EXPECT_FALSE(socket.Recv(&byte, 1));
    EXPECT_TRUE(HasRecorded(socket, ETIMEDOUT, kRecvFunction));
}

TEST_F(TcpSocket, RecvEndsAtAnErrorOfTheKernel) {
    const Fd peer = Pair();
    WriteAll(peer, "abc");
    for (const int error : {EIO, EINTR, EAGAIN}) {
        const fake::Script reads(fake::recv, {fake::Fail(error)});
        char byte;
        EXPECT_FALSE(socket.Recv(&byte, 1));
        EXPECT_TRUE(HasRecorded(socket, error, kRecvFunction));
        EXPECT_TRUE(trace.Has("recv fd=%d errno=%d", {socket.GetSocket(), error}));
    }
}

/// The kernel hands the receiver these chunks, one per call of recv as far as there is room; then the
/// connection ends. A byte that nobody reads keeps the descriptor readable.
class Chunks {
  public:
    Chunks(const Fd& peer, std::deque<std::string> chunks)
        : m_Chunks(std::move(chunks)),
          m_Recv(fake::recv, [this](int, void* data, size_t size, int) { return Next(data, size); }) {
        WriteAll(peer, "!");
    }

    /// What is called before each chunk.
    std::function<void()> before = [] {};
    bool AllTaken() const { return m_Chunks.empty(); }

  private:
    ssize_t Next(void* data, size_t size) {
        before();
        if (m_Chunks.empty()) return 0;
        std::string& chunk = m_Chunks.front();
        const size_t count = std::min(size, chunk.size());
        std::memcpy(data, chunk.data(), count);
        chunk.erase(0, count);
        if (chunk.empty()) m_Chunks.pop_front();
        return static_cast<ssize_t>(count);
    }

    std::deque<std::string> m_Chunks;
    fake::Replace<ssize_t(int, void*, size_t, int)> m_Recv;
};

TEST_F(TcpSocket, RecvPutsChunksTogether) {
    const Fd peer = Pair();
    Chunks chunks(peer, {"a", "bcdefghij", "k", "lm"});
    std::string got(12, '?');
    EXPECT_TRUE(socket.Recv(got.data(), got.size()));
    EXPECT_EQ(got, "abcdefghijkl");
    EXPECT_EQ(socket.Received(), 12u);
}

TEST_F(TcpSocket, RecvPausesWhileTheKernelIsInProgress) {
    const Fd peer = Pair();
    WriteAll(peer, "a");
    const fake::Always no_sleep(fake::nanosleep, fake::Return(0));
    const fake::Journal calls({&fake::nanosleep});
    const fake::Script reads(fake::recv, {fake::Fail(EINPROGRESS), fake::Fail(EINPROGRESS), fake::Real()});
    char byte = '?';
    EXPECT_TRUE(socket.Recv(&byte, 1));
    EXPECT_EQ(byte, 'a');
    EXPECT_EQ(calls.Texts(), Texts(2, "nanosleep {0, 10000000}"));
    EXPECT_EQ(trace.Count("recv fd=%d errno=%d"), 2u);
    EXPECT_EQ(socket.GetError(), 0);
}

TEST_F(TcpSocket, RecvGivesUpAfterAThousandRoundsWithoutProgress) {
    const Fd peer = Pair();
    WriteAll(peer, "a");
    const fake::Always no_sleep(fake::nanosleep, fake::Return(0));
    const fake::Always reads(fake::recv, fake::Fail(EINPROGRESS));
    char byte;
    EXPECT_FALSE(socket.Recv(&byte, 1));
    EXPECT_EQ(reads.Calls(), 1000u);
    EXPECT_TRUE(HasRecorded(socket, EINPROGRESS, kRecvFunction));
}

TEST_F(TcpSocket, ByteThatArrivesStartsTheRoundsAnew) {
    const Fd peer = Pair();
    WriteAll(peer, "ab");
    const fake::Always no_sleep(fake::nanosleep, fake::Return(0));
    int round = 0;
    const fake::Replace reads(fake::recv, [&](int fd, void* data, size_t, int flags) -> ssize_t {
        if (++round % 1000 == 0) return fake::recv.Real(fd, data, 1, flags);
        errno = EINPROGRESS;
        return -1;
    });
    std::string got(2, '?');
    EXPECT_TRUE(socket.Recv(got.data(), got.size()));
    EXPECT_EQ(got, "ab");
    EXPECT_EQ(round, 2000);
}

TEST_F(TcpSocket, FillerIsDroppedWhereAChunkBeginsWithIt) {
    struct Row {
        const char* name;
        std::deque<std::string> chunks;
        std::string data;
    };
    const std::string& alive = kAliveText;
    const std::string data = "01234567890123456789";
    const Row rows[] = {
        {"one before the data", {alive + data}, data},
        {"two before the data, all in one chunk", {alive + alive + data}, data},
        {"one, then data in the next chunk", {alive, data}, data},
        {"several chunks of it", {alive, alive + alive, alive, data}, data},
        {"between two chunks of data", {"0123456789", alive + "0123456789"}, data},
        {"in the middle of a chunk: data", {"01" + alive + "23"}, "01" + alive + "23"},
        {"before few data", {alive + "0123", data.substr(4)}, data},
        {"without its zero byte: data", {"alive56789"}, "alive56789"},
        {"another byte at its end: data", {"alive!6789"}, "alive!6789"},
        {"upper case: data", {std::string("Alive\0", 6) + "6789"}, std::string("Alive\0", 6) + "6789"},
        {"cut by the sender: data", {"alive", std::string("\0", 1) + "6789"}, alive + "6789"},
        {"the second one cut by the bytes asked for: data", {alive + alive + "0123"}, alive + "0123"},
        {"5 bytes missing, so it cannot be seen: data", {"01234", alive.substr(0, 5)}, "01234alive"},
        {"6 bytes missing", {"0123", alive, "456789"}, "0123456789"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        auto [own, peer] = TcpPair();
        Socket receiver(own.Release());
        const Chunks chunks(peer, row.chunks);
        std::string got(row.data.size(), '?');
        EXPECT_TRUE(receiver.Recv(got.data(), got.size()));
        EXPECT_EQ(got, row.data);
        EXPECT_EQ(receiver.Received(), row.data.size());
        EXPECT_TRUE(chunks.AllTaken());
    }
}

TEST_F(TcpSocket, FillerIsDataWhenFewerThanSixBytesAreAskedFor) {
    const Fd peer = Pair();
    WriteAll(peer, kAliveText);
    std::string got(5, '?');
    EXPECT_TRUE(socket.Recv(got.data(), got.size()));
    EXPECT_EQ(got, "alive");
}

TEST_F(TcpSocket, FillerIsDataToAPlainSocket) {
    const Fd peer = Pair();
    socket.SetType(KOVA_SOCKET_PLAIN);
    WriteAll(peer, kAliveText + kAliveText);
    std::string got(12, '?');
    EXPECT_TRUE(socket.Recv(got.data(), got.size()));
    EXPECT_EQ(got, kAliveText + kAliveText);
}

TEST_F(TcpSocket, EveryOtherTypeIsAHandshakeKind) {
    const Fd peer = Pair();
    socket.SetType(static_cast<KovaSocketTypeT>(77));
    EXPECT_EQ(socket.GetType(), 77u);
    WriteAll(peer, kAliveText + "abcdef");
    std::string got(6, '?');
    EXPECT_TRUE(socket.Recv(got.data(), got.size()));
    EXPECT_EQ(got, "abcdef");
}

/// A monotonic clock that stands still unless it is set.
class Clock {
  public:
    std::atomic<int32_t> now{1000};

  private:
    fake::Replace<int(clockid_t, timespec*)> m_Clock{fake::clock_gettime,
                                                     [this](clockid_t clock, timespec* time) {
                                                         if (clock != CLOCK_MONOTONIC) {
                                                             return fake::clock_gettime.Real(clock, time);
                                                         }
                                                         *time = {now, 0};
                                                         return 0;
                                                     },
                                                     fake::kThisThread};
};

TEST_F(TcpSocket, RecvMayTakeAsLongAsTheAliveTimeout) {
    struct Row {
        int32_t seconds;
        int alive_timeout;
        bool in_time;
    };
    for (const Row& row : {
             Row{300, 300000, true},
             Row{301, 300000, false},
             Row{2, 2000, true},
             Row{3, 2000, false},
             Row{0, 0, true},
             Row{1, 0, false},
             Row{0, -1, false},
             Row{2147483, INT32_MAX, true},
             Row{2147484, INT32_MAX, false},
             Row{4294968, 300000, false},  // 704 ms in 32 bits
             Row{INT32_MAX - 1000, 300000, false},
         }) {
        SCOPED_TRACE(std::to_string(row.seconds) + " s of " + std::to_string(row.alive_timeout) + " ms");
        auto [own, peer] = TcpPair();
        Socket receiver(own.Release());
        if (row.alive_timeout != 300000) receiver.SetAliveTimeout(row.alive_timeout);
        trace.Clear();
        Clock clock;
        Chunks chunks(peer, {"01234567"});
        chunks.before = [&] { clock.now = clock.now + row.seconds; };
        std::string got(8, '?');
        EXPECT_EQ(receiver.Recv(got.data(), got.size()), row.in_time);
        if (row.in_time) continue;
        EXPECT_TRUE(HasRecorded(receiver, KovaBaseObject::KOVA_ERR_RECV_TIMEOUT, kRecvFunction));
        EXPECT_TRUE(
            trace.Has("receive took too long fd=%d limit=%d", {receiver.GetSocket(), row.alive_timeout}));
        EXPECT_EQ(receiver.Received(), 0u) << "the chunk that came too late does not count";
    }
}

TEST_F(TcpSocket, FillerAloneDoesNotStretchTheAliveTimeout) {
    const Fd peer = Pair();
    socket.SetAliveTimeout(5000);
    Clock clock;
    Chunks chunks(peer, std::deque<std::string>(100, kAliveText));
    chunks.before = [&] { clock.now = clock.now + 1; };
    std::string got(8, '?');
    EXPECT_FALSE(socket.Recv(got.data(), got.size()));
    EXPECT_TRUE(HasRecorded(socket, KovaBaseObject::KOVA_ERR_RECV_TIMEOUT, kRecvFunction));
    EXPECT_EQ(clock.now, 1006);
}

TEST_F(TcpSocket, AliveTimeoutIsOnlyLookedAtWhereFillerIs) {
    const auto receives = [&](KovaSocketTypeT type, std::deque<std::string> parts) {
        auto [own, peer] = TcpPair();
        Socket receiver(own.Release());
        receiver.SetType(type);
        Clock clock;
        Chunks chunks(peer, std::move(parts));
        chunks.before = [&] { clock.now = clock.now + 1000000; };
        std::string got(8, '?');
        return receiver.Recv(got.data(), got.size());
    };
    EXPECT_TRUE(receives(KOVA_SOCKET_PLAIN, {"01234567"}));
    EXPECT_TRUE(receives(KOVA_SOCKET_HANDSHAKE, {"0123", "4567"})) << "chunks of 5 bytes and less";
    EXPECT_FALSE(receives(KOVA_SOCKET_HANDSHAKE, {"012345", "67"}));
}

// WaitForData

TEST_F(TcpSocket, WaitWithoutSocketFailsWithoutARecord) {
    const fake::Journal calls;
    EXPECT_FALSE(socket.WaitForData(KOVA_WAIT_READ, 10));
    EXPECT_EQ(socket.GetError(), 0);
    EXPECT_EQ(calls.Texts(), Texts{});
}

TEST_F(TcpSocket, WaitEndsWhenTheDescriptorIsReady) {
    const Fd peer = Pair();
    socket.Fail(EIO);
    EXPECT_TRUE(socket.WaitForData(KOVA_WAIT_WRITE, 1000));
    EXPECT_EQ(socket.GetError(), 0) << "success clears the record";
    EXPECT_TRUE(socket.WaitForData(kReadOrWrite, 1000));
    WriteAll(peer, "a");
    EXPECT_TRUE(socket.WaitForData(KOVA_WAIT_READ, 1000));
}

TEST_F(TcpSocket, WaitSeesDataThatArriveMeanwhile) {
    const Fd peer = Pair();
    std::atomic<bool> waiting = false;
    const fake::Replace selects(fake::select, [&](int n, fd_set* r, fd_set* w, fd_set* e, timeval* limit) {
        waiting = true;
        return fake::select.Real(n, r, w, e, limit);
    });
    DeadlineThread writer([&] {
        WaitUntil([&] { return waiting.load(); });
        WriteAll(peer, "a");
    });
    EXPECT_TRUE(socket.WaitForData(KOVA_WAIT_READ, 30000));
    writer.Join();
}

TEST_F(TcpSocket, WaitThatIsNotAnsweredTimesOut) {
    const Fd peer = Pair();
    const int64_t begin = NowMs();
    EXPECT_FALSE(socket.WaitForData(KOVA_WAIT_READ, 40));
    EXPECT_GE(NowMs() - begin, 30) << "the clock counts tens of milliseconds";
    EXPECT_TRUE(HasRecorded(socket, ETIMEDOUT, kWaitFunction));
    EXPECT_TRUE(trace.Has("wait fd=%d ms=%d", {socket.GetSocket(), 40}));
}

TEST_F(TcpSocket, WaitAlwaysWatchesForUrgentData) {
    const Fd peer = Pair();
    socket.SetTimeout(2500);
    const std::string n = std::to_string(socket.GetSocket() + 1);
    const std::string fd = "{" + std::to_string(socket.GetSocket()) + "}";
    struct Row {
        KovaWaitModeT mode;
        int32_t ms;
        std::string call;
    };
    const Row rows[] = {
        {KOVA_WAIT_READ, 10, fd + " {} " + fd + " {0, 10000}"},
        {KOVA_WAIT_WRITE, 1500, "{} " + fd + " " + fd + " {1, 500000}"},
        {kReadOrWrite, 1, fd + " " + fd + " " + fd + " {0, 1000}"},
        {KovaWaitModeT{}, 1, "{} {} " + fd + " {0, 1000}"},
        // No time means the time-out of the socket.
        {KOVA_WAIT_READ, 0, fd + " {} " + fd + " {2, 500000}"},
    };
    for (const Row& row : rows) {
        const fake::Journal calls({&fake::select});
        const fake::Script selects(fake::select, {fake::Return(0)});
        EXPECT_FALSE(socket.WaitForData(row.mode, row.ms));
        EXPECT_EQ(calls.Texts(), Texts{"select " + n + " " + row.call});
    }
}

TEST_F(TcpSocket, WaitIsInterruptedAtMostTenTimes) {
    const Fd peer = Pair();
    WriteAll(peer, "a");
    const fake::Always selects(fake::select, fake::Fail(EINTR));
    const fake::Counter yields(fake::sched_yield);
    EXPECT_FALSE(socket.WaitForData(KOVA_WAIT_READ, 10));
    EXPECT_EQ(selects.Calls(), 10u);
    EXPECT_EQ(yields.Calls(), 10u);
    EXPECT_TRUE(HasRecorded(socket, EINTR, kSelectFunction));
    for (int left = 9; left >= 0; --left) {
        EXPECT_TRUE(trace.Has("wait interrupted fd=%d retries=%d", {socket.GetSocket(), left}));
    }
    EXPECT_EQ(trace.Count("wait interrupted fd=%d retries=%d"), 10u);
}

TEST_F(TcpSocket, WaitPausesWhileTheKernelIsInProgress) {
    const Fd peer = Pair();
    const fake::Always no_sleep(fake::nanosleep, fake::Return(0));
    const fake::Journal calls({&fake::nanosleep, &fake::select});
    const fake::Always selects(fake::select, fake::Fail(EINPROGRESS));
    EXPECT_FALSE(socket.WaitForData(KOVA_WAIT_READ, 10));
    EXPECT_EQ(selects.Calls(), 10u);
    EXPECT_EQ(calls.Texts(fake::nanosleep), Texts(10, "nanosleep {0, 10000000}"));
    EXPECT_TRUE(HasRecorded(socket, EINPROGRESS, kSelectFunction));
    EXPECT_EQ(trace.Count("wait in progress fd=%d retries=%d"), 10u);
    EXPECT_TRUE(trace.Has("wait in progress fd=%d retries=%d", {socket.GetSocket(), 9}));
    EXPECT_TRUE(trace.Has("wait in progress fd=%d retries=%d", {socket.GetSocket(), 0}));
}

TEST_F(TcpSocket, BothKindsOfRetryShareTheTen) {
    const Fd peer = Pair();
    WriteAll(peer, "a");
    const fake::Always no_sleep(fake::nanosleep, fake::Return(0));
    const auto interrupted = fake::Fail(EINTR);
    const auto in_progress = fake::Fail(EINPROGRESS);
    {
        const fake::Script nine(fake::select,
                                {interrupted, in_progress, interrupted, in_progress, interrupted, in_progress,
                                 interrupted, in_progress, interrupted, fake::Real()});
        EXPECT_TRUE(socket.WaitForData(KOVA_WAIT_READ, 1000));
        EXPECT_EQ(socket.GetError(), 0);
    }
    const fake::Script ten(fake::select, {interrupted, in_progress, interrupted, in_progress, interrupted,
                                          in_progress, interrupted, in_progress, interrupted, in_progress});
    EXPECT_FALSE(socket.WaitForData(KOVA_WAIT_READ, 1000));
}

TEST_F(TcpSocket, WaitEndsAtAnyOtherError) {
    const Fd peer = Pair();
    const fake::Script selects(fake::select, {fake::Fail(EBADF)});
    EXPECT_FALSE(socket.WaitForData(KOVA_WAIT_READ, 10));
    EXPECT_TRUE(HasRecorded(socket, EBADF, kSelectFunction));
    EXPECT_TRUE(trace.Has("wait fd=%d code=%d", {socket.GetSocket(), EBADF}));
}

TEST_F(TcpSocket, WaitStopsAfter300000SecondsAndNotBefore) {
    const Fd peer = Pair();
    Clock clock;
    const auto interrupted_at = [&](int32_t second) {
        return [&clock, second](int, fd_set*, fd_set*, fd_set*, timeval*) {
            clock.now = 1000 + second;
            errno = EINTR;
            return -1;
        };
    };
    const fake::Script selects(fake::select, {interrupted_at(300), interrupted_at(299999),
                                              interrupted_at(300000), interrupted_at(300001)});
    EXPECT_FALSE(socket.WaitForData(KOVA_WAIT_READ, 10));
    EXPECT_EQ(selects.Calls(), 4u);
    EXPECT_TRUE(HasRecorded(socket, EINTR, kSelectFunction));
}

TEST_F(TcpSocket, DescriptorThatNoSetHoldsCannotBeWaitedFor) {
    if (!AllowDescriptorsBeyondSets())
        GTEST_SKIP() << "the limit of open files is too low for such a descriptor";
    auto [own, peer] = TcpPair();
    WriteAll(peer, "a");
    socket.SetSocket(MovedBeyondSets(std::move(own)).Release());
    const fake::Journal calls({&fake::select});
    EXPECT_FALSE(socket.WaitForData(KOVA_WAIT_READ, 10));
    EXPECT_TRUE(HasRecorded(socket, EINVAL, kSelectFunction));
    EXPECT_TRUE(trace.Has("wait fd=%d code=%d", {socket.GetSocket(), EINVAL}));
    EXPECT_EQ(calls.Texts(), Texts{});
    char byte;
    EXPECT_FALSE(socket.Recv(&byte, 1));
    EXPECT_TRUE(HasRecorded(socket, ETIMEDOUT, kRecvFunction));
}

// Urgent data

void SendUrgent(int fd, const std::string& bytes) {
    ASSERT_EQ(::send(fd, bytes.data(), bytes.size(), MSG_OOB | MSG_NOSIGNAL),
              static_cast<ssize_t>(bytes.size()));
}

TEST_F(TcpSocket, UrgentByteIsDroppedAndTheDataBehindItDelivered) {
    const Fd peer = Pair();
    SendUrgent(peer, "!");
    WriteAll(peer, "data");
    std::string got(4, '?');
    EXPECT_TRUE(socket.Recv(got.data(), got.size()));
    EXPECT_EQ(got, "data");
    EXPECT_TRUE(trace.Has("urgent data fd=%d", {socket.GetSocket()}));
    EXPECT_TRUE(trace.Has("urgent data dropped fd=%d bytes=%u", {socket.GetSocket(), 1}));
    EXPECT_EQ(socket.GetError(), 0);
}

TEST_F(TcpSocket, OnlyTheLastByteOfUrgentDataIsUrgent) {
    const Fd peer = Pair();
    WriteAll(peer, "01");
    SendUrgent(peer, "23!");
    WriteAll(peer, "45");
    std::string got(6, '?');
    EXPECT_TRUE(socket.Recv(got.data(), got.size()));
    EXPECT_EQ(got, "012345");
}

TEST_F(TcpSocket, UrgentDataAfterUrgentDataIsDroppedAgain) {
    const Fd peer = Pair();
    for (const char* part : {"ab", "cd", "ef"}) {
        SendUrgent(peer, "!");
        WriteAll(peer, part);
        std::string got(2, '?');
        EXPECT_TRUE(socket.Recv(got.data(), got.size()));
        EXPECT_EQ(got, part);
    }
    EXPECT_EQ(trace.Count("urgent data fd=%d"), 3u);
}

TEST_F(TcpSocket, UrgentDataAloneNeverBlocksTheWait) {
    const Fd peer = Pair();
    socket.SetBlocking(true);
    SendUrgent(peer, "!");
    const fake::Journal calls({&fake::recv});
    EXPECT_FALSE(socket.WaitForData(KOVA_WAIT_READ, 20));
    EXPECT_TRUE(HasRecorded(socket, ETIMEDOUT, kWaitFunction));
    EXPECT_EQ(calls.Texts(), (Texts{"recv 1 MSG_PEEK|MSG_OOB", "recv 1 MSG_OOB", "recv 1 MSG_PEEK|MSG_OOB",
                                    "recv 1 MSG_PEEK|MSG_DONTWAIT"}));
}

TEST_F(TcpSocket, UrgentDataUsesUpNoRetry) {
    const Fd peer = Pair();
    WriteAll(peer, "a");
    int rounds = 0;
    const fake::Replace selects(fake::select, [&](int n, fd_set* r, fd_set* w, fd_set* e, timeval* limit) {
        if (++rounds > 50) return fake::select.Real(n, r, w, e, limit);
        FD_ZERO(r);
        return 1;  // the exception set as it was given
    });
    EXPECT_TRUE(socket.WaitForData(KOVA_WAIT_READ, 1000));
    EXPECT_EQ(rounds, 51);
    EXPECT_TRUE(trace.Has("urgent data dropped fd=%d bytes=%u", {socket.GetSocket(), 0}));
}

// HasRecvData, KeepAlive

TEST_F(TcpSocket, HasRecvDataSeesAByteAndLeavesIt) {
    const Fd peer = Pair();
    WriteAll(peer, "ab");
    ASSERT_TRUE(WaitReadable(socket.GetSocket()));
    const fake::Journal calls;
    EXPECT_TRUE(socket.HasRecvData());
    EXPECT_EQ(calls.Texts(), Texts{"recv 1 MSG_PEEK"});
    EXPECT_EQ(Waiting(socket.GetSocket()), 2);
    EXPECT_TRUE(trace.All().empty());
}

TEST_F(TcpSocket, HasRecvDataRecordsWhyThereIsNone) {
    const auto expect_none = [&](int error) {
        EXPECT_FALSE(socket.HasRecvData());
        EXPECT_TRUE(HasRecorded(socket, error, kHasDataFunction));
        EXPECT_TRUE(trace.Has("peek fd=%d errno=%d", {socket.GetSocket(), error}));
    };
    expect_none(EBADF);
    Fd peer = Pair();
    socket.SetBlocking(false);
    expect_none(EAGAIN);
    {
        const fake::Script reads(fake::recv, {fake::Fail(EIO)});
        expect_none(EIO);
    }
    peer.Close();
    ASSERT_TRUE(WaitReadable(socket.GetSocket()));
    errno = EDOM;
    expect_none(ECONNRESET);
}

TEST_F(TcpSocket, HasRecvDataOfABlockingSocketWaitsForTheTimeout) {
    const Fd peer = Pair();
    socket.SetBlocking(true);
    socket.SetTimeout(30);
    const int64_t begin = NowMs();
    EXPECT_FALSE(socket.HasRecvData());
    EXPECT_GE(NowMs() - begin, 20) << "the clock counts tens of milliseconds";
    EXPECT_TRUE(HasRecorded(socket, EAGAIN, kHasDataFunction));
}

TEST_F(TcpSocket, KeepAliveSendsFillerThatThePeerDrops) {
    const Fd peer = Pair();
    Socket receiver(::dup(peer));
    const fake::Journal calls({&fake::send});
    EXPECT_TRUE(socket.KeepAlive());
    ASSERT_EQ(calls.Texts(), Texts{"send 6 MSG_NOSIGNAL"});
    EXPECT_EQ(calls.Entries().at(0).data, kAliveText);
    EXPECT_TRUE(socket.Send("abcdef", 6));
    std::string got(6, '?');
    EXPECT_TRUE(receiver.Recv(got.data(), got.size()));
    EXPECT_EQ(got, "abcdef");
}

TEST_F(TcpSocket, KeepAliveIsRefusedWithoutAHealthyHandshakeConnection) {
    const fake::Journal calls({&fake::send});
    const auto expect_refused = [&](int fd, KovaSocketTypeT type) {
        trace.Clear();
        EXPECT_FALSE(socket.KeepAlive());
        EXPECT_TRUE(HasRecorded(socket, ENOTSOCK, kKeepAliveFunction));
        EXPECT_TRUE(trace.Has("keep-alive fd=%d type=%u", {fd, type}));
    };
    expect_refused(-1, KOVA_SOCKET_HANDSHAKE);
    const Fd peer = Pair();
    const int fd = socket.GetSocket();
    socket.SetType(KOVA_SOCKET_PLAIN);
    expect_refused(fd, KOVA_SOCKET_PLAIN);
    socket.SetType(KOVA_SOCKET_HANDSHAKE);
    socket.Fail(EPIPE);
    expect_refused(fd, KOVA_SOCKET_HANDSHAKE);
    EXPECT_EQ(calls.Texts(), Texts{});
    EXPECT_TRUE(socket.KeepAlive()) << "any other recorded error does not matter";
}

TEST_F(TcpSocket, KeepAliveTriesOnceOnly) {
    const Fd peer = Pair();
    for (const int error : {EAGAIN, EINTR, EPIPE}) {
        SCOPED_TRACE(error);
        const fake::Script sends(fake::send, {fake::Fail(error)});
        const fake::Counter sleeps(fake::nanosleep);
        EXPECT_FALSE(socket.KeepAlive());
        EXPECT_TRUE(HasRecorded(socket, error, kKeepAliveFunction));
        EXPECT_TRUE(trace.Has("keep-alive fd=%d errno=%d", {socket.GetSocket(), error}));
        EXPECT_EQ(sleeps.Calls(), 0u);
        EXPECT_EQ(Waiting(peer), 0);
    }
}

TEST_F(TcpSocket, KeepAliveOfWhichOnlyAPartGoesFails) {
    const Fd peer = Pair();
    const fake::Script sends(fake::send, {fake::Return(4)});
    errno = 0;
    EXPECT_FALSE(socket.KeepAlive());
    EXPECT_TRUE(HasRecorded(socket, EAGAIN, kKeepAliveFunction));
    EXPECT_TRUE(trace.Has("keep-alive fd=%d errno=%d", {socket.GetSocket(), EAGAIN}));
}

// GetPeer, GetLocal

TEST_F(TcpSocket, AddressesAreAskedOfTheKernelOnce) {
    const Fd peer = Pair();
    const KovaInetAddr there = LocalOf(peer);
    const KovaInetAddr here = PeerOf(peer);
    const fake::Journal calls;
    EXPECT_TRUE(socket.GetPeer() == there);
    EXPECT_TRUE(socket.GetLocal() == here);
    EXPECT_TRUE(socket.GetPeer() == there);
    EXPECT_TRUE(socket.GetLocal() == here);
    EXPECT_EQ(calls.Texts(), (Texts{"getpeername", "getsockname"}));
    EXPECT_EQ(socket.GetError(), 0);
    EXPECT_EQ(&socket.GetPeer(), &socket.GetPeer()) << "the object's own";
}

TEST_F(TcpSocket, AddressIsAskedWithRoomFor28Bytes) {
    const Fd peer = Pair();
    const fake::Script names(fake::getpeername, {[](int fd, sockaddr* address, socklen_t* length) {
                                 EXPECT_EQ(*length, 28u);
                                 return fake::getpeername.Real(fd, address, length);
                             }});
    EXPECT_EQ(socket.GetPeer().GetIp(), htonl(1));
}

TEST_F(TcpSocket, AddressOfNoSocketIsENOTSOCK) {
    EXPECT_EQ(socket.GetPeer().GetIp(), 0u);
    EXPECT_TRUE(HasRecorded(socket, ENOTSOCK, kGetPeerFunction));
    EXPECT_TRUE(trace.Has("address of no socket, peer=%d", {1}));
    EXPECT_EQ(socket.GetLocal().GetIp(), 0u);
    EXPECT_TRUE(HasRecorded(socket, ENOTSOCK, kGetLocalFunction));
    EXPECT_TRUE(trace.Has("address of no socket, peer=%d", {0}));
}

TEST_F(TcpSocket, AddressThatTheKernelDoesNotTellStaysAsItWas) {
    const Fd peer = Pair();
    const int fd = socket.GetSocket();
    const fake::Script peers(fake::getpeername, {fake::Fail(ENOTCONN)});
    const fake::Script locals(fake::getsockname, {fake::Fail(ENOBUFS)});
    EXPECT_EQ(socket.GetPeer().GetIp(), 0u);
    EXPECT_TRUE(HasRecorded(socket, ENOTCONN, kGetPeerFunction));
    EXPECT_TRUE(trace.Has("address of fd=%d peer=%d errno=%d", {fd, 1, ENOTCONN}));
    EXPECT_EQ(socket.GetLocal().GetIp(), 0u);
    EXPECT_TRUE(HasRecorded(socket, ENOBUFS, kGetLocalFunction));
    EXPECT_TRUE(trace.Has("address of fd=%d peer=%d errno=%d", {fd, 0, ENOBUFS}));
    EXPECT_EQ(socket.GetPeer().GetIp(), htonl(1)) << "asked again the next time";
}

TEST_F(TcpSocket, IPv4DescriptorHasMappedAddresses) {
    const Listener listener(AF_INET);
    Fd client(::socket(AF_INET, SOCK_STREAM, 0));
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    to.sin_port = htons(listener.Port());
    ASSERT_EQ(::connect(client, reinterpret_cast<const sockaddr*>(&to), sizeof to), 0);
    const KovaInetAddr local = LocalOf(client);

    socket.SetSocket(client.Release());
    EXPECT_STREQ(socket.GetPeer().GetAsciiIp(), "127.0.0.1");
    EXPECT_EQ(HostPort(socket.GetPeer()), listener.Port());
    EXPECT_STREQ(socket.GetLocal().GetAsciiIp(), "127.0.0.1");
    EXPECT_EQ(socket.GetLocal().GetPort(), local.GetPort());
}

TEST_F(TcpSocket, DescriptorOfAnotherFamilyHasNoAddresses) {
    auto [own, peer] = SocketPair();
    socket.SetSocket(own.Release());
    EXPECT_EQ(socket.GetPeer().GetIp(), 0u);
    EXPECT_EQ(socket.GetPeer().GetPort(), 0);
    EXPECT_EQ(socket.GetError(), 0);
    EXPECT_TRUE(socket.Send("abc", 3)) << "a stream is a stream";
}

// Transfers

TEST_F(TcpSocket, LargeTransfersArriveWhole) {
    const std::string sent = Pattern(8 << 20);
    for (const bool blocking : {false, true}) {
        SCOPED_TRACE(blocking ? "blocking" : "not blocking");
        auto [a, b] = TcpPair();
        Socket sender(a.Release());
        Socket receiver(b.Release());
        sender.SetBlocking(blocking);
        receiver.SetBlocking(blocking);
        for (Socket* end : {&sender, &receiver}) end->SetTimeout(30000);
        DeadlineThread sending([&] {
            const SleepUntilWritable sleep(sender.GetSocket());
            EXPECT_TRUE(sender.Send(sent.data(), sent.size()));
        });
        std::string got(sent.size(), '?');
        EXPECT_TRUE(receiver.Recv(got.data(), got.size()));
        sending.Join();
        EXPECT_TRUE(got == sent);
        EXPECT_EQ(receiver.Received(), sent.size());
    }
}

TEST_F(TcpSocket, PeersOnTwoThreadsTalkInBothDirections) {
    auto [a, b] = TcpPair();
    Socket client(a.Release());
    Socket server(b.Release());
    for (Socket* end : {&client, &server}) {
        const int on = 1;
        ::setsockopt(end->GetSocket(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        end->SetTimeout(30000);
    }
    constexpr int kRounds = 200;
    DeadlineThread echo([&] {
        std::string text(100, '?');
        for (int i = 0; i < kRounds; ++i) {
            ASSERT_TRUE(server.Recv(text.data(), text.size()));
            ASSERT_TRUE(server.KeepAlive());
            ASSERT_TRUE(server.Send(text.data(), text.size()));
        }
    });
    for (int i = 0; i < kRounds; ++i) {
        std::string text = Pattern(100);
        text.replace(0, 4, std::to_string(1000 + i));
        ASSERT_TRUE(client.Send(text.data(), text.size()));
        std::string answer(100, '?');
        ASSERT_TRUE(client.Recv(answer.data(), answer.size()));
        ASSERT_EQ(answer, text);
    }
    echo.Join();
}

/// Receives everything, whatever the signals do: ten of them end a wait, and what has come by then counts.
/// Adds the waits that ended so to `ended_waits`.
std::string RecvThroughSignals(Socket& socket, size_t size, std::atomic<int>& ended_waits) {
    std::string got(size, '?');
    for (size_t count = 0; count < size; count += socket.Received()) {
        if (socket.Recv(got.data() + count, size - count)) break;
        if (socket.GetError() != ETIMEDOUT) {
            ADD_FAILURE() << "receive failed with " << socket.GetError();
            break;
        }
        ++ended_waits;
    }
    return got;
}

TEST_F(TcpSocket, SignalStormLosesNothing) {
    constexpr int kSignals = 100;
    auto [a, b] = TcpPair();
    Socket here(a.Release());
    Socket there(b.Release());
    for (Socket* end : {&here, &there}) end->SetBlocking(false);

    // The last text is another one: a flag might be seen a round too early.
    const std::string text = Pattern(256 << 10);
    const std::string last_text = "!" + text.substr(1);
    ASSERT_NE(text, last_text);
    std::atomic<int> ended_waits = 0;
    DeadlineThread echo([&] {
        const SleepUntilWritable sleep(there.GetSocket());
        for (bool last = false; !last;) {
            const std::string got = RecvThroughSignals(there, text.size(), ended_waits);
            last = got != text;
            EXPECT_TRUE(!last || got == last_text);
            EXPECT_TRUE(there.Send(got.data(), got.size()));
        }
    });
    std::unique_ptr<SignalStorm> storm =
        std::make_unique<SignalStorm>(std::vector<pthread_t>{::pthread_self(), echo.Handle()});
    const SleepUntilWritable sleep(here.GetSocket());
    int rounds = 0;
    for (bool last = false; !last && !testing::Test::HasFailure();) {
        ++rounds;
        last = SignalStorm::Caught() >= kSignals;
        if (last) storm.reset();
        const std::string& sent = last ? last_text : text;
        EXPECT_TRUE(here.Send(sent.data(), sent.size()));
        EXPECT_TRUE(RecvThroughSignals(here, sent.size(), ended_waits) == sent);
    }
    EXPECT_GE(rounds, 2);
    if (testing::Test::HasFailure()) here.Close(true);
    echo.Join();
    EXPECT_LE(10 * ended_waits, SignalStorm::Caught()) << "fewer than ten signals do not end a wait";
}

}  // namespace
