// What happened at a console in a stretch of time: the marks of a time bar.
#pragma once

#include "exchange.h"
#include "web_journals.h"

namespace zevweb {

Response ShowMarks(WebJournals& journals, const Request& request);

}  // namespace zevweb
