// zevctl: the operators' client of zevd. Options and commands are declared here and in the files of
// the commands; zevctl.1 describes them and changes together with them.
#include <fcntl.h>
#include <unistd.h>

#include <exception>
#include <iostream>
#include <string>
#include <string_view>

#include "arguments.h"
#include "far_commands.h"
#include "mistake.h"
#include "output.h"
#include "program.h"

namespace {

using zevctl::Command;
using zevctl::CommandLine;
using zevctl::ExitStatus;
using zevctl::Option;
using zevctl::ParseEnd;
using zevctl::ParseResult;
using zevctl::Program;
using zevctl::Settings;

// The daemon splits its lines at blanks, so a name with one would become something else.
std::string RefuseBlanks(const std::string& text) {
  const bool has_blank = text.find_first_of(" \t\r\n") != std::string::npos;
  return has_blank || text.empty() ? "must be one word, without blanks" : "";
}

void AddStationOptions(Command& app, Settings& settings) {
  app.AddOption("--host", settings.host, "Host on which zevd runs")
      .FromVariable("ZEVCTL_HOST")
      .ShowDefault();
  app.AddOption("--port", settings.port, "Its main port")
      .FromVariable("ZEVCTL_PORT")
      .InRange(1, 65535)
      .ShowDefault();
  const Option cookie_file =
      app.AddOption("--cookie-file", settings.cookie_file, "File with the daemon's cookie")
          .Tell(settings.cookie_file_given)
          .ShowDefault();
  app.AddFlag("--tunnel", settings.tunnel,
              "The port is your own tunnel to the daemon; your password may be sent through it")
      .Excludes(cookie_file);
  app.AddOption("--user", settings.user, "Name that others see; your login name if not given")
      .Verify(RefuseBlanks);
  app.AddOption(
         "--from", settings.from,
         "Address that others see, for somebody who comes from elsewhere; the connection's own "
         "if not given")
      .Verify(RefuseBlanks);
  app.AddFlag("--json", settings.json, "Print data as JSON");
  app.AddFlag("--fleet", settings.fleet, "The consoles of all stations of the fleet are meant");
  app.AddOption("--fleet-map", settings.fleet_map, "The map of the fleet").ShowDefault();
  app.AddOption("--ssh", settings.fleet_ssh, "Program that reaches the other stations")
      .FromVariable("ZEVCTL_SSH")
      .ShowDefault();
}

void DeclareCommands(Command& app, Program& program) {
  app.RequireCommand();
  AddStationOptions(app, program.settings);
  AddListCommand(app, program);
  AddQueryCommands(app, program);
  AddControlCommands(app, program);
  AddAttachCommand(app, program);
  AddLogCommand(app, program);
  AddHistoryCommand(app, program);
  AddReplayCommand(app, program);
  AddEventsCommand(app, program);
  AddRehearseCommand(app, program);
  AddAuditCommand(app, program);
  AddHealthCommand(app, program);
  AddConfigCommand(app, program);
  AddSetupCommand(app, program);
  AddJournalCommand(app, program);
  AddTokenCommand(app, program);
  AddReportCommand(app, program);
  AddCompletionCommand(app, program);
}

ExitStatus ReportFailure(ExitStatus status, const std::string& message) {
  std::cout.flush();
  zevctl::Warn(message);
  return status;
}

ExitStatus Run(const Program& program) {
  try {
    const ExitStatus status = program.action();
    std::cout.flush();
    if (std::cout) return status;
    return ReportFailure(ExitStatus::kFailed,
                         "the output cannot be written; look at what reads it");
  } catch (const zevctl::Failure& failure) {
    return ReportFailure(failure.status(), failure.what());
  } catch (const std::exception& error) {
    return ReportFailure(ExitStatus::kFailed, error.what());
  }
}

// Help and version are answers; everything else that stops the parser is a mistake in the line.
ExitStatus Explain(const Command& app, const ParseResult& result) {
  if (result.end != ParseEnd::kAnswered) {
    return ReportFailure(ExitStatus::kUsage, zevctl::MistakeIn(app, result));
  }
  std::cout << result.text;
  return ExitStatus::kOk;
}

// A line that is still being typed is not parsed but completed.
bool IsBeingTyped(int argc, char** argv) {
  return argc > 1 && std::string_view(argv[1]) == "complete";
}

// A connection or a file must not take the number of a standard stream that was closed.
void OccupyStandardDescriptors() {
  int fd = open("/dev/null", O_RDWR);
  while (fd >= 0 && fd <= STDERR_FILENO) fd = open("/dev/null", O_RDWR);
  if (fd > STDERR_FILENO) close(fd);
}

ExitStatus ParseAndRun(CommandLine& line, Program& program, int argc, char** argv) {
  if (IsBeingTyped(argc, argv)) return zevctl::Complete(line.program(), {argv + 2, argv + argc});
  const ParseResult result = line.Parse(argc, argv);
  if (result.end != ParseEnd::kParsed) return Explain(line.program(), result);
  if (program.settings.fleet) {
    program.action = [&] {
      return zevctl::RunInFleet(line.program(), program.settings, {argv + 1, argv + argc});
    };
  }
  return Run(program);
}

}  // namespace

int main(int argc, char** argv) {
  try {
    OccupyStandardDescriptors();
    CommandLine line("Watches and works the consoles of a zevd station.", "zevctl",
                     "zevctl " QOR_VERSION);
    Command app = line.program();
    Program program;
    DeclareCommands(app, program);
    return static_cast<int>(ParseAndRun(line, program, argc, argv));
  } catch (...) {
    // Not even a message can be relied on here: there may be no memory for it.
    return static_cast<int>(ExitStatus::kFailed);
  }
}
