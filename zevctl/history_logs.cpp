#include "history_logs.h"

#include <algorithm>
#include <cctype>
#include <utility>

#include "journal_lines.h"
#include "log_directories.h"

namespace zevctl {

namespace {

constexpr int64_t kSecond = 1'000'000'000;  // in nanoseconds
constexpr int64_t kSeamWidth = 3 * kSecond;
constexpr time_t kLongestMoment = 2;    // in seconds; Hole::follows_moment
constexpr time_t kLag = 1;              // seconds by which a log's stamp may be later
constexpr size_t kLogPieceSize = 1024;  // logs have longer lines in pieces
constexpr time_t kSpans[] = {3600, 86400, time_t{30} * 86400};

// Consoles are looked for by name as the daemon does, which may have changed '-' to '_'.
std::string Folded(std::string_view name) {
  std::string folded;
  for (const char byte : name) {
    folded.push_back(byte == '-' ? '_' : static_cast<char>(tolower(static_cast<uint8_t>(byte))));
  }
  return folded;
}

time_t SecondOf(int64_t wall) {
  return static_cast<time_t>(wall / kSecond - (wall % kSecond < 0 ? 1 : 0));
}

template <typename Value>
std::optional<Value> Later(std::optional<Value> one, std::optional<Value> other) {
  if (!one || !other) return one ? one : other;
  return std::max(*one, *other);
}

template <typename Value>
std::optional<Value> Earlier(std::optional<Value> one, std::optional<Value> other) {
  if (!one || !other) return one ? one : other;
  return std::min(*one, *other);
}

// What a log has as one record may hold bytes that are no text of a line.
std::string TextOf(std::string_view bytes) {
  LineBytes line;
  for (const char byte : bytes) {
    if (byte != '\r') line.Take(byte);
  }
  return line.text();
}

}  // namespace

// ---- Where journal and logs meet ----------------------------------------------------------------

Seam::Seam(const journal::Journal& journal, const std::vector<size_t>& consoles, const Hole& hole) {
  // Whoever has a name now goes before who had it once.
  for (const size_t id : consoles) names_.emplace(Folded(journal.consoles()[id].name()), id);
  for (const size_t id : consoles) {
    for (const auto& known : journal.consoles()[id].names) names_.emplace(Folded(known.name), id);
  }
  if (hole.begin) Collect(journal, consoles, *hole.begin - kSeamWidth, *hole.begin, false);
  if (hole.end) Collect(journal, consoles, *hole.end, *hole.end + kSeamWidth, true);
}

void Seam::Collect(const journal::Journal& journal, const std::vector<size_t>& consoles,
                   int64_t since, int64_t until, bool at_end) {
  LineAssembler assembler([&](const PrintedLine& line) {
    if (at_end) first_.try_emplace(line.console, line.text);
    for (std::string_view rest = line.text;;) {
      ++lines_[line.console].counts[std::string(rest.substr(0, kLogPieceSize))].all;
      if (rest.size() <= kLogPieceSize) break;
      rest.remove_prefix(kLogPieceSize);
    }
  });
  journal::Query query;
  query.consoles = consoles;
  query.kinds = journal::KindBit(journal::Kind::kOutput);
  query.since = since;
  query.until = until;
  const auto cursor = journal.Read(query);
  journal::Record record;
  while (cursor->Next(&record)) assembler.Take(record);
}

std::optional<size_t> Seam::ConsoleOf(const std::string& log) const {
  const auto found = names_.find(Folded(log));
  return found == names_.end() ? std::nullopt : std::optional(found->second);
}

bool Seam::Takes(size_t console, const std::string& text) {
  const auto lines = lines_.find(console);
  if (lines == lines_.end()) return false;
  const auto found = lines->second.counts.find(text);
  if (found == lines->second.counts.end() || found->second.taken == found->second.all) return false;
  ++found->second.taken;
  lines->second.has_taken = true;
  return true;
}

bool Seam::HasTaken(size_t console) const {
  const auto lines = lines_.find(console);
  return lines != lines_.end() && lines->second.has_taken;
}

bool Seam::HasTaken(size_t console, const std::string& text) const {
  const auto lines = lines_.find(console);
  if (lines == lines_.end()) return false;
  const auto found = lines->second.counts.find(text);
  return found != lines->second.counts.end() && found->second.taken > 0;
}

void Seam::Refill() {
  for (auto& [console, lines] : lines_) {
    for (auto& [text, count] : lines.counts) count.taken = 0;
    lines.has_taken = false;
  }
}

std::string Seam::HeadOf(size_t console, const std::string& text) const {
  const auto first = first_.find(console);
  if (first == first_.end() || first->second.empty()) return "";
  if (!text.ends_with(first->second)) return "";
  return text.substr(0, text.size() - first->second.size());
}

// ---- The lines ----------------------------------------------------------------------------------

/// One pass over the logs.
class LogPart::Reading {
 public:
  Reading(const LogPart& part, Seam* seam) : part_(part), seam_(seam) {}

  void Run(const HistoryHandler& handle) {
    LogReaders readers = part_.open_();
    for (const auto& reader : readers) {
      if (part_.from_) reader->SkipBefore(*part_.from_ - lead_);
    }
    const time_t end = part_.to_ ? *part_.to_ + kClockSlack : kEndOfTime;
    ReadInOrder(
        readers, [](const LogReader&) { return Unfinished::kTake; }, end,
        [&](const LogReader& log, const Record& record) { Take(log, record, handle); });
  }

  LineHeads TakeHeads() { return std::move(heads_); }

 private:
  void Take(const LogReader& log, const Record& record, const HistoryHandler& handle) {
    if (EndsTheLineBefore(log, record) || !record.time || !IsInTime(*record.time)) return;
    const std::string text = TextOf(record.text);
    if (IsInJournal(log, text, *record.time) || (part_.from_ && *record.time < *part_.from_))
      return;
    HistoryLine line;
    line.console = log.name();
    line.wall = static_cast<int64_t>(*record.time) * kSecond;
    line.text = text;
    line.is_output = true;
    line.kind = "output";
    handle(line);
  }

  // A log that keeps carriage returns has CR LF as two line ends.
  bool EndsTheLineBefore(const LogReader& log, const Record& record) {
    const char last = record.bytes.back();
    const bool is_empty = record.text.empty();
    bool& after_cr = after_cr_[&log];
    const bool is_rest = is_empty && (last == '\r' || (last == '\n' && after_cr));
    if (!is_empty || last != '\r') after_cr = last == '\r';
    return is_rest;
  }

  bool IsInTime(time_t time) const {
    return (!part_.from_ || time >= *part_.from_ - lead_) && (!part_.to_ || time <= *part_.to_);
  }

  // Behind a moment of the journal, its lines must pass by to tell what stands behind them: they
  // may be of an earlier second than its end.
  static time_t LeadOf(const LogPart& part) {
    const Hole& hole = part.hole_;
    const bool begins_there =
        hole.begin && part.from_ && *part.from_ <= SecondOf(*hole.begin) + kLag;
    return begins_there && hole.follows_moment ? kLongestMoment : 0;
  }

  // Far from the ends of the hole the journal has nothing.
  bool IsInJournal(const LogReader& log, const std::string& text, time_t time) {
    const Hole& hole = part_.hole_;
    const bool at_begin = hole.begin && time <= SecondOf(*hole.begin) + kLag;
    const bool at_end = hole.end && time >= SecondOf(*hole.end);
    if (seam_ == nullptr || !(at_begin || at_end)) return false;
    const auto console = seam_->ConsoleOf(log.name());
    if (!console) return false;
    if (seam_->Takes(*console, text)) return true;
    const std::string head = at_end ? seam_->HeadOf(*console, text) : "";
    if (!head.empty() && heads_.emplace(*console, head).second) return true;
    return at_end ? IsBehind(*console, text, time) : IsBefore(*console, time);
  }

  // Where the journal lasts for a moment only, a line may belong to the time behind it, or before
  // it: what stands behind a line that the journal has, or before one.
  bool IsBehind(size_t console, const std::string& text, time_t time) const {
    if (!seam_->HasLinesOf(console)) return time > SecondOf(*part_.hole_.end);
    return seam_->HasTaken(console) && !seam_->HasTaken(console, text);
  }

  bool IsBefore(size_t console, time_t time) const {
    if (!part_.hole_.follows_moment) return false;
    if (!seam_->HasLinesOf(console)) return time <= SecondOf(*part_.hole_.begin);
    return !seam_->HasTaken(console);
  }

  const LogPart& part_;
  const time_t lead_ = LeadOf(part_);  // in seconds
  Seam* seam_;                         // none without a journal
  LineHeads heads_;
  std::map<const LogReader*, bool> after_cr_;
};

LogPart::LogPart(std::function<LogReaders()> open, const Hole& hole, const Span& span,
                 std::function<Seam()> make_seam)
    : open_(std::move(open)),
      hole_(hole),
      from_(span.since),
      to_(span.until),
      make_seam_(std::move(make_seam)) {
  if (hole.begin) from_ = Later(from_, std::optional(SecondOf(*hole.begin)));
  if (hole.end) to_ = Earlier(to_, std::optional(SecondOf(*hole.end) + kLag));
}

// A reading uses up what the journal has.
Seam* LogPart::FreshSeam() {
  if (!make_seam_) return nullptr;
  if (seam_) {
    seam_->Refill();
  } else {
    seam_ = make_seam_();
  }
  return &*seam_;
}

void LogPart::Read(const HistoryHandler& handle) {
  Reading(*this, FreshSeam()).Run(handle);
}

LineHeads LogPart::Heads() {
  if (!hole_.end) return {};
  const auto from = std::exchange(from_, SecondOf(*hole_.end));
  Reading reading(*this, FreshSeam());
  reading.Run([](const HistoryLine&) {});
  from_ = from;
  return reading.TakeHeads();
}

// The time before which there is nothing. A log's first stamp need not be its oldest, but nearly
// is.
time_t LogPart::Begin() const {
  time_t begin = kEndOfTime;
  for (const auto& reader : open_()) begin = std::min(begin, reader->TimeHere().value_or(begin));
  if (begin != kEndOfTime) begin -= kClockSlack;
  return std::max(begin, from_.value_or(begin));
}

// Further and further back. Where the context of matches is wanted, everything is read: nobody
// knows how long before it was printed.
size_t LogPart::StartAtLast(size_t count, size_t context, const HistoryTest& is_wanted) {
  const auto first = from_;
  const time_t end = to_.value_or(time(nullptr));
  const time_t begin = context > 0 ? kEndOfTime : Begin();
  size_t found = 0;
  const HistoryHandler handle = [&](const HistoryLine& line) { found += is_wanted(line) ? 1 : 0; };
  for (const time_t span : kSpans) {
    if (end - span <= begin) break;
    from_ = end - span;
    found = 0;
    Read(handle);
    if (found >= count) return found;
    from_ = first;
  }
  found = 0;
  Read(handle);
  return found;
}

}  // namespace zevctl
