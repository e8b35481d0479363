#include "seekable.h"

#include <unistd.h>
#include <zstd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <system_error>

#include "crc32c.h"

namespace journal {

namespace {

constexpr int kLevel = 6;  // as the logs

// Skippable frames begin with a magic number and the length of what follows.
constexpr uint32_t kTableMagic = 0x184D2A5E;
constexpr uint32_t kChecksumsMagic = 0x184D2A5D;
constexpr size_t kSkippableHeader = 8;

// The table: for each frame its compressed and its uncompressed length, then a footer with their
// number, a descriptor (0: no checksums of the uncompressed bytes) and a magic number. The frame
// with the checksums is the last one and has no uncompressed bytes.
constexpr uint32_t kFooterMagic = 0x8F92EAB1;
constexpr size_t kFooterSize = 9;
constexpr size_t kDescriptorAt = 4;
constexpr size_t kFooterMagicAt = 5;
constexpr size_t kEntrySize = 8;
constexpr size_t kUncompressedAt = 4;
constexpr size_t kChecksumSize = 4;

// A segment of this many blocks is larger than any that is made; a table that says more lies.
constexpr uint32_t kMostFrames = 1 << 20;

void AddNumber(std::string& to, uint32_t number) {
  char bytes[sizeof number];
  PutNumber(bytes, number);
  to.append(bytes, sizeof bytes);
}

void WriteAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t count = write(fd, bytes.data(), bytes.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) throw std::system_error(errno, std::generic_category());
    bytes.remove_prefix(static_cast<size_t>(count));
  }
}

std::string ReadExactly(int fd, uint64_t offset, size_t length) {
  std::string bytes(length, '\0');
  if (RawSegment(fd).ReadAt(offset, bytes) != length) throw SeekableError("it is cut off");
  return bytes;
}

struct FreeCompressor {
  void operator()(ZSTD_CCtx* context) const { ZSTD_freeCCtx(context); }
};
using Compressor = std::unique_ptr<ZSTD_CCtx, FreeCompressor>;

Compressor NewCompressor() {
  Compressor compressor(ZSTD_createCCtx());
  if (!compressor) throw std::bad_alloc();
  ZSTD_CCtx_setParameter(compressor.get(), ZSTD_c_compressionLevel, kLevel);
  ZSTD_CCtx_setParameter(compressor.get(), ZSTD_c_checksumFlag, 1);
  return compressor;
}

// Unpacks what it has made: the original is removed afterwards.
std::string Pack(const Compressor& compressor, const std::string& bytes) {
  std::string packed(ZSTD_compressBound(bytes.size()), '\0');
  const size_t size =
      ZSTD_compress2(compressor.get(), packed.data(), packed.size(), bytes.data(), bytes.size());
  if (ZSTD_isError(size) != 0) throw SeekableError("compressing failed");
  packed.resize(size);
  std::string unpacked(bytes.size(), '\0');
  const size_t length =
      ZSTD_decompress(unpacked.data(), unpacked.size(), packed.data(), packed.size());
  if (length != bytes.size() || unpacked != bytes) throw SeekableError("compressing failed");
  return packed;
}

// The skippable frames behind the others.
class Tail {
 public:
  void AddFrame(const std::string& packed, uint32_t length) {
    AddEntry(static_cast<uint32_t>(packed.size()), length);
    AddNumber(checksums_, Crc32c(packed.data(), packed.size()));
  }

  std::string Bytes() {
    std::string bytes;
    AddSkippable(bytes, kChecksumsMagic, checksums_);
    AddEntry(static_cast<uint32_t>(bytes.size()), 0);
    AddNumber(entries_, count_);
    entries_ += '\0';
    AddNumber(entries_, kFooterMagic);
    AddSkippable(bytes, kTableMagic, entries_);
    return bytes;
  }

 private:
  void AddEntry(uint32_t packed, uint32_t length) {
    AddNumber(entries_, packed);
    AddNumber(entries_, length);
    ++count_;
  }

  static void AddSkippable(std::string& to, uint32_t magic, const std::string& contents) {
    AddNumber(to, magic);
    AddNumber(to, static_cast<uint32_t>(contents.size()));
    to += contents;
  }

  std::string entries_;
  std::string checksums_;
  uint32_t count_ = 0;
};

void CheckSkippable(std::string_view bytes, uint32_t magic) {
  if (GetNumber<uint32_t>(bytes.data()) != magic ||
      GetNumber<uint32_t>(bytes.data() + sizeof magic) != bytes.size() - kSkippableHeader) {
    throw SeekableError("its table is damaged");
  }
}

// How many frames the table has; it ends where the file does.
uint32_t FramesIn(int fd, uint64_t size) {
  if (size < kFooterSize + kSkippableHeader) throw SeekableError("it is cut off");
  const std::string footer = ReadExactly(fd, size - kFooterSize, kFooterSize);
  const auto count = GetNumber<uint32_t>(footer.data());
  if (GetNumber<uint32_t>(&footer[kFooterMagicAt]) != kFooterMagic || footer[kDescriptorAt] != 0 ||
      count == 0 || count > kMostFrames ||
      size < kSkippableHeader + count * kEntrySize + kFooterSize) {
    throw SeekableError("its table is damaged or cut off");
  }
  return count;
}

}  // namespace

uint64_t WriteSeekable(SegmentSource& from, const std::vector<Block>& blocks, int to) {
  const Compressor compressor = NewCompressor();
  Tail tail;
  std::string bytes;
  uint64_t written = 0;
  for (const Block& block : blocks) {
    bytes.resize(block.length);
    if (from.ReadAt(block.offset, bytes) != bytes.size()) {
      throw SeekableError("the segment has become shorter");
    }
    const std::string packed = Pack(compressor, bytes);
    WriteAll(to, packed);
    written += packed.size();
    tail.AddFrame(packed, block.length);
  }
  const std::string end = tail.Bytes();
  WriteAll(to, end);
  return written + end.size();
}

struct SeekableSegment::Context {
  ZSTD_DCtx* zstd = ZSTD_createDCtx();
  Context() {
    if (zstd == nullptr) throw std::bad_alloc();
  }
  ~Context() { ZSTD_freeDCtx(zstd); }
  Context(const Context&) = delete;
  Context& operator=(const Context&) = delete;
};

SeekableSegment::SeekableSegment(int fd) : fd_(fd), context_(std::make_unique<Context>()) {
  ReadTable();
  unpacked_frame_ = frames_.size();
}

SeekableSegment::~SeekableSegment() = default;

void SeekableSegment::ReadTable() {
  const uint64_t size = RawSegment(fd_).Size();
  const uint32_t count = FramesIn(fd_, size);
  const size_t length = kSkippableHeader + count * kEntrySize + kFooterSize;
  const std::string table = ReadExactly(fd_, size - length, length);
  CheckSkippable(table, kTableMagic);
  Frame frame;
  for (size_t i = 0; i < count; ++i) {
    const char* entry = &table[kSkippableHeader + i * kEntrySize];
    frame.file_length = GetNumber<uint32_t>(entry);
    frame.length = GetNumber<uint32_t>(entry + kUncompressedAt);
    const bool is_last = i + 1 == count;
    if (is_last != (frame.length == 0) || frame.length > kMostBlockSize ||
        frame.file_length > size - length - frame.file_offset) {
      throw SeekableError("its table is damaged");
    }
    if (!is_last) frames_.push_back(frame);
    if (!is_last) frame.file_offset += frame.file_length;
    frame.offset += frame.length;
  }
  if (frame.file_offset + frame.file_length != size - length) {
    throw SeekableError("its table is damaged");
  }
  ReadChecksums(frame.file_offset, frame.file_length);
}

void SeekableSegment::ReadChecksums(uint64_t file_offset, uint32_t file_length) {
  if (file_length != kSkippableHeader + frames_.size() * kChecksumSize) {
    throw SeekableError("its table is damaged");
  }
  const std::string bytes = ReadExactly(fd_, file_offset, file_length);
  CheckSkippable(bytes, kChecksumsMagic);
  for (size_t i = 0; i < frames_.size(); ++i) {
    frames_[i].checksum = GetNumber<uint32_t>(&bytes[kSkippableHeader + i * kChecksumSize]);
  }
}

uint64_t SeekableSegment::Size() const {
  return frames_.empty() ? 0 : frames_.back().offset + frames_.back().length;
}

std::string_view SeekableSegment::Unpack(size_t number) {
  if (number == unpacked_frame_) return unpacked_;
  unpacked_frame_ = frames_.size();
  const Frame& frame = frames_.at(number);
  packed_.resize(frame.file_length);
  if (RawSegment(fd_).ReadAt(frame.file_offset, packed_) != packed_.size()) {
    throw SeekableError("it is cut off");
  }
  if (Crc32c(packed_.data(), packed_.size()) != frame.checksum) {
    throw SeekableError("the frame at byte " + std::to_string(frame.file_offset) + " is damaged");
  }
  unpacked_.resize(frame.length);
  const size_t length = ZSTD_decompressDCtx(context_->zstd, unpacked_.data(), unpacked_.size(),
                                            packed_.data(), packed_.size());
  if (ZSTD_isError(length) != 0 || length != unpacked_.size()) {
    throw SeekableError("the frame at byte " + std::to_string(frame.file_offset) + " is damaged");
  }
  unpacked_frame_ = number;
  return unpacked_;
}

size_t SeekableSegment::ReadAt(uint64_t offset, std::span<char> room) {
  auto frame =
      std::upper_bound(frames_.begin(), frames_.end(), offset,
                       [](uint64_t place, const Frame& one) { return place < one.offset; });
  if (frame == frames_.begin()) return 0;
  --frame;
  size_t done = 0;
  for (; frame != frames_.end() && done < room.size(); ++frame) {
    const auto from = static_cast<size_t>(offset + done - frame->offset);
    if (from >= frame->length) break;
    const auto bytes = Unpack(static_cast<size_t>(frame - frames_.begin())).substr(from);
    const size_t count = std::min(bytes.size(), room.size() - done);
    memcpy(&room[done], bytes.data(), count);
    done += count;
  }
  return done;
}

}  // namespace journal
