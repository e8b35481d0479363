#include "log_printer.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <utility>

#include "json_line.h"
#include "moment.h"
#include "output.h"

namespace zevctl {

namespace {

constexpr size_t kFlushSize = 65536;
constexpr size_t kRecordsToLook = 1024;  // after so many it is seen whether somebody still reads
constexpr std::chrono::milliseconds kFlushInterval{200};
constexpr char kGap[] = "--\n";

// A tab is harmless and common in what consoles print.
std::string Harmless(std::string_view text) {
  std::string shown(text);
  std::replace(shown.begin(), shown.end(), '\t', ' ');
  return Printable(shown);
}

std::string_view WithoutEnd(std::string_view bytes, char end) {
  if (bytes.ends_with(end)) bytes.remove_suffix(1);
  return bytes;
}

std::string Padded(std::string text, size_t width) {
  text.resize(std::max(text.size(), width), ' ');
  return text + " ";
}

}  // namespace

void LogPrinter::ShowLast() {
  for (const Line& line : last_) Write(line);
  last_.clear();
  kept_.reset();
}

void LogPrinter::Take(const LogReader& log, const Record& record) {
  if (++taken_ % kRecordsToLook == 0) LookAtReader();
  if (!filter_.TakesTimeOf(record)) return;
  const bool is_match = filter_.TakesBodyOf(record);
  found_ = found_ || is_match;
  if (style_.context > 0) {
    TakeWithContext(log, record, is_match);
  } else if (is_match) {
    Show({TextOf(log, record, true), nullptr, 0});
  }
}

void LogPrinter::TakeWithContext(const LogReader& log, const Record& record, bool is_match) {
  Context& context = contexts_[log.name()];
  Line line{TextOf(log, record, is_match), &context, ++context.number};
  if (is_match) {
    for (Line& before : context.before) Show(std::move(before));
    context.before.clear();
    context.after_left = style_.context;
  } else if (context.after_left == 0) {
    context.before.push_back(std::move(line));
    if (context.before.size() > style_.context) context.before.pop_front();
    return;
  } else {
    --context.after_left;
  }
  Show(std::move(line));
}

// Every record gets a line of its own, even when it has no line end or another one.
std::string LogPrinter::TextOf(const LogReader& log, const Record& record, bool is_match) const {
  if (style_.form == LogForm::kJson) {
    Json data;
    data["time"] = record.time ? Json(Rfc3339(*record.time)) : nullptr;
    data["console"] = Utf8(record.console.empty() ? log.name() : record.console);
    data["text"] = Utf8(record.text);
    if (style_.context > 0) data["match"] = is_match;
    return JsonLine(data) + "\n";
  }
  const std::string name =
      style_.name_width ? Padded(Harmless(log.name()), *style_.name_width) : "";
  const std::string_view bytes = WithoutEnd(record.bytes, '\n');
  if (style_.form == LogForm::kBytes) return name + std::string(bytes) + "\n";
  return name + Harmless(WithoutEnd(bytes, '\r')) + "\n";
}

void LogPrinter::Show(Line line) {
  if (!kept_) return Write(line);
  last_.push_back(std::move(line));
  if (last_.size() > *kept_) last_.pop_front();
}

void LogPrinter::Write(const Line& line) {
  const bool has_gap = line.log != shown_log_ || line.number != shown_number_ + 1;
  if (line.log != nullptr && shown_log_ != nullptr && has_gap && style_.form != LogForm::kJson) {
    output_.Add(kGap);
  }
  shown_log_ = line.log;
  shown_number_ = line.number;
  output_.Add(line.text);
  if (output_.queued() >= kFlushSize) Flush();
}

void LogPrinter::Flush() {
  output_.Flush();
  flushed_ = Clock::now();
}

// A search may go through gigabytes between two matches. What was found is shown meanwhile.
void LogPrinter::LookAtReader() {
  pollfd output = {STDOUT_FILENO, 0, 0};
  if (poll(&output, 1, 0) > 0 && ReaderHasGone(output.revents)) throw ReaderGone();
  if (output_.queued() > 0 && Clock::now() - flushed_ >= kFlushInterval) Flush();
}

}  // namespace zevctl
