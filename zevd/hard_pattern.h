// Patterns that are too much for the system's matcher (regcomp(3) and regexec(3)), recognised by
// their text before the matcher sees them. A back-reference may take minutes for one line, or the
// whole stack. Nested repeat counts, and whatever else is copied over and over, take all memory to
// compile. With many choices after a part of unknown length, as in "a.*b.{20}c", each byte may be
// at any of many places, and the matcher keeps every set of places that it meets.
#pragma once

#include <cstddef>

namespace zevd {

/// Bounds within which a pattern of any shape is compiled in some ten milliseconds, and a line of a
/// kilobyte is matched in as many. The work grows with the square of the first two and doubles with
/// each of the next two.
inline constexpr size_t kMostCopies = 256;      ///< what counts and "+" add to what is written
inline constexpr size_t kMostOptional = 256;    ///< parts that may be absent, copies included
inline constexpr size_t kMostDoubling = 8;      ///< repeated what may be absent; anchors in groups
inline constexpr size_t kMostLateChoices = 10;  ///< choices after a part of unknown length
inline constexpr size_t kDeepestPattern = 24;   ///< groups within groups

/// True when a POSIX extended regular expression is such a pattern: it has a back-reference, or
/// exceeds the bounds. An invalid expression is judged by the part that the matcher would read
/// before it refuses the rest.
bool IsHardPattern(const char* pattern);

}  // namespace zevd
