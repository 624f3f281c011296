/// The key files of named mutexes, semaphores and queues: where the library finds an object of that name.
#ifndef KOVA_TOOLS_KEY_FILES_H
#define KOVA_TOOLS_KEY_FILES_H

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

/// A read-write lock is a semaphore of two positions: nothing tells them apart.
enum class IpcKind { kMutex, kSemaphore, kQueue };

/// "mutex", "semaphore", "queue".
const char* KindText(IpcKind kind);

/// The number that all keys of the library carry in their top byte.
constexpr int kKeyProject = 80;
/// Characters of a name that count.
constexpr size_t kNameLimit = 64;

struct KeyFile {
    IpcKind kind;
    std::string name;
    std::string path;
    key_t key;
};

/// All key files in the directories of their kinds, ordered by kind and name.
std::vector<KeyFile> FindKeyFiles();
/// Those that the library would use for the name, in the same order; wherever they are.
std::vector<KeyFile> FindKeyFiles(const std::string& name);

/// Another file that leads to the same object, which happens when inode numbers differ by a multiple of
/// 65536; null if there is none.
const KeyFile* FindTwin(const KeyFile& file, const std::vector<KeyFile>& files);

/// An object that has a key of the library, but no key file.
struct UnnamedObject {
    bool is_queue;
    key_t key;
    int id;
};

/// Looks through the kernel's tables. Throws if they cannot be read.
std::vector<UnnamedObject> FindUnnamed(const std::vector<KeyFile>& files);

#endif
