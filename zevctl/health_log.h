// Whether consoles' logs are there and written.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "descriptor.h"

namespace zevctl {

struct LogState {
  bool is_missing = false;
  std::optional<int64_t> written;  ///< wall time of the last writing, in nanoseconds
};

/// The directory into which the daemon logs now.
class LogDirectoryLook {
 public:
  explicit LogDirectoryLook(const std::string& log_dir);

  /// Why it cannot be looked at; empty when it can.
  const std::string& reason() const { return reason_; }

  /// A console whose name cannot be that of a file has no log, which is not missing.
  LogState StateOf(const std::string& console) const;

 private:
  Descriptor directory_;
  std::string reason_;
};

}  // namespace zevctl
