#include "file/path_buffer.h"
#include "frame/errno_guard.h"
#include "frame/trace.h"
#include "frame/unique_fd.h"

#include <kova/file_notify.h>

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <string_view>

namespace {

constexpr size_t kMostWatches = 8;
constexpr long kChanges = DN_MULTISHOT | DN_MODIFY | DN_CREATE | DN_DELETE | DN_RENAME;

enum Refusal {
    kInstalledAlready = -1,
    kNotReadable = -2,
    kNotOpened = -3,
    kNoSignal = -4,
    kNoNotification = -5,
    kTableFull = -6,
};

/// One row of the table. The handler, on whatever thread it runs, looks at the descriptor first: a row is
/// filled before it gets one, and loses it before it is emptied.
struct Watch {
    char path[kova::kPathSize]{};
    std::atomic<int> descriptor{-1};
    std::atomic<KovaFileNotifyT> callback{nullptr};
};
static_assert(std::atomic<int>::is_always_lock_free && std::atomic<KovaFileNotifyT>::is_always_lock_free);

constinit std::array<Watch, kMostWatches> g_Watches;

bool IsFree(const Watch& watch) { return watch.descriptor == -1; }

Watch* FindWatch(std::string_view path) {
    for (Watch& watch : g_Watches) {
        if (!IsFree(watch) && path == watch.path) return &watch;
    }
    return nullptr;
}

Watch* FindFreeWatch() {
    for (Watch& watch : g_Watches) {
        if (IsFree(watch)) return &watch;
    }
    return nullptr;
}

void IgnoreSignal(int) {}

/// The kernel falls back on SIGIO when no more signals can be queued, and that would end the process. A
/// handler, unlike an ignored signal, is not handed on to programs that the process starts.
void SurviveFullQueue() {
    struct sigaction present {};
    if (::sigaction(SIGIO, nullptr, &present) != 0 || present.sa_handler != SIG_DFL) return;
    struct sigaction action {};
    action.sa_handler = IgnoreSignal;
    action.sa_flags = SA_RESTART;
    ::sigaction(SIGIO, &action, nullptr);
}

void InstallHandler() {
    sigset_t signals;
    ::sigemptyset(&signals);
    ::sigaddset(&signals, SIGRTMIN);
    ::sigprocmask(SIG_UNBLOCK, &signals, nullptr);

    struct sigaction action {};
    action.sa_sigaction = FileNotifySignalHandler;
    action.sa_flags = SA_SIGINFO | SA_RESTART;
    ::sigemptyset(&action.sa_mask);
    ::sigaction(SIGRTMIN, &action, nullptr);
    SurviveFullQueue();
}

}  // namespace

int InstallFileNotifyHandler(const char* path, KovaFileNotifyT callback) {
    const kova::ExpandedPath directory(path);
    if (FindWatch(directory.Text()) != nullptr) return kInstalledAlready;

    if (::access(directory.Get(), R_OK) != 0) {
        KOVA_TRACE("watch path=%s not readable, errno=%d", directory.Get(), errno);
        return kNotReadable;
    }
    kova::UniqueFd fd(::open(directory.Get(), O_RDONLY));
    if (!fd) {
        KOVA_TRACE("watch path=%s not opened, errno=%d", directory.Get(), errno);
        return kNotOpened;
    }
    ::fcntl(fd.Get(), F_SETFD, FD_CLOEXEC);
    InstallHandler();
    const int number = fd.Get();
    if (::fcntl(number, F_SETSIG, SIGRTMIN) < 0) {
        fd = kova::UniqueFd();
        KOVA_TRACE("watch fd=%d no signal, errno=%d", number, errno);
        return kNoSignal;
    }
    if (::fcntl(number, F_NOTIFY, kChanges) < 0) {
        fd = kova::UniqueFd();
        KOVA_TRACE("watch fd=%d no notification, errno=%d", number, errno);
        return kNoNotification;
    }
    Watch* const watch = FindFreeWatch();
    if (watch == nullptr) {
        fd = kova::UniqueFd();
        KOVA_TRACE("watch fd=%d too many", number);
        return kTableFull;
    }
    kova::BoundedText(watch->path, sizeof watch->path).Append(directory.Text());
    watch->callback = callback;
    watch->descriptor = number;
    return fd.Release();
}

int UnInstallFileNotifyHandler(const char* path) {
    const kova::ExpandedPath directory(path);
    Watch* const watch = FindWatch(directory.Text());
    if (watch == nullptr) return -1;
    const int fd = watch->descriptor.exchange(-1);
    // Deliberate: leaves a duplicate of the descriptor behind; closing the watched one is what ends the
    // watch.
    ::fcntl(fd, F_DUPFD, 0);
    kova::CloseOnce(fd);
    watch->callback = nullptr;
    std::memset(watch->path, 0, sizeof watch->path);
    return 0;
}

void FileNotifySignalHandler(int signal, siginfo_t* info, void*) {
    const kova::ErrnoGuard keep;
    const int fd = info->si_fd;
    KOVA_TRACE("notification signal=%d fd=%d", signal, fd);
    // A free row has a descriptor like that, and one in the making or being emptied a call-back, too.
    if (fd < 0) return;
    for (const Watch& watch : g_Watches) {
        if (watch.descriptor != fd) continue;
        const KovaFileNotifyT callback = watch.callback;
        if (callback != nullptr) callback(watch.path);
        return;
    }
}
