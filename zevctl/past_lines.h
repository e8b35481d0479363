// The lines that consoles printed in the past, as the daemon matched them with its patterns.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "journal/journal.h"
#include "logged_lines.h"
#include "past_time.h"

namespace zevctl {

/// A line with the moment at which it was complete.
struct PastLine {
  size_t console = 0;  ///< a Console's id
  int64_t wall = 0;
  const std::string& text;
  bool is_attended = false;  ///< somebody was attached to the console
};

/// Which lines are wanted.
struct PastLinesQuery {
  std::vector<size_t> consoles;  ///< their ids; empty: all
  PastRange range;
  bool keeps_returns = false;  ///< the daemon runs with "-s 0"
};

class PastLines {
 public:
  /// Returns false to have no more.
  using Taker = std::function<bool(const PastLine&)>;

  PastLines(const journal::Journal& journal, PastLinesQuery query);

  /// Hands over the lines in the order of the journal. Of somebody who attached more than a day
  /// before the range begins, only the leaving is known.
  void Read(const Taker& take);

  /// Bytes of output that were read.
  uint64_t bytes() const { return bytes_; }

 private:
  struct ConsoleState {
    LoggedLines lines;
    int users = 0;
  };

  void LearnWhoIsAttached();
  void NoteUsers(const journal::Record& record);
  void Take(const journal::Record& record, const LoggedLines::Taker& take);
  void Interrupt(const journal::Record& record);
  ConsoleState& StateOf(size_t console);

  const journal::Journal& journal_;
  PastLinesQuery query_;
  std::map<size_t, ConsoleState> consoles_;
  uint64_t bytes_ = 0;
};

}  // namespace zevctl
