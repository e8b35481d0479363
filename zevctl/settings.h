// The values of the options that all commands share.
#pragma once

#include <cstdint>
#include <string>

namespace zevctl {

/// The directory under which the station's files live; fixed when the program is built.
extern const std::string kStationRoot;

struct Settings {
  std::string host = "127.0.0.1";
  uint16_t port = 6500;  ///< the daemon's default main port
  std::string cookie_file = kStationRoot + "/config/.cookie";
  bool cookie_file_given = false;  ///< then it must be readable
  bool tunnel = false;  ///< the port is a tunnel of the calling user's: no cookie, but a password
  std::string user;     ///< the name that others see; empty for the login name
  std::string from;     ///< the address that others see; empty for the connection's own
  bool json = false;
  bool fleet = false;                                  ///< the consoles of all stations are meant
  std::string fleet_map = "/run/zevfleet/fleet.json";  ///< where zevfleet publishes its map
  std::string fleet_ssh = "ssh";                       ///< what reaches other stations
};

}  // namespace zevctl
