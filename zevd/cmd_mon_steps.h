// The steps of the thread "cmd_mon" and the command table, for the file itself and for its tests.
#pragma once

#include <span>

#include "answer.h"
#include "command.h"
#include "descriptor_set.h"
#include "locks.h"

namespace zevd {

/// The loop of the thread.
[[noreturn]] void MonitorCommands();

/// Waits for a command on a socket of `fdset`, or for room on one of `room`. 1 when there is either
/// (the sets then hold the sockets that have it), 0 on a time-out, when woken, or when memory is
/// short. Ends the process when select() fails. cmd_mon only.
int CheckForCommand(int high_sock, DescriptorSet* fdset, DescriptorSet* room);

/// Reads, executes and answers one line of every readable connection.
void ProcessCommand(const DescriptorSet& fdset) REQUIRES(cmd_lock);

namespace cmd_mon {

/// Sends more of every answer that found no room; closes a tool that has taken nothing for too
/// long.
void SendUnsentAnswers() REQUIRES(cmd_lock);

/// Closes the tools that have vanished (liveness.h).
void CloseVanishedTools() REQUIRES(cmd_lock);

/// The first closed node of cmd_list, or null.
CommandNode* GetClosedConnection() REQUIRES(cmd_lock);

/// Takes the closed nodes off cmd_list and frees them.
void CleanUpClosedConnections() REQUIRES(cmd_lock);

}  // namespace cmd_mon

/// What a command wants besides its name.
enum class CommandArgument { kNone, kOptionalConsole, kConsole, kConsoleAndText };

/// One row for every command; parsing, dispatch and the tests read the same rows.
struct CommandRow {
  const char* word;  ///< compared without regard to case
  CommandId id;
  CommandArgument argument;
  bool acts;  ///< changes something or tells somebody: it shows in the system log
  /// `cons_name` is null when none was given; `text` is null without kConsoleAndText.
  void (*run)(char* cons_name, CommandNode* tool, char* text);
};

std::span<const CommandRow> CommandTable();

/// Splits the line in place and runs the command, which leaves its answer in the response state
/// (answer.h). Returns the command, kNoCommand for an error that the parser found.
CommandId ParseAndExecuteCommand(CommandNode* tool, char* cmd) REQUIRES(cmd_lock);

}  // namespace zevd
