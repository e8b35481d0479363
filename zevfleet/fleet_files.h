// The fleet's consoles in the daemon's files: consoles.d/zevfleet.toml, from which "zevctl config
// apply" makes zev.conf together with the station's own consoles. What was ever put there is noted
// first, so that it can be taken out again whatever was interrupted.
#pragma once

#include <string>
#include <vector>

#include "config_console.h"
#include "fleet_options.h"

namespace zevfleet {

class FleetFiles {
 public:
  explicit FleetFiles(const FleetOptions& options) : options_(options) {}

  /// Makes these the fleet's consoles of this station, and has the daemon read them. Throws
  /// zevctl::Failure with what "zevctl config apply" says; the files may then have the old or the
  /// new ones.
  void Apply(const std::vector<zevctl::ConfigConsole>& consoles);

  /// True when the daemon's files may have consoles of the fleet.
  bool MayHaveAny() const;

  /// True when one of the files that count has a console of this address ("ADDRESS:PORT").
  static bool Mention(const std::string& address);

  /// After Apply() has failed: these alone are the fleet's consoles in the files, also in zev.conf
  /// where that was written already. The daemon is not told. Throws zevctl::Failure.
  void PutBack(const std::vector<zevctl::ConfigConsole>& consoles);

  /// Takes all of the fleet's consoles out of the files, whatever else is wrong there; the daemon
  /// is not told. Throws zevctl::Failure when the files cannot be written.
  void Strip();

 private:
  const FleetOptions& options_;
};

/// The text of zev.conf without the consoles that have one of these addresses ("ADDRESS:PORT").
std::string WithoutConsoles(const std::string& zev_conf, const std::vector<std::string>& addresses);

}  // namespace zevfleet
