// Well-formed UTF-8, and control characters, which no stranger may send to others' terminals.
#pragma once

#include <cstddef>
#include <string_view>

namespace zevd {

/// Length of the well-formed character at the start of `text`, which is not empty; 0 when there is
/// none (RFC 3629, section 4: no overlong forms, no surrogates, nothing above U+10FFFF).
size_t Utf8Length(std::string_view text);

/// Replaces every control character of the text by one "?", in place: bytes below 32 except the
/// tab, 127, and U+0080 to U+009F, be they in UTF-8 or bare bytes. A terminal would obey them.
void ReplaceControls(char* text);

/// The same, but the line end that ends the text stays.
void ReplaceControlsOfLine(char* text);

}  // namespace zevd
