#include "counters.h"

namespace zevd {

Counters counters;

namespace {

std::atomic<time_t> counting_since{0};
std::atomic<ReloadResult> reload_result{ReloadResult::kNone};
std::atomic<time_t> reload_time{0};

}  // namespace

void StartCounting() {
  counting_since = time(nullptr);
}

time_t CountingSince() {
  return counting_since;
}

void NoteReload(ReloadResult result) {
  counters.reloads.Add();
  reload_result = result;
  reload_time = time(nullptr);
}

ReloadResult LastReload(time_t* at) {
  *at = reload_time;
  return reload_result;
}

}  // namespace zevd
