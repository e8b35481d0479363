#include "config_diff.h"

#include <map>

namespace zevctl {

namespace {

std::string AddressOf(const ConfigConsole& console) {
  return console.Text(kFieldAddress) + ":" + console.Text(kFieldPort);
}

using ByAddress = std::map<std::string, const ConfigConsole*>;

// Of several consoles at one address the last one wins in the daemon.
ByAddress Indexed(const std::vector<ConfigConsole>& consoles) {
  ByAddress index;
  for (const ConfigConsole& console : consoles) index[AddressOf(console)] = &console;
  return index;
}

std::vector<FieldChange> ChangedFields(const ConfigConsole& before, const ConfigConsole& after) {
  std::vector<FieldChange> changes;
  for (size_t i = 0; i < kConfigFieldCount; ++i) {
    const auto field = static_cast<ConfigField>(i);
    if (before.Text(field) == after.Text(field)) continue;
    changes.push_back({field, before.Text(field), after.Text(field)});
  }
  return changes;
}

// While a console stays enabled, its users stay, whatever else changes.
bool IsSwitchedOff(const ConfigConsole& before, const ConfigConsole& after) {
  return before.Text(kFieldEnabled) != "0" && after.Text(kFieldEnabled) == "0";
}

}  // namespace

std::vector<Change> Compare(const std::vector<ConfigConsole>& before,
                            const std::vector<ConfigConsole>& after,
                            const std::set<std::string>& lines) {
  const ByAddress old = Indexed(before);
  const ByAddress now = Indexed(after);
  std::vector<Change> gone;
  std::vector<Change> changed;
  std::vector<Change> come;
  for (const ConfigConsole& console : before) {
    const std::string address = AddressOf(console);
    if (old.at(address) != &console) continue;
    const auto found = now.find(address);
    if (found == now.end()) {
      gone.push_back({ChangeKind::kGoes, console.name(), address, {}, true, false});
      continue;
    }
    auto fields = ChangedFields(console, *found->second);
    const bool line =
        console.Text(kFieldAddress) == kLinesAddress && lines.contains(console.Text(kFieldPort));
    if (fields.empty() && !line) continue;
    changed.push_back({ChangeKind::kChanges, console.name(), address, std::move(fields),
                       line || IsSwitchedOff(console, *found->second), line});
  }
  for (const ConfigConsole& console : after) {
    const std::string address = AddressOf(console);
    if (old.contains(address) || now.at(address) != &console) continue;
    come.push_back({ChangeKind::kComes, console.name(), address, {}, false, false});
  }
  gone.insert(gone.end(), changed.begin(), changed.end());
  gone.insert(gone.end(), come.begin(), come.end());
  return gone;
}

std::string InWords(const FieldChange& change) {
  return std::string(kConfigFieldTitles[change.field]) + " " + change.before + " -> " +
         change.after;
}

std::string InWords(const Change& change) {
  std::string text;
  for (const FieldChange& field : change.fields) {
    text += (text.empty() ? "" : ", ") + InWords(field);
  }
  if (change.line_changed) text += text.empty() ? "line: changed" : ", line: changed";
  return text;
}

}  // namespace zevctl
