// Asking the password helper: turns, pauses, and what a helper inherits.
#include "password_check.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "clock.h"
#include "failure_support.h"
#include "file_support.h"
#include "socket_support.h"

using namespace zevd;

namespace {

using ::testing::MatchesRegex;

constexpr char kHelper[] = "root/bin/helper";
constexpr int64_t kSecond = 1000000;

class PasswordCheckTest : public ::testing::Test {
 protected:
  PasswordCheckTest() {
    std::filesystem::create_directory("root/bin");
    Install("#!/bin/sh\ncase $(cat) in *' secret') exit 0;; esac\nexit 1\n");
  }

  static void Install(const std::string& script) {
    std::filesystem::remove(kHelper);  // a running program cannot be written to
    test::WriteFile(kHelper, script);
    chmod(kHelper, 0755);
  }

  // Every helper makes a file and goes on once "root/go" is there.
  static void InstallWaiting() {
    Install("#!/bin/sh\n: > root/started.$$\nwhile [ ! -e root/go ]; do sleep .05; done\nexit 0\n");
  }

  static size_t Started() {
    size_t count = 0;
    for (const auto& entry : std::filesystem::directory_iterator("root")) {
      if (entry.path().string().starts_with("root/started.")) ++count;
    }
    return count;
  }

  /// Asks on another thread, which may be passed to WaitUntilQueued().
  static PasswordCheck AskInterruptibly(const char* name, const char* rhost) {
    sigset_t none;
    sigemptyset(&none);
    return CheckPassword(kHelper, {name, "x", rhost, -1, &none, [] { ++interruptions; }});
  }

  static void WaitUntilQueued(std::thread& caller) {
    struct sigaction action {};
    action.sa_handler = [](int) {};
    sigaction(SIGUSR2, &action, nullptr);  // and it stays: a signal may still be on its way
    const int before = interruptions;
    EXPECT_TRUE(test::Eventually([&] {
      pthread_kill(caller.native_handle(), SIGUSR2);
      return interruptions > before;
    }));
    EXPECT_TRUE(test::Eventually([&] {  // no signal is still on its way
      const int last = interruptions;
      usleep(10'000);
      return interruptions == last;
    }));
  }

  static inline std::atomic<int> interruptions = 0;

  static PasswordCheck Ask(const char* name, const char* password, const char* rhost) {
    return CheckPassword(kHelper, {name, password, rhost});
  }

  test::StationRoot root_;
};

TEST_F(PasswordCheckTest, AnswersAsTheHelperDoes) {
  EXPECT_EQ(Ask("anna", "secret", "192.0.2.1"), PasswordCheck::kAccepted);
  EXPECT_EQ(Ask("anna", "wrong", "192.0.2.1"), PasswordCheck::kRefused);
}

TEST_F(PasswordCheckTest, SaysWhyThereIsNoAnswer) {
  std::filesystem::remove(kHelper);
  EXPECT_EQ(Ask("anna", "secret", "192.0.2.2"), PasswordCheck::kNotStarted);
  EXPECT_EQ(errno, ENOENT);
  Install("#!/bin/sh\nexit 0\n");
  EXPECT_EQ(Ask("bert", "secret", "192.0.2.2"), PasswordCheck::kNotRead);
  EXPECT_EQ(errno, EPIPE);
}

TEST_F(PasswordCheckTest, ScriptWithoutAFirstLineOfItsOwnIsTheShells) {
  Install("case $(cat) in *' secret') exit 0;; esac\nexit 1\n");
  EXPECT_EQ(Ask("anna", "secret", "192.0.2.3"), PasswordCheck::kAccepted);
}

TEST_F(PasswordCheckTest, HelperInheritsThreeDescriptorsAndTwoVariables) {
  Install(
      "#!/bin/bash\ncat > /dev/null\ntr '\\0' '\\n' < /proc/$$/environ > root/environment\n"
      "ls /proc/$$/fd > root/all\ngrep -v '^255$' root/all > root/descriptors\n");
  const int inheritable = open("/dev/null", O_RDONLY);
  setenv("ZEVD_TEST_SECRET", "x", 1);
  Ask("anna", "secret", "192.0.2.4");
  unsetenv("ZEVD_TEST_SECRET");
  close(inheritable);
  EXPECT_EQ(test::ReadFile("root/environment"),
            "PATH=/usr/sbin:/usr/bin:/sbin:/bin\nQOR_RHOST=192.0.2.4\n");
  EXPECT_EQ(test::ReadFile("root/descriptors"), "0\n1\n2\n");
}

TEST_F(PasswordCheckTest, HelperHasNoSignalBlocked) {
  Install(
      "#!/bin/sh\ncat > /dev/null\nexec grep -E '^Sig(Blk|Ign)' /proc/self/status > "
      "root/signals\n");
  sigset_t saved;
  sigset_t blocked;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGHUP);
  sigaddset(&blocked, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &blocked, &saved);
  Ask("anna", "secret", "192.0.2.5");
  pthread_sigmask(SIG_SETMASK, &saved, nullptr);
  // 32 and 33 are the C library's own.
  EXPECT_THAT(test::ReadFile("root/signals"),
              MatchesRegex("SigBlk:\t0000000000000000\nSigIgn:\t0000000[01][08]0000000\n"));
}

TEST_F(PasswordCheckTest, RefusedNameWaitsTwoSecondsAtItsAddress) {
  EXPECT_EQ(Ask("carl", "wrong", "192.0.2.6"), PasswordCheck::kRefused);
  const int64_t refused = MonotonicMicroseconds();
  EXPECT_EQ(Ask("carl", "secret", "192.0.2.7"), PasswordCheck::kAccepted);
  EXPECT_EQ(Ask("dora", "secret", "192.0.2.6"), PasswordCheck::kAccepted);
  EXPECT_LT(MonotonicMicroseconds() - refused, 2 * kSecond) << "others do not wait";
  EXPECT_EQ(Ask("carl", "secret", "192.0.2.6"), PasswordCheck::kAccepted);
  EXPECT_GE(MonotonicMicroseconds() - refused, 1990000);  // the clock is read in milliseconds
  const int64_t accepted = MonotonicMicroseconds();
  EXPECT_EQ(Ask("carl", "secret", "192.0.2.6"), PasswordCheck::kAccepted);
  EXPECT_LT(MonotonicMicroseconds() - accepted, 2 * kSecond) << "who was accepted does not wait";
}

TEST_F(PasswordCheckTest, OneNameIsCheckedForOneCallerOfAnAddressAtATime) {
  InstallWaiting();
  std::vector<std::thread> callers;
  callers.emplace_back([] { Ask("anna", "a", "192.0.2.9"); });
  EXPECT_TRUE(test::Eventually([] { return Started() == 1; }));
  {
    const test::FakePassageOfTime seconds(5 * kSecond);
    EXPECT_EQ(Ask("anna", "b", "192.0.2.9"), PasswordCheck::kNoTurn);
  }
  callers.emplace_back([] { Ask("anna", "c", "192.0.2.9"); });
  callers.emplace_back([] { Ask("anna", "d", "192.0.2.10"); });
  callers.emplace_back([] { Ask("bert", "e", "192.0.2.9"); });
  EXPECT_TRUE(test::Eventually([] { return Started() == 3; }));
  test::WriteFile("root/go", "");
  for (std::thread& caller : callers) caller.join();
  EXPECT_EQ(Started(), 4U);
}

// Eleven callers from one address are ahead of him; eight of them are being checked.
TEST_F(PasswordCheckTest, CrowdBehindOneAddressDoesNotKeepOthersOut) {
  Install(
      "#!/bin/sh\nread name password\n: > root/started.$name\n"
      "while [ ! -e root/go.$name ]; do sleep .05; done\nexit 0\n");
  std::vector<std::thread> callers;
  const auto call = [&](const std::string& name, const char* rhost) {
    callers.emplace_back([=] { Ask(name.c_str(), "x", rhost); });
  };
  for (int i = 0; i < 11; ++i) call("crowd" + std::to_string(i), "192.0.2.12");
  EXPECT_TRUE(test::Eventually([] { return Started() == 8; }));
  call("joe", "192.0.2.13");
  call("crowd11", "192.0.2.12");
  for (int i = 0; i < 11; ++i) {
    const std::string name = "crowd" + std::to_string(i);
    if (!std::filesystem::exists("root/started." + name)) continue;
    test::WriteFile("root/go." + name, "");
    break;
  }
  EXPECT_TRUE(test::Eventually([] { return Started() == 9; }));
  EXPECT_TRUE(std::filesystem::exists("root/started.joe"));
  for (int i = 0; i < 12; ++i) test::WriteFile("root/go.crowd" + std::to_string(i), "");
  test::WriteFile("root/go.joe", "");
  for (std::thread& caller : callers) caller.join();
}

// During Dora's pause others from her address overtake her. That must not move her forward: Joe, at
// another address, came before her.
TEST_F(PasswordCheckTest, CallerWhoIsOvertakenGainsNothing) {
  Install("#!/bin/sh\ncat > /dev/null\nexit 1\n");
  Ask("joe", "x", "192.0.2.14");
  Ask("dora", "x", "192.0.2.15");
  const int64_t refused = MonotonicMicroseconds();
  std::vector<std::thread> callers;
  callers.emplace_back([] { AskInterruptibly("joe", "192.0.2.14"); });
  WaitUntilQueued(callers.back());
  callers.emplace_back([] { AskInterruptibly("dora", "192.0.2.15"); });
  WaitUntilQueued(callers.back());
  for (const char* name : {"emil", "fritz", "gerda"}) Ask(name, "x", "192.0.2.15");
  Install(
      "#!/bin/sh\nread name password\n: > root/started.$name\n"
      "while [ ! -e root/go.$name ]; do sleep .05; done\nexit 0\n");
  for (int i = 0; i < 8; ++i) {
    callers.emplace_back([i] { Ask(("crowd" + std::to_string(i)).c_str(), "x", "192.0.2.16"); });
  }
  EXPECT_TRUE(test::Eventually([] { return Started() == 8; }));
  EXPECT_TRUE(test::Eventually(
      [&] { return MonotonicMicroseconds() - refused > 2 * kSecond + kSecond / 10; }));
  test::WriteFile("root/go.crowd3", "");
  EXPECT_TRUE(test::Eventually([] { return Started() == 9; }));
  EXPECT_TRUE(std::filesystem::exists("root/started.joe"));
  for (const auto* name : {"joe", "dora"}) test::WriteFile(std::string("root/go.") + name, "");
  for (int i = 0; i < 8; ++i) test::WriteFile("root/go.crowd" + std::to_string(i), "");
  for (std::thread& caller : callers) caller.join();
}

TEST_F(PasswordCheckTest, CallerWhoHangsUpLeavesTheQueue) {
  InstallWaiting();
  std::thread first([] { Ask("anna", "a", "192.0.2.11"); });
  EXPECT_TRUE(test::Eventually([] { return Started() == 1; }));
  const test::SocketPair pair;
  std::thread second([&] {
    const PasswordRequest request = {"anna", "b", "192.0.2.11", pair.ours.get()};
    EXPECT_EQ(CheckPassword(kHelper, request), PasswordCheck::kNoTurn);
  });
  shutdown(pair.theirs.get(), SHUT_WR);
  second.join();
  EXPECT_EQ(Started(), 1U);
  test::WriteFile("root/go", "");
  first.join();
}

// The helper splits the pair at the first blank. The rest of the name would be tried as the start
// of a password, and the try would count for another name.
TEST_F(PasswordCheckTest, NameWithABlankIsRefusedWithoutAHelper) {
  Install("#!/bin/sh\n: > root/started.$$\nexit 0\n");
  for (const char* name : {"anna secret", "anna ", " anna", "anna\tx", " "}) {
    EXPECT_EQ(Ask(name, "secret", ""), PasswordCheck::kRefused) << name;
  }
  EXPECT_EQ(Started(), 0U);
}

TEST_F(PasswordCheckTest, EightHelpersRunAtOnce) {
  InstallWaiting();
  std::vector<std::thread> callers;
  std::atomic<int> answered = 0;
  for (int i = 0; i < 12; ++i) {
    callers.emplace_back([&answered, i] {
      const std::string name = "name" + std::to_string(i);
      Ask(name.c_str(), "secret", "192.0.2.8");
      ++answered;
    });
  }
  EXPECT_TRUE(test::Eventually([] { return Started() == 8; }));
  EXPECT_EQ(answered, 0);
  {
    // The ninth caller, who gets no turn within half a minute, is told so.
    const test::FakePassageOfTime seconds(5 * kSecond);
    EXPECT_EQ(Ask("late", "secret", "192.0.2.8"), PasswordCheck::kNoTurn);
  }
  EXPECT_EQ(Started(), 8U);
  test::WriteFile("root/go", "");
  for (std::thread& caller : callers) caller.join();
  EXPECT_EQ(Started(), 12U);
}

TEST_F(PasswordCheckTest, HelperThatDoesNotAnswerIsEnded) {
  Install("#!/bin/sh\ncat > /dev/null\necho $$ > root/pid\nwhile :; do sleep 60; done\n");
  {
    const test::FakePassageOfTime seconds(kSecond);
    EXPECT_EQ(Ask("emil", "secret", ""), PasswordCheck::kRefused);
  }
  const auto pid = static_cast<pid_t>(std::stoi(test::ReadFile("root/pid")));
  EXPECT_EQ(kill(pid, 0), -1);
  EXPECT_EQ(errno, ESRCH);
}

TEST_F(PasswordCheckTest, SignalDuringTheWaitIsReported) {
  InstallWaiting();
  std::thread caller([] { EXPECT_EQ(AskInterruptibly("anna", ""), PasswordCheck::kNotRead); });
  EXPECT_TRUE(test::Eventually([] { return Started() == 1; }));
  WaitUntilQueued(caller);
  test::WriteFile("root/go", "");
  caller.join();
}

}  // namespace
