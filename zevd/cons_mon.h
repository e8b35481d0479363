// The console output monitor: the main thread once start-up is done.
#pragma once

namespace zevd {

/// The loop; never returns.
[[noreturn]] void MonitorConsoleOutput();

}  // namespace zevd
