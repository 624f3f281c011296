#include "frame/trace.h"
#include "ipc/key_file.h"

#include <kova/message_queue.h>

#include <sys/ipc.h>
#include <sys/msg.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <memory>
#include <new>

namespace {

constexpr const char* kExtension = "kovamsg";
constexpr int kClassType = 1;

/// Deliberate: for an existing queue IPC_EXCL stands without IPC_CREAT, and does nothing.
constexpr int kNewQueueFlags = IPC_CREAT | IPC_EXCL | 0666;
constexpr int kExistingQueueFlags = IPC_EXCL | 0666;

/// Room for a message as the kernel wants it: its type, as wide as the system has it, and its bytes. Small
/// ones lie in the object itself, so that they cost no allocation.
class MessageBuffer {
  public:
    /// None, with `errno`, for a negative size and without memory.
    explicit MessageBuffer(int size) {
        if (size < 0) {
            errno = EINVAL;
        } else if (size <= kSmall) {
            m_Message = m_Own;
        } else {
            m_Allocated.reset(new (std::nothrow) char[static_cast<size_t>(size) + kTypeRoom]);
            m_Message = m_Allocated.get();
            if (m_Message == nullptr) errno = ENOMEM;
        }
    }
    MessageBuffer(const MessageBuffer&) = delete;
    MessageBuffer& operator=(const MessageBuffer&) = delete;

    explicit operator bool() const { return m_Message != nullptr; }
    void SetType(long type) { std::memcpy(m_Message, &type, sizeof type); }
    char* Message() { return m_Message; }
    char* Payload() { return m_Message + sizeof(long); }

  private:
    static constexpr int kSmall = 4096;
    static constexpr size_t kTypeRoom = 8;
    static_assert(sizeof(long) <= kTypeRoom);

    char* m_Message = nullptr;
    std::unique_ptr<char[]> m_Allocated;
    alignas(long) char m_Own[sizeof(long) + kSmall];
};

}  // namespace

int KovaQueueOpen(const char* name) {
    kova::KeyFile file(name, kExtension);
    if (!file.Make()) return -1;
    const std::optional<key_t> key = file.Key();
    if (!key) return -1;
    int queue = ::msgget(*key, kNewQueueFlags);
    if (queue >= 0) {
        KOVA_TRACE("new queue=%d", queue);
        return queue;
    }
    queue = ::msgget(*key, kExistingQueueFlags);
    KOVA_TRACE("existing queue=%d", queue);
    if (queue < 0) KOVA_TRACE("no queue key=%x result=%d errno=%d", *key, queue, errno);
    return queue;
}

int KovaQueueWrite(int queue, const void* data, int size, int type) {
    MessageBuffer buffer(size);
    int result = -1;
    if (buffer) {
        buffer.SetType(type);
        if (size > 0) std::memcpy(buffer.Payload(), data, static_cast<size_t>(size));
        result = ::msgsnd(queue, buffer.Message(), static_cast<size_t>(size), 0);
    }
    KOVA_TRACE("queue write result=%d errno=%d", result, errno);
    return result;
}

int KovaQueueRead(int queue, void* buffer, int size, int type) {
    MessageBuffer received(size);
    int result = -1;
    if (received) {
        result = static_cast<int>(::msgrcv(queue, received.Message(), static_cast<size_t>(size), type, 0));
    }
    KOVA_TRACE("queue read result=%d errno=%d", result, errno);
    if (result > 0 && result <= size) std::memcpy(buffer, received.Payload(), static_cast<size_t>(result));
    return result;
}

int KovaQueueDestroy(int queue, const char* name) {
    const int result = ::msgctl(queue, IPC_RMID, nullptr);
    if (result < 0) KOVA_TRACE("queue=%d not removed, errno=%d", queue, errno);
    if (name != nullptr) kova::KeyFile(name, kExtension).Delete();
    return result;
}

KovaMessageQueue::KovaMessageQueue(char* name) : m_Error(0) {
    kova::StoreObjectName(name, m_Name);
    m_Handle = KovaQueueOpen(m_Name);
    if (m_Handle < 0) m_Error = errno;
}

KovaMessageQueue::~KovaMessageQueue() {
    m_Error = 0;
    if (KovaQueueDestroy(m_Handle, m_Name) < 0) m_Error = errno;
}

int KovaMessageQueue::Read(void* buffer, int size) {
    m_Error = 0;
    const int result = KovaQueueRead(m_Handle, buffer, size, kClassType);
    if (result < 0) m_Error = errno;
    return result;
}

int KovaMessageQueue::Write(void* data, int size) {
    m_Error = 0;
    const int result = KovaQueueWrite(m_Handle, data, size, kClassType);
    if (result < 0) m_Error = errno;
    return result;
}
