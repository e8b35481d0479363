// The command port: management tools' connections, the thread "cmd_mon" that serves them, and the
// commands. The layout of the answers is in command_wire.h and docs/protocol.md.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "command_wire.h"
#include "cons_conn.h"
#include "descriptor_set.h"
#include "fixed_text.h"
#include "identity.h"
#include "list.h"
#include "locks.h"
#include "stall.h"

// ---- Connections --------------------------------------------------------------------------------

/// The last answer to a tool. What the tool has no room for is kept here, however long the answer;
/// until it has gone out, no further command is read from that tool.
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

/// One command connection, owned by cmd_list once added. Guarded by cmd_lock.
struct CommandNode {
  int sock;       ///< -1 while the node is new
  int connected;  ///< 0 while new and, on the list, once closed and waiting to be removed
  char user_name[kUserNameSize];
  char ipaddr[kNameSize];
  Identity identity;  ///< who it really is
  OutgoingAnswer answer;
};

struct CommandListElem {
  CommandNode* cnode;
  CommandListElem* prev;
  CommandListElem* next;
};

using CommandList = SocketList<CommandListElem, &CommandListElem::cnode>;

/// The console name by which a client asks for the command port.
inline constexpr char kCommandConsole[] = "@@@@";

/// Makes the socket a command connection. 0: it belongs to the command side and the caller must not
/// touch it again; -1: it is still the caller's, and u_err_msg may say why.
/// `user_name` and `ipaddr` are what others are shown; `identity` is who it really is.
int MonitorSocketForCommands(int sock, const char* user_name, const char* ipaddr,
                             const Identity& identity = {});

void* CommandMonitorThreadStart(void* unused);

// Records and lists; the caller holds cmd_lock for writing. Allocation failures set u_err_msg to
// error 013, are reported, and give null.

CommandList* NewCommandList(const char* list_name);
void InitCommandList(CommandList* list, const char* list_name);

/// Frees the list and its name; elements and nodes are the caller's business.
void FreeCommandList(CommandList* list);

CommandNode* NewCommandNode(const char* user_name, const char* ipaddr);

/// Frees the node with what is left of its answer; does not close the socket.
void FreeCommandNode(CommandNode* cnode);
CommandListElem* NewCommandListElem(CommandNode* cnode);

/// Appends at the tail. 0, or -1 when out of memory.
int AddCommandToList(CommandNode* cnode, CommandList* list);

/// Unlinks the node and neither closes nor frees it. A node that is not there ends the process.
int RemoveCommandFromList(CommandNode* cnode, CommandList* list);

/// Closes the socket and marks the node; it stays on the list until the clean-up.
void CloseCommandConnection(CommandNode* cnode);

/// The loop of the thread.
[[noreturn]] void MonitorCommands();

/// Waits for a command on a socket of `fdset`, or for room on one of `room`. 1 when there is either
/// (the sets then hold the sockets that have it), 0 on time-out. Ends the process when select()
/// fails. cmd_mon only.
int CheckForCommand(int high_sock, DescriptorSet* fdset, DescriptorSet* room);

/// Reads, executes and answers one line of every readable connection.
void ProcessCommand(const DescriptorSet& fdset) REQUIRES(cmd_lock);

namespace cmd_mon {

/// Goes on with every answer that found no room; closes a tool that has taken nothing for too long.
void SendUnsentAnswers() REQUIRES(cmd_lock);

/// Closes the tools that have vanished; see liveness.h.
void CloseVanishedTools() REQUIRES(cmd_lock);

/// The first closed node of cmd_list, or null.
CommandNode* GetClosedConnection() REQUIRES(cmd_lock);
void CleanUpClosedConnections() REQUIRES(cmd_lock);

}  // namespace cmd_mon

// ---- Responses: the cmd_mon thread's own --------------------------------------------------------

/// One instance serves every response and is never cleared: a "done" header still carries the count
/// of the response before it.
struct ResponseHeader {
  uint32_t type;
  uint32_t count;
};

extern ResponseHeader rheader;
extern char cmd_err_msg[kErrorTextSize];

enum CommandId : int {
  kNoCommand = 0,  ///< an error that the parser found
  kConsoleCommand = 1,
  kWhoCommand = 2,
  kMappedPortCommand = 3,
  kClearCommand = 4,
  kDisableCommand = 5,
  kEnableCommand = 6,
  kMsgCommand = 7,
  kForceCommand = 8,
  kPortHolderCommand = 9,
  kStatusCommand = 10,
  kStatsCommand = 11,
  kReconnectCommand = 12,
};

/// What a command wants besides its name.
enum class CommandArgument { kNone, kOptionalConsole, kConsole, kConsoleAndText };

/// One row for every command; parsing, dispatch and the tests read the same rows.
struct CommandRow {
  const char* word;  ///< compared without regard to case
  CommandId id;
  CommandArgument argument;
  bool acts;  ///< changes something or tells somebody: it shows in the system log
  void (*run)(char* cons_name, CommandNode* cmd_node, char* text);
};

std::span<const CommandRow> CommandTable();

/// Splits the line in place and runs the command, which leaves its answer in the response state.
CommandId ParseAndExecuteCommand(CommandNode* cnode, char* cmd);

/// Sends the answer, whose records become the connection's, as far as there is room; the rest
/// follows by itself. 0, or -1 after a failed send, which has closed the connection.
int SendCommandResponse(CommandNode* cnode, int cmd_id);

/// Answers a command with a copy of the text; the answer's count is that of its bytes. False when
/// out of memory.
bool AnswerText(std::string_view text);
void AnswerOutOfMemory();

/// Frees the records of an answer that was given up for an error.
void ReleaseRecords();

// ---- Commands; each takes the list locks itself -------------------------------------------------

void ProcessConsoleCommand(const char* cons_name);
void ProcessWhoCommand(const char* cons_name);
void ProcessMappedPortCommand(const char* cons_name);
void ClearConsole(const char* cons_name, const CommandNode* cmd_node);
void DisableConsole(const char* cons_name, const CommandNode* cmd_node);
void EnableConsole(const char* cons_name);
void SendMsgToConsole(const char* cons_name, const CommandNode* cmd_node, const char* message);
void ForceKPMConnection(const char* cons_name, const CommandNode* cmd_node);
void PelloxPortHolder(const char* cons_name);

/// Has `cons_conn` try a console that is not connected at once, not at its next turn.
void ReconnectConsole(const char* cons_name);

/// The two bytes of a console's status and mode; the caller holds the list's lock.
void GetStatusCode(const ConsoleNode* cnode, char (&status)[2]);
void GetHighPrecedModeCode(const ConsoleNode* cnode, char (&mode)[2]);

/// 1 when a user named "VRQ" is attached in mode 4; such users are hidden from the answers.
int IsVrqUserConnectedERMode(const ConsoleNode* cnode);
