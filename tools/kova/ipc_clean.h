/// `kova ipc clean`: removes mutexes, semaphores and queues that no living process holds.
#ifndef KOVA_TOOLS_IPC_CLEAN_H
#define KOVA_TOOLS_IPC_CLEAN_H

#include <string>
#include <vector>

struct IpcCleanOptions {
    bool dry_run = false;
    bool persistent = false;         ///< remove persistent ones, too
    std::vector<std::string> names;  ///< none: all
};

/// Returns the exit code.
int IpcClean(const IpcCleanOptions& options);

#endif
