// Which handler or channel a path belongs to.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "exchange.h"

namespace zevweb {

/// What stands for each {} of the pattern when the path fits it; nothing when it does not.
std::optional<std::vector<std::string>> MatchPath(std::string_view pattern, std::string_view path);

class WebRoutes {
 public:
  WebRoutes(std::vector<Route> routes, std::vector<ChannelRoute> channels)
      : routes_(std::move(routes)), channels_(std::move(channels)) {}

  /// Sets the request's parts. A path whose words are the pattern's own wins over one that fills
  /// its {}. `path_exists`: some method is served there.
  const Route* FindRoute(Request* request, bool* path_exists) const;
  const ChannelRoute* FindChannel(Request* request, bool is_websocket) const;

 private:
  std::vector<Route> routes_;
  std::vector<ChannelRoute> channels_;
};

}  // namespace zevweb
