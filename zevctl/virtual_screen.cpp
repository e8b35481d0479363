#include "virtual_screen.h"

#include <vterm.h>

#include <algorithm>
#include <cstdio>

#include "output.h"

namespace zevctl {

namespace {

constexpr int kMostRows = 1000;
constexpr int kMostColumns = 1000;
constexpr int kBrightColours = 8;             // of the palette, and how many there are below them
constexpr uint32_t kSecondHalf = 0xFFFFFFFF;  // in the second cell of a wide character

void Append(std::string& text, uint32_t code) {
  if (code < 0x80) {
    text += static_cast<char>(code);
    return;
  }
  const int following = code < 0x800 ? 1 : code < 0x10000 ? 2 : 3;
  constexpr unsigned kFirst[] = {0, 0xC0, 0xE0, 0xF0};
  text += static_cast<char>(kFirst[following] | code >> (6 * following));
  for (int i = following - 1; i >= 0; --i) {
    text += static_cast<char>(0x80 | (code >> (6 * i) & 0x3F));
  }
}

std::string Characters(const VTermScreenCell& cell) {
  std::string text;
  for (const uint32_t code : cell.chars) {
    if (code == 0) break;
    Append(text, code);
  }
  return text.empty() ? " " : Printable(text);
}

std::string ColourCode(const VTermColor& colour, bool background) {
  const std::string group = background ? "4" : "3";
  if (VTERM_COLOR_IS_DEFAULT_FG(&colour) || VTERM_COLOR_IS_DEFAULT_BG(&colour)) return "";
  if (VTERM_COLOR_IS_RGB(&colour)) {
    return ";" + group + "8;2;" + std::to_string(colour.rgb.red) + ";" +
           std::to_string(colour.rgb.green) + ";" + std::to_string(colour.rgb.blue);
  }
  const int index = colour.indexed.idx;
  if (index < kBrightColours) return ";" + group + std::to_string(index);
  if (index < 2 * kBrightColours) {
    return std::string(background ? ";10" : ";9") + std::to_string(index - kBrightColours);
  }
  return ";" + group + "8;5;" + std::to_string(index);
}

// The sequence that gives what follows the looks of the cell.
std::string Looks(const VTermScreenCell& cell) {
  std::string codes = "0";
  if (cell.attrs.bold != 0) codes += ";1";
  if (cell.attrs.italic != 0) codes += ";3";
  if (cell.attrs.underline != VTERM_UNDERLINE_OFF) codes += ";4";
  if (cell.attrs.blink != 0) codes += ";5";
  if (cell.attrs.reverse != 0) codes += ";7";
  if (cell.attrs.strike != 0) codes += ";9";
  codes += ColourCode(cell.fg, false) + ColourCode(cell.bg, true);
  return "\x1b[" + codes + "m";
}

constexpr char kPlainLooks[] = "\x1b[0m";
constexpr char kSaveCursor[] = "\x1b\x37";
constexpr char kAskMargins[] = "\x1bP$qr\x1b\\";
constexpr char kMarginsAnswer[] = "\x1bP1$r%d;%dr";

std::string Place(int row, int column) {
  return "\x1b[" + std::to_string(row + 1) + ";" + std::to_string(column + 1) + "H";
}

// Nobody has asked. Without this the answers would pile up.
void DropAnswer(const char* /*bytes*/, size_t /*count*/, void* /*user*/) {}

void KeepAnswer(const char* bytes, size_t count, void* answer) {
  static_cast<std::string*>(answer)->append(bytes, count);
}

}  // namespace

// What the screen does not tell when it is asked.
struct VirtualScreen::Callbacks {
  static int SetProperty(VTermProp property, VTermValue* value, void* user) {
    auto* const screen = static_cast<VirtualScreen*>(user);
    if (property == VTERM_PROP_CURSORVISIBLE) screen->cursor_is_visible_ = value->boolean != 0;
    if (property == VTERM_PROP_ALTSCREEN) screen->is_alternate_ = value->boolean != 0;
    return 1;
  }

  static const VTermScreenCallbacks* Table() {
    static const VTermScreenCallbacks table = [] {
      VTermScreenCallbacks callbacks{};
      callbacks.settermprop = SetProperty;
      return callbacks;
    }();
    return &table;
  }
};

ScreenSize Bounded(ScreenSize size) {
  return {std::clamp(size.rows, 1, kMostRows), std::clamp(size.columns, 2, kMostColumns)};
}

VirtualScreen::VirtualScreen(ScreenSize size)
    : size_(Bounded(size)),
      terminal_(vterm_new(size_.rows, size_.columns), vterm_free),
      screen_(vterm_obtain_screen(terminal_.get())) {
  vterm_set_utf8(terminal_.get(), 1);
  vterm_output_set_callback(terminal_.get(), DropAnswer, nullptr);
  vterm_screen_set_callbacks(screen_, Callbacks::Table(), this);
  vterm_screen_enable_altscreen(screen_, 1);
  Reset();
}

VirtualScreen::~VirtualScreen() = default;

void VirtualScreen::Put(std::string_view text) {
  vterm_input_write(terminal_.get(), text.data(), text.size());
}

// The emulation has nothing saved then: a program that restores a cursor which it saved before the
// output that there is would go on in black on black, with its cursor hidden.
void VirtualScreen::Reset() {
  vterm_screen_reset(screen_, 1);
  Put(kSaveCursor);
}

std::string VirtualScreen::Row(int row) const {
  std::string text;
  size_t kept = 0;  // what stands behind it is only blanks
  std::string looks = kPlainLooks;
  for (int column = 0; column < size_.columns; ++column) {
    VTermScreenCell cell{};
    vterm_screen_get_cell(screen_, {row, column}, &cell);
    if (cell.chars[0] == kSecondHalf) continue;
    const std::string wanted = Looks(cell);
    if (wanted != looks) text += wanted;
    looks = wanted;
    text += Characters(cell);
    if (cell.chars[0] != 0 || looks != kPlainLooks) kept = text.size();
  }
  text.resize(kept);
  return text.find('\x1b') == std::string::npos ? text : text + kPlainLooks;
}

int VirtualScreen::cursor_row() const {
  VTermPos place{};
  vterm_state_get_cursorpos(vterm_obtain_state(terminal_.get()), &place);
  return std::clamp(place.row, 0, size_.rows - 1);
}

int VirtualScreen::cursor_column() const {
  VTermPos place{};
  vterm_state_get_cursorpos(vterm_obtain_state(terminal_.get()), &place);
  return std::clamp(place.col, 0, size_.columns - 1);
}

// The looks of what is written next.
std::string VirtualScreen::PenLooks() const {
  const VTermState* const state = vterm_obtain_state(terminal_.get());
  const auto value = [&](VTermAttr attribute) {
    VTermValue found{};
    vterm_state_get_penattr(state, attribute, &found);
    return found;
  };
  VTermScreenCell cell{};
  cell.attrs.bold = value(VTERM_ATTR_BOLD).boolean != 0 ? 1 : 0;
  cell.attrs.italic = value(VTERM_ATTR_ITALIC).boolean != 0 ? 1 : 0;
  cell.attrs.underline = value(VTERM_ATTR_UNDERLINE).number != 0 ? 1 : 0;
  cell.attrs.blink = value(VTERM_ATTR_BLINK).boolean != 0 ? 1 : 0;
  cell.attrs.reverse = value(VTERM_ATTR_REVERSE).boolean != 0 ? 1 : 0;
  cell.attrs.strike = value(VTERM_ATTR_STRIKE).boolean != 0 ? 1 : 0;
  cell.fg = value(VTERM_ATTR_FOREGROUND).color;
  cell.bg = value(VTERM_ATTR_BACKGROUND).color;
  const std::string looks = Looks(cell);
  return looks == kPlainLooks ? "" : looks;
}

// The rows that scroll; empty when all of them do. Only the terminal's answer to a program tells.
std::string VirtualScreen::Margins() const {
  std::string answer;
  vterm_output_set_callback(terminal_.get(), KeepAnswer, &answer);
  vterm_input_write(terminal_.get(), kAskMargins, sizeof kAskMargins - 1);
  vterm_output_set_callback(terminal_.get(), DropAnswer, nullptr);
  int top = 1;
  int bottom = size_.rows;
  if (sscanf(answer.c_str(), kMarginsAnswer, &top, &bottom) != 2) return "";
  if (top == 1 && bottom == size_.rows) return "";
  return "\x1b[" + std::to_string(top) + ";" + std::to_string(bottom) + "r";
}

// Setting margins moves the cursor, so its place comes behind them.
std::string VirtualScreen::Picture() const {
  std::string text = is_alternate_ ? "\x1b[?1049h" : "";
  text += "\x1b[0m\x1b[H\x1b[2J";
  for (int row = 0; row < size_.rows; ++row) {
    const std::string drawn = Row(row);
    if (!drawn.empty()) text += Place(row, 0) + drawn;
  }
  text += Margins() + Place(cursor_row(), cursor_column()) + PenLooks();
  return cursor_is_visible_ ? text : text + "\x1b[?25l";
}

}  // namespace zevctl
