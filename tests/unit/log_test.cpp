// Writing logs: filters, records, events, and closing.
#include "log.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "debug_support.h"
#include "lists.h"
#include "log_batch.h"
#include "log_directory.h"
#include "log_directory_steps.h"
#include "log_steps.h"
#include "log_support.h"
#include "options.h"
#include "random_patterns.h"

using namespace zevd;

namespace {

using namespace std::string_literals;
using test::LogTest;
using ::testing::AllOf;
using ::testing::Contains;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::SizeIs;

// ---- Filters and terminators --------------------------------------------------------------------

struct Filtered {
  std::string in;
  std::string stripped;  // without CR, NUL and telnet commands
  std::string kept;      // without NUL
};

class FilterTest : public ::testing::TestWithParam<Filtered> {};

// Both buffers end with the chunk, so that a sanitizer sees any byte too many; that of an empty one
// has an address too.
std::string Apply(void (*filter)(const char*, char*, int*), const std::string& in) {
  const auto chunk = std::make_unique<char[]>(in.size());
  const auto out = std::make_unique<char[]>(in.size());
  in.copy(chunk.get(), in.size());
  int count = static_cast<int>(in.size());
  filter(chunk.get(), out.get(), &count);
  return {out.get(), static_cast<size_t>(count)};
}

TEST_P(FilterTest, StripsCarriageReturnsNulsAndTelnetCommands) {
  EXPECT_EQ(Apply(RemoveCRsAndNULLs, GetParam().in), GetParam().stripped);
}

TEST_P(FilterTest, StripsNulsOnly) {
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
                      // A 255 takes the two bytes after it along, whatever they are.
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
                      // At the end of the chunk there are fewer.
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

// The same byte by byte, for chunks that nobody has thought of.
std::string StripByteByByte(const std::string& in) {
  std::string out;
  for (size_t i = 0; i < in.size(); ++i) {
    if (in[i] == '\xff') {
      i += 2;
    } else if (in[i] != '\r' && in[i] != '\0') {
      out += in[i];
    }
  }
  return out;
}

int NewlineByteByByte(const std::string& in, int pos, int count) {
  for (int i = pos; i < count; ++i) {
    if (in[static_cast<size_t>(i)] == '\n' || in[static_cast<size_t>(i)] == '\r') return i;
  }
  return -1;
}

TEST(RandomFilterTest, FiltersDoWhatTheyDoByteByByte) {
  test::Dice dice(test::Seed());
  constexpr char kSpecial[] = {'\r', '\n', '\0', '\xff', '\xfb'};
  for (int round = 0; round < 3000; ++round) {
    std::string chunk(dice.Below(dice.OneIn(10) ? 1025 : 40), 'x');
    const size_t special_in = 1 + dice.Below(100);
    for (char& byte : chunk) {
      byte = dice.OneIn(special_in) ? dice.Choose(kSpecial) : static_cast<char>(dice.Below(256));
    }
    ASSERT_EQ(Apply(RemoveCRsAndNULLs, chunk), StripByteByByte(chunk))
        << ::testing::PrintToString(chunk);
    const std::vector<char> bytes(chunk.begin(), chunk.end());
    const int count = static_cast<int>(chunk.size());
    const int from = static_cast<int>(dice.Below(chunk.size() + 2));
    ASSERT_EQ(GetNewlineIndex(bytes.data(), from, count), NewlineByteByByte(chunk, from, count))
        << from << ' ' << ::testing::PrintToString(chunk);
  }
}

// ---- Records ------------------------------------------------------------------------------------

constexpr char kNextStamp[] = "11/03/13_07:06:41";

TEST_F(LogTest, RecordIsStampBlankAndLine) {
  OpenLogs();
  EXPECT_EQ(Print("booting\n"), 0);
  EXPECT_EQ(Log(), "11/03/13_07:06:40 booting\n");
  EXPECT_EQ(Consolidated(), "11/03/13_07:06:40 box booting\n");
}

TEST_F(LogTest, SuppressedCarriageReturnsLeaveLineFeeds) {
  OpenLogs();
  EXPECT_EQ(Print("abc\r\ndef\r\n"), 0);
  EXPECT_EQ(Log(), Record("abc\n") + Record("def\n"));
  EXPECT_EQ(Consolidated(), ConsolidatedRecord("abc\n") + ConsolidatedRecord("def\n"));
}

TEST_F(LogTest, KeptCarriageReturnsEndRecordsToo) {
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

TEST_F(LogTest, StampIsTheTimeOfTheEndOfTheLine) {
  OpenLogs();
  Print("boo");
  clock_.Advance(1);
  Print("ting\nmore\n");
  EXPECT_EQ(Log(), Record("booting\n", kNextStamp) + Record("more\n", kNextStamp));
}

TEST_F(LogTest, RecordHasTheSameTimeInBothLogs) {
  OpenLogs();
  test::after_writev = [this] { clock_.Advance(1); };
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

TEST_F(LogTest, Byte1024StillWaits) {
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

TEST_F(LogTest, TerminatorAfterAFullBufferIsARecordOfItsOwn) {
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

TEST_F(LogTest, BatchOfATurnIsWrittenAsItsRecordsAlone) {
  OpenLogs();
  test::Dice dice(test::Seed());
  std::vector<std::string> chunks;
  for (int i = 0; i < 300; ++i) {
    std::string chunk(dice.Below(1025), 'x');
    const size_t line_ends_in = 1 + dice.Below(300);
    for (char& byte : chunk) byte = dice.OneIn(line_ends_in) ? '\n' : 'y';
    chunks.push_back(chunk);
  }
  for (const std::string& chunk : chunks) EXPECT_EQ(Print(chunk), 0);
  const std::string log = Log();
  const std::string consolidated = Consolidated();
  ASSERT_GT(log.size(), 64U * 1024);
  box_->log_buf.count = 0;
  static RecordBatch batch;
  for (size_t i = 0; i < chunks.size(); ++i) {
    const int count = static_cast<int>(chunks[i].size());
    EXPECT_EQ(WriteLogFile(box_, chunks[i].data(), count, &batch), 0);
    if (i % 16 == 15) batch.Flush();
  }
  batch.Flush();
  EXPECT_TRUE(Log() == log + log);
  EXPECT_TRUE(Consolidated() == consolidated + consolidated);
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

TEST_F(LogTest, UsersAtTheEndOfTheLineDecide) {
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
  // The console's event set is a file with these lines.
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

TEST_F(LogEventTest, NothingIsMatchedWhileAUserIsAttached) {
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

TEST_F(LogTest, RecordForAClosedLogFailsSilently) {
  const test::DebugCapture capture(0);
  EXPECT_EQ(WriteBuffer(box_, "lost\n", 5), -1);
  EXPECT_THAT(capture.Messages(), IsEmpty());
}

TEST_F(LogTest, RecordReachesTheConsolesLogWithoutTheConsolidatedOne) {
  ASSERT_EQ(OpenLogFile(box_), 0);
  const test::DebugCapture capture(0);
  EXPECT_EQ(WriteBuffer(box_, "kept\n", 5), -1);
  EXPECT_EQ(Print("one\ntwo\n"), -1);
  EXPECT_THAT(capture.Messages(), IsEmpty());
  EXPECT_EQ(Log(), Record("kept\n") + Record("one\n") + Record("two\n"));
  EXPECT_EQ(Pending(), "");
}

TEST_F(LogTest, WatchedRecordFailsWithoutTheConsolidatedLog) {
  ASSERT_EQ(OpenLogFile(box_), 0);
  const auto user = test::AttachUser(box_, "ann", kShared);
  EXPECT_EQ(WriteBuffer(box_, "kept\n", 5), -1);
  EXPECT_EQ(Log(), Record("kept\n"));
}

// From now on writes to the open file go to a device that is always full.
void FillDiskUnder(const std::string& path) {
  const test::Descriptor full(open("/dev/full", O_WRONLY | O_CLOEXEC));
  const std::filesystem::path file = std::filesystem::canonical(path);
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    if (std::filesystem::read_symlink(entry.path(), gone) != file) continue;
    ASSERT_NE(dup3(full.get(), std::stoi(entry.path().filename()), O_CLOEXEC), -1);
  }
}

TEST_F(LogTest, FullDiskLosesTheRecordAndIsReported) {
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

TEST_F(LogTest, RecordThatDoesNotFitIsNotWrittenInPart) {
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

TEST_F(LogTest, ClosingTwiceDoesNothing) {
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
