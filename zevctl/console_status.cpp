#include "console_status.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "json_line.h"
#include "moment.h"

namespace zevctl {

namespace {

// Null, or a key that is missing or of another kind, is an empty text or 0.
std::string Text(const Json& object, const char* key) {
  const auto found = object.find(key);
  return found != object.end() && found->is_string() ? found->get<std::string>() : "";
}

time_t Time(const Json& object, const char* key) {
  const auto found = object.find(key);
  return found != object.end() && found->is_number_integer() ? found->get<time_t>() : 0;
}

std::string FirstOf(std::string first, std::string second) {
  return first.empty() ? std::move(second) : std::move(first);
}

Attendee ReadAttendee(const Json& user) {
  return {FirstOf(Text(user, "user"), Text(user, "given_user")),
          FirstOf(Text(user, "given_from"), Text(user, "from")), Text(user, "mode"),
          Time(user, "since")};
}

bool NamesConsole(const Json& object) {
  const auto name = object.find("console");
  return name != object.end() && name->is_string();
}

void AddUsers(const Json& object, ConsoleStatus& status, bool& whole) {
  const auto users = object.find("users");
  if (users == object.end() || !users->is_array()) {
    whole = false;
    return;
  }
  for (const Json& user : *users) {
    if (user.is_object()) {
      status.users.push_back(ReadAttendee(user));
    } else {
      whole = false;
    }
  }
}

void AddConsole(const Json& object, StatusAnswer& answer) {
  ConsoleStatus& status = answer.consoles.emplace_back();
  status.console = Text(object, "console");
  status.state = Text(object, "state");
  status.since = Time(object, "since");
  status.last_output = Time(object, "last_output");
  AddUsers(object, status, answer.whole);
}

// Takes the next line off the front and reads it; a line that is not an object is read as null.
Json NextObject(std::string_view& lines) {
  const size_t end = std::min(lines.find('\n'), lines.size());
  Json object = ReadJson(lines.substr(0, end));
  lines.remove_prefix(std::min(end + 1, lines.size()));
  return object.is_object() ? object : Json();
}

}  // namespace

StatusAnswer ParseStatus(std::string_view answer) {
  StatusAnswer parsed;
  while (!answer.empty()) {
    const Json object = NextObject(answer);
    if (NamesConsole(object)) {
      AddConsole(object, parsed);
    } else {
      parsed.whole = false;
    }
  }
  return parsed;
}

std::optional<ConsoleStatus> ParseStatus(std::string_view answer, std::string_view console) {
  std::vector<ConsoleStatus> consoles = ParseStatus(answer).consoles;
  const auto found =
      std::find_if(consoles.begin(), consoles.end(),
                   [&](const ConsoleStatus& status) { return status.console == console; });
  return found == consoles.end() ? std::nullopt : std::optional(std::move(*found));
}

std::optional<time_t> ParseStarted(std::string_view answer) {
  const Json object = NextObject(answer);
  if (!object.is_object() || Time(object, "started") == 0) return {};
  return Time(object, "started");
}

std::string NameAfterEvent(std::string name) {
  std::replace(name.begin(), name.end(), '-', '_');
  return name;
}

bool MayType(const Attendee& attendee) {
  return attendee.mode != "read-only";
}

std::string NameOf(const Attendee& attendee) {
  return attendee.name.empty() ? "somebody from " + attendee.from : attendee.name;
}

std::string Described(const Attendee& attendee, time_t now) {
  const std::string from = attendee.name.empty() ? "" : ", from " + attendee.from;
  return NameOf(attendee) + " (" + attendee.mode + from + ", since " +
         ClockTime(attendee.since, now) + ")";
}

std::string Described(const std::vector<Attendee>& attendees, time_t now) {
  std::string text;
  for (size_t i = 0; i < attendees.size(); ++i) {
    if (i > 0) text += i + 1 == attendees.size() ? " and " : ", ";
    text += Described(attendees[i], now);
  }
  return text;
}

std::vector<Attendee> Without(const std::vector<Attendee>& all, std::vector<Attendee> taken) {
  std::vector<Attendee> rest;
  for (const Attendee& attendee : all) {
    const auto found = std::find(taken.begin(), taken.end(), attendee);
    if (found == taken.end()) {
      rest.push_back(attendee);
    } else {
      taken.erase(found);
    }
  }
  return rest;
}

}  // namespace zevctl
