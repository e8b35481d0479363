// How consoles move between the lists and how they end, which also closes their logs and
// disconnects their users.
#pragma once

#include "console.h"
#include "locks.h"

namespace zevd {

enum class MoveCriterion { kConnected = 0, kNotConnected = 1, kAll = 2 };

/// Moves the consoles that meet the criterion to the tail of `to_list`, in their order. A console
/// for which there is no memory ends up on neither list, and those after it stay. The caller holds
/// the locks of both lists for writing.
void MoveConsolesToList(ConsoleList* from_list, ConsoleList* to_list, MoveCriterion criterion);

/// Tells the users of deleted consoles and marks them for closing; frees deleted consoles that
/// nobody refers to. Stops at the first one whose user list is empty while user records still refer
/// to it. The caller holds the list's lock for writing; when it is given as `lock`, others have it
/// after each millisecond of work.
void DeleteMarkedConsoles(ConsoleList* list, WriteLock* lock = nullptr);

}  // namespace zevd
