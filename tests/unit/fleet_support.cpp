#include "fleet_support.h"

namespace zevfleet {

namespace {

const FleetKeys kKeys("hall");

}  // namespace

std::string AddressFor(const std::string& name) {
  return name + ".example:23";
}

std::string LineFor(const std::string& name, int port) {
  return name + " 192.0.2.1 " + std::to_string(port) + " 0 0 A200 - \"-\" 1 1 1 1 \"\"";
}

EtcdKey ConsoleKey(const SharedConsole& console) {
  return {.key = kKeys.Consoles() + console.name, .value = Encode(console), .mod_revision = 1};
}

EtcdKey ClaimKey(const std::string& console, const std::string& station, int64_t lease) {
  return {.key = kKeys.Claims() + AddressFor(console),
          .value = Encode(ConsoleClaim{station, "instance"}),
          .lease = lease};
}

EtcdKey StationKey(const std::string& station, int64_t lease, bool ready) {
  return {.key = kKeys.Stations() + station,
          .value = Encode(FleetStation{station, "i", "", "", "", ready, 0}),
          .lease = lease};
}

SharedConsole ConsoleFor(const std::string& name, const std::vector<std::string>& stations,
                         bool others, bool told) {
  return {.name = name,
          .line = name + " " + name + ".example 23 0 0 A200 - \"-\" 1 1 1 1 \"\"",
          .address = AddressFor(name),
          .stations = stations,
          .others = others,
          .told = told};
}

}  // namespace zevfleet
