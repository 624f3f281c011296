#include "ping.h"

#include "end_signals.h"
#include "hex_dump.h"
#include "privilege.h"
#include "report.h"
#include "unreachable.h"

#include <kova/icmp_socket.h>
#include <kova/raw_socket.h>

#include <arpa/inet.h>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>
#include <string.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>
#include <optional>
#include <stdexcept>

namespace {

using Clock = std::chrono::steady_clock;

/// ICMP header and echo data of a reply.
constexpr const char* kReplySize = "52 bytes";
/// Limit of the library's wait: only for a reply that is there.
constexpr int kTakeMs = 10;

/// Of the milliseconds of a round trip, as many digits as mean something.
std::string Digits(double ms) {
    char text[32];
    std::snprintf(text, sizeof text, "%.2f", ms);
    return text;
}

// Hosts

std::string IpText(in_addr_t ip) { return KovaInetAddr(ip, 0).GetAsciiIp(); }

in_addr_t Resolve(const std::string& name) {
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_DGRAM;
    addrinfo* found = nullptr;
    if (const int error = getaddrinfo(name.c_str(), nullptr, &hints, &found); error != 0)
        throw UsageError(NameText(name) + ": " + gai_strerror(error));
    const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owner(found, freeaddrinfo);
    sockaddr_in address;
    memcpy(&address, found->ai_addr, sizeof address);
    return address.sin_addr.s_addr;
}

/// A host and what became of the requests to it.
class Host {
  public:
    explicit Host(const std::string& name) : m_Address(Resolve(name)) {
        const in_addr_t ip = ntohl(m_Address);
        if (ip == INADDR_ANY || ip == INADDR_BROADCAST || IN_MULTICAST(ip))
            throw UsageError(NameText(name) + ": not the address of one host");
        const std::string text = IpText(m_Address);
        m_Name = name == text ? text : NameText(name) + " (" + text + ")";
    }

    const std::string& Name() const { return m_Name; }
    in_addr_t Address() const { return m_Address; }
    bool Waits() const { return m_Waits; }
    bool HasAnswered() const { return m_Received > 0; }

    void Sent(Clock::time_point when) {
        m_SentAt = when;
        m_Waits = true;
        ++m_Sent;
    }

    void Missed() { m_Waits = false; }

    /// The milliseconds that it took.
    double Answered(Clock::time_point when) {
        const double ms = std::chrono::duration<double, std::milli>(when - m_SentAt).count();
        m_Waits = false;
        m_Least = m_Received == 0 ? ms : std::min(m_Least, ms);
        m_Most = std::max(m_Most, ms);
        m_Sum += ms;
        ++m_Received;
        return ms;
    }

    std::string Summary() const {
        std::string text =
            m_Name + ": " + std::to_string(m_Sent) + " sent, " + std::to_string(m_Received) + " received";
        if (m_Sent > 0) text += ", " + std::to_string((m_Sent - m_Received) * 100 / m_Sent) + "% loss";
        if (m_Received > 0) {
            const double average = m_Sum / static_cast<double>(m_Received);
            text +=
                ", rtt min/avg/max " + Digits(m_Least) + "/" + Digits(average) + "/" + Digits(m_Most) + " ms";
        }
        return text + "\n";
    }

  private:
    const in_addr_t m_Address;
    std::string m_Name;
    bool m_Waits = false;
    Clock::time_point m_SentAt;
    uint64_t m_Sent = 0;
    uint64_t m_Received = 0;
    double m_Least = 0;
    double m_Most = 0;
    double m_Sum = 0;
};

// Both kinds of socket

/// Index of an interface, 0 for none.
int IndexOf(const std::string& interface) {
    if (interface.empty()) return 0;
    const unsigned index = if_nametoindex(interface.c_str());
    if (index == 0) throw UsageError("no interface " + NameText(interface));
    return static_cast<int>(index);
}

void Prepare(KovaIcmpSocket&, const std::string&) {}

/// The socket that sends takes the device over.
void Prepare(KovaRawSocket& socket, const std::string& interface) {
    if (!interface.empty()) socket.BindToDevice(interface.c_str());
}

bool SendRequest(KovaIcmpSocket& socket, in_addr_t to, int interface, uint16_t sequence) {
    return interface == 0 ? socket.SendPingPacket(to, sequence)
                          : socket.SendPingPacketAtIf(to, interface, sequence);
}

bool SendRequest(KovaRawSocket& socket, in_addr_t to, int, uint16_t sequence) {
    return socket.SendPingPacket(to, sequence);
}

bool TakeReply(KovaIcmpSocket& socket, uint16_t& sequence) { return socket.RecvPingPacket(0, sequence); }

bool TakeReply(KovaRawSocket& socket, uint16_t& sequence) {
    return socket.RecvPingPacket(0, sequence, 0, 0, 0);
}

/// The network's answer that waits instead of a reply.
std::optional<Unreachable> TakeRefusal(KovaIcmpSocket& socket) { return TakeUnreachable(socket.GetSocket()); }

/// Skips such answers while it looks for replies.
std::optional<Unreachable> TakeRefusal(KovaRawSocket&) { return std::nullopt; }

/// Sends rounds of requests and measures the times itself: the library knows milliseconds.
template <typename Socket>
class Pinger {
  public:
    explicit Pinger(const PingOptions& options)
        : m_Options(options), m_Interface(IndexOf(options.interface)) {
        for (const std::string& name : options.hosts) m_Hosts.emplace_back(name);
    }

    int Run() {
        Prepare(m_Socket, m_Options.interface);
        if (!m_Socket.Open()) Fail();
        m_Socket.SetTimeout(kTakeMs);
        const EndWatch watch;
        for (uint64_t round = 1;; ++round) {
            const auto begin = Clock::now();
            SendAll(static_cast<uint16_t>(round));
            if (!AwaitAll(watch)) break;
            if (round == m_Options.count) break;
            if (!Pause(watch, begin + std::chrono::milliseconds(m_Options.interval_ms))) break;
        }
        return Summarize();
    }

  private:
    std::string ErrorText() const {
        return RecordText(m_Socket) + PrivilegeHint(m_Socket.GetError(), "cap_net_raw");
    }

    [[noreturn]] void Fail() const { throw std::runtime_error("cannot ping: " + ErrorText()); }

    void SendAll(uint16_t sequence) {
        m_Sequence = sequence;
        for (Host& host : m_Hosts) {
            const auto now = Clock::now();
            if (SendRequest(m_Socket, host.Address(), m_Interface, sequence)) {
                host.Sent(now);
            } else {
                Complain("cannot send to " + host.Name() + ": " + ErrorText());
            }
        }
    }

    bool AnyWaits() const {
        return std::any_of(m_Hosts.begin(), m_Hosts.end(), [](const Host& host) { return host.Waits(); });
    }

    static int Until(Clock::time_point limit) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(limit - Clock::now()).count();
        return static_cast<int>(std::max<int64_t>(left, 0));
    }

    /// Waits for the replies of the round; false when the end is asked for.
    bool AwaitAll(const EndWatch& watch) {
        const auto limit = Clock::now() + std::chrono::milliseconds(m_Options.timeout_ms);
        while (AnyWaits()) {
            const int ms = Until(limit);
            switch (watch.Await(m_Socket.GetSocket(), ms)) {
                case EndWatch::kSignal:
                    return false;
                case EndWatch::kData:
                    Take();
                    break;
                case EndWatch::kTimeOut:
                    break;
            }
            // What is there when the time is over was looked at, and what it may be followed by is late.
            if (ms == 0) TellMissed();
        }
        return true;
    }

    /// Waits for the next round; replies that come meanwhile are late. False when the end is asked for.
    static bool Pause(const EndWatch& watch, Clock::time_point limit) {
        int ms;
        do {
            ms = Until(limit);
            if (watch.Await(-1, ms) == EndWatch::kSignal) return false;
        } while (ms > 0);
        return true;
    }

    /// The host that has not answered the request of this number yet.
    Host* Waiting(in_addr_t address, uint16_t sequence) {
        if (sequence != m_Sequence) return nullptr;
        const auto host = std::find_if(m_Hosts.begin(), m_Hosts.end(), [&](const Host& one) {
            return one.Waits() && one.Address() == address;
        });
        return host == m_Hosts.end() ? nullptr : &*host;
    }

    /// Takes an answer if one is there. Late and repeated ones count as nothing.
    void Take() {
        uint16_t sequence = 0;
        if (const auto refusal = TakeRefusal(m_Socket)) {
            TellRefusal(*refusal);
        } else if (TakeReply(m_Socket, sequence)) {
            TellReply(sequence);
        }
    }

    void TellReply(uint16_t sequence) {
        const auto now = Clock::now();
        Host* const host = Waiting(m_Socket.GetLastPeer()->GetIp(), sequence);
        if (host == nullptr) return;
        Print(std::string(kReplySize) + " from " + host->Name() + ": seq=" + std::to_string(sequence) +
              " time=" + Digits(host->Answered(now)) + " ms" + ArrivalText() + "\n");
    }

    void TellRefusal(const Unreachable& refusal) {
        Host* const host = Waiting(refusal.host, refusal.sequence);
        if (host == nullptr) return;
        host->Missed();
        Print("no answer from " + host->Name() + ": seq=" + std::to_string(refusal.sequence) + " " +
              ReasonText(refusal) + ", says " + IpText(refusal.told_by) + "\n");
    }

    /// Where the reply arrived, and whether the library's `Ping` would count it.
    std::string ArrivalText() {
        if (!m_Options.verbose) return {};
        const in_addr_t at = m_Socket.GetLastLocal()->GetIp();
        return ", at " + IpText(at) + (m_Socket.IsVOXAAddr(at) ? ", inside" : ", outside") +
               " the control network";
    }

    void TellMissed() {
        for (Host& host : m_Hosts) {
            if (!host.Waits()) continue;
            host.Missed();
            Print("no answer from " + host.Name() + ": seq=" + std::to_string(m_Sequence) + " within " +
                  std::to_string(m_Options.timeout_ms) + " ms\n");
        }
    }

    int Summarize() const {
        bool all = true;
        for (const Host& host : m_Hosts) {
            Print(host.Summary());
            all = all && host.HasAnswered();
        }
        return all ? kExitOk : kExitFailure;
    }

    const PingOptions& m_Options;
    const int m_Interface;
    std::vector<Host> m_Hosts;
    Socket m_Socket;
    uint16_t m_Sequence = 0;
};

}  // namespace

int Ping(const PingOptions& options) {
    return options.raw ? Pinger<KovaRawSocket>(options).Run() : Pinger<KovaIcmpSocket>(options).Run();
}
