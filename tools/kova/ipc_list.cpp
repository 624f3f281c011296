#include "ipc_list.h"

#include "hex_dump.h"
#include "ipc_state.h"
#include "json.h"
#include "key_files.h"
#include "process_life.h"
#include "report.h"

#include <errno.h>

#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>
#include <vector>

namespace {

/// One object as a line for people and as JSON, which are put together side by side.
class Entry {
  public:
    explicit Entry(const KeyFile& file)
        : m_Line(std::string(KindText(file.kind)) + " " + NameText(file.name)) {
        m_Json.AddText("kind", KindText(file.kind)).AddText("name", file.name).AddText("path", file.path);
        AddKey(file.key);
    }

    explicit Entry(const UnnamedObject& object) : m_Line(object.is_queue ? "queue" : "set") {
        m_Json.AddText("kind", m_Line).AddNull("name").AddNull("path");
        m_Line += " without a name (key file gone)";
        AddKey(object.key);
    }

    void AddId(int id) {
        Say("id " + std::to_string(id));
        m_Json.AddNumber("id", static_cast<uint64_t>(id));
    }

    void AddNotOpen() {
        Say("not open");
        m_Json.AddNull("id");
    }

    void AddFailure(int error) {
        Say("cannot be read: " + SystemText(error));
        m_Json.AddText("error", SystemText(error));
    }

    void AddMutex(const SetState& set) {
        AddCounter(IpcKind::kMutex, set);
        const bool held = set.values[kLock] == 0;
        Say(held ? "held" : "free");
        m_Json.AddFlag("held", held);
        AddOwner(set.values[kOwnerPid], set.values[kOwnerTid], held);
        AddUse(IpcKind::kMutex, set);
    }

    void AddSemaphore(const SetState& set) {
        AddCounter(IpcKind::kSemaphore, set);
        AddValues({set.values.begin() + kFirstUserPosition, set.values.end()});
        AddUse(IpcKind::kSemaphore, set);
    }

    /// A set of which nobody knows what it is.
    void AddBareSet(const SetState& set) {
        AddValues(set.values);
        AddWaiters(set);
    }

    void AddQueue(const QueueState& queue) {
        Say("messages " + std::to_string(queue.messages));
        Say("bytes " + std::to_string(queue.bytes));
        m_Json.AddNumber("messages", queue.messages).AddNumber("bytes", queue.bytes);
        AddProcess("last sender", "last_sender", queue.sender);
        AddProcess("last receiver", "last_receiver", queue.receiver);
    }

    std::string Line() const { return m_Line + "\n"; }
    std::string Json() const { return m_Json.Text(); }

  private:
    void Say(const std::string& text) { m_Line += ", " + text; }

    void AddKey(key_t key) {
        char text[16];
        std::snprintf(text, sizeof text, "0x%08x", static_cast<unsigned>(key));
        m_Line += std::string(": key ") + text;
        m_Json.AddText("key", text);
    }

    void AddCounter(IpcKind kind, const SetState& set) {
        const int counter = CounterOf(kind, set);
        Say("counter " + std::to_string(counter));
        m_Json.AddNumber("counter", static_cast<uint64_t>(counter));
    }

    /// The ids of a holder that died stay until the next one locks.
    void AddOwner(int pid, int tid, bool held) {
        if (pid == 0 && tid == 0) {
            m_Json.AddNull("owner");
            return;
        }
        const char* const state = LifeText(pid, tid);
        const std::string ids = std::to_string(pid) + "/" + std::to_string(tid) + " (" + state + ")";
        m_Line += held ? " by " + ids : ", last owner " + ids;
        JsonObject owner;
        owner.AddNumber("pid", static_cast<uint64_t>(pid)).AddNumber("tid", static_cast<uint64_t>(tid));
        m_Json.AddRaw("owner", owner.AddText("state", state).Text());
    }

    void AddUse(IpcKind kind, const SetState& set) {
        AddWaiters(set);
        const bool persistent = IsPersistent(kind, set);
        if (persistent) Say("persistent");
        m_Json.AddFlag("persistent", persistent);
    }

    void AddWaiters(const SetState& set) {
        Say("waiters " + std::to_string(set.waiters));
        m_Json.AddNumber("waiters", static_cast<uint64_t>(set.waiters));
    }

    void AddValues(const std::vector<int>& values) {
        std::string text = "values";
        for (const int value : values) {
            text += ' ';
            text += std::to_string(value);
        }
        Say(text);
        m_Json.AddNumbers("values", values);
    }

    void AddProcess(const char* what, const char* key, pid_t pid) {
        if (pid == 0) {
            Say(std::string(what) + " unknown");
            m_Json.AddNull(key);
            return;
        }
        Say(std::string(what) + " " + std::to_string(pid) + " (" + LifeText(pid) + ")");
        JsonObject process;
        process.AddNumber("pid", static_cast<uint64_t>(pid)).AddText("state", LifeText(pid));
        m_Json.AddRaw(key, process.Text());
    }

    std::string m_Line;
    JsonObject m_Json;
};

/// `kind` is null for a set without a key file.
void AddSet(Entry& entry, int id, const IpcKind* kind) {
    SetState set;
    const int error = ReadSet(id, set);
    if (error == ENOENT) return entry.AddNotOpen();
    entry.AddId(id);
    if (error != 0) return entry.AddFailure(error);
    if (kind == nullptr || !Fits(*kind, set)) return entry.AddBareSet(set);
    if (*kind == IpcKind::kMutex) return entry.AddMutex(set);
    entry.AddSemaphore(set);
}

void AddQueue(Entry& entry, int id) {
    QueueState queue;
    const int error = ReadQueue(id, queue);
    if (error == ENOENT) return entry.AddNotOpen();
    entry.AddId(id);
    if (error != 0) return entry.AddFailure(error);
    entry.AddQueue(queue);
}

Entry EntryOf(const KeyFile& file) {
    Entry entry(file);
    const bool is_queue = file.kind == IpcKind::kQueue;
    const int id = is_queue ? FindQueue(file.key) : FindSet(file.key);
    if (id < 0) {
        entry.AddNotOpen();
    } else if (is_queue) {
        AddQueue(entry, id);
    } else {
        AddSet(entry, id, &file.kind);
    }
    return entry;
}

Entry EntryOf(const UnnamedObject& object) {
    Entry entry(object);
    if (object.is_queue) {
        AddQueue(entry, object.id);
    } else {
        AddSet(entry, object.id, nullptr);
    }
    return entry;
}

std::vector<Entry> AllEntries() {
    const std::vector<KeyFile> files = FindKeyFiles();
    const std::vector<UnnamedObject> unnamed = FindUnnamed(files);
    std::vector<Entry> entries;
    entries.reserve(files.size() + unnamed.size());
    for (const KeyFile& file : files) entries.push_back(EntryOf(file));
    for (const UnnamedObject& object : unnamed) entries.push_back(EntryOf(object));
    return entries;
}

std::string Lines(const std::vector<Entry>& entries) {
    std::string text;
    for (const Entry& entry : entries) text += entry.Line();
    return text.empty() ? "no named objects\n" : text;
}

std::string Array(const std::vector<Entry>& entries) {
    std::string text;
    for (const Entry& entry : entries) text += (text.empty() ? "[\n" : ",\n") + entry.Json();
    return text.empty() ? "[]\n" : text + "\n]\n";
}

}  // namespace

int IpcList(const IpcListOptions& options) {
    const std::vector<Entry> entries = AllEntries();
    Print(options.json ? Array(entries) : Lines(entries));
    return kExitOk;
}
