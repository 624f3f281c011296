/// Paths in character buffers of a fixed size, always terminated and cut where they do not fit.
#ifndef KOVA_FILE_PATH_BUFFER_H
#define KOVA_FILE_PATH_BUFFER_H

#include <kova/file_list.h>

#include <algorithm>
#include <cstddef>
#include <string_view>

namespace kova {

inline constexpr unsigned kPathSize = 4096;

/// A null text is an empty one.
inline std::string_view TextOf(const char* text) { return text != nullptr ? text : std::string_view(); }

/// Writes texts one behind the other into a caller's buffer; into none of size 0.
class BoundedText {
  public:
    BoundedText(char* buffer, size_t size) : m_Buffer(buffer), m_Size(size) { Append(""); }

    BoundedText& Append(std::string_view text) {
        if (m_Size == 0) return *this;
        const size_t copied = std::min(text.size(), m_Size - 1 - m_Used);
        text.copy(m_Buffer + m_Used, copied);
        m_Used += copied;
        m_Buffer[m_Used] = '\0';
        return *this;
    }

    std::string_view Text() const { return {m_Buffer, m_Used}; }

  private:
    char* const m_Buffer;
    const size_t m_Size;
    size_t m_Used = 0;
};

/// A copy of a path in which `$NAME` is expanded by the rule of the C-style functions.
class ExpandedPath {
  public:
    explicit ExpandedPath(const char* path) {
        BoundedText(m_Path, sizeof m_Path).Append(TextOf(path));
        KovaReplaceEnvInSting(m_Path, sizeof m_Path);
    }

    const char* Get() const { return m_Path; }
    std::string_view Text() const { return m_Path; }

  private:
    char m_Path[kPathSize];
};

}  // namespace kova

#endif
