#include "support/leak_check.h"

#include <dirent.h>
#include <fcntl.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/times.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ostream>
#include <system_error>

// Nothing here may use a function that a test fakes for all threads while it waits: hence poll for pauses,
// times for the clock, and the descriptors of the directory itself left out of the list.

namespace {

constexpr int kPauseMs = 1;

void Require(bool condition, const char* what) {
    if (!condition) throw std::system_error(errno, std::generic_category(), what);
}

std::map<int, std::string> OpenDescriptors() {
    std::map<int, std::string> open;
    const std::unique_ptr<DIR, int (*)(DIR*)> directory(::opendir("/proc/self/fd"), ::closedir);
    Require(directory != nullptr, "/proc/self/fd");
    while (const dirent* entry = ::readdir(directory.get())) {
        const int fd = std::atoi(entry->d_name);
        if (entry->d_name[0] == '.' || fd == ::dirfd(directory.get())) continue;
        std::array<char, 256> target{};
        const std::string path = std::string("/proc/self/fd/") + entry->d_name;
        if (::readlink(path.c_str(), target.data(), target.size() - 1) >= 0) open[fd] = target.data();
    }
    return open;
}

std::string ReadAll(int fd) {
    std::string text;
    std::array<char, 4096> part;
    ::lseek(fd, 0, SEEK_SET);
    for (;;) {
        const ssize_t count = ::read(fd, part.data(), part.size());
        if (count <= 0) return text;
        text.append(part.data(), static_cast<size_t>(count));
    }
}

Fd TemporaryFile() {
    Fd file(::memfd_create("child-output", MFD_CLOEXEC));
    Require(file >= 0, "memfd_create");
    return file;
}

[[noreturn]] void RunChild(const std::function<void()>& body, int output, int error) {
    const rlimit no_core{0, 0};
    ::prlimit(0, RLIMIT_CORE, &no_core, nullptr);
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    ::dup2(output, STDOUT_FILENO);
    ::dup2(error, STDERR_FILENO);
    body();
    std::fflush(nullptr);
    ::_exit(testing::Test::HasFailure() ? 1 : 0);
}

uint16_t PortOf(int fd) {
    sockaddr_in6 address{};
    socklen_t length = sizeof address;
    Require(::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0, "getsockname");
    return ntohs(address.sin6_port);
}

/// A socket of `type` bound to `port` of the loopback address; none when the port is taken.
Fd Bound(int type, uint16_t port) {
    Fd fd(::socket(AF_INET6, type | SOCK_CLOEXEC, 0));
    Require(fd >= 0, "socket");
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    address.sin6_port = htons(port);
    if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) return fd;
    Require(port != 0, "bind");
    return Fd();
}

}  // namespace

KovaTest::KovaTest() : m_OpenAtStart(OpenDescriptors()) {}

KovaTest::~KovaTest() {
    const std::map<int, std::string> open = OpenDescriptors();
    for (const auto& [fd, target] : open) {
        if (m_OpenAtStart.count(fd) == 0) ADD_FAILURE() << "descriptor " << fd << " left open: " << target;
    }
    for (const auto& [fd, target] : m_OpenAtStart) {
        if (open.count(fd) == 0) ADD_FAILURE() << "descriptor " << fd << " closed by the test: " << target;
    }
}

void Fd::Close() {
    if (m_Fd >= 0) ::close(std::exchange(m_Fd, -1));
}

std::pair<Fd, Fd> SocketPair(int type) {
    int fds[2];
    Require(::socketpair(AF_UNIX, type | SOCK_CLOEXEC, 0, fds) == 0, "socketpair");
    return {Fd(fds[0]), Fd(fds[1])};
}

std::pair<Fd, Fd> TcpPair() {
    const Fd listener = Bound(SOCK_STREAM, 0);
    Require(::listen(listener, 1) == 0, "listen");
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    address.sin6_addr = in6addr_loopback;
    address.sin6_port = htons(PortOf(listener));
    Fd client(::socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0));
    Require(::connect(client, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0, "connect");
    Fd server(::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
    Require(server >= 0, "accept4");
    return {std::move(client), std::move(server)};
}

uint16_t FreePort() {
    for (;;) {
        const Fd tcp = Bound(SOCK_STREAM, 0);
        const uint16_t port = PortOf(tcp);
        if (Bound(SOCK_DGRAM, port) >= 0) return port;
    }
}

bool IsOpenFd(int fd) { return OpenDescriptors().count(fd) != 0; }

int64_t NowMs() {
    constexpr int64_t kMsPerTick = 10;
    tms unused;
    return int64_t{::times(&unused)} * kMsPerTick;
}

bool WaitUntil(const std::function<bool()>& condition, std::chrono::milliseconds limit) {
    const int64_t begin = NowMs();
    while (!condition()) {
        if (NowMs() - begin > limit.count()) return false;
        ::poll(nullptr, 0, kPauseMs);
    }
    return true;
}

bool HasInterface(const char* name) { return ::if_nametoindex(name) != 0; }

struct DeadlineThread::State {
    std::atomic<bool> ended{false};
    std::atomic<pid_t> tid{0};
};

DeadlineThread::DeadlineThread(std::function<void()> run, std::chrono::milliseconds limit)
    : m_State(std::make_shared<State>()), m_Limit(limit), m_Thread([run = std::move(run), state = m_State] {
          state->tid = ::gettid();
          run();
          state->ended = true;
      }) {}

bool DeadlineThread::HasEnded() const { return m_State->ended; }

pid_t DeadlineThread::Tid() const {
    WaitUntil([this] { return m_State->tid != 0; });
    return m_State->tid;
}

void DeadlineThread::Join() {
    if (!m_Thread.joinable()) return;
    if (!WaitUntil([this] { return HasEnded(); }, m_Limit)) {
        std::fprintf(stderr, "a thread of the test does not come to its end\n");
        std::fflush(nullptr);
        ::_exit(1);
    }
    m_Thread.join();
}

void PrintTo(const ChildResult& result, std::ostream* stream) {
    *stream << "exit code " << result.exit_code << ", signal " << result.signal
            << "\noutput: " << result.output << "\nerror: " << result.error;
}

ChildResult RunInChild(const std::function<void()>& body, std::chrono::seconds limit) {
    const Fd output = TemporaryFile();
    const Fd error = TemporaryFile();
    std::fflush(nullptr);
    const pid_t child = ::fork();
    Require(child >= 0, "fork");
    if (child == 0) RunChild(body, output, error);

    int status = 0;
    const auto has_ended = [&] { return ::waitpid(child, &status, WNOHANG) == child; };
    if (!WaitUntil(has_ended, limit)) {
        ADD_FAILURE() << "the child process hung";
        ::kill(child, SIGKILL);
        ::waitpid(child, &status, 0);
    }
    ChildResult result;
    if (WIFEXITED(status)) result.exit_code = WEXITSTATUS(status);
    if (WIFSIGNALED(status)) result.signal = WTERMSIG(status);
    result.output = ReadAll(output);
    result.error = ReadAll(error);
    return result;
}
