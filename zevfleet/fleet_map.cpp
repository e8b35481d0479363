#include "fleet_map.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <nlohmann/json.hpp>

#include "config_file.h"
#include "descriptor.h"
#include "exit_status.h"
#include "json_line.h"
#include "output.h"

namespace zevfleet {

namespace {

using zevctl::Json;

constexpr int64_t kMapFormat = 1;
constexpr mode_t kMode = 0644;

std::string Stations(const FleetOptions& options, const FleetView& view) {
  Json list = Json::array();
  std::map<std::string, const SeenStation*> all;
  for (const auto& [name, seen] : view.consoles()) {
    for (const std::string& station : seen.console.stations) all.emplace(station, nullptr);
  }
  all.emplace(options.station, nullptr);
  for (const auto& [name, seen] : view.stations()) all[name] = &seen;
  for (const auto& [name, seen] : all) {
    const FleetStation station = seen != nullptr ? seen->station : FleetStation{};
    list.push_back({{"name", name},
                    {"address", station.address},
                    {"web", station.web},
                    {"alive", seen != nullptr},
                    {"ready", station.ready},
                    {"version", station.version}});
  }
  return zevctl::JsonText(list);
}

// Each on its own: a document of all of them would take many times the memory of its text.
std::string Consoles(const FleetView& view) {
  std::string list;
  for (const auto& [name, seen] : view.consoles()) {
    const SeenClaim* claim = view.ClaimOf(seen.console);
    list += list.empty() ? "[" : ",";
    list += zevctl::JsonText({{"name", zevctl::Utf8(name)},
                              {"station", claim != nullptr ? claim->claim.station : ""},
                              {"stations", seen.console.stations}});
  }
  return list.empty() ? "[]" : list + "]";
}

}  // namespace

std::string MapText(const FleetOptions& options, const FleetView& view, const MapNote& note) {
  return FleetMap(options).Text(view, note);
}

std::string FleetMap::Text(const FleetView& view, const MapNote& note) {
  if (version_ != view.version()) {
    stations_ = Stations(options_, view);
    consoles_ = Consoles(view);
    version_ = view.version();
  }
  std::string text = zevctl::JsonText({{"format", kMapFormat},
                                       {"site", options_.site},
                                       {"station", options_.station},
                                       {"as_of", note.as_of},
                                       {"connected", note.connected},
                                       {"problem", zevctl::Utf8(note.problem)}});
  text.pop_back();
  return text + ",\"stations\":" + stations_ + ",\"consoles\":" + consoles_ + "}\n";
}

std::string OldMapText(const FleetOptions& options, const std::string& problem) {
  Json map = zevctl::ReadJson(zevctl::ReadWhole(options.MapFile()).text);
  const bool is_ours = map.is_object() && map.value("format", Json()) == kMapFormat &&
                       map.value("site", Json()) == options.site;
  if (!is_ours) return MapText(options, FleetView(options.site), {.problem = problem});
  map["connected"] = false;
  map["problem"] = zevctl::Utf8(problem);
  return zevctl::JsonText(map) + "\n";
}

void PublishMap(const FleetOptions& options, const std::string& text) {
  const std::string path = options.MapFile();
  const std::string staged = path + ".new";
  unlink(staged.c_str());
  const zevctl::Descriptor file(
      open(staged.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, kMode));
  const bool written =
      file && fchmod(file.get(), kMode) == 0 &&
      write(file.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size()) &&
      rename(staged.c_str(), path.c_str()) == 0;
  if (written) return;
  throw zevctl::Failure(zevctl::ExitStatus::kFailed,
                        "cannot write " + path + ": " + strerror(errno));
}

}  // namespace zevfleet
