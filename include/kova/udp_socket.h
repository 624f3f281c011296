/// UDP socket: datagrams of expected sizes, and a server loop that calls a hook when one waits.
///
/// The socket is IPv6; IPv4 peers are reached through their mapped address. The peer address is sticky: it is
/// the source of the last datagram received or peeked, and where sends go that name no address of their own.
///
/// | operation | closed (0)     | opened (1)      | taken over (3)  | serving (4)            |
/// |-----------|----------------|-----------------|-----------------|------------------------|
/// | Open      | opened         | true            | true            | true                   |
/// | Bind      | ENOTSOCK       | binds           | binds           | true                   |
/// | Server    | serves         | reopens, serves | reopens, serves | reopens, serves        |
/// | SetSocket | taken over     | closes first    | closes first    | KOVA_ERR_ALREADY_OPEN  |
/// | SendTo    | opens, sends   | sends           | sends           | sends                  |
/// | RecvFrom  | ENOTSOCK       | receives        | receives        | receives               |
///
/// Errors: ENOTSOCK, EMSGSIZE (above 8192 bytes), ETIMEDOUT, KOVA_ERR_ALREADY_OPEN, KOVA_ERR_SIZE_MISMATCH,
/// KOVA_ERR_INVALID_PARAMETER (bind to port 0), and errno of the failing call.
/// Threads: one thread uses an object; any other may call `Shutdown` to end the server loop.
#ifndef KOVA_UDP_SOCKET_H
#define KOVA_UDP_SOCKET_H

#include <kova/export.h>
#include <kova/inet_addr.h>
#include <kova/socket_wrapper.h>

#include <atomic>

class KOVA_API KovaUDPSocket : public KovaSocketWrapper {
  public:
    /// Largest datagram that is sent, in bytes.
    static constexpr size_t kMaxDatagram = 8192;

    KovaUDPSocket();
    /// The local address; ports in host order, `ip` in network order. An `int` is a descriptor, see below: a
    /// port literal needs its type, as in `KovaUDPSocket(uint16_t{5000})`.
    KovaUDPSocket(unsigned short port);
    KovaUDPSocket(unsigned int ip, unsigned short port);
    KovaUDPSocket(const KovaInetAddr& local);
    /// Takes over a descriptor; the object closes it.
    KovaUDPSocket(int fd);
    ~KovaUDPSocket() override;

    /// Makes the descriptor and applies device, routing, broadcast and both time-outs. True also when open
    /// already.
    bool Open() override;
    /// Serves datagrams until `Shutdown`: stores the local address, ports in host order, and runs the loop.
    virtual bool Server(unsigned int ip, unsigned short port);
    virtual bool Server(unsigned short port);
    virtual bool Server(const KovaInetAddr& local);
    virtual bool Server();
    /// Closes the descriptor; does not end a server loop (`Shutdown` does). An error recorded before
    /// survives.
    virtual void Close();
    /// Sends one datagram of at most 8192 bytes. Ip, port and scope of the peer are replaced by those that
    /// are given: ip 0 and port 0 answer the sender of the last datagram. `port` in host order, `ip` in
    /// network order.
    virtual bool SendTo(const void* buffer, size_t size, unsigned int ip, unsigned short port);
    virtual bool SendTo(const void* buffer, size_t size, KovaInetAddr& to);
    /// Receives one datagram, waiting up to the time-out. One of another size than `size` is taken and
    /// dropped with KOVA_ERR_SIZE_MISMATCH; of a longer one the first `size` bytes count.
    virtual bool RecvFrom(void* buffer, size_t size);
    /// As RecvFrom, but the datagram stays queued and the buffer is zeroed first.
    virtual bool PeekFrom(void* buffer, size_t size);
    /// Ends the server loop; does nothing when not serving. May be called from any thread.
    virtual void Shutdown();
    /// Binds to the local port on all addresses.
    virtual bool Bind();
    /// Hooks of the server loop; `CallBack` reads the datagram from the socket it is given, which is this
    /// one.
    virtual void DoIdle();
    virtual void CallBack(KovaUDPSocket* socket);
    virtual void InitComplete();
    virtual bool ServerIntern();

    /// Takes over a descriptor.
    bool SetSocket(KovaSocketT fd);
    /// Port of the peer, in host order.
    void SetSendPort(unsigned short port);
    /// Waits up to the time-out; signals do not end the wait.
    bool WaitForData(KovaWaitModeT mode);
    /// Always 0.
    int Available() { return 0; }
    /// The local address, asked of the kernel until both ip and port are known.
    KovaInetAddr& GetLocal();
    KovaInetAddr& GetPeer() { return m_Peer; }

  private:
    bool TakeDatagram(void* buffer, size_t size, int flags, const char* function);

    KovaInetAddr m_Local;
    KovaInetAddr m_Peer;
    std::atomic<bool> m_Bound;
};

#endif
