// A console and its users as the daemon's command "status" describes them, and in the words of an
// operator.
#pragma once

#include <ctime>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zevctl {

/// Somebody who is attached to a console.
struct Attendee {
  std::string name;  ///< by login, or as given; empty when there is neither
  std::string from;  ///< the address, as given or of the connection
  std::string mode;  ///< read-only, shared, exclusive or exclusive-revoke
  time_t since = 0;

  bool operator==(const Attendee&) const = default;
};

struct ConsoleStatus {
  std::string console;
  std::string state;
  time_t since = 0;  ///< 0 when it is not known, as for last_output
  time_t last_output = 0;
  std::vector<Attendee> users;  ///< in the order of arrival
};

struct StatusAnswer {
  std::vector<ConsoleStatus> consoles;  ///< in the order of the answer
  bool whole = true;  ///< false when it has what is no console or no user, which is left out
};

/// The answer to "status": an object in each line. Of a console or a user, a key that is missing or
/// of another kind is an empty text or 0.
StatusAnswer ParseStatus(std::string_view answer);

/// The console of that very name among those that the answer describes, the connected one first;
/// nothing when there is none. An answer that is not what it should be has none.
std::optional<ConsoleStatus> ParseStatus(std::string_view answer, std::string_view console);

/// When the daemon started, from its answer to "stats"; nothing when that is not in there.
std::optional<time_t> ParseStarted(std::string_view answer);

/// The name that the console has after its first event, in which every "-" is a "_".
std::string NameAfterEvent(std::string name);

bool MayType(const Attendee& attendee);

/// "ann", or "somebody from 10.0.0.5" for a user without a name.
std::string NameOf(const Attendee& attendee);

/// "ann (exclusive, from 10.0.0.5, since 08:05:10)".
std::string Described(const Attendee& attendee, time_t now);

/// The descriptions, with commas and "and".
std::string Described(const std::vector<Attendee>& attendees, time_t now);

/// Those of the first who are not among the second.
std::vector<Attendee> Without(const std::vector<Attendee>& all, std::vector<Attendee> taken);

}  // namespace zevctl
