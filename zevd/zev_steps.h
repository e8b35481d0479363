// The steps of parsing the options, for the file itself and for its tests.
#pragma once

#include <cstdint>

namespace zevd {

/// Seconds that the argument of -a stands for, also stored in log_archive_time; -1 when invalid.
int32_t GetLogArchiveTime(const char* str);

[[noreturn]] void ShowUsage(const char* program);
[[noreturn]] void ShowVersion();

}  // namespace zevd
