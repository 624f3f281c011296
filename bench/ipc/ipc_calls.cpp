/// kova-bench-ipc-calls SUBJECT COUNT: does one thing with a shared object COUNT times. Under strace, the
/// system calls of the repetitions stand between two calls of getppid.

#include "support/repeat.h"

#include <kova/message_queue.h>
#include <kova/shared_mutex.h>
#include <kova/shared_rwlock.h>
#include <kova/shared_semaphore.h>

#include <string_view>

namespace {

using kova_bench::Repeat;

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

int main(int argc, char** argv) { return kova_bench::RunCounted(argc, argv, Run); }
