#include "fleet_claims.h"

#include <algorithm>
#include <set>

#include "fleet_clock.h"

namespace zevfleet {

namespace {

// How long the next station waits for the one before it, and every station for the list of stations
// to be complete. A take-over has five seconds for all of it.
constexpr int64_t kStep = kSecond;

// FNV-1a (64 bits): the same number at every station.
uint64_t Hash(const std::string& text) {
  uint64_t hash = 0xCBF29CE484222325;
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

std::vector<std::string> Ranking(const SharedConsole& console, const FleetView& view) {
  std::vector<std::string> order;
  const std::set<std::string> named(console.stations.begin(), console.stations.end());
  for (const std::string& station : console.stations) {
    if (IsReady(view, station)) order.push_back(station);
  }
  if (!console.others) return order;
  std::vector<std::pair<uint64_t, std::string>> rest;
  for (const auto& [name, seen] : view.stations()) {
    if (seen.station.ready && !named.contains(name)) {
      rest.emplace_back(Hash(console.name + " " + name), name);
    }
  }
  std::ranges::sort(rest, std::greater<>());
  for (auto& [hash, name] : rest) order.push_back(std::move(name));
  return order;
}

std::vector<std::string> Held(const FleetView& view, const ClaimSelf& self) {
  std::vector<std::string> held;
  for (const auto& [name, seen] : view.consoles()) {
    const SeenClaim* claim = view.ClaimOf(seen.console);
    if (claim != nullptr && IsMine(*claim, self)) held.push_back(name);
  }
  return held;
}

std::vector<std::string> HeldAddresses(const FleetView& view, const ClaimSelf& self) {
  std::vector<std::string> addresses;
  for (const auto& [address, claim] : view.claims()) {
    if (IsMine(claim, self)) addresses.push_back(address);
  }
  return addresses;
}

std::vector<std::string> ToClaim(const FleetView& view, const ClaimSelf& self, int64_t now) {
  std::vector<std::string> names;
  if (!self.ready) return names;
  for (const auto& [name, seen] : view.consoles()) {
    const auto free_since = view.FreeSince(name);
    if (!free_since) continue;
    const std::vector<std::string> order = Ranking(seen.console, view);
    const auto place = std::ranges::find(order, self.station);
    if (place == order.end()) continue;
    const bool is_first_choice =
        !seen.console.stations.empty() && seen.console.stations.front() == self.station;
    const int64_t steps = is_first_choice ? 0 : 1 + (place - order.begin());
    if (now - *free_since >= steps * kStep) names.push_back(name);
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
