// What the commands that look into the past share: from when to when, and what is said of a journal
// that has been damaged or removed meanwhile.
#pragma once

#include <cstdint>
#include <ctime>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "exit_status.h"
#include "journal/journal.h"

namespace zevctl {

/// Wall times of the journal; both ends belong to it.
struct PastRange {
  std::optional<int64_t> since;
  std::optional<int64_t> until;
};

inline constexpr int64_t kSecondInNanoseconds = 1'000'000'000;

/// Seconds in nanoseconds, as far as those reach: some 290 years.
int64_t NanosecondsOf(time_t seconds);

/// The options --since and --until, of which each may be empty. Throws Failure(kUsage).
PastRange ReadRange(const std::string& since, const std::string& until);

/// For people: since when the journal tells of the range, a line; empty when it tells of all.
std::string WhereJournalBegins(const journal::Journal& journal, const PastRange& range);

/// Warns of what a cursor has stepped over.
void WarnOfDamage(const std::vector<journal::Damage>& damages);

/// Runs a command that reads a journal; what the journal throws becomes a Failure.
ExitStatus WithJournalErrors(const std::string& directory,
                             const std::function<ExitStatus()>& command);

}  // namespace zevctl
