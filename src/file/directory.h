/// The entries of a directory, in order.
#ifndef KOVA_FILE_DIRECTORY_H
#define KOVA_FILE_DIRECTORY_H

#include <cstddef>

struct dirent;

namespace kova {

/// Compares the modification times of the files `directory` `a` and `directory` `b`, put together as they
/// are. When one cannot be read a line on standard error tells it, and they count as equal.
int CompareModificationTimes(const char* directory, const char* a, const char* b);

/// Reads a directory, everything in it included; empty when that fails.
class DirectoryEntries {
  public:
    enum Order { kByName, kByTime };

    /// For the order by time files are looked for under `prefix` followed by their name.
    DirectoryEntries(const char* directory, Order order, const char* prefix);
    DirectoryEntries(const DirectoryEntries&) = delete;
    DirectoryEntries& operator=(const DirectoryEntries&) = delete;
    ~DirectoryEntries();

    size_t Count() const { return m_Count; }
    const char* Name(size_t index) const;

  private:
    void SortByTime(const char* prefix);
    bool SortByTimesReadOnce(const char* prefix);

    dirent** m_Entries = nullptr;
    size_t m_Count = 0;
};

}  // namespace kova

#endif
