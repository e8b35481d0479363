#include "health_past.h"

#include <algorithm>
#include <set>
#include <utility>

#include "usual_pause.h"

namespace zevctl {

namespace {

using journal::Field;
using journal::Kind;
using journal::KindBit;

constexpr int64_t kSecond = HealthRules::kSecond;
constexpr int64_t kGapsSince = int64_t{24} * 3600 * kSecond;
constexpr int64_t kWritingTakes = 60 * kSecond;  // what a log or the journal may be behind
constexpr size_t kMostRecordsForLine = 4096;

constexpr journal::Kinds kOfState = KindBit(Kind::kConnected) | KindBit(Kind::kLost) |
                                    KindBit(Kind::kDisabled) | KindBit(Kind::kEnabled);
constexpr journal::Kinds kOfPauses = KindBit(Kind::kPaused) | KindBit(Kind::kNotLogged);

constexpr char kNotConnected[] = "not-connected";

struct StateRow {
  Kind kind;
  const char* word;  // as the daemon says it
};

constexpr StateRow kStates[] = {{Kind::kConnected, "connected"},
                                {Kind::kLost, kNotConnected},
                                {Kind::kDisabled, "disabled"},
                                {Kind::kEnabled, kNotConnected}};

/// Takes records from the newest on; the first of a kind tells how a console is now.
class NewestStates {
 public:
  explicit NewestStates(std::vector<ConsoleFacts>* consoles) {
    for (ConsoleFacts& console : *consoles) consoles_[*console.id] = &console;
  }

  /// False when nothing older counts: the daemon started, and knew of no connection or user.
  bool Take(const journal::Record& record) {
    if (record.header.kind == Kind::kStarted) return TakeStart(record);
    const auto console = record.console ? consoles_.find(*record.console) : consoles_.end();
    if (console == consoles_.end()) return true;
    if ((KindBit(record.header.kind) & kOfPauses) != 0) {
      TakePause(record, console->second);
    } else {
      TakeState(record, console->second);
    }
    return true;
  }

 private:
  // A connection that is lost because the console is disabled is told after that.
  void TakeState(const journal::Record& record, ConsoleFacts* facts) {
    const Kind kind = record.header.kind;
    const bool may_be_disabled = lost_.erase(*record.console) > 0;
    if (!facts->state.empty() && !(may_be_disabled && kind == Kind::kDisabled)) return;
    for (const StateRow& row : kStates) {
      if (kind == row.kind) facts->state = row.word;
    }
    facts->since = record.header.wall;
    if (kind == Kind::kLost) lost_.insert(*record.console);
  }

  void TakePause(const journal::Record& record, ConsoleFacts* facts) {
    if (!paused_.insert(*record.console).second || record.header.kind != Kind::kPaused) return;
    const std::string_view holder = journal::FieldReader(record.payload).Text(Field::kUser);
    if (holder.empty()) {
      facts->is_logged = false;  // nobody holds it, so its flag is the reason
      return;
    }
    facts->is_hidden = true;
    facts->hidden_by = holder;
    facts->hidden_since = record.header.wall;
  }

  // When the journal was switched on later, it says so as the reason.
  bool TakeStart(const journal::Record& record) {
    if (journal::FieldReader(record.payload).Has(Field::kReason)) return true;
    for (auto& [id, console] : consoles_) {
      if (!console->state.empty()) continue;
      console->state = kNotConnected;
      console->since = record.header.wall;
    }
    return false;
  }

  std::map<size_t, ConsoleFacts*> consoles_;
  std::set<size_t> paused_;  // those of which a pause or its end has been seen
  std::set<size_t> lost_;    // those whose newest state is a lost connection
};

}  // namespace

HealthPast::HealthPast(std::unique_ptr<journal::Journal> journal, const HealthRules& rules)
    : journal_(std::move(journal)), rules_(rules), end_(NewestRecord({})) {}

std::optional<int64_t> HealthPast::NewestRecord(const journal::Query& query) const {
  journal::Query backward = query;
  backward.backward = true;
  const auto cursor = journal_->Read(backward);
  journal::Record record;
  if (!cursor->Next(&record)) return {};
  return record.header.wall;
}

std::vector<ConsoleFacts> HealthPast::LastKnown() const {
  std::vector<ConsoleFacts> consoles;
  for (const journal::Console& console : journal_->consoles()) {
    if (console.is_gone) continue;
    ConsoleFacts facts;
    facts.name = console.name();
    facts.id = console.id;
    consoles.push_back(facts);
  }
  AddStates(&consoles);
  return consoles;
}

// One look back for all consoles, as far as the daemon's start.
void HealthPast::AddStates(std::vector<ConsoleFacts>* consoles) const {
  NewestStates states(consoles);
  journal::Query query;
  query.backward = true;
  query.kinds = kOfState | kOfPauses | KindBit(Kind::kStarted);
  const auto cursor = journal_->Read(query);
  for (journal::Record record; cursor->Next(&record) && states.Take(record);) {
  }
}

void HealthPast::Complete(HealthFacts* facts) const {
  for (ConsoleFacts& console : facts->consoles) {
    const std::vector<size_t> found = journal_->Find(console.name);
    if (!console.id && !found.empty()) console.id = found.front();
    if (console.id && !console.last_output) {
      journal::Query query;
      query.consoles = {*console.id};
      query.kinds = KindBit(Kind::kOutput);
      console.last_output = NewestRecord(query);
    }
    AddSilence(&console);
  }
  AddFlood(&facts->consoles);
  AddGaps(facts);
  const bool is_kept = !facts->journal_is_off && !facts->station.is_journal_refused;
  if (facts->from_daemon && is_kept) AddStandstill(facts);
}

// The sample is read for those only that have been silent for so long that it matters.
void HealthPast::AddSilence(ConsoleFacts* facts) const {
  if (!facts->id || !facts->last_output || !facts->IsUp() || rules_.silence) return;
  if (rules_.now - *facts->last_output <= rules_.LeastSilence()) return;
  const auto read = [this](const journal::Query& query) { return journal_->Read(query); };
  // The daemon tells whole seconds.
  facts->usual_pause = UsualPause(read, *facts->id, *facts->last_output + kSecond);
}

void HealthPast::AddFlood(std::vector<ConsoleFacts>* consoles) const {
  std::map<size_t, uint64_t> bytes;
  journal::Query query;
  query.kinds = KindBit(Kind::kOutput);
  query.since = rules_.now - HealthRules::kRecent;
  query.until = rules_.now;
  const auto cursor = journal_->Read(query);
  for (journal::Record record; cursor->Next(&record);) {
    if (record.console) bytes[*record.console] += record.payload.size();
  }
  for (ConsoleFacts& console : *consoles) {
    if (console.id) console.recent_bytes = bytes[*console.id];
  }
}

// Records are lost before anybody looks whose they are: gaps are the station's.
void HealthPast::AddGaps(HealthFacts* facts) const {
  journal::Query query;
  query.kinds = KindBit(Kind::kGap);
  query.since = rules_.now - kGapsSince;
  const auto cursor = journal_->Read(query);
  for (journal::Record record; cursor->Next(&record);) {
    const auto count = journal::FieldReader(record.payload).Number(Field::kCount).value_or(0);
    facts->station.lost_records += static_cast<uint64_t>(std::max<int64_t>(count, 0));
    facts->station.last_gap = record.header.wall;
  }
}

// A console's output that is not recorded on purpose says nothing of the journal.
void HealthPast::AddStandstill(HealthFacts* facts) const {
  if (facts->station.is_journal_stopped) facts->station.journal_stands_since = end_;
  if (!end_) return;
  for (const ConsoleFacts& console : facts->consoles) {
    if (!console.id || console.is_hidden || console.is_logged != true || !console.last_output) {
      continue;
    }
    if (*console.last_output > *end_ + kWritingTakes) facts->station.journal_stands_since = end_;
  }
}

std::optional<int64_t> HealthPast::LineAfter(const ConsoleFacts& console, int64_t written) const {
  if (!console.id || *console.last_output <= written + kWritingTakes) return {};
  journal::Query query;
  query.consoles = {*console.id};
  query.kinds = KindBit(Kind::kOutput);
  query.since = written + kSecond;
  query.until = rules_.now - kWritingTakes;
  const auto cursor = journal_->Read(query);
  size_t records = 0;
  for (journal::Record record; cursor->Next(&record) && ++records < kMostRecordsForLine;) {
    if (record.payload.find('\n') != std::string_view::npos) return record.header.wall;
  }
  return {};
}

}  // namespace zevctl
