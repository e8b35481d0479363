// What a new configuration changes, as the daemon will see it: it knows a console by its address
// and port, whatever its name is.
#pragma once

#include <set>
#include <string>
#include <vector>

#include "config_console.h"

namespace zevctl {

enum class ChangeKind { kComes, kGoes, kChanges };

struct FieldChange {
  ConfigField field;
  std::string before;
  std::string after;
};

struct Change {
  ChangeKind kind = ChangeKind::kComes;
  std::string name;                 ///< the present one; the new one of a console that comes
  std::string address;              ///< with its port
  std::vector<FieldChange> fields;  ///< of a console that changes
  bool costs_users = false;         ///< its users are disconnected
  bool line_changed = false;        ///< something else is behind its line
};

/// Those that go, then those that change, then those that come. `lines`: the ports of the lines
/// that change (ChangedLines() in config_lines.h).
std::vector<Change> Compare(const std::vector<ConfigConsole>& before,
                            const std::vector<ConfigConsole>& after,
                            const std::set<std::string>& lines = {});

/// The change in words for people, such as "login 0 -> 1".
std::string InWords(const FieldChange& change);

/// All that changes at a console, in words. What is behind a line is not told: it may be a secret.
std::string InWords(const Change& change);

}  // namespace zevctl
