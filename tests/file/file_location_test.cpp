#include "support/leak_check.h"
#include "support/trace_recorder.h"

#include <kova/file_location.h>

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdlib>
#include <limits>
#include <string>
#include <type_traits>
#include <vector>

namespace {

static_assert(std::is_same_v<int(const char*, char*, int*), decltype(zent_query_file_location)>);
static_assert(std::is_same_v<bool(const char*, char*, unsigned int), decltype(KovaQueryFileLocation)>);
static_assert(std::is_same_v<bool(const std::string&, bool), decltype(KovaIsEnabled)>);

/// What callers must provide: 4096 characters and a slash.
constexpr size_t kRoom = 4097;
constexpr int kNeither = 77;

struct Answer {
    std::string directory;
    int result;
    int is_default;

    bool operator==(const Answer& other) const = default;
};

void PrintTo(const Answer& answer, std::ostream* stream) {
    *stream << answer.directory << " result " << answer.result << " default " << answer.is_default;
}

Answer Located(const std::string& directory) { return {directory, 0, 0}; }
const Answer kDefault{"/tmp/", 1, 1};

Answer Query(const char* name) {
    std::vector<char> directory(kRoom, '#');
    int is_default = kNeither;
    const int result = zent_query_file_location(name, directory.data(), &is_default);
    return {directory.data(), result, is_default};
}

class FileLocation : public KovaTest {
  protected:
    ~FileLocation() override { EXPECT_EQ(0u, m_Recorder.All().size()) << "nothing here is traced"; }

    TraceRecorder m_Recorder;
};

TEST_F(FileLocation, QueriesAreExportedUnderPlainNames) {
    for (const char* name : {"zent_query_file_location", "KovaQueryFileLocation"}) {
        EXPECT_NE(nullptr, ::dlsym(RTLD_DEFAULT, name)) << name;
    }
    EXPECT_EQ(nullptr, ::dlsym(RTLD_DEFAULT, "KovaIsEnabled")) << "takes a C++ text";
}

// --- The table ---

TEST_F(FileLocation, KeyFilesLiveInOneDirectory) {
    EXPECT_EQ(Located("/tmp/kova/"), Query("m.kovamtx"));
    EXPECT_EQ(Located("/tmp/kova/"), Query("s.kovasem"));
    EXPECT_EQ(Located("/tmp/kova/"), Query("memory.kovashm"));
}

TEST_F(FileLocation, CachesHaveADirectoryOfTheirOwn) {
    EXPECT_EQ(Located("/tmp/kova/cache/"), Query("names.cache"));
}

TEST_F(FileLocation, OneArchiveAndOneExtensionLieInTheTopDirectory) {
    EXPECT_EQ(Located("/tmp/"), Query("Marbelo.jar"));
    EXPECT_EQ(Located("/tmp/"), Query("font.vqf"));
}

TEST_F(FileLocation, OtherNamesWithADotShareADirectory) {
    for (const char* name : {"q.kovamsg", "app.log", "a.b.c", "trailing.", "..", "."}) {
        EXPECT_EQ(Located("/tmp/voxa/hubl/"), Query(name)) << name;
    }
}

TEST_F(FileLocation, NamesWithoutADotGetTheDefault) {
    for (const char* name : {"README", "a/b", "*", "?", "kovamtx", " ", "/", "/etc/passwd"}) {
        EXPECT_EQ(kDefault, Query(name)) << name;
    }
}

TEST_F(FileLocation, EmptyNameMatchesTheLastRow) {
    EXPECT_EQ(Located("/tmp/"), Query(""));
    EXPECT_EQ(Located("/tmp/"), Query(nullptr)) << "a null name is an empty one";
}

TEST_F(FileLocation, FirstRowThatMatchesCounts) {
    EXPECT_EQ(Located("/tmp/kova/"), Query("names.cache.kovamtx"));
    EXPECT_EQ(Located("/tmp/kova/cache/"), Query("m.kovamtx.cache"));
    EXPECT_EQ(Located("/tmp/"), Query("names.cache.vqf"));
}

TEST_F(FileLocation, AStarStandsForSlashesLeadingDotsAndNothing) {
    EXPECT_EQ(Located("/tmp/kova/cache/"), Query("a/b.cache"));
    EXPECT_EQ(Located("/tmp/kova/cache/"), Query("/a/../b.cache"));
    EXPECT_EQ(Located("/tmp/voxa/hubl/"), Query("a.b/c")) << "the dot may stand in the directory";
    EXPECT_EQ(Located("/tmp/kova/"), Query(".hidden.kovamtx"));
    EXPECT_EQ(Located("/tmp/kova/"), Query(".kovamtx"));
    EXPECT_EQ(Located("/tmp/kova/"), Query("two\nlines.kovasem"));
    EXPECT_EQ(Located("/tmp/kova/"), Query("*.kovashm"));
}

TEST_F(FileLocation, PatternsMatchWholeNamesExactly) {
    for (const char* name : {"m.kovamtx2", "m.kovamtx ", "m.KOVAMTX", "mkovamtx.", "m.kovamt", "names.cached",
                             "marbelo.jar", "xMarbelo.jar", "a/Marbelo.jar", "Marbelo.jars", "font.vqf2"}) {
        EXPECT_EQ(Located("/tmp/voxa/hubl/"), Query(name)) << name;
    }
}

TEST_F(FileLocation, NamesMayHaveAnyLengthAndAnyBytes) {
    const std::string name(20000, 'n');
    EXPECT_EQ(kDefault, Query(name.c_str()));
    EXPECT_EQ(Located("/tmp/voxa/hubl/"), Query((name + '.' + name).c_str()));
    EXPECT_EQ(Located("/tmp/kova/"), Query((name + ".kovasem").c_str()));
    EXPECT_EQ(Located("/tmp/kova/cache/"), Query("\xC3\x28\xFF\x80.cache"));
    EXPECT_EQ(kDefault, Query("\xFF"));
}

// --- The two ways to ask ---

TEST_F(FileLocation, WithoutARoomForTheDirectoryOnlyTheResultIsGiven) {
    int is_default = kNeither;
    EXPECT_EQ(0, zent_query_file_location("m.kovamtx", nullptr, &is_default));
    EXPECT_EQ(0, is_default);
    is_default = kNeither;
    EXPECT_EQ(1, zent_query_file_location("README", nullptr, &is_default));
    EXPECT_EQ(1, is_default);
    char directory[kRoom];
    EXPECT_EQ(1, zent_query_file_location("README", directory, nullptr));
    EXPECT_STREQ("/tmp/", directory);
}

TEST_F(FileLocation, QueryIsAlwaysTrue) {
    char directory[kRoom];
    EXPECT_TRUE(KovaQueryFileLocation("m.kovamtx", directory, sizeof directory));
    EXPECT_STREQ("/tmp/kova/", directory);
    EXPECT_TRUE(KovaQueryFileLocation("a/b.cache", directory, sizeof directory));
    EXPECT_STREQ("/tmp/kova/cache/", directory);
    EXPECT_TRUE(KovaQueryFileLocation("README", directory, sizeof directory));
    EXPECT_STREQ("/tmp/", directory);
    EXPECT_TRUE(KovaQueryFileLocation("", directory, sizeof directory));
    EXPECT_STREQ("/tmp/", directory);
    EXPECT_TRUE(KovaQueryFileLocation(nullptr, directory, sizeof directory));
    EXPECT_STREQ("/tmp/", directory);
    EXPECT_TRUE(KovaQueryFileLocation("m.kovamtx", nullptr, 0));
}

TEST_F(FileLocation, QueryDoesNotLookAtTheSize) {
    for (const unsigned size : {0u, 1u, 3u, std::numeric_limits<unsigned>::max()}) {
        std::vector<char> directory(kRoom, '#');
        EXPECT_TRUE(KovaQueryFileLocation("q.kovamsg", directory.data(), size));
        EXPECT_STREQ("/tmp/voxa/hubl/", directory.data()) << size;
    }
}

TEST_F(FileLocation, NothingIsWrittenBehindTheRoom) {
    for (const char* name : {"m.kovamtx", "README", ""}) {
        std::string directory(kRoom + 100, '#');
        KovaQueryFileLocation(name, directory.data(), kRoom);
        EXPECT_EQ(std::string(100, '#'), directory.substr(kRoom)) << name;
    }
}

// --- Switches ---

class Switch : public FileLocation {
  protected:
    static constexpr const char* kName = "KOVA_TEST_SWITCH";

    ~Switch() override { ::unsetenv(kName); }

    static void Set(const char* value) { ASSERT_EQ(0, ::setenv(kName, value, 1)); }
};

TEST_F(Switch, IsOnForTrueAndOne) {
    for (const char* value : {"true", "1"}) {
        Set(value);
        EXPECT_TRUE(KovaIsEnabled(kName, false)) << value;
        EXPECT_TRUE(KovaIsEnabled(kName, true)) << value;
    }
}

TEST_F(Switch, IsOffForFalseAndZero) {
    for (const char* value : {"false", "0"}) {
        Set(value);
        EXPECT_FALSE(KovaIsEnabled(kName, false)) << value;
        EXPECT_FALSE(KovaIsEnabled(kName, true)) << value;
    }
}

TEST_F(Switch, HasItsDefaultForAnyOtherValue) {
    for (const char* value :
         {"",   "TRUE", "True", "FALSE", "False", "yes", "no",  "on",       "off",  " true", "true ", "1 ",
          " 1", "01",   "10",   "11",    "00",    "+1",  "tru", "truetrue", "fals", "-",     "2"}) {
        Set(value);
        EXPECT_FALSE(KovaIsEnabled(kName, false)) << value;
        EXPECT_TRUE(KovaIsEnabled(kName, true)) << value;
    }
}

TEST_F(Switch, HasItsDefaultWhenItIsNotSet) {
    EXPECT_FALSE(KovaIsEnabled(kName, false));
    EXPECT_TRUE(KovaIsEnabled(kName, true));
    EXPECT_FALSE(KovaIsEnabled("", false));
    EXPECT_TRUE(KovaIsEnabled("", true));
}

TEST_F(Switch, IsReadAtEveryCall) {
    EXPECT_FALSE(KovaIsEnabled(kName, false));
    Set("1");
    EXPECT_TRUE(KovaIsEnabled(kName, false));
    Set("0");
    EXPECT_FALSE(KovaIsEnabled(kName, true));
    ::unsetenv(kName);
    EXPECT_TRUE(KovaIsEnabled(kName, true));
}

TEST_F(Switch, IsNamedExactly) {
    Set("1");
    EXPECT_FALSE(KovaIsEnabled("kova_test_switch", false));
    EXPECT_FALSE(KovaIsEnabled(std::string(kName) + "_", false));
    EXPECT_FALSE(KovaIsEnabled(std::string(kName) + "=1", false));
}

}  // namespace
