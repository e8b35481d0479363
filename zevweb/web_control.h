// Commands that people give to consoles.
#pragma once

#include "exchange.h"
#include "web_daemon.h"

namespace zevweb {

/// POST /api/consoles/{name}/{command}: clear, disable, enable, force, reconnect, or msg with a
/// text.
Response ControlConsole(WebDaemon& daemon, const Request& request);

/// POST /api/msg: a text to the users of all connected consoles.
Response TellAll(WebDaemon& daemon, const Request& request);

}  // namespace zevweb
