#include "relay_support.h"

#include <unistd.h>

#include <csignal>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "cancellation.h"
#include "errno_support.h"
#include "event.h"
#include "lists.h"
#include "options.h"
#include "user_output.h"
#include "zev_signal.h"

using namespace zevd;

namespace test {

ConsoleSettings Settings(const char* name) {
  ConsoleSettings settings{};
  CopyText(settings.cname, name);
  CopyText(settings.pname, "platform");
  CopyText(settings.ipaddr, "127.0.0.1");
  CopyText(settings.model, "A200");
  settings.enable = 1;
  return settings;
}

ConsolePtr MakeConsole(const char* name) {
  return ConsolePtr(NewConsoleNode(Settings(name)));
}

ConsoleNode* AddConsole(ConsoleList* list, const char* name, int sock, int status) {
  ConsolePtr cnode = MakeConsole(name);
  cnode->sock = sock;
  cnode->status = status;
  if (AddConsoleToList(cnode.get(), list) != 0) throw std::bad_alloc();
  return cnode.release();
}

std::vector<std::string> Names(const ConsoleList& list) {
  std::vector<std::string> names;
  for (const ConsoleNode* cnode : Nodes(list)) names.emplace_back(cnode->cname);
  return names;
}

Attached<UserNode> AttachUser(ConsoleNode* cnode, const char* name, int mode) {
  SocketPair pair;
  UserNode* unode = NewUserNode(pair.ours.Release(), cnode, name, "192.0.2.1", mode);
  if (!unode->output->Watch()) ThrowErrno("epoll_ctl");
  if (AddUserToList(unode, cnode->user_list) != 0 || AddUserToList(unode, user_list) != 0) {
    throw std::bad_alloc();
  }
  return {unode, std::move(pair.theirs)};
}

Attached<ConsoleNode> ConnectConsole(const char* name) {
  SocketPair pair;
  return {AddConsole(a_cons_list, name, pair.ours.Release(), kConnected), std::move(pair.theirs)};
}

std::string Banner(const std::string& message) {
  constexpr char kRule[] =
      "******************************************************************************";
  static_assert(sizeof kRule == 78 + 1);
  return std::string("\a\a\a\a\a\r\n\r\n") + kRule + "\r\n\r\n" + message + "\r\n\r\n" + kRule +
         "\r\n\r\n";
}

namespace {

void OpenOnce(Waker& waker) {
  if (waker.descriptor() == -1 && !waker.Open()) ThrowErrno("eventfd");
}

template <typename L>
void CloseSockets(const L& list) {
  for (const auto* node : Nodes(list)) {
    const int sock = node->sock;
    if (sock != -1) close(sock);
  }
}

}  // namespace

RelayTest::RelayTest() {
  BlockSignal(SIGPIPE);
  ArrangeCancelSignal();
  OpenOnce(cons_conn_waker);
  OpenOnce(cons_mon_waker);
  OpenOnce(user_conn_waker);
  OpenOnce(user_mon_waker);
  if (UserOutputsDescriptor() == -1 && !OpenUserOutputs()) ThrowErrno("epoll_create1");
  debug_level = kError - 1;
  ConnectToJix();
}

RelayTest::~RelayTest() {
  CloseSockets(*user_list);
  CloseSockets(*a_cons_list);
  CloseSockets(*i_cons_list);
}

}  // namespace test
