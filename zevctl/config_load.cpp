#include "config_load.h"

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "config_file.h"
#include "config_patterns.h"
#include "config_readable.h"
#include "config_zev.h"
#include "exit_status.h"
#include "settings.h"

namespace zevctl {

namespace {

constexpr char kIncluded[] = "consoles.d";
constexpr char kServiceUser[] = "zevd";
constexpr char kLinesUser[] = "zevd-lines";

std::string ConfigPath(const char* name) {
  return kStationRoot + "/config/" + name;
}

std::string DirectoryOf(const std::string& file) {
  const size_t slash = file.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : file.substr(0, slash);
}

std::string TextOf(const std::string& path) {
  ReadFile file = ReadConfigFile(path);
  if (file.kind == FileKind::kRegular) return std::move(file.text);
  throw Failure(ExitStatus::kFailed, "cannot read " + path + ": " + file.reason +
                                         "; name another file, or mend this one");
}

std::vector<std::string> ReadableFiles(const std::string& main_file) {
  std::vector<std::string> files = {main_file};
  const size_t name = main_file.rfind('/') + 1;  // 0 without a slash
  const auto included = FilesIn(main_file.substr(0, name) + kIncluded, ".toml");
  files.insert(files.end(), included.begin(), included.end());
  return files;
}

std::vector<ConfigConsole> LoadReadable(const std::string& main_file, Findings& findings) {
  std::vector<ConfigSource> sources;
  for (const std::string& file : ReadableFiles(main_file)) sources.push_back({file, TextOf(file)});
  auto consoles = ReadReadable(sources, findings);
  AssignLinePorts(consoles, PresentConsoles());
  return consoles;
}

bool IsThere(const std::string& path) {
  struct stat info {};
  return lstat(path.c_str(), &info) == 0;
}

// Mistakes in the readable files themselves may have cost consoles.
bool HasNoConsoles(const CheckedConfig& readable) {
  const auto findings = readable.findings.Sorted();
  return readable.config.consoles.empty() &&
         std::none_of(findings.begin(), findings.end(),
                      [](const Finding& finding) { return finding.place.file.ends_with(".toml"); });
}

CheckedConfig CheckFile(ConfigRequest request, const std::string& file) {
  CheckedConfig checked;
  request.file = file;
  request.format.reset();
  checked.config = LoadConfig(request, checked.findings);
  return checked;
}

ConfigFormat FormatOf(const std::string& file) {
  if (file.ends_with(".toml")) return ConfigFormat::kReadable;
  if (file.ends_with(".conf")) return ConfigFormat::kZevConf;
  throw Failure(ExitStatus::kUsage, "the name " + file +
                                        " does not tell what is in the file; say it with "
                                        "--format toml or --format conf");
}

bool IsOfOthers(const ReadFile& file, uid_t directory_owner) {
  return file.owner != 0 && file.owner != directory_owner && file.owner != geteuid();
}

void CheckOwner(const std::string& path, uid_t directory_owner, Findings& findings) {
  const ReadFile file = ReadConfigFile(path);
  if (file.kind != FileKind::kRegular) return;
  if (IsOfOthers(file, directory_owner)) {
    findings.Error({path}, "the file belongs to user " + std::to_string(file.owner),
                   "give it to the owner of its directory, who alone may say what is run");
  }
  if ((file.mode & S_IWOTH) != 0) {
    findings.Error({path}, "everybody can write to the file", "chmod o-w " + path);
  }
}

}  // namespace

std::string ReadablePath() {
  return ConfigPath("consoles.toml");
}

std::string ZevConfPath() {
  return ConfigPath("zev.conf");
}

std::string LinesPath() {
  return ConfigPath("lines.yaml");
}

ReadFile ReadConfigFile(const std::string& path) {
  const std::string directory = ConfigPath("");
  if (!path.starts_with(directory)) return ReadWhole(path);
  return ReadSafely(directory, path.substr(directory.size()));
}

LoadedConfig LoadConfig(const ConfigRequest& request, Findings& findings) {
  LoadedConfig config;
  config.file = request.file;
  config.format = request.format ? *request.format : FormatOf(config.file);
  const bool readable = config.format == ConfigFormat::kReadable;
  config.consoles = readable ? LoadReadable(config.file, findings)
                             : ReadZevConf(TextOf(config.file), config.file, findings);
  CheckSettings settings;
  settings.main_port = request.main_port;
  settings.lines_known = readable;
  settings.events_files = CheckEventFiles(
      request.events_dir.empty() ? kStationRoot + "/events" : request.events_dir, findings);
  CheckConsoles(config.consoles, settings, findings);
  return config;
}

StationConfig LoadStation(const ConfigRequest& request) {
  StationConfig station;
  const ZevConfOrigin origin = OriginOf(PresentZevConf());
  const bool is_others = origin == ZevConfOrigin::kForeign || origin == ZevConfOrigin::kEdited;
  if (!IsThere(ReadablePath()) && IsThere(ZevConfPath())) {
    station.files.push_back(CheckFile(request, ZevConfPath()));
    return station;
  }
  station.files.push_back(CheckFile(request, ReadablePath()));
  if (!is_others) return station;
  const bool has_none = HasNoConsoles(station.files.front());
  if (has_none) station.files.clear();
  station.files.push_back(CheckFile(request, ZevConfPath()));
  station.note = ZevConfPath() + (origin == ZevConfOrigin::kForeign
                                      ? " counts, which was not made by apply"
                                      : " counts, which has been edited since the last apply");
  station.note += has_none ? ", as consoles.toml has no consoles; make one from it with "
                             "\"zevctl config import\""
                           : "; consoles.toml takes its place only with "
                             "\"zevctl config apply --force\"";
  return station;
}

void CheckOwners(const LoadedConfig& config, Findings& findings) {
  struct stat directory {};
  const std::string path = DirectoryOf(config.file);
  if (stat(path.c_str(), &directory) != 0) return;
  if (config.format == ConfigFormat::kReadable) {
    for (const std::string& file : ReadableFiles(config.file)) {
      CheckOwner(file, directory.st_uid, findings);
    }
  }
  // Without a user database, or before the users are made, there is nobody to compare with.
  const passwd* service = getpwnam(kServiceUser);
  const bool of_root = stat(kStationRoot.c_str(), &directory) == 0 && directory.st_gid == 0;
  if (service != nullptr && of_root) {
    findings.Warning({kStationRoot}, "the directory belongs to the group root",
                     "chgrp zevd " + kStationRoot + ", so that what the daemon writes can be read");
  }
}

void CheckLines(const LoadedConfig& config, Severity severity, Findings& findings) {
  const bool has_lines =
      std::any_of(config.consoles.begin(), config.consoles.end(),
                  [](const ConfigConsole& console) { return console.line.has_value(); });
  if (!has_lines) return;
  if (getpwnam(kLinesUser) == nullptr) {
    findings.Warning({config.file}, "there is no user zevd-lines, as which the lines run",
                     "install the package, or make the user");
  }
  const FilterState filter = LinesFilter();
  const std::string mend = "start zevd-lines-filter.service, or load its rules with nft";
  if (filter == FilterState::kMissing) {
    findings.Add({{config.file},
                  severity,
                  "everybody on this machine can connect to the lines: the packet filter "
                  "inet zevd_lines is not loaded",
                  mend});
  } else if (filter == FilterState::kUnknown) {
    findings.Warning({config.file}, "it cannot be seen whether the packet filter is loaded",
                     "run this as root; " + mend);
  }
}

std::string PresentZevConf() {
  const ReadFile file = ReadConfigFile(ZevConfPath());
  if (file.kind == FileKind::kMissing) return "";
  struct stat directory {};
  if (file.kind == FileKind::kRegular && stat(ConfigPath("").c_str(), &directory) == 0 &&
      IsOfOthers(file, directory.st_uid)) {
    throw Failure(ExitStatus::kFailed, ZevConfPath() + " belongs to user " +
                                           std::to_string(file.owner) +
                                           "; give it to the owner of its directory");
  }
  return TextOf(ZevConfPath());
}

std::vector<ConfigConsole> PresentConsoles() {
  const ReadFile file = ReadConfigFile(ZevConfPath());
  Findings ignored;
  return ReadZevConf(file.text, ZevConfPath(), ignored);
}

}  // namespace zevctl
