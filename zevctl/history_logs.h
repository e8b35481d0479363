// What only the logs have: of the time before the journal began, and of times when it was off.
#pragma once

#include <cstdint>
#include <ctime>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "history_journal.h"
#include "history_part.h"
#include "journal/journal.h"
#include "log_merge.h"
#include "log_reader.h"

namespace zevctl {

/// A time that the journal does not cover. Wall times; none: from ever, or for ever.
struct Hole {
  std::optional<int64_t> begin;
  std::optional<int64_t> end;
  bool follows_moment = false;  ///< the journal lasted for a moment only before it
};

/// The lines that the journal has close to both ends of a hole. Logs have whole seconds, so what
/// they have of those seconds is told apart by its text.
class Seam {
 public:
  /// The journal and the consoles, by their ids.
  Seam(const journal::Journal& journal, const std::vector<size_t>& consoles, const Hole& hole);

  /// The console whose log has this name.
  std::optional<size_t> ConsoleOf(const std::string& log) const;

  /// Whether the journal has lines of the console close to the hole.
  bool HasLinesOf(size_t console) const { return lines_.contains(console); }

  /// True when the journal has that line, which is then used up.
  bool Takes(size_t console, const std::string& text);

  /// Whether any line of the console, or one with this text, has been used up.
  bool HasTaken(size_t console) const;
  bool HasTaken(size_t console, const std::string& text) const;

  /// Nothing has been used up any more.
  void Refill();

  /// What the journal lacks of a line whose end it has: it began in the middle of that line. Empty
  /// when it is not such a line.
  std::string HeadOf(size_t console, const std::string& text) const;

 private:
  void Collect(const journal::Journal& journal, const std::vector<size_t>& consoles, int64_t since,
               int64_t until, bool at_end);

  // How often a text is there, and how many of those have been used up.
  struct Count {
    size_t all = 0;
    size_t taken = 0;
  };
  struct Lines {
    std::unordered_map<std::string, Count> counts;
    bool has_taken = false;
  };

  std::map<std::string, size_t, std::less<>> names_;  // in the form in which they are compared
  std::map<size_t, Lines> lines_;
  std::map<size_t, std::string> first_;  // of each console behind the hole
};

/// The logs' lines in a hole of the journal.
class LogPart : public HistoryPart {
 public:
  /// Which lines are wanted, in seconds since the epoch, inclusive.
  struct Span {
    std::optional<time_t> since;
    std::optional<time_t> until;
  };

  /// `open` gives readers of the logs, at their starts; `make_seam` is empty without a journal.
  LogPart(std::function<LogReaders()> open, const Hole& hole, const Span& span,
          std::function<Seam()> make_seam);

  size_t StartAtLast(size_t count, size_t context, const HistoryTest& is_wanted) override;
  void Read(const HistoryHandler& handle) override;

  /// The starts of the lines in the middle of which the journal begins behind the hole.
  LineHeads Heads();

 private:
  class Reading;

  Seam* FreshSeam();
  time_t Begin() const;

  std::function<LogReaders()> open_;
  Hole hole_;
  std::optional<time_t> from_;
  std::optional<time_t> to_;
  std::function<Seam()> make_seam_;
  std::optional<Seam> seam_;
};

}  // namespace zevctl
