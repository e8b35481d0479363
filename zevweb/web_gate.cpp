#include "web_gate.h"

#include <arpa/inet.h>
#include <strings.h>

#include <algorithm>
#include <cctype>
#include <optional>

namespace zevweb {

namespace {

bool SameText(const std::string& one, const std::string& other) {
  return strcasecmp(one.c_str(), other.c_str()) == 0 && one.size() == other.size();
}

bool IsAddress(const std::string& text) {
  in6_addr unused{};
  return inet_pton(AF_INET, text.c_str(), &unused) == 1 ||
         inet_pton(AF_INET6, text.c_str(), &unused) == 1;
}

// What the daemon takes for one word.
bool IsWord(const std::string& text) {
  return !text.empty() && std::ranges::none_of(text, [](char byte) {
    return static_cast<unsigned char>(byte) <= 0x20 || byte == 0x7f;
  });
}

std::optional<std::string> BearerIn(const std::string& header) {
  constexpr std::string_view kScheme = "Bearer ";
  if (strncasecmp(header.c_str(), kScheme.data(), kScheme.size()) != 0) return {};
  return header.substr(kScheme.size());
}

}  // namespace

Request WebGate::Admit(const WebHead& head) {
  Request request;
  request.method = head.method;
  request.path = head.path;
  request.query = head.query;
  request.accept = head.accept;
  request.last_event_id = head.last_event_id;
  request.is_secure = head.is_local ? head.proxy_scheme != "http" : options_.tls;
  request.caller.address = head.is_local ? head.proxy_address : head.peer;
  if (!IsAddress(request.caller.address)) request.caller.address.clear();
  Identify(head, &request);
  return request;
}

void WebGate::Identify(const WebHead& head, Request* request) {
  Caller& caller = request->caller;
  if (head.is_local && !head.proxy_person.empty()) {
    if (!IsWord(head.proxy_person) || !people_.MayUse(head.proxy_person)) {
      throw Problem(403,
                    "the person whom the proxy names is neither root nor in the group qoruser; "
                    "the administrator can add them with \"zevctl setup\"");
    }
    caller.proof = Proof::kProxy;
    caller.name = head.proxy_person;
    return;
  }
  if (const auto secret = BearerIn(head.authorization)) {
    const auto token = tokens_.TokenName(*secret);
    if (!token) throw Problem(401, "this token is not valid; make one with \"zevctl token\"");
    caller.proof = Proof::kToken;
    caller.name = *token;
    return;
  }
  request->session = CookieIn(head.cookie, SessionCookieName(request->is_secure)).value_or("");
  const auto session = sessions_.Find(request->session);
  if (!session || !people_.MayUse(session->name)) return;
  caller.proof = Proof::kSession;
  caller.name = session->name;
}

void WebGate::Check(const WebHead& head, const Request& request, Access access,
                    bool changes) const {
  const Proof proof = request.caller.proof;
  if (request.caller.address.empty() && (proof != Proof::kNone || changes)) {
    throw Problem(
        400, "the proxy gives no address of the browser; have it set the header " +
                 options_.proxy.address_header.substr(0, options_.proxy.address_header.size() - 1));
  }
  const bool may_lack_origin = !changes || (proof == Proof::kToken && head.origin.empty());
  if (!may_lack_origin && !IsOurOrigin(head, request.is_secure)) {
    throw Problem(403,
                  "this request comes from a page of another server; open the page of this "
                  "one, or name the other's address with \"origin\" in zevweb.toml");
  }
  if (access != Access::kAnyone && proof == Proof::kNone) {
    throw Problem(401, "nobody is logged in, or the session has ended; log in");
  }
  if (access == Access::kPerson && proof == Proof::kToken) {
    throw Problem(403, "a token only reads; log in as a person to do this");
  }
}

bool WebGate::StillHolds(const WebHead& head) {
  try {
    return Admit(head).caller.proof != Proof::kNone;
  } catch (const Problem&) {
    return false;
  }
}

bool WebGate::IsOurOrigin(const WebHead& head, bool is_secure) const {
  const std::string own = (is_secure ? "https://" : "http://") + head.host;
  if (!head.host.empty() && SameText(head.origin, own)) return true;
  return std::ranges::any_of(
      options_.origins, [&](const std::string& origin) { return SameText(head.origin, origin); });
}

}  // namespace zevweb
