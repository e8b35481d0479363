#include "health_log.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

namespace zevctl {

LogDirectoryLook::LogDirectoryLook(const std::string& log_dir) {
  const std::string current = log_dir + "/zev.dated/current";
  directory_ = Descriptor(open(current.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!directory_) reason_ = current + ": " + strerror(errno);
}

LogState LogDirectoryLook::StateOf(const std::string& console) const {
  constexpr int64_t kSecond = 1'000'000'000;
  if (console.find('/') != std::string::npos) return {};
  struct stat info {};
  const std::string name = console + ".log";
  if (fstatat(directory_.get(), name.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0) {
    return {.is_missing = errno == ENOENT, .written = {}};
  }
  return {.is_missing = false, .written = info.st_mtim.tv_sec * kSecond + info.st_mtim.tv_nsec};
}

}  // namespace zevctl
