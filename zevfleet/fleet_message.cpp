#include "fleet_message.h"

#include <algorithm>
#include <charconv>
#include <cinttypes>
#include <cstdio>
#include <ctime>
#include <nlohmann/json.hpp>
#include <sstream>

#include "fleet_clock.h"
#include "history_json.h"
#include "history_part.h"
#include "journal/journal_fields.h"
#include "journal_text.h"
#include "json_line.h"

namespace zevfleet {

namespace {

using journal::Field;
using journal::FieldReader;
using journal::Kind;
using journal::Record;
using zevctl::Json;

constexpr char kGapMark[] = "~gap";

std::optional<uint64_t> NumberIn(const std::string& text) {
  uint64_t number = 0;
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number);
  if (error != std::errc() || stop != end) return {};
  return number;
}

// What StampJson() has written.
std::optional<int64_t> WallIn(const std::string& text) {
  tm fields{};
  int64_t nanoseconds = 0;
  char end = '\0';
  const int count = sscanf(text.c_str(), "%4d-%2d-%2dT%2d:%2d:%2d.%9" SCNd64 "%c", &fields.tm_year,
                           &fields.tm_mon, &fields.tm_mday, &fields.tm_hour, &fields.tm_min,
                           &fields.tm_sec, &nanoseconds, &end);
  if (count != 8 || end != 'Z') return {};
  fields.tm_year -= 1900;
  fields.tm_mon -= 1;
  return int64_t{timegm(&fields)} * kSecond + nanoseconds;
}

ShipMessage Begin(const ShipName& name, const ShipPlace& place, const Record& record,
                  std::string_view console, Topic topic) {
  ShipMessage message;
  message.place = place;
  message.subject = SubjectOf(name.site, name.station, console, topic);
  message.headers = {{kTimeHeader, zevctl::StampJson(record.header.wall)},
                     {kRecordHeader, std::to_string(place.number)}};
  if (!console.empty()) message.headers.emplace_back(kConsoleHeader, HeaderText(console));
  return message;
}

ShipPlace PlaceAt(const Record& record, bool is_behind) {
  return {record.position, record.header.number, record.header.wall, is_behind};
}

// As "zevctl history --json" shows it, and its running number.
Json DataOf(const Record& record, std::string_view console, const std::string& text,
            std::string_view kind) {
  zevctl::HistoryLine line;
  line.console = console;
  line.wall = record.header.wall;
  line.text = text;
  line.kind = kind;
  line.position = record.position;
  Json data = zevctl::HistoryData(line);
  data["record"] = record.header.number;
  return data;
}

// Whose act it was is told by its field: the record itself belongs to the station.
std::string_view ConsoleOfAct(const Record& record, std::string_view console) {
  const std::string_view object = FieldReader(record.payload).Text(Field::kConsole);
  return object.empty() ? console : object;
}

}  // namespace

std::string MessageId(const ShipPlace& place, const std::string& label) {
  return journal::PositionText(place.position) + (place.is_behind ? "" : kGapMark) +
         (label.empty() ? "" : "~" + label);
}

std::optional<ShipPlace> PlaceOf(const std::string& id, const std::string& record,
                                 const std::string& time) {
  const size_t end = std::min(id.find('~'), id.size());
  const auto position = journal::ParsePosition(std::string_view(id).substr(0, end));
  const auto number = NumberIn(record);
  const auto wall = WallIn(time);
  if (!position || !number || !wall) return {};
  const bool is_gap = std::string_view(id).substr(end).starts_with(kGapMark);
  return ShipPlace{*position, *number, *wall, !is_gap};
}

std::string PlaceText(const ShipPlace& place) {
  return MessageId(place, "") + " " + std::to_string(place.number) + " " +
         zevctl::StampJson(place.wall);
}

std::optional<ShipPlace> ParsePlace(const std::string& text) {
  std::istringstream words(text);
  std::string id;
  std::string record;
  std::string time;
  words >> id >> record >> time;
  return PlaceOf(id, record, time);
}

Topic TopicOf(Kind kind) {
  switch (kind) {
    case Kind::kOutput:
      return Topic::kOut;
    case Kind::kEvent:
      return Topic::kEvent;
    case Kind::kAudit:
      return Topic::kAudit;
    default:  // of later versions, too
      return Topic::kState;
  }
}

ShipMessage MessageOf(const ShipName& name, const Record& record, std::string_view console) {
  const Topic topic = TopicOf(record.header.kind);
  if (topic == Topic::kAudit) console = ConsoleOfAct(record, console);
  ShipMessage message = Begin(name, PlaceAt(record, true), record, console, topic);
  if (topic == Topic::kOut) {
    message.output = record.payload;
    return message;
  }
  Json data =
      DataOf(record, console, zevctl::RecordText(record), journal::KindWord(record.header.kind));
  zevctl::AddFields(record, &data);
  message.text = zevctl::JsonText(data);
  return message;
}

ShipMessage TooLargeMessage(const ShipName& name, const Record& record, std::string_view console) {
  ShipMessage message = Begin(name, PlaceAt(record, true), record, console, Topic::kState);
  message.headers.emplace_back(kGapHeader, "1");
  Json data = DataOf(record, console, "gap: a record that is larger than the server takes", "gap");
  data["what"] = "gap";
  data["of"] = journal::KindWord(record.header.kind);
  data["size"] = record.payload.size();
  data["reason"] = "larger than the server takes";
  message.text = zevctl::JsonText(data);
  return message;
}

ShipMessage GapMessage(const ShipName& name, const ShipGap& gap, const Record& record) {
  ShipMessage message = Begin(name, PlaceAt(record, false), record, "", Topic::kState);
  message.headers.emplace_back(kGapHeader, std::to_string(gap.count));
  Json data = DataOf(record, "", "gap: " + gap.reason, "gap");
  data["what"] = "gap";
  data["from"] = gap.from ? Json(journal::PositionText(gap.from->position)) : Json();
  data["to"] = journal::PositionText(record.position);
  data["count"] = gap.count;
  data["reason"] = gap.reason;
  message.text = zevctl::JsonText(data);
  return message;
}

}  // namespace zevfleet
