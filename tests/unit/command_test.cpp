// The records of command connections.
#include "command.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "debug_support.h"
#include "failure_support.h"
#include "relay_support.h"

using namespace zevd;

namespace {

using test::AnnouncesDaemonError;
using test::DebugCapture;
using test::FailAllocation;
using ::testing::ElementsAre;

using CommandRecordTest = test::RelayTest;

TEST_F(CommandRecordTest, NewConnectionIsNeitherOpenNorListed) {
  CommandNode* tool = NewCommandNode("anna", "192.0.2.1");
  EXPECT_EQ(tool->sock, -1);
  EXPECT_EQ(tool->connected, 0);
  EXPECT_STREQ(tool->user_name, "anna");
  EXPECT_STREQ(tool->ipaddr, "192.0.2.1");
  EXPECT_FALSE(tool->answer.IsUnsent());
  FreeCommandNode(tool);
}

TEST_F(CommandRecordTest, LongNamesAreCut) {
  CommandNode* tool = NewCommandNode(std::string(40, 'u').c_str(), std::string(80, 'a').c_str());
  EXPECT_EQ(tool->user_name, std::string(32, 'u'));
  EXPECT_EQ(tool->ipaddr, std::string(64, 'a'));
  FreeCommandNode(tool);
}

TEST_F(CommandRecordTest, NoMemoryForANewConnection) {
  const DebugCapture debug(kDetail);
  const FailAllocation failure(1);
  EXPECT_EQ(NewCommandNode("anna", "192.0.2.1"), nullptr);
  EXPECT_STREQ(u_err_msg, "013 - Out of memory.\r\n");
  EXPECT_THAT(debug.Messages(),
              ElementsAre("NewCommandNode: malloc() failed : Cannot allocate memory\n",
                          AnnouncesDaemonError("Out of memory")));
}

}  // namespace
