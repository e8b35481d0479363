// JSON read from text and written as text. The library's header is large, and reading and writing
// are most of what each source that does them compiles; so json_line.cpp does it for all.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>

namespace zevctl {

/// Its keys keep the order in which they were added.
using Json = nlohmann::ordered_json;

/// What the text stands for; discarded, and so no object, when the text is not JSON.
Json ReadJson(std::string_view text);

/// The same, but also discarded when its objects and arrays are nested deeper than `deepest`.
Json ReadJson(std::string_view text, int deepest);

/// On one line, as it is. Strings must be valid UTF-8.
std::string JsonText(const Json& data);

/// On one line that does no harm on a terminal, without a line end. Strings must be valid UTF-8.
std::string JsonLine(const Json& data);

}  // namespace zevctl
