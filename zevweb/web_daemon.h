// The daemon as the interface sees it: its command port, asked once for all who want to know.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "command_port.h"
#include "console_status.h"
#include "control_acts.h"
#include "exchange.h"
#include "json_line.h"
#include "settings.h"
#include "web_shared.h"

namespace zevweb {

/// The consoles of the station, and who is at them.
struct StationConsoles {
  struct Console {
    zevctl::ConsoleRecord record;
    zevctl::ConsoleStatus status;  ///< its name and state are those of the record
  };
  std::vector<Console> consoles;  ///< in the order of the daemon
};

/// Every member throws zevctl::Failure or Problem(503) while the daemon is away. Any thread may
/// use it.
class WebDaemon {
 public:
  explicit WebDaemon(zevctl::Settings settings);

  std::shared_ptr<const StationConsoles> Consoles();

  /// The answers to "status" and "stats", as they came.
  std::shared_ptr<const std::string> Status();
  std::shared_ptr<const std::string> Stats();

  /// Acts on the console of this name in the caller's name. Throws Problem(404) when there is none.
  zevctl::ControlOutcome Control(const Caller& caller, const std::string& command,
                                 const std::string& console, const std::string& arguments);

  /// Sends a text to the users of all connected consoles.
  void TellAll(const Caller& caller, const std::string& text);

 private:
  using Text = WebShared<std::string>;

  std::shared_ptr<const std::string> Lines(Text& shared, const std::string& command);
  template <typename Work>
  auto WithPort(Work work);
  zevctl::Settings SettingsFor(const Caller& caller) const;

  const zevctl::Settings settings_;
  std::mutex port_mutex_;
  std::unique_ptr<zevctl::CommandPort> port_;
  WebShared<StationConsoles> consoles_;
  Text status_;
  Text stats_;
};

}  // namespace zevweb
