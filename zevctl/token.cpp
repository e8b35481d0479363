// "zevctl token": the tokens with which machines read from zevweb.
#include <algorithm>
#include <ctime>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>

#include "arguments.h"
#include "config_file.h"
#include "json_line.h"
#include "local_only.h"
#include "moment.h"
#include "name_match.h"
#include "output.h"
#include "program.h"
#include "token_file.h"

namespace zevctl {

namespace {

constexpr mode_t kMode = 0640;
constexpr size_t kMostDays = 36500;
constexpr time_t kDay = 86400;

struct TokenOptions {
  std::string name;
  std::optional<size_t> days;
};

std::string Directory() {
  return kStationRoot + "/config";
}

std::vector<Token> ReadTokens() {
  const std::string path = Directory() + "/" + kTokenFile;
  const ReadFile file = ReadSafely(Directory(), kTokenFile);
  if (file.kind == FileKind::kMissing) return {};
  if (file.kind != FileKind::kRegular) {
    throw Failure(ExitStatus::kFailed, path + " cannot be read: " + file.reason +
                                           "; run this as root, or remove what stands there");
  }
  size_t bad_line = 0;
  std::vector<Token> tokens = ParseTokens(file.text, &bad_line);
  if (bad_line == 0) return tokens;
  throw Failure(ExitStatus::kFailed,
                path + ":" + std::to_string(bad_line) + ": this line is no token; remove it");
}

std::vector<Token>::iterator Find(std::vector<Token>& tokens, const std::string& name) {
  return std::find_if(tokens.begin(), tokens.end(),
                      [&](const Token& token) { return token.name == name; });
}

void WriteTokens(const ConfigDirectory& directory, const std::vector<Token>& tokens) {
  StagedFile(directory, kTokenFile, TokenText(tokens), kMode).Commit();
}

// ---- Showing ------------------------------------------------------------------------------------

std::string ExpiryText(const Token& token, time_t now) {
  return token.expires ? ClockTime(*token.expires, now) : "never";
}

Json AsJson(const Token& token, time_t now) {
  return {{"name", token.name},
          {"made", token.made},
          {"expires", token.expires ? Json(*token.expires) : Json()},
          {"expired", token.HasExpired(now)}};
}

// ---- The commands -------------------------------------------------------------------------------

ExitStatus Create(const Settings& settings, const TokenOptions& options) {
  ConfigDirectory directory(Directory());
  directory.Lock();
  std::vector<Token> tokens = ReadTokens();
  if (Find(tokens, options.name) != tokens.end()) {
    throw Failure(ExitStatus::kFailed, "there is a token " + options.name +
                                           " already; withdraw it first, or choose another name");
  }
  const std::string secret = MakeTokenSecret();
  Token token;
  token.name = options.name;
  token.made = time(nullptr);
  if (options.days) token.expires = token.made + static_cast<time_t>(*options.days) * kDay;
  token.hash = TokenHash(secret);
  tokens.push_back(token);
  WriteTokens(directory, tokens);
  if (settings.json) {
    Json data = AsJson(token, token.made);
    data["token"] = secret;
    std::cout << JsonLine(data) << "\n";
    return ExitStatus::kOk;
  }
  std::cout << secret << "\n" << std::flush;
  Announce(
      "zevctl: this is the only time that the token is shown; keep it where only the machine "
      "that uses it can read it");
  return ExitStatus::kOk;
}

ExitStatus List(const Settings& settings, const TokenOptions&) {
  const time_t now = time(nullptr);
  Json data = Json::array();
  Table table({"NAME", "MADE", "EXPIRES"}, 1);
  for (const Token& token : ReadTokens()) {
    data.push_back(AsJson(token, now));
    const Colour colour = token.HasExpired(now) ? Colour::kYellow : Colour::kNone;
    table.Add({{token.name}, {ClockTime(token.made, now)}, {ExpiryText(token, now), colour}});
  }
  if (settings.json) {
    std::cout << JsonLine(data) << "\n";
  } else {
    table.Print(std::cout, TerminalWidth(), ColoursWanted());
  }
  return ExitStatus::kOk;
}

[[noreturn]] void ThrowUnknown(const std::vector<Token>& tokens, const std::string& name) {
  std::vector<std::string> names;
  names.reserve(tokens.size());
  for (const Token& token : tokens) names.push_back(token.name);
  const std::string advice = names.empty() ? "there is none" : "there is " + Alternatives(names);
  throw Failure(ExitStatus::kFailed, "no token is called \"" + Printable(name) + "\"; " + advice);
}

ExitStatus Withdraw(const Settings&, const TokenOptions& options) {
  ConfigDirectory directory(Directory());
  directory.Lock();
  std::vector<Token> tokens = ReadTokens();
  const auto found = Find(tokens, options.name);
  if (found == tokens.end()) ThrowUnknown(tokens, options.name);
  tokens.erase(found);
  WriteTokens(directory, tokens);
  return ExitStatus::kOk;
}

std::string RefuseName(const std::string& name) {
  if (IsTokenName(name)) return "";
  return "must be 1 to 64 letters, digits, dots, '_' and '-'";
}

// ---- Declarations -------------------------------------------------------------------------------

using Action = ExitStatus (*)(const Settings&, const TokenOptions&);

Command AddAction(Command& tokens, Program& program, const char* name, const char* help,
                  Action action, const std::shared_ptr<TokenOptions>& options) {
  Command command = tokens.AddCommand(name, help);
  command.SetAction(program, [=, &program] {
    RequireThisHost(program.settings, "token", "the configuration");
    return action(program.settings, *options);
  });
  return command;
}

}  // namespace

void AddTokenCommand(Command& app, Program& program) {
  auto options = std::make_shared<TokenOptions>();
  Command tokens = app.AddCommand("token",
                                  "Make, list and withdraw the tokens of machines that "
                                  "read from zevweb");
  tokens.RequireCommand();
  Command create =
      AddAction(tokens, program, "create", "Make a token, and show it once", Create, options);
  create.AddOption("NAME", options->name, "What the token is called").Required().Verify(RefuseName);
  create.AddOption("--days", options->days, "How long it is valid; for ever if not given")
      .InRange(size_t{1}, kMostDays);
  AddAction(tokens, program, "list", "Show the tokens' names and times", List, options);
  Command withdraw =
      AddAction(tokens, program, "withdraw", "Make a token invalid at once", Withdraw, options);
  withdraw.AddOption("NAME", options->name, "The token").Required();
}

}  // namespace zevctl
