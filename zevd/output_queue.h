// What one user has not been sent yet. It is bounded: when it is full, what has waited longest is
// left out, and in its place stands a line that says how many bytes that were. No lock of its own.
#pragma once

#include <sys/uio.h>

#include <cstddef>
#include <cstdint>

#include "telnet_scan.h"

namespace zevd {

class OutputQueue {
 public:
  /// The most bytes that wait; more when the replay ring is longer (-B), so that all of it fits.
  static constexpr size_t kLimit = size_t{1} << 20;
  /// The most memory of all queues, of which the first kUncounted bytes of each do not count.
  static constexpr size_t kLimitOfAll = size_t{64} << 20;
  static constexpr size_t kUncounted = size_t{16} << 10;
  /// Output between two marks.
  static constexpr size_t kBetweenMarks = 4096;
  /// How far a gap is prolonged to end behind a line.
  static constexpr size_t kToLineEnd = 4096;
  /// How many pieces Front() fills in.
  static constexpr int kPieces = 3;

  OutputQueue() = default;
  ~OutputQueue();
  OutputQueue(const OutputQueue&) = delete;
  OutputQueue& operator=(const OutputQueue&) = delete;

  bool IsEmpty() const { return size_ == 0 && left_out_ == 0 && mark_left_ == 0; }

  /// Appends bytes. What there is no room for is made room for at the front; without memory the
  /// room is what the queue has already. Returns the bytes that were left out for it.
  size_t Append(const char* bytes, size_t count);

  /// Bytes of the same stream that were sent while the queue was empty.
  void NoteSent(const char* bytes, size_t count);

  /// What is to be sent next, marks included. Returns how many pieces there are, 0 only when the
  /// queue is empty. Valid until the next change.
  int Front(iovec (&pieces)[kPieces]);

  /// The first `count` bytes of what Front() named have been sent.
  void Consume(size_t count);

  /// Empties the queue and gives its memory back.
  void Clear();

 private:
  static constexpr size_t kInside = 2 * TelnetScan::kLongestCommand;

  char* At(size_t position) { return &ring_[(head_ + position) % capacity_]; }
  int Pieces(size_t from, size_t count, iovec* pieces);
  template <typename Visit>
  void ForBytes(size_t from, size_t to, Visit visit);

  size_t Room() const { return capacity_ - size_; }
  void GrowFor(size_t count);
  bool Resize(size_t capacity);
  void Put(const char* bytes, size_t count);
  void MoveUp(size_t length, size_t by);

  bool MarkBegins() const { return left_out_ != 0 && gap_ == 0 && mark_left_ == 0; }
  size_t LeaveOut(size_t at_least);
  size_t StartOfGap();
  size_t EndOfGap(size_t from, size_t at_least);
  size_t EndOfLine(size_t from);
  size_t EndOfCommand(TelnetScan* scan, size_t from);

  // A command that has been sent in part and one that has come in part fit into what needs no
  // memory, with room to spare.
  char inside_[kInside];
  char* ring_ = inside_;
  size_t capacity_ = kInside;
  size_t head_ = 0;  // of the first byte in the ring
  size_t size_ = 0;

  TelnetScan sent_;                    // over everything that has been sent
  size_t since_mark_ = kBetweenMarks;  // bytes sent since the last mark; as many as matter
  uint64_t left_out_ = 0;              // for the mark that has not begun
  size_t gap_ = 0;                     // where it will stand, when left_out_ is not 0
  char mark_[80];                      // the one that is being sent
  size_t mark_length_ = 0;
  size_t mark_left_ = 0;  // bytes of it that are not sent, once it has begun
};

}  // namespace zevd
