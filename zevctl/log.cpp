// "zevctl log": the records of a console's logs, from files; the daemon need not run.
#include <poll.h>
#include <regex.h>
#include <sys/resource.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <csignal>
#include <deque>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>

#include "log_directories.h"
#include "log_follow.h"
#include "log_merge.h"
#include "log_reader.h"
#include "log_record.h"
#include "moment.h"
#include "output.h"
#include "program.h"
#include "standard_output.h"

namespace zevctl {

namespace {

constexpr size_t kFollowedLines = 10;  // shown before following, unless something else is asked for
constexpr size_t kMostLines = 1'000'000;  // they are kept in memory
constexpr size_t kFlushSize = 65536;
constexpr std::chrono::duration<int, std::milli> kTickInterval{200};

struct LogOptions {
  std::string console;
  std::vector<std::string> earlier_names;
  bool follow = false;
  std::optional<size_t> lines;
  std::string since;
  std::string until;
  std::optional<std::string> pattern;
  bool ignore_case = false;
  std::string log_dir = kStationRoot + "/logs";
};

// ---- Which records ------------------------------------------------------------------------------

/// A POSIX extended regular expression.
class Pattern {
 public:
  Pattern(const std::string& text, bool ignore_case) {
    const int error =
        regcomp(&compiled_, text.c_str(), REG_EXTENDED | (ignore_case ? REG_ICASE : 0));
    if (error != 0) throw Failure(ExitStatus::kUsage, "--grep: " + ErrorText(error));
  }
  ~Pattern() { regfree(&compiled_); }
  Pattern(const Pattern&) = delete;
  Pattern& operator=(const Pattern&) = delete;

  // The text may hold NULs and does not end with one.
  bool Matches(std::string_view text) const {
    regmatch_t whole = {0, static_cast<regoff_t>(text.size())};
    return regexec(&compiled_, text.data(), 1, &whole, REG_STARTEND) == 0;
  }

 private:
  std::string ErrorText(int error) const {
    char text[256];
    regerror(error, &compiled_, text, sizeof text);
    return text;
  }

  regex_t compiled_{};
};

struct Filter {
  std::optional<time_t> since;
  std::optional<time_t> until;
  std::optional<Pattern> pattern;

  bool IsEmpty() const { return !since && !until && !pattern; }

  bool Takes(const Record& record) const {
    if (since && record.time.value_or(*since - 1) < *since) return false;
    if (until && record.time.value_or(*until) > *until) return false;
    return !pattern || pattern->Matches(record.body);
  }
};

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
}

// ---- How they are shown -------------------------------------------------------------------------

enum class Form { kBytes, kTerminal, kJson };

Form FormFor(const Settings& settings) {
  if (settings.json) return Form::kJson;
  return isatty(STDOUT_FILENO) == 1 ? Form::kTerminal : Form::kBytes;
}

// A tab is harmless and common in what consoles print.
std::string Harmless(std::string_view text) {
  std::string shown(text);
  std::replace(shown.begin(), shown.end(), '\t', ' ');
  return Printable(shown);
}

std::string AsJson(const LogReader& log, const Record& record) {
  nlohmann::ordered_json data;
  data["time"] = record.time ? nlohmann::ordered_json(Rfc3339(*record.time)) : nullptr;
  data["console"] = Utf8(record.console.empty() ? log.name() : record.console);
  data["text"] = Utf8(record.text);
  return EscapedJson(data.dump());
}

// Every record gets a line of its own, even when it has no line end or another one.
std::string Line(Form form, const LogReader& log, const Record& record) {
  if (form == Form::kJson) return AsJson(log, record) + "\n";
  std::string_view bytes = record.bytes;
  if (bytes.ends_with('\n')) bytes.remove_suffix(1);
  if (form == Form::kBytes) return std::string(bytes) + "\n";
  if (bytes.ends_with('\r')) bytes.remove_suffix(1);
  return Harmless(bytes) + "\n";
}

/// Shows the records that the filter takes, or only the last of them.
class Printer {
 public:
  Printer(const Filter& filter, Form form) : filter_(filter), form_(form) {}

  bool found() const { return found_; }

  /// Shows nothing until ShowLast(), which then shows the last `count` records.
  void KeepLast(size_t count) { kept_ = count; }

  void Take(const LogReader& log, const Record& record) {
    if (!filter_.Takes(record)) return;
    found_ = true;
    std::string line = Line(form_, log, record);
    kept_ ? Keep(std::move(line)) : Show(line);
  }

  void ShowLast() {
    for (const std::string& line : last_) Show(line);
    last_.clear();
    kept_.reset();
  }

  void Flush() { output_.Flush(); }

 private:
  void Keep(std::string line) {
    last_.push_back(std::move(line));
    if (last_.size() > *kept_) last_.pop_front();
  }

  void Show(const std::string& line) {
    output_.Add(line);
    if (output_.queued() >= kFlushSize) output_.Flush();
  }

  const Filter& filter_;
  Form form_;
  StandardOutput output_;
  std::optional<size_t> kept_;
  std::deque<std::string> last_;
  bool found_ = false;
};

// ---- Which files --------------------------------------------------------------------------------

std::string NothingFound(const std::string& name, const LogNames& existing,
                         const std::string& log_dir) {
  std::string message =
      "no log of " + Printable(name) + " in " + Printable(DatedDirectoryPath(log_dir));
  const char* separator = "; similar names: ";
  for (const std::string& similar : SimilarNames(name, existing)) {
    message += separator + Printable(similar);
    separator = ", ";
  }
  return message;
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
      : options_(options), printer_(filter_, FormFor(settings)) {
    SetUp(filter_, options);
  }

  ExitStatus Run() {
    if (options_.follow) EndBySignals();
    UseAllDescriptors();
    std::vector<LogDirectory> directories = OpenLogDirectories(options_.log_dir);
    const std::vector<std::string> names = Names();
    const LogNames existing = NamesIn(directories);
    CheckNames(options_, names, existing);
    WantedLogs wanted(names, existing);
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
  std::vector<std::string> Names() const;
  std::optional<size_t> Lines() const;
  void GoToFirst(LogReaders& readers) const;
  void ShowHistory(LogReaders& readers);
  [[noreturn]] void Follow(Follower& follower);
  static void EndBySignals();

  const LogOptions& options_;
  Filter filter_;
  Printer printer_;
};

std::vector<std::string> LogCommand::Names() const {
  std::vector<std::string> names = {options_.console};
  names.insert(names.end(), options_.earlier_names.begin(), options_.earlier_names.end());
  return names;
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

// There is nothing to clean up, and no output is held back. So a signal may end the program at any
// time, even while the output is blocked.
void LogCommand::EndBySignals() {
  for (const int number : {SIGINT, SIGTERM}) {
    const auto before = signal(number, [](int) { _exit(static_cast<int>(ExitStatus::kOk)); });
    if (before == SIG_IGN) signal(number, SIG_IGN);
  }
}

ExitStatus RunLog(const Settings& settings, const LogOptions& options) try {
  return LogCommand(settings, options).Run();
} catch (const ReaderGone&) {
  return ExitStatus::kOk;
}

void AddFilterOptions(CLI::App& command, LogOptions& options) {
  const std::string forms = std::string(": ") + kMomentForms;
  command.add_option("--since", options.since, "Only records of this time and later" + forms);
  CLI::Option* until =
      command.add_option("--until", options.until, "Only records of this time and earlier");
  CLI::Option* pattern = command.add_option(
      "--grep", options.pattern,
      "Only records in which this POSIX extended regular expression matches what follows the time; "
      "when there is none, the status is 1");
  command.add_flag("-i,--ignore-case", options.ignore_case, "Ignore case in --grep")
      ->needs(pattern);
  command
      .add_flag(
          "-f,--follow", options.follow,
          "Go on with what is logged from now on, after the last 10 records if neither --lines "
          "nor a filter is given")
      ->excludes(until);
}

}  // namespace

void AddLogCommand(CLI::App& app, Program& program) {
  const auto options = std::make_shared<LogOptions>();
  CLI::App* command =
      app.add_subcommand("log", "Show what a console has printed, from the station's log files");
  command
      ->add_option("NAME", options->console,
                   "Console, or \"consolidated\" for what all consoles printed while unattended")
      ->required();
  command->add_option("-n,--lines", options->lines, "How many of the last records to show")
      ->check(CLI::Range(size_t{0}, kMostLines));
  AddFilterOptions(*command, *options);
  command
      ->add_option("--also", options->earlier_names,
                   "Earlier name of the console, whose logs belong to it too")
      ->allow_extra_args(false);  // one name each time
  command->add_option("--log-dir", options->log_dir, "The daemon's log directory")
      ->capture_default_str();
  command->callback([options, &program] {
    program.action = [options, &program] { return RunLog(program.settings, *options); };
  });
}

}  // namespace zevctl
