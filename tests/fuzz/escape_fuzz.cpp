// Keys of a user of the operators' client: the escapes among them, however they arrive.
//
// An input is a line with the sizes of the pieces, a line with the escape character's text, and the
// keys.
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "escape.h"
#include "fuzz.h"

using namespace zevd;

namespace {

using zevctl::EscapeAction;

/// What the keys come to: the console's keys and, among them, actions as one letter in brackets.
struct Outcome {
  std::string text;

  void Add(const zevctl::EscapeStep& step) {
    text += step.keys;
    if (step.action != EscapeAction::kNone) Add(static_cast<int>(step.action));
  }
  void Add(int action) { text += "[" + std::to_string(action) + "]"; }
};

int ActionOf(char key) {
  switch (key) {
    case '.':
      return static_cast<int>(EscapeAction::kLeave);
    case 'b':
      return static_cast<int>(EscapeAction::kBreak);
    case '?':
      return static_cast<int>(EscapeAction::kHelp);
    case 26:
      return static_cast<int>(EscapeAction::kSuspend);
    default:
      return static_cast<int>(EscapeAction::kNone);
  }
}

// Key by key: an escape is the character at the start of a line and the key after it. The
// character typed twice is typed once; before a key without a meaning it is typed like any other.
std::string Expect(std::string_view keys, std::optional<char> escape) {
  Outcome outcome;
  bool at_start = true;
  for (size_t i = 0; i < keys.size(); ++i) {
    if (escape && at_start && keys[i] == *escape) {
      if (++i == keys.size()) break;
      if (ActionOf(keys[i]) != 0) {
        outcome.Add(ActionOf(keys[i]));
        continue;
      }
      if (keys[i] != *escape) outcome.text += *escape;
    }
    outcome.text += keys[i];
    at_start = keys[i] == '\r' || keys[i] == '\n';
  }
  return outcome.text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Input input(data, size);
  const std::string_view sizes = input.TakeLine();
  const std::string name(input.TakeLine());
  if (!zevctl::CheckEscape(name).empty()) return 0;
  const std::optional<char> escape = zevctl::ToEscape(name);
  if (escape) REQUIRE(zevctl::ToEscape(zevctl::KeyName(*escape)) == escape);
  const std::string_view keys = input.TakeRest();

  zevctl::EscapeReader reader(escape);
  Outcome outcome;
  for (std::string_view piece : fuzz::Cut(keys, sizes)) {
    while (!piece.empty()) outcome.Add(reader.Next(piece));
  }
  REQUIRE_EQUAL(outcome.text, Expect(keys, escape));
  return 0;
}
