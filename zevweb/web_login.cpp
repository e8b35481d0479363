#include "web_login.h"

#include <algorithm>
#include <utility>

#include "command_port.h"
#include "login.h"
#include "web_answer.h"

namespace zevweb {

namespace {

using std::chrono::seconds;

constexpr int kMostForName = 3;
constexpr int kMostForAddress = 20;
constexpr seconds kPauseOfName{10};
constexpr seconds kPauseOfAddress{3};
constexpr int kMostAtATime = 2;  // the other workers go on with what needs no login

Response TooMany(seconds wait) {
  const std::string text = std::to_string(wait.count());
  Response response = ErrorResponse(429, "too many logins were tried; wait " + text +
                                             (wait.count() == 1 ? " second" : " seconds"));
  response.headers.emplace_back("Retry-After", text);
  return response;
}

// Reaches the command port as this person, and asks it for nothing.
Response Ask(const zevctl::Settings& settings, zevctl::Credentials& credentials) try {
  const zevctl::CommandPort port(settings, credentials);
  if (credentials.WasWanted()) return {};
  return ErrorResponse(503,
                       "the daemon checks no passwords, so nobody can log in here; start it with "
                       "security on");
} catch (const zevctl::Refused& refused) {
  return ErrorResponse(refused.number() == 1 ? 401 : 503, refused.what(), refused.number());
} catch (const zevctl::Failure& failure) {
  if (failure.status() != zevctl::ExitStatus::kNotAdmitted) throw;
  return ErrorResponse(401, "the daemon does not accept the name and password; type them again");
}

}  // namespace

WebLogin::WebLogin(zevctl::Settings station)
    : station_(std::move(station)),
      by_name_(kMostForName, kPauseOfName),
      by_address_(kMostForAddress, kPauseOfAddress) {}

Response WebLogin::Check(const std::string& name, zevctl::Secret password,
                         const std::string& address) {
  const std::string origin = RateKeyOf(address);
  const seconds wait = Enter(name, origin);
  if (wait > seconds(0)) return TooMany(wait);
  zevctl::Settings settings = station_;
  settings.cookie_file.clear();  // it would prove this program's right, not the person's
  settings.user = name;
  settings.from = address;
  zevctl::Credentials credentials = zevctl::Credentials::Given(name, std::move(password));
  try {
    Response response = Ask(settings, credentials);
    Leave(name, origin, response.status == 200);
    return response;
  } catch (...) {
    Leave(name, origin, false);
    throw;
  }
}

seconds WebLogin::Enter(const std::string& name, const std::string& origin) {
  const std::lock_guard lock(mutex_);
  const auto now = WebRate::Clock::now();
  const seconds wait = std::max(by_name_.WaitOf(name, now), by_address_.WaitOf(origin, now));
  if (wait > seconds(0)) return wait;
  if (running_ >= kMostAtATime) return seconds(1);
  by_name_.Note(name, now);
  by_address_.Note(origin, now);
  ++running_;
  return {};
}

void WebLogin::Leave(const std::string& name, const std::string& origin, bool is_admitted) {
  const std::lock_guard lock(mutex_);
  --running_;
  if (!is_admitted) return;
  by_name_.Forgive(name);
  by_address_.Forgive(origin);
}

}  // namespace zevweb
