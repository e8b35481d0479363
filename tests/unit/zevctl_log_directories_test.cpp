// Finding logs: their names, and the directories in which they are.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>

#include "exit_status.h"
#include "log_directories.h"
#include "log_merge.h"
#include "support.h"
#include "zevctl_log_support.h"

namespace zevctl {

namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

// ---- Names --------------------------------------------------------------------------------------

TEST(WantedLogsTest, TreatDashesAndUnderscoresAlike) {
  const WantedLogs wanted({"sys-a_1"}, {"sys-a-1", "sys_a_1", "sys-a-2"});
  EXPECT_TRUE(wanted.Has("sys-a-1"));
  EXPECT_TRUE(wanted.Has("sys_a_1"));
  EXPECT_FALSE(wanted.Has("sys-a-2"));
  EXPECT_FALSE(wanted.Has("sys-a-11"));
}

TEST(WantedLogsTest, IgnoreCaseUnlessALogHasExactlyThatName) {
  const WantedLogs only_other({"BOX"}, {"box"});
  EXPECT_TRUE(only_other.Has("box"));
  const WantedLogs both({"BOX"}, {"box", "BOX"});
  EXPECT_TRUE(both.Has("BOX"));
  EXPECT_FALSE(both.Has("box"));
}

TEST(WantedLogsTest, IncludeEveryName) {
  WantedLogs wanted({"box", "chest"}, {});
  EXPECT_TRUE(wanted.Has("box"));
  EXPECT_TRUE(wanted.Has("chest"));
  EXPECT_FALSE(wanted.Has("trunk"));
  wanted.Add("trunk");
  EXPECT_TRUE(wanted.Has("trunk"));
}

TEST(WantedLogsTest, MayBeAPattern) {
  const WantedLogs wanted({"Rack-[12]*"}, {"rack-1-db", "rack_2", "rack-3", "consolidated"});
  EXPECT_TRUE(wanted.Has("rack-1-db"));
  EXPECT_TRUE(wanted.Has("rack_2"));
  EXPECT_TRUE(wanted.Has("rack_1_new"));
  EXPECT_FALSE(wanted.Has("rack-3"));
  EXPECT_FALSE(WantedLogs({"*"}, {}).Has("consolidated"));
  const WantedLogs name({"a[1]"}, {"a[1]", "a1"});
  EXPECT_TRUE(name.Has("a[1]"));
  EXPECT_FALSE(name.Has("a1"));
}

TEST(MeantNameTest, IsTheNameOrTheOnlyOneThatBeginsWithIt) {
  const LogNames existing = {"lab1", "lab12", "rack-1", "rack_1", "box", "consolidated"};
  EXPECT_EQ(MeantName("lab1", existing), "lab1");
  EXPECT_EQ(MeantName("LAB12", existing), "LAB12");
  EXPECT_EQ(MeantName("B", existing), "box");
  EXPECT_EQ(MeantName("Rack", existing), "rack-1");
  EXPECT_EQ(MeantName("cons", existing), "consolidated");
  EXPECT_EQ(MeantName("la*", existing), "la*");
  EXPECT_EQ(MeantName("other", existing), "other");
  try {
    MeantName("la", existing);
    FAIL() << "one of two was taken";
  } catch (const Failure& failure) {
    EXPECT_EQ(failure.status(), ExitStatus::kNoSuchConsole);
    EXPECT_STREQ(failure.what(),
                 "several logs begin with la: lab1, lab12; write more of the name, or \"la*\" for "
                 "all of them");
  }
}

TEST(SimilarNamesTest, DifferLittleOrContainTheName) {
  const LogNames existing = {"lab1", "lab2", "rack-lab-17", "other", "consolidated"};
  EXPECT_THAT(SimilarNames("Lab11", existing), ElementsAre("lab1", "lab2"));
  EXPECT_THAT(SimilarNames("lab", existing), ElementsAre("lab1", "lab2", "rack-lab-17"));
  EXPECT_THAT(SimilarNames("zzz", existing), IsEmpty());
  EXPECT_EQ(SimilarNames("c", {"c1", "c2", "c3", "c4", "c5", "c6", "c7"}).size(), 5U);
}

// ---- Directories --------------------------------------------------------------------------------

class LogDirectoriesTest : public LogFilesTest {};

TEST_F(LogDirectoriesTest, TakeALogOnceWhateverLeadsToIt) {
  Append("a", "box", Stamped(0, "1\n"));
  MakeCurrent("a");
  fs::create_symlink(dated() / "a", dated() / "copy");
  LogReaders readers = Open({"box"});
  EXPECT_THAT(ReadAll(readers), ElementsAre("1"));
}

TEST_F(LogDirectoriesTest, IncludeACurrentDirectoryElsewhere) {
  const test::TemporaryDirectory elsewhere;
  test::WriteFile(elsewhere.path() / "box.log", Stamped(0, "1\n"));
  fs::create_symlink(elsewhere.path(), dated() / "current");
  LogReaders readers = Open({"box"});
  EXPECT_THAT(ReadAll(readers), ElementsAre("1"));
}

TEST_F(LogDirectoriesTest, LeaveOutLogsThatAreNoRegularFiles) {
  fs::create_directories(log("a", "box"));
  ASSERT_EQ(mkfifo(log("a", "BOX").c_str(), 0600), 0);
  fs::create_symlink("nowhere", log("a", "bOx"));
  Append("b", "box", Stamped(0, "1\n"));
  test::WriteFile(dated() / "a file", "");
  LogReaders readers = Open({"box", "BOX", "bOx"});
  EXPECT_THAT(ReadAll(readers), ElementsAre("1"));
}

TEST_F(LogDirectoriesTest, MustBeThere) {
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

}  // namespace

}  // namespace zevctl
