#include "web_page.h"

#include <nlohmann/json.hpp>
#include <utility>

#include "history_json.h"
#include "web_deadline.h"

namespace zevweb {

namespace {

// What is not parted must not take all memory: a second of a log may have any number of lines.
constexpr size_t kMostTogether = 100'000;

}  // namespace

WebPage::Line WebPage::Made(const zevctl::HistoryLine& line, bool is_match) const {
  Line made;
  made.data = std::make_unique<zevctl::Json>(zevctl::HistoryData(line));
  if (rules_.context > 0) (*made.data)["match"] = is_match;
  made.place = PlaceOf(line);
  made.wall = line.wall;
  made.is_match = is_match;
  made.is_late = line.is_late;
  return made;
}

void WebPage::Take(const zevctl::HistoryLine& line) {
  const bool is_match = !rules_.is_match || rules_.is_match(line);
  if (line.is_late) {
    if (is_match) TakeLate(Made(line, true));
  } else if (rules_.context > 0) {
    TakeWithContext(std::string(line.console), Made(line, is_match));
  } else if (is_match) {
    Add(Made(line, true));
  }
}

void WebPage::TakeWithContext(const std::string& console, Line line) {
  Context& context = contexts_[console];
  if (line.is_match) {
    for (Line& before : context.before) Add(std::move(before));
    context.before.clear();
    context.after_left = rules_.context;
    Add(std::move(line));
  } else if (context.after_left > 0) {
    --context.after_left;
    Add(std::move(line));
  } else {
    context.before.push_back(std::move(line));
    if (context.before.size() > rules_.context) context.before.pop_front();
  }
}

// In the order of time among the others. They come in addition: a page without any other line would
// have no place from which to go on.
void WebPage::TakeLate(Line line) {
  auto place = lines_.end();
  while (place != lines_.begin() && (place - 1)->wall > line.wall) --place;
  if (late_ >= rules_.count || (place == lines_.begin() && matches_ >= rules_.count)) return;
  lines_.insert(place, std::move(line));
  ++late_;
}

void WebPage::Add(Line line) {
  if (keep_ == Keep::kFirst && matches_ >= rules_.count) {
    const bool is_together = !lines_.empty() && lines_.back().place == line.place;
    if (!is_together || matches_ >= rules_.count + kMostTogether) throw WebEnough();
  }
  matches_ += line.is_match ? 1 : 0;
  lines_.push_back(std::move(line));
  if (keep_ == Keep::kLast) DropFirst();
}

// The lines that belong to the first place, if the others are enough.
void WebPage::DropFirst() {
  while (matches_ > rules_.count) {
    size_t together = 0;
    size_t matching = 0;
    for (; together < lines_.size() && lines_[together].place == lines_.front().place; ++together) {
      matching += lines_[together].is_match && !lines_[together].is_late ? 1 : 0;
      if (together >= kMostTogether) break;
    }
    if (matches_ - matching < rules_.count && matches_ < rules_.count + kMostTogether) return;
    lines_.erase(lines_.begin(), lines_.begin() + static_cast<std::ptrdiff_t>(together));
    matches_ -= matching;
  }
}

zevctl::Json WebPage::Lines() const {
  zevctl::Json lines = zevctl::Json::array();
  for (const Line& line : lines_) lines.push_back(*line.data);
  return lines;
}

std::optional<WebPlace> WebPage::First() const {
  for (const Line& line : lines_) {
    if (line.is_match && !line.is_late) return line.place;
  }
  return {};
}

std::optional<WebPlace> WebPage::Last() const {
  for (auto line = lines_.rbegin(); line != lines_.rend(); ++line) {
    if (line->is_match && !line->is_late) return line->place;
  }
  return {};
}

}  // namespace zevweb
