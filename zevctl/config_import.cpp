// Writing the readable configuration.
#include <algorithm>
#include <map>

#include "config_keys.h"
#include "config_readable.h"

namespace zevctl {

namespace {

using Values = std::map<std::string_view, std::string>;

// The daemon compares two of the flags with 1, and asks of the third only whether it is 0.
std::string Truth(const ConfigConsole& console, ConfigField field) {
  const auto number = NumberIn(console.Text(field));
  const bool on = field == kFieldEnabled ? number.value_or(0) != 0 : number == 1U;
  return on ? "true" : "false";
}

std::string Written(const ConfigConsole& console, const KeyRow& row) {
  const std::string& text = console.Text(*row.field);
  if (row.type == KeyType::kFlag) return Truth(console, *row.field);
  if (row.type == KeyType::kNumber && NumberIn(text)) return std::to_string(*NumberIn(text));
  return TomlString(text == kNoEventsFile ? "" : text);
}

Values ValuesOf(const ConfigConsole& console) {
  Values values;
  for (const KeyRow& row : kKeys) {
    if (row.field && row.field != kFieldName) values[row.key] = Written(console, row);
  }
  return values;
}

std::string StandardOf(const KeyRow& row) {
  if (row.type == KeyType::kFlag) return std::string(row.standard) == "1" ? "true" : "false";
  return row.type == KeyType::kNumber ? row.standard : TomlString(row.standard);
}

// For each key that the defaults may have, the value that most consoles have.
Values CommonValues(const std::vector<Values>& all) {
  Values common;
  for (const KeyRow& row : kKeys) {
    if (!row.field) continue;
    common[row.key] = row.standard == nullptr ? "" : StandardOf(row);
    if (row.scope == KeyScope::kConsole) continue;
    std::map<std::string, size_t> counts;
    for (const Values& values : all) ++counts[values.at(row.key)];
    const auto most = std::max_element(
        counts.begin(), counts.end(),
        [](const auto& one, const auto& other) { return one.second < other.second; });
    if (most != counts.end() && most->second * 2 > all.size()) common[row.key] = most->first;
  }
  return common;
}

std::string Defaults(const Values& common) {
  std::string text;
  for (const KeyRow& row : kKeys) {
    if (!row.field || row.scope == KeyScope::kConsole) continue;
    const std::string& value = common.at(row.key);
    if (value != StandardOf(row)) text += std::string(row.key) + " = " + value + "\n";
  }
  return text.empty() ? text : "\n[defaults]\n" + text;
}

std::string Heading(const ConfigConsole& console) {
  return "\n[[console]]\nname = " + TomlString(console.name()) +
         "\ntcp = " + TomlString(console.Text(kFieldAddress) + ":" + console.Text(kFieldPort)) +
         "\n";
}

std::string Console(const ConfigConsole& console, const Values& values, const Values& common) {
  std::string text = Heading(console);
  for (const auto& [key, value] : values) {
    if (value != common.at(key)) text += std::string(key) + " = " + value + "\n";
  }
  return text;
}

}  // namespace

std::string WriteReadable(const std::vector<ConfigConsole>& consoles) {
  std::vector<Values> all;
  all.reserve(consoles.size());
  for (const ConfigConsole& console : consoles) all.push_back(ValuesOf(console));
  const Values common = CommonValues(all);
  std::string text =
      "# The consoles of this station. \"zevctl config check\" checks this file, and\n"
      "# \"zevctl config apply\" makes it count; consoles.toml(5) describes it.\n";
  text += Defaults(common);
  for (size_t i = 0; i < consoles.size(); ++i) text += Console(consoles[i], all[i], common);
  return text;
}

std::string WriteIncluded(const std::vector<ConfigConsole>& consoles) {
  std::string text;
  for (const ConfigConsole& console : consoles) {
    text += Heading(console);
    for (const auto& [key, value] : ValuesOf(console)) {
      text += std::string(key) + " = " + value + "\n";
    }
  }
  return text;
}

}  // namespace zevctl
