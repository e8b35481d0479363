#include "output_queue.h"

#include <algorithm>
#include <atomic>
#include <bit>
#include <cstdio>
#include <cstring>
#include <new>

#include "options.h"

namespace zevd {

namespace {

constexpr size_t kSmallestRing = 4096;

/// Memory of all queues, as far as it counts.
std::atomic<size_t> counted_of_all{0};

size_t Counted(size_t capacity) {
  return capacity > OutputQueue::kUncounted ? capacity - OutputQueue::kUncounted : 0;
}

bool TakeFromAll(size_t count) {
  if (counted_of_all.fetch_add(count) + count <= OutputQueue::kLimitOfAll) return true;
  counted_of_all.fetch_sub(count);
  return false;
}

size_t Limit() {
  return std::max(OutputQueue::kLimit, static_cast<size_t>(std::max(cons_buf_size, 0)));
}

}  // namespace

OutputQueue::~OutputQueue() {
  Clear();
}

void OutputQueue::Clear() {
  if (ring_ != inside_) {
    delete[] ring_;
    counted_of_all.fetch_sub(Counted(capacity_));
  }
  ring_ = inside_;
  capacity_ = kInside;
  head_ = 0;
  size_ = 0;
  left_out_ = 0;
  mark_left_ = 0;
}

// ---- The ring -----------------------------------------------------------------------------------

int OutputQueue::Pieces(size_t from, size_t count, iovec* pieces) {
  if (count == 0) return 0;
  char* start = At(from);
  const size_t straight = std::min(count, static_cast<size_t>(ring_ + capacity_ - start));
  pieces[0] = {start, straight};
  if (straight == count) return 1;
  pieces[1] = {ring_, count - straight};
  return 2;
}

template <typename Visit>
void OutputQueue::ForBytes(size_t from, size_t to, Visit visit) {
  iovec pieces[2];
  const int count = Pieces(from, to - from, pieces);
  for (int i = 0; i < count; ++i) {
    visit(static_cast<const char*>(pieces[i].iov_base), pieces[i].iov_len);
  }
}

bool OutputQueue::Resize(size_t capacity) {
  const size_t more = Counted(capacity) - Counted(capacity_);
  if (!TakeFromAll(more)) return false;
  auto* ring = new (std::nothrow) char[capacity];
  if (ring == nullptr) {
    counted_of_all.fetch_sub(more);
    return false;
  }
  char* end = ring;
  ForBytes(0, size_, [&](const char* bytes, size_t count) {
    memcpy(end, bytes, count);
    end += count;
  });
  if (ring_ != inside_) delete[] ring_;
  ring_ = ring;
  capacity_ = capacity;
  head_ = 0;
  return true;
}

// Makes room for so many bytes, or for as many as may be.
void OutputQueue::GrowFor(size_t count) {
  const size_t wanted = std::max(kSmallestRing, std::bit_ceil(size_ + count));
  for (size_t size = std::min(wanted, Limit()); size > capacity_; size /= 2) {
    if (Resize(size)) return;
  }
}

void OutputQueue::Put(const char* bytes, size_t count) {
  size_ += count;
  ForBytes(size_ - count, size_, [&](const char* place, size_t length) {
    memcpy(const_cast<char*>(place), bytes, length);
    bytes += length;
  });
}

size_t OutputQueue::Append(const char* bytes, size_t count) {
  size_t left_out = 0;
  if (Room() < count) GrowFor(count);
  while (count > 0) {
    if (Room() < count) left_out += LeaveOut(count - Room());
    const size_t part = std::min(count, Room());
    Put(bytes, part);
    bytes += part;
    count -= part;
  }
  return left_out;
}

// Moves the first `length` bytes, which are few, up by so many.
void OutputQueue::MoveUp(size_t length, size_t by) {
  char* from = At(0);
  char* to = At(by);
  const char* end = ring_ + capacity_;
  if (from + length <= end && to + length <= end) {
    memmove(to, from, length);
  } else {
    for (size_t i = length; i-- > 0;) *At(i + by) = *At(i);
  }
}

// ---- Gaps ---------------------------------------------------------------------------------------

// Leaves out so many bytes, or as many as can be. Returns how many.
size_t OutputQueue::LeaveOut(size_t at_least) {
  const size_t from = left_out_ != 0 ? gap_ : StartOfGap();
  const size_t end = EndOfGap(from, at_least);
  const size_t count = end - from;
  MoveUp(from, count);
  head_ = (head_ + count) % capacity_;
  size_ -= count;
  if (count != 0) gap_ = from;
  left_out_ += count;
  return count;
}

// Not in a command of which a part has been sent, and not too close after another mark.
size_t OutputQueue::StartOfGap() {
  size_t from = 0;
  // Without memory the queue may be too short to keep marks apart: something must be behind them.
  if (capacity_ >= 2 * kBetweenMarks) from = std::min(kBetweenMarks - since_mark_, size_);
  TelnetScan scan = sent_;
  ForBytes(0, from, [&](const char* bytes, size_t count) { scan.Scan(bytes, count); });
  return EndOfCommand(&scan, from);
}

// Where the command that `scan` is in at `from` is over; the end of the queue when that comes
// first.
size_t OutputQueue::EndOfCommand(TelnetScan* scan, size_t from) {
  size_t end = from;
  ForBytes(from, std::min(from + TelnetScan::kLongestCommand, size_),
           [&](const char* bytes, size_t count) { end += scan->ScanToEndOfCommand(bytes, count); });
  return end;
}

// Not in a command, and behind a line end if there is one soon. `from` when there is nothing that
// may be left out.
size_t OutputQueue::EndOfGap(size_t from, size_t at_least) {
  const size_t wanted = std::min(from + at_least, size_);
  TelnetScan scan;
  ForBytes(from, wanted, [&](const char* bytes, size_t count) { scan.Scan(bytes, count); });
  const size_t end = EndOfCommand(&scan, wanted);
  if (scan.InCommand()) return end - scan.begun();  // the rest of it has not come yet
  return end == from ? from : EndOfLine(end);
}

// The place behind the first line end from the byte before `from` on; `from` when none is near.
size_t OutputQueue::EndOfLine(size_t from) {
  if (*At(from - 1) == '\n') return from;
  TelnetScan scan;
  size_t end = from;
  bool found = false;
  ForBytes(from, std::min(from + kToLineEnd, size_), [&](const char* bytes, size_t count) {
    while (count > 0 && !found) {
      const auto* line_end = static_cast<const char*>(memchr(bytes, '\n', count));
      const size_t part = line_end == nullptr ? count : static_cast<size_t>(line_end - bytes) + 1;
      scan.Scan(bytes, part);
      found = line_end != nullptr && !scan.InCommand();
      end += part;
      bytes += part;
      count -= part;
    }
  });
  return found ? end : from;
}

// ---- Sending ------------------------------------------------------------------------------------

void OutputQueue::NoteSent(const char* bytes, size_t count) {
  sent_.Scan(bytes, count);
  since_mark_ = std::min(since_mark_ + count, kBetweenMarks);
}

int OutputQueue::Front(iovec (&pieces)[kPieces]) {
  int count = 0;
  const bool mark_begins = MarkBegins();
  if (mark_begins) {
    mark_length_ = static_cast<size_t>(snprintf(mark_, sizeof mark_,
                                                "\r\n[zevd: %llu bytes were not shown]\r\n",
                                                static_cast<unsigned long long>(left_out_)));
    pieces[count++] = {mark_, mark_length_};
  } else if (mark_left_ != 0) {
    pieces[count++] = {mark_ + mark_length_ - mark_left_, mark_left_};
  }
  const bool gap_comes = left_out_ != 0 && !mark_begins;
  return count + Pieces(0, gap_comes ? gap_ : size_, &pieces[count]);
}

void OutputQueue::Consume(size_t count) {
  if (count == 0) return;
  if (MarkBegins()) {
    mark_left_ = mark_length_;
    left_out_ = 0;
    since_mark_ = 0;
  }
  const size_t of_mark = std::min(count, mark_left_);
  mark_left_ -= of_mark;
  const size_t of_ring = count - of_mark;
  ForBytes(0, of_ring, [&](const char* bytes, size_t length) { NoteSent(bytes, length); });
  head_ = (head_ + of_ring) % capacity_;
  size_ -= of_ring;
  if (left_out_ != 0) gap_ -= of_ring;
  if (IsEmpty()) {
    Clear();
  } else if (capacity_ > kUncounted && size_ <= capacity_ / 8) {
    Resize(capacity_ / 4);  // the memory is for those who need it; without any to copy to, it stays
  }
}

}  // namespace zevd
