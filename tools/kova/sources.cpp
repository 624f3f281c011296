#include "sources.h"

#include "report.h"

#include <errno.h>
#include <unistd.h>

#include <filesystem>
#include <iostream>
#include <iterator>

Sources::Sources(const SendOptions& options)
    : m_Lines(options.lines), m_Texts(options.texts.begin(), options.texts.end()) {
    for (const std::string& path : options.files) Add(path);
    if (!m_Texts.empty() || !m_Files.empty()) return;
    if (isatty(STDIN_FILENO))
        throw UsageError("nothing to send: give a FILE, --text STRING, or - for standard input");
    Add("-");
}

void Sources::Add(const std::string& path) {
    Source& source = m_Files.emplace_back();
    source.is_stdin = path == "-";
    source.name = source.is_stdin ? "standard input" : path;
    if (source.is_stdin) return;
    if (std::filesystem::is_directory(path)) throw UsageError(path + ": " + SystemText(EISDIR));
    source.file.open(path, std::ios::binary);
    if (!source.file) throw UsageError(path + ": " + SystemText(errno));
}

bool Sources::Next(std::string& body) {
    if (!m_Texts.empty()) {
        m_Name = "--text";
        body = m_Texts.front();
        m_Texts.pop_front();
        return true;
    }
    for (; !m_Files.empty(); m_Files.pop_front()) {
        m_Name = m_Files.front().name;
        if (ReadBody(m_Files.front(), body)) return true;
    }
    return false;
}

/// False at the end of the source. A source is at its end after one body, or after its last line.
bool Sources::ReadBody(Source& source, std::string& body) {
    std::istream& stream = source.is_stdin ? std::cin : source.file;
    if (stream.eof()) return false;
    if (m_Lines) {
        std::getline(stream, body);
    } else {
        body.assign(std::istreambuf_iterator<char>(stream), {});
        stream.setstate(std::ios::eofbit);
    }
    if (stream.bad()) throw UsageError(source.name + ": " + SystemText(errno));
    // The end mark behind the last line end is no line.
    return !(m_Lines && stream.fail());
}
