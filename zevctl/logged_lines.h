// What a console has printed, cut into the lines that the daemon logs and matches with patterns.
#pragma once

#include <functional>
#include <string>
#include <string_view>

namespace zevctl {

/// One console's lines. A line is what the daemon hands to its log at once: up to and with a line
/// end, or 1024 bytes without one. What it leaves out of its log is left out here.
class LoggedLines {
 public:
  /// Bytes that the daemon takes at a time, and that it keeps of a line without an end.
  static constexpr size_t kPieceSize = 1024;

  /// Is given each line, with its end.
  using Taker = std::function<void(const std::string&)>;

  /// `keeps_returns`: the daemon runs with "-s 0", which leaves carriage returns in the logs and
  /// takes each for a line end.
  explicit LoggedLines(bool keeps_returns = false) : keeps_returns_(keeps_returns) {}

  /// The output of one turn, as a record of the journal has it.
  void Add(std::string_view output, const Taker& take);

  /// The log has been closed, as when the connection is lost: what has no end yet is a line, and so
  /// is the line end that the daemon then adds.
  void Close(const Taker& take);

  /// What comes next does not follow what came before.
  void Forget() { waiting_.clear(); }

 private:
  void AddPiece(std::string_view piece, const Taker& take);
  void TakeLines(const Taker& take);

  bool keeps_returns_;
  std::string waiting_;  // no line end so far
};

/// What the daemon keeps of one piece for its log.
std::string LoggedBytes(std::string_view piece, bool keeps_returns);

}  // namespace zevctl
