#include "web_replay.h"

#include <nettle/base64.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "journal_text.h"
#include "output.h"
#include "replay_player.h"
#include "replay_tape.h"
#include "web_answer.h"
#include "web_frames.h"
#include "web_query.h"
#include "web_reader.h"
#include "web_record.h"

namespace zevweb {

namespace {

using journal::Journal;
using journal::Position;

constexpr size_t kUsualBytes = 64 << 10;
constexpr size_t kMostBytes = 1 << 20;
constexpr size_t kMostRecords = 2000;
constexpr size_t kMostRows = 200;
constexpr size_t kMostColumns = 400;

std::string Base64(std::string_view bytes) {
  std::string text(BASE64_ENCODE_RAW_LENGTH(bytes.size()), '\0');
  const auto* data = reinterpret_cast<const uint8_t*>(bytes.data());
  base64_encode_raw(text.data(), bytes.size(), data);
  return text;
}

/// The journal and the console that the request names.
class Opened {
 public:
  Opened(WebJournals& journals, const Request& request) : lease_(journals.Take()) {
    if (lease_.get() == nullptr) {
      throw Problem(503,
                    "there is no journal, so the past cannot be replayed; the daemon keeps one "
                    "when ZEVD_JOURNAL= in qor.conf says so");
    }
    const std::string& name = request.parts.at(0);
    const auto found = FindConsole(*lease_.get(), name);
    if (!found) {
      throw Problem(404, "the journal knows no console \"" + zevctl::Printable(name) +
                             "\"; the list of consoles has the names");
    }
    console_ = *found;
  }

  const Journal& journal() const { return *lease_.get(); }
  size_t console() const { return console_; }

  /// Runs what reads the journal; one that has thrown is not used again.
  Json Read(const std::function<Json()>& read) {
    try {
      return read();
    } catch (const journal::JournalError&) {
      lease_.Spoil();
      throw;
    }
  }

 private:
  WebJournals::Lease lease_;
  size_t console_ = 0;
};

// The record that is played next at a time.
Position PlaceAt(const Opened& opened, const WebQuery& query) {
  const auto text = query.Text("at");
  if (!text) throw Problem(400, "the parameter \"at\" is missing; give a time or a position");
  if (const auto position = journal::ParsePosition(*text)) return *position;
  journal::Query wanted;
  wanted.consoles = {opened.console()};
  wanted.since = query.Since("at");
  const auto cursor = opened.journal().Read(wanted);
  journal::Record record;
  return cursor->Next(&record) ? record.position : opened.journal().end();
}

Json ScreenData(const Opened& opened, const WebQuery& query) {
  const zevctl::ScreenSize size =
      zevctl::Bounded({static_cast<int>(query.Number("rows", 24, kMostRows)),
                       static_cast<int>(query.Number("columns", 80, kMostColumns))});
  const Position place = PlaceAt(opened, query);
  const zevctl::Tape tape(opened.journal(), {opened.console()}, {}, {});
  zevctl::Player player(tape, size);
  player.Go({{place, 0}, zevctl::Nanoseconds(0)});
  return {{"time", zevctl::StampJson(player.wall())},
          {"position", journal::PositionText(place)},
          {"rows", size.rows},
          {"columns", size.columns},
          {"screen", Base64(player.screen().Picture())}};
}

Position ReadFrom(const WebQuery& query) {
  const auto text = query.Text("from");
  const auto position = text ? journal::ParsePosition(*text) : std::nullopt;
  if (position) return *position;
  throw Problem(400, "the parameter \"from\" is no position; give one that an answer had");
}

Json RecordsData(const Opened& opened, const WebQuery& query) {
  const size_t most = query.Number("bytes", kUsualBytes, kMostBytes);
  const Position from = ReadFrom(query);
  journal::Query wanted;
  wanted.consoles = {opened.console()};
  wanted.with_station = true;
  wanted.kinds = ViewedKinds();
  wanted.from = from;
  const auto cursor = opened.journal().Read(wanted);
  zevctl::TelnetStrip strip = StripBefore(opened.journal(), opened.console(), from);
  Json records = Json::array();
  journal::Record record;
  Position next = from;
  size_t bytes = 0;
  bool is_complete = false;
  while (bytes < most && records.size() < kMostRecords) {
    is_complete = !cursor->Next(&record);
    if (is_complete) break;
    next = record.next;
    bytes += record.payload.size();
    Json data = {{"time", zevctl::StampJson(record.header.wall)},
                 {"position", journal::PositionText(record.position)},
                 {"next", journal::PositionText(record.next)},
                 {"kind", journal::KindWord(record.header.kind)}};
    if (record.header.kind == journal::Kind::kOutput) {
      data["data"] = Base64(strip.Take(record.payload));
    } else {
      data["text"] = zevctl::Utf8(zevctl::RecordText(record));
      zevctl::AddFields(record, &data);
    }
    records.push_back(std::move(data));
  }
  if (is_complete) next = std::max(next, opened.journal().end());
  return {{"records", std::move(records)},
          {"next", journal::PositionText(next)},
          {"complete", is_complete}};
}

}  // namespace

Response ShowReplayScreen(WebJournals& journals, const Request& request) {
  const WebQuery query(request.query, {"at", "rows", "columns"});
  Opened opened(journals, request);
  return JsonResponse(opened.Read([&] { return ScreenData(opened, query); }));
}

Response ShowReplayRecords(WebJournals& journals, const Request& request) {
  const WebQuery query(request.query, {"from", "bytes"});
  Opened opened(journals, request);
  return JsonResponse(opened.Read([&] { return RecordsData(opened, query); }));
}

}  // namespace zevweb
