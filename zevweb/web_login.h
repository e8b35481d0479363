// The check of a name and a password: by the daemon, through the login of its main port.
#pragma once

#include <mutex>
#include <string>

#include "exchange.h"
#include "secret.h"
#include "settings.h"
#include "web_rate.h"

namespace zevweb {

/// Any thread may use it.
class WebLogin {
 public:
  explicit WebLogin(zevctl::Settings station);

  /// Nothing but the status 200 when the daemon admits this person; otherwise an answer that says
  /// why it does not. It may take half a minute.
  Response Check(const std::string& name, zevctl::Secret password, const std::string& address);

 private:
  std::chrono::seconds Enter(const std::string& name, const std::string& origin);
  void Leave(const std::string& name, const std::string& origin, bool is_admitted);

  const zevctl::Settings station_;
  std::mutex mutex_;
  WebRate by_name_;
  WebRate by_address_;
  int running_ = 0;
};

}  // namespace zevweb
