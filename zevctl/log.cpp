// "zevctl log": the records of consoles' logs, from files; the daemon need not run.
#include <poll.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <optional>

#include "arguments.h"
#include "local_only.h"
#include "log_directories.h"
#include "log_filter.h"
#include "log_follow.h"
#include "log_merge.h"
#include "log_printer.h"
#include "log_reader.h"
#include "moment.h"
#include "output.h"
#include "program.h"
#include "standard_output.h"

namespace zevctl {

namespace {

constexpr size_t kFollowedLines = 10;  // shown before following, unless something else is asked for
constexpr size_t kMostLines = 1'000'000;  // they are kept in memory
constexpr size_t kMostContext = 10'000;
constexpr std::chrono::duration<int, std::milli> kTickInterval{200};

struct LogOptions {
  std::vector<std::string> consoles;
  std::vector<std::string> earlier_names;
  bool follow = false;
  std::optional<size_t> lines;
  std::string since;
  std::string until;
  std::optional<std::string> pattern;
  bool ignore_case = false;
  bool inverted = false;
  size_t context = 0;
  std::string log_dir = kStationRoot + "/logs";
};

// ---- Which records ------------------------------------------------------------------------------

std::optional<time_t> Moment(const std::string& option, const std::string& text, time_t now) {
  if (text.empty()) return {};
  const auto moment = ParseMoment(text, now);
  if (moment) return moment;
  throw Failure(ExitStatus::kUsage,
                option + ": \"" + Printable(text) + "\" is no time; write " + kMomentForms);
}

void SetUp(Filter& filter, const LogOptions& options) {
  const time_t now = time(nullptr);
  filter.since = Moment("--since", options.since, now);
  filter.until = Moment("--until", options.until, now);
  if (filter.since && filter.until && *filter.since > *filter.until) {
    throw Failure(ExitStatus::kUsage, "--since is later than --until; exchange them");
  }
  if (options.pattern) filter.pattern.emplace(*options.pattern, options.ignore_case);
  filter.inverted = options.inverted;
}

LogForm FormFor(const Settings& settings) {
  if (settings.json) return LogForm::kJson;
  return isatty(STDOUT_FILENO) == 1 ? LogForm::kTerminal : LogForm::kBytes;
}

// The longest name of a wanted log, for a column.
size_t NameWidth(const WantedLogs& wanted, const LogNames& existing) {
  size_t width = 0;
  for (const std::string& name : existing) {
    if (wanted.Has(name)) width = std::max(width, Printable(name).size());
  }
  return width;
}

// ---- Which files --------------------------------------------------------------------------------

std::string NothingFound(const std::string& name, const LogNames& existing,
                         const std::string& log_dir) {
  const std::string directory = Printable(DatedDirectoryPath(log_dir));
  const std::string message = "no log of " + Printable(name) + " in " + directory;
  std::string names;
  for (const std::string& similar : SimilarNames(name, existing)) {
    names += (names.empty() ? "" : ", ") + Printable(similar);
  }
  if (names.empty()) return message + "; \"ls " + directory + "/current\" lists the logs";
  return message + "; ask for a similar name: " + names;
}

bool HasLog(const std::string& name, const LogNames& existing) {
  const WantedLogs wanted({name}, existing);
  return std::any_of(existing.begin(), existing.end(),
                     [&](const std::string& log) { return wanted.Has(log); });
}

// Warns of names without a log. When no name has a log, the command fails, unless it can wait for
// one.
void CheckNames(const LogOptions& options, const std::vector<std::string>& names,
                const LogNames& existing) {
  std::vector<std::string> missing;
  for (const std::string& name : names) {
    if (HasLog(name, existing)) continue;
    missing.push_back(NothingFound(name, existing, options.log_dir));
  }
  if (missing.size() == names.size() && !options.follow) {
    throw Failure(ExitStatus::kNoSuchConsole, missing.front());
  }
  for (const std::string& message : missing) {
    Warn(message + (options.follow ? "; waiting for it" : ""));
  }
}

// Every directory can have a file of each console, and there may be many directories.
void UseAllDescriptors() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
}

// ---- The command --------------------------------------------------------------------------------

/// Everything between the command line and the exit status.
class LogCommand {
 public:
  LogCommand(const Settings& settings, const LogOptions& options)
      : options_(options), form_(FormFor(settings)), printer_(filter_, {}) {
    SetUp(filter_, options);
  }

  ExitStatus Run() {
    if (options_.follow) EndBySignals();  // no output is held back
    UseAllDescriptors();
    std::vector<LogDirectory> directories = OpenLogDirectories(options_.log_dir);
    const LogNames existing = NamesIn(directories);
    const std::vector<std::string> names = Names(existing);
    CheckNames(options_, names, existing);
    WantedLogs wanted(names, existing);
    printer_.SetStyle({form_, ColumnFor(wanted, existing), options_.context});
    LogReaders readers = OpenLogs(directories, wanted);
    ShowHistory(readers);
    if (options_.follow) {
      Follower follower(options_.log_dir, std::move(wanted), std::move(directories),
                        std::move(readers), Warn);
      Follow(follower);
    }
    return printer_.found() || !filter_.pattern ? ExitStatus::kOk : ExitStatus::kFailed;
  }

 private:
  std::vector<std::string> Names(const LogNames& existing) const;
  std::optional<size_t> ColumnFor(const WantedLogs& wanted, const LogNames& existing) const;
  std::optional<size_t> Lines() const;
  void GoToFirst(LogReaders& readers) const;
  void ShowHistory(LogReaders& readers);
  [[noreturn]] void Follow(Follower& follower);

  const LogOptions& options_;
  LogForm form_;
  Filter filter_;
  LogPrinter printer_;
};

std::vector<std::string> LogCommand::Names(const LogNames& existing) const {
  std::vector<std::string> names;
  for (const std::string& name : options_.consoles) names.push_back(MeantName(name, existing));
  names.insert(names.end(), options_.earlier_names.begin(), options_.earlier_names.end());
  return names;
}

// Records of several consoles have the console's name in front.
std::optional<size_t> LogCommand::ColumnFor(const WantedLogs& wanted,
                                            const LogNames& existing) const {
  const bool one = options_.consoles.size() == 1 && !IsPattern(options_.consoles[0], existing);
  if (one) return {};
  return NameWidth(wanted, existing);
}

std::optional<size_t> LogCommand::Lines() const {
  const bool tail = options_.follow && !options_.lines && filter_.IsEmpty();
  return tail ? kFollowedLines : options_.lines;
}

// Skips what would not be shown anyway, where that is quick.
void LogCommand::GoToFirst(LogReaders& readers) const {
  const auto lines = Lines();
  if (lines && filter_.IsEmpty()) GoToLastRecords(readers, *lines);
  if (!filter_.since) return;
  for (const auto& reader : readers) reader->SkipBefore(*filter_.since);
}

// A record that is still being written is shown once it is complete if we follow the log, and as it
// is otherwise.
void LogCommand::ShowHistory(LogReaders& readers) {
  const auto current = OpenCurrentDirectory(options_.log_dir);
  const auto unfinished = [&](const LogReader& log) {
    const bool may_grow = !current || current->identity() == log.directory();
    return options_.follow && may_grow ? Unfinished::kLeave : Unfinished::kTake;
  };
  const auto lines = Lines();
  if (lines) printer_.KeepLast(*lines);
  GoToFirst(readers);
  ReadInOrder(readers, unfinished, filter_.until ? *filter_.until + kClockSlack : kEndOfTime,
              [&](const LogReader& log, const Record& record) { printer_.Take(log, record); });
  printer_.ShowLast();
  printer_.Flush();
}

// Ends by a signal, or when nobody reads any more.
void LogCommand::Follow(Follower& follower) {
  for (;;) {
    follower.Tick([&](const LogReader& log, const Record& record) { printer_.Take(log, record); });
    printer_.Flush();
    pollfd output = {STDOUT_FILENO, 0, 0};
    if (poll(&output, 1, kTickInterval.count()) > 0 && ReaderHasGone(output.revents)) {
      throw ReaderGone();
    }
  }
}

ExitStatus RunLog(const Settings& settings, const LogOptions& options) try {
  RequireThisHost(settings, "log", "the log files");
  return LogCommand(settings, options).Run();
} catch (const ReaderGone&) {
  return ExitStatus::kOk;
}

void AddFilterOptions(Command& command, LogOptions& options) {
  const std::string forms = std::string(": ") + kMomentForms;
  command.AddOption("--since", options.since, "Only records of this time and later" + forms);
  const Option until =
      command.AddOption("--until", options.until, "Only records of this time and earlier");
  const Option pattern = command.AddOption(
      "--grep", options.pattern,
      "Only records in which this POSIX extended regular expression matches what follows the time; "
      "when there is none, the status is 1");
  command.AddFlag("-i,--ignore-case", options.ignore_case, "Ignore case in --grep").Needs(pattern);
  command
      .AddFlag("-v,--invert-match", options.inverted, "Only records in which --grep finds nothing")
      .Needs(pattern);
  command
      .AddOption("-C,--context", options.context,
                 "Also this many records of the console before and after each match")
      .Needs(pattern)
      .InRange(size_t{0}, kMostContext);
  command
      .AddFlag(
          "-f,--follow", options.follow,
          "Go on with what is logged from now on, after the last 10 records if neither --lines "
          "nor a filter is given")
      .Excludes(until);
}

}  // namespace

void AddLogCommand(Command& app, Program& program) {
  const auto options = std::make_shared<LogOptions>();
  Command command =
      app.AddCommand("log", "Show what consoles have printed, from the station's log files");
  command
      .AddOption("NAME", options->consoles,
                 "Console, the start of its name, or a pattern for several, merged by time; or "
                 "\"consolidated\" for what all consoles printed while unattended")
      .Required();
  command.AddOption("-n,--lines", options->lines, "How many of the last records to show")
      .InRange(size_t{0}, kMostLines);
  AddFilterOptions(command, *options);
  command
      .AddOption("--also", options->earlier_names,
                 "Earlier name of the console, whose logs are shown too")
      .OneEachTime();  // one name each time
  command.AddOption("--log-dir", options->log_dir, "The daemon's log directory").ShowDefault();
  command.SetAction(program, [options, &program] { return RunLog(program.settings, *options); });
}

}  // namespace zevctl
