// What a page needs to replay a console: the screen as it was, and what followed.
#pragma once

#include "exchange.h"
#include "web_journals.h"

namespace zevweb {

Response ShowReplayScreen(WebJournals& journals, const Request& request);
Response ShowReplayRecords(WebJournals& journals, const Request& request);

}  // namespace zevweb
