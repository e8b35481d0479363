// The steps of a load and of a reload, for the file itself and for its tests.
#pragma once

#include "console.h"
#include "locks.h"

namespace zevd {

/// Takes the event sets off all consoles, before the sets are freed.
void SetEventNodeToNULLForAllConsoles() REQUIRES(acl_lock, icl_lock);

/// Brings the live lists up to date with `new_list`. Its consoles that match no live one are moved
/// to i_cons_list; live ones that match none of its consoles stay marked as deleted.
void MergeConsoleLists(ConsoleList* new_list) REQUIRES(acl_lock, icl_lock);

/// Marks every console and wakes the console output monitor. The caller holds the list's lock.
void MarkConsolesAsDeleted(ConsoleList* cons_list);

class AddressTable;
class LogRenames;

/// Updates the first console of `cons_list` that has the address and console port of `cnode`; its
/// log follows a new name. 1 when there is one, else 0. It is looked up in `table`, which holds the
/// list's consoles; without a table they are compared one by one.
int UpdateConsole(const ConsoleNode* cnode, ConsoleList* cons_list, LogRenames* renames,
                  const AddressTable* table = nullptr) REQUIRES(acl_lock, icl_lock);

/// Writes both live lists at level 1. The caller holds both list locks, or there is no other
/// thread.
void PrintConsoles();

}  // namespace zevd
