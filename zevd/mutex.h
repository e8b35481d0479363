// Mutexes, for what the list locks (locks.h) do not guard. A mutex guards what is annotated with
// it. A thread that holds one takes no other lock except those that the mutex's own comment names.
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

/// Holds a mutex. The calls on a mutex with default attributes fail only when the caller misuses
/// them (pthread_mutex_lock(3)).
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
