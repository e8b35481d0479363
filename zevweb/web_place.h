// Where a page of the past begins and ends, so that the next one goes on there.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "history_part.h"
#include "journal/journal.h"

namespace zevweb {

/// In the journal a record, and in the logs, which have no positions, a second.
struct WebPlace {
  std::optional<journal::Position> position;
  int64_t second = 0;  ///< since the epoch; of a log

  bool operator==(const WebPlace&) const = default;
};

WebPlace PlaceOf(const zevctl::HistoryLine& line);

/// "STATION:SEGMENT:OFFSET", or "log:SECOND".
std::string PlaceText(const WebPlace& place);

/// The text that a page gave, or nothing.
std::optional<WebPlace> ParsePlace(const std::string& text);

}  // namespace zevweb
