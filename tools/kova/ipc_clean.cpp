#include "ipc_clean.h"

#include "hex_dump.h"
#include "ipc_state.h"
#include "key_files.h"
#include "process_life.h"
#include "report.h"

#include <kova/shared_mutex.h>

#include <errno.h>
#include <fcntl.h>
#include <sys/msg.h>
#include <sys/sem.h>
#include <unistd.h>

#include <system_error>

namespace {

/// What is to become of an object, and why.
struct Verdict {
    bool remove;
    std::string why;
};

std::string Process(pid_t pid) { return "process " + std::to_string(pid); }

/// The lock under which the library creates and destroys: nobody opens the object meanwhile.
class CreateDestroyLock {
  public:
    /// Throws std::system_error if the key file cannot be locked.
    explicit CreateDestroyLock(const std::string& path) {
        // The library ends the process when it cannot open the file.
        if (::access(path.c_str(), R_OK | W_OK) == 0) m_Descriptor = KovaSharedMutexCDLock(path.c_str());
        if (m_Descriptor < 0) throw std::system_error(errno, std::generic_category(), "its key file");
    }
    CreateDestroyLock(const CreateDestroyLock&) = delete;
    CreateDestroyLock& operator=(const CreateDestroyLock&) = delete;
    ~CreateDestroyLock() { KovaSharedMutexCDUnlock(m_Descriptor); }

  private:
    int m_Descriptor = -1;
};

/// Why a mutex that is closed by its counter may still be somebody's; empty if nothing speaks for that.
std::string MutexUse(const SetState& set) {
    const pid_t owner = set.values[kOwnerPid];
    const pid_t locker = set.users[kLock];
    if (set.values[kLock] == 0) {
        if (IsAlive(owner)) return "held by " + Process(owner) + ", which is alive";
        if (locker == 0) return "held, and it is not visible by whom";
        if (IsAlive(locker)) return "held, and taken by " + Process(locker) + ", which is alive";
    }
    // The counter goes down twice for a process that closed the mutex and ended, so it may miss a user.
    if (IsAlive(locker)) return "used last by " + Process(locker) + ", which is alive";
    return {};
}

Verdict JudgeSet(IpcKind kind, const SetState& set, bool persistent_too) {
    if (!Fits(kind, set)) {
        return {false, "its set of " + std::to_string(set.values.size()) + " is no " + KindText(kind)};
    }
    if (const int counter = CounterOf(kind, set); counter > 0) {
        return {false, counter == 1 ? "open once" : "open " + std::to_string(counter) + " times"};
    }
    if (set.waiters > 0) return {false, std::to_string(set.waiters) + " waiting"};
    const bool is_mutex = kind == IpcKind::kMutex;
    if (is_mutex) {
        std::string use = MutexUse(set);
        if (!use.empty()) return {false, std::move(use)};
    }
    const bool persistent = IsPersistent(kind, set);
    if (persistent && !persistent_too) return {false, "persistent (--persistent removes it)"};
    std::string why = "nobody has it open";
    if (const pid_t owner = is_mutex ? set.values[kOwnerPid] : 0; owner != 0) {
        why += ", its last owner, " + Process(owner) + ", is dead";
    }
    return {true, persistent ? why + ", persistent" : why};
}

/// Nothing counts the users of a queue: the last ones must do.
Verdict JudgeQueue(const QueueState& queue) {
    if (queue.sender == 0 && queue.receiver == 0) return {false, "nobody has used it yet"};
    if (queue.sender == 0) return {false, "its last sender is not known"};
    if (queue.receiver == 0) return {false, "its last receiver is not known"};
    if (IsAlive(queue.sender)) return {false, "its last sender, " + Process(queue.sender) + ", is alive"};
    if (IsAlive(queue.receiver)) {
        return {false, "its last receiver, " + Process(queue.receiver) + ", is alive"};
    }
    return {true, "its last sender, " + Process(queue.sender) + ", and its last receiver, " +
                      Process(queue.receiver) + ", are dead; messages left " +
                      std::to_string(queue.messages)};
}

class Cleaner {
  public:
    explicit Cleaner(const IpcCleanOptions& options) : m_Options(options), m_All(FindKeyFiles()) {}

    int Run() {
        if (m_Options.names.empty()) {
            for (const KeyFile& file : m_All) Clean(file);
        }
        for (const std::string& name : m_Options.names) CleanName(name);
        if (!m_Told && !m_Failed) Print("nothing to clean\n");
        return m_Failed ? kExitFailure : kExitOk;
    }

  private:
    void CleanName(const std::string& name) {
        const std::vector<KeyFile> files = FindKeyFiles(name);
        if (files.empty()) Tell("nothing is named " + NameText(name));
        for (const KeyFile& file : files) Clean(file);
    }

    void Clean(const KeyFile& file) {
        try {
            if (file.kind == IpcKind::kQueue) {
                CleanQueue(file);
            } else {
                CleanSet(file);
            }
        } catch (const std::system_error& error) {
            Complain("cannot clean " + TextOf(file) + ": " + error.what());
            m_Failed = true;
        }
    }

    void CleanSet(const KeyFile& file) {
        const CreateDestroyLock lock(file.path);
        SetState set;
        const int id = FindSet(file.key);
        if (!IsThere(file, id < 0 ? errno : ReadSet(id, set))) return;
        Carry(file, JudgeSet(file.kind, set, m_Options.persistent),
              [&] { Check(::semctl(id, 0, IPC_RMID), "removal"); });
    }

    /// The library opens and removes queues without a lock, so there is none to take.
    void CleanQueue(const KeyFile& file) {
        QueueState queue;
        const int id = FindQueue(file.key);
        if (!IsThere(file, id < 0 ? errno : ReadQueue(id, queue))) return;
        Carry(file, JudgeQueue(queue), [&] {
            Check(::msgctl(id, IPC_RMID, nullptr), "removal");
            Check(::unlink(file.path.c_str()), "removal of its key file");
        });
    }

    /// Objects without key file do not come here, and one that two names lead to stays.
    template <typename Remove>
    void Carry(const KeyFile& file, Verdict verdict, const Remove& remove) {
        if (const KeyFile* const twin = FindTwin(file, m_All)) {
            verdict = {false, "its key is also that of " + TextOf(*twin)};
        }
        if (verdict.remove && !m_Options.dry_run) remove();
        const char* const what = !verdict.remove ? "kept " : m_Options.dry_run ? "would remove " : "removed ";
        Tell(what + TextOf(file) + ": " + verdict.why);
    }

    /// False for a name that is not in use; told only to those who asked for it.
    bool IsThere(const KeyFile& file, int error) {
        if (error == 0) return true;
        if (error != ENOENT) throw std::system_error(error, std::generic_category(), "reading");
        if (!m_Options.names.empty()) Tell(TextOf(file) + " is not open");
        return false;
    }

    static void Check(int result, const char* what) {
        if (result < 0) throw std::system_error(errno, std::generic_category(), what);
    }

    static std::string TextOf(const KeyFile& file) {
        return std::string(KindText(file.kind)) + " " + NameText(file.name);
    }

    void Tell(const std::string& line) {
        Print(line + "\n");
        m_Told = true;
    }

    const IpcCleanOptions& m_Options;
    const std::vector<KeyFile> m_All;
    bool m_Told = false;
    bool m_Failed = false;
};

/// The library takes a lock's descriptor 0 for a failure.
void OccupyDescriptor0() {
    if (::fcntl(STDIN_FILENO, F_GETFD) < 0 && ::open("/dev/null", O_RDONLY) < 0) {
        throw std::system_error(errno, std::generic_category(), "/dev/null");
    }
}

}  // namespace

int IpcClean(const IpcCleanOptions& options) {
    OccupyDescriptor0();
    return Cleaner(options).Run();
}
