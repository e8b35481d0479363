// The parts of "zevctl --fleet" that reach nobody: the map, the words, the line for a shell.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ctime>
#include <fstream>

#include "arguments.h"
#include "exit_status.h"
#include "far_map.h"
#include "far_shell.h"
#include "far_words.h"
#include "program.h"

namespace zevctl {
namespace {

using testing::ElementsAre;
using testing::StartsWith;

constexpr char kMap[] = R"({"format": 1, "site": "hall", "station": "st1", "as_of": 1000,
  "connected": true, "problem": "", "stations": [
    {"name": "st1", "address": "192.0.2.1", "web": "https://192.0.2.1", "alive": true,
     "ready": true, "version": "1.0"},
    {"name": "st2", "address": "192.0.2.2", "web": "", "alive": false, "ready": false,
     "version": ""}],
  "consoles": [{"name": "box-1", "station": "st2", "stations": ["st1", "st2"]},
               {"name": "box2", "station": "", "stations": []}]})";

TEST(FarMapTest, StationsAndConsolesAreRead) {
  const FarMap map = ParseFarMap(kMap);
  EXPECT_EQ(map.site, "hall");
  EXPECT_EQ(map.station, "st1");
  EXPECT_EQ(map.Station("st1")->web, "https://192.0.2.1");
  EXPECT_EQ(map.Station("st1")->version, "1.0");
  EXPECT_TRUE(map.Station("st1")->ready);
  EXPECT_EQ(map.Station("st2")->address, "192.0.2.2");
  EXPECT_FALSE(map.Station("st2")->alive);
  EXPECT_EQ(map.Station("st3"), nullptr);
  EXPECT_EQ(FindFarConsole(map, "box-1").station, "st2");
  EXPECT_THAT(FindFarConsole(map, "box-1").stations, ElementsAre("st1", "st2"));
  EXPECT_EQ(FindFarConsole(map, "BOX_1").name, "box-1");
  EXPECT_THROW(FindFarConsole(map, "box"), Failure);
}

TEST(FarMapTest, WhatIsNoMapIsRefused) {
  for (const char* text : {"", "[]", "{}", R"({"format": 2})", R"({"format": 1})", "half"}) {
    EXPECT_THROW(ParseFarMap(text), Failure) << text;
  }
}

// The map with one of its texts replaced.
std::string Forged(const std::string& text, const std::string& replacement) {
  std::string map = kMap;
  return map.replace(map.find(text), text.size(), replacement);
}

TEST(FarMapTest, WhatIsForgedIsRefused) {
  EXPECT_NO_THROW(ParseFarMap(Forged("1000", "253402300799")));
  for (const char* moment : {"-1", "1e300", "1.5", "true", "\"1000\"", "null", "253402300800",
                             "18446744073709551615", "99999999999999999999"}) {
    EXPECT_THROW(ParseFarMap(Forged("1000", moment)), Failure) << moment;
  }
  for (const char* list : {"{\"a\": \"st1\"}", "[1]", "[[\"st1\"]]", "\"st1\"", "null"}) {
    EXPECT_THROW(ParseFarMap(Forged(R"(["st1", "st2"])", list)), Failure) << list;
  }
  EXPECT_THROW(ParseFarMap(Forged("\"hall\"", "{}")), Failure);
  EXPECT_THROW(ParseFarMap(Forged("\"1.0\"", "1.0")), Failure);
  EXPECT_THROW(ParseFarMap(Forged("\"alive\": false", "\"alive\": 0")), Failure);
  EXPECT_THROW(ParseFarMap(Forged("hall", "\xff")), Failure);
}

TEST(FarMapTest, AnOldMapSaysHowOldItIs) {
  FarMap map = ParseFarMap(kMap);
  EXPECT_THAT(AgeInWords(map), StartsWith("the map of the fleet is of "));
  map.as_of = time(nullptr);
  EXPECT_EQ(AgeInWords(map), "");
  map.connected = false;
  EXPECT_THAT(AgeInWords(map), StartsWith("the map of the fleet is of "));
  map.as_of = 0;
  map.problem = "no answer";
  EXPECT_EQ(AgeInWords(map), "the map of the fleet has never been confirmed: no answer");
}

FarWords Split(std::vector<std::string> words) {
  CommandLine line("", "zevctl", "");
  Command app = line.program();
  Program program;
  app.AddFlag("--fleet", program.settings.fleet, "");
  app.AddOption("--ssh", program.settings.fleet_ssh, "");
  app.AddOption("--user", program.settings.user, "");
  std::vector<std::string> names;
  size_t count = 0;
  Command log = app.AddCommand("log", "");
  log.AddOption("NAME", names, "");
  log.AddOption("-n", count, "");
  std::vector<std::string> copy = words;
  copy.insert(copy.begin(), "zevctl");
  std::vector<char*> pointers;
  for (std::string& word : copy) pointers.push_back(word.data());
  EXPECT_EQ(line.Parse(static_cast<int>(pointers.size()), pointers.data()).end, ParseEnd::kParsed);
  return SplitWords(app, words);
}

TEST(FarWordsTest, OptionsAndTheirValuesAreToldFromArguments) {
  const FarWords words =
      Split({"--fleet", "--ssh", "my ssh", "--user", "ann", "log", "-n", "3", "box1", "box2"});
  EXPECT_EQ(words.command, "log");
  EXPECT_THAT(words.options, ElementsAre("--user", "ann", "-n", "3"));
  EXPECT_THAT(words.arguments, ElementsAre("box1", "box2"));
  EXPECT_THAT(words.Line({"box1"}), ElementsAre("log", "--user", "ann", "-n", "3", "--", "box1"));
}

TEST(FarWordsTest, AValueMayStandInTheSameWordAndArgumentsBehindTwoDashes) {
  const FarWords words = Split({"log", "--fleet", "--ssh=x", "--user=ann", "--", "-box"});
  EXPECT_THAT(words.options, ElementsAre("--user=ann"));
  EXPECT_THAT(words.arguments, ElementsAre("-box"));
  EXPECT_THAT(words.Line({}), ElementsAre("log", "--user=ann"));
}

TEST(FarWordsTest, AShellTakesTheWordsApartAgain) {
  EXPECT_EQ(QuotedForShell({"a", "b c", "it's", "$x", ""}), R"('a' 'b c' 'it'\''s' '$x' '')");
}

TEST(FarShellTest, HereItIsThisProgramAndElsewhereAShell) {
  const FarMap map = ParseFarMap(kMap);
  EXPECT_THAT(FarLine(map, {"ssh -v"}, *map.Station("st2"), {"list", "a b"}, false),
              ElementsAre("ssh", "-v", "-o", "BatchMode=yes", "-o", "ConnectTimeout=5", "192.0.2.2",
                          "zevctl 'list' 'a b'"));
  const auto here = FarLine(map, {"ssh"}, *map.Station("st1"), {"list"}, false);
  ASSERT_EQ(here.size(), 2U);
  EXPECT_EQ(here[1], "list");
  EXPECT_EQ(FarLine(map, {"ssh"}, *map.Station("st2"), {"attach"}, true)[1], "-t");
}

// A program in place of ssh.
std::string Script(const std::string& name, const std::string& text) {
  const std::string path = testing::TempDir() + "/" + name + "-" + std::to_string(getpid());
  std::ofstream(path) << "#!/bin/sh\n" << text;
  chmod(path.c_str(), 0700);
  return path;
}

TEST(FarShellTest, OutputErrorsAndStatusAreThoseOfTheCommand) {
  const FarMap map = ParseFarMap(kMap);
  const std::string script = Script("answers", "echo out; echo err >&2; exit 3\n");
  const auto results = RunFar(map, {script}, {*map.Station("st2")}, {"list"}, 10);
  ASSERT_EQ(results.size(), 1U);
  EXPECT_EQ(results[0].station, "st2");
  EXPECT_EQ(results[0].status, 3);
  EXPECT_EQ(results[0].output, "out\n");
  EXPECT_EQ(results[0].errors, "err\n");
  EXPECT_FALSE(results[0].IsUnreached());
  unlink(script.c_str());
}

TEST(FarShellTest, WhatDoesNotAnswerIsGivenUp) {
  const FarMap map = ParseFarMap(kMap);
  const std::string script = Script("hangs", "exec sleep 600\n");
  const auto results = RunFar(map, {script}, {*map.Station("st2")}, {"x"}, 1);
  ASSERT_EQ(results.size(), 1U);
  EXPECT_TRUE(results[0].IsUnreached());
  EXPECT_EQ(results[0].errors, "it does not answer");
  unlink(script.c_str());
}

TEST(FarShellTest, AShellThatIsNotThereIsTold) {
  const FarMap map = ParseFarMap(kMap);
  const auto results = RunFar(map, {"/no/such/shell"}, {*map.Station("st2")}, {"x"}, 1);
  EXPECT_TRUE(results[0].IsUnreached());
  EXPECT_EQ(results[0].errors, "/no/such/shell cannot be started");
}

}  // namespace
}  // namespace zevctl
