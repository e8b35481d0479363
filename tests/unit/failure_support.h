// Failures and clocks on demand. They affect the calling thread alone, and only calls that the
// daemon's and the tests' own code makes.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <ctime>
#include <functional>
#include <vector>

namespace test {

/// Makes allocations fail (operator new, calloc, realloc and strdup, counted together from 1).
class FailAllocation {
 public:
  static constexpr int kForEver = 1 << 30;
  explicit FailAllocation(int first, int count = 1);
  ~FailAllocation();
  FailAllocation(const FailAllocation&) = delete;
  FailAllocation& operator=(const FailAllocation&) = delete;

  int calls() const;     ///< allocations so far
  bool reached() const;  ///< at least one has failed
};

/// System and library calls that can be made to fail.
enum class Call {
  kAccept,
  kConnect,
  kDaemon,
  kEpollCreate,
  kEpollCtl,
  kEventfd,
  kFchown,
  kFlock,
  kFtruncate,
  kGethostname,
  kMutexLock,
  kPoll,
  kPpoll,
  kPthreadCreate,
  kRdlock,
  kRecv,
  kRwlockInit,
  kRwlockUnlock,
  kSelect,
  kSend,
  kSigaction,
  kSigprocmask,
  kSocket,
  kTryrdlock,
  kTrywrlock,
  kUsleep,
  kWrite,
  kWrlock,
  kCount,
};

/// Makes the calls from number `first` on, `count` of them, fail with `error`; with `count` 0 it
/// only counts. There is one at a time for each call.
class FailCall {
 public:
  static constexpr int kForEver = 1 << 30;
  /// In place of an error number: the call is not made and returns 0.
  static constexpr int kPretend = -1;
  explicit FailCall(Call call, int error, int first = 1, int count = kForEver);
  ~FailCall();
  FailCall(const FailCall&) = delete;
  FailCall& operator=(const FailCall&) = delete;

  int calls() const;

 private:
  Call call_;
};

/// Each time the calling thread reads the monotonic clock, `step` microseconds have passed.
class FakePassageOfTime {
 public:
  explicit FakePassageOfTime(int64_t step);
  ~FakePassageOfTime();
  FakePassageOfTime(const FakePassageOfTime&) = delete;
  FakePassageOfTime& operator=(const FakePassageOfTime&) = delete;

  /// Lets so many microseconds pass now.
  void Pass(int64_t microseconds);
};

/// Sets time() and gettimeofday().
class FakeClock {
 public:
  explicit FakeClock(time_t now = 1'000'000'000);
  ~FakeClock();
  FakeClock(const FakeClock&) = delete;
  FakeClock& operator=(const FakeClock&) = delete;

  time_t now() const;
  void Set(time_t now);
  void Advance(time_t seconds);

  /// From now on usleep() does not sleep and advances the clock by whole seconds.
  void AdvanceOnSleep(time_t seconds);

  /// From now on usleep() does not sleep and runs `action` with its argument; so does ppoll() with
  /// a time limit and without a signal mask, and finds nothing.
  void OnSleep(std::function<void(useconds_t)> action);

  /// The microseconds field of gettimeofday(); 0 at first.
  void SetMicroseconds(suseconds_t microseconds);

  /// The arguments of usleep() so far, and the time limits of such ppoll() calls.
  const std::vector<useconds_t>& sleeps() const;
};

}  // namespace test
