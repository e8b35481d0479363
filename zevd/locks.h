// The shared read-write locks and the only ways to take them.
//
// There is no global lock order. A thread may wait for one lock. It takes two only with the pair
// guards: while they hold the first they try the second for a short time (kPairTryTime), and when
// it cannot be had they release the first and back off. The thread cmd_mon holds cmd_lock while it
// takes the locks of the console lists; nobody takes cmd_lock while holding one of those. Every
// request, grant and release is traced at level 3 with the name of the calling function and the
// address of the lock.
#pragma once

#include <pthread.h>

#include "thread_safety.h"

namespace zevd {

/// A read-write lock with default attributes. Never destroyed: threads run until the process ends.
class CAPABILITY("rwlock") RwLock {
 public:
  constexpr RwLock() = default;
  RwLock(const RwLock&) = delete;
  RwLock& operator=(const RwLock&) = delete;

  pthread_rwlock_t* native() { return &native_; }

 private:
  pthread_rwlock_t native_ = PTHREAD_RWLOCK_INITIALIZER;
};

extern RwLock icl_lock;  ///< i_cons_list and the consoles on it
extern RwLock acl_lock;  ///< a_cons_list, the consoles on it and their user lists
extern RwLock ul_lock;   ///< user_list
extern RwLock cmd_lock;  ///< cmd_list

/// Where a lock is taken; the trace lines name it.
struct CallSite {
  const char* function;
  int line;
};
#define HERE (::zevd::CallSite{__func__, __LINE__})

/// Holds one lock for writing, and waits for it as long as it takes. When the lock call fails, that
/// is reported and the caller goes on as if it held the lock.
class SCOPED_CAPABILITY WriteLock {
 public:
  WriteLock(RwLock& lock, CallSite site) ACQUIRE(lock);
  ~WriteLock() RELEASE();
  WriteLock(const WriteLock&) = delete;
  WriteLock& operator=(const WriteLock&) = delete;

  /// Releases before the end of the scope; the destructor then does nothing.
  void Release() RELEASE();

 private:
  RwLock& lock_;
  const char* function_;
  bool held_;
};

/// The same for reading.
class SCOPED_CAPABILITY ReadLock {
 public:
  ReadLock(RwLock& lock, CallSite site) ACQUIRE_SHARED(lock);
  ~ReadLock() RELEASE_GENERIC();
  ReadLock(const ReadLock&) = delete;
  ReadLock& operator=(const ReadLock&) = delete;

  void Release() RELEASE_GENERIC();

 private:
  RwLock& lock_;
  const char* function_;
  bool held_;
};

/// Which of a pair's locks is released first.
enum class Release { kFirstFirst, kSecondFirst };

/// How many more times a pair guard tries a lock that somebody else holds, and its pause before
/// each of these tries in microseconds.
inline constexpr int kTryRetries = 10;
inline constexpr int kTryPause = 100;

/// By how much the kernel may prolong a pause: the default timer slack in microseconds (prctl(2),
/// PR_SET_TIMERSLACK).
inline constexpr int kTimerSlack = 50;

/// Microseconds for which a pair guard tries each lock before it leaves both alone for a random
/// time below one second; a thread with more timer slack (ShareWakeUps()) tries for longer. Whoever
/// holds a single list lock for less keeps nobody away for long.
inline constexpr int kPairTryTime = kTryRetries * (kTryPause + kTimerSlack);

/// Holds two locks, both for writing. Tries them for as long as it takes, and says so once when
/// that has lasted more than 5 seconds.
class SCOPED_CAPABILITY WriteLockPair {
 public:
  WriteLockPair(RwLock& first, RwLock& second, Release order, CallSite site) ACQUIRE(first, second);
  ~WriteLockPair() RELEASE();
  WriteLockPair(const WriteLockPair&) = delete;
  WriteLockPair& operator=(const WriteLockPair&) = delete;

 private:
  RwLock& first_;
  RwLock& second_;
  Release order_;
  const char* function_;
};

/// The same for reading.
class SCOPED_CAPABILITY ReadLockPair {
 public:
  ReadLockPair(RwLock& first, RwLock& second, Release order, CallSite site)
      ACQUIRE_SHARED(first, second);
  ~ReadLockPair() RELEASE_GENERIC();
  ReadLockPair(const ReadLockPair&) = delete;
  ReadLockPair& operator=(const ReadLockPair&) = delete;

  /// Releases one of the two at once and never releases the other: the destructor then does
  /// nothing. Only for the callers that say so.
  void ReleaseFirstAndKeepSecondForEver() NO_THREAD_SAFETY_ANALYSIS;
  void ReleaseSecondAndKeepFirstForEver() NO_THREAD_SAFETY_ANALYSIS;

 private:
  RwLock& first_;
  RwLock& second_;
  Release order_;
  const char* function_;
  bool held_ = true;
};

}  // namespace zevd
