// Following logs while the daemon writes, renames and removes them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>

#include "log_follow.h"
#include "zevctl_log_support.h"

namespace zevctl {

namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

class FollowerTest : public LogFilesTest {
 protected:
  FollowerTest() { MakeCurrent("a"); }

  // Reads what is there, and makes a follower that goes on from there.
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

TEST_F(FollowerTest, StartsAgainInAFileThatWasEmptied) {
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

TEST_F(FollowerTest, FindsAllDirectoriesMadeBetweenTwoTicks) {
  Start({"box"});
  Append("a", "box", Stamped(0, "1\n"));
  MakeCurrent("b");
  Append("b", "box", Stamped(1, "2\n"));
  MakeCurrent("c");
  Append("c", "box", Stamped(2, "3\n"));
  EXPECT_THAT(Tick(), ElementsAre("1", "2", "3"));
  EXPECT_THAT(Tick(10), IsEmpty());
}

TEST_F(FollowerTest, FindsALogMadeAfterItsDirectoryWasListed) {
  Start({"box"});
  MakeCurrent("b");
  EXPECT_THAT(Tick(30), IsEmpty());
  Append("b", "box", Stamped(1, "1\n"));
  MakeCurrent("c");
  Append("c", "box", Stamped(2, "2\n"));
  EXPECT_THAT(Tick(), ElementsAre("1", "2"));
}

TEST_F(FollowerTest, SurvivesAMomentWithoutACurrentDirectory) {
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

TEST_F(FollowerTest, FollowsTheNameOfAnEventSilently) {
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

TEST_F(FollowerTest, SurvivesTheLossOfAllDirectories) {
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
  EXPECT_LE(open_files(), before - 38);  // the directories too
  Append("d19", "box", Stamped(30, "last\n"));
  EXPECT_THAT(Tick(), ElementsAre("last"));
}

}  // namespace

}  // namespace zevctl
