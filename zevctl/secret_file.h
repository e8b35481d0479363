// The files that hold passwords of lines. Whoever may change the readable configuration names them,
// and that is the daemon's user; but root reads them. So not every file may be meant.
#pragma once

#include <string>

namespace zevctl {

struct SecretLine {
  std::string text;
  std::string mistake;  ///< what is wrong with the file, and what mends it; empty for nothing
};

/// The first line of the file. consoles.toml.5 tells which files are taken, under LINES.
SecretLine ReadSecretLine(const std::string& path);

}  // namespace zevctl
