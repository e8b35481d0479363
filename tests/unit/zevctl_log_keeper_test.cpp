// Keeping old logs: which are compressed, which are removed, and what is left alone.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "log_keeper.h"
#include "zevctl_log_support.h"

namespace zevctl {

namespace fs = std::filesystem;

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

constexpr char kOld[] = "01-Nov-00:00";

class LogKeeperTest : public LogFilesTest {
 protected:
  LogKeeperTest() { MakeCurrent("21-Nov-08:00"); }

  /// Makes a log whose last change is so many days before kNow.
  void MakeLog(const std::string& in, const std::string& name, double days) {
    Append(in, name, Stamped(0, name + "\n"));
    Age(log(in, name), days);
  }

  static void Age(const fs::path& path, double days) {
    const timespec time = {kNow - static_cast<time_t>(days * kDay), 123456789};
    const timespec times[] = {time, time};
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0);
  }

  Kept Run(int keep_days = 0) {
    told_.clear();
    const auto tell = [this](const std::string& message) { told_.push_back(message); };
    return LogKeeper(root(), keep_days, kNow, tell).Run();
  }

  /// What is in a dated directory, or in the directory of all of them.
  std::vector<std::string> Files(const std::string& in) const {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(dated() / in)) {
      names.push_back(entry.path().filename());
    }
    std::sort(names.begin(), names.end());
    return names;
  }

  Texts Read(const std::string& name) {
    LogReaders readers = Open({name});
    return ReadAll(readers);
  }

  Texts told_;
};

TEST(DatedNameTest, IsThatOfTheDaemon) {
  for (const char* name : {"17-Mar-08:05", "01-Jan-00:00", "31-Dec-23:59"}) {
    EXPECT_TRUE(IsDatedName(name)) << name;
  }
  for (const char* name :
       {"", "current", "17-Mar-08:05x", "7-Mar-08:05", "17-mar-08:05", "00-Mar-08:05",
        "32-Mar-08:05", "17-Mar-24:00", "17-Mar-08:60", "17-Mrz-08:05", " 7-Mar-08:05",
        "+7-Mar-08:05", "17-Mar-08-05", "-7-Mar-08:05", "17-Mar--8:05", "17-Mar-08:-5"}) {
    EXPECT_FALSE(IsDatedName(name)) << name;
  }
}

TEST(KeepDaysTest, IsTheFirstLineOfItsKey) {
  EXPECT_EQ(KeepDaysIn(""), 0);
  EXPECT_EQ(KeepDaysIn("ZEVD_ARCH_INT=7\n"), 0);
  EXPECT_EQ(KeepDaysIn("ZEVD_ARCH_INT=7\nZEVD_KEEP_DAYS=60\nZEVD_KEEP_DAYS=1\n"), 60);
  EXPECT_EQ(KeepDaysIn("ZEVD_KEEP_DAYS=60"), 60);
  EXPECT_EQ(KeepDaysIn("ZEVD_KEEP_DAYS=60 \t\n"), 60);
  EXPECT_EQ(KeepDaysIn("ZEVD_KEEP_DAYS=0\n"), 0);
  EXPECT_EQ(KeepDaysIn(" ZEVD_KEEP_DAYS=60\n#ZEVD_KEEP_DAYS=60\nXZEVD_KEEP_DAYS=60\n"), 0);
  EXPECT_EQ(KeepDaysIn("ZEVD_KEEP_DAYS = 60\n"), 0);
}

TEST(KeepDaysTest, IsRefusedWhenItIsNoNumberOfDays) {
  for (const char* value : {"", " ", "x", "-1", "+1", "60d", "6 0", "1.5", "0x10", "60\r", "36501",
                            "99999999999999999999"}) {
    EXPECT_EQ(KeepDaysIn(std::string("ZEVD_KEEP_DAYS=") + value + "\n"), std::nullopt) << value;
  }
}

TEST_F(LogKeeperTest, CompressesWhatHasBeenClosedForADay) {
  MakeLog(kOld, "box", 1.1);
  MakeLog(kOld, "consolidated", 5);
  MakeLog("20-Nov-00:00", "box", 0.9);
  MakeLog("20-Nov-00:00", "quiet", 5);
  MakeLog("21-Nov-08:00", "box", 5);
  const Kept kept = Run();
  EXPECT_EQ(kept.compressed, 2U);
  EXPECT_EQ(kept.failures, 0U);
  EXPECT_THAT(Files(kOld), ElementsAre("box.log.zst", "consolidated.log.zst"));
  EXPECT_THAT(Files("20-Nov-00:00"), ElementsAre("box.log", "quiet.log"));
  EXPECT_THAT(Files("21-Nov-08:00"), ElementsAre("box.log"));
  EXPECT_THAT(Read("box"), ElementsAre("box", "box", "box"));
  EXPECT_EQ(Run().compressed, 0U);
}

TEST_F(LogKeeperTest, KeepsOwnerModeAndTimes) {
  MakeLog(kOld, "box", 2);
  const fs::path packed = dated() / kOld / "box.log.zst";
  ASSERT_EQ(chmod(log(kOld, "box").c_str(), 0770), 0);
  struct stat before {};
  ASSERT_EQ(stat(log(kOld, "box").c_str(), &before), 0);
  Run();
  struct stat after {};
  ASSERT_EQ(stat(packed.c_str(), &after), 0);
  EXPECT_EQ(after.st_mode, before.st_mode);
  EXPECT_EQ(after.st_uid, before.st_uid);
  EXPECT_EQ(after.st_gid, before.st_gid);
  EXPECT_EQ(after.st_mtim.tv_sec, before.st_mtim.tv_sec);
  EXPECT_EQ(after.st_mtim.tv_nsec, before.st_mtim.tv_nsec);
}

TEST_F(LogKeeperTest, LeavesWhatSomebodyWrites) {
  MakeLog(kOld, "box", 100);
  {
    const Descriptor writer(open(log(kOld, "box").c_str(), O_WRONLY | O_APPEND | O_CLOEXEC));
    EXPECT_EQ(Run().compressed, 0U);
    EXPECT_EQ(Run(60).removed, 0U);
    EXPECT_THAT(Files(kOld), ElementsAre("box.log"));
  }
  EXPECT_EQ(Run().compressed, 1U);
}

TEST_F(LogKeeperTest, FollowsNoLink) {
  MakeLog("else", "box", 100);
  fs::create_directories(dated() / kOld);
  fs::create_symlink(log("else", "box"), log(kOld, "box"));
  fs::create_directory_symlink(dated() / "else", dated() / "02-Nov-00:00");
  fs::create_hard_link(log("else", "box"), log(kOld, "twin"));
  ASSERT_EQ(mkfifo(log(kOld, "pipe").c_str(), 0600), 0);
  EXPECT_EQ(Run().compressed, 0U);
  EXPECT_THAT(Files(kOld), ElementsAre("box.log", "pipe.log", "twin.log"));
  const Kept kept = Run(60);
  EXPECT_EQ(kept.removed, 1U);
  EXPECT_EQ(kept.directories, 0U);
  EXPECT_THAT(Files(kOld), ElementsAre("box.log", "pipe.log"));
  EXPECT_THAT(Files("else"), ElementsAre("box.log"));
}

TEST_F(LogKeeperTest, RemovesOnlyLogsThatAreOlder) {
  MakeLog(kOld, "box", 61);
  Append(kOld, "notes.txt", "");
  fs::rename(log(kOld, "notes.txt"), dated() / kOld / "notes.txt");
  MakeLog("02-Nov-00:00", "box", 61);
  MakeLog("03-Nov-00:00", "box", 61);
  MakeLog("03-Nov-00:00", "other", 59);
  MakeLog("kept", "box", 61);
  MakeLog("21-Nov-08:00", "box", 61);
  fs::create_directory(dated() / "04-Nov-00:00");
  Age(dated() / "04-Nov-00:00", 61);
  fs::create_directory(dated() / "05-Nov-00:00");
  Age(dated() / "05-Nov-00:00", 59);
  const Kept kept = Run(60);
  EXPECT_EQ(kept.removed, 2U);
  EXPECT_EQ(kept.directories, 2U);
  EXPECT_EQ(kept.compressed, 2U);
  EXPECT_THAT(Files(""),
              ElementsAre(kOld, "03-Nov-00:00", "05-Nov-00:00", "21-Nov-08:00", "current", "kept"));
  EXPECT_THAT(Files(kOld), ElementsAre("notes.txt"));
  EXPECT_THAT(Files("kept"), ElementsAre("box.log"));
  EXPECT_THAT(Files("21-Nov-08:00"), ElementsAre("box.log"));
}

TEST_F(LogKeeperTest, RemovesCompressedLogsToo) {
  MakeLog(kOld, "box", 61);
  EXPECT_EQ(Run().compressed, 1U);
  EXPECT_EQ(Run(62).removed, 0U);
  EXPECT_EQ(Run(60).removed, 1U);
  EXPECT_THAT(Files(""), ElementsAre("21-Nov-08:00", "current"));
}

TEST_F(LogKeeperTest, FinishesWhatAStoppedRunHasBegun) {
  MakeLog(kOld, "box", 2);
  fs::copy(log(kOld, "box"), dated() / "copy");
  Run();
  fs::rename(dated() / "copy", log(kOld, "box"));
  Age(log(kOld, "box"), 2);
  Append(kOld, "temporary", "half of a fr");
  fs::rename(log(kOld, "temporary"), dated() / kOld / ".zevd-logs.tmp");
  EXPECT_THAT(Read("box"), ElementsAre("box"));
  EXPECT_EQ(Run().failures, 0U);
  EXPECT_THAT(Files(kOld), ElementsAre("box.log.zst"));
  EXPECT_THAT(Read("box"), ElementsAre("box"));
}

TEST_F(LogKeeperTest, LeavesAnOriginalWhoseCompressedFormDiffers) {
  MakeLog(kOld, "box", 2);
  Run();
  Append(kOld, "box", Stamped(0, "another\n"));
  Age(log(kOld, "box"), 2);
  EXPECT_EQ(Run().failures, 1U);
  EXPECT_THAT(told_, ElementsAre(HasSubstr("box.log stays as it is: beside it is a compressed log "
                                           "with another text; look at both and remove one")));
  EXPECT_THAT(Files(kOld), ElementsAre("box.log", "box.log.zst"));
  Age(log(kOld, "box"), 3);
  EXPECT_EQ(Run().failures, 0U);
  EXPECT_THAT(Files(kOld), ElementsAre("box.log", "box.log.zst"));
}

TEST_F(LogKeeperTest, DoesNothingWithoutACurrentDirectoryOrWhileAnotherRunIsAtWork) {
  MakeLog(kOld, "box", 2);
  const Descriptor other(open(dated().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  ASSERT_EQ(flock(other.get(), LOCK_EX), 0);
  EXPECT_THROW(Run(), Failure);
  ASSERT_EQ(flock(other.get(), LOCK_UN), 0);
  fs::rename(dated() / "current", dated() / "moved");
  EXPECT_THROW(Run(), Failure);
  EXPECT_THAT(Files(kOld), ElementsAre("box.log"));
  fs::rename(dated() / "moved", dated() / "current");
  EXPECT_EQ(Run().compressed, 1U);
}

}  // namespace

}  // namespace zevctl
