// Frames of all kinds against a second decoder, which the tests bring along.

#include "socket/frames/frames.h"
#include "support/leak_check.h"

#include <kova/raw_socket.h>

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <ostream>
#include <random>
#include <string>

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
#define COUNTS_ALLOCATIONS

extern "C" void* __libc_malloc(size_t size);
extern "C" void* __libc_calloc(size_t count, size_t size);
extern "C" void* __libc_realloc(void* block, size_t size);

namespace {
thread_local unsigned allocations;
}

// In place of libc's, for everybody; `new` calls the first.
extern "C" void* malloc(size_t size) {
    ++allocations;
    return __libc_malloc(size);
}
extern "C" void* calloc(size_t count, size_t size) {
    ++allocations;
    return __libc_calloc(count, size);
}
extern "C" void* realloc(void* block, size_t size) {
    ++allocations;
    return __libc_realloc(block, size);
}
#endif

namespace {

using frames::Frame;

/// What a frame leaves in a raw socket. Addresses as bytes, ports as stored.
struct View {
    bool taken = false;
    int error = 0;
    std::string peer = std::string(4, '\0');
    std::string local = std::string(4, '\0');
    uint16_t peer_port = 0;
    uint16_t local_port = 0;
    std::string peer_mac = "none";
    std::string local_mac = "none";
    int vlan = -1;
    int priority = -1;
    bool tagged = false;
    unsigned protocol = 0;
    unsigned frame_offset = 0;
    unsigned ethernet_offset = 0;
    unsigned ip_offset = 0;
    unsigned protocol_offset = 0;
    unsigned data_offset = 0;
    unsigned data_size = 0;

    bool operator==(const View&) const = default;
};

std::string Hex(const std::string& bytes) {
    std::string text;
    for (const char byte : bytes) {
        char digits[3];
        std::snprintf(digits, sizeof digits, "%02x", static_cast<unsigned char>(byte));
        text += digits;
    }
    return text;
}

void PrintTo(const View& v, std::ostream* stream) {
    *stream << (v.taken ? "taken" : "refused") << " error " << v.error << ", from " << Hex(v.peer) << ':'
            << v.peer_port << ' ' << Hex(v.peer_mac) << ", to " << Hex(v.local) << ':' << v.local_port << ' '
            << Hex(v.local_mac) << ", vlan " << v.vlan << '/' << v.priority << (v.tagged ? " tagged" : "")
            << ", protocol " << v.protocol << ", offsets " << v.frame_offset << ' ' << v.ethernet_offset
            << ' ' << v.ip_offset << ' ' << v.protocol_offset << ' ' << v.data_offset << '+' << v.data_size;
}

template <typename Value>
std::string Bytes(const Value& value) {
    return {reinterpret_cast<const char*>(&value), sizeof value};
}

std::string MacOf(KovaMacAddr& address) {
    unsigned char bytes[6];
    return address.Get(bytes) ? Bytes(bytes) : "none";
}

View ViewOf(KovaRawSocket& socket, bool taken) {
    View view;
    view.taken = taken;
    view.error = socket.GetError();
    view.peer = Bytes(socket.GetLastPeer()->GetIp());
    view.local = Bytes(socket.GetLastLocal()->GetIp());
    view.peer_port = socket.GetLastPeer()->GetPort();
    view.local_port = socket.GetLastLocal()->GetPort();
    view.peer_mac = MacOf(*socket.GetLastPeerMAC());
    view.local_mac = MacOf(*socket.GetLastLocalMAC());
    view.vlan = socket.GetLastVLANId();
    view.priority = socket.GetLastVLANPrio();
    view.tagged = socket.GetLastWasVLAN();
    view.protocol = socket.GetLastProtocol();
    view.frame_offset = socket.GetFrameOffset();
    view.ethernet_offset = socket.GetEthernetOffset();
    view.ip_offset = socket.GetIPOffset();
    view.protocol_offset = socket.GetProtocolOffset();
    view.data_offset = socket.GetDataOffset();
    view.data_size = socket.GetDataLen();
    return view;
}

/// The second decoder. Like a socket it keeps what a frame does not tell.
class Reference {
  public:
    const View& Take(const std::string& frame) {
        m_Frame = frame;
        m_View.tagged = false;
        m_View.ip_offset = m_View.protocol_offset = m_View.data_offset = m_View.data_size = 0;
        m_View.taken = Decode();
        return m_View;
    }

  private:
    unsigned At(size_t place) const { return static_cast<unsigned char>(m_Frame.at(place)); }
    unsigned Pair(size_t place) const { return At(place) * 256 + At(place + 1); }
    size_t Size() const { return m_Frame.size(); }

    uint16_t PortAt(size_t place) const {
        uint16_t port;
        std::memcpy(&port, m_Frame.substr(place, 2).data(), sizeof port);
        return port;
    }

    bool Refuse(int error) {
        m_View.error = error;
        m_View.peer = m_View.local = std::string(4, '\0');
        m_View.peer_port = m_View.local_port = 0;
        m_View.peer_mac = m_View.local_mac = "none";
        return false;
    }

    bool Decode() {
        if (Size() >= 18 && Pair(12) == 0x8100) {
            m_View.vlan = static_cast<int>(Pair(14) % 16);
            m_View.priority = static_cast<int>(Pair(14) / 8192);
            m_View.tagged = true;
            m_View.ip_offset = 18;
        } else if (Size() >= 14 && Pair(12) == 0x0800) {
            m_View.vlan = m_View.priority = -1;
            m_View.ip_offset = 14;
        } else {
            return Refuse(30008);
        }
        const size_t ip = m_View.ip_offset;
        if (Size() < ip + 1) return Refuse(30008);
        const size_t header = At(ip) % 16 * 4;
        if (Size() < ip + header || Size() < ip + 20) return Refuse(30007);

        m_View.peer = m_Frame.substr(ip + 12, 4);
        m_View.local = m_Frame.substr(ip + 16, 4);
        m_View.peer_mac = m_Frame.substr(6, 6);
        m_View.local_mac = m_Frame.substr(0, 6);
        m_View.protocol = At(ip + 9);
        unsigned sum = 0;
        for (size_t i = 0; i < 20; i += 2) sum += Pair(ip + i);
        if (sum == 0 || sum % 0xFFFF != 0) m_View.error = EIO;
        m_View.protocol_offset = static_cast<unsigned>(ip + header);
        DecodeTransport(ip + header);
        return true;
    }

    void DecodeTransport(size_t at) {
        const size_t rest = Size() - at;
        const bool is_udp = m_View.protocol == 17, is_tcp = m_View.protocol == 6;
        if (is_udp || is_tcp) {
            if (rest < (is_udp ? 8 : 20)) return;
            m_View.peer_port = PortAt(at);
            m_View.local_port = PortAt(at + 2);
            SetData(at + (is_udp ? 8 : 20));
        } else if (m_View.protocol == 1) {
            if (rest < 28) return;
            m_View.peer_port = m_View.local_port = static_cast<uint16_t>(At(at));
            SetData(at + 8);
        } else {
            m_View.peer_port = m_View.local_port = 0;
            m_View.data_size = static_cast<unsigned>(Size());
        }
    }

    void SetData(size_t at) {
        m_View.data_offset = static_cast<unsigned>(at);
        m_View.data_size = static_cast<unsigned>(Size() - at);
    }

    std::string m_Frame;
    View m_View;
};

/// Memory that ends where a page begins that nobody may touch.
class Edge {
  public:
    Edge() : m_Page(static_cast<size_t>(::sysconf(_SC_PAGESIZE))) {
        void* const memory =
            ::mmap(nullptr, 2 * m_Page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        EXPECT_NE(MAP_FAILED, memory);
        m_Memory = static_cast<char*>(memory);
        EXPECT_EQ(0, ::mprotect(m_Memory + m_Page, m_Page, PROT_NONE));
    }
    Edge(const Edge&) = delete;
    Edge& operator=(const Edge&) = delete;
    ~Edge() { ::munmap(m_Memory, 2 * m_Page); }

    /// A copy whose last byte is the last before the edge.
    char* Put(const std::string& bytes) const {
        char* const to = m_Memory + m_Page - bytes.size();
        bytes.copy(to, bytes.size());
        return to;
    }

  private:
    const size_t m_Page;
    char* m_Memory = nullptr;
};

/// No offset, and no end of data, lies outside.
testing::AssertionResult LiesInside(const View& view, size_t size) {
    const bool inside = view.ip_offset <= size && view.protocol_offset <= size && view.data_offset <= size &&
                        view.data_size <= size - view.data_offset && view.frame_offset == 0 &&
                        view.ethernet_offset == 0;
    if (inside) return testing::AssertionSuccess();
    return testing::AssertionFailure() << "in " << size << " bytes: " << testing::PrintToString(view);
}

/// A socket and the second decoder, which are shown the same frames.
class RawFrames : public KovaTest {
  protected:
    /// Whether both say the same.
    testing::AssertionResult Agree(const std::string& frame) {
        char* const buffer = edge.Put(frame);
        const bool taken = socket.CheckPacket(buffer, frame.size());
        const View seen = ViewOf(socket, taken);
        const View& wanted = reference.Take(frame);
        if (frame.compare(0, frame.size(), buffer, frame.size()) != 0)
            return testing::AssertionFailure() << "the frame was changed";
        if (const auto inside = LiesInside(seen, frame.size()); !inside) return inside;
        if (seen == wanted) return testing::AssertionSuccess();
        return testing::AssertionFailure() << Hex(frame) << "\nseen   " << testing::PrintToString(seen)
                                           << "\nwanted " << testing::PrintToString(wanted);
    }

    KovaRawSocket socket;
    Reference reference;
    const Edge edge;
    std::mt19937 random{20001};
};

TEST_F(RawFrames, DecodesTheCorpus) {
    for (const Frame& frame : frames::All()) EXPECT_TRUE(Agree(frame.bytes)) << frame.name;
}

TEST_F(RawFrames, NamesAreUsedOnce) {
    for (const Frame& frame : frames::All()) EXPECT_EQ(&frame.bytes, &frames::Named(frame.name));
}

TEST_F(RawFrames, DecodesEveryPrefix) {
    for (const Frame& frame : frames::All())
        for (size_t size = 0; size <= frame.bytes.size(); ++size)
            ASSERT_TRUE(Agree(frame.bytes.substr(0, size))) << frame.name << " of " << size << " bytes";
}

TEST_F(RawFrames, ReadsNothingBehindAPrefixOnTheHeap) {
    for (const Frame& frame : frames::All()) {
        for (size_t size = 0; size <= frame.bytes.size(); ++size) {
            const std::unique_ptr<char[]> exact(new char[size]);
            frame.bytes.copy(exact.get(), size);
            KovaRawSocket other;
            const bool taken = other.CheckPacket(exact.get(), size);
            ASSERT_EQ(Reference().Take(frame.bytes.substr(0, size)), ViewOf(other, taken)) << frame.name;
        }
    }
}

TEST_F(RawFrames, DecodesFramesWithAnyByteChanged) {
    for (const Frame& frame : frames::All()) {
        for (size_t place = 0; place < frame.bytes.size(); ++place) {
            const char was = frame.bytes[place];
            for (const int change : {0x01, 0x80, 0xFF, static_cast<int>(random() % 256)}) {
                const std::string byte(1, static_cast<char>(was ^ change));
                ASSERT_TRUE(Agree(frames::Changed(frame.bytes, place, byte)))
                    << frame.name << " at " << place;
            }
        }
    }
}

TEST_F(RawFrames, DecodesEveryHeaderLengthInEveryFrameLength) {
    constexpr size_t kLongest = frames::kEthernet + frames::kTag + 60 + 30;
    for (unsigned words = 0; words < 16; ++words) {
        for (const unsigned protocol : {1, 6, 17, 0, 132}) {
            std::string frame(kLongest, '\0');
            for (char& byte : frame) byte = static_cast<char>(random());
            frame.replace(frames::kTypeAt, 2, "\x08\0", 2);
            frame[frames::kEthernet] = static_cast<char>(random() % 16 * 16 + words);
            frame[frames::kEthernet + 9] = static_cast<char>(protocol);
            if (words == 5 && protocol != 6) frame = frames::WithChecksum(frame);
            const std::string tagged = frames::Tagged(frame, static_cast<uint16_t>(random()));
            for (size_t size = 0; size <= kLongest; ++size) {
                ASSERT_TRUE(Agree(frame.substr(0, size))) << words << " words, " << size << " bytes";
                ASSERT_TRUE(Agree(tagged.substr(0, size))) << words << " words, tagged, " << size << " bytes";
            }
        }
    }
}

TEST_F(RawFrames, DecodesRandomBytes) {
    for (int i = 0; i < 20000; ++i) {
        std::string frame(random() % 120, '\0');
        for (char& byte : frame) byte = static_cast<char>(random());
        if (frame.size() >= frames::kEthernet && i % 8 != 0)
            frame.replace(frames::kTypeAt, 2,
                          i % 2 == 0 ? std::string("\x08\0", 2) : std::string("\x81\0", 2));
        ASSERT_TRUE(Agree(frame)) << "number " << i;
    }
}

TEST_F(RawFrames, DecodesFromOddAddresses) {
    alignas(8) char buffer[2048];
    for (const Frame& frame : frames::All()) {
        for (size_t shift = 0; shift < 4; ++shift) {
            frame.bytes.copy(buffer + shift, frame.bytes.size());
            KovaRawSocket other;
            const bool taken = other.CheckPacket(buffer + shift, frame.bytes.size());
            ASSERT_EQ(Reference().Take(frame.bytes), ViewOf(other, taken)) << frame.name;
        }
    }
}

TEST_F(RawFrames, DecodingAllocatesNothing) {
#ifdef COUNTS_ALLOCATIONS
    const unsigned at_start = allocations;
    void* volatile block = ::operator new(1);
    ::operator delete(block);
    ASSERT_LT(at_start, allocations) << "nothing is counted";
    for (const Frame& frame : frames::All()) {
        char* const buffer = edge.Put(frame.bytes);
        const unsigned before = allocations;
        socket.CheckPacket(buffer, frame.bytes.size());
        EXPECT_EQ(before, allocations) << frame.name;
    }
#else
    GTEST_SKIP() << "the sanitizer allocates instead of libc";
#endif
}

}  // namespace
