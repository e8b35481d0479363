// Reading logs that have been compressed, from any position, in little memory.
//
// A compressed log (NAME.log.zst) is a row of independent Zstandard frames, each with a checksum
// and with the size of its text. So one place can be read without all that is before it, and damage
// costs the text of one frame. zevd-logs makes such files; "zstd -d" unpacks them too.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace zevctl {

/// The text of a compressed log, as if it were a file. A frame that turns out to be damaged is left
/// out, with a message to the user: then the text is shorter than before, and what follows the
/// frame takes its place.
class CompressedLog {
 public:
  /// `fd` stays the caller's, and open as long as this object lives. `name`: of the console, for
  /// messages. Throws Failure(kFailed) when the file cannot be read.
  CompressedLog(int fd, std::string name);
  ~CompressedLog();
  CompressedLog(const CompressedLog&) = delete;
  CompressedLog& operator=(const CompressedLog&) = delete;

  /// Bytes of text.
  off_t Size() const;

  /// Fills the buffer with the text from the position on; returns less than its size at the end of
  /// the text only. Throws Failure(kFailed) when the file cannot be read.
  size_t ReadAt(off_t position, std::span<char> buffer);

  /// Frames with more text than this are not read, because a whole one is held in memory.
  static constexpr size_t kLargestFrame = size_t{64} << 20;

 private:
  struct Frame {
    off_t start;     // in the file
    size_t size;     // in the file
    off_t text;      // where its text begins in all of the text
    size_t length;   // of its text
    uint64_t cache;  // its number in the cache
  };

  void FindFrames();
  bool FindFrame(off_t start);
  off_t EndOfBlocks(off_t block) const;
  size_t Read(off_t position, std::span<char> buffer) const;
  bool IsAt(off_t position, std::span<char> buffer) const;
  std::vector<Frame>::iterator FrameAt(off_t position);
  const std::string* TextOf(const Frame& frame);
  bool Unpack(const Frame& frame, std::string& text) const;
  void LeaveOut(std::vector<Frame>::iterator frame);
  void TellOfDamage(off_t place);
  void Tell(const std::string& what);

  int fd_;
  std::string name_;
  std::vector<Frame> frames_;
};

}  // namespace zevctl
