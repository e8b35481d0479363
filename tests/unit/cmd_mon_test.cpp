// The command port: its connections and lists, the monitor's steps, the language, and every command
// with its answer byte by byte.
#include "cmd_mon.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

#include "answer.h"
#include "attach.h"
#include "command.h"
#include "cons_mon.h"
#include "console_users.h"
#include "control.h"
#include "error.h"
#include "lists.h"
#include "mapped_port.h"
#include "models.h"
#include "options.h"
#include "query.h"
#include "serv_conn.h"
#include "support.h"
#include "threads.h"
#include "user.h"
#include "user_conn.h"
#include "waker.h"
#include "zev.h"

namespace {

using namespace std::string_literals;
using test::AnnouncesDaemonError;
using test::Attached;
using test::AttachUser;
using test::Call;
using test::ConnectConsole;
using test::DebugCapture;
using test::Descriptor;
using test::FailAllocation;
using test::FailCall;
using test::IsExitTrace;
using test::ReceiveAvailable;
using test::SocketPair;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::ExitedWithCode;
using ::testing::IsEmpty;
using ::testing::Pair;
using ::testing::UnorderedElementsAre;

constexpr char kOutOfMemoryError[] = "013 - Out of memory.\r\n";
constexpr char kOperator[] = "op";
constexpr char kAddress[] = "192.0.2.7";
constexpr char kNoMemoryLine[] = "malloc() failed : Cannot allocate memory\n";

/// Keeps the leak checker from what is lost on purpose.
class LossOnPurpose {
 public:
#if defined(__SANITIZE_ADDRESS__)
  LossOnPurpose() {
    __lsan_disable();
  }
  ~LossOnPurpose() {
    __lsan_enable();
  }
#else
  LossOnPurpose() {}
  ~LossOnPurpose() {}
#endif
  LossOnPurpose(const LossOnPurpose&) = delete;
  LossOnPurpose& operator=(const LossOnPurpose&) = delete;
};

/// What a tool received.
struct Answer {
  uint32_t type = 0;
  uint32_t count = 0;
  std::string body;
};

uint32_t LittleEndian(const std::string& bytes, size_t offset, size_t width) {
  uint32_t value = 0;
  for (size_t i = 0; i < width; ++i) {
    value |= static_cast<uint32_t>(static_cast<unsigned char>(bytes.at(offset + i))) << (8 * i);
  }
  return value;
}

/// A field of a record: the text as a client reads it.
std::string Field(const std::string& body, size_t offset, size_t width) {
  const std::string field = body.substr(offset, width);
  return field.substr(0, field.find('\0'));
}

std::string Padded(const std::string& text, size_t width) {
  return text + std::string(width - text.size(), '\0');
}

std::string Bytes16(unsigned value) {
  return {static_cast<char>(value & 0xFF), static_cast<char>(value >> 8)};
}

class CommandTest : public test::RelayTest {
 protected:
  CommandTest() {
    EXPECT_TRUE(cmd_mon_waker.descriptor() != -1 || cmd_mon_waker.Open());
    rheader = {};
    static char model[] = "M100";
    static char series[] = "PX";
    model_list.m[0] = {model, series};
    model_list.count = 1;
  }
  ~CommandTest() override {
    model_list = {};
    ReleaseRecords();
    for (const CommandNode* cnode : Nodes(*cmd_list)) close(cnode->sock);
  }

  /// A tool whose connection is on cmd_list.
  static Attached<CommandNode> Connect(const char* name = kOperator, int small_buffer = 0) {
    SocketPair pair;
    if (small_buffer > 0) {
      setsockopt(pair.ours.get(), SOL_SOCKET, SO_SNDBUF, &small_buffer, sizeof small_buffer);
    }
    EXPECT_EQ(MonitorSocketForCommands(pair.ours.Release(), name, kAddress), 0);
    return {cmd_list->tail->tool, std::move(pair.theirs)};
  }

  /// What the monitor does when a command has arrived.
  static void Pass() {
    DescriptorSet lines;
    DescriptorSet room;
    ASSERT_TRUE(lines.CopyFrom(cmd_list->fdset));
    if (CheckForCommand(cmd_list->high_sock, &lines, &room) == 0) return;
    ProcessCommand(lines);
    cmd_mon::CleanUpClosedConnections();
  }

  static Answer Received(const Attached<CommandNode>& tool) {
    const std::string bytes = ReceiveAvailable(tool.peer.get());
    if (bytes.size() < kHeaderSize) {
      ADD_FAILURE() << "there is no answer";
      return {};
    }
    return {LittleEndian(bytes, 0, 4), LittleEndian(bytes, 4, 4), bytes.substr(kHeaderSize)};
  }

  static Answer Ask(const Attached<CommandNode>& tool, const std::string& line) {
    cmd_mon_waker.Drain();
    test::SendText(tool.peer.get(), line + "\n");
    Pass();
    return Received(tool);
  }

  /// The text of the error that the handlers have set.
  static std::string Error() {
    EXPECT_EQ(rheader.type, kErrorFollows);
    EXPECT_EQ(rheader.count, strlen(cmd_err_msg) + 1);
    return cmd_err_msg;
  }

  static CommandNode* Operator() {
    static CommandNode node{};
    CopyText(node.user_name, kOperator);
    CopyText(node.ipaddr, kAddress);
    return &node;
  }

  static CommandId Execute(std::string line) {
    return ParseAndExecuteCommand(Operator(), line.data());
  }

  static ConsoleNode* AddHeld(const char* name) {
    ConsoleNode* cnode = test::AddConsole(i_cons_list, name, -1, kRefused);
    CopyText(cnode->model, "M100");
    CopyText(cnode->pellox_port_holder_ipaddr, "10.1.1.1");
    return cnode;
  }
};

using CommandDeathTest = CommandTest;

// ---- Records and lists --------------------------------------------------------------------------

TEST_F(CommandTest, NewNodeIsNeitherOpenNorListed) {
  CommandNode* cnode = NewCommandNode("anna", "192.0.2.1");
  EXPECT_EQ(cnode->sock, -1);
  EXPECT_EQ(cnode->connected, 0);
  EXPECT_STREQ(cnode->user_name, "anna");
  EXPECT_STREQ(cnode->ipaddr, "192.0.2.1");
  EXPECT_FALSE(cnode->answer.IsUnsent());
  FreeCommandNode(cnode);
}

TEST_F(CommandTest, LongNamesAreCut) {
  CommandNode* cnode = NewCommandNode(std::string(40, 'u').c_str(), std::string(80, 'a').c_str());
  EXPECT_EQ(cnode->user_name, std::string(32, 'u'));
  EXPECT_EQ(cnode->ipaddr, std::string(64, 'a'));
  FreeCommandNode(cnode);
}

TEST_F(CommandTest, NewElementHasNoNeighbours) {
  CommandNode cnode{};
  const std::unique_ptr<CommandListElem> elem(NewCommandListElem(&cnode));
  EXPECT_EQ(elem->tool, &cnode);
  EXPECT_EQ(elem->prev, nullptr);
  EXPECT_EQ(elem->next, nullptr);
}

TEST_F(CommandTest, NewListIsEmptyAndHasANameOfItsOwn) {
  std::string name = "tools";
  CommandList* list = NewCommandList(name.c_str());
  name[0] = 'x';
  EXPECT_STREQ(list->list_name, "tools");
  EXPECT_EQ(list->head, nullptr);
  EXPECT_EQ(list->tail, nullptr);
  EXPECT_EQ(list->count, 0);
  EXPECT_EQ(list->high_sock, -1);
  EXPECT_FALSE(list->fdset.Contains(0));
  FreeCommandList(list);
}

/// The constructors fail in turn; each sets the error, reports and gives null.
void ExpectNoMemory(const std::string& function, const std::function<void*()>& make, int first) {
  SCOPED_TRACE(function);
  u_err_msg = nullptr;
  const DebugCapture debug(kDetail);
  {
    const FailAllocation failure(first);
    EXPECT_EQ(make(), nullptr);
    EXPECT_TRUE(failure.reached());
  }
  EXPECT_STREQ(u_err_msg, kOutOfMemoryError);
  EXPECT_THAT(debug.Messages(),
              ElementsAre(function + ": " + kNoMemoryLine, AnnouncesDaemonError("Out of memory")));
}

TEST_F(CommandTest, ConstructorsWithoutMemory) {
  ExpectNoMemory(
      "NewCommandNode", [] { return NewCommandNode("anna", "192.0.2.1"); }, 1);
  ExpectNoMemory(
      "NewCommandListElem", [] { return NewCommandListElem(nullptr); }, 1);
  ExpectNoMemory(
      "NewCommandList", [] { return NewCommandList("tools"); }, 1);
  ExpectNoMemory(
      "InitCommandList", [] { return NewCommandList("tools"); }, 2);
}

/// A list of nodes with sockets 3, 70 and 5, none of which is open.
class CommandListTest : public CommandTest {
 protected:
  CommandListTest() {
    constexpr std::array kSockets = {3, 70, 5};
    for (size_t i = 0; i < nodes_.size(); ++i) {
      nodes_.at(i) = CommandNode{};
      nodes_.at(i).sock = kSockets.at(i);
      EXPECT_EQ(AddCommandToList(&nodes_.at(i), list_), 0);
    }
  }
  ~CommandListTest() override {
    DropElements(*list_);
    FreeCommandList(list_);
  }

  std::vector<int> Sockets() const {
    std::vector<int> sockets;
    for (const CommandNode* cnode : Nodes(*list_)) sockets.push_back(cnode->sock);
    return sockets;
  }

  std::vector<int> Watched() const {
    std::vector<int> watched;
    for (int fd = 0; fd < 100; ++fd) {
      if (list_->fdset.Contains(fd)) watched.push_back(fd);
    }
    return watched;
  }

  std::array<CommandNode, 3> nodes_;
  CommandList* list_ = NewCommandList("tools");
};

using CommandListDeathTest = CommandListTest;

TEST_F(CommandListTest, NodesAreAppended) {
  EXPECT_THAT(Sockets(), ElementsAre(3, 70, 5));
  EXPECT_THAT(Watched(), ElementsAre(3, 5, 70));
  EXPECT_EQ(list_->high_sock, 70);
  EXPECT_EQ(list_->count, 3);
}

TEST_F(CommandListTest, AddingIsTraced) {
  CommandNode fourth{};
  fourth.sock = -1;
  const DebugCapture debug(kTrace);
  EXPECT_EQ(AddCommandToList(&fourth, list_), 0);
  EXPECT_TRUE(debug.Has("AddCommandToList: Added command to tools.\n"));
  EXPECT_THAT(Watched(), ElementsAre(3, 5, 70));  // without a socket there is nothing to watch
}

TEST_F(CommandListTest, HeadIsRemoved) {
  EXPECT_EQ(RemoveCommandFromList(&nodes_[0], list_), 0);
  EXPECT_THAT(Sockets(), ElementsAre(70, 5));
  EXPECT_THAT(Watched(), ElementsAre(5, 70));
  EXPECT_EQ(list_->high_sock, 70);
  EXPECT_EQ(list_->head->prev, nullptr);
}

TEST_F(CommandListTest, MiddleIsRemoved) {
  EXPECT_EQ(RemoveCommandFromList(&nodes_[1], list_), 0);
  EXPECT_THAT(Sockets(), ElementsAre(3, 5));
  EXPECT_THAT(Watched(), ElementsAre(3, 5));
  EXPECT_EQ(list_->high_sock, 5);
  EXPECT_EQ(list_->count, 2);
}

TEST_F(CommandListTest, TailIsRemoved) {
  EXPECT_EQ(RemoveCommandFromList(&nodes_[2], list_), 0);
  EXPECT_THAT(Sockets(), ElementsAre(3, 70));
  EXPECT_EQ(list_->tail->tool, &nodes_[1]);
  EXPECT_EQ(list_->tail->next, nullptr);
}

TEST_F(CommandListTest, LastOneLeavesAnEmptyList) {
  for (CommandNode& cnode : nodes_) RemoveCommandFromList(&cnode, list_);
  EXPECT_EQ(list_->head, nullptr);
  EXPECT_EQ(list_->tail, nullptr);
  EXPECT_EQ(list_->count, 0);
  EXPECT_EQ(list_->high_sock, -1);
  EXPECT_THAT(Watched(), IsEmpty());
}

TEST_F(CommandListTest, WithoutMemoryTheListIsAsBefore) {
  CommandNode fourth{};
  fourth.sock = 4;
  u_err_msg = nullptr;
  const DebugCapture debug;
  {
    const FailAllocation failure(1);
    EXPECT_EQ(AddCommandToList(&fourth, list_), -1);
  }
  EXPECT_STREQ(u_err_msg, kOutOfMemoryError);
  EXPECT_THAT(debug.Messages(), ElementsAre("NewCommandListElem: "s + kNoMemoryLine,
                                            "AddCommandToList: NewCommandListElem() failed\n"));
  EXPECT_THAT(Sockets(), ElementsAre(3, 70, 5));
  EXPECT_THAT(Watched(), ElementsAre(3, 5, 70));
}

TEST_F(CommandListDeathTest, RemovingAStrangerEndsTheProcess) {
  CommandNode stranger{};
  EXPECT_EXIT(
      {
        test::SendDebugToStderr(kDetail);
        RemoveCommandFromList(&stranger, list_);
      },
      ExitedWithCode(1),
      test::DebugTextsAre(ElementsAre("RemoveCommandFromList: cnode not found in cmd_list\n",
                                      AnnouncesDaemonError("Terminated: Internal error"),
                                      IsExitTrace(1, "command.cpp"))));
}

TEST_F(CommandListDeathTest, NegativeCountEndsTheProcess) {
  EXPECT_EXIT(
      {
        list_->count = 0;
        test::SendDebugToStderr(kDetail);
        RemoveCommandFromList(&nodes_[1], list_);
      },
      ExitedWithCode(1),
      test::DebugTextsAre(ElementsAre("RemoveCommandFromList: cmd_list->count = -1\n",
                                      AnnouncesDaemonError("Terminated: Internal error"),
                                      IsExitTrace(1, "command.cpp"))));
}

// ---- Hand-over ----------------------------------------------------------------------------------

TEST_F(CommandTest, HandedOverSocketIsListedAndEndsTheWait) {
  cmd_mon_waker.Drain();
  SocketPair pair;
  const int sock = pair.ours.Release();
  EXPECT_EQ(MonitorSocketForCommands(sock, "anna", "192.0.2.1"), 0);
  ASSERT_EQ(cmd_list->count, 1);
  const CommandNode* cnode = cmd_list->head->tool;
  EXPECT_EQ(cnode->sock, sock);
  EXPECT_EQ(cnode->connected, 1);
  EXPECT_STREQ(cnode->user_name, "anna");
  EXPECT_STREQ(cnode->ipaddr, "192.0.2.1");
  EXPECT_TRUE(cmd_list->fdset.Contains(sock));
  timeval wait = {10, 0};
  DescriptorSet nobody;
  EXPECT_EQ(WaitForMembers(-1, nobody, cmd_mon_waker, &wait), 0);
  EXPECT_GT(wait.tv_sec, 0);
}

/// The set of watched sockets has to be allocated anew.
void ForgetRoomOfSet() {
  std::destroy_at(&cmd_list->fdset);
  std::construct_at(&cmd_list->fdset);
}

/// The n-th allocation of a hand-over fails, and what is said about it.
struct FailedHandOver {
  int allocation;
  std::vector<std::string> messages;
};

std::vector<FailedHandOver> FailedHandOvers() {
  const std::string add_failed = "MonitorSocketForCommands: AddCommandToList() failed\n";
  const std::string elem_failed = "AddCommandToList: NewCommandListElem() failed\n";
  return {{1,
           {"NewCommandNode: "s + kNoMemoryLine,
            "MonitorSocketForCommands: NewCommandNode() failed\n"}},
          {2, {"AddCommandToList: "s + kNoMemoryLine, elem_failed, add_failed}},
          {3, {"NewCommandListElem: "s + kNoMemoryLine, elem_failed, add_failed}}};
}

TEST_F(CommandTest, HandOverWithoutMemoryLeavesTheSocketToTheCaller) {
  const LossOnPurpose node_of_a_connection_that_cannot_be_listed;
  for (const FailedHandOver& expected : FailedHandOvers()) {
    SCOPED_TRACE(expected.allocation);
    ForgetRoomOfSet();
    const SocketPair pair;
    u_err_msg = nullptr;
    const DebugCapture debug;
    {
      const FailAllocation failure(expected.allocation);
      EXPECT_EQ(MonitorSocketForCommands(pair.ours.get(), "anna", "192.0.2.1"), -1);
      EXPECT_TRUE(failure.reached());
    }
    EXPECT_STREQ(u_err_msg, kOutOfMemoryError);
    EXPECT_THAT(debug.Messages(), ::testing::ElementsAreArray(expected.messages));
    EXPECT_TRUE(test::IsOpen(pair.ours.get()));
    EXPECT_EQ(cmd_list->count, 0);
    EXPECT_EQ(pthread_rwlock_trywrlock(cmd_lock.native()), 0);  // it has been released
    pthread_rwlock_unlock(cmd_lock.native());
  }
}

/// Carries a connection that asks for the command port through its service thread, whose n-th
/// allocation fails. What the client receives until the end.
std::string ServeWithoutMemory(int allocation) {
  SocketPair pair;
  test::SendText(pair.theirs.get(), "@@@@ user=anna\n");
  auto* params = new ServiceReqThreadParams{};
  params->sock = pair.ours.Release();
  params->port = user_port;
  CopyText(params->ipaddr, "192.0.2.1");
  std::thread([&] {
    const LossOnPurpose node_of_a_connection_that_cannot_be_listed;
    const FailAllocation failure(allocation);
    ServiceConnectionRequestThreadStart(params);
    EXPECT_TRUE(failure.reached());
  }).join();
  return test::Receive(pair.theirs.get(), 1000);
}

TEST_F(CommandTest, ClientWhoCannotBeHandedOverIsToldAndClosed) {
  security_enabled = 0;
  const SocketPair listening;
  {
    const PendingLoginsGuard guard(__func__);
    MappedPortNode* mpnode = NewMappedPortNode(listening.ours.get(), user_port);
    ASSERT_EQ(AddMappedPortToList(mpnode, mapped_port_list), 0);
  }
  const DebugCapture debug;
  for (const int allocation : {1, 2, 3}) {
    ForgetRoomOfSet();
    EXPECT_EQ(ServeWithoutMemory(allocation), kOutOfMemoryError) << allocation;
  }
  EXPECT_EQ(debug.Count("MonitorSocketForCommands: NewCommandNode() failed\n"), 1);
  EXPECT_EQ(debug.Count("MonitorSocketForCommands: AddCommandToList() failed\n"), 2);
  EXPECT_EQ(cmd_list->count, 0);
}

TEST_F(CommandTest, HandOverGoesOnWithoutTheLock) {
  const DebugCapture debug;
  SocketPair pair;
  {
    const FailCall failure(Call::kWrlock, EDEADLK, 1, 1);
    EXPECT_EQ(MonitorSocketForCommands(pair.ours.Release(), "anna", "192.0.2.1"), 0);
  }
  EXPECT_THAT(debug.Messages(), ElementsAre("MonitorSocketForCommands: pthread_rwlock_wrlock "
                                            "failed : Resource deadlock avoided\n"));
  EXPECT_EQ(cmd_list->count, 1);
}

// ---- Waiting ------------------------------------------------------------------------------------

TEST_F(CommandTest, WaitTellsWhoHasSentACommandAndWhoHasRoom) {
  const Attached<CommandNode> silent = Connect();
  const Attached<CommandNode> asking = Connect();
  const Attached<CommandNode> waiting = Connect();
  test::SendText(asking.peer.get(), "console\n");
  DescriptorSet lines;
  DescriptorSet room;
  ASSERT_TRUE(lines.CopyFrom(cmd_list->fdset));
  lines.Remove(waiting.node->sock);
  ASSERT_TRUE(room.Add(waiting.node->sock));
  EXPECT_EQ(CheckForCommand(cmd_list->high_sock, &lines, &room), 1);
  EXPECT_FALSE(lines.Contains(silent.node->sock));
  EXPECT_TRUE(lines.Contains(asking.node->sock));
  EXPECT_TRUE(room.Contains(waiting.node->sock));
  EXPECT_FALSE(room.Contains(asking.node->sock));
}

TEST_F(CommandTest, WaitLastsTwoSeconds) {
  const Attached<CommandNode> silent = Connect();
  cmd_mon_waker.Drain();
  DescriptorSet lines;
  DescriptorSet room;
  ASSERT_TRUE(lines.CopyFrom(cmd_list->fdset));
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(CheckForCommand(cmd_list->high_sock, &lines, &room), 0);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1990));
  EXPECT_FALSE(lines.Contains(silent.node->sock));
}

TEST_F(CommandTest, WakerEndsTheWaitAndIsNotCounted) {
  cmd_mon_waker.Wake();
  DescriptorSet lines;
  DescriptorSet room;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(CheckForCommand(-1, &lines, &room), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1500));
  EXPECT_FALSE(lines.Contains(cmd_mon_waker.descriptor()));
}

TEST_F(CommandTest, WithoutMemoryNobodyIsReady) {
  const Attached<CommandNode> asking = Connect();
  test::SendText(asking.peer.get(), "console\n");
  DescriptorSet lines;
  DescriptorSet room;
  const FailAllocation failure(1, FailAllocation::kForEver);
  EXPECT_EQ(CheckForCommand(cmd_list->high_sock, &lines, &room), 0);
  EXPECT_FALSE(lines.Contains(asking.node->sock));
}

TEST_F(CommandDeathTest, FailingWaitEndsTheProcess) {
  EXPECT_EXIT(
      {
        test::SendDebugToStderr(kDetail);
        const FailCall failure(Call::kSelect, EINTR);
        Pass();
      },
      ExitedWithCode(1),
      test::DebugTextsAre(ElementsAre(
          "CheckForCommand: select() failed : Interrupted system call\n",
          AnnouncesDaemonError("Terminated............."), IsExitTrace(1, "cmd_mon.cpp"))));
}

// ---- Reading and answering ----------------------------------------------------------------------

TEST_F(CommandTest, LinesReadyAtOnceAreServedInTheOrderOfHandOver) {
  SocketPair low;
  SocketPair high;
  const bool swapped = low.ours.get() > high.ours.get();
  SocketPair& first = swapped ? low : high;  // with the higher descriptor
  SocketPair& second = swapped ? high : low;
  ASSERT_GT(first.ours.get(), second.ours.get());
  MonitorSocketForCommands(first.ours.Release(), "first", kAddress);
  MonitorSocketForCommands(second.ours.Release(), "second", kAddress);
  test::SendText(second.theirs.get(), "console\n");
  test::SendText(first.theirs.get(), "mapped_port\n");
  const DebugCapture debug(kDetail);
  Pass();
  const auto line = [](const char* what, const char* user) {
    return "ProcessCommand: Received command \""s + what + "\n\" from \"" + user + "\" at \"" +
           kAddress + "\".\n";
  };
  const auto response = [](const char* user) {
    return "SendCommandResponse: Sending response \"1\" to \""s + user + "\" at \"" + kAddress +
           "\".\n";
  };
  EXPECT_THAT(debug.Messages(), ElementsAre(line("mapped_port", "first"), response("first"),
                                            line("console", "second"), response("second")));
}

TEST_F(CommandTest, OneLineOfAConnectionInAPass) {
  const Attached<CommandNode> tool = Connect();
  test::SendText(tool.peer.get(), "console\nwho\n");
  Pass();
  EXPECT_EQ(Received(tool).type, kRecordsFollow);
  Pass();
  EXPECT_EQ(Received(tool).body, "No console specified.\0"s);
}

TEST_F(CommandTest, ToolThatLeftIsClosedWithoutAWordAndRemovedInTheSamePass) {
  Attached<CommandNode> leaver = Connect("leaver");
  const Attached<CommandNode> other = Connect("other");
  const int sock = leaver.node->sock;
  shutdown(leaver.peer.get(), SHUT_WR);
  const DebugCapture debug(kDetail);
  errno = 0;
  Pass();
  EXPECT_THAT(debug.Messages(),
              ElementsAre("ReadLineWithTimeout: recv() returned 0 : Success\n",
                          "ProcessCommand: ReadLine() returned -1\n",
                          "CleanUpClosedConnections: Cleaning up closed command connection.\n"));
  EXPECT_EQ(test::Receive(leaver.peer.get(), 1), "");
  EXPECT_FALSE(test::IsOpen(sock));
  EXPECT_EQ(cmd_list->count, 1);
  EXPECT_EQ(cmd_list->head->tool, other.node);
  EXPECT_EQ(cmd_list->high_sock, other.node->sock);
}

TEST_F(CommandTest, ClosedConnectionsAreFoundFromTheHead) {
  const Attached<CommandNode> open = Connect();
  const Attached<CommandNode> first = Connect();
  const Attached<CommandNode> second = Connect();
  EXPECT_EQ(cmd_mon::GetClosedConnection(), nullptr);
  CloseCommandConnection(second.node);
  CloseCommandConnection(first.node);
  EXPECT_EQ(cmd_mon::GetClosedConnection(), first.node);
  EXPECT_EQ(cmd_list->count, 3);
  cmd_mon::CleanUpClosedConnections();
  EXPECT_EQ(cmd_list->count, 1);
  EXPECT_EQ(cmd_list->head->tool, open.node);
}

// Bytes that are allocated. The sanitizers' own allocators do not tell; with the first of them the
// leak checker looks instead.
size_t HeapInUse() {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  return 0;
#else
  return mallinfo2().uordblks;
#endif
}

TEST_F(CommandTest, RecordsAreReleased) {
  for (int i = 0; i < 100; ++i) test::AddConsole(i_cons_list, "box");
  AddHeld("held");
  const Attached<CommandNode> tool = Connect();
  const auto ask_all = [&] {
    for (const char* line : {"console", "mapped_port", "who held", "portholder held"}) {
      EXPECT_EQ(Ask(tool, line).type, kRecordsFollow);
    }
  };
  ask_all();
  const size_t before = HeapInUse();
  for (int i = 0; i < 20; ++i) ask_all();
  EXPECT_LT(HeapInUse(), before + 100 * kConsolePacketSize);
}

// ---- Sending ------------------------------------------------------------------------------------

/// Three consoles, so that a "console" answer takes four sends.
class SendTest : public CommandTest {
 protected:
  SendTest() {
    for (const char* name : {"c1", "c2", "c3"}) test::AddConsole(i_cons_list, name);
  }

  /// The n-th send of the answer to `line` fails.
  void ExpectToFailAt(int nth, const std::string& line, size_t bytes_before) {
    SCOPED_TRACE(line);
    Attached<CommandNode> tool = Connect();
    const int id = Execute(line);
    const DebugCapture debug;
    {
      const FailCall failure(Call::kSend, EPIPE, nth, 1);
      EXPECT_EQ(SendCommandResponse(tool.node, id), -1);
      EXPECT_EQ(failure.calls(), nth);
    }
    EXPECT_THAT(debug.Messages(),
                ElementsAre("SendCommandResponse: send() failed : Broken pipe\n"));
    EXPECT_EQ(tool.node->connected, 0);
    EXPECT_FALSE(test::IsOpen(tool.node->sock));
    EXPECT_EQ(ReceiveAvailable(tool.peer.get()).size(), bytes_before);
    cmd_mon::CleanUpClosedConnections();
    EXPECT_EQ(cmd_list->count, 0);
  }
};

TEST_F(SendTest, FailureAtTheHeader) {
  ExpectToFailAt(1, "console", 0);
}

TEST_F(SendTest, FailureInTheMiddleOfTheRecords) {
  ExpectToFailAt(3, "console", kHeaderSize + kConsolePacketSize);
}

TEST_F(SendTest, FailureAtTheText) {
  ExpectToFailAt(2, "nonsense", kHeaderSize);
}

TEST_F(SendTest, EachRecordIsOneSend) {
  const Attached<CommandNode> tool = Connect();
  const int id = Execute("console");
  const FailCall sends(Call::kSend, 0, 1, 0);
  EXPECT_EQ(SendCommandResponse(tool.node, id), 0);
  EXPECT_EQ(sends.calls(), 4);
}

TEST_F(SendTest, RecordsOfAnotherCommandAreNotSent) {
  const Attached<CommandNode> tool = Connect();
  Execute("console");
  EXPECT_EQ(SendCommandResponse(tool.node, kEnableCommand), 0);
  const Answer answer = Received(tool);
  EXPECT_EQ(answer.type, kRecordsFollow);
  EXPECT_EQ(answer.count, 3U);
  EXPECT_EQ(answer.body, "");
}

TEST_F(SendTest, DoneKeepsTheCountOfTheAnswerBefore) {
  const Attached<CommandNode> tool = Connect();
  const Attached<CommandNode> other = Connect();
  EXPECT_EQ(Ask(tool, "enable c1").count, 0U);  // the first answer of all
  EXPECT_EQ(Ask(tool, "console").count, 3U);
  const Answer done = Ask(other, "enable c1");
  EXPECT_EQ(done.type, kDone);
  EXPECT_EQ(done.count, 3U);
  EXPECT_EQ(done.body, "");
}

/// A tool with little room, and an answer that is longer than that.
class LongAnswerTest : public CommandTest {
 protected:
  static constexpr uint32_t kConsoles = 500;

  LongAnswerTest() {
    for (uint32_t i = 0; i < kConsoles; ++i) test::AddConsole(i_cons_list, "box");
    EXPECT_EQ(SendCommandResponse(tool_.node, Execute("console")), 0);
    EXPECT_TRUE(tool_.node->answer.IsUnsent());
  }

  /// Reads a little and lets the monitor go on, until there is no more. Everything that was read.
  std::string ReadSlowly() {
    std::string received;
    for (bool unsent = true; unsent; cmd_mon::SendUnsentAnswers()) {
      unsent = tool_.node->answer.IsUnsent();
      std::array<char, 1000> chunk{};
      const ssize_t count = recv(tool_.peer.get(), chunk.data(), chunk.size(), MSG_DONTWAIT);
      if (count > 0) received.append(chunk.data(), static_cast<size_t>(count));
    }
    return received + ReceiveAvailable(tool_.peer.get());
  }

  Attached<CommandNode> tool_ = Connect(kOperator, 4096);
};

TEST_F(LongAnswerTest, RestFollowsAsTheToolMakesRoom) {
  ReleaseRecords();  // as the monitor does after each command
  const std::string received = ReadSlowly();
  ASSERT_EQ(received.size(), kHeaderSize + kConsoles * kConsolePacketSize);
  EXPECT_EQ(LittleEndian(received, 4, 4), kConsoles);
  for (uint32_t i = 0; i < kConsoles; ++i) {
    ASSERT_EQ(Field(received, kHeaderSize + i * kConsolePacketSize, kWireNameWidth), "box") << i;
  }
  EXPECT_EQ(tool_.node->answer.records, nullptr);
}

TEST_F(LongAnswerTest, AnswerIsThatOfItsOwnMoment) {
  EXPECT_EQ(Execute("nonsense"), kNoCommand);  // another tool's turn
  const std::string received = ReadSlowly();
  EXPECT_EQ(received.size(), kHeaderSize + kConsoles * kConsolePacketSize);
}

TEST_F(LongAnswerTest, NothingIsSentWithoutRoom) {
  const size_t sent = tool_.node->answer.sent;
  const FailCall sends(Call::kSend, 0, 1, 0);
  cmd_mon::SendUnsentAnswers();
  EXPECT_EQ(sends.calls(), 1);
  EXPECT_EQ(tool_.node->answer.sent, sent);
  EXPECT_EQ(tool_.node->connected, 1);
}

TEST_F(LongAnswerTest, ToolThatLeavesMeanwhileIsClosedAndRemoved) {
  tool_.peer.Reset();
  const DebugCapture debug;
  cmd_mon::SendUnsentAnswers();
  EXPECT_THAT(debug.Messages(), ElementsAre("SendCommandResponse: send() failed : Broken pipe\n"));
  EXPECT_EQ(tool_.node->connected, 0);
  cmd_mon::CleanUpClosedConnections();
  EXPECT_EQ(cmd_list->count, 0);
}

// ---- The language -------------------------------------------------------------------------------

TEST_F(CommandTest, WordsAndTheirNumbers) {
  std::map<std::string, int> words;
  for (const CommandRow& row : CommandTable()) words[row.word] = row.id;
  EXPECT_THAT(words,
              UnorderedElementsAre(Pair("console", 1), Pair("who", 2), Pair("mapped_port", 3),
                                   Pair("clear", 4), Pair("disable", 5), Pair("enable", 6),
                                   Pair("msg", 7), Pair("force", 8), Pair("portholder", 9),
                                   Pair("status", 10), Pair("stats", 11), Pair("reconnect", 12)));
}

std::string MixedCase(std::string word) {
  for (size_t i = 0; i < word.size(); i += 2) word[i] = static_cast<char>(toupper(word[i]));
  return word;
}

TEST_F(CommandTest, WordsInAnyCase) {
  for (const CommandRow& row : CommandTable()) {
    for (const std::string& word : {std::string(row.word), MixedCase(row.word)}) {
      EXPECT_EQ(Execute(word + " nobody text\n"), row.id) << word;
      ReleaseRecords();
    }
  }
}

TEST_F(CommandTest, MissingName) {
  for (const CommandRow& row : CommandTable()) {
    for (const char* line_end : {"", "\n", " \r\n", "  "}) {
      SCOPED_TRACE(row.word);
      const CommandId id = Execute(std::string(row.word) + line_end);
      if (row.argument == CommandArgument::kOptionalConsole ||
          row.argument == CommandArgument::kNone) {
        EXPECT_EQ(id, row.id);
        EXPECT_EQ(rheader.type, kRecordsFollow);
      } else {
        EXPECT_EQ(id, kNoCommand);
        EXPECT_EQ(Error(), "No console specified.");
        EXPECT_EQ(rheader.count, 22U);
      }
      ReleaseRecords();
    }
  }
}

TEST_F(CommandTest, MissingText) {
  for (const CommandRow& row : CommandTable()) {
    const CommandId id = Execute(std::string(row.word) + " -");
    if (row.argument == CommandArgument::kConsoleAndText) {
      EXPECT_EQ(id, kNoCommand) << row.word;
      EXPECT_EQ(Error(), "No message specified.");
      EXPECT_EQ(Execute(std::string(row.word) + " -\n"), row.id);  // an empty one is there
      EXPECT_EQ(rheader.type, kDone);
    } else {
      EXPECT_EQ(id, row.id) << row.word;
    }
    ReleaseRecords();
  }
}

TEST_F(CommandTest, LinesThatAreNoCommand) {
  for (const char* line : {"", "\n", " \r\n ", "\r"}) {
    EXPECT_EQ(Execute(line), kNoCommand);
    EXPECT_EQ(Error(), "No command specified.");
  }
  for (const char* line : {"consoles", "who\tbox", "\tconsole", "con sole", "console\t"}) {
    EXPECT_EQ(Execute(line), kNoCommand);
    EXPECT_EQ(Error(), "Invalid command.");
  }
}

TEST_F(CommandTest, CarriageReturnsAndLineFeedsSeparateWordsToo) {
  test::AddConsole(i_cons_list, "box");
  EXPECT_EQ(Execute("\r console\rbox\r\nmore words"), kConsoleCommand);
  EXPECT_EQ(rheader.count, 1U);
}

TEST_F(CommandTest, ErrorTextIsCut) {
  EXPECT_EQ(Execute("enable " + std::string(200, 'n')), kEnableCommand);
  EXPECT_EQ(Error(), "Unrecognized console \""s + std::string(57, 'n'));
  EXPECT_EQ(rheader.count, kErrorTextSize);
}

// ---- States and modes ---------------------------------------------------------------------------

std::string Status(const ConsoleNode* cnode) {
  char code[2];
  GetStatusCode(cnode, code);
  return {code, 2};
}

std::string Mode(const ConsoleNode* cnode) {
  char code[2];
  GetHighPrecedModeCode(cnode, code);
  return {code, 2};
}

TEST_F(CommandTest, StatusCodes) {
  const test::ConsolePtr cnode = test::MakeConsole("box");
  const std::map<int, std::string> codes = {
      {kNotConnected, "2\0"s}, {kRefused, "3\0"s}, {kInProgress, "4\0"s}, {7, "99"}, {-1, "99"}};
  for (const auto& [status, code] : codes) {
    cnode->status = status;
    cnode->enable = 1;
    EXPECT_EQ(Status(cnode.get()), code);
    cnode->enable = 0;
    EXPECT_EQ(Status(cnode.get()), "5\0"s);
  }
}

TEST_F(CommandTest, ConnectedConsoleIsNeverShownAsDisabled) {
  const Attached<ConsoleNode> box = ConnectConsole("box");
  for (const int enable : {1, 0}) {
    box.node->enable = enable;
    EXPECT_EQ(Status(box.node), "0\0"s);
  }
  const Attached<UserNode> user = AttachUser(box.node, "anna");
  EXPECT_EQ(Status(box.node), "1\0"s);
}

struct ModeCase {
  std::vector<std::pair<const char*, int>> users;
  std::string code;
};

TEST_F(CommandTest, ModeCodes) {
  const std::vector<ModeCase> cases = {
      {{}, "0"},
      {{{"a", kReadOnly}}, "1"},
      {{{"a", kShared}}, "2"},
      {{{"a", kExclusive}}, "3"},
      {{{"a", kExclusiveRevocable}}, "4"},
      {{{"a", kReadOnly}, {"b", kShared}}, "2"},
      {{{"a", kShared}, {"b", kExclusive}}, "2"},
      {{{"a", kExclusive}, {"b", kShared}}, "3"},
      {{{"VRQ", kExclusiveRevocable}}, "0"},
      {{{"vrq", kExclusiveRevocable}, {"a", kReadOnly}}, "1"},
      {{{"a", kReadOnly}, {"Vrq", kExclusiveRevocable}}, "1"},
      {{{"VRQ", kExclusiveRevocable}, {"a", kExclusiveRevocable}}, "4"},
      {{{"VRQ", kReadOnly}}, "1"},
      {{{"VRQ", kShared}}, "2"},
      {{{"VRQ", kExclusive}}, "3"},
      {{{"VRQX", kExclusiveRevocable}}, "4"},
  };
  for (const ModeCase& expected : cases) {
    const Attached<ConsoleNode> box = ConnectConsole("box");
    std::vector<Attached<UserNode>> users;
    for (const auto& [name, mode] : expected.users) {
      users.push_back(AttachUser(box.node, name, mode));
    }
    EXPECT_EQ(Mode(box.node), expected.code + '\0');
  }
}

TEST_F(CommandTest, HiddenUserIsOneNamedSoInModeFour) {
  const Attached<ConsoleNode> box = ConnectConsole("box");
  EXPECT_EQ(IsVrqUserConnectedERMode(box.node), 0);
  const Attached<UserNode> other = AttachUser(box.node, "anna", kExclusiveRevocable);
  const Attached<UserNode> user = AttachUser(box.node, "vRq", kShared);
  EXPECT_EQ(IsVrqUserConnectedERMode(box.node), 0);
  user.node->mode = kExclusiveRevocable;
  EXPECT_EQ(IsVrqUserConnectedERMode(box.node), 1);
}

// ---- Records on the wire ------------------------------------------------------------------------

const std::string kFull(64, 'x');

TEST_F(CommandTest, ConsolePacket) {
  ConsoleNode* cnode = test::AddConsole(i_cons_list, "box", -1, 9);
  cnode->cons_port = 0x1234;
  cnode->mgmt_port = 0xFF80;
  CopyText(cnode->model, kFull.c_str());
  CopyText(cnode->pname, "rack 1");
  const Attached<CommandNode> tool = Connect();
  const Answer answer = Ask(tool, "console BOX");
  EXPECT_EQ(answer.count, 1U);
  EXPECT_EQ(answer.body, Padded("box", 64) + Padded("127.0.0.1", 64) + "\x34\x12\x80\xFF"s + kFull +
                             Padded("rack 1", 64) + "99" + "0\0"s);
}

TEST_F(CommandTest, ConsolePacketWithFullFields) {
  ConsoleNode* cnode = test::AddConsole(i_cons_list, kFull.c_str());
  CopyText(cnode->ipaddr, kFull.c_str());
  CopyText(cnode->pname, kFull.c_str());
  const Attached<CommandNode> tool = Connect();
  const Answer answer = Ask(tool, "console");
  ASSERT_EQ(answer.body.size(), kConsolePacketSize);
  EXPECT_EQ(answer.body.substr(0, 128), kFull + kFull);
  EXPECT_EQ(answer.body.substr(196), kFull + "2\0"s + "0\0"s);
}

TEST_F(CommandTest, MappedPortPacket) {
  const std::vector<std::pair<int, std::string>> auths = {
      {0, "\x00\x00"s}, {1, "\x01\x00"s}, {65537, "\x01\x00"s}, {-1, "\xFF\xFF"s}};
  ConsoleNode* cnode = test::AddConsole(i_cons_list, kFull.c_str());
  cnode->cons_port = 23;
  cnode->mapped_port = 0x1234;
  const Attached<CommandNode> tool = Connect();
  for (const auto& [auth, bytes] : auths) {
    cnode->auth = auth;
    EXPECT_EQ(Ask(tool, "mapped_port").body,
              kFull + Padded("127.0.0.1", 64) + Bytes16(23) + "\x34\x12"s + bytes);
  }
}

TEST_F(CommandTest, UserPacket) {
  const Attached<ConsoleNode> box = ConnectConsole("box");
  const Attached<UserNode> full = AttachUser(box.node, std::string(32, 'u').c_str(), kReadOnly);
  CopyText(full.node->ipaddr, kFull.c_str());
  const Attached<UserNode> plain = AttachUser(box.node, "anna", kExclusiveRevocable);
  const Attached<CommandNode> tool = Connect();
  const Answer answer = Ask(tool, "who box");
  EXPECT_EQ(answer.count, 2U);
  EXPECT_EQ(answer.body, std::string(32, 'u') + kFull + "1\0"s + Padded("anna", 32) +
                             Padded("192.0.2.1", 64) + "4\0"s);
}

TEST_F(CommandTest, PacketOfAClientElsewhere) {
  AddHeld("box");
  const Attached<CommandNode> tool = Connect();
  EXPECT_EQ(Ask(tool, "who BOX").body, Padded("Unknown", 32) + Padded("10.1.1.1", 64) + "5\0"s);
}

TEST_F(CommandTest, PortHolderPacket) {
  ConsoleNode* cnode = AddHeld("box");
  const Attached<CommandNode> tool = Connect();
  EXPECT_EQ(Ask(tool, "portholder box").body, Padded("10.1.1.1", 64));
  CopyText(cnode->pellox_port_holder_ipaddr, kFull.c_str());
  EXPECT_EQ(Ask(tool, "portholder box").body, kFull);
}

TEST_F(CommandTest, HolderIsAskedForByModelBeforeState) {
  ConsoleNode* cnode = AddHeld("box");
  cnode->status = kNotConnected;
  const DebugCapture debug(kTrace);
  Execute("who box");
  EXPECT_EQ(rheader.count, 0U);
  EXPECT_TRUE(debug.Has("Entering IsPellox\n"));
  CopyText(cnode->model, "A200");
  cnode->status = kRefused;
  Execute("who box");
  EXPECT_EQ(rheader.count, 0U);
}

// ---- Locks --------------------------------------------------------------------------------------

std::string Hex(RwLock& lock) {
  std::array<char, 32> text{};
  snprintf(text.data(), text.size(), "%lx", reinterpret_cast<unsigned long>(&lock));
  return text.data();
}

/// What the trace says of the console list locks and of memory, in order: "+acl" where a lock is
/// requested, "-acl" where it is released, "malloc" and "error" where one of these is reported.
std::vector<std::string> LockSteps(const DebugCapture& debug) {
  std::vector<std::string> steps;
  for (const std::string& message : debug.Messages()) {
    const bool requested = message.find("Requesting write lock ") != std::string::npos;
    const bool released = message.find("Releasing lock ") != std::string::npos;
    const bool refused = message.find(": "s + cmd_err_msg + "\n") != std::string::npos;
    for (const auto& [lock, name] : {std::pair(&acl_lock, "acl"), std::pair(&icl_lock, "icl")}) {
      if (message.find(Hex(*lock)) == std::string::npos) continue;
      if (requested) steps.push_back("+"s + name);
      if (released) steps.push_back("-"s + name);
    }
    if (message.find(kNoMemoryLine) != std::string::npos) steps.emplace_back("malloc");
    if (refused) steps.emplace_back("error");
  }
  return steps;
}

std::vector<std::string> LockStepsOf(const std::string& line) {
  const DebugCapture debug(kTrace);
  std::string copy = line;
  CommandNode tool{};
  ParseAndExecuteCommand(&tool, copy.data());
  ReleaseRecords();
  return LockSteps(debug);
}

TEST_F(CommandTest, LocksOfEveryCommand) {
  const std::map<std::string, std::vector<std::string>> expected = {
      {"console", {"+icl", "+acl", "-acl", "-icl"}},
      {"mapped_port", {"+icl", "+acl", "-acl", "-icl"}},
      {"who", {"+acl", "+icl", "-acl", "-icl"}},
      {"clear", {"+acl", "+icl", "-icl", "-acl", "error"}},
      {"disable", {"+acl", "+icl", "-icl", "-acl", "error"}},
      {"enable", {"+acl", "+icl", "-icl", "-acl"}},
      {"msg", {"+acl", "-acl"}},
      {"force", {"+icl", "+acl", "-icl", "-acl", "error"}},
      {"portholder", {"+icl", "+acl", "-icl", "-acl", "error"}},
      {"status", {"+icl", "+acl", "-acl", "-icl"}},
      {"stats", {}},
      {"reconnect", {"+icl", "+acl", "-icl", "-acl", "error"}},
  };
  for (const CommandRow& row : CommandTable()) {
    SCOPED_TRACE(row.word);
    const DebugCapture debug(kTrace);
    ASSERT_EQ(Execute(std::string(row.word) + " nobody text"), row.id);
    EXPECT_THAT(LockSteps(debug), ::testing::ElementsAreArray(expected.at(row.word)));
    ReleaseRecords();
  }
}

TEST_F(CommandTest, LocksAreReleasedBeforeAHoldersErrorIsReported) {
  test::AddConsole(i_cons_list, "plain");
  AddHeld("unknown")->pellox_port_holder_ipaddr[0] = '\0';
  for (const char* name : {"plain", "unknown", "nobody"}) {
    EXPECT_THAT(LockStepsOf("portholder "s + name),
                ElementsAre("+icl", "+acl", "-icl", "-acl", "error"))
        << name;
  }
}

/// The first allocation of the command fails.
void ExpectOutOfMemory(const std::string& line, const std::vector<std::string>& steps) {
  SCOPED_TRACE(line);
  const DebugCapture debug(kTrace);
  std::string copy = line;
  CommandNode tool{};
  {
    const FailAllocation failure(1);
    ParseAndExecuteCommand(&tool, copy.data());
    EXPECT_TRUE(failure.reached());
  }
  EXPECT_EQ(rheader.type, kErrorFollows);
  EXPECT_EQ(rheader.count, 15U);
  EXPECT_STREQ(cmd_err_msg, "Out of memory.");
  EXPECT_THAT(LockSteps(debug), ::testing::ElementsAreArray(steps));
  EXPECT_THAT(debug.Messages(), Contains(AnnouncesDaemonError("Out of memory")));
  ReleaseRecords();
}

/// True when another thread could have the lock for writing, or for reading alone.
bool IsFree(RwLock& lock, int (*try_lock)(pthread_rwlock_t*) = pthread_rwlock_trywrlock) {
  bool free = false;
  std::thread([&] {
    free = try_lock(lock.native()) == 0;
    if (free) pthread_rwlock_unlock(lock.native());
  }).join();
  return free;
}

bool IsReadHeld(RwLock& lock) {
  return !IsFree(lock) && IsFree(lock, pthread_rwlock_tryrdlock);
}

TEST_F(CommandTest, WithoutMemoryBothLocksAreReleasedFirst) {
  AddHeld("held");
  const Attached<ConsoleNode> box = ConnectConsole("box");
  ExpectOutOfMemory("console", {"+icl", "+acl", "-acl", "-icl", "malloc"});
  ExpectOutOfMemory("mapped_port", {"+icl", "+acl", "-acl", "-icl", "malloc"});
  ExpectOutOfMemory("status", {"+icl", "+acl", "-acl", "-icl", "malloc"});
  ExpectOutOfMemory("stats", {"malloc"});
  ExpectOutOfMemory("portholder held", {"+icl", "+acl", "-icl", "-acl", "malloc"});
  ExpectOutOfMemory("portholder box", {"+icl", "+acl", "-icl", "-acl", "malloc"});
  EXPECT_TRUE(IsFree(acl_lock));
  EXPECT_TRUE(IsFree(icl_lock));
}

TEST_F(CommandDeathTest, WhoWithoutMemoryForUsersKeepsTheOtherLock) {
  EXPECT_HOLDS_IN_CHILD({
    const Attached<ConsoleNode> box = ConnectConsole("box");
    const Attached<UserNode> user = AttachUser(box.node, "anna");
    ExpectOutOfMemory("who box", {"+acl", "+icl", "-acl", "malloc"});
    EXPECT_TRUE(IsFree(acl_lock));
    EXPECT_TRUE(IsReadHeld(icl_lock));
  });
}

TEST_F(CommandDeathTest, WhoWithoutMemoryForAHolderKeepsTheOtherLock) {
  EXPECT_HOLDS_IN_CHILD({
    AddHeld("held");
    ExpectOutOfMemory("who held", {"+acl", "+icl", "-icl", "malloc"});
    EXPECT_TRUE(IsFree(icl_lock));
    EXPECT_TRUE(IsReadHeld(acl_lock));
  });
}

TEST_F(CommandDeathTest, UsersFoundBeforeMemoryRanOutAreReleased) {
  EXPECT_HOLDS_IN_CHILD({
    std::vector<Attached<ConsoleNode>> consoles;
    std::vector<Attached<UserNode>> users;
    for (const char* name : {"BOX", "box"}) {
      consoles.push_back(ConnectConsole(name));
      users.push_back(AttachUser(consoles.back().node, name));
    }
    const FailAllocation failure(2);
    EXPECT_EQ(Execute("who box"), kWhoCommand);
    EXPECT_EQ(Error(), "Out of memory.");
    ReleaseRecords();
  });
}

// ---- Names that differ in case alone ------------------------------------------------------------

/// Two connected consoles, "BOX" and "box", each with a user of its name.
class TwinTest : public CommandTest {
 protected:
  TwinTest() {
    CopyText(upper_user_.node->ipaddr, "10.0.0.1");
    CopyText(lower_user_.node->ipaddr, "10.0.0.2");
  }

  Attached<ConsoleNode> upper_ = ConnectConsole("BOX");
  Attached<ConsoleNode> lower_ = ConnectConsole("box");
  Attached<UserNode> upper_user_ = AttachUser(upper_.node, "BOX");
  Attached<UserNode> lower_user_ = AttachUser(lower_.node, "box");
  Attached<CommandNode> tool_ = Connect();
};

TEST_F(TwinTest, QueriesGiveBoth) {
  const Answer consoles = Ask(tool_, "console bOx");
  ASSERT_EQ(consoles.count, 2U);
  EXPECT_EQ(Field(consoles.body, 0, 64), "BOX");
  EXPECT_EQ(Field(consoles.body, kConsolePacketSize, 64), "box");
  EXPECT_EQ(Ask(tool_, "mapped_port bOx").count, 2U);
}

TEST_F(TwinTest, WhoAddsUp) {
  const Answer answer = Ask(tool_, "who bOx");
  ASSERT_EQ(answer.count, 2U);
  EXPECT_EQ(Field(answer.body, 0, 32), "BOX");
  EXPECT_EQ(Field(answer.body, kUserPacketSize, 32), "box");
}

TEST_F(TwinTest, WhoStopsAtOneWithoutUsers) {
  CloseUserConnections(upper_.node, "test");
  AddHeld("Box");
  const Answer answer = Ask(tool_, "who bOx");
  ASSERT_EQ(answer.count, 1U);
  EXPECT_EQ(Field(answer.body, 0, 32), "Unknown");
}

TEST_F(TwinTest, ClearMeetsTheFirstAlone) {
  EXPECT_EQ(Ask(tool_, "clear bOx").type, kDone);
  EXPECT_EQ(upper_.node->user_list->head, nullptr);
  EXPECT_EQ(upper_user_.node->connected, 0);
  EXPECT_NE(lower_.node->user_list->head, nullptr);
  EXPECT_EQ(lower_user_.node->connected, 1);
  EXPECT_EQ(upper_.node->status, kConnected);
}

TEST_F(TwinTest, DisableAndEnableMeetAll) {
  EXPECT_EQ(Ask(tool_, "disable bOx").type, kDone);
  for (const ConsoleNode* cnode : {upper_.node, lower_.node}) {
    EXPECT_EQ(cnode->enable, 0);
    EXPECT_EQ(cnode->status, kNotConnected);
    EXPECT_EQ(cnode->user_list->head, nullptr);
  }
  EXPECT_EQ(Ask(tool_, "enable bOx").type, kDone);
  for (const ConsoleNode* cnode : {upper_.node, lower_.node}) {
    EXPECT_EQ(cnode->enable, 1);
    EXPECT_EQ(cnode->status, kNotConnected);
  }
}

TEST_F(TwinTest, MessageMeetsAll) {
  EXPECT_EQ(Ask(tool_, "msg bOx hello").type, kDone);
  for (const Attached<UserNode>* user : {&upper_user_, &lower_user_}) {
    EXPECT_NE(ReceiveAvailable(user->peer.get()).find("hello"), std::string::npos);
  }
}

TEST_F(TwinTest, OneHolderEach) {
  const Answer answer = Ask(tool_, "portholder bOx");
  EXPECT_EQ(answer.count, 2U);
  EXPECT_EQ(answer.body, Padded("10.0.0.1", 64) + Padded("10.0.0.2", 64));
}

TEST_F(TwinTest, HolderAfterClearIsTheDaemonAndTheLastAskedFor) {
  Ask(tool_, "clear bOx");
  const Answer answer = Ask(tool_, "portholder bOx");
  EXPECT_EQ(answer.count, 1U);
  EXPECT_EQ(answer.body, Padded("127.0.0.1", 64));
}

TEST_F(TwinTest, UnconnectedOnesAreMetOnlyWithoutConnectedOnes) {
  ConsoleNode* away = test::AddConsole(i_cons_list, "Box");
  Ask(tool_, "disable bOx");
  EXPECT_EQ(away->enable, 1);
  away->enable = 0;
  Ask(tool_, "enable bOx");
  EXPECT_EQ(away->enable, 0);
}

// ---- Control ------------------------------------------------------------------------------------

TEST_F(CommandTest, DisableAndEnableOfUnconnectedConsoles) {
  ConsoleNode* upper = test::AddConsole(i_cons_list, "BOX", -1, kRefused);
  ConsoleNode* lower = test::AddConsole(i_cons_list, "box", -1, kInProgress);
  const DebugCapture debug;
  EXPECT_EQ(Execute("disable Box"), kDisableCommand);
  EXPECT_EQ(rheader.type, kDone);
  for (const ConsoleNode* cnode : {upper, lower}) {
    EXPECT_EQ(cnode->enable, 0);
    EXPECT_EQ(cnode->status, kNotConnected);
  }
  upper->status = kRefused;
  EXPECT_EQ(Execute("enable Box"), kEnableCommand);
  for (const ConsoleNode* cnode : {upper, lower}) EXPECT_EQ(cnode->enable, 1);
  EXPECT_EQ(upper->status, kRefused);
  EXPECT_EQ(lower->status, kNotConnected);
  EXPECT_EQ(debug.Count("DisableConsole: Console has been disabled by op@192.0.2.7\n"), 1);
}

TEST_F(CommandTest, DisabledConsoleEndsTheMonitorsWait) {
  const Attached<ConsoleNode> box = ConnectConsole("box");
  cons_mon_waker.Drain();
  Execute("disable box");
  timeval wait = {10, 0};
  DescriptorSet nobody;
  EXPECT_EQ(WaitForMembers(-1, nobody, cons_mon_waker, &wait), 0);
  EXPECT_GT(wait.tv_sec, 0);
}

TEST_F(CommandTest, ClearOfAnUnconnectedConsoleChangesNothing) {
  ConsoleNode* away = test::AddConsole(i_cons_list, "away", -1, kRefused);
  const DebugCapture debug;
  EXPECT_EQ(Execute("clear AWAY"), kClearCommand);
  EXPECT_EQ(rheader.type, kDone);
  EXPECT_EQ(away->status, kRefused);
  EXPECT_EQ(away->enable, 1);
  EXPECT_THAT(debug.Messages(), IsEmpty());
}

TEST_F(CommandTest, ForceOfAnUnconnectedConsole) {
  ConsoleNode* waiting = test::AddConsole(i_cons_list, "BOX");
  ConsoleNode* trying = test::AddConsole(i_cons_list, "box", 99, kInProgress);
  for (ConsoleNode* cnode : {waiting, trying}) cnode->lfca_time = 5;
  EXPECT_EQ(Execute("force Box"), kForceCommand);
  EXPECT_EQ(rheader.type, kDone);
  EXPECT_EQ(waiting->force, 1);
  EXPECT_EQ(waiting->lfca_time, 0);
  EXPECT_EQ(trying->force, 1);
  EXPECT_EQ(trying->lfca_time, 5);  // an attempt is under way
  trying->sock = -1;
}

TEST_F(CommandTest, ForceOfAConnectedConsole) {
  const Attached<ConsoleNode> box = ConnectConsole("box");
  box.node->lfca_time = 5;
  EXPECT_EQ(Execute("force BOX"), kForceCommand);
  EXPECT_EQ(rheader.type, kDone);
  EXPECT_EQ(box.node->force, 0);
  EXPECT_EQ(box.node->lfca_time, 5);
}

TEST_F(CommandTest, ReconnectForgetsTheLastFailureAndNothingElse) {
  ConsoleNode* upper = test::AddConsole(i_cons_list, "Box", 7, kInProgress);
  ConsoleNode* lower = test::AddConsole(i_cons_list, "box", -1, kRefused);
  ConsoleNode* other = test::AddConsole(i_cons_list, "other", -1, kNotConnected);
  for (ConsoleNode* cnode : {upper, lower, other}) {
    cnode->lfca_time = 1000;
    cnode->lsca_time = 2000;
    cnode->enable = 0;
  }
  EXPECT_EQ(Execute("reconnect BOX"), kReconnectCommand);
  EXPECT_EQ(rheader.type, kDone);
  EXPECT_EQ(upper->lfca_time, 0);
  EXPECT_EQ(lower->lfca_time, 0);
  EXPECT_EQ(other->lfca_time, 1000);
  EXPECT_EQ(upper->status, kInProgress);
  EXPECT_EQ(lower->status, kRefused);
  for (const ConsoleNode* cnode : {upper, lower}) {
    EXPECT_EQ(cnode->lsca_time, 2000);
    EXPECT_EQ(cnode->enable, 0);
    EXPECT_EQ(cnode->force, 0);
  }
  upper->sock = -1;
}

TEST_F(CommandTest, ReconnectOfAConnectedConsoleChangesNothing) {
  const Attached<ConsoleNode> box = ConnectConsole("box");
  box.node->lfca_time = 1000;
  EXPECT_EQ(Execute("reconnect box"), kReconnectCommand);
  EXPECT_EQ(rheader.type, kDone);
  EXPECT_EQ(box.node->lfca_time, 1000);
  EXPECT_EQ(box.node->status, kConnected);
}

TEST_F(CommandTest, ReconnectOfAnUnknownConsole) {
  EXPECT_EQ(Execute("reconnect nobody"), kReconnectCommand);
  EXPECT_EQ(Error(), "Unrecognized console \"nobody\".");
}

/// What a command says at level 1.
std::vector<std::string> SaidBy(std::string line) {
  const DebugCapture debug;
  CommandNode tool{};
  ParseAndExecuteCommand(&tool, line.data());
  ReleaseRecords();
  return debug.Messages();
}

TEST_F(CommandTest, ErrorsThatAreLoggedAndErrorsThatAreNot) {
  const std::string text = ": Unrecognized console \"nobody\".\n";
  EXPECT_THAT(SaidBy("enable nobody"), IsEmpty());
  for (const char* line : {"console nobody", "who nobody", "mapped_port nobody", "nonsense"}) {
    EXPECT_THAT(SaidBy(line), IsEmpty()) << line;
  }
  EXPECT_THAT(SaidBy("portholder nobody"), ElementsAre("PelloxPortHolder" + text));
  EXPECT_THAT(SaidBy("force nobody"), ElementsAre("ForceKPMConnection" + text));
  const DebugCapture debug;
  EXPECT_EQ(Execute("msg nobody hello"), kMsgCommand);
  EXPECT_EQ(Error(), "Unrecognized console \"nobody\".");
  EXPECT_THAT(debug.Messages(), IsEmpty());
  Execute("clear nobody");
  EXPECT_EQ(Error(), "Unrecognized console \"nobody\".");
  Execute("disable nobody");
  EXPECT_EQ(Error(), "Unrecognized console \"nobody\".");
  EXPECT_THAT(debug.Messages(), ElementsAre("ClearConsole" + text, "DisableConsole" + text));
}

TEST_F(CommandTest, HoldersThatCannotBeTold) {
  test::AddConsole(i_cons_list, "plain");
  AddHeld("unknown")->pellox_port_holder_ipaddr[0] = '\0';
  EXPECT_THAT(SaidBy("portholder PLAIN"), ElementsAre("PelloxPortHolder: Not a Pellox console.\n"));
  EXPECT_EQ(Error(), "Not a Pellox console.");
  EXPECT_THAT(SaidBy("portholder unknown"),
              ElementsAre("PelloxPortHolder: Unable to connect to remote host, possibly bad port "
                          "number.\n"));
  EXPECT_EQ(Error(), "Unable to connect to remote host, possibly bad port number.");
}

// ---- Texts --------------------------------------------------------------------------------------

/// One console with one user, and an operator whose name and address are as long as they can be.
class TextTest : public CommandTest {
 protected:
  TextTest() {
    CopyText(operator_.user_name, name_.c_str());
    CopyText(operator_.ipaddr, address_.c_str());
  }

  std::string Told() const { return ReceiveAvailable(user_.peer.get()); }

  /// The frame as it is sent.
  static std::string Framed(const std::string& text) {
    const std::string rule(78, '*');
    const std::string frame =
        "\a\a\a\a\a\r\n\r\n" + rule + "\r\n\r\n" + text + "\r\n\r\n" + rule + "\r\n\r\n";
    return frame.substr(0, kMessageBufferSize - 1);
  }

  std::string name_ = std::string(32, 'n');
  std::string address_ = std::string(64, 'a');
  CommandNode operator_{};
  Attached<ConsoleNode> box_ = ConnectConsole("box");
  Attached<UserNode> user_ = AttachUser(box_.node, "anna");
};

TEST_F(TextTest, Clear) {
  const DebugCapture debug;
  ClearConsole("BOX", &operator_);
  const std::string text = "Your session has been terminated by " + name_ + "@" + address_;
  EXPECT_EQ(Told(), Framed(text));
  EXPECT_THAT(debug.Messages(),
              ElementsAre("ClearConsole: " + text + "\n",
                          "SendMsgToUsers: The following message was sent to \"anna@192.0.2.1\": " +
                              Framed(text) + "\n"));
}

TEST_F(TextTest, Disable) {
  const DebugCapture debug;
  DisableConsole("BOX", &operator_);
  const std::string text = "Console has been disabled by " + name_ + "@" + address_;
  EXPECT_EQ(Told(), Framed(text));
  EXPECT_EQ(debug.Messages().front(), "DisableConsole: " + text + "\n");
}

TEST_F(TextTest, Message) {
  SendMsgToConsole("BOX", &operator_, "back at noon\n");
  EXPECT_EQ(Told(), Framed("Message from " + name_ + "@" + address_ + ": \n\n\rback at noon\n"));
}

TEST_F(TextTest, LongMessageIsCutTwice) {
  const std::string message(1000, 'm');
  SendMsgToConsole("box", &operator_, message.c_str());
  const std::string text = "Message from " + name_ + "@" + address_ + ": \n\n\r" + message;
  const std::string told = Told();
  EXPECT_EQ(told.size(), 1023U);
  EXPECT_EQ(told, Framed(text.substr(0, 1023)));
}

TEST_F(TextTest, MessageToEverybody) {
  const Attached<ConsoleNode> other = ConnectConsole("other");
  const Attached<UserNode> ben = AttachUser(other.node, "ben");
  SendMsgToConsole("-", &operator_, "x");
  EXPECT_EQ(rheader.type, kDone);
  EXPECT_EQ(Told(), ReceiveAvailable(ben.peer.get()));
}

// ---- The thread as a whole ----------------------------------------------------------------------

void ParkMonitor() {
  thread_waitreq_mask |= kPauseCmdMon;
  cmd_mon_waker.Wake();
  EXPECT_TRUE(test::Eventually([] { return thread_waiting_mask == kPauseCmdMon; }));
}

// The thread never ends, so it runs in a process of its own.
void ExpectCommandsToBeServed(const Attached<CommandNode>& tool) {
  const DebugCapture debug(kTrace);
  std::thread([] { CommandMonitorThreadStart(nullptr); }).detach();
  const std::string nothing = "\x01\0\0\0\0\0\0\0"s;
  test::SendText(tool.peer.get(), "console\n");
  EXPECT_EQ(test::Receive(tool.peer.get(), kHeaderSize), nothing);
  ParkMonitor();
  EXPECT_EQ(kPauseCmdMon, 0x10);
  EXPECT_TRUE(IsFree(cmd_lock));
  test::SendText(tool.peer.get(), "console\n");
  EXPECT_EQ(ReceiveAvailable(tool.peer.get()), "");  // it stands still
  thread_waitreq_mask &= ~kPauseCmdMon;
  EXPECT_EQ(test::Receive(tool.peer.get(), kHeaderSize), nothing);
  EXPECT_TRUE(test::Eventually([] { return thread_waiting_mask == 0; }));
  shutdown(tool.peer.get(), SHUT_WR);
  EXPECT_EQ(test::Receive(tool.peer.get(), 1), "");
  ParkMonitor();  // for the rest of this process
  EXPECT_EQ(cmd_list->count, 0);
  for (const test::DebugLine& line : debug.Lines()) {
    const bool by_monitor = line.text.find("ProcessCommand") != std::string::npos;
    EXPECT_TRUE(!by_monitor || line.thread == "cmd_mon") << line.text;
  }
}

TEST_F(CommandDeathTest, ThreadServesParksAndRemoves) {
  EXPECT_HOLDS_IN_CHILD(ExpectCommandsToBeServed(Connect()));
}

// The thread's first pass finds no memory for its set, and its second begins.
void ExpectAPauseWithoutMemory() {
  const DebugCapture debug;
  std::array<useconds_t, 3> sleeps{};
  std::atomic<size_t> count = 0;
  std::thread([&] {
    std::optional<FailAllocation> failure;
    test::FakeClock clock;
    clock.OnSleep([&](useconds_t time) {
      sleeps.at(count) = time;
      if (count == 0) failure.emplace(1);
      if (++count < sleeps.size()) return;
      for (;;) pause();
    });
    MonitorCommands();
  }).detach();
  EXPECT_TRUE(test::Eventually([&] { return count == sleeps.size(); }));
  EXPECT_THAT(sleeps, ElementsAre(500, 2000000, 500));
  EXPECT_THAT(debug.Messages(), ElementsAre("MonitorCommands: "s + kNoMemoryLine));
}

TEST_F(CommandDeathTest, PassWithoutMemoryLastsAsLongAsAWait) {
  const Attached<CommandNode> tool = Connect();
  EXPECT_HOLDS_IN_CHILD(ExpectAPauseWithoutMemory());
}

}  // namespace
