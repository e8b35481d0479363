// The readable configuration: consoles.toml and the files of consoles.d, with defaults, groups and
// ranges. consoles.toml.5 describes it and changes together with this file.
#pragma once

#include <string>
#include <vector>

#include "config_console.h"
#include "config_toml.h"

namespace zevctl {

/// One file's name and content.
struct ConfigSource {
  std::string file;
  std::string text;
};

/// The consoles of all sources together, the first of which is the main file. Mistakes are added to
/// the findings; the consoles with mistakes are left out, or lack what cannot be told.
std::vector<ConfigConsole> ReadReadable(const std::vector<ConfigSource>& sources,
                                        Findings& findings);

/// The same for one file that was parsed before, in which other keys may have stood beside these.
std::vector<ConfigConsole> ReadReadable(const TomlNode& root, Findings& findings);

/// The readable file for consoles that were read from zev.conf. What most of them have in common
/// becomes the defaults.
std::string WriteReadable(const std::vector<ConfigConsole>& consoles);

/// The consoles for a file of consoles.d. Each says everything itself, whatever the defaults of the
/// main file are.
std::string WriteIncluded(const std::vector<ConfigConsole>& consoles);

}  // namespace zevctl
