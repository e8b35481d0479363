// Logging in and out, and how the server is: the routes that are not about consoles.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "exchange.h"
#include "settings.h"
#include "web_people.h"
#include "web_sessions.h"

namespace zevweb {

struct AccountSettings {
  zevctl::Settings station;
  std::string journal;  ///< directory
};

class Account {
 public:
  Account(const AccountSettings& settings, WebSessions& sessions, WebPeople& people);
  ~Account();
  Account(const Account&) = delete;
  Account& operator=(const Account&) = delete;

  /// The routes' handlers must not be called when the object has gone.
  void AddRoutes(std::vector<Route>* routes);

 private:
  struct Parts;
  std::unique_ptr<Parts> parts_;
};

}  // namespace zevweb
