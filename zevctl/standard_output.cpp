#include "standard_output.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>

#include "exit_status.h"

namespace zevctl {

StandardOutput::StandardOutput() {
  signal(SIGPIPE, SIG_IGN);  // a failed write reports it
}

void StandardOutput::Flush() {
  while (queued() > 0) Write(queued());
}

// A pipe that poll() found ready has room for this much.
void StandardOutput::WriteSome() {
  Write(std::min<size_t>(queued(), PIPE_BUF));
}

void StandardOutput::Write(size_t most) {
  const ssize_t count = write(STDOUT_FILENO, queued_.data() + written_, most);
  if (count < 0) {
    if (errno == EINTR) return;
    if (errno == EPIPE) throw ReaderGone();
    throw Failure(ExitStatus::kFailed,
                  std::string("the output cannot be written: ") + strerror(errno));
  }
  written_ += static_cast<size_t>(count);
  if (written_ < queued_.size() / 2) return;
  queued_.erase(0, written_);
  written_ = 0;
}

void EndBySignals() {
  for (const int number : {SIGINT, SIGTERM}) {
    const auto before = signal(number, [](int) { _exit(static_cast<int>(ExitStatus::kOk)); });
    if (before == SIG_IGN) signal(number, SIG_IGN);
  }
}

bool ReaderHasGone(short poll_result) {
  return (poll_result & (POLLERR | POLLHUP | POLLNVAL)) != 0;
}

}  // namespace zevctl
