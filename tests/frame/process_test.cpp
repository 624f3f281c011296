#include "support/fake_libc.h"
#include "support/leak_check.h"
#include "support/own_machine.h"
#include "support/trace_recorder.h"

#include <kova/process.h>

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

using Texts = std::vector<std::string>;

class Process : public KovaTest {
  protected:
    TraceRecorder m_Recorder;
};

TEST_F(Process, FunctionsAreExportedUnderPlainNames) {
    for (const char* name :
         {"KovaGetPid", "KovaGetTid", "KovaGetPTid", "KovaGetBacktrace", "KovaEnableCoredump",
          "KovaLimitStack", "KovaLimitMemory", "NetworkStartup", "KovaGetSystemErrNo"}) {
        EXPECT_NE(nullptr, ::dlsym(RTLD_DEFAULT, name)) << name;
    }
}

// --- Ids ---

TEST_F(Process, PidIsReadWhenTheLibraryIsLoadedAndNeverAgain) {
    const pid_t parent = ::getpid();
    fake::Counter reads(fake::getpid);
    EXPECT_EQ(parent, KovaGetPid());
    EXPECT_EQ(0u, reads.Calls());
    const ChildResult child = RunInChild([parent] {
        EXPECT_NE(parent, ::getpid());
        EXPECT_EQ(parent, KovaGetPid()) << "a forked child reports its parent";
    });
    EXPECT_EQ(0, child.exit_code) << child.output;
}

TEST_F(Process, TidThatAThreadAskedForIsKeptInItsForkedChild) {
    const int tid = KovaGetTid();
    const ChildResult child = RunInChild([tid] { EXPECT_EQ(tid, KovaGetTid()); });
    EXPECT_EQ(0, child.exit_code) << child.output;
}

TEST_F(Process, TidOfTheMainThreadIsThePid) { EXPECT_EQ(KovaGetPid(), KovaGetTid()); }

TEST_F(Process, TidIsTheKernelsAndAskedForOncePerThread) {
    std::vector<int> tids;
    Texts asked;
    pid_t own = 0;
    DeadlineThread([&] {
        own = ::gettid();
        // Not before the thread runs: the runtime of a sanitizer asks while it starts.
        const fake::Journal journal({&fake::syscall}, fake::kThisThread);
        for (int i = 0; i < 3; ++i) tids.push_back(KovaGetTid());
        asked = journal.Texts();
    }).Join();
    EXPECT_EQ((std::vector<int>{own, own, own}), tids);
    EXPECT_NE(KovaGetPid(), own);
    EXPECT_EQ((Texts{"syscall " + std::to_string(SYS_gettid)}), asked);
}

TEST_F(Process, PTidHoldsBothIds) {
    KovaPTid id{};
    EXPECT_EQ(&id, KovaGetPTid(&id));
    EXPECT_EQ((KovaPTid{KovaGetPid(), KovaGetTid()}), id);
    DeadlineThread([&] { EXPECT_EQ(&id, KovaGetPTid(id)); }).Join();
    EXPECT_EQ(KovaGetPid(), id.pid);
    EXPECT_NE(KovaGetTid(), id.tid);
}

TEST_F(Process, PTidsAreEqualWhenBothIdsAre) {
    const KovaPTid id{1, 2};
    EXPECT_TRUE(id == (KovaPTid{1, 2}));
    EXPECT_FALSE(id != (KovaPTid{1, 2}));
    EXPECT_TRUE(id != (KovaPTid{1, 3}));
    EXPECT_TRUE(id != (KovaPTid{2, 2}));
    EXPECT_FALSE(id == (KovaPTid{2, 1}));
}

// --- Back-trace ---

/// Makes the call stack `frames`, as backtrace_symbols hands it out: one block that the caller frees.
class FakeStack {
  public:
    explicit FakeStack(std::vector<std::string> frames)
        : m_Frames(std::move(frames)),
          m_Backtrace(fake::backtrace,
                      [this](void** addresses, int) {
                          for (size_t i = 0; i < m_Frames.size(); ++i) addresses[i] = this;
                          return static_cast<int>(m_Frames.size());
                      }),
          m_Symbols(fake::backtrace_symbols, [this](void* const* addresses, int count) {
              EXPECT_EQ(m_Frames.size(), static_cast<size_t>(count));
              EXPECT_EQ(this, addresses[0]);
              return Block();
          }) {}

  private:
    char** Block() const {
        size_t size = m_Frames.size() * sizeof(char*);
        for (const std::string& frame : m_Frames) size += frame.size() + 1;
        auto* const block = static_cast<char**>(std::malloc(size));
        char* text = reinterpret_cast<char*>(block + m_Frames.size());
        for (size_t i = 0; i < m_Frames.size(); ++i) {
            block[i] = text;
            text = std::strcpy(text, m_Frames[i].c_str()) + m_Frames[i].size() + 1;
        }
        return block;
    }

    const std::vector<std::string> m_Frames;
    fake::Replace<int(void**, int)> m_Backtrace;
    fake::Replace<char**(void* const*, int)> m_Symbols;
};

class Backtrace : public Process {
  protected:
    Backtrace() { std::memset(m_Buffer, '#', sizeof m_Buffer); }

    /// Takes a back-trace into `size` bytes and checks that the byte behind them is left alone.
    int Take(size_t size) {
        const int used = KovaGetBacktrace(m_Buffer, size);
        EXPECT_EQ('#', m_Buffer[size]);
        return used;
    }

    char m_Buffer[4096];
};

TEST_F(Backtrace, HasALinePerFrame) {
    const FakeStack stack({"first", "second(%s%n)", ""});
    EXPECT_EQ(20, Take(100));
    EXPECT_STREQ("first\nsecond(%s%n)\n\n", m_Buffer);
}

TEST_F(Backtrace, AsksForTwentyFramesAtMost) {
    fake::Journal journal({&fake::backtrace, &fake::backtrace_symbols});
    const FakeStack stack(std::vector<std::string>(20, "x"));
    EXPECT_EQ(40, Take(100));
    EXPECT_EQ((Texts{"backtrace 20", "backtrace_symbols 20"}), journal.Texts());
}

TEST_F(Backtrace, OfASmallBufferIsCutAndTerminated) {
    const FakeStack stack({"first", "second"});
    const std::string whole = "first\nsecond\n";
    for (size_t size = 1; size <= whole.size(); ++size) {
        EXPECT_EQ(static_cast<int>(size), Take(size)) << size;
        EXPECT_EQ(whole.substr(0, size - 1), m_Buffer) << size;
        m_Buffer[size] = '#';
    }
    EXPECT_EQ(static_cast<int>(whole.size()), Take(whole.size() + 1));
    EXPECT_EQ(whole, m_Buffer);
}

TEST_F(Backtrace, IntoOneCharacterIsEmpty) {
    EXPECT_EQ(1, Take(1));
    EXPECT_STREQ("", m_Buffer);
}

TEST_F(Backtrace, IntoNothingWritesNothing) {
    EXPECT_EQ(0, Take(0));
    EXPECT_EQ(0, KovaGetBacktrace(nullptr, 100));
}

TEST_F(Backtrace, WithoutTextsIsEmpty) {
    fake::Script symbols(fake::backtrace_symbols, {fake::Fail(ENOMEM)});
    EXPECT_EQ(0, Take(100));
    EXPECT_STREQ("", m_Buffer);
}

TEST_F(Backtrace, NamesTheCaller) {
    const int used = Take(sizeof m_Buffer - 1);
    EXPECT_EQ(std::strlen(m_Buffer), static_cast<size_t>(used));
    EXPECT_NE(nullptr, std::strstr(m_Buffer, "frame_test")) << m_Buffer;
    EXPECT_NE(nullptr, std::strstr(m_Buffer, "KovaGetBacktrace")) << m_Buffer;
}

// --- Limits ---

TEST_F(Process, CoredumpHasNoLimit) {
    fake::Journal journal({&fake::setrlimit});
    fake::Script limits(fake::setrlimit, {fake::Return(0)});
    EXPECT_EQ(0, KovaEnableCoredump());
    EXPECT_EQ((Texts{"setrlimit RLIMIT_CORE {infinity, infinity}"}), journal.Texts());
    EXPECT_EQ(0u, m_Recorder.All().size());
}

TEST_F(Process, CoredumpThatIsRefusedIsAFailure) {
    fake::Script limits(fake::setrlimit, {fake::Fail(EPERM)});
    EXPECT_EQ(-1, KovaEnableCoredump());
    EXPECT_EQ(EPERM, errno);
    EXPECT_TRUE(m_Recorder.Has("core limit errno=%d", {EPERM}));
    EXPECT_EQ(1u, m_Recorder.All().size());
}

constexpr const char* kLimitFailed = "limit=%u errno=%d";
constexpr const char* kNoLimitFailed = "no limit, current=%u errno=%d";

struct Limit {
    const char* resource;
    int (*set)(unsigned long);
    __rlimit_resource_t number;
};

void PrintTo(const Limit& limit, std::ostream* stream) { *stream << limit.resource; }

class ProcessLimit : public Process, public testing::WithParamInterface<Limit> {
  protected:
    int Set(unsigned long limit) const { return GetParam().set(limit); }
    std::string Text(const std::string& limits) const {
        return "setrlimit " + std::string(GetParam().resource) + " " + limits;
    }

    /// Whether the process has this current limit, and no maximum.
    bool Holds(rlim_t current) const {
        rlimit limit{};
        EXPECT_EQ(0, ::getrlimit(GetParam().number, &limit));
        return limit.rlim_cur == current && limit.rlim_max == RLIM_INFINITY;
    }

    fake::Journal m_Journal{{&fake::setrlimit}};
};

INSTANTIATE_TEST_SUITE_P(All, ProcessLimit,
                         testing::Values(Limit{"RLIMIT_STACK", KovaLimitStack, RLIMIT_STACK},
                                         Limit{"RLIMIT_DATA", KovaLimitMemory, RLIMIT_DATA}),
                         [](const auto& test) { return std::string(test.param.resource).substr(7); });

TEST_P(ProcessLimit, SetsTheCurrentLimitAndNoMaximum) {
    fake::Always limits(fake::setrlimit, fake::Return(0));
    EXPECT_EQ(0, Set(0));
    EXPECT_EQ(0, Set(1000000));
    EXPECT_EQ((Texts{Text("{0, infinity}"), Text("{1000000, infinity}")}), m_Journal.Texts());
    EXPECT_EQ(0u, m_Recorder.All().size());
}

TEST_P(ProcessLimit, FiniteLimitThatIsRefusedIsTracedAndStillASuccess) {
    fake::Script limits(fake::setrlimit, {fake::Fail(EPERM)});
    EXPECT_EQ(0, Set(1000000));
    EXPECT_TRUE(m_Recorder.Has(kLimitFailed, {1000000, EPERM}));
    EXPECT_EQ(1u, m_Recorder.All().size());
    EXPECT_EQ((Texts{Text("{1000000, infinity}")}), m_Journal.Texts());
}

TEST_P(ProcessLimit, NoLimitIsSetAtOnce) {
    fake::Script limits(fake::setrlimit, {fake::Return(0)});
    EXPECT_EQ(0, Set(ULONG_MAX));
    EXPECT_EQ((Texts{Text("{infinity, infinity}")}), m_Journal.Texts());
}

TEST_P(ProcessLimit, NoLimitThatIsRefusedIsTriedOnceMore) {
    fake::Script limits(fake::setrlimit, {fake::Fail(EINVAL), fake::Return(0)});
    EXPECT_EQ(0, Set(ULONG_MAX));
    EXPECT_TRUE(m_Recorder.Has(kLimitFailed, {0xFFFFFFFF, EINVAL}));
    EXPECT_EQ(1u, m_Recorder.All().size());
    EXPECT_EQ((Texts{Text("{infinity, infinity}"), Text("{infinity, infinity}")}), m_Journal.Texts());
}

TEST_P(ProcessLimit, NoLimitThatIsRefusedTwiceIsAFailure) {
    fake::Script limits(fake::setrlimit, {fake::Fail(EINVAL), fake::Fail(EPERM)});
    EXPECT_EQ(-1, Set(ULONG_MAX));
    EXPECT_EQ(EPERM, errno);
    EXPECT_TRUE(m_Recorder.Has(kLimitFailed, {0xFFFFFFFF, EINVAL}));
    EXPECT_TRUE(m_Recorder.Has(kNoLimitFailed, {0xFFFFFFFF, EPERM}));
    EXPECT_EQ(2u, m_Recorder.All().size());
    EXPECT_EQ(2u, m_Journal.Texts().size());
}

TEST_P(ProcessLimit, HoldsForTheProcess) {
    const ChildResult child = RunInChild([this] {
        EXPECT_EQ(0, Set(64 << 20));
        rlimit limit{};
        EXPECT_EQ(0, ::getrlimit(GetParam().number, &limit));
        // Where the maximum was finite, and may not be raised, nothing has changed and a record says so.
        EXPECT_TRUE(limit.rlim_cur == rlim_t{64 << 20} || m_Recorder.Count(kLimitFailed) != 0);
    });
    EXPECT_EQ(0, child.exit_code) << child.output;
}

TEST_P(ProcessLimit, RaisesAMaximumThatWasLowered) {
    KOVA_NEEDS_OWN_MACHINE("raises hard limits");
    const ChildResult child = RunInChild([this] {
        const rlimit low{64 << 20, 128 << 20};
        ASSERT_EQ(0, ::setrlimit(GetParam().number, &low));
        EXPECT_EQ(0, Set(256 << 20));
        EXPECT_TRUE(Holds(256 << 20));
        ASSERT_EQ(0, ::setrlimit(GetParam().number, &low));
        EXPECT_EQ(0, Set(ULONG_MAX));
        EXPECT_TRUE(Holds(RLIM_INFINITY));
        EXPECT_EQ(0u, m_Recorder.All().size());
    });
    EXPECT_EQ(0, child.exit_code) << child.output;
}

TEST_F(Process, CoredumpIsEnabledWhereItWasForbidden) {
    KOVA_NEEDS_OWN_MACHINE("raises hard limits");
    const ChildResult child = RunInChild([] {
        const rlimit none{0, 0};
        ASSERT_EQ(0, ::setrlimit(RLIMIT_CORE, &none));
        EXPECT_EQ(0, KovaEnableCoredump());
        rlimit limit{};
        EXPECT_EQ(0, ::getrlimit(RLIMIT_CORE, &limit));
        EXPECT_EQ(RLIM_INFINITY, limit.rlim_cur);
        EXPECT_EQ(RLIM_INFINITY, limit.rlim_max);
    });
    EXPECT_EQ(0, child.exit_code) << child.output;
}

TEST_F(Process, NetworkNeedsNoStartup) { EXPECT_EQ(0, NetworkStartup()); }

}  // namespace
