/// SIGINT and SIGTERM as requests to come to an end.
#ifndef KOVA_TOOLS_END_SIGNALS_H
#define KOVA_TOOLS_END_SIGNALS_H

#include <signal.h>

/// SIGINT and SIGTERM.
sigset_t EndSignals();

/// Keeps the signals for whoever waits for them; threads made later inherit this.
void BlockEndSignals();

/// Waits for data or for a signal, whichever comes first. Blocks the signals from its construction on.
class EndWatch {
  public:
    enum Event { kData, kSignal, kTimeOut };

    /// Throws std::system_error.
    EndWatch();
    EndWatch(const EndWatch&) = delete;
    EndWatch& operator=(const EndWatch&) = delete;
    ~EndWatch();

    /// Waits for `ms` milliseconds, without limit if negative, until `fd` is readable. A signal goes first.
    Event Await(int fd, int ms) const;

  private:
    const int m_Signals;
};

#endif
