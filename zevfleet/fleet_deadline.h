// The moment by which this station must have let go of the fleet's consoles, in a file that two
// processes map: "zevfleet run" writes it, the guard only reads it. A process that has been stopped
// in the middle of a write cannot be in the reader's way: every field is one word.
//
// The file is in memory, and so gone when the machine starts: the clock begins anew then.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace zevfleet {

/// What the file says.
struct LeaseState {
  int64_t deadline = 0;  ///< of CLOCK_BOOTTIME, in nanoseconds; 0: there is no lease
  bool holds = false;    ///< the daemon's files may have consoles of the fleet
  int64_t lease = 0;     ///< etcd's number of the lease; 0 for none

  bool HasPassed(int64_t now) const { return now >= deadline; }
};

class DeadlineFile {
 public:
  /// Makes the file where there is none: without a lease, and with `holds` as given. Throws
  /// zevctl::Failure.
  static DeadlineFile ForWriting(const std::string& path, bool holds);

  /// Nothing where there is no such file.
  static std::optional<DeadlineFile> ForReading(const std::string& path);

  LeaseState Get() const;

  // Only for writing. What a reader sees in between is one state or the other of each field.
  void SetDeadline(int64_t deadline);
  void SetHolds(bool holds);
  void SetLease(int64_t lease);

 private:
  struct Content;
  struct Unmap {
    void operator()(Content* content) const;
  };

  explicit DeadlineFile(Content* content) : content_(content) {}
  static bool IsOurs(const Content& content);

  std::unique_ptr<Content, Unmap> content_;
};

}  // namespace zevfleet
