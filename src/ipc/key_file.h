/// Key files: what a named object's name is on disk.
///
/// The file's inode gives the kernel's key, and a record lock on it keeps those apart who create and destroy
/// the object. Nothing is ever written to it.
#ifndef KOVA_IPC_KEY_FILE_H
#define KOVA_IPC_KEY_FILE_H

#include <kova/filename.h>

#include <sys/types.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <optional>

namespace kova {

/// Characters of an object's name that count.
inline constexpr size_t kObjectNameSize = 64;

/// Copies the part of `name` that counts and fills up with zeros. Deliberate: a name of that size has none at
/// its end.
inline void StoreObjectName(const char* name, char (&stored)[kObjectNameSize]) {
    std::memset(stored, 0, sizeof stored);
    if (name != nullptr) std::memcpy(stored, name, ::strnlen(name, sizeof stored));
}

class KeyFile {
  public:
    KeyFile(const char* name, const char* extension);

    /// Makes the file if it is missing. If that fails the process ends.
    bool Make();
    /// Nothing, and a trace record, when the file has vanished.
    std::optional<key_t> Key() const;
    /// Deletes the file if it exists. Keeps `errno`.
    void Delete() const;
    const char* Path() const { return m_Path; }

  private:
    KovaFilename m_Path;
};

/// Takes the lock of a key file, waiting for it: the descriptor that holds it, or -1 after the abnormal end.
int LockKeyFile(const char* path);
/// Releases it. 0, or -1 after the abnormal end.
int UnlockKeyFile(int descriptor);

/// Holds the lock of a key file.
class KeyFileLock {
  public:
    explicit KeyFileLock(const KeyFile& file) : m_Fd(LockKeyFile(file.Path())) {}
    KeyFileLock(const KeyFileLock&) = delete;
    KeyFileLock& operator=(const KeyFileLock&) = delete;
    ~KeyFileLock() { Release(); }

    explicit operator bool() const { return m_Fd >= 0; }
    /// Before the scope ends. Keeps `errno`.
    void Release();

  private:
    int m_Fd;
};

}  // namespace kova

#endif
