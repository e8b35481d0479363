// Escapes: what is typed at a console, cut at every place, and what it means to the client.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

#include "escape.h"

namespace zevctl {
namespace {

using ::testing::EndsWith;
using ::testing::HasSubstr;

// What typing leads to: keys as they are, actions as words between angle brackets.
std::string Shown(EscapeAction action) {
  switch (action) {
    case EscapeAction::kNone:
      return "";
    case EscapeAction::kLeave:
      return "<leave>";
    case EscapeAction::kBreak:
      return "<break>";
    case EscapeAction::kWho:
      return "<who>";
    case EscapeAction::kMode:
      return "<mode>";
    case EscapeAction::kTakeOver:
      return "<take over>";
    case EscapeAction::kRecent:
      return "<recent>";
    case EscapeAction::kHelp:
      return "<help>";
    case EscapeAction::kSuspend:
      return "<suspend>";
  }
  return "<unknown>";
}

std::string Typed(EscapeReader& reader, std::string_view typed) {
  std::string shown;
  while (!typed.empty()) {
    const EscapeStep step = reader.Next(typed);
    shown += step.keys + Shown(step.action);
  }
  return shown;
}

std::string Typed(std::string_view typed, std::optional<char> escape = '~') {
  EscapeReader reader(escape);
  return Typed(reader, typed);
}

struct Case {
  std::string_view typed;
  std::string_view shown;
};

constexpr Case kCases[] = {
    {"", ""},
    {"hello\r", "hello\r"},
    // At the start
    {"~.", "<leave>"},
    {"~b", "<break>"},
    {"~w", "<who>"},
    {"~m", "<mode>"},
    {"~l", "<take over>"},
    {"~r", "<recent>"},
    {"~?", "<help>"},
    {"~\x1A", "<suspend>"},
    {"~~", "~"},
    {"~", ""},
    // At the start of a later line
    {"ls\r~.", "ls\r<leave>"},
    {"ls\n~.", "ls\n<leave>"},
    {"ls\r\n~.", "ls\r\n<leave>"},
    {"\r~.", "\r<leave>"},
    // Elsewhere
    {"a~.", "a~."},
    {" ~.", " ~."},
    {"~~.", "~."},
    {"~~~.", "~~."},
    {"ls\rx~.", "ls\rx~."},
    // Other keys
    {"~x", "~x"},
    {"~B", "~B"},
    {"~x~.", "~x~."},
    {"~\r", "~\r"},
    {"~\r~.", "~\r<leave>"},
    {"~/bin/ls\r", "~/bin/ls\r"},
    // One after the other
    {"~b~.", "<break><leave>"},
    {"~?~b~b~.", "<help><break><break><leave>"},
    {"~bx~.", "<break>x~."},
    {"~~\r~~.\r~.", "~\r~.\r<leave>"},
    // What follows is still read
    {"~.rest", "<leave>rest"},
};

TEST(EscapeReader, FindsEscapesAtTheStartOfALine) {
  for (const Case& tried : kCases) EXPECT_EQ(Typed(tried.typed), tried.shown) << tried.typed;
}

TEST(EscapeReader, DoesNotCareHowKeysArrive) {
  for (const Case& tried : kCases) {
    for (size_t cut = 0; cut <= tried.typed.size(); ++cut) {
      EscapeReader reader('~');
      const std::string first = Typed(reader, tried.typed.substr(0, cut));
      EXPECT_EQ(first + Typed(reader, tried.typed.substr(cut)), tried.shown)
          << tried.typed << " cut at " << cut;
    }
  }
}

TEST(EscapeReader, TakesAnotherCharacter) {
  EXPECT_EQ(Typed("\x1D.", '\x1D'), "<leave>");
  EXPECT_EQ(Typed("\x1D\x1D", '\x1D'), "\x1D");
  EXPECT_EQ(Typed("\x1Dx", '\x1D'), "\x1Dx");
  EXPECT_EQ(Typed("~.", '\x1D'), "~.");
}

TEST(EscapeReader, PassesEverythingWithoutAnEscapeCharacter) {
  EXPECT_EQ(Typed("~.\r~b\r~?\r", std::nullopt), "~.\r~b\r~?\r");
  EXPECT_EQ(Typed(std::string_view("\0\xFF", 2), std::nullopt), std::string("\0\xFF", 2));
}

// One client inside the other: each level takes one escape character away.
TEST(EscapeReader, CanBeNested) {
  EscapeReader outer('~');
  EscapeReader inner('~');
  const std::string first = Typed(outer, "ls\r~~.");
  EXPECT_EQ(first, "ls\r~.");
  EXPECT_EQ(Typed(inner, first), "ls\r<leave>");
}

TEST(Escape, IsOneCharacterOrNone) {
  EXPECT_EQ(ToEscape("~"), '~');
  EXPECT_EQ(ToEscape("^"), '^');
  EXPECT_EQ(ToEscape("^]"), '\x1D');
  EXPECT_EQ(ToEscape("^A"), '\x01');
  EXPECT_EQ(ToEscape("^a"), '\x01');
  EXPECT_EQ(ToEscape("^_"), '\x1F');
  EXPECT_EQ(ToEscape("none"), std::nullopt);
  for (const char* text : {"~", "^", "^]", "^A", "none", "%"}) EXPECT_EQ(CheckEscape(text), "");
}

TEST(Escape, RefusesWhatIsNotAKey) {
  const std::string complaint = "must be one printable character, ^ and a letter, or \"none\"";
  for (const char* text :
       {"", " ", "~~", "None", "^1", "^@", "^`", "^~", "\x1D", "\xFF", "\xC3\xA9"}) {
    EXPECT_EQ(CheckEscape(text), complaint) << text;
  }
}

TEST(Escape, RefusesKeysThatMeanSomethingElse) {
  for (const char* text : {".", "b", "w", "m", "l", "r", "?", "^Z", "^z", "^M", "^J"}) {
    EXPECT_EQ(CheckEscape(text), "has another meaning already") << text;
  }
}

TEST(Escape, HasAName) {
  EXPECT_EQ(KeyName('~'), "~");
  EXPECT_EQ(KeyName('\x1D'), "^]");
  EXPECT_EQ(KeyName('\x1A'), "^Z");
}

TEST(Escape, HelpNamesAllEscapes) {
  EXPECT_EQ(EscapeHelp('~', false),
            "At the start of a line:\n"
            "  ~.    leave the console\n"
            "  ~b    send a break\n"
            "  ~w    tell who is here\n"
            "  ~m    change the mode\n"
            "  ~l    take the console over from others\n"
            "  ~r    show recent output again\n"
            "  ~^Z   suspend zevctl\n"
            "  ~?    show this help\n"
            "  ~~    send ~ itself");
  EXPECT_THAT(EscapeHelp('\x1D', false), HasSubstr("\n  ^]^Z  suspend zevctl\n"));
  EXPECT_THAT(EscapeHelp('\x1D', false), EndsWith("\n  ^]^]  send ^] itself"));
}

// A client of ssh takes the first ~ of a line for its own escape, and passes on the second.
TEST(Escape, IsTypedTwiceOverSsh) {
  EXPECT_EQ(EscapeName('~', true), "~~");
  EXPECT_EQ(EscapeName('~', false), "~");
  EXPECT_EQ(EscapeName('\x1D', true), "^]");
  EXPECT_THAT(EscapeHelp('~', true), HasSubstr("\n  ~~.   leave the console\n"));
  EXPECT_THAT(EscapeHelp('~', true), EndsWith("\n  ~~~~  send ~ itself"));
}

}  // namespace
}  // namespace zevctl
