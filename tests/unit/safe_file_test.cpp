#include "safe_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "file_support.h"
#include "socket_support.h"

using namespace zevd;

namespace {

using test::Descriptor;

constexpr char kFile[] = "root/config/file";

/// The error of both ways to open what is in the file's place; 0 when they open it.
class SafeFileTest : public ::testing::Test {
 protected:
  static int ErrorOfOpening(int flags) {
    const Descriptor plain(OpenRegularFile(AT_FDCWD, kFile, flags));
    const int error = plain.get() == -1 ? errno : 0;
    bool is_new = true;
    const Descriptor made(OpenOrMakeRegularFile(AT_FDCWD, kFile, flags, 0600, &is_new));
    EXPECT_EQ(made.get() == -1 ? errno : 0, error);
    EXPECT_FALSE(is_new);
    return error;
  }

  static void RefusesWith(int error) {
    for (const int flags : {O_RDONLY, O_WRONLY, O_WRONLY | O_APPEND, O_RDWR}) {
      EXPECT_EQ(ErrorOfOpening(flags), error) << flags;
    }
  }

  test::StationRoot root_;
};

TEST_F(SafeFileTest, MissingFileIsMadeOnce) {
  bool is_new = false;
  const Descriptor first(OpenOrMakeRegularFile(AT_FDCWD, kFile, O_WRONLY, 0640, &is_new));
  ASSERT_NE(first.get(), -1);
  EXPECT_TRUE(is_new);
  struct stat file {};
  ASSERT_EQ(fstat(first.get(), &file), 0);
  EXPECT_EQ(file.st_mode & 0777U, 0640U);
  const Descriptor second(OpenOrMakeRegularFile(AT_FDCWD, kFile, O_WRONLY, 0640, &is_new));
  EXPECT_NE(second.get(), -1);
  EXPECT_FALSE(is_new);
}

TEST_F(SafeFileTest, MissingFileIsNotMadeForReading) {
  EXPECT_EQ(OpenRegularFile(AT_FDCWD, kFile, O_RDONLY), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_FALSE(std::filesystem::exists(kFile));
}

TEST_F(SafeFileTest, ContentStays) {
  test::WriteFile(kFile, "kept");
  for (const int flags : {O_RDONLY, O_WRONLY, O_WRONLY | O_APPEND, O_RDWR}) {
    EXPECT_EQ(ErrorOfOpening(flags), 0);
  }
  EXPECT_EQ(test::ReadFile(kFile), "kept");
}

TEST_F(SafeFileTest, OtherProgramsInheritNothing) {
  bool is_new = false;
  const Descriptor made(OpenOrMakeRegularFile(AT_FDCWD, kFile, O_WRONLY, 0600, &is_new));
  const Descriptor found(OpenRegularFile(AT_FDCWD, kFile, O_RDONLY));
  const Descriptor directory(OpenRealDirectory(AT_FDCWD, "root"));
  for (const Descriptor* fd : {&made, &found, &directory}) {
    EXPECT_NE(fcntl(fd->get(), F_GETFD) & FD_CLOEXEC, 0);
  }
}

TEST_F(SafeFileTest, LinkIsRefusedWhereverItLeads) {
  test::WriteFile("root/other", "kept");
  std::filesystem::create_symlink("../other", kFile);
  RefusesWith(ELOOP);
  std::filesystem::remove(kFile);
  std::filesystem::create_symlink("nowhere", kFile);
  RefusesWith(ELOOP);
  EXPECT_FALSE(std::filesystem::exists("root/config/nowhere"));
}

TEST_F(SafeFileTest, LinkInThePathIsFollowed) {
  std::filesystem::create_directory_symlink("config", "root/link");
  bool is_new = false;
  const Descriptor made(OpenOrMakeRegularFile(AT_FDCWD, "root/link/file", O_WRONLY, 0600, &is_new));
  EXPECT_NE(made.get(), -1);
}

TEST_F(SafeFileTest, FileWithTwoNamesIsRefused) {
  test::WriteFile("root/other", "kept");
  std::filesystem::create_hard_link("root/other", kFile);
  RefusesWith(EMLINK);
}

TEST_F(SafeFileTest, PipeIsRefusedWithoutAWait) {
  ASSERT_EQ(mkfifo(kFile, 0600), 0);
  RefusesWith(ENXIO);
  const Descriptor reader(open(kFile, O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  RefusesWith(ENXIO);
}

TEST_F(SafeFileTest, SocketIsRefused) {
  const Descriptor sock(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  strcpy(address.sun_path, kFile);
  ASSERT_EQ(bind(sock.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  RefusesWith(ENXIO);
}

TEST_F(SafeFileTest, DirectoryIsRefused) {
  std::filesystem::create_directory(kFile);
  RefusesWith(EISDIR);
}

TEST_F(SafeFileTest, RefusalLeavesNoDescriptor) {
  std::filesystem::create_directory(kFile);
  const int before = dup(0);
  close(before);
  ErrorOfOpening(O_RDONLY);
  const int after = dup(0);
  close(after);
  EXPECT_EQ(before, after);
}

TEST_F(SafeFileTest, OnlyARealDirectoryIsTaken) {
  const Descriptor real(OpenRealDirectory(AT_FDCWD, "root/config"));
  EXPECT_NE(real.get(), -1);
  std::filesystem::create_directory_symlink("config", "root/link");
  test::WriteFile(kFile, "");
  ASSERT_EQ(mkfifo("root/pipe", 0600), 0);
  for (const char* path : {"root/link", kFile, "root/pipe"}) {
    EXPECT_EQ(OpenRealDirectory(AT_FDCWD, path), -1) << path;
    EXPECT_EQ(errno, ENOTDIR) << path;
  }
  EXPECT_EQ(OpenRealDirectory(AT_FDCWD, "root/missing"), -1);
  EXPECT_EQ(errno, ENOENT);
}

TEST_F(SafeFileTest, PathsBeginInTheDirectory) {
  const Descriptor directory(OpenRealDirectory(AT_FDCWD, "root/config"));
  bool is_new = false;
  const Descriptor made(OpenOrMakeRegularFile(directory.get(), "file", O_WRONLY, 0600, &is_new));
  EXPECT_TRUE(std::filesystem::is_regular_file(kFile));
}

TEST_F(SafeFileTest, ErrnoSurvivesTheEndOfADescriptor) {
  {
    const ScopedDescriptor fd(open("/dev/null", O_RDONLY | O_CLOEXEC));
    const int number = fd.get();
    ASSERT_TRUE(fd.is_open());
    close(number);  // so that closing it again fails with another error
    errno = EMLINK;
  }
  EXPECT_EQ(errno, EMLINK);
  const ScopedDescriptor none;
  EXPECT_FALSE(none.is_open());
}

}  // namespace
