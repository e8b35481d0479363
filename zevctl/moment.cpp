#include "moment.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <iterator>
#include <regex>

namespace zevctl {

namespace {

constexpr time_t kMinute = 60;
constexpr time_t kHour = 60 * kMinute;
constexpr time_t kDay = 24 * kHour;
constexpr time_t kWeek = 7 * kDay;

// Groups: year, month, day, word; hour, minute, second; zone. Each of the three parts may be
// missing.
constexpr char kDateAndTime[] =
    R"((?:(?:(\d{4})-(\d\d)-(\d\d)|(today|yesterday))(?:[ Tt](?=\d)|$))?)"
    R"((?:(\d\d):(\d\d)(?::(\d\d)(?:\.\d+)?)?([Zz]|[+-]\d\d:\d\d)?)?)";
constexpr char kAge[] =
    R"((?=\d)(?:(\d{1,9})w)?(?:(\d{1,9})d)?(?:(\d{1,9})h)?(?:(\d{1,9})m)?(?:(\d{1,9})s)?)";
constexpr time_t kAgeUnits[] = {kWeek, kDay, kHour, kMinute, 1};

enum Group { kWhole, kYear, kMonth, kDayOfMonth, kWord, kHours, kMinutes, kSeconds, kZone };

struct Unit {
  time_t seconds;
  const char* name;
};

constexpr std::array kUnits = {Unit{kDay, "day"}, Unit{kHour, "hour"}, Unit{kMinute, "minute"},
                               Unit{1, "second"}};

tm LocalTime(time_t moment) {
  tm fields{};
  localtime_r(&moment, &fields);
  return fields;
}

std::string Formatted(const char* format, const tm& fields) {
  std::array<char, 40> text{};
  strftime(text.data(), text.size(), format, &fields);
  return text.data();
}

// In the other form when it is of another day.
std::string OfTodayOr(const char* other_form, time_t moment, time_t now) {
  const tm then = LocalTime(moment);
  const tm today = LocalTime(now);
  const bool same_day = then.tm_year == today.tm_year && then.tm_yday == today.tm_yday;
  return Formatted(same_day ? "%H:%M:%S" : other_form, then);
}

int Number(const std::string& digits) {
  int number = 0;
  std::from_chars(digits.data(), digits.data() + digits.size(), number);
  return number;
}

std::optional<time_t> ParseAge(const std::string& text, time_t now) {
  static const std::regex form(kAge);
  std::smatch found;
  if (!std::regex_match(text, found, form)) return {};
  time_t age = 0;
  for (size_t i = 0; i < std::size(kAgeUnits); ++i) age += Number(found[i + 1]) * kAgeUnits[i];
  return now - age;
}

std::chrono::year_month_day Date(const tm& fields) {
  return std::chrono::year(fields.tm_year + 1900) /
         std::chrono::month(static_cast<unsigned>(fields.tm_mon + 1)) /
         std::chrono::day(static_cast<unsigned>(fields.tm_mday));
}

// True when there is such a day and such a time. Second 60 is a leap second.
bool Exists(const tm& fields) {
  return Date(fields).ok() && fields.tm_hour < 24 && fields.tm_min < 60 && fields.tm_sec <= 60;
}

// Seconds that the zone is ahead of UTC; nothing when there is no such zone.
std::optional<time_t> Offset(const std::string& zone) {
  if (zone == "Z" || zone == "z") return 0;
  const time_t hours = Number(zone.substr(1, 2));
  const time_t minutes = Number(zone.substr(4, 2));
  if (hours >= 24 || minutes >= 60) return {};
  const time_t offset = hours * kHour + minutes * kMinute;
  return zone[0] == '-' ? -offset : offset;
}

time_t InUtc(const tm& fields) {
  const auto days = std::chrono::sys_days(Date(fields)).time_since_epoch().count();
  return days * kDay + fields.tm_hour * kHour + fields.tm_min * kMinute + fields.tm_sec;
}

tm FieldsOf(const std::smatch& found, time_t now) {
  tm fields = LocalTime(now);
  if (found[kYear].matched) {
    fields.tm_year = Number(found[kYear]) - 1900;
    fields.tm_mon = Number(found[kMonth]) - 1;
    fields.tm_mday = Number(found[kDayOfMonth]);
  }
  fields.tm_hour = Number(found[kHours]);
  fields.tm_min = Number(found[kMinutes]);
  fields.tm_sec = Number(found[kSeconds]);
  fields.tm_isdst = -1;
  return fields;
}

// Local time; of a time alone, the last one that has been.
time_t InZone(const tm& fields, const std::smatch& found, time_t now) {
  const auto days_before = [&](int days) {
    tm changed = fields;
    changed.tm_mday -= days;
    return mktime(&changed);
  };
  if (found[kWord].matched) return days_before(found[kWord] == "yesterday" ? 1 : 0);
  const time_t moment = days_before(0);
  return found[kYear].matched || moment <= now ? moment : days_before(1);
}

}  // namespace

const char kMomentForms[] =
    "\"2026-11-21 08:05\" or \"2026-11-21 08:05:30\", 2026-11-21, today, yesterday, "
    "\"yesterday 08:05\", 08:05 or 08:05:30 (the last one), 2026-11-21T08:05:30+01:00, or an age "
    "such as 30s, 15m, 1h30m, 3d, 1w";

std::optional<time_t> ParseMoment(const std::string& text, time_t now) {
  if (const auto moment = ParseAge(text, now)) return moment;
  static const std::regex form(kDateAndTime);
  std::smatch found;
  if (text.empty() || !std::regex_match(text, found, form)) return {};
  tm fields = FieldsOf(found, now);
  if (!Exists(fields)) return {};
  if (!found[kZone].matched) return InZone(fields, found, now);
  const auto offset = Offset(found[kZone]);
  if (!offset || !found[kYear].matched) return {};
  return InUtc(fields) - *offset;
}

std::string ClockTime(time_t moment, time_t now) {
  return OfTodayOr("%Y-%m-%d %H:%M:%S", moment, now);
}

std::string ShortClockTime(time_t moment, time_t now) {
  return OfTodayOr("%Y-%m-%d %H:%M", moment, now);
}

std::string Ago(time_t moment, time_t now) {
  const time_t age = now - moment;
  if (age < 2) return "just now";
  const auto* unit = std::find_if(kUnits.begin(), kUnits.end() - 1,
                                  [&](const Unit& candidate) { return age >= candidate.seconds; });
  const time_t count = age / unit->seconds;
  return std::to_string(count) + " " + unit->name + (count == 1 ? "" : "s") + " ago";
}

std::string Rfc3339(time_t moment) {
  std::string stamp = Formatted("%Y-%m-%dT%H:%M:%S%z", LocalTime(moment));
  return stamp.insert(stamp.size() - 2, 1, ':');
}

}  // namespace zevctl
