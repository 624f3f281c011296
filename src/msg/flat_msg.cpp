#include "frame/errno_guard.h"
#include "frame/fail.h"

#include <kova/clock.h>
#include <kova/flat_msg.h>
#include <kova/process.h>
#include <kova/tcp_socket.h>
#include <kova/udp_socket.h>

#include <arpa/inet.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>

namespace {

constexpr char kMagic[4] = {'K', 'O', 'V', 'A'};
constexpr uint32_t kVersion = 0x00020000;
constexpr uint32_t kMajorVersion = kVersion >> 16;
/// No allocation on the target gives more, so no host does.
constexpr size_t kMaxNeed = INT32_MAX;
constexpr uint32_t kMaxDatagram = KovaUDPSocket::kMaxDatagram;

uint32_t ToNet(uint32_t host) { return htonl(host); }
int32_t ToNet(int32_t host) { return static_cast<int32_t>(htonl(static_cast<uint32_t>(host))); }
int32_t ToHost(int32_t net) { return static_cast<int32_t>(ntohl(static_cast<uint32_t>(net))); }

/// The peer of a socket whose error record and errno are to survive the question.
template <typename Socket>
const KovaInetAddr& PeerOf(Socket& socket) {
    const kova::ErrnoGuard keep_errno;
    const kova::ErrorKeeper keep(socket);
    return socket.GetPeer();
}

static_assert(sizeof(sKovaMsgHeader) == 24);

}  // namespace

KovaFlatMsg::KovaFlatMsg()
    : m_Complete(0),
      m_Addr(in6addr_any, 0),
      m_Buffer(nullptr),
      m_Header(nullptr),
      m_Body(nullptr),
      m_Inline{},
      m_Capacity(0) {
    UseBuffer(m_Inline, kInitialCapacity);
}

KovaFlatMsg::KovaFlatMsg(unsigned int type) : KovaFlatMsg() { SetType(static_cast<int>(type)); }

KovaFlatMsg::KovaFlatMsg(unsigned int type, void* data, int len) : KovaFlatMsg() {
    SetMessage(type, data, len);
}

KovaFlatMsg::KovaFlatMsg(const void* raw, int32_t len) : KovaFlatMsg() {
    if (raw == nullptr || len < kHeaderSize) {
        KOVA_FAIL(KOVA_ERR_INVALID_PARAMETER, "raw message too short len=%d", len);
        return;
    }
    sKovaMsgHeader header;
    std::memcpy(&header, raw, kHeaderSize);
    if (!CheckHeader(&header)) return;
    const uint32_t size = ntohl(header.size);
    if (static_cast<uint32_t>(len - kHeaderSize) < size) {
        KOVA_FAIL(KOVA_ERR_OVERRUN, "raw message cut len=%d size=%u", len, size);
        return;
    }
    if (CreateBuffer(size) == nullptr) return;
    std::memcpy(m_Buffer, raw, kHeaderSize + size);
}

KovaFlatMsg::KovaFlatMsg(const KovaFlatMsg& other) : KovaFlatMsg() {
    CopyFrom(other);
    if (m_Header != nullptr) KOVA_RECORD(other.GetError());
}

KovaFlatMsg::KovaFlatMsg(const KovaFlatMsg* other) : KovaFlatMsg() {
    if (other == nullptr) return;
    CopyFrom(*other);
    if (m_Header != nullptr) KOVA_RECORD(other->GetError());
}

KovaFlatMsg::~KovaFlatMsg() { DeleteBuffer(); }

KovaFlatMsg& KovaFlatMsg::operator=(KovaFlatMsg& other) { return *this = &other; }

KovaFlatMsg& KovaFlatMsg::operator=(KovaFlatMsg* other) {
    if (other == nullptr || other == this) return *this;
    KOVA_RECORD(other->GetError());
    CopyFrom(*other);
    return *this;
}

/// Header, body and complete flag; on failure CreateBuffer's error is recorded and there is no buffer.
void KovaFlatMsg::CopyFrom(const KovaFlatMsg& other) {
    const size_t size = other.SendableSize();
    if (CreateBuffer(size) == nullptr) return;
    if (other.m_Header != nullptr) {
        std::memcpy(m_Buffer, other.m_Buffer, kHeaderSize + size);
    } else {
        std::memset(m_Buffer, 0, kHeaderSize);
    }
    m_Header->size = ToNet(static_cast<uint32_t>(size));
    m_Complete = other.m_Complete;
}

// Accessors

unsigned KovaFlatMsg::GetSize() const { return m_Header == nullptr ? 0 : ntohl(m_Header->size); }

int KovaFlatMsg::GetType() const { return m_Header == nullptr ? 0 : ToHost(m_Header->type); }

int KovaFlatMsg::GetSendTid() const { return m_Header == nullptr ? 0 : ToHost(m_Header->sendTid); }

int KovaFlatMsg::GetSendTime() const { return m_Header == nullptr ? 0 : ToHost(m_Header->sendTime); }

void* KovaFlatMsg::GetBuffer() { return GetSize() == 0 ? nullptr : m_Body; }

void* KovaFlatMsg::GetMessage() {
    KOVA_TRACE("message type=%d size=%u", GetType(), GetSize());
    return GetBuffer();
}

void KovaFlatMsg::SetHeader(const sKovaMsgHeader& header) {
    if (m_Header != nullptr) *m_Header = header;
}

void KovaFlatMsg::SetType(int type) {
    if (m_Header != nullptr) m_Header->type = ToNet(type);
}

bool KovaFlatMsg::SetSize(unsigned int size) {
    if (m_Header == nullptr || BodySpace() < size) return false;
    m_Header->size = ToNet(size);
    return true;
}

// Buffer

bool KovaFlatMsg::IsInline() const { return m_Buffer == m_Inline; }

/// Bytes of body that the buffer holds.
size_t KovaFlatMsg::BodySpace() const {
    if (m_Buffer == nullptr) return 0;
    return (IsInline() ? size_t{kInlineSize} : size_t{m_Capacity}) - kHeaderSize;
}

/// The announced size, or less when somebody wrote a size into the header that the buffer does not hold.
size_t KovaFlatMsg::SendableSize() const { return std::min<size_t>(GetSize(), BodySpace()); }

void KovaFlatMsg::UseBuffer(char* buffer, size_t capacity) {
    m_Buffer = buffer;
    m_Header = reinterpret_cast<sKovaMsgHeader*>(buffer);
    m_Body = buffer == nullptr ? nullptr : buffer + kHeaderSize;
    m_Capacity = static_cast<uint32_t>(capacity);
}

void* KovaFlatMsg::CreateBuffer(size_t size) {
    const bool possible = size <= kMaxNeed - kHeaderSize;
    const size_t need = possible ? size + kHeaderSize : kMaxNeed;
    // Deliberate: the capacity is 512 at first and 536 after DeleteBuffer, both held against the whole
    // message.
    if (!possible || m_Capacity < need) {
        DeleteBuffer();
        if (need > kInitialCapacity) {
            errno = ENOMEM;
            char* const heap = possible ? new (std::nothrow) char[need] : nullptr;
            if (heap == nullptr) {
                KOVA_FAIL(KOVA_ERR_NO_BUFFER, "no buffer need=%u errno=%d", static_cast<uint32_t>(need),
                          errno);
                UseBuffer(nullptr, 0);
                return nullptr;
            }
            std::memcpy(heap, m_Inline, kHeaderSize);
            UseBuffer(heap, need);
        }
    }
    m_Header->size = ToNet(static_cast<uint32_t>(size));
    return m_Body;
}

void KovaFlatMsg::DeleteBuffer() {
    m_Complete = 0;
    // Deliberate: the inline storage keeps its size.
    if (IsInline()) return;
    if (m_Buffer != nullptr) std::memcpy(m_Inline, m_Buffer, kHeaderSize);
    delete[] m_Buffer;
    UseBuffer(m_Inline, kInlineSize);
    m_Header->size = 0;
}

bool KovaFlatMsg::SetMessage(unsigned int type, void* data, int len) {
    m_Complete = 0;
    ClearError();
    if (len > 0 && data == nullptr) return KOVA_FAIL(KOVA_ERR_INVALID_PARAMETER, "no data for len=%d", len);
    // A negative length becomes a size that no buffer has.
    if (CreateBuffer(static_cast<size_t>(len)) == nullptr) return false;
    SetType(static_cast<int>(type));
    m_Header->sendTime = 0;
    // The data may lie in this message's own body.
    if (len > 0) std::memmove(m_Body, data, static_cast<size_t>(len));
    return true;
}

// Transfer

bool KovaFlatMsg::CheckHeader(sKovaMsgHeaderT* header) {
    if (std::memcmp(header->magic, kMagic, sizeof kMagic) != 0) {
        SetType(0);
        uint32_t magic;
        std::memcpy(&magic, header->magic, sizeof magic);
        return KOVA_FAIL(KOVA_ERR_BAD_HEADER, "bad magic=%x", ntohl(magic));
    }
    const uint32_t version = ntohl(header->version);
    if (version >> 16 != kMajorVersion) {
        SetType(0);
        return KOVA_FAIL(KOVA_ERR_BAD_VERSION, "bad version=%x", version);
    }
    return true;
}

/// What every header that leaves carries.
void KovaFlatMsg::StampHeader() {
    m_Header->version = ToNet(kVersion);
    m_Header->sendTid = ToNet(KovaGetTid());
    m_Header->sendTime = ToNet(KovaGetRealTime());
}

/// Completes the header of a message that is to be sent; returns the code of what forbids it.
int KovaFlatMsg::PrepareToSend() {
    if (m_Header == nullptr) return KOVA_ERR_NO_BUFFER;
    if (GetSize() > BodySpace()) return KOVA_ERR_OVERRUN;
    std::memcpy(m_Header->magic, kMagic, sizeof kMagic);
    StampHeader();
    return KOVA_ERR_NONE;
}

KovaTCPSocket& KovaFlatMsg::Send(KovaTCPSocket& socket) {
    m_Complete = 0;
    ClearError();
    if (socket.GetError() != KOVA_ERR_NONE) {
        KOVA_RECORD(socket.GetError());
    } else if (const int error = PrepareToSend(); error != KOVA_ERR_NONE) {
        KOVA_FAIL(error, "message not sendable size=%u code=%d", GetSize(), error);
    } else if (!socket.Send(m_Buffer, kHeaderSize + GetSize())) {
        KOVA_FAIL(socket.GetError(), "message not sent size=%u code=%d", GetSize(), socket.GetError());
    }
    m_Addr = PeerOf(socket);
    return socket;
}

KovaTCPSocket& KovaFlatMsg::Recv(KovaTCPSocket& socket) {
    m_Complete = 0;
    ClearError();
    if (m_Buffer == nullptr) DeleteBuffer();

    sKovaMsgHeader header;
    if (!socket.Recv(&header, kHeaderSize)) {
        DeleteBuffer();
        KOVA_FAIL(socket.GetError(), "no header code=%d", socket.GetError());
        SetType(0);
    } else if (!CheckHeader(&header)) {
        DeleteBuffer();
        // Deliberate: size and magic of the rejection are what this message held before.
        StampHeader();
        socket.Send(m_Buffer, kHeaderSize);
    } else {
        const uint32_t size = ntohl(header.size);
        KOVA_TRACE("message size=%u", size);
        if (CreateBuffer(size) != nullptr) {
            *m_Header = header;
            if (size == 0 || socket.Recv(m_Body, size)) {
                m_Complete = 1;
            } else {
                SetType(0);
                KOVA_FAIL(socket.GetError(), "no body size=%u code=%d", size, socket.GetError());
                DeleteBuffer();
            }
        }
    }
    m_Addr = PeerOf(socket);
    return socket;
}

KovaUDPSocket& KovaFlatMsg::Send(KovaUDPSocket& socket) {
    m_Complete = 0;
    ClearError();
    if (const int error = PrepareToSend(); error != KOVA_ERR_NONE) {
        KOVA_FAIL(error, "datagram not sendable size=%u code=%d", GetSize(), error);
    } else if (!socket.SendTo(m_Buffer, kHeaderSize + GetSize(), m_Addr)) {
        KOVA_FAIL(socket.GetError(), "datagram not sent code=%d to=%x port=%u", socket.GetError(),
                  m_Addr.GetIp(), ntohs(m_Addr.GetPort()));
    }
    return socket;
}

KovaUDPSocket& KovaFlatMsg::Recv(KovaUDPSocket& socket) {
    ClearError();
    if (m_Buffer == nullptr) DeleteBuffer();

    sKovaMsgHeader header;
    if (!socket.PeekFrom(&header, kHeaderSize)) {
        KOVA_FAIL(socket.GetError(), "no datagram code=%d", socket.GetError());
        SetType(0);
        DeleteBuffer();
        // An empty datagram brings no byte, but it is there all the same.
        const bool is_empty = GetError() == KOVA_ERR_SIZE_MISMATCH;
        if (is_empty || socket.Received() != 0) socket.RecvFrom(&header, kHeaderSize);
        return socket;
    }
    m_Addr = socket.GetPeer();
    const uint32_t size = ntohl(header.size);
    if (!CheckHeader(&header)) {
        // Removed below.
    } else if (size > kMaxDatagram - kHeaderSize) {
        KOVA_FAIL(KOVA_ERR_BAD_HEADER, "datagram announces size=%u limit=%u", size, kMaxDatagram);
        socket.RecvFrom(&header, kHeaderSize);
        SetType(0);
        socket.SendTo(m_Buffer, kHeaderSize, 0, 0);
        // Deliberate: below it is read a second time.
    } else if (CreateBuffer(size) != nullptr) {
        const bool is_received = socket.RecvFrom(m_Buffer, kHeaderSize + size);
        // Somebody else may have taken the datagram that was peeked; the size that was checked holds.
        m_Header->size = ToNet(size);
        if (!is_received) {
            KOVA_FAIL(socket.GetError(), "datagram not received size=%u code=%d", size, socket.GetError());
            SetType(0);
            DeleteBuffer();
        }
        return socket;
    }
    if (socket.Received() != 0) socket.RecvFrom(&header, kHeaderSize);
    return socket;
}

KovaTCPSocket& KovaFlatMsg::operator>>(KovaTCPSocket& socket) { return Send(socket); }

KovaTCPSocket& KovaFlatMsg::operator<<(KovaTCPSocket& socket) { return Recv(socket); }

KovaUDPSocket& KovaFlatMsg::operator>>(KovaUDPSocket& socket) { return Send(socket); }

KovaUDPSocket& KovaFlatMsg::operator<<(KovaUDPSocket& socket) { return Recv(socket); }

// The two types below have a KovaUDPSocket as primary base, that is at their beginning.

KovaUDPMultiSocket& KovaFlatMsg::operator>>(KovaUDPMultiSocket& socket) {
    Send(reinterpret_cast<KovaUDPSocket&>(socket));
    return socket;
}

KovaUDPMultiSocket& KovaFlatMsg::operator<<(KovaUDPMultiSocket& socket) {
    Recv(reinterpret_cast<KovaUDPSocket&>(socket));
    return socket;
}

KovaUDPMulticastSocket& KovaFlatMsg::operator>>(KovaUDPMulticastSocket& socket) {
    Send(reinterpret_cast<KovaUDPSocket&>(socket));
    return socket;
}

KovaUDPMulticastSocket& KovaFlatMsg::operator<<(KovaUDPMulticastSocket& socket) {
    Recv(reinterpret_cast<KovaUDPSocket&>(socket));
    return socket;
}
