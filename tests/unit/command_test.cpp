// The records of command connections and their lists.
#include "command.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "command_support.h"
#include "failure_support.h"

using namespace zevd;

namespace {

using namespace std::string_literals;
using test::AnnouncesDaemonError;
using test::DebugCapture;
using test::FailAllocation;
using test::IsExitTrace;
using test::kNoMemoryLine;
using ::testing::ElementsAre;
using ::testing::ExitedWithCode;
using ::testing::IsEmpty;

using CommandRecordTest = test::RelayTest;

constexpr char kOutOfMemoryError[] = "013 - Out of memory.\r\n";

TEST_F(CommandRecordTest, NewNodeIsNeitherOpenNorListed) {
  CommandNode* cnode = NewCommandNode("anna", "192.0.2.1");
  EXPECT_EQ(cnode->sock, -1);
  EXPECT_EQ(cnode->connected, 0);
  EXPECT_STREQ(cnode->user_name, "anna");
  EXPECT_STREQ(cnode->ipaddr, "192.0.2.1");
  EXPECT_FALSE(cnode->answer.IsUnsent());
  FreeCommandNode(cnode);
}

TEST_F(CommandRecordTest, LongNamesAreCut) {
  CommandNode* cnode = NewCommandNode(std::string(40, 'u').c_str(), std::string(80, 'a').c_str());
  EXPECT_EQ(cnode->user_name, std::string(32, 'u'));
  EXPECT_EQ(cnode->ipaddr, std::string(64, 'a'));
  FreeCommandNode(cnode);
}

TEST_F(CommandRecordTest, NewElementHasNoNeighbours) {
  CommandNode cnode{};
  const std::unique_ptr<CommandListElem> elem(NewCommandListElem(&cnode));
  EXPECT_EQ(elem->tool, &cnode);
  EXPECT_EQ(elem->prev, nullptr);
  EXPECT_EQ(elem->next, nullptr);
}

TEST_F(CommandRecordTest, NewListIsEmptyAndHasANameOfItsOwn) {
  std::string name = "tools";
  CommandList* list = NewCommandList(name.c_str());
  name[0] = 'x';
  EXPECT_STREQ(list->list_name, "tools");
  EXPECT_EQ(list->head, nullptr);
  EXPECT_EQ(list->tail, nullptr);
  EXPECT_EQ(list->count, 0);
  EXPECT_EQ(list->high_sock, -1);
  EXPECT_FALSE(list->fdset.Contains(0));
  FreeCommandList(list);
}

/// The constructors fail in turn; each sets the error, reports and gives null.
void ExpectNoMemory(const std::string& function, const std::function<void*()>& make, int first) {
  SCOPED_TRACE(function);
  u_err_msg = nullptr;
  const DebugCapture debug(kDetail);
  {
    const FailAllocation failure(first);
    EXPECT_EQ(make(), nullptr);
    EXPECT_TRUE(failure.reached());
  }
  EXPECT_STREQ(u_err_msg, kOutOfMemoryError);
  EXPECT_THAT(debug.Messages(),
              ElementsAre(function + ": " + kNoMemoryLine, AnnouncesDaemonError("Out of memory")));
}

TEST_F(CommandRecordTest, ConstructorsWithoutMemory) {
  ExpectNoMemory(
      "NewCommandNode", [] { return NewCommandNode("anna", "192.0.2.1"); }, 1);
  ExpectNoMemory(
      "NewCommandListElem", [] { return NewCommandListElem(nullptr); }, 1);
  ExpectNoMemory(
      "NewCommandList", [] { return NewCommandList("tools"); }, 1);
  ExpectNoMemory(
      "InitCommandList", [] { return NewCommandList("tools"); }, 2);
}

/// A list of nodes with sockets 3, 70 and 5, none of which is open.
class CommandListTest : public CommandRecordTest {
 protected:
  CommandListTest() {
    constexpr std::array kSockets = {3, 70, 5};
    for (size_t i = 0; i < nodes_.size(); ++i) {
      nodes_.at(i) = CommandNode{};
      nodes_.at(i).sock = kSockets.at(i);
      EXPECT_EQ(AddCommandToList(&nodes_.at(i), list_), 0);
    }
  }
  ~CommandListTest() override {
    DropElements(*list_);
    FreeCommandList(list_);
  }

  std::vector<int> Sockets() const {
    std::vector<int> sockets;
    for (const CommandNode* cnode : Nodes(*list_)) sockets.push_back(cnode->sock);
    return sockets;
  }

  std::vector<int> Watched() const {
    std::vector<int> watched;
    for (int fd = 0; fd < 100; ++fd) {
      if (list_->fdset.Contains(fd)) watched.push_back(fd);
    }
    return watched;
  }

  std::array<CommandNode, 3> nodes_;
  CommandList* list_ = NewCommandList("tools");
};

using CommandListDeathTest = CommandListTest;

TEST_F(CommandListTest, NodesAreAppended) {
  EXPECT_THAT(Sockets(), ElementsAre(3, 70, 5));
  EXPECT_THAT(Watched(), ElementsAre(3, 5, 70));
  EXPECT_EQ(list_->high_sock, 70);
  EXPECT_EQ(list_->count, 3);
}

TEST_F(CommandListTest, AddingIsTraced) {
  CommandNode fourth{};
  fourth.sock = -1;
  const DebugCapture debug(kTrace);
  EXPECT_EQ(AddCommandToList(&fourth, list_), 0);
  EXPECT_TRUE(debug.Has("AddCommandToList: Added command to tools.\n"));
  EXPECT_THAT(Watched(), ElementsAre(3, 5, 70));  // without a socket there is nothing to watch
}

TEST_F(CommandListTest, HeadIsRemoved) {
  EXPECT_EQ(RemoveCommandFromList(&nodes_[0], list_), 0);
  EXPECT_THAT(Sockets(), ElementsAre(70, 5));
  EXPECT_THAT(Watched(), ElementsAre(5, 70));
  EXPECT_EQ(list_->high_sock, 70);
  EXPECT_EQ(list_->head->prev, nullptr);
}

TEST_F(CommandListTest, MiddleIsRemoved) {
  EXPECT_EQ(RemoveCommandFromList(&nodes_[1], list_), 0);
  EXPECT_THAT(Sockets(), ElementsAre(3, 5));
  EXPECT_THAT(Watched(), ElementsAre(3, 5));
  EXPECT_EQ(list_->high_sock, 5);
  EXPECT_EQ(list_->count, 2);
}

TEST_F(CommandListTest, TailIsRemoved) {
  EXPECT_EQ(RemoveCommandFromList(&nodes_[2], list_), 0);
  EXPECT_THAT(Sockets(), ElementsAre(3, 70));
  EXPECT_EQ(list_->tail->tool, &nodes_[1]);
  EXPECT_EQ(list_->tail->next, nullptr);
}

TEST_F(CommandListTest, LastOneLeavesAnEmptyList) {
  for (CommandNode& cnode : nodes_) RemoveCommandFromList(&cnode, list_);
  EXPECT_EQ(list_->head, nullptr);
  EXPECT_EQ(list_->tail, nullptr);
  EXPECT_EQ(list_->count, 0);
  EXPECT_EQ(list_->high_sock, -1);
  EXPECT_THAT(Watched(), IsEmpty());
}

TEST_F(CommandListTest, WithoutMemoryTheListIsAsBefore) {
  CommandNode fourth{};
  fourth.sock = 4;
  u_err_msg = nullptr;
  const DebugCapture debug;
  {
    const FailAllocation failure(1);
    EXPECT_EQ(AddCommandToList(&fourth, list_), -1);
  }
  EXPECT_STREQ(u_err_msg, kOutOfMemoryError);
  EXPECT_THAT(debug.Messages(), ElementsAre("NewCommandListElem: "s + kNoMemoryLine,
                                            "AddCommandToList: NewCommandListElem() failed\n"));
  EXPECT_THAT(Sockets(), ElementsAre(3, 70, 5));
  EXPECT_THAT(Watched(), ElementsAre(3, 5, 70));
}

TEST_F(CommandListDeathTest, RemovingAStrangerEndsTheProcess) {
  CommandNode stranger{};
  EXPECT_EXIT(
      {
        test::SendDebugToStderr(kDetail);
        RemoveCommandFromList(&stranger, list_);
      },
      ExitedWithCode(1),
      test::DebugTextsAre(ElementsAre("RemoveCommandFromList: cnode not found in cmd_list\n",
                                      AnnouncesDaemonError("Terminated: Internal error"),
                                      IsExitTrace(1, "command.cpp"))));
}

TEST_F(CommandListDeathTest, NegativeCountEndsTheProcess) {
  EXPECT_EXIT(
      {
        list_->count = 0;
        test::SendDebugToStderr(kDetail);
        RemoveCommandFromList(&nodes_[1], list_);
      },
      ExitedWithCode(1),
      test::DebugTextsAre(ElementsAre("RemoveCommandFromList: cmd_list->count = -1\n",
                                      AnnouncesDaemonError("Terminated: Internal error"),
                                      IsExitTrace(1, "command.cpp"))));
}

}  // namespace
