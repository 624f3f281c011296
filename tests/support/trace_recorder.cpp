#include "support/trace_recorder.h"

#include <sys/mman.h>
#include <trace_ovra.h>
#include <trace_ovra_hash.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <iomanip>
#include <mutex>
#include <new>
#include <ostream>
#include <sstream>
#include <string>

namespace {

constexpr uint32_t kCapacity = 32768;
constexpr size_t kNarrow = 5;
constexpr size_t kWide = 9;

/// Words, so that a reader that meets a slot while it is overwritten still reads defined values.
struct Slot {
    std::atomic<uint32_t> turn;  ///< number of the record + 1 once it is complete, modulo 2^32
    std::atomic<uint32_t> handle;
    std::atomic<uint32_t> form;
    std::atomic<uint32_t> control;
    std::atomic<uint32_t> hash;
    std::atomic<int32_t> tid;
    std::array<std::atomic<uint32_t>, kWide> values;
};

struct Ring {
    std::atomic<uint32_t> next;
    std::array<Slot, kCapacity> slots;
};

/// Shared with forked children. Made by the first call, which comes from kova_init, and never destroyed:
/// kova_unload writes after every destructor of the executable.
Ring& TheRing() {
    static Ring* const ring = [] {
        void* const memory =
            ::mmap(nullptr, sizeof(Ring), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        if (memory == MAP_FAILED) std::abort();
        return new (memory) Ring();
    }();
    return *ring;
}

std::atomic<bool> g_FacilityFails{false};

template <size_t N>
int Write(uint32_t handle, uint32_t control, uint32_t hash, const std::array<uint32_t, N>& values) {
    Ring& ring = TheRing();
    const uint32_t number = ring.next.fetch_add(1, std::memory_order_relaxed);
    Slot& slot = ring.slots[number % kCapacity];
    slot.turn.store(0, std::memory_order_relaxed);
    slot.handle.store(handle, std::memory_order_relaxed);
    slot.form.store(N, std::memory_order_relaxed);
    slot.control.store(control, std::memory_order_relaxed);
    slot.hash.store(hash, std::memory_order_relaxed);
    slot.tid.store(::gettid(), std::memory_order_relaxed);
    for (size_t i = 0; i < N; ++i) slot.values[i].store(values[i], std::memory_order_relaxed);
    slot.turn.store(number + 1, std::memory_order_release);
    errno = TraceRecorder::kErrno;
    return -1;
}

TraceRecord Read(const Slot& slot) {
    TraceRecord record;
    const uint32_t control = slot.control;
    record.handle = slot.handle;
    record.form = static_cast<int>(slot.form.load());
    record.count = control >> 16;
    record.line = control & 0xFFFF;
    record.hash = slot.hash;
    record.tid = slot.tid;
    for (size_t i = 0; i < static_cast<size_t>(record.form); ++i) {
        (i < record.count ? record.values : record.unused).push_back(slot.values[i]);
    }
    return record;
}

std::vector<TraceRecord> ReadFrom(uint32_t begin) {
    const Ring& ring = TheRing();
    const uint32_t end = ring.next.load(std::memory_order_acquire);
    if (end - begin > kCapacity) {
        ADD_FAILURE() << "more trace records than the recorder holds";
        begin = end - kCapacity;
    }
    std::vector<TraceRecord> records;
    for (uint32_t number = begin; number != end; ++number) {
        const Slot& slot = ring.slots[number % kCapacity];
        if (slot.turn.load(std::memory_order_acquire) == number + 1) records.push_back(Read(slot));
    }
    return records;
}

bool IsWellFormed(const TraceRecord& record) {
    const bool form_fits = record.form == static_cast<int>(kNarrow)
                               ? record.count <= kNarrow
                               : record.count > kNarrow && record.count <= kWide;
    return form_fits && record.handle == TraceRecorder::kHandle && record.line != 0 &&
           std::all_of(record.unused.begin(), record.unused.end(), [](uint32_t value) { return value == 0; });
}

uint32_t CountConversions(std::string_view text) {
    uint32_t count = 0;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') continue;
        if (i + 1 < text.size() && text[i + 1] == '%') {
            ++i;
        } else {
            ++count;
        }
    }
    return count;
}

struct Early {
    std::vector<TraceRecord> records = ReadFrom(0);
};

const Early& TheEarly() {
    static const Early* const early = new Early;
    return *early;
}

// Evaluated while the executable's static objects are made: the libraries have been loaded by then.
[[maybe_unused]] const Early& g_Early = TheEarly();

/// Never destroyed, as the ring.
struct Requests {
    std::mutex mutex;
    std::vector<TraceBufferRequest> list;
};

Requests& TheRequests() {
    static Requests* const requests = new Requests;
    return *requests;
}

void PrintAll(const std::vector<TraceRecord>& records, std::ostream& stream) {
    for (const TraceRecord& record : records) {
        stream << "\n    ";
        PrintTo(record, &stream);
    }
}

}  // namespace

extern "C" {

int trace_ovra_init_buffer(uint32_t* handle, const char* name, uint32_t size) {
    {
        const std::lock_guard lock(TheRequests().mutex);
        TheRequests().list.push_back({handle, name, size});
    }
    errno = TraceRecorder::kErrno;
    if (g_FacilityFails) return -1;
    *handle = TraceRecorder::kHandle;
    return 0;
}

int trace_ovra_write_ints5(uint32_t handle, uint32_t control, uint32_t hash, uint32_t v0, uint32_t v1,
                           uint32_t v2, uint32_t v3, uint32_t v4) {
    return Write<kNarrow>(handle, control, hash, {v0, v1, v2, v3, v4});
}

int trace_ovra_write_ints9(uint32_t handle, uint32_t control, uint32_t hash, uint32_t v0, uint32_t v1,
                           uint32_t v2, uint32_t v3, uint32_t v4, uint32_t v5, uint32_t v6, uint32_t v7,
                           uint32_t v8) {
    return Write<kWide>(handle, control, hash, {v0, v1, v2, v3, v4, v5, v6, v7, v8});
}

uint32_t trace_ovra_hash(const char* text, uint32_t count) { return TraceOvraHash(text, count); }
}

uint32_t TraceHash(std::string_view text) {
    return TraceOvraHash(std::string(text).c_str(), CountConversions(text));
}

bool TraceRecord::Is(std::string_view text) const {
    return hash == TraceHash(text) && count == CountConversions(text);
}

void PrintTo(const TraceRecord& record, std::ostream* stream) {
    *stream << "record " << std::hex << std::setfill('0') << std::setw(8) << record.hash << std::dec
            << " line " << record.line << " tid " << record.tid << " (";
    for (size_t i = 0; i < record.values.size(); ++i) {
        *stream << (i == 0 ? "" : ", ") << static_cast<int32_t>(record.values[i]);
    }
    *stream << ")";
    if (!IsWellFormed(record)) *stream << " MALFORMED: handle " << record.handle << " form " << record.form;
}

TraceRecorder::TraceRecorder() : m_Begin(TheRing().next.load()) {}

TraceRecorder::~TraceRecorder() {
    for (const TraceRecord& record : All()) {
        EXPECT_TRUE(IsWellFormed(record)) << testing::PrintToString(record);
    }
}

void TraceRecorder::Clear() { m_Begin = TheRing().next.load(); }

std::vector<TraceRecord> TraceRecorder::All() const { return ReadFrom(m_Begin); }

std::vector<TraceRecord> TraceRecorder::Find(std::string_view text) const {
    std::vector<TraceRecord> found = All();
    std::erase_if(found, [&](const TraceRecord& record) { return !record.Is(text); });
    return found;
}

testing::AssertionResult TraceRecorder::Has(std::string_view text) const {
    if (Count(text) != 0) return testing::AssertionSuccess() << "recorded: " << text;
    std::ostringstream list;
    PrintAll(All(), list);
    return testing::AssertionFailure()
           << "not recorded: \"" << text << "\" (" << std::hex << TraceHash(text) << "), but:" << list.str();
}

testing::AssertionResult TraceRecorder::Has(std::string_view text,
                                            const std::vector<uint32_t>& values) const {
    const std::vector<TraceRecord> found = Find(text);
    if (found.empty()) return Has(text);
    for (const TraceRecord& record : found) {
        if (record.values == values) return testing::AssertionSuccess() << "recorded: " << text;
    }
    std::ostringstream list;
    PrintAll(found, list);
    return testing::AssertionFailure() << "\"" << text << "\" not recorded with values "
                                       << testing::PrintToString(values) << ", but:" << list.str();
}

testing::AssertionResult TraceRecorder::Has(std::string_view text,
                                            std::initializer_list<int64_t> values) const {
    std::vector<uint32_t> words;
    for (const int64_t value : values) words.push_back(static_cast<uint32_t>(value));
    return Has(text, words);
}

std::vector<TraceRecord> TraceRecorder::BeforeMain() { return TheEarly().records; }

std::vector<TraceBufferRequest> TraceRecorder::Buffers() {
    const std::lock_guard lock(TheRequests().mutex);
    return TheRequests().list;
}

FailingTraceFacility::FailingTraceFacility() { g_FacilityFails = true; }
FailingTraceFacility::~FailingTraceFacility() { g_FacilityFails = false; }
