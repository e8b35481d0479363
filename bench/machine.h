// The machine that the figures are of.
#pragma once

#include <string>

namespace bench {

/// One line: cores, memory, kernel, compiler, and how busy others keep the machine just now.
std::string DescribeMachine();

}  // namespace bench
