// The past of consoles in parts, one behind the other: stretches of the journal, and between them
// what only the logs have.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "journal/journal.h"

namespace zevctl {

/// What a person is shown on one line. Everything in it is valid during the call only.
struct HistoryLine {
  std::string_view console;  ///< its name; empty for the station itself
  std::optional<size_t> id;  ///< of the console in the journal
  int64_t wall = 0;          ///< as the journal's; a log has whole seconds
  std::string_view text;     ///< what the console printed, or in words what happened
  bool is_output = false;
  bool is_complete = true;                    ///< false: output without a line end (yet)
  bool is_late = false;                       ///< it stands behind lines of a later time
  std::string_view kind;                      ///< the word for what it is
  std::optional<journal::Position> position;  ///< none when it comes from a log
  const journal::Record* record = nullptr;    ///< of what is no output
};

using HistoryHandler = std::function<void(const HistoryLine&)>;
using HistoryTest = std::function<bool(const HistoryLine&)>;

/// One stretch of time. Nothing is read before a member is called.
class HistoryPart {
 public:
  HistoryPart() = default;
  virtual ~HistoryPart() = default;
  HistoryPart(const HistoryPart&) = delete;
  HistoryPart& operator=(const HistoryPart&) = delete;

  /// Moves the start so that at least the last `count` wanted lines are read, and, of the consoles
  /// that have them, `context` lines before. Returns how many wanted lines there are from there on.
  virtual size_t StartAtLast(size_t count, size_t context, const HistoryTest& is_wanted) = 0;

  /// Hands over all lines from the start on.
  virtual void Read(const HistoryHandler& handle) = 0;
};

}  // namespace zevctl
