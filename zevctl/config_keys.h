// The keys of the readable configuration: what they are called, what values they take and what they
// become in zev.conf.
#pragma once

#include <array>
#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "config_console.h"
#include "config_toml.h"

namespace zevctl {

/// What kind of value a key takes.
enum class KeyType {
  kText,    ///< a string
  kFlag,    ///< true or false
  kNumber,  ///< a number, or a string with a range
};

/// Where a key may stand.
enum class KeyScope {
  kConsole,     ///< of a console only
  kEverywhere,  ///< of a console, a group and the defaults
};

struct KeyRow {
  std::string_view key;
  KeyType type;
  KeyScope scope;
  std::optional<ConfigField> field;   ///< what it becomes in zev.conf
  std::optional<LineKind> line = {};  ///< for the target of a line
  const char* standard = nullptr;     ///< the value when it is given nowhere
};

inline constexpr std::array kKeys = {
    KeyRow{"name", KeyType::kText, KeyScope::kConsole, kFieldName},
    KeyRow{"group", KeyType::kText, KeyScope::kConsole, {}},
    KeyRow{"tcp", KeyType::kText, KeyScope::kConsole, {}},
    KeyRow{"serial", KeyType::kText, KeyScope::kConsole, {}, LineKind::kSerial},
    KeyRow{"exec", KeyType::kText, KeyScope::kConsole, {}, LineKind::kExec},
    KeyRow{"ssh", KeyType::kText, KeyScope::kConsole, {}, LineKind::kSsh},
    KeyRow{"ipmi", KeyType::kText, KeyScope::kConsole, {}, LineKind::kIpmi},
    KeyRow{"secret_file", KeyType::kText, KeyScope::kEverywhere, {}},
    KeyRow{"port", KeyType::kNumber, KeyScope::kConsole, kFieldUserPort, {}, "0"},
    KeyRow{
        "management_port", KeyType::kNumber, KeyScope::kEverywhere, kFieldManagementPort, {}, "0"},
    KeyRow{"model", KeyType::kText, KeyScope::kEverywhere, kFieldModel, {}, "-"},
    KeyRow{"platform", KeyType::kText, KeyScope::kEverywhere, kFieldPlatform, {}, "-"},
    KeyRow{"os", KeyType::kText, KeyScope::kEverywhere, kFieldOs, {}, "-"},
    KeyRow{"log", KeyType::kFlag, KeyScope::kEverywhere, kFieldLog, {}, "1"},
    KeyRow{"events", KeyType::kFlag, KeyScope::kEverywhere, kFieldEvents, {}, "1"},
    KeyRow{"enabled", KeyType::kFlag, KeyScope::kEverywhere, kFieldEnabled, {}, "1"},
    KeyRow{"login", KeyType::kFlag, KeyScope::kEverywhere, kFieldLogin, {}, "1"},
    KeyRow{"events_file", KeyType::kText, KeyScope::kEverywhere, kFieldEventsFile, {}, ""},
};

/// The values of one table, as texts: a flag is "0" or "1".
using KeyValues = std::map<std::string_view, ConfigText>;

/// The row of the key, or null.
const KeyRow* FindKey(std::string_view key);

/// Reads the values of a table. What is unknown, misplaced or of another kind is added to the
/// findings. `of_console`: it is a console's table, not a group's or the defaults'.
KeyValues ReadKeys(const TomlNode& table, bool of_console, Findings& findings);

}  // namespace zevctl
