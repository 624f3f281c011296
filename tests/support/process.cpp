#include "support/process.h"

#include "support/fake_libc.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <utility>

// Nothing here calls a function that a test may fake otherwise than by its real name, so that it neither
// fails nor is noted.

namespace process {

namespace {

/// The descriptor over which a part and its test talk, in the part.
constexpr int kChannel = 3;
/// What the program is called with, before the part's name and arguments.
constexpr char kPlay[] = "--play-part";

/// All parts. Constant-initialised: the parts of other files may come first.
constinit const detail::Part* g_Parts = nullptr;

const detail::Part* FindPart(const std::string& name) {
    const detail::Part* part = g_Parts;
    while (part != nullptr && part->name != name) part = part->next;
    return part;
}

/// Where the running program lies. Its name, and not that of the link, becomes the name of the new process.
std::string Program() {
    std::array<char, 4096> path{};
    const ssize_t length = ::readlink("/proc/self/exe", path.data(), path.size() - 1);
    return length > 0 ? path.data() : "/proc/self/exe";
}

/// A stream socket rather than two pipes: the end of one side must not end the other by SIGPIPE.
void SendLine(int channel, std::string line) {
    line += '\n';
    size_t sent = 0;
    while (sent < line.size()) {
        const ssize_t count = fake::send.Real(channel, line.data() + sent, line.size() - sent, MSG_NOSIGNAL);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return;
        sent += static_cast<size_t>(count);
    }
}

/// Takes the first line out of `buffer`; false if it holds no whole line.
bool TakeLine(std::string& buffer, std::string& line) {
    const size_t end = buffer.find('\n');
    if (end == std::string::npos) return false;
    line = buffer.substr(0, end);
    buffer.erase(0, end + 1);
    return true;
}

/// Waits for bytes and appends them to `buffer`; false when the other side is gone.
bool Receive(int channel, std::string& buffer) {
    std::array<char, 1024> bytes;
    ssize_t count = 0;
    do {
        count = fake::recv.Real(channel, bytes.data(), bytes.size(), 0);
    } while (count < 0 && errno == EINTR);
    if (count <= 0) return false;
    buffer.append(bytes.data(), static_cast<size_t>(count));
    return true;
}

bool IsReadable(int channel) {
    pollfd wanted{channel, POLLIN, 0};
    return ::poll(&wanted, 1, 0) == 1;
}

/// Descriptors above the channel stay behind, as do blocked and ignored signals. Not fork: a child of a
/// process with threads may do very little, and meets the faked functions.
pid_t Spawn(const std::string& program, std::vector<std::string> words, int channel) {
    std::vector<char*> arguments;
    for (std::string& word : words) arguments.push_back(word.data());
    arguments.push_back(nullptr);
    posix_spawn_file_actions_t files;
    ::posix_spawn_file_actions_init(&files);
    ::posix_spawn_file_actions_adddup2(&files, channel, kChannel);
    ::posix_spawn_file_actions_addclosefrom_np(&files, kChannel + 1);
    posix_spawnattr_t attributes;
    sigset_t signals;
    ::posix_spawnattr_init(&attributes);
    ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    ::sigemptyset(&signals);
    ::posix_spawnattr_setsigmask(&attributes, &signals);
    ::sigfillset(&signals);
    ::posix_spawnattr_setsigdefault(&attributes, &signals);
    pid_t pid = -1;
    const int error = ::posix_spawn(&pid, program.c_str(), &files, &attributes, arguments.data(), ::environ);
    ::posix_spawnattr_destroy(&attributes);
    ::posix_spawn_file_actions_destroy(&files);
    if (error == 0) return pid;
    ADD_FAILURE() << program << " cannot be run: " << std::strerror(error);
    return -1;
}

/// What the program does instead of testing when it is called to play a part.
int Play(const std::string& name, const std::vector<std::string>& args) {
    const rlimit no_core{0, 0};
    ::prlimit(0, RLIMIT_CORE, &no_core, nullptr);
    fake::fcntl.Real(kChannel, F_SETFD, FD_CLOEXEC);
    const detail::Part* const part = FindPart(name);
    if (part == nullptr) {
        std::fprintf(stderr, "there is no part %s\n", name.c_str());
        return 127;
    }
    const int status = part->play(args);
    const bool failed = testing::UnitTest::GetInstance()->ad_hoc_test_result().Failed();
    return status == 0 && failed ? 1 : status;
}

}  // namespace

detail::Part::Part(const char* part_name, Function function)
    : name(part_name), play(function), next(std::exchange(g_Parts, this)) {}

Process::Process(const std::string& part, std::vector<std::string> args) : m_Part(part) {
    if (FindPart(part) == nullptr) {
        ADD_FAILURE() << "there is no part " << part;
        return;
    }
    auto [mine, its] = SocketPair();
    const std::string program = Program();
    args.insert(args.begin(), {program, kPlay, part});
    m_Pid = Spawn(program, std::move(args), its);
    m_HasEnded = m_Pid < 0;
    m_Channel = std::move(mine);
    fake::close.Real(its.Release());
}

Process::~Process() {
    Kill();
    Wait();
    if (m_Channel >= 0) fake::close.Real(m_Channel.Release());
}

std::string Process::Name() const { return "part " + m_Part + " (process " + std::to_string(m_Pid) + ")"; }

void Process::Say(const std::string& line) { SendLine(m_Channel, line); }

std::string Process::Hear(std::chrono::milliseconds limit) {
    const int64_t end = NowMs() + limit.count();
    std::string line;
    while (!TakeLine(m_Heard, line)) {
        const std::chrono::milliseconds left(std::max<int64_t>(0, end - NowMs()));
        if (!WaitUntil([this] { return IsReadable(m_Channel); }, left)) {
            ADD_FAILURE() << Name() << " hangs: no line from it within " << limit.count() << " ms";
            Kill();
            return {};
        }
        if (!Receive(m_Channel, m_Heard)) {
            ADD_FAILURE() << Name() << " ended without the line that was waited for";
            return {};
        }
    }
    return line;
}

void Process::Kill(int signal) {
    if (!m_HasEnded) ::kill(m_Pid, signal);
}

bool Process::HasEnded() {
    int status = 0;
    if (!m_HasEnded && ::waitpid(m_Pid, &status, WNOHANG) == m_Pid) {
        m_HasEnded = true;
        m_Status = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }
    return m_HasEnded;
}

int Process::Wait(std::chrono::milliseconds limit) {
    if (!WaitUntil([this] { return HasEnded(); }, limit)) {
        ADD_FAILURE() << Name() << " hangs: no end of it within " << limit.count() << " ms";
        Kill();
        WaitUntil([this] { return HasEnded(); });
    }
    return m_Status;
}

void Tell(const std::string& line) { SendLine(kChannel, line); }

std::string Listen() {
    static auto* const heard = new std::string;
    std::string line;
    while (!TakeLine(*heard, line)) {
        if (!Receive(kChannel, *heard)) ::_exit(1);
    }
    return line;
}

}  // namespace process

/// Instead of GoogleTest's.
int main(int count, char** words) {
    using process::kPlay;
    if (count > 2 && std::strcmp(words[1], kPlay) == 0) {
        return process::Play(words[2], {words + 3, words + count});
    }
    testing::InitGoogleTest(&count, words);
    return RUN_ALL_TESTS();
}
