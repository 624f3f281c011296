#include "frame/trace.h"

#include "support/leak_check.h"
#include "support/trace_recorder.h"

#include <kova/lifecycle.h>

#include <gtest/gtest.h>
#include <trace_ovra.h>

#include <cerrno>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace {

using Words = std::vector<uint32_t>;

class Trace : public KovaTest {
  protected:
    TraceRecord Only() const {
        const std::vector<TraceRecord> all = m_Recorder.All();
        EXPECT_EQ(1u, all.size());
        return all.empty() ? TraceRecord{} : all.front();
    }

    TraceRecorder m_Recorder;
};

TEST_F(Trace, RecordWithoutValues) {
    KOVA_TRACE("nothing to say");
    EXPECT_TRUE(Only().Is("nothing to say"));
    EXPECT_EQ(5, Only().form);
    EXPECT_EQ(0u, Only().count);
    EXPECT_EQ(Words(5, 0), Only().unused);
    EXPECT_EQ(kova_trace_d, Only().handle);
}

TEST_F(Trace, UpToFiveValuesTakeTheNarrowForm) {
    KOVA_TRACE("%d", 1);
    KOVA_TRACE("%d %d", 1, 2);
    KOVA_TRACE("%d %d %d", 1, 2, 3);
    KOVA_TRACE("%d %d %d %d", 1, 2, 3, 4);
    KOVA_TRACE("%d %d %d %d %d", 1, 2, 3, 4, 5);
    const std::vector<TraceRecord> all = m_Recorder.All();
    ASSERT_EQ(5u, all.size());
    for (uint32_t count = 1; count <= 5; ++count) {
        EXPECT_EQ(5, all[count - 1].form);
        EXPECT_EQ(count, all[count - 1].count);
        EXPECT_EQ(count, all[count - 1].values.back());
        EXPECT_EQ(Words(5 - count, 0), all[count - 1].unused);
    }
}

TEST_F(Trace, SixToNineValuesTakeTheWideForm) {
    KOVA_TRACE("%d %d %d %d %d %d", 1, 2, 3, 4, 5, 6);
    KOVA_TRACE("%d %d %d %d %d %d %d", 1, 2, 3, 4, 5, 6, 7);
    KOVA_TRACE("%d %d %d %d %d %d %d %d", 1, 2, 3, 4, 5, 6, 7, 8);
    KOVA_TRACE("%d %d %d %d %d %d %d %d %d", 1, 2, 3, 4, 5, 6, 7, 8, 9);
    const std::vector<TraceRecord> all = m_Recorder.All();
    ASSERT_EQ(4u, all.size());
    for (uint32_t count = 6; count <= 9; ++count) {
        const TraceRecord& record = all[count - 6];
        EXPECT_EQ(9, record.form);
        EXPECT_EQ(count, record.count);
        for (uint32_t i = 0; i < count; ++i) EXPECT_EQ(i + 1, record.values[i]);
        EXPECT_EQ(Words(9 - count, 0), record.unused);
    }
}

TEST_F(Trace, ControlWordHoldsTheLineOfTheStatement) {
    const uint32_t line = __LINE__ + 1;
    KOVA_TRACE("here value=%u", 7u);
    EXPECT_EQ(line, Only().line);
    EXPECT_EQ(1u, Only().count);
    static_assert(kova::trace::ControlWord(3, 17) == 0x00030011);
    static_assert(kova::trace::ControlWord(9, 70000) == (9u << 16 | (70000u & 0xFFFF)));
}

TEST_F(Trace, HashIsTheFacilitysOfTextAndCount) {
    static_assert(kova::trace::Hash("select n=%d code=%d", 2) == TraceOvraHash("select n=%d code=%d", 2));
    KOVA_TRACE("select n=%d code=%d", 1, 2);
    EXPECT_EQ(trace_ovra_hash("select n=%d code=%d", 2), Only().hash);
    EXPECT_NE(trace_ovra_hash("select n=%d code=%d", 1), Only().hash) << "the count is part of it";
}

TEST_F(Trace, PercentSignsInPairsAreNoConversions) {
    static_assert(kova::trace::CountConversions("100%% of %d") == 1);
    static_assert(kova::trace::CountConversions("") == 0);
    static_assert(kova::trace::CountConversions("%d%x%p") == 3);
    KOVA_TRACE("100%% of %d", 5);
    EXPECT_EQ(1u, Only().count);
}

TEST_F(Trace, ValuesAreCutTo32Bits) {
    const char text[] = "10.0.0.1";
    const void* const pointer = &text;
    KOVA_TRACE("%d %lu %s %p", -2, 0xFFFFFFFFul, text, pointer);
    const auto address = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(pointer));
    EXPECT_EQ((Words{0xFFFFFFFE, 0xFFFFFFFF, address, address}), Only().values);
}

TEST_F(Trace, ValuesAreEvaluatedOnce) {
    int calls = 0;
    const auto value = [&] { return ++calls; };
    KOVA_TRACE("%d", value());
    EXPECT_EQ(1, calls);
}

TEST_F(Trace, KeepsErrno) {
    errno = ENOENT;
    KOVA_TRACE("narrow");
    EXPECT_EQ(ENOENT, errno);
    KOVA_TRACE("%d %d %d %d %d %d", 1, 2, 3, 4, 5, 6);
    EXPECT_EQ(ENOENT, errno);
}

template <typename Value>
void TraceInTemplate(Value value) {
    KOVA_TRACE("in a template %d", static_cast<int>(value));
}

inline void TraceInline(int value) { KOVA_TRACE("in an inline function %d", value); }

struct Member {
    Member() { KOVA_TRACE("in a constructor"); }
    ~Member() { KOVA_TRACE("in a destructor"); }
};

TEST_F(Trace, MayStandAnywhere) {
    TraceInTemplate(1);
    TraceInTemplate('\2');
    TraceInline(3);
    { const Member member; }
    [](int value) { KOVA_TRACE("in a lambda %d", value); }(4);
    if (m_Recorder.All().size() == 5)
        KOVA_TRACE("in a branch");
    else
        KOVA_TRACE("in the other branch");
    EXPECT_TRUE(m_Recorder.Has("in a template %d", {1}));
    EXPECT_TRUE(m_Recorder.Has("in a template %d", {2}));
    EXPECT_TRUE(m_Recorder.Has("in an inline function %d", {3}));
    EXPECT_TRUE(m_Recorder.Has("in a constructor"));
    EXPECT_TRUE(m_Recorder.Has("in a destructor"));
    EXPECT_TRUE(m_Recorder.Has("in a lambda %d", {4}));
    EXPECT_EQ(1u, m_Recorder.Count("in a branch") + m_Recorder.Count("in the other branch"));
}

TEST_F(Trace, ThreadsWriteAtTheSameTime) {
    constexpr int kThreads = 4;
    constexpr int kRecords = 500;
    {
        std::vector<std::unique_ptr<DeadlineThread>> threads;
        for (int thread = 0; thread < kThreads; ++thread) {
            threads.push_back(std::make_unique<DeadlineThread>([thread] {
                for (int i = 0; i < kRecords; ++i) KOVA_TRACE("thread=%d i=%d", thread, i);
            }));
        }
    }
    EXPECT_EQ(size_t{kThreads * kRecords}, m_Recorder.Count("thread=%d i=%d"));
}

}  // namespace
