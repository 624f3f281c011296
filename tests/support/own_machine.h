/// Tests of what would disturb any machine but the emulated board: the wall clock set, real-time priorities,
/// hard limits raised, links of every kind. The board's first process sets KOVA_OWN_MACHINE.
#ifndef KOVA_TESTS_SUPPORT_OWN_MACHINE_H
#define KOVA_TESTS_SUPPORT_OWN_MACHINE_H

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>

/// Skips a test that needs a machine of its own, with the reason.
#define KOVA_NEEDS_OWN_MACHINE(reason)              \
    if (std::getenv("KOVA_OWN_MACHINE") == nullptr) \
    GTEST_SKIP() << "runs on the emulated board only (scripts/test --target): " << (reason)

/// Sets the wall clock, and back again in its destructor.
class WallClockShift {
  public:
    WallClockShift() = default;
    WallClockShift(const WallClockShift&) = delete;
    WallClockShift& operator=(const WallClockShift&) = delete;
    ~WallClockShift() { By(-m_Seconds); }

    void By(time_t seconds) {
        timespec now{};
        EXPECT_EQ(0, ::clock_gettime(CLOCK_REALTIME, &now));
        now.tv_sec += seconds;
        EXPECT_EQ(0, ::clock_settime(CLOCK_REALTIME, &now));
        m_Seconds += seconds;
    }

  private:
    time_t m_Seconds = 0;
};

#endif
