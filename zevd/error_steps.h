// How the debug output and the thread names are kept, for the file itself and for its tests.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstddef>

namespace zevd {

/// Initialises debug_lock; a failure ends the process. Called by the first zev_debug(), before
/// there is a second thread.
void InitializeDebugThreadLock();

inline constexpr int kThreadNameSlots = 50;
inline constexpr size_t kThreadNameSize = 33;

/// A slot is claimed with one compare-and-swap of `in_use`, filled, then published by setting
/// `in_use` to 1. Only the thread whose id stands in a published slot reads the slot's name.
struct ThreadName {
  std::atomic<int> in_use;    ///< 0: free, 1: taken, 2: being filled
  std::atomic<pthread_t> id;  ///< the thread that owns the slot
  char name[kThreadNameSize];
};

struct ThreadNameList {
  ThreadName slot[kThreadNameSlots];
};

extern ThreadNameList thread_name_list;

}  // namespace zevd
