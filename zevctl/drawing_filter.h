// What a console prints, without what a terminal would not draw but obey: questions to which it
// answers as if somebody typed, its title, the clipboard, the mouse, other kinds of keys, printing.
#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "utf8_joiner.h"

namespace zevctl {

class DrawingFilter {
 public:
  /// Takes a run of printable characters, a control character, or a whole escape sequence.
  using Sink = std::function<void(std::string_view)>;

  /// The bytes may cut characters and sequences anywhere.
  void Take(std::string_view bytes, const Sink& sink);

  /// The same, as one text.
  std::string Take(std::string_view bytes);

  /// At the end: the sign for a character whose rest never came.
  std::string Finish();

 private:
  enum class Place {
    kText,
    kEscape,        // behind an escape character, and what may follow it before the last byte
    kControl,       // in a control sequence
    kString,        // in a text for the terminal itself
    kStringEscape,  // behind an escape character in there
  };

  void TakeText(std::string_view character, const Sink& sink);
  void TakeInSequence(unsigned char byte, const Sink& sink);
  void TakeInString(unsigned char byte, const Sink& sink);
  void Begin();
  void End(const Sink& sink);
  void Drop();
  void Put(std::string_view text, const Sink& sink);
  void Repeat(std::string_view sequence, const Sink& sink);

  Utf8Joiner joiner_;
  Place place_ = Place::kText;
  std::string sequence_;
  std::string last_character_;
  size_t string_length_ = 0;
};

}  // namespace zevctl
