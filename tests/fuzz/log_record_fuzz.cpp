// Log files as the operators' client reads them: any bytes fall apart into records, the same ones
// wherever the reading stopped in between.
//
// An input is a line with the sizes of the pieces, a line with the options ('c': a consolidated
// log) and the bytes.
#include <cstdint>
#include <ctime>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz.h"
#include "log_record.h"

using namespace zevd;

namespace {

using zevctl::LogKind;
using zevctl::RecordLength;

bool IsPart(std::string_view part, std::string_view whole) {
  return part.empty() ||
         (part.data() >= whole.data() && part.data() + part.size() <= whole.data() + whole.size());
}

void CheckRecord(std::string_view bytes, LogKind kind, zevctl::StampClock& clock) {
  constexpr time_t kBefore = 12345;
  const zevctl::Record record = zevctl::MakeRecord(bytes, kind, kBefore, clock);
  REQUIRE(record.time.has_value());
  REQUIRE(record.bytes == bytes);
  REQUIRE(IsPart(record.body, bytes) && IsPart(record.text, record.body));
  REQUIRE(IsPart(record.console, record.body) || record.console.empty());
  REQUIRE(record.console.empty() || kind == LogKind::kConsolidated);
  // What is in front of the text is the stamp and, in a consolidated log, the name.
  const size_t name = record.console.empty() ? 0 : record.console.size() + 1;
  REQUIRE_EQUAL(record.body.size(), record.text.size() + name);
}

// Reads as from a file that grows piece by piece.
std::vector<std::string> ReadGrowing(const std::vector<std::string_view>& pieces, LogKind kind) {
  std::vector<std::string> records;
  std::string held;
  for (const std::string_view piece : pieces) {
    held += piece;
    for (size_t length = RecordLength(held, kind, false); length > 0;
         length = RecordLength(held, kind, false)) {
      REQUIRE(length <= held.size() && length <= zevctl::kLongestRecord);
      records.push_back(held.substr(0, length));
      held.erase(0, length);
    }
  }
  records.push_back(held);
  return records;
}

void CheckAtEnd(const std::string& left, LogKind kind) {
  const size_t length = RecordLength(left, kind, true);
  REQUIRE(length <= left.size());
  REQUIRE(length == 0 || length >= 1024);
  if (left.size() < 1024) REQUIRE_EQUAL(length, 0U);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::SetUp();
  fuzz::Input input(data, size);
  const std::string_view sizes = input.TakeLine();
  const LogKind kind =
      fuzz::Has(input.TakeLine(), 'c') ? LogKind::kConsolidated : LogKind::kConsole;
  const std::string_view bytes = input.TakeRest();
  const std::vector<std::string> records = ReadGrowing({bytes}, kind);
  REQUIRE_EQUAL(ReadGrowing(fuzz::Cut(bytes, sizes), kind), records);
  zevctl::StampClock clock;
  std::string all;
  for (const std::string& record : records) {
    CheckRecord(record, kind, clock);
    all += record;
  }
  REQUIRE_EQUAL(all, bytes);
  CheckAtEnd(records.back(), kind);
  return 0;
}
