// What a console prints, as lines of plain text: what somebody reads at last where the line is
// typed over, erased and corrected.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace zevctl {

class PlainLines {
 public:
  using Sink = std::function<void(const std::string&)>;

  /// Takes what a DrawingFilter gives. `ended` gets each line that is complete, without its end.
  void Take(std::string_view piece, const Sink& ended);

  /// The line that is not complete yet.
  std::string Line() const;

  /// Begins a new line.
  void Clear();

 private:
  void TakeControl(char control, const Sink& ended);
  void TakeSequence(std::string_view sequence, const Sink& ended);
  void Write(std::string_view text, const Sink& ended);
  void MoveTo(size_t column);
  void Delete(size_t count);
  void Erase(size_t part);
  void End(const Sink& ended);

  std::vector<std::string> line_;  // its characters
  size_t column_ = 0;
};

}  // namespace zevctl
