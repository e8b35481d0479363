#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

#include "arguments.h"
#include "program.h"

namespace zevctl {

namespace {

using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

class ZevctlArgumentsTest : public ::testing::Test {
 protected:
  ParseResult Parse(std::vector<std::string> words) {
    words.insert(words.begin(), "zevctl");
    std::vector<char*> line;
    for (std::string& word : words) line.push_back(word.data());
    return line_.Parse(static_cast<int>(line.size()), line.data());
  }

  // What parsing that fails in this way says.
  std::string Refusal(const std::vector<std::string>& words, ParseEnd end = ParseEnd::kMistake) {
    const ParseResult result = Parse(words);
    EXPECT_EQ(result.end, end) << result.text;
    return result.text;
  }

  std::string Help(const std::vector<std::string>& words) {
    return Refusal(words, ParseEnd::kAnswered);
  }

  CommandLine line_{"Tries things.", "zevctl", "zevctl 1.2.3"};
  Command app_ = line_.program();
  Program program_;
};

TEST_F(ZevctlArgumentsTest, ValuesOfEveryTypeArrive) {
  std::string text;
  uint16_t port = 0;
  size_t count = 0;
  double seconds = 0;
  std::vector<std::string> names;
  std::optional<std::string> maybe_text;
  std::optional<int> maybe_number;
  std::optional<size_t> maybe_count;
  std::optional<double> maybe_seconds;
  bool flag = false;
  app_.AddOption("--text", text, "");
  app_.AddOption("--port", port, "");
  app_.AddOption("--count", count, "");
  app_.AddOption("--seconds", seconds, "");
  app_.AddOption("NAME", names, "");
  app_.AddOption("--maybe-text", maybe_text, "");
  app_.AddOption("--maybe-number", maybe_number, "");
  app_.AddOption("--maybe-count", maybe_count, "");
  app_.AddOption("--maybe-seconds", maybe_seconds, "");
  app_.AddFlag("-f,--flag", flag, "");
  const ParseResult result =
      Parse({"--text=t", "--port=65535", "--count=7", "--seconds=0.5", "--maybe-text=m",
             "--maybe-number=-1", "--maybe-count=8", "--maybe-seconds=1.5", "-f", "a", "b"});
  EXPECT_EQ(result.end, ParseEnd::kParsed) << result.text;
  EXPECT_EQ(text, "t");
  EXPECT_EQ(port, 65535);
  EXPECT_EQ(count, 7U);
  EXPECT_EQ(seconds, 0.5);
  EXPECT_THAT(names, ElementsAre("a", "b"));
  EXPECT_EQ(maybe_text, "m");
  EXPECT_EQ(maybe_number, -1);
  EXPECT_EQ(maybe_count, 8U);
  EXPECT_EQ(maybe_seconds, 1.5);
  EXPECT_TRUE(flag);
}

TEST_F(ZevctlArgumentsTest, ValueStaysWhenNoneIsGiven) {
  std::string text = "before";
  std::optional<size_t> count;
  bool given = false;
  app_.AddOption("--text", text, "").Tell(given);
  app_.AddOption("--count", count, "");
  EXPECT_EQ(Parse({}).end, ParseEnd::kParsed);
  EXPECT_EQ(text, "before");
  EXPECT_EQ(count, std::nullopt);
  EXPECT_FALSE(given);
}

TEST_F(ZevctlArgumentsTest, OptionTellsThatItWasGiven) {
  std::string text;
  bool given = false;
  app_.AddOption("--text", text, "").Tell(given);
  EXPECT_EQ(Parse({"--text", "x"}).end, ParseEnd::kParsed);
  EXPECT_TRUE(given);
}

TEST_F(ZevctlArgumentsTest, RangesHoldBothEnds) {
  uint16_t port = 0;
  size_t count = 0;
  double seconds = 0;
  app_.AddOption("--port", port, "").InRange(1, 9);
  app_.AddOption("--count", count, "").InRange(size_t{0}, size_t{9});
  app_.AddOption("--seconds", seconds, "").InRange(0.5, 1.5);
  EXPECT_EQ(Parse({"--port=1", "--count=0", "--seconds=0.5"}).end, ParseEnd::kParsed);
  EXPECT_EQ(Parse({"--port=9", "--count=9", "--seconds=1.5"}).end, ParseEnd::kParsed);
  EXPECT_THAT(Refusal({"--port=0"}), HasSubstr("--port"));
  EXPECT_THAT(Refusal({"--count=10"}), HasSubstr("--count"));
  EXPECT_THAT(Refusal({"--seconds=1.6"}), HasSubstr("--seconds"));
}

TEST_F(ZevctlArgumentsTest, ChecksRefuseValues) {
  std::string mode;
  std::string name;
  app_.AddOption("--mode", mode, "").OneOf({"ro", "ex"});
  app_.AddOption("--name", name, "").Verify([](const std::string& text) {
    return text == "good" ? "" : "is not good";
  });
  EXPECT_EQ(Parse({"--mode", "ex", "--name", "good"}).end, ParseEnd::kParsed);
  EXPECT_THAT(Refusal({"--mode", "sh"}), AllOf(HasSubstr("--mode"), HasSubstr("{ro,ex}")));
  EXPECT_THAT(Refusal({"--name", "bad"}), HasSubstr("is not good"));
}

TEST_F(ZevctlArgumentsTest, OptionsNeedAndExcludeEachOther) {
  bool first = false;
  bool second = false;
  bool third = false;
  const Option needed = app_.AddFlag("--first", first, "");
  app_.AddFlag("--second", second, "").Needs(needed);
  app_.AddFlag("--third", third, "").Excludes(needed);
  EXPECT_EQ(Parse({"--first", "--second"}).end, ParseEnd::kParsed);
  EXPECT_THAT(Refusal({"--second"}), HasSubstr("--first"));
  EXPECT_THAT(Refusal({"--first", "--third"}), HasSubstr("--first"));
}

TEST_F(ZevctlArgumentsTest, ListsTakeOneValueEachTimeOrSeveralInAWord) {
  std::vector<std::string> names;
  std::vector<std::string> states;
  std::vector<std::string> rest;
  app_.AddOption("--name", names, "").OneEachTime();
  app_.AddOption("--state", states, "").SplitAt(',').OneEachTime();
  app_.AddOption("REST", rest, "");
  EXPECT_EQ(Parse({"--name", "a", "x", "--name", "b", "--state", "c,d", "y"}).end,
            ParseEnd::kParsed);
  EXPECT_THAT(names, ElementsAre("a", "b"));
  EXPECT_THAT(states, ElementsAre("c", "d"));
  EXPECT_THAT(rest, ElementsAre("x", "y"));
}

TEST_F(ZevctlArgumentsTest, VariableStandsInForTheOption) {
  std::string host = "default";
  app_.AddOption("--host", host, "").FromVariable("ZEVCTL_ARGUMENTS_TEST");
  setenv("ZEVCTL_ARGUMENTS_TEST", "elsewhere", 1);
  EXPECT_EQ(Parse({}).end, ParseEnd::kParsed);
  unsetenv("ZEVCTL_ARGUMENTS_TEST");
  EXPECT_EQ(host, "elsewhere");
}

TEST_F(ZevctlArgumentsTest, HelpShowsHeadingsDefaultsAndFooter) {
  std::string text = "the default";
  app_.AddOption("--text", text, "What it is").ShowDefault().Under("Special options");
  app_.AddFooter("See also the moon.");
  EXPECT_THAT(
      Help({"--help"}),
      AllOf(HasSubstr("Tries things."), HasSubstr("Special options:\n  --text"),
            HasSubstr("What it is"), HasSubstr("the default"), HasSubstr("See also the moon.")));
}

TEST_F(ZevctlArgumentsTest, VersionIsAnAnswer) {
  EXPECT_EQ(Help({"--version"}), "zevctl 1.2.3\n");
}

TEST_F(ZevctlArgumentsTest, NamedCommandSetsTheAction) {
  for (const auto& [name, status] :
       {std::pair{"one", ExitStatus::kFailed}, {"two", ExitStatus::kUsage}}) {
    app_.AddCommand(name, "").SetAction(program_, [status = status] { return status; });
  }
  app_.RequireCommand();
  EXPECT_EQ(Parse({"two"}).end, ParseEnd::kParsed);
  ASSERT_TRUE(program_.action);
  EXPECT_EQ(program_.action(), ExitStatus::kUsage);
  ASSERT_TRUE(app_.NamedCommand());
  EXPECT_EQ(app_.NamedCommand()->name(), "two");
}

TEST_F(ZevctlArgumentsTest, OptionsOfTheProgramMayFollowACommandOfACommand) {
  bool json = false;
  app_.AddFlag("--json", json, "");
  app_.AddCommand("config", "").AddCommand("check", "");
  EXPECT_EQ(Parse({"config", "check", "--json"}).end, ParseEnd::kParsed);
  EXPECT_TRUE(json);
}

TEST_F(ZevctlArgumentsTest, SaysHowParsingFailed) {
  std::string name;
  app_.AddCommand("attach", "").AddOption("NAME", name, "").Required();
  app_.RequireCommand();
  EXPECT_THAT(Refusal({}, ParseEnd::kMissing), HasSubstr("subcommand"));
  EXPECT_THAT(Refusal({"attach"}, ParseEnd::kMissing), HasSubstr("NAME"));
  Refusal({"attach", "a", "b", "--new"}, ParseEnd::kTooMany);
  EXPECT_THAT(app_.WordsLeft(), ElementsAre("b", "--new"));
}

TEST_F(ZevctlArgumentsTest, TellsWhatWasDeclared) {
  std::string mode;
  bool quiet = false;
  Command command = app_.AddCommand("attach", "");
  command.AddOption("--mode", mode, "");
  command.AddFlag("-q,--quiet", quiet, "");
  ASSERT_EQ(app_.Commands().size(), 1U);
  EXPECT_EQ(app_.Commands().front().name(), "attach");
  EXPECT_THAT(command.Commands(), IsEmpty());
  EXPECT_THAT(command.LongOptions(), ElementsAre("--help", "--mode", "--quiet"));
  EXPECT_EQ(command.TakesValue("--mode"), true);
  EXPECT_EQ(command.TakesValue("-q"), false);
  EXPECT_EQ(command.TakesValue("--other"), std::nullopt);
  EXPECT_FALSE(app_.NamedCommand());
}

}  // namespace

}  // namespace zevctl
