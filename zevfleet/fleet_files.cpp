#include "fleet_files.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <thread>

#include "config_file.h"
#include "config_load.h"
#include "config_readable.h"
#include "config_zev.h"
#include "exit_status.h"
#include "fleet_child.h"
#include "fleet_clock.h"
#include "fleet_record.h"
#include "settings.h"

namespace zevfleet {

namespace {

using zevctl::ConfigConsole;
using zevctl::ExitStatus;
using zevctl::Failure;

constexpr char kFile[] = "zevfleet.toml";
constexpr char kHead[] =
    "# The fleet's consoles that this station has now. zevfleet writes this file; what is changed\n"
    "# here is lost. The consoles of the whole fleet stand in etcd, see zevfleet(8).\n";
constexpr char kClient[] = "zevctl: ";
constexpr char kHeldFile[] = "held";
constexpr mode_t kMode = 0640;
constexpr int kApplySeconds = 75;  // it waits for a reload for a minute
constexpr int64_t kLockLimit = 5 * kSecond;

std::string ConfigPath() {
  return zevctl::kStationRoot + "/config";
}

std::string IncludePath() {
  return ConfigPath() + "/consoles.d";
}

std::vector<std::string> LinesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

void MakeIncludeDirectory(const zevctl::ConfigDirectory& directory) {
  if (mkdir(IncludePath().c_str(), 0750) != 0) return;  // it is there, or writing tells why not
  if (chown(IncludePath().c_str(), directory.owner(), directory.group()) == 0) return;
  throw Failure(ExitStatus::kFailed, "cannot give " + IncludePath() + " to the owner of " +
                                         directory.path() + ": " + strerror(errno));
}

// It says first what is wrong.
std::string FirstLine(const std::string& output) {
  if (output.empty()) return "\"zevctl config apply\" did not end in time";
  const std::string line = output.substr(0, output.find('\n'));
  return line.starts_with(kClient) ? line.substr(strlen(kClient)) : line;
}

// What zevfleet.toml has, as far as it can be read.
std::vector<ConfigConsole> InFile() {
  const std::string path = IncludePath() + "/" + kFile;
  const zevctl::ReadFile file = zevctl::ReadSafely(IncludePath(), kFile);
  zevctl::Findings findings;
  if (file.kind != zevctl::FileKind::kRegular) return {};
  return zevctl::ReadReadable({{path, file.text}}, findings);
}

void WriteToml(const std::vector<ConfigConsole>& consoles) {
  const zevctl::ConfigDirectory directory(IncludePath());
  const std::string text = kHead + zevctl::WriteIncluded(consoles);
  zevctl::StagedFile staged(directory, kFile, text, kMode);
  staged.Commit();
}

void WriteHeld(const FleetOptions& options, const std::set<std::string>& addresses) {
  std::string text;
  for (const std::string& address : addresses) text += address + "\n";
  const zevctl::ConfigDirectory directory(options.state_directory);
  zevctl::StagedFile staged(directory, kHeldFile, text, kMode);
  staged.Commit();
}

std::set<std::string> AddressesOf(const std::vector<ConfigConsole>& consoles) {
  std::set<std::string> addresses;
  for (const ConfigConsole& console : consoles) addresses.insert(AddressOf(console));
  return addresses;
}

void WriteZevConfWithout(const zevctl::ConfigDirectory& directory,
                         const std::set<std::string>& addresses) {
  const std::string present = zevctl::PresentZevConf();
  const std::string text = WithoutConsoles(present, {addresses.begin(), addresses.end()});
  if (addresses.empty() || text == present) return;
  zevctl::StagedFile staged(directory, "zev.conf", text, kMode);
  staged.Commit();
}

// All that may be in the files.
std::set<std::string> NotedAddresses(const FleetOptions& options) {
  const zevctl::ReadFile noted = zevctl::ReadWhole(options.state_directory + "/" + kHeldFile);
  std::set<std::string> addresses;
  for (const std::string& line : LinesOf(noted.text)) addresses.insert(line);
  for (const ConfigConsole& console : InFile()) addresses.insert(AddressOf(console));
  return addresses;
}

// Others change the configuration for moments only.
void LockPatiently(zevctl::ConfigDirectory& directory) {
  const int64_t limit = BootNow() + kLockLimit;
  for (;;) {
    try {
      return directory.Lock();
    } catch (const Failure&) {
      if (BootNow() >= limit) throw;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
}

}  // namespace

std::string WithoutConsoles(const std::string& zev_conf,
                            const std::vector<std::string>& addresses) {
  const bool was_applied = zevctl::OriginOf(zev_conf) == zevctl::ZevConfOrigin::kApplied;
  std::vector<ConfigConsole> kept;
  std::string text;
  for (const std::string& line : LinesOf(zev_conf)) {
    zevctl::Findings findings;
    auto console = zevctl::ReadZevConf(line + "\n", "zev.conf", findings);
    const bool is_one = console.size() == 1;
    if (is_one && std::ranges::find(addresses, AddressOf(console[0])) != addresses.end()) continue;
    if (is_one) kept.push_back(std::move(console[0]));
    text += line + "\n";
  }
  // Its first line has the hash of the rest.
  return was_applied ? zevctl::WriteZevConf(kept) : text;
}

bool FleetFiles::MayHaveAny() const {
  return !NotedAddresses(options_).empty();
}

bool FleetFiles::Mention(const std::string& address) {
  std::set<std::string> addresses = AddressesOf(zevctl::PresentConsoles());
  addresses.merge(AddressesOf(InFile()));
  return addresses.contains(address);
}

void FleetFiles::PutBack(const std::vector<ConfigConsole>& consoles) {
  zevctl::ConfigDirectory directory(ConfigPath());
  LockPatiently(directory);
  std::set<std::string> others = NotedAddresses(options_);
  const std::set<std::string> addresses = AddressesOf(consoles);
  for (const std::string& address : addresses) others.erase(address);
  WriteToml(consoles);
  WriteZevConfWithout(directory, others);
  WriteHeld(options_, addresses);
}

void FleetFiles::Apply(const std::vector<ConfigConsole>& consoles) {
  const std::set<std::string> addresses = AddressesOf(consoles);
  {
    zevctl::ConfigDirectory directory(ConfigPath());
    LockPatiently(directory);
    MakeIncludeDirectory(directory);
    std::set<std::string> all = NotedAddresses(options_);
    all.insert(addresses.begin(), addresses.end());
    WriteHeld(options_, all);
    WriteToml(consoles);
  }
  const ChildResult result =
      RunZevctl({"--port", std::to_string(options_.main_port), "config", "apply", "--force", "-y"},
                kApplySeconds);
  if (result.status != 0) throw Failure(ExitStatus::kFailed, FirstLine(result.output));
  WriteHeld(options_, addresses);
}

void FleetFiles::Strip() {
  zevctl::ConfigDirectory directory(ConfigPath());
  LockPatiently(directory);
  const std::set<std::string> noted = NotedAddresses(options_);
  std::error_code ignored;
  if (std::filesystem::is_directory(IncludePath(), ignored)) WriteToml({});
  WriteZevConfWithout(directory, noted);
  WriteHeld(options_, {});
}

}  // namespace zevfleet
