#include "event_file.h"

#include <algorithm>
#include <cstdlib>

#include "hard_pattern.h"
#include "tokens.h"

namespace zevctl {

namespace {

constexpr size_t kLongestPiece = 8191;  // a longer line is read as several
constexpr std::string_view kWordEnds = " \n\r";

/// The pieces of a text that the daemon takes for lines.
class Pieces {
 public:
  explicit Pieces(std::string_view text) : rest_(text) {}

  bool empty() const { return rest_.empty(); }

  // What follows a NUL is not seen.
  std::string_view Next() {
    const size_t line = std::min(rest_.find('\n'), rest_.size() - 1) + 1;
    const std::string_view piece = rest_.substr(0, std::min(line, kLongestPiece));
    rest_.remove_prefix(piece.size());
    return piece.substr(0, piece.find('\0'));
  }

 private:
  std::string_view rest_;
};

void AddLine(std::string_view text, size_t number, EventFile* file) {
  Tokens tokens(text);
  const std::string_view name = tokens.Next(kWordEnds);
  if (name.empty()) return;
  const std::string priority(tokens.Next(kWordEnds));
  const std::string_view case_indicator = tokens.Next(kWordEnds);
  const std::string expression(tokens.Next("\n\r"));
  if (expression.empty()) {
    file->incomplete.push_back(number);
    return;
  }
  file->patterns.push_back({std::string(name), atoi(priority.c_str()), case_indicator == "0",
                            expression, number, zevd::IsHardPattern(expression.c_str())});
}

}  // namespace

bool EventFile::IsHard() const {
  return std::any_of(patterns.begin(), patterns.end(),
                     [](const EventPattern& pattern) { return pattern.is_hard; });
}

EventFile ReadEventFile(std::string_view text) {
  EventFile file;
  size_t number = 0;
  for (Pieces pieces(text); !pieces.empty();) AddLine(pieces.Next(), ++number, &file);
  return file;
}

}  // namespace zevctl
