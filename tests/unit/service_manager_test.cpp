// What the service manager passes in the environment, and what it is told.
#include "service_manager.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "clock.h"
#include "debug_support.h"
#include "failure_support.h"
#include "socket_support.h"
#include "threads.h"

using namespace zevd;

namespace {

using test::DebugCapture;
using test::Descriptor;
using test::FakePassageOfTime;
using test::Listener;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr int kFirst = 3;
constexpr char kAlive[] = "WATCHDOG=1";

/// The environment and the socket of a service manager.
class ServiceManagerTest : public ::testing::Test {
 protected:
  ServiceManagerTest() : name_("zevd-unit-test-" + std::to_string(getpid())) {
    setenv("NOTIFY_SOCKET", ("@" + name_).c_str(), 1);
  }

  void Listen() {
    manager_.Reset(socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0));
    sockaddr_un address = {AF_UNIX, ""};
    name_.copy(address.sun_path + 1, name_.size());
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name_.size());
    ASSERT_EQ(bind(manager_.get(), reinterpret_cast<const sockaddr*>(&address), length), 0);
  }

  std::vector<std::string> Told() const {
    std::vector<std::string> messages;
    char text[4096];
    for (ssize_t count = recv(manager_.get(), text, sizeof text, 0); count >= 0;
         count = recv(manager_.get(), text, sizeof text, 0)) {
      messages.emplace_back(text, static_cast<size_t>(count));
    }
    return messages;
  }

  /// Puts it where the first socket is passed, whatever the test has inherited there.
  static void PassOne(int sock) {
    ASSERT_EQ(dup2(sock, kFirst), kFirst);
    SetNumber("LISTEN_PID", getpid());
    SetNumber("LISTEN_FDS", 1);
  }

  static void SetNumber(const char* variable, int64_t number) {
    setenv(variable, std::to_string(number).c_str(), 1);
  }

  std::string name_;
  Descriptor manager_;
};

TEST_F(ServiceManagerTest, VariablesAreTakenOutOfTheEnvironment) {
  constexpr const char* kVariables[] = {"LISTEN_PID",    "LISTEN_FDS",    "LISTEN_FDNAMES",
                                        "NOTIFY_SOCKET", "WATCHDOG_USEC", "WATCHDOG_PID"};
  for (const char* variable : kVariables) setenv(variable, "1", 1);
  MeetServiceManager();
  for (const char* variable : kVariables) EXPECT_EQ(getenv(variable), nullptr) << variable;
}

TEST_F(ServiceManagerTest, WithoutAManagerNothingIsTold) {
  unsetenv("NOTIFY_SOCKET");
  Listen();
  MeetServiceManager();
  ReportToServiceManager("well");
  ServeServiceManager();
  EXPECT_THAT(Told(), IsEmpty());
}

TEST_F(ServiceManagerTest, AddressThatIsNoneIsIgnored) {
  for (const std::string& address :
       {std::string(), std::string("notify"), std::string(300, '/'), std::string("vsock:2:1")}) {
    setenv("NOTIFY_SOCKET", address.c_str(), 1);
    const int before = test::NextDescriptor();
    MeetServiceManager();
    EXPECT_EQ(test::NextDescriptor(), before) << address;
  }
}

TEST_F(ServiceManagerTest, ReportIsToldOnce) {
  Listen();
  MeetServiceManager();
  ReportToServiceManager("well");
  EXPECT_THAT(Told(), IsEmpty());
  ServeServiceManager();
  ServeServiceManager();
  EXPECT_THAT(Told(), ElementsAre("READY=1\nSTATUS=well"));
}

TEST_F(ServiceManagerTest, ReportThatFindsNobodyIsToldLater) {
  MeetServiceManager();
  ReportToServiceManager("unheard");
  ServeServiceManager();
  ReportToServiceManager("well");
  Listen();
  ServeServiceManager();
  EXPECT_THAT(Told(), ElementsAre("READY=1\nSTATUS=well"));
}

// ---- The watchdog -------------------------------------------------------------------------------

class WatchdogTest : public ServiceManagerTest {
 protected:
  WatchdogTest() {
    Listen();
    SetNumber("WATCHDOG_USEC", 4 * kMicrosecondsPerSecond);
  }

  void Begin() {
    time_.Pass(100 * kMicrosecondsPerSecond);
    MeetServiceManager();
    ExpectPasses();
  }

  FakePassageOfTime time_{1};
};

TEST_F(WatchdogTest, IsFedFourTimesInItsTime) {
  Begin();
  ServeServiceManager();
  EXPECT_THAT(Told(), ElementsAre(kAlive));
  time_.Pass(kMicrosecondsPerSecond / 2);
  ServeServiceManager();
  EXPECT_THAT(Told(), IsEmpty());
  time_.Pass(kMicrosecondsPerSecond / 2);
  ServeServiceManager();
  EXPECT_THAT(Told(), ElementsAre(kAlive));
}

TEST_F(WatchdogTest, IsNotFedWhileAThreadIsStuck) {
  Begin();
  time_.Pass(kPassLimit + kMicrosecondsPerSecond);
  for (const unsigned bit : {0x1U, 0x2U, 0x4U, 0x10U}) NotePass(bit);
  ServeServiceManager();
  EXPECT_THAT(Told(), IsEmpty());
  NotePass(kPauseUserMon);
  ServeServiceManager();
  EXPECT_THAT(Told(), ElementsAre(kAlive));
}

TEST_F(WatchdogTest, ThatIsAnotherProcessesIsNotFed) {
  SetNumber("WATCHDOG_PID", getpid() + 1);
  Begin();
  ServeServiceManager();
  EXPECT_THAT(Told(), IsEmpty());
}

TEST_F(WatchdogTest, TimeThatIsNoNumberIsNone) {
  for (const char* time : {"", "-4000000", "4s", " 4000000", "0"}) {
    setenv("NOTIFY_SOCKET", ("@" + name_).c_str(), 1);
    setenv("WATCHDOG_USEC", time, 1);
    Begin();
    ServeServiceManager();
    EXPECT_THAT(Told(), IsEmpty()) << time;
  }
}

// ---- Sockets ------------------------------------------------------------------------------------

TEST_F(ServiceManagerTest, ListeningSocketIsKeptForItsPort) {
  const Listener wanted;
  const uint16_t port = wanted.port();
  PassOne(wanted.get());
  MeetServiceManager();
  EXPECT_EQ(fcntl(kFirst, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
  ChoosePassedSocket(port);
  EXPECT_EQ(fcntl(kFirst, F_GETFL) & O_NONBLOCK, O_NONBLOCK);
  const Descriptor first(DuplicatePassedSocket(port));
  const Descriptor second(DuplicatePassedSocket(port));
  EXPECT_NE(first.get(), -1);
  EXPECT_NE(second.get(), -1);
  EXPECT_NE(first.get(), second.get());
  EXPECT_EQ(fcntl(first.get(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
  EXPECT_EQ(DuplicatePassedSocket(static_cast<uint16_t>(port + 1)), -1);
}

TEST_F(ServiceManagerTest, OtherSocketsAreClosedAndReported) {
  const Listener other;
  const uint16_t port = static_cast<uint16_t>(other.port() + 1);
  PassOne(other.get());
  MeetServiceManager();
  std::vector<std::string> said;
  {
    DebugCapture debug(kError);
    ChoosePassedSocket(port);
    said = test::WithoutEntries(test::DebugMessages(debug.Output()));
  }
  EXPECT_THAT(said, SizeIs(1));
  EXPECT_FALSE(test::IsOpen(kFirst));
  EXPECT_EQ(DuplicatePassedSocket(port), -1);
}

TEST_F(ServiceManagerTest, DescriptorsThatWereNotPassedAreLeftAlone) {
  const Listener own;
  PassOne(own.get());
  for (const char* count : {"", "x", "-1", "1x"}) {
    SetNumber("LISTEN_PID", getpid());
    setenv("LISTEN_FDS", count, 1);
    MeetServiceManager();
    ChoosePassedSocket(1);
    EXPECT_TRUE(test::IsOpen(kFirst)) << count;
  }
  PassOne(own.get());
  SetNumber("LISTEN_PID", getpid() + 1);
  MeetServiceManager();
  ChoosePassedSocket(1);
  EXPECT_TRUE(test::IsOpen(kFirst));
}

}  // namespace
