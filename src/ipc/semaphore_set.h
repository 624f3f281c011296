/// System V semaphore sets, as the shared mutex and the shared semaphore use them.
#ifndef KOVA_IPC_SEMAPHORE_SET_H
#define KOVA_IPC_SEMAPHORE_SET_H

#include <sys/ipc.h>
#include <sys/sem.h>

#include <cstddef>

namespace kova {

/// Everybody may use a set. Deliberate: for an existing set IPC_EXCL stands without IPC_CREAT, and does
/// nothing.
inline constexpr int kNewSetFlags = IPC_CREAT | IPC_EXCL | 0666;
inline constexpr int kExistingSetFlags = IPC_EXCL | 0666;

/// Performs `count` operations at once. Repeated when a signal interrupts it. 0, or -1 with errno.
int OperateSet(int set, sembuf* operations, size_t count);

inline int OperateSet(int set, unsigned short position, short units, short flags) {
    sembuf operation{position, units, flags};
    return OperateSet(set, &operation, 1);
}

/// A semaphore's value, or -1 with errno.
inline int ReadValue(int set, int position) { return ::semctl(set, position, GETVAL); }
/// 0, or -1 with errno.
int SetValue(int set, int position, int value);

/// Whether the process that made a set was killed before it had set the values and counted itself: nobody has
/// operated on it since. The caller holds the lock of the key file.
bool IsHalfMade(int set);

/// Removes a set; keeps `errno`.
void DropSet(int set);

/// How a kind of set keeps count of those who have it open.
struct Bookkeeping {
    unsigned short references;  ///< position of the counter
    unsigned short persistent;  ///< position of the flag that keeps an unused set
    short closing_flags;        ///< of the operation that takes a reference back
    bool reads_again;           ///< whether the counter is read once more for the trace record
};

/// Takes a reference back, and removes the set if it was the last and the set is not persistent. 0, or -1
/// with the errno of the call that failed. The caller holds the lock of the key file.
int CloseSet(int set, const Bookkeeping& books);

}  // namespace kova

#endif
