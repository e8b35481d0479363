// The local time as text.
#pragma once

#include <cstddef>

namespace zevd {

/// Formats the local time with strftime() and `format`. Returns the number of characters written, 0
/// when `size` is too small. Any thread; safe against the SIGTERM handler, which may need the same.
size_t FormatLocalTime(char* text, size_t size, const char* format);

/// Writes the local time as "yy/mm/dd_HH:MM:SS", otherwise as FormatLocalTime(). Every log record
/// and every debug line carries one, so the text is made anew only once a second.
size_t GetTimeStamp(char* time_str, size_t size);

}  // namespace zevd
