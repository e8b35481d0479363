// The life of the thread "journal".
//
// main starts it, or the thread "cons_mon" at the first reload that switches the journal on; it
// never ends. It waits for records in the queue, for the end of a segment's hour and, while the
// system refuses to write, for the next try (journal_waker ends the wait). Then it gathers what
// comes within a moment, and writes it. It alone opens, writes and closes the journal's files. It
// holds no list lock, and of mutexes only those of the queue and of the status, neither while it
// writes: nobody waits for it, except the end of the process, for a second at most.
#include "journal_keeper.h"

#include <poll.h>
#include <pthread.h>
#include <sys/random.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cinttypes>
#include <cstring>
#include <exception>
#include <new>

#include "clock.h"
#include "error.h"
#include "journal_fields.h"
#include "journal_queue.h"
#include "journal_records.h"
#include "journal_settings.h"
#include "journal_writer.h"
#include "lists.h"
#include "mutex.h"
#include "paths.h"
#include "waker.h"
#include "zev_signal.h"

namespace zevd {

using journal::Field;
using journal::FieldWriter;

namespace {

constexpr char kJournal[] = "Journal";
constexpr int64_t kGather = 80;           // milliseconds for which records wait for others
constexpr int64_t kRetryInterval = 1000;  // milliseconds between two tries to write
constexpr int64_t kEndLimit = 800;        // milliseconds that the end waits for the thread
constexpr useconds_t kEndLook = 1000;     // microseconds between two looks at the end

/// Whether the thread exists. Main thread only.
bool has_thread = false;

/// There is to be a journal: if there is none, it has been given up.
std::atomic<bool> is_wanted{false};

std::atomic<bool> can_end{false};  ///< the thread makes passes
std::atomic<bool> must_end{false};
std::atomic<bool> has_ended{false};

/// What the thread tells others. A leaf.
Mutex status_mutex;
JournalEnd known_end GUARDED_BY(status_mutex);
bool is_stopped GUARDED_BY(status_mutex) = false;

/// A payload of a few fields.
class SmallPayload {
 public:
  FieldWriter& fields() { return fields_; }
  std::string_view view() const { return {room_, fields_.length()}; }

 private:
  char room_[256];
  FieldWriter fields_{room_, sizeof room_};
};

// ---- The thread ---------------------------------------------------------------------------------

// Consoles' numbers are those of a run.
uint64_t DrawRun() {
  uint64_t run = 0;
  while (run == 0) {
    if (getrandom(&run, sizeof run, 0) != sizeof run) run = static_cast<uint64_t>(getpid());
  }
  return run;
}

void Publish(const JournalEnd& end, bool stopped) {
  const MutexLock lock(status_mutex);
  known_end = end;
  is_stopped = stopped;
}

// For so many milliseconds at most; -1: until it is woken.
void AwaitWaker(int64_t limit) {
  pollfd news = {journal_waker.descriptor(), POLLIN, 0};
  if (poll(&news, 1, static_cast<int>(limit)) > 0) journal_waker.Drain();
}

class Keeper {
 public:
  void Pass() {
    Wait();
    const bool is_last = must_end;
    if (is_last && TermReceived()) queue_.SwitchOff({});
    writer_.EndOldSegment();
    if (queue_.IsOn() || queue_.Waiting() > 0) Note(Write());
    if (!queue_.IsOn() && (is_last || has_trouble_ || queue_.Waiting() == 0)) Leave();
    Publish(writer_.end(), has_trouble_);
    if (is_last) End();
  }

 private:
  void Wait() const {
    if (must_end) return;
    if (has_trouble_) {
      AwaitWaker(std::max<int64_t>(next_try_ - MonotonicMilliseconds(), 0));
      return;
    }
    if (queue_.Waiting() == 0) AwaitWaker(writer_.TimeToEnd());
    const size_t waiting = queue_.Waiting();
    if (waiting > 0 && waiting < JournalQueue::kBatch && queue_.IsOn() && !must_end) {
      AwaitWaker(kGather);
    }
  }

  JournalResult Write() {
    // The queue's news do not shorten the time to the next try.
    if (has_trouble_ && !must_end && queue_.IsOn() && MonotonicMilliseconds() < next_try_) {
      return JournalResult::kFailed;
    }
    next_try_ = MonotonicMilliseconds() + kRetryInterval;
    try {
      return writer_.WriteWaiting();
    } catch (const std::bad_alloc&) {
      ReportOutOfMemory(kJournal);
    } catch (const std::exception& fault) {
      DEBUG_AS(kJournal, kError, "Writing the journal failed : %s\n", fault.what());
    }
    return JournalResult::kFailed;
  }

  void Note(JournalResult result) {
    if (result == JournalResult::kRefused) {
      DEBUG_AS(kJournal, kError, "%s. There is no journal until the next reload.\n",
               writer_.trouble().c_str());
      queue_.Abandon();
    } else if (result == JournalResult::kFailed && !has_trouble_) {
      lost_before_ = queue_.Losses().records;
      DEBUG_AS(kJournal, kError, "%s. The journal stops until that succeeds.\n",
               writer_.trouble().c_str());
    } else if (result == JournalResult::kDone && has_trouble_) {
      DEBUG_AS(kJournal, kError, "The journal goes on: %" PRIu64 " records were lost.\n",
               queue_.Losses().records - lost_before_);
    }
    has_trouble_ = result == JournalResult::kFailed;
  }

  // What could not be written is given up.
  void Leave() {
    const uint64_t untold = queue_.Forget();
    if (must_end && untold != 0) {
      DEBUG_AS(kJournal, kError, "The journal ends without %" PRIu64 " records that were lost.\n",
               untold);
    }
    writer_.Close();
    has_trouble_ = false;
  }

  [[noreturn]] static void End() {
    has_ended = true;
    for (;;) pause();
  }

  JournalQueue& queue_ = journal_queue;
  JournalWriter writer_{journal_queue, kJournalDir, DrawRun(), SegmentLimits{}};
  bool has_trouble_ = false;
  int64_t next_try_ = 0;  // milliseconds
  uint64_t lost_before_ = 0;
};

// ---- Switching ----------------------------------------------------------------------------------

bool SwitchOn(const char* reason) {
  SmallPayload started;
  started.fields().Add(Field::kVersion, QOR_VERSION);
  started.fields().AddNumber(Field::kPid, getpid());
  started.fields().Add(Field::kReason, reason);
  if (journal_waker.descriptor() == -1 && !journal_waker.Open()) {
    DEBUG_AS(kJournal, kError, "eventfd() failed : %s\n", strerror(errno));
    return false;
  }
  if (journal_queue.SwitchOn(started.view())) return true;
  ReportOutOfMemory(kJournal);
  return false;
}

void SwitchOff() {
  SmallPayload stopped;
  stopped.fields().Add(Field::kReason, "The journal was switched off.");
  journal_queue.SwitchOff(stopped.view());
}

void PutNames() EXCLUDES(acl_lock, icl_lock) {
  const WriteLockPair lock(acl_lock, icl_lock, Release::kFirstFirst, HERE);
  for (const ConsoleList* list : {i_cons_list, a_cons_list}) JournalNamesOf(*list);
}

void PutPauses() EXCLUDES(acl_lock, icl_lock) {
  const WriteLockPair lock(acl_lock, icl_lock, Release::kFirstFirst, HERE);
  for (const ConsoleList* list : {i_cons_list, a_cons_list}) JournalPausesOf(*list);
}

/// As they were last read.
JournalSettings settings;

// True when they have been read.
bool ReadSettings() {
  if (!ReadJournalSettings(&settings)) return false;
  SetJournalInput(settings.input);
  if (settings.mebibytes != 0 && settings.input == JournalInput::kAll) {
    DEBUG_AS(kJournal, kError,
             "ZEVD_JOURNAL_INPUT=all: what users type is recorded, passwords included.\n");
  }
  return true;
}

}  // namespace

void StartJournal() {
  ENTERING();
  if (!ReadSettings() || settings.mebibytes == 0) return;
  SwitchOn(nullptr);
  is_wanted = true;
}

void CreateJournalThread() {
  ENTERING();
  if (has_thread || !journal_queue.IsOn()) return;
  pthread_attr_t attr;
  pthread_attr_init(&attr);
  pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
  pthread_t thread{};
  const int error = pthread_create(&thread, &attr, JournalThreadStart, nullptr);
  pthread_attr_destroy(&attr);
  has_thread = error == 0;
  if (has_thread) return;
  DEBUG_AS(kJournal, kError, "pthread_create() failed : %s. There is no journal.\n",
           strerror(error));
  journal_queue.Abandon();
}

void ReloadJournal() {
  ENTERING();
  if (!ReadSettings()) return;
  const bool wanted = settings.mebibytes != 0;
  if (!wanted) is_wanted = false;
  if (wanted == journal_queue.IsOn()) return;
  if (!wanted) return SwitchOff();
  if (SwitchOn("The journal was switched on.")) {
    PutNames();
    PutPauses();
    CreateJournalThread();
  }
  is_wanted = true;
}

void RepeatLostNames() {
  if (journal_queue.WantsNames()) PutNames();
}

void EndJournal() {
  is_wanted = false;
  if (!can_end) return;
  must_end = true;
  journal_waker.Wake();
  // A busy machine makes each look longer: time counts.
  const int64_t limit = MonotonicMilliseconds() + kEndLimit;
  while (!has_ended && MonotonicMilliseconds() < limit) usleep(kEndLook);
}

JournalStatus GetJournalStatus() {
  const JournalLosses losses = journal_queue.Losses();
  const MutexLock lock(status_mutex);
  const char* without = is_wanted ? "refused" : "off";
  const char* with = is_stopped ? "stopped" : "on";
  return {journal_queue.IsOn() ? with : without,
          known_end.records,
          known_end.bytes,
          losses.records,
          losses.gaps,
          known_end.station,
          known_end.segment,
          known_end.offset};
}

void* JournalThreadStart(void* /*unused*/) {
  RegisterThread("journal");
  ENTERING();
  BlockSignal(SIGTERM);
  SetEndStep(EndJournal);
  can_end = true;
  Keeper keeper;
  for (;;) keeper.Pass();
}

}  // namespace zevd
