// "zevctl attach": a session at a console, or with --retry one after another.
#include <termios.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <memory>
#include <thread>

#include "escape.h"
#include "login.h"
#include "output.h"
#include "program.h"
#include "session.h"

namespace zevctl {

namespace {

constexpr std::chrono::seconds kRetryPause{2};

constexpr size_t kLongestName = 64;                 // the daemon cuts what is longer
constexpr std::string_view kReservedName = "@@@@";  // makes a connection a command port

constexpr int kNotFound = 4;
constexpr int kNotAccessible = 5;
constexpr int kDisabled = 12;

struct AttachOptions {
  std::string console;
  std::string mode = "sh";
  std::string escape = "~";
  bool retry = false;
};

/// The daemon closed the session because somebody asked it to. Attaching again would defeat that,
/// and two users could go on taking the console from each other without end.
class Terminated : public Failure {
 public:
  explicit Terminated(const std::string& console)
      : Failure(ExitStatus::kSessionEnded,
                "somebody took the console over or cleared it; \"zevctl who " + console +
                    "\" tells who has it") {}
};

Failure Closed(const std::string& console) {
  return {ExitStatus::kSessionEnded,
          "the daemon closed the session: the console's connection was lost, the console was "
          "disabled or deleted, or the daemon ended; \"zevctl list " +
              console + "\" tells its state, --retry waits for it"};
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
        session_{options.console, options.mode, ToEscape(options.escape)},
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
  bool MayPass(const Failure& failure);
  bool MayPass(const Refused& refused);
  void TellOnce(const std::string& reason);

  const Settings& settings_;
  const AttachOptions& options_;
  SessionOptions session_;
  Credentials credentials_;
  bool known_ = false;  // the console was there at the last attempt
  std::string told_;
};

ExitStatus Attachment::AttachOnce() {
  Opening opening =
      OpenMainPort(settings_, credentials_,
                   options_.console + " mode=" + options_.mode + " " + Introduction(settings_));
  known_ = true;
  told_.clear();
  const SessionResult result = RunSession(std::move(opening), session_);
  if (result.mid_line && isatty(STDOUT_FILENO) == 1) Announce("");
  if (result.end == SessionEnd::kSignal) EndBySignal(result.signal);
  if (result.end == SessionEnd::kTerminated) throw Terminated(Printable(options_.console));
  if (result.end == SessionEnd::kClosed) throw Closed(Printable(options_.console));
  Announce("Left " + Printable(options_.console) + ".");
  return ExitStatus::kOk;
}

bool Attachment::MayPass(const Failure& failure) {
  if (const auto* refused = dynamic_cast<const Refused*>(&failure)) return MayPass(*refused);
  if (dynamic_cast<const Terminated*>(&failure) != nullptr) return false;
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
    Announce("Trying again every " + std::to_string(kRetryPause.count()) +
             " seconds; Ctrl-C ends it.");
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

void AddAttachCommand(CLI::App& app, Program& program) {
  const auto options = std::make_shared<AttachOptions>();
  CLI::App* command = app.add_subcommand("attach", "Watch a console and type at it");
  command->add_option("NAME", options->console, "Console")->required()->check(CheckName);
  command
      ->add_option("--mode", options->mode,
                   "ro: watch only; sh: type together with others; ex: be the only one who types; "
                   "er: the same, until the next user comes")
      ->check(CLI::IsMember({"ro", "sh", "ex", "er"}))
      ->capture_default_str();
  command
      ->add_option("--escape", options->escape,
                   "Key that begins an escape at the start of a line: a character, ^ and a letter, "
                   "or none")
      ->check(CheckEscape)
      ->capture_default_str();
  command->add_flag("--retry", options->retry,
                    "Attach again when the console or the daemon comes back");
  command->callback([options, &program] {
    program.action = [options, &program] { return Attachment(program.settings, *options).Run(); };
  });
}

}  // namespace zevctl
