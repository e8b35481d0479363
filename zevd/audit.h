// Who did what: one entry in the system log (facility authpriv, ident "zevd") for every login,
// attaching, leaving and control command.
//
// Any thread, with any lock held: the log is not waited for, and no lock is taken except the debug
// lock, when a loss is reported. An entry that the system log does not accept at once is lost and
// counted; the count is the first thing that is logged when it accepts entries again.
#pragma once

#include "identity.h"

namespace zevd {

/// One entry. A null text is written as an empty one; a text is cut at 256 bytes.
struct AuditEntry {
  const char* what;                    ///< as docs/operating.md lists them, or a command
  const char* result;                  ///< "accepted", "refused", "done" or "off"
  const Identity* identity = nullptr;  ///< null: the daemon itself
  const char* console = nullptr;       ///< its name, or what a command was given as one
  const char* mode = nullptr;          ///< "ro", "sh", "ex" or "er"
  const char* reason = nullptr;        ///< up to its first line end
};

/// The datagram socket of the system log (syslog(3)).
inline constexpr char kSystemLog[] = "/dev/log";

/// Opens the socket to the system log; when that fails, no entries are written. Before the worker
/// threads start.
void OpenAudit(const char* log = kSystemLog);

/// Writes `what`, `result`, `user`, `given_user`, `from`, `given_from`, `console`, `mode` and
/// `reason`, in this order and all of them, as key="value": `"`, `\` and bytes that are not
/// printable ASCII as \xNN. The entry that reports a loss has only `what`, `result` and `reason`.
void Audit(const AuditEntry& entry);

}  // namespace zevd
