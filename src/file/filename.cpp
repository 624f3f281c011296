#include "file/numbered_file.h"
#include "file/path_buffer.h"
#include "frame/fail.h"
#include "frame/trace.h"

#include <kova/file_location.h>
#include <kova/filename.h>

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace {

constexpr size_t npos = std::string::npos;
constexpr mode_t kDirectoryMode = 0777;
/// With a slash and a zero that the location lookup may append.
constexpr size_t kDirectorySize = 4096 + 2;
/// Expansion ends here, also that of variables which name each other.
constexpr int kMostReplacements = 256;
constexpr size_t kLongestPath = 4095;
constexpr unsigned kMostFiles = 10000;

/// No mask for new files and directories over a scope. The mask is the process's.
class UmaskOff {
  public:
    UmaskOff() : m_Saved(::umask(0)) {}
    UmaskOff(const UmaskOff&) = delete;
    UmaskOff& operator=(const UmaskOff&) = delete;
    ~UmaskOff() { ::umask(m_Saved); }

  private:
    const mode_t m_Saved;
};

bool IsNameCharacter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
}

/// Position of the last "/", or 0 when there is none.
size_t LastSlash(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash != npos ? slash : 0;
}

void AppendExtension(std::string& path, std::string_view extension) {
    if (!extension.starts_with('.')) path += '.';
    path += extension;
}

/// Where a number stands in a path.
struct NumberField {
    size_t begin;
    size_t length;
};

/// From the first "#" of the name to the last, or else from the first "*" to the last.
bool FindNumberField(const std::string& path, NumberField& field) {
    for (const char mark : {'#', '*'}) {
        const size_t begin = path.find(mark, LastSlash(path));
        if (begin == npos) continue;
        field = {begin, path.rfind(mark) - begin + 1};
        return true;
    }
    return false;
}

size_t NumberWidth(unsigned count) {
    if (count > 1000) return 4;
    if (count > 100) return 3;
    return count > 10 ? 2 : 1;
}

}  // namespace

KovaFilename::KovaFilename() = default;

KovaFilename::KovaFilename(const char* path) : m_Path(kova::TextOf(path)) { FullPath(); }

KovaFilename::KovaFilename(const std::string& path) : m_Path(path) { FullPath(); }

KovaFilename::KovaFilename(const KovaFilename& other) : KovaBaseObject(other), m_Path(other.m_Path) {
    FullPath();
}

KovaFilename::KovaFilename(const char* dir, const char* name, const char* ext)
    : KovaFilename(dir, name, nullptr, ext) {}

KovaFilename::KovaFilename(const char* dir, const char* name, const char* name2, const char* ext)
    : m_Path(kova::TextOf(dir)) {
    if (!m_Path.empty() && m_Path.back() != '/') m_Path += '/';
    m_Path += kova::TextOf(name);
    m_Path += kova::TextOf(name2);
    if (ext != nullptr) AppendExtension(m_Path, ext);
    FullPath();
}

KovaFilename::~KovaFilename() = default;

// Deliberate: the error record stays this object's own.
KovaFilename& KovaFilename::operator=(const KovaFilename& other) {
    m_Path = other.m_Path;
    FullPath();
    return *this;
}

KovaFilename& KovaFilename::operator=(const char* path) {
    m_Path = kova::TextOf(path);
    FullPath();
    return *this;
}

// Deliberate: a path without "/" is its own directory, and its name lacks the first character.

std::string KovaFilename::GetPath() const { return m_Path.substr(0, m_Path.rfind('/')); }

std::string KovaFilename::GetPureFileName() const {
    return m_Path.substr(std::min(LastSlash(m_Path) + 1, m_Path.size()));
}

bool KovaFilename::Exist() const { return ::access(m_Path.c_str(), F_OK) == 0; }

const std::string& KovaFilename::ReplaceEnv() {
    int replacements = 0;
    for (size_t at = m_Path.find('$'); at != npos; at = m_Path.find('$', at)) {
        size_t end = at + 1;
        while (end < m_Path.size() && IsNameCharacter(m_Path[end])) ++end;
        const char* const value = std::getenv(m_Path.substr(at + 1, end - at - 1).c_str());
        if (value == nullptr) {
            ++at;
            continue;
        }
        const std::string_view text(value);
        const bool too_long = m_Path.size() - (end - at) + text.size() > kLongestPath;
        if (too_long || replacements == kMostReplacements) break;
        ++replacements;
        // Deliberate: the value is looked at in turn.
        m_Path.replace(at, end - at, text);
    }
    return m_Path;
}

const std::string& KovaFilename::FullPath() {
    ReplaceEnv();
    if (m_Path.starts_with('/') || m_Path.starts_with('.')) return m_Path;
    char directory[kDirectorySize];
    if (!KovaQueryFileLocation(m_Path.c_str(), directory, sizeof directory)) return m_Path;
    m_Path.insert(0, directory);
    return ReplaceEnv();
}

const std::string& KovaFilename::ReplaceExtension(const char* ext) {
    // Deliberate: a path without "/" is taken to have no extension.
    const size_t slash = m_Path.rfind('/');
    const size_t dot = slash != npos ? m_Path.find('.', slash) : npos;
    const std::string extension(kova::TextOf(ext));
    m_Path.erase(std::min(dot, m_Path.size()));
    m_Path.append(".").append(extension);
    return ReplaceEnv();
}

const std::string& KovaFilename::ReplaceName(const char* name) {
    // Deliberate: a path without "/" keeps its first character.
    const size_t slash = LastSlash(m_Path);
    const size_t begin = std::min(slash + 1, m_Path.size());
    const size_t dot = m_Path.rfind('.');
    const size_t end = dot != npos && dot >= slash ? std::max(dot, begin) : m_Path.size();
    m_Path.replace(begin, end - begin, kova::TextOf(name));
    return ReplaceEnv();
}

const std::string& KovaFilename::AppendToName(const char* text) {
    size_t at = m_Path.find('.', LastSlash(m_Path));
    // Deliberate: before the last character, not behind it.
    if (at == npos) at = m_Path.empty() ? 0 : m_Path.size() - 1;
    m_Path.insert(at, std::string(kova::TextOf(text)));
    return ReplaceEnv();
}

const std::string& KovaFilename::AppendToExtension(const char* ext) {
    AppendExtension(m_Path, std::string(kova::TextOf(ext)));
    return ReplaceEnv();
}

bool KovaFilename::CreatePath() {
    const UmaskOff umask_off;
    for (size_t slash = m_Path.find('/', 2); slash != npos; slash = m_Path.find('/', slash + 1)) {
        const std::string directory = m_Path.substr(0, slash);
        if (::access(directory.c_str(), F_OK) == 0) continue;
        if (::mkdir(directory.c_str(), kDirectoryMode) == 0 || errno == EEXIST) continue;
        return KOVA_FAIL(errno, "mkdir directory=%s errno=%d", directory.c_str(), errno);
    }
    return true;
}

bool KovaFilename::CreateFile() {
    if (Exist()) return true;
    if (!CreatePath()) return false;
    const UmaskOff umask_off;
    std::FILE* const file = std::fopen(m_Path.c_str(), "w");
    if (file == nullptr) return KOVA_FAIL(errno, "fopen path=%s errno=%d", m_Path.c_str(), errno);
    if (std::fclose(file) == 0) return true;
    KOVA_TRACE("fclose path=%s errno=%d", m_Path.c_str(), errno);
    return false;
}

const std::string& KovaFilename::ResolveFileNo(unsigned int max_files) {
    if (!CreatePath()) return m_Path;
    const unsigned count = std::min(max_files, kMostFiles);

    NumberField field{};
    if (!FindNumberField(m_Path, field)) {
        const std::string unnumbered = m_Path;
        AppendToName("_#");
        if (!FindNumberField(m_Path, field)) return m_Path = unnumbered;
    }
    const size_t width = std::max(NumberWidth(max_files), field.length);
    const std::string before = m_Path.substr(0, field.begin);
    const std::string after = m_Path.substr(field.begin + field.length);
    const unsigned number = kova::ChooseNumber(before, after, width, count).value_or(0);
    m_Path = before + kova::NumberText(number, width) + after;
    return ReplaceEnv();
}
