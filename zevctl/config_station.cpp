#include "config_station.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "config_console.h"
#include "console_status.h"
#include "json_line.h"

namespace zevctl {

namespace {

Failure Garbled() {
  return {ExitStatus::kNoDaemon, "the daemon's answer is not understood; is it as new as zevctl?"};
}

time_t TimeIn(const Json& value) {
  return value.is_null() ? 0 : value.get<time_t>();
}

}  // namespace

ReloadState AskForReloads(CommandPort& port) try {
  const Json stats = ReadJson(port.JsonLines("stats"));
  ReloadState state;
  state.reloads = stats.at("reloads").get<uint64_t>();
  state.latest = std::max(TimeIn(stats.at("started")), TimeIn(stats.at("last_reload")));
  const Json& result = stats.at("last_reload_result");
  state.result = result.is_null() ? "" : result.get<std::string>();
  return state;
} catch (const Json::exception&) {
  throw Garbled();
}

UserCounts AskForUsers(CommandPort& port) {
  const StatusAnswer answer = ParseStatus(port.JsonLines("status"));
  if (!answer.whole) throw Garbled();
  UserCounts users;
  for (const ConsoleStatus& status : answer.consoles) {
    users[FoldedName(status.console)] += status.users.size();
  }
  return users;
}

}  // namespace zevctl
