// The times of a replay, its keys, and the lines of an asciicast.
#include <gmock/gmock.h>

#include <chrono>
#include <limits>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "replay_export.h"
#include "replay_keys.h"
#include "replay_pace.h"

namespace zevctl {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr int64_t kSecond = 1'000'000'000;

TEST(Between, AClockThatWasSetMakesNoDifferenceWithinARun) {
  EXPECT_EQ(Between({100 * kSecond, 5 * kSecond, 1}, {40 * kSecond, 7 * kSecond, 1}), seconds(2));
  EXPECT_EQ(Between({100 * kSecond, 5 * kSecond, 1}, {104 * kSecond, 1 * kSecond, 2}), seconds(4));
  EXPECT_EQ(Between({100 * kSecond, 5 * kSecond, 1}, {40 * kSecond, 1 * kSecond, 2}), seconds(0));
  EXPECT_EQ(Between({-3 * kSecond, 0, 0}, {2 * kSecond, 0, 0}), seconds(5));
}

TEST(Between, NeverOverflows) {
  constexpr int64_t kLeast = std::numeric_limits<int64_t>::min();
  constexpr int64_t kMost = std::numeric_limits<int64_t>::max();
  EXPECT_EQ(Between({kLeast, 0, 0}, {kMost, 0, 0}), Nanoseconds::max());
  EXPECT_EQ(Between({kMost, 0, 0}, {kLeast, 0, 0}), Nanoseconds(0));
}

TEST(Pace, ShortensPauses) {
  const Pace pace(1, seconds(2));
  EXPECT_EQ(pace.Shortened(seconds(60)), seconds(2));
  EXPECT_EQ(pace.Shortened(milliseconds(1500)), milliseconds(1500));
  EXPECT_EQ(Pace(1, {}).Shortened(std::chrono::hours(9)), std::chrono::hours(9));
}

TEST(Pace, PlaysFasterAndSlower) {
  Pace pace(8, {});
  EXPECT_EQ(pace.ToReal(seconds(8)), seconds(1));
  EXPECT_EQ(pace.ToPlayed(seconds(1)), seconds(8));
  pace.Double();
  EXPECT_EQ(pace.speed(), 16);
  for (int i = 0; i < 50; ++i) pace.Double();
  EXPECT_EQ(pace.speed(), Pace::kFastest);
  for (int i = 0; i < 50; ++i) pace.Halve();
  EXPECT_EQ(pace.speed(), Pace::kSlowest);
  EXPECT_GT(pace.ToReal(Nanoseconds::max()), std::chrono::hours(24 * 365));
}

std::vector<Key> Keys(KeyReader& reader, std::string_view bytes) {
  std::vector<Key> keys;
  for (const KeyPress& press : reader.Take(bytes)) keys.push_back(press.key);
  return keys;
}

TEST(KeyReader, KnowsTheArrows) {
  KeyReader reader;
  EXPECT_THAT(Keys(reader, "\x1b[D\x1b[C\x1bOD\x1bOC"),
              testing::ElementsAre(Key::kLeft, Key::kRight, Key::kLeft, Key::kRight));
  EXPECT_THAT(Keys(reader, "\x1b[1;2D\x1b[1;2C\x1b[d\x1b[c"),
              testing::ElementsAre(Key::kFarLeft, Key::kFarRight, Key::kFarLeft, Key::kFarRight));
  EXPECT_THAT(Keys(reader, "\x1b[H\x1b[4~"), testing::ElementsAre(Key::kHome, Key::kEnd));
}

TEST(KeyReader, PutsSequencesTogether) {
  KeyReader reader;
  EXPECT_THAT(Keys(reader, "\x1b"), testing::IsEmpty());
  EXPECT_TRUE(reader.IsUndecided());
  EXPECT_THAT(Keys(reader, "["), testing::IsEmpty());
  EXPECT_THAT(Keys(reader, "Dq"), testing::ElementsAre(Key::kLeft, Key::kText));
  EXPECT_FALSE(reader.IsUndecided());
}

TEST(KeyReader, DecidesForTheEscapeKey) {
  KeyReader reader;
  EXPECT_THAT(Keys(reader, "\x1b"), testing::IsEmpty());
  const auto keys = reader.Decide();
  ASSERT_EQ(keys.size(), 1U);
  EXPECT_EQ(keys[0].key, Key::kEscape);
  EXPECT_FALSE(reader.IsUndecided());
}

TEST(KeyReader, IgnoresUnknownSequencesAndControls) {
  KeyReader reader;
  EXPECT_THAT(Keys(reader, "\x1b[15~\x1b[I\x01\x1b[200~"), testing::IsEmpty());
  EXPECT_THAT(Keys(reader, "\x03\x1a\r\x7f"),
              testing::ElementsAre(Key::kInterrupt, Key::kStop, Key::kEnter, Key::kBackspace));
}

TEST(KeyReader, KeepsCharactersWhole) {
  KeyReader reader;
  const auto keys = reader.Take("a\xC3\xA4");
  ASSERT_EQ(keys.size(), 2U);
  EXPECT_EQ(keys[1].text, "\xC3\xA4");
}

TEST(AsciicastEvent, IsALineOfJson) {
  EXPECT_EQ(AsciicastEvent(milliseconds(1500), 'o', "a\"\\\r\n\x1b[1m"),
            "[1.500000, \"o\", \"a\\\"\\\\\\r\\n\\u001b[1m\"]\n");
  EXPECT_EQ(AsciicastEvent(Nanoseconds(0), 'm', "x"), "[0.000000, \"m\", \"x\"]\n");
  const std::string text = "\xC3\xA4 \xF0\x9F\x98\x80 \xE2\x80\xA8 \xEF\xBF\xBD";
  const auto read = nlohmann::json::parse(AsciicastEvent(seconds(100'000), 'o', text));
  EXPECT_EQ(read, (nlohmann::json::array({100'000.0, "o", text})));
}

}  // namespace
}  // namespace zevctl
