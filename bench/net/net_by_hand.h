/// What the network classes are held against: the same system calls by hand, without error record and trace.
#ifndef KOVA_BENCH_NET_BY_HAND_H
#define KOVA_BENCH_NET_BY_HAND_H

#include <fcntl.h>
#include <net/if.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstring>

namespace kova_bench {

/// An echo request and its reply over a raw socket, with the library's system calls and the library's layout:
/// a select before each receive, 52 bytes there, 72 back; the own request, which loopback delivers, too, is
/// skipped.
class HandPing {
  public:
    HandPing() : m_Fd(::socket(AF_INET, SOCK_RAW, IPPROTO_ICMP)) {
        const int on = 1;
        ::ioctl(m_Fd, FIONBIO, &on);
    }
    HandPing(const HandPing&) = delete;
    HandPing& operator=(const HandPing&) = delete;
    ~HandPing() { ::close(m_Fd); }

    bool Ping(in_addr_t to) {
        const timespec sent = Now();
        const std::array<uint32_t, 13> request = Request(to, sent);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = to;
        if (::sendto(m_Fd, &request, sizeof request, 0, reinterpret_cast<sockaddr*>(&address),
                     sizeof address) != sizeof request)
            return false;
        while (Wait()) {
            std::array<unsigned char, 72> reply;
            socklen_t length = sizeof address;
            if (::recvfrom(m_Fd, &reply, sizeof reply, 0, reinterpret_cast<sockaddr*>(&address), &length) !=
                sizeof reply)
                return false;
            if (reply[20] != 0 || std::memcmp(&reply[28], &request[2], 24) != 0) continue;
            const timespec now = Now();
            m_RoundTripMs = (now.tv_sec - sent.tv_sec) * 1000 + (now.tv_nsec - sent.tv_nsec) / 1000000;
            return true;
        }
        return false;
    }

    int64_t RoundTripMs() const { return m_RoundTripMs; }

  private:
    static timespec Now() {
        timespec now;
        ::clock_gettime(CLOCK_MONOTONIC, &now);
        return now;
    }

    bool Wait() const {
        fd_set read, write, except;
        FD_ZERO(&read);
        FD_ZERO(&write);
        FD_ZERO(&except);
        FD_SET(m_Fd, &read);
        FD_SET(m_Fd, &except);
        timeval limit{1, 0};
        return ::select(m_Fd + 1, &read, &write, &except, &limit) > 0;
    }

    std::array<uint32_t, 13> Request(in_addr_t to, const timespec& sent) const {
        std::array<uint32_t, 13> words{};
        words[0] = htonl(0x08000000);
        words[1] = htonl(0x00010001);
        words[2] = to;
        words[3] = htonl(static_cast<uint32_t>(m_Fd));
        words[4] = htonl(m_Pid);
        words[5] = htonl(m_Tid);
        words[6] = htonl(static_cast<uint32_t>(sent.tv_sec));
        words[7] = htonl(static_cast<uint32_t>(sent.tv_nsec / 1000000));
        uint32_t sum = 0;
        for (const uint32_t word : words) sum += (word & 0xFFFF) + (word >> 16);
        sum = (sum & 0xFFFF) + (sum >> 16);
        sum += sum >> 16;
        const uint16_t checksum = static_cast<uint16_t>(~sum);
        std::memcpy(reinterpret_cast<char*>(words.data()) + 2, &checksum, sizeof checksum);
        return words;
    }

    const int m_Fd;
    const uint32_t m_Pid = static_cast<uint32_t>(::getpid());
    const uint32_t m_Tid = static_cast<uint32_t>(::gettid());
    int64_t m_RoundTripMs = 0;
};

/// What a decoder keeps of a frame.
struct HandFrame {
    in6_addr peer_ip, local_ip;
    in_port_t peer_port, local_port;
    unsigned char peer_mac[6], local_mac[6];
    int16_t vlan, priority;
    uint8_t tagged, protocol;
    uint32_t ip_at, protocol_at, data_at, data_length;

    /// Keeps the address with its mapping, as the library's addresses do.
    static void Store(in6_addr& to, const unsigned char* ip) {
        to = {};
        to.s6_addr[10] = to.s6_addr[11] = 0xFF;
        std::memcpy(to.s6_addr + 12, ip, 4);
    }

    static uint16_t Word(const unsigned char* at) {
        uint16_t word;
        std::memcpy(&word, at, sizeof word);
        return word;
    }

    [[gnu::noinline]] bool Decode(const unsigned char* frame, size_t size) {
        tagged = 0;
        ip_at = protocol_at = data_at = data_length = 0;
        if (size < 14) return false;
        const uint16_t type = ntohs(Word(frame + 12));
        if (type == 0x8100 && size >= 18) {
            const uint16_t tag = ntohs(Word(frame + 14));
            vlan = static_cast<int16_t>(tag & 0xF);
            priority = static_cast<int16_t>(tag >> 13);
            tagged = 1;
            ip_at = 18;
        } else if (type == 0x0800) {
            vlan = priority = -1;
            ip_at = 14;
        } else {
            return false;
        }
        if (size < ip_at + 20) return false;
        const unsigned char* const ip = frame + ip_at;
        const uint32_t header = 4U * (ip[0] & 0xF);
        if (size < ip_at + header) return false;
        Store(peer_ip, ip + 12);
        Store(local_ip, ip + 16);
        std::memcpy(peer_mac, frame + 6, 6);
        std::memcpy(local_mac, frame, 6);
        protocol = ip[9];
        uint32_t sum = 0;
        for (int i = 0; i < 20; i += 2) sum += Word(ip + i);
        sum = (sum & 0xFFFF) + (sum >> 16);
        if (static_cast<uint16_t>(sum + (sum >> 16)) != 0xFFFF) return false;
        protocol_at = ip_at + header;
        const uint32_t own = protocol == IPPROTO_UDP ? 8 : protocol == IPPROTO_TCP ? 20 : 0;
        if (own == 0 || size < protocol_at + own) return false;
        peer_port = Word(frame + protocol_at);
        local_port = Word(frame + protocol_at + 2);
        data_at = protocol_at + own;
        data_length = static_cast<uint32_t>(size) - data_at;
        return true;
    }
};

/// A socket for one question, made and closed as the library's sockets are.
class HandSocket {
  public:
    HandSocket(int family, int type) : m_Fd(::socket(family, type, 0)) { ::fcntl(m_Fd, F_SETFD, FD_CLOEXEC); }
    HandSocket(const HandSocket&) = delete;
    HandSocket& operator=(const HandSocket&) = delete;
    ~HandSocket() {
        const linger wanted{1, 1};
        ::setsockopt(m_Fd, SOL_SOCKET, SO_LINGER, &wanted, sizeof wanted);
        ::shutdown(m_Fd, SHUT_RDWR);
        ::close(m_Fd);
    }

    bool Ask(unsigned long request, void* argument) const { return ::ioctl(m_Fd, request, argument) == 0; }
    void Set(int level, int option, int value) const {
        ::setsockopt(m_Fd, level, option, &value, sizeof value);
    }
    void SetTimeouts(int seconds) const {
        const timeval limit{seconds, 0};
        ::setsockopt(m_Fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
        ::setsockopt(m_Fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    }

  private:
    const int m_Fd;
};

/// Asks for list, flags and netmasks; for the MAC addresses, too, each through a socket of its own, unless
/// they are known.
class HandTable {
  public:
    int Gather(bool macs_known) {
        const HandSocket socket(AF_INET, SOCK_DGRAM);
        alignas(ifreq) char entries[512] = {};
        ifconf list{};
        list.ifc_len = sizeof entries;
        list.ifc_buf = entries;
        if (!socket.Ask(SIOCGIFCONF, &list)) return 0;
        const int listed = list.ifc_len / static_cast<int>(sizeof(ifreq));
        int count = 0;
        for (int i = 0; i < listed && i < 7; ++i) {
            ifreq& entry = m_Entries[count++];
            std::memcpy(&entry, entries + static_cast<size_t>(i) * sizeof entry, sizeof entry);
            ifreq request = entry;
            if (!socket.Ask(SIOCGIFFLAGS, &request) || !socket.Ask(SIOCGIFNETMASK, &request)) return 0;
            if (!macs_known && !FetchMac(entry)) return 0;
        }
        return count;
    }

  private:
    bool FetchMac(const ifreq& entry) const {
        ifreq request = entry;
        const HandSocket socket(AF_INET6, SOCK_STREAM);
        socket.Set(IPPROTO_TCP, TCP_NODELAY, 1);
        socket.Set(SOL_SOCKET, SO_DONTROUTE, 0);
        const int on = 1;
        socket.Ask(FIONBIO, const_cast<int*>(&on));
        socket.SetTimeouts(3);
        const bool known = socket.Ask(SIOCGIFHWADDR, &request);
        socket.Ask(FIONBIO, const_cast<int*>(&on));
        return known;
    }

    ifreq m_Entries[7];
};

}  // namespace kova_bench

#endif
