// A console as the configuration describes it: the fields of its line in zev.conf as texts, each
// with the place where it was written, whatever file that was.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "config_findings.h"
#include "lines.h"

namespace zevctl {

/// The fields of a line of zev.conf, in their order.
enum ConfigField : size_t {
  kFieldName,
  kFieldAddress,
  kFieldPort,
  kFieldManagementPort,
  kFieldUserPort,
  kFieldModel,
  kFieldPlatform,
  kFieldOs,
  kFieldLog,
  kFieldEvents,
  kFieldEnabled,
  kFieldLogin,
  kFieldEventsFile,
  kConfigFieldCount
};

/// What the daemon's messages and manual page call the fields.
inline constexpr std::array<const char*, kConfigFieldCount> kConfigFieldTitles = {
    "console name", "IP address",          "console port",   "management port", "user port",
    "model number", "platform name",       "OS type",        "logging flag",    "events flag",
    "enable flag",  "authentication flag", "event file name"};

/// Stands for no event file.
inline constexpr char kNoEventsFile[] = "\"\"";

struct ConfigText {
  std::string text;
  Place place;
};

struct ConfigConsole {
  std::array<ConfigText, kConfigFieldCount> fields;
  std::optional<Line> line;  ///< for a console that is reached through a line of the station
  Place line_place;          ///< of the line's target

  const std::string& Text(ConfigField field) const { return fields[field].text; }
  const Place& PlaceOf(ConfigField field) const { return fields[field].place; }
  const std::string& name() const { return Text(kFieldName); }
};

/// The number that the text is, without sign or blanks, when it is no more than `most`.
std::optional<uint32_t> NumberIn(std::string_view text, uint32_t most = 65535);

/// The form in which names are compared that tools take for the same: case does not count for
/// commands, and events turn "-" into "_".
std::string FoldedName(std::string_view name);

/// Gives each line its port, and its console the address of it: the port that the console had
/// before, else the lowest free one. So an apply never moves a line under its users.
void AssignLinePorts(std::vector<ConfigConsole>& consoles,
                     const std::vector<ConfigConsole>& before);

}  // namespace zevctl
