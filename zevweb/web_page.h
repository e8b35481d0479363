// A page of the past: the lines that were asked for, as many as there is room for.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "history_part.h"
#include "json_line.h"
#include "web_place.h"

namespace zevweb {

/// Which lines a page has.
struct WebPageRules {
  std::function<bool(const zevctl::HistoryLine&)> is_match;  ///< empty: every line
  size_t count = 0;                                          ///< how many matching lines
  size_t context = 0;  ///< lines of the same console before and after each match
};

/// Takes lines in their order and keeps the last of them, or the first. Lines of one record, and
/// those of one second of a log, are not parted: so a place is where a page can go on. Lines that
/// nothing has ended yet come in addition.
class WebPage {
 public:
  enum class Keep { kLast, kFirst };

  WebPage(const WebPageRules& rules, Keep keep) : rules_(rules), keep_(keep) {}

  /// Throws WebEnough when the first lines are complete.
  void Take(const zevctl::HistoryLine& line);

  /// Matching lines that are kept.
  size_t matches() const { return matches_; }

  /// The lines as an array.
  zevctl::Json Lines() const;

  /// Of the first and of the last matching line; nothing when there is none. Lines that nothing has
  /// ended do not count.
  std::optional<WebPlace> First() const;
  std::optional<WebPlace> Last() const;

 private:
  struct Line {
    std::unique_ptr<zevctl::Json> data;
    WebPlace place;
    int64_t wall = 0;
    bool is_match = false;
    bool is_late = false;
  };
  struct Context {
    std::deque<Line> before;
    size_t after_left = 0;
  };

  Line Made(const zevctl::HistoryLine& line, bool is_match) const;
  void TakeWithContext(const std::string& console, Line line);
  void TakeLate(Line line);
  void Add(Line line);
  void DropFirst();

  const WebPageRules& rules_;
  Keep keep_;
  std::deque<Line> lines_;
  size_t matches_ = 0;
  size_t late_ = 0;
  std::map<std::string, Context> contexts_;
};

}  // namespace zevweb
