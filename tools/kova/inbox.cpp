#include "inbox.h"

#include "hex_dump.h"

#include <errno.h>

#include <cstdio>
#include <filesystem>
#include <memory>

Inbox::Inbox(const ServeOptions& options) : m_Options(options) {
    if (m_Options.output.empty()) return;
    std::error_code error;
    std::filesystem::create_directories(m_Options.output, error);
    if (error) throw UsageError("directory " + m_Options.output + ": " + error.message());
    const std::string first = PathOf(1);
    if (std::filesystem::exists(first, error)) throw UsageError(first + " is there already");
}

bool Inbox::Take(KovaFlatMsg& message) {
    const std::lock_guard lock(m_Mutex);
    if (m_Options.count != 0 && m_Taken == m_Options.count) return false;
    ++m_Taken;
    if (!m_Options.output.empty()) Store(message);
    std::string text = "message " + std::to_string(m_Taken) + " from " + AddressText(message.GetAddr()) +
                       ": " + HeaderText(message) + "\n";
    if (!m_Options.quiet) text += BodyText(BodyOf(message), m_Options.body_limit);
    Print(text);
    return true;
}

/// Taken and answered are counted apart, so that the last message wanted does not cut off answers of others.
void Inbox::Finish() {
    const std::lock_guard lock(m_Mutex);
    if (++m_Finished == m_Options.count) m_Full = true;
}

void Inbox::Refuse(const KovaInetAddr& peer, const KovaFlatMsg& message) {
    const std::lock_guard lock(m_Mutex);
    Complain("message from " + AddressText(peer) + " failed: " + RecordText(message));
}

std::string Inbox::PathOf(uint64_t number) const {
    char name[32];
    std::snprintf(name, sizeof name, "%06llu.body", static_cast<unsigned long long>(number));
    return std::filesystem::path(m_Options.output) / name;
}

void Inbox::Store(KovaFlatMsg& message) {
    const std::string path = PathOf(m_Taken);
    const std::string_view body = BodyOf(message);
    FILE* const file = std::fopen(path.c_str(), "wbx");
    bool stored = file != nullptr && std::fwrite(body.data(), 1, body.size(), file) == body.size();
    if (file != nullptr) stored = std::fclose(file) == 0 && stored;
    if (stored) return;
    Complain(path + ": " + SystemText(errno));
    m_StoreFailed = true;
}
