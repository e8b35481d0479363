// The segment of the journal that is being written. The journal's thread, or a test.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "journal_format.h"
#include "safe_file.h"

namespace zevd {

class JournalSegment {
 public:
  JournalSegment() = default;
  ~JournalSegment() = default;
  JournalSegment(const JournalSegment&) = delete;
  JournalSegment& operator=(const JournalSegment&) = delete;

  /// Makes a segment that begins with these records. It appears under its name with them and
  /// locked, or not at all. False, with errno set and `*call` telling what failed: EEXIST when
  /// there is one of this number.
  bool Begin(int directory, const journal::SegmentHeader& header, std::string_view records,
             std::string* call);

  /// Appends whole records. False, with errno set, when not all of them could be written: then
  /// `*kept` is how many of their bytes have been, which is 0 unless the rest could not be cut off.
  /// The segment must be ended in that case.
  bool Append(std::string_view records, size_t* kept);

  /// Closes the file, so that others may take it for finished.
  void End() { fd_.reset(); }

  /// Whether somebody has removed the file meanwhile.
  bool IsRemoved() const;

  bool is_open() const { return fd_.has_value(); }
  uint64_t number() const { return number_; }
  uint64_t size() const { return size_; }  ///< of the file, and where the next record will stand

 private:
  bool Write(std::string_view bytes, size_t* written);

  std::optional<ScopedDescriptor> fd_;
  uint64_t number_ = 0;
  uint64_t size_ = 0;
};

}  // namespace zevd
