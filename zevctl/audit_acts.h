// The acts that the journal tells of, chosen and as data.
#pragma once

#include <functional>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "acts.h"
#include "journal/journal.h"
#include "past_time.h"

namespace zevctl {

/// Which acts are wanted. What is empty does not choose.
struct ActFilter {
  std::vector<std::string> consoles;  ///< names, earlier names and shell patterns
  std::string user;                   ///< as proved or as given, as the next one
  std::string from;
  std::vector<std::string> words;  ///< of Act::what
  std::function<bool()> go_on;     ///< false: what has been read is enough; may be empty
};

/// The wanted acts in the order of the journal; `damages` becomes what was stepped over.
std::vector<Act> ReadActs(const ActFilter& filter, const PastRange& range,
                          const journal::Journal& journal, std::vector<journal::Damage>* damages);

/// An object with the members that zevctl.1 lists. Strings are valid UTF-8.
nlohmann::ordered_json ActData(const Act& act);

}  // namespace zevctl
