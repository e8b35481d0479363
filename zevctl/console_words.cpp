#include "console_words.h"

#include <algorithm>
#include <array>
#include <string_view>

namespace zevctl {

namespace {

struct Word {
  std::string_view code;
  std::string_view word;
};

constexpr std::array kStates = {
    Word{"0", "connected"}, Word{"1", "in-use"},     Word{"2", "not-connected"},
    Word{"3", "refused"},   Word{"4", "connecting"}, Word{"5", "disabled"},
};

constexpr std::array kModes = {
    Word{"0", "none"},      Word{"1", "read-only"},        Word{"2", "shared"},
    Word{"3", "exclusive"}, Word{"4", "exclusive-revoke"}, Word{"5", "management-port"},
};

constexpr std::array kArguments = {Word{"ro", "read-only"}, Word{"sh", "shared"},
                                   Word{"ex", "exclusive"}, Word{"er", "exclusive-revoke"}};

template <size_t count>
std::string InWords(const std::array<Word, count>& table, const std::string& code) {
  const auto* row =
      std::find_if(table.begin(), table.end(), [&](const Word& word) { return word.code == code; });
  return row == table.end() ? "unknown" : std::string(row->word);
}

}  // namespace

std::string StateInWords(const std::string& code) {
  return InWords(kStates, code);
}

std::string ModeInWords(const std::string& code) {
  return InWords(kModes, code);
}

std::string ModeInFull(const std::string& mode) {
  return InWords(kArguments, mode);
}

std::vector<std::string> StateWords() {
  std::vector<std::string> words;
  words.reserve(kStates.size());
  for (const Word& state : kStates) words.emplace_back(state.word);
  return words;
}

std::vector<std::string> StatesByUrgency() {
  return {"refused", "not-connected", "unknown", "connecting", "disabled", "in-use", "connected"};
}

std::vector<std::string> StateChoices() {
  std::vector<std::string> words = StateWords();
  words.insert(words.end(), {"down", "up"});
  return words;
}

bool StateIsOf(const std::string& state, const std::string& choice) {
  const bool up = state == "connected" || state == "in-use";
  if (choice == "up") return up;
  if (choice == "down") return !up && state != "disabled";
  return state == choice;
}

}  // namespace zevctl
