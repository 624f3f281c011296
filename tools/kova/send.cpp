#include "send.h"

#include "hex_dump.h"
#include "report.h"
#include "sources.h"
#include "stream.h"

#include <kova/clock.h>
#include <kova/flat_msg.h>
#include <kova/process.h>
#include <kova/tcp_socket.h>
#include <kova/udp_socket.h>

#include <arpa/inet.h>
#include <netdb.h>
#include <string.h>

#include <charconv>
#include <chrono>
#include <climits>
#include <cstdio>
#include <memory>

namespace {

constexpr size_t kMaxUdpBody = KovaUDPSocket::kMaxDatagram - sizeof(sKovaMsgHeader);

// Target

struct HostPort {
    std::string host;
    uint16_t port;
};

HostPort Split(const std::string& target) {
    const UsageError wrong("'" + target +
                           "' is not HOST:PORT (an IPv6 address goes in brackets: [::1]:4000)");
    const size_t colon = target.rfind(':');
    if (colon == target.npos) throw wrong;
    HostPort split{target.substr(0, colon), 0};
    if (split.host.starts_with('[') && split.host.ends_with(']')) {
        split.host = split.host.substr(1, split.host.size() - 2);
    } else if (split.host.find(':') != split.host.npos) {
        throw wrong;
    }
    const char* const end = target.data() + target.size();
    const auto parsed = std::from_chars(target.data() + colon + 1, end, split.port);
    if (parsed.ec != std::errc() || parsed.ptr != end || split.port == 0 || split.host.empty()) throw wrong;
    return split;
}

KovaInetAddr ToAddress(const addrinfo& info, uint16_t port) {
    if (info.ai_family == AF_INET) {
        sockaddr_in name;
        memcpy(&name, info.ai_addr, sizeof name);
        return KovaInetAddr(name.sin_addr.s_addr, htons(port));
    }
    sockaddr_in6 name;
    memcpy(&name, info.ai_addr, sizeof name);
    return KovaInetAddr(name.sin6_addr, htons(port));
}

/// The first address of a name, an IPv4 address if it has one.
KovaInetAddr Resolve(const std::string& target) {
    const HostPort wanted = Split(target);
    int error = EAI_NONAME;
    for (const int family : {AF_INET, AF_INET6}) {
        addrinfo hints{};
        hints.ai_family = family;
        hints.ai_socktype = SOCK_STREAM;
        addrinfo* found = nullptr;
        error = getaddrinfo(wanted.host.c_str(), nullptr, &hints, &found);
        if (error != 0) continue;
        const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owner(found, freeaddrinfo);
        return ToAddress(*found, wanted.port);
    }
    throw UsageError(wanted.host + ": " + gai_strerror(error));
}

// Both kinds of socket

bool Connect(KovaTCPSocket& socket, const KovaInetAddr& target, const SendOptions& options) {
    socket.SetType(options.plain ? KOVA_SOCKET_PLAIN : KOVA_SOCKET_HANDSHAKE);
    socket.SetTimeout(options.timeout_ms);
    // A body that does not fit the kernel's buffer waits for the peer to read.
    socket.SetBlocking(true);
    return socket.Connect(target);
}

bool Connect(KovaUDPSocket& socket, const KovaInetAddr&, const SendOptions& options) {
    socket.SetTimeout(options.timeout_ms);
    return socket.Open();
}

/// Lets the peer read all that was sent, also when it sends replies that nobody wants.
void Finish(KovaTCPSocket& socket, const SendOptions& options) {
    FinishSending(socket.GetSocket(), std::chrono::milliseconds(options.timeout_ms));
}

void Finish(KovaUDPSocket&, const SendOptions&) {}

bool SendBytes(KovaTCPSocket& socket, const std::string& bytes, KovaInetAddr&) {
    return socket.Send(bytes.data(), bytes.size());
}

bool SendBytes(KovaUDPSocket& socket, const std::string& bytes, KovaInetAddr& to) {
    return socket.SendTo(bytes.data(), bytes.size(), to);
}

bool ReceiveHeader(KovaTCPSocket& socket, sKovaMsgHeader& header) {
    return socket.Recv(&header, sizeof header);
}

/// A peek takes longer datagrams, too; the rest of them does not matter.
bool ReceiveHeader(KovaUDPSocket& socket, sKovaMsgHeader& header) {
    return socket.PeekFrom(&header, sizeof header);
}

/// A whole message whose header claims another version, as bytes.
std::string ForeignMessage(uint16_t major, int type, const std::string& body) {
    sKovaMsgHeader header{};
    header.size = htonl(static_cast<uint32_t>(body.size()));
    memcpy(header.magic, "KOVA", sizeof header.magic);
    header.version = htonl(uint32_t{major} << 16);
    header.type = static_cast<int32_t>(htonl(static_cast<uint32_t>(type)));
    header.sendTid = static_cast<int32_t>(htonl(static_cast<uint32_t>(KovaGetTid())));
    header.sendTime = static_cast<int32_t>(htonl(static_cast<uint32_t>(KovaGetRealTime())));
    std::string bytes(reinterpret_cast<const char*>(&header), sizeof header);
    return bytes += body;
}

/// Where the bodies of replies go when they are not printed.
class ReplyFile {
  public:
    explicit ReplyFile(const std::string& path) : m_Path(path), m_File(Open(path)) {
        if (m_File == nullptr && !path.empty()) throw UsageError(path + ": " + SystemText(errno));
    }
    ReplyFile(const ReplyFile&) = delete;
    ReplyFile& operator=(const ReplyFile&) = delete;
    ~ReplyFile() {
        if (m_File != nullptr && m_File != stdout) std::fclose(m_File);
    }

    explicit operator bool() const { return m_File != nullptr; }
    bool IsStdout() const { return m_File == stdout; }

    bool Write(std::string_view body) {
        if (std::fwrite(body.data(), 1, body.size(), m_File) == body.size() && std::fflush(m_File) == 0)
            return true;
        Complain(m_Path + ": " + SystemText(errno));
        return false;
    }

  private:
    static FILE* Open(const std::string& path) {
        if (path.empty()) return nullptr;
        return path == "-" ? stdout : std::fopen(path.c_str(), "wb");
    }

    const std::string m_Path;
    FILE* const m_File;
};

/// Sends one body after the other to one peer.
template <typename Socket>
class Sender {
  public:
    Sender(const SendOptions& options, const KovaInetAddr& target)
        : m_Options(options), m_Target(target), m_Replies(options.output) {}

    int Run(Sources& sources) {
        const std::string to = AddressText(m_Target);
        if (!Connect(m_Socket, m_Target, m_Options)) return Failed("cannot connect to " + to, m_Socket);
        for (std::string body; sources.Next(body);) {
            if (body.size() > MaxBody()) throw UsageError(TooLarge(sources.Name(), body.size()));
            const int code = m_Options.header_version ? SendForeign(body) : SendMessage(body);
            if (code != kExitOk) return code;
        }
        Finish(m_Socket, m_Options);
        return kExitOk;
    }

  private:
    size_t MaxBody() const { return m_Options.udp ? kMaxUdpBody : INT_MAX - sizeof(sKovaMsgHeader); }

    std::string TooLarge(const std::string& name, size_t size) const {
        return name + ": " + std::to_string(size) + " bytes; the body of a " +
               (m_Options.udp ? "UDP" : "TCP") + " message has at most " + std::to_string(MaxBody());
    }

    static int Failed(const std::string& what, const KovaBaseObject& record, int code = kExitFailure) {
        Complain(what + ": " + RecordText(record));
        return code;
    }

    void Say(const std::string& text) const {
        if (!m_Options.quiet && !m_Replies.IsStdout()) Print(text);
    }

    void SaySent(KovaInetAddr& to, int type, size_t size) {
        Say("sent message " + std::to_string(++m_Sent) + " to " + AddressText(to) + ": type " +
            std::to_string(type) + ", " + std::to_string(size) + (size == 1 ? " byte" : " bytes") + "\n");
    }

    int SendMessage(std::string& body) {
        KovaFlatMsg message(static_cast<unsigned>(m_Options.type), body.data(),
                            static_cast<int>(body.size()));
        if (message.GetError() == KovaBaseObject::KOVA_ERR_NONE) {
            message.GetAddr() = m_Target;
            message >> m_Socket;
        }
        if (message.GetError() != KovaBaseObject::KOVA_ERR_NONE) {
            return Failed("message to " + AddressText(m_Target) + " failed", message);
        }
        SaySent(m_Target, m_Options.type, body.size());
        return m_Options.wait_reply ? AwaitReply() : kExitOk;
    }

    int AwaitReply() {
        KovaFlatMsg reply;
        reply << m_Socket;
        if (reply.GetError() != KovaBaseObject::KOVA_ERR_NONE) {
            return Failed("no reply from " + AddressText(m_Target), reply, kExitNoAnswer);
        }
        const std::string from = AddressText(reply.GetAddr());
        if (reply.GetType() == 0) {
            Complain("rejected by " + from + ": " + HeaderText(reply));
            return kExitNoAnswer;
        }
        Say("reply from " + from + ": " + HeaderText(reply) + "\n");
        if (m_Replies) return m_Replies.Write(BodyOf(reply)) ? kExitOk : kExitFailure;
        Say(BodyText(BodyOf(reply), m_Options.body_limit));
        return kExitOk;
    }

    /// The library itself sends its own version only, and a rejection is no message to it: both go as plain
    /// bytes.
    int SendForeign(const std::string& body) {
        if (!SendBytes(m_Socket, ForeignMessage(*m_Options.header_version, m_Options.type, body), m_Target)) {
            return Failed("message to " + AddressText(m_Target) + " failed", m_Socket);
        }
        SaySent(m_Target, m_Options.type, body.size());
        sKovaMsgHeader header{};
        if (!ReceiveHeader(m_Socket, header)) {
            return Failed("no answer from " + AddressText(m_Target), m_Socket, kExitNoAnswer);
        }
        KovaFlatMsg answer;
        answer.SetHeader(header);
        const std::string text = AddressText(m_Socket.GetPeer()) + ": " + HeaderText(answer) + ", version " +
                                 std::to_string(ntohl(header.version) >> 16);
        if (answer.GetType() == 0) {
            Complain("rejected by " + text);
            return kExitNoAnswer;
        }
        Say("answer from " + text + "\n");
        return kExitOk;
    }

    const SendOptions& m_Options;
    KovaInetAddr m_Target;
    Socket m_Socket;
    ReplyFile m_Replies;
    uint64_t m_Sent = 0;
};

template <typename Socket>
int SendOver(const SendOptions& options, Sources& sources) {
    Sender<Socket> sender(options, Resolve(options.target));
    return sender.Run(sources);
}

}  // namespace

int Send(const SendOptions& options) {
    if (options.type == 0) throw UsageError("type 0 marks a rejected message");
    Sources sources(options);
    return options.udp ? SendOver<KovaUDPSocket>(options, sources)
                       : SendOver<KovaTCPSocket>(options, sources);
}
