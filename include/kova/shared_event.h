/// Named event across the processes of a machine.
///
/// Posting broadcasts the name as a datagram of 32 bytes on the loopback network, to port 20003; every event
/// object of any process gets it. Nothing is counted or stored beyond a socket's receive queue: an event that
/// is posted while nobody has the port open is lost. The socket is opened by the first post or wait.
///
/// Errors: ENOTSOCK (no socket), EINVAL (a descriptor of 1024 or above), ETIMEDOUT, KOVA_ERR_SIZE_MISMATCH (a
/// datagram of another size), and errno of the failing call. Posting or waiting without a name ends the
/// process (`pabend`). Threads: one uses an object; any other may call `Close` to end its wait.
#ifndef KOVA_SHARED_EVENT_H
#define KOVA_SHARED_EVENT_H

#include <kova/export.h>
#include <kova/inet_addr.h>
#include <kova/udp_socket.h>

#include <atomic>

class KOVA_API KovaSharedEvent : public KovaUDPSocket {
  public:
    /// Where events go, host order: 127.255.255.255, and the port that every event socket binds.
    static constexpr unsigned int kAddress = 0x7FFFFFFF;
    static constexpr unsigned short kPort = 20003;

    KovaSharedEvent();
    /// The first 31 characters of `name` count.
    KovaSharedEvent(const char* name);
    /// Closes the socket; wakes nobody.
    ~KovaSharedEvent() override;

    void SetEventName(const char* name);
    /// Posts the event. Drops what waits in this object's queue, its own datagram included.
    bool Post();
    /// Waits up to `ms` milliseconds for one datagram; true if it holds the own name or, with `pattern`, a
    /// name that matches the own one, a wildcard pattern. Another name is taken and gives false without an
    /// error.
    bool TimedWait(int ms, bool pattern);
    /// As TimedWait without limit; another name, and `Close` by another thread, end it with false.
    bool Wait(bool pattern);
    /// Datagrams that wait, as far as the kernel tells; 0 when closed.
    int EventCount();
    /// Drops what waits.
    bool Flush();
    /// Ends the waits of this object for good and closes the socket; waits on other objects end with false,
    /// too. A server loop goes on, as that of every UDP socket does.
    void Close() override;

  private:
    enum { kNameSize = 32 };

    bool HasName() const;
    bool OpenOnDemand(const char* function);
    bool TakeEvent(const char* function, int ms, bool pattern, bool was_closed);
    void WakeWaiters();

    KovaInetAddr m_EventAddress;
    char m_Name[kNameSize];
    std::atomic<bool> m_Closed;
};

#endif
