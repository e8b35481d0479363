// What there is of the past of a station, and which of it belongs to the consoles that were named.
#pragma once

#include <string>
#include <vector>

#include "history_parts.h"
#include "journal/journal.h"
#include "journal_consoles.h"
#include "log_directories.h"

namespace zevctl {

/// The station's logs, as far as there are any.
struct PastLogs {
  std::vector<LogDirectory> directories;
  LogNames names;
};

/// Throws Failure(kFailed) when they cannot be read.
PastLogs OpenPastLogs(const std::string& log_dir);

/// The consoles that were meant, and what there is to read of them.
struct HistoryChoice {
  ChosenConsoles chosen;
  HistorySources wanted;
};

/// `journal` may be null. With `users`, what users did is wanted, too. Journal and logs must live
/// as long as the result. Throws as ChooseConsoles() does.
HistoryChoice ChooseHistory(const journal::Journal* journal, const PastLogs& logs,
                            const std::vector<std::string>& typed, bool users);

}  // namespace zevctl
