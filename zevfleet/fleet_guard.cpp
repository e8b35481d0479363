#include "fleet_guard.h"

#include <sys/mman.h>
#include <sys/stat.h>

#include <algorithm>
#include <csignal>
#include <filesystem>

#include "fleet_clock.h"
#include "fleet_holder.h"
#include "fleet_program.h"
#include "settings.h"

namespace zevfleet {

namespace {

constexpr int64_t kLook =
    100 * kMillisecond;  // a stopped machine is noticed that soon after waking
constexpr int kKillMilliseconds = 100;

constexpr char kLate[] = "the lease has not been renewed in time";
constexpr char kUnguarded[] = "the guard ends, and this station has consoles of the fleet";

volatile sig_atomic_t end_wanted = 0;

void WantEnd(int /*signal*/) {
  end_wanted = 1;
}

void HearSignals() {
  struct sigaction action {};
  action.sa_handler = WantEnd;
  sigaction(SIGTERM, &action, nullptr);
  sigaction(SIGINT, &action, nullptr);
}

std::string DaemonLock() {
  return zevctl::kStationRoot + "/config/zev.lock";
}

bool EndRun(const FleetOptions& options, int64_t deadline, const std::string& why) {
  const auto run = LockHolder::Find(options.RunLock());
  if (!run) return false;
  // One that started afterwards knows that the lease is over.
  const auto started = run->Started();
  if (!started || *started >= deadline) return false;
  run->Kill(kKillMilliseconds);
  Tell(why + ": process " + std::to_string(run->pid()) + " (zevfleet run) was killed");
  return true;
}

bool EndDaemon(const std::string& why) {
  const auto daemon = LockHolder::Find(DaemonLock(), kDaemonUnit);
  if (!daemon) return false;
  daemon->Kill(kKillMilliseconds);
  Tell(why + ": process " + std::to_string(daemon->pid()) +
       " (zevd) was killed, as other stations may take its consoles over");
  return true;
}

// The present file: it is another one after the machine or the directory was made anew.
class FollowedFile {
 public:
  explicit FollowedFile(std::string path) : path_(std::move(path)) {}

  std::optional<LeaseState> Get() {
    struct stat info {};
    const bool is_there = stat(path_.c_str(), &info) == 0;
    if (is_there && (!file_ || info.st_ino != inode_ || info.st_dev != device_)) {
      file_ = DeadlineFile::ForReading(path_);
      inode_ = info.st_ino;
      device_ = info.st_dev;
    }
    // A file that was removed still says what it said.
    if (!file_) return {};
    return file_->Get();
  }

 private:
  const std::string path_;
  std::optional<DeadlineFile> file_;
  ino_t inode_ = 0;
  dev_t device_ = 0;
};

// A run that was stopped in good order has given everything back by then. What is left is of one
// that could not, and nobody would end it in time from now on.
void LetGoUnguarded(const FleetOptions& options, FollowedFile& file) {
  const auto state = file.Get();
  if (!state || !state->holds) return;
  const int64_t now = BootNow();
  EndRun(options, now, kUnguarded);
  DeadlineFile::ForWriting(options.LeaseFile(), true).SetDeadline(now);
  EndDaemon(kUnguarded);
}

}  // namespace

Verdict Judge(const LeaseState& state, int64_t now) {
  if (!state.HasPassed(now)) return {};
  return {.run = true, .daemon = state.holds};
}

bool Enforce(const FleetOptions& options, const LeaseState& state, int64_t now) {
  const Verdict verdict = Judge(state, now);
  bool any = verdict.run && EndRun(options, state.deadline, kLate);
  if (verdict.daemon) any = EndDaemon(kLate) || any;
  return any;
}

zevctl::ExitStatus Guard(const FleetOptions& options) {
  std::filesystem::create_directories(options.run_directory);
  const OwnLock lock(options.GuardLock(), "zevfleet guard");
  // It must not wait for a page of its own when the machine is short of memory.
  mlockall(MCL_CURRENT | MCL_FUTURE);
  FollowedFile file(options.LeaseFile());
  HearSignals();
  while (end_wanted == 0) {
    const auto state = file.Get();
    const int64_t now = BootNow();
    if (state) Enforce(options, *state, now);
    const bool is_ahead = state && state->deadline > now;
    SleepUntil(is_ahead ? std::min(state->deadline, now + kLook) : now + kLook);
  }
  LetGoUnguarded(options, file);
  return zevctl::ExitStatus::kOk;
}

}  // namespace zevfleet
