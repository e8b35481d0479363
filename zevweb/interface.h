// The JSON interface and the metrics: every route of them, and what they need.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "exchange.h"
#include "settings.h"

namespace zevweb {

struct InterfaceSettings {
  zevctl::Settings station;  ///< host, port and cookie of the daemon
  std::string journal;       ///< directories
  std::string logs;
  std::string fleet_map;  ///< the file of zevfleet, which need not exist
};

class Interface {
 public:
  explicit Interface(const InterfaceSettings& settings);
  ~Interface();
  Interface(const Interface&) = delete;
  Interface& operator=(const Interface&) = delete;

  /// The routes' handlers must not be called when the object has gone.
  void AddRoutes(std::vector<Route>* routes);

 private:
  struct Parts;
  std::unique_ptr<Parts> parts_;
};

}  // namespace zevweb
