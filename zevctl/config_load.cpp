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
  ReadFile file = ReadWhole(path);
  if (file.kind == FileKind::kRegular) return std::move(file.text);
  const std::string reason = file.kind == FileKind::kOther ? "it is no plain file" : file.reason;
  throw Failure(ExitStatus::kFailed,
                "cannot read " + path + ": " + reason + "; name another file, or mend this one");
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

// A station that has no readable file yet is checked as it is.
std::string StationsFile() {
  const bool has_readable = access(ReadablePath().c_str(), F_OK) == 0;
  return has_readable || access(ZevConfPath().c_str(), F_OK) != 0 ? ReadablePath() : ZevConfPath();
}

ConfigFormat FormatOf(const std::string& file) {
  if (file.ends_with(".toml")) return ConfigFormat::kReadable;
  if (file.ends_with(".conf")) return ConfigFormat::kZevConf;
  throw Failure(ExitStatus::kUsage, "the name " + file +
                                        " does not tell what is in the file; say it with "
                                        "--format toml or --format conf");
}

void CheckOwner(const std::string& path, uid_t directory_owner, Findings& findings) {
  const ReadFile file = ReadWhole(path);
  if (file.kind != FileKind::kRegular) return;
  if (file.owner != 0 && file.owner != directory_owner && file.owner != geteuid()) {
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

LoadedConfig LoadConfig(const ConfigRequest& request, Findings& findings) {
  LoadedConfig config;
  config.file = request.file.empty() ? StationsFile() : request.file;
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
  const ReadFile file = ReadWhole(ZevConfPath());
  return file.kind == FileKind::kMissing ? "" : TextOf(ZevConfPath());
}

std::vector<ConfigConsole> PresentConsoles() {
  const ReadFile file = ReadWhole(ZevConfPath());
  Findings ignored;
  return ReadZevConf(file.text, ZevConfPath(), ignored);
}

}  // namespace zevctl
