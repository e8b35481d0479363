#include "selection.h"

#include <strings.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>
#include <map>

#include "output.h"
#include "prompt.h"

namespace zevctl {

namespace {

template <typename Record>
void RequireMatch(const std::vector<Record>& records, const std::string& pattern) {
  const bool found = std::any_of(records.begin(), records.end(), [&](const Record& record) {
    return NameMatches(record.name, pattern);
  });
  if (found) return;
  throw Failure(ExitStatus::kNoSuchConsole, "no console is named \"" + Printable(pattern) +
                                                "\"; \"zevctl list\" shows the names");
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

template <typename Record>
std::vector<Record> Select(const std::vector<Record>& records,
                           const std::vector<std::string>& patterns) {
  if (patterns.empty()) return records;
  for (const std::string& pattern : patterns) RequireMatch(records, pattern);
  std::vector<Record> selected;
  std::copy_if(
      records.begin(), records.end(), std::back_inserter(selected), [&](const Record& record) {
        return std::any_of(patterns.begin(), patterns.end(), [&](const std::string& pattern) {
          return NameMatches(record.name, pattern);
        });
      });
  return selected;
}

template std::vector<ConsoleRecord> Select(const std::vector<ConsoleRecord>& records,
                                           const std::vector<std::string>& patterns);
template std::vector<MappedPortRecord> Select(const std::vector<MappedPortRecord>& records,
                                              const std::vector<std::string>& patterns);

std::vector<std::vector<ConsoleRecord>> GroupedByName(const std::vector<ConsoleRecord>& consoles) {
  const auto less = [](const std::string& a, const std::string& b) {
    return strcasecmp(a.c_str(), b.c_str()) < 0;
  };
  std::map<std::string, size_t, decltype(less)> places(less);
  std::vector<std::vector<ConsoleRecord>> groups;
  for (const ConsoleRecord& console : consoles) {
    const auto [place, is_new] = places.emplace(console.name, groups.size());
    if (is_new) groups.emplace_back();
    groups[place->second].push_back(console);
  }
  return groups;
}

std::vector<std::string> NamesOf(const std::vector<ConsoleRecord>& consoles) {
  std::vector<std::string> names;
  for (const auto& group : GroupedByName(consoles)) names.push_back(group.front().name);
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
