/// What the kernel knows of semaphore sets and message queues. Only looks: nothing is made, taken or waited
/// for.
#ifndef KOVA_TOOLS_IPC_STATE_H
#define KOVA_TOOLS_IPC_STATE_H

#include "key_files.h"

#include <sys/types.h>

#include <cstdint>
#include <vector>

struct SetState {
    int id = -1;
    std::vector<int> values;
    std::vector<pid_t> users;  ///< last process that changed each value; 0: none, or one that is not visible
    int waiters = 0;           ///< at all positions, for more or for none
};

struct QueueState {
    int id = -1;
    uint64_t messages = 0;
    uint64_t bytes = 0;
    pid_t sender = 0;  ///< last process that sent; 0: none, or one that is not visible
    pid_t receiver = 0;
};

/// Id of the set or queue with that key, -1 with errno (ENOENT: there is none).
int FindSet(key_t key);
int FindQueue(key_t key);

/// 0, or an errno value; ENOENT if it is gone.
int ReadSet(int id, SetState& state);
int ReadQueue(int id, QueueState& state);

/// Positions in the set of a mutex.
enum MutexPosition { kLock, kMutexCounter, kOwnerPid, kOwnerTid, kMutexPersistent, kMutexPositions };
/// Positions in the set of a semaphore, before those of the user.
enum SemaphorePosition { kSemaphoreCounter, kSemaphorePersistent, kFirstUserPosition };

/// Whether a set can be what its key file says. The functions below are for such sets.
bool Fits(IpcKind kind, const SetState& state);
int CounterOf(IpcKind kind, const SetState& state);
bool IsPersistent(IpcKind kind, const SetState& state);

#endif
