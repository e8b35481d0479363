// What this station knows of the fleet: the keys of etcd as values, kept up to date by what the
// watch brings. Belongs to the main thread.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "fleet_etcd.h"
#include "fleet_record.h"

namespace zevfleet {

/// What the watch brings: either all keys, or changes since.
struct FleetNews {
  bool is_whole = false;          ///< all other keys are gone
  std::vector<EtcdKey> present;   ///< with their values
  std::vector<std::string> gone;  ///< names of keys
};

struct SeenConsole {
  SharedConsole console;
  int64_t mod_revision = 0;
};

struct SeenClaim {
  ConsoleClaim claim;
  int64_t lease = 0;
  int64_t mod_revision = 0;
};

struct SeenStation {
  FleetStation station;
  int64_t lease = 0;
  int64_t ready_since = 0;  ///< of CLOCK_BOOTTIME, as seen here; 0 while it is not ready
};

class FleetView {
 public:
  explicit FleetView(const std::string& site) : keys_(site) {}

  /// `now`: of CLOCK_BOOTTIME.
  void Take(const FleetNews& news, int64_t now);

  bool is_known() const { return is_known_; }
  /// Grows with all that may change what a station does or what its map says. The beat of a station
  /// does not: each station has one every few seconds.
  uint64_t version() const { return version_; }
  const std::map<std::string, SeenConsole>& consoles() const { return consoles_; }
  /// By addresses.
  const std::map<std::string, SeenClaim>& claims() const { return claims_; }
  /// The claim of a console's address, or null.
  const SeenClaim* ClaimOf(const SharedConsole& console) const;
  const std::map<std::string, SeenStation>& stations() const { return stations_; }

  /// The addresses with a claim that ends with the lease. Sorted.
  const std::set<std::string>& AddressesOf(int64_t lease) const;
  /// The consoles with that address. Sorted; more than one only after a mistake.
  std::vector<std::string> NamesAt(const std::string& address) const;

  /// The consoles that nobody has, each with the moment since when, as seen here.
  const std::map<std::string, int64_t>& free_since() const { return free_since_; }

  /// Keys with values that are not understood, in words.
  std::vector<std::string> Problems() const;

 private:
  void TakeKey(const EtcdKey& key, int64_t now);
  bool TakeValue(const EtcdKey& key, int64_t now);
  void Drop(const std::string& key);
  void TakeStation(const EtcdKey& key, FleetStation station, int64_t now);
  void Clear(const FleetNews& whole);
  void SetConsole(const std::string& name, SeenConsole seen);
  void DropConsole(const std::string& name);
  void SetClaim(const std::string& address, SeenClaim seen);
  void DropClaim(const std::string& address);
  void NoteFree(const std::string& name, int64_t now);

  FleetKeys keys_;
  bool is_known_ = false;
  std::map<std::string, SeenConsole> consoles_;
  std::map<std::string, SeenClaim> claims_;  // by addresses
  std::map<std::string, SeenStation> stations_;
  std::map<std::string, int64_t> free_since_;
  std::set<std::string> foreign_;
  uint64_t version_ = 0;
  // What follows from these: a fleet has many more consoles than one station, or one change, is
  // concerned with.
  std::set<std::pair<std::string, std::string>> at_;  // addresses and names of consoles
  std::map<int64_t, std::set<std::string>> leased_;   // addresses, by the lease of their claims
  std::set<std::string> touched_;                     // consoles that may have become free, or not
};

}  // namespace zevfleet
