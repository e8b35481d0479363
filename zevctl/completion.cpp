// Shell completion. The functions for the shells do little: they pass the words of the line to
// "zevctl complete", which answers from the declared commands and options and, for console names,
// from the running daemon. It never asks for a password; where one is needed, it offers no names.
//
// What is offered ends up on a command line. So no name is offered that a shell would read as more
// than a word, or zevctl as an option. The functions take what they are offered as text.
#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstdlib>
#include <iostream>
#include <map>
#include <memory>
#include <optional>
#include <set>

#include "acts.h"
#include "arguments.h"
#include "command_port.h"
#include "config_file.h"
#include "console_words.h"
#include "mistake.h"
#include "name_match.h"
#include "output.h"
#include "program.h"
#include "selection.h"
#include "token_file.h"

namespace zevctl {

namespace {

using Words = std::vector<std::string>;

constexpr char kBash[] =
    R"(# bash completion for zevctl; load it with: source <(zevctl completion bash)
_zevctl() {
    local line=${COMP_LINE:0:COMP_POINT}
    local words answers answer
    IFS=$' \t\n' read -r -a words <<< "$line"
    [[ $line == *[[:space:]] ]] && words+=("")
    mapfile -t answers < <(zevctl complete "${words[@]:1}" 2>/dev/null)
    COMPREPLY=()
    if [[ ${answers[0]-} == "<file>" ]]; then
        compopt -o default
        return 0
    fi
    for answer in "${answers[@]}"; do
        printf -v answer %q "$answer"
        COMPREPLY+=("$answer")
    done
    return 0
}
complete -F _zevctl zevctl
)";

constexpr char kZsh[] = R"(#compdef zevctl
# zsh completion for zevctl; load it with: source <(zevctl completion zsh)
_zevctl() {
    local -a answers
    answers=("${(@f)$(zevctl complete "${(@)words[2,CURRENT]}" 2>/dev/null)}")
    if [[ ${answers[1]} == "<file>" ]]; then
        _files
    elif [[ -n ${answers[1]} ]]; then
        compadd -a answers
    fi
}
if [[ $funcstack[1] == _zevctl ]]; then
    _zevctl "$@"
else
    compdef _zevctl zevctl
fi
)";

constexpr char kFile[] = "<file>";  // asks the shell to offer names of files

// Commands whose first argument is the name of a console, and those all of whose arguments are.
const std::set<std::string> kOneName = {"attach", "msg", "replay"};
const std::set<std::string> kNames = {"audit",  "clear",     "disable",  "enable", "force",
                                      "health", "history",   "holder",   "list",   "log",
                                      "ports",  "reconnect", "rehearse", "who"};

// Those of them whose first argument is a file.
const std::set<std::string> kFileThenNames = {"rehearse"};

// Commands of "config" whose argument is a file.
const std::set<std::string> kFileNames = {"check", "import"};

// The values that options can have, as far as they can be known.
const std::map<std::string, Words> kValues = {
    {"--mode", {"ro", "sh", "ex", "er"}},
    {"--state", StateChoices()},
    {"--what", WordsOfActs()},
    {"--cookie-file", {kFile}},
    {"--events-dir", {kFile}},
    {"--export", {"asciicast", "text"}},
    {"--format", {"toml", "conf"}},
    {"--journal-dir", {kFile}},
    {"--log-dir", {kFile}},
    {"--output", {kFile}},
    {"--socket", {kFile}},
};

std::optional<Command> CommandNamed(const Command& app, const std::string& name) {
  for (const Command& command : app.Commands()) {
    if (command.name() == name) return command;
  }
  return {};
}

bool HasCommands(const Command& app) {
  return !app.Commands().empty();
}

/// The words before the one that is being completed, parsed as far as completion needs it.
class Line {
 public:
  Line(const Command& app, const Words& words) : app_(app) {
    TakeVariable("ZEVCTL_HOST", "--host");
    TakeVariable("ZEVCTL_PORT", "--port");
    for (const std::string& word : words) Take(word);
  }

  /// The command that was named, if any.
  const std::optional<Command>& command() const { return command_; }
  size_t arguments() const { return arguments_; }

  /// The command is one of another command's, such as "journal list".
  bool is_nested() const { return is_nested_; }

  /// The option whose value is the word that is being completed; empty when there is none.
  const std::string& awaited() const { return awaited_; }

  const Settings& settings() const { return settings_; }

 private:
  void TakeVariable(const char* variable, const char* option) {
    const char* value = getenv(variable);
    if (value != nullptr) TakeValue(option, value);
  }

  void Take(const std::string& word) {
    if (!awaited_.empty()) {
      TakeValue(awaited_, word);
      awaited_.clear();
    } else if (word.starts_with("-")) {
      TakeOption(word);
    } else if (!command_ || HasCommands(*command_)) {
      is_nested_ = command_.has_value();
      command_ = CommandNamed(command_.value_or(app_), word);
    } else {
      ++arguments_;
    }
  }

  void TakeOption(const std::string& word) {
    const size_t equals = word.find('=');
    const std::string name = word.substr(0, equals);
    if (equals != std::string::npos) {
      TakeValue(name, word.substr(equals + 1));
    } else if (WantsValue(name)) {
      awaited_ = name;
    }
  }

  bool WantsValue(const std::string& name) const {
    if (const auto takes = app_.TakesValue(name)) return *takes;
    return command_ && command_->TakesValue(name).value_or(false);
  }

  void TakeValue(const std::string& name, const std::string& value) {
    if (name == "--host") settings_.host = value;
    if (name == "--port")
      std::from_chars(value.data(), value.data() + value.size(), settings_.port);
    if (name == "--cookie-file") settings_.cookie_file = value;
  }

  const Command app_;
  std::optional<Command> command_;
  std::string awaited_;
  size_t arguments_ = 0;
  bool is_nested_ = false;
  Settings settings_;
};

// Letters of other scripts are harmless where Printable() leaves them alone.
bool IsPlain(char byte) {
  constexpr std::string_view kMarks = "_-.:@%+,/=";
  return isalnum(static_cast<unsigned char>(byte)) != 0 || (byte & 0x80) != 0 ||
         kMarks.find(byte) != std::string_view::npos;
}

// A name with a blank, a quote, a `$`, a line end or the like can only be meant to do harm.
bool IsWord(const std::string& name) {
  return !name.empty() && name[0] != '-' && Printable(name) == name &&
         std::all_of(name.begin(), name.end(), IsPlain);
}

// A daemon that is away, or wants a login, offers no names.
Words ConsoleNames(const Settings& settings) {
  try {
    Credentials nobody = Credentials::Unasked();
    Words names = NamesOf(CommandPort(settings, nobody).Consoles());
    std::erase_if(names, [](const std::string& name) { return !IsWord(name); });
    return names;
  } catch (const Failure&) {
    return {};
  }
}

// The names of the tokens that can be withdrawn, for whoever may read them.
Words TokenNames() {
  const ReadFile file = ReadSafely(kStationRoot + "/config", kTokenFile);
  size_t bad_line = 0;
  Words names;
  for (const Token& token : ParseTokens(file.text, &bad_line)) names.push_back(token.name);
  return names;
}

// True when the word that is being completed can only be the name of a console.
bool AwaitsName(const Line& line) {
  if (!line.command() || line.is_nested() || !line.awaited().empty()) return false;
  const std::string name = line.command()->name();
  if (kFileThenNames.contains(name)) return line.arguments() > 0;
  return kOneName.contains(name) ? line.arguments() == 0 : kNames.contains(name);
}

Words Arguments(const Line& line) {
  const std::string name = line.command()->name();
  if (HasCommands(*line.command())) return CommandNames(*line.command());
  if (name == "completion") return {"bash", "zsh"};
  if (name == "withdraw") return line.arguments() == 0 ? TokenNames() : Words();
  if (kFileNames.contains(name)) return line.arguments() == 0 ? Words{kFile} : Words();
  if (kFileThenNames.contains(name) && line.arguments() == 0) return {kFile};
  return AwaitsName(line) ? ConsoleNames(line.settings()) : Words();
}

Words Candidates(const Command& app, const Line& line, const std::string& current) {
  if (!line.awaited().empty()) {
    const auto values = kValues.find(line.awaited());
    return values == kValues.end() ? Words() : values->second;
  }
  if (current.starts_with("-")) return OptionNames(app, line.command());
  return line.command() ? Arguments(line) : CommandNames(app);
}

// Several states or acts may stand in one word.
std::string PartThatIsDone(const Line& line, const std::string& current) {
  if (line.awaited() != "--state" && line.awaited() != "--what") return "";
  return current.substr(0, current.rfind(',') + 1);
}

// A shell takes what is offered for more of the word, letter by letter. So a name that was begun in
// another case, or with the '-' that the daemon has changed to '_', goes on as it was begun; the
// commands take it.
std::string Continued(const std::string& begun, const std::string& candidate) {
  return candidate.starts_with(begun) ? candidate : begun + candidate.substr(begun.size());
}

}  // namespace

ExitStatus Complete(const Command& app, std::vector<std::string> words) {
  const std::string current = words.empty() ? "" : words.back();
  if (!words.empty()) words.pop_back();
  const Line line(app, words);
  const std::string done = PartThatIsDone(line, current);
  const std::string begun = current.substr(done.size());
  for (const std::string& candidate : Candidates(app, line, current)) {
    if (candidate == kFile) {
      std::cout << candidate << "\n";
    } else if (candidate.starts_with(begun) ||
               (AwaitsName(line) && NameBeginsWith(candidate, begun))) {
      std::cout << done << Continued(begun, candidate) << "\n";
    }
  }
  return ExitStatus::kOk;
}

void AddCompletionCommand(Command& app, Program& program) {
  auto shell = std::make_shared<std::string>();
  Command command = app.AddCommand("completion", "Print the completion code for a shell");
  command.AddOption("SHELL", *shell, "bash or zsh").Required().OneOf({"bash", "zsh"});
  command.SetAction(program, [shell] {
    std::cout << (*shell == "bash" ? kBash : kZsh);
    return ExitStatus::kOk;
  });
}

}  // namespace zevctl
