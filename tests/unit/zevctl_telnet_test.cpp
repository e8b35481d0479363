// The user's end of telnet, byte by byte.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <random>
#include <string>
#include <string_view>

#include "telnet.h"

namespace zevctl {
namespace {

using std::string_literals::operator""s;
using std::string_view_literals::operator""sv;

struct Case {
  std::string_view received;
  std::string_view text;
  std::string_view answer;
};

constexpr Case kCases[] = {
    {"plain\r\ntext\n"sv, "plain\r\ntext\n"sv, ""sv},
    {"a\0b\r\0"sv, "a\0b\r\0"sv, ""sv},
    {"\xFF\xFF"sv, "\xFF"sv, ""sv},
    // What the daemon offers, alone and after what the console offered.
    {"\xFF\xFB\x01\xFF\xFB\x03"sv, ""sv, "\xFF\xFD\x01\xFF\xFD\x03"sv},
    {"\xFF\xFB\x03\xFF\xFB\x01\xFF\xFB\x01\xFF\xFB\x03"sv, ""sv, "\xFF\xFD\x03\xFF\xFD\x01"sv},
    {"\xFF\xFB\x01login: "sv, "login: "sv, "\xFF\xFD\x01"sv},
    {"\xFF\xFB\x01\xFF\xFC\x01"sv, ""sv, "\xFF\xFD\x01\xFF\xFE\x01"sv},
    {"\xFF\xFD\x03"sv, ""sv, "\xFF\xFB\x03"sv},
    {"\xFF\xFD\x00\xFF\xFB\x00"sv, ""sv, "\xFF\xFB\x00\xFF\xFD\x00"sv},
    // What this end does not have: an echo, the window size, the terminal type, line mode and
    // compression.
    {"\xFF\xFD\x01"sv, ""sv, "\xFF\xFC\x01"sv},
    {"\xFF\xFD\x1F\xFF\xFD\x18\xFF\xFD\x22"sv, ""sv, "\xFF\xFC\x1F\xFF\xFC\x18\xFF\xFC\x22"sv},
    {"\xFF\xFB\x56"sv, ""sv, "\xFF\xFE\x56"sv},
    // What is already agreed needs no answer.
    {"\xFF\xFC\x01\xFF\xFE\x03"sv, ""sv, ""sv},
    // Commands and subnegotiations.
    {"a\xFF\xF1"
     "b\xFF\xF9"
     "c\xFF\xF2"
     "d"sv,
     "abcd"sv, ""sv},
    {"a\xFF\xFA\x18\x01\xFF\xF0"
     "b"sv,
     "ab"sv, ""sv},
    {"a\xFF\xFA\x18\xF0\xFF\xFF\xF0\xFF\xF0"
     "b"sv,
     "ab"sv, ""sv},
    {"\xF0"
     "a\xF0"sv,
     "\xF0"
     "a\xF0"sv,
     ""sv},
    // A claim that what follows is compressed.
    {"a\xFF\xFA\x56\xFF\xF0"
     "b\xFF\xFB\x01"
     "c"sv,
     "abc"sv, "\xFF\xFD\x01"sv},
};

TEST(TelnetStream, TakesTextAndAnswersOffers) {
  for (const Case& tried : kCases) {
    TelnetStream stream;
    stream.Receive(tried.received);
    EXPECT_EQ(stream.TakeText(), tried.text);
    EXPECT_EQ(stream.TakeWire(), tried.answer);
  }
}

TEST(TelnetStream, DoesNotCareHowBytesArrive) {
  for (const Case& tried : kCases) {
    for (size_t cut = 0; cut <= tried.received.size(); ++cut) {
      TelnetStream stream;
      stream.Receive(tried.received.substr(0, cut));
      stream.Receive(tried.received.substr(cut));
      EXPECT_EQ(stream.TakeText(), tried.text);
      EXPECT_EQ(stream.TakeWire(), tried.answer);
    }
  }
}

TEST(TelnetStream, GivesEverythingOnce) {
  TelnetStream stream;
  stream.Receive("text\xFF\xFB\x01");
  stream.TakeText();
  stream.TakeWire();
  EXPECT_EQ(stream.TakeText(), "");
  EXPECT_EQ(stream.TakeWire(), "");
}

TEST(TelnetStream, AnswersARepeatedOfferOnce) {
  TelnetStream stream;
  for (int i = 0; i < 100; ++i) stream.Receive("\xFF\xFB\x01\xFF\xFD\x03");
  EXPECT_EQ(stream.TakeWire(), "\xFF\xFD\x01\xFF\xFB\x03");
}

TEST(TelnetStream, SendsKeysAsTelnetDoes) {
  TelnetStream stream;
  stream.Receive("\xFF\xF1");
  stream.SendKeys("ls -l\r"sv);
  EXPECT_EQ(stream.TakeWire(), "ls -l\r\0"sv);
  stream.SendKeys("\r\r\n\xFF\x03"sv);
  EXPECT_EQ(stream.TakeWire(), "\r\0\r\0\n\xFF\xFF\x03"sv);
  stream.SendKeys("");
  EXPECT_EQ(stream.TakeWire(), "");
}

// A plain terminal gets no key that was not typed.
TEST(TelnetStream, AddsNothingToKeysForAConsoleThatSpeaksNoTelnet) {
  TelnetStream stream;
  stream.Receive("login: \xFF\xFF\r\n");
  stream.SendKeys("ls -l\r\x03"sv);
  EXPECT_EQ(stream.TakeWire(), "ls -l\r\x03"sv);
  stream.SendBreak();
  stream.TakeWire();
  stream.SendKeys("\r"sv);
  EXPECT_EQ(stream.TakeWire(), "\r"sv);
}

// Whatever it says, asks for or refuses, in one piece or byte by byte.
TEST(TelnetStream, OneCommandMakesAConsoleSpeakTelnet) {
  for (const std::string_view command :
       {"\xFF\xF1"sv, "\xFF\xFD\x18"sv, "\xFF\xFB\x56"sv, "\xFF\xFC\x01"sv, "\xFF\xFE\x03"sv,
        "\xFF\xFA\x18\x01\xFF\xF0"sv}) {
    TelnetStream whole;
    TelnetStream pieces;
    whole.Receive(command);
    for (const char byte : command) pieces.Receive({&byte, 1});
    for (TelnetStream* stream : {&whole, &pieces}) {
      stream->TakeWire();
      stream->SendKeys("\r"sv);
      EXPECT_EQ(stream->TakeWire(), "\r\0"sv) << testing::PrintToString(command);
    }
  }
}

TEST(TelnetStream, SendsKeysAsTheyAreOnceThatIsAgreed) {
  TelnetStream stream;
  stream.Receive("\xFF\xFD\0"sv);
  EXPECT_EQ(stream.TakeWire(), "\xFF\xFB\0"sv);
  stream.SendKeys("a\r\xFF"sv);
  EXPECT_EQ(stream.TakeWire(), "a\r\xFF\xFF"sv);
  stream.Receive("\xFF\xFE\0"sv);
  EXPECT_EQ(stream.TakeWire(), "\xFF\xFC\0"sv);
  stream.SendKeys("\r"sv);
  EXPECT_EQ(stream.TakeWire(), "\r\0"sv);
}

TEST(TelnetStream, KeepsEntersWhileOnlyTheOtherEndIsBinary) {
  TelnetStream stream;
  stream.Receive("\xFF\xFB\0"sv);
  EXPECT_EQ(stream.TakeWire(), "\xFF\xFD\0"sv);
  stream.SendKeys("\r"sv);
  EXPECT_EQ(stream.TakeWire(), "\r\0"sv);
}

TEST(TelnetStream, SendsDataAsItIs) {
  TelnetStream stream;
  stream.SendData("a\r\nb\rc\xFF\0"sv);
  EXPECT_EQ(stream.TakeWire(), "a\r\nb\rc\xFF\xFF\0"sv);
}

TEST(TelnetStream, SendsABreak) {
  TelnetStream stream;
  stream.SendBreak();
  EXPECT_EQ(stream.TakeWire(), "\xFF\xF3");
}

// Otherwise a console could turn a few bytes into a flood.
TEST(TelnetStream, NeverDecompresses) {
  constexpr std::string_view kCompressed =  // "not to be seen", by zlib
      "\x78\x9C\xCB\xCB\x2F\x51\x28\xC9\x57\x48\x4A\x55\x28\x4E\x4D\xCD\x03\x00\x25\xD3\x05\x07"sv;
  TelnetStream stream;
  stream.Receive("\xFF\xFA\x56\xFF\xF0" + std::string(kCompressed));
  EXPECT_EQ(stream.TakeText(), kCompressed);
}

TEST(TelnetStream, SurvivesASubnegotiationWithoutEnd) {
  TelnetStream stream;
  stream.Receive("\xFF\xFA\x18");
  stream.Receive(std::string(100000, 'x'));
  stream.Receive("\xFF\xF0");
  stream.Receive("still here");
  EXPECT_TRUE(stream.TakeText().ends_with("still here"));
}

TEST(TelnetStream, SurvivesRandomBytes) {
  std::mt19937 random(20261121);
  constexpr std::array<unsigned long, 15> kUsual = {255, 250, 240, 251, 252, 253, 254, 86,
                                                    39,  36,  24,  70,  93,  0,   1};
  TelnetStream stream;
  for (int round = 0; round < 20000; ++round) {
    std::string bytes;
    for (size_t length = random() % 40; length > 0; --length) {
      const unsigned long any = random() % 300;
      bytes.push_back(static_cast<char>(any < 256 ? any : kUsual[random() % kUsual.size()]));
    }
    stream.Receive(bytes);
    EXPECT_LE(stream.TakeText().size(), 40U + 16384U);
    EXPECT_LE(stream.TakeWire().size(), 80U);
  }
  stream.Receive(
      "\xFF\xF0\xFF\xF0"
      "after");
  EXPECT_TRUE(stream.TakeText().ends_with("after"));
}

constexpr std::string_view kDaemonOffers = "\xFF\xFB\x01\xFF\xFB\x03";

std::string Passed(std::string_view bytes, size_t cut) {
  OfferFilter filter;
  std::string passed = filter.Pass(bytes.substr(0, cut));
  return passed + filter.Pass(bytes.substr(cut));
}

struct Start {
  std::string received;
  std::string passed;
};

TEST(OfferFilter, RemovesTheOffersOfTheDaemonAndNothingElse) {
  const std::string ours(kDaemonOffers);
  const std::string window = "\xFF\xFD\x1F";
  const std::string longest(64, '\xF1');
  const std::string full(61, '\xF1');
  const Start starts[] = {
      {ours, ""},
      {ours + "login: ", "login: "},
      {window + ours + "login: ", window + "login: "},
      {ours + ours + "login: ", ours + "login: "},
      {ours + window + ours, window + ours},
      {ours + "later " + ours, "later " + ours},
      // Cut before the number of the binary option
      {window + "\xFF\xFD" + ours + "login: ", window + "\xFF\xFD\0"s + "login: "},
      {window + "\xFF\xFB" + ours + "login: ", window + "\xFF\xFB\0\xFF\xFD\0"s + "login: "},
      {"\xFF\xFE" + ours, "\xFF\xFE\0"s},
      // Cut for want of room
      {full + "\xFF\xFD" + ours, full},
      {window + "\xFF" + ours, window},
      {"\xFF\xF1\xFF\xFD\xFF" + ours, "\xFF\xF1\xFF\xFD\xFF"},
      {longest + ours + "login: ", longest + "login: "},
  };
  for (const Start& start : starts) {
    for (size_t cut = 0; cut <= start.received.size(); ++cut) {
      EXPECT_EQ(Passed(start.received, cut), start.passed) << "cut at " << cut;
    }
  }
}

// What the daemon kept of a console that asked for binary mode among other things.
TEST(OfferFilter, LetsBinaryModeBeAgreed) {
  for (const std::string& kept : {"\xFF\xFB\x03\xFF\xFB\x01\xFF\xFD"s, "\xFF\xFB"s}) {
    OfferFilter filter;
    TelnetStream stream;
    stream.Receive(filter.Pass(kept + std::string(kDaemonOffers)));
    EXPECT_THAT(stream.TakeWire(), testing::EndsWith("\xFF\xFB\0"s));
    stream.SendKeys("x\r"sv);
    EXPECT_EQ(stream.TakeWire(), "x\r"sv);
  }
}

// It offered to be binary and did not ask for the same.
TEST(OfferFilter, LetsBinaryModeBeRefused) {
  OfferFilter filter;
  TelnetStream stream;
  stream.Receive(filter.Pass("\xFF\xFB"s + std::string(kDaemonOffers)));
  EXPECT_EQ(stream.TakeWire(), "\xFF\xFD\0\xFF\xFB\0"sv);
  stream.Receive("\xFF\xFE\0"sv);
  EXPECT_EQ(stream.TakeWire(), "\xFF\xFC\0"sv);
  stream.SendKeys("\r"sv);
  EXPECT_EQ(stream.TakeWire(), "\r\0"sv);
}

TEST(OfferFilter, GivesUpWhenTheOffersDoNotCome) {
  OfferFilter filter;
  const std::string something(69, 'x');
  EXPECT_EQ(filter.Pass(something), "");
  EXPECT_EQ(filter.Pass("y"), something + "y");
  EXPECT_EQ(filter.Pass("z"), "z");
}

}  // namespace
}  // namespace zevctl
