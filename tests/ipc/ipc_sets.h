/// What the tests of named objects share: the semaphore sets and message queues of the namespace as the
/// kernel shows them, and a fixture that begins and ends without any.
///
/// Everything here is past the fakes and the journal.
#ifndef KOVA_TESTS_IPC_IPC_SETS_H
#define KOVA_TESTS_IPC_IPC_SETS_H

#include "support/fake_libc.h"
#include "support/leak_check.h"

#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/sem.h>
#include <sys/stat.h>

#include <filesystem>
#include <set>
#include <string>
#include <vector>

namespace ipc {

inline constexpr int kProject = 80;

/// What the kernel knows of a set.
struct Set {
    int id;
    key_t key;
    mode_t mode;
    int size;
};

/// The sets of the namespace.
inline std::vector<Set> Sets() {
    seminfo info{};
    const int last = fake::semctl.Real(0, 0, SEM_INFO, reinterpret_cast<long>(&info));
    std::vector<Set> sets;
    for (int index = 0; index <= last; ++index) {
        semid_ds status{};
        const int id = fake::semctl.Real(index, 0, SEM_STAT, reinterpret_cast<long>(&status));
        if (id < 0) continue;
        sets.push_back(
            {id, status.sem_perm.__key, status.sem_perm.mode & 0777, static_cast<int>(status.sem_nsems)});
    }
    return sets;
}

/// The value of a position, -1 if there is none; the values of all positions, none if there is no set.
inline int Value(int set, int position) { return fake::semctl.Real(set, position, GETVAL, 0); }
inline std::vector<int> Values(int set) {
    std::vector<int> values;
    for (int value = 0; (value = Value(set, static_cast<int>(values.size()))) >= 0;) values.push_back(value);
    return values;
}
inline void SetValue(int set, int position, int value) {
    EXPECT_EQ(0, fake::semctl.Real(set, position, SETVAL, value));
}
/// How many wait until a position grows.
inline int Waiters(int set, int position) { return fake::semctl.Real(set, position, GETNCNT, 0); }
inline void Remove(int set) { EXPECT_EQ(0, fake::semctl.Real(set, 0, IPC_RMID, 0)); }

/// The key that belongs to a file; -1 if there is no such file.
inline key_t KeyOf(const std::string& path) { return fake::ftok.Real(path.c_str(), kProject); }
/// The set that belongs to a key file, -1 if there is none.
inline int FindSet(const std::string& path) {
    const key_t key = KeyOf(path);
    return key == -1 ? -1 : fake::semget.Real(key, 0, 0);
}

/// The message queues of the namespace.
inline std::vector<int> Queues() {
    msginfo info{};
    const int last = fake::msgctl.Real(0, MSG_INFO, reinterpret_cast<msqid_ds*>(&info));
    std::vector<int> queues;
    for (int index = 0; index <= last; ++index) {
        msqid_ds status{};
        const int id = fake::msgctl.Real(index, MSG_STAT, &status);
        if (id >= 0) queues.push_back(id);
    }
    return queues;
}

/// Begins without key files, and fails the test that leaves a set, a queue or another umask behind.
class Test : public KovaTest {
  protected:
    Test() { RemoveKeyFiles(); }
    ~Test() override {
        for (const Set& set : Sets()) {
            if (m_SetsAtStart.count(set.id) != 0) continue;
            ADD_FAILURE() << "set " << set.id << " left: " << testing::PrintToString(Values(set.id));
            Remove(set.id);
        }
        for (const int queue : Queues()) {
            if (m_QueuesAtStart.count(queue) != 0) continue;
            ADD_FAILURE() << "queue " << queue << " left";
            fake::msgctl.Real(queue, IPC_RMID, nullptr);
        }
        EXPECT_EQ(m_UmaskAtStart, Umask());
        RemoveKeyFiles();
    }

    static mode_t Umask() {
        const mode_t mask = fake::umask.Real(0);
        fake::umask.Real(mask);
        return mask;
    }

  private:
    static std::set<int> SetIds() {
        std::set<int> ids;
        for (const Set& set : Sets()) ids.insert(set.id);
        return ids;
    }
    static std::set<int> QueueIds() {
        const std::vector<int> queues = Queues();
        return {queues.begin(), queues.end()};
    }
    static void RemoveKeyFiles() {
        for (const char* directory : {"/tmp/kova", "/tmp/voxa"}) std::filesystem::remove_all(directory);
    }

    const std::set<int> m_SetsAtStart = SetIds();
    const std::set<int> m_QueuesAtStart = QueueIds();
    const mode_t m_UmaskAtStart = Umask();
};

}  // namespace ipc

#endif
