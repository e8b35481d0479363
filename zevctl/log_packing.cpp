#include "log_packing.h"

#include <unistd.h>
#include <zstd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <new>
#include <span>
#include <string>
#include <vector>

#include "exit_status.h"
#include "log_compressed.h"

namespace zevctl {

namespace {

constexpr size_t kFrameText = size_t{256} << 10;  // what is unpacked to read any of it
constexpr int kLevel = 6;

struct FreeContext {
  void operator()(ZSTD_CCtx* context) const { ZSTD_freeCCtx(context); }
};
using Context = std::unique_ptr<ZSTD_CCtx, FreeContext>;

Context NewContext() {
  Context context(ZSTD_createCCtx());
  if (!context) throw std::bad_alloc();
  ZSTD_CCtx_setParameter(context.get(), ZSTD_c_compressionLevel, kLevel);
  ZSTD_CCtx_setParameter(context.get(), ZSTD_c_checksumFlag, 1);
  return context;
}

Failure Failed(const std::string& what) {
  return {ExitStatus::kFailed, what + ": " + strerror(errno)};
}

// Fills the buffer from the position on.
void ReadAll(int fd, off_t position, std::span<char> buffer) {
  while (!buffer.empty()) {
    const ssize_t count = pread(fd, buffer.data(), buffer.size(), position);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) throw Failed("reading failed");
    if (count == 0) throw Failure(ExitStatus::kFailed, "the file has become shorter");
    position += count;
    buffer = buffer.subspan(static_cast<size_t>(count));
  }
}

void WriteAll(int fd, std::span<const char> bytes) {
  while (!bytes.empty()) {
    const ssize_t count = write(fd, bytes.data(), bytes.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) throw Failed("writing failed");
    bytes = bytes.subspan(static_cast<size_t>(count));
  }
}

// What of the text is one frame.
size_t FrameLength(std::span<const char> text, bool is_last) {
  if (is_last) return text.size();
  const void* end = memrchr(text.data(), '\n', text.size());
  return end == nullptr ? text.size()
                        : static_cast<size_t>(static_cast<const char*>(end) - text.data()) + 1;
}

// Unpacks what it has made: the original is removed afterwards.
std::span<const char> Pack(const Context& context, std::span<const char> text,
                           std::vector<char>& packed, std::vector<char>& unpacked) {
  packed.resize(ZSTD_compressBound(text.size()));
  const size_t size =
      ZSTD_compress2(context.get(), packed.data(), packed.size(), text.data(), text.size());
  unpacked.resize(text.size());
  const bool is_good =
      ZSTD_isError(size) == 0 &&
      ZSTD_decompress(unpacked.data(), unpacked.size(), packed.data(), size) == text.size() &&
      std::equal(text.begin(), text.end(), unpacked.begin());
  if (!is_good) throw Failure(ExitStatus::kFailed, "compressing failed");
  return std::span(packed).first(size);
}

}  // namespace

off_t WriteCompressed(int from, off_t size, int to) {
  const Context context = NewContext();
  std::vector<char> text(kFrameText);
  std::vector<char> packed;
  std::vector<char> unpacked;
  off_t written = 0;
  for (off_t position = 0; position < size;) {
    const auto rest = static_cast<size_t>(size - position);
    const auto piece = std::span(text).first(std::min(rest, kFrameText));
    ReadAll(from, position, piece);
    const size_t length = FrameLength(piece, piece.size() == rest);
    const auto frame = Pack(context, piece.first(length), packed, unpacked);
    WriteAll(to, frame);
    position += static_cast<off_t>(length);
    written += static_cast<off_t>(frame.size());
  }
  return written;
}

bool HasSameText(int packed, const std::string& name, int plain, off_t size) {
  CompressedLog log(packed, name);
  if (log.Size() != size) return false;
  std::vector<char> one(kFrameText);
  std::vector<char> other(kFrameText);
  for (off_t position = 0; position < size;) {
    const size_t length = std::min(static_cast<size_t>(size - position), kFrameText);
    const auto piece = std::span(other).first(length);
    if (log.ReadAt(position, std::span(one).first(length)) != length) return false;
    ReadAll(plain, position, piece);
    if (!std::equal(piece.begin(), piece.end(), one.begin())) return false;
    position += static_cast<off_t>(length);
  }
  return true;
}

}  // namespace zevctl
