#include "descriptor_budget.h"

#include <dirent.h>
#include <sys/resource.h>

#include <algorithm>
#include <climits>

#include "error.h"

namespace {

// For what comes and goes: files that are read again, pipes to password helpers, the event manager.
constexpr int kReserve = 64;

// Of a small limit no more than this part is kept.
constexpr int kLargestReservePart = 4;

int Limit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return INT_MAX;
  return static_cast<int>(std::min<rlim_t>(limit.rlim_cur, INT_MAX));
}

}  // namespace

int CountDescriptors() {
  DIR* directory = opendir("/proc/self/fd");
  if (directory == nullptr) return -1;
  int count = 0;
  while (const dirent* entry = readdir(directory)) {
    if (entry->d_name[0] != '.') ++count;
  }
  closedir(directory);
  return count - 1;  // without the directory's own
}

int DescriptorBudget::Room(const DescriptorUse& use) {
  const int limit = Limit();
  const int room = limit - use.open - use.wanted - std::min(kReserve, limit / kLargestReservePart);
  if (use.open == -1 || room > 0) return std::max(room, 1);
  zev_debug(kError, "%s: Running out of descriptors: %d of %d are in use\n",
            "AcceptConnectionRequests", use.open, limit);
  return 0;
}
