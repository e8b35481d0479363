// The command "setup": lets people use the consoles of this machine.
#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>

#include "arguments.h"
#include "json_line.h"
#include "output.h"
#include "program.h"
#include "rights.h"

namespace zevctl {

namespace {

struct SetupOptions {
  std::vector<std::string> users;
  bool dry_run = false;
};

const char* InWords(Step::Kind kind) {
  switch (kind) {
    case Step::Kind::kRight:
      return "right";
    case Step::Kind::kMended:
      return "mended";
    case Step::Kind::kWanted:
      return "wanted";
    case Step::Kind::kProblem:
      break;
  }
  return "problem";
}

// Whoever called sudo, unless others are named. root needs no group.
std::vector<std::string> UsersMeant(const SetupOptions& options) {
  if (!options.users.empty()) return options.users;
  const char* const caller = getenv("SUDO_USER");
  if (caller == nullptr || *caller == '\0' || std::string(caller) == "root") return {};
  return {caller};
}

// Nothing is done for some when another is mistyped.
void RequireUsers(const std::vector<std::string>& users) {
  for (const std::string& user : users) {
    if (getpwnam(user.c_str()) != nullptr) continue;
    throw Failure(ExitStatus::kUsage, "this machine has no user \"" + Printable(user) +
                                          "\", and nothing was done; \"getent passwd\" shows all");
  }
}

void RequireRoot(const SetupOptions& options) {
  if (geteuid() == 0 || options.dry_run) return;
  throw Failure(ExitStatus::kFailed,
                "only root can change groups and modes; use sudo, or --dry-run to look");
}

void PrintSteps(const Rights& rights, bool json) {
  Json data = Json::array();
  for (const Step& step : rights.steps()) {
    if (json) {
      data.push_back({{"result", InWords(step.kind)}, {"text", Utf8(step.text)}});
    } else if (step.kind == Step::Kind::kProblem) {
      std::cout.flush();
      Warn(step.text);
    } else {
      std::cout << Printable(step.text) << "\n";
    }
  }
  if (json) std::cout << JsonLine(data) << "\n";
}

void TellWhatIsNext(const Rights& rights, const std::vector<std::string>& users) {
  if (users.empty()) {
    std::cout << "Nobody was named: \"zevctl setup USER\" lets a user log in to the consoles.\n";
  }
  if (rights.any_member_added()) {
    std::cout << "New groups take effect at the next login: log out and in again.\n";
  }
}

ExitStatus Setup(const Settings& settings, const SetupOptions& options) {
  const std::vector<std::string> users = UsersMeant(options);
  RequireRoot(options);
  RequireUsers(users);
  Rights rights(options.dry_run);
  rights.Groups();
  for (const std::string& user : users) rights.Member(user);
  rights.Files();
  PrintSteps(rights, settings.json);
  if (!settings.json) TellWhatIsNext(rights, users);
  return rights.Has(Step::Kind::kProblem) ? ExitStatus::kFailed : ExitStatus::kOk;
}

}  // namespace

void AddSetupCommand(Command& app, Program& program) {
  auto options = std::make_shared<SetupOptions>();
  Command command = app.AddCommand("setup", "Let users of this machine use the consoles");
  command.AddOption("USER", options->users, "Their names; whoever called sudo if not given");
  command.AddFlag("--dry-run", options->dry_run, "Only tell what would be done");
  command.SetAction(program, [options, &program] { return Setup(program.settings, *options); });
}

}  // namespace zevctl
