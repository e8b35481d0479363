// The console configuration file: reading it, and merging a new reading into the live lists.
#pragma once

#include "console.h"
#include "locks.h"

/// Reads `config_file` into `cons_list`, which is empty. A malformed line is reported and left out;
/// a missing file ends the process. 0, or -1 when out of memory or when the file cannot be read to
/// its end. The list is one that no other thread can see.
int LoadConfigFile(ConsoleList* cons_list);

/// Reads the file again and merges it. 0, or -1 with the live lists untouched.
int ReloadConfigFile() REQUIRES(acl_lock, icl_lock);

/// Takes the event sets off every console, frees them and loads them again. After a failure no
/// console has an event set until a later reload succeeds. 0 or -1.
int ReloadEventFiles() REQUIRES(acl_lock, icl_lock);

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
