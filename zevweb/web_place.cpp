#include "web_place.h"

#include <charconv>
#include <string_view>

namespace zevweb {

namespace {

constexpr std::string_view kLog = "log:";
constexpr int64_t kSecond = 1'000'000'000;
constexpr int64_t kLastSecond = INT64_MAX / kSecond - 1;

int64_t SecondOf(int64_t wall) {
  return wall / kSecond - (wall % kSecond < 0 ? 1 : 0);
}

}  // namespace

WebPlace PlaceOf(const zevctl::HistoryLine& line) {
  if (line.position) return {line.position, 0};
  return {{}, SecondOf(line.wall)};
}

std::string PlaceText(const WebPlace& place) {
  if (place.position) return journal::PositionText(*place.position);
  return std::string(kLog) + std::to_string(place.second);
}

std::optional<WebPlace> ParsePlace(const std::string& text) {
  if (!text.starts_with(kLog)) {
    const auto position = journal::ParsePosition(text);
    if (!position) return {};
    return WebPlace{position, 0};
  }
  int64_t second = 0;
  const char* begin = text.data() + kLog.size();
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(begin, end, second);
  if (error != std::errc() || stop != end || begin == end) return {};
  if (second > kLastSecond || second < -kLastSecond) return {};
  return WebPlace{{}, second};
}

}  // namespace zevweb
