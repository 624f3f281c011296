/// Keeps `errno` over a scope.
#ifndef KOVA_FRAME_ERRNO_GUARD_H
#define KOVA_FRAME_ERRNO_GUARD_H

#include <cerrno>

namespace kova {

class ErrnoGuard {
  public:
    ErrnoGuard() : m_Saved(errno) {}
    ErrnoGuard(const ErrnoGuard&) = delete;
    ErrnoGuard& operator=(const ErrnoGuard&) = delete;
    ~ErrnoGuard() { errno = m_Saved; }

  private:
    const int m_Saved;
};

}  // namespace kova

#endif
