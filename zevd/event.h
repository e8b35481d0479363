// Posting events to the station's event manager. Any thread; the one connection has a mutex of its
// own, and whoever holds it takes only the debug lock. An event is best effort: PostJixEvent()
// passes no failure back.
#pragma once

namespace zevd {

/// 0 when a connection exists or was made, -1 when not. A failure is reported only when it differs
/// from the one before.
int ConnectToJix();

/// Posts the event "<event_template>.<varValue>" (or the template alone without a variable) with up
/// to two string variables. Every "-" in `varValue` becomes "_" in the caller's own string: the
/// event manager does not take a "-" in a name, and a console keeps its changed name.
void PostJixEvent(const char* event_template, const char* varName, char* varValue,
                  const char* varMessage, const char* message, int priority);

/// Has PostDaemonError() (error.h) post its events here. Main thread, before there is another.
void PostDaemonErrorsToJix();

}  // namespace zevd
