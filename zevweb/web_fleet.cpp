#include "web_fleet.h"

#include <cerrno>
#include <nlohmann/json.hpp>
#include <string_view>

#include "config_file.h"
#include "far_map.h"
#include "web_answer.h"
#include "web_query.h"

namespace zevweb {

namespace {

// Room for 200,000 consoles. What is made of it while it is read is twenty times as large.
constexpr size_t kLargest = size_t{16} << 20;
constexpr time_t kStaleAfter = 15;  // seconds; zevfleet writes the map once a second

// What a browser may be led to, and nothing that it would run.
Json AddressOrNull(const std::string& web) {
  const bool is_address = web.starts_with("https://") || web.starts_with("http://");
  return is_address ? Json(web) : Json();
}

Json StationData(const zevctl::FarStation& station) {
  return {
      {"name", station.name},   {"address", station.address}, {"web", AddressOrNull(station.web)},
      {"alive", station.alive}, {"ready", station.ready},     {"version", station.version}};
}

Json ConsoleData(const zevctl::FarConsole& console) {
  return {{"name", console.name},
          {"station", console.station.empty() ? Json() : Json(console.station)},
          {"stations", console.stations}};
}

std::string FleetText(const zevctl::FarMap& map, bool is_stale) {
  Json stations = Json::array();
  for (const zevctl::FarStation& station : map.stations) stations.push_back(StationData(station));
  Json fleet = {{"site", map.site},
                {"station", map.station},
                {"as_of", TimeOrNull(map.as_of)},
                {"stale", is_stale},
                {"connected", map.connected},
                {"problem", map.problem.empty() ? Json() : Json(map.problem)},
                {"stations", std::move(stations)},
                {"consoles", Json::array()}};
  std::string text = zevctl::JsonText({{"fleet", std::move(fleet)}});
  constexpr std::string_view kEnd = "]}}";
  text.resize(text.size() - kEnd.size());
  // One after the other: all of them at once would take the memory several times.
  for (const zevctl::FarConsole& console : map.consoles) {
    if (!text.ends_with('[')) text += ',';
    text += zevctl::JsonText(ConsoleData(console));
  }
  return text.append(kEnd);
}

// Each map is a new file, which is put in place of the one before it.
bool IsSame(const struct stat& one, const struct stat& other) {
  return one.st_dev == other.st_dev && one.st_ino == other.st_ino && one.st_size == other.st_size &&
         one.st_mtim.tv_sec == other.st_mtim.tv_sec && one.st_mtim.tv_nsec == other.st_mtim.tv_nsec;
}

zevctl::FarMap MapIn(const zevctl::ReadFile& file) {
  if (file.kind == zevctl::FileKind::kRegular) return zevctl::ParseFarMap(file.text);
  throw Problem(503, "the map of the fleet cannot be read: " + file.reason +
                         "; tell the station's administrator");
}

}  // namespace

std::shared_ptr<const std::string> WebFleet::Text() {
  const std::lock_guard lock(mutex_);
  const time_t now = time(nullptr);
  struct stat info {};
  const bool is_known = stat(file_.c_str(), &info) == 0 && text_ && IsSame(info, made_of_);
  if (is_known && (stale_from_ == 0 || now < stale_from_)) return text_;
  text_ = nullptr;
  const zevctl::ReadFile file = zevctl::ReadWhole(file_, kLargest);
  if (file.kind == zevctl::FileKind::kMissing) {
    return std::make_shared<const std::string>(R"({"fleet":null})");
  }
  const zevctl::FarMap map = MapIn(file);
  const bool is_stale = now - map.as_of > kStaleAfter;
  stale_from_ = is_stale ? 0 : map.as_of + kStaleAfter + 1;
  made_of_ = info;
  text_ = std::make_shared<const std::string>(FleetText(map, is_stale));
  return text_;
}

Response ShowFleet(WebFleet& fleet, const Request& request) {
  const WebQuery query(request.query, {});
  Response response;
  response.body = *fleet.Text();
  return response;
}

}  // namespace zevweb
