// The commands that only look: who, ports, holder.
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>

#include "arguments.h"
#include "attendance.h"
#include "command_port.h"
#include "console_words.h"
#include "json_line.h"
#include "output.h"
#include "program.h"
#include "selection.h"

namespace zevctl {

namespace {

/// A command connection for one question.
class Station {
 public:
  explicit Station(const Settings& settings)
      : credentials_(UserName(settings)), port_(settings, credentials_) {}

  CommandPort& Port() { return port_; }

 private:
  Credentials credentials_;
  CommandPort port_;
};

void PrintJson(const Json& data) {
  std::cout << JsonLine(data) << "\n";
}

void PrintTable(const Table& table) {
  table.Print(std::cout, TerminalWidth(), ColoursWanted());
}

Cell Text(const std::string& text) {
  return {Printable(text)};
}

constexpr size_t kWholeName = 1;  // the first column is never cut

using Patterns = std::vector<std::string>;

std::vector<std::vector<ConsoleRecord>> Chosen(CommandPort& port, const Patterns& patterns) {
  return GroupedByName(Select(port.Consoles(), patterns, Purpose::kLook).records);
}

ExitStatus Who(const Settings& settings, const Patterns& patterns) {
  Station station(settings);
  Json data = Json::array();
  Table table({"CONSOLE", "USER", "MODE", "ADDRESS"}, kWholeName);
  Attendance attendance(station.Port());
  for (const auto& consoles : Chosen(station.Port(), patterns)) {
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
  Table table({"NAME", "USER-PORT", "LOGIN", "ADDRESS", "PORT"}, kWholeName);
  for (const MappedPortRecord& console :
       Select(station.Port().MappedPorts(), patterns, Purpose::kLook).records) {
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
  Table table_{{"CONSOLE", "HOLDER"}, kWholeName};
  ExitStatus status_ = ExitStatus::kOk;
};

ExitStatus Holder(const Settings& settings, const Patterns& patterns) {
  Station station(settings);
  HolderReport report;
  for (const auto& consoles : Chosen(station.Port(), patterns)) {
    report.Ask(station.Port(), consoles.front().name);
  }
  return report.Print(settings.json);
}

void AddQuery(Command& app, Program& program, const char* name, const char* help,
              ExitStatus (*query)(const Settings&, const Patterns&), bool required) {
  auto patterns = std::make_shared<Patterns>();
  Command command = app.AddCommand(name, help);
  command
      .AddOption(required ? "NAME" : "PATTERN", *patterns,
                 "Names, starts of names or shell patterns")
      .Required(required);
  command.SetAction(program, [=, &program] { return query(program.settings, *patterns); });
}

}  // namespace

void AddQueryCommands(Command& app, Program& program) {
  AddQuery(app, program, "who", "Show who is attached", Who, false);
  AddQuery(app, program, "ports", "Show the ports on which users reach consoles", Ports, false);
  AddQuery(app, program, "holder", "Show who holds the management port", Holder, true);
}

}  // namespace zevctl
