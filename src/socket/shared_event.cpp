#include "frame/abend.h"
#include "frame/fail.h"
#include "frame/trace.h"
#include "socket/endpoint.h"

#include <kova/shared_event.h>

#include <arpa/inet.h>
#include <fnmatch.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

namespace {

/// Of the 32 bytes of an event.
constexpr int kEventSizeBits = 5;
constexpr int kWaitSliceMs = 60000;

}  // namespace

KovaSharedEvent::KovaSharedEvent() : KovaSharedEvent(nullptr) {}

KovaSharedEvent::KovaSharedEvent(const char* name)
    : KovaUDPSocket(htonl(kAddress), kPort), m_EventAddress(htonl(kAddress), htons(kPort)), m_Closed(false) {
    SetEventName(name);
    SetBroadcast(true);
    SetBlocking(true);
    SetRouting(false);
}

// Without the datagram of Close: it would end the waits of other objects, and nobody can wait on this one.
KovaSharedEvent::~KovaSharedEvent() = default;

void KovaSharedEvent::SetEventName(const char* name) {
    std::memset(m_Name, 0, sizeof m_Name);
    if (name != nullptr) std::memcpy(m_Name, name, ::strnlen(name, sizeof m_Name - 1));
}

/// An event without a name is a programming error: the process ends.
bool KovaSharedEvent::HasName() const {
    if (m_Name[0] != '\0') return true;
    KOVA_TRACE("event without name fd=%d", m_Socket.load());
    kova::AbendOfEvent();
    return false;
}

/// Opens and binds the socket unless it is open; failures are those of `function`.
bool KovaSharedEvent::OpenOnDemand(const char* function) {
    ClearError();
    if (!HasName()) return false;
    const bool was_open = IsOpen();
    if (!was_open && !Open()) {
        _SetError_(function, __LINE__, ENOTSOCK);
        return false;
    }
    if (m_Socket >= kDescriptorLimit) {
        KOVA_FAIL_IN(function, EINVAL, "event fd=%d cannot be waited for", m_Socket.load());
        if (!was_open) KovaUDPSocket::Close();
        return false;
    }
    if (was_open) return true;
    SetFlag(SO_REUSEADDR, 1);
    return Bind();
}

bool KovaSharedEvent::Post() {
    const bool was_open = IsOpen();
    if (!OpenOnDemand(__PRETTY_FUNCTION__)) return false;
    // Deliberate: set once more behind the bind.
    if (!was_open) SetFlag(SO_REUSEADDR, 1);
    KOVA_TRACE("post event to=%x port=%u", m_EventAddress.GetIp(), ntohs(m_EventAddress.GetPort()));
    const bool sent = SendTo(m_Name, sizeof m_Name, m_EventAddress);
    {
        // The record tells of the send, not of what is dropped now.
        const kova::ErrorKeeper keep(*this);
        Flush();
        ClearError();
    }
    return sent;
}

bool KovaSharedEvent::TimedWait(int ms, bool pattern) {
    return TakeEvent(__PRETTY_FUNCTION__, ms, pattern, m_Closed);
}

/// One wait, given up when the event turns out to be closed, unless it `was_closed` before; failures are
/// those of `function`.
bool KovaSharedEvent::TakeEvent(const char* function, int ms, bool pattern, bool was_closed) {
    if (!OpenOnDemand(function)) return false;
    if (m_Closed && !was_closed) {
        // Closed by another thread before there was anything to be woken by.
        KovaUDPSocket::Close();
        return false;
    }
    SetTimeout(ms);
    char received[kNameSize + 1]{};
    if (!RecvFrom(received, kNameSize)) return false;
    return pattern ? ::fnmatch(m_Name, received, 0) == 0 : std::memcmp(m_Name, received, kNameSize) == 0;
}

bool KovaSharedEvent::Wait(bool pattern) {
    ClearError();
    if (!HasName()) return false;
    while (!m_Closed) {
        if (TakeEvent("bool KovaSharedEvent::TimedWait(int, bool)", kWaitSliceMs, pattern, false))
            return true;
        if (GetError() != ETIMEDOUT) return false;
    }
    return false;
}

int KovaSharedEvent::EventCount() {
    int bytes = 0;
    if (!IsOpen() || !Ioctl(FIONREAD, &bytes)) return 0;
    return bytes >> kEventSizeBits;
}

bool KovaSharedEvent::Flush() {
    SetBlocking(false);
    char dropped[kNameSize];
    while (EventCount() > 0) {
        // What cannot be waited for cannot be taken either, and would be counted for ever.
        if (!RecvFrom(dropped, sizeof dropped) && GetError() == ETIMEDOUT) break;
    }
    return SetBlocking(true);
}

void KovaSharedEvent::Close() {
    const kova::ErrorKeeper keep(*this);
    m_Closed = true;
    WakeWaiters();
    KovaUDPSocket::Close();
}

/// Sends what no waiter takes for an event. The thread that waits may be using the peer, and opening the
/// socket if it is closed: both are left alone.
void KovaSharedEvent::WakeWaiters() {
    constexpr char kNoEvent = 0;
    if (!IsOpen()) {
        KovaUDPSocket other;
        other.SetBroadcast(true);
        other.SetRouting(false);
        other.SendTo(&kNoEvent, sizeof kNoEvent, m_EventAddress);
        return;
    }
    sockaddr_in6 to = kova::ToScopedSockaddr(m_EventAddress);
    KovaSocketWrapper::SendTo(&kNoEvent, sizeof kNoEvent, kova::AsSockaddr(to), sizeof to);
}
