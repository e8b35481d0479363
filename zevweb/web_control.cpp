#include "web_control.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <string>

#include "output.h"
#include "web_answer.h"
#include "web_query.h"

namespace zevweb {

namespace {

constexpr char kMessage[] = "msg";
constexpr int kDeepest = 2;
constexpr size_t kLongestText = 800;  // with its frame it fits into the daemon's line

bool IsControlCharacter(char byte) {
  const auto code = static_cast<unsigned char>(byte);
  return code < ' ' || code == 0x7f;
}

// The body of a message: {"text": "..."}.
std::string TextIn(const std::string& body) {
  const Json data = zevctl::ReadJson(body, kDeepest);
  if (!data.is_object() || data.size() != 1 || !data.contains("text") ||
      !data["text"].is_string()) {
    throw Problem(400, "the body must be {\"text\": \"...\"}");
  }
  std::string text = data["text"].get<std::string>();
  if (text.empty() || text.size() > kLongestText ||
      std::any_of(text.begin(), text.end(), IsControlCharacter)) {
    throw Problem(400, "the text must be one line of 1 to " + std::to_string(kLongestText) +
                           " bytes; shorten it, and leave out line ends");
  }
  return text;
}

void RequireNoBody(const std::string& body) {
  if (body.empty()) return;
  const Json data = zevctl::ReadJson(body, kDeepest);
  if (!data.is_object() || !data.empty()) {
    throw Problem(400, "this command takes nothing; leave the body out, or send {}");
  }
}

}  // namespace

Response ControlConsole(WebDaemon& daemon, const Request& request) {
  const WebQuery query(request.query, {});
  const std::string& name = request.parts.at(0);
  const std::string& command = request.parts.at(1);
  if (!zevctl::IsControl(command)) {
    throw Problem(404, "there is no command \"" + zevctl::Printable(command) +
                           "\"; use clear, disable, enable, force, reconnect or msg");
  }
  std::string arguments;
  if (command == kMessage) {
    arguments = " " + TextIn(request.body);
  } else {
    RequireNoBody(request.body);
  }
  const auto outcome = daemon.Control(request.caller, command, name, arguments);
  if (outcome.status != zevctl::ExitStatus::kOk) return ErrorResponse(409, outcome.text);
  return JsonResponse(
      {{"console", zevctl::Utf8(name)}, {"done", true}, {"text", zevctl::Utf8(outcome.text)}});
}

Response TellAll(WebDaemon& daemon, const Request& request) {
  const WebQuery query(request.query, {});
  daemon.TellAll(request.caller, TextIn(request.body));
  return JsonResponse({{"console", nullptr}, {"done", true}, {"text", "told"}});
}

}  // namespace zevweb
