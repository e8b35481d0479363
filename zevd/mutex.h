// The mutexes beside the list locks. Each is a leaf but for what its own comment names, and guards
// what is annotated with it.
#pragma once

#include <pthread.h>

#include "thread_safety.h"

namespace zevd {

/// A mutex with default attributes. Never destroyed: threads run until the process ends.
class CAPABILITY("mutex") Mutex {
 public:
  constexpr Mutex() = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  pthread_mutex_t* native() { return &native_; }

 private:
  pthread_mutex_t native_ = PTHREAD_MUTEX_INITIALIZER;
};

/// Holds a mutex. With default attributes no call can fail but by a mistake of the caller's
/// (pthread_mutex_lock(3)).
class SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) ACQUIRE(mutex) : mutex_(mutex) {
    pthread_mutex_lock(mutex_.native());
  }
  ~MutexLock() RELEASE() { pthread_mutex_unlock(mutex_.native()); }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

 private:
  Mutex& mutex_;
};

}  // namespace zevd
