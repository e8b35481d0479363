#include "command.h"

#include <unistd.h>

#include <cstdlib>
#include <new>

#include "error.h"
#include "list_functions.h"
#include "user.h"

namespace zevd {

CommandList* NewCommandList(const char* list_name) {
  ENTERING();
  return NewNamedList(list_name, InitCommandList, ReportNoMemory);
}

void InitCommandList(CommandList* list, const char* list_name) {
  ENTERING();
  InitNamedList(list, list_name, ReportNoMemory);
}

void FreeCommandList(CommandList* list) {
  ENTERING();
  FreeListRecord(list);
}

CommandNode* NewCommandNode(const char* user_name, const char* ipaddr) {
  ENTERING();
  auto* tool = new (std::nothrow) CommandNode{};
  if (tool == nullptr) {
    ReportNoMemory(__func__);
    return nullptr;
  }
  tool->sock = -1;
  CopyText(tool->user_name, user_name);
  CopyText(tool->ipaddr, ipaddr);
  return tool;
}

void FreeCommandNode(CommandNode* tool) {
  ENTERING();
  free(tool->answer.records);
  delete tool;
}

CommandListElem* NewCommandListElem(CommandNode* tool) {
  ENTERING();
  return NewElement<CommandList>(tool, ReportNoMemory);
}

int AddCommandToList(CommandNode* tool, CommandList* list) {
  ENTERING();
  CommandListElem* elem = MakeElement(*list, tool, NewCommandListElem, ReportNoMemory);
  if (elem == nullptr) {
    zev_debug(kError, "%s: NewCommandListElem() failed\n", __func__);
    return -1;
  }
  LinkAtTail(*list, elem);
  zev_debug(kTrace, "%s: Added command to %s.\n", __func__, list->list_name);
  Recompute(*list);
  return 0;
}

int RemoveCommandFromList(CommandNode* tool, CommandList* list) {
  ENTERING();
  // The message keeps the name under which operators' filters know the record.
  if (!UnlinkNode(*list, tool)) INTERNAL_ERROR("%s: cnode not found in cmd_list\n", __func__);
  if (list->count < 0) INTERNAL_ERROR("%s: cmd_list->count = %d\n", __func__, list->count);
  Recompute(*list);
  return 0;
}

void CloseCommandConnection(CommandNode* tool) {
  ENTERING();
  close(tool->sock);
  tool->connected = 0;
}

}  // namespace zevd
