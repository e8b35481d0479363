#include "connection_support.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

#include "cons_conn.h"
#include "cons_conn_steps.h"
#include "lists.h"

using namespace zevd;

namespace test {

bool WaitFor(int sock, short events) {
  pollfd socket = {sock, events, 0};
  return poll(&socket, 1, 10000) == 1;
}

SilentPort::SilentPort() {
  listen(listener_.get(), 0);
  // The one connection that is waiting to be accepted fills the queue.
  filler_ = ConnectTo(listener_.port());
  if (!WaitReadable(listener_.get())) throw std::runtime_error("nobody connected");
}

ConnectionTest::ConnectionTest() {
  cnode_ = AddAt("mycons", listener_.port());
  static char model[] = "M100";
  static char series[] = "PX";
  model_list.m[0] = {model, series};
  model_list.count = 1;
}

ConnectionTest::~ConnectionTest() {
  model_list = {};
}

ConsoleNode* ConnectionTest::AddAt(const char* name, uint16_t port) {
  ConsoleNode* cnode = AddConsole(i_cons_list, name);
  cnode->cons_port = port;
  return cnode;
}

Descriptor ConnectionTest::Connect() {
  ConnectToConsole(cnode_, 1);
  Descriptor peer = listener_.Accept();
  EXPECT_TRUE(WaitFor(cnode_->sock, POLLOUT));
  return peer;
}

void ConnectionTest::Say(const Descriptor& peer, std::string_view text) {
  SendText(peer.get(), text);
  const bool arrived = Eventually([&] {
    std::string seen(text.size() + 1, '\0');
    const ssize_t count = recv(cnode_->sock, seen.data(), seen.size(), MSG_PEEK | MSG_DONTWAIT);
    return count == static_cast<ssize_t>(text.size());
  });
  EXPECT_TRUE(arrived);
}

std::string ConnectionTest::Place() const {
  return "mycons (127.0.0.1/" + std::to_string(listener_.port()) + ")";
}

}  // namespace test
