#include "control_acts.h"

#include <algorithm>
#include <array>

namespace zevctl {

namespace {

// ---- What the targets were like -----------------------------------------------------------------

template <typename Condition>
const ConsoleView* FirstThat(const ControlTarget& target, Condition condition) {
  const auto found = std::find_if(target.consoles.begin(), target.consoles.end(), condition);
  return found == target.consoles.end() ? nullptr : &*found;
}

const ConsoleView* FirstUp(const ControlTarget& target) {
  return FirstThat(target, [](const ConsoleView& console) { return console.IsUp(); });
}

const ConsoleView* FirstDown(const ControlTarget& target) {
  return FirstThat(target, [](const ConsoleView& console) { return !console.IsUp(); });
}

bool AllDisabled(const ControlTarget& target) {
  return std::all_of(target.consoles.begin(), target.consoles.end(),
                     [](const ConsoleView& console) { return console.IsDisabled(); });
}

bool AnyDisabled(const ControlTarget& target) {
  return FirstThat(target, [](const ConsoleView& console) { return console.IsDisabled(); });
}

// "2 users were disconnected: ann, bob"
std::string Disconnected(const std::vector<std::string>& users) {
  std::string text = std::to_string(users.size());
  text += users.size() == 1 ? " user was disconnected: " : " users were disconnected: ";
  for (const std::string& user : users) text += (&user == users.data() ? "" : ", ") + user;
  return text;
}

// ---- The commands -------------------------------------------------------------------------------

// Of several consoles of one name, the daemon clears the first that is connected.
ControlOutcome Clear(CommandPort& port, const ControlTarget& target, const std::string& command) {
  port.Do(command);
  const ConsoleView* const console = FirstUp(target);
  if (console == nullptr) {
    return {ExitStatus::kOk, "nobody was attached: it is " + target.consoles.front().state_word};
  }
  if (!console->users) return {ExitStatus::kOk, "its users were disconnected"};
  if (console->users->empty()) return {ExitStatus::kOk, "nobody was attached"};
  return {ExitStatus::kOk, Disconnected(*console->users)};
}

ControlOutcome Disable(CommandPort& port, const ControlTarget& target, const std::string& command) {
  port.Do(command);
  if (AllDisabled(target)) return {ExitStatus::kOk, "was disabled already"};
  std::vector<std::string> users;
  for (const ConsoleView& console : target.consoles) {
    if (console.users) users.insert(users.end(), console.users->begin(), console.users->end());
  }
  const std::string gone = users.empty() ? "" : "; " + Disconnected(users);
  return {ExitStatus::kOk,
          "disabled, until it is enabled or the daemon reloads or restarts" + gone};
}

ControlOutcome Enable(CommandPort& port, const ControlTarget& target, const std::string& command) {
  port.Do(command);
  if (AnyDisabled(target)) {
    return {ExitStatus::kOk, "enabled; the daemon connects to it at once"};
  }
  return {ExitStatus::kOk, "was enabled already: it is " + target.consoles.front().state_word};
}

// Only the daemon knows the models of which a management port can be taken over.
bool CannotBeForced(CommandPort& port, const std::string& name) {
  try {
    port.PortHolders(name);
  } catch (const CommandError& error) {
    return error.text() == kNotAPelloxConsole;
  }
  return false;
}

ControlOutcome Force(CommandPort& port, const ControlTarget& target, const std::string& command) {
  if (FirstDown(target) == nullptr) {
    return {ExitStatus::kFailed,
            "not forced: it is connected, and there is nothing to take over; \"zevctl clear\" "
            "disconnects its users"};
  }
  if (AllDisabled(target)) {
    return {ExitStatus::kNotAccessible, "not forced: it is disabled; \"zevctl enable\" it first"};
  }
  if (CannotBeForced(port, target.name)) {
    return {ExitStatus::kFailed,
            "not forced: only the management port of a Pellox console can be taken over; "
            "\"zevctl reconnect\" tries at once to connect"};
  }
  port.Do(command);
  return {ExitStatus::kOk, "its management port will be taken over at the next refusal"};
}

ControlOutcome Reconnect(CommandPort& port, const ControlTarget& target,
                         const std::string& command) {
  port.Do(command);
  if (AllDisabled(target)) {
    return {ExitStatus::kNotAccessible, "not tried: it is disabled; \"zevctl enable\" it first"};
  }
  const ConsoleView* const down = FirstDown(target);
  if (down == nullptr) return {ExitStatus::kOk, "is connected already"};
  if (down->state_word == "connecting") return {ExitStatus::kOk, "is being tried already"};
  return {ExitStatus::kOk, "the daemon is trying to connect; \"zevctl list\" shows the result"};
}

// For this command the daemon knows no console by its name that is not connected.
ControlOutcome Message(CommandPort& port, const ControlTarget& target, const std::string& command) {
  const ConsoleView* const console = FirstUp(target);
  if (console == nullptr) {
    return {ExitStatus::kNotAccessible,
            "it is not connected and has no users; \"zevctl list\" shows its state"};
  }
  port.Do(command);
  if (console->users && console->users->empty() && target.consoles.size() == 1) {
    return {ExitStatus::kOk, "nobody is attached"};
  }
  return {ExitStatus::kOk, "told"};
}

struct Row {
  std::string_view name;
  ControlOutcome (*run)(CommandPort& port, const ControlTarget& target, const std::string& command);
};

constexpr std::array kRows = {
    Row{"clear", Clear}, Row{"disable", Disable},     Row{"enable", Enable},
    Row{"force", Force}, Row{"reconnect", Reconnect}, Row{"msg", Message},
};

}  // namespace

bool IsControl(std::string_view command) {
  return std::any_of(kRows.begin(), kRows.end(),
                     [&](const Row& row) { return row.name == command; });
}

ControlOutcome PerformControl(CommandPort& port, std::string_view command,
                              const ControlTarget& target, const std::string& arguments) {
  const auto* row = std::find_if(kRows.begin(), kRows.end(),
                                 [&](const Row& candidate) { return candidate.name == command; });
  return row->run(port, target, std::string(command) + " " + target.name + arguments);
}

}  // namespace zevctl
