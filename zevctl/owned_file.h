// Opening files where others may have put something else in their place: a link, a pipe, a device,
// or another name of a file that is not theirs.
#pragma once

#include <sys/stat.h>

#include <string>

#include "descriptor.h"

namespace zevctl {

struct SafeFile {
  Descriptor opened;   ///< of a regular file that has no other name; none if there is a reason
  std::string reason;  ///< why it cannot be read, or must not be
  int error = 0;       ///< the system's number for the reason; 0 when the file is not as it must be
  struct stat info {};
};

/// Opens `name`, which may have directories in front, below `directory`. No link is followed from
/// there on, and nothing but a regular file is opened: opening alone can set a device off, or wait.
SafeFile OpenSafely(const std::string& directory, const std::string& name);

}  // namespace zevctl
