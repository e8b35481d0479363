#include "log_keeper.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string_view>
#include <utility>

#include "exit_status.h"
#include "log_packing.h"
#include "output.h"

namespace zevctl {

namespace {

constexpr time_t kDay = 86400;
constexpr char kTemporary[] = ".zevd-logs.tmp";
constexpr std::string_view kSuffix = ".log";
constexpr std::string_view kCompressedSuffix = ".log.zst";

// As messages name what is wrong.
Failure Failed(const std::string& what, const std::string& path) {
  return {ExitStatus::kFailed, what + " " + Printable(path) + ": " + strerror(errno)};
}

struct CloseDirectory {
  void operator()(DIR* directory) const { closedir(directory); }
};

// The names in a directory, without "." and "..".
std::vector<std::string> NamesInDirectory(int directory) {
  const int own = openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  const std::unique_ptr<DIR, CloseDirectory> stream(own < 0 ? nullptr : fdopendir(own));
  if (!stream) throw Failed("cannot list", "a log directory");
  std::vector<std::string> names;
  while (const dirent* entry = readdir(stream.get())) {
    const std::string name = entry->d_name;
    if (name != "." && name != "..") names.push_back(name);
  }
  std::sort(names.begin(), names.end());
  return names;
}

bool IsLog(const std::string& name) {
  return name.ends_with(kSuffix) || name.ends_with(kCompressedSuffix);
}

bool IsSameFile(const struct stat& one, const struct stat& other) {
  return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

bool IsSameTime(const timespec& one, const timespec& other) {
  return one.tv_sec == other.tv_sec && one.tv_nsec == other.tv_nsec;
}

bool Examine(int directory, const std::string& name, struct stat* info) {
  return fstatat(directory, name.c_str(), info, AT_SYMLINK_NOFOLLOW) == 0;
}

/// Whether somebody has the file open for writing: then a lease for reading is refused. It is given
/// back at once, as it would keep a writer waiting.
enum class Writer { kNone, kSome, kNotOurs };

Writer WriterOf(int fd) {
  if (fcntl(fd, F_SETLEASE, F_RDLCK) == 0) {
    fcntl(fd, F_SETLEASE, F_UNLCK);
    return Writer::kNone;
  }
  if (errno == EAGAIN) return Writer::kSome;
  return errno == EACCES ? Writer::kNotOurs : Writer::kNone;  // some file systems have no leases
}

Descriptor OpenToRead(int directory, const std::string& name) {
  return Descriptor(
      openat(directory, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
}

/// The new file while it has its temporary name, which it loses at the end if it still has it.
class TemporaryFile {
 public:
  explicit TemporaryFile(int directory)
      : directory_(directory),
        file_(openat(directory, kTemporary, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                     S_IRUSR | S_IWUSR)) {
    if (!file_) throw Failed("cannot make", kTemporary);
  }
  ~TemporaryFile() {
    if (!is_placed_) unlinkat(directory_, kTemporary, 0);
  }
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;

  int fd() const { return file_.get(); }

  // Everything is on the disk before the name says so.
  void Place(const struct stat& original, const std::string& name) {
    const timespec times[] = {original.st_atim, original.st_mtim};
    if (fchown(fd(), original.st_uid, original.st_gid) != 0 ||
        fchmod(fd(), original.st_mode & 07777) != 0 || futimens(fd(), times) != 0 ||
        fsync(fd()) != 0) {
      throw Failed("cannot complete", name);
    }
    if (renameat2(directory_, kTemporary, directory_, name.c_str(), RENAME_NOREPLACE) != 0) {
      throw Failed("cannot make", name);
    }
    is_placed_ = true;
    if (fsync(directory_) != 0) throw Failed("cannot complete", name);
  }

 private:
  int directory_;
  Descriptor file_;
  bool is_placed_ = false;
};

}  // namespace

bool IsDatedName(const std::string& name) {
  constexpr std::array<std::string_view, 12> kMonths = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                        "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  constexpr size_t kSize = std::string_view("17-Mar-08:05").size();
  int day = 0;
  int hour = 0;
  int minute = 0;
  char month[4] = "";
  int end = 0;
  if (name.size() != kSize || name.find_first_of(" +") != std::string::npos) return false;
  if (sscanf(name.c_str(), "%2d-%3[A-Za-z]-%2d:%2d%n", &day, month, &hour, &minute, &end) != 4) {
    return false;
  }
  return static_cast<size_t>(end) == kSize && day >= 1 && day <= 31 && hour >= 0 && hour < 24 &&
         minute >= 0 && minute < 60 &&
         std::find(kMonths.begin(), kMonths.end(), month) != kMonths.end();
}

std::optional<int> KeepDaysIn(const std::string& settings) {
  constexpr std::string_view kKey = "ZEVD_KEEP_DAYS=";
  constexpr int kMostDays = 36500;
  size_t start = 0;
  while (start < settings.size() && settings.compare(start, kKey.size(), kKey) != 0) {
    start = std::min(settings.find('\n', start), settings.size() - 1) + 1;
  }
  if (start >= settings.size()) return 0;
  start += kKey.size();
  std::string value = settings.substr(start, settings.find('\n', start) - start);
  value.erase(value.find_last_not_of(" \t") + 1);
  int days = 0;
  const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), days);
  const bool is_number = error == std::errc() && end == value.data() + value.size();
  if (!is_number || days < 0 || days > kMostDays) return {};
  return days;
}

LogKeeper::LogKeeper(std::string log_dir, int keep_days, time_t now, Teller tell)
    : log_dir_(std::move(log_dir)), keep_days_(keep_days), now_(now), tell_(std::move(tell)) {}

Kept LogKeeper::Run() {
  OpenDated();
  for (const std::string& name : NamesInDirectory(dated_.get())) {
    if (!IsDatedName(name)) continue;
    try {
      auto directory = Open(name);
      if (directory) Keep(std::move(*directory));
    } catch (const Failure& failure) {
      ++kept_.failures;
      tell_(failure.what());
    }
  }
  return kept_;
}

// The log directory itself may be a link.
void LogKeeper::OpenDated() {
  const std::string path = DatedDirectoryPath(log_dir_);
  dated_ = Descriptor(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!dated_) throw CannotRead(path, errno);
  if (flock(dated_.get(), LOCK_EX | LOCK_NB) != 0) {
    throw Failure(ExitStatus::kFailed,
                  "another run is at work in " + Printable(path) + "; wait for its end");
  }
  struct stat current {};
  if (fstatat(dated_.get(), "current", &current, 0) != 0) {
    throw Failure(ExitStatus::kFailed, "cannot tell which directories are closed: there is no " +
                                           Printable(path) +
                                           "/current; start zevd, which makes it");
  }
}

// Asked again for each directory: the daemon may begin one meanwhile.
bool LogKeeper::IsCurrent(const struct stat& directory) const {
  struct stat current {};
  return fstatat(dated_.get(), "current", &current, 0) != 0 || IsSameFile(current, directory);
}

// Nothing when it is no directory, or is in use.
std::optional<LogKeeper::Directory> LogKeeper::Open(const std::string& name) const {
  Directory directory{name,
                      Descriptor(openat(dated_.get(), name.c_str(),
                                        O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC)),
                      {},
                      0};
  if (!directory.descriptor) {
    if (errno == ENOENT || errno == ENOTDIR || errno == ELOOP) return {};
    throw Failed("cannot open", PathOf(directory, ""));
  }
  struct stat info {};
  if (fstat(directory.descriptor.get(), &info) != 0 || IsCurrent(info)) return {};
  for (const std::string& file : NamesInDirectory(directory.descriptor.get())) {
    struct stat log {};
    if (!IsLog(file) || !Examine(directory.descriptor.get(), file, &log)) continue;
    if (S_ISREG(log.st_mode)) directory.logs.push_back({file, log});
  }
  directory.changed = directory.logs.empty() ? info.st_mtim.tv_sec : 0;
  for (const File& log : directory.logs) {
    directory.changed = std::max(directory.changed, log.info.st_mtim.tv_sec);
  }
  return directory;
}

void LogKeeper::Keep(Directory directory) {
  if (directory.changed > now_ - kDay) return;
  unlinkat(directory.descriptor.get(), kTemporary, 0);  // of a run that was stopped
  if (keep_days_ > 0 && directory.changed < now_ - keep_days_ * kDay) {
    Remove(directory);
  } else {
    Compress(directory);
  }
}

void LogKeeper::Remove(const Directory& directory) {
  for (const File& log : directory.logs) {
    const Descriptor file = OpenToRead(directory.descriptor.get(), log.name);
    struct stat info {};
    if (!file || fstat(file.get(), &info) != 0 || !IsUnchanged(directory, log, file)) continue;
    if (unlinkat(directory.descriptor.get(), log.name.c_str(), 0) == 0) {
      ++kept_.removed;
    } else {
      ++kept_.failures;
      tell_(Failed("cannot remove", PathOf(directory, log.name)).what());
    }
  }
  // Fails where something else is in it.
  if (unlinkat(dated_.get(), directory.name.c_str(), AT_REMOVEDIR) == 0) ++kept_.directories;
}

void LogKeeper::Compress(const Directory& directory) {
  for (const File& log : directory.logs) {
    if (!log.name.ends_with(kSuffix) || log.info.st_size == 0 || log.info.st_nlink != 1) continue;
    try {
      CompressLog(directory, log);
    } catch (const Failure& failure) {
      ++kept_.failures;
      tell_(Printable(PathOf(directory, log.name)) + " stays as it is: " + failure.what());
    }
  }
}

void LogKeeper::CompressLog(const Directory& directory, const File& log) {
  const Descriptor original = OpenToRead(directory.descriptor.get(), log.name);
  if (!original) throw Failed("cannot open", log.name);
  if (WriterOf(original.get()) == Writer::kNotOurs) {
    throw Failure(ExitStatus::kFailed,
                  "it belongs to another user; give it to the user zevd with chown");
  }
  if (!IsUnchanged(directory, log, original)) return;
  struct stat packed {};
  if (Examine(directory.descriptor.get(), log.name + ".zst", &packed)) {
    // A log of another time was begun when the directory's name came round again.
    if (IsSameTime(packed.st_mtim, log.info.st_mtim)) FinishReplacing(directory, log, original);
    return;
  }
  Replace(directory, log, original);
}

// True when the name still leads to the file, which nobody has changed or can change.
bool LogKeeper::IsUnchanged(const Directory& directory, const File& log,
                            const Descriptor& original) const {
  struct stat named {};
  struct stat now {};
  if (!Examine(directory.descriptor.get(), log.name, &named)) return false;
  if (fstat(original.get(), &now) != 0 || !IsSameFile(named, now)) return false;
  return IsSameFile(now, log.info) && now.st_size == log.info.st_size &&
         IsSameTime(now.st_mtim, log.info.st_mtim) && WriterOf(original.get()) != Writer::kSome;
}

void LogKeeper::Replace(const Directory& directory, const File& log, const Descriptor& original) {
  TemporaryFile packed(directory.descriptor.get());
  const off_t size = WriteCompressed(original.get(), log.info.st_size, packed.fd());
  if (!IsUnchanged(directory, log, original)) return;
  packed.Place(log.info, log.name + ".zst");
  RemoveOriginal(directory, log, original);
  ++kept_.compressed;
  kept_.before += log.info.st_size;
  kept_.after += size;
}

// A run was stopped between making the compressed file and removing the original.
void LogKeeper::FinishReplacing(const Directory& directory, const File& log,
                                const Descriptor& original) {
  const Descriptor packed = OpenToRead(directory.descriptor.get(), log.name + ".zst");
  if (!packed || !HasSameText(packed.get(), log.name, original.get(), log.info.st_size)) {
    throw Failure(ExitStatus::kFailed,
                  "beside it is a compressed log with another text; look at both and "
                  "remove one");
  }
  RemoveOriginal(directory, log, original);
}

void LogKeeper::RemoveOriginal(const Directory& directory, const File& log,
                               const Descriptor& original) {
  if (!IsUnchanged(directory, log, original)) return;
  if (unlinkat(directory.descriptor.get(), log.name.c_str(), 0) != 0) {
    throw Failed("cannot remove", log.name);
  }
}

std::string LogKeeper::PathOf(const Directory& directory, const std::string& file) const {
  return DatedDirectoryPath(log_dir_) + "/" + directory.name + "/" + file;
}

}  // namespace zevctl
