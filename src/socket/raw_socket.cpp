#include "addr/address_access.h"
#include "frame/fail.h"
#include "socket/ping.h"

#include <kova/raw_socket.h>

#include <linux/icmp.h>
#include <net/ethernet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

namespace {

namespace ping = kova::ping;
typedef kova::AddressAccess Access;

constexpr int kDefaultTimeout = 1000;
constexpr int kNoLinger = 0;
constexpr int16_t kNoVlan = -1;

constexpr size_t kMacDestinationAt = 0;
constexpr size_t kMacSourceAt = 6;
constexpr size_t kEtherTypeAt = 12;
constexpr size_t kTagAt = 14;
constexpr size_t kEthernetHeader = 14;
constexpr size_t kTaggedHeader = 18;

// Deliberate: the low four of the VLAN identifier's twelve bits.
constexpr uint16_t kVlanIdMask = 0x000F;
constexpr int kVlanPriorityShift = 13;

// Places in an IP header.
constexpr size_t kProtocolAt = 9;
constexpr size_t kSourceAt = 12;
constexpr size_t kDestinationAt = 16;
constexpr size_t kIpHeader = 20;

constexpr size_t kUdpHeader = 8;
constexpr size_t kTcpHeader = 20;
/// ICMP packets that are shorter tell nothing.
constexpr size_t kIcmpMinimum = 28;

/// Holds a ping reply behind a tagged Ethernet header and an IP header without options.
constexpr size_t kReplyFrame = 90;

template <typename Word>
Word Get(const unsigned char* from) {
    Word word;
    std::memcpy(&word, from, sizeof word);
    return word;
}

/// Why the frame that the socket read last is not the wanted reply, 0 if it is.
int ReplyError(KovaRawSocket& socket, const unsigned char* frame, in_addr_t to, const ping::Sender& sender) {
    if (socket.GetLastProtocol() != IPPROTO_ICMP) return KovaBaseObject::KOVA_ERR_WRONG_PROTOCOL;
    if (socket.GetLastLocal()->GetPort() != ping::kEchoReply) return KovaBaseObject::KOVA_ERR_BAD_VERSION;
    if (socket.GetDataLen() < ping::kEchoSize) return KovaBaseObject::KOVA_ERR_BAD_HEADER;
    const ping::Echo echo = ping::ReadEcho(frame + socket.GetDataOffset());
    return ping::Matches(echo, to, sender) ? 0 : KovaBaseObject::KOVA_ERR_FOREIGN_REPLY;
}

}  // namespace

KovaRawSocket::KovaRawSocket()
    : m_Received(0),
      m_LastPeer(0, 0),
      m_LastLocal(0, 0),
      m_LastVlanId(kNoVlan),
      m_LastVlanPriority(kNoVlan),
      m_LastWasVlan(0),
      m_LastProtocol(0),
      m_FrameOffset(0),
      m_EthernetOffset(0),
      m_IpOffset(0),
      m_ProtocolOffset(0),
      m_DataOffset(0),
      m_DataLength(0),
      m_RoundTrip{} {
    m_Timeout = kDefaultTimeout;
}

KovaRawSocket::~KovaRawSocket() { Close(); }

bool KovaRawSocket::Open() {
    if (IsOpen()) return m_Mode == KOVA_SOCKET_RAW;
    // One of a descriptor that was handed to the caller may be left, with the options of then.
    m_Sender.Close();
    m_Socket = Socket(AF_PACKET, SOCK_RAW, htons(ETH_P_ALL));
    if (m_Socket < 0) return KOVA_FAIL(errno, "open raw errno=%d", errno);
    m_Mode = KOVA_SOCKET_RAW;
    return ApplyOptions();
}

void KovaRawSocket::Close() {
    ClearError();
    CloseDescriptor(kNoLinger);
    m_Sender.Close();
    m_LastVlanId = m_LastVlanPriority = kNoVlan;
    m_LastWasVlan = 0;
}

/// The base's count says the same.
void KovaRawSocket::SetReceived(uint32_t bytes) {
    m_Received = bytes;
    KovaSocketWrapper::m_Received = bytes;
}

bool KovaRawSocket::SetSocket(KovaSocketT fd) { return TakeOver(fd, __PRETTY_FUNCTION__); }

/// Whether the socket is one that hears frames, opened if need be; failures are those of `function`.
bool KovaRawSocket::OpenOnDemand(const char* function) {
    if (!IsOpen()) Open();
    if (m_Mode == KOVA_SOCKET_RAW) return true;
    if (IsOpen()) KOVA_FAIL_IN(function, ENOTSOCK, "no raw socket fd=%d", m_Socket.load());
    return false;
}

bool KovaRawSocket::WaitForData(KovaWaitModeT mode) { return AwaitReady(mode, __PRETTY_FUNCTION__); }

bool KovaRawSocket::PeekFrom(void* buffer, size_t size) {
    SetReceived(0);
    ClearError();
    if (!WaitForData(KOVA_WAIT_READ))
        return KOVA_FAIL(ETIMEDOUT, "raw peek fd=%d ms=%d", m_Socket.load(), m_Timeout);
    return TakeFrame(buffer, size, MSG_PEEK, __PRETTY_FUNCTION__);
}

bool KovaRawSocket::RecvFrom(void* buffer, size_t size) {
    SetReceived(0);
    ClearError();
    if (!OpenOnDemand(__PRETTY_FUNCTION__)) {
        KOVA_TRACE("raw receive without socket code=%d", GetError());
        return false;
    }
    // Deliberate: without a trace record; a receiver may wait often in vain.
    if (!WaitForData(KOVA_WAIT_READ)) return KOVA_RECORD(ETIMEDOUT);
    return TakeFrame(buffer, size, 0, __PRETTY_FUNCTION__);
}

/// Reads and decodes the frame that waits; failures to read are those of `function`.
bool KovaRawSocket::TakeFrame(void* buffer, size_t size, int flags, const char* function) {
    const ssize_t result = ::recvfrom(m_Socket, buffer, size, flags, nullptr, nullptr);
    if (result < 0) return KOVA_FAIL_IN(function, errno, "raw read fd=%d errno=%d", m_Socket.load(), errno);
    SetReceived(static_cast<uint32_t>(result));
    return CheckPacket(buffer, static_cast<size_t>(result));
}

// Decoding

bool KovaRawSocket::CheckPacket(void* buffer, size_t size) {
    m_LastWasVlan = 0;
    m_EthernetOffset = m_IpOffset = m_ProtocolOffset = m_DataOffset = m_DataLength = 0;
    const unsigned char* const frame = static_cast<const unsigned char*>(buffer);
    if (frame == nullptr || !ReadEthernet(frame, size) || size <= m_IpOffset)
        return Refuse(KOVA_ERR_WRONG_PROTOCOL, size, __PRETTY_FUNCTION__);
    const unsigned char* const ip = frame + m_IpOffset;
    const size_t header_size = size_t{4} * (ip[0] & 0xF);
    if (size - m_IpOffset < std::max(header_size, kIpHeader))
        return Refuse(KOVA_ERR_BAD_HEADER, size, __PRETTY_FUNCTION__);

    Access::StoreIp(m_LastPeer, Get<in_addr_t>(ip + kSourceAt));
    Access::StoreIp(m_LastLocal, Get<in_addr_t>(ip + kDestinationAt));
    Access::StoreBytes(m_LastPeerMac, frame + kMacSourceAt);
    Access::StoreBytes(m_LastLocalMac, frame + kMacDestinationAt);
    m_LastProtocol = ip[kProtocolAt];
    // Deliberate: options are not counted, and a header with a wrong checksum is taken.
    if (ping::Checksum(ip, kIpHeader) != 0) NoteBadChecksum(__PRETTY_FUNCTION__);
    m_ProtocolOffset = m_IpOffset + static_cast<uint32_t>(header_size);
    ReadTransport(frame, size);
    return true;
}

/// Fails in the name of `function`, with nothing known of the frame's ends.
bool KovaRawSocket::Refuse(int code, size_t size, const char* function) {
    m_LastPeer = m_LastLocal = KovaInetAddr(0, 0);
    m_LastPeerMac.Invalidate();
    m_LastLocalMac.Invalidate();
    return KOVA_FAIL_IN(function, code, "frame not decoded size=%u code=%d", static_cast<uint32_t>(size),
                        code);
}

/// As above for a header that is taken nevertheless.
void KovaRawSocket::NoteBadChecksum(const char* function) {
    KOVA_FAIL_IN(function, EIO, "IP header checksum from=%x", ntohl(m_LastPeer.GetIp()));
}

/// Finds the IP header; false if there can be none. What a VLAN tag is followed by is not looked at.
bool KovaRawSocket::ReadEthernet(const unsigned char* frame, size_t size) {
    if (size < kEthernetHeader) return false;
    const uint16_t type = ntohs(Get<uint16_t>(frame + kEtherTypeAt));
    if (type == ETHERTYPE_VLAN && size >= kTaggedHeader) {
        const uint16_t tag = ntohs(Get<uint16_t>(frame + kTagAt));
        m_LastVlanId = static_cast<int16_t>(tag & kVlanIdMask);
        m_LastVlanPriority = static_cast<int16_t>(tag >> kVlanPriorityShift);
        m_LastWasVlan = 1;
        m_IpOffset = kTaggedHeader;
        return true;
    }
    if (type != ETHERTYPE_IP) return false;
    m_LastVlanId = m_LastVlanPriority = kNoVlan;
    m_IpOffset = kEthernetHeader;
    return true;
}

/// Ports and data of the protocol; a header that is not complete leaves them as they were.
void KovaRawSocket::ReadTransport(const unsigned char* frame, size_t size) {
    switch (m_LastProtocol) {
        case IPPROTO_UDP:
            ReadPorts(frame, size, kUdpHeader);
            break;
        case IPPROTO_TCP:
            ReadPorts(frame, size, kTcpHeader);
            break;
        case IPPROTO_ICMP:
            if (size - m_ProtocolOffset < kIcmpMinimum) break;
            // Deliberate: the type stands in for both ports, in host order.
            Access::StorePort(m_LastLocal, frame[m_ProtocolOffset]);
            Access::StorePort(m_LastPeer, frame[m_ProtocolOffset]);
            StoreData(size, ping::kHeaderSize);
            break;
        default:
            Access::StorePort(m_LastLocal, 0);
            Access::StorePort(m_LastPeer, 0);
            m_DataLength = static_cast<uint32_t>(size);
            break;
    }
}

void KovaRawSocket::ReadPorts(const unsigned char* frame, size_t size, size_t header_size) {
    if (size - m_ProtocolOffset < header_size) return;
    const unsigned char* const ports = frame + m_ProtocolOffset;
    Access::StorePort(m_LastPeer, Get<in_port_t>(ports));
    Access::StorePort(m_LastLocal, Get<in_port_t>(ports + sizeof(in_port_t)));
    StoreData(size, header_size);
}

/// Everything behind the protocol's header is data.
void KovaRawSocket::StoreData(size_t size, size_t header_size) {
    m_DataOffset = m_ProtocolOffset + static_cast<uint32_t>(header_size);
    m_DataLength = static_cast<uint32_t>(size) - m_DataOffset;
}

// Sending

/// Makes the socket that sends, with the options of this one; it queues no answers.
bool KovaRawSocket::OpenSender() {
    if (m_Sender.GetMode() != KOVA_SOCKET_CLOSED) return true;
    m_Sender.SetTimeout(m_Timeout);
    m_Sender.SetBlocking(m_Blocking);
    m_Sender.SetRouting(m_Routing);
    m_Sender.SetBroadcast(m_Broadcast);
    m_Sender.BindToDevice(m_Device);
    if (!m_Sender.Open()) {
        // Nothing leaves with other options than those asked for.
        const kova::ErrorKeeper keep(m_Sender);
        m_Sender.Close();
        return false;
    }
    const icmp_filter everything{~0U};
    if (::setsockopt(m_Sender.GetSocket(), SOL_RAW, ICMP_FILTER, &everything, sizeof everything) < 0)
        KOVA_TRACE("raw sender filter fd=%d errno=%d", m_Sender.GetSocket(), errno);
    return true;
}

bool KovaRawSocket::SendTo(const void* buffer, size_t size, const KovaInetAddr& to) {
    ClearError();
    if (!OpenOnDemand(__PRETTY_FUNCTION__)) {
        KOVA_TRACE("raw send without socket to=%x", ntohl(to.GetIp()));
        // Deliberate: nothing was sent, yet the call reports success.
        return true;
    }
    m_LastPeer = to;
    if (OpenSender() && m_Sender.SendTo(buffer, size, to.GetIp())) return true;
    return KOVA_FAIL(m_Sender.GetError(), "raw send fd=%d to=%x", m_Socket.load(), ntohl(to.GetIp()));
}

// Ping

bool KovaRawSocket::SendPingPacket(in_addr_t to, unsigned short sequence) {
    if (!IsOpen()) Open();
    const ping::Request request = ping::MakeRequest(to, sequence, ping::SenderOn(m_Socket));
    return SendTo(request.data(), request.size(), KovaInetAddr(to, 0));
}

bool KovaRawSocket::RecvPingPacket(in_addr_t to, unsigned short& sequence, int fd, unsigned int pid,
                                   unsigned int tid) {
    m_RoundTrip = {};
    if (!OpenOnDemand(__PRETTY_FUNCTION__)) return false;
    ping::Sender sender = ping::SenderOn(fd == 0 ? m_Socket.load() : fd);
    if (pid != 0) sender.pid = pid;
    if (tid != 0) sender.tid = tid;

    const ping::Deadline deadline(m_Timeout);
    while (!deadline.HasPassed()) {
        std::array<unsigned char, kReplyFrame> frame;
        if (!RecvFrom(frame.data(), frame.size())) {
            if (GetError() == ETIMEDOUT) return false;
            continue;
        }
        if (const int error = ReplyError(*this, frame.data(), to, sender); error != 0) {
            KOVA_RECORD(error);
            continue;
        }
        sequence = ping::ReadSequence(&frame[m_ProtocolOffset]);
        m_RoundTrip = ping::RoundTrip(ping::ReadEcho(&frame[m_DataOffset]));
        return true;
    }
    return KOVA_FAIL(ETIMEDOUT, "no ping reply fd=%d from=%x", m_Socket.load(), ntohl(to));
}

int32_t KovaRawSocket::Ping(in_addr_t to, int32_t tries) {
    ClearError();
    if (!OpenOnDemand(__PRETTY_FUNCTION__)) return -1;
    const KovaSocketT fd = m_Socket;
    const auto send = [&](uint16_t sequence) { return SendPingPacket(to, sequence); };
    const auto receive = [&](uint16_t sequence) { return RecvPingPacket(to, sequence, ping::kAnyFd, 0, 0); };
    int32_t result = 0;
    if (ping::AwaitReply(tries, send, receive)) {
        result = IsVOXAAddr(m_LastLocal.GetIp()) ? 1 : 0;
        // Deliberate: a reply that arrived outside the control network counts as none.
        if (result == 0) KOVA_RECORD(ETIMEDOUT);
    }
    {
        const kova::ErrorKeeper keep(*this);
        Close();
    }
    KOVA_TRACE("raw ping fd=%d to=%x result=%d", fd, ntohl(to), result);
    return result;
}

int32_t KovaRawSocket::Ping(char* text, int tries) {
    ClearError();
    const auto to = ping::ParseAddress(text);
    if (to) return Ping(*to, tries);
    KOVA_FAIL(EINVAL, "raw ping of no address");
    return -1;
}

int32_t KovaRawSocket::MultiPing(unsigned int* addresses, unsigned int count, int rounds) {
    ClearError();
    // Deliberate: does not open the socket, as the other operations do.
    if (m_Mode != KOVA_SOCKET_RAW) {
        KOVA_FAIL(ENOTSOCK, "raw multi ping without socket, mode=%u", m_Mode.load());
        return -1;
    }
    const auto send = [&](in_addr_t to, uint16_t sequence) { return SendPingPacket(to, sequence); };
    const auto receive = [&](uint16_t sequence) { return RecvPingPacket(0, sequence, ping::kAnyFd, 0, 0); };
    const ping::Addresses list = ping::ListOf(addresses, count);
    const int32_t best = ping::CountReplies(list, rounds, send, receive);
    KOVA_TRACE("raw multi ping fd=%d to=%x %x %x %x", m_Socket.load(), ping::HostAddress(list, 0),
               ping::HostAddress(list, 1), ping::HostAddress(list, 2), ping::HostAddress(list, 3));
    return best;
}

bool KovaRawSocket::IsVOXAAddr(unsigned int address) { return ping::IsVoxaAddress(address); }

unsigned short KovaRawSocket::CalculateChecksum(unsigned short* data, int length) {
    return ping::Checksum(data, length < 0 ? 0 : static_cast<size_t>(length));
}
