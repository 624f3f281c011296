#include "stream.h"

#include <errno.h>
#include <poll.h>
#include <sys/socket.h>

bool WaitReadable(int fd, int ms) {
    pollfd wait{fd, POLLIN, 0};
    int ready;
    do {
        ready = ::poll(&wait, 1, ms);
    } while (ready < 0 && errno == EINTR);
    return ready > 0;
}

void FinishSending(int fd, std::chrono::milliseconds limit) {
    using std::chrono::steady_clock;
    const auto end = steady_clock::now() + limit;
    ::shutdown(fd, SHUT_WR);
    char dropped[16384];
    for (;;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - steady_clock::now()).count();
        if (left <= 0 || !WaitReadable(fd, static_cast<int>(left))) return;
        if (::recv(fd, dropped, sizeof dropped, MSG_DONTWAIT) <= 0) return;
    }
}
