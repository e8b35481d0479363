// The names under which threads appear in the debug output.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "debug_support.h"
#include "error.h"
#include "error_steps.h"

using namespace zevd;

namespace {

class ThreadNameTest : public ::testing::Test {
 protected:
  ThreadNameTest() {
    test::StartDebugOutput();
    ClearThreadNames();
  }
  ~ThreadNameTest() override { ClearThreadNames(); }
};

// The name that the calling thread's lines show.
std::string ShownName() {
  static std::atomic<int> number{0};
  const test::DebugCapture capture;
  zev_debug(kInfo, "who %d\n", ++number);
  return capture.Lines().at(0).thread;
}

int TakenSlots() {
  return static_cast<int>(std::count_if(std::begin(thread_name_list.slot),
                                        std::end(thread_name_list.slot),
                                        [](const ThreadName& slot) { return slot.in_use == 1; }));
}

TEST_F(ThreadNameTest, UnregisteredThreadIsUnknown) {
  EXPECT_EQ(ShownName(), "unknown");
}

TEST_F(ThreadNameTest, RegisteredThreadIsNamed) {
  RegisterThread("cons_conn");
  EXPECT_EQ(ShownName(), "cons_conn");
  EXPECT_STREQ(thread_name_list.slot[0].name, "cons_conn");
  EXPECT_EQ(thread_name_list.slot[0].in_use, 1);
  EXPECT_EQ(thread_name_list.slot[0].id, pthread_self());
}

TEST_F(ThreadNameTest, ThreadThatRegisteredTwiceKeepsItsFirstName) {
  RegisterThread("main");
  RegisterThread("cons_mon");
  EXPECT_EQ(ShownName(), "main");
  EXPECT_STREQ(thread_name_list.slot[1].name, "cons_mon");
  EXPECT_EQ(TakenSlots(), 2);
}

TEST_F(ThreadNameTest, SecondNameShowsOnceTheFirstIsGivenBack) {
  RegisterThread("main");
  RegisterThread("cons_mon");
  UnregisterThread();
  EXPECT_EQ(ShownName(), "cons_mon");
}

TEST_F(ThreadNameTest, NameIsCutTo32Characters) {
  RegisterThread("0123456789012345678901234567890123456789");
  EXPECT_EQ(ShownName(), "01234567890123456789012345678901");
}

TEST_F(ThreadNameTest, FirstFreeSlotIsTaken) {
  for (int i = 0; i < 3; ++i) RegisterThread("filler");
  thread_name_list.slot[1].in_use = 0;
  RegisterThread("new");
  EXPECT_STREQ(thread_name_list.slot[1].name, "new");
  EXPECT_EQ(TakenSlots(), 3);
}

TEST_F(ThreadNameTest, FiftiethRegistrationTakesTheLastSlot) {
  for (int i = 0; i < kThreadNameSlots; ++i) RegisterThread(std::to_string(i).c_str());
  EXPECT_EQ(kThreadNameSlots, 50);
  EXPECT_EQ(TakenSlots(), 50);
  EXPECT_STREQ(thread_name_list.slot[49].name, "49");
}

TEST_F(ThreadNameTest, ThreadWithoutASlotIsUnknown) {
  std::thread([] {
    for (int i = 0; i < kThreadNameSlots; ++i) RegisterThread("filler");
  }).join();
  // The ended thread's id may be given to a new thread, but not to this one.
  RegisterThread("main");
  EXPECT_EQ(ShownName(), "unknown");
  UnregisterThread();
  EXPECT_EQ(TakenSlots(), 50);
}

TEST_F(ThreadNameTest, SlotGivenBackIsTakenByTheNext) {
  RegisterThread("main");
  std::thread([] {
    RegisterThread("serv_conn");
    UnregisterThread();
    EXPECT_EQ(ShownName(), "unknown");
  }).join();
  EXPECT_EQ(TakenSlots(), 1);
  std::thread([] {
    RegisterThread("user_mon");
    EXPECT_EQ(ShownName(), "user_mon");
    EXPECT_STREQ(thread_name_list.slot[1].name, "user_mon");
    UnregisterThread();
  }).join();
  EXPECT_EQ(ShownName(), "main");
}

TEST_F(ThreadNameTest, ThousandShortThreadsNeedOneSlot) {
  for (int i = 0; i < 1000; ++i) {
    RegisterThread("serv_conn");
    ASSERT_EQ(TakenSlots(), 1);
    UnregisterThread();
  }
  EXPECT_EQ(TakenSlots(), 0);
}

TEST_F(ThreadNameTest, ClearingFreesEverySlot) {
  for (int i = 0; i < kThreadNameSlots; ++i) RegisterThread("filler");
  ClearThreadNames();
  EXPECT_EQ(TakenSlots(), 0);
  EXPECT_EQ(ShownName(), "unknown");
}

TEST_F(ThreadNameTest, ThreadsThatRegisterTogetherAllGetTheirOwnSlot) {
  constexpr int kThreads = 16;
  std::atomic<int> waiting{kThreads};
  std::vector<std::thread> threads;
  threads.reserve(kThreads);
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&waiting, i] {
      for (--waiting; waiting != 0;) std::this_thread::yield();
      RegisterThread(std::to_string(i).c_str());
    });
  }
  for (std::thread& thread : threads) thread.join();
  std::vector<std::string> names;
  for (int i = 0; i < kThreads; ++i) names.emplace_back(thread_name_list.slot[i].name);
  std::vector<std::string> expected;
  for (int i = 0; i < kThreads; ++i) expected.push_back(std::to_string(i));
  EXPECT_THAT(names, ::testing::UnorderedElementsAreArray(expected));
  EXPECT_EQ(TakenSlots(), kThreads);
}

}  // namespace
