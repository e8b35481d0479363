#include "descriptor_set.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <vector>

#include "failure_support.h"
#include "socket_support.h"

using namespace zevd;

namespace {

// The descriptors from 0 to `highest` that the set contains.
std::vector<int> Members(const DescriptorSet& set, int highest) {
  std::vector<int> members;
  for (int fd = 0; fd <= highest; ++fd) {
    if (set.Contains(fd)) members.push_back(fd);
  }
  return members;
}

using ::testing::ElementsAre;
using ::testing::IsEmpty;

TEST(DescriptorSetTest, StartsEmpty) {
  const DescriptorSet set;
  EXPECT_THAT(Members(set, 2000), IsEmpty());
}

TEST(DescriptorSetTest, HoldsExactlyWhatWasAdded) {
  DescriptorSet set;
  for (const int fd : {0, 63, 64, 65, 1023, 1024, 5000}) ASSERT_TRUE(set.Add(fd));
  EXPECT_THAT(Members(set, 6000), ElementsAre(0, 63, 64, 65, 1023, 1024, 5000));
}

TEST(DescriptorSetTest, VisitsEveryMemberInOrder) {
  DescriptorSet set;
  for (const int fd : {5000, 65, 0, 1024, 63, 64}) ASSERT_TRUE(set.Add(fd));
  std::vector<int> visited;
  set.ForEach([&](int fd) { visited.push_back(fd); });
  EXPECT_THAT(visited, ElementsAre(0, 63, 64, 65, 1024, 5000));
}

TEST(DescriptorSetTest, VisitsNobodyInAnEmptySet) {
  DescriptorSet().ForEach([](int fd) { ADD_FAILURE() << fd; });
}

TEST(DescriptorSetTest, AddingTwiceIsTheSameAsOnce) {
  DescriptorSet set;
  ASSERT_TRUE(set.Add(70));
  ASSERT_TRUE(set.Add(70));
  set.Remove(70);
  EXPECT_THAT(Members(set, 200), IsEmpty());
}

TEST(DescriptorSetTest, RemovesOneMember) {
  DescriptorSet set;
  for (const int fd : {3, 4, 67}) ASSERT_TRUE(set.Add(fd));
  set.Remove(3);
  EXPECT_THAT(Members(set, 200), ElementsAre(4, 67));
}

TEST(DescriptorSetTest, RemovingAStrangerChangesNothing) {
  DescriptorSet set;
  ASSERT_TRUE(set.Add(3));
  set.Remove(5);
  set.Remove(100000);  // beyond the room of the set
  set.Remove(-1);
  EXPECT_THAT(Members(set, 200), ElementsAre(3));
}

TEST(DescriptorSetTest, ContainsNoNegativeDescriptor) {
  DescriptorSet set;
  ASSERT_TRUE(set.Add(63));
  EXPECT_FALSE(set.Contains(-1));
  EXPECT_FALSE(set.Contains(INT_MIN));
}

TEST(DescriptorSetTest, ClearEmptiesTheSetAndKeepsItsRoom) {
  DescriptorSet set;
  ASSERT_TRUE(set.Add(3));
  ASSERT_TRUE(set.Add(3000));
  set.Clear();
  EXPECT_THAT(Members(set, 4000), IsEmpty());
  const test::FailAllocation failure(1);
  EXPECT_TRUE(set.Add(3000));
}

TEST(DescriptorSetTest, ClearingANewSetIsHarmless) {
  DescriptorSet set;
  set.Clear();
  EXPECT_THAT(Members(set, 100), IsEmpty());
}

TEST(DescriptorSetTest, GrowingKeepsTheMembersAndAddsNone) {
  DescriptorSet set;
  for (int fd = 0; fd < 3000; fd += 7) ASSERT_TRUE(set.Add(fd));
  for (int fd = 0; fd < 3000; ++fd) EXPECT_EQ(set.Contains(fd), fd % 7 == 0) << fd;
  EXPECT_THAT(Members(set, 2999), ::testing::SizeIs(429));
}

TEST(DescriptorSetTest, ReservedRoomNeedsNoMemoryLater) {
  DescriptorSet set;
  ASSERT_TRUE(set.Reserve(4000));
  EXPECT_THAT(Members(set, 4000), IsEmpty());
  const test::FailAllocation failure(1);
  EXPECT_TRUE(set.Add(4000));
  EXPECT_TRUE(set.Reserve(100));
  EXPECT_FALSE(failure.reached());
}

TEST(DescriptorSetTest, StaysAsItWasWhenOutOfMemory) {
  DescriptorSet set;
  ASSERT_TRUE(set.Add(3));
  {
    const test::FailAllocation failure(1, test::FailAllocation::kForEver);
    EXPECT_FALSE(set.Reserve(100000));
    EXPECT_FALSE(set.Add(100000));
  }
  EXPECT_THAT(Members(set, 200), ElementsAre(3));
  EXPECT_FALSE(set.Contains(100000));
  EXPECT_TRUE(set.Add(100000));
}

TEST(DescriptorSetTest, CopyIsEqual) {
  DescriptorSet original;
  for (const int fd : {1, 64, 2000}) ASSERT_TRUE(original.Add(fd));
  DescriptorSet copy;
  ASSERT_TRUE(copy.Add(5));
  ASSERT_TRUE(copy.CopyFrom(original));
  EXPECT_THAT(Members(copy, 3000), ElementsAre(1, 64, 2000));
  EXPECT_THAT(Members(original, 3000), ElementsAre(1, 64, 2000));
}

TEST(DescriptorSetTest, CopyOfASmallerSetLosesTheFormerMembers) {
  DescriptorSet original;
  ASSERT_TRUE(original.Add(1));
  DescriptorSet copy;
  ASSERT_TRUE(copy.Add(9000));
  ASSERT_TRUE(copy.CopyFrom(original));
  EXPECT_THAT(Members(copy, 10000), ElementsAre(1));
}

TEST(DescriptorSetTest, CopyOfANewSetIsEmpty) {
  DescriptorSet copy;
  ASSERT_TRUE(copy.Add(7));
  ASSERT_TRUE(copy.CopyFrom(DescriptorSet()));
  EXPECT_THAT(Members(copy, 100), IsEmpty());
}

TEST(DescriptorSetTest, CopyIsIndependentOfTheOriginal) {
  DescriptorSet original;
  ASSERT_TRUE(original.Add(1));
  DescriptorSet copy;
  ASSERT_TRUE(copy.CopyFrom(original));
  copy.Remove(1);
  EXPECT_TRUE(original.Contains(1));
}

TEST(DescriptorSetTest, CopyIsEmptyWhenOutOfMemory) {
  DescriptorSet original;
  ASSERT_TRUE(original.Add(5000));
  DescriptorSet copy;
  ASSERT_TRUE(copy.Add(3));
  const test::FailAllocation failure(1);
  EXPECT_FALSE(copy.CopyFrom(original));
  EXPECT_THAT(Members(copy, 6000), IsEmpty());
}

/// Lets the test use descriptors up to `highest`.
class DescriptorRoom {
 public:
  explicit DescriptorRoom(rlim_t highest) {
    getrlimit(RLIMIT_NOFILE, &saved_);
    rlimit raised = saved_;
    raised.rlim_cur = std::max(saved_.rlim_cur, highest + 1);
    raised.rlim_max = std::max(saved_.rlim_max, raised.rlim_cur);
    granted_ = setrlimit(RLIMIT_NOFILE, &raised) == 0;
  }
  ~DescriptorRoom() { setrlimit(RLIMIT_NOFILE, &saved_); }
  bool granted() const { return granted_; }

 private:
  rlimit saved_{};
  bool granted_ = false;
};

int Select(DescriptorSet& set, int highest) {
  timeval no_wait = {0, 0};
  return select(highest + 1, set.Native(), nullptr, nullptr, &no_wait);
}

TEST(DescriptorSetTest, SelectSeesDescriptorsBeyondAPlainSet) {
  constexpr int kHigh = 3 * FD_SETSIZE;
  const DescriptorRoom room(kHigh);
  ASSERT_TRUE(room.granted());
  const test::SocketPair quiet;
  const test::SocketPair talking;
  const test::Descriptor low(fcntl(quiet.ours.get(), F_DUPFD_CLOEXEC, kHigh - 100));
  const test::Descriptor high(fcntl(talking.ours.get(), F_DUPFD_CLOEXEC, kHigh));
  ASSERT_EQ(high.get(), kHigh);
  test::SendText(talking.theirs.get(), "x");

  DescriptorSet set;
  for (const test::Descriptor* fd : {&low, &high}) ASSERT_TRUE(set.Add(fd->get()));
  EXPECT_EQ(Select(set, kHigh), 1);
  EXPECT_THAT(Members(set, kHigh + 64), ElementsAre(kHigh));
}

TEST(DescriptorSetTest, SelectRefusesADescriptorThatIsNotOpen) {
  DescriptorSet set;
  const test::SocketPair pair;
  test::Descriptor gone(dup(pair.ours.get()));
  const int number = gone.get();
  gone.Reset();
  ASSERT_TRUE(set.Add(number));
  EXPECT_EQ(Select(set, number), -1);
  EXPECT_EQ(errno, EBADF);
}

}  // namespace
