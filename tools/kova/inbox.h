/// Where the messages of all connections come together.
#ifndef KOVA_TOOLS_INBOX_H
#define KOVA_TOOLS_INBOX_H

#include "report.h"
#include "serve.h"

#include <kova/flat_msg.h>

#include <atomic>
#include <mutex>

/// Numbers, prints and stores messages in the order of their arrival, and answers them. Any thread may call.
class Inbox {
  public:
    /// Makes the directory for the bodies. Throws UsageError if it cannot, or if bodies are there already.
    explicit Inbox(const ServeOptions& options);

    /// Takes a message that came well, and answers it on `socket` if that is wanted. False when the answer
    /// could not be sent, or when no message is wanted any more.
    template <typename Socket>
    bool Handle(KovaFlatMsg& message, Socket& socket) {
        if (!Take(message)) return false;
        // Type 0 marks a rejection: nobody waits for an answer to it.
        bool answered = true;
        if (m_Options.reply && message.GetType() != 0) answered = Answer(message, socket);
        Finish();
        return answered;
    }

    /// Tells of a message that failed, with the library's record of it.
    void Refuse(const KovaInetAddr& peer, const KovaFlatMsg& message);

    /// Whether all messages that were asked for are here and answered.
    bool IsFull() const { return m_Full; }
    /// False when the body of a message could not be stored.
    bool AllStored() const { return !m_StoreFailed; }

  private:
    bool Take(KovaFlatMsg& message);
    void Finish();
    void Store(KovaFlatMsg& message);
    std::string PathOf(uint64_t number) const;

    template <typename Socket>
    bool Answer(KovaFlatMsg& message, Socket& socket) {
        const std::string peer = AddressText(message.GetAddr());
        message >> socket;
        if (message.GetError() == KovaBaseObject::KOVA_ERR_NONE) return true;
        Complain("reply to " + peer + " failed: " + RecordText(message));
        return false;
    }

    const ServeOptions& m_Options;
    std::mutex m_Mutex;  ///< keeps number, file and printed lines of a message together
    uint64_t m_Taken = 0;
    uint64_t m_Finished = 0;
    std::atomic<bool> m_Full = false;
    std::atomic<bool> m_StoreFailed = false;
};

#endif
