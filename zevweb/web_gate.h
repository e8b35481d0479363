// Who a request comes from, and whether it may pass.
#pragma once

#include <string>

#include "exchange.h"
#include "web_head.h"
#include "web_options.h"
#include "web_people.h"
#include "web_sessions.h"
#include "web_tokens.h"

namespace zevweb {

/// Any thread may use it. It may wait for the system's user database.
class WebGate {
 public:
  WebGate(const WebOptions& options, WebSessions& sessions, WebPeople& people, WebTokens& tokens)
      : options_(options), sessions_(sessions), people_(people), tokens_(tokens) {}

  /// The request of this head, with who asks. Throws Problem when that cannot be believed.
  Request Admit(const WebHead& head);

  /// Throws Problem when the caller may not use what has this access, or when a page from elsewhere
  /// asks. `changes`: the request does more than read.
  void Check(const WebHead& head, const Request& request, Access access, bool changes) const;

  /// Whether what let this caller in still holds.
  bool StillHolds(const WebHead& head);

 private:
  void Identify(const WebHead& head, Request* request);
  bool IsOurOrigin(const WebHead& head, bool is_secure) const;

  const WebOptions& options_;
  WebSessions& sessions_;
  WebPeople& people_;
  WebTokens& tokens_;
};

}  // namespace zevweb
