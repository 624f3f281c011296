#include "frame/errno_guard.h"

#include <gtest/gtest.h>

namespace {

TEST(ErrnoGuard, PutsErrnoBackAtItsEnd) {
    errno = ENOENT;
    {
        const kova::ErrnoGuard keep;
        errno = EIO;
    }
    EXPECT_EQ(ENOENT, errno);
}

TEST(ErrnoGuard, PutsBackZero) {
    errno = 0;
    {
        const kova::ErrnoGuard keep;
        errno = EIO;
    }
    EXPECT_EQ(0, errno);
}

}  // namespace
