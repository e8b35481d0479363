// Entering the fleet: whether it is the one that is meant, and the lease with which this station is
// there.
#pragma once

#include <optional>
#include <string>

#include "fleet_deadline.h"
#include "fleet_etcd.h"
#include "fleet_record.h"

namespace zevfleet {

/// What a station has once it has entered.
struct Membership {
  EtcdLease lease;
  FleetStation station;  ///< as it stands in etcd
};

/// Why a station cannot enter, and goes on alone.
class NotAdmitted : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// This station's own number, drawn at its first start. Throws zevctl::Failure.
std::string OwnInstance(const FleetOptions& options);

/// Enters, or goes on with the lease that the file tells of, when its deadline has not passed. From
/// then on the file has the lease's number. Throws NotAdmitted or EtcdError.
Membership Join(const FleetOptions& options, Etcd& etcd, DeadlineFile& file);

/// 32 random hexadecimal digits.
std::string RandomId();

}  // namespace zevfleet
