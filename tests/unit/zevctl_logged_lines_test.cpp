// The lines of a console, cut as the daemon cuts them for its log and its patterns.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "log.h"
#include "log_steps.h"
#include "logged_lines.h"
#include "random_patterns.h"

namespace zevctl {

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class LoggedLinesTest : public ::testing::Test {
 protected:
  std::vector<std::string> Add(std::string_view output) {
    std::vector<std::string> found;
    lines_.Add(output, [&](const std::string& line) { found.push_back(line); });
    return found;
  }

  std::vector<std::string> Close() {
    std::vector<std::string> found;
    lines_.Close([&](const std::string& line) { found.push_back(line); });
    return found;
  }

  LoggedLines lines_;
};

TEST_F(LoggedLinesTest, EndAtLineFeedsAndAreGatheredFromSeveralRecords) {
  EXPECT_THAT(Add("one\r\ntwo\r\nth"), ElementsAre("one\n", "two\n"));
  EXPECT_THAT(Add("ree"), IsEmpty());
  EXPECT_THAT(Add("\n\n"), ElementsAre("three\n", "\n"));
}

TEST_F(LoggedLinesTest, LoseWhatTheLogDoesNotKeep) {
  EXPECT_THAT(Add(std::string_view("a\0b\rc\xFF\xFD\x01z\n", 10)), ElementsAre("abcz\n"));
}

TEST_F(LoggedLinesTest, AreCutAfter1024BytesWhenMoreComes) {
  const std::string full(LoggedLines::kPieceSize, 'x');
  EXPECT_THAT(Add(full), IsEmpty());
  EXPECT_THAT(Add("y"), ElementsAre(full));
  EXPECT_THAT(Add("\n"), ElementsAre("y\n"));
}

TEST_F(LoggedLinesTest, EndWithTheConnectionAndGetALineEndOfTheirOwn) {
  Add("half");
  EXPECT_THAT(Close(), ElementsAre("half", "\n"));
  EXPECT_THAT(Close(), IsEmpty());
}

TEST_F(LoggedLinesTest, DoNotGoOnAcrossAHole) {
  Add("before ");
  lines_.Forget();
  EXPECT_THAT(Add("after\n"), ElementsAre("after\n"));
}

TEST(LoggedLinesWithReturnsTest, EndAtCarriageReturns) {
  LoggedLines lines(true);
  std::vector<std::string> found;
  lines.Add("a\rb\r\n", [&](const std::string& line) { found.push_back(line); });
  EXPECT_THAT(found, ElementsAre("a\r", "b\r", "\n"));
}

// The daemon's own functions decide.
TEST(LoggedBytesTest, AreThoseOfTheDaemon) {
  test::Dice dice(test::Seed());
  constexpr char kBytes[] = {'a', 'b', '\r', '\n', '\0', '\xFF', '\xFD', 'c'};
  for (int round = 0; round < 2000; ++round) {
    std::string piece;
    for (size_t left = dice.Below(40); left > 0; --left) piece += dice.Choose(kBytes);
    for (const bool keeps_returns : {false, true}) {
      std::string expected(piece.size() + 1, '\0');
      int count = static_cast<int>(piece.size());
      (keeps_returns ? zevd::RemoveNULLs : zevd::RemoveCRsAndNULLs)(piece.data(), expected.data(),
                                                                    &count);
      expected.resize(static_cast<size_t>(count));
      ASSERT_EQ(LoggedBytes(piece, keeps_returns), expected) << "round " << round;
    }
  }
}

}  // namespace

}  // namespace zevctl
