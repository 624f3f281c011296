/// Ends calls that wait without limit: after a time, or at SIGINT or SIGTERM.
#ifndef KOVA_TOOLS_INTERRUPTION_H
#define KOVA_TOOLS_INTERRUPTION_H

#include <errno.h>

/// Uses SIGALRM; one object at a time, for the only thread of a process. The signals are blocked except while
/// a call waits, so that they cut off nothing else.
class Interruption {
  public:
    Interruption();
    Interruption(const Interruption&) = delete;
    Interruption& operator=(const Interruption&) = delete;

    /// Calls `call`, which gives a negative result with EINTR when a signal interrupts it, until it is
    /// through, `ms` milliseconds have passed (0: no limit), or the end is asked for: negative with EINTR.
    template <typename Call>
    int Run(int ms, const Call& call) {
        Begin(ms);
        int result;
        do {
            result = -1;
            errno = EINTR;
        } while (!IsOver() && (result = call()) < 0 && errno == EINTR);
        End();
        return result;
    }

    /// Whether SIGINT or SIGTERM came.
    static bool IsEndWanted();

  private:
    static void Begin(int ms);
    static bool IsOver();
    /// Keeps errno.
    static void End();
};

#endif
