// Which consoles a command is about.
#pragma once

#include <string>
#include <vector>

#include "command_port.h"
#include "console_view.h"
#include "name_match.h"

namespace zevctl {

/// What a command does with consoles decides how freely they may be named.
enum class Purpose {
  kLook,  ///< the start of a name is enough where only one begins so
  kAct,   ///< names in full, in any case, or shell patterns
};

template <typename Record>
struct Selection {
  std::vector<Record> records;  ///< in the given order
  bool by_name = true;          ///< every pattern was the name of a console
};

/// The records whose names match at least one of the patterns; all of them when there is no
/// pattern. Throws Failure(kNoSuchConsole) for a pattern that matches none.
template <typename Record>
Selection<Record> Select(const std::vector<Record>& records,
                         const std::vector<std::string>& patterns, Purpose purpose);

/// The records of each name together, in the order of the first of each: case does not count for
/// the daemon.
template <typename Record>
std::vector<std::vector<Record>> GroupedByName(const std::vector<Record>& consoles);

/// The names of the records, each once, as the first record of each has it: the daemon acts on
/// names.
template <typename Record>
std::vector<std::string> NamesOf(const std::vector<Record>& consoles);

/// Asks before something is done to more than one console, or to one that was not called by its
/// name. `action` is the start of the question, such as "Disable". Throws Failure(kDeclined) unless
/// the answer is yes, and where there is no terminal to ask on.
void Confirm(const std::string& action, const std::vector<std::string>& names, bool by_name);

}  // namespace zevctl
