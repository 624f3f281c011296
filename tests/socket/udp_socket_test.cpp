#include "support/fake_libc.h"
#include "support/leak_check.h"
#include "support/own_machine.h"
#include "support/recorded.h"
#include "support/second_host.h"
#include "support/signal_storm.h"
#include "support/trace_recorder.h"

#include <kova/udp_socket.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

using Texts = std::vector<std::string>;

constexpr char kBind[] = "virtual bool KovaUDPSocket::Bind()";
constexpr char kServerIntern[] = "virtual bool KovaUDPSocket::ServerIntern()";
constexpr char kPeekFrom[] = "virtual bool KovaUDPSocket::PeekFrom(void*, size_t)";
constexpr char kRecvFrom[] = "virtual bool KovaUDPSocket::RecvFrom(void*, size_t)";
constexpr char kSendTo[] = "virtual bool KovaUDPSocket::SendTo(const void*, size_t, KovaInetAddr&)";
constexpr char kWaitForData[] = "bool KovaUDPSocket::WaitForData(KovaWaitModeT)";
constexpr char kSetSocket[] = "bool KovaUDPSocket::SetSocket(KovaSocketT)";
constexpr char kGetLocal[] = "KovaInetAddr& KovaUDPSocket::GetLocal()";
constexpr char kWrapperSocket[] = "KovaSocketT KovaSocketWrapper::Socket(int, int, int)";
constexpr char kWrapperSendTo[] = "int KovaSocketWrapper::SendTo(const void*, size_t, sockaddr*, int)";

/// A plain literal would be an int, which is a descriptor.
constexpr unsigned short kPort = 20001;

constexpr int kShortTimeout = 20;
constexpr int kLongTimeout = 60000;

/// A socket whose error record a test can fill.
class Udp : public KovaUDPSocket {
  public:
    using KovaUDPSocket::KovaUDPSocket;
    void Plant(int code) { _SetError_("planted", 1, code); }
    bool IsStopped() const { return m_Stop != 0; }
};

in6_addr Ip6(const char* text) {
    in6_addr ip{};
    EXPECT_EQ(1, ::inet_pton(AF_INET6, text, &ip)) << text;
    return ip;
}

/// IPv4 address in network order.
unsigned Ip4(const char* text) { return ::inet_addr(text); }

sockaddr_in6 Sockaddr(const in6_addr& ip, unsigned short port, uint32_t scope = 0) {
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    address.sin6_port = htons(port);
    address.sin6_addr = ip;
    address.sin6_scope_id = scope;
    return address;
}

template <typename Value>
std::string Bytes(const Value& value) {
    return {reinterpret_cast<const char*>(&value), sizeof value};
}

std::string Bytes(const void* data, size_t size) { return {static_cast<const char*>(data), size}; }

/// The other end: a plain kernel socket on the loopback address of its family.
class Peer {
  public:
    explicit Peer(int family = AF_INET6) : m_Family(family), m_Fd(::socket(family, SOCK_DGRAM, 0)) {
        sockaddr_storage local = Loopback(0);
        socklen_t length = sizeof local;
        EXPECT_EQ(0, ::bind(m_Fd, Generic(local), AddressSize()));
        EXPECT_EQ(0, ::getsockname(m_Fd, Generic(local), &length));
        m_Port = ntohs(reinterpret_cast<const sockaddr_in6&>(local).sin6_port);
        const timeval limit{10, 0};
        ::setsockopt(m_Fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    }
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;
    ~Peer() { ::close(m_Fd); }

    unsigned short Port() const { return m_Port; }
    KovaInetAddr Address() const {
        if (m_Family == AF_INET) return KovaInetAddr(htonl(INADDR_LOOPBACK), htons(m_Port));
        return KovaInetAddr(in6addr_loopback, htons(m_Port));
    }

    void Send(unsigned short port, const std::string& data) const {
        const sockaddr_storage to = Loopback(port);
        EXPECT_EQ(static_cast<ssize_t>(data.size()),
                  ::sendto(m_Fd, data.data(), data.size(), 0, reinterpret_cast<const sockaddr*>(&to),
                           AddressSize()));
    }
    /// The next datagram; what arrived is there at once, since loopback delivers while it is sent.
    std::string Receive() const {
        char buffer[16384];
        const ssize_t size = ::recv(m_Fd, buffer, sizeof buffer, 0);
        return size < 0 ? "nothing" : std::string(buffer, static_cast<size_t>(size));
    }
    bool HasNothing() const {
        char byte;
        return ::recv(m_Fd, &byte, sizeof byte, MSG_DONTWAIT | MSG_PEEK) < 0;
    }

  private:
    sockaddr_storage Loopback(unsigned short port) const {
        sockaddr_storage storage{};
        if (m_Family == AF_INET) {
            auto& address = reinterpret_cast<sockaddr_in&>(storage);
            address.sin_family = AF_INET;
            address.sin_port = htons(port);
            address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        } else {
            reinterpret_cast<sockaddr_in6&>(storage) = Sockaddr(in6addr_loopback, port);
        }
        return storage;
    }
    static sockaddr* Generic(sockaddr_storage& storage) { return reinterpret_cast<sockaddr*>(&storage); }
    socklen_t AddressSize() const { return m_Family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6); }

    const int m_Family;
    const int m_Fd;
    unsigned short m_Port = 0;
};

unsigned short BoundPort(const KovaSocketWrapper& socket) {
    sockaddr_in6 name{};
    socklen_t length = sizeof name;
    EXPECT_EQ(0, ::getsockname(socket.GetSocket(), reinterpret_cast<sockaddr*>(&name), &length));
    return ntohs(name.sin6_port);
}

Texts FunctionsOf(const fake::Journal& journal) {
    Texts functions;
    for (const fake::Entry& entry : journal.Entries()) functions.push_back(entry.function);
    return functions;
}

int OptionOf(const KovaSocketWrapper& socket, int option) {
    int value = -1;
    socklen_t length = sizeof value;
    EXPECT_EQ(0, ::getsockopt(socket.GetSocket(), SOL_SOCKET, option, &value, &length));
    return value;
}

/// Notes the options that are set, and sets them.
class OptionLog {
  public:
    struct Option {
        int fd;
        int level;
        int name;
        std::string value;
    };

    OptionLog()
        : m_Hook(fake::setsockopt, [this](int fd, int level, int name, const void* value, socklen_t size) {
              options.push_back({fd, level, name, Bytes(value, size)});
              return fake::setsockopt.Real(fd, level, name, value, size);
          }) {}

    std::vector<Option> options;

  private:
    fake::Always<int(int, int, int, const void*, socklen_t)> m_Hook;
};

/// Notes where datagrams would go, and claims that they went.
class SendLog {
  public:
    struct Datagram {
        std::string data;
        int flags;
        std::string to;
    };

    SendLog()
        : m_Hook(fake::sendto,
                 [this](int, const void* data, size_t size, int flags, const sockaddr* to, socklen_t length) {
                     datagrams.push_back({Bytes(data, size), flags, Bytes(to, length)});
                     return static_cast<ssize_t>(size);
                 }) {}

    std::vector<Datagram> datagrams;

  private:
    fake::Always<ssize_t(int, const void*, size_t, int, const sockaddr*, socklen_t)> m_Hook;
};

class UdpSocket : public KovaTest {
  protected:
    /// A bound socket of a short time-out.
    std::unique_ptr<Udp> Bound() {
        auto socket = std::make_unique<Udp>(FreePort());
        socket->SetTimeout(kShortTimeout);
        EXPECT_TRUE(socket->Open());
        EXPECT_TRUE(socket->Bind());
        return socket;
    }
};

// Construction

TEST_F(UdpSocket, StartsClosedWithoutAddressesAndPeer) {
    Udp socket;
    EXPECT_EQ(-1, socket.GetSocket());
    EXPECT_EQ(KOVA_SOCKET_CLOSED, socket.GetMode());
    EXPECT_EQ(0u, socket.Received());
    EXPECT_EQ(0u, socket.GetPeer().GetIp());
    EXPECT_EQ(0, socket.GetPeer().GetPort());
    EXPECT_EQ(KovaInetAddr::kNoScope, socket.GetPeer().GetScope());
    EXPECT_EQ(KovaBaseObject::KOVA_ERR_NONE, socket.GetError());
    EXPECT_EQ(nullptr, socket.GetErrorFunction());
}

TEST_F(UdpSocket, ConstructorPortsAreInHostOrder) {
    KovaUDPSocket port_only(kPort);
    KovaUDPSocket ip_and_port(Ip4("127.0.0.1"), kPort);
    KovaUDPSocket address(KovaInetAddr(in6addr_loopback, htons(kPort)));
    EXPECT_EQ(htons(kPort), port_only.GetLocal().GetPort());
    EXPECT_EQ(htons(kPort), ip_and_port.GetLocal().GetPort());
    EXPECT_EQ(htons(kPort), address.GetLocal().GetPort());
    EXPECT_EQ(Ip4("127.0.0.1"), ip_and_port.GetLocal().GetIp());
    EXPECT_EQ(Bytes(in6addr_loopback), Bytes(*address.GetLocal().GetIp6()));
}

TEST_F(UdpSocket, PlainIntIsADescriptorAndNoPort) {
    Udp socket(20001);
    EXPECT_EQ(20001, socket.RemoveSocket());
}

TEST_F(UdpSocket, ConstructorKeepsTheScopeOfTheLocalAddress) {
    KovaInetAddr local(Ip6("fe80::1"), htons(kPort));
    local.SetScope(3);
    KovaUDPSocket socket(local);
    EXPECT_EQ(3, socket.GetLocal().GetScope());
}

TEST_F(UdpSocket, TakesOverADescriptorAndClosesIt) {
    const int fd = ::socket(AF_INET6, SOCK_DGRAM, 0);
    {
        KovaUDPSocket socket(fd);
        EXPECT_EQ(fd, socket.GetSocket());
        EXPECT_EQ(KOVA_SOCKET_CONNECTED, socket.GetMode());
        EXPECT_TRUE(IsOpenFd(fd));
    }
    EXPECT_FALSE(IsOpenFd(fd));
}

TEST_F(UdpSocket, DestructorClosesAnOpenedDescriptor) {
    int fd;
    {
        KovaUDPSocket socket;
        ASSERT_TRUE(socket.Open());
        fd = socket.GetSocket();
    }
    EXPECT_FALSE(IsOpenFd(fd));
}

TEST_F(UdpSocket, AvailableIsAlwaysZero) {
    auto socket = Bound();
    EXPECT_EQ(0, socket->Available());
    Peer().Send(BoundPort(*socket), "waiting");
    EXPECT_EQ(0, socket->Available());
}

// Open

TEST_F(UdpSocket, OpenMakesACloseOnExecIpv6DatagramSocket) {
    Udp socket;
    const fake::Journal journal{&fake::socket, &fake::fcntl};
    ASSERT_TRUE(socket.Open());
    EXPECT_EQ((Texts{"socket AF_INET6 SOCK_DGRAM 0", "fcntl F_SETFD 1"}), journal.Texts());
    EXPECT_EQ(KOVA_SOCKET_OPENED, socket.GetMode());
    EXPECT_EQ(FD_CLOEXEC, ::fcntl(socket.GetSocket(), F_GETFD));
}

void ExpectOption(const OptionLog::Option& option, int fd, int name, const std::string& value) {
    EXPECT_EQ(fd, option.fd);
    EXPECT_EQ(SOL_SOCKET, option.level);
    EXPECT_EQ(name, option.name);
    EXPECT_EQ(value, option.value) << "option " << name;
}

TEST_F(UdpSocket, OpenReplaysDeviceRoutingBroadcastAndTimeoutsInThisOrder) {
    Udp socket;
    EXPECT_TRUE(socket.BindToDevice("lo"));
    EXPECT_TRUE(socket.SetRouting(false));
    EXPECT_TRUE(socket.SetBroadcast(true));
    EXPECT_FALSE(socket.SetTimeout(2500));
    const OptionLog log;
    ASSERT_TRUE(socket.Open());
    ASSERT_EQ(5u, log.options.size());
    const int fd = socket.GetSocket();
    ExpectOption(log.options[0], fd, SO_BINDTODEVICE, std::string("lo\0", 3));
    ExpectOption(log.options[1], fd, SO_DONTROUTE, Bytes(1));
    ExpectOption(log.options[2], fd, SO_BROADCAST, Bytes(1));
    ExpectOption(log.options[3], fd, SO_SNDTIMEO, Bytes(timeval{2, 500000}));
    ExpectOption(log.options[4], fd, SO_RCVTIMEO, Bytes(timeval{2, 500000}));
}

TEST_F(UdpSocket, OpenAppliesDefaultsAndNoDevice) {
    Udp socket;
    const OptionLog log;
    ASSERT_TRUE(socket.Open());
    ASSERT_EQ(4u, log.options.size());
    const int fd = socket.GetSocket();
    ExpectOption(log.options[0], fd, SO_DONTROUTE, Bytes(0));
    ExpectOption(log.options[1], fd, SO_BROADCAST, Bytes(0));
    ExpectOption(log.options[2], fd, SO_SNDTIMEO, Bytes(timeval{3, 0}));
    ExpectOption(log.options[3], fd, SO_RCVTIMEO, Bytes(timeval{3, 0}));
}

TEST_F(UdpSocket, OpenOfAnOpenSocketIsTrueAndChangesNothing) {
    Udp socket;
    ASSERT_TRUE(socket.Open());
    const fake::Journal journal;
    EXPECT_TRUE(socket.Open());
    EXPECT_EQ(Texts{}, journal.Texts());
}

TEST_F(UdpSocket, OpenFailsWithTheErrnoOfSocket) {
    Udp socket;
    const TraceRecorder recorder;
    const fake::Script sockets(fake::socket, {fake::Fail(EMFILE)});
    EXPECT_FALSE(socket.Open());
    EXPECT_TRUE(Recorded(socket, EMFILE, kWrapperSocket));
    EXPECT_TRUE(recorder.Has("socket errno=%d", {EMFILE}));
    EXPECT_EQ(KOVA_SOCKET_CLOSED, socket.GetMode());
    EXPECT_EQ(-1, socket.GetSocket());
}

TEST_F(UdpSocket, OpenSucceedsWithoutAnOptionAndKeepsItsError) {
    Udp socket;
    const TraceRecorder recorder;
    const fake::Script options(fake::setsockopt, {fake::Fail(EPERM), fake::Real()});
    EXPECT_TRUE(socket.Open());
    EXPECT_EQ(KOVA_SOCKET_OPENED, socket.GetMode());
    EXPECT_TRUE(Recorded(socket, EPERM, "virtual bool KovaSocketWrapper::SetRouting(bool)"));
    EXPECT_TRUE(recorder.Has("routing=%d errno=%d", {1, EPERM}));
}

// Bind

TEST_F(UdpSocket, BindToPortZeroIsAnInvalidParameterEvenWhenClosed) {
    Udp socket;
    const TraceRecorder recorder;
    EXPECT_FALSE(socket.Bind());
    EXPECT_TRUE(Recorded(socket, KovaBaseObject::KOVA_ERR_INVALID_PARAMETER, kBind));
    EXPECT_TRUE(recorder.Has("bind to port 0, fd=%d", {-1}));

    ASSERT_TRUE(socket.Open());
    const fake::Counter binds(fake::bind);
    EXPECT_FALSE(socket.Bind());
    EXPECT_EQ(KovaBaseObject::KOVA_ERR_INVALID_PARAMETER, socket.GetError());
    EXPECT_TRUE(recorder.Has("bind to port 0, fd=%d", {socket.GetSocket()}));
    EXPECT_EQ(0u, binds.Calls());
    EXPECT_EQ(KOVA_SOCKET_OPENED, socket.GetMode());
}

TEST_F(UdpSocket, BindOfAClosedSocketIsNotASocket) {
    Udp socket(kPort);
    const TraceRecorder recorder;
    EXPECT_FALSE(socket.Bind());
    EXPECT_TRUE(Recorded(socket, ENOTSOCK, kBind));
    EXPECT_TRUE(recorder.Has("bind without socket, port=%u", {kPort}));
}

TEST_F(UdpSocket, BindUsesTheWildcardWhateverTheLocalAddress) {
    static_assert(sizeof(sockaddr_in6) == 28);
    KovaInetAddr local(in6addr_loopback, htons(kPort));
    local.SetScope(5);
    Udp socket(local);
    ASSERT_TRUE(socket.Open());
    std::string bound;
    const fake::Script binds(fake::bind, {[&](int, const sockaddr* address, socklen_t length) {
                                 bound = Bytes(address, length);
                                 return 0;
                             }});
    EXPECT_TRUE(socket.Bind());
    EXPECT_EQ(Bytes(Sockaddr(in6addr_any, kPort)), bound);
}

TEST_F(UdpSocket, SecondBindIsTrueAndOnlyTraced) {
    auto socket = Bound();
    const TraceRecorder recorder;
    const fake::Counter binds(fake::bind);
    EXPECT_TRUE(socket->Bind());
    EXPECT_EQ(0u, binds.Calls());
    EXPECT_TRUE(recorder.Has("bound already port=%u", {BoundPort(*socket)}));
}

TEST_F(UdpSocket, FailedBindClosesAndItsErrorSurvives) {
    const Peer holder;
    Udp socket(holder.Port());
    ASSERT_TRUE(socket.Open());
    const TraceRecorder recorder;
    EXPECT_FALSE(socket.Bind());
    EXPECT_TRUE(Recorded(socket, EADDRINUSE, kBind));
    EXPECT_TRUE(recorder.Has("bind udp port=%u errno=%d", {holder.Port(), EADDRINUSE}));
    EXPECT_EQ(KOVA_SOCKET_CLOSED, socket.GetMode());
    EXPECT_EQ(-1, socket.GetSocket());
}

TEST_F(UdpSocket, FailedBindDoesNotCountAsBound) {
    Udp socket(FreePort());
    ASSERT_TRUE(socket.Open());
    {
        const fake::Script binds(fake::bind, {fake::Fail(EACCES)});
        EXPECT_FALSE(socket.Bind());
        EXPECT_TRUE(Recorded(socket, EACCES, kBind));
    }
    ASSERT_TRUE(socket.Open());
    const fake::Counter binds(fake::bind);
    EXPECT_TRUE(socket.Bind());
    EXPECT_EQ(1u, binds.Calls());
}

TEST_F(UdpSocket, CloseMakesTheSocketBindAgain) {
    auto socket = Bound();
    socket->Close();
    ASSERT_TRUE(socket->Open());
    const fake::Counter binds(fake::bind);
    EXPECT_TRUE(socket->Bind());
    EXPECT_EQ(1u, binds.Calls());
}

TEST_F(UdpSocket, RemovedSocketDoesNotCountAsBound) {
    auto socket = Bound();
    const Fd removed(socket->RemoveSocket());
    Udp next(FreePort());
    ASSERT_TRUE(next.Open());
    ASSERT_TRUE(socket->SetSocket(next.RemoveSocket()));
    {
        const fake::Script binds(fake::bind, {fake::Return(0)});
        EXPECT_TRUE(socket->Bind());
    }
    const Fd taken(socket->RemoveSocket());
    ASSERT_TRUE(socket->Open());
    const fake::Script binds(fake::bind, {fake::Return(0)});
    EXPECT_TRUE(socket->Bind());
}

// Close and SetSocket

TEST_F(UdpSocket, CloseLingersShutsDownAndClosesOnce) {
    auto socket = Bound();
    const fake::Journal journal;
    const OptionLog log;
    socket->Close();
    socket->Close();
    EXPECT_EQ((Texts{"setsockopt", "shutdown", "close"}), FunctionsOf(journal));
    ASSERT_EQ(1u, log.options.size());
    EXPECT_EQ(SO_LINGER, log.options[0].name);
    EXPECT_EQ(Bytes(linger{1, 1}), log.options[0].value);
    EXPECT_EQ(Texts{"shutdown SHUT_RDWR"}, journal.Texts(fake::shutdown));
    EXPECT_EQ(-1, socket->GetSocket());
    EXPECT_EQ(KOVA_SOCKET_CLOSED, socket->GetMode());
}

TEST_F(UdpSocket, CloseKeepsAnErrorRecordedBefore) {
    auto socket = Bound();
    socket->Plant(EHOSTUNREACH);
    const TraceRecorder recorder;
    const fake::Script lingers(fake::setsockopt, {fake::Fail(EDOM)});
    const int fd = socket->GetSocket();
    socket->Close();
    EXPECT_TRUE(Recorded(*socket, EHOSTUNREACH, "planted"));
    EXPECT_TRUE(recorder.Has("linger fd=%d errno=%d", {fd, EDOM}));
}

TEST_F(UdpSocket, CloseThatIsInterruptedIsNotRepeated) {
    auto socket = Bound();
    const fake::Script closes(fake::close, {[](int fd) {
                                  fake::close.Real(fd);
                                  errno = EINTR;
                                  return -1;
                              }});
    const fake::Journal journal{&fake::close};
    socket->Close();
    EXPECT_EQ(Texts{"close"}, journal.Texts());
    EXPECT_EQ(-1, socket->GetSocket());
}

TEST_F(UdpSocket, SetSocketTakesADescriptorOver) {
    Udp socket;
    socket.Plant(EIO);
    const int fd = ::socket(AF_INET6, SOCK_DGRAM, 0);
    const fake::Journal journal;
    EXPECT_TRUE(socket.SetSocket(fd));
    EXPECT_EQ(Texts{}, journal.Texts());
    EXPECT_EQ(KovaBaseObject::KOVA_ERR_NONE, socket.GetError());
    EXPECT_EQ(fd, socket.GetSocket());
    EXPECT_EQ(KOVA_SOCKET_CONNECTED, socket.GetMode());
}

TEST_F(UdpSocket, SetSocketClosesAnOpenDescriptorFirst) {
    auto socket = Bound();
    const int old = socket->GetSocket();
    const int fd = ::socket(AF_INET6, SOCK_DGRAM, 0);
    EXPECT_TRUE(socket->SetSocket(fd));
    EXPECT_FALSE(IsOpenFd(old));
    EXPECT_EQ(fd, socket->GetSocket());
    const fake::Counter binds(fake::bind);
    EXPECT_TRUE(socket->Bind()) << "the new descriptor is not bound yet";
    EXPECT_EQ(1u, binds.Calls());
}

TEST_F(UdpSocket, SetSocketIsRefusedWhileServing) {
    auto socket = Bound();
    socket->SetMode(KOVA_SOCKET_SERVING);
    const int fd = socket->GetSocket();
    const TraceRecorder recorder;
    EXPECT_FALSE(socket->SetSocket(4711));
    EXPECT_TRUE(Recorded(*socket, KovaBaseObject::KOVA_ERR_ALREADY_OPEN, kSetSocket));
    EXPECT_TRUE(recorder.Has("serving udp fd=%d", {fd}));
    EXPECT_EQ(fd, socket->GetSocket());
    EXPECT_EQ(KOVA_SOCKET_SERVING, socket->GetMode());
}

// GetLocal

TEST_F(UdpSocket, GetLocalOfAClosedSocketIsNotASocketUnlessKnown) {
    Udp unknown;
    const TraceRecorder recorder;
    unknown.GetLocal();
    EXPECT_TRUE(Recorded(unknown, ENOTSOCK, kGetLocal));
    EXPECT_TRUE(recorder.Has("udp local address of no socket"));

    Udp known(Ip4("10.1.2.3"), kPort);
    const KovaInetAddr& local = known.GetLocal();
    EXPECT_EQ(Ip4("10.1.2.3"), local.GetIp());
    EXPECT_EQ(htons(kPort), local.GetPort());
    EXPECT_EQ(KovaBaseObject::KOVA_ERR_NONE, known.GetError());
}

TEST_F(UdpSocket, GetLocalAsksTheKernelUntilIpAndPortAreKnown) {
    Udp socket;
    ASSERT_TRUE(socket.Open());
    const sockaddr_in6 name = Sockaddr(Ip6("fe80::7"), 20007, 9);
    const auto answer = [&](int, sockaddr* address, socklen_t* length) {
        EXPECT_EQ(sizeof name, *length);
        std::memcpy(address, &name, sizeof name);
        return 0;
    };
    const fake::Journal journal{&fake::getsockname};
    const fake::Script names(fake::getsockname, {answer});
    const KovaInetAddr& local = socket.GetLocal();
    EXPECT_EQ(Bytes(name.sin6_addr), Bytes(*local.GetIp6()));
    EXPECT_EQ(htons(20007), local.GetPort());
    EXPECT_EQ(9, local.GetScope());
    EXPECT_EQ(&local, &socket.GetLocal());
    EXPECT_EQ(1u, journal.Entries().size()) << "known now, not asked again";
}

TEST_F(UdpSocket, GetLocalWhileServingIsTheCachedAddress) {
    Udp socket(kPort);
    ASSERT_TRUE(socket.Open());
    socket.SetMode(KOVA_SOCKET_SERVING);
    const fake::Counter names(fake::getsockname);
    EXPECT_EQ(htons(kPort), socket.GetLocal().GetPort());
    EXPECT_EQ(0u, names.Calls());
}

TEST_F(UdpSocket, GetLocalThatFailsKeepsTheCache) {
    Udp socket(kPort);
    ASSERT_TRUE(socket.Open());
    const TraceRecorder recorder;
    const fake::Script names(fake::getsockname, {fake::Fail(ENOBUFS)});
    EXPECT_EQ(htons(kPort), socket.GetLocal().GetPort());
    EXPECT_TRUE(Recorded(socket, ENOBUFS, kGetLocal));
    EXPECT_TRUE(recorder.Has("udp getsockname fd=%d errno=%d", {socket.GetSocket(), ENOBUFS}));
}

TEST_F(UdpSocket, GetLocalLearnsThePortThatTheFirstSendGot) {
    const Peer peer;
    Udp socket;
    KovaInetAddr to = peer.Address();
    ASSERT_TRUE(socket.SendTo("x", 1, to));
    EXPECT_EQ(htons(BoundPort(socket)), socket.GetLocal().GetPort());
    EXPECT_NE(0, socket.GetLocal().GetPort());
}

// WaitForData

TEST_F(UdpSocket, WaitThatTimesOutIsRecordedButNotTraced) {
    auto socket = Bound();
    const TraceRecorder recorder;
    EXPECT_FALSE(socket->WaitForData(KOVA_WAIT_READ));
    EXPECT_TRUE(Recorded(*socket, ETIMEDOUT, kWaitForData));
    EXPECT_TRUE(recorder.All().empty());
}

TEST_F(UdpSocket, WaitLastsAtLeastTheTimeout) {
    auto socket = Bound();
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(socket->WaitForData(KOVA_WAIT_READ));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(kShortTimeout));
}

TEST_F(UdpSocket, WaitSelectsWhatTheModeSaysAndExceptionsAlways) {
    struct {
        unsigned mode;
        bool read, write;
    } const cases[] = {{0, false, false}, {1, true, false}, {2, false, true}, {3, true, true}};
    auto socket = Bound();
    const int fd = socket->GetSocket();
    socket->SetTimeout(2500);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.mode);
        const auto check = [&](int n, fd_set* read, fd_set* write, fd_set* except, timeval* timeout) {
            EXPECT_EQ(fd + 1, n);
            EXPECT_EQ(c.read, FD_ISSET(fd, read) != 0);
            EXPECT_EQ(c.write, FD_ISSET(fd, write) != 0);
            EXPECT_TRUE(FD_ISSET(fd, except));
            EXPECT_EQ(2, timeout->tv_sec);
            EXPECT_EQ(500000, timeout->tv_usec);
            return 0;
        };
        const fake::Script selects(fake::select, {check});
        EXPECT_FALSE(socket->WaitForData(static_cast<KovaWaitModeT>(c.mode)));
    }
}

TEST_F(UdpSocket, WaitIsTrueForReadableOrWritable) {
    auto socket = Bound();
    EXPECT_TRUE(socket->WaitForData(KOVA_WAIT_WRITE));
    const auto both = static_cast<KovaWaitModeT>(KOVA_WAIT_READ | KOVA_WAIT_WRITE);
    EXPECT_TRUE(socket->WaitForData(both)) << "writable is enough";
    Peer().Send(BoundPort(*socket), "x");
    EXPECT_TRUE(socket->WaitForData(KOVA_WAIT_READ));
}

TEST_F(UdpSocket, WaitIsFalseForAnExceptionAlone) {
    auto socket = Bound();
    const auto exception = [](int, fd_set* read, fd_set* write, fd_set*, timeval*) {
        FD_ZERO(read);
        FD_ZERO(write);
        return 1;
    };
    const fake::Script selects(fake::select, {exception});
    EXPECT_FALSE(socket->WaitForData(static_cast<KovaWaitModeT>(KOVA_WAIT_READ | KOVA_WAIT_WRITE)));
    EXPECT_EQ(KovaBaseObject::KOVA_ERR_NONE, socket->GetError());
}

TEST_F(UdpSocket, InterruptedWaitYieldsAndStartsAgain) {
    auto socket = Bound();
    const int fd = socket->GetSocket();
    const auto interrupt = [&](int, fd_set* read, fd_set*, fd_set* except, timeval*) {
        EXPECT_TRUE(FD_ISSET(fd, read) && FD_ISSET(fd, except)) << "the sets are built anew";
        FD_ZERO(read);
        FD_ZERO(except);
        errno = EINTR;
        return -1;
    };
    const TraceRecorder recorder;
    const fake::Journal journal{&fake::select, &fake::sched_yield};
    const fake::Script selects(fake::select, {interrupt, interrupt, fake::Return(1)});
    EXPECT_TRUE(socket->WaitForData(KOVA_WAIT_READ));
    EXPECT_EQ((Texts{"select", "sched_yield", "select", "sched_yield", "select"}), FunctionsOf(journal));
    EXPECT_EQ(2u, recorder.Count("udp wait interrupted fd=%d"));
    EXPECT_TRUE(recorder.Has("udp wait interrupted fd=%d", {fd}));
    EXPECT_TRUE(recorder.Has("select n=%d code=%d", {fd + 1, EINTR}));
}

TEST_F(UdpSocket, InterruptedWaitEndsWhenTheStopFlagIsSet) {
    auto socket = Bound();
    const int fd = socket->GetSocket();
    socket->SetMode(KOVA_SOCKET_SERVING);
    const auto stop = [&](int, fd_set*, fd_set*, fd_set*, timeval*) {
        socket->Shutdown();
        errno = EINTR;
        return -1;
    };
    const TraceRecorder recorder;
    const fake::Counter yields(fake::sched_yield);
    const fake::Script selects(fake::select, {stop});
    EXPECT_FALSE(socket->WaitForData(KOVA_WAIT_READ));
    EXPECT_EQ(0u, yields.Calls());
    EXPECT_EQ(EINTR, socket->GetError());
    EXPECT_TRUE(recorder.Has("udp wait fd=%d code=%d stop=%d", {fd, EINTR, 1}));
}

TEST_F(UdpSocket, InterruptedWaitEndsWhenTheSocketWasClosed) {
    auto socket = Bound();
    const int fd = socket->GetSocket();
    const auto close = [&](int, fd_set*, fd_set*, fd_set*, timeval*) {
        socket->Close();
        errno = EINTR;
        return -1;
    };
    const TraceRecorder recorder;
    const fake::Script selects(fake::select, {close});
    const fake::Counter yields(fake::sched_yield);
    EXPECT_FALSE(socket->WaitForData(KOVA_WAIT_READ)) << "the number may be somebody else's by now";
    EXPECT_EQ(0u, yields.Calls());
    EXPECT_TRUE(recorder.Has("udp wait fd=%d code=%d stop=%d", {fd, EINTR, 0}));
}

TEST_F(UdpSocket, WaitOnAClosedSocketLastsItsTime) {
    Udp socket;
    socket.SetTimeout(kShortTimeout);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(socket.WaitForData(KOVA_WAIT_READ));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(kShortTimeout));
    EXPECT_TRUE(Recorded(socket, ETIMEDOUT, kWaitForData));
}

TEST_F(UdpSocket, WaitThatFailsOtherwiseIsTracedAndFalse) {
    auto socket = Bound();
    const int fd = socket->GetSocket();
    for (const int error : {EBADF, EINVAL, ENOMEM, EAGAIN}) {
        const TraceRecorder recorder;
        const fake::Script selects(fake::select, {fake::Fail(error)});
        EXPECT_FALSE(socket->WaitForData(KOVA_WAIT_READ));
        EXPECT_TRUE(Recorded(*socket, error,
                             "int32_t KovaSocketWrapper::Select(int, FdSetT*, FdSetT*, FdSetT*, int32_t)"));
        EXPECT_TRUE(recorder.Has("select n=%d code=%d", {fd + 1, error}));
        EXPECT_TRUE(recorder.Has("udp wait fd=%d code=%d stop=%d", {fd, error, 0}));
    }
}

/// Raises the limit of descriptors for a scope.
class ManyDescriptors {
  public:
    explicit ManyDescriptors(rlim_t count) {
        EXPECT_EQ(0, ::getrlimit(RLIMIT_NOFILE, &m_Before));
        rlimit wanted = m_Before;
        if (wanted.rlim_cur < count) wanted.rlim_cur = count;
        if (wanted.rlim_max < count) wanted.rlim_max = count;
        EXPECT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &wanted));
    }
    ManyDescriptors(const ManyDescriptors&) = delete;
    ManyDescriptors& operator=(const ManyDescriptors&) = delete;
    ~ManyDescriptors() { ::setrlimit(RLIMIT_NOFILE, &m_Before); }

  private:
    rlimit m_Before;
};

TEST_F(UdpSocket, DescriptorsThatNoSetHoldsFailAtOnce) {
    constexpr int kFirst = 1024;
    const ManyDescriptors many(kFirst + 64);
    auto socket = Bound();
    const int fd = ::fcntl(socket->GetSocket(), F_DUPFD, kFirst);
    ASSERT_GE(fd, kFirst);
    ASSERT_TRUE(socket->SetSocket(fd));
    socket->SetTimeout(kLongTimeout);
    const TraceRecorder recorder;
    EXPECT_FALSE(socket->WaitForData(KOVA_WAIT_READ));
    EXPECT_EQ(EINVAL, socket->GetError());
    EXPECT_TRUE(recorder.Has("udp wait fd=%d code=%d stop=%d", {fd, EINVAL, 0}));
    char byte;
    EXPECT_FALSE(socket->RecvFrom(&byte, 1));
    EXPECT_TRUE(Recorded(*socket, ETIMEDOUT, kRecvFrom)) << "as after every wait that brought nothing";
}

TEST_F(UdpSocket, ServerOnSuchADescriptorFails) {
    constexpr int kFirst = 1024;
    const ManyDescriptors many(kFirst + 64);
    Udp server(FreePort());
    int fd = -1;
    const fake::Script sockets(fake::socket, {[&](int domain, int type, int protocol) {
                                   const int made = fake::socket.Real(domain, type, protocol);
                                   fd = ::fcntl(made, F_DUPFD, kFirst);
                                   ::close(made);
                                   return fd;
                               }});
    const TraceRecorder recorder;
    EXPECT_FALSE(server.KovaUDPSocket::Server());
    EXPECT_TRUE(Recorded(server, EINVAL, kServerIntern));
    EXPECT_TRUE(recorder.Has("udp server fd=%d cannot be waited for", {fd}));
    EXPECT_FALSE(IsOpenFd(fd));
}

TEST_F(UdpSocket, DescriptorThatASetJustHoldsWorks) {
    constexpr int kLast = 1023;
    const ManyDescriptors many(kLast + 64);
    auto socket = Bound();
    const unsigned short port = BoundPort(*socket);
    const int fd = ::fcntl(socket->GetSocket(), F_DUPFD, kLast);
    ASSERT_EQ(kLast, fd);
    KovaUDPSocket last(fd);
    Peer().Send(port, "x");
    char byte = 0;
    EXPECT_TRUE(last.RecvFrom(&byte, 1));
    EXPECT_EQ('x', byte);
}

// RecvFrom and PeekFrom

TEST_F(UdpSocket, ReceivesADatagramOfTheExpectedSize) {
    const Peer peer;
    auto socket = Bound();
    socket->Plant(EIO);
    peer.Send(BoundPort(*socket), "exactly this");
    char buffer[12];
    const TraceRecorder recorder;
    EXPECT_TRUE(socket->RecvFrom(buffer, sizeof buffer));
    EXPECT_EQ("exactly this", Bytes(buffer, sizeof buffer));
    EXPECT_EQ(sizeof buffer, socket->Received());
    EXPECT_EQ(KovaBaseObject::KOVA_ERR_NONE, socket->GetError());
    EXPECT_EQ(Bytes(in6addr_loopback), Bytes(*socket->GetPeer().GetIp6()));
    EXPECT_EQ(htons(peer.Port()), socket->GetPeer().GetPort());
    const auto text = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(socket->GetPeer().GetAsciiIp()));
    EXPECT_TRUE(recorder.Has("datagram from=%s port=%u received=%u", {text, peer.Port(), 12}));
    EXPECT_EQ(1u, recorder.All().size());
}

TEST_F(UdpSocket, ShorterDatagramIsASizeMismatchAndGone) {
    const Peer peer;
    auto socket = Bound();
    peer.Send(BoundPort(*socket), "ten bytes!");
    char buffer[24];
    const TraceRecorder recorder;
    EXPECT_FALSE(socket->RecvFrom(buffer, sizeof buffer));
    EXPECT_TRUE(Recorded(*socket, KovaBaseObject::KOVA_ERR_SIZE_MISMATCH, kRecvFrom));
    EXPECT_TRUE(recorder.Has("datagram size received=%u wanted=%u", {10, 24}));
    EXPECT_TRUE(recorder.Has("datagram from=%s port=%u received=%u"));
    EXPECT_EQ(10u, socket->Received());
    EXPECT_EQ(htons(peer.Port()), socket->GetPeer().GetPort());
    EXPECT_FALSE(socket->WaitForData(KOVA_WAIT_READ));
}

TEST_F(UdpSocket, LongerDatagramIsCutAndGone) {
    const Peer peer;
    auto socket = Bound();
    peer.Send(BoundPort(*socket), "0123456789");
    char buffer[4];
    EXPECT_TRUE(socket->RecvFrom(buffer, sizeof buffer));
    EXPECT_EQ("0123", Bytes(buffer, sizeof buffer));
    EXPECT_EQ(4u, socket->Received());
    EXPECT_FALSE(socket->WaitForData(KOVA_WAIT_READ));
}

TEST_F(UdpSocket, EmptyDatagramIsASizeMismatchAndGone) {
    const Peer peer;
    auto socket = Bound();
    peer.Send(BoundPort(*socket), "");
    char buffer[24];
    const TraceRecorder recorder;
    EXPECT_FALSE(socket->RecvFrom(buffer, sizeof buffer));
    EXPECT_TRUE(Recorded(*socket, KovaBaseObject::KOVA_ERR_SIZE_MISMATCH, kRecvFrom));
    EXPECT_TRUE(recorder.Has("datagram size received=%u wanted=%u", {0, 24}));
    EXPECT_EQ(0u, socket->Received());
    EXPECT_EQ(htons(peer.Port()), socket->GetPeer().GetPort());
    EXPECT_FALSE(socket->WaitForData(KOVA_WAIT_READ));
}

TEST_F(UdpSocket, EmptyDatagramIsASizeMismatchForPeekAndStays) {
    const Peer peer;
    auto socket = Bound();
    peer.Send(BoundPort(*socket), "");
    char buffer[24];
    EXPECT_FALSE(socket->PeekFrom(buffer, sizeof buffer));
    EXPECT_TRUE(Recorded(*socket, KovaBaseObject::KOVA_ERR_SIZE_MISMATCH, kPeekFrom));
    EXPECT_TRUE(socket->WaitForData(KOVA_WAIT_READ));
}

TEST_F(UdpSocket, PeekLeavesTheDatagramQueued) {
    const Peer peer;
    auto socket = Bound();
    peer.Send(BoundPort(*socket), "0123456789");
    char buffer[10];
    for (int i = 0; i < 2; ++i) {
        EXPECT_TRUE(socket->PeekFrom(buffer, sizeof buffer));
        EXPECT_EQ("0123456789", Bytes(buffer, sizeof buffer));
        EXPECT_EQ(10u, socket->Received());
        EXPECT_EQ(htons(peer.Port()), socket->GetPeer().GetPort());
    }
    EXPECT_TRUE(socket->RecvFrom(buffer, sizeof buffer));
    EXPECT_FALSE(socket->WaitForData(KOVA_WAIT_READ));
}

TEST_F(UdpSocket, PeekOfALongerDatagramGivesItsBeginning) {
    auto socket = Bound();
    Peer().Send(BoundPort(*socket), "0123456789");
    char buffer[4];
    EXPECT_TRUE(socket->PeekFrom(buffer, sizeof buffer));
    EXPECT_EQ("0123", Bytes(buffer, sizeof buffer));
    EXPECT_TRUE(socket->WaitForData(KOVA_WAIT_READ));
}

TEST_F(UdpSocket, PeekOfAShorterDatagramLeavesTheRestOfTheBufferZero) {
    auto socket = Bound();
    Peer().Send(BoundPort(*socket), "0123456789");
    char buffer[16];
    std::memset(buffer, 'x', sizeof buffer);
    const TraceRecorder recorder;
    EXPECT_FALSE(socket->PeekFrom(buffer, sizeof buffer));
    EXPECT_TRUE(Recorded(*socket, KovaBaseObject::KOVA_ERR_SIZE_MISMATCH, kPeekFrom));
    EXPECT_TRUE(recorder.Has("datagram size received=%u wanted=%u", {10, 16}));
    EXPECT_EQ(std::string("0123456789\0\0\0\0\0\0", 16), Bytes(buffer, sizeof buffer));
    EXPECT_TRUE(socket->WaitForData(KOVA_WAIT_READ)) << "still queued";
}

TEST_F(UdpSocket, PeekZeroesTheBufferWhateverComes) {
    Udp socket;
    char buffer[4] = {'x', 'x', 'x', 'x'};
    EXPECT_FALSE(socket.PeekFrom(buffer, sizeof buffer));
    EXPECT_EQ(std::string(4, '\0'), Bytes(buffer, sizeof buffer));
}

TEST_F(UdpSocket, PeekOfNothingIsASizeMismatch) {
    auto socket = Bound();
    Peer().Send(BoundPort(*socket), "x");
    EXPECT_FALSE(socket->PeekFrom(nullptr, 0));
    EXPECT_TRUE(Recorded(*socket, KovaBaseObject::KOVA_ERR_SIZE_MISMATCH, kPeekFrom));
}

/// RecvFrom and PeekFrom, which fail alike but for their names.
struct Receive {
    const char* text;
    bool (KovaUDPSocket::*call)(void*, size_t);
    int flags;
};
constexpr Receive kReceives[] = {{kRecvFrom, &KovaUDPSocket::RecvFrom, 0},
                                 {kPeekFrom, &KovaUDPSocket::PeekFrom, MSG_PEEK}};

TEST_F(UdpSocket, ReceiveWithoutSocketIsNotASocket) {
    for (const Receive& receive : kReceives) {
        Udp socket;
        char buffer[8];
        const TraceRecorder recorder;
        EXPECT_FALSE((socket.*receive.call)(buffer, sizeof buffer));
        EXPECT_TRUE(Recorded(socket, ENOTSOCK, receive.text));
        EXPECT_TRUE(recorder.Has("udp receive without socket, size=%u", {8}));
    }
}

TEST_F(UdpSocket, ReceiveThatTimesOutIsRecordedAndTracedByIt) {
    for (const Receive& receive : kReceives) {
        auto socket = Bound();
        char buffer[8];
        const TraceRecorder recorder;
        EXPECT_FALSE((socket.get()->*receive.call)(buffer, sizeof buffer));
        EXPECT_TRUE(Recorded(*socket, ETIMEDOUT, receive.text));
        EXPECT_TRUE(recorder.Has("udp receive fd=%d ms=%d", {socket->GetSocket(), kShortTimeout}));
        EXPECT_EQ(1u, recorder.All().size());
    }
}

TEST_F(UdpSocket, ReceiveWhoseWaitFailsPausesBeforeItIsOver) {
    auto socket = Bound();
    char byte;
    for (const int error : {EBADF, EINVAL, ENOMEM}) {
        const fake::Script selects(fake::select, {fake::Fail(error)});
        const fake::Journal journal{&fake::nanosleep};
        EXPECT_FALSE(socket->RecvFrom(&byte, 1));
        EXPECT_TRUE(Recorded(*socket, ETIMEDOUT, kRecvFrom));
        EXPECT_EQ(Texts{"nanosleep {0, 10000000}"}, journal.Texts());
    }
    const fake::Script selects(fake::select, {fake::Return(0)});
    const fake::Journal journal{&fake::nanosleep};
    EXPECT_FALSE(socket->RecvFrom(&byte, 1));
    EXPECT_EQ(Texts{}, journal.Texts()) << "a time-out is no trouble";
}

TEST_F(UdpSocket, ReceiveWithoutADescriptorEndsAtOnce) {
    char byte;
    Udp socket;
    ASSERT_TRUE(socket.SetSocket(-1));
    socket.SetTimeout(kLongTimeout);
    const fake::Counter selects(fake::select);
    EXPECT_FALSE(socket.RecvFrom(&byte, 1));
    EXPECT_TRUE(Recorded(socket, ETIMEDOUT, kRecvFrom));
    EXPECT_FALSE(socket.PeekFrom(&byte, 1));
    EXPECT_TRUE(Recorded(socket, ETIMEDOUT, kPeekFrom));
    EXPECT_EQ(0u, selects.Calls());
}

TEST_F(UdpSocket, ReceiveRecordsTheErrnoOfRecvfromAndNothingReceived) {
    for (const Receive& receive : kReceives) {
        auto socket = Bound();
        Peer().Send(BoundPort(*socket), "x");
        char buffer[1];
        EXPECT_TRUE(socket->PeekFrom(buffer, sizeof buffer));
        EXPECT_EQ(1u, socket->Received());
        const unsigned short port = socket->GetPeer().GetPort();

        const TraceRecorder recorder;
        const fake::Script receives(fake::recvfrom, {fake::Fail(ECONNREFUSED)});
        EXPECT_FALSE((socket.get()->*receive.call)(buffer, sizeof buffer));
        EXPECT_TRUE(Recorded(*socket, ECONNREFUSED, receive.text));
        EXPECT_TRUE(recorder.Has("recvfrom fd=%d errno=%d", {socket->GetSocket(), ECONNREFUSED}));
        EXPECT_EQ(0u, socket->Received());
        EXPECT_EQ(port, socket->GetPeer().GetPort());
    }
}

TEST_F(UdpSocket, ReceiveAsksWithAZeroedAddressBufferAndTakesIpPortAndScope) {
    const sockaddr_in6 source = Sockaddr(Ip6("fe80::12:3456"), 20009, 7);
    for (const Receive& receive : kReceives) {
        auto socket = Bound();
        Peer().Send(BoundPort(*socket), "1234");
        char buffer[4];
        const auto answer = [&](int fd, void* to, size_t size, int flags, sockaddr* from, socklen_t* length) {
            EXPECT_EQ(socket->GetSocket(), fd);
            EXPECT_EQ(buffer, to);
            EXPECT_EQ(sizeof buffer, size);
            EXPECT_EQ(receive.flags, flags);
            EXPECT_EQ(sizeof source, *length);
            EXPECT_EQ(std::string(sizeof source, '\0'), Bytes(from, sizeof source));
            std::memcpy(from, &source, sizeof source);
            return ssize_t{4};
        };
        const fake::Script receives(fake::recvfrom, {answer});
        EXPECT_TRUE((socket.get()->*receive.call)(buffer, sizeof buffer));
        EXPECT_EQ(Bytes(source.sin6_addr), Bytes(*socket->GetPeer().GetIp6()));
        EXPECT_EQ(htons(20009), socket->GetPeer().GetPort());
        EXPECT_EQ(7, socket->GetPeer().GetScope());
    }
}

TEST_F(UdpSocket, ReceivesFromAnIpv4PeerByItsMappedAddress) {
    const Peer peer(AF_INET);
    auto socket = Bound();
    peer.Send(BoundPort(*socket), "four");
    char buffer[4];
    EXPECT_TRUE(socket->RecvFrom(buffer, sizeof buffer));
    EXPECT_EQ(Bytes(Ip6("::ffff:127.0.0.1")), Bytes(*socket->GetPeer().GetIp6()));
    EXPECT_STREQ("127.0.0.1", socket->GetPeer().GetAsciiIp());
    EXPECT_TRUE(socket->SendTo("back", 4, 0, 0));
    EXPECT_EQ("back", peer.Receive());
}

TEST_F(UdpSocket, ReceivesThroughAnIpv4DescriptorThatWasTakenOver) {
    const int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in local{};
    local.sin_family = AF_INET;
    socklen_t length = sizeof local;
    ASSERT_EQ(0, ::bind(fd, reinterpret_cast<sockaddr*>(&local), sizeof local));
    ASSERT_EQ(0, ::getsockname(fd, reinterpret_cast<sockaddr*>(&local), &length));
    KovaUDPSocket socket(fd);
    const Peer peer(AF_INET);
    peer.Send(ntohs(local.sin_port), "four");
    char buffer[4];
    EXPECT_TRUE(socket.RecvFrom(buffer, sizeof buffer));
    EXPECT_EQ(Ip4("127.0.0.1"), socket.GetPeer().GetIp());
    EXPECT_EQ(htons(peer.Port()), socket.GetPeer().GetPort());
    EXPECT_EQ(local.sin_port, socket.GetLocal().GetPort());
}

// SendTo

TEST_F(UdpSocket, SendsToIpv6AndIpv4PeersAndOpensByItself) {
    for (const int family : {AF_INET6, AF_INET}) {
        const Peer peer(family);
        Udp socket;
        socket.Plant(EIO);
        KovaInetAddr to = peer.Address();
        EXPECT_TRUE(socket.SendTo("hello", 5, to));
        EXPECT_EQ("hello", peer.Receive());
        EXPECT_EQ(KOVA_SOCKET_OPENED, socket.GetMode());
        EXPECT_EQ(KovaBaseObject::KOVA_ERR_NONE, socket.GetError());
    }
}

TEST_F(UdpSocket, SendsToAnIpAndAPortInHostOrder) {
    const Peer peer(AF_INET);
    Udp socket;
    EXPECT_TRUE(socket.SendTo("hello", 5, htonl(INADDR_LOOPBACK), peer.Port()));
    EXPECT_EQ("hello", peer.Receive());
    EXPECT_EQ(htons(peer.Port()), socket.GetPeer().GetPort());
}

TEST_F(UdpSocket, SendsAnEmptyDatagram) {
    const Peer peer;
    Udp socket;
    KovaInetAddr to = peer.Address();
    EXPECT_TRUE(socket.SendTo("", 0, to));
    EXPECT_EQ("", peer.Receive());
}

TEST_F(UdpSocket, SendThatCannotOpenIsNotASocket) {
    Udp socket;
    KovaInetAddr to(in6addr_loopback, htons(kPort));
    const TraceRecorder recorder;
    const fake::Script sockets(fake::socket, {fake::Fail(ENFILE)});
    const SendLog log;
    EXPECT_FALSE(socket.SendTo("hello", 5, to));
    EXPECT_TRUE(Recorded(socket, ENOTSOCK, kSendTo));
    EXPECT_TRUE(recorder.Has("socket errno=%d", {ENFILE}));
    EXPECT_TRUE(recorder.Has("sendto without socket, size=%u", {5}));
    EXPECT_TRUE(log.datagrams.empty());
    EXPECT_EQ(0u, socket.GetPeer().GetIp()) << "the peer is not touched";
}

TEST_F(UdpSocket, SendBuildsThe28ByteAddressOfThePeer) {
    Udp socket;
    KovaInetAddr to(Ip6("fe80::1:2"), htons(kPort));
    SendLog log;
    EXPECT_TRUE(socket.SendTo("hello", 5, to));
    to.SetScope(4);
    EXPECT_TRUE(socket.SendTo("hello", 5, to));
    ASSERT_EQ(2u, log.datagrams.size());
    EXPECT_EQ("hello", log.datagrams[0].data);
    EXPECT_EQ(MSG_NOSIGNAL, log.datagrams[0].flags);
    EXPECT_EQ(Bytes(Sockaddr(Ip6("fe80::1:2"), kPort)), log.datagrams[0].to) << "without scope";
    EXPECT_EQ(Bytes(Sockaddr(Ip6("fe80::1:2"), kPort, 4)), log.datagrams[1].to);
}

TEST_F(UdpSocket, SendReplacesOnlyWhatTheAddressGives) {
    constexpr int kNone = KovaInetAddr::kNoScope;
    struct {
        const char* what;
        const char* ip;
        unsigned short port;
        int scope;
        const char* expected_ip;
        unsigned short expected_port;
        uint32_t expected_scope;
    } const cases[] = {
        {"nothing", "::", 0, kNone, "fe80::1", kPort, 3},
        {"ip", "fe80::2", 0, kNone, "fe80::2", kPort, 3},
        {"port", "::", 20002, kNone, "fe80::1", 20002, 3},
        {"scope", "::", 0, 8, "fe80::1", kPort, 8},
        {"scope 0, which is set", "::", 0, 0, "fe80::1", kPort, 0},
        {"mapped ip", "::ffff:10.0.0.1", 0, kNone, "::ffff:10.0.0.1", kPort, 3},
        {"an ip whose last four bytes are zero", "2001:db8::", 0, kNone, "fe80::1", kPort, 3},
        {"all", "fe80::9", 20009, 9, "fe80::9", 20009, 9},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        Udp socket;
        SendLog log;
        KovaInetAddr first(Ip6("fe80::1"), htons(kPort));
        first.SetScope(3);
        ASSERT_TRUE(socket.SendTo("1", 1, first));

        KovaInetAddr second(Ip6(c.ip), htons(c.port));
        second.SetScope(c.scope);
        EXPECT_TRUE(socket.SendTo("2", 1, second));
        const sockaddr_in6 expected = Sockaddr(Ip6(c.expected_ip), c.expected_port, c.expected_scope);
        EXPECT_EQ(Bytes(expected), log.datagrams.back().to);
    }
}

TEST_F(UdpSocket, SendToAddressZeroAnswersTheSenderOfTheLastDatagram) {
    const Peer first, second;
    auto socket = Bound();
    char byte;
    first.Send(BoundPort(*socket), "1");
    ASSERT_TRUE(socket->RecvFrom(&byte, 1));
    second.Send(BoundPort(*socket), "2");
    ASSERT_TRUE(socket->RecvFrom(&byte, 1));
    EXPECT_TRUE(socket->SendTo("to the second", 13, 0, 0));
    EXPECT_EQ("to the second", second.Receive());
    EXPECT_TRUE(first.HasNothing());
}

TEST_F(UdpSocket, SetSendPortTakesTheHostOrder) {
    Udp socket;
    socket.SetSendPort(20003);
    EXPECT_EQ(htons(20003), socket.GetPeer().GetPort());
    SendLog log;
    KovaInetAddr to(in6addr_loopback, 0);
    EXPECT_TRUE(socket.SendTo("x", 1, to));
    EXPECT_EQ(Bytes(Sockaddr(in6addr_loopback, 20003)), log.datagrams.back().to);
}

TEST_F(UdpSocket, LargestDatagramIs8192Bytes) {
    static_assert(KovaUDPSocket::kMaxDatagram == 8192);
    const Peer peer;
    Udp socket;
    KovaInetAddr to = peer.Address();
    const std::string largest(8192, 'a');
    EXPECT_TRUE(socket.SendTo(largest.data(), largest.size(), to));
    EXPECT_EQ(largest, peer.Receive());
}

TEST_F(UdpSocket, LargerDatagramIsRefusedAndNotSent) {
    Udp socket;
    KovaInetAddr to(in6addr_loopback, htons(kPort));
    const SendLog log;
    for (const size_t size : {size_t{8193}, size_t{65536}, SIZE_MAX}) {
        const TraceRecorder recorder;
        EXPECT_FALSE(socket.SendTo("nothing of it is read", size, to));
        EXPECT_TRUE(Recorded(socket, EMSGSIZE, kSendTo));
        EXPECT_TRUE(recorder.Has("datagram too large size=%u", {static_cast<uint32_t>(size)}));
    }
    EXPECT_TRUE(log.datagrams.empty());
    EXPECT_EQ(htons(kPort), socket.GetPeer().GetPort()) << "the peer is updated before";
}

TEST_F(UdpSocket, SendWithoutMemoryIsTriedAgain) {
    Udp socket;
    KovaInetAddr to(in6addr_loopback, htons(kPort));
    std::vector<long> pauses;
    const fake::Replace sleeps(fake::nanosleep, [&](const timespec* request, timespec*) {
        EXPECT_EQ(0, request->tv_sec);
        pauses.push_back(request->tv_nsec);
        return 0;
    });
    const fake::Script sends(fake::sendto,
                             {fake::Fail(ENOMEM), fake::Fail(ENOBUFS), fake::Fail(EINTR), fake::Return(5)});
    EXPECT_TRUE(socket.SendTo("hello", 5, to));
    EXPECT_EQ((std::vector<long>{50000000, 50000000}), pauses);
    EXPECT_EQ(KovaBaseObject::KOVA_ERR_NONE, socket.GetError());
}

TEST_F(UdpSocket, FailedSendLeavesTheErrnoAndTracesTheDestination) {
    Udp socket;
    KovaInetAddr to(Ip4("10.1.2.3"), htons(kPort));
    ASSERT_TRUE(socket.Open());
    const TraceRecorder recorder;
    const fake::Script sends(fake::sendto, {fake::Fail(ENETUNREACH)});
    EXPECT_FALSE(socket.SendTo("hello", 5, to));
    EXPECT_TRUE(Recorded(socket, ENETUNREACH, kWrapperSendTo));
    EXPECT_TRUE(recorder.Has("sendto fd=%d size=%u errno=%d", {socket.GetSocket(), 5, ENETUNREACH}));
    EXPECT_TRUE(recorder.Has("datagram not sent to=%x port=%u sent=%d", {Ip4("10.1.2.3"), kPort, -1}));
}

TEST_F(UdpSocket, PartlySentDatagramIsAFailureWithoutAnError) {
    Udp socket;
    KovaInetAddr to(Ip4("10.1.2.3"), htons(kPort));
    const TraceRecorder recorder;
    const fake::Script sends(fake::sendto, {fake::Return(3)});
    EXPECT_FALSE(socket.SendTo("hello", 5, to));
    EXPECT_TRUE(recorder.Has("datagram not sent to=%x port=%u sent=%d", {Ip4("10.1.2.3"), kPort, 3}));
    EXPECT_EQ(KovaBaseObject::KOVA_ERR_NONE, socket.GetError());
}

// Server

/// A server that notes its hooks and runs what a test hangs into them.
class Server : public Udp {
  public:
    using Udp::Udp;

    void InitComplete() override { Hook("init", on_init); }
    void DoIdle() override { Hook("idle", on_idle); }
    void CallBack(KovaUDPSocket* socket) override {
        EXPECT_EQ(static_cast<KovaUDPSocket*>(this), socket);
        Hook("data", on_data);
    }

    Texts hooks;
    std::function<void()> on_init, on_idle, on_data;

  private:
    void Hook(const char* name, const std::function<void()>& action) {
        hooks.push_back(name);
        if (action) action();
    }
};

TEST_F(UdpSocket, ServerFormsStoreTheLocalAddressAndServeIt) {
    const unsigned short port = FreePort();
    KovaInetAddr preset(Ip4("10.9.9.9"), htons(static_cast<uint16_t>(1)));
    KovaInetAddr given(Ip4("10.1.2.3"), htons(port));
    given.SetScope(6);
    struct {
        const char* form;
        std::function<bool(Server&)> serve;
        unsigned ip;
        int scope;
    } const cases[] = {
        {"port", [&](Server& s) { return s.KovaUDPSocket::Server(port); }, Ip4("10.9.9.9"), -1},
        {"ip, port", [&](Server& s) { return s.KovaUDPSocket::Server(Ip4("10.1.2.3"), port); },
         Ip4("10.1.2.3"), -1},
        {"address", [&](Server& s) { return s.KovaUDPSocket::Server(given); }, Ip4("10.1.2.3"), 6},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.form);
        Server server(preset);
        server.on_init = [&] {
            EXPECT_EQ(c.ip, server.GetLocal().GetIp());
            EXPECT_EQ(htons(port), server.GetLocal().GetPort());
            EXPECT_EQ(c.scope, server.GetLocal().GetScope());
            EXPECT_EQ(port, BoundPort(server));
            server.Shutdown();
        };
        EXPECT_TRUE(c.serve(server));
        EXPECT_EQ(Texts{"init"}, server.hooks);
    }
    Server server(given);
    server.on_init = [&] { server.Shutdown(); };
    EXPECT_TRUE(server.KovaUDPSocket::Server()) << "serves the stored address";
    EXPECT_EQ(Texts{"init"}, server.hooks);
}

TEST_F(UdpSocket, ServerStepsFollowInOrderOnAFreshDescriptor) {
    const unsigned short port = FreePort();
    Server server(port);
    server.SetTimeout(2500);
    server.SetRouting(false);
    ASSERT_TRUE(server.Open());
    const TraceRecorder recorder;
    const fake::Journal journal;
    server.on_init = [&] {
        EXPECT_EQ(KOVA_SOCKET_SERVING, server.GetMode());
        EXPECT_EQ(1, OptionOf(server, SO_BROADCAST));
        EXPECT_EQ(1, OptionOf(server, SO_REUSEADDR));
        server.Shutdown();
    };
    server.Plant(EIO);
    EXPECT_TRUE(server.KovaUDPSocket::Server());
    EXPECT_EQ(KovaBaseObject::KOVA_ERR_NONE, server.GetError());

    Texts steps;
    for (const fake::Entry& entry : journal.Entries()) {
        if (entry.function != "getsockopt") steps.push_back(entry.text);
    }
    const Texts close = {"setsockopt SOL_SOCKET SO_LINGER {1, 1}", "shutdown SHUT_RDWR", "close"};
    Texts expected = {"setsockopt SOL_SOCKET SO_DONTROUTE 0", "setsockopt SOL_SOCKET SO_BROADCAST 1"};
    expected.insert(expected.end(), close.begin(), close.end());
    const Texts reopened = {
        "socket AF_INET6 SOCK_DGRAM 0",
        "fcntl F_SETFD 1",
        "setsockopt SOL_SOCKET SO_DONTROUTE 0",
        "setsockopt SOL_SOCKET SO_BROADCAST 1",
        "setsockopt SOL_SOCKET SO_SNDTIMEO {2, 500000}",
        "setsockopt SOL_SOCKET SO_RCVTIMEO {2, 500000}",
        "setsockopt SOL_SOCKET SO_REUSEADDR 1",
        "bind [::]:" + std::to_string(port),
    };
    expected.insert(expected.end(), reopened.begin(), reopened.end());
    expected.insert(expected.end(), close.begin(), close.end());
    EXPECT_EQ(expected, steps);

    EXPECT_TRUE(recorder.Has("udp server port=%u", {port}));
    EXPECT_TRUE(recorder.Has("udp server ended port=%u", {port}));
    EXPECT_EQ(KOVA_SOCKET_CLOSED, server.GetMode());
}

TEST_F(UdpSocket, ServerThatCannotOpenRecordsWithoutTrace) {
    Server server(kPort);
    const TraceRecorder recorder;
    const fake::Script sockets(fake::socket, {fake::Fail(EMFILE)});
    EXPECT_FALSE(server.KovaUDPSocket::Server());
    EXPECT_TRUE(Recorded(server, ENOTSOCK, kServerIntern));
    EXPECT_TRUE(recorder.Has("socket errno=%d", {EMFILE}));
    EXPECT_EQ(1u, recorder.All().size());
    EXPECT_EQ(Texts{}, server.hooks);
}

TEST_F(UdpSocket, ServerWhoseOpenGivesAnotherModeCloses) {
    class Strange : public Server {
      public:
        using Server::Server;
        bool Open() override {
            const bool opened = KovaUDPSocket::Open();
            SetMode(KOVA_SOCKET_CONNECTED);
            return opened;
        }
    };
    Strange server(kPort);
    const TraceRecorder recorder;
    EXPECT_FALSE(server.KovaUDPSocket::Server());
    EXPECT_TRUE(Recorded(server, ENOTSOCK, kServerIntern));
    EXPECT_TRUE(recorder.Has("udp server without socket, mode=%u", {KOVA_SOCKET_CONNECTED}));
    EXPECT_EQ(KOVA_SOCKET_CLOSED, server.GetMode());
    EXPECT_EQ(-1, server.GetSocket());
}

TEST_F(UdpSocket, ServerThatCannotBindTracesThePortAndKeepsBindsError) {
    Server server(kPort);
    const TraceRecorder recorder;
    const fake::Script binds(fake::bind, {fake::Fail(EACCES)});
    EXPECT_FALSE(server.KovaUDPSocket::Server());
    EXPECT_TRUE(Recorded(server, EACCES, kBind));
    EXPECT_TRUE(recorder.Has("bind udp port=%u errno=%d", {kPort, EACCES}));
    EXPECT_TRUE(recorder.Has("udp server not bound port=%u", {kPort}));
    EXPECT_EQ(Texts{}, server.hooks);
    EXPECT_EQ(KOVA_SOCKET_CLOSED, server.GetMode());
}

TEST_F(UdpSocket, ServerOnPortZeroFails) {
    Server server;
    const TraceRecorder recorder;
    EXPECT_FALSE(server.KovaUDPSocket::Server());
    EXPECT_TRUE(Recorded(server, KovaBaseObject::KOVA_ERR_INVALID_PARAMETER, kBind));
    EXPECT_TRUE(recorder.Has("udp server not bound port=%u", {0}));
    EXPECT_EQ(Texts{}, server.hooks);
    EXPECT_EQ(KOVA_SOCKET_OPENED, server.GetMode());
}

TEST_F(UdpSocket, ServerCallsBackForEachDatagramAndIdlesWithoutOne) {
    const Peer peer;
    const unsigned short port = FreePort();
    Server server(port);
    server.SetTimeout(kShortTimeout);
    Texts received;
    server.on_init = [&] {
        peer.Send(port, "one");
        peer.Send(port, "two");
    };
    server.on_data = [&] {
        char buffer[3];
        EXPECT_TRUE(server.RecvFrom(buffer, sizeof buffer));
        received.push_back(Bytes(buffer, sizeof buffer));
        EXPECT_TRUE(server.SendTo("thanks", 6, 0, 0));
    };
    server.on_idle = [&] { server.Shutdown(); };
    EXPECT_TRUE(server.KovaUDPSocket::Server());
    EXPECT_EQ((Texts{"init", "data", "data", "idle"}), server.hooks);
    EXPECT_EQ((Texts{"one", "two"}), received);
    EXPECT_EQ("thanks", peer.Receive());
    EXPECT_EQ("thanks", peer.Receive());
}

TEST_F(UdpSocket, ServerWhoseWaitFailsPausesAndIdles) {
    Server server(FreePort());
    server.on_idle = [&] { server.Shutdown(); };
    const fake::Script selects(fake::select, {fake::Fail(ENOMEM)});
    const fake::Journal journal({&fake::nanosleep});
    const fake::Script sleeps(fake::nanosleep, {fake::Return(0)});
    EXPECT_TRUE(server.KovaUDPSocket::Server());
    EXPECT_EQ(Texts{"nanosleep {0, 10000000}"}, journal.Texts());
    EXPECT_EQ((Texts{"init", "idle"}), server.hooks);
}

TEST_F(UdpSocket, NoHookRunsOnceTheStopFlagIsSet) {
    for (const int result : {1, 0, -1}) {
        SCOPED_TRACE(result);
        Server server(FreePort());
        const auto stop = [&](int, fd_set*, fd_set*, fd_set*, timeval*) {
            server.Shutdown();
            errno = EINTR;
            return result;
        };
        const fake::Script selects(fake::select, {stop});
        EXPECT_TRUE(server.KovaUDPSocket::Server());
        EXPECT_EQ(Texts{"init"}, server.hooks);
    }
}

TEST_F(UdpSocket, CloseInAHookDoesNotEndTheLoop) {
    Server server(FreePort());
    server.SetTimeout(1);
    server.on_init = [&] {
        server.Close();
        EXPECT_FALSE(server.IsStopped());
    };
    server.on_idle = [&] {
        EXPECT_EQ(KOVA_SOCKET_CLOSED, server.GetMode());
        server.Shutdown();
        EXPECT_FALSE(server.IsStopped()) << "a closed socket is not serving";
        server.SetMode(KOVA_SOCKET_SERVING);
        server.Shutdown();
    };
    EXPECT_TRUE(server.KovaUDPSocket::Server());
    EXPECT_EQ((Texts{"init", "idle"}), server.hooks);
}

TEST_F(UdpSocket, StoppedServerIsNotStartedAgain) {
    Server server(FreePort());
    server.on_init = [&] { server.Shutdown(); };
    EXPECT_TRUE(server.KovaUDPSocket::Server());
    server.on_init = nullptr;
    const fake::Counter selects(fake::select);
    EXPECT_TRUE(server.KovaUDPSocket::Server());
    EXPECT_EQ((Texts{"init", "init"}), server.hooks);
    EXPECT_EQ(0u, selects.Calls());
    EXPECT_EQ(KOVA_SOCKET_CLOSED, server.GetMode());
}

TEST_F(UdpSocket, BaseHooksClearTheErrorAndTrace) {
    struct {
        const char* text;
        void (*call)(Udp&);
    } const cases[] = {
        {"udp call-back of the base", [](Udp& socket) { socket.CallBack(&socket); }},
        {"udp server idle", [](Udp& socket) { socket.DoIdle(); }},
        {"udp server ready", [](Udp& socket) { socket.InitComplete(); }},
    };
    for (const auto& c : cases) {
        Udp socket;
        socket.Plant(EIO);
        const TraceRecorder recorder;
        c.call(socket);
        EXPECT_EQ(KovaBaseObject::KOVA_ERR_NONE, socket.GetError()) << c.text;
        EXPECT_EQ(1u, recorder.All().size());
        EXPECT_TRUE(recorder.Has(c.text));
    }
}

// Shutdown

TEST_F(UdpSocket, ShutdownWithoutServerOnlyTraces) {
    for (const KovaSocketModeT mode : {KOVA_SOCKET_CLOSED, KOVA_SOCKET_OPENED, KOVA_SOCKET_CONNECTED}) {
        Udp socket;
        if (mode != KOVA_SOCKET_CLOSED) {
            ASSERT_TRUE(socket.Open());
        }
        socket.SetMode(mode);
        const int fd = socket.GetSocket();
        const TraceRecorder recorder;
        const fake::Journal journal;
        socket.Shutdown();
        EXPECT_EQ(Texts{}, journal.Texts());
        EXPECT_TRUE(recorder.Has("shutdown without server, mode=%u", {mode}));
        EXPECT_EQ(fd, socket.GetSocket());
        EXPECT_EQ(mode, socket.GetMode());
        EXPECT_FALSE(socket.IsStopped());
    }
}

TEST_F(UdpSocket, ShutdownBeforeServingDoesNotPreventIt) {
    Server server(FreePort());
    server.Shutdown();
    server.on_init = [&] { server.Shutdown(); };
    EXPECT_TRUE(server.KovaUDPSocket::Server());
    EXPECT_EQ(Texts{"init"}, server.hooks);
}

/// Serves on a thread of its own.
class ServerThread {
  public:
    explicit ServerThread(Server& server)
        : m_Thread([this, &server] { m_Result = server.KovaUDPSocket::Server(); }) {}
    /// What the server returned, once it has ended.
    bool Join() {
        m_Thread.Join();
        return m_Result;
    }

  private:
    bool m_Result = false;
    DeadlineThread m_Thread;
};

/// A hook that tells that it runs and waits until it may go on.
class Gate {
  public:
    void Pass() {
        m_Entered.set_value();
        m_Released.get_future().wait();
    }
    void AwaitEntry() { m_Entered.get_future().wait(); }
    void Release() { m_Released.set_value(); }

  private:
    std::promise<void> m_Entered, m_Released;
};

TEST_F(UdpSocket, ShutdownFromAnotherThreadEndsTheLoopInEveryHook) {
    struct {
        const char* hook;
        std::function<void()> Server::*action;
        Texts hooks;
    } const cases[] = {
        {"init", &Server::on_init, {"init"}},
        {"idle", &Server::on_idle, {"init", "idle"}},
        {"data", &Server::on_data, {"init", "data"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.hook);
        const unsigned short port = FreePort();
        const Peer peer;
        Server server(port);
        server.SetTimeout(c.action == &Server::on_data ? kLongTimeout : kShortTimeout);
        if (c.action == &Server::on_data) server.on_init = [&] { peer.Send(port, "x"); };
        Gate gate;
        server.*c.action = [&] { gate.Pass(); };
        ServerThread thread(server);
        gate.AwaitEntry();
        server.Shutdown();
        gate.Release();
        EXPECT_TRUE(thread.Join());
        EXPECT_EQ(c.hooks, server.hooks);
        EXPECT_EQ(-1, server.GetSocket());
    }
}

TEST_F(UdpSocket, ShutdownFromAnotherThreadEndsTheWaitAtOnce) {
    Server server(FreePort());
    server.SetTimeout(kLongTimeout);
    std::promise<void> selecting;
    const auto select = [&](int n, fd_set* read, fd_set* write, fd_set* except, timeval* timeout) {
        selecting.set_value();
        return fake::select.Real(n, read, write, except, timeout);
    };
    const fake::Script selects(fake::select, {select});
    const auto start = std::chrono::steady_clock::now();
    ServerThread thread(server);
    selecting.get_future().wait();
    server.Shutdown();
    EXPECT_TRUE(thread.Join());
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(kLongTimeout));
    EXPECT_EQ(Texts{"init"}, server.hooks);
}

/// Many servers that are shut down at some moment while datagrams arrive; each `hook` gets a waiting one.
void ShutDownAtAnyMoment(const std::function<void(Server&)>& hook) {
    constexpr int kRounds = 200;
    const unsigned short port = FreePort();
    const Peer peer;
    for (int round = 0; round < kRounds; ++round) {
        Server server(port);
        server.SetTimeout(kShortTimeout);
        server.on_data = [&] { hook(server); };
        ServerThread thread(server);
        while (server.GetMode() != KOVA_SOCKET_SERVING) std::this_thread::yield();
        for (int i = 0; i < round % 8; ++i) peer.Send(port, "x");
        server.Shutdown();
        EXPECT_TRUE(thread.Join());
        EXPECT_EQ(-1, server.GetSocket());
        EXPECT_EQ(KOVA_SOCKET_CLOSED, server.GetMode());
    }
}

TEST_F(UdpSocket, ShutdownAtAnyMomentLeavesNothingOpen) {
    ShutDownAtAnyMoment([](Server&) {});
}

TEST_F(UdpSocket, ShutdownWhileHooksReceiveLeavesNothingOpen) {
    KOVA_SKIP_UNDER_TSAN(
        "Shutdown closes the descriptor under a hook that receives from it, which is wanted");
    ShutDownAtAnyMoment([](Server& server) {
        char byte;
        server.RecvFrom(&byte, 1);
    });
}

TEST_F(UdpSocket, WaitAfterShutdownEndsAtOnce) {
    auto socket = Bound();
    socket->SetTimeout(kLongTimeout);
    socket->SetMode(KOVA_SOCKET_SERVING);
    socket->Shutdown();
    const fake::Counter selects(fake::select);
    EXPECT_FALSE(socket->WaitForData(KOVA_WAIT_READ));
    EXPECT_EQ(0u, selects.Calls());
}

// Function texts

TEST_F(UdpSocket, RecordsTheTextsOfItsFunctions) {
    char byte = 0;
    struct {
        const char* text;
        std::function<void(Udp&)> fail;
    } const cases[] = {
        {kBind, [](Udp& s) { s.Bind(); }},
        {kServerIntern,
         [](Udp& s) {
             const fake::Script sockets(fake::socket, {fake::Fail(EMFILE)});
             s.ServerIntern();
         }},
        {kPeekFrom, [&](Udp& s) { s.PeekFrom(&byte, 1); }},
        {kRecvFrom, [&](Udp& s) { s.RecvFrom(&byte, 1); }},
        {kSendTo, [&](Udp& s) { s.SendTo(&byte, 8193, 0, 0); }},
        {kWaitForData,
         [](Udp& s) {
             s.Open();
             s.SetTimeout(0);
             s.WaitForData(KOVA_WAIT_READ);
         }},
        {kSetSocket,
         [](Udp& s) {
             s.SetMode(KOVA_SOCKET_SERVING);
             s.SetSocket(0);
             s.SetMode(KOVA_SOCKET_CLOSED);
         }},
        {kGetLocal, [](Udp& s) { s.GetLocal(); }},
    };
    for (const auto& c : cases) {
        Udp socket;
        c.fail(socket);
        EXPECT_STREQ(c.text, socket.GetErrorFunction());
        EXPECT_GT(socket.GetErrorLine(), 0);
    }
}

TEST_F(UdpSocket, TwoThreadsThatCloseItCloseItOnce) {
    auto socket = Bound();
    const fake::Script shutdowns(fake::shutdown, {[&](int fd, int how) {
                                     const int result = fake::shutdown.Real(fd, how);
                                     DeadlineThread([&] { socket->Close(); }).Join();
                                     return result;
                                 }});
    const fake::Counter closes(fake::close);
    socket->Close();
    EXPECT_EQ(1u, closes.Calls());
}

TEST_F(UdpSocket, SignalStormLosesNothing) {
    constexpr int kSignals = 100;
    constexpr int kLast = -1;
    const auto here = Bound();
    const auto there = Bound();
    here->SetTimeout(kLongTimeout);
    there->SetTimeout(kLongTimeout);
    DeadlineThread echo([&] {
        for (int number = 0; number != kLast;) {
            ASSERT_TRUE(there->RecvFrom(&number, sizeof number));
            ASSERT_TRUE(there->SendTo(&number, sizeof number, 0, 0));
        }
    });
    KovaInetAddr to(Ip4("127.0.0.1"), htons(BoundPort(*there)));
    std::unique_ptr<SignalStorm> storm =
        std::make_unique<SignalStorm>(std::vector<pthread_t>{::pthread_self(), echo.Handle()});
    for (int number = 0;; ++number) {
        if (SignalStorm::Caught() >= kSignals) {
            storm.reset();
            number = kLast;
        }
        int answer = 0;
        ASSERT_TRUE(here->SendTo(&number, sizeof number, to));
        ASSERT_TRUE(here->RecvFrom(&answer, sizeof answer));
        ASSERT_EQ(number, answer);
        if (number == kLast) break;
    }
    echo.Join();
}

// Links and clocks of a machine of its own

/// Gives `link` two VLANs, with the addresses 10.7.0.`last` and 10.8.0.`last`.
void MakeVlans(const std::string& link, const std::string& last) {
    for (const std::string id : {"7", "8"}) {
        const std::string vlan = link + "." + id;
        Shell("ip link add link " + link + " name " + vlan + " type vlan id " + id);
        Shell("ip addr add 10." + id + ".0." + last + "/24 dev " + vlan);
        Shell("ip link set " + vlan + " up");
    }
}

TEST_F(UdpSocket, BoundToAVlanLinkHearsItsVlanOnly) {
    KOVA_NEEDS_OWN_MACHINE("VLAN links");
    SecondHost other;
    MakeVlans("kl0", "1");
    other.Do([] { MakeVlans("kl1", "2"); });

    Udp socket(kPort);
    EXPECT_TRUE(socket.BindToDevice("kl0.7"));
    socket.SetTimeout(kLongTimeout);
    ASSERT_TRUE(socket.Open());
    ASSERT_TRUE(socket.Bind());
    other.Do([] {
        KovaUDPSocket sender;
        EXPECT_TRUE(sender.SendTo("foreign", 7, Ip4("10.8.0.1"), kPort));
        EXPECT_TRUE(sender.SendTo("belongs", 7, Ip4("10.7.0.1"), kPort));
    });
    char received[8] = {};
    EXPECT_TRUE(socket.RecvFrom(received, 7));
    EXPECT_STREQ("belongs", received);
    EXPECT_EQ(Ip4("10.7.0.2"), socket.GetPeer().GetIp());
    socket.SetTimeout(kShortTimeout);
    EXPECT_FALSE(socket.RecvFrom(received, 7)) << "the other VLAN's datagram arrived as well";
    EXPECT_EQ(ETIMEDOUT, socket.GetError());
}

TEST_F(UdpSocket, TimeoutIsKeptWhileTheWallClockIsSet) {
    KOVA_NEEDS_OWN_MACHINE("sets the wall clock");
    constexpr int kTimeout = 300;
    for (const time_t jump : {86400, -86400}) {
        SCOPED_TRACE(jump);
        auto socket = Bound();
        socket->SetTimeout(kTimeout);
        WallClockShift shift;
        const int64_t start = NowMs();
        DeadlineThread receiver([&] {
            char byte;
            EXPECT_FALSE(socket->RecvFrom(&byte, 1));
            EXPECT_EQ(ETIMEDOUT, socket->GetError());
        });
        while (NowMs() < start + kTimeout / 3) std::this_thread::yield();
        EXPECT_FALSE(receiver.HasEnded());
        shift.By(jump);
        receiver.Join();
        EXPECT_GE(NowMs() - start, kTimeout);
    }
}

}  // namespace
