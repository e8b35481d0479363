#include "selection.h"

#include <strings.h>

#include <algorithm>
#include <iterator>
#include <map>
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

// "box", or "2 consoles (box, web1)".
std::string Counted(const std::vector<std::string>& names) {
  if (names.size() == 1) return Printable(names.front());
  return std::to_string(names.size()) + " consoles (" + Listed(names) + ")";
}

FoundNames Find(const std::vector<std::string>& names, const std::string& pattern,
                Purpose purpose) {
  FoundNames found = FindNames(names, pattern);
  if (!found.names.empty()) return found;
  if (purpose == Purpose::kLook) return {{FindOneName(names, pattern)}, false};
  throw Failure(ExitStatus::kNoSuchConsole, NoSuchConsole(pattern, names));
}

}  // namespace

template <typename Record>
Selection<Record> Select(const std::vector<Record>& records,
                         const std::vector<std::string>& patterns, Purpose purpose) {
  if (patterns.empty()) return {records, false};
  std::vector<std::string> names;
  names.reserve(records.size());
  for (const Record& record : records) names.push_back(record.name);
  Selection<Record> selection;
  std::set<std::string> wanted;
  for (const std::string& pattern : patterns) {
    const FoundNames found = Find(names, pattern, purpose);
    wanted.insert(found.names.begin(), found.names.end());
    selection.by_name = selection.by_name && found.by_name;
  }
  std::copy_if(records.begin(), records.end(), std::back_inserter(selection.records),
               [&](const Record& record) { return wanted.contains(record.name); });
  return selection;
}

template Selection<ConsoleRecord> Select(const std::vector<ConsoleRecord>& records,
                                         const std::vector<std::string>& patterns, Purpose purpose);
template Selection<ConsoleView> Select(const std::vector<ConsoleView>& records,
                                       const std::vector<std::string>& patterns, Purpose purpose);
template Selection<MappedPortRecord> Select(const std::vector<MappedPortRecord>& records,
                                            const std::vector<std::string>& patterns,
                                            Purpose purpose);

template <typename Record>
std::vector<std::vector<Record>> GroupedByName(const std::vector<Record>& consoles) {
  const auto less = [](const std::string& a, const std::string& b) {
    return strcasecmp(a.c_str(), b.c_str()) < 0;
  };
  std::map<std::string, size_t, decltype(less)> places(less);
  std::vector<std::vector<Record>> groups;
  for (const Record& console : consoles) {
    const auto [place, is_new] = places.emplace(console.name, groups.size());
    if (is_new) groups.emplace_back();
    groups[place->second].push_back(console);
  }
  return groups;
}

template std::vector<std::vector<ConsoleRecord>> GroupedByName(
    const std::vector<ConsoleRecord>& consoles);
template std::vector<std::vector<ConsoleView>> GroupedByName(
    const std::vector<ConsoleView>& consoles);

template <typename Record>
std::vector<std::string> NamesOf(const std::vector<Record>& consoles) {
  std::vector<std::string> names;
  for (const auto& group : GroupedByName(consoles)) names.push_back(group.front().name);
  return names;
}

template std::vector<std::string> NamesOf(const std::vector<ConsoleRecord>& consoles);
template std::vector<std::string> NamesOf(const std::vector<ConsoleView>& consoles);

void Confirm(const std::string& action, const std::vector<std::string>& names, bool by_name) {
  if (names.size() <= 1 && by_name) return;
  const auto answer = Ask(action + " " + Counted(names) + "? [y/N] ");
  if (!answer) {
    throw Failure(ExitStatus::kDeclined, "there is no terminal to ask on about " + Counted(names) +
                                             ", and nothing was done; --yes acts without asking");
  }
  if (answer == "y" || answer == "yes" || answer == "Y") return;
  throw Failure(ExitStatus::kDeclined, "nothing was done");
}

}  // namespace zevctl
