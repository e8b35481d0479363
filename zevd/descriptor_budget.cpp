#include "descriptor_budget.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

#include "error.h"

namespace zevd {

namespace {

// Set aside for what comes and goes: files that are read again, the event manager, consoles that
// are connected again.
constexpr int kOwnPart = 64;

// Of a small limit, one part in this many is set aside at most.
constexpr int kLargestOwnPart = 4;

// The last places, for the station's own operators and tools.
constexpr int kStationPlaces = 16;

// Most that one more caller may take until the next look: a connection, and two for a helper.
constexpr int kDescriptorsOfCaller = 3;

constexpr int kDescriptorsOfConsole = 2;  // its connection and its log

constexpr int64_t kPauseOfAttempts = 1000;  // milliseconds

int Limit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return INT_MAX;
  return static_cast<int>(std::min<rlim_t>(limit.rlim_cur, INT_MAX));
}

// `aside` is the number of descriptors that are set aside for others; `error` tells why the look
// failed, if it did.
void ReportShortage(const char* function, const DescriptorUse& use, int aside, int error) {
  if (use.open == -1) {
    DEBUG_AS(function, kError, "Cannot count the descriptors in use : %s\n", strerror(error));
  } else {
    DEBUG_AS(function, kError,
             "Running out of descriptors: %d of %d are in use, %d are set aside\n", use.open,
             Limit(), aside);
  }
}

}  // namespace

int CountDescriptors() {
  DIR* directory = opendir("/proc/self/fd");
  if (directory == nullptr) return -1;
  int count = 0;
  errno = 0;
  while (const dirent* entry = readdir(directory)) {
    if (entry->d_name[0] != '.') ++count;
  }
  const int error = errno;
  closedir(directory);
  errno = error;
  return error == 0 ? count - 1 : -1;  // without the directory's own
}

bool OutOfDescriptors(int error) {
  return error == EMFILE || error == ENFILE;
}

bool ReserveDescriptor::Hold() {
  if (fd_ == -1) fd_ = open("/dev/null", O_RDONLY | O_CLOEXEC);
  return fd_ != -1;
}

void ReserveDescriptor::Release() {
  if (fd_ != -1) close(fd_);
  fd_ = -1;
}

bool DescriptorBudget::HasRoom(Caller caller, const DescriptorUse& use) {
  const int error = errno;
  const int limit = Limit();
  const int own_part = std::min(kOwnPart, limit / kLargestOwnPart);
  const int room = use.open == -1 ? 0 : limit - use.open - use.wanted - own_part;
  const int room_of_strangers = std::max(room - kStationPlaces, 0);
  // Others open descriptors too, so only half of the room is given away before the next look.
  admitted_unseen_ = room_of_strangers / (2 * kDescriptorsOfCaller);
  const bool has_room = (caller == Caller::kStation ? room : room_of_strangers) > 0;
  if (!has_room && report_.IsDue()) {
    ReportShortage("AcceptConnectionRequests", use, own_part + use.wanted, error);
  }
  return has_room;
}

int64_t AttemptBudget::TimeToNextLook() const {
  return std::max<int64_t>(next_look_ - MonotonicMilliseconds(), 0);
}

bool AttemptBudget::HasRoom(const DescriptorUse& use) {
  const int error = errno;
  const int room = use.open == -1 ? 0 : Limit() - use.open - use.wanted;
  if (room >= kDescriptorsOfConsole) {
    begun_unseen_ = room / (2 * kDescriptorsOfConsole);
    return true;
  }
  if (report_.IsDue()) ReportShortage("ConnectToConsoles", use, use.wanted, error);
  Pause();
  return false;
}

void AttemptBudget::Exhausted(int error) {
  if (report_.IsDue()) {
    zev_debug(kError, "ConnectToConsole: socket() failed: %s\n", strerror(error));
  }
  Pause();
}

void AttemptBudget::Pause() {
  begun_unseen_ = 0;
  next_look_ = MonotonicMilliseconds() + kPauseOfAttempts;
}

}  // namespace zevd
