// What of a console's bytes reaches a screen, a file, or a line of text.
#include <gmock/gmock.h>

#include <string>
#include <utility>
#include <vector>

#include "drawing_filter.h"
#include "plain_lines.h"
#include "telnet_strip.h"
#include "utf8_joiner.h"

namespace zevctl {
namespace {

using testing::ElementsAre;

constexpr char kUnknown[] = "\xEF\xBF\xBD";

std::string Filtered(const std::string& bytes) {
  DrawingFilter filter;
  return filter.Take(bytes);
}

// The same bytes, cut at every place there is.
std::string FilteredBytewise(const std::string& bytes) {
  DrawingFilter filter;
  std::string text;
  for (const char byte : bytes) text += filter.Take({&byte, 1});
  return text;
}

std::vector<std::string> Lines(const std::string& bytes) {
  DrawingFilter filter;
  PlainLines plain;
  std::vector<std::string> lines;
  filter.Take(bytes, [&](std::string_view piece) {
    plain.Take(piece, [&](const std::string& line) { lines.push_back(line); });
  });
  lines.push_back(plain.Line());
  return lines;
}

TEST(Utf8Joiner, JoinsACharacterThatIsCutAnywhere) {
  for (const std::string whole : {"\xC3\xA4", "\xE2\x82\xAC", "\xED\x9F\xBF", "\xF0\x9F\x98\x80",
                                  "\xF4\x8F\xBF\xBF", "\xE0\xA0\x80", "\xF0\x90\x80\x80"}) {
    for (size_t cut = 1; cut < whole.size(); ++cut) {
      Utf8Joiner joiner;
      EXPECT_EQ(joiner.Take(whole.substr(0, cut)), "") << cut;
      EXPECT_EQ(joiner.Take(whole.substr(cut)), whole) << cut;
      EXPECT_EQ(joiner.Finish(), "");
    }
  }
}

TEST(Utf8Joiner, HasASignForEachByteThatIsPartOfNothing) {
  Utf8Joiner joiner;
  EXPECT_EQ(joiner.Take("a\xFFz\x80"), "a" + std::string(kUnknown) + "z" + kUnknown);
  EXPECT_EQ(joiner.Take("\xC0\xAF"), std::string(kUnknown) + kUnknown);  // overlong
  EXPECT_EQ(joiner.Take("\xED\xA0"), std::string(kUnknown) + kUnknown);  // half of a pair
  EXPECT_EQ(joiner.Take("\xF4\x90"), std::string(kUnknown) + kUnknown);  // beyond the last
  EXPECT_EQ(joiner.Take("\xE2\x82"
                        "b"),
            std::string(kUnknown) + kUnknown + "b");
}

TEST(Utf8Joiner, SaysAtTheEndThatARestNeverCame) {
  Utf8Joiner joiner;
  EXPECT_EQ(joiner.Take("a\xE2\x82"), "a");
  EXPECT_EQ(joiner.Finish(), kUnknown);
  EXPECT_EQ(joiner.Finish(), "");
}

TEST(DrawingFilter, PassesWhatDraws) {
  for (const std::string text :
       {"plain \xC3\xA4 text\r\n", "\x1b[1;31mred\x1b[0m", "\x1b[2J\x1b[H", "\x1b[?1049h",
        "\x1b[?25l", "\x1b(0qqq\x1b(B", "\0337\x1b[5;5Hx\0338", "\x1b[1;20r", "\x1b[4h",
        "\x1b[38;2;1;2;3mx", "\x1b[38:5:9mx", "\x1b[!p", "\033c", "\x1b#8", "a\b\tb\v\f\x0E\x0F",
        "\x1b[?2J", "\x1b[3L"}) {
    EXPECT_EQ(Filtered(text), text);
    EXPECT_EQ(FilteredBytewise(text), text);
  }
}

TEST(DrawingFilter, LeavesOutWhatATerminalWouldObey) {
  for (const std::string text : {"\x1b[c",
                                 "\x1b[>c",
                                 "\x1b[=c",
                                 "\x1b[6n",
                                 "\x1b[?6n",
                                 "\x1b[5n",
                                 "\x1b[x",
                                 "\x1b[18t",
                                 "\x1b[21t",
                                 "\x1b[?2026$p",
                                 "\x1bZ",
                                 "\x05",
                                 "\x1b[>q",
                                 "\x1b[?u",
                                 "\x1b[>1u",
                                 "\x1b[>4;2m",
                                 "\x1b]0;title\a",
                                 "\x1b]52;c;cm0gLXJm\a",
                                 "\x1b]11;?\x1b\\",
                                 "\x1bP$qm\x1b\\",
                                 "\x1b_Gi=1;AAAA\x1b\\",
                                 "\x1b^x\x1b\\",
                                 "\x1bXx\x1b\\",
                                 "\x1b[?1000h",
                                 "\x1b[?1002;1006h",
                                 "\x1b[?2004h",
                                 "\x1b[?1h",
                                 "\x1b=",
                                 "\x1b>",
                                 "\x1b[2h",
                                 "\x1b[20h",
                                 "\x1b[i",
                                 "\x1b[?5i",
                                 "\x1b[2 q",
                                 "\x1b%G",
                                 "\x1b[?1004h"}) {
    EXPECT_EQ(Filtered("a" + text + "z"), "az") << text.substr(1);
    EXPECT_EQ(FilteredBytewise("a" + text + "z"), "az") << text.substr(1);
  }
}

TEST(DrawingFilter, KeepsTheHarmlessOnesOfSeveralModes) {
  EXPECT_EQ(Filtered("\x1b[?1049;2004;25h"), "\x1b[?1049;25h");
  EXPECT_EQ(Filtered("\x1b[20;4l"), "\x1b[4l");
}

TEST(DrawingFilter, HasASignForControlCharactersOfEightBits) {
  EXPECT_EQ(Filtered("a\xC2\x9B"
                     "6nz"),
            "a" + std::string(kUnknown) + "6nz");
  EXPECT_EQ(Filtered("a\x9B"
                     "6nz"),
            "a" + std::string(kUnknown) + "6nz");
  EXPECT_EQ(Filtered("a\xE2\x80\xAEz"), "a" + std::string(kUnknown) + "z");  // writes backward
}

TEST(DrawingFilter, AStringThatNeverEndsHidesNoMoreThanItsLine) {
  EXPECT_EQ(Filtered("\x1b]0;title\r\npanic"), "\npanic");
  const std::string flood(100'000, 'x');
  EXPECT_LT(Filtered("\x1bP" + flood).size(), flood.size());
  EXPECT_GT(Filtered("\x1bP" + flood).size(), flood.size() - 5000);
}

TEST(DrawingFilter, ASequenceThatNeverEndsIsBounded) {
  const std::string flood(100'000, '1');
  EXPECT_GT(Filtered("\x1b[" + flood).size(), flood.size() - 200);
}

TEST(DrawingFilter, NumbersAreNoMoreThanAScreenHas) {
  EXPECT_EQ(Filtered("\x1b[2147483648I\x1b[999;1000H\x1b[009C"),
            "\x1b[1000I\x1b[999;1000H\x1b[009C");
}

TEST(DrawingFilter, RepeatsTheLastCharacter) {
  EXPECT_EQ(Filtered("\x1b[3bax\x1b[3b\x1b[b!"), "axxxxx!");
  EXPECT_EQ(Filtered("\xC3\xA4\x1b[1m\x1b[2b"), "\xC3\xA4\x1b[1m\xC3\xA4\xC3\xA4");
  EXPECT_EQ(Filtered("x\x1b[999999999b").size(), 1001U);
}

TEST(DrawingFilter, ASequenceIsCancelledAndBegunAnew) {
  EXPECT_EQ(Filtered("\x1b[3\x18"
                     "1m"),
            "1m");
  EXPECT_EQ(Filtered("\x1b[3\x1b[1m"), "\x1b[1m");
  EXPECT_EQ(Filtered("\x1b[3\xC3\xA4"), "\xC3\xA4");
  EXPECT_EQ(Filtered("\x1b[1\r;5H"), "\r\x1b[1;5H");  // controls act at once
  EXPECT_EQ(Filtered("\x1b]0;t\x1b[1m"), "\x1b[1m");
}

TEST(TelnetStrip, LeavesOutCommandsThatAreCutAnywhere) {
  const std::string bytes =
      "a\xFF\xFB\x01"
      "b\xFF\xFA\x18\x01\xFF\xF0"
      "c\xFF\xF1"
      "d\xFF\xFF"
      "e";
  TelnetStrip whole;
  EXPECT_EQ(whole.Take(bytes),
            "abcd\xFF"
            "e");
  TelnetStrip bytewise;
  std::string text;
  for (const char byte : bytes) text += bytewise.Take({&byte, 1});
  EXPECT_EQ(text,
            "abcd\xFF"
            "e");
}

TEST(TelnetStrip, ANegotiationThatNeverEndsIsBounded) {
  TelnetStrip strip;
  const std::string text = strip.Take("\xFF\xFA" + std::string(10'000, 'x'));
  EXPECT_GT(text.size(), 8000U);
}

TEST(PlainLines, HaveNoSequences) {
  EXPECT_THAT(Lines("\x1b[1mbold\x1b[0m \xC3\xA4\r\nnext"), ElementsAre("bold \xC3\xA4", "next"));
}

TEST(PlainLines, ShowWhatWasTypedOver) {
  EXPECT_THAT(Lines("10%\r20%\r100%\n"), ElementsAre("100%", ""));
  EXPECT_THAT(Lines("helo\b \blo\n"), ElementsAre("hello", ""));
  EXPECT_THAT(Lines("long text\rshort\x1b[K\n"), ElementsAre("short", ""));
  EXPECT_THAT(Lines("ab\x1b[2Dx\n"), ElementsAre("xb", ""));
  EXPECT_THAT(Lines("a\x1b[3Cb\n"), ElementsAre("a   b", ""));
  EXPECT_THAT(Lines("abcdef\x1b[3G\x1b[2P\n"), ElementsAre("abef", ""));
  EXPECT_THAT(Lines("secret\x1b[2K\rnew\n"), ElementsAre("new   ", ""));
}

TEST(PlainLines, EndWhereTheCursorGoesElsewhere) {
  EXPECT_THAT(Lines("one\x1b[5;1Htwo\x1b[2Jthree"), ElementsAre("one", "two", "three"));
}

TEST(PlainLines, AreBounded) {
  const auto lines = Lines(std::string(200'000, 'x') + "\x1b[999999999C");
  ASSERT_EQ(lines.size(), 4U);
  EXPECT_EQ(lines[0].size(), 65536U);
  EXPECT_LT(lines[3].size(), 70'000U);
}

}  // namespace
}  // namespace zevctl
