#include "fleet_view.h"

#include "output.h"

namespace zevfleet {

namespace {

// What stands behind the prefix; nothing when it is not there.
std::optional<std::string> Behind(const std::string& prefix, const std::string& key) {
  if (!key.starts_with(prefix)) return {};
  return key.substr(prefix.size());
}

}  // namespace

void FleetView::Take(const FleetNews& news, int64_t now) {
  const uint64_t before = changes_;
  if (news.is_whole) {
    ++changes_;
    identity_.reset();
    consoles_.clear();
    claims_.clear();
    foreign_.clear();
    std::set<std::string> there;
    for (const EtcdKey& key : news.present) there.insert(key.key);
    std::erase_if(stations_, [&](const auto& entry) {
      return !there.contains(keys_.Stations() + entry.first);
    });
    is_known_ = true;
  }
  for (const std::string& key : news.gone) Drop(key);
  for (const EtcdKey& key : news.present) TakeKey(key, now);
  // Most news are that a station lives, and there may be a hundred thousand consoles.
  if (changes_ != before) NoteFree(now);
}

void FleetView::NoteFree(int64_t now) {
  for (const auto& [name, seen] : consoles_) {
    if (ClaimOf(seen.console) != nullptr) {
      free_since_.erase(name);
    } else {
      free_since_.emplace(name, now);
    }
  }
  std::erase_if(free_since_, [&](const auto& entry) { return !consoles_.contains(entry.first); });
}

void FleetView::TakeKey(const EtcdKey& key, int64_t now) {
  foreign_.erase(key.key);
  if (!Behind(keys_.Stations(), key.key)) ++changes_;
  if (TakeValue(key, now)) return;
  Drop(key.key);
  foreign_.insert(key.key);
  // Whoever wrote it may have the console: it is not free.
  if (const auto address = Behind(keys_.Claims(), key.key)) claims_[*address] = {{}, key.lease};
}

bool FleetView::TakeValue(const EtcdKey& key, int64_t now) {
  if (key.key == keys_.Fleet()) {
    identity_ = DecodeIdentity(key.value);
    return identity_.has_value();
  }
  if (const auto name = Behind(keys_.Consoles(), key.key)) {
    const auto console = DecodeConsole(*name, key.value);
    if (console) consoles_[*name] = {*console, key.mod_revision};
    return console.has_value();
  }
  if (const auto address = Behind(keys_.Claims(), key.key)) {
    const auto claim = DecodeClaim(key.value);
    if (claim) claims_[*address] = {*claim, key.lease};
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
  seen.lease = key.lease;
  seen.station = std::move(station);
}

void FleetView::Drop(const std::string& key) {
  foreign_.erase(key);
  if (!Behind(keys_.Stations(), key)) ++changes_;
  if (key == keys_.Fleet()) identity_.reset();
  if (const auto name = Behind(keys_.Consoles(), key)) consoles_.erase(*name);
  if (const auto address = Behind(keys_.Claims(), key)) claims_.erase(*address);
  if (const auto name = Behind(keys_.Stations(), key)) stations_.erase(*name);
}

const SeenClaim* FleetView::ClaimOf(const SharedConsole& console) const {
  const auto found = claims_.find(console.address);
  return found == claims_.end() ? nullptr : &found->second;
}

std::optional<int64_t> FleetView::FreeSince(const std::string& console) const {
  const auto found = free_since_.find(console);
  if (found == free_since_.end()) return {};
  return found->second;
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
