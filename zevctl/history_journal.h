// A stretch of the journal as lines.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "history_part.h"
#include "journal/journal.h"
#include "journal_lines.h"

namespace zevctl {

/// Where a stretch begins and ends, and which records of it are wanted.
struct JournalStretch {
  std::vector<size_t> consoles;  ///< their ids
  journal::Kinds kinds = journal::kAllKinds;
  std::optional<int64_t> since;  ///< wall times, inclusive
  std::optional<int64_t> until;
  journal::Position from;                  ///< the first record
  std::optional<journal::Position> to;     ///< behind the last one; none: as far as there is more
  std::optional<journal::Position> start;  ///< where reading begins, if not at `from`
  bool goes_on = false;  ///< a line in the making at the end is whole in what is behind it
};

/// What consoles printed before the journal began to be kept, up to there: by their ids.
using LineHeads = std::map<size_t, std::string>;
using LineHeadsFinder = std::function<LineHeads()>;

/// Reads only the blocks of the journal that can hold what is wanted, from the end backward for
/// the last lines. Throws journal::JournalError.
class JournalPart : public HistoryPart {
 public:
  /// The journal must live as long. `find_heads` may be empty; it is called at most once.
  JournalPart(const journal::Journal& journal, JournalStretch stretch,
              LineHeadsFinder find_heads = nullptr);

  size_t StartAtLast(size_t count, size_t context, const HistoryTest& is_wanted) override;
  void Read(const HistoryHandler& handle) override;

  /// Reads what there is so far and leaves lines in the making alone. To be called again after
  /// Journal::Refresh(). The handler must stay the same.
  void ReadOn(const HistoryHandler& handle);

  /// In how many places of what was read something is known to be missing.
  uint64_t missing() const { return missing_; }

 private:
  /// A cursor with what makes lines of its records.
  class Reading;

  journal::Query QueryFor(const std::optional<journal::Position>& from) const;
  std::optional<journal::Position> Back(const journal::Position& from, size_t records) const;
  journal::Position LinesBefore(size_t console, const journal::Position& place, size_t count) const;
  std::optional<size_t> ConsoleOfAct(const journal::Record& record) const;
  std::string HeadOf(const journal::Record& record);
  std::string HeadBeforeJournal(size_t console);
  int64_t BeginOf(uint64_t segment) const;

  const journal::Journal& journal_;
  JournalStretch stretch_;
  journal::Position begin_;  // of the stretch, wherever reading starts
  LineHeadsFinder find_heads_;
  std::optional<LineHeads> heads_;
  std::shared_ptr<Reading> reading_;  // of ReadOn()
  uint64_t missing_ = 0;
};

}  // namespace zevctl
