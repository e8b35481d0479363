// zevctl: the operators' client of zevd. Options and commands are declared here and in the files of
// the commands; zevctl.1 describes them and changes together with them.
#include <fcntl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <exception>
#include <iostream>
#include <string>
#include <string_view>

#include "mistake.h"
#include "output.h"
#include "program.h"

namespace {

using zevctl::ExitStatus;
using zevctl::Program;
using zevctl::Settings;

// The daemon splits its lines at blanks, so a name with one would become something else.
std::string RefuseBlanks(const std::string& text) {
  const bool has_blank = text.find_first_of(" \t\r\n") != std::string::npos;
  return has_blank || text.empty() ? "must be one word, without blanks" : "";
}

void AddStationOptions(CLI::App& app, Settings& settings) {
  app.add_option("--host", settings.host, "Host on which zevd runs")
      ->envname("ZEVCTL_HOST")
      ->capture_default_str();
  app.add_option("--port", settings.port, "Its main port")
      ->envname("ZEVCTL_PORT")
      ->check(CLI::Range(1, 65535))
      ->capture_default_str();
  CLI::Option* cookie_file =
      app.add_option("--cookie-file", settings.cookie_file, "File with the daemon's cookie")
          ->each([&settings](const std::string&) { settings.cookie_file_given = true; })
          ->capture_default_str();
  app.add_flag("--tunnel", settings.tunnel,
               "The port is your own tunnel to the daemon; your password may be sent through it")
      ->excludes(cookie_file);
  app.add_option("--user", settings.user, "Name that others see; your login name if not given")
      ->check(RefuseBlanks);
  app.add_option(
         "--from", settings.from,
         "Address that others see, for somebody who comes from elsewhere; the connection's own "
         "if not given")
      ->check(RefuseBlanks);
  app.add_flag("--json", settings.json, "Print data as JSON");
}

void DeclareCommands(CLI::App& app, Program& program) {
  app.fallthrough();  // the options of the station may follow the command
  app.require_subcommand(1);
  app.set_version_flag("--version", "zevctl " QOR_VERSION);
  AddStationOptions(app, program.settings);
  AddListCommand(app, program);
  AddQueryCommands(app, program);
  AddControlCommands(app, program);
  AddAttachCommand(app, program);
  AddLogCommand(app, program);
  AddEventsCommand(app, program);
  AddConfigCommand(app, program);
  AddSetupCommand(app, program);
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
ExitStatus Explain(const CLI::App& app, const CLI::ParseError& error) {
  if (error.get_exit_code() != static_cast<int>(CLI::ExitCodes::Success)) {
    return ReportFailure(ExitStatus::kUsage, zevctl::MistakeIn(app, error));
  }
  app.exit(error);
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

ExitStatus ParseAndRun(CLI::App& app, Program& program, int argc, char** argv) {
  if (IsBeingTyped(argc, argv)) return zevctl::Complete(app, {argv + 2, argv + argc});
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return Explain(app, error);
  }
  return Run(program);
}

}  // namespace

int main(int argc, char** argv) {
  try {
    OccupyStandardDescriptors();
    CLI::App app("Watches and works the consoles of a zevd station.", "zevctl");
    Program program;
    DeclareCommands(app, program);
    return static_cast<int>(ParseAndRun(app, program, argc, argv));
  } catch (...) {
    // Not even a message can be relied on here: there may be no memory for it.
    return static_cast<int>(ExitStatus::kFailed);
  }
}
