#include "socket_watch.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "debug_support.h"
#include "failure_support.h"
#include "list_functions.h"
#include "list_support.h"
#include "socket_support.h"

using namespace zevd;

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

using test::Elem;
using test::Node;

using NodeList = SocketList<Elem, &Elem::node>;

constexpr timeval kNoWait = {0, 0};
constexpr timeval kLong = {60, 0};

/// A watched list of four nodes whose sockets are in another order, and a waker.
class WatchTest : public ::testing::Test {
 protected:
  void SetUp() override {
    InitNamedList(&list_, "nodes", ReportOutOfMemory);
    WatchMembers(&list_);
    ASSERT_NE(list_.watch, nullptr);
    ASSERT_TRUE(waker_.Open());
    waker_descriptor_.Reset(waker_.descriptor());
    for (size_t i = 0; i < nodes_.size(); ++i) {
      nodes_[i].sock = pairs_[nodes_.size() - 1 - i].ours.get();
    }
  }

  ~WatchTest() override {
    DropElements(list_);
    free(const_cast<char*>(list_.list_name));
    if (list_.watch == nullptr) return;
    close(list_.watch->descriptor());
    delete list_.watch;
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

  // The peer of that node's socket prints.
  void Print(size_t node) { test::SendText(pairs_[nodes_.size() - 1 - node].theirs.get(), "x"); }

  // The numbers of the nodes that are found ready, in the order in which they are visited.
  std::vector<long> Ready(timeval timeout = kNoWait) {
    EXPECT_TRUE(set_.CopyFrom(list_.fdset));
    const int ready = WaitForMembers(list_.high_sock, set_, waker_, &timeout, WatchOf(&list_));
    std::vector<long> visited;
    ForEachReady(list_, set_, [&](const Node* node) { visited.push_back(node - nodes_.data()); });
    EXPECT_EQ(ready, static_cast<int>(visited.size()));
    return visited;
  }

  Waker waker_;
  test::Descriptor waker_descriptor_;
  std::array<test::SocketPair, 4> pairs_;
  std::array<Node, 4> nodes_;
  NodeList list_;
  DescriptorSet set_;
};

TEST_F(WatchTest, IsNotInherited) {
  EXPECT_NE(fcntl(list_.watch->descriptor(), F_GETFD) & FD_CLOEXEC, 0);
}

TEST_F(WatchTest, NobodyIsReady) {
  AppendAll();
  EXPECT_THAT(Ready(), IsEmpty());
}

TEST_F(WatchTest, ReadyMembersComeInListOrder) {
  AppendAll();
  for (const size_t node : {3U, 0U, 2U}) Print(node);
  EXPECT_THAT(Ready(), ElementsAre(0, 2, 3));
}

TEST_F(WatchTest, AMemberStaysReadyUntilItIsRead) {
  AppendAll();
  Print(1);
  EXPECT_THAT(Ready(), ElementsAre(1));
  EXPECT_THAT(Ready(), ElementsAre(1));
  char byte = 0;
  ASSERT_EQ(recv(nodes_[1].sock, &byte, 1, 0), 1);
  EXPECT_THAT(Ready(), IsEmpty());
}

TEST_F(WatchTest, TheEndOfAStreamIsReadable) {
  AppendAll();
  pairs_[3].theirs.Reset();
  EXPECT_THAT(Ready(), ElementsAre(0));
}

TEST_F(WatchTest, AMemberThatLeftIsNotWatched) {
  AppendAll();
  Print(1);
  Print(2);
  Remove(nodes_[1]);
  EXPECT_THAT(Ready(), ElementsAre(2));
}

TEST_F(WatchTest, AMemberThatJoinedAfterTheSetWasCopiedWaits) {
  Append(nodes_[0]);
  ASSERT_TRUE(set_.CopyFrom(list_.fdset));
  const int high_sock = list_.high_sock;
  Append(nodes_[1]);
  Print(1);
  timeval timeout = kLong;
  EXPECT_EQ(WaitForMembers(high_sock, set_, waker_, &timeout, WatchOf(&list_)), 0);
  EXPECT_FALSE(set_.Contains(nodes_[1].sock));
  EXPECT_THAT(Ready(), ElementsAre(1));
}

// The number is another member's socket before the list was rebuilt without the first.
TEST_F(WatchTest, ANumberThatComesBackIsWatchedAgain) {
  Append(nodes_[0]);
  const int number = nodes_[0].sock;
  ForgetSocket(list_, number);
  pairs_[3].ours.Reset();
  nodes_[0].sock = -1;
  nodes_[1].sock = fcntl(pairs_[2].ours.get(), F_DUPFD_CLOEXEC, number);
  const test::Descriptor again(nodes_[1].sock);
  ASSERT_EQ(nodes_[1].sock, number);
  Append(nodes_[1]);
  Print(1);
  EXPECT_THAT(Ready(), ElementsAre(1));
}

// As a child has them all between fork and exec.
TEST_F(WatchTest, AForgottenSocketIsSilentWhileAnotherDescriptorOfItLives) {
  AppendAll();
  Print(0);
  const test::Descriptor other(dup(nodes_[0].sock));
  ForgetSocket(list_, nodes_[0].sock);
  pairs_[3].ours.Reset();
  nodes_[0].sock = -1;
  Remove(nodes_[0]);
  EXPECT_THAT(Ready(), IsEmpty());
  pollfd watch = {list_.watch->descriptor(), POLLIN, 0};
  EXPECT_EQ(poll(&watch, 1, 0), 0);
}

TEST_F(WatchTest, ForgettingAStrangerChangesNothing) {
  Append(nodes_[0]);
  ForgetSocket(list_, nodes_[1].sock);
  ForgetSocket(list_, 100000);
  Print(0);
  EXPECT_THAT(Ready(), ElementsAre(0));
}

TEST_F(WatchTest, TheWakerEndsTheWaitAndIsNotAMember) {
  AppendAll();
  waker_.Wake();
  EXPECT_THAT(Ready(kLong), IsEmpty());
  EXPECT_FALSE(set_.Contains(waker_.descriptor()));
  Print(2);
  waker_.Wake();
  EXPECT_THAT(Ready(kLong), ElementsAre(2));
}

TEST_F(WatchTest, AnExtraDescriptorEndsTheWaitUntilItIsReadAndIsNotAMember) {
  AppendAll();
  const test::SocketPair pair;
  waker_.Beside(pair.ours.get());
  EXPECT_THAT(Ready(), IsEmpty());
  test::SendText(pair.theirs.get(), "x");
  for (int i = 0; i < 2; ++i) {
    timeval timeout = kLong;
    ASSERT_TRUE(set_.CopyFrom(list_.fdset));
    EXPECT_EQ(WaitForMembers(list_.high_sock, set_, waker_, &timeout, WatchOf(&list_)), 0);
    EXPECT_GT(timeout.tv_sec, 0);
  }
  Print(1);
  EXPECT_THAT(Ready(kLong), ElementsAre(1));
  EXPECT_EQ(test::Receive(pair.ours.get(), 1), "x");
  waker_.NotBeside(pair.ours.get());
  EXPECT_THAT(Ready(), ElementsAre(1));
}

TEST_F(WatchTest, LeavesTheUnsleptTime) {
  AppendAll();
  Print(0);
  ASSERT_TRUE(set_.CopyFrom(list_.fdset));
  timeval timeout = kLong;
  EXPECT_EQ(WaitForMembers(list_.high_sock, set_, &timeout, WatchOf(&list_)), 1);
  EXPECT_GE(timeout.tv_sec, 50);
}

TEST_F(WatchTest, WaitsWithoutAWaker) {
  AppendAll();
  Print(3);
  ASSERT_TRUE(set_.CopyFrom(list_.fdset));
  timeval timeout = kLong;
  EXPECT_EQ(WaitForMembers(list_.high_sock, set_, &timeout, WatchOf(&list_)), 1);
  EXPECT_TRUE(set_.Contains(nodes_[3].sock));
  EXPECT_FALSE(set_.Contains(nodes_[0].sock));
}

TEST_F(WatchTest, ReportsAFailedSelect) {
  AppendAll();
  ASSERT_TRUE(set_.CopyFrom(list_.fdset));
  const test::FailCall failure(test::Call::kSelect, EINTR);
  timeval timeout = kNoWait;
  EXPECT_EQ(WaitForMembers(list_.high_sock, set_, waker_, &timeout, WatchOf(&list_)), -1);
  EXPECT_EQ(errno, EINTR);
}

// There are more members than one answer of the kernel holds: each has its turn.
TEST_F(WatchTest, ReportsMoreThanItCanAtOnceInTurn) {
  constexpr int kMembers = SocketWatch::kMostAtOnce * 3 / 2;
  Print(0);
  std::vector<test::Descriptor> sockets;
  std::vector<Node> nodes(kMembers);
  for (Node& node : nodes) {
    sockets.emplace_back(dup(nodes_[0].sock));
    node.sock = sockets.back().get();
  }
  for (Node& node : nodes) Append(node);
  DescriptorSet seen;
  int visits = 0;
  for (int look = 0; look < 2; ++look) {
    ASSERT_TRUE(set_.CopyFrom(list_.fdset));
    timeval timeout = kNoWait;
    EXPECT_EQ(WaitForMembers(list_.high_sock, set_, waker_, &timeout, WatchOf(&list_)),
              SocketWatch::kMostAtOnce);
    set_.ForEach([&](int sock) {
      if (!seen.Contains(sock)) ++visits;
      EXPECT_TRUE(seen.Add(sock));
    });
  }
  EXPECT_EQ(visits, kMembers);
}

// ---- Without a watch ----------------------------------------------------------------------------

TEST_F(WatchTest, EveryMemberIsAskedOnceOneCannotBeWatched) {
  Append(nodes_[0]);
  {
    const test::FailCall failure(test::Call::kEpollCtl, ENOSPC);
    const test::DebugCapture capture(0);
    Append(nodes_[1]);
    EXPECT_THAT(capture.Messages(),
                ElementsAre("Follow: epoll_ctl() failed : No space left on device\n"));
  }
  EXPECT_FALSE(list_.watch->usable());
  Append(nodes_[2]);
  for (const size_t node : {2U, 1U}) Print(node);
  EXPECT_THAT(Ready(), ElementsAre(1, 2));
}

TEST_F(WatchTest, AMemberWithoutRoomInTheIndexIsNotTaken) {
  ASSERT_TRUE(list_.fdset.Reserve(nodes_[0].sock));
  const test::FailAllocation failure(1);
  EXPECT_FALSE(ReserveFor(list_, &nodes_[0]));
  EXPECT_TRUE(failure.reached());
}

TEST(UnwatchedListTest, AListDoesWithoutAWatch) {
  NodeList list;
  {
    const test::FailCall failure(test::Call::kEpollCreate, EMFILE);
    const test::DebugCapture capture(0);
    WatchMembers(&list);
    EXPECT_THAT(capture.Messages(),
                ElementsAre("WatchMembers: epoll_create1() failed : Too many open files\n"));
  }
  EXPECT_EQ(list.watch, nullptr);
  const test::DebugCapture capture(0);
  const test::FailAllocation failure(1);
  WatchMembers(&list);
  EXPECT_EQ(list.watch, nullptr);
  EXPECT_EQ(test::Reports(capture.Messages()).at(0),
            "WatchMembers: malloc() failed : Cannot allocate memory\n");
  EXPECT_EQ(WatchOf(&list), nullptr);
}

// ---- The index ----------------------------------------------------------------------------------

constexpr auto kAsListed = [](const Elem* /*a*/, const Elem* /*b*/) { return false; };

TEST(SocketIndexTest, PreferredMembersComeFirstAndTheRestInListOrder) {
  SocketIndex<Elem> index;
  ASSERT_TRUE(index.Reserve(8));
  std::array<Elem, 6> elems{};
  DescriptorSet sockets;
  int sock = 8;
  for (Elem& elem : elems) {
    elem.place = static_cast<uint64_t>(&elem - elems.data());
    index.Set(sock, &elem);
    ASSERT_TRUE(sockets.Add(sock));
    --sock;
  }
  const std::array<int, 6> ranks = {2, 1, 2, 0, 2, 1};
  std::vector<long> visited;
  index.ForEachInOrder(
      sockets, [&](const Elem* a, const Elem* b) { return ranks[a->place] < ranks[b->place]; },
      [&](const Elem* found) { visited.push_back(found - elems.data()); });
  EXPECT_THAT(visited, ElementsAre(3, 1, 5, 0, 2, 4));
}

TEST(SocketIndexTest, KeepsItsMembersWhenItGrows) {
  SocketIndex<Elem> index;
  Elem elem{nullptr, nullptr, nullptr, 1};
  ASSERT_TRUE(index.Reserve(5));
  index.Set(5, &elem);
  ASSERT_TRUE(index.Reserve(5000));
  DescriptorSet sockets;
  for (const int sock : {5, 5000, 9000}) ASSERT_TRUE(sockets.Add(sock));
  std::vector<const Elem*> visited;
  index.ForEachInOrder(sockets, kAsListed, [&](const Elem* found) { visited.push_back(found); });
  EXPECT_THAT(visited, ElementsAre(&elem));
  index.Clear();
  index.ForEachInOrder(sockets, kAsListed, [](const Elem*) { ADD_FAILURE(); });
}

TEST(SocketIndexTest, StaysAsItWasWithoutMemory) {
  SocketIndex<Elem> index;
  Elem elem{nullptr, nullptr, nullptr, 1};
  ASSERT_TRUE(index.Reserve(5));
  index.Set(5, &elem);
  for (const int nth : {1, 2}) {
    const test::FailAllocation failure(nth);
    EXPECT_FALSE(index.Reserve(500));
  }
  DescriptorSet sockets;
  ASSERT_TRUE(sockets.Add(5));
  int visits = 0;
  index.ForEachInOrder(sockets, kAsListed, [&](const Elem*) { ++visits; });
  EXPECT_EQ(visits, 1);
}

}  // namespace
