// A 32-bit system's plain status call fails for what its fields cannot hold.
#ifndef __LP64__
#define _FILE_OFFSET_BITS 64
#define _TIME_BITS 64
#endif

#include "file/modification_time.h"

#include <sys/stat.h>

namespace kova {

std::optional<ModificationTime> ReadModificationTime(const char* path) {
    struct stat status;
    if (::stat(path, &status) != 0) return std::nullopt;
    return ModificationTime{status.st_mtim.tv_sec, status.st_mtim.tv_nsec};
}

}  // namespace kova
