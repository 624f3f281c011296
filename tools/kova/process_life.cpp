#include "process_life.h"

#include <errno.h>
#include <signal.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <system_error>

namespace {

using std::filesystem::path;

path TaskDirectory(pid_t pid) { return path("/proc") / std::to_string(pid) / "task"; }

/// False for what ended, reaped or not.
bool IsRunning(const path& task) {
    std::ifstream file(task / "stat");
    const std::string text(std::istreambuf_iterator<char>(file), {});
    // The state follows the name of the program, which may hold anything.
    const size_t name_end = text.rfind(") ");
    if (name_end == text.npos || name_end + 2 >= text.size()) return false;
    const char state = text[name_end + 2];
    return state != 'Z' && state != 'X';
}

bool Exists(pid_t pid) { return ::kill(pid, 0) == 0 || errno != ESRCH; }

}  // namespace

bool IsAlive(pid_t pid) {
    if (pid <= 0 || !Exists(pid)) return false;
    std::error_code error;
    const std::filesystem::directory_iterator tasks(TaskDirectory(pid), error);
    // Processes of other users may be hidden there.
    if (error) return Exists(pid);
    return std::any_of(begin(tasks), end(tasks), [](const auto& task) { return IsRunning(task.path()); });
}

const char* LifeText(pid_t pid) { return IsAlive(pid) ? "alive" : "dead"; }

const char* LifeText(pid_t pid, pid_t tid) {
    if (!IsAlive(pid)) return "dead";
    std::error_code error;
    const path tasks = TaskDirectory(pid);
    const bool hidden = !std::filesystem::exists(tasks, error);
    return hidden || IsRunning(tasks / std::to_string(tid)) ? "alive" : "thread ended";
}
