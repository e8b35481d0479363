// Drawing, publishing and comparing the cookie.
#include "cookie.h"

#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "attach.h"
#include "serv_conn.h"
#include "support.h"
#include "user.h"
#include "user_conn.h"

using namespace zevd;

namespace {

thread_local std::function<ssize_t(unsigned char*)> random_source;  // gives one byte

}  // namespace

// This takes the place of the C library's.
extern "C" ssize_t getrandom(void* bytes, size_t count, unsigned flags) {
  if (random_source) return random_source(static_cast<unsigned char*>(bytes));
  return syscall(SYS_getrandom, bytes, count, flags);
}

namespace {

using test::AnnouncesDaemonError;
using test::Call;
using test::DebugCapture;
using test::DebugTextsAre;
using test::FailAllocation;
using test::FailCall;
using test::IsExitTrace;
using test::SocketPair;
using ::testing::ElementsAre;
using ::testing::ExitedWithCode;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;

constexpr char kPath[] = "root/config/.cookie";
constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";

std::string UserMessage() {
  return u_err_msg == nullptr ? "" : u_err_msg;
}

class CookieTest : public test::RelayTest {
 protected:
  ~CookieTest() override { random_source = nullptr; }

  // What the file holds once a cookie has been drawn.
  static std::string Generate() {
    GenerateCookie();
    return test::ReadFile(kPath);
  }

  static mode_t Mode() {
    struct stat status {};
    EXPECT_EQ(stat(kPath, &status), 0);
    return status.st_mode & 07777;
  }

  test::StationRoot root_;
};

// The bytes are given one by one, over and over.
void DrawFrom(const std::vector<unsigned char>& bytes) {
  random_source = [bytes, next = size_t{0}](unsigned char* byte) mutable -> ssize_t {
    *byte = bytes.at(next++ % bytes.size());
    return 1;
  };
}

TEST_F(CookieTest, IsOneLineOfSixteenCharacters) {
  EXPECT_THAT(Generate(), MatchesRegex("[A-Za-z0-9]*\n"));
  EXPECT_EQ(Generate().size(), 17U);
}

TEST_F(CookieTest, EveryDrawIsAnother) {
  EXPECT_NE(Generate(), Generate());
}

TEST_F(CookieTest, HasNothingToDoWithTheTime) {
  const test::FakeClock clock;
  const std::string first = Generate();
  EXPECT_NE(first, Generate());
}

// 248 is four times the size of the alphabet: of the bytes up to there every character gets four.
TEST_F(CookieTest, BytesThatWouldFavourSomeCharactersAreDrawnAgain) {
  DrawFrom({0, 255, 61, 248, 62, 254, 247, 249, 250, 251, 252, 253});
  EXPECT_EQ(Generate(), "A9A9A9A9A9A9A9A9\n");
}

TEST_F(CookieTest, EveryCharacterOfTheAlphabetComesFourTimes) {
  std::array<int, 256> seen{};
  for (int first = 0; first < 248; first += 16) {
    std::vector<unsigned char> bytes;
    for (int i = first; i < first + 16 && i < 248; ++i) {
      bytes.push_back(static_cast<unsigned char>(i));
    }
    DrawFrom(bytes);
    const std::string content = Generate();
    for (size_t i = 0; i < bytes.size(); ++i) ++seen.at(static_cast<unsigned char>(content.at(i)));
  }
  for (const char c : std::string(kAlphabet)) {
    EXPECT_EQ(seen.at(static_cast<unsigned char>(c)), 4) << c;
  }
}

TEST_F(CookieTest, AnInterruptedDrawIsRepeated) {
  random_source = [calls = 0](unsigned char* byte) mutable -> ssize_t {
    *byte = 1;
    if (++calls % 2 == 0) return 1;
    errno = EINTR;
    return -1;
  };
  EXPECT_EQ(Generate(), "BBBBBBBBBBBBBBBB\n");
}

TEST_F(CookieTest, NewFileHasItsModeWhateverTheMask) {
  const mode_t saved = umask(0777);
  Generate();
  umask(saved);
  EXPECT_EQ(Mode(), 0660U);
}

TEST_F(CookieTest, ExistingFileKeepsItsModeAndLosesItsContent) {
  test::WriteFile(kPath, std::string(1000, 'x'));
  chmod(kPath, 0640);
  const DebugCapture debug(0);
  EXPECT_EQ(Generate().size(), 17U);
  EXPECT_EQ(Mode(), 0640U);
  EXPECT_THAT(debug.Messages(), IsEmpty());
}

TEST_F(CookieTest, FileThatOthersMayReadIsReported) {
  test::WriteFile(kPath, "");
  chmod(kPath, 0604);
  const DebugCapture debug(0);
  Generate();
  EXPECT_EQ(Mode(), 0604U);
  EXPECT_THAT(debug.Messages(),
              ElementsAre("GenerateCookie: \"root/config/.cookie\" is readable by others "
                          "(mode 0604), who then need no login.\n"));
}

TEST_F(CookieTest, IsReplacedByALaterOne) {
  const SocketPair pair;
  const std::string first = Generate().substr(0, 16);
  const std::string second = Generate().substr(0, 16);
  EXPECT_EQ(DoCookieValidation(pair.ours.get(), first.c_str()), -1);
  EXPECT_EQ(DoCookieValidation(pair.ours.get(), second.c_str()), 0);
}

TEST_F(CookieTest, LeavesNoDescriptorOpen) {
  const int before = dup(0);
  close(before);
  Generate();
  const int after = dup(0);
  close(after);
  EXPECT_EQ(before, after);
}

TEST_F(CookieTest, RightCookieIsReported) {
  const SocketPair pair;
  const std::string cookie = Generate().substr(0, 16);
  DebugCapture debug(kDetail);
  EXPECT_EQ(DoCookieValidation(pair.ours.get(), cookie.c_str()), 0);
  EXPECT_THAT(debug.Messages(), ElementsAre("DoCookieValidation: Authentication successful.\n",
                                            "DoCookieValidation: user_cookie(" + cookie +
                                                ") == generated_cookie(" + cookie + ")\n"));
  EXPECT_EQ(u_err_msg, nullptr);
}

TEST_F(CookieTest, WrongCookieIsReported) {
  const SocketPair pair;
  const std::string cookie = Generate().substr(0, 16);
  DebugCapture debug;
  const std::string other = (cookie[0] == 'A' ? "B" : "A") + cookie.substr(1);
  for (const std::string& wrong : {std::string(), cookie.substr(0, 15), cookie + "x", other}) {
    u_err_msg = nullptr;
    EXPECT_EQ(DoCookieValidation(pair.ours.get(), wrong.c_str()), -1);
    EXPECT_EQ(UserMessage(), "001 - Authentication failed.\r\n");
    EXPECT_THAT(debug.NewMessages(), ElementsAre("DoCookieValidation: Authentication failed.\n",
                                                 "DoCookieValidation: user_cookie(" + wrong +
                                                     ") != generated_cookie(" + cookie + ")\n"));
  }
}

using CookieDeathTest = CookieTest;

// The message, the event, the end.
void ExpectDeath(const std::function<void()>& generate, const char* message, const char* event) {
  EXPECT_EXIT(
      {
        test::SendDebugToStderr(kDetail);
        generate();
      },
      ExitedWithCode(1),
      DebugTextsAre(
          ElementsAre(message, AnnouncesDaemonError(event), IsExitTrace(1, "cookie.cpp"))));
}

TEST_F(CookieDeathTest, OutOfMemory) {
  ExpectDeath(
      [] {
        const FailAllocation failure(1);
        GenerateCookie();
      },
      "GenerateCookie: malloc() failed : Cannot allocate memory\n", "Terminated: Out of memory");
}

TEST_F(CookieDeathTest, FileCannotBeOpened) {
  std::filesystem::create_directory(kPath);
  ExpectDeath(GenerateCookie, "GenerateCookie: fopen() failed : Is a directory\n",
              "Terminated: Cannot open cookie file");
}

TEST_F(CookieDeathTest, NewFileCannotBeGivenToTheGroup) {
  ExpectDeath(
      [] {
        const FailCall failure(Call::kFchown, EPERM);
        GenerateCookie();
      },
      "GenerateCookie: chown( root/config/.cookie, ...) failed : Operation not permitted\n",
      "Terminated: Cannot chown cookie file");
}

// From now on the kernel refuses the process every change of a file's mode.
void ForbidChmod() {
  constexpr unsigned kRefusal = SECCOMP_RET_ERRNO | EACCES;
  std::array<sock_filter, 4> program = {{
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_fchmod, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, kRefusal),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  }};
  const sock_fprog filter = {program.size(), program.data()};
  if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) abort();
  if (prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) != 0) abort();
}

TEST_F(CookieDeathTest, ModeOfANewFileCannotBeSet) {
  ExpectDeath(
      [] {
        ForbidChmod();
        GenerateCookie();
      },
      "GenerateCookie: chmod( root/config/.cookie, ...) failed : Permission denied\n",
      "Terminated: Cannot chmod cookie file");
  EXPECT_EQ(test::ReadFile(kPath), "");
}

// In the child of a death test: what is written beyond this size of any file fails with EFBIG.
void LimitFiles(rlim_t size) {
  signal(SIGXFSZ, SIG_IGN);
  const rlimit limit = {size, size};
  if (setrlimit(RLIMIT_FSIZE, &limit) != 0) _exit(99);
}

TEST_F(CookieDeathTest, FileCannotBeWritten) {
  EXPECT_EXIT(
      {
        LimitFiles(16);
        GenerateCookie();
      },
      ExitedWithCode(1), "");
  EXPECT_EQ(test::ReadFile(kPath).size(), 16U);
}

TEST_F(CookieDeathTest, ExistingFileCannotBeEmptied) {
  ExpectDeath(
      [] {
        const FailCall failure(Call::kFtruncate, EROFS);
        GenerateCookie();
      },
      "GenerateCookie: fprintf() failed : Read-only file system\n",
      "Terminated: Cannot write cookie file");
}

TEST_F(CookieDeathTest, NoRandomSource) {
  ExpectDeath(
      [] {
        random_source = [](unsigned char*) -> ssize_t {
          errno = ENOSYS;
          return -1;
        };
        GenerateCookie();
      },
      "GenerateCookie: getrandom() failed : Function not implemented\n",
      "Terminated: Cannot draw cookie");
  EXPECT_FALSE(std::filesystem::exists(kPath));
}

TEST_F(CookieDeathTest, LinkIsNotFollowed) {
  test::WriteFile("root/other", "kept\n");
  std::filesystem::create_symlink(std::filesystem::absolute("root/other"), kPath);
  ExpectDeath(GenerateCookie,
              "GenerateCookie: fopen() failed : Too many levels of symbolic links\n",
              "Terminated: Cannot open cookie file");
  EXPECT_EQ(test::ReadFile("root/other"), "kept\n");
}

TEST_F(CookieDeathTest, FileWithTwoNamesIsNotWritten) {
  test::WriteFile("root/other", "kept\n");
  std::filesystem::create_hard_link("root/other", kPath);
  ExpectDeath(GenerateCookie, "GenerateCookie: fopen() failed : Too many links\n",
              "Terminated: Cannot open cookie file");
  EXPECT_EQ(test::ReadFile("root/other"), "kept\n");
}

TEST_F(CookieTest, ExistingFileIsNeitherGivenAwayNorOpenedUp) {
  test::WriteFile(kPath, "");
  EXPECT_HOLDS_IN_CHILD({
    const FailCall failure(Call::kFchown, EPERM);
    ForbidChmod();
    Generate();
    EXPECT_EQ(failure.calls(), 0);
  });
}

// ---- Its directory ------------------------------------------------------------------------------

TEST_F(CookieTest, DirectoryThatIsOpenToOthersIsReported) {
  DebugCapture debug(0);
  for (const mode_t mode : {0755U, 0751U, 0752U, 0754U}) {
    ASSERT_EQ(chmod("root/config", mode), 0);
    CheckConfigDir();
    std::array<char, 5> text{};
    snprintf(text.data(), text.size(), "%04o", mode);
    EXPECT_THAT(debug.NewMessages(),
                ElementsAre("CheckConfigDir: \"root/config\" is open to others (mode " +
                            std::string(text.data()) + "). Set its mode to 0750.\n"));
  }
}

TEST_F(CookieTest, DirectoryForOwnerAndGroupIsInOrder) {
  const DebugCapture debug(0);
  for (const mode_t mode : {0700U, 0750U, 02770U}) {
    ASSERT_EQ(chmod("root/config", mode), 0);
    CheckConfigDir();
  }
  std::filesystem::remove_all("root/config");
  CheckConfigDir();
  EXPECT_THAT(debug.Messages(), IsEmpty());
}

}  // namespace
