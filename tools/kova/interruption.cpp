#include "interruption.h"

#include "end_signals.h"

#include <pthread.h>
#include <signal.h>
#include <sys/time.h>
#include <unistd.h>

#include <initializer_list>

namespace {

volatile sig_atomic_t g_Expired = 0;
volatile sig_atomic_t g_EndWanted = 0;

sigset_t Signals() {
    sigset_t signals = EndSignals();
    sigaddset(&signals, SIGALRM);
    return signals;
}

void OnSignal(int signal) {
    if (signal == SIGALRM) {
        g_Expired = 1;
    } else {
        g_EndWanted = 1;
    }
    // A signal that came just before the call does not interrupt it: the next one will.
    ::alarm(1);
}

void Arm(int ms) {
    itimerval timer{};
    timer.it_value.tv_sec = ms / 1000;
    timer.it_value.tv_usec = suseconds_t{ms % 1000} * 1000;
    ::setitimer(ITIMER_REAL, &timer, nullptr);
}

}  // namespace

Interruption::Interruption() {
    struct sigaction action {};
    action.sa_handler = OnSignal;
    action.sa_mask = Signals();
    for (const int signal : {SIGALRM, SIGINT, SIGTERM}) ::sigaction(signal, &action, nullptr);
    pthread_sigmask(SIG_BLOCK, &action.sa_mask, nullptr);
}

bool Interruption::IsEndWanted() { return g_EndWanted != 0; }

bool Interruption::IsOver() { return g_EndWanted != 0 || g_Expired != 0; }

void Interruption::Begin(int ms) {
    const sigset_t signals = Signals();
    g_Expired = 0;
    Arm(ms);
    pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
}

void Interruption::End() {
    const int error = errno;
    const sigset_t signals = Signals();
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    Arm(0);
    errno = error;
}
