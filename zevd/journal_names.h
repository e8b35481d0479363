// The consoles' names as the journal has told them so far, so that every segment can begin with
// them. The journal's thread alone.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>

#include "journal_format.h"

namespace zevd {

class JournalNames {
 public:
  /// Takes note of a record that has been written.
  void Note(const journal::RecordHeader& record, std::string_view payload);

  /// Appends a kConsole record for each console that there is, all with the same times. `*next` is
  /// the first one's running number, and then the one behind the last.
  void AppendRecords(int64_t wall, int64_t monotonic, uint64_t* next, std::string* records) const;

 private:
  std::map<uint32_t, std::string> payloads_;  // by the consoles' numbers
};

/// Appends a record.
void AppendRecord(const journal::RecordHeader& header, std::string_view payload,
                  std::string* records);

}  // namespace zevd
