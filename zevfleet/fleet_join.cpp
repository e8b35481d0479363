#include "fleet_join.h"

#include <sys/random.h>

#include <cstdlib>

#include "config_file.h"
#include "exit_status.h"
#include "fleet_clock.h"

namespace zevfleet {

namespace {

constexpr char kInstanceFile[] = "instance";
constexpr char kFleetFile[] = "fleet";
constexpr mode_t kMode = 0640;
// A station whose clock is that wrong would write logs and a journal of another time.
constexpr int64_t kMostSkew = 60;

void Keep(const FleetOptions& options, const char* name, const std::string& text) {
  const zevctl::ConfigDirectory directory(options.state_directory);
  zevctl::StagedFile staged(directory, name, text + "\n", kMode);
  staged.Commit();
}

std::string Kept(const FleetOptions& options, const char* name) {
  const std::string text = zevctl::ReadWhole(options.state_directory + "/" + name).text;
  return text.substr(0, text.find('\n'));
}

void CheckClock(const Etcd& etcd) {
  const int64_t ahead = etcd.clock_ahead();
  if (std::abs(ahead) <= kMostSkew) return;
  throw NotAdmitted("this station's clock is " + std::to_string(std::abs(ahead)) + " seconds " +
                    (ahead > 0 ? "behind" : "ahead of") + " that of etcd; set it");
}

void CheckIdentity(const FleetOptions& options, Etcd& etcd) {
  const auto key = etcd.Get(FleetKeys(options.site).Fleet());
  if (!key) {
    throw NotAdmitted("there is no fleet \"" + options.site +
                      "\" in etcd; make it with \"zevfleet apply\"");
  }
  const auto fleet = DecodeIdentity(key->value);
  if (!fleet) {
    throw NotAdmitted("the key " + key->key + " of etcd was not written by zevfleet");
  }
  if (fleet->format > kFleetFormat) {
    throw NotAdmitted("the fleet \"" + options.site + "\" is of a newer version (format " +
                      std::to_string(fleet->format) + "); bring zevfleet up to date");
  }
  const std::string known = Kept(options, kFleetFile);
  if (known.empty()) return Keep(options, kFleetFile, fleet->id);
  if (known == fleet->id) return;
  throw NotAdmitted("the fleet \"" + options.site +
                    "\" in etcd is not the one that this station was in: two fleets have this "
                    "name. If the other one is meant, remove " +
                    options.state_directory + "/" + kFleetFile);
}

// The lease of a run that has ended is still good when it is renewed in time.
std::optional<Membership> Resume(Etcd& etcd, const std::string& key, const DeadlineFile& file,
                                 const FleetStation& self, int64_t asked_seconds) {
  const LeaseState state = file.Get();
  if (state.lease == 0 || state.HasPassed(BootNow())) return {};
  const auto present = etcd.Get(key);
  if (!present || present->lease != state.lease) return {};
  try {
    Membership member{{state.lease, etcd.KeepAlive(state.lease)}, self};
    member.lease.seconds = std::min(member.lease.seconds, asked_seconds);
    const auto before = DecodeStation(self.name, present->value);
    if (before) member.station.beat = before->beat;
    return member;
  } catch (const EtcdError& error) {
    if (error.cause() != EtcdError::Cause::kNoLease) throw;
    return {};
  }
}

}  // namespace

std::string RandomId() {
  unsigned char bytes[16];
  if (getrandom(bytes, sizeof bytes, 0) != sizeof bytes) {
    throw zevctl::Failure(zevctl::ExitStatus::kFailed, "the system gives no random bytes");
  }
  std::string id;
  for (const unsigned char byte : bytes) {
    constexpr char kDigits[] = "0123456789abcdef";
    id += {kDigits[byte >> 4], kDigits[byte & 0xF]};
  }
  return id;
}

std::string OwnInstance(const FleetOptions& options) {
  std::string instance = Kept(options, kInstanceFile);
  if (!instance.empty()) return instance;
  instance = RandomId();
  Keep(options, kInstanceFile, instance);
  return instance;
}

Membership Join(const FleetOptions& options, Etcd& etcd, DeadlineFile& file) {
  const FleetKeys keys(options.site);
  const std::string key = keys.Stations() + options.station;
  FleetStation self{.name = options.station,
                    .instance = OwnInstance(options),
                    .address = options.address,
                    .web = options.web,
                    .version = QOR_VERSION};
  CheckIdentity(options, etcd);
  CheckClock(etcd);
  if (auto resumed = Resume(etcd, key, file, self, options.etcd.lease_seconds)) return *resumed;
  const EtcdLease lease = etcd.Grant(options.etcd.lease_seconds);
  file.SetLease(lease.id);
  if (etcd.Commit(EtcdTransaction().IfMissing(key).Put(key, Encode(self), lease.id))) {
    return {{lease.id, std::min(lease.seconds, options.etcd.lease_seconds)}, self};
  }
  etcd.Revoke(lease.id);
  const auto other = etcd.Get(key);
  const auto station = other ? DecodeStation(options.station, other->value) : std::nullopt;
  if (station && station->instance != self.instance) {
    throw NotAdmitted("another station (" + station->address + ") is called \"" + options.station +
                      "\"; give each its own name");
  }
  throw NotAdmitted("the lease of this station's last run has not ended yet");
}

}  // namespace zevfleet
