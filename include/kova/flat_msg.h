/// Flat message: a 24-byte header and an opaque body in one buffer, sent and received whole.
///
/// Wire format, all fields 32 bits in network byte order:
///
/// | offset | field    | meaning                                                                    |
/// |--------|----------|----------------------------------------------------------------------------|
/// | 0      | size     | bytes of body that follow the header                                       |
/// | 4      | magic    | the bytes "KOVA"                                                           |
/// | 8      | version  | 0x00020000; a receiver looks at the upper 16 bits only                     |
/// | 12     | type     | chosen by the application, signed; 0 marks an invalid or rejected message  |
/// | 16     | sendTid  | thread id of the sender                                                    |
/// | 20     | sendTime | wall-clock seconds of the sender                                           |
/// | 24     |          | body                                                                       |
///
/// `msg >> socket` sends, `msg << socket` receives; afterwards the caller tests the message alone, since a
/// socket's failure is copied into the message's error record. A message that was not received well has type
/// 0. Over UDP header and body are at most 8192 bytes, over TCP memory is the limit.
///
/// Small bodies live inside the object, larger ones in a buffer that the object owns. Whatever a peer or a
/// caller writes into the header, nothing beyond the buffer is ever read or sent: a message whose header
/// announces more than its buffer holds is not sent (KOVA_ERR_OVERRUN). After a body could not be allocated
/// (KOVA_ERR_NO_BUFFER) the message has no buffer, its accessors return 0 or null, and the next receive or
/// `SetMessage` starts afresh.
///
/// Threads: an object belongs to one thread.
#ifndef KOVA_FLAT_MSG_H
#define KOVA_FLAT_MSG_H

#include <kova/base_object.h>
#include <kova/export.h>
#include <kova/inet_addr.h>

#include <cstddef>
#include <cstdint>

class KovaTCPSocket;
class KovaUDPSocket;
class KovaUDPMultiSocket;      ///< not defined here; must derive from KovaUDPSocket as its primary base
class KovaUDPMulticastSocket;  ///< likewise

struct sKovaMsgHeader {
    uint32_t size;
    char magic[4];
    uint32_t version;
    int32_t type;
    int32_t sendTid;
    int32_t sendTime;
};
typedef sKovaMsgHeader sKovaMsgHeaderT;

class KOVA_API KovaFlatMsg : public KovaBaseObject {
  public:
    /// An empty message of type 0, or of `type`.
    KovaFlatMsg();
    KovaFlatMsg(unsigned int type);
    KovaFlatMsg(int type) : KovaFlatMsg(static_cast<unsigned int>(type)) {}
    /// A message with a copy of `len` bytes of `data`.
    KovaFlatMsg(unsigned int type, void* data, int len);
    /// From `len` bytes as received: KOVA_ERR_INVALID_PARAMETER when shorter than a header,
    /// KOVA_ERR_BAD_HEADER or KOVA_ERR_BAD_VERSION for a foreign one, KOVA_ERR_OVERRUN when the announced
    /// body is not all there.
    KovaFlatMsg(const void* raw, int32_t len);
    /// Copies header, body, complete flag and error code; not the address.
    KovaFlatMsg(const KovaFlatMsg& other);
    KovaFlatMsg(const KovaFlatMsg* other);
    virtual ~KovaFlatMsg();

    KovaFlatMsg& operator=(KovaFlatMsg& other);
    KovaFlatMsg& operator=(KovaFlatMsg* other);

    /// The header in the buffer, in network byte order; null without a buffer.
    sKovaMsgHeader* GetHeader() const { return m_Header; }
    /// Peer of the last send or receive; destination of a send over UDP.
    KovaInetAddr& GetAddr() { return m_Addr; }
    /// Header fields in host order.
    unsigned GetSize() const;
    int GetType() const;
    int GetSendTid() const;
    int GetSendTime() const;
    /// Whether the last TCP receive brought a whole message.
    bool IsComplete() const { return m_Complete != 0; }
    /// The body, null when its size is 0. Valid until the buffer is changed.
    void* GetBuffer();
    void* GetMessage();

    /// Copies a header as it is, in network byte order.
    void SetHeader(const sKovaMsgHeader& header);
    void SetType(int type);
    /// Sets the size of the body to at most what the buffer holds; false otherwise.
    bool SetSize(unsigned int size);
    /// Makes room for a body of `size` bytes and sets the size; its bytes are not initialised. Returns the
    /// body, or null with KOVA_ERR_NO_BUFFER. A buffer that is replaced loses its body and keeps its header.
    void* CreateBuffer(size_t size);
    /// Frees a body kept outside the object; the header stays, with size 0.
    void DeleteBuffer();
    /// Makes this a message of `type` with a copy of `len` bytes of `data`.
    bool SetMessage(unsigned int type, void* data, int len);

    /// Sends with a single write; nothing is sent on a socket that has an error recorded.
    KovaTCPSocket& Send(KovaTCPSocket& socket);
    /// Receives one message, blocking as the socket's `Recv` does. A foreign header is answered with a header
    /// of type 0, and the message gets KOVA_ERR_BAD_HEADER or KOVA_ERR_BAD_VERSION.
    KovaTCPSocket& Recv(KovaTCPSocket& socket);
    /// Sends one datagram to the message's address; address 0 and port 0 mean the socket's last peer.
    KovaUDPSocket& Send(KovaUDPSocket& socket);
    /// Receives one datagram as a message; a bad one is removed from the socket.
    KovaUDPSocket& Recv(KovaUDPSocket& socket);

    KovaTCPSocket& operator>>(KovaTCPSocket& socket);
    KovaTCPSocket& operator<<(KovaTCPSocket& socket);
    KovaUDPSocket& operator>>(KovaUDPSocket& socket);
    KovaUDPSocket& operator<<(KovaUDPSocket& socket);
    KovaUDPMultiSocket& operator>>(KovaUDPMultiSocket& socket);
    KovaUDPMultiSocket& operator<<(KovaUDPMultiSocket& socket);
    KovaUDPMulticastSocket& operator>>(KovaUDPMulticastSocket& socket);
    KovaUDPMulticastSocket& operator<<(KovaUDPMulticastSocket& socket);

  private:
    enum { kHeaderSize = sizeof(sKovaMsgHeader), kInlineSize = 536, kInitialCapacity = 512 };

    bool CheckHeader(sKovaMsgHeaderT* header);
    bool IsInline() const;
    size_t BodySpace() const;
    size_t SendableSize() const;
    void UseBuffer(char* buffer, size_t capacity);
    void CopyFrom(const KovaFlatMsg& other);
    void StampHeader();
    int PrepareToSend();

    int32_t m_Complete;
    KovaInetAddr m_Addr;
    char* m_Buffer;
    sKovaMsgHeader* m_Header;
    char* m_Body;
    alignas(uint32_t) char m_Inline[kInlineSize];
    uint32_t m_Capacity;
};

#endif
