#include "serve.h"

#include "end_signals.h"
#include "inbox.h"
#include "report.h"
#include "stream.h"

#include <kova/tcp_socket.h>
#include <kova/udp_socket.h>

#include <arpa/inet.h>
#include <signal.h>
#include <string.h>
#include <sys/socket.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <system_error>
#include <thread>

namespace {

/// More than that at a time are turned away: every connection costs a thread and a descriptor.
constexpr size_t kMaxConnections = 256;
/// How long a refused peer may go on sending before its connection is closed.
constexpr std::chrono::seconds kDrainTime{3};

/// A thread that waits for SIGINT or SIGTERM and then calls `on_signal`. Outside a signal handler, so
/// `on_signal` may do anything. Its destructor ends the wait as a signal does.
class SignalWaiter {
  public:
    explicit SignalWaiter(std::function<void()> on_signal)
        : m_Thread([on_signal = std::move(on_signal)] {
              const sigset_t signals = EndSignals();
              int signal = 0;
              sigwait(&signals, &signal);
              on_signal();
          }) {}
    SignalWaiter(const SignalWaiter&) = delete;
    SignalWaiter& operator=(const SignalWaiter&) = delete;
    ~SignalWaiter() {
        pthread_kill(m_Thread.native_handle(), SIGTERM);
        m_Thread.join();
    }

  private:
    std::thread m_Thread;
};

/// One TCP connection on a thread of its own: receives message after message until the peer closes, a message
/// fails (the stream is out of step then) or `Interrupt` is called.
class Connection {
  public:
    /// `on_message` is called after each message.
    Connection(std::unique_ptr<KovaTCPSocket> socket, Inbox& inbox, std::function<void()> on_message)
        : m_Inbox(inbox),
          m_Socket(std::move(socket)),
          m_OnMessage(std::move(on_message)),
          m_Thread([this] { Run(); }) {}
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    ~Connection() {
        Interrupt();
        m_Thread.join();
    }

    bool IsDone() const { return m_Done; }

    /// Ends the connection after an answer that is being sent: only the receiving side is shut down.
    void Interrupt() {
        const std::lock_guard lock(m_Mutex);
        m_Interrupted = true;
        if (!m_Closing) ::shutdown(m_Socket->GetSocket(), SHUT_RD);
    }

  private:
    void Run() {
        m_Socket->SetBlocking(true);
        while (AwaitMessage() && ReceiveMessage()) {
        }
        {
            const std::lock_guard lock(m_Mutex);
            m_Closing = true;
        }
        m_Socket->Close(false);
        m_Done = true;
    }

    /// Waits without limit for a message to begin: the time-out of the library's receive is for the message
    /// itself. False when the peer closed between two messages.
    bool AwaitMessage() {
        while (!m_Interrupted) {
            if (!WaitReadable(m_Socket->GetSocket(), -1)) return false;
            char first[sizeof kFiller];
            const ssize_t size = ::recv(m_Socket->GetSocket(), first, sizeof first, MSG_PEEK);
            if (size <= 0) return false;
            const bool is_filler = m_Socket->GetType() != KOVA_SOCKET_PLAIN && size == sizeof first &&
                                   memcmp(first, kFiller, sizeof first) == 0;
            if (!is_filler) return !m_Interrupted;
            if (::recv(m_Socket->GetSocket(), first, sizeof first, 0) <= 0) return false;
        }
        return false;
    }

    /// False when the connection is of no more use.
    bool ReceiveMessage() {
        KovaFlatMsg message;
        message << *m_Socket;
        if (message.GetError() != KovaBaseObject::KOVA_ERR_NONE) {
            if (m_Interrupted) return false;
            m_Inbox.Refuse(message.GetAddr(), message);
            FinishSending(m_Socket->GetSocket(), kDrainTime);
            return false;
        }
        const bool go_on = m_Inbox.Handle(message, *m_Socket);
        m_OnMessage();
        return go_on;
    }

    static constexpr char kFiller[] = "alive";

    Inbox& m_Inbox;
    const std::unique_ptr<KovaTCPSocket> m_Socket;
    const std::function<void()> m_OnMessage;
    std::mutex m_Mutex;
    bool m_Closing = false;  ///< guarded by the mutex: the descriptor is no longer to be touched
    std::atomic<bool> m_Interrupted = false;
    std::atomic<bool> m_Done = false;
    std::thread m_Thread;  ///< last: it uses all of the above
};

class TcpService : public KovaTCPSocket {
  public:
    explicit TcpService(Inbox& inbox) : m_Inbox(inbox) {}

    /// Serves to the end; false if it could not begin.
    bool Run(const KovaInetAddr& local) {
        const bool served = Server(local);
        // Reading ends everywhere at once, then each connection is waited for.
        for (Connection& connection : m_Connections) connection.Interrupt();
        m_Connections.clear();
        m_Signals.reset();
        return served;
    }

  private:
    void InitComplete() override {
        Print("listening on tcp port " + std::to_string(ntohs(GetLocal().GetPort())) + "\n");
        m_Signals.emplace([this] { Shutdown(); });
    }

    void CallBack(KovaTCPSocket* accepted) override {
        std::unique_ptr<KovaTCPSocket> socket(accepted);
        RemoveDone();
        const std::string peer = AddressText(socket->GetPeer());
        if (m_Connections.size() >= kMaxConnections) {
            Complain("connection from " + peer + " turned away: " + std::to_string(kMaxConnections) +
                     " are open");
            return;
        }
        const auto end_when_full = [this] {
            if (m_Inbox.IsFull()) Shutdown();
        };
        try {
            m_Connections.emplace_back(std::move(socket), m_Inbox, end_when_full);
        } catch (const std::system_error& error) {
            Complain("connection from " + peer + " turned away: " + error.what());
        }
    }

    void DoIdle() override { RemoveDone(); }

    void RemoveDone() {
        m_Connections.remove_if([](const Connection& connection) { return connection.IsDone(); });
    }

    Inbox& m_Inbox;
    std::list<Connection> m_Connections;
    std::optional<SignalWaiter> m_Signals;
};

class UdpService : public KovaUDPSocket {
  public:
    explicit UdpService(Inbox& inbox) : m_Inbox(inbox) {}

    bool Run(uint16_t port) {
        const bool served = Server(port);
        m_Signals.reset();
        return served;
    }

  private:
    void InitComplete() override {
        Print("listening on udp port " + std::to_string(ntohs(GetLocal().GetPort())) + "\n");
        m_Signals.emplace([this] { Shutdown(); });
    }

    void CallBack(KovaUDPSocket*) override {
        KovaFlatMsg message;
        message << *this;
        if (m_Stop) return;
        if (message.GetError() != KOVA_ERR_NONE) {
            m_Inbox.Refuse(GetPeer(), message);
            return;
        }
        m_Inbox.Handle(message, *this);
        if (m_Inbox.IsFull()) Shutdown();
    }

    void DoIdle() override {}

    Inbox& m_Inbox;
    std::optional<SignalWaiter> m_Signals;
};

int Failed(const ServeOptions& options, const KovaBaseObject& record) {
    Complain("cannot serve " + std::string(options.udp ? "udp" : "tcp") + " port " +
             std::to_string(options.port) + ": " + RecordText(record) +
             (options.udp && options.port == 0 ? " (UDP needs a port that is not 0)" : ""));
    return kExitFailure;
}

KovaInetAddr LocalAddress(const ServeOptions& options) {
    const unsigned short port = htons(options.port);
    in6_addr any6 = in6addr_any;
    in_addr any4{};
    if (options.bind.empty()) return KovaInetAddr(any6, port);
    if (inet_pton(AF_INET, options.bind.c_str(), &any4) == 1) return KovaInetAddr(any4.s_addr, port);
    if (inet_pton(AF_INET6, options.bind.c_str(), &any6) == 1) return KovaInetAddr(any6, port);
    throw UsageError("--bind " + options.bind + ": not a numeric address");
}

}  // namespace

int Serve(const ServeOptions& options) {
    BlockEndSignals();
    const KovaInetAddr local = LocalAddress(options);
    Inbox inbox(options);
    if (options.udp) {
        UdpService service(inbox);
        if (!service.Run(options.port)) return Failed(options, service);
    } else {
        TcpService service(inbox);
        service.SetType(options.plain ? KOVA_SOCKET_PLAIN : KOVA_SOCKET_HANDSHAKE);
        if (!service.Run(local)) return Failed(options, service);
    }
    return inbox.AllStored() ? kExitOk : kExitFailure;
}
