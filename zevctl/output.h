// What people read: tables that fit the terminal, colours where they are wanted, foreign text made
// harmless, and lines on standard error.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

namespace zevctl {

enum class Colour { kNone, kGreen, kYellow, kRed, kDim };

/// True when standard output is a terminal and NO_COLOR is not set (or empty).
bool ColoursWanted();

/// Columns of the terminal on standard output; 0 when it is not a terminal.
size_t TerminalWidth();

/// The text with '?' in place of every byte that is not part of a well-formed UTF-8 character, and
/// of every character that controls a terminal or makes a line read as something else: control
/// characters, those that change the direction of writing, and the separators of lines and
/// paragraphs. Everything that a console or a stranger may have chosen is shown in this form.
std::string Printable(std::string_view text);

/// The same with a blank in place of each tab, which is harmless and common in what consoles print.
std::string Harmless(std::string_view text);

/// The text as valid UTF-8 for JSON: U+FFFD stands for every byte that is not part of a character.
std::string Utf8(std::string_view text);

/// JSON text of one line, with those characters written as escapes such as \u202e. They can only be
/// in its strings, where the escape means the same.
std::string EscapedJson(std::string_view json);

/// The text between the sequences that set and reset the colour; the text alone when colours are
/// not wanted.
std::string Coloured(std::string_view text, Colour colour, bool wanted);

/// How many columns a terminal takes for the printable text: two for wide characters, none for
/// those that are put on the one before.
size_t Columns(std::string_view text);

/// The printable text, ended by '~' where it was too long for that many columns.
std::string Cut(std::string_view text, size_t columns);

/// "1 console", "2 consoles".
std::string CountText(uint64_t count, const std::string& noun);

/// The text in lines of that many columns at most, divided at blanks; a longer word has a line of
/// its own. One line when `columns` is 0.
std::vector<std::string> Wrapped(std::string_view text, size_t columns);

struct Cell {
  std::string text;
  Colour colour = Colour::kNone;
};

/// Rows of cells below headings. When a row would not fit, the widest column is cut. What must be
/// read to its end stands below a row, indented, and is wrapped instead.
class Table {
 public:
  /// The first `whole` columns are never cut. Where there are such columns and cutting the others
  /// is not enough, columns are left out from the right.
  explicit Table(const std::vector<std::string>& headings, size_t whole = 0);

  /// Each of `below` begins a line.
  void Add(std::vector<Cell> row, std::vector<std::string> below = {}) {
    rows_.push_back({std::move(row), std::move(below)});
  }

  /// `width`: of the terminal, in columns; 0 for a table that is as wide as needed.
  void Print(std::ostream& out, size_t width, bool colours) const;

 private:
  struct Row {
    std::vector<Cell> cells;
    std::vector<std::string> below;
  };

  std::vector<size_t> ColumnWidths(size_t width) const;

  std::vector<Row> rows_;  // the headings are the first one
  size_t whole_;
};

/// Makes the line printable and writes it to standard error all at once, so that nothing that
/// another program prints at the same time comes in between.
void Announce(const std::string& line);

/// Announces what went wrong, after the name of this program.
void Warn(const std::string& message);

}  // namespace zevctl
