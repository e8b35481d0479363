#include "fleet_owner.h"

#include <algorithm>
#include <iterator>

#include "fleet_clock.h"
#include "fleet_holder.h"
#include "fleet_program.h"

namespace zevfleet {

namespace {

// A daemon that is gone for that long, or does not answer, is not about to come back: its consoles
// go to others.
constexpr int64_t kDaemonPatience = 10 * kSecond;
constexpr int64_t kBetweenQuestions = 2 * kSecond;
// A daemon that has just started may end again.
constexpr int64_t kDaemonSettles = kSecond;
constexpr int64_t kAfterFailure = 10 * kSecond;

// Both are sorted, and there may be thousands of them.
std::vector<std::string> Without(const std::vector<std::string>& names,
                                 const std::vector<std::string>& others) {
  std::vector<std::string> rest;
  std::ranges::set_difference(names, others, std::back_inserter(rest));
  return rest;
}

std::vector<zevctl::ConfigConsole> Parsed(const std::map<std::string, std::string>& lines) {
  std::vector<zevctl::ConfigConsole> consoles;
  consoles.reserve(lines.size());
  for (const auto& [name, line] : lines) consoles.push_back(*ParseLine(line));
  return consoles;
}

}  // namespace

FleetOwner::FleetOwner(const FleetOptions& options, Etcd& etcd, DeadlineFile& file,
                       const Membership& member)
    : options_(options),
      etcd_(etcd),
      file_(file),
      member_(member),
      keys_(options.site),
      claimer_(options.site, etcd, member),
      files_(options_),
      daemon_(options_) {}

bool FleetOwner::IsReady(int64_t now) const {
  const bool has_daemon = daemon_since_ != 0 && now - daemon_since_ >= kDaemonSettles &&
                          now - daemon_seen_ < kDaemonPatience;
  return has_daemon && guard_runs_ && now >= not_before_;
}

ClaimSelf FleetOwner::Self(int64_t now) const {
  return {.station = options_.station,
          .lease = member_.lease.id,
          .ready = IsReady(now),
          .return_time = options_.return_seconds * kSecond};
}

void FleetOwner::Work(const FleetView& view, int64_t now) {
  guard_runs_ = IsLocked(options_.GuardLock());
  WatchDaemon(now);
  Names held = Held(view, Self(now));
  const bool is_lost = now - daemon_seen_ >= kDaemonPatience;
  if (!guard_runs_ || is_lost) {
    problem_ = !guard_runs_         ? "\"zevfleet guard\" does not run"
               : daemon_since_ == 0 ? "the daemon does not run"
                                    : "the daemon does not answer";
    if (!held.empty() || file_.Get().holds) GiveBack(view);
    return;
  }
  if (now < not_before_ || daemon_since_ == 0) return;
  problem_.clear();
  if (!claims_are_renewed_ && !claimer_.Renew(view, HeldAddresses(view, Self(now)))) return;
  claims_are_renewed_ = true;
  std::erase_if(held, [&](const std::string& name) {
    return claimer_.HasGivenUp(view, view.consoles().at(name).console.address);
  });
  Serve(view, held, Leaving(view, now), now);
  claimer_.Claim(view, ToClaim(view, Self(now), now));
  NoteArrivals(view);
}

void FleetOwner::WatchDaemon(int64_t now) {
  if (daemon_seen_ == 0) daemon_seen_ = now;
  if (!daemon_.Runs()) {
    daemon_since_ = 0;
    return;
  }
  if (daemon_since_ == 0) daemon_since_ = now;
  if (now - daemon_seen_ >= kBetweenQuestions && daemon_.Consoles()) daemon_seen_ = now;
}

void FleetOwner::NoteArrivals(const FleetView& view) {
  for (const std::string& name : Arrived(view, Self(0))) {
    const SeenConsole& seen = view.consoles().at(name);
    SharedConsole console = seen.console;
    console.told = false;
    etcd_.Commit(EtcdTransaction()
                     .IfUnchanged(keys_.Consoles() + name, seen.mod_revision)
                     .Put(keys_.Consoles() + name, Encode(console)));
  }
}

// ---- Serving ------------------------------------------------------------------------------------

FleetOwner::Names FleetOwner::Leaving(const FleetView& view, int64_t now) {
  if (!MayRelease(view, Self(now), now)) return {};
  const auto users = daemon_.Consoles();
  const UsersOf users_of = [&](const std::string& name) -> std::optional<size_t> {
    if (!users) return {};
    const auto found = users->find(zevctl::FoldedName(name));
    return found == users->end() ? 0 : found->second;
  };
  return ToRelease(view, Self(now), users_of, now);
}

void FleetOwner::Serve(const FleetView& view, const Names& held, const Names& leaving,
                       int64_t now) {
  std::map<std::string, std::string> wanted;
  Names addresses;
  for (const std::string& name : Without(held, leaving)) {
    const SharedConsole& console = view.consoles().at(name).console;
    wanted[name] = console.line;
    addresses.push_back(console.address);
  }
  if (!served_is_known_ || wanted != served_) {
    try {
      Change(Parsed(wanted), wanted);
    } catch (const zevctl::Failure& failure) {
      return TakeFailure(failure.what(), view, held, now);
    }
  }
  std::ranges::sort(addresses);
  claimer_.GiveUp(view, Without(HeldAddresses(view, Self(now)), addresses));
}

// Throws zevctl::Failure.
void FleetOwner::Change(const std::vector<zevctl::ConfigConsole>& consoles,
                        std::map<std::string, std::string>& wanted) {
  Names gone;
  for (const auto& [name, line] : served_) {
    if (!wanted.contains(name)) gone.push_back(name);
  }
  if (!consoles.empty()) file_.SetHolds(true);
  if (!ApplyAndCheck(consoles, gone)) {
    throw zevctl::Failure(zevctl::ExitStatus::kFailed,
                          "the daemon does not have the consoles that it should have; see its log");
  }
  served_ = std::move(wanted);
  served_is_known_ = true;
  if (consoles.empty()) file_.SetHolds(false);
}

// True when the daemon has these consoles, and has let go of those that are gone.
bool FleetOwner::ApplyAndCheck(const std::vector<zevctl::ConfigConsole>& consoles,
                               const Names& gone) {
  files_.Apply(consoles);
  const auto has = daemon_.Consoles();
  // One that does not run has no connections, and one that is started reads the new files.
  if (!has) return !daemon_.Runs();
  const auto is_there = [&](const std::string& name) {
    return has->contains(zevctl::FoldedName(name));
  };
  return std::ranges::none_of(gone, is_there) &&
         std::ranges::all_of(consoles, is_there, &zevctl::ConfigConsole::name);
}

// What the daemon has stays: its claims are good. What is new and has not got that far goes to
// others.
void FleetOwner::TakeFailure(const std::string& why, const FleetView& view, const Names& held,
                             int64_t now) {
  problem_ = why;
  not_before_ = now + kAfterFailure;
  const auto has = daemon_.Consoles();
  if (!has) return;
  std::map<std::string, std::string> refused;  // addresses, by name
  std::vector<zevctl::ConfigConsole> kept;
  for (const std::string& name : held) {
    auto console = *ParseLine(view.consoles().at(name).console.line);
    if (has->contains(zevctl::FoldedName(name))) {
      kept.push_back(std::move(console));
    } else {
      refused[name] = AddressOf(console);
    }
  }
  try {
    files_.PutBack(kept);
  } catch (const zevctl::Failure& failure) {
    problem_ = failure.what();
  }
  GiveUpUnserved(view, refused);
}

// A reload that had read the files before they were put back has ended when the daemon answers
// again.
void FleetOwner::GiveUpUnserved(const FleetView& view,
                                const std::map<std::string, std::string>& addresses) {
  const auto has = daemon_.Consoles();
  if (!has) return;
  Names unserved;
  for (const auto& [name, address] : addresses) {
    const bool is_served = has->contains(zevctl::FoldedName(name)) || FleetFiles::Mention(address);
    if (!is_served) unserved.push_back(address);
  }
  claimer_.GiveUp(view, unserved);
}

// ---- Letting go ---------------------------------------------------------------------------------

void LetDaemonGo(FleetFiles& files, const FleetDaemon& daemon, DeadlineFile& file) {
  try {
    files.Apply({});
  } catch (const zevctl::Failure&) {
    files.Strip();
    daemon.Kill();
  }
  file.SetHolds(false);
}

void FleetOwner::GiveBack(const FleetView& view) {
  LetDaemonGo(files_, daemon_, file_);
  served_.clear();
  served_is_known_ = true;
  claimer_.GiveUp(view, HeldAddresses(view, Self(0)));
}

}  // namespace zevfleet
