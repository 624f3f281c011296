// A service with two worker threads and one queue of work.
//
// Each worker is a KovaThread. Main follows it through a KovaThreadContext: it waits until the worker is
// ready, asks it to end with the shutdown flag, waits until it has ended, and reads what it returned. A
// semaphore counts the jobs in the queue, so that a worker without work sleeps.
//
// Prints the result of each job in the order in which they were given, and ends with 0 when all were done.
#include <kova/kova.h>

#include <cstddef>
#include <cstdio>
#include <deque>
#include <iterator>

namespace {

constexpr unsigned kReady = 0x200;            // our own sync point, between SYNC_RUNNING and SYNC_FINISHED
constexpr unsigned long kPatienceMs = 30000;  // far more than any step of this program takes

// A job belongs to one thread at a time: main, then the worker that took it, then main again.
struct Job {
    int limit;
    int primes;
};

class JobQueue {
  public:
    // Without records for each job: they would push everything else out of the trace buffer.
    JobQueue() {
        m_Mutex.SetTrace(false);
        m_Given.SetTrace(false);
    }

    void Give(Job& job) {
        m_Mutex.Lock();
        m_Jobs.push_back(&job);
        m_Mutex.Unlock();
        m_Given.Post();
    }

    // Lets one worker look at its shutdown flag.
    void Wake() { m_Given.Post(); }

    // The next job; waits for one. Null for a worker that was woken and finds nothing to do.
    Job* Take() {
        m_Given.Wait();
        Job* job = nullptr;
        m_Mutex.Lock();
        if (!m_Jobs.empty()) {
            job = m_Jobs.front();
            m_Jobs.pop_front();
        }
        m_Mutex.Unlock();
        return job;
    }

  private:
    KovaLocalMutex m_Mutex;
    KovaLocalSemaphore m_Given;  // one for each job, and one for each wake-up
    std::deque<Job*> m_Jobs;
};

int CountPrimes(int limit) {
    int count = 0;
    for (int n = 2; n < limit; ++n) {
        int divisor = 2;
        while (divisor * divisor <= n && n % divisor != 0) ++divisor;
        if (divisor * divisor > n) ++count;
    }
    return count;
}

class Worker : public KovaThread {
  public:
    explicit Worker(KovaThreadContext* context) : KovaThread(context, 0) {}

    // Works until it is asked to end and nothing is left to do. Returns how many jobs it has done.
    int Run() override {
        KovaThreadContext& context = *GetThreadContext();
        auto& queue = *static_cast<JobQueue*>(context.GetMainContext());
        context.SetSyncPoint(kReady);
        for (int done = 0;;) {
            if (Job* const job = queue.Take()) {
                job->primes = CountPrimes(job->limit);
                ++done;
            } else if (context.IsShutdown()) {
                return done;
            }
        }
    }
};

}  // namespace

int main() {
    Job jobs[] = {{10, 0}, {100, 0}, {1000, 0}, {2000, 0}, {5000, 0}, {10000, 0}};
    JobQueue queue;
    // Declared last, so that they go first: their destructors wait for workers that are still alive.
    KovaThreadContext workers[] = {{&queue, 0}, {&queue, 0}};

    // A started worker owns itself. From here on there is only its context.
    for (KovaThreadContext& worker : workers) (new Worker(&worker))->StartThread();
    size_t ready = 0;
    for (KovaThreadContext& worker : workers) ready += worker.WaitForSyncPoint(kReady, kPatienceMs) ? 1 : 0;
    std::printf("%zu workers are ready\n", ready);

    for (Job& job : jobs) queue.Give(job);

    // All flags before the first wake-up, which goes to any worker.
    for (KovaThreadContext& worker : workers) worker.SetShutdown();
    for (size_t i = 0; i < std::size(workers); ++i) queue.Wake();
    int done = 0;
    for (KovaThreadContext& worker : workers) {
        if (worker.WaitForSyncPoint(KovaThreadContext::SYNC_FINISHED, kPatienceMs))
            done += worker.GetRetCode();
    }

    for (const Job& job : jobs) std::printf("%d primes below %d\n", job.primes, job.limit);
    std::printf("%d jobs done\n", done);
    return done == static_cast<int>(std::size(jobs)) ? 0 : 1;
}
