// The commands that act on consoles: clear, disable, enable, msg, force, reconnect.
#include <CLI/CLI.hpp>
#include <array>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>

#include "command_port.h"
#include "console_words.h"
#include "output.h"
#include "program.h"
#include "selection.h"

namespace zevctl {

namespace {

using Json = nlohmann::ordered_json;

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
  const char* done;      ///< reported for every console
};

constexpr ControlRow kMessage = {"msg", "Send a text to the users of consoles",
                                 "Send the message to the users of", "told"};

constexpr std::array kControls = {
    ControlRow{"clear", "Disconnect the users of consoles", "Disconnect the users of",
               "its users were disconnected"},
    ControlRow{"disable", "Disconnect consoles and their users, and leave them alone", "Disable",
               "disabled"},
    ControlRow{"enable", "Let disabled consoles be connected again", "Enable",
               "enabled; the daemon connects to it within a minute"},
    ControlRow{"force", "Take the management port over at the next refusal",
               "Take over the management ports of",
               "its management port will be taken over at the next refusal"},
    ControlRow{"reconnect", "Connect disconnected consoles at once", "Reconnect",
               "tried at once, unless it is connected or disabled"},
};

/// Runs a command on one console after the other. One that fails does not stop the others; the
/// first failure decides the status.
class Control {
 public:
  Control(CommandPort& port, const ControlRow& row, std::string arguments)
      : port_(port), row_(row), arguments_(std::move(arguments)) {}

  void Run(const std::string& name) {
    try {
      port_.Do(std::string(row_.name) + " " + name + arguments_);
      Report(name, ExitStatus::kOk, row_.done);
    } catch (const CommandError& error) {
      Report(name, error.status(), error.what());
    }
  }

  void Report(const std::string& name, ExitStatus status, const std::string& text) {
    const bool done = status == ExitStatus::kOk;
    data_.push_back({{"console", Utf8(name)}, {"done", done}, {"text", Utf8(text)}});
    lines_.push_back({done, Printable(name) + ": " + Printable(text)});
    if (status_ == ExitStatus::kOk) status_ = status;
  }

  ExitStatus Print(bool json) const {
    if (json) std::cout << EscapedJson(data_.dump()) << "\n";
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

  CommandPort& port_;
  const ControlRow& row_;
  std::string arguments_;
  Json data_ = Json::array();
  std::vector<Line> lines_;
  ExitStatus status_ = ExitStatus::kOk;
};

std::vector<std::string> Choose(const std::vector<ConsoleRecord>& consoles, const ControlRow& row,
                                const ControlOptions& options) {
  std::vector<std::string> names = NamesOf(Select(consoles, options.patterns));
  if (!options.yes) Confirm(row.question, names);
  return names;
}

ExitStatus RunControl(const Settings& settings, const ControlRow& row,
                      const ControlOptions& options) {
  Credentials credentials(UserName(settings));
  CommandPort port(settings, credentials);
  Control control(port, row, "");
  for (const std::string& name : Choose(port.Consoles(), row, options)) control.Run(name);
  return control.Print(settings.json);
}

// A line end would end the command in the middle of the text.
std::string Joined(const std::vector<std::string>& words) {
  std::string text;
  for (const std::string& word : words) text += " " + word;
  if (text.find_first_of("\r\n") == std::string::npos) return text;
  throw Failure(ExitStatus::kUsage, "the text must be one line");
}

bool IsConnected(const std::vector<ConsoleRecord>& consoles, const std::string& name) {
  return std::any_of(consoles.begin(), consoles.end(), [&](const ConsoleRecord& console) {
    const std::string state = StateInWords(console.state);
    return console.name == name && (state == "connected" || state == "in-use");
  });
}

// For this command the daemon knows no console by its name that is not connected.
ExitStatus RunMessage(const Settings& settings, const ControlOptions& options) {
  const std::string text = Joined(options.text);
  Credentials credentials(UserName(settings));
  CommandPort port(settings, credentials);
  const std::vector<ConsoleRecord> consoles = port.Consoles();
  Control control(port, kMessage, text);
  for (const std::string& name : Choose(consoles, kMessage, options)) {
    if (IsConnected(consoles, name)) {
      control.Run(name);
    } else {
      control.Report(name, ExitStatus::kNotAccessible, "it is not connected and has no users");
    }
  }
  return control.Print(settings.json);
}

void AddYes(CLI::App* command, ControlOptions& options) {
  command->add_flag("-y,--yes", options.yes, "Do not ask before acting on several consoles");
}

void AddControl(CLI::App& app, Program& program, const ControlRow& row) {
  auto options = std::make_shared<ControlOptions>();
  CLI::App* command = app.add_subcommand(row.name, row.help);
  command->add_option("NAME", options->patterns, "Names or shell patterns")->required();
  AddYes(command, *options);
  command->callback([options, &row, &program] {
    program.action = [options, &row, &program] {
      return RunControl(program.settings, row, *options);
    };
  });
}

void AddMessage(CLI::App& app, Program& program) {
  auto options = std::make_shared<ControlOptions>();
  CLI::App* command = app.add_subcommand(kMessage.name, kMessage.help);
  command->add_option("NAME", options->patterns.emplace_back(), "A name or shell pattern")
      ->required();
  command->add_option("TEXT", options->text, "The text; several words are joined by blanks")
      ->required();
  AddYes(command, *options);
  command->callback([options, &program] {
    program.action = [options, &program] { return RunMessage(program.settings, *options); };
  });
}

}  // namespace

void AddControlCommands(CLI::App& app, Program& program) {
  for (const ControlRow& row : kControls) AddControl(app, program, row);
  AddMessage(app, program);
}

}  // namespace zevctl
