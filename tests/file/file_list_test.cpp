#include "support/fake_libc.h"
#include "support/leak_check.h"
#include "support/process.h"
#include "support/trace_recorder.h"

#include <kova/file_list.h>
#include <kova/file_location.h>

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <initializer_list>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

/// While they are set, nobody knows a directory for a name; the calling thread gets no cleared memory.
std::atomic<bool> g_LookupFails{false};
thread_local bool t_NoMemory = false;

}  // namespace

bool KovaQueryFileLocation(const char* name, char* directory, unsigned int size) {
    if (g_LookupFails) return false;
    const auto real = reinterpret_cast<bool (*)(const char*, char*, unsigned int)>(
        ::dlsym(RTLD_NEXT, "KovaQueryFileLocation"));
    return real(name, directory, size);
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
extern "C" void* __libc_calloc(size_t count, size_t size);
extern "C" void* calloc(size_t count, size_t size) noexcept {
    if (!t_NoMemory) return __libc_calloc(count, size);
    errno = ENOMEM;
    return nullptr;
}
#endif

namespace {

constexpr unsigned kPathSize = 4096;
constexpr size_t kLongestName = 255;
constexpr const char* kNotListed = "scandir directory=%s errno=%d";
constexpr const char* kNoDirectoryKey = "no key of listing directories, errno=%d";
constexpr const char* kNoDirectoryMemory = "no memory for a listing directory, errno=%d";
constexpr const char* kDirectoryNotKept = "listing directory not kept, errno=%d";
constexpr const char* kNoWorkingDirectory = "getcwd errno=%d";

static_assert(std::is_same_v<char*(char*), decltype(KovaNextFileInList)>);
static_assert(std::is_same_v<char*(char*, unsigned int), decltype(KovaReplaceEnvInSting)>);
static_assert(std::is_same_v<char*(const char*, const char*, const char*, const char*, char*, unsigned int),
                             decltype(KovaFileName)>);
static_assert(std::is_same_v<char*(const char*, char*, unsigned int), decltype(KovaFilePath)>);
static_assert(std::is_same_v<char*(const char*, char*, unsigned int), decltype(KovaFullFilePath)>);
static_assert(std::is_same_v<char*(), decltype(KovaGetThreadSafeDir)>);
static_assert(std::is_same_v<void*(const char*), decltype(KovaSetThreadSafeDir)>);
static_assert(
    std::is_same_v<int(const char*, const char*, char*, unsigned int, int), decltype(KovaListFileOrdered)>);
static_assert(
    std::is_same_v<int(const char*, const char*, char*, unsigned int), decltype(KovaListFileByAlpha)>);
static_assert(std::is_same_v<int(const char*, const char*, char*, unsigned int), decltype(KovaListFile)>);
static_assert(
    std::is_same_v<int(const char*, const char*, char*, unsigned int), decltype(KovaListFileByDateTime)>);
static_assert(std::is_same_v<int(const dirent**, const dirent**), decltype(DateTimeSort)>);
static_assert(
    std::is_same_v<char*(const char*, char*, unsigned int, unsigned int), decltype(KovaGetNextFile)>);

using Names = std::vector<std::string>;
using Variables = std::map<std::string, std::string>;
using testing::ElementsAre;
using testing::IsEmpty;

/// While it lives, these variables and no others are set.
class Environment {
  public:
    explicit Environment(const Variables& variables) {
        for (const auto& [name, value] : variables) m_Texts.push_back(name + "=" + value);
        for (std::string& text : m_Texts) m_Pointers.push_back(text.data());
        m_Pointers.push_back(nullptr);
        environ = m_Pointers.data();
    }
    Environment(const Environment&) = delete;
    Environment& operator=(const Environment&) = delete;
    ~Environment() { environ = m_Saved; }

  private:
    char** const m_Saved = environ;
    Names m_Texts;
    std::vector<char*> m_Pointers;
};

/// A caller's buffer of `size` bytes. Nothing may be written behind it.
class Buffer {
  public:
    explicit Buffer(unsigned size) : m_Size(size), m_Bytes(size + kGuard, kUntouched) {}
    Buffer(unsigned size, const std::string& text)
        : m_Size(size), m_Bytes(size + text.size() + 1 + kGuard, kUntouched) {
        std::memcpy(m_Bytes.data(), text.c_str(), text.size() + 1);
    }
    Buffer(const Buffer&) = delete;
    Buffer& operator=(const Buffer&) = delete;
    ~Buffer() {
        EXPECT_THAT(std::string(m_Bytes.end() - kGuard, m_Bytes.end()), std::string(kGuard, kUntouched))
            << "written behind the buffer";
    }

    char* Get() { return m_Bytes.data(); }
    unsigned Size() const { return m_Size; }
    std::string Text() const { return m_Bytes.data(); }
    /// The first `count` bytes, zeros and all.
    std::string Bytes(size_t count) const { return std::string(m_Bytes.data(), count); }
    bool IsUntouched() const {
        return std::all_of(m_Bytes.begin(), m_Bytes.end(), [](char c) { return c == kUntouched; });
    }

  private:
    static constexpr char kUntouched = '#';
    static constexpr size_t kGuard = 64;

    const unsigned m_Size;
    std::vector<char> m_Bytes;
};

/// A new directory, its path with "/" at the end.
class Directory {
  public:
    Directory() {
        char path[] = "/tmp/kova_list_XXXXXX";
        EXPECT_NE(nullptr, ::mkdtemp(path));
        m_Path = path + std::string("/");
    }
    explicit Directory(const std::string& path) : m_Path(path) { std::filesystem::create_directories(path); }
    Directory(const Directory&) = delete;
    Directory& operator=(const Directory&) = delete;
    ~Directory() { std::filesystem::remove_all(m_Path); }

    const std::string& Path() const { return m_Path; }
    std::string WithoutSlash() const { return m_Path.substr(0, m_Path.size() - 1); }
    std::string operator/(const std::string& name) const { return m_Path + name; }

    void Add(const std::string& name) const {
        const int fd = ::open((m_Path + name).c_str(), O_WRONLY | O_CREAT, 0666);
        EXPECT_LE(0, fd) << name;
        ::close(fd);
    }
    void Add(const std::string& name, int64_t seconds, int64_t nanoseconds = 0) const {
        Add(name);
        SetTime(name, seconds, nanoseconds);
    }
    /// The time of modification, of 64 bits everywhere. The name "." is the directory itself.
    void SetTime(const std::string& name, int64_t seconds, int64_t nanoseconds = 0) const {
        struct Time {
            int64_t seconds, nanoseconds;
        };
        const Time times[2] = {{seconds, nanoseconds}, {seconds, nanoseconds}};
#ifdef SYS_utimensat_time64
        constexpr long kNumber = SYS_utimensat_time64;
#else
        constexpr long kNumber = SYS_utimensat;
#endif
        EXPECT_EQ(0, ::syscall(kNumber, AT_FDCWD, (m_Path + name).c_str(), times, 0)) << name;
    }

  private:
    std::string m_Path;
};

/// The names in a file list, by the function that is there for it.
Names NamesIn(char* list) {
    Names names;
    for (char* entry = *list != '\0' ? list : nullptr; entry != nullptr; entry = KovaNextFileInList(entry)) {
        names.emplace_back(entry);
    }
    return names;
}

using Lister = int (*)(const char* dir, const char* pattern, char* list, unsigned int size);

/// What a listing function lists into a large buffer.
Names List(Lister lister, const char* dir, const char* pattern) {
    Buffer list(1 << 20);
    const int count = lister(dir, pattern, list.Get(), list.Size());
    Names names = NamesIn(list.Get());
    EXPECT_EQ(names.size(), static_cast<size_t>(count));
    return names;
}
Names List(Lister lister, const std::string& dir, const char* pattern) {
    return List(lister, dir.c_str(), pattern);
}
Names ByName(const std::string& dir, const char* pattern) { return List(KovaListFileByAlpha, dir, pattern); }
Names ByTime(const std::string& dir, const char* pattern) {
    return List(KovaListFileByDateTime, dir, pattern);
}

/// All names in a directory as `scandir` orders them.
Names Scan(const std::string& dir, int (*compare)(const dirent**, const dirent**)) {
    dirent** entries = nullptr;
    const int count = ::scandir(dir.c_str(), &entries, nullptr, compare);
    EXPECT_LE(0, count);
    Names names;
    for (int i = 0; i < count; ++i) {
        names.emplace_back(entries[i]->d_name);
        std::free(entries[i]);
    }
    std::free(entries);
    return names;
}

/// The order that the comparison gives, with what it writes.
Names ScanByTime(const std::string& dir, const std::string& listing_directory) {
    KovaSetThreadSafeDir(listing_directory.c_str());
    return Scan(dir, DateTimeSort);
}

Names Without(Names names, std::initializer_list<const char*> others) {
    for (const char* other : others) std::erase(names, other);
    return names;
}

/// What is written to standard error while `run` runs.
template <typename Run>
std::string ErrorOutputOf(Run run) {
    testing::internal::CaptureStderr();
    run();
    return testing::internal::GetCapturedStderr();
}

/// What of standard error is compared. The sanitizers' own sort makes more comparisons than the plain one.
auto Messages(const std::string& output) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    return !output.empty();
#else
    return output;
#endif
}

/// Fails every status call for a path that ends like this.
auto FailsFor(const std::string& end) {
    return [end](const char* path, void* status) {
        if (!std::string(path).ends_with(end)) return fake::file_status.Real(path, status);
        errno = EIO;
        return -1;
    };
}

class FileList : public KovaTest {};

TEST_F(FileList, FunctionsAreExportedUnderPlainNames) {
    for (const char* name :
         {"KovaNextFileInList", "KovaReplaceEnvInSting", "KovaFileName", "KovaFilePath", "KovaFullFilePath",
          "KovaGetThreadSafeDir", "KovaSetThreadSafeDir", "KovaListFileOrdered", "KovaListFileByAlpha",
          "KovaListFile", "KovaListFileByDateTime", "DateTimeSort", "KovaGetNextFile"}) {
        EXPECT_NE(nullptr, ::dlsym(RTLD_DEFAULT, name)) << name;
    }
}

// --- Walking a list ---

TEST_F(FileList, NextIsTheNameBehindAndNullAtTheEnd) {
    char list[] = "a\0bcd\0";
    char* const second = KovaNextFileInList(list);
    EXPECT_EQ(list + 2, second);
    EXPECT_STREQ("bcd", second);
    EXPECT_EQ(nullptr, KovaNextFileInList(second));
}

TEST_F(FileList, NextOfNullAndInAnEmptyListIsNull) {
    EXPECT_EQ(nullptr, KovaNextFileInList(nullptr));
    char list[] = "\0";
    EXPECT_EQ(nullptr, KovaNextFileInList(list));
}

// --- Expansion ---

/// The rule, on strings.
std::string ExpandByTheRule(std::string text, const Variables& variables, size_t size) {
    for (size_t at = 0; at < text.size(); ++at) {
        if (text[at] != '$') continue;
        for (size_t length = 1; at + length < text.size(); ++length) {
            const auto variable = variables.find(text.substr(at + 1, length));
            if (variable == variables.end()) continue;
            if (text.size() - length - 1 + variable->second.size() < size) {
                text.replace(at, length + 1, variable->second);
            }
            break;
        }
    }
    return text;
}

std::string Expand(const std::string& text, const Variables& variables, unsigned size = kPathSize) {
    const Environment environment(variables);
    Buffer buffer(size, text);
    EXPECT_EQ(buffer.Get(), KovaReplaceEnvInSting(buffer.Get(), size));
    return buffer.Text();
}

TEST_F(FileList, ExpansionReplacesAVariableByItsValue) {
    EXPECT_EQ("/root/x", Expand("$HOME/x", {{"HOME", "/root"}}));
    EXPECT_EQ("a/root", Expand("a$HOME", {{"HOME", "/root"}}));
    EXPECT_EQ("1+2=12", Expand("$A+$B=$A$B", {{"A", "1"}, {"B", "2"}}));
    EXPECT_EQ("plain", Expand("plain", {{"plain", "x"}}));
    EXPECT_EQ("", Expand("", {{"A", "1"}}));
}

TEST_F(FileList, ExpansionTakesTheShortestNameThatIsSet) {
    EXPECT_EQ("/rootDIR", Expand("$HOMEDIR", {{"HOME", "/root"}, {"HOMEDIR", "/other"}}));
    EXPECT_EQ("xOME", Expand("$HOME", {{"HOME", "/root"}, {"H", "x"}}));
    EXPECT_EQ("/other", Expand("$HOMEDIR", {{"HOMEDIR", "/other"}, {"HOMEDIRS", "x"}}));
}

TEST_F(FileList, ExpansionKnowsNoNameCharactersAndNoBraces) {
    EXPECT_EQ("value", Expand("${A}", {{"{A}", "value"}, {"A", "x"}}));
    EXPECT_EQ("${A}", Expand("${A}", {{"A", "x"}}));
    EXPECT_EQ("<v>.c", Expand("$a/b c.c", {{"a/b c", "<v>"}}));
    EXPECT_EQ("<v>", Expand("$$", {{"$", "<v>"}}));
}

TEST_F(FileList, ExpansionLeavesWhatIsNotSet) {
    EXPECT_EQ("$UNSET/x", Expand("$UNSET/x", {}));
    EXPECT_EQ("100$", Expand("100$", {{"", "x"}}));
    EXPECT_EQ("$", Expand("$", {}));
    EXPECT_EQ("$v", Expand("$$A", {{"A", "v"}})) << "the search goes on behind the first";
    EXPECT_EQ("$Uv", Expand("$U$A", {{"A", "v"}}));
}

TEST_F(FileList, ExpansionGoesOnOnePositionFurther) {
    EXPECT_EQ("x1", Expand("$A", {{"A", "x$B"}, {"B", "1"}})) << "inside the value";
    EXPECT_EQ("$B", Expand("$A", {{"A", "$B"}, {"B", "1"}})) << "its first character is passed over";
    EXPECT_EQ("$B", Expand("$A$B", {{"A", ""}, {"B", "1"}})) << "and what follows an empty value, too";
    EXPECT_EQ("$1", Expand("$A", {{"A", "$$B"}, {"B", "1"}}));
    EXPECT_EQ("x1", Expand("$AB", {{"A", "x$"}, {"B", "1"}})) << "a value and what stands behind it";
}

TEST_F(FileList, ExpansionStaysBelowTheSize) {
    const Variables variables{{"A", "12345"}};
    EXPECT_EQ("x12345y", Expand("x$Ay", variables, 8));
    EXPECT_EQ("x$Ay", Expand("x$Ay", variables, 7));
    EXPECT_EQ("x$Ay", Expand("x$Ay", variables, 1));
}

TEST_F(FileList, ValueThatDoesNotFitEndsTheSearchForItsName) {
    EXPECT_EQ("$LONGER", Expand("$LONGER", {{"LONG", "0123456789"}, {"LONGER", "x"}}, 10));
    EXPECT_EQ("$LONG 1", Expand("$LONG $A", {{"LONG", "0123456789"}, {"A", "1"}}, 10))
        << "others are replaced";
}

TEST_F(FileList, ExpansionMayShortenATextThatIsTooLong) {
    EXPECT_EQ("1xyz", Expand("$NAMExyz", {{"NAME", "1"}}, 5));
    EXPECT_EQ("$NAMExyz", Expand("$NAMExyz", {{"NAME", "1"}}, 4));
}

TEST_F(FileList, ExpansionOfSize0AndOfNullDoesNothing) {
    EXPECT_EQ("$A", Expand("$A", {{"A", ""}}, 0));
    EXPECT_EQ(nullptr, KovaReplaceEnvInSting(nullptr, kPathSize));
}

TEST_F(FileList, ExpansionOfAVariableThatNamesItselfEndsAtTheSize) {
    EXPECT_EQ(std::string(60, 'x') + "$A", Expand("$A", {{"A", "x$A"}}, 63));
    const Variables variables{{"A", "-$A$A"}};
    const std::string expanded = Expand("$A", variables);
    EXPECT_EQ(ExpandByTheRule("$A", variables, kPathSize), expanded);
    EXPECT_LT(kPathSize - 4, expanded.size());
}

TEST_F(FileList, ExpansionFollowsTheRuleForAnyText) {
    std::minstd_rand random(1);
    const auto text = [&](size_t most) {
        std::string characters;
        for (size_t left = random() % (most + 1); left != 0; --left) characters += "AB$$"[random() % 4];
        return characters;
    };
    for (int round = 0; round < 3000; ++round) {
        Variables variables;
        for (int i = 0; i < 3; ++i) {
            const std::string name = text(3);
            if (!name.empty()) variables[name] = text(5);
        }
        const std::string original = text(12);
        const auto size = static_cast<unsigned>(1 + random() % 40);
        ASSERT_EQ(ExpandByTheRule(original, variables, size), Expand(original, variables, size))
            << original << ", size " << size << ", variables " << testing::PrintToString(variables);
    }
}

// --- Names and paths ---

std::string FileName(const char* dir, const char* name, const char* name2, const char* ext,
                     unsigned size = kPathSize) {
    Buffer result(size);
    EXPECT_EQ(result.Get(), KovaFileName(dir, name, name2, ext, result.Get(), size));
    return result.Text();
}

TEST_F(FileList, NameIsComposedOfDirectoryNamesAndExtension) {
    const Environment none(Variables{});
    EXPECT_EQ("/d/x.log", FileName("/d", "x", nullptr, "log"));
    EXPECT_EQ("/d/xy.log", FileName("/d", "x", "y", "log"));
    EXPECT_EQ("/d/x", FileName("/d/", "x", nullptr, nullptr)) << "no second slash";
    EXPECT_EQ("/x", FileName("/", "x", nullptr, nullptr));
    EXPECT_EQ("x", FileName("", "x", nullptr, nullptr)) << "no slash behind nothing";
    EXPECT_EQ("x", FileName(nullptr, "x", nullptr, nullptr));
    EXPECT_EQ("/d/y", FileName("/d", nullptr, "y", nullptr));
    EXPECT_EQ("/d/", FileName("/d", nullptr, nullptr, nullptr));
    EXPECT_EQ("", FileName(nullptr, nullptr, nullptr, nullptr));
}

TEST_F(FileList, DotIsAddedToEveryExtension) {
    const Environment none(Variables{});
    EXPECT_EQ("/d/x..log", FileName("/d", "x", nullptr, ".log"));
    EXPECT_EQ("x.", FileName(nullptr, "x", nullptr, ""));
    EXPECT_EQ(".log", FileName(nullptr, nullptr, nullptr, "log"));
}

TEST_F(FileList, NameIsExpandedWhenItIsComplete) {
    const Environment environment(Variables{{"D", "/v/"}, {"E/x", "joined"}, {"F.l", "-"}});
    EXPECT_EQ("/v//x", FileName("$D", "x", nullptr, nullptr)) << "the slash was added to the unexpanded text";
    EXPECT_EQ("joined", FileName("$E", "x", nullptr, nullptr));
    EXPECT_EQ("a-og", FileName(nullptr, "a$", "F", "log"));
}

TEST_F(FileList, NameIsCutToItsBuffer) {
    const Environment none(Variables{});
    EXPECT_EQ("/d/xy.log", FileName("/d", "x", "y", "log", 10));
    EXPECT_EQ("/d/xy.lo", FileName("/d", "x", "y", "log", 9));
    EXPECT_EQ("/d/", FileName("/d", "x", "y", "log", 4));
    EXPECT_EQ("/", FileName("/d", "x", "y", "log", 2));
    EXPECT_EQ("", FileName("/d", "x", "y", "log", 1));
    const std::string longest(kPathSize, 'x');
    EXPECT_EQ(longest.substr(1), FileName(nullptr, longest.c_str(), longest.c_str(), "log"));
}

std::string FilePath(const char* name, unsigned size = kPathSize) {
    Buffer result(size);
    EXPECT_EQ(result.Get(), KovaFilePath(name, result.Get(), size));
    return result.Text();
}

std::string FullFilePath(const char* name, unsigned size = kPathSize) {
    Buffer result(size);
    EXPECT_EQ(result.Get(), KovaFullFilePath(name, result.Get(), size));
    return result.Text();
}

TEST_F(FileList, PathEndsWithTheLastSlashOfTheName) {
    const Environment none(Variables{});
    EXPECT_EQ("/var/log/", FilePath("/var/log/app.log"));
    EXPECT_EQ("./", FilePath("./x"));
    EXPECT_EQ("../", FilePath("../x"));
    EXPECT_EQ("./a/", FilePath("./a/b.kovamtx")) << "no kind of file counts here";
    EXPECT_EQ("/a/b/", FilePath("/a/b/"));
    EXPECT_EQ("//", FilePath("//x"));
}

TEST_F(FileList, PathOfANameWithASlashAtItsBeginningOnlyIsTheName) {
    const Environment none(Variables{});
    EXPECT_EQ("/x", FilePath("/x"));
    EXPECT_EQ("/", FilePath("/"));
    EXPECT_EQ(".x", FilePath(".x")) << "and so is that of a name with a dot there and no slash";
    EXPECT_EQ(".", FilePath("."));
    EXPECT_EQ("..", FilePath(".."));
}

TEST_F(FileList, PathOfABareNameIsThatOfItsKind) {
    const Environment none(Variables{});
    EXPECT_EQ("/tmp/kova/", FilePath("m.kovamtx"));
    EXPECT_EQ("/tmp/voxa/hubl/", FilePath("q.kovamsg"));
    EXPECT_EQ("/tmp/kova/cache/", FilePath("a/b.cache"));
    EXPECT_EQ("/tmp/", FilePath("README"));
    EXPECT_EQ("/tmp/", FilePath("a/b"));
    EXPECT_EQ("/tmp/", FilePath(""));
}

TEST_F(FileList, PathIsThatOfTheExpandedName) {
    const Environment environment(Variables{{"D", "/e/d"}, {"C", "n.cache"}, {"N", "x/y"}});
    EXPECT_EQ("/e/d/", FilePath("$D/f"));
    EXPECT_EQ("/e/", FilePath("$D"));
    EXPECT_EQ("/tmp/kova/cache/", FilePath("$C"));
    EXPECT_EQ("/a/x/", FilePath("/a/$N"));
    EXPECT_EQ("/tmp/voxa/hubl/", FilePath("$U.x")) << "not set";
}

TEST_F(FileList, FullPathIsTheDirectoryOfItsKindAndTheName) {
    const Environment none(Variables{});
    EXPECT_EQ("/tmp/kova/m.kovamtx", FullFilePath("m.kovamtx"));
    EXPECT_EQ("/tmp/kova/cache/a/b.cache", FullFilePath("a/b.cache"));
    EXPECT_EQ("/tmp/README", FullFilePath("README"));
    EXPECT_EQ("/tmp/", FullFilePath(""));
}

TEST_F(FileList, FullPathOfAPathIsThePath) {
    const Environment none(Variables{});
    for (const char* path : {"/var/log/app.log", "/x", "./x", "../m.kovamtx", ".m.kovamtx", "/a/"}) {
        EXPECT_EQ(path, FullFilePath(path));
    }
}

TEST_F(FileList, FullPathIsExpandedBeforeAndAfterTheLookup) {
    const Environment environment(Variables{{"D", "/e/d"}, {"C", "n.cache"}, {"A", "$B"}, {"B", "value"}});
    EXPECT_EQ("/e/d/f", FullFilePath("$D/f"));
    EXPECT_EQ("/tmp/kova/cache/n.cache", FullFilePath("$C"));
    EXPECT_EQ("/tmp/value", FullFilePath("$A")) << "the first pass leaves $B";
    EXPECT_EQ("/x$B", FullFilePath("/x$A")) << "once only";
}

TEST_F(FileList, NameWithoutADirectoryOfItsKindHasNoPath) {
    const Environment none(Variables{});
    g_LookupFails = true;
    EXPECT_EQ("", FullFilePath("status.cache")) << "not the name alone";
    EXPECT_EQ("", FilePath("status.cache"));
    EXPECT_EQ("/a/b", FullFilePath("/a/b")) << "nobody is asked for that";
    g_LookupFails = false;
    EXPECT_EQ("/tmp/kova/cache/status.cache", FullFilePath("status.cache"));
}

TEST_F(FileList, PathsAreCutToTheirBuffer) {
    const Environment none(Variables{});
    EXPECT_EQ("/var/log/", FilePath("/var/log/app.log", 10));
    EXPECT_EQ("/var/log", FilePath("/var/log/app.log", 9));
    EXPECT_EQ("", FilePath("/var/log/app.log", 1));
    EXPECT_EQ("/tmp/", FilePath("README", 6));
    EXPECT_EQ("/tmp", FilePath("README", 5));
    EXPECT_EQ("", FilePath("README", 1));
    EXPECT_EQ("/tmp/README", FullFilePath("README", 12));
    EXPECT_EQ("/tmp/READM", FullFilePath("README", 11));
    EXPECT_EQ("/t", FullFilePath("README", 3));
    EXPECT_EQ("/x", FullFilePath("/xyz", 3));
}

TEST_F(FileList, NamesArePathsOfAtMost4095Characters) {
    const Environment none(Variables{});
    const std::string directory = "/" + std::string(4000, 'd') + "/";
    const std::string path = directory + std::string(500, 'n');
    EXPECT_EQ(directory, FilePath(path.c_str(), 2 * kPathSize));
    EXPECT_EQ(path.substr(0, 4095), FullFilePath(path.c_str(), 2 * kPathSize));
    const std::string late = "/" + std::string(4095, 'd') + "/x";
    EXPECT_EQ(late.substr(0, 4095), FilePath(late.c_str(), 2 * kPathSize)) << "the slash is cut off";
    const std::string bare(5000, 'n');
    EXPECT_EQ("/tmp/" + bare.substr(0, 4095), FullFilePath(bare.c_str(), 2 * kPathSize));
    EXPECT_EQ("/tmp/" + bare.substr(0, 4090), FullFilePath(bare.c_str()));
}

TEST_F(FileList, SizeOf0WritesNothing) {
    Buffer result(0);
    EXPECT_EQ(result.Get(), KovaFileName("/d", "x", "y", "log", result.Get(), 0));
    EXPECT_EQ(result.Get(), KovaFilePath("/var/log", result.Get(), 0));
    EXPECT_EQ(result.Get(), KovaFilePath("README", result.Get(), 0));
    EXPECT_EQ(result.Get(), KovaFilePath(nullptr, result.Get(), 0));
    EXPECT_EQ(result.Get(), KovaFullFilePath("/var/log", result.Get(), 0));
    EXPECT_EQ(result.Get(), KovaFullFilePath("README", result.Get(), 0));
    EXPECT_EQ(result.Get(), KovaGetNextFile("/x/n?", result.Get(), 0, 5));
    EXPECT_TRUE(result.IsUntouched());
}

TEST_F(FileList, ResultMayTakeThePlaceOfTheName) {
    const Environment none(Variables{});
    const auto in_place = [](const std::string& name, auto function) {
        Buffer buffer(100, name);
        EXPECT_EQ(buffer.Get(), function(buffer.Get(), buffer.Get(), 100));
        return buffer.Text();
    };
    EXPECT_EQ("/var/log/", in_place("/var/log/app.log", KovaFilePath));
    EXPECT_EQ("/tmp/kova/", in_place("m.kovamtx", KovaFilePath));
    EXPECT_EQ("/var/log/app.log", in_place("/var/log/app.log", KovaFullFilePath));
    EXPECT_EQ("/tmp/kova/m.kovamtx", in_place("m.kovamtx", KovaFullFilePath));
    const auto next = [](const char* pattern, char* result, unsigned size) {
        return KovaGetNextFile(pattern, result, size, 5);
    };
    EXPECT_EQ("/none/n0", in_place("/none/n?", next));
    EXPECT_EQ("log0", in_place("log?", next));
}

TEST_F(FileList, NullNamesGiveTheEmptyResult) {
    EXPECT_EQ("", FilePath(nullptr));
    EXPECT_EQ("", FullFilePath(nullptr));
    Buffer result(10);
    EXPECT_EQ(result.Get(), KovaGetNextFile(nullptr, result.Get(), result.Size(), 5));
    EXPECT_EQ("", result.Text());
}

TEST_F(FileList, NullResultIsABufferOfTheFunctionsOwn) {
    const Environment none(Variables{});
    for (const unsigned size : {kPathSize, 0U, 1U, 100000U}) {
        char* const name = KovaFileName("/d", "x", nullptr, "log", nullptr, size);
        char* const path = KovaFilePath("/var/log/app.log", nullptr, size);
        char* const full = KovaFullFilePath("README", nullptr, size);
        char* const next = KovaGetNextFile("/x/n?", nullptr, size, 5);
        EXPECT_STREQ("/d/x.log", name);
        EXPECT_STREQ("/var/log/", path);
        EXPECT_STREQ("/tmp/README", full);
        EXPECT_STREQ("/x/n0", next);
        EXPECT_EQ(4u, (std::set<char*>{name, path, full, next}).size()) << "each has one";
    }
}

TEST_F(FileList, OwnBufferIsWrittenByTheNextCall) {
    const Environment none(Variables{});
    char* const name = KovaFileName(nullptr, "long name", nullptr, nullptr, nullptr, 0);
    EXPECT_EQ(name, KovaFileName(nullptr, "x", nullptr, nullptr, nullptr, 0));
    EXPECT_STREQ("x", name);
    char* const path = KovaFilePath("README", nullptr, 0);
    EXPECT_EQ(path, KovaFilePath("/a/b", nullptr, 0));
    EXPECT_STREQ("/a/", path);
    char* const full = KovaFullFilePath("README", nullptr, 0);
    EXPECT_EQ(full, KovaFullFilePath("/a/b", nullptr, 0));
    EXPECT_STREQ("/a/b", full);
    char* const next = KovaGetNextFile("/x/n?", nullptr, 0, 5);
    EXPECT_EQ(next, KovaGetNextFile("/x/m?", nullptr, 0, 5));
    EXPECT_STREQ("/x/m0", next);
}

TEST_F(FileList, OwnBufferHolds4095Characters) {
    const Environment none(Variables{});
    const std::string path = "/" + std::string(5000, 'x');
    EXPECT_EQ(path.substr(0, 4095), KovaFileName(path.c_str(), nullptr, nullptr, nullptr, nullptr, 9999));
    EXPECT_EQ(path.substr(0, 4095), KovaFilePath(path.c_str(), nullptr, 9999));
    EXPECT_EQ(path.substr(0, 4095), KovaFullFilePath(path.c_str(), nullptr, 9999));
    EXPECT_EQ("/x/" + std::string(4092, 'n'),
              KovaGetNextFile(("/x/" + std::string(5000, 'n')).c_str(), nullptr, 9999, 5));
}

// --- The thread's listing directory ---

/// Runs on a thread that has no listing directory yet.
void OnNewThread(std::function<void()> run) { DeadlineThread(std::move(run)).Join(); }

TEST_F(FileList, ListingDirectoryIsTheWorkingDirectoryAtFirst) {
    char working_directory[kPathSize];
    ASSERT_NE(nullptr, ::getcwd(working_directory, sizeof working_directory));
    OnNewThread([&] {
        char* const directory = KovaGetThreadSafeDir();
        EXPECT_STREQ(working_directory, directory);
        EXPECT_EQ(directory, KovaGetThreadSafeDir());
    });
}

TEST_F(FileList, WorkingDirectoryIsAskedForOnceWithTheWholeBuffer) {
    OnNewThread([] {
        fake::Script asks(fake::getcwd, {[](char* buffer, size_t size) {
                              EXPECT_EQ(kPathSize, size);
                              std::memset(buffer, 'w', size - 1);
                              buffer[size - 1] = '\0';
                              return buffer;
                          }});
        EXPECT_EQ(std::string(4095, 'w'), KovaGetThreadSafeDir());
        fake::Always other(fake::getcwd, fake::Fail(ENOENT));
        EXPECT_EQ(std::string(4095, 'w'), KovaGetThreadSafeDir());
        EXPECT_EQ(0u, other.Calls());
    });
}

TEST_F(FileList, WorkingDirectoryThatCannotBeReadIsEmpty) {
    OnNewThread([] {
        fake::Script asks(fake::getcwd, {[](char* buffer, size_t) -> char* {
                              std::strcpy(buffer, "half");
                              errno = ERANGE;
                              return nullptr;
                          }});
        const TraceRecorder recorder;
        EXPECT_STREQ("", KovaGetThreadSafeDir());
        EXPECT_STREQ("", KovaGetThreadSafeDir());
        EXPECT_EQ(1u, recorder.All().size());
        EXPECT_TRUE(recorder.Has(kNoWorkingDirectory, {ERANGE}));
    });
}

TEST_F(FileList, ListingDirectoryIsWhatWasSet) {
    OnNewThread([] {
        void* const buffer = KovaSetThreadSafeDir("/first");
        EXPECT_STREQ("/first", KovaGetThreadSafeDir());
        EXPECT_EQ(buffer, KovaGetThreadSafeDir());
        EXPECT_EQ(buffer, KovaSetThreadSafeDir("x"));
        EXPECT_STREQ("x", KovaGetThreadSafeDir());
        KovaSetThreadSafeDir("$HOME/");
        EXPECT_STREQ("$HOME/", KovaGetThreadSafeDir()) << "as it is";
        KovaSetThreadSafeDir(nullptr);
        EXPECT_STREQ("", KovaGetThreadSafeDir());
    });
}

TEST_F(FileList, ListingDirectoryHolds4095Characters) {
    OnNewThread([] {
        const std::string directory(5000, 'd');
        KovaSetThreadSafeDir(directory.c_str());
        EXPECT_EQ(directory.substr(0, 4095), KovaGetThreadSafeDir());
        KovaSetThreadSafeDir(directory.substr(0, 4095).c_str());
        EXPECT_EQ(directory.substr(0, 4095), KovaGetThreadSafeDir());
    });
}

TEST_F(FileList, ListingDirectoryMaySetItself) {
    OnNewThread([] {
        KovaSetThreadSafeDir("/a/b/c");
        KovaSetThreadSafeDir(KovaGetThreadSafeDir());
        EXPECT_STREQ("/a/b/c", KovaGetThreadSafeDir());
        KovaSetThreadSafeDir(KovaGetThreadSafeDir() + 3);
        EXPECT_STREQ("b/c", KovaGetThreadSafeDir()) << "and to a part of itself";
    });
}

TEST_F(FileList, EachThreadHasItsOwnListingDirectory) {
    std::atomic<int> step{0};
    char* theirs = nullptr;
    DeadlineThread other([&] {
        theirs = static_cast<char*>(KovaSetThreadSafeDir("/theirs"));
        step = 1;
        EXPECT_TRUE(WaitUntil([&] { return step == 2; }));
        EXPECT_STREQ("/theirs", KovaGetThreadSafeDir());
    });
    EXPECT_TRUE(WaitUntil([&] { return step == 1; }));
    EXPECT_NE(theirs, KovaSetThreadSafeDir("/ours"));
    EXPECT_STREQ("/ours", KovaGetThreadSafeDir());
    EXPECT_STREQ("/theirs", theirs);
    step = 2;
    other.Join();
    EXPECT_STREQ("/ours", KovaGetThreadSafeDir());
}

TEST_F(FileList, ThreadsListDifferentDirectoriesAtTheSameTime) {
    const Directory first, second;
    for (int i = 0; i < 20; ++i) {
        first.Add("a" + std::to_string(i), 1000 - i);
        second.Add("b" + std::to_string(i), 1000 + i);
    }
    const auto list = [](const Directory& directory) {
        return [&directory] {
            const Names expected = Without(ByTime(directory.Path(), "*"), {".", ".."});
            for (int round = 0; round < 50; ++round) {
                EXPECT_EQ(expected, Without(ByTime(directory.Path(), "*"), {".", ".."}));
                EXPECT_EQ(directory.Path(), KovaGetThreadSafeDir());
            }
        };
    };
    DeadlineThread one(list(first));
    DeadlineThread other(list(second));
}

TEST_F(FileList, ListingDirectoryIsFreedWithItsThread) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizer's allocator does not count";
#endif
    constexpr size_t kThreads = 300;
    OnNewThread([] { KovaSetThreadSafeDir("/warm"); });
    const size_t before = ::mallinfo2().uordblks;
    for (size_t i = 0; i < kThreads; ++i) {
        OnNewThread([] { EXPECT_NE(nullptr, KovaSetThreadSafeDir("/x")); });
    }
    EXPECT_LT(::mallinfo2().uordblks, before + kThreads * kPathSize / 2);
}

// The key is made once in a process, so these need one of their own.

KOVA_PART(make_listing_directories) {
    std::atomic<int> keys{0};
    fake::Replace makes(fake::pthread_key_create, [&](pthread_key_t* key, void (*destructor)(void*)) {
        ++keys;
        EXPECT_NE(nullptr, destructor);
        return fake::pthread_key_create.Real(key, destructor);
    });
    {
        std::vector<std::unique_ptr<DeadlineThread>> threads;
        for (int i = 0; i < 4; ++i) {
            threads.push_back(
                std::make_unique<DeadlineThread>([] { EXPECT_NE(nullptr, KovaGetThreadSafeDir()); }));
        }
    }
    KovaSetThreadSafeDir("/x");
    process::Tell(std::to_string(keys));
    return 0;
}

TEST_F(FileList, KeyOfTheListingDirectoriesIsMadeOnce) {
    process::Process maker("make_listing_directories");
    EXPECT_EQ("1", maker.Hear());
    EXPECT_EQ(0, maker.Wait());
}

KOVA_PART(list_without_a_key) {
    fake::Always no_keys(fake::pthread_key_create, fake::Return(EAGAIN));
    const std::string& directory = args.at(0);
    const auto join = [](const Names& names) {
        std::string all;
        for (const std::string& name : names) all += name + " ";
        return all;
    };
    const TraceRecorder recorder;
    process::Tell(KovaGetThreadSafeDir() == nullptr ? "no directory" : "directory");
    process::Tell(KovaSetThreadSafeDir("/x") == nullptr ? "no directory" : "directory");
    process::Tell(join(ByName(directory, "[a-z]")));
    process::Tell(join(ByTime(directory, "[a-z]")));
    EXPECT_EQ(1u, recorder.All().size()) << "told once";
    EXPECT_TRUE(recorder.Has(kNoDirectoryKey, {EAGAIN}));
    return 0;
}

TEST_F(FileList, WithoutAListingDirectoryFilesAreListedAllTheSame) {
    const Directory directory;
    directory.Add("a", 2000);
    directory.Add("b", 1000);
    process::Process lister("list_without_a_key", {directory.Path()});
    EXPECT_EQ("no directory", lister.Hear());
    EXPECT_EQ("no directory", lister.Hear());
    EXPECT_EQ("a b ", lister.Hear());
    EXPECT_EQ("b a ", lister.Hear());
    EXPECT_EQ(0, lister.Wait());
}

KOVA_PART(list_with_a_key_that_keeps_nothing) {
    const fake::Script keys(fake::pthread_key_create, {[](pthread_key_t* key, void (*)(void*)) {
                                *key = PTHREAD_KEYS_MAX;
                                return 0;
                            }});
    const TraceRecorder recorder;
    EXPECT_EQ(nullptr, KovaGetThreadSafeDir());
    EXPECT_EQ(nullptr, KovaSetThreadSafeDir("/x"));
    EXPECT_EQ(2u, recorder.All().size()) << "each call tries again";
    EXPECT_TRUE(recorder.Has(kDirectoryNotKept, {EINVAL}));
    return 0;
}

TEST_F(FileList, ListingDirectoryThatCannotBeKeptIsNone) {
    process::Process lister("list_with_a_key_that_keeps_nothing");
    EXPECT_EQ(0, lister.Wait());
}

TEST_F(FileList, WithoutMemoryThereIsNoListingDirectory) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the memory is the sanitizer's";
#endif
    OnNewThread([] {
        const TraceRecorder recorder;
        t_NoMemory = true;
        char* const got = KovaGetThreadSafeDir();
        void* const set = KovaSetThreadSafeDir("/x");
        t_NoMemory = false;
        EXPECT_EQ(nullptr, got);
        EXPECT_EQ(nullptr, set);
        EXPECT_EQ(2u, recorder.All().size());
        EXPECT_TRUE(recorder.Has(kNoDirectoryMemory, {ENOMEM}));
        KovaSetThreadSafeDir("/x");
        EXPECT_STREQ("/x", KovaGetThreadSafeDir()) << "as soon as there is memory";
    });
}

// --- Listing by name ---

TEST_F(FileList, ListingTakesTheNamesThatMatchInOrder) {
    const Directory directory;
    for (const char* name : {"b.txt", "a.txt", "c.log"}) directory.Add(name);
    Buffer list(100);
    EXPECT_EQ(2, KovaListFile(directory.Path().c_str(), "*.txt", list.Get(), list.Size()));
    EXPECT_EQ(std::string("a.txt\0b.txt\0", 12) + std::string(88, '\0'), list.Bytes(100));
    EXPECT_EQ((Names{"c.log"}), ByName(directory.Path(), "c*"));
    EXPECT_THAT(ByName(directory.Path(), "d*"), IsEmpty());
}

TEST_F(FileList, ThreeFunctionsListByName) {
    const Directory directory;
    directory.Add("b", 1000);
    directory.Add("a", 2000);
    const auto ordered = [](const char* dir, const char* pattern, char* list, unsigned int size) {
        return KovaListFileOrdered(dir, pattern, list, size, 0);
    };
    EXPECT_EQ((Names{"a", "b"}), List(KovaListFile, directory.Path(), "[ab]"));
    EXPECT_EQ((Names{"a", "b"}), List(KovaListFileByAlpha, directory.Path(), "[ab]"));
    EXPECT_EQ((Names{"a", "b"}), List(ordered, directory.Path(), "[ab]"));
}

TEST_F(FileList, ListingByNameHasTheOrderOfAlphasort) {
    const Directory directory;
    for (const char* name : {"b", "B", "a10", "a2", "_", "~", "\xC3\xA4", "z z", "-"}) directory.Add(name);
    EXPECT_EQ(Scan(directory.Path(), ::alphasort), ByName(directory.Path(), "*"));
}

TEST_F(FileList, ListingByNameReadsNoTimes) {
    const Directory directory;
    directory.Add("a");
    const fake::Counter reads(fake::file_status, fake::kThisThread);
    EXPECT_EQ((Names{"a"}), ByName(directory.Path(), "a"));
    EXPECT_EQ(0u, reads.Calls());
}

TEST_F(FileList, PatternMatchesLeadingDotsToo) {
    const Directory directory;
    for (const char* name : {"a", ".a"}) directory.Add(name);
    EXPECT_EQ((Names{".", "..", ".a", "a"}), ByName(directory.Path(), "*"));
    EXPECT_EQ((Names{".", "a"}), ByName(directory.Path(), "?"));
    EXPECT_EQ((Names{".."}), ByName(directory.Path(), "?."));
    EXPECT_EQ((Names{".a", "a"}), ByName(directory.Path(), "*a"));
}

TEST_F(FileList, PatternIsAWildcardPattern) {
    const Directory directory;
    for (const char* name : {"a1", "b1", "c1", "A1", "*1", "a11"}) directory.Add(name);
    EXPECT_EQ((Names{"a1", "b1"}), ByName(directory.Path(), "[ab]1"));
    EXPECT_EQ((Names{"*1", "A1", "c1"}), ByName(directory.Path(), "[!ab]1"));
    EXPECT_EQ((Names{"*1"}), ByName(directory.Path(), "\\*1"));
    EXPECT_EQ((Names{"a1"}), ByName(directory.Path(), "a?"));
    EXPECT_EQ((Names{"a1"}), ByName(directory.Path(), "a1"));
    EXPECT_THAT(ByName(directory.Path(), ""), IsEmpty());
}

TEST_F(FileList, PatternWithADirectoryMatchesNothing) {
    const Directory directory;
    directory.Add("a.txt");
    EXPECT_THAT(ByName(directory.Path(), (directory / "*.txt").c_str()), IsEmpty());
    EXPECT_THAT(ByName(directory.Path(), "./a.txt"), IsEmpty());
    EXPECT_THAT(ByName("/tmp", (directory.Path().substr(5) + "*").c_str()), IsEmpty());
}

TEST_F(FileList, PatternIsNotExpanded) {
    const Directory directory;
    for (const char* name : {"$A", "value"}) directory.Add(name);
    const Environment environment(Variables{{"A", "value"}});
    EXPECT_EQ((Names{"$A"}), ByName(directory.Path(), "$A"));
}

TEST_F(FileList, DirectoryIsListedWithAndWithoutItsSlash) {
    const Directory directory;
    directory.Add("a");
    EXPECT_EQ((Names{"a"}), ByName(directory.WithoutSlash(), "a"));
    EXPECT_EQ(directory.WithoutSlash(), KovaGetThreadSafeDir()) << "kept as it was given";
    EXPECT_EQ((Names{"a"}), ByName(directory.Path(), "a"));
    EXPECT_EQ(directory.Path(), KovaGetThreadSafeDir());
}

TEST_F(FileList, DirectoryIsExpanded) {
    const Directory directory;
    directory.Add("a");
    const Environment environment(Variables{{"D", directory.WithoutSlash()}});
    EXPECT_EQ((Names{"a"}), ByName("$D", "a"));
    EXPECT_EQ(directory.WithoutSlash(), KovaGetThreadSafeDir());
    EXPECT_EQ((Names{"a"}), ByTime("$D/", "a"));
    EXPECT_EQ(directory.Path(), KovaGetThreadSafeDir());
}

TEST_F(FileList, NullDirectoryIsThatOfThePattern) {
    const Environment none(Variables{});
    const Directory directory("/tmp/kova/cache/");
    directory.Add("b.cache", 1000);
    directory.Add("a.cache", 2000);
    directory.Add("a.other", 3000);
    EXPECT_EQ((Names{"a.cache", "b.cache"}), List(KovaListFile, nullptr, "*.cache"));
    EXPECT_STREQ("/tmp/kova/cache/", KovaGetThreadSafeDir());
    EXPECT_EQ((Names{"b.cache", "a.cache"}), List(KovaListFileByDateTime, nullptr, "*.cache"))
        << "it has its slash";
}

TEST_F(FileList, NullDirectoryAndAPatternWithOneListNothingOfIt) {
    const Directory directory;
    directory.Add("a");
    EXPECT_THAT(List(KovaListFile, nullptr, (directory / "*").c_str()), IsEmpty());
    EXPECT_EQ(directory.Path(), KovaGetThreadSafeDir());
}

TEST_F(FileList, EmptyDirectoryTextListsTheRoot) {
    const Environment environment(Variables{{"EMPTY", ""}});
    const Names root = Scan("/", ::alphasort);
    EXPECT_EQ(root, ByName("", "*"));
    EXPECT_STREQ("", KovaGetThreadSafeDir());
    EXPECT_EQ(root, ByName("$EMPTY", "*"));
    EXPECT_EQ(root, ByName("/", "*"));
    EXPECT_STREQ("/", KovaGetThreadSafeDir());
}

TEST_F(FileList, ListingDirectoryMayBeListed) {
    const Directory directory;
    directory.Add("a");
    KovaSetThreadSafeDir(directory.Path().c_str());
    EXPECT_EQ((Names{"a"}), List(KovaListFileByDateTime, KovaGetThreadSafeDir(), "a"));
    EXPECT_EQ(directory.Path(), KovaGetThreadSafeDir());
}

TEST_F(FileList, TextOfTheDirectoryMayLieInTheList) {
    const Directory directory;
    directory.Add("a", 2000);
    directory.Add("b", 1000);
    for (const int by_time : {0, 1}) {
        Buffer list(200, directory.Path());
        EXPECT_EQ(2, KovaListFileOrdered(list.Get(), "[ab]", list.Get(), list.Size(), by_time));
        EXPECT_EQ((by_time != 0 ? Names{"b", "a"} : Names{"a", "b"}), NamesIn(list.Get()));
        EXPECT_EQ(directory.Path(), KovaGetThreadSafeDir());
    }
}

TEST_F(FileList, PatternInTheListNamesItsDirectoryAndMatchesNothing) {
    const Environment none(Variables{});
    const Directory directory("/tmp/kova/cache/");
    directory.Add("a.cache");
    for (const int by_time : {0, 1}) {
        KovaSetThreadSafeDir("/x");
        Buffer list(200, "*.cache");
        EXPECT_EQ(0, KovaListFileOrdered(nullptr, list.Get(), list.Get(), list.Size(), by_time))
            << "it is overwritten before the names are compared";
        EXPECT_EQ(directory.Path(), KovaGetThreadSafeDir());
        EXPECT_EQ(std::string(200, '\0'), list.Bytes(200));
    }
}

TEST_F(FileList, DirectoryThatCannotBeReadGivesAnEmptyList) {
    const Directory directory;
    directory.Add("file");
    const std::vector<std::pair<std::string, int>> cases{{directory / "none/", ENOENT},
                                                         {directory / "file", ENOTDIR}};
    for (const auto& [path, error] : cases) {
        for (const int by_time : {0, 1}) {
            TraceRecorder recorder;
            Buffer list(10);
            EXPECT_EQ(0, KovaListFileOrdered(path.c_str(), "*", list.Get(), list.Size(), by_time));
            EXPECT_EQ(std::string(10, '\0'), list.Bytes(10));
            EXPECT_EQ(path, KovaGetThreadSafeDir()) << "stored all the same";
            const std::vector<TraceRecord> records = recorder.Find(kNotListed);
            ASSERT_EQ(1u, records.size());
            EXPECT_EQ(static_cast<uint32_t>(error), records[0].values[1]);
        }
    }
}

TEST_F(FileList, LongDirectoryIsCutAndNothingFound) {
    const std::string path = "/tmp/" + std::string(5000, '/');
    EXPECT_FALSE(ByName(path, "*").empty()) << "slashes add up to nothing";
    EXPECT_EQ(path.substr(0, 4095), KovaGetThreadSafeDir());
    EXPECT_THAT(ByName("/tmp/" + std::string(5000, 'x'), "*"), IsEmpty());
    EXPECT_EQ("/tmp/" + std::string(4090, 'x'), KovaGetThreadSafeDir());
}

TEST_F(FileList, WithoutPatternOrListNothingIsListed) {
    const Directory directory;
    directory.Add("a");
    const char* const path = directory.Path().c_str();
    for (const int by_time : {0, 1}) {
        EXPECT_EQ(0, KovaListFileOrdered(path, "*", nullptr, 100, by_time));
        EXPECT_EQ(0, KovaListFileOrdered(nullptr, "*", nullptr, 100, by_time));
        Buffer list(10);
        EXPECT_EQ(0, KovaListFileOrdered(path, nullptr, list.Get(), list.Size(), by_time));
        EXPECT_EQ(0, KovaListFileOrdered(nullptr, nullptr, list.Get(), list.Size(), by_time));
        EXPECT_EQ(std::string(10, '\0'), list.Bytes(10));
    }
    EXPECT_EQ(0, KovaListFile(path, "*", nullptr, 100));
    EXPECT_EQ(0, KovaListFileByDateTime(path, "*", nullptr, 100));
}

TEST_F(FileList, ListingFreesWhatItHasRead) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizer's allocator does not count";
#endif
    constexpr size_t kFiles = 50, kRounds = 50, kSmallest = 16;
    const Directory directory;
    for (size_t i = 0; i < kFiles; ++i) directory.Add(std::to_string(i));
    Buffer list(1000);
    const auto list_once = [&] {
        EXPECT_LT(0, KovaListFile(directory.Path().c_str(), "*", list.Get(), list.Size()));
        EXPECT_LT(0, KovaListFileByDateTime(directory.Path().c_str(), "*", list.Get(), list.Size()));
    };
    list_once();
    const size_t before = ::mallinfo2().uordblks;
    for (size_t i = 0; i < kRounds; ++i) list_once();
    EXPECT_LT(::mallinfo2().uordblks, before + kRounds * kFiles * kSmallest);
}

// --- The size of a list ---

TEST_F(FileList, ListEndsWhereANameAndTheEndMarkDoNotFit) {
    const Directory directory;
    for (const char* name : {"a", "bb", "ccc"}) directory.Add(name);
    const std::string all("a\0bb\0ccc\0", 9);
    struct Case {
        unsigned size;
        int count;
        size_t used;
    };
    for (const Case& wanted : {Case{100, 3, 9}, Case{11, 3, 9}, Case{10, 3, 9}, Case{9, 2, 5}, Case{6, 2, 5},
                               Case{5, 1, 2}, Case{4, 1, 2}, Case{3, 1, 2}, Case{2, 0, 0}, Case{1, 0, 0}}) {
        for (const int by_time : {0, 1}) {
            // The order by time is that by name here.
            directory.SetTime("a", 1);
            directory.SetTime("bb", 2);
            directory.SetTime("ccc", 3);
            Buffer list(wanted.size);
            EXPECT_EQ(wanted.count, KovaListFileOrdered(directory.Path().c_str(), "[abc]*", list.Get(),
                                                        wanted.size, by_time))
                << wanted.size;
            EXPECT_EQ(all.substr(0, wanted.used) + std::string(wanted.size - wanted.used, '\0'),
                      list.Bytes(wanted.size))
                << wanted.size;
        }
    }
}

TEST_F(FileList, ListOfSize0IsNotWritten) {
    const Directory directory;
    directory.Add("a");
    Buffer list(0);
    EXPECT_EQ(0, KovaListFile(directory.Path().c_str(), "*", list.Get(), 0));
    EXPECT_EQ(0, KovaListFileByDateTime(directory.Path().c_str(), "*", list.Get(), 0));
    EXPECT_TRUE(list.IsUntouched());
}

TEST_F(FileList, ListEndsWithTheFirstNameThatDoesNotFit) {
    const Directory directory;
    for (const char* name : {"a", "bbbbbb", "c"}) directory.Add(name);
    Buffer list(8);
    EXPECT_EQ(1, KovaListFile(directory.Path().c_str(), "[abc]*", list.Get(), list.Size()));
    EXPECT_EQ(std::string("a\0\0\0\0\0\0\0", 8), list.Bytes(8)) << "though a later one would";
}

TEST_F(FileList, LongestNamesAreListed) {
    const Directory directory;
    const std::string first(kLongestName, 'a'), second(kLongestName, 'b');
    directory.Add(first, 2000);
    directory.Add(second, 1000);
    EXPECT_EQ((Names{first, second}), ByName(directory.Path(), "[ab]*"));
    EXPECT_EQ((Names{second, first}), ByTime(directory.Path(), "[ab]*"));
    Buffer exact(2 * (kLongestName + 1) + 1);
    EXPECT_EQ(2, KovaListFile(directory.Path().c_str(), "[ab]*", exact.Get(), exact.Size()));
    Buffer small(2 * (kLongestName + 1));
    EXPECT_EQ(1, KovaListFile(directory.Path().c_str(), "[ab]*", small.Get(), small.Size()));
}

// --- Listing by time ---

TEST_F(FileList, OldestFileComesFirst) {
    const Directory directory;
    directory.Add("a", 3000);
    directory.Add("b", 1000);
    directory.Add("c", 2000);
    const auto ordered = [](const char* dir, const char* pattern, char* list, unsigned int size) {
        return KovaListFileOrdered(dir, pattern, list, size, -1);
    };
    EXPECT_EQ((Names{"b", "c", "a"}), ByTime(directory.Path(), "[abc]"));
    EXPECT_EQ((Names{"b", "c", "a"}), List(ordered, directory.Path(), "[abc]")) << "anything but 0";
}

TEST_F(FileList, SecondsCountBeforeNanoseconds) {
    const Directory directory;
    directory.Add("a", 1000, 999999999);
    directory.Add("b", 1001, 0);
    directory.Add("c", 1000, 1);
    directory.Add("d", 1000, 0);
    EXPECT_EQ((Names{"d", "c", "a", "b"}), ByTime(directory.Path(), "[abcd]"));
}

TEST_F(FileList, TimesFarAwayAreOrdered) {
    const Directory directory;
    directory.Add("a", int64_t{1} << 33);
    directory.Add("b", 1000);
    directory.Add("c", -1000);
    directory.Add("d", (int64_t{1} << 31) + 5);
    directory.Add("e", (int64_t{1} << 32) + 5);
    EXPECT_EQ((Names{"c", "b", "d", "e", "a"}), ByTime(directory.Path(), "[abcde]"));
}

TEST_F(FileList, EqualTimesKeepTheOrderOfTheDirectory) {
    const Directory directory;
    for (const char* name : {"m", "z", "a", "q", "b", "y", "c"}) directory.Add(name, 1000, 5);
    directory.Add("first", 999);
    Names unsorted = Without(Scan(directory.Path(), nullptr), {"first"});
    unsorted.insert(unsorted.begin(), "first");
    EXPECT_EQ(Without(unsorted, {".", ".."}), Without(ByTime(directory.Path(), "*"), {".", ".."}));
    EXPECT_EQ(ScanByTime(directory.Path(), directory.Path()), ByTime(directory.Path(), "*"));
}

TEST_F(FileList, OrderIsThatOfTheComparison) {
    const Directory directory;
    std::minstd_rand random(7);
    for (int i = 0; i < 400; ++i) {
        directory.Add("f" + std::to_string(random()), 1000 + static_cast<int64_t>(random() % 40),
                      static_cast<int64_t>(random() % 3));
    }
    const Names expected = ScanByTime(directory.Path(), directory.Path());
    EXPECT_LT(400u, expected.size());
    EXPECT_EQ(expected, ByTime(directory.Path(), "*"));
}

TEST_F(FileList, TimeOfEachEntryIsReadOnce) {
    const Directory directory;
    std::map<std::string, int> expected{{directory / ".", 1}, {directory / "..", 1}};
    for (int i = 0; i < 100; ++i) {
        const std::string name = "f" + std::to_string(i);
        directory.Add(name, 1000 + i * 7 % 13);
        expected[directory / name] = 1;
    }
    std::map<std::string, int> reads;
    const auto count = [&](const char* path, void* status) {
        ++reads[path];
        return fake::file_status.Real(path, status);
    };
    const fake::Replace status(fake::file_status, count, fake::kThisThread);
    EXPECT_EQ((Names{"f0"}), ByTime(directory.Path(), "f0"));
    EXPECT_EQ(expected, reads);
}

TEST_F(FileList, EmptyAndLargeDirectoriesAreListedByTime) {
    const Directory directory;
    EXPECT_THAT(ByTime(directory.Path(), "[!.]*"), IsEmpty());
    EXPECT_EQ(2u, ByTime(directory.Path(), "*").size());
    constexpr int kFiles = 3000;
    Names expected;
    for (int i = 0; i < kFiles; ++i) {
        expected.push_back(std::to_string(i));
        directory.Add(expected.back(), 1000 + i);
    }
    EXPECT_EQ(expected, ByTime(directory.Path(), "[!.]*"));
}

// What the comparison gives where a time cannot be read, the messages included.

TEST_F(FileList, DirectoryWithoutSlashFindsNoTimes) {
    const Directory directory;
    directory.Add("a", 2000);
    directory.Add("b", 1000);
    Names scanned, listed;
    const std::string of_scan =
        ErrorOutputOf([&] { scanned = ScanByTime(directory.WithoutSlash(), directory.WithoutSlash()); });
    const std::string of_list = ErrorOutputOf([&] { listed = ByTime(directory.WithoutSlash(), "*"); });
    EXPECT_EQ(scanned, listed);
    EXPECT_EQ(Messages(of_scan), Messages(of_list));
    EXPECT_EQ(Scan(directory.Path(), nullptr), listed) << "all count as equal";
    EXPECT_THAT(of_list, testing::HasSubstr("could not stat " + directory.WithoutSlash()));
    EXPECT_THAT(of_list, testing::Not(testing::HasSubstr("stat " + directory.Path())));
}

TEST_F(FileList, DanglingLinkIsToldAndCountsAsEqual) {
    const Directory directory;
    for (const char* name : {"d", "b", "f", "a", "e", "c"}) directory.Add(name, 1000 + *name);
    ASSERT_EQ(0, ::symlink("nowhere", (directory / "link").c_str()));
    Names scanned, listed;
    const std::string of_scan =
        ErrorOutputOf([&] { scanned = ScanByTime(directory.Path(), directory.Path()); });
    const std::string of_list = ErrorOutputOf([&] { listed = ByTime(directory.Path(), "*"); });
    EXPECT_EQ(scanned, listed);
    EXPECT_EQ(Messages(of_scan), Messages(of_list));
    EXPECT_EQ(0u, of_list.find("could not stat " + (directory / "link\n"))) << of_list;
    EXPECT_EQ(9u, listed.size());
}

TEST_F(FileList, UnreadableFilesAreToldWhereverTheyStand) {
    const Directory directory;
    std::minstd_rand random(3);
    for (int i = 0; i < 40; ++i) {
        directory.Add("f" + std::to_string(i), 1000 + static_cast<int64_t>(random() % 10));
    }
    for (const char* end : {"/f0", "/f17", "/..", "7"}) {
        const fake::Replace status(fake::file_status, FailsFor(end), fake::kThisThread);
        Names scanned, listed;
        const std::string of_scan =
            ErrorOutputOf([&] { scanned = ScanByTime(directory.Path(), directory.Path()); });
        const std::string of_list = ErrorOutputOf([&] { listed = ByTime(directory.Path(), "*"); });
        EXPECT_EQ(scanned, listed) << end;
        EXPECT_EQ(Messages(of_scan), Messages(of_list)) << end;
        EXPECT_FALSE(of_list.empty()) << end;
    }
}

// --- The comparison ---

dirent EntryOf(const std::string& name) {
    dirent entry{};
    name.copy(entry.d_name, sizeof entry.d_name - 1);
    return entry;
}

int Compare(const std::string& a, const std::string& b) {
    const dirent entry_a = EntryOf(a), entry_b = EntryOf(b);
    const dirent* const pointer_a = &entry_a;
    const dirent* const pointer_b = &entry_b;
    return DateTimeSort(const_cast<const dirent**>(&pointer_a), const_cast<const dirent**>(&pointer_b));
}

TEST_F(FileList, ComparisonTellsTheOlderOfTwoFiles) {
    const Directory directory;
    directory.Add("old", 1000, 500);
    directory.Add("new", 1001, 0);
    directory.Add("newer", 1001, 1);
    directory.Add("same", 1001, 1);
    directory.Add("past", -5);
    directory.Add("far", int64_t{1} << 33);
    KovaSetThreadSafeDir(directory.Path().c_str());
    const Names by_time{"past", "old", "new", "newer", "far"};
    for (size_t i = 0; i < by_time.size(); ++i) {
        for (size_t j = 0; j < by_time.size(); ++j) {
            const int order = Compare(by_time[i], by_time[j]);
            EXPECT_EQ(i < j, order < 0) << by_time[i] << " " << by_time[j];
            EXPECT_EQ(i > j, order > 0) << by_time[i] << " " << by_time[j];
        }
    }
    EXPECT_EQ(0, Compare("newer", "same"));
    EXPECT_EQ(0, Compare("same", "newer"));
}

TEST_F(FileList, ComparisonPutsTheListingDirectoryRightBeforeTheName) {
    const Directory directory;
    directory.Add("prefix_a", 1000);
    directory.Add("prefix_b", 2000);
    KovaSetThreadSafeDir((directory / "prefix_").c_str());
    EXPECT_GT(0, Compare("a", "b"));
    OnNewThread([&] {
        EXPECT_EQ("could not stat " + std::string(KovaGetThreadSafeDir()) + "a\n",
                  ErrorOutputOf([] { EXPECT_EQ(0, Compare("a", "b")); }))
            << "the thread's own, which is the working directory";
    });
}

TEST_F(FileList, FileThatCannotBeReadIsEqualAndTold) {
    const Directory directory;
    directory.Add("a", 1000);
    KovaSetThreadSafeDir(directory.Path().c_str());
    const std::string none = "could not stat " + (directory / "none\n");
    EXPECT_EQ(none, ErrorOutputOf([] { EXPECT_EQ(0, Compare("none", "a")); }));
    EXPECT_EQ(none, ErrorOutputOf([] { EXPECT_EQ(0, Compare("a", "none")); }));
    EXPECT_EQ(none, ErrorOutputOf([] { EXPECT_EQ(0, Compare("none", "neither")); })) << "the first only";
    EXPECT_EQ("", ErrorOutputOf([] { EXPECT_EQ(0, Compare("a", "a")); }));
}

TEST_F(FileList, LongestDirectoryAndNameAreToldInFull) {
    const std::string directory(4095, '/');
    const std::string name(kLongestName, 'n');
    KovaSetThreadSafeDir(directory.c_str());
    EXPECT_EQ("could not stat " + directory + name + "\n",
              ErrorOutputOf([&] { EXPECT_EQ(0, Compare(name, name)); }));
}

// --- Numbered files ---

std::string NextFile(const std::string& pattern, unsigned max_files, unsigned size = kPathSize) {
    Buffer result(size);
    EXPECT_EQ(result.Get(), KovaGetNextFile(pattern.c_str(), result.Get(), size, max_files));
    return result.Text();
}

/// Makes every file exist while it lives, and notes whose status was read.
class AllExist {
  public:
    AllExist()
        : m_Status(
              fake::file_status,
              [this](const char* path, void* status) {
                  m_Paths.push_back(path);
                  return fake::file_status.Real("/", status);
              },
              fake::kThisThread) {}

    const Names& Paths() const { return m_Paths; }

  private:
    Names m_Paths;
    const fake::Replace<int(const char*, void*)> m_Status;
};

/// Makes all files exist but those whose path ends like this.
auto AllButOne(const std::string& end) {
    return [end](const char* path, void* status) {
        return fake::file_status.Real(std::string(path).ends_with(end) ? "/no such file" : "/", status);
    };
}

TEST_F(FileList, FirstFreeNumberComesNext) {
    const Directory directory;
    EXPECT_EQ(directory / "trace_00.log", NextFile(directory / "trace_??.log", 50));
    directory.Add("trace_00.log");
    directory.Add("trace_01.log");
    directory.Add("trace_03.log");
    EXPECT_EQ(directory / "trace_02.log", NextFile(directory / "trace_??.log", 50));
    EXPECT_FALSE(std::filesystem::exists(directory / "trace_02.log")) << "it is not made";
}

TEST_F(FileList, OldestFileComesNextWhenAllExist) {
    const Directory directory;
    for (int i = 0; i < 50; ++i) {
        directory.Add("trace_" + std::to_string(i / 10) + std::to_string(i % 10) + ".log", 5000 + i * 7 % 50);
    }
    directory.SetTime("trace_33.log", 4000);
    EXPECT_EQ(directory / "trace_33.log", NextFile(directory / "trace_??.log", 50));
    directory.SetTime("trace_49.log", 3999);
    EXPECT_EQ(directory / "trace_49.log", NextFile(directory / "trace_??.log", 50)) << "the last counts";
    EXPECT_EQ(directory / "trace_33.log", NextFile(directory / "trace_??.log", 49)) << "and no further one";
    directory.SetTime("trace_00.log", 0);
    EXPECT_EQ(directory / "trace_00.log", NextFile(directory / "trace_??.log", 50));
}

TEST_F(FileList, LowerNumberComesNextOfFilesOfOneSecond) {
    const Directory directory;
    directory.Add("n0", 2000);
    directory.Add("n1", 1000, 900);
    directory.Add("n2", 1000, 100);
    directory.Add("n3", 1000);
    EXPECT_EQ(directory / "n1", NextFile(directory / "n?", 4));
}

TEST_F(FileList, FilesOfAnyTimeAreNumbered) {
    const Directory directory;
    directory.Add("n0", int64_t{1} << 33);
    EXPECT_EQ(directory / "n0", NextFile(directory / "n?", 1)) << "the first counts however new it is";
    directory.Add("n1", (int64_t{1} << 32) + 7);
    EXPECT_EQ(directory / "n1", NextFile(directory / "n?", 2));
    directory.Add("n2", -7);
    EXPECT_EQ(directory / "n2", NextFile(directory / "n?", 3));
}

TEST_F(FileList, StarTakesAsManyDigitsAsTheCountNeeds) {
    const std::vector<std::pair<unsigned, const char*>> cases{
        {1, "0"},      {10, "0"},      {11, "00"},      {100, "00"}, {101, "000"},
        {1000, "000"}, {1001, "0000"}, {10000, "0000"}, {10001, ""}, {4294967295U, ""}};
    for (const auto& [max_files, number] : cases) {
        EXPECT_EQ(std::string("/none/n") + number + ".log", NextFile("/none/n*.log", max_files)) << max_files;
    }
}

TEST_F(FileList, NumbersOfLargeCountsHaveTheirNaturalLength) {
    for (const char* free : {"n", "n1", "n9", "n10", "n99", "n12345"}) {
        const fake::Replace status(fake::file_status, AllButOne(free + std::string(".log")),
                                   fake::kThisThread);
        EXPECT_EQ("/none/" + std::string(free) + ".log", NextFile("/none/n*.log", 20000));
    }
    const fake::Replace status(fake::file_status, AllButOne("n9999"), fake::kThisThread);
    EXPECT_EQ("/none/n9999", NextFile("/none/n*", 10000)) << "four digits hold all of these";
}

TEST_F(FileList, NumbersGrowBeyondTheirMarks) {
    for (const char* free : {"n9", "n10", "n123"}) {
        const fake::Replace status(fake::file_status, AllButOne(free), fake::kThisThread);
        EXPECT_EQ("/none/" + std::string(free), NextFile("/none/n?", 1000));
    }
    const fake::Replace status(fake::file_status, AllButOne("n012"), fake::kThisThread);
    EXPECT_EQ("/none/n012", NextFile("/none/n???", 1000));
}

TEST_F(FileList, FirstRunOfMarksIsTheWidthAndTheFirstMarkThePlace) {
    const std::vector<std::pair<const char*, const char*>> cases{
        {"a?b", "a0b"},     {"a???b", "a000b"},  {"?", "0"},           {"*", "0"},
        {"a?b??c", "a0bc"}, {"a??b?c", "a00bc"}, {"a??b*c?", "a00bc"}, {"a*b*", "a0b"},
        {"a*b??c", "a0bc"}, {"a*??", "a0"},      {"a??*", "a00"},      {"?????????????", "0000000000000"}};
    for (const auto& [pattern, name] : cases) {
        EXPECT_EQ("/none/" + std::string(name), NextFile("/none/" + std::string(pattern), 5)) << pattern;
    }
    EXPECT_EQ("/none/a00bc", NextFile("/none/a*b??c", 11)) << "a star before the run: the count decides";
}

TEST_F(FileList, MarksInTheDirectoryCountForTheWidthAndStay) {
    EXPECT_EQ("/d??\?/n000", NextFile("/d??\?/n*", 5));
    EXPECT_EQ("/d??\?/n000", NextFile("/d??\?/n?", 5));
    EXPECT_EQ("/d*/n0", NextFile("/d*/n???", 5));
    EXPECT_EQ("/d?*/n0", NextFile("/d?*/n???", 5));
}

TEST_F(FileList, NameWithoutMarksIsNext) {
    const Directory directory;
    EXPECT_EQ(directory / "plain.log", NextFile(directory / "plain.log", 5));
    directory.Add("plain.log");
    EXPECT_EQ(directory / "plain.log", NextFile(directory / "plain.log", 5));
    EXPECT_EQ(directory.Path(), NextFile(directory.Path(), 5)) << "as the empty name is";
}

TEST_F(FileList, StatusOfEachNumberIsReadOnceInOrder) {
    AllExist all;
    EXPECT_EQ("/none/n0", NextFile("/none/n?", 4));
    EXPECT_THAT(all.Paths(), ElementsAre("/none/n0", "/none/n1", "/none/n2", "/none/n3"));
}

TEST_F(FileList, AnyFailureOfTheStatusMeansFree) {
    fake::Script status(fake::file_status, {fake::Fail(EACCES)}, fake::kThisThread);
    EXPECT_EQ("/none/n0", NextFile("/none/n?", 4));
    const std::string long_name(kLongestName, 'n');
    EXPECT_EQ("/tmp/" + long_name + "0", NextFile("/tmp/" + long_name + "?", 4)) << "too long to exist";
}

TEST_F(FileList, NumberedFileOfABareNameLiesInThePlaceOfItsKind) {
    const Environment none(Variables{});
    const Directory directory("/tmp/voxa/hubl/");
    EXPECT_EQ("trace_00.log", NextFile("trace_??.log", 50));
    directory.Add("trace_00.log", 2000);
    directory.Add("trace_01.log", 1000);
    EXPECT_EQ("trace_02.log", NextFile("trace_??.log", 50)) << "without the directory";
    EXPECT_EQ("trace_01.log", NextFile("trace_??.log", 2));
    AllExist all;
    EXPECT_EQ("log0", NextFile("log*", 2));
    EXPECT_EQ("log0", NextFile("sub/log*", 2)) << "what is behind the last slash only";
    EXPECT_THAT(all.Paths(), ElementsAre("/tmp/log0", "/tmp/log1", "/tmp/log0", "/tmp/log1"));
}

TEST_F(FileList, FreeNumberOfABareStarIs0) { EXPECT_EQ("log0", NextFile("log*", 5)); }

TEST_F(FileList, NumberedFileOfAPathHasItsDirectory) {
    const Environment none(Variables{});
    EXPECT_EQ("./n0", NextFile("./n?", 5));
    EXPECT_EQ("../none/n0", NextFile("../none/n?", 5));
    EXPECT_EQ("/none/n0", NextFile("/none/n?", 5));
}

TEST_F(FileList, PatternWithASlashAtItsBeginningOnlyIsItsOwnDirectory) {
    const Environment none(Variables{});
    EXPECT_EQ("/n?n0", NextFile("/n?", 5));
    EXPECT_EQ(".n?.n0", NextFile(".n?", 5));
}

TEST_F(FileList, DirectoryOfANumberedFileIsExpandedAndItsNameIsNot) {
    const Environment environment(Variables{{"D", "/none"}, {"N", "x.cache"}});
    AllExist all;
    EXPECT_EQ("n0", NextFile("$D/n?", 1)) << "the pattern begins with neither slash nor dot";
    EXPECT_EQ("/none/$N0", NextFile("/none/$N?", 1));
    EXPECT_EQ("$N0", NextFile("$N*", 1));
    EXPECT_THAT(all.Paths(), ElementsAre("/none/n0", "/none/$N0", "/tmp/voxa/hubl/$N0"));
}

TEST_F(FileList, NoFilesGiveTheEmptyText) {
    for (const char* pattern : {"/none/n?", "n*", "/none/plain", ""}) EXPECT_EQ("", NextFile(pattern, 0));
    EXPECT_STREQ("", KovaGetNextFile("/none/n?", nullptr, 0, 0));
}

TEST_F(FileList, NumberedFileIsCutToItsBuffer) {
    EXPECT_EQ("/none/n0", NextFile("/none/n?", 5, 9));
    EXPECT_EQ("/none/n", NextFile("/none/n?", 5, 8));
    EXPECT_EQ("/", NextFile("/none/n?", 5, 2));
    EXPECT_EQ("", NextFile("/none/n?", 5, 1));
    EXPECT_EQ("lo", NextFile("log?", 5, 3));
}

TEST_F(FileList, ZerosFillTheBufferBehindANumberedFile) {
    const Environment none(Variables{});
    constexpr unsigned kSize = 100;
    const auto expect = [](const std::string& pattern, unsigned max_files, std::string name) {
        Buffer result(kSize);
        KovaGetNextFile(pattern.c_str(), result.Get(), kSize, max_files);
        name.resize(kSize, '\0');
        EXPECT_EQ(name, result.Bytes(kSize)) << pattern;
    };
    expect("/none/n?", 5, "/none/n0");
    expect("log?", 5, "log0");
    expect("/none/n?", 0, "");
    expect("", 5, "");
    const Directory directory;
    directory.Add("n0", 2000);
    directory.Add("n1", 1000);
    expect(directory / "n?", 2, directory / "n1");
    expect("/none/" + std::string(200, 'n'), 5, "/none/" + std::string(kSize - 7, 'n'));
    for (const unsigned size : {1U, 2U, 8U, 9U, 10U}) {
        Buffer result(size);
        KovaGetNextFile("/none/n?", result.Get(), size, 5);
        std::string wanted = std::string("/none/n0").substr(0, size - 1);
        wanted.resize(size, '\0');
        EXPECT_EQ(wanted, result.Bytes(size)) << size;
    }
}

TEST_F(FileList, ZerosFillTheOwnBufferBehindANumberedFile) {
    char* const own = KovaGetNextFile(("/none/" + std::string(5000, 'n')).c_str(), nullptr, 0, 5);
    EXPECT_EQ(std::string(4089, 'n'), own + 6);
    EXPECT_EQ(own, KovaGetNextFile("/none/n?", nullptr, 9, 5));
    std::string wanted = "/none/n0";
    wanted.resize(kPathSize, '\0');
    EXPECT_EQ(wanted, std::string(own, kPathSize)) << "whatever size is given";
}

}  // namespace
