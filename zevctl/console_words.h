// The words for the codes with which the daemon tells the state of a console and the mode of its
// users. Tables, JSON and option values have the same words.
#pragma once

#include <string>
#include <vector>

namespace zevctl {

/// "connected" for "0", and so on; "unknown" for a code without a word.
std::string StateInWords(const std::string& code);

/// "read-only" for "1", and so on; "unknown" for a code without a word.
std::string ModeInWords(const std::string& code);

/// "shared" for "sh", and so on; "unknown" for what is no mode of an argument line.
std::string ModeInFull(const std::string& mode);

/// The words of all states, for --state.
std::vector<std::string> StateWords();

}  // namespace zevctl
