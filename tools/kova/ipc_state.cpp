#include "ipc_state.h"

#include <errno.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/sem.h>

namespace {

/// The fourth argument of semctl, which its header leaves to the caller.
union Argument {
    semid_ds* status;
    unsigned short* values;
};

int Failure() { return errno == EINVAL || errno == EIDRM ? ENOENT : errno; }

/// Reads one number of each position.
bool ReadEach(int id, int command, size_t count, std::vector<int>& numbers) {
    numbers.assign(count, 0);
    for (size_t position = 0; position < count; ++position) {
        numbers[position] = ::semctl(id, static_cast<int>(position), command);
        if (numbers[position] < 0) return false;
    }
    return true;
}

}  // namespace

int FindSet(key_t key) { return ::semget(key, 0, 0); }

int FindQueue(key_t key) { return ::msgget(key, 0); }

int ReadSet(int id, SetState& state) {
    semid_ds status{};
    Argument argument{};
    argument.status = &status;
    if (::semctl(id, 0, IPC_STAT, argument) < 0) return Failure();

    // All values at one moment.
    std::vector<unsigned short> values(status.sem_nsems);
    argument.values = values.data();
    if (::semctl(id, 0, GETALL, argument) < 0) return Failure();

    std::vector<int> waiting[2];
    if (!ReadEach(id, GETNCNT, values.size(), waiting[0])) return Failure();
    if (!ReadEach(id, GETZCNT, values.size(), waiting[1])) return Failure();
    if (!ReadEach(id, GETPID, values.size(), state.users)) return Failure();
    state.id = id;
    state.values.assign(values.begin(), values.end());
    state.waiters = 0;
    for (size_t i = 0; i < values.size(); ++i) state.waiters += waiting[0][i] + waiting[1][i];
    return 0;
}

int ReadQueue(int id, QueueState& state) {
    msqid_ds status{};
    if (::msgctl(id, IPC_STAT, &status) < 0) return Failure();
    state = {id, status.msg_qnum, status.__msg_cbytes, status.msg_lspid, status.msg_lrpid};
    return 0;
}

bool Fits(IpcKind kind, const SetState& state) {
    return kind == IpcKind::kMutex ? state.values.size() == kMutexPositions
                                   : state.values.size() >= kFirstUserPosition;
}

int CounterOf(IpcKind kind, const SetState& state) {
    return state.values[kind == IpcKind::kMutex ? static_cast<size_t>(kMutexCounter)
                                                : static_cast<size_t>(kSemaphoreCounter)];
}

bool IsPersistent(IpcKind kind, const SetState& state) {
    return state.values[kind == IpcKind::kMutex ? static_cast<size_t>(kMutexPersistent)
                                                : static_cast<size_t>(kSemaphorePersistent)] > 0;
}
