// A screen in memory, and the sequences that draw it elsewhere.
#include <gmock/gmock.h>

#include <random>
#include <string>

#include "drawing_filter.h"
#include "replay_view.h"
#include "virtual_screen.h"

namespace zevctl {
namespace {

using testing::HasSubstr;
using testing::Not;

TEST(VirtualScreen, ShowsTextWhereItWasWritten) {
  VirtualScreen screen({5, 20});
  screen.Put("one\r\n\x1b[4;3Htwo");
  EXPECT_EQ(screen.Row(0), "one");
  EXPECT_EQ(screen.Row(1), "");
  EXPECT_EQ(screen.Row(3), "  two");
  EXPECT_EQ(screen.cursor_row(), 3);
  EXPECT_EQ(screen.cursor_column(), 5);
}

TEST(VirtualScreen, DrawsColoursAndSetsThemBack) {
  VirtualScreen screen({2, 20});
  screen.Put("a\x1b[1;31mb\x1b[0m \x1b[48;5;200m \x1b[0m");
  EXPECT_EQ(screen.Row(0), "a\x1b[0;1;31mb\x1b[0m \x1b[0;48;5;200m \x1b[0m");
}

TEST(VirtualScreen, DrawsWideAndCombinedCharacters) {
  VirtualScreen screen({2, 20});
  screen.Put(
      "\xE6\x97\xA5\xE6\x9C\xAC"
      "e\xCC\x81!");
  EXPECT_EQ(screen.Row(0),
            "\xE6\x97\xA5\xE6\x9C\xAC"
            "e\xCC\x81!");
}

TEST(VirtualScreen, KnowsTheAlternateScreenAndTheCursor) {
  VirtualScreen screen({3, 20});
  screen.Put("shell$ \x1b[?1049h\x1b[?25l\x1b[Heditor");
  EXPECT_EQ(screen.Row(0), "editor");
  EXPECT_FALSE(screen.cursor_is_visible());
  screen.Put("\x1b[?25h\x1b[?1049l");
  EXPECT_EQ(screen.Row(0), "shell$ ");
  EXPECT_TRUE(screen.cursor_is_visible());
}

TEST(VirtualScreen, AResetLeavesNothing) {
  VirtualScreen screen({3, 20});
  screen.Put("\x1b[31mred\x1b[?25l\x1b[2;3r");
  screen.Reset();
  screen.Put("new");
  EXPECT_EQ(screen.Row(0), "new");
  EXPECT_TRUE(screen.cursor_is_visible());
}

TEST(VirtualScreen, RestoresACursorThatWasNeverSaved) {
  VirtualScreen screen({3, 20});
  for (const std::string restore : {"\x1b\x38", "\x1b[?1048l", "\x1b[?1049l"}) {
    screen.Put("\x1b[31mred\x1b\x37\x1b[?25l");
    screen.Reset();
    screen.Put("\x1b[2;5H" + restore + "text");
    EXPECT_EQ(screen.Row(0), "text") << restore;
    EXPECT_TRUE(screen.cursor_is_visible()) << restore;
  }
}

TEST(VirtualScreen, ItsPictureDrawsTheSame) {
  VirtualScreen screen({4, 20});
  screen.Put("\x1b[1mone\x1b[0m\r\n\x1b[3;5H\x1b[44mtwo");
  VirtualScreen other({4, 20});
  other.Put("what was there");
  other.Put(screen.Picture());
  for (int row = 0; row < 4; ++row) EXPECT_EQ(other.Row(row), screen.Row(row)) << row;
  EXPECT_EQ(other.cursor_row(), screen.cursor_row());
  EXPECT_EQ(other.cursor_column(), screen.cursor_column());
}

TEST(VirtualScreen, ItsPictureLetsAnotherGoOn) {
  for (const std::string before :
       {"\x1b[1;4;31;45mred", "\x1b[38;5;200;7mx", "\x1b[38;2;1;2;3;3mx", "\x1b[2;3r\x1b[3;5H",
        "shell$ \x1b[?1049h\x1b[2;4Heditor", "\x1b[?25l"}) {
    VirtualScreen screen({4, 20});
    screen.Put(before);
    VirtualScreen other({4, 20});
    other.Put(screen.Picture());
    EXPECT_EQ(other.Picture(), screen.Picture()) << before;
    EXPECT_EQ(other.cursor_is_visible(), screen.cursor_is_visible()) << before;
    for (VirtualScreen* const each : {&screen, &other}) each->Put("more\n\n\nend");
    EXPECT_EQ(other.Picture(), screen.Picture()) << before;
  }
}

TEST(VirtualScreen, RepeatsWhatHasNoWidth) {
  DrawingFilter filter;
  VirtualScreen screen({1, 2});
  screen.Put(filter.Take("\x1b[5b\xCC\x81\x1b[5b\n\xCC\x81\x1b[5bx\x1b[9b"));
  EXPECT_THAT(screen.Row(0), HasSubstr("x"));
}

// Whatever comes, rows hold nothing but text and the sequences of colours.
TEST(VirtualScreen, LivesThroughNoise) {
  std::mt19937 random(20);
  constexpr std::string_view kPieces[] = {
      "\x1b[",    "\x1b", "?",      ";", "999999999", "h",    "l", "r",  "@",     "P",
      "L",        "M",    "S",      "T", "H",         "b",    "X", "\n", "x",     "\xE6\x97\xA5",
      "\xCC\x81", "\t",   "\x1b#8", "J", "K",         "1049", "7", "m",  "38;2;", "\x1b(0",
      "D",        "c",    "I",      "Z"};
  for (const ScreenSize size : {ScreenSize{24, 80}, ScreenSize{1, 2}, ScreenSize{0, 0}}) {
    VirtualScreen screen(size);
    DrawingFilter filter;
    for (int i = 0; i < 20'000; ++i) {
      screen.Put(filter.Take(kPieces[random() % std::size(kPieces)]));
    }
    DrawingFilter again;
    for (int row = 0; row < screen.size().rows; ++row) {
      EXPECT_EQ(again.Take(screen.Row(row)), screen.Row(row));
    }
  }
}

TEST(ReplayView, DrawsOnlyWhatIsOther) {
  ReplayView view({4, 20});
  Frame frame;
  frame.rows = {"one", "two", "three"};
  frame.status = "status";
  EXPECT_THAT(view.Draw(frame), HasSubstr("two"));
  EXPECT_EQ(view.Draw(frame), "");
  frame.rows[1] = "2";
  EXPECT_THAT(view.Draw(frame),
              testing::AllOf(HasSubstr("\x1b[2;1H\x1b[2K2"), Not(HasSubstr("one"))));
  frame.cursor_column = 3;
  EXPECT_THAT(view.Draw(frame), testing::AllOf(HasSubstr("\x1b[1;4H"), Not(HasSubstr("2K"))));
  view.Forget({4, 20});
  EXPECT_THAT(view.Draw(frame), HasSubstr("one"));
}

TEST(ReplayView, TheStatusFillsTheLastLine) {
  ReplayView view({2, 6});
  Frame frame;
  frame.status = "ab";
  EXPECT_THAT(view.Draw(frame), HasSubstr("\x1b[2;1H\x1b[2K\x1b[7mab    \x1b[0m"));
  frame.status = "long status";
  EXPECT_THAT(view.Draw(frame), HasSubstr("\x1b[7mlong ~\x1b[0m"));
}

}  // namespace
}  // namespace zevctl
