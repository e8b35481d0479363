// How consoles change lists and end: what closes their logs and their users besides.
#pragma once

#include "console.h"

namespace zevd {

enum class MoveCriterion { kConnected = 0, kNotConnected = 1, kAll = 2 };

/// Moves the consoles that meet the criterion to the tail of `to_list`, in their order. The caller
/// holds the locks of both lists.
void MoveConsolesToList(ConsoleList* from_list, ConsoleList* to_list, MoveCriterion criterion);

/// Tells the users of deleted consoles and closes them; frees deleted consoles that nobody refers
/// to. Stops at the first one that a user record still refers to. The caller holds the list's lock.
void DeleteMarkedConsoles(ConsoleList* list);

}  // namespace zevd
