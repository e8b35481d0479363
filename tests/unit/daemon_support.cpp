#include "daemon_support.h"

#include <cstdlib>

#include "lists.h"
#include "options.h"
#include "threads.h"
#include "user.h"

using namespace zevd;

namespace test {

OptionsGuard::OptionsGuard()
    : debug_level_(debug_level),
      security_enabled_(security_enabled),
      cons_buf_size_(cons_buf_size),
      suppress_cr_(suppress_cr),
      foreground_(foreground),
      log_archive_time_(log_archive_time),
      use_cmd_line_arch_time_(USE_CMD_LINE_ARCH_TIME),
      user_port_(user_port),
      max_pending_logins_(max_pending_logins),
      log_dir_(log_dir),
      config_file_(config_file),
      progname_(progname) {}

OptionsGuard::~OptionsGuard() {
  debug_level = debug_level_;
  security_enabled = security_enabled_;
  cons_buf_size = cons_buf_size_;
  suppress_cr = suppress_cr_;
  foreground = foreground_;
  log_archive_time = log_archive_time_;
  USE_CMD_LINE_ARCH_TIME = use_cmd_line_arch_time_;
  user_port = user_port_;
  max_pending_logins = max_pending_logins_;
  log_dir = log_dir_;
  config_file = config_file_;
  progname = progname_;
  u_err_msg = nullptr;
  thread_waitreq_mask = 0;
  thread_waiting_mask = 0;
}

namespace {

template <typename L>
void FreeName(L* list) {
  free(const_cast<char*>(list->list_name));
  list->list_name = nullptr;
}

void FreeUsers(UserList* list) {
  for (UserNode* unode : Nodes(*list)) delete unode;
}

// Leaves the list as it was before it was made.
template <typename L>
void Forget(L* list) {
  DropElements(*list);
  list->count = 0;
  Recompute(*list);
  FreeName(list);
}

void FreeCommands(CommandList* list) {
  for (CommandNode* tool : Nodes(*list)) FreeCommandNode(tool);
}

void FreeMappedPorts(MappedPortList* list) {
  for (MappedPortNode* mpnode : Nodes(*list)) FreeMappedPortNode(mpnode);
}

}  // namespace

GlobalLists::GlobalLists() {
  InitConsoleList(a_cons_list, "a_cons_list");
  InitConsoleList(i_cons_list, "i_cons_list");
  InitUserList(user_list, "user_list");
  InitCommandList(cmd_list, "cmd_list");
  InitEventSetList(ev_list, "ev_list");
  InitMappedPortList(mapped_port_list, "mapped_port_list");
}

GlobalLists::~GlobalLists() {
  FreeUsers(user_list);
  Forget(user_list);
  EmptyConsoleList(a_cons_list);
  Forget(a_cons_list);
  EmptyConsoleList(i_cons_list);
  Forget(i_cons_list);
  FreeCommands(cmd_list);
  Forget(cmd_list);
  EmptyEventSetList(ev_list);
  Forget(ev_list);
  FreeMappedPorts(mapped_port_list);
  Forget(mapped_port_list);
}

}  // namespace test
