#include "frame/abend.h"
#include "frame/fail.h"
#include "frame/trace.h"
#include "ipc/key_file.h"
#include "ipc/semaphore_set.h"

#include <kova/shared_mutex.h>

#include <cerrno>
#include <utility>

namespace {

constexpr const char* kExtension = "kovamtx";

enum Position : unsigned short { kLock, kReferences, kOwnerPid, kOwnerTid, kPersistent, kPositions };

/// Deliberate: opening is undone when the process ends, closing is not, so that a process which closes and
/// then ends is counted twice.
constexpr short kOpeningFlags = SEM_UNDO;
constexpr kova::Bookkeeping kBooks{kReferences, kPersistent, IPC_NOWAIT, false};

KovaPTid Caller() {
    KovaPTid id;
    return *KovaGetPTid(&id);
}

/// Gives a set a free lock that nobody has open; a set that cannot be given these values is removed.
bool SetInitialValues(int set) {
    bool is_set = kova::SetValue(set, kLock, 1) >= 0;
    for (const Position position : {kReferences, kOwnerPid, kOwnerTid, kPersistent}) {
        is_set = is_set && kova::SetValue(set, position, 0) >= 0;
    }
    if (is_set) return true;
    KOVA_TRACE("initial values of set=%d errno=%d", set, errno);
    kova::DropSet(set);
    return false;
}

/// Makes the set, or finds the one that exists; -1 with errno.
int OpenSet(key_t key) {
    int set = ::semget(key, kPositions, kova::kNewSetFlags);
    if (set != -1) return SetInitialValues(set) ? set : -1;
    KOVA_TRACE("no new set key=%x size=%d flags=%x errno=%d", key, kPositions, kova::kNewSetFlags, errno);
    set = ::semget(key, kPositions, kova::kExistingSetFlags);
    if (set == -1) {
        KOVA_TRACE("no set key=%x size=%d flags=%x errno=%d", key, kPositions, kova::kExistingSetFlags,
                   errno);
        return -1;
    }
    return !kova::IsHalfMade(set) || SetInitialValues(set) ? set : -1;
}

bool CountReference(int set) {
    if (kova::OperateSet(set, kReferences, 1, kOpeningFlags) == 0) return true;
    KOVA_TRACE("set=%d not counted, errno=%d", set, errno);
    return false;
}

/// 0, or -1 after the abnormal end.
int SetOwner(int set, const KovaPTid& owner) {
    int result = 0;
    for (const auto& [position, id] : {std::pair(kOwnerPid, owner.pid), std::pair(kOwnerTid, owner.tid)}) {
        result = kova::SetValue(set, position, id);
        if (result >= 0) continue;
        KOVA_TRACE("owner set=%d errno=%d", set, errno);
        kova::AbendOfLock();
    }
    return result;
}

KovaPTid GetOwner(int set) {
    const auto read = [set](Position position) {
        const int id = kova::ReadValue(set, position);
        if (id == -1) {
            KOVA_TRACE("owner of set=%d errno=%d", set, errno);
            kova::AbendOfLock();
        }
        return id;
    };
    KovaPTid owner{};
    owner.pid = read(kOwnerPid);
    owner.tid = read(kOwnerTid);
    return owner;
}

/// Whether both ids could be read.
bool IsRead(const KovaPTid& owner) { return owner.pid != -1 && owner.tid != -1; }

}  // namespace

// Callers hold their handles by pointer, whatever is done with them.
// NOLINTBEGIN(readability-non-const-parameter)

int KovaSharedMutexCreate(int* handle, const char* name) {
    *handle = -1;
    kova::KeyFile file(name, kExtension);
    if (!file.Make()) return -1;
    const std::optional<key_t> key = file.Key();
    if (!key) {
        kova::AbendOfLock();
        return -1;
    }
    kova::KeyFileLock lock(file);
    if (!lock) return -1;
    const int set = OpenSet(*key);
    if (set == -1 || !CountReference(set)) {
        lock.Release();
        kova::AbendOfLock();
        return -1;
    }
    return *handle = set;
}

int KovaSharedMutexDestroy(int* handle, const char* name) {
    kova::KeyFile file(name, kExtension);
    if (!file.Make()) return -1;
    const kova::KeyFileLock lock(file);
    if (!lock) return -1;
    return kova::CloseSet(*handle, kBooks);
}

int KovaSharedMutexLock(int* handle) {
    const int set = *handle;
    int result = kova::OperateSet(set, kLock, -1, IPC_NOWAIT | SEM_UNDO);
    if (result < 0 && errno == EAGAIN) {
        if (Caller() == GetOwner(set)) {
            KOVA_TRACE("mutex set=%d is locked by its holder", set);
            kova::AbendOfLock();
            return -1;
        }
        result = kova::OperateSet(set, kLock, -1, SEM_UNDO);
    }
    if (result < 0) {
        KOVA_TRACE("lock set=%d errno=%d", set, errno);
        kova::AbendOfLock();
    } else {
        SetOwner(set, Caller());
    }
    KOVA_TRACE("lock set=%d", set);
    return result;
}

int KovaSharedMutexTrylock(int* handle) {
    const int set = *handle;
    if (kova::OperateSet(set, kLock, -1, IPC_NOWAIT | SEM_UNDO) == 0) {
        SetOwner(set, Caller());
        return 0;
    }
    const int error = errno;
    const KovaPTid owner = GetOwner(set);
    errno = error;
    if (Caller() == owner) {
        KOVA_TRACE("mutex set=%d is tried by its holder", set);
        kova::AbendOfLock();
        return -1;
    }
    KOVA_TRACE("trylock set=%d errno=%d owner=%d/%d", set, error, owner.pid, owner.tid);
    return error == EAGAIN ? 1 : -1;
}

int KovaSharedMutexUnlock(int* handle) {
    const int set = *handle;
    const KovaPTid caller = Caller();
    const KovaPTid owner = GetOwner(set);
    int result = -1;
    if (caller != owner) {
        const int error = IsRead(owner) ? EPERM : errno;
        KOVA_TRACE("unlock set=%d by=%d/%d owner=%d/%d", set, caller.pid, caller.tid, owner.pid, owner.tid);
        kova::AbendOfLock();
        errno = error;
    } else {
        SetOwner(set, {0, 0});
        // Deliberate: setting the value erases what the kernel would undo at the holder's end, and never
        // counts above 1.
        result = kova::SetValue(set, kLock, 1);
        if (result < 0) KOVA_TRACE("unlock set=%d errno=%d", set, errno);
    }
    KOVA_TRACE("unlock set=%d", set);
    return result;
}

int KovaSharedMutexSetPersistent(int* handle) {
    if (kova::SetValue(*handle, kPersistent, 1) < 0) {
        KOVA_TRACE("persistent set=%d errno=%d", *handle, errno);
        kova::AbendOfLock();
    }
    return 0;
}

int KovaSharedMutexGetRefCounter(int* handle) { return kova::ReadValue(*handle, kReferences); }

int KovaSharedMutexSetOwner(int* handle) { return SetOwner(*handle, Caller()); }

int KovaSharedMutexClearOwner(int* handle) { return SetOwner(*handle, {0, 0}); }

KovaPTid& KovaSharedMutexGetOwner(int* handle, KovaPTid& owner) { return owner = GetOwner(*handle); }

int KovaSharedMutexCDLock(const char* path) { return kova::LockKeyFile(path); }

int KovaSharedMutexCDUnlock(int fd) { return kova::UnlockKeyFile(fd); }

// NOLINTEND(readability-non-const-parameter)

KovaSharedMutex::KovaSharedMutex(const char* name) : m_Trace(true) {
    kova::StoreObjectName(name, m_Name);
    KOVA_RESULT(KovaSharedMutexCreate(&m_Handle, m_Name) >= 0);
}

KovaSharedMutex::~KovaSharedMutex() { KOVA_RESULT(KovaSharedMutexDestroy(&m_Handle, m_Name) == 0); }

bool KovaSharedMutex::Lock() { return KOVA_RESULT(KovaSharedMutexLock(&m_Handle) == 0); }

bool KovaSharedMutex::Trylock() { return KOVA_RESULT(KovaSharedMutexTrylock(&m_Handle) == 0); }

bool KovaSharedMutex::Unlock() { return KOVA_RESULT(KovaSharedMutexUnlock(&m_Handle) == 0); }

bool KovaSharedMutex::SetPersistent() { return KOVA_RESULT(KovaSharedMutexSetPersistent(&m_Handle) == 0); }

int KovaSharedMutex::GetRefCounter() { return KovaSharedMutexGetRefCounter(&m_Handle); }
