#include "console.h"

#include <strings.h>

#include <cstring>
#include <new>

#include "error.h"
#include "list_functions.h"
#include "options.h"

namespace zevd {

namespace {

void TraceNewConsole(const ConsoleSettings& settings) {
  zev_debug(kTrace, "\tcons_name = \"%s\".\n", settings.cname);
  zev_debug(kTrace, "\tplat_name = \"%s\".\n", settings.pname);
  zev_debug(kTrace, "\tipaddr    = \"%s\".\n", settings.ipaddr);
  zev_debug(kTrace, "\tcons_port = \"%d\".\n", settings.cons_port);
  zev_debug(kTrace, "\tmgmt_port = \"%d\".\n", settings.mgmt_port);
  zev_debug(kTrace, "\tlogging   = \"%d\".\n", settings.logging);
  zev_debug(kTrace, "\tevents    = \"%d\".\n", settings.events);
}

// The user list and the replay ring. False when out of memory; what was made is freed with the
// node.
bool AllocateParts(ConsoleNode* cnode) {
  cnode->user_list = new (std::nothrow) UserList;
  if (cnode->user_list == nullptr) return false;
  cnode->user_list->list_name = "console's user list";
  if (cons_buf_size == 0) return true;
  cnode->cons_buf.buf = new (std::nothrow) char[static_cast<size_t>(cons_buf_size)];
  if (cnode->cons_buf.buf == nullptr) return false;
  cnode->cons_buf.buf[0] = '\0';
  return true;
}

}  // namespace

ConsoleNode* NewConsoleNode(const ConsoleSettings& settings) {
  zev_debug(kInfo, "Entering %s\n", __func__);  // the one entry line at level 1
  TraceNewConsole(settings);
  auto* cnode = new (std::nothrow) ConsoleNode{};
  if (cnode == nullptr || !AllocateParts(cnode)) {
    ReportOutOfMemory(__func__);
    if (cnode != nullptr) FreeConsoleNode(cnode);
    return nullptr;
  }
  static_cast<ConsoleSettings&>(*cnode) = settings;
  cnode->sock = -1;
  cnode->log_fd = -1;
  cnode->status = kNotConnected;
  return cnode;
}

void FreeConsoleNode(ConsoleNode* cnode) {
  ENTERING();
  if (cnode->user_list != nullptr) {
    DropElements(*cnode->user_list);
    delete cnode->user_list;
  }
  delete[] cnode->cons_buf.buf;
  delete cnode;
}

ConsoleListElem* NewConsoleListElem(ConsoleNode* cnode) {
  ENTERING();
  return NewElement<ConsoleList>(cnode, ReportOutOfMemory);
}

ConsoleList* NewConsoleList(const char* list_name) {
  ENTERING();
  return NewNamedList(list_name, InitConsoleList, ReportOutOfMemory);
}

void InitConsoleList(ConsoleList* list, const char* list_name) {
  ENTERING();
  InitNamedList(list, list_name, ReportOutOfMemory);
}

void EmptyConsoleList(ConsoleList* list) {
  ENTERING();
  EmptyList(list, RemoveConsoleFromList, FreeConsoleNode);
}

void FreeConsoleList(ConsoleList* list) {
  ENTERING();
  if (list->head != nullptr) EmptyConsoleList(list);
  FreeListRecord(list);
}

int AddConsoleToList(ConsoleNode* cnode, ConsoleList* list) {
  ENTERING();
  ConsoleListElem* elem = MakeElement(*list, cnode, NewConsoleListElem, ReportOutOfMemory);
  if (elem == nullptr) {
    zev_debug(kError, "%s: NewConsoleListElem() failed.\n", __func__);
    return -1;
  }
  LinkAtTail(*list, elem);
  zev_debug(kTrace, "%s: Added console %s to %s.\n", __func__, cnode->cname, list->list_name);
  Recompute(*list);
  return 0;
}

int RemoveConsoleFromList(ConsoleNode* cnode, ConsoleList* list) {
  ENTERING();
  if (!UnlinkNode(*list, cnode)) INTERNAL_ERROR("%s: cnode not found in cons_list\n", __func__);
  zev_debug(kTrace, "%s: Removed console %s from %s.\n", __func__, cnode->cname, list->list_name);
  if (list->count < 0) INTERNAL_ERROR("%s: cons_list->count = %d\n", __func__, list->count);
  zev_debug(kTrace, "%s: Doing FD_CLR( %d, ...) for console %s on %s\n", __func__,
            cnode->sock.load(), cnode->cname, list->list_name);
  Recompute(*list);
  return 0;
}

ConsoleNode* LocateConsoleInList(const char* name, const ConsoleList* list) {
  ENTERING();
  return FindNode(*list, [&](const ConsoleNode& cnode) { return strcmp(cnode.cname, name) == 0; });
}

bool IsCalled(const ConsoleNode& cnode, const char* name) {
  return name == nullptr || strcasecmp(cnode.cname, name) == 0;
}

ConsoleNode* FindByAnyCase(const ConsoleList* list, const char* name) {
  return FindNode(*list, [&](const ConsoleNode& cnode) { return IsCalled(cnode, name); });
}

void DumpConsoles(const ConsoleList* list) {
  ENTERING();
  zev_debug(kError, "Dumping \"%s\"...\n", list->list_name);
  for (const ConsoleNode* cnode : Nodes(*list)) {
    zev_debug(kError, "name           = %s\n", cnode->cname);
    zev_debug(kError, "addr           = %s\n", cnode->ipaddr);
    zev_debug(kError, "cons_port      = %d\n", cnode->cons_port);
    zev_debug(kError, "mgmt_port      = %d\n", cnode->mgmt_port);
    zev_debug(kError, "logging        = %d\n", cnode->logging);
    zev_debug(kError, "events         = %d\n", cnode->events);
    zev_debug(kError, "enable         = %d\n", cnode->enable.load());
    zev_debug(kError, "deleted        = %d\n", cnode->deleted.load());
    zev_debug(kError, "sock           = %d\n", cnode->sock.load());
    zev_debug(kError, "log_fd         = %d\n", cnode->log_fd);
    zev_debug(kError, "status         = %d\n", cnode->status.load());
    zev_debug(kError, "ref_count      = %d\n", cnode->ref_count.load());
    zev_debug(kError, "lfca_time      = %ld\n", cnode->lfca_time);
    zev_debug(kError, "lsca_time      = %ld\n", cnode->lsca_time);
    zev_debug(kError, "telnet_cmd     = %s\n", cnode->telnet_cmd);
    zev_debug(kError, "-----------------------------------------\n\n");
  }
}

}  // namespace zevd
