#include <kova/kova.h>

#include <cstdio>
#include <thread>

// Prints the first message that arrives and ends.
class Printer : public KovaTCPSocket {
    void CallBack(KovaTCPSocket* connection) override {
        KovaFlatMsg msg;
        msg << *connection;
        if (msg.GetError() == KOVA_ERR_NONE)
            std::printf("type %d: %.*s\n", msg.GetType(), static_cast<int>(msg.GetSize()),
                        static_cast<const char*>(msg.GetBuffer()));
        delete connection;
        Shutdown();
    }
};

int main() {
    Printer server;
    std::thread thread([&] { server.Server(20100); });

    char text[] = "Hello";
    KovaFlatMsg msg(7, text, sizeof text);
    KovaTCPSocket socket;
    for (int tries = 0; !socket.Connect("127.0.0.1", 20100) && tries < 100; ++tries) KovaMilliSleep(10);
    msg >> socket;
    if (msg.GetError() != KovaBaseObject::KOVA_ERR_NONE) server.Shutdown();
    thread.join();
    return msg.GetError();
}
