/// Numbered, rotating files: the first free number, or the file to be overwritten next.
#ifndef KOVA_FILE_NUMBERED_FILE_H
#define KOVA_FILE_NUMBERED_FILE_H

#include "file/modification_time.h"

#include <cstddef>
#include <iterator>
#include <limits>
#include <optional>
#include <string>

namespace kova {

/// `number` zero-filled to `width` digits; 0 has no digit at width 0.
inline std::string NumberText(unsigned number, size_t width) {
    char digits[std::numeric_limits<unsigned>::digits10 + 1];
    char* begin = std::end(digits);
    for (; number != 0; number /= 10) *--begin = static_cast<char>('0' + number % 10);
    std::string text(begin, std::end(digits));
    if (text.size() < width) text.insert(0, width - text.size(), '0');
    return text;
}

/// The first of the numbers below `count` whose file `before` NUMBER `after` does not exist; if all do, the
/// one whose file was modified longest ago, in full seconds, and the lowest of equals. Nothing if `count` is
/// 0.
inline std::optional<unsigned> ChooseNumber(const std::string& before, const std::string& after, size_t width,
                                            unsigned count) {
    std::optional<unsigned> oldest;
    int64_t oldest_seconds = 0;
    std::string candidate;
    for (unsigned number = 0; number < count; ++number) {
        candidate.assign(before).append(NumberText(number, width)).append(after);
        const std::optional<ModificationTime> time = ReadModificationTime(candidate.c_str());
        if (!time) return number;
        if (!oldest || time->seconds < oldest_seconds) {
            oldest = number;
            oldest_seconds = time->seconds;
        }
    }
    return oldest;
}

}  // namespace kova

#endif
