#include "ipc/ipc_sets.h"
#include "support/fake_libc.h"
#include "support/leak_check.h"
#include "support/process.h"
#include "support/signal_storm.h"
#include "support/trace_recorder.h"
#include "sync/locks.h"

#include <kova/lifecycle.h>
#include <kova/message_queue.h>

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdint>
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

constexpr const char* kNewQueue = "new queue=%d";
constexpr const char* kExistingQueue = "existing queue=%d";
constexpr const char* kNoQueue = "no queue key=%x result=%d errno=%d";
constexpr const char* kWritten = "queue write result=%d errno=%d";
constexpr const char* kRead = "queue read result=%d errno=%d";
constexpr const char* kNotRemoved = "queue=%d not removed, errno=%d";
constexpr const char* kNoKeyFile = "key file=%s cannot be made, errno=%d";
constexpr const char* kNoKey = "key file=%s has no key, errno=%d";

constexpr const char* kName = "q";
constexpr const char* kPath = "/tmp/voxa/hubl/q.kovamsg";

/// An errno that nothing here leaves.
constexpr int kStale = ENOTTY;
/// Larger messages lie in memory that is allocated for them.
constexpr int kMostOnTheStack = 4096;
/// No queue has this id.
constexpr int kNoSuchQueue = 0x7FFF0000;

/// What the library's calls of pabend passed.
std::vector<std::array<uint32_t, 3>> g_AbendWords;

}  // namespace

void pabend(uint32_t a, uint32_t b, uint32_t c) {
    g_AbendWords.push_back({a, b, c});
    reinterpret_cast<void (*)(uint32_t, uint32_t, uint32_t)>(::dlsym(RTLD_NEXT, "pabend"))(a, b, c);
}

namespace {

static_assert(std::is_same_v<int (*)(const char*), decltype(&KovaQueueOpen)>);
static_assert(std::is_same_v<int (*)(int, const void*, int, int), decltype(&KovaQueueWrite)>);
static_assert(std::is_same_v<int (*)(int, void*, int, int), decltype(&KovaQueueRead)>);
static_assert(std::is_same_v<int (*)(int, const char*), decltype(&KovaQueueDestroy)>);
static_assert(std::is_base_of_v<KovaBaseObject, KovaMessageQueue>);
static_assert(std::has_virtual_destructor_v<KovaMessageQueue>);
static_assert(!std::is_copy_constructible_v<KovaMessageQueue> &&
              !std::is_copy_assignable_v<KovaMessageQueue>);
static_assert(std::is_constructible_v<KovaMessageQueue, char*>);
static_assert(std::is_same_v<int, decltype(std::declval<KovaMessageQueue&>().GetError())>);

bool Exists(const std::string& path) { return std::filesystem::exists(path); }

std::string KeyFileOf(const std::string& name) { return "/tmp/voxa/hubl/" + name + ".kovamsg"; }

/// The key of a file by the rule of ftok: project, device, inode.
key_t KeyOf(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(0, ::stat(path.c_str(), &status)) << path;
    return static_cast<key_t>(80u << 24 | (static_cast<unsigned>(status.st_dev) & 0xFF) << 16 |
                              (static_cast<unsigned>(status.st_ino) & 0xFFFF));
}

std::string KeyText(key_t key) {
    std::ostringstream text;
    text << "0x" << std::hex << static_cast<unsigned>(key);
    return text.str();
}

msqid_ds StateOf(int queue) {
    msqid_ds state{};
    EXPECT_EQ(0, fake::msgctl.Real(queue, IPC_STAT, &state));
    return state;
}

bool HasQueue(int queue) {
    msqid_ds state{};
    return fake::msgctl.Real(queue, IPC_STAT, &state) == 0;
}

/// A message as the kernel takes it.
struct RawMessage {
    long type;
    char payload[8192];
};

bool RawSend(int queue, long type, const std::string& payload) {
    RawMessage message;
    message.type = type;
    std::memcpy(message.payload, payload.data(), payload.size());
    return fake::msgsnd.Real(queue, &message, payload.size(), IPC_NOWAIT) == 0;
}

struct Received {
    long type;
    std::string payload;
};

/// The first message of any type.
Received RawReceive(int queue) {
    RawMessage message;
    const ssize_t size = fake::msgrcv.Real(queue, &message, sizeof message.payload, 0, IPC_NOWAIT);
    if (size < 0) return {-1, "nothing"};
    return {message.type, std::string(message.payload, static_cast<size_t>(size))};
}

bool IsEmpty(int queue) { return StateOf(queue).msg_qnum == 0; }

std::string Pattern(size_t size) {
    std::string bytes;
    for (size_t i = 0; i < size; ++i) bytes += static_cast<char>(i * 7 + 1);
    return bytes;
}

int Write(int queue, const std::string& payload, int type = 1) {
    return KovaQueueWrite(queue, payload.data(), static_cast<int>(payload.size()), type);
}

/// Reads with a buffer of exactly `size` bytes; what was received, or the errno.
std::string Read(int queue, size_t size, int type = 1) {
    const std::unique_ptr<char[]> buffer(new char[size]);
    const int result = KovaQueueRead(queue, buffer.get(), static_cast<int>(size), type);
    return result < 0 ? "errno " + std::to_string(errno)
                      : std::string(buffer.get(), static_cast<size_t>(result));
}

std::string Errno(int number) { return "errno " + std::to_string(number); }

/// Fills a queue until nothing fits any more.
void Fill(int queue) {
    while (RawSend(queue, 1, std::string(1024, 'f'))) {
    }
    while (RawSend(queue, 1, "")) {
    }
    EXPECT_EQ(EAGAIN, errno);
}

/// Whether a thread of this process sleeps in the kernel.
bool Sleeps(pid_t tid) {
    std::ifstream file("/proc/self/task/" + std::to_string(tid) + "/stat");
    std::string text;
    std::getline(file, text);
    const size_t name_end = text.rfind(')');
    return name_end != std::string::npos && text.compare(name_end, 3, ") S") == 0;
}

/// A thread that waits in `hook` as soon as the constructor is done.
template <typename Result, typename... Args>
class Waiting {
  public:
    Waiting(fake::Hook<Result(Args...)>& hook, std::function<void()> run)
        : m_Replace(hook,
                    [this, &hook](Args... args) {
                        m_Entered = true;
                        return hook.Real(args...);
                    }),
          m_Thread(std::make_unique<DeadlineThread>(std::move(run))) {
        EXPECT_TRUE(WaitUntil([this] { return m_Entered && Sleeps(m_Thread->Tid()); }));
    }

    void Join() { m_Thread->Join(); }
    pthread_t Handle() { return m_Thread->Handle(); }

  private:
    std::atomic<bool> m_Entered{false};
    const fake::Replace<Result(Args...)> m_Replace;
    std::unique_ptr<DeadlineThread> m_Thread;
};

class MessageQueue : public ipc::Test {
  protected:
    MessageQueue() { g_AbendWords.clear(); }

    /// A new queue, which is destroyed at the end unless it was before.
    int Open(const std::string& name = kName) {
        const int queue = KovaQueueOpen(name.c_str());
        EXPECT_GE(queue, 0);
        m_Queues.push_back(queue);
        return queue;
    }

    ~MessageQueue() override {
        for (const int queue : m_Queues) fake::msgctl.Real(queue, IPC_RMID, nullptr);
    }

  private:
    std::vector<int> m_Queues;
};

// --- Opening ---

TEST_F(MessageQueue, FunctionsAreExportedUnderPlainNames) {
    for (const char* name : {"KovaQueueOpen", "KovaQueueWrite", "KovaQueueRead", "KovaQueueDestroy"}) {
        EXPECT_NE(nullptr, ::dlsym(RTLD_DEFAULT, name)) << name;
    }
}

TEST_F(MessageQueue, FirstOpenMakesTheKeyFileAndThenTheQueue) {
    const TraceRecorder recorder;
    int queue;
    {
        const fake::Journal journal{&fake::fopen, &fake::ftok, &fake::msgget};
        queue = Open();
        EXPECT_EQ((Texts{"fopen /tmp/voxa/hubl/q.kovamsg w", "ftok /tmp/voxa/hubl/q.kovamsg 80",
                         "msgget " + KeyText(KeyOf(kPath)) + " IPC_CREAT|IPC_EXCL|0666"}),
                  journal.Texts());
    }
    ExpectRecords(recorder, {{kNewQueue, {queue}}});
    EXPECT_EQ(ipc::Queues(), std::vector<int>{queue});
    EXPECT_TRUE(IsEmpty(queue));
}

TEST_F(MessageQueue, SecondOpenFindsTheQueue) {
    const int queue = Open();
    const std::string key = KeyText(KeyOf(kPath));
    const TraceRecorder recorder;
    {
        const fake::Journal journal{&fake::fopen, &fake::ftok, &fake::msgget};
        EXPECT_EQ(queue, KovaQueueOpen(kName));
        EXPECT_EQ((Texts{"ftok /tmp/voxa/hubl/q.kovamsg 80", "msgget " + key + " IPC_CREAT|IPC_EXCL|0666",
                         "msgget " + key + " IPC_EXCL|0666"}),
                  journal.Texts());
    }
    ExpectRecords(recorder, {{kExistingQueue, {queue}}});
}

TEST_F(MessageQueue, KeyIsThatOfProject80) {
    const int queue = Open();
    EXPECT_EQ(queue, fake::msgget.Real(KeyOf(kPath), 0));
    EXPECT_EQ(KeyOf(kPath), StateOf(queue).msg_perm.__key);
}

TEST_F(MessageQueue, EverybodyMayUseQueueAndKeyFileWhateverTheUmask) {
    const mode_t mask = fake::umask.Real(077);
    const int queue = Open();
    EXPECT_EQ(077u, fake::umask.Real(mask));
    EXPECT_EQ(0666, StateOf(queue).msg_perm.mode & 0777);
    struct stat status {};
    ASSERT_EQ(0, ::stat(kPath, &status));
    EXPECT_EQ(0666u, status.st_mode & 0777);
    EXPECT_EQ(0, status.st_size);
}

TEST_F(MessageQueue, OneNameIsOneQueueAndTwoNamesAreTwo) {
    const int a = Open("a");
    EXPECT_EQ(a, KovaQueueOpen("a"));
    const int b = Open("b");
    EXPECT_NE(a, b);
    EXPECT_EQ(0, Write(a, "for a"));
    EXPECT_TRUE(IsEmpty(b));
}

TEST_F(MessageQueue, ExistingQueueIsTriedWhateverTheFirstErrorWas) {
    for (const int first : {EEXIST, ENOSPC, EACCES, EINTR}) {
        const TraceRecorder recorder;
        const fake::Script gets(fake::msgget, {fake::Fail(first), fake::Return(4711)});
        EXPECT_EQ(4711, KovaQueueOpen(kName));
        ExpectRecords(recorder, {{kExistingQueue, {4711}}});
    }
}

TEST_F(MessageQueue, FailedOpenIsNegativeWithTheLastErrnoAndTraced) {
    for (const int error : {ENOENT, EACCES, ENOMEM, EINTR}) {
        const TraceRecorder recorder;
        const fake::Script gets(fake::msgget, {fake::Fail(EEXIST), fake::Fail(error)});
        EXPECT_EQ(-1, KovaQueueOpen(kName));
        EXPECT_EQ(error, errno);
        ExpectRecords(recorder, {{kExistingQueue, {-1}}, {kNoQueue, {KeyOf(kPath), -1, error}}});
    }
    EXPECT_TRUE(g_AbendWords.empty());
}

TEST_F(MessageQueue, QueueThatVanishesBetweenTheAttemptsIsNoQueue) {
    const int queue = Open();
    const fake::Script gets(fake::msgget, {[&](key_t key, int flags) {
                                               const int result = fake::msgget.Real(key, flags);
                                               const int error = errno;
                                               fake::msgctl.Real(queue, IPC_RMID, nullptr);
                                               errno = error;
                                               return result;
                                           },
                                           fake::Real()});
    EXPECT_EQ(-1, KovaQueueOpen(kName));
    EXPECT_EQ(ENOENT, errno);
}

TEST_F(MessageQueue, FileWithoutKeyOpensNothing) {
    const TraceRecorder recorder;
    const fake::Script keys(fake::ftok, {fake::Fail(EOVERFLOW)});
    const fake::Counter gets(fake::msgget);
    EXPECT_EQ(-1, KovaQueueOpen(kName));
    EXPECT_EQ(EOVERFLOW, errno);
    EXPECT_EQ(0u, gets.Calls());
    const std::vector<TraceRecord> records = recorder.All();
    ASSERT_EQ(1u, records.size());
    EXPECT_TRUE(records[0].Is(kNoKey));
    EXPECT_EQ(uint32_t{EOVERFLOW}, records[0].values[1]);
    EXPECT_TRUE(g_AbendWords.empty()) << "no reason to end the process";
}

TEST_F(MessageQueue, KeyFileThatCannotBeMadeEndsTheProcess) {
    std::ofstream("/tmp/voxa") << "no directory";
    const TraceRecorder recorder;
    const ChildResult child = RunInChild([] { KovaQueueOpen(kName); });
    EXPECT_EQ(SIGABRT, child.signal) << testing::PrintToString(child);
    const std::vector<TraceRecord> records = recorder.Find(kNoKeyFile);
    ASSERT_EQ(1u, records.size());
    EXPECT_EQ(uint32_t{ENOTDIR}, records[0].values[1]);
    EXPECT_EQ(1u, recorder.Count(kAbend));
    EXPECT_TRUE(ipc::Queues().empty());
}

TEST_F(MessageQueue, KeyFileThatCannotBeMadeOpensNothingWhereTheEndReturns) {
    WhileAborting([] {
        g_AbendWords.clear();
        const fake::Journal journal{&fake::ftok, &fake::msgget};
        const fake::Always files(fake::fopen, fake::Fail(EROFS));
        EXPECT_EQ(-1, KovaQueueOpen(kName));
        EXPECT_EQ(Texts{}, journal.Texts());
        EXPECT_EQ((std::vector<std::array<uint32_t, 3>>{{0x26C24100, 0x71000000, 0}}), g_AbendWords);
    });
}

// --- Names ---

TEST_F(MessageQueue, Of64CharactersOrMoreTheFirst64AreTheName) {
    const std::string text(300, 'n');
    for (const size_t length : {size_t{1}, size_t{63}, size_t{64}, size_t{65}, size_t{300}}) {
        SCOPED_TRACE(length);
        const std::string path = KeyFileOf(text.substr(0, std::min(length, size_t{64})));
        const int queue = Open(text.substr(0, length));
        EXPECT_EQ(queue, fake::msgget.Real(KeyOf(path), 0));
        EXPECT_EQ(0, KovaQueueDestroy(queue, text.substr(0, length).c_str()));
        EXPECT_FALSE(Exists(path));

        std::string name = text.substr(0, length);
        {
            KovaMessageQueue object(name.data());
            EXPECT_EQ(0, object.GetError());
            EXPECT_TRUE(Exists(path));
        }
        EXPECT_FALSE(Exists(path));
        EXPECT_TRUE(std::filesystem::is_empty("/tmp/voxa/hubl"));
    }
}

/// Changes to an empty directory for a scope.
class OtherDirectory {
  public:
    OtherDirectory() : m_Before(std::filesystem::current_path()) {
        std::filesystem::create_directory(kPlace);
        std::filesystem::current_path(kPlace);
    }
    OtherDirectory(const OtherDirectory&) = delete;
    OtherDirectory& operator=(const OtherDirectory&) = delete;
    ~OtherDirectory() {
        std::filesystem::current_path(m_Before);
        std::filesystem::remove_all(kPlace);
    }

    static constexpr const char* kPlace = "/tmp/elsewhere";

  private:
    const std::filesystem::path m_Before;
};

TEST_F(MessageQueue, NameDecidesWhereTheKeyFileLies) {
    const OtherDirectory directory;
    ::setenv("KOVA_TEST_PLACE", OtherDirectory::kPlace, 1);
    ::unsetenv("KOVA_TEST_NOTHING");
    const struct {
        const char* name;
        std::string path;
    } cases[] = {
        {"plain", "/tmp/voxa/hubl/plain.kovamsg"},
        {"with.dot", "/tmp/voxa/hubl/with.dot.kovamsg"},
        {"m.kovamtx", "/tmp/voxa/hubl/m.kovamtx.kovamsg"},
        {"sub/name", "/tmp/voxa/hubl/sub/name.kovamsg"},
        {"with space", "/tmp/voxa/hubl/with space.kovamsg"},
        {"$KOVA_TEST_NOTHING", "/tmp/voxa/hubl/$KOVA_TEST_NOTHING.kovamsg"},
        {"$KOVA_TEST_PLACE/value", "/tmp/elsewhere/value.kovamsg"},
        {"/tmp/elsewhere/absolute", "/tmp/elsewhere/absolute.kovamsg"},
        {"./relative", "/tmp/elsewhere/relative.kovamsg"},
        {".hidden", "/tmp/elsewhere/.hidden.kovamsg"},
        {"", "/tmp/elsewhere/.kovamsg"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const int queue = Open(c.name);
        ASSERT_TRUE(Exists(c.path));
        EXPECT_EQ(queue, fake::msgget.Real(KeyOf(c.path), 0));
        EXPECT_EQ(0, KovaQueueDestroy(queue, c.name));
        EXPECT_FALSE(Exists(c.path));

        std::string name = c.name;
        {
            KovaMessageQueue object(name.data());
            EXPECT_TRUE(Exists(c.path));
        }
        EXPECT_FALSE(Exists(c.path));
    }
    ::unsetenv("KOVA_TEST_PLACE");
}

TEST_F(MessageQueue, NullNameOpensTheEmptyOne) {
    const OtherDirectory directory;
    const int queue = KovaQueueOpen(nullptr);
    EXPECT_EQ(queue, KovaQueueOpen(""));
    EXPECT_EQ(0, KovaQueueDestroy(queue, ""));
    {
        KovaMessageQueue object(nullptr);
        EXPECT_EQ(0, object.GetError());
        EXPECT_TRUE(Exists("/tmp/elsewhere/.kovamsg"));
    }
    EXPECT_FALSE(Exists("/tmp/elsewhere/.kovamsg"));
}

// --- Writing ---

TEST_F(MessageQueue, WriteSendsTypeAndBytesAndWaitsForRoom) {
    const int queue = Open();
    const TraceRecorder recorder;
    const fake::Journal journal;
    errno = kStale;
    EXPECT_EQ(0, Write(queue, "hello", 7));
    EXPECT_EQ((Texts{"msgsnd " + std::to_string(queue) + " [type 7] 5 0"}), journal.Texts());
    EXPECT_EQ("hello", journal.Entries().at(0).data);
    ExpectRecords(recorder, {{kWritten, {0, kStale}}});
}

TEST_F(MessageQueue, WrittenMessageHasExactlyItsTypeAndBytes) {
    const int queue = Open();
    for (const size_t size : {size_t{0}, size_t{1}, size_t{64}, size_t{4096}}) {
        for (const int type : {1, 2, INT_MAX}) {
            SCOPED_TRACE(size);
            EXPECT_EQ(0, Write(queue, Pattern(size), type));
            const Received received = RawReceive(queue);
            EXPECT_EQ(type, received.type);
            EXPECT_EQ(Pattern(size), received.payload);
        }
    }
    EXPECT_TRUE(IsEmpty(queue));
}

TEST_F(MessageQueue, WriteOfNothingNeedsNoBytes) {
    const int queue = Open();
    EXPECT_EQ(0, KovaQueueWrite(queue, nullptr, 0, 1));
    EXPECT_EQ("", RawReceive(queue).payload);
}

TEST_F(MessageQueue, TypesBelowOneCannotBeWritten) {
    const int queue = Open();
    for (const int type : {0, -1, INT_MIN}) {
        const TraceRecorder recorder;
        EXPECT_EQ(-1, Write(queue, "x", type));
        EXPECT_EQ(EINVAL, errno);
        ExpectRecords(recorder, {{kWritten, {-1, EINVAL}}});
    }
    EXPECT_TRUE(IsEmpty(queue));
}

TEST_F(MessageQueue, MoreThanTheKernelTakesCannotBeWritten) {
    const int queue = Open();
    msginfo info{};
    fake::msgctl.Real(0, IPC_INFO, reinterpret_cast<msqid_ds*>(&info));
    const auto most = static_cast<size_t>(info.msgmax);
    EXPECT_EQ(-1, Write(queue, std::string(most + 1, 'x')));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_TRUE(IsEmpty(queue));
    EXPECT_EQ(0, Write(queue, std::string(most, 'x')));
    EXPECT_EQ(std::string(most, 'x'), Read(queue, most));
}

TEST_F(MessageQueue, FailedWriteIsToldAndTracedAndNotRepeated) {
    const int queue = Open();
    for (const int error : {EINTR, EAGAIN, EACCES, ENOMEM, EFAULT}) {
        const TraceRecorder recorder;
        const fake::Journal journal;
        const fake::Script sends(fake::msgsnd, {fake::Fail(error)});
        EXPECT_EQ(-1, Write(queue, "x"));
        EXPECT_EQ(error, errno);
        ExpectRecords(recorder, {{kWritten, {-1, error}}});
        EXPECT_EQ(1u, journal.Texts().size());
    }
}

TEST_F(MessageQueue, WriteWaitsWhileTheQueueIsFull) {
    const int queue = Open();
    Fill(queue);
    std::atomic<int> result{-2};
    Waiting writer(fake::msgsnd, [&] { result = Write(queue, "last", 9); });
    EXPECT_EQ(-2, result);
    while (RawReceive(queue).type == 1) {
    }
    writer.Join();
    EXPECT_EQ(0, result);
    // The writer's message was the last one taken, or is left.
    EXPECT_EQ(0, Write(queue, "end", 10));
    Received last = RawReceive(queue);
    if (last.type == 9) {
        EXPECT_EQ("last", last.payload);
        last = RawReceive(queue);
    }
    EXPECT_EQ("end", last.payload);
}

TEST_F(MessageQueue, SignalEndsAWaitingWrite) {
    const int queue = Open();
    Fill(queue);
    const TraceRecorder recorder;
    std::atomic<int> result{0};
    std::atomic<int> error{0};
    Waiting writer(fake::msgsnd, [&] {
        result = Write(queue, "x");
        error = errno;
    });
    {
        const SignalStorm storm({writer.Handle()});
        EXPECT_TRUE(WaitUntil([&] { return error != 0; }));
    }
    writer.Join();
    EXPECT_EQ(-1, result);
    EXPECT_EQ(EINTR, error);
    ExpectRecords(recorder, {{kWritten, {-1, EINTR}}});
}

TEST_F(MessageQueue, RemovalEndsAWaitingWrite) {
    const int queue = Open();
    Fill(queue);
    std::atomic<int> error{0};
    Waiting writer(fake::msgsnd, [&] {
        EXPECT_EQ(-1, Write(queue, "x"));
        error = errno;
    });
    EXPECT_EQ(0, KovaQueueDestroy(queue, kName));
    writer.Join();
    EXPECT_EQ(EIDRM, error);
}

// --- Reading ---

TEST_F(MessageQueue, ReadAsksForTypeAndSizeAndWaits) {
    const int queue = Open();
    ASSERT_TRUE(RawSend(queue, 5, "hello"));
    const TraceRecorder recorder;
    const fake::Journal journal;
    char buffer[64];
    errno = kStale;
    EXPECT_EQ(5, KovaQueueRead(queue, buffer, sizeof buffer, 5));
    EXPECT_EQ((Texts{"msgrcv " + std::to_string(queue) + " 64 5 0"}), journal.Texts());
    ExpectRecords(recorder, {{kRead, {5, kStale}}});
}

TEST_F(MessageQueue, ReadGivesExactlyThePayload) {
    const int queue = Open();
    for (const size_t size : {size_t{0}, size_t{1}, size_t{64}, size_t{4096}}) {
        for (const size_t more : {size_t{0}, size_t{1}, size_t{100}}) {
            SCOPED_TRACE(size);
            ASSERT_TRUE(RawSend(queue, 3, Pattern(size)));
            std::string buffer(size + more, '#');
            EXPECT_EQ(static_cast<int>(size),
                      KovaQueueRead(queue, buffer.data(), static_cast<int>(buffer.size()), 3));
            EXPECT_EQ(Pattern(size) + std::string(more, '#'), buffer) << "nothing behind it is touched";
        }
    }
}

TEST_F(MessageQueue, BytesAreTheSameOnBothSides) {
    const int queue = Open();
    for (const size_t size : {size_t{0}, size_t{1}, size_t{64}, size_t{4096}}) {
        EXPECT_EQ(0, Write(queue, Pattern(size)));
        EXPECT_EQ(Pattern(size), Read(queue, size));
    }
}

TEST_F(MessageQueue, EmptyMessageNeedsNoBuffer) {
    const int queue = Open();
    ASSERT_TRUE(RawSend(queue, 1, ""));
    EXPECT_EQ(0, KovaQueueRead(queue, nullptr, 0, 1));
    ASSERT_TRUE(RawSend(queue, 1, ""));
    EXPECT_EQ(0, KovaQueueRead(queue, nullptr, 64, 1)) << "nothing is copied";
}

TEST_F(MessageQueue, LongerMessageIsTooBigAndStays) {
    const int queue = Open();
    for (const size_t size : {size_t{0}, size_t{1}, size_t{64}, size_t{4096}}) {
        SCOPED_TRACE(size);
        const TraceRecorder recorder;
        ASSERT_TRUE(RawSend(queue, 1, Pattern(size + 1)));
        std::string buffer(size, '#');
        EXPECT_EQ(-1, KovaQueueRead(queue, buffer.data(), static_cast<int>(size), 1));
        EXPECT_EQ(E2BIG, errno);
        EXPECT_EQ(std::string(size, '#'), buffer);
        ExpectRecords(recorder, {{kRead, {-1, E2BIG}}});
        ASSERT_EQ(1u, StateOf(queue).msg_qnum);
        EXPECT_EQ(Pattern(size + 1), Read(queue, size + 1));
    }
}

TEST_F(MessageQueue, TypesArePickedAsTheKernelDoes) {
    const int queue = Open();
    for (const int type : {5, 3, 7, 3, 4}) {
        ASSERT_TRUE(
            RawSend(queue, type, std::to_string(type) + " of " + std::to_string(StateOf(queue).msg_qnum)));
    }
    EXPECT_EQ("7 of 2", Read(queue, 64, 7)) << "exactly that type";
    EXPECT_EQ("5 of 0", Read(queue, 64, 0)) << "the first of any type";
    EXPECT_EQ("3 of 1", Read(queue, 64, -4)) << "the lowest type up to 4";
    EXPECT_EQ("3 of 3", Read(queue, 64, INT_MIN));
    EXPECT_EQ("4 of 4", Read(queue, 64, -4));
    EXPECT_TRUE(IsEmpty(queue));
}

TEST_F(MessageQueue, ResultAboveTheSizeIsNotCopied) {
    const int queue = Open();
    const TraceRecorder recorder;
    const fake::Script receives(fake::msgrcv, {fake::Return(65), fake::Return(INT_MAX)});
    std::string buffer(64, '#');
    EXPECT_EQ(65, KovaQueueRead(queue, buffer.data(), 64, 1));
    EXPECT_EQ(INT_MAX, KovaQueueRead(queue, buffer.data(), 64, 1));
    EXPECT_EQ(std::string(64, '#'), buffer);
}

TEST_F(MessageQueue, FailedReadIsToldAndTracedAndNotRepeated) {
    const int queue = Open();
    for (const int error : {EINTR, EIDRM, EACCES, EFAULT, ENOMSG}) {
        const TraceRecorder recorder;
        const fake::Journal journal;
        const fake::Script receives(fake::msgrcv, {fake::Fail(error)});
        EXPECT_EQ(Errno(error), Read(queue, 64));
        ExpectRecords(recorder, {{kRead, {-1, error}}});
        EXPECT_EQ(1u, journal.Texts().size());
    }
}

TEST_F(MessageQueue, ReadWaitsForAMessageOfItsType) {
    const int queue = Open();
    std::string received;
    Waiting reader(fake::msgrcv, [&] { received = Read(queue, 64, 2); });
    ASSERT_TRUE(RawSend(queue, 1, "other"));
    ASSERT_TRUE(RawSend(queue, 2, "wanted"));
    reader.Join();
    EXPECT_EQ("wanted", received);
    EXPECT_EQ("other", RawReceive(queue).payload);
}

TEST_F(MessageQueue, SignalEndsAWaitingRead) {
    const int queue = Open();
    const TraceRecorder recorder;
    std::string received;
    std::atomic<bool> ended{false};
    Waiting reader(fake::msgrcv, [&] {
        received = Read(queue, 64);
        ended = true;
    });
    {
        const SignalStorm storm({reader.Handle()});
        EXPECT_TRUE(WaitUntil([&] { return ended.load(); }));
    }
    reader.Join();
    EXPECT_EQ(Errno(EINTR), received);
    ExpectRecords(recorder, {{kRead, {-1, EINTR}}});
}

TEST_F(MessageQueue, RemovalEndsAWaitingRead) {
    const int queue = Open();
    const TraceRecorder recorder;
    std::string received;
    Waiting reader(fake::msgrcv, [&] { received = Read(queue, 64); });
    EXPECT_EQ(0, KovaQueueDestroy(queue, kName));
    reader.Join();
    EXPECT_EQ(Errno(EIDRM), received);
    EXPECT_TRUE(recorder.Has(kRead, {-1, EIDRM}));
    EXPECT_EQ(Errno(EINVAL), Read(queue, 64)) << "from then on";
    EXPECT_EQ(-1, Write(queue, "x"));
    EXPECT_EQ(EINVAL, errno);
}

// --- Sizes and memory ---

TEST_F(MessageQueue, NegativeSizesAreRefused) {
    const int queue = Open();
    ASSERT_TRUE(RawSend(queue, 1, "stays"));
    for (const int size : {-1, -4, -8, -9, INT_MIN + 8, INT_MIN}) {
        SCOPED_TRACE(size);
        const TraceRecorder recorder;
        const fake::Journal journal;
        const fake::Counter allocations(fake::new_array_nothrow, fake::kThisThread);
        char byte = '#';
        EXPECT_EQ(-1, KovaQueueWrite(queue, &byte, size, 1));
        EXPECT_EQ(EINVAL, errno);
        EXPECT_EQ(-1, KovaQueueRead(queue, &byte, size, 1));
        EXPECT_EQ(EINVAL, errno);
        EXPECT_EQ('#', byte);
        ExpectRecords(recorder, {{kWritten, {-1, EINVAL}}, {kRead, {-1, EINVAL}}});
        EXPECT_EQ(Texts{}, journal.Texts());
        EXPECT_EQ(0u, allocations.Calls());
    }
    EXPECT_EQ(1u, StateOf(queue).msg_qnum);
}

TEST_F(MessageQueue, LargestSizesDoNotWrap) {
    const int queue = Open();
    for (const int size : {INT_MAX - 8, INT_MAX - 7, INT_MAX - 4, INT_MAX - 3, INT_MAX - 1, INT_MAX}) {
        SCOPED_TRACE(size);
        const size_t least = sizeof(long) + static_cast<size_t>(size);
        const auto allocate = [&](size_t bytes, const std::nothrow_t&) -> void* {
            EXPECT_GE(bytes, least);
            EXPECT_LE(bytes, least + 8);
            return nullptr;
        };
        const TraceRecorder recorder;
        const fake::Journal journal;
        const fake::Script allocations(fake::new_array_nothrow, {allocate, allocate}, fake::kThisThread);
        char byte = '#';
        errno = kStale;
        EXPECT_EQ(-1, KovaQueueWrite(queue, &byte, size, 1));
        EXPECT_EQ(ENOMEM, errno);
        errno = kStale;
        EXPECT_EQ(-1, KovaQueueRead(queue, &byte, size, 1));
        EXPECT_EQ(ENOMEM, errno);
        EXPECT_EQ('#', byte);
        ExpectRecords(recorder, {{kWritten, {-1, ENOMEM}}, {kRead, {-1, ENOMEM}}});
        EXPECT_EQ(Texts{}, journal.Texts());
    }
}

TEST_F(MessageQueue, LargestSizeReadsOrHasNoMemory) {
    const int queue = Open();
    ASSERT_TRUE(RawSend(queue, 1, "five."));
    char buffer[5];
    const int result = KovaQueueRead(queue, buffer, INT_MAX, 1);
    if (result == -1) {
        EXPECT_EQ(ENOMEM, errno);
        EXPECT_EQ(5, KovaQueueRead(queue, buffer, sizeof buffer, 1)) << "the message stays";
    } else {
        EXPECT_EQ(5, result);
    }
    EXPECT_EQ("five.", std::string(buffer, sizeof buffer));
}

TEST_F(MessageQueue, MessagesOfUpTo4096BytesNeedNoMemory) {
    const int queue = Open();
    for (const size_t size : {size_t{0}, size_t{1}, size_t{4095}, size_t{4096}}) {
        SCOPED_TRACE(size);
        const std::string sent = Pattern(size);
        std::string received(size, '#');
        const fake::Counter allocations(fake::new_array_nothrow, fake::kThisThread);
        EXPECT_EQ(0, KovaQueueWrite(queue, sent.data(), static_cast<int>(size), 1));
        EXPECT_EQ(static_cast<int>(size), KovaQueueRead(queue, received.data(), static_cast<int>(size), 1));
        EXPECT_EQ(0u, allocations.Calls());
        EXPECT_EQ(sent, received);
    }
}

TEST_F(MessageQueue, LargerMessagesTakeEightBytesMoreThanTheirSize) {
    const int queue = Open();
    for (const size_t size : {size_t{4097}, size_t{8192}}) {
        SCOPED_TRACE(size);
        const std::string sent = Pattern(size);
        std::string received(size, '#');
        const auto allocate = [&](size_t bytes, const std::nothrow_t& tag) {
            EXPECT_EQ(size + 8, bytes);
            return fake::new_array_nothrow.Real(bytes, tag);
        };
        const fake::Script allocations(fake::new_array_nothrow, {allocate, allocate}, fake::kThisThread);
        EXPECT_EQ(0, KovaQueueWrite(queue, sent.data(), static_cast<int>(size), 1));
        EXPECT_EQ(static_cast<int>(size), KovaQueueRead(queue, received.data(), static_cast<int>(size), 1));
        EXPECT_EQ(sent, received);
    }
}

TEST_F(MessageQueue, WithoutMemoryNothingIsWrittenOrRead) {
    const int queue = Open();
    ASSERT_TRUE(RawSend(queue, 1, "stays"));
    const TraceRecorder recorder;
    {
        const fake::Journal journal;
        const fake::Script allocations(fake::new_array_nothrow, {fake::Fail(kStale), fake::Fail(kStale)},
                                       fake::kThisThread);
        EXPECT_EQ(-1, Write(queue, Pattern(kMostOnTheStack + 1)));
        EXPECT_EQ(ENOMEM, errno);
        std::string buffer(kMostOnTheStack + 1, '#');
        EXPECT_EQ(-1, KovaQueueRead(queue, buffer.data(), kMostOnTheStack + 1, 1));
        EXPECT_EQ(ENOMEM, errno);
        EXPECT_EQ(std::string(kMostOnTheStack + 1, '#'), buffer);
        EXPECT_EQ(Texts{}, journal.Texts());
    }
    ExpectRecords(recorder, {{kWritten, {-1, ENOMEM}}, {kRead, {-1, ENOMEM}}});
    EXPECT_EQ("stays", Read(queue, 64));
    EXPECT_TRUE(IsEmpty(queue));
}

TEST_F(MessageQueue, UnknownQueueIsInvalid) {
    for (const int queue : {-1, kNoSuchQueue}) {
        EXPECT_EQ(-1, Write(queue, "x"));
        EXPECT_EQ(EINVAL, errno);
        EXPECT_EQ(Errno(EINVAL), Read(queue, 64));
    }
}

// --- Destroying ---

TEST_F(MessageQueue, DestroyRemovesTheQueueAndThenItsKeyFile) {
    const int queue = Open();
    const TraceRecorder recorder;
    {
        const fake::Journal journal;
        errno = kStale;
        EXPECT_EQ(0, KovaQueueDestroy(queue, kName));
        EXPECT_EQ(kStale, errno);
        EXPECT_EQ((Texts{"msgctl " + std::to_string(queue) + " IPC_RMID",
                         "access /tmp/voxa/hubl/q.kovamsg F_OK", "unlink /tmp/voxa/hubl/q.kovamsg"}),
                  journal.Texts());
    }
    ExpectRecords(recorder, {});
    EXPECT_FALSE(HasQueue(queue));
    EXPECT_FALSE(Exists(kPath));
}

TEST_F(MessageQueue, DestroyWithoutNameLeavesTheKeyFile) {
    const int queue = Open();
    {
        const fake::Journal journal;
        EXPECT_EQ(0, KovaQueueDestroy(queue, nullptr));
        EXPECT_EQ((Texts{"msgctl " + std::to_string(queue) + " IPC_RMID"}), journal.Texts());
    }
    EXPECT_FALSE(HasQueue(queue));
    EXPECT_TRUE(Exists(kPath));
}

TEST_F(MessageQueue, MissingKeyFileIsNoFailure) {
    const int queue = Open();
    std::filesystem::remove(kPath);
    const fake::Counter unlinks(fake::unlink);
    EXPECT_EQ(0, KovaQueueDestroy(queue, kName));
    EXPECT_EQ(0u, unlinks.Calls());
}

TEST_F(MessageQueue, ResultIsThatOfTheRemovalAlone) {
    const int queue = Open();
    {
        const fake::Script unlinks(fake::unlink, {fake::Fail(EACCES)});
        errno = kStale;
        EXPECT_EQ(0, KovaQueueDestroy(queue, kName));
        EXPECT_EQ(kStale, errno);
    }
    EXPECT_TRUE(Exists(kPath));

    const TraceRecorder recorder;
    EXPECT_EQ(-1, KovaQueueDestroy(queue, kName)) << "it is gone";
    EXPECT_EQ(EINVAL, errno);
    EXPECT_FALSE(Exists(kPath)) << "deleted all the same";
    EXPECT_EQ(-1, KovaQueueDestroy(queue, kName));
    EXPECT_EQ(EINVAL, errno) << "not that of looking for the key file";
    EXPECT_EQ(-1, KovaQueueDestroy(-1, nullptr));
    ExpectRecords(
        recorder,
        {{kNotRemoved, {queue, EINVAL}}, {kNotRemoved, {queue, EINVAL}}, {kNotRemoved, {-1, EINVAL}}});
}

TEST_F(MessageQueue, NewOpenAfterDestroyIsANewQueue) {
    for (const char* const name : {kName, static_cast<const char*>(nullptr)}) {
        SCOPED_TRACE(name == nullptr ? "same key file" : "new key file");
        const int old = Open();
        ASSERT_EQ(0, Write(old, "lost"));
        ASSERT_EQ(0, KovaQueueDestroy(old, name));
        const int queue = Open();
        EXPECT_NE(old, queue);
        EXPECT_TRUE(IsEmpty(queue));
        EXPECT_EQ(KeyOf(kPath), StateOf(queue).msg_perm.__key);
        EXPECT_EQ(Errno(EINVAL), Read(old, 64));
        ASSERT_EQ(0, KovaQueueDestroy(queue, kName));
    }
}

TEST_F(MessageQueue, DeletedKeyFileWithoutDestroyLeavesTheOldQueueToItsUsers) {
    const int old = Open();
    std::filesystem::rename(kPath, std::string(kPath) + ".kept");
    const int queue = Open();
    EXPECT_NE(old, queue) << "another inode, another key";
    EXPECT_EQ(0, Write(old, "still there"));
    EXPECT_EQ("still there", Read(old, 64));
}

// --- The class ---

/// The record that the class does not use.
testing::AssertionResult HasCleanRecord(const KovaBaseObject& object) {
    if (object.GetError() == KovaBaseObject::KOVA_ERR_NONE && object.GetErrorFunction() == nullptr &&
        object.GetErrorLine() == 0) {
        return testing::AssertionSuccess();
    }
    return testing::AssertionFailure() << "recorded " << object.GetError();
}

class MessageQueueObject : public MessageQueue {
  protected:
    std::unique_ptr<KovaMessageQueue> Make() {
        char name[] = "q";
        auto object = std::make_unique<KovaMessageQueue>(name);
        std::memset(name, 'x', sizeof name - 1);
        return object;
    }
    /// The only queue there is.
    static int Id() {
        const std::vector<int> queues = ipc::Queues();
        EXPECT_EQ(1u, queues.size());
        return queues.empty() ? -1 : queues[0];
    }
};

TEST_F(MessageQueueObject, OpensWithItsOwnCopyOfTheName) {
    const TraceRecorder recorder;
    auto object = Make();
    ExpectRecords(recorder, {{kNewQueue, {Id()}}});
    EXPECT_EQ(Id(), fake::msgget.Real(KeyOf(kPath), 0));
    EXPECT_EQ(0, object->GetError());
    EXPECT_TRUE(HasCleanRecord(*object));
    object.reset();
    EXPECT_TRUE(ipc::Queues().empty());
    EXPECT_FALSE(Exists(kPath));
}

TEST_F(MessageQueueObject, WritesAndReadsTypeOneWithTheGivenSize) {
    auto object = Make();
    const int queue = Id();
    const TraceRecorder recorder;
    char data[] = "payload";
    EXPECT_EQ(0, object->Write(data, 7));
    const Received received = RawReceive(queue);
    EXPECT_EQ(1, received.type);
    EXPECT_EQ("payload", received.payload);

    ASSERT_TRUE(RawSend(queue, 2, "not for the class"));
    ASSERT_TRUE(RawSend(queue, 1, "four"));
    const fake::Journal journal;
    char buffer[16];
    EXPECT_EQ(4, object->Read(buffer, sizeof buffer));
    EXPECT_EQ("four", std::string(buffer, 4));
    EXPECT_EQ((Texts{"msgrcv " + std::to_string(queue) + " 16 1 0"}), journal.Texts());
    EXPECT_EQ(1u, recorder.Count(kWritten));
    EXPECT_EQ(1u, recorder.Count(kRead));
}

TEST_F(MessageQueueObject, ErrorIsThatOfTheLastOperation) {
    auto object = Make();
    char byte = 'x';
    EXPECT_EQ(-1, object->Write(&byte, -1));
    EXPECT_EQ(EINVAL, object->GetError());
    EXPECT_EQ(0, object->Write(&byte, 1));
    EXPECT_EQ(0, object->GetError()) << "0 after a success";
    EXPECT_EQ(-1, object->Read(&byte, 0));
    EXPECT_EQ(E2BIG, object->GetError());
    EXPECT_EQ(1, object->Read(&byte, 1));
    EXPECT_EQ(0, object->GetError());
    {
        const fake::Script sends(fake::msgsnd, {fake::Fail(EINTR)});
        EXPECT_EQ(-1, object->Write(&byte, 1));
        EXPECT_EQ(EINTR, object->GetError());
    }
    {
        const fake::Script receives(fake::msgrcv, {fake::Fail(EIDRM)});
        EXPECT_EQ(-1, object->Read(&byte, 1));
        EXPECT_EQ(EIDRM, object->GetError());
    }
    {
        const fake::Script allocations(fake::new_array_nothrow, {fake::Fail(kStale)}, fake::kThisThread);
        char buffer[kMostOnTheStack + 1];
        EXPECT_EQ(-1, object->Read(buffer, sizeof buffer));
        EXPECT_EQ(ENOMEM, object->GetError());
    }
    EXPECT_TRUE(HasCleanRecord(*object)) << "the base's record is another thing";
}

TEST_F(MessageQueueObject, ClearErrorClearsTheRecordOfTheBaseOnly) {
    auto object = Make();
    char byte = 'x';
    EXPECT_EQ(-1, object->Write(&byte, -1));
    object->ClearError();
    EXPECT_EQ(EINVAL, object->GetError());
}

TEST_F(MessageQueueObject, FailedOpenIsTheErrorAndLaterOperationsAreInvalid) {
    std::unique_ptr<KovaMessageQueue> object;
    {
        const fake::Script gets(fake::msgget, {fake::Fail(EEXIST), fake::Fail(EACCES)});
        object = Make();
    }
    EXPECT_EQ(EACCES, object->GetError());
    EXPECT_TRUE(HasCleanRecord(*object));
    char byte = 'x';
    EXPECT_EQ(-1, object->Write(&byte, 1));
    EXPECT_EQ(EINVAL, object->GetError());
    EXPECT_EQ(-1, object->Read(&byte, 1));
    EXPECT_EQ(EINVAL, object->GetError());

    const TraceRecorder recorder;
    const fake::Journal journal{&fake::msgctl};
    object.reset();
    EXPECT_EQ(Texts{"msgctl -1 IPC_RMID"}, journal.Texts());
    ExpectRecords(recorder, {{kNotRemoved, {-1, EINVAL}}});
    EXPECT_FALSE(Exists(kPath)) << "the key file goes all the same";
}

TEST_F(MessageQueueObject, FileWithoutKeyIsTheError) {
    const fake::Script keys(fake::ftok, {fake::Fail(EOVERFLOW)});
    auto object = Make();
    EXPECT_EQ(EOVERFLOW, object->GetError());
}

TEST_F(MessageQueueObject, DestructorRemovesTheQueueForEverybody) {
    auto first = Make();
    auto second = Make();
    const int queue = Id();
    char byte = 'x';
    EXPECT_EQ(0, first->Write(&byte, 1));
    EXPECT_EQ(1, second->Read(&byte, 1));
    first.reset();
    EXPECT_TRUE(ipc::Queues().empty());
    EXPECT_FALSE(Exists(kPath));
    EXPECT_EQ(-1, second->Read(&byte, 1));
    EXPECT_EQ(EINVAL, second->GetError());
    EXPECT_EQ(-1, second->Write(&byte, 1));
    EXPECT_EQ(EINVAL, second->GetError());

    const TraceRecorder recorder;
    second.reset();
    ExpectRecords(recorder, {{kNotRemoved, {queue, EINVAL}}});
}

TEST_F(MessageQueueObject, DestructorDeletesTheKeyFileOfANewQueueOfTheName) {
    auto first = Make();
    auto second = Make();
    first.reset();
    auto third = Make();
    const int queue = Id();
    second.reset();
    EXPECT_TRUE(HasQueue(queue)) << "the queue itself is another one";
    EXPECT_FALSE(Exists(kPath));
}

TEST_F(MessageQueueObject, DestructorIsVirtual) {
    std::unique_ptr<KovaBaseObject> object = Make();
    object.reset();
    EXPECT_TRUE(ipc::Queues().empty());
}

TEST_F(MessageQueueObject, DestructorThatFailsLeavesTheRecordOfTheBase) {
    struct Dying : ErrorWitness, KovaMessageQueue {
        Dying(KeptError& kept, char* name) : ErrorWitness(kept), KovaMessageQueue(name) {}
    };
    KeptError kept;
    {
        char name[] = "q";
        Dying object(kept, name);
        fake::msgctl.Real(Id(), IPC_RMID, nullptr);
    }
    EXPECT_EQ(0, kept.code);
    EXPECT_EQ("", kept.function);
}

TEST_F(MessageQueueObject, RemovalEndsAWaitingRead) {
    auto object = Make();
    char byte = 'x';
    Waiting reader(fake::msgrcv, [&] {
        EXPECT_EQ(-1, object->Read(&byte, 1));
        EXPECT_EQ(EIDRM, object->GetError());
    });
    EXPECT_EQ(0, KovaQueueDestroy(Id(), kName));
    reader.Join();
}

// --- Between processes ---

constexpr const char* kEnd = "end";

std::string ReadText(KovaMessageQueue& queue) {
    char buffer[256];
    const int result = queue.Read(buffer, sizeof buffer);
    return result < 0 ? Errno(queue.GetError()) : std::string(buffer, static_cast<size_t>(result));
}

int WriteText(KovaMessageQueue& queue, std::string text) {
    return queue.Write(text.data(), static_cast<int>(text.size()));
}

/// Has the queue open and does what it is told: "read", "write TEXT", "end".
KOVA_PART(user) {
    std::string name = args.at(0);
    KovaMessageQueue queue(name.data());
    process::Tell(std::to_string(queue.GetError()));
    for (;;) {
        const std::string line = process::Listen();
        if (line == kEnd) return 0;
        if (line == "read") {
            process::Tell(ReadText(queue));
        } else {
            process::Tell(std::to_string(WriteText(queue, line.substr(line.find(' ') + 1))));
        }
    }
}

class MessageQueueProcesses : public MessageQueueObject {};

TEST_F(MessageQueueProcesses, ExchangeMessages) {
    auto queue = Make();
    process::Process other("user", {kName});
    ASSERT_EQ("0", other.Hear());
    EXPECT_EQ(1u, ipc::Queues().size()) << "the same one";

    EXPECT_EQ(0, WriteText(*queue, "ping"));
    other.Say("read");
    EXPECT_EQ("ping", other.Hear());
    other.Say("write pong");
    EXPECT_EQ("0", other.Hear());
    EXPECT_EQ("pong", ReadText(*queue));

    other.Say("read");
    EXPECT_EQ(0, WriteText(*queue, "to one that waits"));
    EXPECT_EQ("to one that waits", other.Hear());

    other.Say(kEnd);
    EXPECT_EQ(0, other.Wait());
    EXPECT_TRUE(ipc::Queues().empty());
    EXPECT_FALSE(Exists(kPath));
    EXPECT_EQ(Errno(EINVAL), ReadText(*queue));
}

TEST_F(MessageQueueProcesses, DestroyingEndsTheReadOfAnotherProcess) {
    auto queue = Make();
    process::Process other("user", {kName});
    ASSERT_EQ("0", other.Hear());
    EXPECT_EQ(0, WriteText(*queue, "first"));
    other.Say("read");
    other.Say("read");
    EXPECT_EQ("first", other.Hear());
    queue.reset();
    const std::string error = other.Hear();
    EXPECT_TRUE(error == Errno(EIDRM) || error == Errno(EINVAL)) << error;
    other.Say("write x");
    EXPECT_EQ("-1", other.Hear());
    other.Say(kEnd);
    EXPECT_EQ(0, other.Wait());
}

TEST_F(MessageQueueProcesses, MessagesSurviveTheirWriter) {
    const int queue = Open();
    process::Process other("user", {kName});
    ASSERT_EQ("0", other.Hear());
    other.Say("write left behind");
    EXPECT_EQ("0", other.Hear());
    other.Kill();
    EXPECT_EQ(-SIGKILL, other.Wait());
    EXPECT_TRUE(Exists(kPath));
    EXPECT_EQ(queue, KovaQueueOpen(kName));
    EXPECT_EQ("left behind", Read(queue, 64));
}

/// Larger than it need be, so that the queue is full now and then.
struct Numbered {
    int32_t number;
    char filler[252];
};

KOVA_PART(writer) {
    const int queue = KovaQueueOpen(args.at(0).c_str());
    const int first = std::atoi(args.at(1).c_str());
    const int count = std::atoi(args.at(2).c_str());
    process::Listen();
    for (int i = 0; i < count; ++i) {
        const Numbered message{first + i, {}};
        EXPECT_EQ(0, KovaQueueWrite(queue, &message, sizeof message, 1));
    }
    return 0;
}

KOVA_PART(reader) {
    const int queue = KovaQueueOpen(args.at(0).c_str());
    process::Tell("reading");
    std::string numbers;
    for (;;) {
        Numbered message{};
        EXPECT_EQ(static_cast<int>(sizeof message), KovaQueueRead(queue, &message, sizeof message, 1));
        if (message.number <= 0) break;
        numbers += std::to_string(message.number) + " ";
    }
    process::Tell(numbers);
    return 0;
}

TEST_F(MessageQueueProcesses, SeveralReadersAndWritersLoseAndDoubleNothing) {
    constexpr int kWriters = 3;
    constexpr int kReaders = 3;
    constexpr int kEach = 300;
    constexpr int kStride = 1000;
    const int queue = Open();
    std::vector<std::unique_ptr<process::Process>> writers;
    std::vector<std::unique_ptr<process::Process>> readers;
    for (int i = 1; i <= kWriters; ++i) {
        const std::vector<std::string> args{kName, std::to_string(i * kStride), std::to_string(kEach)};
        writers.push_back(std::make_unique<process::Process>("writer", args));
    }
    for (int i = 0; i < kReaders; ++i) {
        readers.push_back(std::make_unique<process::Process>("reader", std::vector<std::string>{kName}));
        EXPECT_EQ("reading", readers.back()->Hear());
    }
    for (const auto& writer : writers) writer->Say("go");
    for (const auto& writer : writers) EXPECT_EQ(0, writer->Wait());
    for (int i = 0; i < kReaders; ++i) {
        const Numbered end{};
        EXPECT_EQ(0, KovaQueueWrite(queue, &end, sizeof end, 1));
    }

    std::vector<int> all;
    for (const auto& reader : readers) {
        std::istringstream numbers(reader->Hear());
        std::vector<int> last(kWriters + 1, 0);
        for (int number = 0; numbers >> number;) {
            const auto writer = static_cast<size_t>(number / kStride);
            ASSERT_LT(writer, last.size());
            EXPECT_LT(last[writer], number) << "out of order";
            last[writer] = number;
            all.push_back(number);
        }
        EXPECT_EQ(0, reader->Wait());
    }
    std::vector<int> wanted;
    for (int i = 1; i <= kWriters; ++i) {
        for (int k = 0; k < kEach; ++k) wanted.push_back(i * kStride + k);
    }
    std::sort(all.begin(), all.end());
    EXPECT_EQ(wanted, all);
    EXPECT_TRUE(IsEmpty(queue));
}

}  // namespace
