#include "socket/tcp_peers.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>

namespace {

void Require(bool condition, const char* what) {
    if (!condition) throw std::system_error(errno, std::generic_category(), what);
}

bool Wait(int fd, short events) {
    return WaitUntil([&] {
        pollfd entry{fd, events, 0};
        return ::poll(&entry, 1, 0) == 1;
    });
}

/// What there is to know at once.
int Events(int fd) {
    pollfd entry{fd, POLLRDHUP, 0};
    ::poll(&entry, 1, 0);
    return entry.revents;
}

template <typename Call>
KovaInetAddr NameOf(Call call, int fd) {
    sockaddr_in6 name{};
    socklen_t length = sizeof name;
    Require(call(fd, reinterpret_cast<sockaddr*>(&name), &length) == 0, "name of a socket");
    if (name.sin6_family == AF_INET6) return KovaInetAddr(name.sin6_addr, name.sin6_port);
    const auto& ip4 = reinterpret_cast<const sockaddr_in&>(name);
    return KovaInetAddr(ip4.sin_addr.s_addr, ip4.sin_port);
}

sockaddr_storage Loopback(int family, uint16_t port) {
    sockaddr_storage storage{};
    if (family == AF_INET6) {
        auto& ip6 = reinterpret_cast<sockaddr_in6&>(storage);
        ip6.sin6_family = AF_INET6;
        ip6.sin6_addr = in6addr_loopback;
        ip6.sin6_port = htons(port);
    } else {
        auto& ip4 = reinterpret_cast<sockaddr_in&>(storage);
        ip4.sin_family = AF_INET;
        ip4.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ip4.sin_port = htons(port);
    }
    return storage;
}

socklen_t SizeOf(int family) { return family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in); }

}  // namespace

testing::AssertionResult HasRecorded(const KovaBaseObject& object, int code, const char* function) {
    const char* const recorded = object.GetErrorFunction() == nullptr ? "(null)" : object.GetErrorFunction();
    if (object.GetError() == code && std::string(recorded) == function && object.GetErrorLine() != 0) {
        return testing::AssertionSuccess();
    }
    return testing::AssertionFailure()
           << "recorded: " << object.GetError() << " in \"" << recorded << "\" line " << object.GetErrorLine()
           << ", not " << code << " in \"" << function << "\"";
}

std::string Pattern(size_t size) {
    std::string text;
    text.reserve(size + 16);
    for (uint32_t number = 0; text.size() < size; ++number) text += std::to_string(number) + ' ';
    text.resize(size);
    return text;
}

bool WriteAll(int fd, const std::string& bytes) {
    for (size_t written = 0; written < bytes.size();) {
        // Neither a faked call nor one that raises SIGPIPE.
        iovec part{const_cast<char*>(bytes.data()) + written, bytes.size() - written};
        msghdr message{};
        message.msg_iov = &part;
        message.msg_iovlen = 1;
        const ssize_t count = ::sendmsg(fd, &message, MSG_NOSIGNAL);
        if (count > 0) {
            written += static_cast<size_t>(count);
        } else if (errno != EINTR && (errno != EAGAIN || !WaitWritable(fd))) {
            return false;
        }
    }
    return true;
}

std::string ReadUpTo(int fd, size_t size) {
    std::string text;
    std::array<char, 65536> part;
    while (text.size() < size && WaitReadable(fd)) {
        const ssize_t count = ::read(fd, part.data(), std::min(part.size(), size - text.size()));
        if (count <= 0) break;
        text.append(part.data(), static_cast<size_t>(count));
    }
    return text;
}

bool WaitReadable(int fd) { return Wait(fd, POLLIN); }

bool WaitWritable(int fd) { return Wait(fd, POLLOUT); }

bool IsEnded(int fd) {
    std::array<char, 4096> rest;
    for (;;) {
        if (!WaitReadable(fd)) return false;
        if (::read(fd, rest.data(), rest.size()) <= 0) return true;
    }
}

int Waiting(int fd) {
    int count = -1;
    Require(::ioctl(fd, FIONREAD, &count) == 0, "FIONREAD");
    return count;
}

bool HasPeerEnded(int fd) { return (Events(fd) & POLLRDHUP) != 0; }

bool HasPeerReset(int fd) { return (Events(fd) & POLLHUP) != 0; }

void Reset(Fd& fd) {
    const linger at_once{1, 0};
    Require(::setsockopt(fd, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once) == 0, "SO_LINGER");
    fd.Close();
}

bool IsNonBlocking(int fd) { return (::fcntl(fd, F_GETFL) & O_NONBLOCK) != 0; }

Fd MovedBeyondSets(Fd fd) {
    Fd moved(::fcntl(fd, F_DUPFD_CLOEXEC, FD_SETSIZE));
    Require(moved >= FD_SETSIZE, "F_DUPFD_CLOEXEC");
    return moved;
}

bool AllowDescriptorsBeyondSets() {
    constexpr rlim_t kEnough = FD_SETSIZE + 64;
    rlimit limit{};
    Require(::getrlimit(RLIMIT_NOFILE, &limit) == 0, "RLIMIT_NOFILE");
    if (limit.rlim_cur >= kEnough) return true;
    limit.rlim_cur = kEnough;
    limit.rlim_max = std::max(limit.rlim_max, kEnough);
    return ::setrlimit(RLIMIT_NOFILE, &limit) == 0;
}

KovaInetAddr LocalOf(int fd) { return NameOf(::getsockname, fd); }

KovaInetAddr PeerOf(int fd) { return NameOf(::getpeername, fd); }

uint16_t HostPort(const KovaInetAddr& address) { return ntohs(address.GetPort()); }

Listener::Listener(int family, int backlog) : m_Fd(::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    const sockaddr_storage address = Loopback(family, 0);
    Require(::bind(m_Fd, reinterpret_cast<const sockaddr*>(&address), SizeOf(family)) == 0, "bind");
    Require(::listen(m_Fd, backlog) == 0, "listen");
}

Fd Listener::Accept() const {
    return WaitReadable(m_Fd) ? Fd(::accept4(m_Fd, nullptr, nullptr, SOCK_CLOEXEC)) : Fd();
}

void Listener::Shutdown() { ::shutdown(m_Fd, SHUT_RDWR); }

Fd ConnectTo(uint16_t port) {
    Fd fd(::socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const sockaddr_storage address = Loopback(AF_INET6, port);
    Require(::connect(fd, reinterpret_cast<const sockaddr*>(&address), SizeOf(AF_INET6)) == 0, "connect");
    return fd;
}

Greeter::Greeter(std::string greeting, After after)
    : m_Thread([this, greeting = std::move(greeting), after] {
          m_Connection = m_Listener.Accept();
          if (m_Connection < 0) return;
          WriteAll(m_Connection, greeting);
          if (after == kCloses) m_Connection.Close();
      }) {}

Greeter::~Greeter() {
    m_Listener.Shutdown();
    m_Thread.Join();
}

Fd& Greeter::Connection() {
    m_Thread.Join();
    return m_Connection;
}
