// The listening thread: its ports, and waiting for connection requests and accepting them.
#include "user_conn.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "failure_support.h"
#include "lists.h"
#include "options.h"
#include "service_support.h"
#include "threads.h"
#include "user_conn_steps.h"
#include "waker.h"

using namespace zevd;

namespace {

using test::AnnouncesDaemonError;
using test::Attached;
using test::AwaitThreads;
using test::CheckPorts;
using test::ConnectTo;
using test::DebugCapture;
using test::DebugTextsAre;
using test::Descriptor;
using test::FailAllocation;
using test::FailCall;
using test::IsExitTrace;
using test::kOffers;
using test::Loopback;
using test::NextDescriptor;
using test::Option;
using test::PortTest;
using test::ReceiveAll;
using test::ReservedPort;
using test::ServiceCapture;
using test::ServiceTest;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::ExitedWithCode;
using ::testing::IsEmpty;
using ::testing::StartsWith;

constexpr char kOutOfMemoryText[] = "013 - Out of memory.\r\n";

// ---- Listening ports ----------------------------------------------------------------------------

TEST_F(PortTest, ListensOnAllInterfaces) {
  const DebugCapture debug(0);
  const Descriptor sock(ListenOnPort(main_port_.port()));
  ASSERT_NE(sock.get(), -1);
  EXPECT_THAT(debug.Messages(), ElementsAre("ListenOnPort: bind() to port " +
                                            Number(main_port_.port()) + " succeeded\n"));
  sockaddr_in address{};
  socklen_t length = sizeof address;
  getsockname(sock.get(), reinterpret_cast<sockaddr*>(&address), &length);
  EXPECT_EQ(address.sin_addr.s_addr, htonl(INADDR_ANY));
  EXPECT_EQ(address.sin_port, htons(main_port_.port()));
  EXPECT_EQ(Option<int>(sock.get(), SOL_SOCKET, SO_ACCEPTCONN), 1);
  EXPECT_EQ(Option<int>(sock.get(), SOL_SOCKET, SO_REUSEADDR), 1);
  EXPECT_EQ(fcntl(sock.get(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
  // For a listening socket this field is the backlog.
  EXPECT_EQ(Option<tcp_info>(sock.get(), IPPROTO_TCP, TCP_INFO).tcpi_sacked, 128U);
}

TEST_F(PortTest, PortInUseIsReportedAndItsSocketClosed) {
  const test::RefusingPort taken;
  const DebugCapture debug(0);
  const int next = NextDescriptor();
  EXPECT_EQ(ListenOnPort(taken.port()), -1);
  EXPECT_THAT(debug.Messages(),
              ElementsAre("ListenOnPort: bind() failed : Address already in use\n",
                          "ListenOnPort: Could not bind to port " + Number(taken.port()) + "\n"));
  EXPECT_EQ(NextDescriptor(), next);
}

TEST_F(PortTest, NoSocketIsReported) {
  const DebugCapture debug(0);
  const FailCall failure(test::Call::kSocket, EMFILE);
  EXPECT_EQ(ListenOnPort(main_port_.port()), -1);
  EXPECT_THAT(debug.Messages(),
              ElementsAre("ListenOnPort: socket() failed : Too many open files\n"));
}

TEST_F(PortTest, ConfiguredPortIsListed) {
  EXPECT_EQ(ConfigurePort(main_port_.port()), 0);
  ASSERT_THAT(ListedPorts(), ElementsAre(main_port_.port()));
  const MappedPortNode* mpnode = FindPort(main_port_.port());
  EXPECT_EQ(mpnode->pending_logins, 0);
  EXPECT_TRUE(mapped_port_list->fdset.Contains(mpnode->sock));
  EXPECT_EQ(mapped_port_list->high_sock, mpnode->sock);
}

TEST_F(PortTest, PortThatCannotBeListenedOnIsNotListed) {
  const test::RefusingPort taken;
  const DebugCapture debug(0);
  EXPECT_EQ(ConfigurePort(taken.port()), -1);
  EXPECT_EQ(debug.Messages().back(),
            "ConfigurePort: Cannot listen on port " + Number(taken.port()) + ".\n");
  EXPECT_THAT(ListedPorts(), IsEmpty());
}

TEST_F(PortTest, ConfiguringWithoutMemoryForTheNode) {
  const DebugCapture debug;
  const int next = NextDescriptor();
  const FailAllocation failure(1);
  EXPECT_EQ(ConfigurePort(main_port_.port()), -1);
  EXPECT_THAT(debug.Messages(),
              ElementsAre("ListenOnPort: bind() to port " + Number(user_port) + " succeeded\n",
                          "NewMappedPortNode: malloc() failed : Cannot allocate memory\n",
                          "ConfigurePort: NewMappedPortNode() failed.\n"));
  EXPECT_STREQ(u_err_msg, kOutOfMemoryText);
  EXPECT_THAT(ListedPorts(), IsEmpty());
  EXPECT_EQ(NextDescriptor(), next);
}

TEST_F(PortTest, ConfiguringWithoutMemoryForTheListLeavesNothingBehind) {
  const DebugCapture debug;
  const int next = NextDescriptor();
  int failures = 0;
  for (bool failed = true; failed; failures += failed ? 1 : 0) {
    int result = -1;
    {
      const FailAllocation failure(3 + failures);  // after the record and its thread ids
      result = ConfigurePort(main_port_.port());
      failed = failure.reached();
    }
    EXPECT_EQ(result, 0);
    EXPECT_EQ(mapped_port_list->count, failed ? 0 : 1);
    if (failed) {
      EXPECT_EQ(NextDescriptor(), next);
    }
  }
  EXPECT_GE(failures, 1);
  EXPECT_EQ(debug.Count("AddMappedPortToList: NewMappedPortListElem() returned NULL\n"), failures);
  EXPECT_THAT(ListedPorts(), ElementsAre(main_port_.port()));
}

TEST_F(PortTest, PortsOfBothConsoleListsAreOpenedAfterTheMainPort) {
  const ReservedPort first;
  const ReservedPort second;
  test::AddConsole(a_cons_list, "connected")->mapped_port = second.port();
  test::AddConsole(i_cons_list, "unmapped");
  test::AddConsole(i_cons_list, "absent")->mapped_port = first.port();
  const DebugCapture debug(0);
  EXPECT_EQ(GetPortsToListenOn(), 0);
  EXPECT_THAT(ListedPorts(), ElementsAre(main_port_.port(), first.port(), second.port()));
  EXPECT_THAT(
      debug.Messages(),
      ElementsAre("ListenOnPort: bind() to port " + Number(user_port) + " succeeded\n",
                  "ListenOnPort: bind() to port " + Number(first.port()) + " succeeded\n",
                  "ListenOnPort: bind() to port " + Number(second.port()) + " succeeded\n"));
}

TEST_F(PortTest, PortsThatAreOpenAreNotOpenedAgain) {
  const ReservedPort mapped;
  test::AddConsole(i_cons_list, "one")->mapped_port = mapped.port();
  test::AddConsole(a_cons_list, "other")->mapped_port = mapped.port();
  GetPortsToListenOn();
  const int sock = FindPort(mapped.port())->sock;
  const DebugCapture debug(0);
  EXPECT_EQ(GetPortsToListenOn(), 0);
  EXPECT_THAT(ListedPorts(), ElementsAre(main_port_.port(), mapped.port()));
  EXPECT_EQ(FindPort(mapped.port())->sock, sock);
  EXPECT_THAT(debug.Messages(), IsEmpty());
}

TEST_F(PortTest, MainPortThatCannotBeOpenedIsTriedAgain) {
  auto taken = std::make_unique<test::RefusingPort>();
  const ReservedPort mapped;
  user_port = taken->port();
  test::AddConsole(i_cons_list, "sys1")->mapped_port = mapped.port();
  {
    const DebugCapture debug;
    EXPECT_EQ(GetPortsToListenOn(), 0);
    EXPECT_TRUE(
        debug.Has("GetPortsToListenOn: Cannot configure main port " + Number(user_port) + ".\n"));
    EXPECT_TRUE(debug.Has("GetPortsToListenOn: Nobody can connect through port " +
                          Number(user_port) +
                          ". Another program may be listening there; the port is tried again at "
                          "each reload.\n"));
    EXPECT_THAT(ListedPorts(), ElementsAre(mapped.port()));
  }
  taken.reset();
  EXPECT_EQ(GetPortsToListenOn(), 0);
  EXPECT_THAT(ListedPorts(), ElementsAre(mapped.port(), user_port));
}

TEST_F(PortTest, MappedPortThatCannotBeOpenedDoesNotStopTheOthers) {
  const test::RefusingPort taken;
  const ReservedPort free;
  test::AddConsole(i_cons_list, "unlucky")->mapped_port = taken.port();
  test::AddConsole(i_cons_list, "lucky")->mapped_port = free.port();
  const DebugCapture debug;
  EXPECT_EQ(GetPortsToListenOn(), 0);
  EXPECT_EQ(debug.Count("GetPortsToListenOn: Cannot configure port for unlucky.\n"), 1);
  EXPECT_THAT(ListedPorts(), ElementsAre(main_port_.port(), free.port()));
}

TEST_F(PortTest, ConsoleListsAreReadUnderBothLocks) {
  const DebugCapture debug(kTrace);
  GetPortsToListenOn();
  const auto with_address = [](const char* text, RwLock& lock) {
    char line[128];
    snprintf(line, sizeof line, "GetPortsToListenOn: %s write lock %lx", text,
             reinterpret_cast<unsigned long>(&lock));
    return std::string(line);
  };
  const auto release = [](RwLock& lock) {
    char line[128];
    snprintf(line, sizeof line, "GetPortsToListenOn: Releasing lock %lx\n",
             reinterpret_cast<unsigned long>(&lock));
    return std::string(line);
  };
  using ::testing::StartsWith;
  EXPECT_THAT(
      test::Containing(debug.Messages(), " lock "),
      ElementsAre(StartsWith(with_address("Requesting", acl_lock)),
                  with_address("Aquired", acl_lock) + "\n",
                  StartsWith(with_address("Requesting", icl_lock)),
                  with_address("Aquired", icl_lock) + "\n", release(acl_lock), release(icl_lock)));
}

TEST_F(PortTest, PortsOfNoConsoleAreDropped) {
  const ReservedPort kept;
  const ReservedPort first;
  const ReservedPort second;
  test::AddConsole(a_cons_list, "sys1")->mapped_port = kept.port();
  for (const uint16_t port : {user_port, first.port(), second.port(), kept.port()}) {
    ASSERT_EQ(ConfigurePort(port), 0);
  }
  const int socks[] = {FindPort(first.port())->sock, FindPort(second.port())->sock};
  const DebugCapture debug;
  CleanUpStalePorts();
  EXPECT_THAT(ListedPorts(), ElementsAre(user_port, kept.port()));
  for (const int sock : socks) EXPECT_FALSE(test::IsOpen(sock));
  std::vector<std::string> expected;
  for (const uint16_t port : {first.port(), second.port()}) {
    const std::string number = Number(port);
    expected.push_back("CleanUpStalePorts: Port " + number + " is no longer mapped to console\n");
    expected.push_back("CleanUpStalePorts: Closing connection for mapped port " + number + "\n");
  }
  EXPECT_THAT(debug.Messages(), ElementsAreArray(expected));
}

TEST_F(PortTest, SetUpDropsStalePortsBeforeItOpensNewOnes) {
  const ReservedPort mapped;
  ConsoleNode* cnode = test::AddConsole(i_cons_list, "sys1");
  cnode->mapped_port = mapped.port();
  SetupMappedPorts();
  EXPECT_THAT(ListedPorts(), ElementsAre(user_port, mapped.port()));
  const ReservedPort moved;
  cnode->mapped_port = moved.port();
  const DebugCapture debug;
  SetupMappedPorts();
  EXPECT_THAT(ListedPorts(), ElementsAre(user_port, moved.port()));
  EXPECT_EQ(debug.Messages().front(), "CleanUpStalePorts: Port " + Number(mapped.port()) +
                                          " is no longer mapped to console\n");
}

// ---- Waiting for connection requests ------------------------------------------------------------

TEST_F(PortTest, RequestIsSeenOnItsPortAlone) {
  const ReservedPort other;
  ASSERT_EQ(ConfigurePort(user_port), 0);
  ASSERT_EQ(ConfigurePort(other.port()), 0);
  const Descriptor client = ConnectTo(other.port());
  ASSERT_TRUE(test::WaitReadable(FindPort(other.port())->sock));
  DescriptorSet fdset;
  EXPECT_EQ(CheckPorts(&fdset), 1);
  EXPECT_FALSE(fdset.Contains(FindPort(user_port)->sock));
  EXPECT_TRUE(fdset.Contains(FindPort(other.port())->sock));
}

TEST_F(PortTest, RefreshEndsTheWait) {
  ASSERT_EQ(ConfigurePort(user_port), 0);
  user_conn_waker.Drain();
  RefreshMappedPorts();
  EXPECT_EQ(refresh_mapped_ports, 1);
  DescriptorSet fdset;
  EXPECT_EQ(CheckPorts(&fdset), 0);
  refresh_mapped_ports = 0;
  // The call has ended that wait, and it ends no other.
  uint64_t count = 0;
  EXPECT_EQ(read(user_conn_waker.descriptor(), &count, sizeof count), -1);
  EXPECT_EQ(errno, EAGAIN);
}

TEST_F(PortTest, WaitsAtLevelThreeAreNotEndedByAnybody) {
  ASSERT_EQ(ConfigurePort(user_port), 0);
  const Descriptor client = ConnectTo(user_port);
  ASSERT_TRUE(test::WaitReadable(FindPort(user_port)->sock));
  user_conn_waker.Wake();
  const DebugCapture debug(kTrace);
  DescriptorSet fdset;
  EXPECT_EQ(CheckPorts(&fdset), 1);
  uint64_t count = 0;
  EXPECT_EQ(read(user_conn_waker.descriptor(), &count, sizeof count),
            static_cast<ssize_t>(sizeof count));
}

// The time-out belongs to the process, so it is tested in a process that has not used it yet.
void ExpectOneWaitOnly() {
  ASSERT_EQ(ConfigurePort(user_port), 0);
  const std::string high_sock = std::to_string(mapped_port_list->high_sock);
  DescriptorSet fdset;
  DebugCapture debug(kTrace);
  const auto timed = [&] {
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(CheckPorts(&fdset), 0);
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  };
  const auto call = [&](const char* timeout) {
    return "CheckForConnectionRequests: Calling select( " + high_sock + " + 1, fdset, 0, 0, (" +
           timeout + "))\n";
  };
  EXPECT_GE(timed(), 1.9);
  EXPECT_THAT(test::WithoutEntries(debug.NewMessages()), ElementsAre(call("2,0")));
  EXPECT_LT(timed(), 1.0);
  EXPECT_THAT(test::WithoutEntries(debug.NewMessages()), ElementsAre(call("0,0")));
}

using PortDeathTest = PortTest;

TEST_F(PortDeathTest, AfterATimeOutLaterWaitsReturnAtOnce) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  EXPECT_HOLDS_IN_CHILD(ExpectOneWaitOnly());
}

TEST_F(PortDeathTest, FailingSelectEndsTheProcess) {
  EXPECT_EXIT(
      {
        test::SendDebugToStderr(kDetail);
        const FailCall failure(test::Call::kSelect, EBADF);
        DescriptorSet fdset;
        CheckForConnectionRequests(-1, &fdset);
      },
      ExitedWithCode(1),
      DebugTextsAre(ElementsAre(
          "CheckForConnectionRequests: select() failed : Bad file descriptor\n",
          AnnouncesDaemonError("Terminated............."), IsExitTrace(1, "user_conn.cpp"))));
}

// ---- Accepting ----------------------------------------------------------------------------------

TEST_F(PortDeathTest, FailingAcceptEndsTheProcess) {
  ASSERT_EQ(ConfigurePort(user_port), 0);
  EXPECT_EXIT(
      {
        test::SendDebugToStderr(kDetail);
        const FailCall failure(test::Call::kAccept, EMFILE);
        AcceptConnectionRequests(&mapped_port_list->fdset);
      },
      ExitedWithCode(1),
      DebugTextsAre(ElementsAre("AcceptConnectionRequests: accept() failed : Too many open files\n",
                                AnnouncesDaemonError("Terminated............."),
                                IsExitTrace(1, "user_conn.cpp"))));
}

// These errors are our own mistakes: the thread cannot go on.
TEST_F(PortDeathTest, AcceptThatCannotSucceedEndsTheProcess) {
  ASSERT_EQ(ConfigurePort(user_port), 0);
  for (const int error : {EBADF, EINVAL, ENOTSOCK}) {
    SCOPED_TRACE(error);
    EXPECT_EXIT(
        {
          test::SendDebugToStderr(kError);
          const FailCall failure(test::Call::kAccept, error);
          AcceptConnectionRequests(&mapped_port_list->fdset);
        },
        ExitedWithCode(1), testing::HasSubstr("AcceptConnectionRequests: accept() failed : "));
  }
}

TEST_F(PortTest, CallerWhoHasLeftKeepsNobodyWaiting) {
  ASSERT_EQ(ConfigurePort(user_port), 0);
  const DebugCapture debug;
  AcceptConnectionRequests(&mapped_port_list->fdset);  // nobody has called
  EXPECT_THAT(debug.Messages(), IsEmpty());
}

/// Errors that accept() passes on; they cost one try.
class PassingErrorTest : public ServiceTest, public ::testing::WithParamInterface<int> {};

TEST_P(PassingErrorTest, CallerIsServedInTheNextPass) {
  const Descriptor client = ConnectTo(user_port);
  test::SendText(client.get(), "sys1\n");
  {
    const FailCall failure(test::Call::kAccept, GetParam(), 1, 1);
    Accept(user_port);
    EXPECT_EQ(failure.calls(), 1);
  }
  EXPECT_EQ(GetPendingLogins(mapped_port_list, user_port), 0);
  Accept(user_port);
  AwaitThreads();
  EXPECT_EQ(test::ReceiveAvailable(client.get()), kOffers);
}

INSTANTIATE_TEST_SUITE_P(Errors, PassingErrorTest,
                         ::testing::Values(EAGAIN, EINTR, ECONNABORTED, ECONNRESET, EPROTO, EPERM,
                                           ENOPROTOOPT, EOPNOTSUPP, ENETDOWN, ENETUNREACH,
                                           EHOSTDOWN, EHOSTUNREACH, ENONET, ETIMEDOUT, ENOMEM,
                                           ENOBUFS),
                         [](const auto& test_case) {
                           return std::string(strerrorname_np(test_case.param));
                         });

TEST_F(ServiceTest, WithoutADescriptorTheCallerIsAcceptedWithTheReserveAndRefused) {
  for (const int error : {EMFILE, ENFILE}) {
    SCOPED_TRACE(error);
    const Descriptor client = ConnectTo(user_port);
    const FailCall failure(test::Call::kAccept, error, 1, 1);
    Accept(user_port);
    EXPECT_EQ(failure.calls(), 2);
    EXPECT_EQ(ReceiveAll(client), kOutOfMemoryText);
  }
  const Descriptor next = CallAndSay(user_port, "sys1\n");
  EXPECT_EQ(test::Receive(next.get(), strlen(kOffers)), kOffers);
}

TEST_F(ServiceTest, AnotherThreadMayBeQuickerTwice) {
  const Descriptor client = ConnectTo(user_port);
  const FailCall failure(test::Call::kAccept, EMFILE, 1, 3);
  Accept(user_port);
  EXPECT_EQ(failure.calls(), 4);
  EXPECT_EQ(ReceiveAll(client), kOutOfMemoryText);
}

TEST_F(ServiceTest, ListeningSocketDoesNotBlockButAUsersDoes) {
  EXPECT_NE(fcntl(FindPort(user_port)->sock, F_GETFL) & O_NONBLOCK, 0);
  const Descriptor client = CallAndSay(user_port, "sys1\n");
  AwaitThreads();
  ASSERT_EQ(user_list->count, 1);
  EXPECT_EQ(fcntl(user_list->head->unode->sock, F_GETFL) & O_NONBLOCK, 0);
}

TEST_F(ServiceTest, SixthPendingConnectionOfAMappedPortIsRefused) {
  const ServiceCapture debug;
  std::vector<Descriptor> pending;
  for (int i = 0; i < 5; ++i) pending.push_back(Call(mapped_port()));
  EXPECT_EQ(GetPendingLogins(mapped_port_list, mapped_port()), 5);
  EXPECT_EQ(debug.Count("IncrementPendingLogins: Too many pending logins (4)\n"), 1);
  const Descriptor sixth = Call(mapped_port());
  EXPECT_EQ(ReceiveAll(sixth), "016 - Too many pending client connections.\r\n");
  EXPECT_EQ(debug.Count("AcceptConnectionRequests: Reached max_pending_logins (5)\n"), 1);
  EXPECT_EQ(GetPendingLogins(mapped_port_list, mapped_port()), 5);
  pending.front().Reset();
  EXPECT_TRUE(
      test::Eventually([&] { return GetPendingLogins(mapped_port_list, mapped_port()) == 4; }));
  const Descriptor seventh = CallAndSay(mapped_port(), "\n");
  EXPECT_EQ(test::Receive(seventh.get(), strlen(kOffers)), kOffers);
  pending.clear();
}

TEST_F(ServiceTest, RefusedConnectionDoesNotKeepOthersWaiting) {
  const ReservedPort later;
  ASSERT_EQ(ConfigurePort(later.port()), 0);
  const Attached<ConsoleNode> console = test::ConnectConsole("sys4");
  console.node->mapped_port = later.port();
  std::vector<Descriptor> pending;
  for (int i = 0; i < 5; ++i) pending.push_back(Call(mapped_port()));
  const Descriptor refused = ConnectTo(mapped_port());
  ASSERT_TRUE(test::WaitReadable(FindPort(mapped_port())->sock));
  const Descriptor accepted = CallAndSay(later.port(), "\n");
  EXPECT_EQ(ReceiveAll(refused), "016 - Too many pending client connections.\r\n");
  EXPECT_EQ(test::Receive(accepted.get(), strlen(kOffers)), kOffers);
  pending.clear();
}

TEST_F(ServiceTest, MainPortRefusesNobody) {
  std::vector<Descriptor> pending;
  for (int i = 0; i < 12; ++i) pending.push_back(Call(user_port));
  EXPECT_EQ(GetPendingLogins(mapped_port_list, user_port), 12);
  for (const Descriptor& client : pending) test::SendText(client.get(), "sys1 mode=ro\n");
  AwaitThreads();
  EXPECT_EQ(user_list->count, 12);
  EXPECT_EQ(GetPendingLogins(mapped_port_list, user_port), 0);
}

TEST_F(ServiceTest, NoMemoryForTheServiceThread) {
  const Descriptor client = ConnectTo(user_port);
  const ServiceCapture debug(kDetail);
  const FailAllocation failure(2);  // the first is the set's own
  Accept(user_port);
  EXPECT_TRUE(failure.reached());
  EXPECT_EQ(ReceiveAll(client), kOutOfMemoryText);
  EXPECT_THAT(
      debug.Messages(),
      ElementsAre("AcceptConnectionRequests: Connection request from IP address \"127.0.0.1\".\n",
                  "AcceptConnectionRequests: malloc() failed : Cannot allocate memory\n",
                  AnnouncesDaemonError("Out of memory"),
                  "SendErrorToUser: 013 - Out of memory.\r\n"));
}

// ---- The listening thread as a whole ------------------------------------------------------------

bool Listens(uint16_t port) {
  const Descriptor sock(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const sockaddr_in address = Loopback(port);
  return connect(sock.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

// The thread never ends, so it runs in a process of its own.
void ExpectPortsToFollowTheConfiguration() {
  const ReservedPort mapped;
  ASSERT_FALSE(Listens(mapped.port()));
  std::thread([] { UserConnectionsThreadStart(nullptr); }).detach();
  EXPECT_TRUE(test::Eventually([] { return Listens(user_port); }));
  {
    const WriteLock lock(icl_lock, HERE);
    test::AddConsole(i_cons_list, "sys1")->mapped_port = mapped.port();
  }
  RefreshMappedPorts();
  EXPECT_TRUE(test::Eventually([&] { return Listens(mapped.port()); }));
  thread_waitreq_mask |= kPauseUserConn;
  EXPECT_TRUE(test::Eventually([] { return thread_waiting_mask == kPauseUserConn; }));
  {
    const WriteLock lock(icl_lock, HERE);
    i_cons_list->head->cnode->mapped_port = 0;
  }
  RefreshMappedPorts();
  EXPECT_TRUE(Listens(mapped.port()));  // it stands still
  thread_waitreq_mask &= ~kPauseUserConn;
  EXPECT_TRUE(test::Eventually([] { return thread_waiting_mask == 0; }));
  EXPECT_TRUE(test::Eventually([&] { return !Listens(mapped.port()); }));
  EXPECT_TRUE(Listens(user_port));
}

TEST_F(PortDeathTest, PortsFollowTheConfiguration) {
  EXPECT_HOLDS_IN_CHILD(ExpectPortsToFollowTheConfiguration());
}

}  // namespace
