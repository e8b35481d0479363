// Which consoles a command is about.
#pragma once

#include <string>
#include <vector>

#include "command_port.h"
#include "name_match.h"

namespace zevctl {

/// The records whose names match at least one of the patterns, in the given order; all of them when
/// there is no pattern. Throws Failure(kNoSuchConsole) for a pattern that matches none.
template <typename Record>
std::vector<Record> Select(const std::vector<Record>& records,
                           const std::vector<std::string>& patterns);

/// The records of each name together, in the order of the first of each: case does not count for
/// the daemon.
std::vector<std::vector<ConsoleRecord>> GroupedByName(const std::vector<ConsoleRecord>& consoles);

/// The names of the records, each once, as the first record of each has it: the daemon acts on
/// names.
std::vector<std::string> NamesOf(const std::vector<ConsoleRecord>& consoles);

/// Asks before something is done to more than one console, when there is somebody to ask. `action`
/// is the start of the question, such as "Disable". Throws Failure(kDeclined) unless the answer is
/// yes.
void Confirm(const std::string& action, const std::vector<std::string>& names);

}  // namespace zevctl
