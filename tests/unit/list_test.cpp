// The list mechanism: linking, ranges, and the set of the members' sockets.
#include "list.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/select.h>

#include <array>
#include <cstdlib>
#include <vector>

#include "failure_support.h"
#include "list_functions.h"
#include "list_support.h"

using namespace zevd;

namespace {

using test::Elem;
using test::Node;
using ::testing::ElementsAre;

using PlainList = List<Elem, &Elem::node>;
using NodeList = SocketList<Elem, &Elem::node>;

static_assert(!HasSockets<PlainList>);
static_assert(HasSockets<NodeList>);

/// A list of nodes that the test owns.
class ListTest : public ::testing::Test {
 protected:
  ListTest() { InitNamedList(&list_, "nodes", ReportOutOfMemory); }
  ~ListTest() override {
    DropElements(list_);
    free(const_cast<char*>(list_.list_name));
  }

  void Append(Node& node) {
    ASSERT_TRUE(ReserveFor(list_, &node));
    LinkAtTail(list_, NewElement<NodeList>(&node, ReportOutOfMemory));
    Recompute(list_);
  }

  void AppendAll() {
    for (Node& node : nodes_) Append(node);
  }

  void Remove(const Node& node) {
    Unlink(list_, FindElement(list_, &node));
    Recompute(list_);
  }

  // The nodes' numbers from head to tail.
  std::vector<long> Forwards() const {
    std::vector<long> order;
    for (const Elem* elem = list_.head; elem != nullptr; elem = elem->next) {
      order.push_back(elem->node - nodes_.data());
    }
    return order;
  }

  std::vector<long> Backwards() const {
    std::vector<long> order;
    for (const Elem* elem = list_.tail; elem != nullptr; elem = elem->prev) {
      order.push_back(elem->node - nodes_.data());
    }
    return order;
  }

  NodeList list_;
  std::array<Node, 3> nodes_;
};

TEST_F(ListTest, StartsEmpty) {
  EXPECT_EQ(list_.head, nullptr);
  EXPECT_EQ(list_.tail, nullptr);
  EXPECT_EQ(list_.count, 0);
  EXPECT_EQ(list_.high_sock, -1);
  EXPECT_FALSE(list_.fdset.Contains(0));
}

TEST_F(ListTest, AppendsAtTheTail) {
  AppendAll();
  EXPECT_THAT(Forwards(), ElementsAre(0, 1, 2));
  EXPECT_THAT(Backwards(), ElementsAre(2, 1, 0));
  EXPECT_EQ(list_.count, 3);
  EXPECT_EQ(list_.head->prev, nullptr);
  EXPECT_EQ(list_.tail->next, nullptr);
}

TEST_F(ListTest, TakesTheSameNodeTwice) {
  Append(nodes_[0]);
  Append(nodes_[0]);
  EXPECT_THAT(Forwards(), ElementsAre(0, 0));
  EXPECT_EQ(list_.count, 2);
}

TEST_F(ListTest, UnlinksTheHead) {
  AppendAll();
  Remove(nodes_[0]);
  EXPECT_THAT(Forwards(), ElementsAre(1, 2));
  EXPECT_THAT(Backwards(), ElementsAre(2, 1));
  EXPECT_EQ(list_.count, 2);
}

TEST_F(ListTest, UnlinksFromTheMiddle) {
  AppendAll();
  Remove(nodes_[1]);
  EXPECT_THAT(Forwards(), ElementsAre(0, 2));
  EXPECT_THAT(Backwards(), ElementsAre(2, 0));
  EXPECT_EQ(list_.count, 2);
}

TEST_F(ListTest, UnlinksTheTail) {
  AppendAll();
  Remove(nodes_[2]);
  EXPECT_THAT(Forwards(), ElementsAre(0, 1));
  EXPECT_THAT(Backwards(), ElementsAre(1, 0));
  EXPECT_EQ(list_.count, 2);
}

TEST_F(ListTest, UnlinksTheOnlyElement) {
  Append(nodes_[0]);
  Remove(nodes_[0]);
  EXPECT_EQ(list_.head, nullptr);
  EXPECT_EQ(list_.tail, nullptr);
  EXPECT_EQ(list_.count, 0);
}

TEST_F(ListTest, CanBeUsedAgainAfterItWasEmptied) {
  Append(nodes_[0]);
  Remove(nodes_[0]);
  AppendAll();
  EXPECT_THAT(Forwards(), ElementsAre(0, 1, 2));
  EXPECT_THAT(Backwards(), ElementsAre(2, 1, 0));
}

TEST_F(ListTest, CountGoesBelowZeroWhenItWasWrong) {
  Append(nodes_[0]);
  list_.count = 0;
  Remove(nodes_[0]);
  EXPECT_EQ(list_.count, -1);
}

TEST_F(ListTest, FindsElementsByIdentity) {
  Append(nodes_[0]);
  Append(nodes_[1]);
  EXPECT_EQ(FindElement(list_, &nodes_[0]), list_.head);
  EXPECT_EQ(FindElement(list_, &nodes_[1]), list_.tail);
  EXPECT_EQ(FindElement(list_, &nodes_[2]), nullptr);  // equal in contents, but another node
}

TEST_F(ListTest, FindsTheFirstNodeThatMatches) {
  nodes_[1].sock = 7;
  nodes_[2].sock = 7;
  AppendAll();
  EXPECT_EQ(FindNode(list_, [](const Node& node) { return node.sock == 7; }), &nodes_[1]);
  EXPECT_EQ(FindNode(list_, [](const Node& node) { return node.sock == 8; }), nullptr);
}

TEST_F(ListTest, NodeOfGivesTheElementsNode) {
  Append(nodes_[1]);
  EXPECT_EQ(NodeOf(list_, list_.head), &nodes_[1]);
}

TEST_F(ListTest, RangeRunsFromHeadToTail) {
  AppendAll();
  std::vector<Node*> seen;
  for (Node* node : Nodes(list_)) seen.push_back(node);
  EXPECT_THAT(seen, ElementsAre(&nodes_[0], &nodes_[1], &nodes_[2]));
}

TEST_F(ListTest, RangeOfAnEmptyListHasNothing) {
  for (Node* node : Nodes(list_)) FAIL() << "node " << node - nodes_.data();
}

TEST_F(ListTest, RangeSurvivesTheRemovalOfEveryNode) {
  AppendAll();
  std::vector<Node*> seen;
  for (Node* node : Nodes(list_)) {
    seen.push_back(node);
    Remove(*node);
  }
  EXPECT_THAT(seen, ElementsAre(&nodes_[0], &nodes_[1], &nodes_[2]));
  EXPECT_EQ(list_.head, nullptr);
}

TEST_F(ListTest, RangeSurvivesTheRemovalOfOneNode) {
  AppendAll();
  int seen = 0;
  for (Node* node : Nodes(list_)) {
    ++seen;
    if (node == &nodes_[1]) Remove(*node);
  }
  EXPECT_EQ(seen, 3);
  EXPECT_THAT(Forwards(), ElementsAre(0, 2));
}

TEST_F(ListTest, SetHoldsTheSocketsOfTheMembers) {
  nodes_[0].sock = 5;
  nodes_[2].sock = 4;
  AppendAll();
  EXPECT_TRUE(list_.fdset.Contains(5));
  EXPECT_TRUE(list_.fdset.Contains(4));
  EXPECT_FALSE(list_.fdset.Contains(3));
  EXPECT_EQ(list_.high_sock, 5);
}

TEST_F(ListTest, HighestSocketOfMembersWithoutSocketsIsMinusOne) {
  AppendAll();
  EXPECT_EQ(list_.high_sock, -1);
}

TEST_F(ListTest, SetFollowsARemoval) {
  nodes_[0].sock = 9;
  nodes_[1].sock = 6;
  AppendAll();
  Remove(nodes_[0]);
  EXPECT_FALSE(list_.fdset.Contains(9));
  EXPECT_TRUE(list_.fdset.Contains(6));
  EXPECT_EQ(list_.high_sock, 6);
}

TEST_F(ListTest, SetIsRebuiltFromScratchAfterEveryChange) {
  nodes_[0].sock = 9;
  Append(nodes_[0]);
  nodes_[0].sock = 3;  // without the list's knowledge: the set is stale until the next change
  EXPECT_TRUE(list_.fdset.Contains(9));
  EXPECT_EQ(list_.high_sock, 9);
  Append(nodes_[1]);
  EXPECT_FALSE(list_.fdset.Contains(9));
  EXPECT_TRUE(list_.fdset.Contains(3));
  EXPECT_EQ(list_.high_sock, 3);
}

TEST_F(ListTest, SetKeepsASocketThatAnotherMemberShares) {
  nodes_[0].sock = 4;
  nodes_[1].sock = 4;
  AppendAll();
  Remove(nodes_[0]);
  EXPECT_TRUE(list_.fdset.Contains(4));
}

TEST_F(ListTest, SetTakesDescriptorsBeyondAPlainSet) {
  nodes_[0].sock = FD_SETSIZE + 1000;
  Append(nodes_[0]);
  EXPECT_TRUE(list_.fdset.Contains(FD_SETSIZE + 1000));
  EXPECT_EQ(list_.high_sock, FD_SETSIZE + 1000);
}

TEST_F(ListTest, ABatchRebuildsTheSetAtItsEnd) {
  nodes_[0].sock = 9;
  nodes_[1].sock = 6;
  AppendAll();
  {
    const ListBatch batch(list_);
    {
      const ListBatch inner(list_);
      Remove(nodes_[0]);
      nodes_[2].sock = 7;
    }
    EXPECT_TRUE(list_.fdset.Contains(9));
    EXPECT_EQ(list_.high_sock, 9);
  }
  EXPECT_FALSE(list_.fdset.Contains(9));
  EXPECT_TRUE(list_.fdset.Contains(7));
  EXPECT_EQ(list_.high_sock, 7);
}

TEST_F(ListTest, ReadyMembersAreFoundByWalkingAListWithoutWatch) {
  for (int i = 0; i < 3; ++i) nodes_[static_cast<size_t>(i)].sock = 5 - i;
  AppendAll();
  DescriptorSet ready;
  for (const int sock : {3, 5, 8}) ASSERT_TRUE(ready.Add(sock));
  std::vector<int> visited;
  ForEachReady(list_, ready, [&](const Node* node) { visited.push_back(node->sock); });
  EXPECT_THAT(visited, ElementsAre(5, 3));
}

TEST_F(ListTest, DroppingTheElementsLeavesNodesCountAndSet) {
  nodes_[0].sock = 5;
  AppendAll();
  DropElements(list_);
  EXPECT_EQ(list_.head, nullptr);
  EXPECT_EQ(list_.tail, nullptr);
  EXPECT_EQ(list_.count, 3);
  EXPECT_EQ(list_.high_sock, 5);
  EXPECT_TRUE(list_.fdset.Contains(5));
  EXPECT_EQ(nodes_[0].sock, 5);
}

TEST_F(ListTest, ReservingFailsWhenOutOfMemory) {
  nodes_[0].sock = 100;
  const test::FailAllocation failure(1);
  EXPECT_FALSE(ReserveFor(list_, &nodes_[0]));
  EXPECT_TRUE(failure.reached());
}

TEST_F(ListTest, ReservingForANodeWithoutSocketNeedsNoMemory) {
  const test::FailAllocation failure(1);
  EXPECT_TRUE(ReserveFor(list_, &nodes_[0]));
  EXPECT_FALSE(failure.reached());
}

TEST_F(ListTest, AppendingNeedsNoMemoryForTheSetOnceReserved) {
  nodes_[0].sock = 700;
  ASSERT_TRUE(ReserveFor(list_, &nodes_[0]));
  Elem* elem = NewElement<NodeList>(&nodes_[0], ReportOutOfMemory);
  const test::FailAllocation failure(1);
  LinkAtTail(list_, elem);
  Recompute(list_);
  EXPECT_FALSE(failure.reached());
  EXPECT_TRUE(list_.fdset.Contains(700));
}

TEST(PlainListTest, WorksWithoutSockets) {
  std::array<Node, 2> nodes;
  auto* list = new PlainList;
  InitNamedList(list, "plain", ReportOutOfMemory);
  for (Node& node : nodes) {
    ASSERT_TRUE(ReserveFor(*list, &node));
    LinkAtTail(*list, NewElement<PlainList>(&node, ReportOutOfMemory));
    Recompute(*list);
  }
  EXPECT_EQ(list->count, 2);
  Unlink(*list, list->head);
  EXPECT_EQ(NodeOf(*list, list->head), &nodes[1]);
  EXPECT_EQ(list->head, list->tail);
  DropElements(*list);
  FreeListRecord(list);
}

}  // namespace
