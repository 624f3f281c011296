// A server that never waits for the work its requests ask for.
//
// The server's thread receives a message, pairs it with its connection in a KovaRequest and hands that to a
// worker. The worker answers on the same connection and deletes the request, which closes the connection;
// meanwhile the server takes in the next ones. The clients in this program all ask before the first of them
// looks for its answer.
//
// Prints each question with its answer and ends with 0 when all were answered.
#include "request_queue.h"

#include <kova/kova.h>

#include <arpa/inet.h>

#include <array>
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <future>
#include <memory>
#include <string>
#include <utility>

namespace {

constexpr int kQuestion = 1;  // the message types of this service
constexpr int kAnswer = 2;

// A failed operation has left code and place in its object.
bool Report(const char* who, const KovaBaseObject& object) {
    std::fprintf(stderr, "%s: error %d in %s\n", who, object.GetError(), object.GetErrorFunction());
    return false;
}

class RequestServer : public KovaTCPSocket {
  public:
    explicit RequestServer(RequestQueue& queue) : m_Queue(queue) {}

    // Serves until Shutdown, on a free port of this machine alone.
    void Run() {
        if (Server(htonl(INADDR_LOOPBACK), 0)) return;
        Report("server", *this);
        m_Port.set_value(0);
    }

    // The port, in host order, as soon as the server listens; 0 if it could not.
    uint16_t AwaitPort() { return m_Port.get_future().get(); }

  private:
    // Called once, when the socket listens.
    void InitComplete() override { m_Port.set_value(ntohs(GetLocal().GetPort())); }

    // Called with each connection whose first data have arrived. The connection is ours from here on: the
    // request takes it over at once, so that it is closed on every way out.
    void CallBack(KovaTCPSocket* connection) override {
        auto request = std::make_unique<KovaRequest>(connection, new KovaFlatMsg);
        KovaFlatMsg& msg = *request->GetMsg();
        msg << *connection;
        if (msg.GetError() != KOVA_ERR_NONE) {
            Report("server", msg);
        } else if (msg.GetType() == kQuestion) {
            m_Queue.Put(std::move(request));
        }
    }

    RequestQueue& m_Queue;
    std::promise<uint16_t> m_Port;
};

// Sends the question back in capitals; false when the client cannot be reached.
bool Answer(KovaRequest& request) {
    // Work that takes long says so now and then: the client goes on waiting, and a client that has gone is
    // noticed.
    if (!request.KeepAlive()) return Report("worker", *request.GetSocket());

    KovaFlatMsg& msg = *request.GetMsg();
    char* const text = static_cast<char*>(msg.GetBuffer());
    for (unsigned i = 0; i < msg.GetSize(); ++i)
        text[i] = static_cast<char>(std::toupper(static_cast<unsigned char>(text[i])));
    msg.SetType(kAnswer);
    msg >> *request.GetSocket();
    return msg.GetError() == KovaBaseObject::KOVA_ERR_NONE || Report("worker", msg);
}

// Answers request after request until the queue is closed.
class Worker : public KovaThread {
  public:
    Worker(KovaThreadContext* context, RequestQueue& queue) : KovaThread(context, 0), m_Queue(queue) {}

    int Run() override {
        int answered = 0;
        while (const std::unique_ptr<KovaRequest> request = m_Queue.Take())
            answered += Answer(*request) ? 1 : 0;
        return answered;
    }

  private:
    RequestQueue& m_Queue;
};

// The thread that the server's loop runs on.
class Serving : public KovaThread {
  public:
    Serving(KovaThreadContext* context, RequestServer& server) : KovaThread(context, 0), m_Server(server) {}

    int Run() override {
        m_Server.Run();
        return 0;
    }

  private:
    RequestServer& m_Server;
};

// A started thread deletes its own object; its context tells when it has ended.
int ResultOf(KovaThreadContext& context) {
    context.WaitForSyncPoint(KovaThreadContext::SYNC_FINISHED, 0);
    return context.GetRetCode();
}

struct Client {
    std::string question;
    KovaTCPSocket socket;

    bool Ask(uint16_t port) {
        if (!socket.Connect("127.0.0.1", port)) return Report("client", socket);
        KovaFlatMsg msg(kQuestion, question.data(), static_cast<int>(question.size()));
        msg >> socket;
        return msg.GetError() == KovaBaseObject::KOVA_ERR_NONE || Report("client", msg);
    }

    bool PrintAnswer() {
        KovaFlatMsg msg;
        msg << socket;
        if (msg.GetError() != KovaBaseObject::KOVA_ERR_NONE) return Report("client", msg);
        if (msg.GetType() != kAnswer) return false;
        std::printf("%s -> %.*s\n", question.c_str(), static_cast<int>(msg.GetSize()),
                    static_cast<const char*>(msg.GetBuffer()));
        return true;
    }
};

}  // namespace

int main() {
    RequestQueue queue;
    RequestServer server(queue);
    KovaThreadContext worker(0);
    KovaThreadContext serving(0);
    (new Worker(&worker, queue))->StartThread();
    (new Serving(&serving, server))->StartThread();

    std::array<Client, 5> clients;
    size_t answered = 0;
    if (const uint16_t port = server.AwaitPort(); port != 0) {
        for (size_t i = 0; i < clients.size(); ++i) {
            clients[i].question = "is pump " + std::to_string(i + 1) + " running?";
            clients[i].Ask(port);
        }
        for (Client& client : clients) answered += client.PrintAnswer() ? 1 : 0;
    }

    server.Shutdown();  // ends the loop in Run
    ResultOf(serving);
    queue.Close();
    const int sent = ResultOf(worker);

    std::printf("%d answers sent, %zu of %zu received\n", sent, answered, clients.size());
    return answered == clients.size() ? 0 : 1;
}
