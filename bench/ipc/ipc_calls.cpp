/// kova-bench-ipc-calls SUBJECT COUNT: does one thing with a shared object COUNT times. Under strace, the
/// system calls of the repetitions stand between two calls of getppid.

#include <kova/message_queue.h>
#include <kova/shared_mutex.h>
#include <kova/shared_rwlock.h>
#include <kova/shared_semaphore.h>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace {

template <typename Repetition>
bool Repeat(long count, Repetition repetition) {
    bool succeeded = repetition();  // learns the ids of process and thread
    ::getppid();
    for (long i = 0; i < count; ++i) succeeded &= repetition();
    ::getppid();
    return succeeded;
}

bool Run(std::string_view subject, long count) {
    char name[] = "calls";
    char bytes[64]{};
    KovaSharedMutex mutex(name);
    KovaSharedSemaphore semaphore(name, 1, 1);
    KovaSharedReadWriteLock lock("calls-rwlock");
    KovaMessageQueue queue(name);
    if (subject == "mutex") return Repeat(count, [&] { return mutex.Lock() && mutex.Unlock(); });
    if (subject == "mutex-trylock") return Repeat(count, [&] { return mutex.Trylock() && mutex.Unlock(); });
    if (subject == "semaphore")
        return Repeat(count, [&] { return semaphore.Wait(-1, 0) && semaphore.Post(0); });
    if (subject == "semaphore-timed") {
        return Repeat(count, [&] { return semaphore.TimedWait(1000, -1, 0) && semaphore.Post(0); });
    }
    if (subject == "rwlock-read") return Repeat(count, [&] { return lock.BeginRead() && lock.EndRead(); });
    if (subject == "rwlock-write") return Repeat(count, [&] { return lock.BeginWrite() && lock.EndWrite(); });
    if (subject == "queue") {
        return Repeat(count, [&] {
            return queue.Write(bytes, sizeof bytes) == 0 && queue.Read(bytes, sizeof bytes) == sizeof bytes;
        });
    }
    return false;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 3 && Run(argv[1], std::atol(argv[2]))) return 0;
    std::fprintf(stderr, "kova-bench-ipc-calls: wrong arguments, or an operation failed\n");
    return 2;
}
