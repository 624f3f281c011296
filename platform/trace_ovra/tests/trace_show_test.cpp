// The viewer: what it prints for records, catalogues and errors.

#include "trace_show.h"

#include "test_support.h"
#include "trace_ovra_hash.h"

namespace trace_ovra {
namespace {

struct Output {
    int code;
    std::string out;
    std::string error;
};

Output Show(const TraceShowOptions& options) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const int code = TraceShow(options);
    std::string out = testing::internal::GetCapturedStdout();
    return {code, std::move(out), testing::internal::GetCapturedStderr()};
}

std::string CatalogueLine(const std::string& text, uint32_t count, const std::string& places) {
    char start[32];
    snprintf(start, sizeof start, "%08x\t%u\t", TraceOvraHash(text.c_str(), count), count);
    return start + places + "\t" + text + "\n";
}

class TraceShowTest : public testing::Test {
  protected:
    TraceShowTest() { unsetenv("KOVA_TRACE_CATALOGUE"); }

    TraceShowOptions Options() const {
        return {m_Directory.File("image"), "", m_Directory.File("catalogue"), false};
    }

    /// Shows one record of `text` with `values` as the viewer prints it, without time and thread.
    std::string Text(const std::string& text, const std::vector<uint32_t>& values, uint32_t line = 20) {
        const auto count = static_cast<uint32_t>(values.size());
        TestImage image(1);
        image.Add(0, 0, count << 16 | line, TraceOvraHash(text.c_str(), count), values);
        WriteBytes(m_Directory.File("image"), image.Bytes());
        WriteText(m_Directory.File("catalogue"),
                  "# comment\n" + CatalogueLine(text, count, "a.cpp:20,b.cpp:30"));
        const Output shown = Show(Options());
        EXPECT_EQ(shown.code, 0) << shown.error;
        const std::string start =
            "# buffer TEST, process 4711: 1 records shown, 0 lost, 0 torn\n"
            "2023-11-14T22:13:20.000000Z  77  ";
        EXPECT_TRUE(shown.out.starts_with(start)) << shown.out;
        EXPECT_TRUE(shown.out.ends_with("\n"));
        return shown.out.substr(start.size(), shown.out.size() - start.size() - 1);
    }

    TempDir m_Directory;
};

TEST_F(TraceShowTest, RecordHasTimeThreadPlaceAndText) {
    EXPECT_EQ(Text("select n=%d code=%d", {3, 30014}), "a.cpp:20  select n=3 code=30014");
    EXPECT_EQ(Text("loaded", {}), "a.cpp:20  loaded");
    EXPECT_EQ(Text("n=%d", {1}, 30), "b.cpp:30  n=1");
    EXPECT_EQ(Text("n=%d", {1}, 31), "a.cpp|b.cpp:31  n=1");  // catalogue of another build
}

TEST_F(TraceShowTest, ConversionsPrintLikePrintf) {
    EXPECT_EQ(Text("%d %i %u", {0xFFFFFFFF, 0x80000000, 0xFFFFFFFF}), "a.cpp:20  -1 -2147483648 4294967295");
    EXPECT_EQ(Text("%x %X %o %#x %#X %#o", {0xAB, 0xAB, 8, 0xAB, 0xAB, 8}),
              "a.cpp:20  ab AB 10 0xab 0XAB 010");
    EXPECT_EQ(Text("[%5d][%-5d][%05d][%+d][% d]", {42, 42, static_cast<uint32_t>(-42), 42, 42}),
              "a.cpp:20  [   42][42   ][-0042][+42][ 42]");
    EXPECT_EQ(Text("[%08x][%#010x][%6.3u][%.0d]", {0xBEEF, 0xBEEF, 7, 0}),
              "a.cpp:20  [0000beef][0x0000beef][   007][]");
    EXPECT_EQ(Text("%c%c [%3c]", {'A', 7, 'B'}), "a.cpp:20  A\\x07 [  B]");
    EXPECT_EQ(Text("%s %p [%12s] [%-12p]", {0xBFFF0010, 0, 0xABC, 0xABC}),
              "a.cpp:20  0xbfff0010 0x0 [       0xabc] [0xabc       ]");
    EXPECT_EQ(Text("%ld %llu %hhx %zu", {1, 2, 3, 4}), "a.cpp:20  1 2 3 4");
    EXPECT_EQ(Text("100%% of %d%%", {5}), "a.cpp:20  100% of 5%");
    EXPECT_EQ(Text("%d%d%d%d%d%d%d%d%d", {1, 2, 3, 4, 5, 6, 7, 8, 9}), "a.cpp:20  123456789");
}

TEST_F(TraceShowTest, EveryNumberFormatEqualsTheLibrarysOwn) {
    const std::vector<std::string> formats = {"%d",    "%+d",     "% d",   "%8d",   "%-8d|", "%08d", "%.5d",
                                              "%8.5d", "%-8.5d|", "%+08d", "%u",    "%08u",  "%x",   "%#x",
                                              "%#08x", "%-#8x|",  "%.4x",  "%#.4x", "%X",    "%#X",  "%o",
                                              "%#o",   "%#8o",    "%.0o",  "%#.0o", "%.0x",  "%#.3o"};
    for (const std::string& format : formats) {
        for (const uint32_t value : {0u, 1u, 7u, 12345u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu}) {
            char expected[64];
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
            snprintf(expected, sizeof expected, format.c_str(), value);
#pragma GCC diagnostic pop
            EXPECT_EQ(Text(format, {value}), "a.cpp:20  " + std::string(expected))
                << format << " of " << value;
        }
    }
}

TEST_F(TraceShowTest, UnknownHashOrOtherCountIsPrintedRaw) {
    TestImage image(4);
    image.Add(0, 0, 2 << 16 | 9, 0x0000BEEF, {1, 0xFF});
    image.Add(1, 1'500, 1 << 16 | 9, TraceOvraHash("n=%d", 2), {5});
    image.Add(2, 2'000, 200 << 16 | 9, 7, {1, 2, 3, 4, 5, 6, 7, 8, 9});
    WriteBytes(m_Directory.File("image"), image.Bytes());
    WriteText(m_Directory.File("catalogue"), CatalogueLine("n=%d", 2, "a.cpp:1"));
    const Output shown = Show(Options());
    EXPECT_EQ(shown.code, 0);
    char hash[9];
    snprintf(hash, sizeof hash, "%08x", TraceOvraHash("n=%d", 2));
    EXPECT_EQ(shown.out,
              "# buffer TEST, process 4711: 3 records shown, 0 lost, 0 torn\n"
              "2023-11-14T22:13:20.000000Z  77  hash=0000beef line=9 values=2 0x1 0xff\n"
              "2023-11-14T22:13:20.000001Z  77  hash=" +
                  std::string(hash) +
                  " line=9 values=1 0x5\n"
                  "2023-11-14T22:13:20.000002Z  77  hash=00000007 line=9 values=200"
                  " 0x1 0x2 0x3 0x4 0x5 0x6 0x7 0x8 0x9\n");
}

TEST_F(TraceShowTest, RawNeedsNoCatalogue) {
    TestImage image(1);
    image.Add(0, 0, 0, 1);
    WriteBytes(m_Directory.File("image"), image.Bytes());
    TraceShowOptions options = Options();
    options.raw = true;
    const Output shown = Show(options);
    EXPECT_EQ(shown.code, 0);
    EXPECT_EQ(shown.error, "");
    EXPECT_NE(shown.out.find("hash=00000001 line=0 values=0\n"), std::string::npos);
}

TEST_F(TraceShowTest, WithoutAClockTicksCountFromTheFirstRecord) {
    TestImage image(2);
    image.SetAnchor(kHeaderLatest, 10);
    image.Add(0, 1000, 0, 1);
    image.Add(1, 1250, 0, 1);
    WriteBytes(m_Directory.File("image"), image.Bytes());
    TraceShowOptions options = Options();
    options.raw = true;
    const std::string out = Show(options).out;
    EXPECT_NE(out.find("\n+0  77  "), std::string::npos) << out;
    EXPECT_NE(out.find("\n+250  77  "), std::string::npos) << out;
}

TEST_F(TraceShowTest, HeaderCountsLostTornForeignAndCut) {
    TestImage image(4, "BIG");
    for (uint32_t i = 0; i < 6; ++i) image.Add(i, i, 0, i);
    image.SlotWordAt(0, kSlotHash) ^= 1;
    std::vector<std::byte> bytes = Swapped(image.Bytes());
    bytes.resize(bytes.size() - 1);
    WriteBytes(m_Directory.File("image"), bytes);
    TraceShowOptions options = Options();
    options.raw = true;
    EXPECT_TRUE(Show(options).out.starts_with(
        "# buffer BIG, process 4711 (other byte order): 2 records shown, 3 lost, 1 torn, image is cut\n"));
}

TEST_F(TraceShowTest, FilterShowsOneBuffer) {
    std::vector<std::byte> two(8192);
    const auto first = TestImage(1, "FIRST").Bytes();
    const auto second = TestImage(1, "SECOND").Bytes();
    std::copy(first.begin(), first.end(), two.begin());
    std::copy(second.begin(), second.end(), two.begin() + 4096);
    WriteBytes(m_Directory.File("image"), two);
    TraceShowOptions options = Options();
    options.raw = true;
    const std::string all = Show(options).out;
    EXPECT_LT(all.find("# buffer FIRST"), all.find("# buffer SECOND"));
    options.buffer = "SECOND";
    EXPECT_EQ(Show(options).out, "# buffer SECOND, process 4711: 0 records shown, 0 lost, 0 torn\n");
}

TEST_F(TraceShowTest, MissingSourceIsAnError) {
    const Output shown = Show(Options());
    EXPECT_EQ(shown.code, 1);
    EXPECT_EQ(shown.out, "");
    EXPECT_EQ(shown.error, "kova trace show: " + m_Directory.File("image") + ": No such file or directory\n");
}

TEST_F(TraceShowTest, DigitsAreAProcessUnlessThereIsSuchAFile) {
    TraceShowOptions options;
    options.raw = true;
    options.source = "2147483647";
    EXPECT_EQ(Show(options).error, "kova trace show: no such process: 2147483647\n");
    options.source = "99999999999";
    EXPECT_EQ(Show(options).error, "kova trace show: 99999999999: No such file or directory\n");

    WriteBytes(m_Directory.File("4711"), TestImage(1).Bytes());
    const auto before = std::filesystem::current_path();
    std::filesystem::current_path(m_Directory.Path());
    options.source = "4711";
    EXPECT_EQ(Show(options).code, 0);
    std::filesystem::current_path(before);
}

TEST_F(TraceShowTest, CatalogueThatWasAskedForMustBeThereAndWellFormed) {
    WriteBytes(m_Directory.File("image"), TestImage(1).Bytes());
    Output shown = Show(Options());
    EXPECT_EQ(shown.code, 1);
    EXPECT_EQ(shown.error, "kova trace show: catalogue " + m_Directory.File("catalogue") +
                               ": No such file or directory\n");
    for (const char* line : {"zz\t0\ta:1\tx\n", "00000001\t-1\ta:1\tx\n", "00000001\n", "no catalogue\n"}) {
        WriteText(m_Directory.File("catalogue"), std::string("# hash\n") + line);
        shown = Show(Options());
        EXPECT_EQ(shown.code, 1) << line;
        EXPECT_EQ(shown.error,
                  "kova trace show: catalogue " + m_Directory.File("catalogue") + ": line 2 is malformed\n");
    }
}

TEST_F(TraceShowTest, EnvironmentNamesTheCatalogue) {
    EXPECT_EQ(Text("n=%d", {1}), "a.cpp:20  n=1");  // makes image and catalogue
    TraceShowOptions options = Options();
    options.catalogue.clear();
    setenv("KOVA_TRACE_CATALOGUE", m_Directory.File("catalogue").c_str(), 1);
    EXPECT_NE(Show(options).out.find("a.cpp:20  n=1\n"), std::string::npos);
    setenv("KOVA_TRACE_CATALOGUE", m_Directory.File("missing").c_str(), 1);
    EXPECT_EQ(Show(options).code, 1);
    unsetenv("KOVA_TRACE_CATALOGUE");
}

/// Runs itself once more as a copy in TEMP/bin, which must find TEMP/share/kova/trace-catalogue.tsv.
TEST_F(TraceShowTest, DefaultCatalogueLiesBesideTheExecutable) {
    TraceShowOptions options;
    if (const char* source = getenv("TRACE_SHOW_TEST_SOURCE")) {
        options.source = source;
        ASSERT_EQ(TraceShow(options), 0);
        return;
    }
    EXPECT_EQ(Text("n=%d", {1}), "a.cpp:20  n=1");
    namespace fs = std::filesystem;
    fs::create_directory(m_Directory.File("bin"));
    fs::create_directories(m_Directory.File("share/kova"));
    const fs::path program = fs::read_symlink("/proc/self/exe");
    fs::copy_file(program, m_Directory.File("bin/copy"));
    // The copy does not lie where it would find its libraries by itself.
    const std::string copy = "LD_LIBRARY_PATH=" + (program.parent_path() / "../../lib").string() + " " +
                             m_Directory.File("bin/copy");
    const std::string run = "TRACE_SHOW_TEST_SOURCE=" + m_Directory.File("image") + " " + copy +
                            " --gtest_filter=*DefaultCatalogue* > " + m_Directory.File("output") + " 2> " +
                            m_Directory.File("errors");
    const auto text_of = [&](const char* name) {
        std::ifstream file(m_Directory.File(name));
        return std::string(std::istreambuf_iterator<char>(file), {});
    };
    if (system((copy + " --gtest_list_tests > /dev/null 2>&1").c_str()) != 0) {
        GTEST_SKIP() << "a copy of this program cannot be run here (an emulator stands before it)";
    }
    EXPECT_EQ(system(run.c_str()), 0);
    EXPECT_NE(text_of("errors").find("records are shown as numbers"), std::string::npos) << text_of("errors");
    EXPECT_NE(text_of("output").find("hash="), std::string::npos);

    fs::copy_file(m_Directory.File("catalogue"), m_Directory.File("share/kova/trace-catalogue.tsv"));
    EXPECT_EQ(system(run.c_str()), 0);
    EXPECT_EQ(text_of("errors"), "");
    EXPECT_NE(text_of("output").find("a.cpp:20  n=1\n"), std::string::npos);
}

TEST_F(TraceShowTest, FullOutputIsAnError) {
    TestImage image(1);
    image.Add(0, 0, 0, 1);
    WriteBytes(m_Directory.File("image"), image.Bytes());
    const ChildResult child = InChild([&] {
        TraceShowOptions options = Options();
        options.raw = true;
        ASSERT_NE(freopen("/dev/full", "w", stdout), nullptr);
        EXPECT_EQ(TraceShow(options), 1);
    });
    EXPECT_TRUE(Passed(child));
}

}  // namespace
}  // namespace trace_ovra
