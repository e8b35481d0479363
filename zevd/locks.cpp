#include "locks.h"

#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "error.h"

namespace zevd {

RwLock icl_lock;
RwLock acl_lock;
RwLock ul_lock;
RwLock cmd_lock;

namespace {

constexpr time_t kHungAfter = 5;  // seconds

/// What differs between locking for reading and for writing. The texts that say "write" for a read
/// lock (the request always, the grant in a pair) are part of the trace format.
struct LockKind {
  int (*lock)(pthread_rwlock_t*);
  int (*try_lock)(pthread_rwlock_t*);
  const char* name;  // "read" or "write"
  const char* lock_call;
  const char* try_call;
};

constexpr LockKind kWrite = {pthread_rwlock_wrlock, pthread_rwlock_trywrlock, "write",
                             "pthread_rwlock_wrlock", "pthread_rwlock_trywrlock"};
constexpr LockKind kRead = {pthread_rwlock_rdlock, pthread_rwlock_tryrdlock, "read",
                            "pthread_rwlock_rdlock", "pthread_rwlock_tryrdlock"};

unsigned long Identity(RwLock& lock) {
  return reinterpret_cast<unsigned long>(&lock);
}

void TraceRequest(RwLock& lock, CallSite site) {
  zev_debug(kTrace, "%s: Requesting write lock %lx at line %d\n", site.function, Identity(lock),
            site.line);
}

// A pair is tried for at intervals, so a thread that takes its single lock again and again would
// keep it out. Once in a row, or pairs would keep that thread out.
void LetPairGoFirst(const RwLock& lock) {
  static thread_local bool did_so = false;
  int steps = did_so ? 0 : kCourtesyTime / (kTryPause + kTimerSlack);
  for (did_so = false; steps > 0 && lock.IsAnnounced(); --steps) {
    did_so = true;
    usleep(kTryPause);
  }
}

bool Lock(const LockKind& kind, RwLock& lock, CallSite site) {
  TraceRequest(lock, site);
  LetPairGoFirst(lock);
  lock.BeginWait();
  const int error = kind.lock(lock.native());
  lock.EndWait();
  if (error != 0) {
    zev_debug(kError, "%s: %s failed : %s\n", site.function, kind.lock_call, strerror(error));
    return false;
  }
  zev_debug(kTrace, "%s: Aquired %s lock %lx\n", site.function, kind.name, Identity(lock));
  return true;
}

void Unlock(RwLock& lock, const char* function) {
  zev_debug(kTrace, "%s: Releasing lock %lx\n", function, Identity(lock));
  const int error = pthread_rwlock_unlock(lock.native());
  if (error != 0) {
    zev_debug(kError, "%s: pthread_rwlock_unlock failed : %s\n", function, strerror(error));
  }
}

bool TryLock(const LockKind& kind, RwLock& lock, CallSite site) {
  TraceRequest(lock, site);
  int error = kind.try_lock(lock.native());
  for (int retries = kTryRetries; error == EBUSY && retries > 0; --retries) {
    usleep(kTryPause);
    error = kind.try_lock(lock.native());
  }
  if (error == 0) {
    zev_debug(kTrace, "%s: Aquired write lock %lx\n", site.function, Identity(lock));
  } else if (error != EBUSY) {
    zev_debug(kTrace, "%s: %s failed : %s\n", site.function, kind.try_call, strerror(error));
  }
  return error == 0;
}

/// Says that a pair is wanted.
class Announcement {
 public:
  Announcement(RwLock& first, RwLock& second) : first_(first), second_(second) {
    first_.Announce();
    second_.Announce();
  }
  ~Announcement() {
    first_.Withdraw();
    second_.Withdraw();
  }
  Announcement(const Announcement&) = delete;
  Announcement& operator=(const Announcement&) = delete;

 private:
  RwLock& first_;
  RwLock& second_;
};

/// Taken while one thread tries for a pair, or holds locks for long.
std::atomic<bool> turn_taken{false};

/// The calling thread has declared a LongHold and has the turn already.
thread_local bool holds_for_long = false;

// False when nobody gave the turn back in time; the caller then goes on all the same.
bool TakeTurn() {
  constexpr int kMostTime = 2'000'000;  // microseconds
  for (int steps = kMostTime / (kTryPause + kTimerSlack); steps > 0; --steps) {
    if (!turn_taken.exchange(true)) return true;
    usleep(kTryPause);
  }
  return false;
}

/// A thread's turn to try for a pair. Two that try at the same time for locks that they want in
/// opposite orders would both have to stay away for a while.
class PairTurn {
 public:
  PairTurn() : taken_(!holds_for_long && TakeTurn()) {}
  ~PairTurn() {
    if (taken_) turn_taken = false;
  }
  PairTurn(const PairTurn&) = delete;
  PairTurn& operator=(const PairTurn&) = delete;

 private:
  bool taken_;
};

bool TryLockBoth(const LockKind& kind, RwLock& first, RwLock& second, CallSite site) {
  const PairTurn turn;
  const Announcement announcement(first, second);
  if (!TryLock(kind, first, site)) return false;
  if (TryLock(kind, second, site)) return true;
  Unlock(first, site.function);
  return false;
}

// A pseudo-random pause below one second, so that two threads that want the same pair in opposite
// orders do not collide again and again.
void BackOff() {
  timeval now{};
  gettimeofday(&now, nullptr);
  usleep(static_cast<useconds_t>(now.tv_usec));
}

void LockBoth(const LockKind& kind, RwLock& first, RwLock& second, CallSite site) {
  const time_t start = time(nullptr);
  bool hung = false;
  while (!TryLockBoth(kind, first, second, site)) {
    BackOff();
    if (!hung && time(nullptr) - start > kHungAfter) {
      zev_debug(kInfo, "%s: Hung on %s locks %lx and %lx at line %d\n", site.function, kind.name,
                Identity(first), Identity(second), site.line);
      hung = true;
    }
  }
  if (hung) {
    zev_debug(kInfo, "%s: Aquired %s locks %lx and %lx at line %d\n", site.function, kind.name,
              Identity(first), Identity(second), site.line);
  }
}

void UnlockBoth(RwLock& first, RwLock& second, Release order, const char* function) {
  const bool first_first = order == Release::kFirstFirst;
  Unlock(first_first ? first : second, function);
  Unlock(first_first ? second : first, function);
}

}  // namespace

// A lock call that failed must not be followed by an unlock: that would release somebody else's
// hold of the lock.

WriteLock::WriteLock(RwLock& lock, CallSite site)
    : lock_(lock), site_(site), held_(Lock(kWrite, lock, site)) {}

WriteLock::~WriteLock() {
  Release();
}

void WriteLock::Release() {
  if (held_) Unlock(lock_, site_.function);
  held_ = false;
}

void WriteLock::LetOthersIn() NO_THREAD_SAFETY_ANALYSIS {  // it is held again at the end
  Release();
  // Without a pause the lock would be taken again before one who waits has woken up.
  if (lock_.IsWaitedFor()) usleep(kTryPause);
  held_ = Lock(kWrite, lock_, site_);
}

ReadLock::ReadLock(RwLock& lock, CallSite site)
    : lock_(lock), function_(site.function), held_(Lock(kRead, lock, site)) {}

ReadLock::~ReadLock() {
  Release();
}

void ReadLock::Release() {
  if (held_) Unlock(lock_, function_);
  held_ = false;
}

LongHold::LongHold() : taken_(TakeTurn()) {
  holds_for_long = true;
}

LongHold::~LongHold() {
  holds_for_long = false;
  if (taken_) turn_taken = false;
}

WriteLockPair::WriteLockPair(RwLock& first, RwLock& second, zevd::Release order, CallSite site)
    : first_(first), second_(second), order_(order), function_(site.function) {
  LockBoth(kWrite, first, second, site);
}

WriteLockPair::~WriteLockPair() {
  UnlockBoth(first_, second_, order_, function_);
}

ReadLockPair::ReadLockPair(RwLock& first, RwLock& second, zevd::Release order, CallSite site)
    : first_(first), second_(second), order_(order), function_(site.function) {
  LockBoth(kRead, first, second, site);
}

ReadLockPair::~ReadLockPair() {
  if (held_) UnlockBoth(first_, second_, order_, function_);
}

void ReadLockPair::ReleaseFirstAndKeepSecondForEver() {
  Unlock(first_, function_);
  held_ = false;
}

void ReadLockPair::ReleaseSecondAndKeepFirstForEver() {
  Unlock(second_, function_);
  held_ = false;
}

}  // namespace zevd
