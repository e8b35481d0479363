// What crosses the WebSocket of a console: docs/web.md tells the same to whoever writes a page.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "journal/journal.h"
#include "json_line.h"

namespace zevweb {

enum class OutputKind : char {
  kLive = 1,      ///< from the journal
  kPast = 2,      ///< from the journal, from before the connection
  kAttached = 3,  ///< of the attachment
};

/// A binary frame. Without a position for output that the journal may not have.
std::string OutputFrame(OutputKind kind, const std::optional<journal::Position>& position,
                        int64_t wall, std::string_view bytes);

/// A record that is no output, as the member of a text frame or of an event.
zevctl::Json RecordData(const journal::Record& record);

/// The same for an event stream, with the console's name.
std::string EventPiece(const journal::Journal& journal, const journal::Record& record);

/// A text frame with what is in the data, and `what` in front of it.
std::string TextFrame(std::string_view what, const zevctl::Json& data);

inline constexpr size_t kMostTyped = 16 << 10;    // in one frame
inline constexpr size_t kMostRequestText = 1024;  // likewise

/// What a page asks for.
struct StreamRequest {
  enum class What { kAttach, kLeave, kBreak };
  What what = What::kLeave;
  int mode = 0;       ///< of kAttach: 1 to 4
  bool take = false;  ///< likewise: all others are cut off first
};

/// Takes a text frame apart. Nothing, and what is wrong with it, when it makes no sense.
std::optional<StreamRequest> ParseStreamRequest(std::string_view text, std::string* problem);

/// The daemon's word for a mode from 1 to 4, such as "sh".
const char* ModeWord(int mode);

}  // namespace zevweb
