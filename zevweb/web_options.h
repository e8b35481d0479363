// What the administrator has set in zevweb.toml.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "config_findings.h"

namespace zevweb {

struct WebOptions {
  std::string address = "127.0.0.1";
  uint16_t port = 8443;
  bool tls = true;
  std::string certificate = "/etc/zevweb/certificate.pem";
  std::string key = "/etc/zevweb/key.pem";
  std::vector<std::string> origins;  ///< besides the address that the browser asked for
  std::string page = ZEVWEB_PAGE;    ///< directory of the page's files
  std::string directory = "/var/lib/zevweb";
  uint16_t main_port = 6500;
  std::string fleet_map = "/run/zevfleet/fleet.json";

  struct Proxy {
    std::string socket;  ///< empty: there is no proxy
    std::string group;   ///< may connect to the socket; empty for the server's own
    std::string header = "x-remote-user:";  ///< in lower case, with its colon, as the next one
    std::string address_header = "x-forwarded-for:";
  } proxy;

  struct Sessions {
    int64_t hours = 12;
    int64_t idle_minutes = 60;
  } sessions;
};

/// The options in the text of the file. What is wrong is added to the findings.
WebOptions ReadWebOptions(const std::string& text, const std::string& file,
                          zevctl::Findings& findings);

/// The options in the file; the defaults when there is none. Throws zevctl::Failure when it cannot
/// be read.
WebOptions LoadWebOptions(const std::string& file, zevctl::Findings& findings);

}  // namespace zevweb
