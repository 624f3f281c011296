#include "ipc/semaphore_set.h"

#include "frame/errno_guard.h"
#include "frame/retry.h"
#include "frame/trace.h"

#include <cerrno>

namespace kova {

namespace {

/// What `semctl` takes; callers have to define it.
union SemaphoreArgument {
    int value;
    semid_ds* status;
    unsigned short* values;
};

bool StaysOpen(int set, const Bookkeeping& books) {
    const int references = ReadValue(set, books.references);
    if (references != 0) {
        const int traced = books.reads_again ? ReadValue(set, books.references) : references;
        KOVA_TRACE("set=%d stays open, references=%d", set, traced);
        return true;
    }
    if (ReadValue(set, books.persistent) > 0) {
        KOVA_TRACE("set=%d is persistent, references=%d", set, references);
        return true;
    }
    return false;
}

}  // namespace

int OperateSet(int set, sembuf* operations, size_t count) {
    const auto interrupted = [set] {
        KOVA_TRACE("semop set=%d interrupted", set);
        return true;
    };
    return RetryInterrupted([&] { return ::semop(set, operations, count); }, interrupted);
}

int SetValue(int set, int position, int value) {
    SemaphoreArgument argument{};
    argument.value = value;
    return ::semctl(set, position, SETVAL, argument);
}

bool IsHalfMade(int set) {
    const ErrnoGuard keep;
    semid_ds status{};
    SemaphoreArgument argument{};
    argument.status = &status;
    if (::semctl(set, 0, IPC_STAT, argument) < 0 || status.sem_otime != 0) return false;
    KOVA_TRACE("set=%d was left half made", set);
    return true;
}

void DropSet(int set) {
    const ErrnoGuard keep;
    ::semctl(set, 0, IPC_RMID);
}

int CloseSet(int set, const Bookkeeping& books) {
    const int result = OperateSet(set, books.references, -1, books.closing_flags);
    if (result < 0) KOVA_TRACE("set=%d not closed, errno=%d", set, errno);
    {
        const ErrnoGuard keep;
        if (StaysOpen(set, books)) return result;
    }
    const int removed = ::semctl(set, 0, IPC_RMID);
    KOVA_TRACE("removed set=%d result=%d", set, removed);
    return removed;
}

}  // namespace kova
