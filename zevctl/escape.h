// Escapes: keys typed at the start of a line that are meant for the client and not for the console.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace zevctl {

enum class EscapeAction { kNone, kLeave, kBreak, kWho, kMode, kTakeOver, kRecent, kHelp, kSuspend };

struct EscapeStep {
  std::string keys;  ///< for the console, typed before the action
  EscapeAction action = EscapeAction::kNone;
};

/// Tells escapes from other keys. A line starts at the beginning, after a carriage return or a line
/// feed, and after an escape, so that one escape can follow another.
class EscapeReader {
 public:
  /// Without an escape character, everything is for the console.
  explicit EscapeReader(std::optional<char> escape) : escape_(escape) {}

  /// Takes keys off the front, up to the end of the first escape. An escape character that may
  /// begin an escape is kept until the next key is known.
  EscapeStep Next(std::string_view& typed);

 private:
  EscapeAction Finish(char key, std::string& keys);
  void Pass(char key, std::string& keys);

  std::optional<char> escape_;
  bool at_line_start_ = true;
  bool begun_ = false;  // the escape character was typed at the start of a line
};

/// What is wrong with the text as an escape character: one printable character, "^" and a letter
/// for a control character, or "none". Empty when nothing is.
std::string CheckEscape(const std::string& text);

/// The character that such a text stands for; nothing for "none".
std::optional<char> ToEscape(const std::string& text);

/// The key as people write it: itself, or "^" and a letter.
std::string KeyName(char key);

/// What the person types for the escape character: it alone, or twice where a client of ssh takes
/// the first one for itself.
std::string EscapeName(char escape, bool over_ssh);

/// The help: one escape in each line.
std::string EscapeHelp(char escape, bool over_ssh);

}  // namespace zevctl
