// Positions and kinds as words: what people and programs see of them. What is public of it is in
// journal.h.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace journal {

/// 16 hexadecimal digits in lower case, as the file "id" has them.
std::optional<uint64_t> ParseStation(std::string_view text);

}  // namespace journal
