#include "ipc/ipc_sets.h"
#include "support/fake_libc.h"
#include "support/leak_check.h"
#include "support/signal_storm.h"
#include "support/trace_recorder.h"
#include "sync/locks.h"

#include <kova/shared_mutex.h>

#include <dlfcn.h>
#include <fcntl.h>
#include <linux/capability.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

using Texts = std::vector<std::string>;
using Values = std::vector<int>;

constexpr const char* kInterrupted = "semop set=%d interrupted";
constexpr const char* kNoKeyFile = "key file=%s cannot be made, errno=%d";
constexpr const char* kNoDirectory = "mkdir directory=%s errno=%d";
constexpr const char* kNoFile = "fopen path=%s errno=%d";
constexpr const char* kFileNotClosed = "fclose path=%s errno=%d";
constexpr const char* kNoKey = "key file=%s has no key, errno=%d";
constexpr const char* kNotOpened = "lock of key file=%s fd=%d errno=%d";
constexpr const char* kNotTaken = "lock of key file fd=%d errno=%d";
constexpr const char* kNotReleased = "unlock of key file fd=%d errno=%d";
constexpr const char* kReleased = "unlocked key file fd=%d";
constexpr const char* kNoNewSet = "no new set key=%x size=%d flags=%x errno=%d";
constexpr const char* kNoSet = "no set key=%x size=%d flags=%x errno=%d";
constexpr const char* kHalfMade = "set=%d was left half made";
constexpr const char* kNoInitialValues = "initial values of set=%d errno=%d";
constexpr const char* kNotCounted = "set=%d not counted, errno=%d";
constexpr const char* kNotClosed = "set=%d not closed, errno=%d";
constexpr const char* kStaysOpen = "set=%d stays open, references=%d";
constexpr const char* kIsPersistent = "set=%d is persistent, references=%d";
constexpr const char* kRemoved = "removed set=%d result=%d";
constexpr const char* kLock = "lock set=%d";
constexpr const char* kLockFailed = "lock set=%d errno=%d";
constexpr const char* kLockedByHolder = "mutex set=%d is locked by its holder";
constexpr const char* kTriedByHolder = "mutex set=%d is tried by its holder";
constexpr const char* kTrylockFailed = "trylock set=%d errno=%d owner=%d/%d";
constexpr const char* kUnlock = "unlock set=%d";
constexpr const char* kUnlockFailed = "unlock set=%d errno=%d";
constexpr const char* kUnlockByStranger = "unlock set=%d by=%d/%d owner=%d/%d";
constexpr const char* kOwnerNotSet = "owner set=%d errno=%d";
constexpr const char* kOwnerNotRead = "owner of set=%d errno=%d";
constexpr const char* kNotPersistent = "persistent set=%d errno=%d";

constexpr int kNewFlags = IPC_CREAT | IPC_EXCL | 0666;
constexpr int kExistingFlags = IPC_EXCL | 0666;

constexpr const char* kName = "m";
constexpr const char* kDirectory = "/tmp/kova";
constexpr const char* kPath = "/tmp/kova/m.kovamtx";

/// An errno that none of the calls gives.
constexpr int kStale = ENOTTY;

/// What the library's calls of pabend passed.
std::vector<std::array<uint32_t, 3>> g_AbendWords;

}  // namespace

void pabend(uint32_t a, uint32_t b, uint32_t c) {
    g_AbendWords.push_back({a, b, c});
    reinterpret_cast<void (*)(uint32_t, uint32_t, uint32_t)>(::dlsym(RTLD_NEXT, "pabend"))(a, b, c);
}

namespace {

static_assert(std::is_same_v<int (*)(int*, const char*), decltype(&KovaSharedMutexCreate)>);
static_assert(std::is_same_v<int (*)(int*, const char*), decltype(&KovaSharedMutexDestroy)>);
static_assert(std::is_same_v<int (*)(int*), decltype(&KovaSharedMutexLock)>);
static_assert(std::is_same_v<int (*)(int*), decltype(&KovaSharedMutexTrylock)>);
static_assert(std::is_same_v<int (*)(int*), decltype(&KovaSharedMutexUnlock)>);
static_assert(std::is_same_v<int (*)(int*), decltype(&KovaSharedMutexSetPersistent)>);
static_assert(std::is_same_v<int (*)(int*), decltype(&KovaSharedMutexGetRefCounter)>);
static_assert(std::is_same_v<int (*)(int*), decltype(&KovaSharedMutexSetOwner)>);
static_assert(std::is_same_v<KovaPTid& (*)(int*, KovaPTid&), decltype(&KovaSharedMutexGetOwner)>);
static_assert(std::is_same_v<int (*)(int*), decltype(&KovaSharedMutexClearOwner)>);
static_assert(std::is_same_v<int (*)(const char*), decltype(&KovaSharedMutexCDLock)>);
static_assert(std::is_same_v<int (*)(int), decltype(&KovaSharedMutexCDUnlock)>);

static_assert(std::is_base_of_v<KovaBaseObject, KovaSharedMutex>);
static_assert(std::has_virtual_destructor_v<KovaSharedMutex>);
static_assert(!std::is_copy_constructible_v<KovaSharedMutex> && !std::is_copy_assignable_v<KovaSharedMutex>);
static_assert(std::is_same_v<bool, decltype(std::declval<KovaSharedMutex&>().Lock())>);
static_assert(std::is_same_v<bool, decltype(std::declval<KovaSharedMutex&>().Trylock())>);
static_assert(std::is_same_v<bool, decltype(std::declval<KovaSharedMutex&>().Unlock())>);
static_assert(std::is_same_v<bool, decltype(std::declval<KovaSharedMutex&>().SetPersistent())>);
static_assert(std::is_same_v<int, decltype(std::declval<KovaSharedMutex&>().GetRefCounter())>);

/// The calls of this thread that make, find, change and remove sets.
fake::Journal SetCalls() {
    return fake::Journal({&fake::fopen, &fake::ftok, &fake::open, &fake::fcntl, &fake::close, &fake::semget,
                          &fake::semctl, &fake::semop},
                         fake::kThisThread);
}

std::string Hex(int number) {
    std::ostringstream text;
    text << "0x" << std::hex << static_cast<unsigned>(number);
    return text.str();
}

/// "semop SET ...", "semctl SET ...".
std::string Semop(int set, const std::string& operation) {
    return "semop " + std::to_string(set) + " [" + operation + "]";
}
std::string Semctl(int set, const std::string& command) {
    return "semctl " + std::to_string(set) + " " + command;
}
std::string Semctl(int set, const std::string& command, int value) {
    return Semctl(set, command + " " + std::to_string(value));
}

Texts operator+(Texts texts, const Texts& more) {
    texts.insert(texts.end(), more.begin(), more.end());
    return texts;
}

/// Taking and releasing the lock of a key file.
Texts LockCalls(const std::string& path = kPath) {
    return {"open " + path + " O_RDWR", "fcntl F_SETLKW F_WRLCK SEEK_SET {0, 0}"};
}
Texts UnlockCalls() { return {"fcntl F_SETLK F_UNLCK SEEK_SET {0, 0}", "close"}; }

/// The descriptor that the next open gives.
int NextFd() {
    const int fd = ::dup(STDERR_FILENO);
    fake::close.Real(fd);
    return fd;
}

/// These records were written, in this order, and no others. Where a text is traced, which is the address of
/// one, the values leave it out.
void ExpectAll(const TraceRecorder& recorder, Records wanted) {
    const std::vector<TraceRecord> written = recorder.All();
    for (size_t i = 0; i < wanted.size() && i < written.size(); ++i) {
        if (wanted[i].text.find("=%s") == std::string_view::npos || written[i].values.empty()) continue;
        EXPECT_NE(0u, written[i].values[0]) << wanted[i].text;
        Word address(0);
        address.value = written[i].values[0];
        wanted[i].values.insert(wanted[i].values.begin(), address);
    }
    ExpectRecords(recorder, wanted);
}

/// Restricts a scope of a faked semctl to a command for a position.
template <typename Scope>
void Only(Scope& scope, int command, int position) {
    scope.When([=](int, int of, int wanted, long) { return wanted == command && of == position; });
}
/// One of a faked semop to a position.
template <typename Scope>
void OnlyPosition(Scope& scope, unsigned short position) {
    scope.When([=](int, sembuf* operations, size_t) { return operations[0].sem_num == position; });
}
/// One of a faked fcntl to a command.
template <typename Scope>
void OnlyCommand(Scope& scope, int command) {
    scope.When([=](int, int wanted, long) { return wanted == command; });
}

class SharedMutexFunctions : public ipc::Test {
  protected:
    /// A mutex that is open once. The records of opening it are forgotten.
    int Open(const char* name = kName) {
        EXPECT_GE(KovaSharedMutexCreate(&m_Set, name), 0);
        m_Recorder.Clear();
        return m_Set;
    }
    void Close(const char* name = kName) { EXPECT_EQ(0, KovaSharedMutexDestroy(&m_Set, name)); }
    /// Removes the set, as somebody else might.
    void RemoveSet() const { ipc::Remove(m_Set); }

    /// `body` ends its process. Where the abnormal end returns, it goes on to its end, leaves no descriptor
    /// and no umask behind, and finds its records in what it is given.
    static void ExpectFatal(const std::function<void(TraceRecorder&)>& body) {
        const auto run = [&] {
            TraceRecorder recorder;
            const int fd = NextFd();
            const mode_t mask = Umask();
            body(recorder);
            EXPECT_EQ(fd, NextFd()) << "a descriptor was left open";
            EXPECT_EQ(mask, Umask());
        };
        EXPECT_EQ(SIGABRT, RunInChild(run).signal);
        WhileAborting([&] {
            g_AbendWords.clear();
            run();
            EXPECT_FALSE(g_AbendWords.empty());
            for (const auto& words : g_AbendWords) {
                EXPECT_EQ((std::array<uint32_t, 3>{0x26C24100, 0x71000000, 0}), words);
            }
        });
    }

    /// Creating fails with this errno, after these records and one abnormal end.
    static void ExpectNotCreated(int error, const TraceRecorder& recorder, Records records) {
        int set = 4711;
        errno = kStale;
        EXPECT_EQ(-1, KovaSharedMutexCreate(&set, kName));
        EXPECT_EQ(error, errno);
        EXPECT_EQ(-1, set);
        records.push_back(AbendAgain());
        ExpectAll(recorder, records);
    }

    int m_Set = -1;
    TraceRecorder m_Recorder;
};

TEST_F(SharedMutexFunctions, AreExportedUnderPlainNames) {
    for (const char* name :
         {"KovaSharedMutexCreate", "KovaSharedMutexDestroy", "KovaSharedMutexLock", "KovaSharedMutexTrylock",
          "KovaSharedMutexUnlock", "KovaSharedMutexSetPersistent", "KovaSharedMutexGetRefCounter",
          "KovaSharedMutexSetOwner", "KovaSharedMutexClearOwner", "KovaSharedMutexCDLock",
          "KovaSharedMutexCDUnlock"}) {
        EXPECT_NE(nullptr, ::dlsym(RTLD_DEFAULT, name)) << name;
    }
}

// --- Create ---

TEST_F(SharedMutexFunctions, CreateMakesAFreeMutexThatIsOpenOnce) {
    const int fd = NextFd();
    Texts calls;
    int set = -1;
    {
        const fake::Journal journal = SetCalls();
        set = KovaSharedMutexCreate(&m_Set, kName);
        calls = journal.Texts();
    }
    EXPECT_GE(set, 0);
    EXPECT_EQ(set, m_Set);
    EXPECT_EQ(Texts({"fopen " + std::string(kPath) + " w", "ftok " + std::string(kPath) + " 80"}) +
                  LockCalls() +
                  Texts({"semget " + Hex(ipc::KeyOf(kPath)) + " 5 IPC_CREAT|IPC_EXCL|0666",
                         Semctl(set, "0 SETVAL 1"), Semctl(set, "1 SETVAL 0"), Semctl(set, "2 SETVAL 0"),
                         Semctl(set, "3 SETVAL 0"), Semctl(set, "4 SETVAL 0"), Semop(set, "1 +1 SEM_UNDO")}) +
                  UnlockCalls(),
              calls);
    ExpectRecords(m_Recorder, {{kReleased, {fd}}});

    EXPECT_EQ((Values{1, 1, 0, 0, 0}), ipc::Values(set));
    const std::vector<ipc::Set> sets = ipc::Sets();
    ASSERT_EQ(1u, sets.size());
    EXPECT_EQ(set, sets[0].id);
    EXPECT_EQ(ipc::KeyOf(kPath), sets[0].key);
    EXPECT_EQ(80u, static_cast<unsigned>(sets[0].key) >> 24);
    EXPECT_EQ(0666u, sets[0].mode);
    EXPECT_EQ(5, sets[0].size);
    Close();
}

TEST_F(SharedMutexFunctions, CreateOpensTheMutexThatExists) {
    const int set = Open();
    EXPECT_EQ(0, KovaSharedMutexLock(&m_Set));
    m_Recorder.Clear();
    const int fd = NextFd();
    const key_t key = ipc::KeyOf(kPath);
    int other = 4711;
    Texts calls;
    {
        const fake::Journal journal = SetCalls();
        EXPECT_EQ(set, KovaSharedMutexCreate(&other, kName));
        calls = journal.Texts();
    }
    EXPECT_EQ(set, other);
    EXPECT_EQ(Texts({"ftok " + std::string(kPath) + " 80"}) + LockCalls() +
                  Texts({"semget " + Hex(key) + " 5 IPC_CREAT|IPC_EXCL|0666",
                         "semget " + Hex(key) + " 5 IPC_EXCL|0666", Semctl(set, "0 IPC_STAT"),
                         Semop(set, "1 +1 SEM_UNDO")}) +
                  UnlockCalls(),
              calls);
    ExpectRecords(m_Recorder, {{kNoNewSet, {key, 5, kNewFlags, EEXIST}}, {kReleased, {fd}}});
    EXPECT_EQ((Values{0, 2, KovaGetPid(), KovaGetTid(), 0}), ipc::Values(set)) << "nothing is made anew";
    EXPECT_EQ(0, KovaSharedMutexUnlock(&m_Set));
    Close();
    Close();
}

/// A set as it is left by a process that is killed while it makes one.
int LeaveHalfMadeSet() {
    std::filesystem::create_directory(kDirectory);
    std::ofstream{kPath};
    return fake::semget.Real(ipc::KeyOf(kPath), 5, IPC_CREAT | 0666);
}

TEST_F(SharedMutexFunctions, CreateCompletesASetWhoseMakerWasKilled) {
    const int set = LeaveHalfMadeSet();
    EXPECT_EQ((Values{0, 0, 0, 0, 0}), ipc::Values(set));
    const int fd = NextFd();
    const key_t key = ipc::KeyOf(kPath);
    Texts calls;
    {
        const fake::Journal journal = SetCalls();
        EXPECT_EQ(set, KovaSharedMutexCreate(&m_Set, kName));
        calls = journal.Texts();
    }
    EXPECT_EQ(Texts({"ftok " + std::string(kPath) + " 80"}) + LockCalls() +
                  Texts({"semget " + Hex(key) + " 5 IPC_CREAT|IPC_EXCL|0666",
                         "semget " + Hex(key) + " 5 IPC_EXCL|0666", Semctl(set, "0 IPC_STAT"),
                         Semctl(set, "0 SETVAL 1"), Semctl(set, "1 SETVAL 0"), Semctl(set, "2 SETVAL 0"),
                         Semctl(set, "3 SETVAL 0"), Semctl(set, "4 SETVAL 0"), Semop(set, "1 +1 SEM_UNDO")}) +
                  UnlockCalls(),
              calls);
    ExpectRecords(m_Recorder,
                  {{kNoNewSet, {key, 5, kNewFlags, EEXIST}}, {kHalfMade, {set}}, {kReleased, {fd}}});
    EXPECT_EQ((Values{1, 1, 0, 0, 0}), ipc::Values(set));
    Close();
}

TEST_F(SharedMutexFunctions, CreateTakesASetForCompleteThatItCannotLookAt) {
    const int set = Open();
    EXPECT_EQ(0, KovaSharedMutexLock(&m_Set));
    const key_t key = ipc::KeyOf(kPath);
    const int fd = NextFd();
    m_Recorder.Clear();
    {
        fake::Script looks(fake::semctl, {fake::Fail(EACCES)});
        Only(looks, IPC_STAT, 0);
        EXPECT_EQ(set, KovaSharedMutexCreate(&m_Set, kName));
    }
    ExpectRecords(m_Recorder, {{kNoNewSet, {key, 5, kNewFlags, EEXIST}}, {kReleased, {fd}}});
    EXPECT_EQ((Values{0, 2, KovaGetPid(), KovaGetTid(), 0}), ipc::Values(set));
    EXPECT_EQ(0, KovaSharedMutexUnlock(&m_Set));
    Close();
    Close();
}

TEST_F(SharedMutexFunctions, KeyFileIsMadeForEverybodyAndStaysEmpty) {
    const mode_t mask = fake::umask.Real(077);
    Open();
    Close();
    EXPECT_EQ(077u, fake::umask.Real(mask));
    struct stat file {};
    ASSERT_EQ(0, ::stat(kPath, &file));
    EXPECT_EQ(0666u, file.st_mode & 07777);
    EXPECT_EQ(0, file.st_size);
    struct stat directory {};
    ASSERT_EQ(0, ::stat(kDirectory, &directory));
    EXPECT_EQ(0777u, directory.st_mode & 07777);
}

TEST_F(SharedMutexFunctions, ContentsOfTheKeyFileAreLeftAlone) {
    std::filesystem::create_directory(kDirectory);
    std::ofstream(kPath) << "contents";
    Open();
    EXPECT_EQ(0, KovaSharedMutexLock(&m_Set));
    EXPECT_EQ(0, KovaSharedMutexUnlock(&m_Set));
    Close();
    std::string contents;
    std::ifstream(kPath) >> contents;
    EXPECT_EQ("contents", contents);
}

TEST_F(SharedMutexFunctions, EachNameIsAMutexOfItsOwn) {
    const int set = Open("a");
    int other = -1;
    EXPECT_GE(KovaSharedMutexCreate(&other, "b"), 0);
    EXPECT_NE(set, other);
    EXPECT_EQ(0, KovaSharedMutexLock(&m_Set));
    EXPECT_EQ(0, KovaSharedMutexTrylock(&other));
    EXPECT_EQ(0, KovaSharedMutexUnlock(&other));
    EXPECT_EQ(0, KovaSharedMutexUnlock(&m_Set));
    EXPECT_EQ(0, KovaSharedMutexDestroy(&other, "b"));
    Close("a");
}

/// Another working directory while it lives.
class WorkingDirectory {
  public:
    explicit WorkingDirectory(const std::string& path) : m_Before(std::filesystem::current_path()) {
        std::filesystem::create_directory(path);
        std::filesystem::current_path(path);
    }
    WorkingDirectory(const WorkingDirectory&) = delete;
    WorkingDirectory& operator=(const WorkingDirectory&) = delete;
    ~WorkingDirectory() {
        std::filesystem::remove_all(std::filesystem::current_path());
        std::filesystem::current_path(m_Before);
    }

  private:
    const std::filesystem::path m_Before;
};

TEST_F(SharedMutexFunctions, NameAndExtensionMakeTheKeyFile) {
    const WorkingDirectory here("/tmp/here");
    ::setenv("VARIABLE", "value", 1);
    ::setenv("DIRECTORY", "/tmp/here", 1);
    const auto as = [](size_t length) { return std::string(length, 'a'); };
    struct Row {
        std::string name;
        std::string path;
    };
    for (const Row& row : {
             Row{"a", "/tmp/kova/a.kovamtx"},
             Row{"a.b", "/tmp/kova/a.b.kovamtx"},
             Row{"a b", "/tmp/kova/a b.kovamtx"},
             Row{"\xC3\xA4*?", "/tmp/kova/\xC3\xA4*?.kovamtx"},
             Row{as(63), "/tmp/kova/" + as(63) + ".kovamtx"},
             Row{as(64), "/tmp/kova/" + as(64) + ".kovamtx"},
             Row{as(65), "/tmp/kova/" + as(64) + ".kovamtx"},
             Row{as(300), "/tmp/kova/" + as(64) + ".kovamtx"},
             Row{"sub/directory/a", "/tmp/kova/sub/directory/a.kovamtx"},
             Row{"/tmp/here/absolute", "/tmp/here/absolute.kovamtx"},
             Row{"/tmp/here/new/a", "/tmp/here/new/a.kovamtx"},
             // What begins with "." is not placed anywhere, and so is the empty name.
             Row{".hidden", "/tmp/here/.hidden.kovamtx"},
             Row{"./a", "/tmp/here/a.kovamtx"},
             Row{"", "/tmp/here/.kovamtx"},
             Row{"$VARIABLE", "/tmp/kova/value.kovamtx"},
             Row{"$DIRECTORY/b", "/tmp/here/b.kovamtx"},
             Row{"$UNSET", "/tmp/kova/$UNSET.kovamtx"},
             Row{as(60) + "$VARIABLE", "/tmp/kova/" + as(60) + "$VAR.kovamtx"},
         }) {
        SCOPED_TRACE(row.name);
        const int set = Open(row.name.c_str());
        EXPECT_TRUE(std::filesystem::is_regular_file(row.path));
        EXPECT_EQ(set, ipc::FindSet(row.path));
        Close(row.name.c_str());
        EXPECT_TRUE(std::filesystem::remove(row.path));
    }
    ::unsetenv("VARIABLE");
    ::unsetenv("DIRECTORY");
}

TEST_F(SharedMutexFunctions, NullNameIsTheEmptyName) {
    const WorkingDirectory here("/tmp/here");
    const int set = Open(nullptr);
    EXPECT_EQ(set, ipc::FindSet("/tmp/here/.kovamtx"));
    Close(nullptr);
}

TEST_F(SharedMutexFunctions, NameNeedsNoEndAfter64Characters) {
    const std::unique_ptr<char[]> name(new char[64]);
    std::memset(name.get(), 'x', 64);
    Open(name.get());
    EXPECT_EQ(m_Set, ipc::FindSet("/tmp/kova/" + std::string(64, 'x') + ".kovamtx"));
    Close(name.get());
}

TEST_F(SharedMutexFunctions, InterruptedCreateGoesOn) {
    fake::Script waits(fake::fcntl, {fake::Fail(EINTR), fake::Fail(EINTR), fake::Real()});
    OnlyCommand(waits, F_SETLKW);
    fake::Script releases(fake::fcntl, {fake::Fail(EINTR), fake::Fail(EINTR), fake::Real()});
    OnlyCommand(releases, F_SETLK);
    fake::Script counts(fake::semop, {fake::Fail(EINTR), fake::Fail(EINTR), fake::Real()});
    const int fd = NextFd();
    EXPECT_GE(KovaSharedMutexCreate(&m_Set, kName), 0);
    EXPECT_EQ((Values{1, 1, 0, 0, 0}), ipc::Values(m_Set));
    ExpectRecords(m_Recorder, {{kInterrupted, {m_Set}}, {kInterrupted, {m_Set}}, {kReleased, {fd}}});
    Close();
}

// --- Create that fails ---

using SharedMutexCreation = SharedMutexFunctions;

/// Leaves the process without the rights of root, in a child.
void BecomeOrdinary() {
    constexpr uid_t kNobody = 65534;
    // Refused in a user namespace that has one user only.
    static_cast<void>(::setresuid(kNobody, kNobody, kNobody));
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct none[2]{};
    EXPECT_EQ(0, ::syscall(SYS_capset, &header, none));
}

TEST_F(SharedMutexCreation, EndsTheProcessWhenTheDirectoryCannotBeMade) {
    ExpectFatal([](TraceRecorder& recorder) {
        const fake::Script fails(fake::mkdir, {fake::Fail(EROFS)});
        const fake::Journal calls = SetCalls();
        ExpectNotCreated(EROFS, recorder, {{kNoDirectory, {EROFS}}, {kNoKeyFile, {EROFS}}});
        EXPECT_EQ(Texts{}, calls.Texts());
    });
}

TEST_F(SharedMutexCreation, EndsTheProcessWhenTheDirectoryIsAFile) {
    std::ofstream(kDirectory) << "a file";
    ExpectFatal([](TraceRecorder& recorder) {
        ExpectNotCreated(ENOTDIR, recorder, {{kNoFile, {ENOTDIR}}, {kNoKeyFile, {ENOTDIR}}});
    });
}

TEST_F(SharedMutexCreation, EndsTheProcessInTheDirectoryOfSomebodyElse) {
    std::filesystem::create_directory(kDirectory);
    ASSERT_EQ(0, ::chmod(kDirectory, 0555));
    ExpectFatal([](TraceRecorder& recorder) {
        BecomeOrdinary();
        ExpectNotCreated(EACCES, recorder, {{kNoFile, {EACCES}}, {kNoKeyFile, {EACCES}}});
    });
    EXPECT_TRUE(std::filesystem::is_empty(kDirectory));
}

TEST_F(SharedMutexCreation, EndsTheProcessWhenTheKeyFileIsADirectory) {
    std::filesystem::create_directories(kPath);
    ExpectFatal([](TraceRecorder& recorder) {
        ExpectNotCreated(EISDIR, recorder, {{kNotOpened, {-1, EISDIR}}});
    });
}

TEST_F(SharedMutexCreation, EndsTheProcessWhenTheKeyFileIsNotForEverybody) {
    const int set = Open();
    ASSERT_EQ(0, ::chmod(kPath, 0444));
    ExpectFatal([](TraceRecorder& recorder) {
        BecomeOrdinary();
        ExpectNotCreated(EACCES, recorder, {{kNotOpened, {-1, EACCES}}});
    });
    EXPECT_EQ(1, ipc::Value(set, 1));
    Close();
}

TEST_F(SharedMutexCreation, OpensTheMutexOfAnotherUserWhoseDirectoryIsClosed) {
    const int set = Open();
    ASSERT_EQ(0, ::chmod(kDirectory, 0755));
    const ChildResult child = RunInChild([=] {
        BecomeOrdinary();
        int other = -1;
        EXPECT_EQ(set, KovaSharedMutexCreate(&other, kName));
        EXPECT_EQ(0, KovaSharedMutexLock(&other));
        EXPECT_EQ(0, KovaSharedMutexUnlock(&other));
        EXPECT_EQ(0, KovaSharedMutexDestroy(&other, kName));
    });
    EXPECT_EQ(0, child.exit_code) << testing::PrintToString(child);
    EXPECT_EQ(0, ipc::Value(set, 1)) << "taken off twice, by the destroy and by the end";
    ipc::SetValue(set, 1, 1);
    Close();
}

TEST_F(SharedMutexCreation, EndsTheProcessWhenTheKeyFileCannotBeClosed) {
    ExpectFatal([](TraceRecorder& recorder) {
        std::filesystem::remove(kPath);
        const fake::Script fails(fake::fclose, {[](FILE* file) {
                                     fake::fclose.Real(file);
                                     errno = ENOSPC;
                                     return EOF;
                                 }});
        ExpectNotCreated(ENOSPC, recorder, {{kFileNotClosed, {ENOSPC}}, {kNoKeyFile, {ENOSPC}}});
    });
}

TEST_F(SharedMutexCreation, EndsTheProcessWhenTheKeyFileVanishes) {
    ExpectFatal([](TraceRecorder& recorder) {
        const fake::Script vanishes(fake::ftok, {[](const char* path, int project) {
                                        EXPECT_EQ(0, ::unlink(path));
                                        return fake::ftok.Real(path, project);
                                    }});
        const fake::Journal calls = SetCalls();
        ExpectNotCreated(ENOENT, recorder, {{kNoKey, {ENOENT}}});
        EXPECT_EQ((Texts{"fopen " + std::string(kPath) + " w", "ftok " + std::string(kPath) + " 80"}),
                  calls.Texts())
            << "before the key file is locked";
    });
}

TEST_F(SharedMutexCreation, EndsTheProcessWhenTheKeyFileVanishesAfterTheKeyIsKnown) {
    ExpectFatal([](TraceRecorder& recorder) {
        const fake::Script vanishes(fake::ftok, {[](const char* path, int project) {
                                        const key_t key = fake::ftok.Real(path, project);
                                        EXPECT_EQ(0, ::unlink(path));
                                        return key;
                                    }});
        ExpectNotCreated(ENOENT, recorder, {{kNotOpened, {-1, ENOENT}}});
    });
}

TEST_F(SharedMutexCreation, EndsTheProcessWhenTheKeyFileCannotBeLocked) {
    ExpectFatal([](TraceRecorder& recorder) {
        fake::Script fails(fake::fcntl, {fake::Fail(ENOLCK)});
        OnlyCommand(fails, F_SETLKW);
        const fake::Journal calls = SetCalls();
        ExpectNotCreated(ENOLCK, recorder, {{kNotTaken, {NextFd(), ENOLCK}}});
        const Texts all = calls.Texts();
        EXPECT_EQ(LockCalls() + Texts{"close"}, Texts(all.end() - 3, all.end()));
    });
}

/// The records of a set that can neither be made nor opened.
Records NoSet(int why_not_new, int why_not_existing) {
    const key_t key = ipc::KeyOf(kPath);
    return {{kNoNewSet, {key, 5, kNewFlags, why_not_new}},
            {kNoSet, {key, 5, kExistingFlags, why_not_existing}},
            {kReleased, {NextFd()}}};
}

TEST_F(SharedMutexCreation, EndsTheProcessWhenThereIsNoRoomForASet) {
    ExpectFatal([](TraceRecorder& recorder) {
        int set = 4711;
        const fake::Script fails(fake::semget, {fake::Fail(ENOSPC), fake::Fail(ENOENT)});
        // Whatever comes after the failure does not change its errno.
        fake::Always spoils(fake::fcntl, [](int fd, int command, long argument) {
            const int result = fake::fcntl.Real(fd, command, argument);
            errno = kStale;
            return result;
        });
        const fake::Journal calls = SetCalls();
        EXPECT_EQ(-1, KovaSharedMutexCreate(&set, kName));
        EXPECT_EQ(ENOENT, errno);
        EXPECT_EQ(-1, set);
        Records wanted = NoSet(ENOSPC, ENOENT);
        wanted.push_back(AbendAgain());
        ExpectRecords(recorder, wanted);
        const Texts all = calls.Texts();
        EXPECT_EQ(UnlockCalls(), Texts(all.end() - 2, all.end()));
    });
    EXPECT_TRUE(ipc::Sets().empty());
}

TEST_F(SharedMutexCreation, EndsTheProcessWhenTheKernelHasNoSetLeft) {
    std::vector<int> sets;
    for (;;) {
        const int set = fake::semget.Real(IPC_PRIVATE, 1, 0600);
        if (set == -1) break;
        sets.push_back(set);
        if (sets.size() > 40000) break;
    }
    ExpectFatal([](TraceRecorder& recorder) {
        int set = -1;
        EXPECT_EQ(-1, KovaSharedMutexCreate(&set, kName));
        EXPECT_EQ(ENOENT, errno);
        Records wanted = NoSet(ENOSPC, ENOENT);
        wanted.push_back(AbendAgain());
        ExpectRecords(recorder, wanted);
    });
    for (const int set : sets) ipc::Remove(set);
    EXPECT_GT(sets.size(), 100u);
}

TEST_F(SharedMutexCreation, EndsTheProcessWhenTheSetIsRemovedBetweenItsTwoLooks) {
    ExpectFatal([](TraceRecorder& recorder) {
        const fake::Script fails(fake::semget, {fake::Fail(EEXIST), fake::Real()});
        int set = -1;
        EXPECT_EQ(-1, KovaSharedMutexCreate(&set, kName));
        Records wanted = NoSet(EEXIST, ENOENT);
        wanted.push_back(AbendAgain());
        ExpectRecords(recorder, wanted);
    });
}

TEST_F(SharedMutexCreation, EndsTheProcessWhenTheKeyIsThatOfASmallerSet) {
    std::filesystem::create_directory(kDirectory);
    std::ofstream{kPath};
    const int small = fake::semget.Real(ipc::KeyOf(kPath), 4, IPC_CREAT | 0666);
    ExpectFatal([](TraceRecorder& recorder) { ExpectNotCreated(EINVAL, recorder, NoSet(EEXIST, EINVAL)); });
    EXPECT_EQ((Values{0, 0, 0, 0}), ipc::Values(small));
    ipc::Remove(small);
}

TEST_F(SharedMutexCreation, EndsTheProcessWhenTheSetIsNotForEverybody) {
    std::filesystem::create_directory(kDirectory);
    ASSERT_EQ(0, ::chmod(kDirectory, 0777));
    std::ofstream{kPath};
    ASSERT_EQ(0, ::chmod(kPath, 0666));
    const int closed = fake::semget.Real(ipc::KeyOf(kPath), 5, IPC_CREAT | 0000);
    ExpectFatal([](TraceRecorder& recorder) {
        BecomeOrdinary();
        ExpectNotCreated(EACCES, recorder, NoSet(EEXIST, EACCES));
    });
    ipc::Remove(closed);
}

TEST_F(SharedMutexCreation, EndsTheProcessWhenTheInitialValuesCannotBeSet) {
    for (const bool half_made : {false, true}) {
        for (const int position : {0, 1, 2, 3, 4}) {
            SCOPED_TRACE(position);
            ExpectFatal([=](TraceRecorder& recorder) {
                if (half_made) LeaveHalfMadeSet();
                recorder.Clear();
                fake::Script writes(fake::semctl, {fake::Fail(EACCES)});
                Only(writes, SETVAL, position);
                fake::Script removals(fake::semctl, {[](int set, int of, int command, long argument) {
                                          const int result = fake::semctl.Real(set, of, command, argument);
                                          errno = kStale;
                                          return result;
                                      }});
                Only(removals, IPC_RMID, 0);
                const fake::Journal calls = SetCalls();
                int handle = 4711;
                EXPECT_EQ(-1, KovaSharedMutexCreate(&handle, kName));
                EXPECT_EQ(EACCES, errno);
                EXPECT_EQ(-1, handle);
                EXPECT_TRUE(ipc::Sets().empty()) << "the set is removed";

                const int set = static_cast<int>(calls.Entries(fake::semget).back().result);
                Texts wanted;
                if (half_made) wanted.push_back(Semctl(set, "0 IPC_STAT"));
                for (int i = 0; i <= position; ++i) {
                    wanted.push_back(Semctl(set, std::to_string(i) + (i == 0 ? " SETVAL 1" : " SETVAL 0")));
                }
                wanted.push_back(Semctl(set, "0 IPC_RMID"));
                EXPECT_EQ(wanted, calls.Texts(fake::semctl));
                EXPECT_EQ(0u, calls.Count(fake::semop));
                Records records;
                if (half_made) {
                    records = {{kNoNewSet, {ipc::KeyOf(kPath), 5, kNewFlags, EEXIST}}, {kHalfMade, {set}}};
                }
                records.push_back({kNoInitialValues, {set, EACCES}});
                records.push_back({kReleased, {NextFd()}});
                records.push_back(AbendAgain());
                ExpectRecords(recorder, records);
            });
        }
    }
}

TEST_F(SharedMutexCreation, EndsTheProcessWhenItCannotBeCounted) {
    const int set = Open();
    const key_t key = ipc::KeyOf(kPath);
    ExpectFatal([=](TraceRecorder& recorder) {
        const fake::Script fails(fake::semop, {fake::Fail(ENOSPC)});
        fake::Always spoils(fake::fcntl, [](int fd, int command, long argument) {
            const int result = fake::fcntl.Real(fd, command, argument);
            errno = kStale;
            return result;
        });
        const fake::Journal calls = SetCalls();
        ExpectNotCreated(ENOSPC, recorder,
                         {{kNoNewSet, {key, 5, kNewFlags, EEXIST}},
                          {kNotCounted, {set, ENOSPC}},
                          {kReleased, {NextFd()}}});
        const Texts all = calls.Texts();
        EXPECT_EQ(UnlockCalls(), Texts(all.end() - 2, all.end()));
    });
    EXPECT_EQ((Values{1, 1, 0, 0, 0}), ipc::Values(set));
    Close();
}

TEST_F(SharedMutexCreation, EndsTheProcessWhenTheCounterIsFull) {
    const int set = Open();
    ipc::SetValue(set, 1, 32767);
    const key_t key = ipc::KeyOf(kPath);
    ExpectFatal([=](TraceRecorder& recorder) {
        ExpectNotCreated(ERANGE, recorder,
                         {{kNoNewSet, {key, 5, kNewFlags, EEXIST}},
                          {kNotCounted, {set, ERANGE}},
                          {kReleased, {NextFd()}}});
    });
    EXPECT_EQ((Values{1, 32767, 0, 0, 0}), ipc::Values(set));
    ipc::SetValue(set, 1, 1);
    Close();
}

// Destroying gives nothing back of what the kernel would undo for the process, which ends at 32768.
TEST_F(SharedMutexCreation, EndsTheProcessThatHasOpenedTheSameSetTooOften) {
    const int set = Open();
    const auto open_and_close = [=](short times) {
        sembuf opens{1, times, SEM_UNDO};
        EXPECT_EQ(0, fake::semop.Real(set, &opens, 1));
        sembuf closes{1, static_cast<short>(-times), 0};
        EXPECT_EQ(0, fake::semop.Real(set, &closes, 1));
    };
    ExpectFatal([=](TraceRecorder& recorder) {
        ipc::SetValue(set, 1, 1);
        open_and_close(32766);
        int other = -1;
        for (int time = 0; time < 2; ++time) {
            EXPECT_EQ(set, KovaSharedMutexCreate(&other, kName));
            EXPECT_EQ(0, KovaSharedMutexDestroy(&other, kName));
        }
        recorder.Clear();
        EXPECT_EQ(-1, KovaSharedMutexCreate(&other, kName));
        EXPECT_EQ(ERANGE, errno);
        EXPECT_TRUE(recorder.Has(kNotCounted, {set, ERANGE}));
    });
    ipc::SetValue(set, 1, 1);
    Close();
}

TEST_F(SharedMutexCreation, ThatIsNotCountedLeavesASetThatTheNextOneFindsFree) {
    ExpectFatal([](TraceRecorder&) {
        const fake::Script fails(fake::semop, {fake::Fail(ENOSPC)});
        int set = -1;
        EXPECT_EQ(-1, KovaSharedMutexCreate(&set, kName));
    });
    EXPECT_EQ((Values{1, 1, 0, 0, 0}), ipc::Values(Open()));
    EXPECT_EQ(0, KovaSharedMutexTrylock(&m_Set));
    EXPECT_EQ(0, KovaSharedMutexUnlock(&m_Set));
    Close();
}

TEST_F(SharedMutexCreation, EndsTheProcessWhenTheLockOfTheKeyFileCannotBeReleased) {
    ExpectFatal([](TraceRecorder& recorder) {
        fake::Script fails(fake::fcntl, {fake::Fail(ENOLCK)});
        OnlyCommand(fails, F_SETLK);
        const int fd = NextFd();
        const fake::Journal calls = SetCalls();
        int set = -1;
        EXPECT_GE(KovaSharedMutexCreate(&set, kName), 0);
        EXPECT_GE(set, 0);
        EXPECT_EQ("close", calls.Texts().back());
        const auto records = recorder.All();
        ASSERT_GE(records.size(), 2u);
        EXPECT_TRUE(records[records.size() - 2].Is(kNotReleased));
        EXPECT_EQ((std::vector<uint32_t>{static_cast<uint32_t>(fd), ENOLCK}),
                  records[records.size() - 2].values);
        EXPECT_EQ(1u, recorder.Count(kAbend));
        EXPECT_EQ(0u, recorder.Count(kReleased));
    });
    Open();
    Close();
}

// --- The lock of the key file ---

class SharedMutexCDLock : public SharedMutexFunctions {
  protected:
    SharedMutexCDLock() { std::ofstream{kFile}; }
    ~SharedMutexCDLock() override { std::filesystem::remove(kFile); }

    static constexpr const char* kFile = "/tmp/file";
};

TEST_F(SharedMutexCDLock, IsADescriptorThatUnlockingCloses) {
    const int wanted = NextFd();
    const fake::Journal calls = SetCalls();
    const int fd = KovaSharedMutexCDLock(kFile);
    EXPECT_EQ(wanted, fd);
    EXPECT_EQ(LockCalls(kFile), calls.Texts());
    EXPECT_EQ(0, KovaSharedMutexCDUnlock(fd));
    EXPECT_EQ(LockCalls(kFile) + UnlockCalls(), calls.Texts());
    EXPECT_EQ(fd, calls.Entries(fake::close).at(0).fd);
    EXPECT_FALSE(IsOpenFd(fd));
    ExpectRecords(m_Recorder, {{kReleased, {fd}}});
}

TEST_F(SharedMutexCDLock, GoesOnAfterInterruptions) {
    const int wanted = NextFd();
    fake::Script calls(fake::fcntl, {fake::Fail(EINTR), fake::Fail(EINTR), fake::Fail(EINTR), fake::Real(),
                                     fake::Fail(EINTR), fake::Fail(EINTR), fake::Real()});
    const int fd = KovaSharedMutexCDLock(kFile);
    EXPECT_EQ(wanted, fd);
    EXPECT_EQ(4u, calls.Calls());
    EXPECT_EQ(0, KovaSharedMutexCDUnlock(fd));
    EXPECT_EQ(7u, calls.Calls());
    ExpectRecords(m_Recorder, {{kReleased, {fd}}});
}

TEST_F(SharedMutexCDLock, MakesNoFile) {
    ExpectFatal([](TraceRecorder& recorder) {
        const char* const path = "/tmp/missing";
        EXPECT_EQ(-1, KovaSharedMutexCDLock(path));
        EXPECT_EQ(ENOENT, errno);
        ExpectRecords(recorder, {{kNotOpened, {path, -1, ENOENT}}, AbendAgain()});
    });
    EXPECT_FALSE(std::filesystem::exists("/tmp/missing"));
}

TEST_F(SharedMutexCDLock, IsRefusedForANullPath) {
    ExpectFatal([](TraceRecorder& recorder) {
        errno = kStale;
        EXPECT_EQ(-1, KovaSharedMutexCDLock(nullptr));
        EXPECT_TRUE(errno == EFAULT || errno == ENOENT) << errno;
        const int error = errno;
        const std::vector<TraceRecord> records = recorder.All();
        ASSERT_EQ(2u, records.size());
        EXPECT_TRUE(records[0].Is(kNotOpened));
        EXPECT_EQ((std::vector<uint32_t>{Word(-1).value, Word(error).value}),
                  std::vector<uint32_t>(records[0].values.begin() + 1, records[0].values.end()));
        EXPECT_TRUE(records[1].Is(kAbend));
    });
}

// Deliberate: a file may well have the descriptor 0, and is refused all the same.
TEST_F(SharedMutexCDLock, IsRefusedWithTheDescriptorZero) {
    const auto body = [] {
        TraceRecorder recorder;
        ::close(STDIN_FILENO);
        const fake::Journal calls = SetCalls();
        EXPECT_EQ(-1, KovaSharedMutexCDLock(kFile));
        EXPECT_EQ(0u, calls.Count(fake::fcntl)) << "never locked";
        EXPECT_FALSE(IsOpenFd(0)) << "left open";
        const std::vector<TraceRecord> records = recorder.All();
        ASSERT_EQ(2u, records.size());
        EXPECT_TRUE(records[0].Is(kNotOpened));
        EXPECT_EQ(0u, records[0].values.at(1));
        EXPECT_TRUE(records[1].Is(kAbend));
    };
    EXPECT_EQ(SIGABRT, RunInChild(body).signal);
    WhileAborting(body);
}

TEST_F(SharedMutexCDLock, ThatCannotBeTakenClosesTheFile) {
    ExpectFatal([](TraceRecorder& recorder) {
        const int fd = NextFd();
        fake::Script fails(fake::fcntl, {fake::Fail(EINTR), fake::Fail(EDEADLK)});
        const fake::Journal calls = SetCalls();
        EXPECT_EQ(-1, KovaSharedMutexCDLock(kFile));
        EXPECT_EQ(EDEADLK, errno);
        EXPECT_EQ("close", calls.Texts().back());
        ExpectRecords(recorder, {{kNotTaken, {fd, EDEADLK}}, AbendAgain()});
    });
}

TEST_F(SharedMutexCDLock, ThatCannotBeReleasedClosesTheFile) {
    ExpectFatal([](TraceRecorder& recorder) {
        const int fd = KovaSharedMutexCDLock(kFile);
        fake::Script fails(fake::fcntl, {fake::Fail(EINTR), fake::Fail(ENOLCK)});
        fake::Script closes(fake::close, {[](int descriptor) {
                                fake::close.Real(descriptor);
                                errno = EIO;
                                return -1;
                            }});
        EXPECT_EQ(-1, KovaSharedMutexCDUnlock(fd));
        EXPECT_EQ(ENOLCK, errno) << "that of the lock";
        EXPECT_FALSE(IsOpenFd(fd));
        ExpectRecords(recorder, {{kNotReleased, {fd, ENOLCK}}, AbendAgain()});
    });
}

TEST_F(SharedMutexCDLock, OfNoDescriptorCannotBeReleased) {
    ExpectFatal([](TraceRecorder& recorder) {
        EXPECT_EQ(-1, KovaSharedMutexCDUnlock(-1));
        EXPECT_EQ(EBADF, errno);
        ExpectRecords(recorder, {{kNotReleased, {-1, EBADF}}, AbendAgain()});
    });
}

TEST_F(SharedMutexCDLock, FailedCloseAfterTheReleaseIsNoFailure) {
    const int fd = KovaSharedMutexCDLock(kFile);
    {
        const fake::Script closes(fake::close, {[](int descriptor) {
                                      fake::close.Real(descriptor);
                                      errno = EINTR;
                                      return -1;
                                  }});
        EXPECT_EQ(0, KovaSharedMutexCDUnlock(fd));
    }
    ExpectRecords(m_Recorder, {{kReleased, {fd}}});
}

// --- Destroy ---

TEST_F(SharedMutexFunctions, DestroyByTheLastRemovesTheSet) {
    const int set = Open();
    const int fd = NextFd();
    Texts calls;
    {
        const fake::Journal journal = SetCalls();
        EXPECT_EQ(0, KovaSharedMutexDestroy(&m_Set, kName));
        calls = journal.Texts();
    }
    EXPECT_EQ(LockCalls() +
                  Texts({Semop(set, "1 -1 IPC_NOWAIT"), Semctl(set, "1 GETVAL"), Semctl(set, "4 GETVAL"),
                         Semctl(set, "0 IPC_RMID")}) +
                  UnlockCalls(),
              calls);
    ExpectRecords(m_Recorder, {{kRemoved, {set, 0}}, {kReleased, {fd}}});
    EXPECT_TRUE(ipc::Sets().empty());
    EXPECT_EQ(set, m_Set);
    EXPECT_TRUE(std::filesystem::exists(kPath));
}

TEST_F(SharedMutexFunctions, DestroyByAnotherLeavesTheSet) {
    const int set = Open();
    Open();
    const int fd = NextFd();
    Texts calls;
    {
        const fake::Journal journal = SetCalls();
        EXPECT_EQ(0, KovaSharedMutexDestroy(&m_Set, kName));
        calls = journal.Texts();
    }
    EXPECT_EQ(LockCalls() + Texts({Semop(set, "1 -1 IPC_NOWAIT"), Semctl(set, "1 GETVAL")}) + UnlockCalls(),
              calls);
    ExpectRecords(m_Recorder, {{kStaysOpen, {set, 1}}, {kReleased, {fd}}});
    EXPECT_EQ((Values{1, 1, 0, 0, 0}), ipc::Values(set));
    Close();
}

TEST_F(SharedMutexFunctions, DestroyLeavesAPersistentSet) {
    const int set = Open();
    EXPECT_EQ(0, KovaSharedMutexSetPersistent(&m_Set));
    const int fd = NextFd();
    Texts calls;
    {
        const fake::Journal journal = SetCalls();
        EXPECT_EQ(0, KovaSharedMutexDestroy(&m_Set, kName));
        calls = journal.Texts();
    }
    EXPECT_EQ(LockCalls() +
                  Texts({Semop(set, "1 -1 IPC_NOWAIT"), Semctl(set, "1 GETVAL"), Semctl(set, "4 GETVAL")}) +
                  UnlockCalls(),
              calls);
    ExpectRecords(m_Recorder, {{kIsPersistent, {set, 0}}, {kReleased, {fd}}});
    EXPECT_EQ((Values{1, 0, 0, 0, 1}), ipc::Values(set));

    EXPECT_EQ(set, Open());
    EXPECT_EQ((Values{1, 1, 0, 0, 1}), ipc::Values(set));
    Close();
    EXPECT_EQ((Values{1, 0, 0, 0, 1}), ipc::Values(set));
    RemoveSet();
}

TEST_F(SharedMutexFunctions, DestroyByTheLastRemovesAHeldMutex) {
    Open();
    EXPECT_EQ(0, KovaSharedMutexLock(&m_Set));
    Close();
    EXPECT_TRUE(ipc::Sets().empty());
}

TEST_F(SharedMutexFunctions, InterruptedDestroyGoesOn) {
    const int set = Open();
    fake::Script waits(fake::fcntl, {fake::Fail(EINTR), fake::Real()});
    OnlyCommand(waits, F_SETLKW);
    fake::Script releases(fake::fcntl, {fake::Fail(EINTR), fake::Real()});
    OnlyCommand(releases, F_SETLK);
    fake::Script counts(fake::semop, {fake::Fail(EINTR), fake::Fail(EINTR), fake::Real()});
    const int fd = NextFd();
    Close();
    ExpectRecords(m_Recorder,
                  {{kInterrupted, {set}}, {kInterrupted, {set}}, {kRemoved, {set, 0}}, {kReleased, {fd}}});
}

TEST_F(SharedMutexFunctions, DestroyMakesAMissingKeyFileAgain) {
    Open();
    ASSERT_TRUE(std::filesystem::remove(kPath));
    const fake::Journal calls = SetCalls();
    Close();
    EXPECT_EQ("fopen " + std::string(kPath) + " w", calls.Texts().at(0));
    EXPECT_TRUE(std::filesystem::exists(kPath));
    EXPECT_TRUE(ipc::Sets().empty());
}

TEST_F(SharedMutexFunctions, DestroyOfAnUnusedSetRemovesIt) {
    const int set = Open();
    ipc::SetValue(set, 1, 0);
    const int fd = NextFd();
    EXPECT_EQ(0, KovaSharedMutexDestroy(&m_Set, kName)) << "the result of the removal";
    ExpectRecords(m_Recorder, {{kNotClosed, {set, EAGAIN}}, {kRemoved, {set, 0}}, {kReleased, {fd}}});
    EXPECT_TRUE(ipc::Sets().empty());
}

TEST_F(SharedMutexFunctions, DestroyOfAnUnusedPersistentSetFails) {
    const int set = Open();
    EXPECT_EQ(0, KovaSharedMutexSetPersistent(&m_Set));
    ipc::SetValue(set, 1, 0);
    const int fd = NextFd();
    errno = kStale;
    EXPECT_EQ(-1, KovaSharedMutexDestroy(&m_Set, kName));
    EXPECT_EQ(EAGAIN, errno);
    ExpectRecords(m_Recorder, {{kNotClosed, {set, EAGAIN}}, {kIsPersistent, {set, 0}}, {kReleased, {fd}}});
    RemoveSet();
}

TEST_F(SharedMutexFunctions, DestroyOfARemovedSetFails) {
    const int set = Open();
    RemoveSet();
    const int fd = NextFd();
    EXPECT_EQ(-1, KovaSharedMutexDestroy(&m_Set, kName));
    EXPECT_EQ(EINVAL, errno);
    ExpectRecords(m_Recorder, {{kNotClosed, {set, EINVAL}}, {kStaysOpen, {set, -1}}, {kReleased, {fd}}});
}

TEST_F(SharedMutexFunctions, DestroyOfNoSetFails) {
    const int fd = NextFd();
    EXPECT_EQ(-1, KovaSharedMutexDestroy(&m_Set, kName));
    EXPECT_EQ(EINVAL, errno);
    ExpectRecords(m_Recorder, {{kNotClosed, {-1, EINVAL}}, {kStaysOpen, {-1, -1}}, {kReleased, {fd}}});
}

TEST_F(SharedMutexFunctions, DestroyReturnsTheErrnoOfItsDecrement) {
    const int set = Open();
    const int fd = NextFd();
    {
        const fake::Script decrements(fake::semop, {fake::Fail(EIDRM)});
        fake::Script reads(fake::semctl, {fake::Fail(EACCES)});
        Only(reads, GETVAL, 1);
        EXPECT_EQ(-1, KovaSharedMutexDestroy(&m_Set, kName));
        EXPECT_EQ(EIDRM, errno);
    }
    ExpectRecords(m_Recorder, {{kNotClosed, {set, EIDRM}}, {kStaysOpen, {set, -1}}, {kReleased, {fd}}});
    Close();
}

TEST_F(SharedMutexFunctions, DestroyThatCannotReadTheCounterLeavesTheSet) {
    const int set = Open();
    const int fd = NextFd();
    {
        fake::Script reads(fake::semctl, {fake::Fail(EACCES)});
        Only(reads, GETVAL, 1);
        EXPECT_EQ(0, KovaSharedMutexDestroy(&m_Set, kName)) << "the result of the decrement";
    }
    ExpectRecords(m_Recorder, {{kStaysOpen, {set, -1}}, {kReleased, {fd}}});
    EXPECT_EQ((Values{1, 0, 0, 0, 0}), ipc::Values(set));
    RemoveSet();
}

TEST_F(SharedMutexFunctions, DestroyThatCannotReadThePersistentFlagRemovesTheSet) {
    const int set = Open();
    const int fd = NextFd();
    fake::Script reads(fake::semctl, {fake::Fail(EACCES)});
    Only(reads, GETVAL, 4);
    EXPECT_EQ(0, KovaSharedMutexDestroy(&m_Set, kName));
    ExpectRecords(m_Recorder, {{kRemoved, {set, 0}}, {kReleased, {fd}}});
}

TEST_F(SharedMutexFunctions, DestroyThatCannotRemoveTheSetFails) {
    const int set = Open();
    const int fd = NextFd();
    {
        fake::Script removals(fake::semctl, {fake::Fail(EPERM)});
        Only(removals, IPC_RMID, 0);
        fake::Script releases(fake::fcntl, {[](int descriptor, int command, long argument) {
                                  const int result = fake::fcntl.Real(descriptor, command, argument);
                                  errno = kStale;
                                  return result;
                              }});
        OnlyCommand(releases, F_SETLK);
        EXPECT_EQ(-1, KovaSharedMutexDestroy(&m_Set, kName));
        EXPECT_EQ(EPERM, errno);
    }
    ExpectRecords(m_Recorder, {{kRemoved, {set, -1}}, {kReleased, {fd}}});
    EXPECT_EQ((Values{1, 0, 0, 0, 0}), ipc::Values(set));

    m_Recorder.Clear();
    {
        fake::Script removals(fake::semctl, {fake::Fail(EPERM)});
        Only(removals, IPC_RMID, 0);
        EXPECT_EQ(-1, KovaSharedMutexDestroy(&m_Set, kName));
        EXPECT_EQ(EPERM, errno) << "not the EAGAIN of the decrement";
    }
    ExpectRecords(m_Recorder, {{kNotClosed, {set, EAGAIN}}, {kRemoved, {set, -1}}, {kReleased, {fd}}});
    RemoveSet();
}

TEST_F(SharedMutexFunctions, DestroyEndsTheProcessWithoutKeyFile) {
    const int set = Open();
    std::filesystem::remove_all(kDirectory);
    std::ofstream(kDirectory) << "a file";
    ExpectFatal([=, this](TraceRecorder& recorder) {
        const fake::Journal calls = SetCalls();
        EXPECT_EQ(-1, KovaSharedMutexDestroy(&m_Set, kName));
        EXPECT_EQ(ENOTDIR, errno);
        ExpectAll(recorder, {{kNoFile, {ENOTDIR}}, {kNoKeyFile, {ENOTDIR}}, AbendAgain()});
        EXPECT_EQ((Texts{"fopen " + std::string(kPath) + " w"}), calls.Texts());
    });
    EXPECT_EQ((Values{1, 1, 0, 0, 0}), ipc::Values(set));
    std::filesystem::remove(kDirectory);
    Close();
}

TEST_F(SharedMutexFunctions, DestroyEndsTheProcessWhenTheKeyFileCannotBeLocked) {
    const int set = Open();
    ExpectFatal([=, this](TraceRecorder& recorder) {
        const int fd = NextFd();
        fake::Script fails(fake::fcntl, {fake::Fail(ENOLCK)});
        OnlyCommand(fails, F_SETLKW);
        EXPECT_EQ(-1, KovaSharedMutexDestroy(&m_Set, kName));
        EXPECT_EQ(ENOLCK, errno);
        ExpectRecords(recorder, {{kNotTaken, {fd, ENOLCK}}, AbendAgain()});
    });
    EXPECT_EQ((Values{1, 1, 0, 0, 0}), ipc::Values(set));
    Close();
}

TEST_F(SharedMutexFunctions, DestroyEndsTheProcessWhenTheLockOfTheKeyFileCannotBeReleased) {
    const int set = Open();
    Open();
    ExpectFatal([=, this](TraceRecorder& recorder) {
        ipc::SetValue(set, 1, 2);
        const int fd = NextFd();
        fake::Script fails(fake::fcntl, {fake::Fail(ENOLCK)});
        OnlyCommand(fails, F_SETLK);
        EXPECT_EQ(0, KovaSharedMutexDestroy(&m_Set, kName)) << "the result of the decrement";
        ExpectRecords(recorder, {{kStaysOpen, {set, 1}}, {kNotReleased, {fd, ENOLCK}}, AbendAgain()});
    });
    EXPECT_EQ((Values{1, 1, 0, 0, 0}), ipc::Values(set));
    Close();
}

// --- Lock ---

/// The texts of locking a free mutex.
Texts LockFree(int set) {
    return {Semop(set, "0 -1 IPC_NOWAIT|SEM_UNDO"), Semctl(set, "2 SETVAL", KovaGetPid()),
            Semctl(set, "3 SETVAL", KovaGetTid())};
}

/// Holds a mutex on a thread of its own while it lives.
class Holder {
  public:
    explicit Holder(int set)
        : m_Thread([this, set] {
              int handle = set;
              EXPECT_EQ(0, KovaSharedMutexLock(&handle));
              m_Tid = KovaGetTid();
              m_Holds = true;
              EXPECT_TRUE(WaitUntil([this] { return m_End.load(); }));
              EXPECT_EQ(0, KovaSharedMutexUnlock(&handle));
          }) {
        EXPECT_TRUE(WaitUntil([this] { return m_Holds.load(); }));
    }
    ~Holder() { Release(); }

    int Tid() const { return m_Tid; }
    void Release() {
        m_End = true;
        m_Thread.Join();
    }

  private:
    std::atomic<bool> m_Holds = false;
    std::atomic<bool> m_End = false;
    std::atomic<int> m_Tid = 0;
    DeadlineThread m_Thread;
};

/// Waits until one thread waits for the lock.
bool OneWaits(int set) {
    return WaitUntil([=] { return ipc::Waiters(set, 0) == 1; });
}

TEST_F(SharedMutexFunctions, LockTakesAFreeMutexAndNotesItsOwner) {
    const int set = Open();
    {
        const fake::Journal calls = SetCalls();
        EXPECT_EQ(0, KovaSharedMutexLock(&m_Set));
        EXPECT_EQ(LockFree(set), calls.Texts());
    }
    ExpectRecords(m_Recorder, {{kLock, {set}}});
    EXPECT_EQ((Values{0, 1, KovaGetPid(), KovaGetTid(), 0}), ipc::Values(set));
    EXPECT_EQ(0, KovaSharedMutexUnlock(&m_Set));
    Close();
}

TEST_F(SharedMutexFunctions, LockWaitsForTheMutexOfAnotherThread) {
    const int set = Open();
    Texts calls;
    Holder holder(set);
    m_Recorder.Clear();
    int tid = 0;
    DeadlineThread waiter([&] {
        const fake::Journal journal = SetCalls();
        EXPECT_EQ(0, KovaSharedMutexLock(&m_Set));
        calls = journal.Texts();
        tid = KovaGetTid();
        EXPECT_EQ((Values{0, 1, KovaGetPid(), tid, 0}), ipc::Values(set));
        EXPECT_EQ(0, KovaSharedMutexUnlock(&m_Set));
    });
    EXPECT_TRUE(OneWaits(set));
    EXPECT_EQ((Values{0, 1, KovaGetPid(), holder.Tid(), 0}), ipc::Values(set));
    holder.Release();
    waiter.Join();
    EXPECT_EQ((Texts{Semop(set, "0 -1 IPC_NOWAIT|SEM_UNDO"), Semctl(set, "2 GETVAL"), Semctl(set, "3 GETVAL"),
                     Semop(set, "0 -1 SEM_UNDO"), Semctl(set, "2 SETVAL", KovaGetPid()),
                     Semctl(set, "3 SETVAL", tid)}),
              calls);
    EXPECT_EQ(1u, m_Recorder.Count(kLock)) << "one record, when it is held";
    EXPECT_EQ(3u, m_Recorder.All().size()) << "and one for each unlock";
    Close();
}

TEST_F(SharedMutexFunctions, InterruptedLockGoesOn) {
    const int set = Open();
    {
        const fake::Script operations(fake::semop, {fake::Fail(EINTR), fake::Fail(EINTR), fake::Real()});
        EXPECT_EQ(0, KovaSharedMutexLock(&m_Set));
    }
    ExpectRecords(m_Recorder, {{kInterrupted, {set}}, {kInterrupted, {set}}, {kLock, {set}}});
    EXPECT_EQ(0, KovaSharedMutexUnlock(&m_Set));
    m_Recorder.Clear();
    {
        const fake::Script operations(
            fake::semop, {fake::Fail(EAGAIN), fake::Fail(EINTR), fake::Fail(EINTR), fake::Real()});
        const fake::Journal calls({&fake::semop}, fake::kThisThread);
        EXPECT_EQ(0, KovaSharedMutexLock(&m_Set));
        EXPECT_EQ((Texts{Semop(set, "0 -1 IPC_NOWAIT|SEM_UNDO"), Semop(set, "0 -1 SEM_UNDO"),
                         Semop(set, "0 -1 SEM_UNDO"), Semop(set, "0 -1 SEM_UNDO")}),
                  calls.Texts());
    }
    ExpectRecords(m_Recorder, {{kInterrupted, {set}}, {kInterrupted, {set}}, {kLock, {set}}});
    EXPECT_EQ(0, KovaSharedMutexUnlock(&m_Set));
    Close();
}

TEST_F(SharedMutexFunctions, SignalsDoNotEndTheWaitForALock) {
    const int set = Open();
    Holder holder(set);
    m_Recorder.Clear();
    DeadlineThread waiter([&] {
        EXPECT_EQ(0, KovaSharedMutexLock(&m_Set));
        EXPECT_EQ(0, KovaSharedMutexUnlock(&m_Set));
    });
    EXPECT_TRUE(OneWaits(set));
    {
        const SignalStorm storm({waiter.Handle()});
        EXPECT_TRUE(WaitUntil([&] { return m_Recorder.Count(kInterrupted) >= 10; }));
    }
    EXPECT_TRUE(m_Recorder.Has(kInterrupted, {set}));
    EXPECT_FALSE(waiter.HasEnded());
    EXPECT_TRUE(OneWaits(set));
    holder.Release();
    waiter.Join();
    Close();
}

TEST_F(SharedMutexFunctions, SecondLockByTheHolderEndsTheProcess) {
    const int set = Open();
    EXPECT_EQ(0, KovaSharedMutexLock(&m_Set));
    // A child made by fork has the ids of its parent.
    ExpectFatal([=, this](TraceRecorder& recorder) {
        const fake::Journal calls = SetCalls();
        EXPECT_EQ(-1, KovaSharedMutexLock(&m_Set));
        EXPECT_EQ(
            (Texts{Semop(set, "0 -1 IPC_NOWAIT|SEM_UNDO"), Semctl(set, "2 GETVAL"), Semctl(set, "3 GETVAL")}),
            calls.Texts());
        ExpectRecords(recorder, {{kLockedByHolder, {set}}, AbendAgain()});
    });
    EXPECT_EQ((Values{0, 1, KovaGetPid(), KovaGetTid(), 0}), ipc::Values(set)) << "still held";
    EXPECT_EQ(0, KovaSharedMutexUnlock(&m_Set));
    Close();
}

TEST_F(SharedMutexFunctions, LockGoesByBothIdsOfTheOwner) {
    const int set = Open();
    for (const auto& [pid, tid] : {std::pair(KovaGetPid(), 1), std::pair(1, KovaGetTid())}) {
        ipc::SetValue(set, 0, 0);
        ipc::SetValue(set, 2, pid);
        ipc::SetValue(set, 3, tid);
        DeadlineThread opener([=] {
            EXPECT_TRUE(OneWaits(set));
            ipc::SetValue(set, 0, 1);
        });
        EXPECT_EQ(0, KovaSharedMutexLock(&m_Set));
        EXPECT_EQ(0, KovaSharedMutexUnlock(&m_Set));
    }
    Close();
}

TEST_F(SharedMutexFunctions, LockThatFailsAtOnceEndsTheProcess) {
    const int set = Open();
    ExpectFatal([=, this](TraceRecorder& recorder) {
        const fake::Script fails(fake::semop, {fake::Fail(ENOSPC)});
        const fake::Journal calls = SetCalls();
        EXPECT_EQ(-1, KovaSharedMutexLock(&m_Set));
        EXPECT_EQ(ENOSPC, errno);
        EXPECT_EQ((Texts{Semop(set, "0 -1 IPC_NOWAIT|SEM_UNDO")}), calls.Texts());
        ExpectRecords(recorder, {{kLockFailed, {set, ENOSPC}}, AbendAgain(), {kLock, {set}}});
    });
    Close();
}

TEST_F(SharedMutexFunctions, LockOfARemovedSetEndsTheProcess) {
    const int set = Open();
    RemoveSet();
    ExpectFatal([=, this](TraceRecorder& recorder) {
        EXPECT_EQ(-1, KovaSharedMutexLock(&m_Set));
        EXPECT_EQ(EINVAL, errno);
        ExpectRecords(recorder, {{kLockFailed, {set, EINVAL}}, AbendAgain(), {kLock, {set}}});
    });
}

TEST_F(SharedMutexFunctions, SetRemovedUnderAWaiterEndsItsProcess) {
    // The child keeps the id that is known.
    const int self = KovaGetTid();
    for (const bool survives : {false, true}) {
        const int set = Open();
        ipc::SetValue(set, 0, 0);
        DeadlineThread remover([=] {
            EXPECT_TRUE(OneWaits(set));
            ipc::Remove(set);
        });
        TraceRecorder recorder;
        const auto lock = [this] {
            EXPECT_EQ(-1, KovaSharedMutexLock(&m_Set));
            EXPECT_EQ(EIDRM, errno);
        };
        if (survives) {
            WhileAborting(lock);
            EXPECT_TRUE(recorder.Has(kLockFailed, {set, EIDRM}));
            EXPECT_TRUE(recorder.Has(kLock, {set}));
        } else {
            EXPECT_EQ(SIGABRT, RunInChild(lock).signal);
            ExpectRecords(recorder, {{kLockFailed, {set, EIDRM}}, {kAbend, {0, self}}});
        }
    }
}

TEST_F(SharedMutexFunctions, LockEndsTheProcessWhenTheOwnerCannotBeRead) {
    const int set = Open();
    ExpectFatal([=, this](TraceRecorder& recorder) {
        const fake::Script operations(fake::semop, {fake::Fail(EAGAIN), fake::Fail(EIDRM)});
        fake::Always reads(fake::semctl, fake::Fail(EINVAL));
        EXPECT_EQ(-1, KovaSharedMutexLock(&m_Set));
        EXPECT_EQ(EIDRM, errno);
        ExpectRecords(recorder, {{kOwnerNotRead, {set, EINVAL}},
                                 AbendAgain(),
                                 {kOwnerNotRead, {set, EINVAL}},
                                 AbendAgain(),
                                 {kLockFailed, {set, EIDRM}},
                                 AbendAgain(),
                                 {kLock, {set}}});
    });
    Close();
}

TEST_F(SharedMutexFunctions, LockEndsTheProcessWhenAnIdIsAboveTheLargestValue) {
    const int set = Open();
    for (const int position : {2, 3}) {
        ExpectFatal([=, this](TraceRecorder& recorder) {
            fake::Script writes(fake::semctl, {fake::Fail(ERANGE)});
            Only(writes, SETVAL, position);
            EXPECT_EQ(0, KovaSharedMutexLock(&m_Set)) << "it is locked";
            EXPECT_EQ(0, ipc::Value(set, 0));
            ExpectRecords(recorder, {{kOwnerNotSet, {set, ERANGE}}, AbendAgain(), {kLock, {set}}});
        });
    }
    Close();
}

TEST_F(SharedMutexFunctions, ThreadIdAbove32767EndsTheProcess) {
    const int set = Open();
    const auto lock_with = [&](int tid, const std::function<void()>& check) {
        return RunInChild([&] {
            // A thread that has not asked for its id yet.
            DeadlineThread([&] {
                const auto ask = [&](long number, long a, long b, long c, long d, long e, long f) {
                    if (number == SYS_gettid) return long{tid};
                    return fake::syscall.Real(number, a, b, c, d, e, f);
                };
                const fake::Replace ids(fake::syscall, ask, fake::kThisThread);
                EXPECT_EQ(0, KovaSharedMutexLock(&m_Set));
                check();
            }).Join();
        });
    };
    const ChildResult fits = lock_with(32767, [=] { EXPECT_EQ(32767, ipc::Value(set, 3)); });
    EXPECT_EQ(0, fits.exit_code) << testing::PrintToString(fits);
    m_Recorder.Clear();
    EXPECT_EQ(SIGABRT, lock_with(32768, [] {}).signal);
    ExpectRecords(m_Recorder, {{kOwnerNotSet, {set, ERANGE}}, {kAbend, {0, 32768}}});
    EXPECT_EQ(1, ipc::Value(set, 0)) << "free again";
    Close();
}

TEST_F(SharedMutexFunctions, KeepThreadsOutOfEachOthersWay) {
    constexpr int kThreads = 4;
    constexpr int kTimes = 300;
    const int set = Open();
    std::atomic<int> inside{0};
    {
        std::vector<std::unique_ptr<DeadlineThread>> threads;
        for (int i = 0; i < kThreads; ++i) {
            threads.push_back(std::make_unique<DeadlineThread>([&] {
                int handle = set;
                for (int time = 0; time < kTimes; ++time) {
                    ASSERT_EQ(0, KovaSharedMutexLock(&handle));
                    // Not one step: it counts wrong if anybody else is here.
                    inside.store(inside.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
                    ASSERT_EQ(0, KovaSharedMutexUnlock(&handle));
                }
            }));
        }
    }
    EXPECT_EQ(kThreads * kTimes, inside);
    EXPECT_EQ((Values{1, 1, 0, 0, 0}), ipc::Values(set));
    Close();
}

// --- Trylock ---

TEST_F(SharedMutexFunctions, TrylockTakesAFreeMutexAndNotesItsOwner) {
    const int set = Open();
    {
        const fake::Journal calls = SetCalls();
        EXPECT_EQ(0, KovaSharedMutexTrylock(&m_Set));
        EXPECT_EQ(LockFree(set), calls.Texts());
    }
    ExpectRecords(m_Recorder, {});
    EXPECT_EQ((Values{0, 1, KovaGetPid(), KovaGetTid(), 0}), ipc::Values(set));
    EXPECT_EQ(0, KovaSharedMutexUnlock(&m_Set));
    Close();
}

TEST_F(SharedMutexFunctions, TrylockFindsTheMutexOfAnotherThreadBusy) {
    const int set = Open();
    Holder holder(set);
    m_Recorder.Clear();
    {
        const fake::Journal calls = SetCalls();
        errno = kStale;
        EXPECT_EQ(1, KovaSharedMutexTrylock(&m_Set));
        EXPECT_EQ(EAGAIN, errno);
        EXPECT_EQ(
            (Texts{Semop(set, "0 -1 IPC_NOWAIT|SEM_UNDO"), Semctl(set, "2 GETVAL"), Semctl(set, "3 GETVAL")}),
            calls.Texts());
    }
    ExpectRecords(m_Recorder, {{kTrylockFailed, {set, EAGAIN, KovaGetPid(), holder.Tid()}}});
    EXPECT_EQ((Values{0, 1, KovaGetPid(), holder.Tid(), 0}), ipc::Values(set));
    holder.Release();
    EXPECT_EQ(0, KovaSharedMutexTrylock(&m_Set));
    EXPECT_EQ(0, KovaSharedMutexUnlock(&m_Set));
    Close();
}

TEST_F(SharedMutexFunctions, TrylockGoesByBothIdsOfTheOwner) {
    const int set = Open();
    ipc::SetValue(set, 0, 0);
    for (const auto& [pid, tid] : {std::pair(KovaGetPid(), 1), std::pair(1, KovaGetTid()), std::pair(0, 0)}) {
        ipc::SetValue(set, 2, pid);
        ipc::SetValue(set, 3, tid);
        m_Recorder.Clear();
        EXPECT_EQ(1, KovaSharedMutexTrylock(&m_Set));
        ExpectRecords(m_Recorder, {{kTrylockFailed, {set, EAGAIN, pid, tid}}});
    }
    Close();
}

TEST_F(SharedMutexFunctions, InterruptedTrylockGoesOn) {
    const int set = Open();
    const fake::Script operations(fake::semop, {fake::Fail(EINTR), fake::Fail(EINTR), fake::Real()});
    EXPECT_EQ(0, KovaSharedMutexTrylock(&m_Set));
    ExpectRecords(m_Recorder, {{kInterrupted, {set}}, {kInterrupted, {set}}});
    EXPECT_EQ(0, KovaSharedMutexUnlock(&m_Set));
    Close();
}

TEST_F(SharedMutexFunctions, TrylockByTheHolderEndsTheProcess) {
    const int set = Open();
    EXPECT_EQ(0, KovaSharedMutexLock(&m_Set));
    ExpectFatal([=, this](TraceRecorder& recorder) {
        EXPECT_EQ(-1, KovaSharedMutexTrylock(&m_Set));
        EXPECT_EQ(EAGAIN, errno);
        ExpectRecords(recorder, {{kTriedByHolder, {set}}, AbendAgain()});
    });
    EXPECT_EQ((Values{0, 1, KovaGetPid(), KovaGetTid(), 0}), ipc::Values(set)) << "still held";
    EXPECT_EQ(0, KovaSharedMutexUnlock(&m_Set));
    Close();
}

TEST_F(SharedMutexFunctions, TrylockThatFailsOtherwiseIsNotBusy) {
    const int set = Open();
    for (const int error : {ENOSPC, ENOMEM, ERANGE}) {
        m_Recorder.Clear();
        const fake::Script fails(fake::semop, {fake::Fail(error)});
        EXPECT_EQ(-1, KovaSharedMutexTrylock(&m_Set));
        EXPECT_EQ(error, errno);
        ExpectRecords(m_Recorder, {{kTrylockFailed, {set, error, 0, 0}}});
    }
    Close();
}

TEST_F(SharedMutexFunctions, TrylockByTheHolderThatFailsOtherwiseEndsTheProcess) {
    const int set = Open();
    EXPECT_EQ(0, KovaSharedMutexLock(&m_Set));
    ExpectFatal([=, this](TraceRecorder& recorder) {
        const fake::Script fails(fake::semop, {fake::Fail(ENOSPC)});
        EXPECT_EQ(-1, KovaSharedMutexTrylock(&m_Set));
        EXPECT_EQ(ENOSPC, errno);
        ExpectRecords(recorder, {{kTriedByHolder, {set}}, AbendAgain()});
    });
    EXPECT_EQ(0, KovaSharedMutexUnlock(&m_Set));
    Close();
}

TEST_F(SharedMutexFunctions, TrylockOfARemovedSetEndsTheProcess) {
    const int set = Open();
    RemoveSet();
    ExpectFatal([=, this](TraceRecorder& recorder) {
        EXPECT_EQ(-1, KovaSharedMutexTrylock(&m_Set));
        EXPECT_EQ(EINVAL, errno);
        ExpectRecords(recorder, {{kOwnerNotRead, {set, EINVAL}},
                                 AbendAgain(),
                                 {kOwnerNotRead, {set, EINVAL}},
                                 AbendAgain(),
                                 {kTrylockFailed, {set, EINVAL, -1, -1}}});
    });
}

TEST_F(SharedMutexFunctions, TrylockKeepsItsErrnoWhileItReadsTheOwner) {
    const int set = Open();
    ipc::SetValue(set, 0, 0);
    ExpectFatal([=, this](TraceRecorder& recorder) {
        const fake::Script reads(fake::semctl, {fake::Fail(EIDRM), fake::Fail(EINVAL)});
        EXPECT_EQ(1, KovaSharedMutexTrylock(&m_Set));
        EXPECT_EQ(EAGAIN, errno);
        ExpectRecords(recorder, {{kOwnerNotRead, {set, EIDRM}},
                                 AbendAgain(),
                                 {kOwnerNotRead, {set, EINVAL}},
                                 AbendAgain(),
                                 {kTrylockFailed, {set, EAGAIN, -1, -1}}});
    });
    Close();
}

TEST_F(SharedMutexFunctions, TrylockEndsTheProcessWhenAnIdIsAboveTheLargestValue) {
    const int set = Open();
    ExpectFatal([=, this](TraceRecorder& recorder) {
        fake::Script writes(fake::semctl, {fake::Fail(ERANGE), fake::Fail(ERANGE)});
        EXPECT_EQ(0, KovaSharedMutexTrylock(&m_Set));
        ExpectRecords(
            recorder,
            {{kOwnerNotSet, {set, ERANGE}}, AbendAgain(), {kOwnerNotSet, {set, ERANGE}}, AbendAgain()});
    });
    Close();
}

// --- Unlock ---

TEST_F(SharedMutexFunctions, UnlockClearsTheOwnerAndThenSetsTheLockFree) {
    const int set = Open();
    EXPECT_EQ(0, KovaSharedMutexLock(&m_Set));
    m_Recorder.Clear();
    {
        const fake::Journal calls = SetCalls();
        EXPECT_EQ(0, KovaSharedMutexUnlock(&m_Set));
        EXPECT_EQ((Texts{Semctl(set, "2 GETVAL"), Semctl(set, "3 GETVAL"), Semctl(set, "2 SETVAL 0"),
                         Semctl(set, "3 SETVAL 0"), Semctl(set, "0 SETVAL 1")}),
                  calls.Texts());
    }
    ExpectRecords(m_Recorder, {{kUnlock, {set}}});
    EXPECT_EQ((Values{1, 1, 0, 0, 0}), ipc::Values(set));
    Close();
}

TEST_F(SharedMutexFunctions, UnlockByAnyoneButTheOwnerEndsTheProcess) {
    const int set = Open();
    const int pid = KovaGetPid();
    const int tid = KovaGetTid();
    for (const auto& [lock, owner_pid, owner_tid] :
         {std::array{0, pid, 1}, std::array{0, 1, tid}, std::array{0, 1, 1}, std::array{1, 0, 0}}) {
        ipc::SetValue(set, 0, lock);
        ipc::SetValue(set, 2, owner_pid);
        ipc::SetValue(set, 3, owner_tid);
        const Values before = ipc::Values(set);
        ExpectFatal([=, this, owner = std::pair(owner_pid, owner_tid)](TraceRecorder& recorder) {
            const fake::Journal calls = SetCalls();
            errno = kStale;
            EXPECT_EQ(-1, KovaSharedMutexUnlock(&m_Set));
            EXPECT_EQ(EPERM, errno);
            EXPECT_EQ((Texts{Semctl(set, "2 GETVAL"), Semctl(set, "3 GETVAL")}), calls.Texts());
            ExpectRecords(recorder, {{kUnlockByStranger, {set, pid, tid, owner.first, owner.second}},
                                     AbendAgain(),
                                     {kUnlock, {set}}});
        });
        EXPECT_EQ(before, ipc::Values(set));
    }
    Close();
}

TEST_F(SharedMutexFunctions, UnlockThatCannotFreeTheLockFails) {
    const int set = Open();
    EXPECT_EQ(0, KovaSharedMutexLock(&m_Set));
    m_Recorder.Clear();
    {
        fake::Script fails(fake::semctl, {fake::Fail(EACCES)});
        Only(fails, SETVAL, 0);
        EXPECT_EQ(-1, KovaSharedMutexUnlock(&m_Set));
        EXPECT_EQ(EACCES, errno);
    }
    ExpectRecords(m_Recorder, {{kUnlockFailed, {set, EACCES}}, {kUnlock, {set}}});
    EXPECT_EQ((Values{0, 1, 0, 0, 0}), ipc::Values(set));
    Close();
}

TEST_F(SharedMutexFunctions, UnlockThatCannotClearTheOwnerEndsTheProcess) {
    const int set = Open();
    EXPECT_EQ(0, KovaSharedMutexLock(&m_Set));
    ExpectFatal([=, this](TraceRecorder& recorder) {
        fake::Script fails(fake::semctl, {fake::Fail(EIDRM), fake::Fail(EINVAL)});
        fails.When([](int, int position, int command, long) { return command == SETVAL && position != 0; });
        EXPECT_EQ(0, KovaSharedMutexUnlock(&m_Set)) << "the result of setting the lock";
        ExpectRecords(recorder, {{kOwnerNotSet, {set, EIDRM}},
                                 AbendAgain(),
                                 {kOwnerNotSet, {set, EINVAL}},
                                 AbendAgain(),
                                 {kUnlock, {set}}});
        EXPECT_EQ((Values{1, 1, KovaGetPid(), KovaGetTid(), 0}), ipc::Values(set));
    });
    Close();
}

TEST_F(SharedMutexFunctions, UnlockOfARemovedSetEndsTheProcess) {
    const int set = Open();
    EXPECT_EQ(0, KovaSharedMutexLock(&m_Set));
    RemoveSet();
    ExpectFatal([=, this](TraceRecorder& recorder) {
        EXPECT_EQ(-1, KovaSharedMutexUnlock(&m_Set));
        EXPECT_EQ(EINVAL, errno);
        ExpectRecords(recorder, {{kOwnerNotRead, {set, EINVAL}},
                                 AbendAgain(),
                                 {kOwnerNotRead, {set, EINVAL}},
                                 AbendAgain(),
                                 {kUnlockByStranger, {set, KovaGetPid(), KovaGetTid(), -1, -1}},
                                 AbendAgain(),
                                 {kUnlock, {set}}});
    });
}

TEST_F(SharedMutexFunctions, UnlockKeepsTheErrnoOfAnIdThatCannotBeRead) {
    const int set = Open();
    for (const int position : {2, 3}) {
        ExpectFatal([=, this](TraceRecorder& recorder) {
            fake::Script fails(fake::semctl, {fake::Fail(EACCES)});
            Only(fails, GETVAL, position);
            EXPECT_EQ(-1, KovaSharedMutexUnlock(&m_Set));
            EXPECT_EQ(EACCES, errno);
            EXPECT_TRUE(recorder.Has(kOwnerNotRead, {set, EACCES}));
        });
    }
    Close();
}

// A child made by fork has the ids of the process that made it.
TEST_F(SharedMutexFunctions, ForkedChildCountsAsItsParent) {
    const int set = Open();
    EXPECT_EQ(0, KovaSharedMutexLock(&m_Set));
    EXPECT_EQ(0, RunInChild([this] { EXPECT_EQ(0, KovaSharedMutexUnlock(&m_Set)); }).exit_code);
    EXPECT_EQ((Values{1, 1, 0, 0, 0}), ipc::Values(set));
    Close();
}

// --- Owner, persistence, counter ---

TEST_F(SharedMutexFunctions, SetOwnerNotesTheCallingThread) {
    const int set = Open();
    DeadlineThread([&] {
        const fake::Journal calls = SetCalls();
        EXPECT_EQ(0, KovaSharedMutexSetOwner(&m_Set));
        EXPECT_EQ((Texts{Semctl(set, "2 SETVAL", KovaGetPid()), Semctl(set, "3 SETVAL", KovaGetTid())}),
                  calls.Texts());
        EXPECT_EQ((Values{1, 1, KovaGetPid(), KovaGetTid(), 0}), ipc::Values(set));
        EXPECT_NE(KovaGetPid(), KovaGetTid());
    }).Join();
    ExpectRecords(m_Recorder, {});
    Close();
}

TEST_F(SharedMutexFunctions, ClearOwnerNotesNobody) {
    const int set = Open();
    EXPECT_EQ(0, KovaSharedMutexSetOwner(&m_Set));
    const fake::Journal calls = SetCalls();
    EXPECT_EQ(0, KovaSharedMutexClearOwner(&m_Set));
    EXPECT_EQ((Texts{Semctl(set, "2 SETVAL 0"), Semctl(set, "3 SETVAL 0")}), calls.Texts());
    EXPECT_EQ((Values{1, 1, 0, 0, 0}), ipc::Values(set));
    ExpectRecords(m_Recorder, {});
    Close();
}

TEST_F(SharedMutexFunctions, GetOwnerFillsTheCallersRecord) {
    const int set = Open();
    ipc::SetValue(set, 2, 4711);
    ipc::SetValue(set, 3, 4712);
    KovaPTid owner{1, 2};
    const fake::Journal calls = SetCalls();
    EXPECT_EQ(&owner, &KovaSharedMutexGetOwner(&m_Set, owner));
    EXPECT_EQ((Texts{Semctl(set, "2 GETVAL"), Semctl(set, "3 GETVAL")}), calls.Texts());
    EXPECT_EQ(4711, owner.pid);
    EXPECT_EQ(4712, owner.tid);
    ExpectRecords(m_Recorder, {});
    Close();
}

TEST_F(SharedMutexFunctions, OwnerThatCannotBeSetEndsTheProcess) {
    const int set = Open();
    for (int (*const change)(int*) : {KovaSharedMutexSetOwner, KovaSharedMutexClearOwner}) {
        ExpectFatal([=, this](TraceRecorder& recorder) {
            {
                const fake::Script fails(fake::semctl, {fake::Fail(EACCES), fake::Real()});
                EXPECT_EQ(0, change(&m_Set)) << "the result of the second call";
            }
            ExpectRecords(recorder, {{kOwnerNotSet, {set, EACCES}}, AbendAgain()});
            recorder.Clear();
            {
                const fake::Script fails(fake::semctl, {fake::Real(), fake::Fail(EACCES)});
                EXPECT_EQ(-1, change(&m_Set));
                EXPECT_EQ(EACCES, errno);
            }
            ExpectRecords(recorder, {{kOwnerNotSet, {set, EACCES}}, AbendAgain()});
        });
    }
    Close();
}

TEST_F(SharedMutexFunctions, OwnerThatCannotBeReadEndsTheProcess) {
    const int set = Open();
    EXPECT_EQ(0, KovaSharedMutexSetOwner(&m_Set));
    for (const int failing : {2, 3}) {
        ExpectFatal([=, this](TraceRecorder& recorder) {
            fake::Script fails(fake::semctl, {fake::Fail(EACCES)});
            Only(fails, GETVAL, failing);
            KovaPTid owner{};
            KovaSharedMutexGetOwner(&m_Set, owner);
            EXPECT_EQ(failing == 2 ? -1 : KovaGetPid(), owner.pid);
            EXPECT_EQ(failing == 3 ? -1 : KovaGetTid(), owner.tid);
            ExpectRecords(recorder, {{kOwnerNotRead, {set, EACCES}}, AbendAgain()});
        });
    }
    Close();
}

TEST_F(SharedMutexFunctions, SetPersistentSetsTheFlagForGood) {
    const int set = Open();
    {
        const fake::Journal calls = SetCalls();
        EXPECT_EQ(0, KovaSharedMutexSetPersistent(&m_Set));
        EXPECT_EQ((Texts{Semctl(set, "4 SETVAL 1")}), calls.Texts());
    }
    ExpectRecords(m_Recorder, {});
    EXPECT_EQ((Values{1, 1, 0, 0, 1}), ipc::Values(set));
    EXPECT_EQ(0, KovaSharedMutexSetPersistent(&m_Set));
    EXPECT_EQ(0, KovaSharedMutexLock(&m_Set));
    EXPECT_EQ(0, KovaSharedMutexUnlock(&m_Set));
    EXPECT_EQ((Values{1, 1, 0, 0, 1}), ipc::Values(set));
    RemoveSet();
}

TEST_F(SharedMutexFunctions, SetPersistentThatFailsEndsTheProcess) {
    const int set = Open();
    RemoveSet();
    ExpectFatal([=, this](TraceRecorder& recorder) {
        EXPECT_EQ(0, KovaSharedMutexSetPersistent(&m_Set));
        ExpectRecords(recorder, {{kNotPersistent, {set, EINVAL}}, AbendAgain()});
    });
}

TEST_F(SharedMutexFunctions, RefCounterIsTheNumberOfOpens) {
    const int set = Open();
    const fake::Journal calls = SetCalls();
    EXPECT_EQ(1, KovaSharedMutexGetRefCounter(&m_Set));
    EXPECT_EQ((Texts{Semctl(set, "1 GETVAL")}), calls.Texts());
    Open();
    EXPECT_EQ(2, KovaSharedMutexGetRefCounter(&m_Set));
    Close();
    EXPECT_EQ(1, KovaSharedMutexGetRefCounter(&m_Set));
    Close();
    m_Recorder.Clear();
    EXPECT_EQ(-1, KovaSharedMutexGetRefCounter(&m_Set));
    EXPECT_EQ(EINVAL, errno);
    ExpectRecords(m_Recorder, {});
}

// --- The class ---

/// A mutex whose error record is read after the mutex's own destructor.
class DyingMutex : private ErrorWitness, public KovaSharedMutex {
  public:
    DyingMutex(KeptError& kept, const char* name) : ErrorWitness(kept), KovaSharedMutex(name) {}
    void Fail(int code) { _SetError_("", 1, code); }
};

class SharedMutex : public SharedMutexFunctions {
  protected:
    static void ExpectError(const KovaSharedMutex& mutex, int code, const char* function) {
        EXPECT_EQ(code, mutex.GetError());
        EXPECT_STREQ(function, mutex.GetErrorFunction());
        EXPECT_NE(0, mutex.GetErrorLine());
    }
};

TEST_F(SharedMutex, OpensAndClosesTheSharedOne) {
    KeptError kept;
    {
        const fake::Journal calls = SetCalls();
        DyingMutex mutex(kept, kName);
        EXPECT_EQ(13u, calls.Texts().size()) << "one create";
        EXPECT_EQ(ipc::FindSet(kPath), mutex.GetHandle());
        EXPECT_EQ((Values{1, 1, 0, 0, 0}), ipc::Values(mutex.GetHandle()));
        EXPECT_STREQ(kName, mutex.GetName());
        EXPECT_EQ(0, mutex.GetError());
        EXPECT_EQ(nullptr, mutex.GetErrorFunction());
        EXPECT_EQ(1, mutex.GetRefCounter());
        const KovaSharedMutex second(kName);
        EXPECT_EQ(mutex.GetHandle(), second.GetHandle());
        EXPECT_EQ(2, mutex.GetRefCounter());
        mutex.Fail(EIO);
    }
    EXPECT_TRUE(ipc::Sets().empty());
    EXPECT_EQ(0, kept.code) << "cleared";
}

// The first set of a kernel has the id 0.
TEST_F(SharedMutex, OfTheSetZeroIsOpen) {
    const fake::Always gets(fake::semget, fake::Return(0));
    const fake::Always controls(fake::semctl, fake::Return(0));
    const fake::Always operations(fake::semop, fake::Return(0));
    EXPECT_EQ(0, KovaSharedMutexCreate(&m_Set, kName));
    EXPECT_EQ(0, m_Set);
    errno = kStale;
    const KovaSharedMutex mutex(kName);
    EXPECT_EQ(0, mutex.GetHandle());
    EXPECT_EQ(0, mutex.GetError());
    EXPECT_EQ(nullptr, mutex.GetErrorFunction());
}

TEST_F(SharedMutex, LocksAndUnlocks) {
    KovaSharedMutex mutex(kName);
    const int set = mutex.GetHandle();
    m_Recorder.Clear();
    EXPECT_TRUE(mutex.Lock());
    EXPECT_EQ((Values{0, 1, KovaGetPid(), KovaGetTid(), 0}), ipc::Values(set));
    EXPECT_TRUE(mutex.Unlock());
    EXPECT_EQ((Values{1, 1, 0, 0, 0}), ipc::Values(set));
    EXPECT_TRUE(mutex.Trylock());
    EXPECT_EQ((Values{0, 1, KovaGetPid(), KovaGetTid(), 0}), ipc::Values(set));
    EXPECT_TRUE(mutex.Unlock());
    ExpectRecords(m_Recorder, {{kLock, {set}}, {kUnlock, {set}}, {kUnlock, {set}}});
}

TEST_F(SharedMutex, TraceFlagSwitchesNothing) {
    KovaSharedMutex mutex(kName);
    const int set = mutex.GetHandle();
    for (const bool on : {false, true}) {
        mutex.SetTrace(on);
        m_Recorder.Clear();
        EXPECT_TRUE(mutex.Lock());
        EXPECT_TRUE(mutex.Unlock());
        ExpectRecords(m_Recorder, {{kLock, {set}}, {kUnlock, {set}}});
    }
}

TEST_F(SharedMutex, TracesFailuresFromItsConstructionOn) {
    KovaSharedMutex mutex(kName);
    const int set = mutex.GetHandle();
    ipc::SetValue(set, 0, 0);
    m_Recorder.Clear();
    EXPECT_FALSE(mutex.Trylock());
    ExpectRecords(m_Recorder, {{kTrylockFailed, {set, EAGAIN, 0, 0}}});
}

TEST_F(SharedMutex, TrylockOfABusyMutexIsRecorded) {
    KovaSharedMutex mutex(kName);
    Holder holder(mutex.GetHandle());
    EXPECT_FALSE(mutex.Trylock());
    ExpectError(mutex, 11, "bool KovaSharedMutex::Trylock()");
    EXPECT_EQ(EAGAIN, 11);
    holder.Release();
    EXPECT_TRUE(mutex.Trylock());
    EXPECT_EQ(0, mutex.GetError()) << "cleared";
    EXPECT_STREQ("bool KovaSharedMutex::Trylock()", mutex.GetErrorFunction());
    EXPECT_TRUE(mutex.Unlock());
}

TEST_F(SharedMutex, SuccessClearsTheRecord) {
    KeptError kept;
    DyingMutex mutex(kept, kName);
    for (bool (KovaSharedMutex::*const operation)() :
         {&KovaSharedMutex::Lock, &KovaSharedMutex::Unlock, &KovaSharedMutex::Trylock,
          &KovaSharedMutex::Unlock, &KovaSharedMutex::SetPersistent}) {
        mutex.Fail(EIO);
        EXPECT_TRUE((mutex.*operation)());
        EXPECT_EQ(0, mutex.GetError());
    }
    ipc::SetValue(mutex.GetHandle(), 4, 0);
}

TEST_F(SharedMutex, FailuresAreRecorded) {
    ExpectFatal([](TraceRecorder& recorder) {
        KeptError kept;
        {
            DyingMutex mutex(kept, kName);
            ipc::Remove(mutex.GetHandle());
            EXPECT_FALSE(mutex.Lock());
            ExpectError(mutex, EINVAL, "bool KovaSharedMutex::Lock()");
            EXPECT_FALSE(mutex.Unlock());
            ExpectError(mutex, EINVAL, "bool KovaSharedMutex::Unlock()");
            EXPECT_FALSE(mutex.Trylock());
            ExpectError(mutex, EINVAL, "bool KovaSharedMutex::Trylock()");
            // The function tells no failure.
            EXPECT_TRUE(mutex.SetPersistent());
            EXPECT_EQ(0, mutex.GetError());
            mutex.Fail(EIO);
            EXPECT_EQ(-1, mutex.GetRefCounter());
            EXPECT_EQ(EIO, mutex.GetError()) << "asking for the counter leaves the record alone";
        }
        EXPECT_EQ(EINVAL, kept.code);
        EXPECT_EQ("virtual KovaSharedMutex::~KovaSharedMutex()", kept.function);
        EXPECT_NE(0, kept.line);
        EXPECT_TRUE(recorder.Has(kLockFailed));
    });
}

TEST_F(SharedMutex, FailedUnlockIsRecorded) {
    KovaSharedMutex mutex(kName);
    EXPECT_TRUE(mutex.Lock());
    fake::Script fails(fake::semctl, {fake::Fail(EACCES)});
    Only(fails, SETVAL, 0);
    EXPECT_FALSE(mutex.Unlock());
    ExpectError(mutex, EACCES, "bool KovaSharedMutex::Unlock()");
}

TEST_F(SharedMutex, UnlockOfAMutexThatIsNotHeldIsRecorded) {
    ExpectFatal([](TraceRecorder& recorder) {
        KovaSharedMutex mutex(kName);
        recorder.Clear();
        errno = kStale;
        EXPECT_FALSE(mutex.Unlock());
        ExpectError(mutex, EPERM, "bool KovaSharedMutex::Unlock()");
        EXPECT_EQ(1u, recorder.Count(kUnlockByStranger));
    });
}

TEST_F(SharedMutex, FailedCreationIsRecorded) {
    ExpectFatal([](TraceRecorder&) {
        KeptError kept;
        {
            const fake::Script fails(fake::semget, {fake::Fail(ENOSPC), fake::Fail(ENOENT)});
            DyingMutex mutex(kept, kName);
            ExpectError(mutex, ENOENT, "KovaSharedMutex::KovaSharedMutex(const char*)");
            EXPECT_EQ(-1, mutex.GetHandle());
            EXPECT_STREQ(kName, mutex.GetName());
            EXPECT_EQ(-1, mutex.GetRefCounter());
        }
        EXPECT_EQ(EINVAL, kept.code) << "closing what was never open";
        EXPECT_EQ("virtual KovaSharedMutex::~KovaSharedMutex()", kept.function);
    });
}

TEST_F(SharedMutex, NameIsCutTo64Characters) {
    for (const size_t length : {size_t{0}, size_t{1}, size_t{63}, size_t{64}, size_t{65}, size_t{300}}) {
        SCOPED_TRACE(length);
        const WorkingDirectory here("/tmp/here");
        const std::string name(length, 'n');
        const std::string kept = name.substr(0, 64);
        const KovaSharedMutex mutex(name.c_str());
        EXPECT_EQ(kept, std::string(mutex.GetName(), ::strnlen(mutex.GetName(), 64)));
        const std::string directory = length == 0 ? "/tmp/here/" : "/tmp/kova/";
        EXPECT_EQ(mutex.GetHandle(), ipc::FindSet(directory + kept + ".kovamtx"));
    }
}

TEST_F(SharedMutex, NullNameIsTheEmptyName) {
    const WorkingDirectory here("/tmp/here");
    const KovaSharedMutex mutex(nullptr);
    EXPECT_STREQ("", mutex.GetName());
    EXPECT_EQ(mutex.GetHandle(), ipc::FindSet("/tmp/here/.kovamtx"));
}

}  // namespace
