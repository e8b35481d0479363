// What a terminal has been shown: enough to begin a line of this program's own in a good place, and
// to show the last of it again.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace zevctl {

/// Follows the output of a console.
class ScreenState {
 public:
  void Add(std::string_view text);

  /// True when the cursor is behind the start of a line.
  bool InLine() const { return in_line_; }

  /// True in the middle of an escape sequence or of a UTF-8 character, which something else would
  /// spoil.
  bool InSequence() const { return place_ != Place::kText || missing_ > 0; }

 private:
  enum class Place {
    kText,
    kEscape,        // behind an escape character
    kControl,       // in a control sequence, which a byte from '@' on ends
    kString,        // in a text for the terminal, such as the title of its window
    kStringEscape,  // behind an escape character in there: the first half of its end
  };

  void Take(unsigned char byte);
  void TakeText(unsigned char byte);
  static Place After(Place place, unsigned char byte);

  Place place_ = Place::kText;
  int missing_ = 0;  // bytes of a UTF-8 character
  bool in_line_ = false;
};

/// The last of what a console printed, a bounded number of bytes.
class RecentOutput {
 public:
  static constexpr size_t kSize = 16384;

  void Add(std::string_view text);

  /// The text, without the rest of a line whose start is gone.
  std::string Text() const;

 private:
  std::string text_;
  bool cut_ = false;
};

}  // namespace zevctl
