/// Message queue that processes share by name.
///
/// It is a System V message queue, found through the key file `/tmp/voxa/hubl/NAME.kovamsg`. Nobody counts
/// its users: whoever destroys it removes it for all, with its messages and its key file, and the others get
/// EIDRM or EINVAL from then on.
///
/// Errors: errno of the failing call; signals end a call that waits with EINTR. A key file that cannot be
/// made ends the process (`pabend`). Reading and writing wait without limit. Threads: the functions may be
/// called from any, for one queue from several at once; an object is one thread's.
#ifndef KOVA_MESSAGE_QUEUE_H
#define KOVA_MESSAGE_QUEUE_H

#include <kova/base_object.h>
#include <kova/export.h>

extern "C" {

/// Opens the queue `name` (its first 64 characters), making it if need be. Its id, or -1 with errno.
KOVA_API int KovaQueueOpen(const char* name);
/// Sends `size` bytes with the type `type`, which is above 0; waits while the queue is full. 0, or -1 with
/// errno.
KOVA_API int KovaQueueWrite(int queue, const void* data, int size, int type);
/// Takes the first message of that type (0: of any; negative: of the lowest type up to its amount) into
/// `buffer`; waits for one. Its size in bytes, or -1 with errno; E2BIG leaves a message that is longer than
/// `size` bytes.
KOVA_API int KovaQueueRead(int queue, void* buffer, int size, int type);
/// Removes the queue and, unless `name` is null, its key file. 0, or -1 with errno if there was no queue.
KOVA_API int KovaQueueDestroy(int queue, const char* name);
}

/// Has a queue open, and destroys it for everybody when the object ends. All its messages have the type 1.
class KOVA_API KovaMessageQueue : public virtual KovaBaseObject {
  public:
    KovaMessageQueue(char* name);
    KovaMessageQueue(const KovaMessageQueue&) = delete;
    KovaMessageQueue& operator=(const KovaMessageQueue&) = delete;
    ~KovaMessageQueue() override;

    /// The message's size in bytes, or -1.
    int Read(void* buffer, int size);
    /// 0, or -1.
    int Write(void* data, int size);
    /// errno of the last operation, 0 if it succeeded. The base's record is not used.
    int GetError() const { return m_Error; }

  private:
    enum { kNameSize = 64 };

    int m_Handle;
    char m_Name[kNameSize];
    int m_Error;
};

#endif
