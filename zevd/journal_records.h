// What goes into the journal, said where it happens: one call for each kind of record. While there
// is no journal they do nothing but number the consoles.
//
// Any thread, with any lock held; nothing is waited for. A caller that hands over a console or a
// user holds what guards the fields that are read, as it does for its own work with them: for a
// console the lock of its list.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "console.h"
#include "identity.h"
#include "journal_settings.h"
#include "locks.h"
#include "user.h"

namespace zevd {

/// What is recorded of users' input from now on. Main thread.
void SetJournalInput(JournalInput input);

// ---- Consoles -----------------------------------------------------------------------------------

/// The console's number, name, address and port: when it is new, and when one of them has changed.
void JournalName(ConsoleNode* cnode);
void JournalNamesOf(const ConsoleList& list);

/// The journal has just been switched on: tells which consoles' output is not kept.
void JournalPausesOf(const ConsoleList& list);

/// The console has been deleted.
void JournalGone(ConsoleNode* cnode);

/// Output as users get it, unless the record is paused. As JournalQueue::PushQuietly().
[[nodiscard]] bool JournalOutput(ConsoleNode* cnode, const char* bytes, size_t count)
    REQUIRES(acl_lock);

/// Looks whether the console's output is kept, and tells when that has changed: its first user or
/// its logging flag may be others.
void JournalPause(ConsoleNode* cnode);

void JournalConnected(const ConsoleNode* cnode);
void JournalLost(const ConsoleNode* cnode, const char* reason);

/// The connection of a console on a_cons_list has ended, for the reason that is known of it.
void JournalClosed(const ConsoleNode* cnode) REQUIRES(acl_lock);

/// The console was disabled or enabled by whom; null for the configuration.
void JournalDisabled(const ConsoleNode* cnode, const Identity* who);
void JournalEnabled(const ConsoleNode* cnode, const Identity* who);

// ---- Users --------------------------------------------------------------------------------------

void JournalAttached(const UserNode* unode);
void JournalLeft(const UserNode* unode);

/// What a user typed has gone to the console: tells of breaks in it and, if that is asked for, how
/// much it was or what.
void JournalTyped(UserNode* unode, std::string_view bytes) REQUIRES(ul_lock);

/// An operator's message to the console's users; without a console to all users.
void JournalMessage(const ConsoleNode* cnode, const Identity& who, const char* message);

// ---- Others -------------------------------------------------------------------------------------

/// A line made an event. `console` is the console's number.
void JournalEvent(uint32_t console, std::string_view pattern, int priority, std::string_view line);

/// What the audit trail says. Null texts are empty; `reason` counts up to its first line end.
void JournalAudit(const char* what, const char* result, const Identity& who, const char* console,
                  const char* mode, const char* reason);

}  // namespace zevd
