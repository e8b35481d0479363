#include "matcher.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "clock.h"
#include "debug_support.h"
#include "failure_support.h"
#include "file_support.h"
#include "lists.h"
#include "log_steps.h"
#include "relay_support.h"

using namespace zevd;

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr char kTwice[] = "(r)\\1";

/// What the matcher is sent; `value` is a line's number or a pattern's priority.
struct Told {
  MatcherKind kind;
  int64_t value;
  std::string text;
  bool operator==(const Told& other) const = default;
};

void PrintTo(const Told& told, std::ostream* out) {
  *out << static_cast<unsigned>(told.kind) << " " << told.value << " \"" << told.text << '"';
}

const Told kForget = {MatcherKind::kForget, 0, ""};
const Told kStart = {MatcherKind::kStart, 0, ""};

Told Pattern(int64_t priority, std::string text) {
  return {MatcherKind::kPattern, priority, std::move(text)};
}
Told AnyCase(int64_t priority, std::string text) {
  return {MatcherKind::kAnyCase, priority, std::move(text)};
}
Told Line(int64_t number, std::string text) {
  return {MatcherKind::kLine, number, std::move(text)};
}

/// The other end of the socket of the last matcher that was started, and the process that stands in
/// for it, which does nothing.
struct FakeMatcher {
  test::Descriptor sock;
  pid_t pid = -1;
  int starts = 0;
  int error = 0;  ///< not 0: it cannot be started
};

FakeMatcher* fake = nullptr;

int StartFake(int sock, pid_t* pid) {
  ++fake->starts;
  if (fake->error != 0) return fake->error;
  fake->sock.Reset(fcntl(sock, F_DUPFD_CLOEXEC, 0));
  *pid = fork();
  if (*pid == 0) {
    for (;;) pause();
  }
  fake->pid = *pid;
  return 0;
}

/// The monotonic clock stands still except for what the test lets pass.
class SlowTime {
 public:
  SlowTime() : step_(std::make_unique<test::FakePassageOfTime>(1)) {}

  void Pass(int64_t microseconds) {
    step_.reset();
    step_ = std::make_unique<test::FakePassageOfTime>(microseconds);
    MonotonicMicroseconds();
    step_.reset();
    step_ = std::make_unique<test::FakePassageOfTime>(1);
  }

 private:
  std::unique_ptr<test::FakePassageOfTime> step_;
};

class MatcherTest : public test::RelayTest {
 protected:
  MatcherTest() {
    fake = &fake_;
    std::filesystem::create_directory("root/events");
  }

  // Nothing is left of the process.
  ~MatcherTest() override {
    const test::DebugCapture capture(0);
    EmptyEventSetList(ev_list);
    matcher_.SetsChanged();
    EXPECT_TRUE(ServedUntil([this] { return !IsProcess(fake_.pid); }));
    EXPECT_THAT(cons_mon_waker.beside(), IsEmpty());
  }

  static bool IsProcess(pid_t pid) { return pid != -1 && kill(pid, 0) == 0; }

  void Load(std::string_view content) {
    EmptyEventSetList(ev_list);
    test::WriteFile("root/events/set", content);
    ASSERT_EQ(LoadEventFile("set", ev_list), 0);
    matcher_.SetsChanged();
  }

  static uint32_t Set() { return FindEventNode("set", ev_list)->re_list->matcher_set; }

  void Take(std::string_view record, const char* cname = "box") {
    matcher_.Take(cname, Set(), record);
  }

  // Everything that the matcher has been sent since the last call.
  std::vector<Told> Heard() const {
    std::vector<Told> heard;
    MatcherMessage message;
    while (ReceiveFromMatcher(fake_.sock.get(), &message, MSG_DONTWAIT) == Received::kMessage) {
      const MatcherHeader& header = message.header;
      const bool is_line = header.kind == MatcherKind::kLine;
      heard.push_back({header.kind, is_line ? static_cast<int64_t>(header.line) : header.value,
                       std::string(message.Text())});
    }
    return heard;
  }

  void Say(const MatcherHeader& header, std::string_view text = {}) {
    ASSERT_TRUE(SendToMatcher(fake_.sock.get(), header, text, 0));
    matcher_.Serve();
  }

  bool ServedUntil(const std::function<bool()>& condition) {
    return test::Eventually([&] {
      matcher_.Serve();
      return condition();
    });
  }

  // It ends, and is seen to have ended.
  void EndFake(test::DebugCapture& capture) {
    kill(fake_.pid, SIGKILL);
    fake_.sock.Reset();
    EXPECT_TRUE(ServedUntil([&] {
      return capture.Has("Matcher: The matcher has ended (signal 9) and is started again.\n");
    }));
  }

  test::StationRoot root_;
  FakeMatcher fake_;
  Matcher matcher_{StartFake};
};

TEST_F(MatcherTest, SendsThePatternsInFileOrder) {
  Load("a 4 0 (r)\\1\nb 5 1 fan\nc 6 00 psu\nd -7 0 x\n");
  EXPECT_THAT(Heard(), ElementsAre(kForget, AnyCase(4, kTwice), Pattern(5, "fan"),
                                   Pattern(6, "psu"), AnyCase(-7, "x"), kStart));
  matcher_.Serve();
  EXPECT_THAT(Heard(), IsEmpty());
}

TEST_F(MatcherTest, SetsWithoutHardPatternsAreNotSent) {
  test::WriteFile("root/events/plain", "a 1 0 fan\n");
  LoadEventFile("plain", ev_list);
  matcher_.SetsChanged();
  matcher_.Serve();
  EXPECT_EQ(fake_.starts, 0);
  test::WriteFile("root/events/set", "b 2 1 (r)\\1\n");
  LoadEventFile("set", ev_list);
  matcher_.SetsChanged();
  EXPECT_EQ(fake_.starts, 1);
  EXPECT_THAT(Heard(), ElementsAre(kForget, Pattern(2, kTwice), kStart));
}

TEST_F(MatcherTest, PatternsThatFindNoRoomAreSentLater) {
  std::string file = "a 0 1 (r)\\1\n";
  for (int i = 1; i < 2000; ++i) file += "a " + std::to_string(i) + " 1 x\n";
  Load(file);
  Take("a line\n");
  std::vector<Told> all;
  while (all.empty() || all.back().kind != MatcherKind::kLine) {
    const std::vector<Told> heard = Heard();
    ASSERT_FALSE(heard.empty());
    all.insert(all.end(), heard.begin(), heard.end());
    Say({.kind = MatcherKind::kTaken});
  }
  ASSERT_EQ(all.size(), 2003U);
  EXPECT_EQ(all[2000], Pattern(1999, "x"));
  EXPECT_EQ(all[2001], kStart);
  EXPECT_EQ(all[2002], Line(1, "a line\n"));
}

TEST_F(MatcherTest, LinesAreHandedOverAsTextAtOnce) {
  using namespace std::string_view_literals;
  Load("a 4 1 (r)\\1\n");
  Heard();
  Take("one\n");
  Take("two\0more\n"sv);
  Take(std::string(9000, 'x'));
  EXPECT_THAT(Heard(),
              ElementsAre(Line(1, "one\n"), Line(2, "two"), Line(3, std::string(8191, 'x'))));
}

TEST_F(MatcherTest, MatchIsPostedWithTheConsolesNameAndTheLine) {
  Load("a 4 1 (r)\\1\n");
  Take("an error\n");
  test::DebugCapture capture(kDetail);
  Say({.kind = MatcherKind::kMatch, .value = 4, .line = 1}, kTwice);
  EXPECT_TRUE(capture.Has("WriteBuffer: Matched pattern \"(r)\\1\" in string \"an error\n\".\n"));
  EXPECT_THAT(test::Containing(capture.Messages(), "template=qor.zevd.console"),
              ElementsAre("PostJixEvent: template=qor.zevd.console name=box message=an error\n "
                          "priority=4\n"));
}

TEST_F(MatcherTest, LineThatMatchesNothingIsDoneWith) {
  Load("a 4 1 (r)\\1\n");
  Take("one\n");
  Take("two\n");
  test::DebugCapture capture(kDetail);
  Say({.kind = MatcherKind::kNoMatch, .line = 1});
  EXPECT_THAT(test::Containing(capture.Messages(), "Post"), IsEmpty());
  Say({.kind = MatcherKind::kMatch, .value = 4, .line = 2}, kTwice);
  EXPECT_TRUE(capture.Has("WriteBuffer: Matched pattern \"(r)\\1\" in string \"two\n\".\n"));
}

TEST_F(MatcherTest, PostingChangesTheNameOfTheConsole) {
  const test::EventCollector collector;
  Load("a 4 1 (r)\\1\n");
  test::Attached<ConsoleNode> connected = test::ConnectConsole("sys-a-1");
  ConsoleNode* not_connected = test::AddConsole(i_cons_list, "sys-b-1");
  Take("one\n", "sys-a-1");
  Take("two\n", "sys-b-1");
  Take("three\n", "sys-gone-1");
  for (uint64_t line = 1; line <= 3; ++line)
    Say({.kind = MatcherKind::kMatch, .value = 4, .line = line}, kTwice);
  EXPECT_STREQ(connected.node->cname, "sys_a_1");
  EXPECT_STREQ(not_connected->cname, "sys_b_1");
  const test::Descriptor events = collector.Accept();
  for (const char* name : {"sys_a_1", "sys_b_1", "sys_gone_1"})
    EXPECT_THAT(test::ReceiveLine(events.get()), HasSubstr(name));
}

TEST_F(MatcherTest, UnexpectedAnswerEndsTheMatcher) {
  Load("a 4 1 (r)\\1\n");
  Take("one\n");
  test::DebugCapture capture(0);
  const pid_t first = fake_.pid;
  Say({.kind = MatcherKind::kNoMatch, .line = 2});
  EXPECT_TRUE(capture.Has("Matcher: An answer was not the one that was due.\n"));
  EXPECT_TRUE(ServedUntil([&] { return !IsProcess(first); }));
}

TEST_F(MatcherTest, AnswerEndsTheMonitorsWait) {
  EXPECT_THAT(cons_mon_waker.beside(), IsEmpty());
  Load("a 4 1 (r)\\1\n");
  Take("one\n");
  DescriptorSet nobody;
  timeval timeout = {0, 0};
  EXPECT_EQ(WaitForMembers(-1, nobody, cons_mon_waker, &timeout), 0);
  ASSERT_TRUE(SendToMatcher(fake_.sock.get(), {.kind = MatcherKind::kNoMatch, .line = 1}, {}, 0));
  timeout = {60, 0};
  EXPECT_EQ(WaitForMembers(-1, nobody, cons_mon_waker, &timeout), 0);
  EXPECT_GT(timeout.tv_sec, 50);
  ASSERT_THAT(cons_mon_waker.beside(), SizeIs(1));
  EXPECT_TRUE(test::WaitReadable(cons_mon_waker.beside().front()));
  matcher_.Serve();
}

// ---- Patterns that are left out -----------------------------------------------------------------

TEST_F(MatcherTest, ReportsWhatIsWrongWithAPattern) {
  constexpr struct {
    MatcherKind kind;
    int value;
    const char* text;
  } kRows[] = {
      {MatcherKind::kCompileTooLong, 0, "takes too long to compile"},
      {MatcherKind::kCompileCrashed, 11, "cannot be compiled (signal 11)"},
      {MatcherKind::kMatchTooLong, 0, "took too long on a line"},
      {MatcherKind::kMatchCrashed, 6, "could not be matched with a line (signal 6)"},
      {MatcherKind::kMatchOutOfMemory, 0, "needs too much memory for a line"},
  };
  Load("a 4 1 (r)\\1\n");
  for (const auto& row : kRows) {
    test::DebugCapture capture(0);
    Say({.kind = row.kind, .set = Set(), .number = 0, .value = row.value}, "50% \"x\"");
    EXPECT_THAT(capture.Messages(),
                ElementsAre("Matcher: Pattern \"50% \"x\"\" " + std::string(row.text) +
                            " and is left out until the next reload.\n"));
  }
}

TEST_F(MatcherTest, BadPatternIsReportedAsAnyOther) {
  Load("a 4 1 (r)\\1\nb 5 1 a(b\n");
  test::DebugCapture capture(0);
  Say({.kind = MatcherKind::kBadPattern, .set = Set(), .number = 1}, "a(b\nUnmatched ( or \\(");
  EXPECT_THAT(
      capture.Messages(),
      ElementsAre("ParseRegExFile: regcomp() failed for pattern a(b : Unmatched ( or \\(\n"));
}

TEST_F(MatcherTest, NextMatcherIsNotSentWhatWasLeftOut) {
  Load("a 4 1 (r)\\1\nb 5 1 fan\nc 6 1 psu\n");
  test::DebugCapture capture(0);
  Say({.kind = MatcherKind::kMatchTooLong, .set = Set(), .number = 0}, kTwice);
  Say({.kind = MatcherKind::kMatchTooLong, .set = Set() + 1, .number = 1}, "of no set any more");
  EndFake(capture);
  ASSERT_TRUE(ServedUntil([this] { return fake_.starts == 2; }));
  EXPECT_THAT(Heard(), ElementsAre(kForget, Pattern(5, "fan"), Pattern(6, "psu"), kStart));
  Load("a 4 1 (r)\\1\n");
  EXPECT_THAT(Heard(), ElementsAre(kForget, Pattern(4, kTwice), kStart));
}

// ---- Too many lines -----------------------------------------------------------------------------

TEST_F(MatcherTest, LostLinesAreCountedAndReportedOnceTheQueueIsEmpty) {
  Load("a 4 1 (r)\\1\n");
  const std::string line(999, 'x');
  int taken = 0;
  test::DebugCapture capture(0);
  for (int i = 0; i < 2000; ++i) Take(line);
  for (uint64_t number = 1;; ++number) {
    const size_t before = capture.Messages().size();
    matcher_.Serve();
    if (capture.Messages().size() != before) break;
    MatcherMessage message;
    ASSERT_EQ(ReceiveFromMatcher(fake_.sock.get(), &message, MSG_DONTWAIT), Received::kMessage);
    if (message.header.kind != MatcherKind::kLine) {
      --number;
      continue;
    }
    ++taken;
    ASSERT_TRUE(
        SendToMatcher(fake_.sock.get(), {.kind = MatcherKind::kNoMatch, .line = number}, {}, 0));
  }
  EXPECT_GT(taken, (1 << 20) / 1200);
  EXPECT_LT(taken, (1 << 20) / 999);
  EXPECT_THAT(capture.Messages(), ElementsAre("Matcher: " + std::to_string(2000 - taken) +
                                              " lines were not matched: too many were waiting.\n"));
  matcher_.Serve();
  EXPECT_EQ(capture.Messages().size(), 1U);
}

TEST_F(MatcherTest, QueueThatStaysFullIsReportedNowAndThen) {
  SlowTime time;
  Load("a 4 1 (r)\\1\n");
  test::DebugCapture capture(0);
  for (size_t told = 1; told <= 2; ++told) {
    for (int i = 0; i < 2000; ++i) Take(std::string(999, 'x'));
    time.Pass(4'900'000);
    matcher_.Serve();
    EXPECT_EQ(capture.Messages().size(), told - 1);
    time.Pass(200'000);
    matcher_.Serve();
    EXPECT_EQ(capture.Messages().size(), told);
    EXPECT_THAT(capture.Messages().back(), HasSubstr("too many were waiting.\n"));
    time.Pass(60'000'000);
    matcher_.Serve();
    EXPECT_EQ(capture.Messages().size(), told);
  }
}

TEST_F(MatcherTest, LineThatFindsNoMemoryIsCountedToo) {
  Load("a 4 1 (r)\\1\n");
  Heard();
  test::DebugCapture capture(0);
  {
    const test::FailAllocation failure(1);
    Take("one\n");
  }
  Take("two\n");
  EXPECT_THAT(Heard(), ElementsAre(Line(1, "two\n")));
  Say({.kind = MatcherKind::kNoMatch, .line = 1});
  EXPECT_THAT(capture.Messages(),
              ElementsAre("Matcher: 1 lines were not matched: too many were waiting.\n"));
}

// ---- Reloads ------------------------------------------------------------------------------------

TEST_F(MatcherTest, LinesThatWereHandedOverBeforeAReloadAreStillAnswered) {
  Load("a 4 1 (r)\\1\n");
  Take("one\n");
  Heard();
  test::DebugCapture capture(kInfo);
  Load("b 5 1 (fan)\\1\n");
  EXPECT_THAT(Heard(), ElementsAre(kForget, Pattern(5, "(fan)\\1"), kStart));
  Take("two\n");
  EXPECT_THAT(Heard(), ElementsAre(Line(2, "two\n")));
  Say({.kind = MatcherKind::kMatch, .value = 4, .line = 1}, kTwice);
  Say({.kind = MatcherKind::kMatch, .value = 5, .line = 2}, "(fan)\\1");
  EXPECT_TRUE(capture.Has("WriteBuffer: Matched pattern \"(r)\\1\" in string \"one\n\".\n"));
  EXPECT_TRUE(capture.Has("WriteBuffer: Matched pattern \"(fan)\\1\" in string \"two\n\".\n"));
  EXPECT_EQ(fake_.starts, 1);
}

TEST_F(MatcherTest, OtherLinesAreDroppedAndCountedByAReload) {
  Load("a 4 1 (r)\\1\n");
  for (int i = 0; i < 800; ++i) Take(std::string(999, 'x'));
  const size_t handed_over = Heard().size() - 3;
  ASSERT_LT(handed_over, 800U);
  test::DebugCapture capture(0);
  Load("b 5 1 (fan)\\1\n");
  EXPECT_TRUE(capture.Has("Matcher: " + std::to_string(800 - handed_over) +
                          " lines were not matched: they waited at a reload.\n"));
  for (uint64_t line = 1; line <= handed_over; ++line)
    Say({.kind = MatcherKind::kNoMatch, .line = line});
  Heard();
  Take("new\n");
  EXPECT_THAT(Heard(), ElementsAre(Line(801, "new\n")));
}

TEST_F(MatcherTest, ReloadWithoutHardPatternsEndsIt) {
  Load("a 4 1 (r)\\1\n");
  Take("one\n");
  const pid_t pid = fake_.pid;
  test::DebugCapture capture(0);
  Load("a 4 1 error\n");
  EXPECT_TRUE(ServedUntil([&] { return !IsProcess(pid); }));
  EXPECT_EQ(fake_.starts, 1);
  Load("a 4 1 (r)\\1\n");
  EXPECT_EQ(fake_.starts, 2) << "at once";
  EXPECT_THAT(test::Containing(capture.Messages(), "ended"), IsEmpty());
}

// ---- Its end ------------------------------------------------------------------------------------

TEST_F(MatcherTest, NextOneGetsTheUnansweredLinesButTheFirst) {
  Load("a 4 1 (r)\\1\n");
  for (const char* line : {"one\n", "two\n", "three\n", "four\n"}) Take(line);
  Say({.kind = MatcherKind::kNoMatch, .line = 1});
  test::DebugCapture capture(0);
  EndFake(capture);
  ASSERT_TRUE(ServedUntil([this] { return fake_.starts == 2; }));
  EXPECT_THAT(Heard(), ElementsAre(kForget, Pattern(4, kTwice), kStart, Line(3, "three\n"),
                                   Line(4, "four\n")));
}

TEST_F(MatcherTest, LinesWaitForTheNextOne) {
  Load("a 4 1 (r)\\1\n");
  test::DebugCapture capture(0);
  EndFake(capture);
  Take("one\n");
  ASSERT_TRUE(ServedUntil([this] { return fake_.starts == 2; }));
  EXPECT_THAT(Heard(), ElementsAre(kForget, Pattern(4, kTwice), kStart, Line(1, "one\n")));
}

TEST_F(MatcherTest, SilentOneIsReplacedLessAndLessOften) {
  SlowTime time;
  Load("a 4 1 (r)\\1\n");
  for (const int64_t seconds : {1, 2, 4, 8}) {
    test::DebugCapture capture(0);
    const int starts = fake_.starts;
    EndFake(capture);
    time.Pass(seconds * 1'000'000 - 100'000);
    matcher_.Serve();
    EXPECT_EQ(fake_.starts, starts) << seconds;
    time.Pass(200'000);
    matcher_.Serve();
    EXPECT_EQ(fake_.starts, starts + 1) << seconds;
  }
  Say({.kind = MatcherKind::kTaken});
  test::DebugCapture capture(0);
  EndFake(capture);
  time.Pass(1'100'000);
  matcher_.Serve();
  EXPECT_EQ(fake_.starts, 6) << "this one has said something";
}

TEST_F(MatcherTest, OneThatCannotBeStartedIsReportedOnceAndTriedEverySecond) {
  SlowTime time;
  fake_.error = EAGAIN;
  test::DebugCapture capture(0);
  Load("a 4 1 (r)\\1\n");
  for (int starts = 1; starts <= 3; ++starts) {
    EXPECT_EQ(fake_.starts, starts);
    time.Pass(900'000);
    matcher_.Serve();
    EXPECT_EQ(fake_.starts, starts);
    if (starts == 3) fake_.error = 0;
    time.Pass(200'000);
    matcher_.Serve();
  }
  EXPECT_THAT(Heard(), ElementsAre(kForget, Pattern(4, kTwice), kStart));
  EXPECT_THAT(capture.Messages(), ElementsAre("Matcher: The matcher cannot be started : "
                                              "Resource temporarily unavailable\n"));
}

TEST_F(MatcherTest, OneThatCannotBeStartedLeavesNoDescriptor) {
  const test::DebugCapture capture(0);
  const int next = test::NextDescriptor();
  fake_.error = ENOENT;
  Load("a 4 1 (r)\\1\n");
  EXPECT_EQ(test::NextDescriptor(), next);
  fake_.error = 0;
}

}  // namespace
