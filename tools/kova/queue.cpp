#include "queue.h"

#include "hex_dump.h"
#include "interruption.h"
#include "key_files.h"
#include "report.h"
#include "sources.h"

#include <kova/filename.h>
#include <kova/message_queue.h>

#include <errno.h>
#include <sys/msg.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <stdexcept>

namespace {

std::string TextOf(const std::string& name) { return "queue " + NameText(name); }

std::string SizeText(size_t size) { return std::to_string(size) + (size == 1 ? " byte" : " bytes"); }

/// A queue that stays when the command ends.
class Queue {
  public:
    /// Throws when the queue cannot be opened.
    explicit Queue(const std::string& name) : m_Text(TextOf(name)), m_Id(Open(name)) {}

    const std::string& Text() const { return m_Text; }

    /// 0, or an errno value: EINTR after the limit or when the end is asked for.
    int Send(const std::string& body, int type, int ms) {
        const auto size = static_cast<int>(body.size());
        const int sent =
            m_Interruption.Run(ms, [&] { return KovaQueueWrite(m_Id, body.data(), size, type); });
        return sent < 0 ? errno : 0;
    }

    int Receive(std::string& body, int type, int ms) {
        const int size = m_Interruption.Run(ms, [&] {
            MakeRoom(body);
            return KovaQueueRead(m_Id, body.data(), static_cast<int>(body.size()), type);
        });
        if (size < 0) return errno;
        body.resize(static_cast<size_t>(size));
        return 0;
    }

  private:
    static int Open(const std::string& name) {
        // The library ends the process when it cannot make the key file.
        KovaFilename file(nullptr, name.substr(0, kNameLimit).c_str(), "kovamsg");
        if (!file.CreateFile()) {
            throw std::runtime_error("cannot open " + TextOf(name) + ": key file " +
                                     NameText(file.PathFileName()) + ": " + RecordText(file));
        }
        const int id = KovaQueueOpen(name.c_str());
        if (id < 0) throw std::runtime_error("cannot open " + TextOf(name) + ": " + SystemText(errno));
        return id;
    }

    /// No message is larger than its queue.
    void MakeRoom(std::string& body) const {
        msqid_ds status{};
        const bool known = ::msgctl(m_Id, IPC_STAT, &status) == 0;
        body.resize(
            known ? std::min<size_t>(std::max<size_t>(status.msg_qbytes, status.__msg_cbytes), INT_MAX - 8)
                  : 0);
    }

    const std::string m_Text;
    Interruption m_Interruption;  ///< ready when the queue is there
    const int m_Id;
};

/// Tells why nothing was sent or received. `what` is what did not happen.
int Failed(const std::string& what, int error, int ms) {
    if (error != EINTR) {
        Complain(what + ": " + SystemText(error));
    } else if (!Interruption::IsEndWanted()) {
        Complain(what + " within " + std::to_string(ms) + " ms");
    }
    return kExitFailure;
}

std::string BodyOf(const QueueSendOptions& options) {
    SendOptions from;
    if (!options.file.empty()) from.files = {options.file};
    if (options.text && *options.text == "-") from.files = {"-"};
    if (options.text && *options.text != "-") from.texts = {*options.text};
    if (!options.text && options.file.empty() && isatty(STDIN_FILENO)) {
        throw UsageError("nothing to send: give a TEXT, --file FILE, or - for standard input");
    }
    Sources sources(from);
    std::string body;
    sources.Next(body);
    if (body.size() > INT_MAX) throw UsageError(sources.Name() + ": " + SizeText(body.size()));
    return body;
}

}  // namespace

int QueueSend(const QueueSendOptions& options) {
    const std::string body = BodyOf(options);
    Queue queue(options.name);
    const int error = queue.Send(body, options.type, options.timeout_ms);
    if (error != 0) return Failed("nothing sent to " + queue.Text(), error, options.timeout_ms);
    Print("sent message to " + queue.Text() + ": type " + std::to_string(options.type) + ", " +
          SizeText(body.size()) + "\n");
    return kExitOk;
}

int QueueReceive(const QueueReceiveOptions& options) {
    Queue queue(options.name);
    std::string body;
    for (uint64_t number = 1;; ++number) {
        const int error = queue.Receive(body, options.type, options.timeout_ms);
        if (error == EINTR && Interruption::IsEndWanted() && options.count == 0) return kExitOk;
        if (error != 0) return Failed("nothing received from " + queue.Text(), error, options.timeout_ms);
        std::string text = "message " + std::to_string(number) + " from " + queue.Text() + ": " +
                           SizeText(body.size()) + "\n";
        text += BodyText(body, 0, options.hex);
        Print(text);
        if (number == options.count) return kExitOk;
    }
}
