#include "log_compressed.h"

#include <sys/stat.h>
#include <unistd.h>
#include <zstd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <list>
#include <set>
#include <tuple>
#include <utility>

#include "exit_status.h"
#include "output.h"

namespace zevctl {

namespace {

// Of a frame's header, in bytes.
constexpr size_t kMagicSize = 4;
constexpr size_t kLongestHeader = 18;
constexpr size_t kChecksumSize = 4;
constexpr size_t kBlockHeaderSize = 3;

constexpr uint32_t kSkippableMagic = 0x184D2A50;  // the last four bits are free
constexpr uint32_t kSkippableMask = 0xFFFFFFF0;

uint32_t LittleEndian(std::span<const char> bytes) {
  uint32_t number = 0;
  for (size_t i = bytes.size(); i-- > 0;) number = number << 8 | static_cast<uint8_t>(bytes[i]);
  return number;
}

bool HasChecksum(std::span<const char> header) {
  return (header[kMagicSize] & 4) != 0;
}

size_t HeaderSize(std::span<const char> header) {
  constexpr size_t kDictionary[] = {0, 1, 2, 4};
  constexpr size_t kLength[] = {0, 2, 4, 8};
  const auto descriptor = static_cast<uint8_t>(header[kMagicSize]);
  const bool is_single_segment = (descriptor & 0x20) != 0;
  const size_t length = descriptor >> 6 == 0 && is_single_segment ? 1 : kLength[descriptor >> 6];
  return kMagicSize + 1 + (is_single_segment ? 0 : 1) + kDictionary[descriptor & 3] + length;
}

/// The texts of the frames that were read last, of all logs together: many logs may be read at
/// once, each a little at a time.
class FrameCache {
 public:
  uint64_t NewNumber() { return ++last_number_; }

  const std::string* Find(uint64_t number) {
    const auto found = Place(number);
    if (found == texts_.end()) return nullptr;
    texts_.splice(texts_.begin(), texts_, found);
    return &found->second;
  }

  const std::string* Keep(uint64_t number, std::string text) {
    held_ += text.size();
    texts_.emplace_front(number, std::move(text));
    while (held_ > kMostHeld && texts_.size() > 1) Drop(std::prev(texts_.end()));
    return &texts_.front().second;
  }

  void Forget(uint64_t number) {
    const auto found = Place(number);
    if (found != texts_.end()) Drop(found);
  }

 private:
  using Texts = std::list<std::pair<uint64_t, std::string>>;
  static constexpr size_t kMostHeld = size_t{16} << 20;

  Texts::iterator Place(uint64_t number) {
    return std::find_if(texts_.begin(), texts_.end(),
                        [&](const auto& text) { return text.first == number; });
  }

  void Drop(Texts::iterator text) {
    held_ -= text->second.size();
    texts_.erase(text);
  }

  Texts texts_;
  size_t held_ = 0;
  uint64_t last_number_ = 0;
};

FrameCache& Cache() {
  static FrameCache cache;
  return cache;
}

}  // namespace

CompressedLog::CompressedLog(int fd, std::string name) : fd_(fd), name_(std::move(name)) {
  FindFrames();
}

CompressedLog::~CompressedLog() {
  for (const Frame& frame : frames_) Cache().Forget(frame.cache);
}

off_t CompressedLog::Size() const {
  return frames_.empty() ? 0 : frames_.back().text + static_cast<off_t>(frames_.back().length);
}

void CompressedLog::FindFrames() {
  struct stat info {};
  if (fstat(fd_, &info) != 0) return;
  off_t start = 0;
  while (start < info.st_size && FindFrame(start)) {
    start = frames_.back().start + static_cast<off_t>(frames_.back().size);
  }
  std::erase_if(frames_, [](const Frame& frame) { return frame.length == 0; });
  if (start < info.st_size) TellOfDamage(start);
}

// Adds the frame that begins there; false when there is none that is whole.
bool CompressedLog::FindFrame(off_t start) {
  char header[kLongestHeader];
  const size_t count = Read(start, header);
  if (count < kMagicSize + kChecksumSize) return false;
  Frame frame{start, 0, Size(), 0, 0};
  const uint32_t magic = LittleEndian(std::span(header).first(kMagicSize));
  if ((magic & kSkippableMask) == kSkippableMagic) {
    frame.size = 2 * kMagicSize + LittleEndian(std::span(header).subspan(kMagicSize, kMagicSize));
    frames_.push_back(frame);
    return IsAt(start + static_cast<off_t>(frame.size) - 1, std::span(header).first(1));
  }
  const auto length = ZSTD_getFrameContentSize(header, count);
  if (length == ZSTD_CONTENTSIZE_ERROR) return false;
  if (length == ZSTD_CONTENTSIZE_UNKNOWN || length > kLargestFrame) {
    Tell(
        "has a piece that is too large to be read, which zevd-logs never makes; unpack the file "
        "with \"zstd -d\" to have all of it");
    return false;
  }
  off_t end = EndOfBlocks(start + static_cast<off_t>(HeaderSize(header)));
  if (end > 0 && HasChecksum(header)) end += kChecksumSize;
  if (end < 0 || !IsAt(end - 1, std::span(header).first(1))) return false;
  frame.size = static_cast<size_t>(end - start);
  frame.length = static_cast<size_t>(length);
  frame.cache = Cache().NewNumber();
  frames_.push_back(frame);
  return true;
}

// Where the last block ends; -1 when there is no such end in the file.
off_t CompressedLog::EndOfBlocks(off_t block) const {
  constexpr uint32_t kRepeatedByte = 1;
  constexpr uint32_t kReserved = 3;
  char header[kBlockHeaderSize];
  while (IsAt(block, header)) {
    const uint32_t fields = LittleEndian(header);
    const uint32_t type = fields >> 1 & 3;
    if (type == kReserved) return -1;
    block += kBlockHeaderSize;
    block += type == kRepeatedByte ? 1 : static_cast<off_t>(fields >> 3);
    if ((fields & 1) != 0) return block;
  }
  return -1;
}

// Fills the buffer from the file, as far as it goes.
size_t CompressedLog::Read(off_t position, std::span<char> buffer) const {
  size_t done = 0;
  while (done < buffer.size()) {
    const ssize_t count =
        pread(fd_, buffer.data() + done, buffer.size() - done, position + static_cast<off_t>(done));
    if (count == 0) break;
    if (count > 0) {
      done += static_cast<size_t>(count);
    } else if (errno != EINTR) {
      throw Failure(ExitStatus::kFailed,
                    "cannot read the compressed log " + Printable(name_) + ": " + strerror(errno));
    }
  }
  return done;
}

bool CompressedLog::IsAt(off_t position, std::span<char> buffer) const {
  return Read(position, buffer) == buffer.size();
}

size_t CompressedLog::ReadAt(off_t position, std::span<char> buffer) {
  size_t done = 0;
  while (done < buffer.size()) {
    const off_t here = position + static_cast<off_t>(done);
    const auto frame = FrameAt(here);
    if (frame == frames_.end()) break;
    const std::string* text = TextOf(*frame);
    if (text == nullptr) {
      LeaveOut(frame);
      continue;
    }
    done += text->copy(buffer.data() + done, buffer.size() - done,
                       static_cast<size_t>(here - frame->text));
  }
  return done;
}

// The frame whose text holds the position.
std::vector<CompressedLog::Frame>::iterator CompressedLog::FrameAt(off_t position) {
  if (position >= Size()) return frames_.end();
  const auto after =
      std::upper_bound(frames_.begin(), frames_.end(), position,
                       [](off_t place, const Frame& frame) { return place < frame.text; });
  return std::prev(after);
}

// Null when the frame is damaged. Valid until the next call.
const std::string* CompressedLog::TextOf(const Frame& frame) {
  if (const std::string* known = Cache().Find(frame.cache)) return known;
  std::string text;
  return Unpack(frame, text) ? Cache().Keep(frame.cache, std::move(text)) : nullptr;
}

bool CompressedLog::Unpack(const Frame& frame, std::string& text) const {
  std::vector<char> bytes(frame.size);
  if (!IsAt(frame.start, bytes)) return false;
  text.resize(frame.length);
  const size_t length = ZSTD_decompress(text.data(), text.size(), bytes.data(), bytes.size());
  return ZSTD_isError(length) == 0 && length == frame.length;
}

void CompressedLog::LeaveOut(std::vector<Frame>::iterator frame) {
  TellOfDamage(frame->start);
  const auto length = static_cast<off_t>(frame->length);
  for (auto later = frames_.erase(frame); later != frames_.end(); ++later) later->text -= length;
}

void CompressedLog::TellOfDamage(off_t place) {
  Tell("is damaged at byte " + std::to_string(place) +
       " of the file, and what can be read is shown; restore the file from a copy to have all of "
       "it");
}

// Once for each file, however often it is read, unless it is written anew.
void CompressedLog::Tell(const std::string& what) {
  static std::set<std::tuple<dev_t, ino_t, time_t, long>> told;
  struct stat info {};
  if (fstat(fd_, &info) != 0) return;
  const timespec& written = info.st_mtim;
  if (!told.emplace(info.st_dev, info.st_ino, written.tv_sec, written.tv_nsec).second) return;
  Warn("the compressed log of " + name_ + " " + what);
}

}  // namespace zevctl
