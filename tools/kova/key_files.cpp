#include "key_files.h"

#include "report.h"

#include <kova/file_location.h>
#include <kova/filename.h>

#include <errno.h>
#include <sys/ipc.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <tuple>

namespace {

namespace fs = std::filesystem;

struct Extension {
    IpcKind kind;
    const char* text;
};

constexpr Extension kExtensions[] = {
    {IpcKind::kMutex, ".kovamtx"},
    {IpcKind::kSemaphore, ".kovasem"},
    {IpcKind::kQueue, ".kovamsg"},
};

std::optional<KeyFile> AsKeyFile(IpcKind kind, const std::string& name, const std::string& path) {
    std::error_code error;
    if (!fs::is_regular_file(path, error)) return std::nullopt;
    const key_t key = ::ftok(path.c_str(), kKeyProject);
    if (key == -1) return std::nullopt;
    return KeyFile{kind, name, path, key};
}

/// Where the library puts files of this extension.
std::string DirectoryOf(const Extension& extension) {
    char directory[4097];
    KovaQueryFileLocation((std::string("any") + extension.text).c_str(), directory, sizeof directory);
    return directory;
}

/// A name with slashes has its key file further down.
void AddFilesBelow(const Extension& extension, std::vector<KeyFile>& files) {
    const std::string directory = DirectoryOf(extension);
    std::error_code error;
    auto entry =
        fs::recursive_directory_iterator(directory, fs::directory_options::skip_permission_denied, error);
    for (; !error && entry != fs::recursive_directory_iterator(); entry.increment(error)) {
        const std::string path = entry->path().string();
        if (!path.ends_with(extension.text)) continue;
        std::string name = path.substr(directory.size());
        name.resize(name.size() - std::string(extension.text).size());
        if (name.empty()) continue;
        if (auto file = AsKeyFile(extension.kind, name, path)) files.push_back(std::move(*file));
    }
}

bool IsQueue(const KeyFile& file) { return file.kind == IpcKind::kQueue; }

/// Objects of one table, /proc/sysvipc/sem or msg: lines that begin with key and id, below a heading.
void AddUnnamed(bool is_queue, const std::vector<KeyFile>& files, std::vector<UnnamedObject>& objects) {
    const std::string path = is_queue ? "/proc/sysvipc/msg" : "/proc/sysvipc/sem";
    std::ifstream table(path);
    std::string line;
    if (!std::getline(table, line)) throw std::runtime_error(path + ": " + SystemText(errno));
    while (std::getline(table, line)) {
        UnnamedObject object{is_queue, 0, -1};
        if (!(std::istringstream(line) >> object.key >> object.id)) continue;
        if (static_cast<uint32_t>(object.key) >> 24 != kKeyProject) continue;
        const bool is_named = std::any_of(files.begin(), files.end(), [&](const KeyFile& file) {
            return IsQueue(file) == is_queue && file.key == object.key;
        });
        if (!is_named) objects.push_back(object);
    }
}

}  // namespace

const char* KindText(IpcKind kind) {
    switch (kind) {
        case IpcKind::kMutex:
            return "mutex";
        case IpcKind::kSemaphore:
            return "semaphore";
        case IpcKind::kQueue:
            break;
    }
    return "queue";
}

std::vector<KeyFile> FindKeyFiles() {
    std::vector<KeyFile> files;
    for (const Extension& extension : kExtensions) AddFilesBelow(extension, files);
    std::sort(files.begin(), files.end(), [](const KeyFile& a, const KeyFile& b) {
        return std::tie(a.kind, a.name) < std::tie(b.kind, b.name);
    });
    return files;
}

std::vector<KeyFile> FindKeyFiles(const std::string& name) {
    std::vector<KeyFile> files;
    for (const Extension& extension : kExtensions) {
        const std::string path =
            KovaFilename(nullptr, name.substr(0, kNameLimit).c_str(), extension.text).PathFileName();
        if (auto file = AsKeyFile(extension.kind, name, path)) files.push_back(std::move(*file));
    }
    return files;
}

const KeyFile* FindTwin(const KeyFile& file, const std::vector<KeyFile>& files) {
    const auto twin = std::find_if(files.begin(), files.end(), [&](const KeyFile& other) {
        return other.key == file.key && IsQueue(other) == IsQueue(file) && other.path != file.path;
    });
    return twin == files.end() ? nullptr : &*twin;
}

std::vector<UnnamedObject> FindUnnamed(const std::vector<KeyFile>& files) {
    std::vector<UnnamedObject> objects;
    AddUnnamed(false, files, objects);
    AddUnnamed(true, files, objects);
    return objects;
}
