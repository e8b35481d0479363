// Reading from one socket with time limits, and the socket options of the relay.
//
// The readers block; they run on serv_conn threads, on cmd_mon and, for the telnet reader, on
// cons_conn. A serv_conn thread can be cancelled while it waits for input in them, with no lock
// held, and nowhere else: cancellation is disabled in it but in EndIfCancelled().
#pragma once

#include <pthread.h>
#include <sys/types.h>

#include <csignal>
#include <cstddef>
#include <cstdint>
#include <ctime>

/// Ends the wait of a thread that is cancelled.
inline constexpr int kCancelSignal = SIGUSR1;

/// Makes the signal harmless that ends a cancelled thread's wait, and blocks it: the waits alone
/// let it in. Main thread, before the others exist.
int ArrangeCancelSignal();

/// Asks a serv_conn thread to end, and ends its wait. The id must be that of a living thread.
void CancelServiceThread(pthread_t tid);

/// Ends the calling thread if it has been cancelled. The only place where that takes effect; the
/// caller holds no lock.
void EndIfCancelled();

/// Reads what one peek sees of a line, at most `size` - 1 bytes, its line end included. 0 with a
/// terminated text in `buf`; -1 on error or end of stream; -2 when nothing arrived within
/// `wait_time` seconds (0 or less: no limit). Sets u_err_msg on time-outs and read errors.
int ReadLineWithTimeout(int sock, char* buf, int size, time_t wait_time);

/// The same without a limit.
int ReadLine(int sock, char* buf, int size);

/// Reads a line byte by byte, editing and echoing as a terminal does; `echo` 0 hides what is typed.
/// When telnet commands arrive in place of a line, `buf` holds those and begins with 255. Results
/// as ReadLineWithTimeout().
int ReadCharAtATimeWithTimeout(int sock, char* buf, int size, int echo, time_t wait_time);

/// Reads the run of telnet commands (RFC 854) that the peer has sent, at most `size` - 1 bytes, and
/// nothing after it.
void DrainTelnetControlSequence(int sock, char* telnet_cmd, int size);

/// Microseconds on a clock that nobody sets (CLOCK_MONOTONIC). Any thread.
int64_t MonotonicMicroseconds();

/// The same in milliseconds.
int64_t MonotonicMilliseconds();

/// Lets something through at most once in an interval. Belongs to one thread.
class Throttle {
 public:
  /// `interval` in milliseconds.
  explicit Throttle(int64_t interval) : interval_(interval) {}

  /// True the first time, and then once the interval has passed since it last was.
  bool IsDue();

 private:
  int64_t interval_;
  int64_t next_ = 0;  // CLOCK_MONOTONIC, milliseconds
};

/// Switches a socket option on; a refusal by the system is of no consequence.
void SetSocketFlag(int sock, int level, int option);

/// For every socket that relays traffic: keystrokes do not wait for an acknowledgement, and a peer
/// that stops reading makes a send fail after a bounded time with a bounded backlog.
void PrepareRelaySocket(int sock);

/// True when the socket takes a chunk without making the sender wait, or has an error to report.
bool HasSendRoom(int sock);

/// A series of sends to one peer that may wait for it for a bounded time in all.
class SendBudget {
 public:
  SendBudget();

  /// As send(2); EAGAIN once the time is used up.
  ssize_t Send(int sock, const char* buf, size_t count, int flags);

 private:
  int64_t deadline_;  // CLOCK_MONOTONIC, microseconds
};
