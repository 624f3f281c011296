// The key under which each thread keeps its id. It is created once per process, so every case has a child
// process in which no thread has been asked for its id before.
#include "support/fake_libc.h"
#include "support/leak_check.h"

#include <kova/process.h>

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <memory>
#include <vector>

namespace {

class ThreadKey : public KovaTest {
  protected:
    static void InFreshProcess(const std::function<void()>& body) {
        const ChildResult child = RunInChild(body);
        EXPECT_EQ(0, child.exit_code) << child.output << child.error;
    }
};

TEST_F(ThreadKey, IsCreatedOnceAndWithoutDestructor) {
    InFreshProcess([] {
        fake::Replace keys(fake::pthread_key_create, [](pthread_key_t* key, void (*destructor)(void*)) {
            EXPECT_EQ(nullptr, destructor);
            return fake::pthread_key_create.Real(key, destructor);
        });
        EXPECT_EQ(::gettid(), KovaGetTid());
        DeadlineThread([] { EXPECT_EQ(::gettid(), KovaGetTid()); }).Join();
        EXPECT_EQ(1u, keys.Calls());
    });
}

TEST_F(ThreadKey, IsCreatedOnceByThreadsThatAskTogether) {
    InFreshProcess([] {
        fake::Counter keys(fake::pthread_key_create);
        {
            std::vector<std::unique_ptr<DeadlineThread>> threads;
            for (int i = 0; i < 8; ++i) {
                threads.push_back(
                    std::make_unique<DeadlineThread>([] { EXPECT_EQ(::gettid(), KovaGetTid()); }));
            }
        }
        EXPECT_EQ(1u, keys.Calls());
    });
}

TEST_F(ThreadKey, WithoutKeyTheKernelIsAskedEachTime) {
    InFreshProcess([] {
        fake::Always keys(fake::pthread_key_create, fake::Return(EAGAIN));
        fake::Counter asked(fake::syscall);
        asked.When([](long number, long, long, long, long, long, long) { return number == SYS_gettid; });
        EXPECT_EQ(::gettid(), KovaGetTid());
        EXPECT_EQ(::gettid(), KovaGetTid());
        EXPECT_EQ(2u, asked.Calls());
        DeadlineThread([] { EXPECT_EQ(::gettid(), KovaGetTid()); }).Join();
    });
}

}  // namespace
