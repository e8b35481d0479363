#include "archive_time.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <ios>
#include <iterator>
#include <string>
#include <vector>

#include "daemon_support.h"
#include "debug_support.h"
#include "failure_support.h"
#include "file_support.h"
#include "options.h"
#include "paths.h"
#include "zev.h"
#include "zev_steps.h"

using namespace zevd;

namespace {

using namespace std::string_literals;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr char kFile[] = "root/config/qor.conf";
constexpr int32_t kDay = 86400;
constexpr int32_t kDefault = 7 * kDay;

class ArchiveTimeTest : public test::DaemonTest {
 protected:
  ArchiveTimeTest() : saved_umask_(umask(007)) {
    log_archive_time = kDefault;
    USE_CMD_LINE_ARCH_TIME = 0;
  }
  ~ArchiveTimeTest() override { umask(saved_umask_); }

  // As the option -a does.
  static void GiveOption(const char* argument) { GetLogArchiveTime(argument); }

  static struct stat FileStatus() {
    struct stat status {};
    EXPECT_EQ(stat(kFile, &status), 0);
    return status;
  }

  test::StationRoot root_;

 private:
  mode_t saved_umask_;
};

/// A line that tells copies of this test's file from those of programs that run beside it.
std::string Marker() {
  return std::filesystem::current_path().string() + "\n";
}

std::vector<std::filesystem::path> CopiesLeftBehind() {
  std::vector<std::filesystem::path> found;
  for (const auto& entry : std::filesystem::directory_iterator("/tmp")) {
    if (entry.path().filename().string().rfind("qorconf", 0) != 0) continue;
    std::ifstream file(entry.path(), std::ios::binary);
    const std::string content{std::istreambuf_iterator<char>(file), {}};
    if (content.find(Marker()) != std::string::npos) found.push_back(entry.path());
  }
  return found;
}

TEST_F(ArchiveTimeTest, IsTheSuitesConfigurationFile) {
  EXPECT_STREQ(kSuiteConfigFile, QOR_ROOT "/config/qor.conf");
}

// ---- The five cases -----------------------------------------------------------------------------

TEST_F(ArchiveTimeTest, MissingFileIsMadeWithTheDefault) {
  GetZevdArchIntFromConfFile();
  EXPECT_EQ(test::ReadFile(kFile), "ZEVD_ARCH_INT=7\n");
  EXPECT_EQ(log_archive_time, kDefault);
}

TEST_F(ArchiveTimeTest, MissingFileIsMadeWithTheCommandLineValue) {
  GiveOption("2w");
  GetZevdArchIntFromConfFile();
  EXPECT_EQ(test::ReadFile(kFile), "ZEVD_ARCH_INT=14\n");
  EXPECT_EQ(log_archive_time, 14 * kDay);
  EXPECT_EQ(USE_CMD_LINE_ARCH_TIME, 0);
}

TEST_F(ArchiveTimeTest, ValueIsTakenFromTheFile) {
  const std::string content = "FIRST=1\nZEVD_ARCH_INT=30\nLAST=2\n";
  test::WriteFile(kFile, content);
  GetZevdArchIntFromConfFile();
  EXPECT_EQ(log_archive_time, 30 * kDay);
  EXPECT_EQ(test::ReadFile(kFile), content);
}

TEST_F(ArchiveTimeTest, CommandLineValueIsWrittenToTheFile) {
  test::WriteFile(kFile, "FIRST=1\nZEVD_ARCH_INT=7\nLAST=2\n");
  GiveOption("2w");
  GetZevdArchIntFromConfFile();
  EXPECT_EQ(test::ReadFile(kFile), "FIRST=1\nZEVD_ARCH_INT=14\nLAST=2\n");
  EXPECT_EQ(log_archive_time, 14 * kDay);
  EXPECT_EQ(USE_CMD_LINE_ARCH_TIME, 0);
}

TEST_F(ArchiveTimeTest, FileWithoutTheLineIsLeftAlone) {
  const std::string content = "FIRST=1\n ZEVD_ARCH_INT=3\nzevd_arch_int=4\nLAST=2";
  test::WriteFile(kFile, content);
  GetZevdArchIntFromConfFile();
  EXPECT_EQ(log_archive_time, kDefault);
  GiveOption("3d");
  GetZevdArchIntFromConfFile();
  EXPECT_EQ(test::ReadFile(kFile), content);
  EXPECT_EQ(log_archive_time, 3 * kDay);
  EXPECT_EQ(USE_CMD_LINE_ARCH_TIME, 1);
}

// ---- Later readings -----------------------------------------------------------------------------

TEST_F(ArchiveTimeTest, PendingValueIsWrittenOnceTheFileHasTheLine) {
  test::WriteFile(kFile, "FIRST=1\n");
  GiveOption("3d");
  GetZevdArchIntFromConfFile();
  test::WriteFile(kFile, "ZEVD_ARCH_INT=9\n");
  GetZevdArchIntFromConfFile();
  EXPECT_EQ(test::ReadFile(kFile), "ZEVD_ARCH_INT=3\n");
  EXPECT_EQ(log_archive_time, 3 * kDay);
}

TEST_F(ArchiveTimeTest, FileDecidesOnceTheValueIsWritten) {
  GiveOption("2w");
  GetZevdArchIntFromConfFile();
  test::WriteFile(kFile, "ZEVD_ARCH_INT=5\n");
  GetZevdArchIntFromConfFile();
  EXPECT_EQ(log_archive_time, 5 * kDay);
  EXPECT_EQ(test::ReadFile(kFile), "ZEVD_ARCH_INT=5\n");
}

TEST_F(ArchiveTimeTest, NinetyMinutesAreLessThanADay) {
  test::WriteFile(kFile, "ZEVD_ARCH_INT=7\n");
  GiveOption("90m");
  GetZevdArchIntFromConfFile();
  EXPECT_EQ(test::ReadFile(kFile), "ZEVD_ARCH_INT=0\n");
  EXPECT_EQ(log_archive_time, 5400);
  GetZevdArchIntFromConfFile();
  EXPECT_EQ(log_archive_time, 0);
}

// ---- Reading ------------------------------------------------------------------------------------

TEST_F(ArchiveTimeTest, FirstOfTwoLinesGivesTheValue) {
  test::WriteFile(kFile, "ZEVD_ARCH_INT=3\nZEVD_ARCH_INT=4\n");
  GetZevdArchIntFromConfFile();
  EXPECT_EQ(log_archive_time, 3 * kDay);
}

TEST_F(ArchiveTimeTest, RewriteReplacesBothLines) {
  test::WriteFile(kFile, "ZEVD_ARCH_INT=3\nOTHER\nZEVD_ARCH_INT=4 # why\n");
  GiveOption("5");
  GetZevdArchIntFromConfFile();
  EXPECT_EQ(test::ReadFile(kFile), "ZEVD_ARCH_INT=5\nOTHER\nZEVD_ARCH_INT=5\n");
}

struct Value {
  const char* line;
  int32_t days;
};

class ArchiveTimeValueTest : public ArchiveTimeTest, public ::testing::WithParamInterface<Value> {};

TEST_P(ArchiveTimeValueTest, IsReadAsANumberOfDays) {
  test::WriteFile(kFile, GetParam().line);
  GetZevdArchIntFromConfFile();
  EXPECT_EQ(log_archive_time, GetParam().days * kDay) << GetParam().line;
  EXPECT_EQ(test::ReadFile(kFile), GetParam().line);
}

INSTANTIATE_TEST_SUITE_P(
    Lines, ArchiveTimeValueTest,
    ::testing::Values(Value{"ZEVD_ARCH_INT=1", 1}, Value{"ZEVD_ARCH_INT=0\n", 0},
                      Value{"ZEVD_ARCH_INT=\n", 0}, Value{"ZEVD_ARCH_INT=soon\n", 0},
                      Value{"ZEVD_ARCH_INT= 12\n", 12}, Value{"ZEVD_ARCH_INT=12 days\r\n", 12},
                      Value{"ZEVD_ARCH_INT=2w\n", 2}, Value{"ZEVD_ARCH_INT=-1\n", -1},
                      Value{"ZEVD_ARCH_INT=24855\n", 24855}));

TEST_F(ArchiveTimeTest, HugeValueWrapsIn32Bits) {
  test::WriteFile(kFile, "ZEVD_ARCH_INT=100000\n");
  GetZevdArchIntFromConfFile();
  EXPECT_EQ(log_archive_time, static_cast<int32_t>(static_cast<uint32_t>(100000LL * kDay)));
}

// ---- Writing ------------------------------------------------------------------------------------

TEST_F(ArchiveTimeTest, OtherLinesStayByteForByte) {
  const std::string before = "# a comment\r\n\n \t KEY = \xff\xfe\n"s + "nul\0inside\n"s +
                             std::string(20000, 'x') + "\n" + std::string(8185, 'y') +
                             "ZEVD_ARCH_INT=1\n";
  const std::string after = "\0\n"s + std::string(8191, 'z') + "\nXZEVD_ARCH_INT=1\nno end";
  test::WriteFile(kFile, before + "ZEVD_ARCH_INT=7\n" + after);
  GiveOption("2w");
  GetZevdArchIntFromConfFile();
  EXPECT_EQ(test::ReadFile(kFile), before + "ZEVD_ARCH_INT=14\n" + after);
}

TEST_F(ArchiveTimeTest, EverythingAfterTheKeyIsReplaced) {
  test::WriteFile(kFile, "ZEVD_ARCH_INT=7 # weekly\r\nA\nZEVD_ARCH_INT=8");
  GiveOption("3d");
  GetZevdArchIntFromConfFile();
  EXPECT_EQ(test::ReadFile(kFile), "ZEVD_ARCH_INT=3\nA\nZEVD_ARCH_INT=3\n");
}

TEST_F(ArchiveTimeTest, RewriteKeepsInodeOwnerAndMode) {
  test::WriteFile(kFile, "ZEVD_ARCH_INT=700000\nMORE\n");
  // Without the right to do so the file keeps its owner, and must have it afterwards too.
  [[maybe_unused]] const int ignored = chown(kFile, 4321, 12345);
  ASSERT_EQ(chmod(kFile, 0641), 0);
  const struct stat before = FileStatus();
  GiveOption("2w");
  GetZevdArchIntFromConfFile();
  EXPECT_EQ(test::ReadFile(kFile), "ZEVD_ARCH_INT=14\nMORE\n");
  const struct stat after = FileStatus();
  EXPECT_EQ(after.st_ino, before.st_ino);
  EXPECT_EQ(after.st_uid, before.st_uid);
  EXPECT_EQ(after.st_gid, before.st_gid);
  EXPECT_EQ(after.st_mode, before.st_mode);
}

TEST_F(ArchiveTimeTest, RewriteLeavesNoTemporaryFile) {
  test::WriteFile(kFile, "ZEVD_ARCH_INT=7\n" + Marker());
  GiveOption("2w");
  GetZevdArchIntFromConfFile();
  EXPECT_EQ(test::ReadFile(kFile), "ZEVD_ARCH_INT=14\n" + Marker());
  EXPECT_THAT(CopiesLeftBehind(), IsEmpty());
}

TEST_F(ArchiveTimeTest, NewFileGetsTheGroupOfTheRootAndItsMode) {
  constexpr gid_t kGroup = 12345;
  [[maybe_unused]] const int ignored = chown(kQorRoot, static_cast<uid_t>(-1), kGroup);
  struct stat root {};
  ASSERT_EQ(stat(kQorRoot, &root), 0);
  GetZevdArchIntFromConfFile();
  EXPECT_EQ(FileStatus().st_gid, root.st_gid);
  EXPECT_EQ(FileStatus().st_uid, geteuid());
  EXPECT_EQ(FileStatus().st_mode & 07777U, 0770U);
}

TEST_F(ArchiveTimeTest, WritesItsEntryLine) {
  const test::DebugCapture capture(kTrace);
  GetZevdArchIntFromConfFile();
  EXPECT_THAT(capture.Messages(), ElementsAre("Entering GetZevdArchIntFromConfFile\n"));
}

// ---- Failures: all of them end the process ------------------------------------------------------

#define EXPECT_ENDS_WITH(message)                                             \
  EXPECT_EXIT(                                                                \
      {                                                                       \
        test::SendDebugToStderr(kInfo);                                       \
        GetZevdArchIntFromConfFile();                                         \
      },                                                                      \
      ::testing::ExitedWithCode(1),                                           \
      test::DebugTextsAre(ElementsAre("GetZevdArchIntFromConfFile: " message, \
                                      test::IsExitTrace(1, "archive_time.cpp"))))

TEST_F(ArchiveTimeTest, FileThatCannotBeMadeEndsTheProcess) {
  std::filesystem::remove_all("root/config");
  EXPECT_ENDS_WITH("fopen( \"root/config/qor.conf\", ...) failed : No such file or directory\n");
}

TEST_F(ArchiveTimeTest, LinkIsNotFollowed) {
  std::filesystem::create_symlink("elsewhere", kFile);
  EXPECT_ENDS_WITH(
      "fopen( \"root/config/qor.conf\", ...) failed : Too many levels of symbolic links\n");
  EXPECT_FALSE(std::filesystem::exists("root/config/elsewhere"));
  test::WriteFile("root/config/elsewhere", "ZEVD_ARCH_INT=3\n");
  EXPECT_ENDS_WITH(
      "fopen( \"root/config/qor.conf\", ...) failed : Too many levels of symbolic links\n");
}

TEST_F(ArchiveTimeTest, FileWithTwoNamesIsRefused) {
  test::WriteFile("root/config/elsewhere", "ZEVD_ARCH_INT=3\n");
  std::filesystem::create_hard_link("root/config/elsewhere", kFile);
  GiveOption("2w");
  EXPECT_ENDS_WITH("fopen( \"root/config/qor.conf\", ...) failed : Too many links\n");
  EXPECT_EQ(test::ReadFile("root/config/elsewhere"), "ZEVD_ARCH_INT=3\n");
}

TEST_F(ArchiveTimeTest, PipeIsNotWaitedFor) {
  ASSERT_EQ(mkfifo(kFile, 0600), 0);
  EXPECT_ENDS_WITH("fopen( \"root/config/qor.conf\", ...) failed : No such device or address\n");
}

TEST_F(ArchiveTimeTest, GroupThatCannotBeSetEndsTheProcess) {
  const test::FailCall failure(test::Call::kFchown, EPERM);
  EXPECT_ENDS_WITH("chown( root/config/qor.conf, ...) failed : Operation not permitted\n");
}

/// In the child of a death test: gives up the right to open what the modes forbid.
void BecomeNobody() {
  constexpr uid_t kNobody = 65534;
  if (geteuid() == 0 && setuid(kNobody) != 0) _exit(99);
}

#define EXPECT_NOBODY_ENDS_WITH(message)                                      \
  EXPECT_EXIT(                                                                \
      {                                                                       \
        BecomeNobody();                                                       \
        test::SendDebugToStderr(kInfo);                                       \
        GetZevdArchIntFromConfFile();                                         \
      },                                                                      \
      ::testing::ExitedWithCode(1),                                           \
      test::DebugTextsAre(ElementsAre("GetZevdArchIntFromConfFile: " message, \
                                      test::IsExitTrace(1, "archive_time.cpp"))))

TEST_F(ArchiveTimeTest, FileThatCannotBeReadEndsTheProcess) {
  test::WriteFile(kFile, "ZEVD_ARCH_INT=7\n");
  ASSERT_EQ(chmod(".", 0755), 0);
  ASSERT_EQ(chmod(kFile, 0), 0);
  EXPECT_NOBODY_ENDS_WITH("fopen( \"root/config/qor.conf\", ...) failed : Permission denied\n");
}

TEST_F(ArchiveTimeTest, FileThatCannotBeWrittenEndsTheProcessAndKeepsItsContent) {
  const std::string content = "ZEVD_ARCH_INT=7\n" + Marker();
  test::WriteFile(kFile, content);
  ASSERT_EQ(chmod(".", 0755), 0);
  ASSERT_EQ(chmod(kFile, 0444), 0);
  GiveOption("2w");
  EXPECT_NOBODY_ENDS_WITH("fopen( \"root/config/qor.conf\", ...) failed : Permission denied\n");
  EXPECT_EQ(test::ReadFile(kFile), content);
  EXPECT_THAT(CopiesLeftBehind(), IsEmpty());
}

/// In the child of a death test: writing beyond this size of a file fails with EFBIG.
void LimitFiles(rlim_t size) {
  signal(SIGXFSZ, SIG_IGN);
  const rlimit limit = {size, size};
  if (setrlimit(RLIMIT_FSIZE, &limit) != 0) _exit(99);
}

TEST_F(ArchiveTimeTest, NewFileThatCannotBeWrittenEndsTheProcessAndIsNotLeftEmpty) {
  EXPECT_EXIT(
      {
        test::SendDebugToStderr(kInfo);
        LimitFiles(0);
        GetZevdArchIntFromConfFile();
      },
      ::testing::ExitedWithCode(1), "");
  EXPECT_FALSE(std::filesystem::exists(kFile));
}

TEST_F(ArchiveTimeTest, TemporaryFileThatCannotBeWrittenEndsTheProcessAndKeepsTheContent) {
  const std::string content = "ZEVD_ARCH_INT=7\n" + Marker() + std::string(100000, 'x');
  test::WriteFile(kFile, content);
  GiveOption("2w");
  EXPECT_EXIT(
      {
        LimitFiles(50000);
        GetZevdArchIntFromConfFile();
      },
      ::testing::ExitedWithCode(1), "");
  EXPECT_EQ(test::ReadFile(kFile), content);
  EXPECT_THAT(CopiesLeftBehind(), IsEmpty());
}

/// In the child of a death test: just one more descriptor can be opened. At the end there are more
/// again, which the leak checker needs.
void LeaveOneDescriptor() {
  const int lowest = dup(STDOUT_FILENO);
  close(lowest);
  static rlimit usual{};
  getrlimit(RLIMIT_NOFILE, &usual);
  atexit([] { setrlimit(RLIMIT_NOFILE, &usual); });
  const rlimit limit = {static_cast<rlim_t>(lowest) + 1, usual.rlim_max};
  if (setrlimit(RLIMIT_NOFILE, &limit) != 0) _exit(99);
}

TEST_F(ArchiveTimeTest, MissingTemporaryFileEndsTheProcessAndKeepsTheContent) {
  test::WriteFile(kFile, "ZEVD_ARCH_INT=7\nMORE\n");
  GiveOption("2w");
  EXPECT_EXIT(
      {
        test::SendDebugToStderr(kInfo);
        LeaveOneDescriptor();
        GetZevdArchIntFromConfFile();
      },
      ::testing::ExitedWithCode(1),
      test::DebugTextsAre(ElementsAre("GetZevdArchIntFromConfFile: Cannot create temporary file\n",
                                      test::IsExitTrace(1, "archive_time.cpp"))));
  EXPECT_EQ(test::ReadFile(kFile), "ZEVD_ARCH_INT=7\nMORE\n");
}

}  // namespace
