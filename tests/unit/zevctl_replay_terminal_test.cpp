// The terminal of a replay after an error.
#include <gtest/gtest.h>
#include <pty.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <stdexcept>
#include <string>

#include "descriptor.h"
#include "replay_terminal.h"

namespace zevctl {
namespace {

constexpr int kRaw = 10;  // what the child ends with when its terminal was raw

// In a child, whose standard streams are the terminal.
[[noreturn]] void FailOn(int inner) {
  dup2(inner, STDIN_FILENO);
  dup2(inner, STDOUT_FILENO);
  bool was_raw = false;
  try {
    ReplayTerminal terminal;
    termios modes{};
    was_raw = tcgetattr(STDIN_FILENO, &modes) == 0 && (modes.c_lflag & ICANON) == 0;
    throw std::runtime_error("while it plays");
  } catch (const std::runtime_error&) {
    _exit(was_raw ? kRaw : 1);
  }
}

TEST(ReplayTerminal, IsAsItWasAfterAnException) {
  int outer_end = -1;
  int inner_end = -1;
  ASSERT_EQ(openpty(&outer_end, &inner_end, nullptr, nullptr, nullptr), 0);
  const Descriptor outer(outer_end);
  const Descriptor inner(inner_end);
  termios before{};
  ASSERT_EQ(tcgetattr(inner.get(), &before), 0);
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) FailOn(inner.get());
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), kRaw);
  termios after{};
  ASSERT_EQ(tcgetattr(inner.get(), &after), 0);
  EXPECT_EQ(after.c_lflag, before.c_lflag);
  EXPECT_EQ(after.c_iflag, before.c_iflag);
  EXPECT_EQ(after.c_oflag, before.c_oflag);
  std::array<char, 256> drawn{};
  const ssize_t count = read(outer.get(), drawn.data(), drawn.size());
  ASSERT_GT(count, 0);
  EXPECT_TRUE(std::string(drawn.data(), static_cast<size_t>(count)).ends_with("\x1b[?1049l"));
}

}  // namespace
}  // namespace zevctl
