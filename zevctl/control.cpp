// The commands that act on consoles: clear, disable, enable, msg, force, reconnect.
#include <algorithm>
#include <array>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>

#include "arguments.h"
#include "command_port.h"
#include "console_view.h"
#include "control_acts.h"
#include "json_line.h"
#include "output.h"
#include "program.h"
#include "selection.h"

namespace zevctl {

namespace {

struct ControlOptions {
  std::vector<std::string> patterns;
  std::vector<std::string> text;
  bool yes = false;
};

/// One of the commands.
struct ControlRow {
  const char* name;  ///< the command's name, here and on the wire
  const char* help;
  const char* question;  ///< begins the question before several consoles are acted on
};

constexpr ControlRow kMessage = {"msg", "Send a text to the users of consoles",
                                 "Send the message to the users of"};

constexpr std::array kControls = {
    ControlRow{"clear", "Disconnect the users of consoles", "Disconnect the users of"},
    ControlRow{"disable", "Disconnect consoles and their users, and leave them alone", "Disable"},
    ControlRow{"enable", "Let disabled consoles be connected again", "Enable"},
    ControlRow{"force", "Take the management port over at the next refusal",
               "Take over the management ports of"},
    ControlRow{"reconnect", "Try at once to connect consoles that are not connected", "Reconnect"},
};

// ---- Running them -------------------------------------------------------------------------------

/// Runs a command on one name after the other. One that fails does not stop the others; the first
/// failure decides the status.
class Control {
 public:
  Control(CommandPort& port, const ControlRow& row, std::string arguments)
      : port_(port), row_(row), arguments_(std::move(arguments)) {}

  void Run(const ControlTarget& target) {
    try {
      Report(target.name, PerformControl(port_, row_.name, target, arguments_));
    } catch (const CommandError& error) {
      Report(target.name, {error.status(), error.what()});
    }
  }

  ExitStatus Print(bool json) const {
    if (json) std::cout << JsonLine(data_) << "\n";
    for (const auto& [done, line] : lines_) {
      if (!done) Warn(line);
      if (done && !json) std::cout << line << "\n";
    }
    return status_;
  }

 private:
  struct Line {
    bool done;
    std::string text;
  };

  void Report(const std::string& name, const ControlOutcome& outcome) {
    const bool done = outcome.status == ExitStatus::kOk;
    data_.push_back({{"console", Utf8(name)}, {"done", done}, {"text", Utf8(outcome.text)}});
    lines_.push_back({done, Printable(name) + ": " + Printable(outcome.text)});
    if (status_ == ExitStatus::kOk) status_ = outcome.status;
  }

  CommandPort& port_;
  const ControlRow& row_;
  std::string arguments_;
  Json data_ = Json::array();
  std::vector<Line> lines_;
  ExitStatus status_ = ExitStatus::kOk;
};

std::vector<ControlTarget> Choose(CommandPort& port, const ControlRow& row,
                                  const ControlOptions& options) {
  const auto chosen = Select(ViewConsoles(port), options.patterns, Purpose::kAct);
  if (!options.yes) Confirm(row.question, NamesOf(chosen.records), chosen.by_name);
  std::vector<ControlTarget> targets;
  for (auto& group : GroupedByName(chosen.records)) targets.push_back({group.front().name, group});
  return targets;
}

ExitStatus RunOnAll(const Settings& settings, const ControlRow& row, const ControlOptions& options,
                    const std::string& arguments) {
  Credentials credentials(UserName(settings));
  CommandPort port(settings, credentials);
  Control control(port, row, arguments);
  for (const ControlTarget& target : Choose(port, row, options)) control.Run(target);
  return control.Print(settings.json);
}

ExitStatus RunControl(const Settings& settings, const ControlRow& row,
                      const ControlOptions& options) {
  return RunOnAll(settings, row, options, "");
}

// A line end would end the command in the middle of the text.
std::string Joined(const std::vector<std::string>& words) {
  std::string text;
  for (const std::string& word : words) text += " " + word;
  if (text.find_first_of("\r\n") == std::string::npos) return text;
  throw Failure(ExitStatus::kUsage, "the text must be one line; leave out the line ends");
}

ExitStatus RunMessage(const Settings& settings, const ControlOptions& options) {
  return RunOnAll(settings, kMessage, options, Joined(options.text));
}

void AddYes(Command& command, ControlOptions& options) {
  command.AddFlag("-y,--yes", options.yes,
                  "Do not ask before acting on several consoles, or on a pattern");
}

void AddControl(Command& app, Program& program, const ControlRow& row) {
  auto options = std::make_shared<ControlOptions>();
  Command command = app.AddCommand(row.name, row.help);
  command.AddOption("NAME", options->patterns, "Names or shell patterns").Required();
  AddYes(command, *options);
  command.SetAction(
      program, [options, &row, &program] { return RunControl(program.settings, row, *options); });
}

void AddMessage(Command& app, Program& program) {
  auto options = std::make_shared<ControlOptions>();
  Command command = app.AddCommand(kMessage.name, kMessage.help);
  command.AddOption("NAME", options->patterns.emplace_back(), "A name or shell pattern").Required();
  command.AddOption("TEXT", options->text, "The text; several words are joined by blanks")
      .Required();
  AddYes(command, *options);
  command.SetAction(program,
                    [options, &program] { return RunMessage(program.settings, *options); });
}

}  // namespace

void AddControlCommands(Command& app, Program& program) {
  for (const ControlRow& row : kControls) AddControl(app, program, row);
  AddMessage(app, program);
}

}  // namespace zevctl
