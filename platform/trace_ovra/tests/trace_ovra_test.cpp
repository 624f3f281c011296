// The facility itself: opening buffers, writing records, what of them survives.

#include "trace_ovra.h"

#include "support/own_machine.h"
#include "test_support.h"
#include "ticks.h"
#include "trace_ovra_hash.h"

#include <errno.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sched.h>
#include <signal.h>
#include <stddef.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <map>
#include <set>
#include <thread>

namespace trace_ovra {
namespace {

constexpr uint32_t kSize = 32768;

uint32_t MustOpen(const char* name, uint32_t size = kSize) {
    uint32_t handle = 0;
    EXPECT_EQ(trace_ovra_init_buffer(&handle, name, size), 0);
    EXPECT_NE(handle, 0u);
    return handle;
}

int WriteEmpty(uint32_t handle) { return trace_ovra_write_ints5(handle, 7, 0x1234, 0, 0, 0, 0, 0); }

/// The one buffer of this process called `name`.
TraceBuffer MustRead(const std::string& name) {
    ReadResult result = ReadProcess(getpid(), name);
    EXPECT_EQ(result.error, "");
    EXPECT_EQ(result.buffers.size(), 1u);
    return result.buffers.empty() ? TraceBuffer() : result.buffers.front();
}

std::string BufferFile(const TempDir& directory, const std::string& name, pid_t pid) {
    return directory.File(name + "." + std::to_string(pid) + ".trace");
}

size_t OpenDescriptors() {
    std::filesystem::directory_iterator entries("/proc/self/fd");
    return static_cast<size_t>(std::distance(begin(entries), end(entries)));
}

/// Under a user-mode emulator /proc/self/maps is the program's and /proc/self/mem the emulator's.
bool CanReadItself() {
    const uint32_t expected = 0x4B4F5641;
    const auto address =
        reinterpret_cast<uintptr_t>(&expected);  // the upper half of 32 bits is no negative offset
    uint32_t found = 0;
    const int memory = open("/proc/self/mem", O_RDONLY | O_CLOEXEC);
    const ssize_t count = pread64(memory, &found, sizeof found, static_cast<off64_t>(address));
    close(memory);
    return count == sizeof found && found == expected;
}

/// Tests that read the buffers of their own, living process.
class LiveTest : public testing::Test {
  protected:
    void SetUp() override {
        if (!CanReadItself())
            GTEST_SKIP() << "/proc/self/mem is not this program's memory (user-mode emulator)";
    }
};

class TraceOvra : public LiveTest {};
class TraceOvraFallback : public LiveTest {};
class TraceOvraTime : public LiveTest {};
class TraceOvraConcurrency : public LiveTest {};

// --- Records ---

TEST_F(TraceOvra, OneRecordIsReadBackWhole) {
    EXPECT_TRUE(Passed(InChild([] {
        const uint32_t handle = MustOpen("ONE");
        EXPECT_EQ(trace_ovra_write_ints5(handle, 2 << 16 | 321, 0xCAFEBABE, 11, 0xFFFFFFFF, 0, 0, 0), 0);
        const TraceBuffer buffer = MustRead("ONE");
        EXPECT_EQ(buffer.name, "ONE");
        EXPECT_EQ(buffer.pid, static_cast<uint32_t>(getpid()));
        EXPECT_EQ(buffer.written, 1u);
        EXPECT_EQ(buffer.lost + buffer.torn, 0u);
        EXPECT_FALSE(buffer.foreign_order);
        ASSERT_EQ(buffer.records.size(), 1u);
        const Record& record = buffer.records[0];
        EXPECT_EQ(record.sequence, 0u);
        EXPECT_EQ(record.thread, static_cast<uint32_t>(gettid()));
        EXPECT_EQ(record.Count(), 2u);
        EXPECT_EQ(record.Line(), 321u);
        EXPECT_EQ(record.hash, 0xCAFEBABE);
        EXPECT_EQ(record.values, (std::array<uint32_t, 9>{11, 0xFFFFFFFF}));
    })));
}

TEST_F(TraceOvra, FiveAndNineValuesAreKept) {
    EXPECT_TRUE(Passed(InChild([] {
        const uint32_t handle = MustOpen("VALUES");
        EXPECT_EQ(trace_ovra_write_ints5(handle, 5 << 16, 1, 10, 11, 12, 13, 14), 0);
        EXPECT_EQ(trace_ovra_write_ints9(handle, 9 << 16, 2, 20, 21, 22, 23, 24, 25, 26, 27, 28), 0);
        const TraceBuffer buffer = MustRead("VALUES");
        ASSERT_EQ(buffer.records.size(), 2u);
        EXPECT_EQ(buffer.records[0].values, (std::array<uint32_t, 9>{10, 11, 12, 13, 14}));
        EXPECT_EQ(buffer.records[1].values, (std::array<uint32_t, 9>{20, 21, 22, 23, 24, 25, 26, 27, 28}));
        EXPECT_LE(buffer.records[0].ticks, buffer.records[1].ticks);
    })));
}

TEST_F(TraceOvra, OldestRecordsAreOverwritten) {
    EXPECT_TRUE(Passed(InChild([] {
        const uint32_t handle = MustOpen("WRAP", 8 * kSlotSize);
        for (uint32_t i = 0; i < 20; ++i) trace_ovra_write_ints5(handle, 1 << 16, 1, i, 0, 0, 0, 0);
        const TraceBuffer buffer = MustRead("WRAP");
        EXPECT_EQ(buffer.written, 20u);
        EXPECT_EQ(buffer.lost, 12u);
        EXPECT_EQ(buffer.torn, 0u);
        ASSERT_EQ(buffer.records.size(), 8u);
        for (uint32_t i = 0; i < 8; ++i) EXPECT_EQ(buffer.records[i].values[0], 12 + i);
    })));
}

TEST_F(TraceOvra, RecordSurvivesTheEndOfItsThread) {
    EXPECT_TRUE(Passed(InChild([] {
        const uint32_t handle = MustOpen("THREAD");
        uint32_t id = 0;
        std::thread([&] {
            id = static_cast<uint32_t>(gettid());
            WriteEmpty(handle);
        }).join();
        WriteEmpty(handle);
        const TraceBuffer buffer = MustRead("THREAD");
        ASSERT_EQ(buffer.records.size(), 2u);
        EXPECT_EQ(buffer.records[0].thread, id);
        EXPECT_EQ(buffer.records[1].thread, static_cast<uint32_t>(gettid()));
    })));
}

TEST_F(TraceOvra, ForkedChildWritesItsOwnThreadIdIntoTheSameBuffer) {
    EXPECT_TRUE(Passed(InChild([] {
        const uint32_t handle = MustOpen("FORK");
        WriteEmpty(handle);
        const ChildResult child = InChild([&] { WriteEmpty(handle); });
        const TraceBuffer buffer = MustRead("FORK");
        ASSERT_EQ(buffer.records.size(), 2u);
        EXPECT_EQ(buffer.records[0].thread, static_cast<uint32_t>(getpid()));
        EXPECT_EQ(buffer.records[1].thread, static_cast<uint32_t>(child.pid));
    })));
}

// --- Handles, names, sizes ---

TEST_F(TraceOvra, BadHandleIsRefusedAndNothingElse) {
    EXPECT_TRUE(Passed(InChild([] {
        const uint32_t handle = MustOpen("HANDLE");
        for (const uint32_t bad : {0u, handle + 1, 16u, 17u, 0x80000000u, 0xFFFFFFFFu}) {
            EXPECT_EQ(WriteEmpty(bad), -1) << bad;
            EXPECT_EQ(trace_ovra_write_ints9(bad, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0), -1) << bad;
        }
        EXPECT_EQ(MustRead("HANDLE").written, 0u);
    })));
}

TEST_F(TraceOvra, OpenNameGivesTheSameBuffer) {
    EXPECT_TRUE(Passed(InChild([] {
        const uint32_t first = MustOpen("SAME");
        EXPECT_NE(MustOpen("OTHER"), first);
        EXPECT_EQ(MustOpen("SAME", 64), first);
    })));
}

TEST_F(TraceOvra, ThirtyOneCharactersOfANameCount) {
    EXPECT_TRUE(Passed(InChild([] {
        const std::string name(31, 'n');
        const uint32_t handle = MustOpen((name + "left").c_str());
        EXPECT_EQ(MustOpen((name + "right").c_str()), handle);
        EXPECT_EQ(MustRead(name).name, name);
        EXPECT_NE(MustOpen(std::string(30, 'n').c_str()), handle);
    })));
}

TEST_F(TraceOvra, FullTableRefusesTheSeventeenthBuffer) {
    EXPECT_TRUE(Passed(InChild([] {
        for (int i = 0; i < 16; ++i) MustOpen(("B" + std::to_string(i)).c_str(), 64);
        uint32_t handle = 99;
        EXPECT_EQ(trace_ovra_init_buffer(&handle, "B16", 64), -1);
        EXPECT_EQ(handle, 99u);
        EXPECT_EQ(trace_ovra_init_buffer(&handle, "B15", 64), 0);
        EXPECT_EQ(WriteEmpty(handle), 0);
    })));
}

TEST_F(TraceOvra, BadArgumentsLeaveTheHandle) {
    uint32_t handle = 99;
    EXPECT_EQ(trace_ovra_init_buffer(&handle, "SMALL", 63), -1);
    EXPECT_EQ(trace_ovra_init_buffer(&handle, "SMALL", 0), -1);
    EXPECT_EQ(trace_ovra_init_buffer(&handle, nullptr, kSize), -1);
    EXPECT_EQ(trace_ovra_init_buffer(&handle, "", kSize), -1);
    EXPECT_EQ(trace_ovra_init_buffer(nullptr, "SMALL", kSize), -1);
    EXPECT_EQ(handle, 99u);
}

TEST_F(TraceOvra, SlotCountIsSizeRoundedDownToAPowerOfTwo) {
    const std::map<uint32_t, size_t> expected = {{64, 1},  {127, 1}, {128, 2},
                                                 {255, 2}, {640, 8}, {32768, 512}};
    for (const auto& [size, slots] : expected) {
        EXPECT_TRUE(Passed(InChild([&, size = size, slots = slots] {
            const uint32_t handle = MustOpen("COUNT", size);
            for (int i = 0; i < 600; ++i) WriteEmpty(handle);
            EXPECT_EQ(MustRead("COUNT").records.size(), slots) << size;
        })));
    }
}

TEST_F(TraceOvra, OpeningKeepsNoDescriptorAndErrno) {
    TempDir directory;
    EXPECT_TRUE(Passed(InChild([&] {
        const size_t before = OpenDescriptors();
        errno = 4711;
        MustOpen("MEMORY");
        setenv("TRACE_OVRA_DIR", directory.Path().c_str(), 1);
        MustOpen("FILE");
        setenv("TRACE_OVRA_DIR", "/nowhere/at/all", 1);
        MustOpen("FALLBACK");
        EXPECT_EQ(errno, 4711);
        EXPECT_EQ(OpenDescriptors(), before);
    })));
}

TEST_F(TraceOvra, WritingKeepsErrno) {
    EXPECT_TRUE(Passed(InChild([] {
        const uint32_t handle = MustOpen("ERRNO");
        errno = 4711;
        EXPECT_EQ(WriteEmpty(handle), 0);
        EXPECT_EQ(WriteEmpty(0), -1);
        EXPECT_EQ(errno, 4711);
    })));
}

// --- Hash ---

TEST(TraceOvraHash, HashEqualsTheOneOfTheCompiler) {
    constexpr uint32_t compiled = TraceOvraHash("nTid=%x KovaGetTid()=%x", 2);
    EXPECT_EQ(trace_ovra_hash("nTid=%x KovaGetTid()=%x", 2), compiled);
    for (const char* text : {"", "a", "\xC3\xA4 %d", "a longer text without any value"}) {
        for (const uint32_t count : {0u, 1u, 9u})
            EXPECT_EQ(trace_ovra_hash(text, count), TraceOvraHash(text, count));
    }
    EXPECT_EQ(trace_ovra_hash(nullptr, 3), trace_ovra_hash("", 3));
}

TEST(TraceOvraHash, HashIsFnv1aOfTextAndCount) {
    // Published FNV-1a values of "a" and "foobar", each read as a text and a last byte.
    EXPECT_EQ(trace_ovra_hash("", 'a'), 0xE40C292Cu);
    EXPECT_EQ(trace_ovra_hash("fooba", 'r'), 0xBF9CF968u);
    EXPECT_NE(trace_ovra_hash("x", 1), trace_ovra_hash("x", 2));
}

// --- Files ---

TEST(TraceOvraFile, SurvivesEveryWayToDie) {
    const std::map<std::string, void (*)()> ways = {{"exit", [] { _exit(0); }},
                                                    {"kill", [] { kill(getpid(), SIGKILL); }},
                                                    {"abort", [] {
                                                         signal(SIGABRT, SIG_DFL);
                                                         const rlimit none{0, 0};
                                                         setrlimit(RLIMIT_CORE, &none);
                                                         abort();
                                                     }}};
    for (const auto& [name, die] : ways) {
        TempDir directory;
        const ChildResult child = InChild([&, die = die] {
            setenv("TRACE_OVRA_DIR", directory.Path().c_str(), 1);
            const uint32_t handle = MustOpen("LAST");
            trace_ovra_write_ints5(handle, 1 << 16, 5, 42, 0, 0, 0, 0);
            die();
        });
        const ReadResult result = ReadFile(BufferFile(directory, "LAST", child.pid));
        ASSERT_EQ(result.buffers.size(), 1u) << name << ": " << result.error;
        EXPECT_EQ(result.buffers[0].pid, static_cast<uint32_t>(child.pid));
        ASSERT_EQ(result.buffers[0].records.size(), 1u);
        EXPECT_EQ(result.buffers[0].records[0].values[0], 42u);
    }
}

TEST(TraceOvraFile, IsPrivateAndHasItsSize) {
    TempDir directory;
    const ChildResult child = InChild([&] {
        setenv("TRACE_OVRA_DIR", directory.Path().c_str(), 1);
        umask(0);
        MustOpen("MODE");
    });
    struct stat status {};
    ASSERT_EQ(stat(BufferFile(directory, "MODE", child.pid).c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600u);
    EXPECT_EQ(status.st_size, 256 + 32768);
}

TEST(TraceOvraFile, NeverWritesThroughALink) {
    TempDir directory;
    const std::string victim = directory.File("victim");
    WriteText(victim, "untouched");
    const ChildResult child = InChild([&] {
        setenv("TRACE_OVRA_DIR", directory.Path().c_str(), 1);
        EXPECT_EQ(symlink(victim.c_str(), BufferFile(directory, "LINK", getpid()).c_str()), 0);
        WriteEmpty(MustOpen("LINK"));
    });
    EXPECT_TRUE(Passed(child));
    EXPECT_EQ(FileBytes(victim).size(), 9u);
    EXPECT_EQ(ReadFile(BufferFile(directory, "LINK", child.pid)).buffers.size(), 1u);
}

TEST(TraceOvraFile, OddCharactersOfANameAreReplaced) {
    TempDir directory;
    const ChildResult child = InChild([&] {
        setenv("TRACE_OVRA_DIR", directory.Path().c_str(), 1);
        MustOpen("../a b");
    });
    const ReadResult result = ReadFile(BufferFile(directory, "_._a_b", child.pid));
    ASSERT_EQ(result.buffers.size(), 1u) << result.error;
    EXPECT_EQ(result.buffers[0].name, "../a b");
}

TEST_F(TraceOvraFallback, SecondNameWithTheSameFileStaysInMemory) {
    TempDir directory;
    EXPECT_TRUE(Passed(InChild([&] {
        setenv("TRACE_OVRA_DIR", directory.Path().c_str(), 1);
        WriteEmpty(MustOpen("a/b"));
        MustOpen("a:b");
        const ReadResult result = ReadFile(BufferFile(directory, "a_b", getpid()));
        ASSERT_EQ(result.buffers.size(), 1u) << result.error;
        EXPECT_EQ(result.buffers[0].name, "a/b");
        EXPECT_EQ(MustRead("a/b").written, 1u);
        EXPECT_EQ(MustRead("a:b").written, 0u);
    })));
}

TEST_F(TraceOvraFallback, UnusableDirectoryFallsBackToMemory) {
    TempDir directory;
    WriteText(directory.File("file"), "");
    for (const std::string& path : {directory.File("missing"), directory.File("file"), std::string("/proc"),
                                    std::string(5000, 'x'), std::string()}) {
        EXPECT_TRUE(Passed(InChild([&] {
            setenv("TRACE_OVRA_DIR", path.c_str(), 1);
            EXPECT_EQ(WriteEmpty(MustOpen("FALLBACK")), 0);
            EXPECT_EQ(MustRead("FALLBACK").records.size(), 1u);
        }))) << path;
    }
}

TEST_F(TraceOvraFallback, FullFileSystemFallsBackToMemory) {
    TempDir directory;
    EXPECT_TRUE(Passed(InChild([&] {
        setenv("TRACE_OVRA_DIR", directory.Path().c_str(), 1);
        signal(SIGXFSZ, SIG_IGN);
        const rlimit limit{8192, 8192};
        ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
        EXPECT_EQ(WriteEmpty(MustOpen("FULL")), 0);
        EXPECT_EQ(MustRead("FULL").records.size(), 1u);
        EXPECT_FALSE(std::filesystem::exists(BufferFile(directory, "FULL", getpid())));
    })));
}

// --- Time ---

/// The record's values hold when it was written at the earliest, in nanoseconds.
void WriteNow(uint32_t handle) {
    const uint64_t now = ClockNs(CLOCK_REALTIME);
    trace_ovra_write_ints5(handle, 2 << 16, 1, Upper(now), Lower(now), 0, 0, 0);
}

void ExpectTime(const TraceBuffer& buffer) {
    constexpr int64_t slack = 1'000'000'000;  // a busy machine may pause between two clock readings
    ASSERT_FALSE(buffer.records.empty());
    for (const Record& record : buffer.records) {
        const auto time = buffer.clock.RealtimeNs(record.ticks);
        ASSERT_TRUE(time.has_value());
        const auto written = static_cast<int64_t>(Joined(record.values[0], record.values[1]));
        EXPECT_GE(*time, written - slack);
        EXPECT_LE(*time, written + slack);
    }
}

TEST_F(TraceOvraTime, LivingProcessGivesTheTimeOfDay) {
    EXPECT_TRUE(Passed(InChild([] {
        const uint32_t handle = MustOpen("TIME");
        WriteNow(handle);
        usleep(20'000);
        WriteNow(handle);
        ExpectTime(MustRead("TIME"));
    })));
}

TEST_F(TraceOvraTime, EndOfTheProcessLeavesAnAnchor) {
    TempDir directory;
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        setenv("TRACE_OVRA_DIR", directory.Path().c_str(), 1);
        WriteNow(MustOpen("END"));
        usleep(20'000);
        exit(0);
    }
    int status = -1;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    const ReadResult result = ReadFile(BufferFile(directory, "END", pid));
    ASSERT_EQ(result.buffers.size(), 1u) << result.error;
    ExpectTime(result.buffers[0]);
}

TEST_F(TraceOvraTime, CrashedProcessHasTheAnchorsOfItsWriters) {
    TempDir directory;
    const ChildResult child = InChild([&] {
        setenv("TRACE_OVRA_DIR", directory.Path().c_str(), 1);
        const uint32_t handle = MustOpen("CRASH");
        const uint32_t start = EpochOf(Ticks());
        while (EpochOf(Ticks()) - start < 3) WriteNow(handle);
        kill(getpid(), SIGKILL);
    });
    const ReadResult result = ReadFile(BufferFile(directory, "CRASH", child.pid));
    ASSERT_EQ(result.buffers.size(), 1u) << result.error;
    ExpectTime(result.buffers[0]);
}

// --- No system call ---

bool ForbidSystemCalls() {
    sock_filter code[] = {BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
                          BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_exit_group, 0, 1),
                          BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
                          BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_KILL_PROCESS)};
    sock_fprog program{static_cast<unsigned short>(std::size(code)), code};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

constexpr int kNoFilter = 77;

/// Writes until records lie in `count` epochs behind the present one, however long the process is kept
/// waiting between two of them.
void WriteInNewEpochs(uint32_t handle, int count) {
    uint32_t latest = EpochOf(Ticks());
    while (count > 0) {
        const uint32_t before = EpochOf(Ticks());
        WriteEmpty(handle);
        if (before == latest || before != EpochOf(Ticks())) continue;
        latest = before;
        --count;
    }
}

TEST_F(TraceOvra, NoSystemCallPerRecord) {
    TempDir directory;
    const ChildResult child = InChild([&] {
        setenv("TRACE_OVRA_DIR", directory.Path().c_str(), 1);
        const uint32_t handle = MustOpen("CALLS");
        WriteEmpty(handle);  // learns the thread id
        if (!ForbidSystemCalls()) _exit(kNoFilter);
        for (int i = 0; i < 10'000; ++i) WriteEmpty(handle);
        WriteInNewEpochs(handle, 2);  // renews the clock anchor
        syscall(SYS_exit_group, 0);
    });
    if (WIFEXITED(child.status) && WEXITSTATUS(child.status) == kNoFilter) {
        GTEST_SKIP() << "system calls cannot be filtered here";
    }
    EXPECT_TRUE(Passed(child)) << "ended by signal " << WTERMSIG(child.status);
    const std::vector<std::byte> image = FileBytes(BufferFile(directory, "CALLS", child.pid));
    ASSERT_GE(image.size(), kHeaderSize);
    uint32_t renewals = 0;
    memcpy(&renewals, &image[kHeaderLatestSequence * 4], 4);
    EXPECT_GE(renewals, 4u);
    ASSERT_TRUE(DecodeBuffer(image).has_value());
    EXPECT_GE(DecodeBuffer(image)->written, 10'001u);
}

TEST_F(TraceOvra, FilterOfTheSystemCallTestEndsTheProcess) {
    const ChildResult child = InChild([] {
        if (!ForbidSystemCalls()) _exit(kNoFilter);
        syscall(SYS_getppid);
        syscall(SYS_exit_group, 0);
    });
    if (WIFEXITED(child.status) && WEXITSTATUS(child.status) == kNoFilter) {
        GTEST_SKIP() << "system calls cannot be filtered here";
    }
    EXPECT_TRUE(WIFSIGNALED(child.status));
}

// --- Concurrency ---

constexpr uint32_t kThreads = 8;
// The address sanitizer makes the emulated board too slow for more.
#if defined(__SANITIZE_ADDRESS__) && defined(__powerpc__)
constexpr uint32_t kRecords = 10'000;
constexpr uint32_t kReadings = 5;
#else
constexpr uint32_t kRecords = 100'000;
constexpr uint32_t kReadings = 200;
#endif

uint32_t Mixed(uint32_t thread, uint32_t number, uint32_t salt) {
    return (number * 2654435761u + thread * 40503u) ^ salt * 0x01010101u;
}

/// Writes kRecords records, and more while `wanted`.
void WriteMany(uint32_t handle, uint32_t thread, const std::atomic<bool>& wanted) {
    for (uint32_t i = 0; i < kRecords || wanted; ++i) {
        const auto value = [&](uint32_t salt) { return Mixed(thread, i, salt); };
        if (i % 2 == 0) {
            trace_ovra_write_ints5(handle, 5 << 16 | thread, value(0), thread, i, value(1), value(2),
                                   value(3));
        } else {
            trace_ovra_write_ints9(handle, 9 << 16 | thread, value(0), thread, i, value(1), value(2),
                                   value(3), value(4), value(5), value(6), value(7));
        }
    }
}

/// Every record is one that a thread wrote, whole; the numbers of each thread rise. Returns how many there
/// are.
size_t ExpectConsistent(const TraceBuffer& buffer) {
    std::map<uint32_t, uint32_t> next;
    const Record* before = nullptr;
    for (const Record& record : buffer.records) {
        const uint32_t thread = record.values[0];
        const uint32_t number = record.values[1];
        EXPECT_LT(thread, kThreads);
        EXPECT_EQ(record.Line(), thread);
        EXPECT_EQ(record.Count(), number % 2 == 0 ? 5u : 9u);
        EXPECT_EQ(record.hash, Mixed(thread, number, 0));
        for (uint32_t i = 1; i + 1 < record.Count(); ++i)
            EXPECT_EQ(record.values[1 + i], Mixed(thread, number, i));
        EXPECT_GE(number, next[thread]);
        next[thread] = number + 1;
        EXPECT_TRUE(before == nullptr || before->sequence < record.sequence);
        before = &record;
        if (testing::Test::HasFailure()) break;
    }
    return buffer.records.size();
}

/// Reads the buffer of process `pid` many times; returns the number of records seen.
size_t ReadOften(pid_t pid, const std::string& name) {
    size_t seen = 0;
    for (uint32_t i = 0; i < kReadings && !testing::Test::HasFailure(); ++i) {
        const ReadResult result = ReadProcess(pid, name);
        EXPECT_EQ(result.error, "");
        for (const TraceBuffer& buffer : result.buffers) seen += ExpectConsistent(buffer);
    }
    return seen;
}

/// Writes from eight threads until `read` returns, at least kRecords from each.
template <typename Read>
void WriteFromThreads(uint32_t handle, Read read) {
    std::atomic<bool> wanted{true};
    std::vector<std::thread> threads;
    for (uint32_t t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] { WriteMany(handle, t, wanted); });
    }
    read();
    wanted = false;
    for (std::thread& thread : threads) thread.join();
}

TEST_F(TraceOvraConcurrency, ReaderInTheSameProcessSeesWholeRecords) {
    // In the buffer of one slot all writers meet.
    for (const uint32_t size : {kSize, 16 * kSlotSize, kSlotSize}) {
        EXPECT_TRUE(Passed(InChild([&] {
            const uint32_t handle = MustOpen("BUSY", size);
            WriteFromThreads(handle, [] { EXPECT_GT(ReadOften(getpid(), "BUSY"), 0u); });
            const TraceBuffer buffer = MustRead("BUSY");
            EXPECT_GE(buffer.written, kThreads * kRecords);
            EXPECT_EQ(buffer.records.size() + buffer.torn + buffer.lost, buffer.written);
            ExpectConsistent(buffer);
        }))) << size;
    }
}

TEST_F(TraceOvraConcurrency, ReaderInAnotherProcessSeesWholeRecords) {
    for (const uint32_t size : {kSize, kSlotSize}) {
        int ready[2];
        int done[2];
        ASSERT_EQ(pipe2(ready, O_CLOEXEC), 0);
        ASSERT_EQ(pipe2(done, O_CLOEXEC), 0);
        fflush(nullptr);
        const pid_t writer = fork();
        if (writer == 0) {
            close(ready[0]);
            close(done[1]);
            prctl(PR_SET_PTRACER, PR_SET_PTRACER_ANY, 0, 0,
                  0);  // only known, and needed, where Yama restricts
            char byte = 0;
            const uint32_t handle = MustOpen("BUSY", size);
            close(ready[1]);
            WriteFromThreads(handle, [&] { EXPECT_EQ(read(done[0], &byte, 1), 0); });
            _exit(testing::Test::HasFailure() ? 1 : 0);
        }
        close(ready[1]);
        close(done[0]);
        char byte = 0;
        EXPECT_EQ(read(ready[0], &byte, 1), 0);
        EXPECT_GT(ReadOften(writer, "BUSY"), 0u);
        close(done[1]);
        close(ready[0]);
        int status = -1;
        EXPECT_EQ(waitpid(writer, &status, 0), writer);
        EXPECT_TRUE(Passed({writer, status}));
    }
}

TEST_F(TraceOvraConcurrency, ThreadsThatOpenOneNameGetOneBuffer) {
    EXPECT_TRUE(Passed(InChild([] {
        std::atomic<bool> start{false};
        std::vector<uint32_t> handles(kThreads);
        std::vector<std::thread> threads;
        for (uint32_t t = 0; t < kThreads; ++t) {
            threads.emplace_back([&, t] {
                while (!start) std::this_thread::yield();
                handles[t] = MustOpen("RACE");
                WriteEmpty(handles[t]);
            });
        }
        start = true;
        for (std::thread& thread : threads) thread.join();
        EXPECT_EQ(std::set<uint32_t>(handles.begin(), handles.end()).size(), 1u);
        EXPECT_EQ(MustRead("RACE").written, kThreads);
    })));
}

// A lock or a wait inside a write would never end here: the regular writer cannot run before the urgent one
// sleeps.
TEST_F(TraceOvraConcurrency, RealTimeWriterNeverWaitsForTheWriterItInterrupts) {
    KOVA_NEEDS_OWN_MACHINE("real-time priorities");
    EXPECT_TRUE(Passed(InChild([] {
        cpu_set_t one;
        CPU_ZERO(&one);
        CPU_SET(0, &one);
        ASSERT_EQ(sched_setaffinity(0, sizeof one, &one), 0);
        const uint32_t handle = MustOpen("URGENT");
        std::atomic<bool> end{false};
        std::atomic<uint32_t> regular_records{0};
        std::thread regular([&] {
            for (; !end; ++regular_records) WriteEmpty(handle);
        });

        constexpr uint32_t kBursts = 300;
        constexpr uint32_t kBurst = 100;
        const sched_param priority{.sched_priority = 50};
        ASSERT_EQ(sched_setscheduler(0, SCHED_FIFO, &priority), 0);
        for (uint32_t burst = 0; burst < kBursts; ++burst) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
            const uint32_t before = regular_records;
            for (uint32_t i = 0; i < kBurst; ++i) WriteEmpty(handle);
            EXPECT_EQ(before, regular_records);
        }
        end = true;
        regular.join();
        EXPECT_GT(regular_records, kBursts);
        EXPECT_EQ(MustRead("URGENT").written, kBursts * kBurst + regular_records);
    })));
}

}  // namespace
}  // namespace trace_ovra
