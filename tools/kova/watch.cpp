#include "watch.h"

#include "end_signals.h"
#include "hex_dump.h"
#include "report.h"

#include <kova/clock.h>
#include <kova/file_list.h>
#include <kova/file_notify.h>

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <list>
#include <stdexcept>
#include <system_error>

namespace {

/// From the signal handler to the command: the paths of the library's table, which live as long as the watch.
std::atomic<int> g_Changes{-1};
/// Changes that found the pipe full.
std::atomic<unsigned> g_Lost{0};

void OnChange(const char* path) {
    if (::write(g_Changes, &path, sizeof path) != sizeof path) ++g_Lost;
}

/// The pipe, of which the handler writes one end and never waits.
class Changes {
  public:
    Changes() {
        int ends[2];
        if (::pipe2(ends, O_CLOEXEC | O_NONBLOCK) < 0) {
            throw std::system_error(errno, std::generic_category(), "pipe");
        }
        m_Read = ends[0];
        g_Changes = ends[1];
    }
    Changes(const Changes&) = delete;
    Changes& operator=(const Changes&) = delete;
    ~Changes() {
        ::close(g_Changes.exchange(-1));
        ::close(m_Read);
    }

    int Descriptor() const { return m_Read; }

    /// The directory of the next change; null if there is none.
    const char* Next() const {
        const char* path = nullptr;
        return ::read(m_Read, &path, sizeof path) == sizeof path ? path : nullptr;
    }

  private:
    int m_Read;
};

/// The library's answer in words, and the exit code that goes with it.
[[noreturn]] void Refuse(const std::string& directory, int code, int error) {
    const std::string what = "cannot watch " + NameText(directory) + ": ";
    switch (code) {
        case -1:
            throw UsageError(what + "it is watched already");
        case -2:
            throw UsageError(what + "not readable: " + SystemText(error));
        case -3:
            throw UsageError(what + "cannot be opened: " + SystemText(error));
        case -4:
            throw std::runtime_error(what + "no signal can be set: " + SystemText(error));
        case -5:
            throw std::runtime_error(what + "no notification: " + SystemText(error));
        case -6:
            throw UsageError(what + "as many directories as possible are watched already");
        default:
            throw std::runtime_error(what + "code " + std::to_string(code));
    }
}

/// The path as the library expands it.
std::string Expanded(const std::string& directory) {
    char path[4096];
    path[directory.copy(path, sizeof path - 1)] = '\0';
    return KovaReplaceEnvInSting(path, sizeof path);
}

/// Watches a directory as long as it lives.
class DirectoryWatch {
  public:
    explicit DirectoryWatch(const std::string& directory) : m_Directory(directory) {
        std::error_code error;
        const std::filesystem::path path = Expanded(directory);
        // A file cannot be watched, and opening a pipe would wait.
        if (std::filesystem::exists(path, error) && !std::filesystem::is_directory(path, error)) {
            throw UsageError("cannot watch " + NameText(directory) + ": not a directory");
        }
        const int code = InstallFileNotifyHandler(directory.c_str(), OnChange);
        if (code < 0) Refuse(directory, code, errno);
    }
    DirectoryWatch(const DirectoryWatch&) = delete;
    DirectoryWatch& operator=(const DirectoryWatch&) = delete;
    ~DirectoryWatch() { UnInstallFileNotifyHandler(m_Directory.c_str()); }

  private:
    const std::string m_Directory;
};

void TellLost() {
    if (const unsigned lost = g_Lost.exchange(0))
        Complain(std::to_string(lost) + " changes could not be told");
}

}  // namespace

int Watch(const WatchOptions& options) {
    const EndWatch end;
    const Changes changes;
    std::list<DirectoryWatch> watches;
    for (const std::string& directory : options.directories) watches.emplace_back(directory);
    for (const std::string& directory : options.directories) Print("watching " + NameText(directory) + "\n");

    for (uint64_t number = 0; end.Await(changes.Descriptor(), -1) == EndWatch::kData;) {
        while (const char* const path = changes.Next()) {
            Print(TimeText(KovaGetRealTime()) + " " + NameText(path) + "\n");
            if (++number == options.count) return kExitOk;
        }
        TellLost();
    }
    return kExitOk;
}
