// Consoles that are disabled after they have connected and before they are moved: nothing of theirs
// stays open.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "cons_conn.h"
#include "cons_conn_steps.h"
#include "console_lists.h"
#include "control.h"
#include "file_support.h"
#include "lists.h"
#include "log.h"
#include "options.h"
#include "relay_support.h"

using namespace zevd;

namespace {

/// A console on i_cons_list that has just become connected, with its log open.
class AbandonedConsoleTest : public test::RelayTest {
 protected:
  AbandonedConsoleTest() {
    log_dir = logs_.c_str();
    cnode_->cons_port = listener_.port();
    ConnectToConsole(cnode_, 1);
    peer_ = listener_.Accept();
    test::SendText(peer_.get(), "login: ");
    EXPECT_TRUE(test::WaitReadable(cnode_->sock));
    EXPECT_EQ(UpdateConnectionStatus(), 1);
    log_fd_ = cnode_->log_fd;
    EXPECT_TRUE(test::IsOpen(log_fd_));
  }

  static void Disable() {
    const CommandNode someone{};
    DisableConsole("mycons", &someone);
  }

  test::StationRoot root_;
  // The link to the current log directory needs an absolute path.
  std::string logs_ = std::filesystem::absolute("root/logs");
  test::Listener listener_;
  ConsoleNode* cnode_ = test::AddConsole(i_cons_list, "mycons");
  test::Descriptor peer_;
  int log_fd_ = -1;
};

TEST_F(AbandonedConsoleTest, DisabledConsoleLosesItsLogWithItsSocket) {
  const int sock = cnode_->sock;
  Disable();
  MoveConsolesToList(i_cons_list, a_cons_list, MoveCriterion::kConnected);
  EXPECT_EQ(a_cons_list->head, nullptr);
  EXPECT_EQ(UpdateConnectionStatus(), 0);
  EXPECT_FALSE(test::IsOpen(sock));
  EXPECT_FALSE(test::IsOpen(log_fd_));
  EXPECT_EQ(cnode_->sock, -1);
  EXPECT_EQ(cnode_->log_fd, -1);
}

TEST_F(AbandonedConsoleTest, LogOfAConsoleThatIsEnabledAgainAtOnceStaysOpen) {
  Disable();
  const CommandNode tool{};
  EnableConsole("mycons", &tool);
  EXPECT_EQ(UpdateConnectionStatus(), 1);
  EXPECT_EQ(cnode_->status, kConnected);
  EXPECT_EQ(cnode_->log_fd, log_fd_);
  EXPECT_TRUE(test::IsOpen(log_fd_));
  CloseLogFile(cnode_);
}

}  // namespace
