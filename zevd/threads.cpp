#include "threads.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <bit>

#include "clock.h"

namespace zevd {

namespace {

constexpr size_t kLongLived = std::bit_width(static_cast<unsigned>(kPauseCmdMon));

/// When each long-lived thread began its last pass; written by that thread.
std::array<std::atomic<int64_t>, kLongLived> last_passes{};

}  // namespace

std::atomic<unsigned> thread_waitreq_mask{0};
std::atomic<unsigned> thread_waiting_mask{0};

void ExpectPasses() {
  const int64_t now = MonotonicMicroseconds();
  for (std::atomic<int64_t>& pass : last_passes) pass = now;
}

void NotePass(unsigned bit) {
  last_passes[static_cast<size_t>(std::countr_zero(bit)) % kLongLived] = MonotonicMicroseconds();
}

bool AllThreadsPass() {
  const int64_t earliest = MonotonicMicroseconds() - kPassLimit;
  return std::ranges::all_of(last_passes, [=](int64_t pass) { return pass >= earliest; });
}

void ParkIfAsked(unsigned bit) {
  constexpr useconds_t kStep = 100;  // microseconds
  NotePass(bit);
  if ((thread_waitreq_mask & bit) == 0) return;
  thread_waiting_mask |= bit;
  while ((thread_waitreq_mask & bit) != 0) {
    usleep(kStep);
    NotePass(bit);
  }
  thread_waiting_mask &= ~bit;
}

}  // namespace zevd
