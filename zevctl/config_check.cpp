#include "config_check.h"

#include <algorithm>
#include <cctype>
#include <map>

#include "output.h"

namespace zevctl {

namespace {

constexpr size_t kLongestText = 64;
constexpr uint32_t kFirstUserPort = 1024;

// ---- One field ----------------------------------------------------------------------------------

/// Checks the fields of one console.
class ConsoleCheck {
 public:
  ConsoleCheck(const ConfigConsole& console, const CheckSettings& settings, Findings& findings)
      : console_(console), settings_(settings), findings_(findings) {}

  void Run() {
    CheckName();
    CheckTarget();
    CheckManagementPort();
    CheckUserPort();
    CheckWord(kFieldModel);
    CheckWord(kFieldPlatform);
    CheckOs();
    for (const ConfigField field : {kFieldLog, kFieldEvents, kFieldEnabled, kFieldLogin}) {
      CheckFlag(field);
    }
    CheckEventsFile();
  }

 private:
  void CheckName() {
    const std::string& name = console_.name();
    CheckWord(kFieldName);
    if (name.find('/') != std::string::npos || name == "." || name == ".." ||
        name == "consolidated") {
      Error(kFieldName, "the name " + Quoted(name) + " cannot be that of a log file",
            "give the console another name, without a slash; until then it has no log");
    }
    if (name == "@@@@") {
      Error(kFieldName, "the name \"@@@@\" stands for the command port", "give it another name");
    }
    if (name.starts_with("#")) {
      Error(kFieldName, "a name that begins with # makes a comment of the line",
            "give the console another name");
    }
    if (name.starts_with("-") ||
        name.find_first_of("*?[]\\\"'`$&|;<>(){}!,=") != std::string::npos) {
      findings_.Warning(
          console_.PlaceOf(kFieldName),
          "the name " + Quoted(name) + " means something else to a shell or a command",
          "use letters, digits, dots, underscores and dashes");
    }
  }

  // Names, models, platforms.
  void CheckWord(ConfigField field) {
    const std::string& text = console_.Text(field);
    const std::string title = kConfigFieldTitles[field];
    if (text.empty()) {
      Error(field, "the " + title + " is empty", "write something, or - for nothing");
    } else if (text.find_first_of(" \t\r\n") != std::string::npos) {
      Error(field, "the " + title + " has a blank in it", "write it as one word");
    } else if (Printable(text) != text) {
      Error(field, "the " + title + " has characters in it that cannot be shown",
            "use letters, digits and signs");
    }
    CheckLength(field);
  }

  void CheckLength(ConfigField field) {
    if (console_.Text(field).size() <= kLongestText) return;
    Error(field,
          std::string("the ") + kConfigFieldTitles[field] +
              " is longer than 64 bytes, and the daemon cuts it",
          "shorten it");
  }

  void CheckTarget() {
    if (console_.line) return CheckLine();
    CheckAddress();
    const std::string& text = console_.Text(kFieldPort);
    if (NumberIn(text).value_or(0) != 0) return;
    Error(kFieldPort, "the console port " + Quoted(text) + " is no port", "use 1 to 65535");
  }

  void CheckLine() {
    const std::string mistake = LineMistake(*console_.line);
    if (mistake.empty()) return;
    // The mistake is told together with what mends it.
    const size_t mend = mistake.find("; ");
    const bool has_mend = mend != std::string::npos;
    findings_.Error(console_.line_place, mistake.substr(0, mend),
                    has_mend ? mistake.substr(mend + 2) : "see LINES in consoles.toml(5)");
  }

  void CheckAddress() {
    const std::string& text = console_.Text(kFieldAddress);
    const std::string mistake = AddressMistake(text);
    if (!mistake.empty()) {
      const bool is_name = std::any_of(text.begin(), text.end(), [](char byte) {
        return isalpha(static_cast<unsigned char>(byte)) != 0;
      });
      const std::string mend = is_name
                                   ? "write its address; \"getent ahostsv4 " + text + "\" shows it"
                                   : "write four numbers from 0 to 255, such as 192.0.2.10";
      Error(kFieldAddress, mistake, mend);
    } else if (text == kLinesAddress && settings_.lines_known) {
      Error(kFieldAddress, std::string("the address ") + kLinesAddress + " is for lines alone",
            "describe the line by serial, exec, ssh or ipmi");
    }
  }

  static std::string AddressMistake(const std::string& text) {
    std::vector<uint32_t> numbers;
    for (size_t begin = 0; begin <= text.size();) {
      const size_t end = std::min(text.find('.', begin), text.size());
      const std::string part = text.substr(begin, end - begin);
      const auto number = NumberIn(part, 255);
      if (!number) return Quoted(text) + " is no address, and the daemon looks no names up";
      if (part.size() > 1 && part[0] == '0') {
        return Quoted(text) + " has a leading zero, which makes the number octal";
      }
      numbers.push_back(*number);
      begin = end + 1;
    }
    if (numbers.size() != 4) return Quoted(text) + " is no whole address";
    if (numbers[0] == 0 || numbers[0] >= 224) return Quoted(text) + " is not the address of a host";
    return {};
  }

  void CheckManagementPort() {
    const std::string& text = console_.Text(kFieldManagementPort);
    if (NumberIn(text)) return;
    Error(kFieldManagementPort, "the management port " + Quoted(text) + " is no port",
          "use 1 to 65535, or 0 for none");
  }

  void CheckUserPort() {
    const std::string& text = console_.Text(kFieldUserPort);
    const auto port = NumberIn(text);
    if (!port) {
      Error(kFieldUserPort, "the user port " + Quoted(text) + " is no port",
            "use 1024 to 65535, or 0 for none");
    } else if (*port != 0 && *port < kFirstUserPort) {
      Error(kFieldUserPort, "the user port " + text + " is one of the system's, below 1024",
            "use 1024 to 65535");
    } else if (*port == settings_.main_port) {
      Error(kFieldUserPort, "the user port " + text + " is the daemon's main port",
            "use another one");
    }
  }

  void CheckOs() {
    const std::string& text = console_.Text(kFieldOs);
    if (text.empty()) {
      Error(kFieldOs, "the OS type is empty", "write something, or - for nothing");
    } else if (text.find('"') != std::string::npos || Printable(text) != text) {
      Error(kFieldOs, "the OS type has a quote or a control character in it", "leave it out");
    } else {
      CheckLength(kFieldOs);
    }
  }

  void CheckFlag(ConfigField field) {
    const std::string& text = console_.Text(field);
    if (text == "0" || text == "1") return;
    Error(field, std::string("the ") + kConfigFieldTitles[field] + " is " + Quoted(text),
          "write 0 or 1");
  }

  void CheckEventsFile() {
    const std::string& text = console_.Text(kFieldEventsFile);
    if (text == kNoEventsFile) return;
    if (!settings_.events_files.contains(text)) {
      Error(kFieldEventsFile, "there is no event file " + Quoted(text),
            "make it in the directory of the event files, or correct the name");
    } else if (console_.Text(kFieldLog) != "1" && console_.Text(kFieldEvents) == "1") {
      findings_.Warning(console_.PlaceOf(kFieldLog),
                        "events of " + Quoted(console_.name()) +
                            " are not found: what is not logged is not matched",
                        "switch its log on");
    }
  }

  void Error(ConfigField field, const std::string& what, const std::string& mend) {
    findings_.Error(console_.PlaceOf(field), what, mend);
  }

  const ConfigConsole& console_;
  const CheckSettings& settings_;
  Findings& findings_;
};

// ---- All consoles -------------------------------------------------------------------------------

/// Remembers who had a value first.
class FirstOwners {
 public:
  /// The console that had it before, or null.
  const ConfigConsole* Claim(const std::string& value, const ConfigConsole& console) {
    const auto [at, is_new] = owners_.emplace(value, &console);
    return is_new ? nullptr : at->second;
  }

 private:
  std::map<std::string, const ConfigConsole*> owners_;
};

std::string First(const ConfigConsole& console, ConfigField field) {
  return Quoted(console.name()) + " has it already (" + console.PlaceOf(field).InWords() + ")";
}

void CheckNames(const std::vector<ConfigConsole>& consoles, Findings& findings) {
  FirstOwners owners;
  for (const ConfigConsole& console : consoles) {
    const ConfigConsole* other = owners.Claim(FoldedName(console.name()), console);
    if (other == nullptr) continue;
    const std::string name = Quoted(console.name());
    const bool same = other->name() == console.name();
    findings.Error(console.PlaceOf(kFieldName),
                   same ? "a second console is named " + name
                        : "the names " + name + " and " + Quoted(other->name()) +
                              " are the same to commands and logs",
                   "rename one of them; the first is at " + other->PlaceOf(kFieldName).InWords());
  }
}

void CheckAddresses(const std::vector<ConfigConsole>& consoles, Findings& findings) {
  FirstOwners owners;
  for (const ConfigConsole& console : consoles) {
    if (console.line) continue;
    const std::string address = console.Text(kFieldAddress) + ":" + console.Text(kFieldPort);
    const ConfigConsole* other = owners.Claim(address, console);
    if (other == nullptr) continue;
    findings.Error(console.PlaceOf(kFieldAddress), "a second console at " + address,
                   "give each its own address and port; " + First(*other, kFieldAddress));
  }
}

void CheckTargets(const std::vector<ConfigConsole>& consoles, Findings& findings) {
  FirstOwners owners;
  for (const ConfigConsole& console : consoles) {
    if (!console.line || console.line->kind != LineKind::kSerial) continue;
    const std::string device = console.line->target.substr(0, console.line->target.find(','));
    const ConfigConsole* other = owners.Claim(device, console);
    if (other == nullptr) continue;
    findings.Error(console.line_place, "a second console at " + device,
                   "give each its own device; " + Quoted(other->name()) + " has it already (" +
                       other->line_place.InWords() + ")");
  }
}

void CheckUserPorts(const std::vector<ConfigConsole>& consoles, Findings& findings) {
  FirstOwners owners;
  for (const ConfigConsole& console : consoles) {
    const std::string& port = console.Text(kFieldUserPort);
    if (NumberIn(port).value_or(0) == 0) continue;
    const ConfigConsole* other = owners.Claim(port, console);
    if (other == nullptr) continue;
    findings.Error(console.PlaceOf(kFieldUserPort), "the user port " + port + " is taken twice",
                   "give each console its own; " + First(*other, kFieldUserPort));
  }
}

}  // namespace

void CheckConsoles(const std::vector<ConfigConsole>& consoles, const CheckSettings& settings,
                   Findings& findings) {
  for (const ConfigConsole& console : consoles) ConsoleCheck(console, settings, findings).Run();
  CheckNames(consoles, findings);
  CheckAddresses(consoles, findings);
  CheckTargets(consoles, findings);
  CheckUserPorts(consoles, findings);
}

}  // namespace zevctl
