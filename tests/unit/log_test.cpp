#include "log.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <thread>

#include "attach.h"
#include "event_set.h"
#include "log_directory.h"
#include "paths.h"
#include "serv_conn.h"
#include "support.h"
#include "user.h"
#include "user_conn.h"

namespace {

thread_local bool fchmod_fails = false;
thread_local std::function<void()> before_fchmod;  // while a new log is being set up
thread_local std::function<void()> after_writev;   // when a record has been written

}  // namespace

// These take the place of the C library's.
extern "C" int fchmod(int fd, mode_t mode) noexcept {
  if (before_fchmod) before_fchmod();
  if (fchmod_fails) {
    errno = EPERM;
    return -1;
  }
  return static_cast<int>(syscall(SYS_fchmod, fd, mode));
}

extern "C" ssize_t writev(int fd, const iovec* parts, int count) {
  const ssize_t written = syscall(SYS_writev, fd, parts, count);
  if (after_writev) after_writev();
  return written;
}

namespace {

using namespace std::string_literals;
using ::testing::_;
using ::testing::AllOf;
using ::testing::Contains;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::SizeIs;

constexpr time_t kStart = 1'300'000'000;
constexpr char kStartStamp[] = "11/03/13_07:06:40";
constexpr char kNextStamp[] = "11/03/13_07:06:41";
constexpr char kDirectoryName[] = "13-Mar-07:06";
constexpr gid_t kGroup = 12345;

/// Dated directories are named in local time.
class UtcTest : public test::RelayTest {
 protected:
  UtcTest() {
    setenv("TZ", "UTC0", 1);
    tzset();
  }
  ~UtcTest() override {
    unsetenv("TZ");
    tzset();
  }
};

class LogTest : public UtcTest {
 protected:
  LogTest() : logs_(std::filesystem::absolute("root/logs").string()), saved_umask_(umask(007)) {
    log_dir = logs_.c_str();
    box_ = test::AddConsole(a_cons_list, "box");
    box_->logging = 1;
  }
  ~LogTest() override {
    before_fchmod = nullptr;
    after_writev = nullptr;
    CloseLogFile(box_);
    CloseConsolidatedLogFile();
    umask(saved_umask_);
  }

  std::string Dated(const std::string& rest = "") const { return logs_ + "/zev.dated" + rest; }
  std::string Current(const std::string& name) const { return Dated("/current/" + name); }
  std::string Log() const { return test::ReadFile(Current("box.log")); }
  std::string Consolidated() const { return test::ReadFile(Current("consolidated.log")); }

  // As the daemon does when the console has connected.
  void OpenLogs() {
    ASSERT_EQ(OpenConsolidatedLogFile(), 0);
    ASSERT_EQ(OpenLogFile(box_), 0);
  }

  int Print(std::string_view chunk) {
    return WriteLogFile(box_, chunk.data(), static_cast<int>(chunk.size()));
  }

  std::string Pending() const {
    return {box_->log_buf.buf, static_cast<size_t>(box_->log_buf.count)};
  }

  // A record of the console's log, and of the consolidated log.
  static std::string Record(const std::string& line, const char* stamp = kStartStamp) {
    return stamp + (" " + line);
  }
  static std::string ConsolidatedRecord(const std::string& line, const char* stamp = kStartStamp) {
    return stamp + (" box " + line);
  }

  static struct stat FileStatus(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
    return status;
  }
  static mode_t Mode(const std::string& path) { return FileStatus(path).st_mode & 07777U; }

  test::StationRoot root_;
  test::FakeClock clock_{kStart};
  std::string logs_;
  ConsoleNode* box_;

 private:
  mode_t saved_umask_;
};

// ---- Filters and terminators --------------------------------------------------------------------

struct Filtered {
  std::string in;
  std::string stripped;  // without CR, NUL and telnet commands
  std::string kept;      // without NUL
};

class FilterTest : public ::testing::TestWithParam<Filtered> {};

// Both buffers end where the chunk does, so that a sanitizer sees every byte too many.
std::string Apply(void (*filter)(const char*, char*, int*), const std::string& in) {
  const std::vector<char> chunk(in.begin(), in.end());
  std::vector<char> out(in.size());
  int count = static_cast<int>(in.size());
  filter(chunk.data(), out.data(), &count);
  return {out.data(), static_cast<size_t>(count)};
}

TEST_P(FilterTest, StripsCarriageReturnsNulsAndTelnetCommands) {
  EXPECT_EQ(Apply(RemoveCRsAndNULLs, GetParam().in), GetParam().stripped);
}

TEST_P(FilterTest, StripsNulsAlone) {
  EXPECT_EQ(Apply(RemoveNULLs, GetParam().in), GetParam().kept);
}

INSTANTIATE_TEST_SUITE_P(
    Chunks, FilterTest,
    ::testing::Values(Filtered{"", "", ""}, Filtered{"plain\n", "plain\n", "plain\n"},
                      Filtered{"abc\r\ndef\r\n", "abc\ndef\n", "abc\r\ndef\r\n"},
                      Filtered{"\r\r\n\r", "\n", "\r\r\n\r"},
                      Filtered{"a\0b\0\0c\0"s, "abc", "abc"}, Filtered{"\0"s, "", ""},
                      Filtered{"a\xff\xfb\x01z", "az", "a\xff\xfb\x01z"},
                      Filtered{"\xff\xfd\x03\xff\xfd\x18z", "z", "\xff\xfd\x03\xff\xfd\x18z"},
                      // Two bytes go with a 255 whatever they are.
                      Filtered{"a\xff\xff\xff"
                               "b",
                               "ab",
                               "a\xff\xff\xff"
                               "b"},
                      Filtered{"a\xff\xff"
                               "bc",
                               "ac",
                               "a\xff\xff"
                               "bc"},
                      Filtered{"a\xff\xf1"
                               "bc",
                               "ac",
                               "a\xff\xf1"
                               "bc"},
                      Filtered{"a\xff\r\nb", "ab", "a\xff\r\nb"},
                      Filtered{"a\xff\0\0b"s, "ab",
                               "a\xff"
                               "b"},
                      // Nor is there anything behind the end of the chunk.
                      Filtered{"a\xff", "a", "a\xff"}, Filtered{"a\xff\xfb", "a", "a\xff\xfb"},
                      Filtered{"\xff", "", "\xff"}, Filtered{"\xff\xff", "", "\xff\xff"},
                      Filtered{"\xfe\x80\x7f\x01", "\xfe\x80\x7f\x01", "\xfe\x80\x7f\x01"}));

TEST(FilterStateTest, CommandCutByTheEndOfTheChunkTakesNothingFromTheNext) {
  EXPECT_EQ(Apply(RemoveCRsAndNULLs, "a\xff\xfb"), "a");
  EXPECT_EQ(Apply(RemoveCRsAndNULLs, "bc"), "bc");
}

TEST(NewlineIndexTest, IsTheFirstTerminatorFromThePositionOn) {
  EXPECT_EQ(GetNewlineIndex("ab\ncd\re", 0, 7), 2);
  EXPECT_EQ(GetNewlineIndex("ab\ncd\re", 2, 7), 2);
  EXPECT_EQ(GetNewlineIndex("ab\ncd\re", 3, 7), 5);
  EXPECT_EQ(GetNewlineIndex("ab\ncd\re", 6, 7), -1);
  EXPECT_EQ(GetNewlineIndex("ab\ncd\re", 0, 2), -1);
  EXPECT_EQ(GetNewlineIndex("ab\n", 3, 3), -1);
  EXPECT_EQ(GetNewlineIndex("ab\n", 9, 3), -1);
  EXPECT_EQ(GetNewlineIndex("", 0, 0), -1);
}

// ---- Records ------------------------------------------------------------------------------------

TEST_F(LogTest, RecordIsStampBlankAndLine) {
  OpenLogs();
  EXPECT_EQ(Print("booting\n"), 0);
  EXPECT_EQ(Log(), "11/03/13_07:06:40 booting\n");
  EXPECT_EQ(Consolidated(), "11/03/13_07:06:40 box booting\n");
}

TEST_F(LogTest, WithCarriageReturnsSuppressedALineEndsWithALineFeedAlone) {
  OpenLogs();
  EXPECT_EQ(Print("abc\r\ndef\r\n"), 0);
  EXPECT_EQ(Log(), Record("abc\n") + Record("def\n"));
  EXPECT_EQ(Consolidated(), ConsolidatedRecord("abc\n") + ConsolidatedRecord("def\n"));
}

TEST_F(LogTest, WithCarriageReturnsKeptEachTerminatorEndsARecordOfItsOwn) {
  suppress_cr = 0;
  OpenLogs();
  EXPECT_EQ(Print("abc\r\ndef\r\n"), 0);
  EXPECT_EQ(Log(), Record("abc\r") + Record("\n") + Record("def\r") + Record("\n"));
  EXPECT_EQ(Consolidated(), ConsolidatedRecord("abc\r") + ConsolidatedRecord("\n") +
                                ConsolidatedRecord("def\r") + ConsolidatedRecord("\n"));
}

TEST_F(LogTest, AnyNonzeroOptionSuppresses) {
  suppress_cr = -2;
  OpenLogs();
  Print("a\rb\n");
  EXPECT_EQ(Log(), Record("ab\n"));
}

TEST_F(LogTest, TelnetBytesAreStrippedOrKept) {
  OpenLogs();
  Print("a\xff\xfb\x01z\n");
  suppress_cr = 0;
  Print("a\xff\xfb\x01z\n");
  EXPECT_EQ(Log(), Record("az\n") + Record("a\xff\xfb\x01z\n"));
}

TEST_F(LogTest, NulsAreNeverLogged) {
  OpenLogs();
  Print("a\0b\n"s);
  suppress_cr = 0;
  Print("a\0b\n"s);
  EXPECT_EQ(Log(), Record("ab\n") + Record("ab\n"));
}

TEST_F(LogTest, LineIsPutTogetherFromChunks) {
  OpenLogs();
  for (const char* chunk : {"b", "oo", "", "ting"}) EXPECT_EQ(Print(chunk), 0);
  EXPECT_EQ(Log(), "");
  EXPECT_EQ(Pending(), "booting");
  EXPECT_EQ(Print("\nnext"), 0);
  EXPECT_EQ(Log(), Record("booting\n"));
  EXPECT_EQ(Pending(), "next");
}

TEST_F(LogTest, StampIsThatOfTheEndOfTheLine) {
  OpenLogs();
  Print("boo");
  clock_.Advance(1);
  Print("ting\nmore\n");
  EXPECT_EQ(Log(), Record("booting\n", kNextStamp) + Record("more\n", kNextStamp));
}

TEST_F(LogTest, RecordHasOneTimeInBothLogsHoweverLongItsWritingTakes) {
  OpenLogs();
  after_writev = [this] { clock_.Advance(1); };
  Print("first\n");
  Print("second\n");
  constexpr char kThirdStamp[] = "11/03/13_07:06:42";
  EXPECT_EQ(Log(), Record("first\n") + Record("second\n", kThirdStamp));
  EXPECT_EQ(Consolidated(),
            ConsolidatedRecord("first\n") + ConsolidatedRecord("second\n", kThirdStamp));
}

TEST_F(LogTest, EmptyLinesAreRecords) {
  OpenLogs();
  Print("\n\n");
  EXPECT_EQ(Log(), Record("\n") + Record("\n"));
}

TEST_F(LogTest, BinaryOutputIsKeptAsItIs) {
  std::string line;
  for (int byte = 1; byte < 255; ++byte) {
    if (byte != '\n' && byte != '\r') line += static_cast<char>(byte);
  }
  OpenLogs();
  Print(line + "\n");
  EXPECT_EQ(Log(), Record(line + "\n"));
  EXPECT_EQ(Consolidated(), ConsolidatedRecord(line + "\n"));
}

// ---- The line buffer ----------------------------------------------------------------------------

TEST_F(LogTest, A1024thByteStillWaits) {
  OpenLogs();
  EXPECT_EQ(Print(std::string(1024, 'x')), 0);
  EXPECT_EQ(Log(), "");
  EXPECT_EQ(Print("y"), 0);
  EXPECT_EQ(Log(), Record(std::string(1024, 'x')));
  EXPECT_EQ(Pending(), "y");
}

TEST_F(LogTest, OutputWithoutATerminatorIsCutEvery1024Bytes) {
  OpenLogs();
  Print(std::string(1000, 'x'));
  Print(std::string(1000, 'x'));
  EXPECT_EQ(Log(), Record(std::string(1024, 'x')));
  EXPECT_EQ(Pending(), std::string(976, 'x'));
  Print("\n");
  EXPECT_EQ(Log(), Record(std::string(1024, 'x')) + Record(std::string(976, 'x') + "\n"));
}

TEST_F(LogTest, TerminatorBehindAFullBufferIsARecordOfItsOwn) {
  OpenLogs();
  Print(std::string(1024, 'x'));
  Print("\nnext\n");
  EXPECT_EQ(Log(), Record(std::string(1024, 'x')) + Record("\n") + Record("next\n"));
}

TEST_F(LogTest, TerminatorThatFillsTheBufferEndsItsLine) {
  OpenLogs();
  Print(std::string(1023, 'x') + "\n");
  EXPECT_EQ(Log(), Record(std::string(1023, 'x') + "\n"));
  EXPECT_EQ(Pending(), "");
}

TEST_F(LogTest, LinesInAFullBufferGoOutAndTheRestMovesUp) {
  OpenLogs();
  Print(std::string(1000, 'a'));
  Print("bbb\ncc" + std::string(1018, 'd'));
  EXPECT_EQ(Log(), Record(std::string(1000, 'a') + "bbb\n"));
  EXPECT_EQ(Pending(), "cc" + std::string(1018, 'd'));
}

TEST_F(LogTest, AMegabyteWithoutATerminatorLosesNothing) {
  OpenLogs();
  const std::string record = Record(std::string(1024, 'x'));
  std::string expected;
  for (int i = 0; i < 1024; ++i) {
    ASSERT_EQ(Print(std::string(1024, 'x')), 0);
    if (i > 0) expected += record;
  }
  EXPECT_EQ(Log(), expected);
  EXPECT_EQ(Pending(), std::string(1024, 'x'));
}

TEST_F(LogTest, ManyLinesInOneChunk) {
  OpenLogs();
  Print(std::string(1024, '\n'));
  std::string expected;
  for (int i = 0; i < 1024; ++i) expected += Record("\n");
  EXPECT_EQ(Log(), expected);
}

// ---- Who is attached ----------------------------------------------------------------------------

struct Audience {
  std::string name;
  std::vector<int> modes;
  bool logged;
  bool consolidated;
};

class AudienceTest : public LogTest, public ::testing::WithParamInterface<Audience> {};

TEST_P(AudienceTest, DecidesWhatIsLoggedWhere) {
  OpenLogs();
  std::vector<test::Attached<UserNode>> users;
  for (const int mode : GetParam().modes) users.push_back(test::AttachUser(box_, "ann", mode));
  EXPECT_EQ(Print("printed\n"), 0);
  EXPECT_EQ(Log(), GetParam().logged ? Record("printed\n") : "");
  EXPECT_EQ(Consolidated(), GetParam().consolidated ? ConsolidatedRecord("printed\n") : "");
  EXPECT_EQ(Pending(), "");
}

INSTANTIATE_TEST_SUITE_P(
    Users, AudienceTest,
    ::testing::Values(Audience{"Nobody", {}, true, true},
                      Audience{"ReadOnly", {kReadOnly}, true, false},
                      Audience{"Shared", {kShared}, true, false},
                      Audience{"Exclusive", {kExclusive}, true, false},
                      Audience{"Revocable", {kExclusiveRevocable}, false, false},
                      Audience{"RevocableFirst", {kExclusiveRevocable, kReadOnly}, false, false},
                      Audience{"RevocableSecond", {kReadOnly, kExclusiveRevocable}, true, false},
                      Audience{"Several", {kShared, kShared, kReadOnly}, true, false}),
    [](const auto& test_case) { return test_case.param.name; });

TEST_F(LogTest, WhatWaitedIsJudgedWhenItsLineEnds) {
  OpenLogs();
  Print("begun alone, ");
  const auto user = test::AttachUser(box_, "ann", kShared);
  Print("ended watched\n");
  EXPECT_EQ(Log(), Record("begun alone, ended watched\n"));
  EXPECT_EQ(Consolidated(), "");
}

// ---- Events -------------------------------------------------------------------------------------

class LogEventTest : public LogTest {
 protected:
  // The console's event set is a file of these lines.
  void WatchFor(std::string_view patterns) {
    std::filesystem::create_directories("root/events");
    test::WriteFile("root/events/set", patterns);
    EXPECT_EQ(LoadEventFiles(ev_list), 0);
    box_->enode = FindEventNode("set", ev_list);
    box_->events = 1;
  }
};

MATCHER_P2(AnnouncesAConsoleEvent, name, priority, "") {
  return ::testing::ExplainMatchResult(
      AllOf(::testing::StartsWith("PostJixEvent: "), HasSubstr("qor.zevd.console"),
            HasSubstr("name=" + std::string(name)),
            HasSubstr("priority=" + std::to_string(priority))),
      arg, result_listener);
}

TEST_F(LogEventTest, MatchIsReportedPostedAndLogged) {
  WatchFor("a 300 0 disk.*error\n");
  OpenLogs();
  const test::DebugCapture capture(kDetail);
  Print("Disk Error on drive 2\n");
  EXPECT_THAT(capture.Messages(), Contains("WriteBuffer: Matched pattern \"disk.*error\" in string "
                                           "\"Disk Error on drive 2\n\".\n"));
  EXPECT_THAT(capture.Messages(), Contains(AllOf(AnnouncesAConsoleEvent("box", 300),
                                                 HasSubstr("message=Disk Error on drive 2\n"))));
  EXPECT_EQ(Log(), Record("Disk Error on drive 2\n"));
}

TEST_F(LogEventTest, EachRecordIsMatchedOnItsOwn) {
  WatchFor("a 1 1 disk.*error\nb 2 1 ^error\n");
  OpenLogs();
  const test::DebugCapture capture(kDetail);
  Print("disk\nerror\n");
  EXPECT_THAT(test::Containing(capture.Messages(), "Matched"),
              ElementsAre("WriteBuffer: Matched pattern \"^error\" in string \"error\n\".\n"));
  EXPECT_THAT(capture.Messages(), Contains(AnnouncesAConsoleEvent("box", 2)));
}

TEST_F(LogEventTest, BlockWithoutATerminatorIsMatchedToo) {
  WatchFor("a 1 1 ^x{10}.*x$\n");
  OpenLogs();
  const test::DebugCapture capture(kInfo);
  Print(std::string(1024, 'x'));
  EXPECT_THAT(test::Containing(capture.Messages(), "Matched"), IsEmpty());
  Print("y");
  EXPECT_THAT(test::Containing(capture.Messages(), "Matched"), SizeIs(1));
}

TEST_F(LogEventTest, OnlyAConsoleWithItsEventsFlagAtOneIsMatched) {
  WatchFor("a 1 1 error\n");
  OpenLogs();
  for (const int flag : {0, 2, -1}) {
    const test::DebugCapture capture(kDetail);
    box_->events = flag;
    Print("error\n");
    EXPECT_THAT(capture.Messages(), Each(Not(HasSubstr("Matched")))) << flag;
    EXPECT_THAT(capture.Messages(), Each(Not(HasSubstr("qor.zevd.console")))) << flag;
  }
}

TEST_F(LogEventTest, ConsoleWithoutASetNeverMatches) {
  OpenLogs();
  box_->events = 1;
  const test::DebugCapture capture(kDetail);
  EXPECT_EQ(Print("error\n"), 0);
  EXPECT_THAT(capture.Messages(), IsEmpty());
  EXPECT_EQ(Log(), Record("error\n"));
}

TEST_F(LogEventTest, WhileSomebodyIsAttachedNothingIsMatched) {
  WatchFor("a 1 1 error\n");
  OpenLogs();
  for (const int mode : {kReadOnly, kShared, kExclusive, kExclusiveRevocable}) {
    const auto user = test::AttachUser(box_, "ann", mode);
    const test::DebugCapture capture(kDetail);
    Print("error\n");
    EXPECT_THAT(capture.Messages(), Each(Not(HasSubstr("qor.zevd.console")))) << mode;
  }
}

TEST_F(LogEventTest, WithoutAnEventManagerTheConsoleKeepsItsName) {
  box_ = test::AddConsole(a_cons_list, "sys-a-1");
  WatchFor("a 1 1 error\n");
  OpenLogs();
  Print("error\n");
  EXPECT_STREQ(box_->cname, "sys-a-1");
}

// ---- Failing writes -----------------------------------------------------------------------------

TEST_F(LogTest, LogThatIsNotOpenIsReportedForEveryChunk) {
  ASSERT_EQ(OpenConsolidatedLogFile(), 0);
  const test::DebugCapture capture(0);
  EXPECT_EQ(Print("lost\n"), -1);
  EXPECT_THAT(capture.Messages(),
              ElementsAre("WriteLogFile: Log file for box has not been opened.\n"));
  EXPECT_EQ(Pending(), "");
  EXPECT_EQ(Consolidated(), "");
}

TEST_F(LogTest, RecordForALogThatIsNotOpenFailsWithoutAWord) {
  const test::DebugCapture capture(0);
  EXPECT_EQ(WriteBuffer(box_, "lost\n", 5), -1);
  EXPECT_THAT(capture.Messages(), IsEmpty());
}

TEST_F(LogTest, WithoutTheConsolidatedLogTheRecordStillGoesToTheConsolesOwn) {
  ASSERT_EQ(OpenLogFile(box_), 0);
  const test::DebugCapture capture(0);
  EXPECT_EQ(WriteBuffer(box_, "kept\n", 5), -1);
  EXPECT_EQ(Print("one\ntwo\n"), -1);
  EXPECT_THAT(capture.Messages(), IsEmpty());
  EXPECT_EQ(Log(), Record("kept\n") + Record("one\n") + Record("two\n"));
  EXPECT_EQ(Pending(), "");
}

TEST_F(LogTest, WithoutTheConsolidatedLogEvenAWatchedRecordFails) {
  ASSERT_EQ(OpenLogFile(box_), 0);
  const auto user = test::AttachUser(box_, "ann", kShared);
  EXPECT_EQ(WriteBuffer(box_, "kept\n", 5), -1);
  EXPECT_EQ(Log(), Record("kept\n"));
}

// Whoever has the file open goes on writing to a device that is always full.
void FillDiskUnder(const std::string& path) {
  const test::Descriptor full(open("/dev/full", O_WRONLY | O_CLOEXEC));
  const std::filesystem::path file = std::filesystem::canonical(path);
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    if (std::filesystem::read_symlink(entry.path(), gone) != file) continue;
    ASSERT_NE(dup3(full.get(), std::stoi(entry.path().filename()), O_CLOEXEC), -1);
  }
}

TEST_F(LogTest, FullDiskCostsTheRecordAndIsReported) {
  OpenLogs();
  FillDiskUnder(Current("box.log"));
  const test::DebugCapture capture(0);
  EXPECT_EQ(Print("lost\nrest"), -1);
  EXPECT_THAT(
      capture.Messages(),
      ElementsAre("WriteBuffer: write() failed for console \"box\" : No space left on device\n"));
  EXPECT_EQ(Consolidated(), "");
  EXPECT_EQ(Pending(), "rest");
}

TEST_F(LogTest, FullDiskOfTheConsolidatedLogIsReportedUnderItsName) {
  OpenLogs();
  FillDiskUnder(Current("consolidated.log"));
  const test::DebugCapture capture(0);
  EXPECT_EQ(Print("kept\n"), -1);
  EXPECT_THAT(capture.Messages(),
              ElementsAre("WriteBuffer: write() failed for \"consolidated.log\" : "
                          "No space left on device\n"));
  EXPECT_EQ(Log(), Record("kept\n"));
}

/// In a child: no file grows beyond `size`.
void LimitFiles(size_t size) {
  signal(SIGXFSZ, SIG_IGN);
  const rlimit limit = {size, size};
  if (setrlimit(RLIMIT_FSIZE, &limit) != 0) _exit(99);
}

TEST_F(LogTest, RecordThatDoesNotFitLeavesNoPieceOfItself) {
  EXPECT_HOLDS_IN_CHILD({
    OpenLogs();
    const std::string first = Record("first\n");
    LimitFiles(first.size() + 20);
    EXPECT_EQ(Print("first\n"), 0);
    EXPECT_EQ(Print("a line of more than twenty bytes\n"), -1);
    EXPECT_EQ(Log(), first);
  });
}

// ---- Closing ------------------------------------------------------------------------------------

TEST_F(LogTest, ClosingWritesThePendingBytesAndThenARecordOfOneLineFeed) {
  OpenLogs();
  Print("done\npend");
  CloseLogFile(box_);
  EXPECT_EQ(box_->log_fd, -1);
  EXPECT_EQ(Log(), Record("done\n") + Record("pend") + Record("\n"));
  EXPECT_EQ(Consolidated(),
            ConsolidatedRecord("done\n") + ConsolidatedRecord("pend") + ConsolidatedRecord("\n"));
  EXPECT_EQ(Pending(), "");
}

TEST_F(LogTest, ClosingAfterAWholeLineWritesNothing) {
  OpenLogs();
  Print("done\n");
  CloseLogFile(box_);
  EXPECT_EQ(Log(), Record("done\n"));
}

TEST_F(LogTest, ClosingAFullBufferWritesItInOnePiece) {
  OpenLogs();
  Print(std::string(1024, 'x'));
  CloseLogFile(box_);
  EXPECT_EQ(Log(), Record(std::string(1024, 'x')) + Record("\n"));
}

TEST_F(LogTest, ClosingTwiceIsNothing) {
  OpenLogs();
  CloseLogFile(box_);
  CloseConsolidatedLogFile();
  const test::DebugCapture capture(kInfo);
  CloseLogFile(box_);
  CloseConsolidatedLogFile();
  EXPECT_THAT(capture.Messages(), IsEmpty());
}

TEST_F(LogTest, PendingBytesOfARevocableUserAreNotWritten) {
  OpenLogs();
  const auto user = test::AttachUser(box_, "ann", kExclusiveRevocable);
  Print("secret");
  CloseLogFile(box_);
  EXPECT_EQ(Log(), "");
  EXPECT_EQ(Pending(), "");
}

TEST_F(LogTest, ReopeningAppends) {
  OpenLogs();
  Print("one\n");
  CloseLogFile(box_);
  ASSERT_EQ(OpenLogFile(box_), 0);
  Print("two\n");
  EXPECT_EQ(Log(), Record("one\n") + Record("two\n"));
}

// ---- Opening ------------------------------------------------------------------------------------

TEST_F(LogTest, FirstOpenMakesTheDirectoriesAndTheLink) {
  const test::DebugCapture capture(kInfo);
  ASSERT_EQ(OpenLogFile(box_), 0);
  EXPECT_EQ(std::filesystem::read_symlink(Dated("/current")).string(),
            logs_ + "//zev.dated/" + kDirectoryName);
  EXPECT_TRUE(std::filesystem::is_regular_file(Dated("/"s + kDirectoryName + "/box.log")));
  EXPECT_THAT(capture.Messages(),
              ElementsAre("OpenLogFile: opened " + logs_ + "//zev.dated/current/box.log\n"));
}

TEST_F(LogTest, ConsolidatedLogIsOpenedInTheSameWay) {
  const test::DebugCapture capture(kInfo);
  ASSERT_EQ(OpenConsolidatedLogFile(), 0);
  EXPECT_TRUE(std::filesystem::is_regular_file(Dated("/"s + kDirectoryName + "/consolidated.log")));
  EXPECT_THAT(capture.Messages(), ElementsAre("OpenConsolidatedLogFile: opened " + logs_ +
                                              "//zev.dated/current/consolidated.log\n"));
}

TEST_F(LogTest, NewFilesAndDirectoriesHaveTheirModesAndTheGroupOfTheRoot) {
  // Without the right to do so the root keeps its group, which all must then have as well.
  [[maybe_unused]] const int ignored = chown(kQorRoot, static_cast<uid_t>(-1), kGroup);
  const gid_t group = FileStatus(kQorRoot).st_gid;
  OpenLogs();
  const std::string directory = Dated("/"s + kDirectoryName);
  EXPECT_EQ(Mode(Dated()), 0770U);
  EXPECT_EQ(Mode(directory), 0770U);
  EXPECT_EQ(Mode(directory + "/box.log"), 0660U);
  EXPECT_EQ(Mode(directory + "/consolidated.log"), 0660U);
  for (const std::string& path :
       {Dated(), directory, directory + "/box.log", directory + "/consolidated.log"}) {
    EXPECT_EQ(FileStatus(path).st_gid, group) << path;
    EXPECT_EQ(FileStatus(path).st_uid, geteuid()) << path;
  }
}

TEST_F(LogTest, OldFilesKeepTheirModesAndGroups) {
  std::filesystem::create_directories(Dated("/old"));
  std::filesystem::create_symlink(Dated("/old"), Dated("/current"));
  for (const char* name : {"box.log", "consolidated.log"}) {
    test::WriteFile(Current(name), "old\n");
    ASSERT_EQ(chmod(Current(name).c_str(), 0604), 0);
  }
  const test::FailCall chowns(test::Call::kFchown, EPERM);
  OpenLogs();
  EXPECT_EQ(chowns.calls(), 0);
  EXPECT_EQ(Mode(Current("box.log")), 0604U);
  EXPECT_EQ(Mode(Current("consolidated.log")), 0604U);
  Print("new\n");
  EXPECT_EQ(Log(), "old\n" + Record("new\n"));
}

TEST_F(LogTest, WithoutTheRootNothingIsGivenAway) {
  const test::TemporaryDirectory elsewhere;
  log_dir = elsewhere.path().c_str();
  std::filesystem::rename("root", "away");
  const test::FailCall chowns(test::Call::kFchown, EPERM);
  EXPECT_EQ(OpenConsolidatedLogFile(), 0);
  EXPECT_EQ(OpenLogFile(box_), 0);
  EXPECT_EQ(chowns.calls(), 0);
  EXPECT_EQ(Mode((elsewhere.path() / "zev.dated/current/box.log").string()), 0770U);
  CloseLogFile(box_);
  CloseConsolidatedLogFile();
  std::filesystem::rename("away", "root");
}

TEST_F(LogTest, LogsAreClosedToOtherPrograms) {
  OpenLogs();
  EXPECT_NE(fcntl(box_->log_fd, F_GETFD) & FD_CLOEXEC, 0);
}

TEST_F(LogTest, LogThatCannotBeOpenedIsReportedByItsPath) {
  std::filesystem::create_directories(Dated("/old/box.log"));
  std::filesystem::create_directories(Dated("/old/consolidated.log"));
  std::filesystem::create_symlink(Dated("/old"), Dated("/current"));
  const test::DebugCapture capture(0);
  EXPECT_EQ(OpenLogFile(box_), -1);
  EXPECT_EQ(box_->log_fd, -1);
  EXPECT_EQ(OpenConsolidatedLogFile(), -1);
  EXPECT_THAT(capture.Messages(),
              ElementsAre("OpenLogFile: open() failed for \"" + logs_ +
                              "//zev.dated/current/box.log\" : Is a directory\n",
                          "OpenConsolidatedLogFile: open() failed for \"" + logs_ +
                              "//zev.dated/current/consolidated.log\" : Is a directory\n"));
}

TEST_F(LogTest, MissingLogDirectoryFailsBothLogs) {
  std::filesystem::remove_all(logs_);
  const std::string report = "CreateZevDatedDir: mkdir( " + logs_ +
                             "//zev.dated, ...) failed : No such file or directory\n";
  test::DebugCapture capture(0);
  EXPECT_EQ(OpenLogFile(box_), -1);
  EXPECT_THAT(capture.NewMessages(), ElementsAre(report));
  EXPECT_EQ(box_->log_fd, -1);
}

TEST_F(LogTest, LogThatCannotBeGivenItsGroupEndsTheProcess) {
  ASSERT_EQ(OpenConsolidatedLogFile(), 0);
  const std::string path = logs_ + "//zev.dated/current/box.log";
  EXPECT_EXIT(
      {
        test::SendDebugToStderr(kDetail);
        const test::FailCall failure(test::Call::kFchown, EPERM);
        OpenLogFile(box_);
      },
      ::testing::ExitedWithCode(1),
      test::DebugTextsAre(AllOf(
          Contains("OpenLogFile: chown( " + path + ", ...) failed : Operation not permitted\n"),
          Contains(test::AnnouncesDaemonError("Terminated: Cannot chown cookie file")),
          Contains(test::IsExitTrace(1, "log.cpp")))));
}

TEST_F(LogTest, LogThatCannotBeGivenItsModeEndsTheProcess) {
  ASSERT_EQ(OpenConsolidatedLogFile(), 0);
  const std::string path = logs_ + "//zev.dated/current/box.log";
  EXPECT_EXIT(
      {
        test::SendDebugToStderr(kDetail);
        fchmod_fails = true;
        OpenLogFile(box_);
      },
      ::testing::ExitedWithCode(1),
      test::DebugTextsAre(AllOf(
          Contains("OpenLogFile: chmod( " + path + ", ...) failed : Operation not permitted\n"),
          Contains(test::AnnouncesDaemonError("Terminated: Cannot chmod cookie file")),
          Contains(test::IsExitTrace(1, "log.cpp")))));
}

TEST_F(LogTest, ConsolidatedLogThatCannotBeGivenItsGroupFailsButStaysOpen) {
  ASSERT_EQ(OpenLogFile(box_), 0);
  {
    const test::FailCall failure(test::Call::kFchown, EPERM);
    const test::DebugCapture capture(0);
    EXPECT_EQ(OpenConsolidatedLogFile(), -1);
    EXPECT_THAT(capture.Messages(),
                ElementsAre("OpenConsolidatedLogFile: chown( " + logs_ +
                            "//zev.dated/current/consolidated.log, ...) failed : "
                            "Operation not permitted\n"));
  }
  EXPECT_EQ(Print("kept\n"), 0);
  EXPECT_EQ(Consolidated(), ConsolidatedRecord("kept\n"));
}

/// The main thread's part while the connection thread opens a log: a new directory, a minute later.
class ArchivingThread {
 public:
  ArchivingThread() : thread_(&ArchivingThread::Run, this) {}
  ~ArchivingThread() { thread_.join(); }
  ArchivingThread(const ArchivingThread&) = delete;
  ArchivingThread& operator=(const ArchivingThread&) = delete;

  bool done() const { return done_; }

  /// It has said that it begins, and sleeps.
  bool IsWaiting(const test::DebugCapture& capture) const {
    return capture.Has("ArchiveLogDir: Archiving log directory\n") && State() == 'S';
  }

 private:
  void Run() {
    const test::FakeClock clock(kStart + 60);  // each thread has its own
    id_ = gettid();
    ArchiveLogDir();
    done_ = true;
  }

  char State() const {
    const std::string stat =
        test::ReadFile("/proc/self/task/" + std::to_string(id_.load()) + "/stat");
    return stat.at(stat.rfind(')') + 2);
  }

  std::atomic<pid_t> id_{0};
  std::atomic<bool> done_{false};
  std::thread thread_;  // the last, as it uses the others
};

TEST_F(LogTest, NewDirectoryIsNotBegunWhileALogIsSetUp) {
  ASSERT_EQ(OpenConsolidatedLogFile(), 0);
  const test::DebugCapture capture(kInfo);
  std::unique_ptr<ArchivingThread> archiving;
  before_fchmod = [&] {
    archiving = std::make_unique<ArchivingThread>();
    EXPECT_TRUE(
        test::Eventually([&] { return archiving->done() || archiving->IsWaiting(capture); }));
    EXPECT_FALSE(archiving->done());
    EXPECT_EQ(std::filesystem::read_symlink(Dated("/current")).filename(), kDirectoryName);
  };
  EXPECT_EQ(OpenLogFile(box_), 0);
  ASSERT_NE(archiving, nullptr);
  archiving.reset();
  EXPECT_EQ(std::filesystem::read_symlink(Dated("/current")).filename(), "13-Mar-07:07");
  EXPECT_EQ(Mode(Dated("/"s + kDirectoryName + "/box.log")), 0660U);
  EXPECT_EQ(Print("kept\n"), 0);
  EXPECT_EQ(test::ReadFile(Dated("/"s + kDirectoryName + "/box.log")), Record("kept\n"));
  EXPECT_THAT(capture.Messages(),
              ElementsAre("OpenLogFile: opened " + logs_ + "//zev.dated/current/box.log\n",
                          "ArchiveLogDir: Archiving log directory\n"));
}

TEST_F(LogTest, LogIsSetUpEvenIfItsDirectoryIsRemovedMeanwhile) {
  ASSERT_EQ(OpenConsolidatedLogFile(), 0);
  before_fchmod = [this] { std::filesystem::remove_all(Dated()); };
  EXPECT_EQ(OpenLogFile(box_), 0);
  ASSERT_FALSE(std::filesystem::exists(Dated()));
  struct stat log {};
  ASSERT_EQ(fstat(box_->log_fd, &log), 0);
  EXPECT_EQ(log.st_mode & 07777U, 0660U);
  EXPECT_EQ(Print("lost with its directory\n"), 0);
}

TEST_F(LogTest, LongLogDirectoryIsCutNotOverrun) {
  const std::string deep = "/" + std::string(5000, 'd');
  log_dir = deep.c_str();
  const test::DebugCapture capture(0);
  EXPECT_EQ(OpenLogFile(box_), -1);
  EXPECT_EQ(OpenConsolidatedLogFile(), -1);
  EXPECT_THAT(capture.Messages(), Each(HasSubstr("File name too long")));
  log_dir = logs_.c_str();
}

// ---- Directories --------------------------------------------------------------------------------

TEST_F(LogTest, DirectoryIsNamedByTheLocalTimeToTheMinute) {
  char name[kPathSize];
  GetNewDirName(name, sizeof name);
  EXPECT_EQ(name, logs_ + "//zev.dated/" + kDirectoryName);
  clock_.Advance(59 * 60);
  GetNewDirName(name, sizeof name);
  EXPECT_EQ(name, logs_ + "//zev.dated/13-Mar-08:05");
  char small[10];
  GetNewDirName(small, sizeof small);
  EXPECT_EQ(small, logs_.substr(0, 9));
}

TEST_F(LogTest, DatedDirectoryExistsOnceItIsMade) {
  EXPECT_EQ(ZevDatedDirExists(), 0);
  EXPECT_EQ(CreateZevDatedDir(), 0);
  EXPECT_EQ(ZevDatedDirExists(), 1);
  EXPECT_EQ(CreateZevDatedDir(), 0);
}

TEST_F(LogTest, GroupOfTheDatedDirectoryThatCannotBeGivenFailsTheOpen) {
  const test::FailCall failure(test::Call::kFchown, EPERM);
  const test::DebugCapture capture(0);
  EXPECT_EQ(OpenConsolidatedLogFile(), -1);
  EXPECT_THAT(capture.Messages(),
              ElementsAre("CreateZevDatedDir: chown failed : Operation not permitted\n"));
}

TEST_F(LogTest, GroupOfANewDirectoryThatCannotBeGivenFailsTheOpen) {
  CreateZevDatedDir();
  const test::FailCall failure(test::Call::kFchown, EPERM);
  const test::DebugCapture capture(0);
  EXPECT_EQ(OpenConsolidatedLogFile(), -1);
  EXPECT_THAT(capture.Messages(),
              ElementsAre("CreateSymlinkToCurrDir: chown failed : Operation not permitted\n"));
  EXPECT_EQ(SymlinkToCurrDirExists(), 1);
}

TEST_F(LogTest, LinkWhoseTargetIsGoneCountsAsMissing) {
  EXPECT_EQ(SymlinkToCurrDirExists(), 0);
  CreateZevDatedDir();
  std::filesystem::create_symlink(Dated("/gone"), Dated("/current"));
  EXPECT_EQ(SymlinkToCurrDirExists(), 0);
  ASSERT_EQ(OpenLogFile(box_), 0);
  EXPECT_EQ(SymlinkToCurrDirExists(), 1);
  EXPECT_EQ(std::filesystem::read_symlink(Dated("/current")).filename(), kDirectoryName);
}

TEST_F(LogTest, DirectoryInThePlaceOfTheLinkFailsItsMaking) {
  std::filesystem::create_directories(Dated("/current/occupied"));
  const test::DebugCapture capture(0);
  EXPECT_EQ(CreateSymlinkToCurrDir(), -1);
  EXPECT_THAT(capture.Messages(),
              ElementsAre("CreateSymlinkToCurrDir: symlink failed : File exists\n"));
}

TEST_F(LogTest, DirectoryThatCannotBeMadeIsReported) {
  const test::DebugCapture capture(0);
  EXPECT_EQ(CreateSymlinkToCurrDir(), -1);
  EXPECT_THAT(capture.Messages(),
              ElementsAre("CreateSymlinkToCurrDir: mkdir( " + logs_ + "//zev.dated/" +
                          kDirectoryName + ", ...) failed : No such file or directory\n"));
}

TEST_F(LogTest, MissingLinkIsReportedWhenItIsToBeRemoved) {
  const test::DebugCapture capture(0);
  RemoveSymlinkToCurrDir();
  EXPECT_THAT(capture.Messages(),
              ElementsAre("RemoveSymlinkToCurrDir: unlink() failed : No such file or directory\n"));
}

// ---- Archiving ----------------------------------------------------------------------------------

TEST_F(LogTest, ArchivingPointsTheLinkAtANewDirectory) {
  OpenLogs();
  Print("old\n");
  CloseLogFile(box_);
  CloseConsolidatedLogFile();
  clock_.Advance(60);
  {
    const test::DebugCapture capture(kInfo);
    ArchiveLogDir();
    EXPECT_THAT(capture.Messages(), ElementsAre("ArchiveLogDir: Archiving log directory\n"));
  }
  OpenLogs();
  Print("new\n");
  EXPECT_EQ(std::filesystem::read_symlink(Dated("/current")).string(),
            logs_ + "//zev.dated/13-Mar-07:07");
  EXPECT_EQ(test::ReadFile(Dated("/13-Mar-07:06/box.log")), Record("old\n"));
  EXPECT_EQ(test::ReadFile(Dated("/13-Mar-07:07/box.log")), Record("new\n", "11/03/13_07:07:40"));
}

TEST_F(LogTest, SecondArchivingWithinTheMinuteUsesTheSameDirectory) {
  OpenLogs();
  Print("one\n");
  CloseLogFile(box_);
  CloseConsolidatedLogFile();
  ArchiveLogDir();
  OpenLogs();
  Print("two\n");
  EXPECT_EQ(Log(), Record("one\n") + Record("two\n"));
  std::vector<std::string> directories;
  for (const auto& entry : std::filesystem::directory_iterator(Dated())) {
    if (!entry.is_symlink()) directories.push_back(entry.path().filename());
  }
  EXPECT_THAT(directories, ElementsAre(kDirectoryName));
}

TEST_F(LogTest, DirectoryExpiresWhenItsAgeReachesTheInterval) {
  CreateZevDatedDir();
  ArchiveLogDir();
  log_archive_time = 3600;
  const time_t created = FileStatus(Dated("/current")).st_ctime;
  for (const auto& [age, expired] :
       std::vector<std::pair<int, int>>{{0, 0}, {3599, 0}, {3600, 1}, {3601, 1}, {-10, 0}}) {
    clock_.Set(created + age);
    EXPECT_EQ(LogDirExpired(), expired) << age;
  }
}

TEST_F(LogTest, ClockThatJumpsBackAnHourOnlyDelaysTheNextDirectory) {
  OpenLogs();
  log_archive_time = 3600;
  const time_t created = FileStatus(Dated("/current")).st_ctime;
  Print("before\n");
  clock_.Set(created + 3599);
  EXPECT_EQ(LogDirExpired(), 0);
  clock_.Advance(-3600);
  EXPECT_EQ(LogDirExpired(), 0);
  clock_.Set(kStart - 3600);
  EXPECT_EQ(Print("after\n"), 0);
  EXPECT_EQ(Log(), Record("before\n") + Record("after\n", "11/03/13_06:06:40"));
  clock_.Set(created + 3600);
  EXPECT_EQ(LogDirExpired(), 1);
}

/// The age of the directory is not known until it is first asked for: the child starts the program
/// afresh.
class FreshLogDirTest : public UtcTest {
 protected:
  FreshLogDirTest() { ::testing::GTEST_FLAG(death_test_style) = "threadsafe"; }
  ~FreshLogDirTest() override { ::testing::GTEST_FLAG(death_test_style) = saved_; }

 private:
  std::string saved_ = ::testing::GTEST_FLAG(death_test_style);
};

time_t ChangeTime(int (*examine)(const char*, struct stat*), const std::filesystem::path& path) {
  struct stat status {};
  EXPECT_EQ(examine(path.c_str(), &status), 0) << path;
  return status.st_ctime;
}

void AskForTheAgeOfADirectoryThatWasThereBefore() {
  const test::TemporaryDirectory logs;
  log_dir = logs.path().c_str();
  log_archive_time = 0;
  EXPECT_EQ(LogDirExpired(), 0) << "without a link";
  const std::filesystem::path link = logs.path() / "zev.dated/current";
  std::filesystem::create_directory(logs.path() / "zev.dated");
  std::filesystem::create_symlink(logs.path() / "gone", link);
  EXPECT_EQ(LogDirExpired(), 0) << "with a link whose target is gone";

  // A directory that is older than its link.
  const std::filesystem::path directory = logs.path() / "zev.dated/former";
  std::filesystem::create_directory(directory);
  const time_t created = ChangeTime(stat, directory);
  ASSERT_TRUE(test::Eventually([&] {
    std::filesystem::remove(link);
    std::filesystem::create_symlink(directory, link);
    return ChangeTime(lstat, link) > created;
  }));
  log_archive_time = 3600;
  test::FakeClock clock(created + 3599);
  EXPECT_EQ(LogDirExpired(), 0);
  clock.Advance(1);
  EXPECT_EQ(LogDirExpired(), 1);
}

TEST_F(FreshLogDirTest, AgeOfADirectoryThatWasThereBeforeIsThatOfTheLinksTarget) {
  EXPECT_HOLDS_IN_CHILD(AskForTheAgeOfADirectoryThatWasThereBefore());
}

TEST_F(LogTest, IntervalOfZeroHasAlwaysExpired) {
  CreateZevDatedDir();
  ArchiveLogDir();
  clock_.Set(FileStatus(Dated("/current")).st_ctime);
  log_archive_time = 0;
  EXPECT_EQ(LogDirExpired(), 1);
}

TEST_F(LogTest, WhatHappensInTheDirectoryLaterDoesNotMakeItYounger) {
  CreateZevDatedDir();
  ArchiveLogDir();
  log_archive_time = 3600;
  const time_t created = FileStatus(Dated("/current")).st_ctime;
  std::filesystem::remove_all(Dated());
  clock_.Set(created + 3600);
  EXPECT_EQ(LogDirExpired(), 1);
}

TEST_F(LogTest, DirectoryThatCannotBeMadeExpiresAgain) {
  CreateZevDatedDir();
  ArchiveLogDir();
  log_archive_time = 3600;
  clock_.Set(FileStatus(Dated("/current")).st_ctime + 3600);
  std::filesystem::remove_all(logs_);
  {
    const test::DebugCapture capture(0);
    ArchiveLogDir();
    EXPECT_THAT(capture.Messages(), SizeIs(2));
  }
  EXPECT_EQ(LogDirExpired(), 1);
}

// ---- Entry lines --------------------------------------------------------------------------------

TEST_F(LogTest, EveryFunctionWritesItsEntryLine) {
  const test::DebugCapture capture(kTrace);
  OpenLogs();
  Print("one\npend");
  suppress_cr = 0;
  Print("ing");
  CloseLogFile(box_);
  CloseConsolidatedLogFile();
  LogDirExpired();
  ArchiveLogDir();
  const std::vector<std::string> messages = capture.Messages();
  for (const char* name : {"OpenLogFile",
                           "OpenConsolidatedLogFile",
                           "WriteLogFile",
                           "WriteLines",
                           "WriteBuffer",
                           "FlushBuffer",
                           "GetNewlineIndex",
                           "RemoveCRsAndNULLs",
                           "RemoveNULLs",
                           "CopyBytes",
                           "CloseLogFile",
                           "CloseConsolidatedLogFile",
                           "LogDirExpired",
                           "ArchiveLogDir",
                           "ZevDatedDirExists",
                           "CreateZevDatedDir",
                           "SymlinkToCurrDirExists",
                           "CreateSymlinkToCurrDir",
                           "RemoveSymlinkToCurrDir",
                           "GetNewDirName"}) {
    EXPECT_THAT(messages, Contains("Entering "s + name + "\n"));
  }
}

}  // namespace
