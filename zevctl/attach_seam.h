// Where the output before a session ends and the session's own begins.
#pragma once

#include <cstddef>
#include <optional>
#include <string_view>

namespace zevctl {

/// How many bytes at the front of what a session received first repeat what the console had printed
/// before: the daemon may send the last of it again to whoever attaches. `before` and `after`: what
/// the journal has from before the user attached and from after it. Nothing as long as that cannot
/// be told: the journal follows the console a moment later.
std::optional<size_t> RepeatedBytes(std::string_view received, std::string_view before,
                                    std::string_view after);

/// The same where the journal does not tell what came after: so many bytes that they can hardly be
/// equal by chance, or none.
size_t ProbablyRepeatedBytes(std::string_view received, std::string_view before);

}  // namespace zevctl
