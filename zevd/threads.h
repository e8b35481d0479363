// What the long-lived threads have in common: their pace, and the protocol by which the console
// output monitor has them stand still while it reloads.
#pragma once

#include <sys/types.h>

#include <atomic>

namespace zevd {

/// One bit for every long-lived thread.
enum PauseBit : unsigned {
  kPauseConsConn = 0x1,
  kPauseConsMon = 0x2,
  kPauseUserConn = 0x4,
  kPauseUserMon = 0x8,
  kPauseCmdMon = 0x10,
};

extern std::atomic<unsigned> thread_waitreq_mask;  ///< written by the console output monitor
extern std::atomic<unsigned> thread_waiting_mask;  ///< each bit written by its own thread

/// The pause at the start of every pass of every long-lived thread, in microseconds.
inline constexpr useconds_t kPassPause = 500;

/// Lets the kernel wake the calling thread up to half a millisecond late, together with others
/// (prctl(2), PR_SET_TIMERSLACK). For threads that only poll: a timer interrupt for each of their
/// pauses, some 2000 a second, is most of what an idle station costs.
void ShareWakeUps();

/// Called at the top of a long-lived thread's loop. Stands still while the thread's bit is set in
/// thread_waitreq_mask.
void ParkIfAsked(unsigned bit);

}  // namespace zevd
