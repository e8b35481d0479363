// The station in numbers, for monitoring.
#pragma once

#include <ctime>
#include <string>
#include <string_view>

#include "exchange.h"
#include "web_daemon.h"
#include "web_metrics_text.h"

namespace zevweb {

/// GET /metrics. With the parameter consoles=1 also series of each console. A daemon that is away
/// is a metric, too.
Response ShowMetrics(WebDaemon& daemon, const Request& request);

/// The metrics that the daemon's answers to "status" and "stats" make; both are empty while it is
/// away.
std::string MetricsOf(std::string_view status, std::string_view stats, bool with_consoles,
                      time_t now, MetricsText::Format format);

}  // namespace zevweb
