// A 32-bit system's plain calls fail for inode numbers that their records cannot hold.
#ifndef __LP64__
#define _FILE_OFFSET_BITS 64
#endif

#include "file/directory.h"

#include "file/modification_time.h"
#include "file/path_buffer.h"
#include "frame/trace.h"

#include <dirent.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <new>
#include <optional>

namespace kova {

namespace {

/// A prefix followed by one name after another.
class PrefixedPath {
  public:
    explicit PrefixedPath(const char* prefix)
        : m_Length(BoundedText(m_Path, kPathSize).Append(prefix).Text().size()) {}

    const char* Of(const char* name) {
        BoundedText(m_Path + m_Length, sizeof m_Path - m_Length).Append(name);
        return m_Path;
    }

  private:
    char m_Path[kPathSize + sizeof(dirent::d_name)];
    const size_t m_Length;
};

std::optional<ModificationTime> ReadTimeOrTell(const char* path) {
    const std::optional<ModificationTime> time = ReadModificationTime(path);
    if (!time) std::fprintf(stderr, "could not stat %s\n", path);
    return time;
}

int CompareEntries(const void* a, const void* b, void* prefix) {
    const auto name = [](const void* entry) { return (*static_cast<dirent* const*>(entry))->d_name; };
    return CompareModificationTimes(static_cast<const char*>(prefix), name(a), name(b));
}

struct DatedEntry {
    ModificationTime time;
    dirent* entry;
};

}  // namespace

int CompareModificationTimes(const char* directory, const char* a, const char* b) {
    PrefixedPath path(directory);
    const auto time_a = ReadTimeOrTell(path.Of(a));
    if (!time_a) return 0;
    const auto time_b = ReadTimeOrTell(path.Of(b));
    if (!time_b) return 0;
    if (*time_a < *time_b) return -1;
    return *time_b < *time_a ? 1 : 0;
}

DirectoryEntries::DirectoryEntries(const char* directory, Order order, const char* prefix) {
    const int count = ::scandir(directory, &m_Entries, nullptr, order == kByName ? ::alphasort : nullptr);
    if (count < 0) {
        KOVA_TRACE("scandir directory=%s errno=%d", directory, errno);
        return;
    }
    m_Count = static_cast<size_t>(count);
    if (order == kByTime) SortByTime(prefix);
}

DirectoryEntries::~DirectoryEntries() {
    for (size_t i = 0; i < m_Count; ++i) std::free(m_Entries[i]);
    std::free(m_Entries);
}

const char* DirectoryEntries::Name(size_t index) const { return m_Entries[index]->d_name; }

void DirectoryEntries::SortByTime(const char* prefix) {
    if (SortByTimesReadOnce(prefix)) return;
    // As the comparison gives it, unreadable files and their messages included.
    ::qsort_r(m_Entries, m_Count, sizeof(void*), CompareEntries, const_cast<char*>(prefix));
}

/// False, and nothing sorted, when a file cannot be read.
bool DirectoryEntries::SortByTimesReadOnce(const char* prefix) {
    const std::unique_ptr<DatedEntry[]> dated(new (std::nothrow) DatedEntry[m_Count]);
    if (!dated) return false;
    PrefixedPath path(prefix);
    for (size_t i = 0; i < m_Count; ++i) {
        const std::optional<ModificationTime> time = ReadModificationTime(path.Of(m_Entries[i]->d_name));
        if (!time) return false;
        dated[i] = {*time, m_Entries[i]};
    }
    const auto earlier = [](const DatedEntry& a, const DatedEntry& b) { return a.time < b.time; };
    std::stable_sort(dated.get(), dated.get() + m_Count, earlier);
    for (size_t i = 0; i < m_Count; ++i) m_Entries[i] = dated[i].entry;
    return true;
}

}  // namespace kova
