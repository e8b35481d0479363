// What each command does in a fleet is a row of a table: whom it asks, and how the answers become
// one.
#include "far_commands.h"

#include <algorithm>
#include <array>
#include <iostream>
#include <map>
#include <nlohmann/json.hpp>
#include <set>

#include "config_console.h"
#include "far_words.h"
#include "json_line.h"
#include "moment.h"
#include "name_match.h"
#include "output.h"
#include "selection.h"

namespace zevctl {

namespace {

constexpr int kSeconds = 15;       // for a question to all stations
constexpr int kLongSeconds = 120;  // for what looks through a history

struct Line {
  const Settings& settings;
  FarMap map;
  FarShell shell;
  FarWords words;
};

// ---- Asking -------------------------------------------------------------------------------------

std::vector<FarStation> Reachable(const FarMap& map) {
  std::vector<FarStation> stations;
  for (const FarStation& station : map.stations) {
    if (station.alive || station.name == map.station) stations.push_back(station);
  }
  return stations;
}

size_t ConsolesOf(const FarMap& map, const std::string& station) {
  return static_cast<size_t>(std::ranges::count(map.consoles, station, &FarConsole::station));
}

std::string FirstLine(const std::string& text) {
  return text.substr(0, text.find('\n'));
}

void TellMissing(const FarMap& map, const std::string& station, const std::string& why) {
  Warn("station " + station + " is missing here (" + why + "); it has " +
       CountText(ConsolesOf(map, station), "console") + " of the fleet");
}

// A station that has no such console, or where nothing matches, has nothing to say.
bool HasNothing(const FarResult& result) {
  return result.status == static_cast<int>(ExitStatus::kNoSuchConsole) ||
         (result.status == static_cast<int>(ExitStatus::kFailed) && result.errors.empty());
}

/// Names every station whose answer is missing, and says what the command ends with: all that is
/// left out is told.
ExitStatus TellMissing(const FarMap& map, const std::vector<FarResult>& results) {
  ExitStatus status = ExitStatus::kOk;
  for (const FarStation& station : map.stations) {
    if (station.alive || station.name == map.station) continue;
    TellMissing(map, station.name, "it is not in the fleet now");
    status = ExitStatus::kNoDaemon;
  }
  for (const FarResult& result : results) {
    if (result.status == 0 || HasNothing(result)) continue;
    const std::string why = FirstLine(result.errors);
    TellMissing(map, result.station, why.empty() ? "it cannot be reached" : why);
    status = ExitStatus::kNoDaemon;
  }
  const bool all_found_nothing = !results.empty() && std::ranges::all_of(results, HasNothing);
  const bool all_lack = !results.empty() && std::ranges::all_of(results, [](const FarResult& one) {
    return one.status == static_cast<int>(ExitStatus::kNoSuchConsole);
  });
  if (all_lack) {
    Warn("no station has such a console");
    return ExitStatus::kNoSuchConsole;
  }
  return all_found_nothing ? ExitStatus::kFailed : status;
}

// The answers to the same question about another console, at the same stations.
void Join(std::vector<FarResult>& all, std::vector<FarResult> more) {
  for (size_t i = 0; i < all.size(); ++i) {
    all[i].output += more[i].output;
    // One that has one of the consoles has answered.
    if (all[i].status != 0 && more[i].status != FarResult::kUnreached) {
      all[i].status = more[i].status;
      all[i].errors = std::move(more[i].errors);
    }
  }
}

// Each console is asked about on its own: a station refuses a line with a name that it does not
// know.
std::vector<FarResult> AskAll(const Line& line, int seconds) {
  FarWords words = line.words;
  const bool has_json = std::ranges::find(words.options, "--json") != words.options.end();
  if (!has_json) words.options.emplace_back("--json");
  const auto stations = Reachable(line.map);
  if (words.arguments.empty()) {
    return RunFar(line.map, line.shell, stations, words.Line({}), seconds);
  }
  std::vector<FarResult> all;
  for (const std::string& name : words.arguments) {
    auto results = RunFar(line.map, line.shell, stations, words.Line({name}), seconds);
    if (all.empty()) {
      all = std::move(results);
    } else {
      Join(all, std::move(results));
    }
  }
  return all;
}

// The objects of an answer: those of an array, or one in each line.
std::vector<Json> ObjectsIn(const std::string& output) {
  std::vector<Json> objects;
  size_t begin = 0;
  while (begin < output.size()) {
    const size_t end = std::min(output.find('\n', begin), output.size());
    Json data = ReadJson(std::string_view(output).substr(begin, end - begin));
    if (data.is_array()) {
      for (Json& item : data) objects.push_back(std::move(item));
    } else if (data.is_object()) {
      objects.push_back(std::move(data));
    }
    begin = end + 1;
  }
  return objects;
}

std::vector<Json> AllObjects(const std::vector<FarResult>& results) {
  std::vector<Json> all;
  std::set<std::string> seen;  // two patterns may mean the same console
  for (const FarResult& result : results) {
    for (const Json& object : ObjectsIn(result.output)) {
      Json with_station = {{"station", result.station}};
      with_station.update(object);
      const bool is_new = seen.insert(JsonText(with_station)).second;
      if (is_new) all.push_back(std::move(with_station));
    }
  }
  return all;
}

// ---- Tables -------------------------------------------------------------------------------------

// Consoles of the fleet that no answer has: they are shown, too.
void AddUnseen(const Line& line, std::vector<Json>& objects) {
  std::set<std::string> seen;
  for (const Json& object : objects) seen.insert(FoldedName(object.value("name", "")));
  const auto& patterns = line.words.arguments;
  for (const FarConsole& console : line.map.consoles) {
    const bool is_meant =
        patterns.empty() || std::ranges::any_of(patterns, [&](const auto& one) {
          return NameMatches(console.name, one) || NameBeginsWith(console.name, one);
        });
    if (!is_meant || seen.contains(FoldedName(console.name))) continue;
    objects.push_back({{"station", console.station},
                       {"name", Utf8(console.name)},
                       {"state", console.station.empty() ? "no station" : "unknown"}});
  }
}

std::string CellText(const Json& object, const std::string& key) {
  const auto found = object.find(key);
  if (found == object.end() || found->is_null()) return "-";
  const bool is_time = key == "since" || key == "last_output";
  if (is_time && found->is_number()) return ShortClockTime(found->get<time_t>(), time(nullptr));
  if (found->is_string()) return Printable(found->get<std::string>());
  return JsonLine(*found);
}

void PrintTable(const std::vector<Json>& objects) {
  std::vector<std::string> keys;
  for (const Json& object : objects) {
    for (const auto& [key, value] : object.items()) {
      if (std::ranges::find(keys, key) == keys.end()) keys.push_back(key);
    }
  }
  std::vector<std::string> headings = keys;
  for (std::string& heading : headings) {
    std::ranges::transform(heading, heading.begin(), [](unsigned char byte) {
      return byte == '_' ? '-' : static_cast<char>(toupper(byte));
    });
  }
  Table table(headings);
  for (const Json& object : objects) {
    std::vector<Cell> row;
    row.reserve(keys.size());
    for (const std::string& key : keys) row.push_back({CellText(object, key)});
    table.Add(std::move(row));
  }
  table.Print(std::cout, TerminalWidth(), ColoursWanted());
}

ExitStatus ShowTables(const Line& line) {
  const auto results = AskAll(line, kSeconds);
  std::vector<Json> objects = AllObjects(results);
  if (line.words.command == "list") AddUnseen(line, objects);
  if (line.settings.json) {
    std::cout << JsonLine(Json(objects)) << "\n";
  } else if (!objects.empty()) {
    PrintTable(objects);
  }
  std::cout.flush();
  const ExitStatus status = TellMissing(line.map, results);
  return status;
}

// ---- By time ------------------------------------------------------------------------------------

std::string LineOf(const Json& object) {
  const auto text = [&](const char* key) { return CellText(object, key); };
  std::string line = text("time") + " " + text("station") + " " + text("console") + " ";
  if (object.contains("text")) return line + text("text");
  // An act: everything else that it has.
  for (const auto& [key, value] : object.items()) {
    if (key == "time" || key == "station" || key == "console" || value.is_null()) continue;
    line += key + "=" + CellText(object, key) + " ";
  }
  line.pop_back();
  return line;
}

ExitStatus ShowByTime(const Line& line) {
  const auto results = AskAll(line, kLongSeconds);
  std::vector<Json> objects = AllObjects(results);
  // All have the same form, and the zone of their station: those of one site.
  std::ranges::stable_sort(objects, {}, [](const Json& one) { return one.value("time", ""); });
  for (const Json& object : objects) {
    std::cout << (line.settings.json ? JsonLine(object) : LineOf(object)) << "\n";
  }
  std::cout.flush();
  return TellMissing(line.map, results);
}

ExitStatus ShowStreams(const Line& line) {
  const auto results =
      FollowFar(line.map, line.shell, Reachable(line.map), line.words.Line(line.words.arguments),
                [](const std::string& station, std::string_view text) {
                  std::cout << station << ": " << Printable(text) << std::endl;
                });
  return TellMissing(line.map, results);
}

// ---- At the owner -------------------------------------------------------------------------------

const FarStation& OwnerOf(const FarMap& map, const std::string& name) {
  const FarConsole& console = FindFarConsole(map, name);
  const FarStation* station = map.Station(console.station);
  if (station != nullptr && (station->alive || station->name == map.station)) return *station;
  throw Failure(ExitStatus::kNotAccessible,
                "no station has the console \"" + Printable(console.name) + "\" now");
}

ExitStatus RunAtOwner(const Line& line) {
  const auto& arguments = line.words.arguments;
  if (arguments.empty()) throw Failure(ExitStatus::kUsage, "name a console");
  const FarStation& station = OwnerOf(line.map, arguments.front());
  const int status =
      RunFarHere(line.map, line.shell, station, line.words.Line(line.words.arguments));
  if (status != FarResult::kUnreached) return static_cast<ExitStatus>(status);
  TellMissing(line.map, station.name, "it cannot be reached");
  return ExitStatus::kNoDaemon;
}

// The names that the patterns stand for, by the stations that have them.
std::map<std::string, std::vector<std::string>> Grouped(const Line& line) {
  std::map<std::string, std::vector<std::string>> groups;
  for (const std::string& pattern : line.words.arguments) {
    std::vector<std::string> names;
    for (const FarConsole& console : line.map.consoles) {
      if (NameMatches(console.name, pattern)) names.push_back(console.name);
    }
    if (names.empty()) names.push_back(FindFarConsole(line.map, pattern).name);
    for (const std::string& name : names) groups[OwnerOf(line.map, name).name].push_back(name);
  }
  return groups;
}

// Nothing is done before everything is known: the names, their stations, and that it is meant.
ExitStatus ActAtOwners(const Line& line) {
  const auto groups = Grouped(line);
  std::vector<std::string> names;
  for (const auto& [station, some] : groups) names.insert(names.end(), some.begin(), some.end());
  FarWords words = line.words;
  const auto is_yes = [](const std::string& word) { return word == "-y" || word == "--yes"; };
  const bool yes = std::erase_if(words.options, is_yes) != 0;
  std::string action = words.command;
  action[0] = static_cast<char>(toupper(static_cast<unsigned char>(action[0])));
  if (!yes) Confirm(action, names, names.size() == line.words.arguments.size());
  words.options.emplace_back("--yes");
  ExitStatus status = ExitStatus::kOk;
  for (const auto& [name, some] : groups) {
    const int one = RunFarHere(line.map, line.shell, *line.map.Station(name), words.Line(some));
    if (one == 0) continue;
    if (one == FarResult::kUnreached) TellMissing(line.map, name, "it cannot be reached");
    status = one == FarResult::kUnreached ? ExitStatus::kNoDaemon : static_cast<ExitStatus>(one);
  }
  return status;
}

ExitStatus Attach(const Line& line) {
  const FarConsole& console = FindFarConsole(line.map, line.words.arguments.front());
  return AttachInFleet(line.settings, line.shell, console.name, line.words.Line({console.name}));
}

struct FarRow {
  const char* command;
  ExitStatus (*run)(const Line& line);
};

constexpr std::array kRows = {
    FarRow{"list", ShowTables},    FarRow{"who", ShowTables},        FarRow{"ports", ShowTables},
    FarRow{"history", ShowByTime}, FarRow{"audit", ShowByTime},      FarRow{"events", ShowStreams},
    FarRow{"health", ShowStreams}, FarRow{"log", RunAtOwner},        FarRow{"replay", RunAtOwner},
    FarRow{"holder", RunAtOwner},  FarRow{"msg", RunAtOwner},        FarRow{"attach", Attach},
    FarRow{"clear", ActAtOwners},  FarRow{"disable", ActAtOwners},   FarRow{"enable", ActAtOwners},
    FarRow{"force", ActAtOwners},  FarRow{"reconnect", ActAtOwners},
};

// What goes on as long as it is wanted.
bool IsFollowed(const FarWords& words) {
  return std::ranges::any_of(words.options, [](const std::string& word) { return word == "-f"; });
}

}  // namespace

ExitStatus RunInFleet(const Command& app, const Settings& settings,
                      const std::vector<std::string>& words) {
  FarWords line = SplitWords(app, words);
  const auto row =
      std::ranges::find_if(kRows, [&](const FarRow& one) { return line.command == one.command; });
  if (row == kRows.end()) {
    throw Failure(ExitStatus::kUsage,
                  "\"" + line.command + "\" is for one station; run it there, without --fleet");
  }
  FarMap map = LoadFarMap(settings.fleet_map);
  const std::string age = AgeInWords(map);
  if (!age.empty()) Warn(age);
  const auto run = row->run == ShowByTime && IsFollowed(line) ? ShowStreams : row->run;
  return run({settings, std::move(map), {settings.fleet_ssh}, std::move(line)});
}

}  // namespace zevctl
