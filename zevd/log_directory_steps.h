// The steps of finding and making the directories, for the file itself and for its tests.
#pragma once

#include <cstddef>

namespace zevd {

/// 1 when "zev.dated" is a directory, else 0.
int ZevDatedDirExists();

/// 0, or -1 with the reason in the debug output.
int CreateZevDatedDir();

/// 1 when "current" is a link to a directory that stands in "zev.dated" itself, else 0.
int SymlinkToCurrDirExists();

/// Replaces "current" by a link to a new dated directory. 0, or -1 with the reason in the debug
/// output.
int CreateSymlinkToCurrDir();
void RemoveSymlinkToCurrDir();

/// Builds the path of a dated directory for the present minute.
void GetNewDirName(char* dirname, size_t size);

}  // namespace zevd
