/// `kova ipc list`: shows mutexes, semaphores and queues that processes share by name.
#ifndef KOVA_TOOLS_IPC_LIST_H
#define KOVA_TOOLS_IPC_LIST_H

struct IpcListOptions {
    bool json = false;
};

/// Returns the exit code.
int IpcList(const IpcListOptions& options);

#endif
