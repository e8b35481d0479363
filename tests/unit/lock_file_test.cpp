#include "lock_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <filesystem>

#include "paths.h"
#include "support.h"

using namespace zevd;

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr char kPath[] = "root/config/zev.lock";

std::string HostName() {
  std::array<char, 65> name{};
  gethostname(name.data(), name.size());
  return name.data();
}

// This process's descriptors of the lock file.
std::vector<int> OpenDescriptors() {
  std::vector<int> found;
  const auto lock_file = std::filesystem::absolute(kPath);
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    if (std::filesystem::read_symlink(entry.path(), gone) == lock_file) {
      found.push_back(std::stoi(entry.path().filename()));
    }
  }
  return found;
}

/// Another instance: an open lock file of its own, locked or not.
class OtherInstance {
 public:
  OtherInstance() : file_(open(kPath, O_RDWR | O_CREAT | O_CLOEXEC, 0660)) {}
  bool TakeLock(int kind = LOCK_EX) const { return flock(file_.get(), kind | LOCK_NB) == 0; }

 private:
  test::Descriptor file_;
};

class LockFileTest : public ::testing::Test {
 protected:
  LockFileTest() : saved_umask_(umask(007)) {}
  ~LockFileTest() override {
    Unlock();
    umask(saved_umask_);
  }

  static struct stat FileStatus(const char* path) {
    struct stat status {};
    EXPECT_EQ(stat(path, &status), 0) << path;
    return status;
  }

  static std::string OpeningFailed(const std::string& error) {
    return "Lock: open( \"root/config/zev.lock\", ...) failed : " + error + "\n";
  }

  static std::string ReadingFailed(const std::string& error) {
    return "GetHostFromLockFile: fopen( \"root/config/zev.lock\", ...) failed : " + error + "\n";
  }

  static void ExpectNoLock(const std::string& message) {
    const test::DebugCapture capture(0);
    EXPECT_EQ(Lock(), -1);
    EXPECT_THAT(capture.Messages(), ElementsAre(message));
  }

  static void ExpectNoHost(const std::string& message) {
    const test::DebugCapture capture(0);
    std::array<char, 65> host{};
    EXPECT_EQ(GetHostFromLockFile(host.data(), host.size()), -1);
    EXPECT_THAT(capture.Messages(), ElementsAre(message));
  }

  // Neither function opens what is in the file's place.
  static void ExpectNeitherOpens(const std::string& error) {
    ExpectNoLock(OpeningFailed(error));
    ExpectNoHost(ReadingFailed(error));
  }

  test::StationRoot root_;

 private:
  mode_t saved_umask_;
};

// ---- Lock ---------------------------------------------------------------------------------------

TEST_F(LockFileTest, IsTheFileInTheConfigurationDirectory) {
  EXPECT_STREQ(kLockFile, QOR_ROOT "/config/zev.lock");
}

TEST_F(LockFileTest, FileHoldsExactlyTheHostName) {
  EXPECT_EQ(Lock(), 0);
  EXPECT_EQ(test::ReadFile(kPath), HostName());
}

TEST_F(LockFileTest, NewFileHasItsModeNarrowedByTheMask) {
  ASSERT_EQ(Lock(), 0);
  EXPECT_EQ(FileStatus(kPath).st_mode & 07777U, 0660U);
  Unlock();
  std::filesystem::remove(kPath);
  umask(077);
  ASSERT_EQ(Lock(), 0);
  EXPECT_EQ(FileStatus(kPath).st_mode & 07777U, 0600U);
}

TEST_F(LockFileTest, NewFileGetsTheGroupOfTheRootAndKeepsItsOwner) {
  constexpr gid_t kGroup = 12345;
  // Without the right to do so the root keeps its group, which the file must then have as well.
  [[maybe_unused]] const int ignored = chown(kQorRoot, static_cast<uid_t>(-1), kGroup);
  ASSERT_EQ(Lock(), 0);
  EXPECT_EQ(FileStatus(kPath).st_gid, FileStatus(kQorRoot).st_gid);
  EXPECT_EQ(FileStatus(kPath).st_uid, geteuid());
}

TEST_F(LockFileTest, OldFileKeepsItsGroupAndMode) {
  test::WriteFile(kPath, "");
  chmod(kPath, 0644);
  const test::FailCall chowns(test::Call::kFchown, EPERM);
  EXPECT_EQ(Lock(), 0);
  EXPECT_EQ(chowns.calls(), 0);
  EXPECT_EQ(FileStatus(kPath).st_mode & 07777U, 0644U);
}

TEST_F(LockFileTest, LongerStaleContentIsReplaced) {
  test::WriteFile(kPath, std::string(300, 'x') + "\n");
  EXPECT_EQ(Lock(), 0);
  EXPECT_EQ(test::ReadFile(kPath), HostName());
}

TEST_F(LockFileTest, EmptyFileThatNobodyLocksIsNoHindrance) {
  test::WriteFile(kPath, "");
  EXPECT_EQ(Lock(), 0);
}

TEST_F(LockFileTest, KeepsOthersOut) {
  ASSERT_EQ(Lock(), 0);
  EXPECT_FALSE(OtherInstance().TakeLock());
}

TEST_F(LockFileTest, IsExclusive) {
  ASSERT_EQ(Lock(), 0);
  EXPECT_FALSE(OtherInstance().TakeLock(LOCK_SH));
  Unlock();
  const OtherInstance reader;
  ASSERT_TRUE(reader.TakeLock(LOCK_SH));
  EXPECT_EQ(Lock(), -1);
}

TEST_F(LockFileTest, IsNotInheritedByOtherPrograms) {
  ASSERT_EQ(Lock(), 0);
  ASSERT_THAT(OpenDescriptors(), SizeIs(1));
  EXPECT_NE(fcntl(OpenDescriptors()[0], F_GETFD) & FD_CLOEXEC, 0);
}

TEST_F(LockFileTest, SecondInstanceLeavesTheFileAlone) {
  test::WriteFile(kPath, "elsewhere");
  const OtherInstance other;
  ASSERT_TRUE(other.TakeLock());
  const test::DebugCapture capture(kInfo);
  EXPECT_EQ(Lock(), -1);
  EXPECT_THAT(capture.Messages(),
              ElementsAre("Lock: flock() failed : Resource temporarily unavailable\n"));
  EXPECT_EQ(test::ReadFile(kPath), "elsewhere");
}

TEST_F(LockFileTest, RefusalIsNotSeenAtTheDefaultLevel) {
  const OtherInstance other;
  ASSERT_TRUE(other.TakeLock());
  const test::DebugCapture capture(0);
  EXPECT_EQ(Lock(), -1);
  EXPECT_THAT(capture.Messages(), IsEmpty());
}

TEST_F(LockFileTest, DiesWithItsProcess) {
  EXPECT_HOLDS_IN_CHILD(EXPECT_EQ(Lock(), 0));
  EXPECT_EQ(test::ReadFile(kPath), HostName());
  EXPECT_EQ(Lock(), 0);
}

// ---- Failures of Lock ---------------------------------------------------------------------------

struct LockFailure {
  std::string name;
  test::Call call;
  int error;
  std::string message;
};

void PrintTo(const LockFailure& failure, std::ostream* out) {
  *out << failure.name;
}

class LockFailureTest : public LockFileTest, public ::testing::WithParamInterface<LockFailure> {};

TEST_P(LockFailureTest, IsReportedAndLeavesTheDescriptorOpen) {
  {
    const test::DebugCapture capture(0);
    const test::FailCall failure(GetParam().call, GetParam().error);
    EXPECT_EQ(Lock(), -1);
    EXPECT_THAT(capture.Messages(), ElementsAre(GetParam().message));
  }
  EXPECT_THAT(OpenDescriptors(), SizeIs(1));
  EXPECT_EQ(Unlock(), 0);
  EXPECT_THAT(OpenDescriptors(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    Calls, LockFailureTest,
    ::testing::Values(
        LockFailure{"Chown", test::Call::kFchown, EPERM,
                    "Lock: chown( root/config/zev.lock, ...) failed : Operation not permitted\n"},
        LockFailure{"Gethostname", test::Call::kGethostname, ENAMETOOLONG,
                    "Lock: gethostname() failed : File name too long\n"},
        LockFailure{"Ftruncate", test::Call::kFtruncate, EROFS,
                    "Lock: ftruncate() failed : Read-only file system\n"},
        LockFailure{"Write", test::Call::kWrite, ENOSPC,
                    "Lock: write() failed : No space left on device\n"}),
    [](const auto& test_case) { return test_case.param.name; });

TEST_F(LockFileTest, FileThatCannotBeOpenedIsReported) {
  std::filesystem::remove_all("root/config");
  ExpectNoLock(OpeningFailed("No such file or directory"));
}

TEST_F(LockFileTest, DescriptorIsLeftOpenWhenAnotherHoldsTheLock) {
  const OtherInstance other;
  ASSERT_TRUE(other.TakeLock());
  EXPECT_EQ(Lock(), -1);
  EXPECT_THAT(OpenDescriptors(), SizeIs(2));
}

TEST_F(LockFileTest, LinkInPlaceOfTheFileIsNotFollowed) {
  test::WriteFile("root/other", "kept");
  std::filesystem::create_symlink(std::filesystem::absolute("root/other"), kPath);
  ExpectNeitherOpens("Too many levels of symbolic links");
  EXPECT_EQ(test::ReadFile("root/other"), "kept");
}

TEST_F(LockFileTest, PipeInPlaceOfTheFileIsNotWaitedFor) {
  ASSERT_EQ(mkfifo(kPath, 0600), 0);
  ExpectNeitherOpens("No such device or address");
}

// ---- Unlock -------------------------------------------------------------------------------------

TEST_F(LockFileTest, UnlockingWithoutALockIsFine) {
  const test::FailCall calls(test::Call::kFlock, EBADF);
  EXPECT_EQ(Unlock(), 0);
  EXPECT_EQ(calls.calls(), 0);
}

TEST_F(LockFileTest, UnlockingLetsOthersInAndKeepsTheFile) {
  ASSERT_EQ(Lock(), 0);
  EXPECT_EQ(Unlock(), 0);
  EXPECT_THAT(OpenDescriptors(), IsEmpty());
  EXPECT_EQ(test::ReadFile(kPath), HostName());
  EXPECT_TRUE(OtherInstance().TakeLock());
}

TEST_F(LockFileTest, LockCanBeTakenAgain) {
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(Lock(), 0);
    EXPECT_EQ(Unlock(), 0);
  }
}

TEST_F(LockFileTest, FailureToUnlockIsReportedAndKeepsTheDescriptor) {
  ASSERT_EQ(Lock(), 0);
  {
    const test::FailCall failure(test::Call::kFlock, ENOLCK);
    const test::DebugCapture capture(kInfo);
    EXPECT_EQ(Unlock(), -1);
    EXPECT_THAT(capture.Messages(), ElementsAre("Unlock: flock() failed : No locks available\n"));
  }
  EXPECT_THAT(OpenDescriptors(), SizeIs(1));
  EXPECT_EQ(Unlock(), 0);
}

TEST_F(LockFileTest, FailureToUnlockIsNotSeenAtTheDefaultLevel) {
  ASSERT_EQ(Lock(), 0);
  const test::FailCall failure(test::Call::kFlock, ENOLCK, 1, 1);
  const test::DebugCapture capture(0);
  EXPECT_EQ(Unlock(), -1);
  EXPECT_THAT(capture.Messages(), IsEmpty());
}

// ---- GetHostFromLockFile ------------------------------------------------------------------------

TEST_F(LockFileTest, ReadsTheHostName) {
  test::WriteFile(kPath, "station7");
  std::array<char, 65> host{};
  EXPECT_EQ(GetHostFromLockFile(host.data(), host.size()), 0);
  EXPECT_STREQ(host.data(), "station7");
}

TEST_F(LockFileTest, ReadsWhatLockHasWritten) {
  ASSERT_EQ(Lock(), 0);
  std::array<char, 65> host{};
  EXPECT_EQ(GetHostFromLockFile(host.data(), host.size()), 0);
  EXPECT_EQ(host.data(), HostName());
}

TEST_F(LockFileTest, HostNameIsCutToTheRoom) {
  test::WriteFile(kPath, std::string(100, 'h'));
  std::array<char, 65> host{};
  EXPECT_EQ(GetHostFromLockFile(host.data(), host.size()), 0);
  EXPECT_EQ(host.data(), std::string(64, 'h'));
  EXPECT_EQ(GetHostFromLockFile(host.data(), 4), 0);
  EXPECT_STREQ(host.data(), "hhh");
}

TEST_F(LockFileTest, OnlyTheFirstLineIsRead) {
  test::WriteFile(kPath, "one\ntwo\n");
  std::array<char, 65> host{};
  EXPECT_EQ(GetHostFromLockFile(host.data(), host.size()), 0);
  EXPECT_STREQ(host.data(), "one\n");
}

TEST_F(LockFileTest, MissingFileGivesNoHost) {
  ExpectNoHost(ReadingFailed("No such file or directory"));
}

TEST_F(LockFileTest, EmptyFileGivesNoHost) {
  test::WriteFile(kPath, "");
  ExpectNoHost("GetHostFromLockFile: fgets() failed : Success\n");
}

TEST_F(LockFileTest, UnreadableFileGivesNoHost) {
  std::filesystem::create_directory(kPath);
  ExpectNoHost(ReadingFailed("Is a directory"));
}

TEST_F(LockFileTest, EveryFunctionWritesItsEntryLine) {
  const test::DebugCapture capture(kTrace);
  std::array<char, 65> host{};
  Lock();
  GetHostFromLockFile(host.data(), host.size());
  Unlock();
  EXPECT_THAT(capture.Messages(), ElementsAre("Entering Lock\n", "Entering GetHostFromLockFile\n",
                                              "Entering Unlock\n"));
}

}  // namespace
