#include "support/fake_libc.h"
#include "support/leak_check.h"
#include "support/trace_recorder.h"

#include <kova/file_notify.h>

#include <dlfcn.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <iterator>
#include <set>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

static_assert(std::is_same_v<void (*)(const char*), KovaFileNotifyT>);
static_assert(std::is_same_v<int(const char*, KovaFileNotifyT), decltype(InstallFileNotifyHandler)>);
static_assert(std::is_same_v<int(const char*), decltype(UnInstallFileNotifyHandler)>);
static_assert(std::is_same_v<void(int, siginfo_t*, void*), decltype(FileNotifySignalHandler)>);

constexpr size_t kMostWatches = 8;

constexpr const char* kNotReadable = "watch path=%s not readable, errno=%d";
constexpr const char* kNotOpened = "watch path=%s not opened, errno=%d";
constexpr const char* kNoSignal = "watch fd=%d no signal, errno=%d";
constexpr const char* kNoNotification = "watch fd=%d no notification, errno=%d";
constexpr const char* kTooMany = "watch fd=%d too many";
constexpr const char* kNotification = "notification signal=%d fd=%d";

using Texts = std::vector<std::string>;
using testing::ElementsAre;
using testing::IsEmpty;

// --- What the call-backs are told: written in signal handlers ---

struct Telling {
    char path[256];
    pid_t tid;
};

std::array<Telling, 64> g_Tellings;
std::atomic<size_t> g_Told{0};
std::atomic<size_t> g_ToldOther{0};

void Tell(const char* path) {
    Telling& telling = g_Tellings[g_Told % g_Tellings.size()];
    std::strncpy(telling.path, path, sizeof telling.path - 1);
    telling.tid = ::gettid();
    ++g_Told;
}

void TellOther(const char*) { ++g_ToldOther; }

/// The paths that `Tell` was told, each once.
std::set<std::string> ToldPaths() {
    std::set<std::string> paths;
    for (size_t i = 0; i < std::min<size_t>(g_Told, g_Tellings.size()); ++i) paths.insert(g_Tellings[i].path);
    return paths;
}

bool IsSignalBlocked(int signal) {
    sigset_t blocked;
    ::pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
    return ::sigismember(&blocked, signal) == 1;
}

void ChangeMask(int how, int signal) {
    sigset_t signals;
    ::sigemptyset(&signals);
    ::sigaddset(&signals, signal);
    ::pthread_sigmask(how, &signals, nullptr);
}

/// What is done on a signal, put back in the destructor.
class SavedAction {
  public:
    explicit SavedAction(int signal) : m_Signal(signal) { ::sigaction(signal, nullptr, &m_Action); }
    SavedAction(const SavedAction&) = delete;
    SavedAction& operator=(const SavedAction&) = delete;
    ~SavedAction() {
        // Drops what is pending.
        ::signal(m_Signal, SIG_IGN);
        ::sigaction(m_Signal, &m_Action, nullptr);
    }

  private:
    const int m_Signal;
    struct sigaction m_Action {};
};

void SetAction(int signal, sighandler_t handler) {
    struct sigaction action {};
    action.sa_handler = handler;
    EXPECT_EQ(0, ::sigaction(signal, &action, nullptr));
}

struct sigaction ActionOf(int signal) {
    struct sigaction action {};
    EXPECT_EQ(0, ::sigaction(signal, nullptr, &action));
    return action;
}

/// A new directory.
class Directory {
  public:
    Directory() {
        char path[] = "/tmp/kova_watch_XXXXXX";
        EXPECT_NE(nullptr, ::mkdtemp(path));
        m_Path = path;
    }
    Directory(const Directory&) = delete;
    Directory& operator=(const Directory&) = delete;
    ~Directory() { std::filesystem::remove_all(m_Path); }

    const std::string& Path() const { return m_Path; }
    std::string operator/(const std::string& name) const { return m_Path + "/" + name; }
    void Add(const std::string& name) const {
        const Fd file(::open((m_Path + "/" + name).c_str(), O_WRONLY | O_CREAT, 0666));
        EXPECT_LE(0, file) << name;
    }

  private:
    std::string m_Path;
};

/// An environment variable while it lives.
class Variable {
  public:
    Variable(const char* name, const std::string& value) : m_Name(name) { ::setenv(name, value.c_str(), 1); }
    Variable(const Variable&) = delete;
    Variable& operator=(const Variable&) = delete;
    ~Variable() { ::unsetenv(m_Name); }

  private:
    const char* const m_Name;
};

/// Watches end with the test, and signals are handled as before it.
class FileNotify : public KovaTest {
  protected:
    FileNotify() {
        ::pthread_sigmask(SIG_SETMASK, nullptr, &m_Mask);
        g_Told = 0;
        g_ToldOther = 0;
    }
    ~FileNotify() override {
        while (!m_Watched.empty()) Uninstall(std::string(m_Watched.back()));
        ::pthread_sigmask(SIG_SETMASK, &m_Mask, nullptr);
    }

    int Install(const std::string& path, KovaFileNotifyT callback = Tell) {
        const int fd = InstallFileNotifyHandler(path.c_str(), callback);
        if (fd >= 0) m_Watched.push_back(path);
        return fd;
    }

    /// Takes over the duplicate that stays open.
    int Uninstall(const std::string& path) {
        const auto duplicate = [this](int fd, int command, long argument) {
            const int result = fake::fcntl.Real(fd, command, argument);
            m_Duplicates.emplace_back(result);
            return result;
        };
        fake::Replace fcntls(fake::fcntl, duplicate, fake::kThisThread);
        fcntls.When([](int, int command, long) { return command == F_DUPFD; });
        std::erase(m_Watched, path);
        return UnInstallFileNotifyHandler(path.c_str());
    }

    /// A change in `directory` is told.
    static testing::AssertionResult IsTold(const Directory& directory) {
        const size_t before = g_Told;
        directory.Add("told" + std::to_string(before));
        if (WaitUntil([&] { return g_Told > before; })) return testing::AssertionSuccess();
        return testing::AssertionFailure() << "nobody was called for " << directory.Path();
    }

    /// Waits until every signal that was sent before has been handled: they keep their order.
    void AwaitEarlierSignals() {
        const size_t before = g_ToldOther;
        const Directory fence;
        ASSERT_LE(0, Install(fence.Path(), TellOther));
        fence.Add("file");
        EXPECT_TRUE(WaitUntil([&] { return g_ToldOther > before; }));
        EXPECT_EQ(0, Uninstall(fence.Path()));
    }

    std::vector<Fd> m_Duplicates;

  private:
    const SavedAction m_Notification{SIGRTMIN};
    const SavedAction m_Io{SIGIO};
    sigset_t m_Mask;
    Texts m_Watched;
};

TEST_F(FileNotify, FunctionsAreExportedUnderPlainNames) {
    for (const char* name :
         {"InstallFileNotifyHandler", "UnInstallFileNotifyHandler", "FileNotifySignalHandler"}) {
        EXPECT_NE(nullptr, ::dlsym(RTLD_DEFAULT, name)) << name;
    }
}

// --- Installing ---

Texts CallsOfAnInstall(const std::string& path) {
    return {"access " + path + " R_OK",
            "open " + path + " O_RDONLY",
            "fcntl F_SETFD 1",
            "sigprocmask SIG_UNBLOCK [SIGRTMIN]",
            "sigaction SIGRTMIN handler SA_SIGINFO|SA_RESTART",
            "sigaction SIGIO null",
            "sigaction SIGIO handler SA_RESTART",
            "fcntl F_SETSIG SIGRTMIN",
            "fcntl F_NOTIFY DN_MULTISHOT|DN_MODIFY|DN_CREATE|DN_DELETE|DN_RENAME"};
}

/// The calls of a journal, without the signals that are blocked in the handler of SIGIO: those of before.
Texts CallsIn(const fake::Journal& journal) {
    constexpr std::string_view kHandler = "sigaction SIGIO handler SA_RESTART";
    Texts texts = journal.Texts();
    for (std::string& text : texts) {
        if (text.starts_with(kHandler)) text = kHandler;
    }
    return texts;
}

TEST_F(FileNotify, InstallGivesTheDirectorysDescriptor) {
    const Directory directory;
    const int fd = Install(directory.Path());
    ASSERT_LE(0, fd);
    EXPECT_EQ(directory.Path(), std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd)));
    EXPECT_EQ(FD_CLOEXEC, ::fcntl(fd, F_GETFD));
    EXPECT_EQ(SIGRTMIN, ::fcntl(fd, F_GETSIG));
    EXPECT_EQ(O_RDONLY, ::fcntl(fd, F_GETFL) & O_ACCMODE);
}

TEST_F(FileNotify, InstallMakesItsCallsInOrder) {
    const Directory directory;
    const TraceRecorder recorder;
    SetAction(SIGIO, SIG_DFL);
    const fake::Journal journal(fake::kThisThread);
    const int fd = Install(directory.Path());
    EXPECT_EQ(CallsOfAnInstall(directory.Path()), CallsIn(journal));
    EXPECT_THAT(journal.Texts(fd),
                ElementsAre("open " + directory.Path() + " O_RDONLY", "fcntl F_SETFD 1",
                            "fcntl F_SETSIG SIGRTMIN", testing::StartsWith("fcntl F_NOTIFY ")));
    EXPECT_EQ(0u, recorder.All().size());
}

TEST_F(FileNotify, EveryChangeIsWatchedWithoutEnd) {
    const Directory directory;
    uint32_t changes = 0;
    fake::Replace requests(fake::fcntl, [&](int fd, int command, long argument) {
        changes = static_cast<uint32_t>(argument);
        return fake::fcntl.Real(fd, command, argument);
    });
    requests.When([](int, int command, long) { return command == F_NOTIFY; });
    ASSERT_LE(0, Install(directory.Path()));
    EXPECT_EQ(0x8000001Eu, changes);
}

TEST_F(FileNotify, InstallTakesTheSignalOver) {
    const Directory directory;
    struct sigaction before {};
    before.sa_handler = [](int) {};
    ::sigfillset(&before.sa_mask);
    ::sigaction(SIGRTMIN, &before, nullptr);
    ChangeMask(SIG_BLOCK, SIGRTMIN);
    ChangeMask(SIG_BLOCK, SIGUSR2);

    ASSERT_LE(0, Install(directory.Path()));
    EXPECT_FALSE(IsSignalBlocked(SIGRTMIN));
    EXPECT_TRUE(IsSignalBlocked(SIGUSR2)) << "no other signal is unblocked";
    const struct sigaction action = ActionOf(SIGRTMIN);
    EXPECT_EQ(&FileNotifySignalHandler, action.sa_sigaction);
    EXPECT_EQ(SA_SIGINFO | SA_RESTART, action.sa_flags & (SA_SIGINFO | SA_RESTART | SA_NODEFER));
    EXPECT_EQ(1, ::sigisemptyset(&action.sa_mask));

    EXPECT_EQ(0, Uninstall(directory.Path()));
    EXPECT_EQ(&FileNotifySignalHandler, ActionOf(SIGRTMIN).sa_sigaction) << "for good";
}

TEST_F(FileNotify, SigioGetsAHandlerWhereItHasNone) {
    const Directory directory;
    SetAction(SIGIO, SIG_DFL);
    ASSERT_LE(0, Install(directory.Path()));
    EXPECT_NE(SIG_DFL, ActionOf(SIGIO).sa_handler);
    EXPECT_NE(SIG_IGN, ActionOf(SIGIO).sa_handler) << "programs that the process starts would ignore it";
    ::raise(SIGIO);
    EXPECT_TRUE(IsTold(directory));
    EXPECT_EQ(1u, g_Told) << "nobody is called for SIGIO";
}

TEST_F(FileNotify, SigioGetsAHandlerAtEachInstall) {
    const std::array<Directory, 2> directories;
    for (const Directory& directory : directories) {
        SetAction(SIGIO, SIG_DFL);
        ASSERT_LE(0, Install(directory.Path()));
        EXPECT_NE(SIG_DFL, ActionOf(SIGIO).sa_handler);
    }
}

TEST_F(FileNotify, SigioKeepsItsHandler) {
    const Directory first, second;
    for (const sighandler_t handler : {SIG_IGN, sighandler_t{[](int) {}}}) {
        SetAction(SIGIO, handler);
        const fake::Journal journal({&fake::sigaction}, fake::kThisThread);
        ASSERT_LE(0, Install((handler == SIG_IGN ? first : second).Path()));
        EXPECT_THAT(journal.Texts(),
                    ElementsAre("sigaction SIGRTMIN handler SA_SIGINFO|SA_RESTART", "sigaction SIGIO null"));
        EXPECT_EQ(handler, ActionOf(SIGIO).sa_handler);
    }
}

TEST_F(FileNotify, DirectoryThatIsWatchedIsNotInstalledAgain) {
    const Directory directory;
    ASSERT_LE(0, Install(directory.Path()));
    const TraceRecorder recorder;
    const fake::Journal journal(fake::kThisThread);
    EXPECT_EQ(-1, Install(directory.Path()));
    EXPECT_EQ(-1, Install(directory.Path(), nullptr));
    EXPECT_THAT(journal.Texts(), IsEmpty());
    EXPECT_EQ(0u, recorder.All().size());
    EXPECT_TRUE(IsTold(directory));
}

TEST_F(FileNotify, PathsAreComparedExpanded) {
    const Directory directory;
    const Variable variable("QW", directory.Path());
    const Variable tail("QT", directory.Path().substr(5));
    ASSERT_LE(0, Install(directory.Path()));
    EXPECT_EQ(-1, Install("$QW"));
    EXPECT_EQ(-1, Install("/tmp/$QT"));
    EXPECT_EQ(0, Uninstall(directory.Path()));
    ASSERT_LE(0, Install("/tmp/$QT"));
    EXPECT_EQ(-1, Install(directory.Path()));
    EXPECT_EQ(-1, Install("$QW"));
    EXPECT_EQ(0, Uninstall("$QW"));
    EXPECT_EQ(-1, Uninstall(directory.Path()));
    EXPECT_EQ(-1, Uninstall("/tmp/$QT"));
}

TEST_F(FileNotify, CallerKeepsItsText) {
    const Directory directory;
    const Variable variable("QW", directory.Path());
    char path[] = "$QW\0behind";
    ASSERT_LE(0, Install(path));
    EXPECT_EQ(0, std::memcmp("$QW\0behind", path, sizeof path));
    EXPECT_EQ(0, Uninstall(path));
    EXPECT_EQ(0, std::memcmp("$QW\0behind", path, sizeof path));
}

TEST_F(FileNotify, OneDirectoryByTwoTextsIsWatchedTwice) {
    KOVA_SKIP_UNDER_TSAN("it keeps only one of two signals of a number");
    const Directory directory;
    const std::string slash = directory.Path() + "/";
    const int first = Install(directory.Path());
    const int second = Install(slash);
    ASSERT_LE(0, first);
    ASSERT_LE(0, second);
    EXPECT_NE(first, second);
    directory.Add("file");
    EXPECT_TRUE(WaitUntil([] { return g_Told >= 2; }));
    EXPECT_THAT(ToldPaths(), ElementsAre(directory.Path(), slash));
    EXPECT_EQ(0, Uninstall(directory.Path()));
    EXPECT_TRUE(IsTold(directory)) << "the other is left";
}

// --- Refusals ---

/// The one record that was written, with its number at the end.
testing::AssertionResult IsOnlyRecord(const TraceRecorder& recorder, const char* text, int error) {
    if (recorder.All().size() != 1)
        return testing::AssertionFailure() << testing::PrintToString(recorder.All());
    const std::vector<TraceRecord> records = recorder.Find(text);
    if (records.size() == 1 && records[0].values.back() == static_cast<uint32_t>(error)) {
        return testing::AssertionSuccess();
    }
    return testing::AssertionFailure() << testing::PrintToString(recorder.All());
}

TEST_F(FileNotify, PathThatDoesNotExistIsNotReadable) {
    const TraceRecorder recorder;
    const fake::Journal journal(fake::kThisThread);
    EXPECT_EQ(-2, Install("/tmp/no such directory"));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_THAT(journal.Texts(), ElementsAre("access /tmp/no such directory R_OK"));
    EXPECT_TRUE(IsOnlyRecord(recorder, kNotReadable, ENOENT));
}

TEST_F(FileNotify, DirectoryThatMayNotBeReadIsRefused) {
    const Directory directory;
    const TraceRecorder recorder;
    const fake::Script refuses(fake::access, {fake::Fail(EACCES)}, fake::kThisThread);
    const fake::Journal journal(fake::kThisThread);
    EXPECT_EQ(-2, Install(directory.Path()));
    EXPECT_THAT(journal.Texts(), ElementsAre("access " + directory.Path() + " R_OK"));
    EXPECT_TRUE(IsOnlyRecord(recorder, kNotReadable, EACCES));
}

TEST_F(FileNotify, EmptyPathIsNotReadable) {
    const Variable variable("QE", "");
    for (const char* path : {"", "$QE", static_cast<const char*>(nullptr)}) {
        const TraceRecorder recorder;
        EXPECT_EQ(-2, InstallFileNotifyHandler(path, Tell));
        EXPECT_TRUE(IsOnlyRecord(recorder, kNotReadable, ENOENT));
    }
}

TEST_F(FileNotify, PathIsCutTo4095Characters) {
    const std::string name(5000, 'x');
    const fake::Journal journal(fake::kThisThread);
    EXPECT_EQ(-2, Install(name));
    EXPECT_THAT(journal.Texts(), ElementsAre("access " + name.substr(0, 4095) + " R_OK"));
    const std::string root(4095, '/');
    ASSERT_LE(0, Install(root + "no such directory")) << "the rest is cut off";
    EXPECT_EQ(-1, Install(root));
}

TEST_F(FileNotify, DirectoryThatCannotBeOpenedIsRefused) {
    const Directory directory;
    const TraceRecorder recorder;
    const fake::Script refuses(fake::open, {fake::Fail(ENFILE)}, fake::kThisThread);
    const fake::Journal journal(fake::kThisThread);
    EXPECT_EQ(-3, Install(directory.Path()));
    EXPECT_THAT(journal.Texts(), ElementsAre("access " + directory.Path() + " R_OK",
                                             "open " + directory.Path() + " O_RDONLY"));
    EXPECT_TRUE(IsOnlyRecord(recorder, kNotOpened, ENFILE));
}

TEST_F(FileNotify, WithoutADescriptorNothingIsWatched) {
    const Directory directory;
    TraceRecorder recorder;
    const ChildResult child = RunInChild([&] {
        rlimit limit{};
        EXPECT_EQ(0, ::getrlimit(RLIMIT_NOFILE, &limit));
        limit.rlim_cur = 0;
        EXPECT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &limit));
        EXPECT_EQ(-3, InstallFileNotifyHandler(directory.Path().c_str(), Tell));
    });
    EXPECT_EQ(0, child.exit_code) << testing::PrintToString(child);
    EXPECT_TRUE(IsOnlyRecord(recorder, kNotOpened, EMFILE));
}

/// Expects that no refusal is traced before the descriptor is closed, and spoils the errno of the closing.
class ClosesBeforeItTraces {
  public:
    explicit ClosesBeforeItTraces(const TraceRecorder& recorder)
        : m_Close(
              fake::close,
              [&recorder](int fd) {
                  EXPECT_EQ(0u, recorder.All().size());
                  const int result = fake::close.Real(fd);
                  errno = EDOM;
                  return result;
              },
              fake::kThisThread) {}
    ~ClosesBeforeItTraces() { EXPECT_EQ(1u, m_Close.Calls()); }

  private:
    const fake::Replace<int(int)> m_Close;
};

TEST_F(FileNotify, DirectoryWithoutSignalIsClosed) {
    const Directory directory;
    SetAction(SIGIO, SIG_DFL);
    TraceRecorder recorder;
    fake::Script refuses(fake::fcntl, {fake::Fail(EINVAL)}, fake::kThisThread);
    refuses.When([](int, int command, long) { return command == F_SETSIG; });
    const ClosesBeforeItTraces order(recorder);
    const fake::Journal journal(fake::kThisThread);
    EXPECT_EQ(-4, Install(directory.Path()));
    Texts expected = CallsOfAnInstall(directory.Path());
    expected.back() = "close";
    EXPECT_EQ(expected, CallsIn(journal));
    const int fd = journal.Entries(fake::open).at(0).fd;
    EXPECT_EQ(fd, journal.Entries(fake::close).at(0).fd);
    EXPECT_EQ(1u, recorder.All().size());
    EXPECT_TRUE(recorder.Has(kNoSignal, {fd, EINVAL}));
}

TEST_F(FileNotify, WhatIsNoDirectoryIsClosed) {
    const Directory directory;
    directory.Add("file");
    SetAction(SIGIO, SIG_DFL);
    TraceRecorder recorder;
    const ClosesBeforeItTraces order(recorder);
    const fake::Journal journal(fake::kThisThread);
    EXPECT_EQ(-5, Install(directory / "file"));
    Texts expected = CallsOfAnInstall(directory / "file");
    expected.emplace_back("close");
    EXPECT_EQ(expected, CallsIn(journal));
    const int fd = journal.Entries(fake::open).at(0).fd;
    EXPECT_EQ(fd, journal.Entries(fake::close).at(0).fd);
    EXPECT_EQ(1u, recorder.All().size());
    EXPECT_TRUE(recorder.Has(kNoNotification, {fd, ENOTDIR}));
}

TEST_F(FileNotify, NinthDirectoryIsTooMany) {
    const std::array<Directory, kMostWatches + 1> directories;
    for (size_t i = 0; i < kMostWatches; ++i) ASSERT_LE(0, Install(directories[i].Path())) << i;
    SetAction(SIGIO, SIG_DFL);
    const Directory& ninth = directories[kMostWatches];
    {
        TraceRecorder recorder;
        const ClosesBeforeItTraces order(recorder);
        const fake::Journal journal(fake::kThisThread);
        EXPECT_EQ(-6, Install(ninth.Path()));
        Texts expected = CallsOfAnInstall(ninth.Path());
        expected.emplace_back("close");
        EXPECT_EQ(expected, CallsIn(journal)) << "found out at the end only";
        const int fd = journal.Entries(fake::open).at(0).fd;
        EXPECT_EQ(fd, journal.Entries(fake::close).at(0).fd);
        EXPECT_EQ(1u, recorder.All().size());
        EXPECT_TRUE(recorder.Has(kTooMany, {fd}));
    }
    ninth.Add("file");
    for (size_t i = 0; i < kMostWatches; ++i) {
        const size_t before = g_Told;
        EXPECT_TRUE(IsTold(directories[i]));
        EXPECT_EQ(directories[i].Path(), g_Tellings[before].path);
    }
    EXPECT_EQ(-1, Uninstall(ninth.Path()));
}

TEST_F(FileNotify, EveryRowOfTheTableIsUsedAgain) {
    const std::array<Directory, kMostWatches + 1> directories;
    for (size_t i = 0; i < kMostWatches; ++i) ASSERT_LE(0, Install(directories[i].Path())) << i;
    for (size_t i = 0; i < kMostWatches; ++i) {
        const std::string& path = directories[i].Path();
        EXPECT_EQ(-6, Install(directories[kMostWatches].Path()));
        EXPECT_EQ(0, Uninstall(path));
        ASSERT_LE(0, Install(directories[kMostWatches].Path()));
        EXPECT_TRUE(IsTold(directories[kMostWatches]));
        EXPECT_EQ(0, Uninstall(directories[kMostWatches].Path()));
        ASSERT_LE(0, Install(path));
    }
    for (size_t i = 0; i < kMostWatches; ++i) EXPECT_TRUE(IsTold(directories[i]));
}

// --- Changes ---

TEST_F(FileNotify, CallBackGetsTheExpandedPath) {
    const Directory directory;
    const Variable variable("QT", directory.Path().substr(5));
    ASSERT_LE(0, Install("/tmp/$QT"));
    directory.Add("file");
    ASSERT_TRUE(WaitUntil([] { return g_Told > 0; }));
    EXPECT_THAT(ToldPaths(), ElementsAre(directory.Path()));
    EXPECT_EQ(0, Uninstall("/tmp/$QT"));
}

TEST_F(FileNotify, EachKindOfChangeIsTold) {
    const Directory directory, elsewhere;
    directory.Add("old");
    elsewhere.Add("moved");
    ASSERT_LE(0, Install(directory.Path()));
    const std::vector<std::pair<const char*, std::function<void()>>> changes{
        {"create", [&] { directory.Add("file"); }},
        {"modify",
         [&] {
             const Fd file(::open((directory / "old").c_str(), O_WRONLY));
             EXPECT_EQ(1, ::write(file, "x", 1));
         }},
        {"truncate", [&] { EXPECT_EQ(0, ::truncate((directory / "old").c_str(), 0)); }},
        {"rename", [&] { EXPECT_EQ(0, ::rename((directory / "old").c_str(), (directory / "new").c_str())); }},
        {"move away",
         [&] { EXPECT_EQ(0, ::rename((directory / "new").c_str(), (elsewhere / "new").c_str())); }},
        {"move here",
         [&] { EXPECT_EQ(0, ::rename((elsewhere / "moved").c_str(), (directory / "old").c_str())); }},
        {"link", [&] { EXPECT_EQ(0, ::symlink("file", (directory / "link").c_str())); }},
        {"make directory", [&] { EXPECT_EQ(0, ::mkdir((directory / "sub").c_str(), 0777)); }},
        {"delete", [&] { EXPECT_EQ(0, ::unlink((directory / "file").c_str())); }},
        {"remove directory", [&] { EXPECT_EQ(0, ::rmdir((directory / "sub").c_str())); }},
    };
    for (const auto& [name, change] : changes) {
        AwaitEarlierSignals();
        const size_t before = g_Told;
        change();
        EXPECT_TRUE(WaitUntil([&] { return g_Told > before; })) << name;
    }
    EXPECT_THAT(ToldPaths(), ElementsAre(directory.Path()));
}

TEST_F(FileNotify, ReadingAndAttributesAreNotTold) {
    const Directory directory;
    directory.Add("file");
    ASSERT_LE(0, Install(directory.Path()));
    EXPECT_EQ(0, ::chmod((directory / "file").c_str(), 0600));
    {
        const Fd file(::open((directory / "file").c_str(), O_RDONLY));
        char byte;
        EXPECT_EQ(0, ::read(file, &byte, 1));
    }
    EXPECT_EQ(1, std::distance(std::filesystem::directory_iterator(directory.Path()), {}));
    AwaitEarlierSignals();
    EXPECT_EQ(0u, g_Told);
}

TEST_F(FileNotify, WatchGoesOnAfterEachChange) {
    const Directory directory;
    ASSERT_LE(0, Install(directory.Path()));
    for (int i = 0; i < 20; ++i) EXPECT_TRUE(IsTold(directory)) << i;
    EXPECT_EQ(20u, g_Told) << "one call for each file";
}

TEST_F(FileNotify, EachWatchHasItsCallBack) {
    const Directory first, second;
    ASSERT_LE(0, Install(first.Path(), Tell));
    ASSERT_LE(0, Install(second.Path(), TellOther));
    second.Add("file");
    EXPECT_TRUE(WaitUntil([] { return g_ToldOther > 0; }));
    EXPECT_EQ(0u, g_Told);
    EXPECT_TRUE(IsTold(first));
    EXPECT_EQ(1u, g_ToldOther);
}

TEST_F(FileNotify, NotificationIsTraced) {
    const Directory directory;
    const int fd = Install(directory.Path());
    const TraceRecorder recorder;
    EXPECT_TRUE(IsTold(directory));
    EXPECT_TRUE(recorder.Has(kNotification, {SIGRTMIN, fd}));
    EXPECT_EQ(1u, recorder.All().size());
}

TEST_F(FileNotify, WithoutACallBackChangesAreOnlyTraced) {
    const Directory directory;
    const int fd = Install(directory.Path(), nullptr);
    ASSERT_LE(0, fd);
    const TraceRecorder recorder;
    directory.Add("file");
    EXPECT_TRUE(WaitUntil([&] { return recorder.Count(kNotification) > 0; }));
    EXPECT_TRUE(recorder.Has(kNotification, {SIGRTMIN, fd}));
    EXPECT_EQ(0u, g_Told);
}

TEST_F(FileNotify, CallBackRunsOnAThreadThatDoesNotBlockTheSignal) {
    const Directory directory;
    std::atomic<bool> ready{false}, end{false};
    DeadlineThread other([&] {
        ChangeMask(SIG_UNBLOCK, SIGRTMIN);
        ready = true;
        EXPECT_TRUE(WaitUntil([&] { return end.load(); }));
    });
    ASSERT_TRUE(WaitUntil([&] { return ready.load(); }));
    ASSERT_LE(0, Install(directory.Path()));
    ChangeMask(SIG_BLOCK, SIGRTMIN);
    EXPECT_TRUE(IsTold(directory));
    EXPECT_EQ(other.Tid(), g_Tellings[0].tid);
    ChangeMask(SIG_UNBLOCK, SIGRTMIN);
    end = true;
}

// --- The handler ---

/// As the kernel would call it.
void Signal(int fd) {
    siginfo_t info{};
    info.si_signo = SIGRTMIN;
    info.si_fd = fd;
    FileNotifySignalHandler(SIGRTMIN, &info, nullptr);
}

TEST_F(FileNotify, HandlerFindsTheWatchByItsDescriptor) {
    const std::array<Directory, kMostWatches> directories;
    std::array<int, kMostWatches> descriptors{};
    for (size_t i = 0; i < kMostWatches; ++i) descriptors[i] = Install(directories[i].Path());
    for (size_t i = 0; i < kMostWatches; ++i) {
        Signal(descriptors[i]);
        ASSERT_EQ(i + 1, g_Told);
        EXPECT_EQ(directories[i].Path(), g_Tellings[i].path);
    }
}

TEST_F(FileNotify, SignalOfAnUnknownDescriptorIsIgnored) {
    const Directory directory;
    const int fd = Install(directory.Path());
    ASSERT_LE(0, fd);
    TraceRecorder recorder;
    for (const int unknown : {fd + 1, 0, -1, 100000}) {
        Signal(unknown);
        EXPECT_TRUE(recorder.Has(kNotification, {SIGRTMIN, unknown}));
    }
    EXPECT_EQ(4u, recorder.All().size());
    EXPECT_EQ(0u, g_Told);
}

TEST_F(FileNotify, SignalWithoutADescriptorCallsNobodyWhileARowIsEmptied) {
    const Directory directory;
    ASSERT_LE(0, Install(directory.Path()));
    TraceRecorder recorder;
    fake::Replace fcntls(
        fake::fcntl,
        [](int, int, long) {
            for (const int none : {-1, -2}) Signal(none);
            return -1;
        },
        fake::kThisThread);
    fcntls.When([](int, int command, long) { return command == F_DUPFD; });
    EXPECT_EQ(0, UnInstallFileNotifyHandler(directory.Path().c_str()));
    EXPECT_EQ(1u, fcntls.Calls());
    EXPECT_EQ(0u, g_Told);
    EXPECT_TRUE(recorder.Has(kNotification, {SIGRTMIN, -1}));
    EXPECT_TRUE(recorder.Has(kNotification, {SIGRTMIN, -2}));
    EXPECT_EQ(-1, Uninstall(directory.Path()));
}

TEST_F(FileNotify, SignalOfAForeignWatchIsIgnored) {
    const Directory watched, foreign;
    ASSERT_LE(0, Install(watched.Path()));
    const Fd fd(::open(foreign.Path().c_str(), O_RDONLY));
    ASSERT_EQ(0, ::fcntl(fd, F_SETSIG, SIGRTMIN));
    ASSERT_EQ(0, ::fcntl(fd, F_NOTIFY, static_cast<long>(DN_CREATE)));
    const TraceRecorder recorder;
    foreign.Add("file");
    EXPECT_TRUE(WaitUntil([&] { return recorder.Count(kNotification) > 0; }));
    EXPECT_TRUE(recorder.Has(kNotification, {SIGRTMIN, fd.Get()}));
    EXPECT_EQ(0u, g_Told);
}

TEST_F(FileNotify, HandlerKeepsErrno) {
    const Directory known, silent;
    const int fd = Install(known.Path(), [](const char*) { errno = EBUSY; });
    const int silent_fd = Install(silent.Path(), nullptr);
    for (const int each : {fd, silent_fd, silent_fd + 100}) {
        errno = EDOM;
        Signal(each);
        EXPECT_EQ(EDOM, errno);
    }
}

// --- Uninstalling ---

TEST_F(FileNotify, UninstallClosesTheDescriptorAndLeavesADuplicate) {
    const Directory directory;
    const int fd = Install(directory.Path());
    ASSERT_LE(0, fd);
    {
        const TraceRecorder recorder;
        const fake::Journal journal(fake::kThisThread);
        EXPECT_EQ(0, Uninstall(directory.Path()));
        EXPECT_THAT(journal.Texts(), ElementsAre("fcntl F_DUPFD 0", "close"));
        EXPECT_THAT(journal.Texts(fd), ElementsAre("fcntl F_DUPFD 0", "close"));
        EXPECT_EQ(0u, recorder.All().size());
    }
    EXPECT_FALSE(IsOpenFd(fd));
    ASSERT_EQ(1u, m_Duplicates.size());
    EXPECT_EQ(directory.Path(),
              std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(m_Duplicates[0])));
}

TEST_F(FileNotify, UninstallIgnoresAFailingDuplicate) {
    const Directory directory;
    const int fd = Install(directory.Path());
    fake::Script refuses(fake::fcntl, {fake::Fail(EMFILE)}, fake::kThisThread);
    EXPECT_EQ(0, UnInstallFileNotifyHandler(directory.Path().c_str()));
    EXPECT_FALSE(IsOpenFd(fd));
    EXPECT_EQ(-1, Uninstall(directory.Path()));
}

TEST_F(FileNotify, UninstalledDirectoryIsNotToldAnyMore) {
    const Directory directory;
    const int fd = Install(directory.Path());
    EXPECT_TRUE(IsTold(directory));
    EXPECT_EQ(0, Uninstall(directory.Path()));
    directory.Add("late");
    AwaitEarlierSignals();
    Signal(fd);
    EXPECT_EQ(1u, g_Told);
}

TEST_F(FileNotify, ChangeThatIsStillPendingAtTheUninstallCallsNobody) {
    const Directory directory;
    const int fd = Install(directory.Path());
    ChangeMask(SIG_BLOCK, SIGRTMIN);
    directory.Add("file");
    EXPECT_EQ(0, Uninstall(directory.Path()));
    const TraceRecorder recorder;
    ChangeMask(SIG_UNBLOCK, SIGRTMIN);
    EXPECT_TRUE(WaitUntil([&] { return recorder.Count(kNotification) > 0; }));
    EXPECT_TRUE(recorder.Has(kNotification, {SIGRTMIN, fd}));
    EXPECT_EQ(0u, g_Told);
}

TEST_F(FileNotify, UninstallOfWhatIsNotWatchedDoesNothing) {
    const Directory directory, other;
    ASSERT_LE(0, Install(directory.Path()));
    const Variable variable("QE", "");
    const TraceRecorder recorder;
    const fake::Journal journal(fake::kThisThread);
    for (const std::string& path :
         {other.Path(), directory.Path() + "/", std::string(), std::string("$QE")}) {
        EXPECT_EQ(-1, UnInstallFileNotifyHandler(path.c_str())) << path;
    }
    EXPECT_EQ(-1, UnInstallFileNotifyHandler(nullptr));
    EXPECT_THAT(journal.Texts(), IsEmpty());
    EXPECT_EQ(0u, recorder.All().size());
    EXPECT_TRUE(IsTold(directory));
}

TEST_F(FileNotify, UninstallBeforeTheFirstInstallFindsNothing) {
    const fake::Journal journal(fake::kThisThread);
    EXPECT_EQ(-1, UnInstallFileNotifyHandler("/tmp"));
    EXPECT_EQ(-1, UnInstallFileNotifyHandler(""));
    EXPECT_THAT(journal.Texts(), IsEmpty());
    Signal(0);
    EXPECT_EQ(0u, g_Told);
}

TEST_F(FileNotify, DirectoryCanBeInstalledAgain) {
    const Directory directory;
    for (int round = 0; round < 3; ++round) {
        ASSERT_LE(0, Install(directory.Path()));
        EXPECT_TRUE(IsTold(directory));
        EXPECT_EQ(0, Uninstall(directory.Path()));
        EXPECT_EQ(-1, Uninstall(directory.Path()));
    }
    ASSERT_LE(0, Install(directory.Path(), TellOther));
    directory.Add("last");
    EXPECT_TRUE(WaitUntil([] { return g_ToldOther > 0; }));
    EXPECT_EQ(3u, g_Told) << "the new call-back counts";
}

// --- More changes than signals can wait ---

TEST_F(FileNotify, BurstOfChangesIsSurvivedAndLaterChangesAreTold) {
    constexpr int kFiles = 10000;
    constexpr rlim_t kSignals = 32;
    const Directory directory;
    SetAction(SIGIO, SIG_DFL);
    const ChildResult child = RunInChild([&] {
        const rlimit limit{kSignals, kSignals};
        ASSERT_EQ(0, ::setrlimit(RLIMIT_SIGPENDING, &limit));
        ASSERT_LE(0, InstallFileNotifyHandler(directory.Path().c_str(), Tell));
        ChangeMask(SIG_BLOCK, SIGRTMIN);
        const std::string path = directory / "file";
        for (int i = 0; i < kFiles; ++i) {
            directory.Add("file");
            ::unlink(path.c_str());
        }
        EXPECT_EQ(0u, g_Told);
        ChangeMask(SIG_UNBLOCK, SIGRTMIN);
        // Other processes of the user may leave less than the limit.
        EXPECT_TRUE(WaitUntil([&] {
            ::unlink(path.c_str());
            directory.Add("file");
            return g_Told > 0;
        }));
        EXPECT_LE(g_Told, 2 * kSignals) << "the rest is lost";
        EXPECT_THAT(ToldPaths(), ElementsAre(directory.Path()));
        const size_t before = g_Told;
        EXPECT_TRUE(WaitUntil([&] {
            ::unlink(path.c_str());
            directory.Add("file");
            return g_Told > before;
        }));
    });
    EXPECT_EQ(0, child.exit_code) << testing::PrintToString(child);
    EXPECT_EQ(0, child.signal);
}

}  // namespace
