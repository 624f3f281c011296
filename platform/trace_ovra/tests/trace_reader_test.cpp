// The reader: whole, foreign, cut and damaged images; files, core files, processes.

#include "test_support.h"
#include "trace_ovra.h"

#include <signal.h>
#include <sys/resource.h>

#include <memory>
#include <random>

namespace trace_ovra {
namespace {

TestImage SmallImage() {
    TestImage image(4, "SMALL");
    for (uint32_t i = 0; i < 6; ++i) image.Add(i, 100 * i, 2 << 16 | i, 0xABCD0000 + i, {i, i * i});
    return image;
}

void ExpectSame(const TraceBuffer& a, const TraceBuffer& b) {
    EXPECT_EQ(a.name, b.name);
    EXPECT_EQ(a.pid, b.pid);
    EXPECT_EQ(a.written, b.written);
    EXPECT_EQ(a.lost, b.lost);
    EXPECT_EQ(a.torn, b.torn);
    EXPECT_EQ(a.records, b.records);
    ASSERT_FALSE(a.records.empty());
    for (const Record& record : a.records) {
        EXPECT_EQ(a.clock.RealtimeNs(record.ticks), b.clock.RealtimeNs(record.ticks));
    }
}

/// A heap block of exactly these bytes, so that the address sanitizer sees the first byte read beyond.
std::optional<TraceBuffer> DecodeExactly(const std::vector<std::byte>& bytes) {
    const std::unique_ptr<std::byte[]> block(new std::byte[bytes.size()]);
    std::copy(bytes.begin(), bytes.end(), block.get());
    return DecodeBuffer({block.get(), bytes.size()});
}

TEST(TraceReader, RecordsComeOldestFirst) {
    const auto buffer = DecodeBuffer(SmallImage().Bytes());
    ASSERT_TRUE(buffer.has_value());
    EXPECT_EQ(buffer->written, 6u);
    EXPECT_EQ(buffer->lost, 2u);
    EXPECT_EQ(buffer->torn, 0u);
    ASSERT_EQ(buffer->records.size(), 4u);
    for (uint32_t i = 0; i < 4; ++i) EXPECT_EQ(buffer->records[i].sequence, i + 2);
}

TEST(TraceReader, OrderHoldsAcrossTheWrapOfTheCounter) {
    TestImage image(8);
    for (uint32_t i = 0; i < 8; ++i) {
        const uint32_t sequence = 0xFFFFFFFAu + i;
        if (sequence != 0xFFFFFFFFu) image.Add(sequence, i, 0, i);
    }
    const auto buffer = DecodeBuffer(image.Bytes());
    ASSERT_TRUE(buffer.has_value());
    ASSERT_EQ(buffer->records.size(), 7u);
    EXPECT_EQ(buffer->records.front().sequence, 0xFFFFFFFAu);
    EXPECT_EQ(buffer->records[4].sequence, 0xFFFFFFFEu);
    EXPECT_EQ(buffer->records[5].sequence, 0u);
    EXPECT_EQ(buffer->records.back().sequence, 1u);
}

TEST(TraceReader, RecordBeyondTheCopiedHeadIsTheYoungest) {
    TestImage image = SmallImage();
    image.Word(kHeaderHead) = 5;
    const auto buffer = DecodeBuffer(image.Bytes());
    ASSERT_TRUE(buffer.has_value());
    ASSERT_EQ(buffer->records.size(), 4u);
    EXPECT_EQ(buffer->records.back().sequence, 5u);
}

TEST(TraceReader, SlotInProgressAndMixtureAreTorn) {
    TestImage image = SmallImage();
    image.SlotWordAt(2, kSlotSequence) = 0;
    image.SlotWordAt(3, kSlotValues) ^= 0x80000000u;
    const auto buffer = DecodeBuffer(image.Bytes());
    ASSERT_TRUE(buffer.has_value());
    EXPECT_EQ(buffer->torn, 2u);
    EXPECT_EQ(buffer->lost, 2u);
    ASSERT_EQ(buffer->records.size(), 2u);
    EXPECT_EQ(buffer->records[0].sequence, 4u);
}

TEST(TraceReader, EveryChangedBitIsSeen) {
    for (uint32_t word = 0; word < kSlotWords; ++word) {
        for (uint32_t bit = 0; bit < 32; ++bit) {
            TestImage image = SmallImage();
            image.SlotWordAt(1, word) ^= 1u << bit;
            const auto buffer = DecodeBuffer(image.Bytes());
            ASSERT_TRUE(buffer.has_value());
            EXPECT_EQ(buffer->torn, 1u) << "word " << word << " bit " << bit;
        }
    }
}

TEST(TraceReader, EveryMixtureOfTwoRecordsIsSeen) {
    // Words from two records of one thread that a whole turn of the ring lies between, in every combination.
    TestImage older(4), younger(4);
    older.Add(1, 0x1'2345'6789, 5 << 16 | 100, 0xAAAA1111, {1, 2, 3, 4, 5});
    younger.Add(5, 0x1'2345'6E21, 5 << 16 | 101, 0xBBBB2222, {2, 3, 4, 5, 6});
    uint32_t accepted = 0;
    for (uint32_t choice = 0; choice < 1u << kSlotWords; ++choice) {
        TestImage mixture = younger;
        bool differs_from_older = false;
        bool differs_from_younger = false;
        for (uint32_t word = 0; word < kSlotWords; ++word) {
            if ((choice >> word & 1) != 0) mixture.SlotWordAt(1, word) = older.SlotWordAt(1, word);
            differs_from_older |= mixture.SlotWordAt(1, word) != older.SlotWordAt(1, word);
            differs_from_younger |= mixture.SlotWordAt(1, word) != younger.SlotWordAt(1, word);
        }
        if (!differs_from_older || !differs_from_younger) continue;
        if (!DecodeBuffer(mixture.Bytes())->records.empty()) ++accepted;
    }
    EXPECT_EQ(accepted, 0u);
}

TEST(TraceReader, RecordInAForeignSlotIsTorn) {
    TestImage image(4);
    image.Add(0, 1, 0, 1);
    for (uint32_t word = 0; word < kSlotWords; ++word) image.SlotWordAt(1, word) = image.SlotWordAt(0, word);
    image.Word(kHeaderHead) = 2;
    const auto buffer = DecodeBuffer(image.Bytes());
    ASSERT_TRUE(buffer.has_value());
    EXPECT_EQ(buffer->records.size(), 1u);
    EXPECT_EQ(buffer->torn, 1u);
}

TEST(TraceReader, ForeignByteOrderDecodesEqual) {
    const std::vector<std::byte> bytes = SmallImage().Bytes();
    const auto native = DecodeBuffer(bytes);
    const auto foreign = DecodeBuffer(Swapped(bytes));
    ASSERT_TRUE(native.has_value() && foreign.has_value());
    EXPECT_FALSE(native->foreign_order);
    EXPECT_TRUE(foreign->foreign_order);
    ExpectSame(*native, *foreign);
}

TEST(TraceReader, WrittenFileInForeignByteOrderDecodesEqual) {
    TempDir directory;
    const ChildResult child = InChild([&] {
        setenv("TRACE_OVRA_DIR", directory.Path().c_str(), 1);
        uint32_t handle = 0;
        EXPECT_EQ(trace_ovra_init_buffer(&handle, "REAL", 1024), 0);
        for (uint32_t i = 0; i < 20; ++i)
            trace_ovra_write_ints9(handle, 9 << 16 | i, i, 1, 2, 3, 4, 5, 6, 7, 8, i);
    });
    ASSERT_TRUE(Passed(child));
    const auto bytes = FileBytes(directory.File("REAL." + std::to_string(child.pid) + ".trace"));
    const auto native = DecodeBuffer(bytes);
    const auto foreign = DecodeBuffer(Swapped(bytes));
    ASSERT_TRUE(native.has_value() && foreign.has_value());
    ExpectSame(*native, *foreign);
}

TEST(TraceReader, EveryTruncationIsCutOrRefused) {
    const std::vector<std::byte> whole = SmallImage().Bytes();
    for (size_t length = 0; length < whole.size(); ++length) {
        const auto buffer = DecodeExactly({whole.begin(), whole.begin() + static_cast<ptrdiff_t>(length)});
        EXPECT_EQ(buffer.has_value(), length >= kHeaderSize) << length;
        if (!buffer) continue;
        EXPECT_TRUE(buffer->cut);
        EXPECT_EQ(buffer->records.size(), (length - kHeaderSize) / kSlotSize);
        EXPECT_EQ(buffer->records.size() + buffer->lost, 6u);
    }
    EXPECT_FALSE(DecodeExactly(whole)->cut);
}

TEST(TraceReader, RandomDamageNeverLeavesTheImage) {
    std::mt19937 random(20'240'229);
    const std::vector<std::byte> whole = SmallImage().Bytes();
    size_t decoded = 0;
    for (int round = 0; round < 20'000; ++round) {
        std::vector<std::byte> bytes = round % 2 == 0 ? whole : Swapped(whole);
        for (uint32_t i = random() % 8 + 1; i > 0; --i) bytes[random() % bytes.size()] = std::byte(random());
        bytes.resize(bytes.size() - (random() % 4 == 0 ? random() % bytes.size() : 0));
        const auto buffer = DecodeExactly(bytes);
        if (!buffer) continue;
        ++decoded;
        EXPECT_LE(buffer->records.size(), 4u);
        for (const Record& record : buffer->records) buffer->clock.RealtimeNs(record.ticks);
    }
    EXPECT_GT(decoded, 1000u);
}

TEST(TraceReader, HostileHeadersAreRefused) {
    const auto refused = [](uint32_t word, uint32_t value) {
        TestImage image = SmallImage();
        image.Word(word) = value;
        return !DecodeExactly(image.Bytes()).has_value();
    };
    EXPECT_TRUE(refused(kHeaderMagic, 0));
    EXPECT_TRUE(refused(kHeaderEndian, 0x02010403));
    EXPECT_TRUE(refused(kHeaderVersion, 2));
    EXPECT_TRUE(refused(kHeaderHeaderSize, 0xFFFFFF00));
    EXPECT_TRUE(refused(kHeaderSlotSize, 32));
    EXPECT_TRUE(refused(kHeaderSlotCount, 0));
    EXPECT_TRUE(refused(kHeaderSlotCount, 3));
    EXPECT_TRUE(refused(kHeaderSlotCount, 0x80000000));
    EXPECT_FALSE(refused(kHeaderSlotCount, kMaxSlots));  // cut, but possible
}

TEST(TraceReader, NameWithoutEndIsBounded) {
    TestImage image(1, "0123456789012345678901234567890123456789");
    const auto buffer = DecodeBuffer(image.Bytes());
    ASSERT_TRUE(buffer.has_value());
    EXPECT_EQ(buffer->name, "01234567890123456789012345678901");
    EXPECT_EQ(DecodeBuffer(TestImage(1, "a\x1B[2J").Bytes())->name, "a?[2J");
}

// --- Clock ---

TEST(TraceReaderClock, TimeComesFromTwoAnchors) {
    const Clock clock = DecodeBuffer(TestImage(1).Bytes())->clock;
    EXPECT_EQ(clock.RealtimeNs(0), static_cast<int64_t>(TestImage::kStartNs));
    EXPECT_EQ(clock.RealtimeNs(500'000'000), static_cast<int64_t>(TestImage::kStartNs + 500'000'000));
    EXPECT_EQ(clock.RealtimeNs(2'000'000'000), static_cast<int64_t>(TestImage::kStartNs + 2'000'000'000));
}

TEST(TraceReaderClock, ClockSetMeanwhileDoesNotBendTheTime) {
    TestImage image(1);
    image.Set64(uint32_t{kHeaderOrigin} + kAnchorRealtime, 0);
    EXPECT_EQ(DecodeBuffer(image.Bytes())->clock.RealtimeNs(0), static_cast<int64_t>(TestImage::kStartNs));
}

TEST(TraceReaderClock, LessThanAMillisecondIsTooLittle) {
    TestImage image(1);
    image.SetAnchor(kHeaderLatest, 999'999);
    EXPECT_FALSE(DecodeBuffer(image.Bytes())->clock.RealtimeNs(0).has_value());
    image.SetAnchor(kHeaderLatest, 1'000'000);
    EXPECT_TRUE(DecodeBuffer(image.Bytes())->clock.RealtimeNs(0).has_value());
}

TEST(TraceReaderClock, NanosecondTicksNeedNoSecondAnchor) {
    TestImage image(1);
    image.Word(kHeaderTickSource) = kTicksMonotonic;
    image.SetAnchor(kHeaderLatest, 0);
    EXPECT_EQ(DecodeBuffer(image.Bytes())->clock.RealtimeNs(5),
              static_cast<int64_t>(TestImage::kStartNs + 5));
}

TEST(TraceReaderClock, HalfWrittenAnchorIsNotUsed) {
    TestImage image(1);
    image.Word(kHeaderLatestSequence) = 3;
    const Clock clock = DecodeBuffer(image.Bytes())->clock;
    EXPECT_FALSE(clock.latest.has_value());
    EXPECT_FALSE(clock.RealtimeNs(0).has_value());
}

// --- Sources ---

TEST(TraceReaderFile, BuffersAreFoundAtPagesOfALargerFile) {
    TempDir directory;
    std::vector<std::byte> core(3'000'000);
    const auto put = [&](size_t offset, const TestImage& image) {
        const auto bytes = image.Bytes();
        std::copy(bytes.begin(), bytes.end(), core.begin() + static_cast<ptrdiff_t>(offset));
    };
    put(4096 * 3, SmallImage());
    put(4096 * 300, TestImage(128, "LARGE"));  // longer than a page
    put(4096 * 500 + 8, TestImage(1, "ASKEW"));
    put(4096 * 600, TestImage(1, "LAST"));
    WriteBytes(directory.File("core"), core);
    const ReadResult all = ReadFile(directory.File("core"));
    ASSERT_EQ(all.buffers.size(), 3u);
    EXPECT_EQ(all.buffers[0].name, "SMALL");
    EXPECT_EQ(all.buffers[0].records.size(), 4u);
    EXPECT_EQ(all.buffers[1].name, "LARGE");
    EXPECT_EQ(all.buffers[2].name, "LAST");
    const ReadResult one = ReadFile(directory.File("core"), "LAST");
    ASSERT_EQ(one.buffers.size(), 1u);
    EXPECT_EQ(one.buffers[0].name, "LAST");
    EXPECT_NE(ReadFile(directory.File("core"), "NONE").error.find("no trace buffer named NONE"),
              std::string::npos);
}

TEST(TraceReaderFile, ErrorsSayWhatIsWrong) {
    TempDir directory;
    EXPECT_EQ(ReadFile(directory.File("no")).error, directory.File("no") + ": No such file or directory");
    EXPECT_EQ(ReadFile(directory.Path()).error, directory.Path() + ": not a regular file");
    WriteText(directory.File("text"), "OVRA and nothing behind it");
    EXPECT_EQ(ReadFile(directory.File("text")).error, directory.File("text") + ": no trace buffer");
    WriteText(directory.File("empty"), "");
    EXPECT_EQ(ReadFile(directory.File("empty")).error, directory.File("empty") + ": no trace buffer");
}

TEST(TraceReaderFile, CoreFileHoldsTheBuffer) {
    if (kSanitized) GTEST_SKIP() << "sanitized processes leave no core file";
    TempDir directory;
    InChild([&] {
        const rlimit unlimited{RLIM_INFINITY, RLIM_INFINITY};
        setrlimit(RLIMIT_CORE, &unlimited);
        uint32_t handle = 0;
        trace_ovra_init_buffer(&handle, "CORE", 4096);
        trace_ovra_write_ints5(handle, 1 << 16, 5, 42, 0, 0, 0, 0);
        if (chdir(directory.Path().c_str()) == 0) abort();
    });
    const std::filesystem::directory_iterator files(directory.Path());
    if (files == std::filesystem::directory_iterator()) {
        GTEST_SKIP() << "core files do not go to the working directory (limit, or kernel.core_pattern)";
    }
    const ReadResult result = ReadFile(files->path(), "CORE");
    ASSERT_EQ(result.buffers.size(), 1u) << result.error;
    ASSERT_EQ(result.buffers[0].records.size(), 1u);
    EXPECT_EQ(result.buffers[0].records[0].values[0], 42u);
}

TEST(TraceReaderProcess, ErrorsSayWhatIsWrong) {
    const ChildResult gone = InChild([] {});
    EXPECT_EQ(ReadProcess(gone.pid).error, "no such process: " + std::to_string(gone.pid));
    EXPECT_EQ(ReadProcess(getpid(), "NONE").error,
              "process " + std::to_string(getpid()) + ": no trace buffer named NONE");
}

TEST(TraceReaderProcess, MissingPermissionNamesWhatIsNeeded) {
    constexpr int no_other_user = 77;
    const pid_t target = getpid();
    const ChildResult child = InChild([&] {
        if (setresuid(65534, 65534, 65534) != 0) _exit(no_other_user);
        const std::string error = ReadProcess(target).error;
        EXPECT_NE(error.find("no permission"), std::string::npos) << error;
        EXPECT_NE(error.find("CAP_SYS_PTRACE"), std::string::npos) << error;
    });
    if (WIFEXITED(child.status) && WEXITSTATUS(child.status) == no_other_user) {
        GTEST_SKIP() << "only root can become another user";
    }
    EXPECT_TRUE(Passed(child));
}

}  // namespace
}  // namespace trace_ovra
