/// When a file was modified, also of large files and after 2038 on 32-bit systems.
#ifndef KOVA_FILE_MODIFICATION_TIME_H
#define KOVA_FILE_MODIFICATION_TIME_H

#include <cstdint>
#include <optional>

namespace kova {

struct ModificationTime {
    int64_t seconds;
    int64_t nanoseconds;

    friend bool operator<(const ModificationTime& a, const ModificationTime& b) {
        return a.seconds != b.seconds ? a.seconds < b.seconds : a.nanoseconds < b.nanoseconds;
    }
};

/// Nothing when the file's status cannot be read.
std::optional<ModificationTime> ReadModificationTime(const char* path);

}  // namespace kova

#endif
