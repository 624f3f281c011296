#include "frame/errno_guard.h"
#include "frame/fail.h"
#include "frame/retry.h"
#include "frame/unique_fd.h"
#include "socket/endpoint.h"

#include <kova/clock.h>
#include <kova/tcp_socket.h>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sched.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>

namespace {

constexpr size_t kGreetingSize = 8;
constexpr char kConnect[kGreetingSize] = "Connect";
constexpr char kOverrun[kGreetingSize] = "Overrun";
constexpr char kAlive[] = "alive";

constexpr int kBacklog = 25;
constexpr int32_t kAliveTimeoutMs = 300000;
constexpr int kIdleRounds = 1000;
constexpr int kWaitRetries = 10;
// Deliberate: compared with whole seconds, so that the retries are what bounds a wait.
constexpr uint32_t kWaitLimit = 300000;
constexpr int32_t kInProgressPauseMs = 10;
constexpr int32_t kShortagePauseMs = 10;
constexpr int kGracefulLinger = 1;

void SetNoDelay(int fd) {
    const int on = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

/// Sends a text whole with one call; a part of it is a failure with EAGAIN.
template <size_t kSize>
bool SendText(int fd, const char (&text)[kSize]) {
    const ssize_t sent = ::send(fd, text, kSize, MSG_NOSIGNAL);
    if (sent >= 0 && sent != kSize) errno = EAGAIN;
    return sent == kSize;
}

bool Greet(int fd, const char (&text)[kGreetingSize]) {
    return kova::RetryInterrupted([&] { return SendText(fd, text) ? 0 : -1; }) == 0;
}

/// Whether accept failed for want of something that only time can give back.
bool IsShortage(int error) {
    return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

/// The code of a receive that brought less than was asked for: a peer that closes leaves no errno.
int ShortReceiveError() { return errno != 0 ? errno : ECONNRESET; }

/// Puts the wanted blocking flag back in the end: closing and connecting change it.
class BlockingKeeper {
  public:
    explicit BlockingKeeper(std::atomic<bool>& flag) : m_Flag(flag), m_Wanted(flag) {}
    BlockingKeeper(const BlockingKeeper&) = delete;
    BlockingKeeper& operator=(const BlockingKeeper&) = delete;
    ~BlockingKeeper() { Restore(); }

    bool Get() const { return m_Wanted; }
    void Restore() const { m_Flag = m_Wanted; }

  private:
    std::atomic<bool>& m_Flag;
    const bool m_Wanted;
};

/// Code of an answer to connect.
int GreetingError(const char (&answer)[kGreetingSize]) {
    if (std::memcmp(answer, kConnect, kGreetingSize) == 0) return KovaBaseObject::KOVA_ERR_NONE;
    if (std::memcmp(answer, kOverrun, kGreetingSize) == 0) return KovaBaseObject::KOVA_ERR_OVERRUN;
    return KovaBaseObject::KOVA_ERR_BAD_HANDSHAKE;
}

}  // namespace

KovaTCPSocket::KovaTCPSocket() : KovaTCPSocket(KovaInetAddr(in6addr_any, 0)) {}

KovaTCPSocket::KovaTCPSocket(const KovaInetAddr& address)
    : m_Type(KOVA_SOCKET_HANDSHAKE),
      m_Local(in6addr_any, 0),
      m_Peer(in6addr_any, 0),
      m_TableCount(0),
      m_AliveTimeout(kAliveTimeoutMs) {
    m_Local = address;
    m_Peer = address;
    std::fill(std::begin(m_Table), std::end(m_Table), -1);
}

KovaTCPSocket::KovaTCPSocket(int fd) : KovaTCPSocket() {
    m_Socket = fd;
    m_Mode = KOVA_SOCKET_CONNECTED;
}

KovaTCPSocket::~KovaTCPSocket() {
    ClearError();
    KovaTCPSocket::Close(false);
    CloseWaiting();
}

bool KovaTCPSocket::Open() {
    ClearError();
    m_Received = 0;
    if (IsOpen()) return true;

    m_Socket = Socket(AF_INET6, SOCK_STREAM, 0);
    if (m_Socket < 0) {
        KOVA_TRACE("tcp open code=%d", GetError());
        return false;
    }
    SetNoDelay(m_Socket);
    m_Mode = KOVA_SOCKET_OPENED;
    SetRouting(m_Routing);
    SetBlocking(m_Blocking);
    SetSendTimeout(m_Timeout);
    SetRecvTimeout(m_Timeout);
    return true;
}

void KovaTCPSocket::Close(bool abortive) {
    const kova::ErrorKeeper keep(*this);
    m_Stop = 1;
    m_Received = 0;
    const bool reset = abortive || m_Mode == KOVA_SOCKET_SERVING;
    if (IsOpen()) SetBlocking(false);
    CloseDescriptor(reset ? 0 : kGracefulLinger);
}

void KovaTCPSocket::Shutdown() {
    m_Stop = 1;
    Close(true);
}

bool KovaTCPSocket::SetSocket(KovaSocketT fd) {
    if (m_Mode == KOVA_SOCKET_SERVING)
        return KOVA_FAIL(KOVA_ERR_ALREADY_OPEN, "serving fd=%d", m_Socket.load());
    if (IsOpen()) Close(false);
    m_Socket = fd;
    m_Mode = KOVA_SOCKET_CONNECTED;
    return true;
}

// Client

bool KovaTCPSocket::Connect() { return ConnectIntern(); }

bool KovaTCPSocket::Connect(const KovaInetAddr& peer) {
    m_Peer = peer;
    return ConnectIntern();
}

bool KovaTCPSocket::Connect(unsigned int ip, unsigned short port) {
    return Connect(KovaInetAddr(ip, htons(port)));
}

bool KovaTCPSocket::Connect(const char* host, unsigned short port) {
    KovaInetAddr peer(host, 0);
    peer.SetPort(htons(port));
    return Connect(peer);
}

bool KovaTCPSocket::ConnectIntern() {
    ClearError();
    const BlockingKeeper wanted(m_Blocking);
    if (m_Mode == KOVA_SOCKET_CONNECTED) Close(false);
    wanted.Restore();
    if (IsOpen()) return KOVA_FAIL(EALREADY, "connect fd=%d mode=%u", m_Socket.load(), m_Mode.load());

    while (m_Mode != KOVA_SOCKET_CONNECTED) {
        if (!IsOpen()) Open();
        if (m_Mode != KOVA_SOCKET_OPENED) {
            return KOVA_FAIL(ENOTSOCK, "connect without socket, mode=%u", m_Mode.load());
        }
        if (IsHandshake()) SetBlocking(false);

        int error = TryConnect();
        if (error != KOVA_ERR_NONE) KOVA_RECORD(error);
        if (error == EINTR) {
            KOVA_TRACE("connect interrupted fd=%d", m_Socket.load());
            ::sched_yield();
            continue;
        }
        if (error == EINPROGRESS || error == EAGAIN) error = KOVA_ERR_NONE;
        if (error == KOVA_ERR_NONE && IsHandshake()) {
            SetBlocking(wanted.Get());
            error = AwaitGreeting();
        }
        if (error != KOVA_ERR_NONE) {
            KOVA_FAIL(error, "connect fd=%d code=%d", m_Socket.load(), error);
            Close(true);
            return false;
        }
        m_Mode = KOVA_SOCKET_CONNECTED;
    }
    TraceConnected();
    ClearError();
    return true;
}

/// One connect to the peer; returns its errno.
int KovaTCPSocket::TryConnect() {
    sockaddr_in6 peer = kova::ToSockaddr(m_Peer);
    return ::connect(m_Socket, kova::AsSockaddr(peer), sizeof peer) == 0 ? 0 : errno;
}

/// Reads the server's greeting; returns the code of what was wrong with it.
int KovaTCPSocket::AwaitGreeting() {
    if (!WaitForData(KOVA_WAIT_READ, m_Timeout)) return ETIMEDOUT;
    char answer[kGreetingSize] = {};
    errno = 0;
    if (::recv(m_Socket, answer, sizeof answer, 0) != sizeof answer) return ShortReceiveError();
    const int error = GreetingError(answer);
    if (error == KOVA_ERR_BAD_HANDSHAKE) {
        uint32_t word;
        std::memcpy(&word, answer, sizeof word);
        KOVA_TRACE("bad greeting word=%x", ntohl(word));
    }
    return error;
}

/// Learns both ends of the new connection anew.
void KovaTCPSocket::TraceConnected() {
    for (KovaInetAddr* end : {&m_Local, &m_Peer}) {
        end->SetIp(0U);
        end->SetPort(0);
    }
    const KovaInetAddr& local = GetLocal();
    const KovaInetAddr& peer = GetPeer();
    KOVA_TRACE("connected local=%x port=%u peer=%x port=%u", local.GetIp(), ntohs(local.GetPort()),
               peer.GetIp(), ntohs(peer.GetPort()));
}

// Server

bool KovaTCPSocket::Server() { return ServerIntern(); }

bool KovaTCPSocket::Server(const KovaInetAddr& local) {
    m_Local = local;
    return ServerIntern();
}

bool KovaTCPSocket::Server(unsigned short port) { return Server(KovaInetAddr(in6addr_any, htons(port))); }

bool KovaTCPSocket::Server(unsigned int ip, unsigned short port) {
    return Server(KovaInetAddr(ip, htons(port)));
}

bool KovaTCPSocket::ServerIntern() {
    ClearError();
    if (!SetRouting(true) || !SetBlocking(true)) {
        KOVA_FAIL(GetError(), "server options port=%u code=%d", ntohs(m_Local.GetPort()), GetError());
        Close(false);
        return false;
    }
    if (!IsOpen()) Open();
    if (m_Mode != KOVA_SOCKET_OPENED) {
        return KOVA_FAIL(ENOTSOCK, "server without socket, mode=%u", m_Mode.load());
    }
    if (m_Socket >= kDescriptorLimit) {
        KOVA_FAIL(EINVAL, "server fd=%d cannot be waited for", m_Socket.load());
        Close(true);
        return false;
    }

    SetFlag(SO_REUSEADDR, 1);
    sockaddr_in6 local = kova::ToSockaddr(m_Local);
    if (::bind(m_Socket, kova::AsSockaddr(local), sizeof local) < 0) {
        KOVA_FAIL(errno, "bind port=%u errno=%d", ntohs(m_Local.GetPort()), errno);
        Close(true);
        return false;
    }
    if (::listen(m_Socket, kBacklog) < 0) {
        KOVA_FAIL(errno, "listen port=%u errno=%d", ntohs(m_Local.GetPort()), errno);
        Close(true);
        return false;
    }
    if (m_Local.GetPort() == 0) {
        m_Local.SetIp(0U);
        GetLocal();
    }
    // Unless another thread has closed the socket meanwhile.
    KovaSocketModeT opened = KOVA_SOCKET_OPENED;
    m_Mode.compare_exchange_strong(opened, KOVA_SOCKET_SERVING);
    KOVA_TRACE("tcp server port=%u", ntohs(m_Local.GetPort()));
    CloseWaiting();
    m_Table[0] = m_Socket;
    m_TableCount = 1;
    InitComplete();

    while (!m_Stop) {
        KovaTCPSocket* const connection = Accept();
        if (m_Stop) {
            delete connection;
        } else if (connection == nullptr) {
            DoIdle();
        } else {
            CallBack(connection);
        }
    }
    // Stopped before it served: nobody has closed the listener.
    if (m_Mode == KOVA_SOCKET_SERVING) Close(true);
    KOVA_TRACE("tcp server ended port=%u", ntohs(m_Local.GetPort()));
    return true;
}

/// Index of a table entry that is ready, -1 for none. Waiting connections win over new ones.
int KovaTCPSocket::ServerSelect() {
    FdSetT read;
    FdZero(&read);
    for (int i = 0; i < m_TableCount; ++i) FdSet(m_Table[i], &read);
    const int highest = *std::max_element(m_Table, m_Table + m_TableCount);
    if (Select(highest + 1, &read, nullptr, nullptr, m_Timeout) <= 0) return -1;

    for (int i = 1; i <= m_TableCount; ++i) {
        const int index = i % m_TableCount;
        if (!FdIsSet(m_Table[index], &read)) continue;
        ClearError();
        return index;
    }
    return -1;
}

KovaTCPSocket* KovaTCPSocket::Accept() {
    if (m_TableCount == 0 || m_Stop) return nullptr;
    const int index = ServerSelect();
    // The descriptor of a server that was stopped meanwhile may name something else by now.
    if (m_Stop) return nullptr;
    if (index < 0) {
        PauseAfterFailedWait();
        return nullptr;
    }
    if (index > 0) {
        KovaTCPSocket* const waiting = HandOut(index);
        if (waiting == nullptr) {
            KOVA_FAIL(ENOMEM, "no object for fd=%d", m_Table[index]);
            KovaMilliSleep(kShortagePauseMs);
        }
        return waiting;
    }

    kova::UniqueFd connection(KovaSocketWrapper::Accept(m_Table[0], nullptr, nullptr));
    if (!connection) {
        // The connection goes on waiting, so that the next step would meet it at once.
        if (IsShortage(GetError())) KovaMilliSleep(kShortagePauseMs);
        return nullptr;
    }
    if (connection.Get() >= kDescriptorLimit) {
        KOVA_FAIL(EINVAL, "accepted fd=%d cannot be waited for", connection.Get());
        return nullptr;
    }
    SetNoDelay(connection.Get());
    if (m_TableCount < kTableSize) {
        ClearError();
        if (IsHandshake() && !Greet(connection.Get(), kConnect)) {
            KOVA_FAIL(errno, "greet listener=%d fd=%d errno=%d", m_Table[0], connection.Get(), errno);
            return nullptr;
        }
    } else {
        // Deliberate: the connection told "Overrun" stays, the oldest waiting one goes.
        if (IsHandshake()) Greet(connection.Get(), kOverrun);
        EvictOldest();
    }
    m_Table[m_TableCount++] = connection.Release();
    return nullptr;
}

void KovaTCPSocket::EvictOldest() {
    kova::CloseOnce(m_Table[1]);
    KOVA_TRACE("server table full, evicted fd=%d", m_Table[1]);
    RemoveEntry(1);
}

/// Makes the waiting connection an object of its own; without memory for it, it goes on waiting.
KovaTCPSocket* KovaTCPSocket::HandOut(int index) {
    auto* const connection = new (std::nothrow) KovaTCPSocket(m_Table[index]);
    if (connection == nullptr) return nullptr;
    RemoveEntry(index);
    connection->SetTimeout(m_Timeout);
    connection->SetType(m_Type);
    return connection;
}

void KovaTCPSocket::RemoveEntry(int index) {
    std::copy(m_Table + index + 1, m_Table + m_TableCount, m_Table + index);
    m_Table[--m_TableCount] = -1;
}

/// Closes the connections that wait in the table and empties it; the listener is closed elsewhere.
void KovaTCPSocket::CloseWaiting() {
    for (int i = 1; i < m_TableCount; ++i) kova::CloseOnce(m_Table[i]);
    std::fill(std::begin(m_Table), std::end(m_Table), -1);
    m_TableCount = 0;
}

void KovaTCPSocket::CallBack(KovaTCPSocket*) { ClearError(); }

void KovaTCPSocket::InitComplete() { ClearError(); }

void KovaTCPSocket::DoIdle() { ClearError(); }

// Data

bool KovaTCPSocket::Send(const void* buffer, size_t size) {
    if (!IsOpen()) return KOVA_FAIL(ENOTSOCK, "send without socket, size=%u", static_cast<uint32_t>(size));
    // Deliberate: a broken connection is not written to again.
    if (GetError() == EPIPE) return false;

    size_t sent = 0;
    while (sent < size) {
        const int result = KovaSocketWrapper::Send(static_cast<const char*>(buffer) + sent, size - sent);
        if (result <= 0) {
            KOVA_TRACE("send stopped fd=%d sent=%u code=%d", m_Socket.load(), static_cast<uint32_t>(sent),
                       GetError());
            break;
        }
        sent += static_cast<size_t>(result);
    }
    if (sent != size) {
        KOVA_TRACE("not all sent fd=%d peer=%x", m_Socket.load(), PeerForTrace());
        return false;
    }
    ClearError();
    return true;
}

bool KovaTCPSocket::Recv(void* buffer, size_t size) {
    m_Received = 0;
    const int32_t start = KovaGetRelativeTime();
    if (!IsOpen()) return KOVA_FAIL(ENOTSOCK, "receive without socket, size=%u", static_cast<uint32_t>(size));

    char* const bytes = static_cast<char*>(buffer);
    size_t count = 0;
    for (int idle = 0; count < size && idle < kIdleRounds; ++idle) {
        if (!WaitForData(KOVA_WAIT_READ, 0)) {
            KOVA_FAIL(ETIMEDOUT, "receive fd=%d received=%u", m_Socket.load(), static_cast<uint32_t>(count));
            break;
        }
        const ssize_t result = ::recv(m_Socket, bytes + count, size - count, 0);
        if (result == 0) {
            KOVA_FAIL(ECONNRESET, "peer closed fd=%d", m_Socket.load());
            break;
        }
        if (result < 0) {
            KOVA_FAIL(errno, "recv fd=%d errno=%d", m_Socket.load(), errno);
            if (GetError() != EINPROGRESS) break;
            KovaMilliSleep(kInProgressPauseMs);
            continue;
        }
        idle = -1;
        size_t added = static_cast<size_t>(result);
        if (IsHandshake() && added >= sizeof kAlive) {
            added = DropFiller(bytes + count, added);
            const int64_t elapsed_ms = int64_t{KovaGetRelativeTime()} * 1000 - int64_t{start} * 1000;
            if (elapsed_ms > m_AliveTimeout) {
                KOVA_FAIL(KOVA_ERR_RECV_TIMEOUT, "receive took too long fd=%d limit=%d", m_Socket.load(),
                          m_AliveTimeout);
                break;
            }
        }
        count += added;
        m_Received = static_cast<uint32_t>(count);
    }
    if (count != size) return false;
    ClearError();
    return true;
}

/// Removes filler from the beginning of a newly received chunk; returns how many bytes are left.
size_t KovaTCPSocket::DropFiller(char* bytes, size_t count) const {
    size_t filler = 0;
    while (count - filler >= sizeof kAlive && std::memcmp(bytes + filler, kAlive, sizeof kAlive) == 0) {
        filler += sizeof kAlive;
    }
    if (filler != 0) std::memmove(bytes, bytes + filler, count - filler);
    return count - filler;
}

bool KovaTCPSocket::WaitForData(KovaWaitModeT mode, int32_t ms) {
    if (!IsOpen()) return false;
    const int32_t start = KovaGetRelativeTime();
    const int32_t limit = ms == 0 ? m_Timeout : ms;
    int retries = kWaitRetries;
    do {
        const KovaSocketT fd = m_Socket;
        FdSetT read, write, except;
        for (FdSetT* set : {&read, &write, &except}) FdZero(set);
        if (mode & KOVA_WAIT_READ) FdSet(fd, &read);
        if (mode & KOVA_WAIT_WRITE) FdSet(fd, &write);
        FdSet(fd, &except);
        const int32_t ready = Select(fd + 1, &read, &write, &except, limit);

        if (ready == 0) return KOVA_FAIL(ETIMEDOUT, "wait fd=%d ms=%d", fd, limit);
        if (ready > 0) {
            if (FdIsSet(fd, &except)) {
                DrainUrgent();
            } else if (FdIsSet(fd, &read) || FdIsSet(fd, &write)) {
                ClearError();
                return true;
            }
        } else if (GetError() == EINTR) {
            --retries;
            KOVA_TRACE("wait interrupted fd=%d retries=%d", fd, retries);
            ::sched_yield();
        } else if (GetError() == EINPROGRESS) {
            --retries;
            KOVA_TRACE("wait in progress fd=%d retries=%d", fd, retries);
            KovaMilliSleep(kInProgressPauseMs);
        } else {
            KOVA_TRACE("wait fd=%d code=%d", fd, GetError());
            return false;
        }
    } while (retries > 0 && KovaRelativeDiffTime(KovaGetRelativeTime(), start) <= kWaitLimit);
    return false;
}

/// Throws away urgent data, so that it does not hide the data behind it.
void KovaTCPSocket::DrainUrgent() {
    KOVA_TRACE("urgent data fd=%d", m_Socket.load());
    char byte;
    uint32_t total = 0;
    while (::recv(m_Socket, &byte, 1, MSG_OOB | MSG_PEEK) == 1 && ::recv(m_Socket, &byte, 1, MSG_OOB) == 1)
        ++total;
    KOVA_TRACE("urgent data dropped fd=%d bytes=%u", m_Socket.load(), total);
    [[maybe_unused]] const ssize_t peeked = ::recv(m_Socket, &byte, 1, MSG_PEEK | MSG_DONTWAIT);
}

bool KovaTCPSocket::HasRecvData() {
    char byte;
    errno = 0;
    if (::recv(m_Socket, &byte, 1, MSG_PEEK) == 1) return true;
    const int error = ShortReceiveError();
    return KOVA_FAIL(error, "peek fd=%d errno=%d", m_Socket.load(), error);
}

bool KovaTCPSocket::KeepAlive() {
    if (!IsOpen() || !IsHandshake() || GetError() == EPIPE) {
        return KOVA_FAIL(ENOTSOCK, "keep-alive fd=%d type=%u", m_Socket.load(), m_Type);
    }
    if (SendText(m_Socket, kAlive)) return true;
    return KOVA_FAIL(errno, "keep-alive fd=%d errno=%d", m_Socket.load(), errno);
}

// Addresses

KovaInetAddr& KovaTCPSocket::GetPeer() { return Refresh(m_Peer, __PRETTY_FUNCTION__); }

KovaInetAddr& KovaTCPSocket::GetLocal() { return Refresh(m_Local, __PRETTY_FUNCTION__); }

/// Asks the kernel for `end` unless it is known; failures are those of `function`.
KovaInetAddr& KovaTCPSocket::Refresh(KovaInetAddr& end, const char* function) {
    if (end.GetIp() != 0) return end;
    const bool is_peer = &end == &m_Peer;
    sockaddr_in6 name;
    if (!IsOpen()) {
        KOVA_FAIL_IN(function, ENOTSOCK, "address of no socket, peer=%d", is_peer);
    } else if (!kova::AskName(is_peer ? ::getpeername : ::getsockname, m_Socket, name)) {
        KOVA_FAIL_IN(function, errno, "address of fd=%d peer=%d errno=%d", m_Socket.load(), is_peer, errno);
    } else {
        kova::StoreEndpoint(name, end);
    }
    return end;
}

/// The peer's last four bytes, without touching error record and errno: what is traced is a failure already.
unsigned int KovaTCPSocket::PeerForTrace() {
    const kova::ErrnoGuard keep;
    sockaddr_in6 name;
    if (m_Peer.GetIp() == 0 && kova::AskName(::getpeername, m_Socket, name))
        kova::StoreEndpoint(name, m_Peer);
    return m_Peer.GetIp();
}
