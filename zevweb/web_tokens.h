// Which tokens are valid: those that "zevctl token" has written down.
#pragma once

#include <sys/stat.h>

#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "token_file.h"

namespace zevweb {

/// Any thread may use it.
class WebTokens {
 public:
  /// `directory`: the station's configuration.
  explicit WebTokens(std::string directory) : directory_(std::move(directory)) {}

  /// The name of the token whose secret this is; nothing when it is no valid one. The file is read
  /// anew when it has changed. While it cannot be read, no token is valid.
  std::optional<std::string> TokenName(std::string_view secret);

 private:
  void Refresh();

  std::string directory_;
  std::mutex mutex_;
  struct stat seen_ {};
  bool is_read_ = false;
  std::map<std::string, zevctl::Token> by_hash_;
};

}  // namespace zevweb
