#include "escape.h"

#include <algorithm>
#include <array>

namespace zevctl {

namespace {

constexpr char kSuspendKey = '\x1A';  // ^Z
constexpr char kControlBit = 0x40;    // between a control character and its letter

struct Row {
  char key;
  EscapeAction action;
  std::string_view help;
};

constexpr std::array kRows = {
    Row{'.', EscapeAction::kLeave, "leave the console"},
    Row{'b', EscapeAction::kBreak, "send a break"},
    Row{'w', EscapeAction::kWho, "tell who is here"},
    Row{'m', EscapeAction::kMode, "change the mode"},
    Row{'l', EscapeAction::kTakeOver, "take the console over from others"},
    Row{'r', EscapeAction::kRecent, "show recent output again"},
    Row{kSuspendKey, EscapeAction::kSuspend, "suspend zevctl"},
    Row{'?', EscapeAction::kHelp, "show this help"},
};

EscapeAction ActionOf(char key) {
  const auto* row =
      std::find_if(kRows.begin(), kRows.end(), [&](const Row& known) { return known.key == key; });
  return row == kRows.end() ? EscapeAction::kNone : row->action;
}

bool EndsLine(char key) {
  return key == '\r' || key == '\n';
}

bool IsPrintable(char key) {
  return key > ' ' && key <= '~';
}

// "^A" to "^_", in either case.
std::optional<char> ControlCharacter(const std::string& text) {
  if (text.size() != 2 || text[0] != '^') return {};
  const char letter =
      text[1] >= 'a' && text[1] <= 'z' ? static_cast<char>(text[1] - 'a' + 'A') : text[1];
  if (letter < 'A' || letter > '_') return {};
  return static_cast<char>(letter - kControlBit);
}

std::string HelpLine(std::string combination, std::string_view help) {
  constexpr size_t kWidth = 6;
  combination.resize(std::max(combination.size() + 1, kWidth), ' ');
  return "\n  " + combination + std::string(help);
}

}  // namespace

EscapeStep EscapeReader::Next(std::string_view& typed) {
  EscapeStep step;
  while (!typed.empty() && step.action == EscapeAction::kNone) {
    const char key = typed.front();
    typed.remove_prefix(1);
    if (begun_) {
      step.action = Finish(key, step.keys);
    } else if (at_line_start_ && key == escape_) {
      begun_ = true;
    } else {
      Pass(key, step.keys);
    }
  }
  return step;
}

EscapeAction EscapeReader::Finish(char key, std::string& keys) {
  begun_ = false;
  const EscapeAction action = ActionOf(key);
  if (action != EscapeAction::kNone) return action;
  if (key != escape_) keys.push_back(*escape_);
  Pass(key, keys);
  return EscapeAction::kNone;
}

void EscapeReader::Pass(char key, std::string& keys) {
  keys.push_back(key);
  at_line_start_ = EndsLine(key);
}

std::string CheckEscape(const std::string& text) {
  if (text == "none") return "";
  const auto key = ToEscape(text);
  if (!key) return "must be one printable character, ^ and a letter, or \"none\"";
  if (EndsLine(*key) || ActionOf(*key) != EscapeAction::kNone) return "has another meaning already";
  return "";
}

std::optional<char> ToEscape(const std::string& text) {
  if (text.size() == 1 && IsPrintable(text[0])) return text[0];
  return ControlCharacter(text);
}

std::string KeyName(char key) {
  if (IsPrintable(key)) return {key};
  return {'^', static_cast<char>(key + kControlBit)};
}

std::string EscapeName(char escape, bool over_ssh) {
  constexpr char kEscapeOfSsh = '~';
  const std::string name = KeyName(escape);
  return over_ssh && escape == kEscapeOfSsh ? name + name : name;
}

std::string EscapeHelp(char escape, bool over_ssh) {
  const std::string name = EscapeName(escape, over_ssh);
  std::string text = "At the start of a line:";
  for (const Row& row : kRows) text += HelpLine(name + KeyName(row.key), row.help);
  return text + HelpLine(name + name, "send " + KeyName(escape) + " itself");
}

}  // namespace zevctl
