// The command "report": what somebody else needs to know in order to help, without secrets.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <deque>
#include <fstream>
#include <iostream>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>

#include "arguments.h"
#include "command_port.h"
#include "console_view.h"
#include "console_words.h"
#include "descriptor.h"
#include "json_line.h"
#include "output.h"
#include "program.h"
#include "program_run.h"
#include "redaction.h"
#include "rights.h"

namespace zevctl {

namespace {

constexpr size_t kLastMessages = 100;
constexpr off_t kLogEnd = 65536;  // bytes of zevd.log that are looked at

using Lines = std::vector<std::string>;

Lines LinesOf(const std::string& text) {
  Lines lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

// ---- The sections -------------------------------------------------------------------------------

// The distribution's own name for itself.
std::string Distribution() {
  constexpr std::string_view kKey = "PRETTY_NAME=";
  std::ifstream file("/etc/os-release");
  for (std::string line; std::getline(file, line);) {
    if (line.starts_with(kKey)) return line.substr(kKey.size());
  }
  return "unknown";
}

Lines Versions() {
  Lines lines = {"zevctl " QOR_VERSION, "system: " + Distribution()};
  utsname name{};
  if (uname(&name) == 0) {
    lines.push_back(std::string("kernel: ") + name.release + " " + name.machine);
  }
  const ProgramResult packages = RunProgram(
      {"dpkg-query", "--show", "--showformat=${binary:Package} ${Version} ${db:Status-Abbrev}\n",
       "zevd*", "zevctl*", "qor*", "libjix*", "libtqauth*", "ser2net"});
  for (const std::string& line : LinesOf(packages.output)) {
    if (!line.starts_with("dpkg-query:")) lines.push_back("package: " + line);
  }
  return lines;
}

Lines Counted(const std::vector<ConsoleView>& consoles) {
  std::map<std::string, size_t> counts;
  for (const ConsoleView& console : consoles) ++counts[console.state_word];
  Lines lines = {"consoles: " + std::to_string(consoles.size())};
  for (const std::string& state : StatesByUrgency()) {
    if (counts[state] > 0) lines.push_back("  " + state + ": " + std::to_string(counts[state]));
  }
  return lines;
}

// Nobody is asked for a password.
Lines Daemon(const Settings& settings) try {
  Credentials nobody = Credentials::Unasked();
  CommandPort port(settings, nobody);
  Lines lines = Counted(ViewConsoles(port));
  const Json stats = ReadJson(port.JsonLines("stats"));
  if (!stats.is_object()) return lines;
  for (const auto& [key, value] : stats.items()) lines.push_back(key + ": " + JsonText(value));
  return lines;
} catch (const Failure& failure) {
  return {std::string("it was not asked: ") + failure.what()};
}

Lines Services() {
  if (access("/run/systemd/system", F_OK) != 0) return {"systemd does not run here"};
  return LinesOf(RunProgram({"systemctl", "list-units", "--all", "--plain", "--no-pager",
                             "--no-legend", "zevd*"})
                     .output);
}

Lines RightsOfFiles() {
  Rights rights(true);
  rights.Groups();
  rights.Files();
  Lines lines;
  for (const Step& step : rights.steps()) lines.push_back(step.text);
  return lines;
}

// As an operator would run it. It needs no daemon and changes nothing.
Lines Configuration() {
  const ProgramResult check = RunProgram({"/proc/self/exe", "config", "check"});
  Lines lines = LinesOf(check.output);
  lines.push_back("config check ended with status " + std::to_string(check.status));
  return lines;
}

std::string EndOfLog() {
  const std::string path = kStationRoot + "/logs/zevd.log";
  const Descriptor log(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  struct stat file {};
  if (!log || fstat(log.get(), &file) != 0 || !S_ISREG(file.st_mode)) return "";
  std::string text(static_cast<size_t>(std::min(file.st_size, kLogEnd)), '\0');
  const ssize_t count =
      pread(log.get(), text.data(), text.size(), std::max<off_t>(file.st_size - kLogEnd, 0));
  text.resize(static_cast<size_t>(std::max<ssize_t>(count, 0)));
  return text;
}

// Under systemd the daemon's output is in the journal, otherwise in its file.
std::string DaemonsOutput() {
  const ProgramResult journal =
      RunProgram({"journalctl", "--unit=zevd.service", "--lines=" + std::to_string(kLastMessages),
                  "--no-pager", "--quiet", "--output=short-iso"});
  return journal.status == 0 && !journal.output.empty() ? journal.output : EndOfLog();
}

std::string CookieOf(const Settings& settings) {
  std::ifstream file(settings.cookie_file);
  std::string cookie;
  file >> cookie;
  return cookie;
}

Lines LastMessages(const Settings& settings) {
  Redaction redaction(CookieOf(settings));
  std::deque<std::string> last;
  for (const std::string& line : LinesOf(DaemonsOutput())) {
    std::string shown = redaction.Take(line);
    if (!shown.empty()) last.push_back(std::move(shown));
    if (last.size() > kLastMessages) last.pop_front();
  }
  if (last.empty()) return {"none can be read; root and members of the group zevd can"};
  return {last.begin(), last.end()};
}

// ---- The whole ----------------------------------------------------------------------------------

struct Section {
  const char* title;
  Lines lines;
};

ExitStatus Report(const Settings& settings) {
  const std::array sections = {
      Section{"versions", Versions()},           Section{"daemon", Daemon(settings)},
      Section{"services", Services()},           Section{"rights", RightsOfFiles()},
      Section{"configuration", Configuration()}, Section{"messages", LastMessages(settings)},
  };
  Json data = Json::object();
  for (const auto& [title, lines] : sections) {
    Json texts = Json::array();
    for (const std::string& line : lines) texts.push_back(Utf8(line));
    data[title] = texts;
    if (settings.json) continue;
    std::cout << "== " << title << "\n";
    for (const std::string& line : lines) std::cout << Printable(line) << "\n";
    std::cout << "\n";
  }
  if (settings.json) std::cout << JsonLine(data) << "\n";
  return ExitStatus::kOk;
}

}  // namespace

void AddReportCommand(Command& app, Program& program) {
  Command command =
      app.AddCommand("report", "Gather what others need in order to help, without secrets");
  command.SetAction(program, [&program] { return Report(program.settings); });
}

}  // namespace zevctl
