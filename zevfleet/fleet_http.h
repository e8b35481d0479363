// Requests by HTTP with a JSON body. The library's header is large, so only fleet_http.cpp includes
// it.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "fleet_options.h"

namespace zevfleet {

struct HttpAnswer {
  std::string error;  ///< why there is no answer; empty when there is one, whatever its status
  std::string body;
  std::optional<int64_t> clock_ahead;  ///< seconds: the server's date less this machine's time
};

/// Keeps its connection from request to request. Belongs to one thread.
class HttpClient {
 public:
  explicit HttpClient(const TlsFiles& tls);
  ~HttpClient();
  HttpClient(const HttpClient&) = delete;
  HttpClient& operator=(const HttpClient&) = delete;

  /// An empty token is not sent. A connection gets one second, and the whole request two.
  HttpAnswer Post(const std::string& url, const std::string& body, const std::string& token);

  /// Hands each line of an answer that does not end to `take`, until that returns false or `stop`
  /// becomes true. Returns why the connection has ended otherwise.
  std::string Stream(const std::string& url, const std::string& body, const std::string& token,
                     const std::function<bool(std::string_view)>& take,
                     const std::atomic<bool>& stop);

 private:
  struct Implementation;
  std::unique_ptr<Implementation> implementation_;
};

}  // namespace zevfleet
