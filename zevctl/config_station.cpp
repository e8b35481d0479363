#include "config_station.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <sstream>

#include "config_console.h"

namespace zevctl {

namespace {

using Json = nlohmann::json;

Failure Garbled() {
  return {ExitStatus::kNoDaemon,
          "the daemon does not tell about itself as expected; is it as new as zevctl?"};
}

template <typename Take>
void ForEachObject(const std::string& text, Take take) {
  std::istringstream lines(text);
  try {
    for (std::string line; std::getline(lines, line);) take(Json::parse(line));
  } catch (const Json::exception&) {
    throw Garbled();
  }
}

time_t TimeIn(const Json& value) {
  return value.is_null() ? 0 : value.get<time_t>();
}

}  // namespace

ReloadState AskForReloads(CommandPort& port) {
  ReloadState state;
  ForEachObject(port.JsonLines("stats"), [&](const Json& stats) {
    state.reloads = stats.at("reloads").get<uint64_t>();
    state.latest = std::max(TimeIn(stats.at("started")), TimeIn(stats.at("last_reload")));
    const Json& result = stats.at("last_reload_result");
    state.result = result.is_null() ? "" : result.get<std::string>();
  });
  return state;
}

UserCounts AskForUsers(CommandPort& port) {
  UserCounts users;
  ForEachObject(port.JsonLines("status"), [&](const Json& console) {
    users[FoldedName(console.at("console").get<std::string>())] += console.at("users").size();
  });
  return users;
}

}  // namespace zevctl
