// Compressed segments, "%020llu.seg.zst": one Zstandard frame for each block of the index, so that
// a block can be read without those before it. Behind them stand, as skippable frames, the CRC-32C
// of each frame and the table of the seekable format. "zstd -d" gives the segment's bytes.
#pragma once

#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "segment_index.h"
#include "segment_source.h"

namespace journal {

/// A compressed segment is not what it should be.
class SeekableError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// One frame of a compressed segment.
struct Frame {
  uint64_t offset = 0;       ///< in the segment's uncompressed bytes
  uint32_t length = 0;       ///< its uncompressed bytes
  uint64_t file_offset = 0;  ///< in the compressed file
  uint32_t file_length = 0;
  uint32_t checksum = 0;  ///< CRC-32C of its compressed bytes
};

/// Writes a segment, compressed, into the file `to`, which is empty, and returns how many bytes
/// that took. `blocks` are those of its index. What is written has been unpacked and compared.
/// Throws std::system_error when writing fails, and SeekableError when the source is shorter than
/// the blocks are.
uint64_t WriteSeekable(SegmentSource& from, const std::vector<Block>& blocks, int to);

/// Reads a compressed segment at any place. One frame is kept unpacked.
class SeekableSegment : public SegmentSource {
 public:
  /// `fd` stays the caller's. Reads the table only. Throws SeekableError when it cannot be, and
  /// std::system_error when the file cannot be read.
  explicit SeekableSegment(int fd);
  ~SeekableSegment() override;
  SeekableSegment(const SeekableSegment&) = delete;
  SeekableSegment& operator=(const SeekableSegment&) = delete;

  uint64_t Size() const override;
  size_t ReadAt(uint64_t offset, std::span<char> room) override;

  const std::vector<Frame>& frames() const { return frames_; }

  /// The bytes of the frame with this number, valid until the next call. Throws SeekableError when
  /// it is damaged: the other frames can be read all the same.
  std::string_view Unpack(size_t frame);

 private:
  struct Context;

  void ReadTable();
  void ReadChecksums(uint64_t file_offset, uint32_t file_length);

  int fd_;
  std::vector<Frame> frames_;
  std::unique_ptr<Context> context_;
  std::string packed_;
  std::string unpacked_;
  size_t unpacked_frame_;  // its number; frames_.size() for none
};

}  // namespace journal
