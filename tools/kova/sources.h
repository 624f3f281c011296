/// The bodies that `kova send` sends, one after the other.
#ifndef KOVA_TOOLS_SOURCES_H
#define KOVA_TOOLS_SOURCES_H

#include "send.h"

#include <deque>
#include <fstream>
#include <istream>
#include <string>

/// Reads texts, files and standard input only as they are asked for, so that lines typed at a terminal leave
/// at once.
class Sources {
  public:
    /// Opens all of them. Throws UsageError when one cannot be read or when there is none.
    explicit Sources(const SendOptions& options);

    /// The next body; false when there are no more. Throws UsageError when reading fails.
    bool Next(std::string& body);
    /// Where the last body came from.
    const std::string& Name() const { return m_Name; }

  private:
    struct Source {
        std::string name;
        std::ifstream file;
        bool is_stdin = false;
    };

    void Add(const std::string& path);
    bool ReadBody(Source& source, std::string& body);

    const bool m_Lines;
    std::deque<std::string> m_Texts;
    std::deque<Source> m_Files;
    std::string m_Name;
};

#endif
