// The consoles of the station and their users, as data.
#pragma once

#include <string>

#include "exchange.h"
#include "web_daemon.h"
#include "web_journals.h"

namespace zevweb {

/// All consoles at once. While the daemon is away, those that the journal knows, with the state
/// "unknown".
Response ListConsoles(WebDaemon& daemon, WebJournals& journals, const Request& request);

/// One console, with its earlier names and the place of its last output.
Response ShowConsole(WebDaemon& daemon, WebJournals& journals, const Request& request);

Response ListUsers(WebDaemon& daemon, const Request& request);

/// What the daemon has done since it started.
Response ShowStats(WebDaemon& daemon, const Request& request);

}  // namespace zevweb
