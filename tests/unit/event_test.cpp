// Posting events: what arrives at the event manager, and what happens while there is none.
//
// The one connection belongs to the process, so every test runs in a process of its own.
#include "event.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "daemon_support.h"
#include "debug_support.h"
#include "failure_support.h"
#include "file_support.h"
#include "socket_support.h"

using namespace zevd;

namespace {

using test::Call;
using test::DebugCapture;
using test::Descriptor;
using test::EventCollector;
using test::FailCall;
using test::ReceiveLine;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::IsEmpty;
using ::testing::StartsWith;

constexpr char kNoManager[] =
    "ConnectToJix: JixConnCreate() failed : Cannot connect to the event manager\n";
constexpr char kGoingOn[] = "ConnectToJix: Continuing without JIX support.\n";
constexpr char kEstablished[] = "ConnectToJix: Established connection with JIX daemon.\n";
constexpr char kReestablished[] = "ConnectToJix: Re-established connection with JIX daemon.\n";
constexpr char kLost[] =
    "PostJixEvent: JixEventPost() failed : Connection to the event manager lost\n";
constexpr char kBusy[] = "PostJixEvent: JixEventPost() failed : The event manager does not read\n";

/// The part of an event's line after the time and the host.
std::string EventEnd(const std::string& name, int priority, const std::string& vars) {
  return "\", \"name\": \"" + name + "\", \"priority\": " + std::to_string(priority) +
         ", \"vars\": {" + vars + "}}\n";
}

std::string DaemonErrorEnd(const std::string& text, int priority = 700) {
  return EventEnd("qor.zevd.daemon.error." + text, priority, "\"message\": \"" + text + "\"");
}

class EventDeathTest : public test::DaemonTest {
 protected:
  EventDeathTest() { testing::FLAGS_gtest_death_test_style = "threadsafe"; }

  /// Runs `body` in a process that has not posted anything yet, in a station of its own.
  static void RunInNewProcess(const std::function<void()>& body) {
    EXPECT_HOLDS_IN_CHILD({
      const test::StationRoot root;
      body();
    });
  }
};

// ---- What arrives -------------------------------------------------------------------------------

TEST_F(EventDeathTest, ConsoleEvent) {
  RunInNewProcess([] {
    const EventCollector collector;
    char console[] = "sys-a-1";
    PostJixEvent("qor.zevd.console", "name", console, "message", "panic: \"disk\"", 450);
    const Descriptor sock = collector.Accept();
    char host[256] = "";
    gethostname(host, sizeof host);
    const std::string line = ReceiveLine(sock.get());
    EXPECT_THAT(line, ::testing::MatchesRegex(
                          "\\{\"time\": "
                          "\"[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}[+-][0-9]{2}:"
                          "[0-9]{2}\", \"host\": .*"));
    EXPECT_THAT(line, EndsWith("\", \"host\": \"" + std::string(host) +
                               EventEnd("qor.zevd.console.sys_a_1", 450,
                                        "\"name\": \"sys_a_1\", "
                                        "\"message\": \"panic: \\\"disk\\\"\"")));
    EXPECT_STREQ(console, "sys_a_1");  // which is its name from now on
  });
}

TEST_F(EventDeathTest, EventWithoutVariables) {
  RunInNewProcess([] {
    const EventCollector collector;
    PostJixEvent("qor.zevd-test", nullptr, nullptr, nullptr, nullptr, 0);
    const Descriptor sock = collector.Accept();
    EXPECT_THAT(ReceiveLine(sock.get()), EndsWith(EventEnd("qor.zevd-test", 0, "")));
  });
}

TEST_F(EventDeathTest, MessageIsLeftAsItIs) {
  RunInNewProcess([] {
    const EventCollector collector;
    PostJixEvent("template", nullptr, nullptr, "message", "a-b", -1);
    const Descriptor sock = collector.Accept();
    EXPECT_THAT(ReceiveLine(sock.get()),
                EndsWith(EventEnd("template", -1, "\"message\": \"a-b\"")));
  });
}

TEST_F(EventDeathTest, DaemonErrorIsNamedAfterItsText) {
  RunInNewProcess([] {
    const EventCollector collector;
    PostDaemonError("Out of memory", kErrorPriority);
    PostDaemonError("Terminated.............", kErrorPriority);
    PostDaemonError("Warning: bad event file", 500);
    const char* with_hyphens = "a-b-";  // not the caller's to change
    PostDaemonError(with_hyphens, kErrorPriority);
    const Descriptor sock = collector.Accept();
    EXPECT_THAT(ReceiveLine(sock.get()), EndsWith(DaemonErrorEnd("Out of memory")));
    EXPECT_THAT(ReceiveLine(sock.get()), EndsWith(DaemonErrorEnd("Terminated.............")));
    EXPECT_THAT(ReceiveLine(sock.get()), EndsWith(DaemonErrorEnd("Warning: bad event file", 500)));
    EXPECT_THAT(ReceiveLine(sock.get()), EndsWith(DaemonErrorEnd("a_b_")));
  });
}

TEST_F(EventDeathTest, OverlongNameIsCut) {
  RunInNewProcess([] {
    const EventCollector collector;
    const std::string text(20'000, 'x');
    PostDaemonError(text.c_str(), kErrorPriority);
    const Descriptor sock = collector.Accept();
    const std::string name = "qor.zevd.daemon.error." + text;
    EXPECT_THAT(ReceiveLine(sock.get()),
                ::testing::HasSubstr("\"name\": \"" + name.substr(0, 8191) + "\""));
  });
}

TEST_F(EventDeathTest, ArgumentsAreShownAtLevelTwo) {
  RunInNewProcess([] {
    char console[] = "sys1";
    const DebugCapture debug(kDetail);
    PostJixEvent("qor.zevd.console", "name", console, "message", "text", 450);
    const std::vector<std::string> messages = debug.Messages();
    ASSERT_FALSE(messages.empty());
    for (const char* argument : {"qor.zevd.console", "name", "sys1", "message", "text", "450"}) {
      EXPECT_THAT(messages[0], ::testing::HasSubstr(argument));
    }
  });
}

// ---- Connecting ---------------------------------------------------------------------------------

TEST_F(EventDeathTest, ConnectingIsReportedOnce) {
  RunInNewProcess([] {
    const EventCollector collector;
    const DebugCapture debug;
    EXPECT_EQ(ConnectToJix(), 0);
    EXPECT_EQ(ConnectToJix(), 0);
    EXPECT_THAT(debug.Messages(), ElementsAre(kEstablished));
  });
}

TEST_F(EventDeathTest, FirstConnectionIsNotReportedAtTheDefaultLevel) {
  RunInNewProcess([] {
    const EventCollector collector;
    const DebugCapture debug(0);
    EXPECT_EQ(ConnectToJix(), 0);
    EXPECT_THAT(debug.Messages(), IsEmpty());
  });
}

TEST_F(EventDeathTest, MissingManagerIsReportedOnce) {
  RunInNewProcess([] {
    DebugCapture debug(0);
    PostDaemonError("first", kErrorPriority);
    EXPECT_THAT(debug.NewMessages(), ElementsAre(kNoManager, kGoingOn));
    PostDaemonError("second", kErrorPriority);
    EXPECT_EQ(ConnectToJix(), -1);
    PostDaemonError("third", kErrorPriority);
    EXPECT_THAT(debug.NewMessages(), IsEmpty());
  });
}

TEST_F(EventDeathTest, DroppedEventLeavesItsNameAlone) {
  RunInNewProcess([] {
    char console[] = "sys-a-1";
    PostJixEvent("qor.zevd.console", "name", console, "message", "text", 450);
    EXPECT_STREQ(console, "sys-a-1");
  });
}

TEST_F(EventDeathTest, ManagerThatComesLaterIsFound) {
  RunInNewProcess([] {
    PostDaemonError("too early", kErrorPriority);
    const EventCollector collector;
    const DebugCapture debug(0);
    PostDaemonError("in time", kErrorPriority);
    const Descriptor sock = collector.Accept();
    EXPECT_THAT(ReceiveLine(sock.get()), EndsWith(DaemonErrorEnd("in time")));
    EXPECT_THAT(debug.Messages(), ElementsAre(kReestablished));
  });
}

TEST_F(EventDeathTest, AnotherFailureIsReportedAgain) {
  RunInNewProcess([] {
    PostDaemonError("first", kErrorPriority);
    const EventCollector collector;
    DebugCapture debug(0);
    {
      const test::FailAllocation failure(1);
      EXPECT_EQ(ConnectToJix(), -1);
    }
    EXPECT_THAT(debug.NewMessages(),
                ElementsAre("ConnectToJix: JixConnCreate() failed : Out of memory\n", kGoingOn));
    EXPECT_EQ(ConnectToJix(), 0);
    EXPECT_THAT(debug.NewMessages(), ElementsAre(kReestablished));
  });
}

// ---- A manager that restarts --------------------------------------------------------------------

/// A collector with one connection.
struct Manager {
  EventCollector collector;
  Descriptor sock;

  void ExpectNext(const std::string& text) {
    if (sock.get() == -1) sock = collector.Accept();
    EXPECT_THAT(ReceiveLine(sock.get()), EndsWith(DaemonErrorEnd(text)));
  }
};

TEST_F(EventDeathTest, RestartOfTheManagerLosesNoEvent) {
  RunInNewProcess([] {
    auto manager = std::make_unique<Manager>();
    PostDaemonError("before", kErrorPriority);
    manager->ExpectNext("before");
    manager.reset();
    Manager next;
    DebugCapture debug;
    PostDaemonError("after", kErrorPriority);
    next.ExpectNext("after");
    EXPECT_THAT(debug.NewMessages(), ElementsAre(kEstablished));
    PostDaemonError("later", kErrorPriority);
    next.ExpectNext("later");
    EXPECT_THAT(debug.NewMessages(), IsEmpty());
  });
}

TEST_F(EventDeathTest, EventWhileTheManagerIsAwayIsLostAndReported) {
  RunInNewProcess([] {
    auto manager = std::make_unique<Manager>();
    PostDaemonError("before", kErrorPriority);
    manager->ExpectNext("before");
    manager.reset();
    DebugCapture debug(0);
    PostDaemonError("meanwhile", kErrorPriority);
    EXPECT_THAT(debug.NewMessages(), ElementsAre(kNoManager, kGoingOn, kLost));
    PostDaemonError("still away", kErrorPriority);
    EXPECT_THAT(debug.NewMessages(), IsEmpty());
    Manager next;
    PostDaemonError("after", kErrorPriority);
    next.ExpectNext("after");
    EXPECT_THAT(debug.NewMessages(), ElementsAre(kReestablished));
  });
}

TEST_F(EventDeathTest, ConnectionThatIsLostTwiceIsGivenUp) {
  RunInNewProcess([] {
    Manager manager;
    PostDaemonError("before", kErrorPriority);
    manager.ExpectNext("before");
    DebugCapture debug;
    {
      const FailCall failure(Call::kSend, EPIPE);
      PostDaemonError("lost", kErrorPriority);
      EXPECT_EQ(failure.calls(), 2);
    }
    EXPECT_THAT(debug.NewMessages(), ElementsAre(kEstablished, kLost));
    manager.sock = manager.collector.Accept();  // the second connection
    EXPECT_EQ(ReceiveLine(manager.sock.get()), "");
    manager.sock.Reset();
    PostDaemonError("after", kErrorPriority);
    manager.ExpectNext("after");
    EXPECT_THAT(debug.NewMessages(), ElementsAre(kEstablished));
  });
}

// ---- A manager that does not read ---------------------------------------------------------------

TEST_F(EventDeathTest, ManagerThatDoesNotReadDelaysNobodyForLong) {
  RunInNewProcess([] {
    Manager manager;
    DebugCapture debug(0);
    const auto start = std::chrono::steady_clock::now();
    int posted = 0;
    while (!debug.Has(kBusy) && posted < 100'000) {
      PostDaemonError(("event " + std::to_string(posted)).c_str(), kErrorPriority);
      ++posted;
    }
    for (int i = 0; i < 100; ++i) PostDaemonError("dropped", kErrorPriority);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(8));
    EXPECT_THAT(debug.NewMessages(), ElementsAre(kBusy));
    // What went out is whole; only the event that found no room is missing.
    for (int i = 0; i < posted - 1; ++i) manager.ExpectNext("event " + std::to_string(i));
    PostDaemonError("after", kErrorPriority);
    manager.ExpectNext("after");
  });
}

// ---- Out of memory ------------------------------------------------------------------------------

TEST_F(EventDeathTest, EventThatCannotBeBuiltOrSentIsReported) {
  RunInNewProcess([] {
    Manager manager;
    ASSERT_EQ(ConnectToJix(), 0);
    DebugCapture debug(kDetail);
    std::set<std::string> reports;
    int failures = 0;
    for (bool failed = true; failed; failures += failed ? 1 : 0) {
      {
        const test::FailAllocation failure(1 + failures);
        PostDaemonError("text", kErrorPriority);
        failed = failure.reached();
      }
      for (const std::string& message : test::Containing(debug.NewMessages(), " failed : ")) {
        reports.insert(message);
      }
    }
    EXPECT_THAT(reports, ElementsAre("PostJixEvent: JixEventCreateVa() failed : Out of memory\n",
                                     "PostJixEvent: JixEventPost() failed : Out of memory\n",
                                     "PostJixEvent: JixVarSet() failed : Out of memory\n"));
    // Only the last one went out, on the connection that was there all the time.
    manager.ExpectNext("text");
    EXPECT_EQ(test::ReceiveAvailable(manager.sock.get()), "");
  });
}

// ---- Many threads -------------------------------------------------------------------------------

TEST_F(EventDeathTest, EventsOfManyThreadsArriveWhole) {
  RunInNewProcess([] {
    constexpr int kThreads = 8;
    constexpr int kEvents = 15;  // all of them find room, however slowly they are read
    Manager manager;
    std::multiset<std::string> expected;
    std::vector<std::thread> threads;
    for (int thread = 0; thread < kThreads; ++thread) {
      for (int i = 0; i < kEvents; ++i) {
        expected.insert(DaemonErrorEnd(std::to_string(thread) + "_" + std::to_string(i)));
      }
      threads.emplace_back([thread] {
        for (int i = 0; i < kEvents; ++i) {
          const std::string text = std::to_string(thread) + "-" + std::to_string(i);
          PostDaemonError(text.c_str(), kErrorPriority);
        }
      });
    }
    manager.sock = manager.collector.Accept();
    std::multiset<std::string> received;
    for (int i = 0; i < kThreads * kEvents; ++i) {
      const std::string line = ReceiveLine(manager.sock.get());
      ASSERT_THAT(line, StartsWith("{\"time\": "));
      received.insert(line.substr(line.find("\", \"name\": ")));
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(received, expected);
  });
}

}  // namespace
