#include "end_signals.h"

#include <errno.h>
#include <poll.h>
#include <pthread.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <system_error>

sigset_t EndSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    return signals;
}

void BlockEndSignals() {
    const sigset_t signals = EndSignals();
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

namespace {

int OpenSignals() {
    BlockEndSignals();
    const sigset_t signals = EndSignals();
    const int fd = ::signalfd(-1, &signals, SFD_CLOEXEC);
    if (fd < 0) throw std::system_error(errno, std::generic_category(), "signalfd");
    return fd;
}

}  // namespace

EndWatch::EndWatch() : m_Signals(OpenSignals()) {}

EndWatch::~EndWatch() { ::close(m_Signals); }

EndWatch::Event EndWatch::Await(int fd, int ms) const {
    pollfd waits[] = {{m_Signals, POLLIN, 0}, {fd, POLLIN, 0}};
    int ready;
    do {
        ready = ::poll(waits, 2, ms);
    } while (ready < 0 && errno == EINTR);
    if (waits[0].revents != 0) return kSignal;
    return ready > 0 ? kData : kTimeOut;
}
