// What the daemon and its matcher process say to each other, and the matcher and its worker, over a
// pair of sockets that keep messages apart (SOCK_SEQPACKET). All are the same program, so records
// go as they are.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace zevd {

enum class MatcherKind : uint32_t {
  // To the matcher.
  kForget,   ///< all sets, once the lines before it have been answered
  kPattern,  ///< a pattern of `set`; `value` is its priority, the text the expression
  kAnyCase,  ///< the same for one that takes letters of either case
  kStart,    ///< all sets have been told: compile them
  kLine,     ///< the line `line`, to be matched against `set`
  // From the matcher; the text is that of the pattern.
  kTaken,            ///< a pattern has been taken in
  kMatch,            ///< `line` matches the pattern; `value` is its priority
  kNoMatch,          ///< `line` matches none
  kBadPattern,       ///< does not compile; the reason follows the text, after a newline
  kCompileTooLong,   ///< was given up
  kCompileCrashed,   ///< ended the process that compiled it; `value` is the signal
  kMatchTooLong,     ///< the line was given up
  kMatchCrashed,     ///< ended the process that matched; `value` is the signal
  kMatchOutOfMemory  ///< ran out of the memory that the matcher is allowed
};

/// What is said of a pattern that was too much for the matcher.
struct MatcherComplaint {
  MatcherKind kind;
  const char* text;  ///< follows the pattern
};

inline constexpr MatcherComplaint kMatcherComplaints[] = {
    {MatcherKind::kCompileTooLong, "takes too long to compile"},
    {MatcherKind::kCompileCrashed, "cannot be compiled"},
    {MatcherKind::kMatchTooLong, "took too long on a line"},
    {MatcherKind::kMatchCrashed, "could not be matched with a line"},
    {MatcherKind::kMatchOutOfMemory, "needs too much memory for a line"},
};

struct MatcherHeader {
  MatcherKind kind = MatcherKind::kForget;
  uint32_t set = 0;     ///< RegExList::matcher_set
  uint32_t number = 0;  ///< of the pattern in its set, in file order
  int32_t value = 0;
  uint64_t line = 0;
};

struct MatcherMessage {
  static constexpr size_t kTextSize = 16384;  ///< a pattern and the reason why it is bad

  MatcherHeader header;
  char text[kTextSize];
  size_t length = 0;  ///< of the text; not sent

  std::string_view Text() const { return {text, length}; }
};

/// False with errno set when it was not sent; a text is cut to what a message holds.
bool SendToMatcher(int sock, const MatcherHeader& header, std::string_view text, int flags);

enum class Received { kMessage, kNothing, kEnd };

/// kNothing: there is none and `flags` say not to wait. kEnd: the other side has gone, or sent what
/// is no message.
Received ReceiveFromMatcher(int sock, MatcherMessage* message, int flags);

}  // namespace zevd
