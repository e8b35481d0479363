// Live consoles, replay and events: the routes of what is shown as it comes, and what they share.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "exchange.h"
#include "settings.h"

namespace zevweb {

struct LiveSettings {
  zevctl::Settings station;  ///< host, port and cookie of the daemon
  std::string journal;       ///< the directory
};

class Live {
 public:
  /// `workers` must live longer, and must do nothing any more for whoever has gone: its OnServer()
  /// may drop what it is given while the server ends.
  Live(const LiveSettings& settings, Workers& workers);

  /// To be called on the server's thread, once all channels have gone. Ends its threads.
  ~Live();
  Live(const Live&) = delete;
  Live& operator=(const Live&) = delete;

  /// What is added must not be called when the object has gone.
  void AddRoutes(std::vector<Route>* routes);
  void AddChannels(std::vector<ChannelRoute>* channels);

 private:
  struct Parts;
  std::unique_ptr<Parts> parts_;
};

}  // namespace zevweb
