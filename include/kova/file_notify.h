/// Calls back when files are created, deleted, renamed or modified in a directory.
///
/// At most eight directories of a process are watched. The kernel sends SIGRTMIN for each change, and the
/// call-back runs in the handler of that signal, on any thread that does not block it: it may only do what a
/// signal handler may (no allocation, no locks). Changes that come while as many signals wait as the user may
/// have queued, counted over all processes, are told by SIGIO only and call nobody. SIGIO would end the
/// process: each install gives it an empty handler where it has its default action.
///
/// Threads: install and uninstall from one thread only. Nobody is called for a watch after it was
/// uninstalled, except by a handler that was running already on another thread.
#ifndef KOVA_FILE_NOTIFY_H
#define KOVA_FILE_NOTIFY_H

#include <kova/export.h>

#include <signal.h>

/// Gets the watched directory's expanded path, which is the table's.
typedef void (*KovaFileNotifyT)(const char* path);

extern "C" {

/// Watches the directory `path`, in which `$NAME` stands for environment variables. `callback` may be null.
/// The directory's descriptor, which stays the library's; -1 if it is watched already, -2 if it cannot be
/// read, -3 if it cannot be opened, -4 or -5 if it cannot be watched, -6 if eight directories are. A path
/// that is a FIFO without a writer waits in `open` until there is one.
KOVA_API int InstallFileNotifyHandler(const char* path, KovaFileNotifyT callback);

/// Ends the watch of `path`: 0, or -1 if there is none. SIGRTMIN keeps its handler.
KOVA_API int UnInstallFileNotifyHandler(const char* path);

/// The handler of SIGRTMIN.
KOVA_API void FileNotifySignalHandler(int signal, siginfo_t* info, void* context);
}

#endif
