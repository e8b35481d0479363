// The commands that act: what they change, and what users and operators are told.
#include "control.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/time.h>

#include <string>

#include "command_support.h"
#include "console_users.h"
#include "lists.h"
#include "waker.h"

using namespace zevd;

namespace {

using test::Attached;
using test::AttachUser;
using test::ConnectConsole;
using test::DebugCapture;
using test::ReceiveAvailable;
using test::TwinTest;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

using ControlTest = test::CommandTest;

TEST_F(ControlTest, DisableAndEnableOfUnconnectedConsoles) {
  ConsoleNode* upper = test::AddConsole(i_cons_list, "BOX", -1, kRefused);
  ConsoleNode* lower = test::AddConsole(i_cons_list, "box", -1, kInProgress);
  const DebugCapture debug;
  EXPECT_EQ(Execute("disable Box"), kDisableCommand);
  EXPECT_EQ(rheader.type, kDone);
  for (const ConsoleNode* cnode : {upper, lower}) {
    EXPECT_EQ(cnode->enable, 0);
    EXPECT_EQ(cnode->status, kNotConnected);
  }
  upper->status = kRefused;
  EXPECT_EQ(Execute("enable Box"), kEnableCommand);
  for (const ConsoleNode* cnode : {upper, lower}) EXPECT_EQ(cnode->enable, 1);
  EXPECT_EQ(upper->status, kRefused);
  EXPECT_EQ(lower->status, kNotConnected);
  EXPECT_EQ(debug.Count("DisableConsole: Console has been disabled by op@192.0.2.7\n"), 1);
}

TEST_F(ControlTest, DisabledConsoleEndsTheMonitorsWait) {
  const Attached<ConsoleNode> box = ConnectConsole("box");
  cons_mon_waker.Drain();
  Execute("disable box");
  timeval wait = {10, 0};
  DescriptorSet nobody;
  EXPECT_EQ(WaitForMembers(-1, nobody, cons_mon_waker, &wait), 0);
  EXPECT_GT(wait.tv_sec, 0);
}

TEST_F(ControlTest, WhatMakesAConsoleDueEndsTheWaitForIt) {
  test::AddConsole(i_cons_list, "box", -1, kRefused);
  for (const char* command : {"disable box", "enable box", "force box", "reconnect box"}) {
    SCOPED_TRACE(command);
    unsigned seen = 0;
    cons_conn_waker.WokenSince(&seen);
    Execute(command);
    EXPECT_TRUE(cons_conn_waker.WokenSince(&seen));
  }
}

TEST_F(ControlTest, WhatMakesNoConsoleDueEndsNoWaitForIt) {
  test::AddConsole(i_cons_list, "box", -1, kRefused);
  unsigned seen = 0;
  cons_conn_waker.WokenSince(&seen);
  for (const char* command : {"who box", "clear box", "msg box hello", "reconnect other"}) {
    Execute(command);
  }
  EXPECT_FALSE(cons_conn_waker.WokenSince(&seen));
}

TEST_F(ControlTest, ClearOfAnUnconnectedConsoleChangesNothing) {
  ConsoleNode* away = test::AddConsole(i_cons_list, "away", -1, kRefused);
  const DebugCapture debug;
  EXPECT_EQ(Execute("clear AWAY"), kClearCommand);
  EXPECT_EQ(rheader.type, kDone);
  EXPECT_EQ(away->status, kRefused);
  EXPECT_EQ(away->enable, 1);
  EXPECT_THAT(debug.Messages(), IsEmpty());
}

TEST_F(ControlTest, ForceOfAnUnconnectedConsole) {
  ConsoleNode* waiting = test::AddConsole(i_cons_list, "BOX");
  ConsoleNode* trying = test::AddConsole(i_cons_list, "box", 99, kInProgress);
  for (ConsoleNode* cnode : {waiting, trying}) cnode->lfca_time = 5;
  EXPECT_EQ(Execute("force Box"), kForceCommand);
  EXPECT_EQ(rheader.type, kDone);
  EXPECT_EQ(waiting->force, 1);
  EXPECT_EQ(waiting->lfca_time, 0);
  EXPECT_EQ(trying->force, 1);
  EXPECT_EQ(trying->lfca_time, 5);  // an attempt is under way
  trying->sock = -1;
}

TEST_F(ControlTest, ForceOfAConnectedConsole) {
  const Attached<ConsoleNode> box = ConnectConsole("box");
  box.node->lfca_time = 5;
  EXPECT_EQ(Execute("force BOX"), kForceCommand);
  EXPECT_EQ(rheader.type, kDone);
  EXPECT_EQ(box.node->force, 0);
  EXPECT_EQ(box.node->lfca_time, 5);
}

TEST_F(ControlTest, ReconnectForgetsTheLastFailureAndNothingElse) {
  ConsoleNode* upper = test::AddConsole(i_cons_list, "Box", 7, kInProgress);
  ConsoleNode* lower = test::AddConsole(i_cons_list, "box", -1, kRefused);
  ConsoleNode* other = test::AddConsole(i_cons_list, "other", -1, kNotConnected);
  for (ConsoleNode* cnode : {upper, lower, other}) {
    cnode->lfca_time = 1000;
    cnode->lsca_time = 2000;
    cnode->enable = 0;
  }
  EXPECT_EQ(Execute("reconnect BOX"), kReconnectCommand);
  EXPECT_EQ(rheader.type, kDone);
  EXPECT_EQ(upper->lfca_time, 0);
  EXPECT_EQ(lower->lfca_time, 0);
  EXPECT_EQ(other->lfca_time, 1000);
  EXPECT_EQ(upper->status, kInProgress);
  EXPECT_EQ(lower->status, kRefused);
  for (const ConsoleNode* cnode : {upper, lower}) {
    EXPECT_EQ(cnode->lsca_time, 2000);
    EXPECT_EQ(cnode->enable, 0);
    EXPECT_EQ(cnode->force, 0);
  }
  upper->sock = -1;
}

TEST_F(ControlTest, ReconnectOfAConnectedConsoleChangesNothing) {
  const Attached<ConsoleNode> box = ConnectConsole("box");
  box.node->lfca_time = 1000;
  EXPECT_EQ(Execute("reconnect box"), kReconnectCommand);
  EXPECT_EQ(rheader.type, kDone);
  EXPECT_EQ(box.node->lfca_time, 1000);
  EXPECT_EQ(box.node->status, kConnected);
}

TEST_F(ControlTest, ReconnectOfAnUnknownConsole) {
  EXPECT_EQ(Execute("reconnect nobody"), kReconnectCommand);
  EXPECT_EQ(Error(), "Unrecognized console \"nobody\".");
}

TEST_F(ControlTest, ErrorsThatAreLoggedAndErrorsThatAreNot) {
  const std::string text = ": Unrecognized console \"nobody\".\n";
  EXPECT_THAT(SaidBy("enable nobody"), IsEmpty());
  for (const char* line : {"console nobody", "who nobody", "mapped_port nobody", "nonsense"}) {
    EXPECT_THAT(SaidBy(line), IsEmpty()) << line;
  }
  EXPECT_THAT(SaidBy("portholder nobody"), ElementsAre("PelloxPortHolder" + text));
  EXPECT_THAT(SaidBy("force nobody"), ElementsAre("ForceKPMConnection" + text));
  const DebugCapture debug;
  EXPECT_EQ(Execute("msg nobody hello"), kMsgCommand);
  EXPECT_EQ(Error(), "Unrecognized console \"nobody\".");
  EXPECT_THAT(debug.Messages(), IsEmpty());
  Execute("clear nobody");
  EXPECT_EQ(Error(), "Unrecognized console \"nobody\".");
  Execute("disable nobody");
  EXPECT_EQ(Error(), "Unrecognized console \"nobody\".");
  EXPECT_THAT(debug.Messages(), ElementsAre("ClearConsole" + text, "DisableConsole" + text));
}

// ---- Names that differ in case alone ------------------------------------------------------------

TEST_F(TwinTest, ClearAffectsTheFirstOnly) {
  EXPECT_EQ(Ask(tool_, "clear bOx").type, kDone);
  EXPECT_EQ(upper_.node->user_list->head, nullptr);
  EXPECT_EQ(upper_user_.node->connected, 0);
  EXPECT_NE(lower_.node->user_list->head, nullptr);
  EXPECT_EQ(lower_user_.node->connected, 1);
  EXPECT_EQ(upper_.node->status, kConnected);
}

TEST_F(TwinTest, DisableAndEnableAffectAll) {
  EXPECT_EQ(Ask(tool_, "disable bOx").type, kDone);
  for (const ConsoleNode* cnode : {upper_.node, lower_.node}) {
    EXPECT_EQ(cnode->enable, 0);
    EXPECT_EQ(cnode->status, kNotConnected);
    EXPECT_EQ(cnode->user_list->head, nullptr);
  }
  EXPECT_EQ(Ask(tool_, "enable bOx").type, kDone);
  for (const ConsoleNode* cnode : {upper_.node, lower_.node}) {
    EXPECT_EQ(cnode->enable, 1);
    EXPECT_EQ(cnode->status, kNotConnected);
  }
}

TEST_F(TwinTest, MessageReachesAll) {
  EXPECT_EQ(Ask(tool_, "msg bOx hello").type, kDone);
  for (const Attached<UserNode>* user : {&upper_user_, &lower_user_}) {
    EXPECT_NE(ReceiveAvailable(user->peer.get()).find("hello"), std::string::npos);
  }
}

TEST_F(TwinTest, UnconnectedOnesAreAffectedOnlyWithoutConnectedOnes) {
  ConsoleNode* away = test::AddConsole(i_cons_list, "Box");
  Ask(tool_, "disable bOx");
  EXPECT_EQ(away->enable, 1);
  away->enable = 0;
  Ask(tool_, "enable bOx");
  EXPECT_EQ(away->enable, 0);
}

// ---- Texts --------------------------------------------------------------------------------------

/// One console with one user, and an operator with the longest name and address.
class TextTest : public ControlTest {
 protected:
  TextTest() {
    CopyText(operator_.user_name, name_.c_str());
    CopyText(operator_.ipaddr, address_.c_str());
  }

  std::string Told() const { return ReceiveAvailable(user_.peer.get()); }

  /// The message as it is sent.
  static std::string Framed(const std::string& text) {
    return test::Banner(text).substr(0, kMessageBufferSize - 1);
  }

  std::string name_ = std::string(32, 'n');
  std::string address_ = std::string(64, 'a');
  CommandNode operator_{};
  Attached<ConsoleNode> box_ = ConnectConsole("box");
  Attached<UserNode> user_ = AttachUser(box_.node, "anna");
};

TEST_F(TextTest, Clear) {
  const DebugCapture debug;
  ClearConsole("BOX", &operator_);
  const std::string text = "Your session has been terminated by " + name_ + "@" + address_;
  EXPECT_EQ(Told(), Framed(text));
  EXPECT_THAT(debug.Messages(),
              ElementsAre("ClearConsole: " + text + "\n",
                          "SendMsgToUsers: The following message was sent to \"anna@192.0.2.1\": " +
                              Framed(text) + "\n"));
}

TEST_F(TextTest, Disable) {
  const DebugCapture debug;
  DisableConsole("BOX", &operator_);
  const std::string text = "Console has been disabled by " + name_ + "@" + address_;
  EXPECT_EQ(Told(), Framed(text));
  EXPECT_EQ(debug.Messages().front(), "DisableConsole: " + text + "\n");
}

TEST_F(TextTest, Message) {
  SendMsgToConsole("BOX", &operator_, "back at noon\n");
  EXPECT_EQ(Told(), Framed("Message from " + name_ + "@" + address_ + ": \n\n\rback at noon\n"));
}

TEST_F(TextTest, LongMessageIsCutTwice) {
  const std::string message(1000, 'm');
  SendMsgToConsole("box", &operator_, message.c_str());
  const std::string text = "Message from " + name_ + "@" + address_ + ": \n\n\r" + message;
  const std::string told = Told();
  EXPECT_EQ(told.size(), 1023U);
  EXPECT_EQ(told, Framed(text.substr(0, 1023)));
}

TEST_F(TextTest, MessageToEverybody) {
  const Attached<ConsoleNode> other = ConnectConsole("other");
  const Attached<UserNode> ben = AttachUser(other.node, "ben");
  SendMsgToConsole("-", &operator_, "x");
  EXPECT_EQ(rheader.type, kDone);
  EXPECT_EQ(Told(), ReceiveAvailable(ben.peer.get()));
}

}  // namespace
