#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "exit_status.h"
#include "log_files.h"
#include "log_follow.h"
#include "moment.h"
#include "support.h"

namespace zevctl {

namespace {

namespace fs = std::filesystem;
using namespace std::string_literals;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

using Texts = std::vector<std::string>;

constexpr char kStamp[] = "26/11/21_08:00:00 ";

/// Local time is that of the zone for as long as one of these lives.
class Zone {
 public:
  explicit Zone(const char* zone) {
    const char* before = getenv("TZ");
    if (before != nullptr) before_ = before;
    setenv("TZ", zone, 1);
    tzset();
  }
  ~Zone() {
    before_ ? setenv("TZ", before_->c_str(), 1) : unsetenv("TZ");
    tzset();
  }
  Zone(const Zone&) = delete;
  Zone& operator=(const Zone&) = delete;

 private:
  std::optional<std::string> before_;
};

std::string Stamped(int seconds, const std::string& text) {
  char stamp[32];
  snprintf(stamp, sizeof stamp, "26/11/21_08:%02d:%02d ", seconds / 60, seconds % 60);
  return stamp + text;
}

// ---- Records ------------------------------------------------------------------------------------

// The records of the bytes, as when nothing else comes.
Texts Split(std::string_view bytes, LogKind kind = LogKind::kConsole) {
  Texts records;
  while (!bytes.empty()) {
    size_t length = RecordLength(bytes, kind, true);
    if (length == 0) length = bytes.size();
    records.emplace_back(bytes.substr(0, length));
    bytes.remove_prefix(length);
  }
  return records;
}

TEST(LogRecordTest, EndsAtALineFeedOrCarriageReturn) {
  const std::string one = kStamp + "one\n"s, two = kStamp + "two\r"s, three = kStamp + "\n"s;
  EXPECT_THAT(Split(one + two + three), ElementsAre(one, two, three));
}

TEST(LogRecordTest, MayHoldAnyOtherByte) {
  const std::string one = kStamp + "\0\x01\xff\x1b[31m\t "s + kStamp + "x\n";
  EXPECT_THAT(Split(one + one), ElementsAre(one, one));
}

TEST(LogRecordTest, EndsAfter1024BytesWhenAnotherFollows) {
  const std::string piece = kStamp + std::string(1024, 'x');
  const std::string last = kStamp + "y\n"s;
  EXPECT_THAT(Split(piece + piece + last), ElementsAre(piece, piece, last));
}

TEST(LogRecordTest, IsOneWhenNoStampFollows1024Bytes) {
  const std::string line = kStamp + std::string(3000, 'x') + "\n";
  EXPECT_THAT(Split(line), ElementsAre(line));
}

TEST(LogRecordTest, EndsBeforeTheEmptyOneOfAClosedLog) {
  const std::string piece = kStamp + "login: "s;
  for (const char* empty : {"26/11/21_08:00:00 \n", "26/11/21_08:00:01 \n"}) {
    EXPECT_THAT(Split(piece + empty), ElementsAre(piece, empty));
  }
}

TEST(LogRecordTest, MayEndInAnotherTime) {
  const std::string older = kStamp + "printed 26/11/21_07:59:59 \n"s;
  const std::string later = kStamp + "printed 26/11/21_08:00:02 \n"s;
  const std::string nothing_before = kStamp + ""s + kStamp + "\n";
  EXPECT_THAT(Split(older + later + nothing_before), ElementsAre(older, later, nothing_before));
}

TEST(LogRecordTest, OfTheConsolidatedLogNamesItsConsole) {
  const std::string one = kStamp + "box "s + std::string(1024, 'x');
  const std::string two = kStamp + "other login: "s;
  const std::string three = kStamp + "other \n"s;
  EXPECT_THAT(Split(one + two + three, LogKind::kConsolidated), ElementsAre(one, two, three));
}

TEST(LogRecordTest, OfAnotherConsoleDoesNotCloseALine) {
  const std::string line = kStamp + "other login: "s + kStamp + "box \n";
  EXPECT_THAT(Split(line, LogKind::kConsolidated), ElementsAre(line));
}

TEST(LogRecordTest, NeedsNoStamp) {
  EXPECT_THAT(Split("torn\n"s + kStamp + "x\n"), ElementsAre("torn\n", kStamp + "x\n"s));
}

TEST(LogRecordTest, IsCutWhenItIsTooLong) {
  const auto records = Split(std::string(2 * kLongestRecord + 5, 'x') + "\n");
  ASSERT_EQ(records.size(), 3U);
  EXPECT_EQ(records[0].size(), kLongestRecord);
  EXPECT_EQ(records[2], "xxxxx\n");
}

TEST(LogRecordTest, ShowsItsEndOnlyWhenItIsThere) {
  const std::string whole = kStamp + std::string(1024, 'x') + kStamp + "y\n";
  for (size_t held = 0; held < whole.size(); ++held) {
    const size_t length = RecordLength(std::string_view(whole).substr(0, held), LogKind::kConsole,
                                       /*at_end=*/false);
    EXPECT_EQ(length, held >= 18 + 1024 + 18 ? 18 + 1024 : 0) << held;
  }
}

TEST(LogRecordTest, Of1024BytesIsCompleteAtTheEnd) {
  const std::string piece = kStamp + std::string(1024, 'x');
  EXPECT_EQ(RecordLength(piece, LogKind::kConsole, true), piece.size());
  EXPECT_EQ(RecordLength(piece + "26/11", LogKind::kConsole, true), piece.size());
  EXPECT_EQ(RecordLength(piece.substr(0, piece.size() - 1), LogKind::kConsole, true), 0U);
}

TEST(LogRecordTest, IsTakenApart) {
  const Zone zone("UTC0");
  StampClock clock;
  const std::string bytes = kStamp + "box some text\r"s;
  const Record record = MakeRecord(bytes, LogKind::kConsolidated, 1, clock);
  EXPECT_EQ(record.time, 1795248000);
  EXPECT_EQ(record.console, "box");
  EXPECT_EQ(record.bytes, bytes);
  EXPECT_EQ(record.body, "box some text");
  EXPECT_EQ(record.text, "some text");
  EXPECT_EQ(MakeRecord("torn\n", LogKind::kConsole, 77, clock).time, 77);
  EXPECT_EQ(MakeRecord("torn\n", LogKind::kConsole, std::nullopt, clock).time, std::nullopt);
}

TEST(StampClockTest, GoesOnInTheHourThatIsShownTwice) {
  const Zone zone("CET-1CEST,M3.5.0,M10.5.0/3");
  StampClock clock;
  const time_t before = clock.Resolve("26/10/25_01:59:59");
  EXPECT_EQ(clock.Resolve("26/10/25_02:59:59"), before + 3600);
  EXPECT_EQ(clock.Resolve("26/10/25_02:00:00"), before + 3601);
  EXPECT_EQ(clock.Resolve("26/10/25_03:00:00"), before + 7201);
}

TEST(StampClockTest, FollowsAClockThatIsSetBack) {
  const Zone zone("UTC0");
  StampClock clock;
  const time_t before = clock.Resolve("26/11/21_08:00:00");
  EXPECT_EQ(clock.Resolve("26/11/21_07:00:00"), before - 3600);
}

// ---- Moments ------------------------------------------------------------------------------------

constexpr time_t kNow = 1795248000;  // 2026-11-21 08:00:00 UTC
constexpr time_t kHour = 3600;
constexpr time_t kDay = 24 * kHour;

TEST(MomentTest, HasManyForms) {
  const Zone zone("ZON-2");
  const time_t midnight = kNow - 10 * kHour;  // local time is two hours ahead
  EXPECT_EQ(ParseMoment("2026-11-21 08:05", kNow), midnight + 8 * kHour + 300);
  EXPECT_EQ(ParseMoment("2026-11-21 08:05:30", kNow), midnight + 8 * kHour + 330);
  EXPECT_EQ(ParseMoment("2026-11-21T08:05:30", kNow), midnight + 8 * kHour + 330);
  EXPECT_EQ(ParseMoment("08:05", kNow), midnight + 8 * kHour + 300);
  EXPECT_EQ(ParseMoment("08:05:30", kNow), midnight + 8 * kHour + 330);
  EXPECT_EQ(ParseMoment("2026-11-21", kNow), midnight);
  EXPECT_EQ(ParseMoment("2026-11-21T08:00:00Z", kNow), kNow);
  EXPECT_EQ(ParseMoment("2026-11-21t08:00:00.75z", kNow), kNow);
  EXPECT_EQ(ParseMoment("2026-11-21T08:00:00+05:30", kNow), kNow - 19800);
  EXPECT_EQ(ParseMoment("2026-11-21 08:00:00-01:00", kNow), kNow + 3600);
  EXPECT_EQ(ParseMoment("2024-02-29T00:00:00Z", kNow), 1709164800);
  EXPECT_EQ(ParseMoment("30s", kNow), kNow - 30);
  EXPECT_EQ(ParseMoment("15m", kNow), kNow - 900);
  EXPECT_EQ(ParseMoment("2h", kNow), kNow - 7200);
  EXPECT_EQ(ParseMoment("3d", kNow), kNow - 3 * kDay);
  EXPECT_EQ(ParseMoment("1w", kNow), kNow - 7 * kDay);
  EXPECT_EQ(ParseMoment("0m", kNow), kNow);
}

TEST(MomentTest, RefusesOtherTexts) {
  for (const char* text : {"",
                           " ",
                           "x",
                           "15",
                           "15x",
                           "-15m",
                           "1.5h",
                           "9999999999s",
                           "8:05",
                           "08:5",
                           "08:05:3",
                           "24:00",
                           "08:60",
                           "08:00:61",
                           "2026-13-01",
                           "2026-00-10",
                           "2026-02-29",
                           "2026-11-31",
                           "2026-11-00",
                           "2026-11-21 ",
                           "2026-11-21T",
                           "2026-11-2108:05",
                           "26-11-21",
                           "2026/11/21",
                           "2026-11-21 08:05 ",
                           " 2026-11-21",
                           "08:05Z",
                           "2026-11-21Z",
                           "2026-11-21T08:05:30+1:00",
                           "2026-11-21T08:05:30+24:00",
                           "2026-11-21T08:05:30+01:60",
                           "08:05\n",
                           "T08:05"}) {
    EXPECT_EQ(ParseMoment(text, kNow), std::nullopt) << text;
  }
}

TEST(MomentTest, IsShownWithItsZone) {
  const Zone zone("ZON+3:30");
  EXPECT_EQ(Rfc3339(kNow), "2026-11-21T04:30:00-03:30");
  EXPECT_EQ(ParseMoment(Rfc3339(kNow), 0), kNow);
}

// ---- Names --------------------------------------------------------------------------------------

TEST(WantedLogsTest, AreNamedAlikeUpToDashes) {
  const WantedLogs wanted({"sys-a_1"}, {"sys-a-1", "sys_a_1", "sys-a-2"});
  EXPECT_TRUE(wanted.Has("sys-a-1"));
  EXPECT_TRUE(wanted.Has("sys_a_1"));
  EXPECT_FALSE(wanted.Has("sys-a-2"));
  EXPECT_FALSE(wanted.Has("sys-a-11"));
}

TEST(WantedLogsTest, MayDifferByCaseUnlessOneHasJustThatName) {
  const WantedLogs only_other({"BOX"}, {"box"});
  EXPECT_TRUE(only_other.Has("box"));
  const WantedLogs both({"BOX"}, {"box", "BOX"});
  EXPECT_TRUE(both.Has("BOX"));
  EXPECT_FALSE(both.Has("box"));
}

TEST(WantedLogsTest, AreOfAllTheNames) {
  WantedLogs wanted({"box", "chest"}, {});
  EXPECT_TRUE(wanted.Has("box"));
  EXPECT_TRUE(wanted.Has("chest"));
  EXPECT_FALSE(wanted.Has("trunk"));
  wanted.Add("trunk");
  EXPECT_TRUE(wanted.Has("trunk"));
}

TEST(SimilarNamesTest, AreNearOrContainTheName) {
  const LogNames existing = {"lab1", "lab2", "rack-lab-17", "other", "consolidated"};
  EXPECT_THAT(SimilarNames("Lab11", existing), ElementsAre("lab1", "lab2"));
  EXPECT_THAT(SimilarNames("lab", existing), ElementsAre("lab1", "lab2", "rack-lab-17"));
  EXPECT_THAT(SimilarNames("zzz", existing), IsEmpty());
  EXPECT_EQ(SimilarNames("c", {"c1", "c2", "c3", "c4", "c5", "c6", "c7"}).size(), 5U);
}

// ---- Files --------------------------------------------------------------------------------------

/// A log directory with dated directories, and what is read from it.
class LogFilesTest : public ::testing::Test {
 protected:
  LogFilesTest() { fs::create_directories(dated()); }

  fs::path dated() const { return directory_.path() / "zev.dated"; }
  fs::path log(const std::string& in, const std::string& name) const {
    return dated() / in / (name + ".log");
  }

  void MakeCurrent(const std::string& name) {
    fs::create_directories(dated() / name);
    fs::remove(dated() / "current");
    fs::create_symlink(dated() / name, dated() / "current");
  }

  void Append(const std::string& in, const std::string& name, const std::string& bytes) {
    fs::create_directories(dated() / in);
    std::ofstream(log(in, name), std::ios::app | std::ios::binary) << bytes;
  }

  std::vector<LogDirectory> Directories() const {
    return OpenLogDirectories(directory_.path().string());
  }

  LogReaders Open(const std::vector<std::string>& names) const {
    const auto directories = Directories();
    return OpenLogs(directories, WantedLogs(names, NamesIn(directories)));
  }

  static Texts ReadAll(LogReaders& readers, Unfinished unfinished = Unfinished::kTake) {
    Texts texts;
    ReadInOrder(
        readers, [&](const LogReader&) { return unfinished; }, kEndOfTime,
        [&](const LogReader&, const Record& record) { texts.emplace_back(record.text); });
    return texts;
  }

  Texts ReadLast(const std::vector<std::string>& names, size_t count) const {
    LogReaders readers = Open(names);
    GoToLastRecords(readers, count);
    Texts texts = ReadAll(readers);
    if (texts.size() > count) {
      texts.erase(texts.begin(), texts.end() - static_cast<ptrdiff_t>(count));
    }
    return texts;
  }

  std::string root() const { return directory_.path().string(); }

 private:
  test::TemporaryDirectory directory_;
  Zone zone_{"UTC0"};
};

TEST_F(LogFilesTest, AreReadInTheOrderOfTheirTimes) {
  Append("30-Dec-00:00", "box", Stamped(0, "1\n") + Stamped(1, "2\n"));
  Append("02-Jan-00:00", "box", Stamped(2, "3\n"));
  Append("15-Mar-00:00", "box", Stamped(2, "4\n") + Stamped(9, "5\n"));
  LogReaders readers = Open({"box"});
  EXPECT_THAT(ReadAll(readers), ElementsAre("1", "2", "3", "4", "5"));
}

TEST_F(LogFilesTest, OfOneConsoleAreMerged) {
  Append("a", "sys-1", Stamped(0, "1\n") + Stamped(4, "4\n"));
  Append("a", "sys_1", Stamped(1, "2\n") + Stamped(6, "5\n"));
  Append("b", "old", Stamped(3, "3\n") + Stamped(8, "6\n"));
  Append("b", "other", Stamped(5, "other\n"));
  LogReaders readers = Open({"sys_1", "old"});
  EXPECT_THAT(ReadAll(readers), ElementsAre("1", "2", "3", "4", "5", "6"));
}

TEST_F(LogFilesTest, KeepTheirOrderWhenTheClockWasSetBack) {
  Append("a", "box", Stamped(5, "1\n") + Stamped(1, "2\n") + Stamped(2, "3\n"));
  Append("b", "box", Stamped(7, "4\n"));
  LogReaders readers = Open({"box"});
  EXPECT_THAT(ReadAll(readers), ElementsAre("1", "2", "3", "4"));
}

TEST_F(LogFilesTest, EndAtTheGivenTime) {
  Append("a", "box", Stamped(0, "1\n") + Stamped(2, "2\n") + Stamped(4, "3\n"));
  LogReaders readers = Open({"box"});
  Texts texts;
  ReadInOrder(
      readers, [](const LogReader&) { return Unfinished::kTake; }, kNow + 2,
      [&](const LogReader&, const Record& record) { texts.emplace_back(record.text); });
  EXPECT_THAT(texts, ElementsAre("1", "2"));
}

TEST_F(LogFilesTest, AreReadInPieces) {
  std::string bytes;
  for (int number = 0; number < 30000; ++number) {
    bytes += Stamped(number / 100, std::to_string(number) + "\n");
  }
  Append("a", "box", bytes);
  LogReaders readers = Open({"box"});
  const Texts texts = ReadAll(readers);
  ASSERT_EQ(texts.size(), 30000U);
  for (size_t number = 0; number < texts.size(); ++number) {
    ASSERT_EQ(texts[number], std::to_string(number));
  }
}

TEST_F(LogFilesTest, MayEndWithoutALineEnd) {
  Append("a", "box", Stamped(0, "1\n") + Stamped(1, "begun"));
  LogReaders readers = Open({"box"});
  EXPECT_THAT(ReadAll(readers, Unfinished::kLeave), ElementsAre("1"));
  EXPECT_THAT(ReadAll(readers, Unfinished::kLeave), IsEmpty());
  readers[0]->Refresh();
  EXPECT_THAT(ReadAll(readers), ElementsAre("begun"));
}

TEST_F(LogFilesTest, ThatAreEmptyHaveNoRecord) {
  Append("a", "box", "");
  LogReaders readers = Open({"box"});
  EXPECT_THAT(ReadAll(readers), IsEmpty());
  EXPECT_THAT(ReadLast({"box"}, 3), IsEmpty());
}

TEST_F(LogFilesTest, ThatAreNoFilesAreLeftOut) {
  fs::create_directories(log("a", "box"));
  ASSERT_EQ(mkfifo(log("a", "BOX").c_str(), 0600), 0);
  fs::create_symlink("nowhere", log("a", "bOx"));
  Append("b", "box", Stamped(0, "1\n"));
  test::WriteFile(dated() / "a file", "");
  LogReaders readers = Open({"box", "BOX", "bOx"});
  EXPECT_THAT(ReadAll(readers), ElementsAre("1"));
}

TEST_F(LogFilesTest, AreTakenOnceWhateverLeadsToThem) {
  Append("a", "box", Stamped(0, "1\n"));
  MakeCurrent("a");
  fs::create_symlink(dated() / "a", dated() / "copy");
  LogReaders readers = Open({"box"});
  EXPECT_THAT(ReadAll(readers), ElementsAre("1"));
}

TEST_F(LogFilesTest, OfACurrentDirectoryElsewhereAreFound) {
  const test::TemporaryDirectory elsewhere;
  test::WriteFile(elsewhere.path() / "box.log", Stamped(0, "1\n"));
  fs::create_symlink(elsewhere.path(), dated() / "current");
  LogReaders readers = Open({"box"});
  EXPECT_THAT(ReadAll(readers), ElementsAre("1"));
}

TEST_F(LogFilesTest, AreRefusedWithoutTheirDirectory) {
  try {
    OpenLogDirectories(root() + "/none");
    FAIL() << "nothing was thrown";
  } catch (const Failure& failure) {
    EXPECT_EQ(failure.status(), ExitStatus::kFailed);
    EXPECT_EQ(failure.what(), "cannot read " + root() +
                                  "/none/zev.dated: No such file or directory; --log-dir tells "
                                  "where the daemon's logs are, if not there");
  }
}

TEST_F(LogFilesTest, GiveTheirLastRecords) {
  Append("a", "box", Stamped(0, "1\n") + Stamped(1, "2\n"));
  Append("b", "box", Stamped(2, "3\n") + Stamped(3, "4\n") + Stamped(4, "5\n"));
  EXPECT_THAT(ReadLast({"box"}, 1), ElementsAre("5"));
  EXPECT_THAT(ReadLast({"box"}, 3), ElementsAre("3", "4", "5"));
  EXPECT_THAT(ReadLast({"box"}, 4), ElementsAre("2", "3", "4", "5"));
  EXPECT_THAT(ReadLast({"box"}, 9), ElementsAre("1", "2", "3", "4", "5"));
  EXPECT_THAT(ReadLast({"box"}, 0), IsEmpty());
}

TEST_F(LogFilesTest, GiveTheLastRecordsOfAllThatOverlap) {
  Append("a", "sys-1", Stamped(0, "1\n") + Stamped(5, "4\n") + Stamped(7, "6\n"));
  Append("a", "sys_1", Stamped(1, "2\n") + Stamped(4, "3\n") + Stamped(6, "5\n"));
  Append("b", "sys_1", "");
  for (size_t count = 0; count <= 6; ++count) {
    const Texts all = {"1", "2", "3", "4", "5", "6"};
    EXPECT_EQ(ReadLast({"sys-1"}, count),
              Texts(all.end() - static_cast<ptrdiff_t>(count), all.end()));
  }
}

TEST_F(LogFilesTest, AreReadFromTheirEnd) {
  std::string bytes;
  for (int number = 0; number < 50000; ++number) {
    bytes += Stamped(number / 100, std::to_string(number) + "\n");
  }
  Append("a", "box", bytes);
  LogReaders readers = Open({"box"});
  for (const size_t count : {1U, 2U, 1000U, 40000U, 60000U}) {
    EXPECT_EQ(readers[0]->GoToLastLines(count), std::min<size_t>(count, 50000));
    readers[0]->Refresh();
    EXPECT_EQ(ReadAll(readers).size(), std::min<size_t>(count, 50000));
  }
}

TEST_F(LogFilesTest, SkipWhatIsTooOld) {
  std::string bytes;
  for (int hour = 0; hour < 24; ++hour) {
    for (int minute = 0; minute < 60; ++minute) {
      char stamp[32];
      snprintf(stamp, sizeof stamp, "26/11/21_%02d:%02d:00 ", hour, minute);
      bytes += stamp + std::string(900, 'x') + "\n";
    }
  }
  Append("a", "box", bytes);
  LogReaders readers = Open({"box"});
  const time_t since = kNow + 4 * kHour;  // 12:00
  readers[0]->SkipBefore(since);
  const auto first = readers[0]->TimeHere();
  ASSERT_TRUE(first);
  EXPECT_LE(*first, since - kClockSlack);
  EXPECT_GE(*first, since - kClockSlack - 1800);
  readers[0]->SkipBefore(0);
  EXPECT_EQ(readers[0]->TimeHere(), kNow - 8 * kHour);
}

TEST_F(LogFilesTest, AreNotSkippedWithoutTimes) {
  Append("a", "box", std::string(100000, 'x') + "\n" + Stamped(0, "1\n"));
  LogReaders readers = Open({"box"});
  readers[0]->SkipBefore(kNow + 86400);
  EXPECT_EQ(ReadAll(readers).back(), "1");
}

// ---- Following ----------------------------------------------------------------------------------

class FollowerTest : public LogFilesTest {
 protected:
  FollowerTest() { MakeCurrent("a"); }

  // Reads what is there and goes on from it.
  Texts Start(const std::vector<std::string>& names) {
    auto directories = Directories();
    WantedLogs wanted(names, NamesIn(directories));
    LogReaders readers = OpenLogs(directories, wanted);
    Texts texts = ReadAll(readers, Unfinished::kLeave);
    follower_ = std::make_unique<Follower>(
        root(), std::move(wanted), std::move(directories), std::move(readers),
        [this](const std::string& message) { told_.push_back(message); });
    return texts;
  }

  Texts Tick(int times = 1) {
    Texts texts;
    for (int i = 0; i < times; ++i) {
      follower_->Tick(
          [&](const LogReader&, const Record& record) { texts.emplace_back(record.text); });
    }
    return texts;
  }

  const Texts& told() const { return told_; }

 private:
  std::unique_ptr<Follower> follower_;
  Texts told_;
};

TEST_F(FollowerTest, GoesOnWithWhatIsAppended) {
  Append("a", "box", Stamped(0, "1\n"));
  EXPECT_THAT(Start({"box"}), ElementsAre("1"));
  EXPECT_THAT(Tick(3), IsEmpty());
  Append("a", "box", Stamped(1, "2\n") + Stamped(2, "3\n"));
  EXPECT_THAT(Tick(3), ElementsAre("2", "3"));
}

TEST_F(FollowerTest, WaitsForTheEndOfARecord) {
  EXPECT_THAT(Start({"box"}), IsEmpty());
  const std::string record = Stamped(0, "text\n");
  for (const char byte : record) {
    EXPECT_THAT(Tick(), IsEmpty());
    Append("a", "box", std::string(1, byte));
  }
  EXPECT_THAT(Tick(), ElementsAre("text"));
}

TEST_F(FollowerTest, TakesAPieceOf1024BytesAtOnce) {
  Start({"box"});
  Append("a", "box", Stamped(0, std::string(1024, 'x')));
  EXPECT_THAT(Tick(), ElementsAre(std::string(1024, 'x')));
  Append("a", "box", Stamped(0, "y\n"));
  EXPECT_THAT(Tick(), ElementsAre("y"));
}

TEST_F(FollowerTest, ForgetsAPieceThatIsTakenBack) {
  Append("a", "box", Stamped(0, "1\n"));
  Start({"box"});
  const auto size = fs::file_size(log("a", "box"));
  Append("a", "box", Stamped(1, "no room for th"));
  EXPECT_THAT(Tick(), IsEmpty());
  fs::resize_file(log("a", "box"), size);
  Append("a", "box", Stamped(2, "room again for all of this\n"));
  EXPECT_THAT(Tick(), ElementsAre("room again for all of this"));
}

TEST_F(FollowerTest, BeginsAnewInAFileThatWasEmptied) {
  Append("a", "box", Stamped(0, "1\n") + Stamped(0, "2\n"));
  Start({"box"});
  fs::resize_file(log("a", "box"), 0);
  Append("a", "box", Stamped(1, "3\n"));
  EXPECT_THAT(Tick(), ElementsAre("3"));
}

TEST_F(FollowerTest, ReadsTheOldFileToItsEndBeforeTheNewOne) {
  Append("a", "box", Stamped(0, "1\n"));
  Start({"box"});
  Append("a", "box", Stamped(9, "2\n"));
  MakeCurrent("b");
  Append("b", "box", Stamped(3, "3\n"));  // the clock was set back
  EXPECT_THAT(Tick(), ElementsAre("2", "3"));
  EXPECT_THAT(Tick(2 * Follower::kWatchTicks), IsEmpty());
  Append("b", "box", Stamped(4, "4\n"));
  EXPECT_THAT(Tick(), ElementsAre("4"));
}

TEST_F(FollowerTest, FindsAllDirectoriesOfOneMoment) {
  Start({"box"});
  Append("a", "box", Stamped(0, "1\n"));
  MakeCurrent("b");
  Append("b", "box", Stamped(1, "2\n"));
  MakeCurrent("c");
  Append("c", "box", Stamped(2, "3\n"));
  EXPECT_THAT(Tick(), ElementsAre("1", "2", "3"));
  EXPECT_THAT(Tick(10), IsEmpty());
}

TEST_F(FollowerTest, FindsALogThatWasMadeInADirectoryAfterTheLook) {
  Start({"box"});
  MakeCurrent("b");
  EXPECT_THAT(Tick(30), IsEmpty());
  Append("b", "box", Stamped(1, "1\n"));
  MakeCurrent("c");
  Append("c", "box", Stamped(2, "2\n"));
  EXPECT_THAT(Tick(), ElementsAre("1", "2"));
}

TEST_F(FollowerTest, OutlivesAMomentWithoutACurrentDirectory) {
  Append("a", "box", Stamped(0, "1\n"));
  fs::remove(dated() / "current");
  EXPECT_THAT(Start({"box"}), ElementsAre("1"));
  EXPECT_THAT(Tick(2 * Follower::kWatchTicks), IsEmpty());
  MakeCurrent("a");
  Append("a", "box", Stamped(1, "2\n"));
  EXPECT_THAT(Tick(), ElementsAre("2"));
}

TEST_F(FollowerTest, GoesOnInADirectoryThatIsUsedAgain) {
  Append("a", "box", Stamped(0, "1\n"));
  EXPECT_THAT(Start({"box"}), ElementsAre("1"));
  MakeCurrent("a");
  Append("a", "box", Stamped(1, "2\n"));
  EXPECT_THAT(Tick(2 * Follower::kWatchTicks), ElementsAre("2"));
  Append("a", "box", Stamped(2, "3\n"));
  EXPECT_THAT(Tick(), ElementsAre("3"));
}

TEST_F(FollowerTest, WaitsForALogThatIsNotThereYet) {
  Append("a", "other", Stamped(0, "no\n"));
  EXPECT_THAT(Start({"BOX"}), IsEmpty());
  EXPECT_THAT(Tick(20), IsEmpty());
  Append("a", "box", Stamped(1, "1\n"));
  EXPECT_THAT(Tick(), ElementsAre("1"));
}

TEST_F(FollowerTest, KeepsARenamedFileAndTakesItsNewName) {
  Append("a", "box", Stamped(0, "1\n"));
  Start({"box"});
  fs::rename(log("a", "box"), log("a", "chest"));
  Append("a", "chest", Stamped(1, "2\n"));
  EXPECT_THAT(Tick(), ElementsAre("2"));
  EXPECT_THAT(told(), ElementsAre("the log of box is now that of chest; following both names"));
  MakeCurrent("b");
  Append("b", "chest", Stamped(2, "3\n"));
  EXPECT_THAT(Tick(), ElementsAre("3"));
}

TEST_F(FollowerTest, TakesAnEventsNameWithoutAWord) {
  Append("a", "sys-1", Stamped(0, "1\n"));
  Start({"sys-1"});
  Append("a", "sys-1", Stamped(1, "2\n"));
  MakeCurrent("b");
  Append("b", "sys_1", Stamped(2, "3\n"));
  EXPECT_THAT(Tick(), ElementsAre("2", "3"));
  EXPECT_THAT(told(), IsEmpty());
}

TEST_F(FollowerTest, ReadsARemovedFileUntilThereIsAnother) {
  Append("a", "box", Stamped(0, "1\n"));
  Start({"box"});
  std::ofstream still_open(log("a", "box"), std::ios::app);
  fs::remove_all(dated() / "a");
  still_open << Stamped(1, "2\n") << std::flush;
  EXPECT_THAT(Tick(), ElementsAre("2"));
  MakeCurrent("b");
  EXPECT_THAT(Tick(2 * Follower::kWatchTicks), IsEmpty());
  still_open << Stamped(2, "3\n") << std::flush;
  EXPECT_THAT(Tick(), ElementsAre("3"));
  Append("b", "box", Stamped(3, "4\n"));
  EXPECT_THAT(Tick(), ElementsAre("4"));
}

TEST_F(FollowerTest, OutlivesAllDirectories) {
  Append("a", "box", Stamped(0, "1\n"));
  Start({"box"});
  fs::remove_all(dated());
  EXPECT_THAT(Tick(9), IsEmpty());
  EXPECT_THAT(told(), IsEmpty());
  EXPECT_THAT(Tick(30), IsEmpty());
  EXPECT_THAT(told(), ElementsAre(HasSubstr("zev.dated: No such file or directory")));
  MakeCurrent("b");
  Append("b", "box", Stamped(1, "2\n"));
  EXPECT_THAT(Tick(), ElementsAre("2"));
}

TEST_F(FollowerTest, FollowsEveryName) {
  Append("a", "box", Stamped(0, "1\n"));
  Append("a", "old", Stamped(1, "2\n"));
  EXPECT_THAT(Start({"box", "old"}), ElementsAre("1", "2"));
  Append("a", "old", Stamped(2, "3\n"));
  Append("a", "box", Stamped(3, "4\n"));
  Append("a", "other", Stamped(3, "no\n"));
  EXPECT_THAT(Tick(3), ElementsAre("3", "4"));
}

TEST_F(FollowerTest, KeepsNoFileOfAnOldDirectory) {
  for (int number = 0; number < 20; ++number) {
    const std::string name = "d" + std::to_string(number);
    Append(name, "box", Stamped(number, name + "\n"));
  }
  MakeCurrent("d19");
  EXPECT_EQ(Start({"box"}).size(), 20U);
  const auto open_files = [] {
    return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
  };
  const auto before = open_files();
  EXPECT_THAT(Tick(Follower::kWatchTicks + 1), IsEmpty());
  EXPECT_LE(open_files(), before - 38);  // the directories, too
  Append("d19", "box", Stamped(30, "last\n"));
  EXPECT_THAT(Tick(), ElementsAre("last"));
}

}  // namespace

}  // namespace zevctl
