#include "selection.h"

#include <fnmatch.h>
#include <strings.h>
#include <unistd.h>

#include <algorithm>
#include <set>

#include "output.h"
#include "prompt.h"

namespace zevctl {

namespace {

constexpr size_t kNamesShown = 8;

std::string Listed(const std::vector<std::string>& names) {
  std::string text;
  for (size_t i = 0; i < std::min(names.size(), kNamesShown); ++i) {
    text += (i == 0 ? "" : ", ") + Printable(names[i]);
  }
  return names.size() > kNamesShown ? text + ", ..." : text;
}

}  // namespace

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
