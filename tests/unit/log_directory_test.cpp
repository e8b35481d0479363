// The dated directories of the logs, and the link to the one in use.
#include "log_directory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "debug_support.h"
#include "log.h"
#include "log_directory_steps.h"
#include "log_support.h"
#include "options.h"

using namespace zevd;

namespace {

using test::kLogDirectoryName;
using test::kLogStart;
using test::LogTest;
using ::testing::ElementsAre;
using ::testing::SizeIs;

// ---- Links and files in their places ------------------------------------------------------------

class LogDirectoryTest : public test::UtcTest {
 protected:
  LogDirectoryTest() : logs_(std::filesystem::absolute("root/logs").string()) {
    log_dir = logs_.c_str();
    std::filesystem::create_directories("outside");
    std::filesystem::create_directories(Dated());
  }
  ~LogDirectoryTest() override { CloseConsolidatedLogFile(); }

  std::string Dated(const std::string& name = "") const { return logs_ + "/zev.dated/" + name; }
  void PointCurrentTo(const std::string& target) const {
    std::filesystem::remove(Dated("current"));
    std::filesystem::create_symlink(target, Dated("current"));
  }
  static bool IsEmpty(const char* path) { return std::filesystem::is_empty(path); }

  test::StationRoot root_;
  std::string logs_;
  test::FakeClock clock_{kLogStart};
};

TEST_F(LogDirectoryTest, LinkCountsWhenItNamesADirectoryBesideIt) {
  std::filesystem::create_directory(Dated("day"));
  for (const std::string& target :
       {std::string("day"), Dated("day"), logs_ + "//zev.dated/day", logs_ + "///zev.dated//day"}) {
    PointCurrentTo(target);
    EXPECT_EQ(SymlinkToCurrDirExists(), 1) << target;
    ASSERT_EQ(OpenConsolidatedLogFile(), 0);
    CloseConsolidatedLogFile();
    EXPECT_EQ(std::filesystem::read_symlink(Dated("current")), target);
  }
}

TEST_F(LogDirectoryTest, LinkThatLeadsElsewhereCountsAsMissingAndIsReplaced) {
  std::filesystem::create_directory(Dated("day"));
  std::filesystem::create_directory(Dated("day/deeper"));
  std::filesystem::create_directory_symlink(std::filesystem::absolute("outside"), Dated("link"));
  test::WriteFile(Dated("file"), "");
  const std::string outside = std::filesystem::absolute("outside").string();
  for (const std::string& target :
       {outside, outside + "/day", std::string("../../../outside"), std::string("."),
        std::string(".."), std::string("day/deeper"), Dated("day/deeper"), Dated("day/.."), Dated(),
        Dated("link"), std::string("link"), std::string("file"), std::string("current"),
        std::string("missing"), std::string("/"), std::string("day/"), std::string(300, 'x')}) {
    PointCurrentTo(target);
    EXPECT_EQ(SymlinkToCurrDirExists(), 0) << target;
    ASSERT_EQ(OpenConsolidatedLogFile(), 0) << target;
    CloseConsolidatedLogFile();
    EXPECT_EQ(std::filesystem::read_symlink(Dated("current")).filename(), kLogDirectoryName)
        << target;
  }
  EXPECT_TRUE(IsEmpty("outside"));
  EXPECT_TRUE(IsEmpty(Dated("day/deeper").c_str()));
}

TEST_F(LogDirectoryTest, DirectoryInThePlaceOfTheLinkIsNotUsed) {
  std::filesystem::create_directory(Dated("current"));
  const test::DebugCapture capture(0);
  EXPECT_EQ(OpenConsolidatedLogFile(), -1);
  EXPECT_THAT(capture.Messages(),
              ElementsAre("CreateSymlinkToCurrDir: symlink failed : File exists\n"));
  EXPECT_TRUE(IsEmpty(Dated("current").c_str()));
}

TEST_F(LogDirectoryTest, LinkInThePlaceOfTheNextDirectoryIsNotFollowed) {
  std::filesystem::create_directory_symlink(std::filesystem::absolute("outside"),
                                            Dated(kLogDirectoryName));
  const test::DebugCapture capture(0);
  EXPECT_EQ(OpenConsolidatedLogFile(), -1);
  EXPECT_THAT(capture.Messages(),
              ElementsAre("CreateSymlinkToCurrDir: mkdir( " + logs_ + "//zev.dated/" +
                          kLogDirectoryName + ", ...) failed : Not a directory\n"));
  EXPECT_TRUE(IsEmpty("outside"));
  clock_.Advance(60);
  EXPECT_EQ(OpenConsolidatedLogFile(), 0);
}

TEST_F(LogDirectoryTest, LinkInThePlaceOfTheDatedDirectoriesIsNotFollowed) {
  std::filesystem::remove_all(Dated());
  test::WriteFile("outside/current", "kept\n");
  std::filesystem::create_directory_symlink(std::filesystem::absolute("outside"),
                                            logs_ + "/zev.dated");
  test::DebugCapture capture(0);
  EXPECT_EQ(ZevDatedDirExists(), 0);
  EXPECT_EQ(OpenConsolidatedLogFile(), -1);
  EXPECT_THAT(capture.NewMessages(), ElementsAre("CreateZevDatedDir: mkdir( " + logs_ +
                                                 "//zev.dated, ...) failed : Not a directory\n"));
  ArchiveLogDir();
  EXPECT_THAT(capture.NewMessages(),
              ElementsAre("RemoveSymlinkToCurrDir: unlink() failed : Not a directory\n",
                          "CreateSymlinkToCurrDir: mkdir( " + logs_ + "//zev.dated/" +
                              kLogDirectoryName + ", ...) failed : Not a directory\n"));
  EXPECT_EQ(test::ReadFile("outside/current"), "kept\n");
}

TEST_F(LogDirectoryTest, LogDirectoryMayBeReachedThroughALink) {
  std::filesystem::create_directory_symlink("outside", "root/link");
  std::filesystem::create_directory_symlink("../outside", "root/through");
  const std::string through = std::filesystem::absolute("root/through").string();
  log_dir = through.c_str();
  EXPECT_EQ(OpenConsolidatedLogFile(), 0);
  EXPECT_TRUE(std::filesystem::exists("outside/zev.dated/current/consolidated.log"));
  log_dir = logs_.c_str();
}

// Otherwise the logs of a station at its limit would be scattered over many directories.
TEST_F(LogDirectoryTest, LackOfDescriptorsDoesNotBeginANewDirectory) {
  std::filesystem::create_directory(Dated("day"));
  PointCurrentTo("day");
  const test::DebugCapture capture(0);
  rlimit usual{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &usual), 0);
  const int lowest = dup(STDOUT_FILENO);
  close(lowest);
  const rlimit none = {static_cast<rlim_t>(lowest), usual.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
  const int result = OpenConsolidatedLogFile();
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &usual), 0);
  EXPECT_EQ(result, -1);
  EXPECT_THAT(capture.Messages(),
              ElementsAre("OpenConsolidatedLogFile: open() failed for \"" + logs_ +
                          "//zev.dated/current/consolidated.log\" : Too many open files\n"));
  EXPECT_EQ(std::filesystem::read_symlink(Dated("current")), "day");
}

// ---- Making them --------------------------------------------------------------------------------

using DatedDirectoryTest = LogTest;

TEST_F(DatedDirectoryTest, DirectoryIsNamedByTheLocalTimeToTheMinute) {
  char name[kPathSize];
  GetNewDirName(name, sizeof name);
  EXPECT_EQ(name, logs_ + "//zev.dated/" + kLogDirectoryName);
  clock_.Advance(59 * 60);
  GetNewDirName(name, sizeof name);
  EXPECT_EQ(name, logs_ + "//zev.dated/13-Mar-08:05");
  char small[10];
  GetNewDirName(small, sizeof small);
  EXPECT_EQ(small, logs_.substr(0, 9));
}

TEST_F(DatedDirectoryTest, DatedDirectoryExistsOnceItIsMade) {
  EXPECT_EQ(ZevDatedDirExists(), 0);
  EXPECT_EQ(CreateZevDatedDir(), 0);
  EXPECT_EQ(ZevDatedDirExists(), 1);
  EXPECT_EQ(CreateZevDatedDir(), 0);
}

TEST_F(DatedDirectoryTest, OpenFailsWhenTheGroupOfTheDatedDirectoryCannotBeSet) {
  const test::FailCall failure(test::Call::kFchown, EPERM);
  const test::DebugCapture capture(0);
  EXPECT_EQ(OpenConsolidatedLogFile(), -1);
  EXPECT_THAT(capture.Messages(),
              ElementsAre("CreateZevDatedDir: chown failed : Operation not permitted\n"));
}

TEST_F(DatedDirectoryTest, OpenFailsWhenTheGroupOfANewDirectoryCannotBeSet) {
  CreateZevDatedDir();
  const test::FailCall failure(test::Call::kFchown, EPERM);
  const test::DebugCapture capture(0);
  EXPECT_EQ(OpenConsolidatedLogFile(), -1);
  EXPECT_THAT(capture.Messages(),
              ElementsAre("CreateSymlinkToCurrDir: chown failed : Operation not permitted\n"));
  EXPECT_EQ(SymlinkToCurrDirExists(), 1);
}

TEST_F(DatedDirectoryTest, LinkWhoseTargetIsGoneCountsAsMissing) {
  EXPECT_EQ(SymlinkToCurrDirExists(), 0);
  CreateZevDatedDir();
  std::filesystem::create_symlink(Dated("/gone"), Dated("/current"));
  EXPECT_EQ(SymlinkToCurrDirExists(), 0);
  ASSERT_EQ(OpenLogFile(box_), 0);
  EXPECT_EQ(SymlinkToCurrDirExists(), 1);
  EXPECT_EQ(std::filesystem::read_symlink(Dated("/current")).filename(), kLogDirectoryName);
}

TEST_F(DatedDirectoryTest, LinkDoesNotReplaceADirectory) {
  std::filesystem::create_directories(Dated("/current/occupied"));
  const test::DebugCapture capture(0);
  EXPECT_EQ(CreateSymlinkToCurrDir(), -1);
  EXPECT_THAT(capture.Messages(),
              ElementsAre("CreateSymlinkToCurrDir: symlink failed : File exists\n"));
}

TEST_F(DatedDirectoryTest, DirectoryThatCannotBeMadeIsReported) {
  const test::DebugCapture capture(0);
  EXPECT_EQ(CreateSymlinkToCurrDir(), -1);
  EXPECT_THAT(capture.Messages(),
              ElementsAre("CreateSymlinkToCurrDir: mkdir( " + logs_ + "//zev.dated/" +
                          kLogDirectoryName + ", ...) failed : No such file or directory\n"));
}

TEST_F(DatedDirectoryTest, RemovingAMissingLinkIsReported) {
  const test::DebugCapture capture(0);
  RemoveSymlinkToCurrDir();
  EXPECT_THAT(capture.Messages(),
              ElementsAre("RemoveSymlinkToCurrDir: unlink() failed : No such file or directory\n"));
}

// ---- Archiving ----------------------------------------------------------------------------------

class ArchiveTest : public LogTest {
 protected:
  /// Begins a directory and opens the logs in it. Returns the second in which it was made: the
  /// change time that the daemon noted and the one that is read here differ when a second ends
  /// between them, and then another directory is begun.
  time_t BeginDirectory();

 private:
  static time_t FileSystemTime();
};

time_t ArchiveTest::FileSystemTime() {
  timespec now{};
  EXPECT_EQ(clock_gettime(CLOCK_REALTIME_COARSE, &now), 0);
  return now.tv_sec;
}

time_t ArchiveTest::BeginDirectory() {
  CreateZevDatedDir();
  for (;; clock_.Advance(60)) {
    const time_t before = FileSystemTime();
    ArchiveLogDir();
    OpenLogs();
    if (FileStatus(Dated("/current")).st_ctime == before) return before;
    CloseLogFile(box_);
    CloseConsolidatedLogFile();
  }
}

TEST_F(ArchiveTest, ArchivingPointsTheLinkAtANewDirectory) {
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

TEST_F(ArchiveTest, SecondArchivingWithinTheMinuteUsesTheSameDirectory) {
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
  EXPECT_THAT(directories, ElementsAre(kLogDirectoryName));
}

TEST_F(ArchiveTest, DirectoryExpiresWhenItsAgeReachesTheInterval) {
  const time_t created = BeginDirectory();
  log_archive_time = 3600;
  for (const auto& [age, expired] :
       std::vector<std::pair<int, int>>{{0, 0}, {3599, 0}, {3600, 1}, {3601, 1}, {-10, 0}}) {
    clock_.Set(created + age);
    EXPECT_EQ(LogDirExpired(), expired) << age;
  }
}

TEST_F(ArchiveTest, ClockThatJumpsBackAnHourOnlyDelaysTheNextDirectory) {
  const time_t created = BeginDirectory();
  log_archive_time = 3600;
  clock_.Set(kLogStart);
  Print("before\n");
  clock_.Set(created + 3599);
  EXPECT_EQ(LogDirExpired(), 0);
  clock_.Advance(-3600);
  EXPECT_EQ(LogDirExpired(), 0);
  clock_.Set(kLogStart - 3600);
  EXPECT_EQ(Print("after\n"), 0);
  EXPECT_EQ(Log(), Record("before\n") + Record("after\n", "11/03/13_06:06:40"));
  clock_.Set(created + 3600);
  EXPECT_EQ(LogDirExpired(), 1);
}

/// The process learns the directory's age once, when it first needs it: the children start afresh.
class FreshLogDirTest : public test::UtcTest {
 protected:
  FreshLogDirTest() { test::StartChildrenAfresh(); }
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

TEST_F(FreshLogDirTest, AgeOfAnExistingDirectoryIsThatOfTheLinksTarget) {
  EXPECT_HOLDS_IN_CHILD(AskForTheAgeOfADirectoryThatWasThereBefore());
}

TEST_F(ArchiveTest, IntervalOfZeroHasAlwaysExpired) {
  CreateZevDatedDir();
  ArchiveLogDir();
  clock_.Set(FileStatus(Dated("/current")).st_ctime);
  log_archive_time = 0;
  EXPECT_EQ(LogDirExpired(), 1);
}

TEST_F(ArchiveTest, LaterChangesDoNotMakeTheDirectoryYounger) {
  CreateZevDatedDir();
  ArchiveLogDir();
  log_archive_time = 3600;
  const time_t created = FileStatus(Dated("/current")).st_ctime;
  std::filesystem::remove_all(Dated());
  clock_.Set(created + 3600);
  EXPECT_EQ(LogDirExpired(), 1);
}

TEST_F(ArchiveTest, DirectoryThatCannotBeMadeExpiresAgain) {
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

}  // namespace
