#include "frame/errno_guard.h"
#include "frame/fail.h"
#include "frame/unique_fd.h"
#include "time/duration.h"

#include <kova/clock.h>
#include <kova/socket_wrapper.h>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

namespace {

constexpr int32_t kDefaultTimeout = 3000;
constexpr int kSetSize = sizeof(fd_set) * CHAR_BIT;

constexpr int32_t kTroublePauseMs = 10;

constexpr int kSendRetries = 3;
constexpr int32_t kBusyPauseMs = 50;
constexpr int32_t kRefusedPauseNs = 500000;

/// Takes the pause that `error` asks for before a send is tried again; false when it is final.
bool PauseBeforeResend(int error) {
    switch (error) {
        case EINTR:
            return true;
        case EAGAIN:
        case ENOBUFS:
            KovaMilliSleep(kBusyPauseMs);
            return true;
        case EPERM:
            KovaNanoSleep(kRefusedPauseNs);
            return true;
        default:
            return false;
    }
}

// Deliberate: no memory is worth another attempt for a datagram only.
bool PauseBeforeResendTo(int error) {
    if (error != ENOMEM) return PauseBeforeResend(error);
    KovaMilliSleep(kBusyPauseMs);
    return true;
}

/// Up to four attempts; `failed` reports each that fails, and nothing sleeps after the last.
template <typename Attempt, typename Failed>
int SendWithRetry(Attempt attempt, Failed failed, bool (*pause)(int error)) {
    for (int retries = kSendRetries;; --retries) {
        const ssize_t result = attempt();
        if (result >= 0) return static_cast<int>(result);
        const int error = errno;
        failed(error);
        if (retries == 0 || !pause(error)) return static_cast<int>(result);
    }
}

bool FitsSet(int fd) { return fd >= 0 && fd < kSetSize; }

uint32_t& WordOf(int fd, FdSetT* set) { return set->words[fd >> 5]; }

uint32_t BitOf(int fd) { return uint32_t{1} << (fd & 31); }

fd_set* Native(FdSetT* set) { return reinterpret_cast<fd_set*>(set); }

static_assert(sizeof(FdSetT) == sizeof(fd_set));

}  // namespace

KovaSocketWrapper::KovaSocketWrapper()
    : m_Socket(-1),
      m_Mode(KOVA_SOCKET_CLOSED),
      m_Timeout(kDefaultTimeout),
      m_Received(0),
      m_Stop(0),
      m_Routing(true),
      m_Broadcast(false),
      // Deliberate: not blocking, though nothing is applied before Open does it.
      m_Blocking(false),
      m_Device{} {}

KovaSocketWrapper::~KovaSocketWrapper() = default;

bool KovaSocketWrapper::Open() { return false; }

int KovaSocketWrapper::GetSocketError() const { return errno; }

KovaSocketT KovaSocketWrapper::Socket(int domain, int type, int protocol) {
    const KovaSocketT fd = ::socket(domain, type, protocol);
    if (fd < 0) KOVA_FAIL(errno, "socket errno=%d", errno);
    // Deliberate: on -1, too. The errno of a failed socket call stays the caller's.
    const kova::ErrnoGuard keep;
    ::fcntl(fd, F_SETFD, FD_CLOEXEC);
    return fd;
}

KovaSocketT KovaSocketWrapper::Accept(int fd, sockaddr* address, SocklenT* length) {
    const KovaSocketT accepted = ::accept(fd, address, length);
    if (accepted < 0) KOVA_FAIL(errno, "accept errno=%d", errno);
    return accepted;
}

int KovaSocketWrapper::Close(int fd) { return ::close(fd); }

KovaSocketT KovaSocketWrapper::RemoveSocket() {
    ClearError();
    const KovaSocketT fd = m_Socket.exchange(-1);
    m_Received = 0;
    m_Mode = KOVA_SOCKET_CLOSED;
    KOVA_TRACE("socket removed fd=%d", fd);
    return fd;
}

void KovaSocketWrapper::FdZero(FdSetT* set) { *set = {}; }

void KovaSocketWrapper::FdSet(int fd, FdSetT* set) {
    if (FitsSet(fd)) WordOf(fd, set) |= BitOf(fd);
}

bool KovaSocketWrapper::FdIsSet(int fd, FdSetT* set) {
    return FitsSet(fd) && (WordOf(fd, set) & BitOf(fd)) != 0;
}

int32_t KovaSocketWrapper::Select(int n, FdSetT* read, FdSetT* write, FdSetT* except, int32_t ms) {
    int32_t ready = -1;
    if (n > kSetSize) {
        errno = EINVAL;
    } else {
        timeval timeout = kova::ToTimeval(ms);
        ready = ::select(n, Native(read), Native(write), Native(except), &timeout);
    }
    if (ready < 0) KOVA_FAIL(errno, "select n=%d code=%d", n, errno);
    if (ready == 0) KOVA_RECORD(ETIMEDOUT);
    return ready;
}

bool KovaSocketWrapper::Ioctl(unsigned long request, const void* arg) {
    if (!IsOpen()) Open();
    if (!IsOpen())
        return KOVA_FAIL(ENOTSOCK, "ioctl without socket, request=%x", static_cast<uint32_t>(request));
    if (::ioctl(m_Socket, request, arg) >= 0) return true;
    return KOVA_FAIL(errno, "ioctl request=%x errno=%d", static_cast<uint32_t>(request), errno);
}

bool KovaSocketWrapper::SetOption(int option, const void* value, size_t size) {
    return ::setsockopt(m_Socket, SOL_SOCKET, option, value, static_cast<socklen_t>(size)) == 0;
}

bool KovaSocketWrapper::SetFlag(int option, int value) { return SetOption(option, &value, sizeof value); }

bool KovaSocketWrapper::SetTimeout(int ms) {
    m_Timeout = ms;
    if (!IsOpen()) return false;
    SetSendTimeout(ms);
    return SetRecvTimeout(ms);
}

bool KovaSocketWrapper::SetRecvTimeout(int ms) {
    const timeval timeout = kova::ToTimeval(ms);
    if (SetOption(SO_RCVTIMEO, &timeout, sizeof timeout)) return true;
    return KOVA_FAIL(errno, "receive time-out ms=%d errno=%d", ms, errno);
}

bool KovaSocketWrapper::SetSendTimeout(int ms) {
    const timeval timeout = kova::ToTimeval(ms);
    if (SetOption(SO_SNDTIMEO, &timeout, sizeof timeout)) return true;
    return KOVA_FAIL(errno, "send time-out ms=%d errno=%d", ms, errno);
}

bool KovaSocketWrapper::SetRecvbufferSize(size_t size) {
    const int bytes = static_cast<int>(std::min(size, size_t{INT_MAX}));
    if (SetFlag(SO_RCVBUF, bytes)) return true;
    return KOVA_FAIL(errno, "receive buffer bytes=%d errno=%d", bytes, errno);
}

bool KovaSocketWrapper::SetSendbufferSize(size_t size) {
    const int bytes = static_cast<int>(std::min(size, size_t{INT_MAX}));
    if (SetFlag(SO_SNDBUF, bytes)) return true;
    return KOVA_FAIL(errno, "send buffer bytes=%d errno=%d", bytes, errno);
}

bool KovaSocketWrapper::SetBlocking(bool blocking) {
    m_Blocking = blocking;
    if (!IsOpen()) return true;
    const int nonblocking = blocking ? 0 : 1;
    return Ioctl(FIONBIO, &nonblocking);
}

bool KovaSocketWrapper::SetRouting(bool routing) {
    m_Routing = routing;
    if (!IsOpen() || SetFlag(SO_DONTROUTE, routing ? 0 : 1)) return true;
    return KOVA_FAIL(errno, "routing=%d errno=%d", routing, errno);
}

bool KovaSocketWrapper::SetBroadcast(bool broadcast) {
    m_Broadcast = broadcast;
    if (!IsOpen() || SetFlag(SO_BROADCAST, broadcast ? 1 : 0)) return true;
    return KOVA_FAIL(errno, "broadcast=%d errno=%d", broadcast, errno);
}

bool KovaSocketWrapper::BindToDevice(const char* name) {
    if (name != nullptr) {
        std::memset(m_Device, 0, sizeof m_Device);
        std::memcpy(m_Device, name, ::strnlen(name, sizeof m_Device));
    }
    const size_t length = ::strnlen(m_Device, sizeof m_Device);
    if (length == 0 || !IsOpen()) return true;
    // No interface has a name of 16 characters, but the kernel would take the first 15 of them for one.
    if (length == sizeof m_Device) return KOVA_FAIL(EINVAL, "device name too long fd=%d", m_Socket.load());
    if (SetOption(SO_BINDTODEVICE, m_Device, length + 1)) return true;
    return KOVA_FAIL(errno, "bind to device fd=%d errno=%d", m_Socket.load(), errno);
}

int KovaSocketWrapper::Send(const void* buffer, size_t size) {
    const char* const function = __PRETTY_FUNCTION__;
    const auto attempt = [&] { return ::send(m_Socket, buffer, size, MSG_NOSIGNAL); };
    const auto failed = [&](int error) {
        KOVA_FAIL_IN(function, error, "send fd=%d size=%u errno=%d", m_Socket.load(),
                     static_cast<uint32_t>(size), error);
    };
    const int sent = SendWithRetry(attempt, failed, PauseBeforeResend);
    if (sent >= 0) ClearError();
    return sent;
}

int KovaSocketWrapper::SendTo(const void* buffer, size_t size, sockaddr* address, int length) {
    const char* const function = __PRETTY_FUNCTION__;
    const auto attempt = [&] {
        return ::sendto(m_Socket, buffer, size, MSG_NOSIGNAL, address, static_cast<socklen_t>(length));
    };
    const auto failed = [&](int error) {
        KOVA_FAIL_IN(function, error, "sendto fd=%d size=%u errno=%d", m_Socket.load(),
                     static_cast<uint32_t>(size), error);
    };
    const int sent = SendWithRetry(attempt, failed, PauseBeforeResendTo);
    if (sent >= 0) ClearError();
    return sent;
}

void KovaSocketWrapper::PauseAfterFailedWait() const {
    if (GetError() != ETIMEDOUT && GetError() != EINTR) KovaMilliSleep(kTroublePauseMs);
}

bool KovaSocketWrapper::TakeOver(KovaSocketT fd, const char* function) {
    ClearError();
    if (IsOpen()) return KOVA_FAIL_IN(function, KOVA_ERR_ALREADY_OPEN, "open already fd=%d", m_Socket.load());
    m_Socket = fd;
    m_Mode = KOVA_SOCKET_CONNECTED;
    return true;
}

bool KovaSocketWrapper::ApplyOptions() {
    if (!SetBlocking(m_Blocking) || !SetRouting(m_Routing) || !SetBroadcast(m_Broadcast) ||
        !BindToDevice(nullptr))
        return false;
    SetSendTimeout(m_Timeout);
    SetRecvTimeout(m_Timeout);
    return true;
}

bool KovaSocketWrapper::AwaitReady(KovaWaitModeT mode, const char* function) {
    const KovaSocketT fd = m_Socket;
    for (;;) {
        FdSetT read{}, write{}, except{};
        if (mode & KOVA_WAIT_READ) FdSet(fd, &read);
        if (mode & KOVA_WAIT_WRITE) FdSet(fd, &write);
        FdSet(fd, &except);
        const int32_t ready = Select(fd + 1, &read, &write, &except, m_Timeout);
        if (ready > 0) {
            if (FdIsSet(fd, &except)) KOVA_TRACE("exceptional condition fd=%d", fd);
            return FdIsSet(fd, &read) || FdIsSet(fd, &write);
        }
        if (ready == 0) {
            _SetError_(function, __LINE__, ETIMEDOUT);
            return false;
        }
        if (GetError() != EINPROGRESS && GetError() != EAGAIN)
            return KOVA_FAIL_IN(function, errno, "wait fd=%d errno=%d", fd, errno);
        KovaMilliSleep(kTroublePauseMs);
    }
}

bool KovaSocketWrapper::CloseDescriptor(int linger_seconds) {
    // Taken at once: another thread that closes the same object finds nothing left to close.
    const KovaSocketT fd = m_Socket.exchange(-1);
    m_Mode = KOVA_SOCKET_CLOSED;
    if (fd < 0) return true;
    // Closing is often what follows a failure that the caller still asks about.
    const kova::ErrnoGuard keep;
    const linger wanted{1, linger_seconds};
    if (::setsockopt(fd, SOL_SOCKET, SO_LINGER, &wanted, sizeof wanted) < 0) {
        KOVA_TRACE("linger fd=%d errno=%d", fd, errno);
    }
    ::shutdown(fd, SHUT_RDWR);
    const int error = kova::CloseOnce(fd);
    if (error == 0) return true;
    KOVA_TRACE("close fd=%d errno=%d", fd, error);
    return false;
}
