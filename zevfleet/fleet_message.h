// The journal's records as messages.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "fleet_subject.h"
#include "journal/journal.h"

namespace zevfleet {

// The headers of a message. Their names never change: other programs read them.
inline constexpr char kIdHeader[] = "Nats-Msg-Id";       ///< ShipPlace::Text(); see there
inline constexpr char kConsoleHeader[] = "Zev-Console";  ///< the name, as HeaderText(), if any
inline constexpr char kTimeHeader[] = "Zev-Time";        ///< RFC 3339, UTC, with nanoseconds
inline constexpr char kRecordHeader[] = "Zev-Record";    ///< the running number
inline constexpr char kGapHeader[] = "Zev-Gap";          ///< how many records are missing

/// Whose messages they are.
struct ShipName {
  std::string site;
  std::string station;
};

/// How far the journal has been shipped.
struct ShipPlace {
  journal::Position position;  ///< of a record
  uint64_t number = 0;         ///< its running number
  int64_t wall = 0;            ///< its time, by which it is told from another one in this place
  bool is_behind = true;       ///< the record has been shipped; otherwise it is the next one

  /// The number of the record that comes next.
  uint64_t next() const { return is_behind ? number + 1 : number; }

  bool operator==(const ShipPlace&) const = default;
};

/// The text by which a message is known: the record's position, for a gap marker "~gap" behind it,
/// and "~LABEL" behind that, if there is one.
std::string MessageId(const ShipPlace& place, const std::string& label);

/// The place after a message with these headers; nothing when they are not of this program.
std::optional<ShipPlace> PlaceOf(const std::string& id, const std::string& record,
                                 const std::string& time);

/// The same as text for a file, and back.
std::string PlaceText(const ShipPlace& place);
std::optional<ShipPlace> ParsePlace(const std::string& text);

/// A message but for its id.
struct ShipMessage {
  ShipPlace place;  ///< after it
  std::string subject;
  std::vector<std::pair<const char*, std::string>> headers;
  std::string text;         ///< its content if that is no output
  std::string_view output;  ///< its content otherwise; valid as long as the record's payload

  std::string_view content() const { return text.empty() ? output : std::string_view(text); }
};

/// Under which topic the records of a kind are.
Topic TopicOf(journal::Kind kind);

/// The message for a record; `console` is the record's, empty for none.
ShipMessage MessageOf(const ShipName& name, const journal::Record& record,
                      std::string_view console);

/// What stands for a record that is too large for the server.
ShipMessage TooLargeMessage(const ShipName& name, const journal::Record& record,
                            std::string_view console);

/// Records that cannot be shipped because the journal has them no more.
struct ShipGap {
  std::optional<ShipPlace> from;  ///< where shipping had come to; none: nothing was shipped before
  uint64_t count = 0;             ///< how many are missing, as far as the journal tells
  std::string reason;
};

/// The marker of a gap that ends at the record.
ShipMessage GapMessage(const ShipName& name, const ShipGap& gap, const journal::Record& record);

}  // namespace zevfleet
