// How often logs are archived, as the command line and the suite configuration file say.
#pragma once

namespace zevd {

/// Brings log_archive_time and the suite configuration file together: a value from the command line
/// is written to the file, otherwise the file's value is taken. A missing file is made with the
/// present value; a file without the setting is left alone. A file error ends the process. Main
/// thread, no lock held.
void GetZevdArchIntFromConfFile();

}  // namespace zevd
