// The files of a journal, for those who keep and verify them: who only reads records goes by
// journal.h. Belongs to one thread.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

#include "chain.h"
#include "seal.h"
#include "segment_index.h"
#include "segment_source.h"

namespace journal {

/// The journal as a whole cannot be used. The text says why, and what to do.
class StoreError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// There is no journal.
class NoStore : public StoreError {
 public:
  using StoreError::StoreError;
};

/// Owns a descriptor. False while it owns none.
class StoredFile {
 public:
  StoredFile() = default;
  explicit StoredFile(int fd) : fd_(fd) {}
  StoredFile(StoredFile&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  StoredFile& operator=(StoredFile&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  ~StoredFile();
  int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }

 private:
  int fd_ = -1;
};

enum class Form { kRaw, kCompressed, kIndex };

/// The name of a segment's file.
std::string NameOf(uint64_t segment, Form form);

/// Which files a segment has.
struct StoredSegment {
  bool has_raw = false;
  bool has_compressed = false;
  bool has_index = false;
  bool operator==(const StoredSegment&) const = default;
};

/// A file ".idx": index and seal.
struct SealedIndex {
  bool is_missing = false;
  std::string fault;      ///< why it cannot be used; empty when it can
  bool is_newer = false;  ///< another version of the programs has made it
  SegmentIndex index;
  std::string bytes;  ///< of the index alone
  Seal seal;          ///< its own hash has been checked
};

/// A segment's records, open: it stays readable when it is removed.
struct OpenedSegment {
  StoredFile file;
  std::unique_ptr<SegmentSource> source;
  std::string fault;  ///< why there is none
};

class SegmentStore {
 public:
  /// `owner`: whom the directory must belong to, if that matters. Throws StoreError when it is
  /// another's, a link, or no directory, and NoStore when there is none.
  explicit SegmentStore(std::string path, std::optional<uid_t> owner = {});

  const std::string& path() const { return path_; }
  int fd() const { return directory_.get(); }

  /// What the file "id" says. Throws StoreError when it says nothing.
  uint64_t Station() const;

  /// Throws StoreError when the directory cannot be read.
  std::map<uint64_t, StoredSegment> List() const;

  /// Opens a regular file, and no link. Without it: errno is set, ENOENT when there is none.
  StoredFile Open(const std::string& name, int flags) const;

  /// The bytes of a small file; nothing, with errno set, when it cannot be read.
  std::optional<std::string> Read(const std::string& name) const;

  bool Has(const std::string& name) const;

  SealedIndex ReadIndex(uint64_t station, uint64_t segment) const;
  OpenedSegment OpenSegment(uint64_t segment, Form form) const;

 private:
  std::string path_;
  StoredFile directory_;
};

/// The hash of all of a source's bytes. Throws what the source throws.
Hash HashOf(SegmentSource& source);

}  // namespace journal
