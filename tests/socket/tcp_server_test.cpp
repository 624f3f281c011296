#include "socket/tcp_peers.h"
#include "support/fake_libc.h"
#include "support/leak_check.h"
#include "support/trace_recorder.h"

#include <kova/tcp_socket.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace {

using Texts = std::vector<std::string>;
using Connection = std::unique_ptr<KovaTCPSocket>;

constexpr const char* kServerFunction = "virtual bool KovaTCPSocket::ServerIntern()";
constexpr const char* kAcceptFunction = "virtual KovaTCPSocket* KovaTCPSocket::Accept()";
constexpr const char* kWrapperAcceptFunction =
    "KovaSocketT KovaSocketWrapper::Accept(int, sockaddr*, SocklenT*)";
constexpr const char* kSelectFunction =
    "int32_t KovaSocketWrapper::Select(int, FdSetT*, FdSetT*, FdSetT*, int32_t)";

/// A server whose hooks are functions of the test. What it serves goes to the hook, or is closed at once.
class TestServer : public KovaTCPSocket {
  public:
    using KovaTCPSocket::KovaTCPSocket;
    using KovaTCPSocket::m_Stop;

    std::function<void()> on_ready = [] {};
    std::function<void()> on_idle = [] {};
    std::function<void(Connection)> on_connection = [](Connection) {};
    std::function<KovaTCPSocket*()> on_accept = [this] { return KovaTCPSocket::Accept(); };

    void InitComplete() override {
        KovaTCPSocket::InitComplete();
        port = HostPort(GetLocal());
        on_ready();
    }
    void DoIdle() override {
        KovaTCPSocket::DoIdle();
        on_idle();
    }
    void CallBack(KovaTCPSocket* connection) override {
        KovaTCPSocket::CallBack(connection);
        on_connection(Connection(connection));
    }
    KovaTCPSocket* Accept() override { return on_accept(); }

    /// One step of the base class.
    Connection Step() { return Connection(KovaTCPSocket::Accept()); }
    void Fail(int code) { _SetError_("earlier", 1, code); }

    std::atomic<uint16_t> port{0};
};

class TcpServer : public KovaTest {
  protected:
    /// Runs `steps` while the server is ready, on the thread that serves, and then ends the loop.
    bool Serve(const std::function<void()>& steps) {
        server.on_ready = [&] {
            steps();
            server.Shutdown();
        };
        return server.Server(0);
    }

    /// A new connection that the server has taken in and greeted.
    Fd TakeIn() {
        Fd client = ConnectTo(server.port);
        EXPECT_EQ(server.Step(), nullptr);
        EXPECT_EQ(server.GetError(), 0);
        return client;
    }
    std::vector<Fd> TakeIn(size_t count) {
        std::vector<Fd> clients;
        while (clients.size() < count) clients.push_back(TakeIn());
        return clients;
    }

    /// Nothing is ready: neither a new connection nor a waiting one.
    bool IsIdle() {
        server.SetTimeout(0);
        const bool idle = server.Step() == nullptr && server.GetError() == ETIMEDOUT;
        server.SetTimeout(3000);
        return idle;
    }

    TestServer server;
    TraceRecorder trace;
};

bool IsFrom(KovaTCPSocket& connection, int client) { return connection.GetPeer() == LocalOf(client); }

// Setting up

TEST_F(TcpServer, ServesInTheseStepsAndEndsWithTheLoop) {
    KovaSocketModeT mode_when_ready{};
    const fake::Journal calls;
    server.on_ready = [&] {
        mode_when_ready = server.GetMode();
        server.Shutdown();
    };
    EXPECT_TRUE(server.Server(0));

    EXPECT_EQ(
        calls.Texts(),
        (Texts{"socket AF_INET6 SOCK_STREAM 0", "fcntl F_SETFD 1", "setsockopt IPPROTO_TCP TCP_NODELAY 1",
               "setsockopt SOL_SOCKET SO_DONTROUTE 0", "ioctl FIONBIO 0",
               "setsockopt SOL_SOCKET SO_SNDTIMEO {3, 0}", "setsockopt SOL_SOCKET SO_RCVTIMEO {3, 0}",
               "setsockopt SOL_SOCKET SO_REUSEADDR 1", "bind [::]:0", "listen 25",
               "getsockname",  // which port it is
               "getsockname",  // the hook of this test asks for the address, 0.0.0.0, again
               "ioctl FIONBIO 1", "setsockopt SOL_SOCKET SO_LINGER {1, 0}", "shutdown SHUT_RDWR", "close"}));
    EXPECT_EQ(mode_when_ready, KOVA_SOCKET_SERVING);
    EXPECT_EQ(server.GetMode(), KOVA_SOCKET_CLOSED);
    EXPECT_NE(server.port, 0);
    EXPECT_TRUE(trace.Has("tcp server port=%u", {server.port}));
    EXPECT_TRUE(trace.Has("tcp server ended port=%u", {server.port}));
    EXPECT_EQ(server.GetError(), 0);
}

TEST_F(TcpServer, OptionsOfAnOpenSocketAreSetForServing) {
    server.SetRouting(false);
    server.Open();
    const fake::Journal calls;
    EXPECT_TRUE(Serve([] {}));
    const Texts texts = calls.Texts();
    EXPECT_EQ(Texts(texts.begin(), texts.begin() + 3),
              (Texts{"setsockopt SOL_SOCKET SO_DONTROUTE 0", "ioctl FIONBIO 0",
                     "setsockopt SOL_SOCKET SO_REUSEADDR 1"}));
}

/// Catches what bind is called with and refuses it.
class CaughtBind {
  public:
    std::string address;
    socklen_t length = 0;

  private:
    fake::Replace<int(int, const sockaddr*, socklen_t)> m_Bind{
        fake::bind, [this](int, const sockaddr* to, socklen_t size) {
            address.assign(reinterpret_cast<const char*>(to), size);
            length = size;
            errno = EADDRNOTAVAIL;
            return -1;
        }};
};

TEST_F(TcpServer, EveryFormOfServerNamesTheLocalEnd) {
    struct Form {
        const char* name;
        std::function<bool(TestServer&)> serve;
        const char* ip;
        uint16_t port;
    };
    KovaInetAddr scoped("fe80::1", htons(1203));
    scoped.SetScope(7);
    const Form forms[] = {
        {"port alone: any address", [](TestServer& s) { return s.Server(1200); }, "::", 1200},
        {"IPv4 word", [](TestServer& s) { return s.Server(htonl(0x0A010203), 1201); }, "::ffff:10.1.2.3",
         1201},
        {"address, its scope left out", [&](TestServer& s) { return s.Server(scoped); }, "fe80::1", 1203},
        {"the address before", [](TestServer& s) { return s.Server(); }, "fe80::1", 1203},
    };
    for (const Form& form : forms) {
        SCOPED_TRACE(form.name);
        const CaughtBind caught;
        EXPECT_FALSE(form.serve(server));
        EXPECT_EQ(caught.length, 28u);
        sockaddr_in6 expected{};
        expected.sin6_family = AF_INET6;
        expected.sin6_port = htons(form.port);
        ASSERT_EQ(::inet_pton(AF_INET6, form.ip, &expected.sin6_addr), 1);
        EXPECT_EQ(caught.address, std::string(reinterpret_cast<const char*>(&expected), sizeof expected));
    }
}

TEST_F(TcpServer, AssignedPortIsLearnedForAGivenAddressToo) {
    server.on_ready = [&] { server.Shutdown(); };
    EXPECT_TRUE(server.Server(htonl(INADDR_LOOPBACK), 0));
    EXPECT_NE(server.port, 0);
    EXPECT_STREQ(server.GetLocal().GetAsciiIp(), "127.0.0.1");
}

TEST_F(TcpServer, PortThatCannotBeLearnedIsServedAllTheSame) {
    const fake::Script names(fake::getsockname, {fake::Fail(ENOBUFS)});
    EXPECT_TRUE(Serve([] {}));
    EXPECT_EQ(trace.Count("address of fd=%d peer=%d errno=%d"), 1u);
    EXPECT_TRUE(trace.Has("tcp server port=%u", {0}));
}

TEST_F(TcpServer, GivenPortIsServed) {
    const uint16_t port = FreePort();
    server.on_ready = [&] {
        EXPECT_EQ(HostPort(LocalOf(server.GetSocket())), port);
        const Fd client = TakeIn();
        EXPECT_EQ(ReadUpTo(client, 8), kConnectText);
        server.Shutdown();
    };
    EXPECT_TRUE(server.Server(port));
}

/// After a failure the object is closed and still knows why.
class TcpServerFailure : public TcpServer {
  protected:
    void ExpectClosedWith(int code, const char* text, std::vector<uint32_t> values, const char* linger) {
        EXPECT_TRUE(HasRecorded(server, code, kServerFunction));
        EXPECT_TRUE(trace.Has(text, values));
        EXPECT_EQ(server.GetMode(), KOVA_SOCKET_CLOSED);
        EXPECT_EQ(server.GetSocket(), -1);
        const Texts texts = calls.Texts();
        ASSERT_GE(texts.size(), 4u);
        EXPECT_EQ(Texts(texts.end() - 4, texts.end()),
                  (Texts{"ioctl FIONBIO 1", std::string("setsockopt SOL_SOCKET SO_LINGER ") + linger,
                         "shutdown SHUT_RDWR", "close"}));
    }

    const fake::Journal calls;
};

TEST_F(TcpServerFailure, RoutingCannotBeSet) {
    server.Open();
    const fake::Script options(fake::setsockopt, {fake::Fail(EDOM)});
    EXPECT_FALSE(server.Server(1200));
    ExpectClosedWith(EDOM, "server options port=%u code=%d", {1200, EDOM}, "{1, 1}");
}

TEST_F(TcpServerFailure, BlockingCannotBeSet) {
    server.Open();
    const fake::Script controls(fake::ioctl, {fake::Fail(EIO)});
    EXPECT_FALSE(server.Server(1200));
    ExpectClosedWith(EIO, "server options port=%u code=%d", {1200, EIO}, "{1, 1}");
}

TEST_F(TcpServerFailure, AddressIsTaken) {
    const Listener other;
    const uint16_t port = other.Port();
    EXPECT_FALSE(server.Server(port));
    ExpectClosedWith(EADDRINUSE, "bind port=%u errno=%d", {port, EADDRINUSE}, "{1, 0}");
}

TEST_F(TcpServerFailure, AddressIsNotThisMachines) {
    EXPECT_FALSE(server.Server(htonl(0xC6336401), 1200));
    ExpectClosedWith(EADDRNOTAVAIL, "bind port=%u errno=%d", {1200, EADDRNOTAVAIL}, "{1, 0}");
}

TEST_F(TcpServerFailure, ListenFails) {
    const uint16_t port = FreePort();
    const fake::Script listens(fake::listen, {fake::Fail(EOPNOTSUPP)});
    EXPECT_FALSE(server.Server(port));
    ExpectClosedWith(EOPNOTSUPP, "listen port=%u errno=%d", {port, EOPNOTSUPP}, "{1, 0}");
}

TEST_F(TcpServer, ConnectedOrServingSocketDoesNotServe) {
    server.Open();
    const int fd = server.GetSocket();
    for (const auto mode : {KOVA_SOCKET_CONNECTED, KOVA_SOCKET_SERVING}) {
        trace.Clear();
        server.SetMode(mode);
        EXPECT_FALSE(server.Server(0));
        EXPECT_TRUE(HasRecorded(server, ENOTSOCK, kServerFunction));
        EXPECT_TRUE(trace.Has("server without socket, mode=%u", {mode}));
        EXPECT_EQ(server.GetMode(), mode);
        EXPECT_EQ(server.GetSocket(), fd);
    }
}

TEST_F(TcpServer, ServerWithoutASocketIsENOTSOCK) {
    const fake::Script sockets(fake::socket, {fake::Fail(EMFILE)});
    EXPECT_FALSE(server.Server(0));
    EXPECT_TRUE(HasRecorded(server, ENOTSOCK, kServerFunction));
    EXPECT_TRUE(trace.Has("server without socket, mode=%u", {0}));
}

TEST_F(TcpServer, AddressThatCannotBeReusedIsServedAllTheSame) {
    server.Open();
    const fake::Script options(fake::setsockopt, {fake::Real(), fake::Fail(EDOM)});
    EXPECT_TRUE(Serve([] {}));
}

// The loop

TEST_F(TcpServer, LoopIsIdleWheneverNothingIsHandedOut) {
    server.SetTimeout(0);
    int rounds = 0;
    server.on_idle = [&] {
        EXPECT_EQ(server.GetError(), 0) << "the base hook has cleared the time-out";
        if (++rounds == 3) server.Close(false);
    };
    const fake::Counter selects(fake::select);
    EXPECT_TRUE(server.Server(0));
    EXPECT_EQ(rounds, 3);
    EXPECT_EQ(selects.Calls(), 3u);
}

TEST_F(TcpServer, LoopHandsOutAConnectionWithItsFirstData) {
    Fd client;
    Texts events;
    server.on_ready = [&] { client = ConnectTo(server.port); };
    server.on_idle = [&] {
        events.push_back("idle");
        WriteAll(client, "x");
    };
    server.on_connection = [&](Connection connection) {
        events.push_back("connection");
        EXPECT_TRUE(IsFrom(*connection, client));
        server.Shutdown();
    };
    EXPECT_TRUE(server.Server(0));
    EXPECT_EQ(events, (Texts{"idle", "connection"}));
}

TEST_F(TcpServer, BaseCallBackLeavesTheConnectionToItsOwner) {
    auto [own, peer] = TcpPair();
    KovaTCPSocket connection(own.Release());
    server.KovaTCPSocket::CallBack(&connection);
    EXPECT_EQ(connection.GetMode(), KOVA_SOCKET_CONNECTED);
}

TEST_F(TcpServer, NoHookIsCalledOnceTheStopFlagIsSet) {
    for (const bool has_connection : {false, true}) {
        TestServer stopping;
        auto [own, peer] = TcpPair();
        stopping.on_accept = [&, fd = own.Release()]() -> KovaTCPSocket* {
            stopping.Shutdown();
            if (has_connection) return new KovaTCPSocket(fd);
            ::close(fd);
            return nullptr;
        };
        stopping.on_idle = [] { ADD_FAILURE() << "idle"; };
        stopping.on_connection = [](const Connection&) { ADD_FAILURE() << "connection"; };
        EXPECT_TRUE(stopping.Server(0));
        EXPECT_TRUE(IsEnded(peer)) << "what was accepted while stopping is closed";
    }
}

TEST_F(TcpServer, StoppedServerIsNotStartedAgain) {
    server.Shutdown();
    int ready = 0;
    server.on_ready = [&] { ++ready; };
    server.on_accept = []() -> KovaTCPSocket* {
        ADD_FAILURE() << "accepts";
        return nullptr;
    };
    EXPECT_TRUE(server.Server(0));
    EXPECT_EQ(ready, 1);
    EXPECT_EQ(server.GetMode(), KOVA_SOCKET_CLOSED) << "the listener does not stay open";
}

TEST_F(TcpServer, SocketClosedWhileItIsSetUpDoesNotServe) {
    const fake::Script listens(fake::listen, {[&](int fd, int backlog) {
                                   const int result = fake::listen.Real(fd, backlog);
                                   server.Shutdown();
                                   return result;
                               }});
    server.on_accept = []() -> KovaTCPSocket* {
        ADD_FAILURE() << "accepts";
        return nullptr;
    };
    server.on_ready = [&] { EXPECT_EQ(server.GetMode(), KOVA_SOCKET_CLOSED); };
    EXPECT_TRUE(server.Server(FreePort()));
    EXPECT_EQ(server.GetMode(), KOVA_SOCKET_CLOSED);
    EXPECT_EQ(server.GetSocket(), -1);
}

TEST_F(TcpServer, StoppedInsideAStepItEndsClosed) {
    TestServer* stopped = nullptr;
    const auto stop_in = [&](auto& hook) {
        return [&](auto... arguments) {
            const auto result = hook.Real(arguments...);
            stopped->Shutdown();
            return result;
        };
    };
    const auto serve = [&] {
        TestServer here;
        stopped = &here;
        Fd client;
        here.on_ready = [&] { client = ConnectTo(here.port); };
        here.Server(0);
        EXPECT_EQ(here.GetMode(), KOVA_SOCKET_CLOSED);
        EXPECT_EQ(here.GetSocket(), -1);
    };
    {
        SCOPED_TRACE("socket");
        const fake::Script sockets(fake::socket, {stop_in(fake::socket)});
        serve();
    }
    {
        SCOPED_TRACE("bind");
        const fake::Script binds(fake::bind, {stop_in(fake::bind)});
        serve();
    }
    {
        SCOPED_TRACE("accept");
        const fake::Script accepts(fake::accept, {stop_in(fake::accept)});
        serve();
    }
    {
        SCOPED_TRACE("greeting");
        const fake::Script sends(fake::send, {stop_in(fake::send)});
        serve();
    }
}

TEST_F(TcpServer, DescriptorThatNoSetHoldsDoesNotServe) {
    if (!AllowDescriptorsBeyondSets())
        GTEST_SKIP() << "the limit of open files is too low for such a descriptor";
    int fd = -1;
    const fake::Script sockets(fake::socket, {[&](int domain, int type, int protocol) {
                                   Fd made(fake::socket.Real(domain, type, protocol));
                                   fd = MovedBeyondSets(std::move(made)).Release();
                                   return fd;
                               }});
    EXPECT_FALSE(server.Server(0));
    EXPECT_TRUE(HasRecorded(server, EINVAL, kServerFunction));
    EXPECT_TRUE(trace.Has("server fd=%d cannot be waited for", {fd}));
    EXPECT_FALSE(IsOpenFd(fd));
}

TEST_F(TcpServer, StepWhoseWaitFailsPauses) {
    EXPECT_TRUE(Serve([&] {
        const fake::Script selects(fake::select, {fake::Fail(ENOMEM)});
        const fake::Journal calls({&fake::nanosleep});
        const fake::Script sleeps(fake::nanosleep, {fake::Return(0)});
        EXPECT_EQ(server.Step(), nullptr);
        EXPECT_EQ(calls.Texts(), Texts{"nanosleep {0, 10000000}"});
    }));
}

TEST_F(TcpServer, AcceptOfAnObjectThatDoesNotServeIsNull) {
    const fake::Journal calls;
    EXPECT_EQ(server.Step(), nullptr);
    EXPECT_EQ(calls.Texts(), Texts{});
}

// New connections

TEST_F(TcpServer, NewConnectionIsGreetedAndWaits) {
    EXPECT_TRUE(Serve([&] {
        const Fd client = ConnectTo(server.port);
        server.Fail(EIO);
        const fake::Journal calls;
        EXPECT_EQ(server.Step(), nullptr);
        const std::string listener = std::to_string(server.GetSocket());
        const std::string n = std::to_string(server.GetSocket() + 1);
        EXPECT_EQ(calls.Texts(), (Texts{"select " + n + " {" + listener + "} null null {3, 0}", "accept",
                                        "setsockopt IPPROTO_TCP TCP_NODELAY 1", "send 8 MSG_NOSIGNAL"}));
        EXPECT_EQ(calls.Entries(fake::send).at(0).data, kConnectText);
        EXPECT_EQ(server.GetError(), 0);
        EXPECT_EQ(ReadUpTo(client, 8), kConnectText);
        EXPECT_TRUE(IsIdle());
        EXPECT_EQ(Waiting(client), 0) << "greeted once";
    }));
}

TEST_F(TcpServer, PlainServerDoesNotGreet) {
    server.SetType(KOVA_SOCKET_PLAIN);
    EXPECT_TRUE(Serve([&] {
        const Fd client = ConnectTo(server.port);
        const fake::Counter sends(fake::send);
        EXPECT_EQ(server.Step(), nullptr);
        EXPECT_EQ(sends.Calls(), 0u);
        WriteAll(client, "x");
        const Connection connection = server.Step();
        ASSERT_NE(connection, nullptr);
        EXPECT_EQ(connection->GetType(), KOVA_SOCKET_PLAIN);
    }));
}

TEST_F(TcpServer, FailedAcceptTakesNothingIn) {
    EXPECT_TRUE(Serve([&] {
        const Fd client = ConnectTo(server.port);
        const fake::Script accepts(fake::accept, {fake::Fail(ECONNABORTED)});
        EXPECT_EQ(server.Step(), nullptr);
        EXPECT_TRUE(HasRecorded(server, ECONNABORTED, kWrapperAcceptFunction));
        EXPECT_TRUE(trace.Has("accept errno=%d", {ECONNABORTED}));
        EXPECT_EQ(server.Step(), nullptr);
        EXPECT_EQ(server.GetError(), 0);
        EXPECT_EQ(ReadUpTo(client, 8), kConnectText) << "the next step takes it in";
    }));
}

TEST_F(TcpServer, AcceptThatFailsForAShortagePauses) {
    const fake::Always no_sleep(fake::nanosleep, fake::Return(0));
    EXPECT_TRUE(Serve([&] {
        const Fd client = ConnectTo(server.port);
        for (const int error : {EMFILE, ENFILE, ENOBUFS, ENOMEM}) {
            const fake::Journal calls({&fake::accept, &fake::nanosleep});
            const fake::Script accepts(fake::accept, {fake::Fail(error)});
            EXPECT_EQ(server.Step(), nullptr);
            EXPECT_TRUE(HasRecorded(server, error, kWrapperAcceptFunction));
            EXPECT_EQ(calls.Texts(), (Texts{"accept", "nanosleep {0, 10000000}"}));
        }
    }));
}

TEST_F(TcpServer, ConnectionThatCannotBeGreetedIsClosed) {
    struct Row {
        fake::Action<ssize_t(int, const void*, size_t, int)> send;
        int code;
    };
    const Row rows[] = {
        {fake::Fail(ENOBUFS), ENOBUFS}, {fake::Fail(EPIPE), EPIPE}, {fake::Return(3), EAGAIN}};
    EXPECT_TRUE(Serve([&] {
        for (const Row& row : rows) {
            SCOPED_TRACE(row.code);
            const Fd client = ConnectTo(server.port);
            const fake::Journal calls({&fake::accept, &fake::close});
            const fake::Script sends(fake::send, {row.send});
            EXPECT_EQ(server.Step(), nullptr);
            EXPECT_TRUE(HasRecorded(server, row.code, kAcceptFunction));
            const auto accepted = static_cast<int>(calls.Entries(fake::accept).at(0).result);
            EXPECT_TRUE(
                trace.Has("greet listener=%d fd=%d errno=%d", {server.GetSocket(), accepted, row.code}));
            EXPECT_EQ(calls.Texts(accepted), Texts{"close"});
            EXPECT_TRUE(IsEnded(client));
        }
        EXPECT_TRUE(IsIdle());
    }));
}

TEST_F(TcpServer, GreetingThatASignalInterruptsIsSentAgain) {
    EXPECT_TRUE(Serve([&] {
        const Fd client = ConnectTo(server.port);
        const fake::Script sends(fake::send, {fake::Fail(EINTR), fake::Real()});
        EXPECT_EQ(server.Step(), nullptr);
        EXPECT_EQ(server.GetError(), 0);
        EXPECT_EQ(ReadUpTo(client, 8), kConnectText);
    }));
}

TEST_F(TcpServer, ConnectionResetBeforeItIsAcceptedIsClosed) {
    EXPECT_TRUE(Serve([&] {
        Fd client = ConnectTo(server.port);
        Reset(client);
        EXPECT_EQ(server.Step(), nullptr);
        EXPECT_NE(server.GetError(), 0);
        EXPECT_STREQ(server.GetErrorFunction(), kAcceptFunction);
        EXPECT_TRUE(IsIdle());
    }));
}

TEST_F(TcpServer, ConnectionEndedBeforeItIsAcceptedIsHandedOutAndTellsSo) {
    EXPECT_TRUE(Serve([&] {
        Fd client = ConnectTo(server.port);
        client.Close();
        EXPECT_EQ(server.Step(), nullptr);
        const Connection connection = server.Step();
        ASSERT_NE(connection, nullptr);
        char byte;
        EXPECT_FALSE(connection->Recv(&byte, 1));
        EXPECT_EQ(connection->GetError(), ECONNRESET);
    }));
}

TEST_F(TcpServer, DescriptorThatNoSetHoldsIsRefused) {
    if (!AllowDescriptorsBeyondSets())
        GTEST_SKIP() << "the limit of open files is too low for such a descriptor";
    EXPECT_TRUE(Serve([&] {
        const Fd client = ConnectTo(server.port);
        int accepted = -1;
        const fake::Script accepts(
            fake::accept, {[&](int fd, sockaddr* address, socklen_t* length) {
                accepted = MovedBeyondSets(Fd(fake::accept.Real(fd, address, length))).Release();
                return accepted;
            }});
        EXPECT_EQ(server.Step(), nullptr);
        EXPECT_TRUE(HasRecorded(server, EINVAL, kAcceptFunction));
        EXPECT_TRUE(trace.Has("accepted fd=%d cannot be waited for", {accepted}));
        EXPECT_FALSE(IsOpenFd(accepted));
        EXPECT_TRUE(IsEnded(client));
        EXPECT_TRUE(IsIdle());
    }));
}

// Waiting connections

TEST_F(TcpServer, WaitingConnectionIsHandedOutWithItsFirstData) {
    server.SetType(static_cast<KovaSocketTypeT>(5));
    EXPECT_TRUE(Serve([&] {
        const Fd client = TakeIn();
        WriteAll(client, "hello");
        server.SetTimeout(2500);
        server.Fail(EIO);
        const fake::Journal calls;
        const Connection connection = server.Step();
        ASSERT_NE(connection, nullptr);
        EXPECT_EQ(server.GetError(), 0);
        EXPECT_EQ(calls.Texts(connection->GetSocket()),
                  (Texts{"setsockopt SOL_SOCKET SO_SNDTIMEO {2, 500000}",
                         "setsockopt SOL_SOCKET SO_RCVTIMEO {2, 500000}"}));
        EXPECT_EQ(connection->GetMode(), KOVA_SOCKET_CONNECTED);
        EXPECT_EQ(connection->GetType(), 5u);
        EXPECT_TRUE(IsFrom(*connection, client));
        std::string got(5, '?');
        EXPECT_TRUE(connection->Recv(got.data(), got.size()));
        EXPECT_EQ(got, "hello");
        EXPECT_TRUE(IsIdle()) << "it is in the table no longer";
    }));
}

TEST_F(TcpServer, WaitingConnectionsWinOverNewOnes) {
    EXPECT_TRUE(Serve([&] {
        const Fd waiting = TakeIn();
        const Fd incoming = ConnectTo(server.port);
        WriteAll(waiting, "x");
        const Connection connection = server.Step();
        ASSERT_NE(connection, nullptr);
        EXPECT_TRUE(IsFrom(*connection, waiting));
        EXPECT_EQ(Waiting(incoming), 0);
        EXPECT_EQ(server.Step(), nullptr);
        EXPECT_EQ(ReadUpTo(incoming, 8), kConnectText);
    }));
}

TEST_F(TcpServer, FirstReadyEntryIsHandedOutAndTheOthersKeepTheirOrder) {
    EXPECT_TRUE(Serve([&] {
        std::vector<Fd> clients = TakeIn(5);
        const auto expect_next = [&](size_t index) {
            const Connection connection = server.Step();
            ASSERT_NE(connection, nullptr);
            EXPECT_TRUE(IsFrom(*connection, clients[index]));
        };
        WriteAll(clients[2], "x");
        expect_next(2);
        for (const size_t index : {4u, 0u, 3u, 1u}) WriteAll(clients[index], "x");
        for (const size_t index : {0u, 1u, 3u, 4u}) expect_next(index);
        EXPECT_TRUE(IsIdle());
        clients.push_back(TakeIn());
        WriteAll(clients[5], "x");
        expect_next(5);
    }));
}

TEST_F(TcpServer, SelectWatchesTheListenerAndAllThatWait) {
    EXPECT_TRUE(Serve([&] {
        const fake::Journal accepts({&fake::accept, &fake::select});
        const std::vector<Fd> clients = TakeIn(3);
        std::vector<int> watched{server.GetSocket()};
        for (const fake::Entry& entry : accepts.Entries(fake::accept))
            watched.push_back(static_cast<int>(entry.result));
        std::sort(watched.begin(), watched.end());
        std::string set;
        for (const int fd : watched) set += (set.empty() ? "" : ",") + std::to_string(fd);
        EXPECT_TRUE(IsIdle());
        EXPECT_EQ(accepts.Texts(fake::select).back(),
                  "select " + std::to_string(watched.back() + 1) + " {" + set + "} null null {0, 0}");
    }));
}

TEST_F(TcpServer, TwentiethWaitingConnectionIsToldOverrun) {
    EXPECT_TRUE(Serve([&] {
        std::vector<Fd> clients = TakeIn(19);
        for (const Fd& client : clients) EXPECT_EQ(ReadUpTo(client, 8), kConnectText);

        const fake::Journal calls({&fake::close});
        clients.push_back(TakeIn());
        EXPECT_EQ(ReadUpTo(clients.back(), 8), kOverrunText);
        EXPECT_TRUE(IsEnded(clients[0])) << "the oldest is closed";
        ASSERT_EQ(calls.Entries().size(), 1u);
        EXPECT_TRUE(trace.Has("server table full, evicted fd=%d", {calls.Entries().at(0).fd}));

        clients.push_back(TakeIn());
        EXPECT_EQ(ReadUpTo(clients.back(), 8), kOverrunText);
        EXPECT_TRUE(IsEnded(clients[1]));

        // All others still wait, the newest last.
        for (size_t i = clients.size(); i-- > 2;) WriteAll(clients[i], "x");
        for (size_t i = 2; i < clients.size(); ++i) {
            const Connection connection = server.Step();
            ASSERT_NE(connection, nullptr);
            EXPECT_TRUE(IsFrom(*connection, clients[i]));
        }
        EXPECT_TRUE(IsIdle());
        clients.push_back(TakeIn());
        EXPECT_EQ(ReadUpTo(clients.back(), 8), kConnectText) << "there is room again";
    }));
}

TEST_F(TcpServer, ClientOfAFullServerFailsWithOverrun) {
    EXPECT_TRUE(Serve([&] {
        const std::vector<Fd> clients = TakeIn(19);
        KovaTCPSocket refused;
        DeadlineThread connecting([&] { EXPECT_FALSE(refused.Connect("::1", server.port)); });
        EXPECT_EQ(server.Step(), nullptr);
        connecting.Join();
        EXPECT_EQ(refused.GetError(), KovaBaseObject::KOVA_ERR_OVERRUN);
    }));
}

TEST_F(TcpServer, OverrunThatCannotBeToldStillTakesTheLastEntry) {
    EXPECT_TRUE(Serve([&] {
        const std::vector<Fd> clients = TakeIn(19);
        const Fd newest = ConnectTo(server.port);
        {
            const fake::Script sends(fake::send, {fake::Fail(ENOBUFS)});
            EXPECT_EQ(server.Step(), nullptr);
        }
        EXPECT_TRUE(IsEnded(clients[0]));
        WriteAll(newest, "x");
        const Connection connection = server.Step();
        ASSERT_NE(connection, nullptr);
        EXPECT_TRUE(IsFrom(*connection, newest));
    }));
}

TEST_F(TcpServer, FullPlainServerEvictsWithoutAWord) {
    server.SetType(KOVA_SOCKET_PLAIN);
    EXPECT_TRUE(Serve([&] {
        const std::vector<Fd> clients = TakeIn(20);
        EXPECT_TRUE(IsEnded(clients[0]));
        EXPECT_EQ(Waiting(clients[1]), 0);
        WriteAll(clients[19], "x");
        EXPECT_NE(server.Step(), nullptr);
        EXPECT_EQ(Waiting(clients[19]), 0);
    }));
}

TEST_F(TcpServer, ConnectionForWhichThereIsNoMemoryGoesOnWaiting) {
    EXPECT_TRUE(Serve([&] {
        const Fd client = TakeIn();
        WriteAll(client, "x");
        {
            const fake::Script objects(fake::new_nothrow, {fake::Fail(ENOMEM)});
            const fake::Script sleeps(fake::nanosleep, {fake::Return(0)});
            EXPECT_EQ(server.Step(), nullptr);
            EXPECT_TRUE(HasRecorded(server, ENOMEM, kAcceptFunction));
            EXPECT_EQ(trace.Count("no object for fd=%d"), 1u);
        }
        const Connection connection = server.Step();
        ASSERT_NE(connection, nullptr);
        EXPECT_TRUE(IsFrom(*connection, client));
    }));
}

TEST_F(TcpServer, FailedSelectHandsOutNothing) {
    EXPECT_TRUE(Serve([&] {
        const Fd client = TakeIn();
        WriteAll(client, "x");
        const fake::Script selects(fake::select, {fake::Fail(EINTR)});
        EXPECT_EQ(server.Step(), nullptr);
        EXPECT_TRUE(HasRecorded(server, EINTR, kSelectFunction));
    }));
}

TEST_F(TcpServer, WaitingConnectionsStayOpenAfterCloseUntilTheObjectEnds) {
    auto ending = std::make_unique<TestServer>();
    std::vector<Fd> clients;
    ending->on_ready = [&] {
        for (int i = 0; i < 3; ++i) {
            clients.push_back(ConnectTo(ending->port));
            EXPECT_EQ(ending->Step(), nullptr);
        }
        ending->Close(true);
    };
    EXPECT_TRUE(ending->Server(0));
    for (const Fd& client : clients) {
        EXPECT_EQ(ReadUpTo(client, 8), kConnectText);
        EXPECT_FALSE(HasPeerEnded(client));
    }
    ending.reset();
    for (const Fd& client : clients) EXPECT_TRUE(IsEnded(client));
}

TEST_F(TcpServer, WaitingConnectionsAreClosedBeforeTheTableIsUsedAnew) {
    Fd client;
    EXPECT_TRUE(Serve([&] { client = TakeIn(); }));
    server.on_ready = [&] { EXPECT_TRUE(IsEnded(client)); };
    EXPECT_TRUE(server.Server(0));
}

// Stopping

TEST_F(TcpServer, ConnectionThatArrivesWhileStoppingIsNotAccepted) {
    Fd client;
    EXPECT_TRUE(Serve([&] {
        client = ConnectTo(server.port);
        const fake::Script selects(fake::select,
                                   {[&](int n, fd_set* r, fd_set* w, fd_set* e, timeval* limit) {
                                       const int ready = fake::select.Real(n, r, w, e, limit);
                                       server.Shutdown();
                                       return ready;
                                   }});
        const fake::Counter accepts(fake::accept);
        EXPECT_EQ(server.Step(), nullptr);
        EXPECT_EQ(accepts.Calls(), 0u);
    }));
    EXPECT_TRUE(IsEnded(client));
}

/// Where in the loop another thread stops the server.
enum Phase { kReady, kBeforeAccept, kInSelect, kInCallBack, kInIdle, kAnywhere };

void PrintTo(Phase phase, std::ostream* stream) {
    constexpr const char* kNames[] = {"Ready",      "BeforeAccept", "InSelect",
                                      "InCallBack", "InIdle",       "Anywhere"};
    *stream << kNames[phase];
}

class TcpServerStop : public KovaTest, public testing::WithParamInterface<Phase> {
  protected:
    /// The serving thread says that it is in the phase and stays there until the other thread has stopped it.
    void Reach(Phase phase) {
        if (phase != GetParam()) return;
        m_Reached = true;
        WaitUntil([this] { return m_Stopped.load(); });
    }

    void Stop(TestServer& server) {
        if (GetParam() == kAnywhere) {
            WaitUntil([&] { return server.port != 0; });
        } else {
            EXPECT_TRUE(WaitUntil([this] { return m_Reached.load(); }));
        }
        server.Shutdown();
        m_Stopped = true;
    }

    void Hook(TestServer& server) {
        // Idle at once, or else later than a thread of the test may end: stopping must not wait for the
        // time-out.
        server.SetTimeout(GetParam() == kInIdle ? 0 : 600000);
        server.on_ready = [&] { Reach(kReady); };
        server.on_idle = [&] { Reach(kInIdle); };
        server.on_connection = [&](const Connection&) { Reach(kInCallBack); };
        server.on_accept = [&] {
            Reach(kBeforeAccept);
            return server.KovaTCPSocket::Accept();
        };
    }

    std::atomic<bool> m_Reached = false;
    std::atomic<bool> m_Stopped = false;
};

TEST_P(TcpServerStop, EndsTheLoopFromAnotherThread) {
    constexpr int kRepetitions = 50;
    // The call must be real and go on, so that closing the listener ends it.
    const fake::Replace selects(fake::select, [&](int n, fd_set* r, fd_set* w, fd_set* e, timeval* limit) {
        if (GetParam() == kInSelect) m_Reached = true;
        return fake::select.Real(n, r, w, e, limit);
    });
    for (int i = 0; i < kRepetitions; ++i) {
        m_Reached = m_Stopped = false;
        TestServer server;
        Hook(server);
        DeadlineThread serving([&] { EXPECT_TRUE(server.Server(0)); });
        Fd client;
        if (GetParam() == kInCallBack) {
            ASSERT_TRUE(WaitUntil([&] { return server.port != 0; }));
            client = ConnectTo(server.port);
            WriteAll(client, "x");
        }
        Stop(server);
        serving.Join();
        EXPECT_EQ(server.GetMode(), KOVA_SOCKET_CLOSED);
        EXPECT_EQ(server.GetSocket(), -1);
        if (HasFailure()) break;
    }
}

INSTANTIATE_TEST_SUITE_P(Phases, TcpServerStop,
                         testing::Values(kReady, kBeforeAccept, kInSelect, kInCallBack, kInIdle, kAnywhere),
                         testing::PrintToStringParamName());

TEST_F(TcpServer, StoppedWhileConnectionsStreamInLosesNoDescriptor) {
    constexpr int kRepetitions = 20;
    for (int i = 0; i < kRepetitions; ++i) {
        TestServer busy;
        // The listener's number may be a client's when the loop waits for it once more.
        busy.SetTimeout(50);
        std::atomic<int> served = 0;
        busy.on_connection = [&](const Connection&) { ++served; };
        DeadlineThread serving([&] { EXPECT_TRUE(busy.Server(0)); });
        ASSERT_TRUE(WaitUntil([&] { return busy.port != 0; }));
        DeadlineThread clients([&] {
            for (int n = 0; n < 20 && !busy.m_Stop; ++n) {
                KovaTCPSocket client;
                // The kernel does not always reset a connection that was made while its listener was closed.
                client.SetTimeout(200);
                if (client.Connect("::1", busy.port)) client.Send("x", 1);
            }
        });
        WaitUntil([&] { return served > i % 5 || clients.HasEnded(); });
        busy.Shutdown();
        clients.Join();
        serving.Join();
    }
}

// Both ends

TEST_F(TcpServer, ClientAndServerTalk) {
    constexpr int kClients = 3;
    std::vector<std::unique_ptr<DeadlineThread>> talks;
    server.on_connection = [&](Connection connection) {
        talks.push_back(std::make_unique<DeadlineThread>([peer = std::shared_ptr(std::move(connection))] {
            std::string text(10, '?');
            while (peer->Recv(text.data(), text.size())) EXPECT_TRUE(peer->Send(text.data(), text.size()));
            EXPECT_EQ(peer->GetError(), ECONNRESET) << "until the client closes";
        }));
        if (talks.size() == kClients) server.Shutdown();
    };
    DeadlineThread serving([&] { EXPECT_TRUE(server.Server(0)); });
    ASSERT_TRUE(WaitUntil([&] { return server.port != 0; }));

    std::vector<std::unique_ptr<DeadlineThread>> clients;
    for (int i = 0; i < kClients; ++i) {
        clients.push_back(std::make_unique<DeadlineThread>([&] {
            KovaTCPSocket client;
            client.SetTimeout(30000);
            ASSERT_TRUE(client.Connect("::1", server.port));
            for (int round = 0; round < 20; ++round) {
                const std::string text = std::to_string(1000000000 + round);
                ASSERT_TRUE(client.KeepAlive());
                ASSERT_TRUE(client.Send(text.data(), text.size()));
                std::string answer(text.size(), '?');
                ASSERT_TRUE(client.Recv(answer.data(), answer.size()));
                EXPECT_EQ(answer, text);
            }
        }));
    }
    clients.clear();
    serving.Join();
    talks.clear();
}

}  // namespace
