// The global lists, which are never destroyed, and look-ups over both lists of consoles.
#pragma once

#include <cstdint>

#include "command.h"
#include "console.h"
#include "event_set.h"
#include "fixed_text.h"
#include "locks.h"
#include "mapped_port.h"
#include "models.h"
#include "user_list.h"

namespace zevd {

extern ConsoleList* const a_cons_list PT_GUARDED_BY(acl_lock);  ///< connected consoles
extern ConsoleList* const i_cons_list PT_GUARDED_BY(icl_lock);  ///< all other consoles
extern UserList* const user_list PT_GUARDED_BY(ul_lock);        ///< every attached user
extern CommandList* const cmd_list PT_GUARDED_BY(cmd_lock);     ///< command connections
extern EventSetList* const ev_list;  ///< changed before the threads start, or with both console
                                     ///< list locks held
/// Only the thread user_conn changes it: the elements with pending_logins_mutex held; the set, the
/// index and the watch are its own.
extern MappedPortList* const mapped_port_list;
extern ModelList model_list;  ///< filled before the threads start, then only read

/// Makes the lists ready, and gives a watch to those that may grow long and are waited for. Main
/// thread, before there is another.
void InitializeLists();

// ---- Look-up by mapped port; these take acl_lock and icl_lock themselves ------------------------

/// What a connection on a mapped port needs to know about its console, copied under the list locks.
struct MappedConsole {
  char cname[kNameSize];
  int status;  ///< ConsoleStatus
  int auth;
  bool locked_exclusively;  ///< the first user attached holds mode 3
};

/// The first console of i_cons_list, or else of a_cons_list, with that mapped port; null when there
/// is none. The result only tells whether there is one: the node may be gone as soon as this
/// returns.
ConsoleNode* GetConsoleNodeFromMappedPort(uint16_t port) EXCLUDES(acl_lock, icl_lock);

/// Copies the same console's data. False when there is none.
bool CopyMappedConsole(uint16_t port, MappedConsole* copy) EXCLUDES(acl_lock, icl_lock);

}  // namespace zevd
