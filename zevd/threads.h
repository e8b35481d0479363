// What the long-lived threads have in common: their pace, and the protocol by which the console
// output monitor has them stand still while it reloads. A thread that has nothing to do until
// something happens waits for that, 2 seconds at most; whoever makes it happen wakes the thread
// (waker.h).
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>

namespace zevd {

/// One bit for every long-lived thread.
enum PauseBit : unsigned {
  kPauseConsConn = 0x1,
  kPauseConsMon = 0x2,
  kPauseUserConn = 0x4,
  kPauseUserMon = 0x8,
  kPauseCmdMon = 0x10,
};

/// Written by the console output monitor, which then wakes the threads whose bits it has set.
extern std::atomic<unsigned> thread_waitreq_mask;
extern std::atomic<unsigned> thread_waiting_mask;  ///< each bit written by its own thread

/// The pause at the start of every pass of every long-lived thread, in microseconds.
inline constexpr useconds_t kPassPause = 500;

/// Called at the top of a long-lived thread's loop. Stands still while the thread's bit is set in
/// thread_waitreq_mask. Notes the pass; a thread that stands still makes passes.
void ParkIfAsked(unsigned bit);

// ---- Passes -------------------------------------------------------------------------------------

/// A long-lived thread that has made no pass for so many microseconds is stuck: its waits are five
/// times shorter.
inline constexpr int64_t kPassLimit = 10'000'000;

/// From now on all long-lived threads are expected to make passes. Main thread, before it starts
/// the others.
void ExpectPasses();

/// Notes that the thread with this bit goes on, in the middle of a pass that may be long.
void NotePass(unsigned bit);

/// Whether every long-lived thread has made a pass within the limit. Any thread.
bool AllThreadsPass();

}  // namespace zevd
