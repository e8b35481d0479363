#include "log_directories.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <numeric>
#include <utility>

#include "name_match.h"
#include "output.h"

namespace zevctl {

namespace {

constexpr std::string_view kSuffix = ".log";
constexpr std::string_view kCompressedSuffix = ".log.zst";
constexpr std::string_view kConsolidatedName = "consolidated";
constexpr std::string_view kCurrentName = "current";

bool HasGone(int error) {
  return error == ENOENT || error == ENOTDIR || error == ELOOP;
}

// ---- Names --------------------------------------------------------------------------------------

enum class Case { kCounts, kIgnored };

std::string Folded(std::string_view name, Case letters) {
  std::string folded(name);
  for (char& byte : folded) {
    if (byte == '-') byte = '_';
    if (letters == Case::kIgnored) byte = static_cast<char>(tolower(static_cast<uint8_t>(byte)));
  }
  return folded;
}

// The edit distance: how many characters must be changed, added or removed.
size_t Distance(std::string_view one, std::string_view other) {
  std::vector<size_t> row(other.size() + 1);
  std::iota(row.begin(), row.end(), size_t{0});
  for (size_t i = 0; i < one.size(); ++i) {
    size_t diagonal = std::exchange(row[0], i + 1);
    for (size_t j = 0; j < other.size(); ++j) {
      const size_t changed = diagonal + (one[i] == other[j] ? 0 : 1);
      diagonal = row[j + 1];
      row[j + 1] = std::min({changed, diagonal + 1, row[j] + 1});
    }
  }
  return row.back();
}

bool Exists(const std::string& name, const LogNames& existing, Case letters) {
  const std::string folded = Folded(name, letters);
  return std::any_of(existing.begin(), existing.end(),
                     [&](const std::string& other) { return Folded(other, letters) == folded; });
}

Failure Ambiguous(const std::string& name, const std::map<std::string, std::string>& found) {
  constexpr size_t kMostShown = 8;
  std::string text = "several logs begin with " + Printable(name) + ": ";
  size_t shown = 0;
  for (const auto& [folded, other] : found) {
    if (shown == kMostShown) {
      text += ", ...";
      break;
    }
    text += (shown++ == 0 ? "" : ", ") + Printable(other);
  }
  return {ExitStatus::kNoSuchConsole,
          text + "; write more of the name, or \"" + Printable(name) + "*\" for all of them"};
}

bool IsSimilar(const std::string& one, const std::string& other, size_t distance) {
  constexpr size_t kFewChanges = 2;
  return distance <= std::min(kFewChanges, one.size() / 2) ||
         one.find(other) != std::string::npos || other.find(one) != std::string::npos;
}

// ---- Directories --------------------------------------------------------------------------------

struct CloseDirectory {
  void operator()(DIR* directory) const { closedir(directory); }
};
using DirectoryStream = std::unique_ptr<DIR, CloseDirectory>;

// A new stream, at the first entry; null when the directory cannot be listed.
DirectoryStream Entries(int directory) {
  const int own = openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  DirectoryStream stream(own < 0 ? nullptr : fdopendir(own));
  if (!stream && own >= 0) close(own);
  return stream;
}

// Not valid when the directory has been removed meanwhile or is no directory.
Descriptor OpenDirectory(int parent, const std::string& name, const std::string& parent_path) {
  Descriptor descriptor(openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!descriptor && !HasGone(errno)) throw CannotRead(parent_path + "/" + name, errno);
  return descriptor;
}

bool IsSameTime(const timespec& one, const timespec& other) {
  return one.tv_sec == other.tv_sec && one.tv_nsec == other.tv_nsec;
}

void AddUnlessKnown(std::vector<LogDirectory>& directories, LogDirectory directory) {
  const auto is_it = [&](const LogDirectory& known) {
    return known.identity() == directory.identity();
  };
  if (std::none_of(directories.begin(), directories.end(), is_it)) {
    directories.push_back(std::move(directory));
  }
}

}  // namespace

// ---- Names --------------------------------------------------------------------------------------

WantedLogs::WantedLogs(const std::vector<std::string>& names, const LogNames& existing) {
  for (const std::string& name : names) {
    if (Exists(name, existing, Case::kCounts)) {
      Add(name);
    } else if (IsPattern(name, existing)) {
      wanted_.push_back({name, By::kPattern});
    } else {
      wanted_.push_back({Folded(name, Case::kIgnored), By::kName});
    }
  }
}

bool WantedLogs::Has(std::string_view name) const {
  return std::any_of(wanted_.begin(), wanted_.end(),
                     [&](const Wanted& wanted) { return wanted.Has(name); });
}

// The consolidated log repeats what is in the others.
bool WantedLogs::Wanted::Has(std::string_view other) const {
  if (by == By::kPattern)
    return other != kConsolidatedName && NameMatches(std::string(other), name);
  return name == Folded(other, by == By::kName ? Case::kIgnored : Case::kCounts);
}

void WantedLogs::Add(const std::string& name) {
  wanted_.push_back({Folded(name, Case::kCounts), By::kExactName});
}

bool IsPattern(const std::string& name, const LogNames& existing) {
  return name.find_first_of("*?[") != std::string::npos && !Exists(name, existing, Case::kIgnored);
}

std::string MeantName(const std::string& name, const LogNames& existing) {
  if (IsPattern(name, existing) || Exists(name, existing, Case::kIgnored)) return name;
  std::map<std::string, std::string> found;  // one of each console, by the form that is compared
  for (const std::string& other : existing) {
    if (NameBeginsWith(other, name)) found.emplace(Folded(other, Case::kIgnored), other);
  }
  if (found.size() > 1) throw Ambiguous(name, found);
  return found.empty() ? name : found.begin()->second;
}

std::vector<std::string> SimilarNames(const std::string& name, const LogNames& existing) {
  constexpr size_t kMost = 5;
  const std::string folded = Folded(name, Case::kIgnored);
  std::vector<std::pair<size_t, std::string>> ranked;
  for (const std::string& other : existing) {
    const std::string other_folded = Folded(other, Case::kIgnored);
    const size_t distance = Distance(folded, other_folded);
    if (IsSimilar(folded, other_folded, distance)) ranked.emplace_back(distance, other);
  }
  std::sort(ranked.begin(), ranked.end());
  ranked.resize(std::min(ranked.size(), kMost));
  std::vector<std::string> names(ranked.size());
  std::transform(ranked.begin(), ranked.end(), names.begin(),
                 [](const auto& entry) { return entry.second; });
  return names;
}

LogKind KindOf(std::string_view name) {
  return name == kConsolidatedName ? LogKind::kConsolidated : LogKind::kConsole;
}

// ---- Directories --------------------------------------------------------------------------------

FileIdentity IdentityOf(const struct stat& info) {
  return {info.st_dev, info.st_ino};
}

LogDirectory::LogDirectory(Descriptor descriptor) : descriptor_(std::move(descriptor)) {
  struct stat info {};
  fstat(fd(), &info);
  identity_ = IdentityOf(info);
}

// A log that is compressed while the directory is listed may be seen under neither name.
std::vector<LogDirectory::Entry> LogDirectory::Logs() const {
  constexpr int kTries = 3;
  std::vector<Entry> logs;
  struct stat before {};
  struct stat after {};
  for (int i = 0; i < kTries; ++i) {
    fstat(fd(), &before);
    logs = AllLogs();
    fstat(fd(), &after);
    if (IsSameTime(before.st_mtim, after.st_mtim)) break;
  }
  std::erase_if(logs, [&](const Entry& entry) { return entry.is_compressed && IsCopy(entry); });
  return logs;
}

std::vector<LogDirectory::Entry> LogDirectory::AllLogs() const {
  std::vector<Entry> logs;
  const DirectoryStream entries = Entries(fd());
  if (!entries) return logs;
  while (const dirent* entry = readdir(entries.get())) {
    std::string_view name = entry->d_name;
    const bool is_compressed = name.ends_with(kCompressedSuffix);
    const std::string_view suffix = is_compressed ? kCompressedSuffix : kSuffix;
    if (!name.ends_with(suffix) || name.size() == suffix.size()) continue;
    name.remove_suffix(suffix.size());
    logs.push_back({std::string(name), entry->d_ino, is_compressed});
  }
  return logs;
}

// True when the original is still there: what is compressed keeps the time of its last change. A
// log of another time is one that the daemon began when the directory's name came round again.
bool LogDirectory::IsCopy(const Entry& entry) const {
  const std::string original = entry.name + std::string(kSuffix);
  const std::string copy = entry.name + std::string(kCompressedSuffix);
  struct stat original_info {};
  struct stat copy_info {};
  return fstatat(fd(), original.c_str(), &original_info, 0) == 0 &&
         fstatat(fd(), copy.c_str(), &copy_info, 0) == 0 &&
         IsSameTime(original_info.st_mtim, copy_info.st_mtim);
}

LogFile LogDirectory::OpenLog(const Entry& entry) const {
  if (!entry.is_compressed) {
    Descriptor file = OpenFile(entry.name + std::string(kSuffix));
    if (file) return {std::move(file), false};
  }
  return {OpenFile(entry.name + std::string(kCompressedSuffix)), true};
}

Descriptor LogDirectory::OpenFile(const std::string& file_name) const {
  // If it is a pipe, opening it must not wait for a writer.
  Descriptor file(openat(fd(), file_name.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (!file && !HasGone(errno)) throw CannotRead(file_name, errno);
  struct stat info {};
  if (!file || fstat(file.get(), &info) != 0 || !S_ISREG(info.st_mode)) return {};
  return file;
}

std::string DatedDirectoryPath(const std::string& log_dir) {
  return log_dir + "/zev.dated";
}

std::optional<LogDirectory> OpenCurrentDirectory(const std::string& log_dir) {
  const std::string path = DatedDirectoryPath(log_dir) + "/" + std::string(kCurrentName);
  Descriptor descriptor(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!descriptor) return {};
  return LogDirectory(std::move(descriptor));
}

// The current directory comes last: it may have been made after the others were listed.
std::vector<LogDirectory> OpenLogDirectories(const std::string& log_dir) {
  const std::string path = DatedDirectoryPath(log_dir);
  const Descriptor dated(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  const DirectoryStream entries = dated ? Entries(dated.get()) : nullptr;
  if (!entries) throw CannotRead(path, errno);
  std::vector<LogDirectory> directories;
  while (const dirent* entry = readdir(entries.get())) {
    const std::string name = entry->d_name;
    if (name == "." || name == ".." || name == kCurrentName) continue;
    Descriptor found = OpenDirectory(dated.get(), name, path);
    if (found) AddUnlessKnown(directories, LogDirectory(std::move(found)));
  }
  Descriptor current = OpenDirectory(dated.get(), std::string(kCurrentName), path);
  if (current) AddUnlessKnown(directories, LogDirectory(std::move(current)));
  return directories;
}

LogNames NamesIn(const std::vector<LogDirectory>& directories) {
  LogNames names;
  for (const LogDirectory& directory : directories) {
    for (auto& entry : directory.Logs()) names.insert(std::move(entry.name));
  }
  return names;
}

Failure CannotRead(const std::string& path, int error) {
  std::string advice = "; look for the cause in the system's log";
  if (error == EACCES) advice = "; it is for root and the group of the station's files";
  if (error == EMFILE) advice = "; name fewer consoles, or raise the limit with ulimit -n";
  if (error == ENOENT) advice = "; --log-dir tells where the daemon's logs are, if not there";
  return {ExitStatus::kFailed, "cannot read " + Printable(path) + ": " + strerror(error) + advice};
}

}  // namespace zevctl
