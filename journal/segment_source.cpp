#include "segment_source.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace journal {

uint64_t RawSegment::Size() const {
  struct stat info {};
  if (fstat(fd_, &info) != 0) throw std::system_error(errno, std::generic_category());
  return static_cast<uint64_t>(info.st_size);
}

size_t RawSegment::ReadAt(uint64_t offset, std::span<char> room) {
  size_t done = 0;
  while (done < room.size()) {
    const ssize_t count =
        pread(fd_, &room[done], room.size() - done, static_cast<off_t>(offset + done));
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) throw std::system_error(errno, std::generic_category());
    if (count == 0) break;
    done += static_cast<size_t>(count);
  }
  return done;
}

}  // namespace journal
