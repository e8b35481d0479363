// What the administrator has set in zevfleet.toml.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "config_findings.h"

namespace zevfleet {

/// Files with which a server is believed, and this station to it. Empty: none.
struct TlsFiles {
  std::string ca;
  std::string certificate;
  std::string key;
};

struct EtcdOptions {
  std::vector<std::string> endpoints;  ///< as "https://HOST:2379", without a slash at the end
  TlsFiles tls;
  std::string user;           ///< empty: nobody logs in
  std::string password_file;  ///< its first line is the password
  int64_t lease_seconds = 10;
};

struct NatsOptions {
  std::vector<std::string> urls;  ///< as "nats://HOST:4222"; empty: nothing is shipped
  TlsFiles tls;
  std::string credentials;  ///< a file of NATS's own kind
  int64_t replicas = 1;     ///< of the stream, where this station is the one that makes it
  std::vector<std::string> kinds = {"out", "event", "state", "audit"};
  int64_t max_bytes = 0;      ///< of the stream; 0: as much as the server has
  int64_t max_age_hours = 0;  ///< of the stream; 0: for ever
};

struct FleetOptions {
  std::string site;     ///< the fleet's name
  std::string station;  ///< this station's name in the fleet
  std::string address;  ///< how operators and other stations reach this one
  std::string web;      ///< the address of its page; empty for none
  std::string run_directory = "/run/zevfleet";
  std::string state_directory = "/var/lib/zevfleet";
  uint16_t main_port = 6500;    ///< the daemon's
  int64_t return_seconds = 30;  ///< how long a station must be back before consoles go back to it
  EtcdOptions etcd;
  NatsOptions nats;

  std::string LeaseFile() const { return run_directory + "/lease"; }
  std::string RunLock() const { return run_directory + "/run.lock"; }
  std::string GuardLock() const { return run_directory + "/guard.lock"; }
  std::string MapFile() const { return run_directory + "/fleet.json"; }
};

/// Whether a text can name a fleet or a station: 1 to 64 of A-Z, a-z, 0-9, "-" and "_".
bool IsPlainName(const std::string& text);

/// The options in the text of the file. What is wrong is added to the findings.
FleetOptions ReadFleetOptions(const std::string& text, const std::string& file,
                              zevctl::Findings& findings);

/// The options in the file. Throws zevctl::Failure when it cannot be read.
FleetOptions LoadFleetOptions(const std::string& file, zevctl::Findings& findings);

}  // namespace zevfleet
