// Console logs: whatever a console prints, and wherever its chunks are cut, the logs hold the
// records that they should, and the operators' client finds the same records in them.
//
// An input is a line with the sizes of the chunks, a line with the options and the output. Options:
// 's' carriage returns are suppressed, 'u' a user is attached, 'v' the first user hides the output,
// 'e' output is matched, 'n' the console's log is not open, 'm' the common log is not open.
#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "fuzz.h"
#include "lists.h"
#include "log.h"
#include "log_record.h"
#include "options.h"

using namespace zevd;

namespace {

constexpr char kName[] = "box";
constexpr char kLog[] = "root/logs/zev.dated/current/box.log";
constexpr char kConsolidatedLog[] = "root/logs/zev.dated/current/consolidated.log";
constexpr size_t kLongestChunk = 1024;
constexpr size_t kLongestRecord = 1024;

bool EndsLine(char byte) {
  return byte == '\n' || byte == '\r';
}

// One chunk as it reaches the log.
std::string Filtered(std::string_view chunk, bool suppress) {
  std::string kept;
  for (size_t i = 0; i < chunk.size(); ++i) {
    if (suppress && static_cast<unsigned char>(chunk[i]) == 255) {
      i += 2;
    } else if (chunk[i] != '\0' && !(suppress && chunk[i] == '\r')) {
      kept += chunk[i];
    }
  }
  return kept;
}

// Byte by byte: a record ends after a line end, and where it would become too long.
std::vector<std::string> Records(const std::string& output) {
  std::vector<std::string> records;
  std::string record;
  for (const char byte : output) {
    if (record.size() == kLongestRecord) records.push_back(std::exchange(record, ""));
    record += byte;
    if (EndsLine(byte)) records.push_back(std::exchange(record, ""));
  }
  if (record.empty()) return records;
  records.push_back(record);
  records.push_back("\n");
  return records;
}

std::string LogOf(const std::vector<std::string>& records, const std::string& before) {
  std::string log;
  for (const std::string& record : records) log += fuzz::kStamp + before + record;
  return log;
}

// The client cannot tell a record's header from output that looks like one.
bool LooksLikeHeader(const std::string& output) {
  return output.find(':') != std::string::npos;
}

void CheckReading(const std::string& log, const std::vector<std::string>& records,
                  zevctl::LogKind kind) {
  std::string_view rest = log;
  zevctl::StampClock clock;
  for (const std::string& record : records) {
    const size_t length = zevctl::RecordLength(rest, kind, true);
    const zevctl::Record read = zevctl::MakeRecord(rest.substr(0, length), kind, {}, clock);
    const bool has_end = EndsLine(record.back());
    REQUIRE_EQUAL(read.text, record.substr(0, record.size() - (has_end ? 1 : 0)));
    REQUIRE(read.time == fuzz::kNow);
    REQUIRE_EQUAL(read.console, kind == zevctl::LogKind::kConsole ? "" : kName);
    rest.remove_prefix(length);
  }
  REQUIRE(rest.empty());
}

void AddPattern(ConsoleNode* console) {
  fuzz::WriteFile("root/events/events", "name 300 0 err.*or\nname 100 1 [[:digit:]]+$\n");
  REQUIRE(LoadEventFile("events", ev_list) == 0);
  console->enode = FindEventNode("events", ev_list);
  console->events = 1;
}

void EmptyLogs() {
  std::filesystem::remove_all("root/logs/zev.dated");
}

/// A console with its users and logs.
struct Place {
  fuzz::Lists lists;
  ConsoleNode* console = fuzz::AddConsole(a_cons_list, kName, -1, kConnected);
  fuzz::SocketPair user;
};

void Open(Place& place, std::string_view options) {
  static const std::string directory = std::filesystem::absolute("root/logs").string();
  log_dir = directory.c_str();
  suppress_cr = fuzz::Has(options, 's') ? 1 : 0;
  EmptyLogs();
  const bool hidden = fuzz::Has(options, 'v');
  if (hidden || fuzz::Has(options, 'u')) {
    fuzz::AddUser(place.console, "anna", place.user.ReleaseOurs(), hidden ? 4 : 2);
  }
  if (fuzz::Has(options, 'e')) AddPattern(place.console);
  if (!fuzz::Has(options, 'n')) REQUIRE(OpenLogFile(place.console) == 0);
  if (!fuzz::Has(options, 'm')) REQUIRE(OpenConsolidatedLogFile() == 0);
}

// Feeds the chunks and closes the logs.
void Print(ConsoleNode* console, const std::vector<std::string_view>& chunks) {
  for (const std::string_view chunk : chunks) {
    const auto count = static_cast<int>(chunk.size());
    const int result = WriteLogFile(console, chunk.data(), count);
    REQUIRE(result == 0 || result == -1);
    if (console->log_fd == -1) REQUIRE_EQUAL(result, -1);
    REQUIRE(console->log_buf.count >= 0 && console->log_buf.count <= kLogBufferSize);
  }
  CloseLogFile(console);
  CloseConsolidatedLogFile();
}

std::vector<std::string_view> Chunks(std::string_view bytes, std::string_view sizes) {
  std::vector<std::string_view> chunks;
  for (const std::string_view piece : fuzz::Cut(bytes, sizes)) {
    for (size_t at = 0; at < piece.size(); at += kLongestChunk) {
      chunks.push_back(piece.substr(at, kLongestChunk));
    }
  }
  return chunks;
}

void CheckLogs(const std::string& output, std::string_view options) {
  const bool hidden = fuzz::Has(options, 'v');
  const bool alone = !hidden && !fuzz::Has(options, 'u');
  const bool open = !fuzz::Has(options, 'n');
  const std::vector<std::string> records = Records(output);
  const auto logged = open && !hidden ? records : std::vector<std::string>();
  const auto common = alone && !fuzz::Has(options, 'm') ? logged : std::vector<std::string>();
  const std::string log = fuzz::ReadFile(kLog);
  const std::string consolidated = fuzz::ReadFile(kConsolidatedLog);
  REQUIRE_EQUAL(log, LogOf(logged, " "));
  REQUIRE_EQUAL(consolidated, LogOf(common, std::string(" ") + kName + " "));
  if (LooksLikeHeader(output)) return;
  CheckReading(log, logged, zevctl::LogKind::kConsole);
  CheckReading(consolidated, common, zevctl::LogKind::kConsolidated);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Input input(data, size);
  const std::string_view sizes = input.TakeLine();
  const std::string_view options = input.TakeLine();
  const std::vector<std::string_view> chunks = Chunks(input.TakeRest(), sizes);
  Place place;
  Open(place, options);
  Print(place.console, chunks);
  std::string output;
  for (const std::string_view chunk : chunks) output += Filtered(chunk, suppress_cr != 0);
  CheckLogs(output, options);
  return 0;
}
