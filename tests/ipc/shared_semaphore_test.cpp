// The shared semaphore within one process: its calls, its records, its traces and its failures.

#include "ipc/ipc_sets.h"
#include "support/fake_libc.h"
#include "support/own_machine.h"
#include "support/signal_storm.h"
#include "support/trace_recorder.h"
#include "sync/locks.h"

#include <kova/shared_mutex.h>
#include <kova/shared_rwlock.h>
#include <kova/shared_semaphore.h>

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <iostream>
#include <limits>
#include <memory>
#include <new>
#include <sstream>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

using Texts = std::vector<std::string>;
using Values = std::vector<int>;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr const char* kNoFile = "key file=%s cannot be made, errno=%d";
constexpr const char* kNoKey = "key file=%s has no key, errno=%d";
constexpr const char* kOpenFailed = "lock of key file=%s fd=%d errno=%d";
constexpr const char* kLockFailed = "lock of key file fd=%d errno=%d";
constexpr const char* kUnlockFailed = "unlock of key file fd=%d errno=%d";
constexpr const char* kUnlocked = "unlocked key file fd=%d";
constexpr const char* kNewSet = "new set=%d count=%d";
constexpr const char* kExistingSet = "existing set=%d count=%d";
constexpr const char* kHalfMade = "set=%d was left half made";
constexpr const char* kInitialValues = "initial values of set=%d";
constexpr const char* kNoSet = "no set key=%x count=%d errno=%d";
constexpr const char* kInterrupted = "semop set=%d interrupted";
constexpr const char* kNotClosed = "set=%d not closed, errno=%d";
constexpr const char* kStaysOpen = "set=%d stays open, references=%d";
constexpr const char* kIsPersistent = "set=%d is persistent, references=%d";
constexpr const char* kRemoved = "removed set=%d result=%d";
constexpr const char* kPersistentFailed = "persistent set=%d errno=%d";
constexpr const char* kTriedAgain = "semop set=%d tried again";
constexpr const char* kWaitFailed = "wait set=%d pos=%u errno=%d";
constexpr const char* kWouldWait = "try wait set=%d pos=%u would wait";
constexpr const char* kTryWaitFailed = "try wait set=%d pos=%u errno=%d";
constexpr const char* kTimeOver = "timed wait set=%d pos=%u ms=%d over";
constexpr const char* kTimedWaitFailed = "timed wait set=%d pos=%u ms=%d errno=%d";
constexpr const char* kTriggerOver = "trigger set=%d pos=%u level=%u time over";
constexpr const char* kTriggerFailed = "trigger set=%d pos=%u level=%u errno=%d";
constexpr const char* kPostFailed = "post set=%d pos=%u errno=%d";
constexpr const char* kSetValueFailed = "set value set=%d pos=%u errno=%d";
constexpr const char* kGetValueFailed = "get value set=%d pos=%u errno=%d";

constexpr const char* kName = "s";
constexpr const char* kPath = "/tmp/kova/s.kovasem";
constexpr int kMax = std::numeric_limits<int32_t>::max();
constexpr int kMin = std::numeric_limits<int32_t>::min();
/// The largest value of a semaphore.
constexpr int kMostUnits = 32767;
/// An errno that no call here leaves.
constexpr int kStale = ENOTTY;
/// Positions that no set has, and which would be those of another semaphore in 16 bits: of the reference
/// counter, the persistent flag, the first position and so on.
constexpr unsigned kWrappingPositions[] = {65534,      65535,      65536,      65537,      131070,
                                           2147483646, 2147483647, 2147483648, 4294967294, 4294967295};

/// What the library's calls of pabend passed.
std::vector<std::array<uint32_t, 3>> g_AbendWords;

}  // namespace

void pabend(uint32_t a, uint32_t b, uint32_t c) {
    g_AbendWords.push_back({a, b, c});
    reinterpret_cast<void (*)(uint32_t, uint32_t, uint32_t)>(::dlsym(RTLD_NEXT, "pabend"))(a, b, c);
}

namespace {

static_assert(
    std::is_same_v<int (*)(int*, const char*, const int*, int), decltype(&KovaSharedSemaphoreNCreate)>);
static_assert(std::is_same_v<int (*)(int*, const char*, int), decltype(&KovaSharedSemaphoreCreate)>);
static_assert(std::is_same_v<int (*)(int*, const char*), decltype(&KovaSharedSemaphoreDestroy)>);
static_assert(std::is_same_v<int (*)(int*, int, unsigned), decltype(&KovaSharedSemaphoreWait)>);
static_assert(std::is_same_v<int (*)(int*, int, unsigned), decltype(&KovaSharedSemaphoreTryWait)>);
static_assert(std::is_same_v<int (*)(int*, int, int, unsigned), decltype(&KovaSharedSemaphoreTimedWait)>);
static_assert(std::is_same_v<int (*)(int*, unsigned), decltype(&KovaSharedSemaphorePost)>);
static_assert(std::is_same_v<int (*)(int*), decltype(&KovaSharedSemaphorePostMultiEvent)>);
static_assert(
    std::is_same_v<int (*)(int*, unsigned, unsigned, unsigned), decltype(&KovaSharedSemaphoreTriggerOnPos)>);
static_assert(std::is_same_v<int (*)(int*, unsigned, unsigned), decltype(&KovaSharedSemaphoreTrigger)>);
static_assert(std::is_same_v<int (*)(int*, unsigned), decltype(&KovaSharedSemaphoreGetValOnPos)>);
static_assert(std::is_same_v<int (*)(int*), decltype(&KovaSharedSemaphoreGetVal)>);
static_assert(std::is_same_v<int (*)(int*, unsigned, int), decltype(&KovaSharedSemaphoreSetValOnPos)>);
static_assert(std::is_same_v<int (*)(int*, int), decltype(&KovaSharedSemaphoreSetVal)>);
static_assert(std::is_same_v<int (*)(int*), decltype(&KovaSharedSemaphoreGetNoOfWaiters)>);
static_assert(std::is_same_v<int (*)(int*), decltype(&KovaSharedSemaphoreGetRefCounter)>);
static_assert(std::is_same_v<int (*)(int*), decltype(&KovaSharedSemaphoreSetPersistent)>);
static_assert(std::is_same_v<int (*)(const char*), decltype(&KovaSharedSemaphoreCDLock)>);
static_assert(std::is_same_v<int (*)(int), decltype(&KovaSharedSemaphoreCDUnlock)>);
static_assert(std::is_same_v<int (*)(int, sembuf*, unsigned, const timespec*), decltype(&KovaSemTimedOp)>);
static_assert(std::is_base_of_v<KovaBaseObject, KovaSharedSemaphore>);
static_assert(std::has_virtual_destructor_v<KovaSharedSemaphore>);
static_assert(!std::is_copy_constructible_v<KovaSharedSemaphore>);
static_assert(!std::is_copy_assignable_v<KovaSharedSemaphore>);
static_assert(
    std::is_same_v<decltype(&KovaSharedSemaphore::Wait), bool (KovaSharedSemaphore::*)(int, unsigned)>);
static_assert(
    std::is_same_v<decltype(&KovaSharedSemaphore::TryWait), bool (KovaSharedSemaphore::*)(int, unsigned)>);
static_assert(std::is_same_v<decltype(&KovaSharedSemaphore::TimedWait),
                             bool (KovaSharedSemaphore::*)(int, int, unsigned)>);
static_assert(std::is_same_v<decltype(&KovaSharedSemaphore::Trigger),
                             bool (KovaSharedSemaphore::*)(unsigned, unsigned, int)>);
static_assert(std::is_same_v<decltype(&KovaSharedSemaphore::Post), bool (KovaSharedSemaphore::*)(unsigned)>);
static_assert(
    std::is_same_v<decltype(&KovaSharedSemaphore::SetVal), bool (KovaSharedSemaphore::*)(int, unsigned)>);
static_assert(std::is_same_v<decltype(&KovaSharedSemaphore::GetVal), int (KovaSharedSemaphore::*)(unsigned)>);
static_assert(std::is_same_v<decltype(&KovaSharedSemaphore::GetRefCounter), int (KovaSharedSemaphore::*)()>);
static_assert(std::is_same_v<decltype(&KovaSharedSemaphore::GetNoOfWaiters), int (KovaSharedSemaphore::*)()>);
static_assert(std::is_same_v<decltype(&KovaSharedSemaphore::SetPersistent), bool (KovaSharedSemaphore::*)()>);

/// The descriptor that the next `open` gives.
int NextFd() {
    const Fd next(fake::open.Real("/dev/null", O_RDONLY | O_CLOEXEC, 0));
    return next.Get();
}

/// The same in a process of RunInChild, which has some more open.
int NextFdInChild() {
    const ChildResult child = RunInChild([] { std::cout << NextFd() << std::flush; });
    return std::atoi(child.output.c_str());
}

std::string KeyText(const std::string& path) {
    std::ostringstream text;
    text << "0x" << std::hex << static_cast<unsigned>(ipc::KeyOf(path));
    return text.str();
}

/// The text of a call for a set: `semop` and "[2 -1]" for example.
std::string CallFor(const char* function, int set, const std::string& rest) {
    return std::string(function) + " " + std::to_string(set) + " " + rest;
}
std::string Semop(int set, const std::string& rest) { return CallFor("semop", set, rest); }
std::string Semtimedop(int set, const std::string& rest) { return CallFor("semtimedop", set, rest); }
std::string Semctl(int set, const std::string& rest) { return CallFor("semctl", set, rest); }

/// The calls that concern sets and key files.
class SetJournal : public fake::Journal {
  public:
    SetJournal()
        : fake::Journal({&fake::fopen, &fake::ftok, &fake::open, &fake::fcntl, &fake::close, &fake::semget,
                         &fake::semctl, &fake::semop, &fake::semtimedop},
                        fake::kThisThread) {}
};

/// What comes before the work of a create or a destroy whose key file exists, and what comes after it.
Texts UnderTheLock(const std::string& path, bool with_key, Texts work) {
    Texts texts;
    if (with_key) texts.push_back("ftok " + path + " 80");
    texts.push_back("open " + path + " O_RDWR");
    texts.push_back("fcntl F_SETLKW F_WRLCK SEEK_SET {0, 0}");
    for (std::string& text : work) texts.push_back(std::move(text));
    texts.push_back("fcntl F_SETLK F_UNLCK SEEK_SET {0, 0}");
    texts.push_back("close");
    return texts;
}

/// Fails the semctl calls of one command.
class FailingControl {
  public:
    FailingControl(int command, int error) : m_Calls(fake::semctl, fake::Fail(error), fake::kThisThread) {
        m_Calls.When([command](int, int, int given, long) { return given == command; });
    }
    size_t Calls() const { return m_Calls.Calls(); }

  private:
    fake::Always<int(int, int, int, long)> m_Calls;
};

/// The records of one trace point that holds a text: its other values.
std::vector<uint32_t> ValuesAfterText(const TraceRecorder& recorder, const char* text) {
    const std::vector<TraceRecord> records = recorder.Find(text);
    EXPECT_EQ(1u, records.size()) << text;
    if (records.size() != 1) return {};
    return {records[0].values.begin() + 1, records[0].values.end()};
}

std::vector<uint32_t> Words(std::initializer_list<int> numbers) {
    std::vector<uint32_t> words;
    for (const int number : numbers) words.push_back(static_cast<uint32_t>(number));
    return words;
}

// --- Creation ---

class SharedSemaphoreCreation : public ipc::Test {
  protected:
    /// Creates with two positions, and expects it to be possible.
    int Create(const int (&inits)[2] = {3, 0}) {
        int handle = -1;
        EXPECT_LE(0, KovaSharedSemaphoreNCreate(&handle, kName, inits, 2));
        return handle;
    }
    static void Destroy(int handle, const char* name = kName) {
        EXPECT_EQ(0, KovaSharedSemaphoreDestroy(&handle, name));
    }

    TraceRecorder m_Recorder;
};

TEST_F(SharedSemaphoreCreation, AndAllOtherFunctionsAreExportedUnderPlainNames) {
    for (const char* name : {"KovaSharedSemaphoreNCreate",        "KovaSharedSemaphoreCreate",
                             "KovaSharedSemaphoreDestroy",        "KovaSharedSemaphoreWait",
                             "KovaSharedSemaphoreTryWait",        "KovaSharedSemaphoreTimedWait",
                             "KovaSharedSemaphorePost",           "KovaSharedSemaphorePostMultiEvent",
                             "KovaSharedSemaphoreTriggerOnPos",   "KovaSharedSemaphoreTrigger",
                             "KovaSharedSemaphoreGetValOnPos",    "KovaSharedSemaphoreGetVal",
                             "KovaSharedSemaphoreSetValOnPos",    "KovaSharedSemaphoreSetVal",
                             "KovaSharedSemaphoreGetNoOfWaiters", "KovaSharedSemaphoreGetRefCounter",
                             "KovaSharedSemaphoreSetPersistent",  "KovaSharedSemaphoreCDLock",
                             "KovaSharedSemaphoreCDUnlock",       "KovaSemTimedOp"}) {
        EXPECT_NE(nullptr, ::dlsym(RTLD_DEFAULT, name)) << name;
    }
}

TEST_F(SharedSemaphoreCreation, MakesAKeyFileAndASetOfTwoMorePositions) {
    int handle = 4711;
    const int inits[] = {3, 0};
    const int fd = NextFd();
    Texts calls;
    int result = -1;
    {
        const SetJournal journal;
        result = KovaSharedSemaphoreNCreate(&handle, kName, inits, 2);
        calls = journal.Texts();
    }
    ASSERT_LE(0, result);
    EXPECT_EQ(result, handle);
    Texts wanted =
        UnderTheLock(kPath, true,
                     {"semget " + KeyText(kPath) + " 4 IPC_CREAT|IPC_EXCL|0666", Semctl(handle, "0 SETVAL 0"),
                      Semctl(handle, "1 SETVAL 0"), Semctl(handle, "2 SETVAL 3"),
                      Semctl(handle, "3 SETVAL 0"), Semop(handle, "[0 +1 IPC_NOWAIT|SEM_UNDO]")});
    wanted.insert(wanted.begin(), "fopen " + std::string(kPath) + " w");
    EXPECT_EQ(wanted, calls);
    ExpectRecords(m_Recorder, {{kNewSet, {handle, 2}}, {kInitialValues, {handle}}, {kUnlocked, {fd}}});
    EXPECT_EQ((Values{1, 0, 3, 0}), ipc::Values(handle));
    EXPECT_EQ(3, KovaSharedSemaphoreGetVal(&handle));
    EXPECT_EQ(0, KovaSharedSemaphoreGetValOnPos(&handle, 1));
    EXPECT_EQ(1, KovaSharedSemaphoreGetRefCounter(&handle));
    ASSERT_EQ(1u, ipc::Sets().size());
    EXPECT_EQ(0666, ipc::Sets()[0].mode);
    EXPECT_EQ(4, ipc::Sets()[0].size);
    EXPECT_EQ(ipc::KeyOf(kPath), ipc::Sets()[0].key);
    struct stat status {};
    EXPECT_EQ(0, ::stat(kPath, &status));
    EXPECT_EQ(0, status.st_size);
    Destroy(handle);
    EXPECT_EQ(0, ::stat(kPath, &status)) << "key files stay";
}

TEST_F(SharedSemaphoreCreation, CompletesASetThatItsMakerLeftHalfMade) {
    Destroy(Create());
    // Killed behind some of the calls: nobody has operated on it. It has one position more.
    const int left = fake::semget.Real(ipc::KeyOf(kPath), 5, IPC_CREAT | 0666);
    ipc::SetValue(left, 1, 1);
    ipc::SetValue(left, 3, 9);
    ipc::SetValue(left, 4, 7);
    m_Recorder.Clear();
    const int fd = NextFd();
    int handle = -1;
    const int inits[] = {3, 5};
    Texts calls;
    {
        const SetJournal journal;
        EXPECT_EQ(left, KovaSharedSemaphoreNCreate(&handle, kName, inits, 2));
        calls = journal.Texts();
    }
    EXPECT_EQ(left, handle);
    EXPECT_EQ(
        UnderTheLock(kPath, true,
                     {"semget " + KeyText(kPath) + " 4 IPC_CREAT|IPC_EXCL|0666",
                      "semget " + KeyText(kPath) + " 4 IPC_EXCL|0666", Semctl(left, "0 IPC_STAT"),
                      Semctl(left, "0 SETVAL 0"), Semctl(left, "1 SETVAL 0"), Semctl(left, "2 SETVAL 3"),
                      Semctl(left, "3 SETVAL 5"), Semop(left, "[0 +1 IPC_NOWAIT|SEM_UNDO]")}),
        calls);
    ExpectRecords(m_Recorder, {{kExistingSet, {left, 2}},
                               {kHalfMade, {left}},
                               {kNewSet, {left, 2}},
                               {kInitialValues, {left}},
                               {kUnlocked, {fd}}});
    EXPECT_EQ((Values{1, 0, 3, 5, 7}), ipc::Values(left));
    Destroy(left);
}

TEST_F(SharedSemaphoreCreation, DoesNotCompleteASetThatWasUsedOrTellsNothing) {
    Destroy(Create());
    const int set = fake::semget.Real(ipc::KeyOf(kPath), 4, IPC_CREAT | 0666);
    {
        const FailingControl states(IPC_STAT, EACCES);
        EXPECT_EQ(set, Create({3, 5}));
        EXPECT_EQ(1u, states.Calls());
    }
    EXPECT_EQ((Values{1, 0, 0, 0}), ipc::Values(set));
    EXPECT_EQ(set, Create({3, 5})) << "counted, and so used";
    EXPECT_EQ((Values{2, 0, 0, 0}), ipc::Values(set));
    EXPECT_EQ(0u, m_Recorder.Count(kHalfMade));
    Destroy(set);
    Destroy(set);
}

TEST_F(SharedSemaphoreCreation, OpensTheSetThatExistsAndLeavesItsValues) {
    const int first = Create({3, 0});
    ipc::SetValue(first, 3, 9);
    m_Recorder.Clear();
    int handle = -1;
    const int inits[] = {7, 8};
    const int fd = NextFd();
    Texts calls;
    {
        const SetJournal journal;
        errno = kStale;
        EXPECT_EQ(first, KovaSharedSemaphoreNCreate(&handle, kName, inits, 2));
        calls = journal.Texts();
    }
    EXPECT_EQ(first, handle);
    EXPECT_EQ(UnderTheLock(kPath, true,
                           {"semget " + KeyText(kPath) + " 4 IPC_CREAT|IPC_EXCL|0666",
                            "semget " + KeyText(kPath) + " 4 IPC_EXCL|0666", Semctl(handle, "0 IPC_STAT"),
                            Semop(handle, "[0 +1 IPC_NOWAIT|SEM_UNDO]")}),
              calls);
    ExpectRecords(m_Recorder, {{kExistingSet, {handle, 2}}, {kUnlocked, {fd}}});
    EXPECT_EQ((Values{2, 0, 3, 9}), ipc::Values(handle));
    Destroy(handle);
    Destroy(handle);
}

TEST_F(SharedSemaphoreCreation, OpensALargerSetButNoSmallerOne) {
    const int first = Create();
    int handle = -1;
    EXPECT_EQ(first, KovaSharedSemaphoreNCreate(&handle, kName, nullptr, 0));
    EXPECT_EQ((Values{2, 0, 3, 0}), ipc::Values(handle));
    Destroy(handle);
    const int inits[] = {1, 1, 1};
    m_Recorder.Clear();
    ExpectAbend([&] { KovaSharedSemaphoreNCreate(&handle, kName, inits, 3); },
                {{kExistingSet, {-1, 3}},
                 {kUnlocked, {NextFdInChild()}},
                 {kNoSet, {static_cast<int>(ipc::KeyOf(kPath)), 3, EINVAL}}});
    EXPECT_EQ((Values{1, 0, 3, 0}), ipc::Values(first));
    Destroy(first);
}

TEST_F(SharedSemaphoreCreation, OfOnePositionIsTheShortForm) {
    int handle = -1;
    EXPECT_LE(0, KovaSharedSemaphoreCreate(&handle, kName, 5));
    EXPECT_EQ(ipc::FindSet(kPath), handle);
    EXPECT_EQ((Values{1, 0, 5}), ipc::Values(handle));
    int second = -1;
    EXPECT_EQ(handle, KovaSharedSemaphoreCreate(&second, kName, 6));
    EXPECT_EQ(handle, second);
    EXPECT_EQ((Values{2, 0, 5}), ipc::Values(handle));
    Destroy(handle);
    Destroy(handle);
}

TEST_F(SharedSemaphoreCreation, OfNoPositionNeedsNoValues) {
    int handle = -1;
    EXPECT_LE(0, KovaSharedSemaphoreNCreate(&handle, kName, nullptr, 0));
    EXPECT_EQ((Values{1, 0}), ipc::Values(handle));
    EXPECT_EQ(-1, KovaSharedSemaphoreGetVal(&handle));
    EXPECT_EQ(EINVAL, errno);
    Destroy(handle);
}

TEST_F(SharedSemaphoreCreation, TakesTheLargestValues) {
    const int handle = Create({kMostUnits, kMostUnits - 1});
    EXPECT_EQ((Values{1, 0, kMostUnits, kMostUnits - 1}), ipc::Values(handle));
    Destroy(handle);
}

TEST_F(SharedSemaphoreCreation, OfManyPositionsFillsThemAll) {
    const std::vector<int> inits = [] {
        std::vector<int> values;
        for (int p = 0; p < 200; ++p) values.push_back(p * 3);
        return values;
    }();
    int handle = -1;
    EXPECT_LE(0, KovaSharedSemaphoreNCreate(&handle, kName, inits.data(), static_cast<int>(inits.size())));
    Values wanted{1, 0};
    wanted.insert(wanted.end(), inits.begin(), inits.end());
    EXPECT_EQ(wanted, ipc::Values(handle));
    Destroy(handle);
}

TEST_F(SharedSemaphoreCreation, IsApartFromTheMutexOfTheSameName) {
    const int handle = Create();
    int mutex = -1;
    EXPECT_LE(0, KovaSharedMutexCreate(&mutex, kName));
    EXPECT_NE(handle, mutex);
    EXPECT_EQ(2u, ipc::Sets().size());
    EXPECT_EQ(0, KovaSharedMutexDestroy(&mutex, kName));
    Destroy(handle);
}

TEST_F(SharedSemaphoreCreation, IsCountedWhateverComesOfTheCount) {
    fake::Script operations(fake::semop, {fake::Fail(EIDRM)}, fake::kThisThread);
    const int handle = Create();
    EXPECT_EQ((Values{0, 0, 3, 0}), ipc::Values(handle));
    EXPECT_EQ(0u, m_Recorder.Count(kNoSet));
    ipc::Remove(handle);
}

TEST_F(SharedSemaphoreCreation, CountIsRepeatedAfterASignal) {
    const int fd = NextFd();
    int handle = -1;
    {
        fake::Script operations(fake::semop, {fake::Fail(EINTR), fake::Fail(EINTR), fake::Real()},
                                fake::kThisThread);
        handle = Create();
    }
    EXPECT_EQ(1, ipc::Value(handle, 0));
    ExpectRecords(m_Recorder, {{kNewSet, {handle, 2}},
                               {kInitialValues, {handle}},
                               {kInterrupted, {handle}},
                               {kInterrupted, {handle}},
                               {kUnlocked, {fd}}});
    Destroy(handle);
}

// --- Names ---

class SharedSemaphoreName : public SharedSemaphoreCreation {
  protected:
    /// The key file that a name leads to, which is then deleted with its set.
    static std::string PathOf(const std::string& name) {
        int handle = -1;
        std::string path;
        {
            const fake::Journal journal({&fake::ftok}, fake::kThisThread);
            EXPECT_LE(0, KovaSharedSemaphoreCreate(&handle, name.c_str(), 0));
            path = journal.Texts().at(0);
        }
        Destroy(handle, name.c_str());
        path = path.substr(5, path.rfind(' ') - 5);
        EXPECT_TRUE(std::filesystem::exists(path)) << path;
        std::filesystem::remove(path);
        return path;
    }
};

TEST_F(SharedSemaphoreName, OfMoreThan64CharactersIsItsFirst64) {
    const std::string longest(64, 'n');
    EXPECT_EQ("/tmp/kova/" + longest.substr(1) + ".kovasem", PathOf(longest.substr(1)));
    EXPECT_EQ("/tmp/kova/" + longest + ".kovasem", PathOf(longest));
    EXPECT_EQ("/tmp/kova/" + longest + ".kovasem", PathOf(longest + "m"));
    EXPECT_EQ("/tmp/kova/" + longest + ".kovasem", PathOf(longest + std::string(10000, 'm')));
}

TEST_F(SharedSemaphoreName, MayNameAVariableOfTheEnvironment) {
    ::setenv("KOVA_TEST_NAME", "expanded", 1);
    ::unsetenv("KOVA_TEST_NO_NAME");
    EXPECT_EQ("/tmp/kova/expanded.kovasem", PathOf("$KOVA_TEST_NAME"));
    EXPECT_EQ("/tmp/kova/$KOVA_TEST_NO_NAME.kovasem", PathOf("$KOVA_TEST_NO_NAME"));
    EXPECT_EQ("/tmp/kova/$.kovasem", PathOf("$"));
    ::unsetenv("KOVA_TEST_NAME");
}

TEST_F(SharedSemaphoreName, MayBeAPath) {
    EXPECT_EQ("/tmp/kova/below/s.kovasem", PathOf("below/s"));
    EXPECT_EQ("/tmp/kova/voxa.d/s.kovasem", PathOf("/tmp/kova/voxa.d/s"));
}

TEST_F(SharedSemaphoreName, WithADotKeepsIt) { EXPECT_EQ("/tmp/kova/a.b.kovasem", PathOf("a.b")); }

// --- Bounds of the creation ---

class SharedSemaphoreCount : public SharedSemaphoreCreation {
  protected:
    static constexpr int kImpossible[] = {-1, -2, -3, kMin, kMin + 1, kMax, kMax - 1, 65535, 65534, 32000};
};

TEST_F(SharedSemaphoreCount, BelowZeroOrTooLargeEndsTheProcess) {
    const std::vector<int> inits(65536, 1);
    for (const int count : {-1, kMin, kMax, 65535, 32000}) {
        SCOPED_TRACE(count);
        int handle = 4711;
        TraceRecorder recorder;
        const ChildResult child =
            RunInChild([&] { KovaSharedSemaphoreNCreate(&handle, kName, inits.data(), count); });
        EXPECT_EQ(SIGABRT, child.signal) << testing::PrintToString(child);
        EXPECT_TRUE(recorder.Has(
            kNoSet, {static_cast<uint32_t>(ipc::KeyOf(kPath)), static_cast<uint32_t>(count), EINVAL}));
        EXPECT_EQ(0u, recorder.Count(kNewSet));
        EXPECT_TRUE(ipc::Sets().empty());
    }
}

TEST_F(SharedSemaphoreCount, BelowZeroOrTooLargeGivesNoSet) {
    const std::vector<int> inits(65536, 1);
    WhileAborting([&] {
        for (const int count : kImpossible) {
            SCOPED_TRACE(count);
            int handle = 4711;
            errno = 0;
            EXPECT_EQ(-1, KovaSharedSemaphoreNCreate(&handle, kName, inits.data(), count));
            EXPECT_EQ(EINVAL, errno);
            EXPECT_EQ(-1, handle);
        }
    });
    EXPECT_TRUE(ipc::Sets().empty());
}

TEST_F(SharedSemaphoreCount, OfWhichSomePositionsHaveNoNumberIsNotAskedFor) {
    const std::vector<int> inits(65536, 1);
    WhileAborting([&] {
        fake::Always sets(fake::semget, fake::Fail(ENOSPC), fake::kThisThread);
        int handle = -1;
        for (const int count : {-1, -2, kMin, 65535, kMax, kMax - 1}) {
            EXPECT_EQ(-1, KovaSharedSemaphoreNCreate(&handle, kName, inits.data(), count));
            EXPECT_EQ(EINVAL, errno);
            EXPECT_EQ(0u, sets.Calls()) << count;
        }
        const fake::Journal journal({&fake::semget}, fake::kThisThread);
        EXPECT_EQ(-1, KovaSharedSemaphoreNCreate(&handle, kName, inits.data(), 65534));
        EXPECT_EQ("semget " + KeyText(kPath) + " 65536 IPC_CREAT|IPC_EXCL|0666", journal.Texts().at(0));
    });
}

TEST_F(SharedSemaphoreCount, WithoutValuesIsRefused) {
    WhileAborting([&] {
        int handle = 4711;
        EXPECT_EQ(-1, KovaSharedSemaphoreNCreate(&handle, kName, nullptr, 1));
        EXPECT_EQ(EINVAL, errno);
        EXPECT_EQ(-1, handle);
    });
    EXPECT_TRUE(ipc::Sets().empty());
}

TEST_F(SharedSemaphoreCount, OfAnObjectBelowZeroOrTooLargeGivesNoSet) {
    const std::vector<int> inits(65536, 1);
    WhileAborting([&] {
        // Memory for more positions than a set can have is not even asked for.
        const fake::Replace arrays(
            fake::new_array_nothrow,
            [](size_t size, const std::nothrow_t& nothrow) {
                EXPECT_LE(size, 65536 * sizeof(int));
                return size <= 65536 * sizeof(int) ? fake::new_array_nothrow.Real(size, nothrow) : nullptr;
            },
            fake::kThisThread);
        for (const int count : kImpossible) {
            SCOPED_TRACE(count);
            const KovaSharedSemaphore one(kName, 1, count);
            EXPECT_EQ(-1, one.GetHandle());
            EXPECT_EQ(EINVAL, one.GetError());
            const KovaSharedSemaphore other(kName, inits.data(), count);
            EXPECT_EQ(-1, other.GetHandle());
            EXPECT_EQ(EINVAL, other.GetError());
        }
    });
    EXPECT_TRUE(ipc::Sets().empty());
}

// --- Failures of the creation ---

class SharedSemaphoreCreationFailure : public SharedSemaphoreCreation {
  protected:
    SharedSemaphoreCreationFailure() {
        // The key file, so that it exists.
        Destroy(Create());
        m_Recorder.Clear();
    }

    int Key() const { return static_cast<int>(ipc::KeyOf(kPath)); }

    /// What a failing create leaves in *handle, and what it returns, on a thread that is aborting.
    static void ExpectNone(int error) {
        int handle = 4711;
        const int inits[] = {3, 0};
        errno = kStale;
        EXPECT_EQ(-1, KovaSharedSemaphoreNCreate(&handle, kName, inits, 2));
        EXPECT_EQ(error, errno);
        EXPECT_EQ(-1, handle);
        handle = 4711;
        EXPECT_EQ(-1, KovaSharedSemaphoreCreate(&handle, kName, 1));
        EXPECT_EQ(-1, handle);
    }
    static void TryToCreate() {
        int handle = -1;
        const int inits[] = {3, 0};
        KovaSharedSemaphoreNCreate(&handle, kName, inits, 2);
    }
};

TEST_F(SharedSemaphoreCreationFailure, OfTheKeyFileEndsTheProcess) {
    std::filesystem::remove(kPath);
    const TraceRecorder recorder;
    const ChildResult child = RunInChild([&] {
        const fake::Always files(fake::fopen, fake::Fail(EACCES), fake::kThisThread);
        TryToCreate();
    });
    EXPECT_EQ(SIGABRT, child.signal);
    EXPECT_EQ(Words({EACCES}), ValuesAfterText(recorder, kNoFile));
    EXPECT_EQ(1u, recorder.Count(kAbend));
    WhileAborting([&] {
        const fake::Always files(fake::fopen, fake::Fail(EACCES), fake::kThisThread);
        const SetJournal journal;
        ExpectNone(EACCES);
        EXPECT_EQ(0u, journal.Count(fake::ftok) + journal.Count(fake::open) + journal.Count(fake::semget));
    });
}

TEST_F(SharedSemaphoreCreationFailure, OfTheKeyEndsTheProcess) {
    const TraceRecorder recorder;
    const ChildResult child = RunInChild([&] {
        const fake::Always keys(fake::ftok, fake::Fail(ENOENT), fake::kThisThread);
        TryToCreate();
    });
    EXPECT_EQ(SIGABRT, child.signal);
    EXPECT_EQ(Words({ENOENT}), ValuesAfterText(recorder, kNoKey));
    EXPECT_EQ(2u, recorder.All().size());
    WhileAborting([&] {
        const fake::Always keys(fake::ftok, fake::Fail(ENOENT), fake::kThisThread);
        const SetJournal journal;
        ExpectNone(ENOENT);
        EXPECT_EQ(0u, journal.Count(fake::open) + journal.Count(fake::semget));
    });
}

TEST_F(SharedSemaphoreCreationFailure, OfTheLockEndsTheProcess) {
    const int fd = NextFdInChild();
    const TraceRecorder recorder;
    const ChildResult child = RunInChild([&] {
        const fake::Always files(fake::open, fake::Fail(EMFILE), fake::kThisThread);
        TryToCreate();
    });
    EXPECT_EQ(SIGABRT, child.signal);
    EXPECT_EQ(Words({-1, EMFILE}), ValuesAfterText(recorder, kOpenFailed));
    EXPECT_EQ(2u, recorder.All().size());
    ExpectAbend(
        [&] {
            const fake::Always locks(fake::fcntl, fake::Fail(ENOLCK), fake::kThisThread);
            TryToCreate();
        },
        {{kLockFailed, {fd, ENOLCK}}});
    WhileAborting([&] {
        const SetJournal journal;
        {
            const fake::Always files(fake::open, fake::Fail(EMFILE), fake::kThisThread);
            ExpectNone(EMFILE);
        }
        {
            const fake::Always locks(fake::fcntl, fake::Fail(ENOLCK), fake::kThisThread);
            ExpectNone(ENOLCK);
        }
        EXPECT_EQ(0u, journal.Count(fake::semget));
        EXPECT_FALSE(IsOpenFd(fd));
    });
}

TEST_F(SharedSemaphoreCreationFailure, OfTheSetEndsTheProcessAfterTheLockIsFree) {
    const int fd = NextFdInChild();
    ExpectAbend(
        [&] {
            const fake::Script sets(fake::semget, {fake::Fail(ENOSPC), fake::Fail(EACCES)},
                                    fake::kThisThread);
            const fake::Replace ends(fake::abort, [&] {
                EXPECT_FALSE(IsOpenFd(fd));
                fake::abort.Real();
            });
            TryToCreate();
        },
        {{kExistingSet, {-1, 2}}, {kUnlocked, {fd}}, {kNoSet, {Key(), 2, EACCES}}});
}

TEST_F(SharedSemaphoreCreationFailure, OfTheSetLeavesItsErrnoThroughTheUnlocking) {
    WhileAborting([&] {
        const int fd = NextFd();
        const fake::Script sets(
            fake::semget, {fake::Fail(ENOSPC), fake::Fail(EACCES), fake::Fail(ENOSPC), fake::Fail(EPERM)},
            fake::kThisThread);
        // Both leave another errno, the first one without failing for good.
        const fake::Script locks(
            fake::fcntl,
            {fake::Real(), fake::Fail(EINTR), fake::Real(), fake::Real(), fake::Fail(EINTR), fake::Real()},
            fake::kThisThread);
        const fake::Replace closes(
            fake::close,
            [](int closed) {
                fake::close.Real(closed);
                errno = EIO;
                return -1;
            },
            fake::kThisThread);
        const TraceRecorder recorder;
        ExpectNone(EACCES);
        ExpectRecords(recorder, {{kExistingSet, {-1, 2}},
                                 {kUnlocked, {fd}},
                                 {kNoSet, {Key(), 2, EACCES}},
                                 AbendAgain(),
                                 {kExistingSet, {-1, 1}},
                                 {kUnlocked, {fd}},
                                 {kNoSet, {Key(), 1, EPERM}},
                                 AbendAgain()});
    });
}

TEST_F(SharedSemaphoreCreationFailure, OfAnInitialValueEndsTheProcessAndLeavesNoSet) {
    for (const int value : {kMostUnits + 1, 65536, kMax, -1, kMin}) {
        SCOPED_TRACE(value);
        const int inits[] = {1, value, 2};
        const TraceRecorder recorder;
        const ChildResult child = RunInChild([&] {
            int handle = -1;
            KovaSharedSemaphoreNCreate(&handle, kName, inits, 3);
        });
        EXPECT_EQ(SIGABRT, child.signal) << testing::PrintToString(child);
        EXPECT_TRUE(recorder.Has(kNoSet, {Key(), 3, ERANGE}));
        EXPECT_TRUE(ipc::Sets().empty());
        WhileAborting([&] {
            int handle = 4711;
            EXPECT_EQ(-1, KovaSharedSemaphoreNCreate(&handle, kName, inits, 3));
            EXPECT_EQ(ERANGE, errno);
            EXPECT_EQ(-1, handle);
        });
        EXPECT_TRUE(ipc::Sets().empty());
    }
}

TEST_F(SharedSemaphoreCreationFailure, OfAnySettingLeavesNoSet) {
    WhileAborting([&] {
        for (const int position : {0, 1, 2, 3}) {
            SCOPED_TRACE(position);
            fake::Always settings(fake::semctl, fake::Fail(EACCES), fake::kThisThread);
            settings.When(
                [=](int, int given, int command, long) { return command == SETVAL && given == position; });
            int handle = 4711;
            const int inits[] = {3, 0};
            const TraceRecorder recorder;
            EXPECT_EQ(-1, KovaSharedSemaphoreNCreate(&handle, kName, inits, 2));
            EXPECT_EQ(EACCES, errno);
            EXPECT_EQ(-1, handle);
            EXPECT_EQ(1u, settings.Calls());
            EXPECT_TRUE(recorder.Has(kNoSet, {Key(), 2, EACCES}));
            EXPECT_EQ(1u, recorder.Count(kAbend));
            EXPECT_TRUE(ipc::Sets().empty());
        }
    });
}

TEST_F(SharedSemaphoreCreationFailure, OfTheUnlockingEndsTheProcess) {
    const int fd = NextFdInChild();
    const TraceRecorder recorder;
    const ChildResult child = RunInChild([&] {
        fake::Always unlocks(fake::fcntl, fake::Fail(ENOLCK), fake::kThisThread);
        unlocks.When([](int, int command, long) { return command == F_SETLK; });
        TryToCreate();
    });
    EXPECT_EQ(SIGABRT, child.signal);
    EXPECT_TRUE(recorder.Has(kUnlockFailed, {fd, ENOLCK}));
    ipc::Remove(ipc::FindSet(kPath));
}

// --- The lock for creating and destroying ---

class SharedSemaphoreCDLock : public ipc::Test {
  protected:
    static constexpr const char* kFile = "/tmp/kova.file";

    SharedSemaphoreCDLock() { Fd(fake::open.Real(kFile, O_RDWR | O_CREAT | O_CLOEXEC, 0666)).Close(); }
    ~SharedSemaphoreCDLock() override { std::filesystem::remove(kFile); }

    TraceRecorder m_Recorder;
};

TEST_F(SharedSemaphoreCDLock, IsARecordLockOnTheWholeFile) {
    int fd = -1;
    {
        const SetJournal journal;
        fd = KovaSharedSemaphoreCDLock(kFile);
        EXPECT_EQ((Texts{"open /tmp/kova.file O_RDWR", "fcntl F_SETLKW F_WRLCK SEEK_SET {0, 0}"}),
                  journal.Texts());
    }
    EXPECT_LT(0, fd);
    EXPECT_TRUE(IsOpenFd(fd));
    ExpectRecords(m_Recorder, {});
    const ChildResult other = RunInChild([] {
        const Fd file(fake::open.Real(kFile, O_RDWR, 0));
        struct flock lock {};
        lock.l_type = F_WRLCK;
        EXPECT_EQ(-1, ::fcntl(file, F_SETLK, &lock));
    });
    EXPECT_EQ(0, other.exit_code) << testing::PrintToString(other);
    {
        const SetJournal journal;
        EXPECT_EQ(0, KovaSharedSemaphoreCDUnlock(fd));
        EXPECT_EQ((Texts{"fcntl F_SETLK F_UNLCK SEEK_SET {0, 0}", "close"}), journal.Texts());
    }
    EXPECT_FALSE(IsOpenFd(fd));
    ExpectRecords(m_Recorder, {{kUnlocked, {fd}}});
}

TEST_F(SharedSemaphoreCDLock, IsRepeatedAfterSignals) {
    const fake::Script locks(fake::fcntl,
                             {fake::Fail(EINTR), fake::Fail(EINTR), fake::Real(), fake::Fail(EINTR),
                              fake::Fail(EINTR), fake::Real()},
                             fake::kThisThread);
    const int fd = KovaSharedSemaphoreCDLock(kFile);
    EXPECT_LT(0, fd);
    EXPECT_EQ(0, KovaSharedSemaphoreCDUnlock(fd));
    ExpectRecords(m_Recorder, {{kUnlocked, {fd}}});
}

TEST_F(SharedSemaphoreCDLock, ThatFailsEndsTheProcess) {
    const int fd = NextFdInChild();
    const ChildResult child = RunInChild([] { KovaSharedSemaphoreCDLock("/tmp/no such file"); });
    EXPECT_EQ(SIGABRT, child.signal) << testing::PrintToString(child);
    ExpectAbend(
        [] {
            fake::Script locks(fake::fcntl, {fake::Fail(EDEADLK)}, fake::kThisThread);
            KovaSharedSemaphoreCDLock(kFile);
        },
        {{kLockFailed, {fd, EDEADLK}}});
}

TEST_F(SharedSemaphoreCDLock, ThatFailsIsMinusOneOnAThreadThatIsAborting) {
    WhileAborting([&] {
        const int fd = NextFd();
        const TraceRecorder recorder;
        EXPECT_EQ(-1, KovaSharedSemaphoreCDLock("/tmp/no such file"));
        EXPECT_EQ(ENOENT, errno);
        EXPECT_EQ(Words({-1, ENOENT}), ValuesAfterText(recorder, kOpenFailed));
        EXPECT_EQ(2u, recorder.All().size());
        const TraceRecorder other;
        fake::Script locks(fake::fcntl, {fake::Fail(EINTR), fake::Fail(EDEADLK)}, fake::kThisThread);
        EXPECT_EQ(-1, KovaSharedSemaphoreCDLock(kFile));
        EXPECT_EQ(EDEADLK, errno);
        EXPECT_FALSE(IsOpenFd(fd));
        ExpectRecords(other, {{kLockFailed, {fd, EDEADLK}}, AbendAgain()});
    });
}

TEST_F(SharedSemaphoreCDLock, DoesNotTakeDescriptorZero) {
    WhileAborting([&] {
        fake::Script files(fake::open, {fake::Return(0)}, fake::kThisThread);
        fake::Script closes(fake::close, {fake::Return(0)}, fake::kThisThread);
        const fake::Counter locks(fake::fcntl, fake::kThisThread);
        const TraceRecorder recorder;
        EXPECT_EQ(-1, KovaSharedSemaphoreCDLock(kFile));
        EXPECT_EQ(0u, locks.Calls());
        EXPECT_EQ(2u, recorder.All().size());
        EXPECT_EQ(1u, recorder.Count(kOpenFailed));
    });
}

TEST_F(SharedSemaphoreCDLock, ThatCannotBeReleasedEndsTheProcess) {
    const int fd = NextFdInChild();
    ExpectAbend(
        [&] {
            const int held = KovaSharedSemaphoreCDLock(kFile);
            fake::Script locks(fake::fcntl, {fake::Fail(ENOLCK)}, fake::kThisThread);
            KovaSharedSemaphoreCDUnlock(held);
        },
        {{kUnlockFailed, {fd, ENOLCK}}});
    WhileAborting([&] {
        const int held = KovaSharedSemaphoreCDLock(kFile);
        const TraceRecorder recorder;
        fake::Script locks(fake::fcntl, {fake::Fail(EINTR), fake::Fail(ENOLCK)}, fake::kThisThread);
        EXPECT_EQ(-1, KovaSharedSemaphoreCDUnlock(held));
        EXPECT_EQ(ENOLCK, errno);
        EXPECT_FALSE(IsOpenFd(held));
        ExpectRecords(recorder, {{kUnlockFailed, {held, ENOLCK}}, AbendAgain()});
        EXPECT_EQ(-1, KovaSharedSemaphoreCDUnlock(-1));
        EXPECT_EQ(EBADF, errno);
    });
}

// --- What is done with a set ---

class SharedSemaphoreFunctions : public ipc::Test {
  protected:
    SharedSemaphoreFunctions() {
        const int inits[] = {3, 0};
        EXPECT_LE(0, KovaSharedSemaphoreNCreate(&m_Set, kName, inits, 2));
        m_Recorder.Clear();
    }
    ~SharedSemaphoreFunctions() override {
        if (m_Set < 0) return;
        EXPECT_EQ(0, KovaSharedSemaphoreDestroy(&m_Set, kName));
    }

    /// The set goes without being destroyed.
    int Remove() {
        ipc::Remove(m_Set);
        return std::exchange(m_Set, -1);
    }
    Values All() const { return ipc::Values(m_Set); }
    int Value(int position) const { return ipc::Value(m_Set, position + 2); }

    int m_Set = -1;
    TraceRecorder m_Recorder;
};

class SharedSemaphoreDestruction : public SharedSemaphoreFunctions {};

TEST_F(SharedSemaphoreDestruction, RemovesTheSetWithItsLastUser) {
    const int set = m_Set;
    const int fd = NextFd();
    const SetJournal journal;
    EXPECT_EQ(0, KovaSharedSemaphoreDestroy(&m_Set, kName));
    EXPECT_EQ(UnderTheLock(kPath, false,
                           {Semop(set, "[0 -1 IPC_NOWAIT|SEM_UNDO]"), Semctl(set, "0 GETVAL"),
                            Semctl(set, "1 GETVAL"), Semctl(set, "0 IPC_RMID")}),
              journal.Texts());
    ExpectRecords(m_Recorder, {{kRemoved, {set, 0}}, {kUnlocked, {fd}}});
    EXPECT_TRUE(ipc::Sets().empty());
    EXPECT_EQ(set, m_Set) << "the caller's";
    m_Set = -1;
}

TEST_F(SharedSemaphoreDestruction, KeepsTheSetForOthersAndReadsTheCounterTwice) {
    int other = -1;
    EXPECT_EQ(m_Set, KovaSharedSemaphoreNCreate(&other, kName, nullptr, 0));
    m_Recorder.Clear();
    const int fd = NextFd();
    {
        const SetJournal journal;
        EXPECT_EQ(0, KovaSharedSemaphoreDestroy(&other, kName));
        EXPECT_EQ(UnderTheLock(kPath, false,
                               {Semop(m_Set, "[0 -1 IPC_NOWAIT|SEM_UNDO]"), Semctl(m_Set, "0 GETVAL"),
                                Semctl(m_Set, "0 GETVAL")}),
                  journal.Texts());
    }
    ExpectRecords(m_Recorder, {{kStaysOpen, {m_Set, 1}}, {kUnlocked, {fd}}});
    EXPECT_EQ((Values{1, 0, 3, 0}), All());
}

TEST_F(SharedSemaphoreDestruction, TracesTheCounterThatIsReadSecond) {
    fake::Script controls(fake::semctl, {fake::Return(5), fake::Return(4)}, fake::kThisThread);
    EXPECT_EQ(0, KovaSharedSemaphoreDestroy(&m_Set, kName));
    EXPECT_TRUE(m_Recorder.Has(kStaysOpen, {m_Set, 4}));
    EXPECT_EQ(2u, m_Recorder.All().size());
    EXPECT_EQ((Values{0, 0, 3, 0}), All());
    ipc::SetValue(m_Set, 0, 1);
}

TEST_F(SharedSemaphoreDestruction, KeepsAPersistentSet) {
    EXPECT_EQ(0, KovaSharedSemaphoreSetPersistent(&m_Set));
    m_Recorder.Clear();
    const int fd = NextFd();
    {
        const SetJournal journal;
        EXPECT_EQ(0, KovaSharedSemaphoreDestroy(&m_Set, kName));
        EXPECT_EQ(UnderTheLock(kPath, false,
                               {Semop(m_Set, "[0 -1 IPC_NOWAIT|SEM_UNDO]"), Semctl(m_Set, "0 GETVAL"),
                                Semctl(m_Set, "1 GETVAL")}),
                  journal.Texts());
    }
    ExpectRecords(m_Recorder, {{kIsPersistent, {m_Set, 0}}, {kUnlocked, {fd}}});
    EXPECT_EQ((Values{0, 1, 3, 0}), All());
    int again = -1;
    EXPECT_EQ(m_Set, KovaSharedSemaphoreCreate(&again, kName, 9));
    EXPECT_EQ((Values{1, 1, 3, 0}), All());
    EXPECT_EQ(0, KovaSharedSemaphoreDestroy(&again, kName));
    Remove();
}

TEST_F(SharedSemaphoreDestruction, OfMoreThanWasCreatedTellsTheFailedCount) {
    ipc::SetValue(m_Set, 0, 0);
    EXPECT_EQ(0, KovaSharedSemaphoreSetPersistent(&m_Set));
    m_Recorder.Clear();
    const int fd = NextFd();
    errno = 0;
    EXPECT_EQ(-1, KovaSharedSemaphoreDestroy(&m_Set, kName));
    EXPECT_EQ(EAGAIN, errno);
    ExpectRecords(m_Recorder,
                  {{kNotClosed, {m_Set, EAGAIN}}, {kIsPersistent, {m_Set, 0}}, {kUnlocked, {fd}}});
    Remove();
}

TEST_F(SharedSemaphoreDestruction, ReturnsTheResultOfTheRemovalThatFollowsAFailedCount) {
    ipc::SetValue(m_Set, 0, 0);
    const int set = m_Set;
    const int fd = NextFd();
    EXPECT_EQ(0, KovaSharedSemaphoreDestroy(&m_Set, kName));
    ExpectRecords(m_Recorder, {{kNotClosed, {set, EAGAIN}}, {kRemoved, {set, 0}}, {kUnlocked, {fd}}});
    m_Set = -1;
}

TEST_F(SharedSemaphoreDestruction, ReturnsAFailedRemoval) {
    const FailingControl removals(IPC_RMID, EPERM);
    // Both leave another errno.
    const fake::Script locks(fake::fcntl, {fake::Real(), fake::Fail(EINTR), fake::Real()}, fake::kThisThread);
    const fake::Replace closes(
        fake::close,
        [](int closed) {
            fake::close.Real(closed);
            errno = EIO;
            return -1;
        },
        fake::kThisThread);
    const int fd = NextFd();
    EXPECT_EQ(-1, KovaSharedSemaphoreDestroy(&m_Set, kName));
    EXPECT_EQ(EPERM, errno);
    ExpectRecords(m_Recorder, {{kRemoved, {m_Set, -1}}, {kUnlocked, {fd}}});
    Remove();
}

TEST_F(SharedSemaphoreDestruction, OfASetThatIsGoneTellsSo) {
    int set = Remove();
    const int fd = NextFd();
    EXPECT_EQ(-1, KovaSharedSemaphoreDestroy(&set, kName));
    EXPECT_EQ(EINVAL, errno);
    ExpectRecords(m_Recorder, {{kNotClosed, {set, EINVAL}}, {kStaysOpen, {set, -1}}, {kUnlocked, {fd}}});
    set = -1;
    EXPECT_EQ(-1, KovaSharedSemaphoreDestroy(&set, kName));
    EXPECT_EQ(EINVAL, errno);
}

TEST_F(SharedSemaphoreDestruction, LeavesTheErrnoOfTheCountThatFailed) {
    {
        const fake::Script counts(fake::semop, {fake::Fail(EIDRM)}, fake::kThisThread);
        const fake::Script reads(fake::semctl, {fake::Fail(EACCES), fake::Fail(EPERM)}, fake::kThisThread);
        EXPECT_EQ(-1, KovaSharedSemaphoreDestroy(&m_Set, kName));
        EXPECT_EQ(EIDRM, errno);
    }
    EXPECT_TRUE(m_Recorder.Has(kNotClosed, {m_Set, EIDRM}));
    EXPECT_TRUE(m_Recorder.Has(kStaysOpen, {m_Set, -1}));
}

TEST_F(SharedSemaphoreDestruction, RemovesTheSetWhoseFlagCannotBeRead) {
    const int set = std::exchange(m_Set, -1);
    int handle = set;
    const fake::Script reads(fake::semctl, {fake::Real(), fake::Fail(EACCES), fake::Real()},
                             fake::kThisThread);
    EXPECT_EQ(0, KovaSharedSemaphoreDestroy(&handle, kName));
    EXPECT_TRUE(m_Recorder.Has(kRemoved, {set, 0}));
}

TEST_F(SharedSemaphoreDestruction, MakesTheKeyFileThatIsMissing) {
    std::filesystem::remove(kPath);
    EXPECT_EQ(0, KovaSharedSemaphoreDestroy(&m_Set, kName));
    EXPECT_TRUE(std::filesystem::exists(kPath));
    EXPECT_TRUE(ipc::Sets().empty()) << "the set is the one of the id, whatever the file's key";
    m_Set = -1;
}

TEST_F(SharedSemaphoreDestruction, CountIsRepeatedAfterASignal) {
    const int set = std::exchange(m_Set, -1);
    int handle = set;
    const fake::Script operations(fake::semop, {fake::Fail(EINTR), fake::Real()}, fake::kThisThread);
    const int fd = NextFd();
    EXPECT_EQ(0, KovaSharedSemaphoreDestroy(&handle, kName));
    ExpectRecords(m_Recorder, {{kInterrupted, {set}}, {kRemoved, {set, 0}}, {kUnlocked, {fd}}});
}

TEST_F(SharedSemaphoreDestruction, WithoutKeyFileOrLockEndsTheProcessAndTouchesNothing) {
    {
        const TraceRecorder recorder;
        const ChildResult child = RunInChild([&] {
            const fake::Always files(fake::open, fake::Fail(EMFILE), fake::kThisThread);
            KovaSharedSemaphoreDestroy(&m_Set, kName);
        });
        EXPECT_EQ(SIGABRT, child.signal);
        EXPECT_EQ(Words({-1, EMFILE}), ValuesAfterText(recorder, kOpenFailed));
    }
    std::filesystem::remove(kPath);
    {
        const TraceRecorder recorder;
        const ChildResult child = RunInChild([&] {
            const fake::Always files(fake::fopen, fake::Fail(EROFS), fake::kThisThread);
            KovaSharedSemaphoreDestroy(&m_Set, kName);
        });
        EXPECT_EQ(SIGABRT, child.signal);
        EXPECT_EQ(Words({EROFS}), ValuesAfterText(recorder, kNoFile));
    }
    WhileAborting([&] {
        const SetJournal journal;
        {
            const fake::Always files(fake::fopen, fake::Fail(EROFS), fake::kThisThread);
            EXPECT_EQ(-1, KovaSharedSemaphoreDestroy(&m_Set, kName));
            EXPECT_EQ(EROFS, errno);
        }
        {
            const fake::Always locks(fake::fcntl, fake::Fail(ENOLCK), fake::kThisThread);
            EXPECT_EQ(-1, KovaSharedSemaphoreDestroy(&m_Set, kName));
            EXPECT_EQ(ENOLCK, errno);
        }
        EXPECT_EQ(0u, journal.Count(fake::semop) + journal.Count(fake::semctl));
    });
    EXPECT_EQ((Values{1, 0, 3, 0}), All());
}

// --- Waiting and giving ---

class SharedSemaphoreWait : public SharedSemaphoreFunctions {};

TEST_F(SharedSemaphoreWait, IsOneOperationTwoPositionsFurther) {
    errno = kStale;
    {
        const SetJournal journal;
        EXPECT_EQ(0, KovaSharedSemaphoreWait(&m_Set, -1, 0));
        EXPECT_EQ(0, KovaSharedSemaphoreWait(&m_Set, -2, 0));
        EXPECT_EQ(0, KovaSharedSemaphoreWait(&m_Set, 5, 1));
        EXPECT_EQ(0, KovaSharedSemaphoreWait(&m_Set, 0, 0));
        EXPECT_EQ((Texts{Semop(m_Set, "[2 -1 SEM_UNDO]"), Semop(m_Set, "[2 -2 SEM_UNDO]"),
                         Semop(m_Set, "[3 +5 SEM_UNDO]"), Semop(m_Set, "[2 0 SEM_UNDO]")}),
                  journal.Texts());
    }
    EXPECT_EQ(kStale, errno);
    EXPECT_EQ((Values{1, 0, 0, 5}), All());
    ExpectRecords(m_Recorder, {});
}

TEST_F(SharedSemaphoreWait, TryingDoesNotWait) {
    {
        const SetJournal journal;
        EXPECT_EQ(0, KovaSharedSemaphoreTryWait(&m_Set, -1, 0));
        errno = 0;
        EXPECT_EQ(-1, KovaSharedSemaphoreTryWait(&m_Set, -1, 1));
        EXPECT_EQ(EAGAIN, errno);
        errno = 0;
        EXPECT_EQ(-1, KovaSharedSemaphoreTryWait(&m_Set, 0, 0)) << "it is not 0";
        EXPECT_EQ(EAGAIN, errno);
        EXPECT_EQ(
            (Texts{Semop(m_Set, "[2 -1 IPC_NOWAIT|SEM_UNDO]"), Semop(m_Set, "[3 -1 IPC_NOWAIT|SEM_UNDO]"),
                   Semop(m_Set, "[2 0 IPC_NOWAIT|SEM_UNDO]")}),
            journal.Texts());
    }
    EXPECT_EQ((Values{1, 0, 2, 0}), All());
    ExpectRecords(m_Recorder, {});
}

TEST_F(SharedSemaphoreWait, PostGivesOne) {
    {
        const SetJournal journal;
        EXPECT_EQ(0, KovaSharedSemaphorePost(&m_Set, 1));
        EXPECT_EQ(0, KovaSharedSemaphorePost(&m_Set, 0));
        EXPECT_EQ((Texts{Semop(m_Set, "[3 +1 SEM_UNDO]"), Semop(m_Set, "[2 +1 SEM_UNDO]")}), journal.Texts());
    }
    EXPECT_EQ((Values{1, 0, 4, 1}), All());
    ExpectRecords(m_Recorder, {});
}

TEST_F(SharedSemaphoreWait, IsRepeatedAfterASignalWithATrace) {
    const fake::Script operations(
        fake::semop,
        {fake::Fail(EINTR), fake::Fail(EINTR), fake::Real(), fake::Fail(EINTR), fake::Real(),
         fake::Fail(EINTR), fake::Real(), fake::Fail(EINTR), fake::Real()},
        fake::kThisThread);
    const SetJournal journal;
    EXPECT_EQ(0, KovaSharedSemaphoreWait(&m_Set, -1, 0));
    EXPECT_EQ(0, KovaSharedSemaphoreTryWait(&m_Set, -1, 0));
    EXPECT_EQ(0, KovaSharedSemaphorePost(&m_Set, 1));
    EXPECT_EQ(0, KovaSharedSemaphoreTriggerOnPos(&m_Set, 1, 1, 0));
    const std::string wait = Semop(m_Set, "[2 -1 SEM_UNDO]");
    const std::string try_wait = Semop(m_Set, "[2 -1 IPC_NOWAIT|SEM_UNDO]");
    const std::string post = Semop(m_Set, "[3 +1 SEM_UNDO]");
    const std::string trigger = Semop(m_Set, "[3 -1 SEM_UNDO, 3 +1 SEM_UNDO]");
    EXPECT_EQ((Texts{wait, wait, wait, try_wait, try_wait, post, post, trigger, trigger}), journal.Texts());
    const Record again{kInterrupted, {m_Set}};
    ExpectRecords(m_Recorder, {again, again, again, again, again});
    EXPECT_EQ((Values{1, 0, 1, 1}), All());
}

TEST_F(SharedSemaphoreWait, GoesOnUnderSignalsUntilAPost) {
    DeadlineThread waiter([&] { EXPECT_EQ(0, KovaSharedSemaphoreWait(&m_Set, -1, 1)); });
    {
        const SignalStorm storm({waiter.Handle()});
        EXPECT_TRUE(WaitUntil([&] { return m_Recorder.Count(kInterrupted) > 20; }));
        EXPECT_FALSE(waiter.HasEnded());
    }
    EXPECT_EQ(0, KovaSharedSemaphorePost(&m_Set, 1));
    waiter.Join();
    EXPECT_EQ(0, Value(1));
    for (const TraceRecord& record : m_Recorder.All()) {
        EXPECT_TRUE(record.Is(kInterrupted));
        EXPECT_EQ(Words({m_Set}), record.values);
    }
}

TEST_F(SharedSemaphoreWait, EndsWithTheUnitsItWaitsFor) {
    DeadlineThread waiter([&] { EXPECT_EQ(0, KovaSharedSemaphoreWait(&m_Set, -2, 1)); });
    EXPECT_TRUE(WaitUntil([&] { return ipc::Waiters(m_Set, 3) == 1; }));
    EXPECT_EQ(0, KovaSharedSemaphorePost(&m_Set, 1));
    EXPECT_EQ(1, Value(1)) << "one is not enough";
    EXPECT_EQ(1, ipc::Waiters(m_Set, 3));
    EXPECT_EQ(0, KovaSharedSemaphorePost(&m_Set, 1));
    waiter.Join();
    EXPECT_EQ(0, Value(1));
}

TEST_F(SharedSemaphoreWait, ForZeroEndsWhenAllUnitsAreTaken) {
    DeadlineThread waiter([&] { EXPECT_EQ(0, KovaSharedSemaphoreWait(&m_Set, 0, 0)); });
    EXPECT_TRUE(WaitUntil([&] { return fake::semctl.Real(m_Set, 2, GETZCNT, 0) == 1; }));
    EXPECT_EQ(0, KovaSharedSemaphoreTryWait(&m_Set, -2, 0));
    EXPECT_EQ(1, fake::semctl.Real(m_Set, 2, GETZCNT, 0));
    EXPECT_EQ(0, KovaSharedSemaphoreTryWait(&m_Set, -1, 0));
    waiter.Join();
}

TEST_F(SharedSemaphoreWait, EndsWhenTheSetIsRemoved) {
    const int set = m_Set;
    std::atomic<int> error = 0;
    DeadlineThread waiter([&, handle = set]() mutable {
        EXPECT_EQ(-1, KovaSharedSemaphoreWait(&handle, -1, 1));
        error = errno;
    });
    EXPECT_TRUE(WaitUntil([&] { return ipc::Waiters(set, 3) == 1; }));
    Remove();
    waiter.Join();
    EXPECT_EQ(EIDRM, error);
    ExpectRecords(m_Recorder, {});
}

TEST_F(SharedSemaphoreWait, FailsWithoutEndOfTheProcess) {
    const fake::Always operations(fake::semop, fake::Fail(EACCES), fake::kThisThread);
    EXPECT_EQ(-1, KovaSharedSemaphoreWait(&m_Set, -1, 0));
    EXPECT_EQ(EACCES, errno);
    EXPECT_EQ(-1, KovaSharedSemaphoreTryWait(&m_Set, -1, 0));
    EXPECT_EQ(EACCES, errno);
    EXPECT_EQ(-1, KovaSharedSemaphorePost(&m_Set, 0));
    EXPECT_EQ(EACCES, errno);
    EXPECT_EQ(-1, KovaSharedSemaphoreTriggerOnPos(&m_Set, 0, 1, 0));
    EXPECT_EQ(EACCES, errno);
    EXPECT_EQ(4u, operations.Calls());
    ExpectRecords(m_Recorder, {});
}

TEST_F(SharedSemaphoreWait, PostBeyondTheLargestValueFails) {
    ipc::SetValue(m_Set, 2, kMostUnits);
    EXPECT_EQ(-1, KovaSharedSemaphorePost(&m_Set, 0));
    EXPECT_EQ(ERANGE, errno);
    EXPECT_EQ(kMostUnits, Value(0));
}

// --- Limits of positions and units ---

class SharedSemaphoreBounds : public SharedSemaphoreFunctions {
  protected:
    /// Every operation with a position, by name.
    std::vector<std::pair<const char*, std::function<int()>>> Operations(unsigned pos) {
        int* const set = &m_Set;
        // Those that cannot wait come first: a test may end with their failure.
        return {{"TryWait", [=] { return KovaSharedSemaphoreTryWait(set, -1, pos); }},
                {"TimedWait", [=] { return KovaSharedSemaphoreTimedWait(set, -1, 1000, pos); }},
                {"Trigger in time", [=] { return KovaSharedSemaphoreTriggerOnPos(set, pos, 1, 1000); }},
                {"Post", [=] { return KovaSharedSemaphorePost(set, pos); }},
                {"Wait", [=] { return KovaSharedSemaphoreWait(set, -1, pos); }},
                {"Wait up", [=] { return KovaSharedSemaphoreWait(set, 1, pos); }},
                {"Trigger", [=] { return KovaSharedSemaphoreTriggerOnPos(set, pos, 1, 0); }}};
    }
    std::vector<std::pair<const char*, std::function<int()>>> Controls(unsigned pos) {
        int* const set = &m_Set;
        return {{"GetVal", [=] { return KovaSharedSemaphoreGetValOnPos(set, pos); }},
                {"SetVal", [=] { return KovaSharedSemaphoreSetValOnPos(set, pos, 1); }}};
    }
};

TEST_F(SharedSemaphoreBounds, PositionBehindTheSetIsRefusedByTheKernel) {
    for (const unsigned pos : {2u, 3u, 32767u, 65533u}) {
        SCOPED_TRACE(pos);
        for (const auto& [name, operation] : Operations(pos)) {
            errno = 0;
            ASSERT_EQ(-1, operation()) << name;
            EXPECT_EQ(EFBIG, errno) << name << ": what the kernel says of an operation";
        }
        for (const auto& [name, control] : Controls(pos)) {
            errno = 0;
            EXPECT_EQ(-1, control()) << name;
            EXPECT_EQ(EINVAL, errno) << name;
        }
    }
    EXPECT_EQ((Values{1, 0, 3, 0}), All());
    ExpectRecords(m_Recorder, {});
}

TEST_F(SharedSemaphoreBounds, PositionThatDoesNotFitNeverTouchesAnother) {
    ipc::SetValue(m_Set, 3, 5);
    const SetJournal journal;
    for (const unsigned pos : kWrappingPositions) {
        SCOPED_TRACE(pos);
        for (const auto& operations : {Operations(pos), Controls(pos)}) {
            for (const auto& [name, operation] : operations) {
                errno = 0;
                ASSERT_EQ(-1, operation()) << name;
                EXPECT_EQ(EINVAL, errno) << name;
            }
        }
    }
    EXPECT_EQ(Texts{}, journal.Texts());
    EXPECT_EQ((Values{1, 0, 3, 5}), All());
}

TEST_F(SharedSemaphoreBounds, LastPositionThatFitsIsAskedFor) {
    const SetJournal journal;
    EXPECT_EQ(-1, KovaSharedSemaphorePost(&m_Set, 65533));
    EXPECT_EQ(-1, KovaSharedSemaphoreGetValOnPos(&m_Set, 65533));
    EXPECT_EQ((Texts{Semop(m_Set, "[65535 +1 SEM_UNDO]"), Semctl(m_Set, "65535 GETVAL")}), journal.Texts());
}

TEST_F(SharedSemaphoreBounds, UnitsThatDoNotFitAreOutOfRange) {
    const SetJournal journal;
    for (const int op : {32768, 65535, 65536, 65537, kMax, -32769, -65535, -65536, -65537, kMin}) {
        SCOPED_TRACE(op);
        errno = 0;
        EXPECT_EQ(-1, KovaSharedSemaphoreTimedWait(&m_Set, op, 0, 0));
        EXPECT_EQ(ERANGE, errno);
        errno = 0;
        EXPECT_EQ(-1, KovaSharedSemaphoreTryWait(&m_Set, op, 0));
        ASSERT_EQ(ERANGE, errno);
        errno = 0;
        EXPECT_EQ(-1, KovaSharedSemaphoreWait(&m_Set, op, 0));
        EXPECT_EQ(ERANGE, errno);
    }
    EXPECT_EQ(Texts{}, journal.Texts());
    EXPECT_EQ((Values{1, 0, 3, 0}), All());
    ExpectRecords(m_Recorder, {});
}

TEST_F(SharedSemaphoreBounds, MostUnitsThatFitAreGivenAndTaken) {
    const SetJournal journal;
    EXPECT_EQ(0, KovaSharedSemaphoreWait(&m_Set, 32767, 1));
    EXPECT_EQ(-1, KovaSharedSemaphoreTryWait(&m_Set, -32768, 1));
    EXPECT_EQ(EAGAIN, errno) << "no semaphore ever has as many";
    EXPECT_EQ(0, KovaSharedSemaphoreWait(&m_Set, -32767, 1));
    EXPECT_EQ((Texts{Semop(m_Set, "[3 +32767 SEM_UNDO]"), Semop(m_Set, "[3 -32768 IPC_NOWAIT|SEM_UNDO]"),
                     Semop(m_Set, "[3 -32767 SEM_UNDO]")}),
              journal.Texts());
    EXPECT_EQ((Values{1, 0, 3, 0}), All());
}

TEST_F(SharedSemaphoreBounds, LevelThatDoesNotFitIsOutOfRange) {
    const SetJournal journal;
    for (const unsigned n : {32768u, 65535u, 65536u, 65537u, 2147483648u, 4294967295u}) {
        SCOPED_TRACE(n);
        for (const unsigned ms : {1000u, 0u}) {
            errno = 0;
            EXPECT_EQ(-1, KovaSharedSemaphoreTriggerOnPos(&m_Set, 0, n, ms));
            ASSERT_EQ(ERANGE, errno);
            errno = 0;
            EXPECT_EQ(-1, KovaSharedSemaphoreTrigger(&m_Set, n, ms));
            EXPECT_EQ(ERANGE, errno);
        }
    }
    EXPECT_EQ(Texts{}, journal.Texts());
}

TEST_F(SharedSemaphoreBounds, HighestLevelThatFitsIsReached) {
    ipc::SetValue(m_Set, 2, kMostUnits);
    const SetJournal journal;
    EXPECT_EQ(0, KovaSharedSemaphoreTrigger(&m_Set, 32767, 0));
    EXPECT_EQ((Texts{Semop(m_Set, "[2 -32767 SEM_UNDO, 2 +32767 SEM_UNDO]")}), journal.Texts());
    EXPECT_EQ(kMostUnits, Value(0));
}

// --- Waiting with a limit ---

class SharedSemaphoreTimedWait : public SharedSemaphoreFunctions {
  protected:
    /// The time-outs of the calls that wait `ms` milliseconds.
    Texts Limits(int ms) {
        const fake::Always calls(fake::semtimedop, fake::Return(0), fake::kThisThread);
        const fake::Journal journal({&fake::semtimedop}, fake::kThisThread);
        EXPECT_EQ(0, KovaSharedSemaphoreTimedWait(&m_Set, -1, ms, 0));
        return journal.Texts();
    }
};

TEST_F(SharedSemaphoreTimedWait, TakesTheOperationBeforeTheLimit) {
    const SetJournal journal;
    EXPECT_EQ(0, KovaSharedSemaphoreTimedWait(&m_Set, -2, 1500, 0));
    EXPECT_EQ(0, KovaSharedSemaphoreTimedWait(&m_Set, 7, 0, 1));
    EXPECT_EQ((Texts{Semtimedop(m_Set, "[2 -2 SEM_UNDO] {1, 500000000}"),
                     Semtimedop(m_Set, "[3 +7 SEM_UNDO] {0, 0}")}),
              journal.Texts());
    EXPECT_EQ((Values{1, 0, 1, 7}), All());
    ExpectRecords(m_Recorder, {});
}

TEST_F(SharedSemaphoreTimedWait, LimitIsSecondsAndNanoseconds) {
    const auto wanted = [&](const std::string& limit) {
        return Texts{Semtimedop(m_Set, "[2 -1 SEM_UNDO] " + limit)};
    };
    EXPECT_EQ(wanted("{0, 0}"), Limits(0));
    EXPECT_EQ(wanted("{0, 1000000}"), Limits(1));
    EXPECT_EQ(wanted("{0, 999000000}"), Limits(999));
    EXPECT_EQ(wanted("{1, 0}"), Limits(1000));
    EXPECT_EQ(wanted("{1, 1000000}"), Limits(1001));
    EXPECT_EQ(wanted("{1, 500000000}"), Limits(1500));
    EXPECT_EQ(wanted("{2147483, 647000000}"), Limits(kMax));
    EXPECT_EQ(wanted("{0, -1000000}"), Limits(-1));
    EXPECT_EQ(wanted("{-1, 0}"), Limits(-1000));
    EXPECT_EQ(wanted("{-1, -500000000}"), Limits(-1500));
    EXPECT_EQ(wanted("{-2147483, -648000000}"), Limits(kMin));
}

TEST_F(SharedSemaphoreTimedWait, BelowZeroIsRefusedByTheKernelWhateverIsThere) {
    for (const int ms : {-1, -999, -1000, -1500, kMin}) {
        SCOPED_TRACE(ms);
        errno = 0;
        EXPECT_EQ(-1, KovaSharedSemaphoreTimedWait(&m_Set, -1, ms, 0));
        EXPECT_EQ(EINVAL, errno);
    }
    EXPECT_EQ(3, Value(0));
}

TEST_F(SharedSemaphoreTimedWait, OfZeroTriesOnce) {
    EXPECT_EQ(0, KovaSharedSemaphoreTimedWait(&m_Set, -3, 0, 0));
    const fake::Counter calls(fake::semtimedop, fake::kThisThread);
    EXPECT_EQ(-1, KovaSharedSemaphoreTimedWait(&m_Set, -1, 0, 0));
    EXPECT_EQ(ETIMEDOUT, errno);
    EXPECT_EQ(1u, calls.Calls());
}

TEST_F(SharedSemaphoreTimedWait, LimitIsWaitedFor) {
    const auto begin = steady_clock::now();
    EXPECT_EQ(-1, KovaSharedSemaphoreTimedWait(&m_Set, -1, 100, 1));
    EXPECT_EQ(110, errno);
    EXPECT_GE(steady_clock::now() - begin, milliseconds(100));
    EXPECT_EQ((Values{1, 0, 3, 0}), All());
    ExpectRecords(m_Recorder, {});
}

TEST_F(SharedSemaphoreTimedWait, EndsWithAPost) {
    DeadlineThread waiter([&] { EXPECT_EQ(0, KovaSharedSemaphoreTimedWait(&m_Set, -1, kMax, 1)); });
    EXPECT_TRUE(WaitUntil([&] { return ipc::Waiters(m_Set, 3) == 1; }));
    EXPECT_EQ(0, KovaSharedSemaphorePost(&m_Set, 1));
    waiter.Join();
    EXPECT_EQ(0, Value(1));
}

TEST_F(SharedSemaphoreTimedWait, StartsOverWithTheFullLimitAfterASignal) {
    const fake::Script calls(fake::semtimedop,
                             {fake::Fail(EINTR), fake::Fail(EINTR), fake::Real(), fake::Fail(EINTR),
                              fake::Fail(EINTR), fake::Real()},
                             fake::kThisThread);
    const SetJournal journal;
    EXPECT_EQ(0, KovaSharedSemaphoreTimedWait(&m_Set, -1, 2750, 0));
    EXPECT_EQ(0, KovaSharedSemaphoreTriggerOnPos(&m_Set, 0, 2, 2750));
    const std::string wait = Semtimedop(m_Set, "[2 -1 SEM_UNDO] {2, 750000000}");
    const std::string trigger = Semtimedop(m_Set, "[2 -2 SEM_UNDO, 2 +2 SEM_UNDO] {2, 750000000}");
    EXPECT_EQ((Texts{wait, wait, wait, trigger, trigger, trigger}), journal.Texts());
    EXPECT_EQ(2, Value(0));
}

TEST_F(SharedSemaphoreTimedWait, StartsOverForAsLongAsThereAreSignals) {
    const fake::Counter calls(fake::semtimedop);
    DeadlineThread waiter([&] { EXPECT_EQ(0, KovaSharedSemaphoreTimedWait(&m_Set, -1, kMax, 1)); });
    {
        const SignalStorm storm({waiter.Handle()});
        EXPECT_TRUE(WaitUntil([&] { return calls.Calls() > 20; }));
        EXPECT_FALSE(waiter.HasEnded());
    }
    EXPECT_EQ(0, KovaSharedSemaphorePost(&m_Set, 1));
    waiter.Join();
    ExpectRecords(m_Recorder, {});
}

TEST_F(SharedSemaphoreTimedWait, TimeIsOverByEitherErrno) {
    for (const int error : {EAGAIN, ETIMEDOUT}) {
        const fake::Script calls(fake::semtimedop, {fake::Fail(error), fake::Fail(error)}, fake::kThisThread);
        errno = 0;
        EXPECT_EQ(-1, KovaSharedSemaphoreTimedWait(&m_Set, -1, 1000, 0));
        EXPECT_EQ(ETIMEDOUT, errno);
        errno = 0;
        EXPECT_EQ(-1, KovaSharedSemaphoreTriggerOnPos(&m_Set, 0, 1, 1000));
        EXPECT_EQ(ETIMEDOUT, errno);
    }
    ExpectRecords(m_Recorder, {});
}

TEST_F(SharedSemaphoreTimedWait, OtherFailuresEndItAtOnce) {
    const fake::Script calls(fake::semtimedop, {fake::Fail(EIDRM), fake::Fail(EACCES)}, fake::kThisThread);
    EXPECT_EQ(-1, KovaSharedSemaphoreTimedWait(&m_Set, -1, 1000, 0));
    EXPECT_EQ(EIDRM, errno);
    EXPECT_EQ(-1, KovaSharedSemaphoreTriggerOnPos(&m_Set, 0, 1, 1000));
    EXPECT_EQ(EACCES, errno);
    ExpectRecords(m_Recorder, {});
}

TEST_F(SharedSemaphoreTimedWait, IsNotMovedByTheWallClock) {
    KOVA_NEEDS_OWN_MACHINE("sets the wall clock");
    for (const time_t jump : {86400, -86400}) {
        SCOPED_TRACE(jump);
        WallClockShift shift;
        const auto begin = steady_clock::now();
        DeadlineThread waiter([&] { EXPECT_EQ(-1, KovaSharedSemaphoreTimedWait(&m_Set, -1, 200, 1)); });
        EXPECT_TRUE(WaitUntil([&] { return ipc::Waiters(m_Set, 3) == 1; }));
        shift.By(jump);
        waiter.Join();
        EXPECT_GE(steady_clock::now() - begin, milliseconds(200));
    }
}

TEST_F(SharedSemaphoreTimedWait, EndsWhenTheSetIsRemoved) {
    const int set = m_Set;
    std::atomic<int> error = 0;
    DeadlineThread waiter([&, handle = set]() mutable {
        EXPECT_EQ(-1, KovaSharedSemaphoreTimedWait(&handle, -1, kMax, 1));
        error = errno;
    });
    EXPECT_TRUE(WaitUntil([&] { return ipc::Waiters(set, 3) == 1; }));
    Remove();
    waiter.Join();
    EXPECT_EQ(EIDRM, error);
}

// --- The trigger ---

class SharedSemaphoreTrigger : public SharedSemaphoreFunctions {};

TEST_F(SharedSemaphoreTrigger, TakesAndGivesBackAtOnce) {
    const SetJournal journal;
    EXPECT_EQ(0, KovaSharedSemaphoreTriggerOnPos(&m_Set, 0, 3, 0));
    EXPECT_EQ(0, KovaSharedSemaphoreTriggerOnPos(&m_Set, 0, 2, 999));
    EXPECT_EQ(0, KovaSharedSemaphoreTrigger(&m_Set, 1, 0));
    EXPECT_EQ(0, KovaSharedSemaphoreTrigger(&m_Set, 1, 1500));
    EXPECT_EQ((Texts{Semop(m_Set, "[2 -3 SEM_UNDO, 2 +3 SEM_UNDO]"),
                     Semtimedop(m_Set, "[2 -2 SEM_UNDO, 2 +2 SEM_UNDO] {0, 999000000}"),
                     Semop(m_Set, "[2 -1 SEM_UNDO, 2 +1 SEM_UNDO]"),
                     Semtimedop(m_Set, "[2 -1 SEM_UNDO, 2 +1 SEM_UNDO] {1, 500000000}")}),
              journal.Texts());
    EXPECT_EQ((Values{1, 0, 3, 0}), All());
    ExpectRecords(m_Recorder, {});
}

TEST_F(SharedSemaphoreTrigger, TakesThePositionBeforeTheLevel) {
    ipc::SetValue(m_Set, 3, 5);
    const SetJournal journal;
    EXPECT_EQ(0, KovaSharedSemaphoreTriggerOnPos(&m_Set, 1, 4, 0));
    EXPECT_EQ((Texts{Semop(m_Set, "[3 -4 SEM_UNDO, 3 +4 SEM_UNDO]")}), journal.Texts());
}

TEST_F(SharedSemaphoreTrigger, LimitIsUnsigned) {
    const fake::Always calls(fake::semtimedop, fake::Return(0), fake::kThisThread);
    const fake::Journal journal({&fake::semtimedop}, fake::kThisThread);
    for (const unsigned ms : {1u, 1000u, 2147483647u, 2147483648u, 4294967295u}) {
        EXPECT_EQ(0, KovaSharedSemaphoreTriggerOnPos(&m_Set, 0, 1, ms));
    }
    const auto with = [&](const std::string& limit) {
        return Semtimedop(m_Set, "[2 -1 SEM_UNDO, 2 +1 SEM_UNDO] " + limit);
    };
    EXPECT_EQ((Texts{with("{0, 1000000}"), with("{1, 0}"), with("{2147483, 647000000}"),
                     with("{2147483, 648000000}"), with("{4294967, 295000000}")}),
              journal.Texts());
}

TEST_F(SharedSemaphoreTrigger, WaitsForTheLevel) {
    ipc::SetValue(m_Set, 2, 1);
    DeadlineThread waiter([&] { EXPECT_EQ(0, KovaSharedSemaphoreTrigger(&m_Set, 2, 0)); });
    DeadlineThread other([&] { EXPECT_EQ(0, KovaSharedSemaphoreTrigger(&m_Set, 2, kMax)); });
    EXPECT_TRUE(WaitUntil([&] { return ipc::Waiters(m_Set, 2) == 2; }));
    EXPECT_EQ(0, KovaSharedSemaphorePost(&m_Set, 0));
    waiter.Join();
    other.Join();
    EXPECT_EQ(2, Value(0)) << "nothing is taken";
}

TEST_F(SharedSemaphoreTrigger, TimeIsOverWhenTheLevelIsNotReached) {
    const auto begin = steady_clock::now();
    EXPECT_EQ(-1, KovaSharedSemaphoreTriggerOnPos(&m_Set, 0, 4, 100));
    EXPECT_EQ(ETIMEDOUT, errno);
    EXPECT_GE(steady_clock::now() - begin, milliseconds(100));
    EXPECT_EQ(3, Value(0));
}

TEST_F(SharedSemaphoreTrigger, LevelZeroIsReachedByAnEmptyPosition) {
    const SetJournal journal;
    EXPECT_EQ(0, KovaSharedSemaphoreTriggerOnPos(&m_Set, 1, 0, 0));
    EXPECT_EQ((Texts{Semop(m_Set, "[3 0 SEM_UNDO, 3 0 SEM_UNDO]")}), journal.Texts());
    EXPECT_EQ(-1, KovaSharedSemaphoreTriggerOnPos(&m_Set, 0, 0, 10)) << "two waits for zero";
    EXPECT_EQ(ETIMEDOUT, errno);
}

// --- Releasing all ---

class SharedSemaphoreMultiEvent : public SharedSemaphoreFunctions {};

TEST_F(SharedSemaphoreMultiEvent, SetsTheFirstPositionToItsWaiters) {
    fake::Script controls(fake::semctl, {fake::Return(4), fake::Real()}, fake::kThisThread);
    {
        const SetJournal journal;
        EXPECT_EQ(0, KovaSharedSemaphorePostMultiEvent(&m_Set));
        EXPECT_EQ((Texts{Semctl(m_Set, "2 GETNCNT"), Semctl(m_Set, "2 SETVAL 4")}), journal.Texts());
    }
    EXPECT_EQ((Values{1, 0, 4, 0}), All());
    ExpectRecords(m_Recorder, {});
}

TEST_F(SharedSemaphoreMultiEvent, WithoutWaitersLeavesNothing) {
    EXPECT_EQ(0, KovaSharedSemaphorePostMultiEvent(&m_Set));
    EXPECT_EQ((Values{1, 0, 0, 0}), All()) << "what was there is gone";
}

TEST_F(SharedSemaphoreMultiEvent, DoesNotCountThoseWhoWaitElsewhereOrForZero) {
    DeadlineThread elsewhere([&] { EXPECT_EQ(0, KovaSharedSemaphoreWait(&m_Set, -1, 1)); });
    DeadlineThread for_zero([&] { EXPECT_EQ(0, KovaSharedSemaphoreWait(&m_Set, 0, 0)); });
    EXPECT_TRUE(WaitUntil(
        [&] { return ipc::Waiters(m_Set, 3) == 1 && fake::semctl.Real(m_Set, 2, GETZCNT, 0) == 1; }));
    EXPECT_EQ(0, KovaSharedSemaphorePostMultiEvent(&m_Set));
    for_zero.Join();
    EXPECT_EQ((Values{1, 0, 0, 0}), All());
    EXPECT_EQ(1, ipc::Waiters(m_Set, 3));
    EXPECT_EQ(0, KovaSharedSemaphorePost(&m_Set, 1));
}

TEST_F(SharedSemaphoreMultiEvent, ReturnsAFailedSetting) {
    const FailingControl settings(SETVAL, EACCES);
    EXPECT_EQ(-1, KovaSharedSemaphorePostMultiEvent(&m_Set));
    EXPECT_EQ(EACCES, errno);
    ExpectRecords(m_Recorder, {});
}

TEST_F(SharedSemaphoreMultiEvent, SetsNothingWhenItCannotCount) {
    const FailingControl counts(GETNCNT, EACCES);
    EXPECT_EQ(-1, KovaSharedSemaphorePostMultiEvent(&m_Set));
    EXPECT_EQ(EACCES, errno);
    EXPECT_EQ((Values{1, 0, 3, 0}), All());
    ExpectRecords(m_Recorder, {});
}

TEST_F(SharedSemaphoreMultiEvent, OfASetThatIsGoneFails) {
    int set = Remove();
    const SetJournal journal;
    EXPECT_EQ(-1, KovaSharedSemaphorePostMultiEvent(&set));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ(Texts{Semctl(set, "2 GETNCNT")}, journal.Texts()) << "nothing is set";
    ExpectRecords(m_Recorder, {});
}

// --- Values ---

class SharedSemaphoreValue : public SharedSemaphoreFunctions {};

TEST_F(SharedSemaphoreValue, IsReadAndSetAtOnce) {
    {
        const SetJournal journal;
        EXPECT_EQ(3, KovaSharedSemaphoreGetVal(&m_Set));
        EXPECT_EQ(0, KovaSharedSemaphoreGetValOnPos(&m_Set, 1));
        EXPECT_EQ(0, KovaSharedSemaphoreSetVal(&m_Set, 8));
        EXPECT_EQ(0, KovaSharedSemaphoreSetValOnPos(&m_Set, 1, 9));
        EXPECT_EQ((Texts{Semctl(m_Set, "2 GETVAL"), Semctl(m_Set, "3 GETVAL"), Semctl(m_Set, "2 SETVAL 8"),
                         Semctl(m_Set, "3 SETVAL 9")}),
                  journal.Texts());
    }
    EXPECT_EQ((Values{1, 0, 8, 9}), All());
    EXPECT_EQ(9, KovaSharedSemaphoreGetValOnPos(&m_Set, 1));
    ExpectRecords(m_Recorder, {});
}

TEST_F(SharedSemaphoreValue, BeyondTheLargestIsOutOfRange) {
    EXPECT_EQ(0, KovaSharedSemaphoreSetVal(&m_Set, kMostUnits));
    for (const int value : {kMostUnits + 1, 65536, kMax, -1, kMin}) {
        errno = 0;
        EXPECT_EQ(-1, KovaSharedSemaphoreSetVal(&m_Set, value)) << value;
        EXPECT_EQ(ERANGE, errno);
    }
    EXPECT_EQ(kMostUnits, Value(0));
    ExpectRecords(m_Recorder, {});
}

TEST_F(SharedSemaphoreValue, OfASetThatIsGoneFails) {
    int set = Remove();
    const auto expect_einval = [](int result) {
        EXPECT_EQ(-1, result);
        EXPECT_EQ(EINVAL, std::exchange(errno, 0));
    };
    expect_einval(KovaSharedSemaphoreGetVal(&set));
    expect_einval(KovaSharedSemaphoreGetValOnPos(&set, 1));
    expect_einval(KovaSharedSemaphoreSetVal(&set, 1));
    expect_einval(KovaSharedSemaphoreSetValOnPos(&set, 1, 1));
    expect_einval(KovaSharedSemaphoreGetNoOfWaiters(&set));
    expect_einval(KovaSharedSemaphoreGetRefCounter(&set));
    expect_einval(KovaSharedSemaphoreWait(&set, -1, 0));
    expect_einval(KovaSharedSemaphoreTimedWait(&set, -1, 1000, 0));
    expect_einval(KovaSharedSemaphoreTriggerOnPos(&set, 0, 1, 0));
    ExpectRecords(m_Recorder, {});
}

TEST_F(SharedSemaphoreValue, NoOfWaitersLooksAtTheReferenceCounter) {
    DeadlineThread waiter([&] { EXPECT_EQ(0, KovaSharedSemaphoreWait(&m_Set, -4, 0)); });
    EXPECT_TRUE(WaitUntil([&] { return ipc::Waiters(m_Set, 2) == 1; }));
    {
        const SetJournal journal;
        EXPECT_EQ(0, KovaSharedSemaphoreGetNoOfWaiters(&m_Set)) << "not where the users wait";
        EXPECT_EQ((Texts{Semctl(m_Set, "0 GETNCNT")}), journal.Texts());
    }
    sembuf two_references{0, -2, 0};
    DeadlineThread there([&] { EXPECT_EQ(0, fake::semop.Real(m_Set, &two_references, 1)); });
    EXPECT_TRUE(WaitUntil([&] { return KovaSharedSemaphoreGetNoOfWaiters(&m_Set) == 1; }));
    ipc::SetValue(m_Set, 0, 3);
    there.Join();
    EXPECT_EQ(0, KovaSharedSemaphorePost(&m_Set, 0));
    waiter.Join();
    ExpectRecords(m_Recorder, {});
}

TEST_F(SharedSemaphoreValue, RefCounterIsTheFirstOfTheSet) {
    ipc::SetValue(m_Set, 0, 6);
    {
        const SetJournal journal;
        EXPECT_EQ(6, KovaSharedSemaphoreGetRefCounter(&m_Set));
        EXPECT_EQ((Texts{Semctl(m_Set, "0 GETVAL")}), journal.Texts());
    }
    ipc::SetValue(m_Set, 0, 1);
    ExpectRecords(m_Recorder, {});
}

TEST_F(SharedSemaphoreValue, PersistentFlagIsTheSecondOfTheSet) {
    {
        const SetJournal journal;
        EXPECT_EQ(0, KovaSharedSemaphoreSetPersistent(&m_Set));
        EXPECT_EQ((Texts{Semctl(m_Set, "1 SETVAL 1")}), journal.Texts());
    }
    EXPECT_EQ((Values{1, 1, 3, 0}), All());
    ExpectRecords(m_Recorder, {});
    ipc::SetValue(m_Set, 1, 0);
}

TEST_F(SharedSemaphoreValue, PersistentFlagThatCannotBeSetEndsTheProcess) {
    ExpectAbend(
        [&] {
            const FailingControl settings(SETVAL, EACCES);
            KovaSharedSemaphoreSetPersistent(&m_Set);
        },
        {{kPersistentFailed, {m_Set, EACCES}}});
    WhileAborting([&] {
        const FailingControl settings(SETVAL, EACCES);
        const TraceRecorder recorder;
        EXPECT_EQ(0, KovaSharedSemaphoreSetPersistent(&m_Set));
        EXPECT_EQ(EACCES, errno);
        ExpectRecords(recorder, {{kPersistentFailed, {m_Set, EACCES}}, AbendAgain()});
    });
}

TEST_F(SharedSemaphoreValue, EndOfTheProcessHasTheStandardCode) {
    WhileAborting([&] {
        g_AbendWords.clear();
        const FailingControl settings(SETVAL, EACCES);
        KovaSharedSemaphoreSetPersistent(&m_Set);
        EXPECT_EQ(-1, KovaSharedSemaphoreCDLock("/tmp/no such file"));
        EXPECT_EQ(-1, KovaSharedSemaphoreCDUnlock(-1));
        {
            const fake::Always keys(fake::ftok, fake::Fail(ENOENT), fake::kThisThread);
            int handle = -1;
            EXPECT_EQ(-1, KovaSharedSemaphoreCreate(&handle, kName, 1));
        }
        {
            const fake::Always sets(fake::semget, fake::Fail(ENOSPC), fake::kThisThread);
            int handle = -1;
            EXPECT_EQ(-1, KovaSharedSemaphoreCreate(&handle, kName, 1));
        }
        const std::array<uint32_t, 3> words{0x26C24100, 0x71000000, 0};
        EXPECT_EQ((std::vector<std::array<uint32_t, 3>>(5, words)), g_AbendWords);
    });
}

// --- Operations on any set ---

class SemTimedOp : public ipc::Test {
  protected:
    SemTimedOp() : m_Set(fake::semget.Real(IPC_PRIVATE, 2, 0600)) { ipc::SetValue(m_Set, 1, 2); }
    ~SemTimedOp() override {
        if (m_Set >= 0) ipc::Remove(m_Set);
    }

    /// Takes one unit of the first position, which has none.
    int Take(const timespec* limit) {
        sembuf take{0, -1, 0};
        return KovaSemTimedOp(m_Set, &take, 1, limit);
    }
    Record TriedAgain() const { return {kTriedAgain, {m_Set}}; }

    const int m_Set;
    TraceRecorder m_Recorder;
};

/// The wall clock, which shows these times one after the other and then the end of time, and pauses without
/// time.
class WallClock {
  public:
    explicit WallClock(std::vector<timespec> times) : m_Times(std::move(times)) {}

    size_t Reads() const { return m_Reads; }
    size_t Pauses() const { return m_Sleeps.Calls(); }

  private:
    const std::vector<timespec> m_Times;
    size_t m_Reads = 0;
    const fake::Replace<int(clockid_t, timespec*)> m_Clock{
        fake::clock_gettime,
        [this](clockid_t clock, timespec* now) {
            EXPECT_EQ(CLOCK_REALTIME, clock);
            *now = m_Reads < m_Times.size() ? m_Times[m_Reads] : timespec{kMax, 0};
            ++m_Reads;
            return 0;
        },
        fake::kThisThread};
    const fake::Always<int(const timespec*, timespec*)> m_Sleeps{fake::nanosleep, fake::Return(0),
                                                                 fake::kThisThread};
};

TEST_F(SemTimedOp, DoesWhatCanBeDoneAtOnce) {
    sembuf operations[] = {{0, 4, SEM_UNDO}, {1, -2, 0}};
    const timespec limit{5, 0};
    errno = kStale;
    const fake::Journal journal({&fake::clock_gettime, &fake::semop, &fake::semtimedop, &fake::nanosleep},
                                fake::kThisThread);
    EXPECT_EQ(0, KovaSemTimedOp(m_Set, operations, 2, &limit));
    EXPECT_EQ(
        (Texts{"clock_gettime CLOCK_REALTIME", Semop(m_Set, "[0 +4 IPC_NOWAIT|SEM_UNDO, 1 -2 IPC_NOWAIT]")}),
        journal.Texts());
    EXPECT_EQ((Values{4, 0}), ipc::Values(m_Set));
    ExpectRecords(m_Recorder, {});
}

TEST_F(SemTimedOp, ChangesTheFlagsOfTheCallersOperations) {
    const timespec limit{0, 0};
    sembuf operations[] = {{1, -1, SEM_UNDO}, {0, -1, 0}, {1, 1, IPC_NOWAIT}, {0, 1, SEM_UNDO | IPC_NOWAIT}};
    EXPECT_EQ(-1, KovaSemTimedOp(m_Set, operations, 3, &limit));
    EXPECT_EQ(SEM_UNDO | IPC_NOWAIT, operations[0].sem_flg);
    EXPECT_EQ(IPC_NOWAIT, operations[1].sem_flg);
    EXPECT_EQ(IPC_NOWAIT, operations[2].sem_flg);
    EXPECT_EQ(1, operations[0].sem_num);
    EXPECT_EQ(-1, operations[0].sem_op);
    sembuf beyond[] = {{1, -1, 0}, {0, 0, 0}};
    EXPECT_EQ(0, KovaSemTimedOp(m_Set, beyond, 1, &limit));
    EXPECT_EQ(IPC_NOWAIT, beyond[0].sem_flg);
    EXPECT_EQ(0, beyond[1].sem_flg) << "not counted";
    EXPECT_EQ((Values{0, 1}), ipc::Values(m_Set));
}

TEST_F(SemTimedOp, DoesAllOperationsOrNone) {
    const timespec limit{0, 0};
    sembuf operations[] = {{1, -1, 0}, {0, -1, 0}};
    EXPECT_EQ(-1, KovaSemTimedOp(m_Set, operations, 2, &limit));
    EXPECT_EQ(EAGAIN, errno);
    EXPECT_EQ((Values{0, 2}), ipc::Values(m_Set));
}

TEST_F(SemTimedOp, TriesAgainEveryTwoMillisecondsAndTraces) {
    const WallClock clock({{100, 0}, {100, 0}, {100, 0}});
    const fake::Script operations(fake::semop, {fake::Real(), fake::Real(), fake::Return(0)},
                                  fake::kThisThread);
    const timespec limit{1, 0};
    const fake::Journal journal({&fake::clock_gettime, &fake::semop, &fake::nanosleep}, fake::kThisThread);
    EXPECT_EQ(0, Take(&limit));
    const std::string read = "clock_gettime CLOCK_REALTIME";
    const std::string attempt = Semop(m_Set, "[0 -1 IPC_NOWAIT]");
    const std::string pause = "nanosleep {0, 2000000}";
    EXPECT_EQ((Texts{read, attempt, read, pause, attempt, read, pause, attempt}), journal.Texts());
    ExpectRecords(m_Recorder, {Pause(), TriedAgain(), Pause(), TriedAgain()});
}

TEST_F(SemTimedOp, EndsAtTheDeadlineByTheWallClock) {
    struct Case {
        timespec begin, limit, before, at;
    };
    const Case cases[] = {
        {{100, 0}, {1, 0}, {100, 999999999}, {101, 0}},
        {{100, 500000000}, {1, 499999999}, {101, 998999999}, {101, 999000000}},
        {{100, 500000000}, {1, 500000000}, {101, 999999999}, {102, 0}},
        {{100, 900000000}, {1, 200999999}, {102, 99999999}, {102, 100000000}},
        {{100, 999999999}, {0, 999999999}, {101, 997999999}, {101, 998000000}},
        {{100, 1999999}, {0, 999999}, {100, 999999}, {100, 1000000}},
        {{100, 999000000}, {0, 1000000}, {100, 999999999}, {101, 0}},
    };
    for (const auto& [begin, limit, before, at] : cases) {
        SCOPED_TRACE(testing::Message() << begin.tv_sec << "." << begin.tv_nsec << " + " << limit.tv_sec
                                        << "." << limit.tv_nsec);
        m_Recorder.Clear();
        const WallClock clock({begin, before, before, at});
        const fake::Counter operations(fake::semop, fake::kThisThread);
        errno = 0;
        EXPECT_EQ(-1, Take(&limit));
        EXPECT_EQ(EAGAIN, errno);
        EXPECT_EQ(4u, clock.Reads());
        EXPECT_EQ(2u, clock.Pauses());
        EXPECT_EQ(3u, operations.Calls());
        ExpectRecords(m_Recorder, {Pause(), TriedAgain(), Pause(), TriedAgain()});
    }
}

TEST_F(SemTimedOp, FollowsTheWallClockForwardsAndBackwards) {
    const timespec limit{3, 0};
    {
        const WallClock clock({{1000, 0}, {2000, 0}});
        EXPECT_EQ(-1, Take(&limit));
        EXPECT_EQ(0u, clock.Pauses());
    }
    const WallClock clock({{1000, 0}, {1002, 0}, {10, 999000000}, {1002, 999999999}, {1003, 1}});
    EXPECT_EQ(-1, Take(&limit));
    EXPECT_EQ(EAGAIN, errno);
    EXPECT_EQ(3u, clock.Pauses());
}

TEST_F(SemTimedOp, OfZeroTriesOnce) {
    const timespec limit{0, 0};
    const fake::Counter operations(fake::semop, fake::kThisThread);
    const fake::Counter pauses(fake::nanosleep, fake::kThisThread);
    errno = 0;
    EXPECT_EQ(-1, Take(&limit));
    EXPECT_EQ(EAGAIN, errno);
    EXPECT_EQ(1u, operations.Calls());
    EXPECT_EQ(0u, pauses.Calls());
    ExpectRecords(m_Recorder, {});
    ipc::SetValue(m_Set, 0, 1);
    EXPECT_EQ(0, Take(&limit));
}

TEST_F(SemTimedOp, OfANegativeLimitTriesOnce) {
    for (const timespec limit : {timespec{-1, 0}, timespec{0, -1000000}, timespec{-5, -500000000}}) {
        const WallClock clock({{1000, 0}, {1000, 0}});
        const fake::Counter operations(fake::semop, fake::kThisThread);
        EXPECT_EQ(-1, Take(&limit));
        EXPECT_EQ(EAGAIN, errno);
        EXPECT_EQ(1u, operations.Calls());
    }
}

TEST_F(SemTimedOp, WithoutLimitWaitsForAsLongAsItTakes) {
    const WallClock clock({{1000, 0}});
    constexpr int kAttempts = 500;
    int attempts = 0;
    const fake::Replace operations(
        fake::semop,
        [&](int, sembuf*, size_t) {
            if (++attempts == kAttempts) return 0;
            errno = EAGAIN;
            return -1;
        },
        fake::kThisThread);
    EXPECT_EQ(0, Take(nullptr));
    EXPECT_EQ(kAttempts, attempts);
    EXPECT_EQ(size_t{kAttempts - 1}, clock.Pauses());
    EXPECT_EQ(size_t{kAttempts - 1}, m_Recorder.Count(kTriedAgain));
}

TEST_F(SemTimedOp, FarLimitIsNotOverAtOnce) {
    const WallClock clock({{1700000000, 999999999}, {1700000001, 0}});
    const fake::Script operations(fake::semop, {fake::Fail(EAGAIN), fake::Return(0)}, fake::kThisThread);
    const timespec limit{447483646, 0};
    EXPECT_EQ(0, Take(&limit)) << "up to the end of 32-bit time";
}

TEST_F(SemTimedOp, LimitBeyondTheClockEndsWithTheClock) {
    std::vector<timespec> limits{{kMax, 0}, {kMax, 999999999}, {447483647, 999999999}};
    if (sizeof(time_t) > sizeof(int32_t)) {
        for (const int64_t seconds :
             {int64_t{1} << 31, int64_t{1} << 32, int64_t{3} << 32, std::numeric_limits<int64_t>::max()}) {
            limits.push_back({static_cast<time_t>(seconds), 999999999});
        }
    }
    for (const timespec& limit : limits) {
        for (const time_t begin : {time_t{1700000000}, time_t{0}, time_t{kMax - 1}}) {
            SCOPED_TRACE(testing::Message() << begin << " + " << limit.tv_sec);
            if (begin == 0 && limit.tv_sec < kMax) continue;
            const WallClock clock({{begin, 0}, {kMax - 1, 999999999}, {kMax, 999999999}});
            EXPECT_EQ(-1, Take(&limit));
            EXPECT_EQ(EAGAIN, errno);
            EXPECT_EQ(1u, clock.Pauses()) << "not before the last second";
        }
    }
}

TEST_F(SemTimedOp, LimitBeforeTheClockTriesOnce) {
    std::vector<timespec> limits{{kMin, 0}, {kMin, -999999999}};
    if (sizeof(time_t) > sizeof(int32_t)) {
        for (const int64_t seconds : {-(int64_t{1} << 32) + 5, std::numeric_limits<int64_t>::min()}) {
            limits.push_back({static_cast<time_t>(seconds), 0});
        }
    }
    for (const timespec& limit : limits) {
        const WallClock clock({{1000, 0}, {1000, 0}});
        EXPECT_EQ(-1, Take(&limit)) << limit.tv_sec;
        EXPECT_EQ(EAGAIN, errno);
        EXPECT_EQ(0u, clock.Pauses());
    }
}

TEST_F(SemTimedOp, LimitIsWaitedFor) {
    const timespec limit{0, 50000000};
    const auto begin = steady_clock::now();
    EXPECT_EQ(-1, Take(&limit));
    EXPECT_EQ(EAGAIN, errno);
    EXPECT_GE(steady_clock::now() - begin, milliseconds(49))
        << "the wall clock is read in whole milliseconds";
}

TEST_F(SemTimedOp, EndsWithTheUnits) {
    const timespec limit{3600, 0};
    const fake::Counter operations(fake::semop);
    DeadlineThread waiter([&] { EXPECT_EQ(0, Take(&limit)); });
    EXPECT_TRUE(WaitUntil([&] { return operations.Calls() > 2; }));
    EXPECT_FALSE(waiter.HasEnded());
    ipc::SetValue(m_Set, 0, 1);
    waiter.Join();
    EXPECT_EQ((Values{0, 2}), ipc::Values(m_Set));
}

TEST_F(SemTimedOp, IsOverWhenTheWallClockIsSetBeyondTheDeadline) {
    KOVA_NEEDS_OWN_MACHINE("sets the wall clock");
    const timespec limit{3600, 0};
    const fake::Counter operations(fake::semop);
    WallClockShift shift;
    DeadlineThread waiter([&] {
        EXPECT_EQ(-1, Take(&limit));
        EXPECT_EQ(EAGAIN, errno);
    });
    EXPECT_TRUE(WaitUntil([&] { return operations.Calls() > 2; }));
    EXPECT_FALSE(waiter.HasEnded());
    shift.By(7200);
    waiter.Join();
}

TEST_F(SemTimedOp, IsRepeatedAfterASignalWithoutPause) {
    const fake::Script operations(fake::semop, {fake::Fail(EINTR), fake::Fail(EINTR), fake::Return(0)},
                                  fake::kThisThread);
    const timespec limit{0, 0};
    EXPECT_EQ(0, Take(&limit));
    ExpectRecords(m_Recorder, {{kInterrupted, {m_Set}}, {kInterrupted, {m_Set}}});
}

TEST_F(SemTimedOp, OtherFailuresEndItAtOnce) {
    const timespec limit{3600, 0};
    for (const int error : {EACCES, EIDRM, EINVAL, ERANGE, ETIMEDOUT}) {
        const fake::Script operations(fake::semop, {fake::Fail(error)}, fake::kThisThread);
        EXPECT_EQ(-1, Take(&limit));
        EXPECT_EQ(error, errno);
        const fake::Script others(fake::semop, {fake::Fail(error)}, fake::kThisThread);
        EXPECT_EQ(-1, Take(nullptr));
        EXPECT_EQ(error, errno);
    }
    sembuf beyond{2, 1, 0};
    EXPECT_EQ(-1, KovaSemTimedOp(m_Set, &beyond, 1, &limit));
    EXPECT_EQ(EFBIG, errno);
    EXPECT_EQ(-1, KovaSemTimedOp(-1, &beyond, 1, &limit));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ(-1, KovaSemTimedOp(m_Set, nullptr, 0, &limit));
    EXPECT_EQ(EINVAL, errno);
    ExpectRecords(m_Recorder, {});
}

TEST_F(SemTimedOp, GoesOnWhenAPauseFails) {
    const fake::Script pauses(fake::nanosleep, {fake::Fail(EINVAL)}, fake::kThisThread);
    const fake::Script operations(fake::semop, {fake::Fail(EAGAIN), fake::Return(0)}, fake::kThisThread);
    const timespec limit{3600, 0};
    EXPECT_EQ(0, Take(&limit));
    ExpectRecords(
        m_Recorder,
        {Pause(), {"sleep failed seconds=%d nanoseconds=%d errno=%d", {0, 2000000, EINVAL}}, TriedAgain()});
}

// --- The class ---

class SharedSemaphoreClass : public ipc::Test {
  protected:
    SharedSemaphoreClass() {
        const int inits[] = {3, 0};
        m_Object = std::make_unique<KovaSharedSemaphore>(kName, inits, 2);
        m_Set = m_Object->GetHandle();
        EXPECT_LE(0, m_Set);
        m_Recorder.Clear();
    }

    testing::AssertionResult HasError(int code, const char* function) const {
        if (m_Object->GetError() == code && m_Object->GetErrorFunction() != nullptr &&
            m_Object->GetErrorFunction() == std::string(function) && m_Object->GetErrorLine() > 0) {
            return testing::AssertionSuccess();
        }
        return testing::AssertionFailure()
               << m_Object->GetError() << " at line " << m_Object->GetErrorLine() << " of "
               << (m_Object->GetErrorFunction() != nullptr ? m_Object->GetErrorFunction() : "nothing");
    }
    /// Puts an error into the record, so that it can be seen to be cleared.
    void Spoil() {
        const fake::Script operations(fake::semop, {fake::Fail(EACCES)}, fake::kThisThread);
        EXPECT_FALSE(m_Object->Post(0));
        EXPECT_EQ(EACCES, m_Object->GetError());
        m_Recorder.Clear();
    }
    /// The operation fails, with this record in the object and these traces while they are on.
    void ExpectFailure(const std::function<bool()>& operation, int code, const char* function,
                       const Records& traces) {
        for (const bool on : {true, false, true}) {
            SCOPED_TRACE(testing::Message() << function << (on ? ", traced" : ", not traced"));
            m_Object->SetTrace(on);
            m_Object->ClearError();
            m_Recorder.Clear();
            EXPECT_FALSE(operation());
            EXPECT_TRUE(HasError(code, function));
            ExpectRecords(m_Recorder, on ? traces : Records{});
        }
    }
    /// The operation succeeds, clears the record and leaves no trace.
    void ExpectSuccess(const std::function<bool()>& operation) {
        Spoil();
        EXPECT_TRUE(operation());
        EXPECT_EQ(0, m_Object->GetError());
        ExpectRecords(m_Recorder, {});
    }
    Values All() const { return ipc::Values(m_Set); }

    std::unique_ptr<KovaSharedSemaphore> m_Object;
    int m_Set = -1;
    TraceRecorder m_Recorder;
};

TEST_F(SharedSemaphoreClass, OpensTheSetOfItsName) {
    EXPECT_EQ(ipc::FindSet(kPath), m_Object->GetHandle());
    EXPECT_STREQ(kName, m_Object->GetName());
    EXPECT_EQ((Values{1, 0, 3, 0}), All());
    EXPECT_EQ(0, m_Object->GetError());
    EXPECT_EQ(nullptr, m_Object->GetErrorFunction());
    EXPECT_EQ(0, m_Object->GetErrorLine());
    {
        const KovaSharedSemaphore other(kName, 7, 2);
        EXPECT_EQ(m_Set, other.GetHandle());
        EXPECT_EQ((Values{2, 0, 3, 0}), All());
    }
    EXPECT_EQ((Values{1, 0, 3, 0}), All());
    m_Object.reset();
    EXPECT_TRUE(ipc::Sets().empty());
}

TEST_F(SharedSemaphoreClass, GivesAllPositionsOneValue) {
    const KovaSharedSemaphore same("same", 4, 3);
    EXPECT_EQ((Values{1, 0, 4, 4, 4}), ipc::Values(same.GetHandle()));
    const KovaSharedSemaphore none("none", 4, 0);
    EXPECT_EQ((Values{1, 0}), ipc::Values(none.GetHandle()));
}

TEST_F(SharedSemaphoreClass, TracesFailuresFromItsConstructionOn) {
    const int inits[] = {0, 0};
    KovaSharedSemaphore listed("listed", inits, 2);
    KovaSharedSemaphore same("same", 0, 2);
    for (KovaSharedSemaphore* const fresh : {&listed, &same}) {
        m_Recorder.Clear();
        EXPECT_FALSE(fresh->TryWait(-1, 1));
        ExpectRecords(m_Recorder, {{kWouldWait, {fresh->GetHandle(), 1}}});
    }
}

TEST_F(SharedSemaphoreClass, KeepsTheFirst64CharactersOfItsName) {
    const std::string longest = std::string(60, 'n') + "abcd";
    {
        const KovaSharedSemaphore object(longest.substr(0, 63).c_str(), 0, 1);
        EXPECT_STREQ(longest.substr(0, 63).c_str(), object.GetName());
    }
    for (const std::string& name : {longest, longest + "e", longest + std::string(5000, 'e')}) {
        const KovaSharedSemaphore object(name.c_str(), 0, 1);
        EXPECT_EQ(longest, std::string(object.GetName(), 64));
        EXPECT_EQ(ipc::FindSet("/tmp/kova/" + longest + ".kovasem"), object.GetHandle());
        EXPECT_LE(0, object.GetHandle());
    }
    EXPECT_EQ(1u, ipc::Sets().size());
}

TEST_F(SharedSemaphoreClass, MayHaveANameThatIsExpanded) {
    ::setenv("KOVA_TEST_NAME", "s", 1);
    const KovaSharedSemaphore object("$KOVA_TEST_NAME", 0, 2);
    EXPECT_STREQ("$KOVA_TEST_NAME", object.GetName());
    EXPECT_EQ(m_Set, object.GetHandle());
    ::unsetenv("KOVA_TEST_NAME");
}

TEST_F(SharedSemaphoreClass, WaitTakes) {
    ExpectSuccess([&] { return m_Object->Wait(-2, 0); });
    ExpectSuccess([&] { return m_Object->Wait(4, 1); });
    EXPECT_EQ((Values{1, 0, 1, 4}), All());
    const fake::Always operations(fake::semop, fake::Fail(EIDRM), fake::kThisThread);
    ExpectFailure([&] { return m_Object->Wait(-1, 1); }, EIDRM,
                  "bool KovaSharedSemaphore::Wait(int, unsigned int)", {{kWaitFailed, {m_Set, 1, EIDRM}}});
}

TEST_F(SharedSemaphoreClass, TryWaitTakesOrTells) {
    constexpr const char* kFunction = "bool KovaSharedSemaphore::TryWait(int, unsigned int)";
    ExpectSuccess([&] { return m_Object->TryWait(-2, 0); });
    EXPECT_EQ((Values{1, 0, 1, 0}), All());
    ExpectFailure([&] { return m_Object->TryWait(-1, 1); }, 11, kFunction, {{kWouldWait, {m_Set, 1}}});
    ExpectFailure([&] { return m_Object->TryWait(-1, 65534); }, EINVAL, kFunction,
                  {{kTryWaitFailed, {m_Set, 65534, EINVAL}}});
    const fake::Always operations(fake::semop, fake::Fail(EIDRM), fake::kThisThread);
    ExpectFailure([&] { return m_Object->TryWait(-1, 1); }, EIDRM, kFunction,
                  {{kTryWaitFailed, {m_Set, 1, EIDRM}}});
}

TEST_F(SharedSemaphoreClass, TimedWaitTakesTheLimitFirst) {
    constexpr const char* kFunction = "bool KovaSharedSemaphore::TimedWait(int, int, unsigned int)";
    {
        const fake::Journal journal({&fake::semtimedop}, fake::kThisThread);
        ExpectSuccess([&] { return m_Object->TimedWait(1500, -2, 0); });
        EXPECT_EQ((Texts{Semtimedop(m_Set, "[2 -2 SEM_UNDO] {1, 500000000}")}), journal.Texts());
    }
    EXPECT_EQ((Values{1, 0, 1, 0}), All());
    ExpectFailure([&] { return m_Object->TimedWait(10, -1, 1); }, 110, kFunction,
                  {{kTimeOver, {m_Set, 1, 10}}});
    ExpectFailure([&] { return m_Object->TimedWait(0, -1, 1); }, 110, kFunction,
                  {{kTimeOver, {m_Set, 1, 0}}});
    ExpectFailure([&] { return m_Object->TimedWait(-7, -1, 0); }, EINVAL, kFunction,
                  {{kTimedWaitFailed, {m_Set, 0, -7, EINVAL}}});
}

TEST_F(SharedSemaphoreClass, TriggerTakesTheLevelFirst) {
    constexpr const char* kFunction = "bool KovaSharedSemaphore::Trigger(unsigned int, unsigned int, int)";
    ipc::SetValue(m_Set, 3, 9);
    {
        const fake::Journal journal({&fake::semop, &fake::semtimedop}, fake::kThisThread);
        EXPECT_TRUE(m_Object->Trigger(5, 1, 0));
        EXPECT_TRUE(m_Object->Trigger(5, 1, 2500));
        EXPECT_TRUE(m_Object->Trigger(5, 1, -1)) << "nearly 50 days";
        EXPECT_TRUE(m_Object->Trigger(5, 1, kMin));
        EXPECT_EQ((Texts{Semop(m_Set, "[3 -5 SEM_UNDO, 3 +5 SEM_UNDO]"),
                         Semtimedop(m_Set, "[3 -5 SEM_UNDO, 3 +5 SEM_UNDO] {2, 500000000}"),
                         Semtimedop(m_Set, "[3 -5 SEM_UNDO, 3 +5 SEM_UNDO] {4294967, 295000000}"),
                         Semtimedop(m_Set, "[3 -5 SEM_UNDO, 3 +5 SEM_UNDO] {2147483, 648000000}")}),
                  journal.Texts());
    }
    ExpectSuccess([&] { return m_Object->Trigger(9, 1, 0); });
    EXPECT_EQ((Values{1, 0, 3, 9}), All());
    ExpectFailure([&] { return m_Object->Trigger(4, 0, 10); }, 110, kFunction,
                  {{kTriggerOver, {m_Set, 0, 4}}});
    ExpectFailure([&] { return m_Object->Trigger(40000, 1, 10); }, ERANGE, kFunction,
                  {{kTriggerFailed, {m_Set, 1, 40000, ERANGE}}});
    const fake::Always operations(fake::semop, fake::Fail(ETIMEDOUT), fake::kThisThread);
    ExpectFailure([&] { return m_Object->Trigger(4, 0, 0); }, ETIMEDOUT, kFunction,
                  {{kTriggerFailed, {m_Set, 0, 4, ETIMEDOUT}}});
}

TEST_F(SharedSemaphoreClass, PostGivesOne) {
    ExpectSuccess([&] { return m_Object->Post(1); });
    EXPECT_EQ((Values{1, 0, 3, 1}), All());
    const fake::Always operations(fake::semop, fake::Fail(ERANGE), fake::kThisThread);
    ExpectFailure([&] { return m_Object->Post(1); }, ERANGE, "bool KovaSharedSemaphore::Post(unsigned int)",
                  {{kPostFailed, {m_Set, 1, ERANGE}}});
}

TEST_F(SharedSemaphoreClass, SetValTakesTheValueFirst) {
    ExpectSuccess([&] { return m_Object->SetVal(6, 1); });
    EXPECT_EQ((Values{1, 0, 3, 6}), All());
    ExpectFailure([&] { return m_Object->SetVal(-1, 1); }, ERANGE,
                  "bool KovaSharedSemaphore::SetVal(int, unsigned int)",
                  {{kSetValueFailed, {m_Set, 1, ERANGE}}});
}

TEST_F(SharedSemaphoreClass, GetValReads) {
    ExpectSuccess([&] { return m_Object->GetVal(0) == 3 && m_Object->GetVal(1) == 0; });
    ExpectFailure([&] { return m_Object->GetVal(2) != -1; }, EINVAL,
                  "int KovaSharedSemaphore::GetVal(unsigned int)", {{kGetValueFailed, {m_Set, 2, EINVAL}}});
}

TEST_F(SharedSemaphoreClass, GetRefCounterReads) {
    ExpectSuccess([&] { return m_Object->GetRefCounter() == 1; });
    const FailingControl reads(GETVAL, EACCES);
    ExpectFailure([&] { return m_Object->GetRefCounter() != -1; }, EACCES,
                  "int KovaSharedSemaphore::GetRefCounter()", {});
}

TEST_F(SharedSemaphoreClass, GetNoOfWaitersLeavesTheRecordAlone) {
    EXPECT_EQ(0, m_Object->GetNoOfWaiters());
    Spoil();
    EXPECT_EQ(0, m_Object->GetNoOfWaiters());
    EXPECT_TRUE(HasError(EACCES, "bool KovaSharedSemaphore::Post(unsigned int)"));
    m_Object->ClearError();
    const FailingControl counts(GETNCNT, EINVAL);
    EXPECT_EQ(-1, m_Object->GetNoOfWaiters());
    EXPECT_EQ(0, m_Object->GetError());
    ExpectRecords(m_Recorder, {});
}

TEST_F(SharedSemaphoreClass, SetPersistentKeepsTheSet) {
    ExpectSuccess([&] { return m_Object->SetPersistent(); });
    EXPECT_EQ((Values{1, 1, 3, 0}), All());
    m_Object.reset();
    EXPECT_EQ((Values{0, 1, 3, 0}), All());
    {
        const KovaSharedSemaphore again(kName, 8, 2);
        EXPECT_EQ(m_Set, again.GetHandle());
        EXPECT_EQ((Values{1, 1, 3, 0}), All());
    }
    ipc::Remove(m_Set);
}

TEST_F(SharedSemaphoreClass, SetPersistentEndsTheProcessOrIsTrue) {
    ExpectAbend(
        [&] {
            const FailingControl settings(SETVAL, EACCES);
            m_Object->SetPersistent();
        },
        {{kPersistentFailed, {m_Set, EACCES}}});
    WhileAborting([&] {
        const FailingControl settings(SETVAL, EACCES);
        EXPECT_TRUE(m_Object->SetPersistent()) << "the function never tells a failure";
        EXPECT_EQ(0, m_Object->GetError());
    });
}

TEST_F(SharedSemaphoreClass, InterruptionsAreTracedWithTheTracesOff) {
    m_Object->SetTrace(false);
    const fake::Script operations(fake::semop, {fake::Fail(EINTR), fake::Real()}, fake::kThisThread);
    EXPECT_TRUE(m_Object->Post(0));
    ExpectRecords(m_Recorder, {{kInterrupted, {m_Set}}});
}

TEST_F(SharedSemaphoreClass, SuccessKeepsFunctionAndLineOfTheLastFailure) {
    Spoil();
    EXPECT_TRUE(m_Object->Post(0));
    EXPECT_TRUE(HasError(0, "bool KovaSharedSemaphore::Post(unsigned int)"));
}

class SharedSemaphoreClassFailure : public SharedSemaphoreClass {};

TEST_F(SharedSemaphoreClassFailure, OfTheConstructorsEndsTheProcess) {
    const Records traces{{kExistingSet, {-1, 2}},
                         {kUnlocked, {NextFdInChild()}},
                         {kNoSet, {static_cast<int>(ipc::KeyOf(kPath)), 2, ENOSPC}}};
    ExpectAbend(
        [] {
            const fake::Always sets(fake::semget, fake::Fail(ENOSPC), fake::kThisThread);
            const KovaSharedSemaphore object(kName, 1, 2);
        },
        traces);
    ExpectAbend(
        [] {
            const fake::Always sets(fake::semget, fake::Fail(ENOSPC), fake::kThisThread);
            const int inits[] = {1, 2};
            const KovaSharedSemaphore object(kName, inits, 2);
        },
        traces);
}

TEST_F(SharedSemaphoreClassFailure, OfTheConstructorsIsRecordedOnAThreadThatIsAborting) {
    WhileAborting([] {
        const fake::Always sets(fake::semget, fake::Fail(ENOSPC), fake::kThisThread);
        const KovaSharedSemaphore one(kName, 1, 2);
        EXPECT_EQ(-1, one.GetHandle());
        EXPECT_EQ(ENOSPC, one.GetError());
        EXPECT_STREQ("KovaSharedSemaphore::KovaSharedSemaphore(const char*, int, int)",
                     one.GetErrorFunction());
        EXPECT_LT(0, one.GetErrorLine());
        const int inits[] = {1, 2};
        const KovaSharedSemaphore other(kName, inits, 2);
        EXPECT_EQ(-1, other.GetHandle());
        EXPECT_EQ(ENOSPC, other.GetError());
        EXPECT_STREQ("KovaSharedSemaphore::KovaSharedSemaphore(const char*, const int*, int)",
                     other.GetErrorFunction());
        EXPECT_LT(0, other.GetErrorLine());
    });
}

TEST_F(SharedSemaphoreClassFailure, OfMemoryIsAFailedCreate) {
    WhileAborting([&] {
        fake::Always arrays(fake::new_array_nothrow, fake::Fail(ENOMEM), fake::kThisThread);
        fake::Always others(fake::new_nothrow, fake::Fail(ENOMEM), fake::kThisThread);
        const KovaSharedSemaphore object("new", 1, 2);
        if (arrays.Calls() + others.Calls() == 0) return;  // done without memory
        EXPECT_EQ(-1, object.GetHandle());
        EXPECT_NE(0, object.GetError());
    });
    EXPECT_EQ(-1, ipc::FindSet("/tmp/kova/new.kovasem"));
}

/// A semaphore whose error record is read after its own destructor.
class DyingSemaphore : private ErrorWitness, public KovaSharedSemaphore {
  public:
    explicit DyingSemaphore(KeptError& kept) : ErrorWitness(kept), KovaSharedSemaphore(kName, 0, 2) {}
};

TEST_F(SharedSemaphoreClassFailure, OfTheDestructorIsRecordedInTheDyingObject) {
    KeptError kept;
    {
        DyingSemaphore dies(kept);
        const fake::Script operations(fake::semop, {fake::Fail(EIDRM)}, fake::kThisThread);
        EXPECT_FALSE(dies.Post(0));
    }
    EXPECT_EQ(0, kept.code) << "cleared";
    auto dies = std::make_unique<DyingSemaphore>(kept);
    const FailingControl removals(IPC_RMID, EPERM);
    const fake::Script counts(fake::semop, {fake::Fail(EIDRM)}, fake::kThisThread);
    m_Recorder.Clear();
    const int fd = NextFd();
    dies.reset();
    EXPECT_EQ(EIDRM, kept.code);
    EXPECT_EQ("virtual KovaSharedSemaphore::~KovaSharedSemaphore()", kept.function);
    EXPECT_LT(0, kept.line);
    ExpectRecords(m_Recorder, {{kNotClosed, {m_Set, EIDRM}}, {kStaysOpen, {m_Set, 2}}, {kUnlocked, {fd}}});
    ipc::SetValue(m_Set, 0, 1);
    m_Object.reset();
    EXPECT_EQ(1u, removals.Calls());
    ipc::Remove(m_Set);
}

TEST_F(SharedSemaphoreClassFailure, OfAllOperationsOnAnObjectWithoutSetIsTold) {
    WhileAborting([&] {
        const fake::Script sets(fake::semget, {fake::Fail(ENOSPC), fake::Fail(ENOSPC)}, fake::kThisThread);
        KovaSharedSemaphore object("none", 1, 1);
        EXPECT_EQ(-1, object.GetHandle());
        const std::vector<std::function<bool()>> operations{
            [&] { return object.Wait(-1, 0); },          [&] { return object.TryWait(-1, 0); },
            [&] { return object.TimedWait(10, -1, 0); }, [&] { return object.Trigger(1, 0, 0); },
            [&] { return object.Trigger(1, 0, 10); },    [&] { return object.Post(0); },
            [&] { return object.SetVal(1, 0); },         [&] { return object.GetVal(0) != -1; },
            [&] { return object.GetRefCounter() != -1; }};
        for (const auto& operation : operations) {
            object.ClearError();
            EXPECT_FALSE(operation());
            EXPECT_EQ(EINVAL, object.GetError());
        }
    });
}

TEST_F(SharedSemaphoreClass, MayBeUsedByManyThreads) {
    constexpr int kRounds = 200;
    {
        std::vector<std::unique_ptr<DeadlineThread>> threads;
        for (int i = 0; i < 3; ++i) {
            threads.push_back(std::make_unique<DeadlineThread>([&] {
                for (int round = 0; round < kRounds; ++round) EXPECT_TRUE(m_Object->Post(1));
            }));
            threads.push_back(std::make_unique<DeadlineThread>([&] {
                for (int round = 0; round < kRounds; ++round) EXPECT_TRUE(m_Object->Wait(-1, 1));
            }));
        }
        threads.push_back(std::make_unique<DeadlineThread>([&] {
            for (int round = 0; round < kRounds; ++round) m_Object->SetTrace(round % 2 == 0);
        }));
    }
    EXPECT_EQ((Values{1, 0, 3, 0}), All());
}

}  // namespace
