// Opening logs: the directories, modes and groups of new ones, and failures.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <ctime>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>

#include "debug_support.h"
#include "log.h"
#include "log_directory.h"
#include "log_directory_steps.h"
#include "log_support.h"
#include "options.h"

using namespace zevd;

namespace {

using namespace std::string_literals;
using test::before_fchmod;
using test::fchmod_fails;
using test::kLogDirectoryName;
using test::kLogStart;
using test::LogTest;
using ::testing::AllOf;
using ::testing::Contains;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

using LogOpenTest = LogTest;

constexpr gid_t kGroup = 12345;

TEST_F(LogOpenTest, ReopeningAppends) {
  OpenLogs();
  Print("one\n");
  CloseLogFile(box_);
  ASSERT_EQ(OpenLogFile(box_), 0);
  Print("two\n");
  EXPECT_EQ(Log(), Record("one\n") + Record("two\n"));
}

TEST_F(LogOpenTest, FirstOpenMakesTheDirectoriesAndTheLink) {
  const test::DebugCapture capture(kInfo);
  ASSERT_EQ(OpenLogFile(box_), 0);
  EXPECT_EQ(std::filesystem::read_symlink(Dated("/current")).string(),
            logs_ + "//zev.dated/" + kLogDirectoryName);
  EXPECT_TRUE(std::filesystem::is_regular_file(Dated("/"s + kLogDirectoryName + "/box.log")));
  EXPECT_THAT(capture.Messages(),
              ElementsAre("OpenLogFile: opened " + logs_ + "//zev.dated/current/box.log\n"));
}

TEST_F(LogOpenTest, ConsolidatedLogIsOpenedInTheSameWay) {
  const test::DebugCapture capture(kInfo);
  ASSERT_EQ(OpenConsolidatedLogFile(), 0);
  EXPECT_TRUE(
      std::filesystem::is_regular_file(Dated("/"s + kLogDirectoryName + "/consolidated.log")));
  EXPECT_THAT(capture.Messages(), ElementsAre("OpenConsolidatedLogFile: opened " + logs_ +
                                              "//zev.dated/current/consolidated.log\n"));
}

TEST_F(LogOpenTest, NewFilesAndDirectoriesHaveTheirModesAndTheGroupOfTheRoot) {
  // Without the right to do so the root keeps its group, and all of these must have it too.
  [[maybe_unused]] const int ignored = chown(kQorRoot, static_cast<uid_t>(-1), kGroup);
  const gid_t group = FileStatus(kQorRoot).st_gid;
  OpenLogs();
  const std::string directory = Dated("/"s + kLogDirectoryName);
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

TEST_F(LogOpenTest, OldFilesKeepTheirModesAndGroups) {
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

TEST_F(LogOpenTest, WithoutTheRootNoGroupIsSet) {
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

TEST_F(LogOpenTest, LogsAreNotInherited) {
  OpenLogs();
  EXPECT_NE(fcntl(box_->log_fd, F_GETFD) & FD_CLOEXEC, 0);
}

TEST_F(LogOpenTest, LogThatCannotBeOpenedIsReportedByItsPath) {
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

TEST_F(LogOpenTest, MissingLogDirectoryFailsBothLogs) {
  std::filesystem::remove_all(logs_);
  const std::string report = "CreateZevDatedDir: mkdir( " + logs_ +
                             "//zev.dated, ...) failed : No such file or directory\n";
  test::DebugCapture capture(0);
  EXPECT_EQ(OpenLogFile(box_), -1);
  EXPECT_THAT(capture.NewMessages(), ElementsAre(report));
  EXPECT_EQ(box_->log_fd, -1);
}

TEST_F(LogOpenTest, LogWhoseGroupCannotBeSetEndsTheProcess) {
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

TEST_F(LogOpenTest, LogWhoseModeCannotBeSetEndsTheProcess) {
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

TEST_F(LogOpenTest, ConsolidatedLogWhoseGroupCannotBeSetFailsButStaysOpen) {
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

/// What the main thread does while the connection thread opens a log: it begins a new directory, a
/// minute later.
class ArchivingThread {
 public:
  ArchivingThread() : thread_(&ArchivingThread::Run, this) {}
  ~ArchivingThread() { thread_.join(); }
  ArchivingThread(const ArchivingThread&) = delete;
  ArchivingThread& operator=(const ArchivingThread&) = delete;

  bool done() const { return done_; }

  /// It has announced the new directory, and sleeps.
  bool IsWaiting(const test::DebugCapture& capture) const {
    return capture.Has("ArchiveLogDir: Archiving log directory\n") && State() == 'S';
  }

 private:
  void Run() {
    const test::FakeClock clock(kLogStart + 60);  // each thread has its own
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

TEST_F(LogOpenTest, NewDirectoryIsNotBegunWhileALogIsSetUp) {
  ASSERT_EQ(OpenConsolidatedLogFile(), 0);
  const test::DebugCapture capture(kInfo);
  std::unique_ptr<ArchivingThread> archiving;
  before_fchmod = [&] {
    archiving = std::make_unique<ArchivingThread>();
    EXPECT_TRUE(
        test::Eventually([&] { return archiving->done() || archiving->IsWaiting(capture); }));
    EXPECT_FALSE(archiving->done());
    EXPECT_EQ(std::filesystem::read_symlink(Dated("/current")).filename(), kLogDirectoryName);
  };
  EXPECT_EQ(OpenLogFile(box_), 0);
  ASSERT_NE(archiving, nullptr);
  archiving.reset();
  EXPECT_EQ(std::filesystem::read_symlink(Dated("/current")).filename(), "13-Mar-07:07");
  EXPECT_EQ(Mode(Dated("/"s + kLogDirectoryName + "/box.log")), 0660U);
  EXPECT_EQ(Print("kept\n"), 0);
  EXPECT_EQ(test::ReadFile(Dated("/"s + kLogDirectoryName + "/box.log")), Record("kept\n"));
  EXPECT_THAT(capture.Messages(),
              ElementsAre("OpenLogFile: opened " + logs_ + "//zev.dated/current/box.log\n",
                          "ArchiveLogDir: Archiving log directory\n"));
}

TEST_F(LogOpenTest, LogIsSetUpEvenIfItsDirectoryIsRemovedMeanwhile) {
  ASSERT_EQ(OpenConsolidatedLogFile(), 0);
  before_fchmod = [this] { std::filesystem::remove_all(Dated()); };
  EXPECT_EQ(OpenLogFile(box_), 0);
  ASSERT_FALSE(std::filesystem::exists(Dated()));
  struct stat log {};
  ASSERT_EQ(fstat(box_->log_fd, &log), 0);
  EXPECT_EQ(log.st_mode & 07777U, 0660U);
  EXPECT_EQ(Print("lost with its directory\n"), 0);
}

TEST_F(LogOpenTest, LongLogDirectoryIsCut) {
  const std::string deep = "/" + std::string(5000, 'd');
  log_dir = deep.c_str();
  const test::DebugCapture capture(0);
  EXPECT_EQ(OpenLogFile(box_), -1);
  EXPECT_EQ(OpenConsolidatedLogFile(), -1);
  EXPECT_THAT(capture.Messages(), Each(HasSubstr("File name too long")));
  log_dir = logs_.c_str();
}

}  // namespace
