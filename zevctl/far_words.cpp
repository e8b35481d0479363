#include "far_words.h"

#include <algorithm>

namespace zevctl {

namespace {

// What belongs to --fleet itself, and whether a value follows.
bool IsOurs(const std::string& option, bool* has_value) {
  *has_value = option == "--fleet-map" || option == "--ssh";
  return *has_value || option == "--fleet";
}

bool TakesValue(const Command& app, const Command& command, const std::string& option) {
  const auto own = command.TakesValue(option);
  return own ? *own : app.TakesValue(option).value_or(false);
}

}  // namespace

std::vector<std::string> FarWords::Line(const std::vector<std::string>& with) const {
  std::vector<std::string> line = {command};
  line.insert(line.end(), options.begin(), options.end());
  line.emplace_back("--");
  line.insert(line.end(), with.begin(), with.end());
  if (with.empty()) line.pop_back();
  return line;
}

FarWords SplitWords(const Command& app, const std::vector<std::string>& words) {
  FarWords far;
  const Command command = *app.NamedCommand();
  bool only_arguments = false;
  for (size_t i = 0; i < words.size(); ++i) {
    const std::string& word = words[i];
    const std::string option = word.substr(0, word.find('='));
    bool is_valued = false;
    if (only_arguments || word.size() < 2 || word[0] != '-') {
      if (far.command.empty()) {
        far.command = word;
      } else {
        far.arguments.push_back(word);
      }
    } else if (word == "--") {
      only_arguments = true;
    } else if (IsOurs(option, &is_valued)) {
      if (is_valued && option == word) ++i;
    } else {
      far.options.push_back(word);
      if (option == word && TakesValue(app, command, option) && i + 1 < words.size()) {
        far.options.push_back(words[++i]);
      }
    }
  }
  return far;
}

std::string QuotedForShell(const std::vector<std::string>& words) {
  std::string text;
  for (const std::string& word : words) {
    std::string quoted = "'";
    for (const char byte : word)
      quoted += byte == '\'' ? std::string("'\\''") : std::string(1, byte);
    text += (text.empty() ? "" : " ") + quoted + "'";
  }
  return text;
}

}  // namespace zevctl
