// Line input: reading from one socket with time limits.
//
// The readers block; they run on serv_conn threads, on cmd_mon and, for the telnet reader, on
// cons_conn. A serv_conn thread can be cancelled while it waits for input in them (cancellation.h).
#pragma once

#include <ctime>

namespace zevd {

/// Reads what one peek sees of a line, at most `size` - 1 bytes, its line end included. 0 with a
/// terminated text in `buf`; -1 on error or end of stream; -2 when nothing arrived within
/// `wait_time` seconds (0 or less: no limit). Sets u_err_msg on a time-out, when the client has
/// vanished, and when bytes that were seen cannot be read.
int ReadLineWithTimeout(int sock, char* buf, int size, time_t wait_time);

/// The same without a limit.
int ReadLine(int sock, char* buf, int size);

/// Reads a line byte by byte, editing and echoing as a terminal does; `echo` 0 hides what is typed.
/// Ctrl-C ends the line and empties it. When telnet commands arrive in place of a line, `buf` holds
/// those and begins with 255. Results as ReadLineWithTimeout(); `wait_time` applies to each wait
/// for input.
int ReadCharAtATimeWithTimeout(int sock, char* buf, int size, int echo, time_t wait_time);

/// Reads the run of telnet commands (RFC 854) that the peer has sent, at most `size` - 1 bytes, and
/// nothing after it. The text is terminated.
void DrainTelnetControlSequence(int sock, char* telnet_cmd, int size);

}  // namespace zevd
