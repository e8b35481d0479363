// Answers in JSON, and what the client's and the journal's failures become on the way out.
#pragma once

#include <ctime>
#include <string>

#include "exchange.h"
#include "json_line.h"

namespace zevweb {

using zevctl::Json;

/// Strings in it must be valid UTF-8.
Response JsonResponse(const Json& data, int status = 200);

/// {"error": text}, and {"number": number} with it where the daemon gave one.
Response ErrorResponse(int status, const std::string& text, int number = 0);

/// The handler, with zevctl::Failure and journal::JournalError answered as what they mean here.
Handler Guarded(Handler handler);

/// Seconds since the epoch in the form of RFC 3339, in UTC; null for 0.
Json TimeOrNull(time_t moment);

}  // namespace zevweb
