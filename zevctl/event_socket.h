// The Unix stream socket at which events are received.
#pragma once

#include <sys/types.h>

#include <string>

#include "descriptor.h"

namespace zevctl {

/// Listens as long as it exists. At its end it removes the socket, if that is still its own.
class EventSocket {
 public:
  /// Makes the directory of the socket if it is missing, and replaces a socket on which nobody
  /// listens. Throws Failure(kFailed) when somebody listens on it, when the path is something else,
  /// or when the socket cannot be made; Failure(kUsage) when the path is empty or too long.
  explicit EventSocket(const std::string& path);
  ~EventSocket();
  EventSocket(const EventSocket&) = delete;
  EventSocket& operator=(const EventSocket&) = delete;

  int fd() const { return listener_.get(); }

  /// The next connection; not valid when there is none. `full` is set to whether that is because no
  /// more descriptors can be opened.
  Descriptor Accept(bool& full);

 private:
  bool IsOurs() const;

  std::string path_;
  Descriptor listener_;
  dev_t device_ = 0;
  ino_t inode_ = 0;
};

}  // namespace zevctl
