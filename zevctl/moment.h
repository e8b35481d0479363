// Moments as people write them, and as programs read them.
#pragma once

#include <ctime>
#include <optional>
#include <string>
#include <string_view>

namespace zevctl {

/// The forms that ParseMoment() takes, for help and messages.
extern const char kMomentForms[];

/// Seconds since the epoch; nothing when the text has none of the forms. Times without a zone are
/// local ones. `now` is what today and ages refer to.
std::optional<time_t> ParseMoment(const std::string& text, time_t now);

/// The moment as RFC 3339 has it, in local time with its zone.
std::string Rfc3339(time_t moment);

}  // namespace zevctl
