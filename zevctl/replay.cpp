// "zevctl replay": a console's screen as it was, from the station's journal; the daemon need not
// run.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstring>
#include <ctime>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "arguments.h"
#include "descriptor.h"
#include "journal_consoles.h"
#include "journal_open.h"
#include "local_only.h"
#include "moment.h"
#include "output.h"
#include "program.h"
#include "replay_export.h"
#include "replay_loop.h"
#include "replay_player.h"
#include "standard_output.h"

namespace zevctl {

namespace {

constexpr int64_t kSecond = 1'000'000'000;  // nanoseconds
constexpr time_t kDefaultSpan = 3600;
constexpr size_t kWrittenAtOnce = 64 << 10;
constexpr double kMostIdle = 1e6;
constexpr int kMostPlaces = 1000;  // rows, columns

struct ReplayLine {
  std::string console;
  std::string since;
  std::string until;
  double speed = 1;
  bool speed_given = false;
  double max_idle = 5;
  bool max_idle_given = false;
  std::optional<std::string> form;
  std::optional<std::string> output;
  std::string size = "80x24";
  bool size_given = false;
  std::string journal_dir = DefaultJournalDirectory();
};

// ---- What is replayed ---------------------------------------------------------------------------

std::optional<time_t> Moment(const std::string& option, const std::string& text, time_t now) {
  if (text.empty()) return {};
  const auto moment = ParseMoment(text, now);
  if (moment) return moment;
  throw Failure(ExitStatus::kUsage,
                option + ": \"" + Printable(text) + "\" is no time; write " + kMomentForms);
}

struct Period {
  time_t since;
  time_t until;
};

Period PeriodOf(const ReplayLine& line) {
  const time_t now = time(nullptr);
  const time_t until = Moment("--until", line.until, now).value_or(now);
  const time_t since = Moment("--since", line.since, now).value_or(until - kDefaultSpan);
  if (since > until) {
    throw Failure(ExitStatus::kUsage, "--since is later than --until; exchange them");
  }
  return {since, until};
}

// The whole last second belongs to it.
Tape TapeOf(const journal::Journal& journal, size_t console, const Period& period) {
  int64_t since = 0;
  int64_t until = 0;
  if (__builtin_mul_overflow(period.since, kSecond, &since)) since = INT64_MIN;
  if (__builtin_mul_overflow(period.until + 1, kSecond, &until)) until = INT64_MAX;
  return {journal, {console}, since, until - 1};
}

void RequireRecords(const Tape& tape, const std::string& name, const Period& period) {
  if (!tape.IsEmpty()) return;
  throw Failure(ExitStatus::kFailed, "the journal has nothing of " + Printable(name) + " from " +
                                         Rfc3339(period.since) + " to " + Rfc3339(period.until) +
                                         "; give an earlier --since");
}

// ---- On the terminal ----------------------------------------------------------------------------

void RequireTerminal() {
  if (isatty(STDOUT_FILENO) == 1) return;
  throw Failure(ExitStatus::kUsage,
                "a replay needs a terminal on standard output; for a file or a program, use "
                "--export asciicast or --export text");
}

ExitStatus Play(const Tape& tape, const ReplayLine& line, const std::string& name) {
  ReplayOptions options{name, line.speed, {}};
  if (line.max_idle > 0) options.most_idle = Seconds(line.max_idle);
  const int signal = PlayOnTerminal(tape, options);
  if (signal == 0) return ExitStatus::kOk;
  raise(signal);  // the terminal is restored: the program ends as the signal wants
  return ExitStatus::kFailed;
}

// ---- Into a file --------------------------------------------------------------------------------

// "132x43"; nothing when the text is no size.
std::optional<ScreenSize> ParseSize(const std::string& text) {
  ScreenSize size;
  const char* const end = text.data() + text.size();
  const auto columns = std::from_chars(text.data(), end, size.columns);
  if (columns.ec != std::errc() || columns.ptr == end || *columns.ptr != 'x') return {};
  const auto rows = std::from_chars(columns.ptr + 1, end, size.rows);
  if (rows.ec != std::errc() || rows.ptr != end) return {};
  const bool fits = size.columns >= 2 && size.columns <= kMostPlaces && size.rows >= 1 &&
                    size.rows <= kMostPlaces;
  return fits ? std::optional(size) : std::nullopt;
}

std::string CheckSize(const std::string& text) {
  return ParseSize(text) ? "" : "write columns and rows, such as 132x43, up to 1000x1000";
}

/// A file that did not exist before. What a console printed may be secret, so it is the user's own.
class NewFile {
 public:
  explicit NewFile(const std::string& path)
      : path_(path),
        descriptor_(
            open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, S_IRUSR | S_IWUSR)) {
    if (!descriptor_) Refuse("cannot be made", errno, "name another file with --output");
  }

  void Add(std::string_view text) {
    queued_ += text;
    if (queued_.size() >= kWrittenAtOnce) Flush();
  }

  void Flush() {
    std::string_view rest = queued_;
    while (!rest.empty()) {
      const ssize_t count = write(descriptor_.get(), rest.data(), rest.size());
      if (count < 0 && errno == EINTR) continue;
      if (count < 0) Refuse("cannot be written", errno, "it is not complete; remove it");
      rest.remove_prefix(static_cast<size_t>(count));
    }
    queued_.clear();
  }

 private:
  [[noreturn]] void Refuse(const std::string& what, int error, const std::string& advice) const {
    throw Failure(ExitStatus::kFailed,
                  Printable(path_) + " " + what + ": " + strerror(error) + "; " + advice);
  }

  std::string path_;
  Descriptor descriptor_;
  std::string queued_;
};

std::vector<journal::Damage> ExportAs(const TextSink& sink, const Tape& tape,
                                      const ReplayLine& line, const std::string& name) {
  if (line.form == "text") return ExportText(tape, sink);
  AsciicastOptions options{name, ParseSize(line.size).value_or(ScreenSize()), {}};
  if (line.max_idle_given && line.max_idle > 0) options.most_idle = Seconds(line.max_idle);
  return ExportAsciicast(tape, options, sink);
}

// Nobody is to believe that an option does something where it cannot.
void RefuseIdleOptions(const ReplayLine& line) {
  const auto refuse = [](bool is_idle, const std::string& text) {
    if (is_idle) throw Failure(ExitStatus::kUsage, text);
  };
  const bool is_text = line.form == "text";
  refuse(
      line.form && line.speed_given,
      "--speed: an export is not played; leave the option out, or use \"asciinema play --speed\" "
      "with an asciicast");
  refuse(is_text && line.max_idle_given,
         "--max-idle: plain text has no pauses; leave the option out, or use --export asciicast");
  refuse(is_text && line.size_given,
         "--size: plain text has no terminal; leave the option out, or use --export asciicast");
}

// What can be read is of use all the same.
void WarnOf(const std::vector<journal::Damage>& damages) {
  if (damages.empty()) return;
  Warn(DamageText(damages.front()) +
       (damages.size() > 1 ? ", and elsewhere (" + std::to_string(damages.size()) + " places)"
                           : "") +
       "; what can be read was written, and \"zevctl journal verify\" tells more");
}

ExitStatus Export(const Tape& tape, const ReplayLine& line, const std::string& name) {
  if (line.output) {
    NewFile file(*line.output);
    const auto damages = ExportAs([&](std::string_view text) { file.Add(text); }, tape, line, name);
    file.Flush();
    WarnOf(damages);
    return ExitStatus::kOk;
  }
  StandardOutput output;
  const auto damages = ExportAs(
      [&](std::string_view text) {
        output.Add(text);
        if (output.queued() >= kWrittenAtOnce) output.Flush();
      },
      tape, line, name);
  output.Flush();
  WarnOf(damages);
  return ExitStatus::kOk;
}

// ---- The command --------------------------------------------------------------------------------

ExitStatus RunReplay(const Settings& settings, const ReplayLine& line) try {
  RefuseIdleOptions(line);
  RequireThisHost(settings, "replay", "the journal");
  if (!line.form) RequireTerminal();
  const Period period = PeriodOf(line);
  const auto journal = OpenJournal(line.journal_dir);
  std::vector<std::string> remarks;
  const size_t console = ChooseOneConsole(journal->consoles(), line.console, &remarks);
  for (const std::string& remark : remarks) Warn(remark);
  const std::string name = journal->consoles().at(console).name();
  const Tape tape = TapeOf(*journal, console, period);
  RequireRecords(tape, name, period);
  return line.form ? Export(tape, line, name) : Play(tape, line, name);
} catch (const journal::JournalError& error) {
  throw JournalFailure(error, line.journal_dir);
} catch (const ReaderGone&) {
  return ExitStatus::kOk;
}

void AddTimeOptions(Command& command, ReplayLine& line) {
  command.AddOption(
      "--since", line.since,
      std::string("Time to begin at, an hour before the end if not given: ") + kMomentForms);
  command.AddOption("--until", line.until, "Time to end at; now if not given");
  command.AddOption("--speed", line.speed, "Play so many times as fast; below 1, slower")
      .InRange(Pace::kSlowest, Pace::kFastest)
      .Tell(line.speed_given)
      .ShowDefault();
  command
      .AddOption("--max-idle", line.max_idle,
                 "Shorten longer pauses to this many seconds; 0 keeps them as they were")
      .InRange(0.0, kMostIdle)
      .Tell(line.max_idle_given)
      .ShowDefault();
}

void AddExportOptions(Command& command, ReplayLine& line) {
  const Option form =
      command
          .AddOption("--export", line.form,
                     "Write a file instead of playing: an asciicast of version 2, or the lines as "
                     "plain text")
          .OneOf({"asciicast", "text"});
  command.AddOption("-o,--output", line.output, "New file for --export, instead of standard output")
      .Needs(form);
  command.AddOption("--size", line.size, "Columns and rows of an asciicast's terminal")
      .Needs(form)
      .Verify(CheckSize)
      .Tell(line.size_given)
      .ShowDefault();
}

}  // namespace

void AddReplayCommand(Command& app, Program& program) {
  const auto line = std::make_shared<ReplayLine>();
  Command command =
      app.AddCommand("replay", "Show the screen of a console as it was, from the journal");
  command.AddOption("NAME", line->console, "Console, or the start of its name").Required();
  AddTimeOptions(command, *line);
  AddExportOptions(command, *line);
  command.AddOption("--journal-dir", line->journal_dir, kJournalDirHelp).ShowDefault();
  command.SetAction(program, [line, &program] { return RunReplay(program.settings, *line); });
}

}  // namespace zevctl
