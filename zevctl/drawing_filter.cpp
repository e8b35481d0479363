#include "drawing_filter.h"

#include <algorithm>
#include <charconv>
#include <vector>

#include "output.h"
#include "utf8.h"

namespace zevctl {

namespace {

constexpr unsigned char kEscapeKey = 0x1B;
constexpr unsigned char kBell = 0x07;
constexpr unsigned char kCancel = 0x18;
constexpr unsigned char kSubstitute = 0x1A;
constexpr std::string_view kReplacement = "\xEF\xBF\xBD";  // U+FFFD in UTF-8

constexpr char kRepeat = 'b';  // the last character

constexpr size_t kLongestSequence = 128;
constexpr size_t kLongestString = 4096;
constexpr size_t kMostDigits = 3;
constexpr char kMostNumber[] = "1000";

// Bell, backspace, tab, line feed, vertical tab, form feed, carriage return, and the two that
// choose between sets of characters.
constexpr std::string_view kControls = "\a\b\t\n\v\f\r\x0E\x0F";

// Control sequences (ECMA-48) that move the cursor, erase, insert, delete, scroll, and set colours,
// margins and tabs. "h" and "l" are looked at more closely.
constexpr std::string_view kDrawing = "@ABCDEFGHIJKLMPSTXZ`adefgmrsu";

// Behind an escape character: save and restore the cursor, move it, set a tab, reset, and choose a
// set of characters.
constexpr std::string_view kEscapes = "78DEHMcno|}~NO";
constexpr std::string_view kCharacterSets = "()*+";
constexpr std::string_view kScreenAlignment = "\x1B#8";
constexpr std::string_view kSoftReset = "\x1B[!p";

// Reverse screen, origin, wrapping, a cursor that blinks, a cursor, and the alternate screen in its
// variants. All others change what keys, mouse and window do.
constexpr int kPrivateModes[] = {5, 6, 7, 12, 25, 47, 1047, 1048, 1049};
constexpr std::string_view kInsertMode = "4";

std::vector<std::string> Split(std::string_view text) {
  std::vector<std::string> parts(1);
  for (const char byte : text) {
    if (byte == ';') {
      parts.emplace_back();
    } else {
      parts.back() += byte;
    }
  }
  return parts;
}

bool IsDrawingMode(const std::string& mode, bool is_private) {
  if (!is_private) return mode == kInsertMode;
  return std::any_of(std::begin(kPrivateModes), std::end(kPrivateModes),
                     [&](int known) { return mode == std::to_string(known); });
}

// ESC [ ... h or l, with those of its modes that only draw; empty when it has none of them.
std::string OnlyDrawingModes(std::string_view sequence) {
  std::string_view modes = sequence.substr(2, sequence.size() - 3);
  const bool is_private = modes.starts_with('?');
  if (is_private) modes.remove_prefix(1);
  std::string kept;
  for (const std::string& mode : Split(modes)) {
    if (IsDrawingMode(mode, is_private)) kept += (kept.empty() ? "" : ";") + mode;
  }
  if (kept.empty()) return "";
  return std::string("\x1B[") + (is_private ? "?" : "") + kept + sequence.back();
}

bool IsParameter(char byte) {
  return (byte >= '0' && byte <= '9') || byte == ';' || byte == ':';
}

bool OnlyParameters(std::string_view text) {
  return std::all_of(text.begin(), text.end(), IsParameter);
}

// Without numbers that are more than any screen has: an emulation may count them down.
std::string WithBoundedNumbers(std::string_view sequence) {
  std::string bounded;
  std::string number;
  for (const char byte : sequence) {
    if (byte >= '0' && byte <= '9') {
      number += byte;
      continue;
    }
    bounded += number.size() > kMostDigits ? kMostNumber : number;
    bounded += byte;
    number.clear();
  }
  return bounded;
}

// A whole control sequence as it may pass; empty when it may not.
std::string Passing(std::string_view sequence) {
  const char last = sequence.back();
  if (last == 'h' || last == 'l') return OnlyDrawingModes(sequence);
  std::string_view between = sequence.substr(2, sequence.size() - 3);
  const bool is_selective_erase = between.starts_with('?') && (last == 'J' || last == 'K');
  if (is_selective_erase) between.remove_prefix(1);
  const bool draws = OnlyParameters(between) && kDrawing.find(last) != std::string_view::npos;
  return draws || sequence == kSoftReset ? WithBoundedNumbers(sequence) : "";
}

bool MayPassEscape(std::string_view sequence) {
  if (sequence.size() == 2) return kEscapes.find(sequence[1]) != std::string_view::npos;
  const bool is_set =
      sequence.size() == 3 && kCharacterSets.find(sequence[1]) != std::string_view::npos;
  return is_set || sequence == kScreenAlignment;
}

bool BeginsString(unsigned char byte) {
  return byte == ']' || byte == 'P' || byte == 'X' || byte == '^' || byte == '_';
}

bool IsPlain(char byte) {
  const auto code = static_cast<unsigned char>(byte);
  return code >= 0x20 && code < 0x7F;
}

size_t PlainAtFront(std::string_view text) {
  const auto* const other = std::find_if_not(text.begin(), text.end(), IsPlain);
  return static_cast<size_t>(other - text.begin());
}

}  // namespace

void DrawingFilter::Take(std::string_view bytes, const Sink& sink) {
  const std::string text = joiner_.Take(bytes);
  std::string_view rest = text;
  while (!rest.empty()) {
    const size_t plain = place_ == Place::kText ? PlainAtFront(rest) : 0;
    const size_t length = std::max({plain, zevd::Utf8Length(rest), size_t{1}});
    const std::string_view piece = rest.substr(0, length);
    const auto first = static_cast<unsigned char>(piece[0]);
    rest.remove_prefix(length);
    if (plain > 0) {
      Put(piece, sink);
    } else if (place_ == Place::kString || place_ == Place::kStringEscape) {
      TakeInString(first, sink);
    } else if (place_ != Place::kText && first < 0x80) {
      TakeInSequence(first, sink);
    } else {
      TakeText(piece, sink);
    }
  }
}

std::string DrawingFilter::Take(std::string_view bytes) {
  std::string drawn;
  Take(bytes, [&](std::string_view piece) { drawn += piece; });
  return drawn;
}

std::string DrawingFilter::Finish() {
  const std::string end = joiner_.Finish();
  return place_ == Place::kString || place_ == Place::kStringEscape ? "" : end;
}

// Eight-bit control characters and changes of the direction of writing have a sign in their place.
void DrawingFilter::TakeText(std::string_view character, const Sink& sink) {
  Drop();  // a sequence has no such character
  const auto first = static_cast<unsigned char>(character[0]);
  if (first == kEscapeKey) {
    Begin();
  } else if (first >= 0x80) {
    Put(Printable(character) == character ? character : kReplacement, sink);
  } else if (kControls.find(character[0]) != std::string_view::npos) {
    sink(character);
  }
}

// Control characters act in the middle of a sequence, too.
void DrawingFilter::TakeInSequence(unsigned char byte, const Sink& sink) {
  if (byte == kEscapeKey) return Begin();
  if (byte == kCancel || byte == kSubstitute) return Drop();
  if (byte < ' ' || byte == 0x7F) {
    const char control = static_cast<char>(byte);
    if (kControls.find(control) != std::string_view::npos) sink({&control, 1});
    return;
  }
  sequence_ += static_cast<char>(byte);
  if (sequence_.size() > kLongestSequence) return Drop();
  if (place_ == Place::kControl) {
    if (byte >= '@') End(sink);
  } else if (sequence_.size() == 2 && byte == '[') {
    place_ = Place::kControl;
  } else if (sequence_.size() == 2 && BeginsString(byte)) {
    place_ = Place::kString;
    string_length_ = 0;
  } else if (byte >= '0') {
    End(sink);
  }
}

// A string that never ends would hide all that is printed after it. So a line feed ends it, too,
// and its length.
void DrawingFilter::TakeInString(unsigned char byte, const Sink& sink) {
  const bool after_escape = place_ == Place::kStringEscape;
  place_ = Place::kString;
  if (byte == '\n') {
    Drop();
    sink("\n");
  } else if (after_escape && byte != '\\') {
    Begin();
    TakeInSequence(byte, sink);
  } else if (after_escape || byte == kBell || byte == kCancel || byte == kSubstitute ||
             ++string_length_ > kLongestString) {
    Drop();
  } else if (byte == kEscapeKey) {
    place_ = Place::kStringEscape;
  }
}

void DrawingFilter::Begin() {
  place_ = Place::kEscape;
  sequence_ = static_cast<char>(kEscapeKey);
}

void DrawingFilter::End(const Sink& sink) {
  const bool is_control = place_ == Place::kControl;
  if (is_control && sequence_.back() == kRepeat) return Repeat(sequence_, sink);
  const std::string passing =
      is_control ? Passing(sequence_) : (MayPassEscape(sequence_) ? sequence_ : "");
  Drop();
  if (!passing.empty()) sink(passing);
}

void DrawingFilter::Put(std::string_view text, const Sink& sink) {
  size_t begin = text.size() - 1;
  while (begin > 0 && (text[begin] & 0xC0) == 0x80) --begin;
  last_character_ = text.substr(begin);
  sink(text);
}

// Emulations differ in what they repeat, and how often: a character without a width, for example.
void DrawingFilter::Repeat(std::string_view sequence, const Sink& sink) {
  const std::string bounded = WithBoundedNumbers(sequence);
  Drop();
  size_t count = 1;
  std::from_chars(bounded.data() + 2, bounded.data() + bounded.size() - 1, count);
  if (last_character_.empty() || !OnlyParameters(bounded.substr(2, bounded.size() - 3))) return;
  std::string text;
  for (; count > 0; --count) text += last_character_;
  if (!text.empty()) sink(text);
}

void DrawingFilter::Drop() {
  place_ = Place::kText;
  sequence_.clear();
}

}  // namespace zevctl
