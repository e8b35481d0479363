#pragma once

namespace zevd {

/// Reconciles log_archive_time with the suite configuration file: a value of the command line is
/// written to the file, otherwise the file's value is taken. A file without the setting is left
/// alone. A file error ends the process. Main thread, no lock held.
void GetZevdArchIntFromConfFile();

}  // namespace zevd
