// The records of listening ports, and counting the logins that are pending on them.
#include "mapped_port.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <initializer_list>
#include <string>
#include <thread>
#include <vector>

#include "debug_support.h"
#include "failure_support.h"
#include "options.h"
#include "relay_support.h"

using namespace zevd;

namespace {

using test::AnnouncesDaemonError;
using test::DebugCapture;
using test::DebugTextsAre;
using test::FailAllocation;
using test::IsExitTrace;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::ExitedWithCode;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

constexpr char kOutOfMemoryText[] = "013 - Out of memory.\r\n";

class MappedPortTest : public test::RelayTest {
 protected:
  MappedPortTest() { InitMappedPortList(&list_, "test list"); }
  ~MappedPortTest() override {
    EmptyMappedPortList(&list_);
    free(const_cast<char*>(list_.list_name));
  }

  MappedPortNode* Add(uint16_t port, int sock = -1) {
    MappedPortNode* mpnode = NewMappedPortNode(sock, port);
    EXPECT_EQ(AddMappedPortToList(mpnode, &list_), 0);
    return mpnode;
  }

  /// The pending threads of a port, in order of arrival.
  static std::vector<pthread_t> Pending(const MappedPortNode* mpnode) {
    return {mpnode->thread_ids, mpnode->thread_ids + mpnode->pending_logins};
  }

  MappedPortList list_;
};

// ---- Records and lists --------------------------------------------------------------------------

TEST_F(MappedPortTest, NewNodeHasNoPendingLogins) {
  MappedPortNode* mpnode = NewMappedPortNode(7, 65535);
  EXPECT_EQ(mpnode->sock, 7);
  EXPECT_EQ(mpnode->port, 65535);
  EXPECT_EQ(mpnode->pending_logins, 0);
  EXPECT_NE(mpnode->thread_ids, nullptr);
  FreeMappedPortNode(mpnode);
}

TEST_F(MappedPortTest, NewNodeWithoutMemoryForEitherPart) {
  for (const int allocation : {1, 2}) {
    SCOPED_TRACE(allocation);
    u_err_msg = nullptr;
    const DebugCapture debug(kDetail);
    const FailAllocation failure(allocation);
    EXPECT_EQ(NewMappedPortNode(7, 6501), nullptr);
    EXPECT_STREQ(u_err_msg, kOutOfMemoryText);
    EXPECT_THAT(debug.Messages(),
                ElementsAre("NewMappedPortNode: malloc() failed : Cannot allocate memory\n",
                            AnnouncesDaemonError("Out of memory")));
  }
}

TEST_F(MappedPortTest, PortsAreFoundByNumber) {
  Add(6501);
  Add(65535);
  EXPECT_TRUE(IsPortInMappedPortList(6501, &list_));
  EXPECT_TRUE(IsPortInMappedPortList(65535, &list_));
  EXPECT_FALSE(IsPortInMappedPortList(6500, &list_));
  EXPECT_FALSE(IsPortInMappedPortList(0, &list_));
}

TEST_F(MappedPortTest, EmptyingClosesNothing) {
  const test::SocketPair pair;
  Add(6501, pair.ours.get());
  Add(6502);
  EmptyMappedPortList(&list_);
  EXPECT_EQ(list_.head, nullptr);
  EXPECT_TRUE(test::IsOpen(pair.ours.get()));
}

// ---- Pending logins -----------------------------------------------------------------------------

/// The event of these failures does not say "Terminated".
auto IsInternalErrorEvent() {
  return AllOf(AnnouncesDaemonError("Internal error"), Not(HasSubstr("Terminated")));
}

class PendingLoginsTest : public MappedPortTest {
 protected:
  void Arrive(std::initializer_list<pthread_t> threads) {
    for (const pthread_t thread : threads) {
      EXPECT_EQ(IncrementPendingLogins(&list_, kPort, thread), 0);
    }
  }

  void Leave(pthread_t thread) { DecrementPendingLogins(&list_, kPort, thread); }

  static constexpr uint16_t kPort = 6501;
  MappedPortNode* mpnode_ = Add(kPort);
};

TEST_F(PendingLoginsTest, ThreadsAreKeptInOrderOfArrival) {
  EXPECT_EQ(GetPendingLogins(&list_, kPort), 0);
  Arrive({11, 12, 13});
  EXPECT_EQ(GetPendingLogins(&list_, kPort), 3);
  EXPECT_THAT(Pending(mpnode_), ElementsAre(11, 12, 13));
}

TEST_F(PendingLoginsTest, ThreadsThatFinishOutOfOrderLeaveTheOthersInOrder) {
  Arrive({11, 12, 13, 14});
  Leave(12);
  EXPECT_THAT(Pending(mpnode_), ElementsAre(11, 13, 14));
  Leave(14);
  EXPECT_THAT(Pending(mpnode_), ElementsAre(11, 13));
  Leave(11);
  EXPECT_THAT(Pending(mpnode_), ElementsAre(13));
  Arrive({15});
  EXPECT_THAT(Pending(mpnode_), ElementsAre(13, 15));
  Leave(13);
  Leave(15);
  EXPECT_EQ(GetPendingLogins(&list_, kPort), 0);
}

TEST_F(PendingLoginsTest, PortsAreCountedSeparately) {
  MappedPortNode* other = Add(6502);
  Arrive({11});
  EXPECT_EQ(IncrementPendingLogins(&list_, 6502, 21), 0);
  EXPECT_EQ(IncrementPendingLogins(&list_, 6502, 22), 0);
  EXPECT_EQ(GetPendingLogins(&list_, kPort), 1);
  EXPECT_EQ(GetPendingLogins(&list_, 6502), 2);
  EXPECT_THAT(Pending(other), ElementsAre(21, 22));
}

TEST_F(PendingLoginsTest, FirstNodeOfAPortIsTheOneThatCounts) {
  const MappedPortNode* second = Add(kPort);
  Arrive({11});
  EXPECT_THAT(Pending(mpnode_), ElementsAre(11));
  EXPECT_EQ(second->pending_logins, 0);
}

TEST_F(PendingLoginsTest, LastSlotIsWarnedAboutAndCounted) {
  Arrive({11, 12, 13, 14});
  const DebugCapture debug(kDetail);
  Arrive({15});
  EXPECT_THAT(debug.Messages(), ElementsAre("IncrementPendingLogins: Too many pending logins (4)\n",
                                            IsInternalErrorEvent()));
  EXPECT_THAT(Pending(mpnode_), ElementsAre(11, 12, 13, 14, 15));
}

TEST_F(PendingLoginsTest, OnlyTheLastSlotIsWarnedAbout) {
  const DebugCapture debug(0);
  Arrive({11, 12, 13, 14});
  EXPECT_THAT(debug.Messages(), IsEmpty());
  Arrive({15, 16, 17});
  EXPECT_THAT(debug.Messages(),
              ElementsAre("IncrementPendingLogins: Too many pending logins (4)\n"));
}

TEST_F(PendingLoginsTest, WarningIsRepeatedEachTimeTheLastSlotIsTaken) {
  Arrive({11, 12, 13, 14, 15});
  Leave(11);
  const DebugCapture debug(0);
  Arrive({16});
  EXPECT_TRUE(debug.Has("IncrementPendingLogins: Too many pending logins (4)\n"));
}

TEST_F(PendingLoginsTest, LimitIsTheOption) {
  max_pending_logins = 2;
  Add(6502);
  const DebugCapture debug(0);
  IncrementPendingLogins(&list_, 6502, 21);
  EXPECT_THAT(debug.Messages(), IsEmpty());
  IncrementPendingLogins(&list_, 6502, 22);
  EXPECT_THAT(debug.Messages(),
              ElementsAre("IncrementPendingLogins: Too many pending logins (1)\n"));
}

TEST_F(PendingLoginsTest, AnyNumberOfThreadsIsRemembered) {
  std::vector<pthread_t> expected;
  for (pthread_t thread = 100; thread < 1100; ++thread) {
    Arrive({thread});
    expected.push_back(thread);
  }
  EXPECT_EQ(GetPendingLogins(&list_, kPort), 1000);
  EXPECT_EQ(Pending(mpnode_), expected);
  for (pthread_t thread = 100; thread < 1100; thread += 2) Leave(thread);
  EXPECT_EQ(GetPendingLogins(&list_, kPort), 500);
  EXPECT_EQ(Pending(mpnode_).front(), 101U);
  EXPECT_EQ(Pending(mpnode_).back(), 1099U);
}

TEST_F(PendingLoginsTest, NoMemoryToRememberAThread) {
  Arrive({11, 12, 13, 14, 15});
  const DebugCapture debug(kDetail);
  const FailAllocation failure(1);
  EXPECT_EQ(IncrementPendingLogins(&list_, kPort, 16), -1);
  EXPECT_STREQ(u_err_msg, kOutOfMemoryText);
  EXPECT_THAT(debug.Messages(),
              ElementsAre("IncrementPendingLogins: malloc() failed : Cannot allocate memory\n",
                          AnnouncesDaemonError("Out of memory")));
  EXPECT_THAT(Pending(mpnode_), ElementsAre(11, 12, 13, 14, 15));
}

TEST_F(PendingLoginsTest, EveryFunctionWritesItsEntryLine) {
  const DebugCapture debug(kTrace);
  Arrive({11});
  GetPendingLogins(&list_, kPort);
  Leave(11);
  EXPECT_THAT(debug.Messages(),
              ElementsAre("Entering IncrementPendingLogins\n", "Entering GetPendingLogins\n",
                          "Entering DecrementPendingLogins\n"));
}

TEST_F(PendingLoginsTest, ManyThreadsAtOnce) {
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([this] {
      for (int round = 0; round < 100; ++round) {
        Arrive({pthread_self()});
        Leave(pthread_self());
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(GetPendingLogins(&list_, kPort), 0);
}

// A thread finds its port gone only after it has been cancelled; it must end at once.
TEST_F(PendingLoginsTest, CancelledThreadEndsInsteadOfBeingUncounted) {
  struct Shared {
    MappedPortList* list;
    std::atomic<bool> dropped{false};
    bool returned = false;
  } shared{&list_};
  pthread_t thread{};
  const auto start = [](void* argument) -> void* {
    auto* shared_with = static_cast<Shared*>(argument);
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    EXPECT_TRUE(test::Eventually([&] { return shared_with->dropped.load(); }));
    DecrementPendingLogins(shared_with->list, kPort, pthread_self());
    shared_with->returned = true;
    return nullptr;
  };
  ASSERT_EQ(pthread_create(&thread, nullptr, start, &shared), 0);
  Arrive({thread});
  RemoveMappedPortFromList(mpnode_, &list_);
  FreeMappedPortNode(mpnode_);
  pthread_cancel(thread);
  shared.dropped = true;
  void* result = nullptr;
  pthread_join(thread, &result);
  EXPECT_EQ(result, PTHREAD_CANCELED);
  EXPECT_FALSE(shared.returned);
}

class PendingLoginsDeathTest : public PendingLoginsTest {
 protected:
  /// `call` ends the process after `message` and the event "Internal error".
  template <typename Function>
  static void ExpectFatal(Function call, const std::string& message) {
    SCOPED_TRACE(message);
    EXPECT_EXIT(
        {
          test::SendDebugToStderr(kDetail);
          call();
        },
        ExitedWithCode(1),
        DebugTextsAre(ElementsAre(message + "\n", IsInternalErrorEvent(),
                                  IsExitTrace(1, "mapped_port.cpp"))));
  }
};

TEST_F(PendingLoginsDeathTest, UnknownPortEndsTheProcess) {
  ExpectFatal([&] { IncrementPendingLogins(&list_, 6599, 11); },
              "IncrementPendingLogins: port 6599 not found");
  ExpectFatal([&] { DecrementPendingLogins(&list_, 6599, 11); },
              "DecrementPendingLogins: port 6599 not found");
  ExpectFatal([&] { GetPendingLogins(&list_, 6599); }, "GetPendingLogins: port 6599 not found");
}

TEST_F(PendingLoginsDeathTest, UnknownThreadEndsTheProcess) {
  Arrive({11, 12});
  ExpectFatal([&] { Leave(13); }, "DecrementPendingLogins: Cannot find thread id 13");
  Leave(11);
  ExpectFatal([&] { Leave(11); }, "DecrementPendingLogins: Cannot find thread id 11");
}

TEST_F(PendingLoginsDeathTest, MutexThatCannotBeLockedEndsTheProcess) {
  const auto with_failing_mutex = [](const auto& call) {
    return [&] {
      const test::FailCall failure(test::Call::kMutexLock, EDEADLK, 1, 1);
      call();
    };
  };
  const auto increment = [&] { IncrementPendingLogins(&list_, kPort, 11); };
  const auto decrement = [&] { DecrementPendingLogins(&list_, kPort, 11); };
  const auto get = [&] { GetPendingLogins(&list_, kPort); };
  ExpectFatal(with_failing_mutex(increment),
              "IncrementPendingLogins: pthread_mutex_lock() returned 35");
  ExpectFatal(with_failing_mutex(decrement),
              "DecrementPendingLogins: pthread_mutex_lock() returned 35");
  ExpectFatal(with_failing_mutex(get), "GetPendingLogins: pthread_mutex_lock() returned 35");
}

}  // namespace
