// The directory of the journal: whether it may be used, whose it is, and what is in it. The
// journal's thread, or a test.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "safe_file.h"

namespace zevd {

/// The end of an earlier segment that was no whole record and has been cut off.
struct TornEnd {
  uint64_t segment;
  uint64_t bytes;
};

enum class JournalResult {
  kDone,
  kFailed,   ///< the system refuses; may be tried again
  kRefused,  ///< what is there is no place for this daemon's journal
};

class JournalDirectory {
 public:
  JournalDirectory() = default;
  ~JournalDirectory() = default;
  JournalDirectory(const JournalDirectory&) = delete;
  JournalDirectory& operator=(const JournalDirectory&) = delete;

  /// Makes the directory and the station's number if they are missing, takes the journal for this
  /// daemon, looks where the last segment ends, and cuts a torn end off. `*trouble` tells what is
  /// wrong.
  JournalResult Open(const char* path, std::string* trouble);

  /// Leaves the journal to whoever wants it.
  void Close();

  bool is_open() const { return directory_.has_value(); }
  int descriptor() const { return directory_ ? directory_->get() : -1; }
  uint64_t station() const { return station_; }
  uint64_t next_segment() const { return next_segment_; }  ///< the number of the next new segment
  uint64_t next_record() const {
    return next_record_;
  }  ///< the running number of its first
     ///< record
  const std::optional<TornEnd>& torn() const { return torn_; }

 private:
  JournalResult Refuse(const std::string& why);
  JournalResult Fail(const std::string& call);
  JournalResult OpenDirectory(const char* path);
  JournalResult OpenId();
  JournalResult ReadId(int fd);
  JournalResult WriteId(int fd);
  JournalResult LookAtSegments();
  JournalResult LookAtSegment(uint64_t segment, bool is_newest, bool* is_ours);
  JournalResult LookAtUnsealed(int fd, uint64_t segment, bool is_newest, bool* is_ours);

  std::optional<ScopedDescriptor> directory_;
  std::optional<ScopedDescriptor> id_;  ///< locked: the journal is this daemon's
  std::string path_;
  std::string trouble_;
  uint64_t station_ = 0;
  uint64_t next_segment_ = 1;
  uint64_t next_record_ = 1;
  std::optional<TornEnd> torn_;
};

}  // namespace zevd
