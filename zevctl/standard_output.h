// Standard output for data that may never end. A reader that has gone is told apart from a failure,
// and the program need not wait for a slow one.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace zevctl {

/// Thrown when nobody reads standard output any more, as with "| head": the work is done.
struct ReaderGone {};

class StandardOutput {
 public:
  StandardOutput();

  /// Queues the bytes.
  void Add(std::string_view bytes) { queued_ += bytes; }

  /// How many bytes wait to be written.
  size_t queued() const { return queued_.size() - written_; }

  /// Writes everything. Throws ReaderGone, or Failure(kFailed) when writing fails.
  void Flush();

  /// Writes as much as never has to wait once poll() has found the output ready. Throws like
  /// Flush().
  void WriteSome();

 private:
  void Write(size_t most);

  std::string queued_;
  size_t written_ = 0;  // bytes at its front that are done with
};

/// For output without an end: from here on SIGINT and SIGTERM end the program with status 0 at any
/// time, even while the output is blocked; nothing is cleaned up. What was ignored stays so.
void EndBySignals();

/// True when poll() tells that nobody reads standard output any more.
bool ReaderHasGone(short poll_result);

}  // namespace zevctl
