#include "output.h"

#include <locale.h>
#include <sys/ioctl.h>
#include <unistd.h>
#include <wchar.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <numeric>
#include <sstream>

#include "utf8.h"

namespace zevctl {

namespace {

constexpr size_t kGap = 2;                                 // blanks between columns
constexpr size_t kNarrowest = 4;                           // columns are not cut below this
constexpr size_t kIndent = 4;                              // of what stands below a row
constexpr std::string_view kReplacement = "\xEF\xBF\xBD";  // U+FFFD in UTF-8

uint32_t CodePoint(std::string_view character) {
  constexpr std::array<unsigned, 5> kBitsOfFirst = {0, 0x7F, 0x1F, 0x0F, 0x07};
  uint32_t code = static_cast<unsigned char>(character[0]) & kBitsOfFirst[character.size()];
  for (const char byte : character.substr(1)) {
    code = code << 6 | (static_cast<unsigned char>(byte) & 0x3F);
  }
  return code;
}

struct Range {
  uint32_t first;
  uint32_t last;
};

constexpr std::array kHarmful = {
    Range{0x00, 0x1F},      // control characters
    Range{0x7F, 0x9F},      // delete, and the control characters of eight bits
    Range{0x061C, 0x061C},  // the Arabic letter mark, which changes the direction
    Range{0x200E, 0x200F},  // marks of the direction
    Range{0x2028, 0x202E},  // separators of lines and paragraphs; changes of the direction
    Range{0x2066, 0x2069},  // changes of the direction
};

bool IsHarmful(std::string_view character) {
  const uint32_t code = CodePoint(character);
  return std::any_of(kHarmful.begin(), kHarmful.end(),
                     [&](const Range& range) { return code >= range.first && code <= range.last; });
}

// Every harmful character has a code of four digits at most.
std::string JsonEscape(std::string_view character) {
  std::array<char, 8> text{};
  snprintf(text.data(), text.size(), "\\u%04x", CodePoint(character));
  return text.data();
}

// The text with `replace` of each character, and `malformed` for each byte that is part of none.
template <typename Replace>
std::string Map(std::string_view text, std::string_view malformed, Replace replace) {
  std::string result;
  while (!text.empty()) {
    const size_t length = zevd::Utf8Length(text);
    if (length == 0) {
      result += malformed;
    } else {
      result += replace(text.substr(0, length));
    }
    text.remove_prefix(std::max<size_t>(length, 1));
  }
  return result;
}

// The C library tells widths only for the character set of the thread's locale. What is shown is
// UTF-8, whatever the user's locale says.
class Utf8Locale {
 public:
  Utf8Locale() : before_(uselocale(Ours())) {}
  ~Utf8Locale() { uselocale(before_); }
  Utf8Locale(const Utf8Locale&) = delete;
  Utf8Locale& operator=(const Utf8Locale&) = delete;

 private:
  static locale_t Ours() {
    static const locale_t ours = newlocale(LC_CTYPE_MASK, "C.UTF-8", locale_t{});
    return ours;  // null where the system lacks it: then the locale stays as it is
  }

  locale_t before_;
};

// What the library has no width for is shown in one column.
size_t ColumnsOf(std::string_view character) {
  const int columns = wcwidth(static_cast<wchar_t>(CodePoint(character)));
  return columns < 0 ? 1 : static_cast<size_t>(columns);
}

// The character at the front; a single byte where there is none.
std::string_view FirstCharacter(std::string_view text) {
  return text.substr(0, std::max<size_t>(zevd::Utf8Length(text), 1));
}

std::string_view Sequence(Colour colour) {
  switch (colour) {
    case Colour::kGreen:
      return "\x1b[32m";
    case Colour::kYellow:
      return "\x1b[33m";
    case Colour::kRed:
      return "\x1b[31m";
    case Colour::kDim:
      return "\x1b[2m";
    case Colour::kNone:
      break;
  }
  return "";
}

size_t Sum(const std::vector<size_t>& widths) {
  return std::accumulate(widths.begin(), widths.end(), kGap * (widths.size() - 1));
}

}  // namespace

bool ColoursWanted() {
  const char* no_color = getenv("NO_COLOR");
  return (no_color == nullptr || *no_color == '\0') && isatty(STDOUT_FILENO) == 1;
}

size_t TerminalWidth() {
  winsize size{};
  if (isatty(STDOUT_FILENO) != 1 || ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0) return 0;
  return size.ws_col;
}

std::string Printable(std::string_view text) {
  return Map(text, "?", [](std::string_view character) {
    return IsHarmful(character) ? std::string_view("?") : character;
  });
}

std::string Harmless(std::string_view text) {
  std::string shown(text);
  std::replace(shown.begin(), shown.end(), '\t', ' ');
  return Printable(shown);
}

std::string EscapedJson(std::string_view json) {
  return Map(json, kReplacement, [](std::string_view character) {
    return IsHarmful(character) ? JsonEscape(character) : std::string(character);
  });
}

std::string Utf8(std::string_view text) {
  return Map(text, kReplacement, [](std::string_view character) { return character; });
}

std::string Coloured(std::string_view text, Colour colour, bool wanted) {
  if (!wanted || colour == Colour::kNone) return std::string(text);
  return std::string(Sequence(colour)) + std::string(text) + "\x1b[0m";
}

size_t Columns(std::string_view text) {
  const Utf8Locale locale;
  size_t columns = 0;
  while (!text.empty()) {
    const std::string_view character = FirstCharacter(text);
    columns += zevd::Utf8Length(character) == 0 ? 1 : ColumnsOf(character);
    text.remove_prefix(character.size());
  }
  return columns;
}

std::string Cut(std::string_view text, size_t columns) {
  if (Columns(text) <= columns) return std::string(text);
  std::string kept;
  size_t used = 0;
  for (std::string_view rest = text; columns > 0;) {
    const std::string_view character = FirstCharacter(rest);
    used += Columns(character);
    if (used >= columns) break;
    kept += character;
    rest.remove_prefix(character.size());
  }
  return columns == 0 ? "" : kept + "~";
}

std::string CountText(uint64_t count, const std::string& noun) {
  return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

std::vector<std::string> Wrapped(std::string_view text, size_t columns) {
  if (columns == 0) return {std::string(text)};
  std::vector<std::string> lines;
  std::istringstream words{std::string(text)};
  for (std::string word; words >> word;) {
    const bool fits = !lines.empty() && Columns(lines.back()) + 1 + Columns(word) <= columns;
    if (fits) {
      lines.back() += " " + word;
    } else {
      lines.push_back(word);
    }
  }
  return lines;
}

Table::Table(const std::vector<std::string>& headings, size_t whole) : rows_(1), whole_(whole) {
  for (const std::string& heading : headings) rows_.front().cells.push_back({heading});
}

std::vector<size_t> Table::ColumnWidths(size_t width) const {
  std::vector<size_t> widths(rows_.front().cells.size());
  for (const auto& [cells, below] : rows_) {
    for (size_t column = 0; column < cells.size(); ++column) {
      widths[column] = std::max(widths[column], Columns(cells[column].text));
    }
  }
  const auto first_to_cut = widths.begin() + static_cast<ptrdiff_t>(whole_);
  while (width > 0 && Sum(widths) > width) {
    const auto widest = std::max_element(first_to_cut, widths.end());
    if (widest == widths.end() || *widest <= kNarrowest) break;
    --*widest;
  }
  while (whole_ > 0 && width > 0 && Sum(widths) > width && widths.size() > whole_) {
    widths.pop_back();
  }
  return widths;
}

void Table::Print(std::ostream& out, size_t width, bool colours) const {
  const std::vector<size_t> widths = ColumnWidths(width);
  const size_t width_below = width > kIndent ? width - kIndent : 0;
  for (const auto& [cells, below] : rows_) {
    std::string blanks;
    for (size_t column = 0; column < widths.size(); ++column) {
      const std::string text = Cut(cells[column].text, widths[column]);
      out << blanks << Coloured(text, cells[column].colour, colours);
      blanks.assign(widths[column] - Columns(text) + kGap, ' ');
    }
    out << "\n";
    for (const std::string& text : below) {
      for (const std::string& line : Wrapped(text, width_below)) {
        out << std::string(kIndent, ' ') << line << "\n";
      }
    }
  }
}

void Announce(const std::string& line) {
  std::cerr << Printable(line) + "\n";
}

void Warn(const std::string& message) {
  Announce("zevctl: " + message);
}

}  // namespace zevctl
