// Gives what a daemon that ran as root has left in the station's directories to the user zevd.
//
// Others may have been able to write in these directories, so nothing is done by path: each entry
// is opened without following a link, examined, and given away through that descriptor. Only real
// directories and regular files with one name change hands: a second name could be that of a file
// elsewhere. What is left alone is named.
#include <dirent.h>
#include <fcntl.h>
#include <linux/openat2.h>
#include <pwd.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>

namespace {

constexpr char kRoot[] = QOR_ROOT;
constexpr char kLockFile[] = QOR_ROOT "/config/zev.lock";
constexpr char kUser[] = "zevd";
constexpr int kDeepest = 64;

constexpr int kDone = 0;
constexpr int kIncomplete = 1;  // some could not be given away
constexpr int kRunning = 2;     // a daemon is at work, and would make new ones

class Descriptor {
 public:
  explicit Descriptor(int fd) : fd_(fd) {}
  Descriptor(Descriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  Descriptor& operator=(Descriptor&&) = delete;
  ~Descriptor() {
    if (fd_ != -1) close(fd_);
  }
  int get() const { return fd_; }
  explicit operator bool() const { return fd_ != -1; }

 private:
  int fd_;
};

struct Owner {
  uid_t user;
  gid_t group;
};

struct Counts {
  unsigned given = 0;
  unsigned left = 0;
  unsigned failed = 0;
};

// A name may hold anything, and the output goes to a terminal.
std::string Shown(const std::string& path) {
  std::string shown = path;
  for (char& byte : shown) {
    if (static_cast<unsigned char>(byte) < ' ' || byte == 127) byte = '?';
  }
  return shown;
}

void Say(const std::string& path, const char* what) {
  fprintf(stderr, "zevd-takeover: %s: %s\n", Shown(path).c_str(), what);
}

// Opens an entry for examination, whatever it is; fails with EXDEV at the root of a mount. Numbers
// of devices do not tell where one begins: an overlay has several.
Descriptor OpenEntry(int directory, const char* name) {
  open_how how = {};
  how.flags = O_PATH | O_NOFOLLOW | O_CLOEXEC;
  how.resolve = RESOLVE_NO_XDEV;
  return Descriptor(static_cast<int>(syscall(SYS_openat2, directory, name, &how, sizeof how)));
}

// Null when it may be given away.
const char* ReasonToLeave(const struct stat& found, const Owner& owner) {
  if (S_ISLNK(found.st_mode)) return "left alone: a symbolic link";
  if (!S_ISREG(found.st_mode) && !S_ISDIR(found.st_mode)) {
    return "left alone: neither a file nor a directory";
  }
  if (S_ISREG(found.st_mode) && found.st_nlink != 1) return "left alone: the file has other names";
  if (S_ISREG(found.st_mode) && (found.st_mode & (S_ISUID | S_ISGID)) != 0) {
    return "left alone: the file runs as its owner or group";
  }
  if (found.st_uid != 0 && found.st_uid != owner.user) {
    return "left alone: it belongs to neither root nor zevd";
  }
  return nullptr;
}

class Takeover {
 public:
  explicit Takeover(const Owner& owner) : owner_(owner) {}

  /// `place` was opened with O_PATH.
  void Take(const Descriptor& place, const std::string& path, int depth) {
    struct stat found {};
    if (fstat(place.get(), &found) != 0) return Fail(path);
    if (const char* reason = ReasonToLeave(found, owner_)) return Leave(path, found, reason);
    if (found.st_uid != owner_.user || found.st_gid != owner_.group) {
      if (fchownat(place.get(), "", owner_.user, owner_.group, AT_EMPTY_PATH) != 0) {
        return Fail(path);
      }
      ++counts_.given;
    }
    if (S_ISDIR(found.st_mode)) TakeEntries(place, path, depth + 1);
  }

  const Counts& counts() const { return counts_; }

 private:
  void TakeEntries(const Descriptor& place, const std::string& path, int depth) {
    if (depth > kDeepest) return Leave(path, {}, "left alone: too deep");
    const int fd = openat(place.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    DIR* directory = fd == -1 ? nullptr : fdopendir(fd);
    if (directory == nullptr) {
      if (fd != -1) close(fd);
      return Fail(path);
    }
    while (const dirent* entry = readdir(directory)) {
      const std::string name = entry->d_name;
      if (name == "." || name == "..") continue;
      std::string inside = path;
      inside.append("/").append(name);
      const Descriptor found = OpenEntry(fd, name.c_str());
      if (found) {
        Take(found, inside, depth);
      } else if (errno == EXDEV) {
        Leave(inside, {}, "left alone: something else is mounted there");
      } else if (errno != ENOENT) {
        Fail(inside);
      }
    }
    closedir(directory);
  }

  // A link needs no owner: the daemon replaces "current" whosever it is.
  void Leave(const std::string& path, const struct stat& found, const char* reason) {
    if (S_ISLNK(found.st_mode)) return;
    Say(path, reason);
    ++counts_.left;
  }

  void Fail(const std::string& path) {
    Say(path, strerror(errno));
    ++counts_.failed;
  }

  Owner owner_;
  Counts counts_;
};

// What a running daemon of root's makes from now on would be root's again.
bool IsDaemonRunning() {
  const Descriptor lock(open(kLockFile, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  return lock && flock(lock.get(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK;
}

// Only root may have put a link here, such as one that leads to the disk of the logs.
bool IsRootsOwn(const Descriptor& directory) {
  struct stat found {};
  return fstat(directory.get(), &found) == 0 && found.st_uid == 0 &&
         (found.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

void TakeDirectory(Takeover& takeover, const Descriptor& root, const char* name) {
  const int follow = IsRootsOwn(root) ? 0 : O_NOFOLLOW;
  const Descriptor place(openat(root.get(), name, O_PATH | O_DIRECTORY | O_CLOEXEC | follow));
  if (place) takeover.Take(place, std::string(kRoot) + "/" + name, 0);
}

}  // namespace

int main() {
  const passwd* entry = getpwnam(kUser);
  if (entry == nullptr) {
    fprintf(stderr, "zevd-takeover: There is no user %s. Run: systemd-sysusers\n", kUser);
    return kIncomplete;
  }
  if (IsDaemonRunning()) {
    fprintf(stderr,
            "zevd-takeover: A daemon is running, and holds %s. End it, then run: "
            "/usr/libexec/zevd/zevd-takeover && systemctl start zevd\n",
            kLockFile);
    return kRunning;
  }
  const Descriptor root(open(kRoot, O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!root) return kDone;
  Takeover takeover({entry->pw_uid, entry->pw_gid});
  for (const char* name : {"config", "logs", "journal"}) TakeDirectory(takeover, root, name);
  const Counts& counts = takeover.counts();
  if (counts.given > 0) {
    printf("zevd-takeover: gave %u files and directories in %s to the user %s.\n", counts.given,
           kRoot, kUser);
  }
  if (counts.left > 0) fprintf(stderr, "zevd-takeover: left %u alone.\n", counts.left);
  return counts.failed == 0 ? kDone : kIncomplete;
}
