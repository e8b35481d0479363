#include "web_account.h"

#include <unistd.h>

#include <nlohmann/json.hpp>
#include <optional>
#include <utility>

#include "json_line.h"
#include "output.h"
#include "web_answer.h"
#include "web_daemon.h"
#include "web_login.h"

namespace zevweb {

namespace {

constexpr int kDeepest = 2;
constexpr size_t kLongestName = 32;  // the daemon keeps no more of a name

std::optional<std::string> TextOf(const Json& data, const char* key) {
  const auto found = data.find(key);
  if (found == data.end() || !found->is_string()) return {};
  return found->get<std::string>();
}

bool IsLine(const std::string& text) {
  for (const char byte : text) {
    if (static_cast<unsigned char>(byte) < 0x20 || byte == 0x7f) return false;
  }
  return true;
}

// A name with a blank would be two words of the daemon's line.
bool IsName(const std::string& text) {
  return !text.empty() && text.size() <= kLongestName && IsLine(text) &&
         text.find(' ') == std::string::npos;
}

std::string CookieLine(const Request& request, const std::string& secret, int64_t seconds) {
  return SessionCookieName(request.is_secure) + "=" + secret +
         "; Path=/; HttpOnly; SameSite=Strict; Max-Age=" + std::to_string(seconds) +
         (request.is_secure ? "; Secure" : "");
}

Response Done() {
  Response response;
  response.status = 204;
  return response;
}

const char* WordFor(Proof proof) {
  switch (proof) {
    case Proof::kSession:
      return "session";
    case Proof::kProxy:
      return "proxy";
    case Proof::kToken:
      return "token";
    default:
      return "none";
  }
}

}  // namespace

struct Account::Parts {
  Parts(const AccountSettings& settings, WebSessions& the_sessions, WebPeople& the_people)
      : login(settings.station),
        daemon(settings.station),
        journal(settings.journal),
        sessions(the_sessions),
        people(the_people) {}

  Response LogIn(const Request& request);
  Response LogOut(const Request& request);
  Response ShowSession(const Request& request) const;
  Response ShowReady();

  bool JournalIsReadable() const { return access(journal.c_str(), R_OK | X_OK) == 0; }

  WebLogin login;
  WebDaemon daemon;
  std::string journal;
  WebSessions& sessions;
  WebPeople& people;
};

Response Account::Parts::LogIn(const Request& request) {
  const Json data = zevctl::ReadJson(request.body, kDeepest);
  const auto name = data.is_object() ? TextOf(data, "name") : std::nullopt;
  const auto typed = data.is_object() ? TextOf(data, "password") : std::nullopt;
  if (!name || !typed || !IsName(*name) || !IsLine(*typed)) {
    return ErrorResponse(400, R"(a login is {"name": "...", "password": "..."}, each one line)");
  }
  zevctl::Secret password;
  for (const char byte : *typed) {
    if (!password.Append(byte)) return ErrorResponse(400, "the password is too long");
  }
  Response response = login.Check(*name, std::move(password), request.caller.address);
  if (response.status == 200 && !people.MayUse(*name)) {
    response =
        ErrorResponse(401, "this person is not in the group qoruser; the administrator can " +
                               std::string("add them with \"zevctl setup\""));
  }
  zevctl::Announce("zevweb: login of " + *name + " from " + request.caller.address +
                   (response.status == 200 ? " accepted" : " refused"));
  if (response.status != 200) return response;
  const std::string secret = sessions.Begin(*name, request.caller.address);
  response = Done();
  response.headers.emplace_back("Set-Cookie", CookieLine(request, secret, sessions.seconds()));
  return response;
}

Response Account::Parts::LogOut(const Request& request) {
  const bool everywhere = request.query == decltype(request.query){{"everywhere", "1"}};
  if (everywhere && request.caller.proof == Proof::kSession) {
    sessions.EndAllOf(request.caller.name);
  } else {
    sessions.End(request.session);
  }
  Response response = Done();
  response.headers.emplace_back("Set-Cookie", CookieLine(request, "", 0));
  return response;
}

Response Account::Parts::ShowSession(const Request& request) const {
  Json data = {{"name", zevctl::Utf8(request.caller.name)},
               {"address", request.caller.address},
               {"proof", WordFor(request.caller.proof)},
               {"may_type", request.caller.proof != Proof::kToken},
               {"journal", JournalIsReadable()},
               {"version", QOR_VERSION},
               {"expires", nullptr}};
  const auto session = sessions.Find(request.session);
  if (request.caller.proof == Proof::kSession && session) {
    data["expires"] = TimeOrNull(session->begun + sessions.seconds());
  }
  return JsonResponse(data);
}

// Anybody may ask, so it tells no more than is needed to send people here or not.
Response Account::Parts::ShowReady() {
  std::string problem;
  std::string journal_state = "off";
  try {
    const Json stats = zevctl::ReadJson(*daemon.Stats());
    if (stats.is_object()) journal_state = TextOf(stats, "journal").value_or("off");
  } catch (const std::exception&) {
    problem = "the daemon does not answer; see zevd.log";
  }
  if (problem.empty() && journal_state != "off" && !JournalIsReadable()) {
    problem = "the journal cannot be read; see the rights of its directory";
  }
  if (!problem.empty()) return ErrorResponse(503, problem);
  return JsonResponse({{"ready", true}, {"journal", journal_state}});
}

Account::Account(const AccountSettings& settings, WebSessions& sessions, WebPeople& people)
    : parts_(std::make_unique<Parts>(settings, sessions, people)) {}

Account::~Account() = default;

void Account::AddRoutes(std::vector<Route>* routes) {
  Parts& parts = *parts_;
  const auto add = [&](const char* method, const char* path, Access access, Handler handler) {
    routes->push_back({method, path, access, Guarded(std::move(handler))});
  };
  add("POST", "/api/login", Access::kAnyone,
      [&](const Request& request) { return parts.LogIn(request); });
  add("POST", "/api/logout", Access::kAnyone,
      [&](const Request& request) { return parts.LogOut(request); });
  add("GET", "/api/session", Access::kReader,
      [&](const Request& request) { return parts.ShowSession(request); });
  add("GET", "/readyz", Access::kAnyone, [&](const Request&) { return parts.ShowReady(); });
}

}  // namespace zevweb
