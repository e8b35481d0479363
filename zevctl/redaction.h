// Taking secrets out of what the daemon has said about itself, before others are shown it.
#pragma once

#include <string>
#include <string_view>

namespace zevctl {

/// Takes lines of the daemon's output, one after the other, as they are in its file or in the
/// system's journal. Where a message shows what a user, a tool or a console sent, the rest of it is
/// left out, further lines of it included: somebody may have typed a password there.
class Redaction {
 public:
  /// `cookie`: is taken out wherever it appears; may be empty.
  explicit Redaction(std::string cookie) : cookie_(std::move(cookie)) {}

  /// What may be shown of the line; nothing of one that is left out.
  std::string Take(std::string_view line);

 private:
  std::string cookie_;
  bool leaving_out_ = true;  // the first line may be the rest of a message
};

}  // namespace zevctl
