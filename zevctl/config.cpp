// The commands of the configuration: check, diff, apply, import.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <sstream>

#include "arguments.h"
#include "config_apply.h"
#include "config_diff.h"
#include "config_file.h"
#include "config_lines.h"
#include "config_load.h"
#include "config_readable.h"
#include "config_zev.h"
#include "json_line.h"
#include "output.h"
#include "program.h"

namespace zevctl {

namespace {

struct ConfigOptions {
  std::string file;
  std::string format;
  std::string events_dir;
  std::string output;
  ApplyOptions apply;
};

ConfigRequest RequestOf(const Settings& settings, const ConfigOptions& options) {
  ConfigRequest request;
  request.file = options.file;
  request.events_dir = options.events_dir;
  request.main_port = settings.port;
  if (options.format == "toml") request.format = ConfigFormat::kReadable;
  if (options.format == "conf") request.format = ConfigFormat::kZevConf;
  return request;
}

void PrintJson(const Json& data) {
  std::cout << JsonLine(data) << "\n";
}

std::string Count(size_t number, const std::string& noun) {
  return std::to_string(number) + " " + noun + (number == 1 ? "" : "s");
}

// ---- check --------------------------------------------------------------------------------------

Json FindingsAsJson(const Findings& findings) {
  Json data = Json::array();
  for (const Finding& finding : findings.Sorted()) {
    data.push_back({{"file", Utf8(finding.place.file)},
                    {"line", finding.place.line},
                    {"column", finding.place.column},
                    {"severity", finding.severity == Severity::kError ? "error" : "warning"},
                    {"what", Utf8(finding.what)},
                    {"mend", Utf8(finding.mend)}});
  }
  return data;
}

StationConfig LoadForCheck(const ConfigRequest& request) {
  StationConfig checked;
  if (!request.file.empty()) {
    checked.files.emplace_back();
    checked.files.back().config = LoadConfig(request, checked.files.back().findings);
    return checked;
  }
  checked = LoadStation(request);
  for (auto& [config, findings] : checked.files) {
    CheckOwners(config, findings);
    CheckLines(config, Severity::kError, findings);
  }
  return checked;
}

ExitStatus Check(const Settings& settings, const ConfigOptions& options) {
  const StationConfig checked = LoadForCheck(RequestOf(settings, options));
  Findings findings;
  for (const CheckedConfig& file : checked.files) findings.Add(file.findings);
  if (settings.json) {
    PrintJson(FindingsAsJson(findings));
  } else {
    for (const Finding& finding : findings.Sorted()) {
      std::cout << Printable(finding.InWords()) << "\n";
    }
    for (const auto& [config, own] : checked.files) {
      std::cout << Printable(config.file) << ": " << Count(config.consoles.size(), "console")
                << ", " << Count(own.errors(), "error") << "\n";
    }
  }
  if (!checked.note.empty()) Warn(checked.note);
  return findings.errors() == 0 ? ExitStatus::kOk : ExitStatus::kFailed;
}

/// The station's readable configuration, when nothing is wrong with it.
LoadedConfig LoadFaultless(const Settings& settings) {
  ConfigRequest request;
  request.file = ReadablePath();
  request.main_port = settings.port;
  Findings findings;
  LoadedConfig config = LoadConfig(request, findings);
  CheckOwners(config, findings);
  CheckLines(config, Severity::kWarning, findings);
  for (const Finding& finding : findings.Sorted()) Announce(finding.InWords());
  if (findings.errors() == 0) return config;
  throw Failure(ExitStatus::kFailed, Count(findings.errors(), "error") +
                                         " in the configuration, and nothing was changed; mend "
                                         "what is named above");
}

// ---- diff ---------------------------------------------------------------------------------------

// Nothing when the daemon does not tell.
std::optional<UserCounts> UsersNow(const Settings& settings) {
  try {
    Credentials credentials(UserName(settings));
    CommandPort port(settings, credentials);
    return AskForUsers(port);
  } catch (const Failure& failure) {
    Warn(std::string("the users are not known: ") + failure.what());
    return {};
  }
}

const char* Sign(ChangeKind kind) {
  constexpr std::array kSigns = {"+", "-", "~"};
  return kSigns.at(static_cast<size_t>(kind));
}

const char* Word(ChangeKind kind) {
  constexpr std::array kWords = {"comes", "goes", "changes"};
  return kWords.at(static_cast<size_t>(kind));
}

// How many users the change disconnects.
std::optional<size_t> Cost(const Change& change, const std::optional<UserCounts>& users) {
  if (!change.costs_users) return 0;
  if (!users) return {};
  return UsersLost({change}, *users);
}

Json ChangeAsJson(const Change& change, const std::optional<UserCounts>& users) {
  Json fields = Json::array();
  for (const FieldChange& field : change.fields) {
    fields.push_back({{"field", kConfigFieldTitles[field.field]},
                      {"before", Utf8(field.before)},
                      {"after", Utf8(field.after)}});
  }
  const auto cost = Cost(change, users);
  return {{"console", Utf8(change.name)},        {"change", Word(change.kind)},
          {"address", Utf8(change.address)},     {"fields", fields},
          {"line_changed", change.line_changed}, {"users_lost", cost ? Json(*cost) : Json()}};
}

void PrintChanges(const std::vector<Change>& changes, const std::optional<UserCounts>& users,
                  bool json) {
  if (json) {
    Json data = Json::array();
    for (const Change& change : changes) data.push_back(ChangeAsJson(change, users));
    return PrintJson(data);
  }
  Table table({"", "NAME", "ADDRESS", "USERS-LOST", "CHANGE"});
  for (const Change& change : changes) {
    const auto cost = Cost(change, users);
    table.Add({{Sign(change.kind)},
               {Printable(change.name)},
               {Printable(change.address)},
               {cost ? std::to_string(*cost) : "?"},
               {Printable(InWords(change))}});
  }
  if (changes.empty()) {
    std::cout << "no console comes, goes or changes\n";
  } else {
    table.Print(std::cout, TerminalWidth(), ColoursWanted());
  }
}

// Nothing when the present lines cannot be read; others than the daemon's user and root may not.
std::set<std::string> ChangedLinesIfKnown(const LoadedConfig& config) {
  try {
    return ChangedLines(ConfigDirectory(kStationRoot + "/config"), config.consoles);
  } catch (const Failure& failure) {
    Warn(std::string("the lines are not compared: ") + failure.what());
    return {};
  }
}

ExitStatus Diff(const Settings& settings, const ConfigOptions& /*options*/) {
  const LoadedConfig config = LoadFaultless(settings);
  PresentZevConf();  // says what is wrong when it cannot be read
  const auto changes = Compare(PresentConsoles(), config.consoles, ChangedLinesIfKnown(config));
  PrintChanges(changes, UsersNow(settings), settings.json);
  return ExitStatus::kOk;
}

// ---- apply --------------------------------------------------------------------------------------

Json ResultAsJson(const ApplyResult& result, const std::vector<size_t>& counts) {
  return {{"consoles", result.consoles},
          {"come", counts[0]},
          {"go", counts[1]},
          {"change", counts[2]},
          {"daemon_runs", result.daemon_runs},
          {"reload", result.reloaded ? Json(result.reload) : Json()}};
}

std::string DaemonInWords(const ApplyResult& result) {
  if (!result.daemon_runs) return "no daemon runs; it reads the file when it starts";
  if (!result.reloaded) return "the daemon had read it before";
  return "the daemon has read it (reload " + std::to_string(result.reload) + ")";
}

ExitStatus RunApply(const Settings& settings, const ConfigOptions& options) {
  CheckHost(settings);
  // Locked before the configuration is read: of two applies, the later one has the newer files.
  ConfigDirectory directory(kStationRoot + "/config");
  directory.Lock();
  const LoadedConfig config = LoadFaultless(settings);
  const ApplyResult result = Apply(settings, directory, config, options.apply);
  std::vector<size_t> counts(3);
  for (const Change& change : result.changes) ++counts[static_cast<size_t>(change.kind)];
  if (settings.json) {
    PrintJson(ResultAsJson(result, counts));
  } else {
    std::cout << Count(result.consoles, "console") << " in zev.conf: " << counts[0] << " new, "
              << counts[1] << " gone, " << counts[2] << " changed; " << DaemonInWords(result)
              << "\n";
  }
  if (!result.advice.empty()) Warn(result.advice);
  return ExitStatus::kOk;
}

// ---- import -------------------------------------------------------------------------------------

void WriteNewFile(const std::string& path, const std::string& text) {
  const int flags = O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC;
  const Descriptor made(open(path.c_str(), flags, 0640));
  const bool written =
      made && write(made.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size());
  const int error = errno;
  if (written && fsync(made.get()) == 0) return;
  if (made) unlink(path.c_str());
  throw Failure(ExitStatus::kFailed, "cannot write " + path + ": " + strerror(error) +
                                         "; name a file that is not there yet");
}

// The package brings a consoles.toml without consoles, which is kept beside the new one.
bool ReplaceSample(const std::string& path, const std::string& text) {
  const std::string name = path.substr(path.rfind('/') + 1);
  const std::string directory_path = kStationRoot + "/config";
  std::error_code ignored;
  const std::string parent = std::filesystem::absolute(path, ignored).parent_path();
  if (name != "consoles.toml" || !std::filesystem::equivalent(parent, directory_path, ignored)) {
    return false;
  }
  ConfigDirectory directory(directory_path);
  directory.Lock();
  const ReadFile present = ReadSafely(directory_path, name);
  Findings findings;
  if (present.kind != FileKind::kRegular ||
      !ReadReadable({{path, present.text}}, findings).empty() || findings.errors() != 0) {
    return false;
  }
  StagedFile staged(directory, name, text, present.mode & (S_IRWXU | S_IRGRP | S_IROTH));
  const std::string kept = name + ".orig";
  if (linkat(directory.fd(), name.c_str(), directory.fd(), kept.c_str(), 0) != 0) {
    throw Failure(ExitStatus::kFailed, "cannot keep " + path + " as " + kept + ": " +
                                           strerror(errno) + "; move one of them away");
  }
  staged.Commit();
  Warn(path + " had no consoles, and has been replaced; what stood there is kept in " + kept);
  return true;
}

ExitStatus Import(const Settings& settings, const ConfigOptions& options) {
  const std::string file = options.file.empty() ? ZevConfPath() : options.file;
  const ReadFile source = ReadConfigFile(file);
  if (source.kind != FileKind::kRegular) {
    throw Failure(ExitStatus::kFailed,
                  "cannot read " + file + ": " + source.reason + "; name a zev.conf");
  }
  Findings findings;
  const auto consoles = ReadZevConf(source.text, file, findings);
  for (const Finding& finding : findings.Sorted()) Announce(finding.InWords());
  if (findings.errors() != 0) {
    throw Failure(ExitStatus::kFailed,
                  "lines of " + file + " cannot be taken over; mend what is named above");
  }
  const std::string text = WriteReadable(consoles);
  if (options.output.empty()) {
    std::cout << text;
  } else if (!ReplaceSample(options.output, text)) {
    WriteNewFile(options.output, text);
  }
  for (const ConfigConsole& console : consoles) {
    if (console.Text(kFieldAddress) != kLinesAddress) continue;
    Warn("zev.conf does not describe the line of \"" + console.name() +
         "\"; write serial, exec, ssh or ipmi in place of its tcp");
  }
  static_cast<void>(settings);
  return ExitStatus::kOk;
}

// ---- Declarations -------------------------------------------------------------------------------

using Action = ExitStatus (*)(const Settings&, const ConfigOptions&);

Command AddAction(Command& config, Program& program, const char* name, const char* help,
                  Action action, const std::shared_ptr<ConfigOptions>& options) {
  Command command = config.AddCommand(name, help);
  command.SetAction(program, [=, &program] { return action(program.settings, *options); });
  return command;
}

}  // namespace

void AddConfigCommand(Command& app, Program& program) {
  auto options = std::make_shared<ConfigOptions>();
  Command config = app.AddCommand("config", "Check, compare and apply the configuration");
  config.RequireCommand();
  Command check = AddAction(config, program, "check", "Name all that is wrong, and how to mend it",
                            Check, options);
  check.AddOption("FILE", options->file, "consoles.toml or a zev.conf; the station's if not given");
  check.AddOption("--format", options->format, "What is in FILE, if its name does not tell")
      .OneOf({"toml", "conf"});
  check.AddOption("--events-dir", options->events_dir, "Directory of the event files");
  AddAction(config, program, "diff", "Show what would come, go and change", Diff, options);
  Command apply = AddAction(config, program, "apply", "Write zev.conf and have the daemon read it",
                            RunApply, options);
  apply.AddFlag("--force", options->apply.force,
                "Replace a zev.conf that was edited or not made by apply; accept no consoles");
  apply.AddFlag("-y,--yes", options->apply.yes, "Do not ask before users are disconnected");
  Command import =
      AddAction(config, program, "import", "Make a consoles.toml from a zev.conf", Import, options);
  import.AddOption("FILE", options->file, "A zev.conf; the station's if not given");
  import.AddOption("--output", options->output, "File to make, in place of standard output");
}

}  // namespace zevctl
