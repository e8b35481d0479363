#include "service_support.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "error_steps.h"
#include "lists.h"
#include "options.h"
#include "user_conn.h"
#include "user_conn_steps.h"

using namespace zevd;

namespace test {

ReservedPort::ReservedPort() : sock_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  const int on = 1;
  setsockopt(sock_.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  EXPECT_EQ(bind(sock_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  socklen_t length = sizeof address;
  getsockname(sock_.get(), reinterpret_cast<sockaddr*>(&address), &length);
  port_ = ntohs(address.sin_port);
}

std::string ReceiveAll(const Descriptor& client) {
  return Receive(client.get(), 1 << 20);
}

int CheckPorts(DescriptorSet* fdset) {
  EXPECT_TRUE(fdset->CopyFrom(mapped_port_list->fdset));
  return CheckForConnectionRequests(mapped_port_list->high_sock, fdset);
}

PortTest::PortTest() {
  user_port = main_port_.port();
}

PortTest::~PortTest() {
  for (const MappedPortNode* mpnode : Nodes(*mapped_port_list)) close(mpnode->sock);
}

std::vector<uint16_t> PortTest::ListedPorts() {
  std::vector<uint16_t> ports;
  for (const MappedPortNode* mpnode : Nodes(*mapped_port_list)) ports.push_back(mpnode->port);
  return ports;
}

MappedPortNode* PortTest::FindPort(uint16_t port) {
  return FindNode(*mapped_port_list, [&](const auto& mpnode) { return mpnode.port == port; });
}

namespace {

int ThreadsInUse() {
  int count = 0;
  for (const ThreadName& slot : thread_name_list.slot) count += slot.in_use != 0 ? 1 : 0;
  return count;
}

}  // namespace

void AwaitThreads() {
  EXPECT_TRUE(Eventually([] { return ThreadsInUse() == 0; }));
}

ServiceTest::ServiceTest() {
  security_enabled = 0;
  ClearThreadNames();
  mapped_.node->mapped_port = mapped_port_.port();
  EXPECT_EQ(ConfigurePort(user_port), 0);
  EXPECT_EQ(ConfigurePort(mapped_port_.port()), 0);
}

ServiceTest::~ServiceTest() {
  AwaitThreads();
}

void ServiceTest::Accept(uint16_t port) {
  ASSERT_TRUE(WaitReadable(FindPort(port)->sock));
  DescriptorSet fdset;
  ASSERT_EQ(CheckPorts(&fdset), 1);
  AcceptConnectionRequests(&fdset);
}

Descriptor ServiceTest::Call(uint16_t port) {
  Descriptor client = ConnectTo(port);
  Accept(port);
  return client;
}

Descriptor ServiceTest::CallAndSay(uint16_t port, std::string_view line) {
  Descriptor client = ConnectTo(port);
  SendText(client.get(), line);
  Accept(port);
  return client;
}

void ServiceTest::ExpectRefused(const std::string& line, const std::string& text) {
  SCOPED_TRACE(line);
  const Descriptor client = CallAndSay(user_port, line);
  EXPECT_EQ(ReceiveAll(client), text);
  AwaitThreads();
  EXPECT_EQ(user_list->head, nullptr);
  EXPECT_EQ(GetPendingLogins(mapped_port_list, user_port), 0);
}

}  // namespace test
