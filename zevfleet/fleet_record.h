// What stands in etcd: the keys of a fleet, and their values, which are JSON.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "config_console.h"

namespace zevfleet {

/// The version of keys and values. A station leaves a fleet of a newer one alone.
inline constexpr int64_t kFleetFormat = 1;

/// The names of a fleet's keys.
class FleetKeys {
 public:
  explicit FleetKeys(const std::string& site) : prefix_("/zevfleet/" + site + "/") {}

  const std::string& prefix() const { return prefix_; }
  std::string Fleet() const { return prefix_ + "fleet"; }
  std::string Stations() const { return prefix_ + "stations/"; }
  std::string Consoles() const { return prefix_ + "consoles/"; }
  std::string Claims() const { return prefix_ + "claims/"; }

 private:
  std::string prefix_;
};

/// The fleet itself. It is made once, so that two fleets of one name are told apart.
struct FleetIdentity {
  int64_t format = kFleetFormat;
  std::string id;  ///< drawn when the fleet was made
};

/// A console of the fleet.
struct SharedConsole {
  std::string name;
  std::string line;                   ///< as in zev.conf
  std::string address;                ///< "ADDRESS:PORT" of the line
  std::vector<std::string> stations;  ///< that should have it, the best first
  bool others = true;                 ///< any other station may have it, too
  bool told = false;                  ///< it was sent to the first station, whoever is attached

  bool operator==(const SharedConsole&) const = default;
};

/// Who may connect to an address. Consoles may be renamed and change their addresses: what takes
/// one connection is what listens there. The key ends with the lease of the station.
struct ConsoleClaim {
  std::string station;
  std::string instance;  ///< of the station

  bool operator==(const ConsoleClaim&) const = default;
};

/// A station that is there. The key ends with its lease.
struct FleetStation {
  std::string name;
  std::string instance;  ///< the station's own number, by which two of one name are told apart
  std::string address;
  std::string web;
  std::string version;
  bool ready = false;  ///< its daemon and its guard run
  uint64_t beat = 0;   ///< grows with every renewal of the lease

  bool operator==(const FleetStation&) const = default;
};

// A value that somebody else wrote, or a newer version, is nothing.
std::string Encode(const FleetIdentity& fleet);
std::string Encode(const SharedConsole& console);
std::string Encode(const ConsoleClaim& claim);
std::string Encode(const FleetStation& station);
std::optional<FleetIdentity> DecodeIdentity(const std::string& value);
std::optional<SharedConsole> DecodeConsole(const std::string& name, const std::string& value);
std::optional<ConsoleClaim> DecodeClaim(const std::string& value);
std::optional<FleetStation> DecodeStation(const std::string& name, const std::string& value);

/// "ADDRESS:PORT" of a console.
std::string AddressOf(const zevctl::ConfigConsole& console);

/// The console's line taken apart; nothing when it is no line of zev.conf.
std::optional<zevctl::ConfigConsole> ParseLine(const std::string& line);

}  // namespace zevfleet
