// The words of a command line that is to be run elsewhere.
#pragma once

#include <string>
#include <vector>

#include "arguments.h"

namespace zevctl {

struct FarWords {
  std::string command;
  std::vector<std::string> options;    ///< with their values, without those of --fleet
  std::vector<std::string> arguments;  ///< known by their places

  /// The line without its program, with other arguments.
  std::vector<std::string> Line(const std::vector<std::string>& with) const;
};

/// Takes a line apart that has been parsed without a mistake.
FarWords SplitWords(const Command& app, const std::vector<std::string>& words);

/// The words as one text that a shell takes apart into them again.
std::string QuotedForShell(const std::vector<std::string>& words);

}  // namespace zevctl
