#include "far_map.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "config_console.h"
#include "config_file.h"
#include "exit_status.h"
#include "json_line.h"
#include "moment.h"
#include "output.h"

namespace zevctl {

namespace {

constexpr int kFormat = 1;
constexpr int kDeepest = 5;

Failure NoMap(const std::string& why) {
  return {ExitStatus::kNoDaemon, why + "; \"zevfleet run\" writes it on each station of a fleet"};
}

}  // namespace

const FarStation* FarMap::Station(const std::string& wanted) const {
  const auto found = std::ranges::find(stations, wanted, &FarStation::name);
  return found == stations.end() ? nullptr : &*found;
}

FarMap ParseFarMap(const std::string& text) try {
  const Json data = ReadJson(text, kDeepest);
  if (!data.is_object() || data.at("format") != kFormat) {
    throw NoMap("the map of the fleet is not understood");
  }
  FarMap map;
  data.at("station").get_to(map.station);
  data.at("as_of").get_to(map.as_of);
  data.at("connected").get_to(map.connected);
  data.at("problem").get_to(map.problem);
  for (const Json& station : data.at("stations")) {
    map.stations.push_back({station.at("name"), station.at("address"), station.at("alive")});
  }
  for (const Json& console : data.at("consoles")) {
    map.consoles.push_back({console.at("name"), console.at("station")});
  }
  return map;
} catch (const Json::exception&) {
  throw NoMap("the map of the fleet is not understood");
}

FarMap LoadFarMap(const std::string& path) {
  const ReadFile file = ReadWhole(path);
  if (file.kind == FileKind::kRegular) return ParseFarMap(file.text);
  throw NoMap("there is no map of the fleet (" + path + ")");
}

std::string AgeInWords(const FarMap& map) {
  if (map.connected) return {};
  const std::string age = map.as_of == 0
                              ? "the map of the fleet has never been confirmed"
                              : "the map of the fleet is of " + ClockTime(map.as_of, time(nullptr));
  return map.problem.empty() ? age : age + ": " + map.problem;
}

const FarConsole& FindFarConsole(const FarMap& map, const std::string& name) {
  auto found = std::ranges::find(map.consoles, name, &FarConsole::name);
  if (found == map.consoles.end()) {
    found = std::ranges::find_if(map.consoles, [&](const FarConsole& console) {
      return FoldedName(console.name) == FoldedName(name);
    });
  }
  if (found != map.consoles.end()) return *found;
  throw Failure(ExitStatus::kNoSuchConsole,
                "the fleet has no console \"" + Printable(name) +
                    "\"; \"zevctl --fleet list\" shows those that it has");
}

}  // namespace zevctl
