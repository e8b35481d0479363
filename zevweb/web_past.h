// What consoles printed and what happened to them, page by page, from the journal and the logs.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "json_line.h"
#include "log_filter.h"
#include "web_journals.h"
#include "web_place.h"

namespace zevweb {

struct WebPastQuestion {
  std::vector<std::string> names;  ///< of consoles, or patterns
  bool is_one = false;             ///< one console, by its name in full or an earlier one
  std::optional<int64_t> since;    ///< wall times, inclusive
  std::optional<int64_t> until;
  std::optional<WebPlace> before;  ///< only what is before this place
  std::optional<WebPlace> after;   ///< only what is behind it, and of that the first lines
  std::unique_ptr<zevctl::Pattern> pattern;  ///< may be null
  bool inverted = false;
  bool users = false;  ///< also what users did
  size_t count = 0;
  size_t context = 0;
};

/// The object that the interface answers with: lines, places of the pages before and behind, and
/// whether all has been read. Throws Problem, zevctl::Failure and journal::JournalError.
zevctl::Json ReadWebPast(WebJournals& journals, const std::string& log_dir,
                         const WebPastQuestion& question);

}  // namespace zevweb
