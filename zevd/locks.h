// The shared read-write locks and the only ways to take them.
//
// There is no global lock order. A thread may wait for one lock. It takes two only with the pair
// guards: while they hold the first they try the second for a short time (kPairTryTime), and when
// it cannot be had they release the first and back off. Two courtesies keep the back-offs rare: who
// is about to take a single lock lets a pair that wants it go first, and those who want pairs try
// one after the other, not while a LongHold lasts. The thread cmd_mon holds cmd_lock while it takes
// the locks of the console lists; nobody takes cmd_lock while holding one of those. Every request,
// grant and release is traced at level 3 with the name of the calling function and the address of
// the lock.
#pragma once

#include <pthread.h>

#include <atomic>

#include "thread_safety.h"

namespace zevd {

/// A read-write lock with default attributes. Never destroyed: threads run until the process ends.
class CAPABILITY("rwlock") RwLock {
 public:
  constexpr RwLock() = default;
  RwLock(const RwLock&) = delete;
  RwLock& operator=(const RwLock&) = delete;

  pthread_rwlock_t* native() { return &native_; }

  /// A pair guard that tries for this lock and another announces that, until it has both or gives
  /// up for a while.
  void Announce() { ++announced_; }
  void Withdraw() { --announced_; }
  bool IsAnnounced() const { return announced_ > 0; }

  /// A thread that takes this lock alone counts as waiting until it has it.
  void BeginWait() { ++waiting_; }
  void EndWait() { --waiting_; }
  bool IsWaitedFor() const { return waiting_ > 0; }

 private:
  pthread_rwlock_t native_ = PTHREAD_RWLOCK_INITIALIZER;
  std::atomic<int> announced_{0};  ///< pairs that are being tried for
  std::atomic<int> waiting_{0};
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

  /// Releases the lock and waits for it again, so that others have it in between.
  void LetOthersIn();

 private:
  RwLock& lock_;
  CallSite site_;
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

/// By how much the kernel may prolong a pause: the timer slack of every thread, in microseconds,
/// which is the default (prctl(2), PR_SET_TIMERSLACK).
inline constexpr int kTimerSlack = 50;

/// Microseconds for which a pair guard tries each lock before it leaves both alone for a random
/// time below one second. Whoever holds a single list lock for less keeps nobody away for long.
inline constexpr int kPairTryTime = kTryRetries * (kTryPause + kTimerSlack);

/// Microseconds for which whoever is about to take a single lock lets a pair go first, at most and
/// never twice in a row.
inline constexpr int kCourtesyTime = 2000;

/// To be declared before locks are taken that will be held for much longer than a pair is tried
/// for. It waits until nobody tries for a pair, and until it ends nobody else begins to: they would
/// only find that they have to stay away for up to a second. Nobody waits for more than 2 seconds.
/// The thread that declares it may take pairs itself; it declares one at a time.
class LongHold {
 public:
  LongHold();
  ~LongHold();
  LongHold(const LongHold&) = delete;
  LongHold& operator=(const LongHold&) = delete;

 private:
  bool taken_;
};

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
