// What administrators do to a fleet as a whole: apply, move, status.
#include <iostream>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>

#include "config_file.h"
#include "fleet_etcd.h"
#include "fleet_file.h"
#include "fleet_join.h"
#include "fleet_program.h"
#include "json_line.h"
#include "output.h"
#include "selection.h"

namespace zevfleet {

namespace {

using zevctl::ExitStatus;
using zevctl::Failure;
using zevctl::Json;

constexpr size_t kTogether = 40;  // etcd takes 128 operations in a transaction, --max-txn-ops

struct ManageOptions {
  std::string file;
  std::string console;
  std::string station;
  bool yes = false;
  bool json = false;
};

Failure Overtaken() {
  return {ExitStatus::kFailed,
          "somebody else has changed the fleet meanwhile; look again, and try once more"};
}

// ---- apply --------------------------------------------------------------------------------------

FleetFile LoadFleetFile(const FleetOptions& options, const std::string& path) {
  const zevctl::ReadFile read = zevctl::ReadWhole(path);
  if (read.kind != zevctl::FileKind::kRegular) {
    throw Failure(ExitStatus::kFailed, "cannot read " + path + ": " + read.reason);
  }
  zevctl::Findings findings;
  FleetFile file = ReadFleetFile(read.text, path, findings);
  if (findings.errors() == 0 && file.fleet != options.site) {
    findings.Error({path},
                   "the file is about the fleet \"" + file.fleet + "\", but this station is in \"" +
                       options.site + "\"",
                   "correct one of them");
  }
  for (const zevctl::Finding& finding : findings.Sorted()) zevctl::Announce(finding.InWords());
  if (findings.errors() == 0) return file;
  throw Failure(ExitStatus::kFailed, "the fleet was not changed; mend what is named above");
}

void CheckOrMakeIdentity(Etcd& etcd, const FleetKeys& keys) {
  const auto key = etcd.Get(keys.Fleet());
  if (!key) {
    etcd.Commit(EtcdTransaction()
                    .IfMissing(keys.Fleet())
                    .Put(keys.Fleet(), Encode(FleetIdentity{.id = RandomId()})));
    return;
  }
  const auto fleet = DecodeIdentity(key->value);
  if (fleet && fleet->format <= kFleetFormat) return;
  throw Failure(ExitStatus::kFailed, "the key " + keys.Fleet() +
                                         " of etcd was not written by zevfleet, or by a newer one; "
                                         "nothing was changed");
}

/// One key that changes. A console without a value is deleted.
struct KeyChange {
  std::string name;
  int64_t mod_revision = 0;  ///< 0: it is new
  std::optional<SharedConsole> console;
};

std::vector<KeyChange> Compare(const EtcdListing& present, const FleetFile& file,
                               const FleetKeys& keys) {
  std::map<std::string, const SharedConsole*> wanted;
  for (const SharedConsole& console : file.consoles) wanted[console.name] = &console;
  std::vector<KeyChange> changes;
  for (const EtcdKey& key : present.keys) {
    const std::string name = key.key.substr(keys.Consoles().size());
    const auto found = wanted.find(name);
    if (found == wanted.end()) {
      changes.push_back({name, key.mod_revision, {}});
      continue;
    }
    auto before = DecodeConsole(name, key.value);
    if (before) before->told = false;
    if (before != *found->second) changes.push_back({name, key.mod_revision, *found->second});
    wanted.erase(found);
  }
  for (const auto& [name, console] : wanted) changes.push_back({name, 0, *console});
  return changes;
}

std::string StationsInWords(const SharedConsole& console) {
  std::string words;
  for (const std::string& station : console.stations) words += " " + station;
  return words + (console.others ? " *" : "");
}

void Print(const KeyChange& change) {
  const char* sign = !change.console ? "-" : change.mod_revision == 0 ? "+" : "~";
  std::cout << sign << " " << zevctl::Printable(change.name)
            << (change.console ? ":" + StationsInWords(*change.console) : "") << "\n";
}

void Write(Etcd& etcd, const FleetKeys& keys, const std::vector<KeyChange>& changes) {
  for (size_t begin = 0; begin < changes.size(); begin += kTogether) {
    EtcdTransaction write;
    for (size_t i = begin; i < std::min(begin + kTogether, changes.size()); ++i) {
      const KeyChange& change = changes[i];
      const std::string key = keys.Consoles() + change.name;
      if (change.mod_revision == 0) {
        write.IfMissing(key);
      } else {
        write.IfUnchanged(key, change.mod_revision);
      }
      if (change.console) {
        write.Put(key, Encode(*change.console));
      } else {
        write.Delete(key);
      }
    }
    if (!etcd.Commit(write)) throw Overtaken();
  }
}

ExitStatus ApplyFile(const FleetOptions& options, const ManageOptions& manage) {
  const FleetFile file = LoadFleetFile(options, manage.file);
  const FleetKeys keys(options.site);
  Etcd etcd(options.etcd);
  CheckOrMakeIdentity(etcd, keys);
  const auto changes = Compare(etcd.List(keys.Consoles()), file, keys);
  std::vector<std::string> going;
  for (const KeyChange& change : changes) {
    Print(change);
    if (!change.console) going.push_back(change.name);
  }
  if (!manage.yes) zevctl::Confirm("Take from the fleet", going, true);
  Write(etcd, keys, changes);
  std::cout << zevctl::CountText(file.consoles.size(), "console") << " in the fleet \""
            << options.site << "\", " << changes.size() << " changed\n";
  return ExitStatus::kOk;
}

// ---- move ---------------------------------------------------------------------------------------

ExitStatus Move(const FleetOptions& options, const ManageOptions& manage) {
  const FleetKeys keys(options.site);
  Etcd etcd(options.etcd);
  const auto key = etcd.Get(keys.Consoles() + manage.console);
  auto console = key ? DecodeConsole(manage.console, key->value) : std::nullopt;
  if (!console) {
    throw Failure(ExitStatus::kNoSuchConsole,
                  "there is no console \"" + manage.console + "\" in the fleet");
  }
  const auto named = std::ranges::find(console->stations, manage.station);
  if (named == console->stations.end() && !console->others) {
    throw Failure(ExitStatus::kFailed, "the console \"" + manage.console + "\" may be at" +
                                           StationsInWords(*console) +
                                           " only; change the fleet file");
  }
  const auto station = etcd.Get(keys.Stations() + manage.station);
  if (!station) {
    throw Failure(ExitStatus::kFailed,
                  "there is no station \"" + manage.station + "\" in the fleet now");
  }
  if (named != console->stations.end()) console->stations.erase(named);
  console->stations.insert(console->stations.begin(), manage.station);
  console->told = true;
  if (!etcd.Commit(EtcdTransaction()
                       .IfUnchanged(key->key, key->mod_revision)
                       .Put(key->key, Encode(*console)))) {
    throw Overtaken();
  }
  std::cout << zevctl::Printable(manage.console) << " goes to " << manage.station << "\n";
  return ExitStatus::kOk;
}

// ---- status -------------------------------------------------------------------------------------

void PrintStations(const Json& map) {
  std::map<std::string, size_t> counts;
  for (const Json& console : map.at("consoles")) ++counts[console.at("station")];
  zevctl::Table table({"STATION", "STATE", "CONSOLES", "ADDRESS", "VERSION"});
  for (const Json& station : map.at("stations")) {
    const bool is_alive = station.at("alive");
    const bool is_ready = station.at("ready");
    const char* state = !is_alive ? "away" : is_ready ? "ready" : "not ready";
    const auto colour = is_ready ? zevctl::Colour::kGreen : zevctl::Colour::kRed;
    const std::string name = station.at("name");
    table.Add({{zevctl::Printable(name)},
               {state, colour},
               {std::to_string(counts[name])},
               {zevctl::Printable(station.at("address").get<std::string>())},
               {zevctl::Printable(station.at("version").get<std::string>())}});
  }
  table.Print(std::cout, zevctl::TerminalWidth(), zevctl::ColoursWanted());
  if (counts[""] != 0) {
    std::cout << zevctl::CountText(counts[""], "console") << " without a station\n";
  }
}

ExitStatus Status(const FleetOptions& options, const ManageOptions& manage) {
  const zevctl::ReadFile file = zevctl::ReadWhole(options.MapFile());
  const Json map = zevctl::ReadJson(file.text);
  if (file.kind != zevctl::FileKind::kRegular || !map.is_object()) {
    throw Failure(ExitStatus::kNoDaemon,
                  "there is no map of the fleet; does \"zevfleet run\" run here?");
  }
  if (manage.json) {
    std::cout << zevctl::JsonLine(map) << "\n";
    return ExitStatus::kOk;
  }
  PrintStations(map);
  const std::string problem = map.at("problem");
  if (!problem.empty()) Tell(problem);
  return map.at("connected") ? ExitStatus::kOk : ExitStatus::kFailed;
}

}  // namespace

void AddManageCommands(zevctl::Command& app, FleetProgram& program) {
  auto manage = std::make_shared<ManageOptions>();
  zevctl::Command apply = app.AddCommand("apply", "Make the fleet what a file says");
  apply.AddOption("FILE", manage->file, "The file").Required();
  apply.AddFlag("-y,--yes", manage->yes, "Do not ask before consoles are taken from the fleet");
  SetAction(apply, program,
            [manage](const FleetOptions& options) { return ApplyFile(options, *manage); });
  zevctl::Command move = app.AddCommand("move", "Send a console to a station, whoever is attached");
  move.AddOption("CONSOLE", manage->console, "Its name").Required();
  move.AddOption("STATION", manage->station, "Where it goes").Required();
  SetAction(move, program,
            [manage](const FleetOptions& options) { return Move(options, *manage); });
  zevctl::Command status = app.AddCommand("status", "Show the stations of the fleet");
  status.AddFlag("--json", manage->json, "Print the whole map as JSON");
  SetAction(status, program,
            [manage](const FleetOptions& options) { return Status(options, *manage); });
}

}  // namespace zevfleet
