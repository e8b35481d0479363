// "zevctl history": what happened at consoles, from the journal, and from the logs where only they
// have it; the daemon need not run.
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "arguments.h"
#include "history_choice.h"
#include "history_journal.h"
#include "history_parts.h"
#include "history_printer.h"
#include "history_raw.h"
#include "journal_open.h"
#include "local_only.h"
#include "log_filter.h"
#include "moment.h"
#include "name_match.h"
#include "output.h"
#include "program.h"
#include "standard_output.h"

namespace zevctl {

namespace {

using Names = std::vector<std::string>;

constexpr size_t kUsualLines = 200;    // shown when nothing says which
constexpr size_t kFollowedLines = 10;  // the same before following
constexpr size_t kMostLines = 1'000'000;
constexpr size_t kMostContext = 10'000;
constexpr std::chrono::duration<int, std::milli> kTickInterval{100};

struct HistoryOptions {
  Names consoles;
  std::string since;
  std::string until;
  std::optional<size_t> last;
  std::optional<std::string> pattern;
  bool ignore_case = false;
  bool inverted = false;
  size_t context = 0;
  bool users = false;
  bool no_output = false;
  bool raw = false;
  bool follow = false;
  std::string journal_dir = DefaultJournalDirectory();
  std::string log_dir = kStationRoot + "/logs";
};

// ---- What is there ------------------------------------------------------------------------------

/// The journal and the logs, as far as there are any.
struct Sources {
  std::unique_ptr<journal::Journal> journal;
  PastLogs logs;
};

// A station with a journal need not have logs.
void AddLogs(const std::string& log_dir, Sources* sources) try {
  sources->logs = OpenPastLogs(log_dir);
} catch (const Failure& failure) {
  if (sources->journal) return;
  throw Failure(failure.status(), "there is no journal, and " + std::string(failure.what()));
}

Sources OpenSources(const HistoryOptions& options) {
  Sources sources;
  sources.journal = OpenJournalIfAny(options.journal_dir);
  if (!options.raw && !options.follow) AddLogs(options.log_dir, &sources);
  if (sources.journal || (!options.raw && !options.follow)) return sources;
  throw Failure(ExitStatus::kFailed,
                "there is no journal in " + Printable(options.journal_dir) + "; " +
                    (options.follow ? "\"zevctl log --follow\" follows the logs"
                                    : "only a journal has the bytes as they came; \"zevctl log\" "
                                      "shows the logs"));
}

std::optional<time_t> Moment(const std::string& option, const std::string& text, time_t now) {
  if (text.empty()) return {};
  const auto moment = ParseMoment(text, now);
  if (moment) return moment;
  throw Failure(ExitStatus::kUsage,
                option + ": \"" + Printable(text) + "\" is no time; write " + kMomentForms);
}

// ---- The command --------------------------------------------------------------------------------

/// Everything between the command line and the exit status.
class HistoryCommand {
 public:
  HistoryCommand(const Settings& settings, const HistoryOptions& options)
      : options_(options), json_(settings.json), sources_(OpenSources(options)) {
    const time_t now = time(nullptr);
    const auto since = Moment("--since", options.since, now);
    const auto until = Moment("--until", options.until, now);
    if (since && until && *since > *until) {
      throw Failure(ExitStatus::kUsage, "--since is later than --until; exchange them");
    }
    if (options.pattern) pattern_.emplace(*options.pattern, options.ignore_case);
    HistoryChoice choice =
        ChooseHistory(sources_.journal.get(), sources_.logs, options.consoles, options.users);
    chosen_ = std::move(choice.chosen);
    wanted_ = std::move(choice.wanted);
    wanted_.since = since;
    wanted_.until = until;
    wanted_.follows = options.follow;
    if (options.no_output) wanted_.open_logs = nullptr;  // logs have nothing else
  }

  ExitStatus Run() {
    if (options_.follow) EndBySignals();  // no output is held back
    for (const std::string& remark : chosen_.remarks) Warn(remark);
    if (options_.raw) return ShowBytes();
    HistoryPrinter printer(pattern_ ? &*pattern_ : nullptr, options_.inverted);
    printer.SetStyle({json_, NameWidth(), options_.context, !options_.no_output});
    HistoryParts parts = MakeHistoryParts(wanted_);
    Show(parts, printer);
    return printer.found() || !pattern_ ? ExitStatus::kOk : ExitStatus::kFailed;
  }

 private:
  std::optional<size_t> NameWidth() const;
  std::optional<size_t> LinesWanted() const;
  ExitStatus ShowBytes() const;
  size_t FirstPart(const HistoryParts& parts, size_t count, const HistoryPrinter& printer) const;
  void Show(HistoryParts& parts, HistoryPrinter& printer);
  [[noreturn]] void Follow(JournalPart& part, HistoryPrinter& printer);
  void TellMissing(const HistoryParts& parts) const;

  const HistoryOptions& options_;
  bool json_;
  Sources sources_;
  std::optional<Pattern> pattern_;
  ChosenConsoles chosen_;
  HistorySources wanted_;
};

// Lines of several consoles have the console's name in front.
std::optional<size_t> HistoryCommand::NameWidth() const {
  const bool one = chosen_.by_name && options_.consoles.size() == 1;
  if (one || chosen_.names.size() == 1) return {};
  size_t width = 0;
  for (const std::string& name : chosen_.names) width = std::max(width, Harmless(name).size());
  return width;
}

std::optional<size_t> HistoryCommand::LinesWanted() const {
  const bool says_which = wanted_.since || wanted_.until || pattern_;
  if (options_.last || says_which) return options_.last;
  return options_.follow ? kFollowedLines : kUsualLines;
}

ExitStatus HistoryCommand::ShowBytes() const {
  if (isatty(STDOUT_FILENO) == 1) {
    throw Failure(ExitStatus::kUsage,
                  "--raw would let the console command your terminal; send it to a file or a pipe");
  }
  const std::vector<journal::Console>& consoles = sources_.journal->consoles();
  if (chosen_.ids.size() != 1) {
    Names names;
    for (const size_t id : chosen_.ids) names.push_back(consoles[id].name());
    throw Failure(ExitStatus::kUsage,
                  "--raw is for one console; name one of " + Alternatives(names));
  }
  const uint64_t missing = ShowRaw(wanted_);
  if (missing > 0) {
    Warn("the output was interrupted or not kept in " + std::to_string(missing) +
         (missing == 1 ? " place" : " places") + "; without --raw they are shown");
  }
  return ExitStatus::kOk;
}

// The newest parts that have so many lines, at least one of them; the start of the first is moved.
size_t HistoryCommand::FirstPart(const HistoryParts& parts, size_t count,
                                 const HistoryPrinter& printer) const {
  const auto is_wanted = [&](const HistoryLine& line) { return printer.IsWanted(line); };
  size_t first = parts.size();
  size_t left = count;
  while (first > 0) {
    left -= std::min(left, parts[--first]->StartAtLast(left, options_.context, is_wanted));
    if (left == 0) break;
  }
  return first;
}

void HistoryCommand::Show(HistoryParts& parts, HistoryPrinter& printer) {
  size_t first = 0;
  if (const auto count = LinesWanted()) {
    printer.KeepLast(*count);
    first = FirstPart(parts, *count, printer);
  }
  const HistoryHandler handle = [&](const HistoryLine& line) { printer.Take(line); };
  auto* followed =
      options_.follow && !parts.empty() ? dynamic_cast<JournalPart*>(parts.back().get()) : nullptr;
  for (size_t i = first; i < parts.size(); ++i) {
    if (parts[i].get() == followed) break;
    parts[i]->Read(handle);
  }
  if (followed != nullptr) Follow(*followed, printer);
  printer.ShowLast();
  printer.Flush();
  if (pattern_) TellMissing(parts);
}

// Ends by a signal, or when nobody reads any more.
void HistoryCommand::Follow(JournalPart& part, HistoryPrinter& printer) {
  const HistoryHandler handle = [&](const HistoryLine& line) { printer.Take(line); };
  part.ReadOn(handle);
  printer.ShowLast();
  for (;;) {
    printer.Flush();
    pollfd output = {STDOUT_FILENO, 0, 0};
    if (poll(&output, 1, kTickInterval.count()) > 0 && ReaderHasGone(output.revents)) {
      throw ReaderGone();
    }
    sources_.journal->Refresh();
    part.ReadOn(handle);
  }
}

// Who looks for something and does not find it shall know that it may have been there.
void HistoryCommand::TellMissing(const HistoryParts& parts) const {
  uint64_t missing = 0;
  for (const auto& part : parts) {
    const auto* stretch = dynamic_cast<const JournalPart*>(part.get());
    if (stretch != nullptr) missing += stretch->missing();
  }
  if (missing == 0) return;
  Warn("something is missing in the record in " + std::to_string(missing) +
       (missing == 1 ? " place" : " places") +
       " of what was searched; without --grep they are shown");
}

ExitStatus RunHistory(const Settings& settings, const HistoryOptions& options) try {
  RequireThisHost(settings, "history", "the journal and the log files");
  return HistoryCommand(settings, options).Run();
} catch (const ReaderGone&) {
  return ExitStatus::kOk;
} catch (const journal::JournalError& error) {
  throw JournalFailure(error, options.journal_dir);
}

void AddSearchOptions(Command& command, HistoryOptions& options, const Option& raw) {
  Option pattern = command.AddOption(
      "--grep", options.pattern,
      "Only lines in which this POSIX extended regular expression matches what follows the mark; "
      "when there is none, the status is 1");
  pattern.Excludes(raw);
  command.AddFlag("-i,--ignore-case", options.ignore_case, "Ignore case in --grep").Needs(pattern);
  command.AddFlag("-v,--invert-match", options.inverted, "Only lines in which --grep finds nothing")
      .Needs(pattern);
  command
      .AddOption("-C,--context", options.context,
                 "Also this many lines of the console before and after each match")
      .Needs(pattern)
      .InRange(size_t{0}, kMostContext);
}

void AddHistoryOptions(Command& command, HistoryOptions& options) {
  const std::string forms = std::string(": ") + kMomentForms;
  command.AddOption("--since", options.since, "Only what happened at this time and later" + forms);
  const Option until =
      command.AddOption("--until", options.until, "Only what happened at this time and earlier");
  Option last =
      command.AddOption("-n,--last", options.last,
                        "How many of the last lines to show; 200 if nothing else says what to "
                        "show");
  last.InRange(size_t{0}, kMostLines);
  Option raw = command.AddFlag(
      "--raw", options.raw, "The bytes that one console printed, as they came, from the journal");
  raw.Excludes(last);
  AddSearchOptions(command, options, raw);
  Option users = command.AddFlag(
      "--users", options.users,
      "Also what users did: who attached and left, who was refused, modes, messages, breaks, "
      "commands, and what was typed where that is kept");
  users.Excludes(raw);
  command.AddFlag("--no-output", options.no_output, "Leave out what the consoles printed")
      .Excludes(raw);
  command
      .AddFlag("-f,--follow", options.follow,
               "Go on with what happens from now on, after the last 10 lines if nothing else says "
               "what to show")
      .Excludes(until)
      .Excludes(raw);
}

}  // namespace

void AddHistoryCommand(Command& app, Program& program) {
  const auto options = std::make_shared<HistoryOptions>();
  Command command = app.AddCommand(
      "history", "Show what happened at consoles, from the station's journal and logs");
  command
      .AddOption("NAME", options->consoles,
                 "Console, an earlier name of it, the start of its name, or a pattern for several, "
                 "merged by time")
      .Required();
  AddHistoryOptions(command, *options);
  command.AddOption("--journal-dir", options->journal_dir, kJournalDirHelp).ShowDefault();
  command.AddOption("--log-dir", options->log_dir, "The daemon's log directory").ShowDefault();
  command.SetAction(program,
                    [options, &program] { return RunHistory(program.settings, *options); });
}

}  // namespace zevctl
