#include "answer.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <utility>

#include "error.h"
#include "fixed_text.h"
#include "stall.h"
#include "utf8.h"

namespace zevd {

ResponseHeader rheader;
char cmd_err_msg[kErrorTextSize];

namespace {

/// The records of the present answer, one after the other.
uint8_t* records = nullptr;

constexpr size_t kTextPieceSize = 1;  // the count of a text is that of its bytes

// A tool may read as slowly as it likes, but not stop.
constexpr StallLimits kToolStall = {.idle = 5000, .no_room = INT64_MAX};

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

int FailToSend(CommandNode* tool, int error) REQUIRES(cmd_lock) {
  DEBUG_AS("SendCommandResponse", kInfo, "send() failed : %s\n", strerror(error));
  CloseCommandConnection(tool);
  return -1;
}

}  // namespace

// ---- The present answer -------------------------------------------------------------------------

PacketWriter& PacketWriter::Text(const char* text, size_t width) {
  const size_t length = std::min(strlen(text), width);
  memcpy(out_, text, length);
  memset(out_ + length, 0, width - length);
  out_ += width;
  return *this;
}

PacketWriter& PacketWriter::Code(const char (&code)[2]) {
  out_ = std::copy(std::begin(code), std::end(code), out_);
  return *this;
}

PacketWriter& PacketWriter::Number(uint32_t value, int width) {
  for (int i = 0; i < width; ++i) *out_++ = static_cast<uint8_t>(value >> (8 * i));
  return *this;
}

bool MakeRoom(size_t count, size_t record_size) {
  auto* grown = static_cast<uint8_t*>(realloc(records, std::max<size_t>(count, 1) * record_size));
  if (grown == nullptr) return false;
  records = grown;
  return true;
}

uint8_t* Record(size_t index, size_t record_size) {
  return records + index * record_size;
}

void AnswerRecords(size_t count) {
  rheader.type = kRecordsFollow;
  rheader.count = static_cast<uint32_t>(count);
}

bool AnswerText(std::string_view text) {
  if (!MakeRoom(text.size(), kTextPieceSize)) return false;
  std::copy(text.begin(), text.end(), records);
  AnswerRecords(text.size());
  return true;
}

void AnswerDone() {
  rheader.type = kDone;
}

void AnswerError(const char* format, const char* argument) {
  snprintf(cmd_err_msg, sizeof cmd_err_msg, format, argument);
  rheader.type = kErrorFollows;
  rheader.count = static_cast<uint32_t>(strlen(cmd_err_msg) + 1);
}

void AnswerOutOfMemory() {
  AnswerError("Out of memory.");
}

void AnswerUnrecognized(const char* cons_name) {
  AnswerError("Unrecognized console \"%s\".", cons_name);
}

void AnswerUnrecognizedAndLog(const char* function, const char* cons_name) {
  AnswerUnrecognized(cons_name);
  LogError(function);
}

// The text may hold a name that a stranger has given.
void LogError(const char* function) {
  char shown[kErrorTextSize];
  CopyText(shown, cmd_err_msg);
  ReplaceControls(shown);
  DEBUG_AS(function, kInfo, "%s\n", shown);
}

// ---- Sending ------------------------------------------------------------------------------------

int SendCommandResponse(CommandNode* tool, int cmd_id) {
  ENTERING();
  zev_debug(kDetail, "%s: Sending response \"%d\" to \"%s\" at \"%s\".\n", __func__,
            static_cast<int>(rheader.type), tool->user_name, tool->ipaddr);
  LoadAnswer(tool->answer, cmd_id);
  return SendUnsent(tool);
}

int SendUnsent(CommandNode* tool) {
  OutgoingAnswer& answer = tool->answer;
  if (SendRest(tool->sock, answer) != 0) return FailToSend(tool, errno);
  if (answer.IsUnsent()) {
    return answer.stall.IsTooLong(tool->sock, kToolStall) ? FailToSend(tool, ETIMEDOUT) : 0;
  }
  free(std::exchange(answer.records, nullptr));
  return 0;
}

void ReleaseRecords() {
  free(records);
  records = nullptr;
}

}  // namespace zevd
