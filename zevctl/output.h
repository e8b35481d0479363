// What people read: tables that fit the terminal, colours where they are wanted, foreign text made
// harmless, and lines on standard error.
#pragma once

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

/// The text with '?' in place of every byte that is no part of a well-formed UTF-8 character, and
/// of every character that controls a terminal or makes a line read as something else: control
/// characters, those that change the direction of writing, and the separators of lines and
/// paragraphs. Whatever consoles and strangers chose goes through this.
std::string Printable(std::string_view text);

/// The text as valid UTF-8 for JSON; bytes that are not become U+FFFD.
std::string Utf8(std::string_view text);

/// JSON text of one line with those characters written as escapes (\u202e): in its strings, where
/// alone they can be, that is the same data.
std::string EscapedJson(std::string_view json);

/// Text between colour sequences; `wanted` as of ColoursWanted().
std::string Coloured(std::string_view text, Colour colour, bool wanted);

struct Cell {
  std::string text;
  Colour colour = Colour::kNone;
};

/// Rows of cells under one heading. The widest column gives way when a row would not fit.
class Table {
 public:
  explicit Table(const std::vector<std::string>& headings);

  void Add(std::vector<Cell> row) { rows_.push_back(std::move(row)); }

  /// `width` 0: as wide as needed.
  void Print(std::ostream& out, size_t width, bool colours) const;

 private:
  std::vector<size_t> ColumnWidths(size_t width) const;

  std::vector<std::vector<Cell>> rows_;  // the headings are the first one
};

/// Writes a line to standard error, made printable and all of it at once: nothing that another
/// program prints at the same time comes in between.
void Announce(const std::string& line);

/// Tells what went wrong, with the name of this program in front.
void Warn(const std::string& message);

}  // namespace zevctl
