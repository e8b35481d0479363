#include "plain_lines.h"

#include <algorithm>
#include <charconv>

#include "utf8.h"

namespace zevctl {

namespace {

constexpr size_t kLongestLine = 65536;  // characters
constexpr size_t kFarthestColumn = 1000;
constexpr char kEscapeKey = 0x1B;
constexpr size_t kTab = 8;

// Sequences that change nothing of where the text goes: colours, modes, sets of characters.
constexpr std::string_view kWithoutMove = "mhlqsug";

// The number of a control sequence that has one, or none.
size_t Number(std::string_view sequence, size_t otherwise) {
  size_t number = otherwise;
  std::from_chars(sequence.data() + 2, sequence.data() + sequence.size() - 1, number);
  return std::min(number, kFarthestColumn);
}

}  // namespace

void PlainLines::Take(std::string_view piece, const Sink& ended) {
  const char first = piece[0];
  if (first == kEscapeKey) {
    TakeSequence(piece, ended);
  } else if (static_cast<unsigned char>(first) < ' ') {
    TakeControl(first, ended);
  } else {
    Write(piece, ended);
  }
}

std::string PlainLines::Line() const {
  std::string text;
  for (const std::string& character : line_) text += character;
  return text;
}

void PlainLines::Clear() {
  line_.clear();
  column_ = 0;
}

void PlainLines::TakeControl(char control, const Sink& ended) {
  if (control == '\n') {
    ended(Line());
    Clear();
  } else if (control == '\v' || control == '\f') {
    End(ended);
  } else if (control == '\r') {
    column_ = 0;
  } else if (control == '\b') {
    column_ -= std::min<size_t>(column_, 1);
  } else if (control == '\t' && column_ < line_.size()) {
    MoveTo(std::min((column_ / kTab + 1) * kTab, line_.size()));
  } else if (control == '\t') {
    Write("\t", ended);
  }
}

// What moves the cursor out of its line ends the line.
void PlainLines::TakeSequence(std::string_view sequence, const Sink& ended) {
  const bool is_control = sequence.size() > 2 && sequence[1] == '[';
  const char last = sequence.back();
  if (!is_control) {
    if (last == 'c' || last == 'D' || last == 'E' || last == 'M') End(ended);
  } else if (last == 'C' || last == 'a') {
    MoveTo(column_ + Number(sequence, 1));
  } else if (last == 'D') {
    column_ -= std::min(column_, std::max<size_t>(Number(sequence, 1), 1));
  } else if (last == 'G' || last == '`') {
    MoveTo(std::max<size_t>(Number(sequence, 1), 1) - 1);
  } else if (last == 'P') {
    Delete(std::max<size_t>(Number(sequence, 1), 1));
  } else if (last == 'K' || (last == 'J' && Number(sequence, 0) == 0)) {
    Erase(Number(sequence, 0));
  } else if (kWithoutMove.find(last) == std::string_view::npos) {
    End(ended);
  }
}

void PlainLines::Write(std::string_view text, const Sink& ended) {
  while (!text.empty()) {
    const size_t length = std::max<size_t>(zevd::Utf8Length(text), 1);
    if (column_ == line_.size()) line_.emplace_back();
    line_[column_] = text.substr(0, length);
    text.remove_prefix(length);
    if (++column_ >= kLongestLine) End(ended);
  }
}

void PlainLines::MoveTo(size_t column) {
  column_ = column;
  if (line_.size() < column_) line_.resize(column_, " ");
}

void PlainLines::Delete(size_t count) {
  const size_t end = std::min(column_ + count, line_.size());
  if (column_ < end) {
    line_.erase(line_.begin() + static_cast<ptrdiff_t>(column_),
                line_.begin() + static_cast<ptrdiff_t>(end));
  }
}

// 0: from the cursor on; 1: up to it; 2: the whole line.
void PlainLines::Erase(size_t part) {
  if (part != 1) line_.resize(std::min(line_.size(), column_));
  if (part == 0) return;
  std::fill_n(line_.begin(), std::min(line_.size(), column_ + 1), " ");
}

void PlainLines::End(const Sink& ended) {
  if (!line_.empty()) ended(Line());
  Clear();
}

}  // namespace zevctl
