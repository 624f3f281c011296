#include "file/directory.h"
#include "file/numbered_file.h"
#include "file/path_buffer.h"
#include "frame/trace.h"

#include <kova/file_list.h>
#include <kova/file_location.h>

#include <dirent.h>
#include <fnmatch.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>

using kova::BoundedText;
using kova::ExpandedPath;
using kova::kPathSize;
using kova::TextOf;

namespace {

constexpr size_t npos = std::string_view::npos;
constexpr std::string_view kWildcards = "?*";

/// Where a result goes: the caller's buffer, or the calling function's own.
struct Destination {
    Destination(char* result, unsigned result_size, char (&own)[kPathSize])
        : buffer(result != nullptr ? result : own), size(result != nullptr ? result_size : kPathSize) {}

    char* Write(std::string_view first, std::string_view second = {}) const {
        BoundedText(buffer, size).Append(first).Append(second);
        return buffer;
    }
    char* WriteExpanded(std::string_view first, std::string_view second = {}) const {
        return KovaReplaceEnvInSting(Write(first, second), size);
    }
    /// As `strncpy` does it: zeros in all that is left of the buffer.
    char* WriteAndFill(std::string_view text) const {
        if (size == 0) return buffer;
        const size_t copied = std::min<size_t>(text.size(), size - 1);
        text.copy(buffer, copied);
        std::memset(buffer + copied, 0, size - copied);
        return buffer;
    }

    char* const buffer;
    const unsigned size;
};

bool NamesItsPlace(std::string_view path) { return path.starts_with('/') || path.starts_with('.'); }

/// The directory of the location table for a name; empty when there is none.
class LocatedDirectory {
  public:
    explicit LocatedDirectory(const char* name) {
        if (!KovaQueryFileLocation(name, m_Directory, sizeof m_Directory)) m_Directory[0] = '\0';
    }
    std::string_view Text() const { return m_Directory; }

  private:
    char m_Directory[kPathSize + 1];
};

/// `path` up to its last "/". Deliberate: one at the very beginning does not count, and all is returned.
std::string_view UpToLastSlash(std::string_view path) {
    const size_t slash = path.rfind('/');
    return slash == npos || slash == 0 ? path : path.substr(0, slash + 1);
}

pthread_once_t g_DirectoryKeyOnce = PTHREAD_ONCE_INIT;
pthread_key_t g_DirectoryKey;
bool g_HasDirectoryKey = false;

// The end of a thread may come after the library was unloaded: the buffers are libc's to free.
void CreateDirectoryKey() {
    const int error = ::pthread_key_create(&g_DirectoryKey, std::free);
    g_HasDirectoryKey = error == 0;
    if (error != 0) KOVA_TRACE("no key of listing directories, errno=%d", error);
}

/// The calling thread's buffer, filled by `fill` when it is made now; null without memory.
template <typename Fill>
char* ListingDirectory(Fill fill) {
    ::pthread_once(&g_DirectoryKeyOnce, CreateDirectoryKey);
    if (!g_HasDirectoryKey) return nullptr;
    char* buffer = static_cast<char*>(::pthread_getspecific(g_DirectoryKey));
    if (buffer != nullptr) return buffer;
    buffer = static_cast<char*>(std::calloc(kPathSize, 1));
    if (buffer == nullptr) {
        KOVA_TRACE("no memory for a listing directory, errno=%d", errno);
        return nullptr;
    }
    const int error = ::pthread_setspecific(g_DirectoryKey, buffer);
    if (error != 0) {
        KOVA_TRACE("listing directory not kept, errno=%d", error);
        std::free(buffer);
        return nullptr;
    }
    fill(buffer);
    return buffer;
}

/// Appends names to a file list for as long as they fit with the end mark.
class ListWriter {
  public:
    ListWriter(char* list, size_t size) : m_Next(list), m_Left(size) { std::memset(list, 0, size); }

    bool Append(std::string_view name) {
        if (name.size() + 2 > m_Left) return false;
        name.copy(m_Next, name.size());
        m_Next += name.size() + 1;
        m_Left -= name.size() + 1;
        return true;
    }

  private:
    char* m_Next;
    size_t m_Left;
};

/// Digits of a numbered file's number.
size_t NumberWidth(std::string_view pattern, unsigned count) {
    const size_t mark = pattern.find_first_of(kWildcards);
    if (mark != npos && pattern[mark] == '?') {
        return std::min(pattern.find_first_not_of('?', mark), pattern.size()) - mark;
    }
    size_t width = 1;
    for (const unsigned limit : {11U, 101U, 1001U, 10001U}) {
        if (count < limit) return width;
        ++width;
    }
    // Deliberate: larger numbers have their natural length, and 0 no digit at all.
    return 0;
}

std::string WithoutWildcards(std::string_view text) {
    std::string rest(text);
    std::erase_if(rest, [](char c) { return kWildcards.find(c) != npos; });
    return rest;
}

/// `directory` and the numbered file `name` that comes next; empty when there is none.
std::string NextFile(std::string_view directory, std::string_view name, size_t width, unsigned count) {
    if (count == 0) return {};
    const size_t mark = name.find_first_of(kWildcards);
    if (mark == npos) return std::string(directory).append(name);
    const std::string before = std::string(directory).append(name.substr(0, mark));
    const std::string after = WithoutWildcards(name.substr(mark + 1));
    const unsigned number = kova::ChooseNumber(before, after, width, count).value_or(0);
    return before + kova::NumberText(number, width) + after;
}

}  // namespace

char* KovaNextFileInList(char* entry) {
    if (entry == nullptr) return nullptr;
    char* const next = entry + std::strlen(entry) + 1;
    return *next != '\0' ? next : nullptr;
}

char* KovaReplaceEnvInSting(char* text, unsigned int size) {
    if (text == nullptr || size == 0) return text;
    size_t length = std::strlen(text);
    for (size_t at = 0; at < length; ++at) {
        if (text[at] != '$') continue;
        for (size_t end = at + 2; end <= length; ++end) {
            const char behind = std::exchange(text[end], '\0');
            const char* const value = std::getenv(text + at + 1);
            text[end] = behind;
            if (value == nullptr) continue;
            // Deliberate: the shortest name that is set counts, whatever follows it.
            const size_t value_length = std::strlen(value);
            const size_t new_length = length - (end - at) + value_length;
            if (new_length < size) {
                std::memmove(text + at + value_length, text + end, length - end + 1);
                std::copy_n(value, value_length, text + at);
                length = new_length;
            }
            break;
        }
        // Deliberate: on at the next character, be it the second of a value.
    }
    return text;
}

char* KovaFileName(const char* dir, const char* name, const char* name2, const char* ext, char* result,
                   unsigned int size) {
    static char own[kPathSize];
    const Destination to(result, size, own);
    BoundedText text(to.buffer, to.size);
    text.Append(TextOf(dir));
    if (!text.Text().empty() && !text.Text().ends_with('/')) text.Append("/");
    text.Append(TextOf(name)).Append(TextOf(name2));
    // Deliberate: the dot is added also to an extension that begins with one.
    if (ext != nullptr) text.Append(".").Append(ext);
    return KovaReplaceEnvInSting(to.buffer, to.size);
}

char* KovaFilePath(const char* name, char* result, unsigned int size) {
    static char own[kPathSize];
    const Destination to(result, size, own);
    if (name == nullptr) return to.Write({});
    const ExpandedPath path(name);
    if (NamesItsPlace(path.Text())) return to.Write(UpToLastSlash(path.Text()));
    return to.WriteExpanded(LocatedDirectory(path.Get()).Text());
}

char* KovaFullFilePath(const char* name, char* result, unsigned int size) {
    static char own[kPathSize];
    const Destination to(result, size, own);
    if (name == nullptr) return to.Write({});
    const ExpandedPath path(name);
    if (NamesItsPlace(path.Text())) return to.Write(path.Text());
    const LocatedDirectory directory(path.Get());
    if (directory.Text().empty()) return to.Write({});
    return to.WriteExpanded(directory.Text(), path.Text());
}

char* KovaGetThreadSafeDir() {
    return ListingDirectory([](char* buffer) {
        if (::getcwd(buffer, kPathSize) != nullptr) return;
        KOVA_TRACE("getcwd errno=%d", errno);
        buffer[0] = '\0';
    });
}

void* KovaSetThreadSafeDir(const char* dir) {
    char* const buffer = ListingDirectory([](char*) {});
    if (buffer == nullptr) return nullptr;
    // The text may lie in the buffer.
    const size_t length = std::min<size_t>(TextOf(dir).size(), kPathSize - 1);
    if (length != 0) std::memmove(buffer, dir, length);
    buffer[length] = '\0';
    return buffer;
}

int KovaListFileOrdered(const char* dir, const char* pattern, char* list, unsigned int size,
                        int by_date_time) {
    if (list == nullptr) return 0;
    if (pattern == nullptr) {
        std::memset(list, 0, size);
        return 0;
    }

    char pattern_directory[kPathSize];
    if (dir == nullptr) dir = KovaFilePath(pattern, pattern_directory, sizeof pattern_directory);
    const ExpandedPath listed(dir);
    // Deliberate: stored before the slash is added, so that without one no time can be read.
    KovaSetThreadSafeDir(listed.Get());
    // Not before: the directory's text may lie in the list. A pattern there is an empty one from now on.
    ListWriter writer(list, size);
    char directory[kPathSize + 1];
    BoundedText text(directory, sizeof directory);
    text.Append(listed.Text());
    if (!text.Text().ends_with('/')) text.Append("/");

    const auto order = by_date_time != 0 ? kova::DirectoryEntries::kByTime : kova::DirectoryEntries::kByName;
    const kova::DirectoryEntries entries(directory, order, listed.Get());
    int count = 0;
    for (size_t i = 0; i < entries.Count(); ++i) {
        const char* const name = entries.Name(i);
        if (::fnmatch(pattern, name, 0) != 0) continue;
        if (!writer.Append(name)) break;
        ++count;
    }
    return count;
}

int KovaListFileByAlpha(const char* dir, const char* pattern, char* list, unsigned int size) {
    return KovaListFileOrdered(dir, pattern, list, size, 0);
}

int KovaListFile(const char* dir, const char* pattern, char* list, unsigned int size) {
    return KovaListFileByAlpha(dir, pattern, list, size);
}

int KovaListFileByDateTime(const char* dir, const char* pattern, char* list, unsigned int size) {
    return KovaListFileOrdered(dir, pattern, list, size, 1);
}

int DateTimeSort(const struct dirent** a, const struct dirent** b) {
    const char* const directory = KovaGetThreadSafeDir();
    return kova::CompareModificationTimes(directory != nullptr ? directory : "", (*a)->d_name, (*b)->d_name);
}

char* KovaGetNextFile(const char* pattern, char* result, unsigned int size, unsigned int max_files) {
    static char own[kPathSize];
    const Destination to(result, size, own);
    const std::string_view text = TextOf(pattern);
    if (text.empty()) return to.WriteAndFill({});

    char buffer[kPathSize];
    const std::string_view directory = KovaFilePath(pattern, buffer, sizeof buffer);
    const std::string_view name = text.substr(text.rfind('/') + 1);
    const std::string file = NextFile(directory, name, NumberWidth(text, max_files), max_files);
    const bool with_directory = NamesItsPlace(text) || file.empty();
    return to.WriteAndFill(with_directory ? file : std::string_view(file).substr(directory.size()));
}
