/// The trace spy: the test executable defines the four calls of the trace facility, so that every record
/// which the library writes lands here.
///
///     TraceRecorder recorder;
///     EXPECT_EQ(-1, KovaNanoSleep(1500000000));
///     EXPECT_TRUE(recorder.Has("sleep failed seconds=%d nanoseconds=%d errno=%d", {1, 1499999999, EINVAL}));
///
/// The spy is an unkind facility: every write returns -1 and leaves a senseless errno, as if the buffer were
/// lost. An operation must not notice. Records of forked children are seen by their parent, too. Safe from
/// any thread and any signal handler; the last 32768 records are kept.
#ifndef KOVA_TESTS_SUPPORT_TRACE_RECORDER_H
#define KOVA_TESTS_SUPPORT_TRACE_RECORDER_H

#include <gtest/gtest.h>
#include <sys/types.h>

#include <cstdint>
#include <initializer_list>
#include <iosfwd>
#include <string>
#include <string_view>
#include <vector>

/// One call of trace_ovra_write_ints5 (form 5) or trace_ovra_write_ints9 (form 9).
struct TraceRecord {
    uint32_t handle;
    int form;
    uint32_t count;  ///< upper half of the control word
    uint32_t line;   ///< lower half
    uint32_t hash;
    std::vector<uint32_t> values;  ///< the `count` meaningful ones
    std::vector<uint32_t> unused;  ///< the rest
    pid_t tid;

    /// The hash is that of `text`, and the record has as many values as the text has conversions.
    bool Is(std::string_view text) const;
};

void PrintTo(const TraceRecord& record, std::ostream* stream);

/// One call of trace_ovra_init_buffer.
struct TraceBufferRequest {
    uint32_t* handle;
    std::string name;
    uint32_t size;
};

/// The records written while it lives. At its end it fails the test if any of them broke the convention: the
/// handle that the facility gave, five values in the narrow form and more only in the wide one, unused values
/// 0.
class TraceRecorder {
  public:
    /// What the spy gives as handle, and what it leaves in errno.
    static constexpr uint32_t kHandle = 0x4B4F5641;
    static constexpr int kErrno = 4242;

    TraceRecorder();
    TraceRecorder(const TraceRecorder&) = delete;
    TraceRecorder& operator=(const TraceRecorder&) = delete;
    ~TraceRecorder();

    std::vector<TraceRecord> All() const;
    /// The records of one trace point, by its format text.
    std::vector<TraceRecord> Find(std::string_view text) const;
    size_t Count(std::string_view text) const { return Find(text).size(); }
    /// Whether a record of this trace point was written, with any values or with exactly these.
    testing::AssertionResult Has(std::string_view text) const;
    testing::AssertionResult Has(std::string_view text, const std::vector<uint32_t>& values) const;
    testing::AssertionResult Has(std::string_view text, std::initializer_list<int64_t> values) const;
    /// Forgets what was recorded so far.
    void Clear();

    /// What the library wrote while it was loaded, and the buffers that it asked for then.
    static std::vector<TraceRecord> BeforeMain();
    static std::vector<TraceBufferRequest> Buffers();

  private:
    uint32_t m_Begin;
};

/// A record's hash, as the library forms it: over the text and its number of conversions.
uint32_t TraceHash(std::string_view text);

/// While it lives, trace_ovra_init_buffer returns -1 and leaves the handle alone.
class FailingTraceFacility {
  public:
    FailingTraceFacility();
    ~FailingTraceFacility();
};

#endif
