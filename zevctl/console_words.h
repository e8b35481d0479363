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

/// The words of all states.
std::vector<std::string> StateWords();

/// The words of all states that consoles can be in, "unknown" too, the most urgent first.
std::vector<std::string> StatesByUrgency();

/// What --state takes: the words of all states, and "down" and "up" for several of them.
std::vector<std::string> StateChoices();

/// True when a console in that state is one that the choice means. "up" are the connected ones, in
/// use or not; "down" are those that should be connected and are not: all others but the disabled
/// ones.
bool StateIsOf(const std::string& state, const std::string& choice);

}  // namespace zevctl
