// Which parts the past of some consoles consists of.
#pragma once

#include <cstdint>
#include <ctime>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "history_logs.h"
#include "history_part.h"
#include "journal/journal.h"

namespace zevctl {

/// What there is to read, and what is wanted of it. Everything must live as long as the parts.
struct HistorySources {
  const journal::Journal* journal = nullptr;  ///< null: there is none
  std::vector<size_t> consoles;               ///< their ids in the journal
  journal::Kinds kinds = journal::kAllKinds;
  std::function<LogReaders()> open_logs;  ///< empty: there are none
  std::optional<time_t> since;            ///< seconds since the epoch, inclusive
  std::optional<time_t> until;
  bool follows = false;                     ///< what comes behind the journal's end is left to it
  std::optional<journal::Position> from;    ///< of the journal: only what begins there or later
  std::optional<journal::Position> before;  ///< and only what ends before this
};

/// The wall times of what is wanted.
std::optional<int64_t> FirstWall(const HistorySources& sources);
std::optional<int64_t> LastWall(const HistorySources& sources);

using HistoryParts = std::vector<std::unique_ptr<HistoryPart>>;

/// The parts in the order of time. The last one is a JournalPart if the journal is followed.
HistoryParts MakeHistoryParts(const HistorySources& sources);

}  // namespace zevctl
