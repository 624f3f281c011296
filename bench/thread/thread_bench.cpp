/// A thread that does nothing, from its start until its owner knows that it has done it.

#include "support/by_hand.h"

#include <kova/thread.h>

#include <benchmark/benchmark.h>
#include <pthread.h>

#include <optional>
#include <thread>
#include <vector>

namespace {

using kova_bench::HandSemaphore;

/// The library's default.
constexpr size_t kStackSize = 0x40000;

class Attributes {
  public:
    explicit Attributes(int detach_state) {
        ::pthread_attr_init(&m_Attributes);
        ::pthread_attr_setstacksize(&m_Attributes, kStackSize);
        ::pthread_attr_setdetachstate(&m_Attributes, detach_state);
    }
    Attributes(const Attributes&) = delete;
    Attributes& operator=(const Attributes&) = delete;
    ~Attributes() { ::pthread_attr_destroy(&m_Attributes); }

    const pthread_attr_t* Get() const { return &m_Attributes; }

  private:
    pthread_attr_t m_Attributes;
};

void* PostAndEnd(void* semaphore) {
    static_cast<HandSemaphore*>(semaphore)->Post();
    return nullptr;
}

void* PostAndExit(void* semaphore) {
    static_cast<HandSemaphore*>(semaphore)->Post();
    ::pthread_exit(nullptr);
}

/// A detached thread that posts when it is done. The semaphore stays, since the last post may still be on its
/// way out when it has been taken.
template <void* (*entry)(void*)>
void Detached(benchmark::State& state) {
    static HandSemaphore done;
    for (auto _ : state) {
        const Attributes attributes(PTHREAD_CREATE_DETACHED);
        pthread_t id;
        if (::pthread_create(&id, attributes.Get(), entry, &done) == 0 && done.Wait()) continue;
        state.SkipWithError("no thread");
        break;
    }
}

void Joined(benchmark::State& state) {
    for (auto _ : state) {
        const Attributes attributes(PTHREAD_CREATE_JOINABLE);
        pthread_t id;
        const auto nothing = [](void*) -> void* { return nullptr; };
        if (::pthread_create(&id, attributes.Get(), nothing, nullptr) == 0 &&
            ::pthread_join(id, nullptr) == 0)
            continue;
        state.SkipWithError("no thread");
        break;
    }
}

void StdThread(benchmark::State& state) {
    for (auto _ : state) std::thread([] {}).join();
}

class Worker : public KovaThread {
  public:
    using KovaThread::KovaThread;
    int Run() override { return 0; }
};

bool RunThread(KovaThreadContext& context) {
    (new Worker(&context, 0))->StartThread();
    return context.WaitForSyncPoint(KovaThreadContext::SYNC_FINISHED, 0) && context.GetRetCode() == 0;
}

/// Every thread has a context of its own. These are destroyed after the measurement: a context sleeps when it
/// finds its thread on the last steps to its end.
void Library(benchmark::State& state) {
    std::vector<std::optional<KovaThreadContext>> contexts(static_cast<size_t>(state.max_iterations));
    auto context = contexts.begin();
    for (auto _ : state) {
        context->emplace(0);
        if (RunThread(**context++)) continue;
        state.SkipWithError("no thread");
        break;
    }
}

/// With the context's end.
void LibraryWithContext(benchmark::State& state) {
    for (auto _ : state) {
        KovaThreadContext context(0);
        if (RunThread(context)) continue;
        state.SkipWithError("no thread");
        break;
    }
}

[[maybe_unused]] const bool g_registered = [] {
    const auto add = [](const char* name, void (*function)(benchmark::State&)) {
        benchmark::RegisterBenchmark(name, function)->MeasureProcessCPUTime()->UseRealTime();
    };
    add("thread/detached", Detached<PostAndEnd>);
    add("thread/detached-exit", Detached<PostAndExit>);
    add("thread/joined", Joined);
    add("thread/std", StdThread);
    add("thread/library", Library);
    add("thread/library-context", LibraryWithContext);
    return true;
}();

}  // namespace
