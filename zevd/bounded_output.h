// Output to a descriptor whose reader may stop: a terminal held with Ctrl-S, a pipe into a pager.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace zevd {

/// Writes what its reader takes and drops the rest, so that no writer waits long for a reader.
///
/// A message waits 100 ms at most, and all messages together wait at most a tenth of the time. What
/// has not been taken by then is dropped, and so is everything that follows, without a wait, until
/// the descriptor accepts output again; the first line then says how much was lost. A message that
/// was written in part is finished before anything else, so that no line is torn. A descriptor that
/// returns an error (a full disk, a closed pipe) is treated as one that accepts nothing.
///
/// The descriptor is never made non-blocking: that would also affect the shell on the same
/// terminal.
///
/// Nothing here takes a lock; the caller makes sure that one thread writes at a time, and that
/// SIGPIPE is blocked.
class BoundedOutput {
 public:
  constexpr explicit BoundedOutput(int fd) : fd_(fd) {}

  /// Longest text; what is longer is cut.
  static constexpr size_t kLongestText = 8192 + 512;

  /// `text` stands for `messages` messages, which count as lost when it is dropped. `stamp` is the
  /// present time, for the line that reports a loss. True when the text is written, or its start
  /// with the rest to follow; false when it is dropped. Leaves errno undefined.
  bool Write(const char* stamp, std::string_view text, unsigned long messages);

 private:
  bool AwaitRoom(int64_t* deadline);
  int64_t Allowance(int64_t now);
  bool WriteOut(int64_t* deadline);
  size_t PieceSize() const;

  int fd_;
  bool stuck_ = false;      ///< it took nothing when it was last tried
  unsigned long lost_ = 0;  ///< lost messages that are not reported yet
  /// Monotonic milliseconds: the time up to which waits have used up their share. A wait moves it
  /// on by kShare times its own length.
  int64_t repaid_ = 0;
  size_t start_ = 0;  ///< what is left of `unit_` is from here ...
  size_t end_ = 0;    ///< ... to here
  char unit_[kLongestText + 128] = {};
};

}  // namespace zevd
