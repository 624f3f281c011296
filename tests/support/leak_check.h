/// KovaTest, the base of every fixture, and what the tests share: descriptor owners, socket pairs, threads
/// that must end, waiting for events, and code that runs in a child process.
///
/// Every wait has a generous limit (it only matters when a test fails) and no test sleeps for a fixed time.
#ifndef KOVA_TESTS_SUPPORT_LEAK_CHECK_H
#define KOVA_TESTS_SUPPORT_LEAK_CHECK_H

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <utility>

/// Fails the test that leaves a descriptor open which was not open at its start (or closes one of those).
/// Members of a derived fixture are destroyed first, so they may own descriptors.
class KovaTest : public testing::Test {
  protected:
    KovaTest();
    ~KovaTest() override;

  private:
    std::map<int, std::string> m_OpenAtStart;
};

/// Far more than anything takes on a loaded machine or an emulated board.
inline constexpr std::chrono::seconds kLimit{60};

/// Owner of a descriptor.
class Fd {
  public:
    Fd() = default;
    explicit Fd(int fd) : m_Fd(fd) {}
    Fd(Fd&& other) noexcept : m_Fd(other.Release()) {}
    Fd& operator=(Fd&& other) noexcept {
        std::swap(m_Fd, other.m_Fd);
        return *this;
    }
    ~Fd() { Close(); }

    int Get() const { return m_Fd; }
    operator int() const { return m_Fd; }
    int Release() { return std::exchange(m_Fd, -1); }
    void Close();

  private:
    int m_Fd = -1;
};

/// Two connected sockets of the unix family; `type` is SOCK_STREAM, SOCK_DGRAM or SOCK_SEQPACKET.
std::pair<Fd, Fd> SocketPair(int type = SOCK_STREAM);
/// Two connected IPv6 TCP sockets over loopback: the connecting and the accepted one.
std::pair<Fd, Fd> TcpPair();
/// A port, in host order, that no TCP and no UDP socket is bound to at this moment.
uint16_t FreePort();
/// Whether `fd` is an open descriptor of this process.
bool IsOpenFd(int fd);

/// Looks at `condition` again and again until it holds; false after `limit`.
bool WaitUntil(const std::function<bool()>& condition, std::chrono::milliseconds limit = kLimit);

/// Milliseconds on the monotonic clock, read past every fake.
int64_t NowMs();

/// Whether an interface of this name exists: kv0 and kv1 do inside tests/support/nsrun.
bool HasInterface(const char* name);

/// A thread that must end: joined by the destructor, which ends the process with a message if it has not come
/// to its end after the limit.
class DeadlineThread {
  public:
    explicit DeadlineThread(std::function<void()> run, std::chrono::milliseconds limit = kLimit);
    ~DeadlineThread() { Join(); }

    void Join();
    bool HasEnded() const;
    /// Kernel id of the thread.
    pid_t Tid() const;
    pthread_t Handle() { return m_Thread.native_handle(); }

  private:
    struct State;
    std::shared_ptr<State> m_State;
    std::chrono::milliseconds m_Limit;
    std::thread m_Thread;
};

/// How a child process ended, and what it wrote to standard output and standard error.
struct ChildResult {
    int exit_code = -1;  ///< -1 when a signal ended it
    int signal = 0;      ///< 0 when it exited
    std::string output;
    std::string error;
};

void PrintTo(const ChildResult& result, std::ostream* stream);

/// Runs `body` in a forked child, without core dump. The child exits with 0, or with 1 when an assertion
/// failed in it (its text is in `output`). One that hangs is killed after the limit.
ChildResult RunInChild(const std::function<void()>& body, std::chrono::seconds limit = kLimit);

/// Skips a test that the thread sanitizer cannot judge, with the reason.
#ifdef __SANITIZE_THREAD__
#define KOVA_SKIP_UNDER_TSAN(reason) GTEST_SKIP() << "thread sanitizer: " << reason
#else
#define KOVA_SKIP_UNDER_TSAN(reason) static_cast<void>(0)
#endif

#endif
