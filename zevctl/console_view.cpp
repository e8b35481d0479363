#include "console_view.h"

#include <strings.h>

#include <map>
#include <queue>
#include <utility>

#include "console_status.h"
#include "console_words.h"
#include "output.h"

namespace zevctl {

namespace {

constexpr char kHiddenUser[] = "VRQ";

// By the name of the console, in the order of the answer.
using StatusByName = std::map<std::string, std::queue<ConsoleStatus>>;

StatusByName ByName(std::string_view answer) {
  StatusAnswer parsed = ParseStatus(answer);
  StatusByName found;
  for (ConsoleStatus& status : parsed.consoles) {
    found[status.console].push(std::move(status));
  }
  return found;
}

std::vector<std::string> NamesOfUsers(const ConsoleStatus& status) {
  std::vector<std::string> names;
  for (const Attendee& user : status.users) {
    if (strcasecmp(user.name.c_str(), kHiddenUser) != 0) names.push_back(NameOf(user));
  }
  return names;
}

void Add(const ConsoleStatus& status, ConsoleView& view) {
  view.state_word = status.state;
  view.since = status.since;
  view.last_output = status.last_output;
  view.users = NamesOfUsers(status);
}

ConsoleView Plain(const ConsoleRecord& record) {
  ConsoleView view;
  static_cast<ConsoleRecord&>(view) = record;
  view.state_word = StateInWords(record.state);
  return view;
}

std::vector<ConsoleView> WithoutStatus(CommandPort& port,
                                       const std::vector<ConsoleRecord>& records) {
  std::vector<ConsoleView> views;
  for (const ConsoleRecord& record : records) {
    ConsoleView& view = views.emplace_back(Plain(record));
    view.users.emplace();
    if (view.state_word != "in-use") continue;
    for (const UserRecord& user : port.Users(record.name)) view.users->push_back(user.name);
  }
  return views;
}

}  // namespace

std::vector<ConsoleView> WithStatus(const std::vector<ConsoleRecord>& records,
                                    std::string_view answer) {
  StatusByName status = ByName(answer);
  std::vector<ConsoleView> views;
  for (const ConsoleRecord& record : records) {
    ConsoleView& view = views.emplace_back(Plain(record));
    const auto found = status.find(Utf8(record.name));
    if (found == status.end() || found->second.empty()) continue;
    Add(found->second.front(), view);
    found->second.pop();
  }
  return views;
}

std::vector<ConsoleView> ViewConsoles(CommandPort& port) {
  const std::vector<ConsoleRecord> records = port.Consoles();
  std::string answer;
  try {
    answer = port.JsonLines("status");
  } catch (const CommandError&) {
    return WithoutStatus(port, records);
  }
  return WithStatus(records, answer);
}

}  // namespace zevctl
