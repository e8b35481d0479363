// The matcher: a process of its own, in which sets with hard patterns (hard_pattern.h) are compiled
// and matched, so that a pattern that is too much for the system's matcher harms nobody else. It is
// the daemon's own program, started again by matcher.cpp.
//
// It consists of two processes. The one that talks to the daemon neither compiles nor matches; it
// leaves that to a worker (matcher_worker.h), which it kills when that takes too long, and replaces
// when it has ended. Both end with the daemon.
#pragma once

#include <cstdint>

namespace zevd {

/// The name under which the program is the matcher, and the descriptor of its socket.
inline constexpr char kMatcherName[] = "zevd-matcher";
inline constexpr int kMatcherSocket = 3;

/// Processor time for a line, which all patterns share, and for compiling one pattern.
inline constexpr int64_t kLineTime = 100'000;       // microseconds
inline constexpr int64_t kCompileTime = 1'000'000;  // microseconds

/// True when the program was started as the matcher. The name alone is not enough, so that nobody
/// can start it from a command line: the socket must be there as well.
bool IsMatcherProcess(int argc, char** argv);

/// Gives up what the matcher does not need and serves the daemon until it has gone.
[[noreturn]] void MatcherMain();

/// Serves the other end of the socket until that is closed.
void RunMatcher(int sock);

}  // namespace zevd
