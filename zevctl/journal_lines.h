// Putting the lines together that a console printed over many records.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>

#include "journal/journal.h"

namespace zevctl {

/// In bytes. A longer line is taken in pieces of this length.
constexpr size_t kLongestPrintedLine = 16384;

/// The kinds of records that interrupt a console's output, or may do so.
inline constexpr journal::Kinds kInterruptions =
    journal::KindBit(journal::Kind::kLost) | journal::KindBit(journal::Kind::kPaused) |
    journal::KindBit(journal::Kind::kNotLogged) | journal::KindBit(journal::Kind::kGap) |
    journal::KindBit(journal::Kind::kStarted) | journal::KindBit(journal::Kind::kStopped) |
    journal::KindBit(journal::Kind::kTorn);

/// Whether something is missing there; what tells the end of a pause does not count again.
bool TellsOfLoss(journal::Kind kind);

/// A line, or a piece of one.
struct PrintedLine {
  size_t console = 0;          ///< a Console's id
  std::string_view text;       ///< without the line end; valid during the call only
  int64_t wall = 0;            ///< of the last record that is part of it
  journal::Position position;  ///< of that record
  bool is_complete = false;    ///< false: without a line end (yet)
};

/// One console's bytes on the way to lines. A line ends with LF, CR, or CR LF, as in the logs. A CR
/// at the start of a line ends nothing. NULs and the telnet commands that offer and refuse options
/// are left out.
class LineBytes {
 public:
  /// Takes one byte; true when it ends the line that is in text().
  bool Take(char byte);

  const std::string& text() const { return text_; }

  /// Begins the next line, or the next piece of this one.
  void Clear() { text_.clear(); }

 private:
  bool TakeText(char byte);

  enum class Telnet { kNone, kCommand, kOption };

  std::string text_;
  Telnet telnet_ = Telnet::kNone;
  bool after_cr_ = false;  // nothing but CRs came since a CR ended a line
};

/// Makes lines of the records of any number of consoles. Memory: one line of each console.
class LineAssembler {
 public:
  using Handler = std::function<void(const PrintedLine&)>;

  /// The bytes that the console printed before the record, from some line end on: what the line
  /// may have begun with.
  using HeadFinder = std::function<std::string(const journal::Record&)>;

  /// `head` may be empty: then what the first record of a console begins with is taken for the
  /// start of a line.
  explicit LineAssembler(Handler handle, HeadFinder head = nullptr)
      : handle_(std::move(handle)), head_(std::move(head)) {}

  /// Takes a record, in their order; the lines that it ends are handed over. A record that is not
  /// output changes nothing, unless the console's output was interrupted there: then the line in
  /// the making is handed over as it is.
  void Take(const journal::Record& record);

  /// Hands over the lines in the making, the oldest first.
  void Finish();

 private:
  struct Line {
    LineBytes bytes;
    int64_t wall = 0;
    journal::Position position;
  };

  Line& LineOf(const journal::Record& record);
  void HandOver(size_t console, Line& line, bool is_complete);
  void HandOverRest(const std::map<size_t, Line>::iterator& place);

  Handler handle_;
  HeadFinder head_;
  std::map<size_t, Line> lines_;
};

}  // namespace zevctl
