#include "config_console.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <map>
#include <set>

namespace zevctl {

namespace {

// A line's port is not free where users reach a console: their ports are open at every address.
std::set<uint32_t> UserPorts(const std::vector<ConfigConsole>& consoles) {
  std::set<uint32_t> ports;
  for (const ConfigConsole& console : consoles) {
    if (const auto port = NumberIn(console.Text(kFieldUserPort))) ports.insert(*port);
  }
  return ports;
}

std::map<std::string, uint32_t> LinePorts(const std::vector<ConfigConsole>& consoles) {
  std::map<std::string, uint32_t> ports;
  for (const ConfigConsole& console : consoles) {
    const auto port = NumberIn(console.Text(kFieldPort));
    if (console.Text(kFieldAddress) == kLinesAddress && port) ports.emplace(console.name(), *port);
  }
  return ports;
}

void SetPort(ConfigConsole& console, uint32_t port) {
  console.line->port = static_cast<uint16_t>(port);
  console.fields[kFieldAddress].text = kLinesAddress;
  console.fields[kFieldPort].text = std::to_string(port);
}

}  // namespace

std::optional<uint32_t> NumberIn(std::string_view text, uint32_t most) {
  uint32_t number = 0;
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number);
  if (text.empty() || error != std::errc() || stop != end || number > most) return {};
  return number;
}

std::string FoldedName(std::string_view name) {
  std::string folded(name);
  for (char& byte : folded) {
    byte = byte == '-' ? '_' : static_cast<char>(tolower(static_cast<unsigned char>(byte)));
  }
  return folded;
}

void AssignLinePorts(std::vector<ConfigConsole>& consoles,
                     const std::vector<ConfigConsole>& before) {
  std::set<uint32_t> taken = UserPorts(consoles);
  const auto ports = LinePorts(before);
  std::vector<ConfigConsole*> others;
  for (ConfigConsole& console : consoles) {
    if (!console.line) continue;
    const auto known = ports.find(console.name());
    if (known != ports.end() && taken.insert(known->second).second) {
      SetPort(console, known->second);
    } else {
      others.push_back(&console);
    }
  }
  uint32_t next = kFirstLinePort;
  for (ConfigConsole* console : others) {
    while (taken.contains(next)) ++next;
    taken.insert(next);
    SetPort(*console, next);
  }
}

}  // namespace zevctl
