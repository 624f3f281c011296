/// The abnormal ends of a process. They return only on a thread that is aborting already.
#ifndef KOVA_FRAME_ABEND_H
#define KOVA_FRAME_ABEND_H

#include <kova/lifecycle.h>

#include <cstdint>

namespace kova {

inline constexpr uint32_t kAbendCode = 0x26C24100;

/// A lock or a semaphore is in doubt.
inline void AbendOfLock() { pabend(kAbendCode, 0x71000000, 0); }

/// An event is used without a name.
inline void AbendOfEvent() { pabend(kAbendCode, 0, 0); }

/// A thread cannot be started.
inline void AbendOfThread() { pabend(kAbendCode, 0, 0); }

}  // namespace kova

#endif
