#include "fleet_holder.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstring>
#include <sstream>

#include "config_file.h"
#include "exit_status.h"
#include "fleet_clock.h"

namespace zevfleet {

namespace {

constexpr mode_t kMode = 0640;

std::string ControlGroupOf(const std::string& process) {
  return zevctl::ReadWhole("/proc/" + process + "/cgroup").text;
}

std::optional<pid_t> HolderOf(const std::string& lock_file, const std::string& unit) {
  struct stat info {};
  if (stat(lock_file.c_str(), &info) != 0) return {};
  const HoldersIn holders =
      FindHolders(zevctl::ReadWhole("/proc/locks").text, info.st_dev, info.st_ino);
  if (holders.exact) return holders.exact;
  if (unit.empty()) return {};
  // Beside this process's own unit: that of a container is elsewhere.
  const std::string own = ControlGroupOf("self");
  const std::string wanted = own.substr(0, own.rfind('/') + 1) + unit + "\n";
  for (const pid_t pid : holders.similar) {
    if (ControlGroupOf(std::to_string(pid)) == wanted) return pid;
  }
  return {};
}

}  // namespace

// "1: FLOCK  ADVISORY  WRITE 1234 00:2a:567 0 EOF"; one that waits has "->" behind the number.
HoldersIn FindHolders(std::string_view locks, dev_t device, ino_t inode) {
  char wanted[64];
  snprintf(wanted, sizeof wanted, "%02x:%02x:%llu", major(device), minor(device),
           static_cast<unsigned long long>(inode));
  const std::string any_device = ":" + std::to_string(inode);
  HoldersIn holders;
  std::istringstream lines{std::string(locks)};
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    std::string number;
    std::string type;
    std::string kind;
    std::string access;
    std::string file;
    pid_t pid = 0;
    words >> number >> type >> kind >> access >> pid >> file;
    if (!words || type != "FLOCK" || pid <= 0) continue;
    if (file == wanted) holders.exact = pid;
    if (file.ends_with(any_device)) holders.similar.push_back(pid);
  }
  return holders;
}

std::optional<int64_t> StartTicksIn(std::string_view stat) {
  constexpr int kFieldsBehindName = 20;  // the name, in brackets, is the second field
  const size_t name_end = stat.rfind(')');
  if (name_end == std::string_view::npos) return {};
  std::istringstream words{std::string(stat.substr(name_end + 1))};
  std::string word;
  for (int i = 0; i < kFieldsBehindName; ++i) words >> word;
  int64_t ticks = 0;
  const auto end = word.data() + word.size();
  if (!words || std::from_chars(word.data(), end, ticks).ptr != end) return {};
  return ticks;
}

std::optional<LockHolder> LockHolder::Find(const std::string& lock_file, const std::string& unit) {
  const auto pid = HolderOf(lock_file, unit);
  if (!pid) return {};
  zevctl::Descriptor process(static_cast<int>(syscall(SYS_pidfd_open, *pid, 0)));
  // Another process may have got the number before the descriptor was made, not afterwards.
  if (!process || HolderOf(lock_file, unit) != pid) return {};
  return LockHolder(*pid, std::move(process));
}

std::optional<int64_t> LockHolder::Started() const {
  const zevctl::ReadFile stat = zevctl::ReadWhole("/proc/" + std::to_string(pid_) + "/stat");
  const auto ticks = StartTicksIn(stat.text);
  if (!ticks) return {};
  return *ticks * (kSecond / sysconf(_SC_CLK_TCK));
}

bool LockHolder::Kill(int milliseconds) const {
  if (syscall(SYS_pidfd_send_signal, process_.get(), SIGKILL, nullptr, 0) != 0) {
    return errno == ESRCH;
  }
  pollfd ended = {process_.get(), POLLIN, 0};
  return poll(&ended, 1, milliseconds) == 1;
}

OwnLock::OwnLock(const std::string& path, const std::string& what)
    : file_(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, kMode)) {
  if (!file_) {
    throw zevctl::Failure(
        zevctl::ExitStatus::kFailed,
        "cannot open " + path + ": " + strerror(errno) + "; see the rights of its directory");
  }
  if (flock(file_.get(), LOCK_EX | LOCK_NB) == 0) return;
  throw zevctl::Failure(zevctl::ExitStatus::kFailed, "another \"" + what + "\" is at work already");
}

bool IsLocked(const std::string& lock_file, const std::string& unit) {
  return HolderOf(lock_file, unit).has_value();
}

}  // namespace zevfleet
