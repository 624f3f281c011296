/// Ownership of a descriptor.
#ifndef KOVA_FRAME_UNIQUE_FD_H
#define KOVA_FRAME_UNIQUE_FD_H

#include "frame/errno_guard.h"

#include <unistd.h>

#include <cerrno>
#include <utility>

namespace kova {

/// Closes `fd` once, whatever comes of it: Linux frees the descriptor even when `close` fails with EINTR, and
/// a second call could close one that another thread has just been given. Keeps `errno`; returns that of the
/// call, 0 if it succeeded.
inline int CloseOnce(int fd) {
    const ErrnoGuard keep;
    return ::close(fd) == 0 ? 0 : errno;
}

class UniqueFd {
  public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : m_Fd(fd) {}
    UniqueFd(UniqueFd&& other) noexcept : m_Fd(other.Release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        UniqueFd(std::move(other)).Swap(*this);
        return *this;
    }
    ~UniqueFd() {
        if (m_Fd >= 0) CloseOnce(m_Fd);
    }

    int Get() const { return m_Fd; }
    explicit operator bool() const { return m_Fd >= 0; }
    /// Hands the descriptor to the caller.
    int Release() { return std::exchange(m_Fd, -1); }
    void Swap(UniqueFd& other) { std::swap(m_Fd, other.m_Fd); }

  private:
    int m_Fd = -1;
};

}  // namespace kova

#endif
