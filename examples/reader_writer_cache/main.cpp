// A cache that many threads read and one thread writes.
//
// KovaLocalReadWriteLock lets the readers in together and the writer in alone. Each entry carries the number
// of the update that wrote it: a reader that met entries of two updates would have seen half of one.
//
// Prints what the writer and each reader came to, and ends with 0 when no reader ever saw half an update.
#include <kova/kova.h>

#include <array>
#include <cstdio>

namespace {

constexpr int kUpdates = 50;
constexpr unsigned long kPatienceMs = 30000;  // far more than any step of this program takes

class Cache {
  public:
    struct Look {
        int update;  // the one that wrote the first entry
        bool whole;  // whether it wrote all of them
    };

    void Update(int number) {
        m_Lock.BeginWrite();
        for (int& entry : m_Entries) entry = number;
        m_Lock.EndWrite();
    }

    // What is read is copied out: outside the lock it may change at any moment.
    Look Read() {
        m_Lock.BeginRead();
        Look look{m_Entries[0], true};
        for (const int entry : m_Entries) {
            if (entry != look.update) look.whole = false;
        }
        m_Lock.EndRead();
        return look;
    }

  private:
    KovaLocalReadWriteLock m_Lock;
    std::array<int, 1000> m_Entries{};
};

// The cache is the main context of every thread here.
Cache& CacheOf(const KovaThread& thread) {
    return *static_cast<Cache*>(thread.GetThreadContext()->GetMainContext());
}

// Writes update after update; returns the number of the last one.
class Writer : public KovaThread {
  public:
    explicit Writer(KovaThreadContext* context) : KovaThread(context, 0) {}

    int Run() override {
        Cache& cache = CacheOf(*this);
        for (int update = 1; update <= kUpdates; ++update) {
            cache.Update(update);
            KovaMilliSleep(1);  // stands for the work of finding out what is new
        }
        return kUpdates;
    }
};

// Reads until it is asked to end, and then once more; returns the update that it saw last, -1 if it ever saw
// half of one.
class Reader : public KovaThread {
  public:
    explicit Reader(KovaThreadContext* context) : KovaThread(context, 0) {}

    int Run() override {
        Cache& cache = CacheOf(*this);
        for (;;) {
            // Asked before the reading: what was written before the request is then seen.
            const bool last = GetThreadContext()->IsShutdown();
            const Cache::Look look = cache.Read();
            if (!look.whole) return -1;
            if (last) return look.update;
            KovaMilliSleep(1);  // stands for the work with what was read
        }
    }
};

// Waits for the end of a thread, prints and checks its result.
bool HasSeenLastUpdate(const char* who, KovaThreadContext& thread) {
    if (!thread.WaitForSyncPoint(KovaThreadContext::SYNC_FINISHED, kPatienceMs)) return false;
    std::printf("%s %lu ended at update %d\n", who, thread.GetArgFlags(), thread.GetRetCode());
    return thread.GetRetCode() == kUpdates;
}

}  // namespace

int main() {
    Cache cache;
    // Declared last, so that they go first: their destructors wait for threads that are still alive. The
    // argument flags number the threads.
    KovaThreadContext writer(&cache, 1);
    KovaThreadContext readers[] = {{&cache, 1}, {&cache, 2}, {&cache, 3}};

    // A started thread owns itself. From here on there is only its context.
    for (KovaThreadContext& reader : readers) (new Reader(&reader))->StartThread();
    for (KovaThreadContext& reader : readers) {
        if (!reader.WaitForSyncPoint(KovaThreadContext::SYNC_RUNNING, kPatienceMs)) return 1;
    }
    (new Writer(&writer))->StartThread();

    bool good = HasSeenLastUpdate("writer", writer);
    for (KovaThreadContext& reader : readers) reader.SetShutdown();
    for (KovaThreadContext& reader : readers) good = HasSeenLastUpdate("reader", reader) && good;
    return good ? 0 : 1;
}
