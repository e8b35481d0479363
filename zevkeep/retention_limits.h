// How much of the journal is kept, as qor.conf says.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

namespace zevkeep {

/// A setting or its file cannot be used. The text says what to do.
class SettingsError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct Limits {
  uint64_t mebibytes = 0;  ///< ZEVD_JOURNAL=; 0: the journal is off, and nothing is removed
  uint64_t days = 0;       ///< ZEVD_JOURNAL_DAYS=; 0: no limit by age
};

/// As the daemon reads its keys: the first line that begins with the key counts, and an absent one
/// is 0. Throws SettingsError.
Limits LimitsIn(std::string_view text);

/// The limits in a file; a missing one has none. Throws SettingsError.
Limits ReadLimits(const std::string& path);

}  // namespace zevkeep
