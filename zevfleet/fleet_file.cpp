#include "fleet_file.h"

#include <algorithm>
#include <map>
#include <optional>
#include <set>
#include <tuple>

#include "config_check.h"
#include "config_readable.h"
#include "config_toml.h"
#include "config_zev.h"
#include "fleet_options.h"

namespace zevfleet {

namespace {

using zevctl::ConfigConsole;
using zevctl::Findings;
using zevctl::Place;
using zevctl::Quoted;
using zevctl::TomlKind;
using zevctl::TomlMember;
using zevctl::TomlNode;

constexpr char kFleet[] = "fleet";
constexpr char kStations[] = "stations";
constexpr char kOthers[] = "*";

struct StationList {
  std::vector<std::string> names;
  bool others = false;
};

/// Takes the keys out of a file that consoles.toml does not have, so that the rest can be read as
/// one.
class StationReader {
 public:
  StationReader(TomlNode& root, Findings& findings) : findings_(findings) {
    defaults_ = {{}, true};
    for (TomlMember& member : root.members) {
      if (member.key == "defaults") defaults_ = Take(member.node).value_or(defaults_);
      if (member.key == "group") TakeGroups(member.node);
    }
    for (TomlMember& member : root.members) {
      if (member.key == "console") TakeConsoles(member.node);
    }
  }

  const StationList& Of(const ConfigConsole& console) const {
    const auto found = consoles_.find(Key(console.PlaceOf(zevctl::kFieldName)));
    return found != consoles_.end() ? found->second : defaults_;
  }

 private:
  using PlaceKey = std::pair<size_t, size_t>;

  static PlaceKey Key(const Place& place) { return {place.line, place.column}; }

  // Removes the key from the table.
  std::optional<StationList> Take(TomlNode& table) {
    std::optional<StationList> list;
    for (const TomlMember& member : table.members) {
      if (member.key == kStations) list = Read(member.node);
    }
    std::erase_if(table.members, [](const TomlMember& member) { return member.key == kStations; });
    return list;
  }

  StationList Read(const TomlNode& node) {
    StationList list;
    if (node.kind != TomlKind::kArray || node.items.empty()) return Refuse(node.place);
    for (const TomlNode& item : node.items) {
      if (list.others) return Refuse(item.place);  // it stands for all that are not named
      if (item.kind == TomlKind::kString && item.text == kOthers) {
        list.others = true;
      } else if (item.kind != TomlKind::kString || !IsPlainName(item.text)) {
        return Refuse(item.place);
      } else if (std::ranges::find(list.names, item.text) != list.names.end()) {
        findings_.Error(item.place, "the station " + Quoted(item.text) + " is named twice",
                        "name it once");
      } else {
        list.names.push_back(item.text);
      }
    }
    return list;
  }

  StationList Refuse(const Place& place) {
    findings_.Error(place, "bad " + Quoted(kStations),
                    "write names of stations in brackets, the best one first, such as [\"st1\", "
                    "\"st2\"]; \"*\" at the end stands for all others");
    return {};
  }

  void TakeGroups(TomlNode& groups) {
    for (TomlMember& group : groups.members) {
      if (const auto list = Take(group.node)) groups_[group.key] = *list;
    }
  }

  void TakeConsoles(TomlNode& consoles) {
    for (TomlNode& console : consoles.items) {
      const TomlNode* name = console.Find("name");
      const auto own = Take(console);
      if (name == nullptr) continue;  // which is found to be wrong elsewhere
      name = console.Find("name");
      const TomlNode* group = console.Find("group");
      const auto of_group = group != nullptr ? groups_.find(group->text) : groups_.end();
      if (own) {
        consoles_[Key(name->place)] = *own;
      } else if (of_group != groups_.end()) {
        consoles_[Key(name->place)] = of_group->second;
      }
    }
  }

  Findings& findings_;
  StationList defaults_;
  std::map<std::string, StationList> groups_;
  std::map<PlaceKey, StationList> consoles_;  // by the place of the name
};

std::string TakeFleet(TomlNode& root, const std::string& file, Findings& findings) {
  std::string fleet;
  const TomlNode* node = root.Find(kFleet);
  if (node == nullptr) {
    findings.Error({file}, "no " + Quoted(kFleet), "write fleet = \"NAME\" at the top");
  } else if (node->kind != TomlKind::kString || !IsPlainName(node->text)) {
    findings.Error(node->place, "bad " + Quoted(kFleet),
                   "write a word of letters, digits, \"-\" and \"_\", in quotes");
  } else {
    fleet = node->text;
  }
  std::erase_if(root.members, [](const TomlMember& member) { return member.key == kFleet; });
  return fleet;
}

// The event files are those of the stations, and not known here.
void CheckTogether(const std::vector<ConfigConsole>& consoles, Findings& findings) {
  zevctl::CheckSettings settings;
  settings.lines_known = true;
  for (const ConfigConsole& console : consoles) {
    settings.events_files.insert(console.Text(zevctl::kFieldEventsFile));
    if (console.line) {
      findings.Error(console.line_place,
                     "the console " + Quoted(console.name()) + " is at a line of one station",
                     "a console of a fleet is reached by tcp");
    }
  }
  CheckConsoles(consoles, settings, findings);
}

}  // namespace

FleetFile ReadFleetFile(const std::string& text, const std::string& file, Findings& findings) {
  FleetFile result;
  auto root = zevctl::ParseToml(text, file, findings);
  if (!root) return result;
  result.fleet = TakeFleet(*root, file, findings);
  const StationReader stations(*root, findings);
  const auto consoles = zevctl::ReadReadable(*root, findings);
  CheckTogether(consoles, findings);
  for (const ConfigConsole& console : consoles) {
    const StationList& list = stations.Of(console);
    result.consoles.push_back({.name = console.name(),
                               .line = zevctl::ZevConfLine(console),
                               .address = AddressOf(console),
                               .stations = list.names,
                               .others = list.others});
  }
  return result;
}

}  // namespace zevfleet
