#include "support/fake_libc.h"
#include "support/leak_check.h"
#include "support/trace_recorder.h"

#include <kova/lifecycle.h>
#include <kova/process.h>

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <csetjmp>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

constexpr const char* kInitialised = "library initialised";
constexpr const char* kUnloaded = "library unloaded";
constexpr const char* kAbend = "nTid=%x KovaGetTid()=%x";

class Lifecycle : public KovaTest {
  protected:
    TraceRecorder m_Recorder;
};

TEST_F(Lifecycle, HooksAreExportedUnderPlainNames) {
    for (const char* name : {"kova_init", "kova_unload", "pabend", "kova_trace_d"}) {
        EXPECT_NE(nullptr, ::dlsym(RTLD_DEFAULT, name)) << name;
    }
}

TEST_F(Lifecycle, LoadingOpensTheBufferOnceAndLeavesOneRecord) {
    const std::vector<TraceBufferRequest> buffers = TraceRecorder::Buffers();
    ASSERT_FALSE(buffers.empty());
    EXPECT_EQ(&kova_trace_d, buffers[0].handle);
    EXPECT_EQ("KOVA", buffers[0].name);
    EXPECT_EQ(32768u, buffers[0].size);

    const std::vector<TraceRecord> records = TraceRecorder::BeforeMain();
    ASSERT_EQ(1u, records.size());
    EXPECT_TRUE(records[0].Is(kInitialised));
    EXPECT_EQ(0u, records[0].count);
    EXPECT_NE(0u, records[0].line);
    EXPECT_EQ(TraceRecorder::kHandle, records[0].handle)
        << "the buffer is opened before the record is written";
    EXPECT_EQ(TraceRecorder::kHandle, kova_trace_d);
}

TEST_F(Lifecycle, FailingFacilityLeavesTheHandleAlone) {
    const FailingTraceFacility fails;
    kova_init();
    EXPECT_EQ(TraceRecorder::kHandle, kova_trace_d);
    EXPECT_TRUE(m_Recorder.Has(kInitialised));
    EXPECT_EQ(1u, m_Recorder.All().size());
}

TEST_F(Lifecycle, UnloadingLeavesOneRecord) {
    kova_unload();
    EXPECT_EQ(1u, m_Recorder.Count(kUnloaded));
    EXPECT_EQ(1u, m_Recorder.All().size());
}

TEST_F(Lifecycle, EndOfTheProcessUnloads) {
    EXPECT_EQ(0, RunInChild([] { std::exit(0); }).exit_code);
    EXPECT_EQ(1u, m_Recorder.Count(kUnloaded));
    EXPECT_EQ(1u, m_Recorder.All().size());
}

using Values = std::vector<std::vector<uint32_t>>;

/// The abend owner belongs to the process, so every case has a child of its own.
class Pabend : public Lifecycle {
  protected:
    /// The values of the abend records, which are the only ones.
    Values Recorded() const {
        Values values;
        for (const TraceRecord& record : m_Recorder.All()) {
            EXPECT_TRUE(record.Is(kAbend)) << testing::PrintToString(record);
            EXPECT_EQ(5, record.form);
            EXPECT_NE(0u, record.line);
            values.push_back(record.values);
        }
        return values;
    }
};

uint32_t Word(const std::string& number) { return static_cast<uint32_t>(std::stoul(number)); }

void PrintTid() {
    std::printf("%d", KovaGetTid());
    std::fflush(stdout);
}

sigjmp_buf g_Place;

/// Calls pabend and comes back even when it aborts, which the result tells.
bool AbortsInPabend(uint32_t a = 0x26C24100, uint32_t b = 0x71000000, uint32_t c = 0) {
    fake::Replace abort(fake::abort, [] { siglongjmp(g_Place, 1); });
    if (sigsetjmp(g_Place, 1) != 0) return true;
    pabend(a, b, c);
    return false;
}

TEST_F(Pabend, TracesAndAborts) {
    const ChildResult child = RunInChild([] {
        PrintTid();
        pabend(0x26C24100, 0x71000000, 0);
    });
    EXPECT_EQ(SIGABRT, child.signal);
    EXPECT_EQ((Values{{0, Word(child.output)}}), Recorded());
}

TEST_F(Pabend, SecondCallOfTheSameThreadOnlyLeavesItsRecord) {
    const ChildResult child = RunInChild([] {
        PrintTid();
        EXPECT_TRUE(AbortsInPabend());
        EXPECT_FALSE(AbortsInPabend());
        EXPECT_FALSE(AbortsInPabend());
    });
    EXPECT_EQ(0, child.exit_code) << child.output;
    const uint32_t self = Word(child.output);
    EXPECT_EQ((Values{{0, self}, {self, self}, {self, self}}), Recorded());
}

TEST_F(Pabend, AnotherThreadAbortsAndBecomesTheOwner) {
    const ChildResult child = RunInChild([] {
        std::printf("%d ", KovaGetTid());
        EXPECT_TRUE(AbortsInPabend());
        DeadlineThread([] {
            PrintTid();
            EXPECT_TRUE(AbortsInPabend());
            EXPECT_FALSE(AbortsInPabend());
        }).Join();
        EXPECT_TRUE(AbortsInPabend());
    });
    EXPECT_EQ(0, child.exit_code) << child.output;
    const uint32_t first = Word(child.output);
    const uint32_t second = Word(child.output.substr(child.output.find(' ')));
    EXPECT_NE(first, second);
    EXPECT_EQ((Values{{0, first}, {first, second}, {second, second}, {second, first}}), Recorded());
}

TEST_F(Pabend, HandlerOfTheAbortMayCallItAgain) {
    const ChildResult child = RunInChild([] {
        PrintTid();
        std::signal(SIGABRT, [](int) { pabend(0, 0, 0); });
        pabend(0, 0, 0);
    });
    EXPECT_EQ(SIGABRT, child.signal);
    const uint32_t self = Word(child.output);
    EXPECT_EQ((Values{{0, self}, {self, self}}), Recorded());
}

TEST_F(Pabend, IgnoresItsWords) {
    const ChildResult child = RunInChild([] {
        PrintTid();
        EXPECT_TRUE(AbortsInPabend(0xFFFFFFFF, 1, 2));
    });
    EXPECT_EQ(0, child.exit_code) << child.output;
    EXPECT_EQ((Values{{0, Word(child.output)}}), Recorded());
}

TEST_F(Pabend, KeepsErrnoWhenItReturns) {
    const ChildResult child = RunInChild([] {
        EXPECT_TRUE(AbortsInPabend());
        errno = ENOENT;
        pabend(0, 0, 0);
        EXPECT_EQ(ENOENT, errno);
    });
    EXPECT_EQ(0, child.exit_code) << child.output;
}

}  // namespace
