// What the board promises to the tests that run on it.
#include "support/own_machine.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <bit>
#include <cstdlib>
#include <ctime>
#include <string>

namespace {

class Board : public testing::Test {
  protected:
    void SetUp() override { KOVA_NEEDS_OWN_MACHINE("a statement about the board"); }
};

TEST_F(Board, IsA32BitBigEndianPowerPc) {
    utsname name;
    ASSERT_EQ(0, ::uname(&name));
    EXPECT_STREQ("ppc", name.machine);
    EXPECT_EQ(4u, sizeof(void*));
    EXPECT_EQ(4u, sizeof(time_t));
    EXPECT_EQ(std::endian::big, std::endian::native);
}

TEST_F(Board, RunsEverythingAsRoot) {
    EXPECT_EQ(0u, ::geteuid());
    EXPECT_EQ(0, std::system("kill -0 1")) << "the first process may be signalled";
}

TEST_F(Board, HasAShell) {
    EXPECT_EQ(0, std::system("test \"$(echo a b)\" = 'a b'"));
    EXPECT_EQ(3 << 8, std::system("exit 3"));
}

TEST_F(Board, HasItsOwnHostName) {
    char name[64] = {};
    ASSERT_EQ(0, ::gethostname(name, sizeof name));
    const std::string before = name;
    ASSERT_EQ(0, ::sethostname("another", 7));
    ASSERT_EQ(0, ::gethostname(name, sizeof name));
    EXPECT_STREQ("another", name);
    EXPECT_EQ(0, ::sethostname(before.data(), before.size()));
    EXPECT_EQ("board", before);
}

TEST_F(Board, KnowsTheTimeAndSetsIt) {
    timespec now{};
    ASSERT_EQ(0, ::clock_gettime(CLOCK_REALTIME, &now));
    EXPECT_GT(now.tv_sec, 1'700'000'000) << "the host passes its time";
    constexpr time_t kDay = 86400;
    WallClockShift shift;
    shift.By(-kDay);
    timespec yesterday{};
    ASSERT_EQ(0, ::clock_gettime(CLOCK_REALTIME, &yesterday));
    EXPECT_NEAR(now.tv_sec - kDay, yesterday.tv_sec, 10);
}

TEST_F(Board, GivesRealTimePriorities) {
    for (const int priority : {1, 50, 99}) {
        const sched_param wanted{.sched_priority = priority};
        ASSERT_EQ(0, ::sched_setscheduler(0, SCHED_FIFO, &wanted));
        sched_param got{};
        EXPECT_EQ(0, ::sched_getparam(0, &got));
        EXPECT_EQ(priority, got.sched_priority);
    }
    const sched_param regular{};
    EXPECT_EQ(0, ::sched_setscheduler(0, SCHED_OTHER, &regular));
}

TEST_F(Board, RaisesHardLimits) {
    rlimit before{};
    ASSERT_EQ(0, ::getrlimit(RLIMIT_RTPRIO, &before));
    const rlimit raised{before.rlim_max + 1, before.rlim_max + 1};
    EXPECT_EQ(0, ::setrlimit(RLIMIT_RTPRIO, &raised));
    EXPECT_EQ(0, ::setrlimit(RLIMIT_RTPRIO, &before));
}

TEST_F(Board, HasEveryKindOfLink) {
    for (const std::string link : {"dev0 type dummy", "dev0 type veth", "link kv0 name dev0 type vlan id 7",
                                   "link kv0 name dev0 type macvlan"}) {
        EXPECT_EQ(0, std::system(("ip link add " + link).c_str())) << link;
        EXPECT_EQ(0, std::system("ip link set dev0 up && ip link del dev0")) << link;
    }
    struct stat tun {};
    EXPECT_EQ(0, ::stat("/dev/net/tun", &tun));
    EXPECT_TRUE(S_ISCHR(tun.st_mode));
}

TEST_F(Board, BeginsWithAnEmptyDirectoryForFiles) { EXPECT_EQ(0, std::system("test -z \"$(ls /tmp)\"")); }

}  // namespace
