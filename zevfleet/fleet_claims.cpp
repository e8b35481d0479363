#include "fleet_claims.h"

#include <algorithm>
#include <set>
#include <string_view>
#include <utility>

#include "fleet_clock.h"

namespace zevfleet {

namespace {

// How long the next station waits for the one before it, and every station for the list of stations
// to be complete. A take-over has five seconds for all of it.
constexpr int64_t kStep = kSecond;

// FNV-1a (64 bits): the same number at every station. A text in two parts goes on with the number
// of the first.
uint64_t Hash(const std::string& text, uint64_t hash = 0xCBF29CE484222325) {
  for (const char byte : text) {
    hash = (hash ^ static_cast<unsigned char>(byte)) * 0x100000001B3;
  }
  return hash;
}

bool IsReady(const FleetView& view, const std::string& station) {
  const auto found = view.stations().find(station);
  return found != view.stations().end() && found->second.station.ready;
}

bool IsMine(const SeenClaim& claim, const ClaimSelf& self) {
  return self.lease != 0 && claim.lease == self.lease && claim.claim.station == self.station;
}

// A station that the console names before this one, and that could have it now.
bool BetterIsBack(const SeenConsole& seen, const FleetView& view, const ClaimSelf& self,
                  int64_t now) {
  for (const std::string& station : seen.console.stations) {
    if (station == self.station) return false;
    const auto found = view.stations().find(station);
    if (found == view.stations().end() || !found->second.station.ready) continue;
    return seen.console.told || now - found->second.ready_since >= self.return_time;
  }
  return false;
}

bool MayHave(const SharedConsole& console, const std::string& station) {
  return console.others || std::ranges::find(console.stations, station) != console.stations.end();
}

}  // namespace

std::vector<std::string> Held(const FleetView& view, const ClaimSelf& self) {
  std::vector<std::string> held;
  for (const std::string& address : HeldAddresses(view, self)) {
    for (std::string& name : view.NamesAt(address)) held.push_back(std::move(name));
  }
  std::ranges::sort(held);
  return held;
}

std::vector<std::string> HeldAddresses(const FleetView& view, const ClaimSelf& self) {
  std::vector<std::string> addresses;
  for (const std::string& address : view.AddressesOf(self.lease)) {
    if (IsMine(view.claims().at(address), self)) addresses.push_back(address);
  }
  return addresses;
}

namespace {

// As long as a station that is there and ready must wait for those before it. They are counted, not
// put in order: there may be thousands of consoles of a station that has failed.
int64_t WaitOf(const std::string& station, const SharedConsole& console, const FleetView& view) {
  int64_t place = 0;
  for (const std::string& named : console.stations) {
    if (named == station) return (1 + place) * kStep;
    if (IsReady(view, named)) ++place;
  }
  const uint64_t begin = Hash(console.name + " ");
  const auto own = std::pair<uint64_t, std::string_view>(Hash(station, begin), station);
  for (const auto& [name, seen] : view.stations()) {
    if (!seen.station.ready ||
        own >= std::pair<uint64_t, std::string_view>(Hash(name, begin), name)) {
      continue;
    }
    if (std::ranges::find(console.stations, name) == console.stations.end()) ++place;
  }
  return (1 + place) * kStep;
}

}  // namespace

std::vector<std::string> ToClaim(const FleetView& view, const ClaimSelf& self, int64_t now) {
  std::vector<std::string> names;
  if (!self.ready || !IsReady(view, self.station)) return names;
  for (const auto& [name, free_since] : view.free_since()) {
    const SharedConsole& console = view.consoles().at(name).console;
    const int64_t free_for = now - free_since;
    const bool is_first_choice =
        !console.stations.empty() && console.stations.front() == self.station;
    const bool may_be_next = free_for >= kStep && MayHave(console, self.station);
    if (is_first_choice || (may_be_next && free_for >= WaitOf(self.station, console, view))) {
      names.push_back(name);
    }
  }
  return names;
}

bool MayRelease(const FleetView& view, const ClaimSelf& self, int64_t now) {
  const auto nobody = [](const std::string&) { return std::optional<size_t>(0); };
  return !ToRelease(view, self, nobody, now).empty();
}

std::vector<std::string> ToRelease(const FleetView& view, const ClaimSelf& self,
                                   const UsersOf& users_of, int64_t now) {
  std::vector<std::string> names;
  for (const std::string& name : Held(view, self)) {
    const SeenConsole& seen = view.consoles().at(name);
    if (!MayHave(seen.console, self.station)) {
      names.push_back(name);
    } else if (BetterIsBack(seen, view, self, now)) {
      if (seen.console.told || users_of(name) == size_t{0}) names.push_back(name);
    }
  }
  return names;
}

std::vector<std::string> Arrived(const FleetView& view, const ClaimSelf& self) {
  std::vector<std::string> names;
  for (const std::string& name : Held(view, self)) {
    const SharedConsole& console = view.consoles().at(name).console;
    if (console.told && !console.stations.empty() && console.stations.front() == self.station) {
      names.push_back(name);
    }
  }
  return names;
}

}  // namespace zevfleet
