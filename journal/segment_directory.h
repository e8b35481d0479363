// The directory of a journal: what is in it, and opening that without being led elsewhere.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace journal {

/// Owns a file descriptor.
class File {
 public:
  File() = default;
  explicit File(int fd) : fd_(fd) {}
  File(File&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  File& operator=(File&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  File(const File&) = delete;
  File& operator=(const File&) = delete;
  ~File();

  int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }

 private:
  int fd_ = -1;
};

/// The files that belong to one segment.
struct SegmentFiles {
  bool has_raw = false;
  bool has_compressed = false;
  bool has_index = false;
  bool operator==(const SegmentFiles&) const = default;
};

enum class FileKind { kRaw, kCompressed, kIndex };

/// A file of the journal, or why there is none.
struct OpenedFile {
  File file;
  uint64_t size = 0;
  bool is_missing = false;  ///< it is not there, or not any more
  std::string reason;       ///< why it is not opened, when it is there
};

class SegmentDirectory {
 public:
  /// Throws JournalError.
  explicit SegmentDirectory(const std::string& path);

  const std::string& path() const { return path_; }

  /// By their numbers, those with records only. Throws JournalError.
  std::map<uint64_t, SegmentFiles> List() const;

  /// Opens a regular file that belongs to the directory's owner or to root. Throws JournalError
  /// when there are no descriptors left.
  OpenedFile Open(uint64_t segment, FileKind kind) const;

  /// What the file "id" says; nothing without one, or when it says something else.
  std::optional<uint64_t> Station() const;

 private:
  OpenedFile OpenName(const std::string& name) const;

  std::string path_;
  File directory_;
  uint32_t owner_ = 0;
};

}  // namespace journal
