/// Whether processes and threads are still there.
#ifndef KOVA_TOOLS_PROCESS_LIFE_H
#define KOVA_TOOLS_PROCESS_LIFE_H

#include <sys/types.h>

/// Whether a thread of the process is left; a process that only waits to be reaped holds nothing any more.
/// True in doubt.
bool IsAlive(pid_t pid);

/// "alive" or "dead".
const char* LifeText(pid_t pid);
/// "alive", "dead", or "thread ended" in a process that goes on.
const char* LifeText(pid_t pid, pid_t tid);

#endif
