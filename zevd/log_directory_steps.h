// The steps of finding and making the directories, for the file itself and for its tests.
#pragma once

#include <cstddef>

namespace zevd {

/// 0 when "zev.dated" is missing or no directory.
int ZevDatedDirExists();
int CreateZevDatedDir();

/// 0 unless "current" is a link to a directory that stands in "zev.dated" itself.
int SymlinkToCurrDirExists();
int CreateSymlinkToCurrDir();
void RemoveSymlinkToCurrDir();

/// Builds the path of a dated directory for the present minute.
void GetNewDirName(char* dirname, size_t size);

}  // namespace zevd
