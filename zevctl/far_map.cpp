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
constexpr time_t kFreshFor = 15;  // seconds; zevfleet writes it at least every few seconds
constexpr int64_t kLastMoment = 253402300799;  // of the year 9999: later ones are no times

Failure NoMap(const std::string& why) {
  return {ExitStatus::kNoDaemon, why + "; \"zevfleet run\" writes it on each station of a fleet"};
}

Failure NotUnderstood() {
  return NoMap("the map of the fleet is not understood");
}

// The library would make a number of what is none, and any number one of seconds.
time_t MomentIn(const Json& data) {
  const bool is_moment = data.is_number_integer() && data >= 0 && data <= kLastMoment;
  if (!is_moment) throw NotUnderstood();
  return data.get<time_t>();
}

const Json& ListIn(const Json& data, const char* key) {
  const Json& list = data.at(key);
  if (!list.is_array()) throw NotUnderstood();
  return list;
}

FarStation StationIn(const Json& data) {
  return {.name = data.at("name"),
          .address = data.at("address"),
          .web = data.at("web"),
          .alive = data.at("alive"),
          .ready = data.at("ready"),
          .version = data.at("version")};
}

FarConsole ConsoleIn(const Json& data) {
  FarConsole console{.name = data.at("name"), .station = data.at("station"), .stations = {}};
  for (const Json& station : ListIn(data, "stations")) console.stations.push_back(station);
  return console;
}

}  // namespace

const FarStation* FarMap::Station(const std::string& wanted) const {
  const auto found = std::ranges::find(stations, wanted, &FarStation::name);
  return found == stations.end() ? nullptr : &*found;
}

FarMap ParseFarMap(const std::string& text) try {
  const Json data = ReadJson(text, kDeepest);
  if (!data.is_object() || data.at("format") != kFormat) {
    throw NotUnderstood();
  }
  FarMap map;
  data.at("site").get_to(map.site);
  data.at("station").get_to(map.station);
  map.as_of = MomentIn(data.at("as_of"));
  data.at("connected").get_to(map.connected);
  data.at("problem").get_to(map.problem);
  for (const Json& one : ListIn(data, "stations")) map.stations.push_back(StationIn(one));
  for (const Json& one : ListIn(data, "consoles")) map.consoles.push_back(ConsoleIn(one));
  return map;
} catch (const Json::exception&) {
  throw NotUnderstood();
}

FarMap LoadFarMap(const std::string& path) {
  const ReadFile file = ReadWhole(path);
  if (file.kind == FileKind::kRegular) return ParseFarMap(file.text);
  throw NoMap("there is no map of the fleet (" + path + ")");
}

// One that nobody writes any more says to the end that it is as of now.
std::string AgeInWords(const FarMap& map) {
  if (map.connected && time(nullptr) - map.as_of <= kFreshFor) return {};
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
