#include "owned_file.h"

#include <fcntl.h>

#include <cerrno>
#include <cstring>
#include <utility>

namespace zevctl {

namespace {

constexpr int kPlace = O_PATH | O_NOFOLLOW | O_CLOEXEC;  // names something without opening it

SafeFile Refused(const std::string& reason, int error = 0) {
  SafeFile file;
  file.reason = reason;
  file.error = error;
  return file;
}

SafeFile FailedBySystem() {
  const int error = errno;
  return Refused(strerror(error), error);
}

// The number of names is taken by the name, when the file is held already: whoever has given it a
// second name cannot hide that by taking one away in between.
bool HasOneName(const Descriptor& parent, const std::string& name, const struct stat& held) {
  struct stat info {};
  return fstatat(parent.get(), name.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0 &&
         info.st_dev == held.st_dev && info.st_ino == held.st_ino && info.st_nlink == 1;
}

SafeFile OpenIn(const Descriptor& parent, const std::string& name) {
  const Descriptor place(openat(parent.get(), name.c_str(), kPlace));
  SafeFile file;
  if (!place || fstat(place.get(), &file.info) != 0) return FailedBySystem();
  if (S_ISLNK(file.info.st_mode)) return Refused("it is a link");
  if (!S_ISREG(file.info.st_mode)) return Refused("it is no plain file");
  if (!HasOneName(parent, name, file.info)) return Refused("it has more than one name");
  const std::string itself = "/proc/self/fd/" + std::to_string(place.get());
  file.opened = Descriptor(open(itself.c_str(), O_RDONLY | O_CLOEXEC));
  return file.opened ? std::move(file) : FailedBySystem();
}

}  // namespace

SafeFile OpenSafely(const std::string& directory, const std::string& name) {
  Descriptor parent(open(directory.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  std::string rest = name;
  for (size_t slash = rest.find('/'); parent && slash != std::string::npos;
       slash = rest.find('/')) {
    parent = Descriptor(openat(parent.get(), rest.substr(0, slash).c_str(), kPlace | O_DIRECTORY));
    rest.erase(0, slash + 1);
  }
  return parent ? OpenIn(parent, rest) : FailedBySystem();
}

}  // namespace zevctl
