#include "history_printer.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "history_json.h"
#include "journal_text.h"
#include "output.h"

namespace zevctl {

namespace {

// What a console prints cannot stand in this column, so nobody can pretend what they mean.
constexpr char kWholeLine = '|';
constexpr char kUnfinishedLine = ':';
constexpr char kNoOutput = '*';

constexpr char kNoFraction[] = "    ";  // logs have whole seconds
constexpr size_t kFraction = 4;

char MarkOf(const HistoryLine& line) {
  if (!line.is_output) return kNoOutput;
  return line.is_complete ? kWholeLine : kUnfinishedLine;
}

std::string StampOf(const HistoryLine& line) {
  std::string stamp = StampText(line.wall);
  if (!line.position) stamp.replace(stamp.size() - kFraction, kFraction, kNoFraction);
  return stamp;
}

}  // namespace

void HistoryPrinter::SetStyle(const HistoryStyle& style) {
  style_ = style;
  lines_.SetStyle(style.context, !style.json);
}

bool HistoryPrinter::IsWanted(const HistoryLine& line) const {
  if (line.is_output && !style_.with_output) return false;
  return pattern_ == nullptr || pattern_->Matches(line.text) != inverted_;
}

void HistoryPrinter::Take(const HistoryLine& line) {
  lines_.Tick();
  if (line.is_output && !style_.with_output) return;
  const bool is_match = IsWanted(line);
  found_ = found_ || is_match;
  const auto text = [&] { return style_.json ? JsonOf(line, is_match) : TextOf(line); };
  if (line.is_late && style_.context == 0) {
    if (is_match) lines_.TakeLate(line.wall, text());
    return;
  }
  lines_.Take(std::string(line.console), is_match, line.wall, text);
}

std::string HistoryPrinter::TextOf(const HistoryLine& line) const {
  std::string text = StampOf(line) + " ";
  if (style_.name_width) {
    const std::string name = Harmless(line.console);
    text += name + std::string(*style_.name_width - std::min(*style_.name_width, name.size()), ' ');
    text += ' ';
  }
  text += MarkOf(line);
  const std::string shown = Harmless(line.text);
  return text + (shown.empty() ? "" : " ") + shown + "\n";
}

std::string HistoryPrinter::JsonOf(const HistoryLine& line, bool is_match) const {
  nlohmann::ordered_json data = HistoryData(line);
  if (style_.context > 0) data["match"] = is_match;
  return EscapedJson(data.dump()) + "\n";
}

}  // namespace zevctl
