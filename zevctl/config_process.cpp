#include "config_process.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <memory>
#include <sstream>

#include "config_file.h"
#include "exit_status.h"

namespace zevctl {

namespace {

constexpr char kDaemonName[] = "zevd\n";           // as /proc/PID/comm has it
constexpr char kUnitSuffix[] = "/zevd.service\n";  // of the control group's path

std::string Below(pid_t pid, const std::string& file) {
  return "/proc/" + std::to_string(pid) + "/" + file;
}

std::vector<std::string> Entries(const std::string& directory) {
  std::vector<std::string> names;
  const std::unique_ptr<DIR, int (*)(DIR*)> opened(opendir(directory.c_str()), closedir);
  if (opened == nullptr) return names;
  for (const dirent* entry = readdir(opened.get()); entry != nullptr;
       entry = readdir(opened.get())) {
    if (entry->d_name[0] >= '0' && entry->d_name[0] <= '9') names.emplace_back(entry->d_name);
  }
  return names;
}

std::vector<pid_t> Processes() {
  std::vector<pid_t> pids;
  for (const std::string& name : Entries("/proc")) pids.push_back(std::stoi(name));
  std::erase(pids, getpid());
  return pids;
}

bool HasOpen(pid_t pid, const struct stat& file) {
  const std::string directory = Below(pid, "fd");
  const auto descriptors = Entries(directory);
  return std::any_of(descriptors.begin(), descriptors.end(), [&](const std::string& name) {
    struct stat info {};
    return stat((directory + "/" + name).c_str(), &info) == 0 && info.st_dev == file.st_dev &&
           info.st_ino == file.st_ino;
  });
}

bool IsNamedLikeTheDaemon(pid_t pid) {
  return ReadWhole(Below(pid, "comm")).text == kDaemonName;
}

pid_t ParentOf(pid_t pid) {
  const auto numbers = StatusNumbers(ReadWhole(Below(pid, "status")).text, "PPid:");
  return numbers.empty() ? 0 : static_cast<pid_t>(numbers.front());
}

// A child that has not yet begun another program has its parent's descriptors.
void LeaveOutChildren(std::vector<pid_t>& pids) {
  const std::vector<pid_t> all = pids;
  std::erase_if(pids, [&](pid_t pid) {
    return std::find(all.begin(), all.end(), ParentOf(pid)) != all.end();
  });
}

bool IsOfTheUnit(pid_t pid) {
  return ReadWhole(Below(pid, "cgroup")).text.find(kUnitSuffix) != std::string::npos;
}

bool IsLocked(const struct stat& file) {
  return TellsOfLock(ReadWhole("/proc/locks").text, file.st_dev, file.st_ino);
}

Failure Unfound(const std::string& what) {
  return {ExitStatus::kFailed, what + "; run this as root"};
}

// The processes of others do not show their files; the daemon's unit tells which one is meant.
std::vector<pid_t> Candidates(const struct stat& lock) {
  std::vector<pid_t> holders;
  std::vector<pid_t> unit;
  for (const pid_t pid : Processes()) {
    if (!IsNamedLikeTheDaemon(pid)) continue;
    if (HasOpen(pid, lock)) holders.push_back(pid);
    if (IsOfTheUnit(pid)) unit.push_back(pid);
  }
  LeaveOutChildren(holders);
  LeaveOutChildren(unit);
  if (!holders.empty()) return holders;
  // The kernel's list does not tell of the lock on every file system; what is known then is that
  // the unit runs, and that its files are not shown.
  const bool sees_files = geteuid() == 0;
  return IsLocked(lock) || !sees_files ? unit : holders;
}

}  // namespace

bool TellsOfLock(const std::string& locks, dev_t device, ino_t inode) {
  std::ostringstream wanted;
  wanted.fill('0');
  wanted << std::hex;
  wanted.width(2);
  wanted << major(device) << ":";
  wanted.width(2);
  wanted << minor(device) << ":" << std::dec << inode;
  std::istringstream lines(locks);
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    for (std::string word; words >> word;) {
      if (word == wanted.str()) return true;
    }
  }
  return false;
}

std::vector<gid_t> StatusNumbers(const std::string& status, const std::string& key) {
  std::vector<gid_t> numbers;
  std::istringstream lines(status);
  for (std::string line; std::getline(lines, line);) {
    if (!line.starts_with(key)) continue;
    std::istringstream words(line.substr(key.size()));
    for (gid_t number = 0; words >> number;) numbers.push_back(number);
  }
  return numbers;
}

std::optional<DaemonProcess> DaemonProcess::Find(const std::string& lock_file) {
  struct stat lock {};
  if (lstat(lock_file.c_str(), &lock) != 0) return {};
  const std::vector<pid_t> candidates = Candidates(lock);
  if (candidates.empty() && !IsLocked(lock)) return {};
  if (candidates.size() != 1) throw Unfound("a daemon runs, but its process cannot be found");
  const pid_t pid = candidates.front();
  Descriptor process(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
  // The number may have gone to another process before the descriptor was made, not afterwards.
  if (!process || !IsNamedLikeTheDaemon(pid)) {
    throw Failure(ExitStatus::kFailed, "the daemon has just ended; start it, and try again");
  }
  return DaemonProcess(pid, std::move(process));
}

bool DaemonProcess::MayRead(uid_t owner, gid_t group, mode_t mode) const {
  const std::string status = ReadWhole(Below(pid_, "status")).text;
  const auto users = StatusNumbers(status, "Uid:");
  auto groups = StatusNumbers(status, "Gid:");
  const auto others = StatusNumbers(status, "Groups:");
  groups.insert(groups.end(), others.begin(), others.end());
  constexpr size_t kEffective = 1;
  const uid_t user = users.size() > kEffective ? users[kEffective] : 0;
  if (user == 0) return true;
  if (user == owner) return (mode & S_IRUSR) != 0;
  if (std::find(groups.begin(), groups.end(), group) != groups.end()) return (mode & S_IRGRP) != 0;
  return (mode & S_IROTH) != 0;
}

void DaemonProcess::Reload() const {
  if (syscall(SYS_pidfd_send_signal, process_.get(), SIGHUP, nullptr, 0) == 0) return;
  throw Failure(ExitStatus::kFailed, "cannot signal the daemon (process " + std::to_string(pid_) +
                                         "): " + strerror(errno) +
                                         "; zev.conf is new, have the daemon read it with SIGHUP");
}

}  // namespace zevctl
