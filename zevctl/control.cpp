// The commands that act on consoles: clear, disable, enable, msg, force, reconnect.
#include <algorithm>
#include <array>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>

#include "arguments.h"
#include "command_port.h"
#include "console_view.h"
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

/// The consoles of one name, as they were before the command. There is at least one.
struct Target {
  std::string name;
  std::vector<ConsoleView> consoles;
};

/// What became of a command on one name.
struct Outcome {
  ExitStatus status = ExitStatus::kOk;
  std::string text;
};

/// One of the commands.
struct ControlRow {
  const char* name;  ///< the command's name, here and on the wire
  const char* help;
  const char* question;  ///< begins the question before several consoles are acted on
  Outcome (*run)(CommandPort& port, const Target& target, const std::string& command);
};

// ---- What the targets were like -----------------------------------------------------------------

template <typename Condition>
const ConsoleView* FirstThat(const Target& target, Condition condition) {
  const auto found = std::find_if(target.consoles.begin(), target.consoles.end(), condition);
  return found == target.consoles.end() ? nullptr : &*found;
}

const ConsoleView* FirstUp(const Target& target) {
  return FirstThat(target, [](const ConsoleView& console) { return console.IsUp(); });
}

const ConsoleView* FirstDown(const Target& target) {
  return FirstThat(target, [](const ConsoleView& console) { return !console.IsUp(); });
}

bool AllDisabled(const Target& target) {
  return std::all_of(target.consoles.begin(), target.consoles.end(),
                     [](const ConsoleView& console) { return console.IsDisabled(); });
}

bool AnyDisabled(const Target& target) {
  return FirstThat(target, [](const ConsoleView& console) { return console.IsDisabled(); });
}

// "2 users were disconnected: ann, bob"
std::string Disconnected(const std::vector<std::string>& users) {
  std::string text = std::to_string(users.size());
  text += users.size() == 1 ? " user was disconnected: " : " users were disconnected: ";
  for (const std::string& user : users) text += (&user == users.data() ? "" : ", ") + user;
  return text;
}

// ---- The commands -------------------------------------------------------------------------------

// Of several consoles of one name, the daemon clears the first that is connected.
Outcome Clear(CommandPort& port, const Target& target, const std::string& command) {
  port.Do(command);
  const ConsoleView* const console = FirstUp(target);
  if (console == nullptr) {
    return {ExitStatus::kOk, "nobody was attached: it is " + target.consoles.front().state_word};
  }
  if (!console->users) return {ExitStatus::kOk, "its users were disconnected"};
  if (console->users->empty()) return {ExitStatus::kOk, "nobody was attached"};
  return {ExitStatus::kOk, Disconnected(*console->users)};
}

Outcome Disable(CommandPort& port, const Target& target, const std::string& command) {
  port.Do(command);
  if (AllDisabled(target)) return {ExitStatus::kOk, "was disabled already"};
  std::vector<std::string> users;
  for (const ConsoleView& console : target.consoles) {
    if (console.users) users.insert(users.end(), console.users->begin(), console.users->end());
  }
  const std::string gone = users.empty() ? "" : "; " + Disconnected(users);
  return {ExitStatus::kOk,
          "disabled, until it is enabled or the daemon reloads or restarts" + gone};
}

Outcome Enable(CommandPort& port, const Target& target, const std::string& command) {
  port.Do(command);
  if (AnyDisabled(target)) {
    return {ExitStatus::kOk, "enabled; the daemon connects to it at once"};
  }
  return {ExitStatus::kOk, "was enabled already: it is " + target.consoles.front().state_word};
}

// Only the daemon knows the models of which a management port can be taken over.
bool CannotBeForced(CommandPort& port, const std::string& name) {
  try {
    port.PortHolders(name);
  } catch (const CommandError& error) {
    return error.text() == kNotAPelloxConsole;
  }
  return false;
}

Outcome Force(CommandPort& port, const Target& target, const std::string& command) {
  if (FirstDown(target) == nullptr) {
    return {ExitStatus::kFailed,
            "not forced: it is connected, and there is nothing to take over; \"zevctl clear\" "
            "disconnects its users"};
  }
  if (AllDisabled(target)) {
    return {ExitStatus::kNotAccessible, "not forced: it is disabled; \"zevctl enable\" it first"};
  }
  if (CannotBeForced(port, target.name)) {
    return {ExitStatus::kFailed,
            "not forced: only the management port of a Pellox console can be taken over; "
            "\"zevctl reconnect\" tries at once to connect"};
  }
  port.Do(command);
  return {ExitStatus::kOk, "its management port will be taken over at the next refusal"};
}

Outcome Reconnect(CommandPort& port, const Target& target, const std::string& command) {
  port.Do(command);
  if (AllDisabled(target)) {
    return {ExitStatus::kNotAccessible, "not tried: it is disabled; \"zevctl enable\" it first"};
  }
  const ConsoleView* const down = FirstDown(target);
  if (down == nullptr) return {ExitStatus::kOk, "is connected already"};
  if (down->state_word == "connecting") return {ExitStatus::kOk, "is being tried already"};
  return {ExitStatus::kOk, "the daemon is trying to connect; \"zevctl list\" shows the result"};
}

// For this command the daemon knows no console by its name that is not connected.
Outcome Message(CommandPort& port, const Target& target, const std::string& command) {
  const ConsoleView* const console = FirstUp(target);
  if (console == nullptr) {
    return {ExitStatus::kNotAccessible,
            "it is not connected and has no users; \"zevctl list\" shows its state"};
  }
  port.Do(command);
  if (console->users && console->users->empty() && target.consoles.size() == 1) {
    return {ExitStatus::kOk, "nobody is attached"};
  }
  return {ExitStatus::kOk, "told"};
}

constexpr ControlRow kMessage = {"msg", "Send a text to the users of consoles",
                                 "Send the message to the users of", Message};

constexpr std::array kControls = {
    ControlRow{"clear", "Disconnect the users of consoles", "Disconnect the users of", Clear},
    ControlRow{"disable", "Disconnect consoles and their users, and leave them alone", "Disable",
               Disable},
    ControlRow{"enable", "Let disabled consoles be connected again", "Enable", Enable},
    ControlRow{"force", "Take the management port over at the next refusal",
               "Take over the management ports of", Force},
    ControlRow{"reconnect", "Try at once to connect consoles that are not connected", "Reconnect",
               Reconnect},
};

// ---- Running them -------------------------------------------------------------------------------

/// Runs a command on one name after the other. One that fails does not stop the others; the first
/// failure decides the status.
class Control {
 public:
  Control(CommandPort& port, const ControlRow& row, std::string arguments)
      : port_(port), row_(row), arguments_(std::move(arguments)) {}

  void Run(const Target& target) {
    try {
      const std::string command = std::string(row_.name) + " " + target.name + arguments_;
      Report(target.name, row_.run(port_, target, command));
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

  void Report(const std::string& name, const Outcome& outcome) {
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

std::vector<Target> Choose(CommandPort& port, const ControlRow& row,
                           const ControlOptions& options) {
  const auto chosen = Select(ViewConsoles(port), options.patterns, Purpose::kAct);
  if (!options.yes) Confirm(row.question, NamesOf(chosen.records), chosen.by_name);
  std::vector<Target> targets;
  for (auto& group : GroupedByName(chosen.records)) targets.push_back({group.front().name, group});
  return targets;
}

ExitStatus RunOnAll(const Settings& settings, const ControlRow& row, const ControlOptions& options,
                    const std::string& arguments) {
  Credentials credentials(UserName(settings));
  CommandPort port(settings, credentials);
  Control control(port, row, arguments);
  for (const Target& target : Choose(port, row, options)) control.Run(target);
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
