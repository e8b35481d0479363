#include "arguments.h"

#include <CLI/CLI.hpp>
#include <sstream>
#include <utility>

#include "program.h"

namespace zevctl {

// ---- Options ------------------------------------------------------------------------------------

Option Option::Required(bool required) {
  option_->required(required);
  return *this;
}

Option Option::ShowDefault() {
  option_->capture_default_str();
  return *this;
}

Option Option::FromVariable(const std::string& variable) {
  option_->envname(variable);
  return *this;
}

Option Option::Verify(const Check& check) {
  option_->check(check);
  return *this;
}

Option Option::OneOf(std::initializer_list<const char*> words) {
  option_->check(CLI::IsMember(std::vector<std::string>(words.begin(), words.end())));
  return *this;
}

Option Option::InRange(int least, int most) {
  option_->check(CLI::Range(least, most));
  return *this;
}

Option Option::InRange(size_t least, size_t most) {
  option_->check(CLI::Range(least, most));
  return *this;
}

Option Option::InRange(double least, double most) {
  option_->check(CLI::Range(least, most));
  return *this;
}

Option Option::Needs(const Option& other) {
  option_->needs(other.option_);
  return *this;
}

Option Option::Excludes(const Option& other) {
  option_->excludes(other.option_);
  return *this;
}

Option Option::OneEachTime() {
  option_->allow_extra_args(false);
  return *this;
}

Option Option::SplitAt(char separator) {
  option_->delimiter(separator);
  return *this;
}

Option Option::Tell(bool& given) {
  option_->each([&given](const std::string&) { given = true; });
  return *this;
}

Option Option::Under(const std::string& heading) {
  option_->group(heading);
  return *this;
}

// ---- Declaring commands -------------------------------------------------------------------------

Command Command::AddCommand(const std::string& name, const std::string& help) {
  return Command(*app_->add_subcommand(name, help));
}

Option Command::AddFlag(const std::string& names, bool& value, const std::string& help) {
  return Option(*app_->add_flag(names, value, help));
}

Option Command::AddOption(const std::string& names, std::string& value, const std::string& help) {
  return Option(*app_->add_option(names, value, help));
}

Option Command::AddOption(const std::string& names, uint16_t& value, const std::string& help) {
  return Option(*app_->add_option(names, value, help));
}

Option Command::AddOption(const std::string& names, size_t& value, const std::string& help) {
  return Option(*app_->add_option(names, value, help));
}

Option Command::AddOption(const std::string& names, double& value, const std::string& help) {
  return Option(*app_->add_option(names, value, help));
}

Option Command::AddOption(const std::string& names, std::vector<std::string>& values,
                          const std::string& help) {
  return Option(*app_->add_option(names, values, help));
}

Option Command::AddOption(const std::string& names, std::optional<std::string>& value,
                          const std::string& help) {
  return Option(*app_->add_option(names, value, help));
}

Option Command::AddOption(const std::string& names, std::optional<int>& value,
                          const std::string& help) {
  return Option(*app_->add_option(names, value, help));
}

Option Command::AddOption(const std::string& names, std::optional<size_t>& value,
                          const std::string& help) {
  return Option(*app_->add_option(names, value, help));
}

Option Command::AddOption(const std::string& names, std::optional<double>& value,
                          const std::string& help) {
  return Option(*app_->add_option(names, value, help));
}

void Command::RequireCommand() {
  app_->require_subcommand(1);
}

void Command::AddFooter(const std::string& text) {
  app_->footer(text);
}

void Command::SetAction(Program& program, std::function<ExitStatus()> action) {
  app_->callback([&program, action = std::move(action)] { program.action = action; });
}

// ---- What was declared and parsed ---------------------------------------------------------------

std::string Command::name() const {
  return app_->get_name();
}

std::vector<Command> Command::Commands() const {
  std::vector<Command> commands;
  for (CLI::App* command : app_->get_subcommands(nullptr)) commands.emplace_back(*command);
  return commands;
}

std::optional<Command> Command::NamedCommand() const {
  const auto commands = app_->get_subcommands();
  if (commands.empty()) return {};
  return Command(*commands.front());
}

std::vector<std::string> Command::LongOptions() const {
  std::vector<std::string> names;
  for (const CLI::Option* option : app_->get_options()) {
    for (const std::string& name : option->get_lnames()) names.push_back("--" + name);
  }
  return names;
}

std::optional<bool> Command::TakesValue(const std::string& option) const {
  const CLI::Option* const found = app_->get_option_no_throw(option);
  if (found == nullptr) return {};
  return found->get_expected_max() > 0;
}

std::vector<std::string> Command::WordsLeft() const {
  return app_->remaining(true);
}

// ---- Parsing ------------------------------------------------------------------------------------

namespace {

ParseEnd EndOf(const CLI::ParseError& error) {
  switch (static_cast<CLI::ExitCodes>(error.get_exit_code())) {
    case CLI::ExitCodes::Success:
      return ParseEnd::kAnswered;
    case CLI::ExitCodes::RequiredError:
      return ParseEnd::kMissing;
    case CLI::ExitCodes::ExtrasError:
      return ParseEnd::kTooMany;
    default:
      return ParseEnd::kMistake;
  }
}

std::string AnswerTo(const CLI::App& app, const CLI::ParseError& request) {
  std::ostringstream answer;
  app.exit(request, answer);
  return answer.str();
}

}  // namespace

CommandLine::CommandLine(const std::string& description, const std::string& name,
                         const std::string& version)
    : app_(std::make_unique<CLI::App>(description, name)) {
  app_->fallthrough();  // commands that are added later take this over
  app_->set_version_flag("--version", version);
}

CommandLine::~CommandLine() = default;

Command CommandLine::program() const {
  return Command(*app_);
}

ParseResult CommandLine::Parse(int argc, char** argv) {
  try {
    app_->parse(argc, argv);
    return {ParseEnd::kParsed, ""};
  } catch (const CLI::ParseError& error) {
    const ParseEnd end = EndOf(error);
    return {end, end == ParseEnd::kAnswered ? AnswerTo(*app_, error) : error.what()};
  }
}

}  // namespace zevctl
