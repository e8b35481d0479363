#pragma once

#include <cstddef>

/// Writes the local time as "yy/mm/dd_HH:MM:SS" into `time_str`. Returns the number of characters
/// written, 0 when `size` is too small. Any thread; takes no lock of the daemon.
size_t GetTimeStamp(char* time_str, size_t size);
