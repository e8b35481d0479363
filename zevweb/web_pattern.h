// What lines are searched for.
#pragma once

#include <memory>
#include <string>

#include "log_filter.h"

namespace zevweb {

/// A POSIX extended regular expression, or, if `is_plain`, the text itself. Throws Problem(400) for
/// one that is none, that is too long, or that takes the matcher too long on a line.
std::unique_ptr<zevctl::Pattern> MakeWebPattern(const std::string& text, bool ignore_case,
                                                bool is_plain);

}  // namespace zevweb
