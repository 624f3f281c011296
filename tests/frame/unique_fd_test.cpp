#include "frame/unique_fd.h"

#include "support/fake_libc.h"
#include "support/leak_check.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <type_traits>
#include <utility>

namespace {

class UniqueFd : public KovaTest {};

int Duplicate() { return ::dup(STDIN_FILENO); }

TEST_F(UniqueFd, ClosesAtItsEndAndKeepsErrno) {
    const int fd = Duplicate();
    errno = ENOENT;
    {
        const kova::UniqueFd owner(fd);
        EXPECT_EQ(fd, owner.Get());
        EXPECT_TRUE(owner);
        EXPECT_TRUE(IsOpenFd(fd));
        errno = ENOENT;
    }
    EXPECT_EQ(ENOENT, errno);
    EXPECT_FALSE(IsOpenFd(fd));
}

TEST_F(UniqueFd, ClosesOnceEvenWhenCloseIsInterrupted) {
    const int fd = Duplicate();
    fake::Script closes(fake::close, {[](int number) {
                            fake::close.Real(number);
                            errno = EINTR;
                            return -1;
                        }});
    fake::Counter all(fake::close);
    errno = 0;
    kova::CloseOnce(fd);
    EXPECT_EQ(0, errno);
    EXPECT_EQ(1u, all.Calls());
}

TEST_F(UniqueFd, WithoutDescriptorClosesNothing) {
    fake::Counter closes(fake::close);
    {
        const kova::UniqueFd none;
        EXPECT_FALSE(none);
        EXPECT_EQ(-1, none.Get());
    }
    EXPECT_EQ(0u, closes.Calls());
}

TEST_F(UniqueFd, DescriptorZeroIsOne) {
    kova::UniqueFd zero(0);
    EXPECT_TRUE(zero);
    EXPECT_EQ(0, zero.Release());
}

TEST_F(UniqueFd, ReleaseHandsOver) {
    kova::UniqueFd owner(Duplicate());
    const Fd fd(owner.Release());
    EXPECT_FALSE(owner);
    EXPECT_TRUE(IsOpenFd(fd));
}

TEST_F(UniqueFd, MovingLeavesTheSourceEmpty) {
    static_assert(!std::is_copy_constructible_v<kova::UniqueFd> &&
                  !std::is_copy_assignable_v<kova::UniqueFd>);
    kova::UniqueFd a(Duplicate());
    const int first = a.Get();
    kova::UniqueFd b(std::move(a));
    EXPECT_EQ(first, b.Get());
    EXPECT_FALSE(a);
}

TEST_F(UniqueFd, MoveAssignmentClosesWhatWasThere) {
    kova::UniqueFd a(Duplicate());
    kova::UniqueFd b(Duplicate());
    const int replaced = b.Get();
    const int kept = a.Get();
    b = std::move(a);
    EXPECT_EQ(kept, b.Get());
    EXPECT_FALSE(IsOpenFd(replaced));
}

}  // namespace
