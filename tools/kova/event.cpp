#include "event.h"

#include "end_signals.h"
#include "hex_dump.h"
#include "report.h"

#include <kova/clock.h>
#include <kova/shared_event.h>

#include <errno.h>
#include <string.h>

#include <algorithm>
#include <chrono>
#include <stdexcept>

namespace {

/// Shows which name came: with a pattern there may be many.
class ObservedEvent : public KovaSharedEvent {
  public:
    using KovaSharedEvent::KovaSharedEvent;

    bool RecvFrom(void* buffer, size_t size) override {
        if (!KovaSharedEvent::RecvFrom(buffer, size)) return false;
        const char* const name = static_cast<const char*>(buffer);
        m_Received.assign(name, ::strnlen(name, size));
        return true;
    }

    const std::string& Received() const { return m_Received; }

  private:
    std::string m_Received;
};

class Waiter {
  public:
    explicit Waiter(const EventWaitOptions& options)
        : m_Options(options), m_Name(NameText(options.name)), m_Event(options.name.c_str()) {}

    int Run() {
        // The first wait opens the socket.
        bool came = Take(kOpenMs);
        Print("waiting for event " + m_Name + "\n");
        for (uint64_t number = 1;; ++number) {
            const EndWatch::Event end = came ? EndWatch::kData : Await();
            if (end == EndWatch::kSignal) return m_Options.count == 0 ? kExitOk : kExitFailure;
            if (end == EndWatch::kTimeOut) return TimedOut();
            Print(TimeText(KovaGetRealTime()) + " event " + NameText(m_Event.Received()) + "\n");
            if (number == m_Options.count) return kExitOk;
            came = false;
        }
    }

  private:
    using Clock = std::chrono::steady_clock;

    /// Limits of the library's wait: only to open the socket, and for a datagram that is there.
    static constexpr int kOpenMs = 1;
    static constexpr int kTakeMs = 1000;

    /// Takes one datagram: true if it holds the name. Throws when waiting is of no use any more.
    bool Take(int ms) {
        if (m_Event.TimedWait(ms, m_Options.pattern)) return true;
        switch (static_cast<int>(m_Event.GetError())) {
            case KovaBaseObject::KOVA_ERR_NONE:           // another name
            case KovaBaseObject::KOVA_ERR_SIZE_MISMATCH:  // wakes up those who wait at a closed event
            case ETIMEDOUT:
                return false;
            default:
                throw std::runtime_error("cannot wait for event " + m_Name + ": " + RecordText(m_Event));
        }
    }

    /// Waits for an event of the name: kData.
    EndWatch::Event Await() {
        const auto limit = Clock::now() + std::chrono::milliseconds(m_Options.timeout_ms);
        while (true) {
            const auto left = std::chrono::ceil<std::chrono::milliseconds>(limit - Clock::now()).count();
            const int ms = m_Options.timeout_ms == 0 ? -1 : static_cast<int>(std::max<int64_t>(left, 0));
            const EndWatch::Event event = m_Watch.Await(m_Event.GetSocket(), ms);
            if (event != EndWatch::kData || Take(kTakeMs)) return event;
        }
    }

    int TimedOut() const {
        Complain("no event " + m_Name + " within " + std::to_string(m_Options.timeout_ms) + " ms");
        return kExitFailure;
    }

    const EventWaitOptions& m_Options;
    const std::string m_Name;
    const EndWatch m_Watch;
    ObservedEvent m_Event;
};

}  // namespace

int EventPost(const std::string& name) {
    KovaSharedEvent event(name.c_str());
    if (!event.Post())
        throw std::runtime_error("cannot post event " + NameText(name) + ": " + RecordText(event));
    Print("posted event " + NameText(name) + "\n");
    return kExitOk;
}

int EventWait(const EventWaitOptions& options) { return Waiter(options).Run(); }
