#include "config_lines.h"

#include <arpa/inet.h>
#include <pwd.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <thread>

#include "config_load.h"
#include "exit_status.h"
#include "listener_query.h"

namespace zevctl {

namespace {

constexpr char kFile[] = "lines.yaml";
constexpr char kUnit[] = "zevd-lines.service";
constexpr char kSystemctl[] = "/usr/bin/systemctl";
constexpr char kSystemdRuns[] = "/run/systemd/system";
constexpr char kLinesUser[] = "zevd-lines";
constexpr mode_t kMode = 0600;  // passwords are in it
constexpr std::chrono::milliseconds kInterval{50};

// The status with which it ended; not 0 when it could not be run.
int RunSystemctl(const char* verb) {
  const char* arguments[] = {kSystemctl, "--no-ask-password", verb, kUnit, nullptr};
  pid_t pid = 0;
  if (posix_spawn(&pid, kSystemctl, nullptr, nullptr, const_cast<char* const*>(arguments),
                  environ) != 0) {
    return -1;
  }
  int status = -1;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  return status;
}

Endpoint AddressOf(const Line& line) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(line.port);
  inet_pton(AF_INET, kLinesAddress, &address.sin_addr);
  return *Destination(reinterpret_cast<const sockaddr&>(address));
}

// Nobody else may have taken the port of a line: what users type there would be theirs.
bool IsRight(const Listener& listener, uid_t owner) {
  const passwd* user = getpwnam(kLinesUser);
  return listener.uid == 0 || listener.uid == owner ||
         (user != nullptr && listener.uid == user->pw_uid);
}

bool Listens(const Line& line, uid_t owner) {
  const auto listeners = ListenersOn(line.port);
  if (!listeners) return true;  // the system does not tell
  const Listeners takers = TakersOf(*listeners, AddressOf(line));
  return !takers.empty() &&
         std::all_of(takers.begin(), takers.end(),
                     [&](const Listener& listener) { return IsRight(listener, owner); });
}

// The first line that does not listen, or null.
const Line* FirstDead(const std::vector<Line>& lines, uid_t owner) {
  const auto dead = std::find_if(lines.begin(), lines.end(),
                                 [&](const Line& line) { return !Listens(line, owner); });
  return dead == lines.end() ? nullptr : &*dead;
}

size_t CountDead(const std::vector<Line>& lines, uid_t owner) {
  return static_cast<size_t>(std::count_if(
      lines.begin(), lines.end(), [&](const Line& line) { return !Listens(line, owner); }));
}

const Line* WaitForAll(const std::vector<Line>& lines, uid_t owner,
                       std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  for (;;) {
    const Line* dead = FirstDead(lines, owner);
    if (dead == nullptr || std::chrono::steady_clock::now() > deadline) return dead;
    std::this_thread::sleep_for(kInterval);
  }
}

std::string AsBefore(const std::string& what) {
  return what + "; \"journalctl -u zevd-lines\" tells why. Lines and zev.conf are as before.";
}

}  // namespace

std::vector<Line> LinesOf(const std::vector<ConfigConsole>& consoles) {
  std::vector<Line> lines;
  for (const ConfigConsole& console : consoles) {
    if (console.line) lines.push_back(*console.line);
  }
  return lines;
}

// Nobody but apply writes the file, and it gives it to the directory's owner. Another owner's
// content must not become the daemon's user's when it is put back.
ReadFile PresentLines(const ConfigDirectory& directory) {
  ReadFile file = ReadSafely(directory.path(), kFile);
  if (file.kind == FileKind::kMissing) return file;
  if (file.kind == FileKind::kRegular && file.owner != directory.owner()) {
    file.reason = "it belongs to user " + std::to_string(file.owner);
  }
  if (file.reason.empty()) return file;
  const std::string mend = file.kind == FileKind::kFailed
                               ? "run this as root"
                               : "remove it, and the next apply makes it anew";
  throw Failure(ExitStatus::kFailed,
                "cannot use " + LinesPath() + ": " + file.reason + "; " + mend);
}

std::set<std::string> ChangedLines(const ConfigDirectory& directory,
                                   const std::vector<ConfigConsole>& consoles) {
  const LineBlocks before = BlocksOf(PresentLines(directory).text);
  const LineBlocks after = BlocksOf(LinesYaml(LinesOf(consoles)));
  std::set<std::string> changed;
  for (const auto& [port, block] : before) {
    const auto now = after.find(port);
    if (now == after.end() || now->second != block) changed.insert(port);
  }
  return changed;
}

// Each new line is a process that the system manager starts, a few at a time.
std::chrono::milliseconds StartLimit(size_t lines) {
  constexpr std::chrono::milliseconds kAtLeast{5000};
  constexpr std::chrono::milliseconds kEach{200};
  return kAtLeast + kEach * static_cast<int>(lines);
}

LinesChange::LinesChange(const ConfigDirectory& directory,
                         const std::vector<ConfigConsole>& consoles)
    : directory_(directory), lines_(LinesOf(consoles)) {
  const ReadFile present = PresentLines(directory);
  had_file_ = present.kind == FileKind::kRegular;
  before_ = present.text;
  if (!had_file_ && lines_.empty()) return;
  const std::string text = LinesYaml(lines_);
  const LineBlocks old = BlocksOf(before_);
  for (const auto& [port, block] : BlocksOf(text)) {
    const auto known = old.find(port);
    if (known == old.end() || known->second != block) ++new_lines_;
  }
  const bool as_wanted = (present.mode & ALLPERMS) == kMode && text == before_;
  if (!had_file_ || !as_wanted) staged_.emplace(directory, kFile, text, kMode);
}

LinesChange::~LinesChange() {
  if (!started_) return;
  try {
    PutBack();
  } catch (const Failure&) {
    // What was to be undone has failed already, and that is what the user is told.
  }
}

bool LinesChange::RunsServices() const {
  return access(kSystemdRuns, F_OK) == 0 && access(kSystemctl, X_OK) == 0;
}

void LinesChange::Start() {
  const uid_t owner = directory_.owner();
  if (!staged_ && FirstDead(lines_, owner) == nullptr) return;
  const auto limit = StartLimit(std::max(new_lines_, CountDead(lines_, owner)));
  if (staged_) {
    staged_->Commit();
    started_ = true;
  }
  if (!RunsServices()) {
    const Line* dead = FirstDead(lines_, owner);
    if (dead == nullptr && lines_.empty()) return;
    advice_ = "no systemd runs here: have ser2net read " + LinesPath() + " yourself";
    return;
  }
  if (RunSystemctl(lines_.empty() ? "stop" : "reload-or-restart") != 0) {
    throw Failure(ExitStatus::kFailed, AsBefore("zevd-lines.service cannot be started"));
  }
  const Line* dead = WaitForAll(lines_, owner, limit);
  if (dead == nullptr) return;
  throw Failure(ExitStatus::kFailed,
                AsBefore("the line of \"" + dead->name + "\" does not listen on port " +
                         std::to_string(dead->port)));
}

void LinesChange::PutBack() {
  started_ = false;
  if (had_file_) {
    StagedFile(directory_, kFile, before_, kMode).Commit();
  } else {
    unlinkat(directory_.fd(), kFile, 0);
  }
  if (RunsServices()) RunSystemctl(had_file_ ? "reload-or-restart" : "stop");
}

}  // namespace zevctl
