/// What the tests of the locks share: records in order, the end of the process, and the life after it.
#ifndef KOVA_TESTS_SYNC_LOCKS_H
#define KOVA_TESTS_SYNC_LOCKS_H

#include "support/fake_libc.h"
#include "support/leak_check.h"
#include "support/trace_recorder.h"

#include <kova/base_object.h>
#include <kova/lifecycle.h>
#include <kova/process.h>

#include <gtest/gtest.h>
#include <pthread.h>
#include <time.h>

#include <cerrno>
#include <csetjmp>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <new>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

inline constexpr const char* kSlept = "sleep seconds=%d nanoseconds=%d argument=%d";
inline constexpr const char* kAbend = "nTid=%x KovaGetTid()=%x";

/// A value of a trace record.
struct Word {
    Word(int number) : value(static_cast<uint32_t>(number)) {}
    Word(const void* record) : value(static_cast<uint32_t>(reinterpret_cast<uintptr_t>(record))) {}
    uint32_t value;
};

struct Record {
    std::string_view text;
    std::vector<Word> values;
};

using Records = std::vector<Record>;

/// The records of one pause before a repetition.
inline Record Pause() { return {kSlept, {0, 2000000, 2}}; }

/// These records were written, in this order, and no others.
inline void ExpectRecords(const TraceRecorder& recorder, const Records& wanted) {
    const std::vector<TraceRecord> written = recorder.All();
    EXPECT_EQ(wanted.size(), written.size()) << testing::PrintToString(written);
    for (size_t i = 0; i < wanted.size() && i < written.size(); ++i) {
        std::vector<uint32_t> values;
        for (const Word word : wanted[i].values) values.push_back(word.value);
        EXPECT_TRUE(written[i].Is(wanted[i].text))
            << "record " << i << ": " << wanted[i].text << ", but: " << testing::PrintToString(written[i]);
        EXPECT_EQ(values, written[i].values) << "record " << i << ": " << wanted[i].text;
        EXPECT_NE(0u, written[i].line) << "record " << i;
    }
}

/// `body` ends its process, after these records and that of the abnormal end.
inline void ExpectAbend(const std::function<void()>& body, Records wanted) {
    // The child keeps the id that is known.
    const int self = KovaGetTid();
    const TraceRecorder recorder;
    const ChildResult child = RunInChild(body);
    EXPECT_EQ(SIGABRT, child.signal) << testing::PrintToString(child);
    wanted.push_back({kAbend, {0, self}});
    ExpectRecords(recorder, wanted);
}

/// The record of an abnormal end that returns.
inline Record AbendAgain() { return {kAbend, {KovaGetTid(), KovaGetTid()}}; }

/// Goes through an abort, so that from here on the abnormal end returns on this thread.
inline void SurviveAbort() {
    static sigjmp_buf place;
    const fake::Replace abort(fake::abort, [] { siglongjmp(place, 1); });
    if (sigsetjmp(place, 1) == 0) pabend(0, 0, 0);
}

/// Runs `body` in a child, on a thread where the abnormal end returns.
inline void WhileAborting(const std::function<void()>& body) {
    const ChildResult child = RunInChild([&] {
        SurviveAbort();
        body();
    });
    EXPECT_EQ(0, child.exit_code) << testing::PrintToString(child);
}

/// Restricts a scope of a faked function to the calls for one record.
template <typename Scope, typename Lock>
void Only(Scope& scope, Lock* lock) {
    scope.When([lock](Lock* given, auto...) { return given == lock; });
}

/// Does what the real function of `hook` does, but returns `result` with this errno.
template <typename Result, typename... Args>
auto ReallyBut(fake::Hook<Result(Args...)>& hook, Result result, int error = 0) {
    return [&hook, result, error](Args... args) {
        hook.Real(args...);
        errno = error;
        return result;
    };
}

/// The mutexes that this thread initialises while it lives.
class InitialisedMutexes {
  public:
    pthread_mutex_t* At(size_t index) const { return m_List.at(index); }
    size_t Size() const { return m_List.size(); }

  private:
    std::vector<pthread_mutex_t*> m_List;
    const fake::Replace<int(pthread_mutex_t*, const pthread_mutexattr_t*)> m_Init{
        fake::pthread_mutex_init,
        [this](pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes) {
            m_List.push_back(mutex);
            return fake::pthread_mutex_init.Real(mutex, attributes);
        },
        fake::kThisThread};
};

/// Expects that what happens while it lives allocates nothing.
class NoAllocation {
  public:
    ~NoAllocation() { EXPECT_EQ(0u, m_Throwing.Calls() + m_Nothrow.Calls() + m_Arrays.Calls()); }

  private:
    const fake::Counter<void*(size_t)> m_Throwing{fake::new_throwing, fake::kThisThread};
    const fake::Counter<void*(size_t, const std::nothrow_t&)> m_Nothrow{fake::new_nothrow, fake::kThisThread};
    const fake::Counter<void*(size_t, const std::nothrow_t&)> m_Arrays{fake::new_array_nothrow,
                                                                       fake::kThisThread};
};

/// What an error record held.
struct KeptError {
    int code = -1;
    std::string function;
    int line = 0;
};

class ErrorWitness : public virtual KovaBaseObject {
  public:
    explicit ErrorWitness(KeptError& kept) : m_Kept(kept) {}
    ~ErrorWitness() override {
        m_Kept.code = GetError();
        m_Kept.function = GetErrorFunction() == nullptr ? "" : GetErrorFunction();
        m_Kept.line = GetErrorLine();
    }

  private:
    KeptError& m_Kept;
};

/// A lock whose error record is read after the lock's own destructor.
template <typename Lock>
class Dying : private ErrorWitness, public Lock {
  public:
    explicit Dying(KeptError& kept) : ErrorWitness(kept) {}
};

#endif
