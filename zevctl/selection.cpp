#include "selection.h"

#include <fnmatch.h>
#include <strings.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <set>
#include <string_view>

#include "output.h"
#include "prompt.h"

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

template <size_t count>
std::string InWords(const std::array<Word, count>& table, const std::string& code) {
  const auto* row =
      std::find_if(table.begin(), table.end(), [&](const Word& word) { return word.code == code; });
  return row == table.end() ? "unknown" : std::string(row->word);
}

constexpr size_t kNamesShown = 8;

std::string Listed(const std::vector<std::string>& names) {
  std::string text;
  for (size_t i = 0; i < std::min(names.size(), kNamesShown); ++i) {
    text += (i == 0 ? "" : ", ") + Printable(names[i]);
  }
  return names.size() > kNamesShown ? text + ", ..." : text;
}

}  // namespace

std::string StateInWords(const std::string& code) {
  return InWords(kStates, code);
}

std::string ModeInWords(const std::string& code) {
  return InWords(kModes, code);
}

std::vector<std::string> StateWords() {
  std::vector<std::string> words;
  words.reserve(kStates.size());
  for (const Word& state : kStates) words.emplace_back(state.word);
  return words;
}

bool NameMatches(const std::string& name, const std::string& pattern) {
  return strcasecmp(name.c_str(), pattern.c_str()) == 0 ||
         fnmatch(pattern.c_str(), name.c_str(), FNM_CASEFOLD) == 0;
}

template <typename Record>
std::vector<Record> Select(const std::vector<Record>& records,
                           const std::vector<std::string>& patterns) {
  if (patterns.empty()) return records;
  std::vector<bool> wanted(records.size());
  for (const std::string& pattern : patterns) {
    bool found = false;
    for (size_t i = 0; i < records.size(); ++i) {
      if (!NameMatches(records[i].name, pattern)) continue;
      wanted[i] = found = true;
    }
    if (found) continue;
    throw Failure(ExitStatus::kNoSuchConsole, "no console is named \"" + Printable(pattern) +
                                                  "\"; \"zevctl list\" shows the names");
  }
  std::vector<Record> selected;
  for (size_t i = 0; i < records.size(); ++i) {
    if (wanted[i]) selected.push_back(records[i]);
  }
  return selected;
}

template std::vector<ConsoleRecord> Select(const std::vector<ConsoleRecord>& records,
                                           const std::vector<std::string>& patterns);
template std::vector<MappedPortRecord> Select(const std::vector<MappedPortRecord>& records,
                                              const std::vector<std::string>& patterns);

std::vector<std::string> NamesOf(const std::vector<ConsoleRecord>& consoles) {
  const auto less = [](const std::string& a, const std::string& b) {
    return strcasecmp(a.c_str(), b.c_str()) < 0;
  };
  std::set<std::string, decltype(less)> seen(less);
  std::vector<std::string> names;
  for (const ConsoleRecord& console : consoles) {
    if (seen.insert(console.name).second) names.push_back(console.name);
  }
  return names;
}

void Confirm(const std::string& action, const std::vector<std::string>& names) {
  if (names.size() <= 1 || isatty(STDIN_FILENO) != 1) return;
  const auto answer = Ask(action + " " + std::to_string(names.size()) + " consoles (" +
                          Listed(names) + ")? [y/N] ");
  if (answer == "y" || answer == "yes" || answer == "Y") return;
  throw Failure(ExitStatus::kDeclined, "nothing was done");
}

}  // namespace zevctl
