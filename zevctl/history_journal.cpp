#include "history_journal.h"

#include <algorithm>
#include <set>
#include <utility>

#include "acts.h"
#include "journal/journal_fields.h"
#include "journal_text.h"

namespace zevctl {

namespace {

using journal::Cursor;
using journal::Kind;
using journal::KindBit;
using journal::Position;
using journal::Query;

constexpr size_t kFirstStep = 256;        // records that are looked at before there may be enough
constexpr size_t kLargestStep = 1 << 16;  // the same
constexpr size_t kLongestHead = 64;       // records of a console that one line is looked for in

size_t LineEnds(std::string_view text) {
  return static_cast<size_t>(std::count(text.begin(), text.end(), '\n'));
}

bool EndsLine(std::string_view text) {
  return text.find_first_of("\r\n") != std::string_view::npos;
}

}  // namespace

// ---- Records become lines -----------------------------------------------------------------------

JournalPart::JournalPart(const journal::Journal& journal, JournalStretch stretch,
                         LineHeadsFinder find_heads)
    : journal_(journal),
      stretch_(std::move(stretch)),
      begin_(stretch_.from),
      find_heads_(std::move(find_heads)) {
  if (stretch_.start) stretch_.from = *stretch_.start;
}

class JournalPart::Reading {
 public:
  Reading(JournalPart& part, const Position& from, const std::optional<Position>& to,
          const HistoryHandler& handle)
      : part_(part),
        to_(to),
        handle_(handle),
        cursor_(part.journal_.Read(part.QueryFor(from))),
        assembler_([this](const PrintedLine& line) { TakeLine(line); },
                   [this](const journal::Record& record) { return part_.HeadOf(record); }) {}

  /// As far as there is more.
  void Run() {
    journal::Record record;
    while (cursor_->Next(&record)) {
      TellDamages();
      if (to_ && record.position >= *to_) return;
      Take(record);
    }
    TellDamages();
  }

  void Finish() {
    is_over_ = true;
    assembler_.Finish();
  }

  uint64_t missing() const { return missing_; }

 private:
  // A line that was interrupted stands before what interrupted it.
  void Take(const journal::Record& record) {
    auto console = record.console;
    if (record.header.kind == Kind::kAudit && !(console = part_.ConsoleOfAct(record))) return;
    assembler_.Take(record);
    if (record.header.kind == Kind::kOutput) return;
    missing_ += TellsOfLoss(record.header.kind) ? 1 : 0;
    const std::string text = RecordText(record);
    HistoryLine line = Begin(console, record.header.wall, record.position);
    line.text = text;
    line.kind = journal::KindWord(record.header.kind);
    line.record = &record;
    handle_(line);
  }

  void TakeLine(const PrintedLine& printed) {
    HistoryLine line = Begin(printed.console, printed.wall, printed.position);
    line.text = printed.text;
    line.kind = journal::KindWord(Kind::kOutput);
    line.is_output = true;
    line.is_complete = printed.is_complete;
    line.is_late = is_over_;
    handle_(line);
  }

  HistoryLine Begin(const std::optional<size_t>& console, int64_t wall, const Position& position) {
    HistoryLine line;
    if (console) line.console = part_.journal_.consoles()[*console].name();
    line.id = console;
    line.wall = wall;
    last_wall_ = wall;
    line.position = position;
    return line;
  }

  // What is no sound record was stepped over.
  void TellDamages() {
    for (; damages_ < cursor_->damages().size(); ++damages_) {
      const journal::Damage& damage = cursor_->damages()[damages_];
      const std::string text = "damaged: the journal cannot be read at " +
                               journal::PositionText(damage.position) + " (" + damage.reason +
                               "); \"zevctl journal verify\" tells more";
      ++missing_;
      const int64_t wall = last_wall_.value_or(part_.BeginOf(damage.position.segment));
      HistoryLine line = Begin({}, wall, damage.position);
      line.text = text;
      line.kind = "damage";
      handle_(line);
    }
  }

  JournalPart& part_;
  std::optional<Position> to_;
  const HistoryHandler& handle_;
  std::unique_ptr<Cursor> cursor_;
  LineAssembler assembler_;
  size_t damages_ = 0;
  uint64_t missing_ = 0;
  std::optional<int64_t> last_wall_;
  bool is_over_ = false;
};

Query JournalPart::QueryFor(const std::optional<Position>& from) const {
  Query query;
  query.consoles = stretch_.consoles;
  query.with_station = true;
  query.kinds = stretch_.kinds;
  query.since = stretch_.since;
  query.until = stretch_.until;
  query.from = from;
  return query;
}

void JournalPart::Read(const HistoryHandler& handle) {
  Reading reading(*this, stretch_.from, stretch_.to, handle);
  reading.Run();
  if (!stretch_.goes_on) reading.Finish();
  missing_ = reading.missing();
}

void JournalPart::ReadOn(const HistoryHandler& handle) {
  if (!reading_) {
    reading_ = std::make_shared<Reading>(*this, stretch_.from, stretch_.to, handle);
  }
  reading_->Run();
  missing_ = reading_->missing();
}

// The audit is the station's: its records name their console. Nothing when it is none of the wanted
// ones, and when another record tells of the same.
std::optional<size_t> JournalPart::ConsoleOfAct(const journal::Record& record) const {
  if (!OnlyAuditTells(record)) return {};
  const std::string_view name = journal::FieldReader(record.payload).Text(journal::Field::kConsole);
  const auto& wanted = stretch_.consoles;
  for (const size_t id : journal_.Find(name)) {
    if (std::find(wanted.begin(), wanted.end(), id) != wanted.end()) return id;
  }
  return {};
}

int64_t JournalPart::BeginOf(uint64_t segment) const {
  for (const journal::SegmentInfo& info : journal_.segments()) {
    if (info.segment == segment) return info.first_wall;
  }
  return 0;
}

// The bytes of the console's last records before this one, back to one that ends a line: the first
// line of what is shown may have begun there.
std::string JournalPart::HeadOf(const journal::Record& record) {
  Query query;
  query.consoles = {*record.console};
  query.with_station = true;
  query.kinds = KindBit(Kind::kOutput) | kInterruptions;
  query.from = record.position;
  query.backward = true;
  const auto cursor = journal_.Read(query);
  std::string head;
  journal::Record before;
  for (size_t count = 0; count < kLongestHead; ++count) {
    const bool is_first = !cursor->Next(&before) || before.position < begin_;
    if (is_first) return HeadBeforeJournal(*record.console) + head;
    if (before.header.kind != Kind::kOutput) return head;
    head.insert(0, before.payload);
    if (EndsLine(before.payload)) return head;
  }
  return head;
}

std::string JournalPart::HeadBeforeJournal(size_t console) {
  if (!heads_) heads_ = find_heads_ ? find_heads_() : LineHeads();
  const auto known = heads_->find(console);
  return known == heads_->end() ? "" : known->second;
}

// ---- From the end backward ----------------------------------------------------------------------

// The place of the oldest of so many records before the place; nothing when there is none.
std::optional<Position> JournalPart::Back(const Position& from, size_t records) const {
  Query query = QueryFor(from);
  query.backward = true;
  const auto cursor = journal_.Read(query);
  std::optional<Position> oldest;
  journal::Record record;
  while (records-- > 0 && cursor->Next(&record) && record.position >= stretch_.from) {
    oldest = record.position;
  }
  return oldest;
}

// The place from which the console has so many line ends before the other place.
Position JournalPart::LinesBefore(size_t console, const Position& place, size_t count) const {
  Query query;
  query.consoles = {console};
  query.kinds = KindBit(Kind::kOutput);
  query.since = stretch_.since;
  query.from = place;
  query.backward = true;
  const auto cursor = journal_.Read(query);
  Position start = place;
  journal::Record record;
  for (size_t ends = 0; ends <= count && cursor->Next(&record);) {
    if (record.position < begin_) break;
    ends += LineEnds(record.payload);
    start = record.position;
  }
  return start;
}

// In larger and larger steps: few lines are found quickly, and many without reading all twice. What
// is a line in the making at the end of a step is whole in the one behind it.
size_t JournalPart::StartAtLast(size_t count, size_t context, const HistoryTest& is_wanted) {
  size_t found = 0;
  std::set<size_t> consoles;
  const HistoryHandler handle = [&](const HistoryLine& line) {
    if (!is_wanted(line)) return;
    ++found;
    if (line.id) consoles.insert(*line.id);
  };
  Position start = stretch_.to.value_or(journal_.end());
  for (size_t step = std::max(count, kFirstStep); found < count; step *= 4) {
    const auto place = Back(start, std::min(step, std::max(count, kLargestStep)));
    if (!place) break;
    Reading reading(*this, *place, start, handle);
    reading.Run();
    if (step == std::max(count, kFirstStep) && !stretch_.goes_on) reading.Finish();
    start = *place;
  }
  stretch_.from = start;
  for (const size_t console : context > 0 ? consoles : std::set<size_t>()) {
    stretch_.from = std::min(stretch_.from, LinesBefore(console, start, context));
  }
  return found;
}

}  // namespace zevctl
