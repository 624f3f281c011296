/// What shared objects are held against: the same system calls by hand, without key file, error record and
/// trace.
#ifndef KOVA_BENCH_IPC_BY_HAND_H
#define KOVA_BENCH_IPC_BY_HAND_H

#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/sem.h>
#include <unistd.h>

#include <cstddef>
#include <cstring>

namespace kova_bench {

/// A private set, removed with the object.
class HandSet {
  public:
    explicit HandSet(int size) : m_Set(::semget(IPC_PRIVATE, size, 0666)) {}
    HandSet(const HandSet&) = delete;
    HandSet& operator=(const HandSet&) = delete;
    ~HandSet() { ::semctl(m_Set, 0, IPC_RMID); }

    bool Operate(unsigned short position, short units, short flags) const {
        sembuf operation{position, units, flags};
        return ::semop(m_Set, &operation, 1) == 0;
    }
    bool Set(int position, int value) const { return ::semctl(m_Set, position, SETVAL, value) == 0; }
    int Get(int position) const { return ::semctl(m_Set, position, GETVAL); }

  private:
    const int m_Set;
};

/// Position 0 is the lock, 2 and 3 name its holder, as in the library's set.
class HandMutex {
  public:
    HandMutex() : m_Set(5) { m_Set.Set(0, 1); }

    bool Lock() {
        return m_Set.Operate(0, -1, IPC_NOWAIT | SEM_UNDO) && m_Set.Set(2, m_Pid) && m_Set.Set(3, m_Tid);
    }
    bool Unlock() {
        if (m_Set.Get(2) != m_Pid || m_Set.Get(3) != m_Tid) return false;
        return m_Set.Set(2, 0) && m_Set.Set(3, 0) && m_Set.Set(0, 1);
    }

  private:
    const HandSet m_Set;
    const int m_Pid = ::getpid();
    const int m_Tid = ::gettid();
};

class HandSemaphore {
  public:
    HandSemaphore() : m_Set(1) {}

    bool Post() { return m_Set.Operate(0, 1, SEM_UNDO); }
    bool Wait() { return m_Set.Operate(0, -1, SEM_UNDO); }

  private:
    const HandSet m_Set;
};

/// A private queue, removed with the object. The message lies in its buffer already.
template <size_t size>
class HandQueue {
  public:
    HandQueue() : m_Queue(::msgget(IPC_PRIVATE, 0666)) {}
    HandQueue(const HandQueue&) = delete;
    HandQueue& operator=(const HandQueue&) = delete;
    ~HandQueue() { ::msgctl(m_Queue, IPC_RMID, nullptr); }

    bool Write() { return ::msgsnd(m_Queue, &m_Message, size, 0) == 0; }
    bool Read() { return ::msgrcv(m_Queue, &m_Message, size, 1, 0) == ssize_t{size}; }

  private:
    struct Message {
        long type = 1;
        char bytes[size]{};
    };

    const int m_Queue;
    Message m_Message;
};

}  // namespace kova_bench

#endif
