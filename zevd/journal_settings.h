// What the suite configuration file says about the journal.
#pragma once

#include <cstdint>

namespace zevd {

enum class JournalInput : int {
  kNone,    ///< what users type is not recorded
  kLength,  ///< who typed how much, and when
  kAll,     ///< the bytes, too
};

struct JournalSettings {
  uint64_t mebibytes = 0;  ///< most that the journal may take; 0: there is none
  uint64_t days = 0;       ///< how long it is kept; 0: as long as there is room
  JournalInput input = JournalInput::kNone;
};

/// Reads the settings; what is not set has the values above. False, with `*settings` as it was,
/// when the file cannot be read or a value is bad, which is reported. Main thread.
bool ReadJournalSettings(JournalSettings* settings);

}  // namespace zevd
