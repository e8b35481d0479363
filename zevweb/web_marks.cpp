#include "web_marks.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "journal/journal_fields.h"
#include "journal_consoles.h"
#include "journal_text.h"
#include "output.h"
#include "web_answer.h"
#include "web_deadline.h"
#include "web_query.h"

namespace zevweb {

namespace {

using journal::Field;
using journal::Kind;
using journal::KindBit;
using journal::Record;

constexpr size_t kMostMarks = 5000;
constexpr int64_t kLookBack = 86'400'000'000'000;  // for who had come before
constexpr std::chrono::milliseconds kLimit{10'000};

constexpr journal::Kinds kVisitKinds =
    KindBit(Kind::kAttached) | KindBit(Kind::kLeft) | KindBit(Kind::kMode);

constexpr journal::Kinds kMarkKinds =
    kVisitKinds | KindBit(Kind::kInput) | KindBit(Kind::kConnected) | KindBit(Kind::kLost) |
    KindBit(Kind::kDisabled) | KindBit(Kind::kEnabled) | KindBit(Kind::kMessage) |
    KindBit(Kind::kBreak) | KindBit(Kind::kEvent) | KindBit(Kind::kPaused) |
    KindBit(Kind::kNotLogged) | KindBit(Kind::kGap) | KindBit(Kind::kClockStep) |
    KindBit(Kind::kStarted) | KindBit(Kind::kStopped) | KindBit(Kind::kTorn) |
    KindBit(Kind::kConsole) | KindBit(Kind::kConsoleGone);

/// Somebody was there from then to then.
struct Visit {
  std::string user;
  std::string from;
  std::string mode;
  int64_t begin = 0;
  std::optional<int64_t> end;
};

std::string FirstOf(std::string_view first, std::string_view second) {
  return std::string(first.empty() ? second : first);
}

/// Puts coming and leaving together.
class Visits {
 public:
  void Take(const Record& record) {
    const int64_t wall = record.header.wall;
    // Whoever was there is not any more when the daemon has ended.
    if (record.header.kind == Kind::kStarted || record.header.kind == Kind::kStopped) {
      for (Visit& visit : visits_) visit.end = visit.end.value_or(wall);
      return;
    }
    if ((KindBit(record.header.kind) & kVisitKinds) == 0) return;
    Visit visit = Made(record);
    if (record.header.kind == Kind::kLeft) return End(visit, visit.mode, wall);
    const journal::FieldReader fields(record.payload);
    if (record.header.kind == Kind::kMode) {
      End(visit, std::string(fields.Text(Field::kPreviousMode)), wall);
    }
    visits_.push_back(std::move(visit));
  }

  Json Data(const std::optional<int64_t>& since) const {
    Json data = Json::array();
    for (const Visit& visit : visits_) {
      if (since && visit.end && *visit.end < *since) continue;
      data.push_back({{"user", zevctl::Utf8(visit.user)},
                      {"from", zevctl::Utf8(visit.from)},
                      {"mode", visit.mode},
                      {"begin", zevctl::StampJson(visit.begin)},
                      {"end", visit.end ? Json(zevctl::StampJson(*visit.end)) : Json()}});
    }
    return data;
  }

 private:
  static Visit Made(const Record& record) {
    const journal::FieldReader fields(record.payload);
    return {FirstOf(fields.Text(Field::kUser), fields.Text(Field::kGivenUser)),
            FirstOf(fields.Text(Field::kGivenFrom), fields.Text(Field::kFrom)),
            std::string(fields.Text(Field::kMode)),
            record.header.wall,
            {}};
  }

  void End(const Visit& left, const std::string& mode, int64_t wall) {
    const auto same = [&](const Visit& visit) {
      return !visit.end && visit.user == left.user && visit.from == left.from && visit.mode == mode;
    };
    const auto found = std::find_if(visits_.begin(), visits_.end(), same);
    if (found != visits_.end()) found->end = wall;
  }

  std::vector<Visit> visits_;
};

Json MarkData(const Record& record) {
  Json data = {{"time", zevctl::StampJson(record.header.wall)},
               {"position", journal::PositionText(record.position)},
               {"kind", journal::KindWord(record.header.kind)},
               {"text", zevctl::Utf8(zevctl::RecordText(record))}};
  zevctl::AddFields(record, &data);
  return data;
}

/// What a segment says of its consoles at its beginning is news only where it differs.
bool IsNews(const Record& record, std::string* definition) {
  if (record.header.kind != Kind::kConsole) return true;
  const bool is_first = definition->empty();
  const bool is_same = *definition == record.payload;
  *definition = record.payload;
  return !is_first && !is_same;
}

Json MarksData(const journal::Journal& journal, size_t console, const WebQuery& parameters) {
  const auto since = parameters.Since("since");
  const auto until = parameters.Until("until");
  journal::Query query;
  query.consoles = {console};
  query.with_station = true;
  query.kinds = kMarkKinds;
  if (since) query.since = *since - kLookBack;
  query.until = until;
  const auto cursor = journal.Read(query);
  WebDeadline deadline(kLimit);
  Json marks = Json::array();
  Visits visits;
  std::string definition;
  const char* reason = nullptr;
  Record record;
  while (reason == nullptr && cursor->Next(&record)) {
    visits.Take(record);
    const bool is_news = IsNews(record, &definition);
    if (is_news && (!since || record.header.wall >= *since)) marks.push_back(MarkData(record));
    if (deadline.HasPassed()) reason = "it took too long; ask for a shorter time";
    if (marks.size() >= kMostMarks) reason = "there are too many; ask for a shorter time";
  }
  Json data;
  data["marks"] = std::move(marks);
  data["visits"] = visits.Data(since);
  const auto segments = journal.segments();
  data["begins"] = segments.empty() ? Json() : Json(zevctl::StampJson(segments.front().first_wall));
  data["ends"] = segments.empty() ? Json() : Json(zevctl::StampJson(segments.back().last_wall));
  data["complete"] = reason == nullptr;
  data["reason"] = reason == nullptr ? Json() : Json(reason);
  return data;
}

}  // namespace

Response ShowMarks(WebJournals& journals, const Request& request) {
  const WebQuery query(request.query, {"since", "until"});
  WebJournals::Lease lease = journals.Take();
  if (lease.get() == nullptr) {
    throw Problem(503,
                  "there is no journal, so the past cannot be replayed; the daemon keeps one "
                  "when ZEVD_JOURNAL= in qor.conf says so");
  }
  const std::string& name = request.parts.at(0);
  const auto ids = lease.get()->Find(name);
  if (ids.empty()) {
    throw Problem(404, "the journal knows no console \"" + zevctl::Printable(name) +
                           "\"; the list of consoles has the names");
  }
  try {
    return JsonResponse(MarksData(*lease.get(), ids.front(), query));
  } catch (const journal::JournalError&) {
    lease.Spoil();
    throw;
  }
}

}  // namespace zevweb
