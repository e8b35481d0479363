#include "screen_state.h"

#include <algorithm>

namespace zevctl {

namespace {

constexpr unsigned char kEscapeKey = 0x1B;
constexpr unsigned char kBell = 0x07;
constexpr unsigned char kCancel = 0x18;
constexpr unsigned char kSubstitute = 0x1A;

// Bytes that follow the first one of a UTF-8 character.
int Following(unsigned char first) {
  if (first >= 0xF0 && first <= 0xF4) return 3;
  if (first >= 0xE0 && first <= 0xEF) return 2;
  return first >= 0xC2 && first <= 0xDF ? 1 : 0;
}

bool Continues(unsigned char byte) {
  return (byte & 0xC0) == 0x80;
}

bool BeginsString(unsigned char byte) {
  return byte == ']' || byte == 'P' || byte == 'X' || byte == '^' || byte == '_';
}

}  // namespace

void ScreenState::Add(std::string_view text) {
  for (const char byte : text) Take(static_cast<unsigned char>(byte));
}

void ScreenState::Take(unsigned char byte) {
  if (place_ == Place::kText && byte != kEscapeKey) return TakeText(byte);
  missing_ = 0;
  place_ = After(place_, byte);
}

void ScreenState::TakeText(unsigned char byte) {
  missing_ = missing_ > 0 && Continues(byte) ? missing_ - 1 : Following(byte);
  if (byte == '\n') {
    in_line_ = false;
  } else if (byte >= ' ' && byte != 0x7F) {
    in_line_ = true;
  }
}

// Where the byte leads from there (ECMA-48).
ScreenState::Place ScreenState::After(Place place, unsigned char byte) {
  if (byte == kCancel || byte == kSubstitute) return Place::kText;
  if (place == Place::kString) {
    if (byte == kBell) return Place::kText;
    return byte == kEscapeKey ? Place::kStringEscape : Place::kString;
  }
  if (byte == kEscapeKey) return Place::kEscape;
  if (place == Place::kEscape && byte == '[') return Place::kControl;
  if (place == Place::kEscape && BeginsString(byte)) return Place::kString;
  // Bytes below these are parameters; control characters act in the middle of a sequence.
  const unsigned char last_parameter = place == Place::kControl ? '?' : '/';
  return byte <= last_parameter && place != Place::kStringEscape ? place : Place::kText;
}

void RecentOutput::Add(std::string_view text) {
  text_ += text.substr(text.size() - std::min(text.size(), kSize));
  cut_ = cut_ || text.size() > kSize || text_.size() > kSize;
  text_.erase(0, text_.size() - std::min(text_.size(), kSize));
}

std::string RecentOutput::Text() const {
  const size_t line_end = text_.find('\n');
  return cut_ && line_end != std::string::npos ? text_.substr(line_end + 1) : text_;
}

}  // namespace zevctl
