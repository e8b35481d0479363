// What may stand in the place of the directories and of the link; log_test.cpp has the rest.
#include "log_directory.h"

#include <sys/resource.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "log.h"
#include "support.h"

namespace {

using ::testing::ElementsAre;

constexpr time_t kStart = 1'300'000'000;
constexpr char kToday[] = "13-Mar-07:06";

class LogDirectoryTest : public test::RelayTest {
 protected:
  LogDirectoryTest() : logs_(std::filesystem::absolute("root/logs").string()) {
    setenv("TZ", "UTC0", 1);
    tzset();
    log_dir = logs_.c_str();
    std::filesystem::create_directories("outside");
    std::filesystem::create_directories(Dated());
  }
  ~LogDirectoryTest() override {
    CloseConsolidatedLogFile();
    unsetenv("TZ");
    tzset();
  }

  std::string Dated(const std::string& name = "") const { return logs_ + "/zev.dated/" + name; }
  void PointCurrentTo(const std::string& target) const {
    std::filesystem::remove(Dated("current"));
    std::filesystem::create_symlink(target, Dated("current"));
  }
  static bool IsEmpty(const char* path) { return std::filesystem::is_empty(path); }

  test::StationRoot root_;
  std::string logs_;
  test::FakeClock clock_{kStart};
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

TEST_F(LogDirectoryTest, LinkThatLeadsAnywhereElseIsMissingAndReplaced) {
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
    EXPECT_EQ(std::filesystem::read_symlink(Dated("current")).filename(), kToday) << target;
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
  std::filesystem::create_directory_symlink(std::filesystem::absolute("outside"), Dated(kToday));
  const test::DebugCapture capture(0);
  EXPECT_EQ(OpenConsolidatedLogFile(), -1);
  EXPECT_THAT(capture.Messages(),
              ElementsAre("CreateSymlinkToCurrDir: mkdir( " + logs_ + "//zev.dated/" + kToday +
                          ", ...) failed : Not a directory\n"));
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
                          "CreateSymlinkToCurrDir: mkdir( " + logs_ + "//zev.dated/" + kToday +
                              ", ...) failed : Not a directory\n"));
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

// Else the logs of a station at its limit would be scattered over directories.
TEST_F(LogDirectoryTest, WantOfDescriptorsIsNoReasonToBeginANewDirectory) {
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

}  // namespace
