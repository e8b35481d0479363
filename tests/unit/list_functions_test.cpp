// What the functions of every list share.
#include "list_functions.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>

#include "debug_support.h"
#include "failure_support.h"
#include "list_support.h"

using namespace zevd;

namespace {

using test::Elem;
using test::Node;
using ::testing::ElementsAre;

using NodeList = SocketList<Elem, &Elem::node>;

class ListFunctionsTest : public ::testing::Test {
 protected:
  ~ListFunctionsTest() override { free(const_cast<char*>(list_.list_name)); }

  NodeList list_;
};

TEST_F(ListFunctionsTest, NameIsACopy) {
  char name[] = "first";
  InitNamedList(&list_, name, ReportOutOfMemory);
  name[0] = 'F';
  EXPECT_STREQ(list_.list_name, "first");
}

void InitNodeList(NodeList* list) {
  InitNamedList(list, "nodes", ReportOutOfMemory);
}

TEST_F(ListFunctionsTest, CallerIsNamedWhenThereIsNoMemoryForTheName) {
  const test::DebugCapture capture(0);
  {
    const test::FailAllocation failure(1);
    InitNodeList(&list_);
    EXPECT_TRUE(failure.reached());
  }
  EXPECT_EQ(list_.list_name, nullptr);
  EXPECT_THAT(test::Reports(capture.Messages()),
              ElementsAre("InitNodeList: malloc() failed : Cannot allocate memory\n"));
}

TEST_F(ListFunctionsTest, InitialisingEmptiesAUsedList) {
  Node node = {3};
  ASSERT_TRUE(ReserveFor(list_, &node));
  LinkAtTail(list_, NewElement<NodeList>(&node, ReportOutOfMemory));
  Recompute(list_);
  DropElements(list_);
  InitNamedList(&list_, "again", ReportOutOfMemory);
  EXPECT_EQ(list_.count, 0);
  EXPECT_EQ(list_.high_sock, -1);
  EXPECT_FALSE(list_.fdset.Contains(3));
}

TEST_F(ListFunctionsTest, NewElementHasItsNodeAndNoLinks) {
  Node node;
  const std::unique_ptr<Elem> elem(NewElement<NodeList>(&node, ReportOutOfMemory));
  EXPECT_EQ(elem->node, &node);
  EXPECT_EQ(elem->prev, nullptr);
  EXPECT_EQ(elem->next, nullptr);
}

TEST_F(ListFunctionsTest, NewElementIsNullWhenOutOfMemory) {
  Node node;
  const test::FailAllocation failure(1);
  EXPECT_EQ(NewElement<NodeList>(&node, ReportOutOfMemory), nullptr);
}

}  // namespace
