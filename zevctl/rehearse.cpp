// "zevctl rehearse": an event file tried out on what consoles printed in the past.
#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>

#include "arguments.h"
#include "config_file.h"
#include "event_file.h"
#include "journal_consoles.h"
#include "journal_open.h"
#include "journal_text.h"
#include "local_only.h"
#include "moment.h"
#include "output.h"
#include "past_lines.h"
#include "past_time.h"
#include "program.h"
#include "rehearsal.h"

namespace zevctl {

namespace {

using Json = nlohmann::ordered_json;

constexpr size_t kMostExamples = 1'000'000;  // they are kept in memory
constexpr int kNiceness = 10;
constexpr double kCostly = 100;  // microseconds: 10,000 lines a second keep a processor busy
// The first lines cost more than those that follow, whatever the pattern is.
constexpr uint64_t kLinesToJudgeBy = 100;

struct RehearseOptions {
  std::string file;
  std::vector<std::string> consoles;
  std::string since = "7d";
  std::string until;
  size_t examples = 0;
  bool keeps_returns = false;
  std::string events_dir = kStationRoot + "/events";
  std::string journal_dir = DefaultJournalDirectory();
};

/// A line that a pattern matched.
struct Example {
  int64_t wall = 0;
  size_t console = 0;
  std::string line;
  bool wins = false;
  bool is_attended = false;
};

/// What all lines together have shown.
struct Outcome {
  uint64_t lines = 0;
  uint64_t attended = 0;
  uint64_t matched = 0;
  uint64_t bytes = 0;
  bool is_interrupted = false;
  std::vector<std::deque<Example>> examples;  ///< by the pattern's place, the oldest first
};

// ---- Trying out ---------------------------------------------------------------------------------

// A name without a slash is a file of the station, unless there is one here.
EventFile ReadFileOf(const RehearseOptions& options) {
  const bool is_path = options.file.find('/') != std::string::npos;
  ReadFile file = ReadWhole(options.file);
  if (file.kind == FileKind::kMissing && !is_path) {
    file = ReadWhole(options.events_dir + "/" + options.file);
  }
  if (file.kind == FileKind::kRegular) return ReadEventFile(file.text);
  const std::string why = file.kind == FileKind::kMissing ? "there is no such file"
                          : file.kind == FileKind::kOther ? "it is no plain file"
                                                          : file.reason;
  throw Failure(ExitStatus::kFailed,
                "the event file " + Printable(options.file) + " cannot be read: " + Printable(why) +
                    "; \"ls " + Printable(options.events_dir) + "\" lists those of the station");
}

std::atomic<bool> asked_to_end{false};

// What has been found until then is shown. A second signal ends the program.
void EndEarlyBySignal() {
  struct sigaction action {};
  action.sa_handler = [](int) { asked_to_end = true; };
  action.sa_flags = static_cast<int>(SA_RESETHAND);
  sigaction(SIGINT, &action, nullptr);
}

void KeepExamples(const RehearseOptions& options, const PastLine& line, const Verdict& verdict,
                  Outcome* outcome) {
  for (const size_t place : verdict.matches) {
    auto& examples = outcome->examples[place];
    examples.push_back(
        {line.wall, line.console, line.text, verdict.winner == place, line.is_attended});
    if (examples.size() > options.examples) examples.pop_front();
  }
}

Outcome Try(const RehearseOptions& options, const PastRange& range, const journal::Journal& journal,
            Rehearsal& rehearsal) {
  PastLinesQuery query;
  query.range = range;
  query.keeps_returns = options.keeps_returns;
  if (!options.consoles.empty()) {
    query.consoles = ChooseConsoles(journal.consoles(), options.consoles).ids;
  }
  Outcome outcome;
  outcome.examples.resize(rehearsal.file().patterns.size());
  EndEarlyBySignal();
  PastLines past(journal, query);
  past.Read([&](const PastLine& line) {
    const Verdict verdict = rehearsal.Judge(line.text, line.is_attended);
    ++outcome.lines;
    if (line.is_attended) ++outcome.attended;
    if (verdict.winner) ++outcome.matched;
    if (options.examples > 0) KeepExamples(options, line, verdict, &outcome);
    return !asked_to_end;
  });
  outcome.bytes = past.bytes();
  outcome.is_interrupted = asked_to_end;
  return outcome;
}

// ---- Judging patterns ---------------------------------------------------------------------------

bool IsCostly(const EventPattern& pattern, const PatternFigures& figures) {
  return pattern.is_hard || (figures.tried >= kLinesToJudgeBy && figures.MeanCost() >= kCostly);
}

std::string RemarkOn(const EventPattern& pattern, const PatternFigures& figures) {
  if (!figures.left_out.empty()) return "left out: " + figures.left_out;
  std::string remark = figures.matched == 0 ? "never matched" : "";
  if (figures.matched > 0 && figures.wins == 0) remark = "never wins";
  if (IsCostly(pattern, figures)) {
    remark += (remark.empty() ? "" : ", ") +
              std::string(pattern.is_hard ? "costly: needs a process of its own" : "costly");
  }
  return remark;
}

// ---- For people ---------------------------------------------------------------------------------

std::string CostText(double microseconds) {
  char text[40];
  snprintf(text, sizeof text, microseconds < 10 ? "%.1f" : "%.0f", microseconds);
  return text;
}

Colour ColourOf(const EventPattern& pattern, const PatternFigures& figures) {
  if (!figures.left_out.empty()) return Colour::kRed;
  if (IsCostly(pattern, figures)) return Colour::kYellow;
  return figures.matched == 0 ? Colour::kDim : Colour::kNone;
}

void PrintTable(const EventFile& file, const std::vector<PatternFigures>& figures) {
  constexpr size_t kWhole = 7;  // all but the remark
  Table table({"PATTERN", "PRIORITY", "MATCHED", "WINS", "EVENTS", "US/LINE", "WORST", "REMARK"},
              kWhole);
  for (size_t place = 0; place < file.patterns.size(); ++place) {
    const EventPattern& pattern = file.patterns[place];
    const PatternFigures& row = figures[place];
    table.Add({{Printable(pattern.name), ColourOf(pattern, row)},
               {std::to_string(pattern.priority)},
               {std::to_string(row.matched)},
               {std::to_string(row.wins)},
               {std::to_string(row.events)},
               {CostText(row.MeanCost())},
               {CostText(row.worst_cost)},
               {Printable(RemarkOn(pattern, row)), ColourOf(pattern, row)}});
  }
  table.Print(std::cout, TerminalWidth(), ColoursWanted());
}

std::string_view WithoutEnd(std::string_view line) {
  return line.substr(0, line.find_last_not_of("\r\n") + 1);
}

void PrintExamples(const EventFile& file, const Outcome& outcome,
                   const std::vector<journal::Console>& consoles) {
  for (size_t place = 0; place < outcome.examples.size(); ++place) {
    if (outcome.examples[place].empty()) continue;
    std::cout << "\n" << Printable(file.patterns[place].name) << ":\n";
    for (const Example& example : outcome.examples[place]) {
      std::cout << "  " << StampText(example.wall) << " "
                << Printable(consoles[example.console].name()) << " "
                << (example.wins ? "" : "[another wins] ")
                << (example.is_attended ? "[attended] " : "") << Harmless(WithoutEnd(example.line))
                << "\n";
    }
  }
}

std::string Summary(const EventFile& file, const Outcome& outcome) {
  std::string text =
      "Lines: " + std::to_string(outcome.lines) + ", matched: " + std::to_string(outcome.matched);
  if (outcome.attended > 0) {
    text += ", printed while somebody was attached, which makes no events: " +
            std::to_string(outcome.attended);
  }
  if (file.IsHard()) text += "; a process of its own has to match the whole file";
  return text + ".\n";
}

void WarnOfLines(const EventFile& file) {
  for (const size_t line : file.incomplete) {
    Warn("line " + std::to_string(line) +
         " of the event file lacks a part, and the daemon leaves it out; a line has four parts: "
         "name, priority, case indicator, pattern");
  }
}

// ---- For programs -------------------------------------------------------------------------------

Json ExamplesAsJson(const std::deque<Example>& examples,
                    const std::vector<journal::Console>& consoles) {
  Json data = Json::array();
  for (const Example& example : examples) {
    data.push_back({{"time", StampJson(example.wall)},
                    {"console", Utf8(consoles[example.console].name())},
                    {"line", Utf8(example.line)},
                    {"wins", example.wins},
                    {"attended", example.is_attended}});
  }
  return data;
}

Json PatternAsJson(const EventPattern& pattern, const PatternFigures& figures) {
  return {{"name", Utf8(pattern.name)},
          {"priority", pattern.priority},
          {"any_case", pattern.any_case},
          {"pattern", Utf8(pattern.expression)},
          {"line", pattern.line},
          {"hard", pattern.is_hard},
          {"costly", IsCostly(pattern, figures)},
          {"tried", figures.tried},
          {"matched", figures.matched},
          {"wins", figures.wins},
          {"events", figures.events},
          {"mean_us", figures.MeanCost()},
          {"worst_us", figures.worst_cost},
          {"left_out", figures.left_out.empty() ? Json() : Json(Utf8(figures.left_out))}};
}

void PrintJson(const EventFile& file, const std::vector<PatternFigures>& figures,
               const Outcome& outcome, const std::vector<journal::Console>& consoles) {
  Json patterns = Json::array();
  for (size_t place = 0; place < file.patterns.size(); ++place) {
    Json data = PatternAsJson(file.patterns[place], figures[place]);
    data["examples"] = ExamplesAsJson(outcome.examples[place], consoles);
    patterns.push_back(data);
  }
  const Json data = {{"lines", outcome.lines},
                     {"attended", outcome.attended},
                     {"matched", outcome.matched},
                     {"bytes", outcome.bytes},
                     {"interrupted", outcome.is_interrupted},
                     {"incomplete_lines", file.incomplete},
                     {"patterns", patterns}};
  std::cout << EscapedJson(data.dump()) << "\n";
}

// ---- The command --------------------------------------------------------------------------------

void PrintForPeople(Rehearsal& rehearsal, const Outcome& outcome, const PastRange& range,
                    const journal::Journal& journal) {
  const EventFile& file = rehearsal.file();
  PrintTable(file, rehearsal.figures());
  std::cout << Summary(file, outcome) << WhereJournalBegins(journal, range);
  PrintExamples(file, outcome, journal.consoles());
}

ExitStatus RunRehearse(const Settings& settings, const RehearseOptions& options) {
  RequireThisHost(settings, "rehearse", "the journal");
  setpriority(PRIO_PROCESS, 0, kNiceness);  // the daemon beside it comes first
  return WithJournalErrors(options.journal_dir, [&] {
    const PastRange range = ReadRange(options.since, options.until);
    Rehearsal rehearsal(ReadFileOf(options));
    WarnOfLines(rehearsal.file());
    const auto journal = OpenJournal(options.journal_dir);
    const Outcome outcome = Try(options, range, *journal, rehearsal);
    if (settings.json) {
      PrintJson(rehearsal.file(), rehearsal.figures(), outcome, journal->consoles());
    } else {
      PrintForPeople(rehearsal, outcome, range, *journal);
    }
    if (outcome.is_interrupted) {
      Warn("interrupted; the figures are those of the lines before " +
           std::string("the interruption, so begin later with --since"));
    }
    return ExitStatus::kOk;
  });
}

}  // namespace

void AddRehearseCommand(Command& app, Program& program) {
  const auto options = std::make_shared<RehearseOptions>();
  Command command =
      app.AddCommand("rehearse", "Try an event file out on what consoles printed in the past");
  command
      .AddOption("EVENTFILE", options->file,
                 "The file, or the name of one of the station's event files")
      .Required();
  command.AddOption("PATTERN", options->consoles,
                    "Only these consoles: names, earlier names or shell patterns");
  command
      .AddOption("--since", options->since,
                 std::string("Only lines of this time and later: ") + kMomentForms)
      .ShowDefault();
  command.AddOption("--until", options->until, "Only lines of this time and earlier");
  command
      .AddOption("--show", options->examples,
                 "Also show this many of the last lines that each pattern matched")
      .InRange(size_t{0}, kMostExamples);
  command.AddFlag("--carriage-returns", options->keeps_returns,
                  "Have a carriage return end a line, as for a daemon with -s 0");
  command.AddOption("--events-dir", options->events_dir, "The station's event files").ShowDefault();
  command.AddOption("--journal-dir", options->journal_dir, kJournalDirHelp).ShowDefault();
  command.SetAction(program,
                    [options, &program] { return RunRehearse(program.settings, *options); });
}

}  // namespace zevctl
