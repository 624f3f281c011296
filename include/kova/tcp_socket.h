/// TCP socket: a stream client, and a server that hands out its connections one object at a time.
///
/// The socket is IPv6; IPv4 peers are reached through their mapped address. Between two ends of the handshake
/// kind (the default) the server greets a new connection with "Connect", or "Overrun" when its table is full,
/// and either end may send "alive" as filler, which the receiver drops. Send and Recv transfer the whole
/// buffer or fail.
///
/// | operation | closed (0)        | opened (1)    | connected (3)          | serving (4)              |
/// |-----------|-------------------|---------------|------------------------|--------------------------|
/// | Open      | opened            | true          | true                   | true                     |
/// | Connect   | connected         | EALREADY      | closes, connects again | EALREADY                 |
/// | Server    | serves            | serves        | ENOTSOCK               | ENOTSOCK                 |
/// | SetSocket | connected         | closes first  | closes first           | KOVA_ERR_ALREADY_OPEN    |
/// | Send/Recv | ENOTSOCK          | errno         | transfers              | errno                    |
/// | Close     | stop flag only    | closed        | closed                 | closed, loop ends        |
///
/// Errors: ENOTSOCK, ECONNRESET (peer closed), ETIMEDOUT, EALREADY, KOVA_ERR_ALREADY_OPEN,
/// KOVA_ERR_BAD_HANDSHAKE, KOVA_ERR_RECV_TIMEOUT, KOVA_ERR_OVERRUN, and errno of the failing call. Threads:
/// one thread uses an object; any other may call `Shutdown` to end the server loop. A server that was stopped
/// is not started again: nothing resets the stop flag.
#ifndef KOVA_TCP_SOCKET_H
#define KOVA_TCP_SOCKET_H

#include <kova/export.h>
#include <kova/inet_addr.h>
#include <kova/socket_wrapper.h>

enum KovaSocketTypeT : uint32_t {
    KOVA_SOCKET_PLAIN = 0,      ///< bytes as they are
    KOVA_SOCKET_HANDSHAKE = 1,  ///< greeting on accept, "alive" filler
};

class KOVA_API KovaTCPSocket : public KovaSocketWrapper {
  public:
    KovaTCPSocket();
    /// `address` serves as local and as peer address.
    KovaTCPSocket(const KovaInetAddr& address);
    /// Takes over a connected descriptor; the object closes it.
    KovaTCPSocket(int fd);
    /// Closes as `Close(false)` does, and the connections that wait in the server's table.
    ~KovaTCPSocket() override;

    /// Makes the descriptor and applies routing, blocking and both time-outs. True also when open already.
    bool Open() override;
    /// Abortive closing discards unsent data and resets the connection; otherwise up to one second is given
    /// to send them. Sets the stop flag in any case, and the wanted blocking flag of an open socket to false.
    /// An error recorded before survives. Waiting connections stay in the table.
    virtual void Close(bool abortive);
    /// Sends all `size` bytes; false without writing when EPIPE is recorded. A socket that is not blocking
    /// gives a peer that does not read about 150 ms, a blocking one four times the time-out.
    virtual bool Send(const void* buffer, size_t size);
    /// Receives exactly `size` bytes, each wait limited by the time-out. Filler is dropped where a chunk
    /// begins with it and more than 5 bytes were still wanted.
    virtual bool Recv(void* buffer, size_t size);
    /// The server loop and the connection set-up behind `Server` and `Connect`.
    virtual bool ServerIntern();
    virtual bool ConnectIntern();
    /// One step of the server: takes in a new connection, or returns, as a new object that the caller owns, a
    /// waiting one whose first data arrived; null otherwise. Blocks for at most the time-out.
    virtual KovaTCPSocket* Accept();
    /// Hooks of the server loop. `CallBack` receives ownership of the connection.
    virtual void CallBack(KovaTCPSocket* connection);
    virtual void InitComplete();
    virtual void DoIdle();

    /// Connects to the peer; ports in host order. Blocks for the time-out at most (handshake kind).
    bool Connect();
    bool Connect(const KovaInetAddr& peer);
    bool Connect(unsigned int ip, unsigned short port);
    bool Connect(const char* host, unsigned short port);

    /// Serves until `Shutdown` or `Close`; ports in host order, `ip` in network order. A port alone serves
    /// all addresses.
    bool Server();
    bool Server(const KovaInetAddr& local);
    bool Server(unsigned short port);
    bool Server(unsigned int ip, unsigned short port);
    /// Ends the server loop; may be called from any thread.
    void Shutdown();

    /// Takes over a connected descriptor.
    bool SetSocket(KovaSocketT fd);
    void SetType(KovaSocketTypeT type) { m_Type = type; }
    KovaSocketTypeT GetType() const { return m_Type; }
    /// How long one `Recv` may take as a whole while filler or parts arrive, in milliseconds (300000).
    void SetAliveTimeout(int ms) { m_AliveTimeout = ms; }

    /// Waits until the socket is ready as `mode` says, for `ms` milliseconds (0: the time-out); signals
    /// restart the wait, the tenth ends it. Urgent data is dropped.
    bool WaitForData(KovaWaitModeT mode, int32_t ms);
    /// Whether a byte waits. A blocking socket waits for it up to the time-out.
    bool HasRecvData();
    /// Sends filler, so that a peer in `Recv` knows that this end lives. Handshake kind only.
    bool KeepAlive();

    /// The addresses of the connection, asked of the kernel when not known yet. The reference is to the
    /// object's.
    KovaInetAddr& GetPeer();
    KovaInetAddr& GetLocal();

  private:
    enum { kTableSize = 20 };

    bool IsHandshake() const { return m_Type != KOVA_SOCKET_PLAIN; }
    int TryConnect();
    int AwaitGreeting();
    void TraceConnected();
    int ServerSelect();
    void EvictOldest();
    KovaTCPSocket* HandOut(int index);
    void RemoveEntry(int index);
    void CloseWaiting();
    void DrainUrgent();
    size_t DropFiller(char* bytes, size_t count) const;
    KovaInetAddr& Refresh(KovaInetAddr& end, const char* function);
    unsigned int PeerForTrace();

    KovaSocketTypeT m_Type;
    KovaInetAddr m_Local;
    KovaInetAddr m_Peer;
    KovaSocketT m_Table[kTableSize];
    int32_t m_TableCount;
    int32_t m_AliveTimeout;
};

#endif
