#include "notes.h"

#include <unistd.h>

#include "output.h"

namespace zevctl {

namespace {

constexpr Milliseconds kLongestWait{500};  // for the rest of an escape sequence

std::string EachLinePrintable(std::string_view text) {
  std::string printable;
  for (;;) {
    const size_t end = text.find('\n');
    printable += Printable(text.substr(0, end)) + "\n";
    if (end == std::string_view::npos) return printable;
    text.remove_prefix(end + 1);
  }
}

}  // namespace

Notes::Notes(OutputQueue& screen, OutputQueue& errors, bool raw)
    : screen_(screen),
      errors_(errors),
      raw_(raw && isatty(STDERR_FILENO) == 1),
      one_terminal_(raw_ && isatty(STDOUT_FILENO) == 1) {}

void Notes::Say(const std::string& text) {
  Write(LineEnds(EachLinePrintable("zevctl: " + text)));
}

void Notes::Repeat(const std::string& text) {
  Write(text);
}

void Notes::Write(const std::string& text) {
  if (!one_terminal_) return errors_.Add(text);
  if (waiting_.empty()) waits_since_ = Clock::now();
  waiting_.push_back(text);
  Flush();
}

void Notes::Follow(std::string_view text) {
  state_.Add(text);
}

void Notes::Flush() {
  if (waiting_.empty()) return;
  if (state_.InSequence() && Clock::now() < *Due()) return;
  for (const std::string& text : waiting_) {
    const std::string shown = (state_.InLine() ? "\r\n" : "") + text;
    screen_.Add(shown);
    state_.Add(shown);
  }
  waiting_.clear();
}

std::optional<Clock::time_point> Notes::Due() const {
  if (waiting_.empty()) return {};
  return waits_since_ + kLongestWait;
}

std::string Notes::LineEnds(const std::string& text) const {
  if (!raw_) return text;
  std::string converted;
  for (const char byte : text) {
    if (byte == '\n') converted.push_back('\r');
    converted.push_back(byte);
  }
  return converted;
}

}  // namespace zevctl
