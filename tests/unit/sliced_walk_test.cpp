// A walk that lets others have the list's lock.
#include "sliced_walk.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "debug_support.h"
#include "failure_support.h"
#include "lists.h"
#include "relay_support.h"

using namespace zevd;

namespace {

using ::testing::ElementsAre;

constexpr int64_t kNoTime = 1;                              // for each look at the clock
constexpr int64_t kLong = SlicedWalk<ConsoleList>::kSlice;  // the same

class SlicedWalkTest : public test::RelayTest {
 protected:
  SlicedWalkTest() {
    for (const char* name : {"a", "b", "c", "d"}) test::AddConsole(i_cons_list, name);
  }

  // Has others do this when they are first let in.
  void WhenOthersAreLetIn(std::function<void()> action) {
    icl_lock.Announce();
    clock_.OnSleep([action = std::move(action)](useconds_t) {
      action();
      icl_lock.Withdraw();
    });
  }

  // The names that a walk meets while it lasts `step` microseconds from one to the next.
  std::vector<std::string> Walk(int64_t step) {
    const test::FakePassageOfTime passage(step);
    WriteLock lock(icl_lock, HERE);
    return NamesOf(SlicedWalk<ConsoleList>(*i_cons_list, &lock));
  }

  std::vector<std::string> NamesOf(SlicedWalk<ConsoleList> walk) {
    std::vector<std::string> names;
    while (const ConsoleListElem* elem = walk.Next()) names.emplace_back(elem->cnode->cname);
    times_let_in_ = walk.times_let_in();
    return names;
  }

  static void Remove(const char* name) {
    ConsoleNode* cnode = LocateConsoleInList(name, i_cons_list);
    RemoveConsoleFromList(cnode, i_cons_list);
    FreeConsoleNode(cnode);
  }

  test::FakeClock clock_;
  unsigned times_let_in_ = 0;
};

TEST_F(SlicedWalkTest, ShortWalkKeepsTheLock) {
  EXPECT_THAT(Walk(kNoTime), ElementsAre("a", "b", "c", "d"));
  EXPECT_EQ(times_let_in_, 0U);
}

TEST_F(SlicedWalkTest, OthersAreLetInAfterEachMillisecond) {
  EXPECT_THAT(Walk(kLong), ElementsAre("a", "b", "c", "d"));
  EXPECT_EQ(times_let_in_, 4U);
  EXPECT_THAT(Walk(kLong / 2), ElementsAre("a", "b", "c", "d"));
  EXPECT_EQ(times_let_in_, 2U);
}

TEST_F(SlicedWalkTest, LockThatIsNotGivenIsNotReleased) {
  const test::FakePassageOfTime passage(kLong);
  EXPECT_THAT(NamesOf(SlicedWalk<ConsoleList>(*i_cons_list, nullptr)),
              ElementsAre("a", "b", "c", "d"));
  EXPECT_EQ(times_let_in_, 0U);
}

TEST_F(SlicedWalkTest, EmptyListIsWalkedAtOnce) {
  EmptyConsoleList(i_cons_list);
  EXPECT_THAT(Walk(kLong), ElementsAre());
  EXPECT_EQ(times_let_in_, 0U);
}

TEST_F(SlicedWalkTest, WhatOthersTakeOffIsNotMet) {
  WhenOthersAreLetIn([] {
    Remove("a");
    Remove("c");
  });
  EXPECT_THAT(Walk(kLong), ElementsAre("b", "d"));
}

TEST_F(SlicedWalkTest, WhatOthersAddIsMet) {
  WhenOthersAreLetIn([] { test::AddConsole(i_cons_list, "e"); });
  EXPECT_THAT(Walk(kLong), ElementsAre("a", "b", "c", "d", "e"));
}

TEST_F(SlicedWalkTest, OthersMayTakeOffEverything) {
  WhenOthersAreLetIn([] { EmptyConsoleList(i_cons_list); });
  EXPECT_THAT(Walk(kLong), ElementsAre());
}

TEST_F(SlicedWalkTest, ElementThatWasGivenOutMayBeUnlinked) {
  const test::FakePassageOfTime passage(kLong);
  WriteLock lock(icl_lock, HERE);
  SlicedWalk<ConsoleList> walk(*i_cons_list, &lock);
  std::vector<std::string> names;
  while (const ConsoleListElem* elem = walk.Next()) {
    names.emplace_back(elem->cnode->cname);
    Remove(names.back().c_str());
  }
  EXPECT_THAT(names, ElementsAre("a", "b", "c", "d"));
  EXPECT_EQ(i_cons_list->count, 0);
}

}  // namespace
