// zev.conf, the file that the daemon reads: reading it as the daemon does, with the place of each
// field and with what the daemon would swallow in silence, and writing it.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "config_console.h"

namespace zevctl {

/// The consoles that the daemon would read from the text. Where a line is not what it seems to be,
/// that is added to the findings; so are lines that the daemon leaves out.
std::vector<ConfigConsole> ReadZevConf(std::string_view text, const std::string& file,
                                       Findings& findings);

/// The whole file: a comment with the hash of the rest, and a line for each console.
std::string WriteZevConf(const std::vector<ConfigConsole>& consoles);

/// Who wrote a zev.conf, as its first line tells.
enum class ZevConfOrigin {
  kEmpty,    ///< nobody: it has no consoles
  kApplied,  ///< "config apply", and it is as it was then
  kEdited,   ///< "config apply", and it has been changed since
  kForeign,  ///< somebody else
};

ZevConfOrigin OriginOf(std::string_view text);

/// What stands in a console's line, without its blank and line end.
std::string ZevConfLine(const ConfigConsole& console);

}  // namespace zevctl
