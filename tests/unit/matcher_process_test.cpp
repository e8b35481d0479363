#include "matcher_process.h"

#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

#include "matcher_wire.h"
#include "random_patterns.h"
#include "support.h"

using namespace zevd;

namespace {

// The system's matcher calls itself until the stack ends, on any line.
constexpr char kDeep[] = "(x|)(\\1\\1|t1)+";

/// What the matcher has said.
struct Said {
  MatcherKind kind;
  uint64_t line;
  uint32_t set;
  uint32_t number;
  int32_t value;
  std::string text;
};

/// The matcher in a process of its own, with the test in the daemon's place.
class MatcherProcessTest : public ::testing::Test {
 protected:
  MatcherProcessTest() {
    int ends[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
    pid_ = fork();
    if (pid_ == 0) {
      close(ends[0]);
      // A sanitizer would report what is meant to happen.
      for (const int signum : {SIGSEGV, SIGBUS}) signal(signum, SIG_DFL);
      RunMatcher(ends[1]);
      _exit(0);
    }
    close(ends[1]);
    sock_ = ends[0];
  }

  ~MatcherProcessTest() override {
    close(sock_);
    waitpid(pid_, nullptr, 0);
  }

  void Send(const MatcherHeader& header, std::string_view text = {}) const {
    ASSERT_TRUE(SendToMatcher(sock_, header, text, 0));
  }

  // The patterns of one set, with their place as priority.
  void TellSet(uint32_t set, const std::vector<std::string>& patterns) const {
    uint32_t number = 0;
    for (const std::string& pattern : patterns) {
      const auto priority = static_cast<int32_t>(number);
      Send({.kind = MatcherKind::kPattern, .set = set, .number = number++, .value = priority},
           pattern);
      EXPECT_EQ(Listen().kind, MatcherKind::kTaken);
    }
  }

  void Start() const { Send({.kind = MatcherKind::kStart}); }

  void StartWith(uint32_t set, const std::vector<std::string>& patterns) const {
    TellSet(set, patterns);
    Start();
  }

  // The next thing that it says, within ten seconds.
  Said Listen() const {
    MatcherMessage message;
    message.header.kind = MatcherKind::kForget;
    if (!test::WaitReadable(sock_) ||
        ReceiveFromMatcher(sock_, &message, 0) != Received::kMessage) {
      ADD_FAILURE() << "nothing was said";
      return {};
    }
    const MatcherHeader& header = message.header;
    return {header.kind,   header.line,  header.set,
            header.number, header.value, std::string(message.Text())};
  }

  Said Match(uint32_t set, std::string_view line) {
    Send({.kind = MatcherKind::kLine, .set = set, .line = ++line_}, line);
    return Listen();
  }

  // The priority of the pattern that matches, -1 for none.
  int PriorityOf(uint32_t set, std::string_view line) {
    const Said said = Match(set, line);
    EXPECT_EQ(said.line, line_);
    if (said.kind == MatcherKind::kNoMatch) return -1;
    EXPECT_EQ(said.kind, MatcherKind::kMatch);
    return said.value;
  }

  void ExpectEnd() const {
    int status = -1;
    EXPECT_EQ(waitpid(pid_, &status, 0), pid_);
    EXPECT_EQ(status, 0);
  }

  pid_t pid_ = -1;
  int sock_ = -1;
  uint64_t line_ = 0;
};

TEST_F(MatcherProcessTest, AnswersWithThePatternThatMatches) {
  StartWith(7, {"fan", "(ab+)\\1"});
  const Said said = Match(7, "an abbabb\n");
  EXPECT_EQ(said.kind, MatcherKind::kMatch);
  EXPECT_EQ(said.line, 1U);
  EXPECT_EQ(said.value, 1);
  EXPECT_EQ(said.text, "(ab+)\\1");
}

TEST_F(MatcherProcessTest, FirstInFileOrderWins) {
  StartWith(7, {"fan", "(r)\\1", "error"});
  EXPECT_EQ(PriorityOf(7, "error\n"), 1);
  EXPECT_EQ(PriorityOf(7, "eror error fan\n"), 0);
  EXPECT_EQ(PriorityOf(7, "eror\n"), -1);
}

TEST_F(MatcherProcessTest, EachLineHasItsSet) {
  TellSet(3, {"fan", "disk"});
  TellSet(4, {"psu", "fan"});
  Start();
  EXPECT_EQ(PriorityOf(3, "fan\n"), 0);
  EXPECT_EQ(PriorityOf(4, "fan\n"), 1);
  EXPECT_EQ(PriorityOf(3, "psu\n"), -1);
  EXPECT_EQ(PriorityOf(4, "disk\n"), -1);
  for (const uint32_t unknown : {0U, 2U, 5U}) EXPECT_EQ(PriorityOf(unknown, "fan\n"), -1);
}

TEST_F(MatcherProcessTest, CaseMattersUnlessToldOtherwise) {
  Send({.kind = MatcherKind::kPattern, .set = 1, .number = 0, .value = 5}, "fan");
  Send({.kind = MatcherKind::kAnyCase, .set = 1, .number = 1, .value = 6}, "fan");
  Listen();
  Listen();
  Start();
  EXPECT_EQ(PriorityOf(1, "fan\n"), 5);
  EXPECT_EQ(PriorityOf(1, "Fan\n"), 6);
}

TEST_F(MatcherProcessTest, SetsCanBeReplaced) {
  StartWith(1, {"fan"});
  EXPECT_EQ(PriorityOf(1, "fan\n"), 0);
  Send({.kind = MatcherKind::kForget});
  EXPECT_EQ(PriorityOf(1, "fan\n"), -1);
  StartWith(2, {"x", "fan"});
  EXPECT_EQ(PriorityOf(2, "fan\n"), 1);
  EXPECT_EQ(PriorityOf(1, "fan\n"), -1);
}

TEST_F(MatcherProcessTest, BadPatternsAreToldWithTheReasonAndLeftOut) {
  StartWith(1, {"a(b", "(x)\\2", "fan"});
  const Said first = Listen();
  EXPECT_EQ(first.kind, MatcherKind::kBadPattern);
  EXPECT_EQ(first.set, 1U);
  EXPECT_EQ(first.number, 0U);
  EXPECT_EQ(first.text, "a(b\nUnmatched ( or \\(");
  EXPECT_EQ(Listen().text, "(x)\\2\nInvalid back reference");
  EXPECT_EQ(PriorityOf(1, "fan\n"), 2);
}

TEST_F(MatcherProcessTest, PatternThatTakesTheStackIsToldAndTheLineGoesOn) {
  StartWith(1, {"fan", kDeep, "aaa$"});
  const Said blamed = Match(1, "aaa");
  EXPECT_EQ(blamed.kind, MatcherKind::kMatchCrashed);
  EXPECT_EQ(blamed.number, 1U);
  EXPECT_EQ(blamed.value, SIGSEGV);
  EXPECT_EQ(blamed.text, kDeep);
  const Said answer = Listen();
  EXPECT_EQ(answer.kind, MatcherKind::kMatch);
  EXPECT_EQ(answer.value, 2);
  EXPECT_EQ(PriorityOf(1, "aaa"), 2) << "it is not tried again";
}

TEST_F(MatcherProcessTest, PatternThatTakesTooLongIsToldAndTheLineGivenUp) {
  const std::string slow = "(.*)(.*)(.*)\\1\\2\\3b";
  StartWith(1, {"fan", slow, "x"});
  std::string line = "x";
  for (int i = 0; i < 40; ++i) line += "ac";
  const Said blamed = Match(1, line);
  EXPECT_EQ(blamed.kind, MatcherKind::kMatchTooLong);
  EXPECT_EQ(blamed.number, 1U);
  EXPECT_EQ(blamed.text, slow);
  EXPECT_EQ(Listen().kind, MatcherKind::kNoMatch);
  EXPECT_EQ(PriorityOf(1, line), 2);
  EXPECT_EQ(PriorityOf(1, "a fan\n"), 0);
}

TEST_F(MatcherProcessTest, PatternThatCannotBeCompiledIsToldAndTheOthersGoOn) {
  constexpr char kBomb[] = "((a{1,255}){1,255}){1,255}";
  StartWith(1, {"fan", kBomb, "psu"});
  const Said blamed = Listen();
  EXPECT_EQ(blamed.number, 1U);
  EXPECT_EQ(blamed.text.substr(0, sizeof kBomb - 1), kBomb);
  EXPECT_THAT(blamed.kind, ::testing::AnyOf(MatcherKind::kBadPattern, MatcherKind::kCompileTooLong,
                                            MatcherKind::kCompileCrashed));
  EXPECT_EQ(PriorityOf(1, "fan\n"), 0);
  EXPECT_EQ(PriorityOf(1, "psu\n"), 2);
}

TEST_F(MatcherProcessTest, EndsWithTheDaemon) {
  StartWith(1, {"fan"});
  EXPECT_EQ(PriorityOf(1, "fan\n"), 0);
  shutdown(sock_, SHUT_RDWR);
  ExpectEnd();
}

TEST_F(MatcherProcessTest, WhatIsNoMessageEndsIt) {
  ASSERT_EQ(send(sock_, "x", 1, 0), 1);
  ExpectEnd();
}

TEST_F(MatcherProcessTest, FirstMatchIsWhatTheSystemFindsOneByOne) {
  std::cout << "ZEVD_TEST_SEED=" << test::Seed() << '\n';
  test::Dice dice(test::Seed());
  int matches = 0;
  for (uint32_t set = 1; set <= 60; ++set) {
    std::vector<test::RandomPattern> patterns;
    std::vector<regex_t> compiled;
    std::vector<std::string> texts;
    for (size_t left = 1 + dice.Below(8); left > 0; --left) {
      const test::RandomPattern pattern = test::MakePattern(dice);
      regex_t expression;
      if (regcomp(&expression, pattern.pattern.c_str(), REG_EXTENDED) != 0) continue;
      patterns.push_back(pattern);
      compiled.push_back(expression);
      texts.push_back(pattern.pattern);
    }
    if (patterns.empty()) continue;
    Send({.kind = MatcherKind::kForget});
    TellSet(set, texts);
    Start();
    for (int i = 0; i < 10; ++i) {
      const std::string line = test::MakeLine(patterns, dice);
      int expected = -1;
      for (size_t place = 0; place < compiled.size() && expected == -1; ++place) {
        if (regexec(&compiled[place], line.c_str(), 0, nullptr, 0) == 0)
          expected = static_cast<int>(place);
      }
      ASSERT_EQ(PriorityOf(set, line), expected) << line;
      matches += expected != -1;
    }
    for (regex_t& expression : compiled) regfree(&expression);
  }
  EXPECT_GT(matches, 200);
}

// ---- The start ----------------------------------------------------------------------------------

TEST(MatcherStartTest, TheNameAloneDoesNotMakeTheMatcher) {
  char name[] = "zevd-matcher";
  char path[] = "./zevd-matcher";
  char option[] = "-f";
  char* plain[] = {name, nullptr};
  char* with_path[] = {path, nullptr};
  char* with_option[] = {name, option, nullptr};
  const test::Descriptor kept(dup(kMatcherSocket));
  int ends[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
  dup2(ends[0], kMatcherSocket);
  EXPECT_FALSE(IsMatcherProcess(1, plain)) << "another kind of socket";
  close(ends[1]);
  if (ends[0] != kMatcherSocket) close(ends[0]);
  close(kMatcherSocket);
  EXPECT_FALSE(IsMatcherProcess(1, plain)) << "no socket";
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
  dup2(ends[0], kMatcherSocket);
  EXPECT_TRUE(IsMatcherProcess(1, plain));
  EXPECT_FALSE(IsMatcherProcess(1, with_path));
  EXPECT_FALSE(IsMatcherProcess(2, with_option));
  close(ends[1]);
  if (ends[0] != kMatcherSocket) close(ends[0]);
  if (kept.get() != -1) {
    dup2(kept.get(), kMatcherSocket);
  } else {
    close(kMatcherSocket);
  }
}

}  // namespace
