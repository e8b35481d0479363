#include "journal_queue.h"

#include <algorithm>
#include <cstring>
#include <ctime>
#include <new>

#include "clock.h"
#include "journal_fields.h"
#include "signal_hold.h"
#include "waker.h"

namespace zevd {

using journal::Field;
using journal::FieldWriter;
using journal::Kind;
using journal::PutNumber;

namespace {

constexpr int64_t kSecond = kNanosecondsPerSecond;
constexpr char kTooSlow[] = "The disk was too slow.";
constexpr size_t kMostGap = journal::kRecordHeaderSize + 256;
constexpr size_t kOrdinary = JournalQueue::kSize - JournalQueue::kReserve;

bool IsName(Kind kind) {
  return kind == Kind::kConsole || kind == Kind::kConsoleGone;
}

// What may use the reserve.
size_t LimitOf(Kind kind) {
  return IsName(kind) || kind == Kind::kStarted || kind == Kind::kStopped ? JournalQueue::kSize
                                                                          : kOrdinary;
}

}  // namespace

constinit JournalQueue journal_queue;

bool JournalQueue::SwitchOn(std::string_view started) {
  {
    const TermSignalDelay delay;
    const MutexLock lock(mutex_);
    if (ring_ == nullptr) ring_ = new (std::nothrow) char[kSize];
    if (ring_ == nullptr) return false;
    if (on_) return true;
    on_ = true;
    names_lost_ = false;  // all of them are put in anew
    clock_known_ = false;
    Add(Kind::kStarted, 0, started);
  }
  journal_waker.Wake();
  return true;
}

void JournalQueue::SwitchOff(std::string_view stopped) {
  {
    const TermSignalDelay delay;
    const MutexLock lock(mutex_);
    if (!on_) return;
    Add(Kind::kStopped, 0, stopped);
    on_ = false;
  }
  journal_waker.Wake();
}

void JournalQueue::Abandon() {
  const MutexLock lock(mutex_);
  on_ = false;
  Clear();
}

uint64_t JournalQueue::Forget() {
  const MutexLock lock(mutex_);
  if (!on_) Clear();
  return gap_.records;
}

// What waits is lost. The gap stays, and stands in front of what comes when the queue takes records
// again.
void JournalQueue::Clear() {
  const Gap later = gap_;
  gap_ = {};
  while (used_ != 0) {
    const char* record = ring_ + head_;
    const auto length = journal::GetNumber<uint32_t>(record + journal::kRecordLengthAt);
    LoseWaiting(record, length);
    Take(length);
  }
  Widen(later);
  wants_names_ = false;
}

// A gap that no record tells of any more is part of the present one. It has been counted.
void JournalQueue::Widen(const Gap& other) {
  if (other.records == 0) return;
  if (gap_.records == 0) {
    gap_.begin = other.begin;
    gap_.reason = other.reason;
  }
  gap_.records += other.records;
  gap_.bytes += other.bytes;
  gap_.end = other.end;
}

void JournalQueue::LoseWaiting(const char* record, size_t length) {
  const auto kind = static_cast<Kind>(journal::GetNumber<uint8_t>(record + journal::kRecordKindAt));
  const Times then = {journal::GetNumber<int64_t>(record + journal::kRecordWallAt),
                      journal::GetNumber<int64_t>(record + journal::kRecordMonotonicAt)};
  if (kind != Kind::kGap) return Lose(kind, length, then);
  const journal::FieldReader told(
      {record + journal::kRecordHeaderSize, length - journal::kRecordHeaderSize});
  const auto number = [&](Field field) { return told.Number(field).value_or(0); };
  Widen({.records = static_cast<uint64_t>(number(Field::kCount)),
         .bytes = static_cast<uint64_t>(number(Field::kBytes)),
         .begin = number(Field::kBegin),
         .end = number(Field::kEnd),
         .reason = reason_ == nullptr ? kTooSlow : reason_});
  --losses_.gaps;
}

void JournalQueue::Push(Kind kind, uint32_t console, std::string_view payload) {
  if (PushQuietly(kind, console, payload)) journal_waker.Wake();
}

bool JournalQueue::PushQuietly(Kind kind, uint32_t console, std::string_view payload) {
  if (!IsOn()) return false;
  const TermSignalDelay delay;
  const MutexLock lock(mutex_);
  if (!on_) return false;
  const size_t before = used_;
  Add(kind, console, payload);
  return (before == 0 && used_ != 0) || (before < kBatch && used_ >= kBatch);
}

void JournalQueue::SetReason(const char* reason) {
  const MutexLock lock(mutex_);
  reason_ = reason;
}

bool JournalQueue::WantsNames() {
  if (!wants_names_.load(std::memory_order_relaxed)) return false;
  return wants_names_.exchange(false);
}

JournalLosses JournalQueue::Losses() {
  const TermSignalDelay delay;
  const MutexLock lock(mutex_);
  return losses_;
}

// ---- Putting in ---------------------------------------------------------------------------------

JournalQueue::Times JournalQueue::Now() {
  return {Nanoseconds(CLOCK_REALTIME), Nanoseconds(CLOCK_MONOTONIC)};
}

// Whether so many bytes find a place in one piece, with no more than `limit` used then.
bool JournalQueue::HasRoom(size_t size, size_t limit) const {
  if (used_ + size > limit) return false;
  if (used_ == 0) return size <= kSize;
  if (tail_ <= head_) return size <= head_ - tail_;
  const size_t behind = kSize - tail_;
  return size <= behind || (size <= head_ && used_ + behind + size <= limit);
}

// Such a place, or null.
char* JournalQueue::Room(size_t size, size_t limit) {
  if (!HasRoom(size, limit)) return nullptr;
  if (used_ == 0) {
    head_ = tail_ = 0;
    wrap_ = kSize;
  }
  const bool wrapped = used_ != 0 && tail_ <= head_;
  if (!wrapped && kSize - tail_ < size) {
    wrap_ = tail_;
    used_ += kSize - tail_;
    tail_ = 0;
  }
  char* place = ring_ + tail_;
  tail_ += size;
  used_ += size;
  return place;
}

bool JournalQueue::Put(Kind kind, uint32_t console, std::string_view payload, const Times& now,
                       size_t limit) {
  const size_t size = journal::kRecordHeaderSize + payload.size();
  char* place = Room(size, limit);
  if (place == nullptr) return false;
  PutNumber(place + journal::kRecordLengthAt, static_cast<uint32_t>(size));
  PutNumber(place + journal::kRecordWallAt, now.wall);
  PutNumber(place + journal::kRecordMonotonicAt, now.monotonic);
  PutNumber(place + journal::kRecordConsoleAt, console);
  PutNumber(place + journal::kRecordKindAt, static_cast<uint8_t>(kind));
  std::copy(payload.begin(), payload.end(), place + journal::kRecordHeaderSize);
  return true;
}

void JournalQueue::Lose(Kind kind, size_t bytes, const Times& now) {
  if (gap_.records++ == 0) {
    gap_.begin = now.wall;
    gap_.reason = reason_ == nullptr ? kTooSlow : reason_;
  }
  gap_.bytes += bytes;
  gap_.end = now.wall;
  ++losses_.records;
  if (IsName(kind)) names_lost_ = true;
}

// True when no loss is left untold.
bool JournalQueue::PutGap(const Times& now) {
  if (gap_.records == 0) return true;
  char room[kMostGap - journal::kRecordHeaderSize];
  FieldWriter fields(room, sizeof room);
  fields.AddNumber(Field::kCount, static_cast<int64_t>(gap_.records));
  fields.AddNumber(Field::kBytes, static_cast<int64_t>(gap_.bytes));
  fields.AddNumber(Field::kBegin, gap_.begin);
  fields.AddNumber(Field::kEnd, gap_.end);
  fields.Add(Field::kReason, gap_.reason);
  if (!Put(Kind::kGap, 0, {room, fields.length()}, now, kSize)) return false;
  gap_ = {};
  ++losses_.gaps;
  return true;
}

// Tells when the wall clock was set since the last record. True unless there is no room for that.
bool JournalQueue::PutClockStep(const Times& now) {
  const int64_t offset = now.wall - now.monotonic;
  const int64_t step = offset - clock_offset_;
  if (clock_known_ && (step > kSecond || step < -kSecond)) {
    char room[64];
    FieldWriter fields(room, sizeof room);
    fields.AddNumber(Field::kBegin, now.monotonic + clock_offset_);
    fields.AddNumber(Field::kEnd, now.wall);
    if (!Put(Kind::kClockStep, 0, {room, fields.length()}, now, kSize)) return false;
  }
  clock_offset_ = offset;
  clock_known_ = true;
  return true;
}

void JournalQueue::Add(Kind kind, uint32_t console, std::string_view payload) {
  payload = payload.substr(0, journal::kMostPayload);
  const Times now = Now();
  // A gap is told of only when what comes behind it has room too: otherwise one would follow the
  // other without a record between them.
  const size_t size = journal::kRecordHeaderSize + payload.size();
  const size_t in_front = gap_.records == 0 ? 0 : kMostGap;
  if (HasRoom(in_front + size, LimitOf(kind)) && PutGap(now) && PutClockStep(now) &&
      Put(kind, console, payload, now, LimitOf(kind))) {
    return;
  }
  Lose(kind, size, now);
}

// ---- Taking out ---------------------------------------------------------------------------------

std::span<char> JournalQueue::Front() {
  const MutexLock lock(mutex_);
  if (used_ == 0) return {};
  const size_t end = tail_ > head_ ? tail_ : wrap_;
  size_t taken = 0;
  while (head_ + taken < end && taken < kBatch) {
    taken += journal::GetNumber<uint32_t>(ring_ + head_ + taken + journal::kRecordLengthAt);
  }
  return {ring_ + head_, taken};
}

void JournalQueue::Take(size_t bytes) {
  head_ += bytes;
  used_ -= bytes;
  if (head_ == wrap_ && tail_ < head_) {
    used_ -= kSize - wrap_;
    head_ = 0;
    wrap_ = kSize;
  }
}

void JournalQueue::Drop(size_t bytes) {
  const MutexLock lock(mutex_);
  Take(bytes);
  if (!on_) return;
  if (gap_.records != 0 && used_ + kReserve <= kOrdinary) PutGap(Now());
  if (names_lost_ && used_ <= kOrdinary / 2) {
    names_lost_ = false;
    wants_names_ = true;
  }
}

size_t JournalQueue::Waiting() {
  const MutexLock lock(mutex_);
  return used_;
}

}  // namespace zevd
