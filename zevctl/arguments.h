// The command line as zevctl declares it. The library that parses it is large, so only
// arguments.cpp includes it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "exit_status.h"

namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace zevctl {

struct Program;

/// What a command takes: an option with a value, a flag, or an argument that is known by its place.
/// A handle, valid as long as the CommandLine. Each call returns the option, so they can be
/// chained.
class Option {
 public:
  /// Says what is wrong with a value; nothing when it is right.
  using Check = std::function<std::string(const std::string&)>;

  explicit Option(CLI::Option& option) : option_(&option) {}

  Option Required(bool required = true);
  /// The help shows the value that the variable has now.
  Option ShowDefault();
  /// The environment variable whose value counts when the option is not given.
  Option FromVariable(const std::string& variable);
  Option Verify(const Check& check);
  Option OneOf(std::initializer_list<const char*> words);
  /// Both ends belong to the range. The help names the type of the ends.
  Option InRange(int least, int most);
  Option InRange(size_t least, size_t most);
  Option InRange(double least, double most);
  Option Needs(const Option& other);
  Option Excludes(const Option& other);
  /// For a list: the option takes one value each time, and is repeated for more.
  Option OneEachTime();
  /// For a list: one word can hold several values.
  Option SplitAt(char separator);
  /// `given` becomes true when the option has a value of its own.
  Option Tell(bool& given);
  /// The heading under which the help lists it.
  Option Under(const std::string& heading);

 private:
  CLI::Option* option_;
};

/// A command that can be named on the line, or the program itself. A handle, valid as long as the
/// CommandLine.
class Command {
 public:
  explicit Command(CLI::App& app) : app_(&app) {}

  /// A command of this one. The order is that of the help.
  Command AddCommand(const std::string& name, const std::string& help);

  /// The names are like "-y,--yes".
  Option AddFlag(const std::string& names, bool& value, const std::string& help);

  // Names without dashes, like "NAME", are those of an argument that is known by its place. The
  // value keeps what it has when none is given. A list takes one value or more.
  Option AddOption(const std::string& names, std::string& value, const std::string& help);
  Option AddOption(const std::string& names, uint16_t& value, const std::string& help);
  Option AddOption(const std::string& names, size_t& value, const std::string& help);
  Option AddOption(const std::string& names, double& value, const std::string& help);
  Option AddOption(const std::string& names, std::vector<std::string>& values,
                   const std::string& help);
  Option AddOption(const std::string& names, std::optional<std::string>& value,
                   const std::string& help);
  Option AddOption(const std::string& names, std::optional<int>& value, const std::string& help);
  Option AddOption(const std::string& names, std::optional<size_t>& value, const std::string& help);
  Option AddOption(const std::string& names, std::optional<double>& value, const std::string& help);

  /// The line must name one of this command's own commands.
  void RequireCommand();
  /// Text at the end of the help.
  void AddFooter(const std::string& text);
  /// What main() runs when the line names this command.
  void SetAction(Program& program, std::function<ExitStatus()> action);

  // What was declared and parsed, for completion and for messages.

  std::string name() const;
  std::vector<Command> Commands() const;
  /// Of this command's own ones, the one that the line names.
  std::optional<Command> NamedCommand() const;
  /// The names that begin with "--".
  std::vector<std::string> LongOptions() const;
  /// Whether the option takes a value; nothing when there is no such option here.
  std::optional<bool> TakesValue(const std::string& option) const;
  /// The words of the line that nothing took, in this command and its own ones.
  std::vector<std::string> WordsLeft() const;

 private:
  CLI::App* app_;
};

/// How parsing ended.
enum class ParseEnd {
  kParsed,
  kAnswered,  ///< help or the version was asked for; the text is the answer
  kMissing,   ///< something that is required was not given; the text says what, as do those below
  kTooMany,   ///< words were left that nothing takes
  kMistake,   ///< anything else
};

struct ParseResult {
  ParseEnd end;
  std::string text;
};

/// The program's line. Options of the program itself may follow the command, too.
class CommandLine {
 public:
  CommandLine(const std::string& description, const std::string& name, const std::string& version);
  ~CommandLine();
  CommandLine(const CommandLine&) = delete;
  CommandLine& operator=(const CommandLine&) = delete;

  /// The program itself, to which the commands are added.
  Command program() const;

  /// Sets the declared variables, and the action of the command that is named.
  ParseResult Parse(int argc, char** argv);

 private:
  std::unique_ptr<CLI::App> app_;
};

}  // namespace zevctl
