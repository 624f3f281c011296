#include "ping.h"

#include "end_signals.h"
#include "hex_dump.h"
#include "ping_answer.h"
#include "privilege.h"
#include "report.h"

#include <kova/icmp_socket.h>
#include <kova/raw_socket.h>

#include <arpa/inet.h>
#include <errno.h>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>
#include <stdexcept>

namespace {

using Clock = std::chrono::steady_clock;

/// ICMP header and echo data of a reply.
constexpr const char* kReplySize = "52 bytes";
/// Limit of the library's wait: only for a reply that is there.
constexpr int kTakeMs = 10;
/// Wait for room where the system has none for a request.
constexpr std::chrono::milliseconds kRoomWait(20);

/// Of a buffer: for a request and its reply, as often as they are heard, with what the kernel adds to each.
constexpr size_t kBufferPerHost = 4096;
constexpr size_t kLargestBuffer = size_t{16} << 20;
/// What a packet takes of it at least.
constexpr int kLeastInBuffer = 256;

/// Of the milliseconds of a round trip, as many digits as mean something.
std::string Digits(double ms) {
    char text[32];
    std::snprintf(text, sizeof text, "%.2f", ms);
    return text;
}

/// A part of all in percent, with a digit behind the point where it is not whole; 0 and 100 are exact.
std::string Percent(uint64_t part, uint64_t all) {
    const uint64_t rounded = (part * 1000 + all / 2) / all;
    const uint64_t tenths = std::clamp<uint64_t>(rounded, part > 0 ? 1 : 0, part < all ? 999 : 1000);
    const std::string whole = std::to_string(tenths / 10);
    return (tenths % 10 == 0 ? whole : whole + "." + std::to_string(tenths % 10)) + "%";
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
        if (m_Sent > 0) text += ", " + Percent(m_Sent - m_Received, m_Sent) + " loss";
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

Hears HeardBy(const KovaIcmpSocket&) { return Hears::kPackets; }
Hears HeardBy(const KovaRawSocket&) { return Hears::kFrames; }

// Buffers

int BufferSize(int fd, int option) {
    int size = 0;
    socklen_t length = sizeof size;
    ::getsockopt(fd, SOL_SOCKET, option, &size, &length);
    return size;
}

/// As far as the system allows; `beyond` is the option that passes its limit, for those with the privilege.
void Enlarge(int fd, int option, int beyond, int size) {
    if (BufferSize(fd, option) >= size) return;
    if (::setsockopt(fd, SOL_SOCKET, beyond, &size, sizeof size) == 0) return;
    ::setsockopt(fd, SOL_SOCKET, option, &size, sizeof size);
}

bool HasNoRoom(int error) { return error == ENOBUFS || error == EAGAIN; }

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
        MakeRoom();
        const EndWatch watch;
        for (uint64_t round = 1;; ++round) {
            const auto begin = Clock::now();
            SendAll(watch, static_cast<uint16_t>(round));
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

    /// Buffers for what all hosts may cause at once.
    void MakeRoom() const {
        const int fd = m_Socket.GetSocket();
        const int size = static_cast<int>(std::min(m_Hosts.size() * kBufferPerHost, kLargestBuffer));
        Enlarge(fd, SO_RCVBUF, SO_RCVBUFFORCE, size);
        Enlarge(fd, SO_SNDBUF, SO_SNDBUFFORCE, size);
    }

    /// Takes the replies that come meanwhile: those of many hosts would not find room.
    void SendAll(const EndWatch& watch, uint16_t sequence) {
        m_Sequence = sequence;
        const int most = MostWaiting();
        for (Host& host : m_Hosts) {
            if (!Send(host) && !(HasNoRoom(m_Socket.GetError()) && SendLater(watch, host)))
                Complain("cannot send to " + host.Name() + ": " + ErrorText());
            TakeAll(most);
        }
    }

    bool Send(Host& host) {
        const auto now = Clock::now();
        if (!SendRequest(m_Socket, host.Address(), m_Interface, m_Sequence)) return false;
        host.Sent(now);
        return true;
    }

    /// A signal ends the wait, and is found again by those that follow.
    bool SendLater(const EndWatch& watch, Host& host) {
        Listen(watch, Clock::now() + kRoomWait, [] { return false; });
        return Send(host);
    }

    bool AnyWaits() const {
        return std::any_of(m_Hosts.begin(), m_Hosts.end(), [](const Host& host) { return host.Waits(); });
    }

    static int Until(Clock::time_point limit) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(limit - Clock::now()).count();
        return static_cast<int>(std::max<int64_t>(left, 0));
    }

    /// Takes what comes until nothing more is wanted or the time is over. What is there then is looked at,
    /// too; what it may be followed by is late. False when the end is asked for.
    template <typename IsDone>
    bool Listen(const EndWatch& watch, Clock::time_point limit, IsDone is_done) {
        const int most = MostWaiting();
        for (int ms = 1; ms > 0 && !is_done();) {
            ms = Until(limit);
            if (watch.Await(m_Socket.GetSocket(), ms) == EndWatch::kSignal) return false;
            TakeAll(most);
        }
        return true;
    }

    /// Waits for the replies of the round; false when the end is asked for.
    bool AwaitAll(const EndWatch& watch) {
        const auto limit = Clock::now() + std::chrono::milliseconds(m_Options.timeout_ms);
        if (!Listen(watch, limit, [this] { return !AnyWaits(); })) return false;
        TellMissed();
        return true;
    }

    /// Waits for the next round. What comes meanwhile is late, but would be in the way of its replies. False
    /// when the end is asked for.
    bool Pause(const EndWatch& watch, Clock::time_point limit) {
        return Listen(watch, limit, [] { return false; });
    }

    /// The host that has not answered the request of this number yet.
    Host* Waiting(in_addr_t address, uint16_t sequence) {
        if (sequence != m_Sequence) return nullptr;
        const auto host = std::find_if(m_Hosts.begin(), m_Hosts.end(), [&](const Host& one) {
            return one.Waits() && one.Address() == address;
        });
        return host == m_Hosts.end() ? nullptr : &*host;
    }

    /// As many packets as the buffer can hold at a time.
    int MostWaiting() const { return BufferSize(m_Socket.GetSocket(), SO_RCVBUF) / kLeastInBuffer; }

    /// Takes what is there, at most so many packets: others may come as fast as they are taken.
    void TakeAll(int most) {
        while (most-- > 0 && Take()) {
        }
    }

    /// Takes the packet that waits, false if none does. Late and repeated answers count as nothing.
    bool Take() {
        const int fd = m_Socket.GetSocket();
        const Hears heard = HeardBy(m_Socket);
        const auto answer = PeekAnswer(fd, heard);
        if (!answer) return false;
        if (answer->kind == Answer::kReply) {
            uint16_t sequence = 0;
            if (TakeReply(m_Socket, sequence)) TellReply(*answer);
            return true;
        }
        DropAnswer(fd);
        if (answer->kind == Answer::kRefusal && heard == Hears::kPackets) TellRefusal(*answer);
        return true;
    }

    void TellReply(const Answer& reply) {
        const auto now = Clock::now();
        Host* const host = Waiting(reply.host, reply.sequence);
        if (host == nullptr) return;
        Print(std::string(kReplySize) + " from " + host->Name() + ": seq=" + std::to_string(reply.sequence) +
              " time=" + Digits(host->Answered(now)) + " ms" + SourceText(reply) + ArrivalText() + "\n");
    }

    void TellRefusal(const Answer& refusal) {
        Host* const host = Waiting(refusal.host, refusal.sequence);
        if (host == nullptr) return;
        host->Missed();
        Print("no answer from " + host->Name() + ": seq=" + std::to_string(refusal.sequence) + " " +
              ReasonText(refusal) + ", says " + IpText(refusal.told_by) + "\n");
    }

    /// A host may reply from another of its addresses.
    static std::string SourceText(const Answer& reply) {
        return reply.told_by == reply.host ? std::string() : ", sent by " + IpText(reply.told_by);
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
