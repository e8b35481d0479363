#include "fleet_claimer.h"

#include <algorithm>

namespace zevfleet {

namespace {

constexpr size_t kTogether = 40;  // etcd takes 128 operations in a transaction, --max-txn-ops

}  // namespace

void FleetClaimer::Claim(const FleetView& view, const Names& names) {
  for (size_t begin = 0; begin < names.size(); begin += kTogether) {
    const size_t end = std::min(begin + kTogether, names.size());
    ClaimTogether(view, Names(names.begin() + static_cast<ptrdiff_t>(begin),
                              names.begin() + static_cast<ptrdiff_t>(end)));
  }
}

// All of them or, where another station has been quicker with one, each on its own.
void FleetClaimer::ClaimTogether(const FleetView& view, const Names& names) {
  EtcdTransaction claim;
  for (const std::string& name : names) {
    const SeenConsole& seen = view.consoles().at(name);
    const std::string key = keys_.Claims() + seen.console.address;
    claim.IfMissing(key)
        .IfUnchanged(keys_.Consoles() + name, seen.mod_revision)
        .Put(key, value_, member_.lease.id);
  }
  if (etcd_.Commit(claim) || names.size() == 1) return;
  for (const std::string& name : names) ClaimTogether(view, {name});
}

bool FleetClaimer::Renew(const FleetView& view, const Names& addresses) {
  for (size_t begin = 0; begin < addresses.size(); begin += kTogether) {
    EtcdTransaction renewal;
    for (size_t i = begin; i < std::min(begin + kTogether, addresses.size()); ++i) {
      const std::string key = keys_.Claims() + addresses[i];
      renewal.IfUnchanged(key, view.claims().at(addresses[i]).mod_revision)
          .Put(key, value_, member_.lease.id);
    }
    if (!etcd_.Commit(renewal)) return false;
  }
  return true;
}

void FleetClaimer::GiveUp(const FleetView& view, const Names& addresses) {
  std::erase_if(given_up_, [&](const auto& entry) { return !HasGivenUp(view, entry.first); });
  for (const std::string& address : addresses) {
    given_up_[address] = view.claims().at(address).mod_revision;
  }
  for (size_t begin = 0; begin < addresses.size(); begin += kTogether) {
    EtcdTransaction give_up;
    for (size_t i = begin; i < std::min(begin + kTogether, addresses.size()); ++i) {
      const std::string key = keys_.Claims() + addresses[i];
      give_up.IfUnchanged(key, given_up_.at(addresses[i])).Delete(key);
    }
    etcd_.Commit(give_up);
  }
}

bool FleetClaimer::HasGivenUp(const FleetView& view, const std::string& address) const {
  const auto claim = view.claims().find(address);
  const auto given_up = given_up_.find(address);
  return claim != view.claims().end() && given_up != given_up_.end() &&
         claim->second.mod_revision <= given_up->second;
}

}  // namespace zevfleet
