#include "frame/fail.h"
#include "socket/ping.h"

#include <kova/icmp_socket.h>

#include <linux/icmp.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstring>

namespace {

namespace ping = kova::ping;

constexpr int kDefaultTimeout = 1000;
constexpr int kNoLinger = 0;

constexpr size_t kIpHeader = 20;
constexpr size_t kIpSourceAt = 12;
constexpr size_t kIpDestinationAt = 16;
constexpr size_t kReplySize = kIpHeader + ping::kRequestSize;

typedef std::array<unsigned char, kReplySize> Reply;

sockaddr_in ToSockaddr(in_addr_t ip) {
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_addr.s_addr = ip;
    return to;
}

/// Why a transfer did not move what it should: the call's errno, or EMSGSIZE where it succeeded.
int TransferError(ssize_t result) { return result < 0 ? errno : EMSGSIZE; }

/// Where the ICMP packet begins that a datagram holds.
size_t IcmpOffset(const Reply& reply) { return size_t{4} * (reply[0] & 0xF); }

/// Whether the echo data lie inside; they do not where an IP header claims to fill the datagram.
bool HoldsEcho(const Reply& reply) {
    return IcmpOffset(reply) + ping::kHeaderSize + ping::kEchoSize <= reply.size();
}

in_addr_t AddressAt(const Reply& reply, size_t offset) {
    in_addr_t address;
    std::memcpy(&address, &reply[offset], sizeof address);
    return address;
}

/// Sends a request out of an interface.
ssize_t SendAtInterface(int fd, const ping::Request& request, in_addr_t to, int ifindex) {
    sockaddr_in address = ToSockaddr(to);
    iovec data{const_cast<unsigned char*>(request.data()), request.size()};
    alignas(cmsghdr) unsigned char control[CMSG_SPACE(sizeof(in_pktinfo))] = {};
    msghdr message{};
    message.msg_name = &address;
    message.msg_namelen = sizeof address;
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;

    cmsghdr* const header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = IPPROTO_IP;
    header->cmsg_type = IP_PKTINFO;
    header->cmsg_len = CMSG_LEN(sizeof(in_pktinfo));
    in_pktinfo info{};
    info.ipi_ifindex = ifindex;
    std::memcpy(CMSG_DATA(header), &info, sizeof info);
    return ::sendmsg(fd, &message, MSG_NOSIGNAL);
}

}  // namespace

KovaIcmpSocket::KovaIcmpSocket() : m_Received(0), m_RoundTrip{}, m_LastPeer(0, 0), m_LastLocal(0, 0) {
    m_Timeout = kDefaultTimeout;
}

KovaIcmpSocket::~KovaIcmpSocket() { Close(); }

bool KovaIcmpSocket::Open() {
    if (IsOpen()) return m_Mode == KOVA_SOCKET_ICMP;
    SetReceived(0);
    m_Socket = Socket(AF_INET, SOCK_RAW, IPPROTO_ICMP);
    if (m_Socket < 0) return KOVA_FAIL(errno, "open icmp errno=%d", errno);
    m_Mode = KOVA_SOCKET_ICMP;
    const icmp_filter nothing{};
    if (::setsockopt(m_Socket, SOL_RAW, ICMP_FILTER, &nothing, sizeof nothing) < 0)
        KOVA_FAIL(errno, "icmp filter fd=%d errno=%d", m_Socket.load(), errno);
    return ApplyOptions();
}

bool KovaIcmpSocket::Close() {
    ClearError();
    SetReceived(0);
    return CloseDescriptor(kNoLinger);
}

/// The base's count says the same.
void KovaIcmpSocket::SetReceived(uint32_t bytes) {
    m_Received = bytes;
    KovaSocketWrapper::m_Received = bytes;
}

bool KovaIcmpSocket::SetSocket(KovaSocketT fd) { return TakeOver(fd, __PRETTY_FUNCTION__); }

bool KovaIcmpSocket::WaitForData(KovaWaitModeT mode) { return AwaitReady(mode, __PRETTY_FUNCTION__); }

bool KovaIcmpSocket::PeekFrom(void* buffer, size_t size) {
    return TakeDatagram(buffer, size, MSG_PEEK, __PRETTY_FUNCTION__);
}

bool KovaIcmpSocket::RecvFrom(void* buffer, size_t size) {
    return TakeDatagram(buffer, size, 0, __PRETTY_FUNCTION__);
}

/// Receives one datagram of `size` bytes; failures are those of `function`.
bool KovaIcmpSocket::TakeDatagram(void* buffer, size_t size, int flags, const char* function) {
    SetReceived(0);
    ClearError();
    if (!WaitForData(KOVA_WAIT_READ))
        return KOVA_FAIL_IN(function, ETIMEDOUT, "icmp receive fd=%d ms=%d", m_Socket.load(), m_Timeout);
    sockaddr_in source{};
    socklen_t length = sizeof source;
    // With its full size even where the buffer is shorter, so that a longer datagram is not taken for it.
    const ssize_t result =
        ::recvfrom(m_Socket, buffer, size, flags | MSG_TRUNC, reinterpret_cast<sockaddr*>(&source), &length);
    if (result < 0 || static_cast<size_t>(result) != size) {
        const int error = TransferError(result);
        m_LastPeer = m_LastLocal = KovaInetAddr(0, 0);
        return KOVA_FAIL_IN(function, error, "icmp datagram fd=%d received=%d wanted=%u errno=%d",
                            m_Socket.load(), static_cast<int>(result), static_cast<uint32_t>(size), error);
    }
    m_LastPeer = KovaInetAddr(source.sin_addr.s_addr, 0);
    SetReceived(static_cast<uint32_t>(result));
    return true;
}

bool KovaIcmpSocket::SendTo(const void* buffer, size_t size, in_addr_t to) {
    ClearError();
    m_LastPeer = KovaInetAddr(to, 0);
    const sockaddr_in address = ToSockaddr(to);
    const ssize_t sent = ::sendto(m_Socket, buffer, size, MSG_NOSIGNAL,
                                  reinterpret_cast<const sockaddr*>(&address), sizeof address);
    if (sent >= 0 && static_cast<size_t>(sent) == size) return true;
    return KOVA_FAIL(TransferError(sent), "icmp send fd=%d to=%x", m_Socket.load(), ntohl(to));
}

bool KovaIcmpSocket::SendPingPacket(in_addr_t to, unsigned short sequence) {
    if (!OpenOnDemand()) return false;
    const ping::Request request = ping::MakeRequest(to, sequence, ping::SenderOn(m_Socket));
    return SendTo(request.data(), request.size(), to);
}

bool KovaIcmpSocket::SendPingPacketAtIf(in_addr_t to, int ifindex, unsigned short sequence) {
    if (!OpenOnDemand()) return false;
    const ping::Request request = ping::MakeRequest(to, sequence, ping::SenderOn(m_Socket));
    ClearError();
    m_LastPeer = KovaInetAddr(to, 0);
    const ssize_t sent = SendAtInterface(m_Socket, request, to, ifindex);
    if (sent < 0)
        return KOVA_FAIL(errno, "icmp send fd=%d to=%x interface=%d", m_Socket.load(), ntohl(to), ifindex);
    return static_cast<size_t>(sent) == request.size();
}

bool KovaIcmpSocket::RecvPingPacket(in_addr_t to, unsigned short& sequence) {
    if (OpenOnDemand() && FindReply(to, sequence, __PRETTY_FUNCTION__)) return true;
    m_RoundTrip = {};
    return false;
}

/// Reads datagrams until one is the wanted reply; the time-out is that of `function`.
bool KovaIcmpSocket::FindReply(in_addr_t to, unsigned short& sequence, const char* function) {
    const ping::Deadline deadline(m_Timeout);
    const ping::Sender sender = ping::SenderOn(m_Socket);
    for (;;) {
        if (deadline.HasPassed()) {
            return KOVA_FAIL_IN(function, ETIMEDOUT, "no ping reply fd=%d from=%x", m_Socket.load(),
                                ntohl(to));
        }
        Reply reply;
        if (!RecvFrom(reply.data(), reply.size())) return false;
        const unsigned char* const icmp = &reply[IcmpOffset(reply)];
        if (icmp[0] == ping::kUnreachable) {
            KOVA_TRACE("ping destination unreachable fd=%d code=%u", m_Socket.load(), icmp[1]);
            return false;
        }
        if (icmp[0] != ping::kEchoReply || !HoldsEcho(reply)) continue;
        const ping::Echo echo = ping::ReadEcho(icmp + ping::kHeaderSize);
        if (!ping::Matches(echo, to, sender)) continue;

        m_LastPeer = KovaInetAddr(AddressAt(reply, kIpSourceAt), 0);
        m_LastLocal = KovaInetAddr(AddressAt(reply, kIpDestinationAt), 0);
        sequence = ping::ReadSequence(icmp);
        m_RoundTrip = ping::RoundTrip(echo);
        return true;
    }
}

/// Whether there is a descriptor, made if need be. It may lack options that were refused.
bool KovaIcmpSocket::OpenOnDemand() {
    if (!IsOpen()) Open();
    return IsOpen();
}

/// Whether the socket is one that pings, opened if need be; failures are those of `function`.
bool KovaIcmpSocket::IsReady(const char* function) {
    ClearError();
    if (!OpenOnDemand()) return false;
    // Deliberate: a descriptor that was taken over does not ping.
    if (m_Mode != KOVA_SOCKET_ICMP)
        return KOVA_FAIL_IN(function, ENOTSOCK, "no icmp socket fd=%d mode=%u", m_Socket.load(),
                            m_Mode.load());
    return true;
}

int32_t KovaIcmpSocket::Ping(in_addr_t to, int32_t tries) {
    if (!IsReady(__PRETTY_FUNCTION__)) return -1;
    const auto send = [&](uint16_t sequence) { return SendPingPacket(to, sequence); };
    const auto receive = [&](uint16_t sequence) { return RecvPingPacket(to, sequence); };
    int32_t result = 0;
    if (ping::AwaitReply(tries, send, receive)) {
        result = IsVOXAAddr(m_LastLocal.GetIp()) ? 1 : 0;
        // Deliberate: a reply that arrived outside the control network counts as none.
        if (result == 0) KOVA_RECORD(ETIMEDOUT);
    }
    KOVA_TRACE("ping fd=%d to=%x result=%d", m_Socket.load(), ntohl(to), result);
    return result;
}

int32_t KovaIcmpSocket::Ping(char* text, int tries) {
    ClearError();
    const auto to = ping::ParseAddress(text);
    if (to) return Ping(*to, tries);
    KOVA_FAIL(EINVAL, "ping of no address");
    return -1;
}

int32_t KovaIcmpSocket::MultiPing(unsigned int* addresses, unsigned int count, int rounds) {
    if (!IsReady(__PRETTY_FUNCTION__)) return -1;
    const auto send = [&](in_addr_t to, uint16_t sequence) { return SendPingPacket(to, sequence); };
    const auto receive = [&](uint16_t sequence) { return RecvPingPacket(0, sequence); };
    const ping::Addresses list = ping::ListOf(addresses, count);
    const int32_t best = ping::CountReplies(list, rounds, send, receive);
    KOVA_TRACE("multi ping fd=%d to=%x %x %x %x", m_Socket.load(), ping::HostAddress(list, 0),
               ping::HostAddress(list, 1), ping::HostAddress(list, 2), ping::HostAddress(list, 3));
    return best;
}

bool KovaIcmpSocket::IsVOXAAddr(unsigned int address) { return ping::IsVoxaAddress(address); }

unsigned short KovaIcmpSocket::CalculateChecksum(unsigned short* data, int length) {
    return ping::Checksum(data, length < 0 ? 0 : static_cast<size_t>(length));
}
