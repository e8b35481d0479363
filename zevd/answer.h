// The answers of the command port: what a command leaves as its answer, the layout of the records,
// and how an answer goes out. Only the thread cmd_mon uses it. The sizes are in command_wire.h.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "command.h"
#include "command_wire.h"
#include "locks.h"

namespace zevd {

// ---- The present answer -------------------------------------------------------------------------

/// One instance serves every answer. Kept: it is never cleared, so a "done" header carries the
/// count of the answer before it.
struct ResponseHeader {
  uint32_t type;  ///< ResponseType
  uint32_t count;
};

extern ResponseHeader rheader;
extern char cmd_err_msg[kErrorTextSize];  ///< the answer, when it is an error

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

/// Makes room for `count` records, and keeps those that are there. False when out of memory.
bool MakeRoom(size_t count, size_t record_size);

/// The record with that number, from 0, for which there is room.
uint8_t* Record(size_t index, size_t record_size);

/// Lays a record out byte by byte: numbers little-endian, texts cut to their width or padded with
/// NULs, no padding in between.
class PacketWriter {
 public:
  explicit PacketWriter(uint8_t* out) : out_(out) {}

  PacketWriter& Text(const char* text, size_t width);
  PacketWriter& Number16(uint32_t value) { return Number(value, 2); }
  PacketWriter& Number32(uint32_t value) { return Number(value, 4); }
  PacketWriter& Code(const char (&code)[2]);

 private:
  PacketWriter& Number(uint32_t value, int width);

  uint8_t* out_;
};

/// The answer is the first `count` records.
void AnswerRecords(size_t count);

/// The answer is a copy of the text; its count is that of the bytes. False when out of memory.
bool AnswerText(std::string_view text);

/// The command has been carried out.
void AnswerDone();

/// The answer is an error, cut to kErrorTextSize. `format` takes the argument, if there is one.
void AnswerError(const char* format, const char* argument = nullptr);
void AnswerOutOfMemory();

/// There is no console of that name.
void AnswerUnrecognized(const char* cons_name);

/// The same, and reported in the debug output under the name `function`.
void AnswerUnrecognizedAndLog(const char* function, const char* cons_name);

/// Reports the error that is the answer in the debug output, under the name `function`.
void LogError(const char* function);

// ---- Sending ------------------------------------------------------------------------------------

/// Sends the answer, whose records become the connection's, as far as there is room; later passes
/// send the rest. 0, or -1 after a failed send, which has closed the connection.
int SendCommandResponse(CommandNode* tool, int cmd_id) REQUIRES(cmd_lock);

/// Sends what the tool has not taken yet; closes a tool that has taken nothing for too long. Result
/// as above.
int SendUnsent(CommandNode* tool) REQUIRES(cmd_lock);

/// Frees the records that the answer did not take, as when it became an error.
void ReleaseRecords();

}  // namespace zevd
