// Where telnet commands begin and end in a stream that comes in pieces.
#include "telnet_scan.h"

#include <gtest/gtest.h>

#include <array>
#include <cstddef>
#include <string>
#include <string_view>

#include "random_patterns.h"

using namespace zevd;

namespace {

using namespace std::string_view_literals;

void Scan(TelnetScan* scan, std::string_view bytes) {
  scan->Scan(bytes.data(), bytes.size());
}

/// Whole commands, each a different way through one.
constexpr std::array<std::string_view, 10> kCommands = {
    "\xFF\xF1"sv,                          // of two bytes
    "\xFF\xFF"sv,                          // the byte 255 itself
    "\xFF\xF0"sv,                          // an end without a beginning
    "\xFF\xFB\x01"sv,                      // WILL
    "\xFF\xFE\xFF"sv,                      // DONT, of an option that looks like a command
    "\xFF\xFA\xFF\xF0"sv,                  // an empty subnegotiation
    "\xFF\xFA\x18\x00vt100\n\xFF\xF0"sv,   // one with text
    "\xFF\xFA\x18\xFF\xFF\xFF\xF0"sv,      // one that contains the byte 255
    "\xFF\xFA\x18\xF0\xFA\xFB\xFF\xF0"sv,  // one that contains what is a command elsewhere
    "\xFF\xFA\xFF\xFA\x01\xFF\xF0"sv,      // a beginning does not count inside
};

TEST(TelnetScanTest, TextIsNoCommand) {
  TelnetScan scan;
  EXPECT_FALSE(scan.InCommand());
  Scan(&scan, "login: \xF0\xFA\xFB\xFE\0\r\n"sv);
  EXPECT_FALSE(scan.InCommand());
  EXPECT_EQ(scan.begun(), 0U);
}

TEST(TelnetScanTest, CommandIsUnfinishedUpToItsLastByteWhereverItIsCut) {
  for (const std::string_view command : kCommands) {
    for (size_t cut = 1; cut <= command.size(); ++cut) {
      SCOPED_TRACE(::testing::PrintToString(command) + " after " + std::to_string(cut));
      const bool unfinished = cut < command.size();
      TelnetScan scan;
      Scan(&scan, "text");
      Scan(&scan, command.substr(0, cut));
      EXPECT_EQ(scan.InCommand(), unfinished);
      EXPECT_EQ(scan.begun(), unfinished ? cut : 0);
      Scan(&scan, command.substr(cut));
      EXPECT_FALSE(scan.InCommand());
    }
  }
}

TEST(TelnetScanTest, CommandsFollowEachOther) {
  TelnetScan scan;
  std::string all;
  for (const std::string_view command : kCommands) all += command;
  Scan(&scan, all);
  EXPECT_FALSE(scan.InCommand());
  Scan(&scan, all + "\xFF\xFA\x01\xFF");
  EXPECT_EQ(scan.begun(), 4U);
}

TEST(TelnetScanTest, EndIsFoundWhereverTheCommandIsCut) {
  for (const std::string_view command : kCommands) {
    for (size_t cut = 1; cut < command.size(); ++cut) {
      SCOPED_TRACE(::testing::PrintToString(command) + " after " + std::to_string(cut));
      TelnetScan scan;
      Scan(&scan, command.substr(0, cut));
      const std::string rest = std::string(command.substr(cut)) + "\xFF\xFBtext";
      EXPECT_EQ(scan.ScanToEndOfCommand(rest.data(), 0), 0U);
      EXPECT_EQ(scan.ScanToEndOfCommand(rest.data(), rest.size()), command.size() - cut);
      EXPECT_FALSE(scan.InCommand());
      EXPECT_EQ(scan.ScanToEndOfCommand(rest.data(), rest.size()), 0U);
    }
  }
}

TEST(TelnetScanTest, EndMayComeWithLaterBytes) {
  TelnetScan scan;
  Scan(&scan, "\xFF\xFA");
  EXPECT_EQ(scan.ScanToEndOfCommand("abc", 3), 3U);
  EXPECT_EQ(scan.begun(), 5U);
  EXPECT_EQ(scan.ScanToEndOfCommand("d\xFF\xF0xyz", 6), 3U);
  EXPECT_FALSE(scan.InCommand());
}

// A subnegotiation of so many bytes.
std::string Subnegotiation(size_t length) {
  return "\xFF\xFA" + std::string(length - 4, 's') + "\xFF\xF0";
}

TEST(TelnetScanTest, LongestCommandIsKnownWhole) {
  const std::string longest = Subnegotiation(TelnetScan::kLongestCommand);
  TelnetScan scan;
  Scan(&scan, longest.substr(0, longest.size() - 1));
  EXPECT_EQ(scan.begun(), TelnetScan::kLongestCommand - 1);
  Scan(&scan, longest.substr(longest.size() - 1));
  EXPECT_FALSE(scan.InCommand());
}

TEST(TelnetScanTest, LongerCommandIsTextFromThereOn) {
  const std::string longer = Subnegotiation(TelnetScan::kLongestCommand + 40);
  TelnetScan scan;
  EXPECT_EQ(scan.ScanToEndOfCommand(longer.data(), longer.size()), 0U);
  Scan(&scan, longer.substr(0, 1));
  EXPECT_EQ(scan.ScanToEndOfCommand(longer.data() + 1, longer.size() - 1),
            TelnetScan::kLongestCommand - 1);
  Scan(&scan, longer.substr(TelnetScan::kLongestCommand));
  EXPECT_FALSE(scan.InCommand());
  Scan(&scan, "\xFF");
  EXPECT_EQ(scan.begun(), 1U);
}

// The length of the command or of the byte of text that `rest` begins with; of a command that is
// cut it is more than there is.
size_t LengthOfNext(std::string_view rest) {
  if (rest[0] != '\xFF') return 1;
  if (rest.size() == 1) return 2;
  const auto second = static_cast<unsigned char>(rest[1]);
  if (second != 250) return second >= 251 && second <= 254 ? 3 : 2;
  for (size_t i = 2; i + 1 < TelnetScan::kLongestCommand && i < rest.size(); ++i) {
    if (rest[i] == '\xFF' && ++i < rest.size() && rest[i] == '\xF0') return i + 1;
  }
  return TelnetScan::kLongestCommand;
}

// How many bytes of an unfinished command the stream ends with.
size_t BegunAtTheEndOf(std::string_view stream) {
  while (!stream.empty()) {
    const size_t length = LengthOfNext(stream);
    if (length > stream.size()) return stream.size();
    stream.remove_prefix(length);
  }
  return 0;
}

TEST(TelnetScanTest, RandomStreamsAreUnderstoodHoweverTheyAreCut) {
  constexpr char kBytes[] = {'\xFF', '\xFF', '\xFF', '\xFA', '\xF0', '\xFB', '\xFE', 'a', '\n'};
  test::Dice dice(test::Seed());
  for (int round = 0; round < 200; ++round) {
    std::string stream;
    const bool mostly_text = dice.OneIn(2);  // in which subnegotiations become long
    TelnetScan scan;
    for (int piece = 0; piece < 20; ++piece) {
      std::string more(dice.Below(40), 't');
      for (char& byte : more) {
        if (!mostly_text || dice.OneIn(12)) byte = dice.Choose(kBytes);
      }
      stream += more;
      Scan(&scan, more);
      ASSERT_EQ(scan.begun(), BegunAtTheEndOf(stream)) << ::testing::PrintToString(stream);
      ASSERT_EQ(scan.InCommand(), scan.begun() != 0);
    }
  }
}

}  // namespace
