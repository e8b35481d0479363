// The uncompressed bytes of a segment, however it is kept.
#pragma once

#include <cstdint>
#include <span>

namespace journal {

/// Belongs to one thread.
class SegmentSource {
 public:
  virtual ~SegmentSource() = default;

  /// How many bytes there are; those of a segment that is being written grow.
  virtual uint64_t Size() const = 0;

  /// Fills `room` with the bytes from `offset` on, and returns how many there were: fewer than
  /// there is room for at the end only. Throws std::system_error when the file cannot be read, and
  /// SeekableError when a frame is damaged.
  virtual size_t ReadAt(uint64_t offset, std::span<char> room) = 0;
};

/// A segment as the daemon writes it. `fd` stays the caller's.
class RawSegment : public SegmentSource {
 public:
  explicit RawSegment(int fd) : fd_(fd) {}
  uint64_t Size() const override;
  size_t ReadAt(uint64_t offset, std::span<char> room) override;

 private:
  int fd_;
};

}  // namespace journal
