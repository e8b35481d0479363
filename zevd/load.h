// The console configuration file: reading it, and merging a new reading into the live lists.
#pragma once

#include "console.h"
#include "locks.h"

namespace zevd {

/// Reads `config_file` into `cons_list`, which is empty and which no other thread can see. A
/// malformed line is reported and left out; a file that cannot be opened ends the process. 0, or -1
/// when out of memory or when the file cannot be read to its end.
int LoadConfigFile(ConsoleList* cons_list);

/// Reads the file again, as LoadConfigFile() does, and merges it. 0, or -1 with the live lists
/// untouched.
int ReloadConfigFile() REQUIRES(acl_lock, icl_lock);

/// Takes the event sets off every console, frees them and loads them again. After a failure no
/// console has an event set until a later reload succeeds. 0 or -1.
int ReloadEventFiles() REQUIRES(acl_lock, icl_lock);

}  // namespace zevd
