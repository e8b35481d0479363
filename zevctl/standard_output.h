// Standard output for what may have no end: a reader that has gone is told apart from a failure,
// and one that is slow can be left alone.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace zevctl {

/// Thrown when nobody reads standard output any more, as behind "| head": the work is done.
struct ReaderGone {};

class StandardOutput {
 public:
  StandardOutput();

  void Add(std::string_view bytes) { queued_ += bytes; }
  size_t queued() const { return queued_.size() - written_; }

  /// Writes everything. Throws ReaderGone, or Failure(kFailed) when writing fails.
  void Flush();

  /// Writes so little that it does not wait when poll() found the output ready.
  void WriteSome();

 private:
  void Write(size_t most);

  std::string queued_;
  size_t written_ = 0;  // bytes at its front that are done with
};

/// True when poll() tells that nobody reads standard output any more.
bool ReaderHasGone(short poll_result);

}  // namespace zevctl
