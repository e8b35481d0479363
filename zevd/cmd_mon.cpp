// The life of the thread "cmd_mon", and the commands of the management tools.
//
// main starts it; it never ends. It makes a pass at least every 2 seconds: a command, room for the
// rest of an answer or a new connection ends the wait in select() (cmd_mon_waker does so for the
// last). It reads, executes and answers with cmd_lock held for writing, one command after another.
// Inside, each command takes the console list locks that it needs: acl_lock alone for "msg",
// otherwise acl_lock and icl_lock as a pair, in either order. No send waits for its tool: what
// finds no room stays with the connection. It alone closes the sockets of cmd_list and frees their
// records. The response state (answer.h) is its own.
#include "cmd_mon.h"

#include <strings.h>
#include <sys/select.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>

#include "audit.h"
#include "clock.h"
#include "cmd_mon_steps.h"
#include "command_wire.h"
#include "control.h"
#include "counters.h"
#include "error.h"
#include "list.h"
#include "lists.h"
#include "liveness.h"
#include "query.h"
#include "status.h"
#include "threads.h"
#include "utf8.h"
#include "util.h"
#include "waker.h"
#include "zev_signal.h"

namespace zevd {

namespace {

constexpr timeval kSelectLimit = {2, 0};
constexpr useconds_t kWithoutWait = 2000000;  // microseconds; instead of a wait in select()
constexpr size_t kLineSize = 1024;
constexpr char kLoop[] = "MonitorCommands";

/// What one pass waits for.
struct WatchedSockets {
  int high_sock = -1;
  DescriptorSet lines;  ///< of tools that may send a command
  DescriptorSet room;   ///< of tools that have not taken all of their last answer
  bool unsent = false;  ///< there is such a tool
};

// False when out of memory.
bool CopyCommandSockets(WatchedSockets* watched) {
  const ReadLock lock(cmd_lock, CallSite{kLoop, __LINE__});
  watched->high_sock = cmd_list->high_sock;
  watched->unsent = false;
  watched->room.Clear();
  if (!watched->lines.CopyFrom(cmd_list->fdset)) return false;
  for (const CommandNode* tool : Nodes(*cmd_list)) {
    if (!tool->answer.IsUnsent()) continue;
    watched->unsent = true;
    watched->lines.Remove(tool->sock);
    if (!watched->room.Add(tool->sock)) return false;
  }
  return true;
}

void ServeCommands(WatchedSockets* watched) {
  if (!CopyCommandSockets(watched)) {
    ReportOutOfMemory(kLoop);
    usleep(kWithoutWait);
    return;
  }
  const int ready = CheckForCommand(watched->high_sock, &watched->lines, &watched->room);
  if (ready == 0 && !watched->unsent) return;
  const WriteLock lock(cmd_lock, CallSite{kLoop, __LINE__});
  if (watched->unsent) cmd_mon::SendUnsentAnswers();
  ProcessCommand(watched->lines);
  cmd_mon::CleanUpClosedConnections();
}

void LookForVanished(Throttle* looks) {
  if (!looks->IsDue()) return;
  const WriteLock lock(cmd_lock, CallSite{kLoop, __LINE__});
  cmd_mon::CloseVanishedTools();
  cmd_mon::CleanUpClosedConnections();
}

bool IsClosed(const CommandNode& tool) REQUIRES(cmd_lock) {
  return tool.connected == 0;
}

void ServeConnection(CommandNode* tool) REQUIRES(cmd_lock) {
  char line[kLineSize];
  const int result = ReadLine(tool->sock, line, sizeof line);
  if (result != 0) {
    DEBUG_AS("ProcessCommand", kDetail, "ReadLine() returned %d\n", result);
    CloseCommandConnection(tool);
    return;
  }
  DEBUG_AS("ProcessCommand", kDetail, "Received command \"%s\" from \"%s\" at \"%s\".\n", line,
           tool->user_name, tool->ipaddr);
  counters.commands.Add();
  const CommandId id = ParseAndExecuteCommand(tool, line);
  SendCommandResponse(tool, id);
  ReleaseRecords();
}

}  // namespace

void* CommandMonitorThreadStart(void* /*unused*/) {
  RegisterThread("cmd_mon");
  ENTERING();
  BlockSignal(SIGTERM);
  MonitorCommands();
}

void MonitorCommands() {
  ENTERING();
  WatchedSockets watched;
  Throttle looks(kVanishedLookInterval);
  for (;;) {
    ParkIfAsked(kPauseCmdMon);
    usleep(kPassPause);
    ServeCommands(&watched);
    LookForVanished(&looks);
  }
}

int CheckForCommand(int high_sock, DescriptorSet* fdset, DescriptorSet* room) {
  ENTERING();
  timeval timeout = kSelectLimit;
  const int waker = cmd_mon_waker.descriptor();
  const int highest = std::max(high_sock, waker);
  if (!fdset->Reserve(highest) || !room->Reserve(highest) || !fdset->Add(waker)) {
    // Nothing is known of any socket; they are asked again in the next pass.
    fdset->Clear();
    room->Clear();
    return 0;
  }
  int ready = select(highest + 1, fdset->Native(), room->Native(), nullptr, &timeout);
  if (ready < 0) {
    zev_debug(kError, "%s: select() failed : %s\n", __func__, strerror(errno));
    TERMINATE(kTerminated);
  }
  if (ready > 0 && fdset->Contains(waker)) {
    fdset->Remove(waker);
    cmd_mon_waker.Drain();
    --ready;
  }
  return ready > 0 ? 1 : 0;
}

void ProcessCommand(const DescriptorSet& fdset) {
  ENTERING();
  for (CommandNode* tool : Nodes(*cmd_list)) {
    if (fdset.Contains(tool->sock)) ServeConnection(tool);
  }
}

namespace cmd_mon {

void SendUnsentAnswers() {
  ENTERING();
  for (CommandNode* tool : Nodes(*cmd_list)) {
    if (tool->answer.IsUnsent()) SendUnsent(tool);
  }
}

void CloseVanishedTools() {
  ENTERING();
  for (CommandNode* tool : Nodes(*cmd_list)) {
    if (tool->connected == 0 || !HasVanished(tool->sock)) continue;
    zev_debug(kInfo, "%s: Tool of \"%s\" at \"%s\" has vanished.\n", __func__, tool->user_name,
              tool->ipaddr);
    CloseCommandConnection(tool);
  }
}

CommandNode* GetClosedConnection() {
  ENTERING();
  return FindNode(*cmd_list, IsClosed);
}

void CleanUpClosedConnections() {
  ENTERING();
  for (CommandNode* tool = GetClosedConnection(); tool != nullptr; tool = GetClosedConnection()) {
    zev_debug(kDetail, "%s: Cleaning up closed command connection.\n", __func__);
    Audit({"leave", "done", &tool->identity, kCommandConsole});
    RemoveCommandFromList(tool, cmd_list);
    FreeCommandNode(tool);
  }
}

}  // namespace cmd_mon

// ---- The command language -----------------------------------------------------------------------

namespace {

constexpr char kWordEnds[] = " \n\r";
constexpr bool kLooks = false;
constexpr bool kActs = true;

constexpr CommandRow kCommands[] = {
    {"console", kConsoleCommand, CommandArgument::kOptionalConsole, kLooks,
     [](char* name, CommandNode*, char*) { ProcessConsoleCommand(name); }},
    {"who", kWhoCommand, CommandArgument::kConsole, kLooks,
     [](char* name, CommandNode*, char*) { ProcessWhoCommand(name); }},
    {"msg", kMsgCommand, CommandArgument::kConsoleAndText, kActs,
     [](char* name, CommandNode* tool, char* text)
         REQUIRES(cmd_lock) { SendMsgToConsole(name, tool, text); }},
    {"clear", kClearCommand, CommandArgument::kConsole, kActs,
     [](char* name, CommandNode* tool, char*) REQUIRES(cmd_lock) { ClearConsole(name, tool); }},
    {"disable", kDisableCommand, CommandArgument::kConsole, kActs,
     [](char* name, CommandNode* tool, char*) REQUIRES(cmd_lock) { DisableConsole(name, tool); }},
    {"enable", kEnableCommand, CommandArgument::kConsole, kActs,
     [](char* name, CommandNode* tool, char*) REQUIRES(cmd_lock) { EnableConsole(name, tool); }},
    {"mapped_port", kMappedPortCommand, CommandArgument::kOptionalConsole, kLooks,
     [](char* name, CommandNode*, char*) { ProcessMappedPortCommand(name); }},
    {"force", kForceCommand, CommandArgument::kConsole, kActs,
     [](char* name, CommandNode* tool, char*)
         REQUIRES(cmd_lock) { ForceKPMConnection(name, tool); }},
    {"portholder", kPortHolderCommand, CommandArgument::kConsole, kLooks,
     [](char* name, CommandNode*, char*) { PelloxPortHolder(name); }},
    {"status", kStatusCommand, CommandArgument::kOptionalConsole, kLooks,
     [](char* name, CommandNode*, char*) { ProcessStatusCommand(name); }},
    {"stats", kStatsCommand, CommandArgument::kNone, kLooks,
     [](char*, CommandNode*, char*) { ProcessStatsCommand(); }},
    {"reconnect", kReconnectCommand, CommandArgument::kConsole, kActs,
     [](char* name, CommandNode*, char*) { ReconnectConsole(name); }},
};

const CommandRow* FindCommand(const char* word) {
  for (const CommandRow& row : kCommands) {
    if (strcasecmp(word, row.word) == 0) return &row;
  }
  return nullptr;
}

bool WantsConsole(const CommandRow& row) {
  return row.argument == CommandArgument::kConsole ||
         row.argument == CommandArgument::kConsoleAndText;
}

void AuditCommand(const CommandRow& row, const char* cons_name, const CommandNode* tool)
    REQUIRES(cmd_lock) {
  const bool done = rheader.type == kDone;
  Audit({row.word, done ? "done" : "refused", &tool->identity, cons_name, nullptr,
         done ? nullptr : cmd_err_msg});
}

CommandId ParserError(const char* text) {
  AnswerError(text);
  return kNoCommand;
}

}  // namespace

std::span<const CommandRow> CommandTable() {
  return kCommands;
}

CommandId ParseAndExecuteCommand(CommandNode* tool, char* cmd) {
  ENTERING();
  const char* end = cmd + strlen(cmd);
  char* rest = nullptr;
  const char* word = strtok_r(cmd, kWordEnds, &rest);
  if (word == nullptr) return ParserError("No command specified.");
  const CommandRow* row = FindCommand(word);
  if (row == nullptr) return ParserError("Invalid command.");
  char* name = strtok_r(nullptr, kWordEnds, &rest);
  if (name == nullptr && WantsConsole(*row)) {
    return ParserError("No console specified.");
  }
  char* text = nullptr;
  if (row->argument == CommandArgument::kConsoleAndText) {
    // What follows the one separator after the name, unchanged; it may be empty.
    char* name_end = name + strlen(name);
    if (name_end == end) return ParserError("No message specified.");
    text = name_end + 1;
  }
  if (text != nullptr) ReplaceControlsOfLine(text);
  row->run(name, tool, text);
  if (row->acts) AuditCommand(*row, name, tool);
  return row->id;
}

}  // namespace zevd
