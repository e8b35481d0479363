#include "failure_support.h"

#include <poll.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <ctime>
#include <functional>
#include <new>
#include <optional>
#include <utility>
#include <vector>

namespace test {

namespace {

/// Which calls of one kind fail.
struct Failure {
  int first;
  int count;
  int error;
  int calls;

  // Counts one call; true when it fails.
  bool Next() {
    ++calls;
    return calls >= first && calls - first < count;
  }
};

struct Clock {
  time_t now;
  suseconds_t microseconds;
  std::function<void(useconds_t)> on_sleep;
  std::vector<useconds_t> sleeps;
};

thread_local std::optional<Failure> failing_allocation;
thread_local std::array<std::optional<Failure>, static_cast<size_t>(Call::kCount)> failing_calls;
thread_local Clock* fake_clock = nullptr;

std::optional<Failure>& FailureOf(Call call) {
  return failing_calls.at(static_cast<size_t>(call));
}

bool AllocationFails() {
  if (!failing_allocation || !failing_allocation->Next()) return false;
  errno = ENOMEM;
  return true;
}

// The error with which this call fails, 0 when it is made.
int ErrorOf(Call call) {
  std::optional<Failure>& failure = FailureOf(call);
  return failure && failure->Next() ? failure->error : 0;
}

// What a call that reports through errno returns when it is not made.
std::optional<int> ResultOf(Call call) {
  const int error = ErrorOf(call);
  if (error == 0) return std::nullopt;
  if (error == FailCall::kPretend) return 0;
  errno = error;
  return -1;
}

}  // namespace

FailAllocation::FailAllocation(int first, int count) {
  failing_allocation = Failure{first, count, ENOMEM, 0};
}

FailAllocation::~FailAllocation() {
  failing_allocation.reset();
}

int FailAllocation::calls() const {
  return failing_allocation->calls;
}

bool FailAllocation::reached() const {
  return failing_allocation->calls >= failing_allocation->first;
}

FailCall::FailCall(Call call, int error, int first, int count) : call_(call) {
  FailureOf(call) = Failure{first, count, error, 0};
}

FailCall::~FailCall() {
  FailureOf(call_).reset();
}

int FailCall::calls() const {
  return FailureOf(call_)->calls;
}

namespace {

thread_local int64_t passage_step = 0;
thread_local int64_t passage_time = 0;

}  // namespace

FakePassageOfTime::FakePassageOfTime(int64_t step) {
  passage_step = step;
}

FakePassageOfTime::~FakePassageOfTime() {
  passage_step = 0;
}

void FakePassageOfTime::Pass(int64_t microseconds) {
  passage_time += microseconds;
}

FakeClock::FakeClock(time_t now) {
  fake_clock = new Clock{now, 0, nullptr, {}};
}

FakeClock::~FakeClock() {
  delete std::exchange(fake_clock, nullptr);
}

time_t FakeClock::now() const {
  return fake_clock->now;
}

void FakeClock::Set(time_t now) {
  fake_clock->now = now;
}

void FakeClock::Advance(time_t seconds) {
  fake_clock->now += seconds;
}

void FakeClock::AdvanceOnSleep(time_t seconds) {
  OnSleep([this, seconds](useconds_t) { Advance(seconds); });
}

void FakeClock::OnSleep(std::function<void(useconds_t)> action) {
  fake_clock->on_sleep = std::move(action);
}

void FakeClock::SetMicroseconds(suseconds_t microseconds) {
  fake_clock->microseconds = microseconds;
}

const std::vector<useconds_t>& FakeClock::sleeps() const {
  return fake_clock->sleeps;
}

}  // namespace test

// ---- The wrapped calls (the linker's --wrap) ----------------------------------------------------

using test::Call;

// A call that returns -1 and sets errno.
#define WRAP_ERRNO(type, name, call, parameters, arguments) \
  extern "C" type __real_##name parameters;                 \
  extern "C" type __wrap_##name parameters;                 \
  extern "C" type __wrap_##name parameters {                \
    const std::optional<int> result = test::ResultOf(call); \
    return result ? *result : __real_##name arguments;      \
  }

// A call that returns the error number.
#define WRAP_RESULT(name, call, parameters, arguments)   \
  extern "C" int __real_##name parameters;               \
  extern "C" int __wrap_##name parameters;               \
  extern "C" int __wrap_##name parameters {              \
    const int error = test::ErrorOf(call);               \
    return error != 0 ? error : __real_##name arguments; \
  }

WRAP_ERRNO(int, accept4, Call::kAccept, (int fd, sockaddr* peer, socklen_t* length, int flags),
           (fd, peer, length, flags))
WRAP_ERRNO(int, connect, Call::kConnect, (int fd, const sockaddr* peer, socklen_t length),
           (fd, peer, length))
WRAP_ERRNO(int, daemon, Call::kDaemon, (int no_chdir, int no_close), (no_chdir, no_close))
WRAP_ERRNO(int, epoll_create1, Call::kEpollCreate, (int flags), (flags))
WRAP_ERRNO(int, epoll_ctl, Call::kEpollCtl, (int fd, int operation, int member, epoll_event* event),
           (fd, operation, member, event))
WRAP_ERRNO(int, eventfd, Call::kEventfd, (unsigned initial, int flags), (initial, flags))
WRAP_ERRNO(int, fchown, Call::kFchown, (int fd, uid_t owner, gid_t group), (fd, owner, group))
WRAP_ERRNO(int, flock, Call::kFlock, (int fd, int operation), (fd, operation))
WRAP_ERRNO(int, ftruncate, Call::kFtruncate, (int fd, off_t length), (fd, length))
WRAP_ERRNO(int, gethostname, Call::kGethostname, (char* name, size_t size), (name, size))
WRAP_ERRNO(ssize_t, recv, Call::kRecv, (int fd, void* buf, size_t size, int flags),
           (fd, buf, size, flags))
WRAP_ERRNO(int, select, Call::kSelect,
           (int width, fd_set* readable, fd_set* writable, fd_set* exceptional, timeval* timeout),
           (width, readable, writable, exceptional, timeout))
WRAP_ERRNO(ssize_t, send, Call::kSend, (int fd, const void* buf, size_t size, int flags),
           (fd, buf, size, flags))
WRAP_ERRNO(int, sigaction, Call::kSigaction,
           (int signum, const struct sigaction* action, struct sigaction* old),
           (signum, action, old))
WRAP_ERRNO(int, sigprocmask, Call::kSigprocmask, (int how, const sigset_t* set, sigset_t* old),
           (how, set, old))
WRAP_ERRNO(int, socket, Call::kSocket, (int domain, int type, int protocol),
           (domain, type, protocol))

WRAP_RESULT(pthread_mutex_lock, Call::kMutexLock, (pthread_mutex_t * mutex), (mutex))
WRAP_RESULT(pthread_create, Call::kPthreadCreate,
            (pthread_t * thread, const pthread_attr_t* attr, void* (*start)(void*), void* arg),
            (thread, attr, start, arg))
WRAP_RESULT(pthread_rwlock_init, Call::kRwlockInit,
            (pthread_rwlock_t * lock, const pthread_rwlockattr_t* attr), (lock, attr))
WRAP_RESULT(pthread_rwlock_rdlock, Call::kRdlock, (pthread_rwlock_t * lock), (lock))
WRAP_RESULT(pthread_rwlock_tryrdlock, Call::kTryrdlock, (pthread_rwlock_t * lock), (lock))
WRAP_RESULT(pthread_rwlock_trywrlock, Call::kTrywrlock, (pthread_rwlock_t * lock), (lock))
WRAP_RESULT(pthread_rwlock_unlock, Call::kRwlockUnlock, (pthread_rwlock_t * lock), (lock))
WRAP_RESULT(pthread_rwlock_wrlock, Call::kWrlock, (pthread_rwlock_t * lock), (lock))

extern "C" {

// The debug output waits and writes too, which no test means.

int __real_poll(pollfd* fds, nfds_t count, int timeout);
int __wrap_poll(pollfd* fds, nfds_t count, int timeout);
int __wrap_poll(pollfd* fds, nfds_t count, int timeout) {
  const bool output = count == 1 && fds[0].fd == STDOUT_FILENO;
  const std::optional<int> result = output ? std::nullopt : test::ResultOf(Call::kPoll);
  return result ? *result : __real_poll(fds, count, timeout);
}

int __real_ppoll(pollfd* fds, nfds_t count, const timespec* limit, const sigset_t* mask);
int __wrap_ppoll(pollfd* fds, nfds_t count, const timespec* limit, const sigset_t* mask);
int __wrap_ppoll(pollfd* fds, nfds_t count, const timespec* limit, const sigset_t* mask) {
  const std::optional<int> result = test::ResultOf(Call::kPpoll);
  if (result) return *result;
  const bool pauses = test::fake_clock != nullptr && test::fake_clock->on_sleep && mask == nullptr;
  if (!pauses) return __real_ppoll(fds, count, limit, mask);
  const auto pause = static_cast<useconds_t>(limit->tv_sec * 1'000'000 + limit->tv_nsec / 1000);
  test::fake_clock->sleeps.push_back(pause);
  test::fake_clock->on_sleep(pause);
  return 0;
}

ssize_t __real_write(int fd, const void* buf, size_t size);
ssize_t __wrap_write(int fd, const void* buf, size_t size);
ssize_t __wrap_write(int fd, const void* buf, size_t size) {
  const std::optional<int> result =
      fd == STDOUT_FILENO ? std::nullopt : test::ResultOf(Call::kWrite);
  return result ? *result : __real_write(fd, buf, size);
}

time_t __real_time(time_t* result);
time_t __wrap_time(time_t* result);
time_t __wrap_time(time_t* result) {
  if (test::fake_clock == nullptr) return __real_time(result);
  if (result != nullptr) *result = test::fake_clock->now;
  return test::fake_clock->now;
}

int __real_clock_gettime(clockid_t clock, timespec* now);
int __wrap_clock_gettime(clockid_t clock, timespec* now);
int __wrap_clock_gettime(clockid_t clock, timespec* now) {
  if (clock != CLOCK_MONOTONIC || test::passage_step == 0) return __real_clock_gettime(clock, now);
  test::passage_time += test::passage_step;
  *now = {test::passage_time / 1'000'000, test::passage_time % 1'000'000 * 1000};
  return 0;
}

int __real_gettimeofday(timeval* now, void* zone);
int __wrap_gettimeofday(timeval* now, void* zone);
int __wrap_gettimeofday(timeval* now, void* zone) {
  if (test::fake_clock == nullptr) return __real_gettimeofday(now, zone);
  *now = {test::fake_clock->now, test::fake_clock->microseconds};
  return 0;
}

int __real_usleep(useconds_t pause);
int __wrap_usleep(useconds_t pause);
int __wrap_usleep(useconds_t pause) {
  if (test::ResultOf(Call::kUsleep)) return -1;
  if (test::fake_clock == nullptr) return __real_usleep(pause);
  test::fake_clock->sleeps.push_back(pause);
  if (!test::fake_clock->on_sleep) return __real_usleep(pause);
  test::fake_clock->on_sleep(pause);
  return 0;
}

void* __real_calloc(size_t count, size_t size);
void* __wrap_calloc(size_t count, size_t size);
void* __wrap_calloc(size_t count, size_t size) {
  return test::AllocationFails() ? nullptr : __real_calloc(count, size);
}

void* __real_realloc(void* block, size_t size);
void* __wrap_realloc(void* block, size_t size);
void* __wrap_realloc(void* block, size_t size) {
  return test::AllocationFails() ? nullptr : __real_realloc(block, size);
}

char* __real_strdup(const char* text);
char* __wrap_strdup(const char* text);
char* __wrap_strdup(const char* text) {
  return test::AllocationFails() ? nullptr : __real_strdup(text);
}

// operator new, its nothrow form, and the nothrow form for arrays.
void* __real__Znwm(size_t size);
void* __wrap__Znwm(size_t size);
void* __wrap__Znwm(size_t size) {
  if (test::AllocationFails()) throw std::bad_alloc();
  return __real__Znwm(size);
}

void* __real__ZnwmRKSt9nothrow_t(size_t size, const std::nothrow_t& tag);
void* __wrap__ZnwmRKSt9nothrow_t(size_t size, const std::nothrow_t& tag);
void* __wrap__ZnwmRKSt9nothrow_t(size_t size, const std::nothrow_t& tag) {
  return test::AllocationFails() ? nullptr : __real__ZnwmRKSt9nothrow_t(size, tag);
}

void* __real__ZnamRKSt9nothrow_t(size_t size, const std::nothrow_t& tag);
void* __wrap__ZnamRKSt9nothrow_t(size_t size, const std::nothrow_t& tag);
void* __wrap__ZnamRKSt9nothrow_t(size_t size, const std::nothrow_t& tag) {
  return test::AllocationFails() ? nullptr : __real__ZnamRKSt9nothrow_t(size, tag);
}

}  // extern "C"
