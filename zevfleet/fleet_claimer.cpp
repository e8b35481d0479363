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
  const std::string value = Encode(ConsoleClaim{member_.station.name, member_.station.instance});
  EtcdTransaction claim;
  for (const std::string& name : names) {
    const SeenConsole& seen = view.consoles().at(name);
    const std::string key = keys_.Claims() + seen.console.address;
    claim.IfMissing(key)
        .IfUnchanged(keys_.Consoles() + name, seen.mod_revision)
        .Put(key, value, member_.lease.id);
  }
  if (etcd_.Commit(claim) || names.size() == 1) return;
  for (const std::string& name : names) ClaimTogether(view, {name});
}

void FleetClaimer::GiveUp(const Names& addresses) {
  for (size_t begin = 0; begin < addresses.size(); begin += kTogether) {
    EtcdTransaction give_up;
    for (size_t i = begin; i < std::min(begin + kTogether, addresses.size()); ++i) {
      const std::string key = keys_.Claims() + addresses[i];
      give_up.IfOfLease(key, member_.lease.id).Delete(key);
    }
    etcd_.Commit(give_up);
  }
}

}  // namespace zevfleet
