// What a session is to be, and how it shall go on.
#pragma once

#include <optional>
#include <string>

namespace zevctl {

struct SessionOptions {
  std::string console;
  std::string mode;            ///< as the daemon calls it: ro, sh, ex, er
  std::optional<char> escape;  ///< is used on a terminal only
  bool over_ssh = false;       ///< the person types through a client of ssh
};

/// How the session shall go on: with a new connection.
struct SessionChange {
  std::string console;
  std::string mode;
  bool clear = false;  ///< the console's users are cut off first
};

}  // namespace zevctl
