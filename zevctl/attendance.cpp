#include "attendance.h"

#include <algorithm>

#include "console_words.h"

namespace zevctl {

namespace {

bool IsRefused(const ConsoleRecord& console) {
  return StateInWords(console.state) == "refused";
}

}  // namespace

std::vector<UserRecord> Attendance::At(const std::vector<ConsoleRecord>& consoles) {
  const auto may = [this](const ConsoleRecord& console) { return MayHaveUsers(console); };
  if (std::none_of(consoles.begin(), consoles.end(), may)) return {};
  const ConsoleRecord& first = consoles.front();
  std::vector<UserRecord> users = port_.Users(first.name);
  const bool unexpected = users.empty() && consoles.size() == 1 && IsRefused(first);
  return unexpected ? AskAgain(first) : users;
}

// The daemon tells who holds the management port of a refused console, of certain models only.
bool Attendance::MayHaveUsers(const ConsoleRecord& console) const {
  if (IsRefused(console)) return !without_holder_.contains(console.model);
  return StateInWords(console.state) == "in-use";
}

// Without a holder, either the console is of another model, or it was just being tried again. The
// daemon waits a minute between two attempts; so a console that is refused between two answers
// without a holder is of another model.
std::vector<UserRecord> Attendance::AskAgain(const ConsoleRecord& console) {
  const std::vector<ConsoleRecord> now = port_.Consoles(console.name);
  if (now.size() != 1 || !IsRefused(now.front()) || now.front().model != console.model) return {};
  std::vector<UserRecord> users = port_.Users(console.name);
  if (users.empty()) without_holder_.insert(console.model);
  return users;
}

}  // namespace zevctl
