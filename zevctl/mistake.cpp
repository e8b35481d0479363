#include "mistake.h"

#include <algorithm>

#include "name_match.h"
#include "output.h"

namespace zevctl {

namespace {

using Words = std::vector<std::string>;

bool IsOption(const std::string& word) {
  return word.starts_with("-");
}

// "; did you mean list or log?"
std::string Suggestion(const std::string& word, const Words& words) {
  const Words nearest = NearestWords(word, words);
  return nearest.empty() ? ";" : "; did you mean " + Alternatives(nearest) + "?";
}

std::string AboutCommand(const Command& app, const Words& unknown) {
  const auto word = std::find_if_not(unknown.begin(), unknown.end(), IsOption);
  if (word == unknown.end()) return "no command was given;";
  return "there is no command \"" + Printable(*word) + "\"" + Suggestion(*word, CommandNames(app));
}

std::string AboutWord(const Command& app, const std::optional<Command>& command,
                      const std::string& word) {
  if (!IsOption(word)) return "\"" + Printable(word) + "\" is more than the command takes;";
  const std::string name = word.substr(0, word.find('='));
  return "there is no option " + Printable(name) + Suggestion(name, OptionNames(app, command));
}

}  // namespace

Words CommandNames(const Command& app) {
  Words names;
  for (const Command& command : app.Commands()) names.push_back(command.name());
  return names;
}

Words OptionNames(const Command& app, const std::optional<Command>& command) {
  Words names = app.LongOptions();
  const Words of_command = command ? command->LongOptions() : Words();
  names.insert(names.end(), of_command.begin(), of_command.end());
  std::sort(names.begin(), names.end());
  names.erase(std::unique(names.begin(), names.end()), names.end());
  return names;
}

std::string MistakeIn(const Command& app, const ParseResult& mistake) {
  const std::optional<Command> command = app.NamedCommand();
  const Words unknown = app.WordsLeft();
  const bool about_words = mistake.end == ParseEnd::kTooMany;
  std::string text = mistake.text + ";";
  if (mistake.end == ParseEnd::kMissing && !command) text = AboutCommand(app, unknown);
  if (about_words && !unknown.empty()) text = AboutWord(app, command, unknown.front());
  const std::string name = command ? " " + command->name() : "";
  return text + " \"zevctl" + name + " --help\" shows what there is";
}

}  // namespace zevctl
