#include "json_line.h"

#include <nlohmann/json.hpp>

#include "output.h"

namespace zevctl {

namespace {

// Whether anything stands in more than `deepest` objects and arrays. The library can be asked to
// watch that while it reads, but then it takes a time that grows with the square of an array.
bool IsDeeper(std::string_view text, int deepest) {
  int depth = 0;
  bool in_string = false;
  for (size_t at = 0; at < text.size(); ++at) {
    const char byte = text[at];
    if (in_string) {
      if (byte == '\\') ++at;
      in_string = byte != '"';
    } else if (byte == ']' || byte == '}') {
      --depth;
    } else if (std::string_view(" \t\r\n").find(byte) == std::string_view::npos) {
      if (depth > deepest) return true;
      in_string = byte == '"';
      if (byte == '[' || byte == '{') ++depth;
    }
  }
  return false;
}

}  // namespace

Json ReadJson(std::string_view text) {
  return Json::parse(text, nullptr, /*allow_exceptions=*/false);
}

Json ReadJson(std::string_view text, int deepest) {
  if (IsDeeper(text, deepest)) return Json::value_t::discarded;
  return ReadJson(text);
}

std::string JsonText(const Json& data) {
  return data.dump();
}

std::string JsonLine(const Json& data) {
  return EscapedJson(data.dump());
}

}  // namespace zevctl
