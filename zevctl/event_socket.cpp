#include "event_socket.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "exit_status.h"
#include "output.h"

namespace zevctl {

namespace {

constexpr mode_t kOthersKeptOut = 0117;  // the socket's mode becomes 0660

std::string Directory(const std::string& path) {
  const auto parent = std::filesystem::path(path).parent_path();
  return parent.empty() ? "." : parent.string();
}

Failure Failed(const std::string& what, const std::string& path, int error) {
  return {ExitStatus::kFailed, what + " " + Printable(path) + ": " + strerror(error) +
                                   "; mend that, or give another path with --socket"};
}

/// Held while the socket is made or removed: two programs that start at once must not both find
/// that nobody listens.
class DirectoryLock {
 public:
  explicit DirectoryLock(const std::string& path)
      : directory_(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
    if (directory_) flock(directory_.get(), LOCK_EX);
  }

 private:
  Descriptor directory_;
};

sockaddr_un AddressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof address.sun_path) {
    throw Failure(ExitStatus::kUsage, "--socket: a path of a socket has 1 to " +
                                          std::to_string(sizeof address.sun_path - 1) +
                                          " bytes; give a shorter one");
  }
  memcpy(address.sun_path, path.data(), path.size());
  return address;
}

Descriptor NewSocket() {
  Descriptor made(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!made) {
    throw Failure(ExitStatus::kFailed,
                  std::string("no socket: ") + strerror(errno) +
                      "; end other programs, or raise the limit with ulimit -n");
  }
  return made;
}

int Bind(const Descriptor& made, const sockaddr_un& address) {
  const mode_t before = umask(kOthersKeptOut);
  const int result = bind(made.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
  const int error = errno;
  umask(before);
  errno = error;
  return result;
}

// Removes a socket on which nobody listens. A listener with more callers than it can take answers
// EAGAIN.
void RemoveStale(const std::string& path, const sockaddr_un& address) {
  struct stat info {};
  if (lstat(path.c_str(), &info) != 0) return;
  if (!S_ISSOCK(info.st_mode)) {
    throw Failure(ExitStatus::kFailed, Printable(path) +
                                           " is there already and is no socket; "
                                           "remove it, or give another path with --socket");
  }
  const Descriptor probe = NewSocket();
  const int result =
      connect(probe.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
  if (result == 0 || errno == EAGAIN) {
    throw Failure(ExitStatus::kFailed, "somebody receives the events of " + Printable(path) +
                                           " already; end that program, or give another path "
                                           "with --socket");
  }
  if (errno == ENOENT) return;
  if (errno != ECONNREFUSED) throw Failed("cannot use the socket", path, errno);
  if (unlink(path.c_str()) != 0) throw Failed("cannot remove the old socket", path, errno);
}

}  // namespace

EventSocket::EventSocket(const std::string& path) : path_(path) {
  const sockaddr_un address = AddressOf(path_);
  const std::string directory = Directory(path_);
  if (mkdir(directory.c_str(), 0755) != 0 && errno != EEXIST) {
    throw Failed("cannot make the directory", directory, errno);
  }
  const DirectoryLock lock(directory);
  RemoveStale(path_, address);
  Descriptor made = NewSocket();
  if (Bind(made, address) != 0) throw Failed("cannot make the socket", path_, errno);
  struct stat info {};
  lstat(path_.c_str(), &info);
  device_ = info.st_dev;
  inode_ = info.st_ino;
  if (listen(made.get(), SOMAXCONN) != 0) throw Failed("cannot listen on", path_, errno);
  listener_ = std::move(made);
}

EventSocket::~EventSocket() {
  const DirectoryLock lock(Directory(path_));
  if (IsOurs()) unlink(path_.c_str());
}

bool EventSocket::IsOurs() const {
  struct stat info {};
  return lstat(path_.c_str(), &info) == 0 && info.st_dev == device_ && info.st_ino == inode_;
}

Descriptor EventSocket::Accept(bool& full) {
  Descriptor accepted(accept4(fd(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
  full = !accepted && (errno == EMFILE || errno == ENFILE || errno == ENOMEM || errno == ENOBUFS);
  return accepted;
}

}  // namespace zevctl
