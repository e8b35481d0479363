// The commands "journal list" and "journal verify": what the journal's files are, and whether they
// are as they were written. What the records say is for other commands.
#include <fcntl.h>

#include <ctime>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include "arguments.h"
#include "json_line.h"
#include "moment.h"
#include "output.h"
#include "program.h"
#include "segment_scan.h"
#include "segment_store.h"
#include "verify.h"

namespace zevctl {

namespace {

using journal::Form;
using journal::HashText;
using journal::SegmentStore;
using journal::StoredSegment;

struct JournalOptions {
  std::string directory = kStationRoot + "/journal";
};

SegmentStore OpenStore(const std::string& directory) try {
  return SegmentStore(directory);
} catch (const journal::StoreError& error) {
  throw Failure(ExitStatus::kFailed, error.what());
}

std::string StationText(uint64_t station) {
  char text[17];
  snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(station));
  return text;
}

// A wall time in whole seconds, also before 1970.
time_t Seconds(int64_t wall) {
  constexpr int64_t kNanoseconds = 1'000'000'000;
  return static_cast<time_t>(wall / kNanoseconds - (wall % kNanoseconds < 0 ? 1 : 0));
}

// ---- Listing ------------------------------------------------------------------------------------

struct ListedSegment {
  uint64_t number = 0;
  std::string state;
  uint64_t file_size = 0;
  journal::SegmentIndex index;
  std::string hash;  // of its seal
};

// What a segment without an index has. Its records may be damaged: that is for "verify" to tell.
journal::SegmentIndex Scan(const SegmentStore& store, uint64_t station, uint64_t number) try {
  const auto opened = store.OpenSegment(number, Form::kRaw);
  if (!opened.source) return {};
  return IndexOf(*opened.source, station, number);
} catch (const std::system_error&) {
  return {};
}

uint64_t FileSize(const SegmentStore& store, uint64_t number, const StoredSegment& files) try {
  const Form form = files.has_raw ? Form::kRaw : Form::kCompressed;
  const journal::StoredFile file = store.Open(NameOf(number, form), O_RDONLY);
  return file ? journal::RawSegment(file.get()).Size() : 0;
} catch (const std::system_error&) {
  return 0;
}

ListedSegment Examine(const SegmentStore& store, uint64_t station, uint64_t number,
                      const StoredSegment& files) {
  ListedSegment listed;
  listed.number = number;
  listed.file_size = FileSize(store, number, files);
  if (!files.has_index) {
    listed.state = files.has_raw ? "open" : "damaged";
    listed.index = Scan(store, station, number);
    return listed;
  }
  auto sealed = store.ReadIndex(station, number);
  listed.state = !sealed.fault.empty()  ? "damaged"
                 : files.has_raw        ? "sealed"
                 : files.has_compressed ? "compressed"
                                        : "damaged";
  if (sealed.fault.empty()) listed.hash = HashText(sealed.seal.hash);
  listed.index = std::move(sealed.index);
  return listed;
}

Json AsJson(const std::vector<ListedSegment>& segments) {
  Json data = Json::array();
  for (const ListedSegment& segment : segments) {
    const bool has_records = segment.index.records > 0;
    data.push_back({{"segment", segment.number},
                    {"state", segment.state},
                    {"first", has_records ? Json(Seconds(segment.index.lowest_wall)) : Json()},
                    {"last", has_records ? Json(Seconds(segment.index.highest_wall)) : Json()},
                    {"records", segment.index.records},
                    {"size", segment.index.size},
                    {"file_size", segment.file_size},
                    {"hash", segment.hash.empty() ? Json() : Json(segment.hash)}});
  }
  return data;
}

Colour ColourOf(const ListedSegment& segment) {
  return segment.state == "damaged" ? Colour::kRed : Colour::kNone;
}

void PrintTable(const std::vector<ListedSegment>& segments) {
  const time_t now = time(nullptr);
  Table table({"SEGMENT", "STATE", "FIRST", "LAST", "RECORDS", "BYTES", "ON DISK", "SEAL"}, 2);
  for (const ListedSegment& segment : segments) {
    const bool has_records = segment.index.records > 0;
    const auto time_of = [&](int64_t wall) {
      return has_records ? ShortClockTime(Seconds(wall), now) : std::string("-");
    };
    table.Add({{std::to_string(segment.number)},
               {segment.state, ColourOf(segment)},
               {time_of(segment.index.lowest_wall)},
               {time_of(segment.index.highest_wall)},
               {std::to_string(segment.index.records)},
               {std::to_string(segment.index.size)},
               {std::to_string(segment.file_size)},
               {segment.hash.empty() ? "-" : segment.hash}});
  }
  table.Print(std::cout, TerminalWidth(), ColoursWanted());
}

ExitStatus List(const Settings& settings, const JournalOptions& options) try {
  const SegmentStore store = OpenStore(options.directory);
  const uint64_t station = store.Station();
  std::vector<ListedSegment> segments;
  for (const auto& [number, files] : store.List()) {
    segments.push_back(Examine(store, station, number, files));
  }
  if (settings.json) {
    std::cout << JsonLine(AsJson(segments)) << "\n";
  } else {
    PrintTable(segments);
  }
  return ExitStatus::kOk;
} catch (const journal::StoreError& error) {
  throw Failure(ExitStatus::kFailed, error.what());
}

// ---- Verifying ----------------------------------------------------------------------------------

std::string InWords(const journal::Finding& finding) {
  std::string where = finding.file;
  if (where.empty()) {
    where = finding.segment == 0 ? "the journal" : "segment " + std::to_string(finding.segment);
  } else if (finding.file == journal::kChainName && finding.segment != 0) {
    where += ", segment " + std::to_string(finding.segment);
  }
  if (finding.offset) where += ", byte " + std::to_string(*finding.offset);
  return where + ": " + finding.problem + "; " + finding.advice;
}

Json AsJson(const journal::Verification& result) {
  Json findings = Json::array();
  for (const journal::Finding& finding : result.findings) {
    findings.push_back({{"segment", finding.segment == 0 ? Json() : Json(finding.segment)},
                        {"file", finding.file.empty() ? Json() : Json(finding.file)},
                        {"offset", finding.offset ? Json(*finding.offset) : Json()},
                        {"problem", Utf8(finding.problem)},
                        {"advice", Utf8(finding.advice)}});
  }
  const journal::Link& last = result.last_seal;
  Json seal;
  if (last.segment != 0) {
    seal["segment"] = last.segment;
    seal["hash"] = HashText(last.hash);
  }
  return Json::array({{{"station", StationText(result.station)},
                       {"segments", result.segments},
                       {"sealed", result.sealed},
                       {"records", result.records},
                       {"bytes", result.bytes},
                       {"last_seal", seal},
                       {"findings", findings}}});
}

std::string Counted(uint64_t count, const char* one) {
  return std::to_string(count) + " " + one + (count == 1 ? "" : "s");
}

void PrintSummary(const journal::Verification& result) {
  std::cout << "station " << StationText(result.station) << ": "
            << Counted(result.segments, "segment") << ", " << result.sealed << " of them sealed, "
            << Counted(result.records, "record") << ", "
            << (result.findings.empty() ? "nothing is wrong"
                                        : Counted(result.findings.size(), "finding"))
            << "\n";
  const journal::Link& last = result.last_seal;
  if (last.segment == 0) return;
  std::cout << "last seal: segment " << last.segment << ", hash " << HashText(last.hash) << "\n";
}

ExitStatus Verify(const Settings& settings, const JournalOptions& options) try {
  const journal::Verification result = journal::Verify(OpenStore(options.directory));
  if (settings.json) {
    std::cout << JsonLine(AsJson(result)) << "\n";
  } else {
    for (const journal::Finding& finding : result.findings) Warn(InWords(finding));
    PrintSummary(result);
  }
  return result.findings.empty() ? ExitStatus::kOk : ExitStatus::kDamaged;
} catch (const journal::StoreError& error) {
  throw Failure(ExitStatus::kFailed, error.what());
}

// ---- Declarations -------------------------------------------------------------------------------

using Action = ExitStatus (*)(const Settings&, const JournalOptions&);

void AddAction(Command& journal, Program& program, const char* name, const char* help,
               Action action, const std::shared_ptr<JournalOptions>& options) {
  Command command = journal.AddCommand(name, help);
  command.AddOption("--journal-dir", options->directory, "The daemon's journal").ShowDefault();
  command.SetAction(program, [=, &program] { return action(program.settings, *options); });
}

}  // namespace

void AddJournalCommand(Command& app, Program& program) {
  auto options = std::make_shared<JournalOptions>();
  Command journal = app.AddCommand("journal", "List the journal's segments, or verify them");
  journal.RequireCommand();
  AddAction(journal, program, "list", "Show the segments with their times, sizes and states", List,
            options);
  AddAction(journal, program, "verify", "Find whatever was changed, exchanged or lost", Verify,
            options);
}

}  // namespace zevctl
