#include "replay_scan.h"

#include <algorithm>
#include <utility>

#include "replay_match.h"

namespace zevctl {

namespace {

using journal::Kind;

constexpr size_t kRecordsAtOnce = 2000;
constexpr size_t kBytesAtOnce = 1 << 20;
constexpr size_t kChunk = 256 << 10;       // of output that is looked at from its start
constexpr size_t kMostOverlap = 64 << 10;  // of it, to end a line that began before

// ---- Times --------------------------------------------------------------------------------------

class ForwardScan : public Scan {
 public:
  ForwardScan(const Tape& tape, const Player& player, const Pace& pace, Nanoseconds span)
      : tape_(tape),
        pace_(pace),
        rest_(span),
        landing_(player.here()),
        cursor_(tape.From(landing_.point.record)) {
    pause_ = pace_.Shortened(player.Pause());
  }

  bool Work() override {
    for (size_t i = 0; i < kRecordsAtOnce; ++i) {
      if (Arrives() || !Advance()) {
        found_ = landing_;
        return true;
      }
    }
    return false;
  }

 private:
  // Whether it is in the pause before the next record.
  bool Arrives() {
    const Nanoseconds left = std::max(pause_ - landing_.elapsed, Nanoseconds(0));
    if (rest_ >= left) {
      rest_ -= left;
      return false;
    }
    landing_.elapsed += rest_;
    return true;
  }

  bool Advance() {
    journal::Record record;
    if (!last_) {
      if (!cursor_->Next(&record)) return false;
      last_ = InstantOf(record);
    }
    if (!cursor_->Next(&record)) {
      landing_ = {{cursor_->position(), 0}, Nanoseconds(0)};
      return false;
    }
    pause_ = pace_.Shortened(tape_.Pause(*last_, InstantOf(record)));
    last_ = InstantOf(record);
    landing_ = {{record.position, 0}, Nanoseconds(0)};
    return true;
  }

  const Tape& tape_;
  Pace pace_;
  Nanoseconds rest_;
  Landing landing_;
  std::unique_ptr<journal::Cursor> cursor_;
  Nanoseconds pause_{0};
  std::optional<Instant> last_;
};

class BackwardScan : public Scan {
 public:
  BackwardScan(const Tape& tape, const Player& player, const Pace& pace, Nanoseconds span)
      : tape_(tape),
        pace_(pace),
        rest_(span),
        landing_(player.here()),
        cursor_(tape.Before(landing_.point.record)),
        played_(landing_.elapsed) {
    if (player.next()) instant_ = player.next()->instant;
    ReadEarlier();
    if (landing_.point.offset > 0) Land(landing_.point.record);
  }

  bool Work() override {
    for (size_t i = 0; i < kRecordsAtOnce; ++i) {
      if (rest_ <= played_) return Arrive(played_ - rest_);
      if (!earlier_) return Arrive(Nanoseconds(0));
      rest_ -= played_;
      const journal::Position position = earlier_->position;
      instant_ = earlier_->instant;
      ReadEarlier();
      Land(position);
    }
    return false;
  }

 private:
  struct Place {
    journal::Position position;
    Instant instant;
  };

  void ReadEarlier() {
    journal::Record record;
    earlier_.reset();
    if (cursor_->Next(&record)) earlier_ = {record.position, InstantOf(record)};
  }

  // At the end of the pause before this record.
  void Land(const journal::Position& record) {
    landing_.point = {record, 0};
    const int64_t start = tape_.since().value_or(instant_.wall);
    const Instant before = earlier_ ? earlier_->instant : Instant{start, 0, 0};
    played_ = pace_.Shortened(tape_.Pause(before, instant_));
  }

  bool Arrive(Nanoseconds elapsed) {
    landing_.elapsed = elapsed;
    found_ = landing_;
    return true;
  }

  const Tape& tape_;
  Pace pace_;
  Nanoseconds rest_;
  Landing landing_;
  std::unique_ptr<journal::Cursor> cursor_;
  Nanoseconds played_;            // of the pause before the landing
  Instant instant_;               // of the record there
  std::optional<Place> earlier_;  // the record before it
};

// ---- Events -------------------------------------------------------------------------------------

class EventScan : public Scan {
 public:
  /// `here`: where the cursor began. An event there that has been shown already is not meant.
  EventScan(std::unique_ptr<journal::Cursor> cursor, const Point& here)
      : cursor_(std::move(cursor)), here_(here) {}

  bool Work() override {
    journal::Record record;
    for (size_t i = 0; i < kRecordsAtOnce; ++i) {
      if (!cursor_->Next(&record)) return true;
      const bool was_shown = record.position == here_.record && here_.offset > 0;
      if (record.header.kind != Kind::kEvent || was_shown) continue;
      found_ = Landing{{record.position, record.payload.size()}, Nanoseconds(0)};
      return true;
    }
    return false;
  }

 private:
  std::unique_ptr<journal::Cursor> cursor_;
  Point here_;
};

// ---- Matches ------------------------------------------------------------------------------------

class NextMatchScan : public Scan {
 public:
  NextMatchScan(const Tape& tape, const Player& player, const Pattern& pattern)
      : matcher_(pattern, player.decoder()),
        here_(player.here().point),
        cursor_(tape.From(here_.record)) {}

  bool Work() override {
    const size_t limit = matcher_.looked_at() + kBytesAtOnce;
    journal::Record record;
    for (size_t i = 0; i < kRecordsAtOnce && matcher_.looked_at() < limit; ++i) {
      if (!cursor_->Next(&record)) return true;
      if (record.header.kind != Kind::kOutput) continue;
      const size_t played = record.position == here_.record ? here_.offset : 0;
      const std::vector<size_t> places = matcher_.Take(record.payload.substr(played));
      if (places.empty()) continue;
      found_ = Landing{{record.position, played + places.front()}, Nanoseconds(0)};
      return true;
    }
    return false;
  }

 private:
  LineMatcher matcher_;
  Point here_;
  std::unique_ptr<journal::Cursor> cursor_;
};

/// Takes the output before a place in chunks, the last first, and looks at each from its start.
class PreviousMatchScan : public Scan {
 public:
  PreviousMatchScan(const Tape& tape, const Player& player, const Pattern& pattern)
      : pattern_(pattern), here_(player.here().point), cursor_(tape.Before(here_.record)) {
    if (here_.offset > 0 && player.next()->kind == Kind::kOutput) overlap_ = {*player.next()};
  }

  bool Work() override {
    const bool is_first = Collect();
    const size_t overlap = Overlap();
    LineMatcher matcher(pattern_, {});
    if (!is_first) matcher.SkipLine();
    for (size_t i = 0; i < chunk_.size(); ++i) {
      if (i == overlap) matcher.EndSkipping();
      for (const size_t place : matcher.Take(chunk_[i].payload)) {
        const Point point{chunk_[i].position, place};
        if (point < here_) found_ = Landing{point, Nanoseconds(0)};
      }
    }
    overlap_.assign(chunk_.begin(), chunk_.begin() + static_cast<ptrdiff_t>(overlap));
    return is_first || found_;
  }

 private:
  // The next chunk, and of the one behind it what ends its last line. True at the tape's start.
  bool Collect() {
    chunk_.clear();
    size_t bytes = 0;
    journal::Record record;
    bool is_first = false;
    for (size_t i = 0; i < kRecordsAtOnce && bytes < kChunk; ++i) {
      is_first = !cursor_->Next(&record);
      if (is_first) break;
      if (record.header.kind != Kind::kOutput) continue;
      chunk_.emplace_back(record);
      bytes += record.payload.size();
    }
    std::reverse(chunk_.begin(), chunk_.end());
    chunk_.insert(chunk_.end(), overlap_.begin(), overlap_.end());
    return is_first;
  }

  // How many records there are to the first line's end: the line began in the chunk before, and is
  // looked at with that. A line that is too long for it is looked at in pieces.
  size_t Overlap() const {
    size_t count = 0;
    size_t bytes = 0;
    while (count < chunk_.size() && bytes < kMostOverlap) {
      const std::string& payload = chunk_[count++].payload;
      bytes += payload.size();
      if (payload.find('\n') != std::string::npos) break;
    }
    return count;
  }

  const Pattern& pattern_;
  Point here_;
  std::unique_ptr<journal::Cursor> cursor_;
  std::vector<KeptRecord> chunk_;
  std::vector<KeptRecord> overlap_;
};

}  // namespace

std::unique_ptr<Scan> ScanForward(const Tape& tape, const Player& player, const Pace& pace,
                                  Nanoseconds span) {
  return std::make_unique<ForwardScan>(tape, player, pace, span);
}

std::unique_ptr<Scan> ScanBackward(const Tape& tape, const Player& player, const Pace& pace,
                                   Nanoseconds span) {
  return std::make_unique<BackwardScan>(tape, player, pace, span);
}

std::unique_ptr<Scan> ScanNextEvent(const Tape& tape, const Player& player) {
  const Point here = player.here().point;
  return std::make_unique<EventScan>(tape.From(here.record), here);
}

std::unique_ptr<Scan> ScanPreviousEvent(const Tape& tape, const Player& player) {
  const Point here = player.here().point;
  return std::make_unique<EventScan>(tape.Before(here.record), here);
}

std::unique_ptr<Scan> ScanNextMatch(const Tape& tape, const Player& player,
                                    const Pattern& pattern) {
  return std::make_unique<NextMatchScan>(tape, player, pattern);
}

std::unique_ptr<Scan> ScanPreviousMatch(const Tape& tape, const Player& player,
                                        const Pattern& pattern) {
  return std::make_unique<PreviousMatchScan>(tape, player, pattern);
}

}  // namespace zevctl
