#include "console_view.h"

#include <strings.h>

#include <algorithm>
#include <map>
#include <nlohmann/json.hpp>
#include <queue>

#include "console_words.h"
#include "output.h"

namespace zevctl {

namespace {

using Json = nlohmann::json;

constexpr char kHiddenUser[] = "VRQ";

// Objects by the name of their console, in the order of the answer.
using StatusByName = std::map<std::string, std::queue<Json>>;

// Null, or a key that is missing or of another kind, is an empty text or 0.
std::string TextOf(const Json& object, const char* key) {
  const auto found = object.find(key);
  return found != object.end() && found->is_string() ? found->get<std::string>() : "";
}

time_t TimeOf(const Json& object, const char* key) {
  const auto found = object.find(key);
  return found != object.end() && found->is_number_integer() ? found->get<time_t>() : 0;
}

StatusByName Parsed(std::string_view answer) {
  StatusByName found;
  while (!answer.empty()) {
    const size_t end = std::min(answer.find('\n'), answer.size());
    Json object = Json::parse(answer.substr(0, end), nullptr, false);
    answer.remove_prefix(std::min(end + 1, answer.size()));
    if (object.is_object()) found[TextOf(object, "console")].push(std::move(object));
  }
  return found;
}

std::string FirstOf(std::string first, std::string second) {
  return first.empty() ? std::move(second) : std::move(first);
}

std::string NameOfUser(const Json& user) {
  if (!user.is_object()) return "";
  return FirstOf(TextOf(user, "user"), TextOf(user, "given_user"));
}

std::string AddressOfUser(const Json& user) {
  if (!user.is_object()) return "";
  return FirstOf(TextOf(user, "given_from"), TextOf(user, "from"));
}

std::vector<std::string> UsersOf(const Json& object) {
  std::vector<std::string> names;
  const auto users = object.find("users");
  if (users == object.end() || !users->is_array()) return names;
  for (const Json& user : *users) {
    const std::string name = NameOfUser(user);
    if (strcasecmp(name.c_str(), kHiddenUser) == 0) continue;
    names.push_back(name.empty() ? "somebody from " + AddressOfUser(user) : name);
  }
  return names;
}

void Add(const Json& object, ConsoleView& view) {
  view.state_word = TextOf(object, "state");
  view.since = TimeOf(object, "since");
  view.last_output = TimeOf(object, "last_output");
  view.users = UsersOf(object);
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
  StatusByName status = Parsed(answer);
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
