// The commands that only look: list, who, ports, holder.
#include <signal.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <ctime>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <sstream>
#include <thread>

#include "attendance.h"
#include "command_port.h"
#include "console_words.h"
#include "output.h"
#include "program.h"
#include "selection.h"

namespace zevctl {

namespace {

using Json = nlohmann::ordered_json;

constexpr std::chrono::seconds kWatchInterval{2};
constexpr char kClearScreen[] = "\x1b[H\x1b[2J";

/// A command connection that can be opened again after the daemon was gone.
class Station {
 public:
  explicit Station(const Settings& settings)
      : settings_(settings), credentials_(UserName(settings)) {}

  CommandPort& Port() {
    if (!port_) port_ = std::make_unique<CommandPort>(settings_, credentials_);
    return *port_;
  }

  void Drop() { port_.reset(); }

 private:
  const Settings& settings_;
  Credentials credentials_;
  std::unique_ptr<CommandPort> port_;
};

void PrintJson(const Json& data) {
  std::cout << EscapedJson(data.dump()) << "\n";
}

void PrintTable(const Table& table, std::ostream& out = std::cout) {
  table.Print(out, TerminalWidth(), ColoursWanted());
}

Cell Text(const std::string& text) {
  return {Printable(text)};
}

// ---- list ---------------------------------------------------------------------------------------

struct ListOptions {
  std::vector<std::string> patterns;
  std::vector<std::string> states;
  bool watch = false;
};

struct ListedConsole {
  ConsoleRecord record;
  size_t users = 0;
};

Colour ColourOf(const std::string& state) {
  if (state == "connected" || state == "in-use") return Colour::kGreen;
  if (state == "connecting") return Colour::kYellow;
  return state == "disabled" ? Colour::kDim : Colour::kRed;
}

bool IsWanted(const ConsoleRecord& console, const std::vector<std::string>& states) {
  return states.empty() ||
         std::find(states.begin(), states.end(), StateInWords(console.state)) != states.end();
}

// Only a console in use has users. Those that the daemon hides do not count for its state.
size_t CountUsers(CommandPort& port, const ConsoleRecord& console) {
  return StateInWords(console.state) == "in-use" ? port.Users(console.name).size() : 0;
}

std::vector<ListedConsole> FetchList(CommandPort& port, const ListOptions& options) {
  std::vector<ListedConsole> list;
  for (const ConsoleRecord& console : Select(port.Consoles(), options.patterns)) {
    if (IsWanted(console, options.states)) list.push_back({console, CountUsers(port, console)});
  }
  return list;
}

Json ListAsJson(const std::vector<ListedConsole>& list) {
  Json data = Json::array();
  for (const auto& [console, users] : list) {
    data.push_back({{"name", Utf8(console.name)},
                    {"state", StateInWords(console.state)},
                    {"users", users},
                    {"mode", ModeInWords(console.mode)},
                    {"address", Utf8(console.address)},
                    {"port", console.port},
                    {"management_port", console.management_port},
                    {"model", Utf8(console.model)},
                    {"platform", Utf8(console.platform)}});
  }
  return data;
}

Table ListAsTable(const std::vector<ListedConsole>& list) {
  Table table({"NAME", "STATE", "USERS", "MODE", "ADDRESS", "PORT", "MODEL", "PLATFORM"});
  for (const auto& [console, users] : list) {
    const std::string state = StateInWords(console.state);
    table.Add({Text(console.name),
               {state, ColourOf(state)},
               Text(std::to_string(users)),
               Text(ModeInWords(console.mode)),
               Text(console.address),
               Text(std::to_string(console.port)),
               Text(console.model),
               Text(console.platform)});
  }
  return table;
}

std::string RenderList(CommandPort& port, const ListOptions& options, bool json) {
  const auto list = FetchList(port, options);
  std::ostringstream text;
  if (json) {
    text << EscapedJson(ListAsJson(list).dump()) << "\n";
  } else {
    PrintTable(ListAsTable(list), text);
  }
  return text.str();
}

// A terminal shows the newest state; a pipe gets every state that differs from the one before.
void ShowNext(const std::string& text, std::string& shown) {
  const bool terminal = isatty(STDOUT_FILENO) == 1;
  if (terminal) {
    std::cout << kClearScreen << text << std::flush;
  } else if (text != shown) {
    std::cout << text << std::flush;
  }
  shown = text;
}

// The first look must succeed; later ones wait for a daemon that is started again.
[[noreturn]] void Watch(Station& station, const ListOptions& options, bool json) {
  std::string shown;
  for (bool first = true;; first = false) {
    try {
      ShowNext(RenderList(station.Port(), options, json), shown);
    } catch (const Failure& failure) {
      if (first || failure.status() != ExitStatus::kNoDaemon) throw;
      Warn(failure.what());
      station.Drop();
    }
    if (!std::cout) throw Failure(ExitStatus::kFailed, "the output cannot be written");
    std::this_thread::sleep_for(kWatchInterval);
  }
}

ExitStatus List(const Settings& settings, const ListOptions& options) {
  Station station(settings);
  if (options.watch) Watch(station, options, settings.json);
  std::cout << RenderList(station.Port(), options, settings.json);
  return ExitStatus::kOk;
}

// ---- who, ports, holder -------------------------------------------------------------------------

using Patterns = std::vector<std::string>;

ExitStatus Who(const Settings& settings, const Patterns& patterns) {
  Station station(settings);
  Json data = Json::array();
  Table table({"CONSOLE", "USER", "MODE", "ADDRESS"});
  Attendance attendance(station.Port());
  for (const auto& consoles : GroupedByName(Select(station.Port().Consoles(), patterns))) {
    const std::string& name = consoles.front().name;
    for (const UserRecord& user : attendance.At(consoles)) {
      const std::string mode = ModeInWords(user.mode);
      data.push_back({{"console", Utf8(name)},
                      {"user", Utf8(user.name)},
                      {"mode", mode},
                      {"address", Utf8(user.address)}});
      table.Add({Text(name), Text(user.name), Text(mode), Text(user.address)});
    }
  }
  settings.json ? PrintJson(data) : PrintTable(table);
  return ExitStatus::kOk;
}

// A console is reached on a port of its own, or else only by its name on the main port.
ExitStatus Ports(const Settings& settings, const Patterns& patterns) {
  Station station(settings);
  Json data = Json::array();
  Table table({"NAME", "USER-PORT", "LOGIN", "ADDRESS", "PORT"});
  for (const MappedPortRecord& console : Select(station.Port().MappedPorts(), patterns)) {
    const bool login = console.authentication == 1;
    data.push_back({{"name", Utf8(console.name)},
                    {"user_port", console.mapped_port},
                    {"login", login},
                    {"address", Utf8(console.address)},
                    {"port", console.port}});
    const bool mapped = console.mapped_port != 0;
    table.Add({Text(console.name), Text(mapped ? std::to_string(console.mapped_port) : "-"),
               Text(login ? "yes" : "no"), Text(console.address),
               Text(std::to_string(console.port))});
  }
  settings.json ? PrintJson(data) : PrintTable(table);
  return ExitStatus::kOk;
}

/// Collects what was found for each console. When the daemon has no answer for one, that does not
/// stop the others.
class HolderReport {
 public:
  void Ask(CommandPort& port, const std::string& name) {
    try {
      Add(name, port.PortHolders(name));
    } catch (const CommandError& error) {
      Warn(Printable(name) + ": " + Printable(error.what()));
      if (status_ == ExitStatus::kOk) status_ = error.status();
    }
  }

  ExitStatus Print(bool json) const {
    json ? PrintJson(data_) : PrintTable(table_);
    return status_;
  }

 private:
  void Add(const std::string& name, const std::vector<std::string>& addresses) {
    for (const std::string& address : addresses) {
      data_.push_back({{"console", Utf8(name)}, {"holder", Utf8(address)}});
      table_.Add({Text(name), Text(address)});
    }
  }

  Json data_ = Json::array();
  Table table_{{"CONSOLE", "HOLDER"}};
  ExitStatus status_ = ExitStatus::kOk;
};

ExitStatus Holder(const Settings& settings, const Patterns& patterns) {
  Station station(settings);
  HolderReport report;
  for (const std::string& name : NamesOf(Select(station.Port().Consoles(), patterns))) {
    report.Ask(station.Port(), name);
  }
  return report.Print(settings.json);
}

void AddList(CLI::App& app, Program& program) {
  auto options = std::make_shared<ListOptions>();
  CLI::App* command = app.add_subcommand("list", "Show consoles with their state and users");
  command->add_option("PATTERN", options->patterns, "Names or shell patterns; all if not given");
  command->add_option("--state", options->states, "Only consoles in this state; may be repeated")
      ->check(CLI::IsMember(StateWords()))
      ->allow_extra_args(false);
  command->add_flag("--watch", options->watch, "Show the newest state until interrupted");
  command->callback([options, &program] {
    program.action = [options, &program] { return List(program.settings, *options); };
  });
}

void AddQuery(CLI::App& app, Program& program, const char* name, const char* help,
              ExitStatus (*query)(const Settings&, const Patterns&), bool required) {
  auto patterns = std::make_shared<Patterns>();
  CLI::App* command = app.add_subcommand(name, help);
  command->add_option(required ? "NAME" : "PATTERN", *patterns, "Names or shell patterns")
      ->required(required);
  command->callback([=, &program] {
    program.action = [=, &program] { return query(program.settings, *patterns); };
  });
}

}  // namespace

void AddQueryCommands(CLI::App& app, Program& program) {
  AddList(app, program);
  AddQuery(app, program, "who", "Show who is attached", Who, false);
  AddQuery(app, program, "ports", "Show the ports on which users reach consoles", Ports, false);
  AddQuery(app, program, "holder", "Show who holds the management port", Holder, true);
}

}  // namespace zevctl
