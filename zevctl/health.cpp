// "zevctl health": what is wrong with consoles and with the record of them, for people and for
// programs that watch services.
#include <algorithm>
#include <ctime>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>

#include "arguments.h"
#include "health_facts.h"
#include "health_judge.h"
#include "journal_open.h"
#include "journal_text.h"
#include "moment.h"
#include "output.h"
#include "past_time.h"
#include "program.h"

namespace zevctl {

namespace {

using Json = nlohmann::ordered_json;

struct HealthOptions {
  std::vector<std::string> consoles;
  std::optional<std::string> silence;
  size_t flood = size_t{1} << 20;
  HealthSources sources = {DefaultJournalDirectory(), kStationRoot + "/logs",
                           kStationRoot + "/config/zev.conf"};
};

struct Report {
  HealthFacts facts;
  std::vector<Problem> problems;  ///< the worst first
  HealthLevel level = HealthLevel::kFine;
};

// ---- Judging ------------------------------------------------------------------------------------

// An age such as 90m, in nanoseconds; nothing when the text is none.
std::optional<int64_t> Age(const std::string& text) {
  if (text.find_first_not_of("0123456789wdhms") != std::string::npos) return {};
  constexpr time_t kNow = time_t{1} << 40;
  const auto moment = ParseMoment(text, kNow);
  if (!moment || *moment >= kNow) return {};
  return NanosecondsOf(kNow - *moment);
}

std::string RefuseAge(const std::string& text) {
  return Age(text) ? "" : "must be a time such as 90s, 30m, 1h30m or 2d";
}

HealthRules RulesOf(const HealthOptions& options) {
  HealthRules rules;
  rules.now = time(nullptr) * kSecondInNanoseconds;
  if (options.silence) rules.silence = Age(*options.silence);
  rules.flood = options.flood;
  return rules;
}

Report Examine(const Settings& settings, const HealthOptions& options) {
  HealthRules rules = RulesOf(options);
  Report report;
  report.facts = GatherHealth(settings, options.sources, options.consoles, rules);
  rules.now = report.facts.now;
  report.problems = ProblemsOf(report.facts.station);
  for (const ConsoleFacts& console : report.facts.consoles) {
    const std::vector<Problem> found = ProblemsOf(console, rules);
    report.problems.insert(report.problems.end(), found.begin(), found.end());
  }
  std::stable_sort(report.problems.begin(), report.problems.end(),
                   [](const Problem& a, const Problem& b) { return a.level > b.level; });
  report.level = LevelOf(report.problems);
  return report;
}

// ---- For people ---------------------------------------------------------------------------------

size_t Count(const Report& report, HealthLevel level) {
  return static_cast<size_t>(
      std::count_if(report.problems.begin(), report.problems.end(),
                    [&](const Problem& problem) { return problem.level == level; }));
}

std::string Upper(std::string word) {
  for (char& letter : word) letter = static_cast<char>(toupper(letter));
  return word;
}

// The first line is what monitors show.
std::string Summary(const Report& report) {
  const std::string consoles =
      report.facts.knows_consoles ? CountText(report.facts.consoles.size(), "console") + ", " : "";
  return Upper(WordOf(report.level)) + ": " + consoles +
         std::to_string(Count(report, HealthLevel::kCritical)) + " critical, " +
         CountText(Count(report, HealthLevel::kWarning), "warning");
}

void PrintTable(const Report& report) {
  constexpr size_t kWhole = 3;  // console, problem, since
  const time_t now = time(nullptr);
  Table table({"CONSOLE", "PROBLEM", "SINCE"}, kWhole);
  for (const Problem& problem : report.problems) {
    const bool critical = problem.level == HealthLevel::kCritical;
    table.Add({{problem.console.empty() ? "-" : Printable(problem.console)},
               {problem.kind, critical ? Colour::kRed : Colour::kYellow},
               {problem.since ? ShortClockTime(*problem.since / kSecondInNanoseconds, now) : "-"}},
              {Harmless(problem.what), Harmless(problem.mend)});
  }
  table.Print(std::cout, TerminalWidth(), ColoursWanted());
}

void PrintForPeople(const Report& report) {
  std::cout << Summary(report) << "\n";
  if (!report.problems.empty()) PrintTable(report);
  for (const std::string& note : report.facts.notes) std::cout << Harmless(note) << "\n";
}

// ---- For programs -------------------------------------------------------------------------------

Json AsJson(const Problem& problem) {
  return {{"level", WordOf(problem.level)},
          {"problem", problem.kind},
          {"console", problem.console.empty() ? Json() : Json(Utf8(problem.console))},
          {"since", problem.since ? Json(StampJson(*problem.since)) : Json()},
          {"what", Utf8(problem.what)},
          {"do", Utf8(problem.mend)}};
}

// "daemon", "journal", or nothing.
Json StatesFrom(const HealthFacts& facts) {
  if (!facts.knows_consoles) return {};
  return facts.from_daemon ? "daemon" : "journal";
}

Json CountOfConsoles(const HealthFacts& facts) {
  return facts.knows_consoles ? Json(facts.consoles.size()) : Json();
}

void PrintJson(const Report& report) {
  Json problems = Json::array();
  for (const Problem& problem : report.problems) problems.push_back(AsJson(problem));
  Json notes = Json::array();
  for (const std::string& note : report.facts.notes) notes.push_back(Utf8(note));
  const Json data = {{"level", WordOf(report.level)},
                     {"states_from", StatesFrom(report.facts)},
                     {"journal", report.facts.from_journal},
                     {"consoles", CountOfConsoles(report.facts)},
                     {"problems", problems},
                     {"notes", notes}};
  std::cout << EscapedJson(data.dump()) << "\n";
}

// ---- The command --------------------------------------------------------------------------------

// These numbers are the monitors', not those of the other commands.
ExitStatus StatusFor(HealthLevel level) {
  return static_cast<ExitStatus>(level);
}

// Monitors show what is on standard output, so that is where it is told why nothing is known.
ExitStatus TellUnknown(const Settings& settings, const std::string& why) {
  Report report;
  report.level = HealthLevel::kUnknown;
  report.facts.notes = {why};
  if (settings.json) {
    PrintJson(report);
  } else {
    std::cout << Upper(WordOf(report.level)) << ": " << Harmless(why) << "\n";
  }
  return StatusFor(report.level);
}

ExitStatus RunHealth(const Settings& settings, const HealthOptions& options) try {
  const Report report = Examine(settings, options);
  if (settings.json) {
    PrintJson(report);
  } else {
    PrintForPeople(report);
  }
  return StatusFor(report.level);
} catch (const Failure& failure) {
  return TellUnknown(settings, failure.what());
}

}  // namespace

void AddHealthCommand(Command& app, Program& program) {
  const auto options = std::make_shared<HealthOptions>();
  Command command =
      app.AddCommand("health", "Show what is wrong with consoles and the record of them");
  command.AddOption("PATTERN", options->consoles,
                    "Names, starts of names or shell patterns; all if not given");
  command
      .AddOption("--silent", options->silence,
                 "Report consoles that have printed nothing for this long, such as 1h; if not "
                 "given, for ten times their usual pause and at least an hour")
      .Verify(RefuseAge);
  command
      .AddOption("--flood", options->flood,
                 "Report consoles that have printed this many bytes within five minutes")
      .InRange(size_t{1}, SIZE_MAX)
      .ShowDefault();
  command.AddOption("--journal-dir", options->sources.journal_dir, kJournalDirHelp).ShowDefault();
  command.AddOption("--log-dir", options->sources.log_dir, "The daemon's log directory")
      .ShowDefault();
  command.SetAction(program, [options, &program] { return RunHealth(program.settings, *options); });
}

}  // namespace zevctl
