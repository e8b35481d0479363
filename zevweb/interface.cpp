#include "interface.h"

#include <utility>

#include "openapi_text.h"
#include "web_answer.h"
#include "web_consoles.h"
#include "web_control.h"
#include "web_daemon.h"
#include "web_fleet.h"
#include "web_history.h"
#include "web_journals.h"
#include "web_marks.h"
#include "web_metrics.h"

namespace zevweb {

namespace {

constexpr size_t kMostSearches = 2;

}  // namespace

struct Interface::Parts {
  explicit Parts(const InterfaceSettings& settings)
      : daemon(settings.station),
        journals(settings.journal),
        searched(settings.journal, kMostSearches),
        logs(settings.logs),
        fleet(settings.fleet_map) {}

  WebDaemon daemon;
  WebJournals journals;
  WebJournals searched;  // by what may take long: nothing else waits for it
  std::string logs;
  WebFleet fleet;
};

Interface::Interface(const InterfaceSettings& settings)
    : parts_(std::make_unique<Parts>(settings)) {}

Interface::~Interface() = default;

void Interface::AddRoutes(std::vector<Route>* routes) {
  Parts& parts = *parts_;
  const auto add = [&](const char* method, const char* path, Access access, Handler handler) {
    routes->push_back({method, path, access, Guarded(std::move(handler))});
  };
  add("GET", "/openapi.json", Access::kReader, [](const Request&) {
    Response response;
    response.body = kOpenApiText;
    return response;
  });
  add("GET", "/metrics", Access::kReader,
      [&](const Request& request) { return ShowMetrics(parts.daemon, request); });
  add("GET", "/api/consoles", Access::kReader,
      [&](const Request& request) { return ListConsoles(parts.daemon, parts.journals, request); });
  add("GET", "/api/consoles/{name}", Access::kReader,
      [&](const Request& request) { return ShowConsole(parts.daemon, parts.journals, request); });
  add("GET", "/api/consoles/{name}/history", Access::kReader,
      [&](const Request& request) { return ShowHistory(parts.journals, parts.logs, request); });
  add("GET", "/api/consoles/{name}/marks", Access::kReader,
      [&](const Request& request) { return ShowMarks(parts.journals, request); });
  add("GET", "/api/search", Access::kReader,
      [&](const Request& request) { return SearchPast(parts.searched, parts.logs, request); });
  add("GET", "/api/audit", Access::kReader,
      [&](const Request& request) { return ShowAudit(parts.searched, request); });
  add("GET", "/api/users", Access::kReader,
      [&](const Request& request) { return ListUsers(parts.daemon, request); });
  add("GET", "/api/stats", Access::kReader,
      [&](const Request& request) { return ShowStats(parts.daemon, request); });
  add("GET", "/api/fleet", Access::kReader,
      [&](const Request& request) { return ShowFleet(parts.fleet, request); });
  add("POST", "/api/consoles/{name}/{command}", Access::kPerson,
      [&](const Request& request) { return ControlConsole(parts.daemon, request); });
  add("POST", "/api/msg", Access::kPerson,
      [&](const Request& request) { return TellAll(parts.daemon, request); });
}

}  // namespace zevweb
