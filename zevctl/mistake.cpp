#include "mistake.h"

#include <CLI/CLI.hpp>
#include <algorithm>

#include "name_match.h"
#include "output.h"

namespace zevctl {

namespace {

using Words = std::vector<std::string>;

void AppendOptions(const CLI::App* app, Words& names) {
  if (app == nullptr) return;
  for (const CLI::Option* option : app->get_options()) {
    for (const std::string& name : option->get_lnames()) names.push_back("--" + name);
  }
}

const CLI::App* CommandIn(const CLI::App& app) {
  const auto commands = app.get_subcommands();
  return commands.empty() ? nullptr : commands.front();
}

bool IsOption(const std::string& word) {
  return word.starts_with("-");
}

// "; did you mean list or log?"
std::string Suggestion(const std::string& word, const Words& words) {
  const Words nearest = NearestWords(word, words);
  return nearest.empty() ? ";" : "; did you mean " + Alternatives(nearest) + "?";
}

std::string AboutCommand(const CLI::App& app, const Words& unknown) {
  const auto word = std::find_if_not(unknown.begin(), unknown.end(), IsOption);
  if (word == unknown.end()) return "no command was given;";
  return "there is no command \"" + Printable(*word) + "\"" + Suggestion(*word, CommandNames(app));
}

std::string AboutWord(const CLI::App& app, const CLI::App* command, const std::string& word) {
  if (!IsOption(word)) return "\"" + Printable(word) + "\" is more than the command takes;";
  const std::string name = word.substr(0, word.find('='));
  return "there is no option " + Printable(name) + Suggestion(name, OptionNames(app, command));
}

}  // namespace

Words CommandNames(const CLI::App& app) {
  Words names;
  for (const CLI::App* command : app.get_subcommands(nullptr)) names.push_back(command->get_name());
  return names;
}

Words OptionNames(const CLI::App& app, const CLI::App* command) {
  Words names;
  AppendOptions(&app, names);
  AppendOptions(command, names);
  std::sort(names.begin(), names.end());
  names.erase(std::unique(names.begin(), names.end()), names.end());
  return names;
}

std::string MistakeIn(const CLI::App& app, const CLI::ParseError& error) {
  const CLI::App* const command = CommandIn(app);
  const Words unknown = app.remaining(true);
  const bool about_words = error.get_exit_code() == static_cast<int>(CLI::ExitCodes::ExtrasError);
  const bool required = error.get_exit_code() == static_cast<int>(CLI::ExitCodes::RequiredError);
  std::string text = std::string(error.what()) + ";";
  if (required && command == nullptr) text = AboutCommand(app, unknown);
  if (about_words && !unknown.empty()) text = AboutWord(app, command, unknown.front());
  const std::string name = command == nullptr ? "" : " " + command->get_name();
  return text + " \"zevctl" + name + " --help\" shows what there is";
}

}  // namespace zevctl
