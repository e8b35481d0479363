#include "web_follow.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <utility>

#include "journal/journal.h"
#include "output.h"
#include "web_frames.h"

namespace zevweb {

namespace {

using journal::Kind;
using journal::KindBit;
using journal::Position;

constexpr size_t kWindowBytes = 64 << 10;
constexpr size_t kWindowRecords = 1000;
constexpr size_t kMostLooked = 4 << 20;  // bytes, for the last lines

journal::Query QueryOf(size_t console) {
  journal::Query query;
  query.consoles = {console};
  return query;
}

struct LastLines {
  Position position;  // of the record in which they begin
  size_t before = 0;  // lines in it that do not belong to them
};

LastLines FindLast(const journal::Journal& journal, size_t console, size_t lines) {
  LastLines last{journal.end(), 0};
  if (lines == 0) return last;
  journal::Query query = QueryOf(console);
  query.kinds = KindBit(Kind::kOutput);
  query.backward = true;
  const auto cursor = journal.Read(query);
  journal::Record record;
  size_t found = 0;
  size_t bytes = 0;
  // The line in the making is the last one, and has no end.
  while (found <= lines && bytes < kMostLooked && cursor->Next(&record)) {
    found += static_cast<size_t>(std::count(record.payload.begin(), record.payload.end(), '\n'));
    bytes += record.payload.size();
    last.position = record.position;
  }
  last.before = found - std::min(found, lines);
  return last;
}

WebRecordPointer WithoutLines(const WebRecordPointer& record, size_t lines) {
  if (lines == 0 || !record->is_output()) return record;
  auto rest = std::make_shared<WebRecord>(*record);
  size_t end = rest->head;
  for (; lines > 0 && end < rest->frame.size(); ++end) {
    if (rest->frame[end] == '\n') --lines;
  }
  rest->frame.erase(rest->head, end - rest->head);
  return rest;
}

}  // namespace

/// A piece of the past.
struct WebFollow::Window {
  std::deque<WebRecordPointer> records;
  std::optional<Position> next;  // none: the past cannot be read
  std::string damage;

  static Window Of(const journal::Journal* journal, std::optional<size_t> console,
                   const std::optional<Position>& place, size_t lines);

 private:
  void Read(const journal::Journal& journal, size_t console, const std::optional<Position>& place,
            size_t lines);
};

WebFollow::WebFollow(const WebTail& tail, std::string name, const WebStart& start,
                     WebReader& reader, Workers& workers, std::function<void()> came)
    : tail_(tail),
      name_(std::move(name)),
      start_(start),
      reader_(reader),
      workers_(workers),
      came_(std::move(came)) {}

// What was shown last is where it goes on, whatever has become of the journal meanwhile.
void WebFollow::Restart() {
  if (joins_ == tail_.joins && phase_ != Phase::kUnknown) return;
  joins_ = tail_.joins;
  phase_ = tail_.console.empty() ? Phase::kUnknown : Phase::kPast;
  window_.clear();
  current_.reset();
  alive_ = std::make_shared<char>();
  is_asked_ = false;
  if (tail_.console.empty()) was_unknown_ = true;
  if (has_begun_ || tail_.console.empty()) return;
  // Of a console that begins to print while it is watched, nothing is the past.
  has_begun_ = start_.from || (was_unknown_ && start_.last == 0);
  if (has_begun_) next_ = start_.from.value_or(tail_.covered_from);
}

WebRecordPointer WebFollow::Peek() {
  if (current_ || phase_ == Phase::kUnknown) return current_;
  if (phase_ == Phase::kPast && window_.empty() && has_begun_ && next_ >= tail_.covered_from) {
    GoLive();
  }
  return phase_ == Phase::kPast ? PeekPast() : PeekLive();
}

WebRecordPointer WebFollow::PeekPast() {
  if (window_.empty()) {
    Ask();
    return nullptr;
  }
  return current_ = Skipped(window_.front());
}

// The reader may be behind the window that was read last.
WebRecordPointer WebFollow::PeekLive() {
  if (number_ < tail_.first) {
    SetMissed();
    return current_;
  }
  for (; number_ < tail_.end(); ++number_) {
    const WebTail::Entry& entry = tail_.entries[number_ - tail_.first];
    seen_ = entry.bytes_before;
    if (entry.record->position < next_) continue;
    number_then_ = number_ + 1;
    seen_then_ = seen_ + (entry.record->is_output() ? entry.record->bytes().size() : 0);
    return current_ = Skipped(entry.record);
  }
  return nullptr;
}

void WebFollow::Advance() {
  if (!current_) return;
  next_ = current_->next;
  current_.reset();
  if (phase_ == Phase::kLive) {
    number_ = number_then_;
    seen_ = seen_then_;
    return;
  }
  window_.pop_front();
  if (window_.empty()) next_ = after_;
}

std::deque<std::string> WebFollow::TakeRemarks() {
  return std::exchange(remarks_, {});
}

void WebFollow::GoLive() {
  phase_ = Phase::kLive;
  number_ = tail_.Find(next_);
  const bool is_there = number_ < tail_.end();
  seen_ = is_there ? tail_.entries[number_ - tail_.first].bytes_before : tail_.bytes;
  remarks_.push_back(TextFrame("live", {{"position", journal::PositionText(next_)}}));
}

// The newest follow, so that nobody is ever further behind than the tail is long.
void WebFollow::SetMissed() {
  auto missed = std::make_shared<WebRecord>();
  missed->kind = Kind::kGap;
  missed->next = tail_.entries.empty() ? tail_.covered_from : tail_.entries.back().record->next;
  missed->frame = TextFrame("missed", {{"bytes", tail_.bytes - seen_},
                                       {"position", journal::PositionText(missed->next)}});
  number_then_ = tail_.end();
  seen_then_ = tail_.bytes;
  current_ = std::move(missed);
}

// The bytes that an attachment has shown already.
WebRecordPointer WebFollow::Skipped(const WebRecordPointer& record) {
  if (start_.skip == 0 || !record->is_output()) return record;
  const size_t left_out = std::min<uint64_t>(start_.skip, record->bytes().size());
  start_.skip -= left_out;
  auto rest = std::make_shared<WebRecord>(*record);
  rest->frame.erase(rest->head, left_out);
  return rest;
}

// ---- The past -----------------------------------------------------------------------------------

void WebFollow::Window::Read(const journal::Journal& journal, size_t console,
                             const std::optional<Position>& place, size_t lines) {
  const LastLines last = place ? LastLines{*place, 0} : FindLast(journal, console, lines);
  next = last.position;
  zevctl::TelnetStrip strip = StripBefore(journal, console, *next);
  journal::Query query = QueryOf(console);
  query.with_station = true;
  query.kinds = ViewedKinds();
  query.from = next;
  const auto cursor = journal.Read(query);
  journal::Record record;
  size_t bytes = 0;
  bool is_over = false;
  while (!is_over && bytes < kWindowBytes && records.size() < kWindowRecords) {
    is_over = !cursor->Next(&record);
    if (is_over) break;
    bytes += record.payload.size();
    const auto made = MakeWebRecord(record, strip, true);
    records.push_back(records.empty() ? WithoutLines(made, last.before) : made);
    next = record.next;
  }
  if (is_over) next = std::max(*next, journal.end());
  if (!cursor->damages().empty()) damage = cursor->damages().back().reason;
}

// What has been removed, or never was, cannot be shown: the newest follow.
WebFollow::Window WebFollow::Window::Of(const journal::Journal* journal,
                                        std::optional<size_t> console,
                                        const std::optional<Position>& place, size_t lines) {
  using Cause = journal::JournalError::Cause;
  Window window;
  if (journal == nullptr || !console) return window;
  try {
    window.Read(*journal, *console, place, lines);
  } catch (const journal::JournalError& error) {
    const bool is_place = error.cause() == Cause::kGone || error.cause() == Cause::kStation;
    window = {};
    window.damage = error.what();
    if (is_place) window.next = journal->end();
  }
  return window;
}

void WebFollow::Ask() {
  if (is_asked_) return;
  is_asked_ = true;
  const auto place = has_begun_ ? std::optional(next_) : std::nullopt;
  reader_.Run(name_, [this, alive = std::weak_ptr(alive_), &workers = workers_, lines = start_.last,
                      place](const journal::Journal* journal, std::optional<size_t> console) {
    const auto window = std::make_shared<Window>(Window::Of(journal, console, place, lines));
    workers.OnServer([this, alive, window] {
      if (!alive.expired()) Take(std::move(*window));
    });
  });
}

void WebFollow::Take(Window window) {
  is_asked_ = false;
  if (!window.damage.empty()) {
    remarks_.push_back(
        TextFrame("damage", {{"text", "a part of the journal cannot be shown here: " +
                                          zevctl::Utf8(zevctl::Printable(window.damage))}}));
  }
  if (!window.next) {  // it is asked again when the journal can be read
    phase_ = Phase::kUnknown;
    came_();
    return;
  }
  window_ = std::move(window.records);
  after_ = *window.next;
  if (window_.empty()) next_ = after_;
  has_begun_ = true;
  came_();
}

}  // namespace zevweb
