#include "frame/fail.h"
#include "frame/retry.h"
#include "socket/endpoint.h"

#include <kova/udp_socket.h>

#include <netinet/in.h>
#include <sched.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

namespace {

constexpr int kLinger = 1;

/// Beside what to wait for: the wait is that of a receive, which ends at once when there is no descriptor, as
/// after a close by another thread. Any other wait on a closed socket lasts its time.
constexpr auto kOfReceive = static_cast<KovaWaitModeT>(1U << 31);

}  // namespace

KovaUDPSocket::KovaUDPSocket() : KovaUDPSocket(KovaInetAddr(in6addr_any, 0)) {}

KovaUDPSocket::KovaUDPSocket(unsigned short port) : KovaUDPSocket(KovaInetAddr(in6addr_any, htons(port))) {}

KovaUDPSocket::KovaUDPSocket(unsigned int ip, unsigned short port)
    : KovaUDPSocket(KovaInetAddr(ip, htons(port))) {}

KovaUDPSocket::KovaUDPSocket(const KovaInetAddr& local)
    : m_Local(in6addr_any, 0), m_Peer(in6addr_any, 0), m_Bound(false) {
    m_Local = local;
}

KovaUDPSocket::KovaUDPSocket(int fd) : KovaUDPSocket() {
    m_Socket = fd;
    m_Mode = KOVA_SOCKET_CONNECTED;
}

KovaUDPSocket::~KovaUDPSocket() { KovaUDPSocket::Close(); }

bool KovaUDPSocket::Open() {
    if (IsOpen()) return true;
    m_Socket = Socket(AF_INET6, SOCK_DGRAM, 0);
    if (m_Socket < 0) return false;
    m_Bound = false;
    m_Mode = KOVA_SOCKET_OPENED;
    BindToDevice(nullptr);
    SetRouting(m_Routing);
    SetBroadcast(m_Broadcast);
    SetSendTimeout(m_Timeout);
    SetRecvTimeout(m_Timeout);
    return true;
}

void KovaUDPSocket::Close() {
    CloseDescriptor(kLinger);
    m_Bound = false;
}

void KovaUDPSocket::Shutdown() {
    if (m_Mode != KOVA_SOCKET_SERVING) {
        KOVA_TRACE("shutdown without server, mode=%u", m_Mode.load());
        return;
    }
    m_Stop = 1;
    Close();
}

bool KovaUDPSocket::SetSocket(KovaSocketT fd) {
    ClearError();
    if (m_Mode == KOVA_SOCKET_SERVING)
        return KOVA_FAIL(KOVA_ERR_ALREADY_OPEN, "serving udp fd=%d", m_Socket.load());
    if (IsOpen()) Close();
    m_Bound = false;
    m_Mode = KOVA_SOCKET_CONNECTED;
    m_Socket = fd;
    return true;
}

bool KovaUDPSocket::Bind() {
    const unsigned port = ntohs(m_Local.GetPort());
    if (port == 0) return KOVA_FAIL(KOVA_ERR_INVALID_PARAMETER, "bind to port 0, fd=%d", m_Socket.load());
    if (!IsOpen()) return KOVA_FAIL(ENOTSOCK, "bind without socket, port=%u", port);
    if (m_Bound) {
        KOVA_TRACE("bound already port=%u", port);
        return true;
    }
    // Deliberate: to all addresses, whatever the local one is.
    sockaddr_in6 wildcard{};
    wildcard.sin6_family = AF_INET6;
    wildcard.sin6_port = m_Local.GetPort();
    if (::bind(m_Socket, kova::AsSockaddr(wildcard), sizeof wildcard) < 0) {
        KOVA_FAIL(errno, "bind udp port=%u errno=%d", port, errno);
        // Releases the descriptor only: what a derived class does besides is for closing on purpose.
        KovaUDPSocket::Close();
        return false;
    }
    m_Bound = true;
    return true;
}

// Server

bool KovaUDPSocket::Server(unsigned int ip, unsigned short port) {
    m_Local = KovaInetAddr(ip, htons(port));
    return ServerIntern();
}

bool KovaUDPSocket::Server(unsigned short port) {
    m_Local.SetPort(htons(port));
    return ServerIntern();
}

bool KovaUDPSocket::Server(const KovaInetAddr& local) {
    m_Local = local;
    return ServerIntern();
}

bool KovaUDPSocket::Server() { return ServerIntern(); }

bool KovaUDPSocket::ServerIntern() {
    ClearError();
    SetRouting(true);
    SetBroadcast(true);
    if (IsOpen()) Close();
    if (!Open()) return KOVA_RECORD(ENOTSOCK);
    if (m_Mode != KOVA_SOCKET_OPENED) {
        KOVA_FAIL(ENOTSOCK, "udp server without socket, mode=%u", m_Mode.load());
        Close();
        return false;
    }
    if (m_Socket >= kDescriptorLimit) {
        KOVA_FAIL(EINVAL, "udp server fd=%d cannot be waited for", m_Socket.load());
        Close();
        return false;
    }
    const unsigned port = ntohs(m_Local.GetPort());
    SetFlag(SO_REUSEADDR, 1);
    if (!Bind()) {
        KOVA_TRACE("udp server not bound port=%u", port);
        return false;
    }
    m_Mode = KOVA_SOCKET_SERVING;
    KOVA_TRACE("udp server port=%u", port);
    InitComplete();

    while (!m_Stop) {
        const bool ready = WaitForData(KOVA_WAIT_READ);
        if (m_Stop) break;
        if (ready) {
            CallBack(this);
        } else {
            PauseAfterFailedWait();
            DoIdle();
        }
    }
    Close();
    KOVA_TRACE("udp server ended port=%u", port);
    return true;
}

void KovaUDPSocket::CallBack(KovaUDPSocket*) {
    ClearError();
    KOVA_TRACE("udp call-back of the base");
}

void KovaUDPSocket::DoIdle() {
    ClearError();
    KOVA_TRACE("udp server idle");
}

void KovaUDPSocket::InitComplete() {
    ClearError();
    KOVA_TRACE("udp server ready");
}

// Data

bool KovaUDPSocket::WaitForData(KovaWaitModeT mode) {
    const KovaSocketT fd = m_Socket;
    // Nothing would end the wait on a socket that was closed or shut down just now.
    if (fd < 0 && m_Stop) return false;
    if (fd < 0 && (mode & kOfReceive) != 0) return KOVA_RECORD(ENOTSOCK);

    FdSetT read, write, except;
    const auto wait = [&] {
        for (FdSetT* set : {&read, &write, &except}) FdZero(set);
        if (mode & KOVA_WAIT_READ) FdSet(fd, &read);
        if (mode & KOVA_WAIT_WRITE) FdSet(fd, &write);
        FdSet(fd, &except);
        return Select(fd + 1, &read, &write, &except, m_Timeout);
    };
    const auto interrupted = [&] {
        // A descriptor that was closed meanwhile may be somebody else's by now.
        if (m_Stop || m_Socket != fd) return false;
        KOVA_TRACE("udp wait interrupted fd=%d", fd);
        ::sched_yield();
        return true;
    };
    const int32_t ready = kova::RetryInterrupted(wait, interrupted);
    if (ready == 0) return KOVA_RECORD(ETIMEDOUT);
    if (ready < 0) {
        KOVA_TRACE("udp wait fd=%d code=%d stop=%d", fd, GetError(), m_Stop.load());
        return false;
    }
    return FdIsSet(fd, &read) || FdIsSet(fd, &write);
}

bool KovaUDPSocket::RecvFrom(void* buffer, size_t size) {
    return TakeDatagram(buffer, size, 0, __PRETTY_FUNCTION__);
}

bool KovaUDPSocket::PeekFrom(void* buffer, size_t size) {
    if (size != 0) std::memset(buffer, 0, size);
    return TakeDatagram(buffer, size, MSG_PEEK, __PRETTY_FUNCTION__);
}

/// Receives one datagram of `size` bytes; failures are those of `function`.
bool KovaUDPSocket::TakeDatagram(void* buffer, size_t size, int flags, const char* function) {
    m_Received = 0;
    const uint32_t wanted = static_cast<uint32_t>(size);
    if (!IsOpen()) return KOVA_FAIL_IN(function, ENOTSOCK, "udp receive without socket, size=%u", wanted);
    if (!WaitForData(KOVA_WAIT_READ | kOfReceive)) {
        PauseAfterFailedWait();
        return KOVA_FAIL_IN(function, ETIMEDOUT, "udp receive fd=%d ms=%d", m_Socket.load(), m_Timeout);
    }
    sockaddr_in6 source{};
    socklen_t length = sizeof source;
    const ssize_t result = ::recvfrom(m_Socket, buffer, size, flags, kova::AsSockaddr(source), &length);
    if (result < 0) return KOVA_FAIL_IN(function, errno, "recvfrom fd=%d errno=%d", m_Socket.load(), errno);

    m_Received = static_cast<uint32_t>(result);
    kova::StoreEndpoint(source, m_Peer);
    if (source.sin6_family == AF_INET6) m_Peer.SetScope(static_cast<int>(source.sin6_scope_id));
    KOVA_TRACE("datagram from=%s port=%u received=%u", m_Peer.GetAsciiIp(), ntohs(m_Peer.GetPort()),
               m_Received.load());
    ClearError();
    if (result == 0 || m_Received != size) {
        return KOVA_FAIL_IN(function, KOVA_ERR_SIZE_MISMATCH, "datagram size received=%u wanted=%u",
                            m_Received.load(), wanted);
    }
    return true;
}

void KovaUDPSocket::SetSendPort(unsigned short port) { m_Peer.SetPort(htons(port)); }

bool KovaUDPSocket::SendTo(const void* buffer, size_t size, unsigned int ip, unsigned short port) {
    KovaInetAddr to(ip, htons(port));
    return SendTo(buffer, size, to);
}

bool KovaUDPSocket::SendTo(const void* buffer, size_t size, KovaInetAddr& to) {
    if (!IsOpen() && !Open())
        return KOVA_FAIL(ENOTSOCK, "sendto without socket, size=%u", static_cast<uint32_t>(size));
    if (to.GetIp() != 0) m_Peer.SetIp(*to.GetIp6());
    if (to.GetPort() != 0) m_Peer.SetPort(to.GetPort());
    if (to.GetScope() != KovaInetAddr::kNoScope) m_Peer.SetScope(to.GetScope());
    if (size > kMaxDatagram)
        return KOVA_FAIL(EMSGSIZE, "datagram too large size=%u", static_cast<uint32_t>(size));

    sockaddr_in6 peer = kova::ToScopedSockaddr(m_Peer);
    const int sent = KovaSocketWrapper::SendTo(buffer, size, kova::AsSockaddr(peer), sizeof peer);
    if (sent < 0 || static_cast<size_t>(sent) != size) {
        KOVA_TRACE("datagram not sent to=%x port=%u sent=%d", m_Peer.GetIp(), ntohs(m_Peer.GetPort()), sent);
        return false;
    }
    ClearError();
    return true;
}

KovaInetAddr& KovaUDPSocket::GetLocal() {
    if (m_Mode == KOVA_SOCKET_SERVING || (m_Local.GetIp() != 0 && m_Local.GetPort() != 0)) return m_Local;
    sockaddr_in6 name;
    if (!IsOpen()) {
        KOVA_FAIL(ENOTSOCK, "udp local address of no socket");
    } else if (!kova::AskName(::getsockname, m_Socket, name)) {
        KOVA_FAIL(errno, "udp getsockname fd=%d errno=%d", m_Socket.load(), errno);
    } else {
        kova::StoreEndpoint(name, m_Local);
        if (name.sin6_family == AF_INET6) m_Local.SetScope(static_cast<int>(name.sin6_scope_id));
    }
    return m_Local;
}
