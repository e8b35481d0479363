// What stands before the body of a request, as it came.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

struct lws;

namespace zevweb {

struct WebOptions;

struct WebHead {
  std::string method;  ///< empty for one that the server does not know
  std::string path;    ///< decoded, without the query
  std::vector<std::pair<std::string, std::string>> query;
  std::string host;
  std::string origin;
  std::string cookie;
  std::string authorization;
  std::string accept;
  std::string accept_encoding;
  std::string if_none_match;
  std::string last_event_id;
  std::optional<std::string> content_length;
  bool has_transfer_encoding = false;
  bool has_version = true;  ///< false for a line that ends within the path, by an encoded line end
  bool is_http_1_1 = true;

  bool is_local = false;  ///< it came through the proxy's socket; the rest counts only then
  std::string peer;       ///< address of the connection's other end; empty when it is local
  std::string proxy_person;
  std::string proxy_address;
  std::string proxy_scheme;
};

/// The head of the request that this connection has just got.
WebHead ReadWebHead(lws* connection, const WebOptions& options);

/// The value of the cookie of this name; nothing when there is none, or more than one.
std::optional<std::string> CookieIn(std::string_view header, std::string_view name);

}  // namespace zevweb
