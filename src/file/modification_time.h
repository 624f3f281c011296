/// When a file was modified, also of large files and after 2038 on 32-bit systems.
#ifndef KOVA_FILE_MODIFICATION_TIME_H
#define KOVA_FILE_MODIFICATION_TIME_H

#include <compare>
#include <cstdint>
#include <optional>

namespace kova {

struct ModificationTime {
    int64_t seconds;
    int64_t nanoseconds;

    auto operator<=>(const ModificationTime&) const = default;
};

/// Nothing when the file's status cannot be read.
std::optional<ModificationTime> ReadModificationTime(const char* path);

}  // namespace kova

#endif
