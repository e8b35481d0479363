#include "json_line.h"

#include <nlohmann/json.hpp>

#include "output.h"

namespace zevctl {

Json ReadJson(std::string_view text) {
  return Json::parse(text, nullptr, /*allow_exceptions=*/false);
}

Json ReadJson(std::string_view text, int deepest) {
  bool too_deep = false;
  const auto watch_depth = [&](int depth, Json::parse_event_t, const Json&) {
    too_deep = too_deep || depth > deepest;
    return !too_deep;
  };
  Json data = Json::parse(text, watch_depth, /*allow_exceptions=*/false);
  if (too_deep) return Json::value_t::discarded;
  return data;
}

std::string JsonText(const Json& data) {
  return data.dump();
}

std::string JsonLine(const Json& data) {
  return EscapedJson(data.dump());
}

}  // namespace zevctl
