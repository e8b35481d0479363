#include "fleet_view.h"

#include "output.h"

namespace zevfleet {

namespace {

// What stands behind the prefix; nothing when it is not there.
std::optional<std::string> Behind(const std::string& prefix, const std::string& key) {
  if (!key.starts_with(prefix)) return {};
  return key.substr(prefix.size());
}

bool AreSameButForBeat(FleetStation one, const FleetStation& other) {
  one.beat = other.beat;
  return one == other;
}

}  // namespace

void FleetView::Take(const FleetNews& news, int64_t now) {
  if (news.is_whole) Clear(news);
  for (const std::string& key : news.gone) Drop(key);
  for (const EtcdKey& key : news.present) TakeKey(key, now);
  for (const std::string& name : touched_) NoteFree(name, now);
  touched_.clear();
}

// Stations, and since when consoles are free, are known from before.
void FleetView::Clear(const FleetNews& whole) {
  for (const auto& [name, seen] : consoles_) touched_.insert(name);
  consoles_.clear();
  claims_.clear();
  at_.clear();
  leased_.clear();
  foreign_.clear();
  std::set<std::string> there;
  for (const EtcdKey& key : whole.present) there.insert(key.key);
  std::erase_if(stations_,
                [&](const auto& entry) { return !there.contains(keys_.Stations() + entry.first); });
  is_known_ = true;
  ++version_;
}

void FleetView::NoteFree(const std::string& name, int64_t now) {
  const auto found = consoles_.find(name);
  if (found == consoles_.end() || ClaimOf(found->second.console) != nullptr) {
    free_since_.erase(name);
  } else {
    free_since_.emplace(name, now);
  }
}

// ---- Changes ------------------------------------------------------------------------------------

void FleetView::SetConsole(const std::string& name, SeenConsole seen) {
  DropConsole(name);
  at_.emplace(seen.console.address, name);
  consoles_[name] = std::move(seen);
}

void FleetView::DropConsole(const std::string& name) {
  ++version_;
  touched_.insert(name);
  const auto found = consoles_.find(name);
  if (found == consoles_.end()) return;
  at_.erase({found->second.console.address, name});
  consoles_.erase(found);
}

void FleetView::SetClaim(const std::string& address, SeenClaim seen) {
  DropClaim(address);
  leased_[seen.lease].insert(address);
  claims_[address] = std::move(seen);
}

void FleetView::DropClaim(const std::string& address) {
  ++version_;
  for (const std::string& name : NamesAt(address)) touched_.insert(name);
  const auto found = claims_.find(address);
  if (found == claims_.end()) return;
  const auto of_lease = leased_.find(found->second.lease);
  of_lease->second.erase(address);
  if (of_lease->second.empty()) leased_.erase(of_lease);
  claims_.erase(found);
}

void FleetView::TakeKey(const EtcdKey& key, int64_t now) {
  foreign_.erase(key.key);
  if (TakeValue(key, now)) return;
  Drop(key.key);
  foreign_.insert(key.key);
  // Whoever wrote it may have the console: it is not free.
  if (const auto address = Behind(keys_.Claims(), key.key))
    SetClaim(*address, {{}, key.lease, key.mod_revision});
}

bool FleetView::TakeValue(const EtcdKey& key, int64_t now) {
  if (key.key == keys_.Fleet()) return DecodeIdentity(key.value).has_value();
  if (const auto name = Behind(keys_.Consoles(), key.key)) {
    const auto console = DecodeConsole(*name, key.value);
    if (console) SetConsole(*name, {*console, key.mod_revision});
    return console.has_value();
  }
  if (const auto address = Behind(keys_.Claims(), key.key)) {
    const auto claim = DecodeClaim(key.value);
    if (claim) SetClaim(*address, {*claim, key.lease, key.mod_revision});
    return claim.has_value();
  }
  if (const auto name = Behind(keys_.Stations(), key.key)) {
    const auto station = DecodeStation(*name, key.value);
    if (station) TakeStation(key, *station, now);
    return station.has_value();
  }
  return false;
}

void FleetView::TakeStation(const EtcdKey& key, FleetStation station, int64_t now) {
  SeenStation& seen = stations_[station.name];
  if (!station.ready || seen.lease != key.lease) seen.ready_since = 0;
  if (station.ready && seen.ready_since == 0) seen.ready_since = now;
  if (seen.lease != key.lease || !AreSameButForBeat(seen.station, station)) ++version_;
  seen.lease = key.lease;
  seen.station = std::move(station);
}

void FleetView::Drop(const std::string& key) {
  ++version_;
  foreign_.erase(key);
  if (const auto name = Behind(keys_.Consoles(), key)) DropConsole(*name);
  if (const auto address = Behind(keys_.Claims(), key)) DropClaim(*address);
  if (const auto name = Behind(keys_.Stations(), key)) stations_.erase(*name);
}

// ---- Questions ----------------------------------------------------------------------------------

const SeenClaim* FleetView::ClaimOf(const SharedConsole& console) const {
  const auto found = claims_.find(console.address);
  return found == claims_.end() ? nullptr : &found->second;
}

const std::set<std::string>& FleetView::AddressesOf(int64_t lease) const {
  static const std::set<std::string> kNone;
  const auto found = leased_.find(lease);
  return found == leased_.end() ? kNone : found->second;
}

std::vector<std::string> FleetView::NamesAt(const std::string& address) const {
  std::vector<std::string> names;
  const auto first = at_.lower_bound({address, {}});
  for (auto one = first; one != at_.end() && one->first == address; ++one) {
    names.push_back(one->second);
  }
  return names;
}

std::vector<std::string> FleetView::Problems() const {
  std::vector<std::string> problems;
  for (const std::string& key : foreign_) {
    problems.push_back(
        "the key \"" + zevctl::Printable(key) +
        "\" of etcd was not written by zevfleet, or by a newer one; it does not count");
  }
  return problems;
}

}  // namespace zevfleet
