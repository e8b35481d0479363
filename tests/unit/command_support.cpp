#include "command_support.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "attach.h"
#include "cmd_mon.h"
#include "cmd_mon_steps.h"
#include "lists.h"

using namespace zevd;

namespace test {

uint32_t LittleEndian(const std::string& bytes, size_t offset, size_t width) {
  uint32_t value = 0;
  for (size_t i = 0; i < width; ++i) {
    value |= static_cast<uint32_t>(static_cast<unsigned char>(bytes.at(offset + i))) << (8 * i);
  }
  return value;
}

std::string FieldText(const std::string& body, size_t offset, size_t width) {
  const std::string field = body.substr(offset, width);
  return field.substr(0, field.find('\0'));
}

std::string Padded(const std::string& text, size_t width) {
  return text + std::string(width - text.size(), '\0');
}

std::string Bytes16(unsigned value) {
  return {static_cast<char>(value & 0xFF), static_cast<char>(value >> 8)};
}

CommandTest::CommandTest() {
  EXPECT_TRUE(cmd_mon_waker.descriptor() != -1 || cmd_mon_waker.Open());
  rheader = {};
  static char model[] = "M100";
  static char series[] = "PX";
  model_list.m[0] = {model, series};
  model_list.count = 1;
}

CommandTest::~CommandTest() {
  model_list = {};
  ReleaseRecords();
  for (const CommandNode* tool : Nodes(*cmd_list)) close(tool->sock);
}

Attached<CommandNode> CommandTest::Connect(const char* name, int small_buffer) {
  SocketPair pair;
  if (small_buffer > 0) {
    setsockopt(pair.ours.get(), SOL_SOCKET, SO_SNDBUF, &small_buffer, sizeof small_buffer);
  }
  EXPECT_EQ(MonitorSocketForCommands(pair.ours.Release(), name, kOperatorAddress), 0);
  return {cmd_list->tail->tool, std::move(pair.theirs)};
}

void CommandTest::Pass() {
  DescriptorSet lines;
  DescriptorSet room;
  ASSERT_TRUE(lines.CopyFrom(cmd_list->fdset));
  if (CheckForCommand(cmd_list->high_sock, &lines, &room) == 0) return;
  ProcessCommand(lines);
  cmd_mon::CleanUpClosedConnections();
}

Answer CommandTest::Received(const Attached<CommandNode>& tool) {
  const std::string bytes = ReceiveAvailable(tool.peer.get());
  if (bytes.size() < kHeaderSize) {
    ADD_FAILURE() << "there is no answer";
    return {};
  }
  return {LittleEndian(bytes, 0, 4), LittleEndian(bytes, 4, 4), bytes.substr(kHeaderSize)};
}

Answer CommandTest::Ask(const Attached<CommandNode>& tool, const std::string& line) {
  cmd_mon_waker.Drain();
  SendText(tool.peer.get(), line + "\n");
  Pass();
  return Received(tool);
}

std::string CommandTest::Error() {
  EXPECT_EQ(rheader.type, kErrorFollows);
  EXPECT_EQ(rheader.count, strlen(cmd_err_msg) + 1);
  return cmd_err_msg;
}

CommandId CommandTest::Execute(std::string line) {
  CommandNode tool{};
  CopyText(tool.user_name, kOperator);
  CopyText(tool.ipaddr, kOperatorAddress);
  return ParseAndExecuteCommand(&tool, line.data());
}

std::vector<std::string> CommandTest::SaidBy(std::string line) {
  const DebugCapture debug;
  Execute(std::move(line));
  ReleaseRecords();
  return debug.Messages();
}

ConsoleNode* CommandTest::AddHeld(const char* name) {
  ConsoleNode* cnode = AddConsole(i_cons_list, name, -1, kRefused);
  CopyText(cnode->model, "M100");
  CopyText(cnode->pellox_port_holder_ipaddr, "10.1.1.1");
  return cnode;
}

TwinTest::TwinTest() {
  CopyText(upper_user_.node->ipaddr, "10.0.0.1");
  CopyText(lower_user_.node->ipaddr, "10.0.0.2");
}

namespace {

// How the trace names a lock.
std::string Address(RwLock& lock) {
  std::array<char, 32> text{};
  snprintf(text.data(), text.size(), "%lx", reinterpret_cast<unsigned long>(&lock));
  return text.data();
}

bool Can(int (*try_lock)(pthread_rwlock_t*), RwLock& lock) {
  bool taken = false;
  std::thread([&] {
    taken = try_lock(lock.native()) == 0;
    if (taken) pthread_rwlock_unlock(lock.native());
  }).join();
  return taken;
}

}  // namespace

std::vector<std::string> LockSteps(const DebugCapture& debug) {
  std::vector<std::string> steps;
  for (const std::string& message : debug.Messages()) {
    const bool requested = message.find("Requesting write lock ") != std::string::npos;
    const bool released = message.find("Releasing lock ") != std::string::npos;
    const bool refused = message.find(std::string(": ") + cmd_err_msg + "\n") != std::string::npos;
    for (const auto& [lock, name] : {std::pair(&acl_lock, "acl"), std::pair(&icl_lock, "icl")}) {
      if (message.find(Address(*lock)) == std::string::npos) continue;
      if (requested) steps.push_back(std::string("+") + name);
      if (released) steps.push_back(std::string("-") + name);
    }
    if (message.find(kNoMemoryLine) != std::string::npos) steps.emplace_back("malloc");
    if (refused) steps.emplace_back("error");
  }
  return steps;
}

bool IsFree(RwLock& lock) {
  return Can(pthread_rwlock_trywrlock, lock);
}

bool IsReadHeld(RwLock& lock) {
  return !IsFree(lock) && Can(pthread_rwlock_tryrdlock, lock);
}

}  // namespace test
