#include "shown_lines.h"

#include <poll.h>
#include <unistd.h>

namespace zevctl {

namespace {

constexpr size_t kFlushSize = 65536;
constexpr size_t kLinesToLook = 1024;  // after so many it is seen whether somebody still reads
constexpr std::chrono::milliseconds kFlushInterval{200};
constexpr char kGap[] = "--\n";

}  // namespace

void ShownLines::ShowLast() {
  for (const Line& line : last_) Write(line);
  last_.clear();
  kept_.reset();
}

void ShownLines::TakeWithContext(const std::string& source, bool is_match, int64_t when,
                                 std::string text) {
  Context& context = contexts_[source];
  Line line{std::move(text), &context, ++context.number, when};
  if (is_match) {
    for (Line& before : context.before) Show(std::move(before));
    context.before.clear();
    context.after_left = context_;
  } else if (context.after_left == 0) {
    context.before.push_back(std::move(line));
    if (context.before.size() > context_) context.before.pop_front();
    return;
  } else {
    --context.after_left;
  }
  Show(std::move(line));
}

void ShownLines::TakeLate(int64_t when, std::string text) {
  Line line{std::move(text), nullptr, 0, when};
  if (!kept_) return Write(line);
  auto place = last_.end();
  while (place != last_.begin() && (place - 1)->when > when) --place;
  last_.insert(place, std::move(line));
  if (last_.size() > *kept_) last_.pop_front();
}

void ShownLines::Tick() {
  if (++taken_ % kLinesToLook == 0) LookAtReader();
}

void ShownLines::Show(Line line) {
  if (!kept_) return Write(line);
  last_.push_back(std::move(line));
  if (last_.size() > *kept_) last_.pop_front();
}

void ShownLines::Write(const Line& line) {
  const bool has_gap = line.source != shown_source_ || line.number != shown_number_ + 1;
  if (line.source != nullptr && shown_source_ != nullptr && has_gap && separators_) {
    output_.Add(kGap);
  }
  shown_source_ = line.source;
  shown_number_ = line.number;
  output_.Add(line.text);
  if (output_.queued() >= kFlushSize) Flush();
}

void ShownLines::Flush() {
  output_.Flush();
  flushed_ = Clock::now();
}

// A search may go through gigabytes between two matches. What was found is shown meanwhile.
void ShownLines::LookAtReader() {
  pollfd output = {STDOUT_FILENO, 0, 0};
  if (poll(&output, 1, 0) > 0 && ReaderHasGone(output.revents)) throw ReaderGone();
  if (output_.queued() > 0 && Clock::now() - flushed_ >= kFlushInterval) Flush();
}

}  // namespace zevctl
