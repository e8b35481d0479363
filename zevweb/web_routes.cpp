#include "web_routes.h"

#include <algorithm>
#include <utility>

namespace zevweb {

namespace {

// Takes the front of the path, up to the next slash.
std::string_view TakeWord(std::string_view& path) {
  const size_t end = path.find('/');
  const std::string_view word = path.substr(0, end);
  path.remove_prefix(end == std::string_view::npos ? path.size() : end + 1);
  return word;
}

}  // namespace

std::optional<std::vector<std::string>> MatchPath(std::string_view pattern, std::string_view path) {
  std::vector<std::string> parts;
  const auto slashes = [](std::string_view text) {
    return std::count(text.begin(), text.end(), '/');
  };
  if (slashes(pattern) != slashes(path)) return {};
  while (!pattern.empty() || !path.empty()) {
    const std::string_view wanted = TakeWord(pattern);
    const std::string_view word = TakeWord(path);
    if (wanted.starts_with('{') && !word.empty()) {
      parts.emplace_back(word);
    } else if (wanted != word) {
      return {};
    }
  }
  return parts;
}

const Route* WebRoutes::FindRoute(Request* request, bool* path_exists) const {
  const std::string method = request->method == "HEAD" ? "GET" : request->method;
  const Route* best = nullptr;
  for (const Route& route : routes_) {
    auto parts = MatchPath(route.path, request->path);
    if (!parts) continue;
    *path_exists = true;
    if (route.method != method || (best != nullptr && parts->size() >= request->parts.size())) {
      continue;
    }
    best = &route;
    request->parts = std::move(*parts);
  }
  return best;
}

const ChannelRoute* WebRoutes::FindChannel(Request* request, bool is_websocket) const {
  for (const ChannelRoute& route : channels_) {
    auto parts = MatchPath(route.path, request->path);
    if (!parts || route.is_websocket != is_websocket) continue;
    request->parts = std::move(*parts);
    return &route;
  }
  return nullptr;
}

}  // namespace zevweb
