// "zevctl attach": a session at a console, or with --retry one after another.
#include <termios.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <optional>
#include <thread>
#include <utility>

#include "arguments.h"
#include "attach_history.h"
#include "command_port.h"
#include "console_words.h"
#include "escape.h"
#include "journal_open.h"
#include "login.h"
#include "name_match.h"
#include "output.h"
#include "program.h"
#include "selection.h"
#include "session.h"
#include "session_end.h"

namespace zevctl {

namespace {

constexpr std::chrono::seconds kRetryPause{2};

constexpr size_t kLongestName = 64;                 // the daemon cuts what is longer
constexpr std::string_view kReservedName = "@@@@";  // makes a connection a command port

constexpr size_t kMostHistory = 10'000;

constexpr int kNotFound = 4;
constexpr int kNotAccessible = 5;
constexpr int kDisabled = 12;

struct AttachOptions {
  std::string console;
  std::string mode = "sh";
  std::string escape = "~";
  bool retry = false;
  size_t history = 0;  // lines
  std::string journal_dir = DefaultJournalDirectory();
};

/// Somebody cut the user off. Attaching again would defeat that, and two users could go on taking
/// the console from each other without end.
class CutOff : public Failure {
 public:
  explicit CutOff(const std::string& reason) : Failure(ExitStatus::kSessionEnded, reason) {}
};

// A client of ssh on the person's side takes the first ~ of a line for itself.
bool IsOverSsh() {
  const char* connection = getenv("SSH_CONNECTION");
  return connection != nullptr && *connection != '\0';
}

// To a program, as ever; a person knows from the first word who says it.
void Say(const std::string& line) {
  Announce(isatty(STDIN_FILENO) == 1 ? "zevctl: " + line : line);
}

// The program ends by the signal, now that the terminal is restored.
[[noreturn]] void EndBySignal(int number) {
  raise(number);
  throw Failure(ExitStatus::kFailed, "ended by a signal");
}

/// Everything between the command line and the exit status.
class Attachment {
 public:
  Attachment(const Settings& settings, const AttachOptions& options)
      : settings_(settings),
        options_(options),
        session_{options.console, options.mode, ToEscape(options.escape), IsOverSsh()},
        credentials_(UserName(settings)) {}

  ExitStatus Run() {
    for (;;) {
      try {
        return AttachOnce();
      } catch (const Failure& failure) {
        if (!options_.retry || !MayPass(failure)) throw;
        TellOnce(failure.what());
      }
      std::this_thread::sleep_for(kRetryPause);
      // What was typed in the meantime was not meant for the console.
      tcflush(STDIN_FILENO, TCIFLUSH);
    }
  }

 private:
  ExitStatus AttachOnce();
  Opening Open();
  Opening OpenNamed();
  bool FindName();
  SessionResult RunAll(Opening opening);
  Opening Change(const SessionChange& change);
  Opening OpenInstead(const SessionChange& change);
  bool MayPass(const Failure& failure);
  bool MayPass(const Refused& refused);
  void TellOnce(const std::string& reason);

  const Settings& settings_;
  const AttachOptions& options_;
  SessionOptions session_;
  Credentials credentials_;
  time_t begun_ = 0;    // when the last session did
  bool known_ = false;  // the console was there at the last attempt
  std::string told_;
};

ExitStatus Attachment::AttachOnce() {
  std::optional<AttachHistory> history;
  const bool is_first = begun_ == 0;
  if (is_first && options_.history > 0) {
    history.emplace(settings_, options_.journal_dir, options_.history);
  }
  Opening opening = OpenNamed();
  known_ = true;
  told_.clear();
  if (history) history->Show(session_.console, opening);
  history.reset();
  const SessionResult result = RunAll(std::move(opening));
  if (result.end == SessionEnd::kSignal) EndBySignal(result.signal);
  if (result.end == SessionEnd::kHungUp) {
    throw Failure(ExitStatus::kSessionEnded,
                  "the terminal hung up, and the session was left; attach again from another one");
  }
  if (result.end == SessionEnd::kClosed) {
    const Unasking unasking(credentials_);
    const EndReason reason = ReasonOf(result, session_, begun_, settings_, credentials_);
    if (reason.wanted) throw CutOff(reason.text);
    throw Failure(ExitStatus::kSessionEnded, reason.text);
  }
  Say("Left " + session_.console + ".");
  return ExitStatus::kOk;
}

// The name as it was typed comes first: so a user whom the command port refuses can attach, too,
// and everybody else need not wait for all names.
Opening Attachment::OpenNamed() {
  try {
    return Open();
  } catch (const Refused& refused) {
    if (refused.number() != kNotFound || !FindName()) throw;
  }
  return Open();
}

// A console that others hold is refused with their names.
Opening Attachment::Open() {
  try {
    Opening opening =
        OpenMainPort(settings_, credentials_,
                     session_.console + " mode=" + session_.mode + " " + Introduction(settings_));
    begun_ = time(nullptr);
    return opening;
  } catch (const Refused& refused) {
    if (refused.status() != ExitStatus::kInUse) throw;
    const Unasking unasking(credentials_);
    throw Refused(refused.refusal(),
                  WithHolders(refused.refusal(), session_, settings_, credentials_));
  }
}

// False when the name means nothing else than what was refused. Throws Failure(kNoSuchConsole) when
// it means none of the consoles, or several. A console that was attached before may have got its
// other name since, but no other console shall take its place.
bool Attachment::FindName() {
  if (known_) return false;
  std::vector<std::string> names;
  try {
    const Unasking unasking(credentials_);
    names = NamesOf(CommandPort(settings_, credentials_).Consoles());
  } catch (const Failure&) {
    return false;
  }
  if (begun_ != 0) {
    std::erase_if(names,
                  [&](const std::string& name) { return !IsSameName(name, session_.console); });
    if (names.empty()) return false;
  }
  const std::string name = FindOneName(names, session_.console);
  return std::exchange(session_.console, name) != name;
}

// One session after the other, as the person at the terminal changes it.
SessionResult Attachment::RunAll(Opening opening) {
  for (;;) {
    SessionResult result = RunSession(std::move(opening), session_, settings_, credentials_);
    if (result.mid_line && isatty(STDOUT_FILENO) == 1) Announce("");
    if (result.end != SessionEnd::kChange) return result;
    opening = Change(result.change);
    // What was typed in the meantime was not meant for the console.
    tcflush(STDIN_FILENO, TCIFLUSH);
  }
}

// When the daemon does not grant the new mode, the old one is taken again.
Opening Attachment::Change(const SessionChange& change) {
  const std::string before = session_.mode;
  Say("Left " + session_.console + " to attach again, now " + ModeInFull(change.mode) + ".");
  try {
    return OpenInstead(change);
  } catch (const Failure& failure) {
    Warn(failure.what());
    session_.mode = before;
    Say("Attaching again as before, " + ModeInFull(before) + ".");
  }
  return Open();
}

Opening Attachment::OpenInstead(const SessionChange& change) {
  session_.console = change.console;
  session_.mode = change.mode;
  if (change.clear) {
    const Unasking unasking(credentials_);
    CommandPort(settings_, credentials_).Do("clear " + session_.console);
  }
  return Open();
}

bool Attachment::MayPass(const Failure& failure) {
  if (const auto* refused = dynamic_cast<const Refused*>(&failure)) return MayPass(*refused);
  if (dynamic_cast<const CutOff*>(&failure) != nullptr) return false;
  return failure.status() == ExitStatus::kNoDaemon || failure.status() == ExitStatus::kSessionEnded;
}

// A disabled console may be enabled again; a deleted one is gone. One that is just being connected
// or given up may not be found for a moment, but not twice in a row.
bool Attachment::MayPass(const Refused& refused) {
  const bool was_known = known_;
  known_ = refused.number() == kNotAccessible || refused.number() == kDisabled;
  return known_ || (was_known && refused.number() == kNotFound);
}

void Attachment::TellOnce(const std::string& reason) {
  if (reason == told_) return;
  Warn(reason);
  if (told_.empty()) {
    Say("Trying again every " + std::to_string(kRetryPause.count()) + " seconds; Ctrl-C ends it.");
  }
  told_ = reason;
}

std::string CheckName(const std::string& name) {
  if (name.empty() || name.find_first_of(" \t\r\n") != std::string::npos) {
    return "must be one word, without blanks";
  }
  if (name.size() > kLongestName) return "is too long for the name of a console";
  return name == kReservedName ? "is not the name of a console" : "";
}

}  // namespace

void AddAttachCommand(Command& app, Program& program) {
  const auto options = std::make_shared<AttachOptions>();
  Command command = app.AddCommand("attach", "Watch a console and type at it");
  command.AddOption("NAME", options->console, "Console").Required().Verify(CheckName);
  command
      .AddOption("--mode", options->mode,
                 "ro: watch only; sh: type together with others; ex: be the only one who types; "
                 "er: the same, until the next user comes")
      .OneOf({"ro", "sh", "ex", "er"})
      .ShowDefault();
  command
      .AddOption("--escape", options->escape,
                 "Key that begins an escape at the start of a line: a character, ^ and a letter, "
                 "or none")
      .Verify(CheckEscape)
      .ShowDefault();
  command.AddFlag("--retry", options->retry,
                  "Attach again when the console or the daemon comes back");
  command
      .AddOption("--history", options->history,
                 "First show so many of the last lines, from the journal")
      .InRange(size_t{0}, kMostHistory);
  command.AddOption("--journal-dir", options->journal_dir, kJournalDirHelp).ShowDefault();
  command.SetAction(program,
                    [options, &program] { return Attachment(program.settings, *options).Run(); });
}

}  // namespace zevctl
