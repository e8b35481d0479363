// The Unix stream socket at which events are received.
#pragma once

#include <sys/types.h>

#include <string>

#include "descriptor.h"

namespace zevctl {

/// Listens as long as it lives, and then removes the socket if it is still its own.
class EventSocket {
 public:
  /// Makes the directory of the socket if it is missing, and takes the place of a socket at which
  /// nobody listens. Throws Failure(kFailed) when somebody does, or when the path is something
  /// else.
  explicit EventSocket(const std::string& path);
  ~EventSocket();
  EventSocket(const EventSocket&) = delete;
  EventSocket& operator=(const EventSocket&) = delete;

  int fd() const { return listener_.get(); }

  /// The next connection; not valid when there is none. `full` tells that there are as many
  /// descriptors as there can be.
  Descriptor Accept(bool& full);

 private:
  bool IsOurs() const;

  std::string path_;
  Descriptor listener_;
  dev_t device_ = 0;
  ino_t inode_ = 0;
};

}  // namespace zevctl
