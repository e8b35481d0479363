#include "logged_lines.h"

#include <algorithm>

namespace zevctl {

namespace {

constexpr char kTelnetCommand = '\xFF';
constexpr size_t kTelnetCommandLength = 3;

}  // namespace

// A telnet command at the end of a piece may lead past it; the next piece is not touched.
std::string LoggedBytes(std::string_view piece, bool keeps_returns) {
  std::string kept;
  kept.reserve(piece.size());
  for (size_t i = 0; i < piece.size(); ++i) {
    const char byte = piece[i];
    if (!keeps_returns && byte == kTelnetCommand) {
      i += kTelnetCommandLength - 1;
    } else if (byte != '\0' && (keeps_returns || byte != '\r')) {
      kept += byte;
    }
  }
  return kept;
}

void LoggedLines::Add(std::string_view output, const Taker& take) {
  while (!output.empty()) {
    const size_t size = std::min(output.size(), kPieceSize);
    AddPiece(output.substr(0, size), take);
    output.remove_prefix(size);
  }
}

// What is full without a line end becomes a line only when more comes.
void LoggedLines::AddPiece(std::string_view piece, const Taker& take) {
  const std::string kept = LoggedBytes(piece, keeps_returns_);
  for (size_t taken = 0; taken < kept.size();) {
    const size_t part = std::min(kept.size() - taken, kPieceSize - waiting_.size());
    waiting_.append(kept, taken, part);
    taken += part;
    if (waiting_.find_first_of("\n\r") != std::string::npos) {
      TakeLines(take);
    } else if (waiting_.size() == kPieceSize && taken < kept.size()) {
      take(waiting_);
      waiting_.clear();
    }
  }
}

void LoggedLines::TakeLines(const Taker& take) {
  size_t start = 0;
  for (size_t end = waiting_.find_first_of("\n\r"); end != std::string::npos;
       end = waiting_.find_first_of("\n\r", start)) {
    take(waiting_.substr(start, end + 1 - start));
    start = end + 1;
  }
  waiting_.erase(0, start);
}

void LoggedLines::Close(const Taker& take) {
  if (waiting_.empty()) return;
  take(waiting_);
  waiting_.clear();
  take("\n");
}

}  // namespace zevctl
