// What a typed name means: the rules for names of consoles that all commands share.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace zevctl {

/// True when both mean one console: equal but for case and for '-' written as '_' (the daemon
/// renames a console so at its first event).
bool IsSameName(std::string_view a, std::string_view b);

/// True when the name is the pattern, or matches it as a shell pattern (fnmatch(3)), with the same
/// freedom as IsSameName().
bool NameMatches(const std::string& name, const std::string& pattern);

/// True when the name begins with `start`, with the same freedom as IsSameName().
bool NameBeginsWith(std::string_view name, std::string_view start);

/// True when `a` comes before `b` in a list for people: case does not count, and numbers in names
/// are compared as numbers.
bool ComesBefore(const std::string& a, const std::string& b);

/// The one of `names` that `typed` means to a command that only looks: same name, else unique
/// prefix, else a glob that matches one. Throws Failure(kNoSuchConsole): with the nearest names, or
/// with the candidates.
std::string FindOneName(const std::vector<std::string>& names, const std::string& typed);

/// The words nearest to a mistyped one, nearest first, at most three; empty when none is near.
std::vector<std::string> NearestWords(std::string_view word, const std::vector<std::string>& words);

/// The names that a pattern means.
struct FoundNames {
  std::vector<std::string> names;  ///< in the given order
  bool by_name = false;            ///< the pattern is their name, and needs no matching
};

/// Those that have this name; else those that IsSameName(); else those that match it. "a-b" and
/// "a_b" may both be there, and who types one of them does not mean the other.
FoundNames FindNames(const std::vector<std::string>& names, const std::string& pattern);

/// What is said when no name is, or matches, what was typed; with the nearest names.
std::string NoSuchConsole(const std::string& typed, const std::vector<std::string>& names);

/// "a, b or c", printable.
std::string Alternatives(const std::vector<std::string>& words);

}  // namespace zevctl
