// Points in time as people write them and as programs read them.
#pragma once

#include <ctime>
#include <optional>
#include <string>
#include <string_view>

namespace zevctl {

/// The forms that ParseMoment() accepts, for help and messages.
extern const char kMomentForms[];

/// Seconds since the epoch; nothing when the text has none of the forms. Times without a zone are
/// local, and a time without a date is the last one before `now`, which is in the same unit and
/// what ages refer to.
std::optional<time_t> ParseMoment(const std::string& text, time_t now);

/// "08:05:10" in local time, with the date in front unless that is today's.
std::string ClockTime(time_t moment, time_t now);

/// The same for a column of a table: behind a date, the seconds are left out.
std::string ShortClockTime(time_t moment, time_t now);

/// "3 minutes ago"; "just now" below two seconds, and for a clock that is ahead.
std::string Ago(time_t moment, time_t now);

/// The moment, in seconds since the epoch, in the form of RFC 3339: local time with its zone.
std::string Rfc3339(time_t moment);

}  // namespace zevctl
