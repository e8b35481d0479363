#include "replay_player.h"

#include <algorithm>
#include <vector>

#include "journal_text.h"

namespace zevctl {

namespace {

using journal::Kind;

// How far back is looked for what made the screen: a full screen of a terminal is some kilobytes,
// with colours tens of them.
constexpr size_t kBackfillBytes = 256 << 10;
constexpr size_t kBackfillRecords = 20'000;

constexpr size_t kBytesAtOnce = 1 << 20;
constexpr size_t kRecordsAtOnce = 10'000;
constexpr Nanoseconds kToldPause = std::chrono::seconds(1);

// What somebody typed is seen on the screen, and a definition says nothing new.
bool IsTold(Kind kind) {
  return kind != Kind::kOutput && kind != Kind::kInput && kind != Kind::kConsole;
}

std::string NoteOn(const journal::Record& record) {
  if (!IsTold(record.header.kind)) return "";
  const std::string stamp = StampText(record.header.wall);
  return stamp.substr(11, 8) + " " + RecordText(record);
}

}  // namespace

std::string DamageText(const journal::Damage& damage) {
  return "the journal is damaged here: " + damage.reason;
}

void Decoder::Take(std::string_view bytes, const DrawingFilter::Sink& drawn,
                   const PlainLines::Sink& ended) {
  filter.Take(telnet.Take(bytes), [&](std::string_view piece) {
    drawn(piece);
    lines.Take(piece, ended);
  });
}

std::string Decoder::Finish() {
  const std::string end = filter.Finish();
  if (!end.empty()) lines.Take(end, [](const std::string&) {});
  return lines.Line();
}

Player::Player(const Tape& tape, ScreenSize size)
    : tape_(tape), screen_(std::make_unique<VirtualScreen>(size)) {
  GoToStart();
}

void Player::GoToStart() {
  cursor_ = tape_.FromStart();
  damages_ = 0;
  Fetch();
  if (next_) Go({{next_->position, 0}, Nanoseconds(0)});
}

void Player::GoToEnd() {
  journal::Record last;
  if (!tape_.FromEnd()->Next(&last)) return;
  Go({{last.position, last.payload.size()}, Nanoseconds(0)});
  Step();
}

void Player::Go(const Landing& landing) {
  screen_->Reset();
  decoder_ = {};
  note_.clear();
  Backfill(landing.point.record);
  cursor_ = tape_.From(landing.point.record);
  damages_ = 0;
  Fetch();
  const bool is_there = next_ && next_->position == landing.point.record;
  offset_ = is_there ? std::min(landing.point.offset, next_->payload.size()) : 0;
  elapsed_ = landing.elapsed;
  if (offset_ == 0) return;
  last_ = next_->instant;
  if (next_->kind == Kind::kOutput) Show(std::string_view(next_->payload).substr(0, offset_));
  if (!next_note_.empty()) note_ = next_note_;
}

void Player::Resize(ScreenSize size) {
  screen_ = std::make_unique<VirtualScreen>(size);
  Go(here());
}

void Player::Backfill(const journal::Position& record) {
  std::vector<std::string> pieces;
  size_t bytes = 0;
  last_.reset();
  const auto cursor = tape_.EverBefore(record);
  journal::Record earlier;
  for (size_t i = 0; i < kBackfillRecords && bytes < kBackfillBytes; ++i) {
    if (!cursor->Next(&earlier)) break;
    if (!last_) last_ = InstantOf(earlier);
    if (note_.empty()) note_ = NoteOn(earlier);
    if (earlier.header.kind != Kind::kOutput) continue;
    pieces.emplace_back(earlier.payload);
    bytes += earlier.payload.size();
  }
  TellDamage(*cursor);
  for (auto piece = pieces.rbegin(); piece != pieces.rend(); ++piece) Show(*piece);
}

void Player::Fetch() {
  journal::Record record;
  next_.reset();
  next_note_.clear();
  offset_ = 0;
  const bool is_there = cursor_->Next(&record);
  if (cursor_->damages().size() > damages_) TellDamage(*cursor_);
  damages_ = cursor_->damages().size();
  if (!is_there) return;
  next_.emplace(record);
  next_note_ = NoteOn(record);
}

// What cannot be read is left out, and that is told where it would have been.
void Player::TellDamage(const journal::Cursor& cursor) {
  if (!cursor.damages().empty()) note_ = DamageText(cursor.damages().back());
}

void Player::Show(std::string_view bytes) {
  decoder_.Take(
      bytes, [this](std::string_view piece) { screen_->Put(piece); }, [](const std::string&) {});
}

Nanoseconds Player::Pause() const {
  if (!next_ || offset_ > 0) return Nanoseconds(0);
  if (last_) return tape_.Pause(*last_, next_->instant);
  return tape_.since() ? Between({*tape_.since(), 0, 0}, next_->instant) : Nanoseconds(0);
}

void Player::Consume() {
  if (next_->kind == Kind::kOutput) Show(std::string_view(next_->payload).substr(offset_));
  if (!next_note_.empty()) note_ = next_note_;
  last_ = next_->instant;
  elapsed_ = Nanoseconds(0);
  Fetch();
}

bool Player::Pass(Nanoseconds played, const Pace& pace) {
  size_t bytes = 0;
  for (size_t i = 0; next_; ++i) {
    if (bytes >= kBytesAtOnce || i >= kRecordsAtOnce) return true;
    const Nanoseconds pause = Pause();
    const Nanoseconds due = std::max(pace.Shortened(pause) - elapsed_, Nanoseconds(0));
    if (played < due) {
      elapsed_ += played;
      return false;
    }
    played -= due;
    if (pause - pace.Shortened(pause) >= kToldPause) {
      note_ = DurationText(pause.count()) + " of silence shortened";
    }
    bytes += next_->payload.size();
    Consume();
  }
  return false;
}

void Player::Step() {
  bool shown = false;
  while (next_ && !shown) {
    shown = next_->kind == Kind::kOutput && offset_ < next_->payload.size();
    Consume();
  }
}

std::optional<Nanoseconds> Player::Wait(const Pace& pace) const {
  if (!next_) return {};
  return std::max(pace.Shortened(Pause()) - elapsed_, Nanoseconds(0));
}

Landing Player::here() const {
  return {{next_ ? next_->position : cursor_->position(), offset_}, elapsed_};
}

int64_t Player::wall() const {
  const int64_t since = tape_.since().value_or(INT64_MIN);
  if (!last_ && !next_) return std::max<int64_t>(since, 0);
  const int64_t from = last_ ? last_->wall : (tape_.since() ? since : next_->instant.wall);
  const Nanoseconds passed = std::min(elapsed_, Pause());
  int64_t wall = std::max(from, since);
  if (__builtin_add_overflow(wall, passed.count(), &wall)) return from;
  return wall;
}

}  // namespace zevctl
