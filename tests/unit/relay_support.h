// Consoles and attached users, with the other ends of their connections.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "daemon_support.h"
#include "socket_support.h"
#include "user.h"

namespace test {

using namespace zevd;

/// An enabled console at 127.0.0.1 without ports, logging or events.
ConsoleSettings Settings(const char* name);

struct ConsoleDeleter {
  void operator()(ConsoleNode* cnode) const { FreeConsoleNode(cnode); }
};
using ConsolePtr = std::unique_ptr<ConsoleNode, ConsoleDeleter>;

/// A console that is on no list.
ConsolePtr MakeConsole(const char* name);

/// A new console at the tail of `list`, which owns it.
ConsoleNode* AddConsole(ConsoleList* list, const char* name, int sock = -1,
                        int status = kNotConnected);

/// The names of a list's consoles, in order.
std::vector<std::string> Names(const ConsoleList& list);

/// A console or a user, and the other end of its connection.
template <typename Node>
struct Attached {
  Node* node;
  Descriptor peer;
};

/// Puts a user on the console's list and on user_list; nothing is sent.
Attached<UserNode> AttachUser(ConsoleNode* cnode, const char* name, int mode = kShared);

/// Puts a connected console on a_cons_list.
Attached<ConsoleNode> ConnectConsole(const char* name);

/// A message to users as it is sent: five bells, and the text between two rules.
std::string Banner(const std::string& message);

/// For whatever relays: SIGPIPE is blocked, the wakers are open, and it has been reported already
/// that there is no event manager. At the end the sockets of users and consoles that are still on
/// the lists are closed.
class RelayTest : public DaemonTest {
 protected:
  RelayTest();
  ~RelayTest() override;
};

}  // namespace test
