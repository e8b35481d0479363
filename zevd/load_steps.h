// The steps of a load and of a reload, for the file itself and for its tests.
#pragma once

#include "console.h"
#include "locks.h"

namespace zevd {

/// Before the event sets are freed.
void SetEventNodeToNULLForAllConsoles() REQUIRES(acl_lock, icl_lock);

/// Takes over what `new_list` says; consoles that no live one matches are moved to i_cons_list.
void MergeConsoleLists(ConsoleList* new_list) REQUIRES(acl_lock, icl_lock);

void MarkConsolesAsDeleted(ConsoleList* cons_list);

class AddressTable;
class LogRenames;

/// Updates the first console of `cons_list` with the address and console port of `cnode`; its log
/// follows a new name. 1 when there was one, else 0. It is looked up in `table`, which holds the
/// list's consoles; without one they are compared one by one.
int UpdateConsole(const ConsoleNode* cnode, ConsoleList* cons_list, LogRenames* renames,
                  const AddressTable* table = nullptr) REQUIRES(acl_lock, icl_lock);

/// Writes both live lists at level 1; takes no lock.
void PrintConsoles();

}  // namespace zevd
