// What is asked about the past: one console's history, a search over many, and the audit.
#pragma once

#include <string>

#include "exchange.h"
#include "web_journals.h"

namespace zevweb {

Response ShowHistory(WebJournals& journals, const std::string& log_dir, const Request& request);
Response SearchPast(WebJournals& journals, const std::string& log_dir, const Request& request);
Response ShowAudit(WebJournals& journals, const Request& request);

}  // namespace zevweb
