// The configuration as it stands on the disk: which files it is made of, and what is wrong in them.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "config_check.h"
#include "config_console.h"
#include "config_file.h"

namespace zevctl {

enum class ConfigFormat {
  kReadable,  ///< consoles.toml
  kZevConf,
};

/// The files of the station.
std::string ReadablePath();
std::string ZevConfPath();
std::string LinesPath();

/// The content of a configuration file. Those of the station are read safely, as their directory is
/// the daemon's user's; of others, it is the caller's business where a link leads.
ReadFile ReadConfigFile(const std::string& path);

struct ConfigRequest {
  std::string file;
  std::optional<ConfigFormat> format;  ///< if not given, the file's name tells
  std::string events_dir;              ///< empty for the station's
  uint16_t main_port = 6500;
};

struct LoadedConfig {
  ConfigFormat format = ConfigFormat::kReadable;
  std::string file;
  std::vector<ConfigConsole> consoles;  ///< the lines have their ports
};

/// Reads a configuration, and adds all that is wrong with it. Throws Failure when the file cannot
/// be read.
LoadedConfig LoadConfig(const ConfigRequest& request, Findings& findings);

struct CheckedConfig {
  LoadedConfig config;
  Findings findings;
};

/// The station's files that say what its consoles are.
struct StationConfig {
  std::vector<CheckedConfig> files;
  std::string note;  ///< which of them counts, and what changes that; empty where it goes without
};

/// The readable configuration, as long as zev.conf is made from it. Another zev.conf is checked,
/// too, or instead when the readable files have no consoles. `request`: its file does not matter.
/// Throws Failure when a file cannot be read.
StationConfig LoadStation(const ConfigRequest& request);

/// Adds what is wrong with the files that make up the configuration: who could change them.
void CheckOwners(const LoadedConfig& config, Findings& findings);

/// Adds what the lines of the configuration lack on this machine. `severity`: of a packet filter
/// that is not loaded.
void CheckLines(const LoadedConfig& config, Severity severity, Findings& findings);

/// The consoles of the present zev.conf, as far as it can be read; none when there is no such file.
std::vector<ConfigConsole> PresentConsoles();

/// The present zev.conf. Throws Failure(kFailed) when it cannot be read; a missing one is empty.
std::string PresentZevConf();

}  // namespace zevctl
