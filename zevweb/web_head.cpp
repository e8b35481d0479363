#include "web_head.h"

#include <libwebsockets.h>
#include <sys/socket.h>

#include <array>
#include <cstring>

#include "web_options.h"

namespace zevweb {

namespace {

constexpr std::array<const char*, 9> kMethods = {"GET",    "POST",    "OPTIONS", "PUT", "PATCH",
                                                 "DELETE", "CONNECT", "HEAD",    ""};

std::string Known(lws* connection, lws_token_indexes token) {
  std::string text(static_cast<size_t>(lws_hdr_total_length(connection, token)), '\0');
  const int size = static_cast<int>(text.size()) + 1;
  if (lws_hdr_copy(connection, text.data(), size, token) < 0) return {};
  return text;
}

// The library keeps the headers that it knows apart from the others.
std::string Named(lws* connection, const std::string& name) {
  for (int token = 0; token < WSI_TOKEN_COUNT; ++token) {
    const auto index = static_cast<lws_token_indexes>(token);
    const unsigned char* known = lws_token_to_string(index);
    if (known != nullptr && name == reinterpret_cast<const char*>(known)) {
      return Known(connection, index);
    }
  }
  const int name_size = static_cast<int>(name.size());
  const int size = lws_hdr_custom_length(connection, name.c_str(), name_size);
  if (size <= 0) return {};
  std::string text(static_cast<size_t>(size), '\0');
  if (lws_hdr_custom_copy(connection, text.data(), size + 1, name.c_str(), name_size) < 0) {
    return {};
  }
  return text;
}

std::vector<std::pair<std::string, std::string>> Query(lws* connection) {
  std::vector<std::pair<std::string, std::string>> query;
  const int total = lws_hdr_total_length(connection, WSI_TOKEN_HTTP_URI_ARGS);
  std::string word(static_cast<size_t>(total) + 1, '\0');
  for (int i = 0;; ++i) {
    const int size =
        lws_hdr_copy_fragment(connection, word.data(), total + 1, WSI_TOKEN_HTTP_URI_ARGS, i);
    if (size < 0) return query;
    const std::string_view text(word.data(), static_cast<size_t>(size));
    const size_t equals = text.find('=');
    query.emplace_back(text.substr(0, equals), equals == std::string_view::npos
                                                   ? std::string_view()
                                                   : text.substr(equals + 1));
  }
}

bool IsLocal(lws* connection) {
  sockaddr_storage address{};
  socklen_t size = sizeof address;
  return getsockname(lws_get_socket_fd(connection), reinterpret_cast<sockaddr*>(&address), &size) ==
             0 &&
         address.ss_family == AF_UNIX;
}

std::string Peer(lws* connection) {
  std::array<char, 64> text{};
  lws_get_peer_simple(connection, text.data(), text.size());
  constexpr std::string_view kMapped = "::ffff:";
  const std::string_view address = text.data();
  return std::string(address.starts_with(kMapped) ? address.substr(kMapped.size()) : address);
}

// A proxy puts the address that it sees behind those that came.
std::string LastOf(const std::string& list) {
  const size_t comma = list.rfind(',');
  const size_t begin = list.find_first_not_of(' ', comma == std::string::npos ? 0 : comma + 1);
  return begin == std::string::npos ? ""
                                    : list.substr(begin, list.find_last_not_of(' ') + 1 - begin);
}

std::string_view Trimmed(std::string_view text) {
  while (text.starts_with(' ')) text.remove_prefix(1);
  while (text.ends_with(' ')) text.remove_suffix(1);
  return text;
}

}  // namespace

WebHead ReadWebHead(lws* connection, const WebOptions& options) {
  WebHead head;
  char* path = nullptr;
  int path_size = 0;
  const int method = lws_http_get_uri_and_method(connection, &path, &path_size);
  if (method >= 0 && method < static_cast<int>(kMethods.size())) {
    head.method = kMethods[static_cast<size_t>(method)];
    head.path.assign(path, static_cast<size_t>(path_size));
  }
  head.query = Query(connection);
  head.host = Known(connection, WSI_TOKEN_HOST);
  head.origin = Known(connection, WSI_TOKEN_ORIGIN);
  head.cookie = Known(connection, WSI_TOKEN_HTTP_COOKIE);
  head.authorization = Known(connection, WSI_TOKEN_HTTP_AUTHORIZATION);
  head.accept = Known(connection, WSI_TOKEN_HTTP_ACCEPT);
  head.accept_encoding = Known(connection, WSI_TOKEN_HTTP_ACCEPT_ENCODING);
  head.if_none_match = Known(connection, WSI_TOKEN_HTTP_IF_NONE_MATCH);
  head.last_event_id = Named(connection, "last-event-id:");
  if (lws_hdr_total_length(connection, WSI_TOKEN_HTTP_CONTENT_LENGTH) > 0) {
    head.content_length = Known(connection, WSI_TOKEN_HTTP_CONTENT_LENGTH);
  }
  head.has_transfer_encoding =
      lws_hdr_total_length(connection, WSI_TOKEN_HTTP_TRANSFER_ENCODING) > 0;
  const std::string version = Known(connection, WSI_TOKEN_HTTP);
  head.has_version = !version.empty();
  head.is_http_1_1 = version.find("1.1") != std::string::npos;
  head.is_local = IsLocal(connection);
  if (!head.is_local) {
    head.peer = Peer(connection);
    return head;
  }
  head.proxy_person = Named(connection, options.proxy.header);
  head.proxy_address = LastOf(Named(connection, options.proxy.address_header));
  head.proxy_scheme = Named(connection, "x-forwarded-proto:");
  return head;
}

std::optional<std::string> CookieIn(std::string_view header, std::string_view name) {
  std::optional<std::string> value;
  while (!header.empty()) {
    const size_t end = header.find(';');
    const std::string_view pair = Trimmed(header.substr(0, end));
    header.remove_prefix(end == std::string_view::npos ? header.size() : end + 1);
    if (pair.size() <= name.size() || !pair.starts_with(name) || pair[name.size()] != '=') continue;
    if (value) return {};
    value = pair.substr(name.size() + 1);
  }
  return value;
}

}  // namespace zevweb
