#include "fleet_run.h"

#include <linux/magic.h>
#include <sys/vfs.h>

#include <algorithm>
#include <csignal>
#include <ctime>
#include <filesystem>
#include <memory>

#include "fleet_clock.h"
#include "fleet_guard.h"
#include "fleet_holder.h"
#include "fleet_keeper.h"
#include "fleet_map.h"
#include "fleet_owner.h"
#include "fleet_program.h"
#include "fleet_watch.h"

namespace zevfleet {

namespace {

using zevctl::ExitStatus;

constexpr int64_t kTick = 500 * kMillisecond;
constexpr int64_t kPace = 100 * kMillisecond;  // while the fleet changes all the time
constexpr int64_t kMapInterval = kSecond;
constexpr int64_t kBetweenTries = 2 * kSecond;
constexpr int64_t kWatchPatience = 3 * kSecond;  // for one's own beat
constexpr int64_t kConfirmedFor = 5 * kSecond;   // as long the map counts as of now

// What a round, or a map, of a large fleet takes of the processor is followed by a pause so many
// times as long.
constexpr int64_t kRoundPause = 4;
constexpr int64_t kMapPause = 20;

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

// The files of a lease that is over: the daemon may be connected by them.
void LetGo(const FleetOptions& options, DeadlineFile& file) {
  const LeaseState state = file.Get();
  if (!state.holds || !state.HasPassed(BootNow())) return;
  FleetFiles files(options);
  const FleetDaemon daemon(options);
  daemon.Kill();
  files.Strip();
  // One that the unit has started meanwhile has read the files before they were stripped, or after.
  daemon.Kill();
  file.SetHolds(false);
  Tell("the lease is over: the fleet's consoles were taken from this station");
}

/// Tells each problem once.
class Complaints {
 public:
  void Note(const std::string& problem) {
    if (problem == last_) return;
    if (!problem.empty()) Tell(problem);
    if (problem.empty() && !last_.empty()) Tell("all is well again");
    last_ = problem;
  }

 private:
  std::string last_;
};

/// One lease.
class Tenure {
 public:
  Tenure(const FleetOptions& options, Etcd& etcd, DeadlineFile& file, const Membership& member)
      : options_(options),
        etcd_(etcd),
        file_(file),
        keys_(options.site),
        view_(options.site),
        owner_(options, etcd, file, member),
        keeper_(options.etcd, file, member.lease, keys_.Stations() + options.station,
                member.station),
        map_(options),
        watch_(options.etcd, keys_.prefix()) {}

  ExitStatus Serve() {
    while (end_wanted == 0) {
      for (const FleetNews& news : watch_.Wait(Patience())) view_.Take(news, BootNow());
      const std::string loss = keeper_.Loss();
      if (!loss.empty()) return Lose(loss);
      if (BootNow() >= RoundDue()) PacedRound();
    }
    return Leave();
  }

 private:
  // What the watch brings most are the beats of all stations, which call for nothing.
  int64_t RoundDue() const {
    return std::max(round_ + (view_.version() == seen_ ? kTick : kPace), pause_until_);
  }

  // In milliseconds: what has come waits until a round is due.
  int Patience() const {
    const int64_t left = std::clamp<int64_t>(RoundDue() - BootNow(), 0, kTick);
    return static_cast<int>(left / kMillisecond) + 1;
  }

  void PacedRound() {
    const int64_t begin = ProcessorNow();
    Round(BootNow());
    pause_until_ = BootNow() + kRoundPause * (ProcessorNow() - begin);
  }

  void Round(int64_t now) {
    round_ = now;
    seen_ = view_.version();
    CheckWatch(now);
    std::string trouble = keeper_.Trouble();
    if (trouble.empty() && is_blind_) trouble = Blindness();
    if (view_.is_known()) {
      try {
        owner_.Work(view_, now);
      } catch (const EtcdError& error) {
        trouble = error.what();
      }
      keeper_.SetReady(owner_.IsReady(now) && !is_blind_);
    }
    Publish(now, trouble);
  }

  // The watch brings this station's own beats, too; when it does not, it brings nothing.
  void CheckWatch(int64_t now) {
    const auto self = view_.stations().find(options_.station);
    const bool has_come =
        self != view_.stations().end() && self->second.station.beat >= awaited_beat_;
    if (!has_come && now - awaited_since_ < kWatchPatience) return;
    if (!has_come) watch_.Restart();
    is_blind_ = !has_come;
    awaited_beat_ = keeper_.beat();
    awaited_since_ = now;
  }

  std::string Blindness() {
    const std::string why = watch_.Trouble();
    return "etcd does not tell this station what changes" + (why.empty() ? "" : ": " + why);
  }

  void Publish(int64_t now, const std::string& trouble) {
    std::string problem = trouble.empty() ? owner_.problem() : trouble;
    if (problem.empty()) {
      const auto others = view_.Problems();
      if (!others.empty()) problem = others.front();
    }
    complaints_.Note(problem);
    if (now < map_due_) return;
    const int64_t begin = ProcessorNow();
    const int64_t age = now - keeper_.confirmed();
    const MapNote note{.as_of = time(nullptr) - age / kSecond,
                       .connected = view_.is_known() && !is_blind_ && age < kConfirmedFor,
                       .problem = problem};
    // Until etcd has told what there is, the map of the run before this one says more.
    PublishMap(options_, view_.is_known() ? map_.Text(view_, note) : OldMapText(options_, problem));
    map_due_ = now + std::max(kMapInterval, kMapPause * (ProcessorNow() - begin));
  }

  ExitStatus Lose(const std::string& why) {
    Tell("this station is no longer in the fleet: " + why);
    LetGo(options_, file_);
    return ExitStatus::kFailed;
  }

  ExitStatus Leave() {
    Tell("this station leaves the fleet");
    owner_.GiveBack(view_);
    file_.SetDeadline(BootNow());
    etcd_.Revoke(file_.Get().lease);
    file_.SetLease(0);
    return ExitStatus::kOk;
  }

  const FleetOptions& options_;
  Etcd& etcd_;
  DeadlineFile& file_;
  const FleetKeys keys_;
  FleetView view_;
  FleetOwner owner_;
  Complaints complaints_;
  uint64_t seen_ = 0;          // the version of the view in the last round
  uint64_t awaited_beat_ = 0;  // this station's own
  bool is_blind_ = false;      // it does not come: nobody is to count on this station
  // Moments of BootNow().
  int64_t round_ = BootNow();  // of the last one
  int64_t pause_until_ = 0;
  int64_t map_due_ = 0;
  int64_t awaited_since_ = 0;
  LeaseKeeper keeper_;
  FleetMap map_;
  FleetWatch watch_;
};

void PublishOutside(const FleetOptions& options, const std::string& problem) {
  PublishMap(options, OldMapText(options, problem));
}

// Nothing when an end is wanted first.
std::optional<Membership> Enter(const FleetOptions& options, Etcd& etcd, DeadlineFile& file) {
  Complaints complaints;
  while (end_wanted == 0) {
    LetGo(options, file);
    try {
      return Join(options, etcd, file);
    } catch (const std::runtime_error& error) {
      complaints.Note(error.what());
      PublishOutside(options, error.what());
    }
    SleepUntil(BootNow() + kBetweenTries);
  }
  return {};
}

// The run before this one may have left consoles in the daemon's files, whose lease is still good.
ExitStatus LeaveOutside(const FleetOptions& options, DeadlineFile& file) {
  if (!file.Get().holds) return ExitStatus::kOk;
  FleetFiles files(options);
  LetDaemonGo(files, FleetDaemon(options), file);
  return ExitStatus::kOk;
}

// A deadline that outlives a start of the machine would mean nothing.
void RequireMemory(const std::string& directory) {
  struct statfs info {};
  if (statfs(directory.c_str(), &info) == 0 &&
      (info.f_type == TMPFS_MAGIC || info.f_type == RAMFS_MAGIC)) {
    return;
  }
  throw zevctl::Failure(ExitStatus::kFailed,
                        directory +
                            " is not in memory (tmpfs); name a "
                            "\"run_directory\" that is, such as /run/zevfleet");
}

DeadlineFile OpenDeadline(const FleetOptions& options) {
  std::filesystem::create_directories(options.run_directory);
  RequireMemory(options.run_directory);
  std::filesystem::create_directories(options.state_directory);
  return DeadlineFile::ForWriting(options.LeaseFile(), FleetFiles(options).MayHaveAny());
}

}  // namespace

ExitStatus Run(const FleetOptions& options) {
  HearSignals();
  DeadlineFile file = OpenDeadline(options);
  const OwnLock lock(options.RunLock(), "zevfleet run");
  Etcd etcd(options.etcd);
  const auto member = Enter(options, etcd, file);
  if (!member) return LeaveOutside(options, file);
  Tell("this station is in the fleet \"" + options.site + "\"");
  return Tenure(options, etcd, file, *member).Serve();
}

ExitStatus Prepare(const FleetOptions& options) {
  DeadlineFile file = OpenDeadline(options);
  const LeaseState state = file.Get();
  if (!state.HasPassed(BootNow())) return ExitStatus::kOk;
  // What a run of the lease that is over still has in hand must not come after this.
  Enforce(options, {.deadline = state.deadline}, BootNow());
  FleetFiles files(options);
  if (files.MayHaveAny()) files.Strip();
  file.SetHolds(false);
  return ExitStatus::kOk;
}

}  // namespace zevfleet
