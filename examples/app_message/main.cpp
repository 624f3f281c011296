// A message class of one's own, sent over a TCP connection.
//
// KovaMsgPattern brings the header and an address; the class adds its fields and says how they are encoded.
// Two short functions then send and receive any class of this kind.
//
// Prints the message on both sides and ends with 0 when it arrived as it was sent.
#include <kova/kova.h>

#include <arpa/inet.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <future>
#include <thread>

namespace {

// What a temperature sensor tells.
class TemperatureReading : public KovaMsgPattern {
  public:
    static constexpr int kType = 20;  // one number for each message class of a service

    TemperatureReading() : KovaMsgPattern(kType) {}
    TemperatureReading(uint32_t sensor, int32_t millidegrees)
        : KovaMsgPattern(kType), m_Sensor(sensor), m_Millidegrees(millidegrees) {}

    // The body is a record of 32-bit fields in network byte order, the same on every machine.
    bool Pack(KovaFlatMsg& msg) override {
        Body body{htonl(m_Sensor), htonl(static_cast<uint32_t>(m_Millidegrees))};
        return msg.SetMessage(kType, &body, sizeof body);
    }

    // Type and size come from a peer: they are checked before anything is read.
    bool Unpack(KovaFlatMsg& msg) override {
        Body body;
        if (msg.GetType() != kType || msg.GetSize() != sizeof body) {
            _SetError_(__PRETTY_FUNCTION__, __LINE__, KOVA_ERR_SIZE_MISMATCH);
            return false;
        }
        std::memcpy(&body, msg.GetBuffer(), sizeof body);
        m_Sensor = ntohl(body.sensor);
        m_Millidegrees = static_cast<int32_t>(ntohl(body.millidegrees));
        SetHeader(*msg.GetHeader());  // who sent it, and when
        GetAddr() = msg.GetAddr();
        return true;
    }

    void Print(const char* what) const {
        std::printf("%s: sensor %u, %.3f degrees\n", what, m_Sensor, m_Millidegrees / 1000.0);
    }
    bool operator==(const TemperatureReading& other) const {
        return m_Sensor == other.m_Sensor && m_Millidegrees == other.m_Millidegrees;
    }

  private:
    struct Body {
        uint32_t sensor;
        uint32_t millidegrees;
    };

    uint32_t m_Sensor = 0;
    int32_t m_Millidegrees = 0;
};

// A failed operation has left code and place in its object.
bool Report(const KovaBaseObject& object) {
    std::fprintf(stderr, "error %d in %s\n", object.GetError(), object.GetErrorFunction());
    return false;
}

// Sends a message of any class. After `>>` the flat message alone need be asked: it has the socket's error.
bool Send(KovaMsgPattern& message, KovaTCPSocket& socket) {
    KovaFlatMsg msg;
    if (!message.Pack(msg)) return Report(msg);
    msg >> socket;
    return msg.GetError() == KovaBaseObject::KOVA_ERR_NONE || Report(msg);
}

// Receives a message of the class that is expected next.
bool Receive(KovaMsgPattern& message, KovaTCPSocket& socket) {
    KovaFlatMsg msg;
    msg << socket;
    if (msg.GetError() != KovaBaseObject::KOVA_ERR_NONE) return Report(msg);
    return message.Unpack(msg) || Report(message);
}

// Serves until it has received one reading, and prints it.
class Display : public KovaTCPSocket {
  public:
    // On a free port of this machine alone.
    void Run() {
        if (Server(htonl(INADDR_LOOPBACK), 0)) return;
        Report(*this);
        m_Port.set_value(0);
    }

    // The port, in host order, as soon as the display listens; 0 if it could not.
    uint16_t AwaitPort() { return m_Port.get_future().get(); }
    // What has arrived; to be asked when Run has ended.
    const TemperatureReading& Reading() const { return m_Reading; }

  private:
    void InitComplete() override { m_Port.set_value(ntohs(GetLocal().GetPort())); }

    void CallBack(KovaTCPSocket* connection) override {
        if (Receive(m_Reading, *connection)) {
            std::printf("from %s, ", m_Reading.GetAddr().GetAsciiIp());
            m_Reading.Print("received");
        }
        delete connection;
        Shutdown();
    }

    TemperatureReading m_Reading;
    std::promise<uint16_t> m_Port;
};

}  // namespace

int main() {
    Display display;
    std::thread serving(&Display::Run, &display);

    TemperatureReading reading(7, -2500);
    if (const uint16_t port = display.AwaitPort(); port != 0) {
        KovaTCPSocket socket;
        reading.Print("sending");
        const bool sent = socket.Connect("127.0.0.1", port) ? Send(reading, socket) : Report(socket);
        if (!sent) display.Shutdown();
    }

    serving.join();
    return display.Reading() == reading ? 0 : 1;
}
