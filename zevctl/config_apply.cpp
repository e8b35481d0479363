// The order matters. Everything that can fail without harm comes first: the lock, the rights, the
// daemon's answer, both files complete on the disk. Then the lines, which can be put back, then
// zev.conf, and last the signal.
#include "config_apply.h"

#include <chrono>
#include <memory>
#include <set>
#include <thread>

#include "config_file.h"
#include "config_lines.h"
#include "config_process.h"
#include "config_zev.h"
#include "selection.h"

namespace zevctl {

namespace {

constexpr char kFile[] = "zev.conf";
constexpr mode_t kMode = 0640;
constexpr std::chrono::seconds kReloadLimit{60};
constexpr std::chrono::milliseconds kInterval{50};

// What --force allows.
void CheckReplacing(const std::string& present, const LoadedConfig& config) {
  const ZevConfOrigin origin = OriginOf(present);
  if (origin == ZevConfOrigin::kEdited) {
    throw Failure(ExitStatus::kFailed, ZevConfPath() +
                                           " has been edited since the last apply; take the edits "
                                           "over into consoles.toml, then use --force");
  }
  if (origin == ZevConfOrigin::kForeign) {
    throw Failure(ExitStatus::kFailed, ZevConfPath() +
                                           " was not made by apply; make consoles.toml from it "
                                           "(zevctl config import), then use --force");
  }
  if (config.consoles.empty()) {
    throw Failure(ExitStatus::kFailed,
                  "the configuration has no consoles; use --force if that is meant");
  }
}

/// The running daemon, and its command port.
struct RunningDaemon {
  DaemonProcess process;
  std::unique_ptr<CommandPort> port;
  ReloadState before;
  UserCounts users;
};

std::optional<RunningDaemon> FindDaemon(const Settings& settings, Credentials& credentials) {
  auto process = DaemonProcess::Find(kStationRoot + "/config/zev.lock");
  if (!process) return {};
  const std::string pid = std::to_string(process->pid());
  RunningDaemon daemon{std::move(*process), nullptr, {}, {}};
  try {
    daemon.port = std::make_unique<CommandPort>(settings, credentials);
  } catch (const Failure& failure) {
    throw Failure(failure.status(), "the daemon (process " + pid +
                                        ") cannot be asked, and nothing was changed: " +
                                        failure.what() + "; is --port its main port?");
  }
  daemon.before = AskForReloads(*daemon.port);
  daemon.users = AskForUsers(*daemon.port);
  return daemon;
}

// A daemon that cannot read its file at a reload ends.
void CheckMayRead(const DaemonProcess& process, const ConfigDirectory& directory) {
  const bool root = geteuid() == 0;
  const uid_t owner = root ? directory.owner() : geteuid();
  const gid_t group = root ? directory.group() : getegid();
  if (process.MayRead(owner, group, kMode)) return;
  throw Failure(ExitStatus::kFailed,
                "the daemon could not read the new zev.conf and would end; "
                "nothing was changed. Give " +
                    directory.path() + " to the daemon's user (chown)");
}

std::vector<std::string> NamesThatLoseUsers(const std::vector<Change>& changes,
                                            const UserCounts& users) {
  std::vector<std::string> names;
  for (const Change& change : changes) {
    const auto count = users.find(FoldedName(change.name));
    const bool has_users = count != users.end() && count->second > 0;
    if (change.costs_users && has_users) names.push_back(change.name);
  }
  return names;
}

// ---- The reload ---------------------------------------------------------------------------------

bool HasAll(CommandPort& port, const std::vector<ConfigConsole>& consoles) {
  std::set<std::string> known;
  for (const ConsoleRecord& record : port.Consoles()) {
    known.insert(FoldedName(record.name) + " " + record.address + " " +
                 std::to_string(record.port));
  }
  for (const ConfigConsole& console : consoles) {
    const std::string one = FoldedName(console.name()) + " " + console.Text(kFieldAddress) + " " +
                            console.Text(kFieldPort);
    if (!known.contains(one)) return false;
  }
  return true;
}

[[noreturn]] void FailReload(const ReloadState& now, uint64_t before) {
  constexpr char kNotRead[] = "the daemon has not read it within a minute; see zevd.log";
  constexpr char kLacking[] =
      "the daemon does not have all of its consoles; was it started with -c?";
  throw Failure(ExitStatus::kFailed, std::string("zev.conf is new, but ") +
                                         (now.reloads == before ? kNotRead : kLacking));
}

// A reload that had begun before does not have the new consoles, so its end is not enough.
ReloadState WaitForReload(CommandPort& port, uint64_t before,
                          const std::vector<ConfigConsole>& consoles) {
  const auto deadline = std::chrono::steady_clock::now() + kReloadLimit;
  for (;;) {
    ReloadState now = AskForReloads(port);
    if (now.reloads != before && now.result != "done") {
      throw Failure(ExitStatus::kFailed, "zev.conf is new, but the daemon's reload ended with \"" +
                                             now.result + "\"; see zevd.log, then apply again");
    }
    if (now.reloads != before && HasAll(port, consoles)) return now;
    if (std::chrono::steady_clock::now() > deadline) FailReload(now, before);
    std::this_thread::sleep_for(kInterval);
  }
}

// The daemon has met the port of a line that was started again while nobody listened there, and
// would try it again after a minute. What it does not want to try now, it refuses: no harm.
void ReconnectLines(CommandPort& port, const std::vector<Change>& changes) {
  for (const Change& change : changes) {
    if (!change.line_changed) continue;
    try {
      port.Do("reconnect " + change.name);
    } catch (const CommandError&) {
      continue;
    }
  }
}

// A reload without need would undo what "disable" and "enable" have set.
// Both times are whole seconds; of a file and a reload in the same one, the file may be the newer.
bool HasRead(const RunningDaemon& daemon, const std::vector<ConfigConsole>& consoles) {
  const ReadFile present = ReadConfigFile(ZevConfPath());
  return present.changed <= daemon.before.latest && HasAll(*daemon.port, consoles);
}

}  // namespace

void CheckHost(const Settings& settings) {
  static const std::set<std::string> kHere = {"127.0.0.1", "localhost", "::1"};
  if (kHere.contains(settings.host)) return;
  throw Failure(ExitStatus::kUsage,
                "a configuration is applied on the station itself; leave out --host");
}

size_t UsersLost(const std::vector<Change>& changes, const UserCounts& users) {
  size_t lost = 0;
  for (const std::string& name : NamesThatLoseUsers(changes, users)) {
    lost += users.at(FoldedName(name));
  }
  return lost;
}

ApplyResult Apply(const Settings& settings, const ConfigDirectory& directory,
                  const LoadedConfig& config, const ApplyOptions& options) {
  const std::string present = PresentZevConf();
  if (!options.force) CheckReplacing(present, config);
  ApplyResult result;
  result.consoles = config.consoles.size();
  result.changes =
      Compare(PresentConsoles(), config.consoles, ChangedLines(directory, config.consoles));
  Credentials credentials(UserName(settings));
  const auto daemon = FindDaemon(settings, credentials);
  result.daemon_runs = daemon.has_value();
  if (daemon) CheckMayRead(daemon->process, directory);
  if (daemon && !options.yes) {
    Confirm("Disconnect the users of", NamesThatLoseUsers(result.changes, daemon->users), true);
  }
  const std::string text = WriteZevConf(config.consoles);
  const bool same = text == present;
  StagedFile staged(directory, kFile, text, kMode);
  LinesChange lines(directory, config.consoles);
  lines.Start();
  if (!same) staged.Commit();
  lines.Keep();
  result.advice = lines.advice();
  if (!daemon) return result;
  if (!same || !HasRead(*daemon, config.consoles)) {
    daemon->process.Reload();
    result.reloaded = true;
    result.reload = WaitForReload(*daemon->port, daemon->before.reloads, config.consoles).reloads;
  }
  ReconnectLines(*daemon->port, result.changes);
  return result;
}

}  // namespace zevctl
