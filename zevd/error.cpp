#include "error.h"

#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "bounded_output.h"
#include "error_steps.h"
#include "fixed_text.h"
#include "options.h"
#include "signal_hold.h"
#include "thread_safety.h"
#include "timestamp.h"

namespace zevd {

ThreadNameList thread_name_list;

namespace {

constexpr int kSlotFree = 0;
constexpr int kSlotTaken = 1;
constexpr int kSlotBeingFilled = 2;

std::atomic<EventPoster> event_poster{nullptr};
std::atomic<EndStep> end_step{nullptr};

constexpr size_t kMessageSize = 8192;
constexpr unsigned kExitSeconds = 1;  // for which a second thread leaves the process to the first

// For a failure of the debug lock itself, when the usual way to report it is closed.
void ReportOnStandardError(const char* call, const char* function, int error) {
  char text[256];
  snprintf(text, sizeof text, "%s: %s failed : %s\n", function, call, strerror(error));
  BoundedOutput(STDERR_FILENO).Write("", text, 1);
}

[[noreturn]] void DieWithoutTrace(const char* call, const char* function, int error) {
  ReportOnStandardError(call, function, error);
  exit(1);
}

/// Serialises the debug output. A read-write lock where a Mutex would do, because a thread that
/// holds it and asks again is refused (EDEADLK): the SIGTERM handler may have interrupted that
/// thread, and must not wait for ever.
class CAPABILITY("debug lock") DebugLock {
 public:
  /// 0 or an error number.
  int Initialize() { return pthread_rwlock_init(&native_, nullptr); }

  void Lock() ACQUIRE() {
    const int error = pthread_rwlock_wrlock(&native_);
    if (error != 0) DieWithoutTrace("pthread_rwlock_wrlock", "zev_debug", error);
  }

  void Unlock() RELEASE() {
    const int error = pthread_rwlock_unlock(&native_);
    if (error != 0) DieWithoutTrace("pthread_rwlock_unlock", "zev_debug", error);
  }

 private:
  pthread_rwlock_t native_;
};

DebugLock debug_lock;
int first_time = 1;  // the first call is the main thread's, before any other thread exists

char msg[kMessageSize] GUARDED_BY(debug_lock);
char last_msg[kMessageSize] GUARDED_BY(debug_lock) = "XXXX";
/// Nobody saw the last message, so to call an equal one a repetition would mislead.
bool last_msg_dropped GUARDED_BY(debug_lock) = false;
int msg_count GUARDED_BY(debug_lock) = 0;
/// Has room for the longest message and for two heads: its own and that of the count.
char composed[BoundedOutput::kLongestText] GUARDED_BY(debug_lock);
BoundedOutput output GUARDED_BY(debug_lock)(STDOUT_FILENO);

const char* CallingThreadName() {
  for (const ThreadName& slot : thread_name_list.slot) {
    if (slot.in_use.load(std::memory_order_acquire) == kSlotTaken &&
        slot.id.load(std::memory_order_relaxed) == pthread_self()) {
      return slot.name;
    }
  }
  return "unknown";
}

// Writes `msg` unless it repeats the last one.
void WriteMessage() REQUIRES(debug_lock) {
  if (!last_msg_dropped && strcmp(msg, last_msg) == 0) {
    ++msg_count;
    return;
  }
  char stamp[80];
  GetTimeStamp(stamp, sizeof stamp);
  int size = 0;
  if (msg_count > 0) {
    size = snprintf(composed, sizeof composed, "ZEV %s: Last message repeated %d times\n", stamp,
                    msg_count);
  }
  size += snprintf(composed + size, sizeof composed - static_cast<size_t>(size), "ZEV %s:<%s>: %s",
                   stamp, CallingThreadName(), msg);
  const auto messages = static_cast<unsigned long>(msg_count) + 1;
  last_msg_dropped = !output.Write(stamp, {composed, static_cast<size_t>(size)}, messages);
  memcpy(last_msg, msg, sizeof msg);
  msg_count = 0;
}

}  // namespace

void InitializeDebugThreadLock() {
  const int error = debug_lock.Initialize();
  if (error != 0) {
    ReportOnStandardError("pthread_rw_lockinit()", __func__, error);
    debug_level = kError - 1;  // posting must not come back here
    PostDaemonError("Terminated: Cannot initialize debug thread lock", kErrorPriority);
    exit(1);
  }
}

void zev_debug(int level, const char* format, ...) {
  if (first_time != 0) {
    first_time = 0;
    InitializeDebugThreadLock();
  }
  if (level > debug_level) return;
  const int saved_errno = errno;
  {
    const TermSignalHold hold;
    debug_lock.Lock();
    va_list args;
    va_start(args, format);
    vsnprintf(msg, sizeof msg, format, args);
    va_end(args);
    WriteMessage();
    debug_lock.Unlock();
  }
  errno = saved_errno;
}

void RegisterThread(const char* name) {
  for (ThreadName& slot : thread_name_list.slot) {
    int expected = kSlotFree;
    if (!slot.in_use.compare_exchange_strong(expected, kSlotBeingFilled)) continue;
    CopyText(slot.name, name);
    slot.id.store(pthread_self(), std::memory_order_relaxed);
    slot.in_use.store(kSlotTaken, std::memory_order_release);
    return;
  }
}

void UnregisterThread() {
  for (ThreadName& slot : thread_name_list.slot) {
    if (slot.in_use.load(std::memory_order_acquire) == kSlotTaken &&
        slot.id.load(std::memory_order_relaxed) == pthread_self()) {
      slot.in_use.store(kSlotFree, std::memory_order_release);
      return;
    }
  }
}

void ClearThreadNames() {
  for (ThreadName& slot : thread_name_list.slot) slot.in_use.store(kSlotFree);
}

void SetEventPoster(EventPoster poster) {
  event_poster = poster;
}

void PostDaemonError(const char* text, int priority) {
  const EventPoster poster = event_poster;
  if (poster != nullptr) poster(text, priority);
}

void SetEndStep(EndStep step) {
  end_step = step;
}

void ExitProcess(int code, const char* file, int line) {
  zev_debug(kInfo, "Exiting with code %d from file %s line %d\n", code, file, line);
  // exit() must run once. A second thread leaves the first the time that it needs, but no more: the
  // second may be the SIGTERM handler, and the thread that it interrupted may hold what the first
  // waits for. When the handler has interrupted exit() itself, there is nothing to wait for.
  static std::atomic<pthread_t> leaving{};
  pthread_t nobody{};
  if (leaving.compare_exchange_strong(nobody, pthread_self())) {
    if (const EndStep step = end_step; step != nullptr) step();
    exit(code);
  }
  if (leaving.load() != pthread_self()) sleep(kExitSeconds);
  _exit(code);
}

void TerminateProcess(const char* text, const char* file, int line) {
  PostDaemonError(text, kErrorPriority);
  ExitProcess(1, file, line);
}

void ReportOutOfMemory(const char* function) {
  zev_debug(kError, "%s: malloc() failed : %s\n", function, strerror(errno));
  PostDaemonError("Out of memory", kErrorPriority);
}

}  // namespace zevd
