#include "config_readable.h"

#include <algorithm>
#include <map>
#include <sstream>

#include "config_keys.h"
#include "config_range.h"

namespace zevctl {

namespace {

constexpr std::array<std::string_view, 5> kTargets = {"tcp", "serial", "exec", "ssh", "ipmi"};

/// Reads the tables of all files, and then the consoles: a group may stand in another file than its
/// consoles.
class Reader {
 public:
  explicit Reader(Findings& findings) : findings_(findings) {}

  void Take(const TomlNode& root, bool is_main) {
    for (const TomlMember& member : root.members) {
      if (member.key == "defaults") {
        TakeDefaults(member, is_main);
      } else if (member.key == "group") {
        TakeGroups(member.node);
      } else if (member.key == "console") {
        TakeConsoles(member.node);
      } else {
        findings_.Error(member.place, "unknown key " + Quoted(member.key),
                        "a file has [defaults], [group.NAME] and [[console]]; a console's keys "
                        "stand below its [[console]]");
      }
    }
  }

  std::vector<ConfigConsole> Consoles() {
    for (const TomlNode& table : tables_) AddConsoles(table);
    return std::move(consoles_);
  }

 private:
  void TakeDefaults(const TomlMember& member, bool is_main) {
    if (!is_main) {
      findings_.Error(member.place, "[defaults] in an included file",
                      "write it in consoles.toml; it holds for all files");
    } else if (CheckTable(member.node, "defaults", "[defaults]")) {
      defaults_ = ReadKeys(member.node, false, findings_);
    }
  }

  void TakeGroups(const TomlNode& groups) {
    if (!CheckTable(groups, "group", "[group.NAME]")) return;
    for (const TomlMember& member : groups.members) {
      if (!CheckTable(member.node, "group", "[group.NAME]")) continue;
      const auto [at, is_new] = groups_.emplace(member.key, KeyValues());
      if (is_new) {
        at->second = ReadKeys(member.node, false, findings_);
      } else {
        findings_.Error(member.place, "the group " + Quoted(member.key) + " is defined twice",
                        "write its keys in one place");
      }
    }
  }

  bool CheckTable(const TomlNode& node, const std::string& key, const char* heading) {
    if (node.kind == TomlKind::kTable) return true;
    findings_.Error(node.place, Quoted(key) + " is no table",
                    std::string("write ") + heading + " in a line of its own, and its keys below");
    return false;
  }

  void TakeConsoles(const TomlNode& node) {
    const bool all_tables =
        node.kind == TomlKind::kArray &&
        std::all_of(node.items.begin(), node.items.end(),
                    [](const TomlNode& item) { return item.kind == TomlKind::kTable; });
    if (all_tables) {
      tables_.insert(tables_.end(), node.items.begin(), node.items.end());
    } else {
      findings_.Error(node.place, "a console does not begin with [[console]]",
                      "write [[console]], with two brackets on each side, above each console");
    }
  }

  // What follows is about one table, which may stand for many consoles.

  void AddConsoles(const TomlNode& table) {
    KeyValues values = ReadKeys(table, true, findings_);
    if (!values.contains("name")) {
      findings_.Error(table.place, "a console without a name", "add name = \"...\"");
      return;
    }
    if (!HasOneTarget(table, values)) return;
    AddInherited(values);
    Multiply(values);
  }

  bool HasOneTarget(const TomlNode& table, const KeyValues& values) {
    const auto count = std::count_if(kTargets.begin(), kTargets.end(),
                                     [&](std::string_view key) { return values.contains(key); });
    if (count == 1) return true;
    const std::string name = Quoted(values.at("name").text);
    const std::string what = count == 0 ? " does not say how it is reached" : " is reached twice";
    findings_.Error(table.place, "the console " + name + what,
                    "give it one of tcp, serial, exec, ssh and ipmi");
    return false;
  }

  // A console's own keys come before its group's, and those before the defaults.
  void AddInherited(KeyValues& values) {
    const auto group = values.find("group");
    if (group != values.end()) {
      const auto found = groups_.find(group->second.text);
      if (found != groups_.end()) {
        values.insert(found->second.begin(), found->second.end());
      } else {
        findings_.Error(group->second.place, "unknown group " + Quoted(group->second.text),
                        "add [group." + group->second.text + "], or correct the name");
      }
    }
    values.insert(defaults_.begin(), defaults_.end());
  }

  void Multiply(const KeyValues& values) {
    std::map<std::string_view, RangeText> expanded;
    for (const auto& [key, value] : values) {
      RangeText range = Expand(value.text);
      if (!range.mistake.empty()) {
        findings_.Error(value.place, range.mistake, "see RANGES in consoles.toml(5)");
        return;
      }
      expanded.emplace(key, std::move(range));
    }
    if (!RunTogether(values, expanded)) return;
    const size_t count = expanded.at("name").texts.size();
    for (size_t i = 0; i < count; ++i) AddConsole(values, expanded, i);
  }

  bool RunTogether(const KeyValues& values, const std::map<std::string_view, RangeText>& expanded) {
    const RangeText& name = expanded.at("name");
    for (const auto& [key, range] : expanded) {
      const bool is_own = key == "port" || std::count(kTargets.begin(), kTargets.end(), key) == 1;
      const bool is_none = key == "port" && values.at(key).text == "0";
      const bool differs = range.has_range && range.texts.size() != name.texts.size();
      const bool lacks = name.has_range && is_own && !range.has_range && !is_none;
      if (!differs && !lacks) continue;
      std::ostringstream what;
      what << '"' << key << "\" stands for " << range.texts.size() << " values, but the name for "
           << name.texts.size();
      findings_.Error(values.at(key).place, what.str(),
                      "give each console its own by a range as long as that of the name");
      return false;
    }
    return true;
  }

  using Expanded = std::map<std::string_view, RangeText>;

  static ConfigText Value(const KeyValues& values, const Expanded& expanded, std::string_view key,
                          size_t number) {
    const auto range = expanded.find(key);
    if (range == expanded.end()) return {};
    const auto& texts = range->second.texts;
    return {texts[std::min(number, texts.size() - 1)], values.at(key).place};
  }

  void AddConsole(const KeyValues& values, const Expanded& expanded, size_t number) {
    ConfigConsole console;
    const Place& place = values.at("name").place;
    for (const KeyRow& row : kKeys) {
      if (!row.field) continue;
      ConfigText value = Value(values, expanded, row.key, number);
      if (!values.contains(row.key)) value = {row.standard, place};
      console.fields[*row.field] = value;
    }
    ConfigText& events_file = console.fields[kFieldEventsFile];
    if (events_file.text.empty()) events_file.text = kNoEventsFile;
    if (values.contains("tcp")) {
      SetAddress(console, Value(values, expanded, "tcp", number));
    } else {
      SetLine(console, values, expanded, number);
    }
    consoles_.push_back(std::move(console));
  }

  // The port may be missing: telnet's is meant then.
  static void SetAddress(ConfigConsole& console, const ConfigText& tcp) {
    const size_t colon = tcp.text.rfind(':');
    const bool has_port = colon != std::string::npos;
    console.fields[kFieldAddress] = {tcp.text.substr(0, colon), tcp.place};
    console.fields[kFieldPort] = {has_port ? tcp.text.substr(colon + 1) : "23", tcp.place};
  }

  static void SetLine(ConfigConsole& console, const KeyValues& values, const Expanded& expanded,
                      size_t number) {
    for (const KeyRow& row : kKeys) {
      if (!row.line || !values.contains(row.key)) continue;
      const ConfigText target = Value(values, expanded, row.key, number);
      console.line = Line{console.name(), *row.line, target.text,
                          Value(values, expanded, "secret_file", number).text, 0};
      console.line_place = target.place;
      console.fields[kFieldAddress] = {kLinesAddress, target.place};
      console.fields[kFieldPort] = {std::to_string(kFirstLinePort), target.place};
    }
  }

  Findings& findings_;
  KeyValues defaults_;
  std::map<std::string, KeyValues> groups_;
  std::vector<TomlNode> tables_;
  std::vector<ConfigConsole> consoles_;
};

}  // namespace

std::vector<ConfigConsole> ReadReadable(const std::vector<ConfigSource>& sources,
                                        Findings& findings) {
  Reader reader(findings);
  for (const ConfigSource& source : sources) {
    const auto root = ParseToml(source.text, source.file, findings);
    if (root) reader.Take(*root, &source == &sources.front());
  }
  return reader.Consoles();
}

std::vector<ConfigConsole> ReadReadable(const TomlNode& root, Findings& findings) {
  Reader reader(findings);
  reader.Take(root, true);
  return reader.Consoles();
}

}  // namespace zevctl
