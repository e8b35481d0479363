// The map of the fleet that zevfleet publishes on each station: which stations there are, and which
// of them has which console.
#pragma once

#include <ctime>
#include <string>
#include <vector>

namespace zevctl {

inline constexpr char kFarMapFile[] = "/run/zevfleet/fleet.json";

struct FarStation {
  std::string name;
  std::string address;  ///< empty for one that has not been seen since the map was begun
  std::string web;      ///< of its page; empty for none
  bool alive = false;   ///< it has a lease
  bool ready = false;   ///< its daemon and its guard run
  std::string version;
};

struct FarConsole {
  std::string name;
  std::string station;                ///< that has it; empty for none
  std::vector<std::string> stations;  ///< that should have it, the best first
};

struct FarMap {
  std::string site;
  std::string station;  ///< that published it: this one
  time_t as_of = 0;     ///< when it was last confirmed; 0 for never
  bool connected = false;
  std::string problem;
  std::vector<FarStation> stations;
  std::vector<FarConsole> consoles;

  /// Null when there is no such station.
  const FarStation* Station(const std::string& name) const;
};

/// Throws Failure(kNoDaemon) for a text that is no map.
FarMap ParseFarMap(const std::string& text);

/// Throws Failure(kNoDaemon) when there is none.
FarMap LoadFarMap(const std::string& path);

/// What people must know of a map that is not as of now; empty for one that is.
std::string AgeInWords(const FarMap& map);

/// The console of that name or, if there is none, of the same name in another case or with "-" for
/// "_". Throws Failure(kNoSuchConsole).
const FarConsole& FindFarConsole(const FarMap& map, const std::string& name);

}  // namespace zevctl
