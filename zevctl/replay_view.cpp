#include "replay_view.h"

#include <algorithm>

#include "output.h"

namespace zevctl {

namespace {

constexpr char kHideCursor[] = "\x1b[?25l";
constexpr char kShowCursor[] = "\x1b[?25h";
constexpr char kClear[] = "\x1b[0m\x1b[H\x1b[2J";
constexpr char kReverse[] = "\x1b[7m";
constexpr char kPlain[] = "\x1b[0m";
constexpr char kClearLine[] = "\x1b[2K";

std::string Place(int row, int column) {
  return "\x1b[" + std::to_string(row + 1) + ";" + std::to_string(column + 1) + "H";
}

std::string StatusRow(const std::string& status, size_t columns) {
  const std::string text = Cut(status, columns);
  const size_t used = std::min(Columns(text), columns);
  return kReverse + text + std::string(columns - used, ' ') + kPlain;
}

}  // namespace

Frame FrameOf(const VirtualScreen& screen) {
  Frame frame;
  for (int row = 0; row < screen.size().rows; ++row) frame.rows.push_back(screen.Row(row));
  frame.cursor_row = screen.cursor_row();
  frame.cursor_column = screen.cursor_column();
  frame.cursor_is_visible = screen.cursor_is_visible();
  return frame;
}

ReplayView::ReplayView(ScreenSize terminal) : terminal_(terminal) {}

void ReplayView::Forget(ScreenSize terminal) {
  terminal_ = terminal;
  drawn_.clear();
}

ScreenSize ReplayView::screen_size() const {
  return Bounded({terminal_.rows - 1, terminal_.columns});
}

std::string ReplayView::Draw(const Frame& frame) {
  std::vector<std::string> rows = frame.rows;
  rows.resize(static_cast<size_t>(screen_size().rows));
  rows.push_back(StatusRow(frame.status, static_cast<size_t>(terminal_.columns)));
  std::string text = kHideCursor;
  if (drawn_.size() != rows.size()) {
    text += kClear;
    drawn_.assign(rows.size(), "");
  }
  for (size_t row = 0; row < rows.size(); ++row) {
    if (rows[row] == drawn_[row]) continue;
    text += Place(static_cast<int>(row), 0) + kClearLine + rows[row];
  }
  drawn_ = std::move(rows);
  const std::string cursor = Place(frame.cursor_row, frame.cursor_column) +
                             (frame.cursor_is_visible ? kShowCursor : kHideCursor);
  if (text == kHideCursor && cursor == cursor_) return "";
  cursor_ = cursor;
  return text + cursor;
}

}  // namespace zevctl
