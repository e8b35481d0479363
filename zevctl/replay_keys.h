// The keys of a replay, from the bytes that a terminal sends for them.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace zevctl {

enum class Key {
  kText,  ///< a character, or several that were typed at once
  kEnter,
  kBackspace,
  kEscape,
  kInterrupt,  ///< Ctrl-C
  kStop,       ///< Ctrl-Z
  kLeft,
  kRight,
  kFarLeft,  ///< with shift, control or alt
  kFarRight,
  kHome,
  kEnd,
};

struct KeyPress {
  Key key;
  std::string text;
};

class KeyReader {
 public:
  /// The keys that are complete now. Unknown sequences are none.
  std::vector<KeyPress> Take(std::string_view bytes);

  /// True while an escape character is either the escape key or the begin of a sequence.
  bool IsUndecided() const { return !pending_.empty(); }

  /// Nothing has followed for a while: it was the escape key.
  std::vector<KeyPress> Decide();

 private:
  bool TakeOne(std::vector<KeyPress>& keys);

  std::string pending_;
};

}  // namespace zevctl
