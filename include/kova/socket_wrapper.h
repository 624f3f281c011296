/// Socket wrapper: what all socket classes share.
///
/// Owns one descriptor, remembers the options asked for so that a derived class can apply them when it opens
/// the descriptor, and wraps the socket calls so that every failure is recorded in the object and traced. It
/// holds no protocol logic.
///
/// | operation                | closed (mode 0)             | open (any other mode)                    |
/// |--------------------------|-----------------------------|------------------------------------------|
/// | SetBlocking/Routing/Broadcast | stores; true           | stores and applies                       |
/// | SetTimeout               | stores; false               | stores and applies                       |
/// | BindToDevice             | stores; true                | stores and applies                       |
/// | Ioctl                    | calls Open() first          | ioctl                                    |
/// | RemoveSocket             | -1                          | hands the descriptor to the caller       |
///
/// Errors: errno of the failing call, ENOTSOCK without an open socket, ETIMEDOUT for a wait that ended
/// unready. Threads: objects are not shared, but for the calls that end a server loop (see TCP and UDP
/// socket); the fields that these touch are single atomic words. Writing to a closed peer never raises
/// SIGPIPE.
#ifndef KOVA_SOCKET_WRAPPER_H
#define KOVA_SOCKET_WRAPPER_H

#include <kova/base_object.h>
#include <kova/export.h>

#include <sys/socket.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

/// A socket descriptor, -1 for none.
typedef int32_t KovaSocketT;
typedef socklen_t SocklenT;

/// State of a socket object. Derived classes compare against the numbers; 2 is not used.
enum KovaSocketModeT : uint32_t {
    KOVA_SOCKET_CLOSED = 0,
    KOVA_SOCKET_OPENED = 1,     ///< descriptor made, neither connected nor listening
    KOVA_SOCKET_CONNECTED = 3,  ///< connected stream, or a descriptor taken over
    KOVA_SOCKET_SERVING = 4,    ///< bound; listening for TCP
    KOVA_SOCKET_ICMP = 5,
    KOVA_SOCKET_RAW = 6,
};

/// What to wait for; the values may be ORed.
enum KovaWaitModeT : uint32_t {
    KOVA_WAIT_READ = 1,
    KOVA_WAIT_WRITE = 2,
};

constexpr KovaWaitModeT operator|(KovaWaitModeT a, KovaWaitModeT b) {
    return static_cast<KovaWaitModeT>(static_cast<uint32_t>(a) | static_cast<uint32_t>(b));
}

/// Set of the descriptors 0 to 1023: descriptor `fd` is bit `fd & 31` of word `fd >> 5`.
struct FdSetT {
    uint32_t words[32];
};

class KOVA_API KovaSocketWrapper : public virtual KovaBaseObject {
  public:
    /// No descriptor, time-out 3000 ms, routing on, broadcast off, not blocking, no device.
    KovaSocketWrapper();
    KovaSocketWrapper(const KovaSocketWrapper&) = delete;
    KovaSocketWrapper& operator=(const KovaSocketWrapper&) = delete;
    /// Does not close the descriptor: derived classes do.
    virtual ~KovaSocketWrapper();

    /// Send and receive time-out in milliseconds. False when closed (applied by the next open) or when the
    /// receive time-out cannot be set.
    virtual bool SetTimeout(int ms);
    virtual bool SetBlocking(bool blocking);
    /// False bypasses the routing table (SO_DONTROUTE).
    virtual bool SetRouting(bool routing);
    virtual bool SetBroadcast(bool broadcast);
    /// Makes the descriptor; the base has none to make and returns false.
    virtual bool Open();

    KovaSocketT GetSocket() const { return m_Socket; }
    void SetMode(KovaSocketModeT mode) { m_Mode = mode; }
    KovaSocketModeT GetMode() const { return m_Mode; }
    /// Bytes of the last receive.
    unsigned Received() const { return m_Received; }
    /// The calling thread's `errno`.
    int GetSocketError() const;

    /// `socket` with close-on-exec. Returns the descriptor, which stays the caller's, or -1.
    KovaSocketT Socket(int domain, int type, int protocol);
    /// `accept`; returns the descriptor, which is the caller's, or -1.
    KovaSocketT Accept(int fd, sockaddr* address, SocklenT* length);
    int Close(int fd);
    /// Forgets the descriptor without closing it and returns it: the caller owns it from now on.
    KovaSocketT RemoveSocket();

    void FdZero(FdSetT* set);
    /// Descriptors that a set cannot hold (negative, or from 1024 on) are ignored and never set.
    void FdSet(int fd, FdSetT* set);
    bool FdIsSet(int fd, FdSetT* set);
    /// `select` for at most `ms` milliseconds (0 polls). Returns its result; 0 is recorded as ETIMEDOUT. `n`
    /// above 1024 fails with EINVAL. Signals end it with EINTR.
    int32_t Select(int n, FdSetT* read, FdSetT* write, FdSetT* except, int32_t ms);
    /// `ioctl` on the object's descriptor, opened first if need be.
    bool Ioctl(unsigned long request, const void* arg);

    /// Time-outs in milliseconds, buffer sizes in bytes. Applied at once, not remembered.
    bool SetRecvTimeout(int ms);
    bool SetSendTimeout(int ms);
    bool SetRecvbufferSize(size_t size);
    bool SetSendbufferSize(size_t size);
    /// Remembers the interface `name` (its first 16 characters) unless null, and binds an open socket to it.
    bool BindToDevice(const char* name);

    /// `send` and `sendto`, tried up to four times: again at once after EINTR, after 50 ms for EAGAIN and
    /// ENOBUFS (SendTo: also ENOMEM), after 0.5 ms for EPERM. Returns the bytes sent, possibly fewer than
    /// asked, or the negative result of the last attempt with its error recorded.
    int Send(const void* buffer, size_t size);
    int SendTo(const void* buffer, size_t size, sockaddr* address, int length);

  protected:
    enum { kDeviceSize = 16 };

    /// Descriptors that a set holds, and that can be waited for, lie below.
    static constexpr int kDescriptorLimit = sizeof(FdSetT) * 8;

    bool IsOpen() const { return m_Mode != KOVA_SOCKET_CLOSED; }
    /// Pauses a server loop whose wait failed for another reason than time-out or signal: it would fail again
    /// at once.
    void PauseAfterFailedWait() const;

    /// Takes over a descriptor, mode 3, unless there is one; failures are those of `function`.
    bool TakeOver(KovaSocketT fd, const char* function);
    /// Applies the options asked for, then both time-outs. False, without what follows, if one is refused.
    bool ApplyOptions();
    /// Waits up to the time-out; failures are those of `function`. A signal ends the wait.
    bool AwaitReady(KovaWaitModeT mode, const char* function);
    /// Closes the descriptor, if there is one, and sets mode 0. Unsent data get `linger_seconds`; 0 drops
    /// them and resets a connection. False if the kernel reports an error of the close.
    bool CloseDescriptor(int linger_seconds);
    /// setsockopt at socket level, leaving errno to the caller.
    bool SetOption(int option, const void* value, size_t size);
    bool SetFlag(int option, int value);

    std::atomic<KovaSocketT> m_Socket;
    std::atomic<KovaSocketModeT> m_Mode;
    int32_t m_Timeout;
    std::atomic<uint32_t> m_Received;
    std::atomic<uint8_t> m_Stop;  ///< set to end a server loop
    bool m_Routing;
    bool m_Broadcast;
    std::atomic<bool> m_Blocking;
    char m_Device[kDeviceSize];
};

#endif
