#include "journal_names.h"

#include "journal_encode.h"

namespace zevd {

using journal::Kind;

void AppendRecord(const journal::RecordHeader& header, std::string_view payload,
                  std::string* records) {
  const size_t begin = records->size();
  records->append(journal::kRecordHeaderSize, '\0');
  journal::EncodeRecordHeader(records->data() + begin, header, payload);
  records->append(payload);
}

void JournalNames::Note(const journal::RecordHeader& record, std::string_view payload) {
  switch (record.kind) {
    case Kind::kStarted:  // all names are told anew
      payloads_.clear();
      break;
    case Kind::kConsole:
      payloads_[record.console] = payload;
      break;
    case Kind::kConsoleGone:
      payloads_.erase(record.console);
      break;
    default:
      break;
  }
}

void JournalNames::AppendRecords(int64_t wall, int64_t monotonic, uint64_t* next,
                                 std::string* records) const {
  for (const auto& [console, payload] : payloads_) {
    AppendRecord({.number = (*next)++,
                  .wall = wall,
                  .monotonic = monotonic,
                  .console = console,
                  .kind = Kind::kConsole},
                 payload, records);
  }
}

}  // namespace zevd
