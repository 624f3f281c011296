#include "support/fake_libc.h"
#include "support/leak_check.h"
#include "support/trace_recorder.h"

#include <kova/base_object.h>
#include <kova/filename.h>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <limits>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

namespace fs = std::filesystem;

constexpr const char* kMkdirFailed = "mkdir directory=%s errno=%d";
constexpr const char* kFopenFailed = "fopen path=%s errno=%d";
constexpr const char* kFcloseFailed = "fclose path=%s errno=%d";
constexpr const char* kCreatePath = "bool KovaFilename::CreatePath()";
constexpr const char* kCreateFile = "bool KovaFilename::CreateFile()";

constexpr unsigned kMax = std::numeric_limits<unsigned>::max();
constexpr size_t kLongestPath = 4095;

using Texts = std::vector<std::string>;

template <typename Derived, typename Base>
concept HasPlainBase = requires(Base* base) {
    static_cast<Derived*>(base);
};

static_assert(HasPlainBase<KovaFilename, KovaBaseObject>, "not a virtual base");
static_assert(std::has_virtual_destructor_v<KovaFilename>);
static_assert(std::is_copy_constructible_v<KovaFilename> && std::is_copy_assignable_v<KovaFilename>);
static_assert(std::is_convertible_v<const char*, KovaFilename>);
static_assert(std::is_convertible_v<std::string, KovaFilename>);
static_assert(std::is_convertible_v<const KovaFilename&, const char*>);
static_assert(std::is_convertible_v<const KovaFilename&, const std::string&>);

/// A path as it is written here. Other paths without "/" are placed in a directory before anyone sees them.
class Bare : public KovaFilename {
  public:
    explicit Bare(const char* path) { AppendToName(path); }
};

/// A variable of the environment.
class Variable {
  public:
    Variable(const std::string& name, const std::string& value) : m_Name(name) {
        EXPECT_EQ(0, ::setenv(name.c_str(), value.c_str(), 1));
    }
    Variable(const Variable&) = delete;
    Variable& operator=(const Variable&) = delete;
    ~Variable() { ::unsetenv(m_Name.c_str()); }

  private:
    const std::string m_Name;
};

/// The process's umask over a scope; it must be the same at the end.
class Umask {
  public:
    explicit Umask(mode_t mask) : m_Mask(mask), m_Saved(::umask(mask)) {}
    Umask(const Umask&) = delete;
    Umask& operator=(const Umask&) = delete;
    ~Umask() { EXPECT_EQ(m_Mask, ::umask(m_Saved)) << "the umask was not restored"; }

  private:
    const mode_t m_Mask;
    const mode_t m_Saved;
};

mode_t ModeOf(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(0, ::stat(path.c_str(), &status)) << path;
    return status.st_mode & 07777;
}

std::string Letters(size_t count, char letter) { return std::string(count, letter); }

std::string Repeated(size_t count, const std::string& text) {
    std::string all;
    while (count-- > 0) all += text;
    return all;
}

/// A directory for each test, which is also the working directory. Its name has neither dots nor marks.
class Filename : public KovaTest {
  protected:
    Filename() : m_Before(fs::current_path()) {
        char name[] = "/tmp/filename_test_XXXXXX";
        EXPECT_NE(nullptr, ::mkdtemp(name));
        m_Dir = std::string(name) + "/";
        fs::current_path(m_Dir);
    }
    ~Filename() override {
        fs::current_path(m_Before);
        fs::remove_all(m_Dir);
    }

    std::string Write(const std::string& name, const std::string& content = "") const {
        const std::string path = m_Dir + name;
        EXPECT_TRUE(std::ofstream(path) << content) << path;
        return path;
    }
    std::string MakeDirectory(const std::string& name) const {
        EXPECT_TRUE(fs::create_directories(m_Dir + name)) << name;
        return m_Dir + name;
    }
    std::string Link(const std::string& target, const std::string& name) const {
        fs::create_symlink(target, m_Dir + name);
        return m_Dir + name;
    }

    /// The one failure since the last look: in the object's record, and in one trace record.
    void ExpectFailure(const KovaFilename& object, const char* function, int code, const char* trace) {
        EXPECT_EQ(code, object.GetError());
        EXPECT_STREQ(function, object.GetErrorFunction());
        const std::vector<TraceRecord> records = m_Recorder.All();
        ASSERT_EQ(1u, records.size()) << testing::PrintToString(records);
        EXPECT_TRUE(records[0].Is(trace)) << testing::PrintToString(records);
        EXPECT_EQ(static_cast<uint32_t>(code), records[0].values.at(1));
        EXPECT_NE(0, object.GetErrorLine());
        EXPECT_EQ(static_cast<uint32_t>(object.GetErrorLine()), records[0].line);
        m_Recorder.Clear();
    }
    void ExpectNoFailure(const KovaFilename& object) {
        EXPECT_EQ(KovaBaseObject::KOVA_ERR_NONE, object.GetError());
        EXPECT_EQ(nullptr, object.GetErrorFunction());
        EXPECT_EQ(0, object.GetErrorLine());
        EXPECT_EQ(0u, m_Recorder.All().size());
    }

    std::string m_Dir;  ///< ends in "/"
    TraceRecorder m_Recorder;

  private:
    const fs::path m_Before;
};

// --- Construction ---

TEST_F(Filename, StartsEmptyAndUnresolved) {
    const KovaFilename file;
    EXPECT_EQ("", file.PathFileName());
    ExpectNoFailure(file);
}

TEST_F(Filename, TextIsPlacedInTheDirectoryOfItsKind) {
    for (const auto& [text, path] :
         {std::pair("m.kovamtx", "/tmp/kova/m.kovamtx"), std::pair("s.kovasem", "/tmp/kova/s.kovasem"),
          std::pair("q.kovamsg", "/tmp/voxa/hubl/q.kovamsg"), std::pair("a.cache", "/tmp/kova/cache/a.cache"),
          std::pair("README", "/tmp/README"), std::pair("a/b", "/tmp/a/b"),
          std::pair("a/b.vqf", "/tmp/a/b.vqf")}) {
        EXPECT_EQ(path, KovaFilename(text).PathFileName());
        EXPECT_EQ(path, KovaFilename(std::string(text)).PathFileName());
    }
}

TEST_F(Filename, TextThatBeginsWithASlashOrADotStays) {
    for (const char* text :
         {"/", "/a", "/a/b.kovamtx", "//a", ".", "..", "./a.cache", "../a", ".a", ".cache"}) {
        EXPECT_EQ(text, KovaFilename(text).PathFileName());
        EXPECT_EQ(text, KovaFilename(std::string(text)).PathFileName());
    }
}

TEST_F(Filename, EmptyAndNullTextIsADirectoryAlone) {
    EXPECT_EQ("/tmp/", KovaFilename("").PathFileName());
    EXPECT_EQ("/tmp/", KovaFilename(std::string()).PathFileName());
    EXPECT_EQ("/tmp/", KovaFilename(static_cast<const char*>(nullptr)).PathFileName());
}

TEST_F(Filename, LongTextIsKeptWhole) {
    const std::string name = Letters(10000, 'n');
    EXPECT_EQ("/" + name, KovaFilename("/" + name).PathFileName());
    EXPECT_EQ("/tmp/" + name, KovaFilename(name).PathFileName());
}

TEST_F(Filename, DirectoryNameAndExtensionAreJoined) {
    EXPECT_EQ("/var/log/trace.txt", KovaFilename("/var/log", "trace", "txt").PathFileName());
    EXPECT_EQ("/var/log/trace.txt", KovaFilename("/var/log/", "trace", "txt").PathFileName());
    EXPECT_EQ("/var/log/trace.txt", KovaFilename("/var/log", "trace", ".txt").PathFileName());
    EXPECT_EQ("/var/log//trace.txt", KovaFilename("/var/log//", "trace", ".txt").PathFileName());
    EXPECT_EQ("/trace..txt", KovaFilename("/", "trace.", "txt").PathFileName());
    EXPECT_EQ("/d/trace..txt", KovaFilename("/d", "trace", "..txt").PathFileName());
    EXPECT_EQ("/d//trace.txt", KovaFilename("/d", "/trace", "txt").PathFileName());
}

TEST_F(Filename, SecondNameFollowsTheFirstDirectly) {
    EXPECT_EQ("/d/trace_main.txt", KovaFilename("/d", "trace", "_main", "txt").PathFileName());
    EXPECT_EQ("/d/ab.txt", KovaFilename("/d/", "a", "b", ".txt").PathFileName());
    EXPECT_EQ("/d/b.txt", KovaFilename("/d/", nullptr, "b", "txt").PathFileName());
    EXPECT_EQ("/d/a.txt", KovaFilename("/d/", "a", nullptr, "txt").PathFileName());
    EXPECT_EQ("/d/ab", KovaFilename("/d/", "a", "b", nullptr).PathFileName());
    EXPECT_EQ("/tmp/kova/ab.kovamtx", KovaFilename(nullptr, "a", "b", "kovamtx").PathFileName());
    EXPECT_EQ("/tmp/", KovaFilename(nullptr, nullptr, nullptr, nullptr).PathFileName());
}

TEST_F(Filename, NullPartsAreLeftOut) {
    EXPECT_EQ("/d/a", KovaFilename("/d", "a", nullptr).PathFileName());
    EXPECT_EQ("/d/.txt", KovaFilename("/d", nullptr, "txt").PathFileName());
    EXPECT_EQ("/d/", KovaFilename("/d", nullptr, nullptr).PathFileName());
    EXPECT_EQ("/tmp/kova/m.kovamtx", KovaFilename(nullptr, "m", "kovamtx").PathFileName());
    EXPECT_EQ("/tmp/", KovaFilename(nullptr, nullptr, nullptr).PathFileName());
    EXPECT_EQ(".txt", KovaFilename(nullptr, nullptr, "txt").PathFileName());
}

TEST_F(Filename, EmptyPartsAreThere) {
    EXPECT_EQ("/tmp/voxa/hubl/a.txt", KovaFilename("", "a", "txt").PathFileName()) << "no slash of its own";
    EXPECT_EQ("/d/.txt", KovaFilename("/d", "", "txt").PathFileName());
    EXPECT_EQ("/d/a.", KovaFilename("/d", "a", "").PathFileName()) << "the dot of an empty extension";
    EXPECT_EQ("/d/a.", KovaFilename("/d", "a", ".").PathFileName());
    EXPECT_EQ(".", KovaFilename("", "", "", "").PathFileName());
}

TEST_F(Filename, JoinedPartsArePlacedAndExpanded) {
    const Variable directory("KOVA_TEST", "/data/");
    EXPECT_EQ("/tmp/voxa/hubl/logs/a.txt", KovaFilename("logs", "a", "txt").PathFileName());
    EXPECT_EQ("./logs/a.txt", KovaFilename("./logs", "a", "txt").PathFileName());
    EXPECT_EQ("/data//a.txt", KovaFilename("$KOVA_TEST", "a", "txt").PathFileName())
        << "the slash is decided before the expansion";
    EXPECT_EQ("/d//data/.txt", KovaFilename("/d", "$KOVA_TEST", "txt").PathFileName());
}

// --- Copying ---

TEST_F(Filename, CopyHasPathAndErrorRecord) {
    KovaFilename file((Write("file") + "/a/b").c_str());
    ASSERT_FALSE(file.CreatePath());
    const KovaFilename copy(file);
    EXPECT_EQ(file.PathFileName(), copy.PathFileName());
    ExpectFailure(copy, kCreatePath, ENOTDIR, kMkdirFailed);
    EXPECT_EQ(file.GetErrorLine(), copy.GetErrorLine());
}

TEST_F(Filename, CopyIsResolvedAgain) {
    const KovaFilename empty;
    EXPECT_EQ("/tmp/", KovaFilename(empty).PathFileName()) << "only a new path is empty";
    const Bare bare("m.kovamtx");
    EXPECT_EQ("m.kovamtx", bare.PathFileName());
    EXPECT_EQ("/tmp/kova/m.kovamtx", KovaFilename(bare).PathFileName());
    const KovaFilename variable("/$KOVA_TEST/a");
    EXPECT_EQ("/$KOVA_TEST/a", variable.PathFileName());
    const Variable set("KOVA_TEST", "value");
    EXPECT_EQ("/value/a", KovaFilename(variable).PathFileName());
    EXPECT_EQ("/$KOVA_TEST/a", variable.PathFileName());
}

TEST_F(Filename, AssignmentReplacesAndResolves) {
    const Variable set("KOVA_TEST", "/value");
    KovaFilename file("/old");
    EXPECT_EQ(&file, &(file = "m.kovamtx"));
    EXPECT_EQ("/tmp/kova/m.kovamtx", file.PathFileName());
    file = "$KOVA_TEST/a";
    EXPECT_EQ("/value/a", file.PathFileName());
    file = std::string("README");
    EXPECT_EQ("/tmp/README", file.PathFileName());
    EXPECT_EQ(&file, &(file = KovaFilename("/d/new")));
    EXPECT_EQ("/d/new", file.PathFileName());
    file = Bare("b.cache");
    EXPECT_EQ("/tmp/kova/cache/b.cache", file.PathFileName());
    file = KovaFilename();
    EXPECT_EQ("/tmp/", file.PathFileName());
    file = "/d/new";
    file = nullptr;
    EXPECT_EQ("/tmp/", file.PathFileName());
    file = "";
    EXPECT_EQ("/tmp/", file.PathFileName());
}

TEST_F(Filename, AssignmentLeavesTheErrorRecord) {
    KovaFilename failed((Write("file") + "/a/b").c_str());
    ASSERT_FALSE(failed.CreatePath());
    m_Recorder.Clear();
    const int line = failed.GetErrorLine();
    KovaFilename file;
    file = failed;
    EXPECT_EQ(failed.PathFileName(), file.PathFileName());
    ExpectNoFailure(file);
    failed = KovaFilename("/d/a");
    failed = "/d/b";
    EXPECT_EQ(ENOTDIR, failed.GetError());
    EXPECT_STREQ(kCreatePath, failed.GetErrorFunction());
    EXPECT_EQ(line, failed.GetErrorLine());
}

TEST_F(Filename, MayBeAssignedItself) {
    KovaFilename file("/some/directory/with/a/longer/name.txt");
    KovaFilename& same = file;
    EXPECT_EQ(&file, &(file = same));
    EXPECT_EQ("/some/directory/with/a/longer/name.txt", file.PathFileName());
    file = file.PathFileName().c_str();
    EXPECT_EQ("/some/directory/with/a/longer/name.txt", file.PathFileName());
    file = file.PathFileName().c_str() + 5;
    EXPECT_EQ("/directory/with/a/longer/name.txt", file.PathFileName());
    file = file.PathFileName().c_str() + 1;
    EXPECT_EQ("/tmp/voxa/hubl/directory/with/a/longer/name.txt", file.PathFileName());
    Bare bare("README");
    bare.KovaFilename::operator=(static_cast<const KovaFilename&>(bare));
    EXPECT_EQ("/tmp/README", bare.PathFileName());
}

// --- Access ---

TEST_F(Filename, ReadsAsText) {
    const KovaFilename file("/d/a.txt");
    const std::string& text = file;
    const char* const characters = file;
    EXPECT_EQ(&file.PathFileName(), &text);
    EXPECT_EQ(file.PathFileName().c_str(), characters);
    EXPECT_STREQ("/d/a.txt", characters);
}

TEST_F(Filename, DirectoryIsWhatStandsBeforeTheLastSlash) {
    for (const auto& [path, directory] :
         {std::pair("/d/a.txt", "/d"), std::pair("/d/e/a", "/d/e"), std::pair("/d/e/", "/d/e"),
          std::pair("/d//a", "/d/"), std::pair("/a", ""), std::pair("/", ""), std::pair("./a", "."),
          std::pair("../d/a", "../d")}) {
        EXPECT_EQ(directory, KovaFilename(path).GetPath()) << path;
    }
}

TEST_F(Filename, PureNameIsWhatStandsBehindTheLastSlash) {
    for (const auto& [path, name] :
         {std::pair("/d/a.txt", "a.txt"), std::pair("/d/e/a", "a"), std::pair("/d/e/", ""),
          std::pair("/d//a", "a"), std::pair("/a", "a"), std::pair("/", ""), std::pair("./a", "a"),
          std::pair("/d.e/.a.b", ".a.b")}) {
        EXPECT_EQ(name, KovaFilename(path).GetPureFileName()) << path;
    }
}

TEST_F(Filename, BareNameIsItsOwnDirectoryAndLacksItsFirstCharacter) {
    for (const auto& [path, name] : {std::pair("abc", "bc"), std::pair("a.txt", ".txt"), std::pair("a", ""),
                                     std::pair(".abc", "abc"), std::pair(".", ""), std::pair("..", ".")}) {
        EXPECT_EQ(path, Bare(path).GetPath());
        EXPECT_EQ(name, Bare(path).GetPureFileName()) << path;
    }
    EXPECT_EQ(".abc", KovaFilename(".abc").GetPath());
    EXPECT_EQ("abc", KovaFilename(".abc").GetPureFileName());
}

TEST_F(Filename, ExistsWhenSomethingIsThere) {
    Write("file", "content");
    MakeDirectory("directory");
    Link(m_Dir + "file", "link");
    Link(m_Dir + "nothing", "dangling");
    for (const char* name : {"", "file", "directory", "directory/", "link"}) {
        EXPECT_TRUE(KovaFilename(m_Dir + name).Exist()) << name;
    }
    for (const char* name : {"nothing", "dangling", "file/", "nothing/file"}) {
        EXPECT_FALSE(KovaFilename(m_Dir + name).Exist()) << name;
    }
    EXPECT_TRUE(Bare("file").Exist()) << "in the working directory";
    EXPECT_FALSE(Bare("nothing").Exist());
}

TEST_F(Filename, ExistenceIsAskedForOnceAndWithoutRights) {
    const KovaFilename file("/d/a");
    const fake::Journal journal({&fake::access, &fake::file_status}, fake::kThisThread);
    fake::Script access(fake::access, {fake::Return(0), fake::Fail(EACCES)});
    EXPECT_TRUE(file.Exist());
    EXPECT_FALSE(file.Exist());
    EXPECT_EQ((Texts{"access /d/a F_OK", "access /d/a F_OK"}), journal.Texts());
    ExpectNoFailure(file);
}

// --- Expansion ---

TEST_F(Filename, VariablesAreReplacedByTheirValues) {
    const Variable home("KOVA_TEST", "/root");
    const Variable name("KOVA_TEST_2", "x");
    EXPECT_EQ("/root/x", KovaFilename("$KOVA_TEST/x").PathFileName());
    EXPECT_EQ("/d/root", KovaFilename("/d$KOVA_TEST").PathFileName());
    EXPECT_EQ("/a/x.x-x", KovaFilename("/a/$KOVA_TEST_2.$KOVA_TEST_2-$KOVA_TEST_2").PathFileName());
    EXPECT_EQ("/x/root", KovaFilename("/$KOVA_TEST_2$KOVA_TEST").PathFileName());
    EXPECT_EQ("/tmp/x", KovaFilename("$KOVA_TEST_2").PathFileName()) << "placed after the expansion";
    EXPECT_EQ("/tmp/kova/x.kovasem", KovaFilename("$KOVA_TEST_2.kovasem").PathFileName());
}

TEST_F(Filename, WhatIsNotSetStays) {
    const Variable set("KOVA_TEST", "v");
    for (const char* path : {"/$KOVA_UNSET/x", "/${KOVA_TEST}", "/$(KOVA_TEST)", "/$", "/$$", "/$/$.",
                             "/$-KOVA_TEST", "/KOVA_TEST", "/$kova_test", "/$KOVA_TEST_", "/$KOVA_TES"}) {
        EXPECT_EQ(path, KovaFilename(path).PathFileName());
    }
    EXPECT_EQ("/$v", KovaFilename("/$$KOVA_TEST").PathFileName());
    EXPECT_EQ("/$KOVA_UNSETv", KovaFilename("/$KOVA_UNSET$KOVA_TEST").PathFileName());
    EXPECT_EQ("/${KOVA_TEST}v", KovaFilename("/${KOVA_TEST}$KOVA_TEST").PathFileName());
    EXPECT_EQ("/tmp/$KOVA_UNSET", KovaFilename("$KOVA_UNSET").PathFileName());
}

TEST_F(Filename, EmptyValueLeavesNothing) {
    const Variable empty("KOVA_TEST", "");
    EXPECT_EQ("//x", KovaFilename("/$KOVA_TEST/x").PathFileName());
    EXPECT_EQ("/", KovaFilename("/$KOVA_TEST").PathFileName());
    EXPECT_EQ("/x", KovaFilename("$KOVA_TEST$KOVA_TEST$KOVA_TEST/x").PathFileName());
    EXPECT_EQ("/tmp/", KovaFilename("$KOVA_TEST").PathFileName());
}

TEST_F(Filename, VariableNameIsMadeOfLettersDigitsAndUnderscores) {
    const Variable set("kV_9", "v");
    for (int code = 1; code < 256; ++code) {
        const char c = static_cast<char>(code);
        const bool belongs = (code >= 'a' && code <= 'z') || (code >= 'A' && code <= 'Z') ||
                             (code >= '0' && code <= '9') || code == '_';
        const std::string tail = std::string(1, c) + "x";
        EXPECT_EQ((belongs ? "/$kV_9" : "/v") + tail, KovaFilename("/$kV_9" + tail).PathFileName()) << code;
    }
    const Variable digits("12", "number");
    const Variable underscore("_", "line");
    EXPECT_EQ("/number/line", KovaFilename("/$12/$_").PathFileName());
}

TEST_F(Filename, ValuesAreExpandedInTurn) {
    const Variable outer("KOVA_OUTER", "$KOVA_INNER/$KOVA_UNSET/$KOVA_INNER");
    const Variable inner("KOVA_INNER", "in");
    const Variable dollar("KOVA_DOLLAR", "$");
    EXPECT_EQ("/in/$KOVA_UNSET/in-in", KovaFilename("/$KOVA_OUTER-$KOVA_INNER").PathFileName());
    EXPECT_EQ("/a$-in", KovaFilename("/a$KOVA_DOLLAR-$KOVA_INNER").PathFileName());
    EXPECT_EQ("/$in", KovaFilename("/$KOVA_DOLLAR$KOVA_INNER").PathFileName());
}

TEST_F(Filename, ValueIsLookedAtFromItsFirstCharacter) {
    const Variable first("KOVA_FIRST", "$KOVA_SECOND");
    const Variable second("KOVA_SECOND", "$KOVA_THIRD");
    const Variable third("KOVA_THIRD", "");
    EXPECT_EQ("/a/x", KovaFilename("/a$KOVA_FIRST$KOVA_FIRST$KOVA_SECOND$KOVA_THIRD/x").PathFileName());
}

TEST_F(Filename, VariableThatNamesItselfIsReplaced256Times) {
    const Variable plain("KOVA_SELF", "$KOVA_SELF");
    EXPECT_EQ("/$KOVA_SELF", KovaFilename("/$KOVA_SELF").PathFileName());
    const Variable growing("KOVA_GROW", "a$KOVA_GROW");
    EXPECT_EQ("/" + Letters(256, 'a') + "$KOVA_GROW/x", KovaFilename("/$KOVA_GROW/x").PathFileName());
    const Variable doubling("KOVA_TWO", "$KOVA_TWO$KOVA_TWO");
    EXPECT_EQ("/" + Repeated(257, "$KOVA_TWO"), KovaFilename("/$KOVA_TWO").PathFileName());
}

TEST_F(Filename, VariablesThatNameEachOtherAreReplaced256Times) {
    const Variable a("KOVA_A", "$KOVA_B");
    const Variable b("KOVA_B", "$KOVA_C");
    const Variable c("KOVA_C", "$KOVA_A");
    EXPECT_EQ("/$KOVA_B", KovaFilename("/$KOVA_A").PathFileName()) << "256 = 3 * 85 + 1";
}

TEST_F(Filename, ExpansionEndsAfter256Replacements) {
    const Variable e("KOVA_E", "e");
    EXPECT_EQ("/" + Letters(256, 'e'), KovaFilename("/" + Repeated(256, "$KOVA_E")).PathFileName());
    KovaFilename file("/" + Repeated(256, "$KOVA_E") + "$KOVA_UNSET" + Repeated(44, "$KOVA_E"));
    EXPECT_EQ("/" + Letters(256, 'e') + "$KOVA_UNSET" + Repeated(44, "$KOVA_E"), file.PathFileName());
    EXPECT_EQ("/" + Letters(256, 'e') + "$KOVA_UNSET" + Letters(44, 'e'), file.ReplaceEnv())
        << "the next expansion counts anew";
}

TEST_F(Filename, WhatIsNotSetDoesNotCountAsAReplacement) {
    const Variable e("KOVA_E", "e");
    EXPECT_EQ("/" + Repeated(300, "$-") + Letters(256, 'e'),
              KovaFilename("/" + Repeated(300, "$-") + Repeated(256, "$KOVA_E")).PathFileName());
}

TEST_F(Filename, PlacingExpandsBeforeAndAfter) {
    const Variable e("KOVA_E", "e");
    EXPECT_EQ("/tmp/" + Letters(512, 'e') + "$KOVA_E", KovaFilename(Repeated(513, "$KOVA_E")).PathFileName());
}

TEST_F(Filename, ExpansionFillsAPathUpTo4095Characters) {
    const Variable value("KOVA_V", Letters(100, 'v'));
    const std::string fits = "/" + Letters(kLongestPath - 101, 'p');
    EXPECT_EQ(fits + Letters(100, 'v'), KovaFilename(fits + "$KOVA_V").PathFileName());
    EXPECT_EQ(fits + "p$KOVA_V", KovaFilename(fits + "p$KOVA_V").PathFileName());
}

TEST_F(Filename, ExpansionEndsAtTheFirstValueThatDoesNotFit) {
    const Variable value("KOVA_V", Letters(100, 'v'));
    const Variable empty("KOVA_E", "");
    const std::string full = "/" + Letters(kLongestPath - 30, 'p');
    EXPECT_EQ(full + "$KOVA_V$KOVA_E", KovaFilename(full + "$KOVA_E$KOVA_V$KOVA_E").PathFileName());
}

TEST_F(Filename, VariableThatGrowsItselfEndsBelow4096Characters) {
    const Variable growing("KOVA_SELF", "$KOVA_SELF" + Letters(100, '-'));
    // "/$KOVA_SELF" has 11 characters, to which each replacement adds 100.
    EXPECT_EQ("/$KOVA_SELF" + Letters(4000, '-'), KovaFilename("/$KOVA_SELF").PathFileName());
}

TEST_F(Filename, LongerPathIsExpandedWhenThatShortensItEnough) {
    const Variable empty("KOVA_E", "");
    const std::string full = "/" + Letters(kLongestPath - 1, 'p');
    EXPECT_EQ(full, KovaFilename(full + "$KOVA_E").PathFileName());
    EXPECT_EQ(full + "p$KOVA_E", KovaFilename(full + "p$KOVA_E").PathFileName());
}

TEST_F(Filename, ExpansionFollowsTheEnvironmentOfTheMoment) {
    KovaFilename file("/$KOVA_TEST/a");
    const Variable set("KOVA_TEST", "v");
    EXPECT_EQ("/$KOVA_TEST/a", file.PathFileName());
    EXPECT_EQ("/v/a", file.ReplaceEnv());
}

// --- Placing ---

TEST_F(Filename, FullPathPlacesABareNameOnce) {
    Bare file("m.kovamtx");
    EXPECT_EQ("/tmp/kova/m.kovamtx", file.FullPath());
    EXPECT_EQ("/tmp/kova/m.kovamtx", file.FullPath());
    Bare readme("README");
    EXPECT_EQ("/tmp/README", readme.FullPath());
    Bare dotted(".README");
    EXPECT_EQ(".README", dotted.FullPath());
}

TEST_F(Filename, FullPathLooksAtTheExpandedName) {
    Bare file("$KOVA_TEST");
    const Variable set("KOVA_TEST", "m.kovamtx");
    EXPECT_EQ("/tmp/kova/m.kovamtx", file.FullPath());
    Bare dotted("$KOVA_DOT/x");
    const Variable dot("KOVA_DOT", ".");
    EXPECT_EQ("./x", dotted.FullPath());
}

// --- Changing the name ---

using Change = const std::string& (KovaFilename::*)(const char*);

/// What an operation makes of a path.
struct Changed {
    const char* path;
    const char* argument;
    const char* result;
};

void ExpectChanges(Change change, const std::vector<Changed>& wanted) {
    for (const Changed& w : wanted) {
        Bare file(w.path);
        const std::string& result = (file.*change)(w.argument);
        EXPECT_EQ(w.result, result) << w.path << " with " << (w.argument != nullptr ? w.argument : "(null)");
        EXPECT_EQ(&file.PathFileName(), &result);
    }
}

TEST_F(Filename, ExtensionIsAllBehindTheFirstDotOfTheName) {
    ExpectChanges(&KovaFilename::ReplaceExtension, {{"/d/a.txt", "log", "/d/a.log"},
                                                    {"d/a.txt", "log", "d/a.log"},
                                                    {"/d/a.tar.gz", "log", "/d/a.log"},
                                                    {"/d/a", "log", "/d/a.log"},
                                                    {"/d.e/a", "log", "/d.e/a.log"},
                                                    {"/d.e/a.b", "log", "/d.e/a.log"},
                                                    {"/d/.a", "log", "/d/.log"},
                                                    {"/d/a.", "log", "/d/a.log"},
                                                    {"/d/", "log", "/d/.log"},
                                                    {"/", "log", "/.log"},
                                                    {"/a.b", "log", "/a.log"},
                                                    {"/d/a.txt", "tar.gz", "/d/a.tar.gz"}});
}

TEST_F(Filename, NewExtensionIsTakenAsItIs) {
    ExpectChanges(&KovaFilename::ReplaceExtension, {{"/d/a.txt", ".log", "/d/a..log"},
                                                    {"/d/a", ".log", "/d/a..log"},
                                                    {"/d/a.txt", "", "/d/a."},
                                                    {"/d/a", "", "/d/a."},
                                                    {"/d/a.txt", nullptr, "/d/a."}});
}

TEST_F(Filename, BareNameGetsASecondExtension) {
    ExpectChanges(&KovaFilename::ReplaceExtension, {{"a.txt", "log", "a.txt.log"},
                                                    {"a", "log", "a.log"},
                                                    {".a", "log", ".a.log"},
                                                    {"a.", "log", "a..log"},
                                                    {"a.txt", nullptr, "a.txt."}});
    EXPECT_EQ(".a.log", KovaFilename(".a").ReplaceExtension("log"));
}

TEST_F(Filename, NameIsReplacedUpToTheLastDot) {
    ExpectChanges(&KovaFilename::ReplaceName, {{"/d/a.txt", "x", "/d/x.txt"},
                                               {"/d/a.tar.gz", "x", "/d/x.gz"},
                                               {"/d/a", "x", "/d/x"},
                                               {"/d.e/a", "x", "/d.e/x"},
                                               {"/d.e/a.b", "x", "/d.e/x.b"},
                                               {"/d/.a", "x", "/d/x.a"},
                                               {"/d/a.", "x", "/d/x."},
                                               {"/d/", "x", "/d/x"},
                                               {"/d.e/", "x", "/d.e/x"},
                                               {"/", "x", "/x"},
                                               {"/a.b", "x", "/x.b"},
                                               {"/d/a.txt", "x.y", "/d/x.y.txt"},
                                               {"/d/a.txt", "", "/d/.txt"},
                                               {"/d/a.txt", nullptr, "/d/.txt"},
                                               {"/d/a", nullptr, "/d/"}});
}

TEST_F(Filename, BareNameKeepsItsFirstCharacterWhenReplaced) {
    ExpectChanges(&KovaFilename::ReplaceName, {{"abc.txt", "x", "ax.txt"},
                                               {"a.txt", "x", "ax.txt"},
                                               {"abc", "x", "ax"},
                                               {"a", "x", "ax"},
                                               {"a.b.c", "x", "ax.c"},
                                               {"abc.txt", nullptr, "a.txt"}});
}

TEST_F(Filename, BareNameThatBeginsWithItsLastDotGetsTheNameBehindIt) {
    ExpectChanges(&KovaFilename::ReplaceName,
                  {{".abc", "x", ".xabc"}, {".", "x", ".x"}, {"..", "x", ".x."}, {".a.b", "x", ".x.b"}});
    EXPECT_EQ(".xabc", KovaFilename(".abc").ReplaceName("x"));
}

TEST_F(Filename, TextIsInsertedBeforeTheFirstDotOfTheName) {
    ExpectChanges(&KovaFilename::AppendToName, {{"/d/abc.txt", "X", "/d/abcX.txt"},
                                                {"/d/a.tar.gz", "X", "/d/aX.tar.gz"},
                                                {"/d.e/a.b", "X", "/d.e/aX.b"},
                                                {"/d/.a", "X", "/d/X.a"},
                                                {"/d/a.", "X", "/d/aX."},
                                                {"a.txt", "X", "aX.txt"},
                                                {".a", "X", "X.a"},
                                                {"/d/a.txt", "", "/d/a.txt"},
                                                {"/d/a.txt", nullptr, "/d/a.txt"}});
}

TEST_F(Filename, TextIsInsertedBeforeTheLastCharacterOfANameWithoutDot) {
    ExpectChanges(&KovaFilename::AppendToName, {{"/d/abc", "X", "/d/abXc"},
                                                {"/d.e/abc", "X", "/d.e/abXc"},
                                                {"/d/a", "X", "/d/Xa"},
                                                {"/d/", "X", "/dX/"},
                                                {"/", "X", "X/"},
                                                {"abc", "XY", "abXYc"},
                                                {"a", "X", "Xa"},
                                                {"/d/abc", nullptr, "/d/abc"}});
}

TEST_F(Filename, ExtensionIsAppendedWithOneDot) {
    ExpectChanges(&KovaFilename::AppendToExtension, {{"/d/a.txt", "bak", "/d/a.txt.bak"},
                                                     {"/d/a.txt", ".bak", "/d/a.txt.bak"},
                                                     {"/d/a.txt", "..bak", "/d/a.txt..bak"},
                                                     {"/d/a", "bak", "/d/a.bak"},
                                                     {"/d/a.", "bak", "/d/a..bak"},
                                                     {"/d/", "bak", "/d/.bak"},
                                                     {"a.txt", "bak", "a.txt.bak"},
                                                     {"/d/a", "", "/d/a."},
                                                     {"/d/a", ".", "/d/a."},
                                                     {"/d/a", nullptr, "/d/a."}});
}

TEST_F(Filename, ChangesAreExpanded) {
    const Variable set("KOVA_TEST", "v");
    ExpectChanges(&KovaFilename::ReplaceExtension, {{"/d/a.b", "$KOVA_TEST", "/d/a.v"}});
    ExpectChanges(&KovaFilename::ReplaceName, {{"/d/a.b", "$KOVA_TEST", "/d/v.b"}});
    ExpectChanges(&KovaFilename::AppendToName,
                  {{"/d/a.b", "$KOVA_TEST", "/d/av.b"}, {"/d/a", "$KOVA_TEST", "/d/$KOVA_TESTa"}});
    ExpectChanges(&KovaFilename::AppendToExtension, {{"/d/a.b", "$KOVA_TEST", "/d/a.b.v"}});
}

TEST_F(Filename, ChangesExpandTheWholePath) {
    const std::vector<std::pair<Change, const char*>> wanted = {
        {&KovaFilename::ReplaceExtension, "/v/a.x"},
        {&KovaFilename::ReplaceName, "/v/x.b"},
        {&KovaFilename::AppendToName, "/v/ax.b"},
        {&KovaFilename::AppendToExtension, "/v/a.b.x"}};
    for (const auto& [change, result] : wanted) {
        KovaFilename file("/$KOVA_TEST/a.b");
        const Variable set("KOVA_TEST", "v");
        EXPECT_EQ(result, (file.*change)("x"));
    }
}

TEST_F(Filename, ChangesDoNotPlace) {
    Bare file("a.b");
    file.ReplaceName("m");
    file.AppendToExtension("kovamtx");
    EXPECT_EQ("am.b.kovamtx", file.PathFileName());
}

TEST_F(Filename, ChangesTakeTheObjectsOwnText) {
    const std::string name = "/directory/with/a/longer/name";
    KovaFilename extension(name + ".txt");
    EXPECT_EQ(name + "." + name + ".txt", extension.ReplaceExtension(extension));
    KovaFilename replaced(name + ".txt");
    EXPECT_EQ("/directory/with/a/longer/" + name + ".txt.txt", replaced.ReplaceName(replaced));
    KovaFilename appended(name + ".txt");
    EXPECT_EQ(name + name + ".txt" + ".txt", appended.AppendToName(appended));
    KovaFilename doubled(name + ".txt");
    EXPECT_EQ(name + ".txt." + name + ".txt", doubled.AppendToExtension(doubled));
    KovaFilename tail(name + ".txt");
    EXPECT_EQ(name + ".txt.txt", tail.AppendToExtension(tail.PathFileName().c_str() + name.size()));
    EXPECT_EQ(name + "..txt.txt", tail.ReplaceExtension(tail.PathFileName().c_str() + name.size()));
}

// --- Directories and files ---

class FilenameCalls : public Filename {
  protected:
    fake::Journal m_Journal{
        {&fake::access, &fake::mkdir, &fake::umask, &fake::fopen, &fake::fclose, &fake::file_status},
        fake::kThisThread};
};

TEST_F(Filename, CreatePathMakesTheDirectoriesAndNotTheFile) {
    KovaFilename file(m_Dir + "a/b/c.log");
    EXPECT_TRUE(file.CreatePath());
    EXPECT_TRUE(fs::is_directory(m_Dir + "a/b"));
    EXPECT_TRUE(fs::is_empty(m_Dir + "a/b"));
    EXPECT_EQ(m_Dir + "a/b/c.log", file.PathFileName());
    EXPECT_TRUE(file.CreatePath()) << "once more";
    ExpectNoFailure(file);
}

TEST_F(Filename, CreatePathMakesALastDirectoryThatEndsInASlash) {
    KovaFilename file(m_Dir + "a//b/");
    EXPECT_TRUE(file.CreatePath());
    EXPECT_TRUE(fs::is_directory(m_Dir + "a/b"));
}

TEST_F(Filename, CreatePathMakesRelativeDirectoriesInTheWorkingDirectory) {
    EXPECT_TRUE(KovaFilename("./a/b/c").CreatePath());
    EXPECT_TRUE(fs::is_directory(m_Dir + "a/b"));
    EXPECT_TRUE(Bare("de/f").CreatePath());
    EXPECT_TRUE(fs::is_directory(m_Dir + "de"));
}

TEST_F(Filename, DirectoriesGetAllRightsWhateverTheUmask) {
    const Umask mask(077);
    EXPECT_TRUE(KovaFilename(m_Dir + "a/b/c").CreatePath());
    EXPECT_EQ(mode_t{0777}, ModeOf(m_Dir + "a"));
    EXPECT_EQ(mode_t{0777}, ModeOf(m_Dir + "a/b"));
}

TEST_F(FilenameCalls, CreatePathAsksBeforeItMakes) {
    const Umask mask(027);
    m_Journal.Clear();
    fake::Script access(fake::access,
                        {fake::Return(0), fake::Fail(ENOENT), fake::Fail(EACCES), fake::Return(0)});
    fake::Script mkdir(fake::mkdir, {fake::Return(0), fake::Return(0)});
    KovaFilename file("/ab/c/de/f/g");
    EXPECT_TRUE(file.CreatePath());
    EXPECT_EQ((Texts{"umask 0", "access /ab F_OK", "access /ab/c F_OK", "mkdir /ab/c 0777",
                     "access /ab/c/de F_OK", "mkdir /ab/c/de 0777", "access /ab/c/de/f F_OK", "umask 027"}),
              m_Journal.Texts());
    ExpectNoFailure(file);
}

TEST_F(FilenameCalls, CreatePathLooksAtSlashesFromTheThirdCharacterOn) {
    for (const char* path : {"/a", "//a", "./a", "a/b", "a", "/", ".", ""}) {
        EXPECT_TRUE(Bare(path).CreatePath()) << path;
    }
    EXPECT_EQ(0u, m_Journal.Count(fake::access) + m_Journal.Count(fake::mkdir));
    m_Journal.Clear();
    fake::Always access(fake::access, fake::Return(0));
    for (const char* path : {"/a/b", "../b", "ab/c", "a//b", "///"})
        EXPECT_TRUE(Bare(path).CreatePath()) << path;
    EXPECT_EQ(
        (Texts{"access /a F_OK", "access .. F_OK", "access ab F_OK", "access a/ F_OK", "access // F_OK"}),
        m_Journal.Texts(fake::access));
}

TEST_F(FilenameCalls, DirectoryThatAppearsInBetweenIsTaken) {
    fake::Always access(fake::access, fake::Fail(ENOENT));
    fake::Script mkdir(fake::mkdir, {fake::Fail(EEXIST), fake::Return(0), fake::Fail(EEXIST)});
    KovaFilename file("/ab/c/d/e");
    EXPECT_TRUE(file.CreatePath());
    EXPECT_EQ((Texts{"mkdir /ab 0777", "mkdir /ab/c 0777", "mkdir /ab/c/d 0777"}),
              m_Journal.Texts(fake::mkdir));
    ExpectNoFailure(file);
}

TEST_F(FilenameCalls, CreatePathEndsAtTheFirstDirectoryThatCannotBeMade) {
    const Umask mask(022);
    m_Journal.Clear();
    fake::Always access(fake::access, fake::Fail(ENOENT));
    fake::Script mkdir(fake::mkdir, {fake::Return(0), fake::Fail(ENOSPC)});
    KovaFilename file("/ab/c/d/e");
    EXPECT_FALSE(file.CreatePath());
    ExpectFailure(file, kCreatePath, ENOSPC, kMkdirFailed);
    EXPECT_EQ((Texts{"umask 0", "access /ab F_OK", "mkdir /ab 0777", "access /ab/c F_OK", "mkdir /ab/c 0777",
                     "umask 022"}),
              m_Journal.Texts());
    EXPECT_EQ("/ab/c/d/e", file.PathFileName());
}

TEST_F(Filename, FileWhereADirectoryIsNeededFailsBelowIt) {
    const Umask mask(022);
    KovaFilename below(Write("file") + "/a/b");
    EXPECT_FALSE(below.CreatePath());
    ExpectFailure(below, kCreatePath, ENOTDIR, kMkdirFailed);
    KovaFilename inside(m_Dir + "file/a");
    EXPECT_TRUE(inside.CreatePath()) << "what exists counts as a directory";
    ExpectNoFailure(inside);
}

TEST_F(Filename, LinkToNowhereIsTakenForADirectory) {
    KovaFilename inside(Link(m_Dir + "nothing", "dangling") + "/a");
    EXPECT_TRUE(inside.CreatePath());
    ExpectNoFailure(inside);
    KovaFilename below(m_Dir + "dangling/a/b");
    EXPECT_FALSE(below.CreatePath());
    ExpectFailure(below, kCreatePath, ENOENT, kMkdirFailed);
}

TEST_F(Filename, CreatePathDoesNotExpand) {
    KovaFilename file(m_Dir + "$KOVA_TEST/a");
    const Variable set("KOVA_TEST", "v");
    EXPECT_TRUE(file.CreatePath());
    EXPECT_EQ(m_Dir + "$KOVA_TEST/a", file.PathFileName());
    EXPECT_TRUE(fs::is_directory(m_Dir + "$KOVA_TEST"));
    EXPECT_TRUE(file.CreateFile());
    EXPECT_TRUE(fs::is_regular_file(m_Dir + "$KOVA_TEST/a"));
    EXPECT_EQ(m_Dir + "$KOVA_TEST/a", file.PathFileName());
}

TEST_F(Filename, CreateFileMakesAnEmptyFileAndItsDirectories) {
    const Umask mask(077);
    KovaFilename file(m_Dir + "a/b/c.log");
    EXPECT_TRUE(file.CreateFile());
    EXPECT_TRUE(fs::is_regular_file(m_Dir + "a/b/c.log"));
    EXPECT_EQ(0u, fs::file_size(m_Dir + "a/b/c.log"));
    EXPECT_EQ(mode_t{0777}, ModeOf(m_Dir + "a/b"));
    EXPECT_EQ(mode_t{0666}, ModeOf(m_Dir + "a/b/c.log"));
    EXPECT_TRUE(file.Exist());
    EXPECT_TRUE(file.CreateFile()) << "once more";
    ExpectNoFailure(file);
}

TEST_F(Filename, CreateFileLeavesWhatExists) {
    EXPECT_TRUE(KovaFilename(Write("file", "content")).CreateFile());
    EXPECT_EQ(7u, fs::file_size(m_Dir + "file"));
    EXPECT_TRUE(KovaFilename(m_Dir).CreateFile()) << "a directory";
    EXPECT_TRUE(KovaFilename(m_Dir + ".").CreateFile());
    ::chmod((m_Dir + "file").c_str(), 0400);
    EXPECT_TRUE(KovaFilename(m_Dir + "file").CreateFile());
    EXPECT_EQ(mode_t{0400}, ModeOf(m_Dir + "file"));
}

TEST_F(FilenameCalls, ExistingFileCostsOneCall) {
    fake::Script access(fake::access, {fake::Return(0)});
    KovaFilename file("/ab/c");
    EXPECT_TRUE(file.CreateFile());
    EXPECT_EQ((Texts{"access /ab/c F_OK"}), m_Journal.Texts());
}

TEST_F(FilenameCalls, CreateFileMakesDirectoriesThenTheFile) {
    const Umask mask(027);
    m_Journal.Clear();
    KovaFilename file(m_Dir + "a/b");
    EXPECT_TRUE(file.CreateFile());
    const std::string dir = m_Dir.substr(0, m_Dir.size() - 1);
    EXPECT_EQ((Texts{"access " + dir + "/a/b F_OK", "umask 0", "access /tmp F_OK", "access " + dir + " F_OK",
                     "access " + dir + "/a F_OK", "mkdir " + dir + "/a 0777", "umask 027", "umask 0",
                     "fopen " + dir + "/a/b w", "fclose", "umask 027"}),
              m_Journal.Texts());
    ExpectNoFailure(file);
}

TEST_F(FilenameCalls, FileThatCannotBeOpenedIsAFailure) {
    const Umask mask(027);
    m_Journal.Clear();
    fake::Script fopen(fake::fopen, {fake::Fail(EMFILE)});
    KovaFilename file(m_Dir + "a");
    EXPECT_FALSE(file.CreateFile());
    ExpectFailure(file, kCreateFile, EMFILE, kFopenFailed);
    EXPECT_EQ((Texts{"umask 0", "umask 027", "umask 0", "umask 027"}), m_Journal.Texts(fake::umask));
    EXPECT_EQ("umask 027", m_Journal.Texts().back());
    EXPECT_EQ(0u, m_Journal.Count(fake::fclose));
    EXPECT_FALSE(fs::exists(m_Dir + "a"));
}

TEST_F(FilenameCalls, FailureOfADirectoryIsTheDirectorys) {
    const Umask mask(027);
    fake::Script mkdir(fake::mkdir, {fake::Fail(EROFS)});
    KovaFilename file(m_Dir + "a/b");
    EXPECT_FALSE(file.CreateFile());
    ExpectFailure(file, kCreatePath, EROFS, kMkdirFailed);
    EXPECT_EQ(0u, m_Journal.Count(fake::fopen));
}

TEST_F(FilenameCalls, FailingCloseIsFalseWithoutARecord) {
    const Umask mask(027);
    m_Journal.Clear();
    fake::Script fclose(fake::fclose, {[](std::FILE* file) {
                            EXPECT_EQ(0, fake::fclose.Real(file));
                            errno = EDQUOT;
                            return EOF;
                        }});
    KovaFilename file(m_Dir + "a");
    EXPECT_FALSE(file.CreateFile());
    EXPECT_EQ(KovaBaseObject::KOVA_ERR_NONE, file.GetError());
    EXPECT_EQ(nullptr, file.GetErrorFunction());
    EXPECT_EQ("umask 027", m_Journal.Texts().back());
    const std::vector<TraceRecord> records = m_Recorder.All();
    ASSERT_EQ(1u, records.size());
    EXPECT_TRUE(records[0].Is(kFcloseFailed)) << testing::PrintToString(records);
    EXPECT_EQ(uint32_t{EDQUOT}, records[0].values.at(1));
}

TEST_F(Filename, CreateFileFailsForReal) {
    const Umask mask(027);
    KovaFilename directory(m_Dir + "a/");
    EXPECT_FALSE(directory.CreateFile());
    ExpectFailure(directory, kCreateFile, EISDIR, kFopenFailed);
    EXPECT_TRUE(directory.Exist()) << "the directory was made on the way";
    EXPECT_TRUE(directory.CreateFile());
    KovaFilename name(m_Dir + Letters(300, 'n'));
    EXPECT_FALSE(name.CreateFile());
    ExpectFailure(name, kCreateFile, ENAMETOOLONG, kFopenFailed);
}

TEST_F(Filename, SuccessLeavesTheErrorRecord) {
    KovaFilename file(Write("file") + "/a/b");
    ASSERT_FALSE(file.CreatePath());
    const int line = file.GetErrorLine();
    file = (m_Dir + "a/b").c_str();
    EXPECT_TRUE(file.CreatePath());
    EXPECT_TRUE(file.CreateFile());
    EXPECT_TRUE(file.CreateFile());
    EXPECT_TRUE(file.Exist());
    file.ResolveFileNo(3);
    EXPECT_EQ(ENOTDIR, file.GetError());
    EXPECT_STREQ(kCreatePath, file.GetErrorFunction());
    EXPECT_EQ(line, file.GetErrorLine());
}

// --- Numbers ---

/// Sets the time of modification, also to what a 32-bit time does not hold.
void SetModified(const std::string& path, int64_t seconds, int64_t nanoseconds = 0) {
    const struct {
        int64_t seconds;
        int64_t nanoseconds;
    } times[2] = {{seconds, nanoseconds}, {seconds, nanoseconds}};
#ifdef SYS_utimensat_time64
    constexpr long kNumber = SYS_utimensat_time64;
#else
    constexpr long kNumber = SYS_utimensat;
#endif
    ASSERT_EQ(0, ::syscall(kNumber, AT_FDCWD, path.c_str(), times, 0)) << path;
}

class NumberedFile : public Filename {
  protected:
    /// What the numbered path below the test's directory becomes, without that directory.
    std::string Resolved(const std::string& name, unsigned max_files) {
        KovaFilename file(m_Dir + name);
        const std::string& path = file.ResolveFileNo(max_files);
        EXPECT_EQ(&file.PathFileName(), &path);
        EXPECT_EQ(m_Dir, path.substr(0, m_Dir.size()));
        return path.substr(m_Dir.size());
    }
    /// The same for a path that needs no directory.
    static std::string ResolvedBare(const char* path, unsigned max_files) {
        return Bare(path).ResolveFileNo(max_files);
    }

    void WriteModified(const std::string& name, int64_t seconds, int64_t nanoseconds = 0) const {
        SetModified(Write(name), seconds, nanoseconds);
    }
};

TEST_F(NumberedFile, TakesTheFirstFreeNumber) {
    EXPECT_EQ("log_00.txt", Resolved("log_#.txt", 20));
    Write("log_00.txt");
    EXPECT_EQ("log_01.txt", Resolved("log_#.txt", 20));
    Write("log_01.txt");
    Write("log_03.txt");
    EXPECT_EQ("log_02.txt", Resolved("log_#.txt", 20));
    Write("log_02.txt");
    EXPECT_EQ("log_04.txt", Resolved("log_#.txt", 20));
    EXPECT_FALSE(fs::exists(m_Dir + "log_04.txt")) << "the file itself is not made";
}

TEST_F(NumberedFile, HasAsManyDigitsAsTheLargestNumber) {
    for (const auto& [count, name] :
         {std::pair(0u, "f0"), std::pair(1u, "f0"), std::pair(10u, "f0"), std::pair(11u, "f00"),
          std::pair(100u, "f00"), std::pair(101u, "f000"), std::pair(1000u, "f000"),
          std::pair(1001u, "f0000"), std::pair(10000u, "f0000"), std::pair(10001u, "f0000"),
          std::pair(kMax, "f0000")}) {
        EXPECT_EQ(name, Resolved("f#", count)) << count;
    }
}

TEST_F(NumberedFile, HasAsManyDigitsAsThereAreMarks) {
    EXPECT_EQ("f_000", Resolved("f_###", 5));
    EXPECT_EQ("f_000", Resolved("f_###", 20));
    EXPECT_EQ("f_000", Resolved("f_##", 101)) << "more digits when the marks are too few";
    EXPECT_EQ("f_000000.txt", Resolved("f_######.txt", kMax));
    EXPECT_EQ(Letters(200, '0'), Resolved(Letters(200, '#'), 1));
    for (int n = 0; n < 12; ++n) Write("f_" + std::string(n < 10 ? "00" : "0") + std::to_string(n));
    EXPECT_EQ("f_012", Resolved("f_###", 13));
}

TEST_F(NumberedFile, StandsForAllFromTheFirstMarkToTheLast) {
    EXPECT_EQ("a0000c", Resolved("a#bb#c", 5)) << "what is between them goes";
    EXPECT_EQ("a00c", Resolved("a##c", 5));
    EXPECT_EQ("0", Resolved("#", 5));
    EXPECT_EQ("a0000", Resolved("a#.#", 1001)) << "the dot goes, too";
}

TEST_F(NumberedFile, StandsForStarsWhereThereIsNoHash) {
    EXPECT_EQ("a0.txt", Resolved("a*.txt", 5));
    EXPECT_EQ("a000.txt", Resolved("a***.txt", 5));
    EXPECT_EQ("a000c", Resolved("a*b*c", 5));
    EXPECT_EQ("*0*.txt", Resolved("*#*.txt", 5)) << "stars beside a hash stay";
    EXPECT_EQ("*00", Resolved("*##", 5));
}

TEST_F(NumberedFile, MarksInDirectoriesDoNotCount) {
    EXPECT_EQ("d#/a_0.txt", Resolved("d#/a.txt", 5));
    EXPECT_EQ("d*/a_0.txt", Resolved("d*/a.txt", 5));
    EXPECT_EQ("d#/a0", Resolved("d#/a#", 5));
    EXPECT_EQ("d*/a0", Resolved("d*/a#", 5));
    EXPECT_EQ("d#*/a00.txt", Resolved("d#*/a**.txt", 5)) << "stars of the name, a hash in the directory";
    EXPECT_EQ("d##/e#/0", Resolved("d##/e#/#", 5));
    EXPECT_TRUE(fs::is_directory(m_Dir + "d##/e#"));
}

TEST_F(NumberedFile, IsAppendedToANameWithoutMarks) {
    EXPECT_EQ("log_0.txt", Resolved("log.txt", 5));
    EXPECT_EQ("log_000.txt", Resolved("log.txt", 500));
    EXPECT_EQ("a_0.b.c", Resolved("a.b.c", 5));
    EXPECT_EQ("lo_0g", Resolved("log", 5)) << "where AppendToName puts it";
    EXPECT_EQ("_0a", Resolved("a", 5));
    EXPECT_EQ("_0.a", Resolved(".a", 5));
}

TEST_F(NumberedFile, IsAppendedAgainToANumberedName) {
    KovaFilename file(m_Dir + "log.txt");
    EXPECT_EQ(m_Dir + "log_0.txt", file.ResolveFileNo(5));
    EXPECT_EQ(m_Dir + "log_0_0.txt", file.ResolveFileNo(5));
}

TEST_F(NumberedFile, PathWithoutPlaceForANumberStaysAsItWas) {
    EXPECT_EQ("a/", Resolved("a/", 5));
    EXPECT_TRUE(fs::is_directory(m_Dir + "a")) << "its directories are made";
    EXPECT_EQ("a.b/", Resolved("a.b/", 5));
    EXPECT_EQ("/", KovaFilename("/").ResolveFileNo(5));
    const Variable set("_", "v");
    EXPECT_EQ("a$/", Resolved("a$/", 5)) << "no trace of the mark that was tried";
}

TEST_F(NumberedFile, BareNamesAreNumberedInTheWorkingDirectory) {
    EXPECT_EQ("a0", ResolvedBare("a#", 5));
    Write("a0");
    EXPECT_EQ("a1", ResolvedBare("a#", 5));
    EXPECT_EQ("a_0.txt", ResolvedBare("a.txt", 5));
    EXPECT_EQ("00", ResolvedBare("##", 5));
    EXPECT_EQ("00", ResolvedBare("**", 5));
}

TEST_F(NumberedFile, MakesTheDirectories) {
    const Umask mask(077);
    EXPECT_EQ("a/b/c_0.log", Resolved("a/b/c.log", 5));
    EXPECT_EQ(mode_t{0777}, ModeOf(m_Dir + "a/b"));
    EXPECT_TRUE(fs::is_empty(m_Dir + "a/b"));
    EXPECT_EQ(0u, m_Recorder.All().size());
}

TEST_F(NumberedFile, WithoutDirectoriesLeavesThePath) {
    const fake::Journal journal({&fake::file_status}, fake::kThisThread);
    const std::string blocked = Write("file") + "/a/";
    for (const char* name : {"b_#.txt", "b.txt", "b*"}) {
        KovaFilename file(blocked + name);
        EXPECT_EQ(blocked + name, file.ResolveFileNo(5));
        ExpectFailure(file, kCreatePath, ENOTDIR, kMkdirFailed);
    }
    EXPECT_EQ(0u, journal.Entries().size());
}

TEST_F(NumberedFile, WithoutFilesIsZeroWhateverExists) {
    Write("f_0");
    const fake::Journal journal({&fake::file_status}, fake::kThisThread);
    EXPECT_EQ("f_0", Resolved("f_#", 0));
    EXPECT_EQ("f_000", Resolved("f_###", 0));
    EXPECT_EQ("f_0.txt", Resolved("f.txt", 0));
    EXPECT_EQ(0u, journal.Entries().size());
}

TEST_F(NumberedFile, AsksForEachNumberInOrder) {
    const std::string existing = Write("existing");
    for (const unsigned count : {0u, 1u, 2u, 10u, 11u, 100u, 101u, 1000u, 1001u, 10000u, 10001u, kMax}) {
        const unsigned asked = std::min(count, 10000u);
        const int width = count <= 10 ? 1 : count <= 100 ? 2 : count <= 1000 ? 3 : 4;
        unsigned next = 0;
        unsigned wrong = 0;
        fake::Replace status(fake::file_status, [&](const char* path, void* result) {
            char wanted[100];
            std::snprintf(wanted, sizeof wanted, "%sf_%0*u.txt", m_Dir.c_str(), width, next++);
            if (path != std::string(wanted) && ++wrong == 1) ADD_FAILURE() << path << ", not " << wanted;
            return fake::file_status.Real(existing.c_str(), result);
        });
        EXPECT_EQ("f_" + Letters(static_cast<size_t>(width), '0') + ".txt", Resolved("f_#.txt", count));
        EXPECT_EQ(asked, next) << count;
    }
}

TEST_F(NumberedFile, TakesTheLastNumberWhenOnlyThatIsFree) {
    const std::string existing = Write("existing");
    for (const auto& [count, name] :
         {std::pair(1u, "f0"), std::pair(10u, "f9"), std::pair(11u, "f10"), std::pair(100u, "f99"),
          std::pair(101u, "f100"), std::pair(1000u, "f999"), std::pair(1001u, "f1000"),
          std::pair(10000u, "f9999"), std::pair(10001u, "f9999"), std::pair(kMax, "f9999")}) {
        fake::Replace status(fake::file_status, [&, last = m_Dir + name](const char* path, void* result) {
            return fake::file_status.Real(path == last ? path : existing.c_str(), result);
        });
        EXPECT_EQ(name, Resolved("f#", count)) << count;
    }
}

TEST_F(NumberedFile, LooksNoFurtherThanTheFirstFreeNumber) {
    WriteModified("f0", 500);
    WriteModified("f2", 100);
    const fake::Counter status(fake::file_status);
    EXPECT_EQ("f1", Resolved("f#", 5));
    EXPECT_EQ(2u, status.Calls());
}

TEST_F(NumberedFile, TakesTheOldestFileWhenAllExist) {
    for (int n = 0; n < 20; ++n)
        WriteModified("log_" + std::to_string(n / 10) + std::to_string(n % 10) + ".txt", 1000 + n * 7 % 20);
    SetModified(m_Dir + "log_13.txt", 999);
    EXPECT_EQ("log_13.txt", Resolved("log_#.txt", 20));
    SetModified(m_Dir + "log_00.txt", 998);
    EXPECT_EQ("log_00.txt", Resolved("log_#.txt", 20));
    SetModified(m_Dir + "log_19.txt", 997);
    EXPECT_EQ("log_19.txt", Resolved("log_#.txt", 20));
    EXPECT_EQ("log_00.txt", Resolved("log_##.txt", 10)) << "the ten first numbers";
}

TEST_F(NumberedFile, OfEquallyOldFilesTakesTheLowestNumber) {
    for (const char* name : {"f1", "f3"}) WriteModified(name, 100);
    for (const char* name : {"f0", "f2", "f4"}) WriteModified(name, 200);
    EXPECT_EQ("f1", Resolved("f#", 5));
    WriteModified("f0", 100);
    EXPECT_EQ("f0", Resolved("f#", 5));
}

TEST_F(NumberedFile, ComparesFullSeconds) {
    WriteModified("f0", 100, 900000000);
    WriteModified("f1", 100, 100000000);
    WriteModified("f2", 101, 0);
    EXPECT_EQ("f0", Resolved("f#", 3));
}

TEST_F(NumberedFile, ComparesTimesBefore1970) {
    WriteModified("f0", 0);
    WriteModified("f1", -2);
    WriteModified("f2", -1);
    EXPECT_EQ("f1", Resolved("f#", 3));
}

TEST_F(NumberedFile, ComparesTimesAfter2038) {
    WriteModified("f0", 0x180000000);
    WriteModified("f1", 0x80000001);
    WriteModified("f2", 0x100000000);
    EXPECT_EQ("f1", Resolved("f#", 3));
    WriteModified("f2", 0x7FFFFFFF);
    EXPECT_EQ("f2", Resolved("f#", 3));
    WriteModified("f0", 0x100000005);
    WriteModified("f1", 0x100000004);
    WriteModified("f2", 0x200000003);
    EXPECT_EQ("f1", Resolved("f#", 3)) << "seconds are not cut to 32 bits";
}

TEST_F(NumberedFile, LargeFilesExist) {
    for (const char* name : {"f0", "f1"}) ASSERT_EQ(0, ::truncate64(Write(name).c_str(), 0xC0000000)) << name;
    EXPECT_TRUE(KovaFilename(m_Dir + "f0").Exist());
    EXPECT_EQ("f2", Resolved("f#", 3));
    SetModified(m_Dir + "f0", 200);
    SetModified(m_Dir + "f1", 100);
    EXPECT_EQ("f1", Resolved("f#", 2));
    EXPECT_TRUE(KovaFilename(m_Dir + "f1").CreateFile());
    EXPECT_EQ(0xC0000000u, fs::file_size(m_Dir + "f1"));
}

TEST_F(NumberedFile, DirectoriesExistAndLinksToNowhereDoNot) {
    MakeDirectory("f0");
    Link(m_Dir + "f0", "f1");
    Link(m_Dir + "nothing", "f2");
    EXPECT_EQ("f2", Resolved("f#", 5));
}

TEST_F(NumberedFile, FileWhoseStatusCannotBeReadIsFree) {
    Write("f0");
    Write("f1");
    fake::Script status(fake::file_status, {fake::Real(), fake::Fail(EACCES)});
    EXPECT_EQ("f1", Resolved("f#", 5));
    EXPECT_EQ(0u, m_Recorder.All().size());
}

TEST_F(NumberedFile, DollarOfNoVariableIsACharacter) {
    MakeDirectory("$KOVA_UNSET");
    Write("$KOVA_UNSET/$-0.txt");
    EXPECT_EQ("$KOVA_UNSET/$-1.txt", Resolved("$KOVA_UNSET/$-#.txt", 5));
    EXPECT_EQ("$/$-_0.$", Resolved("$/$-.$", 5));
    EXPECT_TRUE(fs::is_directory(m_Dir + "$"));
}

TEST_F(NumberedFile, NumberMayCompleteAVariable) {
    const Variable set("KOVA_TEST_1", "v");
    Write("$KOVA_TEST_0");
    EXPECT_EQ("v", Resolved("$KOVA_TEST_#", 5));
    EXPECT_EQ("$KOVA_TEST_0", Resolved("$KOVA_TEST_#", 0));
}

// --- The empty path ---

TEST_F(Filename, EmptyPathStandsEveryOperation) {
    const KovaFilename empty;
    EXPECT_EQ("", empty.GetPath());
    EXPECT_EQ("", empty.GetPureFileName());
    EXPECT_FALSE(empty.Exist());
    EXPECT_STREQ("", empty);
    EXPECT_EQ("", KovaFilename().ReplaceEnv());
    EXPECT_EQ("/tmp/", KovaFilename().FullPath());
    ExpectChanges(&KovaFilename::ReplaceExtension, {{"", "log", ".log"}, {"", nullptr, "."}});
    ExpectChanges(&KovaFilename::ReplaceName, {{"", "x", "x"}, {"", nullptr, ""}});
    ExpectChanges(&KovaFilename::AppendToName, {{"", "x", "x"}, {"", nullptr, ""}});
    ExpectChanges(&KovaFilename::AppendToExtension, {{"", "log", ".log"}, {"", nullptr, "."}});
    EXPECT_TRUE(KovaFilename().CreatePath());
    EXPECT_EQ("_0", KovaFilename().ResolveFileNo(5));
    Write("_00");
    EXPECT_EQ("_01", KovaFilename().ResolveFileNo(20));
    KovaFilename file;
    EXPECT_FALSE(file.CreateFile());
    ExpectFailure(file, kCreateFile, ENOENT, kFopenFailed);
}

}  // namespace
