#include "ipc/key_file.h"

#include "frame/abend.h"
#include "frame/errno_guard.h"
#include "frame/retry.h"
#include "frame/trace.h"
#include "frame/unique_fd.h"

#include <fcntl.h>
#include <sys/ipc.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <utility>

namespace kova {

namespace {

constexpr int kProject = 80;

/// Sets a record lock of the given type on the whole file, whatever signals come.
bool SetWholeFileLock(int fd, int command, short type) {
    struct flock lock {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    return RetryInterrupted([&] { return ::fcntl(fd, command, &lock); }) != -1;
}

std::string ObjectName(const char* name) {
    return name != nullptr ? std::string(name, ::strnlen(name, kObjectNameSize)) : std::string();
}

}  // namespace

KeyFile::KeyFile(const char* name, const char* extension)
    : m_Path(nullptr, ObjectName(name).c_str(), extension) {}

bool KeyFile::Make() {
    if (m_Path.CreateFile()) return true;
    KOVA_TRACE("key file=%s cannot be made, errno=%d", Path(), errno);
    AbendOfLock();
    return false;
}

std::optional<key_t> KeyFile::Key() const {
    const key_t key = ::ftok(Path(), kProject);
    if (key != -1) return key;
    KOVA_TRACE("key file=%s has no key, errno=%d", Path(), errno);
    return std::nullopt;
}

void KeyFile::Delete() const {
    const ErrnoGuard keep;
    if (m_Path.Exist()) ::unlink(Path());
}

int LockKeyFile(const char* path) {
    UniqueFd fd(::open(path != nullptr ? path : "", O_RDWR));
    // Deliberate: descriptor 0 is refused as well.
    if (fd.Get() <= 0) {
        KOVA_TRACE("lock of key file=%s fd=%d errno=%d", path, fd.Get(), errno);
        AbendOfLock();
        return -1;
    }
    if (!SetWholeFileLock(fd.Get(), F_SETLKW, F_WRLCK)) {
        KOVA_TRACE("lock of key file fd=%d errno=%d", fd.Get(), errno);
        fd = UniqueFd();
        AbendOfLock();
        return -1;
    }
    return fd.Release();
}

int UnlockKeyFile(int descriptor) {
    UniqueFd fd(descriptor);
    if (!SetWholeFileLock(descriptor, F_SETLK, F_UNLCK)) {
        fd = UniqueFd();
        KOVA_TRACE("unlock of key file fd=%d errno=%d", descriptor, errno);
        AbendOfLock();
        return -1;
    }
    fd = UniqueFd();
    KOVA_TRACE("unlocked key file fd=%d", descriptor);
    return 0;
}

void KeyFileLock::Release() {
    if (m_Fd < 0) return;
    const ErrnoGuard keep;
    UnlockKeyFile(std::exchange(m_Fd, -1));
}

}  // namespace kova
