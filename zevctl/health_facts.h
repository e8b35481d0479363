// What is known of the station's health: from the running daemon, the journal, the configuration
// and the logs, as far as each can be had.
#pragma once

#include <string>
#include <vector>

#include "health_judge.h"
#include "settings.h"

namespace zevctl {

/// Where to look.
struct HealthSources {
  std::string journal_dir;
  std::string log_dir;
  std::string zev_conf;
};

/// `patterns`: the wanted consoles; all if there is none. Of --host another machine, only the
/// daemon is asked. Throws Failure when nothing can be known, or a pattern means nothing.
HealthFacts GatherHealth(const Settings& settings, const HealthSources& sources,
                         const std::vector<std::string>& patterns, HealthRules rules);

}  // namespace zevctl
