#include "capture.h"

#include "end_signals.h"
#include "hex_dump.h"
#include "interfaces.h"
#include "json.h"
#include "privilege.h"
#include "report.h"

#include <kova/mac_addr.h>
#include <kova/raw_socket.h>

#include <arpa/inet.h>
#include <errno.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>

#include <cstddef>
#include <cstdio>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

/// Holds any frame, also those that the kernel has not cut into packets yet.
constexpr size_t kLargestFrame = size_t{128} * 1024;

constexpr size_t kMacSize = KovaMacAddr::kSize;
constexpr size_t kTypeAt = 12;
constexpr size_t kTagAt = 14;
constexpr size_t kInnerTypeAt = 16;
constexpr size_t kInnerTagAt = 18;
constexpr size_t kHeader = 14;
constexpr size_t kTaggedHeader = 18;
constexpr size_t kTwiceTaggedHeader = 22;
/// Of the first type that is none, but the length of a frame.
constexpr uint16_t kLeastType = 0x0600;

/// Place in an IP header, and what stands there.
constexpr size_t kFragmentAt = 6;
constexpr uint16_t kFragmentMask = 0x1FFF;
constexpr size_t kFragmentUnit = 8;

uint16_t Word(const unsigned char* at) { return static_cast<uint16_t>(at[0] << 8 | at[1]); }

std::string Hex(uint16_t number) {
    char text[8];
    std::snprintf(text, sizeof text, "0x%04x", number);
    return text;
}

/// Now, as UTC with microseconds.
std::string NowText() {
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    char fraction[16];
    std::snprintf(fraction, sizeof fraction, ".%06dZ", static_cast<int>(now.tv_nsec / 1000));
    std::string text = TimeText(static_cast<int>(now.tv_sec));
    text.pop_back();
    return text + fraction;
}

const char* ProtocolName(uint8_t protocol) {
    switch (protocol) {
        case IPPROTO_ICMP:
            return "icmp";
        case IPPROTO_TCP:
            return "tcp";
        case IPPROTO_UDP:
            return "udp";
        default:
            return nullptr;
    }
}

const char* IcmpName(unsigned type) {
    switch (type) {
        case 0:
            return " (echo reply)";
        case 3:
            return " (unreachable)";
        case 5:
            return " (redirect)";
        case 8:
            return " (echo request)";
        case 11:
            return " (time exceeded)";
        default:
            return "";
    }
}

const char* EtherName(uint16_t type) {
    switch (type) {
        case ETHERTYPE_ARP:
            return " (ARP)";
        case ETHERTYPE_IPV6:
            return " (IPv6)";
        case ETHERTYPE_VLAN:
            return " (a second VLAN tag)";
        default:
            return type < kLeastType ? " (a length)" : "";
    }
}

/// What the kernel tells of the frame that waits; the library does not ask for it.
struct Arrival {
    int interface = 0;
    bool outgoing = false;
    std::optional<uint16_t> tag;  ///< the kernel takes the outer VLAN tag out of frames that arrive
};

std::optional<uint16_t> TagOf(msghdr& message) {
    for (cmsghdr* one = CMSG_FIRSTHDR(&message); one != nullptr; one = CMSG_NXTHDR(&message, one)) {
        if (one->cmsg_level != SOL_PACKET || one->cmsg_type != PACKET_AUXDATA) continue;
        tpacket_auxdata data;
        memcpy(&data, CMSG_DATA(one), sizeof data);
        if ((data.tp_status & TP_STATUS_VLAN_VALID) != 0) return data.tp_vlan_tci;
    }
    return std::nullopt;
}

/// False if no frame waits.
bool Peek(int fd, Arrival& arrival) {
    sockaddr_ll from{};
    unsigned char first;
    iovec data{&first, sizeof first};
    alignas(cmsghdr) unsigned char control[CMSG_SPACE(sizeof(tpacket_auxdata))] = {};
    msghdr message{};
    message.msg_name = &from;
    message.msg_namelen = sizeof from;
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    if (::recvmsg(fd, &message, MSG_PEEK | MSG_DONTWAIT) < 0) {
        if (errno == EAGAIN || errno == EINTR) return false;
        throw std::runtime_error("cannot receive frames: " + FailureText(errno));
    }
    arrival = {from.sll_ifindex, from.sll_pkttype == PACKET_OUTGOING, TagOf(message)};
    return true;
}

/// A frame as a line for people and as JSON, which are put together side by side.
class Entry {
  public:
    Entry(const unsigned char* frame, const Arrival& arrival, KovaRawSocket& socket)
        : m_Frame(frame), m_Size(socket.Received()), m_Socket(socket), m_Line(NowText()) {
        m_Json.AddText("time", m_Line);
        char name[IF_NAMESIZE] = "?";
        if_indextoname(static_cast<unsigned>(arrival.interface), name);
        const char* const direction = arrival.outgoing ? "out" : "in";
        Say(std::string(" ").append(NameText(name)).append(" ").append(direction));
        m_Json.AddText("interface", name).AddText("direction", direction);
    }

    void Add(const Arrival& arrival, bool decoded) {
        if (m_Size < kHeader) return AddFailure("frame cut short");
        AddMacs();
        AddTags(arrival);
        if (IsVlan(kTypeAt) && !IsTagged()) return AddFailure("VLAN tag cut short");
        const uint16_t type = Word(m_Frame + (IsTagged() ? kInnerTypeAt : kTypeAt));
        // The library takes what stands behind a tag for IPv4 in any case.
        if (type != ETHERTYPE_IP) return AddFailure("EtherType " + Hex(type) + EtherName(type));
        if (!decoded) return AddFailure("IP header cut short");
        AddPacket();
    }

    std::string Line() const { return m_Line + "\n"; }
    std::string Json() const { return m_Json.Text() + "\n"; }

  private:
    void Say(const std::string& text) { m_Line += text; }

    bool IsVlan(size_t type_at) const { return Word(m_Frame + type_at) == ETHERTYPE_VLAN; }
    bool IsTagged() const { return m_Size >= kTaggedHeader && IsVlan(kTypeAt); }
    bool IsTwiceTagged() const {
        return m_Size >= kTwiceTaggedHeader && IsVlan(kTypeAt) && IsVlan(kInnerTypeAt);
    }

    void AddMacs() {
        const std::string to = KovaMacAddr(m_Frame);
        const std::string from = KovaMacAddr(m_Frame + kMacSize);
        Say(" " + from + " > " + to);
        m_Json.AddText("source_mac", from).AddText("destination_mac", to);
    }

    /// From the outer to the inner one.
    std::vector<uint16_t> Tags(const Arrival& arrival) const {
        std::vector<uint16_t> tags;
        if (arrival.tag) tags.push_back(*arrival.tag);
        if (IsTagged()) tags.push_back(Word(m_Frame + kTagAt));
        if (IsTwiceTagged()) tags.push_back(Word(m_Frame + kInnerTagAt));
        return tags;
    }

    void AddTags(const Arrival& arrival) {
        const std::vector<uint16_t> tags = Tags(arrival);
        if (tags.empty()) m_Json.AddNull("vlan").AddNull("priority");
        if (!tags.empty()) AddTag("", "", tags[0]);
        if (tags.size() > 1) AddTag("inner ", "inner_", tags[1]);
    }

    /// All of a tag, of which the library keeps four bits of the identifier.
    void AddTag(const char* place, const char* prefix, uint16_t tag) {
        const unsigned vlan = tag & 0x0FFFU;
        const unsigned priority = tag >> 13U;
        Say(std::string(" ") + place + "vlan " + std::to_string(vlan) + " priority " +
            std::to_string(priority));
        m_Json.AddNumber(std::string(prefix) + "vlan", vlan)
            .AddNumber(std::string(prefix) + "priority", priority);
    }

    void AddFailure(const std::string& reason) {
        Say(": not decoded: " + reason);
        AddSizes(std::nullopt);
        m_Json.AddText("not_decoded", reason);
    }

    void AddPacket() {
        const uint8_t protocol = m_Socket.GetLastProtocol();
        const bool has_ports = protocol == IPPROTO_TCP || protocol == IPPROTO_UDP;
        const size_t fragment = FragmentOffset();
        // Where a header is not complete or not there, the library's ports are those of an earlier frame.
        const bool has_header = fragment == 0 && m_Socket.GetDataOffset() != 0;
        AddEnds(has_ports && has_header);
        AddProtocol(protocol);
        if (fragment != 0) {
            AddNote("fragment", "fragment at " + std::to_string(fragment), fragment);
        } else if (protocol == IPPROTO_ICMP) {
            AddIcmp();
        } else if (has_ports && !has_header) {
            AddNote("cut_short", "header cut short");
        }
        AddSizes(has_header ? std::optional(m_Socket.GetDataLen()) : std::nullopt);
        if (m_Socket.GetError() == EIO) AddNote("checksum_wrong", "IP checksum wrong");
    }

    size_t FragmentOffset() const {
        return (Word(m_Frame + m_Socket.GetIPOffset() + kFragmentAt) & kFragmentMask) * kFragmentUnit;
    }

    void AddEnds(bool with_ports) {
        const KovaInetAddr& from = *m_Socket.GetLastPeer();
        const KovaInetAddr& to = *m_Socket.GetLastLocal();
        Say(with_ports ? ": " + AddressText(from) + " > " + AddressText(to)
                       : ": " + IpText(from) + " > " + IpText(to));
        m_Json.AddText("source", IpText(from)).AddText("destination", IpText(to));
        if (!with_ports) return;
        m_Json.AddNumber("source_port", ntohs(from.GetPort()))
            .AddNumber("destination_port", ntohs(to.GetPort()));
    }

    void AddProtocol(uint8_t protocol) {
        const char* const name = ProtocolName(protocol);
        Say(name != nullptr ? std::string(" ") + name : " protocol " + std::to_string(protocol));
        m_Json.AddNumber("protocol", protocol);
    }

    /// The type stands in the frame also where the library finds the packet too short.
    void AddIcmp() {
        if (m_Socket.GetProtocolOffset() >= m_Size) return AddNote("cut_short", "header cut short");
        const unsigned type = m_Frame[m_Socket.GetProtocolOffset()];
        Say(" type " + std::to_string(type) + IcmpName(type));
        m_Json.AddNumber("icmp_type", type);
    }

    void AddSizes(std::optional<unsigned> data) {
        Say(", " + std::to_string(m_Size) + " bytes");
        m_Json.AddNumber("size", m_Size);
        if (!data) return;
        Say(", " + std::to_string(*data) + " of data");
        m_Json.AddNumber("data_size", *data);
    }

    void AddNote(const char* key, const std::string& text) {
        Say(", " + text);
        m_Json.AddFlag(key, true);
    }

    void AddNote(const char* key, const std::string& text, size_t value) {
        Say(", " + text);
        m_Json.AddNumber(key, value);
    }

    const unsigned char* const m_Frame;
    const size_t m_Size;
    KovaRawSocket& m_Socket;
    std::string m_Line;
    JsonObject m_Json;
};

class Recorder {
  public:
    explicit Recorder(const CaptureOptions& options) : m_Options(options), m_Frame(kLargestFrame) {
        if (!options.interface.empty()) m_Interface = static_cast<int>(InterfaceIndex(options.interface));
        if (!m_Socket.Open()) Fail();
        const int on = 1;
        ::setsockopt(m_Socket.GetSocket(), SOL_PACKET, PACKET_AUXDATA, &on, sizeof on);
        if (m_Interface > 0) Bind();
    }
    Recorder(const Recorder&) = delete;
    Recorder& operator=(const Recorder&) = delete;
    /// Also where a failure ends it.
    ~Recorder() { TellMissing(); }

    int Run() {
        if (!m_Options.json) Print("capturing on " + Name() + "\n");
        const int ms = m_Options.timeout_ms == 0 ? -1 : m_Options.timeout_ms;
        for (uint64_t number = 0;;) {
            switch (m_Watch.Await(m_Socket.GetSocket(), ms)) {
                case EndWatch::kSignal:
                    return m_Options.count == 0 ? kExitOk : kExitFailure;
                case EndWatch::kTimeOut:
                    Complain("no frame on " + Name() + " within " + std::to_string(ms) + " ms");
                    return kExitFailure;
                case EndWatch::kData:
                    if (Take() && ++number == m_Options.count) return kExitOk;
                    break;
            }
        }
    }

  private:
    static constexpr int kAll = -1;

    std::string Name() const {
        return m_Options.interface.empty() ? "all interfaces" : NameText(m_Options.interface);
    }

    [[noreturn]] void Fail() const {
        throw std::runtime_error("cannot capture: " + RecordText(m_Socket) +
                                 PrivilegeHint(m_Socket.GetError(), "cap_net_raw"));
    }

    /// The library's device is the one that it sends through.
    void Bind() const {
        sockaddr_ll address{};
        address.sll_family = AF_PACKET;
        address.sll_protocol = htons(ETH_P_ALL);
        address.sll_ifindex = m_Interface;
        if (::bind(m_Socket.GetSocket(), reinterpret_cast<const sockaddr*>(&address), sizeof address) < 0)
            throw std::runtime_error("cannot capture on " + Name() + ": " + FailureText(errno));
    }

    /// Prints the frame that waits; false if it was not one of the interface.
    bool Take() {
        Arrival arrival;
        if (!Peek(m_Socket.GetSocket(), arrival)) return false;
        const bool decoded = m_Socket.RecvFrom(m_Frame.data(), m_Frame.size());
        if (m_Socket.Received() == 0) Fail();
        // Before the socket was bound, frames of other interfaces may have come.
        if (m_Interface != kAll && arrival.interface != m_Interface) return false;
        Entry entry(m_Frame.data(), arrival, m_Socket);
        entry.Add(arrival, decoded);
        Print(m_Options.json ? entry.Json() : entry.Line());
        return true;
    }

    void TellMissing() const {
        tpacket_stats counts{};
        socklen_t size = sizeof counts;
        if (::getsockopt(m_Socket.GetSocket(), SOL_PACKET, PACKET_STATISTICS, &counts, &size) == 0 &&
            counts.tp_drops > 0)
            Complain(std::to_string(counts.tp_drops) + " frames came too fast and are missing");
    }

    const CaptureOptions& m_Options;
    const EndWatch m_Watch;
    int m_Interface = kAll;
    KovaRawSocket m_Socket;
    std::vector<unsigned char> m_Frame;
};

}  // namespace

int Capture(const CaptureOptions& options) { return Recorder(options).Run(); }
