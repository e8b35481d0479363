// A management tool's connection to the command port, and lists of such connections.
#pragma once

#include <cstddef>
#include <cstdint>

#include "command_wire.h"
#include "fixed_text.h"
#include "identity.h"
#include "list.h"
#include "locks.h"
#include "stall.h"

namespace zevd {

/// The last answer to a tool. What the tool has no room for is kept here, however long the answer
/// is; until it has gone out, no further command is read from that tool.
struct OutgoingAnswer {
  uint8_t header[kHeaderSize];
  uint8_t text[kErrorTextSize];  ///< of an error
  uint8_t* records;              ///< owned; null when the answer has none, or all have been sent
  size_t piece_size;             ///< bytes of one record, or of the text
  size_t size;                   ///< bytes of it all, header included
  size_t sent;                   ///< bytes that have gone out
  Stall stall;

  bool IsUnsent() const { return sent < size; }
};

/// One command connection, owned by cmd_list once added.
struct CommandNode {
  /// -1 while the node is new. Guarded by cmd_lock, which no annotation can say, because the list's
  /// own functions read it.
  int sock;
  /// 0 while new and, on the list, once closed and waiting to be removed.
  int connected GUARDED_BY(cmd_lock);
  char user_name[kUserNameSize] GUARDED_BY(cmd_lock);
  char ipaddr[kNameSize] GUARDED_BY(cmd_lock);
  Identity identity GUARDED_BY(cmd_lock);  ///< who it really is
  OutgoingAnswer answer GUARDED_BY(cmd_lock);
};

struct CommandListElem {
  CommandNode* tool;
  CommandListElem* prev;
  CommandListElem* next;
};

using CommandList = SocketList<CommandListElem, &CommandListElem::tool>;

/// The console name by which a client asks for the command port.
inline constexpr char kCommandConsole[] = "@@@@";

// Allocation failures set u_err_msg to error 013, are reported, and give null or -1. The caller
// holds cmd_lock for writing, unless nobody else knows the record.

CommandList* NewCommandList(const char* list_name);
void InitCommandList(CommandList* list, const char* list_name);

/// Frees the list and its name; elements and nodes are the caller's business.
void FreeCommandList(CommandList* list);

CommandNode* NewCommandNode(const char* user_name, const char* ipaddr)
    NO_THREAD_SAFETY_ANALYSIS;  // nobody else knows the node yet

/// Frees the node with what is left of its answer; does not close the socket.
void FreeCommandNode(CommandNode* tool) REQUIRES(cmd_lock);
CommandListElem* NewCommandListElem(CommandNode* tool);

/// Appends at the tail. 0 or -1.
int AddCommandToList(CommandNode* tool, CommandList* list) REQUIRES(cmd_lock);

/// Unlinks the node and neither closes nor frees it. A node that is not there ends the process.
int RemoveCommandFromList(CommandNode* tool, CommandList* list) REQUIRES(cmd_lock);

/// Closes the socket and marks the node; it stays on the list until the clean-up.
void CloseCommandConnection(CommandNode* tool) REQUIRES(cmd_lock);

}  // namespace zevd
