#include "console_lists.h"

#include <unistd.h>

#include "console_users.h"
#include "error.h"
#include "journal_records.h"
#include "list.h"
#include "log.h"
#include "mapped_port.h"
#include "sliced_walk.h"

namespace zevd {

namespace {

bool Meets(const ConsoleNode& cnode, MoveCriterion criterion) {
  switch (criterion) {
    case MoveCriterion::kConnected:
      return cnode.status == kConnected;
    case MoveCriterion::kNotConnected:
      // A console that was marked closed after the clean-up still has its socket and its users: the
      // next pass cleans it up and moves it.
      return cnode.status != kConnected && cnode.sock == -1;
    case MoveCriterion::kAll:
      return true;
  }
  return false;
}

void DeleteConsole(ConsoleNode* cnode, ConsoleList* list) {
  DEBUG_AS("DeleteMarkedConsoles", kInfo, "Console %s is being deleted.\n", cnode->cname);
  if (cnode->status == kConnected) JournalLost(cnode, "The console was deleted.");
  JournalGone(cnode);
  if (cnode->sock != -1) {
    ForgetSocket(*list, cnode->sock);
    close(cnode->sock);
    cnode->sock = -1;
  }
  CloseLogFile(cnode);
  RemoveConsoleFromList(cnode, list);
  const bool had_port = cnode->mapped_port != 0;
  FreeConsoleNode(cnode);
  // When user_conn looked at the ports after the reload, the console was still on its list.
  if (had_port) RefreshMappedPorts();
}

// For a console that is on no list, because there was no memory for it: nobody else would close
// what it has open. The next reload makes a new record of it.
void AbandonConsole(ConsoleNode* cnode) {
  if (cnode->status == kConnected) JournalLost(cnode, "There was no memory for it.");
  JournalGone(cnode);
  cnode->status = kNotConnected;
  if (cnode->sock != -1) close(cnode->sock.exchange(-1));
  CloseLogFile(cnode);
  if (cnode->ref_count == 0) FreeConsoleNode(cnode);  // else users still point at it
}

}  // namespace

void MoveConsolesToList(ConsoleList* from_list, ConsoleList* to_list, MoveCriterion criterion) {
  ENTERING();
  const ListBatch leaving(*from_list);
  const ListBatch joining(*to_list);
  for (ConsoleNode* cnode : Nodes(*from_list)) {
    if (!Meets(*cnode, criterion)) continue;
    if (RemoveConsoleFromList(cnode, from_list) != 0) {
      zev_debug(kError, "%s: RemoveConsoleFromList() failed.\n", __func__);
      return;
    }
    if (AddConsoleToList(cnode, to_list) != 0) {
      zev_debug(kError, "%s: AddConsoleToList() failed.\n", __func__);
      AbandonConsole(cnode);
      return;
    }
  }
}

void DeleteMarkedConsoles(ConsoleList* list, WriteLock* lock) {
  ENTERING();
  SlicedWalk walk(*list, lock);
  while (const ConsoleListElem* elem = walk.Next()) {
    ConsoleNode* cnode = elem->cnode;
    if (cnode->deleted != 1) continue;
    if (cnode->user_list->head != nullptr) {
      zev_debug(kInfo, "%s: Disconnecting users from %s.\n", __func__, cnode->cname);
      SendMsgToUsers(cnode, "Console has been deleted.");
      CloseUserConnections(cnode, "The console was deleted.");
    } else if (cnode->ref_count > 0) {
      zev_debug(kInfo, "%s: Console %s has ref_count=%d. Cannot delete yet.\n", __func__,
                cnode->cname, cnode->ref_count.load());
      return;
    } else {
      DeleteConsole(cnode, list);
    }
  }
}

}  // namespace zevd
