#include "bounded_output.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>

#include "clock.h"

namespace zevd {

namespace {

constexpr int64_t kPatience = 100;  // milliseconds, for a message in all
constexpr int64_t kShare = 10;      // messages may wait one part in this many of all time
constexpr int64_t kNotStarted = -1;

// A terminal that is ready for writing is only certain to accept a short run of printing
// characters, or one character that it may have to replace by others, such as a line end.
constexpr size_t kTerminalRun = 128;

bool IsControl(char byte) {
  return static_cast<unsigned char>(byte) < ' ';
}

size_t TerminalPiece(std::string_view rest) {
  const char* end = std::find_if(rest.begin(), rest.end(), IsControl);
  const size_t run = std::min<size_t>(static_cast<size_t>(end - rest.begin()), kTerminalRun);
  return std::max<size_t>(run, 1);
}

}  // namespace

bool BoundedOutput::Write(const char* stamp, std::string_view text, unsigned long messages) {
  text = text.substr(0, kLongestText);
  int64_t deadline = kNotStarted;
  if (!WriteOut(&deadline)) {
    lost_ += messages;
    return false;
  }
  start_ = end_ = 0;
  if (lost_ > 0) {
    const int size = snprintf(unit_, sizeof unit_ - kLongestText,
                              "ZEV %s: %lu messages were lost\n", stamp, lost_);
    end_ = std::min(static_cast<size_t>(size), sizeof unit_ - kLongestText - 1);
  }
  memcpy(unit_ + end_, text.data(), text.size());
  end_ += text.size();
  if (!WriteOut(&deadline) && start_ == 0) {
    end_ = 0;
    lost_ += messages;
    return false;
  }
  lost_ = 0;
  return true;
}

// True when all of `unit_` is written.
bool BoundedOutput::WriteOut(int64_t* deadline) {
  while (start_ < end_) {
    if (!AwaitRoom(deadline)) break;
    const ssize_t count = write(fd_, unit_ + start_, PieceSize());
    if (count == -1 && errno == EINTR) continue;
    if (count <= 0) break;
    start_ += static_cast<size_t>(count);
    stuck_ = false;
  }
  if (start_ < end_) stuck_ = true;
  return start_ == end_;
}

// The bytes that the descriptor, once it can be written to, takes without a wait: a pipe takes
// PIPE_BUF.
size_t BoundedOutput::PieceSize() const {
  const std::string_view rest(unit_ + start_, end_ - start_);
  return isatty(fd_) == 1 ? TerminalPiece(rest) : std::min<size_t>(rest.size(), PIPE_BUF);
}

// True when a piece can be written without a wait, or the write will tell what is wrong. The clock
// is looked at only when there is no room: `deadline` is set then.
bool BoundedOutput::AwaitRoom(int64_t* deadline) {
  pollfd writable = {fd_, POLLOUT, 0};
  int64_t now = 0;
  for (int64_t left = 0;;) {
    const int ready = poll(&writable, 1, static_cast<int>(left));
    if (left > 0) repaid_ += kShare * (MonotonicMilliseconds() - now);
    if (ready > 0) return true;
    if (stuck_ || (ready == -1 && errno != EINTR)) return false;
    now = MonotonicMilliseconds();
    if (*deadline == kNotStarted) *deadline = now + Allowance(now);
    left = *deadline - now;
    if (left <= 0) return false;
  }
}

// How long a message may wait now, in milliseconds. Without this bound, a reader who takes some,
// but slowly, would bring the daemon down to its own pace, message by message.
int64_t BoundedOutput::Allowance(int64_t now) {
  repaid_ = std::max(repaid_, now - kShare * kPatience);
  return std::max<int64_t>((now - repaid_) / kShare, 0);
}

}  // namespace zevd
