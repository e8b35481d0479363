// Claims in etcd, as they are made and given up: as many at a time as etcd takes. Which ones is
// decided elsewhere.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "fleet_etcd.h"
#include "fleet_join.h"
#include "fleet_record.h"
#include "fleet_view.h"

namespace zevfleet {

/// Claims for one station with one lease. Belongs to the thread of the connection. Every call
/// throws EtcdError.
class FleetClaimer {
 public:
  FleetClaimer(const std::string& site, Etcd& etcd, const Membership& member)
      : keys_(site),
        etcd_(etcd),
        member_(member),
        value_(Encode(ConsoleClaim{member.station.name, member.station.instance})) {}

  /// Claims consoles that the view has as free; another station may be quicker with some of them.
  /// The watch brings the claims that were made.
  void Claim(const FleetView& view, const std::vector<std::string>& names);

  /// Writes claims that are this station's anew, by which they get other revisions: what an earlier
  /// run of this lease has asked for and etcd does not yet have done then changes nothing any more.
  /// False when etcd has other claims than the view, which then is about to learn it.
  bool Renew(const FleetView& view, const std::vector<std::string>& addresses);

  /// Gives claims up that are this station's. From here on they are given up, whatever becomes of
  /// the request, and however long the view still has them.
  void GiveUp(const FleetView& view, const std::vector<std::string>& addresses);

  /// True for an address whose claim, as the view has it, was given up: it may be another's by now.
  bool HasGivenUp(const FleetView& view, const std::string& address) const;

 private:
  using Names = std::vector<std::string>;

  void ClaimTogether(const FleetView& view, const Names& names);

  const FleetKeys keys_;
  Etcd& etcd_;
  const Membership member_;
  const std::string value_;                  // of a claim
  std::map<std::string, int64_t> given_up_;  // revisions of claims, by addresses
};

}  // namespace zevfleet
