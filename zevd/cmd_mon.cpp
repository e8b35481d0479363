// The life of the thread "cmd_mon", and the commands of the management tools.
//
// main starts it; it never ends. It makes a pass at least every 2 seconds: a command, room for the
// rest of an answer or a new connection ends the wait in select() (cmd_mon_waker does so for the
// last). It reads, executes and answers with cmd_lock held for writing, one command after another;
// inside, each command takes the console list locks it needs, as a pair, and never waits while it
// holds one of those. No send waits for its tool: what finds no room stays with the connection. It
// alone closes command sockets and frees their records. The response state below is its own.
#include "cmd_mon.h"

#include <strings.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <new>
#include <utility>

#include "audit.h"
#include "cons_mon.h"
#include "counters.h"
#include "error.h"
#include "liveness.h"
#include "status.h"
#include "user_conn.h"
#include "utf8.h"
#include "util.h"
#include "waker.h"
#include "zev.h"
#include "zev_signal.h"

// ---- Records and lists --------------------------------------------------------------------------

namespace {

void ReportNoMemory(const char* function) {
  SetUserError(kOutOfMemory);
  ReportOutOfMemory(function);
}

}  // namespace

CommandList* NewCommandList(const char* list_name) {
  ENTERING();
  auto* list = new (std::nothrow) CommandList;
  if (list == nullptr) {
    ReportNoMemory(__func__);
    return nullptr;
  }
  InitCommandList(list, list_name);
  if (list->list_name == nullptr) {
    SetUserError(kOutOfMemory);
    delete list;
    return nullptr;
  }
  return list;
}

void InitCommandList(CommandList* list, const char* list_name) {
  ENTERING();
  InitList(*list, list_name);
}

void FreeCommandList(CommandList* list) {
  ENTERING();
  FreeListRecord(list);
}

CommandNode* NewCommandNode(const char* user_name, const char* ipaddr) {
  ENTERING();
  auto* cnode = new (std::nothrow) CommandNode{};
  if (cnode == nullptr) {
    ReportNoMemory(__func__);
    return nullptr;
  }
  cnode->sock = -1;
  CopyText(cnode->user_name, user_name);
  CopyText(cnode->ipaddr, ipaddr);
  return cnode;
}

void FreeCommandNode(CommandNode* cnode) {
  ENTERING();
  free(cnode->answer.records);
  delete cnode;
}

CommandListElem* NewCommandListElem(CommandNode* cnode) {
  ENTERING();
  CommandListElem* elem = NewElement<CommandList>(cnode);
  if (elem == nullptr) ReportNoMemory(__func__);
  return elem;
}

int AddCommandToList(CommandNode* cnode, CommandList* list) {
  ENTERING();
  CommandListElem* elem = nullptr;
  if (ReserveFor(*list, cnode)) {
    elem = NewCommandListElem(cnode);
  } else {
    ReportNoMemory(__func__);
  }
  if (elem == nullptr) {
    zev_debug(kError, "%s: NewCommandListElem() failed\n", __func__);
    return -1;
  }
  LinkAtTail(*list, elem);
  zev_debug(kTrace, "%s: Added command to %s.\n", __func__, list->list_name);
  Recompute(*list);
  return 0;
}

int RemoveCommandFromList(CommandNode* cnode, CommandList* list) {
  ENTERING();
  CommandListElem* elem = FindElement(*list, cnode);
  if (elem == nullptr) {
    zev_debug(kError, "%s: cnode not found in cmd_list\n", __func__);
    TERMINATE(kInternalError);
  }
  Unlink(*list, elem);
  if (list->count < 0) {
    zev_debug(kError, "%s: cmd_list->count = %d\n", __func__, list->count);
    TERMINATE(kInternalError);
  }
  Recompute(*list);
  return 0;
}

// ---- Connections --------------------------------------------------------------------------------

int MonitorSocketForCommands(int sock, const char* user_name, const char* ipaddr,
                             const Identity& identity) {
  ENTERING();
  CommandNode* cnode = NewCommandNode(user_name, ipaddr);
  if (cnode == nullptr) {
    zev_debug(kError, "%s: NewCommandNode() failed\n", __func__);
    return -1;
  }
  cnode->sock = sock;
  cnode->connected = 1;
  cnode->identity = identity;
  const WriteLock lock(cmd_lock, HERE);
  if (AddCommandToList(cnode, cmd_list) != 0) {
    // The node is not freed: a small leak, after an allocation that has failed already.
    // NOLINTNEXTLINE(clang-analyzer-cplusplus.NewDeleteLeaks)
    zev_debug(kError, "%s: AddCommandToList() failed\n", __func__);
    return -1;
  }
  Audit({"attach", "accepted", &cnode->identity, kCommandConsole});
  counters.tools_attached.Add();
  cmd_mon_waker.Wake();
  return 0;
}

void CloseCommandConnection(CommandNode* cnode) {
  ENTERING();
  close(cnode->sock);
  cnode->connected = 0;
}

namespace {

constexpr useconds_t kPassPause = 500;  // microseconds
constexpr timeval kSelectLimit = {2, 0};
constexpr useconds_t kWithoutWait = 2000000;  // microseconds; in place of a wait in select()
constexpr size_t kLineSize = 1024;
constexpr char kLoop[] = "MonitorCommands";

// A tool may read as slowly as it likes, but not stop.
constexpr StallLimits kToolStall = {.idle = 5000, .no_room = INT64_MAX};

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
  for (const CommandNode* cnode : Nodes(*cmd_list)) {
    if (!cnode->answer.IsUnsent()) continue;
    watched->unsent = true;
    watched->lines.Remove(cnode->sock);
    if (!watched->room.Add(cnode->sock)) return false;
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

void ServeConnection(CommandNode* cnode) {
  char line[kLineSize];
  const int result = ReadLine(cnode->sock, line, sizeof line);
  if (result != 0) {
    zev_debug(kDetail, "%s: ReadLine() returned %d\n", "ProcessCommand", result);
    CloseCommandConnection(cnode);
    return;
  }
  zev_debug(kDetail, "%s: Received command \"%s\" from \"%s\" at \"%s\".\n", "ProcessCommand", line,
            cnode->user_name, cnode->ipaddr);
  counters.commands.Add();
  const CommandId id = ParseAndExecuteCommand(cnode, line);
  SendCommandResponse(cnode, id);
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
  for (CommandNode* cnode : Nodes(*cmd_list)) {
    if (fdset.Contains(cnode->sock)) ServeConnection(cnode);
  }
}

namespace cmd_mon {

void CloseVanishedTools() {
  ENTERING();
  for (CommandNode* cnode : Nodes(*cmd_list)) {
    if (cnode->connected == 0 || !HasVanished(cnode->sock)) continue;
    zev_debug(kInfo, "%s: Tool of \"%s\" at \"%s\" has vanished.\n", __func__, cnode->user_name,
              cnode->ipaddr);
    CloseCommandConnection(cnode);
  }
}

CommandNode* GetClosedConnection() {
  ENTERING();
  return FindNode(*cmd_list, [](const CommandNode& cnode) { return cnode.connected == 0; });
}

void CleanUpClosedConnections() {
  ENTERING();
  for (CommandNode* cnode = GetClosedConnection(); cnode != nullptr;
       cnode = GetClosedConnection()) {
    zev_debug(kDetail, "%s: Cleaning up closed command connection.\n", __func__);
    Audit({"leave", "done", &cnode->identity, kCommandConsole});
    RemoveCommandFromList(cnode, cmd_list);
    FreeCommandNode(cnode);
  }
}

}  // namespace cmd_mon

// ---- Responses ----------------------------------------------------------------------------------

ResponseHeader rheader;
char cmd_err_msg[kErrorTextSize];

namespace {

/// The records of the current answer, one behind the other.
uint8_t* records = nullptr;

constexpr size_t kTextPieceSize = 1;  // the count of a text is that of its bytes
constexpr char kOutOfMemoryText[] = "Out of memory.";
constexpr char kUnrecognizedText[] = "Unrecognized console \"%s\".";

/// Lays a record out byte by byte: numbers little-endian, texts cut to their width or padded with
/// NULs, no padding in between.
class PacketWriter {
 public:
  explicit PacketWriter(uint8_t* out) : out_(out) {}

  PacketWriter& Text(const char* text, size_t width) {
    const size_t length = std::min(strlen(text), width);
    memcpy(out_, text, length);
    memset(out_ + length, 0, width - length);
    out_ += width;
    return *this;
  }

  PacketWriter& Number16(uint32_t value) { return Number(value, 2); }
  PacketWriter& Number32(uint32_t value) { return Number(value, 4); }

  PacketWriter& Code(const char (&code)[2]) {
    out_ = std::copy(std::begin(code), std::end(code), out_);
    return *this;
  }

 private:
  PacketWriter& Number(uint32_t value, int width) {
    for (int i = 0; i < width; ++i) *out_++ = static_cast<uint8_t>(value >> (8 * i));
    return *this;
  }

  uint8_t* out_;
};

size_t RecordSize(int cmd_id) {
  switch (cmd_id) {
    case kConsoleCommand:
      return kConsolePacketSize;
    case kWhoCommand:
      return kUserPacketSize;
    case kMappedPortCommand:
      return kMappedPortPacketSize;
    case kPortHolderCommand:
      return kPortHolderAddressPacketSize;
    case kStatusCommand:
    case kStatsCommand:
      return kTextPieceSize;
    default:
      return 0;
  }
}

// Makes room for `count` records and keeps those that are there. False when out of memory.
bool MakeRoom(size_t count, size_t record_size) {
  auto* grown = static_cast<uint8_t*>(realloc(records, std::max<size_t>(count, 1) * record_size));
  if (grown == nullptr) return false;
  records = grown;
  return true;
}

void AnswerRecords(size_t count) {
  rheader.type = kRecordsFollow;
  rheader.count = static_cast<uint32_t>(count);
}

void AnswerDone() {
  rheader.type = kDone;
}

// `format` takes the argument, if there is one.
void AnswerError(const char* format, const char* argument = nullptr) {
  snprintf(cmd_err_msg, sizeof cmd_err_msg, format, argument);
  rheader.type = kErrorFollows;
  rheader.count = static_cast<uint32_t>(strlen(cmd_err_msg) + 1);
}

void AnswerUnrecognized(const char* cons_name) {
  AnswerError(kUnrecognizedText, cons_name);
}

// A name in the text is a stranger's.
void LogError(const char* function) {
  char shown[kErrorTextSize];
  CopyText(shown, cmd_err_msg);
  ReplaceControls(shown);
  zev_debug(kInfo, "%s: %s\n", function, shown);
}

// The same as AnswerUnrecognized(), and tells the debug output.
void AnswerUnrecognizedAndLog(const char* function, const char* cons_name) {
  AnswerUnrecognized(cons_name);
  LogError(function);
}

// Puts the answer together; the records are the connection's from here on.
void LoadAnswer(OutgoingAnswer& answer, int cmd_id) {
  PacketWriter(answer.header).Number32(rheader.type).Number32(rheader.count);
  answer.size = kHeaderSize;
  answer.sent = 0;
  const size_t record_size = RecordSize(cmd_id);
  if (rheader.type == kRecordsFollow && record_size > 0) {
    answer.records = std::exchange(records, nullptr);
    answer.piece_size = record_size == kTextPieceSize ? rheader.count : record_size;
    answer.size += rheader.count * record_size;
  } else if (rheader.type == kErrorFollows) {
    memcpy(answer.text, cmd_err_msg, rheader.count);
    answer.piece_size = rheader.count;
    answer.size += rheader.count;
  }
}

/// What one call sends: the header, the text of an error, one record, or the rest of one of them.
struct Piece {
  const uint8_t* data;
  size_t size;
};

Piece NextPiece(const OutgoingAnswer& answer) {
  if (answer.sent < kHeaderSize) return {answer.header + answer.sent, kHeaderSize - answer.sent};
  const uint8_t* body = answer.records != nullptr ? answer.records : answer.text;
  const size_t offset = answer.sent - kHeaderSize;
  return {body + offset, answer.piece_size - offset % answer.piece_size};
}

// Sends until all has gone out or there is no more room. -1 when a send fails.
int SendRest(int sock, OutgoingAnswer& answer) {
  while (answer.IsUnsent()) {
    const Piece piece = NextPiece(answer);
    const int more = answer.sent + piece.size < answer.size ? MSG_MORE : 0;
    const ssize_t count = send(sock, piece.data, piece.size, more | MSG_DONTWAIT);
    if (count < 0) return errno == EAGAIN ? 0 : -1;
    answer.sent += static_cast<size_t>(count);
    answer.stall.End();
  }
  return 0;
}

int FailToSend(CommandNode* cnode, int error) {
  zev_debug(kInfo, "%s: send() failed : %s\n", "SendCommandResponse", strerror(error));
  CloseCommandConnection(cnode);
  return -1;
}

int SendAnswer(CommandNode* cnode) {
  OutgoingAnswer& answer = cnode->answer;
  if (SendRest(cnode->sock, answer) != 0) return FailToSend(cnode, errno);
  if (answer.IsUnsent()) {
    return answer.stall.IsTooLong(cnode->sock, kToolStall) ? FailToSend(cnode, ETIMEDOUT) : 0;
  }
  free(std::exchange(answer.records, nullptr));
  return 0;
}

}  // namespace

void AnswerOutOfMemory() {
  AnswerError(kOutOfMemoryText);
}

bool AnswerText(std::string_view text) {
  if (!MakeRoom(text.size(), kTextPieceSize)) return false;
  std::copy(text.begin(), text.end(), records);
  AnswerRecords(text.size());
  return true;
}

int SendCommandResponse(CommandNode* cnode, int cmd_id) {
  ENTERING();
  zev_debug(kDetail, "%s: Sending response \"%d\" to \"%s\" at \"%s\".\n", __func__,
            static_cast<int>(rheader.type), cnode->user_name, cnode->ipaddr);
  LoadAnswer(cnode->answer, cmd_id);
  return SendAnswer(cnode);
}

void cmd_mon::SendUnsentAnswers() {
  ENTERING();
  for (CommandNode* cnode : Nodes(*cmd_list)) {
    if (cnode->answer.IsUnsent()) SendAnswer(cnode);
  }
}

void ReleaseRecords() {
  free(records);
  records = nullptr;
}

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
     [](char* name, CommandNode* cmd_node, char* text) { SendMsgToConsole(name, cmd_node, text); }},
    {"clear", kClearCommand, CommandArgument::kConsole, kActs,
     [](char* name, CommandNode* cmd_node, char*) { ClearConsole(name, cmd_node); }},
    {"disable", kDisableCommand, CommandArgument::kConsole, kActs,
     [](char* name, CommandNode* cmd_node, char*) { DisableConsole(name, cmd_node); }},
    {"enable", kEnableCommand, CommandArgument::kConsole, kActs,
     [](char* name, CommandNode*, char*) { EnableConsole(name); }},
    {"mapped_port", kMappedPortCommand, CommandArgument::kOptionalConsole, kLooks,
     [](char* name, CommandNode*, char*) { ProcessMappedPortCommand(name); }},
    {"force", kForceCommand, CommandArgument::kConsole, kActs,
     [](char* name, CommandNode* cmd_node, char*) { ForceKPMConnection(name, cmd_node); }},
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

void AuditCommand(const CommandRow& row, const char* cons_name, const CommandNode* cnode) {
  const bool done = rheader.type == kDone;
  Audit({row.word, done ? "done" : "refused", &cnode->identity, cons_name, nullptr,
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

CommandId ParseAndExecuteCommand(CommandNode* cnode, char* cmd) {
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
    // What follows the one separator behind the name, as it stands; it may be empty.
    char* name_end = name + strlen(name);
    if (name_end == end) return ParserError("No message specified.");
    text = name_end + 1;
  }
  if (text != nullptr) ReplaceControlsOfLine(text);
  row->run(name, cnode, text);
  if (row->acts) AuditCommand(*row, name, cnode);
  return row->id;
}

// ---- Queries ------------------------------------------------------------------------------------

namespace {

constexpr char kVrqUser[] = "VRQ";
constexpr char kUnknownHolder[] = "Unknown";
constexpr char kHolderMode[2] = {'5', '\0'};

// Without a name every console matches.
bool Matches(const ConsoleNode* cnode, const char* cons_name) {
  return cons_name == nullptr || strcasecmp(cnode->cname, cons_name) == 0;
}

bool IsVrq(const UserNode* unode) {
  return strcasecmp(unode->user_name, kVrqUser) == 0;
}

void CodeFromDigit(int digit, char (&code)[2]) {
  char text[3];
  snprintf(text, sizeof text, "%d", digit);
  code[0] = text[0];
  code[1] = text[1];
}

size_t AllConsoles() REQUIRES_SHARED(acl_lock, icl_lock) {
  return static_cast<size_t>(a_cons_list->count) + static_cast<size_t>(i_cons_list->count);
}

void FillConsolePacket(const ConsoleNode* cnode, const char (&status)[2], const char (&mode)[2],
                       size_t index) {
  PacketWriter(records + index * kConsolePacketSize)
      .Text(cnode->cname, kWireNameWidth)
      .Text(cnode->ipaddr, kWireNameWidth)
      .Number16(cnode->cons_port)
      .Number16(cnode->mgmt_port)
      .Text(cnode->model, kWireNameWidth)
      .Text(cnode->pname, kWireNameWidth)
      .Code(status)
      .Code(mode);
}

void ReportAccessible(const ConsoleNode* cnode, size_t index) {
  char status[2];
  char mode[2];
  GetStatusCode(cnode, status);
  GetHighPrecedModeCode(cnode, mode);
  // In use by nobody but a hidden user.
  if (status[0] == '1' && mode[0] == '0' && IsVrqUserConnectedERMode(cnode) != 0) status[0] = '0';
  FillConsolePacket(cnode, status, mode, index);
}

void ReportInaccessible(const ConsoleNode* cnode, size_t index) {
  char status[2];
  GetStatusCode(cnode, status);
  FillConsolePacket(cnode, status, {'0', '\0'}, index);
}

void FillMappedPortPacket(const ConsoleNode* cnode, size_t index) {
  PacketWriter(records + index * kMappedPortPacketSize)
      .Text(cnode->cname, kWireNameWidth)
      .Text(cnode->ipaddr, kWireNameWidth)
      .Number16(cnode->cons_port)
      .Number16(cnode->mapped_port)
      .Number16(static_cast<uint32_t>(cnode->auth));
}

void FillUserPacket(const char* user_name, const char* ipaddr, const char (&mode)[2],
                    size_t index) {
  PacketWriter(records + index * kUserPacketSize)
      .Text(user_name, kWireUserNameWidth)
      .Text(ipaddr, kWireNameWidth)
      .Code(mode);
}

// Appends the users of one console behind `count` records. False when out of memory.
bool ReportUsers(const ConsoleNode* cnode, size_t* count) {
  const auto users = Nodes(*cnode->user_list);
  size_t most = *count;
  for ([[maybe_unused]] const UserNode* unode : users) ++most;
  if (!MakeRoom(most, kUserPacketSize)) return false;
  for (const UserNode* unode : users) {
    if (IsVrq(unode)) continue;
    char mode[2];
    CodeFromDigit(unode->mode, mode);
    FillUserPacket(unode->user_name, unode->ipaddr, mode, (*count)++);
  }
  return true;
}

// Another client holds the console's management session.
bool IsHeldElsewhere(const ConsoleNode* cnode) {
  return IsPellox(cnode->model, &model_list) != 0 && cnode->status == kRefused;
}

}  // namespace

void GetStatusCode(const ConsoleNode* cnode, char (&status)[2]) {
  ENTERING();
  const char* code = "99";
  if (cnode->status == kConnected) {
    code = cnode->user_list->head != nullptr ? "1" : "0";
  } else if (cnode->enable == 0) {
    code = "5";
  } else if (cnode->status == kNotConnected) {
    code = "2";
  } else if (cnode->status == kRefused) {
    code = "3";
  } else if (cnode->status == kInProgress) {
    code = "4";
  }
  status[0] = code[0];
  status[1] = code[1];
}

void GetHighPrecedModeCode(const ConsoleNode* cnode, char (&mode)[2]) {
  ENTERING();
  int code = 0;
  for (const UserNode* unode : Nodes(*cnode->user_list)) {
    if (unode->mode == kExclusiveRevocable && IsVrq(unode)) continue;
    code = unode->mode;
    if (unode->mode != kReadOnly) break;
  }
  CodeFromDigit(code, mode);
}

int IsVrqUserConnectedERMode(const ConsoleNode* cnode) {
  ENTERING();
  const UserNode* hidden = FindNode(*cnode->user_list, [](const UserNode& unode) {
    return unode.mode == kExclusiveRevocable && IsVrq(&unode);
  });
  return hidden != nullptr ? 1 : 0;
}

namespace {

// These answer; false when out of memory, which is then the answer. The caller releases the locks
// before it reports that.

bool AnswerConsoles(const char* cons_name) REQUIRES_SHARED(acl_lock, icl_lock) {
  const size_t most = AllConsoles();
  if (most > 0 && !MakeRoom(most, kConsolePacketSize)) {
    AnswerOutOfMemory();
    return false;
  }
  size_t count = 0;
  for (const ConsoleNode* cnode : Nodes(*a_cons_list)) {
    if (Matches(cnode, cons_name)) ReportAccessible(cnode, count++);
  }
  for (const ConsoleNode* cnode : Nodes(*i_cons_list)) {
    if (Matches(cnode, cons_name)) ReportInaccessible(cnode, count++);
  }
  AnswerRecords(count);
  return true;
}

bool AnswerMappedPorts(const char* cons_name) REQUIRES_SHARED(acl_lock, icl_lock) {
  const size_t most = AllConsoles();
  if (most > 0 && !MakeRoom(most, kMappedPortPacketSize)) {
    AnswerOutOfMemory();
    return false;
  }
  size_t count = 0;
  for (const ConsoleList* list : {a_cons_list, i_cons_list}) {
    for (const ConsoleNode* cnode : Nodes(*list)) {
      if (Matches(cnode, cons_name)) FillMappedPortPacket(cnode, count++);
    }
  }
  AnswerRecords(count);
  return true;
}

}  // namespace

void ProcessConsoleCommand(const char* cons_name) {
  ENTERING();
  bool answered = false;
  {
    const ReadLockPair lock(icl_lock, acl_lock, Release::kSecondFirst, HERE);
    answered = AnswerConsoles(cons_name);
  }
  if (!answered) ReportOutOfMemory(__func__);
}

void ProcessWhoCommand(const char* cons_name) {
  ENTERING();
  ReadLockPair lock(acl_lock, icl_lock, Release::kFirstFirst, HERE);
  size_t count = 0;
  for (const ConsoleNode* cnode : Nodes(*a_cons_list)) {
    if (!Matches(cnode, cons_name)) continue;
    if (cnode->user_list->head == nullptr) break;
    if (!ReportUsers(cnode, &count)) {
      AnswerOutOfMemory();
      lock.ReleaseOnlyFirst();
      ReportOutOfMemory(__func__);
      return;
    }
  }
  for (const ConsoleNode* cnode : Nodes(*i_cons_list)) {
    if (!Matches(cnode, cons_name) || !IsHeldElsewhere(cnode)) continue;
    if (!MakeRoom(count + 1, kUserPacketSize)) {
      AnswerOutOfMemory();
      lock.ReleaseOnlySecond();
      ReportOutOfMemory(__func__);
      return;
    }
    FillUserPacket(kUnknownHolder, cnode->pellox_port_holder_ipaddr, kHolderMode, count++);
  }
  AnswerRecords(count);
}

void ProcessMappedPortCommand(const char* cons_name) {
  ENTERING();
  bool answered = false;
  {
    const ReadLockPair lock(icl_lock, acl_lock, Release::kSecondFirst, HERE);
    answered = AnswerMappedPorts(cons_name);
  }
  if (!answered) ReportOutOfMemory(__func__);
}

// ---- Control ------------------------------------------------------------------------------------

namespace {

/// A text that names the operator, as the users will see it.
struct OperatorText {
  char text[kMessageBufferSize];
  OperatorText(const char* what, const CommandNode* cmd_node) {
    snprintf(text, sizeof text, "%s by %s@%s", what, cmd_node->user_name, cmd_node->ipaddr);
  }
};

ConsoleNode* FindByAnyCase(const ConsoleList* list, const char* cons_name) {
  return FindNode(*list, [&](const ConsoleNode& cnode) { return Matches(&cnode, cons_name); });
}

// Runs `act` for every matching console of the list. True when there was one.
template <typename Action>
bool ForEachMatch(const ConsoleList& list, const char* cons_name, Action act) {
  bool found = false;
  for (ConsoleNode* cnode : Nodes(list)) {
    if (!Matches(cnode, cons_name)) continue;
    act(cnode);
    found = true;
  }
  return found;
}

void ThrowUsersOff(const char* function, ConsoleNode* cnode, const char* text, const char* reason) {
  zev_debug(kInfo, "%s: %s\n", function, text);
  SendMsgToUsers(cnode, text);
  CloseUserConnections(cnode, reason);
}

void MarkDisabled(ConsoleNode* cnode) {
  cnode->status = kNotConnected;
  cnode->enable = 0;
}

}  // namespace

void ClearConsole(const char* cons_name, const CommandNode* cmd_node) {
  ENTERING();
  const OperatorText text("Your session has been terminated", cmd_node);
  bool found = false;
  {
    const WriteLockPair lock(acl_lock, icl_lock, Release::kSecondFirst, HERE);
    ConsoleNode* cnode = FindByAnyCase(a_cons_list, cons_name);
    if (cnode != nullptr)
      ThrowUsersOff(__func__, cnode, text.text, "An operator cleared the console.");
    found = cnode != nullptr || FindByAnyCase(i_cons_list, cons_name) != nullptr;
  }
  if (found) {
    AnswerDone();
  } else {
    AnswerUnrecognizedAndLog(__func__, cons_name);
  }
}

void DisableConsole(const char* cons_name, const CommandNode* cmd_node) {
  ENTERING();
  const OperatorText text("Console has been disabled", cmd_node);
  constexpr char kFunction[] = "DisableConsole";
  bool found = false;
  {
    const WriteLockPair lock(acl_lock, icl_lock, Release::kSecondFirst, HERE);
    found = ForEachMatch(*a_cons_list, cons_name, [&](ConsoleNode* cnode) {
      ThrowUsersOff(kFunction, cnode, text.text, "An operator disabled the console.");
      MarkDisabled(cnode);
      cons_mon_waker.Wake();
    });
    if (!found) {
      found = ForEachMatch(*i_cons_list, cons_name, [&](ConsoleNode* cnode) {
        zev_debug(kInfo, "%s: %s\n", kFunction, text.text);
        MarkDisabled(cnode);
      });
    }
  }
  if (found) {
    AnswerDone();
  } else {
    AnswerUnrecognizedAndLog(__func__, cons_name);
  }
}

void EnableConsole(const char* cons_name) {
  ENTERING();
  const auto enable = [](ConsoleNode* cnode) { cnode->enable = 1; };
  bool found = false;
  {
    const WriteLockPair lock(acl_lock, icl_lock, Release::kSecondFirst, HERE);
    found = ForEachMatch(*a_cons_list, cons_name, enable) ||
            ForEachMatch(*i_cons_list, cons_name, enable);
  }
  if (found) {
    AnswerDone();
  } else {
    AnswerUnrecognized(cons_name);
  }
}

void SendMsgToConsole(const char* cons_name, const CommandNode* cmd_node, const char* message) {
  ENTERING();
  constexpr char kAllConsoles[] = "-";
  char text[kMessageBufferSize];
  snprintf(text, sizeof text, "Message from %s@%s: \n\n\r%s", cmd_node->user_name, cmd_node->ipaddr,
           message);
  const bool to_all = strcmp(cons_name, kAllConsoles) == 0;
  bool found = to_all;
  {
    const WriteLock lock(acl_lock, HERE);
    found |= ForEachMatch(*a_cons_list, to_all ? nullptr : cons_name,
                          [&](ConsoleNode* cnode) { SendMsgToUsers(cnode, text); });
  }
  if (found) {
    AnswerDone();
  } else {
    AnswerUnrecognized(cons_name);
  }
}

// ---- Management ports ---------------------------------------------------------------------------

namespace {

constexpr char kOwnAddress[] = "127.0.0.1";

/// What came of the question who holds a port. The answer is set in each case; what there is to
/// report about it waits until the locks are released.
enum class HolderOutcome { kTold, kNotTold, kOutOfMemory };

HolderOutcome DoNotTell(const char* text, const char* cons_name = nullptr) {
  AnswerError(text, cons_name);
  return HolderOutcome::kNotTold;
}

HolderOutcome GiveUpForMemory() {
  AnswerOutOfMemory();
  return HolderOutcome::kOutOfMemory;
}

// Puts `address` behind `count` records. False when out of memory.
bool ReportHolder(const char* address, size_t* count) {
  if (!MakeRoom(*count + 1, kPortHolderAddressPacketSize)) return false;
  PacketWriter(records + (*count)++ * kPortHolderAddressPacketSize).Text(address, kWireNameWidth);
  return true;
}

// What the last refusal said of an inaccessible console.
HolderOutcome AnswerRecordedHolder(const ConsoleNode* cnode) {
  size_t count = 0;
  if (IsPellox(cnode->model, &model_list) == 0) return DoNotTell("Not a Pellox console.");
  if (cnode->pellox_port_holder_ipaddr[0] == '\0') {
    return DoNotTell("Unable to connect to remote host, possibly bad port number.");
  }
  if (!ReportHolder(cnode->pellox_port_holder_ipaddr, &count)) return GiveUpForMemory();
  AnswerRecords(count);
  return HolderOutcome::kTold;
}

// The daemon itself holds the port of a connected console, for its first user if it has one.
HolderOutcome AnswerOwnHolder(const char* cons_name) REQUIRES(icl_lock, acl_lock) {
  size_t count = 0;
  for (const ConsoleNode* cnode : Nodes(*a_cons_list)) {
    if (!Matches(cnode, cons_name)) continue;
    const UserListElem* first = cnode->user_list->head;
    const char* address = first == nullptr ? kOwnAddress : first->unode->ipaddr;
    if (!ReportHolder(address, &count)) return GiveUpForMemory();
    if (first == nullptr) break;
  }
  if (count == 0) return DoNotTell(kUnrecognizedText, cons_name);
  AnswerRecords(count);
  return HolderOutcome::kTold;
}

HolderOutcome AnswerHolder(const char* cons_name) REQUIRES(icl_lock, acl_lock) {
  const ConsoleNode* inaccessible = FindByAnyCase(i_cons_list, cons_name);
  return inaccessible != nullptr ? AnswerRecordedHolder(inaccessible) : AnswerOwnHolder(cons_name);
}

}  // namespace

void ForceKPMConnection(const char* cons_name, const CommandNode* /*cmd_node*/) {
  ENTERING();
  bool found = false;
  {
    const WriteLockPair lock(icl_lock, acl_lock, Release::kFirstFirst, HERE);
    found = ForEachMatch(*i_cons_list, cons_name, [](ConsoleNode* cnode) {
      cnode->force = 1;
      if (cnode->sock == -1) cnode->lfca_time = 0;
    });
    found = found || FindByAnyCase(a_cons_list, cons_name) != nullptr;
  }
  if (found) {
    AnswerDone();
  } else {
    AnswerUnrecognizedAndLog(__func__, cons_name);
  }
}

void ReconnectConsole(const char* cons_name) {
  ENTERING();
  bool found = false;
  {
    const WriteLockPair lock(icl_lock, acl_lock, Release::kFirstFirst, HERE);
    found = ForEachMatch(*i_cons_list, cons_name, [](ConsoleNode* cnode) { cnode->lfca_time = 0; });
    found = found || FindByAnyCase(a_cons_list, cons_name) != nullptr;
  }
  if (found) {
    AnswerDone();
  } else {
    AnswerUnrecognizedAndLog(__func__, cons_name);
  }
}

void PelloxPortHolder(const char* cons_name) {
  ENTERING();
  HolderOutcome outcome = HolderOutcome::kTold;
  {
    const WriteLockPair lock(icl_lock, acl_lock, Release::kFirstFirst, HERE);
    outcome = AnswerHolder(cons_name);
  }
  if (outcome == HolderOutcome::kNotTold) LogError(__func__);
  if (outcome == HolderOutcome::kOutOfMemory) ReportOutOfMemory(__func__);
}
