#include "web_answer.h"

#include <nlohmann/json.hpp>
#include <utility>

#include "exit_status.h"
#include "journal/journal.h"
#include "login.h"
#include "output.h"

namespace zevweb {

namespace {

using zevctl::ExitStatus;

int StatusOf(ExitStatus status) {
  switch (status) {
    case ExitStatus::kUsage:
      return 400;
    case ExitStatus::kNoSuchConsole:
      return 404;
    case ExitStatus::kNotAccessible:
    case ExitStatus::kInUse:
    case ExitStatus::kRefused:
    case ExitStatus::kFailed:
      return 409;
    case ExitStatus::kNoDaemon:
    case ExitStatus::kNotAdmitted:
    case ExitStatus::kNotTheDaemon:
      return 503;
    default:
      return 500;
  }
}

Response JournalResponse(const journal::JournalError& error) {
  using Cause = journal::JournalError::Cause;
  switch (error.cause()) {
    case Cause::kGone:
      return ErrorResponse(410,
                           "what was asked for has been removed from the journal; ask for a "
                           "later time");
    case Cause::kStation:
      return ErrorResponse(400,
                           "the position is one of another station; use positions of this "
                           "station only");
    default:
      return ErrorResponse(503, std::string("the journal cannot be read: ") + error.what() +
                                    "; tell the station's administrator");
  }
}

}  // namespace

Response JsonResponse(const Json& data, int status) {
  Response response;
  response.status = status;
  response.body = zevctl::JsonText(data);
  return response;
}

Response ErrorResponse(int status, const std::string& text, int number) {
  Json data = {{"error", zevctl::Utf8(text)}};
  if (number != 0) data["number"] = number;
  return JsonResponse(data, status);
}

Handler Guarded(Handler handler) {
  return [handler = std::move(handler)](const Request& request) {
    try {
      return handler(request);
    } catch (const zevctl::Refused& refused) {
      return ErrorResponse(StatusOf(refused.status()), refused.what(), refused.number());
    } catch (const zevctl::Failure& failure) {
      return ErrorResponse(StatusOf(failure.status()), failure.what());
    } catch (const journal::JournalError& error) {
      return JournalResponse(error);
    }
  };
}

Json TimeOrNull(time_t moment) {
  if (moment == 0) return {};
  tm fields{};
  gmtime_r(&moment, &fields);
  char text[40] = "";
  strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &fields);
  return text;
}

}  // namespace zevweb
