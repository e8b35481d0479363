#include "threads.h"

#include <unistd.h>

namespace zevd {

std::atomic<unsigned> thread_waitreq_mask{0};
std::atomic<unsigned> thread_waiting_mask{0};

void ParkIfAsked(unsigned bit) {
  constexpr useconds_t kStep = 100;  // microseconds
  if ((thread_waitreq_mask & bit) == 0) return;
  thread_waiting_mask |= bit;
  while ((thread_waitreq_mask & bit) != 0) usleep(kStep);
  thread_waiting_mask &= ~bit;
}

}  // namespace zevd
